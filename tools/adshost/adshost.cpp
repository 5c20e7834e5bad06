#include "adshost.h"

#include "adstool/driver_plugin.h"
#include "outcome_text.h"
#include "pcap_writer.h"
#include "text_util.h"
#include "transport.h"

#include "adstool/ads_errors.h"
#include "adstool/deadline_io.h"
#include "adstool/le.h"
#include "adstool/netid.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdint>
#include <cstring>
#include <deque>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>

namespace adshost {

namespace {

using adstool::nowSeconds;

bool endsWith(const std::string& s, const char* tail)
{
    const size_t n = std::strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

// A value as a user types it: decimal (a leading zero changes nothing: 010 is ten) or 0x-hex,
// either with a sign.
bool parseInt(const std::string& text, long long& out)
{
    if (text.empty())
        return false;
    const size_t digits = text[0] == '-' || text[0] == '+' ? 1 : 0;
    const bool hex = text.size() > digits + 2 && text[digits] == '0' && (text[digits + 1] == 'x' || text[digits + 1] == 'X');
    if (text.size() == digits || (!hex && !std::isdigit(static_cast<unsigned char>(text[digits]))))
        return false;
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, hex ? 16 : 10);
    if (errno != 0 || !end || *end != '\0')
        return false;
    out = v;
    return true;
}

using util::split;

// A whole decimal number, as the driver converts address texts.
bool parseDecimal(const std::string& text, long long& out)
{
    if (text.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || !end || *end != '\0')
        return false;
    out = v;
    return true;
}

uint32_t le32(const uint8_t* p) { return adstool::getU32(p); }

char areaOfGroup(uint32_t group)
{
    switch (group) {
    case 0xF020:
        return 'I';
    case 0xF030:
        return 'Q';
    case 0x4020:
        return 'M';
    default:
        return '?';
    }
}

std::string netIdOf(const uint8_t* p) { return adstool::NetId::fromBytes(p).str(); }

// The driver's register names and error texts are ASCII: copied without a UTF-8 temporary,
// into storage the string already has (a plain loop over raw pointers, which the compiler
// vectorises).
void assignText(std::string& out, const QString& s)
{
    const ushort* c = s.utf16();
    const size_t n = size_t(s.size());
    out.resize(n);
    char* o = &out[0];
    unsigned any = 0;
    for (size_t i = 0; i < n; ++i) {
        any |= c[i];
        o[i] = char(c[i]);
    }
    if (any > 0x7F)
        out = s.toStdString();
}

// Back to an empty exchange, in two parts. Every field of Exchange is set by one of them (a
// test compares the result with a default Exchange). A step that sends a frame resets only
// the figures: describeFrame and handOver set the texts and the frame, and a text equal to
// the last one is copied over itself without a change of size.
void resetFigures(Exchange& ex)
{
    ex.sent = 0;
    ex.result = -1;
    ex.sendLen = 0;
    ex.commandId = 0;
    ex.readLen = 0;
    ex.varAddress = ex.varLength = ex.varKind = 0;
    ex.replyBytes = 0;
    ex.recvChunks = 0;
    ex.timedOut = false;
    ex.connectionLost = false;
    ex.cyclicRead = false;
    ex.purpose = 0;
    ex.codes = ReplyCodes();
    ex.targetPort = 0;
    ex.rttMs = 0;
}

// The texts and the frame, keeping their storage.
const Exchange& clearTexts(Exchange& ex)
{
    ex.errorText.clear();
    ex.varReg.clear();
    ex.sourceNetId.clear();
    ex.frame.clear();
    return ex;
}

}  // namespace

// ------------------------------------------------------------------------------------------
// Address texts

bool Address::isBit() const { return endsWith(reg, "_bit"); }

int Address::firstByte() const { return isBit() ? address / 8 : address; }

int Address::lastByte() const { return isBit() ? (address + count - 1) / 8 : address + 2 * count - 1; }

ReplyCodes decodeReply(const uint8_t* p, size_t n)
{
    ReplyCodes c;
    if (n < 38)
        return c;
    c.header = true;
    c.amsError = le32(p + 30);
    const uint32_t dataLen = le32(p + 26);
    if (n >= 42 && dataLen >= 4) {
        c.hasResult = true;
        c.adsResult = le32(p + 38);
    }
    return c;
}

std::string codesText(const ReplyCodes& c)
{
    if (!c.header)
        return std::string();
    if (c.amsError != 0)
        return "AMS error " + adstool::adsErrorLabel(c.amsError);
    if (c.hasResult && c.adsResult != 0)
        return "ADS error " + adstool::adsErrorLabel(c.adsResult);
    return std::string();
}

std::string checkResultText(int result)
{
    switch (result) {
    case 0:
        return "valid";
    case 1:
        return "a bit address on a word register or a word address on a bit register";
    case 2:
        return "the address lies below the register's first address, or its last item beyond the last";
    case 3:
        return "the register is unknown";
    case 4:
        return "the address text does not fit the register's syntax";
    case 5:
        return "this data type is not allowed on a 32-bit register";
    case 6:
        return "the register is read-only";
    default:
        return "refused";
    }
}

std::string Address::text() const
{
    std::string t = reg + ":" + addrText;
    if (count != 1)
        t += ":" + std::to_string(count);
    return t;
}

std::string Write::text() const
{
    std::ostringstream o;
    o << addr.reg << ":" << addr.addrText << "=";
    if (addr.isBit()) {
        for (size_t i = 0; i < data.size(); ++i)
            o << (i ? "," : "") << int(data[i] ? 1 : 0);
    } else {
        char buf[16];
        for (size_t i = 0; i + 1 < data.size(); i += 2) {
            std::snprintf(buf, sizeof buf, "0x%04X", unsigned(data[i] | data[i + 1] << 8));
            o << (i ? "," : "") << buf;
        }
    }
    return o.str();
}

bool parseAddress(const std::string& text, Address& out, std::string& why)
{
    const std::vector<std::string> parts = split(text, ':');
    if (parts.size() < 2 || parts.size() > 3 || parts[0].empty() || parts[1].empty()) {
        why = "'" + text + "' is not REG:ADDR[:COUNT]";
        return false;
    }
    Address a;
    a.reg = parts[0];
    a.addrText = parts[1];
    // The integer address by the driver's rule (byte * 8 + bit for bit registers, the bit
    // part not limited to 0..7; a byte offset for words). Whether the text is valid is the
    // driver's to say: Session::resolve asks intf_checkAddr and takes its integer.
    long long v = 0;
    if (a.isBit()) {
        const std::vector<std::string> bb = split(parts[1], '.');
        long long byte = 0, bit = 0;
        if (bb.size() == 2 && parseDecimal(bb[0], byte) && parseDecimal(bb[1], bit) && byte >= 0 && bit >= 0
            && byte * 8 + bit <= 0x7FFFFFFFLL)
            a.address = int(byte * 8 + bit);
    } else if (parseDecimal(parts[1], v) && v >= 0 && v <= 0x7FFFFFFFLL) {
        a.address = int(v);
    }
    if (parts.size() == 3) {
        if (!parseDecimal(parts[2], v) || v < 1 || v > 524288) {
            why = "count '" + parts[2] + "' in '" + text + "' is not a number from 1 to 524288";
            return false;
        }
        a.count = int(v);
    }
    out = a;
    return true;
}

bool parseWrite(const std::string& text, Write& out, std::string& why)
{
    const size_t eq = text.find('=');
    if (eq == std::string::npos) {
        why = "write '" + text + "' is not REG:ADDR=VALUE";
        return false;
    }
    Write w;
    if (!parseAddress(text.substr(0, eq), w.addr, why))
        return false;
    if (w.addr.count != 1) {
        why = "write '" + text + "' takes its count from the values, not from ':COUNT'";
        return false;
    }
    const std::vector<std::string> values = split(text.substr(eq + 1), ',');
    for (const std::string& s : values) {
        long long v = 0;
        if (!parseInt(s, v)) {
            why = "value '" + s + "' in '" + text + "' is not a number";
            return false;
        }
        if (w.addr.isBit()) {
            if (v != 0 && v != 1) {
                why = "bit value '" + s + "' in '" + text + "' is not 0 or 1";
                return false;
            }
            w.data.push_back(uint8_t(v));
        } else {
            if (v < -32768 || v > 65535) {
                why = "word value '" + s + "' in '" + text + "' does not fit 16 bits";
                return false;
            }
            w.data.push_back(uint8_t(v & 0xFF));         // low byte first,
            w.data.push_back(uint8_t((v >> 8) & 0xFF));  // as in PLC memory
        }
    }
    w.addr.count = int(values.size());
    out = w;
    return true;
}

bool parseRecipe(const std::string& text, RecipeVar& out, std::string& why)
{
    RecipeVar r;
    const size_t eq = text.find('=');
    if (!parseAddress(text.substr(0, eq), r.addr, why))
        return false;
    if (eq != std::string::npos) {
        const std::vector<std::string> values = split(text.substr(eq + 1), ',');
        for (const std::string& s : values) {
            long long v = 0;
            if (!parseInt(s, v) || v < -32768 || v > 65535) {
                why = "recipe value '" + s + "' in '" + text + "' is not a 16-bit number";
                return false;
            }
            r.values.push_back(uint16_t(v));
        }
        const size_t need = r.addr.isBit() ? size_t(r.addr.count + 1) / 2 : size_t(r.addr.count);
        if (r.values.size() != need) {
            why = "recipe '" + text + "' needs " + std::to_string(need) + " values";
            return false;
        }
    }
    out = r;
    return true;
}

// ------------------------------------------------------------------------------------------
// What the driver cannot carry out right

namespace {
constexpr int kFrameBytes = 1024;       // the driver's frame, and a panel's receive buffer
constexpr int kReadReplyHeader = 46;    // bytes ahead of a read reply's data
constexpr int kWriteFrameHeader = 50;   // bytes ahead of a write frame's data
}  // namespace

std::string conditionRefusal(const Address& a, int gap)
{
    const std::string what = "--condition " + a.text() + ": ";
    if (a.isBit())
        return what + "the driver drops one-shot reads of bit registers (it sends nothing and never reports an end); "
                      "read the word that holds the bit instead, e.g. --condition "
            + std::string(1, a.area()) + "_W:" + std::to_string(a.firstByte() & ~1);
    if (gap > 0 && a.count > gap)
        return what + "longer than one piece of " + std::to_string(gap) + " words (--gap " + std::to_string(gap)
            + "): the driver would read the pieces after the first from the wrong address; split it, e.g. --condition "
            + a.reg + ":" + a.addrText + ":" + std::to_string(gap) + " --condition " + a.reg + ":"
            + std::to_string(a.address + 2 * gap) + ":" + std::to_string(a.count - gap);
    if (kReadReplyHeader + 2LL * a.count > kFrameBytes)
        return what + "its reply would not fit the driver's " + std::to_string(kFrameBytes)
            + "-byte frame; split it into reads of at most " + std::to_string((kFrameBytes - kReadReplyHeader) / 2)
            + " words";
    return std::string();
}

std::string writeRefusal(const Write& w, int gap)
{
    const std::string what = "--write " + w.addr.reg + ":" + w.addr.addrText + "=...: ";
    const int count = w.addr.count;
    if (w.addr.isBit()) {
        const int piece = gap > 0 ? 8 * gap : count;
        if (count > piece)
            return what + std::to_string(count) + " bits, longer than one piece of " + std::to_string(piece)
                + " bits (8 x --gap " + std::to_string(gap)
                + "): the driver would write the pieces after the first with the wrong bits; split it into writes of "
                  "at most "
                + std::to_string(piece) + " bits";
        const long long bytes = (w.addr.address % 8 + count + 7) / 8;
        if (kWriteFrameHeader + bytes > kFrameBytes)
            return what + "its frame would not fit the driver's " + std::to_string(kFrameBytes)
                + "-byte frame; split it";
        return std::string();
    }
    const int piece = gap > 0 ? std::min(count, gap) : count;
    if (kWriteFrameHeader + 2LL * piece > kFrameBytes)
        return what + "its frame would not fit the driver's " + std::to_string(kFrameBytes)
            + "-byte frame; split it into writes of at most " + std::to_string((kFrameBytes - kWriteFrameHeader) / 2)
            + " words";
    return std::string();
}

// ------------------------------------------------------------------------------------------
// Figures

std::string Stats::figuresLine() const
{
    char rtt[96] = "n/a";  // no reply came: no round trip to show
    if (rttSamples > 0)
        std::snprintf(rtt, sizeof rtt, "%.3f/%.3f/%.3f", rttMinMs, rttMedianMs, rttMaxMs);
    char buf[640];
    std::snprintf(buf, sizeof buf,
        "figures: requests=%llu result1=%llu result8=%llu result2=%llu result3=%llu "
        "result0=%llu timeouts=%llu reconnects=%llu failed_reconnects=%llu stale_bytes=%llu changes=%llu "
        "rtt_ms=%s refreshes=%llu refreshes_per_s=%.1f blocks_per_refresh=%d "
        "seconds=%.1f",
        (unsigned long long)requests, (unsigned long long)results[1], (unsigned long long)results[8],
        (unsigned long long)results[2], (unsigned long long)results[3], (unsigned long long)results[0],
        (unsigned long long)timeouts, (unsigned long long)reconnects, (unsigned long long)failedReconnects,
        (unsigned long long)staleBytes, (unsigned long long)changes, rtt, (unsigned long long)fullRefreshes,
        refreshesPerSecond(), blocksPerRefresh, seconds);
    return buf;
}

// ------------------------------------------------------------------------------------------
// The driver plugin

// The plugin stays loaded: its global driver object would be destroyed under the feet of a
// later session in the same process, and dlclose gains nothing here.
class Plugin : public adstool::DriverPlugin {
public:
    bool load(const std::string& file, std::string& why)
    {
        if (::access(file.c_str(), R_OK) != 0) {
            why = "cannot load driver " + file + ": " + std::strerror(errno);
            return false;
        }
        if (DriverPlugin::load(file))
            return true;
        if (!loadError.empty()) {
            why = "cannot load driver " + file + ": " + loadError;
            return false;
        }
        why = "driver " + file + " lacks entry point" + (missing.size() > 1 ? "s" : "") + ":";
        for (const std::string& name : missing)
            why += " " + name;
        return false;
    }
};

// ------------------------------------------------------------------------------------------
// The session

namespace {
// The driver has one global state per loaded library and its callback carries no pointer
// of ours, so the open session is global too.
std::atomic<Session*> g_session {nullptr};

int hostCallback(int context, int keyNo, QString text, int address)
{
    Session* s = g_session.load();
    if (s)
        s->onChange(context, keyNo, text.toStdString(), address);
    return 0;
}

constexpr size_t kStatusBlockSize = 65536;  // the flag bytes lie at 60115 and 60116
constexpr size_t kRecipeBufferSize = 65536;
// What a session keeps of its past is bounded, so that a host polling for months holds the
// same memory as after its first minutes.
constexpr size_t kMaxExchanges = 4096;     // the newest exchanges (Session::exchanges)
constexpr size_t kMaxRttSamples = 65536;   // the newest round trips (the median of Stats)
constexpr size_t kMaxErrorTexts = 4096;    // the newest error texts of results 2
constexpr size_t kMaxKeptActions = 1024;   // settled actions kept beyond the pending ones
constexpr uint32_t kMaxFrameBody = 65536;
}  // namespace

struct Session::Impl {
    // One step of Session::step, in order.
    void describeFrame(const FRAME_PRO& f, bool recipeWriteUp, bool recipeReadUp, Exchange& ex);
    void noteInFlight(const Exchange& ex);
    void noteReply(Exchange& ex);
    void handOver(Exchange& ex);
    void oweAccount(const Exchange& ex);
    // The actions an exchange settles, the figures and the history (with `lock` held).
    void account(const Exchange& ex);
    // Accounts the exchange still owed, if any (with `lock` held). Whatever reads what
    // account() writes, or adds an action it could settle, calls this first.
    void accountOwed()
    {
        if (!owedAccount)
            return;
        const Exchange* ex = owedAccount;
        owedAccount = nullptr;
        account(*ex);
    }
    // accountOwed() taking the lock: the polling thread's own call.
    void accountOwedNow()
    {
        std::lock_guard<std::mutex> g(lock);
        accountOwed();
    }
    bool configureDriver(Session& self, std::string& why);

