// Two tables of the kernel, addresses and links, joined by the interface's index. What netlink does not carry is asked
// of the driver (speed, duplex) and of sysfs (the radio).

#include <algorithm>
#include <linux/if_addr.h>
#include <vela/core/file.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/record_json.h>
#include <vela/net/internal/interface.h>
#include <vela/net/internal/links.h>
#include <vela/net/netif.h>

// Programs were compiled against these layouts: what is new takes the place of spare numbers.
static_assert(sizeof(vela_netif) == 208 && sizeof(vela_netaddr) == 36);

namespace raw_netlink = vela::raw_netlink;

namespace
{

constexpr const char *log_module = "netif";

constexpr size_t addresses_max = 4096;

/// Asks for the addresses of one interface, or of all (0).
void ask_addresses(raw_netlink::channel &kernel, uint32_t index)
{
    ifaddrmsg wanted = {};
    wanted.ifa_index = index;
    raw_netlink::request question{RTM_GETADDR, wanted};
    kernel.ask(question, raw_netlink::how_much::all);
}

/// The addresses of one interface or of all, held to be joined with links.
class address_list
{
public:
    /// 0, or a negative errno; -EAGAIN when they changed meanwhile.
    int read(raw_netlink::channel &kernel, uint32_t index)
    {
        ask_addresses(kernel, index);
        int failed = 0;
        while (const auto m = kernel.next()) {
            held one = {{}, static_cast<uint32_t>(held_.items().size())};
            if (failed == 0 && vela::read_address(*m, one.address)) failed = held_.add(one);
        }
        cut_ = failed == -ENOSPC;
        if (cut_) log_warn("more than %zu addresses: the rest is left out", addresses_max);
        // By interface, in the kernel's order.
        std::sort(held_.items().begin(), held_.items().end(), [](const held &a, const held &b) {
            return a.address.index != b.address.index ? a.address.index < b.address.index : a.position < b.position;
        });
        return failed == -ENOMEM ? failed : kernel.result();
    }
    [[nodiscard]] bool cut() const { return cut_; } ///< there were more than are held

