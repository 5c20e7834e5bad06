// differential: two builds of the driver plugin, driven side by side with the same seeded
// host actions and fed the same PLC replies, must show the host and the PLC the same things.
//
//   differential --before A.so --after B.so [--seeds N] [--steps M] [--first-seed S]
//                [--seed-timeout SECONDS] [--quiet]
//
// Both plugins are loaded into one process with dlopen(RTLD_NOW | RTLD_LOCAL): each keeps its
// own driver object, and the plugin exports only its nineteen intf_ entry points. Each seed
// runs in a child process of its own (fork), so that a seed starts from freshly loaded
// drivers whatever the seeds before it did and can be replayed alone with --first-seed S
// --seeds 1; a child that crashes or runs out of time counts as a failed seed.
//
// One seed: a std::mt19937 seeded with the seed number chooses M host actions over all
// nineteen entry points (initialisation with varied settings, property pages valid and not,
// address sets of all six registers and unknown names, recipe variables and transfers started
// through the status block's flag bytes, condition reads, word and bit writes, reads, address
// checks, multi-copy, the information calls, polling turns, bursts of writes or condition
// reads past the queues' 513 entries followed by long quiet polling) and changes of the
// PLC's memory. Faults of a polling turn: no reply (an empty buffer handed over, or nothing
// at all so that the frame is asked for again), a short reply, bytes appended, garbage, the
// right length with changed bytes, more than 1024 bytes, an ADS error answer, an AMS error
// code, a 1024-byte piece (also of the handshake's reply), and the reply to an earlier frame.
// Driver A (--before) and driver B (--after) each get their own host memory (status block,
// recipe buffer, host mutex) and their own callback, which records every call and reads the
// reported item back with intf_getData from inside the callback, as a screen does. A polling
// turn asks both drivers for a frame; when B's frame equals A's, the in-process PLC
// (plcsim::Plc, tools/plcsim/plc_core.h) answers it once, the answer may be spoilt by a
// seeded fault, and the same bytes are handed to both drivers.
//
// Compared after every action: the result of every entry point called; every FRAME_PRO
// handed out (result, every field, the frame bytes and the variable's data buffer, also
// beyond sendLen: the host sees the whole record); intf_dealRcvFrame's result, error text
// and the reply buffer after the call; every callback (context, key, text, address, in
// order) with what intf_getData gave inside it; intf_getData's output buffer beyond what
// the call should write; the host's status block flag bytes (the whole block every 64
// actions) and the whole recipe buffer; the results of intf_checkAddr,
// intf_checkAddrValidity, intf_multiCopy and the information calls.
//
// On the first difference: seed, step, the action, both observations; exit 1. Otherwise the
// figures and "differential: N seeds x M steps: N passed, 0 failed"; exit 0. Exit 2: usage,
// or a plugin that cannot be loaded.
//
// Not compared: calls from a second host thread (their interleaving with the polling thread
// is not reproducible; tests/tsan covers them), so intf_setData and intf_getData run on the
// one thread, also from inside the callback; the moments at which the host mutex is taken;
// time and allocations; host memory other than the records, buffers and blocks named above
// (AddressSanitizer builds see writes past them). Null and empty texts are told apart.
#include "ads_ethernet.h"
#include "adstool/driver_plugin.h"
#include "plc_core.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <dlfcn.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

// ------------------------------------------------------------------------------------------
// The plugin

struct Plugin : adstool::DriverPlugin {
    bool load(const std::string& file, std::string& why)
    {
        if (DriverPlugin::load(file))
            return true;
        why = loadError.empty() ? path + ": no entry point " + missing[0] : "cannot load " + file + ": " + loadError;
        return false;
    }
};

// ------------------------------------------------------------------------------------------
// Observations: what one side showed during one action, as labelled items. Text items are
// printed as they are, binary items in hexadecimal.

struct Item {
    std::string label;
    std::string value;
    bool binary;
};

struct Observation {
    std::vector<Item> items;
    void clear() { items.clear(); }
    void text(const char* label, const std::string& v) { items.push_back(Item {label, v, false}); }
    void num(const char* label, long long v) { items.push_back(Item {label, std::to_string(v), false}); }
    void bytes(const char* label, const void* p, size_t n)
    {
        items.push_back(Item {label, std::string(static_cast<const char*>(p), n), true});
    }
    void str(const char* label, const QString& s)
    {
        // Null and empty texts are told apart: a host may test isNull().
        items.push_back(Item {label, s.isNull() ? std::string("<null>") : "\"" + utf8(s) + "\"", false});
    }
    static std::string utf8(const QString& s)
    {
        const QByteArray b = s.toUtf8();
        return std::string(b.constData(), size_t(b.size()));
    }
};

std::string hexOf(const std::string& v, size_t limit = 2048)
{
    static const char* digits = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < v.size() && i < limit; ++i) {
        const unsigned char c = static_cast<unsigned char>(v[i]);
        if (i)
            out += ' ';
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    if (v.size() > limit)
        out += " ...";
    return out + " (" + std::to_string(v.size()) + " bytes)";
}

std::string render(const Item& it, size_t limit = 2048)
{
    return it.label + " = " + (it.binary ? hexOf(it.value, limit) : it.value);
}

// A binary value from `from` on, for showing where two values part.
std::string hexFrom(const std::string& v, size_t from, size_t limit)
{
    if (from >= v.size())
        return "(ends at " + std::to_string(v.size()) + " bytes)";
    return "[" + std::to_string(from) + "..] " + hexOf(v.substr(from), limit);
}

// ------------------------------------------------------------------------------------------
// Figures, summed over the seeds (a child hands its figures to the parent through a pipe).

enum FaultKind {
    FaultNone,
    FaultNoReplyEmpty,    // the host's time-out: an empty buffer handed over
    FaultNoReplyNothing,  // the host's time-out: nothing handed over, the frame is asked for again
    FaultShort,           // the reply cut short
    FaultLong,            // bytes appended
    FaultGarbage,         // random bytes, of a random length or of exactly the expected length
    FaultCorrupt,         // the right length, some bytes changed
    FaultOversized,       // more than 1024 bytes
    FaultAdsError,        // an ADS error answer from the PLC (the request is not carried out)
    FaultAmsError,        // the AMS header's error code set
    FaultFull1024,        // a 1024-byte piece (the host's receive buffer full)
    FaultStale,           // the reply to an earlier frame (a late reply handed over by mistake)
    FaultKinds
};
const char* const kFaultNames[FaultKinds] = {"none", "noreply-empty", "noreply-nothing", "short", "long", "garbage",
    "corrupt", "oversized", "adserror", "amserror", "full1024", "stale"};

enum EntryPoint {
    EpGetProtocolType,
    EpGetVersion,
    EpSetCallback,
    EpInitProperty,
    EpGetDriverParameter,
    EpGetDriverPropertyPage,
    EpSetDriverPropertyPage,
    EpGetRegListByType,
    EpGetRegDiscription,
    EpCheckAddr,
    EpCheckAddrValidity,
    EpGetSendFrame,
    EpDealRcvFrame,
    EpGetData,
    EpSetData,
    EpAddrMerge,
    EpAddConditionRead,
    EpSetRcpAddress,
    EpMultiCopy,
    EntryPoints
};
const char* const kEntryNames[EntryPoints] = {"getProtocolType", "getVersion", "setAddrValueChangeCallBack",
    "initProperty", "getDriverParameter", "getDriverPropertyPage", "SetDriverPropertyPage", "getRegListByType",
    "getRegDiscription", "checkAddr", "checkAddrValidity", "getSendFrame", "dealRcvFrame", "getData", "setData",
    "addrMerge", "addConditionRead", "setRcpAddress", "multiCopy"};

