// AMS/TCP frames: the handshake, read and write requests byte by byte, the reply length
// check, the bit write (read, patch, write) and the checksum utility.

#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"

namespace {

typedef std::vector<uint8_t> Bytes;

std::string S(const QString& s) { return s.toStdString(); }
using adstest::L;

void append(Bytes& b, std::initializer_list<int> v)
{
    for (int x : v)
        b.push_back(static_cast<uint8_t>(x));
}

void appendLe16(Bytes& b, uint32_t v)
{
    b.push_back(v & 0xFF);
    b.push_back((v >> 8) & 0xFF);
}

void appendLe32(Bytes& b, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b.push_back((v >> (8 * i)) & 0xFF);
}

// The 38 header bytes: AMS/TCP header and AMS header, as the driver writes them with the
// target Net ID 192.168.1.100.1.1 and the panel address 192.168.1.10 of the fixture.
Bytes header(uint32_t tcpLength, uint16_t targetPort, uint16_t sourcePort, uint16_t command, uint32_t dataLength,
    uint32_t invokeId)
{
    Bytes b;
    append(b, {0, 0});
    appendLe32(b, tcpLength);
    append(b, {192, 168, 1, 100, 1, 1});
    appendLe16(b, targetPort);
    append(b, {192, 168, 1, 10, 1, 1});
    appendLe16(b, sourcePort);
    appendLe16(b, command);
    appendLe16(b, 4);
    appendLe32(b, dataLength);
    appendLe32(b, 0);
    appendLe32(b, invokeId);
    return b;
}

Bytes handshakeImage()
{
    Bytes b = header(72, 100, 0x80BB, 6, 40, 7);
    appendLe32(b, 1);
    appendLe32(b, 0x0000FFFF);
    appendLe32(b, 1024);
    appendLe32(b, 3);
    appendLe32(b, 0);
    appendLe32(b, 0);
    for (int i = 0; i < 16; ++i)
        b.push_back(0);
    return b;
}

Bytes readImage(uint32_t group, uint32_t offset, uint32_t count)
{
    Bytes b = header(44, 801, 0x8147, 2, 12, 0);
    appendLe32(b, group);
    appendLe32(b, offset);
    appendLe32(b, count);
    return b;
}

void expectImage(const unsigned char* frame, const Bytes& expected, const char* what)
{
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(static_cast<int>(expected[i]), static_cast<int>(frame[i])) << what << ": byte at offset " << i;
}

VARIABLE makeVar(const char* reg, int address, int length, std::initializer_list<int> data = {})
{
    return adstest::makeVariable(0, 0, reg, address, length, data);
}

QList<VARIABLE> one(const VARIABLE& v)
{
    QList<VARIABLE> l;
    l.append(v);
    return l;
}

QByteArray replyOf(int size) { return QByteArray(size, '\0'); }

// An ADS Read response carrying `data` (6 + 32 header bytes, result, length, data).
QByteArray readReply(std::initializer_list<int> data)
{
    QByteArray r(46, '\0');
    const int n = static_cast<int>(data.size());
    r[2] = static_cast<char>(40 + n);
    r[22] = 2;
    r[24] = 5;
    r[26] = static_cast<char>(8 + n);
    r[42] = static_cast<char>(n);
    for (int x : data)
        r.append(static_cast<char>(x));
    return r;
}

class Frames : public adstest::DriverTest {
protected:
    void SetUp() override
    {
        adstest::DriverTest::SetUp();
        const unsigned char netId[6] = {192, 168, 1, 100, 1, 1};
        const unsigned char ip[4] = {192, 168, 1, 10};
        std::memcpy(driver.targetAmsNetId, netId, 6);
        driver.targetAmsPort = 801;
        std::memcpy(driver.sourceIp, ip, 4);
        driver.frameList.clear();
    }

    // Completes the handshake through the host's entry points.
    void handshake()
    {
        FRAME_PRO out;
        ASSERT_EQ(1, intf_getSendFrame(&out));
        ASSERT_EQ(6, out.frame[22]);
        QByteArray reply = replyOf(46);
        QString err;
        ASSERT_EQ(1, intf_dealRcvFrame(reply, err));
        ASSERT_EQ(0, driver.needHandShake);
        ASSERT_TRUE(driver.frameList.isEmpty());
    }
};

}  // namespace

