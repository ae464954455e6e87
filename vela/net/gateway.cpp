// Three questions to the kernel (routes, neighbours, links) and the choice made from their answers. What one call asks,
// it asks over one route socket, interfaces' names and link included.

#include <algorithm>
#include <atomic>
#include <net/if_arp.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/text.h>
#include <vela/core/util.h>
#include <vela/net/bridge.h>
#include <vela/net/gateway.h>
#include <vela/net/internal/routes.h>

namespace raw_netlink = vela::raw_netlink;
using vela::port_name;

namespace
{

constexpr const char *log_module = "gateway-utils"; // stands in front of every text, too

/// Numbers the link questions of this process.
constinit std::atomic<uint32_t> link_sequence = 0;

/// A list of candidates being filled.
struct candidate_list {
    port_name *out;
    int max;
    const char *source;
    const char *step;
    int count = 0;

    [[nodiscard]] bool full() const { return count >= max; }
    void add(const char *name)
    {
        if (full()) return;
        vela::copy_text(out[count], name);
        log_trace_as(step, "%s: %s candidate[%d]=%s", log_module, source, count, out[count]);
        ++count;
    }
};

template <class Wanted> void add_board_ports(candidate_list &list, const board_record *board, Wanted wanted)
{
    unsigned group = 0;
    unsigned port = 0;
    while (const phy_port *next = board_get_next_phy(board, &group, &port)) {
        if (vela::is_ethernet(next->name) && wanted(*next)) list.add(next->name);
    }
}

template <size_t N> bool has_line_starting(const vela::formatted<N> &path, std::string_view start)
{
    const vela::file_ptr file{fopen(path.c_str(), "re")};
    char line[256];
    while (file && fgets(line, sizeof line, file.get())) {
        if (vela::starts_with(line, start)) return true;
    }
    return false;
}

bool is_wireless(const char *ifname)
{
    for (const char *mark : {"wireless", "phy80211"}) {
        if (access(vela::formatted<64>{"/sys/class/net/%s/%s", ifname, mark}.c_str(), F_OK) == 0) return true;
    }
    return has_line_starting(vela::formatted<64>{"/sys/class/net/%s/uevent", ifname}, "DEVTYPE=wlan");
}

void add_link(candidate_list &list, const raw_netlink::message &m)
{
    ifinfomsg link;
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWLINK || !raw_netlink::split(m, link, rest)) return;
    if (link.ifi_type != ARPHRD_ETHER || (link.ifi_flags & IFF_LOOPBACK) != 0) return;
    raw_netlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        if (a->type != IFLA_IFNAME || a->value.empty() || a->value.size() > sizeof(port_name)) continue;
        port_name name = "";
        memcpy(name, a->value.data(), a->value.size());
        if (name[a->value.size() - 1] == '\0' && vela::is_ethernet(name) && !is_wireless(name)) list.add(name);
        return;
    }
}

/// The port that the forwarding database knows the gateway behind, when it is a candidate with link.
int detect_in_database(const char *bridge, const uint8_t *mac, std::span<const port_name> candidates, char *out,
                       size_t n)
{
    constexpr const char *step = "gateway_detect_uplink";
    char mac_text[18];
    port_name learned = "";
    (void)gateway_mac_to_str(mac, mac_text, sizeof mac_text); // the size fits
    if (gateway_fdb_lookup(bridge, mac_text, learned, sizeof learned) != 0) {
        log_debug_as(step, "%s: FDB lookup failed", log_module);
        return -1;
    }
    log_debug_as(step, "%s: FDB learned on %s", log_module, learned);
    if (!vela::find(candidates, learned) || get_ethtool_link_status(learned) < 1) {
        log_debug_as(step, "%s: FDB interface %s not usable", log_module, learned);
        return -1;
    }
    vela::copy_text(out, n, learned);
    return 0;
}

} // namespace

