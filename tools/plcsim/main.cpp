// plcsim: a PLC that speaks ADS over AMS/TCP, for tests of the panel driver.
// One thread, poll()-based; see README.md for the options and the control protocol.

#include "plc_core.h"
#include "udp_service.h"

#include "adstool/cli.h"
#include "adstool/deadline_io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace plcsim;

namespace {

const char* kVersion = "plcsim 1.0.0";

const char* kHelp = "Usage: plcsim --listen ADDR:PORT [options]\n"
                    "Simulated PLC answering ADS over AMS/TCP (IPv4).\n"
                    "\n"
                    "  --listen ADDR:PORT     ADS port to listen on (PORT 0 picks a free port);\n"
                    "                         prints 'listening on ADDR:PORT' as the first line,\n"
                    "                         then (after the control line) 'AMS Net ID ...'\n"
                    "  --control ADDR:PORT    line-protocol control port; prints\n"
                    "                         'control on ADDR:PORT' as the second line\n"
                    "  --netid A.B.C.D.E.F    own AMS Net ID (default 192.168.1.100.1.1)\n"
                    "  --route NETID          answer only routed Net IDs (repeatable;\n"
                    "                         without it every Net ID is answered)\n"
                    "  --ports LIST           runtime AMS ports, comma separated (default\n"
                    "                         801,851); port 100 takes AddDeviceNotification\n"
                    "  --seed N               seed of the random faults (default 1)\n"
                    "  --fault KIND:PROB      random fault with probability PROB (repeatable);\n"
                    "                         KIND: noreply short long adserror split delay close\n"
                    "  --fault-code CODE      ADS result of the adserror fault (default 0x701)\n"
                    "  --delay MS             delay of the delay fault (default 300)\n"
                    "  --split-pause MS       pause between the halves of a split reply (20)\n"
                    "  --no-program           keep the memory still (no simulated program)\n"
                    "  --log-data             log lines of reads and writes carry the bytes\n"
                    "                         (data=HEX)\n"
                    "  --one-connection-per-peer  a new connection from an address closes the\n"
                    "                         older one from that address (as a real PLC does)\n"
                    "  --log FILE             request log, one line per frame ('-' = stderr)\n"
                    "  --port-file FILE       once listening, write the ports to FILE (replaced\n"
                    "                         whole): ads_port=N, control_port=N (0 without\n"
                    "                         --control), netid=A.B.C.D.E.F, pid=N, udp_port=N\n"
                    "                         (0 when the UDP service is off)\n"
                    "UDP service (device info and add route) on the --listen address:\n"
                    "  --udp-port N           its port (default 48899; 0 picks a free one); when\n"
                    "                         the default is taken the service stays off with a\n"
                    "                         warning, a port given here must be free\n"
                    "  --hostname NAME        host name it reports (default plcsim)\n"
                    "  --runtime-version V    runtime version it reports (default 3.1.4024)\n"
                    "  --os-platform P        bsd, rtos, nt or ce (default nt)\n"
                    "  --os-version V         MAJOR.MINOR.BUILD (default 10.0.17763)\n"
                    "  --user NAME            user name add-route needs (default Administrator)\n"
                    "  --password-file FILE   its password, the file's text (default 1)\n"
                    "  --route-file FILE      keeps static routes added over UDP across a restart\n"
                    "                         (read at start, rewritten whole on each change)\n"
                    "  --version, --help\n"
                    "\n"
                    "Memory: index groups 0xF020 (inputs), 0xF030 (outputs), 0x4020 (PLC\n"
                    "memory), 64 KiB each. The program ticks every 100 ms while running:\n"
                    "  0x4020 offset 0   u16 counter, +1 per tick\n"
                    "  0x4020 byte 2     bit 0 toggles every 500 ms\n"
                    "  0xF020 offset 0   u16 sine around 32768 (+-10000, period 10 s)\n"
                    "SIGTERM or SIGINT stops it with exit code 0.\n";

volatile sig_atomic_t g_stop = 0;
void onSignal(int) { g_stop = 1; }

using adstool::nowMs;
using adstool::sockaddrText;

// A whole number, decimal or 0x-hex (the control protocol's numbers).
bool parseNumber(const std::string& s, unsigned long long& v) { return adstool::cli::toNumber(s, 0, ~0ull, v); }

struct Outgoing {
    int64_t due;
    std::vector<uint8_t> bytes;
};

struct Conn {
    int fd = -1;
    bool control = false;
    bool closing = false;  // close once the output is flushed
    uint32_t peerIp = 0;
    std::string peer;
    std::vector<uint8_t> in;
    std::deque<Outgoing> queue;  // replies waiting for their time
    std::vector<uint8_t> out;    // bytes of a partly sent frame
    int64_t lastDue = 0;
};

class Server {
public:
    Plc plc;
    RouteStore routes;
    UdpIdentity identity;
    UdpEndpoint udp;
    std::unique_ptr<UdpService> udpService;
    bool program = true;
    bool onePerPeer = false;
    FILE* logFile = nullptr;
    int listenFd = -1, controlFd = -1;
    std::vector<std::unique_ptr<Conn>> conns;
    int64_t start = nowMs();

