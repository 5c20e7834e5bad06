// Address merging: the host's monitored addresses become read blocks of at most 128 bytes.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"

namespace {

using adstest::L;
using adstest::makeKey;

struct Block {
    int keyNo;
    std::string reg;
    int address;
    int length;
    bool operator==(const Block& o) const
    {
        return keyNo == o.keyNo && reg == o.reg && address == o.address && length == o.length;
    }
};

std::ostream& operator<<(std::ostream& os, const Block& b)
{
    return os << "{" << b.keyNo << "," << b.reg << "," << b.address << "," << b.length << "}";
}

std::vector<Block> blocksOf(const QList<KEY_ADDRESS>& keys)
{
    std::vector<Block> out;
    for (const KEY_ADDRESS& k : keys)
        out.push_back({k.keyNo, k.regName.toStdString(), k.address, k.length});
    return out;
}

std::vector<Block> blocksOf(const QList<VARIABLE>& vars)
{
    std::vector<Block> out;
    for (const VARIABLE& v : vars)
        out.push_back({v.keyNo, v.regName.toStdString(), v.address, v.length});
    return out;
}

using adstest::oracleWeight;

std::vector<Block> merged(QList<KEY_ADDRESS> keys, int mode)
{
    addrMerge(keys, mode);
    return blocksOf(keys);
}

class AddrMerge : public adstest::DriverTest {
protected:
};

// ---------------------------------------------------------------------------------------
// judgeAddrMerge
// ---------------------------------------------------------------------------------------

TEST_F(AddrMerge, JudgeRefusesOtherKeyNo)
{
    EXPECT_EQ(judgeAddrMerge(makeKey(1, "M_W", 0, 2), makeKey(2, "M_W", 2, 2), 0), 1);
    EXPECT_EQ(judgeAddrMerge(makeKey(1, "M_W", 0, 2), makeKey(2, "M_W", 0, 2), 1), 1);
}

TEST_F(AddrMerge, JudgeRefusesOtherRegisterNameCaseSensitively)
{
    EXPECT_EQ(judgeAddrMerge(makeKey(0, "I_W", 0, 2), makeKey(0, "Q_W", 2, 2), 0), 1);
    EXPECT_EQ(judgeAddrMerge(makeKey(0, "M_W", 0, 2), makeKey(0, "m_W", 1, 2), 1), 1);
}

TEST_F(AddrMerge, JudgeWithoutGapModeAllowsOnlyTouchingOrOverlapping)
{
    KEY_ADDRESS block = makeKey(0, "M_W", 10, 4);                      // bytes 10..13
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "M_W", 14, 2), 0), 0);  // gap 0
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "M_W", 15, 2), 0), 1);  // gap 1
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "M_W", 12, 2), 0), 0);  // overlap
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "M_W", 0, 2), 0), 0);   // far before: negative gap
}

TEST_F(AddrMerge, JudgeWithGapModeUsesMaxMergeGapInclusively)
{
    h->init(adstest::InitOptions().mergeGap(5));
    KEY_ADDRESS block = makeKey(0, "M_W", 10, 4);                      // ends before 14
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "M_W", 19, 2), 1), 0);  // gap 5 = limit
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "M_W", 20, 2), 1), 1);  // gap 6
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "M_W", 20, 2), 7), 1);  // any non-zero mode
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "M_W", 19, 2), -1), 0);
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "M_W", 19, 2), 0), 1);  // mode 0: limit 0
}

TEST_F(AddrMerge, JudgeWithZeroMaxMergeGapBehavesLikeContiguous)
{
    h->init(adstest::InitOptions().mergeGap(0));
    KEY_ADDRESS block = makeKey(0, "Q_W", 0, 2);
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "Q_W", 2, 2), 1), 0);
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "Q_W", 3, 2), 1), 1);
}

TEST_F(AddrMerge, JudgeWithNegativeMaxMergeGapRefusesTouching)
{
    h->init(adstest::InitOptions().mergeGap(-1));
    KEY_ADDRESS block = makeKey(0, "Q_W", 0, 2);
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "Q_W", 2, 2), 1), 1);  // gap 0 > -1
    EXPECT_EQ(judgeAddrMerge(block, makeKey(0, "Q_W", 1, 2), 1), 0);  // gap -1
}

// ---------------------------------------------------------------------------------------
// Stage 1: unit conversion (mode 1)
// ---------------------------------------------------------------------------------------

TEST_F(AddrMerge, BitKeyBecomesWordKeyInBytes)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_bit", 21, 6));  // bits 21..26: bytes 2 and 3
    addrMerge(keys, 1);
    EXPECT_EQ(blocksOf(keys), (std::vector<Block> {{0, "M_W", 2, 2}}));
}

