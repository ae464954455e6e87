// The widths that nl80211 numbers.
#pragma once

#include <cstdint>
#include <linux/nl80211.h>

namespace vela
{

constexpr struct {
    uint32_t width;
    uint32_t mhz;
} channel_widths[] = {
    {NL80211_CHAN_WIDTH_20_NOHT, 20}, {NL80211_CHAN_WIDTH_20, 20},   {NL80211_CHAN_WIDTH_40, 40},
    {NL80211_CHAN_WIDTH_80, 80},      {NL80211_CHAN_WIDTH_160, 160}, {NL80211_CHAN_WIDTH_320, 320},
    {NL80211_CHAN_WIDTH_80P80, 160}, // two halves, 160 in all
    {NL80211_CHAN_WIDTH_5, 5},        {NL80211_CHAN_WIDTH_10, 10},   {NL80211_CHAN_WIDTH_1, 1},
    {NL80211_CHAN_WIDTH_2, 2},        {NL80211_CHAN_WIDTH_4, 4},     {NL80211_CHAN_WIDTH_8, 8},
    {NL80211_CHAN_WIDTH_16, 16},
};

/// 0 for what the kernel may invent.
constexpr uint32_t channel_width_mhz(uint32_t width)
{
    for (const auto &known : channel_widths) {
        if (known.width == width) return known.mhz;
    }
    return 0;
}
static_assert(channel_width_mhz(NL80211_CHAN_WIDTH_5) == 5 && channel_width_mhz(13) == 320 &&
              channel_width_mhz(14) == 0);

} // namespace vela
