#include "adstool/deadline_io.h"
#include "adstool/le.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

namespace adstool {

int Deadline::leftMs() const
{
    const int64_t left = when_ - nowMs();
    if (left <= 0)
        return 0;
    return left > INT_MAX ? INT_MAX : int(left);
}

const char* ioStatusText(IoStatus s)
{
    switch (s) {
    case IoStatus::Ok:
        return "ok";
    case IoStatus::TimedOut:
        return "timed out";
    case IoStatus::Closed:
        return "closed by the peer";
    case IoStatus::Error:
        break;
    }
    return "error";
}

bool toSockaddr(const std::string& host, uint16_t port, sockaddr_in& out)
{
    std::memset(&out, 0, sizeof out);
    out.sin_family = AF_INET;
    out.sin_port = htons(port);
    return inet_pton(AF_INET, host.c_str(), &out.sin_addr) == 1;
}

std::string sockaddrText(const sockaddr_in& a)
{
    char buf[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf);
    return std::string(buf) + ":" + std::to_string(ntohs(a.sin_port));
}

static int failWith(int fd, std::string* why, const std::string& text)
{
    if (why)
        *why = text;
    if (fd >= 0) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
    }
    return -1;
}

// A non-blocking IPv4 TCP socket for host:port, with the address filled in; -1 with a reason.
static int openTcpSocket(const std::string& host, uint16_t port, sockaddr_in& a, std::string* why)
{
    if (!toSockaddr(host, port, a))
        return failWith(-1, why, "'" + host + "' is not an IPv4 address");
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return failWith(-1, why, std::string("socket: ") + std::strerror(errno));
    return fd;
}

int connectTcp(const std::string& host, uint16_t port, const Deadline& deadline, std::string* why)
{
    sockaddr_in a;
    const int fd = openTcpSocket(host, port, a, why);
    if (fd < 0)
        return -1;
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    const std::string where = host + ":" + std::to_string(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0) {
        if (errno != EINPROGRESS)
            return failWith(fd, why, "connect to " + where + ": " + std::strerror(errno));
        if (!waitWritable(fd, deadline))
            return failWith(fd, why, "connect to " + where + ": timed out");
        int err = 0;
        socklen_t len = sizeof err;
        ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        if (err) {
            errno = err;
            return failWith(fd, why, "connect to " + where + ": " + std::strerror(err));
        }
    }
    return fd;
}

namespace {

constexpr int64_t kSliceMs = 50;  // how soon a wait notices *stop

bool stopped(const volatile sig_atomic_t* stop) { return stop && *stop; }

bool resolveIpv4(const std::string& host, uint16_t port, sockaddr_in& a)
{
    if (toSockaddr(host, port, a))
        return true;
    addrinfo hints {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || !res)
        return false;
    a.sin_addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr;
    ::freeaddrinfo(res);
    return true;
}

ConnectResult connectFailed(ConnectResult r, ConnectStatus status, int error = 0)
{
    if (r.fd >= 0)
        ::close(r.fd);
    r.fd = -1;
    r.status = status;
    r.error = error;
    return r;
}

}  // namespace

ConnectResult connectTcpWaiting(const std::string& host, uint16_t port, int timeoutMs, const volatile sig_atomic_t* stop)
{
    ConnectResult r;
    sockaddr_in a {};
    if (!resolveIpv4(host, port, a))
        return connectFailed(r, ConnectStatus::Unresolved);
    r.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (r.fd < 0)
        return connectFailed(r, ConnectStatus::NoSocket, errno);
    const int one = 1;
    ::setsockopt(r.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    int err = 0;
    if (::connect(r.fd, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0) {
        if (errno != EINPROGRESS) {
            err = errno;
        } else {
            pollfd p {r.fd, POLLOUT, 0};
            int ready = 0;
            const int64_t deadline = nowMs() + timeoutMs;
            for (int guard = 0; guard < 100000; ++guard) {
                if (stopped(stop))
                    return connectFailed(r, ConnectStatus::Interrupted);
                const int64_t left = deadline - nowMs();
                ready = left > 0 ? ::poll(&p, 1, int(std::min<int64_t>(left, kSliceMs))) : 0;
                if (ready == 0 && left > kSliceMs)
                    continue;
                if (!(ready < 0 && errno == EINTR))
                    break;
            }
            if (ready <= 0)
                return connectFailed(r, ConnectStatus::TimedOut);
            socklen_t len = sizeof err;
            ::getsockopt(r.fd, SOL_SOCKET, SO_ERROR, &err, &len);
        }
    }
    if (err == ECONNREFUSED)
        return connectFailed(r, ConnectStatus::Refused, err);
    if (err)
        return connectFailed(r, ConnectStatus::Failed, err);
    r.status = ConnectStatus::Ok;
    return r;
}

ReadStatus readExactWaiting(
    int fd, size_t n, std::vector<uint8_t>& out, int64_t deadlineMs, const volatile sig_atomic_t* stop)
{
    const size_t at = out.size();
    out.resize(at + n);
    // Up to what arrived, so that a reply cut short shows how far it got.
    size_t got = 0;
    while (got < n) {
        if (stopped(stop)) {
            out.resize(at + got);
            return ReadStatus::Interrupted;
        }
        size_t k = 0;
        const Deadline slice = Deadline::at(std::min(deadlineMs, nowMs() + kSliceMs));
        const IoStatus st = recvSome(fd, out.data() + at + got, n - got, k, slice);
        if (st == IoStatus::TimedOut && nowMs() < deadlineMs)
            continue;
        if (st != IoStatus::Ok) {
            out.resize(at + got);
            return st == IoStatus::TimedOut ? ReadStatus::TimedOut : ReadStatus::Closed;
        }
        got += k;
    }
    return ReadStatus::Ok;
}

int listenTcp(const std::string& host, uint16_t port, sockaddr_in* bound, std::string* why, int backlog)
{
    sockaddr_in a;
    const int fd = openTcpSocket(host, port, a, why);
    if (fd < 0)
        return -1;
    const int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) < 0 || ::listen(fd, backlog) < 0)
        return failWith(fd, why, "cannot listen on " + host + ":" + std::to_string(port) + ": " + std::strerror(errno));
    if (bound) {
        socklen_t len = sizeof *bound;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(bound), &len);
    }
    return fd;
}

