// The choice of a mesh parent, per band and between the bands.
//
// One pass over all records keeps three bests: the strongest of all, and the strongest with either wanted serial
// number. The preference among the three is decided after the pass.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <strings.h>
#include <vela/board/board.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/text.h>
#include <vela/mesh/afc.h>
#include <vela/mesh/vwire.h>
#include <vela/wireless/freq.h>

namespace
{

constexpr const char *log_module = "vwire";
constexpr const char *select_step = "vwire_select_best_for_band";

constexpr int32_t preference_margin = 4;  // how much stronger a stranger may be than a preferred parent
constexpr int32_t band_margin = 8;        // how much stronger 5 GHz must be than 6 GHz
constexpr int32_t good_enough_at_6g = 25; // from here on 6 GHz is taken whatever 5 GHz offers
constexpr const char *no_serial = "00:00:00:00:00:00";

/// A serial number as the caller gave it, compared over the caller's length; a length of 0: not given.
struct wanted_serial {
    const char *text = nullptr;
    size_t length = 0;

    wanted_serial(const char *given, int given_length)
    {
        if (!given || given_length <= 0) return;
        const auto n = static_cast<size_t>(given_length);
        if (strncasecmp(given, no_serial, n) != 0) text = given, length = n;
    }
    [[nodiscard]] bool given() const { return length != 0; }
    [[nodiscard]] bool matches(const char *printed) const { return given() && strncasecmp(text, printed, length) == 0; }
};

struct best {
    scan_entry *entry = nullptr;
    int index = -1;
    int32_t rssi = INT32_MIN;

    void offer(scan_entry &candidate, int at)
    {
        if (candidate.rssi <= rssi) return;
        *this = {&candidate, at, candidate.rssi};
    }
    /// Whether this one may stand against the strongest.
    [[nodiscard]] bool close_to(const best &strongest) const
    {
        return entry && int64_t{strongest.rssi} - rssi <= preference_margin;
    }
};

struct search {
    const char *essid; // any when the length is 0
    size_t essid_length;
    std::string_view band;
    wanted_serial serial1;
    wanted_serial serial2;
    best strongest, with_serial1, with_serial2;

    [[nodiscard]] bool accepts(const scan_entry &e) const
    {
        const bool mesh = std::all_of(std::begin(e.mesh), std::end(e.mesh), [](auto flag) { return flag != 0; });
        return mesh && strncmp(e.essid, essid, essid_length) == 0 && get_band(e.freq) == band;
    }
    void offer(scan_entry &e, int index)
    {
        strongest.offer(e, index);
        if (!serial1.given() && !serial2.given()) return;
        const vela::mac_text printed{e.serial};
        if (serial1.matches(printed.c_str())) {
            with_serial1.offer(e, index);
        } else if (serial2.matches(printed.c_str())) {
            with_serial2.offer(e, index);
        }
    }
};

void visit(search &s, uplink_table &table)
{
    for (int index = 0; is_uplink_wds_iface_index_valid(&table, index); ++index) {
        scan_list *list = table.entries[index].scan;
        if (!list) continue;
        // The head of the ring has the links of an entry and nothing else.
        for (scan_entry *e = list->first; e != reinterpret_cast<scan_entry *>(list); e = e->next) {
            if (s.accepts(*e)) s.offer(*e, index);
        }
    }
}

const char *ifname(uplink_table &table, int index)
{
    const char *name = get_uplink_wds_iface_devname_by_index(&table, index);
    return name ? name : "unknown";
}

void tell_preferred(uplink_table &table, const char *which, const wanted_serial &serial, const best &b)
{
    const scan_entry &e = *b.entry;
    log_info_as(select_step, "Found %s on IFACE %s: serial %s ESSID %s BSSID %s RSSI %d @ %d", which,
                ifname(table, b.index), serial.text, e.essid, vela::mac_text{e.bssid}.c_str(), e.rssi,
                static_cast<int>(e.freq));
}

void tell_strongest(uplink_table &table, const best &b)
{
    const scan_entry &e = *b.entry;
    log_info_as(select_step, "Found strongest RSSI on IFACE %s: ESSID %s BSSID %s serialno %s RSSI %d @ %d",
                ifname(table, b.index), e.essid, vela::mac_text{e.bssid}.c_str(), vela::mac_text{e.serial}.c_str(),
                e.rssi, static_cast<int>(e.freq));
}

best decide(const search &s, uplink_table &table)
{
    if (s.with_serial1.close_to(s.strongest)) {
        tell_preferred(table, "serial1", s.serial1, s.with_serial1);
        return s.with_serial1;
    }
    if (s.with_serial2.close_to(s.strongest)) {
        tell_preferred(table, "serial2", s.serial2, s.with_serial2);
        return s.with_serial2;
    }
    if (s.strongest.entry) tell_strongest(table, s.strongest);
    return s.strongest;
}

} // namespace

scan_entry *vwire_select_best_for_band(uplink_table *ifaces, const char *essid, int essid_len, const char *band,
                                       const char *serial1, int serial1_len, const char *serial2, int serial2_len,
                                       int *index)
{
    if (index) *index = -1;
    if (!band || !*band || !ifaces) return nullptr;

    const bool any_essid = !essid || essid_len <= 0;
    search s{.essid = any_essid ? "" : essid,
             .essid_length = any_essid ? 0 : static_cast<size_t>(essid_len),
             .band = band,
             .serial1 = {serial1, serial1_len},
             .serial2 = {serial2, serial2_len}};
    visit(s, *ifaces);

    const best chosen = decide(s, *ifaces);
    if (index) *index = chosen.index;
    return chosen.entry;
}

int vwire_decide_best_band_index(const scan_entry *best6, int index6, const scan_entry *best5, int index5)
{
    const scan_entry *c6 = best6;
    const scan_entry *c5 = best5;
    if (c6 && board_requires_afc_for_6g(board_identify()) && get_afc_state() != AFC_ACTIVE) {
        log_info("band-select: AFC required but not active, ignoring 6GHz");
        c6 = nullptr;
    }
    if (c6 && c6->rssi >= good_enough_at_6g) {
        log_info("band-select: prefer 6GHZ \u2014 6GHZ RSSI %d >= %d @ %d, choosing 6GHZ", c6->rssi, good_enough_at_6g,
                 static_cast<int>(c6->freq));
        return index6;
    }
    if (c6 && c5) {
        const auto delta = static_cast<int>(std::clamp<int64_t>(int64_t{c5->rssi} - c6->rssi, INT32_MIN, INT32_MAX));
        if (delta < band_margin) {
            log_info(
                "band-select: both present \u2014 6GHZ preferred (5GHz delta=%d < %d), choosing 6GHZ (RSSI %d @ %d)",
                delta, band_margin, c6->rssi, static_cast<int>(c6->freq));
            return index6;
        }
        log_info("band-select: both present \u2014 5GHz stronger by %d dB (>= %d), choosing 5GHz (RSSI %d @ %d)", delta,
                 band_margin, c5->rssi, static_cast<int>(c5->freq));
        return index5;
    }
    if (c6) {
        log_info("band-select: only 6GHZ present, choosing 6GHZ (RSSI %d @ %d)", c6->rssi, static_cast<int>(c6->freq));
        return index6;
    }
    if (c5) {
        log_info("band-select: only 5GHz present, choosing 5GHz (RSSI %d @ %d)", c5->rssi, static_cast<int>(c5->freq));
        return index5;
    }
    log_info("band-select: no 5GHz/6GHZ candidates available \u2014 returning inactive");
    return -1;
}
