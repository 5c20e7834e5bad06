// The host's reads from the cache (intf_getData) and the bookkeeping at the end of a
// transaction (dealListWhenFinish).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"
#include "test_plc.h"

using namespace adstest;

namespace {

using Bytes = std::vector<uint8_t>;

class HostRead : public DriverTest {
protected:
    void setValue(const QString& area, int address, uint8_t v, int keyNo = 1)
    {
        ref(area, address, keyNo).value[0] = v;
    }
};

// ------------------------------------------------------------------ intf_getData

TEST_F(HostRead, AWordIsReadLowByteFirstAsInPlcMemory)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_W, 10, 1)});
    h->plc.setBytes(kMemory, 10, {0x34, 0x12});
    ASSERT_EQ(h->cycle(), 1);
    unsigned char out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(intf_getData(1, M_W, 10, 1, out), 1);
    EXPECT_EQ(Bytes(out, out + 4), (Bytes {0x34, 0x12, 0xEE, 0xEE}));
}

TEST_F(HostRead, SeveralWordsComeFromConsecutiveByteUnits)
{
    for (int i = 0; i < 6; ++i)
        setValue(M, 20 + i, uint8_t(0x61 + i));
    EXPECT_EQ(h->getData(1, M_W, 20, 3, 8), (Bytes {0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0xEE, 0xEE}));
}

TEST_F(HostRead, BitsGiveOneBytePerBitAsZeroOrOne)
{
    setValue(M, 10, 0x08);
    EXPECT_EQ(h->getData(1, M_bit, 83, 2, 3), (Bytes {1, 0, 0xEE}));
    setValue(M, 10, 0x10);
    EXPECT_EQ(h->getData(1, M_bit, 83, 2, 3), (Bytes {0, 1, 0xEE}));
    setValue(M, 10, 0x18);
    EXPECT_EQ(h->getData(1, M_bit, 83, 2, 3), (Bytes {1, 1, 0xEE}));
}

TEST_F(HostRead, BitsRunOnIntoTheNextByte)
{
    setValue(M, 10, 0x80);  // bit 7 of unit 10
    setValue(M, 11, 0x02);  // bit 1 of unit 11
    EXPECT_EQ(h->getData(1, M_bit, 86, 4, 4), (Bytes {0, 1, 0, 1}));
}

TEST_F(HostRead, BitAndWordRegistersOfOneLetterShareTheirUnits)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_W, 10, 1)});
    h->plc.setBytes(kMemory, 10, {0x08, 0x01});
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->getData(1, M_bit, 83, 1, 1), (Bytes {1}));
    EXPECT_EQ(h->getData(1, M_bit, 88, 1, 1), (Bytes {1}));
    EXPECT_EQ(h->getData(1, M_bit, 82, 1, 1), (Bytes {0}));
}

TEST_F(HostRead, AreasAreSeparateByKeyAndByLetter)
{
    setValue(M, 10, 0x11, 1);
    setValue(M, 10, 0x22, 2);
    setValue(QString::fromLatin1("I"), 10, 0x33, 1);
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2)[0], 0x11);
    EXPECT_EQ(h->getData(2, M_W, 10, 1, 2)[0], 0x22);
    EXPECT_EQ(h->getData(1, I_W, 10, 1, 2)[0], 0x33);
    EXPECT_EQ(h->getData(1, I_bit, 80, 2, 2), (Bytes {1, 1}));  // 0x33: bits 0 and 1
}

TEST_F(HostRead, AnAddressNoReplyTouchedGivesZerosAndGetsAnArea)
{
    const int before = driver.dataAreaList.size();
    EXPECT_EQ(h->getData(1, M_W, 500, 1, 2), (Bytes {0, 0}));
    EXPECT_EQ(driver.dataAreaList.size(), before + 2);
    EXPECT_EQ(h->getData(1, M_bit, 8000, 3, 3), (Bytes {0, 0, 0}));
    EXPECT_EQ(driver.dataAreaList.size(), before + 3);
    // From then on the areas exist: no further growth.
    h->getData(1, M_W, 500, 1, 2);
    h->getData(1, M_bit, 8001, 2, 2);
    EXPECT_EQ(driver.dataAreaList.size(), before + 3);
    const _DATA_ a = at(M, 500);
    EXPECT_EQ(a.value[0], 0);
    EXPECT_EQ(a.writeFlag, 0);
    EXPECT_EQ(a.monitorFlag, 0u);
}

