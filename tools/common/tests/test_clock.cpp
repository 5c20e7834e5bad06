#include "adstool/clock.h"

#include <gtest/gtest.h>

#include <thread>

using namespace adstool;

TEST(Clock, UnitsAgreeAndTimeMovesOn)
{
    const int64_t ns = nowNs();
    const int64_t us = nowUs();
    const int64_t ms = nowMs();
    const double s = nowSeconds();
    // Read in this order, each later reading is at least the earlier one in its own unit.
    EXPECT_GE(us, ns / 1000);
    EXPECT_GE(ms, us / 1000);
    EXPECT_GE(s, double(ms) / 1000.0 - 1e-9);
    EXPECT_LT(s - double(ns) / 1e9, 1.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GE(nowMs() - ms, 20);
    EXPECT_GE(nowUs() - us, 20000);
}
