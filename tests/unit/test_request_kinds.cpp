// The table of request kinds (request_kinds.cpp): one row per kind, asked in a fixed order
// for the next turn; how a request ended reaches its kind as a value.
#include <gtest/gtest.h>

#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"
#include "driver_private.h"
#include "test_plc.h"

using namespace adstest;

namespace {

class RequestKinds : public DriverTest {
protected:
    static VARIABLE item(int keyNo, int address, int length, unsigned char firstByte = 0)
    {
        VARIABLE v;
        v.kind = 0;
        v.keyNo = keyNo;
        v.regName = M_W;
        v.address = address;
        v.length = length;
        memset(v.data, 0, sizeof v.data);
        v.data[0] = firstByte;
        return v;
    }

    void queueConditionReads(std::initializer_list<int> addresses)
    {
        for (int a : addresses) {
            KEY_ADDRESS k = Host::key(1, M_W, a, 1);
            ASSERT_EQ(intf_addConditionRead(&k, 7), 1);
        }
    }
};

TEST_F(RequestKinds, EachKindNumberFindsItsOwnRow)
{
    for (int n = kFrameNone; n <= kFrameRecipeRead; ++n)
        EXPECT_EQ(drv::requestKindOf(n).number, n);
}

TEST_F(RequestKinds, ANumberOfNoKindFindsTheIdleRow)
{
    for (int n : {-1, 7, 100})
        EXPECT_EQ(drv::requestKindOf(n).number, kFrameNone) << n;
}

TEST_F(RequestKinds, AreAskedHandshakeRecipeWriteRecipeReadWriteConditionReadCyclicReadThenIdle)
{
    std::vector<int> order;
    for (int i = 0; i < kFrameKindCount; ++i)
        order.push_back(drv::kChoosingOrder[i]->number);
    EXPECT_EQ(order,
        (std::vector<int> {kFrameHandshake, kFrameRecipeWrite, kFrameRecipeRead, kFrameWrite, kFrameConditionRead,
            kFrameCyclicRead, kFrameNone}));
}

TEST_F(RequestKinds, WritesAndConditionReadsShareTheTurnCountWithTheirOwnLimits)
{
    const drv::RequestKind& write = drv::requestKindOf(kFrameWrite);
    const drv::RequestKind& conditionRead = drv::requestKindOf(kFrameConditionRead);
    EXPECT_EQ(write.turnLimit, 9);
    EXPECT_EQ(conditionRead.turnLimit, 2);
    EXPECT_EQ(write.queue, &Protocol::writeList);
    EXPECT_EQ(conditionRead.queue, &Protocol::conditionReadList);
}

TEST_F(RequestKinds, AGivenUpConditionReadIsFinishedAsSuchWhateverCommFailedHolds)
{
    queueConditionReads({40, 50, 60});
    driver.conditionReadList.move(2, 0);  // the last one queued in flight: it reports the end
    driver.commFailed = 0;
    h->clearReports();
    const drv::RequestKind& kind = drv::requestKindOf(kFrameConditionRead);
    kind.finish(kind, drv::kRequestGivenUp);
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {-1, -1, MINUS_ONE, -1}}));
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    EXPECT_EQ(driver.commFailed, 0);
}

TEST_F(RequestKinds, AnAnsweredConditionReadIsFinishedAsSuchWhateverCommFailedHolds)
{
    queueConditionReads({40, 50});
    driver.commFailed = 1;
    const drv::RequestKind& kind = drv::requestKindOf(kFrameConditionRead);
    kind.finish(kind, drv::kRequestAnswered);
    ASSERT_EQ(driver.conditionReadList.size(), 1);
    EXPECT_EQ(driver.conditionReadList.first().address, 50);
}

TEST_F(RequestKinds, ARecipeBlockGivenUpStartsAgainAndClearsItsOwnFlagOnly)
{
    driver.rcpTransferList.resize(3);
    driver.rcpIndex = 1;
    h->setRecipeWriteFlag(1);
    h->setRecipeReadFlag(1);
    driver.commFailed = 0;
    const drv::RequestKind& kind = drv::requestKindOf(kFrameRecipeRead);
    kind.finish(kind, drv::kRequestGivenUp);
    EXPECT_EQ(driver.rcpIndex, 0);
    EXPECT_EQ(h->recipeReadFlag(), 0);
    EXPECT_EQ(h->recipeWriteFlag(), 1);
}

TEST_F(RequestKinds, AGiveUpAtTheRetryLimitFinishesTheRequestAndSetsCommFailed)
{
    queueConditionReads({40});
    stopCyclicReads();
    ASSERT_TRUE(h->handshake());
    h->clearReports();
    // Retry limit 3: two rejected replies are sent again, the third gives up.
    EXPECT_EQ(h->cycleWithReply(replyOfSize(5)), 8);
    EXPECT_EQ(h->cycleWithReply(replyOfSize(5)), 8);
    EXPECT_EQ(h->cycleWithReply(replyOfSize(5)), 2);
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {-1, -1, MINUS_ONE, -1}}));
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    EXPECT_EQ(driver.commFailed, 1);
}

// ------------------------------------------------------------------ the one queue rule

TEST_F(RequestKinds, QueueingReplacesTheLastWaitingEntryForTheSameItemNeverTheHead)
{
    QList<VARIABLE> queue;
    queue.append(item(1, 10, 2, 0xA0));  // in flight
    queue.append(item(1, 10, 2, 0xB0));
    queue.append(item(1, 20, 2, 0xC0));
    queue.append(item(1, 10, 2, 0xD0));
    drv::queueRequest(queue, item(1, 10, 2, 0xEE));
    ASSERT_EQ(queue.size(), 4);
    EXPECT_EQ(queue.at(0).data[0], 0xA0);
    EXPECT_EQ(queue.at(1).data[0], 0xB0);
    EXPECT_EQ(queue.at(3).data[0], 0xEE);
    // Another length is another item: appended.
    drv::queueRequest(queue, item(1, 10, 4, 0xFF));
    ASSERT_EQ(queue.size(), 5);
    EXPECT_EQ(queue.at(4).length, 4);
}

TEST_F(RequestKinds, QueueingOnlyTheHeadsItemAppends)
{
    QList<VARIABLE> queue;
    queue.append(item(1, 10, 2, 0xA0));
    drv::queueRequest(queue, item(1, 10, 2, 0xEE));
    ASSERT_EQ(queue.size(), 2);
    EXPECT_EQ(queue.at(0).data[0], 0xA0);
    EXPECT_EQ(queue.at(1).data[0], 0xEE);
}

TEST_F(RequestKinds, AFullQueueTakesTheNewestInPlaceOfEntry512)
{
    QList<VARIABLE> queue;
    for (int i = 0; i <= 512; ++i)
        queue.append(item(1, 2 * i, 2));
    drv::queueRequest(queue, item(2, 0, 2, 0x55));
    ASSERT_EQ(queue.size(), 513);
    EXPECT_EQ(queue.at(512).keyNo, 2);
    EXPECT_EQ(queue.at(511).keyNo, 1);
}

}  // namespace
