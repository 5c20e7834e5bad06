// Digesting replies: result codes, error texts, retries and giving up, read data into the
// cache, write acknowledgements, recipe reads into the host's buffer, and robustness
// against whatever bytes the PLC (or the network) delivers.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <cstring>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"
#include "test_plc.h"

using namespace adstest;

namespace {

class ReplyHandling : public DriverTest {
protected:
    void startWithReadBlock(int address = 100, int words = 1)
    {
        ASSERT_TRUE(h->handshake());
        ASSERT_GE(h->addrMerge({Host::key(1, M_W, address, words)}), 1);
    }
};

TEST_F(ReplyHandling, NoFrameInFlightGivesZeroAndAnEmptyText)
{
    ASSERT_TRUE(h->handshake());
    ASSERT_TRUE(driver.frameList.isEmpty());
    QString text = QString::fromLatin1("stale");
    QByteArray reply = replyOfSize(46);
    EXPECT_EQ(intf_dealRcvFrame(reply, text), 0);
    EXPECT_TRUE(text.isEmpty());
}

TEST_F(ReplyHandling, ErrorTextNamesTheItemAndTheReplySizeEvenOnSuccess)
{
    startWithReadBlock(100, 1);
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->lastReply.size(), 48);
    EXPECT_EQ(h->errorText, QString::fromLatin1("1#M_W100(2)(48)"));
}

TEST_F(ReplyHandling, ErrorTextOnRejectedRepliesCarriesTheirSize)
{
    startWithReadBlock(100, 1);
    EXPECT_EQ(h->cycle(Fault::Short), 8);
    EXPECT_EQ(h->errorText, QString::fromLatin1("1#M_W100(2)(47)"));
    EXPECT_EQ(h->cycle(Fault::NoReply), 8);
    EXPECT_EQ(h->errorText, QString::fromLatin1("1#M_W100(2)(0)"));
}

TEST_F(ReplyHandling, ErrorTextOfABitWriteReadUsesTheBitAddressText)
{
    ASSERT_TRUE(h->handshake());
    h->setData(1, M_bit, 83, {1});
    EXPECT_EQ(h->cycle(Fault::Long), 8);
    EXPECT_EQ(h->errorText, QString::fromLatin1("1#M_bit10.3(1)(48)"));
}

TEST_F(ReplyHandling, ErrorTextOfTheHandshakeIsEmpty)
{
    h->errorText = QString::fromLatin1("stale");
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_TRUE(h->errorText.isEmpty());
}

TEST_F(ReplyHandling, ErrorTextOfAWordWrite)
{
    ASSERT_TRUE(h->handshake());
    h->setData(3, M_W, 10, {0x34, 0x12});
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->errorText, QString::fromLatin1("3#M_W10(2)(42)"));
}

TEST_F(ReplyHandling, RetryLimitThreeGivesEightEightThenTwo)
{
    startWithReadBlock();
    EXPECT_EQ(h->cycle(Fault::NoReply), 8);
    EXPECT_EQ(driver.errorCount, 1);
    EXPECT_EQ(driver.frameList.size(), 1);
    EXPECT_EQ(h->cycle(Fault::NoReply), 8);
    EXPECT_EQ(driver.errorCount, 2);
    EXPECT_EQ(h->cycle(Fault::NoReply), 2);
    EXPECT_EQ(driver.commFailed, 1);
    EXPECT_TRUE(driver.frameList.isEmpty());
    EXPECT_EQ(driver.errorCount, 0);
    // The same frame was sent three times in all.
    EXPECT_EQ(h->plc.requests().size(), 4u);  // handshake + 3
}

TEST_F(ReplyHandling, AnAcceptedReplyResetsTheRetryCountAndTheFailure)
{
    startWithReadBlock();
    EXPECT_EQ(h->cycle(Fault::Short), 8);
    EXPECT_EQ(h->cycle(Fault::Short), 8);
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_EQ(driver.errorCount, 0);
    EXPECT_EQ(h->cycle(Fault::Short), 8);
    EXPECT_EQ(h->cycle(Fault::Short), 8);
    EXPECT_EQ(h->cycle(Fault::Short), 2);
    EXPECT_EQ(driver.commFailed, 1);
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_EQ(driver.commFailed, 0);
}

TEST_F(ReplyHandling, OneByteTooLongOrAnAdsErrorIsRejected)
{
    startWithReadBlock();
    EXPECT_EQ(h->cycle(Fault::Long), 8);
    EXPECT_EQ(h->cycle(Fault::AdsError), 8);
    EXPECT_EQ(h->lastReply.size(), 46);  // result and a zero length
    EXPECT_EQ(h->cycle(Fault::Full1024), 2);
}

