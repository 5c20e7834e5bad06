// The driver fixture of the unit tests (header-only).
//
// Every test that needs a driver derives its fixture from DriverTest: it owns a Host
// (test_plc.h) per test, that is the panel runtime's memory (status block, recipe buffer,
// mutex, callback) and the in-process test PLC, and starts the driver with the options a
// fixture asks for (InitOptions, init_options.h). Beside it: the records built field by field
// as the host builds them (KEY_ADDRESS, VARIABLE, _RCP_VAR_PRO), the names of the registers
// and areas, and the look-up of a cached unit for reading it back.
#ifndef ADS_DRIVER_FIXTURE_H
#define ADS_DRIVER_FIXTURE_H

#include <gtest/gtest.h>

#include <QtCore/QMutex>
#include <QtCore/QString>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "ads_ethernet.h"
#include "driver_private.h"
#include "init_options.h"
#include "test_plc.h"

namespace adstest {

inline QString L(const char* s) { return QString::fromLatin1(s); }

// Register and area names.
inline const QString M = QString::fromLatin1("M");
inline const QString M_W = QString::fromLatin1("M_W");
inline const QString M_B = QString::fromLatin1("M_B");
inline const QString M_D = QString::fromLatin1("M_D");
inline const QString M_bit = QString::fromLatin1("M_bit");
inline const QString I_W = QString::fromLatin1("I_W");
inline const QString I_bit = QString::fromLatin1("I_bit");
inline const QString Q_W = QString::fromLatin1("Q_W");
inline const QString RWI = QString::fromLatin1("RWI");
inline const QString MINUS_ONE = QString::fromLatin1("-1");

// intf_initProperty keeps the recipe lists and cursor (docs/INTERNALS.md K17); a new panel starts
// without them.
inline void clearRecipeState()
{
    driver.rcpVarList.clear();
    driver.rcpTransferList.clear();
    driver.rcpBlockStartList.clear();
    driver.rcpIndex = 0;
}

// ------------------------------------------------------------------ records

// A monitored address as the host hands it to intf_addrMerge: texts empty, no recipe index,
// data zero.
inline KEY_ADDRESS makeKey(int keyNo, const QString& reg, int address, int length, int hostNumber = 0, int unitMark = 0)
{
    KEY_ADDRESS k;
    k.hostText = QString();
    k.hostNumber = hostNumber;
    k.rcpDataIndex = 0;
    k.keyNo = keyNo;
    k.regName = reg;
    k.hostText2 = QString();
    k.address = address;
    k.unitMark = unitMark;
    k.length = length;
    std::memset(k.data, 0, sizeof k.data);
    return k;
}

inline KEY_ADDRESS makeKey(int keyNo, const char* reg, int address, int length, int hostNumber = 0, int unitMark = 0)
{
    return makeKey(keyNo, L(reg), address, length, hostNumber, unitMark);
}

// A queued read or write item; the data bytes given first, the rest zero.
inline VARIABLE makeVariable(
    int kind, int keyNo, const QString& reg, int address, int length, std::initializer_list<int> data = {})
{
    VARIABLE v;
    v.kind = kind;
    v.keyNo = keyNo;
    v.regName = reg;
    v.address = address;
    v.length = length;
    std::memset(v.data, 0, sizeof v.data);
    int i = 0;
    for (int x : data)
        v.data[i++] = static_cast<unsigned char>(x);
    return v;
}

inline VARIABLE makeVariable(
    int kind, int keyNo, const char* reg, int address, int length, std::initializer_list<int> data = {})
{
    return makeVariable(kind, keyNo, L(reg), address, length, data);
}

// A recipe variable as the host hands it to intf_setRcpAddress.
inline _RCP_VAR_PRO makeRcpVar(
    int driverNo, int keyNo, const QString& reg, int address, int length, int rcpDataIndex, int hostField = 0)
{
    _RCP_VAR_PRO v;
    v.driverNo = driverNo;
    v.keyNo = keyNo;
    v.regName = reg;
    v.address = address;
    v.length = length;
    v.rcpDataIndex = rcpDataIndex;
    v.hostField = hostField;
    return v;
}

inline _RCP_VAR_PRO makeRcpVar(
    int driverNo, int keyNo, const char* reg, int address, int length, int rcpDataIndex, int hostField = 0)
{
    return makeRcpVar(driverNo, keyNo, L(reg), address, length, rcpDataIndex, hostField);
}

// ------------------------------------------------------------------ cached units
//
// The test API of the cache. A test reaches cached units through the driver's own
// find-or-create look-up (unitIndex, DriverTest::ref/at) and may change their values and
// marks in place; a test that must put entries into the list by hand (its contents as the
// header exposes them) does so through appendUnits(), which tells the cache index.

// The index of the cached unit of `area` at byte `address` (created when missing).
inline int unitIndex(const QString& area, int address, int keyNo = 1)
{
    return getIndexOfDataArea(keyNo, area, address, driver.dataAreaList);
}

// The cached unit at `index`, for a test that sets its values or marks in place (never its
// keys: the cache index relies on them).
inline _DATA_& unitRef(int index) { return driver.dataAreaList[index]; }

// A unit as the driver creates it: the three keys, everything else zero.
inline _DATA_ makeUnit(int keyNo, const QString& area, int address) { return drv::newCachedUnit(keyNo, area, address); }

inline _DATA_ makeUnit(int keyNo, const char* area, int address) { return makeUnit(keyNo, L(area), address); }

// Appends units to the driver's cache by hand (duplicates of cached keys included) and
// indexes the cache anew, as only a test needs to.
inline void appendUnits(std::initializer_list<_DATA_> units)
{
    for (const _DATA_& d : units)
        driver.dataAreaList.append(d);
    rebuildDataAreaIndex();
}

// The sort weight of a register address, as the merge orders keys: keyNo x 6 x 65535 +
// row x 65535 + address in wrapping 32-bit arithmetic, row -1 for an unknown name.
inline int oracleWeight(int keyNo, const QString& reg, int address)
{
    static const char* const names[6] = {"I_bit", "Q_bit", "M_bit", "I_W", "Q_W", "M_W"};
    int row = -1;
    for (int i = 0; i < 6; ++i)
        if (reg == QLatin1String(names[i]))
            row = i;
    uint32_t w = static_cast<uint32_t>(keyNo) * 6u * 65535u + static_cast<uint32_t>(row) * 65535u
        + static_cast<uint32_t>(address);
    return static_cast<int32_t>(w);
}

// ------------------------------------------------------------------ the fixture

// A fresh Host, and so a freshly initialised driver, for every test.
class DriverTest : public ::testing::Test {
protected:
    // The options the driver starts with; a fixture that needs others overrides this.
    virtual InitOptions startOptions() const { return InitOptions(); }

    void SetUp() override { h.reset(new Host(startOptions())); }
    void TearDown() override { h.reset(); }

    // The cached unit of `area` at `address`: its index, the unit itself, a copy.
    int idx(const QString& area, int address, int keyNo = 1) { return unitIndex(area, address, keyNo); }
    _DATA_& ref(const QString& area, int address, int keyNo = 1) { return unitRef(idx(area, address, keyNo)); }
    _DATA_ at(const QString& area, int address, int keyNo = 1)
    {
        return driver.dataAreaList.at(idx(area, address, keyNo));
    }

    // Leaves the screen's cyclic reads out of the polling turns, so that only the requests
    // the test queues go out (the cache keeps the screen's monitor marks).
    void stopCyclicReads() { driver.readList.clear(); }

    std::unique_ptr<Host> h;
};

}  // namespace adstest

#endif  // ADS_DRIVER_FIXTURE_H
