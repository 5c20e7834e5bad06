/*
 * Helpers shared by the driver's source files; not part of the installed header.
 */
#ifndef ADS_DRIVER_PRIVATE_H
#define ADS_DRIVER_PRIVATE_H

#include "ads_ethernet.h"

#include <string.h>

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