TEST_F(ReplyHandling, A1024ByteReplyToTheHandshakeGivesThreeAndKeepsItInFlight)
{
    EXPECT_EQ(h->cycle(Fault::Full1024), 3);
    EXPECT_EQ(driver.needHandShake, 1);
    EXPECT_EQ(driver.frameList.size(), 1);
    EXPECT_EQ(driver.errorCount, 0);
    EXPECT_EQ(h->cycle(Fault::Full1024), 3);
    EXPECT_EQ(h->cycle(Fault::Full1024), 3);  // never counted as a rejection
    EXPECT_EQ(driver.frameList.size(), 1);
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_EQ(driver.needHandShake, 0);
}

TEST_F(ReplyHandling, ALongerHandshakeReplyIsAcceptedAShorterOneIsNot)
{
    EXPECT_EQ(h->cycle(Fault::Short), 8);
    EXPECT_EQ(driver.needHandShake, 1);
    EXPECT_EQ(h->cycle(Fault::Long), 1);
    EXPECT_EQ(driver.needHandShake, 0);
    EXPECT_TRUE(driver.frameList.isEmpty());
}

TEST_F(ReplyHandling, A1024ByteReplyToAWriteIsAWrongLength)
{
    ASSERT_TRUE(h->handshake());
    h->setData(1, M_W, 10, {1, 2});
    EXPECT_EQ(h->cycle(Fault::Full1024), 8);
    EXPECT_EQ(driver.frameList.size(), 1);
}

TEST_F(ReplyHandling, TheAdsResultOfAWriteReplyIsNotExamined)
{
    // An ADS error answer to a Write has the length of a good one (42 bytes): accepted.
    ASSERT_TRUE(h->handshake());
    h->setData(1, M_W, 10, {0x34, 0x12});
    EXPECT_EQ(h->cycle(Fault::AdsError), 1);
    EXPECT_EQ(h->lastReply.size(), 42);
    EXPECT_EQ(h->plc.bytes(kMemory, 10, 2), (std::vector<uint8_t> {0, 0}));  // not carried out
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).value[0], 0x34);              // but settled as done
    EXPECT_TRUE(driver.writeList.isEmpty());
}

TEST_F(ReplyHandling, AnAcknowledgedWriteIsSettledAsSuccess)
{
    ASSERT_TRUE(h->handshake());
    h->setData(1, M_W, 10, {0x34, 0x12});
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).writeFlag, 1);
    EXPECT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->lastReply.size(), 42);
    const _DATA_& a10 = at(QString::fromLatin1("M"), 10);
    const _DATA_& a11 = at(QString::fromLatin1("M"), 11);
    EXPECT_EQ(a10.writeFlag, 0);
    EXPECT_EQ(a11.writeFlag, 0);
    EXPECT_EQ(a10.value[0], 0x34);
    EXPECT_EQ(a11.value[0], 0x12);
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_EQ(h->plc.bytes(kMemory, 10, 2), (std::vector<uint8_t> {0x34, 0x12}));
}

TEST_F(ReplyHandling, AWriteThatFailsForGoodIsSettledAsFailureAndDropped)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_W, 10, 1)});
    stopCyclicReads();  // keep only the write in play
    h->setData(1, M_W, 10, {0x34, 0x12});
    h->clearReports();
    EXPECT_EQ(h->cycle(Fault::Short), 8);
    EXPECT_EQ(h->cycle(Fault::Short), 8);
    EXPECT_EQ(h->cycle(Fault::Short), 2);
    EXPECT_TRUE(driver.writeList.isEmpty());
    const _DATA_& a10 = at(QString::fromLatin1("M"), 10);
    EXPECT_EQ(a10.writeFlag, 0);
    EXPECT_EQ(a10.value[0], 0);
    // The word is reported so that the host redraws the old value: once per unit.
    const Report w {1, 1, M_W, 10};
    EXPECT_EQ(h->reports, (std::vector<Report> {w, w}));
}

TEST_F(ReplyHandling, ABitWriteWhoseReadFailsForGoodIsSettledAndItsWriteDiscarded)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_bit, 83, 1)});
    stopCyclicReads();
    h->plc.setBytes(kMemory, 10, {0xF0});
    h->setData(1, M_bit, 83, {1});
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).writeFlag, 1);
    h->clearReports();
    h->plc.clearLog();
    EXPECT_EQ(h->cycle(Fault::NoReply), 8);
    EXPECT_EQ(h->cycle(Fault::NoReply), 8);
    EXPECT_EQ(driver.frameList.size(), 2);
    EXPECT_EQ(h->cycle(Fault::NoReply), 2);
    EXPECT_TRUE(driver.frameList.isEmpty());
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_EQ(h->fetch(), 0);  // the write frame is gone
    for (const Request& r : h->plc.requests())
        EXPECT_EQ(r.command, kCmdRead);
    EXPECT_EQ(h->plc.byteAt(kMemory, 10), 0xF0);
    const _DATA_& a = at(QString::fromLatin1("M"), 10);
    EXPECT_EQ(a.writeFlag, 0);
    EXPECT_EQ(a.value[0] & 0x08, 0);
    // Settled as failed: the monitored bit is reported for a redraw.
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {1, 1, M_bit, 83}}));
}