    void log(const std::string& line)
    {
        if (!logFile)
            return;
        std::fprintf(logFile, "%lld.%03lld %s\n", (long long)((nowMs() - start) / 1000),
            (long long)((nowMs() - start) % 1000), line.c_str());
        std::fflush(logFile);
    }

    void accept(int lfd, bool control)
    {
        for (int i = 0; i < 16; ++i) {
            sockaddr_in peer {};
            socklen_t len = sizeof peer;
            const int fd = accept4(lfd, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0)
                return;
            const int one = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            auto c = std::make_unique<Conn>();
            c->fd = fd;
            c->control = control;
            c->peerIp = peer.sin_addr.s_addr;
            c->peer = sockaddrText(peer);
            if (!control && onePerPeer) {
                for (auto& o : conns) {
                    if (!o->control && o->fd >= 0 && o->peerIp == c->peerIp) {
                        log("connection " + o->peer + " replaced by " + c->peer);
                        dropConn(*o);
                    }
                }
            }
            log(std::string(control ? "control" : "connection") + " from " + c->peer);
            conns.push_back(std::move(c));
        }
    }

    void dropConn(Conn& c)
    {
        if (c.fd >= 0)
            close(c.fd);
        c.fd = -1;
    }

    // Each frame goes out with one send() so that a capture shows one frame per segment.
    void sendNow(Conn& c, const std::vector<uint8_t>& bytes)
    {
        if (!c.out.empty()) {
            c.out.insert(c.out.end(), bytes.begin(), bytes.end());
            return;
        }
        const ssize_t n = ::send(c.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            dropConn(c);
            return;
        }
        const size_t sent = n < 0 ? 0 : size_t(n);
        if (sent < bytes.size())
            c.out.assign(bytes.begin() + sent, bytes.end());
    }

    void enqueue(Conn& c, int64_t due, std::vector<uint8_t> bytes)
    {
        if (due < c.lastDue)
            due = c.lastDue;  // replies never overtake each other
        c.lastDue = due;
        c.queue.push_back({due, std::move(bytes)});
    }

    void onAdsData(Conn& c)
    {
        size_t pos = 0;
        while (c.fd >= 0) {
            const size_t avail = c.in.size() - pos;
            const uint8_t* p = c.in.data() + pos;
            if (avail >= TcpHeaderSize) {
                const uint32_t length = getU32(p + 2);
                bool fixed = false;
                const size_t fl = frameLength(p, avail, &fixed);
                if (!fixed && length > MaxFrameBody && (avail >= 50 || getU16(p) != 0)) {
                    log("AMS/TCP length " + std::to_string(length) + " from " + c.peer + " too large: closing");
                    dropConn(c);
                    break;
                }
                if (fl == 0)
                    break;
                std::vector<uint8_t> reply = plc.handle(p, fl);
                pos += fl;
                const Fault f = plc.lastFault();
                const int64_t now = nowMs();
                if (f == Fault::Close) {
                    log("fault close: closing " + c.peer);
                    dropConn(c);
                    break;
                }
                if (reply.empty())
                    continue;
                if (f == Fault::Delay) {
                    enqueue(c, now + plc.delayMs(), std::move(reply));
                } else if (f == Fault::Split && reply.size() > 1) {
                    const size_t half = reply.size() / 2;
                    enqueue(c, now, std::vector<uint8_t>(reply.begin(), reply.begin() + half));
                    enqueue(c, now + plc.splitPauseMs(), std::vector<uint8_t>(reply.begin() + half, reply.end()));
                } else {
                    enqueue(c, now, std::move(reply));
                }
            } else {
                break;
            }
        }
        c.in.erase(c.in.begin(), c.in.begin() + std::min(pos, c.in.size()));
    }