    Config cfg;
    Plugin plugin;
    bool opened = false;

    std::vector<uint8_t> statusBlock = std::vector<uint8_t>(kStatusBlockSize, 0);
    std::vector<uint8_t> recipeBuffer = std::vector<uint8_t>(kRecipeBufferSize, 0);
    QMutex hostMutex;
    int mode = 0;
    int blocks = 0;

    PcapWriter pcap;
    Transport transport {cfg, pcap};

    std::atomic<bool> stop {false};

    std::mutex lock;  // guards what the callback and other threads touch below
    std::vector<Change> changes;
    // The newest kMaxExchanges exchanges, oldest at historyNext once the ring is full; the
    // slots are assigned in place, so their storage is reused.
    std::vector<Exchange> history;
    size_t historyNext = 0;
    std::deque<std::string> errorTexts;
    Stats stats;  // requests, reconnects and stale bytes: the transport's counters
    // Written by the polling thread only; read by loops on any thread without the lock.
    std::atomic<uint64_t> fullRefreshCount {0};
    // The newest kMaxRttSamples round trips (a ring like history); min and max over all.
    std::vector<double> rtts;
    size_t rttNext = 0;
    double rttMin = 0, rttMax = 0;
    uint64_t rttCount = 0;

    // The blocks of the screen read since the last full refresh (a screen has few blocks: a
    // short list). A cyclic read is of a word register, whose index group names it, so a
    // block is told by group, address and length.
    struct Block {
        uint32_t group;
        int address, length;
    };
    std::vector<Block> refreshSeen;
    double pollStart = 0;
    double pollEnd = 0;  // set when the session is closed: its figures' time stops