// ---------------------------------------------------------------------------------------
// Handshake frame
// ---------------------------------------------------------------------------------------

TEST_F(Frames, HandshakeFrameByteByByte)
{
    handShakeFrame();
    ASSERT_EQ(1, driver.frameList.size());
    const FRAME_PRO& f = driver.frameList.first();
    const Bytes expected = handshakeImage();
    ASSERT_EQ(78u, expected.size());
    expectImage(f.frame, expected, "handshake");
    EXPECT_EQ(78, f.sendLen);
    EXPECT_EQ(46, f.recvLen);
    EXPECT_EQ(0, f.dataStart);
    EXPECT_EQ(0, f.readLen);
    EXPECT_TRUE(f.var.regName.isEmpty());
}

TEST_F(Frames, HandshakeGoesToPort100WhateverTheTargetPort)
{
    driver.targetAmsPort = 851;
    handShakeFrame();
    ASSERT_EQ(1, driver.frameList.size());
    EXPECT_EQ(0x64, driver.frameList.first().frame[12]);
    EXPECT_EQ(0x00, driver.frameList.first().frame[13]);
    EXPECT_EQ(0xBB, driver.frameList.first().frame[20]);
    EXPECT_EQ(0x80, driver.frameList.first().frame[21]);
}

TEST_F(Frames, HandshakeIsAppendedBehindFramesAlreadyListed)
{
    getReadFrame(one(makeVar("M_W", 0, 2)));
    handShakeFrame();
    ASSERT_EQ(2, driver.frameList.size());
    EXPECT_EQ(2, driver.frameList.at(0).frame[22]);
    EXPECT_EQ(6, driver.frameList.at(1).frame[22]);
}

TEST_F(Frames, HostGetsTheHandshakeImageFirst)
{
    FRAME_PRO out;
    std::memset(out.frame, 0xEE, sizeof out.frame);
    ASSERT_EQ(1, intf_getSendFrame(&out));
    expectImage(out.frame, handshakeImage(), "handshake from intf_getSendFrame");
    EXPECT_EQ(78, out.sendLen);
    EXPECT_EQ(46, out.recvLen);
    EXPECT_EQ(1, driver.curFrameKind);
}

TEST_F(Frames, SourceNetIdIsThePanelAddressFollowedByOneOne)
{
    const unsigned char ip[4] = {10, 20, 30, 40};
    std::memcpy(driver.sourceIp, ip, 4);
    handShakeFrame();
    getReadFrame(one(makeVar("M_W", 0, 2)));
    ASSERT_EQ(2, driver.frameList.size());
    for (int k = 0; k < 2; ++k) {
        const unsigned char* f = driver.frameList.at(k).frame;
        EXPECT_EQ(10, f[14]);
        EXPECT_EQ(20, f[15]);
        EXPECT_EQ(30, f[16]);
        EXPECT_EQ(40, f[17]);
        EXPECT_EQ(1, f[18]);
        EXPECT_EQ(1, f[19]);
    }
}

TEST_F(Frames, SourceNetIdOnTheWireForPanel192_168_1_10)
{
    handShakeFrame();
    const unsigned char* f = driver.frameList.first().frame;
    const unsigned char want[6] = {0xC0, 0xA8, 0x01, 0x0A, 0x01, 0x01};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(want[i], f[14 + i]) << "offset " << 14 + i;
}

// ---------------------------------------------------------------------------------------
// Read frames
// ---------------------------------------------------------------------------------------

TEST_F(Frames, ReadOfOneMemoryBitAsksForItsByte)
{
    const VARIABLE v = makeVar("M_bit", 13, 1);
    EXPECT_EQ(1, getReadFrame(one(v)));
    ASSERT_EQ(1, driver.frameList.size());
    const FRAME_PRO& f = driver.frameList.first();
    const Bytes expected = readImage(0x4020, 1, 1);
    ASSERT_EQ(50u, expected.size());
    expectImage(f.frame, expected, "read M_bit 13");
    EXPECT_EQ(50, f.sendLen);
    EXPECT_EQ(47, f.recvLen);
    EXPECT_EQ(46, f.dataStart);
    EXPECT_EQ(1, f.readLen);
    // The variable is carried with its bit address and bit count.
    EXPECT_EQ("M_bit", S(f.var.regName));
    EXPECT_EQ(13, f.var.address);
    EXPECT_EQ(1, f.var.length);
}

