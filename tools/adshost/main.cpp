// adshost: drives an ads_ethernet driver plugin against a PLC as a panel runtime does, or
// (--probe) checks the path to a PLC with frames of its own.
#include "adshost.h"
#include "discover_cli.h"
#include "probe.h"
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
#ifndef ADSHOST_LIBDIR
#define ADSHOST_LIBDIR "lib"
#endif
#ifndef ADSHOST_DEFAULT_DRIVER
#define ADSHOST_DEFAULT_DRIVER "/usr/lib/libads_ethernet.so"
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

const char* const kDescription = "adshost: the reference host of the ads_ethernet driver and a commissioning tool.\n"
                                 "Driver mode loads the driver plugin and polls a PLC through it as a panel\n"
                                 "runtime does:\n"
                                 "  adshost --driver PATH --plc HOST:PORT --netid NETID --watch REG:ADDR[:COUNT]\n"
                                 "          (--cycles N | --duration SECONDS) [--write ...] [options]\n"
                                 "Probe mode sends its own ReadDeviceInfo and ReadState (no driver needed):\n"
                                 "  adshost --probe --plc HOST:PORT --netid NETID [--ams-port N]\n"
                                 "Addresses: I_bit, Q_bit, M_bit take BYTE.BIT (10.3; 10.9 is 11.1), I_W, Q_W,\n"
                                 "M_W a byte offset; COUNT is bits or 16-bit words. The driver checks them.";

// The pause after each whole screen refresh: about what a panel's screen update waits, and
// far from the flood of back-to-back requests a real PLC would have to serve.
constexpr unsigned long long kDefaultIntervalMs = 100;

// Each example runs as printed against `plcsim --listen 127.0.0.1:48898 --no-program`; the
// "# exit N" is its status (the docs.examples test runs them with plcsim's free port).
const char* const kExamples = "Examples (against plcsim --listen 127.0.0.1:48898 --no-program):\n"
                              "  adshost --probe --plc 127.0.0.1:48898 --netid 192.168.1.100.1.1  # exit 0\n"
                              "  adshost --plc 127.0.0.1:48898 --watch M_W:0:4 --cycles 5  # exit 0\n"
                              "  adshost --plc 127.0.0.1:48898 --write M_W:10=010  # exit 0\n"
                              "  adshost --plc 127.0.0.1:48898 --json --watch I_W:0 --duration 0.5  # exit 0\n"
                              "  adshost --plc 127.0.0.1:48898 --watch M_W:0 --ams-port 852 --cycles 1 # exit 5\n";

const char* const kExitCodes = "Exit status:\n"
                               "  0  the session ran and every action asked for (--write, --recipe,\n"
                               "     --condition) was confirmed by the PLC; --probe: the PLC answers in RUN;\n"
                               "     --discover: a device answered; --add-route: the route was accepted\n"
                               "  1  could not start: driver plugin or entry point missing, capture file not\n"
                               "     writable, no TCP connection; --version: no driver it could load\n"
                               "  2  usage error: a bad option, an address the driver refuses, or a request\n"
                               "     the driver would carry out wrong (a --condition or bit --write longer\n"
                               "     than one piece, a --condition of a bit register)\n"
                               "  3  the connection was lost and could not be made again\n"
                               "  4  connected, but the PLC never answered (or closed the connection without\n"
                               "     answering): no route for this panel's Net ID, however short the\n"
                               "     session; --discover, --add-route: no device answered in time\n"
                               "  5  AMS error in a reply: no such AMS Net ID (0x7, check --netid) or AMS\n"
                               "     port (0x6, check --ams-port)\n"
                               "  6  the PLC refused an action or a probe request with an ADS error, or a\n"
                               "     watched address was never read or is stale while the PLC answered\n"
                               "     with ADS errors; --add-route: the device refused the route (0x704:\n"
                               "     user name or password refused)\n"
                               "  7  --probe: the PLC answers but is not in RUN\n"
                               "  8  a reply that is not a well-formed answer (--probe, --add-route; driver\n"
                               "     mode: no AMS/TCP frame at all, is it an AMS/TCP port?)\n"
                               "  9  an action did not finish within --action-timeout or was given up\n"
                               "     without an error code, or a watched address was never read (the\n"
                               "     session ended first, or its reads timed out or came back short), or\n"
                               "     a watched value is stale (reading it failed after it was last read);\n"
                               "     --probe: stopped by a signal before the answer came\n"
                               "SIGINT and SIGTERM end a session cleanly: values, actions and figures are\n"
                               "printed and the capture ends on a whole packet; the status is as above.\n"
                               "With --json every value, action, error and the figures are one JSON object\n"
                               "per line on standard output, the last one {\"type\":\"exit\",...} always.";

using adshost::util::jsonEscape;

std::string hex16(unsigned v)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%04X", v & 0xFFFF);
    return buf;
}

