// Ports, forwarding databases and neighbours as records, over route netlink. Names of interfaces come from one question
// per walk.

#include <netinet/in.h> // before kernel headers, which define its records again with musl
//
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <net/if.h>
#include <unistd.h>
#include <vela/core/internal/record_json.h>
#include <vela/net/bridge.h>
#include <vela/net/internal/interface.h>
#include <vela/net/internal/links.h>
#include <vela/net/internal/neighbours.h>

// Programs were compiled against these layouts: what is new goes to the end.
static_assert(sizeof(vela_bridge_port) == 44 && sizeof(vela_fdb_entry) == 44 && sizeof(vela_neighbour) == 64);

namespace raw_netlink = vela::raw_netlink;

namespace
{

/// The ages in kernel records count in these.
uint32_t seconds(uint32_t ticks)
{
    const long per_second = sysconf(_SC_CLK_TCK);
    return per_second > 0 ? ticks / static_cast<uint32_t>(per_second) : UINT32_MAX;
}

uint32_t pvid_in(const raw_netlink::attribute &spec)
{
    auto walk = raw_netlink::attributes::inside(spec);
    while (const auto a = walk.next()) {
        const auto vlan = a->type == IFLA_BRIDGE_VLAN_INFO ? a->as<bridge_vlan_info>() : std::nullopt;
        if (vlan && (vlan->flags & BRIDGE_VLAN_INFO_PVID) != 0) return vlan->vid;
    }
    return 0;
}

void read_port_settings(const raw_netlink::attribute &settings, vela_bridge_port &out)
{
    auto walk = raw_netlink::attributes::inside(settings);
    while (const auto a = walk.next()) {
        switch (a->type) {
        case IFLA_BRPORT_NO: out.number = a->as<uint16_t>().value_or(0); break;
        case IFLA_BRPORT_STATE: out.state = a->as<uint8_t>().value_or(UINT8_MAX); break;
        case IFLA_BRPORT_LEARNING: out.learning = a->as<uint8_t>().value_or(0) != 0; break;
        case IFLA_BRPORT_ISOLATED: out.isolated = a->as<uint8_t>().value_or(0) != 0; break;
        default: break;
        }
    }
}

/// A bridge, as its own link message tells.
struct bridge_link {
    uint32_t index;
    bool filters_vlans;
};

bool filters_vlans(const raw_netlink::message &m)
{
    ifinfomsg header;
    std::span<const uint8_t> rest;
    if (!raw_netlink::split(m, header, rest)) return false;
    raw_netlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        if (a->type != IFLA_LINKINFO) continue;
        auto info = raw_netlink::attributes::inside(*a);
        while (const auto b = info.next()) {
            if (b->type != IFLA_INFO_DATA) continue;
            auto data = raw_netlink::attributes::inside(*b);
            while (const auto c = data.next()) {
                if (c->type == IFLA_BR_VLAN_FILTERING) return c->as<uint8_t>().value_or(0) != 0;
            }
        }
    }
    return false;
}

/// 0, or a negative errno: -ENODEV also for an interface that is no bridge.
int find_bridge(raw_netlink::channel &kernel, const char *name, bridge_link &out)
{
    raw_netlink::request question{RTM_GETLINK, ifinfomsg{}};
    question.put_text(IFLA_IFNAME, name);
    kernel.ask(question, raw_netlink::how_much::one);
    int result = -ENODEV;
    while (const auto m = kernel.next()) {
        vela_netif n;
        if (!vela::read_link(*m, n) || vela::view(n.kind) != "bridge") continue;
        out = {n.index, filters_vlans(*m)};
        result = 0;
    }
    return kernel.result() < 0 ? kernel.result() : result;
}

/// Delivers what is left of a channel's answer: `read(message, record)` is true for a record. How many, or a negative
/// errno.
template <class Record, class Read, class Callback>
int deliver(raw_netlink::channel &kernel, Read read, Callback each, void *arg)
{
    int count = 0;
    while (const auto m = kernel.next()) {
        Record record;
        if (!read(*m, record)) continue;
        ++count;
        if (each(&record, arg) != 0) return count;
    }
    return kernel.result() < 0 ? kernel.result() : count;
}

