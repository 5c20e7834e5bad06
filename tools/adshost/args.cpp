#include "args.h"

#include "adstool/cli.h"
#include "adstool/netid.h"

#include <unistd.h>

#include <cmath>

#ifndef ADSHOST_LIBDIR
#define ADSHOST_LIBDIR "lib"
#endif
#ifndef ADSHOST_DEFAULT_DRIVER
#define ADSHOST_DEFAULT_DRIVER "/usr/lib/libads_ethernet.so"
#endif

namespace adshost {
namespace args {

namespace {

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

// The rule of each option is in its description; CLI11 would add the validator's name to the
// option's type.
CLI::Validator plain(CLI::Validator v)
{
    v.description("");
    return v;
}
CLI::Validator Number(unsigned long long lo, unsigned long long hi, const std::string& what)
{
    return plain(adstool::cli::Number(lo, hi, what));
}
CLI::Validator Real(double lo, double hi, const std::string& what) { return plain(adstool::cli::Real(lo, hi, what)); }

// Where the PLC is and which driver talks to it.
void defineConnectionOptions(CLI::App& app, Args& a)
{
    app.add_flag("--probe", a.probeMode, "check the path to a PLC with frames of\nits own instead (no driver needed)");
    app.add_option("--driver", a.driverPath,
           "driver plugin (libads_ethernet.so); default:\nbeside adshost (../lib), else\n" ADSHOST_DEFAULT_DRIVER)
        ->type_name("PATH");
    app.add_option("--plc", a.plcText, "PLC address and AMS/TCP port (usually\n48898), e.g. 192.168.1.100:48898")
        ->type_name("HOST:PORT")
        ->check(plain(adstool::cli::HostPortText(adstool::PortRule::NonZero, 48898)));
    app.add_option("--netid", a.netIdText, "the PLC's AMS Net ID (driver mode default\n192.168.1.100.1.1)")
        ->type_name("A.B.C.D.E.F")
        ->check(plain(adstool::cli::NetIdText()));
    app.add_option("--ams-port", a.amsPort, "the PLC runtime's AMS port (default 851)")
        ->type_name("N")
        ->check(Number(1, 65535, "an AMS port"));
    app.add_option("--source-netid", a.sourceNetIdText,
           "--probe: this panel's Net ID; default: the\ndriver's rule (the first IPv4 address that\n"
           "contains the PLC Net ID's first two\nnumbers, then .1.1)")
        ->type_name("A.B.C.D.E.F")
        ->check(plain(adstool::cli::NetIdText()));
    app.add_option("--watch", a.watchTexts, "watched address, repeatable: M_W:100:4\n(4 words from byte 100), M_bit:10.3")
        ->type_name("REG:ADDR[:N]")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--write", a.writeTexts,
           "write once the screen was read, from a\nsecond thread: M_W:10=0x1234 (low byte\n"
           "first), M_bit:10.3=1; repeatable")
        ->type_name("REG:ADDR=V[,V]")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--recipe", a.recipeTexts,
           "recipe variable (word registers); with\nvalues: download them, then read back\nand compare")
        ->type_name("REG:ADDR:N[=V,..]")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--condition", a.conditionTexts,
           "one-shot read queued before polling (word\nregisters, at most --gap words)")
        ->type_name("REG:ADDR[:N]")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

// How long the session runs, the driver's settings and the output.
void defineSessionOptions(CLI::App& app, Args& a)
{
    app.add_option("--cycles", a.cycles, "poll at least N whole screen refreshes\n(every block of --watch read once)")
        ->type_name("N")
        ->check(Number(1, 1000000000000ULL, "a number of cycles"));
    app.add_option("--duration", a.durationS, "poll at least this long, e.g. 0.5 or 10")
        ->type_name("SECONDS")
        ->check(Real(0.001, 604800, "seconds"));
    app.add_option("--action-timeout", a.actionTimeoutS,
           "time the actions (--write, --recipe,\n--condition) have to finish, from the\nstart (default 10)")
        ->type_name("SECONDS")
        ->check(Real(0.001, 3600, "seconds"));
    app.add_option("--retries", a.retries, "retry limit of the driver (default 3)")
        ->type_name("N")
        ->check(Number(1, 1000, "a retry limit"));
    app.add_option("--gap", a.gap, "largest gap in bytes bridged when merging\n(default 16)")
        ->type_name("N")
        ->check(Number(0, 128, "a gap in bytes"));
    app.add_option(
           "--timeout-ms", a.timeoutMs, "reply time-out (default 500; --probe: 2000;\n--discover, --add-route: 3000)")
        ->type_name("N")
        ->check(Number(1, 600000, "milliseconds"));
    app.add_option("--interval-ms", a.intervalMs, "pause after each whole screen refresh\n(default 100)")
        ->type_name("N")
        ->check(Number(0, 600000, "milliseconds"));
    app.add_option("--pcap", a.pcapPath, "capture every frame (Ethernet link type)")->type_name("FILE");
    app.add_flag("--pcap-raw", a.pcapRaw, "capture with link type raw IPv4 instead");
    app.add_option("--pcap-limit", a.pcapLimitMb, "end the capture at this size (default 100)")
        ->type_name("MB")
        ->check(Real(0.001, 1000000, "megabytes"));
    app.add_flag("-q,--quiet", a.quiet, "no live table and no value list at the end");
    app.add_flag("--json", a.json, "one JSON object per line on stdout");
    app.add_flag("--version", a.version, "print adshost's and the driver's version");
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

}  // namespace

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

std::string description() { return std::string(kDescription) + "\n" + discover::kCliDescription; }

void define(CLI::App& app, Args& a)
{
    app.set_help_flag("-h,--help", "print this help and exit");
    app.get_formatter()->column_width(26);
    app.footer(std::string(kExamples) + "\n" + kExitCodes);
    defineConnectionOptions(app, a);
    defineSessionOptions(app, a);
    discover::addCliOptions(app, a.commissioning);
}

bool probeRun(const Args& a, const CLI::App& app, const adstool::HostPort& plc, probe::Options& opt, std::string& why)
{
    for (const char* o :
        {"--driver", "--watch", "--write", "--recipe", "--condition", "--cycles", "--duration", "--action-timeout",
            "--retries", "--gap", "--interval-ms", "--pcap", "--pcap-raw", "--pcap-limit", "--json", "--quiet"})
        if (app.count(o) > 0) {
            why = std::string(o) + ": not used with --probe";
            return false;
        }
    if (app.count("--netid") == 0) {
        why = "--netid: --probe needs the PLC's AMS Net ID A.B.C.D.E.F";
        return false;
    }
    opt.host = plc.host;
    opt.port = plc.port;
    opt.netId = a.netIdText;
    opt.amsPort = int(a.amsPort);
    opt.sourceNetId = a.sourceNetIdText;
    opt.udpPort = uint16_t(a.commissioning.udpPort);
    if (a.timeoutMs > 0)
        opt.timeoutMs = int(a.timeoutMs);
    return true;
}

namespace {

// Where the driver and the PLC are, the driver's settings and the capture.
bool connectionConfig(const Args& a, const CLI::App& app, const adstool::HostPort& plc, Config& cfg, std::string& why)
{
    if (app.count("--source-netid") > 0) {
        why = "--source-netid: only with --probe (the driver finds its own Net ID)";
        return false;
    }
    cfg.driverPath = a.driverPath.empty() ? defaultDriver() : a.driverPath;
    if (cfg.driverPath.empty()) {
        why = "--driver: " + driverNotFoundText();
        return false;
    }
    if (!adstool::isIpv4Address(plc.host)) {
        why = "--plc: needs an IPv4 address as HOST, got '" + plc.host + "'";
        return false;
    }
    cfg.plcHost = plc.host;
    cfg.plcPort = plc.port;
    cfg.netId = a.netIdText;
    cfg.amsPort = int(a.amsPort);
    cfg.retries = int(a.retries);
    cfg.gap = int(a.gap);
    if (a.timeoutMs > 0)
        cfg.replyTimeoutMs = int(a.timeoutMs);
    if (!a.pcapPath.empty()) {
        cfg.pcapPath = a.pcapPath;
    } else if (a.pcapRaw || app.count("--pcap-limit") > 0) {
        why = "--pcap-raw and --pcap-limit: only with --pcap FILE";
        return false;
    }
    cfg.pcapRaw = a.pcapRaw;
    cfg.pcapLimitBytes = uint64_t(std::llround(a.pcapLimitMb * 1000000.0));
    return true;
}

// The screen and the actions: what the driver refuses, or would carry out wrong, is a usage error.
bool screenAndActions(const Args& a, Config& cfg, std::string& why)
{
    for (const std::string& t : a.watchTexts) {
        Address addr;
        if (!parseAddress(t, addr, why))
            return (why = "--watch: " + why), false;
        cfg.watches.push_back(addr);
    }
    for (const std::string& t : a.writeTexts) {
        Write w;
        if (!parseWrite(t, w, why))
            return (why = "--write: " + why), false;
        const std::string refusal = writeRefusal(w, cfg.gap);
        if (!refusal.empty())
            return (why = refusal), false;
        cfg.writes.push_back(w);
    }
    for (const std::string& t : a.recipeTexts) {
        RecipeVar r;
        if (!parseRecipe(t, r, why))
            return (why = "--recipe: " + why), false;
        if (r.addr.isBit())
            return (why = "--recipe: " + t + ": takes word registers (I_W, Q_W, M_W)"), false;
        int next = 0;
        for (const RecipeVar& o : cfg.recipe)
            next = o.rcpDataIndex + o.addr.count;
        r.rcpDataIndex = next;
        cfg.recipe.push_back(r);
    }
    for (const std::string& t : a.conditionTexts) {
        Address addr;
        if (!parseAddress(t, addr, why))
            return (why = "--condition: " + why), false;
        const std::string refusal = conditionRefusal(addr, cfg.gap);
        if (!refusal.empty())
            return (why = refusal), false;
        cfg.conditions.push_back(addr);
    }
    return true;
}

}  // namespace

bool driverRun(const Args& a, const CLI::App& app, const adstool::HostPort& plc, DriverRun& run, std::string& why)
{
    if (!connectionConfig(a, app, plc, run.cfg, why))
        return false;
    run.intervalMs = app.count("--interval-ms") == 0 ? kDefaultIntervalMs : a.intervalMs;
    if (!screenAndActions(a, run.cfg, why))
        return false;
    const Config& cfg = run.cfg;
    run.cycles = a.cycles;
    run.durationS = a.durationS;
    run.actionTimeoutS = a.actionTimeoutS;
    run.anyActions = !cfg.writes.empty() || !cfg.recipe.empty() || !cfg.conditions.empty();
    run.haveLimit = a.cycles > 0 || a.durationS > 0;
    if (cfg.watches.empty() && !run.anyActions) {
        why = "nothing to do: give --watch, --write, --recipe or --condition";
        return false;
    }
    if (!run.haveLimit && !run.anyActions) {
        why = "--cycles or --duration: a session of only --watch needs one of them";
        return false;
    }
    return true;
}

}  // namespace args
}  // namespace adshost
