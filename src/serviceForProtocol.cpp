/*
 * Service module: the driver object, the register table and address syntax, the
 * configuration entry points (initialisation, parameters, property page) and multi-copy.
 * The other entry points live with their subsystems, in the order a value travels:
 * planning.cpp (merge), scheduling.cpp and request_kinds.cpp (schedule), replies.cpp (reply),
 * cache.cpp (cache), reports.cpp (report). INTERNALS.md describes how they meet.
 */
#include "ads_ethernet.h"
#include "driver_private.h"

#include <QtCore/QStringList>
#include <QtNetwork/QAbstractSocket>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QNetworkInterface>

#include <string.h>

using namespace drv;

Protocol driver;

Protocol::Protocol()
    : valueChangeCallBack(0), callBackContext(0), initParam1(0), initParam2(0), initParam3(0), maxMergeGap(0),
      hostStatusBlock(0), hostArg2(0), rcpBuffer(0), hostMutex(0), curFrameKind(kFrameNone), priorityCount(0),
      needHandShake(0), errorCount(0), maxBlockBits(0), maxBlockUnits(0), commFailed(0), curFrameIndex(0), initDone(0),
      rcpIndex(0), framesBuilt(0), targetAmsPort(0)
{
    dataAreaList.clear();
    curVar.kind = 0;
    curVar.keyNo = 0;
    curVar.regName = QString::fromLatin1("");
    curVar.address = 0;
    curVar.length = 0;
    memset(curVar.data, 0, sizeof(curVar.data));
    lastVar.kind = 0;
    lastVar.keyNo = 0;
    lastVar.address = 0;
    lastVar.length = 0;
    memset(lastVar.data, 0, sizeof(lastVar.data));
    memset(targetAmsNetId, 0, sizeof(targetAmsNetId));
    memset(sourceIp, 0, sizeof(sourceIp));
    for (int i = 0; i < 6; ++i)
        regNameList.append(REG_LIST[i]);
}

/* Derived from REG_LIST and ADDRESS_RANGE_PRO; see driver_private.h. */
const RegisterRule REGISTER_RULES[8] = {
    {kBitRegister, 1, 8, kReadWrite, kRowIW, 0xF020},
    {kBitRegister, 1, 8, kReadWrite, kRowQW, 0xF030},
    {kBitRegister, 1, 8, kReadWrite, kRowMW, 0x4020},
    {kWordRegister, 16, 8, kReadWrite, kRowIW, 0xF020},
    {kWordRegister, 16, 8, kReadWrite, kRowQW, 0xF030},
    {kWordRegister, 16, 8, kReadWrite, kRowMW, 0x4020},
    {kWordRegister, 16, 8, kReadWrite, kRowSpare, 0x4020},   /* spare row: an unknown name */
    {kBitRegister, 1, 8, kReadWrite, kRowSpare, 0x4020},     /* spare bit row: an unknown name ending in "_bit" */
};

/* ====================================================================================
 * Register table and address syntax
 * ================================================================================== */

int getIndexFromRegName(QString regName)
{
    RegisterRow row = registerRow(regName);
    return row == kRowSpare ? -1 : static_cast<int>(row);
}

int getRegAddressWeight(int keyNo, QString regName, int address, int spare)
{
    (void)spare;
    int n = driver.regNameList.size();
    int idx = driver.regNameList.indexOf(regName);
    /* The step is 65535, not 65536: merging relies on these exact values (INTERNALS.md K5). */
    unsigned int w = static_cast<unsigned int>(keyNo) * static_cast<unsigned int>(n) * 65535u
        + static_cast<unsigned int>(idx) * 65535u + static_cast<unsigned int>(address);
    return static_cast<int>(w);
}

int a2i(QString text, int& address, QString format, QString regName)
{
    if (isBitFormat(format)) {
        int v = addr_str2int(text, regName);
        if (v == -1)
            return -1;
        address = v;
        return 1;
    }
    int base = 10;
    if (!format.isEmpty()) {
        QChar last = format.at(format.size() - 1);
        if (last == QLatin1Char('O'))
            base = 8;
        else if (last == QLatin1Char('H'))
            base = 16;
    }
    bool ok = false;
    int v = text.toInt(&ok, base);
    address = ok ? v : 0;
    return ok ? 1 : -1;
}

