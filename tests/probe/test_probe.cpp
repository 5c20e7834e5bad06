// adshost --probe against the plcsim executable: one test per answer a commissioning
// engineer can get, each checking the exit code and the exact line.
#include "plcsim_control.h"
#include "probe.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using adshost::probe::panelAddressFor;

struct Result {
    int status = -1;  // exit code, 128 + signal, -1 when it had to be killed
    std::string out, err;
};

// Runs adshost with args; both outputs captured; killed after timeoutMs.
Result runAdshost(const std::vector<std::string>& args, int timeoutMs = 10000)
{
    Result res;
    int o[2], e[2];
    if (::pipe2(o, O_CLOEXEC) != 0 || ::pipe2(e, O_CLOEXEC) != 0)
        return res;
    std::vector<char*> argv;
    static std::string exe = ADSHOST_EXE;
    argv.push_back(const_cast<char*>(exe.c_str()));
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(o[1], 1);
        ::dup2(e[1], 2);
        ::execv(exe.c_str(), argv.data());
        ::_exit(127);
    }
    ::close(o[1]);
    ::close(e[1]);
    const int64_t deadline = plcsim::detail::nowMs() + timeoutMs;
    bool openO = true, openE = true;
    while ((openO || openE) && plcsim::detail::leftMs(deadline) > 0) {
        pollfd p[2] = {{openO ? o[0] : -1, POLLIN, 0}, {openE ? e[0] : -1, POLLIN, 0}};
        if (::poll(p, 2, plcsim::detail::leftMs(deadline)) <= 0)
            break;
        char buf[4096];
        for (int i = 0; i < 2; ++i) {
            if (!(p[i].revents & (POLLIN | POLLHUP)))
                continue;
            const ssize_t n = ::read(i == 0 ? o[0] : e[0], buf, sizeof buf);
            if (n > 0)
                (i == 0 ? res.out : res.err).append(buf, size_t(n));
            else
                (i == 0 ? openO : openE) = false;
        }
    }
    ::close(o[0]);
    ::close(e[0]);
    int st = 0;
    if (openO || openE) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &st, 0);
        return res;
    }
    if (::waitpid(pid, &st, 0) == pid)
        res.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return res;
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream is(text);
    for (std::string l; std::getline(is, l);)
        out.push_back(l);
    return out;
}

bool hasLine(const std::string& text, const std::string& line)
{
    for (const std::string& l : lines(text))
        if (l == line)
            return true;
    return false;
}

class ProbeAgainstPlcsim : public ::testing::Test {
protected:
    // Starts plcsim with a control port, a log and `extra` options.
    void startPlc(const std::vector<std::string>& extra = {})
    {
        char tmpl[] = "/tmp/probe_plcsim_XXXXXX";
        const int fd = ::mkstemp(tmpl);
        ASSERT_GE(fd, 0);
        ::close(fd);
        logPath = tmpl;
        std::vector<std::string> args
            = {"--listen", "127.0.0.1:0", "--control", "127.0.0.1:0", "--no-program", "--log", logPath};
        args.insert(args.end(), extra.begin(), extra.end());
        ASSERT_TRUE(sim.start(PLCSIM_EXE, args));
        ASSERT_TRUE(ctl.connect("127.0.0.1", sim.controlPort()));
        plc = "127.0.0.1:" + std::to_string(sim.port());
    }
    void TearDown() override
    {
        sim.stop();
        if (!logPath.empty())
            ::unlink(logPath.c_str());
    }
    std::string log()
    {
        std::ifstream f(logPath);
        std::stringstream s;
        s << f.rdbuf();
        return s.str();
    }

    plcsim::Process sim;
    plcsim::ControlClient ctl;
    std::string plc, logPath;
};

const char* const kPlcNetId = "192.168.1.100.1.1";  // plcsim's own Net ID
const char* const kPanel = "192.168.1.20.1.1";

