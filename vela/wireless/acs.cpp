// Ranks channels. Each candidate is judged in one pass over each input, so the order of an input cannot matter; the
// best are kept as a heap in the caller's own array.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <linux/nl80211.h>
#include <optional>
#include <span>
#include <vela/core/internal/record_json.h>
#include <vela/wireless/acs.h>
#include <vela/wireless/internal/channel_blocks.h>

namespace
{

static_assert(sizeof(vela_acs_candidate) == 68);
static_assert(sizeof(vela_acs_options) == (sizeof(void *) == 8 ? 64 : 48));

constexpr uint32_t absent = UINT32_MAX;
constexpr uint32_t whole = 1000; // permille

constexpr uint32_t load_not_surveyed = 250;
constexpr int64_t scan_figure_of_minus_92_dbm = 4; // see scan_entry.rssi
constexpr int64_t scan_figure_of_0_dbm = 96;
constexpr int64_t noise_floor_dbm = -95;
constexpr int64_t full_power_mbm = 3000;
constexpr uint32_t long_check_ms = 600000;

constexpr uint32_t cost_of_check = 100, cost_of_long_check = 300;
constexpr uint32_t cost_not_preferred = 150, cost_off_grid = 50;

constexpr struct {
    uint32_t mhz, bit;
} widths[] = {
    {20, VELA_WIDTH_20}, {40, VELA_WIDTH_40}, {80, VELA_WIDTH_80}, {160, VELA_WIDTH_160}, {320, VELA_WIDTH_320},
};

/// The bit of a width; 0 when no channel is that wide.
constexpr uint32_t width_bit(uint32_t mhz)
{
    for (const auto &w : widths) {
        if (w.mhz == mhz) return w.bit;
    }
    return 0;
}

struct inputs {
    std::span<const vela_channel> channels;
    std::span<const vela_airtime> airtimes;
    const scan_list *heard;
    const vela_acs_options &options;

    [[nodiscard]] std::span<const uint32_t> preferred() const { return {options.preferred, options.preferred_count}; }
    [[nodiscard]] std::span<const uint32_t> forbidden() const { return {options.forbidden, options.forbidden_count}; }
    [[nodiscard]] bool is_own(const uint8_t *bssid) const
    {
        const std::span own{options.own, options.own_count};
        return std::ranges::any_of(own, [&](const auto &mac) { return memcmp(mac, bssid, sizeof mac) == 0; });
    }
};

/// How much of an access point that far away is heard, in percent.
constexpr uint32_t overlap_percent(uint32_t band, uint32_t distance_mhz)
{
    if (distance_mhz == 0) return 100;
    if (band != NL80211_BAND_2GHZ || distance_mhz > 15) return 0;
    return distance_mhz <= 5 ? 75 : distance_mhz <= 10 ? 40 : 15;
}

/// A block of channels under judgement: what the inputs say of it.
class block
{
public:
    block(const inputs &in, uint32_t primary_mhz, uint32_t first_mhz, uint32_t width_mhz)
        : in_{in}, primary_mhz_{primary_mhz}, first_mhz_{first_mhz}, width_mhz_{width_mhz}
    {
        for (const auto &channel : in.channels) see(channel);
        for (const auto &airtime : in.airtimes) see(airtime);
        if (!in.heard) return;
        const auto *head = reinterpret_cast<const scan_entry *>(in.heard);
        for (const scan_entry *e = in.heard->first; e != head; e = e->next) see(*e);
    }

