// The register table, the address syntax and the small byte and bit helpers.

#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "ads_ethernet.h"
#include "driver_private.h"

namespace {

std::string S(const QString& s) { return s.toStdString(); }
QString Q(const char* s) { return QString::fromLatin1(s); }

std::vector<std::string> strings(const QList<QString>& l)
{
    std::vector<std::string> v;
    for (const QString& s : l)
        v.push_back(S(s));
    return v;
}

typedef std::vector<std::string> Names;

}  // namespace

// ---------------------------------------------------------------------------------------
// Constant tables
// ---------------------------------------------------------------------------------------

TEST(RegisterTable, ListsTheSixRegistersInOrder)
{
    const char* names[6] = {"I_bit", "Q_bit", "M_bit", "I_W", "Q_W", "M_W"};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(names[i], S(REG_LIST[i]));
}

TEST(RegisterTable, RowsHoldFormatRangeWidthAccessAndUnit)
{
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("DDDDD.D", S(ADDRESS_RANGE_PRO[i][0])) << "row " << i;
        EXPECT_EQ("0.0", S(ADDRESS_RANGE_PRO[i][1])) << "row " << i;
        EXPECT_EQ("65535.7", S(ADDRESS_RANGE_PRO[i][2])) << "row " << i;
        EXPECT_EQ("1", S(ADDRESS_RANGE_PRO[i][3])) << "row " << i;
        EXPECT_EQ("RW", S(ADDRESS_RANGE_PRO[i][4])) << "row " << i;
        EXPECT_EQ("8", S(ADDRESS_RANGE_PRO[i][5])) << "row " << i;
    }
    // Rows 3 to 5 are the word registers; row 6 is the spare copy of the word row that
    // a name outside the table looks up.
    for (int i = 3; i < 7; ++i) {
        EXPECT_EQ("DDDDD", S(ADDRESS_RANGE_PRO[i][0])) << "row " << i;
        EXPECT_EQ("0", S(ADDRESS_RANGE_PRO[i][1])) << "row " << i;
        EXPECT_EQ("65535", S(ADDRESS_RANGE_PRO[i][2])) << "row " << i;
        EXPECT_EQ("16", S(ADDRESS_RANGE_PRO[i][3])) << "row " << i;
        EXPECT_EQ("RW", S(ADDRESS_RANGE_PRO[i][4])) << "row " << i;
        EXPECT_EQ("8", S(ADDRESS_RANGE_PRO[i][5])) << "row " << i;
    }
}

// The rules the driver applies are derived from the text tables; every row must say what
// its texts say, and the driver's code handles only bit and word rows that address bytes.
TEST(RegisterTable, RulesAgreeWithTheTextTables)
{
    for (int row = 0; row < 7; ++row) {
        SCOPED_TRACE(row);
        const RegisterRule& rule = REGISTER_RULES[row];
        EXPECT_EQ(Q(std::to_string(rule.widthBits).c_str()), ADDRESS_RANGE_PRO[row][3]);
        EXPECT_EQ(Q(std::to_string(rule.unitBits).c_str()), ADDRESS_RANGE_PRO[row][5]);
        EXPECT_EQ(rule.unitBits, 8);
        EXPECT_EQ(rule.kind == kBitRegister, rule.widthBits == 1);
        EXPECT_TRUE(rule.widthBits == 1 || rule.widthBits == 16);
        const char* access = rule.access == kReadOnly ? "R" : (rule.access == kWriteOnly ? "W" : "RW");
        EXPECT_EQ(Q(access), ADDRESS_RANGE_PRO[row][4]);
        if (row < 6) {
            EXPECT_EQ(registerRow(REG_LIST[row]), row);
            const unsigned int groups[3] = {0xF020, 0xF030, 0x4020};
            EXPECT_EQ(rule.indexGroup, groups[row % 3]);
            // The word register behind a row is the "_W" row of the area its name starts with.
            const QString area = REG_LIST[row].left(REG_LIST[row].indexOf(QLatin1Char('_')));
            EXPECT_EQ(REG_LIST[rule.wordRow], area + Q("_W"));
        }
    }
    EXPECT_EQ(registerRow(Q("X_bit")), kRowSpare);
    EXPECT_EQ(REGISTER_RULES[kRowSpare].kind, kWordRegister);
    EXPECT_EQ(REGISTER_RULES[kRowSpare].indexGroup, 0x4020u);
    EXPECT_EQ(REGISTER_RULES[kRowSpare].wordRow, kRowSpare);
    // The spare bit row: the spare word row's rules, counting bits.
    const RegisterRule& spareBits = REGISTER_RULES[kRowSpareBits];
    EXPECT_EQ(spareBits.kind, kBitRegister);
    EXPECT_EQ(spareBits.widthBits, 1);
    EXPECT_EQ(spareBits.unitBits, REGISTER_RULES[kRowSpare].unitBits);
    EXPECT_EQ(spareBits.access, REGISTER_RULES[kRowSpare].access);
    EXPECT_EQ(spareBits.indexGroup, REGISTER_RULES[kRowSpare].indexGroup);
    EXPECT_EQ(spareBits.wordRow, kRowSpare);
}

// ---------------------------------------------------------------------------------------
// The register model's answers
// ---------------------------------------------------------------------------------------

