// soak: the reference host (adshost_core Session) with the driver plugin against the plcsim
// executable over loopback, with seeded random faults of every kind the simulator knows
// (noreply, short, long, adserror, split, delay, close), while a second thread writes words
// and bits through the session at a bounded rate.
//
//   host (Session) <-> wire tap (this program, one thread) <-> plcsim
//
// Phases:
//   1. faults on, writer running, until --requests frames have been sent (or --max-seconds);
//      the simulator's delay alternates every --delay-switch requests between a delay shorter
//      than the host's reply time-out (the reply arrives in time) and a longer one (the host
//      gives up on it, sends the frame again, and the late reply must be drained);
//   2. writer stopped, control "faults-off", a quiet period longer than any delayed or split
//      reply, then polling until the write queue has drained (two cyclic reads in a row: a
//      queued write would have been chosen before the second one);
//   3. one full refresh: every read block read once more with an accepted reply;
//   4. checks (below), figures on one line, exit 0 only when nothing mismatched.
//
// The wire tap. The driver sends every request with invoke id 0 and matches replies by
// position and length alone, so neither the host nor the simulator's log can tell which
// request an answer belonged to. The tap forwards bytes unchanged except that it gives each
// request a unique invoke id on its way to the simulator and puts the original id back into
// the reply (the simulator echoes it) before the host sees it. Replies are forwarded as they
// arrive (a split reply still reaches the host in two pieces). When the host closes its
// connection, the tap only half-closes its side towards the simulator and reads on until the
// simulator closes too: a request the host sent just before giving up (a stalled simulator
// reads it after the host's time-out) is still answered, and its reply is counted, though
// nobody forwards it any more. What the tap learns: for every
// request that reached the simulator, its command, range, data, and the ADS result of its
// reply (if one came). It is needed for one case only: the simulator's adserror fault on a
// Write answers with a 42-byte error reply, exactly as long as a good Write reply; the driver
// looks at nothing but the length of a reply, so it takes such a write as done although the
// PLC never carried it out. The tap lets the check tell that case from a lost write.
//
// Accounting of writes, per item. Writes to the same item coalesce in the driver's queue:
// a newer value overwrites a queued older one (never the head of the queue, which may be in
// flight), so earlier values may legitimately never reach the PLC. What must hold is about
// the LAST value written to each item (v) and the LAST transaction the driver ran for that
// item (E; found in the host's exchanges: consecutive exchanges of one frame up to the one
// with result 1 or 2; a bit write is a read transaction, then a write transaction):
//   - E exists (the value was neither dropped silently nor left in the queue);
//   - E ended with result 2 (given up): the failure is reported; the PLC may or may not hold
//     v (a request without a reply is still carried out), so memory must hold v or an older
//     value of the item, nothing else;
//   - E ended with result 1: E is a write transaction whose frame carries v (a word's two
//     bytes, or the item's bit in the written byte), and the PLC holds v, unless every
//     request of E that reached the PLC was refused with an ADS error (counted as "refused":
//     the driver does not examine the ADS result of a reply, by design);
//   - a bit write's read transaction that ends with result 1 is followed at once by its write
//     transaction.
// Every transaction given up on a write (result 2) must name its item in the error text
// ("1#M_W100(2)(0)", "1#M_bit50.3(1)(0)") and the item must be reported through the change
// callback in the same step (unless the writer thread wrote that item during that step and
// so may have caused a report itself: counted as unverified).
//
// Late replies. A reply that arrives after the host's time-out must not be handed to the
// driver as the answer to another frame (after giving up, or after accepting the reply of an
// earlier attempt while the retry's reply is still coming): the driver accepts any reply of
// the expected length. The host reads and drops each reply it is owed before it sends again
// and starts a new connection when one does not come. With the tap's ids the soak sees which reply the host
// consumed in each exchange and counts: late replies of the same frame (harmless), of
// another frame rejected by length, and of another frame accepted. An accepted one is a
// mismatch unless --tolerate-late-replies (then a note; what it corrupts is still checked:
// a bit write whose read took another byte's reply writes that byte's bits over the
// neighbours). --reconnect-after-timeout makes this program drop the connection after every
// reply time-out, so that no late reply can reach a later request.
//
// Other checks: every watched word and bit read from the driver's cache equals the
// simulator's memory; every bit of the test regions that no item covers still holds the
// pattern written before the run (neighbours of written bits and words are untouched; the
// simulated program is off); the requests the simulator's log marks with the adserror fault
// are exactly those whose reply the tap read with a non-zero ADS result (so the counts are
// equal too); no reply came back to a request id the tap never sent.

#include "adshost.h"
#include "adstool/cli.h"
#include "adstool/clock.h"
#include "adstool/deadline_io.h"
#include "adstool/hex.h"
#include "adstool/le.h"
#include "adstool/random.h"
#include "plcsim_control.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <malloc.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <csignal>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

using adshost::Address;
using adshost::Change;
using adshost::Exchange;
using adshost::Session;

namespace {

using adstool::nowUs;

uint32_t u32(const uint8_t* p) { return adstool::getU32(p); }
uint16_t u16(const uint8_t* p) { return adstool::getU16(p); }

// ------------------------------------------------------------------------------------------
// Options

struct Options {
    uint64_t requests = 30000;
    double faultProb = 0.02;
    uint64_t seed = 1;
    int maxSeconds = 540;
    int writeIntervalMs = 2;
    int replyTimeoutMs = 30;
    int delayShortMs = 15;
    int delayLongMs = 50;
    int delaySwitch = 500;
    int splitPauseMs = 5;
    int retries = 3;
    std::string plugin = ADS_PLUGIN;
    std::string plcsim = PLCSIM_EXE;
    std::string logPath;  // simulator's request log; a temporary file by default
    bool keepLog = false;
    bool corrupt = false;                // self-test of the checks: change the PLC's memory behind the driver's back
    bool tolerateLateReplies = false;    // a late reply taken for another request's: a note, not a mismatch
    bool reconnectAfterTimeout = false;  // host policy: drop the connection after every reply time-out
    // Endurance: rounds, and the resident memory and descriptors sampled while they run.
    uint64_t roundRequests = 0;  // requests per round (0: one round)
    std::string samplesPath;     // one line per sample; empty: no file
    double sampleSeconds = 5;
    uint64_t warmupRequests = 0;  // 0: the first round or a tenth of the run, whichever is longer
    int maxGrowthKib = 1024;
    bool leakSelfTest = false;  // leak memory and a descriptor every round (the checks must see it)
    bool loseErrorReply = false;  // self-test: the tap drops the first ADS error reply (the checks must see it)
};

const char* const kHelp = "usage: soak [--requests N] [--fault-prob P] [--seed N] [--max-seconds S]\n"
                          "            [--write-interval-ms MS] [--reply-timeout-ms MS] [--delay-short-ms MS]\n"
                          "            [--delay-long-ms MS] [--delay-switch N] [--split-pause-ms MS] [--retries N]\n"
                          "            [--plugin PATH] [--plcsim PATH] [--log FILE] [--keep-log] [--corrupt-memory]\n"
                          "            [--tolerate-late-replies] [--reconnect-after-timeout]\n"
                          "            [--round-requests N] [--samples FILE] [--sample-seconds S]\n"
                          "            [--warmup-requests N] [--max-growth-kib K] [--leak-self-test]\n"
                          "            [--lose-error-reply]\n"
                          "Fault soak of the driver with the reference host against plcsim.\n"
                          "--corrupt-memory: before the checks, change one written word and one untouched bit in\n"
                          "the PLC behind the driver's back (the run must then fail: a self-test of the checks)\n"
                          "--tolerate-late-replies: a late reply that the driver accepted as the reply to another\n"
                          "request is printed as a note instead of counting as a mismatch (what it corrupted is\n"
                          "still checked)\n"
                          "--reconnect-after-timeout: after every reply time-out the soak drops the connection\n"
                          "before the next step, so that no late reply can reach a later request\n"
                          "--round-requests N: run in rounds of N requests; each round ends with the queue\n"
                          "drained, a full refresh and every check, then the program lets go of what it recorded\n"
                          "(session, driver, connection and simulator stay), so that its memory stays flat\n"
                          "--samples FILE: every --sample-seconds (not while the soak checks a round: its scratch is\n"
                          "its own), and at each round's end, the resident memory\n"
                          "and open descriptors of this program and of the simulator, one line each. After the\n"
                          "warm-up (--warmup-requests; default the first round or a tenth of the run, whichever is\n"
                          "longer) neither memory may grow by more than --max-growth-kib (1024) over its warm-up\n"
                          "maximum, and at round ends no process may hold more descriptors than at the warm-up's\n"
                          "round ends\n"
                          "--leak-self-test: leak 512 KiB and a descriptor every round (the run must then fail)\n"
                          "--lose-error-reply: the wire tap drops the first ADS error reply of the simulator, as\n"
                          "if lost on the way (the run must then fail)\n"
                          "An option given twice takes the later value.\n";

// Returns true to go on; otherwise rc is the exit code (0 after --help, 2 for a bad argument).
bool parseOptions(int argc, char** argv, Options& o, int& rc)
{
    using namespace adstool::cli;
    CLI::App app("fault soak", "soak");
    prepare(app);
    app.add_option("--requests", o.requests)->check(Number(1, 100000000));
    app.add_option("--fault-prob", o.faultProb)->check(Real(0, 0.1, "a probability"));
    app.add_option("--seed", o.seed)->check(Number(0, 1ull << 62));
    app.add_option("--max-seconds", o.maxSeconds)->check(Number(1, 36000, "seconds"));
    app.add_option("--write-interval-ms", o.writeIntervalMs)->check(Number(1, 10000, "milliseconds"));
    app.add_option("--reply-timeout-ms", o.replyTimeoutMs)->check(Number(5, 10000, "milliseconds"));
    app.add_option("--delay-short-ms", o.delayShortMs)->check(Number(0, 10000, "milliseconds"));
    app.add_option("--delay-long-ms", o.delayLongMs)->check(Number(0, 10000, "milliseconds"));
    app.add_option("--delay-switch", o.delaySwitch)->check(Number(1, 100000000));
    app.add_option("--split-pause-ms", o.splitPauseMs)->check(Number(0, 10000, "milliseconds"));
    app.add_option("--retries", o.retries)->check(Number(1, 100));
    app.add_option("--plugin", o.plugin);
    app.add_option("--plcsim", o.plcsim);
    app.add_option("--log", o.logPath)->each([&o](const std::string&) { o.keepLog = true; });
    app.add_flag("--keep-log", o.keepLog);
    app.add_flag("--corrupt-memory", o.corrupt);
    app.add_flag("--tolerate-late-replies", o.tolerateLateReplies);
    app.add_flag("--reconnect-after-timeout", o.reconnectAfterTimeout);
    app.add_option("--round-requests", o.roundRequests)->check(Number(100, 100000000));
    app.add_option("--samples", o.samplesPath);
    app.add_option("--sample-seconds", o.sampleSeconds)->check(Real(0.1, 3600, "seconds"));
    app.add_option("--warmup-requests", o.warmupRequests)->check(Number(0, 100000000));
    app.add_option("--max-growth-kib", o.maxGrowthKib)->check(Number(0, 1 << 30, "KiB"));
    app.add_flag("--leak-self-test", o.leakSelfTest);
    app.add_flag("--lose-error-reply", o.loseErrorReply);
    rc = parse(app, argc, argv, "soak", kHelp);
    if (rc >= 0)
        return false;
    if (o.delayShortMs >= o.replyTimeoutMs || o.delayLongMs <= o.replyTimeoutMs)
        return rc = usageError("soak", "--delay-short-ms must lie below and --delay-long-ms above --reply-timeout-ms"),
               false;
    if (o.splitPauseMs >= o.replyTimeoutMs)
        return rc = usageError("soak", "--split-pause-ms must lie below --reply-timeout-ms"), false;
    return true;
}

// ------------------------------------------------------------------------------------------
// The wire tap

struct TapRequest {
    uint32_t tag = 0;
    int conn = 0;
    uint16_t cmd = 0;
    uint32_t group = 0, offset = 0, length = 0;
    std::vector<uint8_t> data;  // a Write's data
    int64_t tUs = 0;            // when it was forwarded
    bool delivered = false;     // written to an open connection of the simulator
    int replies = 0;            // replies that came back with this tag
    int replySize = 0;          // size of the first reply
    bool hasResult = false;
    uint32_t result = 0;  // ADS result of the first reply (replies of >= 42 bytes)
};

// A reply passed on to the host.
struct TapReply {
    uint32_t tag = 0;
    int conn = 0;
    int size = 0;
    int64_t tUs = 0;
    bool forwarded = true;  // false: read after the host had closed the connection
};

class WireTap {
public:
    ~WireTap() { stop(); }

