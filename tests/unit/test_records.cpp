// The shared records: copies own their bytes, intf_getSendFrame hands out a whole
// FRAME_PRO, and the records that the host builds keep their exact memory layout.

#include <gtest/gtest.h>

#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QVector>
#include <QtCore/QtGlobal>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"

namespace {

std::string S(const QString& s) { return s.toStdString(); }

unsigned char pattern(int i, int seed) { return static_cast<unsigned char>((i * 7 + seed) & 0xFF); }

void fillVariable(VARIABLE& v, int seed)
{
    v.kind = seed + 1;
    v.keyNo = seed + 2;
    v.regName = QString::fromLatin1("M_W");
    v.address = seed + 3;
    v.length = seed + 4;
    for (int i = 0; i < 1024; ++i)
        v.data[i] = pattern(i, seed);
}

// The copies are checked on a started driver: the send-frame tests hand frames out of it.
class Records : public adstest::DriverTest { };

}  // namespace

// ---------------------------------------------------------------------------------------
// Copies own their bytes
// ---------------------------------------------------------------------------------------

TEST_F(Records, AssignedVariableKeepsItsOwnBufferAndText)
{
    VARIABLE source;
    fillVariable(source, 10);
    VARIABLE target;
    fillVariable(target, 99);
    target = source;

    EXPECT_EQ(11, target.kind);
    EXPECT_EQ(12, target.keyNo);
    EXPECT_EQ("M_W", S(target.regName));
    EXPECT_EQ(13, target.address);
    EXPECT_EQ(14, target.length);
    EXPECT_EQ(0, std::memcmp(source.data, target.data, 1024));

    source.data[0] ^= 0xFF;
    source.data[1023] ^= 0xFF;
    source.regName[0] = QChar('Q');
    source.regName.append(QString::fromLatin1("x"));
    EXPECT_EQ(pattern(0, 10), target.data[0]);
    EXPECT_EQ(pattern(1023, 10), target.data[1023]);
    EXPECT_EQ("M_W", S(target.regName));
    EXPECT_EQ("Q_Wx", S(source.regName));
}

TEST_F(Records, VariableInAListIsIndependentOfItsSource)
{
    VARIABLE source;
    fillVariable(source, 20);
    QList<VARIABLE> list;
    list.append(source);

    source.kind = -1;
    source.keyNo = -2;
    source.regName = QString::fromLatin1("I_bit");
    source.address = -3;
    source.length = -4;
    std::memset(source.data, 0, sizeof source.data);

    const VARIABLE& kept = list.first();
    EXPECT_EQ(21, kept.kind);
    EXPECT_EQ(22, kept.keyNo);
    EXPECT_EQ("M_W", S(kept.regName));
    EXPECT_EQ(23, kept.address);
    EXPECT_EQ(24, kept.length);
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(pattern(i, 20), kept.data[i]) << "data byte " << i;

    // And the other way round: changing the list item leaves a fresh copy alone.
    VARIABLE copy = list.first();
    list[0].data[500] ^= 0xFF;
    list[0].regName = QString::fromLatin1("Q_W");
    EXPECT_EQ(pattern(500, 20), copy.data[500]);
    EXPECT_EQ("M_W", S(copy.regName));
}