namespace {
bool sameSpan(const ByteSpan& span, int first, int count) { return span.first == first && span.count == count; }
}  // namespace

TEST(RegisterModel, EachRowAnswersBitOrWordUnitAndItemSizes)
{
    for (int row = 0; row <= kRowSpareBits; ++row) {
        SCOPED_TRACE(row);
        const RegisterRule& rule = REGISTER_RULES[row];
        const bool bits = row <= kRowMBit || row == kRowSpareBits;
        EXPECT_EQ(rule.isBit(), bits);
        EXPECT_EQ(rule.unitBytes(), 1);
        EXPECT_EQ(rule.stepsPerItem(), bits ? 1 : 2);
        EXPECT_EQ(rule.bytesPerItem(), bits ? 1 : 2);
        EXPECT_EQ(rule.stepsPerItemOf(16), bits ? 1 : 2);
        EXPECT_EQ(rule.stepsPerItemOf(32), bits ? 1 : 4);
        // The word walk counts kWordBytes units and bytes per item.
        if (!bits) {
            EXPECT_EQ(rule.stepsPerItem(), kWordBytes);
            EXPECT_EQ(rule.bytesPerItem(), kWordBytes);
        }
    }
    EXPECT_EQ(kWordBytes, 2);
}

TEST(RegisterModel, TheWordRegisterBehindEachRow)
{
    EXPECT_EQ(REGISTER_RULES[kRowIBit].wordRow, kRowIW);
    EXPECT_EQ(REGISTER_RULES[kRowQBit].wordRow, kRowQW);
    EXPECT_EQ(REGISTER_RULES[kRowMBit].wordRow, kRowMW);
    for (int row = kRowIW; row <= kRowMW; ++row)
        EXPECT_EQ(REGISTER_RULES[row].wordRow, row);
    // A bit register reads and writes through the index group of its word register.
    for (int row = kRowIBit; row <= kRowMBit; ++row)
        EXPECT_EQ(REGISTER_RULES[row].indexGroup, REGISTER_RULES[REGISTER_RULES[row].wordRow].indexGroup);
}

TEST(RegisterModel, BitNumbersTruncateTowardZero)
{
    const RegisterRule& bits = REGISTER_RULES[kRowMBit];
    EXPECT_EQ(bits.unitOfBit(83), 10);
    EXPECT_EQ(bits.bitInUnit(83), 3);
    EXPECT_EQ(bits.unitOfBit(8), 1);
    EXPECT_EQ(bits.bitInUnit(8), 0);
    EXPECT_EQ(bits.unitOfBit(-1), 0);
    EXPECT_EQ(bits.bitInUnit(-1), -1);
    EXPECT_EQ(bits.unitOfBit(-9), -1);
    EXPECT_EQ(bits.bitInUnit(-9), -1);
}

TEST(RegisterModel, ABitSpanCoversTheBytesThatHoldTheBits)
{
    const RegisterRule& bits = REGISTER_RULES[kRowIBit];
    EXPECT_TRUE(sameSpan(bits.spanOfSteps(83, 1), 10, 1));
    EXPECT_TRUE(sameSpan(bits.spanOfSteps(7, 2), 0, 2));
    EXPECT_TRUE(sameSpan(bits.spanOfSteps(8, 8), 1, 1));
    EXPECT_TRUE(sameSpan(bits.spanOfSteps(5, 11), 0, 2));
    EXPECT_TRUE(sameSpan(bits.spanOfSteps(5, 12), 0, 3));
    EXPECT_TRUE(sameSpan(bits.spanOfSteps(16, 0), 2, 0));
    // Truncating division: bit -9 lies in unit -1 at place -1; three bits from it end in a
    // partly covered byte.
    EXPECT_TRUE(sameSpan(bits.spanOfSteps(-9, 3), -1, 1));
    // For bits, an item is one step.
    EXPECT_TRUE(sameSpan(bits.spanOfItems(5, 12), 0, 3));
}

TEST(RegisterModel, AWordSpanCountsStepsOrItems)
{
    const RegisterRule& words = REGISTER_RULES[kRowQW];
    EXPECT_TRUE(sameSpan(words.spanOfSteps(10, 6), 10, 6));
    EXPECT_TRUE(sameSpan(words.spanOfItems(10, 3), 10, 6));
    EXPECT_TRUE(sameSpan(words.spanOfItems(65535, 1), 65535, 2));
    // The count wraps as the host's values do instead of being undefined.
    EXPECT_TRUE(sameSpan(words.spanOfItems(0, 0x40000000), 0, INT_MIN));
    EXPECT_TRUE(sameSpan(REGISTER_RULES[kRowSpare].spanOfItems(4, 3), 4, 6));
}