TEST_F(Frames, ReadOfInputBitsStraddlingTwoBytes)
{
    EXPECT_EQ(1, getReadFrame(one(makeVar("I_bit", 7, 2))));
    ASSERT_EQ(1, driver.frameList.size());
    const FRAME_PRO& f = driver.frameList.first();
    expectImage(f.frame, readImage(0xF020, 0, 2), "read I_bit 7 length 2");
    EXPECT_EQ(48, f.recvLen);
    EXPECT_EQ(2, f.readLen);
}

TEST_F(Frames, ReadOfEightOutputBitsOnAByteBoundaryAsksForOneByte)
{
    EXPECT_EQ(1, getReadFrame(one(makeVar("Q_bit", 16, 8))));
    ASSERT_EQ(1, driver.frameList.size());
    const FRAME_PRO& f = driver.frameList.first();
    expectImage(f.frame, readImage(0xF030, 2, 1), "read Q_bit 16 length 8");
    EXPECT_EQ(47, f.recvLen);
    EXPECT_EQ(1, f.readLen);
}

TEST_F(Frames, ReadOfBitsCrossingIntoANinthBit)
{
    EXPECT_EQ(1, getReadFrame(one(makeVar("M_bit", 15, 2))));
    const FRAME_PRO& f = driver.frameList.first();
    expectImage(f.frame, readImage(0x4020, 1, 2), "read M_bit 15 length 2");
    EXPECT_EQ(2, f.readLen);
}

TEST_F(Frames, ReadOfOutputWords)
{
    EXPECT_EQ(1, getReadFrame(one(makeVar("Q_W", 100, 4))));
    const FRAME_PRO& f = driver.frameList.first();
    expectImage(f.frame, readImage(0xF030, 100, 4), "read Q_W 100 length 4");
    EXPECT_EQ(50, f.sendLen);
    EXPECT_EQ(50, f.recvLen);
    EXPECT_EQ(46, f.dataStart);
    EXPECT_EQ(4, f.readLen);
    EXPECT_EQ("Q_W", S(f.var.regName));
}

TEST_F(Frames, IndexGroupByRegister)
{
    getReadFrame(one(makeVar("I_W", 0, 2)));
    getReadFrame(one(makeVar("M_W", 0, 2)));
    getReadFrame(one(makeVar("Z_W", 0, 2)));  // any other name reads PLC memory
    ASSERT_EQ(3, driver.frameList.size());
    expectImage(driver.frameList.at(0).frame, readImage(0xF020, 0, 2), "I_W");
    expectImage(driver.frameList.at(1).frame, readImage(0x4020, 0, 2), "M_W");
    expectImage(driver.frameList.at(2).frame, readImage(0x4020, 0, 2), "Z_W");
}

// A name outside the register table is read by its text: one ending in "_bit" counts bits
// of the area its text names before the first "_", any other reads PLC memory as words.
TEST_F(Frames, ANameOutsideTheTableIsReadByItsSyntax)
{
    getReadFrame(one(makeVar("I_x_bit", 83, 1)));
    getReadFrame(one(makeVar("X_bit", 83, 10)));
    getReadFrame(one(makeVar("M_bits", 83, 1)));
    ASSERT_EQ(3, driver.frameList.size());
    expectImage(driver.frameList.at(0).frame, readImage(0xF020, 10, 1), "I_x_bit");
    expectImage(driver.frameList.at(1).frame, readImage(0x4020, 10, 2), "X_bit");
    expectImage(driver.frameList.at(2).frame, readImage(0x4020, 83, 1), "M_bits");
    driver.frameList.clear();
    // A write of such a bit name is a read-modify-write of the bytes holding its bits.
    VARIABLE w = makeVar("Q_y_bit", 16, 8, {1, 0, 1, 0, 1, 0, 1, 0});
    getWriteFrame(w);
    ASSERT_EQ(2, driver.frameList.size());
    expectImage(driver.frameList.at(0).frame, readImage(0xF030, 2, 1), "Q_y_bit read");
    const unsigned char* write = driver.frameList.at(1).frame;
    EXPECT_EQ(Bytes(write + 38, write + 50), Bytes({0x30, 0xF0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0}));
}

