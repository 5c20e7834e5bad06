// Two host threads in the driver at once, as the panel runtime does it: the communication
// thread polls (intf_getSendFrame, the PLC's answer, intf_dealRcvFrame) while a screen thread
// writes words and bits with intf_setData, reads them back with intf_getData and queues
// one-shot condition reads with intf_addConditionRead. The value-change callback runs on
// both threads and calls back into the driver: it reads the reported item and, on the
// communication thread, now and then writes a value of its own or, at the end of a
// condition read, queues the next one.
//
// Built and run under ThreadSanitizer (-DADS_TSAN=ON); any report fails the test. Every loop
// is bounded by a count and by a deadline.
#include "ads_ethernet.h"

#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <thread>
#include <vector>

#include "../support/init_options.h"

#if defined(ADS_HAVE_TEST_PLC)
#include "test_plc.h"
#endif

namespace {

using Clock = std::chrono::steady_clock;

const int kCycles = 20000;      // polling turns of the communication thread at most
const int kHostWrites = 20000;  // word and bit writes of the screen thread at most
const auto kDeadline = std::chrono::seconds(90);

const int kWordArea = 0;                // "M_W" 0..15 monitored: words written at 0, 2, 4, 6
const int kBitBase = 128;               // "M_bit" 128..143 (bytes 16, 17) monitored and written
const int kCallbackWordAddress = 40;    // written from inside the callback (communication thread)
const int kScreenCallbackAddress = 44;  // written from inside the callback (screen thread)
// "M_W" 200..207 and 300..303: on no screen, so only the condition reads bring them into the
// cache; the PLC holds a pattern there from the start. The second key is longer than the
// 64-unit limit of the default init options, so it is queued as two pieces; the first covers its
// first 128 bytes.
const int kConditionAddress = 200;
const int kConditionWords = 4;
const int kLongConditionAddress = 300;
const int kLongConditionWords = 66;
const int kMaxCallbackConditionReads = 500;  // queued from inside the callback at most
unsigned char conditionPattern(int byteAddress) { return static_cast<unsigned char>(0xA5 ^ byteAddress); }

// The register names the host hands in live as long as the test, as a panel runtime's
// names from its configuration do. ADS_TSAN_HOST_TEMPORARIES=1 makes the host pass a new
// string on every call instead: the driver queues its own copy of the register table's
// name, so no string of the host's is freed on the other thread (see the note at the end).
const QString kMW = QString::fromLatin1("M_W");
const QString kMbit = QString::fromLatin1("M_bit");
bool gTemporaries = false;
QString mw() { return gTemporaries ? QString::fromLatin1("M_W") : kMW; }
QString mbit() { return gTemporaries ? QString::fromLatin1("M_bit") : kMbit; }

enum Role { kOther = 0, kComm = 1, kScreen = 2 };
thread_local int tRole = kOther;
thread_local int tDepth = 0;

std::atomic<long> gCallbacks {0};
std::atomic<long> gCallbackReads {0};
std::atomic<long> gBadReadBack {0};
std::atomic<long> gConditionEnds {0};        // end reports of condition reads ("-1")
std::atomic<long> gFailedConditionEnds {0};  // of them, those that said the read failed
// Written only by the thread named in their name, read after both have joined.
int gCommCallbackWrites = 0;
int gCommCallbackLast = -1;
int gScreenCallbackWrites = 0;
int gScreenCallbackLast = -1;
int gCommCallbackConditionReads = 0;

void putWord(unsigned char* b, int v)
{
    b[0] = static_cast<unsigned char>(v & 0xFF);
    b[1] = static_cast<unsigned char>((v >> 8) & 0xFF);
}
int getWord(const unsigned char* b) { return b[0] | (b[1] << 8); }

// The word the screen thread writes the i-th time at word slot w (0..3): both bytes carry
// the slot in their two low bits, so a byte that shows up in the wrong place is seen even
// when a read meets a word half updated (units are cached one byte at a time).
int slotWord(int i, int w)
{
    int low = w | ((i & 63) << 2);
    int high = w | (((i >> 6) & 63) << 2);
    return low | (high << 8);
}

KEY_ADDRESS makeKey(const QString& reg, int address, int length, int unitMark)
{
    KEY_ADDRESS k;
    k.hostNumber = 0;
    k.rcpDataIndex = 0;
    k.keyNo = 0;
    k.regName = reg;
    k.address = address;
    k.unitMark = unitMark;
    k.length = length;
    std::memset(k.data, 0, sizeof(k.data));
    return k;
}

void queueConditionRead(int address, int words)
{
    KEY_ADDRESS key = makeKey(mw(), address, words, 0);
    intf_addConditionRead(&key, 1);
}

int callback(int context, int keyNo, QString text, int address)
{
    (void)context;
    gCallbacks.fetch_add(1, std::memory_order_relaxed);
    if (text == QLatin1String("-1")) {
        gConditionEnds.fetch_add(1, std::memory_order_relaxed);
        if (address != 0)
            gFailedConditionEnds.fetch_add(1, std::memory_order_relaxed);
        // The driver lets its lock go for this report: the next condition read may be
        // queued from inside it, while the screen thread queues its own.
        if (tRole == kComm && gCommCallbackConditionReads < kMaxCallbackConditionReads
            && (gConditionEnds.load(std::memory_order_relaxed) % 3) == 0) {
            ++gCommCallbackConditionReads;
            queueConditionRead(kConditionAddress, kConditionWords);
        }
        return 0;
    }
    if (text == QLatin1String("RWI"))
        return 0;
    unsigned char out[8] = {0};
    // The host reads the item back at once, on whichever thread reported it.
    if (text.endsWith(QLatin1String("_bit")))
        intf_getData(keyNo, text, address, 1, out);
    else
        intf_getData(keyNo, mw(), address, 1, out);
    gCallbackReads.fetch_add(1, std::memory_order_relaxed);
    // Now and then a write from inside the callback: the driver holds no lock here, so
    // this must neither deadlock nor disturb the turn in progress. Not from a callback that
    // such a write caused itself.
    if (tDepth == 0 && (gCallbacks.load(std::memory_order_relaxed) % 7) == 0) {
        ++tDepth;
        unsigned char v[2];
        if (tRole == kComm) {
            putWord(v, ++gCommCallbackWrites);
            gCommCallbackLast = gCommCallbackWrites;
            intf_setData(0, mw(), kCallbackWordAddress, 1, v, 0);
        } else if (tRole == kScreen) {
            putWord(v, ++gScreenCallbackWrites);
            gScreenCallbackLast = gScreenCallbackWrites;
            intf_setData(0, mw(), kScreenCallbackAddress, 1, v, 0);
        }
        --tDepth;
    }
    return 0;
}

#if defined(ADS_HAVE_TEST_PLC)
using Plc = adstest::TestPlc;
uint8_t* plcMemory(Plc& plc) { return plc.memory(adstest::kMemory); }
QByteArray answer(Plc& plc, const FRAME_PRO& f)
{
    if (plc.requests().size() > 1000)
        plc.clearLog();
    return plc.reply(f);
}
#else
// Without the shared test PLC: a PLC memory of 64 KiB for index group 0x4020 and answers
// built straight from the request.
struct Plc {
    std::vector<uint8_t> memory = std::vector<uint8_t>(65536, 0);
};
uint8_t* plcMemory(Plc& plc) { return plc.memory.data(); }
QByteArray answer(Plc& plc, const FRAME_PRO& f)
{
    const unsigned char* q = f.frame;
    int command = q[22];
    unsigned offset = q[42] | (q[43] << 8) | (q[44] << 16) | (unsigned(q[45]) << 24);
    unsigned length = q[46] | (q[47] << 8) | (q[48] << 16) | (unsigned(q[49]) << 24);
    if (command == 6)
        return QByteArray(46, '\0');  // handshake: result and handle
    if (command == 3) {
        if (offset + length <= plc.memory.size())
            std::memcpy(&plc.memory[offset], q + 50, length);
        return QByteArray(42, '\0');  // write: the result alone
    }
    QByteArray r(46, '\0');  // read: result, length, data
    r.append(reinterpret_cast<const char*>(&plc.memory[offset]), static_cast<int>(length));
    return r;
}
#endif

class Concurrency : public ::testing::Test {
protected:
    void SetUp() override
    {
        gTemporaries = std::getenv("ADS_TSAN_HOST_TEMPORARIES") != nullptr;
        status_.assign(65536, 0);
        recipe_.assign(65536, 0);
        int mode = 0;
        const std::string init = adstest::InitOptions().text();
        ASSERT_EQ(1, intf_initProperty(status_.data(), nullptr, recipe_.data(), &mode, init.c_str(), &hostMutex_));
        intf_SetDriverPropertyPage(QString::fromLatin1("2_0,192.168.1.100.1.1,801"));
        intf_setAddrValueChangeCallBack(callback);
        QList<KEY_ADDRESS> keys;
        keys.append(makeKey(kMW, kWordArea, 8, 0));     // bytes 0..15
        keys.append(makeKey(kMbit, kBitBase, 16, -1));  // bytes 16, 17
        keys.append(makeKey(kMW, kCallbackWordAddress, 1, 0));
        keys.append(makeKey(kMW, kScreenCallbackAddress, 1, 0));
        ASSERT_GE(intf_addrMerge(keys), 1);
    }

