// One poll gathers interfaces, radios, neighbours, surveys and stations; the report joins it with the poll before.
// Stations are sorted by interface and address, so that both joins are merges.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <linux/genetlink.h>
#include <linux/neighbour.h>
#include <linux/nl80211.h>
#include <new>
#include <vela/core/internal/growing.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/raw_netlink.h>
#include <vela/core/internal/record_json.h>
#include <vela/core/internal/wait.h>
#include <vela/net/bridge.h>
#include <vela/services/wlan_report.h>
#include <vela/wireless/survey.h>
#include <vela/wireless/wlan.h>

namespace
{

using vela::growing_list;
using vela::json_ref;
using vela::put_json;
using vela::shown;
using vela::unknown;

constexpr const char *log_module = "station";

constexpr uint32_t absent = UINT32_MAX;
constexpr size_t networks_max = 64;
constexpr size_t radios_max = 16;
constexpr size_t addresses_max = 16384;
constexpr int tries_max = 3;

struct network {
    vela_wlan wlan;
    uint32_t stations = 0;
    uint32_t scored = 0;
    uint64_t scores = 0;
};

struct radio {
    uint32_t wiphy = absent;
    char name[33] = "";
    uint32_t mhz = absent;
    uint32_t width_mhz = absent;
    int32_t power_mbm = INT32_MIN;
    uint32_t stations = 0;
    vela_survey survey = {.freq_mhz = absent};
    vela_airtime air = {absent, absent, absent, absent, INT32_MIN};
};

constexpr vela::json_row radio_rows[] = {
    {"radio", VELA_MEMBER(radio, name), shown::text, unknown::zero},
    {"wiphy", VELA_MEMBER(radio, wiphy), shown::number, unknown::ones},
    {"mhz", VELA_MEMBER(radio, mhz), shown::number, unknown::ones},
    {"width_mhz", VELA_MEMBER(radio, width_mhz), shown::number, unknown::ones},
    {"power_mbm", VELA_MEMBER(radio, power_mbm), shown::number, unknown::lowest},
    {"stations", VELA_MEMBER(radio, stations), shown::number, unknown::never},
};
constexpr vela::json_row air_rows[] = {
    {"noise_dbm", VELA_MEMBER(vela_airtime, noise_dbm), shown::number, unknown::lowest},
    {"busy_permille", VELA_MEMBER(vela_airtime, busy_permille), shown::number, unknown::ones},
    {"own_permille", VELA_MEMBER(vela_airtime, own_permille), shown::number, unknown::ones},
};

/// Where a hardware address was seen to have an IP address.
struct address {
    uint8_t mac[6]; // zeros: not known
    bool failed;
    uint8_t family;
    uint8_t ip[16];
};

auto by_ip(const address &a, const address &b)
{
    if (a.family != b.family) return a.family < b.family;
    return memcmp(a.ip, b.ip, sizeof a.ip) < 0;
}
bool by_mac(const address &a, const address &b) { return memcmp(a.mac, b.mac, sizeof a.mac) < 0; }

int compare(const vela_sta_info &a, const vela_sta_info &b)
{
    if (a.index != b.index) return a.index < b.index ? -1 : 1;
    return memcmp(a.mac, b.mac, sizeof a.mac);
}

/// All that one poll learned.
struct snapshot {
    explicit snapshot(size_t max_stations) : stations{max_stations}, addresses{addresses_max} {}

    int64_t at_ns = 0; // 0: there was none
    bool partial = false;
    growing_list<vela_sta_info> stations;
    growing_list<address> addresses;
    std::array<network, networks_max> networks;
    size_t network_count = 0;
    std::array<radio, radios_max> radios;
    size_t radio_count = 0;

