#include "pcap_writer.h"

#include <sys/time.h>

#include <algorithm>

namespace adshost {

namespace {
void put16be(std::vector<uint8_t>& v, size_t at, uint16_t x)
{
    v[at] = uint8_t(x >> 8);
    v[at + 1] = uint8_t(x);
}
void put32be(std::vector<uint8_t>& v, size_t at, uint32_t x)
{
    v[at] = uint8_t(x >> 24);
    v[at + 1] = uint8_t(x >> 16);
    v[at + 2] = uint8_t(x >> 8);
    v[at + 3] = uint8_t(x);
}
uint32_t sumWords(const uint8_t* p, size_t len, uint32_t sum)
{
    for (size_t i = 0; i + 1 < len; i += 2)
        sum += uint32_t(p[i]) << 8 | p[i + 1];
    if (len & 1)
        sum += uint32_t(p[len - 1]) << 8;
    return sum;
}
uint16_t fold(uint32_t sum)
{
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return uint16_t(~sum);
}
void putLe32(std::FILE* f, uint32_t x)
{
    const uint8_t b[4] = {uint8_t(x), uint8_t(x >> 8), uint8_t(x >> 16), uint8_t(x >> 24)};
    std::fwrite(b, 1, 4, f);
}
void putLe16(std::FILE* f, uint16_t x)
{
    const uint8_t b[2] = {uint8_t(x), uint8_t(x >> 8)};
    std::fwrite(b, 1, 2, f);
}
}  // namespace

bool PcapWriter::open(const std::string& path, int linkType)
{
    close();
    f_ = std::fopen(path.c_str(), "wb");
    if (!f_)
        return false;
    link_ = linkType;
    bytes_ = 24;
    limitReached_ = false;
    putLe32(f_, 0xa1b2c3d4u);  // microsecond time stamps, written little-endian
    putLe16(f_, 2);
    putLe16(f_, 4);
    putLe32(f_, 0);      // this zone
    putLe32(f_, 0);      // sigfigs
    putLe32(f_, 65535);  // snap length
    putLe32(f_, uint32_t(linkType));
    std::fflush(f_);
    return true;
}

void PcapWriter::close()
{
    if (!f_)
        return;
    if (inConnection_)
        connectionClosed(true);
    std::fclose(f_);
    f_ = nullptr;
}

void PcapWriter::connectionOpened(uint32_t hostIp, uint16_t hostPort, uint32_t plcIp, uint16_t plcPort)
{
    if (!f_)
        return;
    if (inConnection_)
        connectionClosed(true);
    hostIp_ = hostIp;
    plcIp_ = plcIp;
    hostPort_ = hostPort;
    plcPort_ = plcPort;
    // Initial sequence numbers: any value does; different per connection.
    hostSeq_ = 0x10000000u + uint32_t(hostPort) * 7919u;
    plcSeq_ = 0x60000000u + uint32_t(hostPort) * 104729u;
    inConnection_ = true;
    segment(true, nullptr, 0, 0x02);  // SYN
    ++hostSeq_;
    // SYN-ACK: ack is already hostSeq_
    segment(false, nullptr, 0, 0x12);
    ++plcSeq_;
    segment(true, nullptr, 0, 0x10);  // ACK
}

void PcapWriter::connectionClosed(bool byHost)
{
    if (!f_ || !inConnection_)
        return;
    segment(byHost, nullptr, 0, 0x11);  // FIN, ACK
    if (byHost)
        ++hostSeq_;
    else
        ++plcSeq_;
    segment(!byHost, nullptr, 0, 0x11);
    if (byHost)
        ++plcSeq_;
    else
        ++hostSeq_;
    segment(byHost, nullptr, 0, 0x10);
    inConnection_ = false;
}

void PcapWriter::segment(bool fromHost, const uint8_t* data, size_t len, uint8_t flags)
{
    if (!f_ || !inConnection_)
        return;
    const size_t ipLen = 20 + 20 + len;
    std::vector<uint8_t> ip(ipLen, 0);
    // IPv4 header
    ip[0] = 0x45;
    put16be(ip, 2, uint16_t(ipLen));
    put16be(ip, 4, ipId_++);
    put16be(ip, 6, 0x4000);  // don't fragment
    ip[8] = 64;
    ip[9] = 6;  // TCP
    const uint32_t src = fromHost ? hostIp_ : plcIp_;
    const uint32_t dst = fromHost ? plcIp_ : hostIp_;
    put32be(ip, 12, src);
    put32be(ip, 16, dst);
    put16be(ip, 10, fold(sumWords(ip.data(), 20, 0)));
    // TCP header
    const size_t t = 20;
    put16be(ip, t + 0, fromHost ? hostPort_ : plcPort_);
    put16be(ip, t + 2, fromHost ? plcPort_ : hostPort_);
    put32be(ip, t + 4, fromHost ? hostSeq_ : plcSeq_);
    const bool syn = flags == 0x02;
    put32be(ip, t + 8, syn ? 0 : (fromHost ? plcSeq_ : hostSeq_));
    ip[t + 12] = 5 << 4;
    ip[t + 13] = flags;
    put16be(ip, t + 14, 65535);
    for (size_t i = 0; i < len; ++i)
        ip[40 + i] = data[i];
    // checksum over the pseudo header and the segment
    uint32_t sum = 0;
    sum += (src >> 16) + (src & 0xFFFF) + (dst >> 16) + (dst & 0xFFFF);
    sum += 6 + uint32_t(20 + len);
    sum = sumWords(ip.data() + t, 20 + len, sum);
    put16be(ip, t + 16, fold(sum));
    if (fromHost)
        hostSeq_ += uint32_t(len);
    else
        plcSeq_ += uint32_t(len);

    if (link_ == LINK_RAW) {
        writePacket(ip);
        return;
    }
    std::vector<uint8_t> eth(14 + ip.size(), 0);
    const uint8_t hostMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    const uint8_t plcMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
    for (int i = 0; i < 6; ++i) {
        eth[i] = fromHost ? plcMac[i] : hostMac[i];
        eth[6 + i] = fromHost ? hostMac[i] : plcMac[i];
    }
    eth[12] = 0x08;
    eth[13] = 0x00;
    std::copy(ip.begin(), ip.end(), eth.begin() + 14);
    writePacket(eth);
}

void PcapWriter::writePacket(const std::vector<uint8_t>& bytes)
{
    if (!f_)
        return;
    if (limit_ > 0 && bytes_ + 16 + bytes.size() > limit_) {
        limitReached_ = true;
        inConnection_ = false;  // no closing packets: the file ends here
        std::fclose(f_);
        f_ = nullptr;
        return;
    }
    bytes_ += 16 + bytes.size();
    timeval tv {};
    ::gettimeofday(&tv, nullptr);
    putLe32(f_, uint32_t(tv.tv_sec));
    putLe32(f_, uint32_t(tv.tv_usec));
    putLe32(f_, uint32_t(bytes.size()));
    putLe32(f_, uint32_t(bytes.size()));
    std::fwrite(bytes.data(), 1, bytes.size(), f_);
    ++packets_;
}

}  // namespace adshost
