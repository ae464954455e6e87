// Scanning with all uplink interfaces: asking their real devices, collecting what they heard, printing it.

#include <cerrno>
#include <cstdlib>
#include <event2/event.h>
#include <span>
#include <vela/core/file.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/memory.h>
#include <vela/core/internal/text.h>
#include <vela/mesh/uplink.h>
#include <vela/wireless/freq.h>
#include <vela/wireless/nl80211.h>

namespace
{

constexpr const char *log_module = "vwire";

constexpr const char *channels_5g_path = "/proc/vl_neighbor/5g_chans"; // kept by the mesh driver
constexpr const char *channels_6g_path = "/proc/vl_neighbor/6g_chans";
constexpr const char *no_filter = "vwire-unknown";
constexpr uint32_t unknown_mhz = UINT32_MAX;
constexpr uint32_t no_flags = 0;

/// The frequencies of known neighbours in one band.
struct neighbours {
    uint32_t mhz[64];
    size_t count = 0;

    neighbours(const char *path, uint32_t band)
    {
        char line[256];
        char *rest = freadline(path, line, sizeof line, "");
        while (const char *word = strtok_r(rest, " \t\r\n", &rest)) {
            const long channel = strtol(word, nullptr, 10);
            const uint32_t f =
                channel > 0 && channel <= UINT8_MAX ? vl_channel_to_freq(static_cast<uint32_t>(channel), band) : 0;
            if (f != 0 && count < std::size(mhz)) mhz[count++] = f;
        }
    }
    [[nodiscard]] int size() const { return static_cast<int>(count); }
};

using event_base_ptr = std::unique_ptr<event_base, vela::releaser<event_base_free>>;

/// Asks the kernel for interfaces' operating frequencies. Opened for one round of requests.
class frequency_query
{
public:
    frequency_query() : base_{event_base_new()}
    {
        ready_ = base_ && vl_nl80211_service_init(&service_, base_.get()) == 0;
    }
    frequency_query(const frequency_query &) = delete;
    frequency_query &operator=(const frequency_query &) = delete;
    ~frequency_query()
    {
        if (ready_) vl_nl80211_service_deinit(&service_);
    }

    /// MHz; 0 when it cannot be determined.
    uint32_t of(const char *ifname)
    {
        uint32_t mhz = unknown_mhz;
        if (!ready_ || vl_nl80211_interface_info(&service_, ifname, nullptr, nullptr, &mhz, nullptr, nullptr) != 0)
            return 0;
        return mhz == unknown_mhz ? 0 : mhz;
    }

private:
    event_base_ptr base_;
    vl_nl80211_service service_ = {};
    bool ready_;
};

struct real_name {
    char text[16] = "";