TEST_F(ReplyHandling, AReadReplyCarryingTheCachedValueCallsNoChangeRoutine)
{
    startWithReadBlock(10, 1);
    h->plc.setBytes(kMemory, 10, {0x05, 0x00});
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {1, 1, M_W, 10}}));
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_TRUE(h->reports.empty());
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).value[0], 0x05);
}

TEST_F(ReplyHandling, ADifferentReadValueHidesTheWrittenOneUnlessBitWritesAreQueued)
{
    VARIABLE v;
    v.kind = 4;
    v.keyNo = 1;
    v.regName = M_W;
    v.address = 10;
    v.length = 2;
    std::memset(v.data, 0, sizeof v.data);
    for (int a : {10, 11}) {
        _DATA_& d = adstest::unitRef(idx(QString::fromLatin1("M"), a));
        d.writeFlag = 1;
        d.writeValue[0] = 0x77;
    }
    adstest::unitRef(idx(QString::fromLatin1("M"), 10)).bitWriteState = 1;
    h->setData(1, M_W, 200, {1, 1});  // the write list is not empty
    driver.curFrameKind = 4;
    analyzeFrameOfVal(readReply({0x55, 0x66}), 2, 46, v);
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).writeFlag, 1);  // queued bit write: kept
    EXPECT_EQ(at(QString::fromLatin1("M"), 11).writeFlag, 0);
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).value[0], 0x55);
    EXPECT_EQ(at(QString::fromLatin1("M"), 11).value[0], 0x66);
    // With no write queued the flag goes as well.
    driver.writeList.clear();
    analyzeFrameOfVal(readReply({0x56, 0x66}), 2, 46, v);
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).writeFlag, 0);
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).value[0], 0x56);
}

TEST_F(ReplyHandling, TheReadOfABitWriteDoesNotUpdateTheCache)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_bit, 80, 8)});
    stopCyclicReads();
    h->plc.setBytes(kMemory, 10, {0xF0});
    h->setData(1, M_bit, 83, {1});
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);  // the read half
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).value[0], 0x00);
    EXPECT_TRUE(h->reports.empty());
    ASSERT_EQ(h->cycle(), 1);  // the write half, acknowledged: only bit 3 is taken over
    EXPECT_EQ(h->plc.byteAt(kMemory, 10), 0xF8);
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).value[0], 0x08);
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).writeFlag, 0);
}

TEST_F(ReplyHandling, EveryReplyByteIsStoredInItsUnit)
{
    startWithReadBlock(20, 3);  // bytes 20..25
    h->plc.setBytes(kMemory, 20, {1, 2, 3, 4, 5, 6});
    ASSERT_EQ(h->cycle(), 1);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(at(QString::fromLatin1("M"), 20 + i).value[0], i + 1) << i;
}

TEST_F(ReplyHandling, GivingUpOnACyclicReadStillTurnsTheReadList)
{
    ASSERT_TRUE(h->handshake());
    ASSERT_EQ(h->addrMerge({Host::key(1, M_W, 0, 1), Host::key(1, M_W, 400, 1)}), 2);
    EXPECT_EQ(h->cycle(Fault::NoReply), 8);
    EXPECT_EQ(h->cycle(Fault::NoReply), 8);
    EXPECT_EQ(h->cycle(Fault::NoReply), 2);
    ASSERT_EQ(driver.readList.size(), 2);
    EXPECT_EQ(driver.readList.at(0).address, 400);
    EXPECT_EQ(driver.readList.at(1).address, 0);
}

