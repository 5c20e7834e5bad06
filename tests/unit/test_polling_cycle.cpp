// Whole polling turns against the in-process test PLC: the host fetches a frame, the PLC
// answers it, the driver digests the answer.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"
#include "test_plc.h"

using namespace adstest;

namespace {

using Bytes = std::vector<uint8_t>;

class PollingCycle : public DriverTest { };

TEST_F(PollingCycle, TheHandshakeIsAnAddDeviceNotificationToPort100)
{
    EXPECT_EQ(h->mode, 2);
    ASSERT_EQ(h->cycle(), 1);
    ASSERT_EQ(h->plc.requests().size(), 1u);
    const Request& req = h->plc.requests()[0];
    EXPECT_EQ(req.command, kCmdAddNotification);
    EXPECT_EQ(req.targetPort, 100);
    EXPECT_EQ(req.sourcePort, 0x80BB);
    EXPECT_EQ(h->lastReply.size(), 46);
    EXPECT_EQ(driver.needHandShake, 0);
    EXPECT_TRUE(driver.frameList.isEmpty());
    EXPECT_EQ(h->plc.unanswered(), 0);
    EXPECT_EQ(h->cycle(), -1);  // nothing else to do yet
}

TEST_F(PollingCycle, ScreenValuesArriveInTheCacheAndInTheCallback)
{
    ASSERT_TRUE(h->handshake());
    ASSERT_EQ(h->addrMerge({Host::key(1, M_W, 10, 1), Host::key(1, M_bit, 83, 1), Host::key(1, Q_W, 4, 2)}), 2);
    h->plc.setBytes(kMemory, 10, {0x08, 0x12});
    h->plc.setBytes(kOutputs, 4, {0xA1, 0xA2, 0xA3, 0xA4});
    h->plc.clearLog();
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    ASSERT_EQ(h->cycle(), 1);
    ASSERT_EQ(h->plc.requests().size(), 2u);
    // Sorted by register: "Q_W" before "M_W".
    EXPECT_EQ(h->plc.requests()[0].group, kOutputs);
    EXPECT_EQ(h->plc.requests()[0].offset, 4u);
    EXPECT_EQ(h->plc.requests()[0].length, 4u);
    EXPECT_EQ(h->plc.requests()[1].group, kMemory);
    EXPECT_EQ(h->plc.requests()[1].offset, 10u);
    EXPECT_EQ(h->plc.requests()[1].length, 2u);
    EXPECT_EQ(h->reports,
        (std::vector<Report> {Report {1, 1, Q_W, 4}, Report {1, 1, Q_W, 4}, Report {1, 1, Q_W, 6},
            Report {1, 1, Q_W, 6}, Report {1, 1, M_bit, 83}, Report {1, 1, M_W, 10}, Report {1, 1, M_W, 10}}));
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2), (Bytes {0x08, 0x12}));
    EXPECT_EQ(h->getData(1, M_bit, 83, 1, 1), (Bytes {1}));
    EXPECT_EQ(h->getData(1, Q_W, 4, 2, 4), (Bytes {0xA1, 0xA2, 0xA3, 0xA4}));
    // The next turns read the blocks again, in turn; unchanged values report nothing.
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_TRUE(h->reports.empty());
    EXPECT_EQ(h->plc.requests()[2].group, kOutputs);
    EXPECT_EQ(h->plc.requests()[3].group, kMemory);
}

TEST_F(PollingCycle, AWordWriteLandsInPlcMemory)
{
    ASSERT_TRUE(h->handshake());
    h->plc.setBytes(kMemory, 19, {0x55, 0x00, 0x00, 0x66});
    h->setData(1, M_W, 20, {0x34, 0x12});
    h->plc.clearLog();
    ASSERT_EQ(h->cycle(), 1);
    ASSERT_EQ(h->plc.requests().size(), 1u);
    const Request& req = h->plc.requests()[0];
    EXPECT_EQ(req.command, kCmdWrite);
    EXPECT_EQ(req.targetPort, 801);
    EXPECT_EQ(req.group, kMemory);
    EXPECT_EQ(req.offset, 20u);
    EXPECT_EQ(req.length, 2u);
    EXPECT_EQ(h->plc.bytes(kMemory, 19, 4), (Bytes {0x55, 0x34, 0x12, 0x66}));
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_EQ(h->cycle(), -1);
}

