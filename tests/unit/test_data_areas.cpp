// Data areas: the cache of PLC memory, its find-or-create look-up and the monitor marks.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"

namespace {

using adstest::L;
using adstest::makeKey;

// Every index of driver.dataAreaList holding the three keys (scanned by the test itself).
std::vector<int> areasWith(int keyNo, const QString& name, int address)
{
    std::vector<int> found;
    for (int i = 0; i < driver.dataAreaList.size(); ++i) {
        const _DATA_& d = driver.dataAreaList.at(i);
        if (d.keyNo == keyNo && d.areaName == name && d.address == address)
            found.push_back(i);
    }
    return found;
}

const _DATA_* area(int keyNo, const char* name, int address)
{
    std::vector<int> found = areasWith(keyNo, L(name), address);
    if (found.size() != 1)
        return nullptr;
    return &driver.dataAreaList.at(found[0]);
}

using adstest::appendUnits;

class DataAreas : public adstest::DriverTest {
protected:
};

// ---------------------------------------------------------------------------------------
// Find or create
// ---------------------------------------------------------------------------------------

TEST_F(DataAreas, LookUpInEmptyListCreatesZeroedAreaAtIndexZero)
{
    QList<_DATA_> list;
    int idx = getIndexOfDataArea(3, L("M"), 17, list);
    EXPECT_EQ(idx, 0);
    ASSERT_EQ(list.size(), 1);
    const _DATA_& d = list.at(0);
    EXPECT_EQ(d.keyNo, 3);
    EXPECT_EQ(d.areaName, L("M"));
    EXPECT_EQ(d.address, 17);
    EXPECT_EQ(d.spare, 0);
    EXPECT_EQ(d.writeFlag, 0);
    EXPECT_EQ(d.bitWriteState, 0u);
    EXPECT_EQ(d.monitorFlag, 0u);
    EXPECT_EQ(d.bitMonitorMask, 0u);
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(d.value[k], 0);
        EXPECT_EQ(d.writeValue[k], 0);
    }
}

TEST_F(DataAreas, LookUpFindsExistingAreaWithoutGrowingTheList)
{
    QList<_DATA_> list;
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 10, list), 0);
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 11, list), 1);
    EXPECT_EQ(getIndexOfDataArea(1, L("Q"), 10, list), 2);
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 10, list), 0);
    EXPECT_EQ(getIndexOfDataArea(1, L("Q"), 10, list), 2);
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 11, list), 1);
    EXPECT_EQ(list.size(), 3);
}

TEST_F(DataAreas, NewAreaIndexIsTheOldCount)
{
    QList<_DATA_> list;
    list.append(adstest::makeUnit(0, "I", 0));
    list.append(adstest::makeUnit(0, "I", 1));
    list.append(adstest::makeUnit(0, "I", 2));
    EXPECT_EQ(getIndexOfDataArea(0, L("I"), 3, list), 3);
    EXPECT_EQ(list.size(), 4);
    EXPECT_EQ(list.at(3).address, 3);
}

TEST_F(DataAreas, LookUpDistinguishesEachOfTheThreeKeys)
{
    QList<_DATA_> list;
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 5, list), 0);
    EXPECT_EQ(getIndexOfDataArea(2, L("M"), 5, list), 1);  // other keyNo
    EXPECT_EQ(getIndexOfDataArea(1, L("Q"), 5, list), 2);  // other area
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 6, list), 3);  // other address
    EXPECT_EQ(list.size(), 4);
}

TEST_F(DataAreas, AreaNameComparisonIsCaseSensitive)
{
    QList<_DATA_> list;
    EXPECT_EQ(getIndexOfDataArea(0, L("M"), 0, list), 0);
    EXPECT_EQ(getIndexOfDataArea(0, L("m"), 0, list), 1);
    EXPECT_EQ(getIndexOfDataArea(0, L("M_W"), 0, list), 2);
    EXPECT_EQ(list.size(), 3);
    EXPECT_EQ(list.at(1).areaName, L("m"));
}