    [[nodiscard]] uint32_t refusals() const
    {
        const auto told = [](bool holds, uint32_t bit) { return holds ? bit : 0; };
        const bool radar = flags_ & VELA_CHANNEL_RADAR;
        const bool forbidden =
            std::ranges::any_of(in_.forbidden(), [this](uint32_t mhz) { return index_of(mhz) != absent; });
        const bool whole_block = std::all_of(parts_.begin(), parts_.begin() + parts(), [](auto &p) { return p.there; });
        return told(flags_ & VELA_CHANNEL_DISABLED, VELA_ACS_DISABLED) |
               told(flags_ & VELA_CHANNEL_NO_IR, VELA_ACS_NO_IR) | told(forbidden, VELA_ACS_FORBIDDEN) |
               told(radar && !in_.options.allow_dfs, VELA_ACS_RADAR) | told(radar_seen_, VELA_ACS_RADAR_SEEN) |
               told((flags_ & VELA_CHANNEL_INDOOR) && !in_.options.allow_indoor, VELA_ACS_INDOOR) |
               told(!whole_block || !(widths_ & width_bit(width_mhz_)), VELA_ACS_WIDTH);
    }

    [[nodiscard]] vela_acs_candidate facts() const
    {
        uint32_t most = 0, surveyed = 0;
        for (const part &p : parts_) {
            if (!p.surveyed) continue;
            ++surveyed;
            most = std::max(most, p.load);
        }
        return {.primary_mhz = primary_mhz_,
                .center_mhz = first_mhz_ + (width_mhz_ - vela::part_mhz) / 2,
                .width_mhz = width_mhz_,
                .verdict = VELA_ACS_REFUSED,
                .refused = refusals(),
                .cost = absent,
                .occupancy = absent,
                .noise = absent,
                .power = absent,
                .dfs = absent,
                .policy = absent,
                .other_permille = surveyed != 0 ? most : absent,
                .surveyed = surveyed,
                .heard_count = heard_count_,
                .strongest_dbm = strongest_dbm_,
                .noise_dbm = noise_dbm_,
                .power_mbm = power_mbm_};
    }

    [[nodiscard]] uint32_t occupancy() const
    {
        uint32_t sum = 2 * parts_[index_of(primary_mhz_)].occupied();
        for (uint32_t i = 0; i < parts(); ++i) sum += parts_[i].occupied();
        return sum / (parts() + 2);
    }
    [[nodiscard]] uint32_t noise() const
    {
        if (noise_dbm_ == INT32_MIN) return 0;
        return static_cast<uint32_t>(10 * std::clamp<int64_t>(noise_dbm_ - noise_floor_dbm, 0, 30));
    }
    [[nodiscard]] uint32_t power() const
    {
        if (power_mbm_ == INT32_MIN) return 0;
        return static_cast<uint32_t>(std::clamp<int64_t>(full_power_mbm - power_mbm_, 0, full_power_mbm) / 20);
    }
    [[nodiscard]] uint32_t dfs() const { return dfs_; }
    [[nodiscard]] uint32_t policy() const
    {
        const auto preferred = in_.preferred();
        const bool wanted = preferred.empty() || std::ranges::find(preferred, primary_mhz_) != preferred.end();
        return (wanted ? 0 : cost_not_preferred) + (on_grid() ? 0 : cost_off_grid);
    }

private:
    struct part {
        bool there = false;
        bool surveyed = false;
        uint32_t load = 0;
        uint32_t heard = 0;

        [[nodiscard]] uint32_t occupied() const
        {
            const uint32_t l = surveyed ? load : load_not_surveyed;
            return l + (whole - l) * std::min(heard, whole) / (2 * whole);
        }
    };

    [[nodiscard]] uint32_t parts() const { return width_mhz_ / vela::part_mhz; }
    /// Which part has this frequency; all ones for none.
    [[nodiscard]] uint32_t index_of(uint32_t mhz) const
    {
        const uint32_t above = mhz - first_mhz_; // wraps far beyond for one below
        return above < width_mhz_ && above % vela::part_mhz == 0 ? above / vela::part_mhz : absent;
    }

