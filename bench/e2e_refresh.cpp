/*
 * End-to-end refresh rate: how many times per second a screen of 500 addresses is read in
 * full, by the reference host (adshost_core with the driver plugin) and, for comparison, by
 * a raw socket client that sends the very same block reads and does no driver work (the
 * floor: what the simulator and the loopback allow). Both talk to one plcsim on 127.0.0.1
 * and take turns (host, raw, host, raw, ...) so that both see the same machine load.
 *
 *   e2e_refresh [--seconds S per turn, default 2] [--turns N, default 2]
 *               [--addresses N, default 500] [--driver PATH] [--plcsim PATH]
 *
 * The screen: N one-word "M_W" addresses 4 bytes apart (M_W:0, M_W:4, ...), the host's
 * default gap of 16 bytes, so the driver merges them into full 128-byte blocks.
 * Prints one line per turn and a final "ratio" line (host refreshes / raw refreshes).
 */
#include "adshost.h"
#include "plcsim_control.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#ifndef ADS_DRIVER_PLUGIN
#define ADS_DRIVER_PLUGIN ""
#endif
#ifndef PLCSIM_EXE
#define PLCSIM_EXE ""
#endif

namespace {

double nowSeconds()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

/* The floor: a blocking socket, one request out, one reply in, nothing else. */
class RawClient {
public:
    ~RawClient()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    bool connect(uint16_t port)
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0)
            return false;
        int one = 1;
        ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        timeval tv {2, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        sockaddr_in a {};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    }
    /* Sends the frame and reads one whole reply; false on any failure. */
    bool exchange(const std::vector<uint8_t>& frame)
    {
        if (::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size()))
            return false;
        if (!readExact(6))
            return false;
        uint32_t len = uint32_t(buf_[2]) | uint32_t(buf_[3]) << 8 | uint32_t(buf_[4]) << 16 | uint32_t(buf_[5]) << 24;
        return len < sizeof(buf_) - 6 && readExact(len, 6);
    }

private:
    bool readExact(size_t n, size_t at = 0)
    {
        size_t got = 0;
        while (got < n) {
            ssize_t r = ::recv(fd_, buf_ + at + got, n - got, 0);
            if (r <= 0)
                return false;
            got += static_cast<size_t>(r);
        }
        return true;
    }
    int fd_ = -1;
    uint8_t buf_[4096];
};

struct Turn {
    double seconds = 0;
    unsigned long long refreshes = 0;
    double rate() const { return seconds > 0 ? refreshes / seconds : 0; }
};

int fail(const std::string& why)
{
    std::fprintf(stderr, "e2e_refresh: %s\n", why.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    double seconds = 2;
    int turns = 2;
    int addresses = 500;
    std::string driverPath = ADS_DRIVER_PLUGIN;
    std::string plcsimPath = PLCSIM_EXE;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--seconds")
            seconds = std::atof(argv[i + 1]);
        else if (a == "--turns")
            turns = std::atoi(argv[i + 1]);
        else if (a == "--addresses")
            addresses = std::atoi(argv[i + 1]);
        else if (a == "--driver")
            driverPath = argv[i + 1];
        else if (a == "--plcsim")
            plcsimPath = argv[i + 1];
        else
            return fail("unknown option " + a);
    }
    if (seconds <= 0 || seconds > 600 || turns < 1 || turns > 100 || addresses < 1 || addresses > 16000)
        return fail("option out of range");

    plcsim::Process sim;
    if (!sim.start(plcsimPath, {"--listen", "127.0.0.1:0"}))
        return fail("could not start " + plcsimPath);

    adshost::Config cfg;
    cfg.driverPath = driverPath;
    cfg.plcHost = "127.0.0.1";
    cfg.plcPort = sim.port();
    for (int i = 0; i < addresses; ++i) {
        adshost::Address a;
        std::string why;
        if (!adshost::parseAddress("M_W:" + std::to_string(4 * i) + ":1", a, why))
            return fail("address: " + why);
        cfg.watches.push_back(a);
    }
    adshost::Session host;
    std::string why;
    if (!host.open(cfg, why))
        return fail("adshost: " + why);
    if (!host.connect(why))
        return fail("adshost connect: " + why);
    /* Warm-up: the handshake and two full refreshes. */
    host.run(0, 300);
    const int blocks = host.blocks();
    if (blocks < 1 || host.stats().fullRefreshes < 2)
        return fail("the host did not refresh the screen during the warm-up");

    /* The block reads exactly as the driver sent them: the last `blocks` cyclic reads. */
    std::vector<std::vector<uint8_t>> frames;
    {
        std::vector<adshost::Exchange> ex = host.exchanges();
        for (auto it = ex.rbegin(); it != ex.rend() && static_cast<int>(frames.size()) < blocks; ++it)
            if (it->cyclicRead && it->result == 1)
                frames.insert(frames.begin(), it->frame);
        if (static_cast<int>(frames.size()) != blocks)
            return fail("could not collect one refresh worth of read frames");
    }
    RawClient raw;
    if (!raw.connect(sim.port()))
        return fail("raw client could not connect");

    std::printf("screen: %d addresses in %d read blocks; plcsim on 127.0.0.1:%u\n", addresses, blocks,
        static_cast<unsigned>(sim.port()));
    Turn hostTotal, rawTotal;
    for (int t = 0; t < turns; ++t) {
        adshost::Stats s0 = host.stats();
        double h0 = nowSeconds();
        if (!host.run(0, static_cast<int>(seconds * 1000)))
            return fail("host polling failed: " + host.failure());
        Turn h;
        h.seconds = nowSeconds() - h0;
        h.refreshes = host.stats().fullRefreshes - s0.fullRefreshes;
        hostTotal.seconds += h.seconds;
        hostTotal.refreshes += h.refreshes;

        Turn r;
        double r0 = nowSeconds();
        while (nowSeconds() - r0 < seconds) {
            for (const auto& f : frames)
                if (!raw.exchange(f))
                    return fail("raw client exchange failed");
            ++r.refreshes;
        }
        r.seconds = nowSeconds() - r0;
        rawTotal.seconds += r.seconds;
        rawTotal.refreshes += r.refreshes;
        std::printf("turn %d: host %.1f refreshes/s, raw %.1f refreshes/s\n", t + 1, h.rate(), r.rate());
    }
    adshost::Stats s = host.stats();
    std::printf("host: %.1f full refreshes/s (%llu in %.2f s), median round trip %.3f ms\n", hostTotal.rate(),
        hostTotal.refreshes, hostTotal.seconds, s.rttMedianMs);
    std::printf(
        "raw:  %.1f full refreshes/s (%llu in %.2f s)\n", rawTotal.rate(), rawTotal.refreshes, rawTotal.seconds);
    std::printf("ratio host/raw: %.3f\n", rawTotal.rate() > 0 ? hostTotal.rate() / rawTotal.rate() : 0.0);
    host.disconnect();
    int status = sim.stop();
    return status == 0 ? 0 : fail("plcsim exit status " + std::to_string(status));
}