TEST_F(PollingCycle, ABitWriteReadsTheByteAndWritesItBackWithOnlyThatBitChanged)
{
    ASSERT_TRUE(h->handshake());
    h->plc.setBytes(kMemory, 29, {0x5A, 0xF0, 0xA5});
    h->setData(1, M_bit, 30 * 8 + 3, {1});
    h->plc.clearLog();
    EXPECT_EQ(h->runUntilIdle(10), 2);
    ASSERT_EQ(h->plc.commands(), (std::vector<int> {kCmdRead, kCmdWrite}));
    EXPECT_EQ(h->plc.requests()[0].offset, 30u);
    EXPECT_EQ(h->plc.requests()[0].length, 1u);
    EXPECT_EQ(h->plc.requests()[1].offset, 30u);
    EXPECT_EQ(h->plc.requests()[1].data, QByteArray(1, char(0xF8)));
    EXPECT_EQ(h->plc.bytes(kMemory, 29, 3), (Bytes {0x5A, 0xF8, 0xA5}));
    // Clearing a bit.
    h->setData(1, M_bit, 30 * 8 + 4, {0});
    EXPECT_EQ(h->runUntilIdle(10), 2);
    EXPECT_EQ(h->plc.bytes(kMemory, 29, 3), (Bytes {0x5A, 0xE8, 0xA5}));
    EXPECT_EQ(h->getData(1, M_bit, 30 * 8 + 3, 2, 2), (Bytes {1, 0}));
}

TEST_F(PollingCycle, ABitWriteOfSeveralBitsAcrossTwoBytes)
{
    ASSERT_TRUE(h->handshake());
    h->plc.setBytes(kOutputs, 1, {0x0F, 0xF0});
    h->setData(1, QString::fromLatin1("Q_bit"), 14, {1, 0, 0, 1});  // bits 6, 7 of byte 1; 0, 1 of byte 2
    h->plc.clearLog();
    EXPECT_EQ(h->runUntilIdle(10), 2);
    EXPECT_EQ(h->plc.requests()[0].group, kOutputs);
    EXPECT_EQ(h->plc.requests()[0].offset, 1u);
    EXPECT_EQ(h->plc.requests()[0].length, 2u);
    EXPECT_EQ(h->plc.bytes(kOutputs, 1, 2), (Bytes {0x4F, 0xF2}));
}

TEST_F(PollingCycle, TwelveQueuedWritesAgainstCyclicReads)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, I_W, 0, 2)});
    for (int i = 0; i < 12; ++i)
        h->setData(1, M_W, 100 + 2 * i, {uint8_t(i + 1), 0});
    h->plc.clearLog();
    for (int i = 0; i < 15; ++i)
        ASSERT_EQ(h->cycle(), 1) << i;
    EXPECT_EQ(h->plc.commands(), (std::vector<int> {3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 2, 3, 3, 2, 2}));
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(h->plc.byteAt(kMemory, 100 + 2 * i), i + 1) << i;
    EXPECT_EQ(h->plc.requests()[10].group, kInputs);
}

TEST_F(PollingCycle, AConditionReadReportsZeroWhenDoneAndMinusOneWhenGivenUp)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_W, 0, 1)});
    h->plc.setBytes(kMemory, 300, {0x11, 0x22});
    KEY_ADDRESS k = Host::key(1, M_W, 300, 1);
    intf_addConditionRead(&k, 7);
    h->clearReports();
    h->plc.clearLog();
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->plc.requests()[0].offset, 300u);
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {-1, -1, MINUS_ONE, 0}}));
    EXPECT_EQ(h->getData(1, M_W, 300, 1, 2), (Bytes {0x11, 0x22}));

    intf_addConditionRead(&k, 7);
    h->clearReports();
    h->plc.injectFault(Fault::NoReply, 3);
    EXPECT_EQ(h->cycle(), 8);
    EXPECT_EQ(h->cycle(), 8);
    EXPECT_EQ(h->cycle(), 2);
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {-1, -1, MINUS_ONE, -1}}));
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    EXPECT_EQ(driver.commFailed, 1);
    // The cyclic read carries on and clears the failure.
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_EQ(driver.curFrameKind, 4);
    EXPECT_EQ(driver.commFailed, 0);
}