    void see(const vela_channel &channel)
    {
        const uint32_t i = index_of(channel.freq_mhz);
        if (i == absent) return;
        parts_[i].there = true;
        flags_ |= channel.flags;
        widths_ &= channel.widths;
        if (channel.max_power_mbm != INT32_MIN) {
            power_mbm_ = power_mbm_ == INT32_MIN ? channel.max_power_mbm : std::min(power_mbm_, channel.max_power_mbm);
        }
        if (!(channel.flags & VELA_CHANNEL_RADAR)) return;
        if (channel.dfs_state == VELA_DFS_UNAVAILABLE) radar_seen_ = true;
        if (channel.dfs_state == VELA_DFS_AVAILABLE) return;
        const bool takes_long = channel.cac_ms != absent && channel.cac_ms >= long_check_ms;
        dfs_ = std::max(dfs_, takes_long ? cost_of_long_check : cost_of_check);
    }
    void see(const vela_airtime &airtime)
    {
        const uint32_t i = index_of(airtime.freq_mhz);
        if (i == absent) return;
        noise_dbm_ = std::max(noise_dbm_, airtime.noise_dbm);
        if (airtime.other_permille == absent) return;
        parts_[i].surveyed = true;
        parts_[i].load = std::max(parts_[i].load, std::min(airtime.other_permille, whole));
    }
    void see(const scan_entry &heard)
    {
        // Most are elsewhere in the band: those cost a subtraction and a comparison.
        const uint32_t above = heard.freq + vela::part_mhz - first_mhz_; // counted from one part below the block
        if (above >= width_mhz_ + vela::part_mhz || in_.is_own(heard.bssid)) return;
        const int64_t above_floor = std::max<int64_t>(0, int64_t{heard.rssi} - scan_figure_of_minus_92_dbm);
        const auto weight = static_cast<uint32_t>(std::min<int64_t>(200, 5 * above_floor));
        const uint32_t next = above / vela::part_mhz, beyond = above % vela::part_mhz;
        const bool counts_below = hear(next - 1, weight, beyond);
        const bool counts_above = hear(next, weight, vela::part_mhz - beyond);
        if (!counts_below && !counts_above) return;
        ++heard_count_;
        const int64_t dbm = std::max<int64_t>(strongest_dbm_, int64_t{heard.rssi} - scan_figure_of_0_dbm);
        strongest_dbm_ = static_cast<int32_t>(dbm);
    }
    /// Whether an access point so far from a part is heard there, and if so counts it.
    bool hear(uint32_t i, uint32_t weight, uint32_t distance_mhz)
    {
        const uint32_t percent = overlap_percent(in_.options.band, distance_mhz);
        if (i >= parts() || percent == 0) return false;
        parts_[i].heard = std::min(parts_[i].heard + weight * percent / 100, whole);
        return true;
    }

    [[nodiscard]] bool on_grid() const
    {
        if (in_.options.band == NL80211_BAND_2GHZ) {
            return primary_mhz_ == 2412 || primary_mhz_ == 2437 || primary_mhz_ == 2462;
        }
        if (in_.options.band == NL80211_BAND_6GHZ) return (primary_mhz_ - 5975) % 80 == 0; // channel 5 and every 16th
        return true;
    }