TEST_F(ReplyHandling, RecipeReadCopiesIntoTheHostBufferAndReportsEachByte)
{
    ASSERT_TRUE(h->handshake());
    h->addrMerge({Host::key(1, M_W, 4, 1)});  // word 4 is on a screen too
    stopCyclicReads();
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 2, 0), Host::rcpVar(1, 1, M_W, 4, 2, 10)});
    ASSERT_EQ(driver.rcpTransferList.size(), 1);
    h->plc.setBytes(kMemory, 0, {0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17});
    h->setRecipeReadFlag(1);
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(driver.curFrameKind, 6);
    for (int j = 0; j < 4; ++j)
        EXPECT_EQ(h->recipe[size_t(j)], 0x10 + j) << j;
    for (int j = 0; j < 4; ++j)
        EXPECT_EQ(h->recipe[size_t(20 + j)], 0x14 + j) << j;
    EXPECT_EQ(h->recipe[4], 0);
    EXPECT_EQ(h->recipe[24], 0);
    // The cache reports come first, then two "RWI" reports per recipe word.
    const Report w {1, 1, M_W, 4};
    std::vector<Report> expected {w, w};
    for (int idx : {0, 0, 1, 1, 10, 10, 11, 11})
        expected.push_back(Report {0, -1, RWI, idx});
    EXPECT_EQ(h->reports, expected);
    EXPECT_EQ(h->recipeReadFlag(), 0);
    // The recipe read refreshes the cache like any read.
    EXPECT_EQ(at(QString::fromLatin1("M"), 7).value[0], 0x17);
}

TEST_F(ReplyHandling, RecipeReplyBytesBeyondTheEndOfTheReplyAreTakenAsZero)
{
    ASSERT_TRUE(h->handshake());
    // A bit variable: 10 bits from bit 3 lie in bytes 0 and 1, but the copy takes
    // 2 x 10 bytes from the reply: the 18 beyond its end are zeros.
    h->setRcpAddress({Host::rcpVar(1, 1, M_bit, 3, 10, 5)});
    std::fill(h->recipe.begin(), h->recipe.begin() + 64, 0xAA);
    h->plc.setBytes(kMemory, 0, {0x12, 0x34, 0x56});
    h->setRecipeReadFlag(1);
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->lastReply.size(), 48);
    EXPECT_EQ(h->recipe[9], 0xAA);
    EXPECT_EQ(h->recipe[10], 0x12);
    EXPECT_EQ(h->recipe[11], 0x34);
    for (int j = 12; j < 30; ++j)
        EXPECT_EQ(h->recipe[size_t(j)], 0) << j;
    EXPECT_EQ(h->recipe[30], 0xAA);
    std::vector<Report> expected;
    for (int j = 0; j < 20; ++j)
        expected.push_back(Report {0, -1, RWI, 5 + j / 2});
    EXPECT_EQ(h->reports, expected);
}

TEST_F(ReplyHandling, RecipeReadOfTheSecondBlockUsesItsOwnVariables)
{
    ASSERT_TRUE(h->handshake());
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 1, 0), Host::rcpVar(1, 1, M_W, 6, 1, 3)});
    ASSERT_EQ(driver.rcpBlockStartList, (QList<int> {0, 1}));
    h->plc.setBytes(kMemory, 0, {1, 2, 3, 4, 5, 6, 7, 8});
    h->setRecipeReadFlag(1);
    ASSERT_EQ(h->cycle(), 1);
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->recipe[6], 7);
    EXPECT_EQ(h->recipe[7], 8);
    EXPECT_EQ(h->reports, (std::vector<Report> {Report {0, -1, RWI, 3}, Report {0, -1, RWI, 3}}));
}

// ------------------------------------------------------------------ robustness
//
// Whatever arrives, the driver stays inside its own buffers and answers with one of its
// codes. (Run under AddressSanitizer to make an overrun fatal.)

TEST_F(ReplyHandling, AKeptRecipeReadAfterACallWithNothingOfOursFillsNothing)
{
    // intf_setRcpAddress empties the recipe variables before it finds none of this driver,
    // so the kept transfer list is still read from the PLC but copied nowhere.
    ASSERT_TRUE(h->handshake());
    stopCyclicReads();
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 2, 0)});
    EXPECT_EQ(h->setRcpAddress({Host::rcpVar(7, 1, M_W, 0, 2, 0)}), 0);
    ASSERT_EQ(driver.rcpTransferList.size(), 1);
    ASSERT_TRUE(driver.rcpVarList.isEmpty());
    h->plc.setBytes(kMemory, 0, {0x10, 0x11, 0x12, 0x13});
    std::fill(h->recipe.begin(), h->recipe.begin() + 8, 0xAA);
    h->setRecipeReadFlag(1);
    h->clearReports();
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(driver.curFrameKind, 6);
    EXPECT_EQ(h->lastReply.size(), 50);  // the four bytes were read
    for (int j = 0; j < 8; ++j)
        EXPECT_EQ(h->recipe[size_t(j)], 0xAA) << j;
    EXPECT_TRUE(h->reportsWithText(QString::fromLatin1("RWI")).empty());
    EXPECT_EQ(h->recipeReadFlag(), 0);
}

