// adshost --probe builds its own frames and finds the panel's own address with its own code
// (the plugin exports only the intf_ entry points). One table of cases, run against the
// driver's code (the static driver library) and the probe's, shows that the two agree.
#include "ads_ethernet.h"
#include "probe.h"

#include <gtest/gtest.h>

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtNetwork/QHostAddress>

#include <cstring>
#include <string>
#include <vector>

namespace {

struct OwnAddressCase {
    const char* netId;
    std::vector<std::string> addresses;  // in interface order
};

// The documented examples and the corners of the rule.
const std::vector<OwnAddressCase> kOwnAddressCases = {
    {"192.168.1.100.1.1", {"127.0.0.1", "192.168.1.20"}},
    {"192.168.1.100.1.1", {"10.0.0.5", "192.168.1.20"}},
    {"192.168.1.100.1.1", {"10.0.0.5"}},
    {"192.168.1.100.1.1", {}},
    {"192.168.1.100.1.1", {"127.0.0.1"}},
    {"192.168.1.100.1.1", {"192.168.2.7", "192.168.1.20"}},
    {"192.168.1.100.1.1", {"10.192.168.3", "192.168.1.20"}},
    {"192.168.1.100.1.1", {"10.168.5.192", "192.168.1.20"}},
    {"5.1.2.3.1.1", {"10.0.5.1", "192.168.1.20"}},
    {"5.1.2.3.1.1", {"192.168.1.20", "10.0.5.1"}},
    {"127.0.0.1.1.1", {"127.0.0.1", "127.0.0.2"}},
    {"10.1.0.1.1.1", {"172.16.0.9", "10.1.2.3", "10.1.9.9"}},
    {"172.16.0.1.1.1", {"172.16.0.9"}},
    {"0.0.1.2.1.1", {"0.0.0.0", "10.0.0.5"}},
    {"77", {"127.0.0.1", "10.0.0.5"}},
};

QList<QString> netIdParts(const char* netId)
{
    QList<QString> out;
    const QStringList parts = QString::fromLatin1(netId).split(QLatin1String("."));
    for (int i = 0; i < parts.size(); ++i)
        out.append(parts.at(i));
    return out;
}

TEST(ProbeAgreesWithDriver, OwnAddressRuleOnEveryCase)
{
    for (const OwnAddressCase& c : kOwnAddressCases) {
        QList<QHostAddress> list;
        for (const std::string& a : c.addresses)
            list.append(QHostAddress(QString::fromStdString(a)));
        const std::string driverChoice = selectOwnIpv4Address(list, netIdParts(c.netId)).toStdString();
        const std::string probeChoice = adshost::probe::panelAddressFor(c.netId, c.addresses);
        std::string where = c.netId;
        for (const std::string& a : c.addresses)
            where += " " + a;
        EXPECT_EQ(probeChoice, driverChoice) << where;
    }
}

struct HeaderCase {
    uint8_t target[6];
    int amsPort;
    uint8_t sourceIp[4];
};

const std::vector<HeaderCase> kHeaderCases = {
    {{192, 168, 1, 100, 1, 1}, 851, {192, 168, 1, 20}},
    {{192, 168, 1, 100, 1, 1}, 801, {192, 168, 1, 20}},
    {{10, 0, 0, 1, 1, 1}, 65535, {10, 0, 0, 2}},
    {{5, 80, 255, 0, 3, 7}, 1, {0, 0, 0, 0}},
    {{255, 255, 255, 255, 255, 255}, 0x1234, {255, 1, 2, 254}},
};

// The AMS/TCP and AMS header of a request: everything but the command id and the length
// fields is the same in the driver's read frame and in the probe's requests.
TEST(ProbeAgreesWithDriver, RequestHeaderOnEveryCase)
{
    for (const HeaderCase& c : kHeaderCases) {
        std::memcpy(driver.targetAmsNetId, c.target, 6);
        driver.targetAmsPort = c.amsPort;
        std::memcpy(driver.sourceIp, c.sourceIp, 4);
        driver.frameList.clear();
        VARIABLE v;
        v.kind = 4;
        v.keyNo = 1;
        v.regName = QString::fromLatin1("M_W");
        v.address = 100;
        v.length = 2;
        std::memset(v.data, 0, sizeof v.data);
        QList<VARIABLE> list;
        list.append(v);
        getReadFrame(list);
        ASSERT_EQ(driver.frameList.size(), 1);
        const unsigned char* d = driver.frameList.first().frame;

        const uint8_t source[6] = {c.sourceIp[0], c.sourceIp[1], c.sourceIp[2], c.sourceIp[3], 1, 1};
        const std::vector<uint8_t> p = adshost::probe::requestFrame(c.target, uint16_t(c.amsPort), source, 2, 0);
        ASSERT_EQ(p.size(), 38u);
        const std::string what = "AMS port " + std::to_string(c.amsPort);
        // AMS/TCP reserved field, target Net ID and port, source Net ID and port.
        EXPECT_EQ(std::vector<uint8_t>(d, d + 2), std::vector<uint8_t>(p.begin(), p.begin() + 2)) << what;
        EXPECT_EQ(std::vector<uint8_t>(d + 6, d + 22), std::vector<uint8_t>(p.begin() + 6, p.begin() + 22)) << what;
        // Command id (both 2 here), state flags, error code and invoke id.
        EXPECT_EQ(std::vector<uint8_t>(d + 22, d + 26), std::vector<uint8_t>(p.begin() + 22, p.begin() + 26)) << what;
        EXPECT_EQ(std::vector<uint8_t>(d + 30, d + 38), std::vector<uint8_t>(p.begin() + 30, p.begin() + 38)) << what;
        // The length fields each say what follows them.
        EXPECT_EQ(p[2] | p[3] << 8 | p[4] << 16 | p[5] << 24, int(p.size()) - 6);
        EXPECT_EQ(d[2] | d[3] << 8, driver.frameList.first().sendLen - 6);
        driver.frameList.clear();
    }
}

}  // namespace