    // ---- what the host tells from the replies (guarded by `lock`)
    struct ActionRec {
        Action a;
        char area = '?';
        int first = 0, last = -1;  // bytes of a write
        std::vector<bool> confirmed;
        bool transferSeen = false;  // a recipe transfer: the PLC accepted one of its requests
    };
    // Actions by id: actionRecs[i] has id firstActionId + i. Settled ones beyond the newest
    // kMaxKeptActions are let go from the front (forgetSettledActions).
    std::deque<ActionRec> actionRecs;
    int firstActionId = 1;
    Fatal fatal;
    bool handshakeDone = false;
    bool anyReply = false;  // a byte of a reply ever arrived
    bool openFailedOnAddress = false;
    std::string sourceNetId;        // the Net ID the driver sends as (from its last frame)
    std::string plannedSourceNetId, plannedSourceAddress;  // as open() found them
    std::vector<uint8_t> inFlight;  // the frame the codes below belong to
    ReplyCodes frameCodes;          // the last codes of a reply to that frame
    uint8_t lastReplyHead[6] = {};  // the first bytes of the last reply
    size_t lastReplyHeadBytes = 0;
    // Per byte of I, Q and M: when it was last read from (or confirmed by) the PLC, and when
    // the last attempt to read it failed; 0: never. Stamps come from stamp() and grow
    // strictly, so "failed after the last read" is a plain comparison. Allocated once per
    // area, never per request.
    // forgotAt: when the driver's cache stopped showing what the PLC was seen to hold (a
    // byte is known while readAt > forgotAt).
    struct ByteTimes {
        std::vector<int64_t> readAt, failedAt, forgotAt;
    };
    ByteTimes byteTimes[3];
    int64_t lastStamp = 0;
    int64_t stepEndUs = 0;  // when the exchange of this step ended: the time of its stamps
    // The same moment in milliseconds for Session::run, 0 after a step without an exchange.
    int64_t stepEndMs = 0;
    // The data of the last accepted reply to each condition read, with the stamp of its
    // bytes: what the PLC answered, which the driver's cache may no longer show (K28 in
    // docs/INTERNALS.md). One entry per condition read asked for.
    struct ConditionReply {
        char area = '?';
        long first = 0, count = 0;
        std::vector<uint8_t> data;
        int64_t stamp = 0;
    };
    std::vector<ConditionReply> conditionReplies;

    // Reused every cycle (Session::step): the frame, the driver's error text, the exchange
    // being filled, the reply's bytes, and the register's and source Net ID's texts (made
    // again only when the driver's change).
    std::unique_ptr<FRAME_PRO> frame {new FRAME_PRO()};
    QString errorText;
    // Two exchanges filled in turn: the last one is accounted while the next request is in
    // flight (owedAccount, guarded by `lock`), so that the PLC's answer does not wait for
    // the host's bookkeeping. The reply's bytes stay in `reply` until then.
    Exchange exchangeSlots[2];
    int fillingSlot = 0;
    const Exchange* owedAccount = nullptr;
    std::vector<uint8_t> reply;
    QByteArray replyBytes;  // the reply as handed to the driver (its storage kept)
    QString regName;        // the frame's register, its text, and its kind by the name's end
    std::string regText;
    bool regIsWord = false, regIsBit = false;
    uint8_t sourceNetIdBytes[6] = {};
    std::string sourceNetIdText;

    static int areaIndex(char area) { return area == 'I' ? 0 : area == 'Q' ? 1 : area == 'M' ? 2 : -1; }

    // The step's time, made strictly growing.
    int64_t stamp()
    {
        lastStamp = std::max(stepEndUs, lastStamp + 1);
        return lastStamp;
    }

