// adshost's command line: the options as parsed (the argument model) and the session of
// driver mode or the probe they ask for, with the usage error when they do not go together.
#pragma once

#include "adshost.h"
#include "discover_cli.h"
#include "probe.h"

#include "adstool/hostport.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace adshost {
namespace args {

struct Args {
    std::string driverPath, plcText, netIdText = "192.168.1.100.1.1", sourceNetIdText;
    unsigned long long amsPort = 851, cycles = 0, retries = 3, gap = 16, timeoutMs = 0, intervalMs = 0;
    double durationS = 0, actionTimeoutS = 10, pcapLimitMb = 100;
    std::vector<std::string> watchTexts, writeTexts, recipeTexts, conditionTexts;
    std::string pcapPath;
    bool pcapRaw = false, quiet = false, json = false, probeMode = false, version = false;
    discover::CliOptions commissioning;
};

// The text --help starts with.
std::string description();
// adshost's options, help and footer on its parser.
void define(CLI::App& app, Args& a);

// Driver mode as the arguments ask for it.
struct DriverRun {
    Config cfg;  // with the writes, recipe variables and condition reads
    unsigned long long cycles = 0;
    double durationS = 0;
    double actionTimeoutS = 10;
    unsigned long long intervalMs = 0;  // the default when --interval-ms was not given
    bool anyActions = false;            // --write, --recipe or --condition
    bool haveLimit = false;             // --cycles or --duration
};
// False with the usage error in why.
bool driverRun(const Args& a, const CLI::App& app, const adstool::HostPort& plc, DriverRun& run, std::string& why);

// --probe as the arguments ask for it; false with the usage error in why.
bool probeRun(const Args& a, const CLI::App& app, const adstool::HostPort& plc, probe::Options& opt, std::string& why);

// The driver plugin when --driver is not given: beside this program, else the build's
// install location; empty when none is there.
std::string defaultDriver();
std::string driverNotFoundText();

}  // namespace args
}  // namespace adshost
