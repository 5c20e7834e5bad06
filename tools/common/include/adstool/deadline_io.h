// Socket I/O that never waits past a deadline (POSIX, IPv4, TCP), and a buffered connection
// that reads bytes, lines and AMS/TCP frames with time-outs.
#ifndef ADSTOOL_DEADLINE_IO_H
#define ADSTOOL_DEADLINE_IO_H

#include "adstool/clock.h"

#include <netinet/in.h>

#include <csignal>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace adstool {

// A point in time on the nowMs() clock.
class Deadline {
public:
    explicit Deadline(int64_t timeoutMs) : when_(nowMs() + (timeoutMs > 0 ? timeoutMs : 0)) { }
    // A deadline at a moment already known, without reading the clock.
    static Deadline at(int64_t whenMs) { return Deadline(whenMs, At()); }
    int64_t when() const { return when_; }
    // Milliseconds left, at least 0 (and at most INT_MAX): a time-out for poll().
    int leftMs() const;
    bool expired() const { return leftMs() == 0; }

private:
    struct At { };
    Deadline(int64_t whenMs, At) : when_(whenMs) { }
    int64_t when_;
};

enum class IoStatus {
    Ok,
    TimedOut,  // the deadline passed first
    Closed,    // the peer closed the connection (recv returned 0)
    Error,     // any other failure (errno tells)
};
const char* ioStatusText(IoStatus s);

// 127.0.0.1:4711 -> sockaddr_in; false when host is not a dotted IPv4 address.
bool toSockaddr(const std::string& host, uint16_t port, sockaddr_in& out);
std::string sockaddrText(const sockaddr_in& a);  // "127.0.0.1:4711"

// A connected, non-blocking TCP socket (TCP_NODELAY, close-on-exec) or -1 with why.
int connectTcp(const std::string& host, uint16_t port, const Deadline& deadline, std::string* why = nullptr);
// A non-blocking listening socket (SO_REUSEADDR, close-on-exec) or -1 with why; bound gets
// the address it was bound to (port 0 picks a free port).
int listenTcp(
    const std::string& host, uint16_t port, sockaddr_in* bound = nullptr, std::string* why = nullptr, int backlog = 16);

// A connection attempt that a person waits for: the host may be a name (IPv4 only), and the
// wait goes in slices so that a signal handler setting *stop ends it at once.
enum class ConnectStatus {
    Ok,
    Unresolved,   // the host is no IPv4 address and no name that resolves to one
    NoSocket,     // socket() failed (error tells)
    TimedOut,     // no answer within the time-out
    Refused,      // nothing listens there
    Failed,       // any other error (error tells)
    Interrupted,  // *stop was set
};
struct ConnectResult {
    ConnectStatus status = ConnectStatus::Failed;
    int fd = -1;    // connected, non-blocking, TCP_NODELAY, close-on-exec; the caller closes it
    int error = 0;  // errno of NoSocket and Failed
};
ConnectResult connectTcpWaiting(
    const std::string& host, uint16_t port, int timeoutMs, const volatile sig_atomic_t* stop = nullptr);

enum class ReadStatus { Ok, TimedOut, Closed, Interrupted };
// Exactly n more bytes appended to out, before deadlineMs (on the nowMs() clock), waiting in
// slices so that *stop ends the wait at once. On failure out keeps the bytes that did come.
ReadStatus readExactWaiting(int fd, size_t n, std::vector<uint8_t>& out, int64_t deadlineMs,
    const volatile sig_atomic_t* stop = nullptr);

// How long one AMS/TCP frame is, from its 6-byte header: 6 plus the length field, or just the
// 6 header bytes when the length field passes maxBody (not a frame of ours).
inline size_t amsFrameSize(const uint8_t* header, uint32_t maxBody)
{
    const uint32_t len = uint32_t(header[2]) | uint32_t(header[3]) << 8 | uint32_t(header[4]) << 16
        | uint32_t(header[5]) << 24;
    return len > maxBody ? 6 : 6 + size_t(len);
}

// True once fd is readable (or writable) before the deadline.
bool waitReadable(int fd, const Deadline& deadline);
bool waitWritable(int fd, const Deadline& deadline);

// All len bytes, waiting for room as needed (blocking or non-blocking fd; MSG_NOSIGNAL).
IoStatus sendAll(int fd, const void* data, size_t len, const Deadline& deadline);
// At least one byte (at most cap) into buf; got tells how many.
IoStatus recvSome(int fd, void* buf, size_t cap, size_t& got, const Deadline& deadline);
// Exactly n bytes into buf.
IoStatus recvExact(int fd, void* buf, size_t n, const Deadline& deadline);

// A TCP connection with a read buffer. Every call takes its own time-out in milliseconds.
class TcpStream {
public:
    TcpStream() = default;
    TcpStream(const TcpStream&) = delete;
    TcpStream& operator=(const TcpStream&) = delete;
    ~TcpStream() { close(); }

    bool connect(const std::string& host, uint16_t port, int timeoutMs = 2000);
    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    void close();

    bool sendAll(const void* data, size_t len, int timeoutMs = 2000);
    bool sendAll(const std::vector<uint8_t>& v, int timeoutMs = 2000) { return sendAll(v.data(), v.size(), timeoutMs); }
    // Exactly n bytes, or false on time-out / close (peerClosed() tells which).
    bool readExact(size_t n, std::vector<uint8_t>& out, int timeoutMs = 2000);
    // One AMS/TCP frame, delimited by the length field of its 6-byte header (at most 1 MiB).
    bool readFrame(std::vector<uint8_t>& out, int timeoutMs = 2000);
    // One line without its "\n" (and "\r").
    bool readLine(std::string& line, int timeoutMs = 2000);
    // True once the peer has closed the connection (seen by a read).
    bool peerClosed() const { return closed_; }
    // Wait up to timeoutMs for the peer to close; bytes that arrive meanwhile are kept.
    bool waitClosed(int timeoutMs = 2000);
    size_t buffered() const { return buf_.size(); }

private:
    bool fill(const Deadline& deadline);
    int fd_ = -1;
    bool closed_ = false;
    std::vector<uint8_t> buf_;
};

}  // namespace adstool

#endif  // ADSTOOL_DEADLINE_IO_H
