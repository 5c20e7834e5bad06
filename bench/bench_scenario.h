/*
 * Shared set-up of the driver benchmarks (bench_driver, callgrind_cycle, e2e_refresh).
 *
 * The polling scenario: the driver is initialised with "1#0#0#3#0" (callback context 1,
 * writes go to the PLC, retry limit 3, no gap bridging), the handshake is answered with a
 * 46-byte reply, and intf_addrMerge receives "M_W" word keys of one word each, contiguous
 * from byte 0, so that every read block is exactly 128 bytes long. With `units` cached
 * units the read list holds max(1, units / 128) blocks; units that no block covers are
 * added to the cache through intf_getData on the input area, so the cache holds exactly
 * `units` units (at least 128: one block always fills 128).
 *
 * One cyclic read is intf_getSendFrame followed by intf_dealRcvFrame with a prepared
 * 174-byte read reply (46 header bytes and 128 data bytes).
 */
#ifndef ADS_BENCH_SCENARIO_H
#define ADS_BENCH_SCENARIO_H

#include "ads_ethernet.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace adsbench {

const int kBlockBytes = 128;
const int kReadReplySize = 46 + kBlockBytes; /* 174 */

/* Counts the host callbacks; does nothing else. */
inline long long& callbackCount()
{
    static long long n = 0;
    return n;
}

inline int trivialCallback(int context, int keyNo, QString addressText, int address)
{
    (void)context;
    (void)keyNo;
    (void)addressText;
    (void)address;
    ++callbackCount();
    return 0;
}

/* Host memory handed to intf_initProperty: a status block past the recipe flags (60116),
 * a recipe buffer and the host's mutex. */
struct HostMemory {
    std::vector<unsigned char> statusBlock;
    std::vector<unsigned char> recipeBuffer;
    QMutex mutex;
    HostMemory() : statusBlock(65536, 0), recipeBuffer(65536, 0) { }
};

inline HostMemory& hostMemory()
{
    static HostMemory* m = new HostMemory; /* never freed: outlives every benchmark */
    return *m;
}

[[noreturn]] inline void die(const char* what, int got)
{
    std::fprintf(stderr, "benchmark set-up failed: %s (got %d)\n", what, got);
    std::abort();
}

inline void initDriver(const char* initString = "1#0#0#3#0")
{
    HostMemory& h = hostMemory();
    int mode = 0;
    intf_initProperty(h.statusBlock.data(), nullptr, h.recipeBuffer.data(), &mode, initString, &h.mutex);
    intf_setAddrValueChangeCallBack(trivialCallback);
}

/* An AMS/TCP reply of `total` bytes: header fields filled as a PLC would, data zero. */
inline QByteArray replyFrame(int total, unsigned short command)
{
    QByteArray r(total < 46 ? 46 : total, '\0');
    std::vector<unsigned char> h(38, 0);
    unsigned char* p = h.data();
    unsigned int amsLength = static_cast<unsigned int>(total - 6);
    p[2] = static_cast<unsigned char>(amsLength & 0xFF);
    p[3] = static_cast<unsigned char>((amsLength >> 8) & 0xFF);
    p[22] = static_cast<unsigned char>(command & 0xFF);
    p[24] = 0x05; /* response over TCP */
    unsigned int dataLength = static_cast<unsigned int>(total - 38);
    p[26] = static_cast<unsigned char>(dataLength & 0xFF);
    p[27] = static_cast<unsigned char>((dataLength >> 8) & 0xFF);
    memcpy(r.data(), p, h.size());
    r.resize(total);
    return r;
}

/* A 174-byte read reply whose 128 data bytes all equal `fill`. */
inline QByteArray readReply(unsigned char fill, int dataBytes = kBlockBytes)
{
    QByteArray r = replyFrame(46 + dataBytes, 2);
    char* p = r.data();
    p[42] = static_cast<char>(dataBytes & 0xFF);
    p[43] = static_cast<char>((dataBytes >> 8) & 0xFF);
    memset(p + 46, fill, static_cast<size_t>(dataBytes));
    return r;
}

inline void completeHandshake()
{
    static FRAME_PRO frame;
    int got = intf_getSendFrame(&frame);
    if (got != 1 || frame.sendLen != 78)
        die("the first frame is not the 78-byte handshake", frame.sendLen);
    QByteArray reply = replyFrame(46, 6);
    QString error;
    got = intf_dealRcvFrame(reply, error);
    if (got != 1)
        die("the 46-byte handshake reply was not accepted", got);
}

