// Commissioning from zero over loopback: adshost --discover and --add-route against the plcsim
// executable's UDP service (--udp-port 0), routes that decide whether the driver's polling is
// answered, the route file across a restart, and packets the service must ignore.
#include "e2e_support.h"
#include "probe.h"

#include "adstool/udp_service.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace udp = adstool::udp;
using e2e::lines;
using e2e::runProgram;
using e2e::RunResult;

std::string tempPath(const std::string& name)
{
    static int serial = 0;
    return ::testing::TempDir() + "discovery_" + std::to_string(::getpid()) + "_" + std::to_string(serial++) + "_"
        + name;
}

void writeFile(const std::string& path, const std::string& text)
{
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
}

RunResult adshost(const std::vector<std::string>& args, int timeoutMs = 20000)
{
    std::vector<std::string> argv = {ADSHOST_EXE};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProgram(argv, timeoutMs);
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// A UDP socket of the test on 127.0.0.1 with a time-out on receive.
class TestSocket {
public:
    TestSocket()
    {
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in a {};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
    }
    ~TestSocket() { ::close(fd_); }
    uint16_t port() const { return port_; }
    void sendTo(uint16_t port, const std::vector<uint8_t>& bytes)
    {
        sockaddr_in a {};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
    }
    // One datagram within timeoutMs (and the sender's port), or false.
    bool receive(std::vector<uint8_t>& out, int timeoutMs, uint16_t* fromPort = nullptr)
    {
        pollfd p {fd_, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) <= 0)
            return false;
        uint8_t buf[4096];
        sockaddr_in from {};
        socklen_t len = sizeof from;
        const ssize_t n = ::recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n < 0)
            return false;
        out.assign(buf, buf + n);
        if (fromPort)
            *fromPort = ntohs(from.sin_port);
        return true;
    }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

// plcsim without its PLC program; the UDP service's counters and routes over its control port.
class Simulator : public adstest::PlcsimProcess {
public:
    bool start(const std::vector<std::string>& extra)
    {
        std::vector<std::string> args = {"--no-program"};
        args.insert(args.end(), extra.begin(), extra.end());
        return PlcsimProcess::start(args);
    }
    std::string udpCounters() { return command("udp-counters"); }
    std::string routes() { return command("routes"); }
    std::string plc() const { return address(); }
    std::string udpPortArg() const { return std::to_string(udpPort()); }
};

// The Net ID the driver sends from this machine for a PLC whose Net ID starts with the first
// two numbers of this machine's first address; "" when the machine has no address but
// loopback (the driver's rule then finds none).
std::string machineAddress()
{
    for (const std::string& a : adshost::probe::localIpv4Addresses())
        if (a != "127.0.0.1" && a.rfind("127.", 0) != 0)
            return a;
    return std::string();
}

// A PLC Net ID that picks `address` by the driver's rule, yet is not the panel's own.
std::string plcNetIdFor(const std::string& address)
{
    const size_t second = address.find('.', address.find('.') + 1);
    return address.substr(0, second) + ".77.77.1.1";
}

TEST(Discovery, DiscoverOnLoopbackListsTheSimulator)
{
    Simulator sim;
    ASSERT_TRUE(sim.start({"--netid", "5.6.7.8.1.1", "--hostname", "plc-a", "--runtime-version", "3.1.4026",
        "--os-platform", "bsd", "--os-version", "12.1.7"}));
    ASSERT_NE(sim.udpPort(), 0);
    EXPECT_TRUE(contains(sim.output(), "UDP service on 127.0.0.1:" + sim.udpPortArg())) << sim.output();

    RunResult r = adshost({"--discover", "--plc", "127.0.0.1", "--udp-port", sim.udpPortArg(), "--timeout-ms", "3000"});
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(contains(
        r.out, "device 127.0.0.1: AMS Net ID 5.6.7.8.1.1, host name \"plc-a\", runtime 3.1.4026, OS BSD 12.1.7\n"))
        << r.out;
    EXPECT_TRUE(contains(r.out, "1 device answered\n")) << r.out;

    r = adshost({"--discover", "--plc", "127.0.0.1", "--udp-port", sim.udpPortArg(), "--json"});
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    const std::vector<std::string> l = lines(r.out);
    ASSERT_EQ(l.size(), 3u) << r.out;
    EXPECT_EQ(l[0],
        "{\"type\":\"device\",\"address\":\"127.0.0.1\",\"netid\":\"5.6.7.8.1.1\",\"hostname\":\"plc-a\","
        "\"runtime\":\"3.1.4026\",\"os\":{\"platform\":0,\"name\":\"BSD\",\"version\":\"12.1.7\",\"text\":\"\"},"
        "\"fingerprint\":null}");
    EXPECT_EQ(l[2], "{\"type\":\"exit\",\"status\":0,\"reason\":\"1 device answered\"}");
    EXPECT_EQ(sim.udpCounters(), "ok requests=2 deviceinfo=2 addroute=0 accepted=0 refused=0 ignored=0 stopped=0");
}

