// The reference host's library with the real driver plugin against the plcsim executable over
// loopback TCP.
#include "adshost.h"
#include "e2e_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <thread>

using adshost::Address;
using adshost::Change;
using adshost::Exchange;
using adshost::Session;

namespace {

const unsigned I = 0xF020, Q = 0xF030, M = 0x4020;

Address addr(const std::string& text)
{
    Address a;
    std::string why;
    EXPECT_TRUE(adshost::parseAddress(text, a, why)) << why;
    return a;
}

adshost::Write wr(const std::string& text)
{
    adshost::Write w;
    std::string why;
    EXPECT_TRUE(adshost::parseWrite(text, w, why)) << why;
    return w;
}

std::vector<uint8_t> bytes(std::initializer_list<int> v)
{
    std::vector<uint8_t> out;
    for (int x : v)
        out.push_back(uint8_t(x));
    return out;
}

bool hasChange(const std::vector<Change>& cs, const std::string& text, int address)
{
    for (const Change& c : cs)
        if (c.text == text && c.address == address)
            return true;
    return false;
}

int countChange(const std::vector<Change>& cs, const std::string& text, int address)
{
    int n = 0;
    for (const Change& c : cs)
        n += c.text == text && c.address == address;
    return n;
}

class HostE2E : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim.start({"--no-program"})) << "plcsim did not start";
        cfg.driverPath = ADS_PLUGIN;
        cfg.plcHost = "127.0.0.1";
        cfg.plcPort = sim.port();
        cfg.netId = "192.168.1.100.1.1";
        cfg.amsPort = 851;
        cfg.retries = 3;
        cfg.gap = 8;
        cfg.replyTimeoutMs = 200;
        cfg.connectTimeoutMs = 1000;
    }
    void TearDown() override
    {
        session.reset();
        EXPECT_EQ(sim.stop(), 0) << "plcsim did not exit cleanly on SIGTERM";
    }
    void openAndConnect()
    {
        session.reset(new Session);
        std::string why;
        ASSERT_TRUE(session->open(cfg, why)) << why;
        ASSERT_TRUE(session->connect(why)) << why;
    }
    // Steps through the handshake; the next frame is the first regular one.
    void handshake()
    {
        const Exchange ex = session->step();
        ASSERT_EQ(ex.commandId, 6);
        ASSERT_EQ(ex.result, 1);
    }
    // Polls until n more full refreshes (bounded).
    void refreshes(uint64_t n, int ms = 5000)
    {
        const uint64_t target = session->stats().fullRefreshes + n;
        session->run(0, ms, [&] { return session->stats().fullRefreshes >= target; });
        ASSERT_GE(session->stats().fullRefreshes, target) << "screen not refreshed in time";
    }

    adstest::PlcsimProcess sim;
    adshost::Config cfg;
    std::unique_ptr<Session> session;
};

TEST_F(HostE2E, HandshakeIsTheFirstFrameAndTheSimulatorAcceptsIt)
{
    cfg.watches = {addr("M_W:0:2")};
    openAndConnect();
    const Exchange ex = session->step();
    ASSERT_EQ(ex.sent, 1);
    EXPECT_EQ(ex.commandId, 6);  // AddDeviceNotification
    ASSERT_EQ(ex.sendLen, 78);
    EXPECT_EQ(ex.frame[2], 72);                        // AMS/TCP length
    EXPECT_EQ(ex.frame[12] | ex.frame[13] << 8, 100);  // target port of the hello
    EXPECT_EQ(ex.frame[20] | ex.frame[21] << 8, 0x80BB);
    EXPECT_EQ(ex.frame[34], 7);  // invoke id
    // target Net ID as configured
    EXPECT_EQ(std::vector<uint8_t>(ex.frame.begin() + 6, ex.frame.begin() + 12), bytes({192, 168, 1, 100, 1, 1}));
    EXPECT_EQ(ex.replyBytes, 46);
    EXPECT_EQ(ex.result, 1);
    EXPECT_EQ(sim.counter("addnotification"), 1);

    const Exchange next = session->step();
    EXPECT_EQ(next.commandId, 2);  // the screen's read follows
    EXPECT_EQ(next.frame[12] | next.frame[13] << 8, 851);
    EXPECT_EQ(next.frame[20] | next.frame[21] << 8, 0x8147);
    EXPECT_EQ(next.replyBytes, 50);
    EXPECT_EQ(next.result, 1);
    EXPECT_EQ(sim.counter("read"), 1);
}

