// Rules of stations: the filters of both directions taken together, and the changes that make them what is wanted.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <linux/pkt_sched.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/netlink.h>
#include <vela/core/internal/record_json.h>
#include <vela/wireless/internal/qos_filter.h>
#include <vela/wireless/qos.h>

static_assert(sizeof(vela_qos_rule) == 56);

namespace
{

using namespace vela::qos;
using vela::shown;
using vela::unknown;
using vela::raw_netlink::channel;
using vela::raw_netlink::how_much;
using vela::raw_netlink::request;

constexpr const char *log_module = "qos";

constexpr uint32_t least_kbps = 64;
constexpr uint32_t most_kbps = 4'000'000;
constexpr int32_t no_priority = -1;
constexpr int32_t most_priority = 7;
constexpr direction both[] = {direction::to_station, direction::from_station};

/// Whether this process was told what its kernel lacks.
constinit std::atomic_flag told_of_modules;

constexpr vela::json_row rows[] = {
    {"mac", VELA_MEMBER(vela_qos_rule, mac), shown::mac, unknown::never},
    {"priority", VELA_MEMBER(vela_qos_rule, priority), shown::number, unknown::ones},
    {"to_station_kbps", VELA_MEMBER(vela_qos_rule, to_station_kbps), shown::number, unknown::zero},
    {"from_station_kbps", VELA_MEMBER(vela_qos_rule, from_station_kbps), shown::number, unknown::zero},
    {"to_bytes", VELA_MEMBER(vela_qos_rule, to_bytes), shown::number, unknown::ones},
    {"to_drops", VELA_MEMBER(vela_qos_rule, to_drops), shown::number, unknown::ones},
    {"from_bytes", VELA_MEMBER(vela_qos_rule, from_bytes), shown::number, unknown::ones},
    {"from_drops", VELA_MEMBER(vela_qos_rule, from_drops), shown::number, unknown::ones},
};

bool may_be_station(const uint8_t *mac)
{
    constexpr uint8_t group_bit = 1;
    return !(mac[0] & group_bit) && std::any_of(mac, mac + 6, [](uint8_t byte) { return byte != 0; });
}

bool may_be_limit(uint32_t kbps) { return kbps == 0 || (kbps >= least_kbps && kbps <= most_kbps); }

bool may_be(const vela_qos_rule &rule)
{
    return may_be_station(rule.mac) && may_be_limit(rule.to_station_kbps) && may_be_limit(rule.from_station_kbps) &&
           rule.priority >= no_priority && rule.priority <= most_priority;
}

/// What a rule asks of each direction. Only what is sent to a station has a priority of ours.
treatment wanted_of(const vela_qos_rule &rule, direction d)
{
    if (d == direction::to_station) return {rule.priority, rule.to_station_kbps};
    return {no_priority, rule.from_station_kbps};
}

/// What there is for one station: a filter in each direction, or one whose handle is 0.
struct entry {
    uint8_t mac[6];
    filter of[2];

    [[nodiscard]] const filter &in(direction d) const { return of[static_cast<size_t>(d)]; }
};

/// An interface's rules, in one block.
class rule_table
{
public:
    rule_table() : entries_{static_cast<entry *>(malloc(VELA_QOS_RULES_MAX * sizeof(entry)))} {}
    [[nodiscard]] bool ok() const { return entries_ != nullptr; }
    [[nodiscard]] std::span<const entry> rules() const { return {entries_.get(), count_}; }
    [[nodiscard]] bool full() const { return count_ == VELA_QOS_RULES_MAX; }
    [[nodiscard]] bool left_some_out() const { return left_out_; }
    [[nodiscard]] entry *find(const uint8_t *mac) const
    {
        const std::span all{entries_.get(), count_};
        const auto found = std::ranges::find_if(all, [=](auto &e) { return memcmp(e.mac, mac, sizeof e.mac) == 0; });
        return found == all.end() ? nullptr : &*found;
    }
    void clear()
    {
        count_ = 0;
        left_out_ = false;
    }
    void add(direction d, const filter &f)
    {
        entry *e = find(f.mac);
        left_out_ = left_out_ || (!e && full());
        if (!e && full()) return;
        if (!e) {
            e = &entries_.get()[count_++];
            *e = {};
            memcpy(e->mac, f.mac, sizeof e->mac);
        }
        e->of[static_cast<size_t>(d)] = f;
    }

private:
    vela::heap<entry> entries_;
    size_t count_ = 0;
    bool left_out_ = false;
};

/// An interface's traffic control.
class control
{
public:
    explicit control(unsigned ifindex) : ifindex_{ifindex} {}

