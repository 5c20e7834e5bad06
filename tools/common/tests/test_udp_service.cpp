// The UDP service's layout, pinned byte by byte: header, tags, the requests the tool sends and
// the answers a device gives.
#include "adstool/udp_service.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace adstool;
using namespace adstool::udp;

namespace {

using Bytes = std::vector<uint8_t>;

NetId id(const char* text)
{
    NetId n;
    NetId::parse(text, n);
    return n;
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes text(const std::string& s)
{
    Bytes v(s.begin(), s.end());
    v.push_back(0);
    return v;
}

// A tag as the layout writes it: id and length little-endian, then the value.
Bytes tag(uint16_t tagId, const Bytes& value)
{
    return cat({{uint8_t(tagId), uint8_t(tagId >> 8), uint8_t(value.size()), uint8_t(value.size() >> 8)}, value});
}

const Bytes kCookieBytes = {0x03, 0x66, 0x14, 0x71};

}  // namespace

TEST(UdpService, DeviceInfoRequestIsTheBareHeader)
{
    const Bytes got = deviceInfoRequest(0x11223344u, id("10.0.0.5.1.1"));
    const Bytes want = {0x03, 0x66, 0x14, 0x71,  // cookie
        0x44, 0x33, 0x22, 0x11,                  // invoke id
        0x01, 0x00, 0x00, 0x00,                  // service 1: device info
        10, 0, 0, 5, 1, 1,                       // the sender's Net ID
        0x10, 0x27,                              // AMS port 10000
        0x00, 0x00, 0x00, 0x00};                 // no tags
    EXPECT_EQ(got, want);
    EXPECT_EQ(got.size(), kHeaderSize);
}

TEST(UdpService, AddRouteRequestTagsInTheirOrder)
{
    RouteRequest r;
    r.netId = id("192.168.1.20.1.1");
    r.routeName = "panel";
    r.userName = "Administrator";
    r.password = "1";
    r.address = "192.168.1.20";
    const Bytes got = addRouteRequest(7, id("192.168.1.20.1.1"), r);
    const Bytes want = cat(
        {kCookieBytes, {7, 0, 0, 0}, {6, 0, 0, 0}, {192, 168, 1, 20, 1, 1}, {0x10, 0x27}, {5, 0, 0, 0},  // five tags
            tag(12, text("panel")),                                                                      // route name
            tag(7, {192, 168, 1, 20, 1, 1}),  // the client's Net ID
            tag(13, text("Administrator")),   // user
            tag(2, {'1', 0}),                 // password, NUL counted
            tag(5, text("192.168.1.20"))});   // the client's address
    EXPECT_EQ(got, want);

    r.temporary = true;
    const Bytes temp = addRouteRequest(7, id("192.168.1.20.1.1"), r);
    EXPECT_EQ(temp[20], 6);                                                          // one more tag
    EXPECT_EQ(Bytes(temp.end() - 8, temp.end()), (Bytes {9, 0, 4, 0, 1, 0, 0, 0}));  // options = 1
}

TEST(UdpService, EmptyStringIsOneNul)
{
    const Bytes got = PacketWriter(1, kServiceAddRoute, NetId()).text(kTagPassword, "").finish();
    EXPECT_EQ(Bytes(got.begin() + 24, got.end()), (Bytes {2, 0, 1, 0, 0}));
    Packet p;
    ASSERT_TRUE(parsePacket(got, p));
    std::string s = "x";
    ASSERT_TRUE(textValue(p.tags.at(0), s));
    EXPECT_EQ(s, "");
}

TEST(UdpService, AddRouteAnswerIs32Bytes)
{
    const Bytes got = addRouteAnswer(9, id("5.1.2.3.1.1"), kStatusRefused);
    const Bytes want = cat({kCookieBytes, {9, 0, 0, 0}, {0x06, 0, 0, 0x80}, {5, 1, 2, 3, 1, 1}, {0x10, 0x27},
        {1, 0, 0, 0}, tag(1, {0x04, 0x07, 0, 0})});
    EXPECT_EQ(got, want);
    EXPECT_EQ(got.size(), 32u);
    Packet p;
    ASSERT_TRUE(parsePacket(got, p));
    uint32_t status = 0;
    ASSERT_TRUE(readAddRouteAnswer(p, status));
    EXPECT_EQ(status, 0x704u);
    EXPECT_EQ(statusLabel(status), "0x704 (user name or password refused)");
    EXPECT_EQ(statusText(0x706), "data missing");
    EXPECT_EQ(statusText(0), "accepted");
}

TEST(UdpService, RuntimeVersionBytes)
{
    Tag t;
    t.id = kTagRuntimeVersion;
    t.value = {0x03, 0x01, 0xb8, 0x0f};
    RuntimeVersion v;
    ASSERT_TRUE(runtimeVersionValue(t, v));
    EXPECT_EQ(v.str(), "3.1.4024");
    EXPECT_EQ(runtimeVersionBytes(v), t.value);
    RuntimeVersion parsed;
    ASSERT_TRUE(RuntimeVersion::parse("3.1.4024", parsed));
    EXPECT_EQ(runtimeVersionBytes(parsed), t.value);
    EXPECT_FALSE(RuntimeVersion::parse("3.1", parsed));
    EXPECT_FALSE(RuntimeVersion::parse("256.1.1", parsed));
    EXPECT_FALSE(RuntimeVersion::parse("3.1.65536", parsed));
    EXPECT_FALSE(RuntimeVersion::parse("3.1.4024x", parsed));
}

TEST(UdpService, OsVersionBlock)
{
    OsVersion os;
    os.major = 10;
    os.minor = 0;
    os.build = 17763;
    os.platform = 2;
    os.servicePack = "SP1";
    const Bytes b = osVersionBytes(os);
    ASSERT_EQ(b.size(), 276u);
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 28),
        (Bytes {0x14, 0x01, 0, 0,                       // size 276
            10, 0, 0, 0, 0, 0, 0, 0, 0x63, 0x45, 0, 0,  // 10.0.17763
            2, 0, 0, 0,                                 // Windows NT
            'S', 0, 'P', 0, '1', 0, 0, 0}));            // UTF-16LE text, then 0
    Tag t;
    t.value = b;
    OsVersion back;
    ASSERT_TRUE(osVersionValue(t, back));
    EXPECT_EQ(back.str(), "Windows NT 10.0.17763 (SP1)");
    os.platform = 0;
    os.servicePack.clear();
    EXPECT_EQ(os.str(), "BSD 10.0.17763");
    EXPECT_EQ(platformName(7), "platform 7");
    uint32_t p = 9;
    ASSERT_TRUE(parsePlatform("CE", p));
    EXPECT_EQ(p, 3u);
    EXPECT_FALSE(parsePlatform("linux", p));
}

