/*
 * Service module: the driver object and every intf_ entry point: configuration, the
 * register table, the cache of PLC memory, change reports, reads and writes for the
 * host, address merging, condition reads, recipes, send scheduling and reply handling.
 */
#include "ads_ethernet.h"
#include "driver_private.h"

#include <QtCore/QStringList>
#include <QtNetwork/QAbstractSocket>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QNetworkInterface>

#include <algorithm>
#include <stdio.h>
#include <string.h>
#include <vector>

Protocol driver;

Protocol::Protocol()
    : valueChangeCallBack(0), callBackContext(0), initParam1(0), initParam2(0), initParam3(0), maxMergeGap(0),
      hostStatusBlock(0), hostArg2(0), rcpBuffer(0), hostMutex(0), curFrameKind(kFrameNone), priorityCount(0),
      needHandShake(0), errorCount(0), maxBlockBits(0), maxBlockUnits(0), commFailed(0), curFrameIndex(0), initDone(0),
      rcpIndex(0), framesBuilt(0), targetAmsPort(0)
{
    dataAreaList.clear();
    curVar.kind = 0;
    curVar.keyNo = 0;
    curVar.regName = QString::fromLatin1("");
    curVar.address = 0;
    curVar.length = 0;
    memset(curVar.data, 0, sizeof(curVar.data));
    lastVar.kind = 0;
    lastVar.keyNo = 0;
    lastVar.address = 0;
    lastVar.length = 0;
    memset(lastVar.data, 0, sizeof(lastVar.data));
    memset(targetAmsNetId, 0, sizeof(targetAmsNetId));
    memset(sourceIp, 0, sizeof(sourceIp));
    for (int i = 0; i < 6; ++i)
        regNameList.append(REG_LIST[i]);
}

/* Derived from REG_LIST and ADDRESS_RANGE_PRO; see driver_private.h. */
const RegisterRule REGISTER_RULES[7] = {
    {kBitRegister, 1, 8, kReadWrite, 'I', 0xF020}, {kBitRegister, 1, 8, kReadWrite, 'Q', 0xF030},
    {kBitRegister, 1, 8, kReadWrite, 'M', 0x4020}, {kWordRegister, 16, 8, kReadWrite, 'I', 0xF020},
    {kWordRegister, 16, 8, kReadWrite, 'Q', 0xF030}, {kWordRegister, 16, 8, kReadWrite, 'M', 0x4020},
    {kWordRegister, 16, 8, kReadWrite, 'M', 0x4020}, /* spare row: an unknown name */
};

namespace {

/* ------------------------------------------------------------------ small helpers */

const int kBufferSize = 1024;
const int kMaxQueued = 512; /* lists hold at most 513 entries; the newest replaces index 512 */
const int kMaxBlock = 128;  /* largest read block in bytes */

/* Host values are trusted to be sensible, but arithmetic on them must never be undefined. */
inline int wrapAdd(int a, int b)
{
    return static_cast<int>(static_cast<unsigned int>(a) + static_cast<unsigned int>(b));
}
inline int wrapSub(int a, int b)
{
    return static_cast<int>(static_cast<unsigned int>(a) - static_cast<unsigned int>(b));
}
inline int wrapMul(int a, int b)
{
    return static_cast<int>(static_cast<unsigned int>(a) * static_cast<unsigned int>(b));
}

inline int clampInt(int v, int lo, int hi) { return v < lo ? lo : (v > hi ? hi : v); }

/* The area a register's units are cached under: its name up to the first "_". */
QString areaOf(const QString& regName)
{
    int cut = regName.indexOf(QLatin1Char('_'));
    return cut < 0 ? regName : regName.left(cut);
}

int toIntOrZero(const QString& text)
{
    bool ok = false;
    int v = text.toInt(&ok, 10);
    return ok ? v : 0;
}

/* ------------------------------------------------------------------ locks */

#if defined(ADS_TSAN_ANNOTATE)
/* Qt is not built for ThreadSanitizer, so a contended QMutex hides its ordering from it:
 * tell it about the driver's lock ourselves. */
extern "C" void AnnotateRWLockCreate(const char* file, int line, const volatile void* lock);
extern "C" void AnnotateRWLockAcquired(const char* file, int line, const volatile void* lock, long isWrite);
extern "C" void AnnotateRWLockReleased(const char* file, int line, const volatile void* lock, long isWrite);
#define ADS_LOCK_ACQUIRED(m) AnnotateRWLockAcquired(__FILE__, __LINE__, (m), 1)
#define ADS_LOCK_RELEASED(m) AnnotateRWLockReleased(__FILE__, __LINE__, (m), 1)
#else
#define ADS_LOCK_ACQUIRED(m) ((void)0)
#define ADS_LOCK_RELEASED(m) ((void)0)
#endif

void lockDriver()
{
    driver.mutex.lock();
    ADS_LOCK_ACQUIRED(&driver.mutex);
}

void unlockDriver()
{
    ADS_LOCK_RELEASED(&driver.mutex);
    driver.mutex.unlock();
}

/* Holds the driver's own mutex for a scope; may be let go around a callback. */
class DriverLock {
public:
    DriverLock() : held_(true) { lockDriver(); }
    ~DriverLock()
    {
        if (held_)
            unlockDriver();
    }
    void release()
    {
        if (held_) {
            unlockDriver();
            held_ = false;
        }
    }
    void acquire()
    {
        if (!held_) {
            lockDriver();
            held_ = true;
        }
    }

private:
    DriverLock(const DriverLock&);
    DriverLock& operator=(const DriverLock&);
    bool held_;
};

/* Reads the two recipe request flags under the host's mutex (never with ours held). */
void readHostFlags(unsigned char& writeFlag, unsigned char& readFlag)
{
    writeFlag = 0;
    readFlag = 0;
    if (!driver.hostStatusBlock)
        return;
    if (driver.hostMutex)
        driver.hostMutex->lock();
    writeFlag = driver.hostStatusBlock[HOST_FLAG_RECIPE_WRITE];
    readFlag = driver.hostStatusBlock[HOST_FLAG_RECIPE_READ];
    if (driver.hostMutex)
        driver.hostMutex->unlock();
}

void clearHostFlag(int position)
{
    if (!driver.hostStatusBlock)
        return;
    if (driver.hostMutex)
        driver.hostMutex->lock();
    driver.hostStatusBlock[position] = 0;
    if (driver.hostMutex)
        driver.hostMutex->unlock();
}

/* ------------------------------------------------------------------ the cache */
/* All of this runs with the driver's mutex held. */

/* A new cached unit: the three keys, everything else zero. */
_DATA_ newArea(int keyNo, const QString& areaName, int address)
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

DATA_AREA_KEY keyOf(int keyNo, int nameId, int address)
{
    DATA_AREA_KEY k;
    k.keyNo = keyNo;
    k.nameId = nameId;
    k.address = address;
    return k;
}

/* The cached unit at `position`, without the list's detach-and-assert accessors. */
inline _DATA_& unitAt(int position) { return driver.dataAreaList.begin()[position]; }
inline const _DATA_& constUnitAt(int position) { return driver.dataAreaList.constBegin()[position]; }

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
    list.append(newArea(keyNo, index.texts(nameId).name, address));
    index.insert(keyNo, nameId, address, position);
    return position;
}

