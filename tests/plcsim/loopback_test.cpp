// Loopback tests of the plcsim executable: AMS/TCP on 127.0.0.1, the control
// port, transport faults, and a clean stop by SIGTERM to its PID.
#include "../support/plcsim_process.h"
#include "plc_core.h"
#include "plcsim_control.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#ifndef PLCSIM_EXE
#error PLCSIM_EXE must name the plcsim executable
#endif

using namespace plcsim;

namespace {

NetId id(const char* text)
{
    NetId n;
    NetId::parse(text, n);
    return n;
}

const NetId kPlc = id("192.168.1.100.1.1");
const NetId kPanel = id("127.0.0.1.1.1");

std::vector<uint8_t> request(
    uint16_t cmd, const std::vector<uint8_t>& data, uint32_t invoke = 1, const NetId& source = kPanel)
{
    return buildRequest(kPlc, 851, source, 33095, cmd, invoke, data);
}

int64_t now() { return detail::nowMs(); }

// Runs plcsim with the given options (words parted by blanks) to its end, killed by its PID
// after 10 s: its exit status and what it printed.
adstest::RunResult runPlcsim(const std::string& args)
{
    std::vector<std::string> argv = {PLCSIM_EXE};
    std::istringstream words(args);
    for (std::string w; words >> w;)
        argv.push_back(w);
    return adstest::runToEnd(argv, 10000);
}

class Loopback : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim.start({"--no-program"})) << "plcsim did not start";
        ASSERT_NE(sim.port(), 0);
        ASSERT_NE(sim.controlPort(), 0);
        ASSERT_TRUE(ams.connect("127.0.0.1", sim.port()));
    }
    void TearDown() override
    {
        ams.close();
        if (sim.pid() > 0) {
            EXPECT_EQ(sim.stop(5000), 0) << "plcsim did not exit cleanly on SIGTERM";
        }
    }
    // Sends one request and returns its reply frame (empty on time-out).
    std::vector<uint8_t> roundTrip(const std::vector<uint8_t>& frame, int timeoutMs = 2000)
    {
        std::vector<uint8_t> reply;
        if (!ams.sendAll(frame))
            return {};
        if (!ams.readFrame(reply, timeoutMs))
            return {};
        return reply;
    }
    std::string logText() { return sim.logText(); }

    adstest::PlcsimProcess sim;
    TcpClient ams;
};

}  // namespace

TEST_F(Loopback, WriteThenReadOverTcp)
{
    auto r = roundTrip(request(CmdWrite, writeData(GroupMemory, 100, {0x34, 0x12}), 5));
    ASSERT_EQ(r.size(), 42u);
    ParsedFrame f = parseFrame(r);
    ASSERT_TRUE(f.ok);
    EXPECT_EQ(f.invokeId, 5u);
    EXPECT_EQ(f.stateFlags, 0x0005);
    EXPECT_EQ(f.target, kPanel);
    EXPECT_EQ(getU32(f.data.data()), 0u);

    r = roundTrip(request(CmdRead, readData(GroupMemory, 100, 2), 6));
    ASSERT_EQ(r.size(), 48u);
    f = parseFrame(r);
    EXPECT_EQ(f.invokeId, 6u);
    EXPECT_EQ(r[46], 0x34);
    EXPECT_EQ(r[47], 0x12);
    EXPECT_EQ(sim.command("get 0x4020 100 2"), "ok 3412");
}

TEST_F(Loopback, SeveralFramesInOneSegmentAndOneFrameInPieces)
{
    std::vector<uint8_t> both = request(CmdRead, readData(GroupMemory, 0, 1), 1);
    const auto second = request(CmdReadState, {}, 2);
    both.insert(both.end(), second.begin(), second.end());
    ASSERT_TRUE(ams.sendAll(both));
    std::vector<uint8_t> a, b;
    ASSERT_TRUE(ams.readFrame(a));
    ASSERT_TRUE(ams.readFrame(b));
    EXPECT_EQ(parseFrame(a).invokeId, 1u);
    EXPECT_EQ(parseFrame(b).invokeId, 2u);

    // A request trickling in byte by byte is answered once it is complete.
    const auto frame = request(CmdReadState, {}, 3);
    for (size_t i = 0; i < frame.size(); ++i) {
        ASSERT_TRUE(ams.sendAll(&frame[i], 1));
        if (i % 10 == 0)
            usleep(1000);
    }
    ASSERT_TRUE(ams.readFrame(a));
    EXPECT_EQ(parseFrame(a).invokeId, 3u);
}