TEST_F(DataAreas, FirstMatchWinsWhenTheListHoldsDuplicates)
{
    QList<_DATA_> list;
    list.append(adstest::makeUnit(0, "I", 0));
    list.append(adstest::makeUnit(4, "M", 9));
    list.append(adstest::makeUnit(4, "M", 9));
    list[2].value[0] = 0x55;
    EXPECT_EQ(getIndexOfDataArea(4, L("M"), 9, list), 1);
    EXPECT_EQ(list.size(), 3);
}

TEST_F(DataAreas, LookUpKeepsEveryExistingFieldOfFoundArea)
{
    QList<_DATA_> list;
    _DATA_ d = adstest::makeUnit(7, "Q", 300);
    d.spare = 9;
    d.writeFlag = 1;
    d.bitWriteState = 0x30;
    d.monitorFlag = 0x41;
    d.bitMonitorMask = 0x81;
    d.value[0] = 0x12;
    d.writeValue[0] = 0x34;
    list.append(d);
    EXPECT_EQ(getIndexOfDataArea(7, L("Q"), 300, list), 0);
    ASSERT_EQ(list.size(), 1);
    EXPECT_EQ(list.at(0).spare, 9);
    EXPECT_EQ(list.at(0).writeFlag, 1);
    EXPECT_EQ(list.at(0).bitWriteState, 0x30u);
    EXPECT_EQ(list.at(0).monitorFlag, 0x41u);
    EXPECT_EQ(list.at(0).bitMonitorMask, 0x81u);
    EXPECT_EQ(list.at(0).value[0], 0x12);
    EXPECT_EQ(list.at(0).writeValue[0], 0x34);
}

TEST_F(DataAreas, NegativeAndExtremeKeysAreStoredAsGiven)
{
    QList<_DATA_> list;
    EXPECT_EQ(getIndexOfDataArea(-1, L("M"), -8, list), 0);
    EXPECT_EQ(getIndexOfDataArea(2147483647, L("M"), 2147483647, list), 1);
    EXPECT_EQ(getIndexOfDataArea(-2147483647 - 1, L(""), 0, list), 2);
    EXPECT_EQ(getIndexOfDataArea(-1, L("M"), -8, list), 0);
    EXPECT_EQ(getIndexOfDataArea(2147483647, L("M"), 2147483647, list), 1);
    EXPECT_EQ(getIndexOfDataArea(-2147483647 - 1, L(""), 0, list), 2);
    EXPECT_EQ(list.size(), 3);
    EXPECT_EQ(list.at(0).address, -8);
    EXPECT_EQ(list.at(2).keyNo, -2147483647 - 1);
}

TEST_F(DataAreas, DriverCacheLookUpFindsAndCreates)
{
    EXPECT_EQ(driver.dataAreaList.size(), 0);
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 10, driver.dataAreaList), 0);
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 11, driver.dataAreaList), 1);
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 10, driver.dataAreaList), 0);
    EXPECT_EQ(driver.dataAreaList.size(), 2);
}

TEST_F(DataAreas, DriverCacheLookUpSeesAreasAppendedDirectly)
{
    getIndexOfDataArea(1, L("M"), 0, driver.dataAreaList);
    appendUnits({adstest::makeUnit(1, "M", 1), adstest::makeUnit(1, "M", 0)});  // the second a duplicate of index 0
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 1, driver.dataAreaList), 1);
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 0, driver.dataAreaList), 0);
    EXPECT_EQ(driver.dataAreaList.size(), 3);
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 2, driver.dataAreaList), 3);
}

TEST_F(DataAreas, InitEmptiesTheCacheAndLookUpStartsAgainAtZero)
{
    getIndexOfDataArea(1, L("M"), 0, driver.dataAreaList);
    getIndexOfDataArea(1, L("M"), 1, driver.dataAreaList);
    h->init();
    EXPECT_EQ(driver.dataAreaList.size(), 0);
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 1, driver.dataAreaList), 0);
    EXPECT_EQ(driver.dataAreaList.size(), 1);
}

