// A radio's channels. nl80211 tells of a radio in many messages, a channel each; how wide a channel may be follows from
// its neighbours, so that all are gathered before the first is handed over.

#include <algorithm>
#include <cerrno>
#include <vela/core/internal/log.h>
#include <vela/wireless/freq.h>
#include <vela/wireless/internal/channel_blocks.h>
#include <vela/wireless/internal/nl80211_answer.h>
#include <vela/wireless/internal/nl80211_records.h>
#include <vela/wireless/survey.h>

static_assert(sizeof(vela_channel) == 36);

namespace
{

constexpr const char *log_module = "survey";

using vela::shown;

constexpr uint32_t absent = UINT32_MAX;
constexpr vela_channel nothing = {absent, 0, absent, 0, 0, INT32_MIN, absent, absent, absent};

constexpr vela::nl80211::number_row numbers[] = {
    {NL80211_FREQUENCY_ATTR_FREQ, VELA_MEMBER(vela_channel, freq_mhz)},
    {NL80211_FREQUENCY_ATTR_MAX_TX_POWER, VELA_MEMBER(vela_channel, max_power_mbm)},
    {NL80211_FREQUENCY_ATTR_DFS_STATE, VELA_MEMBER(vela_channel, dfs_state)},
    {NL80211_FREQUENCY_ATTR_DFS_TIME, VELA_MEMBER(vela_channel, dfs_ms)},
    {NL80211_FREQUENCY_ATTR_DFS_CAC_TIME, VELA_MEMBER(vela_channel, cac_ms)},
};

constexpr struct {
    uint32_t flag, attribute;
} flags[] = {
    {VELA_CHANNEL_DISABLED, NL80211_FREQUENCY_ATTR_DISABLED}, {VELA_CHANNEL_NO_IR, NL80211_FREQUENCY_ATTR_NO_IR},
    {VELA_CHANNEL_RADAR, NL80211_FREQUENCY_ATTR_RADAR},       {VELA_CHANNEL_INDOOR, NL80211_FREQUENCY_ATTR_INDOOR_ONLY},
    {VELA_CHANNEL_NO_HE, NL80211_FREQUENCY_ATTR_NO_HE},       {VELA_CHANNEL_NO_EHT, NL80211_FREQUENCY_ATTR_NO_EHT},
};

/// A width, and the marks that keep a channel out of any block of it.
constexpr struct width_row {
    uint32_t mhz, bit, forbidden_by;
} width_rows[] = {
    {20, VELA_WIDTH_20, 1U << NL80211_FREQUENCY_ATTR_NO_20MHZ},
    {40, VELA_WIDTH_40, 0}, // which half a channel may be is marked: see kept_out()
    {80, VELA_WIDTH_80, 1U << NL80211_FREQUENCY_ATTR_NO_80MHZ},
    {160, VELA_WIDTH_160, 1U << NL80211_FREQUENCY_ATTR_NO_160MHZ},
    {320, VELA_WIDTH_320, 1U << NL80211_FREQUENCY_ATTR_NO_320MHZ},
};
static_assert(NL80211_FREQUENCY_ATTR_NO_EHT < 32);

constexpr width_row width_of(uint32_t mhz)
{
    return *std::ranges::find(width_rows, mhz, &width_row::mhz); // every width of the blocks is there
}
static_assert(std::ranges::all_of(vela::block_ranges, [](auto &r) { return width_of(r.width_mhz).bit != 0; }));

// What a radio can do, as its capabilities say (IEEE 802.11, 9.4.2.55, 9.4.2.157, 9.4.2.248, 9.4.2.313).
constexpr uint16_t ht_40_mhz = 0x2;
constexpr uint32_t vht_160_mhz = 0xC;
constexpr uint8_t he_40_mhz_at_2g = 0x2, he_80_mhz = 0x4, he_160_mhz = 0x18;
constexpr uint8_t eht_320_mhz = 0x2;

uint32_t widths_by_type_data(const vela::raw_netlink::attribute &outer)
{
    uint32_t widths = 0;
    auto types = vela::raw_netlink::attributes::inside(outer);
    while (const auto type = types.next()) {
        auto walk = vela::raw_netlink::attributes::inside(*type);
        while (const auto a = walk.next()) {
            const uint8_t first = a->beginning<uint8_t>().value_or(0);
            if (a->type == NL80211_BAND_IFTYPE_ATTR_HE_CAP_PHY) {
                if (first & he_40_mhz_at_2g) widths |= VELA_WIDTH_40;
                if (first & he_80_mhz) widths |= VELA_WIDTH_40 | VELA_WIDTH_80;
                if (first & he_160_mhz) widths |= VELA_WIDTH_160;
            }
            if (a->type == NL80211_BAND_IFTYPE_ATTR_EHT_CAP_PHY && (first & eht_320_mhz)) widths |= VELA_WIDTH_320;
        }
    }
    return widths;
}

/// What a band's attribute says of the widths that the radio has there.
uint32_t widths_by(const vela::raw_netlink::attribute &a)
{
    switch (a.type) {
    case NL80211_BAND_ATTR_HT_CAPA: return a.as<uint16_t>().value_or(0) & ht_40_mhz ? VELA_WIDTH_40 : 0;
    case NL80211_BAND_ATTR_VHT_CAPA:
        return VELA_WIDTH_80 | (a.as<uint32_t>().value_or(0) & vht_160_mhz ? VELA_WIDTH_160 : 0);
    case NL80211_BAND_ATTR_IFTYPE_DATA: return widths_by_type_data(a);
    default: return 0;
    }
}

uint32_t number_of(const vela_channel &channel)
{
    const uint32_t mhz = channel.freq_mhz;
    if (channel.band == NL80211_BAND_5GHZ && mhz >= 5000) return (mhz - 5000) / 5; // also the last, 5925 MHz
    return vl_freq_to_band(mhz) == VL_BAND_UNKNOWN ? absent : vl_freq_to_channel(mhz);
}

/// Whether the marks keep a channel from being this part of a block.
bool kept_out(uint32_t marks, uint32_t part, uint32_t width_mhz)
{
    constexpr uint32_t below = 1U << NL80211_FREQUENCY_ATTR_NO_HT40_MINUS;
    constexpr uint32_t above = 1U << NL80211_FREQUENCY_ATTR_NO_HT40_PLUS;
    if (marks & 1U << NL80211_FREQUENCY_ATTR_DISABLED) return true;
    if (width_mhz == 40) return (marks & (part == 0 ? above : below)) != 0;
    return (marks & width_of(width_mhz).forbidden_by) != 0;
}

const char *dfs_name(uint32_t state)
{
    constexpr const char *names[] = {"usable", "unavailable", "available"};
    return state < std::size(names) ? names[state] : nullptr;
}

constexpr vela::json_row rows[] = {
    {"freq_mhz", VELA_MEMBER(vela_channel, freq_mhz), shown::number, vela::unknown::ones},
    {"band", VELA_MEMBER(vela_channel, band), shown::number, vela::unknown::ones},
    {"number", VELA_MEMBER(vela_channel, number), shown::number, vela::unknown::ones},
    {"max_power_mbm", VELA_MEMBER(vela_channel, max_power_mbm), shown::number, vela::unknown::lowest},
    {"dfs_state", VELA_MEMBER(vela_channel, dfs_state), shown::word, vela::unknown::ones, dfs_name},
    {"dfs_ms", VELA_MEMBER(vela_channel, dfs_ms), shown::number, vela::unknown::ones},
    {"cac_ms", VELA_MEMBER(vela_channel, cac_ms), shown::number, vela::unknown::ones},
    {"disabled", VELA_MEMBER(vela_channel, flags), shown::bit, vela::unknown::never, nullptr, VELA_CHANNEL_DISABLED},
    {"no_ir", VELA_MEMBER(vela_channel, flags), shown::bit, vela::unknown::never, nullptr, VELA_CHANNEL_NO_IR},
    {"radar", VELA_MEMBER(vela_channel, flags), shown::bit, vela::unknown::never, nullptr, VELA_CHANNEL_RADAR},
    {"indoor", VELA_MEMBER(vela_channel, flags), shown::bit, vela::unknown::never, nullptr, VELA_CHANNEL_INDOOR},
    {"no_he", VELA_MEMBER(vela_channel, flags), shown::bit, vela::unknown::never, nullptr, VELA_CHANNEL_NO_HE},
    {"no_eht", VELA_MEMBER(vela_channel, flags), shown::bit, vela::unknown::never, nullptr, VELA_CHANNEL_NO_EHT},
};

vela::json_ref widths_json(uint32_t widths)
{
    vela::json_ref array{json_array()};
    for (const auto &w : width_rows) {
        if ((widths & w.bit) && json_array_append_new(array.get(), json_integer(w.mhz)) != 0) return {};
    }
    return array;
}

vela::json_ref channel_json(const vela_channel &channel)
{
    vela::json_ref object = vela::record_json(rows, channel);
    if (!object || !vela::put_json(object.get(), "widths", widths_json(channel.widths))) return {};
    return object;
}

} // namespace

