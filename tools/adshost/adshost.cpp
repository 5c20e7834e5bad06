#include "adshost.h"

#include "adstool/driver_plugin.h"
#include "pcap_writer.h"
#include "text_util.h"

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
// into storage the string already has.
void assignText(std::string& out, const QString& s)
{
    const QChar* c = s.constData();
    const size_t n = size_t(s.size());
    out.resize(n);
    unsigned any = 0;
    for (size_t i = 0; i < n; ++i) {
        const unsigned u = c[i].unicode();
        any |= u;
        out[i] = char(u);
    }
    if (any > 0x7F)
        out = s.toStdString();
}

// Back to an empty exchange, keeping the storage of its strings and frame. Every field of
// Exchange is set here (a test compares the result with a default Exchange).
void resetExchange(Exchange& ex)
{
    ex.sent = 0;
    ex.result = -1;
    ex.errorText.clear();
    ex.sendLen = 0;
    ex.commandId = 0;
    ex.readLen = 0;
    ex.varReg.clear();
    ex.varAddress = ex.varLength = ex.varKind = 0;
    ex.replyBytes = 0;
    ex.recvChunks = 0;
    ex.timedOut = false;
    ex.connectionLost = false;
    ex.cyclicRead = false;
    ex.purpose = 0;
    ex.codes = ReplyCodes();
    ex.targetPort = 0;
    ex.sourceNetId.clear();
    ex.rttMs = 0;
    ex.frame.clear();
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
    void transmit(const FRAME_PRO& f, Exchange& ex);
    void handOver(Exchange& ex);
    void account(Exchange& ex);
    bool configureDriver(Session& self, std::string& why);

    Config cfg;
    Plugin plugin;
    bool opened = false;

    std::vector<uint8_t> statusBlock = std::vector<uint8_t>(kStatusBlockSize, 0);
    std::vector<uint8_t> recipeBuffer = std::vector<uint8_t>(kRecipeBufferSize, 0);
    QMutex hostMutex;
    int mode = 0;
    int blocks = 0;

    int fd = -1;
    uint16_t localPort = 0;
    uint32_t localIp = 0, peerIp = 0;
    PcapWriter pcap;

    std::atomic<bool> stop {false};
    bool failedForGood = false;
    std::string failure;

    std::mutex lock;  // guards what the callback and other threads touch below
    std::vector<Change> changes;
    // The newest kMaxExchanges exchanges, oldest at historyNext once the ring is full; the
    // slots are assigned in place, so their storage is reused.
    std::vector<Exchange> history;
    size_t historyNext = 0;
    std::deque<std::string> errorTexts;
    Stats stats;
    // The newest kMaxRttSamples round trips (a ring like history); min and max over all.
    std::vector<double> rtts;
    size_t rttNext = 0;
    double rttMin = 0, rttMax = 0;
    uint64_t rttCount = 0;

    // Blocks read since the last full refresh (a screen has few blocks: a short list).
    std::vector<std::tuple<std::string, int, int>> refreshSeen;
    double pollStart = 0, pollSeconds = 0;
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
    // Per byte of I, Q and M: when it was last read from (or confirmed by) the PLC, and when
    // the last attempt to read it failed; 0: never. Stamps come from stampUs() and grow
    // strictly, so "failed after the last read" is a plain comparison. Allocated once per
    // area, never per request.
    // forgotAt: when the driver's cache stopped showing what the PLC was seen to hold (a
    // byte is known while readAt > forgotAt).
    struct ByteTimes {
        std::vector<int64_t> readAt, failedAt, forgotAt;
    };
    ByteTimes byteTimes[3];
    int64_t lastStamp = 0;
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

    static int areaIndex(char area) { return area == 'I' ? 0 : area == 'Q' ? 1 : area == 'M' ? 2 : -1; }

    int64_t stampUs()
    {
        const int64_t now = adstool::nowUs();
        lastStamp = std::max(now, lastStamp + 1);
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
        const int64_t stamp = stampUs();
        const long end = std::min(first + count, long(v.size()));
        for (long b = first; b < end; ++b)
            v[size_t(b)] = stamp;
    }
    void markKnown(char area, long first, long count) { stampBytes(area, first, count, false); }
    // The cache no longer shows what the PLC holds in these bytes: not known until read again.
    void forgetBytes(char area, long first, long count)
    {
        const int i = areaIndex(area);
        if (i < 0 || count <= 0 || first < 0 || byteTimes[i].readAt.empty())
            return;
        std::vector<int64_t>& v = byteTimes[i].forgotAt;
        std::fill(v.begin() + first, v.begin() + std::min(first + count, long(v.size())), stampUs());
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
        for (const auto& b : refreshSeen)
            if (std::get<1>(b) == ex.varAddress && std::get<2>(b) == ex.varLength && std::get<0>(b) == ex.varReg)
                return;
        refreshSeen.emplace_back(ex.varReg, ex.varAddress, ex.varLength);
        if (int(refreshSeen.size()) >= blocks) {
            ++stats.fullRefreshes;
            refreshSeen.clear();
        }
    }

    int addAction(const std::string& kind, const std::string& what)
    {
        std::lock_guard<std::mutex> g(lock);
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

    static std::string noAnswerText(const std::string& source)
    {
        return "connected, but no answer: the PLC most likely has no route for this panel's AMS Net ID " + source
            + "; add one on the PLC";
    }

    // The meaning of a reply's codes with the likely fix; `port` is where the frame went.
    std::string meaning(const ReplyCodes& c, int port, const std::string& source, bool timedOut, bool lost,
        int replyBytes, bool addressed = true) const
    {
        if (c.header && c.amsError == 0x7)
            return "AMS error 0x7 (target machine not found): the PLC's AMS Net ID is not " + cfg.netId
                + ": check --netid";
        if (c.header && c.amsError == 0x6)
            return "AMS error 0x6 (target port not found): no ADS port " + std::to_string(port)
                + " on the PLC: check --ams-port";
        if (c.header && c.amsError != 0)
            return codesText(c);
        if (c.hasResult && c.adsResult != 0) {
            std::string t = codesText(c);
            if (!addressed)  // the handshake names no address of the user's
                return t;
            switch (c.adsResult) {
            case 0x701:
                return t + ": the PLC does not offer this request";
            case 0x702:
                return t + ": the PLC has no such area";
            case 0x703:
            case 0x705:
                return t + ": the address lies beyond the PLC's area; check the address";
            case 0x704:
                return t + ": the PLC does not allow this access";
            default:
                return t;
            }
        }
        if (!anyReply && lost)
            return "connected, but the PLC closed the connection without answering: it most likely has no route for "
                   "this panel's AMS Net ID "
                + source + "; add one on the PLC";
        if (!anyReply)
            return noAnswerText(source);
        if (lost)
            return "the PLC closed the connection";
        if (timedOut && replyBytes == 0)
            return "no answer within " + std::to_string(cfg.replyTimeoutMs) + " ms";
        return "a reply of " + std::to_string(replyBytes) + " bytes, not the length the driver expects";
    }

    // Bookkeeping after the driver has handled a reply (under `lock`).
    void settle(const Exchange& ex, const std::vector<uint8_t>& reply, bool recipeWriteUp, bool recipeReadUp)
    {
        const ReplyCodes& fc = frameCodes;
        // The meaning is text: made only for a failure, not for every accepted reply.
        auto why = [&] {
            return meaning(
                fc, ex.targetPort, ex.sourceNetId, ex.timedOut, ex.connectionLost, ex.replyBytes, ex.purpose != 'H');
        };
        if (ex.purpose == 'H' && ex.result == 1)
            handshakeDone = true;
        const bool hasSpan = ex.frame.size() >= 50 && (ex.commandId == 2 || ex.commandId == 3);
        const char area = hasSpan ? areaOfGroup(le32(&ex.frame[38])) : '?';
        const long first = hasSpan ? long(le32(&ex.frame[42])) : 0;
        const long count = hasSpan ? long(le32(&ex.frame[46])) : 0;
        const long last = first + count - 1;
        const bool valueRead = ex.purpose == 'R' || ex.purpose == 'C' || ex.purpose == 'r';
        if (valueRead && ex.result == 1 && ex.codes.ok()) {
            markKnown(area, first, count);
            if (ex.purpose == 'C')
                keepConditionReply(area, first, count, reply);
        }
        // Any request on the bytes that failed (rejected, timed out, given up, lost): what the
        // driver's cache shows for them is no longer what the PLC was seen to hold (a write not
        // confirmed shows the value written).
        else if (hasSpan && ex.result != 1 && ex.result != 3)
            stampBytes(area, first, count, true);
        for (ActionRec& r : actionRecs) {
            if (r.a.state != Action::Pending)
                continue;
            if (r.a.kind == "write" && (ex.purpose == 'W' || ex.purpose == 'B') && r.area == area && first <= r.last
                && last >= r.first) {
                if (ex.result == 2) {
                    fail(r, fc,
                        std::string(ex.purpose == 'B' ? "the read before the bit write was given up: "
                                                      : "given up after the retry limit: ")
                            + why());
                } else if (ex.result == 1 && ex.purpose == 'W') {
                    if (ex.codes.anyError()) {
                        fail(r, ex.codes, "the PLC refused the write: " + why());
                    } else if (ex.codes.ok() && ex.codes.hasResult) {
                        r.a.codes = ex.codes;
                        for (long b = std::max<long>(first, r.first); b <= std::min<long>(last, r.last); ++b)
                            r.confirmed[size_t(b - r.first)] = true;
                        if (std::find(r.confirmed.begin(), r.confirmed.end(), false) == r.confirmed.end())
                            r.a.state = Action::Done;
                    }
                }
            } else if ((r.a.kind == "recipe write" && ex.purpose == 'w')
                || (r.a.kind == "recipe read" && ex.purpose == 'r')) {
                if (ex.result == 2)
                    fail(r, fc, "given up after the retry limit: " + why());
                else if (ex.result == 1 && ex.codes.anyError())
                    fail(r, ex.codes, "the PLC refused it: " + why());
                else if (ex.codes.header)
                    r.a.codes = ex.codes;
                if (ex.result == 1 && ex.codes.ok())
                    r.transferSeen = true;
            }
        }
        if (ex.result == 1 && ex.purpose == 'W' && ex.codes.ok()) {
            markKnown(area, first, count);
            // Settling the write, the driver also gives the as many bytes after it their last
            // written value (K28 in docs/INTERNALS.md): the PLC did not take them.
            if (endsWith(ex.varReg, "_W"))
                forgetBytes(area, first + count, count);
        }
        // A refused write: the driver's cache shows the value written, which the PLC never
        // held; the value is not known until it is read again.
        if (ex.result == 1 && ex.purpose == 'W' && ex.codes.anyError())
            forgetBytes(area, first, count);
        // A recipe transfer is over when the driver has lowered its flag after the PLC accepted
        // its requests. The flag alone is not enough: it is still down between the action's
        // start and the moment the host raises it.
        for (ActionRec& r : actionRecs) {
            if (r.a.state == Action::Pending && r.transferSeen
                && ((r.a.kind == "recipe write" && !recipeWriteUp) || (r.a.kind == "recipe read" && !recipeReadUp)))
                r.a.state = Action::Done;
        }
        if (fatal.kind == Fatal::None && notAms(ex)) {
            fatal.kind = Fatal::NotAms;
            fatal.message = "the answer is no AMS/TCP frame (" + std::to_string(ex.replyBytes)
                + " bytes that do not start with an AMS/TCP header): is " + cfg.plcHost + ":"
                + std::to_string(cfg.plcPort) + " an AMS/TCP port?";
        }
        forgetSettledActions();
        if (ex.result == 2 && fatal.kind == Fatal::None) {
            if (!handshakeDone && !anyReply) {
                fatal.kind = Fatal::NoAnswer;
                fatal.message = why();
            } else if (fc.header && fc.amsError != 0) {
                fatal.kind = Fatal::AmsError;
                fatal.codes = fc;
                fatal.message = why();
            }
        }
    }

    // Whether the reply's first bytes are no AMS/TCP header: reserved bytes not zero, or a
    // length no AMS frame has.
    bool notAms(const Exchange& ex) const
    {
        if (ex.replyBytes < 6 || lastReplyHead.size() < 6)
            return false;
        const uint8_t* h = lastReplyHead.data();
        const uint32_t len = le32(h + 2);
        return h[0] != 0 || h[1] != 0 || len < 32 || len > kMaxFrameBody;
    }
    std::vector<uint8_t> lastReplyHead;  // the first 6 bytes of the last reply

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

    void closeSocket(bool byHost)
    {
        if (fd >= 0) {
            ::close(fd);
            pcap.connectionClosed(byHost);
        }
        fd = -1;
        localPort = 0;
        owedReplies = 0;  // a new connection carries no old replies
        pending.clear();
    }

    bool connectOnce(std::string& why)
    {
        closeSocket(true);
        sockaddr_in a {};
        a.sin_family = AF_INET;
        a.sin_port = htons(cfg.plcPort);
        if (inet_pton(AF_INET, cfg.plcHost.c_str(), &a.sin_addr) != 1) {
            why = "PLC address '" + cfg.plcHost + "' is not an IPv4 address";
            return false;
        }
        std::string err;
        const int s = adstool::connectTcp(cfg.plcHost, cfg.plcPort, adstool::Deadline(cfg.connectTimeoutMs), &err);
        if (s < 0) {
            why = "cannot " + err;  // "cannot connect to HOST:PORT: Connection refused"
            return false;
        }
        // Connected: from now on blocking, with the reply time-out on receiving, so that a
        // reply costs one recv() as in the plainest client.
        const int flags = ::fcntl(s, F_GETFL);
        if (flags >= 0)
            ::fcntl(s, F_SETFL, flags & ~O_NONBLOCK);
        setReceiveTimeout(s, cfg.replyTimeoutMs);
        timeval sendTimeout {cfg.replyTimeoutMs / 1000, (cfg.replyTimeoutMs % 1000) * 1000};
        ::setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
        fd = s;
        sockaddr_in local {};
        socklen_t ll = sizeof local;
        ::getsockname(s, reinterpret_cast<sockaddr*>(&local), &ll);
        localPort = ntohs(local.sin_port);
        localIp = ntohl(local.sin_addr.s_addr);
        peerIp = ntohl(a.sin_addr.s_addr);
        pcap.connectionOpened(localIp, localPort, peerIp, cfg.plcPort);
        return true;
    }

    static void setReceiveTimeout(int s, int64_t ms)
    {
        if (ms < 1)
            ms = 1;
        timeval t {time_t(ms / 1000), suseconds_t((ms % 1000) * 1000)};
        ::setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t);
    }

    bool reconnect()
    {
        int backoff = cfg.reconnectBackoffMs;
        std::string why;
        for (int attempt = 0; attempt < cfg.reconnectAttempts && !stop; ++attempt) {
            if (attempt > 0 || backoff > 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(backoff));
            if (connectOnce(why)) {
                std::lock_guard<std::mutex> g(lock);
                ++stats.reconnects;
                return true;
            }
            {
                std::lock_guard<std::mutex> g(lock);
                ++stats.failedReconnects;
            }
            // Each failed attempt is told: the attempts with their back-off take seconds.
            if (cfg.notice)
                cfg.notice("connecting again, attempt " + std::to_string(attempt + 1) + " of "
                    + std::to_string(cfg.reconnectAttempts) + " failed: " + why);
            backoff = std::min(backoff * 2, cfg.reconnectBackoffMaxMs);
        }
        failedForGood = true;
        failure = "connection lost and not re-established after " + std::to_string(cfg.reconnectAttempts)
            + " attempts: " + why;
        return false;
    }

    // Bytes that arrived after a time-out belong to an old request.
    // Bytes read past the end of the last reply; they belong to no request of ours.
    std::vector<uint8_t> pending;
    // Whether the stream may hold bytes of an older request (after a time-out, a lost
    // connection or a rejected reply); only then is the socket drained before a send.
    bool mayHaveStale = true;
    std::unique_ptr<FRAME_PRO> frame {new FRAME_PRO()};
    QString errorText;
    // Reused every cycle (Session::step): the exchange handed out, the reply's bytes, and the
    // source Net ID's text (made again only when the driver's bytes change).
    Exchange current;
    std::vector<uint8_t> reply;
    QByteArray replyBytes;  // the reply as handed to the driver (its storage kept)
    QString regName;        // the frame's register, and its text
    std::string regText;
    uint8_t sourceNetIdBytes[6] = {};
    std::string sourceNetIdText;

    // Replies the PLC still owes for requests that timed out on this connection. The driver
    // matches a reply to its request by length alone, so a late reply must never reach it
    // as the answer to a later request (a bit write would write back another byte's bits).
    int owedReplies = 0;

    // Before a new request: read and drop each owed reply, waiting at most the reply
    // time-out for each. One that does not come (or a stream out of step) costs the
    // connection: a new one carries no old replies.
    void settleOwedReplies()
    {
        while (owedReplies > 0 && fd >= 0) {
            std::vector<uint8_t> late;
            Exchange scratch;
            receive(late, scratch);
            if (scratch.timedOut || scratch.connectionLost || late.size() <= 6) {
                if (!late.empty())
                    pcap.plcToHost(late.data(), late.size());
                closeSocket(true);
                break;
            }
            pcap.plcToHost(late.data(), late.size());
            std::lock_guard<std::mutex> g(lock);
            stats.staleBytes += uint64_t(late.size());
            --owedReplies;
        }
        owedReplies = 0;
    }

    void drain()
    {
        if (!pending.empty()) {
            pcap.plcToHost(pending.data(), pending.size());
            std::lock_guard<std::mutex> g(lock);
            stats.staleBytes += uint64_t(pending.size());
            pending.clear();
        }
        if (fd < 0 || !mayHaveStale)
            return;
        mayHaveStale = false;
        uint8_t buf[4096];
        for (int guard = 0; guard < 1024; ++guard) {
            const ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
            if (n > 0) {
                pcap.plcToHost(buf, size_t(n));
                std::lock_guard<std::mutex> g(lock);
                stats.staleBytes += uint64_t(n);
                continue;
            }
            if (n == 0)
                closeSocket(false);  // the peer closed meanwhile
            break;
        }
    }

    bool sendFrame(const uint8_t* p, size_t len)
    {
        // One send() for the whole frame; the helper only waits when the send buffer is full.
        return adstool::sendAll(fd, p, len, adstool::Deadline(cfg.replyTimeoutMs)) == adstool::IoStatus::Ok;
    }

    // Assembles one reply by the AMS/TCP length field and hands over exactly that frame;
    // bytes read past it are kept aside and dropped before the next send. The socket is
    // blocking with the reply time-out, so a reply usually costs a single recv().
    void receive(std::vector<uint8_t>& buf, Exchange& ex)
    {
        const int64_t deadline = nowMs() + cfg.replyTimeoutMs;
        size_t need = 6;
        bool headerSeen = false;
        bool shortened = false;  // the receive time-out was set to what is left
        uint8_t chunk[4096];
        while (buf.size() < need) {
            const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
            if (n <= 0) {
                if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                    const int64_t left = deadline - nowMs();
                    if (left <= 0) {
                        ex.timedOut = true;
                        break;
                    }
                    setReceiveTimeout(fd, left);
                    shortened = true;
                    continue;
                }
                ex.connectionLost = true;
                break;
            }
            buf.insert(buf.end(), chunk, chunk + n);
            ++ex.recvChunks;
            if (!headerSeen && buf.size() >= 6) {
                headerSeen = true;
                // Past kMaxFrameBody it is not a frame of ours: the header only is handed over.
                need = adstool::amsFrameSize(buf.data(), kMaxFrameBody);
            }
            if (buf.size() < need && !shortened) {
                // The rest of a split reply: wait only for what is left of the time-out.
                setReceiveTimeout(fd, std::max<int64_t>(1, deadline - nowMs()));
                shortened = true;
            }
        }
        if (shortened && fd >= 0)
            setReceiveTimeout(fd, cfg.replyTimeoutMs);
        if (ex.timedOut || ex.connectionLost)
            return;
        if (buf.size() > need) {
            pending.assign(buf.begin() + long(need), buf.end());
            buf.resize(need);
            mayHaveStale = true;
        }
    }

    void recipeFlags(bool& writeUp, bool& readUp)
    {
        QMutexLocker g(&hostMutex);
        writeUp = statusBlock[HOST_FLAG_RECIPE_WRITE] == 1;
        readUp = statusBlock[HOST_FLAG_RECIPE_READ] == 1;
    }
};

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
    return d->connectOnce(why);
}

