// The adshost program as a commissioning engineer uses it, against the plcsim executable with
// faults: every action asked for runs to its end and is reported done or failed, the codes of
// the PLC's replies are shown with their meaning, a signal ends a session cleanly, and --json
// is one valid JSON object per line.
#include "adshost.h"
#include "e2e_support.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

namespace {

using e2e::figures;

const unsigned M = 0x4020;

bool hasLine(const std::string& text, const std::string& line)
{
    for (const std::string& l : e2e::lines(text))
        if (l == line)
            return true;
    return false;
}

std::string tempPath(const std::string& name)
{
    static int serial = 0;
    return ::testing::TempDir() + "adshost_comm_" + std::to_string(::getpid()) + "_" + std::to_string(serial++) + "_"
        + name;
}

// A pcap file: the packets' lengths, and whether the file ends exactly after the last one.
struct PcapFile {
    bool headerOk = false;
    bool endsOnWholePacket = false;
    size_t size = 0;
    std::vector<size_t> packetLengths;
};

PcapFile readPcap(const std::string& path)
{
    PcapFile p;
    std::ifstream f(path, std::ios::binary);
    const std::vector<uint8_t> all((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    p.size = all.size();
    auto le32 = [&](size_t at) {
        return uint32_t(all[at]) | uint32_t(all[at + 1]) << 8 | uint32_t(all[at + 2]) << 16
            | uint32_t(all[at + 3]) << 24;
    };
    if (all.size() < 24 || le32(0) != 0xa1b2c3d4u)
        return p;
    p.headerOk = true;
    size_t at = 24;
    while (at + 16 <= all.size()) {
        const uint32_t len = le32(at + 8);
        if (at + 16 + len > all.size())
            break;
        p.packetLengths.push_back(len);
        at += 16 + len;
    }
    p.endsOnWholePacket = at == all.size();
    return p;
}

class CommissioningE2E : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(sim.start({"--no-program"})); }
    void TearDown() override { EXPECT_EQ(sim.stop(), 0); }
    std::vector<std::string> base(const std::vector<std::string>& more)
    {
        std::vector<std::string> a = {ADSHOST_EXE, "--driver", ADS_PLUGIN, "--plc",
            "127.0.0.1:" + std::to_string(sim.port()), "--netid", "192.168.1.100.1.1", "--ams-port", "851"};
        a.insert(a.end(), more.begin(), more.end());
        return a;
    }
    adstest::PlcsimProcess sim;
};

// --cycles 40 used to end the session before the thread that hands writes over had started.
TEST_F(CommissioningE2E, WriteWithFortyCyclesRunsToItsEndAndIsConfirmed)
{
    const e2e::RunResult r
        = e2e::runProgram(base({"--watch", "M_W:0:2", "--write", "M_W:10=0x1234", "--cycles", "40"}), 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(hasLine(r.out, "write: done M_W:10=0x1234 (confirmed by the PLC, ADS result 0)")) << r.out;
    EXPECT_EQ(sim.get(M, 10, 2), (std::vector<uint8_t> {0x34, 0x12}));
    EXPECT_EQ(sim.counter("write"), 1);
    EXPECT_EQ(r.err, "");
}

// A session that ends before a watched block was read has not shown that value: no success.
// (--cycles counts whole refreshes, so only a --duration can end it that early.)
TEST_F(CommissioningE2E, WatchedAddressNeverReadIsNoSuccess)
{
    const e2e::RunResult r = e2e::runProgram(
        base({"--gap", "0", "--watch", "M_W:0", "--watch", "M_W:4000", "--duration", "0.001"}), 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 9) << r.out << r.err;
    EXPECT_TRUE(hasLine(r.out, "value M_W:4000 = never read")) << r.out;
    // Once both blocks were read, the same watch succeeds.
    const e2e::RunResult full
        = e2e::runProgram(base({"--gap", "0", "--watch", "M_W:0", "--watch", "M_W:4000", "--cycles", "3"}), 20000);
    EXPECT_EQ(full.exitCode, 0) << full.out << full.err;
    EXPECT_TRUE(hasLine(full.out, "value M_W:4000 = 0x0000")) << full.out;
}

TEST_F(CommissioningE2E, WritesWithoutWatchOrLimitAreConfirmed)
{
    ASSERT_TRUE(sim.set(M, 20, {0xF0}));
    const e2e::RunResult r = e2e::runProgram(base({"--write", "M_W:10=0x1234", "--write", "M_bit:20.3=1"}), 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(hasLine(r.out, "write: done M_W:10=0x1234 (confirmed by the PLC, ADS result 0)")) << r.out;
    EXPECT_TRUE(hasLine(r.out, "write: done M_bit:20.3=1 (confirmed by the PLC, ADS result 0)")) << r.out;
    EXPECT_EQ(sim.get(M, 10, 2), (std::vector<uint8_t> {0x34, 0x12}));
    EXPECT_EQ(sim.get(M, 20, 1), (std::vector<uint8_t> {0xF8}));
    // The handshake, the word write, and the bit write's read and write.
    EXPECT_EQ(figures(r.out)["requests"], "4") << r.out;
}

TEST_F(CommissioningE2E, RecipeAndConditionReadRunToTheirEndWithOneCycle)
{
    ASSERT_TRUE(sim.set(M, 300, {0xDE, 0xAD, 0xBE, 0xEF}));
    const e2e::RunResult r = e2e::runProgram(
        base({"--recipe", "M_W:200:2=0x1111,0x2222", "--condition", "M_W:300:2", "--cycles", "1"}), 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(hasLine(r.out, "recipe write: done")) << r.out;
    EXPECT_TRUE(hasLine(r.out, "recipe read: done M_W:200:2=0x1111,0x2222 (matches the download)")) << r.out;
    EXPECT_TRUE(hasLine(r.out, "condition read: done M_W:300:2")) << r.out;
    EXPECT_TRUE(hasLine(r.out, "value M_W:300:2 = 0xADDE 0xEFBE (condition)")) << r.out;
    EXPECT_EQ(sim.get(M, 200, 4), (std::vector<uint8_t> {0x11, 0x11, 0x22, 0x22}));
}

// The PLC refuses the write with a reply of the length of a good one: the driver accepts
// it (result 1), the host reads the ADS result and reports the write as failed.
TEST_F(CommissioningE2E, WriteRefusedWithAnAdsErrorIsFailedWithTheCode)
{
    ASSERT_EQ(sim.command("fault-code 0x704"), "ok");
    ASSERT_TRUE(sim.fault("adserror", 2));  // the handshake's answer and the write's
    const e2e::RunResult r = e2e::runProgram(base({"--write", "M_W:10=0x4321", "--cycles", "5"}), 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 6) << r.out << r.err;
    EXPECT_TRUE(hasLine(r.out,
        "write: FAILED M_W:10=0x4321: the PLC refused the write: ADS error 0x704 (reading or writing not "
        "permitted): the PLC does not allow this access"))
        << r.out;
    EXPECT_EQ(figures(r.out)["result1"], figures(r.out)["requests"]);  // the driver accepted every reply
    EXPECT_EQ(sim.get(M, 10, 2), (std::vector<uint8_t> {0, 0}));
}

// A condition read the PLC answers with an ADS error (shorter than the data asked for): the
// driver gives up and reports -1; the host names the code of the PLC's answer.
TEST_F(CommissioningE2E, ConditionReadRefusedWithAnAdsErrorIsFailedWithTheCode)
{
    ASSERT_EQ(sim.command("fault-code 0x703"), "ok");
    ASSERT_TRUE(sim.fault("adserror", 4));  // the handshake's answer (accepted) and three reads
    const e2e::RunResult r = e2e::runProgram(base({"--condition", "M_W:300:2", "--retries", "3"}), 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 6) << r.out << r.err;
    const std::string meaning
        = "ADS error 0x703 (invalid index offset): the address lies beyond the PLC's area; check the address";
    EXPECT_TRUE(hasLine(r.out, "condition read: FAILED M_W:300:2: given up after the retry limit: " + meaning))
        << r.out;
    EXPECT_TRUE(hasLine(r.out, "value M_W:300:2 = never read (condition)")) << r.out;
    // The handshake's answer carried 0x703 too; the driver takes it (its length is a minimum).
    EXPECT_EQ(r.err,
        "adshost: reply with an error code (handshake): ADS error 0x703 (invalid index offset) (the driver "
        "accepted it)\nadshost: communication error 1#M_W300(4)(46): "
            + meaning + "\n");
}

TEST_F(CommissioningE2E, WrongNetIdStopsWithTheAmsErrorAndTheFix)
{
    std::vector<std::string> args = base({"--watch", "M_W:0:2", "--write", "M_W:10=1", "--duration", "20"});
    args[6] = "192.168.1.101.1.1";
    const int64_t t0 = adshost::nowMs();
    const e2e::RunResult r = e2e::runProgram(args, 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_LT(adshost::nowMs() - t0, 10000);  // it did not poll on for 20 s
    EXPECT_EQ(r.exitCode, 5) << r.out << r.err;
    const std::string fix = "AMS error 0x7 (target machine not found): the PLC's AMS Net ID is not "
                            "192.168.1.101.1.1: check --netid";
    EXPECT_EQ(r.err, "adshost: communication error (handshake): " + fix + "\nadshost: stopped: " + fix + "\n");
    EXPECT_TRUE(hasLine(r.out, "value M_W:0:2 = never read")) << r.out;
    EXPECT_TRUE(hasLine(r.out, "write: NOT FINISHED M_W:10=0x0001: the session stopped: " + fix)) << r.out;
    EXPECT_LE(std::stol(figures(r.out)["requests"]), 3);
}

TEST_F(CommissioningE2E, WrongAmsPortStopsWithTheAmsErrorAndTheFix)
{
    std::vector<std::string> args = base({"--watch", "M_W:0:2", "--duration", "20"});
    args[8] = "900";
    const e2e::RunResult r = e2e::runProgram(args, 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 5) << r.out << r.err;
    const std::string fix = "AMS error 0x6 (target port not found): no ADS port 900 on the PLC: check --ams-port";
    EXPECT_EQ(r.err, "adshost: communication error 1#M_W0(4)(38): " + fix + "\nadshost: stopped: " + fix + "\n");
    EXPECT_TRUE(hasLine(r.out, "value M_W:0:2 = never read")) << r.out;
}

// Reads the PLC answers with an ADS error (shorter than the data asked for): the driver
// gives up; the host names the code, the value stays "never read", the status is 6.
TEST_F(CommissioningE2E, ReadsRefusedWithAnAdsErrorLeaveTheValueNeverRead)
{
    ASSERT_EQ(sim.command("fault-code 0x702"), "ok");
    ASSERT_EQ(sim.command("fault-prob adserror 1"), "ok");
    const e2e::RunResult r = e2e::runProgram(base({"--watch", "M_W:0:2", "--cycles", "7"}), 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 6) << r.out << r.err;
    // Seven refreshes, each of its one block given up after three attempts (the handshake's
    // answer carries 0x702 too, and is taken): --cycles ends a session whose reads all fail.
    EXPECT_EQ(r.err,
        "adshost: reply with an error code (handshake): ADS error 0x702 (invalid index group) (the driver accepted "
        "it)\nadshost: communication error 1#M_W0(4)(46): ADS error 0x702 (invalid index group): the PLC has no "
        "such area\nadshost: 7 communication errors in all\n");
    EXPECT_TRUE(hasLine(r.out, "value M_W:0:2 = never read")) << r.out;
}

TEST_F(CommissioningE2E, NoRouteStopsWithTheRouteLine)
{
    ASSERT_EQ(sim.stop(), 0);
    ASSERT_TRUE(sim.start({"--no-program", "--route", "10.9.8.7.1.1"}));
    const e2e::RunResult r = e2e::runProgram(
        base({"--watch", "M_W:0:2", "--write", "M_W:10=1", "--duration", "20", "--timeout-ms", "100"}), 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 4) << r.out << r.err;
    const std::vector<std::string> err = e2e::lines(r.err);
    ASSERT_EQ(err.size(), 2u) << r.err;
    EXPECT_EQ(err[1].rfind("adshost: stopped: connected, but no answer: the PLC most likely has no route for this "
                           "panel's AMS Net ID ",
                  0),
        0u)
        << r.err;
    EXPECT_NE(err[1].find(".1.1; add one on the PLC"), std::string::npos) << r.err;
    EXPECT_TRUE(hasLine(r.out, "value M_W:0:2 = never read")) << r.out;
    EXPECT_NE(r.out.find("write: NOT FINISHED M_W:10=0x0001: the session stopped: connected, but no answer"),
        std::string::npos)
        << r.out;
    EXPECT_GE(sim.counter("unanswered"), 1);
}

// An action the PLC does not confirm in time ends the session after --action-timeout: here
// the handshake's answer comes after 800 ms, and the write has 0.5 s from the start.
TEST_F(CommissioningE2E, ActionNotConfirmedInTimeIsNotFinished)
{
    ASSERT_EQ(sim.command("delay 800"), "ok");
    ASSERT_TRUE(sim.fault("delay", 1));
    const e2e::RunResult r
        = e2e::runProgram(base({"--write", "M_W:10=0x0102", "--action-timeout", "0.5", "--timeout-ms", "1500"}), 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 9) << r.out << r.err;
    EXPECT_TRUE(
        hasLine(r.out, "write: NOT FINISHED M_W:10=0x0102: no confirmation from the PLC within --action-timeout"))
        << r.out;
    EXPECT_EQ(sim.counter("write"), 0);
    EXPECT_EQ(sim.get(M, 10, 2), (std::vector<uint8_t> {0, 0}));
}

// Every address is checked by the driver before anything starts: no capture file, no
// connection, one line naming the option and the rule, status 2.
TEST_F(CommissioningE2E, WriteAddressTheDriverRefusesIsAUsageErrorBeforeAnythingStarts)
{
    const std::string pcap = tempPath("never.pcap");
    const e2e::RunResult r = e2e::runProgram(base({"--write", "M_W:65535=1", "--pcap", pcap}), 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(r.err,
        "adshost: --write M_W:65535: the address lies below the register's first address, or its last item beyond "
        "the last (M_W addresses run from 0 to 65535, a byte offset; COUNT is in words); the driver's check result "
        "2 (see adshost --help)\n");
    EXPECT_EQ(r.out, "");
    EXPECT_NE(::access(pcap.c_str(), F_OK), 0);
    EXPECT_EQ(sim.counter("connections"), 0);
}

TEST_F(CommissioningE2E, BitPartBeyondSevenIsTheDriversNextByte)
{
    ASSERT_TRUE(sim.set(M, 11, {0x02}));  // bit 11.1
    const e2e::RunResult r = e2e::runProgram(base({"--watch", "M_bit:10.9", "--cycles", "3"}), 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(hasLine(r.out, "value M_bit:10.9 = 1")) << r.out;
}

class SignalE2E : public CommissioningE2E, public ::testing::WithParamInterface<int> { };

TEST_P(SignalE2E, EndsTheSessionWithFiguresAndAWholeCapture)
{
    const std::string pcap = tempPath("signal.pcap");
    e2e::Child c;
    ASSERT_TRUE(c.start(base({"--watch", "M_W:0:2", "--duration", "60", "--pcap", pcap, "--quiet"})));
    // Polling runs (the capture grows), then the signal.
    const int64_t until = adshost::nowMs() + 5000;
    while (readPcap(pcap).packetLengths.size() < 50 && adshost::nowMs() < until)
        ::usleep(20000);
    ASSERT_EQ(::kill(c.pid(), GetParam()), 0);
    const int status = c.wait(10000);
    EXPECT_EQ(status, 0) << c.out() << c.err();
    const std::string name = GetParam() == SIGINT ? "SIGINT" : "SIGTERM";
    EXPECT_EQ(c.err(), "adshost: stopped by " + name + "\n");
    const std::map<std::string, std::string> f = figures(c.out());
    ASSERT_FALSE(f.empty()) << c.out();
    EXPECT_GT(std::stol(f.at("requests")), 10);
    const PcapFile p = readPcap(pcap);
    EXPECT_TRUE(p.headerOk);
    EXPECT_TRUE(p.endsOnWholePacket) << p.size;
    ASSERT_GE(p.packetLengths.size(), 6u);
    // The last packets are the host's FIN, the PLC's FIN and the last ACK (54 bytes each).
    EXPECT_EQ(p.packetLengths.back(), 54u);
    std::remove(pcap.c_str());
}

INSTANTIATE_TEST_SUITE_P(Signals, SignalE2E, ::testing::Values(SIGINT, SIGTERM),
    [](const ::testing::TestParamInfo<int>& i) { return i.param == SIGINT ? "Sigint" : "Sigterm"; });

TEST_F(CommissioningE2E, CaptureLimitEndsTheCaptureOnAWholePacketWithANote)
{
    const std::string pcap = tempPath("limit.pcap");
    const e2e::RunResult r = e2e::runProgram(base({"--watch", "M_W:0:2", "--duration", "1", "--interval-ms", "0",
                                                 "--pcap", pcap, "--pcap-limit", "0.02", "--quiet"}),
        20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    const PcapFile p = readPcap(pcap);
    EXPECT_TRUE(p.headerOk);
    EXPECT_TRUE(p.endsOnWholePacket);
    EXPECT_LE(p.size, 20000u);
    EXPECT_GT(p.size, 20000u - 200);  // it was filled up to the last packet that fits
    EXPECT_EQ(r.err,
        "adshost: capture ended at the --pcap-limit of 0.02 MB after " + std::to_string(p.packetLengths.size())
            + " packets: " + pcap + "\n");
    EXPECT_GT(std::stol(figures(r.out)["requests"]), long(p.packetLengths.size()) / 2);  // polling went on
    std::remove(pcap.c_str());
}

// Runs python3's json module over every line of `out`; returns one summary line per object
// ("source CONSISTENT", "value ADDRESS READ VALUES", "action KIND WHAT STATUS ADS_RESULT",
// "error KIND ENDS_WITH", "figures SUMS_UP", "exit STATUS"), or the checker's error.
std::string checkJsonLines(const std::string& out, const std::string& errorTail, int& status)
{
    const std::string jsonPath = tempPath("out.json");
    {
        std::ofstream f(jsonPath);
        f << out;
    }
    const std::string script = tempPath("check.py");
    {
        std::ofstream f(script);
        f << "import json, sys\n"
             "for n, line in enumerate(open(sys.argv[1]), 1):\n"
             "    o = json.loads(line)\n"
             "    assert isinstance(o, dict), n\n"
             "    t = o['type']\n"
             "    if t == 'value': print('value', o['address'], o['read'], o['values'])\n"
             "    elif t == 'action': print('action', o['action'], o['what'], o['status'], o.get('ads_result'))\n"
             "    elif t == 'figures': print('figures', o['requests'] == o['result1'] + o['result8'] + "
             "o['result2'] + o['result3'] + o['result0'])\n"
             "    elif t == 'error': print('error', o['kind'], o['message'].endswith(sys.argv[2]))\n"
             "    elif t == 'exit': print('exit', o['status'])\n"
             "    elif t == 'source': print('source', o['matched'] == (o['address'] is not None and 'warning' not in "
             "o))\n"
             "    else: print('other', t)\n";
    }
    FILE* pipe = ::popen(("python3 " + script + " " + jsonPath + " '" + errorTail + "' 2>&1").c_str(), "r");
    std::string summary;
    if (!pipe) {
        status = -1;
        return summary;
    }
    char buf[512];
    while (std::fgets(buf, sizeof buf, pipe))
        summary += buf;
    status = ::pclose(pipe);
    std::remove(jsonPath.c_str());
    std::remove(script.c_str());
    return summary;
}

// --json: every line of stdout is one JSON object; python3's json module reads them.
TEST_F(CommissioningE2E, JsonOutputIsOneValidObjectPerLine)
{
    if (std::system("command -v python3 >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "python3 not installed";
    }
    ASSERT_TRUE(sim.set(M, 0, {0x34, 0x12}));
    ASSERT_TRUE(sim.set(M, 2, {0x01}));
    // A capture path with a quote and a backslash, so that the capture note needs escaping.
    const std::string pcap = tempPath("q\"u\\ote.pcap");
    const e2e::RunResult r
        = e2e::runProgram(base({"--json", "--watch", "M_W:0", "--watch", "M_bit:2.0", "--watch", "Q_W:4", "--write",
                              "M_W:10=0x1234", "--recipe", "M_W:200:1=0x0A0B", "--condition", "M_W:0", "--cycles", "20",
                              "--pcap", pcap, "--pcap-limit", "0.002"}),
            20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    int status = -1;
    const std::string summary = checkJsonLines(r.out, "ote.pcap", status);
    EXPECT_EQ(status, 0) << summary << r.out;
    EXPECT_EQ(summary,
        "other driver\n"  // the plugin loaded, first
        "source True\n"
        "value M_W:0 True [4660]\n"
        "value M_bit:2.0 True [1]\n"
        "value Q_W:4 True [0]\n"
        "value M_W:0 True [4660]\n"
        "action condition read M_W:0 done 0\n"
        "action write M_W:10=0x1234 done 0\n"
        "action recipe write 1 variables done 0\n"
        "action recipe read 1 variables done 0\n"
        "error capture True\n"
        "figures True\n"
        "exit 0\n")
        << r.out;
    std::remove(pcap.c_str());
}

// A session that fails gives valid JSON too: the errors, the unread value, the action not
// finished and the exit status; --duration takes fractions of a second.
TEST_F(CommissioningE2E, JsonOutputOfAFailedSessionIsValidToo)
{
    if (std::system("command -v python3 >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "python3 not installed";
    }
    std::vector<std::string> args = base({"--json", "--watch", "M_W:0:2", "--write", "M_W:10=1", "--duration", "0.25"});
    args[6] = "192.168.1.101.1.1";
    const e2e::RunResult r = e2e::runProgram(args, 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 5) << r.out << r.err;
    int status = -1;
    const std::string summary = checkJsonLines(r.out, "check --netid", status);
    EXPECT_EQ(status, 0) << summary << r.out;
    EXPECT_EQ(summary,
        "other driver\n"
        "source True\n"
        "error communication True\n"
        "value M_W:0:2 False None\n"
        "action write M_W:10=0x0001 not finished None\n"
        "figures True\n"
        "error ams error True\n"
        "exit 5\n")
        << r.out;
}

// The driver is the one that knows the registers: adshost's bit rule (the "_bit" suffix) and
// its integer addresses agree with the driver's list and intf_checkAddr on a table of cases.
TEST(CommissioningRegisters, AdshostAgreesWithTheDriversTableAndCheck)
{
    adshost::Session s;
    adshost::Config cfg;
    cfg.driverPath = ADS_PLUGIN;
    std::string why;
    ASSERT_TRUE(s.open(cfg, why)) << why;
    const std::vector<std::string> bits = s.registers(true), words = s.registers(false);
    EXPECT_EQ(bits, (std::vector<std::string> {"I_bit", "Q_bit", "M_bit"}));
    EXPECT_EQ(words, (std::vector<std::string> {"I_W", "Q_W", "M_W"}));
    for (const std::string& r : bits) {
        adshost::Address a;
        a.reg = r;
        EXPECT_TRUE(a.isBit()) << r;
    }
    for (const std::string& r : words) {
        adshost::Address a;
        a.reg = r;
        EXPECT_FALSE(a.isBit()) << r;
    }
    for (const char* text : {"M_bit:10.3", "M_bit:10.9", "I_bit:0.0", "Q_bit:65535.7", "M_bit:3.15:4", "M_W:0",
             "I_W:65534", "Q_W:100:4", "M_W:7:3"}) {
        adshost::Address a;
        ASSERT_TRUE(adshost::parseAddress(text, a, why)) << why;
        const int ours = a.address;
        ASSERT_TRUE(s.resolve(a, 0, why)) << text << ": " << why;
        EXPECT_EQ(a.address, ours) << text;
    }
    // And what the driver refuses, adshost refuses, naming the rule.
    for (const char* text : {"M_bit:10", "M_bit:1.2.3", "M_W:12a", "M_W:65535", "Q_bit:65535.7:2", "X_W:0"}) {
        adshost::Address a;
        ASSERT_TRUE(adshost::parseAddress(text, a, why)) << why;
        EXPECT_FALSE(s.resolve(a, 0, why)) << text;
        EXPECT_EQ(why.rfind(std::string(text) + ": ", 0), 0u) << why;
    }
}

}  // namespace
