#include "plc_core.h"

#include "adstool/hex.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace plcsim {

// ---------------------------------------------------------------- helpers

using adstool::setU32;

static std::string hex(uint32_t x) { return adstool::hexNumber(x); }

static const char* commandName(uint16_t cmd)
{
    switch (cmd) {
    case CmdReadDeviceInfo:
        return "ReadDeviceInfo";
    case CmdRead:
        return "Read";
    case CmdWrite:
        return "Write";
    case CmdReadState:
        return "ReadState";
    case CmdWriteControl:
        return "WriteControl";
    case CmdAddNotification:
        return "AddDeviceNotification";
    case CmdDeleteNotification:
        return "DeleteDeviceNotification";
    case CmdNotification:
        return "DeviceNotification";
    case CmdReadWrite:
        return "ReadWrite";
    default:
        return "Unknown";
    }
}

const char* faultName(Fault f)
{
    switch (f) {
    case Fault::None:
        return "none";
    case Fault::NoReply:
        return "noreply";
    case Fault::Short:
        return "short";
    case Fault::Long:
        return "long";
    case Fault::AdsError:
        return "adserror";
    case Fault::Split:
        return "split";
    case Fault::Delay:
        return "delay";
    case Fault::Close:
        return "close";
    case Fault::Full1024:
        return "full1024";
    }
    return "?";
}