bool Session::connected() const { return d->fd >= 0; }

void Session::disconnect()
{
    if (d) {
        if (d->pollStart > 0 && d->pollEnd == 0)
            d->pollEnd = nowSeconds();
        d->closeSocket(true);
        d->pcap.close();
    }
}

void Session::requestStop() { d->stop = true; }
bool Session::failedForGood() const { return d->failedForGood; }
const std::string& Session::failure() const { return d->failure; }
int Session::blocks() const { return d->blocks; }
int Session::localPort() const { return d->localPort; }

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
    ex.sendLen = std::max(0, std::min(f.sendLen, 1024));
    ex.commandId = f.frame[22] | f.frame[23] << 8;
    ex.readLen = f.readLen;
    if (!f.var.regName.isSharedWith(regName) || regName.isEmpty()) {  // the driver's table: shared
        regName = f.var.regName;
        assignText(regText, regName);
    }
    ex.varReg = regText;
    ex.varAddress = f.var.address;
    ex.varLength = f.var.length;
    ex.varKind = f.var.kind;
    ex.frame.assign(f.frame, f.frame + ex.sendLen);
    ex.cyclicRead = f.readLen > 0 && f.var.kind == 4 && !recipeUp && endsWith(ex.varReg, "_W");
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
    else if (ex.commandId == 2 && endsWith(ex.varReg, "_bit") && f.var.kind == cfg.writeMode)
        ex.purpose = 'B';
    else if (ex.commandId == 2)
        ex.purpose = 'C';
}

