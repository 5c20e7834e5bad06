/*
 * Helpers shared by the driver's source files; not part of the installed header.
 */
#ifndef ADS_DRIVER_PRIVATE_H
#define ADS_DRIVER_PRIVATE_H

#include "ads_ethernet.h"

#include <string.h>

/* ------------------------------------------------------------------ register rules
 * The register table as the code uses it, one row per row of ADDRESS_RANGE_PRO: the rows of
 * REG_LIST in their order, then the spare word row that an unknown name looks up. The text
 * tables stay the host's view (formats, limits, descriptions); every rule the driver applies
 * (bit or word, width, address unit, area, index group) comes from this table, and each
 * operation switches on `kind`. tests/unit/test_registers.cpp checks it against the texts.
 * All rows address bytes (unit 8): a bit register's address is byte x 8 + bit, a word
 * register's address is a byte offset and one word takes two address steps. */
enum RegisterRow { kRowIBit, kRowQBit, kRowMBit, kRowIW, kRowQW, kRowMW, kRowSpare };
enum RegisterKind { kBitRegister, kWordRegister };
enum RegisterAccess { kReadOnly, kReadWrite, kWriteOnly };

struct RegisterRule {
    RegisterKind kind;
    int widthBits;           /* data width: column 3 */
    int unitBits;            /* bits per address step: column 5 */
    RegisterAccess access;   /* column 4 */
    char area;               /* the area its units are cached under */
    unsigned int indexGroup; /* ADS index group of the area */
};

extern const RegisterRule REGISTER_RULES[7];

/* The row of a name; kRowSpare for a name outside REG_LIST. */
inline RegisterRow registerRow(const QString& regName)
{
    for (int i = 0; i < 6; ++i)
        if (REG_LIST[i] == regName)
            return static_cast<RegisterRow>(i);
    return kRowSpare;
}

inline const RegisterRule& ruleOf(const QString& regName) { return REGISTER_RULES[registerRow(regName)]; }
inline bool isKnownRegister(const QString& regName) { return registerRow(regName) != kRowSpare; }

/* The kinds of request in flight (Protocol::curFrameKind). intf_getSendFrame sets the kind
 * when it builds a request; dealListWhenFinish moves the kind's queue on when the request
 * is answered or given up; intf_initProperty resets it to kFrameNone. */
enum FrameKind {
    kFrameNone = 0,
    kFrameHandshake = 1,
    kFrameWrite = 2,
    kFrameConditionRead = 3,
    kFrameCyclicRead = 4,
    kFrameRecipeWrite = 5,
    kFrameRecipeRead = 6
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

#endif /* ADS_DRIVER_PRIVATE_H */
