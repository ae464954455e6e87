/**
 * @file
 * The stations of an access point, or the access point of a station: who is connected, how well, and what was
 * exchanged.
 *
 * "tx" is towards the station, "rx" from it. What the driver does not tell is all ones in an unsigned member (255,
 * 65535 and so on in a narrow one), the type's minimum in a signed one, and has no key in JSON. Counters begin with the
 * association; the kernel counts packets in 32 bits, so they wrap.
 *
 * A walk and a station that leaves: the kernel finds its place in its list by position, so one departure during a walk
 * can hide another station, and nothing says so. Absence from one walk is no departure: wait for
 * NL80211_CMD_DEL_STATION (vl_nl80211_register_command_callback()) or for a second absence.
 *
 * The calls ask the kernel over a socket of their own and return at once; none waits longer than 5 s. Stations of a
 * 4-address AP_VLAN interface belong to that interface.
 */
#ifndef VELA_WIRELESS_STATION_H
#define VELA_WIRELESS_STATION_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>
#include <vela/wireless/nl80211.h>
#include <vela/wireless/satisfaction.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Values of vela_sta_rate.mode. */
enum { VELA_RATE_LEGACY = 1, VELA_RATE_HT = 2, VELA_RATE_VHT = 3, VELA_RATE_HE = 4, VELA_RATE_EHT = 5 };

/** The rate of the last frame in one direction. */
typedef struct vela_sta_rate {
    uint32_t kbps;
    uint16_t width_mhz;
    uint16_t gi_ns; /**< guard interval; not known for legacy rates */
    uint8_t mode;   /**< VELA_RATE_...; 0 not known */
    uint8_t mcs, nss, dcm;
} vela_sta_rate;

typedef struct vela_sta_counts {
    uint64_t rx_bytes, tx_bytes;
    uint64_t rx_packets, tx_packets, tx_retries, tx_failed, rx_dropped;
    uint64_t rx_us, tx_us; /**< airtime */
} vela_sta_counts;

/** One link of a multi-link station. */
typedef struct vela_sta_link {
    uint32_t id, inactive_ms;
    uint8_t mac[6];
    int32_t signal_dbm, signal_avg_dbm;
    vela_sta_rate tx, rx;
    vela_sta_counts counts;
} vela_sta_link;

/** Bits of vela_sta_info.flags: what the driver tells, and whether the station is a multi-link device. */
enum {
    VELA_STA_AUTHENTICATED = 1,
    VELA_STA_ASSOCIATED = 2,
    VELA_STA_AUTHORIZED = 4, /**< may send data */
    VELA_STA_WME = 8,
    VELA_STA_MFP = 16, /**< its management frames are protected */
    VELA_STA_MLD = 32,
};

typedef struct vela_sta_info {
    uint8_t mac[6]; /**< a multi-link station's own address, not that of a link */
    uint32_t index; /**< of the interface, as ifname */
    char ifname[16];
    uint32_t flags; /**< VELA_STA_... */
    uint32_t connected_s;
    uint32_t inactive_ms;   /**< since it was last heard */
    uint64_t associated_ns; /**< moment of the association, on the clock that counts from boot (CLOCK_BOOTTIME) */
    int32_t signal_dbm;     /**< of the last frame */
    int32_t signal_avg_dbm;
    int32_t ack_signal_dbm;
    int8_t chain_dbm[4]; /**< per antenna */
    vela_sta_rate tx, rx;
    uint32_t expected_kbps; /**< throughput that the rate control expects */
    uint32_t airtime_weight;
    vela_sta_counts counts;
    int32_t assoc_link;  /**< link id on which it associated */
    uint32_t link_count; /**< of all links that are told of; the first four are kept */
    vela_sta_link links[4];
    uint64_t spare[4]; /**< 0 */
} vela_sta_info;

/** Gets one station, valid during the call. Returns 0 to go on; anything else ends the walk, which is no failure. */
typedef int (*vela_sta_callback)(const vela_sta_info *info, void *arg);

/**
 * Hands over the stations of an interface, in the kernel's order (NL80211_CMD_GET_STATION).
 *
 * @param service  an initialised service; borrowed, and free for the callback's use
 * @param ifname   interface name, at most 15 bytes
 * @return the number delivered; -EINVAL for a null argument or a service that is not initialised; -ENODEV for no such
 *         wireless interface; -EAGAIN when the list changed while it was read (all that came was delivered);
 *         -EOPNOTSUPP from a driver without station lists; -ETIMEDOUT; -ENOMEM; another negative errno of the kernel's
 */
VELA_API int vela_sta_foreach(vl_nl80211_service *service, const char *ifname, vela_sta_callback each, void *arg);

/**
 * Reads one station.
 *
 * @param out  written on success only
 * @return 0; -ENOENT when it is not there, which is not logged; else as vela_sta_foreach()
 */
VELA_API int vela_sta_get(vl_nl80211_service *service, const char *ifname, const uint8_t mac[6], vela_sta_info *out);

/** Sets every input of the score to "nothing bad is known": a missing measurement must not score 0. */
VELA_API void vela_station_clear(vela_station *station);

/**
 * Fills in what nl80211 knows of a station's score: tx_rate (kbit/s, of all links together), tx_tries, tx_retries,
 * tx_drops; the counts as differences of two polls. Everything else stays.
 *
 * @param before  the poll before; null when there was none
 * @return 0; 1 when the counts are those since the association: without `before`, or when that is of another
 *         association, or when a counter went back; -EINVAL for a null argument
 */
VELA_API int vela_sta_fill(const vela_sta_info *before, const vela_sta_info *now, vela_station *station);

/**
 * A station as an object: mac, interface, mld, authorized, mfp, signal_dbm, signal_avg_dbm, ack_signal_dbm, chains_dbm
 * [], connected_s, inactive_ms, tx and rx {kbps, mode ("legacy", "ht", "vht", "he", "eht"), mcs, nss, width_mhz,
 * gi_ns}, expected_kbps, airtime_weight, counters {rx_bytes, ...}, links [{id, mac, ...}]; with a score also
 * satisfaction, satisfaction_reason (a name of reasons_bar_chart_keys) and anomalies (names of
 * anomalies_bar_chart_keys).
 *
 * @param scored  the station after calc_sta_satisfaction(); may be null
 * @return the object, which the caller releases; null, with errno, when out of memory
 */
VELA_API json_t *vela_sta_json(const vela_sta_info *info, const vela_station *scored);

#ifdef __cplusplus
}
#endif

#endif
