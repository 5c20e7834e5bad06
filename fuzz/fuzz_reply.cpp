// Fuzz target: the polling cycle with arbitrary reply bytes.
//
// The input first configures the driver the way a host does (initialisation string, screen
// addresses, recipe variables), always inside the host's side of the contract: retries 1..5,
// merge gap 0..128, addresses that intf_checkAddr accepts, recipe variables of at most
// 64 words (128 bits) whose data lie inside the recipe buffer, a status block that covers the
// recipe flag bytes 60115 and 60116. It then runs a bounded sequence of host actions: polling
// turns (intf_getSendFrame, then intf_dealRcvFrame with reply bytes taken from the input, of
// any length from 0 to 2000, exactly 1024 included), writes of words and bits, condition
// reads and recipe requests. The value-change callback reads values back with intf_getData.
//
// Input layout (all fields are single bytes unless said otherwise; missing bytes read as 0):
//   header   8 bytes: retries-1, merge gap, flags (bit 0: initParam1), screen key count,
//            recipe variable count, 3 spare bytes
//   key      5 bytes: register, keyNo, address (2 bytes, little-endian), length
//   recipe   6 bytes: register, keyNo, address (2 bytes), length, data index / 8
//   op       1 byte, then its operands:
//            0..2 polling turn; a reply-kind byte follows (see makeReply)
//            3    polling turn whose reply never comes (the host's time-out)
//            4    word write: register, keyNo, address (2), count; then count*2 data bytes
//            5    bit write: register, keyNo, address (2), count; then count data bytes
//            6    condition read: register, keyNo, address (2), length, kind
//            7    recipe flags: bits 0-1 the write flag, bits 2-3 the read flag
// fuzz/make_driver_seeds.cpp writes the seeds in this layout, with the replies of the simulator
// (tools/plcsim) inside.
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

const int kStatusSize = 65536;  // the host's status block: covers bytes 60115 and 60116
const int kRecipeSize = 16384;  // index up to 255 * 8 words, 128 bytes of data, 1024 copied
const int kMaxOps = 400;
const int kMaxReply = 2000;

std::vector<unsigned char> gStatus(kStatusSize);
std::vector<unsigned char> gRecipe(kRecipeSize);
QMutex gHostMutex;
// The host's records, on the heap (AddressSanitizer sees copies past their ends) but taken
// once: a new 2 KiB FRAME_PRO per turn made every input pay for fresh, filled memory.
FRAME_PRO* gFrame = nullptr;
KEY_ADDRESS* gConditionKey = nullptr;
bool gTrace = false;  // ADS_FUZZ_TRACE=1: print every turn (to check seeds)

class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size), pos_(0) { }
    bool atEnd() const { return pos_ >= size_; }
    uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    int u16()
    {
        int lo = byte();
        return lo | (byte() << 8);
    }
    // n bytes from the input, zeros once it has run out.
    void bytes(unsigned char* out, int n)
    {
        for (int i = 0; i < n; ++i)
            out[i] = byte();
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_;
};

[[noreturn]] void fail(const char* what)
{
    fprintf(stderr, "fuzz_reply: contract broken: %s\n", what);
    abort();
}

int callback(int context, int keyNo, QString text, int address)
{
    (void)context;
    unsigned char out[16];
    // The host reads the reported item back, as a screen does.
    if (text.endsWith(QLatin1String("_bit"))) {
        intf_getData(keyNo, text, address, 2, out);
    } else if (text.size() >= 2
        && (text.at(0) == QLatin1Char('I') || text.at(0) == QLatin1Char('Q') || text.at(0) == QLatin1Char('M'))
        && text.at(1) == QLatin1Char('_')) {
        intf_getData(keyNo, text.left(1) + QLatin1String("_W"), address, 2, out);
    }
    return 0;
}

const char* const kRegs[6] = {"I_bit", "Q_bit", "M_bit", "I_W", "Q_W", "M_W"};

// An address the host would accept: intf_checkAddr says 0 for it.
bool hostAddress(int reg, int raw, int lengthByte, int& address, int& count)
{
    QString name = QString::fromLatin1(kRegs[reg]);
    QString text;
    int dataType;
    if (reg < 3) {
        address = (raw << 3) | (lengthByte & 7);
        count = 1 + (lengthByte >> 3);  // 1..32 bits
        text = QString::number(address / 8) + QLatin1Char('.') + QString::number(address % 8);
        dataType = -1;
    } else {
        address = raw;
        count = 1 + (lengthByte % 64);  // 1..64 words
        text = QString::number(address);
        dataType = 3;
    }
    int checked = -1;
    if (intf_checkAddr(name, text, &checked, dataType, count, 0) != 0)
        return false;
    if (checked != address)
        fail("intf_checkAddr stored another address");
    return true;
}

void putLe16(unsigned char* p, unsigned v)
{
    p[0] = v & 0xFF;
    p[1] = (v >> 8) & 0xFF;
}
void putLe32(unsigned char* p, unsigned v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = (v >> (8 * i)) & 0xFF;
}

