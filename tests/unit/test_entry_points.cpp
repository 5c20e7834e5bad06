// The driver object and the entry points that configure it: protocol type, version,
// value-change callback and intf_initProperty (reset, numeric settings, handshake first).

#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"

namespace {

std::string S(const QString& s) { return s.toStdString(); }

using adstest::makeKey;

_RCP_VAR_PRO makeRcp(int driverNo, const char* reg, int address, int length, int index)
{
    _RCP_VAR_PRO r;
    r.driverNo = driverNo;
    r.keyNo = 0;
    r.regName = QString::fromLatin1(reg);
    r.address = address;
    r.length = length;
    r.rcpDataIndex = index;
    r.hostField = 0;
    return r;
}

struct Report {
    int context;
    int keyNo;
    std::string text;
    int address;
};
std::vector<Report> g_firstReports;
std::vector<Report> g_secondReports;

int firstCallback(int context, int keyNo, QString text, int address)
{
    g_firstReports.push_back(Report {context, keyNo, S(text), address});
    return 0;
}

int secondCallback(int context, int keyNo, QString text, int address)
{
    g_secondReports.push_back(Report {context, keyNo, S(text), address});
    return 0;
}

// The 46-byte reply that completes the handshake (an AddDeviceNotification response).
QByteArray handshakeReply()
{
    QByteArray r(46, '\0');
    r[0] = 0;
    r[2] = 40;  // 40 bytes after the AMS/TCP header
    r[22] = 6;  // AddDeviceNotification
    r[24] = 5;  // response
    r[26] = 8;
    return r;
}

class EntryPoints : public adstest::DriverTest {
protected:
    void SetUp() override
    {
        g_firstReports.clear();
        g_secondReports.clear();
        adstest::DriverTest::SetUp();
    }
};

}  // namespace

// ---------------------------------------------------------------------------------------
// The driver object as the constructor leaves it.
// ---------------------------------------------------------------------------------------

// The five numeric settings taken from the initialisation string.
static void expectInitFields(int context, int param1, int param2, int retries, int gap)
{
    EXPECT_EQ(context, driver.callBackContext);
    EXPECT_EQ(param1, driver.initParam1);
    EXPECT_EQ(param2, driver.initParam2);
    EXPECT_EQ(retries, driver.initParam3);
    EXPECT_EQ(gap, driver.maxMergeGap);
}

TEST(DriverObject, ConstructorCopiesTheSixRegisterNamesInTableOrder)
{
    ASSERT_EQ(6, driver.regNameList.size());
    const char* names[6] = {"I_bit", "Q_bit", "M_bit", "I_W", "Q_W", "M_W"};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(names[i], S(driver.regNameList.at(i))) << "position " << i;
        EXPECT_EQ(S(REG_LIST[i]), S(driver.regNameList.at(i))) << "position " << i;
    }
}

TEST(DriverObject, ConstructorZeroesTheAddressingMembersAndCounters)
{
    // Runs before any test of this file touches the property page.
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(0, driver.targetAmsNetId[i]) << "Net ID byte " << i;
    EXPECT_EQ(0, driver.targetAmsPort);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(0, driver.sourceIp[i]) << "source IP byte " << i;
    EXPECT_EQ(0, driver.rcpIndex);
    EXPECT_EQ(0, driver.priorityCount);
    EXPECT_EQ(0, driver.commFailed);
    EXPECT_EQ(0, driver.curVar.keyNo);
    EXPECT_EQ(0, driver.curVar.address);
    EXPECT_EQ(0, driver.curVar.length);
    EXPECT_TRUE(driver.curVar.regName.isEmpty());
}

// ---------------------------------------------------------------------------------------
// intf_getProtocolType, intf_getVersion, intf_setAddrValueChangeCallBack
// ---------------------------------------------------------------------------------------

TEST(ProtocolType, StoresOneWhateverTheIntegerHeldBefore)
{
    const int before[] = {0, 1, 2, -1, 12345, INT_MIN, INT_MAX};
    for (int b : before) {
        int type = b;
        intf_getProtocolType(&type);
        EXPECT_EQ(1, type) << "integer held " << b << " before";
    }
}

TEST(Version, IsTwoZeroZeroZero)
{
    EXPECT_EQ("2.0.0.0", S(intf_getVersion()));
    EXPECT_EQ(S(PROCOTOL_VERSION), S(intf_getVersion()));
}

