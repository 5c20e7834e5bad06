// The adshost program against the plcsim executable.
#include "e2e_support.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace {

using e2e::figures;

const unsigned M = 0x4020;

class ProgramE2E : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(sim.start({"--no-program"})); }
    void TearDown() override { EXPECT_EQ(sim.stop(), 0); }
    std::vector<std::string> base()
    {
        return {ADSHOST_EXE, "--driver", ADS_PLUGIN, "--plc", "127.0.0.1:" + std::to_string(sim.port()), "--netid",
            "192.168.1.100.1.1", "--ams-port", "851"};
    }
    adstest::PlcsimProcess sim;
};

TEST_F(ProgramE2E, RunsTheGivenCyclesAndPrintsItsFigures)
{
    ASSERT_TRUE(sim.set(M, 0, {0x34, 0x12, 0x00, 0x00}));
    ASSERT_TRUE(sim.set(M, 2, {0x01}));
    std::vector<std::string> args = base();
    for (const char* a : {"--watch", "M_W:0:2", "--watch", "M_bit:2.0", "--cycles", "40", "--interval-ms", "0"})
        args.push_back(a);
    const e2e::RunResult r = e2e::runProgram(args, 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out.find('\033'), std::string::npos);  // nothing live when stdout is a file
    std::map<std::string, std::string> f = figures(r.out);
    ASSERT_FALSE(f.empty()) << r.out;
    EXPECT_EQ(f["requests"], "41");  // the handshake, then one block per refresh
    EXPECT_EQ(f["result1"], "41");
    EXPECT_EQ(f["result8"], "0");
    EXPECT_EQ(f["result2"], "0");
    EXPECT_EQ(f["blocks_per_refresh"], "1");  // bytes 0..3 and byte 2 make one block
    EXPECT_EQ(f["refreshes"], "40");          // --cycles counts whole refreshes
    EXPECT_NE(r.out.find("value M_W:0:2 = 0x1234 0x0001\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("value M_bit:2.0 = 1\n"), std::string::npos) << r.out;
    EXPECT_EQ(sim.counter("read"), 40);
}

TEST_F(ProgramE2E, WritesAndRecipeOfARunLandInTheSimulator)
{
    ASSERT_TRUE(sim.set(M, 20, {0xF0}));
    std::vector<std::string> args = base();
    for (const char* a : {"--watch", "M_W:0:2", "--write", "M_W:10=0x1234", "--write", "M_bit:20.3=1", "--recipe",
             "M_W:200:2=0x1111,0x2222", "--duration", "1", "--quiet"})
        args.push_back(a);
    const e2e::RunResult r = e2e::runProgram(args, 20000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(sim.get(M, 10, 2), (std::vector<uint8_t> {0x34, 0x12}));
    EXPECT_EQ(sim.get(M, 20, 1), (std::vector<uint8_t> {0xF8}));
    EXPECT_EQ(sim.get(M, 200, 4), (std::vector<uint8_t> {0x11, 0x11, 0x22, 0x22}));
    EXPECT_NE(r.out.find("recipe read: done M_W:200:2=0x1111,0x2222 (matches the download)"), std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.find("value "), std::string::npos);  // --quiet leaves the values out
    std::map<std::string, std::string> f = figures(r.out);
    EXPECT_EQ(f["result2"], "0");
    EXPECT_GE(std::stol(f["refreshes"]), 5);  // polling went on: about 10 a second with the default pause
}

TEST_F(ProgramE2E, MissingPluginFailsWithOneLine)
{
    std::vector<std::string> args = base();
    args[2] = "/nonexistent/libads_ethernet.so";
    for (const char* a : {"--watch", "M_W:0", "--cycles", "3"})
        args.push_back(a);
    const e2e::RunResult r = e2e::runProgram(args, 10000);
    EXPECT_EQ(r.exitCode, 1);
    ASSERT_EQ(e2e::lines(r.err).size(), 1u) << r.err;
    EXPECT_NE(r.err.find("cannot load driver /nonexistent/libads_ethernet.so"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
}

TEST_F(ProgramE2E, PluginWithoutEntryPointsFailsWithOneLine)
{
    std::vector<std::string> args = base();
    args[2] = INCOMPLETE_PLUGIN;
    for (const char* a : {"--watch", "M_W:0", "--cycles", "3"})
        args.push_back(a);
    const e2e::RunResult r = e2e::runProgram(args, 10000);
    EXPECT_EQ(r.exitCode, 1);
    ASSERT_EQ(e2e::lines(r.err).size(), 1u) << r.err;
    EXPECT_NE(r.err.find("lacks entry points: intf_setAddrValueChangeCallBack"), std::string::npos) << r.err;
}

TEST_F(ProgramE2E, RefusedConnectionFailsWithOneLine)
{
    const uint16_t port = e2e::closedPort();
    std::vector<std::string> args = {ADSHOST_EXE, "--driver", ADS_PLUGIN, "--plc", "127.0.0.1:" + std::to_string(port),
        "--watch", "M_W:0", "--cycles", "3"};
    const e2e::RunResult r = e2e::runProgram(args, 10000);
    EXPECT_EQ(r.exitCode, 1);
    ASSERT_EQ(e2e::lines(r.err).size(), 1u) << r.err;
    EXPECT_EQ(r.err, "adshost: cannot connect to 127.0.0.1:" + std::to_string(port) + ": Connection refused\n");
}

TEST_F(ProgramE2E, AddressTheDriverRejectsFailsWithOneLine)
{
    std::vector<std::string> args = base();
    for (const char* a : {"--watch", "M_W:0", "--watch", "I_W:65535", "--cycles", "3"})
        args.push_back(a);
    const e2e::RunResult r = e2e::runProgram(args, 10000);
    EXPECT_EQ(r.exitCode, 2);  // a bad argument: a usage error
    EXPECT_EQ(r.err,
        "adshost: --watch I_W:65535: the address lies below the register's first address, or its last item "
        "beyond the last (I_W addresses run from 0 to 65535, a byte offset; COUNT is in words); the driver's "
        "check result 2 (see adshost --help)\n");
    EXPECT_EQ(sim.counter("connections"), 0);  // checked before connecting
}

// No answer at all since the connection was made: the handshake is given up once, the host
// says why (the route for the panel's Net ID) and stops with status 4 instead of polling on.
TEST_F(ProgramE2E, HandshakeThatIsNeverAnsweredStopsWithTheRouteLine)
{
    ASSERT_TRUE(sim.command("fault-prob noreply 1") == "ok");
    std::vector<std::string> args = base();
    for (const char* a : {"--watch", "M_W:100:3", "--cycles", "400", "--timeout-ms", "50", "--retries", "2"})
        args.push_back(a);
    const e2e::RunResult r = e2e::runProgram(args, 10000);
    EXPECT_EQ(r.exitCode, 4) << r.out << r.err;
    const std::vector<std::string> err = e2e::lines(r.err);
    ASSERT_EQ(err.size(), 2u) << r.err;
    EXPECT_EQ(err[0].rfind("adshost: communication error (handshake): connected, but no answer: the PLC most likely "
                           "has no route for this panel's AMS Net ID ",
                  0),
        0u)
        << r.err;
    EXPECT_EQ(err[1].rfind("adshost: stopped: connected, but no answer", 0), 0u) << r.err;
    EXPECT_NE(r.out.find("value M_W:100:3 = never read\n"), std::string::npos) << r.out;
    std::map<std::string, std::string> f = figures(r.out);
    EXPECT_EQ(f["result8"], "1");
    EXPECT_EQ(f["result2"], "1");
    EXPECT_EQ(f["requests"], "2");  // not 400: the session stopped
}

TEST(ProgramE2EUsage, HelpFitsEightyColumnsAndVersionIsPrinted)
{
    const e2e::RunResult h = e2e::runProgram({ADSHOST_EXE, "--help"}, 5000);
    EXPECT_EQ(h.exitCode, 0);
    ASSERT_GT(e2e::lines(h.out).size(), 10u);
    for (const std::string& l : e2e::lines(h.out))
        EXPECT_LE(l.size(), 80u) << l;
    EXPECT_NE(h.out.find("--driver PATH"), std::string::npos);
    for (const char* code : {"  0  ", "  1  ", "  2  ", "  3  ", "  4  ", "  5  ", "  6  ", "  7  ", "  8  ", "  9  "})
        EXPECT_NE(h.out.find(std::string("\n") + code), std::string::npos) << code;
    const e2e::RunResult v = e2e::runProgram({ADSHOST_EXE, "--version"}, 5000);
    EXPECT_EQ(v.exitCode, 0);
    EXPECT_EQ(e2e::lines(v.out).at(0), "adshost " ADSHOST_VERSION);
    // With a plugin, the driver's own version too (intf_getVersion).
    const e2e::RunResult dv = e2e::runProgram({ADSHOST_EXE, "--version", "--driver", ADS_PLUGIN}, 5000);
    EXPECT_EQ(dv.exitCode, 0);
    EXPECT_EQ(dv.out, "adshost " ADSHOST_VERSION "\ndriver " ADS_PLUGIN " " ADSHOST_VERSION "\n");
}

TEST(ProgramE2EUsage, MalformedArgumentsAreUsageErrors)
{
    const e2e::RunResult a = e2e::runProgram(
        {ADSHOST_EXE, "--driver", ADS_PLUGIN, "--plc", "127.0.0.1:1", "--watch", "M_bit:10", "--cycles", "1"}, 5000);
    EXPECT_EQ(a.exitCode, 2);
    EXPECT_EQ(e2e::lines(a.err).size(), 1u);
    EXPECT_NE(a.err.find("--watch M_bit:10: the address text does not fit the register's syntax"), std::string::npos)
        << a.err;
    const e2e::RunResult b
        = e2e::runProgram({ADSHOST_EXE, "--driver", ADS_PLUGIN, "--plc", "127.0.0.1:1", "--watch", "M_W:0"}, 5000);
    EXPECT_EQ(b.exitCode, 2);
    EXPECT_NE(b.err.find("--cycles or --duration"), std::string::npos) << b.err;
}

}  // namespace
