// Helpers of the end-to-end tests: the simulated PLC as a child process with its control
// port (plcsim::Process: --port-file, stop by PID), and the running of a program with a time
// limit.
#pragma once

#include "adstool/deadline_io.h"
#include "adstool/hex.h"
#include "plcsim_control.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace e2e {

inline std::string hexOf(const std::vector<uint8_t>& b) { return adstool::toHex(b); }

// The plcsim executable with its control connection.
class Sim {
public:
    bool start(const std::vector<std::string>& extra = {"--no-program"})
    {
        static int serial = 0;
        log_ = ::testing::TempDir() + "plcsim_e2e_" + std::to_string(::getpid()) + "_" + std::to_string(serial++)
            + ".log";
        std::vector<std::string> args = {"--listen", "127.0.0.1:0", "--control", "127.0.0.1:0", "--log", log_};
        args.insert(args.end(), extra.begin(), extra.end());
        if (!proc_.start(PLCSIM_EXE, args)) {
            ADD_FAILURE() << proc_.error();
            return false;
        }
        return ctl_.connect("127.0.0.1", proc_.controlPort());
    }
    uint16_t port() const { return proc_.port(); }
    uint16_t controlPort() const { return proc_.controlPort(); }
    const std::string& netId() const { return proc_.netId(); }
    pid_t pid() const { return proc_.pid(); }
    int stop()
    {
        ctl_.close();
        return proc_.stop(3000);
    }
    std::string command(const std::string& line) { return ctl_.command(line, 3000); }
    // "get GROUP OFFSET LEN" -> bytes; empty on an error reply.
    std::vector<uint8_t> get(unsigned group, unsigned offset, unsigned len)
    {
        const std::string r
            = command("get " + std::to_string(group) + " " + std::to_string(offset) + " " + std::to_string(len));
        std::vector<uint8_t> out;
        if (r.compare(0, 3, "ok ") != 0 || !adstool::fromHex(r.substr(3), out))
            out.clear();
        return out;
    }
    bool set(unsigned group, unsigned offset, const std::vector<uint8_t>& bytes)
    {
        return command("set " + std::to_string(group) + " " + std::to_string(offset) + " " + hexOf(bytes)) == "ok";
    }
    bool fault(const std::string& kind, int count)
    {
        return command("fault " + kind + " " + std::to_string(count)) == "ok";
    }
    // One counter of the "counters" reply, -1 when absent.
    long counter(const std::string& name)
    {
        const std::string r = command("counters");
        const std::string key = " " + name + "=";
        const size_t at = r.find(key);
        if (at == std::string::npos)
            return -1;
        return std::stol(r.substr(at + key.size()));
    }
    std::string logText() const
    {
        std::ifstream f(log_);
        std::stringstream s;
        s << f.rdbuf();
        return s.str();
    }

private:
    plcsim::Process proc_;
    plcsim::ControlClient ctl_;
    std::string log_;
};

struct RunResult {
    int exitCode = -1;  // 128 + signal when killed
    bool timedOut = false;
    std::string out, err;
};

