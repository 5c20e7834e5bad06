#include "discover.h"

#include "probe.h"

#include "adstool/ads_errors.h"
#include "text_util.h"

#include "adstool/deadline_io.h"
#include "adstool/le.h"
#include "adstool/netid.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace adshost {
namespace discover {

namespace udp = adstool::udp;
using namespace adshost::probe;  // the exit codes, the own-address rule
using adstool::adsErrorLabel;
using util::jsonEscape;
using util::nowMs;

namespace {

uint32_t newInvokeId() { return uint32_t(nowMs()) ^ (uint32_t(::getpid()) << 16) ^ 0x5A5A0000u; }

std::string ipText(const in_addr& a)
{
    char buf[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}

// An IPv4 address, or a host name resolved to one.
bool resolve(const std::string& host, in_addr& out, std::string& why)
{
    if (::inet_pton(AF_INET, host.c_str(), &out) == 1)
        return true;
    addrinfo hints {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* res = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || !res) {
        why = "cannot resolve '" + host + "' to an IPv4 address";
        return false;
    }
    out = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr;
    ::freeaddrinfo(res);
    return true;
}

// The address this machine sends from to reach `to` (the routing table's choice); "" if none.
std::string sourceAddressFor(const in_addr& to)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return std::string();
    const int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
    sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_port = htons(udp::kDefaultPort);
    a.sin_addr = to;
    std::string out;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
        sockaddr_in self {};
        socklen_t len = sizeof self;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&self), &len) == 0)
            out = ipText(self.sin_addr);
    }
    ::close(fd);
    return out;
}

// A UDP socket on an ephemeral port (never 48899: a router on this machine owns it).
class Socket {
public:
    ~Socket()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    bool open(std::string& why)
    {
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd_ < 0) {
            why = std::string("socket: ") + std::strerror(errno);
            return false;
        }
        const int one = 1;
        ::setsockopt(fd_, SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
        sockaddr_in a {};
        a.sin_family = AF_INET;
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            why = std::string("bind: ") + std::strerror(errno);
            return false;
        }
        return true;
    }
    bool sendTo(const in_addr& to, uint16_t port, const std::vector<uint8_t>& bytes, std::string& why)
    {
        sockaddr_in a {};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr = to;
        if (::sendto(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0) {
            why = "cannot send to " + ipText(to) + ":" + std::to_string(port) + ": " + std::strerror(errno);
            return false;
        }
        return true;
    }
    // One datagram before the deadline (cut datagrams come with one byte too many, so that
    // they are refused as malformed). False at the deadline.
    bool receive(int64_t deadline, std::vector<uint8_t>& data, std::string& from)
    {
        for (int guard = 0; guard < 100000; ++guard) {
            const int64_t left = deadline - nowMs();
            if (left <= 0)
                return false;
            pollfd p {fd_, POLLIN, 0};
            const int r = ::poll(&p, 1, int(left));
            if (r < 0 && errno == EINTR)
                continue;
            if (r <= 0)
                return false;
            uint8_t buf[udp::kMaxPacket];
            sockaddr_in peer {};
            socklen_t len = sizeof peer;
            const ssize_t n = ::recvfrom(fd_, buf, sizeof buf, MSG_TRUNC, reinterpret_cast<sockaddr*>(&peer), &len);
            if (n < 0)
                continue;  // e.g. ICMP port unreachable reported on the socket
            data.assign(buf, buf + std::min(size_t(n), sizeof buf));
            if (size_t(n) > sizeof buf)
                data.push_back(0);
            from = ipText(peer.sin_addr);
            return true;
        }
        return false;
    }

private:
    int fd_ = -1;
};

struct Target {
    in_addr address;
    std::string label;  // "10.0.0.255 (eth0)"
};

