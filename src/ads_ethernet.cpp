/*
 * Frame building: the AMS/TCP request frames (handshake, read, write), the reply length
 * check, and the address conversions shared with address planning.
 *
 * Every frame is built byte by byte, little-endian, into the fixed 1024-byte array of a
 * FRAME_PRO at the end of driver.frameList (appendFrame); the host fetches the head with
 * intf_getSendFrame().
 */
#include "ads_ethernet.h"
#include "driver_private.h"

#include <QtCore/QStringList>

#include <stdio.h>
#include <string.h>

using namespace drv;

namespace {

const int kFrameSize = 1024;
const int kReadReplyDataStart = 46; /* header, 4-byte result, 4-byte length */
const int kWriteDataStart = 50;     /* header, index group, index offset, length */

const unsigned short kCmdAddDeviceNotification = 6;
const unsigned short kCmdRead = 2;
const unsigned short kCmdWrite = 3;
const unsigned short kStateFlagsRequest = 0x0004;
/* The handshake and the other requests come from different source ports (INTERNALS.md K1). */
const unsigned short kHandshakeTargetPort = 100;
const unsigned short kHandshakeSourcePort = 0x80BB;
const unsigned short kRequestSourcePort = 0x8147;

void putLe16(unsigned char* p, unsigned int v)
{
    p[0] = static_cast<unsigned char>(v & 0xFF);
    p[1] = static_cast<unsigned char>((v >> 8) & 0xFF);
}

void putLe32(unsigned char* p, unsigned int v)
{
    p[0] = static_cast<unsigned char>(v & 0xFF);
    p[1] = static_cast<unsigned char>((v >> 8) & 0xFF);
    p[2] = static_cast<unsigned char>((v >> 16) & 0xFF);
    p[3] = static_cast<unsigned char>((v >> 24) & 0xFF);
}

/* A FRAME_PRO's frame bytes and fields zero; its var as it was. */
void clearFrameBytes(FRAME_PRO& f)
{
    memset(f.frame, 0, sizeof(f.frame));
    f.sendLen = 0;
    f.recvLen = 0;
    f.dataStart = 0;
    f.readLen = 0;
    f.spareField = 0;
}

/* A FRAME_PRO with every byte and field zero (the var's text empty). */
void clearFrame(FRAME_PRO& f)
{
    clearFrameBytes(f);
    f.var.kind = 0;
    f.var.keyNo = 0;
    f.var.regName = QString();
    f.var.address = 0;
    f.var.length = 0;
    memset(f.var.data, 0, sizeof(f.var.data));
}

/* The node of the last finished frame, parked for the next one. QList keeps an item as large
 * as a FRAME_PRO in a heap node of its own, so appending and removing one frame per request
 * would allocate on every polling cycle. A request's frames are built in the parked node
 * instead: when frameList runs empty its one node moves here, and when the next frame is
 * appended to the empty list it moves back; both moves swap whole lists, which allocates
 * nothing. At most one node is parked, and only the polling thread (and configuration calls)
 * touch it, as they do frameList. */
QList<FRAME_PRO> parkedFrames;

/* The 38 header bytes shared by every request. The length fields are written by the
 * caller, since a write sets only their low bytes. */
void fillAmsHeader(unsigned char* f, unsigned short targetPort, unsigned short sourcePort, unsigned short command,
    unsigned int invokeId)
{
    f[0] = 0;
    f[1] = 0;
    memcpy(f + 6, driver.targetAmsNetId, 6);
    putLe16(f + 12, targetPort);
    memcpy(f + 14, driver.sourceIp, 4);
    f[18] = 1;
    f[19] = 1;
    putLe16(f + 20, sourcePort);
    putLe16(f + 22, command);
    putLe16(f + 24, kStateFlagsRequest);
    putLe32(f + 30, 0); /* error code */
    putLe32(f + 34, invokeId);
}

/* What a read or write request of `v` goes to: the index group of the word register that
 * holds its items and the bytes it covers. A bit item is read and written as the whole bytes
 * that hold its bits. */
struct RequestTarget {
    unsigned int indexGroup;
    ByteSpan bytes;
    bool bits;
};

RequestTarget requestTarget(const VARIABLE& v)
{
    const RegisterRow row = addressingRow(v.regName);
    const RegisterRule& rule = REGISTER_RULES[row];
    RequestTarget t;
    t.indexGroup = REGISTER_RULES[wordRowBehind(v.regName, row)].indexGroup;
    /* A request's length counts address steps: bits, or bytes of a word register. */
    t.bytes = rule.spanOfSteps(v.address, v.length);
    t.bits = rule.isBit();
    return t;
}

}  // namespace

