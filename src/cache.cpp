/*
 * The cache of PLC memory: the units of dataAreaList and their index, the monitor marks,
 * values read for the host, values the host writes and the results of those writes.
 * Everything that touches dataAreaList or its index runs with the driver's mutex held
 * (INTERNALS.md, The cache and its index).
 */
#include "ads_ethernet.h"
#include "driver_private.h"

#include <string.h>

using namespace drv;

namespace drv {

/* A new cached unit: the three keys, everything else zero. */
_DATA_ newCachedUnit(int keyNo, const QString& areaName, int address)
{
    _DATA_ d;
    d.spare = 0;
    d.writeFlag = 0;
    d.bitWriteState = 0;
    d.monitorFlag = 0;
    d.bitMonitorMask = 0;
    d.keyNo = keyNo;
    d.areaName = areaName;
    d.address = address;
    memset(d.value, 0, sizeof(d.value));
    memset(d.writeValue, 0, sizeof(d.writeValue));
    return d;
}

}  // namespace drv

namespace {

DATA_AREA_KEY keyOf(int keyNo, int nameId, int address)
{
    DATA_AREA_KEY k;
    k.keyNo = keyNo;
    k.nameId = nameId;
    k.address = address;
    return k;
}

}  // namespace

namespace drv {

int areaNameId(const QString& name) { return driver.dataAreaIndex.areaId(name); }

/* Position of the unit (keyNo, area, address) in dataAreaList; appended, zeroed, when
 * missing. */
int findOrCreateArea(int keyNo, int nameId, int address)
{
    CacheIndex& index = driver.dataAreaIndex;
    int position = index.find(keyNo, nameId, address);
    if (position >= 0)
        return position;
    QList<_DATA_>& list = driver.dataAreaList;
    position = list.size();
    list.append(newCachedUnit(keyNo, index.texts(nameId).name, address));
    index.insert(keyNo, nameId, address, position);
    return position;
}

int findOrCreateArea(int keyNo, const QString& areaName, int address)
{
    return findOrCreateArea(keyNo, areaNameId(areaName), address);
}

int areaNameIdOfRegister(const QString& regName) { return driver.dataAreaIndex.areaIdOfRegister(regName); }

}  // namespace drv

/* ------------------------------------------------------------------ the index */

CacheIndex::CacheIndex() : duplicates_(false) { }

void CacheIndex::clear()
{
    positions_.clear();
    duplicates_ = false;
    successors_.clear();
}

int CacheIndex::areaId(const QString& name)
{
    for (int i = 0; i < names_.size(); ++i)
        if (names_.constBegin()[i].name.isSharedWith(name))
            return i;
    for (int i = 0; i < names_.size(); ++i)
        if (names_.constBegin()[i].name == name)
            return i;
    AREA_NAME_TEXTS t;
    t.name = name;
    t.bitText = name + QLatin1String("_bit");
    t.byteText = name + QLatin1String("_B");
    t.wordText = name + QLatin1String("_W");
    t.dwordText = name + QLatin1String("_D");
    names_.append(t);
    return names_.size() - 1;
}

int CacheIndex::areaIdOfRegister(const QString& regName)
{
    int cut = regName.indexOf(QLatin1Char('_'));
    int length = cut < 0 ? regName.size() : cut;
    for (int i = 0; i < names_.size(); ++i) {
        const QString& name = names_.constBegin()[i].name;
        if (name.size() == length
            && memcmp(name.constData(), regName.constData(), static_cast<size_t>(length) * sizeof(QChar)) == 0)
            return i;
    }
    return areaId(areaOf(regName));
}

int CacheIndex::find(int keyNo, int areaId, int address) const
{
    QHash<DATA_AREA_KEY, int>::const_iterator it = positions_.constFind(keyOf(keyNo, areaId, address));
    return it == positions_.constEnd() ? -1 : it.value();
}