TEST_F(AddrMerge, BitConversionRoundsUp)
{
    EXPECT_EQ(merged({makeKey(0, "I_bit", 16, 8)}, 1), (std::vector<Block> {{0, "I_W", 2, 1}}));
    EXPECT_EQ(merged({makeKey(0, "Q_bit", 7, 2)}, 1), (std::vector<Block> {{0, "Q_W", 0, 2}}));
    EXPECT_EQ(merged({makeKey(0, "M_bit", 0, 1)}, 1), (std::vector<Block> {{0, "M_W", 0, 1}}));
    EXPECT_EQ(merged({makeKey(0, "M_bit", 23, 1)}, 1), (std::vector<Block> {{0, "M_W", 2, 1}}));
    EXPECT_EQ(merged({makeKey(0, "M_bit", 8, 9)}, 1), (std::vector<Block> {{0, "M_W", 1, 2}}));
    EXPECT_EQ(merged({makeKey(0, "M_bit", 524287, 1)}, 1), (std::vector<Block> {{0, "M_W", 65535, 1}}));
}

TEST_F(AddrMerge, WordKeyLengthBecomesBytes)
{
    EXPECT_EQ(merged({makeKey(0, "M_W", 5, 3)}, 1), (std::vector<Block> {{0, "M_W", 5, 6}}));
    EXPECT_EQ(merged({makeKey(0, "I_W", 0, 64)}, 1), (std::vector<Block> {{0, "I_W", 0, 128}}));
}

TEST_F(AddrMerge, UnknownNameTakesWordPathOfSpareRow)
{
    EXPECT_EQ(merged({makeKey(0, "X_W", 4, 3)}, 1), (std::vector<Block> {{0, "X_W", 4, 6}}));
}

// A name outside the table that ends in "_bit" still counts bits: its key becomes the
// bytes holding them, under its area's text followed by "_W".
TEST_F(AddrMerge, UnknownBitNameIsConvertedByItsText)
{
    EXPECT_EQ(merged({makeKey(0, "X_bit", 83, 10)}, 1), (std::vector<Block> {{0, "X_W", 10, 2}}));
    EXPECT_EQ(merged({makeKey(0, "I_x_bit", 16, 8)}, 1), (std::vector<Block> {{0, "I_W", 2, 1}}));
    EXPECT_EQ(merged({makeKey(0, "M_bits", 4, 3)}, 1), (std::vector<Block> {{0, "M_bits", 4, 6}}));
}

TEST_F(AddrMerge, EmittedBlockIsFullCopyOfItsFirstKey)
{
    QList<KEY_ADDRESS> keys;
    KEY_ADDRESS a = makeKey(3, "M_W", 0, 1, 111);
    a.hostText = L("first");
    a.hostText2 = L("second");
    a.rcpDataIndex = 42;
    a.unitMark = 7;
    for (int i = 0; i < 1024; ++i)
        a.data[i] = static_cast<unsigned char>(i * 7 + 1);
    KEY_ADDRESS b = makeKey(3, "M_W", 2, 1, 222);
    b.hostText = L("other");
    std::memset(b.data, 0xEE, sizeof b.data);
    keys.append(a);
    keys.append(b);
    addrMerge(keys, 1);
    ASSERT_EQ(keys.size(), 1);
    const KEY_ADDRESS& k = keys.at(0);
    EXPECT_EQ(k.address, 0);
    EXPECT_EQ(k.length, 4);
    EXPECT_EQ(k.hostNumber, 111);
    EXPECT_EQ(k.hostText, L("first"));
    EXPECT_EQ(k.hostText2, L("second"));
    EXPECT_EQ(k.rcpDataIndex, 42);
    EXPECT_EQ(k.unitMark, 7);
    EXPECT_EQ(std::memcmp(k.data, a.data, 1024), 0);
}

// ---------------------------------------------------------------------------------------
// Stage 2: sort
// ---------------------------------------------------------------------------------------

TEST_F(AddrMerge, OutOfOrderKeysComeOutSortedByKeyRegisterAddress)
{
    h->init(adstest::InitOptions().mergeGap(0));
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(1, "I_W", 0, 1));
    keys.append(makeKey(0, "M_W", 100, 1));
    keys.append(makeKey(0, "M_W", 10, 1));
    keys.append(makeKey(0, "Q_W", 50, 1));
    keys.append(makeKey(0, "I_W", 70, 1));
    keys.append(makeKey(0, "M_bit", 400, 1));  // byte 50 of "M"
    EXPECT_EQ(merged(keys, 1),
        (std::vector<Block> {{0, "I_W", 70, 2}, {0, "Q_W", 50, 2}, {0, "M_W", 10, 2}, {0, "M_W", 50, 1},
            {0, "M_W", 100, 2}, {1, "I_W", 0, 2}}));
}

TEST_F(AddrMerge, EqualWeightsKeepHostOrder)
{
    h->init(adstest::InitOptions().mergeGap(0));
    // "Q_W" 0 and "I_W" 65535 both weigh 4 x 65535: the step is 65535, not 65536.
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "Q_W", 0, 1, 1));
    keys.append(makeKey(0, "I_W", 65535, 1, 2));
    QList<KEY_ADDRESS> a = keys;
    addrMerge(a, 1);
    ASSERT_EQ(a.size(), 2);
    EXPECT_EQ(a.at(0).hostNumber, 1);
    EXPECT_EQ(a.at(1).hostNumber, 2);

    QList<KEY_ADDRESS> b;
    b.append(keys.at(1));
    b.append(keys.at(0));
    addrMerge(b, 1);
    ASSERT_EQ(b.size(), 2);
    EXPECT_EQ(b.at(0).hostNumber, 2);
    EXPECT_EQ(b.at(1).hostNumber, 1);
}

