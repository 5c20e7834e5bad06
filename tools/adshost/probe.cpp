#include "probe.h"
#include "discover.h"
#include "text_util.h"

#include "adstool/deadline_io.h"
#include "adstool/hex.h"
#include "adstool/le.h"
#include "adstool/netid.h"

#include <algorithm>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace adshost {
namespace probe {

namespace {

constexpr uint16_t kCmdReadDeviceInfo = 1;
constexpr uint16_t kCmdReadState = 4;
constexpr uint16_t kSourcePort = 0x8147;  // the port the driver's reads and writes come from
constexpr uint16_t kFlagsRequest = 0x0004;
constexpr uint16_t kFlagResponse = 0x0001;
constexpr size_t kTcpHeader = 6;
constexpr size_t kAmsHeader = 32;
constexpr uint32_t kMaxBody = 0x10000;
constexpr uint16_t kAdsStateRun = 5;

using util::nowMs;
using util::split;

std::string hex(uint32_t v) { return adstool::hexNumber(v, true); }

std::string netIdText(const uint8_t b[6]) { return adstool::NetId::fromBytes(b).str(); }

using adstool::getU16;
using adstool::getU32;
using adstool::putU16;
using adstool::putU32;

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

// One TCP connection with time-outs.
class Link {
public:
    ~Link()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }

    // 0 on success; otherwise the exit code, with `why` set.
    int connect(const std::string& host, uint16_t port, int timeoutMs, std::string& why)
    {
        const std::string where = host + ":" + std::to_string(port);
        sockaddr_in a {};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        if (inet_pton(AF_INET, host.c_str(), &a.sin_addr) != 1) {
            addrinfo hints {};
            hints.ai_family = AF_INET;
            hints.ai_socktype = SOCK_STREAM;
            addrinfo* res = nullptr;
            if (::getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || !res) {
                why = "cannot resolve the PLC host '" + host + "' to an IPv4 address";
                return ExitNoConnection;
            }
            a.sin_addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr;
            ::freeaddrinfo(res);
        }
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd_ < 0) {
            why = std::string("socket: ") + std::strerror(errno);
            return ExitNoConnection;
        }
        const int one = 1;
        ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        int err = 0;
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0) {
            if (errno != EINPROGRESS) {
                err = errno;
            } else {
                pollfd p {fd_, POLLOUT, 0};
                int r = 0;
                const int64_t deadline = nowMs() + timeoutMs;
                // In slices, so that a signal (Ctrl-C) ends the wait at once.
                for (int guard = 0; guard < 100000; ++guard) {
                    if (stopRequested()) {
                        why = "stopped by a signal while connecting to " + where;
                        return ExitUnfinished;
                    }
                    const int64_t left = deadline - nowMs();
                    r = left > 0 ? ::poll(&p, 1, int(std::min<int64_t>(left, kSliceMs))) : 0;
                    if (r == 0 && left > kSliceMs)
                        continue;
                    if (!(r < 0 && errno == EINTR))
                        break;
                }
                if (r <= 0) {
                    why = "no TCP connection to " + where + " within " + std::to_string(timeoutMs)
                        + " ms: the address does not answer (wrong address, no network path, or a firewall)";
                    return ExitNoConnection;
                }
                socklen_t len = sizeof err;
                ::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &len);
            }
        }
        if (err == ECONNREFUSED) {
            why = "connection refused by " + where
                + ": nothing listens there; the ADS/AMS router port is usually 48898";
            return ExitNoConnection;
        }
        if (err) {
            why = "cannot connect to " + where + ": " + std::strerror(err);
            return ExitNoConnection;
        }
        return 0;
    }

    bool sendAll(const std::vector<uint8_t>& v, int timeoutMs)
    {
        return adstool::sendAll(fd_, v.data(), v.size(), adstool::Deadline(timeoutMs)) == adstool::IoStatus::Ok;
    }

    const volatile sig_atomic_t* interrupted = nullptr;  // set by a signal handler: stop waiting
    bool stopRequested() const { return interrupted && *interrupted; }
    static constexpr int64_t kSliceMs = 50;

    enum Read { Ok, TimedOut, Closed, Interrupted };
    // Exactly n more bytes into out, or time-out / close.
    Read readExact(size_t n, std::vector<uint8_t>& out, int64_t deadline)
    {
        const size_t at = out.size();
        out.resize(at + n);
        // Byte by byte up to what arrived, so that a reply cut short shows how far it got.
        size_t got = 0;
        while (got < n) {
            if (stopRequested()) {
                out.resize(at + got);
                return Interrupted;
            }
            size_t k = 0;
            const adstool::Deadline slice = adstool::Deadline::at(std::min(deadline, nowMs() + kSliceMs));
            const adstool::IoStatus st = adstool::recvSome(fd_, out.data() + at + got, n - got, k, slice);
            if (st == adstool::IoStatus::TimedOut && nowMs() < deadline)
                continue;
            if (st != adstool::IoStatus::Ok) {
                out.resize(at + got);
                return st == adstool::IoStatus::TimedOut ? TimedOut : Closed;
            }
            got += k;
        }
        return Ok;
    }