TEST_F(Loopback, WriteWithLowByteLengthFieldsIsFramedByItsWriteLength)
{
    std::vector<uint8_t> bytes(300);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = uint8_t(i * 7);
    std::vector<uint8_t> f = request(CmdWrite, writeData(GroupMemory, 2000, bytes), 0);
    f[2] = uint8_t(344 & 0xFF);
    f[3] = f[4] = f[5] = 0;  // 44 + 300
    f[26] = uint8_t(312 & 0xFF);
    f[27] = f[28] = f[29] = 0;  // 12 + 300
    const auto next = request(CmdRead, readData(GroupMemory, 2000, 4), 9);
    f.insert(f.end(), next.begin(), next.end());
    ASSERT_TRUE(ams.sendAll(f));
    std::vector<uint8_t> a, b;
    ASSERT_TRUE(ams.readFrame(a));
    ASSERT_TRUE(ams.readFrame(b));
    ASSERT_EQ(a.size(), 42u);
    EXPECT_EQ(getU32(&a[38]), 0u);
    ASSERT_EQ(b.size(), 50u);
    EXPECT_EQ(parseFrame(b).invokeId, 9u);
    EXPECT_EQ(std::vector<uint8_t>(b.begin() + 46, b.end()), std::vector<uint8_t>(bytes.begin(), bytes.begin() + 4));
    EXPECT_NE(logText().find("low-byte"), std::string::npos);
    EXPECT_NE(sim.command("counters").find("lengthfixups=1"), std::string::npos);
}

TEST_F(Loopback, SplitReplyIsReassembledByItsLength)
{
    ASSERT_EQ(sim.command("fault split 1"), "ok");
    const int64_t t0 = now();
    const auto r = roundTrip(request(CmdRead, readData(GroupMemory, 0, 16), 4));
    const int64_t took = now() - t0;
    ASSERT_EQ(r.size(), 46u + 16);
    EXPECT_TRUE(parseFrame(r).ok);
    EXPECT_GE(took, 15) << "the second half should come after a pause";
    EXPECT_NE(logText().find("fault=split"), std::string::npos);
}

TEST_F(Loopback, DelayFault)
{
    ASSERT_EQ(sim.command("delay 200"), "ok");
    ASSERT_EQ(sim.command("fault delay 1"), "ok");
    const int64_t t0 = now();
    auto r = roundTrip(request(CmdReadState, {}, 1));
    EXPECT_GE(now() - t0, 180);
    ASSERT_EQ(r.size(), 46u);
    // The next reply comes at once.
    const int64_t t1 = now();
    r = roundTrip(request(CmdReadState, {}, 2));
    EXPECT_LT(now() - t1, 150);
    EXPECT_EQ(parseFrame(r).invokeId, 2u);
}

TEST_F(Loopback, CloseFault)
{
    ASSERT_EQ(sim.command("fault close 1"), "ok");
    ASSERT_TRUE(ams.sendAll(request(CmdReadState, {})));
    EXPECT_TRUE(ams.waitClosed(2000));
    EXPECT_EQ(ams.buffered(), 0u);
    // A new connection is served.
    ASSERT_TRUE(ams.connect("127.0.0.1", sim.port()));
    EXPECT_EQ(roundTrip(request(CmdReadState, {})).size(), 46u);
}

TEST_F(Loopback, ShapeFaultsOverTcp)
{
    ASSERT_EQ(sim.command("fault short 1"), "ok");
    auto r = roundTrip(request(CmdRead, readData(GroupMemory, 0, 4)));
    EXPECT_EQ(r.size(), 49u);
    ASSERT_EQ(sim.command("fault long 1"), "ok");
    r = roundTrip(request(CmdRead, readData(GroupMemory, 0, 4)));
    EXPECT_EQ(r.size(), 51u);
    ASSERT_EQ(sim.command("fault-code 0x705"), "ok");
    ASSERT_EQ(sim.command("fault adserror 1"), "ok");
    r = roundTrip(request(CmdRead, readData(GroupMemory, 0, 4)));
    ASSERT_EQ(r.size(), 46u);
    EXPECT_EQ(getU32(&r[38]), 0x705u);
    ASSERT_EQ(sim.command("fault noreply 1"), "ok");
    EXPECT_TRUE(roundTrip(request(CmdReadState, {}), 300).empty());
    EXPECT_EQ(roundTrip(request(CmdReadState, {}, 77)).size(), 46u);
    ASSERT_EQ(sim.command("fault-prob noreply 1"), "ok");
    EXPECT_TRUE(roundTrip(request(CmdReadState, {}), 300).empty());
    ASSERT_EQ(sim.command("faults-off"), "ok");
    const auto last = roundTrip(request(CmdReadState, {}, 78));
    ASSERT_EQ(last.size(), 46u);
    EXPECT_EQ(parseFrame(last).invokeId, 78u);
}

