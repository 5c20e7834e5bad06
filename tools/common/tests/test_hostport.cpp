#include "adstool/hostport.h"

#include <gtest/gtest.h>

using namespace adstool;

TEST(HostPortText, Parses)
{
    HostPort hp;
    ASSERT_TRUE(parseHostPort("127.0.0.1:48898", hp));
    EXPECT_EQ(hp.host, "127.0.0.1");
    EXPECT_EQ(hp.port, 48898);
    EXPECT_EQ(hp.str(), "127.0.0.1:48898");
    ASSERT_TRUE(parseHostPort("plc.local:1", hp));
    EXPECT_EQ(hp.host, "plc.local");
    ASSERT_TRUE(parseHostPort("127.0.0.1:65535", hp));
    EXPECT_EQ(hp.port, 65535);
}

TEST(HostPortText, PortRangeDependsOnTheRule)
{
    HostPort hp;
    std::string why;
    EXPECT_FALSE(parseHostPort("127.0.0.1:0", hp, PortRule::NonZero, &why));
    EXPECT_NE(why.find("1 to 65535"), std::string::npos) << why;
    ASSERT_TRUE(parseHostPort("127.0.0.1:0", hp, PortRule::AnyPort));
    EXPECT_EQ(hp.port, 0);
    EXPECT_FALSE(parseHostPort("127.0.0.1:65536", hp, PortRule::AnyPort, &why));
    EXPECT_NE(why.find("65536"), std::string::npos) << why;
    EXPECT_NE(why.find("0 to 65535"), std::string::npos) << why;
}

TEST(HostPortText, RejectsMalformed)
{
    const char* bad[] = {"", ":80", "127.0.0.1:", "127.0.0.1", "127.0.0.1:8o", "127.0.0.1: 80", "127.0.0.1:-1",
        "127.0.0.1:+80", "127.0.0.1:100000", "127.0.0.1:0x50"};
    for (const char* t : bad) {
        HostPort hp;
        std::string why;
        EXPECT_FALSE(parseHostPort(t, hp, PortRule::AnyPort, &why)) << t;
        EXPECT_FALSE(why.empty()) << t;
    }
}

TEST(HostPortText, DefaultPortWhenNoneGiven)
{
    HostPort hp;
    ASSERT_TRUE(parseHostPort("192.168.1.100", hp, PortRule::NonZero, nullptr, 48898));
    EXPECT_EQ(hp.host, "192.168.1.100");
    EXPECT_EQ(hp.port, 48898);
}

TEST(HostPortText, Ports)
{
    uint16_t p = 7;
    EXPECT_TRUE(parsePort("851", p));
    EXPECT_EQ(p, 851);
    EXPECT_FALSE(parsePort("0", p));
    EXPECT_EQ(p, 851);
    EXPECT_TRUE(parsePort("0", p, PortRule::AnyPort));
    EXPECT_FALSE(parsePort("123456", p, PortRule::AnyPort));
    EXPECT_TRUE(isIpv4Address("127.0.0.1"));
    EXPECT_FALSE(isIpv4Address("localhost"));
    EXPECT_FALSE(isIpv4Address("1.2.3.256"));
}
