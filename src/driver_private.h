/*
 * Helpers shared by the driver's source files; not part of the installed header.
 */
#ifndef ADS_DRIVER_PRIVATE_H
#define ADS_DRIVER_PRIVATE_H

#include "ads_ethernet.h"

#include <QtCore/QMutex>

#include <new>
#include <string.h>

namespace drv {

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

/* The area a register's units are cached under: its name up to the first "_". */
inline QString areaOf(const QString& regName)
{
    int cut = regName.indexOf(QLatin1Char('_'));
    return cut < 0 ? regName : regName.left(cut);
}

}  // namespace drv

/* ------------------------------------------------------------------ the register model
 * The register table as the code uses it, one row per row of ADDRESS_RANGE_PRO: the rows of
 * REG_LIST in their order, then the spare word row that an unknown name looks up, then the
 * spare bit row (below). The text tables stay the host's view (formats, limits,
 * descriptions); every rule the driver applies comes from this table and its answers: bit or
 * word, the unit an address names and its size, address steps and host bytes per item, the
 * byte span of an address and length, the word register behind a bit register, and the
 * units an item covers. tests/unit/test_registers.cpp checks it against the texts.
 * All rows address byte units (unit 8): a bit register's address is byte x 8 + bit, a word
 * register's a byte offset, and one word takes two address steps. */
enum RegisterRow { kRowIBit, kRowQBit, kRowMBit, kRowIW, kRowQW, kRowMW, kRowSpare, kRowSpareBits };
enum RegisterKind { kBitRegister, kWordRegister };
enum RegisterAccess { kReadOnly, kReadWrite, kWriteOnly };

/* Bytes of PLC memory: what a request reads or writes. */
struct ByteSpan {
    int first;
    int count;
};

/* Bytes of a 16-bit word, in the host's data, its recipe buffer and PLC memory. */
static const int kWordBytes = 2;

struct RegisterRule {
    RegisterKind kind;
    int widthBits;           /* data width: column 3 */
    int unitBits;            /* bits of the unit an address names: column 5 */
    RegisterAccess access;   /* column 4 */
    RegisterRow wordRow;     /* the word register whose units hold the items: itself for a word row */
    unsigned int indexGroup; /* ADS index group of the area */

    bool isBit() const { return kind == kBitRegister; }
    /* Bytes of one unit: the size of one cached unit. */
    int unitBytes() const { return unitBits / 8; }
    /* Address steps an item of `itemBits` takes: a bit one, a wider item its bits in units. */
    int stepsPerItemOf(int itemBits) const { return isBit() ? 1 : itemBits / unitBits; }
    /* Address steps of one item of the register's own width (a word: 2). */
    int stepsPerItem() const { return stepsPerItemOf(widthBits); }
    /* Bytes of host data per item: one per bit (0 or 1), a word's two bytes low first. */
    int bytesPerItem() const { return isBit() ? 1 : widthBits / 8; }

    /* Bit `bitNumber` of a bit register: the unit that holds it and its place there, with
     * truncating division as the address texts have it (a negative number stays negative). */
    int unitOfBit(int bitNumber) const { return bitNumber / unitBits; }
    int bitInUnit(int bitNumber) const { return bitNumber % unitBits; }

    /* The bytes `steps` address steps from `address` cover: bits, the bytes that hold them
     * (a byte more when the last is partly covered; the count wraps as the host's values
     * do); units, their bytes. A read or write request counts its length so. */
    ByteSpan spanOfSteps(int address, int steps) const
    {
        ByteSpan span;
        if (isBit()) {
            int s = drv::wrapAdd(bitInUnit(address), steps);
            span.first = unitOfBit(address);
            span.count = s / unitBits + (s % unitBits != 0 ? 1 : 0);
        } else {
            span.first = drv::wrapMul(address, unitBytes());
            span.count = drv::wrapMul(steps, unitBytes());
        }
        return span;
    }
    /* The same for `items` items (a host key counts its length so). */
    ByteSpan spanOfItems(int address, int items) const
    {
        return spanOfSteps(address, drv::wrapMul(items, stepsPerItem()));
    }

