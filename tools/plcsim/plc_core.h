// plcsim core: a small ADS device (PLC runtime) that answers AMS/TCP frames.
//
// No sockets and no threads: feed it one complete frame with Plc::handle() and
// send back what it returns. The plcsim executable wraps it in a TCP server;
// unit tests can use it in-process as the PLC on the other end of the wire.
//
// Frame parsing and building here is written independently of the driver so
// that a mistake in the driver's frames shows up as a wrong answer or a log line.
#pragma once

#include "adstool/hex.h"
#include "adstool/le.h"
#include "adstool/netid.h"
#include "adstool/random.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace plcsim {

// ADS command ids
enum Command : uint16_t {
    CmdInvalid = 0,
    CmdReadDeviceInfo = 1,
    CmdRead = 2,
    CmdWrite = 3,
    CmdReadState = 4,
    CmdWriteControl = 5,
    CmdAddNotification = 6,
    CmdDeleteNotification = 7,
    CmdNotification = 8,
    CmdReadWrite = 9,
};

// Index groups of the simulated memory areas (64 KiB each).
constexpr uint32_t GroupInputs = 0xF020;
constexpr uint32_t GroupOutputs = 0xF030;
constexpr uint32_t GroupMemory = 0x4020;
constexpr uint32_t AreaSize = 0x10000;

// Error codes used in answers (ADS result or AMS header error code).
constexpr uint32_t ErrTargetPortNotFound = 0x6;
constexpr uint32_t ErrTargetMachineNotFound = 0x7;
constexpr uint32_t ErrDeviceError = 0x700;
constexpr uint32_t ErrServiceNotSupported = 0x701;
constexpr uint32_t ErrInvalidGroup = 0x702;
constexpr uint32_t ErrInvalidOffset = 0x703;
constexpr uint32_t ErrInvalidSize = 0x705;
constexpr uint32_t ErrInvalidData = 0x706;
constexpr uint32_t ErrInvalidParam = 0x70B;
constexpr uint32_t ErrNotifyHandleInvalid = 0x714;

constexpr uint16_t AdsStateRun = 5;
constexpr uint16_t AdsStateStop = 6;

constexpr size_t TcpHeaderSize = 6;
constexpr size_t AmsHeaderSize = 32;
constexpr size_t HeadersSize = TcpHeaderSize + AmsHeaderSize;  // 38
constexpr uint32_t MaxFrameBody = 0x10000 + 1024;              // largest AMS/TCP length accepted

// How the simulated PLC answers a request. Full1024 (the reply padded with zeros or cut to
// 1024 bytes, the size of the panel's receive buffer) is for tests that use the core in
// process: the executable's options and control commands do not offer it.
enum class Fault { None, NoReply, Short, Long, AdsError, Split, Delay, Close, Full1024 };
const char* faultName(Fault f);
bool parseFault(const std::string& name, Fault& f);  // case-insensitive: none, noreply, ... close

// AMS Net ID "a.b.c.d.e.f" (each 0..255): parse(), str(), comparisons.
using adstool::NetId;

// Not thread-safe: use one Plc from one thread (or guard it).
class Plc {
public:
    Plc();  // own Net ID 192.168.1.100.1.1, ADS state run, accepted ports {801, 851}

    void setNetId(const NetId& id);
    NetId netId() const { return netId_; }
    // Once any route is added, requests from Net IDs without a route get no reply.
    void addRoute(const NetId& source);
    void clearRoutes();
    // Runtime ports that answer ADS requests (default {801, 851}). Port 100 always
    // accepts AddDeviceNotification, which the panel driver uses as its hello.
    void setRuntimePorts(const std::set<uint16_t>& ports);
    const std::set<uint16_t>& runtimePorts() const { return ports_; }

    // Handle one complete AMS/TCP frame (6-byte header + body). Returns the reply
    // (empty = no reply). Port-registration frames (0x1000) are answered too.
    std::vector<uint8_t> handle(const uint8_t* frame, size_t len);
    std::vector<uint8_t> handle(const std::vector<uint8_t>& frame) { return handle(frame.data(), frame.size()); }

    uint8_t* memory(uint32_t indexGroup);  // 0xF020, 0xF030, 0x4020; nullptr otherwise
    void setAdsState(uint16_t state);      // 5 = run (default), 6 = stop
    uint16_t adsState() const { return adsState_; }

    // One 100 ms step of the simulated PLC program (does nothing while stopped):
    //   0x4020:0  u16 counter, +1 per step
    //   0x4020:2  bit 0 toggles every 5 steps (500 ms)
    //   0xF020:0  u16 slow sine around 32768 (+-10000, period 100 steps = 10 s)
    void programStep();
    uint64_t programSteps() const { return steps_; }

    // Reply-shape faults applied by handle(): NoReply, Short, Long, AdsError, Full1024.
    // Split/Delay/Close are reported through lastFault() for the TCP server.
    // A faulty request is still carried out, except with AdsError.
    void injectFault(Fault f, int nextN);  // the next N ADS requests get this fault
    void setFaultProbability(Fault f, double p);
    void clearFaults();
    void setSeed(uint64_t seed);
    void setFaultErrorCode(uint32_t code) { faultErrorCode_ = code; }  // AdsError result, default 0x701
    uint32_t faultErrorCode() const { return faultErrorCode_; }
    void setDelayMs(int ms) { delayMs_ = ms; }  // Delay fault, default 300
    int delayMs() const { return delayMs_; }
    void setSplitPauseMs(int ms) { splitPauseMs_ = ms; }  // pause between Split halves, default 20
    int splitPauseMs() const { return splitPauseMs_; }
    Fault lastFault() const { return lastFault_; }