bool parseFault(const std::string& name, Fault& f)
{
    std::string s;
    for (char c : name)
        if (c != '-' && c != '_')
            s += char(std::tolower(static_cast<unsigned char>(c)));
    for (int i = 0; i <= int(Fault::Close); ++i) {
        if (s == faultName(Fault(i))) {
            f = Fault(i);
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------- framing

size_t frameLength(const uint8_t* p, size_t avail, bool* fixedUp)
{
    if (fixedUp)
        *fixedUp = false;
    if (avail < TcpHeaderSize)
        return 0;
    const uint16_t reserved = getU16(p);
    const uint64_t length = getU32(p + 2);
    if (reserved != 0)
        return avail >= TcpHeaderSize + length ? size_t(TcpHeaderSize + length) : 0;
    // An ADS frame: look at the command id before trusting the length.
    if (avail < 24)
        return 0;
    const uint16_t cmd = getU16(p + 22);
    const uint16_t flags = getU16(p + 24);
    if (cmd == CmdWrite && !(flags & 1)) {
        if (avail < HeadersSize + 12)
            return 0;
        const uint64_t n = getU32(p + 46);
        const uint64_t trueLength = AmsHeaderSize + 12 + n;
        const uint32_t dataLength = getU32(p + 26);
        // Both length fields hold exactly the low byte of their true value.
        if (trueLength != length && length == (trueLength & 0xFF) && dataLength == ((12 + n) & 0xFF)
            && trueLength <= MaxFrameBody) {
            if (fixedUp)
                *fixedUp = true;
            return avail >= TcpHeaderSize + trueLength ? size_t(TcpHeaderSize + trueLength) : 0;
        }
    }
    return avail >= TcpHeaderSize + length ? size_t(TcpHeaderSize + length) : 0;
}

std::vector<uint8_t> buildRequest(const NetId& target, uint16_t targetPort, const NetId& source, uint16_t sourcePort,
    uint16_t cmd, uint32_t invokeId, const std::vector<uint8_t>& adsData)
{
    std::vector<uint8_t> f;
    f.reserve(HeadersSize + adsData.size());
    putU16(f, 0);
    putU32(f, uint32_t(AmsHeaderSize + adsData.size()));
    f.insert(f.end(), target.b, target.b + 6);
    putU16(f, targetPort);
    f.insert(f.end(), source.b, source.b + 6);
    putU16(f, sourcePort);
    putU16(f, cmd);
    putU16(f, 0x0004);
    putU32(f, uint32_t(adsData.size()));
    putU32(f, 0);
    putU32(f, invokeId);
    f.insert(f.end(), adsData.begin(), adsData.end());
    return f;
}

std::vector<uint8_t> readData(uint32_t group, uint32_t offset, uint32_t length)
{
    std::vector<uint8_t> d;
    putU32(d, group);
    putU32(d, offset);
    putU32(d, length);
    return d;
}

std::vector<uint8_t> writeData(uint32_t group, uint32_t offset, const std::vector<uint8_t>& bytes)
{
    std::vector<uint8_t> d = readData(group, offset, uint32_t(bytes.size()));
    d.insert(d.end(), bytes.begin(), bytes.end());
    return d;
}

std::vector<uint8_t> readWriteData(
    uint32_t group, uint32_t offset, uint32_t readLength, const std::vector<uint8_t>& bytes)
{
    std::vector<uint8_t> d;
    putU32(d, group);
    putU32(d, offset);
    putU32(d, readLength);
    putU32(d, uint32_t(bytes.size()));
    d.insert(d.end(), bytes.begin(), bytes.end());
    return d;
}

std::vector<uint8_t> portRequest(uint16_t wantedPort)
{
    std::vector<uint8_t> f;
    putU16(f, 0x1000);
    putU32(f, 2);
    putU16(f, wantedPort);
    return f;
}

ParsedFrame parseFrame(const uint8_t* p, size_t len)
{
    ParsedFrame r;
    if (len < TcpHeaderSize)
        return r;
    r.tcpReserved = getU16(p);
    r.tcpLength = getU32(p + 2);
    if (r.tcpReserved != 0) {  // a router port frame: keep the body as data
        r.data.assign(p + TcpHeaderSize, p + len);
        r.ok = (len == TcpHeaderSize + uint64_t(r.tcpLength));
        return r;
    }
    if (len < HeadersSize)
        return r;
    r.target = NetId::fromBytes(p + 6);
    r.targetPort = getU16(p + 12);
    r.source = NetId::fromBytes(p + 14);
    r.sourcePort = getU16(p + 20);
    r.cmd = getU16(p + 22);
    r.stateFlags = getU16(p + 24);
    r.dataLength = getU32(p + 26);
    r.errorCode = getU32(p + 30);
    r.invokeId = getU32(p + 34);
    r.data.assign(p + HeadersSize, p + len);
    r.ok = (len == TcpHeaderSize + uint64_t(r.tcpLength))
        && (uint64_t(r.tcpLength) == AmsHeaderSize + uint64_t(r.dataLength));
    return r;
}

// ---------------------------------------------------------------- Plc

Plc::Plc() : ports_ {801, 851}, inputs_(AreaSize, 0), outputs_(AreaSize, 0), memory_(AreaSize, 0)
{
    NetId::parse("192.168.1.100.1.1", netId_);
}

void Plc::setNetId(const NetId& id) { netId_ = id; }
void Plc::addRoute(const NetId& source) { routes_.insert(source); }
void Plc::clearRoutes() { routes_.clear(); }
void Plc::setRuntimePorts(const std::set<uint16_t>& ports) { ports_ = ports; }

uint8_t* Plc::memory(uint32_t indexGroup)
{
    switch (indexGroup) {
    case GroupInputs:
        return inputs_.data();
    case GroupOutputs:
        return outputs_.data();
    case GroupMemory:
        return memory_.data();
    default:
        return nullptr;
    }
}

void Plc::setAdsState(uint16_t state) { adsState_ = state; }

void Plc::programStep()
{
    if (adsState_ != AdsStateRun)
        return;
    ++steps_;
    uint16_t counter = uint16_t(getU16(&memory_[0]) + 1);
    memory_[0] = uint8_t(counter);
    memory_[1] = uint8_t(counter >> 8);
    if (steps_ % 5 == 0)
        memory_[2] ^= 0x01;
    const double pi = 3.14159265358979323846;
    const long v = 32768 + std::lround(10000.0 * std::sin(2.0 * pi * double(steps_ % 100) / 100.0));
    inputs_[0] = uint8_t(v);
    inputs_[1] = uint8_t(v >> 8);
}

void Plc::injectFault(Fault f, int nextN)
{
    injected_ = f;
    injectedLeft_ = nextN > 0 ? nextN : 0;
}

void Plc::setFaultProbability(Fault f, double p) { prob_[int(f)] = p < 0 ? 0 : (p > 1 ? 1 : p); }

void Plc::clearFaults()
{
    injected_ = Fault::None;
    injectedLeft_ = 0;
    for (double& p : prob_)
        p = 0;
}

void Plc::setSeed(uint64_t seed) { random_.seed(seed); }

Fault Plc::drawFault()
{
    if (injectedLeft_ > 0) {
        --injectedLeft_;
        return injected_;
    }
    for (int i = 1; i <= int(Fault::Close); ++i) {
        if (prob_[i] <= 0)
            continue;
        if (random_.chance(prob_[i]))
            return Fault(i);
    }
    return Fault::None;
}

void Plc::log(const std::string& line)
{
    if (log_)
        log_(line);
}

uint32_t Plc::checkRange(uint32_t group, uint32_t offset, uint32_t length) const
{
    if (group != GroupInputs && group != GroupOutputs && group != GroupMemory)
        return ErrInvalidGroup;
    if (offset >= AreaSize)
        return ErrInvalidOffset;
    if (uint64_t(offset) + length > AreaSize)
        return ErrInvalidSize;
    return 0;
}

std::vector<uint8_t> Plc::handle(const uint8_t* f, size_t len)
{
    lastFault_ = Fault::None;
    if (len < TcpHeaderSize) {
        log("frame of " + std::to_string(len) + " bytes is shorter than the AMS/TCP header: dropped");
        return {};
    }
    const uint16_t reserved = getU16(f);
    const uint32_t tcpLength = getU32(f + 2);

    if (reserved == 0x1000 || reserved == 0x0001) {
        ++counters_.portFrames;
        if (len != TcpHeaderSize + uint64_t(tcpLength)) {
            log("port frame " + hex(reserved) + ": length field " + std::to_string(tcpLength) + " but "
                + std::to_string(len - TcpHeaderSize) + " bytes follow: dropped");
            return {};
        }
        if (reserved == 0x0001) {
            log("port frame 0x1: port released, no reply");
            return {};
        }
        uint16_t port = tcpLength >= 2 ? getU16(f + 6) : 0;
        if (port == 0)
            port = nextClientPort_++;
        std::vector<uint8_t> r;
        putU16(r, 0x1000);
        putU32(r, 8);
        r.insert(r.end(), netId_.b, netId_.b + 6);
        putU16(r, port);
        log("port frame 0x1000: assigned " + netId_.str() + ":" + std::to_string(port));
        return r;
    }
    if (reserved != 0) {
        log("unknown AMS/TCP command " + hex(reserved) + ": dropped");
        return {};
    }

    bool fixedUp = false;
    const size_t expected = frameLength(f, len, &fixedUp);
    if (expected != len) {
        ++counters_.requests;
        ++counters_.unanswered;
        log("frame of " + std::to_string(len) + " bytes but AMS/TCP length " + std::to_string(tcpLength) + " (frame of "
            + std::to_string(TcpHeaderSize + uint64_t(tcpLength)) + "): dropped");
        return {};
    }
    return handleAds(f, len, uint32_t(len - TcpHeaderSize), fixedUp);
}

// One ADS request as it came in: its header fields, its data and the log line being written.
struct Plc::Request {
    NetId target;
    uint16_t targetPort = 0;
    NetId source;
    uint16_t sourcePort = 0;
    uint16_t cmd = 0;
    uint32_t invokeId = 0;
    const uint8_t* d = nullptr;  // the ADS data
    uint32_t n = 0;              // ADS data bytes really there
    bool handshakePort = false;  // port 100, where the panel driver says hello
    std::ostringstream line;
};

static bool knownCommand(uint16_t c) { return c >= CmdReadDeviceInfo && c <= CmdReadWrite && c != CmdNotification; }

// The error shape of each command: the result followed by zeroed fixed fields.
static std::vector<uint8_t> errorData(uint16_t cmd, uint32_t result)
{
    std::vector<uint8_t> r;
    putU32(r, result);
    switch (cmd) {
    case CmdReadDeviceInfo:
        r.resize(4 + 4 + 16, 0);
        break;
    case CmdRead:
    case CmdReadWrite:
    case CmdAddNotification:
    case CmdReadState:
        putU32(r, 0);
        break;
    default:
        break;
    }
    return r;
}

// The answer: header with target and source swapped, then data.
std::vector<uint8_t> Plc::buildAnswer(const Request& q, uint32_t amsError, const std::vector<uint8_t>& data) const
{
    std::vector<uint8_t> r;
    r.reserve(HeadersSize + data.size());
    putU16(r, 0);
    putU32(r, uint32_t(AmsHeaderSize + data.size()));
    r.insert(r.end(), q.source.b, q.source.b + 6);
    putU16(r, q.sourcePort);
    r.insert(r.end(), netId_.b, netId_.b + 6);
    putU16(r, q.targetPort);
    putU16(r, q.cmd);
    putU16(r, 0x0005);
    putU32(r, uint32_t(data.size()));
    putU32(r, amsError);
    putU32(r, q.invokeId);
    r.insert(r.end(), data.begin(), data.end());
    return r;
}

std::vector<uint8_t> Plc::dropRequest(Request& q, const std::string& why)
{
    ++counters_.unanswered;
    log(q.line.str() + " " + why + ": no reply");
    return {};
}

std::vector<uint8_t> Plc::handleAds(const uint8_t* f, size_t len, uint32_t bodyLen, bool fixedUp)
{
    ++counters_.requests;
    if (bodyLen < AmsHeaderSize) {
        ++counters_.unanswered;
        log("AMS/TCP length " + std::to_string(bodyLen) + " is shorter than the AMS header: dropped");
        return {};
    }
    Request q;
    q.target = NetId::fromBytes(f + 6);
    q.targetPort = getU16(f + 12);
    q.source = NetId::fromBytes(f + 14);
    q.sourcePort = getU16(f + 20);
    q.cmd = getU16(f + 22);
    const uint16_t flags = getU16(f + 24);
    const uint32_t dataLength = getU32(f + 26);
    q.invokeId = getU32(f + 34);
    q.d = f + HeadersSize;
    q.n = uint32_t(len - HeadersSize);
    q.handshakePort = (q.targetPort == 100);
    if (q.cmd < 10)
        ++counters_.byCommand[q.cmd];

    q.line << "req=" << counters_.requests << " cmd=" << commandName(q.cmd) << "(" << q.cmd << ")"
           << " src=" << q.source.str() << ":" << q.sourcePort << " dst=" << q.target.str() << ":" << q.targetPort
           << " invoke=" << q.invokeId;

    if (fixedUp) {
        ++counters_.lengthFixups;
        q.line << " note=write-length-fields-low-byte-only(tcp=" << getU32(f + 2) << ",data=" << dataLength
               << ",true=" << q.n << ")";
    } else if (dataLength != q.n) {
        return dropRequest(q, "AMS data length " + std::to_string(dataLength) + " disagrees with the "
                + std::to_string(q.n) + " data bytes");
    }
    if (flags & 0x0001)
        return dropRequest(q, "state flags " + hex(flags) + " mark a response");
    if (flags != 0x0004)
        q.line << " flags=" << hex(flags);
    if (!routes_.empty() && q.source != netId_ && !routes_.count(q.source))
        return dropRequest(q, "no route for " + q.source.str());

    // Errors of the AMS layer (no such machine or port) come with an empty body.
    if (q.target != netId_) {
        log(q.line.str() + " -> ams-error=0x7 (target machine not found)");
        return buildAnswer(q, ErrTargetMachineNotFound, {});
    }
    if (!q.handshakePort && !ports_.count(q.targetPort)) {
        log(q.line.str() + " -> ams-error=0x6 (target port not found)");
        return buildAnswer(q, ErrTargetPortNotFound, {});
    }
    return answerRequest(q);
}

std::vector<uint8_t> Plc::answerRequest(Request& q)
{
    const Fault fault = drawFault();
    lastFault_ = fault;
    if (fault != Fault::None)
        ++counters_.faults;

    uint32_t amsError = 0;
    uint32_t result = 0;
    std::vector<uint8_t> data;
    if (!knownCommand(q.cmd)) {
        // An ADS device answers a service it does not know with 0x701 in the AMS
        // header error code; there is no response layout to put a result in.
        amsError = ErrServiceNotSupported;
        q.line << " -> ams-error=0x701 (service not supported)";
    } else if (fault == Fault::AdsError) {
        // Not carried out; the span is still logged, so the log says which bytes were refused.
        if ((q.cmd == CmdRead || q.cmd == CmdWrite) && q.n >= 12)
            q.line << " group=" << hex(getU32(q.d)) << " offset=" << getU32(q.d + 4) << " length=" << getU32(q.d + 8);
        result = faultErrorCode_;
        data = errorData(q.cmd, result);
    } else if (q.handshakePort && q.cmd != CmdAddNotification) {
        result = ErrServiceNotSupported;
        data = errorData(q.cmd, result);
    } else {
        result = serveCommand(q, data);
        if (result)
            data = errorData(q.cmd, result);
        else if (data.empty())
            putU32(data, 0);  // Write, WriteControl, DeleteDeviceNotification
    }
    if (knownCommand(q.cmd))
        q.line << " -> result=" << hex(result);

    std::vector<uint8_t> reply = buildAnswer(q, amsError, data);
    applyReplyFault(fault, reply);
    if (fault != Fault::None)
        q.line << " fault=" << faultName(fault);
    if (fault == Fault::NoReply || fault == Fault::Close) {
        ++counters_.unanswered;
        log(q.line.str() + " reply=none");
        return {};
    }
    q.line << " reply=" << reply.size();
    log(q.line.str());
    return reply;
}

// Short and Long change the reply's size by one byte, both length fields with it;
// Full1024 pads or cuts it to 1024 bytes.
void Plc::applyReplyFault(Fault fault, std::vector<uint8_t>& reply)
{
    switch (fault) {
    case Fault::Short:
        if (reply.size() > HeadersSize) {
            reply.pop_back();
            setU32(&reply[2], getU32(&reply[2]) - 1);
            setU32(&reply[26], getU32(&reply[26]) - 1);
        }
        break;
    case Fault::Long:
        reply.push_back(0xEE);
        setU32(&reply[2], getU32(&reply[2]) + 1);
        setU32(&reply[26], getU32(&reply[26]) + 1);
        break;
    case Fault::Full1024:
        reply.resize(1024, 0);  // the length fields keep the true reply's
        break;
    default:
        break;
    }
}

uint32_t Plc::serveCommand(Request& q, std::vector<uint8_t>& data)
{
    switch (q.cmd) {
    case CmdReadDeviceInfo:
        return serveReadDeviceInfo(data);
    case CmdRead:
        return serveRead(q, data);
    case CmdWrite:
        return serveWrite(q);
    case CmdReadState:
        return serveReadState(data);
    case CmdWriteControl:
        return serveWriteControl(q);
    case CmdAddNotification:
        return serveAddNotification(q, data);
    case CmdDeleteNotification:
        return serveDeleteNotification(q);
    case CmdReadWrite:
        return serveReadWrite(q, data);
    default:
        return 0;
    }
}

uint32_t Plc::serveReadDeviceInfo(std::vector<uint8_t>& data)
{
    putU32(data, 0);
    data.push_back(3);
    data.push_back(1);
    putU16(data, 4024);
    const char name[16] = "Plc30 App";
    data.insert(data.end(), name, name + 16);
    return 0;
}

uint32_t Plc::serveRead(Request& q, std::vector<uint8_t>& data)
{
    if (q.n < 12)
        return ErrInvalidData;
    const uint32_t g = getU32(q.d), o = getU32(q.d + 4), l = getU32(q.d + 8);
    q.line << " group=" << hex(g) << " offset=" << o << " length=" << l;
    if (const uint32_t bad = checkRange(g, o, l))
        return bad;
    putU32(data, 0);
    putU32(data, l);
    const uint8_t* m = memory(g) + o;
    data.insert(data.end(), m, m + l);
    if (logData_)
        q.line << " data=" << adstool::toHex(std::vector<uint8_t>(m, m + l));
    return 0;
}

uint32_t Plc::serveWrite(Request& q)
{
    if (q.n < 12)
        return ErrInvalidData;
    const uint32_t g = getU32(q.d), o = getU32(q.d + 4), l = getU32(q.d + 8);
    q.line << " group=" << hex(g) << " offset=" << o << " length=" << l;
    if (uint64_t(q.n) != 12 + uint64_t(l))
        return ErrInvalidSize;
    if (const uint32_t bad = checkRange(g, o, l))
        return bad;
    std::memcpy(memory(g) + o, q.d + 12, l);
    if (logData_)
        q.line << " data=" << adstool::toHex(std::vector<uint8_t>(q.d + 12, q.d + 12 + l));
    return 0;
}

uint32_t Plc::serveReadState(std::vector<uint8_t>& data)
{
    putU32(data, 0);
    putU16(data, adsState_);
    putU16(data, 0);
    return 0;
}

uint32_t Plc::serveWriteControl(Request& q)
{
    if (q.n < 8)
        return ErrInvalidData;
    const uint16_t state = getU16(q.d);
    q.line << " state=" << state;
    if (state != AdsStateRun && state != AdsStateStop)
        return ErrInvalidParam;
    adsState_ = state;
    return 0;
}

uint32_t Plc::serveAddNotification(Request& q, std::vector<uint8_t>& data)
{
    if (q.n < 24)
        return ErrInvalidData;
    const uint32_t g = getU32(q.d), o = getU32(q.d + 4), l = getU32(q.d + 8);
    q.line << " group=" << hex(g) << " offset=" << o << " length=" << l << " mode=" << getU32(q.d + 12);
    if (!q.handshakePort)
        if (const uint32_t bad = checkRange(g, o, l))
            return bad;
    const uint32_t h = nextHandle_++;
    handles_.insert(h);
    putU32(data, 0);
    putU32(data, h);
    q.line << " handle=" << h;
    return 0;
}

uint32_t Plc::serveDeleteNotification(Request& q)
{
    if (q.n < 4)
        return ErrInvalidData;
    const uint32_t h = getU32(q.d);
    q.line << " handle=" << h;
    return handles_.erase(h) ? 0 : ErrNotifyHandleInvalid;
}

uint32_t Plc::serveReadWrite(Request& q, std::vector<uint8_t>& data)
{
    if (q.n < 16)
        return ErrInvalidData;
    const uint32_t g = getU32(q.d), o = getU32(q.d + 4), rl = getU32(q.d + 8), wl = getU32(q.d + 12);
    q.line << " group=" << hex(g) << " offset=" << o << " read=" << rl << " write=" << wl;
    if (uint64_t(q.n) != 16 + uint64_t(wl))
        return ErrInvalidSize;
    if (const uint32_t bad = checkRange(g, o, wl))
        return bad;
    if (const uint32_t bad = checkRange(g, o, rl))
        return bad;
    std::memcpy(memory(g) + o, q.d + 16, wl);
    putU32(data, 0);
    putU32(data, rl);
    const uint8_t* m = memory(g) + o;
    data.insert(data.end(), m, m + rl);
    return 0;
}

}  // namespace plcsim
