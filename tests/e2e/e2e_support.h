// Helpers of the end-to-end tests: the simulated PLC as a child process with its control
// port and the programs built for the target as child processes (both from
// tests/support/plcsim_process.h, stopped by their PIDs), and the outputs of adshost.
#pragma once

#include "adstool/deadline_io.h"
#include "adstool/hex.h"
#include "../support/plcsim_process.h"

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

// plcsim as a child process with its control connection, and the results of a program run
// to its end.
using Sim = adstest::PlcsimProcess;
using adstest::readWholeFile;
using adstest::RunResult;

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

// A program built for the target running as a child process (under the emulator in a
// cross build); stopped by its PID.
class Child : public adstest::ChildProcess {
public:
    bool start(const std::vector<std::string>& program) { return ChildProcess::start(commandFor(program)); }
};

// Runs a program to its end; kills it after timeoutMs.
inline RunResult runProgram(const std::vector<std::string>& argv, int timeoutMs)
{
    return adstest::runToEnd(commandFor(argv), timeoutMs);
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