    /* Walks the units `count` word items from `address` cover, in order: visit(unit, k, byte)
     * for the k-th unit of each item, whose host data is byte item x kWordBytes + k. Every
     * word row holds 16 bits in byte units (stepsPerItem() and bytesPerItem() are kWordBytes:
     * RegisterTable.RulesAgreeWithTheTextTables), so the count per item is a constant the
     * compiler unrolls: a write or read of one word costs no loop. Bit items are one bit
     * each: see unitOfBit. */
    template <typename Visit>
    void forEachWordUnit(int address, int count, Visit visit) const
    {
        for (int item = 0; item < count; ++item) {
            const int unit = drv::wrapAdd(address, drv::wrapMul(kWordBytes, item));
            for (int k = 0; k < kWordBytes; ++k)
                visit(drv::wrapAdd(unit, k), k, item * kWordBytes + k);
        }
    }
};

extern const RegisterRule REGISTER_RULES[8];

/* The row of a name; kRowSpare for a name outside REG_LIST. */
inline RegisterRow registerRow(const QString& regName)
{
    /* The names of REG_LIST read character by character: "I_bit", "Q_bit", "M_bit", "I_W",
     * "Q_W", "M_W". It runs for every request and every reply. */
    const int size = regName.size();
    if (size != 3 && size != 5)
        return kRowSpare;
    const QChar* c = regName.constData();
    int area;
    switch (c[0].unicode()) {
    case 'I': area = 0; break;
    case 'Q': area = 1; break;
    case 'M': area = 2; break;
    default: return kRowSpare;
    }
    if (c[1].unicode() != '_')
        return kRowSpare;
    if (size == 3)
        return c[2].unicode() == 'W' ? static_cast<RegisterRow>(kRowIW + area) : kRowSpare;
    if (c[2].unicode() == 'b' && c[3].unicode() == 'i' && c[4].unicode() == 't')
        return static_cast<RegisterRow>(kRowIBit + area);
    return kRowSpare;
}

inline const RegisterRule& ruleOf(const QString& regName) { return REGISTER_RULES[registerRow(regName)]; }
inline bool isKnownRegister(const QString& regName) { return registerRow(regName) != kRowSpare; }

/* The entry points take only names of REG_LIST: their rows answer. The internal functions
 * the header declares that read a name by its syntax (frame building, merging in mode 1,
 * the address texts) take any name, and a name outside the table is read by its text, as
 * they always did: one that ends in "_bit" counts bits (the spare bit row), held by the word
 * register of the area its text names before the first "_"; any other takes the spare word
 * row (INTERNALS.md K24). */
inline RegisterRow addressingRow(const QString& regName)
{
    RegisterRow row = registerRow(regName);
    if (row == kRowSpare && regName.endsWith(QLatin1String("_bit")))
        return kRowSpareBits;
    return row;
}

inline const RegisterRule& addressingRuleOf(const QString& regName) { return REGISTER_RULES[addressingRow(regName)]; }

/* The word register that holds the items of a name in the row addressingRow gave: the row's
 * wordRow; for the spare bit row the "_W" row of the area the name starts with (I, Q or M
 * before a "_" at the second character), else kRowSpare. */
inline RegisterRow wordRowBehind(const QString& regName, RegisterRow row)
{
    if (row != kRowSpareBits)
        return REGISTER_RULES[row].wordRow;
    if (regName.indexOf(QLatin1Char('_')) != 1)
        return kRowSpare;
    switch (regName.at(0).unicode()) {
    case 'I': return kRowIW;
    case 'Q': return kRowQW;
    case 'M': return kRowMW;
    default: return kRowSpare;
    }
}

/* The name of that word register, which a bit key takes when merging turns it into bytes:
 * the table's own text for a row of REG_LIST, else the area's text followed by "_W". */
inline QString wordNameBehind(const QString& regName, RegisterRow row)
{
    RegisterRow wordRow = wordRowBehind(regName, row);
    if (row != kRowSpareBits && wordRow != kRowSpare)
        return REG_LIST[wordRow];
    return drv::areaOf(regName) + QLatin1String("_W");
}

/* A host key's unitMark -1 says its units are bits, one byte of data each; any other value
 * words of two bytes, whatever its register (intf_setData leaves it 0 for bit writes:
 * INTERNALS.md K11; a word key counting bits: K22). */