TEST_F(Records, CopiedKeyAddressOwnsItsBufferAndCarriesTheHostFields)
{
    KEY_ADDRESS k;
    k.hostText = QString::fromLatin1("host one");
    k.hostNumber = 41;
    k.rcpDataIndex = 42;
    k.keyNo = 43;
    k.regName = QString::fromLatin1("Q_bit");
    k.hostText2 = QString::fromLatin1("host two");
    k.address = 44;
    k.unitMark = -1;
    k.length = 45;
    for (int i = 0; i < 1024; ++i)
        k.data[i] = pattern(i, 3);

    QList<KEY_ADDRESS> list;
    list.append(k);
    KEY_ADDRESS c = k;

    k.hostText = QString();
    k.regName[0] = QChar('M');
    k.hostText2.clear();
    k.hostNumber = k.rcpDataIndex = k.keyNo = k.address = k.unitMark = k.length = 0;
    std::memset(k.data, 0, sizeof k.data);

    for (const KEY_ADDRESS* p : {&c, &list.first()}) {
        EXPECT_EQ("host one", S(p->hostText));
        EXPECT_EQ(41, p->hostNumber);
        EXPECT_EQ(42, p->rcpDataIndex);
        EXPECT_EQ(43, p->keyNo);
        EXPECT_EQ("Q_bit", S(p->regName));
        EXPECT_EQ("host two", S(p->hostText2));
        EXPECT_EQ(44, p->address);
        EXPECT_EQ(-1, p->unitMark);
        EXPECT_EQ(45, p->length);
        for (int i = 0; i < 1024; ++i)
            ASSERT_EQ(pattern(i, 3), p->data[i]) << "data byte " << i;
    }
}

TEST_F(Records, RecipeVariableInAVectorIsIndependentOfItsSource)
{
    _RCP_VAR_PRO r = adstest::makeRcpVar(1, 2, "M_W", 3, 4, 5, 6);
    QVector<_RCP_VAR_PRO> v;
    v.append(r);
    r.regName[0] = QChar('I');
    r.driverNo = r.keyNo = r.address = r.length = r.rcpDataIndex = r.hostField = 0;
    EXPECT_EQ(1, v[0].driverNo);
    EXPECT_EQ(2, v[0].keyNo);
    EXPECT_EQ("M_W", S(v[0].regName));
    EXPECT_EQ(3, v[0].address);
    EXPECT_EQ(4, v[0].length);
    EXPECT_EQ(5, v[0].rcpDataIndex);
    EXPECT_EQ(6, v[0].hostField);
}

TEST_F(Records, DataAreaIsCopiedFieldByField)
{
    _DATA_ d;
    d.spare = 0x5A;
    d.writeFlag = 1;
    d.bitWriteState = 0x80000001u;
    d.monitorFlag = 0x7Fu;
    d.bitMonitorMask = 0xA5u;
    d.keyNo = 9;
    d.areaName = QString::fromLatin1("M");
    d.address = 10;
    const unsigned char value[4] = {1, 2, 3, 4};
    const unsigned char written[4] = {5, 6, 7, 8};
    std::memcpy(d.value, value, 4);
    std::memcpy(d.writeValue, written, 4);

    QList<_DATA_> list;
    list.append(d);
    d.areaName[0] = QChar('Q');
    std::memset(d.value, 0, 4);
    std::memset(d.writeValue, 0, 4);
    d.spare = d.writeFlag = 0;

    const _DATA_& c = list.first();
    EXPECT_EQ(0x5A, c.spare);
    EXPECT_EQ(1, c.writeFlag);
    EXPECT_EQ(0x80000001u, c.bitWriteState);
    EXPECT_EQ(0x7Fu, c.monitorFlag);
    EXPECT_EQ(0xA5u, c.bitMonitorMask);
    EXPECT_EQ(9, c.keyNo);
    EXPECT_EQ("M", S(c.areaName));
    EXPECT_EQ(10, c.address);
    EXPECT_EQ(0, std::memcmp(value, c.value, 4));
    EXPECT_EQ(0, std::memcmp(written, c.writeValue, 4));
}

TEST_F(Records, CopiedFrameOwnsItsFrameAndVariableBuffers)
{
    std::unique_ptr<FRAME_PRO> f(new FRAME_PRO);
    for (int i = 0; i < 1024; ++i)
        f->frame[i] = pattern(i, 1);
    f->sendLen = 1;
    f->recvLen = 2;
    f->dataStart = 3;
    f->readLen = 4;
    f->spareField = 5;
    fillVariable(f->var, 30);

    std::unique_ptr<FRAME_PRO> c(new FRAME_PRO(*f));
    std::memset(f->frame, 0, sizeof f->frame);
    std::memset(f->var.data, 0, sizeof f->var.data);
    f->var.regName[0] = QChar('I');
    for (int i = 0; i < 1024; ++i) {
        ASSERT_EQ(pattern(i, 1), c->frame[i]) << "frame byte " << i;
        ASSERT_EQ(pattern(i, 30), c->var.data[i]) << "var data byte " << i;
    }
    EXPECT_EQ("M_W", S(c->var.regName));
    EXPECT_EQ(5, c->spareField);
}

