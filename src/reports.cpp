/*
 * Change reports: which host items a changed cached unit reports, collected under the
 * driver's mutex and made through the host's callback after it is let go.
 */
#include "ads_ethernet.h"
#include "driver_private.h"

using namespace drv;

namespace drv {

const AREA_NAME_TEXTS& textsOf(const _DATA_& d) { return driver.dataAreaIndex.texts(areaNameId(d.areaName)); }

/* Bits in ascending order, then the byte, then words, then double words from the nearest
 * start downward. Whole items are reported without comparing values: a word whose two
 * bytes change is reported twice, once from each byte (INTERNALS.md K8). */
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

}  // namespace drv

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