inline bool keyCountsBits(const KEY_ADDRESS& key) { return key.unitMark == -1; }
inline int keyDataBytesPerUnit(const KEY_ADDRESS& key) { return keyCountsBits(key) ? 1 : kWordBytes; }

/* The numbers of the request kinds (Protocol::curFrameKind); each kind is one row of the
 * table in request_kinds.cpp (drv::RequestKind below). */
enum FrameKind {
    kFrameNone = 0,
    kFrameHandshake = 1,
    kFrameWrite = 2,
    kFrameConditionRead = 3,
    kFrameCyclicRead = 4,
    kFrameRecipeWrite = 5,
    kFrameRecipeRead = 6,
    kFrameKindCount = 7
};

/* Whole-record copies with one memcpy per buffer. The assignments the compiler writes
 * for these records copy the 1024-byte buffers byte by byte below -O3, and the polling
 * cycle copies a VARIABLE or a FRAME_PRO several times per request. */
inline void copyVariable(VARIABLE& to, const VARIABLE& from)
{
    if (&to == &from)
        return;
    to.kind = from.kind;
    to.keyNo = from.keyNo;
    /* The polling cycle copies the same name from record to record: no reference count
     * to move when both already hold it. */
    if (!to.regName.isSharedWith(from.regName))
        to.regName = from.regName;
    to.address = from.address;
    to.length = from.length;
    memcpy(to.data, from.data, sizeof(to.data));
}

inline void copyFrame(FRAME_PRO& to, const FRAME_PRO& from)
{
    if (&to == &from)
        return;
    memcpy(to.frame, from.frame, sizeof(to.frame));
    to.sendLen = from.sendLen;
    to.recvLen = from.recvLen;
    to.dataStart = from.dataStart;
    to.readLen = from.readLen;
    to.spareField = from.spareField;
    copyVariable(to.var, from.var);
}

/* The first item of a list without the non-const accessors' detach and assertion. */
template <typename T>
inline const T& headOf(const QList<T>& list)
{
    return *list.constBegin();
}

/* ------------------------------------------------------------------ shared helpers
 * Used by more than one of the driver's source files. Everything in namespace drv is
 * internal to the driver. */
