// Recipe addresses: the host's recipe variables become sorted, merged transfer blocks.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"

namespace {

using adstest::L;
using adstest::makeRcpVar;

struct Rcp {
    int keyNo;
    std::string reg;
    int address;
    int length;
    int rcpDataIndex;
    bool operator==(const Rcp& o) const
    {
        return keyNo == o.keyNo && reg == o.reg && address == o.address && length == o.length
            && rcpDataIndex == o.rcpDataIndex;
    }
};

std::ostream& operator<<(std::ostream& os, const Rcp& r)
{
    return os << "{" << r.keyNo << "," << r.reg << "," << r.address << "," << r.length << "," << r.rcpDataIndex << "}";
}

std::vector<Rcp> listOf(const QVector<_RCP_VAR_PRO>& v)
{
    std::vector<Rcp> out;
    for (const _RCP_VAR_PRO& r : v)
        out.push_back({r.keyNo, r.regName.toStdString(), r.address, r.length, r.rcpDataIndex});
    return out;
}

class RecipeAddress : public adstest::DriverTest {
protected:
    void SetUp() override
    {
        adstest::DriverTest::SetUp();
        for (int i = 0; i < 4096; ++i)
            h->recipe[i] = static_cast<unsigned char>((i * 13 + 5) & 0xFF);
    }
};

// ---------------------------------------------------------------------------------------
// intf_setRcpAddress
// ---------------------------------------------------------------------------------------

TEST_F(RecipeAddress, ContiguousWordVariablesBecomeOneBlock)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "M_W", 0, 2, 0));
    vars.append(makeRcpVar(1, 0, "M_W", 4, 2, 2));
    EXPECT_EQ(intf_setRcpAddress(&vars), 2);
    EXPECT_EQ(listOf(driver.rcpTransferList), (std::vector<Rcp> {{0, "M_W", 0, 8, 0}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0}));
    EXPECT_EQ(listOf(driver.rcpVarList), (std::vector<Rcp> {{0, "M_W", 0, 2, 0}, {0, "M_W", 4, 2, 2}}));
}

TEST_F(RecipeAddress, GapIsNeverBridgedWhateverMaxMergeGap)
{
    for (int gap : {64, 0, 1000}) {
        const std::string init = "gap " + std::to_string(gap);
        h->init(adstest::InitOptions().mergeGap(gap));
        QVector<_RCP_VAR_PRO> vars;
        vars.append(makeRcpVar(1, 0, "M_W", 0, 2, 0));
        vars.append(makeRcpVar(1, 0, "M_W", 6, 1, 2));
        EXPECT_EQ(intf_setRcpAddress(&vars), 2) << init;
        EXPECT_EQ(listOf(driver.rcpTransferList), (std::vector<Rcp> {{0, "M_W", 0, 4, 0}, {0, "M_W", 6, 2, 2}}))
            << init;
        EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0, 1})) << init;
    }
}

TEST_F(RecipeAddress, OtherInstancesVariablesAreIgnored)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(2, 0, "M_W", 2, 1, 50));
    vars.append(makeRcpVar(1, 0, "M_W", 0, 1, 0));
    vars.append(makeRcpVar(0, 0, "M_W", 4, 1, 60));
    vars.append(makeRcpVar(1, 0, "M_W", 10, 1, 1));
    EXPECT_EQ(intf_setRcpAddress(&vars), 2);
    EXPECT_EQ(listOf(driver.rcpVarList), (std::vector<Rcp> {{0, "M_W", 0, 1, 0}, {0, "M_W", 10, 1, 1}}));
    EXPECT_EQ(listOf(driver.rcpTransferList), (std::vector<Rcp> {{0, "M_W", 0, 2, 0}, {0, "M_W", 10, 2, 1}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0, 1}));
}

TEST_F(RecipeAddress, CallBackContextSelectsTheInstance)
{
    h->init(adstest::InitOptions().context(7));
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "M_W", 0, 1, 0));
    vars.append(makeRcpVar(7, 0, "Q_W", 20, 3, 9));
    EXPECT_EQ(intf_setRcpAddress(&vars), 1);
    EXPECT_EQ(listOf(driver.rcpTransferList), (std::vector<Rcp> {{0, "Q_W", 20, 6, 9}}));
}