TEST_F(HostRead, ANegativeBitNumberGivesZero)
{
    setValue(M, 0, 0xFF);
    EXPECT_EQ(h->getData(1, M_bit, -1, 1, 2), (Bytes {0, 0xEE}));
}

TEST_F(HostRead, AWrittenValueShowsUntilAReadReplyBringsADifferentValue)
{
    // Writes only update the cache here (second field of the initialisation string).
    h->init(InitOptions().cacheOnlyWrites());
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_W, 10, 1)});
    h->plc.setBytes(kMemory, 10, {0x34, 0x12});
    ASSERT_EQ(h->cycle(), 1);
    h->setData(1, M_W, 10, {0xAA, 0xBB});
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2), (Bytes {0xAA, 0xBB}));
    // The PLC still holds the old value: the written bytes keep showing.
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2), (Bytes {0xAA, 0xBB}));
    // The low byte changes in the PLC: that unit shows the read value again, the other
    // unit keeps its written byte.
    h->plc.setBytes(kMemory, 10, {0x56});
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2), (Bytes {0x56, 0xBB}));
    EXPECT_EQ(at(M, 10).writeFlag, 0);
    EXPECT_EQ(at(M, 11).writeFlag, 1);
}

TEST_F(HostRead, AnUnknownRegisterNameStillReturnsOne)
{
    unsigned char out[8] = {0};
    EXPECT_EQ(intf_getData(1, QString::fromLatin1("X_W"), 0, 1, out), 1);
}

// ------------------------------------------------------------------ dealListWhenFinish

TEST_F(HostRead, FinishedWriteRemovesTheHeadOfTheWriteList)
{
    h->setData(1, M_W, 10, {1, 0});
    h->setData(1, M_W, 20, {2, 0});
    ASSERT_EQ(driver.writeList.size(), 2);
    driver.curFrameKind = 2;
    dealListWhenFinish();
    ASSERT_EQ(driver.writeList.size(), 1);
    EXPECT_EQ(driver.writeList.first().address, 20);
    // The driver's own lock is free again.
    ASSERT_TRUE(driver.mutex.tryLock());
    driver.mutex.unlock();
    dealListWhenFinish();
    EXPECT_TRUE(driver.writeList.isEmpty());
    dealListWhenFinish();  // an empty list stays empty
    EXPECT_TRUE(driver.writeList.isEmpty());
}

TEST_F(HostRead, FinishedConditionReadReportsZeroAndRemovesIt)
{
    KEY_ADDRESS k = Host::key(1, M_W, 40, 1);
    intf_addConditionRead(&k, 7);
    driver.curFrameKind = 3;
    driver.commFailed = 0;
    h->clearReports();
    dealListWhenFinish();
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {-1, -1, MINUS_ONE, 0}}));
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
}

TEST_F(HostRead, FailedConditionReadReportsMinusOneAndEmptiesTheList)
{
    for (int a : {40, 50, 60}) {
        KEY_ADDRESS k = Host::key(1, M_W, a, 1);
        intf_addConditionRead(&k, 7);
    }
    // The head must be the one most recently queued for a report.
    driver.conditionReadList.move(2, 0);
    driver.curFrameKind = 3;
    driver.commFailed = 1;
    h->clearReports();
    dealListWhenFinish();
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {-1, -1, MINUS_ONE, -1}}));
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
}

