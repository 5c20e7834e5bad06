// plcsim_control.h: header-only helpers (C++17, POSIX) for end-to-end tests.
//
//   plcsim::Process     start the plcsim executable, learn its ports, stop it by PID
//   plcsim::TcpClient   a blocking-with-time-out TCP client (lines and AMS/TCP frames)
//   plcsim::ControlClient  one command line out, one reply line back
//
// Example:
//   plcsim::Process sim;
//   if (!sim.start(PLCSIM_EXE, {"--listen", "127.0.0.1:0", "--control", "127.0.0.1:0"})) ...
//   plcsim::ControlClient ctl;
//   ctl.connect("127.0.0.1", sim.controlPort());
//   std::string r = ctl.command("get 0x4020 0 2");   // "ok 0000"
//   int status = sim.stop();                          // 0 after a clean SIGTERM
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace plcsim {

namespace detail {
inline int64_t nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}
// Milliseconds left until deadline, at least 0.
inline int leftMs(int64_t deadline)
{
    const int64_t left = deadline - nowMs();
    return left > 0 ? int(left) : 0;
}
}  // namespace detail

// "127.0.0.1:4711" -> host, port
inline bool splitHostPort(const std::string& text, std::string& host, uint16_t& port)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon + 1 >= text.size())
        return false;
    unsigned long p = 0;
    for (size_t i = colon + 1; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9')
            return false;
        p = p * 10 + unsigned(text[i] - '0');
        if (p > 65535)
            return false;
    }
    host = text.substr(0, colon);
    port = uint16_t(p);
    return true;
}

class TcpClient {
public:
    TcpClient() = default;
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;
    ~TcpClient() { close(); }

    bool connect(const std::string& host, uint16_t port, int timeoutMs = 2000)
    {
        close();
        sockaddr_in a {};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        if (inet_pton(AF_INET, host.c_str(), &a.sin_addr) != 1)
            return false;
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd_ < 0)
            return false;
        const int one = 1;
        ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0) {
            if (errno != EINPROGRESS)
                return fail();
            pollfd p {fd_, POLLOUT, 0};
            if (::poll(&p, 1, timeoutMs) != 1)
                return fail();
            int err = 0;
            socklen_t len = sizeof err;
            ::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &len);
            if (err)
                return fail();
        }
        return true;
    }
    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    void close()
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
        closed_ = false;
        buf_.clear();
    }

    bool sendAll(const void* data, size_t len, int timeoutMs = 2000)
    {
        const int64_t deadline = detail::nowMs() + timeoutMs;
        const char* p = static_cast<const char*>(data);
        while (len > 0 && fd_ >= 0) {
            const ssize_t n = ::send(fd_, p, len, MSG_NOSIGNAL);
            if (n > 0) {
                p += n;
                len -= size_t(n);
                continue;
            }
            if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
                return false;
            pollfd pf {fd_, POLLOUT, 0};
            if (::poll(&pf, 1, detail::leftMs(deadline)) <= 0)
                return false;
        }
        return len == 0;
    }
    bool sendAll(const std::vector<uint8_t>& v, int timeoutMs = 2000) { return sendAll(v.data(), v.size(), timeoutMs); }

    // Exactly n bytes, or false on time-out / close (peerClosed() tells which).
    bool readExact(size_t n, std::vector<uint8_t>& out, int timeoutMs = 2000)
    {
        const int64_t deadline = detail::nowMs() + timeoutMs;
        while (buf_.size() < n) {
            if (!fill(deadline))
                return false;
        }
        out.assign(buf_.begin(), buf_.begin() + long(n));
        buf_.erase(buf_.begin(), buf_.begin() + long(n));
        return true;
    }

    // One AMS/TCP frame, delimited by the length field of its 6-byte header.
    bool readFrame(std::vector<uint8_t>& out, int timeoutMs = 2000)
    {
        const int64_t deadline = detail::nowMs() + timeoutMs;
        std::vector<uint8_t> head, body;
        if (!readExact(6, head, detail::leftMs(deadline)))
            return false;
        const uint32_t len
            = uint32_t(head[2]) | uint32_t(head[3]) << 8 | uint32_t(head[4]) << 16 | uint32_t(head[5]) << 24;
        if (len > (1u << 20) || !readExact(len, body, detail::leftMs(deadline))) {
            buf_.insert(buf_.begin(), head.begin(), head.end());
            return false;
        }
        out = head;
        out.insert(out.end(), body.begin(), body.end());
        return true;
    }

    // One line without its "\n" (and "\r").
    bool readLine(std::string& line, int timeoutMs = 2000)
    {
        const int64_t deadline = detail::nowMs() + timeoutMs;
        for (;;) {
            for (size_t i = 0; i < buf_.size(); ++i) {
                if (buf_[i] == '\n') {
                    line.assign(buf_.begin(), buf_.begin() + long(i));
                    if (!line.empty() && line.back() == '\r')
                        line.pop_back();
                    buf_.erase(buf_.begin(), buf_.begin() + long(i) + 1);
                    return true;
                }
            }
            if (!fill(deadline))
                return false;
        }
    }

    // True once the peer has closed the connection (seen by a read).
    bool peerClosed() const { return closed_; }
    // Wait up to timeoutMs for the peer to close; bytes that arrive meanwhile are kept.
    bool waitClosed(int timeoutMs = 2000)
    {
        const int64_t deadline = detail::nowMs() + timeoutMs;
        while (!closed_ && fd_ >= 0 && detail::leftMs(deadline) > 0)
            fill(deadline);
        return closed_;
    }
    size_t buffered() const { return buf_.size(); }

