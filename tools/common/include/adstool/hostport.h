// "host:port" texts of the command lines and the port numbers in them.
#ifndef ADSTOOL_HOSTPORT_H
#define ADSTOOL_HOSTPORT_H

#include <cstdint>
#include <string>

namespace adstool {

struct HostPort {
    std::string host;
    uint16_t port = 0;
    std::string str() const { return host + ":" + std::to_string(port); }
};

enum class PortRule {
    AnyPort,  // 0..65535 (0: a listener picks a free port)
    NonZero,  // 1..65535 (where to connect)
};

// A decimal port number, digits only, within the rule's range. why says what is wrong.
bool parsePort(const std::string& text, uint16_t& out, PortRule rule = PortRule::NonZero, std::string* why = nullptr);

// "host:port": the last ':' separates them; the host must not be empty, the port follows
// parsePort. A missing port gives defaultPort when that is not 0 ("plc" -> plc:48898).
bool parseHostPort(const std::string& text, HostPort& out, PortRule rule = PortRule::NonZero,
    std::string* why = nullptr, uint16_t defaultPort = 0);

// An IPv4 address in dotted form ("127.0.0.1"), as inet_pton takes it.
bool isIpv4Address(const std::string& text);

}  // namespace adstool

#endif  // ADSTOOL_HOSTPORT_H