TEST_F(Frames, ReadOffsetIsAFullThirtyTwoBitValue)
{
    getReadFrame(one(makeVar("M_W", 0x12345, 0x10203)));
    const unsigned char* f = driver.frameList.first().frame;
    EXPECT_EQ(0x45, f[42]);
    EXPECT_EQ(0x23, f[43]);
    EXPECT_EQ(0x01, f[44]);
    EXPECT_EQ(0x00, f[45]);
    EXPECT_EQ(0x03, f[46]);
    EXPECT_EQ(0x02, f[47]);
    EXPECT_EQ(0x01, f[48]);
    EXPECT_EQ(0x00, f[49]);
}

TEST_F(Frames, ReadTargetPortIsTheLowSixteenBitsOfTheSetting)
{
    getReadFrame(one(makeVar("M_W", 0, 2)));
    EXPECT_EQ(0x21, driver.frameList.at(0).frame[12]);
    EXPECT_EQ(0x03, driver.frameList.at(0).frame[13]);
    driver.targetAmsPort = 70000;  // 0x11170
    getReadFrame(one(makeVar("M_W", 0, 2)));
    EXPECT_EQ(0x70, driver.frameList.at(1).frame[12]);
    EXPECT_EQ(0x11, driver.frameList.at(1).frame[13]);
}

TEST_F(Frames, ReadOfSeveralVariablesServesTheFirstOnly)
{
    QList<VARIABLE> l;
    l.append(makeVar("Q_W", 100, 4));
    l.append(makeVar("M_W", 8, 2));
    l.append(makeVar("I_bit", 3, 1));
    EXPECT_EQ(1, getReadFrame(l));
    ASSERT_EQ(1, driver.frameList.size());
    expectImage(driver.frameList.first().frame, readImage(0xF030, 100, 4), "first of three");
    EXPECT_EQ(100, driver.frameList.first().var.address);
}

// ---------------------------------------------------------------------------------------
// Write frames
// ---------------------------------------------------------------------------------------

TEST_F(Frames, WriteOfTwoMemoryBytes)
{
    VARIABLE v = makeVar("M_W", 10, 2, {0x34, 0x12});
    getWriteFrame(v);
    ASSERT_EQ(1, driver.frameList.size());
    const FRAME_PRO& f = driver.frameList.first();
    Bytes expected = header(46, 801, 0x8147, 3, 14, 0);
    appendLe32(expected, 0x4020);
    appendLe32(expected, 10);
    appendLe32(expected, 2);
    append(expected, {0x34, 0x12});
    ASSERT_EQ(52u, expected.size());
    expectImage(f.frame, expected, "write M_W 10");
    EXPECT_EQ(52, f.sendLen);
    EXPECT_EQ(42, f.recvLen);
    EXPECT_EQ(50, f.dataStart);
    EXPECT_EQ(0, f.readLen);
    EXPECT_EQ("M_W", S(f.var.regName));
    EXPECT_EQ(10, f.var.address);
    EXPECT_EQ(2, f.var.length);
    EXPECT_EQ(0x34, f.var.data[0]);
    EXPECT_EQ(0x12, f.var.data[1]);
}

TEST_F(Frames, WriteIndexGroupsFollowTheReadRule)
{
    VARIABLE a = makeVar("I_W", 4, 2, {1, 2});
    VARIABLE b = makeVar("Q_W", 6, 2, {3, 4});
    getWriteFrame(a);
    getWriteFrame(b);
    ASSERT_EQ(2, driver.frameList.size());
    EXPECT_EQ(0x20, driver.frameList.at(0).frame[38]);
    EXPECT_EQ(0xF0, driver.frameList.at(0).frame[39]);
    EXPECT_EQ(0x30, driver.frameList.at(1).frame[38]);
    EXPECT_EQ(0xF0, driver.frameList.at(1).frame[39]);
    EXPECT_EQ(6, driver.frameList.at(1).frame[42]);
    EXPECT_EQ(3, driver.frameList.at(1).frame[50]);
    EXPECT_EQ(4, driver.frameList.at(1).frame[51]);
}

