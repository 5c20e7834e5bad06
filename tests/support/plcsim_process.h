// Programs the tests start as child processes (header-only, C++14, POSIX), and the plcsim
// executable as one, with its control connection.
//
//   adstest::ChildProcess   any program, standard output and error in files, standard input
//                           from /dev/null; waited for with a time limit, killed by its PID
//                           when it outlives it
//   adstest::runToEnd       runs a program to its end (killed after the time limit)
//   adstest::PlcsimProcess  plcsim with an ADS and a control port on 127.0.0.1 (both chosen by
//                           the system), a log file and the options a test adds; stopped by its
//                           PID (SIGTERM, bounded wait, then SIGKILL, plcsim::Process)
//
// Tests that run the simulator in process use adstest::TestPlc (test_plc.h) instead.
#ifndef ADS_TEST_PLCSIM_PROCESS_H
#define ADS_TEST_PLCSIM_PROCESS_H

#include "adstool/deadline_io.h"
#include "adstool/hex.h"
#include "plcsim_control.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace adstest {

inline std::string readWholeFile(const std::string& path)
{
    std::ifstream f(path);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

// A file name in the test's temporary folder, unique in this process.
inline std::string tempFileName(const std::string& stem)
{
    static int serial = 0;
    return ::testing::TempDir() + stem + "_" + std::to_string(::getpid()) + "_" + std::to_string(serial++);
}

struct RunResult {
    int exitCode = -1;  // 128 + signal when killed by one
    bool timedOut = false;
    std::string out, err;
};

// A program running as a child process; one not waited for by the test is killed by the
// destructor.
class ChildProcess {
public:
    ChildProcess() = default;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess()
    {
        if (pid_ > 0)
            wait(0);
        std::remove(outPath_.c_str());
        std::remove(errPath_.c_str());
    }
    // argv[0] is looked up on PATH when it has no slash.
    bool start(const std::vector<std::string>& argv)
    {
        if (argv.empty() || pid_ > 0)
            return false;
        const std::string base = tempFileName("child");
        outPath_ = base + ".out";
        errPath_ = base + ".err";
        std::vector<char*> args;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
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
            ::execvp(args[0], args.data());
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
    std::string out() const { return readWholeFile(outPath_); }
    std::string err() const { return readWholeFile(errPath_); }

private:
    pid_t pid_ = -1;
    std::string outPath_, errPath_;
};

// Runs a program to its end; kills it after timeoutMs (exit code 128 + SIGKILL, timedOut).
inline RunResult runToEnd(const std::vector<std::string>& argv, int timeoutMs)
{
    RunResult rr;
    ChildProcess c;
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

// The plcsim executable with its control connection (not copied: it owns the process).
class PlcsimProcess {
public:
    ~PlcsimProcess()
    {
        stop();
        if (!log_.empty())
            std::remove(log_.c_str());
    }

#ifdef PLCSIM_EXE
    bool start(const std::vector<std::string>& extra = {"--no-program"}, int timeoutMs = 5000)
    {
        return start(PLCSIM_EXE, extra, timeoutMs);
    }
#endif
    // Starts `exe` listening on 127.0.0.1 with a control port and a log, the options `extra`
    // added, and connects to the control port. False, with a test failure saying why, when it
    // does not come up within timeoutMs.
    bool start(const std::string& exe, const std::vector<std::string>& extra, int timeoutMs)
    {
        if (log_.empty())
            log_ = tempFileName("plcsim") + ".log";
        std::vector<std::string> args = {"--listen", "127.0.0.1:0", "--control", "127.0.0.1:0", "--log", log_};
        args.insert(args.end(), extra.begin(), extra.end());
        if (!proc_.start(exe, args, timeoutMs)) {
            ADD_FAILURE() << proc_.error();
            return false;
        }
        ctl_.close();
        if (!ctl_.connect("127.0.0.1", proc_.controlPort())) {
            ADD_FAILURE() << "no connection to the control port " << proc_.controlPort();
            return false;
        }
        return true;
    }
    // SIGTERM to its PID, up to timeoutMs for it to end, then SIGKILL; the exit status
    // (0 after a clean stop).
    int stop(int timeoutMs = 3000)
    {
        ctl_.close();
        return proc_.stop(timeoutMs);
    }

    pid_t pid() const { return proc_.pid(); }
    bool running() { return proc_.running(); }
    uint16_t port() const { return proc_.port(); }
    uint16_t controlPort() const { return proc_.controlPort(); }
    uint16_t udpPort() const { return proc_.udpPort(); }
    const std::string& netId() const { return proc_.netId(); }
    std::string address() const { return "127.0.0.1:" + std::to_string(port()); }

    // One control command and its reply line; "" on a time-out or a lost connection.
    std::string command(const std::string& line, int timeoutMs = 3000) { return ctl_.command(line, timeoutMs); }
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
        return command("set " + std::to_string(group) + " " + std::to_string(offset) + " " + adstool::toHex(bytes))
            == "ok";
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
    std::string logText() const { return readWholeFile(log_); }
    const std::string& logPath() const { return log_; }
    // What plcsim printed on its standard output so far.
    std::string output() const { return proc_.output(); }

private:
    plcsim::Process proc_;
    plcsim::ControlClient ctl_;
    std::string log_;
};

}  // namespace adstest

#endif  // ADS_TEST_PLCSIM_PROCESS_H
