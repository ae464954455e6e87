/**
 * @file
 * How full the air is, and which channels a radio may use: nl80211's survey and its list of channels.
 *
 * Frequencies are in MHz, a channel is named by the centre of its 20 MHz. What a driver does not tell is all ones in an
 * unsigned member and INT32_MIN in a signed one, and has no key in JSON. Whether and how often a survey moves is the
 * driver's affair: many count on the channel in use only, and on others while they scan.
 *
 * The walks and the JSON writers ask the kernel over a socket of their own and return at once; none waits longer than
 * 5 s. Results are 0 or more, or a negative errno: -EINVAL for a null argument or a service that is not initialised,
 * -ENODEV for no such wireless interface, -EOPNOTSUPP from a driver that has none, -EAGAIN when the list changed while
 * it was read (all that came was delivered), -ETIMEDOUT, -ENOMEM.
 */
#ifndef VELA_WIRELESS_SURVEY_H
#define VELA_WIRELESS_SURVEY_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>
#include <vela/wireless/nl80211.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What a radio counted on one channel, since a zero of the driver's own choice. */
typedef struct vela_survey {
    uint32_t freq_mhz;
    uint32_t in_use; /**< 1: the radio's channel of today */
    int32_t noise_dbm;
    uint64_t time_ms;     /**< time spent on the channel */
    uint64_t busy_ms;     /**< of it, with something in the air */
    uint64_t ext_busy_ms; /**< the same for the second half of a 40 MHz channel */
    uint64_t rx_ms;       /**< receiving */
    uint64_t tx_ms;       /**< sending */
    uint64_t scan_ms;     /**< scanning */
    uint64_t bss_rx_ms;   /**< receiving from stations of this radio's own networks */
    uint64_t spare[4];    /**< 0 */
} vela_survey;

/** Shares of the time between two surveys of a channel, in permille. */
typedef struct vela_airtime {
    uint32_t freq_mhz;
    uint32_t busy_permille;
    uint32_t own_permille;   /**< sent by this radio, or to its own networks */
    uint32_t other_permille; /**< the rest of what was busy */
    int32_t noise_dbm;
} vela_airtime;

/** Bits of vela_channel.flags. */
enum {
    VELA_CHANNEL_DISABLED = 1, /**< not in this country */
    VELA_CHANNEL_NO_IR = 2,    /**< listen only: no access point may begin here */
    VELA_CHANNEL_RADAR = 4,    /**< only after listening for radar */
    VELA_CHANNEL_INDOOR = 8,   /**< indoors only */
    VELA_CHANNEL_NO_HE = 16,   /**< no 802.11ax */
    VELA_CHANNEL_NO_EHT = 32,  /**< no 802.11be */
};

/** Bits of vela_channel.widths. */
enum {
    VELA_WIDTH_20 = 1,
    VELA_WIDTH_40 = 2,
    VELA_WIDTH_80 = 4,
    VELA_WIDTH_160 = 8,
    VELA_WIDTH_320 = 16,
};

/** Values of vela_channel.dfs_state. */
enum {
    VELA_DFS_USABLE = 0,      /**< after it was listened to */
    VELA_DFS_UNAVAILABLE = 1, /**< radar was seen within the last half hour */
    VELA_DFS_AVAILABLE = 2,   /**< listened to: may be used at once */
};

/** One 20 MHz channel of a radio. */
typedef struct vela_channel {
    uint32_t freq_mhz;
    uint32_t band;         /**< NL80211_BAND_... */
    uint32_t number;       /**< channel number in its band */
    uint32_t flags;        /**< VELA_CHANNEL_... */
    uint32_t widths;       /**< VELA_WIDTH_...: what it can be a part of with this radio in this country */
    int32_t max_power_mbm; /**< hundredths of dBm */
    uint32_t dfs_state;    /**< VELA_DFS_...; not known but on radar channels, as the two below */
    uint32_t dfs_ms;       /**< time in this state */
    uint32_t cac_ms;       /**< how long to listen before it may be used */
} vela_channel;

/** Gets one element, valid during the call. Returns 0 to go on; anything else ends the walk, which is no failure. */
typedef int (*vela_survey_callback)(const vela_survey *survey, void *arg);
typedef int (*vela_channel_callback)(const vela_channel *channel, void *arg);

/**
 * Hands over what the radio of an interface counted, channel by channel (NL80211_CMD_GET_SURVEY).
 * @return the number of surveys delivered, or a negative errno
 */
VELA_API int vela_survey_foreach(vl_nl80211_service *service, const char *ifname, vela_survey_callback each, void *arg);

/** The same as an array of objects, keys as the members; null, with errno, on failure. The caller releases it. */
VELA_API json_t *vela_survey_json(vl_nl80211_service *service, const char *ifname);

/**
 * The shares of the time between two surveys of the same channel. Pure.
 *
 * A counter that went back since `before` means that the driver began anew: `now` alone counts then. Where the driver
 * counts no busy time, receiving stands in for it. What cannot be, such as more busy time than time, is cut to what
 * can.
 *
 * @param before  null: since the driver's zero
 * @param out     written on success only
 * @return 0; -ENODATA for less than 10 ms of observation, or a driver that tells neither busy nor receiving; -EINVAL
 */
VELA_API int vela_survey_airtime(const vela_survey *before, const vela_survey *now, vela_airtime *out);

/**
 * Hands over the channels of an interface's radio, in the driver's order (NL80211_CMD_GET_WIPHY). At most 256; those
 * below 1 GHz, which have half megahertz, are left out.
 * @return the number of channels delivered, or a negative errno
 */
VELA_API int vela_channel_foreach(vl_nl80211_service *service, const char *ifname, vela_channel_callback each,
                                  void *arg);

/**
 * The same as an array of objects, keys as the members; a flag is a member of its own (disabled, no_ir, radar, indoor,
 * no_he, no_eht), "widths" an array of numbers, "dfs_state" is "usable", "unavailable" or "available". Null, with
 * errno, on failure. The caller releases it.
 */
VELA_API json_t *vela_channel_json(vl_nl80211_service *service, const char *ifname);

#ifdef __cplusplus
}
#endif

#endif
