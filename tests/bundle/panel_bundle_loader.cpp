// Loads a driver plugin as a panel runtime does (dlopen, entry point by name) and calls
// intf_getVersion. Used on the plugin inside the panel bundle, under qemu-arm for armhf.
//
//   panel_bundle_loader PLUGIN EXPECTED_VERSION
//
// Exit 0 when the plugin loads and reports EXPECTED_VERSION; 1 otherwise, with the reason.
#include <QString>
#include <QtGlobal>

#include <dlfcn.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: panel_bundle_loader PLUGIN EXPECTED_VERSION\n");
        return 2;
    }
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        std::fprintf(stderr, "panel_bundle_loader: dlopen failed: %s\n", dlerror());
        return 1;
    }
    typedef QString (*GetVersion)();
    GetVersion getVersion = reinterpret_cast<GetVersion>(dlsym(lib, "intf_getVersion"));
    if (!getVersion) {
        std::fprintf(stderr, "panel_bundle_loader: the plugin has no intf_getVersion\n");
        return 1;
    }
    const QByteArray version = getVersion().toLatin1();
    std::printf("panel_bundle_loader: %s loaded with Qt %s (built against %s), sizeof(void*) %u: "
                "intf_getVersion() = \"%s\"\n",
        argv[1], qVersion(), QT_VERSION_STR, static_cast<unsigned>(sizeof(void*)), version.constData());
    if (std::strcmp(version.constData(), argv[2]) != 0) {
        std::fprintf(stderr, "panel_bundle_loader: expected version \"%s\"\n", argv[2]);
        return 1;
    }
    return 0;
}
