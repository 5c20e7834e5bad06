// Choosing the next frame: handshake, recipe transfers, queued writes, condition reads,
// cyclic reads, and the repeat of the frame in flight.
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

class SendScheduling : public DriverTest {
protected:
    // Handshake answered, one cyclic read block "M_W" 0, one word.
    void startWithOneReadBlock()
    {
        ASSERT_TRUE(h->handshake());
        ASSERT_EQ(h->addrMerge({Host::key(1, M_W, 0, 1)}), 1);
    }
    void queueWrites(int n, int firstAddress = 100)
    {
        for (int i = 0; i < n; ++i)
            h->setData(1, M_W, firstAddress + 2 * i, {uint8_t(i + 1), 0});
    }
    void queueConditionReads(int n, int firstAddress = 200)
    {
        for (int i = 0; i < n; ++i) {
            KEY_ADDRESS k = Host::key(1, M_W, firstAddress + 10 * i, 1);
            ASSERT_EQ(intf_addConditionRead(&k, 7), 1);
        }
    }
    // Runs n turns; returns the request kind (curFrameKind) of each.
    std::vector<int> kindsOfNextCycles(int n)
    {
        std::vector<int> kinds;
        for (int i = 0; i < n; ++i) {
            int r = h->cycle();
            kinds.push_back(r < 0 ? -1 : driver.curFrameKind);
        }
        return kinds;
    }
};

TEST_F(SendScheduling, FirstFrameAfterInitialisationIsTheHandshakeAndIsRepeatedUntilAnswered)
{
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(h->frame.sendLen, 78);
    EXPECT_EQ(driver.curFrameKind, 1);
    EXPECT_EQ(u16(h->frame.frame + 22), 6);  // AddDeviceNotification
    const QByteArray first = frameBytes(h->frame);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(frameBytes(h->frame), first);
    EXPECT_EQ(driver.frameList.size(), 1);
    EXPECT_EQ(driver.curFrameKind, 1);
}

TEST_F(SendScheduling, NothingQueuedGivesZeroWithEmptyFrameListAndCountReset)
{
    ASSERT_TRUE(h->handshake());
    driver.priorityCount = 7;
    driver.curFrameKind = 4;
    EXPECT_EQ(h->fetch(), 0);
    EXPECT_TRUE(driver.frameList.isEmpty());
    EXPECT_EQ(driver.priorityCount, 0);
    EXPECT_EQ(driver.curFrameKind, 0);
}

TEST_F(SendScheduling, HandshakeComesBeforeRecipeFlagsAndWrites)
{
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 2, 0)});
    h->setRecipeWriteFlag(1);
    h->setData(1, M_W, 10, {1, 2});
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(h->frame.sendLen, 78);
    EXPECT_EQ(driver.curFrameKind, 1);
}

TEST_F(SendScheduling, TwelveQueuedWritesGiveTenWritesThenOneCyclicReadThenWritesAgain)
{
    startWithOneReadBlock();
    queueWrites(12);
    h->plc.clearLog();
    std::vector<int> kinds;
    std::vector<int> counts;
    for (int i = 0; i < 14; ++i) {
        ASSERT_EQ(h->cycle(), 1) << "turn " << i;
        kinds.push_back(driver.curFrameKind);
        counts.push_back(driver.priorityCount);
    }
    EXPECT_EQ(kinds, (std::vector<int> {2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 4, 2, 2, 4}));
    EXPECT_EQ(counts, (std::vector<int> {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0, 1, 2, 0}));
    EXPECT_EQ(h->plc.commands(), (std::vector<int> {3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 2, 3, 3, 2}));
    // The writes go out in the order queued.
    const auto& req = h->plc.requests();
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(req[size_t(i)].offset, uint32_t(100 + 2 * i));
    EXPECT_EQ(req[10].offset, 0u);
    EXPECT_EQ(req[11].offset, 120u);
    EXPECT_EQ(req[12].offset, 122u);
}

