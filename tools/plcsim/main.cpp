// plcsim: a PLC that speaks ADS over AMS/TCP, for tests of the panel driver.
// One thread, poll()-based; see README.md for the options and the control protocol.

#include "plc_core.h"

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
                    "                         prints 'listening on ADDR:PORT' as the first line\n"
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
                    "  --one-connection-per-peer  a new connection from an address closes the\n"
                    "                         older one from that address (as a real PLC does)\n"
                    "  --log FILE             request log, one line per frame ('-' = stderr)\n"
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

int64_t nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

bool parseHostPort(const std::string& s, sockaddr_in& out)
{
    const size_t colon = s.rfind(':');
    if (colon == std::string::npos)
        return false;
    std::memset(&out, 0, sizeof out);
    out.sin_family = AF_INET;
    if (inet_pton(AF_INET, s.substr(0, colon).c_str(), &out.sin_addr) != 1)
        return false;
    char* end = nullptr;
    const unsigned long port = std::strtoul(s.c_str() + colon + 1, &end, 10);
    if (colon + 1 == s.size() || *end || port > 65535)
        return false;
    out.sin_port = htons(uint16_t(port));
    return true;
}

std::string addrText(const sockaddr_in& a)
{
    char buf[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf);
    return std::string(buf) + ":" + std::to_string(ntohs(a.sin_port));
}

int listenOn(const sockaddr_in& addr, sockaddr_in& bound)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0 || listen(fd, 16) < 0) {
        close(fd);
        return -1;
    }
    socklen_t len = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &len);
    return fd;
}