TEST_F(AddrMerge, WeightOfHighAddressRunsIntoNextKeyNumber)
{
    h->init(adstest::InitOptions().mergeGap(0));
    // Key 1 "I_W" 0 weighs 6 x 65535 + 3 x 65535 = 589815, as does key 0 "M_W" 262140
    // (5 x 65535 + 262140): equal weights keep the host's order.
    ASSERT_EQ(oracleWeight(1, L("I_W"), 0), 589815);
    ASSERT_EQ(oracleWeight(0, L("M_W"), 262140), 589815);
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(1, "I_W", 0, 1, 1));
    keys.append(makeKey(0, "M_W", 262140, 1, 2));
    keys.append(makeKey(0, "M_W", 262150, 1, 3));
    keys.append(makeKey(0, "M_W", 262130, 1, 4));
    QList<KEY_ADDRESS> out = keys;
    addrMerge(out, 1);
    ASSERT_EQ(out.size(), 4);
    EXPECT_EQ(out.at(0).hostNumber, 4);
    EXPECT_EQ(out.at(1).hostNumber, 1);
    EXPECT_EQ(out.at(2).hostNumber, 2);
    EXPECT_EQ(out.at(3).hostNumber, 3);
}

TEST_F(AddrMerge, WeightWrapsInThirtyTwoBits)
{
    h->init(adstest::InitOptions().mergeGap(0));
    // For "M_W" 0, key 5462 weighs more than 2^31 - 1 and wraps negative; key 5460 does not.
    ASSERT_LT(oracleWeight(5462, L("M_W"), 0), 0);
    ASSERT_GT(oracleWeight(5460, L("M_W"), 0), 0);
    ASSERT_EQ(oracleWeight(-1, L("M_W"), 0), -65535);
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 1, 1));
    keys.append(makeKey(5460, "M_W", 0, 1, 2));
    keys.append(makeKey(5462, "M_W", 0, 1, 3));
    keys.append(makeKey(-1, "M_W", 0, 1, 4));
    QList<KEY_ADDRESS> out = keys;
    addrMerge(out, 1);
    ASSERT_EQ(out.size(), 4);
    EXPECT_EQ(out.at(0).hostNumber, 3);
    EXPECT_EQ(out.at(1).hostNumber, 4);
    EXPECT_EQ(out.at(2).hostNumber, 1);
    EXPECT_EQ(out.at(3).hostNumber, 2);
}

// ---------------------------------------------------------------------------------------
// Stage 3: contiguous merge with the 128-byte limit
// ---------------------------------------------------------------------------------------

TEST_F(AddrMerge, BitAndWordOfSameBytesMergeIntoOneBlock)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_bit", 0, 1));
    keys.append(makeKey(0, "M_W", 0, 1));
    EXPECT_EQ(intf_addrMerge(keys), 1);
    EXPECT_EQ(blocksOf(driver.readList), (std::vector<Block> {{0, "M_W", 0, 2}}));
}

TEST_F(AddrMerge, AdjacentWordsMergeWithoutGap)
{
    h->init(adstest::InitOptions().mergeGap(0));
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 1));
    keys.append(makeKey(0, "M_W", 2, 1));
    EXPECT_EQ(merged(keys, 1), (std::vector<Block> {{0, "M_W", 0, 4}}));
}

TEST_F(AddrMerge, KeyInsidePrecedingBlockIsAbsorbed)
{
    h->init(adstest::InitOptions().mergeGap(0));
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 10));     // bytes 0..19
    keys.append(makeKey(0, "M_W", 4, 2));      // bytes 4..7
    keys.append(makeKey(0, "M_bit", 152, 8));  // byte 19
    EXPECT_EQ(merged(keys, 1), (std::vector<Block> {{0, "M_W", 0, 20}}));
}

TEST_F(AddrMerge, OverlappingKeysExtendTheBlock)
{
    h->init(adstest::InitOptions().mergeGap(0));
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "Q_W", 0, 3));  // 0..5
    keys.append(makeKey(0, "Q_W", 4, 3));  // 4..9
    EXPECT_EQ(merged(keys, 1), (std::vector<Block> {{0, "Q_W", 0, 10}}));
}

TEST_F(AddrMerge, HundredWordKeyIsCutInto128And72)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 40, 100));
    EXPECT_EQ(intf_addrMerge(keys), 2);
    EXPECT_EQ(blocksOf(driver.readList), (std::vector<Block> {{0, "M_W", 40, 128}, {0, "M_W", 168, 72}}));
}

