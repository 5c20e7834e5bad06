// The smallest host built against the installed package: links the plugin directly and
// asks it who it is.
#include <ads_ethernet.h>

#include <cstdio>
#include <cstring>

int main()
{
    int type = 0;
    intf_getProtocolType(&type);
    QString version = intf_getVersion();
    QString description;
    intf_getDriverParameter(description);
    std::printf("type %d, version %s\n%s\n", type, version.toLatin1().constData(), description.toLatin1().constData());
    return (type == 1 && version == QLatin1String("2.0.0.0")) ? 0 : 1;
}