namespace drv {

namespace {
/* The last node of frameList: the parked one when the list is empty, else a new one. Its
 * contents are whatever they were. */
FRAME_PRO& appendNode()
{
    QList<FRAME_PRO>& list = driver.frameList;
    if (list.isEmpty() && !parkedFrames.isEmpty())
        list.swap(parkedFrames);
    else
        list.append(FRAME_PRO());
    return *(list.end() - 1);
}
}  // namespace

FRAME_PRO& appendFrame()
{
    FRAME_PRO& frame = appendNode();
    clearFrame(frame);
    return frame;
}

FRAME_PRO& appendFrame(const VARIABLE& var)
{
    FRAME_PRO& frame = appendNode();
    clearFrameBytes(frame);
    copyVariable(frame.var, var);
    return frame;
}

void removeHeadFrame()
{
    QList<FRAME_PRO>& list = driver.frameList;
    if (list.isEmpty())
        return;
    if (list.size() == 1 && parkedFrames.isEmpty())
        list.swap(parkedFrames);
    else
        list.removeFirst();
}

void removeAllFrames()
{
    while (driver.frameList.size() > 1)
        driver.frameList.removeLast();
    removeHeadFrame();
}

}  // namespace drv

void handShakeFrame()
{
    FRAME_PRO& fp = appendFrame();
    unsigned char* f = fp.frame;
    fillAmsHeader(f, kHandshakeTargetPort, kHandshakeSourcePort, kCmdAddDeviceNotification, 7);
    putLe32(f + 2, 72);
    putLe32(f + 26, 40);
    putLe32(f + 38, 1);          /* index group */
    putLe32(f + 42, 0x0000FFFF); /* index offset */
    putLe32(f + 46, 1024);       /* length */
    putLe32(f + 50, 3);          /* transmission mode */
    putLe32(f + 54, 0);          /* max delay */
    putLe32(f + 58, 0);          /* cycle time; 16 reserved zero bytes follow */
    fp.sendLen = 78;
    fp.recvLen = 46;
    fp.dataStart = 0;
    fp.readLen = 0;
}

int check_rcv_data(unsigned char* data, QList<VARIABLE> readList, int len)
{
    (void)data;
    (void)readList;
    if (driver.frameList.isEmpty())
        return 0;
    const FRAME_PRO& head = driver.frameList.first();
    if (driver.needHandShake) {
        /* A reply that fills the host's whole buffer may not be complete yet. */
        if (len == kFrameSize)
            return 2;
        /* The handshake reply may be longer than 46 bytes: its length is a minimum. */
        if (len < head.recvLen)
            return 0;
        driver.needHandShake = 0;
        return 2;
    }
    if (len != head.recvLen)
        return 0;
    return head.readLen != 0 ? 1 : 2;
}

unsigned short computate_check(unsigned char* buf, unsigned short len)
{
    unsigned short crc = 0xFFFF;
    for (unsigned short i = 0; i < len; ++i) {
        crc ^= buf[i];
        for (int b = 0; b < 8; ++b) {
            if (crc & 1)
                crc = static_cast<unsigned short>((crc >> 1) ^ 0xA001);
            else
                crc = static_cast<unsigned short>(crc >> 1);
        }
    }
    return crc;
}

int getReadFrame(QList<VARIABLE> list)
{
    if (list.isEmpty())
        return 1;
    const VARIABLE& v = list.at(0);
    const RequestTarget target = requestTarget(v);
    const int byteCount = target.bytes.count;

    FRAME_PRO& fp = appendFrame(v);
    unsigned char* f = fp.frame;
    fillAmsHeader(f, static_cast<unsigned short>(driver.targetAmsPort), kRequestSourcePort, kCmdRead, 0);
    putLe32(f + 2, 44);
    putLe32(f + 26, 12);
    putLe32(f + 38, target.indexGroup);
    putLe32(f + 42, static_cast<unsigned int>(target.bytes.first));
    putLe32(f + 46, static_cast<unsigned int>(byteCount));
    fp.sendLen = 50;
    fp.recvLen
        = static_cast<int>(static_cast<unsigned int>(kReadReplyDataStart) + static_cast<unsigned int>(byteCount));
    fp.dataStart = kReadReplyDataStart;
    fp.readLen = byteCount;
    return 1;
}

int allMix_GetDataStartPosition(QByteArray reply, QList<VARIABLE> list, int n)
{
    (void)reply;
    (void)list;
    if (driver.frameList.isEmpty())
        return 0;
    int start = driver.frameList.first().dataStart;
    if (driver.framesBuilt < 1 || n <= 0)
        return start;
    int counted = n < driver.framesBuilt ? n : driver.framesBuilt;
    return start + 4 * counted;
}

int allMix_GetRecvLenFromReadList(QList<VARIABLE> list)
{
    for (int i = 0; i < list.size(); ++i) { }
    return 0;
}

