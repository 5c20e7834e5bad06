// What adshost tells: the human-readable lines and, with --json, one JSON object per line;
// the values, the actions with their outcome, the figures, and the exit status with its reason.
#pragma once

#include "adshost.h"

#include <cstdint>
#include <string>
#include <vector>

namespace adshost {
namespace report {

// Output: human-readable lines, or one JSON object per line (--json).
struct Out {
    bool json = false;
    bool quiet = false;
    void line(const std::string& text, const std::string& jsonObject);
    // A diagnostic: always one text line on stderr; in JSON mode an "error" object too.
    void error(const std::string& text, const std::string& kind);
};

std::string hex16(unsigned v);   // "0x00FF"
std::string realText(double v);  // "%g"
std::string valuesText(const Address& a, const std::vector<uint8_t>& v);
std::string valuesJson(const Address& a, const std::vector<uint8_t>& v);
std::string figuresJson(const Stats& s);

// The panel's own AMS Net ID as the driver chose it, with a warning when no IPv4 address of
// this machine matched the PLC's Net ID.
void sourceNetId(Out& out, const Session& session, const std::string& plcNetId);

// The live table (a terminal only): every watched value and the figures.
std::string screen(Session& session, const Config& cfg);

// The recipe read back after a download: its text and JSON, and whether it matches.
struct RecipeReadBack {
    bool skipped = false;  // the download failed, the read-back was not started
    bool matches = true;
    std::string line, json;
};
void recipeReadBack(Session& session, const Config& cfg, bool anyValues, RecipeReadBack& r);

// The value of every watched address and condition read; whether any was never read or is stale.
struct ValuesSeen {
    bool neverRead = false;
    bool anyStale = false;
};
ValuesSeen values(Out& out, Session& session, bool quiet, bool json);

// Every action asked for, with its outcome. notFinishedWhy is said of an action not finished.
struct ActionsSeen {
    bool anyFailedAms = false;
    bool anyFailedAds = false;
    bool anyUnfinished = false;
};
ActionsSeen actions(Out& out, Session& session, const Config& cfg, bool writesHandedOver,
    const RecipeReadBack& recipe, const std::string& notFinishedWhy);

// The exit status of driver mode and its reason, with the error line that explains it.
int exitStatus(Out& out, Session& session, const Stats& stats, const ActionsSeen& actions,
    const ValuesSeen& values, bool adsErrorSeen, std::string& reason);

}  // namespace report
}  // namespace adshost
