// The tools' one clock: a monotonic clock (std::chrono::steady_clock) in the units they use.
// Header-only.
#ifndef ADSTOOL_CLOCK_H
#define ADSTOOL_CLOCK_H

#include <chrono>
#include <cstdint>

namespace adstool {

inline int64_t nowNs()
{
    using namespace std::chrono;
    return duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
}

inline int64_t nowUs()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

inline int64_t nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

inline double nowSeconds()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace adstool

#endif