TEST_F(AddrMerge, LongKeyCutIntoSeveralPiecesAndRemainder)
{
    h->init(adstest::InitOptions().mergeGap(0));
    EXPECT_EQ(merged({makeKey(0, "I_W", 0, 150)}, 1),
        (std::vector<Block> {{0, "I_W", 0, 128}, {0, "I_W", 128, 128}, {0, "I_W", 256, 44}}));
    EXPECT_EQ(merged({makeKey(0, "I_W", 0, 128)}, 1), (std::vector<Block> {{0, "I_W", 0, 128}, {0, "I_W", 128, 128}}));
}

TEST_F(AddrMerge, LongLastKeyAfterNewBlockIsCut)
{
    h->init(adstest::InitOptions().mergeGap(0));
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 1));      // 0..1
    keys.append(makeKey(0, "M_W", 100, 150));  // 100..399
    EXPECT_EQ(merged(keys, 1),
        (std::vector<Block> {{0, "M_W", 0, 2}, {0, "M_W", 100, 128}, {0, "M_W", 228, 128}, {0, "M_W", 356, 44}}));
}

TEST_F(AddrMerge, LongMiddleKeyIsCutBeforeTheNextKey)
{
    h->init(adstest::InitOptions().mergeGap(0));
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 1));      // 0..1
    keys.append(makeKey(0, "M_W", 100, 100));  // 100..299
    keys.append(makeKey(0, "M_W", 400, 1));    // 400..401
    EXPECT_EQ(merged(keys, 1),
        (std::vector<Block> {{0, "M_W", 0, 2}, {0, "M_W", 100, 128}, {0, "M_W", 228, 72}, {0, "M_W", 400, 2}}));
}

TEST_F(AddrMerge, UnionOf129BytesStaysTwoBlocks)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_bit", 0, 8));  // byte 0
    keys.append(makeKey(0, "M_W", 1, 64));   // bytes 1..128
    EXPECT_EQ(intf_addrMerge(keys), 2);
    EXPECT_EQ(blocksOf(driver.readList), (std::vector<Block> {{0, "M_W", 0, 1}, {0, "M_W", 1, 128}}));
}

TEST_F(AddrMerge, UnionOfExactly128BytesIsOneBlock)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 32));   // 0..63
    keys.append(makeKey(0, "M_W", 64, 32));  // 64..127
    EXPECT_EQ(intf_addrMerge(keys), 1);
    EXPECT_EQ(blocksOf(driver.readList), (std::vector<Block> {{0, "M_W", 0, 128}}));
}

TEST_F(AddrMerge, OverlappingKeyBeyondLimitStartsNewOverlappingBlock)
{
    h->init(adstest::InitOptions().mergeGap(0));
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 50));   // 0..99
    keys.append(makeKey(0, "M_W", 50, 50));  // 50..149: union 150
    EXPECT_EQ(merged(keys, 1), (std::vector<Block> {{0, "M_W", 0, 100}, {0, "M_W", 50, 100}}));
}

TEST_F(AddrMerge, DifferentRegistersAndKeysNeverMerge)
{
    h->init(adstest::InitOptions().mergeGap(1000));
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "I_W", 0, 1));
    keys.append(makeKey(0, "Q_W", 0, 1));
    keys.append(makeKey(0, "Q_W", 2, 1));
    keys.append(makeKey(1, "Q_W", 4, 1));
    EXPECT_EQ(merged(keys, 1), (std::vector<Block> {{0, "I_W", 0, 2}, {0, "Q_W", 0, 4}, {1, "Q_W", 4, 2}}));
}

// ---------------------------------------------------------------------------------------
// Stage 4: bridging gaps up to maxMergeGap
// ---------------------------------------------------------------------------------------

TEST_F(AddrMerge, GapOfTwoBytesMergesOnlyWithMaxMergeGapTwo)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 1));  // 0..1
    keys.append(makeKey(0, "M_W", 4, 1));  // 4..5
    h->init(adstest::InitOptions().mergeGap(1));
    EXPECT_EQ(merged(keys, 1), (std::vector<Block> {{0, "M_W", 0, 2}, {0, "M_W", 4, 2}}));
    h->init(adstest::InitOptions().mergeGap(2));
    EXPECT_EQ(merged(keys, 1), (std::vector<Block> {{0, "M_W", 0, 6}}));
    h->init(adstest::InitOptions().mergeGap(0));
    EXPECT_EQ(merged(keys, 1), (std::vector<Block> {{0, "M_W", 0, 2}, {0, "M_W", 4, 2}}));
}

TEST_F(AddrMerge, BridgedBlockStillKeepsTheLimit)
{
    h->init(adstest::InitOptions().mergeGap(64));
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 60));   // 0..119
    keys.append(makeKey(0, "M_W", 125, 2));  // 125..128: union 129
    EXPECT_EQ(merged(keys, 1), (std::vector<Block> {{0, "M_W", 0, 120}, {0, "M_W", 125, 4}}));
    QList<KEY_ADDRESS> fits;
    fits.append(makeKey(0, "M_W", 0, 60));   // 0..119
    fits.append(makeKey(0, "M_W", 124, 2));  // 124..127: union 128
    EXPECT_EQ(merged(fits, 1), (std::vector<Block> {{0, "M_W", 0, 128}}));
}