TEST_F(HostE2E, ScreenWithGapsInAllThreeAreasShowsTheSimulatorsMemoryAndReportsChanges)
{
    ASSERT_TRUE(sim.set(I, 0, bytes({0x34, 0x12, 0x78, 0x56, 0x00, 0x05})));  // I byte 5: bits 0 and 2
    ASSERT_TRUE(sim.set(Q, 3, bytes({0x80})));                                // Q_bit 3.7 set
    ASSERT_TRUE(sim.set(Q, 10, bytes({0xCD, 0xAB})));
    ASSERT_TRUE(sim.set(M, 0, bytes({0x01, 0x02, 0x03, 0x04})));
    ASSERT_TRUE(sim.set(M, 20, bytes({0x11, 0x22})));
    ASSERT_TRUE(sim.set(M, 40, bytes({0x05})));   // M_bit 40.0..40.3 = 1 0 1 0
    ASSERT_TRUE(sim.set(M, 100, bytes({0x08})));  // M_bit 100.3 set
    cfg.watches = {addr("I_W:0:2"), addr("I_bit:5.0:3"), addr("Q_W:10"), addr("Q_bit:3.7"), addr("M_W:0:2"),
        addr("M_W:20"), addr("M_bit:100.3"), addr("M_bit:40.0:4")};
    openAndConnect();
    // I: bytes 0..3 and 5 bridged (gap 1); Q: bytes 3 and 10..11 bridged (gap 6 <= 8);
    // M: 0..3, 20..21, 40 and 100 stay apart (gaps 16, 18 and 59 > 8).
    EXPECT_EQ(session->blocks(), 6);
    handshake();
    refreshes(2);

    for (const Exchange& ex : session->exchanges())
        EXPECT_EQ(ex.result, 1);
    EXPECT_EQ(session->read(addr("I_W:0:2")), bytes({0x34, 0x12, 0x78, 0x56}));
    EXPECT_EQ(session->read(addr("I_bit:5.0:3")), bytes({1, 0, 1}));
    EXPECT_EQ(session->read(addr("Q_W:10")), bytes({0xCD, 0xAB}));
    EXPECT_EQ(session->read(addr("Q_bit:3.7")), bytes({1}));
    EXPECT_EQ(session->read(addr("M_W:0:2")), bytes({1, 2, 3, 4}));
    EXPECT_EQ(session->read(addr("M_W:20")), bytes({0x11, 0x22}));
    EXPECT_EQ(session->read(addr("M_bit:100.3")), bytes({1}));
    EXPECT_EQ(session->read(addr("M_bit:40.0:4")), bytes({1, 0, 1, 0}));

    // The first read of each block reported every monitored item whose value left zero.
    std::vector<Change> first = session->takeChanges();
    for (const Change& c : first) {
        EXPECT_EQ(c.context, 0);
        EXPECT_EQ(c.keyNo, 1);
    }
    EXPECT_TRUE(hasChange(first, "I_W", 0));
    EXPECT_TRUE(hasChange(first, "I_W", 2));
    EXPECT_TRUE(hasChange(first, "I_bit", 40));
    EXPECT_TRUE(hasChange(first, "I_bit", 42));
    EXPECT_FALSE(hasChange(first, "I_bit", 41));  // stayed 0
    EXPECT_TRUE(hasChange(first, "Q_bit", 31));
    EXPECT_TRUE(hasChange(first, "Q_W", 10));
    EXPECT_TRUE(hasChange(first, "M_W", 0));
    EXPECT_TRUE(hasChange(first, "M_W", 2));
    EXPECT_TRUE(hasChange(first, "M_W", 20));
    EXPECT_TRUE(hasChange(first, "M_bit", 803));
    EXPECT_TRUE(hasChange(first, "M_bit", 320));
    EXPECT_TRUE(hasChange(first, "M_bit", 322));
    EXPECT_FALSE(hasChange(first, "M_bit", 321));
    EXPECT_FALSE(hasChange(first, "M_bit", 323));

    // Nothing changes: nothing is reported.
    refreshes(2);
    EXPECT_TRUE(session->takeChanges().empty());

    // Both bytes of M_W 20 change: the word is reported once per changed byte.
    ASSERT_TRUE(sim.set(M, 20, bytes({0xEF, 0xBE})));
    refreshes(2);
    const std::vector<Change> second = session->takeChanges();
    ASSERT_EQ(second.size(), 2u);
    EXPECT_EQ(countChange(second, "M_W", 20), 2);
    EXPECT_EQ(session->read(addr("M_W:20")), bytes({0xEF, 0xBE}));

    // One monitored bit flips: only that bit is reported (bit 40.1 is not monitored as a byte).
    ASSERT_TRUE(sim.set(M, 40, bytes({0x07})));
    refreshes(2);
    const std::vector<Change> third = session->takeChanges();
    ASSERT_EQ(third.size(), 1u);
    EXPECT_EQ(third[0].text, "M_bit");
    EXPECT_EQ(third[0].address, 321);
}