TEST_F(Frames, WriteLeavesTheVariableAsItWas)
{
    VARIABLE v = makeVar("Q_bit", 3, 1, {1});
    getWriteFrame(v);
    EXPECT_EQ("Q_bit", S(v.regName));
    EXPECT_EQ(3, v.address);
    EXPECT_EQ(1, v.length);
    EXPECT_EQ(1, v.data[0]);
}

TEST_F(Frames, BitWriteQueuesAReadThenAWriteOfTheCoveringByte)
{
    VARIABLE v = makeVar("Q_bit", 3, 1, {1});
    getWriteFrame(v);
    ASSERT_EQ(2, driver.frameList.size());

    const FRAME_PRO& rd = driver.frameList.at(0);
    expectImage(rd.frame, readImage(0xF030, 0, 1), "read half of Q_bit 3");
    EXPECT_EQ(50, rd.sendLen);
    EXPECT_EQ(47, rd.recvLen);
    EXPECT_EQ(46, rd.dataStart);
    EXPECT_EQ(1, rd.readLen);
    EXPECT_EQ("Q_bit", S(rd.var.regName));
    EXPECT_EQ(3, rd.var.address);
    EXPECT_EQ(1, rd.var.length);

    const FRAME_PRO& wr = driver.frameList.at(1);
    Bytes expected = header(45, 801, 0x8147, 3, 13, 0);
    appendLe32(expected, 0xF030);
    appendLe32(expected, 0);
    appendLe32(expected, 1);
    expectImage(wr.frame, expected, "write half of Q_bit 3 (before the data byte)");
    EXPECT_EQ(51, wr.sendLen);
    EXPECT_EQ(42, wr.recvLen);
    EXPECT_EQ(50, wr.dataStart);
    EXPECT_EQ(0, wr.readLen);
    EXPECT_EQ("Q_bit", S(wr.var.regName));
    EXPECT_EQ(3, wr.var.address);
    EXPECT_EQ(1, wr.var.length);
}

TEST_F(Frames, BitWriteOfInputBitsNineAndTenUsesByteOne)
{
    VARIABLE v = makeVar("I_bit", 9, 2, {0, 1});
    getWriteFrame(v);
    ASSERT_EQ(2, driver.frameList.size());
    expectImage(driver.frameList.at(0).frame, readImage(0xF020, 1, 1), "read half of I_bit 9");
    const unsigned char* w = driver.frameList.at(1).frame;
    EXPECT_EQ(3, w[22]);
    EXPECT_EQ(0x20, w[38]);
    EXPECT_EQ(0xF0, w[39]);
    EXPECT_EQ(1, w[42]);
    EXPECT_EQ(1, w[46]);
    EXPECT_EQ(51, driver.frameList.at(1).sendLen);
}

TEST_F(Frames, BitWriteAcrossAByteBoundaryCoversTwoBytes)
{
    VARIABLE v = makeVar("M_bit", 6, 4, {1, 0, 1, 0});
    getWriteFrame(v);
    ASSERT_EQ(2, driver.frameList.size());
    expectImage(driver.frameList.at(0).frame, readImage(0x4020, 0, 2), "read half of M_bit 6 length 4");
    const FRAME_PRO& wr = driver.frameList.at(1);
    EXPECT_EQ(52, wr.sendLen);
    EXPECT_EQ(46, wr.frame[2]);
    EXPECT_EQ(14, wr.frame[26]);
    EXPECT_EQ(2, wr.frame[46]);
}

