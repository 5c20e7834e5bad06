// adshost --probe: a commissioning check of the path from a panel to a PLC.
//
// Sends its own ReadDeviceInfo and ReadState requests (not the driver's frames) to the
// PLC's AMS Net ID and port, with the source AMS Net ID the panel's driver would use, and
// says in one line what is wrong when the PLC does not answer as it should.
#pragma once

#include "adstool/netid.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace adshost {
namespace probe {

// Exit codes of adshost, in driver mode and with --probe (listed in --help).
enum Exit : int {
    ExitOk = 0,
    ExitNoConnection = 1,  // could not start: no TCP connection, plugin, capture file
    ExitUsage = 2,
    ExitConnectionLost = 3,  // driver mode: the connection was lost and not made again
    ExitNoAnswer = 4,        // connected, but no reply (no route) or the PLC closed
    ExitAmsError = 5,        // error code in the reply's AMS header (no such port or machine)
    ExitAdsError = 6,        // an ADS result not 0 (a refused request)
    ExitNotRunning = 7,      // the PLC answers but its ADS state is not RUN
    ExitBadReply = 8,        // a reply that is not a well-formed answer to the request
    ExitUnfinished = 9,      // driver mode: an action not finished, or given up without a code
};

struct Options {
    std::string host = "127.0.0.1";
    uint16_t port = 48898;
    std::string netId;  // the PLC's AMS Net ID, "a.b.c.d.e.f"
    int amsPort = 851;
    std::string sourceNetId;  // empty: found as the driver finds it
    int timeoutMs = 2000;     // connect time-out and reply time-out
    // Set (by a signal handler) to stop waiting at once: the probe ends with ExitUnfinished.
    const volatile sig_atomic_t* interrupted = nullptr;
    uint16_t udpPort = 48899;  // the device's UDP service, asked when the probe finds no route or no Net ID
};

// The own-address rule of the driver, from the tool library.
using adstool::localIpv4Addresses;
using adstool::panelAddressFor;

// Parses a six-part Net ID ("a.b.c.d.e.f", each 0..255).
bool parseNetId(const std::string& text, uint8_t out[6]);

// Runs the probe: progress and the result on `out`, a failure line on `err`. The command
// line is adshost's (main.cpp), shared with driver mode.
int run(const Options& opt, FILE* out, FILE* err);

// The request frame the probe sends: AMS/TCP and AMS header, no ADS data, flags 0x0004,
// from source port 0x8147 (the port of the driver's requests).
std::vector<uint8_t> requestFrame(
    const uint8_t target[6], uint16_t targetPort, const uint8_t source[6], uint16_t command, uint32_t invoke);

}  // namespace probe
}  // namespace adshost