int _setBitValue(int value, int bit, int on)
{
    if (bit < 0 || bit > 31)
        return value;
    unsigned int m = 1u << bit;
    unsigned int v = static_cast<unsigned int>(value);
    return static_cast<int>(on ? (v | m) : (v & ~m));
}

int uchar2int16(unsigned char low, unsigned char high) { return low + high * 256; }

int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3)
{
    unsigned int v = static_cast<unsigned int>(b0) | (static_cast<unsigned int>(b1) << 8)
        | (static_cast<unsigned int>(b2) << 16) | (static_cast<unsigned int>(b3) << 24);
    return static_cast<int>(v);
}

namespace {
int nibbleOf(int code)
{
    if (code < 48)
        return 0;
    if (code <= 63)
        return code & 0x0F;
    if (code == 64)
        return 0;
    return (code - 55) % 16;
}
}  // namespace

int asc2hex(QByteArray text, int pos)
{
    long long at = pos;
    int hi = (at >= 0 && at < text.size()) ? nibbleOf(static_cast<unsigned char>(text.at(pos))) : 0;
    int lo = (at + 1 >= 0 && at + 1 < text.size()) ? nibbleOf(static_cast<unsigned char>(text.at(pos + 1))) : 0;
    return (hi * 16 + lo) & 0xFF;
}

namespace {
/* Parses an address text and the row's limits in the row's syntax; false when the text
 * does not fit. `address` receives what a2i leaves in it. */
bool parseWithRow(
    int row, const QString& regName, const QString& addrText, int& address, double& minimum, double& maximum)
{
    const QString& format = ADDRESS_RANGE_PRO[row][0];
    if (a2i(addrText, address, format, regName) == -1)
        return false;
    int maxAddress = 0;
    int minAddress = 0;
    a2i(ADDRESS_RANGE_PRO[row][2], maxAddress, format, regName);
    a2i(ADDRESS_RANGE_PRO[row][1], minAddress, format, regName);
    maximum = maxAddress;
    minimum = minAddress;
    return true;
}

/* The range test of both checks, then the unknown-register result (INTERNALS.md K6). */
int finishAddressCheck(
    int row, const QString& regName, int& address, int count, double factor, double minimum, double maximum)
{
    if (address < minimum)
        return 2;
    if (static_cast<double>(count) / factor + address > maximum + 1)
        return 2;
    if (row < 0)
        return 3;
    address = addrOffset(regName, address);
    return 0;
}

/* What both address checks do after their own tests of the row: the text in the row's
 * syntax (4 when it does not fit), then the range and the unknown register. */
int checkAddressText(int row, const QString& regName, const QString& addrText, int* address, int count, double factor)
{
    int scratch = 0;
    int& addr = address ? *address : scratch;
    double minimum = 0;
    double maximum = 0;
    if (row >= 0 && !parseWithRow(row, regName, addrText, addr, minimum, maximum))
        return 4;
    return finishAddressCheck(row, regName, addr, count, factor, minimum, maximum);
}
}  // namespace

int intf_checkAddr(QString regName, QString addrText, int* address, int dataType, int count, int access)
{
    int row = getIndexFromRegName(regName);
    double factor = 1;
    if (row >= 0) {
        const RegisterRule& rule = REGISTER_RULES[row];
        if ((rule.kind == kBitRegister) != (dataType == -1))
            return 1;
        if (rule.access == kReadOnly && (access == 1 || access == 2))
            return 6;
        if (rule.widthBits == 32 && dataType != 1 && dataType != 3 && dataType != 5 && dataType != 6 && dataType != 9)
            return 5;
        /* A bit takes one address step, any other item a word's steps. */
        factor = dataType != -1 ? 1.0 / rule.stepsPerItem() : 1.0;
    }
    return checkAddressText(row, regName, addrText, address, count, factor);
}

