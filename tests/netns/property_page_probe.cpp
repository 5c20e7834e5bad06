// Applies the property-page settings given on the command line to the driver and prints
// what it chose: the panel's own address, the target AMS Net ID and the target AMS port.
//
//   property_page_probe SETTINGS [PRESET_SOURCE_IP]
//
// PRESET_SOURCE_IP (a.b.c.d) is stored in the driver first, so that "left unchanged" can
// be told apart from "set to zero". The machine's addresses, in the order the driver walks
// them, go to stderr for the log.

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QNetworkInterface>

#include <cstdio>

#include "ads_ethernet.h"

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: %s SETTINGS [PRESET_SOURCE_IP]\n", argv[0]);
        return 2;
    }
    if (argc == 3) {
        const QStringList ip = QString::fromLatin1(argv[2]).split(QLatin1Char('.'));
        if (ip.size() != 4) {
            std::fprintf(stderr, "preset source IP must have four parts\n");
            return 2;
        }
        for (int i = 0; i < 4; ++i)
            driver.sourceIp[i] = static_cast<unsigned char>(ip.at(i).toInt());
    }

    const QList<QHostAddress> all = QNetworkInterface::allAddresses();
    for (const QHostAddress& a : all)
        std::fprintf(stderr, "address: %s\n", a.toString().toLatin1().constData());

    intf_SetDriverPropertyPage(QString::fromLatin1(argv[1]));

    std::printf("sourceIp=%d.%d.%d.%d targetAmsNetId=%d.%d.%d.%d.%d.%d targetAmsPort=%d\n", driver.sourceIp[0],
        driver.sourceIp[1], driver.sourceIp[2], driver.sourceIp[3], driver.targetAmsNetId[0], driver.targetAmsNetId[1],
        driver.targetAmsNetId[2], driver.targetAmsNetId[3], driver.targetAmsNetId[4], driver.targetAmsNetId[5],
        driver.targetAmsPort);
    return 0;
}
