// Unit tests of the in-process PLC (plcsim_core).
#include "plc_core.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace plcsim;

namespace {

NetId id(const char* text)
{
    NetId n;
    EXPECT_TRUE(NetId::parse(text, n)) << text;
    return n;
}

const NetId kPlc = id("192.168.1.100.1.1");
const NetId kPanel = id("192.168.1.10.1.1");
constexpr uint16_t kPanelPort = 0x8147;

std::vector<uint8_t> request(uint16_t cmd, const std::vector<uint8_t>& data, uint16_t port = 851,
    uint32_t invoke = 0x12345678, const NetId& source = kPanel)
{
    return buildRequest(kPlc, port, source, kPanelPort, cmd, invoke, data);
}

uint32_t result(const std::vector<uint8_t>& reply)
{
    return reply.size() >= HeadersSize + 4 ? getU32(&reply[HeadersSize]) : 0xFFFFFFFFu;
}

// Length fields of a reply agree with its size.
void expectConsistent(const std::vector<uint8_t>& reply)
{
    ASSERT_GE(reply.size(), HeadersSize);
    EXPECT_EQ(getU32(&reply[2]), reply.size() - TcpHeaderSize);
    EXPECT_EQ(getU32(&reply[26]), reply.size() - HeadersSize);
    EXPECT_TRUE(parseFrame(reply).ok);
}

const uint32_t kGroups[] = {GroupInputs, GroupOutputs, GroupMemory};

}  // namespace

TEST(NetIdTest, ParseAndPrint)
{
    NetId n;
    ASSERT_TRUE(NetId::parse("5.12.0.255.1.1", n));
    EXPECT_EQ(n.b[0], 5);
    EXPECT_EQ(n.b[3], 255);
    EXPECT_EQ(n.str(), "5.12.0.255.1.1");
    for (const char* bad : {"", "1.2.3.4.5", "1.2.3.4.5.6.7", "1.2.3.4.5.256", "1.2.3.4.5.x", "1..3.4.5.6",
             "1.2.3.4.5.6 ", "0001.2.3.4.5.6"})
        EXPECT_FALSE(NetId::parse(bad, n)) << bad;
}

TEST(PlcCore, ReplyHeaderSwapsAddressesAndKeepsInvokeId)
{
    Plc plc;
    const auto reply = plc.handle(request(CmdReadState, {}, 851, 0xA1B2C3D4));
    ASSERT_EQ(reply.size(), HeadersSize + 8);
    const ParsedFrame f = parseFrame(reply);
    ASSERT_TRUE(f.ok);
    EXPECT_EQ(f.tcpReserved, 0);
    EXPECT_EQ(f.tcpLength, 40u);
    EXPECT_EQ(f.target, kPanel);
    EXPECT_EQ(f.targetPort, kPanelPort);
    EXPECT_EQ(f.source, kPlc);
    EXPECT_EQ(f.sourcePort, 851);
    EXPECT_EQ(f.cmd, CmdReadState);
    EXPECT_EQ(f.stateFlags, 0x0005);
    EXPECT_EQ(f.dataLength, 8u);
    EXPECT_EQ(f.errorCode, 0u);
    EXPECT_EQ(f.invokeId, 0xA1B2C3D4u);
    EXPECT_EQ(getU32(&f.data[0]), 0u);
    EXPECT_EQ(getU16(&f.data[4]), AdsStateRun);
    EXPECT_EQ(getU16(&f.data[6]), 0);
}

