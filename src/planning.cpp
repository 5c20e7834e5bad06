/*
 * Address planning: the host's addresses merged into read blocks of at most 128 bytes,
 * condition reads queued, recipe variables merged into transfer blocks.
 */
#include "ads_ethernet.h"
#include "driver_private.h"

#include <algorithm>
#include <string.h>
#include <vector>

using namespace drv;

namespace drv {

KEY_ADDRESS zeroKey()
{
    KEY_ADDRESS k;
    k.hostNumber = 0;
    k.rcpDataIndex = 0;
    k.keyNo = 0;
    k.address = 0;
    k.unitMark = 0;
    k.length = 0;
    memset(k.data, 0, sizeof(k.data));
    return k;
}

void boundedCopy(unsigned char* dst, const unsigned char* src, long long srcSize, long long srcOffset, long long count)
{
    if (count <= 0)
        return;
    if (count > kBufferSize)
        count = kBufferSize;
    long long available = (srcOffset >= 0 && srcOffset < srcSize) ? srcSize - srcOffset : 0;
    long long n = count < available ? count : available;
    if (n > 0)
        memcpy(dst, src + srcOffset, static_cast<size_t>(n));
    if (count > n)
        memset(dst + n, 0, static_cast<size_t>(count - n));
}

}  // namespace drv

namespace {

VARIABLE zeroVariable()
{
    VARIABLE v;
    v.kind = 0;
    v.keyNo = 0;
    v.address = 0;
    v.length = 0;
    memset(v.data, 0, sizeof(v.data));
    return v;
}

/* Orders keys ascending by weight, equal weights in the host's order: what a bubble sort
 * that swaps only on a strictly smaller weight produces, in n log n and without moving
 * whole records while sorting. */
struct WeightedIndex {
    int weight;
    int index;
};
bool weightLess(const WeightedIndex& a, const WeightedIndex& b) { return a.weight < b.weight; }

template <typename Container, typename WeightFn>
Container stableSortedByWeight(const Container& items, WeightFn weightOf)
{
    std::vector<WeightedIndex> order(static_cast<size_t>(items.size()));
    for (int i = 0; i < items.size(); ++i) {
        order[static_cast<size_t>(i)].weight = weightOf(items.at(i));
        order[static_cast<size_t>(i)].index = i;
    }
    std::stable_sort(order.begin(), order.end(), weightLess);
    Container sorted;
    sorted.reserve(items.size());
    for (size_t i = 0; i < order.size(); ++i)
        sorted.append(items.at(order[i].index));
    return sorted;
}

int keyWeight(const KEY_ADDRESS& k) { return getRegAddressWeight(k.keyNo, k.regName, k.address, k.length); }
int recipeWeight(const _RCP_VAR_PRO& v) { return getRegAddressWeight(v.keyNo, v.regName, v.address, 1); }

}  // namespace

namespace drv {

int pieceCount(int length, int limit)
{
    if (limit <= 0 || length <= limit)
        return 1;
    return length / limit + (length % limit != 0 ? 1 : 0);
}

KEY_ADDRESS keyPiece(const KEY_ADDRESS& key, int maxLen, int p, int copyData)
{
    KEY_ADDRESS piece = key;
    int pieces = pieceCount(key.length, maxLen);
    if (pieces == 1)
        return piece;
    int remainder = key.length % maxLen;
    piece.address = wrapAdd(key.address, wrapMul(p, maxLen));
    piece.length = (p == pieces - 1 && remainder != 0) ? remainder : maxLen;
    if (copyData == 1) {
        long long perUnit = keyDataBytesPerUnit(key);
        boundedCopy(piece.data, key.data, kBufferSize, perUnit * p * maxLen, perUnit * piece.length);
    }
    return piece;
}

}  // namespace drv

/* ====================================================================================
 * Address merging
 * ================================================================================== */

void groupingKey(KEY_ADDRESS& key, int maxLen, QList<KEY_ADDRESS>& out, int copyData)
{
    int pieces = pieceCount(key.length, maxLen);
    for (int p = 0; p < pieces; ++p)
        out.append(keyPiece(key, maxLen, p, copyData));
}