namespace drv {

static const int kBufferSize = 1024;
/* Queues hold at most 513 entries; the newest replaces index 512 (INTERNALS.md K20). */
static const int kMaxQueued = 512;
static const int kMaxBlock = 128; /* largest read block in bytes */


inline int clampInt(int v, int lo, int hi) { return v < lo ? lo : (v > hi ? hi : v); }

/* A new cached unit: the three keys, everything else zero (cache.cpp). */
_DATA_ newCachedUnit(int keyNo, const QString& areaName, int address);


inline int toIntOrZero(const QString& text)
{
    bool ok = false;
    int v = text.toInt(&ok, 10);
    return ok ? v : 0;
}

/* ------------------------------------------------------------------ address texts (ads_ethernet.cpp)
 * The one writer of an address as the host reads it: error texts, addr_int2str and
 * intf_multiCopy. */

/* A format of mixed letters ("DDDDD.D") is the bit syntax, byte point bit; a format of one
 * letter repeated a plain number. */
inline bool isBitFormat(const QString& format)
{
    for (int i = 1; i < format.size(); ++i)
        if (format.at(i) != format.at(0))
            return true;
    return false;
}
/* Appends the decimal text of v at buf + n; returns the new length. */
int appendDecimal(char* buf, int n, long long v);
/* The text of `address` in a register's syntax, into buf (room for 32 characters); its
 * length. A bit format (isBitFormat): byte, point, bit with truncating division, and 0 (no
 * text) for a name that counts no bits (addressingRuleOf); otherwise the
 * number, unsigned, in the base of the format's first letter: H hexadecimal, O octal,
 * anything else decimal. */
int formatAddress(char* buf, int address, const QString& regName, const QString& format);

/* ------------------------------------------------------------------ frames in flight (ads_ethernet.cpp)
 * driver.frameList holds the frames of the request in flight, head first. These three are
 * the driver's only ways to change it: they reuse the node of the last finished frame, so a
 * polling cycle allocates nothing (INTERNALS.md, Frames in flight). */

/* A frame with every byte and field zero, appended to frameList. */
FRAME_PRO& appendFrame();
/* The same with a copy of `var` as the frame's variable (not cleared first). */
FRAME_PRO& appendFrame(const VARIABLE& var);
/* frameList.removeFirst(). */
void removeHeadFrame();
/* frameList.clear(). */
void removeAllFrames();

/* ------------------------------------------------------------------ locks (INTERNALS.md, Locks) */

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

inline void lockDriver()
{
    driver.mutex.lock();
    ADS_LOCK_ACQUIRED(&driver.mutex);
}

inline void unlockDriver()
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

/* ------------------------------------------------------------------ the cache (cache.cpp) */
/* All of these run with the driver's mutex held. */

/* The cached unit at `position`, without the list's detach-and-assert accessors. */
inline _DATA_& unitAt(int position) { return driver.dataAreaList.begin()[position]; }
inline const _DATA_& constUnitAt(int position) { return driver.dataAreaList.constBegin()[position]; }

/* The byte the host is shown: its own written value until the write is settled. */
inline unsigned char shownByte(const _DATA_& d, int k) { return d.writeFlag ? d.writeValue[k] : d.value[k]; }

int areaNameId(const QString& name);
/* areaNameId(areaOf(regName)) without building the area's name. */
int areaNameIdOfRegister(const QString& regName);
/* Position of the unit (keyNo, area, address) in dataAreaList; appended, zeroed, when
 * missing. */
int findOrCreateArea(int keyNo, int nameId, int address);
int findOrCreateArea(int keyNo, const QString& areaName, int address);

/* The units of consecutive addresses of one area, in address order: the unit that holds
 * the byte after the previous one is known to the index (CacheIndex::successor), wherever in
 * the list it was created; when it is not cached yet, findOrCreateArea creates it. Used only
 * while the index has no duplicate keys (the link is then the unit findOrCreateArea finds) and
 * is in step with the list (a test may empty the list by hand). */
class ConsecutiveUnits {
public:
    ConsecutiveUnits(int keyNo, int nameId)
        : keyNo_(keyNo), nameId_(nameId),
          linked_(!driver.dataAreaIndex.hasDuplicates()
              && driver.dataAreaIndex.successorCount() <= driver.dataAreaList.size()),
          previous_(-1), previousAddress_(0)
    {
    }
    int next(int address)
    {
        if (linked_ && previous_ >= 0 && address == wrapAdd(previousAddress_, 1)) {
            const int after = driver.dataAreaIndex.successor(previous_);
            if (after >= 0) {
                previousAddress_ = address;
                return previous_ = after;
            }
        }
        previousAddress_ = address;
        return previous_ = findOrCreateArea(keyNo_, nameId_, address);
    }
    /* Passes over the units that hold the bytes after the last one next() returned as long
     * as they are cached and hold the values bytes[0], bytes[1], ... (at most `count`): the
     * units next() would return for those addresses, compared without a look-up each.
     * Returns how many were passed. */
    int skipEqual(const unsigned char* bytes, int count)
    {
        if (!linked_ || previous_ < 0 || previous_ >= driver.dataAreaIndex.successorCount() || count <= 0)
            return 0;
        /* Every link is a position the index knows, so each step stays inside the table. */
        const int* successors = driver.dataAreaIndex.successors();
        QList<_DATA_>::const_iterator units = driver.dataAreaList.constBegin();
        const unsigned char* byte = bytes;
        const unsigned char* const end = bytes + count;
        int at = previous_;
        do {
            const int after = successors[at];
            if (after < 0 || units[after].value[0] != *byte)
                break;
            at = after;
        } while (++byte != end);
        const int n = static_cast<int>(byte - bytes);
        previous_ = at;
        previousAddress_ = wrapAdd(previousAddress_, n);
        return n;
    }

private:
    int keyNo_;
    int nameId_;
    bool linked_;
    int previous_;
    int previousAddress_;
};

/* ------------------------------------------------------------------ change reports (reports.cpp) */

struct Report {
    int keyNo;
    QString text;
    int address;
};

/* The reports of one unit, collected under the driver's mutex and made after it is let go,
 * so that the host's callback may call back into the driver. A report's slot is constructed
 * only when it is added: a store that changes nothing pays nothing for the 40 slots. */
class Reports {
public:
    Reports() : count_(0) { }
    ~Reports() { clear(); }
    void add(int keyNo, const QString& text, int address)
    {
        if (count_ < kCapacity) {
            Report* item = new (slot(count_)) Report;
            item->keyNo = keyNo;
            item->text = text;
            item->address = address;
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
                cb(context, slot(i)->keyNo, slot(i)->text, slot(i)->address);
        clear();
    }

private:
    Reports(const Reports&);
    Reports& operator=(const Reports&);
    void clear()
    {
        for (int i = 0; i < count_; ++i)
            slot(i)->~Report();
        count_ = 0;
    }
    Report* slot(int i) { return reinterpret_cast<Report*>(storage_) + i; }
    enum { kCapacity = 40 }; /* a double word: 32 bits and one whole item */
    alignas(Report) unsigned char storage_[kCapacity * sizeof(Report)];
    int count_;
};

/* Makes the collected reports with the driver's lock let go, then takes it again. */
inline void fireUnlocked(Reports& r, DriverLock& lock)
{
    if (r.isEmpty())
        return;
    lock.release();
    r.fire();
    lock.acquire();
}

const AREA_NAME_TEXTS& textsOf(const _DATA_& d);
/* The reports a change of one unit makes (INTERNALS.md, Change reports); a null old or new
 * value reports every monitored bit. */
void collectByteReports(
    const _DATA_& d, const unsigned char* oldValue, const unsigned char* newValue, int noBits, Reports& r);
void collectWordReports(const _DATA_& d, const int* oldValue, const int* newValue, int noBits, Reports& r);
void collectDwordReports(const _DATA_& d, const int* oldValue, const int* newValue, int noBits, Reports& r);
void collectBitReports(const _DATA_& d, Reports& r);

/* ------------------------------------------------------------------ request kinds (request_kinds.cpp)
 * What each kind of request does, in one row per kind: how it is chosen for the next turn,
 * how its frames are built, how a reply settles it, what giving it up undoes and how its
 * queue moves on when it ends. intf_getSendFrame walks the rows to choose (scheduling.cpp);
 * intf_dealRcvFrame calls the row of the request in flight (replies.cpp) and passes on how
 * the request ended. INTERNALS.md, The request state machine. */

/* Reply bytes; those beyond the end of the reply read as 0. */
class ReplyBytes {
public:
    explicit ReplyBytes(const QByteArray& reply)
        : data_(reinterpret_cast<const unsigned char*>(reply.constData())), size_(reply.size())
    {
    }
    unsigned char at(long long pos) const { return (pos >= 0 && pos < size_) ? data_[pos] : 0; }
    /* The bytes from pos on that lie inside the reply, at most `count`: their start, and
     * their number in `available` (0 when pos is outside). */
    const unsigned char* from(long long pos, int count, int& available) const
    {
        available = 0;
        if (pos < 0 || pos >= size_ || count <= 0)
            return data_;
        long long left = size_ - pos;
        available = left < count ? static_cast<int>(left) : count;
        return data_ + pos;
    }

private:
    const unsigned char* data_;
    long long size_;
};

/* How a request ended: its last frame answered, or given up at the retry limit. */
enum RequestOutcome { kRequestAnswered, kRequestGivenUp };

/* A kind's answer when asked for the next turn. */
enum KindChoice {
    kPassTurn,       /* nothing of this kind now: ask the next row */
    kTakeTurn,       /* curVar holds this kind's next request: it becomes the kind in flight */
    kRepeatLastKind  /* this kind's turn with nothing left to send: build the request of the
                      * kind last in flight again from curVar */
};

/* The recipe request flags of the host's status block, read once per turn. */
struct HostFlags {
    unsigned char recipeWrite;
    unsigned char recipeRead;
    /* The flag at a status byte: HOST_FLAG_RECIPE_WRITE or HOST_FLAG_RECIPE_READ. */
    unsigned char at(int position) const { return position == HOST_FLAG_RECIPE_WRITE ? recipeWrite : recipeRead; }
};

struct RequestKind {
    FrameKind number; /* curFrameKind while it is in flight */
    /* The kind's own state, read by its functions: */
    QList<VARIABLE> Protocol::*queue; /* the queue it serves, or 0 */
    int turnLimit;                    /* writes and condition reads: taken while priorityCount <= this */
    int hostFlag;                     /* recipe kinds: the status byte that asks for it; else 0 */