TEST_F(HostRead, ConditionReadOtherThanTheLastQueuedIsRemovedWithoutAReport)
{
    for (int a : {40, 50}) {
        KEY_ADDRESS k = Host::key(1, M_W, a, 1);
        intf_addConditionRead(&k, 7);
    }
    driver.curFrameKind = 3;
    driver.commFailed = 0;
    h->clearReports();
    dealListWhenFinish();
    EXPECT_TRUE(h->reports.empty());
    ASSERT_EQ(driver.conditionReadList.size(), 1);
    EXPECT_EQ(driver.conditionReadList.first().address, 50);
    dealListWhenFinish();
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {-1, -1, MINUS_ONE, 0}}));
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
}

TEST_F(HostRead, FailedConditionReadOtherThanTheLastQueuedStillEmptiesTheList)
{
    for (int a : {40, 50}) {
        KEY_ADDRESS k = Host::key(1, M_W, a, 1);
        intf_addConditionRead(&k, 7);
    }
    driver.curFrameKind = 3;
    driver.commFailed = 1;
    h->clearReports();
    dealListWhenFinish();
    EXPECT_TRUE(h->reports.empty());
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
}

// The end report of a condition read from a callback that queues the next condition read,
// as a UI page does when one read leads to another.
struct RequeueingCallback {
    static bool lockWasFree;
    static int endReports;
    static int callback(int context, int keyNo, QString text, int address)
    {
        (void)context;
        (void)keyNo;
        (void)address;
        if (text != QLatin1String("-1"))
            return 0;
        ++endReports;
        lockWasFree = driver.mutex.tryLock();
        if (lockWasFree)
            driver.mutex.unlock();
        KEY_ADDRESS next = Host::key(1, M_W, 50, 1);
        intf_addConditionRead(&next, 9);
        return 0;
    }
};
bool RequeueingCallback::lockWasFree = false;
int RequeueingCallback::endReports = 0;

TEST_F(HostRead, ConditionReadEndReportComesBeforeTheHeadGoesAndWithTheLockFree)
{
    // [A, B, A'] with A' the last queued: A's end is reported (it matches A').
    for (int a : {40, 50, 40}) {
        KEY_ADDRESS k = Host::key(1, M_W, a, 1);
        intf_addConditionRead(&k, 7);
    }
    ASSERT_EQ(driver.conditionReadList.size(), 3);
    RequeueingCallback::lockWasFree = false;
    RequeueingCallback::endReports = 0;
    intf_setAddrValueChangeCallBack(RequeueingCallback::callback);
    driver.curFrameKind = 3;
    driver.commFailed = 0;
    dealListWhenFinish();
    intf_setAddrValueChangeCallBack(Host::callback);
    EXPECT_EQ(RequeueingCallback::endReports, 1);
    EXPECT_TRUE(RequeueingCallback::lockWasFree) << "the driver's lock was held during the end report";
    // B, queued again from the report while A was still the head, refreshed the waiting B
    // in place; then A went. Had A gone first, B would have been the head and the new
    // request a third entry.
    ASSERT_EQ(driver.conditionReadList.size(), 2);
    EXPECT_EQ(driver.conditionReadList.at(0).address, 50);
    EXPECT_EQ(driver.conditionReadList.at(0).kind, 9);
    EXPECT_EQ(driver.conditionReadList.at(1).address, 40);
    EXPECT_EQ(driver.lastVar.address, 50);
}

TEST_F(HostRead, ConditionReadQueuedFromTheEndReportOfAFailedOneIsDroppedWithTheList)
{
    KEY_ADDRESS k = Host::key(1, M_W, 40, 1);
    intf_addConditionRead(&k, 7);
    RequeueingCallback::endReports = 0;
    intf_setAddrValueChangeCallBack(RequeueingCallback::callback);
    driver.curFrameKind = 3;
    driver.commFailed = 1;
    dealListWhenFinish();
    intf_setAddrValueChangeCallBack(Host::callback);
    EXPECT_EQ(RequeueingCallback::endReports, 1);
    // The report comes first, then a failed read empties the list, the new request with it.
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
}