TEST(PlcCore, HandshakeOnPort100)
{
    // AddDeviceNotification as the panel driver sends it first: group 1, offset
    // 0xFFFF, length 1024, mode 3, to port 100 with invoke id 7. Written out byte
    // by byte so that the frame does not depend on buildRequest.
    const std::vector<uint8_t> frame = {0x00, 0x00, 0x48, 0x00, 0x00, 0x00,  // AMS/TCP: length 72
        0xC0, 0xA8, 0x01, 0x64, 0x01, 0x01, 0x64, 0x00,                      // target 192.168.1.100.1.1:100
        0xC0, 0xA8, 0x01, 0x0A, 0x01, 0x01, 0xBB, 0x80,                      // source 192.168.1.10.1.1:32955
        0x06, 0x00, 0x04, 0x00,                                              // cmd 6, flags 4
        0x28, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,                      // data length 40, error 0
        0x07, 0x00, 0x00, 0x00,                                              // invoke 7
        0x01, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0x00, 0x00,                      // group 1, offset 0xFFFF
        0x00, 0x04, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,                      // length 1024, mode 3
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,                      // max delay, cycle time
        0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    ASSERT_EQ(frame.size(), 78u);
    Plc plc;
    const auto reply = plc.handle(frame);
    ASSERT_EQ(reply.size(), 46u);
    const ParsedFrame f = parseFrame(reply);
    ASSERT_TRUE(f.ok);
    EXPECT_EQ(f.cmd, CmdAddNotification);
    EXPECT_EQ(f.invokeId, 7u);
    EXPECT_EQ(f.sourcePort, 100);
    EXPECT_EQ(f.targetPort, 32955);
    EXPECT_EQ(f.target, kPanel);
    EXPECT_EQ(getU32(&f.data[0]), 0u);
    EXPECT_NE(getU32(&f.data[4]), 0u);
}

TEST(PlcCore, DriverStyleReadFrame)
{
    // Read of 4 bytes at 0xF030:100 to port 801, invoke id 0.
    const std::vector<uint8_t> frame
        = {0x00, 0x00, 0x2C, 0x00, 0x00, 0x00, 0xC0, 0xA8, 0x01, 0x64, 0x01, 0x01, 0x21, 0x03, 0xC0, 0xA8, 0x01, 0x0A,
            0x01, 0x01, 0x47, 0x81, 0x02, 0x00, 0x04, 0x00, 0x0C, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
            0x00, 0x00, 0x30, 0xF0, 0x00, 0x00, 0x64, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00};
    ASSERT_EQ(frame.size(), 50u);
    Plc plc;
    std::memcpy(plc.memory(GroupOutputs) + 100, "\x11\x22\x33\x44", 4);
    const auto reply = plc.handle(frame);
    ASSERT_EQ(reply.size(), 50u);  // 46 + 4
    EXPECT_EQ(getU16(&reply[12]), 0x8147);
    EXPECT_EQ(getU16(&reply[20]), 801);
    EXPECT_EQ(getU32(&reply[38]), 0u);
    EXPECT_EQ(getU32(&reply[42]), 4u);
    EXPECT_EQ(std::vector<uint8_t>(reply.begin() + 46, reply.end()), (std::vector<uint8_t> {0x11, 0x22, 0x33, 0x44}));
}

TEST(PlcCore, ReadEachGroup)
{
    Plc plc;
    for (uint32_t g : kGroups) {
        uint8_t* m = plc.memory(g);
        ASSERT_NE(m, nullptr);
        for (int i = 0; i < 8; ++i)
            m[500 + i] = uint8_t(g + i);
        const auto reply = plc.handle(request(CmdRead, readData(g, 500, 8)));
        ASSERT_EQ(reply.size(), 46u + 8);
        expectConsistent(reply);
        EXPECT_EQ(result(reply), 0u);
        EXPECT_EQ(getU32(&reply[42]), 8u);
        EXPECT_EQ(std::memcmp(&reply[46], m + 500, 8), 0);
    }
    EXPECT_EQ(plc.memory(0x4021), nullptr);
    EXPECT_EQ(plc.counters().byCommand[CmdRead], 3u);
}

TEST(PlcCore, WriteEachGroup)
{
    Plc plc;
    for (uint32_t g : kGroups) {
        const std::vector<uint8_t> bytes = {0xDE, 0xAD, uint8_t(g >> 8)};
        const auto reply = plc.handle(request(CmdWrite, writeData(g, 0xFFFD, bytes)));
        ASSERT_EQ(reply.size(), 42u);
        expectConsistent(reply);
        EXPECT_EQ(result(reply), 0u);
        EXPECT_EQ(std::memcmp(plc.memory(g) + 0xFFFD, bytes.data(), 3), 0);
    }
}

TEST(PlcCore, ReadWriteEachGroup)
{
    Plc plc;
    for (uint32_t g : kGroups) {
        const auto reply = plc.handle(request(CmdReadWrite, readWriteData(g, 10, 4, {1, 2})));
        ASSERT_EQ(reply.size(), 46u + 4);
        expectConsistent(reply);
        EXPECT_EQ(result(reply), 0u);
        EXPECT_EQ(getU32(&reply[42]), 4u);
        EXPECT_EQ(std::vector<uint8_t>(reply.begin() + 46, reply.end()), (std::vector<uint8_t> {1, 2, 0, 0}));
    }
}

TEST(PlcCore, ZeroLengthReadAndWrite)
{
    Plc plc;
    auto r = plc.handle(request(CmdRead, readData(GroupMemory, 0, 0)));
    ASSERT_EQ(r.size(), 46u);
    EXPECT_EQ(result(r), 0u);
    r = plc.handle(request(CmdWrite, writeData(GroupMemory, 0, {})));
    ASSERT_EQ(r.size(), 42u);
    EXPECT_EQ(result(r), 0u);
}

TEST(PlcCore, UnknownIndexGroup)
{
    Plc plc;
    auto r = plc.handle(request(CmdRead, readData(0x4021, 0, 2)));
    ASSERT_EQ(r.size(), 46u);  // result and a zero length
    expectConsistent(r);
    EXPECT_EQ(result(r), ErrInvalidGroup);
    EXPECT_EQ(getU32(&r[42]), 0u);
    r = plc.handle(request(CmdWrite, writeData(0xF021, 0, {1})));
    ASSERT_EQ(r.size(), 42u);
    EXPECT_EQ(result(r), ErrInvalidGroup);
    r = plc.handle(request(CmdReadWrite, readWriteData(1, 0, 1, {})));
    ASSERT_EQ(r.size(), 46u);
    EXPECT_EQ(result(r), ErrInvalidGroup);
}

TEST(PlcCore, OutOfRange)
{
    Plc plc;
    auto r = plc.handle(request(CmdRead, readData(GroupMemory, 0x10000, 1)));
    ASSERT_EQ(r.size(), 46u);
    EXPECT_EQ(result(r), ErrInvalidOffset);
    r = plc.handle(request(CmdRead, readData(GroupMemory, 0xFFFF, 2)));
    ASSERT_EQ(r.size(), 46u);
    EXPECT_EQ(result(r), ErrInvalidSize);
    EXPECT_EQ(getU32(&r[42]), 0u);
    r = plc.handle(request(CmdRead, readData(GroupInputs, 0, 0xFFFFFFFFu)));
    EXPECT_EQ(result(r), ErrInvalidSize);
    r = plc.handle(request(CmdWrite, writeData(GroupOutputs, 0xFFFF, {1, 2})));
    ASSERT_EQ(r.size(), 42u);
    EXPECT_EQ(result(r), ErrInvalidSize);
    EXPECT_EQ(plc.memory(GroupOutputs)[0xFFFF], 0);
    r = plc.handle(request(CmdWrite, writeData(GroupOutputs, 0x20000, {1})));
    EXPECT_EQ(result(r), ErrInvalidOffset);
}

TEST(PlcCore, WriteWhoseLengthDisagreesWithItsData)
{
    Plc plc;
    std::vector<uint8_t> d = writeData(GroupMemory, 0, {1, 2, 3});
    d[8] = 5;  // says 5 bytes, carries 3
    const auto r = plc.handle(request(CmdWrite, d));
    ASSERT_EQ(r.size(), 42u);
    EXPECT_EQ(result(r), ErrInvalidSize);
    EXPECT_EQ(plc.memory(GroupMemory)[0], 0);
}

TEST(PlcCore, UnknownCommandGetsAmsError)
{
    Plc plc;
    for (uint16_t cmd : {uint16_t(0), uint16_t(CmdNotification), uint16_t(10), uint16_t(0x1234)}) {
        const auto r = plc.handle(request(cmd, {1, 2, 3, 4}));
        ASSERT_EQ(r.size(), HeadersSize) << cmd;
        const ParsedFrame f = parseFrame(r);
        EXPECT_TRUE(f.ok);
        EXPECT_EQ(f.cmd, cmd);
        EXPECT_EQ(f.errorCode, ErrServiceNotSupported);
        EXPECT_EQ(f.dataLength, 0u);
    }
}

TEST(PlcCore, WrongPortAndWrongTarget)
{
    Plc plc;
    auto r = plc.handle(request(CmdRead, readData(GroupMemory, 0, 2), 852));
    ASSERT_EQ(r.size(), HeadersSize);
    EXPECT_EQ(parseFrame(r).errorCode, ErrTargetPortNotFound);
    EXPECT_EQ(parseFrame(r).stateFlags, 0x0005);

    // 801 and 851 are runtime ports by default; the set can be changed.
    EXPECT_EQ(plc.handle(request(CmdRead, readData(GroupMemory, 0, 2), 801)).size(), 48u);
    plc.setRuntimePorts({851});
    EXPECT_EQ(
        parseFrame(plc.handle(request(CmdRead, readData(GroupMemory, 0, 2), 801))).errorCode, ErrTargetPortNotFound);

    // Port 100 takes AddDeviceNotification only.
    r = plc.handle(request(CmdRead, readData(GroupMemory, 0, 2), 100));
    ASSERT_EQ(r.size(), 46u);
    EXPECT_EQ(result(r), ErrServiceNotSupported);

    const auto other = buildRequest(id("192.168.1.101.1.1"), 851, kPanel, kPanelPort, CmdReadState, 1, {});
    r = plc.handle(other);
    ASSERT_EQ(r.size(), HeadersSize);
    EXPECT_EQ(parseFrame(r).errorCode, ErrTargetMachineNotFound);
}

TEST(PlcCore, PortRegistration)
{
    Plc plc;
    auto r = plc.handle(portRequest(0));
    ASSERT_EQ(r.size(), 14u);
    EXPECT_EQ(getU16(&r[0]), 0x1000);
    EXPECT_EQ(getU32(&r[2]), 8u);
    EXPECT_EQ(std::memcmp(&r[6], kPlc.b, 6), 0);
    EXPECT_NE(getU16(&r[12]), 0);
    r = plc.handle(portRequest(30000));
    ASSERT_EQ(r.size(), 14u);
    EXPECT_EQ(getU16(&r[12]), 30000);
    const std::vector<uint8_t> release = {0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x30, 0x75};
    EXPECT_TRUE(plc.handle(release).empty());
    EXPECT_EQ(plc.counters().portFrames, 3u);
    EXPECT_EQ(plc.counters().requests, 0u);
}

TEST(PlcCore, Routes)
{
    Plc plc;
    const NetId stranger = id("10.0.0.5.1.1");
    EXPECT_FALSE(plc.handle(request(CmdReadState, {}, 851, 1, stranger)).empty());  // no routes: all answered
    plc.addRoute(kPanel);
    EXPECT_FALSE(plc.handle(request(CmdReadState, {}, 851, 1, kPanel)).empty());
    EXPECT_TRUE(plc.handle(request(CmdReadState, {}, 851, 1, stranger)).empty());
    EXPECT_FALSE(plc.handle(request(CmdReadState, {}, 851, 1, kPlc)).empty());  // own Net ID is local
    EXPECT_EQ(plc.counters().unanswered, 1u);
    plc.clearRoutes();
    EXPECT_FALSE(plc.handle(request(CmdReadState, {}, 851, 1, stranger)).empty());
}

TEST(PlcCore, DeviceInfo)
{
    Plc plc;
    const auto r = plc.handle(request(CmdReadDeviceInfo, {}));
    ASSERT_EQ(r.size(), HeadersSize + 24);
    expectConsistent(r);
    EXPECT_EQ(result(r), 0u);
    EXPECT_STREQ(reinterpret_cast<const char*>(&r[HeadersSize + 8]), "Plc30 App");
}

TEST(PlcCore, StateAndWriteControl)
{
    Plc plc;
    auto control = [&](uint16_t state) {
        std::vector<uint8_t> d;
        putU16(d, state);
        putU16(d, 0);
        putU32(d, 0);
        return plc.handle(request(CmdWriteControl, d));
    };
    auto state = [&]() { return getU16(&plc.handle(request(CmdReadState, {}))[HeadersSize + 4]); };
    EXPECT_EQ(state(), AdsStateRun);
    auto r = control(AdsStateStop);
    ASSERT_EQ(r.size(), 42u);
    EXPECT_EQ(result(r), 0u);
    EXPECT_EQ(state(), AdsStateStop);
    EXPECT_EQ(plc.adsState(), AdsStateStop);
    EXPECT_EQ(result(control(99)), ErrInvalidParam);
    EXPECT_EQ(state(), AdsStateStop);
    plc.setAdsState(AdsStateRun);
    EXPECT_EQ(state(), AdsStateRun);
}

TEST(PlcCore, Notifications)
{
    Plc plc;
    std::vector<uint8_t> d = readData(GroupMemory, 0, 2);
    putU32(d, 4);
    putU32(d, 0);
    putU32(d, 100000);
    d.resize(40, 0);
    auto r = plc.handle(request(CmdAddNotification, d));
    ASSERT_EQ(r.size(), 46u);
    EXPECT_EQ(result(r), 0u);
    const uint32_t handle = getU32(&r[42]);
    std::vector<uint8_t> del;
    putU32(del, handle);
    r = plc.handle(request(CmdDeleteNotification, del));
    ASSERT_EQ(r.size(), 42u);
    EXPECT_EQ(result(r), 0u);
    r = plc.handle(request(CmdDeleteNotification, del));
    EXPECT_EQ(result(r), ErrNotifyHandleInvalid);
    d[0] = 0x21;  // group 0x4021
    r = plc.handle(request(CmdAddNotification, d));
    ASSERT_EQ(r.size(), 46u);
    EXPECT_EQ(result(r), ErrInvalidGroup);
}

TEST(PlcCore, ProgramStep)
{
    Plc plc;
    uint8_t* m = plc.memory(GroupMemory);
    const uint16_t sine0 = getU16(plc.memory(GroupInputs));
    for (int i = 0; i < 4; ++i)
        plc.programStep();
    EXPECT_EQ(getU16(m), 4);
    EXPECT_EQ(m[2] & 1, 0);
    plc.programStep();
    EXPECT_EQ(m[2] & 1, 1);
    EXPECT_NE(getU16(plc.memory(GroupInputs)), sine0);
    for (int i = 0; i < 5; ++i)
        plc.programStep();
    EXPECT_EQ(m[2] & 1, 0);
    EXPECT_EQ(getU16(m), 10);
    plc.setAdsState(AdsStateStop);
    plc.programStep();
    EXPECT_EQ(getU16(m), 10);
}

TEST(PlcCore, FaultNoReplyStillCarriesOutTheRequest)
{
    Plc plc;
    plc.injectFault(Fault::NoReply, 1);
    EXPECT_TRUE(plc.handle(request(CmdWrite, writeData(GroupMemory, 0, {7}))).empty());
    EXPECT_EQ(plc.lastFault(), Fault::NoReply);
    EXPECT_EQ(plc.memory(GroupMemory)[0], 7);
    EXPECT_FALSE(plc.handle(request(CmdReadState, {})).empty());
    EXPECT_EQ(plc.lastFault(), Fault::None);
    EXPECT_EQ(plc.counters().faults, 1u);
    EXPECT_EQ(plc.counters().unanswered, 1u);
}

TEST(PlcCore, FaultShortAndLongKeepLengthFieldsConsistent)
{
    Plc plc;
    const auto good = plc.handle(request(CmdRead, readData(GroupMemory, 0, 4)));
    ASSERT_EQ(good.size(), 50u);
    plc.injectFault(Fault::Short, 1);
    const auto shorter = plc.handle(request(CmdRead, readData(GroupMemory, 0, 4)));
    EXPECT_EQ(plc.lastFault(), Fault::Short);
    ASSERT_EQ(shorter.size(), 49u);
    expectConsistent(shorter);
    EXPECT_TRUE(std::equal(shorter.begin() + 38, shorter.end(), good.begin() + 38));

    plc.injectFault(Fault::Long, 1);
    const auto longer = plc.handle(request(CmdRead, readData(GroupMemory, 0, 4)));
    EXPECT_EQ(plc.lastFault(), Fault::Long);
    ASSERT_EQ(longer.size(), 51u);
    expectConsistent(longer);
    EXPECT_TRUE(std::equal(good.begin() + 38, good.end(), longer.begin() + 38));

    plc.injectFault(Fault::Short, 1);
    const auto shortWrite = plc.handle(request(CmdWrite, writeData(GroupMemory, 0, {1})));
    ASSERT_EQ(shortWrite.size(), 41u);
    expectConsistent(shortWrite);
}

TEST(PlcCore, FaultAdsError)
{
    Plc plc;
    plc.injectFault(Fault::AdsError, 2);
    auto r = plc.handle(request(CmdRead, readData(GroupMemory, 0, 4)));
    ASSERT_EQ(r.size(), 46u);
    expectConsistent(r);
    EXPECT_EQ(result(r), ErrServiceNotSupported);
    EXPECT_EQ(getU32(&r[42]), 0u);
    r = plc.handle(request(CmdWrite, writeData(GroupMemory, 0, {9})));
    ASSERT_EQ(r.size(), 42u);
    EXPECT_EQ(result(r), ErrServiceNotSupported);
    EXPECT_EQ(plc.memory(GroupMemory)[0], 0);  // an error answer means: not done
    plc.setFaultErrorCode(ErrInvalidSize);
    plc.injectFault(Fault::AdsError, 1);
    r = plc.handle(request(CmdRead, readData(GroupMemory, 0, 4)));
    EXPECT_EQ(result(r), ErrInvalidSize);
    EXPECT_EQ(result(plc.handle(request(CmdRead, readData(GroupMemory, 0, 4)))), 0u);
}

TEST(PlcCore, TransportFaultsAreReported)
{
    Plc plc;
    const auto good = plc.handle(request(CmdRead, readData(GroupMemory, 0, 4)));
    plc.injectFault(Fault::Split, 1);
    EXPECT_EQ(plc.handle(request(CmdRead, readData(GroupMemory, 0, 4))), good);
    EXPECT_EQ(plc.lastFault(), Fault::Split);
    plc.injectFault(Fault::Delay, 1);
    EXPECT_EQ(plc.handle(request(CmdRead, readData(GroupMemory, 0, 4))), good);
    EXPECT_EQ(plc.lastFault(), Fault::Delay);
    plc.injectFault(Fault::Close, 1);
    EXPECT_TRUE(plc.handle(request(CmdRead, readData(GroupMemory, 0, 4))).empty());
    EXPECT_EQ(plc.lastFault(), Fault::Close);
    EXPECT_EQ(plc.handle(request(CmdRead, readData(GroupMemory, 0, 4))), good);
    EXPECT_EQ(plc.lastFault(), Fault::None);
}

TEST(PlcCore, InjectedFaultCountsAndPortFramesAreNotFaulted)
{
    Plc plc;
    plc.injectFault(Fault::NoReply, 3);
    EXPECT_FALSE(plc.handle(portRequest(0)).empty());
    int unanswered = 0;
    for (int i = 0; i < 10; ++i)
        if (plc.handle(request(CmdReadState, {})).empty())
            ++unanswered;
    EXPECT_EQ(unanswered, 3);
    EXPECT_EQ(plc.counters().faults, 3u);
}

TEST(PlcCore, RandomFaultsAreSeeded)
{
    auto run = [](uint64_t seed, double p) {
        Plc plc;
        plc.setSeed(seed);
        plc.setFaultProbability(Fault::NoReply, p);
        std::string pattern;
        for (int i = 0; i < 1000; ++i)
            pattern += plc.handle(request(CmdReadState, {})).empty() ? 'x' : '.';
        return pattern;
    };
    const std::string a = run(42, 0.5), b = run(42, 0.5), c = run(43, 0.5);
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c);
    const auto faults = std::count(a.begin(), a.end(), 'x');
    EXPECT_GT(faults, 400);
    EXPECT_LT(faults, 600);
    EXPECT_EQ(run(1, 0.0).find('x'), std::string::npos);
    EXPECT_EQ(run(1, 1.0).find('.'), std::string::npos);

    Plc plc;
    plc.setFaultProbability(Fault::Long, 1.0);
    plc.clearFaults();
    EXPECT_EQ(plc.handle(request(CmdReadState, {})).size(), HeadersSize + 8);
}