    void onControlData(Conn& c)
    {
        for (;;) {
            auto nl = std::find(c.in.begin(), c.in.end(), '\n');
            if (nl == c.in.end()) {
                if (c.in.size() > 4096)
                    dropConn(c);
                return;
            }
            std::string line(c.in.begin(), nl);
            c.in.erase(c.in.begin(), nl + 1);
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            bool quit = false;
            const std::string reply = control(line, quit) + "\n";
            sendNow(c, std::vector<uint8_t>(reply.begin(), reply.end()));
            if (quit) {
                c.closing = true;
                return;
            }
        }
    }

    // The control protocol: one line in, one line out. A command of the wrong shape is unknown.
    using Words = std::vector<std::string>;
    using Reply = std::optional<std::string>;
    std::string control(const std::string& line, bool& quit)
    {
        std::istringstream is(line);
        Words w;
        for (std::string s; is >> s;)
            w.push_back(s);
        if (w.empty())
            return "err empty command";
        const std::string& cmd = w[0];
        if (cmd == "quit" && w.size() == 1) {
            quit = true;
            return "ok bye";
        }
        static const std::map<std::string, Reply (Server::*)(const Words&)> commands = {
            {"get", &Server::controlGet},
            {"set", &Server::controlSet},
            {"fault", &Server::controlFault},
            {"fault-prob", &Server::controlFaultProb},
            {"faults-off", &Server::controlFaultsOff},
            {"fault-code", &Server::controlFaultCode},
            {"delay", &Server::controlDelay},
            {"seed", &Server::controlSeed},
            {"state", &Server::controlState},
            {"counters", &Server::controlCounters},
            {"reset-counters", &Server::controlResetCounters},
            {"udp-counters", &Server::controlUdpCounters},
            {"routes", &Server::controlRoutes},
            {"program", &Server::controlProgram},
            {"help", &Server::controlHelp},
        };
        const auto it = commands.find(cmd);
        if (it != commands.end())
            if (const Reply r = (this->*it->second)(w))
                return *r;
        return "err unknown command: " + line;
    }

    Reply controlGet(const Words& w)
    {
        unsigned long long a = 0, b = 0, c = 0;
        if (w.size() != 4)
            return std::nullopt;
        if (!parseNumber(w[1], a) || !parseNumber(w[2], b) || !parseNumber(w[3], c))
            return "err bad number";
        uint8_t* m = plc.memory(uint32_t(a));
        if (!m || a > 0xFFFFFFFFull)
            return "err unknown group";
        if (b > AreaSize || c > AreaSize || b + c > AreaSize)
            return "err out of range";
        return "ok " + toHex(m + b, size_t(c));
    }

    Reply controlSet(const Words& w)
    {
        unsigned long long a = 0, b = 0;
        if (w.size() != 4)
            return std::nullopt;
        std::vector<uint8_t> bytes;
        if (!parseNumber(w[1], a) || !parseNumber(w[2], b))
            return "err bad number";
        if (!fromHex(w[3], bytes))
            return "err bad hex";
        uint8_t* m = plc.memory(uint32_t(a));
        if (!m || a > 0xFFFFFFFFull)
            return "err unknown group";
        if (b > AreaSize || b + bytes.size() > AreaSize)
            return "err out of range";
        std::copy(bytes.begin(), bytes.end(), m + b);
        return "ok";
    }

    Reply controlFault(const Words& w)
    {
        if (w.size() != 3)
            return std::nullopt;
        Fault f;
        unsigned long long a = 0;
        if (!parseFault(w[1], f))
            return "err unknown fault " + w[1];
        if (!parseNumber(w[2], a) || a > 1000000)
            return "err bad count";
        plc.injectFault(f, int(a));
        return "ok";
    }

    Reply controlFaultProb(const Words& w)
    {
        if (w.size() != 3)
            return std::nullopt;
        Fault f;
        if (!parseFault(w[1], f) || f == Fault::None)
            return "err unknown fault " + w[1];
        char* end = nullptr;
        const double p = std::strtod(w[2].c_str(), &end);
        if (*end || p < 0 || p > 1)
            return "err bad probability";
        plc.setFaultProbability(f, p);
        return "ok";
    }

    Reply controlFaultsOff(const Words& w)
    {
        if (w.size() != 1)
            return std::nullopt;
        plc.clearFaults();
        return "ok";
    }