struct Figures {
    uint64_t seeds = 0;
    uint64_t steps = 0;
    uint64_t framesCompared = 0;  // FRAME_PRO records handed out by both and compared
    uint64_t repliesHandled = 0;  // replies handed to both intf_dealRcvFrame
    uint64_t callbacks = 0;       // callback calls compared (per side)
    uint64_t items = 0;           // observation items compared
    uint64_t faults[FaultKinds] = {};
    uint64_t results[10] = {};  // intf_dealRcvFrame results 0..9
    uint64_t calls[EntryPoints] = {};
    uint64_t recipeTransfers = 0;  // recipe flags raised by the host
    uint64_t recipeFlagsCleared = 0;

    void add(const Figures& o)
    {
        seeds += o.seeds;
        steps += o.steps;
        framesCompared += o.framesCompared;
        repliesHandled += o.repliesHandled;
        callbacks += o.callbacks;
        items += o.items;
        for (int i = 0; i < FaultKinds; ++i)
            faults[i] += o.faults[i];
        for (int i = 0; i < 10; ++i)
            results[i] += o.results[i];
        for (int i = 0; i < EntryPoints; ++i)
            calls[i] += o.calls[i];
        recipeTransfers += o.recipeTransfers;
        recipeFlagsCleared += o.recipeFlagsCleared;
    }
    uint64_t faultCount() const
    {
        uint64_t n = 0;
        for (int i = 1; i < FaultKinds; ++i)
            n += faults[i];
        return n;
    }
};

// ------------------------------------------------------------------------------------------
// One side: a plugin with the host memory it was handed.

const int kStatusSize = 65536;  // covers the recipe flag bytes 60115 and 60116
const int kRecipeSize = 32768;  // recipe indexes below 8000 words, variables of at most 128 bytes
const int kFlagWindow = 64;     // status bytes compared after every action, around the flags

struct Side {
    const char* name;
    Plugin plugin;
    std::vector<unsigned char> status;
    std::vector<unsigned char> recipe;
    QMutex hostMutex;
    int mode = 0;
    Observation obs;
    int callbackDepth = 0;
    uint64_t callbackCount = 0;

    explicit Side(const char* n) : name(n), status(kStatusSize, 0), recipe(kRecipeSize, 0) { }
};

Side* gSide[2] = {nullptr, nullptr};
bool gTrace = false;
uint32_t gCallbackSalt = 0;  // per seed: picks which callbacks also write

const char* const kRegs[6] = {"I_bit", "Q_bit", "M_bit", "I_W", "Q_W", "M_W"};

// The host's callback: record the call, then read the item back as a screen does. Now and
// then (chosen by the number of the call, the same on both sides) it also writes the item
// it was told about, once per nesting level.
int onChange(int which, int context, int keyNo, QString text, int address)
{
    Side& s = *gSide[which];
    const uint64_t n = s.callbackCount++;
    s.obs.text("callback",
        std::to_string(context) + "," + std::to_string(keyNo) + "," + Observation::utf8(text) + ","
            + std::to_string(address));
    unsigned char out[8];
    std::memset(out, 0xEE, sizeof out);
    QString reg;
    int count = 0;
    if (text.endsWith(QLatin1String("_bit"))) {
        reg = text;
        count = 2;
    } else if (text.size() >= 3 && text.at(1) == QLatin1Char('_') && text != QLatin1String("RWI")) {
        reg = text.left(1) + QLatin1String("_W");
        count = 2;
    }
    if (count) {
        int r = s.plugin.getData(keyNo, reg, address, count, out);
        s.obs.num("callback getData", r);
        s.obs.bytes("callback getData out", out, sizeof out);
    } else if (text == QLatin1String("RWI") && address >= 0 && 2 * address + 1 < kRecipeSize) {
        s.obs.bytes("callback recipe word", &s.recipe[size_t(2 * address)], 2);
    }
    const uint32_t h = (uint32_t(n) * 2654435761u) ^ gCallbackSalt;
    if (count && s.callbackDepth == 0 && (h >> 7) % 29 == 0) {
        ++s.callbackDepth;
        unsigned char data[16];
        for (int i = 0; i < 16; ++i)
            data[i] = static_cast<unsigned char>((h >> (i % 24)) & (reg.endsWith(QLatin1String("_bit")) ? 1 : 0xFF));
        int r = s.plugin.setData(keyNo, reg, address, 1, data, 0);
        s.obs.num("callback setData", r);
        --s.callbackDepth;
    }
    return 0;
}

int onChangeA(int context, int keyNo, QString text, int address) { return onChange(0, context, keyNo, text, address); }
int onChangeB(int context, int keyNo, QString text, int address) { return onChange(1, context, keyNo, text, address); }
const VALUE_CHANGE_CALLBACK kCallbacks[2] = {onChangeA, onChangeB};

// ------------------------------------------------------------------------------------------
// The run of one seed

struct Difference { };

class Run {
public:
    Run(uint32_t seed, int steps, Side& a, Side& b, Figures& fig) : seed_(seed), steps_(steps), rng_(seed), fig_(fig)
    {
        side_[0] = &a;
        side_[1] = &b;
        gCallbackSalt = seed * 0x9E3779B9u;
    }

    // 0: no difference; 1: a difference (printed).
    int run();

private:
    // Random helpers.
    uint32_t next() { return rng_(); }
    int below(int n) { return n <= 0 ? 0 : int(next() % uint32_t(n)); }
    int range(int lo, int hi) { return lo + below(hi - lo + 1); }
    bool chance(int percent) { return below(100) < percent; }

    // Every action calls both sides through this, recording into each side's observation.
    template <typename F>
    void both(F f)
    {
        for (int i = 0; i < 2; ++i)
            f(*side_[i], i);
    }

    bool compare();
    void report(size_t index);
    void snapshotHostMemory(bool whole);

    // Actions
    void actInit(bool reconnect);
    void actPropertyPage();
    void actSetCallback();
    void actAddrMerge();
    void actRecipeVars();
    void actRecipeFlag();
    void actRecipeData();
    void actConditionRead();
    void actSetData(bool bits);
    void actGetData();
    void actCheckAddr();
    void actCheckAddrValidity();
    void actMultiCopy();
    void actInfo();
    void actPlcMemory();
    void actPoll(bool quiet = false);
    void actQuietRun(int turns);
    void actBurst(bool writes);

    // Material
    QString regName(int unknownPercent);
    QString addressText(const QString& reg);
    void randomKey(KEY_ADDRESS& k, bool forMerge);
    QByteArray spoil(const FRAME_PRO& f, const std::vector<uint8_t>& good, FaultKind& kind);
    void recordFrame(Side& s, int r, const FRAME_PRO& f);

    uint32_t seed_;
    int steps_;
    std::mt19937 rng_;
    Figures& fig_;
    Side* side_[2];
    plcsim::Plc plc_;
    std::string action_;
    int step_ = 0;
    int context_ = 1;  // the callback context of the last initialisation
    QByteArray lastReply_;
    bool restorePage_ = false;
    int restorePageAt_ = 0;
};

QString Run::regName(int unknownPercent)
{
    static const char* const kUnknown[] = {"X_W", "M_B", "", "m_w", "M_bitx", "M", "Q_D", "I_WW"};
    if (chance(unknownPercent))
        return QString::fromLatin1(kUnknown[below(8)]);
    return QString::fromLatin1(kRegs[below(6)]);
}

QString Run::addressText(const QString& reg)
{
    static const char* const kOdd[]
        = {"", "-1", "abc", "10.9", "65535.7", "65536.0", "0x10", " 5", "1.2.3", "65535", "65536", "7.", ".3", "99999"};
    if (chance(25))
        return QString::fromLatin1(kOdd[below(14)]);
    if (reg.endsWith(QLatin1String("_bit")))
        return QString::number(range(0, 70000)) + QLatin1Char('.') + QString::number(range(0, 9));
    return QString::number(range(-5, 70000));
}