int gateway_get_ip(char *ip, uint32_t *addr, size_t len)
{
    if (!ip || !addr || len == 0) return -1;
    auto kernel = vela::routing_tables();
    const auto route = vela::fetch_default_route(kernel, vela::interface_query{});
    vela::copy_text(ip, len, route ? route->gateway_text : "");
    *addr = route ? route->gateway : 0;
    return route ? 0 : -1;
}

int gateway_get_mac(const char *ip, uint8_t mac[6])
{
    char text[18];
    if (!mac || get_mac_by_ip(ip, text, sizeof text) != 0) return -1;
    return strtomac(text, mac);
}

int gateway_mac_to_str(const uint8_t mac[6], char *dst, size_t n)
{
    if (!mac || !dst || n < 18) return -1;
    vela::copy_text(dst, n, vela::mac_text{mac}.c_str());
    return 0;
}

int gateway_fdb_lookup(const char *bridge, const char *mac, char *ifname, int len)
{
    if (!bridge || !mac || !ifname || len <= 0) return -1;
    const int port = get_mac_brinfo(bridge, mac);
    return port < 0 ? -1 : get_ifname_from_br_portno(bridge, port, ifname, static_cast<size_t>(len));
}

int gateway_enum_eth_wan(const board_record *board, char (*out)[16], int max)
{
    if (!out || max <= 0) return 0;
    candidate_list list{out, max, "HAL-WAN", __func__};
    add_board_ports(list, board, [](const phy_port &port) { return (port.flags & PHY_PORT_WAN_ROLE) != 0; });
    if (list.count == 0) log_debug("%s: HAL provided no WAN candidates", log_module);
    return list.count;
}

int gateway_enum_eth_all(const board_record *board, char (*out)[16], int max)
{
    if (!out || max <= 0) return 0;
    candidate_list list{out, max, "HAL", __func__};
    add_board_ports(list, board, [](const phy_port &) { return true; });
    if (list.count != 0) return list.count;
    log_debug("%s: HAL provided no candidates, falling back to netlink", log_module);
    return gateway_enum_eth_netlink(out, max);
}

int gateway_enum_eth_netlink(char (*out)[16], int max)
{
    if (!out || max <= 0) return 0;
    raw_netlink::channel kernel{NETLINK_ROUTE};
    raw_netlink::request question{RTM_GETLINK, ifinfomsg{}};
    kernel.ask(question, raw_netlink::how_much::all, SIZE_MAX, ++link_sequence);
    candidate_list list{out, max, "netlink", __func__};
    while (const auto m = kernel.next()) add_link(list, *m);
    return kernel.answered() ? list.count : 0;
}

int gateway_detect_uplink(const char *bridge, char (*candidates)[16], int count, char *out, size_t n)
{
    if (!bridge || !candidates || count <= 0 || !out || n == 0) return -1;
    const std::span<const port_name> ports{candidates, static_cast<size_t>(count)};

    auto kernel = vela::routing_tables();
    const vela::interface_query interfaces;
    const auto route = vela::fetch_default_route(kernel, interfaces);
    if (!route) {
        log_debug("%s: no default route", log_module);
        return -1;
    }
    log_debug("%s: gateway %s via %s", log_module, route->gateway_text, *route->ifname ? route->ifname : "(unknown)");

    const auto found = vela::fetch_gateway_neighbour(kernel, interfaces, route->gateway, ports);
    auto seen = found.value_or(vela::gateway_neighbour{});
    if (seen.has_port && interfaces.link(seen.port) > 0) {
        log_debug("%s: neighbor on %s", log_module, seen.port);
        vela::copy_text(out, n, seen.port);
        return 0;
    }
    if (seen.has_port) {
        log_debug("%s: neighbor candidate %s is down", log_module, seen.port);
    } else if (found) {
        log_debug("%s: neighbor on bridge, checking FDB", log_module);
    }
    if (!seen.has_mac && gateway_get_mac(route->gateway_text, seen.mac) != 0) {
        log_debug("%s: gateway MAC not resolved", log_module);
        return -1;
    }
    return detect_in_database(bridge, seen.mac, ports, out, n);
}