TEST_F(PollingCycle, ARecipeIsWrittenAndReadThroughTheTwoFlagBytes)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, I_W, 0, 1)});
    // Two variables, "M_W" 0 (2 words, recipe words 0-1) and "M_W" 4 (2 words, recipe
    // words 2-3): one block of 8 bytes.
    ASSERT_EQ(h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 2, 0), Host::rcpVar(1, 1, M_W, 4, 2, 2),
                  Host::rcpVar(2, 1, M_W, 100, 2, 40)}),
        2);
    const Bytes values {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    for (size_t i = 0; i < values.size(); ++i)
        h->recipe[i] = values[i];
    h->setRecipeWriteFlag(1);
    h->plc.clearLog();
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->plc.requests()[0].command, kCmdWrite);
    EXPECT_EQ(h->plc.bytes(kMemory, 0, 8), values);
    EXPECT_EQ(h->recipeWriteFlag(), 0);
    EXPECT_EQ(driver.rcpIndex, 0);
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(driver.curFrameKind, 4);  // back to cyclic reads

    const Bytes plcValues {0x91, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98};
    h->plc.setBytes(kMemory, 0, plcValues);
    h->setRecipeReadFlag(1);
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(driver.curFrameKind, 6);
    EXPECT_EQ(Bytes(h->recipe.begin(), h->recipe.begin() + 8), plcValues);
    EXPECT_EQ(h->recipeReadFlag(), 0);
    std::vector<Report> expected;
    for (int idx : {0, 0, 1, 1, 2, 2, 3, 3})
        expected.push_back(Report {0, -1, RWI, idx});
    EXPECT_EQ(h->reports, expected);
}

TEST_F(PollingCycle, TheRetryLimitIsEightEightTwo)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_W, 0, 1), Host::key(1, M_W, 500, 1)});
    h->plc.injectFault(Fault::Short, 3);
    EXPECT_EQ(h->cycle(), 8);
    EXPECT_EQ(h->errorText, QString::fromLatin1("1#M_W0(2)(47)"));
    EXPECT_EQ(h->cycle(), 8);
    EXPECT_EQ(h->cycle(), 2);
    EXPECT_EQ(h->errorText, QString::fromLatin1("1#M_W0(2)(47)"));
    EXPECT_EQ(driver.commFailed, 1);
    EXPECT_TRUE(driver.frameList.isEmpty());
    // The same request three times; then the next block.
    ASSERT_EQ(h->plc.requests().size(), 4u);
    for (int i = 1; i <= 3; ++i)
        EXPECT_EQ(h->plc.requests()[size_t(i)].frame, h->plc.requests()[1].frame);
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->plc.requests().back().offset, 500u);
    EXPECT_EQ(h->errorText, QString::fromLatin1("1#M_W500(2)(48)"));
    EXPECT_EQ(driver.commFailed, 0);
}

TEST_F(PollingCycle, AWriteGivenUpFallsBackToTheReadValue)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_W, 10, 1)});
    h->plc.setBytes(kMemory, 10, {0x01, 0x02});
    ASSERT_EQ(h->cycle(), 1);
    h->setData(1, M_W, 10, {0x0A, 0x0B});
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2), (Bytes {0x0A, 0x0B}));
    h->plc.injectFault(Fault::NoReply, 3);
    h->clearReports();
    EXPECT_EQ(h->cycle(), 8);
    EXPECT_EQ(h->cycle(), 8);
    EXPECT_EQ(h->cycle(), 2);
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2), (Bytes {0x01, 0x02}));
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {1, 1, M_W, 10}, Report {1, 1, M_W, 10}}));
    EXPECT_TRUE(driver.writeList.isEmpty());
    // The PLC carried out the unanswered writes: the next read brings the written value.
    h->clearReports();
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2), (Bytes {0x0A, 0x0B}));
}

TEST_F(PollingCycle, AHandshakeThatNeverGetsAnAnswerIsGivenUpAndStartedAgain)
{
    h->plc.injectFault(Fault::NoReply, 3);
    EXPECT_EQ(h->cycle(), 8);
    EXPECT_EQ(h->cycle(), 8);
    EXPECT_EQ(h->cycle(), 2);
    EXPECT_EQ(driver.needHandShake, 1);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(h->frame.sendLen, 78);
}

}  // namespace
