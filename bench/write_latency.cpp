/*
 * Write latency: how long, and how many requests, from the host's intf_setData (through
 * adshost's Session::write) to the PLC's accepted reply to that write, while the reference
 * host polls a screen of 500 addresses against plcsim on 127.0.0.1.
 *
 *   write_latency [--writes N per kind, default 1000] [--addresses N, default 500]
 *                 [--samples FILE] [--driver PATH] [--plcsim PATH]
 *
 * One thread polls (Session::step, as a panel's communication thread); the main thread makes
 * one write at a time at a random moment (0.2 to 2 ms after the previous one was answered),
 * alternating a word (M_W) and a bit (M_bit) outside the screen, and waits for its answer.
 * For each write: the time from just before Session::write to the end of the polling step
 * that handed the PLC's reply to the write frame to the driver (result 1), and the number of
 * replies the host handed to the driver from the moment the write was queued (Session::write
 * returned: intf_setData is done) to that reply, the write's own included; the reply to the
 * request in flight when the write was queued counts too. The same count from the moment
 * Session::write was called is printed as well: the host's write waits for its own lock
 * and the driver's, which the polling thread holds for parts of every cycle.
 *
 * Prints p50 / p99 / max of both per kind; --samples writes one line per write
 * ("word|bit microseconds requests_after_queueing requests_from_the_call") for scripts/make-figures.sh.
 */
#include "adshost.h"
#include "bench_screen.h"
#include "adstool/cli.h"
#include "adstool/clock.h"
#include "plcsim_control.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#ifndef ADS_DRIVER_PLUGIN
#define ADS_DRIVER_PLUGIN ""
#endif
#ifndef PLCSIM_EXE
#define PLCSIM_EXE ""
#endif

namespace {

using adstool::nowNs;

int fail(const std::string& why)
{
    std::fprintf(stderr, "write_latency: %s\n", why.c_str());
    return 1;
}

/* The write being waited for, shared by the writing and the polling thread. */
struct Pending {
    std::mutex lock;
    bool active = false;
    std::string reg;  // the write frame's register ("M_W", "M_bit") and address
    int address = 0;
    uint64_t repliesAtWrite = 0;
    bool answered = false;
    int64_t answeredNs = 0;
    uint64_t repliesAtAnswer = 0;
};

struct Sample {
    bool bit = false;
    double us = 0;
    uint64_t requests = 0;          // replies after Session::write returned (the write queued)
    uint64_t requestsFromCall = 0;  // replies after Session::write was called
    bool early = false;             // answered before Session::write returned
};

template <typename T> T percentile(std::vector<T> v, double p)
{
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, size_t(p * double(v.size() - 1) + 0.5));
    return v[i];
}

/* The command line. */
struct Options {
    int writes = 1000;
    int addresses = 500;
    std::string samplesPath;
    std::string driverPath = ADS_DRIVER_PLUGIN;
    std::string plcsimPath = PLCSIM_EXE;
};

/* -1: go on; otherwise the exit status (--help, or a usage error). */
int parseOptions(int argc, char** argv, Options& o)
{
    using namespace adstool::cli;
    CLI::App app("Write latency of the reference host polling a screen against plcsim", "write_latency");
    prepare(app);
    app.add_option("--writes", o.writes, "writes per kind (default 1000)")->check(Number(1, 1000000));
    app.add_option("--addresses", o.addresses, "one-word addresses on the screen (default 500)")
        ->check(Number(1, 16000));
    app.add_option("--samples", o.samplesPath, "one line per write: kind microseconds requests");
    app.add_option("--driver", o.driverPath, "the driver plugin");
    app.add_option("--plcsim", o.plcsimPath, "the plcsim executable");
    return parse(app, argc, argv, "write_latency");
}

/* The polling thread: steps the session and notes the accepted reply to the pending write. */
void poll(adshost::Session& host, Pending& pending, std::atomic<uint64_t>& replies, const std::atomic<bool>& stop)
{
    while (!stop && !host.failedForGood()) {
        const adshost::Exchange& ex = host.step();
        if (ex.sent == 1)
            ++replies;
        if (ex.purpose != 'W' || ex.result != 1)
            continue;
        const int64_t t = nowNs();
        std::lock_guard<std::mutex> g(pending.lock);
        if (pending.active && !pending.answered && ex.varReg == pending.reg && ex.varAddress == pending.address) {
            pending.answered = true;
            pending.answeredNs = t;
            pending.repliesAtAnswer = replies.load();
        }
    }
}