TEST(PlcCore, WriteWithLowByteLengthFields)
{
    // A write of 220 bytes whose AMS/TCP length and AMS data length carry only
    // the low byte of the true value (264 -> 0x08, 232 -> 0xE8).
    std::vector<uint8_t> bytes(220);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = uint8_t(i);
    std::vector<uint8_t> f = request(CmdWrite, writeData(GroupMemory, 1000, bytes), 851, 0);
    ASSERT_EQ(f.size(), 270u);
    f[2] = 0x08;
    f[3] = f[4] = f[5] = 0;
    f[26] = 0xE8;
    f[27] = f[28] = f[29] = 0;
    bool fixed = false;
    EXPECT_EQ(frameLength(f.data(), f.size(), &fixed), 270u);
    EXPECT_TRUE(fixed);
    EXPECT_EQ(frameLength(f.data(), 100, &fixed), 0u);  // incomplete

    Plc plc;
    std::vector<std::string> log;
    plc.setLogSink([&](const std::string& l) { log.push_back(l); });
    const auto r = plc.handle(f);
    ASSERT_EQ(r.size(), 42u);
    EXPECT_EQ(result(r), 0u);
    EXPECT_EQ(std::memcmp(plc.memory(GroupMemory) + 1000, bytes.data(), bytes.size()), 0);
    EXPECT_EQ(plc.counters().lengthFixups, 1u);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_NE(log[0].find("low-byte"), std::string::npos) << log[0];

    // Only writes get this treatment: a read with a wrong length is not answered.
    std::vector<uint8_t> rd = request(CmdRead, readData(GroupMemory, 0, 2));
    rd[2] = 0x2C + 1;
    EXPECT_TRUE(plc.handle(rd).empty());
    // Anything else than exactly the low bytes is framed by the AMS/TCP length.
    f[2] = 0x09;
    EXPECT_TRUE(plc.handle(f).empty());
    f[2] = 0x08;
    f[3] = 0x02;
    EXPECT_TRUE(plc.handle(f).empty());
    f[3] = 0;
    f[26] = 0xE9;
    EXPECT_TRUE(plc.handle(f).empty());
    EXPECT_EQ(plc.counters().lengthFixups, 1u);
}