TEST(RegisterModel, WordItemsAreWalkedUnitByUnitInAddressOrder)
{
    std::vector<std::vector<int>> seen;
    REGISTER_RULES[kRowMW].forEachWordUnit(10, 2, [&](int unit, int k, int byte) { seen.push_back({unit, k, byte}); });
    EXPECT_EQ(seen, (std::vector<std::vector<int>> {{10, 0, 0}, {11, 1, 1}, {12, 0, 2}, {13, 1, 3}}));
    seen.clear();
    REGISTER_RULES[kRowMW].forEachWordUnit(10, 0, [&](int unit, int k, int byte) { seen.push_back({unit, k, byte}); });
    EXPECT_TRUE(seen.empty());
    // Unit addresses wrap at the end of the int range.
    REGISTER_RULES[kRowIW].forEachWordUnit(INT_MAX, 1, [&](int unit, int k, int byte) {
        seen.push_back({unit, k, byte});
    });
    EXPECT_EQ(seen, (std::vector<std::vector<int>> {{INT_MAX, 0, 0}, {INT_MIN, 1, 1}}));
}

TEST(RegisterModel, NamesOutsideTheTableAreReadByTheirSyntax)
{
    EXPECT_EQ(addressingRow(Q("M_bit")), kRowMBit);
    EXPECT_EQ(addressingRow(Q("Q_W")), kRowQW);
    EXPECT_EQ(addressingRow(Q("X_bit")), kRowSpareBits);
    EXPECT_EQ(addressingRow(Q("m_bit")), kRowSpareBits);
    EXPECT_EQ(addressingRow(Q("_bit")), kRowSpareBits);
    EXPECT_EQ(addressingRow(Q("M_bits")), kRowSpare);
    EXPECT_EQ(addressingRow(Q("M_bitx")), kRowSpare);
    EXPECT_EQ(addressingRow(Q("X_W")), kRowSpare);
    EXPECT_EQ(addressingRow(QString()), kRowSpare);
    EXPECT_TRUE(addressingRuleOf(Q("X_bit")).isBit());
    EXPECT_FALSE(addressingRuleOf(Q("X_W")).isBit());
    // The table's own look-up knows none of them.
    EXPECT_EQ(registerRow(Q("m_bit")), kRowSpare);
    EXPECT_FALSE(ruleOf(Q("X_bit")).isBit());
}

TEST(RegisterModel, TheWordRegisterBehindANameOutsideTheTableComesFromItsText)
{
    EXPECT_EQ(wordRowBehind(Q("I_bit"), kRowIBit), kRowIW);
    EXPECT_EQ(wordRowBehind(Q("M_W"), kRowMW), kRowMW);
    EXPECT_EQ(wordRowBehind(Q("X_W"), kRowSpare), kRowSpare);
    EXPECT_EQ(wordRowBehind(Q("X_bit"), kRowSpareBits), kRowSpare);
    EXPECT_EQ(wordRowBehind(Q("I_x_bit"), kRowSpareBits), kRowIW);
    EXPECT_EQ(wordRowBehind(Q("Q_x_bit"), kRowSpareBits), kRowQW);
    EXPECT_EQ(wordRowBehind(Q("Ix_bit"), kRowSpareBits), kRowSpare);
    EXPECT_EQ(S(wordNameBehind(Q("M_bit"), kRowMBit)), "M_W");
    EXPECT_EQ(S(wordNameBehind(Q("Q_bit"), kRowQBit)), "Q_W");
    EXPECT_EQ(S(wordNameBehind(Q("X_bit"), kRowSpareBits)), "X_W");
    EXPECT_EQ(S(wordNameBehind(Q("I_x_bit"), kRowSpareBits)), "I_W");
    EXPECT_EQ(S(wordNameBehind(Q("Ix_bit"), kRowSpareBits)), "Ix_W");
}

TEST(RegisterModel, AKeyCountsBitsOnlyWhenItsUnitMarkIsMinusOne)
{
    KEY_ADDRESS key;
    key.unitMark = -1;
    EXPECT_TRUE(keyCountsBits(key));
    EXPECT_EQ(keyDataBytesPerUnit(key), 1);
    key.unitMark = 0;
    EXPECT_FALSE(keyCountsBits(key));
    EXPECT_EQ(keyDataBytesPerUnit(key), 2);
    key.unitMark = 7;
    EXPECT_EQ(keyDataBytesPerUnit(key), 2);
}

TEST(RegisterModel, ABitFormatIsAMaskOfMixedLetters)
{
    EXPECT_TRUE(drv::isBitFormat(Q("DDDDD.D")));
    EXPECT_TRUE(drv::isBitFormat(Q("HO")));
    EXPECT_FALSE(drv::isBitFormat(Q("DDDDD")));
    EXPECT_FALSE(drv::isBitFormat(Q("H")));
    EXPECT_FALSE(drv::isBitFormat(QString()));
}

TEST(RegisterTable, IndexFromNameIsExactAndCaseSensitive)
{
    EXPECT_EQ(0, getIndexFromRegName(Q("I_bit")));
    EXPECT_EQ(1, getIndexFromRegName(Q("Q_bit")));
    EXPECT_EQ(2, getIndexFromRegName(Q("M_bit")));
    EXPECT_EQ(3, getIndexFromRegName(Q("I_W")));
    EXPECT_EQ(4, getIndexFromRegName(Q("Q_W")));
    EXPECT_EQ(5, getIndexFromRegName(Q("M_W")));
    EXPECT_EQ(-1, getIndexFromRegName(Q("m_w")));
    EXPECT_EQ(-1, getIndexFromRegName(Q("M_bit ")));
    EXPECT_EQ(-1, getIndexFromRegName(Q("X_W")));
    EXPECT_EQ(-1, getIndexFromRegName(QString()));
}