    bool start(uint16_t simPort, std::string& why)
    {
        simPort_ = simPort;
        sockaddr_in a {};
        lfd_ = adstool::listenTcp("127.0.0.1", 0, &a, &why, 8);
        if (lfd_ < 0) {
            why = "tap: " + why;
            return false;
        }
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this] { loop(); });
        return true;
    }
    uint16_t port() const { return port_; }
    // Self-test of the checks: the first ADS error reply read from the simulator is dropped,
    // neither passed on nor recorded, as if lost on the way (the run must then fail).
    void loseOneErrorReply() { loseErrorReply_ = true; }
    // Connections the host has closed while the simulator has not yet closed its side.
    int lingering() const { return lingering_.load(); }
    // Waits (at most ms milliseconds) until no connection lingers; false when one still does.
    bool settle(int ms)
    {
        const int64_t until = nowUs() + int64_t(ms) * 1000;
        while (lingering() > 0 && nowUs() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return lingering() == 0;
    }
    void stop()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
        for (auto& p : pairs_)
            closePair(*p);
        pairs_.clear();
        if (lfd_ >= 0)
            ::close(lfd_);
        lfd_ = -1;
    }
    std::vector<TapRequest> requests()
    {
        std::lock_guard<std::mutex> g(lock_);
        return requests_;
    }
    // Between rounds, with nothing in flight: the records of the round are let go.
    void forget()
    {
        std::lock_guard<std::mutex> g(lock_);
        requests_.clear();
        replies_.clear();
        index_.clear();
        original_.clear();
    }
    std::vector<TapReply> replies()
    {
        std::lock_guard<std::mutex> g(lock_);
        return replies_;
    }
    uint64_t unknownReplies()
    {
        std::lock_guard<std::mutex> g(lock_);
        return unknownReplies_;
    }
    uint64_t connections()
    {
        std::lock_guard<std::mutex> g(lock_);
        return connections_;
    }
    std::vector<std::string> problems()
    {
        std::lock_guard<std::mutex> g(lock_);
        return problems_;
    }