int intf_checkAddrValidity(QString regName, QString addrText, int* address, int count, int isWord)
{
    int row = getIndexFromRegName(regName);
    double factor = 1;
    if (row >= 0) {
        const RegisterRule& rule = REGISTER_RULES[row];
        if ((rule.kind == kBitRegister) == (isWord != 0))
            return 1;
        factor = isWord != 0 ? rule.unitBits : 1.0;
    }
    return checkAddressText(row, regName, addrText, address, count, factor);
}

int intf_getRegListByType(int type, QList<QString>& names)
{
    for (int i = 0; i < 6; ++i)
        if (REGISTER_RULES[i].isBit() == (type == 0))
            names.append(REG_LIST[i]);
    /* 0 tells the host the type is unknown, although the word names were appended (INTERNALS.md K16). */
    return (type == 0 || type == 1) ? 1 : 0;
}

int intf_getRegDiscription(QString regName, QList<QString>& description)
{
    int row = getIndexFromRegName(regName);
    if (row < 0)
        return 0;
    const RegisterRule& rule = REGISTER_RULES[row];
    const char* widthCode = rule.widthBits == 1 ? "0" : (rule.widthBits == 32 ? "2" : "1");
    const char* accessCode = rule.access == kReadOnly ? "0" : (rule.access == kWriteOnly ? "2" : "1");
    description.append(ADDRESS_RANGE_PRO[row][0]);
    description.append(ADDRESS_RANGE_PRO[row][1]);
    description.append(ADDRESS_RANGE_PRO[row][2]);
    description.append(QString::fromLatin1(widthCode));
    description.append(QString::fromLatin1(accessCode));
    return 0;
}

/* ====================================================================================
 * Driver object, parameters and property page
 * ================================================================================== */

void intf_getProtocolType(int* type)
{
    if (type)
        *type = 1;
}

QString intf_getVersion() { return PROCOTOL_VERSION; }

void intf_setAddrValueChangeCallBack(VALUE_CHANGE_CALLBACK callback) { driver.valueChangeCallBack = callback; }

int intf_initProperty(
    void* hostStatusBlock, void* hostArg2, void* rcpBuffer, int* mode, const char* initString, QMutex* hostMutex)
{
    if (mode)
        *mode = 2;
    QStringList parts = QString::fromLatin1(initString ? initString : "").split(QLatin1String("#"));
    if (parts.size() >= 5) {
        driver.callBackContext = toIntOrZero(parts.at(0));
        driver.initParam1 = toIntOrZero(parts.at(1));
        driver.initParam2 = toIntOrZero(parts.at(2));
        driver.initParam3 = toIntOrZero(parts.at(3));
        driver.maxMergeGap = toIntOrZero(parts.at(4));
    }
    driver.hostStatusBlock = static_cast<unsigned char*>(hostStatusBlock);
    driver.hostArg2 = hostArg2;
    driver.rcpBuffer = static_cast<unsigned char*>(rcpBuffer);
    driver.hostMutex = hostMutex;
    driver.readList.clear();
    /* The recipe lists and cursor stay (INTERNALS.md K17). */
    {
        DriverLock lock;
        driver.conditionReadList.clear();
        driver.writeList.clear();
        driver.dataAreaList.clear();
        driver.dataAreaIndex.clear();
    }
    driver.curFrameKind = kFrameNone;
    driver.priorityCount = 0;
    driver.errorCount = 0;
    driver.commFailed = 0;
    driver.maxBlockUnits = driver.maxMergeGap;
    driver.maxBlockBits = wrapMul(driver.maxMergeGap, 8);
    driver.needHandShake = 1;
    driver.frameList.clear();
    driver.curFrameIndex = 0;
    driver.initDone = 1;
    return 1;
}

