// One message of nl80211 as one record. What it does not tell is "not known"; hostile bytes give a record of some kind.
#pragma once

#include <array>
#include <cstdint>
#include <linux/nl80211.h>
#include <optional>
#include <span>
#include <vela/core/internal/raw_netlink.h>
#include <vela/wireless/station.h>
#include <vela/wireless/survey.h>
#include <vela/wireless/wlan.h>

namespace vela::nl80211
{

vela_wlan read_wlan(std::span<const uint8_t> message);

vela_sta_info read_station(std::span<const uint8_t> message);

/// Nothing when it names no channel.
std::optional<vela_survey> read_survey(std::span<const uint8_t> message);

/// A radio's channels, gathered from the many messages that tell of it.
class channel_list
{
public:
    static constexpr size_t most = 256;

    void read(std::span<const uint8_t> message);
    /// The channels with the widths that each can be a part of, once all messages were read.
    std::span<const vela_channel> finish();
    [[nodiscard]] bool left_some_out() const { return left_out_; }

private:
    void read_band(const raw_netlink::attribute &outer);
    void read_channel(const raw_netlink::attribute &outer, uint32_t band);
    void allow_block(uint32_t band, uint32_t first_mhz, uint32_t width_mhz);

    std::array<uint32_t, NUM_NL80211_BANDS> radio_widths_ = {}; // VELA_WIDTH_... that the radio has in each band
    std::array<vela_channel, most> channels_;
    std::array<uint32_t, most> marks_; // what nl80211 marks each with: a bit per NL80211_FREQUENCY_ATTR_...
    size_t count_ = 0;
    bool left_out_ = false;
};

} // namespace vela::nl80211