    Reply controlFaultCode(const Words& w)
    {
        unsigned long long a = 0;
        if (w.size() != 2)
            return std::nullopt;
        if (!parseNumber(w[1], a) || a > 0xFFFFFFFFull)
            return "err bad code";
        plc.setFaultErrorCode(uint32_t(a));
        return "ok";
    }

    Reply controlDelay(const Words& w)
    {
        unsigned long long a = 0;
        if (w.size() != 2)
            return std::nullopt;
        if (!parseNumber(w[1], a) || a > 60000)
            return "err bad delay";
        plc.setDelayMs(int(a));
        return "ok";
    }

    Reply controlSeed(const Words& w)
    {
        unsigned long long a = 0;
        if (w.size() != 2)
            return std::nullopt;
        if (!parseNumber(w[1], a))
            return "err bad seed";
        plc.setSeed(a);
        return "ok";
    }

    Reply controlState(const Words& w)
    {
        if (w.size() == 1)
            return std::string(plc.adsState() == AdsStateRun ? "ok run" : "ok stop");
        if (w.size() != 2)
            return std::nullopt;
        if (w[1] == "run")
            plc.setAdsState(AdsStateRun);
        else if (w[1] == "stop")
            plc.setAdsState(AdsStateStop);
        else
            return "err state must be run or stop";
        return "ok";
    }

    Reply controlCounters(const Words& w)
    {
        if (w.size() != 1)
            return std::nullopt;
        const Plc::Counters k = plc.counters();
        std::ostringstream os;
        size_t ads = 0;
        for (auto& cn : conns)
            if (cn->fd >= 0 && !cn->control)
                ++ads;
        os << "ok requests=" << k.requests << " devinfo=" << k.byCommand[1] << " read=" << k.byCommand[2]
           << " write=" << k.byCommand[3] << " readstate=" << k.byCommand[4] << " writecontrol=" << k.byCommand[5]
           << " addnotification=" << k.byCommand[6] << " delnotification=" << k.byCommand[7]
           << " readwrite=" << k.byCommand[9] << " faults=" << k.faults << " unanswered=" << k.unanswered
           << " portframes=" << k.portFrames << " lengthfixups=" << k.lengthFixups << " connections=" << ads;
        return os.str();
    }

    Reply controlResetCounters(const Words& w)
    {
        if (w.size() != 1)
            return std::nullopt;
        plc.resetCounters();
        if (udpService)
            udpService->resetCounters();
        return "ok";
    }

    Reply controlUdpCounters(const Words& w)
    {
        if (w.size() != 1)
            return std::nullopt;
        if (!udpService)
            return "err the UDP service is off";
        const UdpService::Counters& k = udpService->counters();
        std::ostringstream os;
        os << "ok requests=" << k.requests << " deviceinfo=" << k.deviceInfo << " addroute=" << k.addRoute
           << " accepted=" << k.accepted << " refused=" << k.refused << " ignored=" << k.ignored
           << " stopped=" << k.stopped;
        return os.str();
    }

    Reply controlRoutes(const Words& w)
    {
        if (w.size() != 1)
            return std::nullopt;
        std::string out = "ok " + std::to_string(routes.routes().size());
        for (const Route& r : routes.routes())
            out += " " + r.netId.str() + ":" + originName(r.origin);
        return out;
    }

    Reply controlProgram(const Words& w)
    {
        if (w.size() != 2)
            return std::nullopt;
        if (w[1] == "on")
            program = true;
        else if (w[1] == "off")
            program = false;
        else
            return "err program must be on or off";
        return "ok";
    }

    Reply controlHelp(const Words&)
    {
        return "ok get set fault fault-prob faults-off fault-code delay seed state counters "
               "reset-counters udp-counters routes program quit";
    }