    struct held {
        vela_netaddr address;
        uint32_t position;
    };
    [[nodiscard]] std::span<const held> of(uint32_t index) const
    {
        const auto all = held_.items();
        const auto first = std::lower_bound(all.begin(), all.end(), index,
                                            [](const held &h, uint32_t wanted) { return h.address.index < wanted; });
        const auto last = std::find_if(first, all.end(), [=](const held &h) { return h.address.index != index; });
        return {first, last};
    }

private:
    vela::growing_list<held> held_{addresses_max};
    bool cut_ = false;
};

/// One look at the tables.
struct look {
    raw_netlink::channel kernel{NETLINK_ROUTE};
    vela::interface_query interfaces;
    address_list addresses;
};

/// What netlink does not tell.
void complete(vela_netif &n, look &at)
{
    n.address_count = static_cast<uint32_t>(at.addresses.of(n.index).size());
    if (n.carrier == 1) {
        const auto mode = at.interfaces.link_mode(n.name);
        n.speed_mbps = mode.speed_mbps;
        n.duplex = mode.duplex;
    }
    if (*n.kind != '\0') return; // not hardware, hence no radio
    const vela::formatted<64> path{"/sys/class/net/%s/phy80211/index", n.name};
    n.wiphy = static_cast<uint32_t>(freadulong(path.c_str(), UINT32_MAX));
}

/// Walks one interface, or all where `ifname` is null, until `each(netif)` is true. How many there were, or a negative
/// errno.
template <class Each> int walk(look &at, const char *ifname, Each each)
{
    const uint32_t index = ifname ? at.interfaces.index(ifname) : 0;
    if (ifname && index == 0) return -ENODEV;
    const int joined = at.addresses.read(at.kernel, index);
    if (joined < 0 && joined != -EAGAIN) return joined;

    ifinfomsg wanted = {};
    wanted.ifi_index = static_cast<int>(index);
    raw_netlink::request question{RTM_GETLINK, wanted};
    question.put(IFLA_EXT_MASK, uint32_t{RTEXT_FILTER_SKIP_STATS}); // those of IPv6; the link's own come nevertheless
    at.kernel.ask(question, ifname ? raw_netlink::how_much::one : raw_netlink::how_much::all);
    int count = 0;
    while (const auto m = at.kernel.next()) {
        vela_netif n;
        if (!vela::read_link(*m, n)) continue;
        complete(n, at);
        ++count;
        if (each(n)) return count;
    }
    if (at.kernel.result() < 0) return at.kernel.result();
    if (ifname && count == 0) return -ENODEV;
    return joined < 0 ? joined : count;
}

const char *operstate_word(uint32_t state)
{
    constexpr const char *words[] = {"unknown", "not_present", "down", "lower_layer_down", "testing", "dormant", "up"};
    return state < std::size(words) ? words[state] : nullptr;
}

const char *duplex_word(uint32_t duplex) { return duplex == 0 ? "half" : "full"; }

const char *scope_word(uint32_t scope)
{
    switch (scope) {
    case RT_SCOPE_UNIVERSE: return "global";
    case RT_SCOPE_SITE: return "site";
    case RT_SCOPE_LINK: return "link";
    case RT_SCOPE_HOST: return "host";
    case RT_SCOPE_NOWHERE: return "nowhere";
    default: return nullptr;
    }
}

using vela::shown;
using vela::unknown;

constexpr vela::json_row netif_rows[] = {
    {"name", VELA_MEMBER(vela_netif, name), shown::text, unknown::zero},
    {"index", VELA_MEMBER(vela_netif, index), shown::number, unknown::zero},
    {"kind", VELA_MEMBER(vela_netif, kind), shown::text, unknown::zero},
    {"up", VELA_MEMBER(vela_netif, flags), shown::bit, unknown::never, nullptr, IFF_UP},
    {"carrier", VELA_MEMBER(vela_netif, carrier), shown::truth, unknown::ones},
    {"operstate", VELA_MEMBER(vela_netif, operstate), shown::word, unknown::never, operstate_word},
    {"mtu", VELA_MEMBER(vela_netif, mtu), shown::number, unknown::ones},
    {"mac", VELA_MEMBER(vela_netif, mac), shown::mac, unknown::zero},
    {"permanent_mac", VELA_MEMBER(vela_netif, permanent_mac), shown::mac, unknown::zero},
    {"speed_mbps", VELA_MEMBER(vela_netif, speed_mbps), shown::number, unknown::ones},
    {"duplex", VELA_MEMBER(vela_netif, duplex), shown::word, unknown::ones, duplex_word},
    {"vlan", VELA_MEMBER(vela_netif, vlan_id), shown::number, unknown::ones},
    {"radio", VELA_MEMBER(vela_netif, wiphy), shown::number, unknown::ones},
};

constexpr vela::json_row counter_rows[] = {
    {"rx_bytes", VELA_MEMBER(vela_netif, rx_bytes), shown::number, unknown::ones},
    {"tx_bytes", VELA_MEMBER(vela_netif, tx_bytes), shown::number, unknown::ones},
    {"rx_packets", VELA_MEMBER(vela_netif, rx_packets), shown::number, unknown::ones},
    {"tx_packets", VELA_MEMBER(vela_netif, tx_packets), shown::number, unknown::ones},
    {"rx_errors", VELA_MEMBER(vela_netif, rx_errors), shown::number, unknown::ones},
    {"tx_errors", VELA_MEMBER(vela_netif, tx_errors), shown::number, unknown::ones},
    {"rx_dropped", VELA_MEMBER(vela_netif, rx_dropped), shown::number, unknown::ones},
    {"tx_dropped", VELA_MEMBER(vela_netif, tx_dropped), shown::number, unknown::ones},
    {"multicast", VELA_MEMBER(vela_netif, multicast), shown::number, unknown::ones},
};

constexpr vela::json_row address_rows[] = {
    {"address", VELA_MEMBER(vela_netaddr, address), shown::address, unknown::never},
    {"prefix", VELA_MEMBER(vela_netaddr, prefix), shown::number, unknown::never},
    {"scope", VELA_MEMBER(vela_netaddr, scope), shown::word, unknown::never, scope_word},
    {"valid_s", VELA_MEMBER(vela_netaddr, valid_s), shown::number, unknown::ones},
};

vela::json_ref addresses_json(std::span<const address_list::held> addresses)
{
    vela::json_ref array{json_array()};
    for (const auto &[address, position] : addresses) {
        vela::json_ref object = vela::record_json(address_rows, address, address.family);
        json_object_set_new(object.get(), "dynamic", json_boolean((address.flags & IFA_F_PERMANENT) == 0));
        if (json_array_append_new(array.get(), object.release()) != 0) return {};
    }
    return array;
}

bool put_name(json_t *object, const char *key, uint32_t index, const look &at)
{
    char name[IF_NAMESIZE];
    if (index == 0 || !at.interfaces.name(index, name)) return true; // none, or it has just vanished
    return json_object_set_new(object, key, vela::text_json(name).release()) == 0;
}

/// Null when memory is short.
vela::json_ref netif_json(vela_netif n, const look &at)
{
    if (memcmp(n.permanent_mac, n.mac, sizeof n.mac) == 0) memset(n.permanent_mac, 0, sizeof n.permanent_mac);
    vela::json_ref object = vela::record_json(netif_rows, n);
    if (!put_name(object.get(), "master", n.master, at) || !put_name(object.get(), "lower", n.lower, at)) return {};
    auto addresses = addresses_json(at.addresses.of(n.index));
    if (json_object_set_new(object.get(), "addresses", addresses.release()) != 0) return {};
    auto counters = vela::record_json(counter_rows, n);
    if (json_object_set_new(object.get(), "counters", counters.release()) != 0) return {};
    return object;
}

} // namespace

