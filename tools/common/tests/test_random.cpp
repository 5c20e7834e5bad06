#include "adstool/random.h"

#include <gtest/gtest.h>

#include <set>

using namespace adstool;

TEST(RandomNumbers, IsTheStandardMersenneTwister)
{
    // The standard's check value: the 10000th number of a default-seeded mt19937_64.
    Random r(5489);
    for (int i = 0; i < 9999; ++i)
        r.next();
    EXPECT_EQ(r.next(), 9981545732273789042ull);
}

TEST(RandomNumbers, SameSeedSameSequenceOtherSeedOther)
{
    Random a(7), b(7), c(8);
    bool differs = false;
    for (int i = 0; i < 100; ++i) {
        const uint64_t x = a.next();
        EXPECT_EQ(x, b.next());
        differs = differs || x != c.next();
    }
    EXPECT_TRUE(differs);
    a.seed(7);
    Random d(7);
    EXPECT_EQ(a.next(), d.next());
}

TEST(RandomNumbers, BelowStaysInRangeAndCoversIt)
{
    Random r(1);
    std::vector<int> seen(10, 0);
    for (int i = 0; i < 10000; ++i) {
        const uint64_t x = r.below(10);
        ASSERT_LT(x, 10u);
        ++seen[x];
    }
    for (int n : seen) {  // 1000 expected each; 5 sigma is about 150
        EXPECT_GT(n, 800);
        EXPECT_LT(n, 1200);
    }
    EXPECT_EQ(r.below(0), 0u);
    EXPECT_EQ(r.below(1), 0u);
}

TEST(RandomNumbers, BetweenIncludesBothEnds)
{
    Random r(3);
    std::set<int64_t> seen;
    for (int i = 0; i < 2000; ++i) {
        const int64_t x = r.between(-2, 2);
        ASSERT_GE(x, -2);
        ASSERT_LE(x, 2);
        seen.insert(x);
    }
    EXPECT_EQ(seen.size(), 5u);
    EXPECT_EQ(r.between(5, 5), 5);
    EXPECT_EQ(r.between(5, 1), 5);
    r.between(INT64_MIN, INT64_MAX);  // the whole range: no overflow
}

TEST(RandomNumbers, UnitAndChance)
{
    Random r(11);
    int hits = 0;
    for (int i = 0; i < 10000; ++i) {
        const double u = r.unit();
        ASSERT_GE(u, 0.0);
        ASSERT_LT(u, 1.0);
        EXPECT_FALSE(r.chance(0.0));
        EXPECT_TRUE(r.chance(1.0));
        hits += r.chance(0.25) ? 1 : 0;
    }
    EXPECT_GT(hits, 2300);
    EXPECT_LT(hits, 2700);
}

TEST(RandomNumbers, Bytes)
{
    Random r(5);
    const std::vector<uint8_t> b = r.bytes(4096);
    ASSERT_EQ(b.size(), 4096u);
    std::set<uint8_t> distinct(b.begin(), b.end());
    EXPECT_GT(distinct.size(), 250u);
}