std::string valuesText(const adshost::Address& a, const std::vector<uint8_t>& v)
{
    std::string out;
    if (a.isBit()) {
        for (size_t i = 0; i < v.size(); ++i)
            out += (i ? " " : "") + std::to_string(v[i] ? 1 : 0);
    } else {
        for (size_t i = 0; i + 1 < v.size(); i += 2)
            out += (i ? " " : "") + hex16(unsigned(v[i] | v[i + 1] << 8));
    }
    return out;
}

std::string valuesJson(const adshost::Address& a, const std::vector<uint8_t>& v)
{
    std::string out = "[";
    if (a.isBit()) {
        for (size_t i = 0; i < v.size(); ++i)
            out += (i ? "," : "") + std::to_string(v[i] ? 1 : 0);
    } else {
        for (size_t i = 0; i + 1 < v.size(); i += 2)
            out += (i ? "," : "") + std::to_string(unsigned(v[i] | v[i + 1] << 8));
    }
    return out + "]";
}

std::string figuresJson(const adshost::Stats& s)
{
    // No reply, no round trip: null, not 0.
    char rtt[128] = "\"rtt_ms_min\":null,\"rtt_ms_median\":null,\"rtt_ms_max\":null";
    if (s.rttSamples > 0)
        std::snprintf(rtt, sizeof rtt, "\"rtt_ms_min\":%.3f,\"rtt_ms_median\":%.3f,\"rtt_ms_max\":%.3f", s.rttMinMs,
            s.rttMedianMs, s.rttMaxMs);
    char buf[768];
    std::snprintf(buf, sizeof buf,
        "{\"type\":\"figures\",\"requests\":%llu,\"result1\":%llu,\"result8\":%llu,\"result2\":%llu,"
        "\"result3\":%llu,\"result0\":%llu,\"timeouts\":%llu,\"reconnects\":%llu,\"failed_reconnects\":%llu,"
        "\"stale_bytes\":%llu,\"changes\":%llu,%s,\"refreshes\":%llu,"
        "\"refreshes_per_s\":%.1f,\"blocks_per_refresh\":%d,\"seconds\":%.3f}",
        (unsigned long long)s.requests, (unsigned long long)s.results[1], (unsigned long long)s.results[8],
        (unsigned long long)s.results[2], (unsigned long long)s.results[3], (unsigned long long)s.results[0],
        (unsigned long long)s.timeouts, (unsigned long long)s.reconnects, (unsigned long long)s.failedReconnects,
        (unsigned long long)s.staleBytes, (unsigned long long)s.changes, rtt, (unsigned long long)s.fullRefreshes,
        s.refreshesPerSecond(), s.blocksPerRefresh, s.seconds);
    return buf;
}

std::string realText(double v)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}

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

// Output: human-readable lines, or one JSON object per line (--json).
struct Out {
    bool json = false;
    bool quiet = false;
    void line(const std::string& text, const std::string& jsonObject)
    {
        if (json)
            std::printf("%s\n", jsonObject.c_str());
        else
            std::printf("%s\n", text.c_str());
        std::fflush(stdout);
    }
    // A diagnostic: always one text line on stderr; in JSON mode an "error" object too.
    void error(const std::string& text, const std::string& kind)
    {
        std::fprintf(stderr, "adshost: %s\n", text.c_str());
        std::fflush(stderr);
        if (json) {
            std::printf("{\"type\":\"error\",\"kind\":%s,\"message\":%s}\n", jsonEscape(kind).c_str(),
                jsonEscape(text).c_str());
            std::fflush(stdout);
        }
    }
};

// The panel's own AMS Net ID as the driver chose it (the PLC needs a route for it), with a
// warning when no IPv4 address of this machine matched the PLC's Net ID: the driver then
// sends as 0.0.0.0.1.1, for which no PLC has a route.
void reportSourceNetId(Out& out, const adshost::Session& session, const std::string& plcNetId)
{
    const std::vector<std::string> parts = adshost::util::split(plcNetId, '.');
    const std::string numbers = parts.size() >= 2 ? parts[0] + " and " + parts[1] : plcNetId;
    const std::string netId = session.sourceNetId();
    const std::string address = session.sourceAddress();
    const bool matched = !address.empty() && netId.rfind("0.0.0.0.", 0) != 0;
    std::string text = "source AMS Net ID " + netId;
    std::string json = "{\"type\":\"source\",\"netid\":" + jsonEscape(netId) + ",\"address\":"
        + (address.empty() ? std::string("null") : jsonEscape(address)) + ",\"matched\":" + (matched ? "true" : "false");
    if (matched) {
        text += " (this machine's address " + address + " contains " + numbers + ", the first two numbers of --netid)";
    } else {
        const std::string why = "no IPv4 address of this machine (loopback aside) contains " + numbers
            + ", the first two numbers of --netid " + plcNetId + ": the driver sends as " + netId
            + " and no PLC has a route for that; give the panel an address on the PLC's network";
        text = "warning: " + text + ": " + why;
        json += ",\"warning\":" + jsonEscape(why);
    }
    out.line(text, json + "}");
}

