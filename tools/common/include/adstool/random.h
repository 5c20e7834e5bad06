// Seeded random numbers for simulators and tests: std::mt19937_64, and helpers that give the
// same sequence for a seed with every standard library (no std::*_distribution, whose
// algorithms are left to the implementation).
#ifndef ADSTOOL_RANDOM_H
#define ADSTOOL_RANDOM_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace adstool {

class Random {
public:
    explicit Random(uint64_t seed = 1) : engine_(seed) { }
    void seed(uint64_t s) { engine_.seed(s); }

    uint64_t next() { return engine_(); }  // 64 random bits
    uint8_t byte() { return uint8_t(engine_() >> 56); }
    // Uniform in 0..n-1 (0 when n is 0), without modulo bias.
    uint64_t below(uint64_t n);
    // Uniform in lo..hi, both included (lo when hi < lo).
    int64_t between(int64_t lo, int64_t hi);
    // Uniform in [0, 1), 53 bits.
    double unit() { return double(engine_() >> 11) * (1.0 / 9007199254740992.0); }
    // True with probability p (never for p <= 0, always for p >= 1).
    bool chance(double p) { return unit() < p; }
    std::vector<uint8_t> bytes(size_t n);

    std::mt19937_64& engine() { return engine_; }

private:
    std::mt19937_64 engine_;
};

}  // namespace adstool

#endif  // ADSTOOL_RANDOM_H
