// plcsim's side of the UDP service (port 48899): it answers device-info requests with its
// identity and adds the routes that add-route requests ask for, with the device's user name
// and password. Routes join those of --route in the Plc: once any route exists, Net IDs
// without one get no answer over TCP.
//
//   RouteStore   the routes and where they came from; static routes added over UDP are kept
//                in the route file (written whole under a temporary name, then renamed)
//   UdpService   one request in, the answer out (or none); counts what it ignored
//   UdpEndpoint  the sockets: the listen address's port, and its interface's broadcast
//                address on the same port so that a subnet-wide search reaches it
#pragma once

#include "plc_core.h"

#include "adstool/udp_service.h"

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace plcsim {

struct Route {
    enum Origin { CommandLine, Static, Temporary };
    NetId netId;
    std::string name;
    std::string address;
    Origin origin = CommandLine;
};
const char* originName(Route::Origin o);  // "command-line", "static", "temporary"

class RouteStore {
public:
    // The route file: empty for none. Static routes are read from it by load() and written
    // to it whenever they change.
    void setFile(const std::string& path) { file_ = path; }
    const std::string& file() const { return file_; }
    // Reads the file's routes as static routes; a missing file is an empty one. False with
    // why ("FILE line N: ...") when the file cannot be read or a line is not a route.
    bool load(std::string& why);
    // Adds or replaces the route for r.netId (the newer one wins) and writes the file when
    // static routes changed. False with why when the file could not be written (the routes
    // stay as they were then).
    bool add(const Route& r, std::string& why);
    const std::vector<Route>& routes() const { return routes_; }

    // The file's text and its parser (one route a line: NETID ADDRESS NAME; '#' comments).
    static std::string format(const std::vector<Route>& routes);
    static bool parse(const std::string& text, std::vector<Route>& out, std::string& why);

private:
    bool write(const std::vector<Route>& routes, std::string& why) const;
    std::string file_;
    std::vector<Route> routes_;
    bool loading_ = false;  // load() does not write back what it reads
};

// What the device says about itself, and the credentials add-route needs.
struct UdpIdentity {
    std::string hostName = "plcsim";
    adstool::udp::RuntimeVersion runtime {3, 1, 4024};
    adstool::udp::OsVersion os {10, 0, 17763, 2, std::string()};
    std::string userName = "Administrator";  // a fresh device's usual pair
    std::string password = "1";
};

class UdpService {
public:
    struct Counters {
        uint64_t requests = 0;    // packets that were requests of the service
        uint64_t deviceInfo = 0;  // device-info requests answered
        uint64_t addRoute = 0;    // add-route requests answered
        uint64_t accepted = 0;    // routes added
        uint64_t refused = 0;     // add-route answers with a status other than 0
        uint64_t ignored = 0;     // malformed or foreign packets: no answer
        uint64_t stopped = 0;     // broadcast searches not answered while the PLC is in STOP
    };

    UdpService(Plc& plc, RouteStore& routes, const UdpIdentity& identity)
        : plc_(plc), routes_(routes), identity_(identity)
    {
    }

    // One datagram from `from`; `broadcast` when it was sent to a broadcast address. The
    // answer, or nothing for a packet that is ignored.
    std::vector<uint8_t> handle(const uint8_t* p, size_t n, const std::string& from, bool broadcast);

    const Counters& counters() const { return counters_; }
    void resetCounters() { counters_ = Counters(); }
    void setLogSink(std::function<void(const std::string&)> sink) { log_ = std::move(sink); }

private:
    std::vector<uint8_t> addRoute(const adstool::udp::Packet& p, const std::string& from);
    void log(const std::string& line)
    {
        if (log_)
            log_(line);
    }

    Plc& plc_;
    RouteStore& routes_;
    UdpIdentity identity_;
    Counters counters_;
    std::function<void(const std::string&)> log_;
};

class UdpEndpoint {
public:
    UdpEndpoint() = default;
    UdpEndpoint(const UdpEndpoint&) = delete;
    UdpEndpoint& operator=(const UdpEndpoint&) = delete;
    ~UdpEndpoint();

    // Binds host:port (IPv4; port 0 picks a free one); when host is the address of an
    // interface with a broadcast address, that address on the same port too (0.0.0.0 gets
    // broadcasts as it is). False with why when the first bind fails.
    bool open(const std::string& host, uint16_t port, std::string& why);
    bool isOpen() const { return !fds_.empty(); }
    uint16_t port() const { return port_; }
    const std::string& broadcastAddress() const { return broadcast_; }  // "" for none
    const std::vector<int>& fds() const { return fds_; }
    // Reads what waits on fd (a few datagrams at most) and sends the answers from the
    // listen address.
    void receive(int fd, UdpService& service);

private:
    bool isBroadcastDestination(const in_addr& a) const;
    std::vector<int> fds_;  // [0]: the listen address; [1]: its broadcast address
    uint16_t port_ = 0;
    std::string broadcast_;
    std::vector<uint32_t> broadcasts_;  // every interface's broadcast address, and 255.255.255.255
};

}  // namespace plcsim