/* The units of consecutive addresses of one area, in address order: the unit after the
 * previous one is tried first (the units of a read block were usually created one after
 * another), else findOrCreateArea. The area's name is held by value: a callback made
 * between two steps may add names to the index's table. */
class ConsecutiveUnits {
public:
    ConsecutiveUnits(int keyNo, int nameId)
        : keyNo_(keyNo), nameId_(nameId), name_(driver.dataAreaIndex.texts(nameId).name),
          hint_(!driver.dataAreaIndex.hasDuplicates()), previous_(-1)
    {
    }
    int next(int address)
    {
        int candidate = previous_ + 1;
        if (hint_ && previous_ >= 0 && candidate < driver.dataAreaList.size()) {
            const _DATA_& d = constUnitAt(candidate);
            if (d.keyNo == keyNo_ && d.address == address && d.areaName.isSharedWith(name_))
                return previous_ = candidate;
        }
        return previous_ = findOrCreateArea(keyNo_, nameId_, address);
    }

private:
    int keyNo_;
    int nameId_;
    QString name_;
    bool hint_;
    int previous_;
};

int findOrCreateArea(int keyNo, const QString& areaName, int address)
{
    return findOrCreateArea(keyNo, areaNameId(areaName), address);
}

int areaNameIdOfRegister(const QString& regName) { return driver.dataAreaIndex.areaIdOfRegister(regName); }

/* ------------------------------------------------------------------ change reports */

struct Report {
    int keyNo;
    QString text;
    int address;
};

/* The reports of one unit, collected under the driver's mutex and made after it is let go,
 * so that the host's callback may call back into the driver. */
class Reports {
public:
    Reports() : count_(0) { }
    void add(int keyNo, const QString& text, int address)
    {
        if (count_ < kCapacity) {
            items_[count_].keyNo = keyNo;
            items_[count_].text = text;
            items_[count_].address = address;
            ++count_;
        }
    }
    bool isEmpty() const { return count_ == 0; }
    /* Calls the host's callback for each report, in order, then forgets them. */
    void fire()
    {
        VALUE_CHANGE_CALLBACK cb = driver.valueChangeCallBack;
        int context = driver.callBackContext;
        for (int i = 0; i < count_; ++i)
            if (cb)
                cb(context, items_[i].keyNo, items_[i].text, items_[i].address);
        count_ = 0;
    }

private:
    enum { kCapacity = 40 }; /* a double word: 32 bits and one whole item */
    Report items_[kCapacity];
    int count_;
};

/* Makes the collected reports with the driver's lock let go, then takes it again. */
void fireUnlocked(Reports& r, DriverLock& lock)
{
    if (r.isEmpty())
        return;
    lock.release();
    r.fire();
    lock.acquire();
}

const AREA_NAME_TEXTS& textsOf(const _DATA_& d) { return driver.dataAreaIndex.texts(areaNameId(d.areaName)); }

/* Bits in ascending order, then the byte, then words, then double words from the nearest
 * start downward. Whole items are reported without comparing values: a word whose two
 * bytes change is reported twice, once from each byte. */
void collectByteReports(
    const _DATA_& d, const unsigned char* oldValue, const unsigned char* newValue, int noBits, Reports& r)
{
    const AREA_NAME_TEXTS& t = textsOf(d);
    if (!noBits && d.bitMonitorMask != 0) {
        for (int i = 0; i < 8; ++i) {
            unsigned int m = 1u << i;
            if (!(d.bitMonitorMask & m))
                continue;
            if (!oldValue || !newValue || ((*oldValue & m) != (*newValue & m)))
                r.add(d.keyNo, t.bitText, wrapAdd(wrapMul(d.address, 8), i));
        }
    }
    if (d.monitorFlag & 1u)
        r.add(d.keyNo, t.byteText, d.address);
    for (int k = 1; k <= 2; ++k) {
        int a = wrapSub(d.address, k - 1);
        if (a < 0)
            break;
        if (d.monitorFlag & (1u << k))
            r.add(d.keyNo, t.wordText, a);
    }
    if (d.address < 0)
        return;
    for (int k = 0; k <= 3; ++k) {
        int a = wrapSub(d.address, k);
        if (a < 0)
            break;
        if (d.monitorFlag & (1u << (k + 3)))
            r.add(d.keyNo, t.dwordText, a);
    }
}

void collectWordReports(const _DATA_& d, const int* oldValue, const int* newValue, int noBits, Reports& r)
{
    const AREA_NAME_TEXTS& t = textsOf(d);
    if (!noBits && d.bitMonitorMask != 0) {
        for (int i = 0; i < 16; ++i) {
            unsigned int m = 1u << i;
            if (!(d.bitMonitorMask & m))
                continue;
            if (!oldValue || !newValue
                || ((static_cast<unsigned int>(*oldValue) & m) != (static_cast<unsigned int>(*newValue) & m)))
                r.add(d.keyNo, t.bitText, wrapAdd(wrapMul(d.address, 16), i));
        }
    }
    if (d.monitorFlag & 1u)
        r.add(d.keyNo, t.name, d.address);
    for (int k = 1; k <= 2; ++k) {
        int a = wrapSub(d.address, k - 1);
        if (a < 0)
            break;
        if (d.monitorFlag & (1u << k))
            r.add(d.keyNo, t.dwordText, a);
    }
}

void collectDwordReports(const _DATA_& d, const int* oldValue, const int* newValue, int noBits, Reports& r)
{
    const AREA_NAME_TEXTS& t = textsOf(d);
    if (!noBits && d.bitMonitorMask != 0) {
        for (int i = 0; i < 32; ++i) {
            unsigned int m = 1u << i;
            if (!(d.bitMonitorMask & m))
                continue;
            if (!oldValue || !newValue
                || ((static_cast<unsigned int>(*oldValue) & m) != (static_cast<unsigned int>(*newValue) & m)))
                r.add(d.keyNo, t.bitText, wrapAdd(wrapMul(d.address, 32), i));
        }
    }
    if (d.monitorFlag & 1u)
        r.add(d.keyNo, t.name, d.address);
}

void collectBitReports(const _DATA_& d, Reports& r)
{
    if (d.monitorFlag & 1u)
        r.add(d.keyNo, textsOf(d).name, d.address);
}

/* The byte the host is shown: its own written value until the write is settled. */
unsigned char shownByte(const _DATA_& d, int k) { return d.writeFlag ? d.writeValue[k] : d.value[k]; }

/* ------------------------------------------------------------------ address merging helpers */

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

/* Copies `count` bytes from src+srcOffset to the start of dst, where src holds srcSize bytes
 * and dst 1024: the copy stops at dst's end, and bytes past src's end arrive as zeros. */
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

