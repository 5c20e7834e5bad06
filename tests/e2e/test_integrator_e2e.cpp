// adshost as a new integrator first meets it, against the plcsim executable: what it says is
// what the PLC shows. Each test names the behaviour it holds; each failed on the adshost that
// read 010 as octal, waited out bit condition reads, claimed stale values as fresh, and so on.
#include "e2e_support.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sys/stat.h>
#include <thread>

namespace {

const unsigned M = 0x4020;

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::string lastLine(const std::string& text)
{
    const std::vector<std::string> l = e2e::lines(text);
    return l.empty() ? std::string() : l.back();
}

// Waits (at most 10 s) until the PLC has received n requests: adshost has started, which
// under an emulator takes longer than natively.
void waitForRequests(adstest::PlcsimProcess& sim, long n)
{
    const adstool::Deadline deadline(10000);
    while (sim.counter("requests") < n && !deadline.expired())
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

class IntegratorE2E : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(sim.start({"--no-program"})); }
    void TearDown() override { sim.stop(); }
    std::vector<std::string> base(const std::vector<std::string>& more, uint16_t port = 0)
    {
        std::vector<std::string> a = {ADSHOST_EXE, "--driver", ADS_PLUGIN, "--plc",
            "127.0.0.1:" + std::to_string(port ? port : sim.port()), "--netid", "192.168.1.100.1.1"};
        a.insert(a.end(), more.begin(), more.end());
        return a;
    }
    adstest::PlcsimProcess sim;
};

// 1. A leading zero does not make a number octal: 010 is ten, 09 is nine.
TEST_F(IntegratorE2E, LeadingZeroIsDecimal)
{
    const e2e::RunResult r = e2e::runProgram(base({"--write", "M_W:10=010", "--write", "M_W:20=09"}), 20000);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_EQ(sim.get(M, 10, 2), (std::vector<uint8_t> {10, 0}));
    EXPECT_EQ(sim.get(M, 20, 2), (std::vector<uint8_t> {9, 0}));
    EXPECT_TRUE(contains(r.out, "write: done M_W:10=0x000A")) << r.out;
}

// 2.-4. What the driver would carry out wrong is refused at once, with why and what to do,
// and nothing reaches the PLC.
TEST_F(IntegratorE2E, RequestsTheDriverCarriesOutWrongAreRefusedUpFront)
{
    std::string bits136;
    for (int i = 0; i < 136; ++i)
        bits136 += i ? ",1" : "1";
    const struct {
        std::vector<std::string> args;
        std::string says;
    } cases[] = {
        {{"--condition", "M_W:0:17"}, "split it, e.g. --condition M_W:0:16 --condition M_W:32:1"},
        {{"--condition", "M_bit:2.0"}, "the driver drops one-shot reads of bit registers"},
        {{"--write", "M_bit:3000.0=" + bits136}, "split it into writes of at most 128 bits"},
        {{"--gap", "4", "--write", "M_bit:0.0=1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1"},
            "at most 32 bits"},
    };
    for (const auto& c : cases) {
        const int64_t t0 = adstool::nowMs();
        const e2e::RunResult r = e2e::runProgram(base(c.args), 20000);
        EXPECT_EQ(r.exitCode, 2) << r.err;
        EXPECT_LT(adstool::nowMs() - t0, 3000) << "refused at argument time";
        EXPECT_EQ(e2e::lines(r.err).size(), 1u) << r.err;
        EXPECT_TRUE(contains(r.err, c.says)) << r.err;
    }
    EXPECT_EQ(sim.counter("connections"), 0);
    EXPECT_EQ(sim.counter("requests"), 0);
    // One piece is fine: 128 bits are written and confirmed, the last bit included.
    std::string bits128;
    for (int i = 0; i < 128; ++i)
        bits128 += i ? ",1" : "1";
    const e2e::RunResult ok = e2e::runProgram(base({"--write", "M_bit:3000.0=" + bits128}), 20000);
    EXPECT_EQ(ok.exitCode, 0) << ok.out << ok.err;
    EXPECT_EQ(sim.get(M, 3015, 2), (std::vector<uint8_t> {0xFF, 0x00}));
}