TEST(Discovery, NoDeviceExits4)
{
    uint16_t silent = 0;
    {
        TestSocket s;  // a port nobody answers on once it is closed
        silent = s.port();
    }
    const RunResult r
        = adshost({"--discover", "--plc", "127.0.0.1", "--udp-port", std::to_string(silent), "--timeout-ms", "300"});
    EXPECT_EQ(r.exitCode, 4) << r.out << r.err;
    EXPECT_TRUE(contains(r.err, "adshost: no device answered the device-info request within 300 ms")) << r.err;
}

// A device that answers with what is not an answer, then with a good one: the bad ones are
// counted and named, the device is listed.
TEST(Discovery, MalformedAnswersAreIgnoredAndCounted)
{
    TestSocket device;
    std::atomic<bool> stop {false};
    std::atomic<int> requests {0};
    std::thread responder([&] {
        while (!stop) {
            std::vector<uint8_t> req;
            uint16_t from = 0;
            if (!device.receive(req, 50, &from))
                continue;
            udp::Packet p;
            if (!udp::parsePacket(req, p))
                continue;
            ++requests;
            udp::DeviceInfo info;
            adstool::NetId::parse("9.9.9.9.1.1", info.netId);
            info.hostName = "fake";
            std::vector<uint8_t> good = udp::deviceInfoAnswer(p.invokeId, info);
            std::vector<uint8_t> cut(good.begin(), good.end() - 1);  // the host name's NUL is missing
            device.sendTo(from, cut);
            device.sendTo(from, udp::PacketWriter(p.invokeId, 0x80000001u, info.netId).u32(5, 7).finish());
            device.sendTo(from, {1, 2, 3});                                    // not this service at all
            device.sendTo(from, udp::deviceInfoAnswer(p.invokeId + 1, info));  // another request's answer
            device.sendTo(from, good);
        }
    });
    const RunResult r = adshost(
        {"--discover", "--plc", "127.0.0.1", "--udp-port", std::to_string(device.port()), "--timeout-ms", "3000"});
    stop = true;
    responder.join();
    EXPECT_EQ(requests.load(), 1);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(contains(r.out,
        "device 127.0.0.1: AMS Net ID 9.9.9.9.1.1, host name \"fake\", runtime not reported, "
        "OS not reported\n"))
        << r.out;
    EXPECT_TRUE(contains(r.out, "1 device answered; 2 malformed answers ignored; 2 other packets ignored")) << r.out;
    EXPECT_TRUE(contains(r.err, "adshost: ignored a malformed answer from 127.0.0.1: tag 5 (computer name) says"))
        << r.err;
    EXPECT_TRUE(contains(r.err, "tag 5 (computer name) is not a NUL-terminated text")) << r.err;
}