TEST(Version, ReturnsACopyThatTheCallerMayChange)
{
    QString v = intf_getVersion();
    v.append(QString::fromLatin1("-changed"));
    v[0] = QChar('9');
    EXPECT_EQ("2.0.0.0", S(intf_getVersion()));
    EXPECT_EQ("2.0.0.0", S(PROCOTOL_VERSION));
}

TEST_F(EntryPoints, CallbackPointerIsStoredAndReplaced)
{
    intf_setAddrValueChangeCallBack(&firstCallback);
    EXPECT_EQ(&firstCallback, driver.valueChangeCallBack);
    intf_setAddrValueChangeCallBack(&secondCallback);
    EXPECT_EQ(&secondCallback, driver.valueChangeCallBack);
    intf_setAddrValueChangeCallBack(nullptr);  // not checked: stored as it is
    EXPECT_EQ(nullptr, driver.valueChangeCallBack);
}

TEST_F(EntryPoints, OnlyTheLatestCallbackReceivesReportsWithTheContextOfTheInitString)
{
    // Context 7; writes only update the cache (field 1 non-zero), so nothing is queued.
    ASSERT_EQ(1, h->init(adstest::InitOptions().context(7).cacheOnlyWrites()));
    intf_setAddrValueChangeCallBack(&firstCallback);
    intf_setAddrValueChangeCallBack(&secondCallback);

    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 10, 1));
    intf_addrMerge(keys);
    EXPECT_TRUE(g_secondReports.empty());

    unsigned char value[2] = {0x34, 0x12};
    EXPECT_EQ(1, intf_setData(0, QString::fromLatin1("M_W"), 10, 1, value, 0));
    EXPECT_TRUE(driver.writeList.isEmpty());

    // Both bytes of the monitored word changed: the word is reported once per byte.
    EXPECT_TRUE(g_firstReports.empty());
    ASSERT_EQ(2u, g_secondReports.size());
    for (const Report& r : g_secondReports) {
        EXPECT_EQ(7, r.context);
        EXPECT_EQ(0, r.keyNo);
        EXPECT_EQ("M_W", r.text);
        EXPECT_EQ(10, r.address);
    }
}

// ---------------------------------------------------------------------------------------
// intf_initProperty
// ---------------------------------------------------------------------------------------

TEST_F(EntryPoints, InitWithFiveFieldsSetsContextGapAndBlockLimits)
{
    int mode = 77;
    const std::string init = adstest::InitOptions().retryLimit(0).text();
    EXPECT_EQ(1, intf_initProperty(h->status.data(), nullptr, h->recipe.data(), &mode, init.c_str(), &h->hostMutex));
    EXPECT_EQ(2, mode);
    expectInitFields(1, 0, 0, 0, 64);
    EXPECT_EQ(64, driver.maxBlockUnits);
    EXPECT_EQ(512, driver.maxBlockBits);
}

TEST_F(EntryPoints, InitFieldsAreTakenInOrder)
{
    h->mode = -1;
    EXPECT_EQ(1, h->initWithText("9#8#7#6#5"));
    expectInitFields(9, 8, 7, 6, 5);
    EXPECT_EQ(5, driver.maxBlockUnits);
    EXPECT_EQ(40, driver.maxBlockBits);
    EXPECT_EQ(2, h->mode);
}

TEST_F(EntryPoints, InitStoresTheHostPointers)
{
    unsigned char status[60200] = {0};
    unsigned char recipe[16] = {0};
    int arg2 = 0;
    QMutex mutex;
    int mode = 0;
    EXPECT_EQ(1, intf_initProperty(status, &arg2, recipe, &mode, adstest::InitOptions().text().c_str(), &mutex));
    EXPECT_EQ(status, driver.hostStatusBlock);
    EXPECT_EQ(static_cast<void*>(&arg2), driver.hostArg2);
    EXPECT_EQ(recipe, driver.rcpBuffer);
    EXPECT_EQ(&mutex, driver.hostMutex);
    // Leave the driver pointing at memory that outlives this test.
    ASSERT_EQ(1, h->init());
}

