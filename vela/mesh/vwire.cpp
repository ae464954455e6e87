// The choice of a mesh parent, per band and between the bands.
//
// One pass over all records keeps three bests: the strongest of all, and the strongest with either wanted serial
// number. The preference among the three is decided after the pass.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <strings.h>
#include <vela/board/board.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/text.h>
#include <vela/core/internal/verdicts.h>
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

/// What becomes of an entry: why it is no candidate, or how it fares among those of its band.
enum class fate : uint8_t {
    candidate, // while it is not known better
    strongest,
    serial1,
    serial2,
    weaker,
    no_element,
    no_mesh,
    not_connected,
    takes_no_uplinks,
    other_essid,
    other_band,
};
constexpr const char *fate_words[] = {"candidate",        "strongest",   "serial1",   "serial2",
                                      "weaker",           "no_element",  "no_mesh",   "not_connected",
                                      "takes_no_uplinks", "other_essid", "other_band"};
static_assert(static_cast<uint32_t>(fate::strongest) == VWIRE_STRONGEST &&
              static_cast<uint32_t>(fate::serial2) == VWIRE_SERIAL2);

/// Of the four mesh flags, what is missing where the first one that is zero stands.
constexpr fate missing_flag[] = {fate::no_element, fate::no_mesh, fate::not_connected, fate::takes_no_uplinks};

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

/// Calls with every entry that an interface heard, and the interface's index, in order.
template <class Call> void each_heard(uplink_table &table, Call call)
{
    for (int index = 0; is_uplink_wds_iface_index_valid(&table, index); ++index) {
        scan_list *list = table.entries[index].scan;
        if (!list) continue;
        // The head of the ring has the links of an entry and nothing else.
        for (scan_entry *e = list->first; e != reinterpret_cast<scan_entry *>(list); e = e->next) call(*e, index);
    }
}

/// What a caller looks for.
struct wanted {
    wanted(const char *name, int name_length, wanted_serial first, wanted_serial second)
        : essid{name && name_length > 0 ? name : ""},
          essid_length{name && name_length > 0 ? static_cast<size_t>(name_length) : 0}, serial1{first}, serial2{second}
    {
    }
    const char *essid; // any when the length is 0
    size_t essid_length;
    wanted_serial serial1;
    wanted_serial serial2;
};

/// The choice among the entries of one band.
struct search {
    const wanted &what;
    std::string_view band;
    best strongest = {}, with_serial1 = {}, with_serial2 = {};
    const best *chosen = &strongest; // one of the three
    fate how = fate::strongest;      // it was chosen

    search(const wanted &wanted_parent, std::string_view band_name, uplink_table &table)
        : what{wanted_parent}, band{band_name}
    {
        each_heard(table, [this](scan_entry &e, int index) {
            if (judge(e) == fate::candidate) offer(e, index);
        });
        if (with_serial1.close_to(strongest)) {
            chosen = &with_serial1;
            how = fate::serial1;
        } else if (with_serial2.close_to(strongest)) {
            chosen = &with_serial2;
            how = fate::serial2;
        }
    }
    search(const search &) = delete;
    search &operator=(const search &) = delete;

    [[nodiscard]] fate judge(const scan_entry &e) const
    {
        for (size_t flag = 0; flag < std::size(e.mesh); ++flag) {
            if (e.mesh[flag] == 0) return missing_flag[flag];
        }
        if (strncmp(e.essid, what.essid, what.essid_length) != 0) return fate::other_essid;
        return get_band(e.freq) == band ? fate::candidate : fate::other_band;
    }
    /// The same once the choice is made.
    [[nodiscard]] fate fate_of(const scan_entry &e) const
    {
        const fate before = judge(e);
        if (before != fate::candidate) return before;
        if (&e == chosen->entry) return how;
        return &e == strongest.entry ? fate::strongest : fate::weaker;
    }

private:
    void offer(scan_entry &e, int index)
    {
        strongest.offer(e, index);
        if (!what.serial1.given() && !what.serial2.given()) return;
        const vela::mac_text printed{e.serial};
        if (what.serial1.matches(printed.c_str())) {
            with_serial1.offer(e, index);
        } else if (what.serial2.matches(printed.c_str())) {
            with_serial2.offer(e, index);
        }
    }
};

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

