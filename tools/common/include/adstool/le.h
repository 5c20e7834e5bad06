// Little-endian integers in byte buffers: the byte order of every AMS/TCP and ADS field.
#ifndef ADSTOOL_LE_H
#define ADSTOOL_LE_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace adstool {

// Reads from p (at least 2 or 4 bytes there).
inline uint16_t getU16(const uint8_t* p) { return uint16_t(p[0] | (p[1] << 8)); }
inline uint32_t getU32(const uint8_t* p)
{
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
// Reads at offset `at` of v; 0 when v is too short (callers check sizes first).
inline uint16_t getU16(const std::vector<uint8_t>& v, size_t at)
{
    return at + 2 <= v.size() ? getU16(v.data() + at) : 0;
}
inline uint32_t getU32(const std::vector<uint8_t>& v, size_t at)
{
    return at + 4 <= v.size() ? getU32(v.data() + at) : 0;
}

// Writes over p (at least 2 or 4 bytes there).
inline void setU16(uint8_t* p, uint16_t x)
{
    p[0] = uint8_t(x);
    p[1] = uint8_t(x >> 8);
}
inline void setU32(uint8_t* p, uint32_t x)
{
    for (int i = 0; i < 4; ++i)
        p[i] = uint8_t(x >> (8 * i));
}

// Appends to v.
inline void putU16(std::vector<uint8_t>& v, uint16_t x)
{
    v.push_back(uint8_t(x));
    v.push_back(uint8_t(x >> 8));
}
inline void putU32(std::vector<uint8_t>& v, uint32_t x)
{
    for (int i = 0; i < 4; ++i)
        v.push_back(uint8_t(x >> (8 * i)));
}

}  // namespace adstool

#endif  // ADSTOOL_LE_H