    const inputs &in_;
    uint32_t primary_mhz_, first_mhz_, width_mhz_;
    std::array<part, vela::parts_max> parts_ = {};
    uint32_t flags_ = 0, widths_ = absent, dfs_ = 0, heard_count_ = 0;
    int32_t noise_dbm_ = INT32_MIN, power_mbm_ = INT32_MIN, strongest_dbm_ = INT32_MIN;
    bool radar_seen_ = false;
};

vela_acs_candidate judged(const inputs &in, uint32_t primary_mhz, uint32_t first_mhz)
{
    const block b{in, primary_mhz, first_mhz, in.options.width_mhz};
    vela_acs_candidate c = b.facts();
    if (c.refused != 0) return c;
    c.verdict = VELA_ACS_USABLE;
    c.occupancy = b.occupancy();
    c.noise = b.noise();
    c.power = b.power();
    c.dfs = b.dfs();
    c.policy = b.policy();
    c.cost = c.occupancy + c.noise + c.power + c.dfs + c.policy;
    return c;
}

/// A channel that lies in no block of the wanted width: judged by itself, and refused.
vela_acs_candidate too_narrow(const inputs &in, uint32_t primary_mhz)
{
    vela_acs_candidate c = block{in, primary_mhz, primary_mhz, vela::part_mhz}.facts();
    c.center_mhz = absent;
    c.width_mhz = in.options.width_mhz;
    c.refused |= VELA_ACS_WIDTH;
    return c;
}

/// The order of the answer.
bool comes_before(const vela_acs_candidate &a, const vela_acs_candidate &b)
{
    if (a.verdict != b.verdict) return a.verdict > b.verdict;
    if (a.cost != b.cost) return a.cost < b.cost;
    if (a.primary_mhz != b.primary_mhz) return a.primary_mhz < b.primary_mhz;
    return a.center_mhz < b.center_mhz;
}
static_assert(VELA_ACS_KEPT > VELA_ACS_USABLE && VELA_ACS_USABLE > VELA_ACS_REFUSED);

/// The best candidates, as many as there is room for: a heap with the worst on top until it is sorted.
class ranking
{
public:
    explicit ranking(std::span<vela_acs_candidate> room) : room_{room} {}
    void add(const vela_acs_candidate &c)
    {
        if (count_ == room_.size()) {
            if (room_.empty() || !comes_before(c, room_.front())) return;
            std::pop_heap(begin(), end(), comes_before);
            --count_;
        }
        room_[count_++] = c;
        std::push_heap(begin(), end(), comes_before);
    }
    size_t sort()
    {
        std::sort_heap(begin(), end(), comes_before);
        return count_;
    }

private:
    vela_acs_candidate *begin() { return room_.data(); }
    vela_acs_candidate *end() { return room_.data() + count_; }

    std::span<vela_acs_candidate> room_;
    size_t count_ = 0;
};

/// Judges every block around every channel of the band.
template <class Use> void for_each_candidate(const inputs &in, Use use)
{
    const uint32_t band = in.options.band, width_mhz = in.options.width_mhz;
    for (size_t n = 0; n < in.channels.size(); ++n) {
        const uint32_t mhz = in.channels[n].freq_mhz;
        const auto same = [mhz](const vela_channel &c) { return c.freq_mhz == mhz; };
        if (in.channels[n].band != band || std::ranges::any_of(in.channels.first(n), same)) continue;
        bool none = true;
        vela::for_each_block(band, width_mhz, mhz, [&](uint32_t first_mhz) {
            none = false;
            use(judged(in, mhz, first_mhz));
        });
        if (none) use(too_narrow(in, mhz));
    }
}

size_t rank(const inputs &in, std::span<vela_acs_candidate> out)
{
    ranking best{out};
    uint32_t least = absent;
    std::optional<vela_acs_candidate> current; // kept aside until the least cost is known
    for_each_candidate(in, [&](const vela_acs_candidate &c) {
        least = std::min(least, c.cost);
        if (c.primary_mhz != in.options.current_mhz || c.verdict == VELA_ACS_REFUSED) return best.add(c);
        if (current && !comes_before(c, *current)) return best.add(c);
        if (current) best.add(*current);
        current = c;
    });
    if (current) {
        if (current->cost - least <= in.options.hysteresis) current->verdict = VELA_ACS_KEPT;
        best.add(*current);
    }
    return best.sort();
}

} // namespace

int vela_acs_rank(const vela_channel *channels, size_t channel_count, const vela_airtime *airtimes,
                  size_t airtime_count, const scan_list *heard, const vela_acs_options *options,
                  vela_acs_candidate *out, size_t max)
{
    const auto missing = [](const auto *array, size_t count) { return !array && count != 0; };
    if (missing(channels, channel_count) || missing(airtimes, airtime_count) || missing(out, max)) return -EINVAL;
    if (!options || width_bit(options->width_mhz) == 0) return -EINVAL;
    if (missing(options->preferred, options->preferred_count)) return -EINVAL;
    if (missing(options->forbidden, options->forbidden_count)) return -EINVAL;
    if (missing(options->own, options->own_count)) return -EINVAL;
    const inputs in{{channels, channel_count}, {airtimes, airtime_count}, heard, *options};
    return static_cast<int>(rank(in, {out, max}));
}

