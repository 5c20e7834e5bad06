#include "discover_cli.h"

#include "discover.h"
#include "probe.h"

#include "adstool/cli.h"
#include "adstool/hostport.h"
#include "adstool/netid.h"

#include <cstdio>

namespace adshost {
namespace discover {

const char* const kCliDescription = "Discovery lists the ADS devices that answer on UDP port 48899 (every\n"
                                    "interface's broadcast address, one --broadcast address, or one --plc HOST):\n"
                                    "  adshost --discover [--plc HOST | --broadcast ADDR] [--udp-port N]\n"
                                    "          [--timeout-ms MS]\n"
                                    "Add-route asks the device for a route for this panel's AMS Net ID (the\n"
                                    "driver's rule); without --password-file or --password-env the password is\n"
                                    "asked for on the terminal:\n"
                                    "  adshost --add-route --plc HOST --user NAME [--password-file FILE |\n"
                                    "          --password-env VAR] [--netid PLC_NETID] [--route-name NAME]\n"
                                    "          [--local-netid NETID] [--local-address ADDR] [--temporary]";

void addCliOptions(CLI::App& app, CliOptions& o)
{
    auto plain = [](CLI::Validator v) {
        v.description("");
        return v;
    };
    app.add_flag("--discover", o.discover, "list the ADS devices that answer the\nUDP service (port 48899)");
    app.add_flag("--add-route", o.addRoute, "ask the device at --plc HOST for a route\nfor this panel's AMS Net ID");
    app.add_option("--broadcast", o.broadcast, "--discover: this broadcast address only")
        ->type_name("ADDR")
        ->check(plain(CLI::Validator(
            [](std::string& v) {
                return adstool::isIpv4Address(v) ? std::string() : "needs an IPv4 address, got '" + v + "'";
            },
            "", "")));
    app.add_option("--udp-port", o.udpPort, "the device's UDP service port (default\n48899)")
        ->type_name("N")
        ->check(plain(adstool::cli::Number(1, 65535, "a UDP port")));
    app.add_option("--user", o.user, "--add-route: the device's user name")->type_name("NAME");
    app.add_option("--password-file", o.passwordFile, "--add-route: the password is this file's\ntext")
        ->type_name("FILE");
    app.add_option("--password-env", o.passwordEnv, "--add-route: the password is in this\nenvironment variable")
        ->type_name("VAR");
    app.add_option("--route-name", o.routeName, "--add-route: the route's name (default:\nthis machine's host name)")
        ->type_name("NAME");
    app.add_option("--local-netid", o.localNetId, "--add-route: the route's AMS Net ID\n(default: the driver's rule)")
        ->type_name("A.B.C.D.E.F")
        ->check(plain(adstool::cli::NetIdText()));
    app.add_option("--local-address", o.localAddress,
           "--add-route: the address the route points\nto (default: the rule's address)")
        ->type_name("ADDR");
    app.add_flag("--temporary", o.temporary, "--add-route: a route gone at the device's\nrestart");
}

int runCli(const CLI::App& app, const CliOptions& o, const SharedOptions& shared)
{
    if (!o.discover && !o.addRoute) {
        if (app.count("--udp-port") > 0 && app.count("--probe") == 0)
            return adstool::cli::usageError("adshost", "--udp-port: only with --discover, --add-route or --probe");
        for (const char* opt : {"--broadcast", "--user", "--password-file", "--password-env", "--route-name",
                 "--local-netid", "--local-address", "--temporary"})
            if (app.count(opt) > 0)
                return adstool::cli::usageError("adshost",
                    std::string(opt) + ": only with --add-route"
                        + (std::string(opt) == "--broadcast" ? std::string(" or --discover") : std::string()));
        return -1;
    }
    auto usage = [](const std::string& why) { return adstool::cli::usageError("adshost", why); };
    const char* const mode = o.discover ? "--discover" : "--add-route";
    if (o.discover && o.addRoute)
        return usage("--discover and --add-route: one at a time");
    for (const char* opt : {"--probe", "--driver", "--watch", "--write", "--recipe", "--condition", "--cycles",
             "--duration", "--action-timeout", "--retries", "--gap", "--interval-ms", "--pcap", "--pcap-raw",
             "--pcap-limit", "--quiet", "--ams-port", "--source-netid"})
        if (app.count(opt) > 0)
            return usage(std::string(opt) + ": not used with " + mode);
    adstool::HostPort plc;
    if (!shared.plcText.empty())
        adstool::parseHostPort(shared.plcText, plc, adstool::PortRule::NonZero, nullptr, 48898);
    const int timeoutMs = shared.timeoutMs > 0 ? int(shared.timeoutMs) : 3000;

    if (o.discover) {
        for (const char* opt : {"--netid", "--user", "--password-file", "--password-env", "--route-name",
                 "--local-netid", "--local-address", "--temporary"})
            if (app.count(opt) > 0)
                return usage(std::string(opt) + ": not used with --discover");
        if (!plc.host.empty() && !o.broadcast.empty())
            return usage("--plc and --broadcast: one at a time");
        DiscoverOptions d;
        d.host = plc.host;
        d.broadcast = o.broadcast;
        d.udpPort = uint16_t(o.udpPort);
        d.timeoutMs = timeoutMs;
        d.json = shared.json;
        return runDiscover(d, stdout, stderr);
    }

    if (app.count("--broadcast") > 0)
        return usage("--broadcast: not used with --add-route (the route is asked of one device: --plc HOST)");
    if (plc.host.empty())
        return usage("--plc: --add-route needs the device's address, --plc HOST");
    if (o.user.empty())
        return usage("--user: --add-route needs the device's user name (often Administrator)");
    if (!o.passwordFile.empty() && !o.passwordEnv.empty())
        return usage("--password-file and --password-env: one at a time");
    if (!o.localAddress.empty() && !adstool::isIpv4Address(o.localAddress))
        return usage("--local-address: needs an IPv4 address, got '" + o.localAddress + "'");
    if (app.count("--route-name") > 0 && o.routeName.empty())
        return usage("--route-name: needs a name");
    AddRouteOptions a;
    a.host = plc.host;
    a.adsPort = plc.port;
    if (app.count("--netid") > 0)
        a.plcNetId = shared.netIdText;
    a.udpPort = uint16_t(o.udpPort);
    a.timeoutMs = timeoutMs;
    a.json = shared.json;
    a.user = o.user;
    a.routeName = o.routeName;
    a.localNetId = o.localNetId;
    a.localAddress = o.localAddress;
    a.temporary = o.temporary;
    std::string why;
    if (!readPassword(o.passwordFile, o.passwordEnv, a.password, why)) {
        std::fprintf(stderr, "adshost: %s\n", why.c_str());
        return probe::ExitNoConnection;
    }
    const int status = runAddRoute(a, stdout, stderr);
    a.password.assign(a.password.size(), '\0');
    return status;
}

}  // namespace discover
}  // namespace adshost