// The request kinds as `driver.curFrameKind` numbers them (ads_ethernet.h).
enum RequestKind { kHandshake = 1, kWrite = 2, kConditionRead = 3, kCyclicRead = 4, kRecipeWrite = 5, kRecipeRead = 6 };

// What a reply may change in the driver, taken before and after it: the cache unit by unit,
// the three queues item by item, the frames in flight, the retry count, the handshake and
// recipe state and the host's recipe buffer.
struct DriverState {
    using Unit = std::array<int, 13>;  // keyNo, area, address, value[4], writeFlag, writeValue[4], bitWriteState
    std::vector<Unit> cache;
    std::vector<std::string> writes, conditionReads, cyclicReads;
    std::vector<std::string> frames;
    int errorCount = 0, needHandShake = 0, rcpIndex = 0, recipeWriteFlag = 0, recipeReadFlag = 0;
    std::vector<uint8_t> recipe;

    static std::string item(const VARIABLE& v)
    {
        std::ostringstream os;
        os << v.kind << "/" << v.keyNo << "/" << v.regName.toStdString() << "/" << v.address << "/" << v.length << "/";
        const int n = std::min(std::max(v.length, 0), int(sizeof v.data));
        for (int i = 0; i < n; ++i)
            os << std::hex << int(v.data[i]) << ".";
        return os.str();
    }
    static std::vector<std::string> items(const QList<VARIABLE>& list)
    {
        std::vector<std::string> out;
        for (const VARIABLE& v : list)
            out.push_back(item(v));
        return out;
    }
    static DriverState of(const Host& h)
    {
        DriverState s;
        for (const _DATA_& d : driver.dataAreaList)
            s.cache.push_back(Unit {d.keyNo, d.areaName.isEmpty() ? 0 : d.areaName.at(0).toLatin1(), d.address,
                d.value[0], d.value[1], d.value[2], d.value[3], d.writeFlag, d.writeValue[0], d.writeValue[1],
                d.writeValue[2], d.writeValue[3], int(d.bitWriteState)});
        s.writes = items(driver.writeList);
        s.conditionReads = items(driver.conditionReadList);
        s.cyclicReads = items(driver.readList);
        for (const FRAME_PRO& f : driver.frameList) {
            const QByteArray hex = frameBytes(f).toHex();
            s.frames.push_back(std::string(hex.constData(), size_t(hex.size())));
        }
        s.errorCount = driver.errorCount;
        s.needHandShake = driver.needHandShake;
        s.rcpIndex = driver.rcpIndex;
        s.recipeWriteFlag = h.recipeWriteFlag();
        s.recipeReadFlag = h.recipeReadFlag();
        s.recipe.assign(h.recipe.begin(), h.recipe.begin() + 512);
        return s;
    }
    // The cache without the marks a settled write clears: the value of each unit by its key.
    std::map<std::array<int, 3>, std::array<int, 4>> values() const
    {
        std::map<std::array<int, 3>, std::array<int, 4>> out;
        for (const Unit& u : cache)
            out[{u[0], u[1], u[2]}] = {u[3], u[4], u[5], u[6]};
        return out;
    }
};