TEST_F(EntryPoints, InitWithFourFieldsKeepsTheNumbersButStillResets)
{
    ASSERT_EQ(1, h->initWithText("9#8#7#6#5"));
    // Some run state to be reset.
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 1));
    ASSERT_GT(intf_addrMerge(keys), 0);
    driver.curFrameKind = 4;
    driver.priorityCount = 3;
    driver.errorCount = 2;
    driver.commFailed = 1;
    driver.needHandShake = 0;

    int mode = 0;
    EXPECT_EQ(1, intf_initProperty(h->status.data(), nullptr, h->recipe.data(), &mode, "1#2#3#4", &h->hostMutex));
    EXPECT_EQ(2, mode);
    expectInitFields(9, 8, 7, 6, 5);
    EXPECT_EQ(5, driver.maxBlockUnits);
    EXPECT_EQ(40, driver.maxBlockBits);

    EXPECT_TRUE(driver.readList.isEmpty());
    EXPECT_TRUE(driver.dataAreaList.isEmpty());
    EXPECT_EQ(0, driver.curFrameKind);
    EXPECT_EQ(0, driver.priorityCount);
    EXPECT_EQ(0, driver.errorCount);
    EXPECT_EQ(0, driver.commFailed);
    EXPECT_EQ(1, driver.needHandShake);
}

TEST_F(EntryPoints, InitWithNonNumericFieldsSetsAllFiveToZero)
{
    ASSERT_EQ(1, h->initWithText("9#8#7#6#5"));
    EXPECT_EQ(1, h->initWithText("a#b#c#d#e"));
    expectInitFields(0, 0, 0, 0, 0);
    EXPECT_EQ(0, driver.maxBlockUnits);
    EXPECT_EQ(0, driver.maxBlockBits);
}

TEST_F(EntryPoints, InitKeepsEmptyFieldsAsZero)
{
    ASSERT_EQ(1, h->initWithText("9#8#7#6#5"));
    // "#2##4#" splits into five parts: "", "2", "", "4", "".
    EXPECT_EQ(1, h->initWithText("#2##4#"));
    expectInitFields(0, 2, 0, 4, 0);
}

TEST_F(EntryPoints, InitIgnoresFieldsBeyondTheFifth)
{
    EXPECT_EQ(1, h->initWithText("11#12#13#14#15#16#17"));
    expectInitFields(11, 12, 13, 14, 15);
    EXPECT_EQ(15, driver.maxBlockUnits);
    EXPECT_EQ(120, driver.maxBlockBits);
}

TEST_F(EntryPoints, InitReadsNumbersAsDecimal)
{
    EXPECT_EQ(1, h->initWithText("010#0x10#-3#007#08"));
    // initParam1 "0x10" is not a decimal number.
    expectInitFields(10, 0, -3, 7, 8);
}

TEST_F(EntryPoints, InitResetsRunStateAndDropsPendingFrames)
{
    FRAME_PRO f;
    std::memset(&f.frame, 0x5A, sizeof f.frame);
    f.sendLen = 10;
    f.recvLen = 10;
    f.dataStart = 0;
    f.readLen = 0;
    f.spareField = 0;
    f.var.kind = 0;
    f.var.keyNo = 0;
    f.var.address = 0;
    f.var.length = 0;
    std::memset(f.var.data, 0, sizeof f.var.data);
    driver.frameList.append(f);
    driver.frameList.append(f);
    driver.curFrameKind = 6;
    driver.priorityCount = 9;
    driver.errorCount = 5;
    driver.commFailed = 1;
    driver.needHandShake = 0;
    driver.curFrameIndex = 3;
    driver.initDone = 0;

    EXPECT_EQ(1, h->init());
    EXPECT_TRUE(driver.frameList.isEmpty());
    EXPECT_EQ(0, driver.curFrameKind);
    EXPECT_EQ(0, driver.priorityCount);
    EXPECT_EQ(0, driver.errorCount);
    EXPECT_EQ(0, driver.commFailed);
    EXPECT_EQ(1, driver.needHandShake);
    EXPECT_EQ(0, driver.curFrameIndex);
    EXPECT_EQ(1, driver.initDone);
}