// Sends the frame and receives its reply into `reply`; the round trip when one came.
void Session::Impl::transmit(const FRAME_PRO& f, Exchange& ex)
{
    drain();
    reply.clear();
    const double t0 = nowSeconds();
    if (fd < 0) {
        ex.connectionLost = true;
    } else if (!sendFrame(f.frame, size_t(ex.sendLen))) {
        ex.connectionLost = true;
    } else {
        pcap.hostToPlc(f.frame, size_t(ex.sendLen));
        {
            std::lock_guard<std::mutex> g(lock);
            ++stats.requests;
        }
        receive(reply, ex);
        if (!reply.empty())
            pcap.plcToHost(reply.data(), reply.size());
    }
    const double t1 = nowSeconds();
    if (!ex.timedOut && !ex.connectionLost)
        ex.rttMs = (t1 - t0) * 1000.0;

    // What the reply says, read from its bytes before the driver sees it (the driver's
    // callback for a condition read settles that action with these codes).
    ex.codes = decodeReply(reply.data(), reply.size());
    std::lock_guard<std::mutex> g(lock);
    if (!reply.empty())
        anyReply = true;
    lastReplyHead.assign(reply.begin(), reply.begin() + long(std::min<size_t>(reply.size(), 6)));
    if (sourceNetId != ex.sourceNetId)
        sourceNetId = ex.sourceNetId;
    if (ex.frame != inFlight) {
        inFlight = ex.frame;
        frameCodes = ReplyCodes();
    }
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
    if (ex.result != 1 || ex.timedOut || ex.connectionLost)
        mayHaveStale = true;
    if (ex.connectionLost) {
        closeSocket(false);
    } else if (ex.timedOut) {
        // Nothing came: the reply may still come, and is owed. Part of a reply came: the
        // stream cannot be trusted any more; start a new connection.
        if (reply.empty())
            ++owedReplies;
        else
            closeSocket(true);
    }
}