    [[nodiscard]] radio *radio_of(uint32_t wiphy)
    {
        for (radio &r : std::span{radios}.first(radio_count)) {
            if (r.wiphy == wiphy) return &r;
        }
        if (wiphy == absent || radio_count == radios_max) return nullptr;
        radio &added = radios[radio_count++];
        added = {};
        added.wiphy = wiphy;
        return &added;
    }
};

bool serves_stations(const vela_wlan &wlan)
{
    switch (wlan.mode) {
    case NL80211_IFTYPE_AP:
    case NL80211_IFTYPE_AP_VLAN:
    case NL80211_IFTYPE_P2P_GO:
    case NL80211_IFTYPE_MESH_POINT: return true;
    default: return false;
    }
}

/// Repeats a walk over a table that changes meanwhile; `reset` forgets what came. Marks the snapshot when it never
/// held.
template <class Reset, class Walk> int settled(snapshot &s, Reset reset, Walk walk)
{
    int result = -EAGAIN;
    for (int tries = 0; tries < tries_max && result == -EAGAIN; ++tries) {
        reset();
        result = walk();
    }
    if (result != -EAGAIN) return result;
    s.partial = true;
    return 0;
}

int add_network(const vela_wlan *wlan, void *arg)
{
    auto &s = *static_cast<snapshot *>(arg);
    if (wlan->index == 0 || (wlan->ssid_len == 0 && !serves_stations(*wlan))) return 0;
    if (s.network_count == networks_max) {
        s.partial = true;
        return 1;
    }
    s.networks[s.network_count++] = {*wlan};
    return 0;
}

/// A failed neighbour has lost its hardware address in the kernel's table; the poll before may have it.
int add_address(const vela_neighbour *neighbour, void *arg)
{
    auto &s = *static_cast<snapshot *>(arg);
    address a = {};
    a.failed = neighbour->state == NUD_FAILED;
    a.family = static_cast<uint8_t>(neighbour->family);
    memcpy(a.mac, neighbour->mac, sizeof a.mac);
    memcpy(a.ip, neighbour->address, sizeof a.ip);
    if (s.addresses.add(a) == 0) return 0;
    s.partial = true;
    return 1;
}

struct station_walk {
    snapshot &s;
    bool full = false;
    bool no_memory = false;
};

int add_station(const vela_sta_info *info, void *arg)
{
    auto &walk = *static_cast<station_walk *>(arg);
    const int added = walk.s.stations.add(*info);
    walk.full = added == -ENOSPC;
    walk.no_memory = added == -ENOMEM;
    return added;
}

int take_survey(const vela_survey *survey, void *arg)
{
    auto &r = *static_cast<radio *>(arg);
    if (survey->freq_mhz == r.mhz) r.survey = *survey;
    return 0;
}

void take_name(snapshot &s, std::span<const uint8_t> attributes)
{
    uint32_t wiphy = absent;
    std::string_view name;
    vela::raw_netlink::attributes walk{attributes};
    while (const auto a = walk.next()) {
        if (a->type == NL80211_ATTR_WIPHY) wiphy = a->as<uint32_t>().value_or(absent);
        if (a->type == NL80211_ATTR_WIPHY_NAME) name = a->text();
    }
    for (radio &r : std::span{s.radios}.first(s.radio_count)) {
        if (r.wiphy == wiphy) vela::copy_text(r.name, name);
    }
}

/// Names of radios are nice to have: without them the report is whole.
void read_names(const vl_nl80211_service &service, snapshot &s)
{
    using namespace vela::raw_netlink;
    const auto family = static_cast<uint16_t>(service.family);
    channel kernel{NETLINK_GENERIC, checking::lenient};
    request radios{family, genlmsghdr{NL80211_CMD_GET_WIPHY, 0, 0}};
    kernel.ask(radios, how_much::all);
    while (const auto m = kernel.next()) {
        genlmsghdr header;
        std::span<const uint8_t> attributes;
        if (m->type == family && split(*m, header, attributes)) take_name(s, attributes);
    }
}

void meet_radios(snapshot &s)
{
    for (const network &n : std::span{s.networks}.first(s.network_count)) {
        radio *r = s.radio_of(n.wlan.wiphy);
        if (!r) continue;
        r->power_mbm = std::max(r->power_mbm, n.wlan.power_mbm);
        if (r->mhz != absent || n.wlan.freq_mhz == absent) continue;
        r->mhz = n.wlan.freq_mhz;
        r->width_mhz = n.wlan.width_mhz;
    }
}

/// An interface that went away meanwhile, or whose driver does not tell, adds nothing.
int read_stations(vl_nl80211_service *service, snapshot &s, network &n)
{
    radio *r = s.radio_of(n.wlan.wiphy);
    if (r && r->mhz != absent && r->survey.freq_mhz == absent) {
        (void)vela_survey_foreach(service, n.wlan.ifname, take_survey, r);
    }
    if (!serves_stations(n.wlan)) return 0;
    station_walk walk{s};
    const int result = vela_sta_foreach(service, n.wlan.ifname, add_station, &walk);
    s.partial = s.partial || walk.full || result == -EAGAIN || result == -ETIMEDOUT;
    if (walk.full) log_warn_as("vela_wlan_report_poll", "more stations than the report holds");
    return walk.no_memory || result == -ENOMEM ? -ENOMEM : 0;
}

int read(vl_nl80211_service *service, snapshot &s)
{
    s.at_ns = vela::monotonic_ns().value_or(0);
    int result = settled(
        s, [&] { s.network_count = 0; }, [&] { return vela_wlan_foreach(service, add_network, &s); });
    if (result < 0) return result == -ENOENT || result == -EINVAL ? -ENODEV : result;
    meet_radios(s);
    read_names(*service, s);
    if (vela_neighbour_foreach(0, nullptr, add_address, &s) < 0) s.partial = true;
    for (network &n : std::span{s.networks}.first(s.network_count)) {
        result = read_stations(service, s, n);
        if (result < 0) return result;
    }
    const auto stations = s.stations.items();
    std::sort(stations.begin(), stations.end(), [](const auto &a, const auto &b) { return compare(a, b) < 0; });
    return 0;
}

/// Finds in the poll before whose a failed address was.
void name_failed(std::span<address> before, std::span<address> now)
{
    std::sort(before.begin(), before.end(), by_ip);
    std::sort(now.begin(), now.end(), by_ip);
    auto old = before.begin();
    for (address &a : now) {
        if (!a.failed) continue;
        while (old != before.end() && by_ip(*old, a)) ++old;
        if (old != before.end() && !by_ip(a, *old)) memcpy(a.mac, old->mac, sizeof a.mac);
    }
    std::sort(now.begin(), now.end(), by_mac);
}

std::span<const address> addresses_of(std::span<const address> all, const uint8_t *mac)
{
    address wanted = {};
    memcpy(wanted.mac, mac, sizeof wanted.mac);
    const auto [first, last] = std::equal_range(all.begin(), all.end(), wanted, by_mac);
    return {first, last};
}

/// False where an address of a station failed and none of that family answers.
bool answers_arp(std::span<const address> addresses)
{
    return std::ranges::none_of(addresses, [&](const address &failed) {
        return failed.failed && std::ranges::none_of(addresses, [&](const address &other) {
                   return !other.failed && other.family == failed.family;
               });
    });
}

json_ref ip_json(std::span<const address> addresses)
{
    json_ref array{json_array()};
    for (const address &a : addresses) {
        if (a.failed) continue;
        const vela::address_text text{a.family, a.ip};
        if (json_array_append_new(array.get(), json_string(text.text)) != 0) return {};
    }
    return array;
}

/// Makes one report of two polls.
class writer
{
public:
    writer(snapshot &before, snapshot &now, vela_wlan_report_hook hook, void *arg)
        : before_{before}, now_{now}, hook_{hook}, arg_{arg}
    {
    }

