#include "adstool/hostport.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace adstool {

bool parsePort(const std::string& text, uint16_t& out, PortRule rule, std::string* why)
{
    const unsigned long lo = rule == PortRule::AnyPort ? 0 : 1;
    const std::string range = "port must be a number from " + std::to_string(lo) + " to 65535";
    auto fail = [&](const std::string& got) {
        if (why)
            *why = range + ", got '" + got + "'";
        return false;
    };
    if (text.empty() || text.size() > 5)
        return fail(text);
    unsigned long v = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return fail(text);
        v = v * 10 + unsigned(c - '0');
    }
    if (v < lo || v > 65535)
        return fail(text);
    out = uint16_t(v);
    return true;
}

bool parseHostPort(const std::string& text, HostPort& out, PortRule rule, std::string* why, uint16_t defaultPort)
{
    const size_t colon = text.rfind(':');
    const std::string host = colon == std::string::npos ? text : text.substr(0, colon);
    if (host.empty()) {
        if (why)
            *why = "no host before the port in '" + text + "'";
        return false;
    }
    uint16_t port = defaultPort;
    if (colon == std::string::npos) {
        if (defaultPort == 0) {
            if (why)
                *why = "no ':PORT' in '" + text + "'";
            return false;
        }
    } else {
        std::string portWhy;
        if (!parsePort(text.substr(colon + 1), port, rule, &portWhy)) {
            if (why)
                *why = portWhy;
            return false;
        }
    }
    out.host = host;
    out.port = port;
    return true;
}

bool isIpv4Address(const std::string& text)
{
    in_addr a;
    return inet_pton(AF_INET, text.c_str(), &a) == 1;
}

}  // namespace adstool
