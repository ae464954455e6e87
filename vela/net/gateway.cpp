// Three questions to the kernel (routes, neighbours, links) and the choice made from their answers. What one call asks,
// it asks over one route socket, interfaces' names and link included.

#include <algorithm>
#include <linux/neighbour.h>
#include <net/if_arp.h>
#include <sys/socket.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/text.h>
#include <vela/core/util.h>
#include <vela/net/bridge.h>
#include <vela/net/gateway.h>
#include <vela/net/internal/default_route.h>
#include <vela/net/internal/interface.h>

namespace rtnetlink = vela::rtnetlink;

namespace
{

constexpr const char *log_module = "gateway-utils"; // stands in front of every text, too

constexpr size_t answer_max = 16384; // a larger table is read this far
constexpr size_t name_size = 16;
constexpr std::string_view ethernet_prefix = "eth";

constexpr uint16_t usable_states = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;
constexpr uint16_t final_states = NUD_REACHABLE | NUD_PROBE | NUD_PERMANENT;
static_assert(usable_states == 0x9e && final_states == 0x92);

using port_name = char[name_size];

/// Numbers the link questions of this process.
constinit uint32_t link_sequence = 0;

bool is_ethernet(const char *name) { return vela::starts_with(vela::view(name), ethernet_prefix); }

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
        if (is_ethernet(next->name) && wanted(*next)) list.add(next->name);
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

void add_link(candidate_list &list, const rtnetlink::message &m)
{
    ifinfomsg link;
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWLINK || !rtnetlink::split(m, link, rest)) return;
    if (link.ifi_type != ARPHRD_ETHER || (link.ifi_flags & IFF_LOOPBACK) != 0) return;
    rtnetlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        if (a->type != IFLA_IFNAME || a->value.empty() || a->value.size() > name_size) continue;
        port_name name = "";
        memcpy(name, a->value.data(), a->value.size());
        if (name[a->value.size() - 1] == '\0' && is_ethernet(name) && !is_wireless(name)) list.add(name);
        return;
    }
}

bool is_zero(std::span<const uint8_t> bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

std::optional<vela::default_route> as_default_route(const rtnetlink::message &m,
                                                    const vela::interface_query &interfaces)
{
    rtmsg header;
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWROUTE || !rtnetlink::split(m, header, rest)) return std::nullopt;
    if (header.rtm_family != AF_INET || header.rtm_dst_len != 0) return std::nullopt;

    std::optional<in_addr_t> gateway;
    std::optional<uint32_t> interface;
    uint32_t table = header.rtm_table;
    rtnetlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        if (a->type == RTA_DST && !is_zero(a->value)) return std::nullopt;
        if (a->type == RTA_GATEWAY) gateway = a->as<in_addr_t>();
        if (a->type == RTA_OIF) interface = a->as<uint32_t>();
        if (a->type == RTA_TABLE && header.rtm_table == 0) table = a->as<uint32_t>().value_or(table);
    }
    vela::default_route route = {};
    if (!gateway || !interface || !interfaces.name(*interface, route.ifname)) return std::nullopt;
    route.gateway = *gateway;
    if (!inet_ntop(AF_INET, &route.gateway, route.gateway_text, sizeof route.gateway_text)) return std::nullopt;
    log_trace_as("gateway_fetch_default_route", "%s: default route via %s (table %d)", log_module, route.ifname,
                 static_cast<int>(table));
    return route;
}

struct neighbour {
    ndmsg header;
    in_addr_t address;
    std::optional<std::span<const uint8_t>> link_address;
};

std::optional<neighbour> as_neighbour(const rtnetlink::message &m)
{
    neighbour n = {};
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWNEIGH || !rtnetlink::split(m, n.header, rest)) return std::nullopt;
    std::optional<in_addr_t> address;
    rtnetlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        if (a->type == NDA_DST) address = a->as<in_addr_t>();
        if (a->type == NDA_LLADDR && a->value.size() >= 6 && a->value.size() <= 32) n.link_address = a->value;
    }
    if (!address) return std::nullopt;
    n.address = *address;
    return n;
}

const port_name *find(std::span<const port_name> candidates, const port_name &name)
{
    const auto found = std::find_if(candidates.begin(), candidates.end(),
                                    [&name](const port_name &c) { return strncmp(c, name, name_size) == 0; });
    return found == candidates.end() ? nullptr : &*found;
}

