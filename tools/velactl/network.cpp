// Gateway, neighbours, addresses.
#include "command.h"

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
    if (gateway_detect_uplink(bridge, candidates, count, port, sizeof port) == 0) set(result, "port", port);
    return result;
}

json lldp(arguments)
{
    json neighbours{vela_get_lldp_json()};
    if (!neighbours) throw trouble(status::unavailable, "lldpcli gave no answer; is the LLDP daemon running?");
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

constexpr command commands[] = {
    {"gateway", "[BRIDGE]", "default gateway and the port towards it", 0, 1, gateway},
    {"lldp", "", "neighbours on the wire", 0, 0, lldp},
    {"url", "URL", "a URL's parts", 1, 1, show_url},
};

} // namespace

const std::span<const command> network_commands{commands};

} // namespace velactl
