/**
 * @file
 * How well a client station is served: a score from 0 to 100, the area that pulled it down most, and the areas that
 * scored below 80 ("anomalies").
 *
 * What was not measured has to be said, input by input (see vela_station). A record that is all zero scores 0: it tells
 * of a station without an IP address that does not answer ARP.
 *
 *     vela_station station = {.freq = 5180, .tx_rate = 286000, .radio_health = 100,
 *                             .has_ip = 1, .arp_ok = 1, .dns_latency = -1};
 *     station.tcp_stats[0].lat_avg = station.tcp_stats[1].lat_avg = UINT64_MAX;
 *     calc_sta_satisfaction(&station);
 */
#ifndef VELA_WIRELESS_SATISFACTION_H
#define VELA_WIRELESS_SATISFACTION_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Areas of the score: index into `scores` and the key tables; its bit is 1 << index. Five are measured by nothing here
 * and stay -1.
 */
enum {
    VELA_SAT_SIGNAL, /**< not measured */
    VELA_SAT_PHY_RATE,
    VELA_SAT_TCP_PACKET_LOSS, /**< not measured */
    VELA_SAT_TCP_LATENCY,
    VELA_SAT_WIFI_RETRIES,
    VELA_SAT_STREAM_EFF,    /**< not measured */
    VELA_SAT_SLEEPY_CLIENT, /**< not measured */
    VELA_SAT_WIFI_LATENCY,  /**< not measured */
    VELA_SAT_IP_TIMEOUT,
    VELA_SAT_ARP_TIMEOUT,
    VELA_SAT_DNS_TIMEOUT,
    VELA_SAT_DNS_LATENCY,
    VELA_SAT_ICMP_RTT,
    VELA_SAT_DISCONNECTS,
    VELA_SAT_NO_DHCP_RESPONSE,
    VELA_SAT_WIFI_DROPS,
    VELA_SAT_AREAS,
};

/** One direction of a station's TCP flows; latencies in milliseconds. */
typedef struct vela_tcp_stats {
    uint64_t goodbytes;
    uint16_t stalls;
    uint16_t retries;
    uint32_t lat_max;
    uint32_t lat_min; /**< 0xFFFFFFFF: no sample */
    uint64_t lat_sum;
    uint64_t lat_samples;
    uint64_t lat_avg; /**< all ones: no sample */
} vela_tcp_stats;

/** Wi-Fi transmit latency of a station. */
typedef struct vela_wifi_tx_lat {
    uint64_t total;
    uint64_t total_count;
    uint32_t min;
    uint32_t max;
    int32_t avg;
} vela_wifi_tx_lat;

/**
 * What is known of a station, and its score. Zero the record, fill the inputs, call calc_sta_satisfaction(). Counters
 * are those of the period that is scored.
 */
typedef struct vela_station {
    uint16_t freq;         /**< channel, MHz; below 4800 the rate is not scored */
    uint32_t tx_rate;      /**< towards the station, kbit/s; 0: not measured */
    uint32_t radio_health; /**< efficiency of the radio, percent, by which tx_rate is multiplied; 100: not measured */
    vela_tcp_stats tcp_stats[2]; /**< [0] towards the station, [1] from it; their average latencies are added. `lat_avg`
                                      all ones, or no samples at all: not measured */
    uint64_t tx_tries;           /**< transmit attempts towards the station, repeated ones included; 0: not measured */
    uint64_t tx_retries;         /**< of these, repeated ones */
    uint64_t tx_drops;           /**< frames given up */
    uint32_t chip_code;          /**< radio chip that serves the station; retries are scored for 15, 16, 18, 19 and 24,
                                      drops for 15 and 24 */
    uint32_t has_ip;             /**< non-zero: seen with an IP address, or not measured */
    uint32_t arp_ok;             /**< non-zero: answered ARP, or not measured */
    int32_t dns_timeouts;        /**< its DNS queries that timed out; 0: none, or not measured */
    int32_t dns_latency;         /**< of DNS answers, milliseconds; -1: not measured */
    int32_t icmp_rtt;            /**< ping's round trip, milliseconds; 0: not measured */
    uint8_t dhcp_seen;           /**< non-zero: it asked for an address; scored only without has_ip */
    uint8_t dhcp_reply_a;        /**< non-zero, as dhcp_reply_b: it was answered */
    uint8_t dhcp_requests;       /**< counted; more than dhcp_replies: it asked, too. Both 0: not measured */
    uint8_t dhcp_reply_b;
    uint8_t dhcp_replies;
    uint32_t disconnects; /**< the first is free; 0: none, or not measured */

    int32_t satisfaction;           /**< lowest measured score, 0 to 100; -1: nothing measured */
    uint32_t satisfaction_reason;   /**< bit of the area that set it; untouched while nothing scored below 100 */
    uint32_t anomalies;             /**< bits of areas that scored below 80; added to, never cleared */
    int32_t scores[VELA_SAT_AREAS]; /**< per area; -1 not measured */
} vela_station;

/** From which share of dropped frames a chip's stations are marked down. */
typedef struct vela_drop_threshold {
    uint32_t chip_code;
    float percent;
} vela_drop_threshold;

/** Names of the areas in the reasons chart and in the anomalies chart, by index. */
extern VELA_API const char *const reasons_bar_chart_keys[VELA_SAT_AREAS];
extern VELA_API const char *const anomalies_bar_chart_keys[VELA_SAT_AREAS];
extern VELA_API const vela_drop_threshold sat_xretry_penalty_thrs[2];

/**
 * Scores a station: overwrites `satisfaction` and `scores`, sets `satisfaction_reason` where an area scored below 100,
 * adds to `anomalies`. Transmit counters that contradict each other score 0 and are logged.
 * @return 0
 */
VELA_API int calc_sta_satisfaction(vela_station *station);

/** The sixteen scores under their reason or anomaly names. The caller releases the object; null when out of memory. */
VELA_API json_t *reasons_bar_chart_to_json(const int32_t *scores);
VELA_API json_t *anomalies_bar_chart_to_json(const int32_t *scores);

/** TCP statistics as an object; unset latencies are -1. The caller releases it; null when out of memory. */
VELA_API json_t *tcp_stats_to_json(const vela_tcp_stats *tcp_stats);

/** Transmit latency as an object. The caller releases it; null when out of memory. */
VELA_API json_t *wifi_tx_lat_to_json(const vela_wifi_tx_lat *lat);

#ifdef __cplusplus
}
#endif

#endif
