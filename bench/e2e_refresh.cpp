/*
 * End-to-end refresh rate: how many times per second a screen of 500 addresses is read in
 * full, by the reference host (adshost_core with the driver plugin) and, for comparison, by
 * a raw socket client that sends the very same block reads and does no driver work (the
 * floor: what the simulator and the loopback allow). Both talk to one plcsim on 127.0.0.1
 * and take turns so that both see the same machine load: within a turn they alternate in
 * slices of --slice-ms (host, raw, host, raw, ...) until each has polled S seconds, so that
 * a burst of load on a shared machine falls on both rather than on one side's turn.
 *
 *   e2e_refresh [--seconds S per turn, default 2] [--turns N, default 2]
 *               [--slice-ms MS, default 100] [--addresses N, default 500]
 *               [--driver PATH] [--plcsim PATH]
 *
 * The screen: N one-word "M_W" addresses 4 bytes apart (M_W:0, M_W:4, ...), the host's
 * default gap of 16 bytes, so the driver merges them into full 128-byte blocks.
 * Prints one line per turn and a final "ratio" line (host refreshes / raw refreshes).
 */
#include "adshost.h"
#include "bench_screen.h"
#include "adstool/cli.h"
#include "adstool/clock.h"
#include "adstool/deadline_io.h"
#include "plcsim_control.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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

using adstool::nowSeconds;

/* The floor: one request out, one reply in, nothing else. The socket is blocking with a
 * 2-second receive time-out and TCP_NODELAY, as the host's: one send() per request and, as a
 * rule, one recv() per reply (more only when a reply arrives in pieces). */
class RawClient {
public:
    ~RawClient()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    bool connect(uint16_t port)
    {
        fd_ = adstool::connectTcp("127.0.0.1", port, adstool::Deadline(2000));
        if (fd_ < 0)
            return false;
        const int flags = ::fcntl(fd_, F_GETFL);
        if (flags < 0 || ::fcntl(fd_, F_SETFL, flags & ~O_NONBLOCK) < 0)
            return false;
        timeval t {2, 0};
        const int on = 1;
        return ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t) == 0
            && ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof t) == 0
            && ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0;
    }
    /* Sends the frame and reads one whole reply (by its AMS/TCP length); false on any failure. */
    bool exchange(const std::vector<uint8_t>& frame)
    {
        if (::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size()))
            return false;
        size_t have = 0, need = 6;
        while (have < need) {
            const ssize_t n = ::recv(fd_, reply_ + have, sizeof reply_ - have, 0);
            if (n <= 0)
                return false;
            have += static_cast<size_t>(n);
            if (need == 6 && have >= 6) {
                need = 6 + (reply_[2] | reply_[3] << 8 | reply_[4] << 16 | static_cast<size_t>(reply_[5]) << 24);
                if (need > sizeof reply_)
                    return false;
            }
        }
        return have == need;
    }

private:
    int fd_ = -1;
    uint8_t reply_[4096];
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
    int sliceMs = 100;
    int addresses = 500;
    std::string driverPath = ADS_DRIVER_PLUGIN;
    std::string plcsimPath = PLCSIM_EXE;
    {
        using namespace adstool::cli;
        CLI::App app(
            "End-to-end refresh rate of the reference host against plcsim, and of a raw client", "e2e_refresh");
        prepare(app);
        app.add_option("--seconds", seconds, "seconds per turn (default 2)")->check(Real(0.001, 600, "seconds"));
        app.add_option("--turns", turns, "turns of host and raw client (default 2)")->check(Number(1, 100));
        app.add_option("--slice-ms", sliceMs, "host and raw client alternate in slices this long (default 100)")
            ->check(Number(1, 600000));
        app.add_option("--addresses", addresses, "one-word addresses on the screen (default 500)")
            ->check(Number(1, 16000));
        app.add_option("--driver", driverPath, "the driver plugin");
        app.add_option("--plcsim", plcsimPath, "the plcsim executable");
        const int rc = parse(app, argc, argv, "e2e_refresh");
        if (rc >= 0)
            return rc;
    }

    plcsim::Process sim;
    if (!sim.start(plcsimPath, {"--listen", "127.0.0.1:0"}))
        return fail("could not start " + plcsimPath + ": " + sim.error());

    adshost::Session host;
    std::string why;
    if (!adsbench::openScreen(host, driverPath, sim.port(), addresses, why))
        return fail(why);
    const int blocks = host.blocks();

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
    const double slice = sliceMs / 1000.0;
    for (int t = 0; t < turns; ++t) {
        Turn h, r;
        while (h.seconds < seconds || r.seconds < seconds) {
            if (h.seconds < seconds) {
                const double length = std::min(slice, seconds - h.seconds);
                const uint64_t before = host.fullRefreshes();
                const double h0 = nowSeconds();
                if (!host.run(0, std::max(1, static_cast<int>(length * 1000 + 0.5))))
                    return fail("host polling failed: " + host.failure());
                h.seconds += nowSeconds() - h0;
                h.refreshes += host.fullRefreshes() - before;
            }
            if (r.seconds < seconds) {
                const double length = std::min(slice, seconds - r.seconds);
                const double r0 = nowSeconds();
                double now = r0;
                while (now - r0 < length) {
                    for (const auto& f : frames)
                        if (!raw.exchange(f))
                            return fail("raw client exchange failed");
                    ++r.refreshes;
                    now = nowSeconds();
                }
                r.seconds += now - r0;
            }
        }
        hostTotal.seconds += h.seconds;
        hostTotal.refreshes += h.refreshes;
        rawTotal.seconds += r.seconds;
        rawTotal.refreshes += r.refreshes;
        std::printf("turn %d: host %.1f refreshes/s, raw %.1f refreshes/s\n", t + 1, h.rate(), r.rate());
    }
    adshost::Stats s = host.stats();
    std::printf("host: %.1f full refreshes/s (%llu in %.2f s), %.2f requests per refresh (%llu requests with the "
                "warm-up), median round trip %.3f ms\n",
        hostTotal.rate(), hostTotal.refreshes, hostTotal.seconds,
        s.fullRefreshes > 0 ? double(s.requests) / double(s.fullRefreshes) : 0.0,
        static_cast<unsigned long long>(s.requests), s.rttMedianMs);
    std::printf(
        "raw:  %.1f full refreshes/s (%llu in %.2f s)\n", rawTotal.rate(), rawTotal.refreshes, rawTotal.seconds);
    std::printf("ratio host/raw: %.3f\n", rawTotal.rate() > 0 ? hostTotal.rate() / rawTotal.rate() : 0.0);
    host.disconnect();
    int status = sim.stop();
    return status == 0 ? 0 : fail("plcsim exit status " + std::to_string(status));
}