TEST_F(SendScheduling, AfterTenWritesWithoutCyclicReadsOneCallReturnsZeroThenWritesResume)
{
    ASSERT_TRUE(h->handshake());
    queueWrites(12);
    std::vector<int> results;
    for (int i = 0; i < 14; ++i)
        results.push_back(h->cycle());
    EXPECT_EQ(results, (std::vector<int> {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, -1, 1, 1, -1}));
    EXPECT_TRUE(driver.writeList.isEmpty());
}

TEST_F(SendScheduling, ConditionReadsGetAtMostThreeTurnsBeforeACyclicRead)
{
    startWithOneReadBlock();
    queueConditionReads(5);
    h->plc.clearLog();
    EXPECT_EQ(kindsOfNextCycles(7), (std::vector<int> {3, 3, 3, 4, 3, 3, 4}));
    std::vector<uint32_t> offsets;
    for (const Request& r : h->plc.requests())
        offsets.push_back(r.offset);
    EXPECT_EQ(offsets, (std::vector<uint32_t> {200, 210, 220, 0, 230, 240, 0}));
}

TEST_F(SendScheduling, WritesAndConditionReadsShareOneCounter)
{
    startWithOneReadBlock();
    queueWrites(12);
    queueConditionReads(2);
    // Ten writes; the condition reads then wait for the cyclic read as well.
    EXPECT_EQ(kindsOfNextCycles(17), (std::vector<int> {2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 4, 2, 2, 3, 4, 3, 4}));
}

TEST_F(SendScheduling, ConditionReadsAheadOfCyclicReadsButBehindWrites)
{
    startWithOneReadBlock();
    queueConditionReads(1);
    queueWrites(1);
    EXPECT_EQ(kindsOfNextCycles(3), (std::vector<int> {2, 3, 4}));
}

TEST_F(SendScheduling, RejectedReplyRepeatsTheSameFrameWithoutANewDecision)
{
    startWithOneReadBlock();
    ASSERT_EQ(h->fetch(), 1);
    ASSERT_EQ(driver.curFrameKind, 4);
    const QByteArray sent = frameBytes(h->frame);
    EXPECT_EQ(h->deliver(QByteArray()), 8);
    // A write queued meanwhile does not displace the frame in flight.
    h->setData(1, M_W, 50, {9, 9});
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(frameBytes(h->frame), sent);
    EXPECT_EQ(driver.curFrameKind, 4);
    EXPECT_EQ(driver.priorityCount, 0);
    EXPECT_EQ(driver.frameList.size(), 1);
}

TEST_F(SendScheduling, InFlightFrameIsRepeatedEvenWhenARecipeFlagRises)
{
    startWithOneReadBlock();
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 2, 0)});
    ASSERT_EQ(h->fetch(), 1);
    const QByteArray sent = frameBytes(h->frame);
    h->setRecipeWriteFlag(1);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(frameBytes(h->frame), sent);
    EXPECT_EQ(driver.curFrameKind, 4);
}

TEST_F(SendScheduling, BitWriteHandsOutItsReadThenItsWriteWithoutANewDecision)
{
    startWithOneReadBlock();
    h->plc.setBytes(kMemory, 10, {0xF0});
    h->setData(1, M_bit, 83, {1});
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(driver.curFrameKind, 2);
    EXPECT_EQ(driver.priorityCount, 1);
    EXPECT_EQ(driver.frameList.size(), 2);
    EXPECT_EQ(u16(h->frame.frame + 22), 2);  // Read
    EXPECT_EQ(u32(h->frame.frame + 38), 0x4020u);
    EXPECT_EQ(u32(h->frame.frame + 42), 10u);
    EXPECT_EQ(u32(h->frame.frame + 46), 1u);
    ASSERT_EQ(h->deliver(h->plc.reply(h->frame)), 1);
    // Another write queued now must not come between the read and its write.
    h->setData(1, M_W, 60, {1, 1});
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(u16(h->frame.frame + 22), 3);  // Write
    EXPECT_EQ(u32(h->frame.frame + 42), 10u);
    EXPECT_EQ(u32(h->frame.frame + 46), 1u);
    EXPECT_EQ(h->frame.frame[50], 0xF8);
    EXPECT_EQ(driver.curFrameKind, 2);
    EXPECT_EQ(driver.priorityCount, 1);
}