inline std::string readWhole(const std::string& path)
{
    std::ifstream f(path);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

// The command that runs a program built for the target on this machine: empty natively,
// the emulator with its arguments in a cross build (ADS_E2E_EMULATOR, "qemu-arm -L SYSROOT").
inline std::vector<std::string> emulator()
{
    std::vector<std::string> words;
#ifdef ADS_E2E_EMULATOR
    std::stringstream s(ADS_E2E_EMULATOR);
    for (std::string w; s >> w;)
        words.push_back(w);
#endif
    return words;
}

// emulator() as the start of a shell command line ("" natively).
inline std::string emulatorPrefix()
{
    std::string out;
    for (const std::string& w : emulator())
        out += w + " ";
    return out;
}

// The target's programs (adshost) run under the emulator in a cross build; plcsim and the
// shell are the build machine's.
inline std::vector<std::string> commandFor(const std::vector<std::string>& argv)
{
    if (argv.empty() || argv[0] != ADSHOST_EXE)
        return argv;
    std::vector<std::string> out = emulator();
    out.insert(out.end(), argv.begin(), argv.end());
    return out;
}

// A program running as a child process, stdout and stderr in files, stdin from /dev/null.
// The test stops it by its PID: wait() kills it when it outlives its time.
class Child {
public:
    Child() = default;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child()
    {
        if (pid_ > 0)
            wait(0);
        std::remove(outPath_.c_str());
        std::remove(errPath_.c_str());
    }
    bool start(const std::vector<std::string>& program)
    {
        const std::vector<std::string> argv = commandFor(program);
        static int serial = 0;
        const std::string base
            = ::testing::TempDir() + "e2e_run_" + std::to_string(::getpid()) + "_" + std::to_string(serial++);
        outPath_ = base + ".out";
        errPath_ = base + ".err";
        pid_ = ::fork();
        if (pid_ < 0)
            return false;
        if (pid_ == 0) {
            const int o = ::open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int e = ::open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int in = ::open("/dev/null", O_RDONLY);
            ::dup2(o, 1);
            ::dup2(e, 2);
            ::dup2(in, 0);
            std::vector<char*> args;
            for (const std::string& a : argv)
                args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            ::execvp(args[0], args.data());  // the emulator is found on PATH
            ::_exit(127);
        }
        return true;
    }
    pid_t pid() const { return pid_; }
    // The exit code (128 + signal when killed by one), or -1 when it did not end within
    // timeoutMs and was killed.
    int wait(int timeoutMs)
    {
        if (pid_ <= 0)
            return -1;
        const adstool::Deadline deadline(timeoutMs);
        int st = 0;
        pid_t r = 0;
        while ((r = ::waitpid(pid_, &st, WNOHANG)) == 0 && !deadline.expired())
            ::usleep(10000);
        const bool timedOut = r == 0;
        if (timedOut) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &st, 0);
        }
        pid_ = -1;
        if (timedOut)
            return -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : (WIFSIGNALED(st) ? 128 + WTERMSIG(st) : -1);
    }
    std::string out() const { return readWhole(outPath_); }
    std::string err() const { return readWhole(errPath_); }

private:
    pid_t pid_ = -1;
    std::string outPath_, errPath_;
};

// Runs a program to its end; kills it after timeoutMs.
inline RunResult runProgram(const std::vector<std::string>& argv, int timeoutMs)
{
    RunResult rr;
    Child c;
    if (!c.start(argv))
        return rr;
    rr.exitCode = c.wait(timeoutMs);
    rr.timedOut = rr.exitCode == -1;
    if (rr.timedOut)
        rr.exitCode = 128 + SIGKILL;
    rr.out = c.out();
    rr.err = c.err();
    return rr;
}

inline std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::stringstream s(text);
    std::string l;
    while (std::getline(s, l))
        out.push_back(l);
    return out;
}

// The "figures: key=value ..." line of adshost's output as a map.
inline std::map<std::string, std::string> figures(const std::string& out)
{
    std::map<std::string, std::string> f;
    for (const std::string& l : lines(out)) {
        if (l.compare(0, 9, "figures: ") != 0)
            continue;
        std::stringstream s(l.substr(9));
        std::string kv;
        while (s >> kv) {
            const size_t eq = kv.find('=');
            if (eq != std::string::npos)
                f[kv.substr(0, eq)] = kv.substr(eq + 1);
        }
    }
    return f;
}

// A TCP port on 127.0.0.1 on which nothing listens (bound once, then released).
inline uint16_t closedPort()
{
    sockaddr_in a {};
    const int s = adstool::listenTcp("127.0.0.1", 0, &a);
    if (s >= 0)
        ::close(s);
    return ntohs(a.sin_port);
}

}  // namespace e2e
