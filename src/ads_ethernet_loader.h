/*
 * ads_ethernet_loader.h: loads the ads_ethernet plugin and resolves its nineteen entry
 * points by name into function pointers of the types of ads_ethernet_host.h.
 *
 *   ADS_ENTRY_POINTS ep;
 *   QString why;
 *   void* lib = ads_loadDriver("/usr/lib/libads_ethernet.so", &ep, &why);
 *   if (!lib) { report why; }
 *   ep.initProperty(...);
 *
 * The plugin is opened with RTLD_NOW | RTLD_LOCAL, as a runtime that loads several drivers
 * does. Keep it loaded while any entry point may be called: the driver's state lives in it.
 * C++98, POSIX dlopen.
 */
#ifndef ADS_ETHERNET_LOADER_H
#define ADS_ETHERNET_LOADER_H

#include "ads_ethernet_host.h"

#include <dlfcn.h>
#include <string.h>

/* Every entry point, in the order of the interface. */
struct ADS_ENTRY_POINTS {
    intf_getProtocolType_fn getProtocolType;
    intf_getVersion_fn getVersion;
    intf_setAddrValueChangeCallBack_fn setAddrValueChangeCallBack;
    intf_initProperty_fn initProperty;
    intf_getDriverParameter_fn getDriverParameter;
    intf_getDriverPropertyPage_fn getDriverPropertyPage;
    intf_SetDriverPropertyPage_fn SetDriverPropertyPage;
    intf_getRegListByType_fn getRegListByType;
    intf_getRegDiscription_fn getRegDiscription;
    intf_checkAddr_fn checkAddr;
    intf_checkAddrValidity_fn checkAddrValidity;
    intf_getSendFrame_fn getSendFrame;
    intf_dealRcvFrame_fn dealRcvFrame;
    intf_getData_fn getData;
    intf_setData_fn setData;
    intf_addrMerge_fn addrMerge;
    intf_addConditionRead_fn addConditionRead;
    intf_setRcpAddress_fn setRcpAddress;
    intf_multiCopy_fn multiCopy;
};

enum { ADS_ENTRY_POINT_COUNT = 19 };

/* One symbol into one pointer; a missing one leaves it 0 and is counted and named. */
template <typename F>
inline void ads_resolveEntryPoint(void* handle, const char* name, F& fn, int& missingCount, const char** missing)
{
    void* symbol = dlsym(handle, name);
    /* POSIX guarantees that a function's address survives the trip through void*. */
    memcpy(&fn, &symbol, sizeof fn);
    if (!symbol) {
        if (missing)
            missing[missingCount] = name;
        ++missingCount;
    }
}

/* Resolves every entry point from a dlopen() handle into *ep. Returns how many the library
 * lacks; their names go to missing[0 ..) when missing is given (room for
 * ADS_ENTRY_POINT_COUNT names). */
inline int ads_resolveEntryPoints(void* handle, ADS_ENTRY_POINTS* ep, const char** missing)
{
    int n = 0;
    ads_resolveEntryPoint(handle, "intf_getProtocolType", ep->getProtocolType, n, missing);
    ads_resolveEntryPoint(handle, "intf_getVersion", ep->getVersion, n, missing);
    ads_resolveEntryPoint(handle, "intf_setAddrValueChangeCallBack", ep->setAddrValueChangeCallBack, n, missing);
    ads_resolveEntryPoint(handle, "intf_initProperty", ep->initProperty, n, missing);
    ads_resolveEntryPoint(handle, "intf_getDriverParameter", ep->getDriverParameter, n, missing);
    ads_resolveEntryPoint(handle, "intf_getDriverPropertyPage", ep->getDriverPropertyPage, n, missing);
    ads_resolveEntryPoint(handle, "intf_SetDriverPropertyPage", ep->SetDriverPropertyPage, n, missing);
    ads_resolveEntryPoint(handle, "intf_getRegListByType", ep->getRegListByType, n, missing);
    ads_resolveEntryPoint(handle, "intf_getRegDiscription", ep->getRegDiscription, n, missing);
    ads_resolveEntryPoint(handle, "intf_checkAddr", ep->checkAddr, n, missing);
    ads_resolveEntryPoint(handle, "intf_checkAddrValidity", ep->checkAddrValidity, n, missing);
    ads_resolveEntryPoint(handle, "intf_getSendFrame", ep->getSendFrame, n, missing);
    ads_resolveEntryPoint(handle, "intf_dealRcvFrame", ep->dealRcvFrame, n, missing);
    ads_resolveEntryPoint(handle, "intf_getData", ep->getData, n, missing);
    ads_resolveEntryPoint(handle, "intf_setData", ep->setData, n, missing);
    ads_resolveEntryPoint(handle, "intf_addrMerge", ep->addrMerge, n, missing);
    ads_resolveEntryPoint(handle, "intf_addConditionRead", ep->addConditionRead, n, missing);
    ads_resolveEntryPoint(handle, "intf_setRcpAddress", ep->setRcpAddress, n, missing);
    ads_resolveEntryPoint(handle, "intf_multiCopy", ep->multiCopy, n, missing);
    return n;
}

/* Opens the plugin at `path` and resolves every entry point. Returns the handle, or 0 with
 * the reason in *why (the loader's message, or the entry points the library lacks; it is
 * then closed again). */
inline void* ads_loadDriver(const char* path, ADS_ENTRY_POINTS* ep, QString* why)
{
    void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* e = dlerror();
        if (why)
            *why = QString::fromLocal8Bit(e ? e : "dlopen failed");
        return 0;
    }
    const char* missing[ADS_ENTRY_POINT_COUNT];
    const int n = ads_resolveEntryPoints(handle, ep, missing);
    if (n > 0) {
        if (why) {
            *why = QString::fromLocal8Bit(path) + QLatin1String(" lacks");
            for (int i = 0; i < n; ++i)
                *why += QLatin1Char(' ') + QString::fromLatin1(missing[i]);
        }
        dlclose(handle);
        return 0;
    }
    return handle;
}

#endif /* ADS_ETHERNET_LOADER_H */
