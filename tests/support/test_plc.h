// The in-process test PLC of the unit tests, and the Host fixture that plays the panel runtime.
//
// TestPlc is a thin wrapper over the simulator core (plcsim::Plc, tools/plcsim/plc_core.h):
// it takes the frame the driver hands out (FRAME_PRO from intf_getSendFrame), lets the
// simulator answer it and, on demand, spoils the answer (no reply, one byte short, one byte
// long, an ADS error reply, a 1024-byte "full receive buffer" reply). Its memory holds the
// three index groups 0xF020 (inputs), 0xF030 (outputs) and 0x4020 (PLC memory), 64 KiB each.
//
// Host owns what the panel runtime owns: the status block (with the recipe request flags at
// bytes 60115 and 60116), the recipe buffer, the host mutex and the value-change callback,
// which records every call in order. cycle() runs one turn of the polling loop:
// intf_getSendFrame, the PLC's answer, intf_dealRcvFrame.
#ifndef ADS_TEST_PLC_H
#define ADS_TEST_PLC_H

#include <QtCore/QByteArray>
#include <QtCore/QMutex>
#include <QtCore/QString>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ads_ethernet.h"
#include "init_options.h"
#include "../../tools/plcsim/plc_core.h"

namespace adstest {

// Index groups of the PLC's memory areas.
constexpr uint32_t kInputs = 0xF020;
constexpr uint32_t kOutputs = 0xF030;
constexpr uint32_t kMemory = 0x4020;
constexpr int kAreaSize = 0x10000;

// ADS command ids as they appear at offset 22 of a request.
constexpr int kCmdRead = 2;
constexpr int kCmdWrite = 3;
constexpr int kCmdAddNotification = 6;

// How the PLC answers one request: None (the reply a real PLC sends), NoReply (none; the
// request is still carried out), Short / Long (one byte less / more; carried out), AdsError
// (result 0x701; not carried out), Full1024 (padded with zeros or cut to 1024 bytes).
using Fault = plcsim::Fault;

// One request as the PLC saw it.
struct Request {
    int command = 0;      // ADS command id (2 read, 3 write, 6 AddDeviceNotification)
    int targetPort = 0;   // AMS target port
    int sourcePort = 0;   // AMS source port
    uint32_t group = 0;   // index group
    uint32_t offset = 0;  // index offset
    uint32_t length = 0;  // length field (read: bytes asked for; write: bytes written)
    QByteArray data;      // write: the bytes written
    QByteArray frame;     // the whole frame as sent
    Fault fault = Fault::None;
    int replySize = 0;  // size of the reply handed back
};

class TestPlc {
public:
    TestPlc();
    ~TestPlc();
    TestPlc(const TestPlc&) = delete;
    TestPlc& operator=(const TestPlc&) = delete;

    // The reply to the first sendLen bytes of the frame. With Fault::None the pending
    // faults of injectFault() apply, else the given one.
    QByteArray reply(const FRAME_PRO& frame, Fault fault = Fault::None);
    QByteArray reply(const unsigned char* frame, int len, Fault fault = Fault::None);

    // The next n requests get fault f (one at a time, in order of arrival).
    void injectFault(Fault f, int n);
    void clearFaults();
    int pendingFaults() const { return faultsLeft_; }

    uint8_t* memory(uint32_t group);  // 64 KiB; nullptr for another group
    uint8_t byteAt(uint32_t group, int offset) { return memory(group)[offset]; }
    void setBytes(uint32_t group, int offset, const std::vector<uint8_t>& bytes);
    std::vector<uint8_t> bytes(uint32_t group, int offset, int count);

    const std::vector<Request>& requests() const { return log_; }
    std::vector<int> commands() const;  // the command id of every request, in order
    void clearLog() { log_.clear(); }

    // Requests the simulator left unanswered (faults, malformed frames, no route).
    int unanswered() const;
    plcsim::Plc& core() { return *plc_; }

private:
    std::unique_ptr<plcsim::Plc> plc_;
    Fault pending_ = Fault::None;
    int faultsLeft_ = 0;
    std::vector<Request> log_;
};

// One call of the value-change callback.
struct Report {
    int context;
    int keyNo;
    QString text;
    int address;
    std::string str() const;  // "context,keyNo,text,address" for messages
};
bool operator==(const Report& a, const Report& b);
std::ostream& operator<<(std::ostream& os, const Report& r);

// The panel runtime. Construction empties the recipe lists and cursor of `driver` (which
// intf_initProperty keeps) and initialises the driver (intf_initProperty, then
// intf_SetDriverPropertyPage, then the callback); only one Host may exist at a time.
class Host {
public:
    static constexpr const char* kSettings = "2_0,192.168.1.100.1.1,801";
    static constexpr int kStatusSize = 65536;  // covers the flag bytes 60115 and 60116
    static constexpr int kRecipeSize = 65536;

