#include "adstool/udp_service.h"

#include "adstool/hex.h"
#include "adstool/le.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace adstool {
namespace udp {

namespace {

bool fail(std::string* why, const std::string& reason)
{
    if (why)
        *why = reason;
    return false;
}

std::string tagName(uint16_t id)
{
    switch (id) {
    case kTagStatus:
        return "1 (status)";
    case kTagPassword:
        return "2 (password)";
    case kTagRuntimeVersion:
        return "3 (runtime version)";
    case kTagOsVersion:
        return "4 (OS version)";
    case kTagComputerName:
        return "5 (computer name)";
    case kTagNetId:
        return "7 (AMS Net ID)";
    case kTagOptions:
        return "9 (options)";
    case kTagRouteName:
        return "12 (route name)";
    case kTagUserName:
        return "13 (user name)";
    case kTagFingerprint:
        return "18 (fingerprint)";
    }
    return std::to_string(id);
}

// UTF-8 to UTF-16 code units; a byte that starts no valid sequence becomes U+FFFD.
std::vector<uint16_t> toUtf16(const std::string& s)
{
    std::vector<uint16_t> out;
    size_t i = 0;
    while (i < s.size()) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        uint32_t cp = 0xFFFD;
        size_t len = 1;
        if (c < 0x80) {
            cp = c;
        } else if ((c & 0xE0) == 0xC0) {
            len = 2;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4;
        }
        if (len > 1) {
            bool ok = i + len <= s.size();
            uint32_t v = c & (0xFF >> (len + 1));
            for (size_t k = 1; ok && k < len; ++k) {
                const unsigned char d = static_cast<unsigned char>(s[i + k]);
                ok = (d & 0xC0) == 0x80;
                v = (v << 6) | (d & 0x3F);
            }
            if (ok && v <= 0x10FFFF && !(v >= 0xD800 && v <= 0xDFFF))
                cp = v;
            else
                len = 1;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(uint16_t(0xD800 | (cp >> 10)));
            out.push_back(uint16_t(0xDC00 | (cp & 0x3FF)));
        } else {
            out.push_back(uint16_t(cp));
        }
        i += len;
    }
    return out;
}

void appendUtf8(std::string& out, uint32_t cp)
{
    if (cp < 0x80) {
        out += char(cp);
    } else if (cp < 0x800) {
        out += char(0xC0 | (cp >> 6));
        out += char(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += char(0xE0 | (cp >> 12));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    } else {
        out += char(0xF0 | (cp >> 18));
        out += char(0x80 | ((cp >> 12) & 0x3F));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    }
}

// UTF-16LE units up to the first 0 (or the end); a lone surrogate becomes U+FFFD.
std::string fromUtf16(const uint8_t* p, size_t units)
{
    std::string out;
    for (size_t i = 0; i < units; ++i) {
        uint32_t u = getU16(p + 2 * i);
        if (u == 0)
            break;
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < units) {
            const uint32_t lo = getU16(p + 2 * (i + 1));
            if (lo >= 0xDC00 && lo <= 0xDFFF) {
                appendUtf8(out, 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00));
                ++i;
                continue;
            }
        }
        if (u >= 0xD800 && u <= 0xDFFF)
            u = 0xFFFD;
        appendUtf8(out, u);
    }
    return out;
}

bool requireText(const Packet& p, uint16_t id, std::string& out, std::string* why)
{
    const Tag* t = p.find(id);
    if (!t)
        return fail(why, "no tag " + tagName(id));
    if (!textValue(*t, out))
        return fail(why, "tag " + tagName(id) + " is not a NUL-terminated text");
    return true;
}

}  // namespace

std::string statusText(uint32_t status)
{
    switch (status) {
    case kStatusAccepted:
        return "accepted";
    case kStatusRefused:
        return "user name or password refused";
    case kStatusDataMissing:
        return "data missing";
    }
    return std::string();
}

std::string statusLabel(uint32_t status)
{
    const std::string t = statusText(status);
    const std::string code = hexNumber(status, true);
    return t.empty() ? code : code + " (" + t + ")";
}

const Tag* Packet::find(uint16_t id) const
{
    for (const Tag& t : tags)
        if (t.id == id)
            return &t;
    return nullptr;
}