// The index knows, for each unit, the unit that holds the next byte of the same key and
// area, in whatever order the units were created: a read walks its block by these links.
TEST_F(DataAreas, EachUnitKnowsTheUnitOfTheNextByteWhateverTheOrderOfCreation)
{
    const CacheIndex& index = driver.dataAreaIndex;
    const int m5 = getIndexOfDataArea(1, L("M"), 5, driver.dataAreaList);
    const int m7 = getIndexOfDataArea(1, L("M"), 7, driver.dataAreaList);
    const int q6 = getIndexOfDataArea(1, L("Q"), 6, driver.dataAreaList);
    const int m6other = getIndexOfDataArea(2, L("M"), 6, driver.dataAreaList);
    EXPECT_EQ(index.successor(m5), -1);  // byte 6 of M, key 1, is not cached yet
    EXPECT_EQ(index.successor(m7), -1);
    const int m6 = getIndexOfDataArea(1, L("M"), 6, driver.dataAreaList);
    EXPECT_EQ(index.successor(m5), m6);  // linked when byte 6 came
    EXPECT_EQ(index.successor(m6), m7);  // and byte 6 found byte 7
    EXPECT_EQ(index.successor(q6), -1);  // another area
    EXPECT_EQ(index.successor(m6other), -1);  // another key
    const int m4 = getIndexOfDataArea(1, L("M"), 4, driver.dataAreaList);
    EXPECT_EQ(index.successor(m4), m5);
    EXPECT_EQ(index.successor(-1), -1);
    EXPECT_EQ(index.successor(driver.dataAreaList.size()), -1);
}

TEST_F(DataAreas, TheLastAddressIsFollowedByTheFirstAsAddressesWrap)
{
    const CacheIndex& index = driver.dataAreaIndex;
    const int last = getIndexOfDataArea(1, L("M"), INT_MAX, driver.dataAreaList);
    const int first = getIndexOfDataArea(1, L("M"), INT_MIN, driver.dataAreaList);
    EXPECT_EQ(index.successor(last), first);
    EXPECT_EQ(index.successor(first), -1);
}

TEST_F(DataAreas, LinksAreMadeAgainForAListBuiltByHandAndForgottenWithTheCache)
{
    appendUnits({adstest::makeUnit(1, "M", 2), adstest::makeUnit(1, "M", 0), adstest::makeUnit(1, "M", 1)});
    const CacheIndex& index = driver.dataAreaIndex;
    EXPECT_EQ(index.successor(1), 2);  // M 0 -> M 1
    EXPECT_EQ(index.successor(2), 0);  // M 1 -> M 2
    EXPECT_EQ(index.successor(0), -1);
    h->init();
    EXPECT_EQ(index.successor(0), -1);
    EXPECT_EQ(index.successor(2), -1);
}

// ---------------------------------------------------------------------------------------
// Marking: word registers (data width "16", address unit "8")
// ---------------------------------------------------------------------------------------

TEST_F(DataAreas, MarkingWordSetsBit1OnFirstByteAndBit2OnSecond)
{
    EXPECT_EQ(_setDataAreaMonitorFlag(2, L("M_W"), 10, 1), 0);
    ASSERT_EQ(driver.dataAreaList.size(), 2);
    const _DATA_* a10 = area(2, "M", 10);
    const _DATA_* a11 = area(2, "M", 11);
    ASSERT_NE(a10, nullptr);
    ASSERT_NE(a11, nullptr);
    EXPECT_EQ(a10->monitorFlag, 0x2u);
    EXPECT_EQ(a11->monitorFlag, 0x4u);
    EXPECT_EQ(a10->bitMonitorMask, 0u);
    EXPECT_EQ(a11->bitMonitorMask, 0u);
    // Units are created in address order.
    EXPECT_EQ(driver.dataAreaList.at(0).address, 10);
    EXPECT_EQ(driver.dataAreaList.at(1).address, 11);
}