// Every interface that is up, not loopback, and has an IPv4 broadcast address.
std::vector<Target> interfaceBroadcasts()
{
    std::vector<Target> out;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return out;
    for (ifaddrs* i = list; i; i = i->ifa_next) {
        if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET || !(i->ifa_flags & IFF_UP)
            || (i->ifa_flags & IFF_LOOPBACK) || !(i->ifa_flags & IFF_BROADCAST) || !i->ifa_broadaddr)
            continue;
        Target t;
        t.address = reinterpret_cast<sockaddr_in*>(i->ifa_broadaddr)->sin_addr;
        t.label = ipText(t.address) + " (" + i->ifa_name + ")";
        bool seen = false;
        for (const Target& o : out)
            seen = seen || o.address.s_addr == t.address.s_addr;
        if (!seen)
            out.push_back(t);
    }
    ::freeifaddrs(list);
    return out;
}

void say(FILE* f, const std::string& line)
{
    std::fprintf(f, "%s\n", line.c_str());
    std::fflush(f);
}

// Text lines on stdout, or one JSON object per line; diagnostics on stderr always.
struct Output {
    FILE* out;
    FILE* err;
    bool json;
    void line(const std::string& text, const std::string& jsonObject) const { say(out, json ? jsonObject : text); }
    void progress(const std::string& text) const
    {
        if (!json)
            say(out, text);
    }
    int finish(int status, const std::string& reason, bool failure) const
    {
        if (failure)
            say(err, "adshost: " + reason);
        if (json)
            say(out,
                "{\"type\":\"exit\",\"status\":" + std::to_string(status) + ",\"reason\":" + jsonEscape(reason) + "}");
        return status;
    }
};

std::string deviceText(const Device& d)
{
    std::string s
        = "device " + d.address + ": AMS Net ID " + d.info.netId.str() + ", host name \"" + d.info.hostName + "\"";
    s += ", runtime " + (d.info.hasRuntime ? d.info.runtime.str() : std::string("not reported"));
    s += ", OS " + (d.info.hasOs ? d.info.os.str() : std::string("not reported"));
    if (!d.info.fingerprint.empty())
        s += ", fingerprint " + d.info.fingerprint;
    return s;
}

std::string deviceJson(const Device& d)
{
    std::string s = "{\"type\":\"device\",\"address\":" + jsonEscape(d.address)
        + ",\"netid\":" + jsonEscape(d.info.netId.str()) + ",\"hostname\":" + jsonEscape(d.info.hostName)
        + ",\"runtime\":" + (d.info.hasRuntime ? jsonEscape(d.info.runtime.str()) : "null");
    if (d.info.hasOs)
        s += ",\"os\":{\"platform\":" + std::to_string(d.info.os.platform)
            + ",\"name\":" + jsonEscape(udp::platformName(d.info.os.platform)) + ",\"version\":"
            + jsonEscape(std::to_string(d.info.os.major) + "." + std::to_string(d.info.os.minor) + "."
                + std::to_string(d.info.os.build))
            + ",\"text\":" + jsonEscape(d.info.os.servicePack) + "}";
    else
        s += ",\"os\":null";
    s += ",\"fingerprint\":" + (d.info.fingerprint.empty() ? std::string("null") : jsonEscape(d.info.fingerprint));
    return s + "}";
}

// Restores the terminal when the prompt is interrupted.
int g_ttyFd = -1;
termios g_ttySaved;
extern "C" void restoreTtyAndDie(int sig)
{
    if (g_ttyFd >= 0)
        ::tcsetattr(g_ttyFd, TCSANOW, &g_ttySaved);
    ::signal(sig, SIG_DFL);
    ::raise(sig);
}