void CacheIndex::insert(int keyNo, int areaId, int address, int position)
{
    positions_.insert(keyOf(keyNo, areaId, address), position);
    link(keyNo, areaId, address, position);
}

/* A unit newly in the index: it learns which unit holds the byte after it, and the unit
 * holding the byte before it learns that it is the one after. Units keep their position
 * until the list is emptied, so a link stays true. */
void CacheIndex::link(int keyNo, int areaId, int address, int position)
{
    if (position < 0)
        return;
    while (successors_.size() <= position)
        successors_.append(-1); /* no successor known yet */
    int* next = successors_.data();
    next[position] = find(keyNo, areaId, wrapAdd(address, 1));
    const int before = find(keyNo, areaId, wrapAdd(address, -1));
    if (before >= 0 && before < successors_.size())
        next[before] = position;
}

void CacheIndex::rebuild(const QList<_DATA_>& list)
{
    clear();
    for (int i = 0; i < list.size(); ++i) {
        const _DATA_& d = list.at(i);
        const int id = areaId(d.areaName);
        DATA_AREA_KEY k = keyOf(d.keyNo, id, d.address);
        if (positions_.contains(k)) {
            duplicates_ = true;
            continue;
        }
        positions_.insert(k, i);
        link(d.keyNo, id, d.address, i);
    }
}

void rebuildDataAreaIndex()
{
    DriverLock lock;
    driver.dataAreaIndex.rebuild(driver.dataAreaList);
}

int getIndexOfDataArea(int keyNo, QString areaName, int address, QList<_DATA_>& list)
{
    if (&list == &driver.dataAreaList)
        return findOrCreateArea(keyNo, areaName, address);
    /* Some other list: walk it from the front. */
    for (int i = 0; i < list.size(); ++i) {
        const _DATA_& d = list.at(i);
        if (d.keyNo == keyNo && d.areaName == areaName && d.address == address)
            return i;
    }
    list.append(newCachedUnit(keyNo, areaName, address));
    return list.size() - 1;
}

namespace {
void markArea(int keyNo, int nameId, int address, unsigned int flags, unsigned int bitMask)
{
    int idx = findOrCreateArea(keyNo, nameId, address);
    _DATA_& d = driver.dataAreaList[idx];
    d.monitorFlag |= flags;
    d.bitMonitorMask |= bitMask;
}
}  // namespace

int _setDataAreaMonitorFlag(int keyNo, QString regName, int address, int count)
{
    const RegisterRule& rule = ruleOf(regName);
    DriverLock lock;
    int area = areaNameIdOfRegister(regName);
    switch (rule.kind) {
    case kBitRegister:
        for (int i = 0; i < count; ++i) {
            int b = wrapAdd(address, i);
            int bit = rule.bitInUnit(b);
            if (bit < 0)
                continue; /* a negative bit number names no bit */
            markArea(keyNo, area, rule.unitOfBit(b), 0, 1u << bit);
        }
        break;
    case kWordRegister:
        /* Monitor flag 1 << (k + 1): the unit is the k-th of a monitored word. */
        rule.forEachWordUnit(
            address, count, [&](int unit, int k, int) { markArea(keyNo, area, unit, 1u << (k + 1), 0); });
        break;
    }
    return 0;
}

/* ====================================================================================
 * Reading values for the host
 * ================================================================================== */

int intf_getData(int keyNo, QString regName, int address, int count, unsigned char* out)
{
    /* A name outside the register table is not a PLC area: nothing is read or created. */
    const RegisterRow row = registerRow(regName);
    if (!out || row == kRowSpare)
        return 1;
    const RegisterRule& rule = REGISTER_RULES[row];
    DriverLock lock;
    int area = areaNameIdOfRegister(regName);
    switch (rule.kind) {
    case kBitRegister:
        for (int i = 0; i < count; ++i) {
            int b = wrapAdd(address, i);
            if (b < 0) {
                out[i] = 0;
                continue;
            }
            const _DATA_& d = constUnitAt(findOrCreateArea(keyNo, area, rule.unitOfBit(b)));
            out[i] = static_cast<unsigned char>((shownByte(d, 0) >> rule.bitInUnit(b)) & 1);
        }
        break;
    case kWordRegister:
        rule.forEachWordUnit(address, count, [&](int unit, int, int byte) {
            out[byte] = shownByte(constUnitAt(findOrCreateArea(keyNo, area, unit)), 0);
        });
        break;
    }
    return 1;
}

