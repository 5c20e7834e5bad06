// The host's words for how a request ended: the meaning of a reply's codes (or of its
// absence) with the likely fix, and the reasons an action failed. Made only for a failure
// or when asked (Session::explain), never for an accepted reply.
#pragma once

#include "adshost.h"

#include <string>

namespace adshost {
namespace outcome {

// What is known of one request when its outcome is told.
struct ReplyFacts {
    int port = 0;         // the AMS port the frame went to
    std::string source;   // the Net ID the driver sent as
    bool timedOut = false;
    bool lost = false;    // the connection was lost
    int replyBytes = 0;   // bytes that arrived
    bool addressed = true;  // false for the handshake: it names no address of the user's
    bool anyReply = false;  // a byte of a reply ever arrived in this session
};

// "connected, but no answer: ... no route for this panel's AMS Net ID X; add one on the PLC"
std::string noAnswer(const std::string& source);
// The meaning of a reply's codes with the likely fix: "AMS error 0x6 (target port not
// found): no ADS port 851 on the PLC: check --ams-port".
std::string meaning(const Config& cfg, const ReplyCodes& c, const ReplyFacts& f);

// Why an action failed, followed by the meaning of the codes.
std::string givenUp(const std::string& meaning);            // after the driver's retry limit
std::string bitReadGivenUp(const std::string& meaning);     // the read before a bit write
std::string writeRefused(const std::string& meaning);       // a write the PLC refused
std::string transferRefused(const std::string& meaning);    // a recipe request the PLC refused
std::string notAms(const Config& cfg, int replyBytes);      // the peer speaks no AMS/TCP
// An action asked for by id after it was let go from the kept ones.
std::string settledLongAgo();

}  // namespace outcome
}  // namespace adshost
