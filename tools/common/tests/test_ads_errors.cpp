#include "adstool/ads_errors.h"

#include <gtest/gtest.h>

using namespace adstool;

TEST(AdsErrors, TextsOfKnownCodes)
{
    EXPECT_EQ(adsErrorText(0x6), "target port not found");
    EXPECT_EQ(adsErrorText(0x7), "target machine not found");
    EXPECT_EQ(adsErrorText(0x702), "invalid index group");
    EXPECT_EQ(adsErrorText(0x705), "invalid size");
    EXPECT_EQ(adsErrorText(0x1234), "");
}

TEST(AdsErrors, LabelIsTheNumberAndTheText)
{
    EXPECT_EQ(adsErrorLabel(0x701), "0x701 (service not supported)");
    EXPECT_EQ(adsErrorLabel(0x70B), "0x70B (invalid parameter values)");
    EXPECT_EQ(adsErrorLabel(0x1234), "0x1234");
}

TEST(AdsErrors, StateNames)
{
    EXPECT_EQ(adsStateName(0), "INVALID");
    EXPECT_EQ(adsStateName(5), "RUN");
    EXPECT_EQ(adsStateName(6), "STOP");
    EXPECT_EQ(adsStateName(15), "CONFIG");
    EXPECT_EQ(adsStateName(19), "EXCEPTION");
    EXPECT_EQ(adsStateName(20), "UNKNOWN");
    EXPECT_EQ(adsStateName(999), "UNKNOWN");
}