    json_ref write()
    {
        name_failed(before_.addresses.items(), now_.addresses.items());
        measure_air();
        json_ref report{json_object()}, stations = stations_json(); // first: the others count and average
        const bool whole =
            report && (before_.at_ns == 0 || put(report, "interval_ms", (now_.at_ns - before_.at_ns) / 1'000'000)) &&
            (!now_.partial || put_json(report.get(), "partial", json_ref{json_true()})) &&
            put_json(report.get(), "radios", radios_json()) && put_json(report.get(), "networks", networks_json()) &&
            put_json(report.get(), "stations", std::move(stations));
        return whole ? std::move(report) : json_ref{};
    }

private:
    static bool put(const json_ref &object, const char *key, int64_t number)
    {
        return put_json(object.get(), key, json_ref{json_integer(number)});
    }

    void measure_air()
    {
        for (radio &r : std::span{now_.radios}.first(now_.radio_count)) {
            if (r.survey.freq_mhz == absent) continue;
            const radio *old = before_.radio_of(r.wiphy);
            const bool same = old && old->survey.freq_mhz == r.survey.freq_mhz;
            if (vela_survey_airtime(same ? &old->survey : nullptr, &r.survey, &r.air) != 0) {
                r.air.noise_dbm = r.survey.noise_dbm;
            }
        }
    }

    network *network_of(uint32_t index)
    {
        for (network &n : std::span{now_.networks}.first(now_.network_count)) {
            if (n.wlan.index == index) return &n;
        }
        return nullptr;
    }

    /// Both runs are sorted: the cursor only moves forward.
    const vela_sta_info *poll_before(const vela_sta_info &now)
    {
        const auto old = before_.stations.items();
        while (cursor_ < old.size() && compare(old[cursor_], now) < 0) ++cursor_;
        return cursor_ < old.size() && compare(old[cursor_], now) == 0 ? &old[cursor_] : nullptr;
    }