TEST_F(Frames, WriteOf220BytesKeepsOnlyTheLowByteOfTheLengthFields)
{
    VARIABLE v = makeVar("M_W", 0, 220);
    for (int i = 0; i < 220; ++i)
        v.data[i] = static_cast<unsigned char>(i + 1);
    getWriteFrame(v);
    ASSERT_EQ(1, driver.frameList.size());
    const FRAME_PRO& f = driver.frameList.first();
    // AMS/TCP length: low byte of 264 (0x108).
    EXPECT_EQ(0x08, f.frame[2]);
    EXPECT_EQ(0x00, f.frame[3]);
    EXPECT_EQ(0x00, f.frame[4]);
    EXPECT_EQ(0x00, f.frame[5]);
    // AMS data length: low byte of 232 (0xE8).
    EXPECT_EQ(0xE8, f.frame[26]);
    EXPECT_EQ(0x00, f.frame[27]);
    EXPECT_EQ(0x00, f.frame[28]);
    EXPECT_EQ(0x00, f.frame[29]);
    // The ADS length field is whole.
    EXPECT_EQ(220, f.frame[46]);
    EXPECT_EQ(0, f.frame[47]);
    EXPECT_EQ(270, f.sendLen);
    EXPECT_EQ(42, f.recvLen);
    for (int i = 0; i < 220; ++i)
        ASSERT_EQ(i + 1, f.frame[50 + i]) << "data byte " << i;
}

TEST_F(Frames, WriteOf300BytesCarriesAFull16BitAdsLength)
{
    VARIABLE v = makeVar("Q_W", 2, 300);
    getWriteFrame(v);
    const FRAME_PRO& f = driver.frameList.first();
    EXPECT_EQ(0x58, f.frame[2]);  // 344 = 0x158
    EXPECT_EQ(0x00, f.frame[3]);
    EXPECT_EQ(0x38, f.frame[26]);  // 312 = 0x138
    EXPECT_EQ(0x00, f.frame[27]);
    EXPECT_EQ(0x2C, f.frame[46]);  // 300 = 0x12C
    EXPECT_EQ(0x01, f.frame[47]);
    EXPECT_EQ(350, f.sendLen);
}

TEST_F(Frames, WriteLongerThanTheFrameStaysInsideTheFrame)
{
    // 50 header bytes leave room for 974 data bytes; longer writes must not spill over.
    const int lengths[] = {974, 975, 1000, 1024, 4096};
    for (int n : lengths) {
        SCOPED_TRACE(n);
        driver.frameList.clear();
        std::unique_ptr<VARIABLE> v(new VARIABLE(makeVar("M_W", 0, n)));
        for (int i = 0; i < 1024; ++i)
            v->data[i] = static_cast<unsigned char>(0xA0 ^ i);
        getWriteFrame(*v);
        EXPECT_EQ(n, v->length);
        for (int k = 0; k < driver.frameList.size(); ++k) {
            const FRAME_PRO& f = driver.frameList.at(k);
            EXPECT_GE(f.sendLen, 0);
            EXPECT_LE(f.sendLen, 1024);
            EXPECT_EQ(3, f.frame[22]);
            EXPECT_EQ(0x20, f.frame[38]);
            EXPECT_EQ(0x40, f.frame[39]);
            EXPECT_EQ(0, f.readLen);
            EXPECT_EQ("M_W", S(f.var.regName));
            EXPECT_EQ(n, f.var.length);
            const int end = f.sendLen < 1024 ? f.sendLen : 1024;
            for (int i = 50; i < end; ++i)
                ASSERT_EQ(static_cast<unsigned char>(0xA0 ^ (i - 50)), f.frame[i]) << "frame byte " << i;
        }
        if (n == 974) {
            ASSERT_EQ(1, driver.frameList.size());
            EXPECT_EQ(1024, driver.frameList.first().sendLen);
        }
        // The host's copy of the frame is sound as well.
        if (!driver.frameList.isEmpty()) {
            std::unique_ptr<FRAME_PRO> out(new FRAME_PRO);
            ASSERT_EQ(1, intf_getSendFrame(out.get()));
            EXPECT_LE(out->sendLen, 1024);
            EXPECT_EQ("M_W", S(out->var.regName));
        }
    }
    driver.frameList.clear();
}

// ---------------------------------------------------------------------------------------
// Reply length check
// ---------------------------------------------------------------------------------------

TEST_F(Frames, HandshakeReplyOf46BytesIsAcceptedAndClearsTheFlag)
{
    handShakeFrame();
    unsigned char junk[1024];
    std::memset(junk, 0x77, sizeof junk);
    ASSERT_EQ(1, driver.needHandShake);
    EXPECT_EQ(2, check_rcv_data(junk, QList<VARIABLE>(), 46));
    EXPECT_EQ(0, driver.needHandShake);
}

