#include "adstool/cli.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct CliRun {
    int rc = 0;
    std::string err, out;
};

// A small tool: --netid, --listen, --seed N (0..1000), --prob P (0..1), --route (repeatable).
struct Tool {
    std::string netid = "1.2.3.4.1.1", listen;
    unsigned long long seed = 1;
    double prob = 0;
    std::vector<std::string> routes;

    CliRun run(std::vector<std::string> args)
    {
        CLI::App app("tool");
        adstool::cli::prepare(app);
        app.add_option("--netid", netid)->check(adstool::cli::NetIdText());
        app.add_option("--listen", listen)->check(adstool::cli::HostPortText(adstool::PortRule::AnyPort));
        app.add_option("--seed", seed)->check(adstool::cli::Number(0, 1000));
        app.add_option("--prob", prob)->check(adstool::cli::Real(0, 1, "a probability"));
        app.add_option("--route", routes)->check(adstool::cli::NetIdText());
        args.insert(args.begin(), "tool");
        std::vector<const char*> argv;
        for (const std::string& a : args)
            argv.push_back(a.c_str());
        CliRun r;
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        r.rc = adstool::cli::parse(app, int(argv.size()), argv.data(), "tool", "the help text\n");
        r.out = testing::internal::GetCapturedStdout();
        r.err = testing::internal::GetCapturedStderr();
        return r;
    }
};

}  // namespace

TEST(Cli, TakesValidValues)
{
    Tool t;
    const CliRun r = t.run({"--netid", "10.0.0.1.1.1", "--listen", "127.0.0.1:0", "--seed", "0x10", "--prob", "0.5",
        "--route", "1.1.1.1.1.1", "--route", "2.2.2.2.1.1"});
    EXPECT_EQ(r.rc, -1) << r.err;
    EXPECT_EQ(t.netid, "10.0.0.1.1.1");
    EXPECT_EQ(t.listen, "127.0.0.1:0");
    EXPECT_EQ(t.seed, 16u);
    EXPECT_DOUBLE_EQ(t.prob, 0.5);
    EXPECT_EQ(t.routes, (std::vector<std::string> {"1.1.1.1.1.1", "2.2.2.2.1.1"}));
}

TEST(Cli, TheLaterOfTwoValuesWins)
{
    Tool t;
    EXPECT_EQ(t.run({"--seed", "5", "--seed", "9"}).rc, -1);
    EXPECT_EQ(t.seed, 9u);
}

TEST(Cli, AnErrorIsOneLineNamingTheOptionAndTheRule)
{
    struct Case {
        std::vector<std::string> args;
        std::string option, rule;
    };
    const Case cases[] = {
        {{"--netid", "1.2.3.4.5.300"}, "--netid", "300, above 255"},
        {{"--route", "1.2.3"}, "--route", "A.B.C.D.E.F"},
        {{"--listen", "127.0.0.1:70000"}, "--listen", "0 to 65535"},
        {{"--seed", "1001"}, "--seed", "from 0 to 1000"},
        {{"--seed", "x"}, "--seed", "from 0 to 1000"},
        {{"--prob", "2"}, "--prob", "a probability from 0 to 1"},
        {{"--seed"}, "--seed", ""},
        {{"--bogus"}, "--bogus", ""},
    };
    for (const Case& c : cases) {
        Tool t;
        const CliRun r = t.run(c.args);
        EXPECT_EQ(r.rc, 2) << c.option;
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;  // exactly one line
        EXPECT_EQ(r.err.compare(0, 6, "tool: "), 0) << r.err;
        EXPECT_NE(r.err.find(c.option), std::string::npos) << r.err;
        EXPECT_NE(r.err.find(c.rule), std::string::npos) << r.err;
    }
}

TEST(Cli, HelpPrintsTheGivenText)
{
    Tool t;
    const CliRun r = t.run({"--help"});
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.out, "the help text\n");
    EXPECT_EQ(adstool::cli::usageError("tool", "--x is required"), 2);
}