static bool waitFor(int fd, short events, const Deadline& deadline)
{
    for (;;) {
        pollfd p {fd, events, 0};
        const int r = ::poll(&p, 1, deadline.leftMs());
        if (r > 0)
            return true;
        if (r == 0 || errno != EINTR || deadline.expired())
            return false;
    }
}

bool waitReadable(int fd, const Deadline& deadline) { return waitFor(fd, POLLIN, deadline); }
bool waitWritable(int fd, const Deadline& deadline) { return waitFor(fd, POLLOUT, deadline); }

IoStatus sendAll(int fd, const void* data, size_t len, const Deadline& deadline)
{
    const char* p = static_cast<const char*>(data);
    while (len > 0) {
        const ssize_t n = ::send(fd, p, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            p += n;
            len -= size_t(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            return IoStatus::Error;
        if (n < 0 && errno == EINTR)
            continue;
        if (!waitWritable(fd, deadline))
            return IoStatus::TimedOut;
    }
    return IoStatus::Ok;
}

IoStatus recvSome(int fd, void* buf, size_t cap, size_t& got, const Deadline& deadline)
{
    got = 0;
    for (;;) {
        const ssize_t n = ::recv(fd, buf, cap, MSG_DONTWAIT);
        if (n > 0) {
            got = size_t(n);
            return IoStatus::Ok;
        }
        if (n == 0)
            return cap == 0 ? IoStatus::Ok : IoStatus::Closed;
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            return IoStatus::Error;
        if (!waitReadable(fd, deadline))
            return IoStatus::TimedOut;
    }
}

IoStatus recvExact(int fd, void* buf, size_t n, const Deadline& deadline)
{
    char* p = static_cast<char*>(buf);
    while (n > 0) {
        size_t got = 0;
        const IoStatus s = recvSome(fd, p, n, got, deadline);
        if (s != IoStatus::Ok)
            return s;
        p += got;
        n -= got;
    }
    return IoStatus::Ok;
}

// ---------------------------------------------------------------- TcpStream

bool TcpStream::connect(const std::string& host, uint16_t port, int timeoutMs)
{
    close();
    fd_ = connectTcp(host, port, Deadline(timeoutMs));
    return fd_ >= 0;
}

void TcpStream::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    closed_ = false;
    buf_.clear();
}

bool TcpStream::sendAll(const void* data, size_t len, int timeoutMs)
{
    return fd_ >= 0 && adstool::sendAll(fd_, data, len, Deadline(timeoutMs)) == IoStatus::Ok;
}

bool TcpStream::fill(const Deadline& deadline)
{
    if (fd_ < 0 || closed_)
        return false;
    char tmp[4096];
    size_t got = 0;
    const IoStatus s = recvSome(fd_, tmp, sizeof tmp, got, deadline);
    if (s == IoStatus::Closed || s == IoStatus::Error) {
        closed_ = true;
        return false;
    }
    if (s != IoStatus::Ok)
        return false;
    buf_.insert(buf_.end(), tmp, tmp + got);
    return true;
}

bool TcpStream::readExact(size_t n, std::vector<uint8_t>& out, int timeoutMs)
{
    const Deadline deadline(timeoutMs);
    while (buf_.size() < n) {
        if (!fill(deadline))
            return false;
    }
    out.assign(buf_.begin(), buf_.begin() + long(n));
    buf_.erase(buf_.begin(), buf_.begin() + long(n));
    return true;
}

bool TcpStream::readFrame(std::vector<uint8_t>& out, int timeoutMs)
{
    const Deadline deadline(timeoutMs);
    while (buf_.size() < 6) {
        if (!fill(deadline))
            return false;
    }
    const uint32_t len = getU32(buf_.data() + 2);
    if (len > (1u << 20))
        return false;
    while (buf_.size() < 6 + size_t(len)) {
        if (!fill(deadline))
            return false;
    }
    out.assign(buf_.begin(), buf_.begin() + 6 + long(len));
    buf_.erase(buf_.begin(), buf_.begin() + 6 + long(len));
    return true;
}

bool TcpStream::readLine(std::string& line, int timeoutMs)
{
    const Deadline deadline(timeoutMs);
    size_t scanned = 0;
    for (;;) {
        for (; scanned < buf_.size(); ++scanned) {
            if (buf_[scanned] == '\n') {
                line.assign(buf_.begin(), buf_.begin() + long(scanned));
                if (!line.empty() && line.back() == '\r')
                    line.pop_back();
                buf_.erase(buf_.begin(), buf_.begin() + long(scanned) + 1);
                return true;
            }
        }
        if (!fill(deadline))
            return false;
    }
}

bool TcpStream::waitClosed(int timeoutMs)
{
    const Deadline deadline(timeoutMs);
    while (!closed_ && fd_ >= 0 && !deadline.expired())
        fill(deadline);
    return closed_;
}

}  // namespace adstool