// ---------------------------------------------------------------------------------------
// intf_getSendFrame copies the head of the frame list whole
// ---------------------------------------------------------------------------------------

TEST_F(Records, SendFrameCarriesAllBytesWhateverSendLenSays)
{
    std::unique_ptr<FRAME_PRO> head(new FRAME_PRO);
    for (int i = 0; i < 1024; ++i)
        head->frame[i] = pattern(i, 77);
    head->sendLen = 5;
    head->recvLen = 47;
    head->dataStart = 46;
    head->readLen = 1;
    head->spareField = 123456;
    fillVariable(head->var, 40);
    head->var.regName = QString::fromLatin1("Q_bit");
    driver.frameList.clear();
    driver.frameList.append(*head);

    std::unique_ptr<FRAME_PRO> out(new FRAME_PRO);
    std::memset(out->frame, 0xEE, sizeof out->frame);
    std::memset(out->var.data, 0xEE, sizeof out->var.data);
    out->sendLen = out->recvLen = out->dataStart = out->readLen = out->spareField = -1;
    out->var.kind = out->var.keyNo = out->var.address = out->var.length = -1;

    ASSERT_EQ(1, intf_getSendFrame(out.get()));
    for (int i = 0; i < 1024; ++i) {
        ASSERT_EQ(pattern(i, 77), out->frame[i]) << "frame byte " << i;
        ASSERT_EQ(pattern(i, 40), out->var.data[i]) << "var data byte " << i;
    }
    EXPECT_EQ(5, out->sendLen);
    EXPECT_EQ(47, out->recvLen);
    EXPECT_EQ(46, out->dataStart);
    EXPECT_EQ(1, out->readLen);
    EXPECT_EQ(123456, out->spareField);
    EXPECT_EQ(41, out->var.kind);
    EXPECT_EQ(42, out->var.keyNo);
    EXPECT_EQ("Q_bit", S(out->var.regName));
    EXPECT_EQ(43, out->var.address);
    EXPECT_EQ(44, out->var.length);

    // The host's copy is its own: changing it leaves the frame in flight alone.
    out->frame[0] ^= 0xFF;
    out->var.data[1023] ^= 0xFF;
    out->var.regName = QString::fromLatin1("changed");
    ASSERT_EQ(1, driver.frameList.size());
    EXPECT_EQ(pattern(0, 77), driver.frameList.first().frame[0]);
    EXPECT_EQ(pattern(1023, 40), driver.frameList.first().var.data[1023]);
    EXPECT_EQ("Q_bit", S(driver.frameList.first().var.regName));
    driver.frameList.clear();
}

TEST_F(Records, SendFrameCopiesTheHandshakeBytesBeyondSendLen)
{
    std::unique_ptr<FRAME_PRO> out(new FRAME_PRO);
    std::memset(out->frame, 0xEE, sizeof out->frame);
    ASSERT_EQ(1, intf_getSendFrame(out.get()));
    ASSERT_EQ(1, driver.frameList.size());
    EXPECT_EQ(78, out->sendLen);
    EXPECT_EQ(0, std::memcmp(driver.frameList.first().frame, out->frame, 1024));
}

// ---------------------------------------------------------------------------------------
// Layout of the records that the host builds or reads.
//
// The host is built separately, for the ARM panel (ILP32, QString one 4-byte pointer)
// and for x86_64 desktops (LP64, QString one 8-byte pointer); a field that moves breaks
// it. The expected offsets and sizes are written out for both targets (and for Qt 6,
// where QString holds three pointer-sized members).
// ---------------------------------------------------------------------------------------