// ---------------------------------------------------------------------------------------
// a2i
// ---------------------------------------------------------------------------------------

TEST(AddressText, BitSyntaxGivesByteTimesEightPlusBit)
{
    int a = -99;
    EXPECT_EQ(1, a2i(Q("10.3"), a, Q("DDDDD.D"), Q("I_bit")));
    EXPECT_EQ(83, a);
    EXPECT_EQ(1, a2i(Q("65535.7"), a, Q("DDDDD.D"), Q("M_bit")));
    EXPECT_EQ(524287, a);
    EXPECT_EQ(1, a2i(Q("0.0"), a, Q("DDDDD.D"), Q("Q_bit")));
    EXPECT_EQ(0, a);
}

TEST(AddressText, MalformedBitTextFailsAndLeavesTheAddress)
{
    int a = 1234;
    EXPECT_EQ(-1, a2i(Q("10"), a, Q("DDDDD.D"), Q("M_bit")));
    EXPECT_EQ(1234, a);
    EXPECT_EQ(-1, a2i(Q("1.2.3"), a, Q("DDDDD.D"), Q("M_bit")));
    EXPECT_EQ(1234, a);
    EXPECT_EQ(-1, a2i(Q("x.3"), a, Q("DDDDD.D"), Q("M_bit")));
    EXPECT_EQ(1234, a);
}

TEST(AddressText, BitSyntaxOnAWordRegisterGivesZeroWithSuccess)
{
    int a = 1234;
    EXPECT_EQ(1, a2i(Q("10.3"), a, Q("DDDDD.D"), Q("M_W")));
    EXPECT_EQ(0, a);
}

TEST(AddressText, UniformMaskTakesItsBaseFromTheLastLetter)
{
    int a = -1;
    EXPECT_EQ(1, a2i(Q("100"), a, Q("DDDDD"), Q("M_W")));
    EXPECT_EQ(100, a);
    EXPECT_EQ(1, a2i(Q("1A"), a, Q("HHHH"), Q("M_W")));
    EXPECT_EQ(26, a);
    EXPECT_EQ(1, a2i(Q("ff"), a, Q("HH"), Q("M_W")));
    EXPECT_EQ(255, a);
    EXPECT_EQ(1, a2i(Q("17"), a, Q("OOO"), Q("M_W")));
    EXPECT_EQ(15, a);
    // Any other letter, and an empty mask, mean decimal.
    EXPECT_EQ(1, a2i(Q("42"), a, Q("XX"), Q("M_W")));
    EXPECT_EQ(42, a);
    EXPECT_EQ(1, a2i(Q("43"), a, QString(), Q("M_W")));
    EXPECT_EQ(43, a);
    EXPECT_EQ(1, a2i(Q("-5"), a, Q("DDDDD"), Q("M_W")));
    EXPECT_EQ(-5, a);
}

TEST(AddressText, PlainNumberThatDoesNotConvertStoresZeroAndFails)
{
    int a = 1234;
    EXPECT_EQ(-1, a2i(Q("12x"), a, Q("DDDDD"), Q("M_W")));
    EXPECT_EQ(0, a);
    a = 1234;
    EXPECT_EQ(-1, a2i(Q("8"), a, Q("OOO"), Q("M_W")));
    EXPECT_EQ(0, a);
    a = 1234;
    EXPECT_EQ(-1, a2i(Q("1A"), a, Q("DDDDD"), Q("M_W")));
    EXPECT_EQ(0, a);
    a = 1234;
    EXPECT_EQ(-1, a2i(QString(), a, Q("DDDDD"), Q("M_W")));
    EXPECT_EQ(0, a);
}

// ---------------------------------------------------------------------------------------
// addr_str2int, addr_int2str, addrOffset
// ---------------------------------------------------------------------------------------

TEST(BitAddress, TextToIntegerAcceptsBitNumbersBeyondSeven)
{
    EXPECT_EQ(83, addr_str2int(Q("10.3"), Q("I_bit")));
    EXPECT_EQ(89, addr_str2int(Q("10.9"), Q("M_bit")));
    EXPECT_EQ(89, addr_str2int(Q("11.1"), Q("M_bit")));
    EXPECT_EQ(-8, addr_str2int(Q("-1.0"), Q("M_bit")));
    EXPECT_EQ(524287, addr_str2int(Q("65535.7"), Q("Q_bit")));
}

TEST(BitAddress, TextNotOfTwoNumericPartsGivesMinusOne)
{
    EXPECT_EQ(-1, addr_str2int(Q("10"), Q("M_bit")));
    EXPECT_EQ(-1, addr_str2int(Q("1.2.3"), Q("M_bit")));
    EXPECT_EQ(-1, addr_str2int(Q("a.3"), Q("M_bit")));
    EXPECT_EQ(-1, addr_str2int(Q("3.b"), Q("M_bit")));
    EXPECT_EQ(-1, addr_str2int(Q(".3"), Q("M_bit")));
    EXPECT_EQ(-1, addr_str2int(Q("3."), Q("M_bit")));
    EXPECT_EQ(-1, addr_str2int(QString(), Q("M_bit")));
}

