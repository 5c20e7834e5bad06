// Sameness of the fast sort and the indexed data-area look-up with their literal forms.
//
// The driver sorts address keys with a stable O(n log n) sort and finds data areas through a
// hash index beside dataAreaList. This file keeps the literal algorithms as oracles (the
// bubble sort by getRegAddressWeight, the linear search that appends when nothing matches,
// the two merge passes) and compares the driver with them over seeded random inputs.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <QStringList>

#include "ads_ethernet.h"
#include "driver_fixture.h"

namespace {

using adstest::L;

// ---------------------------------------------------------------------------------------
// Oracles, written as the algorithms read
// ---------------------------------------------------------------------------------------

int regIndex(const QString& name)
{
    for (int i = 0; i < 6; ++i)
        if (REG_LIST[i] == name)
            return i;
    return -1;
}

using adstest::oracleWeight;

// Linear search: walk the list, compare keyNo, areaName, address; first match; append when none.
int oracleIndexOfDataArea(int keyNo, const QString& areaName, int address, QList<_DATA_>& list)
{
    for (int i = 0; i < list.size(); ++i) {
        const _DATA_& d = list.at(i);
        if (d.keyNo == keyNo && d.areaName == areaName && d.address == address)
            return i;
    }
    list.append(adstest::makeUnit(keyNo, areaName, address));
    return list.size() - 1;
}

// Bubble sort: pass p from 0 while p < n - 1, j from 0 while j < n - p - 1, swap only when the
// weight of j + 1 is strictly smaller; weights computed per comparison.
template <typename T>
void oracleBubbleSort(QList<T>& items)
{
    const int n = items.size();
    for (int p = 0; p < n - 1; ++p) {
        for (int j = 0; j < n - p - 1; ++j) {
            int wj = oracleWeight(items.at(j).keyNo, items.at(j).regName, items.at(j).address);
            int wj1 = oracleWeight(items.at(j + 1).keyNo, items.at(j + 1).regName, items.at(j + 1).address);
            if (wj1 < wj)
                std::swap(items[j], items[j + 1]);  // swapItemsAt is Qt 5.13+
        }
    }
}

void oracleBubbleSortVector(QVector<_RCP_VAR_PRO>& items)
{
    const int n = items.size();
    for (int p = 0; p < n - 1; ++p) {
        for (int j = 0; j < n - p - 1; ++j) {
            int wj = oracleWeight(items.at(j).keyNo, items.at(j).regName, items.at(j).address);
            int wj1 = oracleWeight(items.at(j + 1).keyNo, items.at(j + 1).regName, items.at(j + 1).address);
            if (wj1 < wj) {
                _RCP_VAR_PRO t = items[j];
                items[j] = items[j + 1];
                items[j + 1] = t;
            }
        }
    }
}

int oracleJudge(const KEY_ADDRESS& block, const KEY_ADDRESS& next, int gapMode, int maxMergeGap)
{
    if (block.keyNo != next.keyNo || block.regName != next.regName)
        return 1;
    int gap = next.address - (block.address + block.length);
    int limit = gapMode == 0 ? 0 : maxMergeGap;
    return gap > limit ? 1 : 0;
}

void oracleStage1(QList<KEY_ADDRESS>& keys, int mode)
{
    for (int i = 0; i < keys.size(); ++i) {
        KEY_ADDRESS& k = keys[i];
        int idx = regIndex(k.regName);
        if (mode == 2) {
            if (idx >= 0 && ADDRESS_RANGE_PRO[idx][3].toInt() != 1) {
                int u = ADDRESS_RANGE_PRO[idx][5].toInt();
                k.length = static_cast<int>(k.length * (16.0 / u));
            }
            continue;
        }
        QStringList parts = k.regName.split(QLatin1Char('_'));
        int u = ADDRESS_RANGE_PRO[idx < 0 ? 6 : idx][5].toInt();
        if (parts.size() >= 2 && parts.last() == L("bit")) {
            k.length = k.length + (k.address % u);
            k.length = k.length / u + ((k.length % u) ? 1 : 0);
            k.address = k.address / u;
            k.regName = parts.first() + L("_W");
        } else if (u != 1) {
            k.length = (16 / u) * k.length;
        }
    }
}

// First pass: contiguous merge, blocks of at most 128 bytes.
QList<KEY_ADDRESS> oracleFirstPass(QList<KEY_ADDRESS> keys, int mode, QList<int>* starts)
{
    QList<KEY_ADDRESS> out;
    const int n = keys.size();
    KEY_ADDRESS cur = keys.at(0);
    if (mode == 2)
        starts->append(0);
    int i = 0;
    int guard = 0;
    while (i < n) {
        if (++guard > 1000000) {
            ADD_FAILURE() << "oracle first pass does not end";
            break;
        }
        if (cur.length > 128) {
            KEY_ADDRESS b = cur;
            b.length = 128;
            out.append(b);
            cur.address += 128;
            cur.length -= 128;
            continue;
        }
        if (i == 0) {
            if (n == 1) {
                out.append(cur);
                break;
            }
            i = 1;
            continue;
        }
        bool again = false;
        if (oracleJudge(cur, keys.at(i), 0, 0)) {
            out.append(cur);
            cur = keys.at(i);
            if (mode == 2)
                starts->append(i);
        } else {
            int newLength = keys.at(i).address + keys.at(i).length - cur.address;
            if (newLength > 128) {
                out.append(cur);
                cur = keys.at(i);
                if (mode == 2)
                    starts->append(i);
            } else if (newLength > cur.length) {
                cur.length = newLength;
            }
        }
        if (i == n - 1) {
            if (cur.length <= 128) {
                out.append(cur);
            } else {
                cur.length = 128;
                keys[i].address += 128;
                keys[i].length -= 128;
                again = true;
            }
        }
        if (!again)
            ++i;
    }
    return out;
}

// Second pass: bridging gaps up to maxMergeGap.
QList<KEY_ADDRESS> oracleSecondPass(const QList<KEY_ADDRESS>& blocks, int maxMergeGap)
{
    if (blocks.size() == 1)
        return blocks;
    QList<KEY_ADDRESS> out;
    const int m = blocks.size();
    KEY_ADDRESS cur = blocks.at(0);
    for (int k = 1; k < m; ++k) {
        if (oracleJudge(cur, blocks.at(k), 1, maxMergeGap)) {
            out.append(cur);
            if (k == m - 1)
                out.append(blocks.at(k));
            else
                cur = blocks.at(k);
        } else {
            int newLength = blocks.at(k).address + blocks.at(k).length - cur.address;
            if (newLength > 128) {
                out.append(cur);
                cur = blocks.at(k);
                if (k == m - 1)
                    out.append(cur);
            } else {
                if (newLength > cur.length)
                    cur.length = newLength;
                if (k == m - 1)
                    out.append(cur);
            }
        }
    }
    return out;
}

QList<KEY_ADDRESS> oracleMergeModeOne(QList<KEY_ADDRESS> keys, int maxMergeGap)
{
    oracleStage1(keys, 1);
    if (keys.size() >= 2)
        oracleBubbleSort(keys);
    QList<int> unused;
    return oracleSecondPass(oracleFirstPass(keys, 1, &unused), maxMergeGap);
}

// ---------------------------------------------------------------------------------------
// Helpers
// ---------------------------------------------------------------------------------------

// A key whose host number (and a recipe index derived from it) tells the keys apart after sorting.
KEY_ADDRESS makeKey(int keyNo, const QString& reg, int address, int length, int hostNumber)
{
    KEY_ADDRESS k = adstest::makeKey(keyNo, reg, address, length, hostNumber);
    k.rcpDataIndex = hostNumber * 3;
    return k;
}

std::string describe(const KEY_ADDRESS& k)
{
    return "{" + std::to_string(k.keyNo) + "," + k.regName.toStdString() + "," + std::to_string(k.address) + ","
        + std::to_string(k.length) + ",#" + std::to_string(k.hostNumber) + "}";
}

std::string describe(const QList<KEY_ADDRESS>& keys)
{
    std::string s;
    for (const KEY_ADDRESS& k : keys)
        s += describe(k) + " ";
    return s;
}

bool sameKeys(const QList<KEY_ADDRESS>& a, const QList<KEY_ADDRESS>& b)
{
    if (a.size() != b.size())
        return false;
    for (int i = 0; i < a.size(); ++i) {
        if (a.at(i).keyNo != b.at(i).keyNo || a.at(i).regName != b.at(i).regName || a.at(i).address != b.at(i).address
            || a.at(i).length != b.at(i).length || a.at(i).hostNumber != b.at(i).hostNumber)
            return false;
    }
    return true;
}

const char* const kKnown[6] = {"I_bit", "Q_bit", "M_bit", "I_W", "Q_W", "M_W"};
const int kKeyPool[] = {0, 1, 2, 5460, 5461, 5462, 100000, -1};
const int kWeightTargets[] = {196605, 262140, 327675, 393210, 589815};

// Keys of known registers, many of them with equal weights, some whose weights wrap.
KEY_ADDRESS randomKnownKey(std::mt19937& rng, int hostNumber, int addrSpan)
{
    std::uniform_int_distribution<int> pick(0, 99);
    std::uniform_int_distribution<int> reg(0, 5);
    std::uniform_int_distribution<int> keyIdx(0, 7);
    std::uniform_int_distribution<int> addr(0, addrSpan);
    std::uniform_int_distribution<int> wordLen(1, 40);
    std::uniform_int_distribution<int> bitLen(1, 200);
    std::uniform_int_distribution<int> target(0, 4);
    int r = reg(rng);
    bool bit = r < 3;
    int keyNo = kKeyPool[keyIdx(rng)];
    int byteAddr = addr(rng);
    if (pick(rng) < 35) {
        // Aim at a shared weight: after conversion a bit key weighs like "<area>_W".
        keyNo = pick(rng) < 50 ? 0 : 1;
        int wordIdx = bit ? r + 3 : r;
        int a = kWeightTargets[target(rng)] - keyNo * 393210 - wordIdx * 65535;
        if (a >= 0)
            byteAddr = a;
    }
    int length = bit ? bitLen(rng) : wordLen(rng);
    int address = bit ? byteAddr * 8 + (pick(rng) % 8) : byteAddr;
    return makeKey(keyNo, L(kKnown[r]), address, length, hostNumber);
}

class Oracles : public adstest::DriverTest {
protected:
};

// ---------------------------------------------------------------------------------------
// Sort weight
// ---------------------------------------------------------------------------------------

TEST_F(Oracles, WeightMatchesLiteralFormulaIncludingWrapAndUnknownNames)
{
    std::mt19937 rng(11u);
    std::uniform_int_distribution<int> keyNo(-200000, 200000);
    std::uniform_int_distribution<int> addr(0, 600000);
    std::uniform_int_distribution<int> reg(0, 8);
    const char* names[9] = {"I_bit", "Q_bit", "M_bit", "I_W", "Q_W", "M_W", "X_W", "m_W", "Z"};
    for (int i = 0; i < 2000; ++i) {
        int k = keyNo(rng);
        QString r = L(names[reg(rng)]);
        int a = addr(rng);
        ASSERT_EQ(getRegAddressWeight(k, r, a, i), oracleWeight(k, r, a)) << k << " " << r.toStdString() << " " << a;
    }
}

// ---------------------------------------------------------------------------------------
// Sort: blocks that cannot merge come out in bubble-sorted order
// ---------------------------------------------------------------------------------------

// Keeps only keys whose bytes lie at least one byte away from every other kept key of the same
// key number and (converted) register, and that are at most 128 bytes long.
QList<KEY_ADDRESS> separated(const QList<KEY_ADDRESS>& keys)
{
    QList<KEY_ADDRESS> kept;
    QList<KEY_ADDRESS> keptConverted;
    for (const KEY_ADDRESS& k : keys) {
        QList<KEY_ADDRESS> one;
        one.append(k);
        oracleStage1(one, 1);
        const KEY_ADDRESS& c = one.at(0);
        if (c.length > 128)
            continue;
        bool clash = false;
        for (const KEY_ADDRESS& o : keptConverted) {
            if (o.keyNo != c.keyNo || o.regName != c.regName)
                continue;
            // Need a gap of at least one byte on either side.
            if (c.address <= o.address + o.length && o.address <= c.address + c.length)
                clash = true;
        }
        if (clash)
            continue;
        kept.append(k);
        keptConverted.append(c);
    }
    return kept;
}

TEST_F(Oracles, UnmergeableKeysComeOutInBubbleSortedOrder)
{
    std::mt19937 rng(424242u);
    std::uniform_int_distribution<int> nKeys(1, 40);
    for (int round = 0; round < 300; ++round) {
        h->init(adstest::InitOptions().mergeGap(0));
        QList<KEY_ADDRESS> raw;
        int n = nKeys(rng);
        for (int i = 0; i < n; ++i)
            raw.append(randomKnownKey(rng, i, 2000));
        QList<KEY_ADDRESS> keys = separated(raw);

        QList<KEY_ADDRESS> expected = keys;
        oracleStage1(expected, 1);
        oracleBubbleSort(expected);

        QList<KEY_ADDRESS> got = keys;
        addrMerge(got, 1);
        ASSERT_TRUE(sameKeys(got, expected))
            << "round " << round << "\n got      " << describe(got) << "\n expected " << describe(expected);

        ASSERT_EQ(intf_addrMerge(keys), expected.size());
        for (int i = 0; i < expected.size(); ++i) {
            const VARIABLE& v = driver.readList.at(i);
            ASSERT_EQ(v.keyNo, expected.at(i).keyNo) << round << " " << i;
            ASSERT_EQ(v.regName, expected.at(i).regName) << round << " " << i;
            ASSERT_EQ(v.address, expected.at(i).address) << round << " " << i;
            ASSERT_EQ(v.length, expected.at(i).length) << round << " " << i;
        }
    }
}

TEST_F(Oracles, UnmergeableKeysWithUnknownNamesComeOutInBubbleSortedOrder)
{
    std::mt19937 rng(5150u);
    std::uniform_int_distribution<int> nKeys(2, 30);
    std::uniform_int_distribution<int> pick(0, 99);
    std::uniform_int_distribution<int> addr(0, 3000);
    std::uniform_int_distribution<int> len(1, 30);
    const char* unknown[3] = {"X_W", "m_W", "Z"};
    for (int round = 0; round < 200; ++round) {
        h->init(adstest::InitOptions().mergeGap(0));
        QList<KEY_ADDRESS> raw;
        int n = nKeys(rng);
        for (int i = 0; i < n; ++i) {
            if (pick(rng) < 40) {
                raw.append(makeKey(kKeyPool[pick(rng) % 8], L(unknown[pick(rng) % 3]), addr(rng), len(rng), i));
            } else {
                raw.append(randomKnownKey(rng, i, 3000));
            }
        }
        QList<KEY_ADDRESS> keys = separated(raw);
        QList<KEY_ADDRESS> expected = keys;
        oracleStage1(expected, 1);
        oracleBubbleSort(expected);
        QList<KEY_ADDRESS> got = keys;
        addrMerge(got, 1);
        ASSERT_TRUE(sameKeys(got, expected))
            << "round " << round << "\n got      " << describe(got) << "\n expected " << describe(expected);
    }
}

// ---------------------------------------------------------------------------------------
// Whole merge of mode 1 against the literal pipeline
// ---------------------------------------------------------------------------------------

TEST_F(Oracles, MergeModeOneEqualsLiteralPipeline)
{
    std::mt19937 rng(90210u);
    std::uniform_int_distribution<int> nKeys(1, 30);
    std::uniform_int_distribution<int> gapDist(0, 50);
    std::uniform_int_distribution<int> longOne(0, 9);
    std::uniform_int_distribution<int> longLen(60, 200);
    std::uniform_int_distribution<int> dense(0, 99);
    for (int round = 0; round < 400; ++round) {
        int gap = gapDist(rng);
        h->init(adstest::InitOptions().mergeGap(gap));
        QList<KEY_ADDRESS> keys;
        int n = nKeys(rng);
        for (int i = 0; i < n; ++i) {
            KEY_ADDRESS k = randomKnownKey(rng, i, 400);
            if (dense(rng) < 70) {
                // Crowd most keys into few registers so that blocks merge and overlap.
                k.keyNo = dense(rng) % 2;
                k.address = regIndex(k.regName) < 3 ? dense(rng) * 24 : dense(rng) * 3;
            }
            if (longOne(rng) == 0)
                k.length = longLen(rng);  // some keys beyond 128 bytes
            keys.append(k);
        }
        QList<KEY_ADDRESS> expected = oracleMergeModeOne(keys, gap);
        QList<KEY_ADDRESS> got = keys;
        addrMerge(got, 1);
        ASSERT_TRUE(sameKeys(got, expected)) << "round " << round << " gap " << gap << "\n input    " << describe(keys)
                                             << "\n got      " << describe(got) << "\n expected " << describe(expected);
    }
}

// ---------------------------------------------------------------------------------------
// Recipe variables: rcpVarList is the bubble-sorted filtered input
// ---------------------------------------------------------------------------------------

TEST_F(Oracles, RecipeVariablesEqualBubbleSortedFilteredInput)
{
    std::mt19937 rng(31337u);
    std::uniform_int_distribution<int> nVars(0, 40);
    std::uniform_int_distribution<int> pick(0, 99);
    std::uniform_int_distribution<int> addr(0, 300);
    std::uniform_int_distribution<int> wordLen(1, 40);
    std::uniform_int_distribution<int> bitLen(1, 100);
    // Recipe variables name registers of the table (the host checks them beforehand); names
    // outside it are exercised by the merge tests above.
    const char* names[6] = {"I_bit", "Q_bit", "M_bit", "I_W", "Q_W", "M_W"};
    for (int round = 0; round < 300; ++round) {
        h->init();
        QVector<_RCP_VAR_PRO> vars;
        int n = nVars(rng);
        for (int i = 0; i < n; ++i) {
            _RCP_VAR_PRO v;
            v.driverNo = pick(rng) < 75 ? 1 : 2;
            v.keyNo = kKeyPool[pick(rng) % 8];
            int r = pick(rng) % 6;
            v.regName = L(names[r]);
            v.address = addr(rng);
            if (pick(rng) < 30) {
                // Equal weights across registers and keys.
                v.keyNo = pick(rng) % 2;
                int a = kWeightTargets[pick(rng) % 5] - v.keyNo * 393210 - r * 65535;
                if (a >= 0)
                    v.address = a;
            }
            v.length = (r < 3) ? bitLen(rng) : wordLen(rng);
            v.rcpDataIndex = i;
            v.hostField = 1000 + i;
            vars.append(v);
        }
        QVector<_RCP_VAR_PRO> filtered;
        for (const _RCP_VAR_PRO& v : vars)
            if (v.driverNo == 1)
                filtered.append(v);
        QVector<_RCP_VAR_PRO> expected = filtered;
        oracleBubbleSortVector(expected);

        // Lists left by the previous round stay when nothing matches.
        QVector<_RCP_VAR_PRO> oldTransfer = driver.rcpTransferList;
        QList<int> oldStarts = driver.rcpBlockStartList;

        int count = intf_setRcpAddress(&vars);
        ASSERT_EQ(count, expected.size()) << round;
        ASSERT_EQ(driver.rcpVarList.size(), expected.size()) << round;
        for (int i = 0; i < expected.size(); ++i) {
            ASSERT_EQ(driver.rcpVarList.at(i).hostField, expected.at(i).hostField) << round << " " << i;
            ASSERT_EQ(driver.rcpVarList.at(i).keyNo, expected.at(i).keyNo);
            ASSERT_EQ(driver.rcpVarList.at(i).regName, expected.at(i).regName);
            ASSERT_EQ(driver.rcpVarList.at(i).address, expected.at(i).address);
            ASSERT_EQ(driver.rcpVarList.at(i).length, expected.at(i).length);
            ASSERT_EQ(driver.rcpVarList.at(i).rcpDataIndex, expected.at(i).rcpDataIndex);
        }
        if (expected.isEmpty()) {
            ASSERT_EQ(driver.rcpTransferList.size(), oldTransfer.size()) << round;
            for (int i = 0; i < oldTransfer.size(); ++i)
                ASSERT_EQ(driver.rcpTransferList.at(i).address, oldTransfer.at(i).address);
            ASSERT_EQ(driver.rcpBlockStartList, oldStarts) << round;
            continue;
        }

        // Transfer blocks and block starts against the literal mode-2 merge.
        QList<KEY_ADDRESS> keys;
        for (const _RCP_VAR_PRO& v : expected) {
            KEY_ADDRESS k = makeKey(v.keyNo, v.regName, v.address, v.length, 0);
            k.rcpDataIndex = v.rcpDataIndex;
            keys.append(k);
        }
        oracleStage1(keys, 2);
        QList<int> starts;
        QList<KEY_ADDRESS> blocks = oracleFirstPass(keys, 2, &starts);
        ASSERT_EQ(driver.rcpTransferList.size(), blocks.size()) << round;
        for (int i = 0; i < blocks.size(); ++i) {
            const _RCP_VAR_PRO& t = driver.rcpTransferList.at(i);
            ASSERT_EQ(t.keyNo, blocks.at(i).keyNo) << round << " " << i;
            ASSERT_EQ(t.regName, blocks.at(i).regName) << round << " " << i;
            ASSERT_EQ(t.address, blocks.at(i).address) << round << " " << i;
            ASSERT_EQ(t.length, blocks.at(i).length) << round << " " << i;
            ASSERT_EQ(t.rcpDataIndex, blocks.at(i).rcpDataIndex) << round << " " << i;
        }
        ASSERT_EQ(driver.rcpBlockStartList, starts) << round;
    }
}

// ---------------------------------------------------------------------------------------
// Data-area look-up: the indexed look-up against the linear search
// ---------------------------------------------------------------------------------------

const int kAreaKeys[] = {0, 1, 2, -1, 5462, 2147483647, -2147483647 - 1};
const char* const kAreaNames[] = {"I", "Q", "M", "X", "m", "", "M_W"};

struct AreaKey {
    int keyNo;
    QString name;
    int address;
};

AreaKey randomAreaKey(std::mt19937& rng)
{
    std::uniform_int_distribution<int> k(0, 6);
    std::uniform_int_distribution<int> a(0, 30);
    std::uniform_int_distribution<int> odd(0, 19);
    AreaKey key;
    key.keyNo = kAreaKeys[k(rng) % 3 == 0 ? k(rng) : k(rng) % 3];
    key.name = L(kAreaNames[k(rng)]);
    key.address = a(rng);
    int o = odd(rng);
    if (o == 0)
        key.address = 65535;
    if (o == 1)
        key.address = -5;
    if (o == 2)
        key.address = 2147483647;
    return key;
}

_DATA_ freshArea(const AreaKey& k) { return adstest::makeUnit(k.keyNo, k.name, k.address); }

::testing::AssertionResult sameAreas(const QList<_DATA_>& got, const QList<_DATA_>& expected)
{
    if (got.size() != expected.size())
        return ::testing::AssertionFailure() << "size " << got.size() << " expected " << expected.size();
    for (int i = 0; i < got.size(); ++i) {
        if (got.at(i).keyNo != expected.at(i).keyNo || got.at(i).areaName != expected.at(i).areaName
            || got.at(i).address != expected.at(i).address)
            return ::testing::AssertionFailure() << "area " << i << " differs";
    }
    return ::testing::AssertionSuccess();
}

TEST_F(Oracles, DriverCacheLookUpEqualsLinearSearch)
{
    const unsigned seeds[] = {1u, 2u, 3u, 99u, 2024u};
    for (unsigned seed : seeds) {
        std::mt19937 rng(seed);
        std::uniform_int_distribution<int> op(0, 99);
        std::uniform_int_distribution<int> wordAddr(0, 40);
        std::uniform_int_distribution<int> count(0, 3);
        std::uniform_int_distribution<int> bitAddr(0, 300);
        h->init();
        QList<_DATA_> oracle;
        for (int step = 0; step < 3000; ++step) {
            SCOPED_TRACE(::testing::Message() << "seed " << seed << " step " << step);
            int o = op(rng);
            if (o < 60) {
                AreaKey k = randomAreaKey(rng);
                int expected = oracleIndexOfDataArea(k.keyNo, k.name, k.address, oracle);
                int got = getIndexOfDataArea(k.keyNo, k.name, k.address, driver.dataAreaList);
                ASSERT_EQ(got, expected) << k.keyNo << "/" << k.name.toStdString() << "/" << k.address;
            } else if (o < 72) {
                // The test appends directly, sometimes a key that is already there.
                AreaKey k = randomAreaKey(rng);
                adstest::appendUnits({freshArea(k)});
                oracle.append(freshArea(k));
            } else if (o < 82) {
                // Marking words finds or creates units a, a + 1 for each word.
                const char* regs[3] = {"I_W", "Q_W", "M_W"};
                const char* areas[3] = {"I", "Q", "M"};
                int r = op(rng) % 3;
                int keyNo = kAreaKeys[op(rng) % 3];
                int a = wordAddr(rng);
                int c = count(rng);
                _setDataAreaMonitorFlag(keyNo, L(regs[r]), a, c);
                for (int j = 0; j < c; ++j) {
                    oracleIndexOfDataArea(keyNo, L(areas[r]), a + 2 * j, oracle);
                    oracleIndexOfDataArea(keyNo, L(areas[r]), a + 2 * j + 1, oracle);
                }
            } else if (o < 90) {
                // Marking bits finds or creates the byte of each bit.
                const char* regs[3] = {"I_bit", "Q_bit", "M_bit"};
                const char* areas[3] = {"I", "Q", "M"};
                int r = op(rng) % 3;
                int keyNo = kAreaKeys[op(rng) % 3];
                int b = bitAddr(rng);
                int c = count(rng) * 5;
                _setDataAreaMonitorFlag(keyNo, L(regs[r]), b, c);
                for (int j = 0; j < c; ++j)
                    oracleIndexOfDataArea(keyNo, L(areas[r]), (b + j) / 8, oracle);
            } else if (o < 95) {
                // A look-up on a copy of the cache touches neither the cache nor its index.
                AreaKey k = randomAreaKey(rng);
                QList<_DATA_> snapshot = driver.dataAreaList;
                QList<_DATA_> oracleCopy = oracle;
                int expected = oracleIndexOfDataArea(k.keyNo, k.name, k.address, oracleCopy);
                int got = getIndexOfDataArea(k.keyNo, k.name, k.address, snapshot);
                ASSERT_EQ(got, expected);
                ASSERT_TRUE(sameAreas(snapshot, oracleCopy));
                ASSERT_EQ(driver.dataAreaList.size(), oracle.size());
            } else if (o < 97) {
                h->init();
                oracle.clear();
                ASSERT_EQ(driver.dataAreaList.size(), 0);
            } else {
                // A new monitored set: marks are reset, the areas stay.
                QList<KEY_ADDRESS> keys;
                int a = wordAddr(rng);
                keys.append(makeKey(1, L("M_W"), a, 1, 0));
                intf_addrMerge(keys);
                oracleIndexOfDataArea(1, L("M"), a, oracle);
                oracleIndexOfDataArea(1, L("M"), a + 1, oracle);
            }
            ASSERT_TRUE(sameAreas(driver.dataAreaList, oracle));
        }
    }
}

TEST_F(Oracles, LocalListLookUpEqualsLinearSearch)
{
    const unsigned seeds[] = {7u, 8u, 9u};
    for (unsigned seed : seeds) {
        std::mt19937 rng(seed);
        std::uniform_int_distribution<int> op(0, 99);
        QList<_DATA_> local;
        QList<_DATA_> oracle;
        // Interleave with look-ups on the driver's cache so that any shared index is exercised.
        QList<_DATA_> driverOracle;
        h->init();
        for (int step = 0; step < 3000; ++step) {
            SCOPED_TRACE(::testing::Message() << "seed " << seed << " step " << step);
            int o = op(rng);
            AreaKey k = randomAreaKey(rng);
            if (o < 60) {
                int expected = oracleIndexOfDataArea(k.keyNo, k.name, k.address, oracle);
                ASSERT_EQ(getIndexOfDataArea(k.keyNo, k.name, k.address, local), expected);
            } else if (o < 75) {
                local.append(freshArea(k));
                oracle.append(freshArea(k));
            } else if (o < 95) {
                int expected = oracleIndexOfDataArea(k.keyNo, k.name, k.address, driverOracle);
                ASSERT_EQ(getIndexOfDataArea(k.keyNo, k.name, k.address, driver.dataAreaList), expected);
            } else {
                local.clear();
                oracle.clear();
            }
            ASSERT_TRUE(sameAreas(local, oracle));
            ASSERT_TRUE(sameAreas(driver.dataAreaList, driverOracle));
        }
    }
}

TEST_F(Oracles, FreshLocalListIsNotConfusedWithTheCache)
{
    getIndexOfDataArea(1, L("M"), 0, driver.dataAreaList);
    getIndexOfDataArea(1, L("M"), 1, driver.dataAreaList);
    QList<_DATA_> local;
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 1, local), 0);
    EXPECT_EQ(local.size(), 1);
    EXPECT_EQ(getIndexOfDataArea(1, L("M"), 1, driver.dataAreaList), 1);
    EXPECT_EQ(driver.dataAreaList.size(), 2);
}

}  // namespace