TEST(PlcCore, WritesUpTo211BytesHaveTrueLengths)
{
    Plc plc;
    const std::vector<uint8_t> bytes(211, 0x5A);
    const auto f = request(CmdWrite, writeData(GroupMemory, 0, bytes));
    EXPECT_EQ(getU32(&f[2]), 255u);
    bool fixed = true;
    EXPECT_EQ(frameLength(f.data(), f.size(), &fixed), f.size());
    EXPECT_FALSE(fixed);
    EXPECT_EQ(result(plc.handle(f)), 0u);
    EXPECT_EQ(plc.counters().lengthFixups, 0u);
}

TEST(PlcCore, StreamFraming)
{
    std::vector<uint8_t> stream = request(CmdRead, readData(GroupMemory, 0, 2));
    const size_t first = stream.size();
    const auto second = request(CmdWrite, writeData(GroupMemory, 0, {1, 2, 3}));
    stream.insert(stream.end(), second.begin(), second.end());
    EXPECT_EQ(frameLength(stream.data(), 5), 0u);
    EXPECT_EQ(frameLength(stream.data(), first - 1), 0u);
    EXPECT_EQ(frameLength(stream.data(), stream.size()), first);
    EXPECT_EQ(frameLength(stream.data() + first, second.size()), second.size());
    EXPECT_EQ(frameLength(stream.data() + first, 49), 0u);
    const auto port = portRequest(0);
    EXPECT_EQ(frameLength(port.data(), port.size()), 8u);
}