// Addresses cluster in the first 600 bytes of each area so that items overlap, touch and
// merge; now and then one lies anywhere in the area or is long.
void Run::randomKey(KEY_ADDRESS& k, bool forMerge)
{
    k.hostText = QString::fromLatin1("host text");
    k.hostNumber = below(1000);
    k.rcpDataIndex = below(50);
    k.keyNo = chance(85) ? 1 : below(3);
    k.regName = regName(forMerge ? 4 : 2);
    k.hostText2 = QString();
    const bool bits = k.regName.endsWith(QLatin1String("_bit"));
    k.unitMark = bits ? -1 : 0;
    if (chance(10))
        k.unitMark = bits ? 0 : -1;
    std::memset(k.data, 0, sizeof k.data);
    if (bits) {
        const int large = chance(8);
        k.address = chance(90) ? below(600 * 8) : below(65536 * 8 - 1100);
        k.length = large ? range(100, 1000) : range(1, 40);
    } else {
        const int large = chance(8);
        k.address = chance(90) ? below(600) : below(65536 - 700);
        k.length = large ? range(64, 300) : range(1, 12);
    }
    if (chance(2))
        k.length = 0;
}

// ------------------------------------------------------------------------------------------
// Comparison

bool Run::compare()
{
    const std::vector<Item>& a = side_[0]->obs.items;
    const std::vector<Item>& b = side_[1]->obs.items;
    const size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; ++i) {
        if (a[i].label != b[i].label || a[i].value != b[i].value) {
            report(i);
            return false;
        }
    }
    if (a.size() != b.size()) {
        report(n);
        return false;
    }
    fig_.items += a.size();
    return true;
}

void Run::report(size_t index)
{
    const std::vector<Item>& a = side_[0]->obs.items;
    const std::vector<Item>& b = side_[1]->obs.items;
    std::printf("differential: DIFFERENCE at seed %u, step %d\n", seed_, step_);
    std::printf("  action: %s\n", action_.c_str());
    std::printf("  first difference at observation item %zu:\n", index);
    if (index < a.size() && index < b.size() && a[index].binary && a[index].label == b[index].label) {
        const std::string& x = a[index].value;
        const std::string& y = b[index].value;
        size_t k = 0;
        while (k < x.size() && k < y.size() && x[k] == y[k])
            ++k;
        std::printf("    %s: first differing byte at offset %zu\n", a[index].label.c_str(), k);
        const size_t from = k >= 8 ? k - 8 : 0;
        std::printf("      before: %s\n", hexFrom(x, from, 48).c_str());
        std::printf("      after:  %s\n", hexFrom(y, from, 48).c_str());
    }
    std::printf("    before (%s): %s\n", side_[0]->plugin.path.c_str(),
        index < a.size() ? render(a[index], 256).c_str() : "<no more items>");
    std::printf("    after  (%s): %s\n", side_[1]->plugin.path.c_str(),
        index < b.size() ? render(b[index], 256).c_str() : "<no more items>");
    const size_t shown = 60;
    for (int s = 0; s < 2; ++s) {
        const std::vector<Item>& v = s == 0 ? a : b;
        std::printf("  %s observation (%zu items%s):\n", s == 0 ? "before" : "after", v.size(),
            v.size() > shown ? ", the first 60" : "");
        for (size_t i = 0; i < v.size() && i < shown; ++i)
            std::printf("    %s%s\n", i == index ? "> " : "  ", render(v[i], 48).c_str());
    }
    std::printf("  replay: differential --before %s --after %s --first-seed %u --seeds 1 --steps %d\n",
        side_[0]->plugin.path.c_str(), side_[1]->plugin.path.c_str(), seed_, steps_);
    std::fflush(stdout);
}

void Run::snapshotHostMemory(bool whole)
{
    both([&](Side& s, int) {
        if (whole)
            s.obs.bytes("status block", s.status.data(), s.status.size());
        else
            s.obs.bytes("status block flags", &s.status[HOST_FLAG_RECIPE_WRITE - kFlagWindow / 2], kFlagWindow);
        s.obs.bytes("recipe buffer", s.recipe.data(), s.recipe.size());
    });
}

// ------------------------------------------------------------------------------------------
// Actions

void Run::actInit(bool reconnect)
{
    // The five fields: context, writes only update the cache, stored value, retry limit,
    // largest bridged gap. Now and then fewer fields (the numbers keep their values) or
    // fields that are not numbers.
    static const int kGaps[] = {0, 1, 2, 4, 8, 16, 16, 32, 64, 64, 100, 128, 200};
    std::string init;
    const int shape = below(20);
    if (shape == 0) {
        init = std::to_string(range(0, 3)) + "#" + std::to_string(below(2));
    } else if (shape == 1) {
        init = "x#1#y#z#w";
    } else if (shape == 2) {
        init = "";
    } else {
        context_ = chance(80) ? 1 : range(0, 3);
        const int writesOnly = chance(12) ? 1 : 0;
        const int retries = chance(5) ? 0 : range(1, 5);
        init = std::to_string(context_) + "#" + std::to_string(writesOnly) + "#" + std::to_string(range(0, 9)) + "#"
            + std::to_string(retries) + "#" + std::to_string(kGaps[below(13)]);
        if (chance(10))
            init += "#extra";
    }
    action_ = std::string(reconnect ? "reconnect: " : "") + "intf_initProperty(\"" + init + "\")";
    both([&](Side& s, int which) {
        std::fill(s.status.begin(), s.status.end(), 0);
        s.mode = -1;
        int r = s.plugin.initProperty(s.status.data(), nullptr, s.recipe.data(), &s.mode, init.c_str(), &s.hostMutex);
        s.obs.num("initProperty", r);
        s.obs.num("mode", s.mode);
        if (reconnect) {
            s.plugin.SetDriverPropertyPage(QString::fromLatin1("2_0,192.168.1.100.1.1,851"));
            s.plugin.setAddrValueChangeCallBack(kCallbacks[which]);
        }
    });
    fig_.calls[EpInitProperty]++;
    if (reconnect) {
        fig_.calls[EpSetDriverPropertyPage]++;
        fig_.calls[EpSetCallback]++;
    }
}

void Run::actPropertyPage()
{
    static const char* const kPages[] = {
        "2_0,192.168.1.100.1.1,851", "2_0,192.168.1.100.1.1,801", "2_0,192.168.1.100.1.1,851",
        "2_0,192.168.1.100.1.1,900",                   // a port the PLC does not run: AMS error answers
        "2_0,192.168.1.101.1.1,851",                   // another PLC: no answer
        "2_0,192.168.1.100.1,851",                     // five Net ID parts: the Net ID stays, the port is taken
        "2_0,AmsNetId_192.168.1.100.1.1,AdsPort_801",  // labels: numbers that are not numbers
        "2_0,192.168.1.100.1.1",                       // two parts: nothing changes
        "2_0,192.168.1.100.1.1,851,9",                 // four parts: nothing changes
        "", "garbage",
        "2_0,300.168.1.100.1.1,851",  // a part above 255: truncated to 8 bits
    };
    // Mostly the PLC's own page; another one stays for a few dozen actions at most.
    const int pick = restorePage_ ? below(3) : chance(60) ? below(3) : 3 + below(9);
    const char* page = kPages[pick];
    restorePage_ = pick >= 3;
    restorePageAt_ = step_ + range(5, 60);
    action_ = std::string("intf_SetDriverPropertyPage(\"") + page + "\")";
    both([&](Side& s, int) { s.plugin.SetDriverPropertyPage(QString::fromLatin1(page)); });
    fig_.calls[EpSetDriverPropertyPage]++;
}

