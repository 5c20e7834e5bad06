// The host's writes: queueing (intf_setData), storing into the cache
// (write_saveDataToArea) and settling an answered or abandoned write (_write_FailOrSuc).
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"
#include "test_plc.h"

using namespace adstest;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes dataOf(const VARIABLE& v, int n) { return Bytes(v.data, v.data + n); }

class HostWrite : public DriverTest { };

// ------------------------------------------------------------------ queueing

TEST_F(HostWrite, AWordWriteQueuesOneVariableCountedInBytes)
{
    unsigned char data[4] = {0x34, 0x12, 0, 0};
    EXPECT_EQ(intf_setData(3, M_W, 10, 1, data, 5), 1);
    ASSERT_EQ(driver.writeList.size(), 1);
    const VARIABLE& v = driver.writeList.first();
    EXPECT_EQ(v.kind, 5);
    EXPECT_EQ(v.keyNo, 3);
    EXPECT_EQ(v.regName, M_W);
    EXPECT_EQ(v.address, 10);
    EXPECT_EQ(v.length, 2);
    EXPECT_EQ(dataOf(v, 2), (Bytes {0x34, 0x12}));
}

TEST_F(HostWrite, ABitWriteQueuesOneBytePerBit)
{
    h->setData(1, M_bit, 83, {1, 0, 1}, 2);
    ASSERT_EQ(driver.writeList.size(), 1);
    const VARIABLE& v = driver.writeList.first();
    EXPECT_EQ(v.kind, 2);
    EXPECT_EQ(v.regName, M_bit);
    EXPECT_EQ(v.address, 83);
    EXPECT_EQ(v.length, 3);
    EXPECT_EQ(dataOf(v, 3), (Bytes {1, 0, 1}));
}

TEST_F(HostWrite, ALongWordWriteIsCutIntoPiecesOnConsecutiveByteRanges)
{
    // maxMergeGap 64: pieces of at most 64 words. 150 words from byte 10: 64, 64, 22.
    Bytes data(300);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = uint8_t(i * 7 + 1);
    h->setData(1, M_W, 10, data, 4);
    ASSERT_EQ(driver.writeList.size(), 3);
    const int addr[3] = {10, 138, 266};
    const int len[3] = {128, 128, 44};
    int from = 0;
    for (int p = 0; p < 3; ++p) {
        const VARIABLE& v = driver.writeList.at(p);
        EXPECT_EQ(v.kind, 4) << p;
        EXPECT_EQ(v.address, addr[p]) << p;
        EXPECT_EQ(v.length, len[p]) << p;
        EXPECT_EQ(dataOf(v, len[p]), Bytes(data.begin() + from, data.begin() + from + len[p])) << p;
        from += len[p];
    }
}

TEST_F(HostWrite, LaterPiecesOfALongBitWriteTakeTheirDataFromTwiceTheOffset)
{
    // maxMergeGap 4: pieces of at most 32 bits. The data of piece p starts at byte
    // p x 32 x 2 of the host's bytes although a bit write has one byte per bit (kept).
    h->init(InitOptions().mergeGap(4));
    ASSERT_EQ(driver.maxBlockBits, 32);
    Bytes data(80);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = uint8_t(i + 1);
    h->setData(1, M_bit, 0, data);
    ASSERT_EQ(driver.writeList.size(), 3);
    EXPECT_EQ(driver.writeList.at(0).address, 0);
    EXPECT_EQ(driver.writeList.at(0).length, 32);
    EXPECT_EQ(driver.writeList.at(1).address, 32);
    EXPECT_EQ(driver.writeList.at(1).length, 32);
    EXPECT_EQ(driver.writeList.at(2).address, 64);
    EXPECT_EQ(driver.writeList.at(2).length, 16);
    EXPECT_EQ(dataOf(driver.writeList.at(0), 32), Bytes(data.begin(), data.begin() + 32));
    EXPECT_EQ(dataOf(driver.writeList.at(1), 16), Bytes(data.begin() + 64, data.begin() + 80));
}

TEST_F(HostWrite, ABitWriteThatFitsOnePieceKeepsItsData)
{
    h->init(InitOptions().mergeGap(4));
    Bytes data(32);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = uint8_t(i % 2);
    h->setData(1, M_bit, 5, data);
    ASSERT_EQ(driver.writeList.size(), 1);
    EXPECT_EQ(dataOf(driver.writeList.at(0), 32), data);
}