class ReplyRobustness : public ReplyHandling {
protected:
    std::mt19937 rng {12345};
    QByteArray randomBytes(int n)
    {
        QByteArray b(n, '\0');
        for (int i = 0; i < n; ++i)
            b[i] = char(rng() & 0xFF);
        return b;
    }
    // Puts a frame of the given scenario in flight; false when none could be built.
    bool prepare(int scenario)
    {
        if (h->fetch() == 1)
            return true;
        switch (scenario) {
        case 0:  // handshake
            h->init();
            break;
        case 1:  // cyclic reads of several blocks
            h->addrMerge({Host::key(1, M_W, 0, 64), Host::key(1, M_bit, 8000, 30),
                Host::key(2, QString::fromLatin1("I_W"), 10, 3)});
            break;
        case 2:  // word writes
            h->setData(1, M_W, 10, std::vector<uint8_t>(200, 0x5A));
            break;
        case 3:  // bit writes (a read, then the write)
            h->setData(1, M_bit, 83, std::vector<uint8_t>(20, 1));
            break;
        case 4: {  // condition reads
            KEY_ADDRESS k = Host::key(1, QString::fromLatin1("Q_W"), 30, 100);
            intf_addConditionRead(&k, 1);
            break;
        }
        case 5:  // recipe reads, words and bits
            h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 64, 0), Host::rcpVar(1, 1, M_W, 200, 3, 100),
                Host::rcpVar(1, 1, M_bit, 4000, 40, 200)});
            h->setRecipeReadFlag(1);
            break;
        case 6:  // recipe writes
            h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 64, 0), Host::rcpVar(1, 1, M_bit, 4000, 40, 200)});
            h->setRecipeWriteFlag(1);
            break;
        }
        return h->fetch() == 1;
    }

    // Delivers `reply` to the frame in flight and checks the result code and what the reply
    // left behind: a rejected reply (8) or a full-buffer handshake reply (3) changes nothing
    // but the retry count and the same frame goes out again; a give-up (2) leaves the cached
    // values alone, settles the request as its kind does and drops the frame; an accepted
    // read reply (1) puts its bytes into the units read.
    int deliverAndCheck(const QByteArray& reply, const std::string& where)
    {
        SCOPED_TRACE(where);
        const DriverState before = DriverState::of(*h);
        const QByteArray sent = frameBytes(h->frame);
        const FRAME_PRO inFlight = h->frame;
        const int kind = driver.curFrameKind;
        const int r = h->deliver(reply);
        const DriverState after = DriverState::of(*h);
        switch (r) {
        case 8:
        case 3: {
            DriverState expected = before;
            expected.errorCount += r == 8 ? 1 : 0;
            expectSameState(after, expected);
            EXPECT_EQ(h->fetch(), 1);
            EXPECT_EQ(frameBytes(h->frame), sent) << "the same frame is sent again";
            break;
        }
        case 2:
            expectGivenUp(kind, before, after);
            break;
        case 1:
            EXPECT_EQ(after.errorCount, 0);
            if (kind == kCyclicRead || kind == kConditionRead)
                expectReadIntoCache(inFlight, reply);
            break;
        default:
            ADD_FAILURE() << "code " << r << " for " << reply.size() << " bytes";
        }
        return r;
    }

    static void expectSameState(const DriverState& a, const DriverState& b)
    {
        EXPECT_EQ(a.cache, b.cache);
        EXPECT_EQ(a.writes, b.writes);
        EXPECT_EQ(a.conditionReads, b.conditionReads);
        EXPECT_EQ(a.cyclicReads, b.cyclicReads);
        EXPECT_EQ(a.frames, b.frames);
        EXPECT_EQ(a.errorCount, b.errorCount);
        EXPECT_EQ(a.needHandShake, b.needHandShake);
        EXPECT_EQ(a.rcpIndex, b.rcpIndex);
        EXPECT_EQ(a.recipeWriteFlag, b.recipeWriteFlag);
        EXPECT_EQ(a.recipeReadFlag, b.recipeReadFlag);
        EXPECT_EQ(a.recipe, b.recipe);
    }

    // Giving up: no cached value changes, the retry count starts again, no frame is left in
    // flight, and only the queue of the request's kind moves. Settling a failed word write
    // covers twice its bytes (docs/INTERNALS.md K28): units behind it may be created, unread.
    void expectGivenUp(int kind, const DriverState& before, const DriverState& after)
    {
        auto values = after.values();
        for (const auto& unit : before.values()) {
            EXPECT_EQ(values[unit.first], unit.second)
                << "unit " << unit.first[0] << "/" << char(unit.first[1]) << "/" << unit.first[2];
            values.erase(unit.first);
        }
        if (kind != kWrite)
            EXPECT_TRUE(values.empty()) << values.size() << " units created";
        for (const auto& created : values)
            EXPECT_EQ(created.second, (std::array<int, 4> {0, 0, 0, 0})) << "created unit " << created.first[2];
        EXPECT_EQ(after.errorCount, 0);
        EXPECT_TRUE(after.frames.empty());
        EXPECT_EQ(after.recipe, before.recipe);
        std::vector<std::string> writes = before.writes, conditions = before.conditionReads,
                                 cyclic = before.cyclicReads;
        int rcpIndex = before.rcpIndex, writeFlag = before.recipeWriteFlag, readFlag = before.recipeReadFlag;
        switch (kind) {
        case kHandshake:
            EXPECT_EQ(after.needHandShake, 1);
            break;
        case kWrite:  // the head of the write queue is dropped
            ASSERT_FALSE(writes.empty());
            writes.erase(writes.begin());
            break;
        case kConditionRead:  // every queued condition read is dropped
            conditions.clear();
            break;
        case kCyclicRead:  // the block goes to the end of the turn
            ASSERT_FALSE(cyclic.empty());
            std::rotate(cyclic.begin(), cyclic.begin() + 1, cyclic.end());
            break;
        case kRecipeWrite:  // the transfer ends
            rcpIndex = 0;
            writeFlag = 0;
            break;
        case kRecipeRead:
            rcpIndex = 0;
            readFlag = 0;
            break;
        default:
            ADD_FAILURE() << "given up in kind " << kind;
        }
        EXPECT_EQ(after.writes, writes);
        EXPECT_EQ(after.conditionReads, conditions);
        EXPECT_EQ(after.cyclicReads, cyclic);
        EXPECT_EQ(after.rcpIndex, rcpIndex);
        EXPECT_EQ(after.recipeWriteFlag, writeFlag);
        EXPECT_EQ(after.recipeReadFlag, readFlag);
    }

    // The bytes of an accepted read reply are the cached values of the units read.
    void expectReadIntoCache(const FRAME_PRO& f, const QByteArray& reply)
    {
        const QString area = f.var.regName.section(QLatin1Char('_'), 0, 0);
        ASSERT_FALSE(f.var.regName.endsWith(QLatin1String("_bit")));  // merged into its word register
        for (int i = 0; i < f.readLen; ++i)
            ASSERT_EQ(at(area, f.var.address + i, f.var.keyNo).value[0], uint8_t(reply[f.dataStart + i]))
                << f.var.regName.toStdString() << f.var.address << " + " << i;
    }
};