// The whole story: the PLC knows routes, not the panel's; the driver's polling gets no answer;
// add-route with the wrong password is refused with 0x704, with the right one accepted for
// exactly the Net ID the driver sends; then polling works.
TEST(Discovery, AddRouteThenPollingWorks)
{
    const std::string first = machineAddress();
    if (first.empty())
        GTEST_SKIP() << "this machine has no IPv4 address but loopback: the driver's rule finds no own address";
    const std::string plcNetId = plcNetIdFor(first);
    const std::string address = adshost::probe::panelAddressFor(plcNetId, adshost::probe::localIpv4Addresses());
    ASSERT_FALSE(address.empty());
    const std::string panelNetId = address + ".1.1";
    Simulator sim;
    const std::string passwordFile = tempPath("password");
    writeFile(passwordFile, "s3cret-Pw\n");
    ASSERT_TRUE(sim.start({"--netid", plcNetId, "--route", "10.9.8.7.1.1", "--password-file", passwordFile}));
    const std::vector<std::string> poll = {"--driver", ADS_PLUGIN, "--plc", sim.plc(), "--netid", plcNetId, "--watch",
        "M_W:0", "--cycles", "3", "--timeout-ms", "200", "--retries", "1"};

    RunResult r = adshost(poll);
    EXPECT_EQ(r.exitCode, 4) << r.out << r.err;
    EXPECT_TRUE(contains(r.err, "no route for this panel's AMS Net ID " + panelNetId)) << r.err;

    ::setenv("DISCOVERY_TEST_PASSWORD", "wrong-one", 1);
    r = adshost({"--add-route", "--plc", "127.0.0.1", "--udp-port", sim.udpPortArg(), "--user", "Administrator",
        "--password-env", "DISCOVERY_TEST_PASSWORD", "--timeout-ms", "3000"});
    EXPECT_EQ(r.exitCode, 6) << r.out << r.err;
    EXPECT_TRUE(contains(r.out,
        "for AMS Net ID " + panelNetId + " (address " + address
            + ", static) refused by "
              "127.0.0.1: 0x704 (user name or password refused)\n"))
        << r.out;
    EXPECT_FALSE(contains(r.out + r.err, "wrong-one"));

    // With --json too, the password is nowhere in the output.
    r = adshost({"--add-route", "--plc", "127.0.0.1", "--udp-port", sim.udpPortArg(), "--user", "Administrator",
        "--password-file", passwordFile, "--route-name", "panel one", "--json"});
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(contains(r.out,
        "{\"type\":\"route\",\"status\":\"accepted\",\"device_status\":0,\"netid\":\"" + panelNetId
            + "\",\"address\":\"" + address + "\",\"name\":\"panel one\",\"temporary\":false"))
        << r.out;
    EXPECT_FALSE(contains(r.out + r.err, "s3cret"));
    EXPECT_EQ(sim.routes(), "ok 2 10.9.8.7.1.1:command-line " + panelNetId + ":static");
    EXPECT_EQ(sim.udpCounters(), "ok requests=4 deviceinfo=2 addroute=2 accepted=1 refused=1 ignored=0 stopped=0");

    r = adshost(poll);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "value M_W:0 = ")) << r.out;
    EXPECT_FALSE(contains(r.out, "never read")) << r.out;
    std::remove(passwordFile.c_str());
}

// The probe names the exact command; run as printed (with the password from a file) it adds
// the route the probe missed.
TEST(Discovery, ProbePrintsTheAddRouteCommandThatFixesIt)
{
    Simulator sim;
    ASSERT_TRUE(sim.start({"--netid", "5.6.7.8.1.1", "--route", "10.9.8.7.1.1"}));
    const std::vector<std::string> probe = {"--probe", "--plc", sim.plc(), "--netid", "5.6.7.8.1.1", "--source-netid",
        "10.20.30.40.1.1", "--udp-port", sim.udpPortArg(), "--timeout-ms", "400"};
    RunResult r = adshost(probe);
    EXPECT_EQ(r.exitCode, 4) << r.out << r.err;
    const std::string prefix = "to add the route: adshost ";
    const std::string command = "--add-route --plc 127.0.0.1 --netid 5.6.7.8.1.1 --user Administrator --local-netid "
                                "10.20.30.40.1.1 --udp-port "
        + sim.udpPortArg();
    EXPECT_TRUE(contains(r.out, prefix + command + "\n")) << r.out;
    EXPECT_FALSE(contains(r.out, "reports AMS Net ID")) << r.out;

    std::vector<std::string> args;
    std::stringstream words(command);
    for (std::string w; words >> w;)
        args.push_back(w);
    const std::string passwordFile = tempPath("password");
    writeFile(passwordFile, "1");
    args.insert(args.end(), {"--password-file", passwordFile});
    r = adshost(args);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    r = adshost(probe);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    std::remove(passwordFile.c_str());
}

TEST(Discovery, ProbeSaysWhenTheNetIdDiffersFromDiscovery)
{
    Simulator sim;
    ASSERT_TRUE(sim.start({"--netid", "5.6.7.8.1.1"}));
    const RunResult r = adshost({"--probe", "--plc", sim.plc(), "--netid", "5.6.7.9.1.1", "--source-netid",
        "10.20.30.40.1.1", "--udp-port", sim.udpPortArg()});
    EXPECT_EQ(r.exitCode, 5) << r.out << r.err;
    EXPECT_TRUE(contains(r.out,
        "the device at 127.0.0.1 reports AMS Net ID 5.6.7.8.1.1 in discovery, not 5.6.7.9.1.1 as given with --netid: "
        "check --netid\n"))
        << r.out;
}