// The actions the exchange settles, and the figures.
void Session::Impl::account(Exchange& ex)
{
    bool writeStillUp = false, readStillUp = false;
    recipeFlags(writeStillUp, readStillUp);
    std::lock_guard<std::mutex> g(lock);
    settle(ex, reply, writeStillUp, readStillUp);
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
    if (ex.cyclicRead && ex.result == 1 && blocks > 0)
        countRefresh(ex);
    recordExchange(ex);
}

const Exchange& Session::step()
{
    Impl& s = *d;
    Exchange& ex = s.current;
    resetExchange(ex);
    if (!s.opened)
        return ex;
    if (s.fd < 0 && !s.reconnect())
        return ex;
    s.settleOwedReplies();
    if (s.fd < 0 && !s.reconnect())
        return ex;
    if (s.pollStart == 0)
        s.pollStart = nowSeconds();

    bool recipeWriteUp = false, recipeReadUp = false;
    s.recipeFlags(recipeWriteUp, recipeReadUp);
    FRAME_PRO* frame = s.frame.get();
    ex.sent = s.plugin.getSendFrame(frame);
    if (ex.sent != 1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        s.pollSeconds = nowSeconds() - s.pollStart;
        return ex;
    }
    s.describeFrame(*frame, recipeWriteUp, recipeReadUp, ex);
    s.transmit(*frame, ex);
    s.handOver(ex);
    s.account(ex);
    s.pollSeconds = nowSeconds() - s.pollStart;
    return ex;
}