void Run::actSetCallback()
{
    action_ = "intf_setAddrValueChangeCallBack";
    both([&](Side& s, int which) { s.plugin.setAddrValueChangeCallBack(kCallbacks[which]); });
    fig_.calls[EpSetCallback]++;
}

void Run::actAddrMerge()
{
    const int n = chance(5) ? 0 : range(1, chance(15) ? 60 : 20);
    QList<KEY_ADDRESS> keys;
    action_ = "intf_addrMerge(" + std::to_string(n) + " keys:";
    for (int i = 0; i < n; ++i) {
        KEY_ADDRESS k;
        randomKey(k, true);
        keys.append(k);
        if (i < 12)
            action_ += " " + std::to_string(k.keyNo) + "#" + Observation::utf8(k.regName) + ":"
                + std::to_string(k.address) + "/" + std::to_string(k.length);
    }
    action_ += n > 12 ? " ...)" : ")";
    both([&](Side& s, int) {
        QList<KEY_ADDRESS> copy = keys;
        int r = s.plugin.addrMerge(copy);
        s.obs.num("addrMerge", r);
        // The host's list is the host's: the driver must leave it as it was.
        std::string keysAfter;
        for (int i = 0; i < copy.size(); ++i) {
            const KEY_ADDRESS& k = copy.at(i);
            keysAfter += std::to_string(k.keyNo) + Observation::utf8(k.regName) + std::to_string(k.address) + "/"
                + std::to_string(k.length) + "/" + std::to_string(k.unitMark) + ";";
        }
        s.obs.text("addrMerge keys after", keysAfter);
    });
    fig_.calls[EpAddrMerge]++;
}

void Run::actRecipeVars()
{
    const int n = chance(5) ? 0 : range(1, 8);
    QVector<_RCP_VAR_PRO> vars;
    action_ = "intf_setRcpAddress(" + std::to_string(n) + " variables:";
    int index = below(200);
    for (int i = 0; i < n; ++i) {
        _RCP_VAR_PRO v;
        v.driverNo = chance(90) ? context_ : context_ + 1;
        v.keyNo = chance(90) ? 1 : below(3);
        v.regName = QString::fromLatin1(kRegs[chance(75) ? 3 + below(3) : below(3)]);
        if (v.regName.endsWith(QLatin1String("_bit"))) {
            v.address = below(400 * 8);
            v.length = range(1, 128);
        } else {
            v.address = below(400);
            v.length = range(1, chance(10) ? 64 : 12);
        }
        // Usually laid out one after the other in the host's buffer, as the host does.
        v.rcpDataIndex = chance(80) ? index : below(7800);
        index = v.rcpDataIndex + v.length;
        if (index > 7800)
            index = below(200);
        v.hostField = below(100);
        vars.append(v);
        action_ += " " + std::to_string(v.driverNo) + "/" + std::to_string(v.keyNo) + "#" + Observation::utf8(v.regName)
            + ":" + std::to_string(v.address) + "/" + std::to_string(v.length) + "@" + std::to_string(v.rcpDataIndex);
    }
    action_ += ")";
    both([&](Side& s, int) {
        QVector<_RCP_VAR_PRO> copy = vars;
        int r = s.plugin.setRcpAddress(&copy);
        s.obs.num("setRcpAddress", r);
        s.obs.num("setRcpAddress vector size after", copy.size());
    });
    fig_.calls[EpSetRcpAddress]++;
}

// The host asks for a recipe transfer through its status block, under its mutex, as the
// guide says: byte 60115 = 1 for a write, 60116 = 1 for a read. Now and then it raises both,
// another value, or lowers a flag itself.
void Run::actRecipeFlag()
{
    int which = below(2);
    unsigned char value = 1;
    const int shape = below(20);
    if (shape == 0)
        value = 2;
    else if (shape == 1)
        value = 0;
    const bool bothFlags = shape == 2;
    action_ = std::string("recipe ")
        + (bothFlags         ? "write and read"
                : which == 0 ? "write"
                             : "read")
        + " flag = " + std::to_string(value);
    both([&](Side& s, int) {
        s.hostMutex.lock();
        if (bothFlags) {
            s.status[HOST_FLAG_RECIPE_WRITE] = 1;
            s.status[HOST_FLAG_RECIPE_READ] = 1;
        } else {
            s.status[which == 0 ? HOST_FLAG_RECIPE_WRITE : HOST_FLAG_RECIPE_READ] = value;
        }
        s.hostMutex.unlock();
    });
    if (value == 1)
        fig_.recipeTransfers++;
}

void Run::actRecipeData()
{
    const int start = below(kRecipeSize - 512);
    const int n = range(1, 512);
    std::vector<unsigned char> bytes(static_cast<size_t>(n));
    for (auto& c : bytes)
        c = static_cast<unsigned char>(next());
    action_ = "host fills recipe buffer bytes " + std::to_string(start) + ".." + std::to_string(start + n - 1);
    both([&](Side& s, int) { std::memcpy(&s.recipe[size_t(start)], bytes.data(), bytes.size()); });
}

void Run::actConditionRead()
{
    KEY_ADDRESS k;
    randomKey(k, false);
    if (!k.regName.endsWith(QLatin1String("_bit")) && chance(30))
        k.length = range(1, 100);
    const int kind = below(10);
    action_ = "intf_addConditionRead(" + std::to_string(k.keyNo) + "#" + Observation::utf8(k.regName) + ":"
        + std::to_string(k.address) + "/" + std::to_string(k.length) + " unitMark " + std::to_string(k.unitMark)
        + ", kind " + std::to_string(kind) + ")";
    both([&](Side& s, int) {
        KEY_ADDRESS copy = k;
        int r = s.plugin.addConditionRead(&copy, kind);
        s.obs.num("addConditionRead", r);
        s.obs.num("addConditionRead key address after", copy.address);
        s.obs.num("addConditionRead key length after", copy.length);
    });
    fig_.calls[EpAddConditionRead]++;
}

void Run::actSetData(bool bits)
{
    QString reg;
    if (chance(3))
        reg = regName(100);
    else
        reg = QString::fromLatin1(kRegs[(bits ? 0 : 3) + below(3)]);
    const int keyNo = chance(90) ? 1 : below(3);
    int address;
    int count;
    if (bits) {
        address = chance(90) ? below(600 * 8) : below(65536 * 8 - 300);
        count = chance(5) ? range(50, 200) : range(1, 20);
    } else {
        address = chance(90) ? below(600) : below(65536 - 500);
        count = chance(5) ? range(40, 200) : range(1, 10);
    }
    const int mode = chance(80) ? 0 : below(4);
    const size_t bytes = size_t(bits ? count : 2 * count) + 16;
    std::vector<unsigned char> data(bytes);
    for (size_t i = 0; i < bytes; ++i) {
        if (bits) {
            const int r = below(20);
            data[i] = static_cast<unsigned char>(r < 9 ? 0 : r < 18 ? 1 : r == 18 ? 2 : 255);
        } else {
            data[i] = static_cast<unsigned char>(chance(30) ? below(3) : next());
        }
    }
    action_ = "intf_setData(" + std::to_string(keyNo) + ", " + Observation::utf8(reg) + ", " + std::to_string(address)
        + ", count " + std::to_string(count) + ", mode " + std::to_string(mode) + ", data "
        + hexOf(std::string(reinterpret_cast<const char*>(data.data()), bytes - 16 < 40 ? bytes - 16 : 40), 40) + ")";
    both([&](Side& s, int) {
        std::vector<unsigned char> copy(data);
        int r = s.plugin.setData(keyNo, reg, address, count, copy.data(), mode);
        s.obs.num("setData", r);
        s.obs.bytes("setData data after", copy.data(), copy.size());
    });
    fig_.calls[EpSetData]++;
}