/* Cuts a key of `length` units into pieces of at most `limit` units; piece addresses
 * advance by the limit in the key's own units. A limit below 1 leaves the key whole. */
int pieceCount(int length, int limit)
{
    if (limit <= 0 || length <= limit)
        return 1;
    return length / limit + (length % limit != 0 ? 1 : 0);
}

}  // namespace

/* ====================================================================================
 * Register table and address syntax
 * ================================================================================== */

int getIndexFromRegName(QString regName)
{
    for (int i = 0; i < 6; ++i)
        if (REG_LIST[i] == regName)
            return i;
    return -1;
}

int getRegAddressWeight(int keyNo, QString regName, int address, int spare)
{
    (void)spare;
    int n = driver.regNameList.size();
    int idx = driver.regNameList.indexOf(regName);
    /* The step is 65535, not 65536, on purpose; merging relies on these exact values. */
    unsigned int w = static_cast<unsigned int>(keyNo) * static_cast<unsigned int>(n) * 65535u
        + static_cast<unsigned int>(idx) * 65535u + static_cast<unsigned int>(address);
    return static_cast<int>(w);
}

int a2i(QString text, int& address, QString format, QString regName)
{
    bool mixed = false;
    for (int i = 1; i < format.size(); ++i)
        if (format.at(i) != format.at(0))
            mixed = true;
    if (mixed) {
        int v = addr_str2int(text, regName);
        if (v == -1)
            return -1;
        address = v;
        return 1;
    }
    int base = 10;
    if (!format.isEmpty()) {
        QChar last = format.at(format.size() - 1);
        if (last == QLatin1Char('O'))
            base = 8;
        else if (last == QLatin1Char('H'))
            base = 16;
    }
    bool ok = false;
    int v = text.toInt(&ok, base);
    address = ok ? v : 0;
    return ok ? 1 : -1;
}

int _setBitValue(int value, int bit, int on)
{
    if (bit < 0 || bit > 31)
        return value;
    unsigned int m = 1u << bit;
    unsigned int v = static_cast<unsigned int>(value);
    return static_cast<int>(on ? (v | m) : (v & ~m));
}

int uchar2int16(unsigned char low, unsigned char high) { return low + high * 256; }

int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3)
{
    unsigned int v = static_cast<unsigned int>(b0) | (static_cast<unsigned int>(b1) << 8)
        | (static_cast<unsigned int>(b2) << 16) | (static_cast<unsigned int>(b3) << 24);
    return static_cast<int>(v);
}

namespace {
int nibbleOf(int code)
{
    if (code < 48)
        return 0;
    if (code <= 63)
        return code & 0x0F;
    if (code == 64)
        return 0;
    return (code - 55) % 16;
}
}  // namespace

int asc2hex(QByteArray text, int pos)
{
    long long at = pos;
    int hi = (at >= 0 && at < text.size()) ? nibbleOf(static_cast<unsigned char>(text.at(pos))) : 0;
    int lo = (at + 1 >= 0 && at + 1 < text.size()) ? nibbleOf(static_cast<unsigned char>(text.at(pos + 1))) : 0;
    return (hi * 16 + lo) & 0xFF;
}

namespace {
/* Parses an address text and the row's limits in the row's syntax; false when the text
 * does not fit. `address` receives what a2i leaves in it. */
bool parseWithRow(
    int row, const QString& regName, const QString& addrText, int& address, double& minimum, double& maximum)
{
    const QString& format = ADDRESS_RANGE_PRO[row][0];
    if (a2i(addrText, address, format, regName) == -1)
        return false;
    int maxAddress = 0;
    int minAddress = 0;
    a2i(ADDRESS_RANGE_PRO[row][2], maxAddress, format, regName);
    a2i(ADDRESS_RANGE_PRO[row][1], minAddress, format, regName);
    maximum = maxAddress;
    minimum = minAddress;
    return true;
}

/* The range test of both checks, then the unknown-register result; this order is kept. */
int finishAddressCheck(
    int row, const QString& regName, int& address, int count, double factor, double minimum, double maximum)
{
    if (address < minimum)
        return 2;
    if (static_cast<double>(count) / factor + address > maximum + 1)
        return 2;
    if (row < 0)
        return 3;
    address = addrOffset(regName, address);
    return 0;
}
}  // namespace

int intf_checkAddr(QString regName, QString addrText, int* address, int dataType, int count, int access)
{
    int scratch = 0;
    int& addr = address ? *address : scratch;
    int row = getIndexFromRegName(regName);
    double minimum = 0;
    double maximum = 0;
    double factor = 1;
    if (row >= 0) {
        const RegisterRule& rule = REGISTER_RULES[row];
        if ((rule.kind == kBitRegister) != (dataType == -1))
            return 1;
        if (rule.access == kReadOnly && (access == 1 || access == 2))
            return 6;
        if (rule.widthBits == 32 && dataType != 1 && dataType != 3 && dataType != 5 && dataType != 6 && dataType != 9)
            return 5;
        if (!parseWithRow(row, regName, addrText, addr, minimum, maximum))
            return 4;
        /* Each 16-bit item takes 16 / unit address steps; a bit takes one. */
        factor = dataType != -1 ? rule.unitBits / 16.0 : 1.0;
    }
    return finishAddressCheck(row, regName, addr, count, factor, minimum, maximum);
}

int intf_checkAddrValidity(QString regName, QString addrText, int* address, int count, int isWord)
{
    int scratch = 0;
    int& addr = address ? *address : scratch;
    int row = getIndexFromRegName(regName);
    double minimum = 0;
    double maximum = 0;
    double factor = 1;
    if (row >= 0) {
        const RegisterRule& rule = REGISTER_RULES[row];
        if ((rule.kind == kBitRegister) == (isWord != 0))
            return 1;
        if (!parseWithRow(row, regName, addrText, addr, minimum, maximum))
            return 4;
        factor = isWord != 0 ? rule.unitBits : 1.0;
    }
    return finishAddressCheck(row, regName, addr, count, factor, minimum, maximum);
}

int intf_getRegListByType(int type, QList<QString>& names)
{
    for (int i = 0; i < 6; ++i) {
        int width = REGISTER_RULES[i].widthBits;
        if (type == 0 ? width == 1 : width > 1)
            names.append(REG_LIST[i]);
    }
    /* 0 tells the host the type is unknown, although the word names were appended. */
    return (type == 0 || type == 1) ? 1 : 0;
}

int intf_getRegDiscription(QString regName, QList<QString>& description)
{
    int row = getIndexFromRegName(regName);
    if (row < 0)
        return 0;
    const RegisterRule& rule = REGISTER_RULES[row];
    const char* widthCode = rule.widthBits == 1 ? "0" : (rule.widthBits == 32 ? "2" : "1");
    const char* accessCode = rule.access == kReadOnly ? "0" : (rule.access == kWriteOnly ? "2" : "1");
    description.append(ADDRESS_RANGE_PRO[row][0]);
    description.append(ADDRESS_RANGE_PRO[row][1]);
    description.append(ADDRESS_RANGE_PRO[row][2]);
    description.append(QString::fromLatin1(widthCode));
    description.append(QString::fromLatin1(accessCode));
    return 0;
}

