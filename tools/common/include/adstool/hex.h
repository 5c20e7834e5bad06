// Bytes as hexadecimal text ("0a1bff", the control protocol's memory format) and back.
#ifndef ADSTOOL_HEX_H
#define ADSTOOL_HEX_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace adstool {

// Two lower-case digits per byte, no separators.
std::string toHex(const uint8_t* p, size_t n);
inline std::string toHex(const std::vector<uint8_t>& v) { return toHex(v.data(), v.size()); }

// Pairs of hex digits (either case), no separators, even length; an empty text gives no
// bytes. False (and out empty) for anything else.
bool fromHex(const std::string& text, std::vector<uint8_t>& out);

// A number as "0x" and its hex digits without leading zeros ("0x0", "0x705"; "0x70B" upper).
std::string hexNumber(uint32_t value, bool upper = false);

}  // namespace adstool

#endif  // ADSTOOL_HEX_H