void Run::actGetData()
{
    const QString reg = regName(4);
    const bool bits = reg.endsWith(QLatin1String("_bit"));
    const int keyNo = chance(90) ? 1 : below(3);
    int address = bits ? (chance(90) ? below(600 * 8) : below(65536 * 8 - 300))
                       : (chance(90) ? below(600) : below(65536 - 500));
    int count = chance(5) ? range(40, 200) : range(0, 20);
    const size_t size = size_t(2 * count + 32);
    action_ = "intf_getData(" + std::to_string(keyNo) + ", " + Observation::utf8(reg) + ", " + std::to_string(address)
        + ", count " + std::to_string(count) + ")";
    both([&](Side& s, int) {
        std::vector<unsigned char> out(size, 0xEE);
        int r = s.plugin.getData(keyNo, reg, address, count, out.data());
        s.obs.num("getData", r);
        s.obs.bytes("getData out", out.data(), out.size());
    });
    fig_.calls[EpGetData]++;
}

void Run::actCheckAddr()
{
    const QString reg = regName(15);
    const QString text = addressText(reg);
    static const int kTypes[] = {-1, 1, 3, 5, 6, 9, 0, 2, 4};
    const int dataType = kTypes[below(9)];
    const int count = chance(10) ? range(0, 70000) : range(0, 100);
    const int access = below(4);
    const int initial = chance(50) ? 0 : int(next() % 200000) - 1000;
    const bool nullAddress = chance(3);
    action_ = "intf_checkAddr(" + Observation::utf8(reg) + ", \"" + Observation::utf8(text) + "\", "
        + (nullAddress ? std::string("null") : "&" + std::to_string(initial)) + ", " + std::to_string(dataType) + ", "
        + std::to_string(count) + ", " + std::to_string(access) + ")";
    both([&](Side& s, int) {
        int address = initial;
        int r = s.plugin.checkAddr(reg, text, nullAddress ? nullptr : &address, dataType, count, access);
        s.obs.num("checkAddr", r);
        s.obs.num("checkAddr address", address);
    });
    fig_.calls[EpCheckAddr]++;
}

void Run::actCheckAddrValidity()
{
    const QString reg = regName(15);
    const QString text = addressText(reg);
    const int count = chance(10) ? range(0, 70000) : range(0, 100);
    const int isWord = below(3);
    const int initial = chance(50) ? 0 : int(next() % 200000) - 1000;
    action_ = "intf_checkAddrValidity(" + Observation::utf8(reg) + ", \"" + Observation::utf8(text) + "\", &"
        + std::to_string(initial) + ", " + std::to_string(count) + ", " + std::to_string(isWord) + ")";
    both([&](Side& s, int) {
        int address = initial;
        int r = s.plugin.checkAddrValidity(reg, text, &address, count, isWord);
        s.obs.num("checkAddrValidity", r);
        s.obs.num("checkAddrValidity address", address);
    });
    fig_.calls[EpCheckAddrValidity]++;
}

void Run::actMultiCopy()
{
    QString reg = regName(15);
    const bool bits = reg.endsWith(QLatin1String("_bit"));
    const int start = chance(80) ? (bits ? below(600 * 8) : below(600)) : int(next() % 1200000) - 100000;
    const int count = below(65);
    const int interval = chance(80) ? range(0, 20) : range(-300, 300);
    action_ = "intf_multiCopy(" + Observation::utf8(reg) + ", " + std::to_string(start) + ", " + std::to_string(count)
        + ", " + std::to_string(interval) + ")";
    both([&](Side& s, int) {
        QString r2 = reg;
        QVector<QString> texts;
        QVector<int> numbers;
        texts.append(QString::fromLatin1("kept"));
        numbers.append(-7);
        int r = s.plugin.multiCopy(&r2, start, count, interval, &texts, &numbers);
        s.obs.num("multiCopy", r);
        s.obs.str("multiCopy regName after", r2);
        std::string t;
        for (int i = 0; i < texts.size(); ++i)
            t += Observation::utf8(texts.at(i)) + "|";
        std::string n;
        for (int i = 0; i < numbers.size(); ++i)
            n += std::to_string(numbers.at(i)) + "|";
        s.obs.text("multiCopy texts", t);
        s.obs.text("multiCopy numbers", n);
    });
    fig_.calls[EpMultiCopy]++;
}

void Run::actInfo()
{
    const int which = below(6);
    const int type = range(-1, 3);
    const QString reg = regName(20);
    static const char* const kNames[] = {"intf_getProtocolType", "intf_getVersion", "intf_getDriverParameter",
        "intf_getDriverPropertyPage", "intf_getRegListByType", "intf_getRegDiscription"};
    action_ = kNames[which];
    if (which == 4)
        action_ += "(" + std::to_string(type) + ")";
    if (which == 5)
        action_ += "(" + Observation::utf8(reg) + ")";
    both([&](Side& s, int) {
        switch (which) {
        case 0: {
            int t = -12345;
            s.plugin.getProtocolType(&t);
            s.obs.num("getProtocolType", t);
            break;
        }
        case 1:
            s.obs.str("getVersion", s.plugin.getVersion());
            break;
        case 2: {
            QString p = QString::fromLatin1("before");
            s.plugin.getDriverParameter(p);
            s.obs.str("getDriverParameter", p);
            break;
        }
        case 3: {
            QString p = QString::fromLatin1("before");
            s.plugin.getDriverPropertyPage(p);
            s.obs.str("getDriverPropertyPage", p);
            break;
        }
        case 4:
        case 5: {
            QList<QString> list;
            list.append(QString::fromLatin1("kept"));
            int r = which == 4 ? s.plugin.getRegListByType(type, list) : s.plugin.getRegDiscription(reg, list);
            s.obs.num(which == 4 ? "getRegListByType" : "getRegDiscription", r);
            std::string t;
            for (int i = 0; i < list.size(); ++i)
                t += Observation::utf8(list.at(i)) + "|";
            s.obs.text("list", t);
            break;
        }
        }
    });
    static const EntryPoint kEp[] = {EpGetProtocolType, EpGetVersion, EpGetDriverParameter, EpGetDriverPropertyPage,
        EpGetRegListByType, EpGetRegDiscription};
    fig_.calls[kEp[which]]++;
}

// The PLC's memory changes behind the drivers' backs: a program step (counter, toggling bit,
// slow sine) or bytes poked where the screens look.
void Run::actPlcMemory()
{
    if (chance(40)) {
        action_ = "PLC program step";
        plc_.programStep();
        return;
    }
    static const uint32_t kGroups[] = {plcsim::GroupInputs, plcsim::GroupOutputs, plcsim::GroupMemory};
    const uint32_t group = kGroups[below(3)];
    const int at = below(620);
    const int n = range(1, 8);
    uint8_t* m = plc_.memory(group);
    for (int i = 0; i < n && at + i < int(plcsim::AreaSize); ++i)
        m[at + i] = chance(50) ? static_cast<uint8_t>(m[at + i] ^ (1u << below(8))) : static_cast<uint8_t>(next());
    action_ = "PLC memory poke group " + std::to_string(group) + " bytes " + std::to_string(at) + ".."
        + std::to_string(at + n - 1);
}