/// What vela_fdb_find() does where the kernel takes no question about one entry.
int find_by_walk(const char *bridge, const uint8_t *mac, uint32_t vlan, vela_fdb_entry &out)
{
    struct search {
        const uint8_t *mac;
        uint32_t vlan;
        vela_fdb_entry *found;
        int result;
    } wanted = {mac, vlan, &out, -ENOENT};
    const auto compare = [](const vela_fdb_entry *entry, void *arg) {
        auto &s = *static_cast<search *>(arg);
        if (memcmp(entry->mac, s.mac, sizeof entry->mac) != 0 || entry->vlan != s.vlan) return 0;
        *s.found = *entry;
        s.result = 0;
        return 1;
    };
    const int result = vela_fdb_foreach(bridge, compare, &wanted);
    return result < 0 && wanted.result < 0 ? result : wanted.result;
}

const char *port_state_word(uint32_t state)
{
    constexpr const char *words[] = {"disabled", "listening", "learning", "forwarding", "blocking"};
    return state < std::size(words) ? words[state] : nullptr;
}

const char *family_word(uint32_t family) { return family == AF_INET ? "ipv4" : "ipv6"; }

using vela::shown;
using vela::unknown;

constexpr vela::json_row port_rows[] = {
    {"index", VELA_MEMBER(vela_bridge_port, index), shown::number, unknown::zero},
    {"name", VELA_MEMBER(vela_bridge_port, name), shown::text, unknown::zero},
    {"number", VELA_MEMBER(vela_bridge_port, number), shown::number, unknown::ones},
    {"state", VELA_MEMBER(vela_bridge_port, state), shown::word, unknown::ones, port_state_word},
    {"bridge", VELA_MEMBER(vela_bridge_port, bridge), shown::number, unknown::zero},
    {"pvid", VELA_MEMBER(vela_bridge_port, pvid), shown::number, unknown::ones},
    {"learning", VELA_MEMBER(vela_bridge_port, learning), shown::truth, unknown::ones},
    {"isolated", VELA_MEMBER(vela_bridge_port, isolated), shown::truth, unknown::ones},
};

constexpr vela::json_row fdb_rows[] = {
    {"mac", VELA_MEMBER(vela_fdb_entry, mac), shown::mac, unknown::never},
    {"vlan", VELA_MEMBER(vela_fdb_entry, vlan), shown::number, unknown::zero},
    {"port", VELA_MEMBER(vela_fdb_entry, port), shown::number, unknown::zero},
    {"port_name", VELA_MEMBER(vela_fdb_entry, port_name), shown::text, unknown::zero},
    {"local", VELA_MEMBER(vela_fdb_entry, flags), shown::bit, unknown::never, nullptr, VELA_FDB_LOCAL},
    {"static", VELA_MEMBER(vela_fdb_entry, flags), shown::bit, unknown::never, nullptr, VELA_FDB_STATIC},
    {"offloaded", VELA_MEMBER(vela_fdb_entry, flags), shown::bit, unknown::never, nullptr, VELA_FDB_OFFLOADED},
    {"external", VELA_MEMBER(vela_fdb_entry, flags), shown::bit, unknown::never, nullptr, VELA_FDB_EXTERNAL},
    {"used_s", VELA_MEMBER(vela_fdb_entry, used_s), shown::number, unknown::ones},
    {"updated_s", VELA_MEMBER(vela_fdb_entry, updated_s), shown::number, unknown::ones},
};

constexpr vela::json_row neighbour_rows[] = {
    {"family", VELA_MEMBER(vela_neighbour, family), shown::word, unknown::never, family_word},
    {"address", VELA_MEMBER(vela_neighbour, address), shown::address, unknown::never},
    {"mac", VELA_MEMBER(vela_neighbour, mac), shown::mac, unknown::zero},
    {"index", VELA_MEMBER(vela_neighbour, index), shown::number, unknown::zero},
    {"ifname", VELA_MEMBER(vela_neighbour, ifname), shown::text, unknown::zero},
    {"state", VELA_MEMBER(vela_neighbour, state), shown::word, unknown::never, vela::neighbour_state_word},
    {"router", VELA_MEMBER(vela_neighbour, flags), shown::bit, unknown::never, nullptr, VELA_NEIGHBOUR_ROUTER},
    {"proxy", VELA_MEMBER(vela_neighbour, flags), shown::bit, unknown::never, nullptr, VELA_NEIGHBOUR_PROXY},
    {"confirmed_s", VELA_MEMBER(vela_neighbour, confirmed_s), shown::number, unknown::ones},
    {"used_s", VELA_MEMBER(vela_neighbour, used_s), shown::number, unknown::ones},
};

} // namespace