bool parseNumber(const std::string& s, unsigned long long& v)
{
    if (s.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    v = std::strtoull(s.c_str(), &end, 0);
    return !errno && *end == 0 && s[0] != '-';
}

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
            c->peer = addrText(peer);
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

    std::string control(const std::string& line, bool& quit)
    {
        std::istringstream is(line);
        std::vector<std::string> w;
        for (std::string s; is >> s;)
            w.push_back(s);
        if (w.empty())
            return "err empty command";
        const std::string& cmd = w[0];
        unsigned long long a = 0, b = 0, c = 0;
        if (cmd == "get" && w.size() == 4) {
            if (!parseNumber(w[1], a) || !parseNumber(w[2], b) || !parseNumber(w[3], c))
                return "err bad number";
            uint8_t* m = plc.memory(uint32_t(a));
            if (!m || a > 0xFFFFFFFFull)
                return "err unknown group";
            if (b > AreaSize || c > AreaSize || b + c > AreaSize)
                return "err out of range";
            return "ok " + toHex(m + b, size_t(c));
        }
        if (cmd == "set" && w.size() == 4) {
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
        if (cmd == "fault" && w.size() == 3) {
            Fault f;
            if (!parseFault(w[1], f))
                return "err unknown fault " + w[1];
            if (!parseNumber(w[2], a) || a > 1000000)
                return "err bad count";
            plc.injectFault(f, int(a));
            return "ok";
        }
        if (cmd == "fault-prob" && w.size() == 3) {
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
        if (cmd == "faults-off" && w.size() == 1) {
            plc.clearFaults();
            return "ok";
        }
        if (cmd == "fault-code" && w.size() == 2) {
            if (!parseNumber(w[1], a) || a > 0xFFFFFFFFull)
                return "err bad code";
            plc.setFaultErrorCode(uint32_t(a));
            return "ok";
        }
        if (cmd == "delay" && w.size() == 2) {
            if (!parseNumber(w[1], a) || a > 60000)
                return "err bad delay";
            plc.setDelayMs(int(a));
            return "ok";
        }
        if (cmd == "seed" && w.size() == 2) {
            if (!parseNumber(w[1], a))
                return "err bad seed";
            plc.setSeed(a);
            return "ok";
        }
        if (cmd == "state" && w.size() == 1)
            return plc.adsState() == AdsStateRun ? "ok run" : "ok stop";
        if (cmd == "state" && w.size() == 2) {
            if (w[1] == "run")
                plc.setAdsState(AdsStateRun);
            else if (w[1] == "stop")
                plc.setAdsState(AdsStateStop);
            else
                return "err state must be run or stop";
            return "ok";
        }
        if (cmd == "counters" && w.size() == 1) {
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
        if (cmd == "reset-counters" && w.size() == 1) {
            plc.resetCounters();
            return "ok";
        }
        if (cmd == "program" && w.size() == 2) {
            if (w[1] == "on")
                program = true;
            else if (w[1] == "off")
                program = false;
            else
                return "err program must be on or off";
            return "ok";
        }
        if (cmd == "quit" && w.size() == 1) {
            quit = true;
            return "ok bye";
        }
        if (cmd == "help")
            return "ok get set fault fault-prob faults-off fault-code delay seed state counters "
                   "reset-counters program quit";
        return "err unknown command: " + line;
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
                const size_t nconn = fds.size() - 2;
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

int usage(const std::string& why)
{
    std::fprintf(stderr, "plcsim: %s\nTry 'plcsim --help'.\n", why.c_str());
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    Server srv;
    std::string listenArg, controlArg, logArg;
    unsigned long long seed = 1;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc)
                return false;
            out = argv[++i];
            return true;
        };
        std::string v;
        if (a == "--help" || a == "-h") {
            std::fputs(kHelp, stdout);
            return 0;
        } else if (a == "--version") {
            std::printf("%s\n", kVersion);
            return 0;
        } else if (a == "--listen") {
            if (!value(listenArg))
                return usage("--listen needs ADDR:PORT");
        } else if (a == "--control") {
            if (!value(controlArg))
                return usage("--control needs ADDR:PORT");
        } else if (a == "--log") {
            if (!value(logArg))
                return usage("--log needs a file name");
        } else if (a == "--netid") {
            NetId id;
            if (!value(v) || !NetId::parse(v, id))
                return usage("--netid needs A.B.C.D.E.F");
            srv.plc.setNetId(id);
        } else if (a == "--route") {
            NetId id;
            if (!value(v) || !NetId::parse(v, id))
                return usage("--route needs A.B.C.D.E.F");
            srv.plc.addRoute(id);
        } else if (a == "--ports") {
            if (!value(v))
                return usage("--ports needs a list");
            std::set<uint16_t> ports;
            std::istringstream is(v);
            for (std::string p; std::getline(is, p, ',');) {
                unsigned long long n = 0;
                if (!parseNumber(p, n) || n == 0 || n > 65535)
                    return usage("bad port in --ports: " + p);
                ports.insert(uint16_t(n));
            }
            srv.plc.setRuntimePorts(ports);
        } else if (a == "--seed") {
            if (!value(v) || !parseNumber(v, seed))
                return usage("--seed needs a number");
        } else if (a == "--fault") {
            if (!value(v))
                return usage("--fault needs KIND:PROB");
            const size_t colon = v.find(':');
            Fault f;
            char* end = nullptr;
            const double p = colon == std::string::npos ? -1 : std::strtod(v.c_str() + colon + 1, &end);
            if (colon == std::string::npos || !parseFault(v.substr(0, colon), f) || f == Fault::None || *end || p < 0
                || p > 1)
                return usage("bad --fault " + v);
            srv.plc.setFaultProbability(f, p);
        } else if (a == "--fault-code") {
            unsigned long long n = 0;
            if (!value(v) || !parseNumber(v, n) || n > 0xFFFFFFFFull)
                return usage("--fault-code needs a number");
            srv.plc.setFaultErrorCode(uint32_t(n));
        } else if (a == "--delay") {
            unsigned long long n = 0;
            if (!value(v) || !parseNumber(v, n) || n > 60000)
                return usage("--delay needs milliseconds");
            srv.plc.setDelayMs(int(n));
        } else if (a == "--split-pause") {
            unsigned long long n = 0;
            if (!value(v) || !parseNumber(v, n) || n > 60000)
                return usage("--split-pause needs milliseconds");
            srv.plc.setSplitPauseMs(int(n));
        } else if (a == "--no-program") {
            srv.program = false;
        } else if (a == "--one-connection-per-peer") {
            srv.onePerPeer = true;
        } else {
            return usage("unknown option " + a);
        }
    }
    srv.plc.setSeed(seed);
    if (listenArg.empty())
        return usage("--listen ADDR:PORT is required");

    sockaddr_in addr {}, bound {};
    if (!parseHostPort(listenArg, addr))
        return usage("bad --listen address " + listenArg);
    srv.listenFd = listenOn(addr, bound);
    if (srv.listenFd < 0) {
        std::fprintf(stderr, "plcsim: cannot listen on %s: %s\n", listenArg.c_str(), std::strerror(errno));
        return 1;
    }
    sockaddr_in cbound {};
    if (!controlArg.empty()) {
        sockaddr_in caddr {};
        if (!parseHostPort(controlArg, caddr))
            return usage("bad --control address " + controlArg);
        srv.controlFd = listenOn(caddr, cbound);
        if (srv.controlFd < 0) {
            std::fprintf(stderr, "plcsim: cannot listen on %s: %s\n", controlArg.c_str(), std::strerror(errno));
            return 1;
        }
    }
    if (!logArg.empty()) {
        srv.logFile = logArg == "-" ? stderr : std::fopen(logArg.c_str(), "w");
        if (!srv.logFile) {
            std::fprintf(stderr, "plcsim: cannot open log %s: %s\n", logArg.c_str(), std::strerror(errno));
            return 1;
        }
        srv.plc.setLogSink([&srv](const std::string& line) { srv.log(line); });
    }

    struct sigaction sa { };
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::printf("listening on %s\n", addrText(bound).c_str());
    if (srv.controlFd >= 0)
        std::printf("control on %s\n", addrText(cbound).c_str());
    std::fflush(stdout);
    srv.log(std::string(kVersion) + " listening on " + addrText(bound) + " as " + srv.plc.netId().str());

    const int rc = srv.run();
    srv.log("stopped");
    if (srv.logFile && srv.logFile != stderr)
        std::fclose(srv.logFile);
    close(srv.listenFd);
    if (srv.controlFd >= 0)
        close(srv.controlFd);
    return rc;
}
