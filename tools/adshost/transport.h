// The reference host's TCP connection to the PLC: connect with a time-out, one send() per
// frame, one AMS/TCP reply assembled by its length field within the reply time-out, the
// bytes that belong to no request of ours drained before the next send, replies owed by
// requests that timed out read and dropped, and reconnection with a bounded back-off.
//
// Used by the polling thread only, except for the counters (atomics: other threads read
// them for the figures).
#pragma once

#include "adshost.h"
#include "pcap_writer.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace adshost {

class Transport {
public:
    // `cfg` and `pcap` outlive the transport; cfg is read at each connect (address, time-outs,
    // reconnect policy, notice).
    Transport(const Config& cfg, PcapWriter& pcap) : cfg_(cfg), pcap_(pcap) { }
    ~Transport() { close(true); }
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    struct Counters {
        std::atomic<uint64_t> requests {0};  // frames sent
        std::atomic<uint64_t> reconnects {0};
        std::atomic<uint64_t> failedReconnects {0};
        std::atomic<uint64_t> staleBytes {0};  // bytes drained or dropped before a send
    };

    // Connects (closing a connection still open). False with a reason.
    bool connect(std::string& why);
    // byHost: who ends the connection, for the capture's FIN.
    void close(bool byHost);
    bool connected() const { return fd_ >= 0; }
    int localPort() const { return localPort_; }
    // After a lost connection: connects again, up to Config::reconnectAttempts times with a
    // doubling back-off; each failed attempt is told through Config::notice. False (and
    // failedForGood) when every attempt failed or `stop` was raised.
    bool reconnect(const std::atomic<bool>& stop);
    bool failedForGood() const { return failedForGood_; }
    const std::string& failure() const { return failure_; }

    // Before a new request: reads and drops each reply owed by a request that timed out.
    void settleOwedReplies();
    // One request in two halves, so that the host can note what it sent while the PLC
    // answers. send: one frame (a lost connection is noted in `ex`); then awaitReply: its
    // reply into `reply` (cleared first), or in `ex` why none came (timedOut, connectionLost;
    // recvChunks counts the recv() calls), the round trip in ex.rttMs when a reply came.
    // awaitReply returns the moment it ended (adstool::nowNs()).
    void send(const uint8_t* frame, size_t len, Exchange& ex);
    int64_t awaitReply(std::vector<uint8_t>& reply, Exchange& ex);
    // After the driver has handled the reply (`accepted`: its result was 1): whether the
    // stream may hold stale bytes, a reply is owed, or the connection is to be dropped.
    void replyHandled(const Exchange& ex, bool accepted, bool anyBytes);

    const Counters& counters() const { return counters_; }

private:
    void drain();
    // Assembles one reply by the AMS/TCP length field; bytes read past it are kept aside.
    // deadlineMs: on the adstool::nowMs() clock.
    void receive(std::vector<uint8_t>& buf, Exchange& ex, int64_t deadlineMs);
    void dropStale(const uint8_t* p, size_t n);

    const Config& cfg_;
    PcapWriter& pcap_;
    Counters counters_;
    int fd_ = -1;
    uint16_t localPort_ = 0;
    bool failedForGood_ = false;
    std::string failure_;
    // Bytes read past the end of the last reply; they belong to no request of ours.
    std::vector<uint8_t> pending_;
    // Whether the stream may hold bytes of an older request (after a time-out, a lost
    // connection or a rejected reply); only then is the socket drained before a send.
    bool mayHaveStale_ = true;
    // Replies the PLC still owes for requests that timed out on this connection. The driver
    // matches a reply to its request by length alone, so a late reply must never reach it
    // as the answer to a later request (a bit write would write back another byte's bits).
    int owedReplies_ = 0;
    // The request in flight: when it was sent, and its reply's deadline (adstool::nowMs()).
    bool sent_ = false;
    int64_t sentNs_ = 0;
    int64_t replyDeadlineMs_ = 0;
};

}  // namespace adshost