private:
    int fd_ = -1;
};

struct Reply {
    uint32_t amsError = 0;
    std::vector<uint8_t> data;  // ADS data after the AMS header
};

class Prober {
public:
    Prober(const Options& o, FILE* out, FILE* err) : opt(o), out(out), err(err) { }

    int fail(int code, const std::string& line)
    {
        std::fprintf(err, "adshost: %s\n", line.c_str());
        std::fflush(err);
        return code;
    }

    int run()
    {
        const int status = steps();
        if (status == ExitNoAnswer || status == ExitAmsError)
            commissioningHints(status);
        return status;
    }

private:
    // After no answer (no route) or an AMS error: what the device's UDP service says of its
    // Net ID, and the command that adds the missing route.
    void commissioningHints(int status)
    {
        adstool::udp::DeviceInfo info;
        std::string why;
        std::string plcNetId = netIdText(target);
        if (discover::askDevice(opt.host, opt.udpPort, std::min(opt.timeoutMs, 1500), info, why)
            && info.netId.str() != plcNetId) {
            std::fprintf(out,
                "the device at %s reports AMS Net ID %s in discovery, not %s as given with --netid: check "
                "--netid\n",
                opt.host.c_str(), info.netId.str().c_str(), plcNetId.c_str());
            plcNetId = info.netId.str();
        }
        if (status == ExitNoAnswer)
            std::fprintf(out, "to add the route: %s\n",
                discover::addRouteCommand(opt.host, plcNetId, opt.sourceNetId, opt.udpPort).c_str());
        std::fflush(out);
    }

    int steps()
    {
        if (!parseNetId(opt.netId, target))
            return fail(ExitUsage, "--netid needs six numbers 0..255, got '" + opt.netId + "'");
        if (!chooseSource())
            return ExitUsage;
        std::string why;
        link.interrupted = opt.interrupted;
        const int c = link.connect(opt.host, opt.port, opt.timeoutMs, why);
        if (c != 0)
            return fail(c, why);
        std::fprintf(out, "connected to %s:%u, asking AMS Net ID %s port %d\n", opt.host.c_str(), unsigned(opt.port),
            netIdText(target).c_str(), opt.amsPort);
        std::fflush(out);

        Reply info;
        int r = exchange(kCmdReadDeviceInfo, 1, "ReadDeviceInfo", info);
        if (r != 0)
            return r;
        r = resultOf("ReadDeviceInfo", info, 24);
        if (r != 0)
            return r;
        std::string name;
        for (size_t i = 8; i < 24 && info.data[i] != 0; ++i) {
            const uint8_t ch = info.data[i];
            if (ch >= 0x20 && ch < 0x7F) {
                name += char(ch);
            } else {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\x%02X", ch);
                name += buf;
            }
        }
        std::fprintf(out, "device: \"%s\", version %u.%u.%u\n", name.c_str(), unsigned(info.data[4]),
            unsigned(info.data[5]), unsigned(getU16(&info.data[6])));
        std::fflush(out);

        Reply st;
        r = exchange(kCmdReadState, 2, "ReadState", st);
        if (r != 0)
            return r;
        r = resultOf("ReadState", st, 8);
        if (r != 0)
            return r;
        const uint16_t adsState = getU16(&st.data[4]);
        const uint16_t devState = getU16(&st.data[6]);
        if (adsState != kAdsStateRun)
            return fail(ExitNotRunning,
                "the PLC is in " + adsStateName(adsState) + " (ADS state " + std::to_string(adsState) + ")");
        std::fprintf(out, "state: %s (ADS state %u, device state %u)\n", adsStateName(adsState).c_str(),
            unsigned(adsState), unsigned(devState));
        std::fflush(out);
        return ExitOk;
    }

