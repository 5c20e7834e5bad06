// Command lines of the tools through CLI11: validators whose messages name the rule, and one
// way of parsing that prints an error as one line and keeps the tools' exit codes.
// Header-only; CMake target ads_toolkit_cli (ads_toolkit and CLI11).
#ifndef ADSTOOL_CLI_H
#define ADSTOOL_CLI_H

#include "adstool/hostport.h"
#include "adstool/netid.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

namespace adstool {
namespace cli {

// A whole number, decimal or 0x-hex, from lo to hi.
inline bool toNumber(const std::string& text, unsigned long long lo, unsigned long long hi, unsigned long long& out)
{
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ')
        return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno || *end || v < lo || v > hi)
        return false;
    out = v;
    return true;
}

inline CLI::Validator Number(unsigned long long lo, unsigned long long hi, const std::string& what = "a number")
{
    const std::string rule = "needs " + what + " from " + std::to_string(lo) + " to " + std::to_string(hi);
    return CLI::Validator(
        [lo, hi, rule](std::string& v) {
            unsigned long long n = 0;
            return toNumber(v, lo, hi, n) ? std::string() : rule + ", got '" + v + "'";
        },
        "NUMBER", "Number");
}

// A decimal fraction from lo to hi.
inline bool toReal(const std::string& text, double lo, double hi, double& out)
{
    if (text.empty() || text[0] == ' ')
        return false;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (*end || !(v >= lo && v <= hi))
        return false;
    out = v;
    return true;
}

inline CLI::Validator Real(double lo, double hi, const std::string& what = "a number")
{
    char range[64];
    std::snprintf(range, sizeof range, " from %g to %g", lo, hi);
    const std::string rule = "needs " + what + range;
    return CLI::Validator(
        [lo, hi, rule](std::string& v) {
            double x = 0;
            return toReal(v, lo, hi, x) ? std::string() : rule + ", got '" + v + "'";
        },
        "REAL", "Real");
}

// An AMS Net ID a.b.c.d.e.f with every number 0..255.
inline CLI::Validator NetIdText()
{
    return CLI::Validator(
        [](std::string& v) {
            NetId id;
            std::string why;
            return NetId::parse(v, id, &why) ? std::string() : "needs an AMS Net ID A.B.C.D.E.F (each 0..255): " + why;
        },
        "A.B.C.D.E.F", "NetId");
}

// host:port with the port's rule; with a defaultPort other than 0 the port may be left out.
inline CLI::Validator HostPortText(PortRule rule = PortRule::NonZero, uint16_t defaultPort = 0)
{
    return CLI::Validator(
        [rule, defaultPort](std::string& v) {
            HostPort hp;
            std::string why;
            return parseHostPort(v, hp, rule, &why, defaultPort) ? std::string() : "needs HOST:PORT: " + why;
        },
        "HOST:PORT", "HostPort");
}

// A new App for a tool: an option given twice takes the later value (scripts put their
// defaults first), "--help"/"-h" is the help flag.
inline void prepare(CLI::App& app)
{
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.allow_windows_style_options(false);
}

// Parses argv. Returns -1 when the program goes on, otherwise its exit code: 0 after the help
// text (helpText, or CLI11's own when empty) was printed, usageExit after an error printed as
// one line "PROG: --option: what is wrong (see PROG --help)".
inline int parse(CLI::App& app, int argc, const char* const* argv, const std::string& prog,
    const std::string& helpText = std::string(), int usageExit = 2)
{
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        if (helpText.empty())
            std::fputs(app.help().c_str(), stdout);
        else
            std::fputs(helpText.c_str(), stdout);
        return 0;
    } catch (const CLI::ParseError& e) {
        std::string what = e.what();
        for (char& c : what)
            if (c == '\n')
                c = ' ';
        std::fprintf(stderr, "%s: %s (see %s --help)\n", prog.c_str(), what.c_str(), prog.c_str());
        return usageExit;
    }
    return -1;
}

// One usage error in the same one-line form.
inline int usageError(const std::string& prog, const std::string& what, int usageExit = 2)
{
    std::fprintf(stderr, "%s: %s (see %s --help)\n", prog.c_str(), what.c_str(), prog.c_str());
    return usageExit;
}

}  // namespace cli
}  // namespace adstool

#endif  // ADSTOOL_CLI_H