PacketWriter::PacketWriter(uint32_t invokeId, uint32_t service, const NetId& netId, uint16_t amsPort)
{
    putU32(buf_, kCookie);
    putU32(buf_, invokeId);
    putU32(buf_, service);
    netId.put(buf_);
    putU16(buf_, amsPort);
    putU32(buf_, 0);  // tag count, raised per tag
}

PacketWriter& PacketWriter::bytes(uint16_t tag, const std::vector<uint8_t>& value)
{
    putU16(buf_, tag);
    putU16(buf_, uint16_t(value.size()));
    buf_.insert(buf_.end(), value.begin(), value.end());
    setU32(&buf_[20], getU32(&buf_[20]) + 1);
    return *this;
}

PacketWriter& PacketWriter::u32(uint16_t tag, uint32_t value)
{
    std::vector<uint8_t> v;
    putU32(v, value);
    return bytes(tag, v);
}

PacketWriter& PacketWriter::text(uint16_t tag, const std::string& value)
{
    std::vector<uint8_t> v(value.begin(), value.end());
    v.push_back(0);
    return bytes(tag, v);
}

PacketWriter& PacketWriter::netId(uint16_t tag, const NetId& id)
{
    std::vector<uint8_t> v;
    id.put(v);
    return bytes(tag, v);
}

bool parsePacket(const uint8_t* p, size_t n, Packet& out, std::string* why)
{
    if (n < 4 || getU32(p) != kCookie)
        return fail(why, "not a packet of the UDP service (no cookie 0x71146603)");
    if (n < kHeaderSize)
        return fail(why, std::to_string(n) + " bytes, shorter than the 24-byte header");
    Packet pk;
    pk.invokeId = getU32(p + 4);
    pk.service = getU32(p + 8);
    pk.netId = NetId::fromBytes(p + 12);
    pk.amsPort = getU16(p + 18);
    const uint32_t count = getU32(p + 20);
    // Each tag takes at least its 4-byte head: a count beyond that is a lie.
    if (count > (n - kHeaderSize) / 4)
        return fail(why, "a tag count of " + std::to_string(count) + " in " + std::to_string(n) + " bytes");
    size_t at = kHeaderSize;
    for (uint32_t i = 0; i < count; ++i) {
        if (n - at < 4)
            return fail(why, "tag " + std::to_string(i + 1) + " of " + std::to_string(count) + " is cut off");
        Tag t;
        t.id = getU16(p + at);
        const size_t len = getU16(p + at + 2);
        at += 4;
        if (n - at < len)
            return fail(why,
                "tag " + tagName(t.id) + " says " + std::to_string(len) + " bytes, " + std::to_string(n - at)
                    + " are left");
        t.value.assign(p + at, p + at + len);
        at += len;
        pk.tags.push_back(std::move(t));
    }
    if (at != n)
        return fail(why, std::to_string(n - at) + " bytes after the last tag");
    out = std::move(pk);
    return true;
}

bool textValue(const Tag& tag, std::string& out)
{
    const std::vector<uint8_t>& v = tag.value;
    if (v.empty() || v.back() != 0)
        return false;
    for (size_t i = 0; i + 1 < v.size(); ++i)
        if (v[i] == 0)
            return false;
    out.assign(v.begin(), v.end() - 1);
    return true;
}

bool u32Value(const Tag& tag, uint32_t& out)
{
    if (tag.value.size() != 4)
        return false;
    out = getU32(tag.value.data());
    return true;
}

bool netIdValue(const Tag& tag, NetId& out)
{
    if (tag.value.size() != 6)
        return false;
    out = NetId::fromBytes(tag.value.data());
    return true;
}

std::string RuntimeVersion::str() const
{
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(build);
}

bool RuntimeVersion::parse(const std::string& text, RuntimeVersion& out)
{
    unsigned long v[3] = {0, 0, 0};
    const unsigned long limit[3] = {255, 255, 65535};
    size_t pos = 0;
    for (int i = 0; i < 3; ++i) {
        size_t digits = 0;
        while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos])) && digits < 6) {
            v[i] = v[i] * 10 + unsigned(text[pos++] - '0');
            ++digits;
        }
        if (digits == 0 || v[i] > limit[i])
            return false;
        if (i < 2) {
            if (pos >= text.size() || text[pos] != '.')
                return false;
            ++pos;
        }
    }
    if (pos != text.size())
        return false;
    out.major = uint8_t(v[0]);
    out.minor = uint8_t(v[1]);
    out.build = uint16_t(v[2]);
    return true;
}