TEST_F(DataAreas, MarkingBitAfterWordFindsTheSameAreaAndSetsItsBitMask)
{
    _setDataAreaMonitorFlag(2, L("M_W"), 10, 1);
    EXPECT_EQ(_setDataAreaMonitorFlag(2, L("M_bit"), 81, 1), 0);
    EXPECT_EQ(driver.dataAreaList.size(), 2);
    const _DATA_* a10 = area(2, "M", 10);
    ASSERT_NE(a10, nullptr);
    EXPECT_EQ(a10->bitMonitorMask, 0x2u);
    EXPECT_EQ(a10->monitorFlag, 0x2u);
    const _DATA_* a11 = area(2, "M", 11);
    ASSERT_NE(a11, nullptr);
    EXPECT_EQ(a11->bitMonitorMask, 0u);
}

TEST_F(DataAreas, MarkingSeveralWordsAlternatesBits1And2)
{
    _setDataAreaMonitorFlag(0, L("Q_W"), 20, 3);
    ASSERT_EQ(driver.dataAreaList.size(), 6);
    const unsigned int expected[6] = {2, 4, 2, 4, 2, 4};
    for (int a = 20; a < 26; ++a) {
        const _DATA_* d = area(0, "Q", a);
        ASSERT_NE(d, nullptr) << a;
        EXPECT_EQ(d->monitorFlag, expected[a - 20]) << a;
    }
    EXPECT_TRUE(areasWith(0, L("Q"), 26).empty());
    EXPECT_TRUE(areasWith(0, L("Q"), 19).empty());
}

TEST_F(DataAreas, WordsAtOddAddressesOverlapOnSharedByte)
{
    _setDataAreaMonitorFlag(0, L("I_W"), 10, 1);
    _setDataAreaMonitorFlag(0, L("I_W"), 11, 1);
    EXPECT_EQ(driver.dataAreaList.size(), 3);
    EXPECT_EQ(area(0, "I", 10)->monitorFlag, 0x2u);
    EXPECT_EQ(area(0, "I", 11)->monitorFlag, 0x6u);
    EXPECT_EQ(area(0, "I", 12)->monitorFlag, 0x4u);
}

TEST_F(DataAreas, AreaNameIsRegisterNameUpToUnderscore)
{
    _setDataAreaMonitorFlag(5, L("I_W"), 0, 1);
    _setDataAreaMonitorFlag(5, L("Q_W"), 0, 1);
    _setDataAreaMonitorFlag(5, L("M_W"), 0, 1);
    _setDataAreaMonitorFlag(5, L("I_bit"), 16, 1);
    _setDataAreaMonitorFlag(5, L("Q_bit"), 16, 1);
    _setDataAreaMonitorFlag(5, L("M_bit"), 16, 1);
    EXPECT_EQ(driver.dataAreaList.size(), 9);
    for (const char* n : {"I", "Q", "M"}) {
        ASSERT_NE(area(5, n, 0), nullptr) << n;
        ASSERT_NE(area(5, n, 1), nullptr) << n;
        ASSERT_NE(area(5, n, 2), nullptr) << n;
        EXPECT_EQ(area(5, n, 2)->bitMonitorMask, 0x1u) << n;
    }
    for (const _DATA_& d : driver.dataAreaList) {
        EXPECT_FALSE(d.areaName.contains(QLatin1Char('_'))) << d.areaName.toStdString();
    }
}

// ---------------------------------------------------------------------------------------
// Marking: bit registers (data width "1", address unit "8")
// ---------------------------------------------------------------------------------------

TEST_F(DataAreas, MarkingBitsAcrossByteBoundary)
{
    _setDataAreaMonitorFlag(1, L("M_bit"), 6, 4);
    ASSERT_EQ(driver.dataAreaList.size(), 2);
    const _DATA_* u0 = area(1, "M", 0);
    const _DATA_* u1 = area(1, "M", 1);
    ASSERT_NE(u0, nullptr);
    ASSERT_NE(u1, nullptr);
    EXPECT_EQ(u0->bitMonitorMask, 0xC0u);
    EXPECT_EQ(u1->bitMonitorMask, 0x03u);
    EXPECT_EQ(u0->monitorFlag, 0u);
    EXPECT_EQ(u1->monitorFlag, 0u);
}

