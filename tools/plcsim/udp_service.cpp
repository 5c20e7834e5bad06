#include "udp_service.h"

#include "adstool/deadline_io.h"
#include "adstool/hex.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace plcsim {

namespace udp = adstool::udp;

namespace {

// Route names and addresses go into a line of the route file: printable, and an address is
// one word.
bool fitsTheFile(const std::string& s, bool oneWord)
{
    if (s.empty() || s.size() > 255)
        return false;
    for (unsigned char c : s)
        if (c < 0x20 || c == 0x7F || (oneWord && c == ' '))
            return false;
    return true;
}

}  // namespace

const char* originName(Route::Origin o)
{
    switch (o) {
    case Route::CommandLine:
        return "command-line";
    case Route::Static:
        return "static";
    case Route::Temporary:
        return "temporary";
    }
    return "?";
}

std::string RouteStore::format(const std::vector<Route>& routes)
{
    std::string out = "# plcsim routes, one a line: NETID ADDRESS NAME (static routes added over UDP)\n";
    for (const Route& r : routes)
        if (r.origin == Route::Static)
            out += r.netId.str() + " " + r.address + " " + r.name + "\n";
    return out;
}

bool RouteStore::parse(const std::string& text, std::vector<Route>& out, std::string& why)
{
    std::vector<Route> routes;
    std::istringstream is(text);
    int lineNo = 0;
    for (std::string line; std::getline(is, line);) {
        ++lineNo;
        if (line.empty() || line[0] == '#')
            continue;
        const size_t a = line.find(' ');
        const size_t b = a == std::string::npos ? a : line.find(' ', a + 1);
        Route r;
        r.origin = Route::Static;
        if (b == std::string::npos || !NetId::parse(line.substr(0, a), r.netId)) {
            why = "line " + std::to_string(lineNo) + " is not 'NETID ADDRESS NAME': '" + line + "'";
            return false;
        }
        r.address = line.substr(a + 1, b - a - 1);
        r.name = line.substr(b + 1);
        if (!fitsTheFile(r.address, true) || !fitsTheFile(r.name, false)) {
            why = "line " + std::to_string(lineNo) + " has an empty or unprintable address or name";
            return false;
        }
        routes.push_back(r);
    }
    out = routes;
    return true;
}

bool RouteStore::load(std::string& why)
{
    if (file_.empty())
        return true;
    std::ifstream f(file_);
    if (!f) {
        if (errno == ENOENT)
            return true;  // created with the first static route
        why = "cannot read " + file_ + ": " + std::strerror(errno);
        return false;
    }
    std::stringstream text;
    text << f.rdbuf();
    std::vector<Route> loaded;
    if (!parse(text.str(), loaded, why)) {
        why = file_ + " " + why;
        return false;
    }
    loading_ = true;
    for (const Route& r : loaded)
        add(r, why);
    loading_ = false;
    return true;
}

bool RouteStore::write(const std::vector<Route>& routes, std::string& why) const
{
    if (file_.empty())
        return true;
    // Whole under a temporary name, then renamed: a crash leaves the old file or the new one.
    const std::string tmp = file_ + ".tmp" + std::to_string(::getpid());
    FILE* f = std::fopen(tmp.c_str(), "w");
    if (!f) {
        why = "cannot write " + tmp + ": " + std::strerror(errno);
        return false;
    }
    const std::string text = format(routes);
    bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size() && std::fflush(f) == 0;
    ok = ::fsync(::fileno(f)) == 0 && ok;
    ok = std::fclose(f) == 0 && ok;
    if (!ok || std::rename(tmp.c_str(), file_.c_str()) != 0) {
        why = "cannot write " + file_ + ": " + std::strerror(errno);
        std::remove(tmp.c_str());
        return false;
    }
    return true;
}

bool RouteStore::add(const Route& r, std::string& why)
{
    std::vector<Route> next;
    bool staticChanged = r.origin == Route::Static;
    for (const Route& o : routes_) {
        if (o.netId == r.netId)
            staticChanged = staticChanged || o.origin == Route::Static;
        else
            next.push_back(o);
    }
    next.push_back(r);
    if (staticChanged && !loading_ && !write(next, why))
        return false;
    routes_ = next;
    return true;
}

std::vector<uint8_t> UdpService::handle(const uint8_t* p, size_t n, const std::string& from, bool broadcast)
{
    udp::Packet pk;
    std::string why;
    if (!udp::parsePacket(p, n, pk, &why)) {
        ++counters_.ignored;
        log("udp from " + from + " ignored: " + why);
        return {};
    }
    if (pk.isAnswer() || (pk.service != udp::kServiceDeviceInfo && pk.service != udp::kServiceAddRoute)) {
        ++counters_.ignored;
        log("udp from " + from + " ignored: service " + adstool::hexNumber(pk.service, true)
            + (pk.isAnswer() ? " (an answer)" : " (not a request this device knows)"));
        return {};
    }
    ++counters_.requests;
    if (pk.service == udp::kServiceDeviceInfo) {
        // A device answers a subnet-wide search only while its runtime runs.
        if (broadcast && plc_.adsState() != AdsStateRun) {
            ++counters_.stopped;
            log("udp device info from " + from + " (broadcast) not answered: the PLC is stopped");
            return {};
        }
        udp::DeviceInfo info;
        info.netId = plc_.netId();
        info.hostName = identity_.hostName;
        info.hasRuntime = true;
        info.runtime = identity_.runtime;
        info.hasOs = true;
        info.os = identity_.os;
        ++counters_.deviceInfo;
        log("udp device info from " + from + (broadcast ? " (broadcast)" : "") + " -> " + info.netId.str());
        return udp::deviceInfoAnswer(pk.invokeId, info);
    }
    return addRoute(pk, from);
}