    /* Runs with the driver's lock held; may copy the request into curVar. */
    KindChoice (*choose)(const RequestKind& self, const HostFlags& flags);
    /* Appends the frames of curVar to frameList. */
    void (*build)();
    /* A reply that brought data for `var` (the frame in flight, or a caller's variable). */
    void (*settleData)(const ReplyBytes& reply, int readLen, int dataStart, const VARIABLE& var);
    /* A reply that acknowledged the frame in flight, whose variable is `var`. */
    void (*settleAck)(const VARIABLE& var);
    /* The retry limit was reached on the frame in flight, whose variable is `var`. */
    void (*giveUp)(const VARIABLE& var);
    /* The request ended: its queue moves on. */
    void (*finish)(const RequestKind& self, RequestOutcome outcome);
};

/* The rows by number: kRequestKinds[n].number is n. */
extern const RequestKind kRequestKinds[kFrameKindCount];
/* The rows in the order they are asked for the next turn; the last, the idle kind, always
 * takes it. */
extern const RequestKind* const kChoosingOrder[kFrameKindCount];

/* The row numbered `number`; the idle kind's for a number no row has. */
inline const RequestKind& requestKindOf(int number)
{
    return kRequestKinds[static_cast<unsigned int>(number) < static_cast<unsigned int>(kFrameKindCount) ? number
                                                                                                        : kFrameNone];
}

/* Queues `v` on a request queue (writeList, conditionReadList; the caller holds the
 * driver's lock): in place of the last waiting entry for the same item, else at the end,
 * or in place of entry 512 when the queue is full. The head is in flight and never
 * replaced (INTERNALS.md K19, K20). */
void queueRequest(QList<VARIABLE>& queue, const VARIABLE& v);

/* Reply handling the kinds call (replies.cpp). */
/* The bytes a read of `var` brought, into the cache, with their change reports: the settling
 * of every read. */
void storeReadBytes(const ReplyBytes& bytes, int readLen, int dataStart, const VARIABLE& var);
/* The read half of a bit write came back: the bits to write, set into the bytes read, go
 * into the write frame queued behind it. */
void completeBitWrite(const ReplyBytes& reply, int readLen, int dataStart, const VARIABLE& var);
/* The recipe variables [from, to) of rcpVarList the current recipe block serves. */
struct RecipeSpan {
    int from;
    int to;
};
RecipeSpan recipeSpanOfCurrentBlock();
/* A recipe block's bytes into the host's recipe buffer, each byte reported as "RWI". */
void copyRecipeBytes(const ReplyBytes& bytes, int dataStart, const RecipeSpan& span);

/* ------------------------------------------------------------------ planning (planning.cpp) */

/* A key with every field zero and empty texts. */
KEY_ADDRESS zeroKey();
/* How many pieces of at most `limit` units a key of `length` units is cut into; a limit
 * below 1 leaves the key whole. */
int pieceCount(int length, int limit);
/* Piece p of `key` cut into pieces of at most maxLen units: its address advanced by p * maxLen
 * in the key's own units, its length, and with copyData 1 its share of the data (one byte per
 * unit when unitMark is -1, else two). The key itself when it is not cut. groupingKey
 * collects them into a list; intf_setData takes them one by one, without the list. */
KEY_ADDRESS keyPiece(const KEY_ADDRESS& key, int maxLen, int p, int copyData);
/* Copies `count` bytes from src+srcOffset to the start of dst, where src holds srcSize bytes
 * and dst 1024: the copy stops at dst's end, and bytes past src's end arrive as zeros. */
void boundedCopy(unsigned char* dst, const unsigned char* src, long long srcSize, long long srcOffset, long long count);

}  // namespace drv

#endif /* ADS_DRIVER_PRIVATE_H */
