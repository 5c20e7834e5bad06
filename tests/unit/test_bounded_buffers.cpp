// Copies into the fixed 1024-byte buffers (frames and data buffers of the records) stop at
// the buffer's end whatever lengths the host's values lead to.
//
// Each test can fail in two ways: the bytes that must arrive are checked exactly, and a
// canary pattern placed right behind a buffer (in one struct, so the copy would land on it)
// must survive. Copies that would read past a buffer are caught by AddressSanitizer (the CI
// runs the unit tests under ASan and UBSan) and, where the bytes read end up in a result,
// by the canary bytes showing up there.
#include "ads_ethernet.h"
#include "driver_fixture.h"

#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>

#include <cstring>
#include <memory>
#include <vector>

#include "test_plc.h"

namespace {

const unsigned char kCanary = 0xC5;
const int kCanarySize = 4096;

// A host-owned FRAME_PRO with a canary right behind it.
struct GuardedFrame {
    FRAME_PRO frame;
    unsigned char canary[kCanarySize];
};

struct GuardedVariable {
    VARIABLE var;
    unsigned char canary[kCanarySize];
};

struct GuardedKey {
    KEY_ADDRESS key;
    unsigned char canary[kCanarySize];
};

bool canaryIntact(const unsigned char* c)
{
    for (int i = 0; i < kCanarySize; ++i)
        if (c[i] != kCanary)
            return false;
    return true;
}

// Host bytes 1..100 repeating: never the canary value, never 0.
unsigned char pattern(int i) { return static_cast<unsigned char>(1 + i % 100); }

uint32_t le32(const unsigned char* p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (uint32_t(p[3]) << 24); }

class BoundedBuffers : public adstest::DriverTest {
protected:
    // The recipe buffer holds a pattern that no copy may leave behind by accident.
    void SetUp() override
    {
        adstest::DriverTest::SetUp();
        for (size_t i = 0; i < h->recipe.size(); ++i)
            h->recipe[i] = static_cast<unsigned char>(i * 7 + 3);
    }
};

// ------------------------------------------------------------------ getWriteFrame

TEST_F(BoundedBuffers, WriteFrameOf2000BytesIsCutToTheFrameAndLeavesTheHostsBytesBehindItAlone)
{
    VARIABLE var;
    var.kind = 0;
    var.keyNo = 1;
    var.regName = QString::fromLatin1("M_W");
    var.address = 0;
    var.length = 2000;
    for (int i = 0; i < 1024; ++i)
        var.data[i] = pattern(i);
    driver.frameList.clear();
    getWriteFrame(var);
    ASSERT_EQ(1, driver.frameList.size());

    std::unique_ptr<GuardedFrame> host(new GuardedFrame);
    std::memset(host->canary, kCanary, sizeof(host->canary));
    ASSERT_EQ(1, intf_getSendFrame(&host->frame));
    EXPECT_TRUE(canaryIntact(host->canary));
    EXPECT_LE(host->frame.sendLen, 1024);
    EXPECT_EQ(1024, host->frame.sendLen);
    EXPECT_EQ(2000u, le32(host->frame.frame + 46)) << "the length field carries the byte count";
    EXPECT_EQ(0x4020u, le32(host->frame.frame + 38));
    EXPECT_EQ(50, host->frame.dataStart);
    EXPECT_EQ(42, host->frame.recvLen);
    // The frame carries as much of the data as fits: bytes 50..1023.
    for (int i = 50; i < 1024; ++i)
        ASSERT_EQ(pattern(i - 50), host->frame.frame[i]) << "frame byte " << i;

    // The host sends the first sendLen bytes from a buffer of 1024: this must stay inside it.
    std::unique_ptr<unsigned char[]> wire(new unsigned char[1024]);
    std::memcpy(wire.get(), host->frame.frame, static_cast<size_t>(host->frame.sendLen));
    EXPECT_EQ(pattern(0), wire[50]);
}

TEST_F(BoundedBuffers, WriteFrameOfExactlyTheRoomLeftIsNotCut)
{
    VARIABLE var;
    var.kind = 0;
    var.keyNo = 1;
    var.regName = QString::fromLatin1("Q_W");
    var.address = 10;
    var.length = 974;  // 50 + 974 = 1024
    for (int i = 0; i < 1024; ++i)
        var.data[i] = pattern(i);
    driver.frameList.clear();
    getWriteFrame(var);
    ASSERT_EQ(1, driver.frameList.size());
    const FRAME_PRO& f = driver.frameList.first();
    EXPECT_EQ(1024, f.sendLen);
    EXPECT_EQ(pattern(973), f.frame[1023]);
    EXPECT_EQ(0xF030u, le32(f.frame + 38));
}

// ------------------------------------------------------------------ intf_setData, 600 words

TEST_F(BoundedBuffers, WordWriteOf600WordsInOnePieceSendsAFullFrameAndCachesEveryWord)
{
    ASSERT_EQ(1, h->init(adstest::InitOptions().mergeGap(1000)));  // 600 words stay one piece
    ASSERT_TRUE(h->handshake());
    ASSERT_EQ(1000, driver.maxBlockUnits);
    // 1200 bytes from the host, in a buffer of exactly that size.
    std::unique_ptr<unsigned char[]> data(new unsigned char[1200]);
    for (int i = 0; i < 1200; ++i)
        data[i] = pattern(i);
    EXPECT_EQ(1, intf_setData(3, QString::fromLatin1("M_W"), 100, 600, data.get(), 0));

    ASSERT_EQ(1, driver.writeList.size()) << "not cut into pieces";
    const VARIABLE& queued = driver.writeList.first();
    EXPECT_EQ(100, queued.address);
    EXPECT_EQ(1200, queued.length) << "600 words are 1200 bytes";
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(pattern(i), queued.data[i]) << "queued data byte " << i;

    std::unique_ptr<GuardedFrame> out(new GuardedFrame);
    std::memset(out->canary, kCanary, sizeof(out->canary));
    ASSERT_EQ(1, intf_getSendFrame(&out->frame));
    EXPECT_TRUE(canaryIntact(out->canary));
    EXPECT_EQ(1024, out->frame.sendLen) << "never more than the frame holds";
    EXPECT_EQ(3u, le32(out->frame.frame + 22) & 0xFFFF) << "a Write";
    EXPECT_EQ(100u, le32(out->frame.frame + 42));
    EXPECT_EQ(1200u, le32(out->frame.frame + 46));
    EXPECT_EQ((1200 + 44) & 0xFF, out->frame.frame[2]) << "only the low byte of the AMS/TCP length";
    EXPECT_EQ(0, out->frame.frame[3]);
    EXPECT_EQ((1200 + 12) & 0xFF, out->frame.frame[26]) << "only the low byte of the data length";
    for (int i = 50; i < 1024; ++i)
        ASSERT_EQ(pattern(i - 50), out->frame.frame[i]) << "frame byte " << i;
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(pattern(i), out->frame.var.data[i]) << "var data byte " << i;

    // The cache took all 1200 bytes from the host's buffer, the last word included.
    unsigned char last[2] = {0, 0};
    intf_getData(3, QString::fromLatin1("M_W"), 100 + 1198, 1, last);
    EXPECT_EQ(pattern(1198), last[0]);
    EXPECT_EQ(pattern(1199), last[1]);

    // The PLC's acknowledgement settles it.
    QByteArray ack(42, '\0');
    QString text;
    EXPECT_EQ(1, intf_dealRcvFrame(ack, text));
    EXPECT_TRUE(driver.writeList.isEmpty());
}

// ------------------------------------------------------------------ rcpAddrToVar

TEST_F(BoundedBuffers, LongRecipeVariableFillsTheDataBufferAndStopsAtItsEnd)
{
    // From byte 200 of the recipe buffer (recipe data index 100).
    _RCP_VAR_PRO item = adstest::makeRcpVar(1, 2, "M_W", 40, 3000, 100);

    std::unique_ptr<GuardedVariable> target(new GuardedVariable);
    std::memset(target->canary, kCanary, sizeof(target->canary));
    std::memset(target->var.data, 0xEE, sizeof(target->var.data));
    target->var.kind = 77;
    rcpAddrToVar(item, target->var, 1);

    EXPECT_TRUE(canaryIntact(target->canary)) << "the copy ran past the data buffer";
    EXPECT_EQ(77, target->var.kind) << "kind is not changed";
    EXPECT_EQ(2, target->var.keyNo);
    EXPECT_EQ(QString::fromLatin1("M_W"), target->var.regName);
    EXPECT_EQ(40, target->var.address);
    EXPECT_EQ(3000, target->var.length);
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(h->recipe[200 + i], target->var.data[i]) << "data byte " << i;
}

TEST_F(BoundedBuffers, LongRecipeVariableReadLeavesTheDataBufferZero)
{
    _RCP_VAR_PRO item = adstest::makeRcpVar(1, 0, "Q_W", 0, 3000, 0);
    std::unique_ptr<GuardedVariable> target(new GuardedVariable);
    std::memset(target->canary, kCanary, sizeof(target->canary));
    std::memset(target->var.data, 0xEE, sizeof(target->var.data));
    rcpAddrToVar(item, target->var, 0);
    EXPECT_TRUE(canaryIntact(target->canary));
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(0, target->var.data[i]) << "data byte " << i;
}

// ------------------------------------------------------------------ groupingKey

std::unique_ptr<GuardedKey> guardedKey(int length, int unitMark)
{
    std::unique_ptr<GuardedKey> g(new GuardedKey);
    std::memset(g->canary, kCanary, sizeof(g->canary));
    g->key = adstest::makeKey(1, "M_W", 10, length, 0, unitMark);
    for (int i = 0; i < 1024; ++i)
        g->key.data[i] = pattern(i);
    return g;
}

bool holdsCanary(const KEY_ADDRESS& k)
{
    for (int i = 0; i < 1024; ++i)
        if (k.data[i] == kCanary)
            return true;
    return false;
}

TEST_F(BoundedBuffers, GroupingKeyWordPiecesTakeTheirShareOnlyUpToTheKeysLastByte)
{
    // 600 words in pieces of 200: shares at bytes 0, 400 and 800, 400 bytes each; the last
    // share would run to byte 1199 of a 1024-byte buffer.
    std::unique_ptr<GuardedKey> g = guardedKey(600, 0);
    QList<KEY_ADDRESS> out;
    groupingKey(g->key, 200, out, 1);
    ASSERT_EQ(3, out.size());
    EXPECT_TRUE(canaryIntact(g->canary));
    const int addresses[3] = {10, 210, 410};
    for (int p = 0; p < 3; ++p) {
        EXPECT_EQ(addresses[p], out.at(p).address) << "piece " << p;
        EXPECT_EQ(200, out.at(p).length) << "piece " << p;
        EXPECT_FALSE(holdsCanary(out.at(p))) << "piece " << p << " took bytes from behind the key's buffer";
    }
    for (int i = 0; i < 400; ++i) {
        ASSERT_EQ(pattern(i), out.at(0).data[i]);
        ASSERT_EQ(pattern(400 + i), out.at(1).data[i]);
    }
    // The last piece holds what the key holds of its share: bytes 800..1023.
    for (int i = 0; i < 224; ++i)
        ASSERT_EQ(pattern(800 + i), out.at(2).data[i]) << "last piece byte " << i;
}

TEST_F(BoundedBuffers, GroupingKeyBitPiecesWhoseShareStartsPastTheBufferCopyNothingFromBehindIt)
{
    // 1500 bits, one byte each, in pieces of 600: shares at 0, 600 (to 1199) and 1200.
    std::unique_ptr<GuardedKey> g = guardedKey(1500, -1);
    QList<KEY_ADDRESS> out;
    groupingKey(g->key, 600, out, 1);
    ASSERT_EQ(3, out.size());
    EXPECT_TRUE(canaryIntact(g->canary));
    EXPECT_EQ(600, out.at(0).length);
    EXPECT_EQ(600, out.at(1).length);
    EXPECT_EQ(300, out.at(2).length);
    EXPECT_EQ(1210, out.at(2).address);
    for (int p = 0; p < 3; ++p)
        EXPECT_FALSE(holdsCanary(out.at(p))) << "piece " << p << " took bytes from behind the key's buffer";
    for (int i = 0; i < 424; ++i)
        ASSERT_EQ(pattern(600 + i), out.at(1).data[i]) << "second piece byte " << i;
}

TEST_F(BoundedBuffers, GroupingKey600WordsInPiecesOf64NeverReadBehindTheKey)
{
    // The default merge gap of 64 words: shares of 128 bytes up to byte 1199.
    std::unique_ptr<GuardedKey> g = guardedKey(600, 0);
    QList<KEY_ADDRESS> out;
    groupingKey(g->key, 64, out, 1);
    ASSERT_EQ(10, out.size());
    EXPECT_EQ(24, out.at(9).length);
    EXPECT_EQ(10 + 9 * 64, out.at(9).address);
    for (int p = 0; p < 10; ++p)
        EXPECT_FALSE(holdsCanary(out.at(p))) << "piece " << p;
    for (int i = 0; i < 128; ++i)
        ASSERT_EQ(pattern(7 * 128 + i), out.at(7).data[i]);
}

// ------------------------------------------------------------------ a bit write of 2000 bits

TEST_F(BoundedBuffers, BitWriteOf2000BitsWithACompleteReadReplyWritesTheBitsTheDataBufferHolds)
{
    ASSERT_EQ(1, h->init(adstest::InitOptions().mergeGap(1000)));  // pieces of up to 8000 bits: one piece
    adstest::Host& host = *h;
    ASSERT_TRUE(host.handshake());
    std::vector<uint8_t> before(250);
    for (int i = 0; i < 250; ++i)
        before[i] = static_cast<uint8_t>(0x5A ^ i);
    host.plc.setBytes(adstest::kMemory, 0, before);

    std::unique_ptr<unsigned char[]> bits(new unsigned char[2000]);
    for (int i = 0; i < 2000; ++i)
        bits[i] = static_cast<unsigned char>((i / 3) % 2);
    EXPECT_EQ(1, intf_setData(0, QString::fromLatin1("M_bit"), 0, 2000, bits.get(), 0));
    ASSERT_EQ(1, driver.writeList.size());
    EXPECT_EQ(2000, driver.writeList.first().length);

    // The read of the 250 bytes that hold the bits, answered completely.
    ASSERT_EQ(1, host.fetch());
    EXPECT_EQ(2u, le32(host.frame.frame + 22) & 0xFFFF);
    EXPECT_EQ(250u, le32(host.frame.frame + 46));
    EXPECT_EQ(296, host.frame.recvLen);
    QByteArray readAnswer = host.plc.reply(host.frame);
    ASSERT_EQ(296, readAnswer.size());
    EXPECT_EQ(1, host.deliver(readAnswer));

    // The write of those 250 bytes.
    std::unique_ptr<GuardedFrame> out(new GuardedFrame);
    std::memset(out->canary, kCanary, sizeof(out->canary));
    ASSERT_EQ(1, intf_getSendFrame(&out->frame));
    EXPECT_TRUE(canaryIntact(out->canary));
    EXPECT_EQ(3u, le32(out->frame.frame + 22) & 0xFFFF);
    EXPECT_EQ(250u, le32(out->frame.frame + 46));
    EXPECT_EQ(300, out->frame.sendLen);
    // Bits 0..1023 come from the host (one byte each fills the 1024-byte data buffer); the
    // bytes beyond keep what the PLC returned.
    for (int k = 0; k < 250; ++k) {
        unsigned char expected = before[k];
        if (k < 128) {
            expected = 0;
            for (int b = 0; b < 8; ++b)
                if (bits[k * 8 + b])
                    expected = static_cast<unsigned char>(expected | (1u << b));
        }
        ASSERT_EQ(expected, out->frame.frame[50 + k]) << "write byte " << k;
    }
    QByteArray ack = host.plc.reply(out->frame);
    QString text;
    EXPECT_EQ(1, intf_dealRcvFrame(ack, text));
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_EQ(out->frame.frame[50 + 127], host.plc.byteAt(adstest::kMemory, 127));
    EXPECT_EQ(before[200], host.plc.byteAt(adstest::kMemory, 200));
}

}  // namespace