TEST_F(DataAreas, MarkingTwentyBitsFillsTwoBytesAndHalfOfThird)
{
    _setDataAreaMonitorFlag(0, L("Q_bit"), 0, 20);
    ASSERT_EQ(driver.dataAreaList.size(), 3);
    EXPECT_EQ(area(0, "Q", 0)->bitMonitorMask, 0xFFu);
    EXPECT_EQ(area(0, "Q", 1)->bitMonitorMask, 0xFFu);
    EXPECT_EQ(area(0, "Q", 2)->bitMonitorMask, 0x0Fu);
}

TEST_F(DataAreas, MarkingSingleBitUsesBitNumberModuloEight)
{
    _setDataAreaMonitorFlag(0, L("I_bit"), 83, 1);  // byte 10, bit 3
    ASSERT_EQ(driver.dataAreaList.size(), 1);
    const _DATA_* d = area(0, "I", 10);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->bitMonitorMask, 0x08u);
    EXPECT_EQ(d->monitorFlag, 0u);
}

TEST_F(DataAreas, BitMarksAccumulateOnOneByte)
{
    _setDataAreaMonitorFlag(0, L("M_bit"), 80, 1);
    _setDataAreaMonitorFlag(0, L("M_bit"), 87, 1);
    _setDataAreaMonitorFlag(0, L("M_bit"), 83, 1);
    ASSERT_EQ(driver.dataAreaList.size(), 1);
    EXPECT_EQ(area(0, "M", 10)->bitMonitorMask, 0x89u);
}

TEST_F(DataAreas, HighestBitAddressMarksLastByte)
{
    _setDataAreaMonitorFlag(0, L("M_bit"), 524287, 1);  // 65535.7
    ASSERT_EQ(driver.dataAreaList.size(), 1);
    const _DATA_* d = area(0, "M", 65535);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->bitMonitorMask, 0x80u);
}

// ---------------------------------------------------------------------------------------
// Marking: repetition, keys and counts
// ---------------------------------------------------------------------------------------

TEST_F(DataAreas, MarkingTwiceLeavesSameMarksAndNoSecondArea)
{
    _setDataAreaMonitorFlag(3, L("M_W"), 10, 1);
    _setDataAreaMonitorFlag(3, L("M_bit"), 6, 4);
    QList<_DATA_> before = driver.dataAreaList;
    _setDataAreaMonitorFlag(3, L("M_W"), 10, 1);
    _setDataAreaMonitorFlag(3, L("M_bit"), 6, 4);
    ASSERT_EQ(driver.dataAreaList.size(), before.size());
    for (int i = 0; i < before.size(); ++i) {
        EXPECT_EQ(driver.dataAreaList.at(i).keyNo, before.at(i).keyNo);
        EXPECT_EQ(driver.dataAreaList.at(i).areaName, before.at(i).areaName);
        EXPECT_EQ(driver.dataAreaList.at(i).address, before.at(i).address);
        EXPECT_EQ(driver.dataAreaList.at(i).monitorFlag, before.at(i).monitorFlag);
        EXPECT_EQ(driver.dataAreaList.at(i).bitMonitorMask, before.at(i).bitMonitorMask);
    }
    EXPECT_EQ(area(3, "M", 10)->monitorFlag, 0x2u);
    EXPECT_EQ(area(3, "M", 11)->monitorFlag, 0x4u);
}