namespace vela
{

const char *neighbour_state_word(uint32_t state)
{
    switch (state) {
    case NUD_NONE: return "none";
    case NUD_INCOMPLETE: return "incomplete";
    case NUD_REACHABLE: return "reachable";
    case NUD_STALE: return "stale";
    case NUD_DELAY: return "delay";
    case NUD_PROBE: return "probe";
    case NUD_FAILED: return "failed";
    case NUD_NOARP: return "noarp";
    case NUD_PERMANENT: return "permanent";
    default: return nullptr;
    }
}

bool read_bridge_port(const raw_netlink::message &m, vela_bridge_port &out)
{
    ifinfomsg header;
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWLINK || !raw_netlink::split(m, header, rest) || header.ifi_family != AF_BRIDGE) return false;
    out = {};
    out.index = static_cast<uint32_t>(header.ifi_index);
    out.state = out.learning = out.isolated = UINT32_MAX;
    raw_netlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        switch (a->type) {
        case IFLA_IFNAME: copy_text(out.name, a->text()); break;
        case IFLA_MASTER: out.bridge = a->as<uint32_t>().value_or(0); break;
        case IFLA_PROTINFO: read_port_settings(*a, out); break;
        case IFLA_AF_SPEC: out.pvid = pvid_in(*a); break;
        default: break;
        }
    }
    return out.number != 0; // the bridge itself and devices that switch on their own have none
}

bool read_fdb_entry(const raw_netlink::message &m, uint32_t bridge, vela_fdb_entry &out)
{
    ndmsg header;
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWNEIGH || !raw_netlink::split(m, header, rest) || header.ndm_family != AF_BRIDGE) return false;
    // Devices' own lists come along. The bridge's entries are those that name their bridge.
    if ((header.ndm_flags & NTF_SELF) != 0) return false;
    out = {};
    out.port = static_cast<uint32_t>(header.ndm_ifindex);
    out.used_s = out.updated_s = UINT32_MAX;
    if (header.ndm_state & NUD_PERMANENT) out.flags |= VELA_FDB_LOCAL;
    if (header.ndm_state & NUD_NOARP) out.flags |= VELA_FDB_STATIC;
    if (header.ndm_flags & NTF_OFFLOADED) out.flags |= VELA_FDB_OFFLOADED;
    if (header.ndm_flags & NTF_EXT_LEARNED) out.flags |= VELA_FDB_EXTERNAL;
    bool has_mac = false;
    uint32_t master = 0;
    raw_netlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        if (a->type == NDA_LLADDR && a->value.size() == sizeof out.mac) {
            memcpy(out.mac, a->value.data(), sizeof out.mac);
            has_mac = true;
        }
        if (a->type == NDA_VLAN) out.vlan = a->as<uint16_t>().value_or(0);
        if (a->type == NDA_MASTER) master = a->as<uint32_t>().value_or(0);
        if (const auto ages = a->type == NDA_CACHEINFO ? a->beginning<nda_cacheinfo>() : std::nullopt) {
            out.used_s = seconds(ages->ndm_used);
            out.updated_s = seconds(ages->ndm_updated);
        }
    }
    return has_mac && master == bridge;
}