bool promptPassword(std::string& out, std::string& why)
{
    const int fd = ::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        why = "no password: give --password-file FILE or --password-env VAR (no terminal to ask on)";
        return false;
    }
    termios t;
    const bool isTty = ::tcgetattr(fd, &t) == 0;
    if (isTty) {
        g_ttyFd = fd;
        g_ttySaved = t;
        ::signal(SIGINT, restoreTtyAndDie);
        ::signal(SIGTERM, restoreTtyAndDie);
        termios quiet = t;
        quiet.c_lflag &= ~tcflag_t(ECHO);
        quiet.c_lflag |= ECHONL;
        ::tcsetattr(fd, TCSAFLUSH, &quiet);
    }
    const char prompt[] = "password of the device's user (not shown): ";
    if (::write(fd, prompt, sizeof prompt - 1) < 0) {
        // nothing to do: the read below tells
    }
    std::string line;
    bool ended = false;
    for (int guard = 0; guard < 1025; ++guard) {
        char c = 0;
        const ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || c == '\n') {
            ended = n > 0;
            break;
        }
        line += c;
    }
    if (isTty) {
        ::tcsetattr(fd, TCSAFLUSH, &t);
        ::signal(SIGINT, SIG_DFL);
        ::signal(SIGTERM, SIG_DFL);
        g_ttyFd = -1;
    }
    ::close(fd);
    if (!ended) {
        why = "no password read from the terminal";
        return false;
    }
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    out = line;
    return true;
}

}  // namespace

Collector::Result Collector::take(const uint8_t* p, size_t n, const std::string& from)
{
    udp::Packet pk;
    if (!udp::parsePacket(p, n, pk, &lastWhy_)) {
        // Without the cookie it is some other protocol's packet, not a bad answer.
        if (n < 4 || adstool::getU32(p) != udp::kCookie) {
            ++foreign_;
            return Foreign;
        }
        ++malformed_;
        lastWhy_ = "answer from " + from + ": " + lastWhy_;
        return Malformed;
    }
    if (pk.invokeId != invokeId_ || pk.service != (udp::kServiceDeviceInfo | udp::kAnswerBit)) {
        ++foreign_;
        return Foreign;
    }
    Device d;
    d.address = from;
    if (!udp::readDeviceInfoAnswer(pk, d.info, &lastWhy_)) {
        ++malformed_;
        lastWhy_ = "answer from " + from + ": " + lastWhy_;
        return Malformed;
    }
    for (const Device& o : devices_)
        if (o.address == d.address && o.info.netId == d.info.netId)
            return Repeat;
    devices_.push_back(d);
    return NewDevice;
}

AnswerKind readRouteAnswer(const uint8_t* p, size_t n, uint32_t invokeId, uint32_t& status, std::string& why)
{
    udp::Packet pk;
    if (!udp::parsePacket(p, n, pk, &why))
        return n >= 4 && adstool::getU32(p) == udp::kCookie ? AnswerKind::Malformed : AnswerKind::Foreign;
    if (pk.invokeId != invokeId || pk.service != (udp::kServiceAddRoute | udp::kAnswerBit))
        return AnswerKind::Foreign;
    return udp::readAddRouteAnswer(pk, status, &why) ? AnswerKind::Status : AnswerKind::Malformed;
}

std::string routeStatusLabel(uint32_t status)
{
    if (!udp::statusText(status).empty())
        return udp::statusLabel(status);
    return adsErrorLabel(status);
}

