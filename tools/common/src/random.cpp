#include "adstool/random.h"

#include <limits>

namespace adstool {

uint64_t Random::below(uint64_t n)
{
    if (n == 0)
        return 0;
    // Values from `threshold` up form a whole number of runs of n: no modulo bias.
    const uint64_t threshold = (0 - n) % n;
    for (;;) {
        const uint64_t x = engine_();
        if (x >= threshold)
            return x % n;
    }
}

int64_t Random::between(int64_t lo, int64_t hi)
{
    if (hi <= lo)
        return lo;
    const uint64_t span = uint64_t(hi) - uint64_t(lo);
    const uint64_t r = span == std::numeric_limits<uint64_t>::max() ? engine_() : below(span + 1);
    return int64_t(uint64_t(lo) + r);
}

std::vector<uint8_t> Random::bytes(size_t n)
{
    std::vector<uint8_t> out(n);
    for (uint8_t& b : out)
        b = byte();
    return out;
}

}  // namespace adstool