TEST_F(Frames, LongerHandshakeReplyIsAcceptedToo)
{
    handShakeFrame();
    unsigned char junk[1024] = {0};
    EXPECT_EQ(2, check_rcv_data(junk, QList<VARIABLE>(), 60));
    EXPECT_EQ(0, driver.needHandShake);
}

TEST_F(Frames, ShortHandshakeReplyIsRejected)
{
    handShakeFrame();
    unsigned char junk[1024] = {0};
    EXPECT_EQ(0, check_rcv_data(junk, QList<VARIABLE>(), 45));
    EXPECT_EQ(1, driver.needHandShake);
    EXPECT_EQ(0, check_rcv_data(junk, QList<VARIABLE>(), 0));
    EXPECT_EQ(1, driver.needHandShake);
}

TEST_F(Frames, FullBufferHandshakeReplyKeepsTheFlag)
{
    handShakeFrame();
    unsigned char junk[1024] = {0};
    EXPECT_EQ(2, check_rcv_data(junk, QList<VARIABLE>(), 1024));
    EXPECT_EQ(1, driver.needHandShake);
}

TEST_F(Frames, ReadReplyMustHaveExactlyTheExpectedLength)
{
    driver.needHandShake = 0;
    getReadFrame(one(makeVar("M_bit", 13, 1)));
    ASSERT_EQ(47, driver.frameList.first().recvLen);
    unsigned char junk[1024] = {0};
    QList<VARIABLE> readList;
    readList.append(makeVar("I_W", 0, 2));
    EXPECT_EQ(1, check_rcv_data(junk, readList, 47));
    EXPECT_EQ(0, check_rcv_data(junk, readList, 48));
    EXPECT_EQ(0, check_rcv_data(junk, readList, 46));
    EXPECT_EQ(0, check_rcv_data(junk, readList, 1024));
}

TEST_F(Frames, WriteReplyOf42BytesIsAcceptedWithoutReadData)
{
    driver.needHandShake = 0;
    VARIABLE v = makeVar("M_W", 10, 2, {0x34, 0x12});
    getWriteFrame(v);
    unsigned char junk[1024] = {0};
    EXPECT_EQ(2, check_rcv_data(junk, QList<VARIABLE>(), 42));
    EXPECT_EQ(0, check_rcv_data(junk, QList<VARIABLE>(), 41));
    EXPECT_EQ(0, check_rcv_data(junk, QList<VARIABLE>(), 43));
}

TEST_F(Frames, AfterTheHandshakeItsLengthIsExact)
{
    driver.needHandShake = 0;
    handShakeFrame();
    unsigned char junk[1024] = {0};
    EXPECT_EQ(0, check_rcv_data(junk, QList<VARIABLE>(), 60));
    EXPECT_EQ(2, check_rcv_data(junk, QList<VARIABLE>(), 46));
    EXPECT_EQ(0, driver.needHandShake);
}

TEST_F(Frames, ReplyContentIsNotLookedAt)
{
    driver.needHandShake = 0;
    getReadFrame(one(makeVar("Q_W", 100, 4)));
    unsigned char zeros[1024] = {0};
    unsigned char ones[1024];
    std::memset(ones, 0xFF, sizeof ones);
    EXPECT_EQ(1, check_rcv_data(zeros, QList<VARIABLE>(), 50));
    EXPECT_EQ(1, check_rcv_data(ones, QList<VARIABLE>(), 50));
}

// ---------------------------------------------------------------------------------------
// Bit write end to end through the host's entry points
// ---------------------------------------------------------------------------------------