int runDiscover(const DiscoverOptions& opt, FILE* outFile, FILE* errFile)
{
    const Output out {outFile, errFile, opt.json};
    std::vector<Target> targets;
    std::string why;
    if (!opt.host.empty() || !opt.broadcast.empty()) {
        Target t;
        const std::string& name = opt.host.empty() ? opt.broadcast : opt.host;
        if (!resolve(name, t.address, why))
            return out.finish(ExitNoConnection, why, true);
        t.label = ipText(t.address);
        targets.push_back(t);
    } else {
        targets = interfaceBroadcasts();
        if (targets.empty())
            return out.finish(ExitNoConnection,
                "no IPv4 interface with a broadcast address is up: give --plc HOST or --broadcast ADDR", true);
    }
    Socket sock;
    if (!sock.open(why))
        return out.finish(ExitNoConnection, why, true);
    const uint32_t invoke = newInvokeId();
    Collector collector(invoke);
    size_t sent = 0;
    for (const Target& t : targets) {
        // The request names the Net ID of the address this machine sends it from.
        adstool::NetId sender;
        adstool::NetId::parse(sourceAddressFor(t.address) + ".1.1", sender);
        if (!sock.sendTo(t.address, opt.udpPort, udp::deviceInfoRequest(invoke, sender), why)) {
            say(errFile, "adshost: " + why);
            continue;
        }
        ++sent;
        out.progress("device-info request sent to " + t.label + ", UDP port " + std::to_string(opt.udpPort));
    }
    if (sent == 0)
        return out.finish(ExitNoConnection, "no device-info request could be sent", true);

    const int64_t deadline = nowMs() + opt.timeoutMs;
    std::vector<uint8_t> data;
    std::string from;
    for (int guard = 0; guard < 10000 && sock.receive(deadline, data, from); ++guard) {
        const Collector::Result r = collector.take(data.data(), data.size(), from);
        if (r == Collector::NewDevice) {
            out.line(deviceText(collector.devices().back()), deviceJson(collector.devices().back()));
            if (!opt.host.empty())
                break;  // the one device asked has answered
        } else if (r == Collector::Malformed)
            say(errFile, "adshost: ignored a malformed " + collector.lastWhy());
    }
    const size_t n = collector.devices().size();
    std::string summary = std::to_string(n) + (n == 1 ? " device" : " devices") + " answered";
    if (opt.host.empty() || n == 0)
        summary += " within " + std::to_string(opt.timeoutMs) + " ms";
    if (collector.malformed() > 0)
        summary += "; " + std::to_string(collector.malformed()) + " malformed answers ignored";
    if (collector.foreign() > 0)
        summary += "; " + std::to_string(collector.foreign()) + " other packets ignored";
    out.line(summary,
        "{\"type\":\"summary\",\"devices\":" + std::to_string(n) + ",\"malformed\":"
            + std::to_string(collector.malformed()) + ",\"foreign\":" + std::to_string(collector.foreign()) + "}");
    if (n == 0)
        return out.finish(ExitNoAnswer,
            "no device answered the device-info request within " + std::to_string(opt.timeoutMs)
                + " ms (wrong subnet or UDP port, a firewall, discovery switched off on the device, or a "
                  "device not in Config or Run)",
            true);
    return out.finish(ExitOk, summary, false);
}

bool askDevice(const std::string& host, uint16_t udpPort, int timeoutMs, udp::DeviceInfo& info, std::string& why)
{
    in_addr to {};
    if (!resolve(host, to, why))
        return false;
    Socket sock;
    if (!sock.open(why))
        return false;
    const uint32_t invoke = newInvokeId();
    adstool::NetId sender;
    adstool::NetId::parse(sourceAddressFor(to) + ".1.1", sender);
    if (!sock.sendTo(to, udpPort, udp::deviceInfoRequest(invoke, sender), why))
        return false;
    Collector collector(invoke);
    const int64_t deadline = nowMs() + timeoutMs;
    std::vector<uint8_t> data;
    std::string from;
    for (int guard = 0; guard < 10000 && sock.receive(deadline, data, from); ++guard) {
        if (collector.take(data.data(), data.size(), from) == Collector::NewDevice) {
            info = collector.devices().front().info;
            return true;
        }
    }
    why = collector.malformed() > 0 ? "only malformed answers: " + collector.lastWhy()
                                    : "no answer to the device-info request to " + host + ", UDP port "
            + std::to_string(udpPort) + " within " + std::to_string(timeoutMs) + " ms";
    return false;
}