    int run()
    {
        const int64_t tick = 100;
        int64_t nextTick = nowMs() + tick;
        std::vector<pollfd> fds;
        while (!g_stop) {
            // Flush what is due, drop closed connections.
            const int64_t now = nowMs();
            int64_t wake = nextTick;
            for (auto& c : conns) {
                while (c->fd >= 0 && c->out.empty() && !c->queue.empty() && c->queue.front().due <= now) {
                    std::vector<uint8_t> bytes = std::move(c->queue.front().bytes);
                    c->queue.pop_front();
                    sendNow(*c, bytes);
                }
                if (c->fd >= 0 && c->closing && c->out.empty())
                    dropConn(*c);
                if (c->fd >= 0 && !c->queue.empty() && c->queue.front().due < wake)
                    wake = c->queue.front().due;
            }
            conns.erase(
                std::remove_if(conns.begin(), conns.end(), [](const std::unique_ptr<Conn>& c) { return c->fd < 0; }),
                conns.end());

            fds.clear();
            fds.push_back({listenFd, POLLIN, 0});
            fds.push_back({controlFd, short(controlFd >= 0 ? POLLIN : 0), 0});
            for (auto& c : conns)
                fds.push_back({c->fd, short(POLLIN | (c->out.empty() ? 0 : POLLOUT)), 0});
            const size_t firstUdp = fds.size();
            for (int fd : udp.fds())
                fds.push_back({fd, POLLIN, 0});
            int timeout = int(std::max<int64_t>(0, std::min<int64_t>(wake - now, tick)));
            const int r = poll(fds.data(), fds.size(), timeout);
            if (r < 0 && errno != EINTR) {
                std::perror("poll");
                return 1;
            }
            if (g_stop)
                break;

            if (r > 0) {
                if (fds[0].revents & POLLIN)
                    accept(listenFd, false);
                if (controlFd >= 0 && (fds[1].revents & POLLIN))
                    accept(controlFd, true);
                for (size_t i = firstUdp; i < fds.size(); ++i)
                    if (fds[i].revents & POLLIN)
                        udp.receive(fds[i].fd, *udpService);
                const size_t nconn = firstUdp - 2;
                for (size_t i = 0; i < nconn && i < conns.size(); ++i) {
                    Conn& c = *conns[i];
                    const short ev = fds[i + 2].revents;
                    if (c.fd < 0 || c.fd != fds[i + 2].fd)
                        continue;
                    if ((ev & POLLOUT) && !c.out.empty()) {
                        const ssize_t n = ::send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL);
                        if (n > 0)
                            c.out.erase(c.out.begin(), c.out.begin() + n);
                        else if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
                            dropConn(c);
                    }
                    if (c.fd >= 0 && (ev & (POLLIN | POLLHUP | POLLERR))) {
                        uint8_t buf[65536];
                        const ssize_t n = recv(c.fd, buf, sizeof buf, 0);
                        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
                            log(std::string(c.control ? "control" : "connection") + " " + c.peer + " closed");
                            dropConn(c);
                            continue;
                        }
                        if (n > 0) {
                            c.in.insert(c.in.end(), buf, buf + n);
                            if (c.control)
                                onControlData(c);
                            else
                                onAdsData(c);
                        }
                    }
                }
            }

            const int64_t t = nowMs();
            if (t >= nextTick) {
                if (program)
                    plc.programStep();
                nextTick += tick;
                if (t - nextTick > 10 * tick)
                    nextTick = t + tick;  // do not try to catch up after a stall
            }
        }
        for (auto& c : conns)
            dropConn(*c);
        return 0;
    }
};

int usage(const std::string& why) { return adstool::cli::usageError("plcsim", why); }

// LIST: runtime AMS ports, comma separated, each 1..65535.
bool parsePorts(const std::string& text, std::set<uint16_t>& out, std::string* why)
{
    std::set<uint16_t> ports;
    std::istringstream is(text);
    for (std::string p; std::getline(is, p, ',');) {
        unsigned long long n = 0;
        if (!adstool::cli::toNumber(p, 1, 65535, n)) {
            if (why)
                *why = "needs AMS ports from 1 to 65535, comma separated; got '" + p + "'";
            return false;
        }
        ports.insert(uint16_t(n));
    }
    if (ports.empty() || text.back() == ',') {
        if (why)
            *why = "needs AMS ports from 1 to 65535, comma separated; got '" + text + "'";
        return false;
    }
    out = ports;
    return true;
}

// KIND:PROB of --fault.
bool parseFaultProb(const std::string& text, Fault& f, double& p, std::string* why)
{
    const size_t colon = text.find(':');
    if (colon == std::string::npos || !parseFault(text.substr(0, colon), f) || f == Fault::None
        || !adstool::cli::toReal(text.substr(colon + 1), 0, 1, p)) {
        if (why)
            *why = "needs KIND:PROB with KIND one of noreply short long adserror split delay close and PROB "
                   "from 0 to 1, got '"
                + text + "'";
        return false;
    }
    return true;
}