    struct Counters {
        uint64_t requests = 0;        // ADS requests seen (not port frames)
        uint64_t byCommand[10] = {};  // by command id; ids >= 10 are not counted here
        uint64_t faults = 0;          // requests that got a fault
        uint64_t unanswered = 0;      // requests that got no reply (fault, route, malformed)
        uint64_t portFrames = 0;      // router port frames (0x1000, 0x0001)
        uint64_t lengthFixups = 0;    // writes whose header lengths carried only the low byte
    };
    Counters counters() const { return counters_; }
    void resetCounters() { counters_ = Counters(); }

    // The request log: one line per frame (command, group, offset, length, result).
    void setLogSink(std::function<void(const std::string&)> sink) { log_ = std::move(sink); }
    // Log lines of reads and writes carry the bytes read or written ("data=HEX"), for tests
    // that hold a host's claims against what the PLC held.
    void setLogData(bool on) { logData_ = on; }

private:
    struct Request;
    std::vector<uint8_t> handleAds(const uint8_t* f, size_t len, uint32_t bodyLen, bool fixedUp);
    std::vector<uint8_t> dropRequest(Request& q, const std::string& why);
    std::vector<uint8_t> answerRequest(Request& q);
    std::vector<uint8_t> buildAnswer(const Request& q, uint32_t amsError, const std::vector<uint8_t>& data) const;
    static void applyReplyFault(Fault fault, std::vector<uint8_t>& reply);
    // One function per ADS command: each returns the ADS result (0 = done) and fills data on success.
    uint32_t serveCommand(Request& q, std::vector<uint8_t>& data);
    uint32_t serveReadDeviceInfo(std::vector<uint8_t>& data);
    uint32_t serveRead(Request& q, std::vector<uint8_t>& data);
    uint32_t serveWrite(Request& q);
    uint32_t serveReadState(std::vector<uint8_t>& data);
    uint32_t serveWriteControl(Request& q);
    uint32_t serveAddNotification(Request& q, std::vector<uint8_t>& data);
    uint32_t serveDeleteNotification(Request& q);
    uint32_t serveReadWrite(Request& q, std::vector<uint8_t>& data);
    uint32_t checkRange(uint32_t group, uint32_t offset, uint32_t length) const;
    Fault drawFault();
    void log(const std::string& line);

    NetId netId_;
    std::set<NetId> routes_;
    std::set<uint16_t> ports_;
    std::vector<uint8_t> inputs_, outputs_, memory_;
    uint16_t adsState_ = AdsStateRun;
    uint64_t steps_ = 0;
    std::set<uint32_t> handles_;
    uint32_t nextHandle_ = 1;
    uint16_t nextClientPort_ = 32905;

    Fault injected_ = Fault::None;
    int injectedLeft_ = 0;
    double prob_[int(Fault::Full1024) + 1] = {};
    adstool::Random random_ {1};
    uint32_t faultErrorCode_ = ErrServiceNotSupported;
    int delayMs_ = 300;
    int splitPauseMs_ = 20;
    Fault lastFault_ = Fault::None;

    Counters counters_;
    std::function<void(const std::string&)> log_;
    bool logData_ = false;
};

// Helpers for tests and tools: build request frames and parse frames.

// Length of the first frame in a TCP byte stream: 0 while more bytes are needed,
// otherwise the number of bytes that make up the frame. Frames are delimited by
// the AMS/TCP length, with one exception: a Write request whose header length
// fields carry only the low byte of the true value is delimited by its ADS write
// length (fixedUp is set then).
size_t frameLength(const uint8_t* p, size_t avail, bool* fixedUp = nullptr);

std::vector<uint8_t> buildRequest(const NetId& target, uint16_t targetPort, const NetId& source, uint16_t sourcePort,
    uint16_t cmd, uint32_t invokeId, const std::vector<uint8_t>& adsData);
// Ready-made ADS data blocks for buildRequest.
std::vector<uint8_t> readData(uint32_t group, uint32_t offset, uint32_t length);
std::vector<uint8_t> writeData(uint32_t group, uint32_t offset, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> readWriteData(
    uint32_t group, uint32_t offset, uint32_t readLength, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> portRequest(uint16_t wantedPort);  // 0x1000 frame, 8 bytes

struct ParsedFrame {
    bool ok = false;  // the whole frame is there and its length fields agree with len
    uint16_t tcpReserved = 0;
    uint32_t tcpLength = 0;
    NetId target;
    uint16_t targetPort = 0;
    NetId source;
    uint16_t sourcePort = 0;
    uint16_t cmd = 0;
    uint16_t stateFlags = 0;
    uint32_t dataLength = 0;
    uint32_t errorCode = 0;
    uint32_t invokeId = 0;
    std::vector<uint8_t> data;  // the ADS data (as much as is there)
};
ParsedFrame parseFrame(const uint8_t* p, size_t len);
inline ParsedFrame parseFrame(const std::vector<uint8_t>& v) { return parseFrame(v.data(), v.size()); }

// Little-endian fields and hex text, as the rest of the tools use them.
using adstool::fromHex;
using adstool::getU16;
using adstool::getU32;
using adstool::putU16;
using adstool::putU32;
using adstool::toHex;

}  // namespace plcsim