namespace {

struct Place {
    std::size_t offset;
    std::size_t size;
};

struct LayoutRow {
    const char* field;
    Place actual;
    Place lp64;   // Qt 4/5, x86_64
    Place ilp32;  // Qt 4/5, 32-bit ARM
    Place lp64Qt6;
    Place ilp32Qt6;
};

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
#endif

#define ADS_FIELD(T, m)                                                                                                \
    Place { offsetof(T, m), sizeof(static_cast<T*>(nullptr)->m) }
#define ADS_WHOLE(T)                                                                                                   \
    Place { 0, sizeof(T) }

std::vector<LayoutRow> layoutTable()
{
    return {
        // QString itself: one pointer in Qt 4/5.
        {"QString", ADS_WHOLE(QString), {0, 8}, {0, 4}, {0, 24}, {0, 12}},

        {"KEY_ADDRESS", ADS_WHOLE(KEY_ADDRESS), {0, 1080}, {0, 1060}, {0, 1128}, {0, 1084}},
        {"KEY_ADDRESS.hostText", ADS_FIELD(KEY_ADDRESS, hostText), {0, 8}, {0, 4}, {0, 24}, {0, 12}},
        {"KEY_ADDRESS.hostNumber", ADS_FIELD(KEY_ADDRESS, hostNumber), {8, 4}, {4, 4}, {24, 4}, {12, 4}},
        {"KEY_ADDRESS.rcpDataIndex", ADS_FIELD(KEY_ADDRESS, rcpDataIndex), {12, 4}, {8, 4}, {28, 4}, {16, 4}},
        {"KEY_ADDRESS.keyNo", ADS_FIELD(KEY_ADDRESS, keyNo), {16, 4}, {12, 4}, {32, 4}, {20, 4}},
        {"KEY_ADDRESS.regName", ADS_FIELD(KEY_ADDRESS, regName), {24, 8}, {16, 4}, {40, 24}, {24, 12}},
        {"KEY_ADDRESS.hostText2", ADS_FIELD(KEY_ADDRESS, hostText2), {32, 8}, {20, 4}, {64, 24}, {36, 12}},
        {"KEY_ADDRESS.address", ADS_FIELD(KEY_ADDRESS, address), {40, 4}, {24, 4}, {88, 4}, {48, 4}},
        {"KEY_ADDRESS.unitMark", ADS_FIELD(KEY_ADDRESS, unitMark), {44, 4}, {28, 4}, {92, 4}, {52, 4}},
        {"KEY_ADDRESS.length", ADS_FIELD(KEY_ADDRESS, length), {48, 4}, {32, 4}, {96, 4}, {56, 4}},
        {"KEY_ADDRESS.data", ADS_FIELD(KEY_ADDRESS, data), {52, 1024}, {36, 1024}, {100, 1024}, {60, 1024}},

        {"_RCP_VAR_PRO", ADS_WHOLE(_RCP_VAR_PRO), {0, 32}, {0, 28}, {0, 48}, {0, 36}},
        {"_RCP_VAR_PRO.driverNo", ADS_FIELD(_RCP_VAR_PRO, driverNo), {0, 4}, {0, 4}, {0, 4}, {0, 4}},
        {"_RCP_VAR_PRO.keyNo", ADS_FIELD(_RCP_VAR_PRO, keyNo), {4, 4}, {4, 4}, {4, 4}, {4, 4}},
        {"_RCP_VAR_PRO.regName", ADS_FIELD(_RCP_VAR_PRO, regName), {8, 8}, {8, 4}, {8, 24}, {8, 12}},
        {"_RCP_VAR_PRO.address", ADS_FIELD(_RCP_VAR_PRO, address), {16, 4}, {12, 4}, {32, 4}, {20, 4}},
        {"_RCP_VAR_PRO.length", ADS_FIELD(_RCP_VAR_PRO, length), {20, 4}, {16, 4}, {36, 4}, {24, 4}},
        {"_RCP_VAR_PRO.rcpDataIndex", ADS_FIELD(_RCP_VAR_PRO, rcpDataIndex), {24, 4}, {20, 4}, {40, 4}, {28, 4}},
        {"_RCP_VAR_PRO.hostField", ADS_FIELD(_RCP_VAR_PRO, hostField), {28, 4}, {24, 4}, {44, 4}, {32, 4}},

        {"FRAME_PRO", ADS_WHOLE(FRAME_PRO), {0, 2096}, {0, 2088}, {0, 2112}, {0, 2096}},
        {"FRAME_PRO.frame", ADS_FIELD(FRAME_PRO, frame), {0, 1024}, {0, 1024}, {0, 1024}, {0, 1024}},
        {"FRAME_PRO.sendLen", ADS_FIELD(FRAME_PRO, sendLen), {1024, 4}, {1024, 4}, {1024, 4}, {1024, 4}},
        {"FRAME_PRO.recvLen", ADS_FIELD(FRAME_PRO, recvLen), {1028, 4}, {1028, 4}, {1028, 4}, {1028, 4}},
        {"FRAME_PRO.dataStart", ADS_FIELD(FRAME_PRO, dataStart), {1032, 4}, {1032, 4}, {1032, 4}, {1032, 4}},
        {"FRAME_PRO.readLen", ADS_FIELD(FRAME_PRO, readLen), {1036, 4}, {1036, 4}, {1036, 4}, {1036, 4}},
        {"FRAME_PRO.spareField", ADS_FIELD(FRAME_PRO, spareField), {1040, 4}, {1040, 4}, {1040, 4}, {1040, 4}},
        {"FRAME_PRO.var", ADS_FIELD(FRAME_PRO, var), {1048, 1048}, {1044, 1044}, {1048, 1064}, {1044, 1052}},
        {"FRAME_PRO.var.kind", ADS_FIELD(FRAME_PRO, var.kind), {1048, 4}, {1044, 4}, {1048, 4}, {1044, 4}},
        {"FRAME_PRO.var.keyNo", ADS_FIELD(FRAME_PRO, var.keyNo), {1052, 4}, {1048, 4}, {1052, 4}, {1048, 4}},
        {"FRAME_PRO.var.regName", ADS_FIELD(FRAME_PRO, var.regName), {1056, 8}, {1052, 4}, {1056, 24}, {1052, 12}},
        {"FRAME_PRO.var.address", ADS_FIELD(FRAME_PRO, var.address), {1064, 4}, {1056, 4}, {1080, 4}, {1064, 4}},
        {"FRAME_PRO.var.length", ADS_FIELD(FRAME_PRO, var.length), {1068, 4}, {1060, 4}, {1084, 4}, {1068, 4}},
        {"FRAME_PRO.var.data", ADS_FIELD(FRAME_PRO, var.data), {1072, 1024}, {1064, 1024}, {1088, 1024}, {1072, 1024}},
    };
}

#undef ADS_FIELD
#undef ADS_WHOLE

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

}  // namespace

TEST(RecordLayout, HostRecordsKeepTheirFieldOffsetsAndSizes)
{
    const bool lp64 = sizeof(void*) == 8;
    ASSERT_TRUE(lp64 || sizeof(void*) == 4) << "only 32-bit and 64-bit targets are tabled";
#if QT_VERSION >= 0x060000
    const bool qt6 = true;
#else
    const bool qt6 = false;
#endif
    for (const LayoutRow& row : layoutTable()) {
        const Place& want = qt6 ? (lp64 ? row.lp64Qt6 : row.ilp32Qt6) : (lp64 ? row.lp64 : row.ilp32);
        EXPECT_EQ(want.offset, row.actual.offset) << row.field << ": offset";
        EXPECT_EQ(want.size, row.actual.size) << row.field << ": size";
    }
}