TEST_F(Frames, BitWriteIsPatchedFromTheReadReply)
{
    handshake();
    unsigned char data[1] = {1};
    ASSERT_EQ(1, intf_setData(0, L("Q_bit"), 3, 1, data, 0));

    FRAME_PRO out;
    ASSERT_EQ(1, intf_getSendFrame(&out));
    EXPECT_EQ(2, driver.curFrameKind);
    expectImage(out.frame, readImage(0xF030, 0, 1), "read half");
    EXPECT_EQ(50, out.sendLen);
    EXPECT_EQ(47, out.recvLen);

    QByteArray reply = readReply({0xF0});
    ASSERT_EQ(47, reply.size());
    QString err;
    EXPECT_EQ(1, intf_dealRcvFrame(reply, err));
    ASSERT_EQ(1, driver.frameList.size());

    std::memset(out.frame, 0, sizeof out.frame);
    ASSERT_EQ(1, intf_getSendFrame(&out));
    EXPECT_EQ(51, out.sendLen);
    EXPECT_EQ(42, out.recvLen);
    EXPECT_EQ(3, out.frame[22]);
    EXPECT_EQ(0x30, out.frame[38]);
    EXPECT_EQ(0xF0, out.frame[39]);
    EXPECT_EQ(0, out.frame[42]);
    EXPECT_EQ(1, out.frame[46]);
    EXPECT_EQ(0xF8, out.frame[50]);

    // The acknowledgement ends the write; nothing else is pending.
    QByteArray ack = replyOf(42);
    EXPECT_EQ(1, intf_dealRcvFrame(ack, err));
    EXPECT_TRUE(driver.frameList.isEmpty());
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_EQ(0, intf_getSendFrame(&out));
}

TEST_F(Frames, BitWriteClearsAndSetsBitsOfTheByteRead)
{
    handshake();
    unsigned char data[2] = {0, 1};
    ASSERT_EQ(1, intf_setData(0, L("I_bit"), 9, 2, data, 0));
    FRAME_PRO out;
    ASSERT_EQ(1, intf_getSendFrame(&out));
    expectImage(out.frame, readImage(0xF020, 1, 1), "read half of I_bit 9");
    QByteArray reply = readReply({0xA3});  // 1010 0011
    QString err;
    EXPECT_EQ(1, intf_dealRcvFrame(reply, err));
    ASSERT_EQ(1, intf_getSendFrame(&out));
    EXPECT_EQ(3, out.frame[22]);
    EXPECT_EQ(1, out.frame[42]);
    EXPECT_EQ(0xA5, out.frame[50]);  // bit 1 cleared, bit 2 set
}

TEST_F(Frames, BitWriteAcrossTwoBytesPatchesBoth)
{
    handshake();
    unsigned char data[4] = {1, 0, 1, 0};
    ASSERT_EQ(1, intf_setData(0, L("M_bit"), 6, 4, data, 0));
    FRAME_PRO out;
    ASSERT_EQ(1, intf_getSendFrame(&out));
    expectImage(out.frame, readImage(0x4020, 0, 2), "read half of M_bit 6 length 4");
    QByteArray reply = readReply({0x00, 0xFF});
    ASSERT_EQ(48, reply.size());
    QString err;
    EXPECT_EQ(1, intf_dealRcvFrame(reply, err));
    ASSERT_EQ(1, intf_getSendFrame(&out));
    EXPECT_EQ(52, out.sendLen);
    EXPECT_EQ(0x40, out.frame[50]);  // bit 6 set, bit 7 cleared
    EXPECT_EQ(0xFD, out.frame[51]);  // bit 0 set, bit 1 cleared
}

// ---------------------------------------------------------------------------------------
// Checksum utility
// ---------------------------------------------------------------------------------------

TEST(Checksum, NineDigitsGive0x4B37)
{
    unsigned char digits[] = "123456789";
    EXPECT_EQ(0x4B37, computate_check(digits, 9));
}

TEST(Checksum, LengthZeroGivesTheInitialValue)
{
    unsigned char any[] = "123456789";
    EXPECT_EQ(0xFFFF, computate_check(any, 0));
}

TEST(Checksum, OnlyLenBytesAreUsed)
{
    unsigned char longer[] = "123456789XYZ";
    EXPECT_EQ(0x4B37, computate_check(longer, 9));
}

TEST(Checksum, FurtherKnownValues)
{
    unsigned char zero[1] = {0x00};
    EXPECT_EQ(0x40BF, computate_check(zero, 1));
    unsigned char request[6] = {0x01, 0x03, 0x00, 0x00, 0x00, 0x01};
    EXPECT_EQ(0x0A84, computate_check(request, 6));
}
