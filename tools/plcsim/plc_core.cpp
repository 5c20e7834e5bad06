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

std::vector<uint8_t> Plc::handleAds(const uint8_t* f, size_t len, uint32_t bodyLen, bool fixedUp)
{
    ++counters_.requests;
    if (bodyLen < AmsHeaderSize) {
        ++counters_.unanswered;
        log("AMS/TCP length " + std::to_string(bodyLen) + " is shorter than the AMS header: dropped");
        return {};
    }
    const NetId target = NetId::fromBytes(f + 6);
    const uint16_t targetPort = getU16(f + 12);
    const NetId source = NetId::fromBytes(f + 14);
    const uint16_t sourcePort = getU16(f + 20);
    const uint16_t cmd = getU16(f + 22);
    const uint16_t flags = getU16(f + 24);
    const uint32_t dataLength = getU32(f + 26);
    const uint32_t invokeId = getU32(f + 34);
    const uint8_t* d = f + HeadersSize;
    const uint32_t n = uint32_t(len - HeadersSize);  // ADS data bytes really there
    if (cmd < 10)
        ++counters_.byCommand[cmd];

    std::ostringstream line;
    line << "req=" << counters_.requests << " cmd=" << commandName(cmd) << "(" << cmd << ")"
         << " src=" << source.str() << ":" << sourcePort << " dst=" << target.str() << ":" << targetPort
         << " invoke=" << invokeId;
    auto drop = [&](const std::string& why) {
        ++counters_.unanswered;
        log(line.str() + " " + why + ": no reply");
        return std::vector<uint8_t>();
    };

    if (fixedUp) {
        ++counters_.lengthFixups;
        line << " note=write-length-fields-low-byte-only(tcp=" << getU32(f + 2) << ",data=" << dataLength
             << ",true=" << n << ")";
    } else if (dataLength != n) {
        return drop("AMS data length " + std::to_string(dataLength) + " disagrees with the " + std::to_string(n)
            + " data bytes");
    }
    if (flags & 0x0001)
        return drop("state flags " + hex(flags) + " mark a response");
    if (flags != 0x0004)
        line << " flags=" << hex(flags);
    if (!routes_.empty() && source != netId_ && !routes_.count(source))
        return drop("no route for " + source.str());

    // Build the answer: header with target and source swapped, then data.
    auto answer = [&](uint32_t amsError, const std::vector<uint8_t>& data) {
        std::vector<uint8_t> r;
        r.reserve(HeadersSize + data.size());
        putU16(r, 0);
        putU32(r, uint32_t(AmsHeaderSize + data.size()));
        r.insert(r.end(), source.b, source.b + 6);
        putU16(r, sourcePort);
        r.insert(r.end(), netId_.b, netId_.b + 6);
        putU16(r, targetPort);
        putU16(r, cmd);
        putU16(r, 0x0005);
        putU32(r, uint32_t(data.size()));
        putU32(r, amsError);
        putU32(r, invokeId);
        r.insert(r.end(), data.begin(), data.end());
        return r;
    };

    // Errors of the AMS layer (no such machine or port) come with an empty body.
    if (target != netId_) {
        log(line.str() + " -> ams-error=0x7 (target machine not found)");
        return answer(ErrTargetMachineNotFound, {});
    }
    const bool handshakePort = (targetPort == 100);
    if (!handshakePort && !ports_.count(targetPort)) {
        log(line.str() + " -> ams-error=0x6 (target port not found)");
        return answer(ErrTargetPortNotFound, {});
    }

    const Fault fault = drawFault();
    lastFault_ = fault;
    if (fault != Fault::None)
        ++counters_.faults;

    // The error shape of each command: the result followed by zeroed fixed fields.
    auto errorData = [&](uint32_t result) {
        std::vector<uint8_t> r;
        putU32(r, result);
        switch (cmd) {
        case CmdReadDeviceInfo:
            r.resize(4 + 4 + 16, 0);
            break;
        case CmdRead:
        case CmdReadWrite:
        case CmdAddNotification:
            putU32(r, 0);
            break;
        case CmdReadState:
            putU32(r, 0);
            break;
        default:
            break;
        }
        return r;
    };
    auto known = [&](uint16_t c) { return c >= CmdReadDeviceInfo && c <= CmdReadWrite && c != CmdNotification; };

    uint32_t amsError = 0;
    uint32_t result = 0;
    std::vector<uint8_t> data;
    if (!known(cmd)) {
        // An ADS device answers a service it does not know with 0x701 in the AMS
        // header error code; there is no response layout to put a result in.
        amsError = ErrServiceNotSupported;
        line << " -> ams-error=0x701 (service not supported)";
    } else if (fault == Fault::AdsError) {
        // Not carried out; the span is still logged, so the log says which bytes were refused.
        if ((cmd == CmdRead || cmd == CmdWrite) && n >= 12)
            line << " group=" << hex(getU32(d)) << " offset=" << getU32(d + 4) << " length=" << getU32(d + 8);
        result = faultErrorCode_;
        data = errorData(result);
    } else if (handshakePort && cmd != CmdAddNotification) {
        result = ErrServiceNotSupported;
        data = errorData(result);
    } else {
        switch (cmd) {
        case CmdReadDeviceInfo: {
            putU32(data, 0);
            data.push_back(3);
            data.push_back(1);
            putU16(data, 4024);
            const char name[16] = "Plc30 App";
            data.insert(data.end(), name, name + 16);
            break;
        }
        case CmdRead: {
            if (n < 12) {
                result = ErrInvalidData;
                break;
            }
            const uint32_t g = getU32(d), o = getU32(d + 4), l = getU32(d + 8);
            line << " group=" << hex(g) << " offset=" << o << " length=" << l;
            if ((result = checkRange(g, o, l)))
                break;
            putU32(data, 0);
            putU32(data, l);
            const uint8_t* m = memory(g) + o;
            data.insert(data.end(), m, m + l);
            if (logData_)
                line << " data=" << adstool::toHex(std::vector<uint8_t>(m, m + l));
            break;
        }
        case CmdWrite: {
            if (n < 12) {
                result = ErrInvalidData;
                break;
            }
            const uint32_t g = getU32(d), o = getU32(d + 4), l = getU32(d + 8);
            line << " group=" << hex(g) << " offset=" << o << " length=" << l;
            if (uint64_t(n) != 12 + uint64_t(l)) {
                result = ErrInvalidSize;
                break;
            }
            if ((result = checkRange(g, o, l)))
                break;
            std::memcpy(memory(g) + o, d + 12, l);
            if (logData_)
                line << " data=" << adstool::toHex(std::vector<uint8_t>(d + 12, d + 12 + l));
            break;
        }
        case CmdReadState:
            putU32(data, 0);
            putU16(data, adsState_);
            putU16(data, 0);
            break;
        case CmdWriteControl: {
            if (n < 8) {
                result = ErrInvalidData;
                break;
            }
            const uint16_t state = getU16(d);
            line << " state=" << state;
            if (state == AdsStateRun || state == AdsStateStop)
                adsState_ = state;
            else
                result = ErrInvalidParam;
            break;
        }
        case CmdAddNotification: {
            if (n < 24) {
                result = ErrInvalidData;
                break;
            }
            const uint32_t g = getU32(d), o = getU32(d + 4), l = getU32(d + 8);
            line << " group=" << hex(g) << " offset=" << o << " length=" << l << " mode=" << getU32(d + 12);
            if (!handshakePort && (result = checkRange(g, o, l)))
                break;
            const uint32_t h = nextHandle_++;
            handles_.insert(h);
            putU32(data, 0);
            putU32(data, h);
            line << " handle=" << h;
            break;
        }
        case CmdDeleteNotification: {
            if (n < 4) {
                result = ErrInvalidData;
                break;
            }
            const uint32_t h = getU32(d);
            line << " handle=" << h;
            if (!handles_.erase(h))
                result = ErrNotifyHandleInvalid;
            break;
        }
        case CmdReadWrite: {
            if (n < 16) {
                result = ErrInvalidData;
                break;
            }
            const uint32_t g = getU32(d), o = getU32(d + 4), rl = getU32(d + 8), wl = getU32(d + 12);
            line << " group=" << hex(g) << " offset=" << o << " read=" << rl << " write=" << wl;
            if (uint64_t(n) != 16 + uint64_t(wl)) {
                result = ErrInvalidSize;
                break;
            }
            if ((result = checkRange(g, o, wl)) || (result = checkRange(g, o, rl)))
                break;
            std::memcpy(memory(g) + o, d + 16, wl);
            putU32(data, 0);
            putU32(data, rl);
            const uint8_t* m = memory(g) + o;
            data.insert(data.end(), m, m + rl);
            break;
        }
        }
        if (result)
            data = errorData(result);
        else if (data.empty())
            putU32(data, 0);  // Write, WriteControl, DeleteDeviceNotification
    }
    if (known(cmd))
        line << " -> result=" << hex(result);

    std::vector<uint8_t> reply = answer(amsError, data);
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
    default:
        break;
    }
    if (fault != Fault::None)
        line << " fault=" << faultName(fault);
    if (fault == Fault::NoReply || fault == Fault::Close) {
        ++counters_.unanswered;
        log(line.str() + " reply=none");
        return {};
    }
    line << " reply=" << reply.size();
    log(line.str());
    return reply;
}

}  // namespace plcsim