TEST_F(ProbeAgainstPlcsim, RunningPlcGivesDeviceNameVersionAndRunState)
{
    startPlc();
    const Result r = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--source-netid", kPanel});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(hasLine(r.out, "source AMS Net ID 192.168.1.20.1.1 (given with --source-netid)")) << r.out;
    EXPECT_TRUE(hasLine(r.out, "device: \"Plc30 App\", version 3.1.4024")) << r.out;
    EXPECT_TRUE(hasLine(r.out, "state: RUN (ADS state 5, device state 0)")) << r.out;
    EXPECT_EQ(r.err, "");
}

TEST_F(ProbeAgainstPlcsim, SendsReadDeviceInfoAndReadStateFromThePanelNetIdToPort851)
{
    startPlc();
    const Result r = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--source-netid", kPanel});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    const std::string l = log();
    EXPECT_NE(l.find("cmd=ReadDeviceInfo(1) src=192.168.1.20.1.1:33095 dst=192.168.1.100.1.1:851 invoke=1"),
        std::string::npos)
        << l;
    EXPECT_NE(
        l.find("cmd=ReadState(4) src=192.168.1.20.1.1:33095 dst=192.168.1.100.1.1:851 invoke=2"), std::string::npos)
        << l;
    EXPECT_EQ(ctl.command("counters").find("ok requests=2 devinfo=1 read=0 write=0 readstate=1 "), 0u);
}

TEST_F(ProbeAgainstPlcsim, AmsPortGivenWithOptionIsTheTargetPort)
{
    startPlc();
    const Result r
        = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--ams-port", "801", "--source-netid", kPanel});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(log().find("dst=192.168.1.100.1.1:801 invoke=1"), std::string::npos);
}

TEST_F(ProbeAgainstPlcsim, PlcWithoutRouteForThePanelGivesTheNoRouteLine)
{
    startPlc({"--route", "10.9.8.7.1.1"});
    const Result r
        = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--source-netid", kPanel, "--timeout-ms", "400"});
    EXPECT_EQ(r.status, 4) << r.out << r.err;
    EXPECT_EQ(r.err,
        "adshost: connected, but no answer: the PLC most likely has no route for this panel's AMS Net ID "
        "192.168.1.20.1.1; add one on the PLC\n");
    EXPECT_NE(ctl.command("counters").find(" unanswered=1 "), std::string::npos);
}