// Many distinct writes or condition reads at once, past the 513 entries that the queues
// hold, so that the newest entries replace the last one.
void Run::actBurst(bool writes)
{
    const int n = range(400, 700);
    const int base = below(2000);
    const int keyNo = chance(90) ? 1 : below(3);
    action_ = std::string(writes ? "write burst: " : "condition read burst: ") + std::to_string(n) + " items from M_W "
        + std::to_string(base);
    both([&](Side& s, int) {
        long long sum = 0;
        for (int i = 0; i < n; ++i) {
            const int address = base + 2 * i;
            if (writes) {
                unsigned char data[2] = {static_cast<unsigned char>(i), static_cast<unsigned char>(i >> 8)};
                sum += s.plugin.setData(keyNo, QString::fromLatin1("M_W"), address, 1, data, 0);
            } else {
                KEY_ADDRESS k;
                k.hostNumber = i;
                k.rcpDataIndex = 0;
                k.keyNo = keyNo;
                k.regName = QString::fromLatin1(i % 5 == 4 ? "Q_W" : "M_W");
                k.address = address;
                k.unitMark = 0;
                k.length = 1 + i % 3;
                std::memset(k.data, 0, sizeof k.data);
                sum += s.plugin.addConditionRead(&k, i % 7);
            }
        }
        s.obs.num(writes ? "burst setData results" : "burst addConditionRead results", sum);
    });
    fig_.calls[writes ? EpSetData : EpAddConditionRead] += uint64_t(n);
    // Half the time the host then polls for a while without a fault, long enough to work
    // through a full queue.
    if (chance(50)) {
        if (!compare())
            throw Difference();
        actQuietRun(range(550, 800));
    }
}

// Polling turns in a row without faults, each compared on its own.
void Run::actQuietRun(int turns)
{
    for (int t = 1; t <= turns; ++t) {
        side_[0]->obs.clear();
        side_[1]->obs.clear();
        actPoll(true);
        action_ = "quiet polling, turn " + std::to_string(t) + " of " + std::to_string(turns) + ": " + action_;
        if (!compare())
            throw Difference();
    }
    side_[0]->obs.clear();
    side_[1]->obs.clear();
    action_ = "quiet polling, " + std::to_string(turns) + " turns";
}

void Run::recordFrame(Side& s, int r, const FRAME_PRO& f)
{
    s.obs.num("getSendFrame", r);
    s.obs.num("sendLen", f.sendLen);
    int n = f.sendLen;
    if (n < 0)
        n = 0;
    if (n > 1024)
        n = 1024;
    s.obs.bytes("frame[0..sendLen)", f.frame, size_t(n));
    s.obs.bytes("frame[sendLen..1024)", f.frame + n, size_t(1024 - n));
    s.obs.num("recvLen", f.recvLen);
    s.obs.num("dataStart", f.dataStart);
    s.obs.num("readLen", f.readLen);
    s.obs.num("spareField", f.spareField);
    s.obs.num("var.kind", f.var.kind);
    s.obs.num("var.keyNo", f.var.keyNo);
    s.obs.str("var.regName", f.var.regName);
    s.obs.num("var.address", f.var.address);
    s.obs.num("var.length", f.var.length);
    s.obs.bytes("var.data", f.var.data, sizeof f.var.data);
}

// What the host hands over instead of the PLC's good reply.
QByteArray Run::spoil(const FRAME_PRO& f, const std::vector<uint8_t>& good, FaultKind& kind)
{
    QByteArray r(reinterpret_cast<const char*>(good.data()), int(good.size()));
    switch (kind) {
    case FaultNone:
    case FaultNoReplyNothing:
    case FaultAdsError:
        break;
    case FaultNoReplyEmpty:
        r.clear();
        break;
    case FaultShort:
        if (r.isEmpty())
            break;
        r.truncate(chance(60) ? r.size() - 1 : below(r.size()));
        break;
    case FaultLong: {
        const int n = chance(60) ? 1 : range(2, 64);
        for (int i = 0; i < n; ++i)
            r.append(static_cast<char>(next()));
        break;
    }
    case FaultGarbage: {
        int n = chance(50) && f.recvLen >= 0 && f.recvLen <= 1024 ? f.recvLen : below(300);
        r.resize(n);
        for (int i = 0; i < n; ++i)
            r[i] = static_cast<char>(next());
        break;
    }
    case FaultCorrupt: {
        if (r.isEmpty())
            break;
        const int n = range(1, 6);
        for (int i = 0; i < n; ++i) {
            // Mostly in the data part, where it changes values; now and then in the headers.
            const int at = r.size() > 46 && chance(80) ? range(46, r.size() - 1) : below(r.size());
            r[at] = static_cast<char>(r[at] ^ static_cast<char>(1 + below(255)));
        }
        break;
    }
    case FaultOversized: {
        const int n = range(1025, 1600);
        const int old = r.size();
        r.resize(n);
        for (int i = old; i < n; ++i)
            r[i] = chance(50) ? '\0' : static_cast<char>(next());
        break;
    }
    case FaultAmsError: {
        if (r.size() < 34)
            break;
        static const uint32_t kCodes[] = {0x6, 0x7, 0x700, 0x701, 0x705, 0x1, 0x745};
        const uint32_t code = kCodes[below(7)];
        for (int i = 0; i < 4; ++i)
            r[30 + i] = static_cast<char>((code >> (8 * i)) & 0xFF);
        break;
    }
    case FaultFull1024:
        if (r.size() > 1024)
            r.truncate(1024);
        else
            r.append(QByteArray(1024 - r.size(), '\0'));
        break;
    case FaultStale:
        r = lastReply_;
        break;
    case FaultKinds:
        break;
    }
    return r;
}

void Run::actPoll(bool quiet)
{
    action_ = "polling turn";
    FRAME_PRO frames[2];
    int results[2] = {0, 0};
    both([&](Side& s, int which) {
        FRAME_PRO& f = frames[which];
        // The same stale contents in both records before the call.
        std::memset(f.frame, 0xCD, sizeof f.frame);
        f.sendLen = f.recvLen = f.dataStart = f.readLen = f.spareField = -7777;
        f.var.kind = f.var.keyNo = f.var.address = f.var.length = -7777;
        f.var.regName = QString::fromLatin1("stale");
        std::memset(f.var.data, 0xCD, sizeof f.var.data);
        results[which] = s.plugin.getSendFrame(&f);
        recordFrame(s, results[which], f);
    });
    fig_.calls[EpGetSendFrame]++;
    fig_.framesCompared++;
    // A frame must be the same on both sides before the PLC sees it.
    if (!compare())
        throw Difference();
    side_[0]->obs.clear();
    side_[1]->obs.clear();
    if (results[0] != 1)
        return;

    const FRAME_PRO& f = frames[0];
    const int sendLen = f.sendLen < 0 ? 0 : f.sendLen > 1024 ? 1024 : f.sendLen;

    // The fault, if any.
    FaultKind kind = FaultNone;
    if (!quiet && chance(18)) {
        static const FaultKind kKinds[]
            = {FaultNoReplyEmpty, FaultNoReplyEmpty, FaultNoReplyNothing, FaultNoReplyNothing, FaultShort, FaultShort,
                FaultLong, FaultGarbage, FaultCorrupt, FaultCorrupt, FaultOversized, FaultAdsError, FaultAdsError,
                FaultAmsError, FaultAmsError, FaultFull1024, FaultFull1024, FaultStale};
        kind = kKinds[below(int(sizeof kKinds / sizeof kKinds[0]))];
        if (kind == FaultStale && lastReply_.isNull())
            kind = FaultNoReplyEmpty;
    }
    // The handshake's 1024-byte piece: the rest follows as a second piece.
    if (!quiet && f.frame[22] == 6 && chance(10))
        kind = FaultFull1024;
    fig_.faults[kind]++;

    if (kind == FaultAdsError) {
        static const uint32_t kCodes[] = {0x700, 0x701, 0x702, 0x703, 0x705, 0x706, 0x70B, 0x714};
        plc_.setFaultErrorCode(kCodes[below(8)]);
        plc_.injectFault(plcsim::Fault::AdsError, 1);
    }
    // A request without a reply may or may not have reached the PLC.
    std::vector<uint8_t> good;
    if (!((kind == FaultNoReplyEmpty || kind == FaultNoReplyNothing) && chance(30)))
        good = plc_.handle(f.frame, size_t(sendLen));
    plc_.clearFaults();

    QByteArray reply = spoil(f, good, kind);
    action_ = "polling turn: frame of " + std::to_string(f.sendLen) + " bytes (ADS command "
        + std::to_string(f.frame[22]) + "), PLC answered " + std::to_string(good.size()) + " bytes, fault "
        + kFaultNames[kind] + ", "
        + (kind == FaultNoReplyNothing ? std::string("nothing handed over")
                                       : "reply of " + std::to_string(reply.size()) + " bytes handed over");
    if (!good.empty())
        lastReply_ = QByteArray(reinterpret_cast<const char*>(good.data()), int(good.size()));
    if (kind == FaultNoReplyNothing)
        return;

    both([&](Side& s, int which) {
        QByteArray copy(reply.constData(), reply.size());  // a buffer of its own for each driver
        QString errorText = QString::fromLatin1("previous text");
        int r = s.plugin.dealRcvFrame(copy, errorText);
        s.obs.num("dealRcvFrame", r);
        s.obs.str("errorText", errorText);
        s.obs.bytes("reply after the call", copy.constData(), size_t(copy.size()));
        results[which] = r;
    });
    fig_.calls[EpDealRcvFrame]++;
    fig_.repliesHandled++;
    if (results[0] >= 0 && results[0] < 10)
        fig_.results[results[0]]++;
}

