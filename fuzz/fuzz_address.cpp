// Fuzz target: the address syntax and the configuration strings.
//
// Any text reaches intf_checkAddr, intf_checkAddrValidity, a2i, addr_str2int,
// intf_SetDriverPropertyPage and intf_initProperty (the status block, the recipe buffer and
// the mutex handed in stay valid); intf_multiCopy gets any register name, start and interval
// with a count of 0..64 (the host's vectors must hold what it asks for).
//
// Input layout: one selector byte, four bytes of integers, then texts separated by 0x00
// (missing texts are empty). A seed may also be a bare address text such as "10.3": its
// first byte then selects the operation and the rest is the text.
#include "ads_ethernet.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

std::vector<unsigned char> gStatus(65536);
std::vector<unsigned char> gRecipe(16384);
QMutex gHostMutex;

[[noreturn]] void fail(const char* what)
{
    fprintf(stderr, "fuzz_address: contract broken: %s\n", what);
    abort();
}

int callback(int, int, QString, int) { return 0; }

struct Parts {
    int selector = 0;
    int32_t number = 0;
    QList<QByteArray> texts;
    QString text(int i) const
    {
        return i < texts.size() ? QString::fromLatin1(texts.at(i).constData(), texts.at(i).size()) : QString();
    }
    QString utf8(int i) const { return i < texts.size() ? QString::fromUtf8(texts.at(i)) : QString(); }
};

Parts split(const uint8_t* data, size_t size)
{
    Parts p;
    if (size == 0)
        return p;
    p.selector = data[0];
    size_t pos = 1;
    uint32_t n = 0;
    for (int i = 0; i < 4 && pos < size; ++i, ++pos)
        n |= static_cast<uint32_t>(data[pos]) << (8 * i);
    p.number = static_cast<int32_t>(n);
    QByteArray rest(
        reinterpret_cast<const char*>(data + (pos < size ? pos : size)), static_cast<int>(pos < size ? size - pos : 0));
    p.texts = rest.split('\0');
    return p;
}

const char* const kNames[8] = {"I_bit", "Q_bit", "M_bit", "I_W", "Q_W", "M_W", "X_W", ""};

// A register name: one of the table's most of the time, any text otherwise.
QString regNameFrom(const Parts& p, int textIndex)
{
    int pick = (p.selector >> 4) & 7;
    if (pick < 6)
        return QString::fromLatin1(kNames[pick]);
    return p.text(textIndex);
}

void checkAddresses(const Parts& p)
{
    QString reg = regNameFrom(p, 1);
    QString text = p.utf8(0);
    int count = p.number & 0xFFFF;
    int dataType = (p.number >> 16) & 1 ? -1 : static_cast<int8_t>(p.number >> 24);
    int access = (p.number >> 17) & 3;
    int address = p.number;
    int r = intf_checkAddr(reg, text, &address, dataType, count, access);
    if (r < 0 || r > 6)
        fail("intf_checkAddr result outside 0..6");
    if (r == 0 && getIndexFromRegName(reg) < 0)
        fail("an unknown register accepted");
    address = p.number;
    r = intf_checkAddrValidity(reg, text, &address, count, (p.number >> 18) & 1);
    if (r < 0 || r > 4)
        fail("intf_checkAddrValidity result outside 0..4");
    intf_checkAddr(reg, text, nullptr, dataType, count, access);
}

void conversions(const Parts& p)
{
    QString text = p.utf8(0);
    QString reg = regNameFrom(p, 2);
    QString format = p.text(1);
    int address = 7;
    int r = a2i(text, address, format, reg);
    if (r != 1 && r != -1)
        fail("a2i result");
    int v = addr_str2int(text, reg);
    QString back = addr_int2str(v, reg);
    if (reg.endsWith(QLatin1String("_bit")) && v >= 0 && back.isEmpty())
        fail("addr_int2str gave no text for a bit register");
    addr_int2str(p.number, reg);
    getRegAddressWeight(p.number, reg, static_cast<int>(static_cast<uint32_t>(p.number) * 3u), 0);
    QByteArray raw = p.texts.isEmpty() ? QByteArray() : p.texts.at(0);
    int h = asc2hex(raw, p.number);
    if (h < 0 || h > 255)
        fail("asc2hex outside a byte");
    asc2hex(raw, static_cast<int>(static_cast<int16_t>(p.number)));
    QList<QString> description;
    intf_getRegDiscription(reg, description);
    QList<QString> names;
    intf_getRegListByType(p.number, names);
    _setBitValue(p.number, p.selector, p.number & 1);
}

void settings(const Parts& p)
{
    // Any settings text; the page description itself and lists of commas among them.
    intf_SetDriverPropertyPage(p.utf8(0));
}

void initString(const Parts& p)
{
    QByteArray init = p.texts.isEmpty() ? QByteArray() : p.texts.at(0);
    int mode = 0;
    int r = intf_initProperty(gStatus.data(), 0, gRecipe.data(), &mode, init.constData(), &gHostMutex);
    if (r != 1 || mode != 2)
        fail("intf_initProperty result");
    if (driver.maxBlockUnits != driver.maxMergeGap)
        fail("maxBlockUnits differs from maxMergeGap");
    // A reset always leads to the handshake.
    FRAME_PRO* f = new FRAME_PRO;
    if (intf_getSendFrame(f) != 1 || f->sendLen != 78)
        fail("no handshake after intf_initProperty");
    delete f;
}

void multiCopy(const Parts& p)
{
    QString reg = regNameFrom(p, 0);
    int start = p.number;
    int count = p.selector % 65;
    int interval
        = p.texts.size() > 1 && p.texts.at(1).size() >= 1 ? static_cast<int8_t>(p.texts.at(1).at(0)) : (p.number >> 8);
    QVector<QString> texts;
    QVector<int> numbers;
    texts.append(QString::fromLatin1("kept"));
    numbers.append(-7);
    int r = intf_multiCopy(&reg, start, count, interval, &texts, &numbers);
    if (r < 0 || r > 2)
        fail("intf_multiCopy result");
    if (texts.size() != numbers.size())
        fail("intf_multiCopy vectors out of step");
    if (texts.size() > 1 + count)
        fail("intf_multiCopy appended more than count items");
    if (texts.at(0) != QLatin1String("kept") || numbers.at(0) != -7)
        fail("intf_multiCopy changed items it was handed");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    (void)argc;
    (void)argv;
    int mode = 0;
    intf_initProperty(gStatus.data(), 0, gRecipe.data(), &mode, "1#0#0#3#64", &gHostMutex);
    intf_setAddrValueChangeCallBack(callback);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Parts p = split(data, size);
    switch (p.selector % 8) {
    case 0:
    case 1:
    case 2:
        checkAddresses(p);
        break;
    case 3:
    case 4:
        conversions(p);
        break;
    case 5:
        settings(p);
        break;
    case 6:
        initString(p);
        break;
    default:
        multiCopy(p);
        break;
    }
    // A bare address text as the whole input, too.
    if (size > 0 && size < 64) {
        QString whole = QString::fromLatin1(reinterpret_cast<const char*>(data), static_cast<int>(size));
        int address = 0;
        intf_checkAddr(QString::fromLatin1("M_bit"), whole, &address, -1, 1, 0);
        intf_checkAddr(QString::fromLatin1("M_W"), whole, &address, 3, 1, 0);
        addr_str2int(whole, QString::fromLatin1("I_bit"));
    }
    return 0;
}