bool read_neighbour(const raw_netlink::message &m, vela_neighbour &out)
{
    ndmsg header;
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWNEIGH || !raw_netlink::split(m, header, rest)) return false;
    if (header.ndm_family != AF_INET && header.ndm_family != AF_INET6) return false;
    const size_t length = header.ndm_family == AF_INET ? 4 : 16;
    out = {};
    out.family = header.ndm_family;
    out.index = static_cast<uint32_t>(header.ndm_ifindex);
    out.state = header.ndm_state;
    out.confirmed_s = out.used_s = UINT32_MAX;
    if (header.ndm_flags & NTF_ROUTER) out.flags |= VELA_NEIGHBOUR_ROUTER;
    if (header.ndm_flags & NTF_PROXY) out.flags |= VELA_NEIGHBOUR_PROXY;
    bool has_address = false;
    raw_netlink::attributes walk{rest};
    while (const auto a = walk.next()) {
        if (a->type == NDA_DST && a->value.size() == length) {
            memcpy(out.address, a->value.data(), length);
            has_address = true;
        }
        if (a->type == NDA_LLADDR && a->value.size() == sizeof out.mac) {
            memcpy(out.mac, a->value.data(), sizeof out.mac);
        }
        if (const auto ages = a->type == NDA_CACHEINFO ? a->beginning<nda_cacheinfo>() : std::nullopt) {
            out.confirmed_s = seconds(ages->ndm_confirmed);
            out.used_s = seconds(ages->ndm_used);
        }
    }
    return has_address && (header.ndm_state & NUD_NOARP) == 0;
}

void ask_neighbours(raw_netlink::channel &kernel, int family, uint32_t index)
{
    ndmsg wanted = {};
    wanted.ndm_family = static_cast<uint8_t>(family);
    raw_netlink::request question{RTM_GETNEIGH, wanted};
    if (index != 0) question.put(NDA_IFINDEX, index);
    kernel.ask(question, raw_netlink::how_much::all);
}

} // namespace vela

int vela_bridge_port_foreach(const char *bridge, vela_bridge_port_callback each, void *arg)
{
    if (!vela::is_interface_name(bridge) || !each) return -EINVAL;
    raw_netlink::channel kernel{NETLINK_ROUTE};
    bridge_link link = {};
    if (const int failed = find_bridge(kernel, bridge, link); failed < 0) return failed;

    ifinfomsg wanted = {};
    wanted.ifi_family = AF_BRIDGE;
    raw_netlink::request question{RTM_GETLINK, wanted};
    question.put(IFLA_EXT_MASK, uint32_t{RTEXT_FILTER_BRVLAN_COMPRESSED});
    kernel.ask(question, raw_netlink::how_much::all);
    const auto read = [&link](const raw_netlink::message &m, vela_bridge_port &port) {
        if (!vela::read_bridge_port(m, port) || port.bridge != link.index) return false;
        if (!link.filters_vlans) port.pvid = UINT32_MAX;
        return true;
    };
    return deliver<vela_bridge_port>(kernel, read, each, arg);
}

int vela_fdb_foreach(const char *bridge, vela_fdb_callback each, void *arg)
{
    if (!vela::is_interface_name(bridge) || !each) return -EINVAL;
    raw_netlink::channel kernel{NETLINK_ROUTE};
    bridge_link link = {};
    vela::link_names ports;
    if (const int failed = find_bridge(kernel, bridge, link); failed < 0) return failed;
    if (const int failed = ports.read(kernel, link.index); failed < 0) return failed;

    ndmsg wanted = {};
    wanted.ndm_family = AF_BRIDGE;
    raw_netlink::request question{RTM_GETNEIGH, wanted};
    question.put(NDA_MASTER, link.index);
    kernel.ask(question, raw_netlink::how_much::all);
    const auto read = [&](const raw_netlink::message &m, vela_fdb_entry &entry) {
        if (!vela::read_fdb_entry(m, link.index, entry)) return false;
        vela::copy_text(entry.port_name, entry.port == link.index ? bridge : ports.of(entry.port));
        return true;
    };
    return deliver<vela_fdb_entry>(kernel, read, each, arg);
}