TEST(PlcCore, MalformedFramesAreDropped)
{
    Plc plc;
    auto f = request(CmdRead, readData(GroupMemory, 0, 2));
    auto longer = f;
    longer.push_back(0);
    EXPECT_TRUE(plc.handle(longer).empty());  // more bytes than the AMS/TCP length says
    auto badData = f;
    badData[26] = 11;  // AMS data length disagrees
    EXPECT_TRUE(plc.handle(badData).empty());
    auto response = f;
    response[24] = 5;  // a response, not a request
    EXPECT_TRUE(plc.handle(response).empty());
    EXPECT_TRUE(plc.handle(f.data(), 3).empty());
    auto shortRead = request(CmdRead, {0x20, 0x40, 0, 0});  // too little ADS data
    const auto r = plc.handle(shortRead);
    ASSERT_EQ(r.size(), 46u);
    EXPECT_EQ(result(r), ErrInvalidData);
    EXPECT_EQ(plc.counters().unanswered, 3u);
}

TEST(PlcCore, LogHasOneLinePerRequest)
{
    Plc plc;
    std::vector<std::string> log;
    plc.setLogSink([&](const std::string& l) { log.push_back(l); });
    plc.handle(request(CmdRead, readData(GroupMemory, 16, 2)));
    plc.handle(request(CmdRead, readData(0x1234, 0, 2)));
    ASSERT_EQ(log.size(), 2u);
    for (const char* part : {"cmd=Read", "group=0x4020", "offset=16", "length=2", "result=0x0"})
        EXPECT_NE(log[0].find(part), std::string::npos) << part << " in " << log[0];
    EXPECT_NE(log[1].find("result=0x702"), std::string::npos) << log[1];
}