// The panel's AMS Net ID and address the route is for: given, or found by the driver's rule
// from the PLC's Net ID (asked of the device when not given). -1, or the exit status.
int panelIdentity(const AddRouteOptions& opt, const Output& out, const in_addr& to, std::string& plcNetId,
    std::string& localNetId, std::string& localAddress)
{
    // The PLC's Net ID decides, by the driver's rule, which own address the driver takes.
    plcNetId = opt.plcNetId;
    if (plcNetId.empty()) {
        udp::DeviceInfo info;
        std::string why;
        if (askDevice(opt.host, opt.udpPort, opt.timeoutMs, info, why)) {
            plcNetId = info.netId.str();
            out.progress(
                "the device at " + opt.host + " is AMS Net ID " + plcNetId + " (host name \"" + info.hostName + "\")");
        } else if (opt.localNetId.empty()) {
            return out.finish(ExitNoAnswer,
                why + ": give --netid (the PLC's AMS Net ID the panel is set up with) or --local-netid", true);
        }
    }
    localAddress = opt.localAddress;
    localNetId = opt.localNetId;
    std::string ruleAddress;
    if (!plcNetId.empty())
        ruleAddress = panelAddressFor(plcNetId, localIpv4Addresses());
    if (localNetId.empty()) {
        if (ruleAddress.empty()) {
            const std::vector<std::string> parts = util::split(plcNetId, '.');
            return out.finish(ExitNoConnection,
                "no IPv4 address of this machine contains " + parts[0] + " and " + (parts.size() > 1 ? parts[1] : "")
                    + " (the first two numbers of the PLC's AMS Net ID " + plcNetId
                    + "): the driver would send as 0.0.0.0.1.1, which no route can fix; give the panel an "
                      "address in the PLC's network, or --local-netid",
                true);
        }
        localNetId = ruleAddress + ".1.1";
    }
    if (localAddress.empty()) {
        // The route points to the panel's address: the rule's, else the one of the given Net ID.
        if (!ruleAddress.empty() && opt.localNetId.empty()) {
            localAddress = ruleAddress;
        } else {
            const std::vector<std::string> p = util::split(localNetId, '.');
            localAddress = p[0] + "." + p[1] + "." + p[2] + "." + p[3];
        }
    }
    const std::string reaching = sourceAddressFor(to);
    if (opt.localNetId.empty()) {
        out.progress("this panel's AMS Net ID: " + localNetId
            + " (the driver's rule: the first IPv4 address that "
              "contains the first two numbers of "
            + plcNetId + ", then .1.1)");
        if (!reaching.empty() && reaching != ruleAddress && reaching != "127.0.0.1")
            say(out.err,
                "adshost: note: this machine reaches " + opt.host + " from " + reaching + ", but the driver sends as "
                    + localNetId + "; the route is for " + localNetId);
    }

    return -1;
}

