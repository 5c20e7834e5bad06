// adshost --discover and --add-route: commissioning through the UDP service an ADS device
// answers on port 48899. Discovery lists the devices that answer a device-info request (sent
// to every interface's broadcast address, one broadcast address, or one host); add-route asks
// one device to add a route for the Net ID the driver will send from this machine.
//
// The packets come from adstool/udp_service.h; the own-address rule from probe.h, the one
// copy of the driver's rule in the tools.
#pragma once

#include "adstool/udp_service.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace adshost {
namespace discover {

struct Device {
    std::string address;  // the IPv4 address the answer came from
    adstool::udp::DeviceInfo info;
};

// The answers to one device-info request, datagram by datagram.
class Collector {
public:
    enum Result { NewDevice, Repeat, Foreign, Malformed };
    explicit Collector(uint32_t invokeId) : invokeId_(invokeId) { }
    // One datagram from `from`: a device (new, or one already listed), a packet that is not an
    // answer to this request (another service, invoke id or no cookie: foreign), or an answer
    // that is not well-formed (malformed, lastWhy() says why). Never more than the bytes given
    // are read.
    Result take(const uint8_t* p, size_t n, const std::string& from);
    const std::vector<Device>& devices() const { return devices_; }
    uint64_t foreign() const { return foreign_; }
    uint64_t malformed() const { return malformed_; }
    const std::string& lastWhy() const { return lastWhy_; }

private:
    uint32_t invokeId_;
    std::vector<Device> devices_;
    uint64_t foreign_ = 0, malformed_ = 0;
    std::string lastWhy_;
};

// The add-route answer to the request with this invoke id: its status, or false (foreign or
// malformed; why says which).
enum class AnswerKind { Status, Foreign, Malformed };
AnswerKind readRouteAnswer(const uint8_t* p, size_t n, uint32_t invokeId, uint32_t& status, std::string& why);

// "user name or password refused" for 0x704, the ADS error text for other codes.
std::string routeStatusLabel(uint32_t status);

struct DiscoverOptions {
    std::string host;       // one device; empty: broadcasts
    std::string broadcast;  // one broadcast address; empty: every interface's
    uint16_t udpPort = adstool::udp::kDefaultPort;
    int timeoutMs = 3000;
    bool json = false;
};
// Exit status 0 when a device answered, 4 when none did, 1 when nothing could be sent.
int runDiscover(const DiscoverOptions& opt, FILE* out, FILE* err);

struct AddRouteOptions {
    std::string host;
    uint16_t adsPort = 48898;  // only for the next command printed
    std::string plcNetId;      // --netid: the PLC's Net ID the panel will be set up with; empty: ask the device
    uint16_t udpPort = adstool::udp::kDefaultPort;
    int timeoutMs = 3000;
    bool json = false;
    std::string user;
    std::string password;      // never printed
    std::string routeName;     // empty: this machine's host name
    std::string localNetId;    // empty: the driver's rule
    std::string localAddress;  // empty: the address the rule chose
    bool temporary = false;
};
// Exit status: 0 accepted, 6 refused by the device (status not 0), 4 no answer, 8 an answer
// that is not well-formed, 1 nothing could be sent or no own address for the rule.
int runAddRoute(const AddRouteOptions& opt, FILE* out, FILE* err);

// One device-info request to host: true with its answer within timeoutMs.
bool askDevice(
    const std::string& host, uint16_t udpPort, int timeoutMs, adstool::udp::DeviceInfo& info, std::string& why);

// The command line that adds the route the probe missed: the same PLC and Net ID, so that
// add-route's rule picks the same own address; --local-netid when the probe was given one.
std::string addRouteCommand(
    const std::string& host, const std::string& plcNetId, const std::string& localNetId, uint16_t udpPort);

// Where the password comes from: a file, an environment variable, or (neither given) a
// prompt on the terminal without echo. False with why (and nothing printed of the password).
bool readPassword(const std::string& file, const std::string& envVar, std::string& out, std::string& why);

}  // namespace discover
}  // namespace adshost