TEST(PlcCore, FaultNames)
{
    Fault f;
    EXPECT_TRUE(parseFault("AdsError", f));
    EXPECT_EQ(f, Fault::AdsError);
    EXPECT_TRUE(parseFault("no-reply", f));
    EXPECT_EQ(f, Fault::NoReply);
    EXPECT_FALSE(parseFault("bogus", f));
    EXPECT_STREQ(faultName(Fault::Split), "split");
}

TEST(PlcCore, MutatedFramesGetNoReplyOrAConsistentOne)
{
    // Bounded: 5000 frames from a fixed seed.
    Plc plc;
    adstool::Random rnd(12345);
    const std::vector<std::vector<uint8_t>> seeds
        = {request(CmdRead, readData(GroupMemory, 10, 4)), request(CmdWrite, writeData(GroupOutputs, 5, {1, 2, 3})),
            request(CmdReadWrite, readWriteData(GroupInputs, 0, 2, {9})), request(CmdReadState, {}), portRequest(0)};
    for (int i = 0; i < 5000; ++i) {
        std::vector<uint8_t> f = seeds[rnd.below(seeds.size())];
        const int flips = 1 + int(rnd.below(3));
        for (int k = 0; k < flips; ++k)
            f[rnd.below(f.size())] = rnd.byte();
        if (rnd.below(4) == 0)
            f.resize(rnd.below(f.size() + 1));
        const auto r = plc.handle(f);
        if (r.empty())
            continue;
        ASSERT_GE(r.size(), TcpHeaderSize);
        EXPECT_EQ(getU32(&r[2]), r.size() - TcpHeaderSize);
        if (getU16(r.data()) == 0)
            expectConsistent(r);
    }
}