void getWriteFrame(VARIABLE& var)
{
    const RequestTarget target = requestTarget(var);
    const int byteCount = target.bytes.count;
    if (target.bits) {
        /* Read-modify-write: the read of the covering bytes goes first; its reply fills
         * this frame's data bytes (zero placeholders until then). */
        QList<VARIABLE> one;
        one.append(var);
        getReadFrame(one);
    }
    FRAME_PRO& fp = appendFrame(var);
    unsigned char* f = fp.frame;
    if (!target.bits && byteCount > 0) {
        /* The copy stops at the end of the 1024-byte frame. */
        int n = byteCount < kFrameSize - kWriteDataStart ? byteCount : kFrameSize - kWriteDataStart;
        memcpy(f + kWriteDataStart, var.data, static_cast<size_t>(n));
    }
    fillAmsHeader(f, static_cast<unsigned short>(driver.targetAmsPort), kRequestSourcePort, kCmdWrite, 0);
    /* Only the low bytes of the two length fields are set (INTERNALS.md K2). */
    unsigned int n = static_cast<unsigned int>(byteCount);
    f[2] = static_cast<unsigned char>((n + 44) & 0xFF);
    f[3] = f[4] = f[5] = 0;
    f[26] = static_cast<unsigned char>((n + 12) & 0xFF);
    f[27] = f[28] = f[29] = 0;
    putLe32(f + 38, target.indexGroup);
    putLe32(f + 42, static_cast<unsigned int>(target.bytes.first));
    putLe32(f + 46, n);
    int sendLen = static_cast<int>(n + kWriteDataStart);
    /* Never ask the host to send more than the frame holds. */
    fp.sendLen = (sendLen > kFrameSize || sendLen < 0) ? kFrameSize : sendLen;
    fp.recvLen = 42;
    fp.dataStart = kWriteDataStart;
    fp.readLen = 0;
}

/* ---------------------------------------------------------------- address conversions */

int addr_str2int(QString text, QString regName)
{
    const RegisterRule& rule = addressingRuleOf(regName);
    if (!rule.isBit())
        return 0;
    QStringList parts = text.split(QLatin1String("."));
    if (parts.size() != 2)
        return -1;
    bool okByte = false;
    bool okBit = false;
    int byteNo = parts.at(0).toInt(&okByte, 10);
    int bitNo = parts.at(1).toInt(&okBit, 10);
    if (!okByte || !okBit)
        return -1;
    /* The bit part is not limited to 0..7: 10.9 is the same bit as 11.1 (INTERNALS.md K3). */
    return wrapAdd(wrapMul(byteNo, rule.unitBits), bitNo);
}

namespace drv {

int appendDecimal(char* buf, int n, long long v)
{
    char digits[24];
    int count = 0;
    unsigned long long u = v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
    do {
        digits[count++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    if (v < 0)
        buf[n++] = '-';
    while (count > 0)
        buf[n++] = digits[--count];
    return n;
}

int formatAddress(char* buf, int address, const QString& regName, const QString& format)
{
    if (isBitFormat(format)) {
        const RegisterRule& rule = addressingRuleOf(regName);
        if (!rule.isBit())
            return 0;
        int n = appendDecimal(buf, 0, rule.unitOfBit(address));
        buf[n++] = '.';
        return appendDecimal(buf, n, rule.bitInUnit(address));
    }
    QChar c = format.isEmpty() ? QChar() : format.at(0);
    unsigned int a = static_cast<unsigned int>(address);
    if (c == QLatin1Char('H'))
        return snprintf(buf, 32, "%x", a);
    if (c == QLatin1Char('O'))
        return snprintf(buf, 32, "%o", a);
    return appendDecimal(buf, 0, a);
}

}  // namespace drv

QString addr_int2str(int address, QString regName)
{
    if (!addressingRuleOf(regName).isBit())
        return QString();
    char text[32];
    return QString::fromLatin1(text, formatAddress(text, address, regName, QLatin1String("D.D")));
}

int addrOffset(QString regName, int address)
{
    /* The one place where a register-specific offset would be applied; this PLC needs none. */
    (void)regName;
    return address;
}

int judgeAddrMerge(KEY_ADDRESS block, KEY_ADDRESS next, int gapMode)
{
    if (block.keyNo != next.keyNo || block.regName != next.regName)
        return 1;
    int end = static_cast<int>(static_cast<unsigned int>(block.address) + static_cast<unsigned int>(block.length));
    int gap = static_cast<int>(static_cast<unsigned int>(next.address) - static_cast<unsigned int>(end));
    int limit = gapMode == 0 ? 0 : driver.maxMergeGap;
    return gap > limit ? 1 : 0;
}