/* ====================================================================================
 * Writing values
 * ================================================================================== */

namespace {

/* One byte unit takes a written byte: reported against what the host was shown, then
 * stored as the written value, which the host is shown until the write is settled. */
void storeWrittenByte(int keyNo, int nameId, int address, unsigned char newByte)
{
    DriverLock lock;
    Reports r;
    int idx = findOrCreateArea(keyNo, nameId, address);
    {
        const _DATA_& d = driver.dataAreaList.at(idx);
        unsigned char shown = shownByte(d, 0);
        if (shown != newByte)
            collectByteReports(d, &shown, &newByte, 0, r);
    }
    fireUnlocked(r, lock);
    _DATA_& d = driver.dataAreaList[idx];
    d.writeValue[0] = newByte;
    d.writeFlag = 1;
}

/* One bit of a byte-addressed bit register. The old value of the report is the last
 * written byte even when the host was shown the read one (INTERNALS.md K10). */
void storeWrittenBitInByte(int keyNo, int nameId, int unit, int bit, bool on)
{
    DriverLock lock;
    Reports r;
    int idx = findOrCreateArea(keyNo, nameId, unit);
    unsigned char newByte;
    {
        const _DATA_& d = driver.dataAreaList.at(idx);
        unsigned char shown = shownByte(d, 0);
        unsigned char m = static_cast<unsigned char>(1u << bit);
        newByte = on ? static_cast<unsigned char>(shown | m) : static_cast<unsigned char>(shown & ~m);
        if (newByte != shown) {
            unsigned char old = d.writeValue[0];
            collectByteReports(d, &old, &newByte, 0, r);
        }
    }
    fireUnlocked(r, lock);
    _DATA_& d = driver.dataAreaList[idx];
    d.writeValue[0] = newByte;
    d.writeFlag = 1;
}

/* Queues one write, coalescing with a queued write of the same item (INTERNALS.md K19). */
void queueWrite(const VARIABLE& v)
{
    DriverLock lock;
    queueRequest(driver.writeList, v);
}

}  // namespace

void write_saveDataToArea(int keyNo, QString regName, int address, int count, unsigned char* data)
{
    if (!data)
        return;
    const RegisterRule& rule = ruleOf(regName);
    int area;
    {
        DriverLock lock;
        area = areaNameIdOfRegister(regName);
    }
    switch (rule.kind) {
    case kWordRegister:
        rule.forEachWordUnit(
            address, count, [&](int unit, int, int byte) { storeWrittenByte(keyNo, area, unit, data[byte]); });
        break;
    case kBitRegister:
        for (int i = 0; i < count; ++i) {
            int b = wrapAdd(address, i);
            if (b < 0)
                continue; /* a negative bit number names no bit */
            storeWrittenBitInByte(keyNo, area, rule.unitOfBit(b), rule.bitInUnit(b), data[i] == 1);
        }
        break;
    }
}

