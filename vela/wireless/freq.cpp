// Frequencies, channels, bands and widths, and what an interface's files and driver say of it.
//
// Channel arithmetic (IEEE 802.11, Annex E) is in unsigned 32-bit numbers, with the borders that the management server
// and the radio driver expect. Two conventions live side by side: ours (vl_...) and the driver's (ieee80211_...).

#include <array>
#include <cerrno>
#include <linux/wireless.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <vela/core/file.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/wireless/freq.h>

namespace
{

constexpr const char *log_module = "wireless";

constexpr const char *interfaces_path = "/sys/class/net";
constexpr const char *usage_format = "/var/run/vapusage.%s";
constexpr const char *no_usage = "user";
constexpr size_t usage_size = 16;

constexpr uint32_t channel_14_mhz = 2484; // off the 2.4 GHz raster
constexpr uint32_t channel_2_mhz = 5935;  // of the 6 GHz band, likewise

constexpr bool within(uint32_t n, uint32_t low, uint32_t high) { return low <= n && n <= high; }

// The driver's PHY modes in its order: 802.11a to n, ac, ax, be.
// clang-format off
constexpr std::array<int16_t, 44> widths_mhz{
    20, 20, 20, 20, 20, 20, 20, 20, 20, // auto, a, b, g, FH, turbo a, turbo g, na HT20, ng HT20
    40, 40, 40, 40, 40, 40,             // na HT40 plus/minus, ng HT40 plus/minus, ng HT40, na HT40
    20, 40, 40, 40, 80, 160, 160,       // VHT20, VHT40 plus/minus/auto, VHT80, VHT160, VHT80+80
    20, 20, 40, 40, 40, 40, 40, 40,     // HE20, HE40 plus/minus, HE40 auto, each for both bands
    80, 160, 160,                       // HE80, HE160, HE80+80
    20, 20, 40, 40, 40, 40, 40, 40,     // EHT20, EHT40
    80, 160, 320,                       // EHT80, EHT160, EHT320
};
static_assert(widths_mhz[19] == 80 && widths_mhz[32] == 160 && widths_mhz[43] == 320);

// How a PHY mode's centre follows from the primary channel.
enum class centre : uint8_t {
    primary,    // 20 MHz and legacy modes
    above,      // 40 MHz, the second half above
    below,      // 40 MHz, the second half below
    driver_2g4, // 40 MHz at 2.4 GHz, the second half chosen by the driver
    block_40,   // 5 GHz channels come in fixed blocks
    block_80,
    block_160,
};

using enum centre;
constexpr std::array<centre, 33> centres{
    primary, primary, primary, primary, primary, primary, primary, primary, primary, // a to n, 20 MHz
    above, below, above, below, driver_2g4, block_40,                                // n, 40 MHz
    primary, above, below, block_40, block_80, block_160, block_80,                  // ac
    primary, primary, above, below, above, below, block_40, driver_2g4,              // ax, 20 and 40 MHz
    block_80, block_160, block_80,                                                   // ax, wider
};
static_assert(centres[14] == block_40 && centres[21] == block_80 && centres[29] == driver_2g4);
// clang-format on

// Blocks are counted from channel 36 on; the lowest bit moves odd channels (149 and up) onto theirs. The base is that
// of the 5 GHz band on purpose, whatever the band: callers ask for 5 GHz only.
int block_centre_mhz(uint32_t channel, int channels, int middle)
{
    const auto number = static_cast<int32_t>(channel);
    const int64_t into_block = (int64_t{number} - 4) % channels;
    return static_cast<int>(5000 + 5 * (number - into_block + middle + (number & 1)));
}

int role_of(const char *usage_path)
{
    char word[usage_size];
    const std::string_view usage = freadline(usage_path, word, sizeof word, no_usage);
    if (usage == "uplink") return VL_VAP_UPLINK;
    if (usage == "downlink") return VL_VAP_DOWNLINK;
    return VL_VAP_NO_ROLE;
}

bool operational(const char *ifname)
{
    const vela::formatted<64> path{"%s/%s/operstate", interfaces_path, ifname};
    char state[16];
    return vela::view(freadline(path.c_str(), state, sizeof state, "down")) == "up";
}

} // namespace

uint32_t vl_freq_to_channel(uint32_t freq_mhz)
{
    const uint32_t f = freq_mhz;
    if (f == channel_14_mhz) return 14;
    if (f < channel_14_mhz) return (f - 2407) / 5;
    if (within(f, 4910, 4980)) return (f - 4000) / 5;
    if (f <= 5924) return (f - 5000) / 5;
    if (f == channel_2_mhz) return 2;
    if (f <= 45000) return (f - 5950) / 5;
    if (within(f, 58320, 70200)) return (f - 56160) / 2160;
    return 0;
}