// The reply a PLC would send to `f`, of `size` bytes: headers of an answer, result 0, the
// read length, then data from the input.
QByteArray wellFormed(const FRAME_PRO& f, int size, Input& in)
{
    if (size < 0)
        size = 0;
    if (size > kMaxReply)
        size = kMaxReply;
    QByteArray r(size, '\0');
    std::vector<unsigned char> b(static_cast<size_t>(size > 46 ? size : 46), 0);
    putLe32(&b[2], static_cast<unsigned>(size - 6));
    memcpy(&b[6], f.frame + 14, 8);   // target: the requester
    memcpy(&b[14], f.frame + 6, 8);   // source: the PLC
    memcpy(&b[22], f.frame + 22, 2);  // command id
    putLe16(&b[24], 5);
    putLe32(&b[26], static_cast<unsigned>(size - 38));
    memcpy(&b[34], f.frame + 34, 4);  // invoke id
    if (f.readLen > 0)
        putLe32(&b[42], static_cast<unsigned>(f.readLen));
    else if (f.frame[22] == 6)
        putLe32(&b[42], 1);  // notification handle
    if (size > 46)
        in.bytes(&b[46], size - 46);
    memcpy(r.data(), b.data(), static_cast<size_t>(size));
    return r;
}

QByteArray literal(int size, Input& in)
{
    QByteArray r(size, '\0');
    in.bytes(reinterpret_cast<unsigned char*>(r.data()), size);
    return r;
}

QByteArray makeReply(const FRAME_PRO& f, Input& in)
{
    const int expected = f.recvLen;
    switch (in.byte() % 7) {
    case 0:
        return literal(in.u16() % (kMaxReply + 1), in);
    case 1:
        return wellFormed(f, expected, in);
    case 2: {
        QByteArray r = wellFormed(f, 1024, in);  // a full receive buffer
        return r;
    }
    case 3:
        return wellFormed(f, expected + static_cast<int8_t>(in.byte()), in);
    case 4: {
        // An ADS error answer: the result alone, or the result and a zero length.
        QByteArray r = wellFormed(f, (in.byte() & 1) ? 42 : 46, in);
        unsigned char code[4];
        putLe32(code, 0x700u + (in.byte() % 6));
        r.replace(38, 4, reinterpret_cast<const char*>(code), 4);
        if (r.size() >= 46)
            r.replace(42, 4, QByteArray(4, '\0'));
        return r;
    }
    case 5:
        return literal(expected >= 0 && expected <= kMaxReply ? expected : 0, in);
    default:
        return wellFormed(f, 1024 + static_cast<int8_t>(in.byte()) % 3, in);
    }
}

void checkFrame(const FRAME_PRO& f)
{
    if (f.sendLen < 0 || f.sendLen > 1024)
        fail("sendLen outside the 1024-byte frame");
    if (f.recvLen < 0)
        fail("negative recvLen");
}

void pollTurn(Input& in, bool answer)
{
    FRAME_PRO* f = gFrame;
    int got = intf_getSendFrame(f);
    if (got != 0 && got != 1)
        fail("intf_getSendFrame result");
    if (got == 1) {
        checkFrame(*f);
        if (answer) {
            QByteArray reply = makeReply(*f, in);
            QString errorText;
            int r = intf_dealRcvFrame(reply, errorText);
            if (gTrace)
                fprintf(stderr, "turn: sent %d bytes (cmd %d), reply %d bytes -> %d %s\n", f->sendLen, f->frame[22],
                    reply.size(), r, errorText.toLatin1().constData());
            if (r != 0 && r != 1 && r != 2 && r != 3 && r != 8)
                fail("intf_dealRcvFrame result");
        }
    }
}