bool Session::run(uint64_t cycles, int ms, const std::function<bool()>& until)
{
    const int64_t deadline = ms > 0 ? nowMs() + ms : 0;
    // Without any limit a run would never end; one hour is the outer bound.
    const int64_t hardDeadline = nowMs() + 3600 * 1000;
    uint64_t done = 0;
    while (!d->stop) {
        if (cycles > 0 && done >= cycles)
            break;
        if (deadline > 0 && nowMs() >= deadline)
            break;
        if (nowMs() >= hardDeadline)
            break;
        if (until && until())
            break;
        step();
        if (d->failedForGood)
            return false;
        ++done;
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
    std::vector<Action> out;
    for (const Impl::ActionRec& r : d->actionRecs)
        out.push_back(r.a);
    return out;
}

Action Session::action(int id)
{
    std::lock_guard<std::mutex> g(d->lock);
    if (id >= 1 && id < d->firstActionId) {
        Action a;
        a.id = id;
        a.state = Action::Failed;
        a.why = "settled long ago; its outcome is no longer known";
        return a;
    }
    const Impl::ActionRec* r = d->actionById(id);
    return r ? r->a : Action();
}

bool Session::actionsSettled()
{
    std::lock_guard<std::mutex> g(d->lock);
    for (const Impl::ActionRec& r : d->actionRecs)
        if (r.a.state == Action::Pending)
            return false;
    return true;
}

Fatal Session::fatal()
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->fatal;
}