// A static route survives a restart through the route file; a temporary one does not.
TEST(Discovery, RestartKeepsStaticRouteDropsTemporary)
{
    const std::string routeFile = tempPath("routes");
    std::remove(routeFile.c_str());
    const std::string passwordFile = tempPath("password");
    writeFile(passwordFile, "1\n");
    const std::vector<std::string> simArgs
        = {"--netid", "5.6.7.8.1.1", "--route", "10.9.8.7.1.1", "--route-file", routeFile};
    Simulator sim;
    ASSERT_TRUE(sim.start(simArgs));
    auto addRoute = [&](const std::string& netId, bool temporary) {
        std::vector<std::string> a = {"--add-route", "--plc", "127.0.0.1", "--udp-port", sim.udpPortArg(), "--user",
            "Administrator", "--password-file", passwordFile, "--local-netid", netId, "--route-name", "r-" + netId};
        if (temporary)
            a.push_back("--temporary");
        return adshost(a);
    };
    auto probeAs = [&](const std::string& source) {
        return adshost({"--probe", "--plc", sim.plc(), "--netid", "5.6.7.8.1.1", "--source-netid", source, "--udp-port",
                           sim.udpPortArg(), "--timeout-ms", "300"})
            .exitCode;
    };
    RunResult r = addRoute("10.1.1.1.1.1", false);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(contains(r.out,
        "route \"r-10.1.1.1.1.1\" for AMS Net ID 10.1.1.1.1.1 (address 10.1.1.1, static) "
        "accepted by 127.0.0.1\n"))
        << r.out;
    r = addRoute("10.2.2.2.1.1", true);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_EQ(sim.routes(), "ok 3 10.9.8.7.1.1:command-line 10.1.1.1.1.1:static 10.2.2.2.1.1:temporary");
    EXPECT_EQ(probeAs("10.1.1.1.1.1"), 0);
    EXPECT_EQ(probeAs("10.2.2.2.1.1"), 0);
    EXPECT_EQ(probeAs("10.3.3.3.1.1"), 4);
    // Only the static route is in the file; nothing half-written lies beside it.
    EXPECT_EQ(e2e::readWholeFile(routeFile),
        "# plcsim routes, one a line: NETID ADDRESS NAME (static routes added over UDP)\n"
        "10.1.1.1.1.1 10.1.1.1 r-10.1.1.1.1.1\n");

    EXPECT_FALSE(std::ifstream(routeFile + ".tmp" + std::to_string(sim.pid())).is_open());

    EXPECT_EQ(sim.stop(), 0);
    ASSERT_TRUE(sim.start(simArgs));
    EXPECT_EQ(sim.routes(), "ok 2 10.9.8.7.1.1:command-line 10.1.1.1.1.1:static");
    EXPECT_EQ(probeAs("10.1.1.1.1.1"), 0);
    EXPECT_EQ(probeAs("10.2.2.2.1.1"), 4);
    EXPECT_EQ(sim.stop(), 0);
    std::remove(routeFile.c_str());
    std::remove(passwordFile.c_str());
}

// A static route that cannot be kept is refused (0x700), never accepted and lost at the next
// restart; a temporary one needs no file.
TEST(Discovery, StaticRouteThatCannotBeWrittenIsRefused)
{
    const std::string routeFile = tempPath("no-such-folder") + "/routes";
    Simulator sim;
    ASSERT_TRUE(sim.start({"--netid", "5.6.7.8.1.1", "--route-file", routeFile}));
    ::setenv("DISCOVERY_TEST_PASSWORD", "1", 1);
    std::vector<std::string> a = {"--add-route", "--plc", "127.0.0.1", "--udp-port", sim.udpPortArg(), "--user",
        "Administrator", "--password-env", "DISCOVERY_TEST_PASSWORD", "--local-netid", "10.1.1.1.1.1"};
    RunResult r = adshost(a);
    EXPECT_EQ(r.exitCode, 6) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "refused by 127.0.0.1: 0x700 (device error)\n")) << r.out;
    EXPECT_EQ(sim.routes(), "ok 0");
    a.push_back("--temporary");
    r = adshost(a);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_EQ(sim.routes(), "ok 1 10.1.1.1.1.1:temporary");
}