TEST_F(DataAreas, AddressesDifferingOnlyInKeyNoGetSeparateAreas)
{
    _setDataAreaMonitorFlag(1, L("M_W"), 10, 1);
    _setDataAreaMonitorFlag(2, L("M_W"), 10, 1);
    _setDataAreaMonitorFlag(1, L("M_bit"), 0, 1);
    _setDataAreaMonitorFlag(2, L("M_bit"), 1, 1);
    EXPECT_EQ(driver.dataAreaList.size(), 6);
    EXPECT_EQ(area(1, "M", 10)->monitorFlag, 0x2u);
    EXPECT_EQ(area(2, "M", 10)->monitorFlag, 0x2u);
    EXPECT_EQ(area(1, "M", 0)->bitMonitorMask, 0x1u);
    EXPECT_EQ(area(2, "M", 0)->bitMonitorMask, 0x2u);
}

TEST_F(DataAreas, CountZeroOrNegativeMarksAndCreatesNothing)
{
    for (const char* reg : {"M_W", "M_bit", "I_W", "Q_bit"}) {
        EXPECT_EQ(_setDataAreaMonitorFlag(0, L(reg), 10, 0), 0);
        EXPECT_EQ(_setDataAreaMonitorFlag(0, L(reg), 10, -3), 0);
    }
    EXPECT_EQ(driver.dataAreaList.size(), 0);
}

TEST_F(DataAreas, CountZeroLeavesExistingMarksAlone)
{
    _setDataAreaMonitorFlag(0, L("M_W"), 10, 1);
    _setDataAreaMonitorFlag(0, L("M_W"), 11, 0);
    _setDataAreaMonitorFlag(0, L("M_bit"), 80, 0);
    EXPECT_EQ(driver.dataAreaList.size(), 2);
    EXPECT_EQ(area(0, "M", 10)->monitorFlag, 0x2u);
    EXPECT_EQ(area(0, "M", 10)->bitMonitorMask, 0x0u);
    EXPECT_EQ(area(0, "M", 11)->monitorFlag, 0x4u);
}

TEST_F(DataAreas, MarkingKeepsCachedValuesAndWriteState)
{
    int idx = getIndexOfDataArea(0, L("M"), 10, driver.dataAreaList);
    adstest::unitRef(idx).value[0] = 0xAB;
    adstest::unitRef(idx).writeValue[0] = 0xCD;
    adstest::unitRef(idx).writeFlag = 1;
    adstest::unitRef(idx).bitWriteState = 0x5;
    adstest::unitRef(idx).monitorFlag = 0x8;
    _setDataAreaMonitorFlag(0, L("M_W"), 10, 1);
    _setDataAreaMonitorFlag(0, L("M_bit"), 84, 1);
    ASSERT_EQ(driver.dataAreaList.size(), 2);
    const _DATA_* d = area(0, "M", 10);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->value[0], 0xAB);
    EXPECT_EQ(d->writeValue[0], 0xCD);
    EXPECT_EQ(d->writeFlag, 1);
    EXPECT_EQ(d->bitWriteState, 0x5u);
    EXPECT_EQ(d->monitorFlag, 0xAu);  // marking only ever sets bits
    EXPECT_EQ(d->bitMonitorMask, 0x10u);
}

TEST_F(DataAreas, MarkingCreatesAreasWithZeroValues)
{
    _setDataAreaMonitorFlag(0, L("Q_W"), 40, 2);
    ASSERT_EQ(driver.dataAreaList.size(), 4);
    for (const _DATA_& d : driver.dataAreaList) {
        for (int k = 0; k < 4; ++k) {
            EXPECT_EQ(d.value[k], 0);
            EXPECT_EQ(d.writeValue[k], 0);
        }
        EXPECT_EQ(d.writeFlag, 0);
        EXPECT_EQ(d.bitWriteState, 0u);
        EXPECT_EQ(d.spare, 0);
    }
}

// ---------------------------------------------------------------------------------------
// Names outside the register table: the spare word row
// ---------------------------------------------------------------------------------------

TEST_F(DataAreas, UnknownWordLikeNameIsMarkedLikeWordRegister)
{
    EXPECT_EQ(_setDataAreaMonitorFlag(0, L("X_W"), 4, 2), 0);
    ASSERT_EQ(driver.dataAreaList.size(), 4);
    const unsigned int expected[4] = {2, 4, 2, 4};
    for (int a = 4; a < 8; ++a) {
        const _DATA_* d = area(0, "X", a);
        ASSERT_NE(d, nullptr) << a;
        EXPECT_EQ(d->monitorFlag, expected[a - 4]) << a;
        EXPECT_EQ(d->bitMonitorMask, 0u) << a;
    }
}