TEST_F(Loopback, ControlProtocol)
{
    EXPECT_EQ(sim.command("set 0xF030 10 a1b2c3"), "ok");
    EXPECT_EQ(sim.command("get 0xf030 10 3"), "ok a1b2c3");
    EXPECT_EQ(sim.command("get 61472 0 2"), "ok 0000");
    EXPECT_EQ(sim.command("get 0x1234 0 2").rfind("err", 0), 0u);
    EXPECT_EQ(sim.command("get 0x4020 65535 2").rfind("err", 0), 0u);
    EXPECT_EQ(sim.command("set 0x4020 0 zz").rfind("err", 0), 0u);
    EXPECT_EQ(sim.command("fault bogus 1").rfind("err", 0), 0u);
    EXPECT_EQ(sim.command("no-such-command").rfind("err", 0), 0u);
    EXPECT_EQ(sim.command("state"), "ok run");
    EXPECT_EQ(sim.command("state stop"), "ok");
    auto r = roundTrip(request(CmdReadState, {}));
    ASSERT_EQ(r.size(), 46u);
    EXPECT_EQ(getU16(&r[42]), AdsStateStop);
    EXPECT_EQ(sim.command("state run"), "ok");
    roundTrip(request(CmdRead, readData(GroupMemory, 0, 1)));
    roundTrip(request(CmdWrite, writeData(GroupMemory, 0, {1})));
    const std::string counters = sim.command("counters");
    EXPECT_EQ(counters.rfind("ok requests=3 ", 0), 0u) << counters;
    EXPECT_NE(counters.find(" read=1 "), std::string::npos) << counters;
    EXPECT_NE(counters.find(" write=1 "), std::string::npos) << counters;
    EXPECT_NE(counters.find(" readstate=1 "), std::string::npos) << counters;
    EXPECT_EQ(sim.command("quit"), "ok bye");
    EXPECT_TRUE(sim.command("state").empty()) << "the server closes the control connection after quit";
    // The AMS connection is still served.
    EXPECT_EQ(roundTrip(request(CmdReadState, {})).size(), 46u);
}

TEST_F(Loopback, ProgramRunsWhenSwitchedOn)
{
    EXPECT_EQ(sim.command("get 0x4020 0 2"), "ok 0000");
    EXPECT_EQ(sim.command("program on"), "ok");
    usleep(450 * 1000);
    EXPECT_EQ(sim.command("program off"), "ok");
    const std::string a = sim.command("get 0x4020 0 2");
    ASSERT_EQ(a.size(), 7u);
    std::vector<uint8_t> v;
    ASSERT_TRUE(fromHex(a.substr(3), v));
    const unsigned ticks = v[0] | v[1] << 8;
    EXPECT_GE(ticks, 2u);
    EXPECT_LE(ticks, 6u);
    usleep(250 * 1000);
    EXPECT_EQ(sim.command("get 0x4020 0 2"), a);  // still while off
}

TEST_F(Loopback, SeveralClientsAtOnce)
{
    TcpClient c2, c3;
    ASSERT_TRUE(c2.connect("127.0.0.1", sim.port()));
    ASSERT_TRUE(c3.connect("127.0.0.1", sim.port()));
    ASSERT_TRUE(c2.sendAll(request(CmdReadState, {}, 2)));
    ASSERT_TRUE(c3.sendAll(request(CmdReadState, {}, 3)));
    ASSERT_TRUE(ams.sendAll(request(CmdReadState, {}, 1)));
    std::vector<uint8_t> r1, r2, r3;
    ASSERT_TRUE(ams.readFrame(r1));
    ASSERT_TRUE(c2.readFrame(r2));
    ASSERT_TRUE(c3.readFrame(r3));
    EXPECT_EQ(parseFrame(r1).invokeId, 1u);
    EXPECT_EQ(parseFrame(r2).invokeId, 2u);
    EXPECT_EQ(parseFrame(r3).invokeId, 3u);
    EXPECT_NE(sim.command("counters").find("connections=3"), std::string::npos);
}

TEST_F(Loopback, PortRegistrationOverTcp)
{
    const auto r = roundTrip(portRequest(0));
    ASSERT_EQ(r.size(), 14u);
    EXPECT_EQ(getU16(&r[0]), 0x1000);
    EXPECT_EQ(std::memcmp(&r[6], kPlc.b, 6), 0);
}