/* Makes one write and waits (at most 2 s) for its accepted reply; false when none came. */
bool writeAndWait(adshost::Session& host, const adshost::Write& w, bool isBit, Pending& pending,
    const std::atomic<uint64_t>& replies, Sample& s)
{
    int64_t t0;
    {
        std::lock_guard<std::mutex> g(pending.lock);
        pending.active = true;
        pending.answered = false;
        pending.reg = w.addr.reg;
        pending.address = w.addr.address;  // the frame's variable: the word, or the bit's number
        pending.repliesAtWrite = replies.load();
        t0 = nowNs();
    }
    host.write(w);
    const uint64_t repliesAfterWrite = replies.load();
    const int64_t deadline = t0 + int64_t(2e9);
    while (nowNs() < deadline) {
        {
            std::lock_guard<std::mutex> g(pending.lock);
            if (pending.answered) {
                s.bit = isBit;
                s.us = double(pending.answeredNs - t0) / 1000.0;
                s.requestsFromCall = pending.repliesAtAnswer - pending.repliesAtWrite;
                // Answered before Session::write had returned (its thread was not
                // running): the moment of queueing is not known, the count from the call is
                // the bound.
                s.early = pending.repliesAtAnswer < repliesAfterWrite;
                s.requests = s.early ? s.requestsFromCall : pending.repliesAtAnswer - repliesAfterWrite;
                pending.active = false;
                return true;
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    std::lock_guard<std::mutex> g(pending.lock);
    pending.active = false;
    return false;
}

/* p50 / p99 / max of time and requests, per kind. */
void printSummary(const std::vector<Sample>& samples)
{
    for (int kind = 0; kind < 2; ++kind) {
        std::vector<double> us;
        std::vector<uint64_t> n, nc;
        int early = 0;
        for (const Sample& s : samples)
            if (s.bit == (kind == 1)) {
                early += s.early;
                us.push_back(s.us);
                n.push_back(s.requests);
                nc.push_back(s.requestsFromCall);
            }
        if (us.empty())
            continue;
        std::printf("%-4s writes: time p50 %.1f us, p99 %.1f us, max %.1f us; requests after queueing p50 %llu, "
                    "p99 %llu, max %llu; from the call p50 %llu, p99 %llu, max %llu; answered before the call returned: %d\n",
            kind ? "bit" : "word", percentile(us, 0.5), percentile(us, 0.99), *std::max_element(us.begin(), us.end()),
            (unsigned long long)percentile(n, 0.5), (unsigned long long)percentile(n, 0.99),
            (unsigned long long)*std::max_element(n.begin(), n.end()), (unsigned long long)percentile(nc, 0.5),
            (unsigned long long)percentile(nc, 0.99), (unsigned long long)*std::max_element(nc.begin(), nc.end()), early);
    }
}

bool writeSamples(const std::string& path, const std::vector<Sample>& samples)
{
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f)
        return false;
    std::fprintf(f, "# kind microseconds requests_after_queueing requests_from_the_call\n");
    for (const Sample& s : samples)
        std::fprintf(f, "%s %.1f %llu %llu\n", s.bit ? "bit" : "word", s.us, (unsigned long long)s.requests,
            (unsigned long long)s.requestsFromCall);
    std::fclose(f);
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    Options o;
    const int rc = parseOptions(argc, argv, o);
    if (rc >= 0)
        return rc;

    plcsim::Process sim;
    if (!sim.start(o.plcsimPath, {"--listen", "127.0.0.1:0", "--no-program"}))
        return fail("could not start " + o.plcsimPath + ": " + sim.error());

    // Written outside the screen: a word and a bit.
    const int wordAt = 4 * o.addresses + 64, bitByte = 4 * o.addresses + 96;
    adshost::Write word, bit;
    std::string why;
    if (!adshost::parseWrite("M_W:" + std::to_string(wordAt) + "=0", word, why)
        || !adshost::parseWrite("M_bit:" + std::to_string(bitByte) + ".3=0", bit, why))
        return fail("write: " + why);
    adshost::Session host;
    if (!adsbench::openScreen(host, o.driverPath, sim.port(), o.addresses, why))
        return fail(why);

    Pending pending;
    std::atomic<uint64_t> replies {0};  // replies handed to the driver
    std::atomic<bool> stop {false};
    std::thread poller([&] { poll(host, pending, replies, stop); });

    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> pauseUs(200, 2000);
    std::vector<Sample> samples;
    int failures = 0;
    for (int i = 0; i < 2 * o.writes && failures < 10; ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(pauseUs(rng)));
        const bool isBit = i % 2 == 1;
        adshost::Write w = isBit ? bit : word;
        if (isBit)
            w.data = {uint8_t(i / 2 % 2)};
        else
            w.data = {uint8_t(i), uint8_t(i >> 8)};
        Sample s;
        if (writeAndWait(host, w, isBit, pending, replies, s))
            samples.push_back(s);
        else
            ++failures;
    }
    stop = true;
    poller.join();
    const adshost::Stats st = host.stats();
    host.disconnect();
    const int status = sim.stop();
    if (failures)
        return fail(std::to_string(failures) + " writes got no accepted reply within 2 s");

    std::printf("screen: %d addresses in %d read blocks; %d word and %d bit writes; median round trip %.3f ms\n",
        o.addresses, host.blocks(), o.writes, o.writes, st.rttMedianMs);
    printSummary(samples);
    if (!o.samplesPath.empty() && !writeSamples(o.samplesPath, samples))
        return fail("cannot write " + o.samplesPath);
    return status == 0 ? 0 : fail("plcsim exit status " + std::to_string(status));
}
