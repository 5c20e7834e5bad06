// Fuzz target: adshost's reading of the UDP service's answers (--discover, --add-route).
//
// The input is one datagram as it would arrive from a device. It goes through the discovery
// collector (with the invoke id the datagram carries, so that answers are taken as answers to
// this request) and through the add-route answer reader. The contract: no crash, no read
// beyond the datagram (AddressSanitizer); every datagram is exactly one of new device,
// foreign or malformed; a listed device reads back the same from what the codec writes of it;
// the two readers agree on what is well-formed.
#include "discover.h"

#include "adstool/le.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

namespace udp = adstool::udp;
using adshost::discover::AnswerKind;
using adshost::discover::Collector;

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "fuzz_udp_answer: contract broken: %s\n", what);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A copy of exactly the datagram's size, so that a read past it is caught.
    const std::vector<uint8_t> datagram(data, data + size);
    const uint32_t invoke = size >= 8 ? adstool::getU32(datagram.data() + 4) : 0;

    Collector c(invoke);
    const Collector::Result r = c.take(datagram.data(), datagram.size(), "192.0.2.7");
    if (c.devices().size() + c.foreign() + c.malformed() != 1)
        fail("a datagram counted other than once");
    if ((r == Collector::NewDevice) != (c.devices().size() == 1))
        fail("a new device that is not listed");
    if (r == Collector::Malformed && c.lastWhy().empty())
        fail("a malformed answer without a reason");
    if (r == Collector::NewDevice) {
        const adshost::discover::Device& d = c.devices()[0];
        if (d.address != "192.0.2.7")
            fail("a device listed under another address");
        udp::Packet again;
        udp::DeviceInfo back;
        if (!udp::parsePacket(udp::deviceInfoAnswer(invoke, d.info), again) || !udp::readDeviceInfoAnswer(again, back))
            fail("a listed device that the codec cannot write back");
        if (back.netId != d.info.netId || back.hostName != d.info.hostName || back.fingerprint != d.info.fingerprint
            || back.hasRuntime != d.info.hasRuntime || back.runtime.str() != d.info.runtime.str()
            || back.hasOs != d.info.hasOs || back.os.major != d.info.os.major || back.os.platform != d.info.os.platform)
            fail("a listed device reads back otherwise");
        // Its duplicate is a repeat, not a second device.
        if (c.take(datagram.data(), datagram.size(), "192.0.2.7") != Collector::Repeat || c.devices().size() != 1)
            fail("the same answer twice listed twice");
    }

    uint32_t status = 0xFFFFFFFFu;
    std::string why;
    const AnswerKind k = adshost::discover::readRouteAnswer(datagram.data(), datagram.size(), invoke, status, why);
    udp::Packet p;
    const bool wellFormed = udp::parsePacket(datagram, p);
    if (k == AnswerKind::Status && !wellFormed)
        fail("a status read from a malformed packet");
    if (k == AnswerKind::Status && adshost::discover::routeStatusLabel(status).empty())
        fail("a status without a label");
    if (wellFormed && p.service == (udp::kServiceDeviceInfo | udp::kAnswerBit) && k == AnswerKind::Status)
        fail("a device-info answer read as a route answer");
    return 0;
}