int runAddRoute(const AddRouteOptions& opt, FILE* outFile, FILE* errFile)
{
    const Output out {outFile, errFile, opt.json};
    std::string why;
    in_addr to {};
    if (!resolve(opt.host, to, why))
        return out.finish(ExitNoConnection, why, true);

    std::string plcNetId, localNetId, localAddress;
    const int chosen = panelIdentity(opt, out, to, plcNetId, localNetId, localAddress);
    if (chosen >= 0)
        return chosen;

    udp::RouteRequest req;
    adstool::NetId::parse(localNetId, req.netId);
    req.routeName = opt.routeName;
    if (req.routeName.empty()) {
        char name[256] = {};
        if (::gethostname(name, sizeof name - 1) == 0 && name[0])
            req.routeName = name;
        else
            req.routeName = "panel-" + localAddress;
    }
    req.userName = opt.user;
    req.password = opt.password;
    req.address = localAddress;
    req.temporary = opt.temporary;
    const std::string what = "route \"" + req.routeName + "\" for AMS Net ID " + localNetId + " (address "
        + localAddress + ", " + (opt.temporary ? "temporary" : "static") + ")";
    const std::string routeJson = ",\"netid\":" + jsonEscape(localNetId) + ",\"address\":" + jsonEscape(localAddress)
        + ",\"name\":" + jsonEscape(req.routeName) + ",\"temporary\":" + (opt.temporary ? "true" : "false")
        + ",\"device\":" + jsonEscape(opt.host);

    Socket sock;
    if (!sock.open(why))
        return out.finish(ExitNoConnection, why, true);
    const uint32_t invoke = newInvokeId();
    const std::vector<uint8_t> request = udp::addRouteRequest(invoke, req.netId, req);
    req.password.assign(req.password.size(), '\0');
    // UDP may lose a packet: the request goes out again every second until an answer comes.
    const int64_t deadline = nowMs() + opt.timeoutMs;
    uint64_t malformed = 0;
    std::string malformedWhy;
    for (int attempt = 0; attempt < 600 && nowMs() < deadline; ++attempt) {
        if (!sock.sendTo(to, opt.udpPort, request, why))
            return out.finish(ExitNoConnection, why, true);
        if (attempt == 0)
            out.progress(
                "add-route request for " + what + " sent to " + opt.host + ", UDP port " + std::to_string(opt.udpPort));
        const int64_t resend = std::min<int64_t>(deadline, nowMs() + 1000);
        std::vector<uint8_t> data;
        std::string from;
        while (sock.receive(resend, data, from)) {
            uint32_t status = 0;
            const AnswerKind k = readRouteAnswer(data.data(), data.size(), invoke, status, why);
            if (k == AnswerKind::Malformed) {
                ++malformed;
                malformedWhy = why;
                continue;
            }
            if (k != AnswerKind::Status)
                continue;
            if (status == udp::kStatusAccepted) {
                out.line(what + " accepted by " + opt.host,
                    "{\"type\":\"route\",\"status\":\"accepted\",\"device_status\":0" + routeJson + "}");
                out.progress("next: adshost --probe --plc " + opt.host + ":" + std::to_string(opt.adsPort) + " --netid "
                    + (plcNetId.empty() ? std::string("PLC_NETID") : plcNetId));
                return out.finish(ExitOk, "the route was accepted", false);
            }
            const std::string label = routeStatusLabel(status);
            out.line(what + " refused by " + opt.host + ": " + label,
                "{\"type\":\"route\",\"status\":\"refused\",\"device_status\":" + std::to_string(status) + routeJson
                    + ",\"message\":" + jsonEscape(label) + "}");
            std::string hint;
            if (status == udp::kStatusRefused)
                hint = ": check --user and the password (fresh devices often use Administrator and 1, older CE "
                       "devices an empty password, secure-by-default images the one printed on the device)";
            return out.finish(ExitAdsError, "the device refused the route: " + label + hint, true);
        }
    }
    if (malformed > 0)
        return out.finish(
            ExitBadReply, "the device's answer is not a well-formed add-route answer: " + malformedWhy, true);
    return out.finish(ExitNoAnswer,
        "no answer to the add-route request to " + opt.host + ", UDP port " + std::to_string(opt.udpPort) + " within "
            + std::to_string(opt.timeoutMs) + " ms (wrong address or UDP port, a firewall, or the service is off)",
        true);
}

std::string addRouteCommand(
    const std::string& host, const std::string& plcNetId, const std::string& localNetId, uint16_t udpPort)
{
    std::string cmd = "adshost --add-route --plc " + host + " --netid " + plcNetId + " --user Administrator";
    if (!localNetId.empty())
        cmd += " --local-netid " + localNetId;
    if (udpPort != udp::kDefaultPort)
        cmd += " --udp-port " + std::to_string(udpPort);
    return cmd;
}

bool readPassword(const std::string& file, const std::string& envVar, std::string& out, std::string& why)
{
    if (!file.empty()) {
        if (!udp::readPasswordFile(file, out, &why)) {
            why = "--password-file: " + why;
            return false;
        }
        return true;
    }
    if (!envVar.empty()) {
        const char* v = std::getenv(envVar.c_str());
        if (!v) {
            why = "--password-env: the environment variable " + envVar + " is not set";
            return false;
        }
        out = v;
        return true;
    }
    return promptPassword(out, why);
}

}  // namespace discover
}  // namespace adshost
