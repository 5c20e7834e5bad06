// Change reports: which monitored items a changed unit touches, and in which order the
// host's callback hears of them.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"
#include "test_plc.h"

using namespace adstest;

namespace {

class ChangeDetection : public DriverTest {
protected:
    // The area of unit `address` of area M, with the given marks.
    int unit(int address, unsigned monitorFlag, unsigned bitMask, int keyNo = 1, const QString& area = M)
    {
        const int i = idx(area, address, keyNo);
        adstest::unitRef(i).monitorFlag = monitorFlag;
        adstest::unitRef(i).bitMonitorMask = bitMask;
        return i;
    }
    void byteChange(int index, unsigned char oldV, unsigned char newV, int noBits = 0)
    {
        _byteDataChange(&oldV, &newV, index, noBits);
    }
};

Report r(const QString& text, int address, int keyNo = 1, int context = 1)
{
    return Report {context, keyNo, text, address};
}

TEST_F(ChangeDetection, AChangedBitIsReportedBeforeTheWordHoldingIt)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_bit, 83, 1), Host::key(1, M_W, 10, 1)});
    h->plc.setBytes(kMemory, 10, {0x08});
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_bit, 83), r(M_W, 10)}));
}

TEST_F(ChangeDetection, AWordWhoseTwoBytesChangeIsReportedTwiceFirstFromItsFirstByte)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_bit, 83, 1), Host::key(1, M_W, 10, 1)});
    h->plc.setBytes(kMemory, 10, {0x08, 0x01});
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_bit, 83), r(M_W, 10), r(M_W, 10)}));
}

TEST_F(ChangeDetection, OnlyTheSecondByteChangingReportsTheWordOnce)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_bit, 83, 1), Host::key(1, M_W, 10, 1)});
    h->plc.setBytes(kMemory, 11, {0x80});
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_W, 10)}));
}

TEST_F(ChangeDetection, ReportOrderIsBitsThenByteThenWordsThenDoubleWordsFromTheNearestStartDown)
{
    const int i = unit(10, 0x7F, 0x05);
    byteChange(i, 0x00, 0xFF);
    EXPECT_EQ(h->reports,
        (std::vector<Report> {r(M_bit, 80), r(M_bit, 82), r(M_B, 10), r(M_W, 10), r(M_W, 9), r(M_D, 10), r(M_D, 9),
            r(M_D, 8), r(M_D, 7)}));
}

TEST_F(ChangeDetection, OnlyBitsThatChangedAreReported)
{
    const int i = unit(10, 0, 0xFF);
    byteChange(i, 0x0F, 0x1E);  // bits 0 and 4 differ
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_bit, 80), r(M_bit, 84)}));
}

TEST_F(ChangeDetection, WholeItemsAreReportedWithoutComparingValues)
{
    const int i = unit(10, 0x02, 0x01);
    byteChange(i, 0x20, 0x20);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_W, 10)}));
}

TEST_F(ChangeDetection, NoWordOrDoubleWordStartsBelowZero)
{
    int i = unit(0, 0x04 | 0x10 | 0x20 | 0x40, 0);  // items that would start at -1 .. -3
    byteChange(i, 0, 1);
    EXPECT_TRUE(h->reports.empty());
    i = unit(1, 0x04 | 0x08 | 0x10 | 0x20 | 0x40, 0);
    byteChange(i, 0, 1);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_W, 0), r(M_D, 1), r(M_D, 0)}));
}

TEST_F(ChangeDetection, NullValuesReportEveryMonitoredBit)
{
    const int i = unit(10, 0x02, 0x81);
    _byteDataChange(nullptr, nullptr, i, 0);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_bit, 80), r(M_bit, 87), r(M_W, 10)}));
    h->clearReports();
    unsigned char v = 0x01;
    _byteDataChange(nullptr, &v, i, 0);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_bit, 80), r(M_bit, 87), r(M_W, 10)}));
    h->clearReports();
    _byteDataChange(&v, nullptr, i, 0);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_bit, 80), r(M_bit, 87), r(M_W, 10)}));
}

TEST_F(ChangeDetection, WithNoBitsOnlyWholeItemsAreReported)
{
    const int i = unit(10, 0x03, 0xFF);
    byteChange(i, 0x00, 0xFF, 1);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_B, 10), r(M_W, 10)}));
    h->clearReports();
    _byteDataChange(nullptr, nullptr, i, 1);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_B, 10), r(M_W, 10)}));
}

TEST_F(ChangeDetection, AnUnmonitoredUnitReportsNothing)
{
    const int i = unit(10, 0, 0);
    byteChange(i, 0x00, 0xFF);
    _byteDataChange(nullptr, nullptr, i, 0);
    EXPECT_TRUE(h->reports.empty());
}

TEST_F(ChangeDetection, ReportsCarryTheContextTheAreaKeyAndTheAreaName)
{
    h->init(InitOptions().context(9));
    const int i = unit(3, 0x02, 0x10, 4, QString::fromLatin1("Q"));
    byteChange(i, 0x00, 0x10);
    EXPECT_EQ(h->reports,
        (std::vector<Report> {
            Report {9, 4, QString::fromLatin1("Q_bit"), 28}, Report {9, 4, QString::fromLatin1("Q_W"), 3}}));
}