// ------------------------------------------------------------------------------------------

int Run::run()
{
    // The PLC's memory: random bytes where the screens look, zeros elsewhere.
    static const uint32_t kGroups[] = {plcsim::GroupInputs, plcsim::GroupOutputs, plcsim::GroupMemory};
    for (uint32_t g : kGroups) {
        uint8_t* m = plc_.memory(g);
        for (int i = 0; i < 2048; ++i)
            m[i] = static_cast<uint8_t>(next());
    }

    try {
        // The host's start: initialisation, property page, callback (the order of the guide).
        action_ = "start: intf_initProperty(\"1#0#0#3#16\"), intf_SetDriverPropertyPage, callback";
        both([&](Side& s, int which) {
            s.mode = -1;
            int r
                = s.plugin.initProperty(s.status.data(), nullptr, s.recipe.data(), &s.mode, "1#0#0#3#16", &s.hostMutex);
            s.obs.num("initProperty", r);
            s.obs.num("mode", s.mode);
            s.plugin.SetDriverPropertyPage(QString::fromLatin1("2_0,192.168.1.100.1.1,851"));
            s.plugin.setAddrValueChangeCallBack(kCallbacks[which]);
            s.obs.str("getVersion", s.plugin.getVersion());
        });
        fig_.calls[EpInitProperty]++;
        fig_.calls[EpSetDriverPropertyPage]++;
        fig_.calls[EpSetCallback]++;
        fig_.calls[EpGetVersion]++;
        if (!compare())
            throw Difference();
        side_[0]->obs.clear();
        side_[1]->obs.clear();
        actAddrMerge();
        if (!compare())
            throw Difference();

        for (step_ = 1; step_ <= steps_; ++step_) {
            side_[0]->obs.clear();
            side_[1]->obs.clear();
            const unsigned char flagsBefore[2]
                = {side_[0]->status[HOST_FLAG_RECIPE_WRITE], side_[0]->status[HOST_FLAG_RECIPE_READ]};
            const int pick = below(1000);
            if (restorePage_ && step_ >= restorePageAt_)
                actPropertyPage();
            else if (pick < 560)
                actPoll();
            else if (pick < 630)
                actSetData(false);
            else if (pick < 680)
                actSetData(true);
            else if (pick < 740)
                actGetData();
            else if (pick < 770)
                actConditionRead();
            else if (pick < 785)
                actAddrMerge();
            else if (pick < 805)
                actRecipeFlag();
            else if (pick < 811)
                actRecipeVars();
            else if (pick < 816)
                actRecipeData();
            else if (pick < 856)
                actPlcMemory();
            else if (pick < 881)
                actCheckAddr();
            else if (pick < 901)
                actCheckAddrValidity();
            else if (pick < 911)
                actMultiCopy();
            else if (pick < 931)
                actInfo();
            else if (pick < 934)
                actInit(false);
            else if (pick < 937)
                actInit(true);
            else if (pick < 941)
                actPropertyPage();
            else if (pick < 943)
                actSetCallback();
            else if (pick < 946)
                actBurst(true);
            else if (pick < 948)
                actBurst(false);
            else
                actPoll();
            if (gTrace) {
                std::fprintf(stderr, "step %d: %s\n", step_, action_.c_str());
                for (const Item& it : side_[0]->obs.items)
                    if (!it.binary)
                        std::fprintf(stderr, "    %s\n", render(it).c_str());
            }
            snapshotHostMemory(step_ % 64 == 0);
            if (!compare())
                throw Difference();
            if ((flagsBefore[0] && !side_[0]->status[HOST_FLAG_RECIPE_WRITE])
                || (flagsBefore[1] && !side_[0]->status[HOST_FLAG_RECIPE_READ]))
                fig_.recipeFlagsCleared++;
            fig_.steps++;
        }
    } catch (const Difference&) {
        return 1;
    }
    fig_.callbacks += side_[0]->callbackCount;
    fig_.seeds++;
    return 0;
}

// ------------------------------------------------------------------------------------------
// Options and the parent

struct Options {
    std::string before;
    std::string after;
    long long seeds = 20;
    long long steps = 2000;
    long long firstSeed = 1;
    long long seedTimeout = 120;
    bool quiet = false;
    bool trace = false;
};

int usage(const char* why)
{
    std::fprintf(stderr,
        "differential: %s\n"
        "usage: differential --before PLUGIN.so --after PLUGIN.so [--seeds N] [--steps M]\n"
        "                    [--first-seed S] [--seed-timeout SECONDS] [--quiet] [--trace]\n"
        "Drives both plugins with the same seeded host actions and PLC replies (seeds S .. S+N-1,\n"
        "M actions each, every seed in a child process of its own) and compares everything the\n"
        "host and the PLC can observe. Exit 0: no difference; 1: a difference, a crash or a seed\n"
        "over its time; 2: usage or a plugin that cannot be loaded. --trace: every action and\n"
        "what driver A showed, on stderr (for one seed).\n",
        why);
    return 2;
}

bool parse(int argc, char** argv, Options& o, int& rc)
{
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        auto number = [&](long long lo, long long hi, long long& out) {
            if (!v)
                return false;
            char* end = nullptr;
            errno = 0;
            out = std::strtoll(v, &end, 10);
            ++i;
            return *v && !*end && errno == 0 && out >= lo && out <= hi;
        };
        if (a == "--before" && v) {
            o.before = v;
            ++i;
        } else if (a == "--after" && v) {
            o.after = v;
            ++i;
        } else if (a == "--seeds") {
            if (!number(1, 1000000, o.seeds))
                return rc = usage("--seeds needs a number from 1 to 1000000"), false;
        } else if (a == "--steps") {
            if (!number(1, 100000000, o.steps))
                return rc = usage("--steps needs a number from 1 to 100000000"), false;
        } else if (a == "--first-seed") {
            if (!number(0, 4000000000LL, o.firstSeed))
                return rc = usage("--first-seed needs a number from 0 to 4000000000"), false;
        } else if (a == "--seed-timeout") {
            if (!number(1, 86400, o.seedTimeout))
                return rc = usage("--seed-timeout needs a number of seconds"), false;
        } else if (a == "--quiet") {
            o.quiet = true;
        } else if (a == "--trace") {
            o.trace = true;
        } else if (a == "--help" || a == "-h") {
            usage("help");
            rc = 0;
            return false;
        } else {
            return rc = usage(("unknown or incomplete argument: " + a).c_str()), false;
        }
    }
    if (o.before.empty() || o.after.empty())
        return rc = usage("--before and --after are both needed"), false;
    return true;
}