uint32_t vl_channel_to_freq(uint32_t channel, uint32_t band)
{
    if (channel == 0) return 0;
    switch (band) {
    case VL_BAND_2G4:
        if (channel == 14) return channel_14_mhz;
        return channel < 14 ? 2407 + 5 * channel : 0;
    case VL_BAND_5G: return within(channel, 36, 177) ? 5000 + 5 * channel : 0;
    case VL_BAND_6G: return channel <= 233 ? 5950 + 5 * channel : 0; // channel 2 is like any other here
    default: return 0;
    }
}

int vl_freq_to_band(uint32_t freq_mhz)
{
    if (within(freq_mhz, 2412, 2484)) return VL_BAND_2G4;
    if (within(freq_mhz, 4910, 4980)) return VL_BAND_4G9;
    if (within(freq_mhz, 5160, 5925)) return VL_BAND_5G;
    if (within(freq_mhz, 5935, 7115)) return VL_BAND_6G;
    if (within(freq_mhz, 58320, 70200)) return VL_BAND_60G;
    return VL_BAND_UNKNOWN;
}

const char *get_band(uint32_t freq_mhz)
{
    if (within(freq_mhz, 4910, 5875)) return "na";
    if (within(freq_mhz, 5945, 7125)) return "6e";
    if (within(freq_mhz, 2412, 2484)) return "ng";
    return "unknown";
}

uint32_t ieee80211_mhz2ieee(uint32_t freq_mhz)
{
    const uint32_t f = freq_mhz;
    if (f == channel_14_mhz) return 14;
    if (f < channel_14_mhz) return (f - 2407) / 5;
    if (f >= 5951) return (f - 5950) / 5;
    if (f >= 5000) return (f - 5000) / 5;
    // The public-safety band has half channels on its 5 MHz raster.
    if (within(f, 4941, 4989)) return (10 * f - 49400 + (f % 5 == 2 ? 5 : 0)) / 5;
    if (f <= 4900) return (f - 2512) / 20 + 15;
    return (f - 4000) / 5;
}

int get_center_freq(uint32_t freq_mhz, uint32_t channel, uint32_t phy_mode)
{
    if (phy_mode >= centres.size()) return -1;
    switch (centres[phy_mode]) {
    case primary: return static_cast<int>(freq_mhz);
    case above: return static_cast<int>(freq_mhz + 10);
    case below: return static_cast<int>(freq_mhz - 10);
    case driver_2g4: return channel < 7 ? 2422 : 2462;
    case block_40: return block_centre_mhz(channel, 8, 2);
    case block_80: return block_centre_mhz(channel, 16, 6);
    case block_160: return block_centre_mhz(channel, 32, 14);
    }
    return -1;
}

int get_bw(uint32_t phy_mode)
{
    const auto index = static_cast<uint8_t>(phy_mode);
    if (index < widths_mhz.size()) return widths_mhz[index];
    log_info("unknown phymode: 0x%x\n", phy_mode);
    return -1;
}

int8_t vela_convert_to_dbm(int value, int step)
{
    return static_cast<int8_t>(static_cast<uint32_t>(value) - 96 + 3 * static_cast<uint32_t>(step));
}

int get_if_essid(const char *ifname, char *buf, size_t len)
{
    if (len == 0) return -1;
    const vela::unique_fd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (!fd.ok()) return -1;

    iwreq request = {};
    vela::copy_text(request.ifr_name, vela::view(ifname));
    request.u.essid.pointer = buf;
    request.u.essid.length = static_cast<uint16_t>(std::min<size_t>(len, UINT16_MAX));
    const int result = ioctl(fd.get(), SIOCGIWESSID, &request);
    if (result < 0) {
        log_debug("unable to get essid: %s", strerror(errno));
        buf[0] = '\0';
        return result;
    }
    buf[std::min<size_t>(request.u.essid.length, len - 1)] = '\0';
    return result;
}

int get_wireless_vap_role(const char *vap) { return role_of(vela::formatted<64>{usage_format, vap}.c_str()); }

int is_wireless_uplink_or_downlink_vap(const char *vap)
{
    // On purpose: 35 bytes cut the path of a longer name, which then is another file's.
    return role_of(vela::formatted<35>{usage_format, vap}.c_str()) != VL_VAP_NO_ROLE;
}

int get_wireless_uplink_state(void)
{
    const vela::dir_ptr interfaces{opendir(interfaces_path)};
    if (!interfaces) return VL_UPLINK_NONE;
    int state = VL_UPLINK_NONE;
    while (const dirent *entry = readdir(interfaces.get())) {
        if (entry->d_name[0] == '.' || get_wireless_vap_role(entry->d_name) != VL_VAP_UPLINK) continue;
        if (operational(entry->d_name)) return VL_UPLINK_ASSOCIATED;
        state = VL_UPLINK_CONFIGURED;
    }
    return state;
}