TEST_F(AddrMerge, SecondPassChainsSeveralGapsAndStartsAgainAfterRefusal)
{
    h->init(adstest::InitOptions().mergeGap(4));
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 1));   // 0..1
    keys.append(makeKey(0, "M_W", 6, 1));   // gap 4
    keys.append(makeKey(0, "M_W", 12, 1));  // gap 4
    keys.append(makeKey(0, "M_W", 19, 1));  // gap 5: refused
    keys.append(makeKey(0, "M_W", 22, 1));  // gap 1
    keys.append(makeKey(1, "M_W", 24, 1));  // other key
    EXPECT_EQ(merged(keys, 1), (std::vector<Block> {{0, "M_W", 0, 14}, {0, "M_W", 19, 5}, {1, "M_W", 24, 2}}));
}

TEST_F(AddrMerge, SecondPassBridgesGapAfterRemainderOfCutKey)
{
    h->init(adstest::InitOptions().mergeGap(64));
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 70));   // 0..139: pieces 0+128, 128+12
    keys.append(makeKey(0, "M_W", 150, 1));  // 150..151: joins the 12-byte remainder
    EXPECT_EQ(merged(keys, 1), (std::vector<Block> {{0, "M_W", 0, 128}, {0, "M_W", 128, 24}}));
}

// ---------------------------------------------------------------------------------------
// Mode 2 (recipe): no sort, bits stay bits, no gap bridging, block starts recorded
// ---------------------------------------------------------------------------------------

TEST_F(AddrMerge, ModeTwoKeepsHandedOrderAndRecordsBlockStarts)
{
    driver.rcpBlockStartList.clear();
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 10, 1));
    keys.append(makeKey(0, "I_W", 0, 1));
    EXPECT_EQ(merged(keys, 2), (std::vector<Block> {{0, "M_W", 10, 2}, {0, "I_W", 0, 2}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0, 1}));
}

TEST_F(AddrMerge, ModeTwoLeavesBitItemsInBits)
{
    driver.rcpBlockStartList.clear();
    EXPECT_EQ(merged({makeKey(0, "M_bit", 3, 10)}, 2), (std::vector<Block> {{0, "M_bit", 3, 10}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0}));
}

TEST_F(AddrMerge, ModeTwoNeverBridgesGaps)
{
    h->init(adstest::InitOptions().mergeGap(64));
    driver.rcpBlockStartList.clear();
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 2));  // 0..3
    keys.append(makeKey(0, "M_W", 6, 1));  // 6..7
    keys.append(makeKey(0, "M_W", 8, 1));  // 8..9: contiguous
    EXPECT_EQ(merged(keys, 2), (std::vector<Block> {{0, "M_W", 0, 4}, {0, "M_W", 6, 4}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0, 1}));
}

TEST_F(AddrMerge, ModeTwoLeavesUnknownNameUnconverted)
{
    driver.rcpBlockStartList.clear();
    EXPECT_EQ(merged({makeKey(0, "X_W", 4, 3)}, 2), (std::vector<Block> {{0, "X_W", 4, 3}}));
}

TEST_F(AddrMerge, ModeTwoCutsLongKeyAndRecordsOneStart)
{
    driver.rcpBlockStartList.clear();
    EXPECT_EQ(merged({makeKey(0, "M_W", 0, 100)}, 2), (std::vector<Block> {{0, "M_W", 0, 128}, {0, "M_W", 128, 72}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0}));
}

TEST_F(AddrMerge, ModeTwoStartsNewBlockBeyondLimit)
{
    driver.rcpBlockStartList.clear();
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 60));   // 0..119
    keys.append(makeKey(0, "M_W", 120, 4));  // 120..127: union 128
    keys.append(makeKey(0, "M_W", 128, 1));  // union 130
    EXPECT_EQ(merged(keys, 2), (std::vector<Block> {{0, "M_W", 0, 128}, {0, "M_W", 128, 2}}));
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {0, 2}));
}

TEST_F(AddrMerge, ModeOneLeavesBlockStartListAlone)
{
    driver.rcpBlockStartList.clear();
    driver.rcpBlockStartList.append(77);
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 1));
    keys.append(makeKey(0, "M_W", 100, 1));
    merged(keys, 1);
    EXPECT_EQ(driver.rcpBlockStartList, (QList<int> {77}));
}

// ---------------------------------------------------------------------------------------
// intf_addrMerge
// ---------------------------------------------------------------------------------------

