// plcsim_control.h: header-only helpers (C++14, POSIX) for the tests and tools that run the
// simulator. Target plcsim_control (links ads_toolkit).
//
//   plcsim::Process        start the plcsim executable with --port-file in a temporary
//                          folder (and --udp-port 0 unless the arguments name a UDP port,
//                          so that simulators in parallel tests never share one), wait
//                          (bounded) for the file, read the ADS, control and UDP ports,
//                          stop it by PID (SIGTERM, bounded wait, then SIGKILL)
//   plcsim::readPortFile   the port file on its own
//   plcsim::TcpClient      a TCP connection with time-outs (lines and AMS/TCP frames);
//                          adstool::TcpStream
//   plcsim::ControlClient  one command line out, one reply line back
//
// Example:
//   plcsim::Process sim;
//   if (!sim.start(PLCSIM_EXE, {"--listen", "127.0.0.1:0", "--control", "127.0.0.1:0"})) ... sim.error()
//   plcsim::ControlClient ctl;
//   ctl.connect("127.0.0.1", sim.controlPort());
//   std::string r = ctl.command("get 0x4020 0 2");   // "ok 0000"
//   int status = sim.stop();                          // 0 after a clean SIGTERM
#pragma once

#include "adstool/deadline_io.h"
#include "adstool/hostport.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace plcsim {

namespace detail {
using adstool::nowMs;
// Milliseconds left until deadline, at least 0.
inline int leftMs(int64_t deadline) { return adstool::Deadline::at(deadline).leftMs(); }
}  // namespace detail

// "127.0.0.1:4711" -> host, port (0..65535)
inline bool splitHostPort(const std::string& text, std::string& host, uint16_t& port)
{
    adstool::HostPort hp;
    if (!adstool::parseHostPort(text, hp, adstool::PortRule::AnyPort))
        return false;
    host = hp.host;
    port = hp.port;
    return true;
}

using TcpClient = adstool::TcpStream;

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
        const adstool::Deadline deadline(timeoutMs);
        const std::string out = line + "\n";
        std::string reply;
        if (!tcp_.sendAll(out.data(), out.size(), timeoutMs))
            return std::string();
        if (!tcp_.readLine(reply, deadline.leftMs()))
            return std::string();
        return reply;
    }

private:
    TcpClient tcp_;
};

// What plcsim --port-file FILE writes: "key=value" lines.
struct PortFile {
    uint16_t adsPort = 0;
    uint16_t controlPort = 0;  // 0 without --control
    std::string netId;
    long pid = 0;
    uint16_t udpPort = 0;  // 0 when the UDP service is off
};