TEST_F(ProbeAgainstPlcsim, RouteForThePanelNetIdLetsTheProbeThrough)
{
    startPlc({"--route", "10.9.8.7.1.1", "--route", kPanel});
    const Result r = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--source-netid", kPanel});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST_F(ProbeAgainstPlcsim, NoRouteLineNamesTheNetIdTheDriverRuleChose)
{
    startPlc({"--route", "10.9.8.7.1.1"});
    const Result r = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--timeout-ms", "400"});
    EXPECT_EQ(r.status, 4) << r.out << r.err;
    // Found as the driver finds it: this machine's matching address and .1.1, or 0.0.0.0.1.1.
    const std::string addr = panelAddressFor(kPlcNetId, adshost::probe::localIpv4Addresses());
    const std::string expected = (addr.empty() ? std::string("0.0.0.0") : addr) + ".1.1";
    ASSERT_FALSE(lines(r.out).empty());
    EXPECT_EQ(lines(r.out)[0].rfind("source AMS Net ID " + expected + " (", 0), 0u) << r.out;
    EXPECT_EQ(r.err,
        "adshost: connected, but no answer: the PLC most likely has no route for this panel's AMS "
        "Net ID "
            + expected + "; add one on the PLC\n");
    EXPECT_NE(log().find("src=" + expected + ":33095"), std::string::npos) << log();
}

TEST_F(ProbeAgainstPlcsim, AmsPortWithoutRuntimeSaysSo)
{
    startPlc({"--ports", "851"});
    const Result r
        = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--ams-port", "900", "--source-netid", kPanel});
    EXPECT_EQ(r.status, 5) << r.out << r.err;
    EXPECT_EQ(r.err, "adshost: AMS port 900 has no runtime (ADS error 0x6: target port not found)\n");
}

TEST_F(ProbeAgainstPlcsim, WrongPlcNetIdSaysTargetMachineNotFound)
{
    startPlc();
    const Result r = runAdshost({"--probe", "--plc", plc, "--netid", "192.168.1.101.1.1", "--source-netid", kPanel});
    EXPECT_EQ(r.status, 5) << r.out << r.err;
    EXPECT_EQ(r.err,
        "adshost: no AMS Net ID 192.168.1.101.1.1 behind " + plc
            + " (ADS error 0x7: target machine not found): check the PLC's AMS Net ID\n");
}

TEST_F(ProbeAgainstPlcsim, StoppedPlcGivesTheStopLine)
{
    startPlc();
    ASSERT_EQ(ctl.command("state stop"), "ok");
    const Result r = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--source-netid", kPanel});
    EXPECT_EQ(r.status, 7) << r.out << r.err;
    EXPECT_EQ(r.err, "adshost: the PLC is in STOP (ADS state 6)\n");
    EXPECT_TRUE(hasLine(r.out, "device: \"Plc30 App\", version 3.1.4024")) << r.out;
}

TEST_F(ProbeAgainstPlcsim, AdsErrorResultGivesCodeAndMeaning)
{
    startPlc();
    ASSERT_EQ(ctl.command("fault-code 0x710"), "ok");
    ASSERT_EQ(ctl.command("fault adserror 1"), "ok");
    const Result r = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--source-netid", kPanel});
    EXPECT_EQ(r.status, 6) << r.out << r.err;
    EXPECT_EQ(r.err, "adshost: ReadDeviceInfo failed: ADS error 0x710: symbol not found\n");
}

TEST(ProbeConnection, RefusedPortGivesTheRefusedLine)
{
    // A bound socket that does not listen: connections to its port are refused.
    const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(s, 0);
    sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
    const std::string port = std::to_string(ntohs(a.sin_port));
    const Result r
        = runAdshost({"--probe", "--plc", "127.0.0.1:" + port, "--netid", kPlcNetId, "--source-netid", kPanel});
    ::close(s);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_EQ(r.err,
        "adshost: connection refused by 127.0.0.1:" + port
            + ": nothing listens there; the ADS/AMS router port is usually 48898\n");
}

TEST(ProbeCommandLine, MissingNetIdIsAUsageError)
{
    const Result r = runAdshost({"--probe", "--plc", "127.0.0.1:48898"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "adshost: --netid: --probe needs the PLC's AMS Net ID A.B.C.D.E.F (see adshost --help)\n");
}

TEST(ProbeCommandLine, ProbeNeedsNoDriver)
{
    const Result r = runAdshost({"--probe", "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("  adshost --probe --plc HOST:PORT --netid NETID [--ams-port N]\n"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("--source-netid"), std::string::npos) << r.out;
}

// Driver mode and probe mode check numbers with the same rules and name the argument.
TEST(ProbeCommandLine, NumbersAreCheckedAlikeInBothModes)
{
    struct Case {
        std::vector<std::string> args;
        std::string err;
    };
    const std::vector<Case> cases = {
        {{"--netid", "192.168.1.300.1.1"},
            "adshost: --netid: needs an AMS Net ID A.B.C.D.E.F (each 0..255): field 4 of '192.168.1.300.1.1' is "
            "300, above 255 (see adshost --help)\n"},
        {{"--ams-port", "65536"},
            "adshost: --ams-port: needs an AMS port from 1 to 65535, got '65536' (see adshost --help)\n"},
        {{"--ams-port", "0"}, "adshost: --ams-port: needs an AMS port from 1 to 65535, got '0' (see adshost --help)\n"},
        {{"--timeout-ms", "0"},
            "adshost: --timeout-ms: needs milliseconds from 1 to 600000, got '0' (see adshost --help)\n"},
    };
    for (const Case& c : cases) {
        for (bool probe : {true, false}) {
            std::vector<std::string> args = {"--plc", "127.0.0.1:48898", "--netid", kPlcNetId};
            if (probe)
                args.insert(args.begin(), "--probe");
            else
                args.insert(args.end(), {"--driver", "/nonexistent.so", "--watch", "M_W:0", "--cycles", "1"});
            args.insert(args.end(), c.args.begin(), c.args.end());
            const Result r = runAdshost(args);
            EXPECT_EQ(r.status, 2) << (probe ? "probe " : "driver ") << c.args[0];
            EXPECT_EQ(r.err, c.err) << (probe ? "probe " : "driver ") << c.args[0];
        }
    }
    // A port of the PLC address: the same rule in both modes.
    for (bool probe : {true, false}) {
        std::vector<std::string> args = {"--plc", "127.0.0.1:70000", "--netid", kPlcNetId, "--watch", "M_W:0"};
        if (probe)
            args = {"--probe", "--plc", "127.0.0.1:70000", "--netid", kPlcNetId};
        const Result r = runAdshost(args);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err.rfind("adshost: --plc: needs HOST:PORT: ", 0), 0u) << r.err;
    }
}

TEST(ProbeCommandLine, DriverOptionsAreRefusedWithProbe)
{
    const Result r = runAdshost({"--probe", "--plc", "127.0.0.1:48898", "--netid", kPlcNetId, "--watch", "M_W:0"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "adshost: --watch: not used with --probe (see adshost --help)\n");
}

// The driver's rule for the panel's own address, with the examples of its documentation.
TEST(ProbeSourceNetId, TakesTheAddressThatContainsTheFirstTwoNetIdParts)
{
    EXPECT_EQ(panelAddressFor("192.168.1.100.1.1", {"127.0.0.1", "192.168.1.20"}), "192.168.1.20");
    EXPECT_EQ(panelAddressFor("192.168.1.100.1.1", {"10.0.0.5", "192.168.1.20"}), "192.168.1.20");
}

TEST(ProbeSourceNetId, NoMatchingAddressGivesNone)
{
    EXPECT_EQ(panelAddressFor("192.168.1.100.1.1", {"10.0.0.5"}), "");
    EXPECT_EQ(panelAddressFor("192.168.1.100.1.1", {"127.0.0.1", "192.0.2.2"}), "");
}

TEST(ProbeSourceNetId, TestIsOnTheTextNotOnTheSubnet)
{
    EXPECT_EQ(panelAddressFor("5.1.2.3.1.1", {"10.0.5.1", "192.168.1.20"}), "10.0.5.1");
    EXPECT_EQ(panelAddressFor("192.168.1.100.1.1", {"10.192.168.3", "192.168.1.20"}), "10.192.168.3");
}

TEST(ProbeSourceNetId, FirstMatchInInterfaceOrderWins)
{
    EXPECT_EQ(panelAddressFor("192.168.1.100.1.1", {"192.168.2.7", "192.168.1.20"}), "192.168.2.7");
}

TEST(ProbeSourceNetId, SkipsOnlyTheLoopbackAddress)
{
    EXPECT_EQ(panelAddressFor("127.0.0.1.1.1", {"127.0.0.1", "127.0.0.2"}), "127.0.0.2");
    // As the driver does: 0.0.0.0 is not QHostAddress's null address (test_probe_agrees_with_driver).
    EXPECT_EQ(panelAddressFor("0.0.1.2.1.1", {"0.0.0.0", "10.0.0.5"}), "0.0.0.0");
}

TEST(ProbeSourceNetId, NetIdOfFewerThanTwoPartsTakesAnyAddress)
{
    EXPECT_EQ(panelAddressFor("77", {"127.0.0.1", "10.0.0.5", "192.168.1.20"}), "10.0.0.5");
    EXPECT_EQ(panelAddressFor("", {"127.0.0.1", "172.16.0.9"}), "172.16.0.9");
}

}  // namespace