TEST_F(RecipeAddress, BitVariableStaysInBits)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "M_bit", 3, 10, 4));
    EXPECT_EQ(intf_setRcpAddress(&vars), 1);
    EXPECT_EQ(listOf(driver.rcpTransferList), (std::vector<Rcp> {{0, "M_bit", 3, 10, 4}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0}));
}

TEST_F(RecipeAddress, NothingOfThisInstanceKeepsOldTransferLists)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "M_W", 0, 2, 0));
    vars.append(makeRcpVar(1, 0, "M_W", 6, 1, 2));
    ASSERT_EQ(intf_setRcpAddress(&vars), 2);

    QVector<_RCP_VAR_PRO> foreign;
    foreign.append(makeRcpVar(3, 0, "I_W", 0, 1, 0));
    EXPECT_EQ(intf_setRcpAddress(&foreign), 0);
    EXPECT_EQ(listOf(driver.rcpTransferList), (std::vector<Rcp> {{0, "M_W", 0, 4, 0}, {0, "M_W", 6, 2, 2}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0, 1}));
    EXPECT_TRUE(driver.rcpVarList.isEmpty());

    QVector<_RCP_VAR_PRO> empty;
    EXPECT_EQ(intf_setRcpAddress(&empty), 0);
    EXPECT_EQ(listOf(driver.rcpTransferList), (std::vector<Rcp> {{0, "M_W", 0, 4, 0}, {0, "M_W", 6, 2, 2}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0, 1}));
    EXPECT_TRUE(driver.rcpVarList.isEmpty());
}

TEST_F(RecipeAddress, NewCallReplacesTransferLists)
{
    QVector<_RCP_VAR_PRO> first;
    first.append(makeRcpVar(1, 0, "M_W", 0, 2, 0));
    first.append(makeRcpVar(1, 0, "M_W", 6, 1, 2));
    intf_setRcpAddress(&first);
    QVector<_RCP_VAR_PRO> second;
    second.append(makeRcpVar(1, 1, "I_W", 8, 1, 5));
    EXPECT_EQ(intf_setRcpAddress(&second), 1);
    EXPECT_EQ(listOf(driver.rcpTransferList), (std::vector<Rcp> {{1, "I_W", 8, 2, 5}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0}));
    EXPECT_EQ(listOf(driver.rcpVarList), (std::vector<Rcp> {{1, "I_W", 8, 1, 5}}));
}

TEST_F(RecipeAddress, InitLeavesRecipeListsInPlace)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "M_W", 0, 2, 0));
    intf_setRcpAddress(&vars);
    h->init();
    EXPECT_EQ(listOf(driver.rcpTransferList), (std::vector<Rcp> {{0, "M_W", 0, 4, 0}}));
    EXPECT_EQ(listOf(driver.rcpVarList), (std::vector<Rcp> {{0, "M_W", 0, 2, 0}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0}));
}

TEST_F(RecipeAddress, VariablesAreSortedByWeightAndBlockTakesFirstVariablesIndex)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "M_W", 4, 2, 2, 20));
    vars.append(makeRcpVar(1, 0, "M_W", 0, 2, 0, 10));
    EXPECT_EQ(intf_setRcpAddress(&vars), 2);
    EXPECT_EQ(listOf(driver.rcpVarList), (std::vector<Rcp> {{0, "M_W", 0, 2, 0}, {0, "M_W", 4, 2, 2}}));
    EXPECT_EQ(driver.rcpVarList.at(0).hostField, 10);
    EXPECT_EQ(driver.rcpVarList.at(1).hostField, 20);
    EXPECT_EQ(listOf(driver.rcpTransferList), (std::vector<Rcp> {{0, "M_W", 0, 8, 0}}));
}