TEST_F(ReplyRobustness, RandomRepliesOfEveryLengthUpTo2000Bytes)
{
    for (int scenario = 0; scenario <= 6; ++scenario) {
        h->init();
        if (scenario != 0)
            ASSERT_TRUE(h->handshake());
        for (int len = 0; len <= 2000; ++len) {
            ASSERT_TRUE(prepare(scenario)) << "scenario " << scenario;
            deliverAndCheck(randomBytes(len),
                "scenario " + std::to_string(scenario) + ", " + std::to_string(len) + " random bytes");
            if (HasFailure())
                return;
        }
    }
}

TEST_F(ReplyRobustness, RandomRepliesOfTheExpectedLengthAndOf1024Bytes)
{
    for (int scenario = 0; scenario <= 6; ++scenario) {
        h->init();
        if (scenario != 0)
            ASSERT_TRUE(h->handshake());
        for (int round = 0; round < 300; ++round) {
            ASSERT_TRUE(prepare(scenario)) << "scenario " << scenario;
            const int len = (round % 3 == 0) ? 1024 : h->frame.recvLen;
            const int r = deliverAndCheck(randomBytes(len),
                "scenario " + std::to_string(scenario) + ", round " + std::to_string(round) + ", " + std::to_string(len)
                    + " bytes");
            if (len == h->frame.recvLen && r != 1 && scenario != 0) {
                ADD_FAILURE() << "a reply of the expected length " << len << " gave " << r;
            }
            if (HasFailure())
                return;
        }
    }
}

TEST_F(ReplyRobustness, OversizedReplyToAReadIsRejectedWithoutTouchingTheCache)
{
    startWithReadBlock(10, 1);
    h->plc.setBytes(kMemory, 10, {0x12, 0x34});
    ASSERT_EQ(h->cycle(), 1);
    const DriverState first = DriverState::of(*h);
    for (int len : {1024, 1025, 2000, 4096, 65536}) {
        ASSERT_EQ(h->fetch(), 1);
        const int r = deliverAndCheck(randomBytes(len), std::to_string(len) + " bytes");
        EXPECT_TRUE(r == 8 || r == 2) << len;
    }
    EXPECT_EQ(DriverState::of(*h).cache.size(), first.cache.size());
    EXPECT_EQ(DriverState::of(*h).values(), first.values());
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).value[0], 0x12);
}

// ------------------------------------------------------------------ after a bad reply, one by one

TEST_F(ReplyRobustness, ARejectedWriteReplyKeepsTheQueueAndTheCacheAndSendsTheSameFrame)
{
    ASSERT_TRUE(h->handshake());
    h->setData(1, M_W, 10, {0x34, 0x12});
    h->setData(1, M_W, 20, {0x78, 0x56});
    ASSERT_EQ(h->fetch(), 1);
    const DriverState before = DriverState::of(*h);
    EXPECT_EQ(deliverAndCheck(replyOfSize(43), "43 bytes to a write"), 8);
    const DriverState after = DriverState::of(*h);
    EXPECT_EQ(after.writes.size(), 2u);
    EXPECT_EQ(after.cache, before.cache);
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).writeFlag, 1);  // still shown as written
    EXPECT_EQ(u32(h->frame.frame + 42), 10u);                  // the first write again
}

