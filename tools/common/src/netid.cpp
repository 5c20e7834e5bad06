#include "adstool/netid.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace adstool {

bool NetId::parse(const std::string& text, NetId& out, std::string* why)
{
    auto fail = [why](const std::string& reason) {
        if (why)
            *why = reason;
        return false;
    };
    NetId id;
    size_t pos = 0;
    for (int i = 0; i < 6; ++i) {
        const std::string field = "field " + std::to_string(i + 1);
        if (pos >= text.size() || text[pos] < '0' || text[pos] > '9') {
            if (pos >= text.size() && i > 0)
                return fail("'" + text + "' has " + std::to_string(i) + " of 6 numbers");
            return fail(field + " of '" + text + "' is not a number");
        }
        unsigned v = 0;
        size_t digits = 0;
        while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
            v = v * 10 + unsigned(text[pos++] - '0');
            if (++digits > 3)
                return fail(field + " of '" + text + "' has more than 3 digits");
        }
        if (v > 255)
            return fail(field + " of '" + text + "' is " + std::to_string(v) + ", above 255");
        id.b[i] = uint8_t(v);
        if (i < 5) {
            if (pos >= text.size())
                return fail("'" + text + "' has " + std::to_string(i + 1) + " of 6 numbers");
            if (text[pos] != '.')
                return fail(
                    "'" + text + "' has '" + text[pos] + "' after " + field + " (numbers are separated by '.')");
            ++pos;
        }
    }
    if (pos != text.size())
        return fail("'" + text + "' goes on after 6 numbers");
    out = id;
    return true;
}

std::string NetId::str() const
{
    std::string s;
    for (int i = 0; i < 6; ++i) {
        if (i)
            s += '.';
        s += std::to_string(b[i]);
    }
    return s;
}

NetId NetId::fromBytes(const uint8_t* p)
{
    NetId id;
    std::memcpy(id.b, p, 6);
    return id;
}

static std::vector<std::string> splitDots(const std::string& s)
{
    std::vector<std::string> out(1);
    for (char c : s) {
        if (c == '.')
            out.emplace_back();
        else
            out.back() += c;
    }
    return out;
}

std::string panelAddressFor(const std::string& plcNetId, const std::vector<std::string>& addresses)
{
    const std::vector<std::string> parts = splitDots(plcNetId);
    for (const std::string& a : addresses) {
        // The driver skips the loopback address 127.0.0.1 and QHostAddress's null address,
        // which no interface lists; 0.0.0.0 is not null to QHostAddress, so it is taken.
        if (a == "127.0.0.1" || a.empty())
            continue;
        if (parts.size() < 2)
            return a;
        if (a.find(parts[0]) != std::string::npos && a.find(parts[1]) != std::string::npos)
            return a;
    }
    return std::string();
}

std::vector<std::string> localIpv4Addresses()
{
    std::vector<std::string> out;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return out;
    for (ifaddrs* i = list; i; i = i->ifa_next) {
        if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET)
            continue;
        char buf[INET_ADDRSTRLEN] = {};
        ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(i->ifa_addr)->sin_addr, buf, sizeof buf);
        out.push_back(buf);
    }
    ::freeifaddrs(list);
    return out;
}

bool NetId::operator==(const NetId& o) const { return std::memcmp(b, o.b, 6) == 0; }
bool NetId::operator<(const NetId& o) const { return std::memcmp(b, o.b, 6) < 0; }

}  // namespace adstool
