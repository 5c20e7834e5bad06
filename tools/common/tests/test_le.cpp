#include "adstool/le.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace adstool;

TEST(Le, PutAppendsLowByteFirst)
{
    std::vector<uint8_t> v = {0xAA};
    putU16(v, 0x1234);
    putU32(v, 0x89ABCDEFu);
    EXPECT_EQ(v, (std::vector<uint8_t> {0xAA, 0x34, 0x12, 0xEF, 0xCD, 0xAB, 0x89}));
}

TEST(Le, GetReadsWhatPutWrote)
{
    std::vector<uint8_t> v;
    putU32(v, 0xFFFFFFFFu);
    putU16(v, 0x8001);
    putU32(v, 0x00010203u);
    EXPECT_EQ(getU32(v.data()), 0xFFFFFFFFu);
    EXPECT_EQ(getU16(v.data() + 4), 0x8001);
    EXPECT_EQ(getU32(v, 6), 0x00010203u);
    EXPECT_EQ(getU16(v, 4), 0x8001);
}

TEST(Le, VectorGetPastTheEndGivesZero)
{
    const std::vector<uint8_t> v = {1, 2, 3};
    EXPECT_EQ(getU16(v, 1), 0x0302);
    EXPECT_EQ(getU16(v, 2), 0);
    EXPECT_EQ(getU32(v, 0), 0u);
}

TEST(Le, SetOverwritesInPlace)
{
    uint8_t b[8] = {0, 0, 0, 0, 0, 0, 0, 0x77};
    setU32(b + 1, 0x04030201u);
    setU16(b + 5, 0xBEEF);
    const uint8_t want[8] = {0, 1, 2, 3, 4, 0xEF, 0xBE, 0x77};
    EXPECT_EQ(0, std::memcmp(b, want, 8));
}