/* ====================================================================================
 * Driver object, parameters and property page
 * ================================================================================== */

void intf_getProtocolType(int* type)
{
    if (type)
        *type = 1;
}

QString intf_getVersion() { return PROCOTOL_VERSION; }

void intf_setAddrValueChangeCallBack(VALUE_CHANGE_CALLBACK callback) { driver.valueChangeCallBack = callback; }

int intf_initProperty(
    void* hostStatusBlock, void* hostArg2, void* rcpBuffer, int* mode, const char* initString, QMutex* hostMutex)
{
    if (mode)
        *mode = 2;
    QStringList parts = QString::fromLatin1(initString ? initString : "").split(QLatin1String("#"));
    if (parts.size() >= 5) {
        driver.callBackContext = toIntOrZero(parts.at(0));
        driver.initParam1 = toIntOrZero(parts.at(1));
        driver.initParam2 = toIntOrZero(parts.at(2));
        driver.initParam3 = toIntOrZero(parts.at(3));
        driver.maxMergeGap = toIntOrZero(parts.at(4));
    }
    driver.hostStatusBlock = static_cast<unsigned char*>(hostStatusBlock);
    driver.hostArg2 = hostArg2;
    driver.rcpBuffer = static_cast<unsigned char*>(rcpBuffer);
    driver.hostMutex = hostMutex;
    driver.readList.clear();
    driver.conditionReadList.clear();
    {
        DriverLock lock;
        driver.writeList.clear();
        driver.dataAreaList.clear();
        driver.dataAreaIndex.clear();
    }
    driver.curFrameKind = kFrameNone;
    driver.priorityCount = 0;
    driver.errorCount = 0;
    driver.commFailed = 0;
    driver.maxBlockUnits = driver.maxMergeGap;
    driver.maxBlockBits = wrapMul(driver.maxMergeGap, 8);
    driver.needHandShake = 1;
    driver.frameList.clear();
    driver.curFrameIndex = 0;
    driver.initDone = 1;
    return 1;
}

void intf_getDriverParameter(QString& parameter)
{
    QString registers;
    for (int i = 0; i < driver.regNameList.size(); ++i) {
        if (i > 0)
            registers += QLatin1Char(',');
        registers += driver.regNameList.at(i);
    }
    parameter = QString::fromLatin1("%1,%2,%3,%4,%5,%6,%7")
                    .arg(0)
                    .arg(PROCOTOL_DEFALT_COM_PAR)
                    .arg(0)
                    .arg(1)
                    .arg(PROCOTOL_DEFALT_IP_PAR)
                    .arg(PROCOTOL_NAME)
                    .arg(registers);
}

void intf_getDriverPropertyPage(QString& page) { page = PROCOTOL_PAR_HMI_SET_MODE; }

QString selectOwnIpv4Address(const QList<QHostAddress>& addresses, const QList<QString>& netIdParts)
{
    const QHostAddress loopback(QHostAddress::LocalHost);
    for (int i = 0; i < addresses.size(); ++i) {
        const QHostAddress& a = addresses.at(i);
        if (a.protocol() != QAbstractSocket::IPv4Protocol || a.isNull() || a == loopback)
            continue;
        QString text = a.toString();
        /* A substring test on purpose, not a subnet test: the first two numbers of the
         * PLC's Net ID pick the panel's interface. */
        if (netIdParts.size() < 2 || (text.contains(netIdParts.at(0)) && text.contains(netIdParts.at(1))))
            return text;
    }
    return QString();
}

void intf_SetDriverPropertyPage(QString settings)
{
    QStringList parts = settings.split(QLatin1String(","));
    if (parts.size() != 3)
        return;
    QStringList netId = parts.at(1).split(QLatin1String("."));
    if (netId.size() == 6)
        for (int i = 0; i < 6; ++i)
            driver.targetAmsNetId[i] = static_cast<unsigned char>(toIntOrZero(netId.at(i)));
    driver.targetAmsPort = toIntOrZero(parts.at(2));

    QList<QString> netIdParts;
    for (int i = 0; i < netId.size(); ++i)
        netIdParts.append(netId.at(i));
    QString own = selectOwnIpv4Address(QNetworkInterface::allAddresses(), netIdParts);
    QStringList ip = own.split(QLatin1String("."));
    if (ip.size() == 4)
        for (int i = 0; i < 4; ++i)
            driver.sourceIp[i] = static_cast<unsigned char>(toIntOrZero(ip.at(i)));
}

/* ====================================================================================
 * Data areas: the cache of PLC memory
 * ================================================================================== */

CacheIndex::CacheIndex() : duplicates_(false) { }

void CacheIndex::clear()
{
    positions_.clear();
    duplicates_ = false;
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
        if (name.size() == length && regName.startsWith(name))
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
}