// 5. A PLC that stops answering: the value is shown stale with its age, and no exit 0.
TEST_F(IntegratorE2E, ValueWhoseReadsStopSucceedingIsStaleAndNoSuccess)
{
    ASSERT_TRUE(sim.set(M, 0, {0x34, 0x12}));
    e2e::Child c;
    ASSERT_TRUE(c.start(base({"--watch", "M_W:0", "--duration", "2", "--timeout-ms", "100", "--json"})));
    waitForRequests(sim, 4);  // silent once the value has been read
    ASSERT_EQ(sim.command("fault-prob noreply 1"), "ok");
    const int code = c.wait(20000);
    const std::string out = c.out();
    EXPECT_EQ(code, 9) << out << c.err();
    EXPECT_TRUE(
        contains(out, "\"address\":\"M_W:0\",\"kind\":\"watch\",\"read\":true,\"values\":[4660],\"stale\":true"))
        << out;
    EXPECT_TRUE(contains(lastLine(out), "\"status\":9")) << out;
    EXPECT_TRUE(contains(lastLine(out), "stale")) << out;
}

// A condition read shows what the PLC answered, also where the driver's cache lost it: a
// word write settled after the read gives the as many bytes after it their last written
// value (0 here) in the cache, without the PLC taking them (truth test, seed 478).
TEST_F(IntegratorE2E, ConditionReadShowsTheReplyAfterAWriteBeforeItsBytes)
{
    ASSERT_TRUE(sim.set(M, 20, {0xEE, 0xEE, 0x2F, 0x30, 0x31, 0x32, 0x33, 0x34}));
    const e2e::RunResult r
        = e2e::runProgram(base({"--condition", "M_W:20:4", "--write", "M_W:10=1,2,3,4,5,6", "--json"}), 20000);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_EQ(sim.get(M, 20, 8), (std::vector<uint8_t> {6, 0, 0x2F, 0x30, 0x31, 0x32, 0x33, 0x34}));
    // Word 20 as the confirmed write left it, words 22 to 26 as the condition read's reply.
    EXPECT_TRUE(contains(r.out,
        "\"address\":\"M_W:20:4\",\"kind\":\"condition\",\"read\":true,\"values\":[6,12335,12849,13363],"
        "\"stale\":false"))
        << r.out;
}

// 6. --json: the exit object always comes, for usage errors and failed starts too.
TEST_F(IntegratorE2E, JsonAlwaysEndsWithTheExitObject)
{
    const e2e::RunResult usage = e2e::runProgram(base({"--json", "--watch", "M_W:0", "--bogus"}), 10000);
    EXPECT_EQ(usage.exitCode, 2);
    EXPECT_EQ(lastLine(usage.out).rfind("{\"type\":\"exit\",\"status\":2,", 0), 0u) << usage.out;
    const e2e::RunResult refused
        = e2e::runProgram(base({"--json", "--watch", "M_W:0", "--cycles", "1"}, /*nothing listens*/ 1), 10000);
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(lastLine(refused.out).rfind("{\"type\":\"exit\",\"status\":1,", 0), 0u) << refused.out;
    const e2e::RunResult pcap = e2e::runProgram(
        base({"--json", "--watch", "M_W:0", "--cycles", "1", "--pcap", "/nonexistent/x.pcap"}), 10000);
    EXPECT_EQ(pcap.exitCode, 1);
    EXPECT_TRUE(contains(lastLine(pcap.out), "cannot write /nonexistent/x.pcap")) << pcap.out;
}

// 7. No route: the diagnosis does not depend on how long one polls.
TEST_F(IntegratorE2E, NoRouteIsDiagnosedInAShortSession)
{
    sim.stop();
    ASSERT_TRUE(sim.start({"--no-program", "--route", "10.9.8.7.1.1"}));
    const e2e::RunResult r = e2e::runProgram(base({"--watch", "M_W:0", "--duration", "0.3"}), 20000);
    EXPECT_EQ(r.exitCode, 4) << r.out << r.err;
    EXPECT_TRUE(contains(r.err, "no route for this panel's AMS Net ID")) << r.err;
}