TEST_F(AddrMerge, EmptyKeyListClearsReadListAndMarksAndReturnsZero)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 10, 1));
    keys.append(makeKey(0, "M_bit", 3, 1));
    ASSERT_EQ(intf_addrMerge(keys), 1);  // byte 0 and bytes 10..11, gap 9 bridged
    ASSERT_EQ(driver.dataAreaList.size(), 3);
    adstest::unitRef(0).bitWriteState = 3;
    adstest::unitRef(0).value[0] = 0x5A;

    QList<KEY_ADDRESS> none;
    EXPECT_EQ(intf_addrMerge(none), 0);
    EXPECT_EQ(driver.readList.size(), 0);
    ASSERT_EQ(driver.dataAreaList.size(), 3);
    for (const _DATA_& d : driver.dataAreaList) {
        EXPECT_EQ(d.monitorFlag, 0u);
        EXPECT_EQ(d.bitMonitorMask, 0u);
        EXPECT_EQ(d.bitWriteState, 0u);
    }
    EXPECT_EQ(driver.dataAreaList.at(0).value[0], 0x5A);
}

TEST_F(AddrMerge, ReadListItemsAreKindFourWithMergedKeys)
{
    h->init(adstest::InitOptions().mergeGap(0));
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(2, "Q_bit", 21, 6));
    keys.append(makeKey(2, "I_W", 8, 3));
    EXPECT_EQ(intf_addrMerge(keys), 2);
    ASSERT_EQ(driver.readList.size(), 2);
    EXPECT_EQ(blocksOf(driver.readList), (std::vector<Block> {{2, "I_W", 8, 6}, {2, "Q_W", 2, 2}}));
    for (const VARIABLE& v : driver.readList)
        EXPECT_EQ(v.kind, 4);
}

TEST_F(AddrMerge, HostKeyListIsLeftUnchanged)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 100, 100, 5));
    keys.append(makeKey(0, "M_bit", 21, 6, 6));
    intf_addrMerge(keys);
    ASSERT_EQ(keys.size(), 2);
    EXPECT_EQ(blocksOf(keys), (std::vector<Block> {{0, "M_W", 100, 100}, {0, "M_bit", 21, 6}}));
    EXPECT_EQ(keys.at(0).hostNumber, 5);
    EXPECT_EQ(keys.at(1).hostNumber, 6);
}

TEST_F(AddrMerge, SecondCallReplacesReadListWholly)
{
    QList<KEY_ADDRESS> first;
    first.append(makeKey(0, "M_W", 0, 1));
    first.append(makeKey(0, "I_W", 0, 1));
    EXPECT_EQ(intf_addrMerge(first), 2);
    QList<KEY_ADDRESS> second;
    second.append(makeKey(1, "Q_W", 6, 2));
    EXPECT_EQ(intf_addrMerge(second), 1);
    EXPECT_EQ(blocksOf(driver.readList), (std::vector<Block> {{1, "Q_W", 6, 4}}));
}

TEST_F(AddrMerge, InitEmptiesReadListFilledByMerge)
{
    QList<KEY_ADDRESS> keys;
    keys.append(makeKey(0, "M_W", 0, 1));
    ASSERT_EQ(intf_addrMerge(keys), 1);
    h->init();
    EXPECT_EQ(driver.readList.size(), 0);
}

// ---------------------------------------------------------------------------------------
// groupingKey
// ---------------------------------------------------------------------------------------

TEST_F(AddrMerge, GroupingShortKeyIsAppendedUnchanged)
{
    QList<KEY_ADDRESS> out;
    out.append(makeKey(9, "I_W", 0, 1, 99));
    KEY_ADDRESS k = makeKey(1, "M_W", 10, 4, 7);
    for (int i = 0; i < 1024; ++i)
        k.data[i] = static_cast<unsigned char>(i);
    groupingKey(k, 4, out, 1);
    ASSERT_EQ(out.size(), 2);
    EXPECT_EQ(out.at(0).hostNumber, 99);
    EXPECT_EQ(out.at(1).address, 10);
    EXPECT_EQ(out.at(1).length, 4);
    EXPECT_EQ(out.at(1).hostNumber, 7);
    EXPECT_EQ(std::memcmp(out.at(1).data, k.data, 1024), 0);
}

TEST_F(AddrMerge, GroupingCutsIntoPiecesWithRemainder)
{
    QList<KEY_ADDRESS> out;
    KEY_ADDRESS k = makeKey(1, "M_W", 10, 10, 3);
    groupingKey(k, 4, out, 0);
    EXPECT_EQ(blocksOf(out), (std::vector<Block> {{1, "M_W", 10, 4}, {1, "M_W", 14, 4}, {1, "M_W", 18, 2}}));
    for (const KEY_ADDRESS& p : out)
        EXPECT_EQ(p.hostNumber, 3);
}

TEST_F(AddrMerge, GroupingExactMultipleHasNoRemainderPiece)
{
    QList<KEY_ADDRESS> out;
    KEY_ADDRESS k = makeKey(0, "I_W", 0, 8);
    groupingKey(k, 4, out, 0);
    EXPECT_EQ(blocksOf(out), (std::vector<Block> {{0, "I_W", 0, 4}, {0, "I_W", 4, 4}}));
}

