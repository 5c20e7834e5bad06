// The command line of adshost --discover and --add-route: their options on adshost's CLI11
// parser and the checks of what goes with what. main.cpp adds the options and hands over.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace adshost {
namespace discover {

struct CliOptions {
    bool discover = false;
    bool addRoute = false;
    std::string broadcast;
    unsigned long long udpPort = 48899;
    std::string user;
    std::string passwordFile;
    std::string passwordEnv;
    std::string routeName;
    std::string localNetId;
    std::string localAddress;
    bool temporary = false;
};

// Adds --discover, --add-route and their options to adshost's parser.
void addCliOptions(CLI::App& app, CliOptions& o);

// What adshost's shared options say; --plc may lack its port here.
struct SharedOptions {
    std::string plcText;    // HOST or HOST:PORT
    std::string netIdText;  // --netid as given (count tells whether it was)
    unsigned long long timeoutMs = 0;
    bool json = false;
};

// -1 when neither --discover nor --add-route was given; otherwise runs the mode and returns
// adshost's exit status (2 for options that do not go with it).
int runCli(const CLI::App& app, const CliOptions& o, const SharedOptions& shared);

// The text of --help on the two modes and their exit status.
extern const char* const kCliDescription;

}  // namespace discover
}  // namespace adshost