TEST(UdpService, OsTextBeyondUnicodeBasicPlaneAndCutToTheBlock)
{
    OsVersion os;
    os.servicePack = "\xC3\xA9 \xF0\x9F\x98\x80";  // é, a space, U+1F600
    Tag t;
    t.value = osVersionBytes(os);
    EXPECT_EQ(
        Bytes(t.value.begin() + 20, t.value.begin() + 30), (Bytes {0xE9, 0, ' ', 0, 0x3D, 0xD8, 0x00, 0xDE, 0, 0}));
    OsVersion back;
    ASSERT_TRUE(osVersionValue(t, back));
    EXPECT_EQ(back.servicePack, os.servicePack);

    os.servicePack = std::string(300, 'x');
    t.value = osVersionBytes(os);
    ASSERT_EQ(t.value.size(), 276u);
    ASSERT_TRUE(osVersionValue(t, back));
    EXPECT_EQ(back.servicePack, std::string(127, 'x'));
}

// A device-info answer as a newer device sends it, written out by hand: tags 5, 4, 3, 18,
// and one tag this tool does not know, which is skipped.
TEST(UdpService, DeviceInfoAnswerFromBytes)
{
    Bytes os(276, 0);
    os[0] = 0x14;
    os[1] = 0x01;
    os[4] = 7;      // 7.0
    os[12] = 0x1c;  // build 0x1c = 28
    os[16] = 3;     // CE
    const std::string fp(64, 'a');
    const Bytes packet = cat({kCookieBytes, {0x21, 0, 0, 0}, {0x01, 0, 0, 0x80}, {172, 16, 0, 9, 1, 1}, {0x10, 0x27},
        {5, 0, 0, 0}, tag(5, text("CX-1234")), tag(4, os), tag(3, {0x03, 0x01, 0xb8, 0x0f}), tag(99, {1, 2, 3}),
        tag(18, text(fp))});
    Packet p;
    std::string why;
    ASSERT_TRUE(parsePacket(packet, p, &why)) << why;
    EXPECT_EQ(p.invokeId, 0x21u);
    EXPECT_TRUE(p.isAnswer());
    DeviceInfo d;
    ASSERT_TRUE(readDeviceInfoAnswer(p, d, &why)) << why;
    EXPECT_EQ(d.netId.str(), "172.16.0.9.1.1");
    EXPECT_EQ(d.hostName, "CX-1234");
    ASSERT_TRUE(d.hasRuntime);
    EXPECT_EQ(d.runtime.str(), "3.1.4024");
    ASSERT_TRUE(d.hasOs);
    EXPECT_EQ(d.os.str(), "CE 7.0.28");
    EXPECT_EQ(d.fingerprint, fp);

    // What the writer makes of the same information reads back the same.
    Packet again;
    ASSERT_TRUE(parsePacket(deviceInfoAnswer(0x21, d), again));
    DeviceInfo d2;
    ASSERT_TRUE(readDeviceInfoAnswer(again, d2));
    EXPECT_EQ(d2.hostName, d.hostName);
    EXPECT_EQ(d2.os.str(), d.os.str());
    EXPECT_EQ(d2.fingerprint, fp);
    EXPECT_EQ(again.tags.at(0).id, kTagComputerName);
    EXPECT_EQ(again.tags.at(1).id, kTagOsVersion);
    EXPECT_EQ(again.tags.at(2).id, kTagRuntimeVersion);
}