    /// Reads all rules, again when they change meanwhile. 0, or a negative errno.
    int read(rule_table &table)
    {
        if (!table.ok()) return -ENOMEM;
        int result = -EAGAIN;
        for (int tries = 3; tries > 0 && result == -EAGAIN; --tries) {
            table.clear();
            for (const direction d : both) {
                result = read(d, table);
                if (result != 0) break;
            }
        }
        return result;
    }

    /// Makes the filter of an address what is wanted.
    int change(direction d, const uint8_t *mac, const filter &found, const treatment &wanted)
    {
        const bool is_there = found.handle != 0;
        if (wanted.is_nothing()) return is_there ? remove(d, found.handle) : 0;
        if (is_there && found.as_made && found.does == wanted) return 0;
        const int queue = is_there ? 0 : make_queue();
        if (queue != 0) return queue;
        request made = make_request(ifindex_, d, mac, wanted, found.handle);
        return needing("NET_CLS_FLOWER, NET_ACT_POLICE or NET_ACT_SKBEDIT",
                       kernel_.acknowledge(made, NLM_F_CREATE | (is_there ? NLM_F_REPLACE : NLM_F_EXCL)));
    }

    /// Removes a filter; a handle of 0 stands for all of ours.
    int remove(direction d, uint32_t handle)
    {
        request gone{RTM_DELTFILTER, address_of(ifindex_, d, handle)};
        gone.put_text(TCA_KIND, "flower");
        const int result = kernel_.acknowledge(gone);
        return result == -ENOENT ? 0 : result;
    }

private:
    int read(direction d, rule_table &table)
    {
        request question{RTM_GETTFILTER, address_of(ifindex_, d)};
        kernel_.ask(question, how_much::all);
        while (const auto m = kernel_.next()) {
            if (const auto f = read_filter(*m, ifindex_, d)) table.add(d, *f);
        }
        return kernel_.result();
    }

    [[nodiscard]] tcmsg queue() const
    {
        tcmsg queue = {};
        queue.tcm_ifindex = static_cast<int>(ifindex_);
        queue.tcm_handle = TC_H_MAKE(TC_H_CLSACT, 0);
        queue.tcm_parent = TC_H_CLSACT;
        return queue;
    }

    int make_queue()
    {
        request made{RTM_NEWQDISC, queue()};
        made.put_text(TCA_KIND, "clsact");
        const int result = kernel_.acknowledge(made, NLM_F_CREATE | NLM_F_EXCL);
        if (result != -EEXIST) return needing("NET_SCH_INGRESS", result);
        return has_clsact() ? 0 : -EBUSY;
    }

    /// False when the older kind, "ingress", stands in its place: it takes the filters of both directions for its own.
    bool has_clsact()
    {
        request same{RTM_GETQDISC, queue()};
        same.put_text(TCA_KIND, "clsact"); // the kernel refuses to tell of one of another kind
        return kernel_.acknowledge(same) == 0;
    }

    /// The kernel calls what it was built without "not found".
    int needing(const char *modules, int result)
    {
        if (result != -ENOENT) return result;
        if (!told_of_modules.test_and_set()) {
            log_warn_as("vela_qos_set", "this kernel lacks %s: %s", modules, kernel_.reason());
        }
        return -EOPNOTSUPP;
    }

