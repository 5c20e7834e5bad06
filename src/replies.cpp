/*
 * Reply handling: the error text of the frame in flight, the reply checked against it, the
 * bytes of a read stored in the cache, a bit write completed, a recipe read copied out.
 */
#include "ads_ethernet.h"
#include "driver_private.h"

#include <string.h>

using namespace drv;

/* ====================================================================================
 * Reply handling
 * ================================================================================== */

namespace {
/* The longest error text. */
const int kErrorTextSize = 160;

/* The error text of the frame in flight, "key#REGISTERaddress(length)(reply size)", into a
 * character buffer of at least kErrorTextSize bytes; its length, 0 when the frame names no register
 * (the handshake). Built without the heap: it runs for every reply. */
int formatErrorInfo(int replySize, char* buf)
{
    if (driver.frameList.isEmpty())
        return 0;
    const VARIABLE& v = headOf(driver.frameList).var;
    RegisterRow row = registerRow(v.regName);
    if (row == kRowSpare)
        return 0;
    int n = appendDecimal(buf, 0, v.keyNo);
    buf[n++] = '#';
    const QChar* name = v.regName.constData();
    for (int i = 0; i < v.regName.size() && n < 100; ++i)
        buf[n++] = name[i].toLatin1();
    n += formatAddress(buf + n, v.address, v.regName, ADDRESS_RANGE_PRO[row][0]);
    buf[n++] = '(';
    n = appendDecimal(buf, n, v.length);
    buf[n++] = ')';
    buf[n++] = '(';
    n = appendDecimal(buf, n, replySize);
    buf[n++] = ')';
    return n;
}
}  // namespace

QString getErrorInfo(QByteArray reply)
{
    char buf[kErrorTextSize];
    int n = formatErrorInfo(static_cast<int>(reply.size()), buf);
    return QString::fromLatin1(buf, n);
}

int dealReadFrameReturnSaveData(QByteArray reply)
{
    if (driver.frameList.isEmpty())
        return 0;
    const FRAME_PRO& head = headOf(driver.frameList);
    requestKindOf(driver.curFrameKind).settleData(ReplyBytes(reply), head.readLen, head.dataStart, head.var);
    return 0;
}

void analyzeFrameOfVal(QByteArray reply, int readLen, int dataStart, VARIABLE var)
{
    requestKindOf(driver.curFrameKind).settleData(ReplyBytes(reply), readLen, dataStart, var);
}

namespace drv {

void completeBitWrite(const ReplyBytes& reply, int readLen, int dataStart, const VARIABLE& var)
{
    unsigned char bytes[kBufferSize];
    int n = clampInt(readLen, 0, kBufferSize);
    for (int k = 0; k < n; ++k)
        bytes[k] = reply.at(static_cast<long long>(dataStart) + k);
    for (int i = 0; i < var.length && i < kBufferSize; ++i) {
        long long p = static_cast<long long>(var.address % 8) + i;
        if (p < 0)
            continue;
        long long k = p / 8;
        if (k >= n)
            break;
        unsigned char m = static_cast<unsigned char>(1u << (p % 8));
        if (var.data[i] != 0)
            bytes[k] = static_cast<unsigned char>(bytes[k] | m);
        else
            bytes[k] = static_cast<unsigned char>(bytes[k] & ~m);
    }
    if (driver.frameList.size() < 2)
        return;
    FRAME_PRO& write = driver.frameList[1];
    if (write.dataStart < 0 || write.dataStart >= kBufferSize)
        return;
    int room = kBufferSize - write.dataStart;
    memcpy(write.frame + write.dataStart, bytes, static_cast<size_t>(n < room ? n : room));
}

}  // namespace drv

namespace {

/* A read value differs from the cache: a pending bit write keeps showing the written
 * value; otherwise the host is shown the value read. */
void applyWriteFlagRule(_DATA_& d)
{
    if (!(d.bitWriteState != 0 && !driver.writeList.isEmpty()))
        d.writeFlag = 0;
}

}  // namespace