private:
    bool fail()
    {
        close();
        return false;
    }
    bool fill(int64_t deadline)
    {
        if (fd_ < 0 || closed_)
            return false;
        pollfd p {fd_, POLLIN, 0};
        const int r = ::poll(&p, 1, detail::leftMs(deadline));
        if (r <= 0)
            return false;
        char tmp[4096];
        const ssize_t n = ::recv(fd_, tmp, sizeof tmp, 0);
        if (n == 0) {
            closed_ = true;
            return false;
        }
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
                return detail::leftMs(deadline) > 0;
            closed_ = true;
            return false;
        }
        buf_.insert(buf_.end(), tmp, tmp + n);
        return true;
    }
    int fd_ = -1;
    bool closed_ = false;
    std::vector<uint8_t> buf_;
};

class ControlClient {
public:
    bool connect(const std::string& host, uint16_t port, int timeoutMs = 2000)
    {
        return tcp_.connect(host, port, timeoutMs);
    }
    bool connect(const std::string& hostPort, int timeoutMs = 2000)
    {
        std::string host;
        uint16_t port = 0;
        return splitHostPort(hostPort, host, port) && connect(host, port, timeoutMs);
    }
    bool connected() const { return tcp_.connected(); }
    void close() { tcp_.close(); }
    // Sends one command and returns the reply line ("ok ..." or "err ..."),
    // or an empty string on time-out or a lost connection.
    std::string command(const std::string& line, int timeoutMs = 2000)
    {
        const int64_t deadline = detail::nowMs() + timeoutMs;
        const std::string out = line + "\n";
        std::string reply;
        if (!tcp_.sendAll(out.data(), out.size(), timeoutMs))
            return std::string();
        if (!tcp_.readLine(reply, detail::leftMs(deadline)))
            return std::string();
        return reply;
    }

private:
    TcpClient tcp_;
};

// The plcsim executable as a child process.
class Process {
public:
    Process() = default;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process()
    {
        if (pid_ > 0)
            stop(2000);
    }

    // Starts exe with args and reads the address lines it prints ("listening on",
    // and "control on" when --control is given). False if it does not print them in time.
    bool start(const std::string& exe, const std::vector<std::string>& args, int timeoutMs = 5000)
    {
        if (pid_ > 0)
            return false;
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) < 0)
            return false;
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(exe.c_str()));
        bool wantControl = false;
        for (const std::string& a : args) {
            argv.push_back(const_cast<char*>(a.c_str()));
            if (a == "--control")
                wantControl = true;
        }
        argv.push_back(nullptr);
        const pid_t pid = ::fork();
        if (pid < 0) {
            ::close(fds[0]);
            ::close(fds[1]);
            return false;
        }
        if (pid == 0) {
            ::dup2(fds[1], 1);
            ::execv(exe.c_str(), argv.data());
            ::_exit(127);
        }
        ::close(fds[1]);
        pid_ = pid;
        out_ = fds[0];
        const int64_t deadline = detail::nowMs() + timeoutMs;
        std::string line;
        if (!readLine(line, deadline) || !parseLine(line, "listening on ", listen_, port_)) {
            stop(2000);
            return false;
        }
        if (wantControl && (!readLine(line, deadline) || !parseLine(line, "control on ", control_, controlPort_))) {
            stop(2000);
            return false;
        }
        return true;
    }

    pid_t pid() const { return pid_; }
    uint16_t port() const { return port_; }
    uint16_t controlPort() const { return controlPort_; }
    const std::string& listenAddress() const { return listen_; }    // "127.0.0.1:PORT"
    const std::string& controlAddress() const { return control_; }  // "" without --control
    bool running()
    {
        if (pid_ <= 0)
            return false;
        int st = 0;
        const pid_t r = ::waitpid(pid_, &st, WNOHANG);
        if (r == pid_) {
            status_ = decode(st);
            pid_ = -1;
            return false;
        }
        return true;
    }

    // SIGTERM to the child's PID, wait up to timeoutMs, then SIGKILL. Returns the exit
    // code, 128 + signal if it was killed, or the last status if it had already ended.
    int stop(int timeoutMs = 5000)
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            const int64_t deadline = detail::nowMs() + timeoutMs;
            int st = 0;
            pid_t r = 0;
            while ((r = ::waitpid(pid_, &st, WNOHANG)) == 0 && detail::leftMs(deadline) > 0)
                ::usleep(10000);
            if (r == 0) {
                ::kill(pid_, SIGKILL);
                r = ::waitpid(pid_, &st, 0);
            }
            status_ = r == pid_ ? decode(st) : -1;
            pid_ = -1;
        }
        if (out_ >= 0)
            ::close(out_);
        out_ = -1;
        return status_;
    }

private:
    static int decode(int st)
    {
        if (WIFEXITED(st))
            return WEXITSTATUS(st);
        if (WIFSIGNALED(st))
            return 128 + WTERMSIG(st);
        return -1;
    }
    bool readLine(std::string& line, int64_t deadline)
    {
        line.clear();
        for (;;) {
            pollfd p {out_, POLLIN, 0};
            if (::poll(&p, 1, detail::leftMs(deadline)) <= 0)
                return false;
            char c;
            if (::read(out_, &c, 1) != 1)
                return false;
            if (c == '\n')
                return true;
            line += c;
            if (line.size() > 256)
                return false;
        }
    }
    static bool parseLine(const std::string& line, const std::string& prefix, std::string& addr, uint16_t& port)
    {
        if (line.compare(0, prefix.size(), prefix) != 0)
            return false;
        addr = line.substr(prefix.size());
        std::string host;
        return splitHostPort(addr, host, port);
    }

    pid_t pid_ = -1;
    int out_ = -1;
    int status_ = -1;
    uint16_t port_ = 0, controlPort_ = 0;
    std::string listen_, control_;
};

}  // namespace plcsim