int vela_fdb_find(const char *bridge, const uint8_t mac[6], uint32_t vlan, vela_fdb_entry *out)
{
    if (!vela::is_interface_name(bridge) || !mac || vlan > 4094 || !out) return -EINVAL;
    raw_netlink::channel kernel{NETLINK_ROUTE};
    const vela::interface_query interfaces;
    const uint32_t index = interfaces.index(bridge);
    if (index == 0) return -ENODEV;

    ndmsg wanted = {};
    wanted.ndm_family = AF_BRIDGE;
    raw_netlink::request question{RTM_GETNEIGH, wanted};
    question.put(NDA_MASTER, index);
    question.put_bytes(NDA_LLADDR, {mac, 6});
    if (vlan != 0) question.put(NDA_VLAN, static_cast<uint16_t>(vlan));
    kernel.ask(question, raw_netlink::how_much::one);
    int result = -ENOENT;
    while (const auto m = kernel.next()) {
        vela_fdb_entry entry;
        if (!vela::read_fdb_entry(*m, index, entry)) continue;
        (void)interfaces.name(entry.port, entry.port_name); // "" for a port that has just vanished
        *out = entry;
        result = 0;
    }
    if (kernel.result() == -EOPNOTSUPP) return find_by_walk(bridge, mac, vlan, *out);
    return kernel.result() < 0 ? kernel.result() : result;
}

int vela_neighbour_foreach(int family, const char *ifname, vela_neighbour_callback each, void *arg)
{
    if (family != 0 && family != AF_INET && family != AF_INET6) return -EINVAL;
    if ((ifname && !vela::is_interface_name(ifname)) || !each) return -EINVAL;
    const uint32_t index = ifname ? vela::interface_query{}.index(ifname) : 0;
    if (ifname && index == 0) return -ENODEV;

    raw_netlink::channel kernel{NETLINK_ROUTE};
    vela::link_names names;
    if (const int failed = ifname ? 0 : names.read(kernel); failed < 0) return failed;
    vela::ask_neighbours(kernel, family, index);
    const auto read = [&](const raw_netlink::message &m, vela_neighbour &n) {
        if (!vela::read_neighbour(m, n)) return false;
        if ((family != 0 && n.family != static_cast<uint32_t>(family)) || (ifname && n.index != index)) return false;
        vela::copy_text(n.ifname, ifname ? ifname : names.of(n.index));
        return true;
    };
    return deliver<vela_neighbour>(kernel, read, each, arg);
}

int vela_neighbour_find(int family, const void *address, const char *ifname, vela_neighbour *out)
{
    if ((family != AF_INET && family != AF_INET6) || !address || !out) return -EINVAL;
    struct search {
        const void *address;
        size_t length;
        vela_neighbour found;
        bool done;
    } wanted = {address, family == AF_INET ? size_t{4} : size_t{16}, {}, false};
    const auto compare = [](const vela_neighbour *n, void *arg) {
        auto &s = *static_cast<search *>(arg);
        s.done = memcmp(n->address, s.address, s.length) == 0;
        if (s.done) s.found = *n;
        return s.done ? 1 : 0;
    };
    int result = vela_neighbour_foreach(family, ifname, compare, &wanted);
    for (int again = 0; again < 3 && result == -EAGAIN && !wanted.done; ++again) {
        result = vela_neighbour_foreach(family, ifname, compare, &wanted);
    }
    if (wanted.done) *out = wanted.found;
    if (wanted.done) return 0;
    return result < 0 && result != -EAGAIN ? result : -ENOENT;
}

json_t *vela_bridge_port_json(const char *bridge)
{
    return vela::list_json<vela_bridge_port>(
        [bridge](auto each, void *arg) { return vela_bridge_port_foreach(bridge, each, arg); },
        [](const vela_bridge_port &port) { return vela::record_json(port_rows, port); });
}

json_t *vela_fdb_json(const char *bridge)
{
    return vela::list_json<vela_fdb_entry>(
        [bridge](auto each, void *arg) { return vela_fdb_foreach(bridge, each, arg); },
        [](const vela_fdb_entry &entry) { return vela::record_json(fdb_rows, entry); });
}

json_t *vela_neighbour_json(int family, const char *ifname)
{
    return vela::list_json<vela_neighbour>(
        [family, ifname](auto each, void *arg) { return vela_neighbour_foreach(family, ifname, each, arg); },
        [](const vela_neighbour &n) { return vela::record_json(neighbour_rows, n, static_cast<int>(n.family)); });
}
