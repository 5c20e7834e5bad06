// Small text and clock helpers shared by the reference host, its command line and the probe
// (header-only, no Qt).
#ifndef ADSHOST_TEXT_UTIL_H
#define ADSHOST_TEXT_UTIL_H

#include "adstool/deadline_io.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace adshost {
namespace util {

using adstool::nowMs;  // milliseconds of the tools' monotonic clock

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

// A JSON string literal of s (quotes included).
inline std::string jsonEscape(const std::string& s)
{
    std::string o = "\"";
    for (unsigned char c : s) {
        switch (c) {
        case '"':
            o += "\\\"";
            break;
        case '\\':
            o += "\\\\";
            break;
        case '\n':
            o += "\\n";
            break;
        case '\r':
            o += "\\r";
            break;
        case '\t':
            o += "\\t";
            break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                o += buf;
            } else {
                o += char(c);
            }
        }
    }
    return o + "\"";
}

}  // namespace util
}  // namespace adshost

#endif  // ADSHOST_TEXT_UTIL_H