    explicit real_name(const char *ifname) { (void)get_real_ifname(ifname, text); } // null leaves ""
};

// Whether the radio took the request, as do the following.
bool full_scan(const char *ifname, const char *ssid, uint32_t flags)
{
    if (vela_scan_request(ifname, ssid, flags) == 0) return true;
    log_error_as("vela_wifi_scan", "vela_scan_request failure");
    return false;
}

bool neighbour_scan(const char *ifname, const char *ssid, uint32_t mhz, const neighbours &in_5g,
                    const neighbours &in_6g)
{
    constexpr const char *step = "scan_all_uplink_wds_ifaces_neighbor";
    if (mhz == 0) {
        log_info_as(step, "neighbor scan: %s full scan (can't determine band)", ifname);
        return full_scan(ifname, ssid, no_flags);
    }
    const int band = vl_freq_to_band(mhz);
    const neighbours *known = nullptr;
    if (band == VL_BAND_5G && in_5g.count != 0) {
        log_info_as(step, "neighbor scan: %s 5GHz %d freqs", ifname, in_5g.size());
        known = &in_5g;
    } else if (band == VL_BAND_6G && in_6g.count != 0) {
        log_info_as(step, "neighbor scan: %s 6GHz %d freqs", ifname, in_6g.size());
        known = &in_6g;
    } else {
        log_info_as(step, "neighbor scan: %s full scan (no neighbors for band)", ifname);
        return full_scan(ifname, ssid, no_flags);
    }
    if (vela_scan_request_freqs(ifname, ssid, known->mhz, known->size()) == 0) return true;
    log_info_as(step, "neighbor scan: %s freq scan failed, falling back to full scan", ifname);
    return full_scan(ifname, ssid, no_flags);
}

int scan_all(const char *ssid, uplink_table *t, uint32_t flags)
{
    int started = 0;
    for (int i = 0; is_uplink_wds_iface_index_valid(t, i); ++i) {
        started += full_scan(real_name{t->entries[i].devname}.text, ssid, flags) ? 1 : 0;
    }
    return started;
}

int scan_neighbours(const char *ssid, uplink_table *t)
{
    const neighbours in_5g{channels_5g_path, VL_BAND_5G};
    const neighbours in_6g{channels_6g_path, VL_BAND_6G};
    log_info_as("scan_all_uplink_wds_ifaces_neighbor", "neighbor scan: 5GHz=%d 6GHz=%d channels", in_5g.size(),
                in_6g.size());
    frequency_query query;
    int started = 0;
    for (int i = 0; is_uplink_wds_iface_index_valid(t, i); ++i) {
        const real_name real{t->entries[i].devname};
        started += neighbour_scan(real.text, ssid, query.of(real.text), in_5g, in_6g) ? 1 : 0;
    }
    return started;
}

bool is_filter(const char *essid, int len) { return essid && len > 0 && strcmp(essid, no_filter) != 0; }

} // namespace

int scan_all_uplink_wds_ifaces(const char *ssid, uplink_table *t, uint32_t flags)
{
    (void)scan_all(ssid, t, flags); // failures are logged
    return 0;
}

int scan_24G_for_out_of_range(const char *ifname)
{
    (void)full_scan(real_name{ifname}.text, nullptr, no_flags); // likewise
    return 0;
}

int scan_all_uplink_wds_ifaces_neighbor(const char *ssid, uplink_table *t)
{
    (void)scan_neighbours(ssid, t); // likewise
    return 0;
}

int vela_uplink_scan(const char *ssid, uplink_table *t, int neighbours_only)
{
    return neighbours_only ? scan_neighbours(ssid, t) : scan_all(ssid, t, no_flags);
}

int collect_uplink_wds_iface_scan_records(uplink_table *t)
{
    for (int i = 0; is_uplink_wds_iface_index_valid(t, i); ++i) {
        t->entries[i].scan = get_scanlist(real_name{t->entries[i].devname}.text);
    }
    return 0;
}

void print_uplink_wds_iface_scan_records(uplink_table *t, const char *essid, int len)
{
    const bool filtered = is_filter(essid, len);
    int total = 0;
    for (int i = 0; is_uplink_wds_iface_index_valid(t, i); ++i) {
        scan_list *list = t->entries[i].scan;
        if (!list) continue;
        for (scan_entry *e = list->first; e != reinterpret_cast<scan_entry *>(list); e = e->next) {
            ++total;
            if (filtered && strncmp(e->essid, essid, static_cast<size_t>(len)) != 0) continue;
            log_info("IFACE %s: ESSID %s BSSID %s Serial %s RSSI %d @ %d", t->entries[i].devname, e->essid,
                     vela::mac_text{e->bssid}.c_str(), vela::mac_text{e->serial}.c_str(), e->rssi,
                     static_cast<int>(e->freq));
        }
    }
    log_info("TOTAL scan entries: %d", total);
}

void destroy_uplink_wds_iface_scan_records(uplink_table *t)
{
    for (int i = 0; is_uplink_wds_iface_index_valid(t, i); ++i) {
        free_scanlist(t->entries[i].scan);
        t->entries[i].scan = nullptr;
    }
}
