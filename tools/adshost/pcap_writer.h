// A classic libpcap file writer for the frames the host exchanges with the PLC.
//
// Every AMS/TCP frame (or the part of one that arrived) becomes one packet with fabricated
// IPv4 and TCP headers that carry consistent sequence and acknowledgement numbers and the
// real ports (host's ephemeral port <-> PLC port), so that
//     tshark -r FILE -d tcp.port==PORT,ams
// decodes every frame. Link type Ethernet (1) with made-up MAC addresses, or raw IPv4 (101).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace adshost {

class PcapWriter {
public:
    enum { LINK_ETHERNET = 1, LINK_RAW = 101 };
    PcapWriter() = default;
    ~PcapWriter() { close(); }
    PcapWriter(const PcapWriter&) = delete;
    PcapWriter& operator=(const PcapWriter&) = delete;

    bool open(const std::string& path, int linkType);
    bool isOpen() const { return f_ != nullptr; }
    void close();

    // A new TCP connection: writes SYN, SYN-ACK and ACK. Addresses in host byte order.
    void connectionOpened(uint32_t hostIp, uint16_t hostPort, uint32_t plcIp, uint16_t plcPort);
    // Bytes on the wire in one direction (one packet). Without a file nothing is called: these
    // run twice per request.
    void hostToPlc(const uint8_t* data, size_t len)
    {
        if (f_)
            segment(true, data, len, 0x18);
    }
    void plcToHost(const uint8_t* data, size_t len)
    {
        if (f_)
            segment(false, data, len, 0x18);
    }
    // The connection ends: FIN from the side that closed, answered by the other.
    void connectionClosed(bool byHost);
    uint64_t packets() const { return packets_; }
    // The file may grow to at most `bytes` (0: no limit). The packet that would pass the
    // limit is not written; the file ends after the last whole packet and is closed.
    void setLimit(uint64_t bytes) { limit_ = bytes; }
    bool limitReached() const { return limitReached_; }
    uint64_t bytes() const { return bytes_; }

private:
    void segment(bool fromHost, const uint8_t* data, size_t len, uint8_t flags);
    void writePacket(const std::vector<uint8_t>& bytes);

    std::FILE* f_ = nullptr;
    int link_ = LINK_ETHERNET;
    bool inConnection_ = false;
    uint32_t hostIp_ = 0, plcIp_ = 0;
    uint16_t hostPort_ = 0, plcPort_ = 0;
    uint32_t hostSeq_ = 0, plcSeq_ = 0;
    uint16_t ipId_ = 1;
    uint64_t packets_ = 0;
    uint64_t bytes_ = 0;
    uint64_t limit_ = 0;
    bool limitReached_ = false;
};

}  // namespace adshost