private:
    struct Pair {
        int host = -1, sim = -1;
        int id = 0;
        int64_t lingerUntilUs = 0;  // the host has gone: read the simulator's side until then
        bool raw = false;          // stream no longer understood: forwarded as it is
        std::vector<uint8_t> up;   // host -> simulator, partial request
        std::vector<uint8_t> cur;  // simulator -> host, the reply being passed on
        size_t need = 0;           // its full size once its header is known
    };

    static bool sendAll(int fd, const uint8_t* p, size_t n)
    {
        return adstool::sendAll(fd, p, n, adstool::Deadline(2000)) == adstool::IoStatus::Ok;
    }

    void problem(const std::string& p)
    {
        std::lock_guard<std::mutex> g(lock_);
        if (problems_.size() < 50)
            problems_.push_back(p);
    }

    void closePair(Pair& p)
    {
        if (p.host >= 0)
            ::close(p.host);
        if (p.sim >= 0)
            ::close(p.sim);
        p.host = p.sim = -1;
        if (p.lingerUntilUs)
            --lingering_;
        p.lingerUntilUs = 0;
    }

    // The host closed (or can no longer be written to): the simulator gets the end of the
    // stream and answers what it has read before it sees it; the tap reads those replies
    // until the simulator closes, or gives up after kLingerMs (a problem: a reply may be lost).
    static constexpr int kLingerMs = 10000;
    void hostGone(Pair& p)
    {
        if (p.host >= 0)
            ::close(p.host);
        p.host = -1;
        if (p.sim < 0 || p.lingerUntilUs)
            return;
        ::shutdown(p.sim, SHUT_WR);
        p.lingerUntilUs = nowUs() + int64_t(kLingerMs) * 1000;
        ++lingering_;
    }

    void accept()
    {
        for (int i = 0; i < 8; ++i) {
            const int h = ::accept4(lfd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (h < 0)
                return;
            const int one = 1;
            ::setsockopt(h, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            std::string why;
            const int s = adstool::connectTcp("127.0.0.1", simPort_, adstool::Deadline(2000), &why);
            if (s < 0) {
                problem("tap: cannot connect to the simulator: " + why);
                ::close(h);
                continue;
            }
            auto p = std::make_unique<Pair>();
            p->host = h;
            p->sim = s;
            {
                std::lock_guard<std::mutex> g(lock_);
                p->id = int(++connections_);
            }
            pairs_.push_back(std::move(p));
        }
    }

    // Host -> simulator: whole requests, each with a fresh invoke id.
    bool fromHost(Pair& p)
    {
        uint8_t buf[8192];
        const ssize_t n = ::recv(p.host, buf, sizeof buf, 0);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
            return false;
        if (n < 0)
            return true;
        if (p.raw)
            return sendAll(p.sim, buf, size_t(n));
        p.up.insert(p.up.end(), buf, buf + n);
        while (p.up.size() >= 6) {
            const uint32_t len = u32(&p.up[2]);
            if (len > 4096) {  // not a frame of this driver: give up understanding the stream
                problem("tap: request with AMS/TCP length " + std::to_string(len) + ": forwarded unparsed");
                p.raw = true;
                const bool ok = sendAll(p.sim, p.up.data(), p.up.size());
                p.up.clear();
                return ok;
            }
            if (p.up.size() < 6 + size_t(len))
                break;
            std::vector<uint8_t> f(p.up.begin(), p.up.begin() + 6 + long(len));
            p.up.erase(p.up.begin(), p.up.begin() + 6 + long(len));
            TapRequest r;
            if (u16(&f[0]) == 0 && f.size() >= 38) {
                r.cmd = u16(&f[22]);
                const uint32_t orig = u32(&f[34]);
                {
                    std::lock_guard<std::mutex> g(lock_);
                    r.tag = nextTag_++;
                    original_[r.tag] = orig;
                }
                for (int i = 0; i < 4; ++i)
                    f[34 + size_t(i)] = uint8_t(r.tag >> (8 * i));
                if ((r.cmd == 2 || r.cmd == 3) && f.size() >= 50) {
                    r.group = u32(&f[38]);
                    r.offset = u32(&f[42]);
                    r.length = u32(&f[46]);
                    if (r.cmd == 3)
                        r.data.assign(f.begin() + 50, f.end());
                }
            }
            r.conn = p.id;
            r.tUs = nowUs();
            r.delivered = sendAll(p.sim, f.data(), f.size());
            const bool delivered = r.delivered;
            if (r.tag) {
                std::lock_guard<std::mutex> g(lock_);
                index_[r.tag] = requests_.size();
                requests_.push_back(std::move(r));
            }
            if (!delivered)
                return false;
        }
        return true;
    }

    // Simulator -> host: bytes passed on as they come, the invoke id put back.
    bool fromSim(Pair& p)
    {
        uint8_t buf[8192];
        const ssize_t n = ::recv(p.sim, buf, sizeof buf, 0);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
            return false;
        if (n < 0)
            return true;
        if (p.raw)
            return sendAll(p.host, buf, size_t(n));
        std::vector<uint8_t> out;
        out.reserve(size_t(n));
        size_t replyStart = SIZE_MAX;  // where the reply being read begins in out (if it began here)
        for (ssize_t i = 0; i < n; ++i) {
            p.cur.push_back(buf[i]);
            const size_t pos = p.cur.size() - 1;
            if (pos == 0)
                replyStart = out.size();
            if (pos == 5) {
                const uint32_t len = u32(&p.cur[2]);
                if (len > 65536) {
                    problem("tap: reply with AMS/TCP length " + std::to_string(len) + ": forwarded unparsed");
                    p.raw = true;
                    out.insert(out.end(), p.cur.begin(), p.cur.end());
                    out.insert(out.end(), buf + i + 1, buf + n);
                    p.cur.clear();
                    break;
                }
                p.need = 6 + len;
            }
            if (pos < 34 || pos > 37)
                out.push_back(buf[i]);
            if (pos == 37) {  // the whole invoke id is here: put the original back
                const uint32_t tag = u32(&p.cur[34]);
                uint32_t orig = tag;
                {
                    std::lock_guard<std::mutex> g(lock_);
                    auto it = original_.find(tag);
                    if (it != original_.end())
                        orig = it->second;
                }
                for (int k = 0; k < 4; ++k)
                    out.push_back(uint8_t(orig >> (8 * k)));
            }
            if (p.need && p.cur.size() == p.need) {
                if (p.cur.size() < 38)  // too short to hold an invoke id: pass on what was held
                    for (size_t k = 34; k < p.cur.size(); ++k)
                        out.push_back(p.cur[k]);
                if (loseErrorReply_ && replyStart != SIZE_MAX && p.cur.size() >= 42 && u16(&p.cur[0]) == 0
                    && u32(&p.cur[38]) != 0) {
                    loseErrorReply_ = false;  // self-test: this reply never existed
                    out.resize(replyStart);
                } else {
                    finishReply(p.cur, p.id, p.host >= 0);
                }
                p.cur.clear();
                p.need = 0;
            }
        }
        if (p.host < 0)
            return true;  // the host has gone: replies are counted, not forwarded
        if (!out.empty() && !sendAll(p.host, out.data(), out.size()))
            hostGone(p);
        return true;
    }

    void finishReply(const std::vector<uint8_t>& f, int conn, bool forwarded)
    {
        if (f.size() < 38 || u16(&f[0]) != 0)
            return;
        const uint32_t tag = u32(&f[34]);
        std::lock_guard<std::mutex> g(lock_);
        if (replies_.size() < 2000000)
            replies_.push_back(TapReply {tag, conn, int(f.size()), nowUs(), forwarded});
        auto it = index_.find(tag);
        if (it == index_.end()) {
            ++unknownReplies_;
            return;
        }
        TapRequest& r = requests_[it->second];
        if (r.replies++ == 0) {
            r.replySize = int(f.size());
            // Every ADS reply's data begins with the result (the handshake's as well: the
            // simulator's adserror fault hits it too).
            if (f.size() >= 42) {
                r.hasResult = true;
                r.result = u32(&f[38]);
            }
        }
    }

    void loop()
    {
        std::vector<pollfd> fds;
        while (!stop_) {
            fds.clear();
            fds.push_back({lfd_, POLLIN, 0});
            for (auto& p : pairs_) {
                fds.push_back({p->host, POLLIN, 0});  // -1 once the host has gone: not polled
                fds.push_back({p->sim, POLLIN, 0});
            }
            const int r = ::poll(fds.data(), fds.size(), 20);
            if (r < 0 && errno != EINTR)
                break;
            if (r <= 0)
                continue;
            if (fds[0].revents & POLLIN)
                accept();
            const size_t n = (fds.size() - 1) / 2;
            for (size_t i = 0; i < n && i < pairs_.size(); ++i) {
                Pair& p = *pairs_[i];
                // Replies first: a simulator that closed after answering has its last bytes passed on.
                if (p.sim >= 0 && (fds[1 + 2 * i + 1].revents & (POLLIN | POLLHUP | POLLERR)) && !fromSim(p))
                    closePair(p);  // the simulator closed: nothing more can come either way
                if (p.host >= 0 && (fds[1 + 2 * i].revents & (POLLIN | POLLHUP | POLLERR)) && !fromHost(p))
                    hostGone(p);
            }
            const int64_t now = nowUs();
            for (auto& p : pairs_) {
                if (p->lingerUntilUs && p->sim >= 0 && now > p->lingerUntilUs) {
                    problem("tap: the simulator kept a connection open " + std::to_string(kLingerMs)
                        + " ms after the host closed it (a reply may have been lost)");
                    closePair(*p);
                }
            }
            pairs_.erase(std::remove_if(pairs_.begin(), pairs_.end(),
                             [](const std::unique_ptr<Pair>& p) { return p->host < 0 && p->sim < 0; }),
                pairs_.end());
        }
    }

    uint16_t simPort_ = 0, port_ = 0;
    int lfd_ = -1;
    std::atomic<bool> stop_ {false};
    std::thread thread_;
    std::vector<std::unique_ptr<Pair>> pairs_;  // the tap thread's own
    std::atomic<int> lingering_ {0};
    std::atomic<bool> loseErrorReply_ {false};

    std::mutex lock_;  // guards what follows
    uint32_t nextTag_ = 0x10000;
    std::map<uint32_t, uint32_t> original_;
    std::map<uint32_t, size_t> index_;
    std::vector<TapRequest> requests_;
    std::vector<TapReply> replies_;
    uint64_t unknownReplies_ = 0, connections_ = 0;
    std::vector<std::string> problems_;
};

// ------------------------------------------------------------------------------------------
// The items of the run

const unsigned GROUP_I = 0xF020, GROUP_Q = 0xF030, GROUP_M = 0x4020;

struct Item {
    Address addr;
    bool writable = true;
    unsigned group = 0;
    unsigned byte = 0;       // first byte
    int bit = -1;            // bit in that byte for bit items
    std::string changeText;  // "M_W" / "M_bit" as the callback names it
    int changeAddress = 0;
    std::string errorPrefix;  // "1#M_W100(2)(" as the driver's error text begins
    // Writes to it, oldest first (values: a word as low byte + 256 * high byte, a bit 0/1).
    std::vector<int> values;
    std::atomic<int64_t> lastWriteUs {0};
    int baseline = -1;  // what the PLC held when the round began (-1: the pattern, first round)
};

Address parse(const std::string& text)
{
    Address a;
    std::string why;
    if (!adshost::parseAddress(text, a, why)) {
        std::fprintf(stderr, "soak: %s\n", why.c_str());
        std::exit(2);
    }
    return a;
}

unsigned groupOf(const std::string& reg)
{
    if (reg[0] == 'I')
        return GROUP_I;
    if (reg[0] == 'Q')
        return GROUP_Q;
    return GROUP_M;
}

// Test regions: every byte of them is set to a pattern before the run; bits no item covers
// must still hold it at the end.
struct Region {
    unsigned group, offset, size;
};
const Region kRegions[] = {{GROUP_M, 0, 256}, {GROUP_Q, 0, 64}};

// Written items: single words, single bits (several bits share a byte; no bit shares a byte
// with a word item). Guards: words next to them that are watched and never written.
const char* const kWritten[] = {"M_W:10", "M_W:14", "M_W:30", "M_W:32", "M_W:60", "M_W:100", "M_W:102", "M_W:140",
    "M_W:200", "Q_W:4", "Q_W:20", "M_bit:50.0", "M_bit:50.3", "M_bit:50.7", "M_bit:51.4", "M_bit:80.1", "M_bit:80.2",
    "M_bit:120.6", "M_bit:121.0", "Q_bit:40.2", "Q_bit:40.5", "Q_bit:41.0"};
const char* const kGuards[] = {"M_W:12", "M_W:48", "M_W:52", "M_W:82", "M_W:122", "M_W:142", "Q_W:42"};

// ------------------------------------------------------------------------------------------
// What the polling thread records per exchange

struct Record {
    int64_t t0 = 0, t1 = 0;  // before and after the step
    int cmd = 0;
    int result = -1;
    std::string reg;
    int address = 0, length = 0;
    bool cyclic = false;
    std::vector<uint8_t> data;  // a write frame's data bytes
    int item = -1;              // the written item this frame serves (-1: none)
    int replyBytes = 0;         // bytes handed to the driver
};

struct Episode {
    size_t first = 0, last = 0;  // record indexes
    int cmd = 0, result = 0, item = -1;
};

// The simulator's request log, read as it grows: faults by kind.
struct LogCounter {
    std::string path;
    std::streamoff pos = 0;
    std::string partial;
    std::map<std::string, uint64_t> faults;
    std::map<uint32_t, std::string> faultOf;  // invoke id (the tap's tag) -> fault
    uint64_t delayInPhase = 0;
    void poll()
    {
        std::ifstream f(path, std::ios::binary);
        if (!f)
            return;
        f.seekg(pos);
        std::string chunk((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
        pos += std::streamoff(chunk.size());
        partial += chunk;
        size_t start = 0;
        for (size_t nl; (nl = partial.find('\n', start)) != std::string::npos; start = nl + 1) {
            const size_t at = partial.find(" fault=", start);
            if (at == std::string::npos || at > nl)
                continue;
            size_t e = at + 7;
            while (e < nl && partial[e] != ' ')
                ++e;
            const std::string kind = partial.substr(at + 7, e - at - 7);
            ++faults[kind];
            const size_t inv = partial.find(" invoke=", start);
            if (inv != std::string::npos && inv < nl)
                faultOf[uint32_t(std::strtoul(partial.c_str() + inv + 8, nullptr, 10))] = kind;
            if (kind == "delay")
                ++delayInPhase;
        }
        partial.erase(0, start);
    }
};

// ------------------------------------------------------------------------------------------
// Endurance: resident memory and open descriptors of this program (the host: session, driver,
// tap) and of the simulator, sampled by a thread every few seconds and at each round's end.

struct ProcSample {
    long rssKib = -1;
    int fds = -1;
};

ProcSample sampleProcess(const std::string& proc)  // "/proc/self" or "/proc/PID"
{
    ProcSample s;
    std::ifstream st(proc + "/status");
    std::string line;
    while (std::getline(st, line))
        if (line.compare(0, 6, "VmRSS:") == 0)
            s.rssKib = std::atol(line.c_str() + 6);
    if (DIR* d = ::opendir((proc + "/fd").c_str())) {
        int n = 0;
        while (const dirent* e = ::readdir(d))
            n += e->d_name[0] != '.';
        ::closedir(d);
        s.fds = n - 1;  // the directory's own descriptor
    }
    return s;
}

struct Sample {
    double seconds = 0;
    uint64_t requests = 0;
    int round = 0;
    bool roundEnd = false;
    ProcSample host, plc;
};

class Endurance {
public:
    Endurance(const Options& o, pid_t simPid, std::function<uint64_t()> requests)
        : opt_(o), simProc_("/proc/" + std::to_string(simPid)), requests_(std::move(requests)), t0_(nowUs())
    {
        const uint64_t roundSize = o.roundRequests > 0 ? std::min(o.roundRequests, o.requests) : o.requests;
        warmup_ = o.warmupRequests;
        if (warmup_ == 0)
            warmup_ = std::max(roundSize, o.requests / 10);
        warmupRounds_ = int((warmup_ + roundSize - 1) / roundSize);  // the rounds the warm-up ends in
        if (!o.samplesPath.empty()) {
            file_ = std::fopen(o.samplesPath.c_str(), "w");
            if (file_)
                std::fprintf(file_, "# seconds requests round round_end host_rss_kib host_fds plcsim_rss_kib plcsim_fds\n");
        }
    }
    ~Endurance()
    {
        stop();
        if (file_)
            std::fclose(file_);
    }
    bool sampling() const { return !opt_.samplesPath.empty(); }
    void start()
    {
        if (!sampling())
            return;
        thread_ = std::thread([this] {
            int64_t next = nowUs();
            while (!stop_) {
                if (nowUs() >= next) {
                    if (!paused_)
                        take(false);
                    next += int64_t(opt_.sampleSeconds * 1e6);
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        });
    }
    void stop()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
    }
    // While the soak checks a round (its own scratch comes and goes), until the round's end.
    void pause() { paused_ = true; }
    // At a round's end, with nothing in flight and the round's records let go.
    void roundBegins(int round) { round_ = round; }
    void roundEnd(bool last)
    {
        paused_ = false;
        if (opt_.leakSelfTest && !last) {
            leaked_.emplace_back(512 * 1024, char(1));
            leakedFds_.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        }
        if (!sampling())
            return;
        ::malloc_trim(0);  // freed records back to the system: what stays is what is held
        take(true);
    }
    // Growth after the warm-up, as texts (empty: none).
    std::vector<std::string> growth()
    {
        std::lock_guard<std::mutex> g(lock_);
        std::vector<std::string> out;
        if (!sampling())
            return out;
        long hostMax = -1, plcMax = -1;
        int hostFds = -1, plcFds = -1;
        size_t after = 0, roundEndsAfter = 0;
        for (const Sample& s : samples_) {
            if (s.round > warmupRounds_)
                continue;
            hostMax = std::max(hostMax, s.host.rssKib);
            plcMax = std::max(plcMax, s.plc.rssKib);
            if (s.roundEnd) {
                hostFds = std::max(hostFds, s.host.fds);
                plcFds = std::max(plcFds, s.plc.fds);
            }
        }
        const Sample* worstHost = nullptr;
        const Sample* worstPlc = nullptr;
        for (const Sample& s : samples_) {
            if (s.round <= warmupRounds_)
                continue;
            ++after;
            if (!worstHost || s.host.rssKib > worstHost->host.rssKib)
                worstHost = &s;
            if (!worstPlc || s.plc.rssKib > worstPlc->plc.rssKib)
                worstPlc = &s;
            if (!s.roundEnd)
                continue;
            ++roundEndsAfter;
            if (hostFds >= 0 && s.host.fds > hostFds)
                out.push_back(describe("open descriptors of the host grew", s, s.host.fds, hostFds, ""));
            if (plcFds >= 0 && s.plc.fds > plcFds)
                out.push_back(describe("open descriptors of the simulator grew", s, s.plc.fds, plcFds, ""));
        }
        if (hostMax < 0 || hostFds < 0)
            out.push_back("endurance: no sample within the warm-up (" + std::to_string(warmupRounds_) + " rounds)");
        else if (after == 0 || roundEndsAfter == 0)
            out.push_back("endurance: no round ended after the warm-up (" + std::to_string(warmupRounds_)
                + " rounds): give more requests or shorter rounds");
        if (worstHost && hostMax >= 0 && worstHost->host.rssKib > hostMax + opt_.maxGrowthKib)
            out.push_back(
                describe("resident memory of the host grew", *worstHost, worstHost->host.rssKib, hostMax, " KiB"));
        if (worstPlc && plcMax >= 0 && worstPlc->plc.rssKib > plcMax + opt_.maxGrowthKib)
            out.push_back(
                describe("resident memory of the simulator grew", *worstPlc, worstPlc->plc.rssKib, plcMax, " KiB"));
        return out;
    }
    // "host_rss_kib=A..B" figures over the run: warm-up maximum, last sample.
    std::string figures()
    {
        std::lock_guard<std::mutex> g(lock_);
        if (samples_.empty())
            return std::string();
        const Sample& f = samples_.front();
        const Sample& l = samples_.back();
        char t[256];
        std::snprintf(t, sizeof t,
            " samples=%zu warmup_rounds=%d host_rss_kib=%ld..%ld host_fds=%d..%d plcsim_rss_kib=%ld..%ld "
            "plcsim_fds=%d..%d",
            samples_.size(), warmupRounds_, f.host.rssKib, l.host.rssKib, f.host.fds, l.host.fds,
            f.plc.rssKib, l.plc.rssKib, f.plc.fds, l.plc.fds);
        return t;
    }

private:
    void take(bool roundEnd)
    {
        Sample s;
        s.seconds = double(nowUs() - t0_) / 1e6;
        s.requests = requests_();
        s.round = round_;
        s.roundEnd = roundEnd;
        s.host = sampleProcess("/proc/self");
        s.plc = sampleProcess(simProc_);
        std::lock_guard<std::mutex> g(lock_);
        samples_.push_back(s);
        if (file_) {
            std::fprintf(file_, "%.1f %llu %d %d %ld %d %ld %d\n", s.seconds, (unsigned long long)s.requests, s.round,
                roundEnd ? 1 : 0, s.host.rssKib, s.host.fds, s.plc.rssKib, s.plc.fds);
            std::fflush(file_);
        }
    }
    std::string describe(const char* what, const Sample& s, long now, long before, const char* unit) const
    {
        char t[256];
        std::snprintf(t, sizeof t, "%s: %ld%s at %.1f s (%llu requests), %ld%s at most during the warm-up", what,
            now, unit, s.seconds, (unsigned long long)s.requests, before, unit);
        return t;
    }

    const Options& opt_;
    const std::string simProc_;
    std::function<uint64_t()> requests_;
    const int64_t t0_;
    uint64_t warmup_ = 0;
    int warmupRounds_ = 1;
    std::atomic<int> round_ {0};
    FILE* file_ = nullptr;
    std::atomic<bool> stop_ {false};
    std::atomic<bool> paused_ {false};
    std::thread thread_;
    std::mutex lock_;
    std::vector<Sample> samples_;
    std::vector<std::vector<char>> leaked_;
    std::vector<int> leakedFds_;
};

using adstool::fromHex;
std::string hex2(const std::vector<uint8_t>& b) { return adstool::toHex(b); }

std::atomic<pid_t> g_simPid {-1};

}  // namespace

int main(int argc, char** argv)
{
    Options opt;
    int rc = 0;
    if (!parseOptions(argc, argv, opt, rc))
        return rc;
    std::signal(SIGPIPE, SIG_IGN);
    const int64_t startMs = adshost::nowMs();

    // A watchdog beyond the soak's own limit: a hang ends with the simulator stopped by PID.
    std::atomic<bool> finished {false};
    std::thread watchdog([&] {
        const int64_t deadline = startMs + int64_t(opt.maxSeconds + 60) * 1000;
        while (!finished && adshost::nowMs() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (finished)
            return;
        std::fprintf(stderr, "soak: FAIL: still running %d s after the wall-clock limit; giving up\n", 60);
        const pid_t pid = g_simPid.load();
        if (pid > 0)
            ::kill(pid, SIGKILL);
        std::fflush(nullptr);
        ::_exit(3);
    });

    std::vector<std::string> mismatches;
    auto mismatch = [&](const std::string& m) { mismatches.push_back(m); };

    // ---- the simulator
    if (opt.logPath.empty()) {
        const char* tmp = std::getenv("TMPDIR");
        opt.logPath = std::string(tmp && *tmp ? tmp : "/tmp") + "/soak_plcsim_" + std::to_string(::getpid()) + ".log";
    }
    std::vector<std::string> simArgs = {"--listen", "127.0.0.1:0", "--control", "127.0.0.1:0", "--no-program", "--seed",
        std::to_string(opt.seed), "--delay", std::to_string(opt.delayShortMs), "--split-pause",
        std::to_string(opt.splitPauseMs), "--log", opt.logPath};
    const char* kinds[] = {"noreply", "short", "long", "adserror", "split", "delay", "close"};
    char probText[64];
    std::snprintf(probText, sizeof probText, "%.6f", opt.faultProb);
    plcsim::Process sim;
    if (!sim.start(opt.plcsim, simArgs)) {
        std::fprintf(stderr, "soak: FAIL: plcsim (%s) did not start: %s\n", opt.plcsim.c_str(), sim.error().c_str());
        finished = true;
        watchdog.join();
        return 1;
    }
    g_simPid = sim.pid();
    plcsim::ControlClient ctl;
    auto command = [&](const std::string& line) {
        const std::string r = ctl.command(line, 3000);
        if (r.compare(0, 2, "ok") != 0)
            mismatch("control '" + line + "' answered '" + r + "'");
        return r;
    };
    auto memory = [&](unsigned group, unsigned offset, unsigned len) {
        std::vector<uint8_t> out;
        const std::string r
            = command("get " + std::to_string(group) + " " + std::to_string(offset) + " " + std::to_string(len));
        if (r.size() < 3 || !fromHex(r.substr(3), out) || out.size() != len)
            out.assign(len, 0), mismatch("bad get reply");
        return out;
    };
    if (!ctl.connect("127.0.0.1", sim.controlPort())) {
        std::fprintf(stderr, "soak: FAIL: no control connection to plcsim\n");
        sim.stop(3000);
        finished = true;
        watchdog.join();
        return 1;
    }

    // ---- the pattern of the test regions
    adstool::Random rng(opt.seed * 7919 + 17);
    std::map<std::pair<unsigned, unsigned>, uint8_t> pattern;  // (group, byte) -> byte
    for (const Region& r : kRegions) {
        std::vector<uint8_t> bytes(r.size);
        for (unsigned i = 0; i < r.size; ++i) {
            bytes[i] = rng.byte();
            pattern[{r.group, r.offset + i}] = bytes[i];
        }
        command("set " + std::to_string(r.group) + " " + std::to_string(r.offset) + " " + hex2(bytes));
    }

    // ---- items
    std::vector<std::unique_ptr<Item>> items;
    auto addItem = [&](const char* text, bool writable) {
        auto it = std::make_unique<Item>();
        it->addr = parse(text);
        it->writable = writable;
        it->group = groupOf(it->addr.reg);
        if (it->addr.isBit()) {
            it->byte = unsigned(it->addr.address / 8);
            it->bit = it->addr.address % 8;
            it->changeText = it->addr.reg;
            it->changeAddress = it->addr.address;
            it->errorPrefix = "1#" + it->addr.reg + std::to_string(it->byte) + "." + std::to_string(it->bit) + "(1)(";
        } else {
            it->byte = unsigned(it->addr.address);
            it->changeText = it->addr.reg;
            it->changeAddress = it->addr.address;
            it->errorPrefix = "1#" + it->addr.reg + std::to_string(it->addr.address) + "(2)(";
        }
        items.push_back(std::move(it));
    };
    for (const char* t : kWritten)
        addItem(t, true);
    for (const char* t : kGuards)
        addItem(t, false);
    // Bits of the regions that belong to an item (the rest must keep the pattern).
    std::set<std::tuple<unsigned, unsigned, int>> itemBits;  // group, byte, bit
    for (auto& it : items) {
        if (!it->writable)
            continue;
        if (it->bit >= 0) {
            itemBits.insert({it->group, it->byte, it->bit});
        } else {
            for (int b = 0; b < 16; ++b)
                itemBits.insert({it->group, it->byte + unsigned(b / 8), b % 8});
        }
    }
    auto initialValue = [&](const Item& it) {
        if (it.baseline >= 0)
            return it.baseline;
        const uint8_t lo = pattern[{it.group, it.byte}];
        if (it.bit >= 0)
            return (lo >> it.bit) & 1;
        return int(lo) | int(pattern[{it.group, it.byte + 1}]) << 8;
    };
    // Frames of written items: (reg, address, length) of the frame's variable -> item.
    std::map<std::tuple<std::string, int, int>, int> itemByVar;
    for (size_t i = 0; i < items.size(); ++i) {
        if (!items[i]->writable)
            continue;
        const Item& it = *items[i];
        itemByVar[{it.addr.reg, it.addr.address, it.bit >= 0 ? 1 : 2}] = int(i);
    }

    // ---- the tap and the session
    WireTap tap;
    if (opt.loseErrorReply)
        tap.loseOneErrorReply();
    std::string why;
    if (!tap.start(sim.port(), why)) {
        std::fprintf(stderr, "soak: FAIL: %s\n", why.c_str());
        sim.stop(3000);
        finished = true;
        watchdog.join();
        return 1;
    }
    for (const char* k : kinds)
        command(std::string("fault-prob ") + k + " " + probText);

    adshost::Config cfg;
    cfg.driverPath = opt.plugin;
    cfg.plcHost = "127.0.0.1";
    cfg.plcPort = tap.port();
    cfg.netId = "192.168.1.100.1.1";
    cfg.amsPort = 851;
    cfg.retries = opt.retries;
    cfg.gap = 16;
    cfg.replyTimeoutMs = opt.replyTimeoutMs;
    cfg.connectTimeoutMs = 1000;
    cfg.reconnectAttempts = 10;
    cfg.reconnectBackoffMs = 5;
    cfg.reconnectBackoffMaxMs = 200;
    for (auto& it : items)
        cfg.watches.push_back(it->addr);

    std::unique_ptr<Session> session(new Session);
    if (!session->open(cfg, why) || !session->connect(why)) {
        std::fprintf(stderr, "soak: FAIL: %s\n", why.c_str());
        session.reset();
        tap.stop();
        sim.stop(3000);
        finished = true;
        watchdog.join();
        return 1;
    }
    const int blocks = session->blocks();

    // ---- the writer thread
    std::atomic<bool> stopWriter {false};
    std::atomic<uint64_t> writesIssued {0};
    std::mutex valuesLock;  // guards Item::values
    std::vector<size_t> writable;
    for (size_t i = 0; i < items.size(); ++i)
        if (items[i]->writable)
            writable.push_back(i);
    adstool::Random wr(opt.seed * 104729 + 3);  // one sequence over all rounds
    auto writerLoop = [&] {
        int64_t next = adshost::nowMs();
        while (!stopWriter) {
            const int64_t now = adshost::nowMs();
            if (now < next) {
                std::this_thread::sleep_for(std::chrono::milliseconds(std::min<int64_t>(next - now, 5)));
                continue;
            }
            next += opt.writeIntervalMs;
            if (next < now)
                next = now;  // no bursts after a stall
            Item& it = *items[writable[wr.below(unsigned(writable.size()))]];
            adshost::Write w;
            w.addr = it.addr;
            int value;
            if (it.bit >= 0) {
                value = int(wr.below(2));
                w.data = {uint8_t(value)};
            } else {
                value = int(wr.below(65536));
                w.data = {uint8_t(value), uint8_t(value >> 8)};
            }
            {
                std::lock_guard<std::mutex> g(valuesLock);
                it.values.push_back(value);
            }
            it.lastWriteUs = nowUs();
            session->write(w);
            ++writesIssued;
        }
    };

    // ---- polling
    std::vector<Record> records;
    const uint64_t roundSize = opt.roundRequests > 0 ? std::min(opt.roundRequests, opt.requests) : opt.requests;
    records.reserve(size_t(roundSize) + 10000);
    uint64_t failureReports = 0, failureUnverified = 0;
    LogCounter logc;
    logc.path = opt.logPath;
    uint64_t delayShortFaults = 0, delayLongFaults = 0;
    bool longDelay = false;
    uint64_t nextSwitch = uint64_t(opt.delaySwitch);
    const int64_t limitMs = startMs + int64_t(opt.maxSeconds) * 1000;
    bool timeUp = false, lostForGood = false;

    auto doStep = [&]() {
        Record rec;
        rec.t0 = nowUs();
        const Exchange ex = session->step();
        rec.t1 = nowUs();
        std::vector<Change> changes = session->takeChanges();
        if (session->failedForGood())
            lostForGood = true;
        if (opt.reconnectAfterTimeout && ex.timedOut)
            session->disconnect();
        if (ex.sent != 1)
            return;
        rec.cmd = ex.commandId;
        rec.result = ex.result;
        rec.reg = ex.varReg;
        rec.address = ex.varAddress;
        rec.length = ex.varLength;
        rec.cyclic = ex.cyclicRead;
        rec.replyBytes = ex.replyBytes;
        if (ex.commandId == 3 && ex.frame.size() > 50)
            rec.data.assign(ex.frame.begin() + 50, ex.frame.end());
        const bool bitVar = rec.reg.size() > 4 && rec.reg.compare(rec.reg.size() - 4, 4, "_bit") == 0;
        if (ex.commandId == 3 || (ex.commandId == 2 && bitVar)) {
            auto f = itemByVar.find({rec.reg, rec.address, rec.length});
            if (f != itemByVar.end())
                rec.item = f->second;
            else
                mismatch("a write frame for " + rec.reg + " " + std::to_string(rec.address) + " ("
                    + std::to_string(rec.length) + ") that no item asked for");
        }
        if (ex.result == 2 && rec.item >= 0) {
            // A write given up: its item named in the error text and reported to the host.
            ++failureReports;
            const Item& it = *items[size_t(rec.item)];
            if (ex.errorText.compare(0, it.errorPrefix.size(), it.errorPrefix) != 0)
                mismatch("write of " + it.addr.text() + " given up with error text '" + ex.errorText + "', expected '"
                    + it.errorPrefix + "N)'");
            bool reported = false;
            for (const Change& c : changes)
                reported = reported || (c.text == it.changeText && c.address == it.changeAddress);
            if (!reported) {
                if (it.lastWriteUs.load() >= rec.t0)
                    ++failureUnverified;  // the writer may have caused a report
                else
                    mismatch("write of " + it.addr.text() + " given up without a change report (" + it.changeText + ", "
                        + std::to_string(it.changeAddress) + ")");
            }
        }
        records.push_back(std::move(rec));
    };

    // ---- resident memory and open descriptors of this program (the host) and the simulator
    Endurance endurance(opt, sim.pid(), [&] { return session->requestsSent(); });
    endurance.start();

    // ---- rounds: faults and writes, then the queue drained, a full refresh and the checks.
    // Between rounds the program lets go of what it recorded for the checks (the session, the
    // driver, the connection and the simulator stay), so that its own memory stays flat
    // over an endurance run and what grows is the host's or the simulator's.
    uint64_t requestsWithFaults = 0;
    uint64_t itemsConfirmed = 0, itemsFailed = 0, itemsRefused = 0, itemsUnwritten = 0, writeTransactions = 0;
    uint64_t tapErrors = 0, tapRequests = 0;
    uint64_t lateSameFrame = 0, lateOtherRejected = 0, lateOtherAccepted = 0;
    int rounds = 0;
    auto forgetRound = [&](std::map<unsigned, std::vector<uint8_t>>& mem) {
        for (auto& itp : items) {  // what the PLC holds now is the next round's starting point
            Item& it = *itp;
            it.baseline = it.bit >= 0 ? (mem[it.group][it.byte] >> it.bit) & 1
                                      : int(mem[it.group][it.byte]) | int(mem[it.group][it.byte + 1]) << 8;
            it.values.clear();
        }
        records.clear();
        tap.forget();
        logc.faultOf.clear();
    };
    for (;;) {
        ++rounds;
        const uint64_t goal = std::min(opt.requests, uint64_t(rounds) * roundSize);
        const bool lastRound = goal >= opt.requests;
        endurance.roundBegins(rounds);
        stopWriter = false;
        std::thread writer(writerLoop);
        // Phase 1: faults, writes.
        while (!lostForGood) {
            const uint64_t sent = session->requestsSent();
            if (sent >= goal)
                break;
            if (adshost::nowMs() >= limitMs) {
                timeUp = true;
                break;
            }
            if (sent >= nextSwitch) {
                logc.poll();
                (longDelay ? delayLongFaults : delayShortFaults) += logc.delayInPhase;
                logc.delayInPhase = 0;
                longDelay = !longDelay;
                command("delay " + std::to_string(longDelay ? opt.delayLongMs : opt.delayShortMs));
                nextSwitch += uint64_t(opt.delaySwitch);
            }
            doStep();
        }
        requestsWithFaults = session->requestsSent();
        stopWriter = true;
        writer.join();
        command("faults-off");
        logc.poll();
        (longDelay ? delayLongFaults : delayShortFaults) += logc.delayInPhase;
        logc.delayInPhase = 0;

        // Phase 2: quiet period (late replies of delayed or split answers come in and are drained),
        // then until the write queue has drained.
        const int64_t quietUntil = nowUs() + int64_t(std::max(opt.delayLongMs, opt.splitPauseMs) * 4 + 100) * 1000;
        const int64_t phaseLimit = std::min<int64_t>(limitMs + 30000, adshost::nowMs() + 60000);
        while (!lostForGood && nowUs() < quietUntil && adshost::nowMs() < phaseLimit) {
            doStep();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        size_t drainedAt = 0;
        bool drained = false;
        {
            int cyclicInRow = 0;
            size_t from = records.size();
            while (!lostForGood && adshost::nowMs() < phaseLimit) {
                doStep();
                for (; from < records.size(); ++from) {
                    const Record& r = records[from];
                    if (r.cyclic && r.result == 1)
                        ++cyclicInRow;
                    else
                        cyclicInRow = 0;
                }
                if (cyclicInRow >= 2) {
                    drained = true;
                    drainedAt = records.size();
                    break;
                }
            }
        }
        if (!drained)
            mismatch("the write queue did not drain after the faults were switched off");
        // Phase 3: one full refresh.
        bool refreshed = false;
        {
            std::set<std::tuple<std::string, int, int>> seen;
            size_t from = records.size();
            while (drained && !lostForGood && adshost::nowMs() < phaseLimit) {
                doStep();
                for (; from < records.size(); ++from) {
                    const Record& r = records[from];
                    if (r.cmd == 3 || (r.cmd == 2 && !r.cyclic))
                        mismatch("a write frame after the queue had drained");
                    if (r.cyclic && r.result == 1)
                        seen.insert({r.reg, r.address, r.length});
                }
                if (int(seen.size()) >= blocks) {
                    refreshed = true;
                    break;
                }
            }
        }
        if (drained && !refreshed)
            mismatch("no full refresh after the queue had drained");
        if (lostForGood)
            mismatch("the connection was lost for good: " + session->failure());
        (void)drainedAt;

        if (opt.corrupt && lastRound) {
            command("set " + std::to_string(GROUP_M) + " 100 a5a5");  // the written word M_W 100
            const Region& r = kRegions[0];                            // bit 1 of byte 0 (no item)
            command("set " + std::to_string(r.group) + " 0 " + hex2({uint8_t(pattern[{r.group, 0}] ^ 0x02)}));
        }

        // ---- checks: the cache against the simulator's memory. Their scratch (copies of the
        // tap's records of the round, about 2 MB at 20,000 requests) is this program's, not
        // the host's: no sample is taken until the round's end.
        endurance.pause();
        std::map<unsigned, std::vector<uint8_t>> mem;
        for (const Region& r : kRegions)
            mem[r.group] = memory(r.group, r.offset, r.size);
        auto memWord = [&](const Item& it) { return int(mem[it.group][it.byte]) | int(mem[it.group][it.byte + 1]) << 8; };
        auto memBit = [&](const Item& it) { return (mem[it.group][it.byte] >> it.bit) & 1; };
        auto memValue = [&](const Item& it) { return it.bit >= 0 ? memBit(it) : memWord(it); };
        auto fmt = [](const Item& it, int v) {
            char b[16];
            if (it.bit >= 0)
                std::snprintf(b, sizeof b, "%d", v);
            else
                std::snprintf(b, sizeof b, "0x%04X", unsigned(v));
            return std::string(b);
        };
        for (auto& itp : items) {
            const Item& it = *itp;
            const std::vector<uint8_t> c = session->read(it.addr);
            const int cached = it.bit >= 0 ? int(c[0]) : int(c[0]) | int(c[1]) << 8;
            if (cached != memValue(it))
                mismatch(
                    "cache of " + it.addr.text() + " is " + fmt(it, cached) + ", the PLC holds " + fmt(it, memValue(it)));
        }
        // Neighbours: every bit no item covers keeps the pattern.
        struct Clobbered {
            unsigned group, byte;
            uint8_t untouchedMask;
        };
        std::vector<Clobbered> clobbered;
        for (const Region& r : kRegions) {
            for (unsigned i = 0; i < r.size; ++i) {
                const unsigned byte = r.offset + i;
                const uint8_t want = pattern[{r.group, byte}], got = mem[r.group][i];
                uint8_t untouched = 0;
                for (int b = 0; b < 8; ++b)
                    if (!itemBits.count({r.group, byte, b}))
                        untouched |= uint8_t(1 << b);
                if ((want ^ got) & untouched)
                    clobbered.push_back({r.group, byte, untouched});
                for (int b = 0; b < 8; ++b) {
                    if (itemBits.count({r.group, byte, b}))
                        continue;
                    if (((want ^ got) >> b) & 1) {
                        char t[160];
                        std::snprintf(t, sizeof t,
                            "untouched bit %u.%d of group 0x%X changed: pattern byte 0x%02X, now 0x%02X", byte, b, r.group,
                            want, got);
                        mismatch(t);
                    }
                }
            }
        }

        // ---- checks: the accounting of writes
        std::vector<Episode> episodes;
        for (size_t i = 0; i < records.size(); ++i) {
            if (episodes.empty() || episodes.back().result != 0) {
                Episode e;
                e.first = i;
                e.cmd = records[i].cmd;
                e.item = records[i].item;
                episodes.push_back(e);
            }
            Episode& e = episodes.back();
            const Record& r = records[i];
            if (r.cmd != e.cmd || r.item != e.item || r.reg != records[e.first].reg
                || r.address != records[e.first].address)
                mismatch("exchange " + std::to_string(i) + " sent another frame before the one in flight was settled");
            e.last = i;
            if (r.result == 1 || r.result == 2)
                e.result = r.result;
            else if (r.result != 8)
                mismatch("exchange " + std::to_string(i) + " gave result " + std::to_string(r.result));
        }
        if (!episodes.empty() && episodes.back().result == 0)
            episodes.pop_back();  // unfinished at the end

        // Connections the host closed are read to their end first (their replies count).
        if (!tap.settle(12000))
            mismatch("the tap still reads " + std::to_string(tap.lingering()) + " connections the host closed");
        const std::vector<TapRequest> tapReqs = tap.requests();
        std::vector<int> lastEpisode(items.size(), -1);
        for (size_t k = 0; k < episodes.size(); ++k) {
            const Episode& e = episodes[k];
            if (e.item < 0)
                continue;
            if (e.cmd == 3)
                ++writeTransactions;
            lastEpisode[size_t(e.item)] = int(k);
            // A bit write's read that was accepted is followed at once by its write.
            if (e.cmd == 2 && e.result == 1) {
                if (k + 1 >= episodes.size() || episodes[k + 1].cmd != 3 || episodes[k + 1].item != e.item)
                    mismatch("the read of bit write " + items[size_t(e.item)]->addr.text() + " (exchange "
                        + std::to_string(e.first) + ") was not followed by its write");
            }
        }
        for (size_t i = 0; i < items.size(); ++i) {
            const Item& it = *items[i];
            if (!it.writable)
                continue;
            if (it.values.empty()) {
                ++itemsUnwritten;
                if (memValue(it) != initialValue(it))
                    mismatch(it.addr.text() + " was never written but holds " + fmt(it, memValue(it)));
                continue;
            }
            const int v = it.values.back();
            const int m = memValue(it);
            if (lastEpisode[i] < 0) {
                mismatch("last write " + it.addr.text() + "=" + fmt(it, v) + " was never sent and never reported failed");
                continue;
            }
            const Episode& e = episodes[size_t(lastEpisode[i])];
            if (e.result == 2) {
                ++itemsFailed;
                bool known = m == initialValue(it);
                for (int x : it.values)
                    known = known || x == m;
                if (!known)
                    mismatch(
                        it.addr.text() + " holds " + fmt(it, m) + ", a value never written to it (its last write failed)");
                continue;
            }
            if (e.cmd != 3) {
                mismatch("the last transaction of " + it.addr.text() + " is an accepted read without its write");
                continue;
            }
            // The frame carries the last value.
            const Record& r = records[e.first];
            int carried = -1;
            if (it.bit >= 0 && !r.data.empty())
                carried = (r.data[0] >> it.bit) & 1;
            if (it.bit < 0 && r.data.size() >= 2)
                carried = int(r.data[0]) | int(r.data[1]) << 8;
            if (carried != v) {
                mismatch("the last write frame of " + it.addr.text() + " carried " + fmt(it, carried)
                    + ", the last value written is " + fmt(it, v));
                continue;
            }
            if (m == v) {
                ++itemsConfirmed;
                continue;
            }
            // Not in memory: only acceptable when every request of this transaction that reached
            // the PLC was refused with an ADS error.
            int delivered = 0, refused = 0;
            const uint32_t group = it.group, offset = it.byte;
            for (const TapRequest& q : tapReqs) {
                if (q.cmd != 3 || q.group != group || q.offset != offset || q.data != r.data)
                    continue;
                if (q.tUs < records[e.first].t0 || q.tUs > records[e.last].t1)
                    continue;
                if (!q.delivered)
                    continue;
                ++delivered;
                refused += q.hasResult && q.result != 0;
            }
            if (delivered > 0 && refused == delivered) {
                ++itemsRefused;
                continue;
            }
            mismatch("last write " + it.addr.text() + "=" + fmt(it, v) + " was accepted (exchanges "
                + std::to_string(e.first) + ".." + std::to_string(e.last) + ", " + std::to_string(delivered)
                + " requests reached the PLC, " + std::to_string(refused) + " refused) but the PLC holds " + fmt(it, m));
        }

        // ---- the tap's view against the simulator's
        std::vector<std::pair<std::string, uint32_t>> lateAccepted;  // text, tag of the late reply's request
        uint64_t tapDoubleReplies = 0;
        // The requests the simulator refused by the adserror fault are exactly those whose reply
        // the tap read with a non-zero ADS result.
        logc.poll();
        std::set<uint32_t> refusedBySim;
        for (const auto& kv : logc.faultOf)
            if (kv.second == "adserror")
                refusedBySim.insert(kv.first);
        for (const TapRequest& q : tapReqs) {
            ++tapRequests;
            const bool refused = q.hasResult && q.result != 0;
            tapErrors += refused;
            tapDoubleReplies += q.replies > 1;
            if (refused != (refusedBySim.erase(q.tag) > 0)) {
                char t[240];
                std::snprintf(t, sizeof t,
                    "request tag %u (conn %d, cmd %u group 0x%X offset %u length %u): %s", q.tag, q.conn, q.cmd,
                    q.group, q.offset, q.length,
                    refused ? "the tap read an ADS error reply, the simulator logged no adserror fault"
                            : q.replies ? "the simulator logged an adserror fault, the tap read a reply without an error"
                                        : "the simulator logged an adserror fault, the tap read no reply");
                mismatch(t);
            }
        }
        for (uint32_t tag : refusedBySim)
            mismatch("request tag " + std::to_string(tag) + ": the simulator logged an adserror fault for a request the tap never sent");
        if (tap.unknownReplies())
            mismatch(std::to_string(tap.unknownReplies()) + " replies carried an invoke id never sent");
        if (tapDoubleReplies)
            mismatch(std::to_string(tapDoubleReplies) + " requests got more than one reply");
        for (const std::string& p : tap.problems())
            mismatch(p);

        // Late replies: which reply did the host hand to the driver in each exchange? The first
        // one the tap passed on after it forwarded the exchange's request (the host drains what
        // came before it sends). A reply to an earlier attempt of the same frame is harmless; a
        // reply to another frame confuses the stream, and when the driver accepts it (same length)
        // the data of one request is taken for another's.
        {
            const std::vector<TapReply> tapReplies = tap.replies();
            std::map<uint32_t, size_t> byTag;
            for (size_t k = 0; k < tapReqs.size(); ++k)
                byTag[tapReqs[k].tag] = k;
            auto sameFrame = [](const TapRequest& a, const TapRequest& b) {
                return a.cmd == b.cmd && a.group == b.group && a.offset == b.offset && a.length == b.length
                    && a.data == b.data;
            };
            size_t qi = 0, yi = 0;
            for (size_t i = 0; i < records.size(); ++i) {
                const Record& r = records[i];
                while (qi < tapReqs.size() && tapReqs[qi].tUs < r.t0)
                    ++qi;
                if (qi >= tapReqs.size() || tapReqs[qi].tUs > r.t1 || r.replyBytes == 0)
                    continue;
                // The exchange's own request is the last one the tap forwarded in its window:
                // the request of an earlier exchange that timed out may reach the simulator
                // late, in this window, before the host has drained its reply and sent its own.
                size_t own = qi;
                while (own + 1 < tapReqs.size() && tapReqs[own + 1].tUs <= r.t1)
                    ++own;
                const TapRequest& q = tapReqs[own];
                while (yi < tapReplies.size() && tapReplies[yi].tUs < q.tUs)
                    ++yi;
                // On the request's connection: a late reply on a connection the host has
                // already closed never reaches it (the tap reads it, but does not pass it on).
                size_t yj = yi;
                while (yj < tapReplies.size() && (tapReplies[yj].conn != q.conn || !tapReplies[yj].forwarded)
                    && tapReplies[yj].tUs <= r.t1)
                    ++yj;
                if (yj >= tapReplies.size() || tapReplies[yj].tUs > r.t1)
                    continue;
                const TapReply& y = tapReplies[yj];
                if (y.tag == q.tag)
                    continue;
                auto f = byTag.find(y.tag);
                if (f == byTag.end())
                    continue;
                const TapRequest& owner = tapReqs[f->second];
                if (sameFrame(owner, q)) {
                    ++lateSameFrame;
                    continue;
                }
                if (r.result != 1) {
                    ++lateOtherRejected;
                    continue;
                }
                ++lateOtherAccepted;
                char t[320];
                std::snprintf(t, sizeof t,
                    "exchange %zu (%s %d, cmd %d, request tag %u: group 0x%X offset %u length %u) accepted the late reply "
                    "of tag %u (cmd %u group 0x%X offset %u length %u, fault %s) as its own",
                    i, r.reg.c_str(), r.address, r.cmd, q.tag, q.group, q.offset, q.length, owner.tag, owner.cmd,
                    owner.group, owner.offset, owner.length, "?");
                lateAccepted.push_back({t, owner.tag});
            }
        }

        // Listed first: a late reply taken for another request's is the likely cause of what follows.
        std::vector<std::string> lateTexts;
        for (auto& la : lateAccepted) {
            auto f = logc.faultOf.find(la.second);
            std::string t = la.first;
            const size_t at = t.rfind("fault ?");
            if (at != std::string::npos)
                t.replace(at, 7, "fault " + (f == logc.faultOf.end() ? std::string("none") : f->second));
            lateTexts.push_back(t);
        }
        if (opt.tolerateLateReplies) {
            for (size_t i = 0; i < lateTexts.size() && i < 5; ++i)
                std::fprintf(stderr, "soak: NOTE: %s\n", lateTexts[i].c_str());
        } else {
            mismatches.insert(mismatches.begin(), lateTexts.begin(), lateTexts.end());
        }

        // Evidence for a clobbered byte: the first write that changed bits no item covers, the
        // requests before it on the wire (with their faults), the replies passed to the host
        // meanwhile, and what the host made of them.
        if (!clobbered.empty()) {
            const Clobbered& c = clobbered.front();
            const uint8_t want = pattern[{c.group, c.byte}];
            const std::vector<TapReply> tapReplies = tap.replies();
            for (size_t k = 0; k < tapReqs.size(); ++k) {
                const TapRequest& q = tapReqs[k];
                if (q.cmd != 3 || q.group != c.group || q.offset != c.byte || q.data.empty()
                    || !((q.data[0] ^ want) & c.untouchedMask))
                    continue;
                auto faultOf = [&](uint32_t tag) {
                    auto f = logc.faultOf.find(tag);
                    return f == logc.faultOf.end() ? std::string("-") : f->second;
                };
                std::fprintf(stderr,
                    "soak: evidence: byte %u of group 0x%X (pattern 0x%02X) first clobbered by write tag %u data 0x%02X\n",
                    c.byte, c.group, want, q.tag, q.data[0]);
                const size_t from = k >= 6 ? k - 6 : 0;
                for (size_t j = from; j <= k; ++j) {
                    const TapRequest& x = tapReqs[j];
                    std::fprintf(stderr,
                        "soak: evidence:   request tag %u conn %d t=%.3f ms cmd %u group 0x%X offset %u length %u fault %s "
                        "replies %d (size %d)\n",
                        x.tag, x.conn, double(x.tUs - tapReqs[from].tUs) / 1000.0, x.cmd, x.group, x.offset, x.length,
                        faultOf(x.tag).c_str(), x.replies, x.replySize);
                }
                for (const TapReply& y : tapReplies) {
                    if (y.tUs < tapReqs[from].tUs || y.tUs > q.tUs)
                        continue;
                    std::fprintf(stderr, "soak: evidence:   reply to tag %u (size %d) passed to the host at t=%.3f ms\n",
                        y.tag, y.size, double(y.tUs - tapReqs[from].tUs) / 1000.0);
                }
                for (const Record& r : records) {
                    if (r.t1 < tapReqs[from].tUs || r.t0 > q.tUs)
                        continue;
                    std::fprintf(stderr, "soak: evidence:   host exchange t=%.3f..%.3f ms cmd %d %s %d (%d) result %d\n",
                        double(r.t0 - tapReqs[from].tUs) / 1000.0, double(r.t1 - tapReqs[from].tUs) / 1000.0, r.cmd,
                        r.reg.c_str(), r.address, r.length, r.result);
                }
                break;
            }
        }

        const bool last = lastRound || timeUp || lostForGood || !mismatches.empty();
        if (!last)
            forgetRound(mem);
        endurance.roundEnd(last);
        if (last)
            break;
        for (const char* k : kinds)
            command(std::string("fault-prob ") + k + " " + probText);

    }
    endurance.stop();
    for (const std::string& m : endurance.growth())
        mismatch(m);

    const adshost::Stats st = session->stats();
    const std::string counters = command("counters");
    auto counter = [&](const std::string& name) -> long long {
        const size_t at = counters.find(" " + name + "=");
        return at == std::string::npos ? -1 : std::atoll(counters.c_str() + at + name.size() + 2);
    };

    // ---- stop everything
    ctl.close();
    session.reset();
    tap.stop();
    const int simExit = sim.stop(3000);
    g_simPid = -1;
    if (simExit != 0)
        mismatch("plcsim exited with " + std::to_string(simExit) + " on SIGTERM");
    logc.poll();
    uint64_t faultsByLog = 0;
    for (auto& kv : logc.faults)
        faultsByLog += kv.second;
    if (counter("faults") >= 0 && uint64_t(counter("faults")) != faultsByLog)
        mismatch("faults by the log " + std::to_string(faultsByLog) + ", by the counters "
            + std::to_string(counter("faults")));
    if (tapErrors != logc.faults["adserror"])
        mismatch("ADS error replies seen on the wire " + std::to_string(tapErrors) + ", adserror faults "
            + std::to_string(logc.faults["adserror"]));
    if (opt.faultProb > 0 && requestsWithFaults >= 20000)
        for (const char* k : kinds)
            if (logc.faults[k] == 0)
                mismatch(std::string("no fault of kind ") + k + " was injected");
    if (!opt.keepLog)
        std::remove(opt.logPath.c_str());
    const double seconds = double(adshost::nowMs() - startMs) / 1000.0;
    std::string line = "soak:";
    auto add = [&line](const char* name, unsigned long long v) {
        line += std::string(" ") + name + "=" + std::to_string(v);
    };
    add("requests", st.requests);
    add("requests_with_faults", requestsWithFaults);
    add("plc_requests", (unsigned long long)counter("requests"));
    add("wire_requests", tapRequests);
    add("result1", st.results[1]);
    add("result8", st.results[8]);
    add("result2", st.results[2]);
    add("result3", st.results[3]);
    add("result0", st.results[0]);
    add("timeouts", st.timeouts);
    for (const char* k : kinds)
        add((std::string("fault_") + k).c_str(), logc.faults[k]);
    add("delay_in_time", delayShortFaults);
    add("delay_late", delayLongFaults);
    add("faults_total", faultsByLog);
    add("faults_counter", (unsigned long long)counter("faults"));
    add("reconnects", st.reconnects);
    add("stale_bytes", st.staleBytes);
    add("late_reply_same_frame", lateSameFrame);
    add("late_reply_other_frame_rejected", lateOtherRejected);
    add("late_reply_other_frame_accepted", lateOtherAccepted);
    add("writes_issued", writesIssued.load());
    add("write_transactions", writeTransactions);
    add("items_confirmed", itemsConfirmed);
    add("items_reported_failed", itemsFailed);
    add("items_refused_by_plc", itemsRefused);
    add("items_unwritten", itemsUnwritten);
    add("write_failures_reported", failureReports);
    add("callback_unverifiable", failureUnverified);
    add("blocks", (unsigned long long)blocks);
    add("rounds", (unsigned long long)rounds);
    line += endurance.figures();
    char sec[32];
    std::snprintf(sec, sizeof sec, " seconds=%.1f", seconds);
    line += sec;
    add("mismatches", mismatches.size());
    if (timeUp)
        line += " (wall-clock limit reached)";
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    for (size_t i = 0; i < mismatches.size() && i < 20; ++i)
        std::fprintf(stderr, "soak: MISMATCH: %s\n", mismatches[i].c_str());
    if (mismatches.size() > 20)
        std::fprintf(stderr, "soak: ... and %zu more\n", mismatches.size() - 20);
    finished = true;
    watchdog.join();
    return mismatches.empty() ? 0 : 1;
}
