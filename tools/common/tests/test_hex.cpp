#include "adstool/hex.h"

#include <gtest/gtest.h>

using namespace adstool;

TEST(Hex, BytesToLowerCaseDigits)
{
    EXPECT_EQ(toHex(std::vector<uint8_t> {0x00, 0x0A, 0xFF, 0x12}), "000aff12");
    EXPECT_EQ(toHex(std::vector<uint8_t> {}), "");
}

TEST(Hex, RoundTripOfEveryByte)
{
    std::vector<uint8_t> all;
    for (int i = 0; i < 256; ++i)
        all.push_back(uint8_t(i));
    std::vector<uint8_t> back;
    ASSERT_TRUE(fromHex(toHex(all), back));
    EXPECT_EQ(back, all);
}

TEST(Hex, ParsesEitherCase)
{
    std::vector<uint8_t> out;
    ASSERT_TRUE(fromHex("efBE3412", out));
    EXPECT_EQ(out, (std::vector<uint8_t> {0xEF, 0xBE, 0x34, 0x12}));
    ASSERT_TRUE(fromHex("", out));
    EXPECT_TRUE(out.empty());
}

TEST(Hex, RejectsOddLengthAndNonDigitsAndLeavesNothing)
{
    std::vector<uint8_t> out = {1, 2};
    EXPECT_FALSE(fromHex("abc", out));
    EXPECT_TRUE(out.empty());
    out = {1};
    EXPECT_FALSE(fromHex("0g", out));
    EXPECT_TRUE(out.empty());
    EXPECT_FALSE(fromHex("12 34", out));
    EXPECT_FALSE(fromHex("0x12", out));
    EXPECT_FALSE(fromHex("-1", out));
}

TEST(Hex, Numbers)
{
    EXPECT_EQ(hexNumber(0), "0x0");
    EXPECT_EQ(hexNumber(0x70b), "0x70b");
    EXPECT_EQ(hexNumber(0x70b, true), "0x70B");
    EXPECT_EQ(hexNumber(0xFFFFFFFFu), "0xffffffff");
}
