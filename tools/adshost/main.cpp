// adshost: drives an ads_ethernet driver plugin against a PLC as a panel runtime does, or
// (--probe) checks the path to a PLC with frames of its own.
#include "adshost.h"
#include "args.h"
#include "discover_cli.h"
#include "probe.h"
#include "report.h"
#include "text_util.h"

#include "adstool/cli.h"
#include "adstool/hostport.h"
#include "adstool/netid.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#ifndef ADSHOST_VERSION
#define ADSHOST_VERSION "0.0.0.0"
#endif

namespace {

using namespace adshost::probe;  // the exit codes

volatile sig_atomic_t g_signal = 0;

extern "C" void onSignal(int sig) { g_signal = sig; }

void installSignals()
{
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: a waiting recv() returns at once
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);
}

using adshost::report::Out;
using adshost::util::jsonEscape;

std::string signalName(int sig) { return sig == SIGINT ? "SIGINT" : sig == SIGTERM ? "SIGTERM" : "a signal"; }

// With --json the last line is always {"type":"exit",...}, whatever ended the program (usage
// errors included); main() prints it from what the run left here.
struct ExitNote {
    bool json = false;  // --json anywhere on the command line, seen before parsing
    bool printed = false;
    std::string reason;
} g_exit;

int finish(int status, const std::string& reason)
{
    g_exit.reason = reason;
    return status;
}

int usage(const std::string& why) { return finish(adstool::cli::usageError("adshost", why), why); }

// --version: adshost's and the driver's. Without a driver it can load, it is no success: it
// names what it tried.
int printVersions(const std::string& driverPath)
{
    std::printf("adshost %s\n", ADSHOST_VERSION);
    const std::string path = driverPath.empty() ? adshost::args::defaultDriver() : driverPath;
    if (path.empty()) {
        std::printf("driver: %s\n", adshost::args::driverNotFoundText().c_str());
        return finish(ExitNoConnection, adshost::args::driverNotFoundText());
    }
    std::string why;
    const std::string v = adshost::Session::pluginVersion(path, why);
    if (v.empty()) {
        std::printf("driver %s: %s\n", path.c_str(), why.c_str());
        return finish(ExitNoConnection, why);
    }
    std::printf("driver %s %s\n", path.c_str(), v.c_str());
    return finish(ExitOk, "versions printed");
}

// What the thread of the actions leaves for the report.
struct ActionsState {
    std::atomic<bool> stopping {false}, handedOver {false}, over {false};
    adshost::report::RecipeReadBack recipe;
};

// Writes and recipe transfers come from a second thread, as a panel's screens do; each
// waits for the PLC's answer to the one before.
class ActionRunner {
public:
    ActionRunner(adshost::Session& session, const adshost::Config& cfg, int64_t deadline, ActionsState& state)
        : session_(session), cfg_(cfg), deadline_(deadline), state_(state)
    {
    }

    void run()
    {
        struct Over {
            std::atomic<bool>& flag;
            ~Over() { flag = true; }
        } over {state_.over};
        // The screen first: after the handshake, once every block has been read.
        if (!waitUntil([&] {
                return session_.handshakeDone() && (session_.blocks() == 0 || session_.fullRefreshes() >= 1);
            }))
            return;  // never handed over: reported as not finished
        std::vector<int> ids;
        for (const adshost::Write& w : session_.writes())
            ids.push_back(session_.write(w));
        state_.handedOver = true;
        for (int id : ids)
            if (!waitUntil([&] { return settled(id); }))
                return;
        recipe();
    }

private:
    bool waitUntil(const std::function<bool()>& ready)
    {
        while (!state_.stopping && adshost::nowMs() < deadline_) {
            if (ready())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }

    bool settled(int id) { return session_.action(id).state != adshost::Action::Pending; }

    // A download of the values given, then a read-back of every variable.
    void recipe()
    {
        bool anyValues = false;
        for (const adshost::RecipeVar& r : cfg_.recipe)
            anyValues = anyValues || !r.values.empty();
        if (anyValues) {
            const int id = session_.requestRecipeWrite();
            if (!waitUntil([&] { return settled(id); }))
                return;
            if (session_.action(id).state != adshost::Action::Done) {
                state_.recipe.skipped = true;
                return;
            }
            // Clear the buffer so that the read-back shows what the PLC holds.
            for (const adshost::RecipeVar& r : cfg_.recipe)
                for (int k = 0; k < r.addr.count; ++k)
                    session_.setRecipeWord(r.rcpDataIndex + k, 0);
        }
        if (!cfg_.recipe.empty()) {
            const int id = session_.requestRecipeRead();
            if (!waitUntil([&] { return settled(id); }))
                return;
            adshost::report::recipeReadBack(session_, cfg_, anyValues, state_.recipe);
        }
    }

    adshost::Session& session_;
    const adshost::Config& cfg_;
    const int64_t deadline_;
    ActionsState& state_;
};

// The polling loop of driver mode: one request and its reply per step, until the limit is
// reached and the actions are settled, a signal, or the session gives up.
class PollLoop {
public:
    PollLoop(adshost::Session& session, const adshost::args::DriverRun& run, Out& out, ActionsState& actions,
        int64_t t0, int64_t actionDeadline)
        : session_(session), run_(run), out_(out), actions_(actions), actionDeadline_(actionDeadline),
          deadline_(run.durationS > 0 ? t0 + int64_t(run.durationS * 1000.0) : 0)
    {
    }