TEST_F(ReplyRobustness, AWriteGivenUpDropsOnlyItsPieceAndTheNextWriteGoesOut)
{
    ASSERT_TRUE(h->handshake());
    h->setData(1, M_W, 10, {0x34, 0x12});
    h->setData(1, M_W, 20, {0x78, 0x56});
    ASSERT_EQ(h->fetch(), 1);
    ASSERT_EQ(deliverAndCheck(replyOfSize(41), "first"), 8);
    ASSERT_EQ(deliverAndCheck(replyOfSize(41), "second"), 8);
    ASSERT_EQ(deliverAndCheck(replyOfSize(41), "third"), 2);
    ASSERT_EQ(driver.writeList.size(), 1);
    EXPECT_EQ(driver.writeList.first().address, 20);
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).writeFlag, 0);  // settled as failed: the old value shows
    EXPECT_EQ(at(QString::fromLatin1("M"), 10).value[0], 0);
    EXPECT_EQ(at(QString::fromLatin1("M"), 20).writeFlag, 1);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(h->frame.frame[22], kCmdWrite);
    EXPECT_EQ(u32(h->frame.frame + 42), 20u);  // the next write
    EXPECT_EQ(h->frame.frame[50], 0x78);
}

TEST_F(ReplyRobustness, AConditionReadGivenUpDropsEveryQueuedPieceAndTheCyclicReadGoesOn)
{
    ASSERT_TRUE(h->handshake());
    ASSERT_GE(h->addrMerge({Host::key(1, M_W, 500, 1)}), 1);
    h->plc.setBytes(kMemory, 30, {9, 9});
    KEY_ADDRESS k = Host::key(1, M_W, 30, 100);  // 200 bytes: four pieces of 64 bytes
    intf_addConditionRead(&k, 1);
    ASSERT_GT(driver.conditionReadList.size(), 1);
    ASSERT_EQ(h->fetch(), 1);
    ASSERT_EQ(driver.curFrameKind, int(kConditionRead));
    ASSERT_EQ(deliverAndCheck(replyOfSize(10), "first"), 8);
    ASSERT_EQ(deliverAndCheck(replyOfSize(10), "second"), 8);
    ASSERT_EQ(deliverAndCheck(replyOfSize(10), "third"), 2);
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    EXPECT_EQ(at(QString::fromLatin1("M"), 30).value[0], 0);  // nothing was read
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(driver.curFrameKind, int(kCyclicRead));
    EXPECT_EQ(u32(h->frame.frame + 42), 500u);
}

TEST_F(ReplyRobustness, ACyclicReadGivenUpKeepsTheCacheAndTheNextBlockIsRead)
{
    ASSERT_TRUE(h->handshake());
    ASSERT_EQ(h->addrMerge({Host::key(1, M_W, 0, 1), Host::key(1, M_W, 400, 1)}), 2);
    h->plc.setBytes(kMemory, 0, {0x11, 0x22});
    ASSERT_EQ(h->cycle(), 1);  // block 0 read: 0x11 0x22 cached
    ASSERT_EQ(h->cycle(), 1);  // block 400
    h->plc.setBytes(kMemory, 0, {0x33, 0x44});
    ASSERT_EQ(h->fetch(), 1);
    ASSERT_EQ(u32(h->frame.frame + 42), 0u);
    ASSERT_EQ(deliverAndCheck(QByteArray(), "first"), 8);
    ASSERT_EQ(deliverAndCheck(QByteArray(), "second"), 8);
    ASSERT_EQ(deliverAndCheck(QByteArray(), "third"), 2);
    EXPECT_EQ(at(QString::fromLatin1("M"), 0).value[0], 0x11);
    EXPECT_EQ(at(QString::fromLatin1("M"), 1).value[0], 0x22);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(u32(h->frame.frame + 42), 400u);  // the turn goes on with the other block
}

TEST_F(ReplyRobustness, ARecipeReadGivenUpLeavesTheRecipeBufferAndClearsTheFlag)
{
    ASSERT_TRUE(h->handshake());
    stopCyclicReads();
    h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 2, 0), Host::rcpVar(1, 1, M_W, 10, 2, 4)});
    std::fill(h->recipe.begin(), h->recipe.begin() + 16, 0xAA);
    h->setRecipeReadFlag(1);
    ASSERT_EQ(h->fetch(), 1);
    ASSERT_EQ(driver.curFrameKind, int(kRecipeRead));
    ASSERT_EQ(deliverAndCheck(replyOfSize(7), "first"), 8);
    EXPECT_EQ(h->recipeReadFlag(), 1);
    ASSERT_EQ(deliverAndCheck(replyOfSize(7), "second"), 8);
    ASSERT_EQ(deliverAndCheck(replyOfSize(7), "third"), 2);
    for (int j = 0; j < 16; ++j)
        EXPECT_EQ(h->recipe[size_t(j)], 0xAA) << j;
    EXPECT_EQ(h->recipeReadFlag(), 0);
    EXPECT_EQ(h->fetch(), 0);  // the second block is not read
}

}  // namespace