TEST_F(HostWrite, RepeatedWritesToOneItemCoalesceIntoTheLatestValue)
{
    h->setData(1, M_W, 50, {5, 5});  // in flight
    h->setData(1, M_W, 10, {1, 1}, 3);
    h->setData(1, M_W, 10, {2, 2}, 9);
    ASSERT_EQ(driver.writeList.size(), 2);
    EXPECT_EQ(driver.writeList.at(0).address, 50);
    EXPECT_EQ(driver.writeList.at(1).address, 10);
    EXPECT_EQ(dataOf(driver.writeList.at(1), 2), (Bytes {2, 2}));
    EXPECT_EQ(driver.writeList.at(1).kind, 9);
}

TEST_F(HostWrite, AWriteEqualToTheOneInFlightIsAppended)
{
    h->setData(1, M_W, 10, {1, 1});
    h->setData(1, M_W, 10, {2, 2});
    ASSERT_EQ(driver.writeList.size(), 2);
    EXPECT_EQ(dataOf(driver.writeList.at(0), 2), (Bytes {1, 1}));
    EXPECT_EQ(dataOf(driver.writeList.at(1), 2), (Bytes {2, 2}));
    h->setData(1, M_W, 10, {3, 3});
    ASSERT_EQ(driver.writeList.size(), 2);
    EXPECT_EQ(dataOf(driver.writeList.at(0), 2), (Bytes {1, 1}));
    EXPECT_EQ(dataOf(driver.writeList.at(1), 2), (Bytes {3, 3}));
}

TEST_F(HostWrite, CoalescingSearchesFromTheLastEntryDown)
{
    h->setData(1, M_W, 50, {5, 5});
    h->setData(1, M_W, 10, {1, 1});
    driver.writeList.append(driver.writeList.at(1));  // two queued entries for one item
    h->setData(1, M_W, 10, {7, 7});
    ASSERT_EQ(driver.writeList.size(), 3);
    EXPECT_EQ(dataOf(driver.writeList.at(1), 2), (Bytes {1, 1}));
    EXPECT_EQ(dataOf(driver.writeList.at(2), 2), (Bytes {7, 7}));
}

TEST_F(HostWrite, AnItemDiffersByKeyRegisterAddressOrLength)
{
    h->setData(1, M_W, 50, {5, 5});
    h->setData(1, M_W, 10, {1, 1});
    h->setData(2, M_W, 10, {1, 1});
    h->setData(1, QString::fromLatin1("Q_W"), 10, {1, 1});
    h->setData(1, M_W, 12, {1, 1});
    h->setData(1, M_W, 10, {1, 1, 1, 1});
    EXPECT_EQ(driver.writeList.size(), 6);
}

TEST_F(HostWrite, TheWriteListNeverGrowsBeyond513Entries)
{
    for (int i = 0; i < 512; ++i)
        h->setData(1, M_W, 2 * i, {uint8_t(i), 0});
    ASSERT_EQ(driver.writeList.size(), 512);
    h->setData(1, M_W, 2 * 512, {0xAB, 0});
    ASSERT_EQ(driver.writeList.size(), 513);
    EXPECT_EQ(driver.writeList.at(512).address, 1024);
    h->setData(1, M_W, 4000, {0xCD, 0});
    ASSERT_EQ(driver.writeList.size(), 513);
    EXPECT_EQ(driver.writeList.at(512).address, 4000);
    EXPECT_EQ(driver.writeList.at(512).data[0], 0xCD);
    EXPECT_EQ(driver.writeList.at(511).address, 1022);
    h->setData(1, M_W, 4002, {0xEF, 0});
    ASSERT_EQ(driver.writeList.size(), 513);
    EXPECT_EQ(driver.writeList.at(512).address, 4002);
    // The newest write is in the cache even so.
    EXPECT_EQ(h->getData(1, M_W, 4000, 1, 2), (Bytes {0xCD, 0}));
}

TEST_F(HostWrite, WithTheFirstInitialisationFlagWritesOnlyUpdateTheCache)
{
    h->init(InitOptions().cacheOnlyWrites());
    EXPECT_EQ(h->setData(1, M_W, 10, {0x34, 0x12}), 1);
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_EQ(at(M, 10).writeFlag, 1);
    EXPECT_EQ(at(M, 10).writeValue[0], 0x34);
    EXPECT_EQ(at(M, 11).writeValue[0], 0x12);
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2), (Bytes {0x34, 0x12}));
}