std::vector<int> g_seenInCallback;

int readBackInCallback(int, int, QString, int)
{
    unsigned char out[2] = {0, 0};
    intf_getData(1, QString::fromLatin1("M_W"), 10, 1, out);
    g_seenInCallback.push_back(out[0]);
    return 0;
}

TEST_F(ChangeDetection, AReadReplyReportsAfterTheValueIsStored)
{
    // The host reads the value back from inside its callback.
    g_seenInCallback.clear();
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_W, 10, 1)});
    intf_setAddrValueChangeCallBack(&readBackInCallback);
    h->plc.setBytes(kMemory, 10, {0x42});
    ASSERT_EQ(h->cycle(), 1);
    intf_setAddrValueChangeCallBack(&Host::callback);
    EXPECT_EQ(g_seenInCallback, (std::vector<int> {0x42}));
}

// ---------------------------------------------------------- the word, double-word and bit units

TEST_F(ChangeDetection, WordUnitReportsSixteenBitsThenItselfThenDoubleWords)
{
    const int i = unit(5, 0x07, 0x00018001u);
    int oldV = 0, newV = 0x0001FFFF;
    _wordDataChange(&oldV, &newV, i, 0);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_bit, 80), r(M_bit, 95), r(M, 5), r(M_D, 5), r(M_D, 4)}));
}

TEST_F(ChangeDetection, WordUnitAtZeroReportsNoDoubleWordAtMinusOne)
{
    const int i = unit(0, 0x04, 0);
    int oldV = 0, newV = 1;
    _wordDataChange(&oldV, &newV, i, 0);
    EXPECT_TRUE(h->reports.empty());
}

TEST_F(ChangeDetection, DoubleWordUnitReportsThirtyTwoBitsThenItself)
{
    const int i = unit(2, 0x01, 0x80000001u);
    int oldV = 0, newV = int(0x80000000u);
    _dwordDataChange(&oldV, &newV, i, 0);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_bit, 95), r(M, 2)}));
    h->clearReports();
    _dwordDataChange(nullptr, nullptr, i, 0);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_bit, 64), r(M_bit, 95), r(M, 2)}));
}

TEST_F(ChangeDetection, BitUnitReportsItselfWhenMonitored)
{
    int i = unit(7, 0x01, 0xFF);
    _bitDataChange(i);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M, 7)}));
    h->clearReports();
    i = unit(8, 0x02, 0xFF);
    _bitDataChange(i);
    EXPECT_TRUE(h->reports.empty());
}

}  // namespace

// A read passes over runs of unchanged bytes without looking each unit up: only units the
// cache holds one after another for consecutive addresses may be passed over. Here the
// units of M 2..4 come after the unit of M 5 in the cache, and byte 2 changes to the value
// byte 5 holds.
TEST_F(ChangeDetection, AReadOverUnitsCachedOutOfAddressOrderComparesEachByteWithItsOwnUnit)
{
    for (int address : {0, 1, 5, 2, 3, 4})
        idx(M, address);
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_W, 0, 3)});
    h->plc.setBytes(kMemory, 0, {1, 2, 3, 4, 5, 6});
    ASSERT_EQ(h->cycle(), 1);
    for (int address = 0; address < 6; ++address)
        EXPECT_EQ(at(M, address).value[0], address + 1) << "M " << address;

    h->plc.setBytes(kMemory, 2, {6});
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(at(M, 2).value[0], 6);
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_W, 2)}));
}

// A screen of words with gaps between them: the units of the gap bytes are created by the
// first read, after all the screen's units, so a block's units lie in two runs of the cache
// interleaved two by two. Each later read still stores every byte in its own unit and
// reports exactly the words whose bytes changed.
TEST_F(ChangeDetection, AReadOverWordsWithGapsCreatedLaterStoresEachByteInItsOwnUnit)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_W, 0, 1), Host::key(1, M_W, 4, 1), Host::key(1, M_W, 8, 1)});
    const int wordUnits = driver.dataAreaList.size();
    ASSERT_EQ(wordUnits, 6);
    std::vector<unsigned char> bytes(10);
    for (int i = 0; i < 10; ++i)
        bytes[size_t(i)] = static_cast<unsigned char>(0x10 + i);
    h->plc.setBytes(kMemory, 0, bytes);
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(driver.dataAreaList.size(), 10);  // bytes 2, 3, 6, 7 created by the read
    EXPECT_GE(idx(M, 2), wordUnits);
    for (int a = 0; a < 10; ++a)
        EXPECT_EQ(at(M, a).value[0], 0x10 + a) << "M " << a;

    // Each the first byte of its run of units: reached from the byte before by a jump in the
    // cache, not by the next unit in it.
    h->plc.setBytes(kMemory, 2, {0x77});  // a gap byte: no word of the screen
    h->plc.setBytes(kMemory, 8, {0x88});  // the first byte of the word at 8
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    for (int a = 0; a < 10; ++a)
        EXPECT_EQ(at(M, a).value[0], a == 2 ? 0x77 : a == 8 ? 0x88 : 0x10 + a) << "M " << a;
    EXPECT_EQ(h->reports, (std::vector<Report> {r(M_W, 8)}));
    EXPECT_EQ(driver.dataAreaList.size(), 10);
}