// The child: one seed. Exit 0 with the figures written to fd, 1 on a difference, 2 when a
// plugin does not load.
int runSeed(const Options& o, uint32_t seed, int fd)
{
    alarm(unsigned(o.seedTimeout));
    std::unique_ptr<Side> a(new Side("before"));
    std::unique_ptr<Side> b(new Side("after"));
    std::string why;
    if (!a->plugin.load(o.before, why) || !b->plugin.load(o.after, why)) {
        std::fprintf(stderr, "differential: %s\n", why.c_str());
        return 2;
    }
    if (a->plugin.handle == b->plugin.handle) {
        std::fprintf(stderr, "differential: --before and --after are the same loaded library (%s); give two files\n",
            o.after.c_str());
        return 2;
    }
    gTrace = o.trace;
    gSide[0] = a.get();
    gSide[1] = b.get();
    Figures fig;
    Run run(seed, int(o.steps), *a, *b, fig);
    const int rc = run.run();
    std::fflush(stdout);
    if (rc != 0)
        return 1;
    // Unloading runs each driver's destruction: a crash there fails the seed too.
    dlclose(b->plugin.handle);
    dlclose(a->plugin.handle);
    const char* p = reinterpret_cast<const char*>(&fig);
    size_t left = sizeof fig;
    while (left > 0) {
        ssize_t w = write(fd, p, left);
        if (w <= 0)
            return 3;
        p += w;
        left -= size_t(w);
    }
    return 0;
}

bool sameFile(const std::string& a, const std::string& b)
{
    struct stat sa;
    struct stat sb;
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

bool copyFile(const std::string& from, const std::string& to)
{
    std::FILE* in = std::fopen(from.c_str(), "rb");
    if (!in)
        return false;
    std::FILE* out = std::fopen(to.c_str(), "wb");
    if (!out) {
        std::fclose(in);
        return false;
    }
    char buf[65536];
    size_t n;
    bool ok = true;
    while ((n = std::fread(buf, 1, sizeof buf, in)) > 0)
        ok = ok && std::fwrite(buf, 1, n, out) == n;
    std::fclose(in);
    return std::fclose(out) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv)
{
    Options o;
    int rc = 0;
    if (!parse(argc, argv, o, rc))
        return rc;

    // The same file twice (the build checked against itself, which tests the check's own
    // determinism): dlopen would hand out one library twice, with one driver object, so
    // the second side loads a private copy.
    std::string copyDir;
    if (sameFile(o.before, o.after)) {
        char templ[] = "/tmp/ads-differential-XXXXXX";
        const char* tmp = std::getenv("TMPDIR");
        std::string t = std::string(tmp && *tmp ? tmp : "/tmp") + "/ads-differential-XXXXXX";
        std::vector<char> buf(t.begin(), t.end());
        buf.push_back('\0');
        const char* dir = mkdtemp(buf.data());
        if (!dir)
            dir = mkdtemp(templ);
        if (!dir) {
            std::perror("differential: mkdtemp");
            return 2;
        }
        copyDir = dir;
        const std::string copy = copyDir + "/libads_ethernet.so";
        if (!copyFile(o.after, copy)) {
            std::fprintf(stderr, "differential: cannot copy %s to %s\n", o.after.c_str(), copy.c_str());
            return 2;
        }
        std::printf("differential: --before and --after are the same file; the after side loads a copy\n");
        o.after = copy;
    }
    struct Cleanup {
        std::string dir;
        ~Cleanup()
        {
            if (!dir.empty()) {
                std::remove((dir + "/libads_ethernet.so").c_str());
                rmdir(dir.c_str());
            }
        }
    } cleanup {copyDir};

    Figures total;
    long long passed = 0;
    long long failed = 0;
    for (long long i = 0; i < o.seeds; ++i) {
        const uint32_t seed = uint32_t(o.firstSeed + i);
        int fds[2];
        if (pipe(fds) != 0) {
            std::perror("differential: pipe");
            return 2;
        }
        std::fflush(stdout);
        std::fflush(stderr);
        const pid_t pid = fork();
        if (pid < 0) {
            std::perror("differential: fork");
            return 2;
        }
        if (pid == 0) {
            close(fds[0]);
            const int r = runSeed(o, seed, fds[1]);
            close(fds[1]);
            std::fflush(stdout);
            std::fflush(stderr);
            _exit(r);
        }
        close(fds[1]);
        Figures fig;
        size_t got = 0;
        char* p = reinterpret_cast<char*>(&fig);
        while (got < sizeof fig) {
            ssize_t r = read(fds[0], p + got, sizeof fig - got);
            if (r < 0 && errno == EINTR)
                continue;
            if (r <= 0)
                break;
            got += size_t(r);
        }
        close(fds[0]);
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) { }
        const bool ok = WIFEXITED(status) && WEXITSTATUS(status) == 0 && got == sizeof fig;
        if (ok) {
            ++passed;
            total.add(fig);
            continue;
        }
        ++failed;
        if (WIFEXITED(status) && WEXITSTATUS(status) == 2)
            return 2;
        if (WIFSIGNALED(status)) {
            const int sig = WTERMSIG(status);
            std::printf("differential: seed %u: the child %s (signal %d)%s\n", seed,
                sig == SIGALRM ? "ran out of time" : "crashed", sig,
                sig == SIGALRM ? ""
                               : ": one of the drivers (or the harness) died; replay with --first-seed and "
                                 "--seeds 1 under a debugger");
        } else if (!(WIFEXITED(status) && WEXITSTATUS(status) == 1)) {
            std::printf("differential: seed %u: the child ended with status %d\n", seed, status);
        }
        break;
    }

    std::printf("differential: figures: %llu seeds, %llu steps, %llu frames compared, %llu replies handed to both, "
                "%llu callbacks compared, %llu observation items compared\n",
        (unsigned long long)total.seeds, (unsigned long long)total.steps, (unsigned long long)total.framesCompared,
        (unsigned long long)total.repliesHandled, (unsigned long long)total.callbacks, (unsigned long long)total.items);
    std::printf("differential: faults injected: %llu (", (unsigned long long)total.faultCount());
    for (int k = 1; k < FaultKinds; ++k)
        std::printf("%s%s %llu", k > 1 ? ", " : "", kFaultNames[k], (unsigned long long)total.faults[k]);
    std::printf(")\n");
    std::printf("differential: intf_dealRcvFrame results: 0: %llu, 1: %llu, 2: %llu, 3: %llu, 8: %llu; recipe "
                "transfers asked %llu, flags cleared by the driver %llu\n",
        (unsigned long long)total.results[0], (unsigned long long)total.results[1],
        (unsigned long long)total.results[2], (unsigned long long)total.results[3],
        (unsigned long long)total.results[8], (unsigned long long)total.recipeTransfers,
        (unsigned long long)total.recipeFlagsCleared);
    if (!o.quiet) {
        std::printf("differential: calls per entry point:");
        for (int e = 0; e < EntryPoints; ++e)
            std::printf(
                " %s %llu%s", kEntryNames[e], (unsigned long long)total.calls[e], e + 1 < EntryPoints ? "," : "");
        std::printf("\n");
    }
    int unused = 0;
    for (int e = 0; e < EntryPoints; ++e)
        if (total.calls[e] == 0 && passed > 0) {
            std::printf("differential: entry point intf_%s was never called\n", kEntryNames[e]);
            ++unused;
        }
    std::printf("differential: %lld seeds x %lld steps: %lld passed, %lld failed\n", o.seeds, o.steps, passed, failed);
    if (failed)
        return 1;
    // A long enough run calls every entry point; a shorter one may not, and says so.
    if (unused && o.seeds * o.steps >= 20000)
        return 1;
    return 0;
}