// ------------------------------------------------------------------ storing into the cache

TEST_F(HostWrite, AWordWriteIsReportedOncePerChangedByte)
{
    h->addrMerge({Host::key(1, M_W, 10, 1)});
    h->clearReports();
    h->setData(1, M_W, 10, {0x34, 0x12});
    const Report w {1, 1, M_W, 10};
    EXPECT_EQ(h->reports, (std::vector<Report> {w, w}));
    EXPECT_EQ(at(M, 10).writeFlag, 1);
    EXPECT_EQ(at(M, 11).writeFlag, 1);
    EXPECT_EQ(at(M, 10).value[0], 0);  // the read value stays until settled
    h->clearReports();
    h->setData(1, M_W, 10, {0x34, 0x13});  // compared with the shown (written) bytes
    EXPECT_EQ(h->reports, (std::vector<Report> {w}));
    EXPECT_EQ(at(M, 11).writeValue[0], 0x13);
}

TEST_F(HostWrite, WritingTheShownValueReportsNothingButSetsTheWriteFlag)
{
    h->addrMerge({Host::key(1, M_W, 10, 1)});
    ref(M, 10).value[0] = 0x34;
    ref(M, 11).value[0] = 0x12;
    h->clearReports();
    h->setData(1, M_W, 10, {0x34, 0x12});
    EXPECT_TRUE(h->reports.empty());
    EXPECT_EQ(at(M, 10).writeFlag, 1);
    EXPECT_EQ(at(M, 11).writeFlag, 1);
    EXPECT_EQ(at(M, 11).writeValue[0], 0x12);
}

TEST_F(HostWrite, ABitWriteComparesWithTheLastWrittenByteEvenWhenNoWriteIsShown)
{
    h->addrMerge({Host::key(1, M_bit, 83, 2)});  // bits 3 and 4 of unit 10
    _DATA_& a = ref(M, 10);
    a.value[0] = 0x08;    // bit 3 read as 1
    a.writeValue[0] = 0;  // never written
    a.writeFlag = 0;
    h->clearReports();
    h->setData(1, M_bit, 84, {1});
    // New byte: shown 0x08 with bit 4 set = 0x18; old value for the report: 0x00.
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {1, 1, M_bit, 83}, Report {1, 1, M_bit, 84}}));
    EXPECT_EQ(at(M, 10).writeValue[0], 0x18);
    EXPECT_EQ(at(M, 10).writeFlag, 1);
    EXPECT_EQ(at(M, 10).value[0], 0x08);
}

TEST_F(HostWrite, ABitWriteOfTheShownBitReportsNothing)
{
    h->addrMerge({Host::key(1, M_bit, 83, 1)});
    ref(M, 10).value[0] = 0x08;
    h->clearReports();
    h->setData(1, M_bit, 83, {1});
    EXPECT_TRUE(h->reports.empty());
    EXPECT_EQ(at(M, 10).writeValue[0], 0x08);
    EXPECT_EQ(at(M, 10).writeFlag, 1);
}

TEST_F(HostWrite, OnlyTheByteOneSetsABitInTheCache)
{
    h->init(InitOptions().cacheOnlyWrites());
    ref(M, 10).value[0] = 0xFF;
    h->setData(1, M_bit, 83, {2});
    EXPECT_EQ(at(M, 10).writeValue[0], 0xF7);
    h->setData(1, M_bit, 84, {1});
    EXPECT_EQ(at(M, 10).writeValue[0], 0xF7);
    h->setData(1, M_bit, 83, {1});
    EXPECT_EQ(at(M, 10).writeValue[0], 0xFF);
}

TEST_F(HostWrite, BitWritesAcrossUnitsEachSetTheirUnit)
{
    h->init(InitOptions().cacheOnlyWrites());
    h->setData(1, M_bit, 86, {1, 1, 1, 0});
    EXPECT_EQ(at(M, 10).writeValue[0], 0xC0);
    EXPECT_EQ(at(M, 11).writeValue[0], 0x01);
    EXPECT_EQ(h->getData(1, M_bit, 86, 4, 4), (Bytes {1, 1, 1, 0}));
}

// ------------------------------------------------------------------ settling

