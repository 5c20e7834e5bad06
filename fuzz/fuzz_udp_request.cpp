// Fuzz target: plcsim's side of the UDP service (port 48899), request parser and answers.
//
// The input is one datagram, handed to a fresh service twice: once as sent to the device's
// own address while the PLC runs, once as a broadcast while it is stopped. The contract: no
// crash; an answer only to a well-formed request of a known service, itself well-formed,
// marked as an answer to that service, with the request's invoke id and the device's Net ID;
// a route only after the add-route answer says accepted, for the Net ID the request named;
// and no answer at all to a broadcast while stopped.
#include "udp_service.h"

#include <cstdio>
#include <cstdlib>

namespace {

namespace udp = adstool::udp;

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "fuzz_udp_request: contract broken: %s\n", what);
    std::abort();
}

// The two PLCs live for the whole run: a Plc holds three 64 KiB memory areas, and making them
// anew for every input cost most of the time (the heap grew and shrank by them, each time with
// fresh zeroed pages). The service changes nothing of a Plc but its routes, which each input
// starts without.
plcsim::Plc& plcFor(bool stopped)
{
    static plcsim::Plc running;
    static plcsim::Plc halted = [] {
        plcsim::Plc p;
        p.setAdsState(plcsim::AdsStateStop);
        return p;
    }();
    plcsim::Plc& plc = stopped ? halted : running;
    plc.clearRoutes();
    return plc;
}

void once(const uint8_t* data, size_t size, bool broadcastWhileStopped)
{
    plcsim::Plc& plc = plcFor(broadcastWhileStopped);
    plcsim::RouteStore routes;  // no file: nothing is written
    plcsim::UdpService service(plc, routes, plcsim::UdpIdentity());
    const std::vector<uint8_t> answer = service.handle(data, size, "192.0.2.9:50000", broadcastWhileStopped);

    udp::Packet request;
    const bool wellFormed = udp::parsePacket(data, size, request);
    const plcsim::UdpService::Counters& k = service.counters();
    if (k.requests + k.ignored != 1)
        fail("a datagram is neither a request nor ignored");
    if (answer.empty()) {
        if (wellFormed && !request.isAnswer() && request.service == udp::kServiceAddRoute)
            fail("an add-route request without an answer");
        if (wellFormed && !request.isAnswer() && request.service == udp::kServiceDeviceInfo && !broadcastWhileStopped)
            fail("a device-info request without an answer");
        if (!routes.routes().empty())
            fail("a route without an answer");
        return;
    }
    if (!wellFormed || request.isAnswer())
        fail("an answer to what is no request");
    if (broadcastWhileStopped && request.service == udp::kServiceDeviceInfo)
        fail("a stopped PLC answered a broadcast search");
    udp::Packet a;
    if (!udp::parsePacket(answer, a))
        fail("a malformed answer");
    if (a.invokeId != request.invokeId || a.service != (request.service | udp::kAnswerBit) || a.netId != plc.netId())
        fail("an answer with another invoke id, service or Net ID");
    if (request.service == udp::kServiceDeviceInfo) {
        udp::DeviceInfo info;
        if (!udp::readDeviceInfoAnswer(a, info) || !routes.routes().empty())
            fail("a device-info answer that does not read back, or a route from it");
        return;
    }
    uint32_t status = 0;
    if (!udp::readAddRouteAnswer(a, status) || answer.size() != 32)
        fail("an add-route answer that is not 32 bytes with a status");
    udp::RouteRequest r;
    const bool accepted = status == udp::kStatusAccepted;
    if (accepted != (routes.routes().size() == 1))
        fail("a route kept without 'accepted', or 'accepted' without a route");
    if (accepted
        && (udp::readAddRouteRequest(request, r) != udp::kStatusAccepted || routes.routes()[0].netId != r.netId))
        fail("a route for another Net ID than the request's");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    once(data, size, false);
    once(data, size, true);
    return 0;
}