/// Notes the candidate that a usable entry is on. True when this settles it.
bool note_port(vela::gateway_neighbour &result, const ndmsg &entry, const vela::interface_query &interfaces,
               std::span<const port_name> candidates)
{
    port_name name = "";
    if ((entry.ndm_state & usable_states) == 0) return false;
    if (!interfaces.name(static_cast<uint32_t>(entry.ndm_ifindex), name)) return false;
    if (!find(candidates, name)) return false;
    if (!result.has_port || is_ethernet(name)) vela::copy_text(result.port, name);
    result.has_port = true;
    log_trace_as("gateway_fetch_gateway_neighbor", "%s: neighbor candidate=%s state=0x%x", log_module, name,
                 static_cast<unsigned>(entry.ndm_state));
    return (entry.ndm_state & final_states) != 0;
}

std::optional<vela::gateway_neighbour> fetch_gateway_neighbour(rtnetlink::route_socket &kernel,
                                                               const vela::interface_query &interfaces,
                                                               in_addr_t gateway, std::span<const port_name> candidates)
{
    uint8_t buffer[answer_max];
    rtnetlink::question q{.type = RTM_GETNEIGH, .family = AF_INET, .sequence = 1};
    const auto answer = kernel.dump(q, buffer);
    if (!answer) return std::nullopt;
    return vela::find_gateway_neighbour(*answer, q, interfaces, gateway, candidates);
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
    if (!find(candidates, learned) || get_ethtool_link_status(learned) < 1) {
        log_debug_as(step, "%s: FDB interface %s not usable", log_module, learned);
        return -1;
    }
    vela::copy_text(out, n, learned);
    return 0;
}

} // namespace

namespace vela
{

std::optional<default_route> find_default_route(std::span<const uint8_t> answer, const rtnetlink::question &q,
                                                const interface_query &interfaces)
{
    rtnetlink::messages walk{answer, q};
    while (const auto m = walk.next()) {
        if (const auto route = as_default_route(*m, interfaces)) return route;
    }
    return std::nullopt;
}

std::optional<default_route> fetch_default_route(rtnetlink::route_socket &kernel, const interface_query &interfaces)
{
    uint8_t buffer[answer_max];
    rtnetlink::question q{.type = RTM_GETROUTE, .family = AF_INET, .sequence = 1};
    const auto answer = kernel.dump(q, buffer);
    if (!answer) return std::nullopt;
    return find_default_route(*answer, q, interfaces);
}

gateway_neighbour find_gateway_neighbour(std::span<const uint8_t> answer, const rtnetlink::question &q,
                                         const interface_query &interfaces, in_addr_t gateway,
                                         std::span<const char[16]> candidates)
{
    gateway_neighbour result = {};
    rtnetlink::messages walk{answer, q};
    while (const auto m = walk.next()) {
        const auto n = as_neighbour(*m);
        if (!n || n->address != gateway) continue;
        if (!result.has_mac && n->link_address) {
            memcpy(result.mac, n->link_address->data(), sizeof result.mac);
            result.has_mac = true;
        }
        if (note_port(result, n->header, interfaces, candidates)) break;
    }
    return result;
}

} // namespace vela

int gateway_get_ip(char *ip, uint32_t *addr, size_t len)
{
    if (!ip || !addr || len == 0) return -1;
    rtnetlink::route_socket kernel;
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
    rtnetlink::route_socket kernel;
    rtnetlink::question q{.type = RTM_GETLINK, .family = AF_UNSPEC, .sequence = ++link_sequence};
    if (!kernel.ask(q)) return 0;

    candidate_list list{out, max, "netlink", __func__};
    uint8_t buffer[answer_max];
    for (bool more = true; more;) {
        const ssize_t n = kernel.receive(buffer);
        if (n < 0) return 0;
        rtnetlink::messages walk{std::span<const uint8_t>{buffer, static_cast<size_t>(n)}, q};
        while (const auto m = walk.next()) add_link(list, *m);
        more = n != 0 && !walk.done();
    }
    return list.count;
}

int gateway_detect_uplink(const char *bridge, char (*candidates)[16], int count, char *out, size_t n)
{
    if (!bridge || !candidates || count <= 0 || !out || n == 0) return -1;
    const std::span<const port_name> ports{candidates, static_cast<size_t>(count)};

    rtnetlink::route_socket kernel;
    const vela::interface_query interfaces;
    const auto route = vela::fetch_default_route(kernel, interfaces);
    if (!route) {
        log_debug("%s: no default route", log_module);
        return -1;
    }
    log_debug("%s: gateway %s via %s", log_module, route->gateway_text, *route->ifname ? route->ifname : "(unknown)");

    const auto found = fetch_gateway_neighbour(kernel, interfaces, route->gateway, ports);
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