// The port file, written under a temporary name and renamed, so that a reader never sees
// half of it.
bool writePortFile(const std::string& path, uint16_t adsPort, uint16_t controlPort, const NetId& id, uint16_t udpPort)
{
    const std::string tmp = path + ".tmp" + std::to_string(::getpid());
    FILE* f = std::fopen(tmp.c_str(), "w");
    if (!f)
        return false;
    std::fprintf(f, "ads_port=%u\ncontrol_port=%u\nnetid=%s\npid=%ld\nudp_port=%u\n", unsigned(adsPort),
        unsigned(controlPort), id.str().c_str(), long(::getpid()), unsigned(udpPort));
    const bool ok = std::fflush(f) == 0 && std::fclose(f) == 0;
    if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::remove(tmp.c_str());
        return false;
    }
    return true;
}

// The command line, each value parsed once: the validators store what they parsed.
struct Options {
    std::string listen, control, log, portFile, routeFile, passwordFile;
    bool netIdGiven = false;
    NetId netId;
    std::vector<NetId> routes;
    std::set<uint16_t> ports;  // empty: the default ports
    std::vector<std::pair<Fault, double>> faults;
    std::vector<std::string> routeTexts, faultTexts;  // where CLI11 keeps the texts of repeatable options
    unsigned long long seed = 1, faultCode = ErrServiceNotSupported, delayMs = 300, splitPauseMs = 20;
    unsigned long long udpPort = adstool::udp::kDefaultPort;
    bool udpPortGiven = false;
    bool noProgram = false, version = false, logData = false, onePerPeer = false;
    UdpIdentity identity;
};

// A validator that parses the value into its place, or says why it cannot.
CLI::Validator parsedInto(std::function<bool(const std::string&, std::string*)> parse)
{
    return CLI::Validator(
        [parse](std::string& v) {
            std::string why;
            return parse(v, &why) ? std::string() : why;
        },
        "", "");
}

bool parseOsVersion(const std::string& v, adstool::udp::OsVersion& os, std::string* why)
{
    unsigned a = 0, b = 0, c = 0;
    char end = 0;
    if (std::sscanf(v.c_str(), "%u.%u.%u%c", &a, &b, &c, &end) == 3 && v[0] >= '0' && v[0] <= '9') {
        os.major = a;
        os.minor = b;
        os.build = c;
        return true;
    }
    *why = "needs MAJOR.MINOR.BUILD, got '" + v + "'";
    return false;
}

void addUdpOptions(CLI::App& app, Options& o)
{
    using namespace adstool::cli;
    app.add_option("--udp-port", o.udpPort)->check(Number(0, 65535, "a UDP port"));
    app.add_option("--hostname", o.identity.hostName)->check(parsedInto([](const std::string& v, std::string* why) {
        if (!v.empty() && v.size() < 256)
            return true;
        *why = "needs a host name of 1 to 255 bytes";
        return false;
    }));
    app.add_option("--runtime-version")->check(parsedInto([&o](const std::string& v, std::string* why) {
        if (adstool::udp::RuntimeVersion::parse(v, o.identity.runtime))
            return true;
        *why = "needs MAJOR.MINOR.BUILD (0..255, 0..255, 0..65535), got '" + v + "'";
        return false;
    }));
    app.add_option("--os-platform")->check(parsedInto([&o](const std::string& v, std::string* why) {
        if (adstool::udp::parsePlatform(v, o.identity.os.platform))
            return true;
        *why = "needs bsd, rtos, nt, ce or a number, got '" + v + "'";
        return false;
    }));
    app.add_option("--os-version")->check(parsedInto(
        [&o](const std::string& v, std::string* why) { return parseOsVersion(v, o.identity.os, why); }));
    app.add_option("--user", o.identity.userName);
    app.add_option("--password-file", o.passwordFile);
    app.add_option("--route-file", o.routeFile);
}