int intf_setData(int keyNo, QString regName, int address, int count, unsigned char* data, int mode)
{
    /* A name outside the register table must never turn into a write to PLC memory. */
    const RegisterRow row = registerRow(regName);
    if (!data || row == kRowSpare)
        return 1;
    if (driver.initParam1 == 0) {
        const RegisterRule& rule = REGISTER_RULES[row];
        KEY_ADDRESS key = zeroKey();
        key.keyNo = keyNo;
        /* The table's own text: the queued write then shares no string with the host. */
        key.regName = REG_LIST[row];
        key.address = address;
        key.length = count;
        /* unitMark stays 0 for bits too, so later pieces of a long bit write take their
         * bytes two per unit (INTERNALS.md K11; a bit write of one piece is unaffected). */
        long long bytes = static_cast<long long>(rule.bytesPerItem()) * count;
        if (bytes > 0)
            memcpy(key.data, data, static_cast<size_t>(bytes < kBufferSize ? bytes : kBufferSize));
        /* The pieces groupingKey would list, taken one by one: no list to allocate. */
        const int maxLen = rule.isBit() ? driver.maxBlockBits : driver.maxBlockUnits;
        const int pieces = pieceCount(key.length, maxLen);
        int lengthsBefore = 0;
        for (int p = 0; p < pieces; ++p) {
            const KEY_ADDRESS piece = keyPiece(key, maxLen, p, 1);
            VARIABLE v;
            v.kind = mode;
            v.keyNo = piece.keyNo;
            v.regName = piece.regName;
            v.address = piece.address;
            v.length = piece.length;
            memcpy(v.data, piece.data, sizeof(v.data));
            if (bytes > kBufferSize) {
                /* More than the key's 1024 bytes: the pieces take their share straight from
                 * the host's bytes, which hold all of them. */
                long long perUnit = keyDataBytesPerUnit(key);
                boundedCopy(v.data, data, bytes, perUnit * p * maxLen, perUnit * piece.length);
            }
            if (!rule.isBit()) {
                /* Words to bytes (counted in double, as they always were); each piece starts
                 * where the ones before it ended. */
                v.length = static_cast<int>(piece.length * static_cast<double>(rule.stepsPerItem()));
                v.address = wrapAdd(piece.address, lengthsBefore);
            }
            lengthsBefore = wrapAdd(lengthsBefore, piece.length);
            queueWrite(v);
        }
    }
    write_saveDataToArea(keyNo, regName, address, count, data);
    return 1;
}

void _write_FailOrSuc(int keyNo, QString regName, int address, int count, int ok)
{
    const RegisterRule& rule = ruleOf(regName);
    DriverLock lock;
    int area = areaNameIdOfRegister(regName);
    Reports r;
    switch (rule.kind) {
    case kWordRegister: {
        /* The length, already in bytes, taken as words (INTERNALS.md K28). */
        int units = wrapMul(count, rule.stepsPerItem());
        for (int k = 0; k < units; ++k) {
            _DATA_& d = unitAt(findOrCreateArea(keyNo, area, wrapAdd(address, k)));
            d.writeFlag = 0;
            if (ok == 1) {
                d.value[0] = d.writeValue[0];
            } else {
                /* The written value as old and new: single bits are not redrawn while the
                 * byte, word and double-word items are (INTERNALS.md K9). */
                unsigned char written = d.writeValue[0];
                unsigned char again = d.writeValue[0];
                collectByteReports(d, &written, &again, 0, r);
            }
            fireUnlocked(r, lock);
        }
        break;
    }
    case kBitRegister:
        for (int i = 0; i < count; ++i) {
            int b = wrapAdd(address, i);
            if (b < 0)
                continue;
            int bit = rule.bitInUnit(b);
            _DATA_& d = unitAt(findOrCreateArea(keyNo, area, rule.unitOfBit(b)));
            unsigned int first = 1u << (2 * bit);
            if (d.bitWriteState & first)
                d.bitWriteState &= ~first;
            else
                d.bitWriteState &= ~(first << 1);
            if (d.bitWriteState == 0)
                d.writeFlag = 0;
            if (ok == 1) {
                unsigned char m = static_cast<unsigned char>(1u << bit);
                d.value[0] = static_cast<unsigned char>((d.value[0] & ~m) | (d.writeValue[0] & m));
            }
            if (d.writeFlag == 0)
                collectByteReports(d, 0, 0, 0, r);
            fireUnlocked(r, lock);
        }
        break;
    }
}