TEST_F(HostE2E, WordAndBitWritesFromASecondThreadLandInTheSimulatorAndLeaveNeighboursAlone)
{
    ASSERT_TRUE(sim.set(M, 28, bytes({0xA1, 0xA2, 0x00, 0x00, 0xA3, 0xA4})));
    ASSERT_TRUE(sim.set(M, 39, bytes({0xAA, 0xF1, 0x55})));
    ASSERT_TRUE(sim.set(Q, 2, bytes({0x11, 0xFF, 0x22})));
    ASSERT_TRUE(sim.set(Q, 10, bytes({0x00, 0x00, 0x99})));
    cfg.watches = {addr("M_W:0"), addr("M_bit:40.0:8"), addr("Q_bit:3.0:8"), addr("M_W:30")};
    openAndConnect();
    handshake();
    refreshes(1);

    std::atomic<bool> writesDone {false};
    std::thread writer([&] {
        session->write(wr("M_W:30=0x1234"));
        session->write(wr("M_bit:40.2=1"));
        session->write(wr("M_bit:40.0=0"));
        session->write(wr("Q_bit:3.7=0"));
        session->write(wr("Q_W:10=0xA55A"));
        writesDone = true;
    });
    // Polling goes on while the other thread writes; stop once everything has landed.
    int64_t lastCheck = 0;
    bool landed = false;
    session->run(0, 5000, [&] {
        if (!writesDone || adshost::nowMs() - lastCheck < 20)
            return false;
        lastCheck = adshost::nowMs();
        landed = sim.get(M, 30, 2) == bytes({0x34, 0x12}) && sim.get(M, 40, 1) == bytes({0xF4})
            && sim.get(Q, 3, 1) == bytes({0x7F}) && sim.get(Q, 10, 2) == bytes({0x5A, 0xA5});
        return landed;
    });
    writer.join();
    EXPECT_TRUE(landed);
    EXPECT_EQ(sim.get(M, 28, 6), bytes({0xA1, 0xA2, 0x34, 0x12, 0xA3, 0xA4}));
    EXPECT_EQ(sim.get(M, 39, 3), bytes({0xAA, 0xF4, 0x55}));  // bit 2 set, bit 0 cleared, others kept
    EXPECT_EQ(sim.get(Q, 2, 3), bytes({0x11, 0x7F, 0x22}));
    EXPECT_EQ(sim.get(Q, 10, 3), bytes({0x5A, 0xA5, 0x99}));
    refreshes(2);
    EXPECT_EQ(session->read(addr("M_W:30")), bytes({0x34, 0x12}));
    EXPECT_EQ(session->read(addr("M_bit:40.0:8")), bytes({0, 0, 1, 0, 1, 1, 1, 1}));
    EXPECT_EQ(session->read(addr("Q_bit:3.0:8")), bytes({1, 1, 1, 1, 1, 1, 1, 0}));

    int writeFrames = 0;
    for (const Exchange& ex : session->exchanges()) {
        EXPECT_EQ(ex.result, 1);
        writeFrames += ex.commandId == 3;
    }
    EXPECT_EQ(writeFrames, 5);  // each bit write is a read and then one write of the byte
    EXPECT_EQ(sim.counter("write"), 5);
}

// Each exchange is booked during the next one's wait, or by whichever thread asks first. A
// thread that reads the figures while the polling thread runs sees them only grow, and sees
// every step booked once the polling has stopped.
TEST_F(HostE2E, FiguresReadFromAnotherThreadWhilePollingCountEveryExchangeOnce)
{
    cfg.watches = {addr("M_W:0:2"), addr("M_W:40:2")};
    openAndConnect();
    handshake();
    std::atomic<bool> polling {true};
    std::atomic<int> reads {0};
    std::atomic<bool> shrank {false};
    std::thread reader([&] {
        uint64_t accepted = 0;
        size_t kept = 0;
        for (int i = 0; i < 100000 && polling; ++i) {
            const adshost::Stats st = session->stats();
            if (st.results[1] < accepted)
                shrank = true;
            accepted = st.results[1];
            const size_t n = session->exchanges().size();
            if (n < kept)
                shrank = true;
            kept = n;
            session->freshness(addr("M_W:0:2"));
            ++reads;
        }
    });
    const bool ran = session->run(3000, 20000);
    polling = false;
    reader.join();
    ASSERT_TRUE(ran);
    EXPECT_GT(reads.load(), 0);
    EXPECT_FALSE(shrank.load());
    const adshost::Stats st = session->stats();
    EXPECT_EQ(st.requests, 3001u);      // the handshake and 3,000 steps
    EXPECT_EQ(st.results[1], 3001u);    // each accepted reply booked once
    EXPECT_EQ(session->exchanges().size(), 3001u);
    EXPECT_TRUE(session->freshness(addr("M_W:40:2")).read);
}

