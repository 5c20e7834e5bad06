// adshost: drives an ads_ethernet driver plugin against a PLC as a panel runtime does.
#include "adshost.h"
#include "probe.h"
#include "text_util.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* const kVersion = "adshost 1.0.0";

const char* const kHelp = "Usage: adshost --driver PATH --plc HOST:PORT --watch REG:ADDR[:COUNT] ...\n"
                          "               (--cycles N | --duration SECONDS) [options]\n"
                          "Loads an ADS driver plugin and polls a PLC through it like a panel runtime.\n"
                          "\n"
                          "  --driver PATH          driver plugin (libads_ethernet.so)\n"
                          "  --plc HOST:PORT        PLC address (IPv4), e.g. 127.0.0.1:48898\n"
                          "  --netid A.B.C.D.E.F    PLC's AMS Net ID (default 192.168.1.100.1.1)\n"
                          "  --ams-port N           PLC's AMS port (default 801)\n"
                          "  --watch REG:ADDR[:N]   watched address, repeatable: M_W:100:4 (4 words\n"
                          "                         from byte 100), M_bit:10.3, I_W:0, Q_bit:0.1:8\n"
                          "  --write REG:ADDR=V     write once the screen has been read, from a second\n"
                          "                         thread: M_W:10=0x1234 (low byte first), M_bit:10.3=1\n"
                          "  --recipe REG:ADDR:N[=V,...]  recipe variable; with values: download them,\n"
                          "                         then read the recipe back and compare\n"
                          "  --condition REG:ADDR[:N]  one-shot read queued before polling\n"
                          "  --cycles N             stop after N polling cycles\n"
                          "  --duration SECONDS     stop after this time\n"
                          "  --retries N            retry limit of the driver (default 3)\n"
                          "  --gap N                largest gap in bytes bridged when merging (default 16)\n"
                          "  --timeout-ms N         reply time-out (default 500)\n"
                          "  --interval-ms N        pause between polling cycles (default 0)\n"
                          "  --pcap FILE            capture every frame (Ethernet link type)\n"
                          "  --pcap-raw             capture with link type raw IPv4 instead\n"
                          "  --quiet                no live table and no value list at the end\n"
                          "  --probe                check the path to a PLC instead (no driver needed);\n"
                          "                         see adshost --probe --help\n"
                          "  --version, --help\n"
                          "\n"
                          "Exit status: 0 when the session ran, 1 when it could not start (plugin or\n"
                          "entry point missing, bad address, no connection), 2 for a usage error,\n"
                          "3 when the connection was lost for good.\n";

int usage(const std::string& why)
{
    std::fprintf(stderr, "adshost: %s (try --help)\n", why.c_str());
    return 2;
}

int fail(const std::string& why)
{
    std::fprintf(stderr, "adshost: %s\n", why.c_str());
    return 1;
}

using adshost::util::toInt;