    vela_station scored(const vela_sta_info &info, const network &n, const radio *r, std::span<const address> addresses)
    {
        vela_station station;
        vela_station_clear(&station);
        (void)vela_sta_fill(poll_before(info), &info, &station); // 1 is no failure: counted since the association
        if (n.wlan.freq_mhz != absent) station.freq = static_cast<uint16_t>(n.wlan.freq_mhz);
        if (r && r->air.other_permille != absent) station.radio_health = 100 - r->air.other_permille / 10;
        station.arp_ok = answers_arp(addresses);
        if (hook_) hook_(&info, &station, arg_);
        (void)calc_sta_satisfaction(&station); // always 0
        return station;
    }

    json_ref station_json(const vela_sta_info &info, network &n)
    {
        radio *r = now_.radio_of(n.wlan.wiphy);
        const auto addresses = addresses_of(now_.addresses.items(), info.mac);
        const vela_station station = scored(info, n, r, addresses);
        ++n.stations;
        if (r) ++r->stations;
        if (station.satisfaction >= 0) {
            ++n.scored;
            n.scores += static_cast<uint32_t>(station.satisfaction);
        }
        json_ref object{vela_sta_json(&info, &station)}, ips = ip_json(addresses);
        const bool whole = object && ips &&
                           put_json(object.get(), "network", vela::text_json({n.wlan.ssid, n.wlan.ssid_len})) &&
                           (json_array_size(ips.get()) == 0 || put_json(object.get(), "ip", std::move(ips)));
        return whole ? std::move(object) : json_ref{};
    }

    json_ref stations_json()
    {
        json_ref array{json_array()};
        for (const auto &info : now_.stations.items()) {
            network *n = network_of(info.index);
            if (n && json_array_append_new(array.get(), station_json(info, *n).release()) != 0) return {};
        }
        return array;
    }

    json_ref radios_json()
    {
        json_ref array{json_array()};
        for (const radio &r : std::span{now_.radios}.first(now_.radio_count)) {
            json_ref object = vela::record_json(radio_rows, r);
            if (!object || !vela::put_record(object.get(), air_rows, &r.air)) return {};
            if (json_array_append_new(array.get(), object.release()) != 0) return {};
        }
        return array;
    }

    json_ref networks_json()
    {
        json_ref array{json_array()};
        for (const network &n : std::span{now_.networks}.first(now_.network_count)) {
            json_ref object{vela_wlan_json(&n.wlan)};
            if (!object) return {};
            for (const char *key : {"wiphy", "center_mhz", "power_mbm"}) (void)json_object_del(object.get(), key);
            const radio *r = now_.radio_of(n.wlan.wiphy);
            const bool whole =
                (!r || !*r->name || put_json(object.get(), "radio", vela::text_json(r->name))) &&
                put(object, "stations", n.stations) &&
                (n.scored == 0 || put(object, "satisfaction", static_cast<int64_t>(n.scores / n.scored)));
            if (!whole || json_array_append_new(array.get(), object.release()) != 0) return {};
        }
        return array;
    }

    snapshot &before_, &now_;
    vela_wlan_report_hook hook_;
    void *arg_;
    size_t cursor_ = 0;
};

} // namespace

struct vela_wlan_report {
    vl_nl80211_service *service;
    size_t max_stations;
    snapshot polls[2]; // the one before, and the one that is made
    bool second = false;
};

vela_wlan_report *vela_wlan_report_create(vl_nl80211_service *service, unsigned max_stations)
{
    if (!service || max_stations == 0) {
        errno = EINVAL;
        return nullptr;
    }
    void *const block = malloc(sizeof(vela_wlan_report));
    if (!block) return nullptr; // errno is ENOMEM
    const size_t most = std::min(max_stations, unsigned{VELA_WLAN_REPORT_STATIONS_MAX});
    return new (block) vela_wlan_report{service, most, {snapshot{most}, snapshot{most}}};
}

json_t *vela_wlan_report_poll(vela_wlan_report *report, vela_wlan_report_hook hook, void *arg)
{
    if (!report) {
        errno = EINVAL;
        return nullptr;
    }
    snapshot &before = report->polls[report->second], &now = report->polls[!report->second];
    now.~snapshot();
    new (&now) snapshot{report->max_stations};
    const int result = read(report->service, now);
    json_ref answer = result == 0 ? writer{before, now, hook, arg}.write() : json_ref{};
    if (!answer) {
        errno = result != 0 ? -result : ENOMEM;
        return nullptr;
    }
    report->second = !report->second;
    return answer.release();
}

void vela_wlan_report_destroy(vela_wlan_report *report)
{
    if (!report) return;
    report->~vela_wlan_report();
    free(report);
}