TEST_F(HostWrite, AnAcceptedWordWriteBecomesTheCachedValueWithoutAReport)
{
    h->init(InitOptions().cacheOnlyWrites());  // cache only
    h->addrMerge({Host::key(1, M_W, 10, 1)});
    h->setData(1, M_W, 10, {0x34, 0x12});
    h->clearReports();
    _write_FailOrSuc(1, M_W, 10, 2, 1);
    EXPECT_TRUE(h->reports.empty());
    EXPECT_EQ(at(M, 10).writeFlag, 0);
    EXPECT_EQ(at(M, 11).writeFlag, 0);
    EXPECT_EQ(at(M, 10).value[0], 0x34);
    EXPECT_EQ(at(M, 11).value[0], 0x12);
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2), (Bytes {0x34, 0x12}));
}

TEST_F(HostWrite, ARejectedWordWriteFallsBackAndReportsItsWordButNotItsBits)
{
    h->init(InitOptions().cacheOnlyWrites());
    h->addrMerge({Host::key(1, M_W, 10, 1), Host::key(1, M_bit, 83, 1)});
    ref(M, 10).value[0] = 0x01;
    h->setData(1, M_W, 10, {0x09, 0x12});  // bit 3 of unit 10 changes from 0 to 1
    h->clearReports();
    _write_FailOrSuc(1, M_W, 10, 2, 0);
    const Report w {1, 1, M_W, 10};
    EXPECT_EQ(h->reports, (std::vector<Report> {w, w}));
    EXPECT_EQ(at(M, 10).writeFlag, 0);
    EXPECT_EQ(at(M, 11).writeFlag, 0);
    EXPECT_EQ(at(M, 10).value[0], 0x01);
    EXPECT_EQ(at(M, 11).value[0], 0x00);
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2), (Bytes {0x01, 0x00}));
}

TEST_F(HostWrite, ARejectedWordWriteReportsByteWordAndDoubleWordItemsInOrder)
{
    h->init(InitOptions().cacheOnlyWrites());
    h->addrMerge({Host::key(1, M_W, 10, 1)});
    ref(M, 10).monitorFlag |= 1u | 8u;  // also a byte item and a double word starting at 10
    h->setData(1, M_W, 10, {0x34, 0x12});
    h->clearReports();
    _write_FailOrSuc(1, M_W, 10, 2, 0);
    EXPECT_EQ(h->reports,
        (std::vector<Report> {
            Report {1, 1, M_B, 10}, Report {1, 1, M_W, 10}, Report {1, 1, M_D, 10}, Report {1, 1, M_W, 10}}));
}

TEST_F(HostWrite, SettlingAQueuedWordWriteCoversTwiceItsBytes)
{
    // The queued write counts bytes (4 for two words) and settling counts them as words: the
    // four units after the write take their last written value (never written: 0), silently.
    h->addrMerge({Host::key(1, M_W, 10, 4)});
    for (int b = 14; b < 18; ++b)
        ref(M, b).value[0] = 0x2F;
    ref(M, 18).value[0] = 0x2F;
    h->setData(1, M_W, 10, {0x01, 0x02, 0x03, 0x04});
    ASSERT_EQ(driver.writeList.size(), 1);
    const VARIABLE v = driver.writeList.first();
    ASSERT_EQ(v.length, 4);
    h->clearReports();
    _write_FailOrSuc(v.keyNo, v.regName, v.address, v.length, 1);
    EXPECT_TRUE(h->reports.empty());
    EXPECT_EQ(h->getData(1, M_W, 10, 4, 8), (Bytes {0x01, 0x02, 0x03, 0x04, 0, 0, 0, 0}));
    EXPECT_EQ(at(M, 18).value[0], 0x2F);
}

TEST_F(HostWrite, AnAcceptedBitWriteCopiesOnlyItsBit)
{
    h->addrMerge({Host::key(1, M_bit, 83, 2), Host::key(1, M_W, 10, 1)});
    _DATA_& a = ref(M, 10);
    a.value[0] = 0x00;
    a.writeValue[0] = 0xFF;
    a.writeFlag = 1;
    h->clearReports();
    _write_FailOrSuc(1, M_bit, 83, 1, 1);
    EXPECT_EQ(at(M, 10).value[0], 0x08);
    EXPECT_EQ(at(M, 10).writeFlag, 0);
    // Reported with no values: every monitored bit, then the word.
    EXPECT_EQ(
        h->reports, (std::vector<Report> {Report {1, 1, M_bit, 83}, Report {1, 1, M_bit, 84}, Report {1, 1, M_W, 10}}));
}

