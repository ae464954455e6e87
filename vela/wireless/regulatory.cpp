// Transmit power limits and restricted modes, from what the regulatory tool prints.
//
// The tool prints one line per channel of a band in ascending order: index, channel, flags, maximum EIRP, maximum
// antenna gain, and one figure more. A second form of it prints a line about the country with a byte of PHY modes.

#include <algorithm>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/stream.h>
#include <vela/core/internal/text.h>
#include <vela/wireless/freq.h>
#include <vela/wireless/internal/regulatory.h>
#include <vela/wireless/regulatory.h>

namespace
{

constexpr const char *log_module = "regdomain";

constexpr const char *list_command = "vela-regdomain -c -f -%s %d";
constexpr const char *country_command = "vela-regdomain %u";
constexpr size_t line_size = 256;
constexpr unsigned failed = UINT32_MAX;

const char *band_letter(int32_t band)
{
    switch (band) {
    case VL_BAND_2G4: return "G";
    case VL_BAND_4G9:
    case VL_BAND_5G: return "A";
    case VL_BAND_6G: return "6";
    default: return nullptr;
    }
}

vela::pipe_ptr run(const char *command) { return vela::pipe_ptr{popen(command, "re")}; }

// The antenna's gain above the channel's allowance is taken off the limit. Wraps to 32 bits, as the tool's figures are.
int32_t adjusted(int32_t max_eirp, int32_t antenna_gain, int32_t max_antenna_gain)
{
    const int64_t excess = std::max<int64_t>(int64_t{antenna_gain} - max_antenna_gain, 0);
    return static_cast<int32_t>(max_eirp - excess);
}

std::optional<vela::regulatory::channel_limit> parse_channel(const char *line, int32_t antenna_gain)
{
    vela::regulatory::channel_limit limit = {};
    char flags[line_size] = "";
    if (sscanf(line, "%d %d %255s %d %d %d", &limit.column1, &limit.channel, flags, &limit.max_eirp,
               &limit.max_antenna_gain, &limit.column6) != 6) {
        return std::nullopt;
    }
    memcpy(limit.flags, flags, sizeof limit.flags); // what follows a shorter word is zero
    limit.max_eirp_adjusted = adjusted(limit.max_eirp, antenna_gain, limit.max_antenna_gain);
    return limit;
}

int by_channel(const void *key, const void *entry)
{
    const int32_t wanted = *static_cast<const int32_t *>(key);
    const int32_t channel = static_cast<const vela::regulatory::channel_limit *>(entry)->channel;
    return (wanted > channel) - (wanted < channel);
}

int vl_regulatory_get_max_eirp(int32_t country, int32_t band, int32_t channel, int32_t antenna_gain, int32_t &eirp_out,
                               int32_t &adjusted_out)
{
    const char *letter = band_letter(band);
    if (!letter) {
        log_error("unsupported band: %d\n", band);
        return -1;
    }
    vela::pipe_ptr listing = run(vela::formatted<64>{list_command, letter, country}.c_str());
    if (!listing) {
        log_error("failed to run command");
        return -1;
    }
    vela::regulatory::limits channels;
    vela::regulatory::read_channels(listing.get(), antenna_gain, channels);
    listing.reset();
    if (channels.count == 0) {
        log_error("no channels found in the regulatory domain");
        return -1;
    }
    const auto *found = vela::regulatory::find_channel(channels, channel);
    if (!found) return -1;
    eirp_out = found->max_eirp;
    adjusted_out = found->max_eirp_adjusted;
    return 0;
}

// A row's restriction bits apply when all of its mode bits are set. On purpose no row gives bit 5 or reads mode bit 7.
struct restriction {
    uint8_t modes;
    uint8_t bits;
};
constexpr restriction restrictions[]{{0x01, 0x01}, {0x06, 0x02}, {0x08, 0x0C},
                                     {0x10, 0x10}, {0x20, 0x40}, {0x40, 0x80}};

constexpr unsigned restricted_by(uint8_t modes)
{
    unsigned bits = 0;
    for (const auto &r : restrictions) {
        if ((modes & r.modes) == r.modes) bits |= r.bits;
    }
    return bits;
}
static_assert(restricted_by(0x7F) == 0xDF && restricted_by(0x02) == 0 && restricted_by(0x80) == 0);

} // namespace

namespace vela::regulatory
{

void read_channels(FILE *listing, int32_t antenna_gain, limits &channels)
{
    char line[line_size];
    while (vela::read_piece(listing, line) != 0) {
        const auto limit = parse_channel(line, antenna_gain);
        if (limit && channels.count < channels_max) channels.entries[channels.count++] = *limit;
    }
}

const channel_limit *find_channel(const limits &channels, int32_t channel)
{
    const void *found = bsearch(&channel, channels.entries, channels.count, sizeof channels.entries[0], by_channel);
    return static_cast<const channel_limit *>(found);
}

// "US (840) (0x3a, 10, 0x7f, ..."
std::optional<uint8_t> phy_modes(const char *line)
{
    const char *first = strchr(line, '(');
    const char *second = first ? strchr(first + 1, '(') : nullptr;
    unsigned ignored = 0;
    uint8_t modes = 0;
    if (!second || sscanf(second + 1, "0x%x, %u, 0x%hhx", &ignored, &ignored, &modes) != 3) return std::nullopt;
    return modes;
}

} // namespace vela::regulatory

unsigned vl_regulatory_get_target_power(const char *custom_value, const char *level, int32_t country, int32_t,
                                        int32_t band, int32_t channel, uint32_t min_power, uint32_t max_power,
                                        int32_t antenna_gain, unsigned *target_out, unsigned *max_out,
                                        uint8_t use_fixed_eirp, uint8_t fixed_eirp)
{
    // Unsigned from here on: on purpose a limit below zero is a huge one, cut to the radio's maximum.
    uint32_t limit = fixed_eirp - static_cast<uint32_t>(antenna_gain);
    if (use_fixed_eirp != 1) {
        int32_t eirp = 0;
        int32_t adjusted_eirp = 0;
        if (vl_regulatory_get_max_eirp(country, band, channel, antenna_gain, eirp, adjusted_eirp) != 0) return failed;
        limit = static_cast<uint32_t>(adjusted_eirp);
    }
    const uint32_t max = std::min(std::max(limit, min_power), max_power);

    const std::string_view chosen = vela::view(level);
    uint32_t candidate = max;
    int custom = 0;
    if (chosen == "low") {
        candidate = min_power;
    } else if (chosen == "medium") {
        candidate = (min_power + max) >> 1;
    } else if (chosen == "custom" && custom_value && sscanf(custom_value, "%d", &custom) == 1) {
        candidate = std::max(min_power, static_cast<uint32_t>(custom));
    }
    *target_out = std::min(max, candidate);
    *max_out = max;
    return 0;
}

unsigned vl_regulatory_get_restricted_modes(uint32_t country)
{
    char line[line_size];
    const vela::pipe_ptr answer = run(vela::formatted<64>{country_command, country}.c_str());
    const bool answered = answer && vela::read_piece(answer.get(), line) != 0;
    const auto modes = answered ? vela::regulatory::phy_modes(line) : std::nullopt;
    if (modes) return restricted_by(*modes);
    log_error("Couldn't get phymode_bitmap! Proceeding without adjustments.");
    return 0;
}