TEST_F(HostE2E, RecipeIsWrittenAndReadThroughTheFlagBytesOfTheStatusBlock)
{
    adshost::RecipeVar a, b, c;
    a.addr = addr("M_W:500:2");
    a.rcpDataIndex = 0;
    a.values = {0x1111, 0x2222};
    b.addr = addr("M_W:504:1");
    b.rcpDataIndex = 2;
    b.values = {0x3333};
    c.addr = addr("Q_W:100:2");
    c.rcpDataIndex = 3;
    c.values = {0x4444, 0x5555};
    cfg.recipe = {a, b, c};
    cfg.watches = {addr("M_W:0")};
    openAndConnect();
    handshake();
    refreshes(1);

    session->requestRecipeWrite();
    session->run(0, 5000, [&] { return !session->recipeWritePending(); });
    ASSERT_FALSE(session->recipeWritePending()) << "the driver did not clear byte 60115";
    EXPECT_EQ(sim.get(M, 500, 6), bytes({0x11, 0x11, 0x22, 0x22, 0x33, 0x33}));
    EXPECT_EQ(sim.get(Q, 100, 4), bytes({0x44, 0x44, 0x55, 0x55}));
    int writeFrames = 0;
    for (const Exchange& ex : session->exchanges())
        writeFrames += ex.commandId == 3;
    EXPECT_EQ(writeFrames, 2);  // M_W 500..505 is one block, Q_W 100..103 the other

    ASSERT_TRUE(sim.set(M, 500, bytes({0x01, 0xA0, 0x02, 0xA0, 0x03, 0xA0})));
    ASSERT_TRUE(sim.set(Q, 100, bytes({0x04, 0xB0, 0x05, 0xB0})));
    for (int k = 0; k < 5; ++k)
        session->setRecipeWord(k, 0);
    session->takeChanges();
    session->requestRecipeRead();
    session->run(0, 5000, [&] { return !session->recipeReadPending(); });
    ASSERT_FALSE(session->recipeReadPending()) << "the driver did not clear byte 60116";
    EXPECT_EQ(session->recipeWord(0), 0xA001);
    EXPECT_EQ(session->recipeWord(1), 0xA002);
    EXPECT_EQ(session->recipeWord(2), 0xA003);
    EXPECT_EQ(session->recipeWord(3), 0xB004);
    EXPECT_EQ(session->recipeWord(4), 0xB005);
    // The recipe buffer reports: context 0, key -1, "RWI", once per byte.
    std::vector<int> rwi;
    for (const Change& ch : session->takeChanges()) {
        if (ch.text != "RWI")
            continue;
        EXPECT_EQ(ch.context, 0);
        EXPECT_EQ(ch.keyNo, -1);
        rwi.push_back(ch.address);
    }
    // The recipe variables are sorted by key, register (Q_W before M_W) and address, so the
    // Q_W block (words 3 and 4 of the buffer) is read first.
    EXPECT_EQ(rwi, (std::vector<int> {3, 3, 4, 4, 0, 0, 1, 1, 2, 2}));
}

TEST_F(HostE2E, ConditionReadIsServedBeforeTheScreenAndReportsMinusOne)
{
    ASSERT_TRUE(sim.set(M, 300, bytes({0xDE, 0xAD, 0xBE, 0xEF})));
    cfg.watches = {addr("M_W:0")};
    cfg.conditions = {addr("M_W:300:2")};
    openAndConnect();
    handshake();
    const Exchange ex = session->step();
    EXPECT_EQ(ex.commandId, 2);
    EXPECT_EQ(ex.varReg, "M_W");
    EXPECT_EQ(ex.varAddress, 300);
    EXPECT_EQ(ex.varLength, 4);  // two words, counted in bytes
    EXPECT_EQ(ex.varKind, cfg.conditionKind);
    EXPECT_EQ(ex.result, 1);
    std::vector<Change> cs = session->takeChanges();
    int reports = 0;
    for (const Change& c : cs) {
        if (c.text != "-1")
            continue;
        ++reports;
        EXPECT_EQ(c.context, -1);
        EXPECT_EQ(c.keyNo, -1);
        EXPECT_EQ(c.address, 0);  // done
    }
    EXPECT_EQ(reports, 1);
    EXPECT_EQ(session->read(addr("M_W:300:2")), bytes({0xDE, 0xAD, 0xBE, 0xEF}));
    // Then the screen.
    EXPECT_EQ(session->step().varAddress, 0);
}

TEST_F(HostE2E, FailedConditionReadReportsMinusOneWithFailure)
{
    cfg.watches = {addr("M_W:0")};
    openAndConnect();
    handshake();
    refreshes(1);
    session->takeChanges();
    session->addConditionRead(addr("M_W:300:2"));
    ASSERT_TRUE(sim.fault("noreply", 3));
    EXPECT_EQ(session->step().result, 8);
    EXPECT_EQ(session->step().result, 8);
    const Exchange last = session->step();
    EXPECT_EQ(last.result, 2);
    EXPECT_EQ(last.errorText, "1#M_W300(4)(0)");
    const std::vector<Change> cs = session->takeChanges();
    ASSERT_EQ(cs.size(), 1u);
    EXPECT_EQ(cs[0].context, -1);
    EXPECT_EQ(cs[0].keyNo, -1);
    EXPECT_EQ(cs[0].text, "-1");
    EXPECT_EQ(cs[0].address, -1);  // failed
}

TEST_F(HostE2E, SplitReplyIsReassembledAndAccepted)
{
    ASSERT_TRUE(sim.set(M, 0, bytes({0x10, 0x20, 0x30, 0x40})));
    cfg.watches = {addr("M_W:0:2")};
    openAndConnect();
    handshake();
    ASSERT_TRUE(sim.fault("split", 1));
    const Exchange ex = session->step();
    EXPECT_EQ(ex.result, 1);
    EXPECT_EQ(ex.replyBytes, 50);
    EXPECT_GE(ex.recvChunks, 2);  // it did arrive in parts
    EXPECT_FALSE(ex.timedOut);
    EXPECT_EQ(session->read(addr("M_W:0:2")), bytes({0x10, 0x20, 0x30, 0x40}));
    EXPECT_EQ(session->stats().staleBytes, 0u);
}