std::vector<uint8_t> UdpService::addRoute(const udp::Packet& pk, const std::string& from)
{
    ++counters_.addRoute;
    udp::RouteRequest req;
    std::string why;
    uint32_t status = udp::readAddRouteRequest(pk, req, &why);
    if (status == udp::kStatusAccepted && (!fitsTheFile(req.routeName, false) || !fitsTheFile(req.address, true))) {
        status = udp::kStatusDataMissing;
        why = "an empty or unprintable route name or address";
    }
    // The user name and password are checked; the password is never logged.
    if (status == udp::kStatusAccepted && (req.userName != identity_.userName || req.password != identity_.password)) {
        status = udp::kStatusRefused;
        why = "user '" + req.userName + "' or the password does not match";
    }
    if (status == udp::kStatusAccepted) {
        Route r;
        r.netId = req.netId;
        r.name = req.routeName;
        r.address = req.address;
        r.origin = req.temporary ? Route::Temporary : Route::Static;
        if (routes_.add(r, why)) {
            plc_.addRoute(r.netId);
        } else {
            status = ErrDeviceError;  // the route could not be kept
        }
    }
    if (status == udp::kStatusAccepted) {
        ++counters_.accepted;
        log("udp add route from " + from + ": " + req.netId.str() + " -> " + req.address + " '" + req.routeName + "' ("
            + (req.temporary ? "temporary" : "static") + ") accepted");
    } else {
        ++counters_.refused;
        log("udp add route from " + from + ": " + udp::statusLabel(status) + ": " + why);
    }
    return udp::addRouteAnswer(pk.invokeId, plc_.netId(), status);
}

UdpEndpoint::~UdpEndpoint()
{
    for (int fd : fds_)
        ::close(fd);
}

bool UdpEndpoint::open(const std::string& host, uint16_t port, std::string& why)
{
    auto bindUdp = [&](const std::string& address, uint16_t p, int& fd) {
        sockaddr_in a {};
        if (!adstool::toSockaddr(address, p, a)) {
            why = "not an IPv4 address: '" + address + "'";
            return false;
        }
        fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            why = std::string("socket: ") + std::strerror(errno);
            return false;
        }
        const int one = 1;
        ::setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &one, sizeof one);  // the destination: broadcast or not
        if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            why = "cannot bind UDP " + address + ":" + std::to_string(p) + ": " + std::strerror(errno);
            ::close(fd);
            fd = -1;
            return false;
        }
        return true;
    };
    int fd = -1;
    if (!bindUdp(host, port, fd))
        return false;
    fds_.push_back(fd);
    sockaddr_in bound {};
    socklen_t len = sizeof bound;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &len);
    port_ = ntohs(bound.sin_port);

    broadcasts_.push_back(INADDR_BROADCAST);
    in_addr own {};
    ::inet_pton(AF_INET, host.c_str(), &own);
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) == 0) {
        for (ifaddrs* i = list; i; i = i->ifa_next) {
            if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET || !(i->ifa_flags & IFF_BROADCAST)
                || !i->ifa_broadaddr)
                continue;
            const in_addr b = reinterpret_cast<sockaddr_in*>(i->ifa_broadaddr)->sin_addr;
            broadcasts_.push_back(b.s_addr);
            if (reinterpret_cast<sockaddr_in*>(i->ifa_addr)->sin_addr.s_addr == own.s_addr && own.s_addr != 0
                && broadcast_.empty()) {
                char text[INET_ADDRSTRLEN] = {};
                ::inet_ntop(AF_INET, &b, text, sizeof text);
                broadcast_ = text;
            }
        }
        ::freeifaddrs(list);
    }
    // A socket bound to one address gets no broadcasts: a second one on the interface's
    // broadcast address does. Without it the service still answers its own address.
    if (!broadcast_.empty()) {
        std::string ignored;
        int bfd = -1;
        if (bindUdp(broadcast_, port_, bfd))
            fds_.push_back(bfd);
        else
            broadcast_.clear();
    }
    return true;
}

bool UdpEndpoint::isBroadcastDestination(const in_addr& a) const
{
    for (uint32_t b : broadcasts_)
        if (a.s_addr == b)
            return true;
    return false;
}

void UdpEndpoint::receive(int fd, UdpService& service)
{
    for (int i = 0; i < 16; ++i) {
        uint8_t buf[udp::kMaxPacket];
        sockaddr_in peer {};
        iovec iov {buf, sizeof buf};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
        msghdr msg {};
        msg.msg_name = &peer;
        msg.msg_namelen = sizeof peer;
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        const ssize_t n = ::recvmsg(fd, &msg, 0);
        if (n < 0)
            return;  // EAGAIN: all read
        bool broadcast = fd != fds_.front();
        for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c))
            if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO)
                broadcast = broadcast || isBroadcastDestination(reinterpret_cast<in_pktinfo*>(CMSG_DATA(c))->ipi_addr);
        // A datagram larger than the buffer arrives cut: hand over one byte too many so that
        // it is refused as malformed rather than read as what it is not.
        const size_t got = (msg.msg_flags & MSG_TRUNC) ? sizeof buf : size_t(n);
        std::vector<uint8_t> data(buf, buf + got);
        if (msg.msg_flags & MSG_TRUNC)
            data.push_back(0);
        const std::vector<uint8_t> answer
            = service.handle(data.data(), data.size(), adstool::sockaddrText(peer), broadcast);
        if (!answer.empty())
            ::sendto(fds_.front(), answer.data(), answer.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&peer),
                sizeof peer);
    }
}

}  // namespace plcsim
