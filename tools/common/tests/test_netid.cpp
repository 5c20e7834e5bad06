#include "adstool/netid.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace adstool;

TEST(NetIdText, ParsesAndFormats)
{
    NetId id;
    ASSERT_TRUE(NetId::parse("192.168.1.100.1.1", id));
    const uint8_t want[6] = {192, 168, 1, 100, 1, 1};
    EXPECT_EQ(0, std::memcmp(id.b, want, 6));
    EXPECT_EQ(id.str(), "192.168.1.100.1.1");
    ASSERT_TRUE(NetId::parse("0.0.0.0.255.255", id));
    EXPECT_EQ(id.str(), "0.0.0.0.255.255");
    ASSERT_TRUE(NetId::parse("007.1.2.3.4.5", id));  // leading zeros: still decimal
    EXPECT_EQ(id.b[0], 7);
}

TEST(NetIdText, AValueAbove255IsAnErrorNotAWrap)
{
    NetId id;
    ASSERT_TRUE(NetId::parse("1.2.3.4.5.6", id));
    std::string why;
    EXPECT_FALSE(NetId::parse("1.2.3.4.5.300", id, &why));
    EXPECT_EQ(id.str(), "1.2.3.4.5.6");  // left alone
    EXPECT_NE(why.find("field 6"), std::string::npos) << why;
    EXPECT_NE(why.find("300"), std::string::npos) << why;
    EXPECT_NE(why.find("255"), std::string::npos) << why;
    EXPECT_FALSE(NetId::parse("256.0.0.0.1.1", id));
    EXPECT_FALSE(NetId::parse("1.2.3.4.5.1000", id));
}

TEST(NetIdText, RejectsMalformedTexts)
{
    const char* bad[]
        = {"", "1.2.3.4.5", "1.2.3.4.5.6.7", "1.2.3.4.5.", ".1.2.3.4.5", "1..2.3.4.5", "1.2.3.4.5.6 ", " 1.2.3.4.5.6",
            "1.2.3.4.5.-6", "1.2.3.4.5.+6", "a.b.c.d.e.f", "1,2,3,4,5,6", "1.2.3.4.5.0x6", "1.2.3.4.5.0006"};
    for (const char* t : bad) {
        NetId id;
        std::string why;
        EXPECT_FALSE(NetId::parse(t, id, &why)) << t;
        EXPECT_FALSE(why.empty()) << t;
        EXPECT_FALSE(isNetId(t)) << t;
    }
    EXPECT_TRUE(isNetId("5.6.7.8.1.1"));
}

TEST(NetIdText, BytesAndOrder)
{
    const uint8_t raw[6] = {10, 0, 0, 1, 1, 1};
    const NetId a = NetId::fromBytes(raw);
    EXPECT_EQ(a.str(), "10.0.0.1.1.1");
    std::vector<uint8_t> v = {9};
    a.put(v);
    EXPECT_EQ(v, (std::vector<uint8_t> {9, 10, 0, 0, 1, 1, 1}));
    NetId b;
    ASSERT_TRUE(NetId::parse("10.0.0.2.1.1", b));
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_TRUE(a != b);
    EXPECT_TRUE(a == NetId::fromBytes(raw));
}