bool runtimeVersionValue(const Tag& tag, RuntimeVersion& out)
{
    if (tag.value.size() != 4)
        return false;
    out.major = tag.value[0];
    out.minor = tag.value[1];
    out.build = getU16(&tag.value[2]);
    return true;
}

std::vector<uint8_t> runtimeVersionBytes(const RuntimeVersion& v)
{
    std::vector<uint8_t> out = {v.major, v.minor};
    putU16(out, v.build);
    return out;
}

std::string platformName(uint32_t platform)
{
    switch (platform) {
    case 0:
        return "BSD";
    case 1:
        return "RTOS";
    case 2:
        return "Windows NT";
    case 3:
        return "CE";
    }
    return "platform " + std::to_string(platform);
}

bool parsePlatform(const std::string& text, uint32_t& out)
{
    std::string t;
    for (char c : text)
        t += char(std::tolower(static_cast<unsigned char>(c)));
    const char* names[] = {"bsd", "rtos", "nt", "ce"};
    for (uint32_t i = 0; i < 4; ++i)
        if (t == names[i]) {
            out = i;
            return true;
        }
    if (t.empty() || t.size() > 9)
        return false;
    uint32_t v = 0;
    for (char c : t) {
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
        v = v * 10 + uint32_t(c - '0');
    }
    out = v;
    return true;
}

std::string OsVersion::str() const
{
    std::string s = platformName(platform) + " " + std::to_string(major) + "." + std::to_string(minor) + "."
        + std::to_string(build);
    if (!servicePack.empty())
        s += " (" + servicePack + ")";
    return s;
}

bool osVersionValue(const Tag& tag, OsVersion& out)
{
    const std::vector<uint8_t>& v = tag.value;
    if (v.size() < 20)
        return false;
    out.major = getU32(&v[4]);
    out.minor = getU32(&v[8]);
    out.build = getU32(&v[12]);
    out.platform = getU32(&v[16]);
    out.servicePack = fromUtf16(v.data() + 20, (v.size() - 20) / 2);
    return true;
}

std::vector<uint8_t> osVersionBytes(const OsVersion& v)
{
    std::vector<uint8_t> out;
    putU32(out, uint32_t(kOsVersionSize));
    putU32(out, v.major);
    putU32(out, v.minor);
    putU32(out, v.build);
    putU32(out, v.platform);
    std::vector<uint16_t> text = toUtf16(v.servicePack);
    const size_t maxUnits = (kOsVersionSize - 20) / 2 - 1;  // room for the terminating 0
    if (text.size() > maxUnits) {
        text.resize(maxUnits);
        if (text.back() >= 0xD800 && text.back() <= 0xDBFF)
            text.pop_back();  // never half a pair
    }
    for (uint16_t u : text)
        putU16(out, u);
    out.resize(kOsVersionSize, 0);
    return out;
}

std::vector<uint8_t> deviceInfoRequest(uint32_t invokeId, const NetId& sender)
{
    return PacketWriter(invokeId, kServiceDeviceInfo, sender).finish();
}

std::vector<uint8_t> deviceInfoAnswer(uint32_t invokeId, const DeviceInfo& info)
{
    PacketWriter w(invokeId, kServiceDeviceInfo | kAnswerBit, info.netId);
    w.text(kTagComputerName, info.hostName);
    if (info.hasOs)
        w.bytes(kTagOsVersion, osVersionBytes(info.os));
    if (info.hasRuntime)
        w.bytes(kTagRuntimeVersion, runtimeVersionBytes(info.runtime));
    if (!info.fingerprint.empty())
        w.text(kTagFingerprint, info.fingerprint);
    return w.finish();
}

