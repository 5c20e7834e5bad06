// The screen the end-to-end benchmarks poll through the reference host: `addresses` one-word
// addresses M_W:0, M_W:4, ... against a plcsim on 127.0.0.1, opened, connected and warmed up
// (the handshake and at least two full refreshes).
#ifndef ADS_BENCH_SCREEN_H
#define ADS_BENCH_SCREEN_H

#include "adshost.h"

#include <cstdint>
#include <string>

namespace adsbench {

// False with why ("address: ...", "adshost: ...", "adshost connect: ...", or the warm-up).
inline bool openScreen(
    adshost::Session& host, const std::string& driverPath, uint16_t plcPort, int addresses, std::string& why)
{
    adshost::Config cfg;
    cfg.driverPath = driverPath;
    cfg.plcHost = "127.0.0.1";
    cfg.plcPort = plcPort;
    for (int i = 0; i < addresses; ++i) {
        adshost::Address a;
        if (!adshost::parseAddress("M_W:" + std::to_string(4 * i) + ":1", a, why)) {
            why = "address: " + why;
            return false;
        }
        cfg.watches.push_back(a);
    }
    if (!host.open(cfg, why)) {
        why = "adshost: " + why;
        return false;
    }
    if (!host.connect(why)) {
        why = "adshost connect: " + why;
        return false;
    }
    host.run(0, 300);  // the handshake and a few refreshes
    if (host.blocks() < 1 || host.stats().fullRefreshes < 2) {
        why = "the host did not refresh the screen during the warm-up";
        return false;
    }
    return true;
}

}  // namespace adsbench

#endif