    void run(bool live)
    {
        for (;;) {
            if (g_signal) {
                stopReason = "stopped by " + signalName(g_signal);
                break;
            }
            if (limitReached()) {
                const bool allSettled = !run_.anyActions || (actions_.over && session_.actionsSettled());
                if (allSettled || adshost::nowMs() >= actionDeadline_)
                    break;
            }
            const adshost::Exchange& ex = session_.step();
            if (session_.failedForGood())
                break;
            note(ex);
            if (session_.fatal().kind != adshost::Fatal::None)
                break;
            session_.takeChanges();
            if (live && adshost::nowMs() - lastDraw_ >= 200) {
                lastDraw_ = adshost::nowMs();
                std::fputs(adshost::report::screen(session_, run_.cfg).c_str(), stdout);
                std::fflush(stdout);
            }
            pauseAfterRefresh();
        }
    }

    uint64_t errorsTotal = 0;
    uint64_t errorsPrinted = 0;  // communication errors among the lines shown
    bool adsErrorSeen = false;
    std::string stopReason;

private:
    // --cycles counts whole screen refreshes (every read block once); without a screen there
    // is nothing to count and the actions alone bound the session.
    // A refresh whose reads the driver gave up counts as well (any request given up stands
    // for one block), so that a PLC that refuses every read, or is silent, cannot hold the
    // session forever.
    uint64_t refreshes() const
    {
        const uint64_t blocks = uint64_t(session_.blocks());
        return blocks > 0 ? std::max<uint64_t>(session_.fullRefreshes(), cyclicReadsConcluded_ / blocks) : ~0ULL;
    }

    bool limitReached() const
    {
        return (run_.cycles > 0 && refreshes() >= run_.cycles) || (deadline_ > 0 && adshost::nowMs() >= deadline_)
            || !run_.haveLimit;
    }

    // The errors of one exchange, each distinct line once, ten at most.
    void note(const adshost::Exchange& ex)
    {
        if ((ex.cyclicRead && ex.result == 1) || ex.result == 2)
            ++cyclicReadsConcluded_;
        if (ex.result == 2) {
            ++errorsTotal;
            const std::string text = session_.explain(ex);
            adsErrorSeen = adsErrorSeen || (ex.codes.hasResult && ex.codes.adsResult != 0);
            if (errorsShown_.size() < 10 && errorsShown_.insert(text).second) {
                out_.error("communication error " + text, "communication");
                ++errorsPrinted;
            }
        }
        // A reply the driver accepted though it carries an error code (the handshake's answer
        // has a minimum length only); writes are reported with their action.
        if (ex.result == 1 && ex.codes.anyError() && ex.purpose != 'W' && ex.purpose != 'w') {
            const std::string text = "reply with an error code " + session_.explain(ex) + " (the driver accepted it)";
            if (errorsShown_.size() < 10 && errorsShown_.insert(text).second)
                out_.error(text, "accepted error");
        }
    }

    // --interval-ms: the pause after each whole refresh of the screen, as a panel waits
    // between screen updates; actions still pending go on without a pause.
    void pauseAfterRefresh()
    {
        const uint64_t refreshed = session_.fullRefreshes();
        if (run_.intervalMs > 0 && refreshed > refreshesPaused_ && session_.actionsSettled()
            && !(run_.cycles > 0 && refreshed >= run_.cycles)) {
            refreshesPaused_ = refreshed;
            const int64_t until = adshost::nowMs() + int64_t(run_.intervalMs);
            for (int64_t now = adshost::nowMs(); now < until && !g_signal && !(deadline_ > 0 && now >= deadline_);
                 now = adshost::nowMs())
                std::this_thread::sleep_for(std::chrono::milliseconds(std::min<int64_t>(20, until - now)));
        }
    }

