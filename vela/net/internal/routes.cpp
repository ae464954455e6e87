// Two questions to the kernel, for its routes and its neighbours, each read message by message.

#include <algorithm>
#include <vela/core/internal/log.h>
#include <vela/core/internal/text.h>
#include <vela/net/internal/routes.h>

namespace vela
{
namespace
{

constexpr const char *log_module = "gateway-utils"; // stands in front of every text, too

constexpr uint16_t usable_states = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;
constexpr uint16_t final_states = NUD_REACHABLE | NUD_PROBE | NUD_PERMANENT;
static_assert(usable_states == 0x9e && final_states == 0x92);

bool is_zero(std::span<const uint8_t> bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

struct neighbour {
    ndmsg header;
    in_addr_t address;
    std::optional<std::span<const uint8_t>> link_address;
};

std::optional<neighbour> as_neighbour(const raw_netlink::message &m)
{
    neighbour n = {};
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWNEIGH || !raw_netlink::split(m, n.header, rest)) return std::nullopt;
    std::optional<in_addr_t> address;
    raw_netlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        if (a->type == NDA_DST) address = a->as<in_addr_t>();
        if (a->type == NDA_LLADDR && a->value.size() >= 6 && a->value.size() <= 32) n.link_address = a->value;
    }
    if (!address) return std::nullopt;
    n.address = *address;
    return n;
}

/// Notes the candidate that a usable entry is on. True when this settles it.
bool note_port(gateway_neighbour &result, const ndmsg &entry, const interface_query &interfaces,
               std::span<const port_name> candidates)
{
    port_name name = "";
    if ((entry.ndm_state & usable_states) == 0) return false;
    if (!interfaces.name(static_cast<uint32_t>(entry.ndm_ifindex), name)) return false;
    if (!find(candidates, name)) return false;
    if (!result.has_port || is_ethernet(name)) copy_text(result.port, name);
    result.has_port = true;
    log_trace_as("gateway_fetch_gateway_neighbor", "%s: neighbor candidate=%s state=0x%x", log_module, name,
                 static_cast<unsigned>(entry.ndm_state));
    return (entry.ndm_state & final_states) != 0;
}

} // namespace

const port_name *find(std::span<const port_name> candidates, const port_name &name)
{
    const auto found = std::find_if(candidates.begin(), candidates.end(),
                                    [&name](const port_name &c) { return strncmp(c, name, sizeof name) == 0; });
    return found == candidates.end() ? nullptr : &*found;
}

std::optional<default_route> as_default_route(const raw_netlink::message &m, const interface_query &interfaces)
{
    rtmsg header;
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWROUTE || !raw_netlink::split(m, header, rest)) return std::nullopt;
    if (header.rtm_family != AF_INET || header.rtm_dst_len != 0) return std::nullopt;

    std::optional<in_addr_t> gateway;
    std::optional<uint32_t> interface;
    uint32_t table = header.rtm_table;
    raw_netlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        if (a->type == RTA_DST && !is_zero(a->value)) return std::nullopt;
        if (a->type == RTA_GATEWAY) gateway = a->as<in_addr_t>();
        if (a->type == RTA_OIF) interface = a->as<uint32_t>();
        if (a->type == RTA_TABLE && header.rtm_table == 0) table = a->as<uint32_t>().value_or(table);
    }
    default_route route = {};
    if (!gateway || !interface || !interfaces.name(*interface, route.ifname)) return std::nullopt;
    route.gateway = *gateway;
    if (!inet_ntop(AF_INET, &route.gateway, route.gateway_text, sizeof route.gateway_text)) return std::nullopt;
    log_trace_as("gateway_fetch_default_route", "%s: default route via %s (table %d)", log_module, route.ifname,
                 static_cast<int>(table));
    return route;
}

std::optional<default_route> fetch_default_route(raw_netlink::channel &kernel, const interface_query &interfaces)
{
    rtmsg wanted = {};
    wanted.rtm_family = AF_INET;
    wanted.rtm_table = RT_TABLE_MAIN;
    raw_netlink::request question{RTM_GETROUTE, wanted};
    kernel.ask(question, raw_netlink::how_much::all, route_answer_max, 1);
    std::optional<default_route> first;
    while (const auto m = kernel.next()) {
        if (!first) first = as_default_route(*m, interfaces);
    }
    return kernel.answered() ? first : std::nullopt;
}

bool note_neighbour(gateway_neighbour &result, const raw_netlink::message &m, const interface_query &interfaces,
                    in_addr_t gateway, std::span<const port_name> candidates)
{
    const auto n = as_neighbour(m);
    if (!n || n->address != gateway) return false;
    if (!result.has_mac && n->link_address) {
        memcpy(result.mac, n->link_address->data(), sizeof result.mac);
        result.has_mac = true;
    }
    return note_port(result, n->header, interfaces, candidates);
}

std::optional<gateway_neighbour> fetch_gateway_neighbour(raw_netlink::channel &kernel,
                                                         const interface_query &interfaces, in_addr_t gateway,
                                                         std::span<const port_name> candidates)
{
    ndmsg wanted = {};
    wanted.ndm_family = AF_INET;
    raw_netlink::request question{RTM_GETNEIGH, wanted};
    kernel.ask(question, raw_netlink::how_much::all, route_answer_max, 1);
    gateway_neighbour result = {};
    bool settled = false;
    while (const auto m = kernel.next()) {
        settled = settled || note_neighbour(result, *m, interfaces, gateway, candidates);
    }
    return kernel.answered() ? std::optional{result} : std::nullopt;
}

} // namespace vela