// 8. --cycles counts whole screen refreshes; --interval-ms pauses after each of them.
TEST_F(IntegratorE2E, CyclesAndIntervalMeanWholeScreenRefreshes)
{
    const std::vector<std::string> screen
        = {"--gap", "0", "--watch", "M_W:0", "--watch", "M_W:1000", "--watch", "I_W:0", "--json"};
    std::vector<std::string> one = screen;
    one.insert(one.end(), {"--cycles", "1"});
    const e2e::RunResult r1 = e2e::runProgram(base(one), 20000);
    EXPECT_EQ(r1.exitCode, 0) << r1.out << r1.err;
    EXPECT_TRUE(contains(r1.out, "\"refreshes\":1,")) << r1.out;
    EXPECT_FALSE(contains(r1.out, "\"read\":false")) << r1.out;

    std::vector<std::string> paced = screen;
    paced.insert(paced.end(), {"--duration", "2", "--interval-ms", "100"});
    const e2e::RunResult r2 = e2e::runProgram(base(paced), 20000);
    EXPECT_EQ(r2.exitCode, 0) << r2.err;
    const size_t at = r2.out.find("\"refreshes\":");
    ASSERT_NE(at, std::string::npos) << r2.out;
    const long refreshes = std::stol(r2.out.substr(at + 12));
    EXPECT_GE(refreshes, 12) << r2.out;  // about 20 in 2 s: 10 per second, not 3
    EXPECT_LE(refreshes, 22) << r2.out;

    // The default pause keeps a second of polling far from a flood.
    std::vector<std::string> plain = screen;
    plain.insert(plain.end(), {"--duration", "1"});
    const e2e::RunResult r3 = e2e::runProgram(base(plain), 20000);
    const size_t rq = r3.out.find("\"requests\":");
    ASSERT_NE(rq, std::string::npos) << r3.out;
    EXPECT_LE(std::stol(r3.out.substr(rq + 11)), 60) << r3.out;

    // Also once a write is over: the pause holds for the rest of the session.
    std::vector<std::string> written = screen;
    written.insert(written.end(), {"--duration", "1", "--write", "M_W:10=1"});
    const e2e::RunResult r4 = e2e::runProgram(base(written), 20000);
    EXPECT_EQ(r4.exitCode, 0) << r4.out << r4.err;
    const size_t wq = r4.out.find("\"requests\":");
    ASSERT_NE(wq, std::string::npos) << r4.out;
    EXPECT_LE(std::stol(r4.out.substr(wq + 11)), 60) << r4.out;
}

// 9. The probe ends on Ctrl-C at once, also as a background job that ignores SIGINT.
TEST_F(IntegratorE2E, ProbeStopsOnSigint)
{
    ASSERT_EQ(sim.command("fault-prob noreply 1"), "ok");
    e2e::Child c;
    ASSERT_TRUE(c.start({"/bin/sh", "-c",
        std::string("trap '' INT; exec ") + e2e::emulatorPrefix() + ADSHOST_EXE + " --probe --plc 127.0.0.1:"
            + std::to_string(sim.port()) + " --netid 192.168.1.100.1.1 --timeout-ms 20000"}));
    waitForRequests(sim, 1);  // the probe is waiting for its answer
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const int64_t t0 = adstool::nowMs();
    ::kill(c.pid(), SIGINT);
    const int code = c.wait(5000);
    EXPECT_LT(adstool::nowMs() - t0, 2000);
    EXPECT_EQ(code, 9) << c.err();
    EXPECT_TRUE(contains(c.err(), "stopped by a signal")) << c.err();
}

// 10. The loaded plugin is named; --version without a plugin it can load is no success.
TEST_F(IntegratorE2E, PluginIsNamedAndVersionNeedsOne)
{
    const e2e::RunResult r = e2e::runProgram(base({"--watch", "M_W:0", "--cycles", "1"}), 20000);
    EXPECT_EQ(e2e::lines(r.out).at(0), std::string("driver ") + ADS_PLUGIN + " " + ADSHOST_VERSION) << r.out;
    const e2e::RunResult v = e2e::runProgram({ADSHOST_EXE, "--version", "--driver", "/nonexistent.so"}, 20000);
    EXPECT_EQ(v.exitCode, 1) << v.out;
    // Without --driver, adshost in its build tree finds the plugin built beside it.
    const e2e::RunResult b = e2e::runProgram({ADSHOST_EXE, "--plc", "127.0.0.1:" + std::to_string(sim.port()),
                                                 "--netid", "192.168.1.100.1.1", "--watch", "M_W:0", "--cycles", "1"},
        20000);
    EXPECT_EQ(b.exitCode, 0) << b.out << b.err;
    EXPECT_EQ(e2e::lines(b.out).at(0), std::string("driver ") + ADS_PLUGIN + " " + ADSHOST_VERSION) << b.out;
    const e2e::RunResult bv = e2e::runProgram({ADSHOST_EXE, "--version"}, 20000);
    EXPECT_EQ(bv.exitCode, 0) << bv.out << bv.err;
    EXPECT_TRUE(contains(bv.out, std::string("driver ") + ADS_PLUGIN + " " + ADSHOST_VERSION)) << bv.out;
}

