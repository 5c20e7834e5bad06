// Conditional reads: one-shot reads queued on conditionReadList.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"

namespace {

using adstest::L;
using adstest::makeVariable;

// A key with host text, host number and data bytes of its own (none of them may matter).
KEY_ADDRESS makeKey(int keyNo, const char* reg, int address, int length, int unitMark = 0)
{
    KEY_ADDRESS k = adstest::makeKey(keyNo, reg, address, length, 5, unitMark);
    k.hostText = L("text");
    std::memset(k.data, 0x77, sizeof k.data);
    return k;
}

struct Item {
    int kind;
    int keyNo;
    std::string reg;
    int address;
    int length;
    bool operator==(const Item& o) const
    {
        return kind == o.kind && keyNo == o.keyNo && reg == o.reg && address == o.address && length == o.length;
    }
};

std::ostream& operator<<(std::ostream& os, const Item& i)
{
    return os << "{" << i.kind << "," << i.keyNo << "," << i.reg << "," << i.address << "," << i.length << "}";
}

Item itemOf(const VARIABLE& v) { return {v.kind, v.keyNo, v.regName.toStdString(), v.address, v.length}; }

std::vector<Item> items()
{
    std::vector<Item> out;
    for (const VARIABLE& v : driver.conditionReadList)
        out.push_back(itemOf(v));
    return out;
}

class ConditionRead : public adstest::DriverTest {
protected:
};

TEST_F(ConditionRead, WordKeyBecomesOneByteCountedItem)
{
    KEY_ADDRESS k = makeKey(2, "M_W", 10, 3);
    EXPECT_EQ(intf_addConditionRead(&k, 7), 1);
    EXPECT_EQ(items(), (std::vector<Item> {{7, 2, "M_W", 10, 6}}));
    EXPECT_EQ(itemOf(driver.lastVar), (Item {7, 2, "M_W", 10, 6}));
}

TEST_F(ConditionRead, QueuedReadKeepsNoStringOfTheHosts)
{
    // The host may call from its UI thread and drop its string there while the polling
    // thread holds the queued read: the queued read names its register with the driver's
    // own text.
    KEY_ADDRESS k = makeKey(2, "M_W", 10, 150);
    intf_addConditionRead(&k, 1);
    ASSERT_EQ(driver.conditionReadList.size(), 3);
    for (const VARIABLE& v : driver.conditionReadList) {
        EXPECT_EQ(v.regName, L("M_W"));
        EXPECT_FALSE(v.regName.isSharedWith(k.regName));
    }
    EXPECT_FALSE(driver.lastVar.regName.isSharedWith(k.regName));
}

TEST_F(ConditionRead, KeyIsNotChanged)
{
    KEY_ADDRESS k = makeKey(2, "M_W", 10, 150);
    intf_addConditionRead(&k, 1);
    EXPECT_EQ(k.keyNo, 2);
    EXPECT_EQ(k.regName, L("M_W"));
    EXPECT_EQ(k.address, 10);
    EXPECT_EQ(k.length, 150);
    EXPECT_EQ(k.unitMark, 0);
    EXPECT_EQ(k.hostNumber, 5);
}

TEST_F(ConditionRead, LongKeyGivesOverlappingPiecesAtTenSeventyFourAndHundredThirtyEight)
{
    KEY_ADDRESS k = makeKey(0, "M_W", 10, 150);
    EXPECT_EQ(intf_addConditionRead(&k, 3), 1);
    EXPECT_EQ(items(), (std::vector<Item> {{3, 0, "M_W", 10, 128}, {3, 0, "M_W", 74, 128}, {3, 0, "M_W", 138, 44}}));
    EXPECT_EQ(itemOf(driver.lastVar), (Item {3, 0, "M_W", 138, 44}));
}

TEST_F(ConditionRead, LengthEqualToLimitIsOnePiece)
{
    KEY_ADDRESS k = makeKey(0, "Q_W", 0, 64);
    intf_addConditionRead(&k, 1);
    EXPECT_EQ(items(), (std::vector<Item> {{1, 0, "Q_W", 0, 128}}));
}

TEST_F(ConditionRead, ExactMultipleOfLimitHasNoRemainderPiece)
{
    KEY_ADDRESS k = makeKey(0, "Q_W", 0, 128);
    intf_addConditionRead(&k, 1);
    EXPECT_EQ(items(), (std::vector<Item> {{1, 0, "Q_W", 0, 128}, {1, 0, "Q_W", 64, 128}}));
}

TEST_F(ConditionRead, LimitFollowsMaxMergeGap)
{
    h->init(adstest::InitOptions().mergeGap(10));
    KEY_ADDRESS k = makeKey(4, "I_W", 100, 25);
    intf_addConditionRead(&k, 2);
    EXPECT_EQ(items(), (std::vector<Item> {{2, 4, "I_W", 100, 20}, {2, 4, "I_W", 110, 20}, {2, 4, "I_W", 120, 10}}));
}

TEST_F(ConditionRead, BitCountedWordKeyUsesBitLimit)
{
    // unitMark -1 selects the limit maxBlockBits = 8 x 64 = 512 units.
    KEY_ADDRESS k = makeKey(0, "M_W", 0, 600, -1);
    intf_addConditionRead(&k, 1);
    EXPECT_EQ(items(), (std::vector<Item> {{1, 0, "M_W", 0, 1024}, {1, 0, "M_W", 512, 176}}));
    KEY_ADDRESS s = makeKey(0, "Q_W", 0, 100, -1);
    intf_addConditionRead(&s, 1);
    EXPECT_EQ(driver.conditionReadList.size(), 3);
    EXPECT_EQ(itemOf(driver.conditionReadList.at(2)), (Item {1, 0, "Q_W", 0, 200}));
}

// ---------------------------------------------------------------------------------------
// Bit registers: deliberately no effect
// ---------------------------------------------------------------------------------------

TEST_F(ConditionRead, BitRegisterRequestChangesNothing)
{
    KEY_ADDRESS w = makeKey(1, "Q_W", 4, 1);
    intf_addConditionRead(&w, 9);
    std::vector<Item> before = items();
    Item lastBefore = itemOf(driver.lastVar);

    for (const char* reg : {"I_bit", "Q_bit", "M_bit"}) {
        KEY_ADDRESS b = makeKey(1, reg, 83, 1, -1);
        EXPECT_EQ(intf_addConditionRead(&b, 5), 1) << reg;
        KEY_ADDRESS longBits = makeKey(1, reg, 3, 2000, -1);  // would be several pieces
        EXPECT_EQ(intf_addConditionRead(&longBits, 5), 1) << reg;
        KEY_ADDRESS wordMark = makeKey(1, reg, 16, 8, 0);
        EXPECT_EQ(intf_addConditionRead(&wordMark, 5), 1) << reg;
    }
    EXPECT_EQ(items(), before);
    EXPECT_EQ(itemOf(driver.lastVar), lastBefore);
}

TEST_F(ConditionRead, BitRegisterRequestOnEmptyListLeavesItEmpty)
{
    KEY_ADDRESS b = makeKey(0, "I_bit", 0, 1, -1);
    EXPECT_EQ(intf_addConditionRead(&b, 1), 1);
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
}

// ---------------------------------------------------------------------------------------
// Registration: refresh, the served head, the 513-item bound
// ---------------------------------------------------------------------------------------

TEST_F(ConditionRead, RepeatedRequestWhileWaitingRefreshesInsteadOfQueuing)
{
    KEY_ADDRESS head = makeKey(0, "I_W", 0, 1);
    KEY_ADDRESS q = makeKey(0, "Q_W", 8, 2);
    intf_addConditionRead(&head, 1);
    intf_addConditionRead(&q, 1);
    ASSERT_EQ(driver.conditionReadList.size(), 2);
    intf_addConditionRead(&q, 6);
    EXPECT_EQ(items(), (std::vector<Item> {{1, 0, "I_W", 0, 2}, {6, 0, "Q_W", 8, 4}}));
    EXPECT_EQ(itemOf(driver.lastVar), (Item {6, 0, "Q_W", 8, 4}));
}

TEST_F(ConditionRead, RefreshOverwritesTheWholeItemIncludingData)
{
    KEY_ADDRESS head = makeKey(0, "I_W", 0, 1);
    KEY_ADDRESS q = makeKey(0, "Q_W", 8, 2);
    intf_addConditionRead(&head, 1);
    intf_addConditionRead(&q, 1);
    std::memset(driver.conditionReadList[1].data, 0xA5, sizeof driver.conditionReadList[1].data);
    intf_addConditionRead(&q, 8);
    ASSERT_EQ(driver.conditionReadList.size(), 2);
    EXPECT_EQ(driver.conditionReadList.at(1).kind, 8);
    EXPECT_EQ(std::memcmp(driver.conditionReadList.at(1).data, driver.lastVar.data, 1024), 0);
    bool allA5 = true;
    for (int i = 0; i < 1024; ++i)
        allA5 = allA5 && driver.conditionReadList.at(1).data[i] == 0xA5;
    EXPECT_FALSE(allA5);
}

TEST_F(ConditionRead, ItemBeingServedAtIndexZeroIsNeverRefreshed)
{
    KEY_ADDRESS q = makeKey(0, "Q_W", 8, 2);
    intf_addConditionRead(&q, 1);
    intf_addConditionRead(&q, 2);
    EXPECT_EQ(items(), (std::vector<Item> {{1, 0, "Q_W", 8, 4}, {2, 0, "Q_W", 8, 4}}));
    // A third request finds the waiting copy at index 1.
    intf_addConditionRead(&q, 3);
    EXPECT_EQ(items(), (std::vector<Item> {{1, 0, "Q_W", 8, 4}, {3, 0, "Q_W", 8, 4}}));
}

TEST_F(ConditionRead, SearchRunsFromTheEndAndRefreshesLastMatch)
{
    driver.conditionReadList.append(makeVariable(1, 0, "M_W", 0, 2));
    driver.conditionReadList.append(makeVariable(2, 0, "Q_W", 8, 4));
    driver.conditionReadList.append(makeVariable(3, 0, "I_W", 0, 2));
    driver.conditionReadList.append(makeVariable(4, 0, "Q_W", 8, 4));
    KEY_ADDRESS q = makeKey(0, "Q_W", 8, 2);
    intf_addConditionRead(&q, 9);
    EXPECT_EQ(items(),
        (std::vector<Item> {{1, 0, "M_W", 0, 2}, {2, 0, "Q_W", 8, 4}, {3, 0, "I_W", 0, 2}, {9, 0, "Q_W", 8, 4}}));
}

TEST_F(ConditionRead, MatchNeedsAllFourKeys)
{
    KEY_ADDRESS head = makeKey(0, "I_W", 0, 1);
    intf_addConditionRead(&head, 1);
    KEY_ADDRESS base = makeKey(0, "Q_W", 8, 2);
    intf_addConditionRead(&base, 1);
    KEY_ADDRESS otherKey = makeKey(1, "Q_W", 8, 2);
    KEY_ADDRESS otherReg = makeKey(0, "M_W", 8, 2);
    KEY_ADDRESS otherAddr = makeKey(0, "Q_W", 10, 2);
    KEY_ADDRESS otherLen = makeKey(0, "Q_W", 8, 3);
    intf_addConditionRead(&otherKey, 2);
    intf_addConditionRead(&otherReg, 2);
    intf_addConditionRead(&otherAddr, 2);
    intf_addConditionRead(&otherLen, 2);
    EXPECT_EQ(driver.conditionReadList.size(), 6);
    // The kind is not part of the match.
    intf_addConditionRead(&base, 5);
    EXPECT_EQ(driver.conditionReadList.size(), 6);
    EXPECT_EQ(driver.conditionReadList.at(1).kind, 5);
}

TEST_F(ConditionRead, EachPieceIsRegisteredOnItsOwn)
{
    KEY_ADDRESS head = makeKey(0, "I_W", 0, 1);
    intf_addConditionRead(&head, 1);
    KEY_ADDRESS k = makeKey(0, "M_W", 10, 150);
    intf_addConditionRead(&k, 1);
    ASSERT_EQ(driver.conditionReadList.size(), 4);
    intf_addConditionRead(&k, 2);  // all three pieces wait: refreshed in place
    EXPECT_EQ(items(),
        (std::vector<Item> {
            {1, 0, "I_W", 0, 2}, {2, 0, "M_W", 10, 128}, {2, 0, "M_W", 74, 128}, {2, 0, "M_W", 138, 44}}));
}

TEST_F(ConditionRead, ListGrowsTo513ThenNewestReplacesIndex512)
{
    for (int i = 0; i < 512; ++i) {
        KEY_ADDRESS k = makeKey(0, "M_W", i * 2, 1);
        intf_addConditionRead(&k, 1);
    }
    ASSERT_EQ(driver.conditionReadList.size(), 512);
    KEY_ADDRESS k512 = makeKey(0, "M_W", 1024, 1);
    intf_addConditionRead(&k512, 1);  // list held 512: appended
    ASSERT_EQ(driver.conditionReadList.size(), 513);
    EXPECT_EQ(itemOf(driver.conditionReadList.at(512)), (Item {1, 0, "M_W", 1024, 2}));

    KEY_ADDRESS fresh = makeKey(3, "Q_W", 4000, 2);
    intf_addConditionRead(&fresh, 7);
    EXPECT_EQ(driver.conditionReadList.size(), 513);
    EXPECT_EQ(itemOf(driver.conditionReadList.at(512)), (Item {7, 3, "Q_W", 4000, 4}));
    EXPECT_EQ(itemOf(driver.conditionReadList.at(511)), (Item {1, 0, "M_W", 1022, 2}));
    EXPECT_EQ(itemOf(driver.lastVar), (Item {7, 3, "Q_W", 4000, 4}));

    KEY_ADDRESS another = makeKey(4, "I_W", 0, 1);
    intf_addConditionRead(&another, 8);
    EXPECT_EQ(driver.conditionReadList.size(), 513);
    EXPECT_EQ(itemOf(driver.conditionReadList.at(512)), (Item {8, 4, "I_W", 0, 2}));
}

TEST_F(ConditionRead, FullListStillRefreshesWaitingMatch)
{
    for (int i = 0; i < 513; ++i) {
        KEY_ADDRESS k = makeKey(0, "M_W", i * 2, 1);
        intf_addConditionRead(&k, 1);
    }
    ASSERT_EQ(driver.conditionReadList.size(), 513);
    KEY_ADDRESS k5 = makeKey(0, "M_W", 10, 1);
    intf_addConditionRead(&k5, 4);
    EXPECT_EQ(driver.conditionReadList.size(), 513);
    EXPECT_EQ(itemOf(driver.conditionReadList.at(5)), (Item {4, 0, "M_W", 10, 2}));
    EXPECT_EQ(itemOf(driver.conditionReadList.at(512)), (Item {1, 0, "M_W", 1024, 2}));
}

TEST_F(ConditionRead, PiecesOfLongKeyIntoFullListAllLandInLastSlot)
{
    for (int i = 0; i < 513; ++i) {
        KEY_ADDRESS k = makeKey(0, "M_W", i * 2, 1);
        intf_addConditionRead(&k, 1);
    }
    KEY_ADDRESS k = makeKey(1, "I_W", 10, 150);
    intf_addConditionRead(&k, 2);
    EXPECT_EQ(driver.conditionReadList.size(), 513);
    EXPECT_EQ(itemOf(driver.conditionReadList.at(512)), (Item {2, 1, "I_W", 138, 44}));
    EXPECT_EQ(itemOf(driver.lastVar), (Item {2, 1, "I_W", 138, 44}));
}

TEST_F(ConditionRead, InitEmptiesTheList)
{
    KEY_ADDRESS k = makeKey(0, "M_W", 0, 1);
    intf_addConditionRead(&k, 1);
    h->init();
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
}

}  // namespace
