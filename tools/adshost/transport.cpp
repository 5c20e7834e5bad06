#include "transport.h"

#include "adstool/deadline_io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

namespace adshost {

namespace {
constexpr uint32_t kMaxFrameBody = 65536;

void setReceiveTimeout(int s, int64_t ms)
{
    if (ms < 1)
        ms = 1;
    timeval t {time_t(ms / 1000), suseconds_t((ms % 1000) * 1000)};
    ::setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t);
}
}  // namespace

void Transport::close(bool byHost)
{
    if (fd_ >= 0) {
        ::close(fd_);
        pcap_.connectionClosed(byHost);
    }
    fd_ = -1;
    localPort_ = 0;
    owedReplies_ = 0;  // a new connection carries no old replies
    pending_.clear();
}

bool Transport::connect(std::string& why)
{
    close(true);
    sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_port = htons(cfg_.plcPort);
    if (inet_pton(AF_INET, cfg_.plcHost.c_str(), &a.sin_addr) != 1) {
        why = "PLC address '" + cfg_.plcHost + "' is not an IPv4 address";
        return false;
    }
    std::string err;
    const int s = adstool::connectTcp(cfg_.plcHost, cfg_.plcPort, adstool::Deadline(cfg_.connectTimeoutMs), &err);
    if (s < 0) {
        why = "cannot " + err;  // "cannot connect to HOST:PORT: Connection refused"
        return false;
    }
    // Connected: from now on blocking, with the reply time-out on receiving, so that a
    // reply costs one recv() as in the plainest client.
    const int flags = ::fcntl(s, F_GETFL);
    if (flags >= 0)
        ::fcntl(s, F_SETFL, flags & ~O_NONBLOCK);
    setReceiveTimeout(s, cfg_.replyTimeoutMs);
    timeval sendTimeout {cfg_.replyTimeoutMs / 1000, (cfg_.replyTimeoutMs % 1000) * 1000};
    ::setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
    fd_ = s;
    sockaddr_in local {};
    socklen_t ll = sizeof local;
    ::getsockname(s, reinterpret_cast<sockaddr*>(&local), &ll);
    localPort_ = ntohs(local.sin_port);
    pcap_.connectionOpened(ntohl(local.sin_addr.s_addr), localPort_, ntohl(a.sin_addr.s_addr), cfg_.plcPort);
    return true;
}

bool Transport::reconnect(const std::atomic<bool>& stop)
{
    int backoff = cfg_.reconnectBackoffMs;
    std::string why;
    for (int attempt = 0; attempt < cfg_.reconnectAttempts && !stop; ++attempt) {
        if (attempt > 0 || backoff > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(backoff));
        if (connect(why)) {
            ++counters_.reconnects;
            return true;
        }
        ++counters_.failedReconnects;
        // Each failed attempt is told: the attempts with their back-off take seconds.
        if (cfg_.notice)
            cfg_.notice("connecting again, attempt " + std::to_string(attempt + 1) + " of "
                + std::to_string(cfg_.reconnectAttempts) + " failed: " + why);
        backoff = std::min(backoff * 2, cfg_.reconnectBackoffMaxMs);
    }
    failedForGood_ = true;
    failure_ = "connection lost and not re-established after " + std::to_string(cfg_.reconnectAttempts)
        + " attempts: " + why;
    return false;
}

void Transport::dropStale(const uint8_t* p, size_t n)
{
    pcap_.plcToHost(p, n);
    counters_.staleBytes += uint64_t(n);
}

// Each owed reply is waited for at most the reply time-out. One that does not come (or a
// stream out of step) costs the connection: a new one carries no old replies.
void Transport::settleOwedReplies()
{
    while (owedReplies_ > 0 && fd_ >= 0) {
        std::vector<uint8_t> late;
        Exchange scratch;
        receive(late, scratch, adstool::nowMs() + cfg_.replyTimeoutMs);
        if (scratch.timedOut || scratch.connectionLost || late.size() <= 6) {
            if (!late.empty())
                pcap_.plcToHost(late.data(), late.size());
            close(true);
            break;
        }
        dropStale(late.data(), late.size());
        --owedReplies_;
    }
    owedReplies_ = 0;
}

