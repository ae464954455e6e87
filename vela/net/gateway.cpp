// Three questions to the kernel (routes, neighbours, links) and the choice made from their answers. What one call asks,
// it asks over one route socket, interfaces' names and link included.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <net/if_arp.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/text.h>
#include <vela/core/internal/verdicts.h>
#include <vela/core/util.h>
#include <vela/net/bridge.h>
#include <vela/net/gateway.h>
#include <vela/net/internal/routes.h>

namespace raw_netlink = vela::raw_netlink;
using vela::port_name;
using vela::verdict;
using vela::verdicts;

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

/// What a detection came to: a port, and how it was found; or none, and why not.
struct detection {
    bool found;
    const char *reason;
};

/// One look for the port that leads to the default gateway.
class search
{
public:
    search(const char *bridge, std::span<const port_name> candidates, char *out, size_t size, verdicts *why)
        : bridge_{bridge}, candidates_{candidates}, out_{out}, size_{size}, why_{why}
    {
    }
    detection run();

private:
    static constexpr const char *step = "gateway_detect_uplink";

    detection choose(const port_name &port, const char *how);
    [[nodiscard]] detection refuse(const char *name, const char *reason) const;
    void note_neighbour(const std::optional<vela::gateway_neighbour> &found) const;
    detection look_in_database(const uint8_t *mac);

    const char *bridge_;
    std::span<const port_name> candidates_;
    char *out_;
    size_t size_;
    verdicts *why_;
    vela::interface_query interfaces_;
};

detection search::choose(const port_name &port, const char *how)
{
    note(why_, port, verdict::chosen, how);
    vela::copy_text(out_, size_, port);
    return {true, how};
}

detection search::refuse(const char *name, const char *reason) const
{
    if (why_ && !why_->has(name)) why_->note(name, verdict::refused, reason);
    return {false, reason};
}

void search::note_neighbour(const std::optional<vela::gateway_neighbour> &found) const
{
    if (!why_) return;
    if (!found) return why_->note("neighbour", verdict::skipped, "no_answer");
    if (!found->has_mac) return why_->note("neighbour", verdict::skipped, "not_in_table");
    why_->note("neighbour", verdict::passed, found->has_port ? "on_port" : "on_bridge", {{"mac", found->mac}});
}

/// The port that the forwarding database knows the gateway behind, when it is a candidate with link.
detection search::look_in_database(const uint8_t *mac)
{
    char mac_text[18];
    port_name learned = "";
    (void)gateway_mac_to_str(mac, mac_text, sizeof mac_text); // the size fits
    if (gateway_fdb_lookup(bridge_, mac_text, learned, sizeof learned) != 0) {
        log_debug_as(step, "%s: FDB lookup failed", log_module);
        return refuse("fdb", "not_learned");
    }
    log_debug_as(step, "%s: FDB learned on %s", log_module, learned);
    note(why_, "fdb", verdict::passed, "learned", {{"port", learned}});
    const bool is_candidate = vela::find(candidates_, learned);
    if (!is_candidate || get_ethtool_link_status(learned) < 1) {
        log_debug_as(step, "%s: FDB interface %s not usable", log_module, learned);
        return refuse(learned, is_candidate ? "no_link" : "no_candidate");
    }
    return choose(learned, "fdb");
}

detection search::run()
{
    auto kernel = vela::routing_tables();
    const auto route = vela::fetch_default_route(kernel, interfaces_);
    if (!route) {
        log_debug_as(step, "%s: no default route", log_module);
        return refuse("route", "no_default_route");
    }
    const char *via = *route->ifname ? route->ifname : "(unknown)";
    log_debug_as(step, "%s: gateway %s via %s", log_module, route->gateway_text, via);
    note(why_, "route", verdict::passed, "found", {{"gateway", route->gateway_text}, {"interface", via}});

    const auto found = vela::fetch_gateway_neighbour(kernel, interfaces_, route->gateway, candidates_);
    note_neighbour(found);
    auto seen = found.value_or(vela::gateway_neighbour{});
    if (seen.has_port && interfaces_.link(seen.port) > 0) {
        log_debug_as(step, "%s: neighbor on %s", log_module, seen.port);
        return choose(seen.port, "neighbour");
    }
    if (seen.has_port) {
        log_debug_as(step, "%s: neighbor candidate %s is down", log_module, seen.port);
        (void)refuse(seen.port, "no_link"); // the database may know it elsewhere
    } else if (found) {
        log_debug_as(step, "%s: neighbor on bridge, checking FDB", log_module);
    }
    if (!seen.has_mac && gateway_get_mac(route->gateway_text, seen.mac) != 0) {
        log_debug_as(step, "%s: gateway MAC not resolved", log_module);
        return refuse("mac", "not_resolved");
    }
    return look_in_database(seen.mac);
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
    return search{bridge, ports, out, n, nullptr}.run().found ? 0 : -1;
}

json_t *gateway_explain(const char *bridge, char (*candidates)[16], int count)
{
    if (!bridge || !candidates || count <= 0) {
        errno = EINVAL;
        return nullptr;
    }
    const std::span<const port_name> ports{candidates, static_cast<size_t>(count)};
    port_name port = "";
    verdicts why{"gateway"};
    const auto [found, reason] = search{bridge, ports, port, sizeof port, &why}.run();
    for (const port_name &candidate : ports) {
        const bool has_link = get_ethtool_link_status(candidate) > 0;
        if (!why.has(candidate)) why.note(candidate, verdict::skipped, "unseen", {{"link", has_link}});
    }
    why.conclude(reason, found ? port : nullptr);
    return why.release();
}