struct BadReply {
    const char* kind;
    int replyBytes;
};

class BadReplyE2E : public HostE2E, public ::testing::WithParamInterface<BadReply> { };

TEST_P(BadReplyE2E, IsRejectedThenTheSameFrameIsRepeatedAndAccepted)
{
    ASSERT_TRUE(sim.set(M, 0, bytes({0x11, 0x22, 0x33, 0x44})));
    cfg.watches = {addr("M_W:0:2")};
    openAndConnect();
    handshake();
    ASSERT_TRUE(sim.fault(GetParam().kind, 1));
    const Exchange bad = session->step();
    EXPECT_EQ(bad.result, 8);
    EXPECT_EQ(bad.replyBytes, GetParam().replyBytes);
    EXPECT_EQ(bad.errorText, "1#M_W0(4)(" + std::to_string(GetParam().replyBytes) + ")");
    EXPECT_EQ(session->read(addr("M_W:0:2")), bytes({0, 0, 0, 0}));  // nothing taken from it
    const Exchange again = session->step();
    EXPECT_EQ(again.frame, bad.frame);
    EXPECT_EQ(again.result, 1);
    EXPECT_EQ(session->read(addr("M_W:0:2")), bytes({0x11, 0x22, 0x33, 0x44}));
}

INSTANTIATE_TEST_SUITE_P(Faults, BadReplyE2E,
    ::testing::Values(
        BadReply {"noreply", 0}, BadReply {"short", 49}, BadReply {"long", 51}, BadReply {"adserror", 46}),
    [](const ::testing::TestParamInfo<BadReply>& i) { return std::string(i.param.kind); });

TEST_F(HostE2E, RetryLimitGivesUpWithAnErrorTextAndCommunicationRecovers)
{
    cfg.watches = {addr("M_W:0:2")};
    openAndConnect();
    handshake();
    ASSERT_TRUE(sim.fault("short", 3));
    const Exchange a = session->step(), b = session->step(), c = session->step();
    EXPECT_EQ(a.result, 8);
    EXPECT_EQ(b.result, 8);
    EXPECT_EQ(c.result, 2);
    EXPECT_EQ(a.frame, c.frame);
    EXPECT_EQ(c.errorText, "1#M_W0(4)(49)");
    EXPECT_EQ(session->errorTexts(), std::vector<std::string> {"1#M_W0(4)(49)"});

    ASSERT_TRUE(sim.set(M, 0, bytes({0x0A, 0x0B, 0x0C, 0x0D})));
    const Exchange d = session->step();
    EXPECT_EQ(d.result, 1);
    EXPECT_EQ(session->read(addr("M_W:0:2")), bytes({0x0A, 0x0B, 0x0C, 0x0D}));
    // The count starts again: two more rejections do not give up.
    ASSERT_TRUE(sim.fault("noreply", 2));
    EXPECT_EQ(session->step().result, 8);
    EXPECT_EQ(session->step().result, 8);
    EXPECT_EQ(session->step().result, 1);
    const adshost::Stats st = session->stats();
    EXPECT_EQ(st.results[2], 1u);
    EXPECT_EQ(st.results[8], 4u);
    EXPECT_EQ(st.timeouts, 2u);
}

TEST_F(HostE2E, LateReplyIsDrainedBeforeTheNextFrame)
{
    ASSERT_TRUE(sim.set(M, 0, bytes({0x55, 0x66, 0x77, 0x88})));
    cfg.watches = {addr("M_W:0:2")};
    cfg.replyTimeoutMs = 100;
    openAndConnect();
    handshake();
    ASSERT_TRUE(sim.command("delay 300") == "ok");
    ASSERT_TRUE(sim.fault("delay", 1));
    const Exchange late = session->step();
    EXPECT_TRUE(late.timedOut);
    EXPECT_EQ(late.result, 8);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));  // the old reply arrives meanwhile
    const Exchange next = session->step();
    EXPECT_EQ(next.result, 1);
    EXPECT_EQ(session->stats().staleBytes, 50u);
    EXPECT_EQ(session->read(addr("M_W:0:2")), bytes({0x55, 0x66, 0x77, 0x88}));
}

// A reply that never comes after a time-out: before the next request the host waits once
// more for it, then starts a new connection, so that no late reply can be taken for the
// answer to another request.
TEST_F(HostE2E, OwedReplyThatNeverComesCostsTheConnectionNotAMixup)
{
    ASSERT_TRUE(sim.set(M, 0, bytes({0x21, 0x22, 0x23, 0x24})));
    cfg.watches = {addr("M_W:0:2")};
    cfg.replyTimeoutMs = 100;
    openAndConnect();
    handshake();
    const uint64_t reconnectsBefore = session->stats().reconnects;
    ASSERT_TRUE(sim.fault("noreply", 1));
    const Exchange lost = session->step();
    EXPECT_TRUE(lost.timedOut);
    EXPECT_EQ(lost.result, 8);
    const Exchange next = session->step();
    EXPECT_EQ(next.result, 1);
    EXPECT_EQ(session->stats().reconnects, reconnectsBefore + 1);
    EXPECT_EQ(session->stats().staleBytes, 0u);
    EXPECT_EQ(session->read(addr("M_W:0:2")), bytes({0x21, 0x22, 0x23, 0x24}));
}

