// adshost --probe against the plcsim executable: one test per answer a commissioning
// engineer can get, each checking the exit code and the exact line.
#include "../support/plcsim_process.h"
#include "probe.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

using adshost::probe::panelAddressFor;

using adstest::RunResult;

// adshost run to its end, both outputs captured; killed by its PID after timeoutMs.
RunResult runAdshost(const std::vector<std::string>& args, int timeoutMs = 10000)
{
    std::vector<std::string> argv = {ADSHOST_EXE};
    argv.insert(argv.end(), args.begin(), args.end());
    return adstest::runToEnd(argv, timeoutMs);
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
    // Starts plcsim (without its PLC program) with `extra` options.
    void startPlc(const std::vector<std::string>& extra = {})
    {
        std::vector<std::string> args = {"--no-program"};
        args.insert(args.end(), extra.begin(), extra.end());
        ASSERT_TRUE(sim.start(args));
        plc = sim.address();
    }
    std::string log() { return sim.logText(); }

    adstest::PlcsimProcess sim;
    std::string plc;
};

const char* const kPlcNetId = "192.168.1.100.1.1";  // plcsim's own Net ID
const char* const kPanel = "192.168.1.20.1.1";

TEST_F(ProbeAgainstPlcsim, RunningPlcGivesDeviceNameVersionAndRunState)
{
    startPlc();
    const RunResult r = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--source-netid", kPanel});
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(hasLine(r.out, "source AMS Net ID 192.168.1.20.1.1 (given with --source-netid)")) << r.out;
    EXPECT_TRUE(hasLine(r.out, "device: \"Plc30 App\", version 3.1.4024")) << r.out;
    EXPECT_TRUE(hasLine(r.out, "state: RUN (ADS state 5, device state 0)")) << r.out;
    EXPECT_EQ(r.err, "");
}

TEST_F(ProbeAgainstPlcsim, SendsReadDeviceInfoAndReadStateFromThePanelNetIdToPort851)
{
    startPlc();
    const RunResult r = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--source-netid", kPanel});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    const std::string l = log();
    EXPECT_NE(l.find("cmd=ReadDeviceInfo(1) src=192.168.1.20.1.1:33095 dst=192.168.1.100.1.1:851 invoke=1"),
        std::string::npos)
        << l;
    EXPECT_NE(
        l.find("cmd=ReadState(4) src=192.168.1.20.1.1:33095 dst=192.168.1.100.1.1:851 invoke=2"), std::string::npos)
        << l;
    EXPECT_EQ(sim.command("counters").find("ok requests=2 devinfo=1 read=0 write=0 readstate=1 "), 0u);
}

TEST_F(ProbeAgainstPlcsim, AmsPortGivenWithOptionIsTheTargetPort)
{
    startPlc();
    const RunResult r
        = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--ams-port", "801", "--source-netid", kPanel});
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_NE(log().find("dst=192.168.1.100.1.1:801 invoke=1"), std::string::npos);
}

TEST_F(ProbeAgainstPlcsim, PlcWithoutRouteForThePanelGivesTheNoRouteLine)
{
    startPlc({"--route", "10.9.8.7.1.1"});
    const RunResult r
        = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--source-netid", kPanel, "--timeout-ms", "400"});
    EXPECT_EQ(r.exitCode, 4) << r.out << r.err;
    EXPECT_EQ(r.err,
        "adshost: connected, but no answer: the PLC most likely has no route for this panel's AMS Net ID "
        "192.168.1.20.1.1; add one on the PLC\n");
    EXPECT_NE(sim.command("counters").find(" unanswered=1 "), std::string::npos);
}

TEST_F(ProbeAgainstPlcsim, RouteForThePanelNetIdLetsTheProbeThrough)
{
    startPlc({"--route", "10.9.8.7.1.1", "--route", kPanel});
    const RunResult r = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--source-netid", kPanel});
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
}