// False until the file is there and complete (plcsim renames it into place whole).
inline bool readPortFile(const std::string& path, PortFile& out)
{
    std::ifstream f(path);
    if (!f)
        return false;
    PortFile pf;
    bool ads = false, control = false;
    for (std::string line; std::getline(f, line);) {
        const size_t eq = line.find('=');
        if (eq == std::string::npos)
            return false;
        const std::string key = line.substr(0, eq), value = line.substr(eq + 1);
        uint16_t port = 0;
        if (key == "ads_port" || key == "control_port") {
            if (!adstool::parsePort(value, port, adstool::PortRule::AnyPort))
                return false;
            (key == "ads_port" ? pf.adsPort : pf.controlPort) = port;
            (key == "ads_port" ? ads : control) = true;
        } else if (key == "udp_port") {
            if (!adstool::parsePort(value, pf.udpPort, adstool::PortRule::AnyPort))
                return false;
        } else if (key == "netid") {
            pf.netId = value;
        } else if (key == "pid") {
            pf.pid = std::atol(value.c_str());
        }
    }
    if (!ads || !control || pf.adsPort == 0)
        return false;
    out = pf;
    return true;
}

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
        removeDir();
    }

    // Starts exe with args and "--port-file" in a new temporary folder (unless args name one),
    // its standard output in a file there. True once the port file has been read (with a
    // control port when args have --control); false, with error(), when it does not appear
    // within timeoutMs or plcsim ends first.
    bool start(const std::string& exe, const std::vector<std::string>& args, int timeoutMs = 5000)
    {
        if (pid_ > 0)
            return fail("already running");
        removeDir();
        error_.clear();
        const char* tmp = std::getenv("TMPDIR");
        std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/plcsim.XXXXXX";
        if (!::mkdtemp(&dir[0]))
            return fail(std::string("mkdtemp: ") + std::strerror(errno));
        dir_ = dir;
        portFile_ = dir_ + "/ports";
        outPath_ = dir_ + "/stdout";
        std::vector<std::string> all = args;
        bool wantControl = false, ownPortFile = false, ownUdpPort = false;
        std::string listenHost = "127.0.0.1", controlHost = "127.0.0.1";
        for (size_t i = 0; i < args.size(); ++i) {
            const bool hasValue = i + 1 < args.size();
            if (args[i] == "--control" && hasValue) {
                wantControl = true;
                controlHost = args[i + 1].substr(0, args[i + 1].rfind(':'));
            } else if (args[i] == "--listen" && hasValue) {
                listenHost = args[i + 1].substr(0, args[i + 1].rfind(':'));
            } else if (args[i] == "--port-file" && hasValue) {
                portFile_ = args[i + 1];
                ownPortFile = true;
            } else if (args[i] == "--udp-port") {
                ownUdpPort = true;
            }
        }
        if (!ownUdpPort) {
            all.push_back("--udp-port");
            all.push_back("0");
        }
        if (!ownPortFile) {
            all.push_back("--port-file");
            all.push_back(portFile_);
        }
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(exe.c_str()));
        for (const std::string& a : all)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        const pid_t pid = ::fork();
        if (pid < 0)
            return fail(std::string("fork: ") + std::strerror(errno));
        if (pid == 0) {
            const int out = ::open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            const int in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (out >= 0)
                ::dup2(out, 1);
            if (in >= 0)
                ::dup2(in, 0);
            ::execv(exe.c_str(), argv.data());
            ::_exit(127);
        }
        pid_ = pid;
        const adstool::Deadline deadline(timeoutMs);
        PortFile pf;
        while (!readPortFile(portFile_, pf) || (wantControl && pf.controlPort == 0)) {
            if (!running()) {
                const std::string why = "plcsim ended (status " + std::to_string(status_) + ") before writing "
                    + portFile_ + "; its output: " + output();
                stop(0);
                return fail(why);
            }
            if (deadline.expired()) {
                const std::string why
                    = "plcsim wrote no port file " + portFile_ + " within " + std::to_string(timeoutMs) + " ms";
                stop(2000);
                return fail(why);
            }
            ::usleep(5000);
        }
        port_ = pf.adsPort;
        controlPort_ = pf.controlPort;
        netId_ = pf.netId;
        udpPort_ = pf.udpPort;
        listen_ = listenHost + ":" + std::to_string(port_);
        control_ = wantControl ? controlHost + ":" + std::to_string(controlPort_) : std::string();
        return true;
    }

    pid_t pid() const { return pid_; }
    uint16_t port() const { return port_; }
    uint16_t controlPort() const { return controlPort_; }
    uint16_t udpPort() const { return udpPort_; }                   // 0 when the UDP service is off
    const std::string& netId() const { return netId_; }             // from the port file
    const std::string& listenAddress() const { return listen_; }    // "127.0.0.1:PORT"
    const std::string& controlAddress() const { return control_; }  // "" without --control
    const std::string& portFilePath() const { return portFile_; }
    const std::string& error() const { return error_; }  // why start() failed
    // What plcsim printed on its standard output so far.
    std::string output() const
    {
        std::ifstream f(outPath_);
        std::stringstream s;
        s << f.rdbuf();
        return s.str();
    }
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
            const adstool::Deadline deadline(timeoutMs);
            int st = 0;
            pid_t r = 0;
            while ((r = ::waitpid(pid_, &st, WNOHANG)) == 0 && !deadline.expired())
                ::usleep(5000);
            if (r == 0) {
                ::kill(pid_, SIGKILL);
                r = ::waitpid(pid_, &st, 0);
            }
            status_ = r == pid_ ? decode(st) : -1;
            pid_ = -1;
        }
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
    bool fail(const std::string& why)
    {
        error_ = why;
        return false;
    }
    void removeDir()
    {
        if (dir_.empty())
            return;
        std::remove((dir_ + "/ports").c_str());
        std::remove(outPath_.c_str());
        ::rmdir(dir_.c_str());
        dir_.clear();
    }

    pid_t pid_ = -1;
    int status_ = -1;
    uint16_t port_ = 0, controlPort_ = 0, udpPort_ = 0;
    std::string dir_, portFile_, outPath_, netId_, listen_, control_, error_;
};

}  // namespace plcsim