int vela_netif_get(const char *ifname, vela_netif *out)
{
    if (!vela::is_interface_name(ifname) || !out) return -EINVAL;
    look at;
    vela_netif found;
    const int result = walk(at, ifname, [&found](const vela_netif &n) {
        found = n;
        return true;
    });
    if (result < 0) return result;
    *out = found;
    return 0;
}

int vela_netif_foreach(vela_netif_callback each, void *arg)
{
    if (!each) return -EINVAL;
    look at;
    return walk(at, nullptr, [each, arg](const vela_netif &n) { return each(&n, arg) != 0; });
}

int vela_netaddr_foreach(const char *ifname, vela_netaddr_callback each, void *arg)
{
    if (!each || (ifname && !vela::is_interface_name(ifname))) return -EINVAL;
    const uint32_t index = ifname ? vela::interface_query{}.index(ifname) : 0;
    if (ifname && index == 0) return -ENODEV;
    raw_netlink::channel kernel{NETLINK_ROUTE};
    ask_addresses(kernel, index);
    int count = 0;
    while (const auto m = kernel.next()) {
        vela_netaddr address;
        if (!vela::read_address(*m, address) || (index != 0 && address.index != index)) continue;
        ++count;
        if (each(&address, arg) != 0) return count;
    }
    return kernel.result() < 0 ? kernel.result() : count;
}

json_t *vela_netif_json(const char *ifname)
{
    if (ifname && !vela::is_interface_name(ifname)) {
        errno = EINVAL;
        return nullptr;
    }
    return vela::gathered_json([ifname](vela::json_ref &result) {
        look at;
        bool no_memory = false;
        result.reset(ifname ? nullptr : json_array());
        const int status = walk(at, ifname, [&](const vela_netif &n) {
            vela::json_ref object = netif_json(n, at);
            if (!ifname) no_memory = json_array_append_new(result.get(), object.release()) != 0;
            if (ifname) result = std::move(object);
            return no_memory;
        });
        if (no_memory || !result) return status < 0 ? status : -ENOMEM;
        return status >= 0 && at.addresses.cut() ? -ENOSPC : status;
    });
}