    // Stamps bytes [first, first + count) of an area as read (failed false) or as a failed
    // attempt to read them.
    void stampBytes(char area, long first, long count, bool failed)
    {
        const int i = areaIndex(area);
        if (i < 0 || count <= 0 || first < 0)
            return;
        ByteTimes& t = byteTimes[i];
        if (t.readAt.empty()) {
            t.readAt.assign(65536 + 1024, 0);
            t.failedAt.assign(65536 + 1024, 0);
            t.forgotAt.assign(65536 + 1024, 0);
        }
        std::vector<int64_t>& v = failed ? t.failedAt : t.readAt;
        const int64_t at = stamp();
        const long end = std::min(first + count, long(v.size()));
        if (end > first)
            std::fill(v.data() + first, v.data() + end, at);
    }
    void markKnown(char area, long first, long count) { stampBytes(area, first, count, false); }
    // The cache no longer shows what the PLC holds in these bytes: not known until read again.
    void forgetBytes(char area, long first, long count)
    {
        const int i = areaIndex(area);
        if (i < 0 || count <= 0 || first < 0 || byteTimes[i].readAt.empty())
            return;
        std::vector<int64_t>& v = byteTimes[i].forgotAt;
        std::fill(v.begin() + first, v.begin() + std::min(first + count, long(v.size())), stamp());
    }
    // Keeps the data of an accepted reply to a condition read asked for.
    void keepConditionReply(char area, long first, long count, const std::vector<uint8_t>& reply)
    {
        const size_t dataAt = 46;  // AMS/TCP header, AMS header, ADS result and length
        if (reply.size() < dataAt + size_t(count))
            return;
        for (const Address& a : cfg.conditions) {
            if (a.area() != area || a.firstByte() != first || a.lastByte() - a.firstByte() + 1 != count)
                continue;
            ConditionReply* kept = nullptr;
            for (ConditionReply& c : conditionReplies)
                if (c.area == area && c.first == first && c.count == count)
                    kept = &c;
            if (!kept) {
                conditionReplies.emplace_back();
                kept = &conditionReplies.back();
            }
            kept->area = area;
            kept->first = first;
            kept->count = count;
            kept->data.assign(reply.begin() + long(dataAt), reply.begin() + long(dataAt) + count);
            kept->stamp = lastStamp;
            return;
        }
    }

    ActionRec* actionById(int id)
    {
        if (id < firstActionId || id - firstActionId >= int(actionRecs.size()))
            return nullptr;
        return &actionRecs[size_t(id - firstActionId)];
    }

    void forgetSettledActions()
    {
        while (actionRecs.size() > kMaxKeptActions && actionRecs.front().a.state != Action::Pending) {
            actionRecs.pop_front();
            ++firstActionId;
        }
    }

    void recordRtt(double ms)
    {
        if (rttCount == 0 || ms < rttMin)
            rttMin = ms;
        if (rttCount == 0 || ms > rttMax)
            rttMax = ms;
        ++rttCount;
        if (rtts.size() < kMaxRttSamples) {
            rtts.push_back(ms);
            return;
        }
        rtts[rttNext] = ms;
        rttNext = (rttNext + 1) % kMaxRttSamples;
    }

    void recordExchange(const Exchange& ex)
    {
        if (history.size() < kMaxExchanges) {
            history.push_back(ex);
            return;
        }
        history[historyNext] = ex;
        historyNext = (historyNext + 1) % kMaxExchanges;
    }