TEST_F(HostRead, FinishedCyclicReadTurnsTheReadList)
{
    ASSERT_EQ(h->addrMerge({Host::key(1, M_W, 0, 1), Host::key(1, M_W, 300, 1), Host::key(1, M_W, 600, 1)}), 3);
    driver.curFrameKind = 4;
    dealListWhenFinish();
    ASSERT_EQ(driver.readList.size(), 3);
    EXPECT_EQ(driver.readList.at(0).address, 300);
    EXPECT_EQ(driver.readList.at(1).address, 600);
    EXPECT_EQ(driver.readList.at(2).address, 0);
}

TEST_F(HostRead, FinishedCyclicReadWithASingleBlockLeavesTheList)
{
    ASSERT_EQ(h->addrMerge({Host::key(1, M_W, 8, 2)}), 1);
    driver.curFrameKind = 4;
    dealListWhenFinish();
    ASSERT_EQ(driver.readList.size(), 1);
    EXPECT_EQ(driver.readList.at(0).address, 8);
    EXPECT_EQ(driver.readList.at(0).length, 4);
}

class RecipeFinish : public HostRead, public ::testing::WithParamInterface<int> { };

TEST_P(RecipeFinish, AdvancesTheCursorThenClearsItsOwnFlagOnly)
{
    const int kind = GetParam();
    const int own = kind == 5 ? HOST_FLAG_RECIPE_WRITE : HOST_FLAG_RECIPE_READ;
    const int other = kind == 5 ? HOST_FLAG_RECIPE_READ : HOST_FLAG_RECIPE_WRITE;
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 1, 0), Host::rcpVar(1, 1, M_W, 10, 1, 1)});
    ASSERT_EQ(driver.rcpTransferList.size(), 2);
    h->status[size_t(own)] = 1;
    h->status[size_t(other)] = 1;
    driver.curFrameKind = kind;
    driver.commFailed = 0;
    dealListWhenFinish();
    EXPECT_EQ(driver.rcpIndex, 1);
    EXPECT_EQ(h->status[size_t(own)], 1);
    dealListWhenFinish();
    EXPECT_EQ(driver.rcpIndex, 0);
    EXPECT_EQ(h->status[size_t(own)], 0);
    EXPECT_EQ(h->status[size_t(other)], 1);
    ASSERT_TRUE(h->hostMutex.tryLock());
    h->hostMutex.unlock();
}

TEST_P(RecipeFinish, AFailedTransferEndsAtOnce)
{
    const int kind = GetParam();
    const int own = kind == 5 ? HOST_FLAG_RECIPE_WRITE : HOST_FLAG_RECIPE_READ;
    h->setRcpAddress(
        {Host::rcpVar(1, 1, M_W, 0, 1, 0), Host::rcpVar(1, 1, M_W, 10, 1, 1), Host::rcpVar(1, 1, M_W, 20, 1, 2)});
    ASSERT_EQ(driver.rcpTransferList.size(), 3);
    h->status[size_t(own)] = 1;
    driver.rcpIndex = 1;
    driver.curFrameKind = kind;
    driver.commFailed = 1;
    dealListWhenFinish();
    EXPECT_EQ(driver.rcpIndex, 0);
    EXPECT_EQ(h->status[size_t(own)], 0);
}

