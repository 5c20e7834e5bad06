// The small UDP service of an ADS device (port 48899): finding devices (device info) and
// adding a route for a client. Packets are a 24-byte header and tags; this is the one
// encoder and parser of them, shared by the simulator (requests in, answers out) and the
// commissioning tool (requests out, answers in).
//
// Header, little-endian: cookie 0x71146603, invoke id, service (an answer sets bit 31),
// AMS Net ID (the sender's in a request, the device's in an answer), AMS port, tag count.
// Each tag: u16 id, u16 length, value. Strings are UTF-8 with a NUL the length counts.
#ifndef ADSTOOL_UDP_SERVICE_H
#define ADSTOOL_UDP_SERVICE_H

#include "adstool/netid.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace adstool {
namespace udp {

constexpr uint32_t kCookie = 0x71146603u;
constexpr uint16_t kDefaultPort = 48899;
constexpr uint16_t kAmsPort = 10000;  // the AMS port in the header
constexpr size_t kHeaderSize = 24;
constexpr size_t kMaxPacket = 2048;  // a 2 KiB buffer holds every answer seen in the field
constexpr uint32_t kAnswerBit = 0x80000000u;
constexpr size_t kOsVersionSize = 276;  // u32 size, major, minor, build, platform, 128 UTF-16 units

enum Service : uint32_t {
    kServiceDeviceInfo = 1,
    kServiceAddRoute = 6,
};

enum TagId : uint16_t {
    kTagStatus = 1,
    kTagPassword = 2,
    kTagRuntimeVersion = 3,
    kTagOsVersion = 4,
    kTagComputerName = 5,
    kTagNetId = 7,
    kTagOptions = 9,
    kTagRouteName = 12,
    kTagUserName = 13,
    kTagFingerprint = 18,
};

enum Status : uint32_t {
    kStatusAccepted = 0,
    kStatusRefused = 0x704,      // user name or password refused
    kStatusDataMissing = 0x706,  // a tag the request needs is missing or malformed
};
constexpr uint32_t kOptionTemporary = 1;  // tag 9: the route is gone at the device's restart

// "accepted", "user name or password refused", "data missing"; "" for another code.
std::string statusText(uint32_t status);
// "0x704 (user name or password refused)", or "0x1234" for a code not in the table.
std::string statusLabel(uint32_t status);

struct Tag {
    uint16_t id = 0;
    std::vector<uint8_t> value;
};

struct Packet {
    uint32_t invokeId = 0;
    uint32_t service = 0;
    NetId netId;
    uint16_t amsPort = 0;
    std::vector<Tag> tags;

