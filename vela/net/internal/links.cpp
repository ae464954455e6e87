// Attributes of RTM_NEWLINK and RTM_NEWADDR messages.

#include <algorithm>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <vela/net/internal/links.h>

namespace vela
{
namespace
{

/// The beginning of rtnl_link_stats64, which newer kernels lengthen.
struct link_counters {
    uint64_t rx_packets, tx_packets, rx_bytes, tx_bytes, rx_errors, tx_errors, rx_dropped, tx_dropped, multicast;
};
static_assert(offsetof(rtnl_link_stats64, multicast) == offsetof(link_counters, multicast));

void read_counters(const raw_netlink::attribute &a, vela_netif &out)
{
    const auto counters = a.beginning<link_counters>();
    if (!counters) return;
    out.rx_packets = counters->rx_packets;
    out.tx_packets = counters->tx_packets;
    out.rx_bytes = counters->rx_bytes;
    out.tx_bytes = counters->tx_bytes;
    out.rx_errors = counters->rx_errors;
    out.tx_errors = counters->tx_errors;
    out.rx_dropped = counters->rx_dropped;
    out.tx_dropped = counters->tx_dropped;
    out.multicast = counters->multicast;
}

void read_mac(const raw_netlink::attribute &a, uint8_t (&out)[6])
{
    if (a.value.size() == sizeof out) memcpy(out, a.value.data(), sizeof out);
}

void read_kind(const raw_netlink::attribute &info, vela_netif &out)
{
    std::optional<raw_netlink::attribute> data;
    auto walk = raw_netlink::attributes::inside(info);
    while (const auto a = walk.next()) {
        if (a->type == IFLA_INFO_KIND) copy_text(out.kind, a->text());
        if (a->type == IFLA_INFO_DATA) data = a;
    }
    if (!data || view(out.kind) != "vlan") return;
    auto vlan = raw_netlink::attributes::inside(*data);
    while (const auto a = vlan.next()) {
        if (a->type == IFLA_VLAN_ID && a->as<uint16_t>()) out.vlan_id = *a->as<uint16_t>();
    }
}

constexpr vela_netif nothing_known = [] {
    vela_netif n = {};
    n.carrier = n.mtu = n.speed_mbps = n.duplex = n.carrier_changes = n.vlan_id = n.wiphy = UINT32_MAX;
    n.rx_bytes = n.tx_bytes = n.rx_packets = n.tx_packets = n.rx_errors = n.tx_errors = UINT64_MAX;
    n.rx_dropped = n.tx_dropped = n.multicast = UINT64_MAX;
    return n;
}();

} // namespace

bool read_link(const raw_netlink::message &m, vela_netif &out)
{
    ifinfomsg header;
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWLINK || !raw_netlink::split(m, header, rest)) return false;
    out = nothing_known;
    out.index = static_cast<uint32_t>(header.ifi_index);
    out.type = header.ifi_type;
    out.flags = header.ifi_flags;
    bool lower_is_elsewhere = false;
    raw_netlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        switch (a->type) {
        case IFLA_IFNAME: copy_text(out.name, a->text()); break;
        case IFLA_ADDRESS: read_mac(*a, out.mac); break;
        case IFLA_PERM_ADDRESS: read_mac(*a, out.permanent_mac); break;
        case IFLA_MTU: out.mtu = a->as<uint32_t>().value_or(out.mtu); break;
        case IFLA_OPERSTATE: out.operstate = a->as<uint8_t>().value_or(0); break;
        case IFLA_CARRIER: out.carrier = a->as<uint8_t>().value_or(0) != 0; break;
        case IFLA_CARRIER_CHANGES: out.carrier_changes = a->as<uint32_t>().value_or(out.carrier_changes); break;
        case IFLA_MASTER: out.master = a->as<uint32_t>().value_or(0); break;
        case IFLA_LINK: out.lower = a->as<uint32_t>().value_or(0); break;
        case IFLA_LINK_NETNSID: lower_is_elsewhere = true; break;
        case IFLA_LINKINFO: read_kind(*a, out); break;
        case IFLA_STATS64: read_counters(*a, out); break;
        default: break;
        }
    }
    if (lower_is_elsewhere) out.lower = 0;
    return out.index != 0;
}

bool read_address(const raw_netlink::message &m, vela_netaddr &out)
{
    ifaddrmsg header;
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWADDR || !raw_netlink::split(m, header, rest)) return false;
    const size_t length = header.ifa_family == AF_INET ? 4 : 16;
    if (header.ifa_family != AF_INET && header.ifa_family != AF_INET6) return false;
    out = {};
    out.index = header.ifa_index;
    out.family = header.ifa_family;
    out.prefix = header.ifa_prefixlen;
    out.scope = header.ifa_scope;
    out.flags = header.ifa_flags;
    out.valid_s = out.preferred_s = UINT32_MAX;
    bool own = false; // on a point-to-point link IFA_ADDRESS is the other end's, and IFA_LOCAL ours
    raw_netlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        const bool local = a->type == IFA_LOCAL;
        if ((local || (a->type == IFA_ADDRESS && !own)) && a->value.size() == length) {
            memcpy(out.address, a->value.data(), length);
            own = local;
        }
        if (a->type == IFA_FLAGS) out.flags = a->as<uint32_t>().value_or(out.flags);
        if (const auto life = a->type == IFA_CACHEINFO ? a->beginning<ifa_cacheinfo>() : std::nullopt) {
            out.valid_s = life->ifa_valid;
            out.preferred_s = life->ifa_prefered;
        }
    }
    return out.index != 0;
}

int link_names::read(raw_netlink::channel &kernel, uint32_t master)
{
    raw_netlink::request question{RTM_GETLINK, ifinfomsg{}};
    question.put(IFLA_EXT_MASK, uint32_t{RTEXT_FILTER_SKIP_STATS});
    if (master != 0) question.put(IFLA_MASTER, master);
    kernel.ask(question, raw_netlink::how_much::all);
    int failed = 0;
    while (const auto m = kernel.next()) {
        vela_netif n;
        if (failed != 0 || !read_link(*m, n) || (master != 0 && n.master != master)) continue;
        link entry = {n.index, ""};
        copy_text(entry.name, n.name);
        failed = links_.add(entry);
    }
    const auto links = links_.items();
    std::sort(links.begin(), links.end(), [](const link &a, const link &b) { return a.index < b.index; });
    if (failed == -ENOMEM) return failed;
    return kernel.result() == -EAGAIN ? 0 : kernel.result(); // what was missed has no name, like what has vanished
}

const char *link_names::of(uint32_t index) const
{
    const auto links = links_.items();
    const auto found = std::lower_bound(links.begin(), links.end(), index,
                                        [](const link &entry, uint32_t wanted) { return entry.index < wanted; });
    return found != links.end() && found->index == index ? found->name : "";
}

} // namespace vela
