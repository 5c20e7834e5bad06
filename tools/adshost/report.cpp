#include "report.h"

#include "probe.h"
#include "text_util.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace adshost {
namespace report {

using namespace probe;  // the exit codes
using util::jsonEscape;

void Out::line(const std::string& text, const std::string& jsonObject)
{
    if (json)
        std::printf("%s\n", jsonObject.c_str());
    else
        std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

void Out::error(const std::string& text, const std::string& kind)
{
    std::fprintf(stderr, "adshost: %s\n", text.c_str());
    std::fflush(stderr);
    if (json) {
        std::printf("{\"type\":\"error\",\"kind\":%s,\"message\":%s}\n", jsonEscape(kind).c_str(),
            jsonEscape(text).c_str());
        std::fflush(stdout);
    }
}

std::string hex16(unsigned v)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%04X", v & 0xFFFF);
    return buf;
}

std::string valuesText(const Address& a, const std::vector<uint8_t>& v)
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

std::string valuesJson(const Address& a, const std::vector<uint8_t>& v)
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

std::string figuresJson(const Stats& s)
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

// The panel's own AMS Net ID as the driver chose it (the PLC needs a route for it), with a
// warning when no IPv4 address of this machine matched the PLC's Net ID: the driver then
// sends as 0.0.0.0.1.1, for which no PLC has a route.
void sourceNetId(Out& out, const Session& session, const std::string& plcNetId)
{
    const std::vector<std::string> parts = util::split(plcNetId, '.');
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

std::string screen(Session& session, const Config& cfg)
{
    std::string screen = "\033[H\033[2J";
    screen += "adshost  " + cfg.plcHost + ":" + std::to_string(cfg.plcPort) + "  driver " + session.driverVersion()
        + "\n\n";
    for (const Address& w : session.watches()) {
        char line[64];
        std::snprintf(line, sizeof line, "  %-18s ", w.text().c_str());
        const Freshness f = session.freshness(w);
        screen += line + (f.read ? valuesText(w, session.read(w)) : std::string("never read"))
            + (f.read && f.stale ? " (stale, read " + realText(std::round(f.ageMs / 100.0) / 10.0) + " s ago)" : "")
            + "\n";
    }
    screen += "\n" + session.stats().figuresLine() + "\n";
    return screen;
}

void recipeReadBack(Session& session, const Config& cfg, bool anyValues, RecipeReadBack& r)
{
    std::string vars, varsJson;
    for (const RecipeVar& v : cfg.recipe) {
        vars += " " + v.addr.text() + "=";
        varsJson += std::string(varsJson.empty() ? "" : ",") + "{\"address\":" + jsonEscape(v.addr.text())
            + ",\"values\":[";
        for (int k = 0; k < v.addr.count; ++k) {
            const uint16_t got = session.recipeWord(v.rcpDataIndex + k);
            vars += (k ? "," : "") + hex16(got);
            varsJson += (k ? "," : "") + std::to_string(got);
            if (!v.values.empty() && got != v.values[size_t(k)])
                r.matches = false;
        }
        varsJson += "]}";
    }
    r.line = vars;
    if (anyValues)
        r.line += r.matches ? " (matches the download)" : " (DIFFERS from the download)";
    r.json = ",\"variables\":[" + varsJson + "]"
        + (anyValues ? std::string(",\"matches\":") + (r.matches ? "true" : "false") : "");
}

ValuesSeen values(Out& out, Session& session, bool quiet, bool json)
{
    ValuesSeen seen;
    bool& neverRead = seen.neverRead;
    bool& anyStale = seen.anyStale;
    auto valueLine = [&](const Address& a, const char* kind) {
        // A condition read shows the PLC's reply to it (the driver's cache may have lost it).
        const bool condition = !std::strcmp(kind, "condition");
        std::vector<uint8_t> v;
        const Freshness f = condition ? session.conditionValue(a, v) : session.freshness(a);
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
    for (const Address& a : session.watches())
        valueLine(a, "watch");
    for (const Address& a : session.conditions())
        valueLine(a, "condition");
    return seen;
}

namespace {

// The actions asked for, with those never started: writes not handed over, a recipe
// transfer not asked of the driver.
std::vector<Action> actionsAskedFor(Session& session, const Config& cfg, bool writesHandedOver, bool recipeSkipped)
{
    std::vector<Action> acts = session.actions();
    if (!writesHandedOver)
        for (const Write& w : session.writes()) {
            Action a;
            a.kind = "write";
            a.what = w.text();
            acts.push_back(a);
        }
    bool recipeWriteAsked = false, recipeReadAsked = false;
    for (const Action& a : acts) {
        recipeWriteAsked = recipeWriteAsked || a.kind == "recipe write";
        recipeReadAsked = recipeReadAsked || a.kind == "recipe read";
    }
    bool anyValues = false;
    for (const RecipeVar& r : cfg.recipe)
        anyValues = anyValues || !r.values.empty();
    if (anyValues && !recipeWriteAsked) {
        Action a;
        a.kind = "recipe write";
        a.what = std::to_string(cfg.recipe.size()) + " variables";
        acts.push_back(a);
    }
    if (!cfg.recipe.empty() && !recipeReadAsked) {
        Action a;
        a.kind = "recipe read";
        a.what = std::to_string(cfg.recipe.size()) + " variables";
        if (recipeSkipped)
            a.why = "not started: the recipe write failed";
        acts.push_back(a);
    }
    return acts;
}

// One action's line; its outcome goes into seen.
void actionLine(Out& out, const Action& a, const RecipeReadBack& recipe, const std::string& notFinishedWhy,
    ActionsSeen& seen)
{
    std::string status, detail = a.why;
    if (a.state == Action::Done) {
        status = "done";
        if (a.kind == "write")
            detail = "confirmed by the PLC, ADS result 0";
        if (a.kind == "recipe read" && !recipe.matches) {
            status = "FAILED";
            seen.anyUnfinished = true;
        }
    } else if (a.state == Action::Failed) {
        status = "FAILED";
        if (a.codes.header && a.codes.amsError != 0)
            seen.anyFailedAms = true;
        else if (a.codes.hasResult && a.codes.adsResult != 0)
            seen.anyFailedAds = true;
        else
            seen.anyUnfinished = true;
    } else {
        status = "NOT FINISHED";
        if (detail.empty())
            detail = notFinishedWhy;
        seen.anyUnfinished = true;
    }
    const bool recipeRead = a.kind == "recipe read" && a.state == Action::Done;
    std::string text = a.kind + ": " + status;
    if (recipeRead)
        text += recipe.line;
    else if (a.kind != "recipe write" && a.kind != "recipe read")
        text += " " + a.what;
    if (!detail.empty() && !recipeRead)
        text += (a.state == Action::Done ? " (" + detail + ")" : ": " + detail);
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
    if (recipeRead)
        j += recipe.json;
    j += "}";
    out.line(text, j);
}

}  // namespace

ActionsSeen actions(Out& out, Session& session, const Config& cfg, bool writesHandedOver,
    const RecipeReadBack& recipe, const std::string& notFinishedWhy)
{
    ActionsSeen seen;
    for (const Action& a : actionsAskedFor(session, cfg, writesHandedOver, recipe.skipped))
        actionLine(out, a, recipe, notFinishedWhy, seen);
    return seen;
}

int exitStatus(Out& out, Session& session, const Stats& stats, const ActionsSeen& actions,
    const ValuesSeen& values, bool adsErrorSeen, std::string& reason)
{
    const Fatal fatal = session.fatal();
    const bool anyFailedAms = actions.anyFailedAms, anyFailedAds = actions.anyFailedAds,
               anyUnfinished = actions.anyUnfinished;
    const bool neverRead = values.neverRead, anyStale = values.anyStale;
    int status = ExitOk;
    reason = "every action asked for was confirmed";
    if (session.failedForGood()) {
        status = ExitConnectionLost;
        reason = session.failure();
        out.error(reason, "connection");
    } else if (fatal.kind == Fatal::NoAnswer) {
        status = ExitNoAnswer;
        reason = fatal.message;
        out.error("stopped: " + reason, "no answer");
    } else if (fatal.kind == Fatal::AmsError) {
        status = ExitAmsError;
        reason = fatal.message;
        out.error("stopped: " + reason, "ams error");
    } else if (fatal.kind == Fatal::NotAms) {
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
    return status;
}

}  // namespace report
}  // namespace adshost