void tell(const search &s, uplink_table &table)
{
    if (s.how == fate::serial1) return tell_preferred(table, "serial1", s.what.serial1, *s.chosen);
    if (s.how == fate::serial2) return tell_preferred(table, "serial2", s.what.serial2, *s.chosen);
    if (s.chosen->entry) tell_strongest(table, *s.chosen);
}

/// Which band it is, and by which rule.
enum class rule : uint8_t { none, good_6ghz, near_6ghz, stronger_5ghz, only_6ghz, only_5ghz };
constexpr const char *rule_words[] = {"no_candidate",  "good_6ghz", "near_6ghz",
                                      "stronger_5ghz", "only_6ghz", "only_5ghz"};
static_assert(static_cast<uint32_t>(rule::good_6ghz) == VWIRE_GOOD_6GHZ &&
              static_cast<uint32_t>(rule::only_5ghz) == VWIRE_ONLY_5GHZ);

constexpr bool is_6ghz(rule r) { return r == rule::good_6ghz || r == rule::near_6ghz || r == rule::only_6ghz; }

/// The board needs AFC for 6 GHz, and AFC is not active.
bool waits_for_afc() { return board_requires_afc_for_6g(board_identify()) && get_afc_state() != AFC_ACTIVE; }

/// How much stronger the first is; 0 unless both are there.
int delta(const scan_entry *c5, const scan_entry *c6)
{
    if (!c5 || !c6) return 0;
    return static_cast<int>(std::clamp<int64_t>(int64_t{c5->rssi} - c6->rssi, INT32_MIN, INT32_MAX));
}

/// The best 6 GHz candidate only where it may be used.
rule decide(const scan_entry *c6, const scan_entry *c5)
{
    if (c6 && c6->rssi >= good_enough_at_6g) return rule::good_6ghz;
    if (c6 && c5) return delta(c5, c6) < band_margin ? rule::near_6ghz : rule::stronger_5ghz;
    if (c6) return rule::only_6ghz;
    return c5 ? rule::only_5ghz : rule::none;
}

void tell(rule r, const scan_entry *c6, const scan_entry *c5)
{
    constexpr const char *step = "vwire_decide_best_band_index";
    const scan_entry *c = is_6ghz(r) ? c6 : c5;
    const int rssi = c ? c->rssi : 0;
    const int mhz = c ? static_cast<int>(c->freq) : 0;
    switch (r) {
    case rule::good_6ghz:
        log_info_as(step, "band-select: prefer 6GHZ \u2014 6GHZ RSSI %d >= %d @ %d, choosing 6GHZ", rssi,
                    good_enough_at_6g, mhz);
        return;
    case rule::near_6ghz:
        log_info_as(
            step, "band-select: both present \u2014 6GHZ preferred (5GHz delta=%d < %d), choosing 6GHZ (RSSI %d @ %d)",
            delta(c5, c6), band_margin, rssi, mhz);
        return;
    case rule::stronger_5ghz:
        log_info_as(step,
                    "band-select: both present \u2014 5GHz stronger by %d dB (>= %d), choosing 5GHz (RSSI %d @ %d)",
                    delta(c5, c6), band_margin, rssi, mhz);
        return;
    case rule::only_6ghz:
        log_info_as(step, "band-select: only 6GHZ present, choosing 6GHZ (RSSI %d @ %d)", rssi, mhz);
        return;
    case rule::only_5ghz:
        log_info_as(step, "band-select: only 5GHz present, choosing 5GHz (RSSI %d @ %d)", rssi, mhz);
        return;
    case rule::none:
        log_info_as(step, "band-select: no 5GHz/6GHZ candidates available \u2014 returning inactive");
        return;
    }
}

/// The whole choice: the best of either band, then the band.
struct choice {
    search at_6ghz, at_5ghz;
    bool afc_missing; // for what 6 GHz offers
    rule band;

    choice(const wanted &what, uplink_table &table)
        : at_6ghz{what, "6e", table}, at_5ghz{what, "na", table},
          afc_missing{at_6ghz.chosen->entry && waits_for_afc()}, band{decide(usable_6ghz(), at_5ghz.chosen->entry)}
    {
    }
    [[nodiscard]] const scan_entry *usable_6ghz() const { return afc_missing ? nullptr : at_6ghz.chosen->entry; }
    [[nodiscard]] const search &winner() const { return is_6ghz(band) ? at_6ghz : at_5ghz; }
};

