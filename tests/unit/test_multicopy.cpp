// Address series for the host's editor: intf_multiCopy and multiCp.

#include <gtest/gtest.h>

#include <QtCore/QString>
#include <QtCore/QVector>

#include <string>
#include <vector>

#include "ads_ethernet.h"

namespace {

QString Q(const char* s) { return QString::fromLatin1(s); }

typedef std::vector<std::string> Texts;
typedef std::vector<int> Numbers;

Texts texts(const QVector<QString>& v)
{
    Texts t;
    for (const QString& s : v)
        t.push_back(s.toStdString());
    return t;
}

Numbers numbers(const QVector<int>& v) { return Numbers(v.begin(), v.end()); }

struct Series {
    int result;
    Texts texts;
    Numbers numbers;
};

Series copy(const char* reg, int start, int count, int interval)
{
    QString name = Q(reg);
    QVector<QString> t;
    QVector<int> n;
    Series s;
    s.result = intf_multiCopy(&name, start, count, interval, &t, &n);
    s.texts = texts(t);
    s.numbers = numbers(n);
    EXPECT_EQ(reg, name.toStdString()) << "the register name is left as it was";
    return s;
}

}  // namespace

TEST(MultiCopy, NextWordOfAWordRegisterStepsTwoBytes)
{
    const Series s = copy("M_W", 10, 3, -1);
    EXPECT_EQ(1, s.result);
    EXPECT_EQ((Numbers {10, 12, 14}), s.numbers);
    EXPECT_EQ((Texts {"10", "12", "14"}), s.texts);
}

TEST(MultiCopy, NextDoubleWordOfAWordRegisterStepsFourBytes)
{
    const Series s = copy("M_W", 10, 3, -2);
    EXPECT_EQ(1, s.result);
    EXPECT_EQ((Numbers {10, 14, 18}), s.numbers);
    EXPECT_EQ((Texts {"10", "14", "18"}), s.texts);
}

TEST(MultiCopy, NextWordOfABitRegisterStepsOneBit)
{
    const Series s = copy("M_bit", 6, 4, -1);
    EXPECT_EQ(1, s.result);
    EXPECT_EQ((Numbers {6, 7, 8, 9}), s.numbers);
    EXPECT_EQ((Texts {"0.6", "0.7", "1.0", "1.1"}), s.texts);
}

TEST(MultiCopy, NextDoubleWordOfABitRegisterStepsOneBit)
{
    const Series s = copy("I_bit", 99, 2, -2);
    EXPECT_EQ(1, s.result);
    EXPECT_EQ((Numbers {99, 100}), s.numbers);
    EXPECT_EQ((Texts {"12.3", "12.4"}), s.texts);
}

TEST(MultiCopy, AddressesBeyondTheRangeBecomeTheLargestAddress)
{
    const Series s = copy("Q_W", 65534, 3, 1);
    EXPECT_EQ(2, s.result);
    EXPECT_EQ((Numbers {65534, 65535, 65535}), s.numbers);
    EXPECT_EQ((Texts {"65534", "65535", "65535"}), s.texts);
}

TEST(MultiCopy, SeriesGoesOnAfterTheFirstClampedAddress)
{
    const Series s = copy("I_W", 65535, 4, 10);
    EXPECT_EQ(2, s.result);
    EXPECT_EQ((Numbers {65535, 65535, 65535, 65535}), s.numbers);
    EXPECT_EQ((Texts {"65535", "65535", "65535", "65535"}), s.texts);
}

TEST(MultiCopy, BitRegisterClampsToItsLastBit)
{
    const Series s = copy("M_bit", 524286, 3, 1);
    EXPECT_EQ(2, s.result);
    EXPECT_EQ((Numbers {524286, 524287, 524287}), s.numbers);
    EXPECT_EQ((Texts {"65535.6", "65535.7", "65535.7"}), s.texts);
}

TEST(MultiCopy, CountZeroAppendsNothing)
{
    QString name = Q("M_W");
    QVector<QString> t;
    t.append(Q("kept"));
    QVector<int> n;
    n.append(77);
    EXPECT_EQ(1, intf_multiCopy(&name, 10, 0, 1, &t, &n));
    EXPECT_EQ((Texts {"kept"}), texts(t));
    EXPECT_EQ((Numbers {77}), numbers(n));
    EXPECT_EQ(1, intf_multiCopy(&name, 10, -3, 1, &t, &n));
    EXPECT_EQ((Texts {"kept"}), texts(t));
    EXPECT_EQ((Numbers {77}), numbers(n));
}

TEST(MultiCopy, UnknownRegisterGivesZeroAndAppendsNothing)
{
    QVector<QString> t;
    t.append(Q("kept"));
    QVector<int> n;
    n.append(77);
    for (const char* reg : {"X_W", "m_w", ""}) {
        QString name = Q(reg);
        EXPECT_EQ(0, intf_multiCopy(&name, 10, 3, 1, &t, &n)) << reg;
    }
    EXPECT_EQ((Texts {"kept"}), texts(t));
    EXPECT_EQ((Numbers {77}), numbers(n));
}