TEST_F(AddrMerge, GroupingSplitsBitDataOneBytePerUnit)
{
    QList<KEY_ADDRESS> out;
    KEY_ADDRESS k = makeKey(0, "M_bit", 3, 10);
    k.unitMark = -1;
    for (int i = 0; i < 1024; ++i)
        k.data[i] = static_cast<unsigned char>(i + 1);
    groupingKey(k, 4, out, 1);
    ASSERT_EQ(out.size(), 3);
    EXPECT_EQ(blocksOf(out), (std::vector<Block> {{0, "M_bit", 3, 4}, {0, "M_bit", 7, 4}, {0, "M_bit", 11, 2}}));
    for (int p = 0; p < 3; ++p) {
        for (int b = 0; b < out.at(p).length; ++b) {
            EXPECT_EQ(out.at(p).data[b], k.data[p * 4 + b]) << "piece " << p << " byte " << b;
        }
    }
}

TEST_F(AddrMerge, GroupingSplitsWordDataTwoBytesPerUnit)
{
    QList<KEY_ADDRESS> out;
    KEY_ADDRESS k = makeKey(0, "Q_W", 0, 5);
    k.unitMark = 0;
    for (int i = 0; i < 1024; ++i)
        k.data[i] = static_cast<unsigned char>(200 - i);
    groupingKey(k, 2, out, 1);
    ASSERT_EQ(out.size(), 3);
    EXPECT_EQ(blocksOf(out), (std::vector<Block> {{0, "Q_W", 0, 2}, {0, "Q_W", 2, 2}, {0, "Q_W", 4, 1}}));
    for (int p = 0; p < 3; ++p) {
        for (int b = 0; b < out.at(p).length * 2; ++b) {
            EXPECT_EQ(out.at(p).data[b], k.data[p * 4 + b]) << "piece " << p << " byte " << b;
        }
    }
}

TEST_F(AddrMerge, GroupingWithoutDataCopyKeepsWholeBufferFromStart)
{
    for (int copyData : {0, 2}) {
        QList<KEY_ADDRESS> out;
        KEY_ADDRESS k = makeKey(0, "M_W", 0, 9);
        for (int i = 0; i < 1024; ++i)
            k.data[i] = static_cast<unsigned char>(i * 3);
        groupingKey(k, 4, out, copyData);
        ASSERT_EQ(out.size(), 3);
        for (const KEY_ADDRESS& p : out)
            EXPECT_EQ(std::memcmp(p.data, k.data, 1024), 0) << copyData;
    }
}

TEST_F(AddrMerge, GroupingLeavesInputKeyUnchanged)
{
    QList<KEY_ADDRESS> out;
    KEY_ADDRESS k = makeKey(0, "M_W", 10, 9);
    groupingKey(k, 4, out, 1);
    EXPECT_EQ(k.address, 10);
    EXPECT_EQ(k.length, 9);
}

// ---------------------------------------------------------------------------------------
// Properties over random address sets (seeded, bounded)
// ---------------------------------------------------------------------------------------

const char* const kRegs[6] = {"I_bit", "Q_bit", "M_bit", "I_W", "Q_W", "M_W"};

QList<KEY_ADDRESS> randomKeys(std::mt19937& rng, int maxKeys)
{
    std::uniform_int_distribution<int> nKeys(1, maxKeys);
    std::uniform_int_distribution<int> keyNo(0, 2);
    std::uniform_int_distribution<int> reg(0, 5);
    std::uniform_int_distribution<int> wordAddr(0, 700);
    std::uniform_int_distribution<int> wordLen(1, 80);
    std::uniform_int_distribution<int> bitAddr(0, 5600);
    std::uniform_int_distribution<int> bitLen(1, 700);
    std::uniform_int_distribution<int> small(0, 3);
    QList<KEY_ADDRESS> keys;
    int n = nKeys(rng);
    for (int i = 0; i < n; ++i) {
        int r = reg(rng);
        bool bit = r < 3;
        int addr = bit ? bitAddr(rng) : wordAddr(rng);
        int len = bit ? bitLen(rng) : wordLen(rng);
        if (small(rng) == 0)
            len = bit ? 1 + small(rng) : 1 + small(rng);  // many short items
        keys.append(makeKey(keyNo(rng), kRegs[r], addr, len, i));
    }
    return keys;
}

typedef std::tuple<int, std::string, int> ByteKey;  // keyNo, word register, byte

std::set<ByteKey> monitoredBytes(const QList<KEY_ADDRESS>& keys)
{
    std::set<ByteKey> bytes;
    for (const KEY_ADDRESS& k : keys) {
        std::string name = k.regName.toStdString();
        std::string area = name.substr(0, name.find('_')) + "_W";
        if (name.size() > 4 && name.substr(name.size() - 4) == "_bit") {
            for (int b = k.address / 8; b <= (k.address + k.length - 1) / 8; ++b)
                bytes.insert(ByteKey(k.keyNo, area, b));
        } else {
            for (int b = k.address; b < k.address + 2 * k.length; ++b)
                bytes.insert(ByteKey(k.keyNo, area, b));
        }
    }
    return bytes;
}