    bool isAnswer() const { return (service & kAnswerBit) != 0; }
    // The first tag with this id, or nullptr.
    const Tag* find(uint16_t id) const;
};

// Builds one packet: the header, then the tags in the order they are added.
class PacketWriter {
public:
    PacketWriter(uint32_t invokeId, uint32_t service, const NetId& netId, uint16_t amsPort = kAmsPort);
    PacketWriter& bytes(uint16_t tag, const std::vector<uint8_t>& value);
    PacketWriter& u32(uint16_t tag, uint32_t value);
    PacketWriter& text(uint16_t tag, const std::string& value);  // the UTF-8 bytes and a NUL
    PacketWriter& netId(uint16_t tag, const NetId& id);
    std::vector<uint8_t> finish() const { return buf_; }

private:
    std::vector<uint8_t> buf_;
};

// The header and every tag. False, with why, when the packet is not of this service (cookie)
// or not well-formed: shorter than the header, a tag cut off, bytes after the last tag.
bool parsePacket(const uint8_t* p, size_t n, Packet& out, std::string* why = nullptr);
inline bool parsePacket(const std::vector<uint8_t>& v, Packet& out, std::string* why = nullptr)
{
    return parsePacket(v.data(), v.size(), out, why);
}

// Tag values. False when the value does not have the layout of its kind.
bool textValue(const Tag& tag, std::string& out);  // NUL-terminated, no NUL before the end
bool u32Value(const Tag& tag, uint32_t& out);      // exactly 4 bytes
bool netIdValue(const Tag& tag, NetId& out);       // exactly 6 bytes

struct RuntimeVersion {
    uint8_t major = 0;
    uint8_t minor = 0;
    uint16_t build = 0;
    std::string str() const;  // "3.1.4024"
    // "MAJOR.MINOR.BUILD", each within its field's range.
    static bool parse(const std::string& text, RuntimeVersion& out);
};
bool runtimeVersionValue(const Tag& tag, RuntimeVersion& out);  // exactly 4 bytes
std::vector<uint8_t> runtimeVersionBytes(const RuntimeVersion& v);

struct OsVersion {
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t build = 0;
    uint32_t platform = 0;    // 0 BSD, 1 RTOS, 2 Windows NT, 3 CE
    std::string servicePack;  // UTF-8 (UTF-16LE on the wire)
    std::string str() const;  // "Windows NT 10.0.17763", with " (text)" when there is a text
};
std::string platformName(uint32_t platform);  // "BSD", "RTOS", "Windows NT", "CE", "platform N"
// "bsd", "rtos", "nt", "ce" (case-insensitive) or a number.
bool parsePlatform(const std::string& text, uint32_t& out);
bool osVersionValue(const Tag& tag, OsVersion& out);      // at least the five numbers
std::vector<uint8_t> osVersionBytes(const OsVersion& v);  // 276 bytes; the text cut to 127 units

// Device info (service 1): the request has no tags; the answer carries the device's Net ID
// in the header and tags 5 (host name), 4 (OS), 3 (runtime version), 18 (fingerprint,
// newer devices).
struct DeviceInfo {
    NetId netId;
    std::string hostName;
    bool hasRuntime = false;
    RuntimeVersion runtime;
    bool hasOs = false;
    OsVersion os;
    std::string fingerprint;  // empty when not sent
};
std::vector<uint8_t> deviceInfoRequest(uint32_t invokeId, const NetId& sender);
std::vector<uint8_t> deviceInfoAnswer(uint32_t invokeId, const DeviceInfo& info);
// An answer (service 0x80000001) with a host name; the other tags when present. Unknown
// tags are skipped.
bool readDeviceInfoAnswer(const Packet& p, DeviceInfo& out, std::string* why = nullptr);

// Add route (service 6): tags 12 route name, 7 the client's Net ID, 13 user, 2 password,
// 5 the client's address, and 9 = 1 for a temporary route. The answer has one tag, 1 status.
struct RouteRequest {
    NetId netId;  // the Net ID the route is for
    std::string routeName;
    std::string userName;
    std::string password;
    std::string address;  // the IP address or host name by which the device reaches the client
    bool temporary = false;
};
std::vector<uint8_t> addRouteRequest(uint32_t invokeId, const NetId& sender, const RouteRequest& r);
// kStatusAccepted with out filled, or kStatusDataMissing (why says which tag) when a tag the
// request needs is missing or malformed. Tags are found by id, in any order.
uint32_t readAddRouteRequest(const Packet& p, RouteRequest& out, std::string* why = nullptr);
std::vector<uint8_t> addRouteAnswer(uint32_t invokeId, const NetId& device, uint32_t status);
// An answer (service 0x80000006) with a status tag.
bool readAddRouteAnswer(const Packet& p, uint32_t& status, std::string* why = nullptr);

// The password kept in a file (--password-file): its text without one trailing line end
// ("\n" or "\r\n"), at most 1024 bytes. False with why when it cannot be read.
bool readPasswordFile(const std::string& path, std::string& out, std::string* why = nullptr);

}  // namespace udp
}  // namespace adstool

#endif  // ADSTOOL_UDP_SERVICE_H