    // One polling turn; false when there was nothing to send.
    bool turn(Plc& plc, int& badResults)
    {
        if (intf_getSendFrame(&frame_) != 1)
            return false;
        QByteArray reply = answer(plc, frame_);
        QString errorText;
        if (intf_dealRcvFrame(reply, errorText) != 1)
            ++badResults;
        return true;
    }

    std::vector<unsigned char> status_;
    std::vector<unsigned char> recipe_;
    QMutex hostMutex_;
    FRAME_PRO frame_;
};

TEST_F(Concurrency, PollingAndHostWritesOnTwoThreadsSettleToTheLastWrittenValues)
{
    Plc plc;
    for (int a = kConditionAddress; a < kConditionAddress + 2 * kConditionWords; ++a)
        plcMemory(plc)[a] = conditionPattern(a);
    for (int a = kLongConditionAddress; a < kLongConditionAddress + 2 * kLongConditionWords; ++a)
        plcMemory(plc)[a] = conditionPattern(a);
    const Clock::time_point deadline = Clock::now() + kDeadline;
    std::atomic<bool> commDone {false};
    int commBadResults = 0;
    long commTurns = 0;

    // The handshake first, as the host does before anything else.
    {
        tRole = kComm;
        ASSERT_TRUE(turn(plc, commBadResults));
        ASSERT_EQ(0, driver.needHandShake);
    }

    std::map<int, int> lastWord;  // address -> last value written by the screen thread
    std::map<int, int> lastBit;   // bit number -> last value written by the screen thread
    long screenWrites = 0;
    long screenConditionReads = 0;
    long screenLongConditionReads = 0;

    std::thread comm([&] {
        tRole = kComm;
        for (int i = 0; i < kCycles && Clock::now() < deadline; ++i) {
            if (turn(plc, commBadResults))
                ++commTurns;
        }
        commDone.store(true);
    });
    std::thread screen([&] {
        tRole = kScreen;
        for (int i = 1; i <= kHostWrites && !commDone.load() && Clock::now() < deadline; ++i) {
            unsigned char v[2];
            if (i % 3 != 0) {
                int slot = i % 4;
                int address = kWordArea + slot * 2;
                putWord(v, slotWord(i, slot));
                intf_setData(0, mw(), address, 1, v, 0);
                lastWord[address] = slotWord(i, slot);
            } else {
                int bit = kBitBase + (i / 3) % 16;
                v[0] = static_cast<unsigned char>((i / 48) & 1);
                intf_setData(0, mbit(), bit, 1, v, 0);
                lastBit[bit] = v[0];
            }
            ++screenWrites;
            // Now and then a one-shot read of an area on no screen, as a UI page does when
            // it opens; now and then one long enough to be cut into two pieces.
            if (i % 5 == 0) {
                if (i % 35 == 0) {
                    queueConditionRead(kLongConditionAddress, kLongConditionWords);
                    ++screenLongConditionReads;
                } else
                    queueConditionRead(kConditionAddress, kConditionWords);
                ++screenConditionReads;
            }
            // Read every written word back: each byte is 0 or a byte once written there.
            for (int w = 0; w < 4; ++w) {
                unsigned char out[2];
                intf_getData(0, mw(), kWordArea + w * 2, 1, out);
                for (int k = 0; k < 2; ++k)
                    if (out[k] != 0 && (out[k] & 3) != w)
                        gBadReadBack.fetch_add(1);
            }
            unsigned char bits[16];
            intf_getData(0, mbit(), kBitBase, 16, bits);
            for (unsigned char b : bits)
                if (b > 1)
                    gBadReadBack.fetch_add(1);
        }
    });
    screen.join();
    comm.join();

    // Settlement on the communication thread's behalf (both threads have ended): send what
    // is queued, then read every block twice more. The callback writes nothing now.
    tRole = kOther;
    int settleTurns = 0;
    while (settleTurns < 20000 && (!driver.writeList.isEmpty() || !driver.conditionReadList.isEmpty())) {
        turn(plc, commBadResults);
        ++settleTurns;
    }
    const int readBlocks = driver.readList.size();
    for (int i = 0; i < 2 * readBlocks + 2 && settleTurns < 20100; ++i, ++settleTurns)
        turn(plc, commBadResults);

    RecordProperty("commTurns", static_cast<int>(commTurns));
    RecordProperty("screenWrites", static_cast<int>(screenWrites));
    std::printf("turns %ld, screen writes %ld, condition reads %ld + %d (ended %ld), callbacks %ld (reads %ld), "
                "callback writes %d + %d, settle %d\n",
        commTurns, screenWrites, screenConditionReads, gCommCallbackConditionReads, gConditionEnds.load(),
        gCallbacks.load(), gCallbackReads.load(), gCommCallbackWrites, gScreenCallbackWrites, settleTurns);

    EXPECT_GT(screenWrites, 100);
    EXPECT_GT(commTurns, 100);
    EXPECT_GT(gCallbacks.load(), 0);
    EXPECT_EQ(0, commBadResults) << "replies of a correct PLC that were not accepted";
    EXPECT_EQ(0, gBadReadBack.load()) << "intf_getData showed a value never written there";
    EXPECT_TRUE(driver.writeList.isEmpty()) << driver.writeList.size() << " writes left queued";
    EXPECT_GT(screenConditionReads, 10);
    EXPECT_GT(gConditionEnds.load(), 0) << "no condition read ended";
    EXPECT_EQ(0, gFailedConditionEnds.load()) << "condition reads of a correct PLC that ended as failed";
    EXPECT_TRUE(driver.conditionReadList.isEmpty())
        << driver.conditionReadList.size() << " condition reads left queued";
    // Only the condition reads read these areas: the cache holds the PLC's pattern.
    unsigned char conditionBytes[2 * kLongConditionWords] = {0};
    intf_getData(0, mw(), kConditionAddress, kConditionWords, conditionBytes);
    for (int k = 0; k < 2 * kConditionWords; ++k)
        EXPECT_EQ(conditionPattern(kConditionAddress + k), conditionBytes[k]) << "cache, M_W byte " << kConditionAddress + k;
    if (screenLongConditionReads > 0) {
        intf_getData(0, mw(), kLongConditionAddress, kLongConditionWords, conditionBytes);
        for (int k = 0; k < 128; ++k)
            EXPECT_EQ(conditionPattern(kLongConditionAddress + k), conditionBytes[k])
                << "cache, M_W byte " << kLongConditionAddress + k;
    }

    uint8_t* mem = plcMemory(plc);
    for (const auto& w : lastWord) {
        unsigned char out[2];
        intf_getData(0, mw(), w.first, 1, out);
        EXPECT_EQ(w.second, getWord(out)) << "cache, M_W " << w.first;
        EXPECT_EQ(w.second, getWord(mem + w.first)) << "PLC, M_W " << w.first;
    }
    for (const auto& b : lastBit) {
        unsigned char out[1];
        intf_getData(0, mbit(), b.first, 1, out);
        EXPECT_EQ(b.second, out[0]) << "cache, M_bit " << b.first;
        EXPECT_EQ(b.second, (mem[b.first / 8] >> (b.first % 8)) & 1) << "PLC, M_bit " << b.first;
    }
    if (gCommCallbackLast >= 0) {
        unsigned char out[2];
        intf_getData(0, mw(), kCallbackWordAddress, 1, out);
        EXPECT_EQ(gCommCallbackLast, getWord(out)) << "cache, value written from the callback";
        EXPECT_EQ(gCommCallbackLast, getWord(mem + kCallbackWordAddress)) << "PLC, value written from the callback";
    }
    if (gScreenCallbackLast >= 0) {
        unsigned char out[2];
        intf_getData(0, mw(), kScreenCallbackAddress, 1, out);
        EXPECT_EQ(gScreenCallbackLast, getWord(out));
        EXPECT_EQ(gScreenCallbackLast, getWord(mem + kScreenCallbackAddress));
    }
}

}  // namespace

// Note. Had the driver queued the host's own register-name string, the last reference to a
// host temporary would be dropped on the communication thread (when intf_getSendFrame copies
// the head frame into the host's FRAME_PRO). Qt's reference count is atomic, but its
// acquiring decrement runs inside libQt5Core, which is not built for ThreadSanitizer, so the
// free would look unordered and be reported. The driver queues the register table's own
// name instead; the host-temporaries run (a test of its own) keeps it so.