// Tags are found by id: a request with route name and address swapped in order still names
// the route by its name and points it to the address.
TEST(UdpService, AddRouteRequestReadByTagIdNotPosition)
{
    const Bytes packet = cat({kCookieBytes, {1, 0, 0, 0}, {6, 0, 0, 0}, {10, 0, 0, 5, 1, 1}, {0, 0}, {6, 0, 0, 0},
        tag(5, text("10.0.0.5")), tag(13, text("Administrator")), tag(9, {1, 0, 0, 0}), tag(2, text("1")),
        tag(7, {10, 0, 0, 5, 1, 1}), tag(12, text("panel-5"))});
    Packet p;
    ASSERT_TRUE(parsePacket(packet, p));
    RouteRequest r;
    std::string why;
    ASSERT_EQ(readAddRouteRequest(p, r, &why), kStatusAccepted) << why;
    EXPECT_EQ(r.routeName, "panel-5");
    EXPECT_EQ(r.address, "10.0.0.5");
    EXPECT_EQ(r.userName, "Administrator");
    EXPECT_EQ(r.password, "1");
    EXPECT_EQ(r.netId.str(), "10.0.0.5.1.1");
    EXPECT_TRUE(r.temporary);
}

TEST(UdpService, AddRouteRequestWithoutATagIsDataMissing)
{
    RouteRequest r;
    r.netId = id("1.2.3.4.1.1");
    r.routeName = "x";
    r.address = "1.2.3.4";
    const Bytes full = addRouteRequest(1, r.netId, r);
    Packet p;
    ASSERT_TRUE(parsePacket(full, p));
    for (uint16_t drop : {kTagRouteName, kTagNetId, kTagUserName, kTagPassword, kTagComputerName}) {
        Packet q = p;
        for (size_t i = 0; i < q.tags.size(); ++i)
            if (q.tags[i].id == drop)
                q.tags.erase(q.tags.begin() + long(i));
        RouteRequest out;
        std::string why;
        EXPECT_EQ(readAddRouteRequest(q, out, &why), kStatusDataMissing) << drop;
        EXPECT_NE(why.find("no tag"), std::string::npos) << why;
    }
    Packet bad = p;
    bad.tags[1].value.pop_back();  // a Net ID of 5 bytes
    RouteRequest out;
    EXPECT_EQ(readAddRouteRequest(bad, out), kStatusDataMissing);
    bad = p;
    bad.tags[0].value.back() = 'x';  // a route name without its NUL
    EXPECT_EQ(readAddRouteRequest(bad, out), kStatusDataMissing);
}

TEST(UdpService, MalformedPacketsAreRefused)
{
    const Bytes good = addRouteAnswer(1, id("1.2.3.4.1.1"), 0);
    Packet p;
    std::string why;
    ASSERT_TRUE(parsePacket(good, p));

    Bytes b = good;
    b[0] = 0x04;  // another cookie
    EXPECT_FALSE(parsePacket(b, p, &why));
    EXPECT_NE(why.find("cookie"), std::string::npos) << why;
    EXPECT_FALSE(parsePacket(Bytes(good.begin(), good.begin() + 23), p, &why));  // header cut
    EXPECT_FALSE(parsePacket(Bytes(good.begin(), good.end() - 1), p, &why));     // value cut
    EXPECT_NE(why.find("left"), std::string::npos) << why;
    EXPECT_FALSE(parsePacket(Bytes(good.begin(), good.end() - 6), p, &why));  // tag head cut
    b = good;
    b.push_back(0);
    EXPECT_FALSE(parsePacket(b, p, &why));  // a byte after the last tag
    b = good;
    b[20] = 0xFF;
    b[23] = 0xFF;  // a tag count far beyond the bytes
    EXPECT_FALSE(parsePacket(b, p, &why));
    EXPECT_FALSE(parsePacket(nullptr, 0, p, &why));

    // Well-formed, but not the answer asked for.
    ASSERT_TRUE(parsePacket(deviceInfoRequest(1, NetId()), p));
    DeviceInfo d;
    EXPECT_FALSE(readDeviceInfoAnswer(p, d, &why));
    uint32_t status = 0;
    EXPECT_FALSE(readAddRouteAnswer(p, status, &why));
    ASSERT_TRUE(parsePacket(PacketWriter(1, kServiceDeviceInfo | kAnswerBit, NetId()).u32(5, 1).finish(), p));
    EXPECT_FALSE(readDeviceInfoAnswer(p, d, &why));  // a host name that is no text
}