// Returns -1 when plcsim goes on, otherwise its exit code.
int parseOptions(int argc, char** argv, Options& o)
{
    using namespace adstool::cli;
    CLI::App app("Simulated PLC answering ADS over AMS/TCP (IPv4).", "plcsim");
    prepare(app);
    app.add_option("--listen", o.listen)->check(HostPortText(adstool::PortRule::AnyPort));
    app.add_option("--control", o.control)->check(HostPortText(adstool::PortRule::AnyPort));
    app.add_option("--netid")->check(NetIdText())->check(parsedInto([&o](const std::string& v, std::string*) {
        o.netIdGiven = NetId::parse(v, o.netId);
        return true;
    }));
    app.add_option("--route", o.routeTexts)->check(NetIdText())->check(parsedInto([&o](const std::string& v, std::string*) {
        o.routes.emplace_back();
        NetId::parse(v, o.routes.back());
        return true;
    }));
    app.add_option("--ports")->check(
        parsedInto([&o](const std::string& v, std::string* why) { return parsePorts(v, o.ports, why); }));
    app.add_option("--seed", o.seed)->check(Number(0, ~0ull));
    app.add_option("--fault", o.faultTexts)->check(parsedInto([&o](const std::string& v, std::string* why) {
        Fault f;
        double p = 0;
        if (!parseFaultProb(v, f, p, why))
            return false;
        o.faults.emplace_back(f, p);
        return true;
    }));
    app.add_option("--fault-code", o.faultCode)->check(Number(0, 0xFFFFFFFFull));
    app.add_option("--delay", o.delayMs)->check(Number(0, 60000, "milliseconds"));
    app.add_option("--split-pause", o.splitPauseMs)->check(Number(0, 60000, "milliseconds"));
    app.add_flag("--no-program", o.noProgram);
    app.add_flag("--log-data", o.logData);
    app.add_flag("--one-connection-per-peer", o.onePerPeer);
    app.add_option("--log", o.log);
    app.add_option("--port-file", o.portFile);
    addUdpOptions(app, o);
    app.add_flag("--version", o.version);
    const int parsed = parse(app, argc, argv, "plcsim", kHelp);
    o.udpPortGiven = app.count("--udp-port") > 0;
    return parsed;
}

// Routes, password and the simulated PLC's settings. Returns 0, or the exit code after a message.
int configure(Server& srv, const Options& o)
{
    if (o.netIdGiven)
        srv.plc.setNetId(o.netId);
    for (const NetId& id : o.routes) {
        Route route;
        route.netId = id;
        route.origin = Route::CommandLine;
        std::string ignored;
        srv.routes.add(route, ignored);
    }
    srv.routes.setFile(o.routeFile);
    srv.identity = o.identity;
    std::string why;
    if (!srv.routes.load(why)) {
        std::fprintf(stderr, "plcsim: --route-file: %s\n", why.c_str());
        return 1;
    }
    if (!o.passwordFile.empty() && !adstool::udp::readPasswordFile(o.passwordFile, srv.identity.password, &why)) {
        std::fprintf(stderr, "plcsim: --password-file: %s\n", why.c_str());
        return 1;
    }
    for (const Route& r : srv.routes.routes())
        srv.plc.addRoute(r.netId);
    if (!o.ports.empty())
        srv.plc.setRuntimePorts(o.ports);
    for (const auto& fault : o.faults)
        srv.plc.setFaultProbability(fault.first, fault.second);
    srv.plc.setFaultErrorCode(uint32_t(o.faultCode));
    srv.plc.setDelayMs(int(o.delayMs));
    srv.plc.setSplitPauseMs(int(o.splitPauseMs));
    srv.program = !o.noProgram;
    srv.onePerPeer = o.onePerPeer;
    srv.plc.setLogData(o.logData);
    srv.plc.setSeed(o.seed);
    return 0;
}

// Host and port were checked by the parser; the host must be an IPv4 address.
int listenAt(const char* option, const std::string& arg, sockaddr_in& bound, int& fd)
{
    adstool::HostPort hp;
    adstool::parseHostPort(arg, hp, adstool::PortRule::AnyPort);
    if (!adstool::isIpv4Address(hp.host))
        return usage(std::string(option) + ": needs an IPv4 address before the port, got '" + arg + "'");
    std::string why;
    fd = adstool::listenTcp(hp.host, hp.port, &bound, &why);
    if (fd < 0) {
        std::fprintf(stderr, "plcsim: %s\n", why.c_str());
        return 1;
    }
    return 0;
}