void Transport::drain()
{
    if (!pending_.empty()) {
        dropStale(pending_.data(), pending_.size());
        pending_.clear();
    }
    if (fd_ < 0 || !mayHaveStale_)
        return;
    mayHaveStale_ = false;
    uint8_t buf[4096];
    for (int guard = 0; guard < 1024; ++guard) {
        const ssize_t n = ::recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) {
            dropStale(buf, size_t(n));
            continue;
        }
        if (n == 0)
            close(false);  // the peer closed meanwhile
        break;
    }
}

void Transport::send(const uint8_t* frame, size_t len, Exchange& ex)
{
    drain();
    // One clock reading here and one when the reply is in: the round trip, the reply's
    // deadline and the send's come from them.
    sentNs_ = adstool::nowNs();
    replyDeadlineMs_ = sentNs_ / 1000000 + cfg_.replyTimeoutMs;
    sent_ = false;
    // One send() for the whole frame; the helper only waits when the send buffer is full.
    if (fd_ < 0
        || adstool::sendAll(fd_, frame, len, adstool::Deadline::at(replyDeadlineMs_)) != adstool::IoStatus::Ok) {
        ex.connectionLost = true;
        return;
    }
    sent_ = true;
    pcap_.hostToPlc(frame, len);
    counters_.requests.fetch_add(1, std::memory_order_relaxed);
}

int64_t Transport::awaitReply(std::vector<uint8_t>& reply, Exchange& ex)
{
    reply.clear();
    if (sent_ && fd_ >= 0) {
        receive(reply, ex, replyDeadlineMs_);
        if (!reply.empty())
            pcap_.plcToHost(reply.data(), reply.size());
    }
    sent_ = false;
    const int64_t endNs = adstool::nowNs();
    if (!ex.timedOut && !ex.connectionLost)
        ex.rttMs = double(endNs - sentNs_) / 1e6;
    return endNs;
}

// The socket is blocking with the reply time-out, so a reply usually costs a single recv().
// Bytes read past the reply are kept aside and dropped before the next send.
void Transport::receive(std::vector<uint8_t>& buf, Exchange& ex, int64_t deadline)
{
    size_t need = 6;
    bool headerSeen = false;
    bool shortened = false;  // the receive time-out was set to what is left
    uint8_t chunk[4096];
    while (buf.size() < need) {
        const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0) {
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                const int64_t left = deadline - adstool::nowMs();
                if (left <= 0) {
                    ex.timedOut = true;
                    break;
                }
                setReceiveTimeout(fd_, left);
                shortened = true;
                continue;
            }
            ex.connectionLost = true;
            break;
        }
        buf.insert(buf.end(), chunk, chunk + n);
        ++ex.recvChunks;
        if (!headerSeen && buf.size() >= 6) {
            headerSeen = true;
            // Past kMaxFrameBody it is not a frame of ours: the header only is handed over.
            need = adstool::amsFrameSize(buf.data(), kMaxFrameBody);
        }
        if (buf.size() < need && !shortened) {
            // The rest of a split reply: wait only for what is left of the time-out.
            setReceiveTimeout(fd_, std::max<int64_t>(1, deadline - adstool::nowMs()));
            shortened = true;
        }
    }
    if (shortened && fd_ >= 0)
        setReceiveTimeout(fd_, cfg_.replyTimeoutMs);
    if (ex.timedOut || ex.connectionLost)
        return;
    if (buf.size() > need) {
        pending_.assign(buf.begin() + long(need), buf.end());
        buf.resize(need);
        mayHaveStale_ = true;
    }
}

void Transport::replyHandled(const Exchange& ex, bool accepted, bool anyBytes)
{
    if (!accepted || ex.timedOut || ex.connectionLost)
        mayHaveStale_ = true;
    if (ex.connectionLost) {
        close(false);
    } else if (ex.timedOut) {
        // Nothing came: the reply may still come, and is owed. Part of a reply came: the
        // stream cannot be trusted any more; start a new connection.
        if (!anyBytes)
            ++owedReplies_;
        else
            close(true);
    }
}

}  // namespace adshost
