// The host header against the driver: its entry-point types are the types of the driver's
// declarations, its records lie as the driver's do (layout_check.cpp), the loader resolves
// all nineteen entry points of the plugin and names what an incomplete library lacks.
#include <gtest/gtest.h>

#include "ads_ethernet.h"
#include "ads_ethernet_host.h"
#include "ads_ethernet_loader.h"
#include "layout_check.h"

#include <dlfcn.h>

#include <string>
#include <type_traits>

#ifndef ADS_PLUGIN_PATH
#error "ADS_PLUGIN_PATH must name the built plugin"
#endif
#ifndef ADS_INCOMPLETE_PLUGIN_PATH
#error "ADS_INCOMPLETE_PLUGIN_PATH must name a library with two of the entry points"
#endif

#define SAME_TYPE(name)                                                                                                \
    static_assert(std::is_same<name##_fn, decltype(&::name)>::value, #name "_fn is not the type of " #name)
SAME_TYPE(intf_getProtocolType);
SAME_TYPE(intf_getVersion);
SAME_TYPE(intf_setAddrValueChangeCallBack);
SAME_TYPE(intf_initProperty);
SAME_TYPE(intf_getDriverParameter);
SAME_TYPE(intf_getDriverPropertyPage);
SAME_TYPE(intf_SetDriverPropertyPage);
SAME_TYPE(intf_getRegListByType);
SAME_TYPE(intf_getRegDiscription);
SAME_TYPE(intf_checkAddr);
SAME_TYPE(intf_checkAddrValidity);
SAME_TYPE(intf_getSendFrame);
SAME_TYPE(intf_dealRcvFrame);
SAME_TYPE(intf_getData);
SAME_TYPE(intf_setData);
SAME_TYPE(intf_addrMerge);
SAME_TYPE(intf_addConditionRead);
SAME_TYPE(intf_setRcpAddress);
SAME_TYPE(intf_multiCopy);
static_assert(sizeof(ADS_ENTRY_POINTS) == ADS_ENTRY_POINT_COUNT * sizeof(void (*)()),
    "ADS_ENTRY_POINTS holds one pointer per entry point");

TEST(HostHeader, RecordsLieAsTheDriversDo)
{
    const std::vector<RecordLayout> rows = hostRecordLayouts();
    EXPECT_EQ(34u, rows.size());
    for (const RecordLayout& r : rows) {
        EXPECT_EQ(r.driverOffset, r.hostOffset) << r.field;
        EXPECT_EQ(r.driverSize, r.hostSize) << r.field;
    }
}

TEST(HostHeader, LoaderResolvesEveryEntryPointOfThePlugin)
{
    ADS_ENTRY_POINTS ep;
    QString why;
    void* lib = ads_loadDriver(ADS_PLUGIN_PATH, &ep, &why);
    ASSERT_NE(nullptr, lib) << why.toStdString();
    void* const* pointers = reinterpret_cast<void* const*>(&ep);
    for (int i = 0; i < ADS_ENTRY_POINT_COUNT; ++i)
        EXPECT_NE(nullptr, pointers[i]) << "entry point " << i;
    // Each pointer is the symbol of its own name.
    EXPECT_EQ(dlsym(lib, "intf_getSendFrame"), reinterpret_cast<void*>(ep.getSendFrame));
    EXPECT_EQ(dlsym(lib, "intf_multiCopy"), reinterpret_cast<void*>(ep.multiCopy));
    EXPECT_EQ(dlsym(lib, "intf_SetDriverPropertyPage"), reinterpret_cast<void*>(ep.SetDriverPropertyPage));
    int type = 0;
    ep.getProtocolType(&type);
    EXPECT_EQ(1, type);
    EXPECT_EQ("2.0.0.0", ep.getVersion().toStdString());
}

TEST(HostHeader, LoaderNamesWhatALibraryLacks)
{
    ADS_ENTRY_POINTS ep;
    QString why;
    EXPECT_EQ(nullptr, ads_loadDriver(ADS_INCOMPLETE_PLUGIN_PATH, &ep, &why));
    const std::string text = why.toStdString();
    EXPECT_NE(std::string::npos, text.find(" lacks intf_setAddrValueChangeCallBack intf_initProperty")) << text;
    EXPECT_NE(std::string::npos, text.find("intf_multiCopy")) << text;
    EXPECT_EQ(std::string::npos, text.find("intf_getVersion")) << text;

    void* lib = dlopen(ADS_INCOMPLETE_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, lib);
    const char* missing[ADS_ENTRY_POINT_COUNT];
    EXPECT_EQ(17, ads_resolveEntryPoints(lib, &ep, missing));
    EXPECT_STREQ("intf_setAddrValueChangeCallBack", missing[0]);
    EXPECT_STREQ("intf_multiCopy", missing[16]);
    EXPECT_EQ(nullptr, reinterpret_cast<void*>(ep.initProperty));
    EXPECT_NE(nullptr, reinterpret_cast<void*>(ep.getVersion));
    dlclose(lib);
}

TEST(HostHeader, LoaderReportsAFileThatIsNoLibrary)
{
    ADS_ENTRY_POINTS ep;
    QString why;
    EXPECT_EQ(nullptr, ads_loadDriver("/nonexistent/libads_ethernet.so", &ep, &why));
    EXPECT_NE(std::string::npos, why.toStdString().find("/nonexistent/libads_ethernet.so")) << why.toStdString();
}