void note_entry(vela::verdicts &why, uplink_table &table, const choice &c, const scan_entry &e, int index)
{
    using vela::verdict;
    const search &s = get_band(e.freq) == c.at_6ghz.band ? c.at_6ghz : c.at_5ghz;
    const fate f = s.fate_of(e);
    verdict v = f > fate::weaker ? verdict::refused : verdict::passed;
    if (&e == s.chosen->entry) v = verdict::chosen;
    why.note(vela::mac_text{e.bssid}.c_str(), v, fate_words[static_cast<size_t>(f)],
             {{"interface", ifname(table, index)},
              {"essid", e.essid},
              {"serial", e.serial},
              {"rssi", e.rssi},
              {"mhz", e.freq}});
}

void note_band(vela::verdicts &why, const choice &c, const search &s)
{
    using vela::verdict;
    const scan_entry *e = s.chosen->entry;
    const bool held = e && &s == &c.at_6ghz && c.afc_missing;
    const auto name = s.band;
    if (!e) return why.note(name, verdict::skipped, rule_words[0]);
    const verdict v = held ? verdict::refused : &s == &c.winner() ? verdict::chosen : verdict::passed;
    why.note(name, v, held ? "afc_inactive" : rule_words[static_cast<size_t>(c.band)], {{"rssi", e->rssi}});
}

} // namespace

scan_entry *vwire_select_best_for_band(uplink_table *ifaces, const char *essid, int essid_len, const char *band,
                                       const char *serial1, int serial1_len, const char *serial2, int serial2_len,
                                       int *index)
{
    if (index) *index = -1;
    if (!band || !*band || !ifaces) return nullptr;
    const wanted what{essid, essid_len, {serial1, serial1_len}, {serial2, serial2_len}};
    const search s{what, band, *ifaces};
    tell(s, *ifaces);
    if (index) *index = s.chosen->index;
    return s.chosen->entry;
}

int vwire_decide_best_band_index(const scan_entry *best6, int index6, const scan_entry *best5, int index5)
{
    const scan_entry *c6 = best6;
    if (c6 && waits_for_afc()) {
        log_info("band-select: AFC required but not active, ignoring 6GHz");
        c6 = nullptr;
    }
    const rule r = decide(c6, best5);
    tell(r, c6, best5);
    if (r == rule::none) return -1;
    return is_6ghz(r) ? index6 : index5;
}

int vwire_choose_parent(uplink_table *ifaces, const char *essid, int essid_len, const char *serial1, int serial1_len,
                        const char *serial2, int serial2_len, vwire_choice *out)
{
    if (!ifaces || !out) return -EINVAL;
    const wanted what{essid, essid_len, {serial1, serial1_len}, {serial2, serial2_len}};
    const choice c{what, *ifaces};
    tell(c.at_6ghz, *ifaces);
    tell(c.at_5ghz, *ifaces);
    if (c.afc_missing) log_info("band-select: AFC required but not active, ignoring 6GHz");
    tell(c.band, c.usable_6ghz(), c.at_5ghz.chosen->entry);
    if (c.band == rule::none) return -ENOENT;
    *out = {c.winner().chosen->entry, c.winner().chosen->index, static_cast<uint32_t>(c.winner().how),
            static_cast<uint32_t>(c.band)};
    return 0;
}

json_t *vwire_explain(uplink_table *ifaces, const char *essid, int essid_len, const char *serial1, int serial1_len,
                      const char *serial2, int serial2_len)
{
    if (!ifaces) {
        errno = EINVAL;
        return nullptr;
    }
    const wanted what{essid, essid_len, {serial1, serial1_len}, {serial2, serial2_len}};
    const choice c{what, *ifaces};
    vela::verdicts why{"parent"};
    each_heard(*ifaces, [&](scan_entry &e, int index) { note_entry(why, *ifaces, c, e, index); });
    note_band(why, c, c.at_6ghz);
    note_band(why, c, c.at_5ghz);
    const scan_entry *parent = c.band == rule::none ? nullptr : c.winner().chosen->entry;
    why.conclude(rule_words[static_cast<size_t>(c.band)], parent ? vela::mac_text{parent->bssid}.c_str() : nullptr);
    return why.release();
}