void resetRecipeState()
{
    // intf_initProperty keeps these on purpose; a fresh host starts without them.
    driver.rcpVarList.clear();
    driver.rcpTransferList.clear();
    driver.rcpBlockStartList.clear();
    driver.rcpIndex = 0;
    driver.lastVar.kind = 0;
    driver.lastVar.keyNo = 0;
    driver.lastVar.regName = QString();
    driver.lastVar.address = 0;
    driver.lastVar.length = 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    (void)argc;
    (void)argv;
    gTrace = getenv("ADS_FUZZ_TRACE") != nullptr;
    // Once: it walks the machine's interfaces.
    intf_SetDriverPropertyPage(QString::fromLatin1("2_0,127.0.0.1.1.1,851"));
    intf_setAddrValueChangeCallBack(callback);
    gFrame = new FRAME_PRO();
    gConditionKey = new KEY_ADDRESS();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input in(data, size);
    // The host's side of the reset. The driver touches only the two flag bytes of the status
    // block, and the recipe buffer.
    gStatus[HOST_FLAG_RECIPE_WRITE] = 0;
    gStatus[HOST_FLAG_RECIPE_READ] = 0;
    std::fill(gRecipe.begin(), gRecipe.end(), 0);
    resetRecipeState();

    // Header.
    int retries = 1 + in.byte() % 5;
    int gap = in.byte() % 129;
    int flags = in.byte();
    int keyCount = in.byte() % 17;
    int recipeCount = in.byte() % 9;
    in.byte();
    in.byte();
    in.byte();

    QByteArray init = QString::fromLatin1("1#%1#0#%2#%3").arg(flags & 1).arg(retries).arg(gap).toLatin1();
    int mode = 0;
    intf_initProperty(gStatus.data(), 0, gRecipe.data(), &mode, init.constData(), &gHostMutex);
    intf_setAddrValueChangeCallBack(callback);

    // Screen addresses.
    QList<KEY_ADDRESS> keys;
    for (int i = 0; i < keyCount; ++i) {
        int reg = in.byte() % 6;
        int keyNo = in.byte() % 3;
        int raw = in.u16();
        int lengthByte = in.byte();
        int address = 0;
        int count = 0;
        if (!hostAddress(reg, raw, lengthByte, address, count))
            continue;
        KEY_ADDRESS k = KEY_ADDRESS();
        k.hostNumber = i;
        k.keyNo = keyNo;
        k.regName = QString::fromLatin1(kRegs[reg]);
        k.address = address;
        k.unitMark = reg < 3 ? -1 : 0;
        k.length = count;
        keys.append(k);
    }
    intf_addrMerge(keys);

    // Recipe variables.
    QVector<_RCP_VAR_PRO> vars;
    for (int i = 0; i < recipeCount; ++i) {
        int reg = in.byte() % 6;
        int keyNo = in.byte() % 3;
        int raw = in.u16();
        int lengthByte = in.byte();
        int index = in.byte() * 8;
        _RCP_VAR_PRO v;
        v.driverNo = (lengthByte & 0x80) && (i & 1) ? 2 : 1;  // now and then another instance's
        v.keyNo = keyNo;
        v.regName = QString::fromLatin1(kRegs[reg]);
        if (reg < 3) {
            v.address = raw;                  // a bit number
            v.length = 1 + lengthByte % 128;  // bits
            if (v.address + v.length > 524288)
                continue;
        } else {
            v.address = raw;
            v.length = 1 + lengthByte % 64;  // words
            if (v.address + 2 * v.length > 65536)
                continue;
        }
        v.rcpDataIndex = index;
        v.hostField = 0;
        vars.append(v);
    }
    intf_setRcpAddress(&vars);

    // Host actions.
    for (int op = 0; op < kMaxOps && !in.atEnd(); ++op) {
        int code = in.byte() % 8;
        switch (code) {
        case 0:
        case 1:
        case 2:
            pollTurn(in, true);
            break;
        case 3:
            pollTurn(in, false);
            break;
        case 4:
        case 5: {
            int reg = (code == 4 ? 3 : 0) + in.byte() % 3;
            int keyNo = in.byte() % 3;
            int raw = in.u16();
            int lengthByte = in.byte();
            int address = 0;
            int count = 0;
            if (!hostAddress(reg, raw, lengthByte, address, count))
                break;
            int bytes = code == 4 ? 2 * count : count;
            std::vector<unsigned char> values(static_cast<size_t>(bytes));
            in.bytes(values.data(), bytes);
            intf_setData(keyNo, QString::fromLatin1(kRegs[reg]), address, count, values.data(), 0);
            if (driver.writeList.size() > 513)
                fail("writeList beyond 513 entries");
            break;
        }
        case 6: {
            int reg = in.byte() % 6;
            int keyNo = in.byte() % 3;
            int raw = in.u16();
            int lengthByte = in.byte();
            int kind = in.byte();
            int address = 0;
            int count = 0;
            if (!hostAddress(reg, raw, lengthByte, address, count))
                break;
            KEY_ADDRESS* k = gConditionKey;
            k->hostText = QString();
            k->hostText2 = QString();
            k->hostNumber = 0;
            k->rcpDataIndex = 0;
            k->keyNo = keyNo;
            k->regName = QString::fromLatin1(kRegs[reg]);
            k->address = address;
            k->unitMark = reg < 3 ? -1 : 0;
            k->length = count;
            memset(k->data, 0, sizeof(k->data));
            intf_addConditionRead(k, kind);
            if (driver.conditionReadList.size() > 513)
                fail("conditionReadList beyond 513 entries");
            break;
        }
        default: {
            int f = in.byte();
            gHostMutex.lock();
            gStatus[HOST_FLAG_RECIPE_WRITE] = static_cast<unsigned char>(f & 3);
            gStatus[HOST_FLAG_RECIPE_READ] = static_cast<unsigned char>((f >> 2) & 3);
            gHostMutex.unlock();
            break;
        }
        }
    }
    return 0;
}
