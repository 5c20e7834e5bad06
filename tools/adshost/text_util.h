// Small text and clock helpers shared by the reference host, its command line and the probe
// (header-only, no Qt).
#ifndef ADSHOST_TEXT_UTIL_H
#define ADSHOST_TEXT_UTIL_H

#include "adstool/deadline_io.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace adshost {
namespace util {

// Milliseconds of a monotonic clock.
inline int64_t nowMs() { return adstool::nowMs(); }

// The fields of `s` between the separators; an empty text gives one empty field.
inline std::vector<std::string> split(const std::string& s, char sep)
{
    std::vector<std::string> out;
    std::string cur;
    for (char c : s) {
        if (c == sep) {
            out.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    out.push_back(cur);
    return out;
}

// A whole decimal number from lo to hi; false for anything else.
inline bool toInt(const std::string& s, long long lo, long long hi, long long& out)
{
    if (s.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(s.c_str(), &end, 10);
    if (errno || *end || v < lo || v > hi)
        return false;
    out = v;
    return true;
}

}  // namespace util
}  // namespace adshost

#endif  // ADSHOST_TEXT_UTIL_H
