// Attributes of route, address, neighbour and socket messages.

#include <algorithm>
#include <linux/if_addr.h>
#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <vela/net/internal/internet_view.h>
#include <vela/net/internal/links.h>
#include <vela/net/internal/neighbours.h>

namespace vela
{
namespace
{

constexpr size_t address_length(uint32_t family) { return family == AF_INET ? 4 : 16; }

bool same_bits(const uint8_t *a, const uint8_t *b, size_t bits)
{
    if (memcmp(a, b, bits / 8) != 0) return false;
    return bits % 8 == 0 || ((a[bits / 8] ^ b[bits / 8]) >> (8 - bits % 8)) == 0;
}

/// The value of an address attribute, into the beginning of `out`. False when it has another length.
bool copy_address(const raw_netlink::attribute &a, uint32_t family, uint8_t (&out)[16])
{
    if (a.value.size() != address_length(family)) return false;
    memcpy(out, a.value.data(), a.value.size());
    return true;
}

/// The beginning of tcp_info, which newer kernels lengthen.
struct tcp_ages {
    uint8_t states[8];
    uint32_t numbers[12];
    uint32_t last_ack_recv_ms;
};
static_assert(offsetof(tcp_info, tcpi_last_ack_recv) == offsetof(tcp_ages, last_ack_recv_ms));

struct next_hop {
    uint32_t index = 0;
    uint8_t flags = 0; // RTNH_F_...
    uint8_t gateway_family = 0;
    uint8_t gateway[16] = {};

    /// Takes an attribute that a hop may have, as a route's only one or in its list.
    void note(const raw_netlink::attribute &a, uint8_t family)
    {
        if (a.type == RTA_OIF) index = a.as<uint32_t>().value_or(0);
        if (a.type == RTA_GATEWAY && copy_address(a, family, gateway)) gateway_family = family;
        if (a.type != RTA_VIA || a.value.size() <= sizeof(sa_family_t)) return;
        sa_family_t via_family;
        memcpy(&via_family, a.value.data(), sizeof via_family);
        const raw_netlink::attribute via{a.type, a.value.subspan(sizeof via_family)};
        if (copy_address(via, via_family, gateway)) gateway_family = static_cast<uint8_t>(via_family);
    }
};

/// The next of a RTA_MULTIPATH list; nothing at its end or where it is malformed.
std::optional<next_hop> take_hop(std::span<const uint8_t> &list, uint8_t family)
{
    rtnexthop header;
    if (list.size() < sizeof header) return std::nullopt;
    memcpy(&header, list.data(), sizeof header);
    if (header.rtnh_len < sizeof header || header.rtnh_len > list.size()) return std::nullopt;
    next_hop hop;
    hop.index = static_cast<uint32_t>(header.rtnh_ifindex);
    hop.flags = header.rtnh_flags;
    raw_netlink::attributes walk{list.subspan(sizeof header, header.rtnh_len - sizeof header)};
    while (const auto a = walk.next()) hop.note(*a, family);
    list = list.subspan(std::min<size_t>(RTNH_ALIGN(header.rtnh_len), list.size()));
    return hop;
}

struct route_message {
    rtmsg header;
    uint32_t table;
    uint32_t metric;
    uint8_t destination[16];
    uint8_t source[16];
    next_hop hop; // where there is no list
    std::span<const uint8_t> hops;
};

std::optional<route_message> read_route(const raw_netlink::message &m)
{
    route_message r = {};
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWROUTE || !raw_netlink::split(m, r.header, rest)) return std::nullopt;
    const uint8_t family = r.header.rtm_family;
    if ((family != AF_INET && family != AF_INET6) || r.header.rtm_dst_len > 8 * address_length(family)) {
        return std::nullopt;
    }
    r.table = r.header.rtm_table;
    r.hop.flags = static_cast<uint8_t>(r.header.rtm_flags); // the low byte is the hop's
    raw_netlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        r.hop.note(*a, family);
        if (a->type == RTA_TABLE) r.table = a->as<uint32_t>().value_or(r.table);
        if (a->type == RTA_PRIORITY) r.metric = a->as<uint32_t>().value_or(0);
        if (a->type == RTA_DST) copy_address(*a, family, r.destination);
        if (a->type == RTA_PREFSRC) copy_address(*a, family, r.source);
        if (a->type == RTA_MULTIPATH) r.hops = a->value;
    }
    return r;
}

