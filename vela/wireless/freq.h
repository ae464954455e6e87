/**
 * @file
 * Frequencies, channels, bands and widths; the role of a wireless interface; the board's capability masks.
 *
 * Frequencies and widths are in MHz. The converters are pure and never fail: what lies outside their ranges gives 0, -1
 * or a wrapped number, as each says, and callers compare those numbers as they are.
 */
#ifndef VELA_WIRELESS_FREQ_H
#define VELA_WIRELESS_FREQ_H

#include <stddef.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Band ids. */
enum {
    VL_BAND_UNKNOWN = 0,
    VL_BAND_2G4 = 1, /**< 2412 to 2484 MHz */
    VL_BAND_4G9 = 2, /**< 4910 to 4980 MHz */
    VL_BAND_5G = 3,  /**< 5160 to 5925 MHz */
    VL_BAND_6G = 4,  /**< 5935 to 7115 MHz */
    VL_BAND_60G = 5, /**< 58320 to 70200 MHz */
};

/** Roles of a wireless interface in the mesh. */
enum { VL_VAP_NO_ROLE = 0, VL_VAP_UPLINK = 1, VL_VAP_DOWNLINK = 2 };

/** States of the wireless uplink. */
enum { VL_UPLINK_NONE = 0, VL_UPLINK_CONFIGURED = 1, VL_UPLINK_ASSOCIATED = 2 };

/**
 * The channel number of a frequency, in the numbering of its band; 0 above 45000 MHz outside the 60 GHz band. A
 * frequency below the base of its branch (such as 1000 or 5930) wraps to a large number.
 */
VELA_API uint32_t vl_freq_to_channel(uint32_t freq_mhz);

/**
 * The frequency of a channel in the 2.4, 5 or 6 GHz band.
 * @return MHz; 0 when the channel does not exist in the band, or for another band
 */
VELA_API uint32_t vl_channel_to_freq(uint32_t channel, uint32_t band);

/** The band id (VL_BAND_...) of a frequency. */
VELA_API int vl_freq_to_band(uint32_t freq_mhz);

/**
 * The band's name as the management server knows it: "ng" (2.4 GHz), "na" (4910 to 5875 MHz), "6e" (5945 to 7125 MHz),
 * "unknown". Its borders are not those of vl_freq_to_band().
 */
VELA_API const char *get_band(uint32_t freq_mhz);

/** The channel number of a frequency in the radio driver's own convention; wraps like vl_freq_to_channel(). */
VELA_API uint32_t ieee80211_mhz2ieee(uint32_t freq_mhz);

/**
 * The centre of the whole (bonded) channel, for 2.4 and 5 GHz.
 *
 * @param freq_mhz  centre of the primary 20 MHz channel
 * @param channel   number of the primary channel
 * @param phy_mode  the driver's mode number
 * @return MHz; -1 for a mode above 32 (those of 802.11be included)
 */
VELA_API int get_center_freq(uint32_t freq_mhz, uint32_t channel, uint32_t phy_mode);

/** The channel width of a PHY mode (its low eight bits), in MHz; -1, with a log line, for a mode above 43. */
VELA_API int get_bw(uint32_t phy_mode);

/** A driver's signal figure as dBm: value - 96 + 3 * step, kept to eight bits. */
VELA_API int8_t vela_convert_to_dbm(int value, int step);

/**
 * Reads the SSID of a wireless interface from its driver (SIOCGIWESSID).
 *
 * @param ifname  interface name; its first 15 bytes count
 * @param buf     receives the NUL-terminated SSID; "" when the driver does not answer
 * @param len     size of `buf`: one byte more than the longest SSID to be read (33 holds any)
 * @return 0; negative on failure (logged at debug level unless the socket itself cannot be opened)
 */
VELA_API int get_if_essid(const char *ifname, char *buf, size_t len);

/** The role (VL_VAP_...) that the configuration scripts gave an interface in /var/run/vapusage.NAME. */
VELA_API int get_wireless_vap_role(const char *vap);

/** 1 when the interface has a mesh role, else 0. Names of more than 16 characters are not found. */
VELA_API int is_wireless_uplink_or_downlink_vap(const char *vap);

/**
 * The state of the wireless uplink, from the roles of the interfaces and the kernel's operational state: associated as
 * soon as one uplink interface is up, configured when there is one at all.
 * @return VL_UPLINK_NONE, VL_UPLINK_CONFIGURED or VL_UPLINK_ASSOCIATED
 */
VELA_API int get_wireless_uplink_state(void);

/** 1 on the board model with several 5 GHz radios, else 0. */
VELA_API int is_multi_5ghz(void);

/** The identified board's wireless capabilities, as the management server reads them. */
VELA_API uint32_t get_wifi_cap(void);
/** The second word of them. */
VELA_API uint32_t get_wifi_cap2(void);

#ifdef __cplusplus
}
#endif

#endif