TEST_F(AddrMerge, RandomSetsAreCoveredByBoundedOrderedBlocks)
{
    std::mt19937 rng(20240611u);
    std::uniform_int_distribution<int> gapDist(0, 40);
    for (int round = 0; round < 300; ++round) {
        int gap = gapDist(rng);
        h->init(adstest::InitOptions().mergeGap(gap));
        QList<KEY_ADDRESS> keys = randomKeys(rng, 25);
        std::set<ByteKey> bytes = monitoredBytes(keys);

        int count = intf_addrMerge(keys);
        ASSERT_EQ(count, driver.readList.size());
        std::vector<Block> blocks = blocksOf(driver.readList);

        // Direct use of the merge gives exactly the read list.
        QList<KEY_ADDRESS> copy = keys;
        addrMerge(copy, 1);
        ASSERT_EQ(blocksOf(copy), blocks) << "round " << round;

        int prevWeight = 0;
        for (size_t i = 0; i < blocks.size(); ++i) {
            const Block& b = blocks[i];
            SCOPED_TRACE(::testing::Message() << "round " << round << " gap " << gap << " block " << b);
            EXPECT_GE(b.length, 1);
            EXPECT_LE(b.length, 128);
            EXPECT_EQ(driver.readList.at(static_cast<int>(i)).kind, 4);
            // Starts and ends on a monitored byte; every unmonitored run inside is a bridged gap.
            EXPECT_TRUE(bytes.count(ByteKey(b.keyNo, b.reg, b.address)));
            EXPECT_TRUE(bytes.count(ByteKey(b.keyNo, b.reg, b.address + b.length - 1)));
            int run = 0;
            for (int a = b.address; a < b.address + b.length; ++a) {
                if (bytes.count(ByteKey(b.keyNo, b.reg, a))) {
                    run = 0;
                } else {
                    ++run;
                    EXPECT_LE(run, gap) << "byte " << a;
                }
            }
            int w = oracleWeight(b.keyNo, QString::fromStdString(b.reg), b.address);
            if (i > 0) {
                EXPECT_LE(prevWeight, w);
            }
            prevWeight = w;
        }
        // Every monitored byte lies inside a block of its key and register.
        for (const ByteKey& bk : bytes) {
            bool covered = false;
            for (const Block& b : blocks) {
                if (b.keyNo == std::get<0>(bk) && b.reg == std::get<1>(bk) && b.address <= std::get<2>(bk)
                    && std::get<2>(bk) < b.address + b.length) {
                    covered = true;
                    break;
                }
            }
            EXPECT_TRUE(covered) << "round " << round << " byte " << std::get<0>(bk) << "/" << std::get<1>(bk) << "/"
                                 << std::get<2>(bk);
        }
        if (HasFailure())
            return;
    }
}

TEST_F(AddrMerge, RandomGroupingPiecesCoverKeyExactly)
{
    std::mt19937 rng(777u);
    std::uniform_int_distribution<int> lenDist(1, 600);
    std::uniform_int_distribution<int> maxDist(1, 130);
    std::uniform_int_distribution<int> addrDist(0, 10000);
    std::uniform_int_distribution<int> byteDist(0, 255);
    for (int round = 0; round < 400; ++round) {
        KEY_ADDRESS k = makeKey(round % 3, round % 2 ? "M_bit" : "Q_W", addrDist(rng), lenDist(rng), round);
        k.unitMark = (round % 2) ? -1 : 0;
        int maxLen = maxDist(rng);
        int bytesPerUnit = k.unitMark == -1 ? 1 : 2;
        if (k.length * bytesPerUnit > 1024)
            k.length = 1024 / bytesPerUnit;
        for (int i = 0; i < 1024; ++i)
            k.data[i] = static_cast<unsigned char>(byteDist(rng));
        QList<KEY_ADDRESS> out;
        groupingKey(k, maxLen, out, 1);
        SCOPED_TRACE(::testing::Message() << "round " << round << " len " << k.length << " max " << maxLen);
        int expectedPieces = k.length <= maxLen ? 1 : k.length / maxLen + (k.length % maxLen ? 1 : 0);
        ASSERT_EQ(out.size(), expectedPieces);
        int next = k.address;
        for (int p = 0; p < out.size(); ++p) {
            const KEY_ADDRESS& piece = out.at(p);
            EXPECT_EQ(piece.address, next);
            EXPECT_GE(piece.length, 1);
            EXPECT_LE(piece.length, maxLen);
            if (p + 1 < out.size()) {
                EXPECT_EQ(piece.length, maxLen);
            }
            EXPECT_EQ(piece.keyNo, k.keyNo);
            EXPECT_EQ(piece.regName, k.regName);
            EXPECT_EQ(piece.hostNumber, k.hostNumber);
            EXPECT_EQ(piece.unitMark, k.unitMark);
            int from = (piece.address - k.address) * bytesPerUnit;
            EXPECT_EQ(std::memcmp(piece.data, k.data + from, piece.length * bytesPerUnit), 0);
            next = piece.address + piece.length;
        }
        EXPECT_EQ(next, k.address + k.length);
        if (HasFailure())
            return;
    }
}

}  // namespace
