// Radios, scans, the mesh uplink.
#include "command.h"
#include "radio.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/nl80211.h>
#include <net/if.h>
#include <netlink/netlink.h>
//
#include <netlink/attr.h>
#include <vector>
#include <vela/mesh/afc.h>
#include <vela/mesh/vwire.h>
#include <vela/wireless/freq.h>
#include <vela/wireless/nl80211.h>
#include <vela/wireless/scan.h>
#include <vela/wireless/wlan.h>

namespace velactl
{
namespace
{

struct radio_facts {
    uint32_t wiphy = absent, mhz = absent, width = absent, power = absent;
    uint8_t mac[6] = {};
};

/// What the driver says of an interface; trouble where that is none of a radio.
radio_facts facts_of(radio_service &service, const char *ifname)
{
    radio_facts f;
    if (vl_nl80211_interface_info(service.get(), ifname, &f.wiphy, f.mac, &f.mhz, &f.width, &f.power) != 0) {
        throw trouble(status::unavailable, no_radio(ifname));
    }
    return f;
}

json frequency(arguments given)
{
    json result{json_array()};
    for (const char *text : given) {
        const auto mhz = static_cast<uint32_t>(number(text, "MHZ", 0, UINT32_MAX));
        json row = object();
        set(row, "mhz", mhz);
        const int band = vl_freq_to_band(mhz);
        if (band != VL_BAND_UNKNOWN) set(row, "channel", vl_freq_to_channel(mhz)); // elsewhere it may wrap
        set(row, "band", band);
        set(row, "name", get_band(mhz));
        append(result, std::move(row));
    }
    return result;
}

/// An access point that runs tells its network by nl80211 alone; the older interface answers for stations.
std::string network_of(const char *ifname, const vela_wlan &wlan)
{
    if (wlan.ssid_len != 0) return wlan.ssid;
    char name[33];
    return get_if_essid(ifname, name, sizeof name) == 0 ? name : "";
}

json radio(arguments given)
{
    radio_service service;
    struct wanted {
        const char *ifname;
        vela_wlan found;
    } w = {given[0], {}};
    const auto find = [](const vela_wlan *wlan, void *arg) {
        auto &one = *static_cast<wanted *>(arg);
        if (strcmp(wlan->ifname, one.ifname) != 0) return 0;
        one.found = *wlan;
        return 1;
    };
    const int result = vela_wlan_foreach(service.get(), find, &w);
    if (w.found.index == 0) throw trouble(status::unavailable, no_radio(given[0]), result < 0 ? -result : ENODEV);
    json answer{vela_wlan_json(&w.found)};
    json_object_del(answer.get(), "interface");
    json_object_del(answer.get(), "ssid");
    const std::string name = network_of(given[0], w.found);
    if (!name.empty()) set(answer, "essid", name);
    const bool serves = w.found.mode == NL80211_IFTYPE_AP && w.found.ssid_len != 0;
    set(answer, "state", serves ? "serving" : w.found.freq_mhz != absent ? "on a channel" : "idle");
    return answer;
}

json power(arguments given)
{
    const auto mbm = static_cast<uint32_t>(number(given[1], "MBM", 0, INT32_MAX));
    radio_service service;
    (void)facts_of(service, given[0]);
    if (vl_nl80211_interface_set_power(service.get(), given[0], mbm) != 0) {
        throw trouble(status::failed, "the driver refused; velactl -v txpower ... says why");
    }
    return nullptr;
}

using bytes = std::span<const uint8_t>;

/// What an access point's elements say of its network (IEEE 802.11, 9.4.2).
struct network_facts {
    uint32_t width_mhz = 20;
    std::string security;
};

constexpr uint8_t rsn = 48, ht_operation = 61, vht_operation = 192, vendor = 221, extension = 255;
constexpr uint8_t he_operation = 36, eht_operation = 106; // of the extensions

uint8_t byte_at(bytes element, size_t n) { return n < element.size() ? element[n] : 0; }

/// The suites by which stations may authenticate, as people call them.
std::string security_by(bytes body)
{
    const size_t ciphers = byte_at(body, 6) + 256U * byte_at(body, 7);
    const size_t first = 8 + 4 * ciphers;
    const size_t count = byte_at(body, first) + 256U * byte_at(body, first + 1);
    bool psk = false, sae = false, owe = false, enterprise = false;
    for (size_t n = 0; n < count && first + 2 + 4 * n + 4 <= body.size(); ++n) {
        switch (body[first + 2 + 4 * n + 3]) {
        case 2:
        case 4:
        case 6: psk = true; break;
        case 8:
        case 9:
        case 24: sae = true; break;
        case 18: owe = true; break;
        default: enterprise = true;
        }
    }
    if (psk && sae) return "WPA2/WPA3";
    return sae ? "WPA3" : psk ? "WPA2" : owe ? "OWE" : enterprise ? "enterprise" : "WPA2";
}

uint32_t width_by_vht(bytes body)
{
    if (byte_at(body, 0) == 0) return 0; // as in the element for 40 MHz
    return byte_at(body, 0) > 1 || byte_at(body, 2) != 0 ? 160 : 80;
}

uint32_t width_by_he(bytes body)
{
    constexpr uint8_t vht_there = 0x40, cohosted_there = 0x80, six_ghz_there = 0x02;
    if (!(byte_at(body, 3) & six_ghz_there)) return 0;
    size_t at = 1 + 6; // the extension's number, then what is always there
    if (byte_at(body, 2) & vht_there) at += 3;
    if (byte_at(body, 2) & cohosted_there) at += 1;
    return 20U << (byte_at(body, at + 1) & 3);
}

uint32_t width_by_eht(bytes body)
{
    constexpr uint8_t there = 1;
    return byte_at(body, 1) & there ? 20U << std::min(byte_at(body, 6) & 7, 4) : 0;
}

network_facts facts_of(const scan_result &heard)
{
    network_facts f;
    f.security = heard.flags & SCAN_RESULT_PRIVACY ? "WEP" : "open";
    bool has_rsn = false;
    bytes rest{heard.data + heard.essid_len, heard.ies_len};
    while (rest.size() >= 2 && rest[1] + 2U <= rest.size()) {
        const bytes body = rest.subspan(2, rest[1]);
        uint32_t width = 0;
        if (rest[0] == rsn) f.security = security_by(body);
        has_rsn |= rest[0] == rsn;
        constexpr uint8_t wpa[] = {0x00, 0x50, 0xF2, 0x01};
        if (rest[0] == vendor && !has_rsn && body.size() >= 4 && std::equal(wpa, wpa + 4, body.begin())) {
            f.security = "WPA";
        }
        if (rest[0] == ht_operation && byte_at(body, 1) & 4 && byte_at(body, 1) & 3) width = 40;
        if (rest[0] == vht_operation) width = width_by_vht(body);
        if (rest[0] == extension && byte_at(body, 0) == he_operation) width = width_by_he(body);
        if (rest[0] == extension && byte_at(body, 0) == eht_operation) width = width_by_eht(body);
        f.width_mhz = std::max(f.width_mhz, width);
        rest = rest.subspan(2 + body.size());
    }
    return f;
}

/// The scan that a command waits for; one command runs at a time.
struct {
    uint32_t ifindex = 0;
    event_base *base = nullptr;
    bool ended = false;
} awaited;

int on_scan_end(vl_nl80211_service *, nlattr **attributes, uint8_t)
{
    nlattr *index = attributes[NL80211_ATTR_IFINDEX];
    if (!index || nla_len(index) < 4 || nla_get_u32(index) != awaited.ifindex) return 0;
    awaited.ended = true;
    event_base_loopbreak(awaited.base);
    return 0;
}

void scan_now(radio_service &service, const char *ifname)
{
    awaited = {if_nametoindex(ifname), service.base(), false};
    for (const uint32_t end : {NL80211_CMD_NEW_SCAN_RESULTS, NL80211_CMD_SCAN_ABORTED}) {
        vl_nl80211_register_command_callback(service.get(), end, on_scan_end);
    }
    const int result = vela_scan_request(ifname, nullptr);
    if (result == -ENETDOWN)
        throw trouble(status::failed, std::string(ifname) + " is down: ip link set it up", ENETDOWN);
    if (result != 0 && result != -EBUSY) { // busy: another program's scan, whose end will do
        throw refused(std::string(ifname) + " cannot scan now; --last shows what it heard before", result);
    }
    const progress shown("scanning");
    constexpr timeval patience = {60, 0}; // radios listen long where they may not ask
    event_base_loopexit(service.base(), &patience);
    while (!awaited.ended && event_base_dispatch(service.base()) == 0 && !event_base_got_exit(service.base())) {}
    if (!awaited.ended) throw trouble(status::late, "the scan did not end within a minute");
}

struct heard_network {
    json row;
    int32_t signal;
};

void add_heard(const scan_result *result, void *list)
{
    scan_list one;
    auto *const head = reinterpret_cast<scan_entry *>(&one);
    one = {head, head};
    add_scan_entry(result, &one);
    if (one.first == head) return;
    const scan_entry *e = one.first;
    const network_facts f = facts_of(*result);
    json row = object();
    set(row, "essid", e->essid);
    set(row, "bssid", address(e->bssid));
    set(row, "mhz", e->freq);
    if (vl_freq_to_band(e->freq) != VL_BAND_UNKNOWN) set(row, "channel", vl_freq_to_channel(e->freq));
    set(row, "width_mhz", f.width_mhz);
    set(row, "signal_dbm", e->rssi - 96);
    set(row, "security", f.security);
    set(row, "age_ms", e->age_ms);
    set_flag(row, "mesh", e->mesh[0] && e->mesh[1] && e->mesh[2] && e->mesh[3]);
    if (e->mesh[0]) set(row, "serial", address(e->serial)); // in the maker's element
    static_cast<std::vector<heard_network> *>(list)->push_back({std::move(row), e->rssi});
    free(one.first);
}

json scan(arguments given)
{
    radio_service service;
    (void)facts_of(service, given[0]); // a list that cannot be had is an empty one
    if (!given.has("--last")) scan_now(service, given[0]);
    std::vector<heard_network> heard;
    if (parse_scan_results(given[0], add_heard, &heard) != 0) throw trouble(status::failed, "the list cannot be read");
    std::stable_sort(heard.begin(), heard.end(), [](auto &a, auto &b) { return a.signal > b.signal; });
    json rows{json_array()};
    for (auto &network : heard) append(rows, std::move(network.row));
    return rows;
}

json uplinks(arguments)
{
    uplink_table table = {};
    char wired[16] = "";
    if (uplink_ifname_identify(&table, wired, sizeof wired) != 0) {
        throw trouble(status::unavailable, "no wireless interface is configured (/var/run/wlan_configured_devnames)");
    }
    json result = object();
    set(result, "wired", wired);
    set(result, "state", get_wireless_uplink_state());
    set(result, "afc", afc_state_strs[get_afc_state()]);
    json rows{json_array()};
    for (int i = 0; i < get_uplink_wds_iface_len(&table); ++i) {
        char real[16];
        const uplink_entry *entry = get_uplink_wds_iface_by_index(&table, i);
        get_real_ifname(entry->devname, real);
        json row = object();
        set(row, "interface", entry->devname);
        set(row, "device", real);
        set(row, "mld", *entry->mld_devname ? entry->mld_devname : "-");
        append(rows, std::move(row));
    }
    set(result, "uplinks", std::move(rows));
    return result;
}

constexpr option scan_options[] = {{"--last", "", "what was heard before, without a new scan"}};

constexpr command commands[] = {
    {"frequency", "MHZ...", "channel and band of frequencies", 1, 64, frequency, answer::rows},
    {"radio", "INTERFACE", "channel, width, power, network, state", 1, 1, radio, answer::object},
    {"txpower", "INTERFACE MBM", "set the transmit power, in 1/100 dBm", 2, 2, power},
    {"scan", "INTERFACE", "the networks around, strongest first", 1, 1, scan, answer::rows, {}, scan_options},
    {"uplinks", "", "a mesh node's uplink interfaces", 0, 0, uplinks},
};

} // namespace

const std::span<const command> wireless_commands{commands};

} // namespace velactl
