#include "adstool/ads_errors.h"

#include "adstool/hex.h"

namespace adstool {

namespace {

struct ErrorEntry {
    uint32_t code;
    const char* text;
};

// The common ADS return codes (router, AMS and device errors).
const ErrorEntry kErrors[] = {
    {0x0, "no error"},
    {0x1, "internal error"},
    {0x2, "no real-time"},
    {0x3, "allocation locked memory error"},
    {0x4, "mailbox full"},
    {0x5, "wrong receive HMSG"},
    {0x6, "target port not found"},
    {0x7, "target machine not found"},
    {0x8, "unknown command id"},
    {0x9, "invalid task id"},
    {0xA, "no IO"},
    {0xB, "unknown AMS command"},
    {0xC, "Win32 error"},
    {0xD, "port not connected"},
    {0xE, "invalid AMS length"},
    {0xF, "invalid AMS Net ID"},
    {0x10, "installation level too low"},
    {0x11, "no debugging available"},
    {0x12, "port disabled"},
    {0x13, "port already connected"},
    {0x14, "AMS sync Win32 error"},
    {0x15, "AMS sync time-out"},
    {0x16, "AMS sync error"},
    {0x17, "AMS sync no index map"},
    {0x18, "invalid AMS port"},
    {0x19, "no memory"},
    {0x1A, "TCP send error"},
    {0x1B, "host unreachable"},
    {0x1C, "invalid AMS fragment"},
    {0x500, "router: no locked memory"},
    {0x501, "router: memory size could not be changed"},
    {0x502, "router: mailbox full"},
    {0x503, "router: debug mailbox full"},
    {0x504, "router: unknown port type"},
    {0x505, "router: not initialised"},
    {0x506, "router: port number already assigned"},
    {0x507, "router: port not registered"},
    {0x508, "router: maximum number of ports reached"},
    {0x509, "router: invalid port"},
    {0x50A, "router: not active"},
    {0x700, "device error"},
    {0x701, "service not supported"},
    {0x702, "invalid index group"},
    {0x703, "invalid index offset"},
    {0x704, "reading or writing not permitted"},
    {0x705, "invalid size"},
    {0x706, "invalid data values"},
    {0x707, "device not ready"},
    {0x708, "device busy"},
    {0x709, "invalid context"},
    {0x70A, "out of memory"},
    {0x70B, "invalid parameter values"},
    {0x70C, "not found"},
    {0x70D, "syntax error"},
    {0x70E, "objects do not match"},
    {0x70F, "object already exists"},
    {0x710, "symbol not found"},
    {0x711, "symbol version invalid"},
    {0x712, "server is in an invalid state"},
    {0x713, "transmission mode not supported"},
    {0x714, "notification handle is invalid"},
    {0x715, "notification client not registered"},
    {0x716, "no more notification handles"},
    {0x717, "notification size too large"},
    {0x718, "device not initialised"},
    {0x719, "device time-out"},
    {0x71A, "query interface failed"},
    {0x71B, "wrong interface requested"},
    {0x71C, "invalid class id"},
    {0x71D, "invalid object id"},
    {0x71E, "request pending"},
    {0x71F, "request aborted"},
    {0x720, "signal warning"},
    {0x721, "invalid array index"},
    {0x722, "symbol not active"},
    {0x723, "access denied"},
    {0x724, "missing license"},
    {0x740, "client error"},
    {0x741, "invalid parameter (client)"},
    {0x742, "polling list empty"},
    {0x743, "variable connection already in use"},
    {0x744, "invoke id already in use"},
    {0x745, "client time-out"},
    {0x746, "no AMS address"},
    {0x748, "client port not open"},
    {0x749, "no AMS address (client)"},
    {0x750, "internal error in ADS sync"},
    {0x751, "hash table overflow"},
    {0x752, "key not found in hash table"},
    {0x753, "no more symbols in cache"},
    {0x754, "invalid response received"},
    {0x755, "sync port locked"},
};

const char* const kStates[]
    = {"INVALID", "IDLE", "RESET", "INIT", "START", "RUN", "STOP", "SAVECFG", "LOADCFG", "POWERFAILURE", "POWERGOOD",
        "ERROR", "SHUTDOWN", "SUSPEND", "RESUME", "CONFIG", "RECONFIG", "STOPPING", "INCOMPATIBLE", "EXCEPTION"};

}  // namespace

std::string adsErrorText(uint32_t code)
{
    for (const ErrorEntry& e : kErrors)
        if (e.code == code)
            return e.text;
    return std::string();
}

std::string adsErrorLabel(uint32_t code)
{
    const std::string t = adsErrorText(code);
    const std::string number = hexNumber(code, true);
    return t.empty() ? number : number + " (" + t + ")";
}

std::string adsStateName(uint16_t state)
{
    return state < sizeof kStates / sizeof kStates[0] ? kStates[state] : "UNKNOWN";
}

}  // namespace adstool