TEST_F(DataAreas, LowerCaseBitNameIsUnknownAndMarkedLikeWord)
{
    // The look-up is case-sensitive: "m_bit" is no register, so the spare word row applies.
    _setDataAreaMonitorFlag(0, L("m_bit"), 10, 1);
    ASSERT_EQ(driver.dataAreaList.size(), 2);
    const _DATA_* a10 = area(0, "m", 10);
    const _DATA_* a11 = area(0, "m", 11);
    ASSERT_NE(a10, nullptr);
    ASSERT_NE(a11, nullptr);
    EXPECT_EQ(a10->monitorFlag, 0x2u);
    EXPECT_EQ(a11->monitorFlag, 0x4u);
    EXPECT_EQ(a10->bitMonitorMask, 0u);
}

TEST_F(DataAreas, UnknownNameWithCountZeroCreatesNothing)
{
    _setDataAreaMonitorFlag(0, L("X_W"), 4, 0);
    EXPECT_EQ(driver.dataAreaList.size(), 0);
}

// ---------------------------------------------------------------------------------------
// Re-marking through intf_addrMerge
// ---------------------------------------------------------------------------------------

TEST_F(DataAreas, NewAddressSetClearsOldMarksButKeepsAreasAndValues)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(1, "M_W", 10, 1));
    intf_addrMerge(keys);
    ASSERT_NE(area(1, "M", 10), nullptr);
    int idx10 = areasWith(1, L("M"), 10)[0];
    int idx11 = areasWith(1, L("M"), 11)[0];
    adstest::unitRef(idx10).value[0] = 0x34;
    adstest::unitRef(idx11).value[0] = 0x12;
    adstest::unitRef(idx10).writeValue[0] = 0x99;
    adstest::unitRef(idx10).writeFlag = 1;

    QList<KEY_ADDRESS> other;
    other.append(makeKey(1, "M_W", 20, 1));
    intf_addrMerge(other);

    const _DATA_* a10 = area(1, "M", 10);
    const _DATA_* a11 = area(1, "M", 11);
    ASSERT_NE(a10, nullptr);
    ASSERT_NE(a11, nullptr);
    EXPECT_EQ(a10->monitorFlag, 0u);
    EXPECT_EQ(a11->monitorFlag, 0u);
    EXPECT_EQ(a10->bitMonitorMask, 0u);
    EXPECT_EQ(a10->value[0], 0x34);
    EXPECT_EQ(a11->value[0], 0x12);
    EXPECT_EQ(a10->writeValue[0], 0x99);
    EXPECT_EQ(a10->writeFlag, 1);
    EXPECT_EQ(area(1, "M", 20)->monitorFlag, 0x2u);
    EXPECT_EQ(area(1, "M", 21)->monitorFlag, 0x4u);
    EXPECT_EQ(driver.dataAreaList.size(), 4);
}

TEST_F(DataAreas, AddrMergeMarksEveryKeyWithItsOwnUnits)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 10, 1));
    keys.append(makeKey(0, "M_bit", 81, 1));
    keys.append(makeKey(0, "I_bit", 6, 4));
    intf_addrMerge(keys);
    EXPECT_EQ(area(0, "M", 10)->monitorFlag, 0x2u);
    EXPECT_EQ(area(0, "M", 10)->bitMonitorMask, 0x2u);
    EXPECT_EQ(area(0, "M", 11)->monitorFlag, 0x4u);
    EXPECT_EQ(area(0, "I", 0)->bitMonitorMask, 0xC0u);
    EXPECT_EQ(area(0, "I", 1)->bitMonitorMask, 0x03u);
    EXPECT_EQ(driver.dataAreaList.size(), 4);
}

}  // namespace