    bool chooseSource()
    {
        if (!opt.sourceNetId.empty()) {
            if (!parseNetId(opt.sourceNetId, source)) {
                fail(ExitUsage, "--source-netid needs six numbers 0..255, got '" + opt.sourceNetId + "'");
                return false;
            }
            std::fprintf(out, "source AMS Net ID %s (given with --source-netid)\n", netIdText(source).c_str());
            std::fflush(out);
            return true;
        }
        const std::vector<std::string> parts = split(opt.netId, '.');
        const std::string addr = panelAddressFor(opt.netId, localIpv4Addresses());
        const std::vector<std::string> ip = split(addr, '.');
        std::memset(source, 0, sizeof source);
        if (ip.size() == 4)
            for (int i = 0; i < 4; ++i)
                source[i] = uint8_t(std::atoi(ip[size_t(i)].c_str()));
        source[4] = 1;
        source[5] = 1;
        if (ip.size() == 4) {
            std::fprintf(out,
                "source AMS Net ID %s (this machine's address %s contains %s and %s, as the driver chooses)\n",
                netIdText(source).c_str(), addr.c_str(), parts[0].c_str(), parts[1].c_str());
        } else {
            std::fprintf(out,
                "source AMS Net ID %s (no IPv4 address of this machine contains %s and %s; the driver "
                "then sends 0.0.0.0.1.1 too)\n",
                netIdText(source).c_str(), parts[0].c_str(), parts[1].c_str());
        }
        std::fflush(out);
        return true;
    }

    std::vector<uint8_t> request(uint16_t cmd, uint32_t invoke) const
    {
        return requestFrame(target, uint16_t(opt.amsPort), source, cmd, invoke);
    }

    // Sends one request and waits for its answer. 0 with `reply` filled, else the exit code.
    int exchange(uint16_t cmd, uint32_t invoke, const std::string& what, Reply& reply)
    {
        if (!link.sendAll(request(cmd, invoke), opt.timeoutMs))
            return fail(ExitNoAnswer, "connected, but the connection broke while sending " + what);
        const int64_t deadline = nowMs() + opt.timeoutMs;
        // Answers to other requests are skipped; a few at most can be queued.
        for (int frames = 0; frames < 64; ++frames) {
            std::vector<uint8_t> f;
            Link::Read r = link.readExact(kTcpHeader, f, deadline);
            if (r == Link::Interrupted)
                return fail(ExitUnfinished, "stopped by a signal while waiting for the answer to " + what);
            if (r == Link::TimedOut && f.empty())
                return fail(ExitNoAnswer,
                    "connected, but no answer: the PLC most likely has no route for this "
                    "panel's AMS Net ID "
                        + netIdText(source) + "; add one on the PLC");
            if (r == Link::Closed && f.empty())
                return fail(ExitNoAnswer,
                    "connected, but the PLC closed the connection without answering: it most "
                    "likely has no route for this panel's AMS Net ID "
                        + netIdText(source) + "; add one on the PLC");
            if (r != Link::Ok)
                return fail(
                    ExitBadReply, "the answer to " + what + " broke off after " + std::to_string(f.size()) + " bytes");
            const uint16_t tcpCmd = getU16(&f[0]);
            const uint32_t len = getU32(&f[2]);
            if (tcpCmd != 0)
                return fail(ExitBadReply,
                    "the answer is no ADS frame (AMS/TCP command " + hex(tcpCmd) + "): is " + opt.host + ":"
                        + std::to_string(opt.port) + " an AMS/TCP port?");
            if (len < kAmsHeader || len > kMaxBody)
                return fail(ExitBadReply,
                    "the answer to " + what + " has an AMS/TCP length of " + std::to_string(len) + " bytes");
            r = link.readExact(len, f, deadline);
            if (r == Link::Interrupted)
                return fail(ExitUnfinished, "stopped by a signal while waiting for the answer to " + what);
            if (r != Link::Ok)
                return fail(ExitBadReply,
                    "the answer to " + what + " broke off after " + std::to_string(f.size()) + " of "
                        + std::to_string(kTcpHeader + len) + " bytes");
            const uint8_t* h = f.data() + kTcpHeader;
            const uint16_t rcmd = getU16(h + 16), flags = getU16(h + 18);
            const uint32_t dataLen = getU32(h + 20), amsError = getU32(h + 24), rinvoke = getU32(h + 28);
            if (rcmd != cmd || rinvoke != invoke || !(flags & kFlagResponse))
                continue;  // not ours
            if (std::memcmp(h, source, 6) != 0)
                return fail(ExitBadReply,
                    "the answer to " + what + " is addressed to " + netIdText(h) + ", not to this panel's AMS Net ID "
                        + netIdText(source));
            if (dataLen != len - kAmsHeader)
                return fail(ExitBadReply,
                    "the answer to " + what + " has an AMS data length of " + std::to_string(dataLen) + " but carries "
                        + std::to_string(len - kAmsHeader) + " bytes");
            if (amsError == 0x6)
                return fail(ExitAmsError,
                    "AMS port " + std::to_string(opt.amsPort) + " has no runtime (ADS error " + errorColon(amsError)
                        + ")");
            if (amsError == 0x7)
                return fail(ExitAmsError,
                    "no AMS Net ID " + netIdText(target) + " behind " + opt.host + ":" + std::to_string(opt.port)
                        + " (ADS error 0x7: target machine not "
                          "found): check the PLC's AMS Net ID");
            if (amsError != 0)
                return fail(ExitAmsError,
                    what + " rejected at AMS port " + std::to_string(opt.amsPort) + " (ADS error "
                        + errorColon(amsError) + ")");
            reply.amsError = amsError;
            reply.data.assign(f.begin() + long(kTcpHeader + kAmsHeader), f.end());
            return 0;
        }
        return fail(ExitBadReply, "no answer to " + what + " among the frames the PLC sent");
    }

