// Gateway, neighbours, addresses.
#include "command.h"

#include <cstdlib>
#include <unistd.h>
#include <vela/board/board.h>
#include <vela/net/bridge.h>
#include <vela/net/gateway.h>
#include <vela/net/url.h>
#include <vela/services/lldp.h>

namespace velactl
{
namespace
{

constexpr int ports_max = 32;

/// Why no port was found: what a person would look at next.
const char *missing_port(const char *bridge, int candidates)
{
    if (access((std::string("/sys/class/net/") + bridge).c_str(), F_OK) != 0) return "there is no such bridge";
    if (candidates == 0) return "neither the board nor the kernel names a wired port";
    return "no port with a link leads to the gateway; velactl why gateway tells more";
}

json gateway(arguments given)
{
    char ip[16];
    uint32_t address = 0;
    if (gateway_get_ip(ip, &address, sizeof ip) != 0) throw trouble(status::unavailable, "there is no default route");

    json result = object();
    set(result, "gateway", ip);
    uint8_t mac[6];
    char text[18];
    if (gateway_get_mac(ip, mac) == 0 && gateway_mac_to_str(mac, text, sizeof text) == 0) set(result, "mac", text);
    char device[16];
    if (get_uplink_device(device, sizeof device) == 0) set(result, "device", device);
    char candidates[ports_max][16];
    const int count = gateway_enum_eth_all(board_identify(), candidates, ports_max);
    char port[16];
    const char *bridge = given.empty() ? "br0" : given[0];
    if (gateway_detect_uplink(bridge, candidates, count, port, sizeof port) == 0) {
        set(result, "port", port);
    } else {
        set(result, "without_port", missing_port(bridge, count));
    }
    return result;
}

json lldp(arguments)
{
    json neighbours{vela_get_lldp_json()};
    if (!neighbours) throw trouble(status::late, "lldpcli gave no answer in time, or is not installed");
    // No neighbour and no daemon look alike to the library; the client's exit status tells them apart.
    if (json_array_size(neighbours.get()) == 0 && system("lldpcli show configuration >/dev/null 2>&1") != 0) {
        throw trouble(status::unavailable, "the LLDP daemon is not running");
    }
    return neighbours;
}

json show_url(arguments given)
{
    struct drop {
        void operator()(url *parsed) const { url_destroy(parsed); }
    };
    const std::unique_ptr<url, drop> u{url_parse(given[0])};
    if (!u) throw trouble(status::failed, "not a URL that the library takes (http, https, ws, wss, stun)");
    json result = object();
    set(result, "url", u->url);
    set(result, "scheme", u->scheme);
    set(result, "userinfo", u->userinfo);
    set(result, "host", u->host);
    set(result, "port", u->port);
    set(result, "path", u->path);
    return result;
}

constexpr field gateway_fields[] = {
    {"gateway", kind::text, "address of the default gateway"},
    {"mac", kind::text, "its hardware address"},
    {"device", kind::text, "the uplink device"},
    {"port", kind::text, "the wired port towards it"},
    {"without_port", kind::text, "why there is no port"},
};
constexpr field lldp_fields[] = {
    {"local_port_name", kind::text, "the interface that heard it"},
    {"is_wired", kind::flag, "whether that is a port of the board"},
    {"local_port_idx", kind::number, "that port's id"},
    {"chassis_id", kind::text, "the neighbour"},
    {"chassis_descr", kind::text, "what it says of itself"},
    {"port_id", kind::text, "its port"},
    {"port_descr", kind::text, "what it says of that"},
};
constexpr field url_fields[] = {
    {"url", kind::text, "the whole"},
    {"scheme", kind::text, "http, https, ws, wss or stun"},
    {"userinfo", kind::text, "before the @"},
    {"host", kind::text, "name or address"},
    {"port", kind::number, "as written, or the scheme's"},
    {"path", kind::text, "from the first / on"},
};

constexpr command commands[] = {
    {"gateway", "[BRIDGE]", "default gateway and the port towards it", 0, 1, gateway, answer::object, gateway_fields},
    {"lldp", "", "neighbours on the wire", 0, 0, lldp, answer::rows, lldp_fields},
    {"url", "URL", "a URL's parts", 1, 1, show_url, answer::object, url_fields},
};

} // namespace

const std::span<const command> network_commands{commands};

} // namespace velactl