TEST(BitAddress, TextToIntegerOnANameNotEndingInBitGivesZero)
{
    EXPECT_EQ(0, addr_str2int(Q("10.3"), Q("M_W")));
    EXPECT_EQ(0, addr_str2int(Q("garbage"), Q("Q_W")));
    EXPECT_EQ(0, addr_str2int(Q("10.3"), Q("M_bits")));
    // Only the last four characters are looked at.
    EXPECT_EQ(83, addr_str2int(Q("10.3"), Q("X_bit")));
}

TEST(BitAddress, IntegerToTextTruncatesTowardZero)
{
    EXPECT_EQ("10.3", S(addr_int2str(83, Q("M_bit"))));
    EXPECT_EQ("0.7", S(addr_int2str(7, Q("I_bit"))));
    EXPECT_EQ("0.0", S(addr_int2str(0, Q("Q_bit"))));
    EXPECT_EQ("65535.7", S(addr_int2str(524287, Q("M_bit"))));
    EXPECT_EQ("0.-1", S(addr_int2str(-1, Q("M_bit"))));
    EXPECT_EQ("-1.-1", S(addr_int2str(-9, Q("M_bit"))));
}

TEST(BitAddress, IntegerToTextOfAWordRegisterIsEmpty)
{
    EXPECT_TRUE(addr_int2str(83, Q("M_W")).isEmpty());
    EXPECT_TRUE(addr_int2str(0, Q("I_W")).isEmpty());
    EXPECT_TRUE(addr_int2str(5, QString()).isEmpty());
}

TEST(BitAddress, OffsetIsTheAddressItself)
{
    EXPECT_EQ(123, addrOffset(Q("M_W"), 123));
    EXPECT_EQ(83, addrOffset(Q("I_bit"), 83));
    EXPECT_EQ(-5, addrOffset(Q("Q_W"), -5));
    EXPECT_EQ(7, addrOffset(Q("unknown"), 7));
}

// ---------------------------------------------------------------------------------------
// getRegAddressWeight
// ---------------------------------------------------------------------------------------

TEST(AddressWeight, WorkedExamples)
{
    EXPECT_EQ(5, getRegAddressWeight(0, Q("I_bit"), 5, 0));
    EXPECT_EQ(655350, getRegAddressWeight(1, Q("Q_W"), 0, 0));
    EXPECT_EQ(-65535, getRegAddressWeight(0, Q("X_W"), 0, 0));
}

TEST(AddressWeight, StepIs65535SoTheLastWordMeetsTheNextRegister)
{
    EXPECT_EQ(getRegAddressWeight(0, Q("Q_W"), 0, 0), getRegAddressWeight(0, Q("I_W"), 65535, 0));
    EXPECT_EQ(4 * 65535, getRegAddressWeight(0, Q("Q_W"), 0, 0));
    // A bit address runs into the following registers' weights.
    EXPECT_EQ(524287, getRegAddressWeight(0, Q("I_bit"), 524287, 0));
    EXPECT_GT(getRegAddressWeight(0, Q("I_bit"), 524287, 0), getRegAddressWeight(0, Q("M_W"), 0, 0));
    EXPECT_EQ(5 * 65535 + 10, getRegAddressWeight(0, Q("M_W"), 10, 0));
}

TEST(AddressWeight, FourthArgumentIsIgnored)
{
    EXPECT_EQ(getRegAddressWeight(2, Q("M_bit"), 17, 0), getRegAddressWeight(2, Q("M_bit"), 17, 999));
    EXPECT_EQ(2 * 6 * 65535 + 2 * 65535 + 17, getRegAddressWeight(2, Q("M_bit"), 17, -1));
}

TEST(AddressWeight, WrapsInThirtyTwoBits)
{
    const uint32_t expected = 10000u * 6u * 65535u + 3u * 65535u + 7u;
    EXPECT_EQ(static_cast<int32_t>(expected), getRegAddressWeight(10000, Q("I_W"), 7, 0));
    EXPECT_EQ(-362867296 + 3 * 65535 + 7, getRegAddressWeight(10000, Q("I_W"), 7, 0));
}

// ---------------------------------------------------------------------------------------
// intf_checkAddr
// ---------------------------------------------------------------------------------------

TEST(CheckAddr, BitAddressIsConverted)
{
    int a = -7;
    EXPECT_EQ(0, intf_checkAddr(Q("I_bit"), Q("10.3"), &a, -1, 1, 0));
    EXPECT_EQ(83, a);
}

TEST(CheckAddr, LastBitOfTheRangeFitsOnceOnly)
{
    int a = -7;
    EXPECT_EQ(0, intf_checkAddr(Q("I_bit"), Q("65535.7"), &a, -1, 1, 0));
    EXPECT_EQ(524287, a);
    a = -7;
    EXPECT_EQ(2, intf_checkAddr(Q("I_bit"), Q("65535.7"), &a, -1, 2, 0));
    EXPECT_EQ(524287, a);  // code 2 keeps the parsed address
}