TEST_F(SendScheduling, RecipeWriteFlagComesBeforeQueuedWrites)
{
    startWithOneReadBlock();
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 2, 0), Host::rcpVar(1, 1, M_W, 4, 2, 2)});
    for (int i = 0; i < 8; ++i)
        h->recipe[size_t(i)] = uint8_t(0xA0 + i);
    h->setData(1, M_W, 100, {1, 2});
    h->setRecipeWriteFlag(1);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(driver.curFrameKind, 5);
    EXPECT_EQ(driver.framesBuilt, 1);
    EXPECT_EQ(u16(h->frame.frame + 22), 3);
    EXPECT_EQ(u32(h->frame.frame + 38), 0x4020u);
    EXPECT_EQ(u32(h->frame.frame + 42), 0u);
    EXPECT_EQ(u32(h->frame.frame + 46), 8u);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(h->frame.frame[50 + i], 0xA0 + i) << i;
}

TEST_F(SendScheduling, RecipeReadFlagGivesARecipeReadAheadOfWrites)
{
    startWithOneReadBlock();
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 2, 0), Host::rcpVar(1, 1, M_W, 4, 2, 2)});
    h->setData(1, M_W, 100, {1, 2});
    h->setRecipeReadFlag(1);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(driver.curFrameKind, 6);
    EXPECT_EQ(u16(h->frame.frame + 22), 2);
    EXPECT_EQ(u32(h->frame.frame + 42), 0u);
    EXPECT_EQ(u32(h->frame.frame + 46), 8u);
    EXPECT_EQ(h->frame.recvLen, 54);
}

TEST_F(SendScheduling, RecipeWriteFlagWinsOverRecipeReadFlag)
{
    startWithOneReadBlock();
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 2, 0)});
    h->setRecipeWriteFlag(1);
    h->setRecipeReadFlag(1);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(driver.curFrameKind, 5);
}

TEST_F(SendScheduling, OnlyTheFlagValueOneRequestsARecipeTransfer)
{
    startWithOneReadBlock();
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 2, 0)});
    h->setRecipeWriteFlag(2);
    h->setRecipeReadFlag(0xFF);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(driver.curFrameKind, 4);
}

TEST_F(SendScheduling, RecipeWritePastTheEndWritesTheLastVariableAgainAsItStands)
{
    startWithOneReadBlock();
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 20, 1, 0)});
    h->recipe[0] = 0x11;
    h->recipe[1] = 0x22;
    h->setRecipeWriteFlag(1);
    ASSERT_EQ(h->cycle(), 1);
    ASSERT_EQ(driver.curFrameKind, 5);
    EXPECT_EQ(h->plc.bytes(kMemory, 20, 2), (std::vector<uint8_t> {0x11, 0x22}));
    const QByteArray first = frameBytes(h->frame);
    // The transfer is over: the cursor went back to 0 and the flag was cleared.
    EXPECT_EQ(h->recipeWriteFlag(), 0);
    // Flag up again with the cursor at the end of the list and kind 5: the variable as it
    // stands is written again; the recipe buffer is not read anew.
    h->recipe[0] = 0x77;
    driver.rcpIndex = driver.rcpTransferList.size();
    h->setRecipeWriteFlag(1);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(driver.curFrameKind, 5);
    EXPECT_EQ(frameBytes(h->frame), first);
    EXPECT_EQ(h->frame.frame[50], 0x11);
}

TEST_F(SendScheduling, RecipeFlagPastTheEndAfterACyclicReadRepeatsThatRead)
{
    ASSERT_TRUE(h->handshake());
    ASSERT_EQ(h->addrMerge({Host::key(1, M_W, 0, 1), Host::key(1, M_W, 300, 1)}), 2);
    ASSERT_EQ(h->cycle(), 1);  // reads block at 0; the list turns to [300, 0]
    ASSERT_EQ(driver.readList.first().address, 300);
    h->setRecipeReadFlag(1);  // no recipe variables: cursor 0 is past the end
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(driver.curFrameKind, 4);
    EXPECT_EQ(u32(h->frame.frame + 42), 0u);  // the block at 0 again, not the head (300)
}