TEST_F(RecipeAddress, SortOrdersByKeyThenRegisterThenAddress)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 1, "I_W", 0, 1, 0));
    vars.append(makeRcpVar(1, 0, "M_W", 10, 1, 1));
    vars.append(makeRcpVar(1, 0, "Q_W", 100, 1, 2));
    vars.append(makeRcpVar(1, 0, "I_W", 50, 1, 3));
    vars.append(makeRcpVar(1, 0, "M_W", 2, 1, 4));
    EXPECT_EQ(intf_setRcpAddress(&vars), 5);
    EXPECT_EQ(listOf(driver.rcpVarList),
        (std::vector<Rcp> {{0, "I_W", 50, 1, 3}, {0, "Q_W", 100, 1, 2}, {0, "M_W", 2, 1, 4}, {0, "M_W", 10, 1, 1},
            {1, "I_W", 0, 1, 0}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0, 1, 2, 3, 4}));
}

TEST_F(RecipeAddress, BitAddressesRunIntoFollowingRegistersWeights)
{
    // "I_bit" 70000 weighs 70000, more than "Q_bit" 0 (65535); "I_bit" 200000 weighs more
    // than "I_W" 0 (196605). Bits are not converted before sorting.
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "I_bit", 200000, 1, 0));
    vars.append(makeRcpVar(1, 0, "I_bit", 70000, 1, 1));
    vars.append(makeRcpVar(1, 0, "I_W", 0, 1, 2));
    vars.append(makeRcpVar(1, 0, "Q_bit", 0, 1, 3));
    EXPECT_EQ(intf_setRcpAddress(&vars), 4);
    EXPECT_EQ(listOf(driver.rcpVarList),
        (std::vector<Rcp> {
            {0, "Q_bit", 0, 1, 3}, {0, "I_bit", 70000, 1, 1}, {0, "I_W", 0, 1, 2}, {0, "I_bit", 200000, 1, 0}}));
}

TEST_F(RecipeAddress, EqualWeightsKeepHostOrder)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "Q_W", 0, 1, 1));         // 4 x 65535
    vars.append(makeRcpVar(1, 0, "I_W", 65535, 1, 2));     // 3 x 65535 + 65535
    vars.append(makeRcpVar(1, 0, "M_bit", 131070, 1, 3));  // 2 x 65535 + 131070
    EXPECT_EQ(intf_setRcpAddress(&vars), 3);
    EXPECT_EQ(listOf(driver.rcpVarList),
        (std::vector<Rcp> {{0, "Q_W", 0, 1, 1}, {0, "I_W", 65535, 1, 2}, {0, "M_bit", 131070, 1, 3}}));
}

TEST_F(RecipeAddress, OverlappingVariablesMergeAndLimitIs128Bytes)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "M_W", 0, 60, 0));    // 0..119
    vars.append(makeRcpVar(1, 0, "M_W", 2, 1, 1));     // inside
    vars.append(makeRcpVar(1, 0, "M_W", 120, 4, 60));  // 120..127: 128 in all
    vars.append(makeRcpVar(1, 0, "M_W", 128, 1, 64));  // would make 130
    EXPECT_EQ(intf_setRcpAddress(&vars), 4);
    EXPECT_EQ(listOf(driver.rcpTransferList), (std::vector<Rcp> {{0, "M_W", 0, 128, 0}, {0, "M_W", 128, 2, 64}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0, 3}));
}

TEST_F(RecipeAddress, DifferentRegistersAndKeysStaySeparateBlocks)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "M_bit", 0, 16, 0));
    vars.append(makeRcpVar(1, 0, "M_W", 2, 1, 1));
    vars.append(makeRcpVar(1, 1, "M_W", 4, 1, 2));
    EXPECT_EQ(intf_setRcpAddress(&vars), 3);
    EXPECT_EQ(listOf(driver.rcpTransferList),
        (std::vector<Rcp> {{0, "M_bit", 0, 16, 0}, {0, "M_W", 2, 2, 1}, {1, "M_W", 4, 2, 2}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0, 1, 2}));
}

TEST_F(RecipeAddress, RecipeDoesNotTouchReadListOrCache)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "M_W", 0, 2, 0));
    intf_setRcpAddress(&vars);
    EXPECT_TRUE(driver.readList.isEmpty());
    EXPECT_TRUE(driver.dataAreaList.isEmpty());
}

// ---------------------------------------------------------------------------------------
// rcpAddrToVar
// ---------------------------------------------------------------------------------------