// The plugin installed beside this program (a package installs both under one prefix, which
// need not be the one the program was built for), else the build's install location.
// In a build tree (BUILD/tools/adshost/adshost) the plugin is BUILD/src/libads_ethernet.so.
std::vector<std::string> driverCandidates()
{
    std::vector<std::string> candidates;
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        std::string dir(self, size_t(n));
        dir = dir.substr(0, dir.rfind('/'));
        const std::string prefix = dir.substr(0, dir.rfind('/'));
        candidates.push_back(prefix + "/" ADSHOST_LIBDIR "/libads_ethernet.so");
        candidates.push_back(prefix + "/lib/libads_ethernet.so");
        candidates.push_back(prefix.substr(0, prefix.rfind('/')) + "/src/libads_ethernet.so");
    }
    candidates.push_back(ADSHOST_DEFAULT_DRIVER);
    return candidates;
}

std::string defaultDriver()
{
    for (const std::string& c : driverCandidates())
        if (::access(c.c_str(), R_OK) == 0)
            return c;
    return std::string();
}

std::string driverNotFoundText()
{
    std::string t = "no driver plugin found (looked for";
    for (const std::string& c : driverCandidates())
        t += " " + c;
    return t + "); give --driver PATH";
}

}  // namespace

int adshostMain(int argc, char** argv)
{
    const std::string prog = "adshost";
    CLI::App app(std::string(kDescription) + "\n" + adshost::discover::kCliDescription, "adshost");
    adstool::cli::prepare(app);
    app.set_help_flag("-h,--help", "print this help and exit");
    app.get_formatter()->column_width(26);
    app.footer(std::string(kExamples) + "\n" + kExitCodes);

    std::string driverPath, plcText, netIdText = "192.168.1.100.1.1", sourceNetIdText;
    unsigned long long amsPort = 851, cycles = 0, retries = 3, gap = 16, timeoutMs = 0, intervalMs = 0;
    double durationS = 0, actionTimeoutS = 10, pcapLimitMb = 100;
    std::vector<std::string> watchTexts, writeTexts, recipeTexts, conditionTexts;
    std::string pcapPath;
    bool pcapRaw = false, quiet = false, json = false, probeMode = false, version = false;

    // The rule of each option is in its description; CLI11 would add the validator's name
    // to the option's type.
    auto plain = [](CLI::Validator v) {
        v.description("");
        return v;
    };
    auto Number = [&](unsigned long long lo, unsigned long long hi, const std::string& what) {
        return plain(adstool::cli::Number(lo, hi, what));
    };
    auto Real = [&](double lo, double hi, const std::string& what) { return plain(adstool::cli::Real(lo, hi, what)); };
    app.add_flag("--probe", probeMode, "check the path to a PLC with frames of\nits own instead (no driver needed)");
    app.add_option("--driver", driverPath,
           "driver plugin (libads_ethernet.so); default:\nbeside adshost (../lib), else\n" ADSHOST_DEFAULT_DRIVER)
        ->type_name("PATH");
    app.add_option("--plc", plcText, "PLC address and AMS/TCP port (usually\n48898), e.g. 192.168.1.100:48898")
        ->type_name("HOST:PORT")
        ->check(plain(adstool::cli::HostPortText(adstool::PortRule::NonZero, 48898)));
    app.add_option("--netid", netIdText, "the PLC's AMS Net ID (driver mode default\n192.168.1.100.1.1)")
        ->type_name("A.B.C.D.E.F")
        ->check(plain(adstool::cli::NetIdText()));
    app.add_option("--ams-port", amsPort, "the PLC runtime's AMS port (default 851)")
        ->type_name("N")
        ->check(Number(1, 65535, "an AMS port"));
    app.add_option("--source-netid", sourceNetIdText,
           "--probe: this panel's Net ID; default: the\ndriver's rule (the first IPv4 address that\n"
           "contains the PLC Net ID's first two\nnumbers, then .1.1)")
        ->type_name("A.B.C.D.E.F")
        ->check(plain(adstool::cli::NetIdText()));
    app.add_option("--watch", watchTexts, "watched address, repeatable: M_W:100:4\n(4 words from byte 100), M_bit:10.3")
        ->type_name("REG:ADDR[:N]")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--write", writeTexts,
           "write once the screen was read, from a\nsecond thread: M_W:10=0x1234 (low byte\n"
           "first), M_bit:10.3=1; repeatable")
        ->type_name("REG:ADDR=V[,V]")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--recipe", recipeTexts,
           "recipe variable (word registers); with\nvalues: download them, then read back\nand compare")
        ->type_name("REG:ADDR:N[=V,..]")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--condition", conditionTexts,
           "one-shot read queued before polling (word\nregisters, at most --gap words)")
        ->type_name("REG:ADDR[:N]")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--cycles", cycles, "poll at least N whole screen refreshes\n(every block of --watch read once)")
        ->type_name("N")
        ->check(Number(1, 1000000000000ULL, "a number of cycles"));
    app.add_option("--duration", durationS, "poll at least this long, e.g. 0.5 or 10")
        ->type_name("SECONDS")
        ->check(Real(0.001, 604800, "seconds"));
    app.add_option("--action-timeout", actionTimeoutS,
           "time the actions (--write, --recipe,\n--condition) have to finish, from the\nstart (default 10)")
        ->type_name("SECONDS")
        ->check(Real(0.001, 3600, "seconds"));
    app.add_option("--retries", retries, "retry limit of the driver (default 3)")
        ->type_name("N")
        ->check(Number(1, 1000, "a retry limit"));
    app.add_option("--gap", gap, "largest gap in bytes bridged when merging\n(default 16)")
        ->type_name("N")
        ->check(Number(0, 128, "a gap in bytes"));
    app.add_option(
           "--timeout-ms", timeoutMs, "reply time-out (default 500; --probe: 2000;\n--discover, --add-route: 3000)")
        ->type_name("N")
        ->check(Number(1, 600000, "milliseconds"));
    app.add_option("--interval-ms", intervalMs, "pause after each whole screen refresh\n(default 100)")
        ->type_name("N")
        ->check(Number(0, 600000, "milliseconds"));
    app.add_option("--pcap", pcapPath, "capture every frame (Ethernet link type)")->type_name("FILE");
    app.add_flag("--pcap-raw", pcapRaw, "capture with link type raw IPv4 instead");
    app.add_option("--pcap-limit", pcapLimitMb, "end the capture at this size (default 100)")
        ->type_name("MB")
        ->check(Real(0.001, 1000000, "megabytes"));
    app.add_flag("-q,--quiet", quiet, "no live table and no value list at the end");
    app.add_flag("--json", json, "one JSON object per line on stdout");
    app.add_flag("--version", version, "print adshost's and the driver's version");
    adshost::discover::CliOptions commissioning;
    adshost::discover::addCliOptions(app, commissioning);

    const int parsed = adstool::cli::parse(app, argc, argv, prog);
    if (parsed >= 0)
        return finish(parsed, parsed == 0 ? "help printed" : "usage error (the reason is on standard error)");
    auto usage = [&](const std::string& why) { return finish(adstool::cli::usageError(prog, why), why); };

    if (version) {
        // Without a driver it can load, --version is no success: it names what it tried.
        std::printf("adshost %s\n", ADSHOST_VERSION);
        const std::string path = driverPath.empty() ? defaultDriver() : driverPath;
        if (path.empty()) {
            std::printf("driver: %s\n", driverNotFoundText().c_str());
            return finish(ExitNoConnection, driverNotFoundText());
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
    const int commissioned = adshost::discover::runCli(app, commissioning, {plcText, netIdText, timeoutMs, json});
    if (commissioned >= 0) {
        g_exit.printed = true;  // --discover and --add-route print their own exit object
        return commissioned;
    }
    if (plcText.empty())
        return usage("--plc: needs HOST:PORT (the PLC's address and AMS/TCP port, usually 48898)");
    adstool::HostPort plc;
    std::string plcWhy;
    if (!adstool::parseHostPort(plcText, plc, adstool::PortRule::NonZero, &plcWhy))
        return usage("--plc: needs HOST:PORT: " + plcWhy);

    if (probeMode) {
        for (const char* o :
            {"--driver", "--watch", "--write", "--recipe", "--condition", "--cycles", "--duration", "--action-timeout",
                "--retries", "--gap", "--interval-ms", "--pcap", "--pcap-raw", "--pcap-limit", "--json", "--quiet"})
            if (app.count(o) > 0)
                return usage(std::string(o) + ": not used with --probe");
        if (app.count("--netid") == 0)
            return usage("--netid: --probe needs the PLC's AMS Net ID A.B.C.D.E.F");
        Options opt;
        opt.host = plc.host;
        opt.port = plc.port;
        opt.netId = netIdText;
        opt.amsPort = int(amsPort);
        opt.sourceNetId = sourceNetIdText;
        opt.udpPort = uint16_t(commissioning.udpPort);
        if (timeoutMs > 0)
            opt.timeoutMs = int(timeoutMs);
        installSignals();  // also where SIGINT was ignored (a background job)
        opt.interrupted = &g_signal;
        return run(opt, stdout, stderr);
    }
    if (app.count("--source-netid") > 0)
        return usage("--source-netid: only with --probe (the driver finds its own Net ID)");

    adshost::Config cfg;
    cfg.driverPath = driverPath.empty() ? defaultDriver() : driverPath;
    if (cfg.driverPath.empty())
        return usage("--driver: " + driverNotFoundText());
    if (!adstool::isIpv4Address(plc.host))
        return usage("--plc: needs an IPv4 address as HOST, got '" + plc.host + "'");
    cfg.plcHost = plc.host;
    cfg.plcPort = plc.port;
    cfg.netId = netIdText;
    cfg.amsPort = int(amsPort);
    cfg.retries = int(retries);
    cfg.gap = int(gap);
    if (app.count("--interval-ms") == 0)
        intervalMs = kDefaultIntervalMs;
    if (timeoutMs > 0)
        cfg.replyTimeoutMs = int(timeoutMs);
    if (!pcapPath.empty())
        cfg.pcapPath = pcapPath;
    else if (pcapRaw || app.count("--pcap-limit") > 0)
        return usage("--pcap-raw and --pcap-limit: only with --pcap FILE");
    cfg.pcapRaw = pcapRaw;
    cfg.pcapLimitBytes = uint64_t(std::llround(pcapLimitMb * 1000000.0));

    std::string why;
    for (const std::string& t : watchTexts) {
        adshost::Address a;
        if (!adshost::parseAddress(t, a, why))
            return usage("--watch: " + why);
        cfg.watches.push_back(a);
    }
    std::vector<adshost::Write> writes;
    for (const std::string& t : writeTexts) {
        adshost::Write w;
        if (!adshost::parseWrite(t, w, why))
            return usage("--write: " + why);
        const std::string refusal = adshost::writeRefusal(w, cfg.gap);
        if (!refusal.empty())
            return usage(refusal);
        writes.push_back(w);
    }
    for (const std::string& t : recipeTexts) {
        adshost::RecipeVar r;
        if (!adshost::parseRecipe(t, r, why))
            return usage("--recipe: " + why);
        if (r.addr.isBit())
            return usage("--recipe: " + t + ": takes word registers (I_W, Q_W, M_W)");
        int next = 0;
        for (const adshost::RecipeVar& o : cfg.recipe)
            next = o.rcpDataIndex + o.addr.count;
        r.rcpDataIndex = next;
        cfg.recipe.push_back(r);
    }
    for (const std::string& t : conditionTexts) {
        adshost::Address a;
        if (!adshost::parseAddress(t, a, why))
            return usage("--condition: " + why);
        const std::string refusal = adshost::conditionRefusal(a, cfg.gap);
        if (!refusal.empty())
            return usage(refusal);
        cfg.conditions.push_back(a);
    }
    cfg.writes = writes;
    const bool anyActions = !writes.empty() || !cfg.recipe.empty() || !cfg.conditions.empty();
    const bool haveLimit = cycles > 0 || durationS > 0;
    if (cfg.watches.empty() && !anyActions)
        return usage("nothing to do: give --watch, --write, --recipe or --condition");
    if (!haveLimit && !anyActions)
        return usage("--cycles or --duration: a session of only --watch needs one of them");

    Out out;
    out.json = json;
    out.quiet = quiet;
    installSignals();

    // Reconnecting takes seconds: say so while it happens (the first lines only).
    int noticesLeft = 10;
    cfg.notice = [&](const std::string& text) {
        if (noticesLeft-- > 0)
            out.error(text, "connection");
    };
    adshost::Session session;
    if (!session.open(cfg, why)) {
        if (session.openFailedOnAddress())
            return usage(why);
        out.error(why, "start");
        return finish(ExitNoConnection, why);
    }
    out.line("driver " + cfg.driverPath + " " + session.driverVersion(),
        "{\"type\":\"driver\",\"path\":" + jsonEscape(cfg.driverPath)
            + ",\"version\":" + jsonEscape(session.driverVersion()) + "}");
    writes = session.writes();  // with the driver's integer addresses
    reportSourceNetId(out, session, cfg.netId);
    if (!session.connect(why)) {
        out.error(why, "start");
        return finish(ExitNoConnection, why);
    }

    const bool live = !quiet && !json && ::isatty(1);
    const int64_t t0 = adshost::nowMs();
    const int64_t actionDeadline = t0 + int64_t(actionTimeoutS * 1000.0);
    std::atomic<bool> stopping {false}, actionsHandedOver {false}, actionsOver {false};
    bool recipeSkipped = false;
    std::string recipeLine, recipeJson;
    bool recipeMatches = true;

    // Writes and recipe transfers come from a second thread, as a panel's screens do; each
    // waits for the PLC's answer to the one before.
    std::thread actions([&] {
        struct Over {
            std::atomic<bool>& flag;
            ~Over() { flag = true; }
        } over {actionsOver};
        auto waitUntil = [&](const std::function<bool()>& ready) {
            while (!stopping && adshost::nowMs() < actionDeadline) {
                if (ready())
                    return true;
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            return false;
        };
        // The screen first: after the handshake, once every block has been read.
        if (!waitUntil([&] {
                return session.handshakeDone() && (session.blocks() == 0 || session.fullRefreshes() >= 1);
            }))
            return;  // never handed over: reported as not finished
        std::vector<int> ids;
        for (const adshost::Write& w : writes)
            ids.push_back(session.write(w));
        actionsHandedOver = true;
        auto settled = [&](int id) { return session.action(id).state != adshost::Action::Pending; };
        for (int id : ids)
            if (!waitUntil([&] { return settled(id); }))
                return;
        bool anyValues = false;
        for (const adshost::RecipeVar& r : cfg.recipe)
            anyValues = anyValues || !r.values.empty();
        if (anyValues) {
            const int id = session.requestRecipeWrite();
            if (!waitUntil([&] { return settled(id); }))
                return;
            if (session.action(id).state != adshost::Action::Done) {
                recipeSkipped = true;
                return;
            }
            // Clear the buffer so that the read-back shows what the PLC holds.
            for (const adshost::RecipeVar& r : cfg.recipe)
                for (int k = 0; k < r.addr.count; ++k)
                    session.setRecipeWord(r.rcpDataIndex + k, 0);
        }
        if (!cfg.recipe.empty()) {
            const int id = session.requestRecipeRead();
            if (!waitUntil([&] { return settled(id); }))
                return;
            std::string vars, varsJson;
            for (const adshost::RecipeVar& r : cfg.recipe) {
                vars += " " + r.addr.text() + "=";
                varsJson += std::string(varsJson.empty() ? "" : ",") + "{\"address\":" + jsonEscape(r.addr.text())
                    + ",\"values\":[";
                for (int k = 0; k < r.addr.count; ++k) {
                    const uint16_t got = session.recipeWord(r.rcpDataIndex + k);
                    vars += (k ? "," : "") + hex16(got);
                    varsJson += (k ? "," : "") + std::to_string(got);
                    if (!r.values.empty() && got != r.values[size_t(k)])
                        recipeMatches = false;
                }
                varsJson += "]}";
            }
            recipeLine = vars;
            if (anyValues)
                recipeLine += recipeMatches ? " (matches the download)" : " (DIFFERS from the download)";
            recipeJson = ",\"variables\":[" + varsJson + "]"
                + (anyValues ? std::string(",\"matches\":") + (recipeMatches ? "true" : "false") : "");
        }
    });

    const int64_t deadline = durationS > 0 ? t0 + int64_t(durationS * 1000.0) : 0;
    // --cycles counts whole screen refreshes (every read block once); without a screen there
    // is nothing to count and the actions alone bound the session.
    // A refresh whose reads the driver gave up counts as well (any request given up stands
    // for one block), so that a PLC that refuses every read, or is silent, cannot hold the
    // session forever.
    uint64_t cyclicReadsConcluded = 0;
    auto refreshes = [&] {
        const uint64_t blocks = uint64_t(session.blocks());
        return blocks > 0 ? std::max<uint64_t>(session.fullRefreshes(), cyclicReadsConcluded / blocks) : ~0ULL;
    };
    uint64_t refreshesPaused = 0;  // the refresh after which the last pause was made
    int64_t lastDraw = 0;
    uint64_t errorsTotal = 0;
    std::set<std::string> errorsShown;  // each distinct line once, ten at most
    uint64_t errorsPrinted = 0;         // communication errors among them
    bool adsErrorSeen = false;
    std::string stopReason;
    for (;;) {
        if (g_signal) {
            stopReason = "stopped by " + signalName(g_signal);
            break;
        }
        const bool limitReached
            = (cycles > 0 && refreshes() >= cycles) || (deadline > 0 && adshost::nowMs() >= deadline) || !haveLimit;
        if (limitReached) {
            const bool allSettled = !anyActions || (actionsOver && session.actionsSettled());
            if (allSettled || adshost::nowMs() >= actionDeadline)
                break;
        }
        const adshost::Exchange& ex = session.step();
        if (session.failedForGood())
            break;
        if ((ex.cyclicRead && ex.result == 1) || ex.result == 2)
            ++cyclicReadsConcluded;
        if (ex.result == 2) {
            ++errorsTotal;
            const std::string text = session.explain(ex);
            adsErrorSeen = adsErrorSeen || (ex.codes.hasResult && ex.codes.adsResult != 0);
            if (errorsShown.size() < 10 && errorsShown.insert(text).second) {
                out.error("communication error " + text, "communication");
                ++errorsPrinted;
            }
        }
        // A reply the driver accepted though it carries an error code (the handshake's answer
        // has a minimum length only); writes are reported with their action.
        if (ex.result == 1 && ex.codes.anyError() && ex.purpose != 'W' && ex.purpose != 'w') {
            const std::string text = "reply with an error code " + session.explain(ex) + " (the driver accepted it)";
            if (errorsShown.size() < 10 && errorsShown.insert(text).second)
                out.error(text, "accepted error");
        }
        if (session.fatal().kind != adshost::Fatal::None)
            break;
        session.takeChanges();
        if (live && adshost::nowMs() - lastDraw >= 200) {
            lastDraw = adshost::nowMs();
            std::string screen = "\033[H\033[2J";
            screen += "adshost  " + cfg.plcHost + ":" + std::to_string(cfg.plcPort) + "  driver "
                + session.driverVersion() + "\n\n";
            for (const adshost::Address& w : session.watches()) {
                char line[64];
                std::snprintf(line, sizeof line, "  %-18s ", w.text().c_str());
                const adshost::Freshness f = session.freshness(w);
                screen += line + (f.read ? valuesText(w, session.read(w)) : std::string("never read"))
                    + (f.read && f.stale ? " (stale, read " + realText(std::round(f.ageMs / 100.0) / 10.0) + " s ago)" : "")
                    + "\n";
            }
            screen += "\n" + session.stats().figuresLine() + "\n";
            std::fputs(screen.c_str(), stdout);
            std::fflush(stdout);
        }
        // --interval-ms: the pause after each whole refresh of the screen, as a panel waits
        // between screen updates; actions still pending go on without a pause.
        const uint64_t refreshed = session.fullRefreshes();
        if (intervalMs > 0 && refreshed > refreshesPaused && session.actionsSettled()
            && !(cycles > 0 && refreshed >= cycles)) {
            refreshesPaused = refreshed;
            const int64_t until = adshost::nowMs() + int64_t(intervalMs);
            for (int64_t now = adshost::nowMs(); now < until && !g_signal && !(deadline > 0 && now >= deadline);
                 now = adshost::nowMs())
                std::this_thread::sleep_for(std::chrono::milliseconds(std::min<int64_t>(20, until - now)));
        }
    }
    stopping = true;
    actions.join();
    const adshost::Stats stats = session.stats();
    session.disconnect();  // the capture ends on a whole packet

    if (live)
        std::fputs("\033[H\033[2J", stdout);
    bool neverRead = false, anyStale = false;
    auto valueLine = [&](const adshost::Address& a, const char* kind) {
        const bool condition = !std::strcmp(kind, "condition");
        std::vector<uint8_t> v;
        const adshost::Freshness f = condition ? session.conditionValue(a, v) : session.freshness(a);
        if (!condition)
            v = session.read(a);
        const bool read = f.read;
        neverRead = neverRead || !read;
        anyStale = anyStale || (read && f.stale);
        if (quiet && !json)
            return;
        std::string note;
        if (std::strcmp(kind, "watch"))
            note += std::string(" (") + kind + ")";
        if (read && f.stale)
            note += " (stale: read " + realText(std::round(f.ageMs / 100.0) / 10.0)
                + " s ago, reading it failed since)";
        char age[32];
        std::snprintf(age, sizeof age, "%.0f", f.ageMs);
        out.line("value " + a.text() + " = " + (read ? valuesText(a, v) : std::string("never read")) + note,
            "{\"type\":\"value\",\"address\":" + jsonEscape(a.text()) + ",\"kind\":" + jsonEscape(kind)
                + ",\"read\":" + (read ? "true" : "false") + ",\"values\":" + (read ? valuesJson(a, v) : "null")
                + ",\"stale\":" + (read && f.stale ? "true" : "false") + ",\"age_ms\":" + (read ? age : "null")
                + "}");
    };
    for (const adshost::Address& a : session.watches())
        valueLine(a, "watch");
    for (const adshost::Address& a : session.conditions())
        valueLine(a, "condition");

    // Every action asked for, with its outcome.
    const adshost::Fatal fatal = session.fatal();
    bool anyFailedAms = false, anyFailedAds = false, anyUnfinished = false;
    std::vector<adshost::Action> acts = session.actions();
    // Writes that were never handed over are actions too.
    if (!actionsHandedOver)
        for (const adshost::Write& w : writes) {
            adshost::Action a;
            a.kind = "write";
            a.what = w.text();
            acts.push_back(a);
        }
    bool recipeWriteAsked = false, recipeReadAsked = false;
    for (const adshost::Action& a : acts) {
        recipeWriteAsked = recipeWriteAsked || a.kind == "recipe write";
        recipeReadAsked = recipeReadAsked || a.kind == "recipe read";
    }
    bool anyValues = false;
    for (const adshost::RecipeVar& r : cfg.recipe)
        anyValues = anyValues || !r.values.empty();
    if (anyValues && !recipeWriteAsked) {
        adshost::Action a;
        a.kind = "recipe write";
        a.what = std::to_string(cfg.recipe.size()) + " variables";
        acts.push_back(a);
    }
    if (!cfg.recipe.empty() && !recipeReadAsked) {
        adshost::Action a;
        a.kind = "recipe read";
        a.what = std::to_string(cfg.recipe.size()) + " variables";
        if (recipeSkipped)
            a.why = "not started: the recipe write failed";
        acts.push_back(a);
    }
    const std::string notFinishedWhy = !stopReason.empty() ? stopReason
        : fatal.kind != adshost::Fatal::None               ? "the session stopped: " + fatal.message
        : session.failedForGood()                          ? "the connection was lost"
                                                           : "no confirmation from the PLC within --action-timeout";
    for (const adshost::Action& a : acts) {
        std::string status, detail = a.why;
        if (a.state == adshost::Action::Done) {
            status = "done";
            if (a.kind == "write")
                detail = "confirmed by the PLC, ADS result 0";
            if (a.kind == "recipe read" && !recipeMatches) {
                status = "FAILED";
                anyUnfinished = true;
            }
        } else if (a.state == adshost::Action::Failed) {
            status = "FAILED";
            if (a.codes.header && a.codes.amsError != 0)
                anyFailedAms = true;
            else if (a.codes.hasResult && a.codes.adsResult != 0)
                anyFailedAds = true;
            else
                anyUnfinished = true;
        } else {
            status = "NOT FINISHED";
            if (detail.empty())
                detail = notFinishedWhy;
            anyUnfinished = true;
        }
        std::string text = a.kind + ": " + status;
        if (a.kind == "recipe read" && a.state == adshost::Action::Done)
            text += recipeLine;
        else if (a.kind != "recipe write" && a.kind != "recipe read")
            text += " " + a.what;
        if (!detail.empty() && !(a.kind == "recipe read" && a.state == adshost::Action::Done))
            text += (a.state == adshost::Action::Done ? " (" + detail + ")" : ": " + detail);
        std::string j = "{\"type\":\"action\",\"action\":" + jsonEscape(a.kind) + ",\"what\":" + jsonEscape(a.what)
            + ",\"status\":"
            + jsonEscape(status == "done" ? "done"
                    : status == "FAILED"  ? "failed"
                                          : "not finished");
        if (a.codes.header)
            j += ",\"ams_error\":" + std::to_string(a.codes.amsError);
        if (a.codes.hasResult)
            j += ",\"ads_result\":" + std::to_string(a.codes.adsResult);
        if (!detail.empty())
            j += ",\"message\":" + jsonEscape(detail);
        if (a.kind == "recipe read" && a.state == adshost::Action::Done)
            j += recipeJson;
        j += "}";
        out.line(text, j);
    }

    if (errorsTotal > errorsPrinted && !json)
        std::fprintf(stderr, "adshost: %llu communication errors in all\n", (unsigned long long)errorsTotal);
    if (!stopReason.empty())
        out.error(stopReason, "signal");
    if (session.captureLimitReached())
        out.error("capture ended at the --pcap-limit of " + realText(pcapLimitMb) + " MB after "
                + std::to_string(session.capturePackets()) + " packets: " + cfg.pcapPath,
            "capture");
    out.line(stats.figuresLine(), figuresJson(stats));

    int status = ExitOk;
    std::string reason = "every action asked for was confirmed";
    if (session.failedForGood()) {
        status = ExitConnectionLost;
        reason = session.failure();
        out.error(reason, "connection");
    } else if (fatal.kind == adshost::Fatal::NoAnswer) {
        status = ExitNoAnswer;
        reason = fatal.message;
        out.error("stopped: " + reason, "no answer");
    } else if (fatal.kind == adshost::Fatal::AmsError) {
        status = ExitAmsError;
        reason = fatal.message;
        out.error("stopped: " + reason, "ams error");
    } else if (fatal.kind == adshost::Fatal::NotAms) {
        status = ExitBadReply;
        reason = fatal.message;
        out.error("stopped: " + reason, "not ams");
    } else if (stats.requests > 0 && !session.answered() && !session.handshakeDone()) {
        // Nothing came back at all, however short the session: the same diagnosis as when
        // the driver gives up.
        status = ExitNoAnswer;
        reason = session.noAnswerText();
        out.error("stopped: " + reason, "no answer");
    } else if (anyFailedAms) {
        status = ExitAmsError;
        reason = "an action failed with an AMS error";
    } else if (anyFailedAds) {
        status = ExitAdsError;
        reason = "the PLC refused an action with an ADS error";
    } else if (anyUnfinished) {
        status = ExitUnfinished;
        reason = "an action did not finish or failed";
    } else if (neverRead) {
        // A value the PLC never sent is no success, whether reads failed or time ran out.
        status = adsErrorSeen ? ExitAdsError : ExitUnfinished;
        reason = "a watched address was never read";
    } else if (anyStale) {
        // Reads that stopped succeeding are no success either: the values shown are old.
        status = adsErrorSeen ? ExitAdsError : ExitUnfinished;
        reason = "a watched value is stale: reading it failed after it was last read";
    } else if (!session.handshakeDone()) {
        status = ExitUnfinished;
        reason = "the driver's handshake was not answered";
    }
    return finish(status, reason);
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