TEST(Discovery, BadRouteFileStopsTheSimulator)
{
    const std::string routeFile = tempPath("routes");
    writeFile(routeFile, "10.1.1.1.1.1 10.1.1.1 fine\nnot a route\n");
    const RunResult r
        = runProgram({PLCSIM_EXE, "--listen", "127.0.0.1:0", "--udp-port", "0", "--route-file", routeFile}, 5000);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "plcsim: --route-file: " + routeFile + " line 2 is not 'NETID ADDRESS NAME': 'not a route'\n");
    std::remove(routeFile.c_str());
}

// Packets that are not requests of the service get no answer and are counted; a request
// that lacks a tag gets status 0x706; the service answers on after all of them.
TEST(Discovery, MalformedAndForeignPacketsAreIgnoredAndCounted)
{
    Simulator sim;
    ASSERT_TRUE(sim.start({"--netid", "5.6.7.8.1.1"}));
    const uint16_t port = sim.udpPort();
    TestSocket s;
    adstool::NetId me;
    adstool::NetId::parse("10.0.0.5.1.1", me);
    const std::vector<uint8_t> good = udp::deviceInfoRequest(42, me);
    std::vector<std::vector<uint8_t>> bad = {
        {},                                                  // empty
        {0x03, 0x66, 0x14},                                  // a cookie cut short
        std::vector<uint8_t>(good.begin(), good.end() - 1),  // header cut
        udp::PacketWriter(1, 1, me).u32(1, 0).finish(),      // ... then a tag cut off below
        udp::deviceInfoAnswer(1, udp::DeviceInfo()),         // an answer, not a request
        udp::PacketWriter(1, 3, me).finish(),                // a service this device does not know
        std::vector<uint8_t>(3000, 0x03),                    // larger than any packet of the service
    };
    bad[3].pop_back();
    bad.push_back(good);
    bad.back()[0] = 0x04;  // another cookie
    for (const std::vector<uint8_t>& b : bad) {
        s.sendTo(port, b);
        std::vector<uint8_t> answer;
        EXPECT_FALSE(s.receive(answer, 150)) << "answered a packet of " << b.size() << " bytes";
    }
    EXPECT_EQ(sim.udpCounters(), "ok requests=0 deviceinfo=0 addroute=0 accepted=0 refused=0 ignored=8 stopped=0");

    udp::RouteRequest req;
    req.netId = me;
    req.routeName = "x";
    req.userName = "Administrator";
    req.password = "1";
    req.address = "10.0.0.5";
    udp::Packet p;
    ASSERT_TRUE(udp::parsePacket(udp::addRouteRequest(7, me, req), p));
    udp::PacketWriter w(7, udp::kServiceAddRoute, me);
    for (const udp::Tag& t : p.tags)
        if (t.id != udp::kTagPassword)
            w.bytes(t.id, t.value);
    s.sendTo(port, w.finish());
    std::vector<uint8_t> answer;
    ASSERT_TRUE(s.receive(answer, 2000));
    ASSERT_TRUE(udp::parsePacket(answer, p));
    uint32_t status = 0;
    ASSERT_TRUE(udp::readAddRouteAnswer(p, status));
    EXPECT_EQ(status, udp::kStatusDataMissing);
    EXPECT_EQ(p.invokeId, 7u);
    EXPECT_EQ(sim.routes(), "ok 0");

    s.sendTo(port, good);
    ASSERT_TRUE(s.receive(answer, 2000));
    ASSERT_TRUE(udp::parsePacket(answer, p));
    EXPECT_EQ(p.invokeId, 42u);
    EXPECT_EQ(p.netId.str(), "5.6.7.8.1.1");
    EXPECT_EQ(sim.udpCounters(), "ok requests=2 deviceinfo=1 addroute=1 accepted=0 refused=1 ignored=8 stopped=0");
}

TEST(Discovery, AUdpPortInUse)
{
    TestSocket holder;  // holds a port on 127.0.0.1
    // Asked for by number: the simulator refuses to start without it.
    const RunResult r
        = runProgram({PLCSIM_EXE, "--listen", "127.0.0.1:0", "--udp-port", std::to_string(holder.port())}, 5000);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err,
        "plcsim: --udp-port: cannot bind UDP 127.0.0.1:" + std::to_string(holder.port())
            + ": Address already in use\n");
}