    explicit Host(const InitOptions& options = InitOptions(), const char* settings = kSettings);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // intf_initProperty + intf_SetDriverPropertyPage + callback, with the host's memory;
    // the result of intf_initProperty. The status block and recipe buffer keep their bytes.
    int init(const InitOptions& options = InitOptions(), const char* settings = kSettings);
    // The same with an init string as it is, for the tests of its parser.
    int initWithText(const char* initString, const char* settings = kSettings);

    // One polling turn: intf_getSendFrame, the PLC's reply (with the fault given, or the
    // pending ones), intf_dealRcvFrame. Returns its result code, or -1 when
    // intf_getSendFrame had nothing to send.
    int cycle(Fault fault = Fault::None);
    // Same, but the reply is the given bytes (the PLC does not see the request).
    int cycleWithReply(const QByteArray& reply);
    // Only intf_getSendFrame: 1 with `frame` filled, or 0.
    int fetch();
    // Only intf_dealRcvFrame with the given reply.
    int deliver(const QByteArray& reply);
    // Cycles until intf_getSendFrame has nothing to send or maxCycles turns ran.
    // Returns the number of turns that sent a frame.
    int runUntilIdle(int maxCycles);
    // The handshake turn; true when it was sent and accepted.
    bool handshake();

    // Address helpers.
    int addrMerge(const std::vector<KEY_ADDRESS>& keys);
    static KEY_ADDRESS key(int keyNo, const QString& regName, int address, int length, int unitMark = 0);
    int setData(int keyNo, const QString& regName, int address, const std::vector<uint8_t>& data,
        int mode = 0);  // count = bytes for bit registers, bytes / 2 for word registers
    std::vector<uint8_t> getData(int keyNo, const QString& regName, int address, int count, int outSize);

    // Recipe variables (QVector handed to intf_setRcpAddress); returns its result.
    static _RCP_VAR_PRO rcpVar(
        int driverNo, int keyNo, const QString& regName, int address, int length, int rcpDataIndex);
    int setRcpAddress(const std::vector<_RCP_VAR_PRO>& vars);

    // Recipe request flags.
    void setRecipeWriteFlag(unsigned char v) { status[HOST_FLAG_RECIPE_WRITE] = v; }
    void setRecipeReadFlag(unsigned char v) { status[HOST_FLAG_RECIPE_READ] = v; }
    unsigned char recipeWriteFlag() const { return status[HOST_FLAG_RECIPE_WRITE]; }
    unsigned char recipeReadFlag() const { return status[HOST_FLAG_RECIPE_READ]; }

    // Recorded callbacks.
    std::vector<Report> reports;
    void clearReports() { reports.clear(); }
    std::vector<Report> reportsWithText(const QString& text) const;

    static Host* current();
    static int callback(int context, int keyNo, QString text, int address);

    std::vector<unsigned char> status;  // the host's status block
    std::vector<unsigned char> recipe;  // the host's recipe buffer
    QMutex hostMutex;
    int mode = 0;
    TestPlc plc;
    FRAME_PRO frame;       // the last frame fetched
    QByteArray lastReply;  // the last reply delivered
    QString errorText;     // errorText of the last intf_dealRcvFrame
    int lastResult = 0;    // result of the last intf_dealRcvFrame
    int framesSent = 0;    // turns that fetched a frame
};

// Frame field readers (little-endian), for assertions on request bytes.
uint16_t u16(const unsigned char* p);
uint32_t u32(const unsigned char* p);
QByteArray frameBytes(const FRAME_PRO& f);  // the first sendLen bytes
// A syntactically fine ADS Read reply carrying the given data bytes.
QByteArray readReply(const std::vector<uint8_t>& data);
// A reply of n bytes: header zeros, then the given filler.
QByteArray replyOfSize(int n, uint8_t filler = 0);

}  // namespace adstest

#endif  // ADS_TEST_PLC_H