TEST(CheckAddr, WordAddressCountsTwoBytesPerItem)
{
    int a = -7;
    EXPECT_EQ(0, intf_checkAddr(Q("M_W"), Q("65534"), &a, 3, 1, 0));
    EXPECT_EQ(65534, a);
    a = -7;
    EXPECT_EQ(2, intf_checkAddr(Q("M_W"), Q("65535"), &a, 3, 1, 0));
    EXPECT_EQ(65535, a);
    a = -7;
    EXPECT_EQ(0, intf_checkAddr(Q("Q_W"), Q("65530"), &a, 3, 3, 0));
    EXPECT_EQ(65530, a);
    a = -7;
    EXPECT_EQ(2, intf_checkAddr(Q("Q_W"), Q("65531"), &a, 3, 3, 0));
    EXPECT_EQ(65531, a);
}

TEST(CheckAddr, AddressBelowTheMinimumGivesTwo)
{
    int a = 0;
    EXPECT_EQ(2, intf_checkAddr(Q("M_W"), Q("-1"), &a, 3, 1, 0));
    EXPECT_EQ(-1, a);
    a = 0;
    EXPECT_EQ(2, intf_checkAddr(Q("M_bit"), Q("-1.0"), &a, -1, 1, 0));
    EXPECT_EQ(-8, a);
}

TEST(CheckAddr, KindMismatchGivesOneAndLeavesTheAddress)
{
    int a = 555;
    EXPECT_EQ(1, intf_checkAddr(Q("M_W"), Q("10"), &a, -1, 1, 0));
    EXPECT_EQ(555, a);
    EXPECT_EQ(1, intf_checkAddr(Q("M_bit"), Q("10.3"), &a, 3, 1, 0));
    EXPECT_EQ(555, a);
}

TEST(CheckAddr, MalformedBitTextGivesFourAndLeavesTheAddress)
{
    int a = 555;
    EXPECT_EQ(4, intf_checkAddr(Q("M_bit"), Q("103"), &a, -1, 1, 0));
    EXPECT_EQ(555, a);
    EXPECT_EQ(4, intf_checkAddr(Q("M_bit"), Q("1.0.3"), &a, -1, 1, 0));
    EXPECT_EQ(555, a);
    EXPECT_EQ(4, intf_checkAddr(Q("M_bit"), Q("x.3"), &a, -1, 1, 0));
    EXPECT_EQ(555, a);
}

TEST(CheckAddr, WordTextWithTrailingLetterGivesFourAndStoresZero)
{
    int a = 555;
    EXPECT_EQ(4, intf_checkAddr(Q("M_W"), Q("12a"), &a, 3, 1, 0));
    EXPECT_EQ(0, a);
}

TEST(CheckAddr, BitNumberNineIsAccepted)
{
    int a = -7;
    EXPECT_EQ(0, intf_checkAddr(Q("M_bit"), Q("10.9"), &a, -1, 1, 0));
    EXPECT_EQ(89, a);
}

TEST(CheckAddr, UnknownRegisterGivesThreeOnlyWhenTheIncomingAddressFits)
{
    int a = 0;
    EXPECT_EQ(3, intf_checkAddr(Q("X_W"), Q("77"), &a, 3, 1, 0));
    EXPECT_EQ(0, a);
    a = 5;
    EXPECT_EQ(2, intf_checkAddr(Q("X_W"), Q("77"), &a, 3, 1, 0));
    EXPECT_EQ(5, a);
    a = -1;
    EXPECT_EQ(2, intf_checkAddr(Q("X_W"), Q("0"), &a, 3, 1, 0));
    EXPECT_EQ(-1, a);
    a = 0;
    EXPECT_EQ(2, intf_checkAddr(Q("X_W"), Q("0"), &a, 3, 2, 0));
    EXPECT_EQ(0, a);
    a = 1;
    EXPECT_EQ(3, intf_checkAddr(Q("x_bit"), Q("0"), &a, -1, 0, 0));
    EXPECT_EQ(1, a);
}

TEST(CheckAddr, WritingAccessAndAnyDataTypeAreFineOnTheseRegisters)
{
    // Every register is "RW" and none is 32 bits wide: no code 6 and no code 5.
    int a = -7;
    EXPECT_EQ(0, intf_checkAddr(Q("M_W"), Q("10"), &a, 2, 1, 1));
    EXPECT_EQ(10, a);
    EXPECT_EQ(0, intf_checkAddr(Q("Q_W"), Q("10"), &a, 7, 1, 2));
    EXPECT_EQ(0, intf_checkAddr(Q("Q_bit"), Q("1.1"), &a, -1, 1, 2));
    EXPECT_EQ(9, a);
}

// ---------------------------------------------------------------------------------------
// intf_checkAddrValidity
// ---------------------------------------------------------------------------------------

TEST(CheckAddrValidity, WordAndBitRegistersMatchTheWordFlag)
{
    int a = -7;
    EXPECT_EQ(0, intf_checkAddrValidity(Q("M_W"), Q("100"), &a, 1, 1));
    EXPECT_EQ(100, a);
    a = -7;
    EXPECT_EQ(0, intf_checkAddrValidity(Q("I_bit"), Q("10.3"), &a, 1, 0));
    EXPECT_EQ(83, a);
    a = 555;
    EXPECT_EQ(1, intf_checkAddrValidity(Q("M_W"), Q("100"), &a, 1, 0));
    EXPECT_EQ(555, a);
    EXPECT_EQ(1, intf_checkAddrValidity(Q("I_bit"), Q("10.3"), &a, 1, 1));
    EXPECT_EQ(555, a);
}