TEST_P(RecipeFinish, TheFlagIsClearedUnderTheHostMutex)
{
    const int kind = GetParam();
    const int own = kind == 5 ? HOST_FLAG_RECIPE_WRITE : HOST_FLAG_RECIPE_READ;
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 1, 0)});
    h->status[size_t(own)] = 1;
    driver.curFrameKind = kind;
    driver.commFailed = 0;
    std::atomic<bool> done(false);
    h->hostMutex.lock();
    std::thread t([&] {
        dealListWhenFinish();
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const bool finishedWhileLocked = done;
    const unsigned char flagWhileLocked = h->status[size_t(own)];
    h->hostMutex.unlock();
    t.join();
    EXPECT_FALSE(finishedWhileLocked);
    EXPECT_EQ(flagWhileLocked, 1);
    EXPECT_EQ(h->status[size_t(own)], 0);
}

INSTANTIATE_TEST_SUITE_P(WriteAndRead, RecipeFinish, ::testing::Values(5, 6));

TEST_F(HostRead, OtherKindsChangeNothing)
{
    h->setData(1, M_W, 10, {1, 0});
    h->addrMerge({Host::key(1, M_W, 0, 1), Host::key(1, M_W, 300, 1)});
    KEY_ADDRESS k = Host::key(1, M_W, 40, 1);
    intf_addConditionRead(&k, 7);
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 1, 0), Host::rcpVar(1, 1, M_W, 10, 1, 1)});
    h->setRecipeWriteFlag(1);
    h->setRecipeReadFlag(1);
    h->clearReports();
    for (int kind : {0, 1, 7}) {
        driver.curFrameKind = kind;
        dealListWhenFinish();
    }
    EXPECT_EQ(driver.writeList.size(), 1);
    EXPECT_EQ(driver.conditionReadList.size(), 1);
    EXPECT_EQ(driver.readList.at(0).address, 0);
    EXPECT_EQ(driver.rcpIndex, 0);
    EXPECT_EQ(h->recipeWriteFlag(), 1);
    EXPECT_EQ(h->recipeReadFlag(), 1);
    EXPECT_TRUE(h->reports.empty());
}

// ------------------------------------------------------------------ through the polling cycle

TEST_F(HostRead, ConditionReadDoneReportsZeroAndItsValueIsInTheCache)
{
    ASSERT_TRUE(h->handshake());
    h->plc.setBytes(kMemory, 40, {0x78, 0x56});
    KEY_ADDRESS k = Host::key(1, M_W, 40, 1);
    intf_addConditionRead(&k, 7);
    h->clearReports();
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->reportsWithText(MINUS_ONE), (std::vector<Report> {Report {-1, -1, MINUS_ONE, 0}}));
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    EXPECT_EQ(h->getData(1, M_W, 40, 1, 2), (Bytes {0x78, 0x56}));
}

TEST_F(HostRead, ConditionReadGivenUpReportsMinusOneAfterTheRetryLimit)
{
    ASSERT_TRUE(h->handshake());
    KEY_ADDRESS k = Host::key(1, M_W, 40, 1);
    intf_addConditionRead(&k, 7);
    h->clearReports();
    EXPECT_EQ(h->cycle(Fault::NoReply), 8);
    EXPECT_EQ(h->cycle(Fault::NoReply), 8);
    EXPECT_TRUE(h->reports.empty());
    EXPECT_EQ(h->cycle(Fault::NoReply), 2);
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {-1, -1, MINUS_ONE, -1}}));
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
}

TEST_F(HostRead, RecipeWriteThroughTheFlagClearsItWhenAllBlocksAreDone)
{
    ASSERT_TRUE(h->handshake());
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 1, 0), Host::rcpVar(1, 1, M_W, 10, 1, 1)});
    h->recipe[0] = 0x01;
    h->recipe[1] = 0x02;
    h->recipe[2] = 0x03;
    h->recipe[3] = 0x04;
    h->setRecipeWriteFlag(1);
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->recipeWriteFlag(), 1);
    EXPECT_EQ(driver.rcpIndex, 1);
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->recipeWriteFlag(), 0);
    EXPECT_EQ(driver.rcpIndex, 0);
    EXPECT_EQ(h->plc.bytes(kMemory, 0, 2), (Bytes {0x01, 0x02}));
    EXPECT_EQ(h->plc.bytes(kMemory, 10, 2), (Bytes {0x03, 0x04}));
}

TEST_F(HostRead, RecipeReadGivenUpClearsItsFlag)
{
    ASSERT_TRUE(h->handshake());
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 1, 0), Host::rcpVar(1, 1, M_W, 10, 1, 1)});
    h->setRecipeReadFlag(1);
    EXPECT_EQ(h->cycle(Fault::Short), 8);
    EXPECT_EQ(h->cycle(Fault::Short), 8);
    EXPECT_EQ(h->cycle(Fault::Short), 2);
    EXPECT_EQ(h->recipeReadFlag(), 0);
    EXPECT_EQ(driver.rcpIndex, 0);
}

}  // namespace
