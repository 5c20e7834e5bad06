// AMS Net IDs: six numbers 0..255 written "a.b.c.d.e.f".
#ifndef ADSTOOL_NETID_H
#define ADSTOOL_NETID_H

#include <cstdint>
#include <string>
#include <vector>

namespace adstool {

struct NetId {
    uint8_t b[6] = {0, 0, 0, 0, 0, 0};

    // "a.b.c.d.e.f", each a decimal number 0..255 of at most three digits, nothing else
    // (no spaces, signs or empty fields; 300 is an error, not 44). On failure out is left
    // alone and why (when given) says what is wrong, e.g. "field 6 is 300, above 255".
    static bool parse(const std::string& text, NetId& out, std::string* why = nullptr);
    std::string str() const;
    // The six bytes as they stand in an AMS header.
    static NetId fromBytes(const uint8_t* p);
    void put(std::vector<uint8_t>& v) const { v.insert(v.end(), b, b + 6); }

    bool operator==(const NetId& o) const;
    bool operator!=(const NetId& o) const { return !(*this == o); }
    bool operator<(const NetId& o) const;
};

// The panel address the driver takes for a PLC Net ID: the first address of `addresses`
// (IPv4 dotted texts in interface order) that is not 127.0.0.1 and whose
// text contains the first and the second part of the Net ID as substrings (any address
// when the Net ID has fewer than two parts). Empty when none matches.
std::string panelAddressFor(const std::string& plcNetId, const std::vector<std::string>& addresses);

// The machine's IPv4 addresses in interface order (getifaddrs).
std::vector<std::string> localIpv4Addresses();

inline bool isNetId(const std::string& text)
{
    NetId id;
    return NetId::parse(text, id);
}

}  // namespace adstool

#endif  // ADSTOOL_NETID_H
