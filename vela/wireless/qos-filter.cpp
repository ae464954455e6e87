// A flower filter that takes one address, marks its packets with a priority and polices them. Conforming packets get
// TC_ACT_UNSPEC rather than "ok", so that other filters still see them.

#include <algorithm>
#include <array>
#include <linux/gen_stats.h>
#include <linux/if_ether.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/tc_act/tc_skbedit.h>
#include <vela/settings.h>
#include <vela/wireless/internal/qos_filter.h>

namespace vela::qos
{
namespace
{

using raw_netlink::attribute;
using raw_netlink::attributes;
using raw_netlink::request;

constexpr size_t mac_size = 6;
constexpr std::array<uint8_t, mac_size> whole_address = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

constexpr uint32_t bytes_per_kbit = 1000 / 8;
constexpr uint32_t least_burst = 128 * 1024;
constexpr uint32_t burst_per_second = 5;   // 200 ms of the rate
constexpr uint32_t tick_ns = 64;           // of the packet scheduler, on every machine
constexpr uint32_t longest_packet = 65535; // told, for older kernels drop merged packets beyond 255 << cell_log
constexpr uint8_t cell_log = 3;

// mac80211 takes 256 to 263 as the user priorities 0 to 7.
constexpr uint32_t user_priority_0 = 256;
constexpr int32_t user_priority_max = 7;

struct match {
    uint16_t address, mask;
};
constexpr match match_of(direction d)
{
    return d == direction::to_station ? match{TCA_FLOWER_KEY_ETH_DST, TCA_FLOWER_KEY_ETH_DST_MASK}
                                      : match{TCA_FLOWER_KEY_ETH_SRC, TCA_FLOWER_KEY_ETH_SRC_MASK};
}

/// The burst of a limit as the time that it takes at its rate, in ticks.
uint32_t burst_ticks(uint32_t bytes_per_s)
{
    const uint64_t burst = std::max(bytes_per_s / burst_per_second, least_burst);
    return static_cast<uint32_t>(burst * 1'000'000'000 / bytes_per_s / tick_ns);
}

tc_police limit_of(uint32_t kbps)
{
    tc_police limit = {};
    limit.action = TC_ACT_SHOT;
    limit.rate.rate = kbps * bytes_per_kbit;
    limit.rate.linklayer = TC_LINKLAYER_ETHERNET;
    limit.rate.cell_log = cell_log;
    limit.burst = burst_ticks(limit.rate.rate);
    limit.mtu = longest_packet;
    return limit;
}

void put_priority(request &r, int32_t priority, bool last)
{
    r.put_text(TCA_ACT_KIND, "skbedit");
    const request::list options{r, TCA_ACT_OPTIONS};
    tc_skbedit parameters = {};
    parameters.action = last ? TC_ACT_UNSPEC : TC_ACT_PIPE;
    r.put(TCA_SKBEDIT_PARMS, parameters);
    r.put(TCA_SKBEDIT_PRIORITY, user_priority_0 + static_cast<uint32_t>(priority));
}

void put_limit(request &r, uint32_t kbps)
{
    r.put_text(TCA_ACT_KIND, "police");
    const request::list options{r, TCA_ACT_OPTIONS};
    r.put(TCA_POLICE_TBF, limit_of(kbps));
    r.put(TCA_POLICE_RATE, std::array<uint8_t, TC_RTAB_SIZE>{}); // demanded, and not looked at
    r.put(TCA_POLICE_RESULT, static_cast<uint32_t>(TC_ACT_UNSPEC));
}

void put_flower(request &r, direction d, const uint8_t *mac, const treatment &does)
{
    const request::list options{r, TCA_OPTIONS};
    r.put_bytes(match_of(d).address, {mac, mac_size});
    r.put_bytes(match_of(d).mask, whole_address);
    const request::list actions{r, TCA_FLOWER_ACT};
    uint16_t place = 0;
    if (does.priority >= 0) {
        const request::list action{r, ++place};
        put_priority(r, does.priority, does.kbps == 0);
    }
    if (does.kbps != 0) {
        const request::list action{r, ++place};
        put_limit(r, does.kbps);
    }
}

void read_action_options(const attribute &outer, bool is_limit, filter &f)
{
    auto walk = attributes::inside(outer);
    while (const auto a = walk.next()) {
        if (!is_limit) {
            const uint32_t priority = a->as<uint32_t>().value_or(0) - user_priority_0;
            if (a->type == TCA_SKBEDIT_PRIORITY && priority <= user_priority_max) {
                f.does.priority = static_cast<int32_t>(priority);
            }
            continue;
        }
        if (a->type == TCA_POLICE_RESULT) f.as_made &= a->as<int32_t>() == TC_ACT_UNSPEC;
        const auto limit = a->type == TCA_POLICE_TBF ? a->beginning<tc_police>() : std::nullopt;
        if (!limit) continue;
        f.does.kbps = limit->rate.rate / bytes_per_kbit;
        if (f.does.kbps == 0) f.as_made = false;
        const tc_police wanted = limit_of(std::max(f.does.kbps, 1U));
        f.as_made &= limit->rate.rate == wanted.rate.rate && limit->burst == wanted.burst &&
                     limit->action == wanted.action && limit->mtu == wanted.mtu;
    }
}

void read_statistics(const attribute &outer, filter &f)
{
    auto walk = attributes::inside(outer);
    while (const auto a = walk.next()) {
        if (a->type == TCA_STATS_BASIC && a->beginning<uint64_t>()) f.bytes = *a->beginning<uint64_t>();
        const auto queue = a->type == TCA_STATS_QUEUE ? a->beginning<gnet_stats_queue>() : std::nullopt;
        if (queue) f.drops = queue->drops;
    }
}

/// The last action's counters stand for the filter: they are those of its limit, where it has one.
void read_action(const attribute &outer, filter &f)
{
    bool is_limit = false;
    auto walk = attributes::inside(outer); // the kind comes first
    while (const auto a = walk.next()) {
        if (a->type == TCA_ACT_KIND) is_limit = a->text() == "police";
        if (a->type == TCA_ACT_OPTIONS) read_action_options(*a, is_limit, f);
        if (a->type == TCA_ACT_STATS) read_statistics(*a, f);
    }
}

/// Whether the filter takes one whole address in this direction.
bool read_flower(const attribute &outer, direction d, filter &f)
{
    bool has_address = false, has_mask = false;
    auto walk = attributes::inside(outer);
    while (const auto a = walk.next()) {
        if (a->type == match_of(d).address && a->value.size() == mac_size) {
            std::ranges::copy(a->value, f.mac);
            has_address = true;
        }
        if (a->type == match_of(d).mask) has_mask = std::ranges::equal(a->value, whole_address);
        if (a->type != TCA_FLOWER_ACT) continue;
        auto actions = attributes::inside(*a);
        while (const auto action = actions.next()) read_action(*action, f);
    }
    return has_address && has_mask;
}

} // namespace

tcmsg address_of(unsigned ifindex, direction d, uint32_t handle)
{
    tcmsg address = {};
    address.tcm_ifindex = static_cast<int>(ifindex);
    address.tcm_handle = handle;
    address.tcm_parent = TC_H_MAKE(TC_H_CLSACT, d == direction::to_station ? TC_H_MIN_EGRESS : TC_H_MIN_INGRESS);
    address.tcm_info = TC_H_MAKE(uint32_t{settings::qos_preference} << 16, htons(ETH_P_ALL));
    return address;
}

request make_request(unsigned ifindex, direction d, const uint8_t *mac, const treatment &does, uint32_t handle)
{
    request r{RTM_NEWTFILTER, address_of(ifindex, d, handle)};
    r.put_text(TCA_KIND, "flower");
    put_flower(r, d, mac, does);
    return r;
}

std::optional<filter> read_filter(const raw_netlink::message &m, unsigned ifindex, direction d)
{
    tcmsg address;
    std::span<const uint8_t> rest;
    if (m.type != RTM_NEWTFILTER || !raw_netlink::split(m, address, rest)) return std::nullopt;
    const tcmsg ours = address_of(ifindex, d);
    if (address.tcm_ifindex != ours.tcm_ifindex || address.tcm_parent != ours.tcm_parent) return std::nullopt;
    if (address.tcm_info != ours.tcm_info || address.tcm_handle == 0) return std::nullopt; // 0: the list's own line

    filter f = {.mac = {}, .handle = address.tcm_handle, .does = {}};
    bool is_flower = false, is_rule = false;
    attributes walk{rest};
    while (const auto a = walk.next()) {
        if (a->type == TCA_KIND) is_flower = a->text() == "flower";
        if (a->type == TCA_OPTIONS && is_flower) is_rule = read_flower(*a, d, f);
    }
    return is_rule ? std::optional{f} : std::nullopt;
}

} // namespace vela::qos