bool Session::answered()
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->anyReply;
}

std::string Session::noAnswerText() { return Impl::noAnswerText(d->sourceNetId); }

bool Session::handshakeDone()
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->handshakeDone;
}

bool Session::everRead(const Address& a) { return freshness(a).read; }

Freshness Session::freshness(const Address& a)
{
    std::lock_guard<std::mutex> g(d->lock);
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
    using namespace std::chrono;
    const int64_t now = duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
    f.read = true;
    f.ageMs = double(std::max<int64_t>(0, now - oldest)) / 1000.0;
    return f;
}

std::string Session::explain(const Exchange& ex)
{
    std::lock_guard<std::mutex> g(d->lock);
    ReplyCodes c = ex.codes;
    if (!c.header && ex.frame == d->inFlight)
        c = d->frameCodes;
    // After a give-up the driver has moved on; the codes are those of the frame given up.
    if (!c.header && ex.result == 2)
        c = d->frameCodes;
    const std::string what = ex.errorText.empty() ? std::string("(handshake)") : ex.errorText;
    return what + ": "
        + d->meaning(
            c, ex.targetPort, ex.sourceNetId, ex.timedOut, ex.connectionLost, ex.replyBytes, ex.purpose != 'H');
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
                d->fail(r, d->frameCodes,
                    "given up after the retry limit: "
                        + d->meaning(d->frameCodes, d->cfg.amsPort, d->sourceNetId, false, false, 0));
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
    const std::vector<Exchange>& h = d->history;
    std::vector<Exchange> out(h.begin() + long(d->historyNext), h.end());
    out.insert(out.end(), h.begin(), h.begin() + long(d->historyNext));
    return out;
}

std::vector<std::string> Session::errorTexts()
{
    std::lock_guard<std::mutex> g(d->lock);
    return std::vector<std::string>(d->errorTexts.begin(), d->errorTexts.end());
}

Stats Session::stats()
{
    std::lock_guard<std::mutex> g(d->lock);
    Stats st = d->stats;
    st.seconds = d->pollStart > 0 ? (d->pollEnd > 0 ? d->pollEnd : nowSeconds()) - d->pollStart : 0;
    st.rttSamples = d->rttCount;
    if (!d->rtts.empty()) {
        std::vector<double> v = d->rtts;
        std::sort(v.begin(), v.end());
        st.rttMinMs = d->rttMin;
        st.rttMaxMs = d->rttMax;
        st.rttMedianMs = v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
    }
    return st;
}

uint64_t Session::requestsSent()
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->stats.requests;
}

uint64_t Session::fullRefreshes()
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->stats.fullRefreshes;
}

}  // namespace adshost