    static std::string errorColon(uint32_t code)
    {
        const std::string t = adsErrorText(code);
        return t.empty() ? hex(code) : hex(code) + ": " + t;
    }

    int resultOf(const std::string& what, const Reply& r, size_t need)
    {
        if (r.data.size() < 4)
            return fail(ExitBadReply,
                "the answer to " + what + " carries " + std::to_string(r.data.size())
                    + " data bytes, too few for a result");
        const uint32_t result = getU32(r.data.data());
        if (result != 0)
            return fail(ExitAdsError, what + " failed: ADS error " + errorColon(result));
        if (r.data.size() < need)
            return fail(ExitBadReply,
                "the answer to " + what + " carries " + std::to_string(r.data.size()) + " data bytes, expected "
                    + std::to_string(need));
        return 0;
    }

    Options opt;
    FILE* out;
    FILE* err;
    Link link;
    uint8_t target[6] = {};
    uint8_t source[6] = {};
};

}  // namespace

std::string panelAddressFor(const std::string& plcNetId, const std::vector<std::string>& addresses)
{
    const std::vector<std::string> parts = split(plcNetId, '.');
    for (const std::string& a : addresses) {
        // The driver skips the loopback address 127.0.0.1 and QHostAddress's null address,
        // which no interface lists; 0.0.0.0 is not null to QHostAddress, so it is taken.
        if (a == "127.0.0.1" || a.empty())
            continue;
        if (parts.size() < 2)
            return a;
        if (a.find(parts[0]) != std::string::npos && a.find(parts[1]) != std::string::npos)
            return a;
    }
    return std::string();
}

std::vector<std::string> localIpv4Addresses()
{
    std::vector<std::string> out;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return out;
    for (ifaddrs* i = list; i; i = i->ifa_next) {
        if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET)
            continue;
        char buf[INET_ADDRSTRLEN] = {};
        ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(i->ifa_addr)->sin_addr, buf, sizeof buf);
        out.push_back(buf);
    }
    ::freeifaddrs(list);
    return out;
}

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
    return t.empty() ? hex(code) : hex(code) + " (" + t + ")";
}

std::string adsStateName(uint16_t state)
{
    return state < sizeof kStates / sizeof kStates[0] ? kStates[state] : "UNKNOWN";
}

bool parseNetId(const std::string& text, uint8_t out[6])
{
    adstool::NetId id;
    if (!adstool::NetId::parse(text, id))
        return false;
    std::memcpy(out, id.b, 6);
    return true;
}

std::vector<uint8_t> requestFrame(
    const uint8_t target[6], uint16_t targetPort, const uint8_t source[6], uint16_t command, uint32_t invoke)
{
    std::vector<uint8_t> f;
    putU16(f, 0);                     // AMS/TCP reserved
    putU32(f, uint32_t(kAmsHeader));  // no ADS data
    f.insert(f.end(), target, target + 6);
    putU16(f, targetPort);
    f.insert(f.end(), source, source + 6);
    putU16(f, kSourcePort);
    putU16(f, command);
    putU16(f, kFlagsRequest);
    putU32(f, 0);  // data length
    putU32(f, 0);  // error code
    putU32(f, invoke);
    return f;
}

int run(const Options& opt, FILE* out, FILE* err) { return Prober(opt, out, err).run(); }

}  // namespace probe
}  // namespace adshost