// The UDP service on the ADS address. The default port may be held by another simulator
// or a router on this machine: then the service stays off (udpWarning says why) and the
// simulator runs on. Returns 0, or the exit code after a message.
int openUdpService(Server& srv, const Options& o, std::string& udpWarning)
{
    adstool::HostPort hp;
    adstool::parseHostPort(o.listen, hp, adstool::PortRule::AnyPort);
    std::string why;
    if (srv.udp.open(hp.host, uint16_t(o.udpPort), why)) {
        srv.udpService = std::make_unique<UdpService>(srv.plc, srv.routes, srv.identity);
    } else if (o.udpPortGiven) {
        std::fprintf(stderr, "plcsim: --udp-port: %s\n", why.c_str());
        return 1;
    } else {
        udpWarning = why;
    }
    return 0;
}

int openLog(Server& srv, const std::string& logArg)
{
    if (logArg.empty())
        return 0;
    srv.logFile = logArg == "-" ? stderr : std::fopen(logArg.c_str(), "w");
    if (!srv.logFile) {
        std::fprintf(stderr, "plcsim: cannot open log %s: %s\n", logArg.c_str(), std::strerror(errno));
        return 1;
    }
    srv.plc.setLogSink([&srv](const std::string& line) { srv.log(line); });
    if (srv.udpService)
        srv.udpService->setLogSink([&srv](const std::string& line) { srv.log(line); });
    return 0;
}

void printBanner(Server& srv, const sockaddr_in& bound, const sockaddr_in& cbound, const std::string& udpWarning)
{
    std::printf("listening on %s\n", sockaddrText(bound).c_str());
    if (srv.controlFd >= 0)
        std::printf("control on %s\n", sockaddrText(cbound).c_str());
    std::string portList;
    for (uint16_t p : srv.plc.runtimePorts())
        portList += (portList.empty() ? "" : ",") + std::to_string(p);
    std::printf("AMS Net ID %s, runtime AMS ports %s (notifications also on 100)\n", srv.plc.netId().str().c_str(),
        portList.c_str());
    if (srv.udpService) {
        std::printf("UDP service on %s:%u%s, host name %s, add-route user %s, %zu routes\n",
            sockaddrText(bound).substr(0, sockaddrText(bound).rfind(':')).c_str(), unsigned(srv.udp.port()),
            srv.udp.broadcastAddress().empty() ? "" : (" and broadcasts to " + srv.udp.broadcastAddress()).c_str(),
            srv.identity.hostName.c_str(), srv.identity.userName.c_str(), srv.routes.routes().size());
    } else {
        std::printf("UDP service off: %s\n", udpWarning.c_str());
        std::fprintf(
            stderr, "plcsim: warning: UDP service off: %s (give --udp-port 0 for a free port)\n", udpWarning.c_str());
    }
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    Options o;
    const int parsed = parseOptions(argc, argv, o);
    if (parsed >= 0)
        return parsed;
    if (o.version) {
        std::printf("%s\n", kVersion);
        return 0;
    }
    Server srv;
    if (const int rc = configure(srv, o))
        return rc;
    if (o.listen.empty())
        return usage("--listen ADDR:PORT is required");

    sockaddr_in bound {}, cbound {};
    if (const int rc = listenAt("--listen", o.listen, bound, srv.listenFd))
        return rc;
    if (!o.control.empty()) {
        if (const int rc = listenAt("--control", o.control, cbound, srv.controlFd))
            return rc;
    }
    std::string udpWarning;
    if (const int rc = openUdpService(srv, o, udpWarning))
        return rc;
    if (const int rc = openLog(srv, o.log))
        return rc;

    struct sigaction sa { };
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    // The port file first: a plcsim that cannot write it has not started, and says nothing
    // of listening.
    if (!o.portFile.empty()
        && !writePortFile(o.portFile, ntohs(bound.sin_port), srv.controlFd >= 0 ? ntohs(cbound.sin_port) : 0,
            srv.plc.netId(), srv.udpService ? srv.udp.port() : 0)) {
        std::fprintf(stderr, "plcsim: --port-file: cannot write %s: %s\n", o.portFile.c_str(), std::strerror(errno));
        return 1;
    }
    printBanner(srv, bound, cbound, udpWarning);
    srv.log(std::string(kVersion) + " listening on " + sockaddrText(bound) + " as " + srv.plc.netId().str());

    const int rc = srv.run();
    if (!o.portFile.empty())
        std::remove(o.portFile.c_str());  // its ports are closed now
    srv.log("stopped");
    if (srv.logFile && srv.logFile != stderr)
        std::fclose(srv.logFile);
    close(srv.listenFd);
    if (srv.controlFd >= 0)
        close(srv.controlFd);
    return rc;
}
