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
    radio_service() : base_{event_base_new()}
    {
        if (!base_ || vl_nl80211_service_init(&service_, base_) != 0) {
            throw trouble(status::unavailable, "this kernel has no nl80211: no Wi-Fi driver is loaded");
        }
    }
    radio_service(const radio_service &) = delete;
    radio_service &operator=(const radio_service &) = delete;
    ~radio_service()
    {
        vl_nl80211_service_deinit(&service_);
        event_base_free(base_);
    }
    vl_nl80211_service *get() { return &service_; }

private:
    event_base *base_;
    vl_nl80211_service service_ = {};
};

std::string address(const uint8_t *mac)
{
    char text[18];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

json channels(arguments given)
{
    json result{json_array()};
    for (const char *text : given) {
        const auto mhz = static_cast<uint32_t>(number(text, "MHZ"));
        json row = object();
        set(row, "mhz", mhz);
        set(row, "channel", vl_freq_to_channel(mhz));
        set(row, "band", vl_freq_to_band(mhz));
        set(row, "name", get_band(mhz));
        append(result, std::move(row));
    }
    return result;
}

json radio(arguments given)
{
    constexpr uint32_t unknown = UINT32_MAX;
    radio_service service;
    uint32_t wiphy = unknown, mhz = unknown, width = unknown, power = unknown;
    uint8_t mac[6];
    const int result = vl_nl80211_interface_info(service.get(), given[0], &wiphy, mac, &mhz, &width, &power);
    if (result != 0) throw trouble(status::failed, std::string(given[0]) + " is no wireless interface");
    json answer = object();
    set(answer, "wiphy", wiphy);
    set(answer, "mac", address(mac));
    if (mhz != unknown) set(answer, "mhz", mhz);
    if (width != unknown) set(answer, "width_mhz", width);
    if (power != unknown) set(answer, "power_mbm", power);
    char name[33];
    if (get_if_essid(given[0], name, sizeof name) == 0) set(answer, "essid", name);
    return answer;
}

json power(arguments given)
{
    radio_service service;
    const auto mbm = static_cast<uint32_t>(number(given[1], "MBM"));
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
    const std::unique_ptr<scan_list, drop_scan> heard{get_scanlist(given[0])};
    if (!heard) throw trouble(status::failed, "out of memory");
    json result{json_array()};
    const auto *head = reinterpret_cast<const scan_entry *>(heard.get());
    for (const scan_entry *e = heard->first; e != head; e = e->next) {
        json row = object();
        set(row, "bssid", address(e->bssid));
        set(row, "mhz", e->freq);
        set(row, "signal", e->rssi);
        set_flag(row, "mesh", e->mesh[0] && e->mesh[1] && e->mesh[2] && e->mesh[3]);
        set(row, "serial", address(e->serial));
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
    {"power", "INTERFACE MBM", "set the transmit power (1/100 dBm)", 2, 2, power},
    {"scan", "INTERFACE", "what it heard in its last scan", 1, 1, scan},
    {"uplinks", "", "the mesh node's uplink interfaces", 0, 0, uplinks},
};

} // namespace

const std::span<const command> wireless_commands{commands};

} // namespace velactl
