// Radios, scans, the mesh uplink.
#include "command.h"

#include <event2/event.h>
#include <vela/mesh/afc.h>
#include <vela/mesh/vwire.h>
#include <vela/wireless/freq.h>
#include <vela/wireless/nl80211.h>
#include <vela/wireless/scan.h>

namespace velactl
{
namespace
{

/// The connection to nl80211, for as long as a command runs.
class radio_service
{
public:
    radio_service()
    {
        if (!base_ || vl_nl80211_service_init(&service_, base_.get()) != 0) {
            throw trouble(status::unavailable, "this kernel has no nl80211: no Wi-Fi driver is loaded");
        }
    }
    radio_service(const radio_service &) = delete;
    radio_service &operator=(const radio_service &) = delete;
    ~radio_service() { vl_nl80211_service_deinit(&service_); }
    vl_nl80211_service *get() { return &service_; }

private:
    struct drop_base {
        void operator()(event_base *base) const { event_base_free(base); }
    };
    std::unique_ptr<event_base, drop_base> base_{event_base_new()};
    vl_nl80211_service service_ = {};
};

constexpr uint32_t unknown = UINT32_MAX;

struct radio_facts {
    uint32_t wiphy = unknown, mhz = unknown, width = unknown, power = unknown;
    uint8_t mac[6] = {};
};

/// What the driver says of an interface; trouble where that is none of a radio.
radio_facts facts_of(radio_service &service, const char *ifname)
{
    radio_facts f;
    if (vl_nl80211_interface_info(service.get(), ifname, &f.wiphy, f.mac, &f.mhz, &f.width, &f.power) != 0) {
        throw trouble(status::unavailable, std::string(ifname) + " is no wireless interface; iw dev lists them");
    }
    return f;
}

json channels(arguments given)
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

json radio(arguments given)
{
    radio_service service;
    const radio_facts f = facts_of(service, given[0]);
    json answer = object();
    set(answer, "wiphy", f.wiphy);
    set(answer, "mac", address(f.mac));
    if (f.mhz != unknown) set(answer, "mhz", f.mhz);
    if (f.width != unknown) set(answer, "width_mhz", f.width);
    if (f.power != unknown) set(answer, "power_mbm", static_cast<int32_t>(f.power));
    char name[33];
    if (get_if_essid(given[0], name, sizeof name) == 0 && *name) set(answer, "essid", name);
    return answer;
}

json power(arguments given)
{
    const auto mbm = static_cast<uint32_t>(number(given[1], "MBM", 0, INT32_MAX));
    radio_service service;
    (void)facts_of(service, given[0]);
    if (vl_nl80211_interface_set_power(service.get(), given[0], mbm) != 0) {
        throw trouble(status::failed, "the driver refused; velactl -v power ... says why");
    }
    return nullptr;
}

struct drop_scan {
    void operator()(scan_list *list) const { free_scanlist(list); }
};

json scan(arguments given)
{
    radio_service service;
    (void)facts_of(service, given[0]); // a list that cannot be had is an empty one
    const std::unique_ptr<scan_list, drop_scan> heard{get_scanlist(given[0])};
    if (!heard) throw trouble(status::failed, "out of memory");
    json result{json_array()};
    const auto *head = reinterpret_cast<const scan_entry *>(heard.get());
    for (const scan_entry *e = heard->first; e != head; e = e->next) {
        json row = object();
        set(row, "bssid", address(e->bssid));
        set(row, "mhz", e->freq);
        set(row, "signal_dbm", e->rssi - 96);
        set_flag(row, "mesh", e->mesh[0] && e->mesh[1] && e->mesh[2] && e->mesh[3]);
        if (e->mesh[0]) set(row, "serial", address(e->serial)); // in the maker's element
        set(row, "essid", e->essid);
        append(result, std::move(row));
    }
    return result;
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

constexpr command commands[] = {
    {"channel", "MHZ...", "channel and band of frequencies", 1, 64, channels},
    {"radio", "INTERFACE", "channel, width, power, network", 1, 1, radio},
    {"power", "INTERFACE MBM", "set the transmit power, in 1/100 dBm", 2, 2, power},
    {"scan", "INTERFACE", "what it heard in its last scan", 1, 1, scan},
    {"uplinks", "", "a mesh node's uplink interfaces", 0, 0, uplinks},
};

} // namespace

const std::span<const command> wireless_commands{commands};

} // namespace velactl