std::string hex16(const std::vector<uint8_t>& b, size_t i)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%04X", unsigned(b[i] | b[i + 1] << 8));
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
            out += (i ? " " : "") + hex16(v, i);
    }
    return out;
}

}  // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--probe") == 0)
            return adshost::probe::main(argc, argv);

    adshost::Config cfg;
    std::vector<adshost::Write> writes;
    long long cycles = 0, durationS = 0, intervalMs = 0;
    bool quiet = false, haveLimit = false, havePlc = false;

    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc)
                return false;
            out = argv[++i];
            return true;
        };
        std::string v, why;
        long long n = 0;
        if (a == "--help" || a == "-h") {
            std::fputs(kHelp, stdout);
            return 0;
        } else if (a == "--version") {
            std::printf("%s\n", kVersion);
            return 0;
        } else if (a == "--driver") {
            if (!value(cfg.driverPath))
                return usage("--driver needs a path");
        } else if (a == "--plc") {
            if (!value(v))
                return usage("--plc needs HOST:PORT");
            const size_t c = v.rfind(':');
            if (c == std::string::npos || !toInt(v.substr(c + 1), 1, 65535, n))
                return usage("--plc needs HOST:PORT, got '" + v + "'");
            cfg.plcHost = v.substr(0, c);
            cfg.plcPort = uint16_t(n);
            havePlc = true;
        } else if (a == "--netid") {
            if (!value(cfg.netId))
                return usage("--netid needs A.B.C.D.E.F");
            int parts = 1;
            for (char ch : cfg.netId)
                parts += ch == '.';
            if (parts != 6)
                return usage("--netid needs six numbers, got '" + cfg.netId + "'");
        } else if (a == "--ams-port") {
            if (!value(v) || !toInt(v, 1, 65535, n))
                return usage("--ams-port needs a port number");
            cfg.amsPort = int(n);
        } else if (a == "--watch") {
            adshost::Address ad;
            if (!value(v))
                return usage("--watch needs REG:ADDR[:COUNT]");
            if (!adshost::parseAddress(v, ad, why))
                return usage(why);
            cfg.watches.push_back(ad);
        } else if (a == "--write") {
            adshost::Write w;
            if (!value(v))
                return usage("--write needs REG:ADDR=VALUE");
            if (!adshost::parseWrite(v, w, why))
                return usage(why);
            writes.push_back(w);
        } else if (a == "--recipe") {
            adshost::RecipeVar r;
            if (!value(v))
                return usage("--recipe needs REG:ADDR:COUNT[=V,...]");
            if (!adshost::parseRecipe(v, r, why))
                return usage(why);
            if (r.addr.isBit())
                return usage("--recipe takes word registers (I_W, Q_W, M_W)");
            int next = 0;
            for (const adshost::RecipeVar& o : cfg.recipe)
                next = o.rcpDataIndex + o.addr.count;
            r.rcpDataIndex = next;
            cfg.recipe.push_back(r);
        } else if (a == "--condition") {
            adshost::Address ad;
            if (!value(v))
                return usage("--condition needs REG:ADDR[:COUNT]");
            if (!adshost::parseAddress(v, ad, why))
                return usage(why);
            cfg.conditions.push_back(ad);
        } else if (a == "--cycles") {
            if (!value(v) || !toInt(v, 1, 1000000000000LL, cycles))
                return usage("--cycles needs a number");
            haveLimit = true;
        } else if (a == "--duration") {
            if (!value(v) || !toInt(v, 1, 86400 * 7, durationS))
                return usage("--duration needs seconds");
            haveLimit = true;
        } else if (a == "--retries") {
            if (!value(v) || !toInt(v, 1, 1000, n))
                return usage("--retries needs a number from 1");
            cfg.retries = int(n);
        } else if (a == "--gap") {
            if (!value(v) || !toInt(v, 0, 128, n))
                return usage("--gap needs a number from 0 to 128");
            cfg.gap = int(n);
        } else if (a == "--timeout-ms") {
            if (!value(v) || !toInt(v, 1, 600000, n))
                return usage("--timeout-ms needs milliseconds");
            cfg.replyTimeoutMs = int(n);
        } else if (a == "--interval-ms") {
            if (!value(v) || !toInt(v, 0, 600000, intervalMs))
                return usage("--interval-ms needs milliseconds");
        } else if (a == "--pcap") {
            if (!value(cfg.pcapPath))
                return usage("--pcap needs a file");
        } else if (a == "--pcap-raw") {
            cfg.pcapRaw = true;
        } else if (a == "--quiet" || a == "-q") {
            quiet = true;
        } else {
            return usage("unknown option '" + a + "'");
        }
    }
    if (cfg.driverPath.empty())
        return usage("--driver is required");
    if (!havePlc)
        return usage("--plc is required");
    if (!haveLimit)
        return usage("give --cycles or --duration");
    if (cfg.watches.empty() && writes.empty() && cfg.recipe.empty() && cfg.conditions.empty())
        return usage("nothing to do: give --watch, --write, --recipe or --condition");

    adshost::Session session;
    std::string why;
    if (!session.open(cfg, why))
        return fail(why);
    for (const adshost::Write& w : writes) {
        const int r = session.checkAddress(w.addr, 1);
        if (r != 0)
            return fail(
                "write address " + w.addr.text() + " rejected by the driver (check result " + std::to_string(r) + ")");
    }
    if (!session.connect(why))
        return fail(why);

    const bool live = !quiet && ::isatty(1);
    std::atomic<bool> stopping {false};
    std::vector<std::string> actionLines;  // written by the action thread, read after join

    // Writes and recipe transfers come from a second thread, as a panel's screens do.
    std::thread actions([&] {
        const int64_t start = adshost::nowMs();
        while (!stopping && session.stats().fullRefreshes < 1 && adshost::nowMs() - start < 3000)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        for (const adshost::Write& w : writes) {
            if (stopping)
                return;
            session.write(w);
            actionLines.push_back("write " + w.text() + ": handed to the driver");
        }
        bool anyValues = false;
        for (const adshost::RecipeVar& r : cfg.recipe)
            anyValues = anyValues || !r.values.empty();
        auto waitFlag = [&](bool writeFlag) {
            const int64_t t0 = adshost::nowMs();
            while (!stopping && adshost::nowMs() - t0 < 10000) {
                if (!(writeFlag ? session.recipeWritePending() : session.recipeReadPending()))
                    return true;
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            return false;
        };
        if (anyValues) {
            session.requestRecipeWrite();
            actionLines.push_back(std::string("recipe write: ") + (waitFlag(true) ? "done" : "not finished"));
            // Clear the buffer so that the read-back shows what the PLC holds.
            for (const adshost::RecipeVar& r : cfg.recipe)
                for (int k = 0; k < r.addr.count; ++k)
                    session.setRecipeWord(r.rcpDataIndex + k, 0);
        }
        if (!cfg.recipe.empty() && !stopping) {
            session.requestRecipeRead();
            const bool done = waitFlag(false);
            std::string line = std::string("recipe read: ") + (done ? "done" : "not finished");
            bool same = true;
            for (const adshost::RecipeVar& r : cfg.recipe) {
                line += " " + r.addr.text() + "=";
                for (int k = 0; k < r.addr.count; ++k) {
                    const uint16_t got = session.recipeWord(r.rcpDataIndex + k);
                    char buf[16];
                    std::snprintf(buf, sizeof buf, "%s0x%04X", k ? "," : "", got);
                    line += buf;
                    if (!r.values.empty() && got != r.values[size_t(k)])
                        same = false;
                }
            }
            if (anyValues)
                line += same && done ? " (matches the download)" : " (DIFFERS from the download)";
            actionLines.push_back(line);
        }
    });

    const int64_t t0 = adshost::nowMs();
    const int64_t deadline = durationS > 0 ? t0 + durationS * 1000 : 0;
    long long done = 0;
    int64_t lastDraw = 0;
    int errorsShown = 0;
    uint64_t errorsTotal = 0;
    std::vector<std::string> conditionLines;
    for (;;) {
        if (cycles > 0 && done >= cycles)
            break;
        if (deadline > 0 && adshost::nowMs() >= deadline)
            break;
        const adshost::Exchange ex = session.step();
        if (session.failedForGood())
            break;
        ++done;
        if (ex.result == 2) {
            ++errorsTotal;
            if (errorsShown < 10) {
                ++errorsShown;
                // The handshake names no register, so its error text is empty.
                std::fprintf(stderr, "adshost: communication error %s\n",
                    ex.errorText.empty() ? "(handshake)" : ex.errorText.c_str());
            }
        }
        for (const adshost::Change& c : session.takeChanges()) {
            if (c.text == "-1")
                conditionLines.push_back(std::string("condition read: ") + (c.address == 0 ? "done" : "failed"));
        }
        if (live && adshost::nowMs() - lastDraw >= 200) {
            lastDraw = adshost::nowMs();
            std::string screen = "\033[H\033[2J";
            screen += "adshost  " + cfg.plcHost + ":" + std::to_string(cfg.plcPort) + "  driver "
                + session.driverVersion() + "\n\n";
            for (const adshost::Address& w : cfg.watches) {
                char line[64];
                std::snprintf(line, sizeof line, "  %-18s ", w.text().c_str());
                screen += line + valuesText(w, session.read(w)) + "\n";
            }
            screen += "\n" + session.stats().figuresLine() + "\n";
            std::fputs(screen.c_str(), stdout);
            std::fflush(stdout);
        }
        if (intervalMs > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
    }
    stopping = true;
    actions.join();

    if (live)
        std::fputs("\033[H\033[2J", stdout);
    if (!quiet) {
        for (const adshost::Address& w : cfg.watches)
            std::printf("value %s = %s\n", w.text().c_str(), valuesText(w, session.read(w)).c_str());
        for (const adshost::Address& c : cfg.conditions)
            std::printf("value %s = %s (condition)\n", c.text().c_str(), valuesText(c, session.read(c)).c_str());
    }
    for (const std::string& l : actionLines)
        std::printf("%s\n", l.c_str());
    for (const std::string& l : conditionLines)
        std::printf("%s\n", l.c_str());
    if (errorsTotal > uint64_t(errorsShown))
        std::fprintf(stderr, "adshost: %llu communication errors in all\n", (unsigned long long)errorsTotal);
    std::printf("%s\n", session.stats().figuresLine().c_str());
    std::fflush(stdout);
    if (session.failedForGood()) {
        std::fprintf(stderr, "adshost: %s\n", session.failure().c_str());
        return 3;
    }
    return 0;
}