    unsigned ifindex_;
    channel kernel_{NETLINK_ROUTE};
};

/// The filters of one address; empty ones where it has no rule.
entry filters_of(const rule_table &table, const uint8_t *mac)
{
    const entry *found = table.find(mac);
    return found ? *found : entry{};
}

/// Puts one direction back to what it was, as well as that can be done.
void put_back(control &c, rule_table &table, direction d, const uint8_t *mac, const treatment &before)
{
    if (c.read(table) == 0) (void)c.change(d, mac, filters_of(table, mac).in(d), before);
}

int set(control &c, rule_table &table, const vela_qos_rule &rule)
{
    if (const int result = c.read(table); result != 0) return result;
    const bool clears = std::ranges::all_of(both, [&](direction d) { return wanted_of(rule, d).is_nothing(); });
    if (!table.find(rule.mac)) {
        if (clears) return 0;
        if (table.full()) return -ENOSPC;
    }
    const entry before = filters_of(table, rule.mac);

    constexpr direction first = direction::to_station, second = direction::from_station;
    if (const int result = c.change(first, rule.mac, before.in(first), wanted_of(rule, first)); result != 0) {
        return result;
    }
    const int result = c.change(second, rule.mac, before.in(second), wanted_of(rule, second));
    if (result != 0) put_back(c, table, first, rule.mac, before.in(first).does);
    return result;
}

int clear(control &c, rule_table &table, const uint8_t *mac)
{
    if (const int result = c.read(table); result != 0) return result;
    const entry one = mac ? filters_of(table, mac) : entry{};
    for (const direction d : both) {
        const auto is_there = [d](const entry &e) { return e.in(d).handle != 0; };
        if (!(mac ? is_there(one) : std::ranges::any_of(table.rules(), is_there))) continue;
        if (const int result = c.remove(d, one.in(d).handle); result != 0) return result;
    }
    return 0;
}

vela_qos_rule rule_of(const entry &e)
{
    const filter &to = e.in(direction::to_station), &from = e.in(direction::from_station);
    vela_qos_rule rule = {.priority = to.does.priority,
                          .to_station_kbps = to.does.kbps,
                          .from_station_kbps = from.does.kbps,
                          .to_bytes = to.bytes,
                          .to_drops = to.drops,
                          .from_bytes = from.bytes,
                          .from_drops = from.drops};
    memcpy(rule.mac, e.mac, sizeof rule.mac);
    return rule;
}

} // namespace

int vela_qos_set(const char *ifname, const vela_qos_rule *rule)
{
    if (!ifname || !rule || !may_be(*rule)) return -EINVAL;
    const unsigned ifindex = vela::netlink::interface_index(ifname);
    if (ifindex == 0) return -ENODEV;
    control c{ifindex};
    rule_table table;
    return set(c, table, *rule);
}

int vela_qos_clear(const char *ifname, const uint8_t *mac)
{
    if (!ifname || (mac && !may_be_station(mac))) return -EINVAL;
    const unsigned ifindex = vela::netlink::interface_index(ifname);
    if (ifindex == 0) return -ENODEV;
    control c{ifindex};
    rule_table table;
    return clear(c, table, mac);
}

int vela_qos_foreach(const char *ifname, vela_qos_callback each, void *arg)
{
    if (!ifname || !each) return -EINVAL;
    const unsigned ifindex = vela::netlink::interface_index(ifname);
    if (ifindex == 0) return -ENODEV;
    control c{ifindex};
    rule_table table;
    if (const int result = c.read(table); result != 0) return result;
    if (table.left_some_out()) log_warn("%s: more than %d rules", ifname, VELA_QOS_RULES_MAX);
    int count = 0;
    for (const entry &e : table.rules()) {
        const vela_qos_rule rule = rule_of(e);
        ++count;
        if (each(&rule, arg) != 0) break;
    }
    return count;
}

json_t *vela_qos_json(const char *ifname)
{
    return vela::list_json<vela_qos_rule>([=](auto each, void *arg) { return vela_qos_foreach(ifname, each, arg); },
                                          [](const vela_qos_rule &rule) { return vela::record_json(rows, rule); });
}
