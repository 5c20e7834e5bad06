// The driver's description, its property page, the settings the host hands back, and the
// choice of the panel's own IPv4 address.

#include <gtest/gtest.h>

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QNetworkInterface>

#include <cstring>
#include <string>

#include "ads_ethernet.h"

namespace {

std::string S(const QString& s) { return s.toStdString(); }
QString Q(const char* s) { return QString::fromLatin1(s); }

QList<QString> parts(const char* netId)
{
    QList<QString> l;
    const QStringList split = Q(netId).split(QLatin1Char('.'));
    for (const QString& s : split)
        l.append(s);
    return l;
}

QList<QHostAddress> addresses(std::initializer_list<const char*> texts)
{
    QList<QHostAddress> l;
    for (const char* t : texts)
        l.append(QHostAddress(Q(t)));
    return l;
}

void presetAddressing()
{
    const unsigned char netId[6] = {9, 8, 7, 6, 5, 4};
    const unsigned char ip[4] = {1, 2, 3, 4};
    std::memcpy(driver.targetAmsNetId, netId, 6);
    driver.targetAmsPort = 4242;
    std::memcpy(driver.sourceIp, ip, 4);
}

std::string netIdText()
{
    std::string s;
    for (int i = 0; i < 6; ++i) {
        if (i)
            s += '.';
        s += std::to_string(driver.targetAmsNetId[i]);
    }
    return s;
}

std::string sourceIpText()
{
    std::string s;
    for (int i = 0; i < 4; ++i) {
        if (i)
            s += '.';
        s += std::to_string(driver.sourceIp[i]);
    }
    return s;
}

// What the panel's own address must become on this machine: the rule applied to the
// machine's real address list, or the preset value when no address qualifies.
std::string expectedSourceIp(const char* netId, const std::string& before)
{
    const QString chosen = selectOwnIpv4Address(QNetworkInterface::allAddresses(), parts(netId));
    if (chosen.split(QLatin1Char('.')).size() != 4)
        return before;
    return S(chosen);
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Description and property page
// ---------------------------------------------------------------------------------------

TEST(DriverParameter, IsTheFixedDescriptionText)
{
    QString p;
    intf_getDriverParameter(p);
    EXPECT_EQ("0,9600,8,NONE,1,0,1,192.168.1.100,48898,ads_ethernet,I_bit,Q_bit,M_bit,I_W,Q_W,M_W", S(p));
}

TEST(DriverParameter, ReplacesWhatTheStringHeld)
{
    QString p = Q("left over,from before");
    intf_getDriverParameter(p);
    EXPECT_EQ("0,9600,8,NONE,1,0,1,192.168.1.100,48898,ads_ethernet,I_bit,Q_bit,M_bit,I_W,Q_W,M_W", S(p));
}

TEST(DriverParameter, ConstantStringsAreSpelledAsTheHostExpects)
{
    EXPECT_EQ("ads_ethernet", S(PROCOTOL_NAME));
    EXPECT_EQ("2.0.0.0", S(PROCOTOL_VERSION));
    EXPECT_EQ("9600,8,NONE,1", S(PROCOTOL_DEFALT_COM_PAR));
    EXPECT_EQ("192.168.1.100,48898", S(PROCOTOL_DEFALT_IP_PAR));
    EXPECT_EQ("2_0,AmsNetId_192.168.1.100.1.1,AdsPort_801", S(PROCOTOL_PAR_HMI_SET_MODE));
}

TEST(PropertyPage, IsThePageDescription)
{
    QString page = Q("old");
    intf_getDriverPropertyPage(page);
    EXPECT_EQ("2_0,AmsNetId_192.168.1.100.1.1,AdsPort_801", S(page));
}

// ---------------------------------------------------------------------------------------
// intf_SetDriverPropertyPage
// ---------------------------------------------------------------------------------------

TEST(Settings, ThreePartsSetNetIdPortAndOwnAddress)
{
    presetAddressing();
    const std::string expectIp = expectedSourceIp("192.168.1.100.1.1", sourceIpText());
    intf_SetDriverPropertyPage(Q("2_0,192.168.1.100.1.1,801"));
    EXPECT_EQ("192.168.1.100.1.1", netIdText());
    EXPECT_EQ(801, driver.targetAmsPort);
    EXPECT_EQ(expectIp, sourceIpText());
}

TEST(Settings, FourPartsChangeNothing)
{
    presetAddressing();
    intf_SetDriverPropertyPage(Q("2_0,192.168.1.100.1.1,801,extra"));
    EXPECT_EQ("9.8.7.6.5.4", netIdText());
    EXPECT_EQ(4242, driver.targetAmsPort);
    EXPECT_EQ("1.2.3.4", sourceIpText());
}

TEST(Settings, TwoPartsChangeNothing)
{
    presetAddressing();
    intf_SetDriverPropertyPage(Q("2_0,192.168.1.100.1.1"));
    EXPECT_EQ("9.8.7.6.5.4", netIdText());
    EXPECT_EQ(4242, driver.targetAmsPort);
    EXPECT_EQ("1.2.3.4", sourceIpText());
}

TEST(Settings, EmptyTextChangesNothing)
{
    presetAddressing();
    intf_SetDriverPropertyPage(QString());
    EXPECT_EQ("9.8.7.6.5.4", netIdText());
    EXPECT_EQ(4242, driver.targetAmsPort);
    EXPECT_EQ("1.2.3.4", sourceIpText());
}

TEST(Settings, FivePartNetIdKeepsTheNetIdButSetsThePort)
{
    presetAddressing();
    const std::string expectIp = expectedSourceIp("192.168.1.100.1", sourceIpText());
    intf_SetDriverPropertyPage(Q("2_0,192.168.1.100.1,851"));
    EXPECT_EQ("9.8.7.6.5.4", netIdText());
    EXPECT_EQ(851, driver.targetAmsPort);
    EXPECT_EQ(expectIp, sourceIpText());
}

TEST(Settings, NetIdPartsAreTruncatedToEightBits)
{
    presetAddressing();
    intf_SetDriverPropertyPage(Q("2_0,300.256.257.-1.1.1,801"));
    EXPECT_EQ("44.0.1.255.1.1", netIdText());
    EXPECT_EQ(801, driver.targetAmsPort);
}

TEST(Settings, NonNumericPartsGiveZero)
{
    presetAddressing();
    intf_SetDriverPropertyPage(Q("2_0,a.b.c.d.e.f,port"));
    EXPECT_EQ("0.0.0.0.0.0", netIdText());
    EXPECT_EQ(0, driver.targetAmsPort);
    // Net ID parts that no address text contains: the own address stays.
    EXPECT_EQ("1.2.3.4", sourceIpText());
}

TEST(Settings, PortIsKeptWhole)
{
    presetAddressing();
    intf_SetDriverPropertyPage(Q("2_0,5.6.7.8.1.1,70000"));
    EXPECT_EQ("5.6.7.8.1.1", netIdText());
    EXPECT_EQ(70000, driver.targetAmsPort);
}

TEST(Settings, PageDescriptionSentBackGivesZeroFirstByteAndPort)
{
    presetAddressing();
    intf_SetDriverPropertyPage(Q("2_0,AmsNetId_192.168.1.100.1.1,AdsPort_801"));
    EXPECT_EQ("0.168.1.100.1.1", netIdText());
    EXPECT_EQ(0, driver.targetAmsPort);
    // "AmsNetId_192" is in no address text, so no own address is taken.
    EXPECT_EQ("1.2.3.4", sourceIpText());
}

TEST(Settings, EmptyNetIdKeepsTheNetIdAndTakesAnyOwnAddress)
{
    presetAddressing();
    const std::string expectIp = expectedSourceIp("", sourceIpText());
    intf_SetDriverPropertyPage(Q("2_0,,801"));
    EXPECT_EQ("9.8.7.6.5.4", netIdText());
    EXPECT_EQ(801, driver.targetAmsPort);
    EXPECT_EQ(expectIp, sourceIpText());
}

// ---------------------------------------------------------------------------------------
// selectOwnIpv4Address
// ---------------------------------------------------------------------------------------

TEST(OwnAddress, LoopbackIsSkipped)
{
    EXPECT_EQ(
        "192.168.1.20", S(selectOwnIpv4Address(addresses({"127.0.0.1", "192.168.1.20"}), parts("192.168.1.100.1.1"))));
}

TEST(OwnAddress, AddressWithoutTheNetIdNumbersIsSkipped)
{
    EXPECT_EQ(
        "192.168.1.20", S(selectOwnIpv4Address(addresses({"10.0.0.5", "192.168.1.20"}), parts("192.168.1.100.1.1"))));
}

TEST(OwnAddress, NoMatchingAddressGivesEmptyText)
{
    EXPECT_TRUE(selectOwnIpv4Address(addresses({"10.0.0.5"}), parts("192.168.1.100.1.1")).isEmpty());
    EXPECT_TRUE(selectOwnIpv4Address(QList<QHostAddress>(), parts("192.168.1.100.1.1")).isEmpty());
    EXPECT_TRUE(selectOwnIpv4Address(addresses({"127.0.0.1"}), QList<QString>()).isEmpty());
}

TEST(OwnAddress, MatchIsBySubstringOfTheFirstTwoNetIdParts)
{
    // 10.0.5.1 contains both "5" and "1"; 192.168.1.20 holds no "5".
    EXPECT_EQ("10.0.5.1", S(selectOwnIpv4Address(addresses({"10.0.5.1", "192.168.1.20"}), parts("5.1.2.3.1.1"))));
    EXPECT_EQ("10.0.5.1", S(selectOwnIpv4Address(addresses({"192.168.1.20", "10.0.5.1"}), parts("5.1.2.3.1.1"))));
    // Not a subnet comparison: 10.168.5.192 contains 192 and 168 and comes first.
    EXPECT_EQ("10.168.5.192",
        S(selectOwnIpv4Address(addresses({"10.168.5.192", "192.168.1.20"}), parts("192.168.1.100.1.1"))));
}

TEST(OwnAddress, OnlyTheFirstTwoPartsAreTested)
{
    EXPECT_EQ("192.168.9.9", S(selectOwnIpv4Address(addresses({"192.168.9.9"}), parts("192.168.1.100.1.1"))));
}

TEST(OwnAddress, FirstQualifyingAddressInListOrderIsTaken)
{
    EXPECT_EQ("192.168.1.20",
        S(selectOwnIpv4Address(addresses({"192.168.1.20", "192.168.1.21"}), parts("192.168.1.100.1.1"))));
    EXPECT_EQ("192.168.1.21",
        S(selectOwnIpv4Address(addresses({"192.168.1.21", "192.168.1.20"}), parts("192.168.1.100.1.1"))));
}

TEST(OwnAddress, FewerThanTwoPartsTakeTheFirstNonLoopbackIpv4)
{
    EXPECT_EQ(
        "10.0.0.5", S(selectOwnIpv4Address(addresses({"127.0.0.1", "10.0.0.5", "192.168.1.20"}), QList<QString>())));
    EXPECT_EQ("10.0.0.5", S(selectOwnIpv4Address(addresses({"127.0.0.1", "10.0.0.5", "192.168.1.20"}), parts("192"))));
    EXPECT_EQ("10.0.0.5", S(selectOwnIpv4Address(addresses({"127.0.0.1", "10.0.0.5", "192.168.1.20"}), parts(""))));
}

TEST(OwnAddress, Ipv6AndNullAddressesAreSkipped)
{
    QList<QHostAddress> l;
    l.append(QHostAddress());  // null
    l.append(QHostAddress(Q("::1")));
    l.append(QHostAddress(Q("fe80::192:168")));
    l.append(QHostAddress(Q("::ffff:192.168.1.7")));  // IPv6 text containing 192 and 168
    l.append(QHostAddress(Q("127.0.0.1")));
    l.append(QHostAddress(Q("192.168.1.30")));
    EXPECT_EQ("192.168.1.30", S(selectOwnIpv4Address(l, parts("192.168.1.100.1.1"))));

    QList<QHostAddress> none;
    none.append(QHostAddress());
    none.append(QHostAddress(Q("::1")));
    none.append(QHostAddress(Q("2001:db8::5:1")));
    EXPECT_TRUE(selectOwnIpv4Address(none, QList<QString>()).isEmpty());
    EXPECT_TRUE(selectOwnIpv4Address(none, parts("5.1.2.3.1.1")).isEmpty());
}