TEST(CheckAddrValidity, RangeAndSyntaxFaults)
{
    int a = -7;
    EXPECT_EQ(0, intf_checkAddrValidity(Q("Q_bit"), Q("65535.7"), &a, 1, 0));
    EXPECT_EQ(524287, a);
    EXPECT_EQ(2, intf_checkAddrValidity(Q("Q_bit"), Q("65535.7"), &a, 2, 0));
    EXPECT_EQ(524287, a);
    EXPECT_EQ(2, intf_checkAddrValidity(Q("M_W"), Q("70000"), &a, 1, 1));
    EXPECT_EQ(70000, a);
    EXPECT_EQ(2, intf_checkAddrValidity(Q("M_W"), Q("-2"), &a, 1, 1));
    EXPECT_EQ(-2, a);
    a = 555;
    EXPECT_EQ(4, intf_checkAddrValidity(Q("M_W"), Q("1x"), &a, 1, 1));
    EXPECT_EQ(0, a);
    a = 555;
    EXPECT_EQ(4, intf_checkAddrValidity(Q("M_bit"), Q("12"), &a, 1, 0));
    EXPECT_EQ(555, a);
}

// For word objects the count is divided by the address unit itself (8), not by unit / 16 as
// in intf_checkAddr: eight words at the last byte still pass, nine do not.
TEST(CheckAddrValidity, WordCountIsDividedByTheAddressUnit)
{
    int a = 0;
    EXPECT_EQ(0, intf_checkAddrValidity(Q("M_W"), Q("65535"), &a, 1, 1));
    EXPECT_EQ(65535, a);
    EXPECT_EQ(0, intf_checkAddrValidity(Q("M_W"), Q("65535"), &a, 8, 1));
    EXPECT_EQ(2, intf_checkAddrValidity(Q("M_W"), Q("65535"), &a, 9, 1));
    // intf_checkAddr, with two address steps per word, refuses the first of these.
    EXPECT_EQ(2, intf_checkAddr(Q("M_W"), Q("65535"), &a, 3, 1, 0));
}

TEST(CheckAddrValidity, UnknownRegister)
{
    int a = 0;
    EXPECT_EQ(3, intf_checkAddrValidity(Q("X_W"), Q("9"), &a, 1, 0));
    EXPECT_EQ(0, a);
    a = 0;
    EXPECT_EQ(3, intf_checkAddrValidity(Q("X_W"), Q("9"), &a, 1, 1));
    EXPECT_EQ(0, a);
    a = 5;
    EXPECT_EQ(2, intf_checkAddrValidity(Q("X_W"), Q("9"), &a, 1, 0));
    EXPECT_EQ(5, a);
}

// ---------------------------------------------------------------------------------------
// intf_getRegListByType, intf_getRegDiscription
// ---------------------------------------------------------------------------------------

TEST(RegisterList, TypeZeroGivesTheBitRegisters)
{
    QList<QString> names;
    EXPECT_EQ(1, intf_getRegListByType(0, names));
    EXPECT_EQ((Names {"I_bit", "Q_bit", "M_bit"}), strings(names));
}

TEST(RegisterList, TypeOneGivesTheWordRegisters)
{
    QList<QString> names;
    EXPECT_EQ(1, intf_getRegListByType(1, names));
    EXPECT_EQ((Names {"I_W", "Q_W", "M_W"}), strings(names));
}

TEST(RegisterList, OtherTypesAppendTheWordNamesButReturnZero)
{
    QList<QString> names;
    EXPECT_EQ(0, intf_getRegListByType(7, names));
    EXPECT_EQ((Names {"I_W", "Q_W", "M_W"}), strings(names));
    QList<QString> more;
    EXPECT_EQ(0, intf_getRegListByType(-1, more));
    EXPECT_EQ((Names {"I_W", "Q_W", "M_W"}), strings(more));
}

TEST(RegisterList, AppendsWithoutClearing)
{
    QList<QString> names;
    names.append(Q("kept"));
    EXPECT_EQ(1, intf_getRegListByType(0, names));
    EXPECT_EQ(1, intf_getRegListByType(1, names));
    EXPECT_EQ((Names {"kept", "I_bit", "Q_bit", "M_bit", "I_W", "Q_W", "M_W"}), strings(names));
}

TEST(RegisterDescription, BitAndWordRegisters)
{
    for (const char* reg : {"I_bit", "Q_bit", "M_bit"}) {
        QList<QString> d;
        EXPECT_EQ(0, intf_getRegDiscription(Q(reg), d));
        EXPECT_EQ((Names {"DDDDD.D", "0.0", "65535.7", "0", "1"}), strings(d)) << reg;
    }
    for (const char* reg : {"I_W", "Q_W", "M_W"}) {
        QList<QString> d;
        EXPECT_EQ(0, intf_getRegDiscription(Q(reg), d));
        EXPECT_EQ((Names {"DDDDD", "0", "65535", "1", "1"}), strings(d)) << reg;
    }
}

