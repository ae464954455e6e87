// Which 20 MHz channels may be bonded to a wider one (IEEE 802.11, Annex E): fixed blocks at 5 and 6 GHz, any
// neighbour at 2.4 GHz.
#pragma once

#include <cstdint>
#include <linux/nl80211.h>

namespace vela
{

constexpr uint32_t part_mhz = 20;
constexpr uint32_t parts_max = 16; // of a 320 MHz channel

/// The first parts of the blocks of one width: a range of frequencies, `step` apart.
struct block_range {
    uint32_t band, width_mhz, first_mhz, last_mhz, step_mhz;
};
constexpr block_range block_ranges[] = {
    {NL80211_BAND_2GHZ, 40, 2412, 2452, 5},    // channels 1+5 to 9+13
    {NL80211_BAND_5GHZ, 40, 5180, 5300, 40},   // 36 to 64
    {NL80211_BAND_5GHZ, 40, 5500, 5700, 40},   // 100 to 144
    {NL80211_BAND_5GHZ, 40, 5745, 5865, 40},   // 149 to 177
    {NL80211_BAND_5GHZ, 80, 5180, 5260, 80},   //
    {NL80211_BAND_5GHZ, 80, 5500, 5660, 80},   //
    {NL80211_BAND_5GHZ, 80, 5745, 5825, 80},   //
    {NL80211_BAND_5GHZ, 160, 5180, 5180, 160}, // 36 to 64
    {NL80211_BAND_5GHZ, 160, 5500, 5500, 160}, // 100 to 128
    {NL80211_BAND_5GHZ, 160, 5745, 5745, 160}, // 149 to 177
    {NL80211_BAND_6GHZ, 40, 5955, 7075, 40},   // from channel 1 on, to 229
    {NL80211_BAND_6GHZ, 80, 5955, 6995, 80},   //
    {NL80211_BAND_6GHZ, 160, 5955, 6915, 160}, //
    {NL80211_BAND_6GHZ, 320, 5955, 6755, 160}, // two sets that overlap by half
};

/// Whether a block of this width begins with this channel. Every channel is a block of 20 MHz.
constexpr bool block_begins(uint32_t band, uint32_t width_mhz, uint32_t mhz)
{
    if (width_mhz == part_mhz) return true;
    for (const auto &r : block_ranges) {
        if (r.band != band || r.width_mhz != width_mhz || mhz < r.first_mhz || mhz > r.last_mhz) continue;
        if ((mhz - r.first_mhz) % r.step_mhz == 0) return true;
    }
    return false;
}
static_assert(block_begins(NL80211_BAND_5GHZ, 80, 5580) && !block_begins(NL80211_BAND_5GHZ, 80, 5200));

/// Calls with the first part of each block of this width that holds the channel: two of them at most overlap.
template <class Use> void for_each_block(uint32_t band, uint32_t width_mhz, uint32_t mhz, Use use)
{
    for (uint32_t below = 0; below < width_mhz && below < mhz; below += part_mhz) {
        if (block_begins(band, width_mhz, mhz - below)) use(mhz - below);
    }
}

} // namespace vela
