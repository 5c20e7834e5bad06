// Writes the seed corpora of fuzz_udp_request and fuzz_udp_answer with the UDP service's own
// codec (adstool/udp_service.h), so that every seed has the real layout:
//
//   make_udp_seeds REQUEST_DIR ANSWER_DIR           (re)writes the seed files
//   make_udp_seeds --check REQUEST_DIR ANSWER_DIR   exit 1 when a committed seed differs
//
// Requests: device info; add route, static and temporary, with an empty password, with tags
// in another order, without a password. Answers: device info as newer devices send it (tags
// 5, 4, 3, 18) and as older ones do (5, 4, 3); add-route answers accepted, refused, data missing.
#include "adstool/udp_service.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace udp = adstool::udp;
using Bytes = std::vector<uint8_t>;
using Seeds = std::vector<std::pair<std::string, Bytes>>;

adstool::NetId id(const char* text)
{
    adstool::NetId n;
    adstool::NetId::parse(text, n);
    return n;
}

Seeds requestSeeds()
{
    const adstool::NetId panel = id("192.168.1.20.1.1");
    udp::RouteRequest r;
    r.netId = panel;
    r.routeName = "panel-20";
    r.userName = "Administrator";
    r.password = "1";
    r.address = "192.168.1.20";
    Seeds s;
    s.push_back({"device-info-request", udp::deviceInfoRequest(0x1001, panel)});
    s.push_back({"add-route-static", udp::addRouteRequest(0x1002, panel, r)});
    udp::RouteRequest t = r;
    t.temporary = true;
    t.password.clear();
    s.push_back({"add-route-temporary-empty-password", udp::addRouteRequest(0x1003, panel, t)});
    // The same tags in another order, and one without the password.
    udp::Packet p;
    udp::parsePacket(udp::addRouteRequest(0x1004, panel, r), p);
    udp::PacketWriter reordered(0x1004, udp::kServiceAddRoute, panel, 0);
    udp::PacketWriter noPassword(0x1005, udp::kServiceAddRoute, panel);
    for (auto it = p.tags.rbegin(); it != p.tags.rend(); ++it) {
        reordered.bytes(it->id, it->value);
        if (it->id != udp::kTagPassword)
            noPassword.bytes(it->id, it->value);
    }
    s.push_back({"add-route-tags-reversed", reordered.finish()});
    s.push_back({"add-route-no-password", noPassword.finish()});
    return s;
}

Seeds answerSeeds()
{
    udp::DeviceInfo d;
    d.netId = id("192.168.1.100.1.1");
    d.hostName = "CX-0815";
    d.hasRuntime = true;
    d.runtime = {3, 1, 4024};
    d.hasOs = true;
    d.os = {7, 0, 1234, 3, "Service Pack 1"};
    Seeds s;
    s.push_back({"device-info-answer-old", udp::deviceInfoAnswer(0x2001, d)});
    d.os = {10, 0, 17763, 2, std::string()};
    d.fingerprint = std::string(64, 'c');
    s.push_back({"device-info-answer-new", udp::deviceInfoAnswer(0x2002, d)});
    s.push_back({"add-route-accepted", udp::addRouteAnswer(0x2003, d.netId, udp::kStatusAccepted)});
    s.push_back({"add-route-refused", udp::addRouteAnswer(0x2004, d.netId, udp::kStatusRefused)});
    s.push_back({"add-route-data-missing", udp::addRouteAnswer(0x2005, d.netId, udp::kStatusDataMissing)});
    return s;
}

bool handle(const Seeds& seeds, const std::string& dir, bool check)
{
    bool ok = true;
    for (const auto& seed : seeds) {
        const std::string path = dir + "/" + seed.first;
        if (check) {
            std::ifstream f(path, std::ios::binary);
            const Bytes have((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
            if (!f.is_open() || have != seed.second) {
                std::fprintf(
                    stderr, "make_udp_seeds: %s is not what the codec writes now: run make_udp_seeds\n", path.c_str());
                ok = false;
            }
        } else {
            std::ofstream f(path, std::ios::binary | std::ios::trunc);
            f.write(reinterpret_cast<const char*>(seed.second.data()), std::streamsize(seed.second.size()));
            if (!f) {
                std::fprintf(stderr, "make_udp_seeds: cannot write %s\n", path.c_str());
                ok = false;
            }
        }
    }
    return ok;
}

}  // namespace

int main(int argc, char** argv)
{
    const bool check = argc == 4 && std::string(argv[1]) == "--check";
    if (argc != 3 && !check) {
        std::fprintf(stderr, "usage: make_udp_seeds [--check] REQUEST_DIR ANSWER_DIR\n");
        return 2;
    }
    const int first = check ? 2 : 1;
    const bool ok = handle(requestSeeds(), argv[first], check) & handle(answerSeeds(), argv[first + 1], check);
    if (ok)
        std::printf("make_udp_seeds: %s\n", check ? "the committed seeds are current" : "seeds written");
    return ok ? 0 : 1;
}
