#include "probe.h"
#include "discover.h"
#include "text_util.h"

#include "adstool/ads_errors.h"
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

using adstool::adsErrorText;
using adstool::adsStateName;
using util::nowMs;
using util::split;

std::string hex(uint32_t v) { return adstool::hexNumber(v, true); }

std::string netIdText(const uint8_t b[6]) { return adstool::NetId::fromBytes(b).str(); }

using adstool::getU16;
using adstool::getU32;
using adstool::putU16;
using adstool::putU32;

// One TCP connection with time-outs.
// One TCP connection with time-outs, through the tool library; the messages are the probe's.
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
        const adstool::ConnectResult r = adstool::connectTcpWaiting(host, port, timeoutMs, interrupted);
        fd_ = r.fd;
        switch (r.status) {
        case adstool::ConnectStatus::Ok:
            return 0;
        case adstool::ConnectStatus::Unresolved:
            why = "cannot resolve the PLC host '" + host + "' to an IPv4 address";
            return ExitNoConnection;
        case adstool::ConnectStatus::NoSocket:
            why = std::string("socket: ") + std::strerror(r.error);
            return ExitNoConnection;
        case adstool::ConnectStatus::Interrupted:
            why = "stopped by a signal while connecting to " + where;
            return ExitUnfinished;
        case adstool::ConnectStatus::TimedOut:
            why = "no TCP connection to " + where + " within " + std::to_string(timeoutMs)
                + " ms: the address does not answer (wrong address, no network path, or a firewall)";
            return ExitNoConnection;
        case adstool::ConnectStatus::Refused:
            why = "connection refused by " + where + ": nothing listens there; the ADS/AMS router port is usually 48898";
            return ExitNoConnection;
        case adstool::ConnectStatus::Failed:
            break;
        }
        why = "cannot connect to " + where + ": " + std::strerror(r.error);
        return ExitNoConnection;
    }

    bool sendAll(const std::vector<uint8_t>& v, int timeoutMs)
    {
        return adstool::sendAll(fd_, v.data(), v.size(), adstool::Deadline(timeoutMs)) == adstool::IoStatus::Ok;
    }

    const volatile sig_atomic_t* interrupted = nullptr;  // set by a signal handler: stop waiting

    using Read = adstool::ReadStatus;
    // Exactly n more bytes into out, or time-out / close / a signal.
    Read readExact(size_t n, std::vector<uint8_t>& out, int64_t deadline)
    {
        return adstool::readExactWaiting(fd_, n, out, deadline, interrupted);
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
            if (r == Link::Read::Interrupted)
                return fail(ExitUnfinished, "stopped by a signal while waiting for the answer to " + what);
            if (r == Link::Read::TimedOut && f.empty())
                return fail(ExitNoAnswer,
                    "connected, but no answer: the PLC most likely has no route for this "
                    "panel's AMS Net ID "
                        + netIdText(source) + "; add one on the PLC");
            if (r == Link::Read::Closed && f.empty())
                return fail(ExitNoAnswer,
                    "connected, but the PLC closed the connection without answering: it most "
                    "likely has no route for this panel's AMS Net ID "
                        + netIdText(source) + "; add one on the PLC");
            if (r != Link::Read::Ok)
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
            if (r == Link::Read::Interrupted)
                return fail(ExitUnfinished, "stopped by a signal while waiting for the answer to " + what);
            if (r != Link::Read::Ok)
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