TEST_F(ProbeAgainstPlcsim, NoRouteLineNamesTheNetIdTheDriverRuleChose)
{
    startPlc({"--route", "10.9.8.7.1.1"});
    const RunResult r = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--timeout-ms", "400"});
    EXPECT_EQ(r.exitCode, 4) << r.out << r.err;
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
    const RunResult r
        = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--ams-port", "900", "--source-netid", kPanel});
    EXPECT_EQ(r.exitCode, 5) << r.out << r.err;
    EXPECT_EQ(r.err, "adshost: AMS port 900 has no runtime (ADS error 0x6: target port not found)\n");
}

TEST_F(ProbeAgainstPlcsim, WrongPlcNetIdSaysTargetMachineNotFound)
{
    startPlc();
    const RunResult r = runAdshost({"--probe", "--plc", plc, "--netid", "192.168.1.101.1.1", "--source-netid", kPanel});
    EXPECT_EQ(r.exitCode, 5) << r.out << r.err;
    EXPECT_EQ(r.err,
        "adshost: no AMS Net ID 192.168.1.101.1.1 behind " + plc
            + " (ADS error 0x7: target machine not found): check the PLC's AMS Net ID\n");
}

TEST_F(ProbeAgainstPlcsim, StoppedPlcGivesTheStopLine)
{
    startPlc();
    ASSERT_EQ(sim.command("state stop"), "ok");
    const RunResult r = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--source-netid", kPanel});
    EXPECT_EQ(r.exitCode, 7) << r.out << r.err;
    EXPECT_EQ(r.err, "adshost: the PLC is in STOP (ADS state 6)\n");
    EXPECT_TRUE(hasLine(r.out, "device: \"Plc30 App\", version 3.1.4024")) << r.out;
}

TEST_F(ProbeAgainstPlcsim, AdsErrorResultGivesCodeAndMeaning)
{
    startPlc();
    ASSERT_EQ(sim.command("fault-code 0x710"), "ok");
    ASSERT_EQ(sim.command("fault adserror 1"), "ok");
    const RunResult r = runAdshost({"--probe", "--plc", plc, "--netid", kPlcNetId, "--source-netid", kPanel});
    EXPECT_EQ(r.exitCode, 6) << r.out << r.err;
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
    const RunResult r
        = runAdshost({"--probe", "--plc", "127.0.0.1:" + port, "--netid", kPlcNetId, "--source-netid", kPanel});
    ::close(s);
    EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
    EXPECT_EQ(r.err,
        "adshost: connection refused by 127.0.0.1:" + port
            + ": nothing listens there; the ADS/AMS router port is usually 48898\n");
}

TEST(ProbeCommandLine, MissingNetIdIsAUsageError)
{
    const RunResult r = runAdshost({"--probe", "--plc", "127.0.0.1:48898"});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(r.err, "adshost: --netid: --probe needs the PLC's AMS Net ID A.B.C.D.E.F (see adshost --help)\n");
}

TEST(ProbeCommandLine, ProbeNeedsNoDriver)
{
    const RunResult r = runAdshost({"--probe", "--help"});
    EXPECT_EQ(r.exitCode, 0);
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
            const RunResult r = runAdshost(args);
            EXPECT_EQ(r.exitCode, 2) << (probe ? "probe " : "driver ") << c.args[0];
            EXPECT_EQ(r.err, c.err) << (probe ? "probe " : "driver ") << c.args[0];
        }
    }
    // A port of the PLC address: the same rule in both modes.
    for (bool probe : {true, false}) {
        std::vector<std::string> args = {"--plc", "127.0.0.1:70000", "--netid", kPlcNetId, "--watch", "M_W:0"};
        if (probe)
            args = {"--probe", "--plc", "127.0.0.1:70000", "--netid", kPlcNetId};
        const RunResult r = runAdshost(args);
        EXPECT_EQ(r.exitCode, 2);
        EXPECT_EQ(r.err.rfind("adshost: --plc: needs HOST:PORT: ", 0), 0u) << r.err;
    }
}

TEST(ProbeCommandLine, DriverOptionsAreRefusedWithProbe)
{
    const RunResult r = runAdshost({"--probe", "--plc", "127.0.0.1:48898", "--netid", kPlcNetId, "--watch", "M_W:0"});
    EXPECT_EQ(r.exitCode, 2);
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