TEST(LoopbackOptions, RoutesNetIdAndOneConnectionPerPeer)
{
    Process sim;
    ASSERT_TRUE(sim.start(PLCSIM_EXE,
        {"--listen", "127.0.0.1:0", "--netid", "5.6.7.8.1.1", "--route", "127.0.0.1.1.1", "--one-connection-per-peer",
            "--no-program"}));
    TcpClient a;
    ASSERT_TRUE(a.connect("127.0.0.1", sim.port()));
    const NetId plc = id("5.6.7.8.1.1");
    std::vector<uint8_t> r;
    ASSERT_TRUE(a.sendAll(buildRequest(plc, 851, kPanel, 33095, CmdReadState, 1, {})));
    ASSERT_TRUE(a.readFrame(r));
    EXPECT_EQ(parseFrame(r).source, plc);
    ASSERT_TRUE(a.sendAll(buildRequest(plc, 851, id("10.1.1.1.1.1"), 33095, CmdReadState, 2, {})));
    EXPECT_FALSE(a.readFrame(r, 300)) << "an unrouted Net ID must get no reply";
    // A second connection from the same address replaces the first.
    TcpClient b;
    ASSERT_TRUE(b.connect("127.0.0.1", sim.port()));
    ASSERT_TRUE(b.sendAll(buildRequest(plc, 851, kPanel, 33095, CmdReadState, 3, {})));
    ASSERT_TRUE(b.readFrame(r));
    EXPECT_EQ(parseFrame(r).invokeId, 3u);
    EXPECT_TRUE(a.waitClosed(2000));
    EXPECT_EQ(sim.stop(5000), 0);
}

TEST(LoopbackOptions, SigintStopsCleanly)
{
    Process sim;
    ASSERT_TRUE(sim.start(PLCSIM_EXE, {"--listen", "127.0.0.1:0"}));
    ASSERT_TRUE(sim.running());
    ASSERT_EQ(kill(sim.pid(), SIGINT), 0);
    int status = -1;
    for (int i = 0; i < 200 && sim.running(); ++i)
        usleep(10000);
    status = sim.stop(1000);
    EXPECT_EQ(status, 0);
}

TEST(LoopbackOptions, HelpVersionAndBadArguments)
{
    adstest::RunResult r = runPlcsim("--help");
    EXPECT_EQ(r.exitCode, 0);
    const std::string out = r.out;
    EXPECT_NE(out.find("--listen"), std::string::npos);
    EXPECT_NE(out.find("0x4020"), std::string::npos);
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        EXPECT_LE(line.size(), 80u) << line;
    r = runPlcsim("--version");
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out.rfind("plcsim ", 0), 0u);
    EXPECT_EQ(runPlcsim("--listen 127.0.0.1:0 --bogus").exitCode, 2);
    EXPECT_EQ(runPlcsim("--listen nowhere").exitCode, 2);
    EXPECT_EQ(runPlcsim("--listen 127.0.0.1:0 --netid 1.2.3").exitCode, 2);
    EXPECT_EQ(runPlcsim("--listen 127.0.0.1:0 --fault wobble:0.5").exitCode, 2);
    EXPECT_EQ(runPlcsim("").exitCode, 2);
}

TEST(LoopbackOptions, ErrorsAreOneLineNamingTheOptionAndTheRule)
{
    struct Case {
        const char* args;
        const char* option;
        const char* rule;
    };
    const Case cases[] = {
        {"--listen 127.0.0.1:0 --netid 1.2.3.4.5.300", "--netid", "300, above 255"},
        {"--listen 127.0.0.1:0 --route 1.2.3.4.5", "--route", "5 of 6 numbers"},
        {"--listen 127.0.0.1:70000", "--listen", "0 to 65535"},
        {"--listen localhost:0", "--listen", "IPv4"},
        {"--listen 127.0.0.1:0 --control 127.0.0.1", "--control", "PORT"},
        {"--listen 127.0.0.1:0 --ports 801,0", "--ports", "1 to 65535"},
        {"--listen 127.0.0.1:0 --fault short:1.5", "--fault", "from 0 to 1"},
        {"--listen 127.0.0.1:0 --delay 60001", "--delay", "0 to 60000"},
        {"--listen 127.0.0.1:0 --fault-code 0x100000000", "--fault-code", "4294967295"},
        {"--no-program", "--listen", "required"},
    };
    for (const Case& c : cases) {
        const adstest::RunResult r = runPlcsim(c.args);
        EXPECT_EQ(r.exitCode, 2) << c.args;
        const std::string& out = r.err;
        EXPECT_EQ(out.find('\n'), out.size() - 1) << c.args << ": " << out;
        EXPECT_EQ(out.rfind("plcsim: ", 0), 0u) << out;
        EXPECT_NE(out.find(c.option), std::string::npos) << c.args << ": " << out;
        EXPECT_NE(out.find(c.rule), std::string::npos) << c.args << ": " << out;
    }
}