TEST_F(HostE2E, LostConnectionIsReestablishedAndTheFrameRepeated)
{
    ASSERT_TRUE(sim.set(M, 0, bytes({0x01, 0x02, 0x03, 0x04})));
    cfg.watches = {addr("M_W:0:2")};
    openAndConnect();
    handshake();
    const int firstPort = session->localPort();
    ASSERT_TRUE(sim.fault("close", 1));
    const Exchange lost = session->step();
    EXPECT_TRUE(lost.connectionLost);
    EXPECT_EQ(lost.result, 8);
    EXPECT_FALSE(session->connected());
    ASSERT_TRUE(sim.set(M, 0, bytes({0x09, 0x08, 0x07, 0x06})));
    const Exchange again = session->step();
    EXPECT_TRUE(session->connected());
    EXPECT_NE(session->localPort(), firstPort);
    EXPECT_EQ(again.frame, lost.frame);
    EXPECT_EQ(again.result, 1);
    EXPECT_EQ(session->stats().reconnects, 1u);
    EXPECT_EQ(sim.counter("connections"), 1);  // connections open now: the old one is gone
    const std::string log = sim.logText();
    EXPECT_NE(log.find("fault close: closing 127.0.0.1:" + std::to_string(firstPort)), std::string::npos) << log;
    EXPECT_NE(log.find("connection from 127.0.0.1:" + std::to_string(session->localPort())), std::string::npos) << log;
    EXPECT_EQ(session->read(addr("M_W:0:2")), bytes({0x09, 0x08, 0x07, 0x06}));
    refreshes(3);
}

TEST_F(HostE2E, ConnectionThatCannotBeReestablishedEndsTheRunWithAReason)
{
    cfg.watches = {addr("M_W:0:2")};
    cfg.reconnectAttempts = 3;
    cfg.reconnectBackoffMs = 10;
    openAndConnect();
    handshake();
    ASSERT_TRUE(sim.fault("close", 1));
    // The simulator goes away: every attempt is refused.
    EXPECT_EQ(sim.stop(), 0);
    const int64_t t0 = adshost::nowMs();
    EXPECT_FALSE(session->run(100, 5000));
    EXPECT_LT(adshost::nowMs() - t0, 3000);
    EXPECT_TRUE(session->failedForGood());
    EXPECT_NE(session->failure().find("not re-established after 3 attempts"), std::string::npos) << session->failure();
    ASSERT_TRUE(sim.start({"--no-program"}));  // for TearDown
}

// ---- capture ----

struct PcapPacket {
    std::vector<uint8_t> data;
};

