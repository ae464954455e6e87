// The regulatory tool's two listings, read from a stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>

namespace vela::regulatory
{

constexpr size_t channels_max = 256; // 6 GHz has 233 channel numbers; what a tool lists beyond is dropped

struct channel_limit {
    int32_t column1;
    int32_t channel;
    char flags[4]; // not a text: no NUL where the word is longer
    int32_t max_eirp;
    int32_t max_antenna_gain;
    int32_t column6;
    int32_t max_eirp_adjusted;
};

struct limits {
    channel_limit entries[channels_max];
    size_t count = 0;
};

/// Reads the listing of a band to its end; lines that are no channel are passed over. The gain is the device's.
void read_channels(FILE *listing, int32_t antenna_gain, limits &channels);

/// The limit of a channel, or null.
const channel_limit *find_channel(const limits &channels, int32_t channel);

/// The byte of PHY modes in a country's line.
std::optional<uint8_t> phy_modes(const char *line);

} // namespace vela::regulatory
