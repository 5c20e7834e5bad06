// The host header's records against the driver's: the same size, alignment and, field by
// field, the same offset, size and type. The host header is read into a namespace of its
// own so that both sets of records live in one file; the static_asserts stop the build when
// the two drift apart, and hostRecordLayouts() lists every comparison for the test to print.
#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <cstddef>
#include <type_traits>

namespace host {
#include "ads_ethernet_host.h"
}
#include "ads_ethernet.h"

#include "layout_check.h"

#if defined(__GNUC__)
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
#endif

#define SAME_RECORD(T)                                                                                                 \
    static_assert(sizeof(host::T) == sizeof(::T), #T ": size differs");                                                \
    static_assert(alignof(host::T) == alignof(::T), #T ": alignment differs")
#define SAME_FIELD_PLACE(T, m)                                                                                         \
    static_assert(offsetof(host::T, m) == offsetof(::T, m), #T "." #m ": offset differs");                             \
    static_assert(sizeof(host::T::m) == sizeof(::T::m), #T "." #m ": size differs")
#define SAME_FIELD(T, m)                                                                                               \
    SAME_FIELD_PLACE(T, m);                                                                                            \
    static_assert(std::is_same<decltype(host::T::m), decltype(::T::m)>::value, #T "." #m ": type differs")
#define ROW(T, m)                                                                                                      \
    RecordLayout { #T "." #m, offsetof(host::T, m), offsetof(::T, m), sizeof(host::T::m), sizeof(::T::m) }
#define WHOLE(T)                                                                                                       \
    RecordLayout { #T, 0, 0, sizeof(host::T), sizeof(::T) }

SAME_RECORD(VARIABLE);
SAME_FIELD(VARIABLE, kind);
SAME_FIELD(VARIABLE, keyNo);
SAME_FIELD(VARIABLE, regName);
SAME_FIELD(VARIABLE, address);
SAME_FIELD(VARIABLE, length);
SAME_FIELD(VARIABLE, data);

SAME_RECORD(KEY_ADDRESS);
SAME_FIELD(KEY_ADDRESS, hostText);
SAME_FIELD(KEY_ADDRESS, hostNumber);
SAME_FIELD(KEY_ADDRESS, rcpDataIndex);
SAME_FIELD(KEY_ADDRESS, keyNo);
SAME_FIELD(KEY_ADDRESS, regName);
SAME_FIELD(KEY_ADDRESS, hostText2);
SAME_FIELD(KEY_ADDRESS, address);
SAME_FIELD(KEY_ADDRESS, unitMark);
SAME_FIELD(KEY_ADDRESS, length);
SAME_FIELD(KEY_ADDRESS, data);

SAME_RECORD(_RCP_VAR_PRO);
SAME_FIELD(_RCP_VAR_PRO, driverNo);
SAME_FIELD(_RCP_VAR_PRO, keyNo);
SAME_FIELD(_RCP_VAR_PRO, regName);
SAME_FIELD(_RCP_VAR_PRO, address);
SAME_FIELD(_RCP_VAR_PRO, length);
SAME_FIELD(_RCP_VAR_PRO, rcpDataIndex);
SAME_FIELD(_RCP_VAR_PRO, hostField);

SAME_RECORD(FRAME_PRO);
SAME_FIELD(FRAME_PRO, frame);
SAME_FIELD(FRAME_PRO, sendLen);
SAME_FIELD(FRAME_PRO, recvLen);
SAME_FIELD(FRAME_PRO, dataStart);
SAME_FIELD(FRAME_PRO, readLen);
SAME_FIELD(FRAME_PRO, spareField);
SAME_FIELD_PLACE(FRAME_PRO, var); /* a VARIABLE of each side, compared above */

static_assert(int(host::HOST_FLAG_RECIPE_WRITE) == int(::HOST_FLAG_RECIPE_WRITE), "recipe write flag moved");
static_assert(int(host::HOST_FLAG_RECIPE_READ) == int(::HOST_FLAG_RECIPE_READ), "recipe read flag moved");

std::vector<RecordLayout> hostRecordLayouts()
{
    return {WHOLE(VARIABLE), ROW(VARIABLE, kind), ROW(VARIABLE, keyNo), ROW(VARIABLE, regName), ROW(VARIABLE, address),
        ROW(VARIABLE, length), ROW(VARIABLE, data), WHOLE(KEY_ADDRESS), ROW(KEY_ADDRESS, hostText),
        ROW(KEY_ADDRESS, hostNumber), ROW(KEY_ADDRESS, rcpDataIndex), ROW(KEY_ADDRESS, keyNo),
        ROW(KEY_ADDRESS, regName), ROW(KEY_ADDRESS, hostText2), ROW(KEY_ADDRESS, address), ROW(KEY_ADDRESS, unitMark),
        ROW(KEY_ADDRESS, length), ROW(KEY_ADDRESS, data), WHOLE(_RCP_VAR_PRO), ROW(_RCP_VAR_PRO, driverNo),
        ROW(_RCP_VAR_PRO, keyNo), ROW(_RCP_VAR_PRO, regName), ROW(_RCP_VAR_PRO, address), ROW(_RCP_VAR_PRO, length),
        ROW(_RCP_VAR_PRO, rcpDataIndex), ROW(_RCP_VAR_PRO, hostField), WHOLE(FRAME_PRO), ROW(FRAME_PRO, frame),
        ROW(FRAME_PRO, sendLen), ROW(FRAME_PRO, recvLen), ROW(FRAME_PRO, dataStart), ROW(FRAME_PRO, readLen),
        ROW(FRAME_PRO, spareField), ROW(FRAME_PRO, var)};
}