namespace drv {

/* Every register addresses bytes, one cached unit per reply byte; a changed byte is
 * reported at once. From an unchanged byte's unit the units of the next bytes are followed
 * as long as they hold the next bytes unchanged, without a look-up each. The variable is read
 * before the first report: it may be the frame in flight, and a callback may end that
 * frame. */
void storeReadBytes(const ReplyBytes& bytes, int readLen, int dataStart, const VARIABLE& var)
{
    const int address = var.address;
    DriverLock lock;
    Reports r;
    ConsecutiveUnits units(var.keyNo, areaNameIdOfRegister(var.regName));
    for (int j = 0; j < readLen; ++j) {
        int position = units.next(wrapAdd(address, j));
        unsigned char newByte = bytes.at(static_cast<long long>(dataStart) + j);
        if (constUnitAt(position).value[0] == newByte) {
            int available = 0;
            const unsigned char* run
                = bytes.from(static_cast<long long>(dataStart) + j + 1, readLen - j - 1, available);
            j += units.skipEqual(run, available);
            continue;
        }
        _DATA_& d = unitAt(position);
        applyWriteFlagRule(d);
        unsigned char oldByte = d.value[0];
        d.value[0] = newByte;
        collectByteReports(d, &oldByte, &newByte, 0, r);
        fireUnlocked(r, lock);
    }
}

RecipeSpan recipeSpanOfCurrentBlock()
{
    RecipeSpan span = {0, 0};
    int blocks = driver.rcpBlockStartList.size();
    int idx = driver.rcpIndex;
    if (idx >= 0 && idx < blocks) {
        int vars = driver.rcpVarList.size();
        span.from = clampInt(driver.rcpBlockStartList.at(idx), 0, vars);
        span.to = clampInt(idx == blocks - 1 ? vars : driver.rcpBlockStartList.at(idx + 1), 0, vars);
    }
    return span;
}

/* Each byte is reported, so each word twice (INTERNALS.md K15). */
void copyRecipeBytes(const ReplyBytes& bytes, int dataStart, const RecipeSpan& span)
{
    if (span.from >= span.to || !driver.rcpBuffer)
        return;
    static const QString recipeText = QString::fromLatin1("RWI");
    int firstAddress = driver.rcpVarList.at(span.from).address;
    for (int e = span.from; e < span.to; ++e) {
        const _RCP_VAR_PRO item = driver.rcpVarList.at(e);
        long long bytesOfItem = static_cast<long long>(kWordBytes) * item.length;
        for (long long j = 0; j < bytesOfItem; ++j) {
            long long from
                = static_cast<long long>(dataStart) + (static_cast<long long>(item.address) - firstAddress) + j;
            long long to = static_cast<long long>(kWordBytes) * item.rcpDataIndex + j;
            if (to < 0)
                continue;
            driver.rcpBuffer[to] = bytes.at(from);
            if (driver.valueChangeCallBack)
                driver.valueChangeCallBack(0, -1, recipeText, static_cast<int>(item.rcpDataIndex + j / kWordBytes));
        }
    }
}

}  // namespace drv

namespace {

/* The same text getErrorInfo() gives, written into the host's string in place so that a
 * host that keeps its string reuses its storage. */
void writeErrorText(int replySize, QString& errorText)
{
    char text[kErrorTextSize];
    int textLength = formatErrorInfo(replySize, text);
    /* Room for the longest text, marked as reserved: Qt 4 would otherwise give the buffer back
     * whenever a text is less than half as long as the buffer, and take a new one for the next
     * longer text (twice per round of the read list when block addresses differ in digits).
     * Only when short of room: Qt 6 reallocates on a reserve of exactly its capacity. */
    if (textLength > 0 && errorText.capacity() < kErrorTextSize)
        errorText.reserve(kErrorTextSize);
    errorText.resize(textLength);
    QChar* out = textLength > 0 ? errorText.data() : 0;
    for (int i = 0; i < textLength; ++i)
        out[i] = QLatin1Char(text[i]);
}

/* A rejected reply: the frame is sent again, or at the retry limit the request is given up
 * and its kind finishes it as such. commFailed is set for those who read the field; the
 * driver itself passes the outcome on. */
int retryOrGiveUp(const RequestKind& kind)
{
    driver.errorCount += 1;
    if (driver.errorCount < driver.initParam3)
        return 8;
    driver.commFailed = 1;
    kind.giveUp(headOf(driver.frameList).var);
    removeAllFrames(); /* a queued write of a bit write goes with it */
    driver.errorCount = 0;
    kind.finish(kind, kRequestGivenUp);
    return 2;
}

}  // namespace

int intf_dealRcvFrame(QByteArray& reply, QString& errorText)
{
    if (driver.frameList.isEmpty()) {
        errorText = QString();
        return 0;
    }
    writeErrorText(static_cast<int>(reply.size()), errorText);
    const RequestKind& kind = requestKindOf(driver.curFrameKind);
    /* The check looks at the length alone (INTERNALS.md K21): an empty list, not a copy of
     * curReadList, is handed to it. */
    int r = check_rcv_data(
        reinterpret_cast<unsigned char*>(const_cast<char*>(reply.constData())), QList<VARIABLE>(), reply.size());
    if (r == 1) {
        driver.commFailed = 0;
        const FRAME_PRO& head = headOf(driver.frameList);
        kind.settleData(ReplyBytes(reply), head.readLen, head.dataStart, head.var);
    } else if (r == 2) {
        kind.settleAck(headOf(driver.frameList).var);
        /* A reply that fills the host's buffer may go on: keep the frame and wait (INTERNALS.md K18). */
        if (reply.size() == kBufferSize)
            return 3;
        driver.commFailed = 0;
    } else if (r == 0) {
        return retryOrGiveUp(kind);
    } else {
        return 0;
    }
    removeHeadFrame();
    if (driver.frameList.isEmpty())
        kind.finish(kind, kRequestAnswered);
    driver.errorCount = 0;
    return 1;
}