TEST_F(SendScheduling, RecipeFlagPastTheEndAfterTheHandshakeSendsAHandshakeAgain)
{
    ASSERT_TRUE(h->handshake());
    ASSERT_EQ(driver.needHandShake, 0);
    ASSERT_EQ(driver.curFrameKind, 1);
    h->setRecipeWriteFlag(1);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(h->frame.sendLen, 78);
    EXPECT_EQ(u16(h->frame.frame + 22), 6);
}

TEST_F(SendScheduling, RecipeFlagPastTheEndWhenIdleSendsNothing)
{
    ASSERT_TRUE(h->handshake());
    ASSERT_EQ(h->fetch(), 0);  // idle: kind 0
    ASSERT_EQ(driver.curFrameKind, 0);
    h->setRecipeReadFlag(1);
    EXPECT_EQ(h->fetch(), 0);
    EXPECT_TRUE(driver.frameList.isEmpty());
}

TEST_F(SendScheduling, RecipeFlagPastTheEndAfterAConditionReadRepeatsIt)
{
    startWithOneReadBlock();
    queueConditionReads(1, 400);
    ASSERT_EQ(h->cycle(), 1);
    ASSERT_EQ(driver.curFrameKind, 3);
    ASSERT_TRUE(driver.conditionReadList.isEmpty());
    h->setRecipeWriteFlag(1);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(driver.curFrameKind, 3);
    EXPECT_EQ(u16(h->frame.frame + 22), 2);
    EXPECT_EQ(u32(h->frame.frame + 42), 400u);
    EXPECT_EQ(u32(h->frame.frame + 46), 2u);
}

TEST_F(SendScheduling, RecipeTransferWalksTheBlocksInTurn)
{
    startWithOneReadBlock();
    // A gap of two bytes: two blocks, "M_W" 0 (4 bytes) and "M_W" 6 (2 bytes).
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 2, 0), Host::rcpVar(1, 1, M_W, 6, 1, 2)});
    ASSERT_EQ(driver.rcpTransferList.size(), 2);
    h->setRecipeReadFlag(1);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(u32(h->frame.frame + 42), 0u);
    EXPECT_EQ(u32(h->frame.frame + 46), 4u);
    ASSERT_EQ(h->deliver(h->plc.reply(h->frame)), 1);
    EXPECT_EQ(driver.rcpIndex, 1);
    EXPECT_EQ(h->recipeReadFlag(), 1);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(driver.curFrameKind, 6);
    EXPECT_EQ(u32(h->frame.frame + 42), 6u);
    EXPECT_EQ(u32(h->frame.frame + 46), 2u);
    ASSERT_EQ(h->deliver(h->plc.reply(h->frame)), 1);
    EXPECT_EQ(driver.rcpIndex, 0);
    EXPECT_EQ(h->recipeReadFlag(), 0);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(driver.curFrameKind, 4);
}

// The flag bytes are read under the host's mutex when a new frame is chosen, and the
// mutex is not touched while a frame is in flight.
TEST_F(SendScheduling, FlagsAreReadUnderTheHostMutexOnlyWhenChoosingANewFrame)
{
    startWithOneReadBlock();
    auto fetchInThread = [&](bool expectBlocked) {
        std::atomic<bool> done(false);
        FRAME_PRO* out = new FRAME_PRO;
        h->hostMutex.lock();
        std::thread t([&] {
            intf_getSendFrame(out);
            done = true;
        });
        bool finishedWhileLocked = false;
        for (int i = 0; i < 40 && !finishedWhileLocked; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            finishedWhileLocked = done;
        }
        h->hostMutex.unlock();
        t.join();
        delete out;
        EXPECT_EQ(finishedWhileLocked, !expectBlocked);
    };
    fetchInThread(true);   // empty frameList: a new frame is chosen, the flags are read
    fetchInThread(false);  // the same frame again: no lock needed
}

}  // namespace