TEST_F(EntryPoints, SecondInitEmptiesReadWriteConditionListsAndCache)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 1));
    keys.append(makeKey(0, "Q_W", 20, 2));
    ASSERT_GT(intf_addrMerge(keys), 0);
    ASSERT_FALSE(driver.readList.isEmpty());
    ASSERT_FALSE(driver.dataAreaList.isEmpty());

    unsigned char value[2] = {1, 2};
    EXPECT_EQ(1, intf_setData(0, QString::fromLatin1("M_W"), 40, 1, value, 0));
    ASSERT_FALSE(driver.writeList.isEmpty());

    KEY_ADDRESS cond = makeKey(0, "Q_W", 100, 2);
    EXPECT_EQ(1, intf_addConditionRead(&cond, 1));
    ASSERT_FALSE(driver.conditionReadList.isEmpty());

    EXPECT_EQ(1, h->init());
    EXPECT_TRUE(driver.readList.isEmpty());
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    EXPECT_TRUE(driver.dataAreaList.isEmpty());
}

TEST_F(EntryPoints, InitLeavesTheRecipeListsAsTheyAre)
{
    // Context 1 (from the init string): both variables belong to this driver.
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcp(1, "M_W", 0, 2, 0));
    vars.append(makeRcp(1, "M_W", 4, 2, 2));
    ASSERT_EQ(2, intf_setRcpAddress(&vars));
    const int varCount = driver.rcpVarList.size();
    const int blockCount = driver.rcpTransferList.size();
    const int startCount = driver.rcpBlockStartList.size();
    ASSERT_EQ(2, varCount);
    ASSERT_GE(blockCount, 1);

    EXPECT_EQ(1, h->init());
    EXPECT_EQ(varCount, driver.rcpVarList.size());
    EXPECT_EQ(blockCount, driver.rcpTransferList.size());
    EXPECT_EQ(startCount, driver.rcpBlockStartList.size());
    EXPECT_EQ("M_W", S(driver.rcpVarList.at(0).regName));
    EXPECT_EQ(4, driver.rcpVarList.at(1).address);
}

TEST_F(EntryPoints, FirstFrameAfterInitIsTheHandshake)
{
    FRAME_PRO out;
    std::memset(&out.frame, 0xEE, sizeof out.frame);
    ASSERT_EQ(1, intf_getSendFrame(&out));
    EXPECT_EQ(1, driver.curFrameKind);
    EXPECT_EQ(78, out.sendLen);
    EXPECT_EQ(46, out.recvLen);
    EXPECT_EQ(0, out.readLen);
    EXPECT_EQ(6, out.frame[22]);  // AddDeviceNotification
    EXPECT_EQ(0, out.frame[23]);
    EXPECT_EQ(72, out.frame[2]);
    EXPECT_EQ(7, out.frame[34]);  // invoke id of the handshake
    EXPECT_TRUE(out.var.regName.isEmpty());

    // Asked again before any reply: the same frame, byte for byte.
    FRAME_PRO again;
    std::memset(&again.frame, 0x11, sizeof again.frame);
    ASSERT_EQ(1, intf_getSendFrame(&again));
    EXPECT_EQ(0, std::memcmp(out.frame, again.frame, sizeof out.frame));
    EXPECT_EQ(out.sendLen, again.sendLen);
    EXPECT_EQ(out.recvLen, again.recvLen);
    EXPECT_EQ(1, driver.frameList.size());
}

TEST_F(EntryPoints, HandshakeComesFirstEvenWithReadsQueued)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 1));
    ASSERT_GT(intf_addrMerge(keys), 0);
    FRAME_PRO out;
    ASSERT_EQ(1, intf_getSendFrame(&out));
    EXPECT_EQ(6, out.frame[22]);
    EXPECT_EQ(78, out.sendLen);
}

TEST_F(EntryPoints, InitAgainAfterTrafficMakesTheHandshakeNextAgain)
{
    FRAME_PRO out;
    ASSERT_EQ(1, intf_getSendFrame(&out));
    ASSERT_EQ(6, out.frame[22]);
    QByteArray reply = handshakeReply();
    QString err;
    ASSERT_EQ(1, intf_dealRcvFrame(reply, err));
    ASSERT_EQ(0, driver.needHandShake);

    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 1));
    ASSERT_GT(intf_addrMerge(keys), 0);
    ASSERT_EQ(1, intf_getSendFrame(&out));
    ASSERT_EQ(2, out.frame[22]);  // a read is in flight now

    EXPECT_EQ(1, h->init());
    ASSERT_EQ(1, intf_getSendFrame(&out));
    EXPECT_EQ(6, out.frame[22]);
    EXPECT_EQ(78, out.sendLen);
    EXPECT_EQ(1, driver.curFrameKind);
}