namespace {

/* Bits to the bytes that hold them, words to bytes: every key afterwards names a byte
 * range of a word register (a bit key becomes the "_W" register of its area). */
void convertToBytes(KEY_ADDRESS& k)
{
    const RegisterRow row = addressingRow(k.regName);
    const RegisterRule& rule = REGISTER_RULES[row];
    const ByteSpan span = rule.spanOfItems(k.address, k.length);
    k.address = span.first;
    k.length = span.count;
    if (rule.isBit())
        k.regName = wordNameBehind(k.regName, row);
}

/* Emits a copy of `current` cut to the block limit and keeps the rest of key i for the
 * next round. */
void cutLastKey(KEY_ADDRESS& current, KEY_ADDRESS& key)
{
    current.length = kMaxBlock;
    key.address = wrapAdd(key.address, kMaxBlock);
    key.length = wrapSub(key.length, kMaxBlock);
}

/* First pass: contiguous or overlapping keys into blocks of at most 128 bytes. */
QList<KEY_ADDRESS> mergeContiguous(QList<KEY_ADDRESS>& keys, int mode)
{
    QList<KEY_ADDRESS> blocks;
    const int n = keys.size();
    KEY_ADDRESS current = keys.at(0);
    if (mode == 2)
        driver.rcpBlockStartList.append(0);
    int i = 0;
    while (i < n) {
        if (current.length > kMaxBlock) {
            KEY_ADDRESS piece = current;
            piece.length = kMaxBlock;
            blocks.append(piece);
            current.address = wrapAdd(current.address, kMaxBlock);
            current.length = wrapSub(current.length, kMaxBlock);
            continue; /* the same i again */
        }
        if (i == 0) {
            if (n == 1) {
                blocks.append(current);
                break;
            }
            i = 1;
            continue;
        }
        const bool last = (i == n - 1);
        if (judgeAddrMerge(current, keys.at(i), 0)) {
            blocks.append(current);
            current = keys.at(i);
            if (mode == 2)
                driver.rcpBlockStartList.append(i);
        } else {
            const KEY_ADDRESS& key = keys.at(i);
            int newLength = wrapSub(wrapAdd(key.address, key.length), current.address);
            if (newLength > kMaxBlock) {
                blocks.append(current);
                current = key;
                if (mode == 2)
                    driver.rcpBlockStartList.append(i);
            } else if (newLength > current.length) {
                current.length = newLength;
            }
        }
        if (last) {
            if (current.length <= kMaxBlock) {
                blocks.append(current);
            } else {
                cutLastKey(current, keys[i]);
                continue; /* the rest of the last key is emitted by the next rounds */
            }
        }
        ++i;
    }
    return blocks;
}

/* Second pass: bridge gaps of up to maxMergeGap bytes between whole blocks. */
QList<KEY_ADDRESS> bridgeGaps(const QList<KEY_ADDRESS>& blocks)
{
    const int m = blocks.size();
    if (m <= 1)
        return blocks;
    QList<KEY_ADDRESS> merged;
    KEY_ADDRESS current = blocks.at(0);
    for (int k = 1; k < m; ++k) {
        const KEY_ADDRESS& next = blocks.at(k);
        const bool last = (k == m - 1);
        if (judgeAddrMerge(current, next, 1)) {
            merged.append(current);
            if (last)
                merged.append(next);
            else
                current = next;
            continue;
        }
        int newLength = wrapSub(wrapAdd(next.address, next.length), current.address);
        if (newLength > kMaxBlock) {
            merged.append(current);
            current = next;
            if (last)
                merged.append(current);
        } else {
            if (newLength > current.length)
                current.length = newLength;
            if (last)
                merged.append(current);
        }
    }
    return merged;
}

}  // namespace

void addrMerge(QList<KEY_ADDRESS>& keys, int mode)
{
    if (keys.isEmpty())
        return;
    if (mode == 2) {
        /* Recipes: word lengths to bytes, bit items stay in bits; the caller has sorted. */
        for (int i = 0; i < keys.size(); ++i) {
            KEY_ADDRESS& k = keys[i];
            RegisterRow row = registerRow(k.regName);
            /* Counted in double: a length past the int range converts as it always has. */
            if (row != kRowSpare && !REGISTER_RULES[row].isBit())
                k.length = static_cast<int>(k.length * static_cast<double>(REGISTER_RULES[row].stepsPerItem()));
        }
        keys = mergeContiguous(keys, 2);
        return;
    }
    for (int i = 0; i < keys.size(); ++i)
        convertToBytes(keys[i]);
    if (keys.size() >= 2)
        keys = stableSortedByWeight(keys, keyWeight);
    QList<KEY_ADDRESS> blocks = mergeContiguous(keys, mode);
    keys = bridgeGaps(blocks);
}

int intf_addrMerge(QList<KEY_ADDRESS>& keys)
{
    {
        DriverLock lock;
        for (int i = 0; i < driver.dataAreaList.size(); ++i) {
            _DATA_& d = driver.dataAreaList[i];
            /* The marks of queued bit writes go with the monitor marks; nothing sets them (INTERNALS.md K12). */
            d.bitWriteState = 0;
            d.monitorFlag = 0;
            d.bitMonitorMask = 0;
        }
    }
    QList<KEY_ADDRESS> working;
    for (int i = 0; i < keys.size(); ++i) {
        const KEY_ADDRESS& k = keys.at(i);
        /* Names outside the register table are left out: they name no PLC area. */
        if (!isKnownRegister(k.regName))
            continue;
        _setDataAreaMonitorFlag(k.keyNo, k.regName, k.address, k.length);
        working.append(k);
    }
    driver.readList.clear();
    if (working.isEmpty())
        return 0;
    addrMerge(working, 1);
    for (int i = 0; i < working.size(); ++i) {
        const KEY_ADDRESS& k = working.at(i);
        VARIABLE v = zeroVariable();
        v.kind = 4;
        v.keyNo = k.keyNo;
        v.regName = k.regName;
        v.address = k.address;
        v.length = k.length;
        driver.readList.append(v);
    }
    return driver.readList.size();
}