namespace vela::nl80211
{

void channel_list::read(bytes message)
{
    raw_netlink::attributes walk{message};
    while (const auto a = walk.next()) {
        if (a->type != NL80211_ATTR_WIPHY_BANDS) continue;
        auto bands = raw_netlink::attributes::inside(*a);
        while (const auto band = bands.next()) read_band(*band);
    }
}

void channel_list::read_band(const raw_netlink::attribute &outer)
{
    const uint32_t band = outer.type;
    if (band >= radio_widths_.size() || band == NL80211_BAND_S1GHZ) return; // there they are 1 MHz wide
    auto walk = raw_netlink::attributes::inside(outer);
    while (const auto a = walk.next()) {
        radio_widths_[band] |= widths_by(*a);
        if (a->type != NL80211_BAND_ATTR_FREQS) continue;
        auto list = raw_netlink::attributes::inside(*a);
        while (const auto channel = list.next()) read_channel(*channel, band);
    }
}

void channel_list::read_channel(const raw_netlink::attribute &outer, uint32_t band)
{
    vela_channel channel = nothing;
    uint32_t marks = 0;
    auto walk = raw_netlink::attributes::inside(outer);
    while (const auto a = walk.next()) {
        if (a->type < 32) marks |= 1U << a->type;
        (void)store(numbers, *a, &channel); // others are marks only, or do not concern us
    }
    if (channel.freq_mhz == absent) return;
    left_out_ = left_out_ || count_ == most;
    if (left_out_) return;
    for (const auto &f : flags) {
        if (marks & 1U << f.attribute) channel.flags |= f.flag;
    }
    channel.band = band;
    channel.number = number_of(channel);
    if (!kept_out(marks, 0, part_mhz)) channel.widths = VELA_WIDTH_20;
    marks_[count_] = marks;
    channels_[count_++] = channel;
}

/// Gives the parts of a block its width, where all of them are there and may be what they are in it.
void channel_list::allow_block(uint32_t band, uint32_t first_mhz, uint32_t width_mhz)
{
    const auto part_of = [=](const vela_channel &c) {
        const uint32_t above = c.band == band ? c.freq_mhz - first_mhz : absent;
        return above < width_mhz && above % part_mhz == 0 ? above / part_mhz : parts_max;
    };
    uint32_t seen = 0;
    for (size_t i = 0; i < count_; ++i) {
        const uint32_t part = part_of(channels_[i]);
        if (part == parts_max) continue;
        if (kept_out(marks_[i], part, width_mhz)) return;
        seen |= 1U << part;
    }
    if (seen != (1U << width_mhz / part_mhz) - 1) return;
    for (size_t i = 0; i < count_; ++i) {
        if (part_of(channels_[i]) != parts_max) channels_[i].widths |= width_of(width_mhz).bit;
    }
}

std::span<const vela_channel> channel_list::finish()
{
    for (const auto &range : block_ranges) {
        if (!(radio_widths_[range.band] & width_of(range.width_mhz).bit)) continue;
        for (uint32_t mhz = range.first_mhz; mhz <= range.last_mhz; mhz += range.step_mhz) {
            allow_block(range.band, mhz, range.width_mhz);
        }
    }
    return {channels_.data(), count_};
}

} // namespace vela::nl80211

int vela_channel_foreach(vl_nl80211_service *service, const char *ifname, vela_channel_callback each, void *arg)
{
    using namespace vela::nl80211;
    if (check(service) != 0 || !each) return -EINVAL;
    question radio{*service, NL80211_CMD_GET_WIPHY};
    if (const int result = address_to(radio, ifname); result != 0) return result;
    radio.put_flag(NL80211_ATTR_SPLIT_WIPHY_DUMP);
    channel_list channels;
    const int result = radio.ask(vela::raw_netlink::how_much::all, [&](bytes message) {
        channels.read(message);
        return true;
    });
    if (result != 0 && result != -EAGAIN) return result;
    const auto found = channels.finish();
    if (channels.left_some_out()) log_warn("%s: a radio with more than %zu channels", ifname, channel_list::most);
    int count = 0;
    for (const auto &channel : found) {
        ++count;
        if (each(&channel, arg) != 0) return count;
    }
    return result == 0 ? count : result;
}

json_t *vela_channel_json(vl_nl80211_service *service, const char *ifname)
{
    return vela::list_json<vela_channel>(
        [&](auto each, void *arg) { return vela_channel_foreach(service, ifname, each, arg); }, channel_json);
}