// The default port held elsewhere (another simulator, a router on this machine): the
// simulator runs on with the service off, says so, and writes udp_port=0.
TEST(Discovery, DefaultUdpPortTakenLeavesTheServiceOff)
{
    sockaddr_in a {};
    a.sin_family = AF_INET;
    a.sin_port = htons(udp::kDefaultPort);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int holder = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);  // taken by this test or by another
    ::bind(holder, reinterpret_cast<sockaddr*>(&a), sizeof a);
    const std::string portFile = tempPath("ports");
    e2e::Child sim;
    ASSERT_TRUE(sim.start({PLCSIM_EXE, "--listen", "127.0.0.1:0", "--port-file", portFile}));
    plcsim::PortFile pf;
    for (int i = 0; i < 500 && !plcsim::readPortFile(portFile, pf); ++i)
        ::usleep(10000);
    const std::string portText = e2e::readWholeFile(portFile);  // plcsim removes it when it stops
    ::kill(sim.pid(), SIGTERM);
    EXPECT_EQ(sim.wait(5000), 0);
    ::close(holder);
    EXPECT_NE(pf.adsPort, 0);
    EXPECT_EQ(pf.udpPort, 0);
    EXPECT_TRUE(contains(portText, "\nudp_port=0\n"));
    EXPECT_TRUE(contains(sim.out(), "UDP service off: cannot bind UDP 127.0.0.1:48899: Address already in use\n"))
        << sim.out();
    EXPECT_TRUE(contains(sim.err(), "plcsim: warning: UDP service off: cannot bind UDP 127.0.0.1:48899")) << sim.err();
    std::remove(portFile.c_str());
}

TEST(Discovery, CommandLineRules)
{
    struct Case {
        std::vector<std::string> args;
        int exit;
        std::string err;
    };
    const std::vector<Case> cases = {
        {{"--add-route", "--plc", "127.0.0.1", "--password-env", "X"}, 2,
            "adshost: --user: --add-route needs the device's user name (often Administrator) (see adshost --help)\n"},
        {{"--add-route", "--user", "a", "--password-env", "X"}, 2,
            "adshost: --plc: --add-route needs the device's address, --plc HOST (see adshost --help)\n"},
        {{"--add-route", "--plc", "127.0.0.1", "--user", "a", "--password-env", "X", "--password-file", "f"}, 2,
            "adshost: --password-file and --password-env: one at a time (see adshost --help)\n"},
        {{"--discover", "--netid", "1.2.3.4.1.1"}, 2,
            "adshost: --netid: not used with --discover (see adshost --help)\n"},
        {{"--discover", "--add-route"}, 2, "adshost: --discover and --add-route: one at a time (see adshost --help)\n"},
        {{"--discover", "--plc", "127.0.0.1", "--broadcast", "127.255.255.255"}, 2,
            "adshost: --plc and --broadcast: one at a time (see adshost --help)\n"},
        {{"--discover", "--pcap", "x.pcap"}, 2, "adshost: --pcap: not used with --discover (see adshost --help)\n"},
        {{"--add-route", "--plc", "127.0.0.1", "--user", "a", "--pcap", "x.pcap"}, 2,
            "adshost: --pcap: not used with --add-route (see adshost --help)\n"},
        {{"--user", "a", "--plc", "127.0.0.1:48898"}, 2,
            "adshost: --user: only with --add-route (see adshost --help)\n"},
        {{"--add-route", "--plc", "127.0.0.1", "--user", "a", "--password-env", "DISCOVERY_TEST_UNSET_VARIABLE"}, 1,
            "adshost: --password-env: the environment variable DISCOVERY_TEST_UNSET_VARIABLE is not set\n"},
        // No file, no variable, and no terminal: nothing to ask on.
        {{"--add-route", "--plc", "127.0.0.1", "--user", "a"}, 1,
            "adshost: no password: give --password-file FILE or --password-env VAR (no terminal to ask on)\n"},
    };
    ::unsetenv("DISCOVERY_TEST_UNSET_VARIABLE");
    for (const Case& c : cases) {
        std::vector<std::string> argv = {SETSID_EXE, "-w", ADSHOST_EXE};  // no controlling terminal
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        const RunResult r = runProgram(argv, 10000);
        EXPECT_EQ(r.exitCode, c.exit) << c.args[0] << " " << c.args[1] << r.err;
        EXPECT_EQ(r.err, c.err);
    }
}

}  // namespace