bool readDeviceInfoAnswer(const Packet& p, DeviceInfo& out, std::string* why)
{
    if (p.service != (kServiceDeviceInfo | kAnswerBit))
        return fail(why, "service " + hexNumber(p.service, true) + " is no device-info answer");
    DeviceInfo d;
    d.netId = p.netId;
    if (!requireText(p, kTagComputerName, d.hostName, why))
        return false;
    if (const Tag* t = p.find(kTagOsVersion)) {
        if (!osVersionValue(*t, d.os))
            return fail(why, "tag 4 (OS version) has " + std::to_string(t->value.size()) + " bytes, fewer than 20");
        d.hasOs = true;
    }
    if (const Tag* t = p.find(kTagRuntimeVersion)) {
        if (!runtimeVersionValue(*t, d.runtime))
            return fail(why, "tag 3 (runtime version) has " + std::to_string(t->value.size()) + " bytes, not 4");
        d.hasRuntime = true;
    }
    if (p.find(kTagFingerprint) && !requireText(p, kTagFingerprint, d.fingerprint, why))
        return false;
    out = d;
    return true;
}

std::vector<uint8_t> addRouteRequest(uint32_t invokeId, const NetId& sender, const RouteRequest& r)
{
    PacketWriter w(invokeId, kServiceAddRoute, sender);
    w.text(kTagRouteName, r.routeName)
        .netId(kTagNetId, r.netId)
        .text(kTagUserName, r.userName)
        .text(kTagPassword, r.password)
        .text(kTagComputerName, r.address);
    if (r.temporary)
        w.u32(kTagOptions, kOptionTemporary);
    return w.finish();
}

uint32_t readAddRouteRequest(const Packet& p, RouteRequest& out, std::string* why)
{
    RouteRequest r;
    const Tag* id = p.find(kTagNetId);
    if (!id || !netIdValue(*id, r.netId)) {
        fail(why, id ? "tag 7 (AMS Net ID) is not 6 bytes" : "no tag 7 (AMS Net ID)");
        return kStatusDataMissing;
    }
    if (!requireText(p, kTagRouteName, r.routeName, why) || !requireText(p, kTagUserName, r.userName, why)
        || !requireText(p, kTagPassword, r.password, why) || !requireText(p, kTagComputerName, r.address, why))
        return kStatusDataMissing;
    if (const Tag* t = p.find(kTagOptions)) {
        uint32_t options = 0;
        if (!u32Value(*t, options)) {
            fail(why, "tag 9 (options) is not 4 bytes");
            return kStatusDataMissing;
        }
        r.temporary = (options & kOptionTemporary) != 0;
    }
    out = r;
    return kStatusAccepted;
}

std::vector<uint8_t> addRouteAnswer(uint32_t invokeId, const NetId& device, uint32_t status)
{
    return PacketWriter(invokeId, kServiceAddRoute | kAnswerBit, device).u32(kTagStatus, status).finish();
}

bool readAddRouteAnswer(const Packet& p, uint32_t& status, std::string* why)
{
    if (p.service != (kServiceAddRoute | kAnswerBit))
        return fail(why, "service " + hexNumber(p.service, true) + " is no add-route answer");
    const Tag* t = p.find(kTagStatus);
    if (!t)
        return fail(why, "no tag 1 (status)");
    if (!u32Value(*t, status))
        return fail(why, "tag 1 (status) has " + std::to_string(t->value.size()) + " bytes, not 4");
    return true;
}

bool readPasswordFile(const std::string& path, std::string& out, std::string* why)
{
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
        return fail(why, "cannot read " + path + ": " + std::strerror(errno));
    std::string text;
    char buf[512];
    size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && text.size() <= 1024)
        text.append(buf, n);
    const bool readError = std::ferror(f) != 0;
    std::fclose(f);
    if (readError)
        return fail(why, "cannot read " + path);
    if (text.size() > 1026)
        return fail(why, path + " holds more than 1024 bytes: not a password file");
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    if (!text.empty() && text.back() == '\r')
        text.pop_back();
    if (text.size() > 1024)
        return fail(why, path + " holds more than 1024 bytes: not a password file");
    if (text.find('\0') != std::string::npos)
        return fail(why, path + " holds a NUL byte: not a password file");
    out = text;
    return true;
}

}  // namespace udp
}  // namespace adstool
