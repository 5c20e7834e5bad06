#include "adstool/hex.h"

#include <cstdio>

namespace adstool {

std::string toHex(const uint8_t* p, size_t n)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(n * 2);
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

static int digitValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool fromHex(const std::string& text, std::vector<uint8_t>& out)
{
    out.clear();
    if (text.size() % 2)
        return false;
    std::vector<uint8_t> bytes;
    bytes.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        const int hi = digitValue(text[i]), lo = digitValue(text[i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        bytes.push_back(uint8_t(hi * 16 + lo));
    }
    out.swap(bytes);
    return true;
}

std::string hexNumber(uint32_t value, bool upper)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, upper ? "0x%X" : "0x%x", unsigned(value));
    return buf;
}

}  // namespace adstool
