// What docs/HOST_INTEGRATION.md tells a host about the driver's behaviour and no other test
// pins: the pacing the host owes, the recipe transfer's missing success signal, recipe bit
// variables, the callback inside intf_setData, stale cache values, the write mode's place.
#include <gtest/gtest.h>

#include <vector>

#include "ads_ethernet.h"
#include "driver_fixture.h"
#include "test_plc.h"

using namespace adstest;

namespace {

using Bytes = std::vector<uint8_t>;

class HostContract : public DriverTest { };

// intf_getSendFrame never returns 0 once a screen is merged: the host must pace itself.
TEST_F(HostContract, AMergedScreenMeansAFrameOnEveryCall)
{
    ASSERT_TRUE(h->handshake());
    EXPECT_EQ(h->fetch(), 0);  // nothing merged, nothing queued
    ASSERT_EQ(h->addrMerge({Host::key(1, M_W, 0, 1)}), 1);
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(h->cycle(), 1) << "cycle " << i;
}

// The driver lowers a recipe flag when the transfer is over, whether or not the PLC took it.
TEST_F(HostContract, ARecipeWriteThePlcRefusesStillLowersTheFlag)
{
    ASSERT_TRUE(h->handshake());
    h->plc.setBytes(kMemory, 0, {0x11, 0x22, 0x33, 0x44});
    ASSERT_EQ(h->setRcpAddress({Host::rcpVar(1, 1, M_W, 0, 2, 0)}), 1);
    for (int i = 0; i < 4; ++i)
        h->recipe[i] = static_cast<unsigned char>(0xA0 + i);
    h->setRecipeWriteFlag(1);
    EXPECT_EQ(h->cycle(Fault::AdsError), 1);  // the error answer has a good reply's length
    EXPECT_EQ(h->recipeWriteFlag(), 0);
    EXPECT_EQ(h->plc.bytes(kMemory, 0, 4), (Bytes {0x11, 0x22, 0x33, 0x44}));
}

// A recipe bit variable: the read before the write is not merged into the write frame, so
// the bytes it covers are written as zeros, whatever the recipe buffer holds.
TEST_F(HostContract, ARecipeBitVariableWritesZerosOverItsBytes)
{
    ASSERT_TRUE(h->handshake());
    h->plc.setBytes(kMemory, 0, {0xFF});
    ASSERT_EQ(h->setRcpAddress({Host::rcpVar(1, 1, M_bit, 3, 4, 0)}), 1);
    for (int i = 0; i < 4; ++i)
        h->recipe[i] = 1;
    h->setRecipeWriteFlag(1);
    h->plc.clearLog();
    EXPECT_EQ(h->cycle(), 1);  // the read of byte 0
    EXPECT_EQ(h->cycle(), 1);  // the write of byte 0
    ASSERT_EQ(h->plc.requests().size(), 2u);
    EXPECT_EQ(h->plc.requests()[0].command, kCmdRead);
    EXPECT_EQ(h->plc.requests()[1].command, kCmdWrite);
    EXPECT_EQ(h->recipeWriteFlag(), 0);
    EXPECT_EQ(h->plc.bytes(kMemory, 0, 1), (Bytes {0x00}));
}

// The callback runs inside intf_setData, on the caller's thread, before any frame is sent.
TEST_F(HostContract, AWriteReportsTheChangedValueFromInsideSetData)
{
    ASSERT_TRUE(h->handshake());
    ASSERT_EQ(h->addrMerge({Host::key(1, M_W, 10, 1)}), 1);
    h->clearReports();
    const int framesBefore = h->framesSent;
    h->setData(1, M_W, 10, {0x34, 0x12});
    EXPECT_EQ(h->framesSent, framesBefore);
    EXPECT_FALSE(h->reportsWithText(M_W).empty());
}

// intf_getData says nothing about freshness: an address no longer on the screen keeps the
// value last read.
TEST_F(HostContract, AnAddressOffTheScreenKeepsItsLastValue)
{
    ASSERT_TRUE(h->handshake());
    ASSERT_EQ(h->addrMerge({Host::key(1, M_W, 10, 1)}), 1);
    h->plc.setBytes(kMemory, 10, {0x34, 0x12});
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2), (Bytes {0x34, 0x12}));
    ASSERT_EQ(h->addrMerge({Host::key(1, M_W, 100, 1)}), 1);
    h->plc.setBytes(kMemory, 10, {0x99, 0x99});
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->getData(1, M_W, 10, 1, 2), (Bytes {0x34, 0x12}));
}

// The last argument of intf_setData comes back as var.kind of its frames, the read before a
// bit write included; nothing else reads it.
TEST_F(HostContract, TheWriteModeIsCarriedInTheFramesVariable)
{
    ASSERT_TRUE(h->handshake());
    h->setData(1, M_W, 10, {0x01, 0x00}, 7);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(u16(h->frame.frame + 22), kCmdWrite);
    EXPECT_EQ(h->frame.var.kind, 7);
    ASSERT_EQ(h->cycle(), 1);
    h->setData(1, M_bit, 83, {1}, 9);
    ASSERT_EQ(h->fetch(), 1);
    EXPECT_EQ(u16(h->frame.frame + 22), kCmdRead);
    EXPECT_EQ(h->frame.var.kind, 9);
}

}  // namespace

namespace {

// The error text names a merged block by the block: word register, first byte, bytes.
TEST_F(HostContract, TheErrorTextOfAMergedBlockNamesTheBlockInBytes)
{
    ASSERT_TRUE(h->handshake());
    ASSERT_EQ(h->addrMerge({Host::key(1, M_W, 0, 1), Host::key(1, M_bit, 16, 1, -1), Host::key(1, M_W, 4, 1)}), 1);
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->errorText.toStdString(), "1#M_W0(6)(52)");
    h->setData(1, M_W, 100, {0x01, 0x00});
    ASSERT_EQ(h->cycle(), 1);
    EXPECT_EQ(h->errorText.toStdString(), "1#M_W100(2)(42)");
}

}  // namespace
