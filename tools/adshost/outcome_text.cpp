#include "outcome_text.h"

namespace adshost {
namespace outcome {

std::string noAnswer(const std::string& source)
{
    return "connected, but no answer: the PLC most likely has no route for this panel's AMS Net ID " + source
        + "; add one on the PLC";
}

namespace {
// An ADS error of a request on an address of the user's, with what it most likely means.
std::string adsErrorMeaning(const ReplyCodes& c)
{
    const std::string t = codesText(c);
    switch (c.adsResult) {
    case 0x701:
        return t + ": the PLC does not offer this request";
    case 0x702:
        return t + ": the PLC has no such area";
    case 0x703:
    case 0x705:
        return t + ": the address lies beyond the PLC's area; check the address";
    case 0x704:
        return t + ": the PLC does not allow this access";
    default:
        return t;
    }
}
}  // namespace

std::string meaning(const Config& cfg, const ReplyCodes& c, const ReplyFacts& f)
{
    if (c.header && c.amsError == 0x7)
        return "AMS error 0x7 (target machine not found): the PLC's AMS Net ID is not " + cfg.netId
            + ": check --netid";
    if (c.header && c.amsError == 0x6)
        return "AMS error 0x6 (target port not found): no ADS port " + std::to_string(f.port)
            + " on the PLC: check --ams-port";
    if (c.header && c.amsError != 0)
        return codesText(c);
    if (c.hasResult && c.adsResult != 0)
        return f.addressed ? adsErrorMeaning(c) : codesText(c);
    if (!f.anyReply && f.lost)
        return "connected, but the PLC closed the connection without answering: it most likely has no route for "
               "this panel's AMS Net ID "
            + f.source + "; add one on the PLC";
    if (!f.anyReply)
        return noAnswer(f.source);
    if (f.lost)
        return "the PLC closed the connection";
    if (f.timedOut && f.replyBytes == 0)
        return "no answer within " + std::to_string(cfg.replyTimeoutMs) + " ms";
    return "a reply of " + std::to_string(f.replyBytes) + " bytes, not the length the driver expects";
}

std::string givenUp(const std::string& meaning) { return "given up after the retry limit: " + meaning; }

std::string bitReadGivenUp(const std::string& meaning)
{
    return "the read before the bit write was given up: " + meaning;
}

std::string writeRefused(const std::string& meaning) { return "the PLC refused the write: " + meaning; }

std::string transferRefused(const std::string& meaning) { return "the PLC refused it: " + meaning; }

std::string notAms(const Config& cfg, int replyBytes)
{
    return "the answer is no AMS/TCP frame (" + std::to_string(replyBytes)
        + " bytes that do not start with an AMS/TCP header): is " + cfg.plcHost + ":" + std::to_string(cfg.plcPort)
        + " an AMS/TCP port?";
}

std::string settledLongAgo() { return "settled long ago; its outcome is no longer known"; }

}  // namespace outcome
}  // namespace adshost
