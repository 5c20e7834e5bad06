// The host header's settings-string helper: from the property-page description and the
// user's values to what intf_SetDriverPropertyPage takes, checked against the driver itself.

#include <gtest/gtest.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <cstring>
#include <string>

#include "ads_ethernet.h"
#include "ads_ethernet_host.h"

namespace {

QString Q(const char* s) { return QString::fromLatin1(s); }

QString page()
{
    QString description;
    intf_getDriverPropertyPage(description);
    return description;
}

QStringList values(std::initializer_list<const char*> texts)
{
    QStringList l;
    for (const char* t : texts)
        l.append(Q(t));
    return l;
}

// Settings built from the driver's own page description, or the reason they were refused.
std::string build(const QStringList& v)
{
    QString settings, why;
    if (!ads_settingsFromPropertyPage(page(), v, &settings, &why))
        return "refused: " + why.toStdString();
    return settings.toStdString();
}

std::string targetText()
{
    std::string s;
    for (int i = 0; i < 6; ++i)
        s += (i ? "." : "") + std::to_string(driver.targetAmsNetId[i]);
    return s + " port " + std::to_string(driver.targetAmsPort);
}

}  // namespace

TEST(SettingsString, UserValuesReplaceTheLabelledDefaults)
{
    EXPECT_EQ("2_0,192.168.1.100.1.1,851", build(values({"192.168.1.100.1.1", "851"})));
    EXPECT_EQ("2_0,5.80.201.232.1.1,801", build(values({"5.80.201.232.1.1", "801"})));
}

TEST(SettingsString, TheDriverTakesWhatTheHelperBuilds)
{
    std::memset(driver.targetAmsNetId, 0, 6);
    driver.targetAmsPort = 0;
    QString settings, why;
    ASSERT_TRUE(ads_settingsFromPropertyPage(page(), values({"10.1.2.3.1.1", "851"}), &settings, &why));
    intf_SetDriverPropertyPage(settings);
    EXPECT_EQ("10.1.2.3.1.1 port 851", targetText());
}

TEST(SettingsString, MissingOrEmptyValuesTakeTheDefaults)
{
    EXPECT_EQ("2_0,192.168.1.100.1.1,801", build(QStringList()));
    EXPECT_EQ("2_0,192.168.1.100.1.1,851", build(values({"", "851"})));
    EXPECT_EQ("2_0,10.0.0.7.1.1,801", build(values({"10.0.0.7.1.1"})));
}

TEST(SettingsString, LabelsOnValuesAreRemoved)
{
    EXPECT_EQ("2_0,192.168.1.100.1.1,801", build(values({"AmsNetId_192.168.1.100.1.1", "AdsPort_801"})));
    EXPECT_EQ("2_0,1.2.3.4.1.1,851", build(values({" 1.2.3.4.1.1 ", "851"})));
}

TEST(SettingsString, TheDescriptionHandedBackIsWhatTheHelperPrevents)
{
    // What the driver does with its own description: Net ID 0.168.1.100.1.1, port 0.
    intf_SetDriverPropertyPage(page());
    EXPECT_EQ("0.168.1.100.1.1 port 0", targetText());
    // The helper turns the same description into the defaults, labels off.
    EXPECT_EQ("2_0,192.168.1.100.1.1,801", build(QStringList()));
}

TEST(SettingsString, RefusesWhatTheDriverWouldTakeWronglyWithoutAWord)
{
    EXPECT_EQ("refused: AmsNetId \"192.168.1.100\" is not six numbers 0..255 separated by \".\"",
        build(values({"192.168.1.100", "851"})));
    EXPECT_EQ("refused: AmsNetId \"192.168.1.300.1.1\" is not six numbers 0..255 separated by \".\"",
        build(values({"192.168.1.300.1.1", "851"})));
    EXPECT_EQ("refused: AmsNetId \"1.2.3.4.1.x\" is not six numbers 0..255 separated by \".\"",
        build(values({"1.2.3.4.1.x", "851"})));
    EXPECT_EQ("refused: AdsPort \"0\" is not a number 1..65535", build(values({"1.2.3.4.1.1", "0"})));
    EXPECT_EQ("refused: AdsPort \"65536\" is not a number 1..65535", build(values({"1.2.3.4.1.1", "65536"})));
    EXPECT_EQ("refused: AdsPort \"851,1\" is not a number 1..65535", build(values({"1.2.3.4.1.1", "851,1"})));
    EXPECT_EQ("refused: 3 values for 2 fields", build(values({"1.2.3.4.1.1", "851", "x"})));
}

TEST(SettingsString, RefusesADescriptionOfAnotherShape)
{
    QString settings = Q("untouched"), why;
    EXPECT_FALSE(ads_settingsFromPropertyPage(Q("2_0,AmsNetId_1.2.3.4.1.1"), QStringList(), &settings, &why));
    EXPECT_EQ(
        "the description \"2_0,AmsNetId_1.2.3.4.1.1\" has 1 fields; the driver takes exactly 2", why.toStdString());
    EXPECT_EQ("untouched", settings.toStdString());
}

TEST(SettingsString, OtherFieldsAreTakenAsTheyAre)
{
    QString settings, why;
    ASSERT_TRUE(ads_settingsFromPropertyPage(Q("3_1,Station_7,Mode_fast"), values({"", "slow"}), &settings, &why));
    EXPECT_EQ("3_1,7,slow", settings.toStdString());
    EXPECT_FALSE(ads_settingsFromPropertyPage(Q("3_1,Station_7,Mode_fast"), values({"a,b"}), &settings, &why));
}