    adshost::Session& session_;
    const adshost::args::DriverRun& run_;
    Out& out_;
    ActionsState& actions_;
    const int64_t actionDeadline_;
    const int64_t deadline_;
    uint64_t cyclicReadsConcluded_ = 0;
    uint64_t refreshesPaused_ = 0;  // the refresh after which the last pause was made
    int64_t lastDraw_ = 0;
    std::set<std::string> errorsShown_;
};

// Opens the session and connects; 0, or the exit status after the message.
int openSession(adshost::Session& session, adshost::Config& cfg, Out& out, int& noticesLeft)
{
    // Reconnecting takes seconds: say so while it happens (the first lines only).
    cfg.notice = [&out, &noticesLeft](const std::string& text) {
        if (noticesLeft-- > 0)
            out.error(text, "connection");
    };
    std::string why;
    if (!session.open(cfg, why)) {
        if (session.openFailedOnAddress())
            return usage(why);
        out.error(why, "start");
        return finish(ExitNoConnection, why);
    }
    out.line("driver " + cfg.driverPath + " " + session.driverVersion(),
        "{\"type\":\"driver\",\"path\":" + jsonEscape(cfg.driverPath)
            + ",\"version\":" + jsonEscape(session.driverVersion()) + "}");
    adshost::report::sourceNetId(out, session, cfg.netId);
    if (!session.connect(why)) {
        out.error(why, "start");
        return finish(ExitNoConnection, why);
    }
    return 0;
}

// Driver mode: the session polled until its limit, then the values, actions, figures and
// the exit status.
int runDriver(adshost::args::DriverRun& run, const adshost::args::Args& a)
{
    Out out;
    out.json = a.json;
    out.quiet = a.quiet;
    installSignals();
    int noticesLeft = 10;
    adshost::Session session;
    if (const int rc = openSession(session, run.cfg, out, noticesLeft))
        return rc;

    const bool live = !a.quiet && !a.json && ::isatty(1);
    const int64_t t0 = adshost::nowMs();
    const int64_t actionDeadline = t0 + int64_t(run.actionTimeoutS * 1000.0);
    ActionsState actionsState;
    ActionRunner runner(session, run.cfg, actionDeadline, actionsState);
    std::thread actions([&runner] { runner.run(); });
    PollLoop loop(session, run, out, actionsState, t0, actionDeadline);
    loop.run(live);
    actionsState.stopping = true;
    actions.join();
    const adshost::Stats stats = session.stats();
    session.disconnect();  // the capture ends on a whole packet

    if (live)
        std::fputs("\033[H\033[2J", stdout);
    const adshost::report::ValuesSeen values = adshost::report::values(out, session, a.quiet, a.json);
    const adshost::Fatal fatal = session.fatal();
    const std::string notFinishedWhy = !loop.stopReason.empty() ? loop.stopReason
        : fatal.kind != adshost::Fatal::None                    ? "the session stopped: " + fatal.message
        : session.failedForGood()                               ? "the connection was lost"
                                                                : "no confirmation from the PLC within --action-timeout";
    const adshost::report::ActionsSeen acts = adshost::report::actions(
        out, session, run.cfg, actionsState.handedOver, actionsState.recipe, notFinishedWhy);

    if (loop.errorsTotal > loop.errorsPrinted && !a.json)
        std::fprintf(stderr, "adshost: %llu communication errors in all\n", (unsigned long long)loop.errorsTotal);
    if (!loop.stopReason.empty())
        out.error(loop.stopReason, "signal");
    if (session.captureLimitReached())
        out.error("capture ended at the --pcap-limit of " + adshost::report::realText(a.pcapLimitMb) + " MB after "
                + std::to_string(session.capturePackets()) + " packets: " + run.cfg.pcapPath,
            "capture");
    out.line(stats.figuresLine(), adshost::report::figuresJson(stats));
    std::string reason;
    const int status = adshost::report::exitStatus(out, session, stats, acts, values, loop.adsErrorSeen, reason);
    return finish(status, reason);
}

}  // namespace

int adshostMain(int argc, char** argv)
{
    CLI::App app(adshost::args::description(), "adshost");
    adstool::cli::prepare(app);
    adshost::args::Args a;
    adshost::args::define(app, a);
    const int parsed = adstool::cli::parse(app, argc, argv, "adshost");
    if (parsed >= 0)
        return finish(parsed, parsed == 0 ? "help printed" : "usage error (the reason is on standard error)");
    if (a.version)
        return printVersions(a.driverPath);
    const int commissioned
        = adshost::discover::runCli(app, a.commissioning, {a.plcText, a.netIdText, a.timeoutMs, a.json});
    if (commissioned >= 0) {
        g_exit.printed = true;  // --discover and --add-route print their own exit object
        return commissioned;
    }
    if (a.plcText.empty())
        return usage("--plc: needs HOST:PORT (the PLC's address and AMS/TCP port, usually 48898)");
    adstool::HostPort plc;
    std::string why;
    if (!adstool::parseHostPort(a.plcText, plc, adstool::PortRule::NonZero, &why))
        return usage("--plc: needs HOST:PORT: " + why);

    if (a.probeMode) {
        Options opt;
        if (!adshost::args::probeRun(a, app, plc, opt, why))
            return usage(why);
        installSignals();  // also where SIGINT was ignored (a background job)
        opt.interrupted = &g_signal;
        return adshost::probe::run(opt, stdout, stderr);
    }
    adshost::args::DriverRun driver;
    if (!adshost::args::driverRun(a, app, plc, driver, why))
        return usage(why);
    return runDriver(driver, a);
}

int main(int argc, char** argv)
{
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i)
        g_exit.json = g_exit.json || std::strcmp(argv[i], "--json") == 0;
    const int status = adshostMain(argc, argv);
    if (g_exit.json && !g_exit.printed)
        std::printf("{\"type\":\"exit\",\"status\":%d,\"reason\":%s}\n", status, jsonEscape(g_exit.reason).c_str());
    std::fflush(stdout);
    return status;
}