std::vector<PcapPacket> readPcap(const std::string& path, uint32_t& linkType)
{
    std::ifstream f(path, std::ios::binary);
    std::vector<uint8_t> all((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    std::vector<PcapPacket> out;
    auto le32 = [&](size_t at) {
        return uint32_t(all[at]) | uint32_t(all[at + 1]) << 8 | uint32_t(all[at + 2]) << 16
            | uint32_t(all[at + 3]) << 24;
    };
    if (all.size() < 24 || le32(0) != 0xa1b2c3d4u)
        return out;
    linkType = le32(20);
    size_t at = 24;
    while (at + 16 <= all.size()) {
        const uint32_t len = le32(at + 8);
        if (at + 16 + len > all.size())
            break;
        out.push_back(
            PcapPacket {std::vector<uint8_t>(all.begin() + long(at + 16), all.begin() + long(at + 16 + len))});
        at += 16 + len;
    }
    return out;
}

class CaptureE2E : public HostE2E, public ::testing::WithParamInterface<bool> { };

TEST_P(CaptureE2E, EveryFrameIsOnePacketWithConsistentTcpSequenceNumbers)
{
    const bool raw = GetParam();
    cfg.pcapPath
        = ::testing::TempDir() + "adshost_e2e_" + std::to_string(::getpid()) + (raw ? "_raw" : "_eth") + ".pcap";
    cfg.pcapRaw = raw;
    cfg.watches = {addr("M_W:0:2"), addr("Q_bit:1.1")};
    openAndConnect();
    session->write(wr("M_bit:7.7=1"));
    const uint16_t hostPort = uint16_t(session->localPort());
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(session->step().result, 1);
    session->disconnect();

    uint32_t link = 0;
    const std::vector<PcapPacket> pk = readPcap(cfg.pcapPath, link);
    EXPECT_EQ(link, raw ? 101u : 1u);
    const size_t ipAt = raw ? 0 : 14;
    uint32_t nextSeq[2] = {0, 0};
    bool seqKnown[2] = {false, false};
    int frames = 0, requests = 0;
    for (const PcapPacket& p : pk) {
        ASSERT_GE(p.data.size(), ipAt + 40);
        const uint8_t* ip = p.data.data() + ipAt;
        ASSERT_EQ(ip[0], 0x45);
        ASSERT_EQ(ip[9], 6);
        const uint16_t sport = uint16_t(ip[20] << 8 | ip[21]), dport = uint16_t(ip[22] << 8 | ip[23]);
        const bool fromHost = sport == hostPort;
        EXPECT_EQ(fromHost ? dport : sport, sim.port());
        EXPECT_EQ(fromHost ? sport : dport, hostPort);
        const uint32_t seq = uint32_t(ip[24]) << 24 | uint32_t(ip[25]) << 16 | uint32_t(ip[26]) << 8 | ip[27];
        const uint8_t flags = ip[33];
        const size_t payload = p.data.size() - ipAt - 40;
        const int dir = fromHost ? 0 : 1;
        if (seqKnown[dir]) {
            EXPECT_EQ(seq, nextSeq[dir]);
        }
        nextSeq[dir] = seq + uint32_t(payload) + ((flags & 0x03) ? 1 : 0);  // SYN and FIN count one
        seqKnown[dir] = true;
        if (payload > 0) {
            const uint8_t* ams = ip + 40;
            const uint32_t len = uint32_t(ams[2]) | uint32_t(ams[3]) << 8;
            EXPECT_EQ(len + 6, payload);  // exactly one frame per packet
            ++frames;
            requests += fromHost;
        }
    }
    EXPECT_EQ(frames, 20);
    EXPECT_EQ(requests, 10);

    if (std::system("command -v tshark >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "tshark not installed: the dissector check is left out";
    }
    const std::string cmd = "tshark -r " + cfg.pcapPath + " -d tcp.port==" + std::to_string(sim.port())
        + ",ams -Y ams -T fields -e ams.cmdid -e ams.stateflags 2>/dev/null";
    FILE* pipe = ::popen(cmd.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string out;
    char buf[256];
    while (std::fgets(buf, sizeof buf, pipe))
        out += buf;
    ::pclose(pipe);
    const std::vector<std::string> ls = e2e::lines(out);
    ASSERT_EQ(ls.size(), 20u) << out;
    EXPECT_EQ(ls[0], "6\t0x0004");
    EXPECT_EQ(ls[1], "6\t0x0005");
    int writes = 0;
    for (const std::string& l : ls)
        writes += l == "3\t0x0004";
    EXPECT_EQ(writes, 1);  // the bit write: a read of byte 7, then this write
}

INSTANTIATE_TEST_SUITE_P(LinkTypes, CaptureE2E, ::testing::Values(false, true),
    [](const ::testing::TestParamInfo<bool>& i) { return i.param ? "Raw" : "Ethernet"; });

TEST(HostE2EOpen, MissingEntryPointIsNamed)
{
    Session s;
    adshost::Config cfg;
    cfg.driverPath = INCOMPLETE_PLUGIN;
    std::string why;
    EXPECT_FALSE(s.open(cfg, why));
    EXPECT_NE(why.find("lacks entry points"), std::string::npos) << why;
    EXPECT_NE(why.find("intf_getSendFrame"), std::string::npos) << why;
    EXPECT_NE(why.find("intf_dealRcvFrame"), std::string::npos) << why;
    EXPECT_EQ(why.find("intf_getVersion"), std::string::npos) << why;  // that one is there
}

TEST(HostE2EOpen, AddressTheDriverRejectsStopsTheSession)
{
    Session s;
    adshost::Config cfg;
    cfg.driverPath = ADS_PLUGIN;
    cfg.watches = {addr("M_W:65535")};  // the word would end past byte 65535
    std::string why;
    EXPECT_FALSE(s.open(cfg, why));
    EXPECT_TRUE(s.openFailedOnAddress());
    EXPECT_EQ(why,
        "--watch M_W:65535: the address lies below the register's first address, or its last item beyond the last "
        "(M_W addresses run from 0 to 65535, a byte offset; COUNT is in words); the driver's check result 2");
}

}  // namespace

// run() takes its deadline from the moment each reply came in: polling flat out, it still
// stops at the time it was given, not at its outer bound of an hour.
TEST_F(HostE2E, RunStopsAtItsDeadlineWhilePollingFlatOut)
{
    cfg.watches = {addr("M_W:0:2")};
    openAndConnect();
    handshake();
    const uint64_t before = session->stats().requests;
    uint64_t checks = 0;
    const int64_t start = adshost::nowMs();
    // The bound on checks only ends a broken run; a run that keeps its deadline makes far fewer.
    ASSERT_TRUE(session->run(0, 300, [&] { return ++checks >= 200000; }));
    const int64_t took = adshost::nowMs() - start;
    EXPECT_LT(checks, 200000u) << "run did not stop at its deadline";
    EXPECT_GE(took, 300);
    EXPECT_LT(took, 3000);
    EXPECT_GT(session->stats().requests, before + 10) << "run did not poll";
}

// A session that polls for months keeps the same memory: the exchanges kept are the newest
// 4096, oldest first, and the polling steps fill the same two Exchanges in turn.
TEST_F(HostE2E, KeepsTheNewest4096ExchangesAndReusesTheStepsExchanges)
{
    cfg.watches = {addr("M_W:0:2"), addr("M_W:40:2")};  // two blocks: the frames alternate
    openAndConnect();
    handshake();
    const Exchange* slots[2] = {&session->step(), &session->step()};
    ASSERT_NE(slots[0], slots[1]);
    std::vector<int> addresses;
    for (int i = 0; i < 5000; ++i) {
        const Exchange& ex = session->step();
        ASSERT_EQ(&ex, slots[i % 2]);
        ASSERT_EQ(ex.result, 1);
        addresses.push_back(ex.varAddress);
    }
    const std::vector<Exchange> kept = session->exchanges();
    ASSERT_EQ(kept.size(), 4096u);
    for (size_t i = 0; i < kept.size(); ++i)
        ASSERT_EQ(kept[i].varAddress, addresses[addresses.size() - kept.size() + i]) << i;
    EXPECT_EQ(session->requestsSent(), 5003u);
    EXPECT_EQ(session->stats().requests, 5003u);
    EXPECT_GE(session->fullRefreshes(), 2400u);  // two blocks per refresh
    EXPECT_EQ(session->fullRefreshes(), session->stats().fullRefreshes);
}

// What step() hands out after a cycle that sent nothing carries nothing of the cycle before.
TEST_F(HostE2E, AStepThatSendsNothingLeavesNothingOfTheStepBefore)
{
    cfg.watches = {addr("M_W:0:2")};
    cfg.reconnectAttempts = 1;
    cfg.reconnectBackoffMs = 0;
    openAndConnect();
    handshake();
    const Exchange& ex = session->step();
    ASSERT_EQ(ex.sent, 1);
    ASSERT_FALSE(ex.frame.empty());
    EXPECT_EQ(sim.stop(), 0);
    session->disconnect();
    const Exchange& none = session->step();  // no connection, and none to be had
    const Exchange fresh;
    EXPECT_EQ(none.sent, fresh.sent);
    EXPECT_EQ(none.result, fresh.result);
    EXPECT_TRUE(none.errorText.empty());
    EXPECT_TRUE(none.varReg.empty());
    EXPECT_TRUE(none.sourceNetId.empty());
    EXPECT_TRUE(none.frame.empty());
    EXPECT_EQ(none.commandId, 0);
    EXPECT_EQ(none.sendLen, 0);
    EXPECT_EQ(none.replyBytes, 0);
    EXPECT_EQ(none.purpose, 0);
    EXPECT_FALSE(none.codes.header);
    EXPECT_EQ(none.rttMs, 0);
    ASSERT_TRUE(sim.start({"--no-program"}));  // for TearDown
}

// A write's reply is booked while the next request is in flight. A second write of the same
// bytes asked for before that is not confirmed by the first one's reply.
TEST_F(HostE2E, AWriteAskedForRightAfterAnotherIsConfirmedOnlyByItsOwnReply)
{
    cfg.watches = {addr("M_W:0:2")};
    openAndConnect();
    handshake();
    const int first = session->write(wr("M_W:0=0x1111"));
    bool written = false;
    for (int k = 0; k < 50 && !written; ++k) {
        const Exchange& ex = session->step();
        written = ex.purpose == 'W' && ex.result == 1;
    }
    ASSERT_TRUE(written);
    const int second = session->write(wr("M_W:0=0x2222"));  // before the first's reply is booked
    EXPECT_EQ(session->action(first).state, adshost::Action::Done);
    EXPECT_EQ(session->action(second).state, adshost::Action::Pending);
    EXPECT_EQ(sim.get(M, 0, 2), bytes({0x11, 0x11}));
    for (int k = 0; k < 50 && !session->actionsSettled(); ++k)
        session->step();
    EXPECT_EQ(session->action(second).state, adshost::Action::Done);
    EXPECT_EQ(sim.get(M, 0, 2), bytes({0x22, 0x22}));
}

// Settled actions beyond the newest 1024 are let go; asking for one then answers that its
// outcome is no longer known, never that it was done.
TEST_F(HostE2E, ForgetsOldSettledActionsWithoutClaimingTheirOutcome)
{
    cfg.watches = {addr("M_W:0:2")};
    openAndConnect();
    handshake();
    std::vector<int> ids;
    for (int i = 0; i < 1100; ++i) {
        ids.push_back(session->write(wr("M_W:0=" + std::to_string(i))));
        for (int k = 0; k < 20 && !session->actionsSettled(); ++k)
            session->step();
    }
    ASSERT_TRUE(session->actionsSettled());
    EXPECT_EQ(session->actions().size(), 1024u);
    EXPECT_EQ(session->actions().front().id, ids[1100 - 1024]);
    const adshost::Action old = session->action(ids.front());
    EXPECT_EQ(old.id, ids.front());
    EXPECT_EQ(old.state, adshost::Action::Failed);
    EXPECT_NE(old.why.find("no longer known"), std::string::npos);
    EXPECT_EQ(session->action(ids.back()).state, adshost::Action::Done);
    EXPECT_EQ(sim.get(M, 0, 2), bytes({1099 & 0xFF, 1099 >> 8}));
}