void CacheIndex::rebuild(const QList<_DATA_>& list)
{
    clear();
    for (int i = 0; i < list.size(); ++i) {
        const _DATA_& d = list.at(i);
        DATA_AREA_KEY k = keyOf(d.keyNo, areaId(d.areaName), d.address);
        if (positions_.contains(k))
            duplicates_ = true;
        else
            positions_.insert(k, i);
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
    list.append(newArea(keyNo, areaName, address));
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
    int area = areaNameId(areaOf(regName));
    switch (rule.kind) {
    case kBitRegister:
        for (int i = 0; i < count; ++i) {
            int b = wrapAdd(address, i);
            int bit = b % 8;
            if (bit < 0)
                continue; /* a negative bit number names no bit */
            markArea(keyNo, area, b / 8, 0, 1u << bit);
        }
        break;
    case kWordRegister:
        for (int j = 0; j < count; ++j) {
            int a = wrapAdd(address, wrapMul(2, j));
            markArea(keyNo, area, a, 1u << 1, 0);
            markArea(keyNo, area, wrapAdd(a, 1), 1u << 2, 0);
        }
        break;
    }
    return 0;
}

/* ====================================================================================
 * Change detection
 * ================================================================================== */

namespace {
/* Collects the reports of the unit at `index` under the driver's lock with `collect`,
 * then makes them with the lock let go. An index outside the cache reports nothing. */
template <typename Collect>
void reportUnit(int index, Collect collect)
{
    Reports r;
    {
        DriverLock lock;
        if (index < 0 || index >= driver.dataAreaList.size())
            return;
        collect(driver.dataAreaList.at(index), r);
    }
    r.fire();
}
}  // namespace

void _byteDataChange(unsigned char* oldValue, unsigned char* newValue, int index, int noBits)
{
    reportUnit(index, [=](const _DATA_& d, Reports& r) { collectByteReports(d, oldValue, newValue, noBits, r); });
}

void _wordDataChange(int* oldValue, int* newValue, int index, int noBits)
{
    reportUnit(index, [=](const _DATA_& d, Reports& r) { collectWordReports(d, oldValue, newValue, noBits, r); });
}

void _dwordDataChange(int* oldValue, int* newValue, int index, int noBits)
{
    reportUnit(index, [=](const _DATA_& d, Reports& r) { collectDwordReports(d, oldValue, newValue, noBits, r); });
}

void _bitDataChange(int index)
{
    reportUnit(index, [](const _DATA_& d, Reports& r) { collectBitReports(d, r); });
}

/* ====================================================================================
 * Reading values for the host
 * ================================================================================== */

int intf_getData(int keyNo, QString regName, int address, int count, unsigned char* out)
{
    /* A name outside the register table is not a PLC area: nothing is read or created. */
    if (!out || !isKnownRegister(regName))
        return 1;
    const RegisterRule& rule = ruleOf(regName);
    DriverLock lock;
    int area = areaNameId(areaOf(regName));
    switch (rule.kind) {
    case kBitRegister:
        for (int i = 0; i < count; ++i) {
            int b = wrapAdd(address, i);
            if (b < 0) {
                out[i] = 0;
                continue;
            }
            const _DATA_& d = constUnitAt(findOrCreateArea(keyNo, area, b / 8));
            out[i] = static_cast<unsigned char>((shownByte(d, 0) >> (b % 8)) & 1);
        }
        break;
    case kWordRegister:
        for (int j = 0; j < count; ++j) {
            int a = wrapAdd(address, wrapMul(2, j));
            out[2 * j] = shownByte(constUnitAt(findOrCreateArea(keyNo, area, a)), 0);
            out[2 * j + 1] = shownByte(constUnitAt(findOrCreateArea(keyNo, area, wrapAdd(a, 1))), 0);
        }
        break;
    }
    return 1;
}

void dealListWhenFinish()
{
    switch (driver.curFrameKind) {
    case kFrameWrite: {
        DriverLock lock;
        if (!driver.writeList.isEmpty())
            driver.writeList.removeFirst();
        break;
    }
    case kFrameConditionRead: {
        if (!driver.conditionReadList.isEmpty()) {
            const VARIABLE& head = driver.conditionReadList.first();
            const VARIABLE& last = driver.lastVar;
            if (head.keyNo == last.keyNo && head.regName == last.regName && head.address == last.address
                && head.length == last.length && driver.valueChangeCallBack) {
                /* The one report that names no area: the end of the host's condition read. */
                driver.valueChangeCallBack(-1, -1, QString::fromLatin1("-1"), driver.commFailed ? -1 : 0);
            }
        }
        if (driver.commFailed)
            driver.conditionReadList.clear();
        else if (!driver.conditionReadList.isEmpty())
            driver.conditionReadList.removeFirst();
        break;
    }
    case kFrameCyclicRead:
        if (driver.readList.size() >= 2)
            driver.readList.move(0, driver.readList.size() - 1);
        break;
    case kFrameRecipeWrite:
    case kFrameRecipeRead:
        if (!driver.commFailed) {
            ++driver.rcpIndex;
            if (driver.rcpIndex < driver.rcpTransferList.size())
                break;
        }
        driver.rcpIndex = 0;
        clearHostFlag(driver.curFrameKind == kFrameRecipeWrite ? HOST_FLAG_RECIPE_WRITE : HOST_FLAG_RECIPE_READ);
        break;
    default:
        break;
    }
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
 * written byte even when the host was shown the read one; that choice is kept. */
void storeWrittenBitInByte(int keyNo, int nameId, int bitNumber, bool on)
{
    DriverLock lock;
    Reports r;
    int idx = findOrCreateArea(keyNo, nameId, bitNumber / 8);
    unsigned char newByte;
    {
        const _DATA_& d = driver.dataAreaList.at(idx);
        unsigned char shown = shownByte(d, 0);
        unsigned char m = static_cast<unsigned char>(1u << (bitNumber % 8));
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

/* Queues one write, coalescing with a queued write of the same item. The head is the
 * write in flight and is never replaced. */
void queueWrite(const VARIABLE& v)
{
    DriverLock lock;
    QList<VARIABLE>& list = driver.writeList;
    for (int i = list.size() - 1; i >= 1; --i) {
        const VARIABLE& q = list.at(i);
        if (q.keyNo == v.keyNo && q.regName == v.regName && q.address == v.address && q.length == v.length) {
            list[i] = v;
            return;
        }
    }
    if (list.size() > kMaxQueued)
        list[kMaxQueued] = v;
    else
        list.append(v);
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
        area = areaNameId(areaOf(regName));
    }
    switch (rule.kind) {
    case kWordRegister:
        for (int j = 0; j < count; ++j) {
            int a = wrapAdd(address, wrapMul(2, j));
            storeWrittenByte(keyNo, area, a, data[2 * j]);
            storeWrittenByte(keyNo, area, wrapAdd(a, 1), data[2 * j + 1]);
        }
        break;
    case kBitRegister:
        for (int i = 0; i < count; ++i) {
            int b = wrapAdd(address, i);
            if (b < 0)
                continue; /* a negative bit number names no bit */
            storeWrittenBitInByte(keyNo, area, b, data[i] == 1);
        }
        break;
    }
}

int intf_setData(int keyNo, QString regName, int address, int count, unsigned char* data, int mode)
{
    /* A name outside the register table must never turn into a write to PLC memory. */
    if (!data || !isKnownRegister(regName))
        return 1;
    if (driver.initParam1 == 0) {
        RegisterRow row = registerRow(regName);
        bool bitRegister = REGISTER_RULES[row].kind == kBitRegister;
        KEY_ADDRESS key = zeroKey();
        key.keyNo = keyNo;
        /* The table's own text: the queued write then shares no string with the host. */
        key.regName = REG_LIST[row];
        key.address = address;
        key.length = count;
        /* unitMark stays 0 for bits too, so later pieces of a long bit write take their
         * bytes two per unit; kept as it is (a bit write of one piece is unaffected). */
        long long bytes = bitRegister ? count : 2LL * count;
        if (bytes > 0)
            memcpy(key.data, data, static_cast<size_t>(bytes < kBufferSize ? bytes : kBufferSize));
        QList<KEY_ADDRESS> pieces;
        groupingKey(key, bitRegister ? driver.maxBlockBits : driver.maxBlockUnits, pieces, 1);
        int unitBits = REGISTER_RULES[row].unitBits;
        int lengthsBefore = 0;
        for (int p = 0; p < pieces.size(); ++p) {
            const KEY_ADDRESS& piece = pieces.at(p);
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
                long long perUnit = 2;
                boundedCopy(v.data, data, bytes,
                    perUnit * p * (bitRegister ? driver.maxBlockBits : driver.maxBlockUnits), perUnit * piece.length);
            }
            if (!bitRegister && unitBits > 0) {
                /* Words to bytes; each piece starts where the ones before it ended. */
                v.length = static_cast<int>(piece.length * 16.0 / unitBits);
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
    int area = areaNameId(areaOf(regName));
    Reports r;
    switch (rule.kind) {
    case kWordRegister: {
        int units = wrapMul(count, 2); /* two byte units per word */
        for (int k = 0; k < units; ++k) {
            _DATA_& d = unitAt(findOrCreateArea(keyNo, area, wrapAdd(address, k)));
            d.writeFlag = 0;
            if (ok == 1) {
                d.value[0] = d.writeValue[0];
            } else {
                /* The written value as old and new: single bits are not redrawn while the
                 * byte, word and double-word items are (INTERNALS.md, kept behaviours). */
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
            int bit = b % 8;
            _DATA_& d = unitAt(findOrCreateArea(keyNo, area, b / 8));
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

/* ====================================================================================
 * Send scheduling
 * ================================================================================== */

namespace {

/* The read of the current variable: a cyclic block, a condition read or a recipe block. */
void buildCurrentRead()
{
    if (driver.curReadList.size() == 1) {
        copyVariable(*driver.curReadList.begin(), driver.curVar);
    } else {
        driver.curReadList.clear();
        driver.curReadList.append(driver.curVar);
    }
    driver.framesBuilt = 1;
    int built = getReadFrame(driver.curReadList);
    if (driver.curFrameKind == kFrameConditionRead || driver.curFrameKind == kFrameRecipeRead)
        driver.framesBuilt = built;
}

bool copyHead(FRAME_PRO* out)
{
    if (driver.frameList.isEmpty())
        return false;
    copyFrame(*out, headOf(driver.frameList));
    return true;
}

/* A recipe flag is up but every block has been sent: repeat the last kind of request. */
bool repeatLastKind()
{
    switch (driver.curFrameKind) {
    case kFrameWrite:
    case kFrameRecipeWrite:
        driver.framesBuilt = 1;
        getWriteFrame(driver.curVar);
        return true;
    case kFrameConditionRead:
    case kFrameCyclicRead:
    case kFrameRecipeRead:
        buildCurrentRead();
        return true;
    case kFrameHandshake:
        handShakeFrame();
        return true;
    default:
        return false;
    }
}

}  // namespace

int intf_getSendFrame(FRAME_PRO* out)
{
    if (!out)
        return 0;
    /* One request in flight: it is handed out again until it is answered or given up. */
    if (copyHead(out))
        return 1;

    unsigned char recipeWrite = 0;
    unsigned char recipeRead = 0;
    readHostFlags(recipeWrite, recipeRead);

    if (driver.needHandShake) {
        driver.curFrameKind = kFrameHandshake;
        handShakeFrame();
    } else if (recipeWrite == 1) {
        if (driver.rcpIndex >= 0 && driver.rcpIndex < driver.rcpTransferList.size()) {
            rcpAddrToVar(driver.rcpTransferList.at(driver.rcpIndex), driver.curVar, 1);
            driver.curFrameKind = kFrameRecipeWrite;
            driver.framesBuilt = 1;
            getWriteFrame(driver.curVar);
        } else if (!repeatLastKind()) {
            return 0;
        }
    } else if (recipeRead == 1) {
        if (driver.rcpIndex >= 0 && driver.rcpIndex < driver.rcpTransferList.size()) {
            rcpAddrToVar(driver.rcpTransferList.at(driver.rcpIndex), driver.curVar, 0);
            driver.curFrameKind = kFrameRecipeRead;
            buildCurrentRead();
        } else if (!repeatLastKind()) {
            return 0;
        }
    } else {
        bool haveWrite = false;
        if (driver.priorityCount <= 9) {
            DriverLock lock;
            if (!driver.writeList.isEmpty()) {
                copyVariable(driver.curVar, headOf(driver.writeList));
                haveWrite = true;
            }
        }
        if (haveWrite) {
            driver.curFrameKind = kFrameWrite;
            driver.priorityCount += 1;
            driver.framesBuilt = 1;
            getWriteFrame(driver.curVar);
        } else if (!driver.conditionReadList.isEmpty() && driver.priorityCount <= 2) {
            copyVariable(driver.curVar, headOf(driver.conditionReadList));
            driver.curFrameKind = kFrameConditionRead;
            driver.priorityCount += 1;
            buildCurrentRead();
        } else if (driver.readList.isEmpty()) {
            driver.priorityCount = 0;
            driver.curFrameKind = kFrameNone;
            driver.frameList.clear();
            return 0;
        } else {
            copyVariable(driver.curVar, headOf(driver.readList));
            driver.curFrameKind = kFrameCyclicRead;
            driver.priorityCount = 0;
            buildCurrentRead();
        }
    }
    return copyHead(out) ? 1 : 0;
}

/* ====================================================================================
 * Reply handling
 * ================================================================================== */

namespace {
/* Appends the decimal text of v at buf + n; returns the new length. */
int appendDecimal(char* buf, int n, long long v)
{
    char digits[24];
    int count = 0;
    unsigned long long u = v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
    do {
        digits[count++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    if (v < 0)
        buf[n++] = '-';
    while (count > 0)
        buf[n++] = digits[--count];
    return n;
}

/* The error text of the frame in flight, "key#REGISTERaddress(length)(reply size)", into a
 * character buffer of at least 160 bytes; its length, 0 when the frame names no register
 * (the handshake). Built without the heap: it runs for every reply. */
int formatErrorInfo(int replySize, char* buf)
{
    if (driver.frameList.isEmpty())
        return 0;
    const VARIABLE& v = driver.frameList.first().var;
    int row = getIndexFromRegName(v.regName);
    if (row == 6 || row == -1)
        return 0;
    int n = appendDecimal(buf, 0, v.keyNo);
    buf[n++] = '#';
    for (int i = 0; i < v.regName.size() && n < 100; ++i)
        buf[n++] = v.regName.at(i).toLatin1();
    if (v.regName.right(4) == QLatin1String("_bit")) {
        /* As addr_int2str writes it: byte, point, bit (truncating division). */
        n = appendDecimal(buf, n, v.address / 8);
        buf[n++] = '.';
        n = appendDecimal(buf, n, v.address % 8);
    } else {
        const QString& format = ADDRESS_RANGE_PRO[row][0];
        QChar c = format.isEmpty() ? QChar() : format.at(0);
        unsigned int a = static_cast<unsigned int>(v.address);
        if (c == QLatin1Char('D'))
            n = appendDecimal(buf, n, a);
        else if (c == QLatin1Char('H'))
            n += snprintf(buf + n, 32, "%x", a);
        else if (c == QLatin1Char('O'))
            n += snprintf(buf + n, 32, "%o", a);
    }
    buf[n++] = '(';
    n = appendDecimal(buf, n, v.length);
    buf[n++] = ')';
    buf[n++] = '(';
    n = appendDecimal(buf, n, replySize);
    buf[n++] = ')';
    return n;
}
}  // namespace

QString getErrorInfo(QByteArray reply)
{
    char buf[160];
    int n = formatErrorInfo(static_cast<int>(reply.size()), buf);
    return QString::fromLatin1(buf, n);
}

int dealReadFrameReturnSaveData(QByteArray reply)
{
    if (driver.frameList.isEmpty())
        return 0;
    const FRAME_PRO& head = driver.frameList.first();
    analyzeFrameOfVal(reply, head.readLen, head.dataStart, head.var);
    return 0;
}

namespace {

/* Reply bytes beyond the end of the reply read as 0. */
class ReplyBytes {
public:
    explicit ReplyBytes(const QByteArray& reply)
        : data_(reinterpret_cast<const unsigned char*>(reply.constData())), size_(reply.size())
    {
    }
    unsigned char at(long long pos) const { return (pos >= 0 && pos < size_) ? data_[pos] : 0; }

private:
    const unsigned char* data_;
    long long size_;
};

/* The first half of a bit write came back: set or clear the bits to write in the bytes
 * read, and put them into the write frame queued behind it. */
void completeBitWrite(const ReplyBytes& reply, int readLen, int dataStart, const VARIABLE& var)
{
    unsigned char bytes[kBufferSize];
    int n = clampInt(readLen, 0, kBufferSize);
    for (int k = 0; k < n; ++k)
        bytes[k] = reply.at(static_cast<long long>(dataStart) + k);
    for (int i = 0; i < var.length && i < kBufferSize; ++i) {
        long long p = static_cast<long long>(var.address % 8) + i;
        if (p < 0)
            continue;
        long long k = p / 8;
        if (k >= n)
            break;
        unsigned char m = static_cast<unsigned char>(1u << (p % 8));
        if (var.data[i] != 0)
            bytes[k] = static_cast<unsigned char>(bytes[k] | m);
        else
            bytes[k] = static_cast<unsigned char>(bytes[k] & ~m);
    }
    if (driver.frameList.size() < 2)
        return;
    FRAME_PRO& write = driver.frameList[1];
    if (write.dataStart < 0 || write.dataStart >= kBufferSize)
        return;
    int room = kBufferSize - write.dataStart;
    memcpy(write.frame + write.dataStart, bytes, static_cast<size_t>(n < room ? n : room));
}

/* A read value differs from the cache: a pending bit write keeps showing the written
 * value; otherwise the host is shown the value read. */
void applyWriteFlagRule(_DATA_& d)
{
    if (!(d.bitWriteState != 0 && !driver.writeList.isEmpty()))
        d.writeFlag = 0;
}

/* The bytes a read brought, into the cache: every register addresses bytes, one cached
 * unit per reply byte; a changed byte is reported at once. */
void storeReadBytes(const ReplyBytes& bytes, int readLen, int dataStart, const VARIABLE& var)
{
    DriverLock lock;
    Reports r;
    ConsecutiveUnits units(var.keyNo, areaNameIdOfRegister(var.regName));
    for (int j = 0; j < readLen; ++j) {
        unsigned char newByte = bytes.at(static_cast<long long>(dataStart) + j);
        _DATA_& d = unitAt(units.next(wrapAdd(var.address, j)));
        if (d.value[0] != newByte) {
            applyWriteFlagRule(d);
            unsigned char oldByte = d.value[0];
            d.value[0] = newByte;
            collectByteReports(d, &oldByte, &newByte, 0, r);
            fireUnlocked(r, lock);
        }
    }
}

}  // namespace

void analyzeFrameOfVal(QByteArray reply, int readLen, int dataStart, VARIABLE var)
{
    ReplyBytes bytes(reply);

    /* The recipe variables a recipe read serves, noted before anything else. */
    int recipeFrom = 0;
    int recipeTo = 0;
    if (driver.curFrameKind == kFrameRecipeRead) {
        int blocks = driver.rcpBlockStartList.size();
        int idx = driver.rcpIndex;
        if (idx >= 0 && idx < blocks) {
            int vars = driver.rcpVarList.size();
            recipeFrom = clampInt(driver.rcpBlockStartList.at(idx), 0, vars);
            recipeTo = clampInt(idx == blocks - 1 ? vars : driver.rcpBlockStartList.at(idx + 1), 0, vars);
        }
    }

    if (driver.curFrameKind == kFrameWrite && ruleOf(var.regName).kind == kBitRegister) {
        completeBitWrite(bytes, readLen, dataStart, var);
        return;
    }
    storeReadBytes(bytes, readLen, dataStart, var);

    /* Recipe read: after the cache, copy each variable's bytes into the host's recipe
     * buffer and report each byte (twice per word, kept so). */
    if (recipeFrom >= recipeTo || !driver.rcpBuffer)
        return;
    static const QString recipeText = QString::fromLatin1("RWI");
    int firstAddress = driver.rcpVarList.at(recipeFrom).address;
    for (int e = recipeFrom; e < recipeTo; ++e) {
        const _RCP_VAR_PRO item = driver.rcpVarList.at(e);
        long long bytesOfItem = 2LL * item.length;
        for (long long j = 0; j < bytesOfItem; ++j) {
            long long from
                = static_cast<long long>(dataStart) + (static_cast<long long>(item.address) - firstAddress) + j;
            long long to = 2LL * item.rcpDataIndex + j;
            if (to < 0)
                continue;
            driver.rcpBuffer[to] = bytes.at(from);
            if (driver.valueChangeCallBack)
                driver.valueChangeCallBack(0, -1, recipeText, static_cast<int>(item.rcpDataIndex + j / 2));
        }
    }
}

int intf_dealRcvFrame(QByteArray& reply, QString& errorText)
{
    if (driver.frameList.isEmpty()) {
        errorText = QString();
        return 0;
    }
    /* The same text getErrorInfo() gives, written into the host's string in place so that
     * a host that keeps its string reuses its storage. */
    char text[160];
    int textLength = formatErrorInfo(static_cast<int>(reply.size()), text);
    errorText.resize(textLength);
    QChar* out = textLength > 0 ? errorText.data() : 0;
    for (int i = 0; i < textLength; ++i)
        out[i] = QLatin1Char(text[i]);
    int r = check_rcv_data(
        reinterpret_cast<unsigned char*>(const_cast<char*>(reply.constData())), driver.curReadList, reply.size());
    if (r == 1) {
        driver.commFailed = 0;
        dealReadFrameReturnSaveData(reply);
    } else if (r == 2) {
        if (driver.curFrameKind == kFrameWrite) {
            const VARIABLE& v = driver.frameList.first().var;
            _write_FailOrSuc(v.keyNo, v.regName, v.address, v.length, 1);
        }
        /* A reply that fills the host's buffer may go on: keep the frame and wait. */
        if (reply.size() == kBufferSize)
            return 3;
        driver.commFailed = 0;
    } else if (r == 0) {
        driver.errorCount += 1;
        if (driver.errorCount < driver.initParam3)
            return 8;
        driver.commFailed = 1;
        if (driver.curFrameKind == kFrameWrite) {
            const VARIABLE v = driver.frameList.first().var;
            _write_FailOrSuc(v.keyNo, v.regName, v.address, v.length, 0);
        }
        driver.frameList.clear(); /* a queued write of a bit write goes with it */
        driver.errorCount = 0;
        dealListWhenFinish();
        return 2;
    } else {
        return 0;
    }
    driver.frameList.removeFirst();
    if (driver.frameList.isEmpty())
        dealListWhenFinish();
    driver.errorCount = 0;
    return 1;
}

/* ====================================================================================
 * Address merging
 * ================================================================================== */

void groupingKey(KEY_ADDRESS& key, int maxLen, QList<KEY_ADDRESS>& out, int copyData)
{
    int pieces = pieceCount(key.length, maxLen);
    if (pieces == 1) {
        out.append(key);
        return;
    }
    int remainder = key.length % maxLen;
    for (int p = 0; p < pieces; ++p) {
        KEY_ADDRESS piece = key;
        piece.address = wrapAdd(key.address, wrapMul(p, maxLen));
        piece.length = (p == pieces - 1 && remainder != 0) ? remainder : maxLen;
        if (copyData == 1) {
            long long perUnit = key.unitMark == -1 ? 1 : 2;
            boundedCopy(piece.data, key.data, kBufferSize, perUnit * p * maxLen, perUnit * piece.length);
        }
        out.append(piece);
    }
}

namespace {

/* Bits to the bytes that hold them, words to bytes: every key afterwards names a byte
 * range of a word register (a bit key becomes the "_W" register of its area). */
void convertToBytes(KEY_ADDRESS& k)
{
    QStringList parts = k.regName.split(QLatin1String("_"));
    int u = ruleOf(k.regName).unitBits;
    if (parts.size() >= 2 && parts.last() == QLatin1String("bit")) {
        int length = wrapAdd(k.length, k.address % u);
        k.length = length / u + (length % u != 0 ? 1 : 0);
        k.address = k.address / u;
        k.regName = parts.first() + QLatin1String("_W");
    } else if (u != 1) {
        k.length = wrapMul(16 / u, k.length);
    }
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
            if (row != kRowSpare && REGISTER_RULES[row].kind == kWordRegister)
                k.length = static_cast<int>(k.length * (16.0 / REGISTER_RULES[row].unitBits));
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
            /* The marks of queued bit writes go with the monitor marks, on purpose. */
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
    if (!key || !isKnownRegister(key->regName))
        return 1;
    const RegisterRule& rule = ruleOf(key->regName);
    /* A condition read of a bit register does nothing (INTERNALS.md, kept behaviours). */
    if (rule.kind == kBitRegister)
        return 1;
    int u = rule.unitBits;
    int limit = key->unitMark == -1 ? driver.maxBlockBits : driver.maxBlockUnits;
    int pieces = pieceCount(key->length, limit);
    int remainder = pieces > 1 ? key->length % limit : 0;
    for (int p = 0; p < pieces; ++p) {
        int pieceAddress = pieces > 1 ? wrapAdd(key->address, wrapMul(p, limit)) : key->address;
        int pieceLength = pieces > 1 ? ((p == pieces - 1 && remainder != 0) ? remainder : limit) : key->length;
        VARIABLE v = zeroVariable();
        v.kind = kind;
        v.keyNo = key->keyNo;
        v.regName = key->regName;
        v.address = pieceAddress;
        v.length = wrapMul(pieceLength, 16 / u);

        QList<VARIABLE>& list = driver.conditionReadList;
        bool refreshed = false;
        if (!list.isEmpty()) {
            /* The head is being served and is never compared. */
            for (int i = list.size() - 1; i >= 1; --i) {
                const VARIABLE& q = list.at(i);
                if (q.keyNo == v.keyNo && q.regName == v.regName && q.address == v.address && q.length == v.length) {
                    list[i] = v;
                    refreshed = true;
                    break;
                }
            }
        }
        if (!refreshed) {
            if (list.size() <= kMaxQueued)
                list.append(v);
            else
                list[kMaxQueued] = v;
        }
        driver.lastVar = v;
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
    /* Nothing of ours: the transfer lists of an earlier call stay, on purpose. */
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
    int u = ruleOf(item.regName).unitBits;
    long long n = static_cast<long long>(item.length) * (u / 8);
    if (n <= 0)
        return;
    /* The copy stops at the end of the 1024-byte data buffer. */
    if (n > kBufferSize)
        n = kBufferSize;
    memcpy(var.data, driver.rcpBuffer + 2LL * item.rcpDataIndex, static_cast<size_t>(n));
}

/* ====================================================================================
 * Multi-copy address generation
 * ================================================================================== */

int multiCp(QString regName, QString format, int start, int count, int interval, QVector<QString>& texts,
    QVector<int>& numbers, int maxNumber, QString maxText)
{
    bool mixed = false;
    for (int i = 1; i < format.size(); ++i)
        if (format.at(i) != format.at(0))
            mixed = true;
    if (count < 1)
        return 1;
    const RegisterRule& rule = ruleOf(regName);
    bool bitRegister = rule.kind == kBitRegister;
    int u = rule.unitBits;
    int result = 1;
    for (int i = 0; i < count; ++i) {
        int step = 1;
        if (interval == -1)
            step = bitRegister ? 1 : (u > 0 ? static_cast<int>(16.0f / u) : 1);
        else if (interval == -2)
            step = bitRegister ? 1 : (u > 0 ? static_cast<int>(32.0f / u) : 1);
        else if (interval > 0)
            step = interval;
        int address = wrapAdd(start, wrapMul(i, step));
        if (address > maxNumber) {
            /* Past the range: the largest address stands in, and the series goes on. */
            numbers.append(maxNumber);
            texts.append(maxText);
            result = 2;
            continue;
        }
        QString text;
        if (mixed) {
            text = addr_int2str(address, regName);
            if (text.isEmpty())
                return 2;
        } else {
            QChar c = format.isEmpty() ? QChar() : format.at(0);
            unsigned int a = static_cast<unsigned int>(address);
            if (c == QLatin1Char('H'))
                text = QString::number(a, 16);
            else if (c == QLatin1Char('O'))
                text = QString::number(a, 8);
            else
                text = QString::number(a);
        }
        numbers.append(address);
        texts.append(text);
    }
    return result;
}

int intf_multiCopy(QString* regName, int start, int count, int interval, QVector<QString>* texts, QVector<int>* numbers)
{
    if (!regName || !texts || !numbers)
        return 0;
    int row = getIndexFromRegName(*regName);
    if (row < 0)
        return 0;
    const QString& format = ADDRESS_RANGE_PRO[row][0];
    const QString& maxText = ADDRESS_RANGE_PRO[row][2];
    int maxNumber = 0;
    a2i(maxText, maxNumber, format, *regName);
    return multiCp(*regName, format, start, count, interval, *texts, *numbers, maxNumber, maxText);
}