namespace
{

using vela::shown;
using vela::unknown;

const char *verdict_name(uint32_t verdict)
{
    constexpr const char *names[] = {"refused", "usable", "kept"};
    return verdict < std::size(names) ? names[verdict] : nullptr;
}

constexpr struct {
    uint32_t bit;
    const char *name;
} refusal_names[] = {
    {VELA_ACS_DISABLED, "disabled"}, {VELA_ACS_NO_IR, "no_ir"},           {VELA_ACS_FORBIDDEN, "forbidden"},
    {VELA_ACS_RADAR, "radar"},       {VELA_ACS_RADAR_SEEN, "radar_seen"}, {VELA_ACS_INDOOR, "indoor"},
    {VELA_ACS_WIDTH, "width"},
};

constexpr vela::json_row rows[] = {
    {"primary_mhz", VELA_MEMBER(vela_acs_candidate, primary_mhz), shown::number, unknown::ones},
    {"center_mhz", VELA_MEMBER(vela_acs_candidate, center_mhz), shown::number, unknown::ones},
    {"width_mhz", VELA_MEMBER(vela_acs_candidate, width_mhz), shown::number, unknown::ones},
    {"verdict", VELA_MEMBER(vela_acs_candidate, verdict), shown::word, unknown::never, verdict_name},
    {"cost", VELA_MEMBER(vela_acs_candidate, cost), shown::number, unknown::ones},
    {"occupancy", VELA_MEMBER(vela_acs_candidate, occupancy), shown::number, unknown::ones},
    {"noise", VELA_MEMBER(vela_acs_candidate, noise), shown::number, unknown::ones},
    {"power", VELA_MEMBER(vela_acs_candidate, power), shown::number, unknown::ones},
    {"dfs", VELA_MEMBER(vela_acs_candidate, dfs), shown::number, unknown::ones},
    {"policy", VELA_MEMBER(vela_acs_candidate, policy), shown::number, unknown::ones},
    {"other_permille", VELA_MEMBER(vela_acs_candidate, other_permille), shown::number, unknown::ones},
    {"surveyed", VELA_MEMBER(vela_acs_candidate, surveyed), shown::number, unknown::never},
    {"heard_count", VELA_MEMBER(vela_acs_candidate, heard_count), shown::number, unknown::never},
    {"strongest_dbm", VELA_MEMBER(vela_acs_candidate, strongest_dbm), shown::number, unknown::lowest},
    {"noise_dbm", VELA_MEMBER(vela_acs_candidate, noise_dbm), shown::number, unknown::lowest},
    {"power_mbm", VELA_MEMBER(vela_acs_candidate, power_mbm), shown::number, unknown::lowest},
};

vela::json_ref refusals_json(uint32_t refused)
{
    vela::json_ref array{json_array()};
    for (const auto &reason : refusal_names) {
        if (!(refused & reason.bit)) continue;
        if (json_array_append_new(array.get(), json_string(reason.name)) != 0) return {};
    }
    return array;
}

vela::json_ref candidate_json(const vela_acs_candidate &c)
{
    vela::json_ref object = vela::record_json(rows, c);
    if (!object || !vela::put_json(object.get(), "refused", refusals_json(c.refused))) return {};
    return object;
}

} // namespace

json_t *vela_acs_json(const vela_acs_candidate *candidates, size_t count)
{
    if (!candidates && count != 0) {
        errno = EINVAL;
        return nullptr;
    }
    vela::json_ref array{json_array()};
    for (size_t i = 0; i < count; ++i) {
        if (json_array_append_new(array.get(), candidate_json(candidates[i]).release()) == 0) continue;
        array.reset();
        break;
    }
    if (!array) errno = ENOMEM;
    return array.release();
}