void intf_getDriverParameter(QString& parameter)
{
    QString registers;
    for (int i = 0; i < driver.regNameList.size(); ++i) {
        if (i > 0)
            registers += QLatin1Char(',');
        registers += driver.regNameList.at(i);
    }
    parameter = QString::fromLatin1("%1,%2,%3,%4,%5,%6,%7")
                    .arg(0)
                    .arg(PROCOTOL_DEFALT_COM_PAR)
                    .arg(0)
                    .arg(1)
                    .arg(PROCOTOL_DEFALT_IP_PAR)
                    .arg(PROCOTOL_NAME)
                    .arg(registers);
}

void intf_getDriverPropertyPage(QString& page) { page = PROCOTOL_PAR_HMI_SET_MODE; }

QString selectOwnIpv4Address(const QList<QHostAddress>& addresses, const QList<QString>& netIdParts)
{
    const QHostAddress loopback(QHostAddress::LocalHost);
    for (int i = 0; i < addresses.size(); ++i) {
        const QHostAddress& a = addresses.at(i);
        if (a.protocol() != QAbstractSocket::IPv4Protocol || a.isNull() || a == loopback)
            continue;
        QString text = a.toString();
        /* A substring test, not a subnet test (INTERNALS.md K7): the first two numbers of the
         * PLC's Net ID pick the panel's interface. */
        if (netIdParts.size() < 2 || (text.contains(netIdParts.at(0)) && text.contains(netIdParts.at(1))))
            return text;
    }
    return QString();
}

void intf_SetDriverPropertyPage(QString settings)
{
    QStringList parts = settings.split(QLatin1String(","));
    if (parts.size() != 3)
        return;
    QStringList netId = parts.at(1).split(QLatin1String("."));
    if (netId.size() == 6)
        for (int i = 0; i < 6; ++i)
            driver.targetAmsNetId[i] = static_cast<unsigned char>(toIntOrZero(netId.at(i)));
    driver.targetAmsPort = toIntOrZero(parts.at(2));

    QList<QString> netIdParts;
    for (int i = 0; i < netId.size(); ++i)
        netIdParts.append(netId.at(i));
    QString own = selectOwnIpv4Address(QNetworkInterface::allAddresses(), netIdParts);
    QStringList ip = own.split(QLatin1String("."));
    if (ip.size() == 4)
        for (int i = 0; i < 4; ++i)
            driver.sourceIp[i] = static_cast<unsigned char>(toIntOrZero(ip.at(i)));
}

/* ====================================================================================
 * Multi-copy address generation
 * ================================================================================== */

int multiCp(QString regName, QString format, int start, int count, int interval, QVector<QString>& texts,
    QVector<int>& numbers, int maxNumber, QString maxText)
{
    if (count < 1)
        return 1;
    const RegisterRule& rule = ruleOf(regName);
    int result = 1;
    for (int i = 0; i < count; ++i) {
        /* -1: a word item's steps, -2: a double word's; a bit register steps one bit. */
        int step = 1;
        if (interval == -1)
            step = rule.stepsPerItemOf(16);
        else if (interval == -2)
            step = rule.stepsPerItemOf(32);
        else if (interval > 0)
            step = interval;
        int address = wrapAdd(start, wrapMul(i, step));
        if (address > maxNumber) {
            /* Past the range: the largest address stands in, and the series goes on. */
            numbers.append(maxNumber);
            texts.append(maxText);
            result = 2;
            continue;
        }
        char text[32];
        int length = formatAddress(text, address, regName, format);
        if (length == 0)
            return 2; /* a format with a point for a register without bits */
        numbers.append(address);
        texts.append(QString::fromLatin1(text, length));
    }
    return result;
}

int intf_multiCopy(QString* regName, int start, int count, int interval, QVector<QString>* texts, QVector<int>* numbers)
{
    if (!regName || !texts || !numbers)
        return 0;
    int row = getIndexFromRegName(*regName);
    if (row < 0)
        return 0;
    const QString& format = ADDRESS_RANGE_PRO[row][0];
    const QString& maxText = ADDRESS_RANGE_PRO[row][2];
    int maxNumber = 0;
    a2i(maxText, maxNumber, format, *regName);
    return multiCp(*regName, format, start, count, interval, *texts, *numbers, maxNumber, maxText);
}