TEST(LoopbackOptions, PrintsItsNetIdAndPortsAndWritesThePortFile)
{
    Process sim;
    ASSERT_TRUE(sim.start(PLCSIM_EXE,
        {"--listen", "127.0.0.1:0", "--control", "127.0.0.1:0", "--netid", "5.6.7.8.1.1", "--ports", "851,801,852",
            "--seed", "3", "--seed", "4"}))
        << sim.error();
    EXPECT_EQ(sim.netId(), "5.6.7.8.1.1");
    PortFile pf;
    ASSERT_TRUE(readPortFile(sim.portFilePath(), pf));
    EXPECT_EQ(pf.adsPort, sim.port());
    EXPECT_EQ(pf.controlPort, sim.controlPort());
    EXPECT_EQ(pf.pid, long(sim.pid()));
    EXPECT_EQ(sim.listenAddress(), "127.0.0.1:" + std::to_string(sim.port()));
    ControlClient ctl;
    ASSERT_TRUE(ctl.connect(sim.controlAddress()));
    EXPECT_EQ(ctl.command("state"), "ok run");
    // Standard output: the two address lines first (scripts read them), then the Net ID line.
    const int64_t deadline = now() + 2000;
    while (sim.output().find("AMS Net ID") == std::string::npos && now() < deadline)
        usleep(5000);
    std::istringstream lines(sim.output());
    std::string l1, l2, l3;
    std::getline(lines, l1);
    std::getline(lines, l2);
    std::getline(lines, l3);
    EXPECT_EQ(l1, "listening on 127.0.0.1:" + std::to_string(sim.port()));
    EXPECT_EQ(l2, "control on 127.0.0.1:" + std::to_string(sim.controlPort()));
    EXPECT_EQ(l3, "AMS Net ID 5.6.7.8.1.1, runtime AMS ports 801,851,852 (notifications also on 100)");
    EXPECT_EQ(sim.stop(5000), 0);
}

TEST(LoopbackOptions, WithoutControlThePortFileSaysZero)
{
    Process sim;
    ASSERT_TRUE(sim.start(PLCSIM_EXE, {"--listen", "127.0.0.1:0", "--no-program"})) << sim.error();
    PortFile pf;
    ASSERT_TRUE(readPortFile(sim.portFilePath(), pf));
    EXPECT_EQ(pf.controlPort, 0);
    EXPECT_EQ(sim.controlPort(), 0);
    EXPECT_EQ(pf.netId, "192.168.1.100.1.1");
    EXPECT_EQ(sim.stop(5000), 0);
}

TEST(LoopbackOptions, AStartThatFailsSaysWhyAndLeavesNoProcess)
{
    Process sim;
    const int64_t t0 = now();
    EXPECT_FALSE(sim.start(PLCSIM_EXE, {"--listen", "127.0.0.1:0", "--netid", "1.2.3.4.5.256"}, 5000));
    EXPECT_LT(now() - t0, 4000) << "an ended plcsim must not be waited for until the time-out";
    EXPECT_NE(sim.error().find("status 2"), std::string::npos) << sim.error();
    EXPECT_EQ(sim.pid(), -1);
    EXPECT_FALSE(sim.running());
}

TEST(LoopbackOptions, PortFileReaderRejectsIncompleteFiles)
{
    const std::string path = ::testing::TempDir() + "plcsim_portfile_test";
    auto write = [&](const std::string& text) { std::ofstream(path, std::ios::trunc) << text; };
    PortFile pf;
    write("ads_port=4711\ncontrol_port=4712\nnetid=1.2.3.4.1.1\npid=99\n");
    ASSERT_TRUE(readPortFile(path, pf));
    EXPECT_EQ(pf.adsPort, 4711);
    EXPECT_EQ(pf.controlPort, 4712);
    EXPECT_EQ(pf.netId, "1.2.3.4.1.1");
    EXPECT_EQ(pf.pid, 99);
    write("ads_port=4711\n");
    EXPECT_FALSE(readPortFile(path, pf));
    write("ads_port=0\ncontrol_port=0\n");
    EXPECT_FALSE(readPortFile(path, pf));
    write("ads_port=70000\ncontrol_port=1\n");
    EXPECT_FALSE(readPortFile(path, pf));
    std::remove(path.c_str());
    EXPECT_FALSE(readPortFile(path, pf));
}
