#include "test_plc.h"
#include "driver_fixture.h"

#include <cstring>
#include <ostream>
#include <sstream>

// The simulator core is linked in when its library is part of the build (its header is
// then on the include path); otherwise its one source file is compiled in here.
#if defined(__has_include)
#if __has_include(<plc_core.h>)
#include <plc_core.h>
#define ADS_TEST_PLC_CORE_LINKED 1
#endif
#endif
#ifndef ADS_TEST_PLC_CORE_LINKED
#include "../../tools/plcsim/plc_core.h"
#include "../../tools/plcsim/plc_core.cpp"
#endif

namespace adstest {

uint16_t u16(const unsigned char* p) { return uint16_t(p[0] | (p[1] << 8)); }
uint32_t u32(const unsigned char* p)
{
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}

QByteArray frameBytes(const FRAME_PRO& f)
{
    int n = f.sendLen;
    if (n < 0)
        n = 0;
    if (n > 1024)
        n = 1024;
    return QByteArray(reinterpret_cast<const char*>(f.frame), n);
}

QByteArray readReply(const std::vector<uint8_t>& data)
{
    QByteArray r(46, '\0');
    const uint32_t amsLen = 32 + 8 + uint32_t(data.size());
    for (int i = 0; i < 4; ++i)
        r[2 + i] = char((amsLen >> (8 * i)) & 0xFF);
    r[22] = 2;  // Read
    r[24] = 5;  // response
    const uint32_t dataLen = 8 + uint32_t(data.size());
    for (int i = 0; i < 4; ++i)
        r[26 + i] = char((dataLen >> (8 * i)) & 0xFF);
    for (int i = 0; i < 4; ++i)
        r[42 + i] = char((uint32_t(data.size()) >> (8 * i)) & 0xFF);
    r.append(reinterpret_cast<const char*>(data.data()), int(data.size()));
    return r;
}

QByteArray replyOfSize(int n, uint8_t filler)
{
    QByteArray r(n, char(filler));
    for (int i = 0; i < n && i < 38; ++i)
        r[i] = 0;
    return r;
}

// ------------------------------------------------------------------------------ TestPlc

TestPlc::TestPlc() : plc_(new plcsim::Plc()) { }
TestPlc::~TestPlc() = default;

void TestPlc::injectFault(Fault f, int n)
{
    pending_ = f;
    faultsLeft_ = n > 0 ? n : 0;
}

void TestPlc::clearFaults()
{
    pending_ = Fault::None;
    faultsLeft_ = 0;
}

int TestPlc::unanswered() const { return int(plc_->counters().unanswered); }

uint8_t* TestPlc::memory(uint32_t group) { return plc_->memory(group); }

void TestPlc::setBytes(uint32_t group, int offset, const std::vector<uint8_t>& b)
{
    uint8_t* m = memory(group);
    for (size_t i = 0; i < b.size(); ++i)
        m[offset + int(i)] = b[i];
}

std::vector<uint8_t> TestPlc::bytes(uint32_t group, int offset, int count)
{
    const uint8_t* m = memory(group);
    return std::vector<uint8_t>(m + offset, m + offset + count);
}

std::vector<int> TestPlc::commands() const
{
    std::vector<int> c;
    for (const Request& r : log_)
        c.push_back(r.command);
    return c;
}

QByteArray TestPlc::reply(const FRAME_PRO& frame, Fault fault)
{
    int n = frame.sendLen;
    if (n < 0)
        n = 0;
    if (n > 1024)
        n = 1024;
    return reply(frame.frame, n, fault);
}

QByteArray TestPlc::reply(const unsigned char* f, int len, Fault fault)
{
    if (fault == Fault::None && faultsLeft_ > 0) {
        fault = pending_;
        if (--faultsLeft_ == 0)
            pending_ = Fault::None;
    }

    Request req;
    req.frame = QByteArray(reinterpret_cast<const char*>(f), len);
    req.fault = fault;
    const plcsim::ParsedFrame pf = plcsim::parseFrame(f, size_t(len > 0 ? len : 0));
    if (len >= int(plcsim::HeadersSize)) {
        req.targetPort = pf.targetPort;
        req.sourcePort = pf.sourcePort;
        req.command = pf.cmd;
    }
    if (pf.data.size() >= 12
        && (req.command == kCmdRead || req.command == kCmdWrite || req.command == kCmdAddNotification)) {
        req.group = plcsim::getU32(&pf.data[0]);
        req.offset = plcsim::getU32(&pf.data[4]);
        req.length = plcsim::getU32(&pf.data[8]);
        if (req.command == kCmdWrite && pf.data.size() > 12) {
            size_t n = pf.data.size() - 12;
            if (n > req.length)
                n = req.length;
            req.data = QByteArray(reinterpret_cast<const char*>(&pf.data[12]), int(n));
        }
    }

    // The simulator applies the reply-shape faults itself.
    plc_->clearFaults();
    if (fault != Fault::None)
        plc_->injectFault(fault, 1);
    std::vector<uint8_t> answer = plc_->handle(f, size_t(len));
    plc_->clearFaults();

    QByteArray r(reinterpret_cast<const char*>(answer.data()), int(answer.size()));
    req.replySize = r.size();
    log_.push_back(req);
    return r;
}

// ------------------------------------------------------------------------------ Report

std::string Report::str() const
{
    std::ostringstream os;
    os << context << "," << keyNo << "," << text.toStdString() << "," << address;
    return os.str();
}

bool operator==(const Report& a, const Report& b)
{
    return a.context == b.context && a.keyNo == b.keyNo && a.text == b.text && a.address == b.address;
}

std::ostream& operator<<(std::ostream& os, const Report& r) { return os << "(" << r.str() << ")"; }

// ------------------------------------------------------------------------------ Host

static Host* g_current = nullptr;

Host* Host::current() { return g_current; }

int Host::callback(int context, int keyNo, QString text, int address)
{
    if (g_current)
        g_current->reports.push_back(Report {context, keyNo, text, address});
    return 0;
}

Host::Host(const InitOptions& options, const char* settings) : status(kStatusSize, 0), recipe(kRecipeSize, 0)
{
    g_current = this;
    std::memset(frame.frame, 0, sizeof frame.frame);
    frame.sendLen = frame.recvLen = frame.dataStart = frame.readLen = frame.spareField = 0;
    clearRecipeState();
    init(options, settings);
}

Host::~Host()
{
    if (g_current == this)
        g_current = nullptr;
}

int Host::init(const InitOptions& options, const char* settings)
{
    return initWithText(options.text().c_str(), settings);
}

int Host::initWithText(const char* initString, const char* settings)
{
    const int r = intf_initProperty(status.data(), nullptr, recipe.data(), &mode, initString, &hostMutex);
    intf_SetDriverPropertyPage(QString::fromLatin1(settings));
    intf_setAddrValueChangeCallBack(&Host::callback);
    return r;
}

int Host::fetch() { return intf_getSendFrame(&frame); }

int Host::deliver(const QByteArray& reply)
{
    lastReply = reply;
    QByteArray copy = reply;
    lastResult = intf_dealRcvFrame(copy, errorText);
    return lastResult;
}

int Host::cycle(Fault fault)
{
    if (fetch() != 1)
        return -1;
    ++framesSent;
    return deliver(plc.reply(frame, fault));
}

int Host::cycleWithReply(const QByteArray& reply)
{
    if (fetch() != 1)
        return -1;
    ++framesSent;
    return deliver(reply);
}

int Host::runUntilIdle(int maxCycles)
{
    int n = 0;
    for (int i = 0; i < maxCycles; ++i) {
        if (cycle() < 0)
            break;
        ++n;
    }
    return n;
}

bool Host::handshake()
{
    if (fetch() != 1)
        return false;
    if (frame.sendLen != 78)
        return false;
    ++framesSent;
    return deliver(plc.reply(frame)) == 1;
}

KEY_ADDRESS Host::key(int keyNo, const QString& regName, int address, int length, int unitMark)
{
    return makeKey(keyNo, regName, address, length, 0, unitMark);
}

int Host::addrMerge(const std::vector<KEY_ADDRESS>& keys)
{
    QList<KEY_ADDRESS> list;
    for (const KEY_ADDRESS& k : keys)
        list.append(k);
    return intf_addrMerge(list);
}

int Host::setData(int keyNo, const QString& regName, int address, const std::vector<uint8_t>& data, int mode_)
{
    std::vector<uint8_t> buf(data);
    buf.resize(data.size() + 16, 0);
    const bool bits = regName.endsWith(QLatin1String("_bit"));
    const int count = bits ? int(data.size()) : int(data.size()) / 2;
    return intf_setData(keyNo, regName, address, count, buf.data(), mode_);
}

std::vector<uint8_t> Host::getData(int keyNo, const QString& regName, int address, int count, int outSize)
{
    std::vector<uint8_t> out(size_t(outSize), 0xEE);
    intf_getData(keyNo, regName, address, count, out.data());
    return out;
}

_RCP_VAR_PRO Host::rcpVar(int driverNo, int keyNo, const QString& regName, int address, int length, int rcpDataIndex)
{
    return makeRcpVar(driverNo, keyNo, regName, address, length, rcpDataIndex);
}

int Host::setRcpAddress(const std::vector<_RCP_VAR_PRO>& vars)
{
    QVector<_RCP_VAR_PRO> v;
    for (const _RCP_VAR_PRO& x : vars)
        v.append(x);
    return intf_setRcpAddress(&v);
}

std::vector<Report> Host::reportsWithText(const QString& text) const
{
    std::vector<Report> r;
    for (const Report& x : reports)
        if (x.text == text)
            r.push_back(x);
    return r;
}

}  // namespace adstest