internet_view::candidate candidate_of(const route_message &r, const next_hop &hop)
{
    internet_view::candidate c = {};
    c.route.family = r.header.rtm_family;
    c.route.table = r.table;
    c.route.metric = r.metric;
    c.route.index = hop.index;
    c.route.confirmed_s = UINT32_MAX;
    memcpy(c.route.source, r.source, sizeof c.route.source);
    memcpy(c.gateway, hop.gateway, sizeof c.gateway);
    c.gateway_family = hop.gateway_family;
    if (c.gateway_family == c.route.family) memcpy(c.route.gateway, hop.gateway, sizeof c.route.gateway);
    c.drops = r.header.rtm_type != RTN_UNICAST;
    c.dead = (hop.flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) != 0;
    return c;
}

} // namespace

int internet_view::note_route(const raw_netlink::message &m)
{
    const auto r = read_route(m);
    if (!r || r->table != RT_TABLE_MAIN || (r->header.rtm_flags & RTM_F_CLONED) != 0) return 0;
    if (r->header.rtm_dst_len != 0) {
        if (r->header.rtm_type != RTN_UNICAST || r->hop.gateway_family != 0 || !r->hops.empty()) return 0;
        prefix network = {r->header.rtm_family, r->header.rtm_dst_len, {}};
        memcpy(network.address, r->destination, sizeof network.address);
        return on_link_.add(network);
    }
    if (r->hops.empty()) return routes_.add(candidate_of(*r, r->hop));
    auto rest = r->hops;
    int result = 0;
    while (const auto hop = take_hop(rest, r->header.rtm_family)) {
        if (result == 0) result = routes_.add(candidate_of(*r, *hop));
    }
    return result;
}

int internet_view::note_address(const raw_netlink::message &m)
{
    vela_netaddr address;
    if (!read_address(m, address)) return 0;
    const bool usable =
        (address.flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0 || (address.flags & IFA_F_OPTIMISTIC);
    if (address.scope == RT_SCOPE_UNIVERSE && usable) {
        families_[address.family == AF_INET6].global = true;
        for (auto &c : routes_.items()) {
            c.has_address = c.has_address || (c.route.index == address.index && c.route.family == address.family);
        }
    }
    prefix network = {address.family, std::min<uint8_t>(address.prefix, 128), {}};
    memcpy(network.address, address.address, sizeof network.address);
    return on_link_.add(network);
}

void internet_view::note_neighbour(const raw_netlink::message &m)
{
    vela_neighbour n;
    if (!read_neighbour(m, n)) return;
    for (auto &c : routes_.items()) {
        if (c.gateway_family != n.family || c.route.index != n.index) continue;
        if (memcmp(c.gateway, n.address, sizeof n.address) != 0) continue;
        memcpy(c.route.mac, n.mac, sizeof c.route.mac);
        c.route.neighbour_state = n.state;
        c.route.confirmed_s = n.confirmed_s;
    }
}

void internet_view::note_socket(const raw_netlink::message &m)
{
    inet_diag_msg header;
    std::span<const uint8_t> rest;
    if (m.type != SOCK_DIAG_BY_FAMILY || !raw_netlink::split(m, header, rest)) return;
    if (header.idiag_state != tcp_established) return;
    uint8_t family = header.idiag_family;
    uint8_t peer[16];
    static_assert(sizeof header.id.idiag_dst == sizeof peer);
    memcpy(peer, header.id.idiag_dst, sizeof peer);
    if (family == AF_INET6 && IN6_IS_ADDR_V4MAPPED(reinterpret_cast<const in6_addr *>(header.id.idiag_dst))) {
        family = AF_INET;
        memcpy(peer, header.id.idiag_dst + 3, 4);
    }
    if ((family != AF_INET && family != AF_INET6) || is_on_link(family, peer)) return;
    raw_netlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        const auto ages = a->type == INET_DIAG_INFO ? a->beginning<tcp_ages>() : std::nullopt;
        if (!ages) continue;
        auto &nearest = families_[family == AF_INET6].beyond_ms;
        nearest = std::min(nearest, ages->last_ack_recv_ms);
    }
}

bool internet_view::is_on_link(uint8_t family, const uint8_t *address) const
{
    const auto networks = on_link_.items();
    return std::any_of(networks.begin(), networks.end(), [=](const prefix &network) {
        return network.family == family && same_bits(network.address, address, network.bits);
    });
}

} // namespace vela