    // A cyclic read accepted: one more block of the screen seen; all seen is a full refresh.
    void countRefresh(const Exchange& ex)
    {
        const uint32_t group = ex.frame.size() >= 42 ? le32(&ex.frame[38]) : 0;
        for (const Block& b : refreshSeen)
            if (b.address == ex.varAddress && b.length == ex.varLength && b.group == group)
                return;
        refreshSeen.push_back(Block {group, ex.varAddress, ex.varLength});
        if (int(refreshSeen.size()) >= blocks) {
            fullRefreshCount.store(fullRefreshCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            refreshSeen.clear();
        }
    }

    int addAction(const std::string& kind, const std::string& what)
    {
        std::lock_guard<std::mutex> g(lock);
        accountOwed();  // an exchange before the action is not one of its own
        ActionRec r;
        r.a.id = firstActionId + int(actionRecs.size());
        r.a.kind = kind;
        r.a.what = what;
        actionRecs.push_back(r);
        return r.a.id;
    }

    void fail(ActionRec& r, const ReplyCodes& codes, const std::string& why)
    {
        if (r.a.state != Action::Pending)
            return;
        r.a.state = Action::Failed;
        r.a.codes = codes;
        r.a.why = why;
    }

    // The meaning of codes for the request of an exchange (under `lock`).
    std::string meaning(const ReplyCodes& c, const Exchange& ex) const
    {
        outcome::ReplyFacts f;
        f.port = ex.targetPort;
        f.source = ex.sourceNetId;
        f.timedOut = ex.timedOut;
        f.lost = ex.connectionLost;
        f.replyBytes = ex.replyBytes;
        f.addressed = ex.purpose != 'H';
        f.anyReply = anyReply;
        return outcome::meaning(cfg, c, f);
    }

    // What a request on PLC bytes covers: the area and bytes [first, first + count) of the
    // frame's index group, offset and length (reads and writes only).
    struct Span {
        bool known = false;
        char area = '?';
        long first = 0, count = 0;
        long last() const { return first + count - 1; }
    };
    static Span spanOf(const Exchange& ex)
    {
        Span s;
        s.known = ex.frame.size() >= 50 && (ex.commandId == 2 || ex.commandId == 3);
        if (s.known) {
            s.area = areaOfGroup(le32(&ex.frame[38]));
            s.first = long(le32(&ex.frame[42]));
            s.count = long(le32(&ex.frame[46]));
        }
        return s;
    }

    void settle(const Exchange& ex, const std::vector<uint8_t>& reply);
    void settleBytes(const Exchange& ex, const Span& s, const std::vector<uint8_t>& reply);
    void settleWrite(ActionRec& r, const Exchange& ex, const Span& s);
    void settleTransfer(ActionRec& r, const Exchange& ex);
    void finishTransfers();
    void noteFatal(const Exchange& ex);

    // Whether the reply's first bytes are no AMS/TCP header: reserved bytes not zero, or a
    // length no AMS frame has.
    bool notAms(const Exchange& ex) const
    {
        if (ex.replyBytes < 6 || lastReplyHeadBytes < 6)
            return false;
        const uint8_t* h = lastReplyHead;
        const uint32_t len = le32(h + 2);
        return h[0] != 0 || h[1] != 0 || len < 32 || len > kMaxFrameBody;
    }

    KEY_ADDRESS key(const Address& a) const
    {
        KEY_ADDRESS k = KEY_ADDRESS();
        k.keyNo = cfg.keyNo;
        k.regName = QString::fromStdString(a.reg);
        k.address = a.address;
        k.length = a.count;
        k.unitMark = a.isBit() ? -1 : 0;
        return k;
    }

    void recipeFlags(bool& writeUp, bool& readUp)
    {
        QMutexLocker g(&hostMutex);
        writeUp = statusBlock[HOST_FLAG_RECIPE_WRITE] == 1;
        readUp = statusBlock[HOST_FLAG_RECIPE_READ] == 1;
    }
};

// Bookkeeping after the driver has handled a reply (under `lock`).
void Session::Impl::settle(const Exchange& ex, const std::vector<uint8_t>& reply)
{
    if (ex.purpose == 'H' && ex.result == 1)
        handshakeDone = true;
    const Span s = spanOf(ex);
    settleBytes(ex, s, reply);
    for (ActionRec& r : actionRecs) {
        if (r.a.state != Action::Pending)
            continue;
        if (r.a.kind == "write" && (ex.purpose == 'W' || ex.purpose == 'B') && r.area == s.area
            && s.first <= r.last && s.last() >= r.first)
            settleWrite(r, ex, s);
        else if ((r.a.kind == "recipe write" && ex.purpose == 'w') || (r.a.kind == "recipe read" && ex.purpose == 'r'))
            settleTransfer(r, ex);
    }
    finishTransfers();
    if (fatal.kind == Fatal::None && notAms(ex)) {
        fatal.kind = Fatal::NotAms;
        fatal.message = outcome::notAms(cfg, ex.replyBytes);
    }
    forgetSettledActions();
    noteFatal(ex);
}

// What the exchange tells of the PLC's bytes: read, confirmed, or no longer known.
void Session::Impl::settleBytes(const Exchange& ex, const Span& s, const std::vector<uint8_t>& reply)
{
    const bool valueRead = ex.purpose == 'R' || ex.purpose == 'C' || ex.purpose == 'r';
    if (valueRead && ex.result == 1 && ex.codes.ok()) {
        markKnown(s.area, s.first, s.count);
        if (ex.purpose == 'C')
            keepConditionReply(s.area, s.first, s.count, reply);
    }
    // Any request on the bytes that failed (rejected, timed out, given up, lost): what the
    // driver's cache shows for them is no longer what the PLC was seen to hold (a write not
    // confirmed shows the value written).
    else if (s.known && ex.result != 1 && ex.result != 3)
        stampBytes(s.area, s.first, s.count, true);
    if (ex.result == 1 && ex.purpose == 'W' && ex.codes.ok()) {
        markKnown(s.area, s.first, s.count);
        // Settling the write, the driver also gives the as many bytes after it their last
        // written value (K28 in docs/INTERNALS.md): the PLC did not take them.
        if (endsWith(ex.varReg, "_W"))
            forgetBytes(s.area, s.first + s.count, s.count);
    }
    // A refused write: the driver's cache shows the value written, which the PLC never
    // held; the value is not known until it is read again.
    if (ex.result == 1 && ex.purpose == 'W' && ex.codes.anyError())
        forgetBytes(s.area, s.first, s.count);
}

// A write's frame (or the read before a bit write) on the write's bytes.
void Session::Impl::settleWrite(ActionRec& r, const Exchange& ex, const Span& s)
{
    if (ex.result == 2) {
        const std::string why = meaning(frameCodes, ex);
        fail(r, frameCodes, ex.purpose == 'B' ? outcome::bitReadGivenUp(why) : outcome::givenUp(why));
    } else if (ex.result == 1 && ex.purpose == 'W') {
        if (ex.codes.anyError()) {
            fail(r, ex.codes, outcome::writeRefused(meaning(frameCodes, ex)));
        } else if (ex.codes.ok() && ex.codes.hasResult) {
            r.a.codes = ex.codes;
            for (long b = std::max<long>(s.first, r.first); b <= std::min<long>(s.last(), r.last); ++b)
                r.confirmed[size_t(b - r.first)] = true;
            if (std::find(r.confirmed.begin(), r.confirmed.end(), false) == r.confirmed.end())
                r.a.state = Action::Done;
        }
    }
}

// A recipe transfer's request answered or given up.
void Session::Impl::settleTransfer(ActionRec& r, const Exchange& ex)
{
    if (ex.result == 2)
        fail(r, frameCodes, outcome::givenUp(meaning(frameCodes, ex)));
    else if (ex.result == 1 && ex.codes.anyError())
        fail(r, ex.codes, outcome::transferRefused(meaning(frameCodes, ex)));
    else if (ex.codes.header)
        r.a.codes = ex.codes;
    if (ex.result == 1 && ex.codes.ok())
        r.transferSeen = true;
}

// A recipe transfer is over when the driver has lowered its flag after the PLC accepted its
// requests. The flag alone is not enough: it is still down between the action's start and
// the moment the host raises it. The flags are read only while such a transfer waits (the
// host's mutex is a leaf: the driver holds it only to read or lower a flag).
void Session::Impl::finishTransfers()
{
    bool flagsRead = false, writeUp = false, readUp = false;
    for (ActionRec& r : actionRecs) {
        if (r.a.state != Action::Pending || !r.transferSeen)
            continue;
        if (!flagsRead) {
            recipeFlags(writeUp, readUp);
            flagsRead = true;
        }
        if ((r.a.kind == "recipe write" && !writeUp) || (r.a.kind == "recipe read" && !readUp))
            r.a.state = Action::Done;
    }
}

// A give-up that tells the session cannot go on: no answer at all, or an AMS error.
void Session::Impl::noteFatal(const Exchange& ex)
{
    if (ex.result != 2 || fatal.kind != Fatal::None)
        return;
    if (!handshakeDone && !anyReply) {
        fatal.kind = Fatal::NoAnswer;
        fatal.message = meaning(frameCodes, ex);
    } else if (frameCodes.header && frameCodes.amsError != 0) {
        fatal.kind = Fatal::AmsError;
        fatal.codes = frameCodes;
        fatal.message = meaning(frameCodes, ex);
    }
}

Session::Session() : d(new Impl) { }

Session::~Session()
{
    disconnect();
    Session* self = this;
    g_session.compare_exchange_strong(self, nullptr);
}

// The driver set up as a panel runtime does it, in its order: initialisation, the PLC's
// address, the change callback, the screen, the recipe variables and the condition reads.
bool Session::Impl::configureDriver(Session& self, std::string& why)
{
    // 1. initialisation: context, write-to-cache-only flag, stored value, retries, gap
    const std::string init
        = std::to_string(cfg.context) + "#0#0#" + std::to_string(cfg.retries) + "#" + std::to_string(cfg.gap);
    plugin.initProperty(statusBlock.data(), nullptr, recipeBuffer.data(), &mode, init.c_str(), &hostMutex);
    // 2. the PLC's AMS Net ID and port: the values of the driver's page, labels off
    QString page, settings, refused;
    plugin.getDriverPropertyPage(page);
    QStringList values;
    values << QString::fromStdString(cfg.netId) << QString::number(cfg.amsPort);
    if (!ads_settingsFromPropertyPage(page, values, &settings, &refused)) {
        why = "the driver's property page \"" + page.toStdString() + "\" takes no --netid/--ams-port: "
            + refused.toStdString();
        return false;
    }
    plugin.SetDriverPropertyPage(settings);
    // 3. the change callback
    plugin.setAddrValueChangeCallBack(&hostCallback);
    // 4. the screen
    QList<KEY_ADDRESS> keys;
    for (const Address& a : cfg.watches)
        keys.append(key(a));
    blocks = plugin.addrMerge(keys);
    stats.blocksPerRefresh = blocks;
    // 5. recipe variables, laid out in the recipe buffer at their rcpDataIndex
    if (!cfg.recipe.empty()) {
        QVector<_RCP_VAR_PRO> vars;
        for (const RecipeVar& v : cfg.recipe) {
            _RCP_VAR_PRO r = _RCP_VAR_PRO();
            r.driverNo = cfg.context;
            r.keyNo = cfg.keyNo;
            r.regName = QString::fromStdString(v.addr.reg);
            r.address = v.addr.address;
            r.length = v.addr.count;
            r.rcpDataIndex = v.rcpDataIndex;
            vars.append(r);
            for (size_t i = 0; i < v.values.size(); ++i)
                self.setRecipeWord(v.rcpDataIndex + int(i), v.values[i]);
        }
        plugin.setRcpAddress(&vars);
    }
    // 6. condition reads
    for (const Address& a : cfg.conditions)
        self.addConditionRead(a);
    // The source Net ID the driver chose: its first frame carries it (the handshake, handed
    // out again unchanged by the first polling cycle).
    if (plugin.getSendFrame(frame.get()) == 1)
        plannedSourceNetId = netIdOf(frame->frame + 14);
    plannedSourceAddress = adstool::panelAddressFor(cfg.netId, adstool::localIpv4Addresses());
    return true;
}

bool Session::open(const Config& cfg, std::string& why)
{
    if (d->opened) {
        why = "session already open";
        return false;
    }
    Session* expected = nullptr;
    if (!g_session.compare_exchange_strong(expected, this)) {
        why = "another session is open in this process (the driver has one state per process)";
        return false;
    }
    d->cfg = cfg;
    if (!d->plugin.load(cfg.driverPath, why)) {
        g_session = nullptr;
        return false;
    }
    // Validate the addresses before anything is configured; the driver's integer address
    // is the one used from here on.
    Config& c = d->cfg;
    auto check = [&](Address& a, int access, const std::string& what) {
        std::string w;
        if (resolve(a, access, w))
            return true;
        why = what + " " + w;
        d->openFailedOnAddress = true;
        g_session = nullptr;
        return false;
    };
    for (Address& a : c.watches)
        if (!check(a, 0, "--watch"))
            return false;
    for (Address& a : c.conditions)
        if (!check(a, 0, "--condition"))
            return false;
    for (RecipeVar& v : c.recipe)
        if (!check(v.addr, 1, "--recipe"))
            return false;
    for (Write& w : c.writes)
        if (!check(w.addr, 1, "--write"))
            return false;
    if (!cfg.pcapPath.empty()
        && !d->pcap.open(cfg.pcapPath, cfg.pcapRaw ? PcapWriter::LINK_RAW : PcapWriter::LINK_ETHERNET)) {
        why = "cannot write " + cfg.pcapPath + ": " + std::strerror(errno);
        g_session = nullptr;
        return false;
    }
    d->pcap.setLimit(cfg.pcapLimitBytes);

    if (!d->configureDriver(*this, why)) {
        g_session = nullptr;
        return false;
    }
    d->opened = true;
    return true;
}

bool Session::connect(std::string& why)
{
    if (!d->opened) {
        why = "session not open";
        return false;
    }
    return d->transport.connect(why);
}

bool Session::connected() const { return d->transport.connected(); }

void Session::disconnect()
{
    if (d) {
        if (d->pollStart > 0 && d->pollEnd == 0)
            d->pollEnd = nowSeconds();
        d->transport.close(true);
        d->pcap.close();
    }
}

void Session::requestStop() { d->stop = true; }
bool Session::failedForGood() const { return d->transport.failedForGood(); }
const std::string& Session::failure() const { return d->transport.failure(); }
int Session::blocks() const { return d->blocks; }
int Session::localPort() const { return d->transport.localPort(); }

std::string Session::driverVersion()
{
    if (!d->plugin.getVersion)
        return std::string();
    return d->plugin.getVersion().toStdString();
}

bool Session::openFailedOnAddress() const { return d->openFailedOnAddress; }
std::string Session::sourceNetId() const { return d->plannedSourceNetId; }
std::string Session::sourceAddress() const { return d->plannedSourceAddress; }
std::vector<Address> Session::watches() const { return d->cfg.watches; }
std::vector<Address> Session::conditions() const { return d->cfg.conditions; }
std::vector<Write> Session::writes() const { return d->cfg.writes; }

std::string Session::pluginVersion(const std::string& path, std::string& why)
{
    static Plugin p;  // stays loaded, as every plugin of this host does
    if (!p.handle && !p.load(path, why))
        return std::string();
    return p.getVersion().toStdString();
}

std::vector<std::string> Session::registers(bool bits)
{
    std::vector<std::string> out;
    if (!d->plugin.getRegListByType)
        return out;
    QList<QString> names;
    d->plugin.getRegListByType(bits ? 0 : 1, names);
    for (const QString& n : names)
        out.push_back(n.toStdString());
    return out;
}

bool Session::resolve(Address& a, int access, std::string& why)
{
    const std::vector<std::string> bits = registers(true), words = registers(false);
    const bool isBitReg = std::find(bits.begin(), bits.end(), a.reg) != bits.end();
    const bool isWordReg = std::find(words.begin(), words.end(), a.reg) != words.end();
    if (!isBitReg && !isWordReg) {
        why = a.text() + ": unknown register '" + a.reg + "' (the driver has";
        for (const std::string& n : bits)
            why += " " + n;
        for (const std::string& n : words)
            why += " " + n;
        why += ")";
        return false;
    }
    int out = 0;
    const int r = d->plugin.checkAddr(
        QString::fromStdString(a.reg), QString::fromStdString(a.addrText), &out, isBitReg ? -1 : 1, a.count, access);
    if (r != 0) {
        QList<QString> desc;  // format mask, minimum, maximum, width code, access code
        d->plugin.getRegDiscription(QString::fromStdString(a.reg), desc);
        why = a.text() + ": " + checkResultText(r);
        if (desc.size() >= 3 && (r == 2 || r == 4))
            why += " (" + a.reg + " addresses run from " + desc[1].toStdString() + " to " + desc[2].toStdString()
                + (isBitReg ? ", written BYTE.BIT" : ", a byte offset") + (isBitReg ? "" : "; COUNT is in words") + ")";
        why += "; the driver's check result " + std::to_string(r);
        return false;
    }
    a.address = out;
    return true;
}

int Session::checkAddress(const Address& a, int access)
{
    int out = 0;
    // Data type -1 stands for a bit; any other value for a word object.
    return d->plugin.checkAddr(
        QString::fromStdString(a.reg), QString::fromStdString(a.addrText), &out, a.isBit() ? -1 : 1, a.count, access);
}

// What the driver's frame is: its fields, and the purpose the host infers from the command,
// the register and the recipe flags.
void Session::Impl::describeFrame(const FRAME_PRO& f, bool recipeWriteUp, bool recipeReadUp, Exchange& ex)
{
    const bool recipeUp = recipeWriteUp || recipeReadUp;
    ex.commandId = f.frame[22] | f.frame[23] << 8;
    ex.readLen = f.readLen;
    if (!f.var.regName.isSharedWith(regName) || regName.isEmpty()) {  // the driver's table: shared
        regName = f.var.regName;
        assignText(regText, regName);
        regIsWord = endsWith(regText, "_W");
        regIsBit = endsWith(regText, "_bit");
    }
    ex.varReg = regText;
    ex.varAddress = f.var.address;
    ex.varLength = f.var.length;
    ex.varKind = f.var.kind;
    ex.frame.assign(f.frame, f.frame + ex.sendLen);
    ex.cyclicRead = f.readLen > 0 && f.var.kind == 4 && !recipeUp && regIsWord;
    ex.targetPort = f.frame[12] | f.frame[13] << 8;
    if (sourceNetIdText.empty() || std::memcmp(sourceNetIdBytes, f.frame + 14, 6) != 0) {
        std::memcpy(sourceNetIdBytes, f.frame + 14, 6);
        sourceNetIdText = netIdOf(f.frame + 14);
    }
    ex.sourceNetId = sourceNetIdText;
    if (ex.commandId == 6)
        ex.purpose = 'H';
    else if (ex.commandId == 3)
        ex.purpose = recipeWriteUp ? 'w' : 'W';
    else if (ex.commandId == 2 && recipeReadUp && !recipeWriteUp)
        ex.purpose = 'r';
    else if (ex.commandId == 2 && f.var.kind == 4 && !recipeUp)
        ex.purpose = 'R';
    else if (ex.commandId == 2 && regIsBit && f.var.kind == cfg.writeMode)
        ex.purpose = 'B';
    else if (ex.commandId == 2)
        ex.purpose = 'C';
}

// The frame now in flight: the codes of the replies to it start again when it is not the
// frame before (a frame sent again keeps the codes its earlier replies had).
void Session::Impl::noteInFlight(const Exchange& ex)
{
    std::lock_guard<std::mutex> g(lock);
    if (sourceNetId != ex.sourceNetId)
        sourceNetId = ex.sourceNetId;
    if (ex.frame != inFlight) {
        inFlight = ex.frame;
        frameCodes = ReplyCodes();
    }
}

// What the reply says, read from its bytes before the driver sees it (the driver's callback
// for a condition read settles that action with these codes).
void Session::Impl::noteReply(Exchange& ex)
{
    ex.codes = decodeReply(reply.data(), reply.size());
    std::lock_guard<std::mutex> g(lock);
    if (!reply.empty())
        anyReply = true;
    lastReplyHeadBytes = std::min<size_t>(reply.size(), sizeof lastReplyHead);
    if (lastReplyHeadBytes > 0)
        std::memcpy(lastReplyHead, reply.data(), lastReplyHeadBytes);
    if (ex.codes.header)
        frameCodes = ex.codes;
}

// Hands over what arrived, also nothing, so that the driver counts a failure; then what the
// connection owes or whether it is still to be trusted.
void Session::Impl::handOver(Exchange& ex)
{
    // The reply's bytes in an array whose storage stays from one request to the next.
    QByteArray& bytes = replyBytes;
    bytes.resize(int(reply.size()));
    if (!reply.empty())
        std::memcpy(bytes.data(), reply.data(), reply.size());
    ex.replyBytes = int(reply.size());
    ex.result = plugin.dealRcvFrame(bytes, errorText);  // errorText kept: the driver writes into the same storage
    assignText(ex.errorText, errorText);
    transport.replyHandled(ex, ex.result == 1, !reply.empty());
}

// The exchange just handed over is accounted during the next one's wait, or by whoever
// asks first. What loops read without the lock (the full refreshes) is counted at once.
void Session::Impl::oweAccount(const Exchange& ex)
{
    if (ex.cyclicRead && ex.result == 1 && blocks > 0)
        countRefresh(ex);
    std::lock_guard<std::mutex> g(lock);
    owedAccount = &ex;
    fillingSlot ^= 1;
}

void Session::Impl::account(const Exchange& ex)
{
    settle(ex, reply);
    if (ex.result >= 0 && ex.result <= 8)
        ++stats.results[ex.result];
    if (ex.timedOut)
        ++stats.timeouts;
    if (ex.connectionLost)
        ++stats.connectionLosses;
    if (ex.result == 2) {
        errorTexts.push_back(ex.errorText);
        if (errorTexts.size() > kMaxErrorTexts)
            errorTexts.pop_front();
    }
    if (!ex.timedOut && !ex.connectionLost)
        recordRtt(ex.rttMs);
    recordExchange(ex);
}

const Exchange& Session::step()
{
    Impl& s = *d;
    Exchange& ex = s.exchangeSlots[s.fillingSlot];  // never the one owed
    resetFigures(ex);
    s.stepEndMs = 0;
    if (!s.opened)
        return clearTexts(ex);
    if (!s.transport.connected() && !s.transport.reconnect(s.stop)) {
        s.accountOwedNow();
        return clearTexts(ex);
    }
    s.transport.settleOwedReplies();
    if (!s.transport.connected() && !s.transport.reconnect(s.stop)) {
        s.accountOwedNow();
        return clearTexts(ex);
    }
    if (s.pollStart == 0)
        s.pollStart = nowSeconds();

    bool recipeWriteUp = false, recipeReadUp = false;
    s.recipeFlags(recipeWriteUp, recipeReadUp);
    FRAME_PRO* frame = s.frame.get();
    ex.sent = s.plugin.getSendFrame(frame);
    if (ex.sent != 1) {
        s.accountOwedNow();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return clearTexts(ex);
    }
    ex.sendLen = std::max(0, std::min(frame->sendLen, 1024));
    s.transport.send(frame->frame, size_t(ex.sendLen), ex);
    // While the PLC answers: the exchange before (before the codes of the one in flight
    // start again), and what was sent.
    s.accountOwedNow();
    s.describeFrame(*frame, recipeWriteUp, recipeReadUp, ex);
    s.noteInFlight(ex);
    const int64_t endNs = s.transport.awaitReply(s.reply, ex);
    s.stepEndUs = endNs / 1000;
    s.stepEndMs = endNs / 1000000;
    s.noteReply(ex);
    s.handOver(ex);
    s.oweAccount(ex);
    return ex;
}

bool Session::run(uint64_t cycles, int ms, const std::function<bool()>& until)
{
    const int64_t start = nowMs();
    const int64_t deadline = ms > 0 ? start + ms : 0;
    // Without any limit a run would never end; one hour is the outer bound.
    const int64_t hardDeadline = start + 3600 * 1000;
    uint64_t done = 0;
    int64_t now = start;
    while (!d->stop) {
        if (cycles > 0 && done >= cycles)
            break;
        if ((deadline > 0 && now >= deadline) || now >= hardDeadline)
            break;
        if (until && until())
            break;
        step();
        if (d->transport.failedForGood())
            return false;
        ++done;
        // The clock as the reply came in, taken for the round trip: no second reading.
        now = d->stepEndMs > 0 ? d->stepEndMs : nowMs();
    }
    return true;
}

int Session::write(const Write& w)
{
    const int id = d->addAction("write", w.text());
    {
        std::lock_guard<std::mutex> g(d->lock);
        Impl::ActionRec& r = *d->actionById(id);
        r.area = w.addr.area();
        r.first = w.addr.firstByte();
        r.last = w.addr.lastByte();
        r.confirmed.assign(size_t(std::max(0, r.last - r.first + 1)), false);
    }
    std::vector<uint8_t> data = w.data;
    data.resize(std::max<size_t>(data.size(), 4), 0);
    d->plugin.setData(
        d->cfg.keyNo, QString::fromStdString(w.addr.reg), w.addr.address, w.addr.count, data.data(), d->cfg.writeMode);
    return id;
}

std::vector<uint8_t> Session::read(const Address& a)
{
    const size_t n = a.isBit() ? size_t(a.count) : size_t(a.count) * 2;
    std::vector<uint8_t> out(n + 8, 0);
    d->plugin.getData(d->cfg.keyNo, QString::fromStdString(a.reg), a.address, a.count, out.data());
    out.resize(n);
    return out;
}

int Session::requestRecipeWrite()
{
    const int id = d->addAction("recipe write", std::to_string(d->cfg.recipe.size()) + " variables");
    QMutexLocker g(&d->hostMutex);
    d->statusBlock[HOST_FLAG_RECIPE_WRITE] = 1;
    return id;
}

int Session::requestRecipeRead()
{
    const int id = d->addAction("recipe read", std::to_string(d->cfg.recipe.size()) + " variables");
    QMutexLocker g(&d->hostMutex);
    d->statusBlock[HOST_FLAG_RECIPE_READ] = 1;
    return id;
}

bool Session::recipeWritePending()
{
    QMutexLocker g(&d->hostMutex);
    return d->statusBlock[HOST_FLAG_RECIPE_WRITE] != 0;
}

bool Session::recipeReadPending()
{
    QMutexLocker g(&d->hostMutex);
    return d->statusBlock[HOST_FLAG_RECIPE_READ] != 0;
}

uint16_t Session::recipeWord(int index)
{
    const size_t at = size_t(index) * 2;
    if (index < 0 || at + 1 >= d->recipeBuffer.size())
        return 0;
    return uint16_t(d->recipeBuffer[at] | d->recipeBuffer[at + 1] << 8);
}

void Session::setRecipeWord(int index, uint16_t value)
{
    const size_t at = size_t(index) * 2;
    if (index < 0 || at + 1 >= d->recipeBuffer.size())
        return;
    d->recipeBuffer[at] = uint8_t(value);
    d->recipeBuffer[at + 1] = uint8_t(value >> 8);
}

int Session::addConditionRead(const Address& a)
{
    const int id = d->addAction("condition read", a.text());
    KEY_ADDRESS k = d->key(a);
    d->plugin.addConditionRead(&k, d->cfg.conditionKind);
    return id;
}

std::vector<Action> Session::actions()
{
    std::lock_guard<std::mutex> g(d->lock);
    d->accountOwed();
    std::vector<Action> out;
    for (const Impl::ActionRec& r : d->actionRecs)
        out.push_back(r.a);
    return out;
}

Action Session::action(int id)
{
    std::lock_guard<std::mutex> g(d->lock);
    d->accountOwed();
    if (id >= 1 && id < d->firstActionId) {
        Action a;
        a.id = id;
        a.state = Action::Failed;
        a.why = outcome::settledLongAgo();
        return a;
    }
    const Impl::ActionRec* r = d->actionById(id);
    return r ? r->a : Action();
}

bool Session::actionsSettled()
{
    std::lock_guard<std::mutex> g(d->lock);
    d->accountOwed();
    for (const Impl::ActionRec& r : d->actionRecs)
        if (r.a.state == Action::Pending)
            return false;
    return true;
}

Fatal Session::fatal()
{
    std::lock_guard<std::mutex> g(d->lock);
    d->accountOwed();
    return d->fatal;
}

bool Session::answered()
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->anyReply;
}

std::string Session::noAnswerText() { return outcome::noAnswer(d->sourceNetId); }

bool Session::handshakeDone()
{
    std::lock_guard<std::mutex> g(d->lock);
    d->accountOwed();
    return d->handshakeDone;
}

bool Session::everRead(const Address& a) { return freshness(a).read; }

Freshness Session::freshness(const Address& a)
{
    std::lock_guard<std::mutex> g(d->lock);
    d->accountOwed();
    Freshness f;
    const int i = Impl::areaIndex(a.area());
    if (i < 0 || d->byteTimes[i].readAt.empty())
        return f;
    const Impl::ByteTimes& t = d->byteTimes[i];
    int64_t oldest = INT64_MAX;
    for (int b = a.firstByte(); b <= a.lastByte(); ++b) {
        if (b < 0 || size_t(b) >= t.readAt.size() || t.readAt[size_t(b)] <= t.forgotAt[size_t(b)])
            return f;
        oldest = std::min(oldest, t.readAt[size_t(b)]);
        f.stale = f.stale || t.failedAt[size_t(b)] > t.readAt[size_t(b)];
    }
    const int64_t now = adstool::nowUs();
    f.read = true;
    f.ageMs = double(std::max<int64_t>(0, now - oldest)) / 1000.0;
    return f;
}

Freshness Session::conditionValue(const Address& a, std::vector<uint8_t>& out)
{
    out = read(a);
    std::lock_guard<std::mutex> g(d->lock);
    d->accountOwed();
    const Impl::ConditionReply* c = nullptr;
    for (const Impl::ConditionReply& r : d->conditionReplies)
        if (r.area == a.area() && r.first == a.firstByte() && r.count == a.lastByte() - a.firstByte() + 1)
            c = &r;
    const int i = Impl::areaIndex(a.area());
    Freshness f;
    if (!c || i < 0 || d->byteTimes[i].readAt.empty() || out.size() != size_t(c->count))
        return f;
    // Byte by byte the newer of the reply and the cache: a byte read or confirmed since
    // the reply comes from the cache while the cache still shows what the PLC held.
    const Impl::ByteTimes& t = d->byteTimes[i];
    int64_t oldest = INT64_MAX;
    for (long k = 0; k < c->count; ++k) {
        const size_t b = size_t(c->first + k);
        if (b >= t.readAt.size())
            return f;
        int64_t at = c->stamp;
        if (t.readAt[b] > c->stamp && t.readAt[b] > t.forgotAt[b]) {
            at = t.readAt[b];
        } else {
            out[size_t(k)] = c->data[size_t(k)];
            // Read again since, but the cache lost that value: the reply's is an older one.
            f.stale = f.stale || t.readAt[b] > c->stamp;
        }
        f.stale = f.stale || t.failedAt[b] > at;
        oldest = std::min(oldest, at);
    }
    const int64_t now = adstool::nowUs();
    f.read = true;
    f.ageMs = double(std::max<int64_t>(0, now - oldest)) / 1000.0;
    return f;
}

std::string Session::explain(const Exchange& ex)
{
    std::lock_guard<std::mutex> g(d->lock);
    d->accountOwed();
    ReplyCodes c = ex.codes;
    if (!c.header && ex.frame == d->inFlight)
        c = d->frameCodes;
    // After a give-up the driver has moved on; the codes are those of the frame given up.
    if (!c.header && ex.result == 2)
        c = d->frameCodes;
    const std::string what = ex.errorText.empty() ? std::string("(handshake)") : ex.errorText;
    return what + ": " + d->meaning(c, ex);
}

bool Session::captureLimitReached() const { return d->pcap.limitReached(); }
uint64_t Session::capturePackets() const { return d->pcap.packets(); }

void Session::onChange(int context, int keyNo, const std::string& text, int address)
{
    std::lock_guard<std::mutex> g(d->lock);
    if (text == "-1" && context == -1) {
        // A condition read is over; they are served in the order they were queued.
        for (Impl::ActionRec& r : d->actionRecs) {
            if (r.a.kind != "condition read" || r.a.state != Action::Pending)
                continue;
            if (address == 0) {
                r.a.state = Action::Done;
                r.a.codes = d->frameCodes;
            } else {
                outcome::ReplyFacts f;
                f.port = d->cfg.amsPort;
                f.source = d->sourceNetId;
                f.anyReply = d->anyReply;
                d->fail(r, d->frameCodes, outcome::givenUp(outcome::meaning(d->cfg, d->frameCodes, f)));
            }
            break;
        }
    }
    ++d->stats.changes;
    if (d->changes.size() < 1000000)
        d->changes.push_back(Change {context, keyNo, text, address});
}

std::vector<Change> Session::takeChanges()
{
    std::lock_guard<std::mutex> g(d->lock);
    std::vector<Change> out;
    out.swap(d->changes);
    return out;
}

std::vector<Exchange> Session::exchanges()
{
    std::lock_guard<std::mutex> g(d->lock);
    d->accountOwed();
    const std::vector<Exchange>& h = d->history;
    std::vector<Exchange> out(h.begin() + long(d->historyNext), h.end());
    out.insert(out.end(), h.begin(), h.begin() + long(d->historyNext));
    return out;
}

std::vector<std::string> Session::errorTexts()
{
    std::lock_guard<std::mutex> g(d->lock);
    d->accountOwed();
    return std::vector<std::string>(d->errorTexts.begin(), d->errorTexts.end());
}

Stats Session::stats()
{
    std::lock_guard<std::mutex> g(d->lock);
    d->accountOwed();
    Stats st = d->stats;
    const Transport::Counters& c = d->transport.counters();
    st.requests = c.requests.load();
    st.reconnects = c.reconnects.load();
    st.failedReconnects = c.failedReconnects.load();
    st.staleBytes = c.staleBytes.load();
    st.fullRefreshes = d->fullRefreshCount.load();
    st.seconds = d->pollStart > 0 ? (d->pollEnd > 0 ? d->pollEnd : nowSeconds()) - d->pollStart : 0;
    st.rttSamples = d->rttCount;
    if (!d->rtts.empty()) {
        // The median without sorting all samples: the middle one, and for an even count the
        // largest of the lower half as well.
        std::vector<double> v = d->rtts;
        const auto mid = v.begin() + long(v.size() / 2);
        std::nth_element(v.begin(), mid, v.end());
        st.rttMinMs = d->rttMin;
        st.rttMaxMs = d->rttMax;
        st.rttMedianMs = v.size() % 2 ? *mid : (*std::max_element(v.begin(), mid) + *mid) / 2;
    }
    return st;
}

uint64_t Session::requestsSent() { return d->transport.counters().requests.load(); }

uint64_t Session::fullRefreshes() { return d->fullRefreshCount.load(std::memory_order_relaxed); }

}  // namespace adshost