inline KEY_ADDRESS wordKey(int keyNo, const QString& reg, int address, int words)
{
    KEY_ADDRESS k;
    k.hostText = QString();
    k.hostNumber = 0;
    k.rcpDataIndex = 0;
    k.keyNo = keyNo;
    k.regName = reg;
    k.hostText2 = QString();
    k.address = address;
    k.unitMark = 0;
    k.length = words;
    memset(k.data, 0, sizeof(k.data));
    return k;
}

/* `count` one-word "M_W" keys covering bytes 0 .. 2*count-1, ascending or descending. */
inline QList<KEY_ADDRESS> wordKeys(int count, bool reversed)
{
    QList<KEY_ADDRESS> keys;
    keys.reserve(count);
    const QString reg = QString::fromLatin1("M_W");
    for (int i = 0; i < count; ++i) {
        int w = reversed ? count - 1 - i : i;
        keys.append(wordKey(1, reg, 2 * w, 1));
    }
    return keys;
}

/* Cached units right now. */
inline int cachedUnits() { return driver.dataAreaList.size(); }

inline int blocksFor(int units) { return units / kBlockBytes < 1 ? 1 : units / kBlockBytes; }

/* The polling scenario of the header comment; returns the number of read blocks. */
inline int setUpPolling(int units)
{
    initDriver();
    const int blocks = blocksFor(units);
    QList<KEY_ADDRESS> keys = wordKeys(blocks * kBlockBytes / 2, false);
    int got = intf_addrMerge(keys);
    if (got != blocks)
        die("intf_addrMerge gave an unexpected number of blocks", got);
    /* Units no block covers: cached (zero) input bytes, never read. */
    int extraUnits = units - blocks * kBlockBytes;
    unsigned char out[8];
    const QString inputBits = QString::fromLatin1("I_bit");
    for (int a = 0; a < extraUnits; ++a)
        intf_getData(1, inputBits, 8 * a, 1, out); /* creates input byte a */
    if (cachedUnits() != blocks * kBlockBytes + (extraUnits > 0 ? extraUnits : 0))
        die("the cache does not hold the expected number of units", cachedUnits());
    completeHandshake();
    return blocks;
}

/* One cyclic read: the next frame out, the reply in. */
inline void cycle(FRAME_PRO& frame, QByteArray& reply, QString& error)
{
    int got = intf_getSendFrame(&frame);
    if (got != 1 || frame.readLen != kBlockBytes)
        die("intf_getSendFrame did not hand out a 128-byte read", got == 1 ? frame.readLen : -1);
    got = intf_dealRcvFrame(reply, error);
    if (got != 1)
        die("the 174-byte read reply was not accepted", got);
}

/* Replies for the two cases. In the changing case every data byte changes on every read:
 * each full round of the read list uses the other reply. */
struct CycleReplies {
    QByteArray a;
    QByteArray b;
    CycleReplies() : a(readReply(0x55)), b(readReply(0xAA)) { }
    QByteArray& pick(bool changing, long long cycleNo, int blocks)
    {
        if (!changing)
            return a;
        return ((cycleNo / blocks) & 1) ? b : a;
    }
};

/* Before measuring: two full rounds of the read list, so that every block has been read and
 * the lists have grown. Counts the cycles in cycleNo. */
inline void warmUp(
    FRAME_PRO& frame, CycleReplies& replies, bool changing, int blocks, QString& error, long long& cycleNo)
{
    for (int i = 0; i < 2 * blocks; ++i, ++cycleNo)
        cycle(frame, replies.pick(changing, cycleNo, blocks), error);
}

/* The coalescing write scenario: 64 one-word "M_W" keys merged, then word 10 written four
 * times with alternating values. From then on each write replaces the queued one (the head,
 * in flight, is never replaced) and reports the changed bytes. */
struct CoalescingWrite {
    const QString reg;
    unsigned char values[2][2];
    int flip;
    CoalescingWrite() : reg(QString::fromLatin1("M_W")), values {{0x11, 0x22}, {0x33, 0x44}}, flip(0)
    {
        initDriver();
        QList<KEY_ADDRESS> keys = wordKeys(64, false);
        intf_addrMerge(keys);
        for (int i = 0; i < 4; ++i)
            writeNext();
    }
    /* One intf_setData of word 10 with the other value. */
    void writeNext()
    {
        intf_setData(1, reg, 10, 1, values[flip], 0);
        flip ^= 1;
    }
};

}  // namespace adsbench

#endif