// 11. After the PLC is gone: the attempts to connect again are told as they happen, the
// figures count them and the whole time, and a round trip never made is n/a.
TEST_F(IntegratorE2E, ReconnectAttemptsAreToldAndCounted)
{
    e2e::Child c;
    ASSERT_TRUE(c.start(base({"--watch", "M_W:0", "--duration", "1", "--timeout-ms", "100"})));
    waitForRequests(sim, 2);
    sim.stop();
    const int code = c.wait(20000);
    EXPECT_EQ(code, 3) << c.out() << c.err();
    EXPECT_TRUE(contains(c.err(), "connecting again, attempt 1 of 8 failed")) << c.err();
    EXPECT_TRUE(contains(c.out(), "failed_reconnects=8")) << c.out();
    const std::map<std::string, std::string> f = e2e::figures(c.out());
    ASSERT_TRUE(f.count("seconds")) << c.out();
    EXPECT_GE(std::stod(f.at("seconds")), 3.0) << c.out();

    ASSERT_TRUE(sim.start({"--no-program"}));
    ASSERT_EQ(sim.command("fault-prob noreply 1"), "ok");
    const e2e::RunResult silent
        = e2e::runProgram(base({"--watch", "M_W:0", "--duration", "0.3", "--timeout-ms", "100", "--json"}), 20000);
    EXPECT_TRUE(contains(silent.out, "\"rtt_ms_min\":null")) << silent.out;
}

// 12. Driver mode diagnoses like the probe: a PLC that closes the connection, a port that
// speaks no AMS/TCP.
TEST_F(IntegratorE2E, ClosedConnectionAndNonAmsPeerAreNamed)
{
    ASSERT_EQ(sim.command("fault-prob close 1"), "ok");
    const e2e::RunResult closed = e2e::runProgram(base({"--watch", "M_W:0", "--cycles", "1", "--retries", "2"}), 30000);
    EXPECT_EQ(closed.exitCode, 4) << closed.err;
    EXPECT_TRUE(contains(closed.err, "closed the connection without answering")) << closed.err;

    // A peer that answers every request with text.
    const int lfd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(lfd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(::listen(lfd, 4), 0);
    socklen_t len = sizeof a;
    ::getsockname(lfd, reinterpret_cast<sockaddr*>(&a), &len);
    std::thread peer([lfd] {
        const int c = ::accept(lfd, nullptr, nullptr);
        if (c < 0)
            return;
        char buf[1024];
        while (::recv(c, buf, sizeof buf, 0) > 0) {
            const char reply[] = "HTTP/1.0 400 Bad Request\r\n\r\n";
            ::send(c, reply, sizeof reply - 1, MSG_NOSIGNAL);
        }
        ::close(c);
    });
    const e2e::RunResult text = e2e::runProgram(base({"--watch", "M_W:0", "--cycles", "1"}, ntohs(a.sin_port)), 20000);
    ::shutdown(lfd, SHUT_RDWR);
    ::close(lfd);
    peer.join();
    EXPECT_EQ(text.exitCode, 8) << text.out << text.err;
    EXPECT_TRUE(contains(text.err, "an AMS/TCP port?")) << text.err;
}

// 13. plcsim: a port file it cannot write means it did not start; the file goes at exit.
TEST(IntegratorPlcsim, PortFileIsWrittenBeforeListeningAndRemovedAtExit)
{
    const e2e::RunResult bad
        = e2e::runProgram({PLCSIM_EXE, "--listen", "127.0.0.1:0", "--port-file", "/nonexistent/p"}, 5000);
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_FALSE(contains(bad.out, "listening")) << bad.out;
    EXPECT_TRUE(contains(bad.err, "--port-file")) << bad.err;

    adstest::PlcsimProcess sim;
    ASSERT_TRUE(sim.start({"--no-program"}));
    const std::string path = ::testing::TempDir() + "plcsim_ports_" + std::to_string(::getpid());
    plcsim::Process p;
    ASSERT_TRUE(p.start(PLCSIM_EXE, {"--listen", "127.0.0.1:0", "--port-file", path}));
    struct stat st;
    EXPECT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(p.stop(), 0);
    EXPECT_NE(::stat(path.c_str(), &st), 0) << "the port file stays behind";
    sim.stop();
}

}  // namespace
