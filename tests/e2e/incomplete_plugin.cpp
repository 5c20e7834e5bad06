// A plugin that has only two of the nineteen entry points: the host must refuse it and name
// what is missing.
#include <QtCore/QString>

extern "C" __attribute__((visibility("default"))) void intf_getProtocolType(int* type) { *type = 1; }
extern "C" __attribute__((visibility("default"))) QString intf_getVersion() { return QString::fromLatin1("0.0.0.0"); }