TEST(RegisterDescription, UnknownNameAppendsNothing)
{
    QList<QString> d;
    d.append(Q("kept"));
    EXPECT_EQ(0, intf_getRegDiscription(Q("X_W"), d));
    EXPECT_EQ((Names {"kept"}), strings(d));
    EXPECT_EQ(0, intf_getRegDiscription(Q("m_w"), d));
    EXPECT_EQ((Names {"kept"}), strings(d));
}

TEST(RegisterDescription, AppendsWithoutClearing)
{
    QList<QString> d;
    d.append(Q("kept"));
    EXPECT_EQ(0, intf_getRegDiscription(Q("M_W"), d));
    EXPECT_EQ(0, intf_getRegDiscription(Q("I_bit"), d));
    EXPECT_EQ((Names {"kept", "DDDDD", "0", "65535", "1", "1", "DDDDD.D", "0.0", "65535.7", "0", "1"}), strings(d));
}

// ---------------------------------------------------------------------------------------
// Byte and bit helpers
// ---------------------------------------------------------------------------------------

TEST(BitValue, SetsAndClearsOneBit)
{
    EXPECT_EQ(8, _setBitValue(0, 3, 1));
    EXPECT_EQ(0xFE, _setBitValue(0xFF, 0, 0));
    EXPECT_EQ(5, _setBitValue(1, 2, 7));  // any non-zero value sets
    EXPECT_EQ(5, _setBitValue(5, 2, 1));  // already set
    EXPECT_EQ(1, _setBitValue(1, 2, 0));  // already clear
    EXPECT_EQ(INT_MIN, _setBitValue(0, 31, 1));
    EXPECT_EQ(INT_MAX, _setBitValue(-1, 31, 0));
    EXPECT_EQ(0x10000, _setBitValue(0, 16, 1));
}

TEST(BitValue, BitNumbersFrom32To255SelectNoBit)
{
    EXPECT_EQ(0x1234, _setBitValue(0x1234, 32, 1));
    EXPECT_EQ(0x1234, _setBitValue(0x1234, 32, 0));
    EXPECT_EQ(0x1234, _setBitValue(0x1234, 40, 1));
    EXPECT_EQ(-1, _setBitValue(-1, 100, 0));
    EXPECT_EQ(0x1234, _setBitValue(0x1234, 255, 1));
}

TEST(ByteHelpers, SixteenBitsLowByteFirst)
{
    EXPECT_EQ(0x1234, uchar2int16(0x34, 0x12));
    EXPECT_EQ(65535, uchar2int16(0xFF, 0xFF));
    EXPECT_EQ(0, uchar2int16(0, 0));
    EXPECT_EQ(256, uchar2int16(0, 1));
}

TEST(ByteHelpers, ThirtyTwoBitsLowByteFirst)
{
    EXPECT_EQ(0x12345678, uchar2int32(0x78, 0x56, 0x34, 0x12));
    EXPECT_EQ(1, uchar2int32(1, 0, 0, 0));
    EXPECT_EQ(0x01000000, uchar2int32(0, 0, 0, 1));
    EXPECT_EQ(0xFFFFFFFFu, static_cast<uint32_t>(uchar2int32(0xFF, 0xFF, 0xFF, 0xFF)));
    EXPECT_EQ(0x80000000u, static_cast<uint32_t>(uchar2int32(0, 0, 0, 0x80)));
}

TEST(ByteHelpers, HexPairOfEitherCase)
{
    EXPECT_EQ(0x1A, asc2hex(QByteArray("1A"), 0));
    EXPECT_EQ(0x1A, asc2hex(QByteArray("1a"), 0));
    EXPECT_EQ(0xFF, asc2hex(QByteArray("ff"), 0));
    EXPECT_EQ(0xFF, asc2hex(QByteArray("FF"), 0));
    EXPECT_EQ(0x09, asc2hex(QByteArray("09"), 0));
    EXPECT_EQ(0x3C, asc2hex(QByteArray("0F3C"), 2));
    EXPECT_EQ(0xF3, asc2hex(QByteArray("0F3C"), 1));
}

TEST(ByteHelpers, HexNibblesByCharacterCode)
{
    EXPECT_EQ(0x00, asc2hex(QByteArray("  "), 0));  // below 48: 0
    EXPECT_EQ(0xA0, asc2hex(QByteArray(":0"), 0));  // 58: low four bits, 10
    EXPECT_EQ(0xF0, asc2hex(QByteArray("?0"), 0));  // 63: 15
    EXPECT_EQ(0x00, asc2hex(QByteArray("@@"), 0));  // 64: 0
    EXPECT_EQ(0x03, asc2hex(QByteArray("GZ"), 0));  // 'G' 71-55=16 -> 0, 'Z' 90-55=35 -> 3
    EXPECT_EQ(0x0A, asc2hex(QByteArray("ga"), 0));  // 'g' 103-55=48 -> 0, 'a' -> 10
}

TEST(ByteHelpers, HexPositionAtOrBeyondTheEndGivesZero)
{
    EXPECT_EQ(0xB0, asc2hex(QByteArray("AB"), 1));
    EXPECT_EQ(0x00, asc2hex(QByteArray("AB"), 2));
    EXPECT_EQ(0x00, asc2hex(QByteArray("AB"), 50));
    EXPECT_EQ(0x00, asc2hex(QByteArray(), 0));
}