TEST_F(HostWrite, ARejectedBitWriteKeepsTheReadValueAndReports)
{
    h->addrMerge({Host::key(1, M_bit, 83, 1)});
    _DATA_& a = ref(M, 10);
    a.value[0] = 0x00;
    a.writeValue[0] = 0x08;
    a.writeFlag = 1;
    h->clearReports();
    _write_FailOrSuc(1, M_bit, 83, 1, 0);
    EXPECT_EQ(at(M, 10).value[0], 0x00);
    EXPECT_EQ(at(M, 10).writeFlag, 0);
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {1, 1, M_bit, 83}}));
}

TEST_F(HostWrite, ABitOfAUnitWithFurtherQueuedBitWritesKeepsTheWriteShowing)
{
    h->addrMerge({Host::key(1, M_bit, 83, 2)});
    _DATA_& a = ref(M, 10);
    a.value[0] = 0x00;
    a.writeValue[0] = 0x18;
    a.writeFlag = 1;
    a.bitWriteState = (1u << 6) | (1u << 8);  // writes of bits 3 and 4 queued
    h->clearReports();
    _write_FailOrSuc(1, M_bit, 83, 1, 1);
    EXPECT_EQ(at(M, 10).bitWriteState, 1u << 8);
    EXPECT_EQ(at(M, 10).writeFlag, 1);
    EXPECT_EQ(at(M, 10).value[0], 0x08);
    EXPECT_TRUE(h->reports.empty());
    _write_FailOrSuc(1, M_bit, 84, 1, 1);
    EXPECT_EQ(at(M, 10).bitWriteState, 0u);
    EXPECT_EQ(at(M, 10).writeFlag, 0);
    EXPECT_EQ(at(M, 10).value[0], 0x18);
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {1, 1, M_bit, 83}, Report {1, 1, M_bit, 84}}));
}

TEST_F(HostWrite, SettlingABitClearsTheSecondQueuedMarkWhenTheFirstIsClear)
{
    _DATA_& a = ref(M, 10);
    a.writeFlag = 1;
    a.bitWriteState = (1u << 7) | (1u << 9);  // second writes of bits 3 and 4 queued
    _write_FailOrSuc(1, M_bit, 83, 1, 0);
    EXPECT_EQ(at(M, 10).bitWriteState, 1u << 9);
    EXPECT_EQ(at(M, 10).writeFlag, 1);
}

// ------------------------------------------------------------------ through the polling cycle

TEST_F(HostWrite, NothingInTheDriverSetsTheQueuedBitWriteMarks)
{
    // bitWriteState is only ever cleared: a bit write queues and settles without it, so
    // clearing it together with the monitor marks in intf_addrMerge changes nothing.
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_bit, 83, 2)});
    h->setData(1, M_bit, 83, {1, 1});
    ASSERT_FALSE(driver.writeList.isEmpty());
    for (int i = 0; i < driver.dataAreaList.size(); ++i)
        EXPECT_EQ(driver.dataAreaList.at(i).bitWriteState, 0u) << i;
    EXPECT_EQ(at(M, 10).writeFlag, 1);
    EXPECT_EQ(h->cycle(), 1);  // the read of the covering byte
    EXPECT_EQ(h->cycle(), 1);  // its write
    EXPECT_TRUE(driver.writeList.isEmpty());
    for (int i = 0; i < driver.dataAreaList.size(); ++i)
        EXPECT_EQ(driver.dataAreaList.at(i).bitWriteState, 0u) << i;
    EXPECT_EQ(at(M, 10).writeFlag, 0);
    EXPECT_EQ(h->plc.bytes(kMemory, 10, 1), (Bytes {0x18}));
}

TEST_F(HostWrite, AWordWriteReachesThePlcAndIsSettled)
{
    ASSERT_TRUE(h->handshake());
    h->setData(1, M_W, 10, {0x34, 0x12});
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->plc.bytes(kMemory, 10, 2), (Bytes {0x34, 0x12}));
    EXPECT_EQ(at(M, 10).value[0], 0x34);
    EXPECT_EQ(at(M, 10).writeFlag, 0);
    EXPECT_TRUE(driver.writeList.isEmpty());
}

}  // namespace