/* ====================================================================================
 * Condition reads
 * ================================================================================== */

int intf_addConditionRead(KEY_ADDRESS* key, int kind)
{
    if (!key)
        return 1;
    const RegisterRow row = registerRow(key->regName);
    if (row == kRowSpare)
        return 1;
    const RegisterRule& rule = REGISTER_RULES[row];
    /* A condition read of a bit register does nothing (INTERNALS.md K14). */
    if (rule.isBit())
        return 1;
    int limit = keyCountsBits(*key) ? driver.maxBlockBits : driver.maxBlockUnits;
    int pieces = pieceCount(key->length, limit);
    int remainder = pieces > 1 ? key->length % limit : 0;
    /* The polling thread reads and removes the queue's head meanwhile. */
    DriverLock lock;
    for (int p = 0; p < pieces; ++p) {
        int pieceAddress = pieces > 1 ? wrapAdd(key->address, wrapMul(p, limit)) : key->address;
        int pieceLength = pieces > 1 ? ((p == pieces - 1 && remainder != 0) ? remainder : limit) : key->length;
        VARIABLE v = zeroVariable();
        v.kind = kind;
        v.keyNo = key->keyNo;
        /* The table's own text: the queued read then shares no string with the host, whose
         * string may be dropped on its own thread while the polling thread holds ours. */
        v.regName = REG_LIST[row];
        v.address = pieceAddress;
        v.length = wrapMul(pieceLength, rule.stepsPerItem());
        /* The head is being served and is never refreshed (INTERNALS.md K19). */
        queueRequest(driver.conditionReadList, v);
        copyVariable(driver.lastVar, v);
    }
    return 1;
}

/* ====================================================================================
 * Recipe addresses
 * ================================================================================== */

int intf_setRcpAddress(QVector<_RCP_VAR_PRO>* vars)
{
    driver.rcpVarList.clear();
    if (vars) {
        for (int i = 0; i < vars->size(); ++i) {
            const _RCP_VAR_PRO& v = vars->at(i);
            /* Names outside the register table are left out, as in intf_addrMerge. */
            if (v.driverNo == driver.callBackContext && isKnownRegister(v.regName))
                driver.rcpVarList.append(v);
        }
    }
    /* Nothing of ours: the transfer lists of an earlier call stay (INTERNALS.md K13). */
    if (driver.rcpVarList.isEmpty())
        return 0;
    driver.rcpVarList = stableSortedByWeight(driver.rcpVarList, recipeWeight);

    QList<KEY_ADDRESS> keys;
    for (int i = 0; i < driver.rcpVarList.size(); ++i) {
        const _RCP_VAR_PRO& v = driver.rcpVarList.at(i);
        KEY_ADDRESS k = zeroKey();
        k.keyNo = v.keyNo;
        k.regName = v.regName;
        k.address = v.address;
        k.length = v.length;
        k.rcpDataIndex = v.rcpDataIndex;
        keys.append(k);
    }
    driver.rcpBlockStartList.clear();
    driver.rcpTransferList.clear();
    addrMerge(keys, 2);
    for (int i = 0; i < keys.size(); ++i) {
        const KEY_ADDRESS& k = keys.at(i);
        _RCP_VAR_PRO block;
        block.driverNo = 0;
        block.keyNo = k.keyNo;
        block.regName = k.regName;
        block.address = k.address;
        block.length = k.length;
        block.rcpDataIndex = k.rcpDataIndex;
        block.hostField = 0;
        driver.rcpTransferList.append(block);
    }
    return driver.rcpVarList.size();
}

void rcpAddrToVar(_RCP_VAR_PRO item, VARIABLE& var, int mode)
{
    var.keyNo = item.keyNo;
    var.regName = item.regName;
    var.address = item.address;
    var.length = item.length;
    memset(var.data, 0, sizeof(var.data));
    if (mode == 0 || !driver.rcpBuffer || item.rcpDataIndex < 0)
        return;
    long long n = static_cast<long long>(item.length) * ruleOf(item.regName).unitBytes();
    if (n <= 0)
        return;
    /* The copy stops at the end of the 1024-byte data buffer. */
    if (n > kBufferSize)
        n = kBufferSize;
    memcpy(var.data, driver.rcpBuffer + static_cast<long long>(kWordBytes) * item.rcpDataIndex, static_cast<size_t>(n));
}