TEST(MultiCopy, ExistingItemsAreKeptAndNewOnesFollow)
{
    QString name = Q("M_W");
    QVector<QString> t;
    t.append(Q("a"));
    t.append(Q("b"));
    QVector<int> n;
    n.append(-1);
    n.append(-2);
    EXPECT_EQ(1, intf_multiCopy(&name, 10, 3, -1, &t, &n));
    EXPECT_EQ((Texts {"a", "b", "10", "12", "14"}), texts(t));
    EXPECT_EQ((Numbers {-1, -2, 10, 12, 14}), numbers(n));
    QString bits = Q("Q_bit");
    EXPECT_EQ(1, intf_multiCopy(&bits, 7, 2, 1, &t, &n));
    EXPECT_EQ((Texts {"a", "b", "10", "12", "14", "0.7", "1.0"}), texts(t));
    EXPECT_EQ((Numbers {-1, -2, 10, 12, 14, 7, 8}), numbers(n));
}

TEST(MultiCopy, PositiveIntervalIsTheStep)
{
    const Series s = copy("M_W", 100, 3, 5);
    EXPECT_EQ(1, s.result);
    EXPECT_EQ((Numbers {100, 105, 110}), s.numbers);
    EXPECT_EQ((Texts {"100", "105", "110"}), s.texts);
    const Series b = copy("M_bit", 0, 3, 8);
    EXPECT_EQ((Numbers {0, 8, 16}), b.numbers);
    EXPECT_EQ((Texts {"0.0", "1.0", "2.0"}), b.texts);
}

TEST(MultiCopy, IntervalZeroOrOtherNegativeStepsOne)
{
    const Series z = copy("M_W", 20, 3, 0);
    EXPECT_EQ(1, z.result);
    EXPECT_EQ((Numbers {20, 21, 22}), z.numbers);
    EXPECT_EQ((Texts {"20", "21", "22"}), z.texts);
    const Series m = copy("M_W", 20, 3, -3);
    EXPECT_EQ((Numbers {20, 21, 22}), m.numbers);
    const Series b = copy("I_bit", 20, 2, -7);
    EXPECT_EQ((Numbers {20, 21}), b.numbers);
    EXPECT_EQ((Texts {"2.4", "2.5"}), b.texts);
}

// ---------------------------------------------------------------------------------------
// multiCp with other notations
// ---------------------------------------------------------------------------------------

TEST(MultiCp, HexadecimalMaskGivesLowerCaseHexWithoutPrefix)
{
    QVector<QString> t;
    QVector<int> n;
    EXPECT_EQ(1, multiCp(Q("M_W"), Q("HHHH"), 254, 3, 1, t, n, 65535, Q("ffff")));
    EXPECT_EQ((Texts {"fe", "ff", "100"}), texts(t));
    EXPECT_EQ((Numbers {254, 255, 256}), numbers(n));
}

TEST(MultiCp, OctalMaskGivesOctal)
{
    QVector<QString> t;
    QVector<int> n;
    EXPECT_EQ(1, multiCp(Q("M_W"), Q("OOOO"), 7, 2, 1, t, n, 65535, Q("177777")));
    EXPECT_EQ((Texts {"7", "10"}), texts(t));
    EXPECT_EQ((Numbers {7, 8}), numbers(n));
}

TEST(MultiCp, ClampUsesTheGivenLargestAddressAndText)
{
    QVector<QString> t;
    QVector<int> n;
    EXPECT_EQ(2, multiCp(Q("M_W"), Q("DDDDD"), 8, 3, 1, t, n, 9, Q("nine")));
    EXPECT_EQ((Texts {"8", "9", "nine"}), texts(t));
    EXPECT_EQ((Numbers {8, 9, 9}), numbers(n));
}

TEST(MultiCp, MixedMaskOnAWordRegisterEndsTheSeriesAtOnce)
{
    // A word register has no bit notation: its text is empty, the series ends with 2
    // and what was there before stays.
    QVector<QString> t;
    t.append(Q("kept"));
    QVector<int> n;
    n.append(5);
    EXPECT_EQ(2, multiCp(Q("M_W"), Q("DDDDD.D"), 10, 3, 1, t, n, 65535, Q("65535")));
    EXPECT_EQ((Texts {"kept"}), texts(t));
    EXPECT_EQ((Numbers {5}), numbers(n));
}

TEST(MultiCp, ClampedAddressesNeedNoConversion)
{
    // Addresses beyond the range take the given text; no notation is applied to them.
    QVector<QString> t;
    QVector<int> n;
    EXPECT_EQ(2, multiCp(Q("M_W"), Q("DDDDD.D"), 20, 2, 1, t, n, 10, Q("ten")));
    EXPECT_EQ((Texts {"ten", "ten"}), texts(t));
    EXPECT_EQ((Numbers {10, 10}), numbers(n));
}
