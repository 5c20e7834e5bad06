// The driver plugin as the tools and tests load it: dlopen(RTLD_NOW | RTLD_LOCAL), as a
// runtime that loads several drivers does, and the nineteen entry points resolved by name
// (ads_ethernet_loader.h). Each caller words its own message from what went wrong.
// Header-only; needs the driver's host headers (src/) and Qt on the include path, and libdl.
#ifndef ADSTOOL_DRIVER_PLUGIN_H
#define ADSTOOL_DRIVER_PLUGIN_H

#include "ads_ethernet_loader.h"

#include <string>
#include <vector>

namespace adstool {

struct DriverPlugin : ADS_ENTRY_POINTS {
    DriverPlugin() : ADS_ENTRY_POINTS() { }

    // Opens the library and resolves every entry point. On failure, either loadError holds
    // what dlopen said, or missing names the entry points the library lacks.
    bool load(const std::string& file)
    {
        path = file;
        loadError.clear();
        missing.clear();
        handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            const char* e = dlerror();
            loadError = e ? e : "dlopen failed";
            return false;
        }
        const char* names[ADS_ENTRY_POINT_COUNT];
        const int n = ads_resolveEntryPoints(handle, this, names);
        missing.assign(names, names + n);
        return n == 0;
    }

    // The library stays loaded: its driver object lives as long as the process, so a later
    // load of the same file finds the same driver.
    void* handle = nullptr;
    std::string path;
    std::string loadError;
    std::vector<std::string> missing;
};

}  // namespace adstool

#endif