TEST_F(RecipeAddress, ReadBlockCopiesKeysAndZeroesData)
{
    VARIABLE v;
    v.kind = 33;
    v.keyNo = -1;
    v.regName = L("I_W");
    v.address = -1;
    v.length = -1;
    std::memset(v.data, 0xFF, sizeof v.data);
    rcpAddrToVar(makeRcpVar(0, 2, "M_W", 10, 8, 3), v, 0);
    EXPECT_EQ(v.kind, 33);
    EXPECT_EQ(v.keyNo, 2);
    EXPECT_EQ(v.regName, L("M_W"));
    EXPECT_EQ(v.address, 10);
    EXPECT_EQ(v.length, 8);
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(v.data[i], 0) << i;
}

TEST_F(RecipeAddress, WriteBlockCopiesLengthBytesFromRecipeBuffer)
{
    VARIABLE v;
    v.kind = 12;
    std::memset(v.data, 0xFF, sizeof v.data);
    rcpAddrToVar(makeRcpVar(0, 1, "M_W", 0, 8, 3), v, 1);
    EXPECT_EQ(v.kind, 12);
    EXPECT_EQ(v.keyNo, 1);
    EXPECT_EQ(v.regName, L("M_W"));
    EXPECT_EQ(v.address, 0);
    EXPECT_EQ(v.length, 8);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(v.data[i], h->recipe[6 + i]) << i;
    for (int i = 8; i < 1024; ++i)
        ASSERT_EQ(v.data[i], 0) << i;
}

TEST_F(RecipeAddress, WriteOfBitVariableCopiesTenBytes)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "M_bit", 3, 10, 5));
    ASSERT_EQ(intf_setRcpAddress(&vars), 1);
    ASSERT_EQ(driver.rcpTransferList.size(), 1);
    VARIABLE v;
    v.kind = 0;
    std::memset(v.data, 0xFF, sizeof v.data);
    rcpAddrToVar(driver.rcpTransferList.at(0), v, 1);
    EXPECT_EQ(v.regName, L("M_bit"));
    EXPECT_EQ(v.address, 3);
    EXPECT_EQ(v.length, 10);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(v.data[i], h->recipe[10 + i]) << i;
    for (int i = 10; i < 1024; ++i)
        ASSERT_EQ(v.data[i], 0) << i;
}

TEST_F(RecipeAddress, WriteOfMergedBlockTakesOneContiguousRun)
{
    QVector<_RCP_VAR_PRO> vars;
    vars.append(makeRcpVar(1, 0, "Q_W", 20, 2, 7));
    vars.append(makeRcpVar(1, 0, "Q_W", 24, 3, 9));
    ASSERT_EQ(intf_setRcpAddress(&vars), 2);
    ASSERT_EQ(listOf(driver.rcpTransferList), (std::vector<Rcp> {{0, "Q_W", 20, 10, 7}}));
    VARIABLE v;
    std::memset(v.data, 0xFF, sizeof v.data);
    rcpAddrToVar(driver.rcpTransferList.at(0), v, 1);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(v.data[i], h->recipe[14 + i]) << i;
    EXPECT_EQ(v.data[10], 0);
}

TEST_F(RecipeAddress, WriteUsesCurrentRecipeBufferOfInit)
{
    unsigned char other[64];
    for (int i = 0; i < 64; ++i)
        other[i] = static_cast<unsigned char>(0xC0 + i);
    int mode = 0;
    intf_initProperty(h->status.data(), nullptr, other, &mode, adstest::InitOptions().text().c_str(), &h->hostMutex);
    VARIABLE v;
    rcpAddrToVar(makeRcpVar(0, 0, "I_W", 0, 4, 1), v, 1);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(v.data[i], other[2 + i]) << i;
}

TEST_F(RecipeAddress, AnyNonZeroWithDataIsAWrite)
{
    VARIABLE v;
    rcpAddrToVar(makeRcpVar(0, 0, "I_W", 0, 2, 0), v, 2);
    EXPECT_EQ(v.data[0], h->recipe[0]);
    EXPECT_EQ(v.data[1], h->recipe[1]);
}

}  // namespace
