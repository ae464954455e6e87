/**
 * @file
 * Which channel an access point should use: every candidate with what it costs, part by part, or why it is refused.
 *
 * A pure function of what it is given: no clock, no kernel, no memory of its own, whole numbers only, so that the same
 * input has the same answer on every processor. The caller gathers the input: channels and surveys (wireless/survey.h),
 * and the access points heard (wireless/scan.h).
 *
 * A candidate is a primary channel with one block of the wanted width around it; a primary that may lie in two blocks
 * (40 MHz at 2.4 GHz, 320 MHz) is a candidate twice. Its cost is the sum of five parts:
 *
 * - occupancy, 0 to 1000: per 20 MHz of the block the share of time that others use (250 where it was not surveyed),
 *   raised by the access points heard there: each counts 5 for every dB above -92 dBm, 200 at most, all of them 1000 at
 *   most, and a thousand takes half of what was free. At 2.4 GHz one that is 0, 5, 10, 15 MHz away counts 100, 75, 40,
 *   15 %; elsewhere only the one whose own primary it is. The primary weighs three times as much as each other part.
 * - noise, 0 to 300: 10 for every dB above -95 dBm in the noisiest part.
 * - power, 0 to 150: 5 for every dB that the weakest part may send below 30 dBm.
 * - dfs, 0 to 300: 100 while there is a part to be listened to for radar, 300 where that takes ten minutes.
 * - policy, 0 to 200: 150 off the preferred channels, and 50 off channels 1, 6 and 11 at 2.4 GHz or off those that
 *   stations scan first at 6 GHz.
 *
 * What is not known costs nothing, but for occupancy. Every division rounds down, so that no part ever falls when its
 * input gets worse.
 */
#ifndef VELA_WIRELESS_ACS_H
#define VELA_WIRELESS_ACS_H

#include <jansson.h>
#include <stddef.h>
#include <stdint.h>
#include <vela/core/api.h>
#include <vela/wireless/scan.h>
#include <vela/wireless/survey.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What is wanted. A zeroed record with band and width is a good beginning. Arrays may be null where their count is 0.
 */
typedef struct vela_acs_options {
    uint32_t band;             /**< NL80211_BAND_... */
    uint32_t width_mhz;        /**< 20, 40, 80, 160 or 320 */
    uint32_t allow_dfs;        /**< non-zero: channels with radar may be chosen */
    uint32_t allow_indoor;     /**< non-zero: the device stands indoors */
    const uint32_t *preferred; /**< primary channels, MHz; others cost more. None: no preference */
    const uint32_t *forbidden; /**< MHz; a block with one of these is refused */
    uint32_t preferred_count;
    uint32_t forbidden_count;
    uint32_t current_mhz;    /**< primary channel of today; 0 none */
    uint32_t hysteresis;     /**< the current channel is kept until another costs less by more than this */
    const uint8_t (*own)[6]; /**< BSSIDs of this device: not counted among those heard */
    uint32_t own_count;
} vela_acs_options;

/** Values of vela_acs_candidate.verdict. */
enum { VELA_ACS_REFUSED = 0, VELA_ACS_USABLE = 1, VELA_ACS_KEPT = 2 };

/** Bits of vela_acs_candidate.refused. */
enum {
    VELA_ACS_DISABLED = 1,    /**< a part is disabled in this country */
    VELA_ACS_NO_IR = 2,       /**< a part is for listening only */
    VELA_ACS_FORBIDDEN = 4,   /**< a part is one of options.forbidden */
    VELA_ACS_RADAR = 8,       /**< a part needs radar detection, which is not allowed here */
    VELA_ACS_RADAR_SEEN = 16, /**< radar was seen on a part */
    VELA_ACS_INDOOR = 32,     /**< a part is for indoor use, which is not said to be allowed */
    VELA_ACS_WIDTH = 64,      /**< there is no block of this width, or a part of it cannot be */
};

/** One candidate. The six costs of a refused one are all ones. */
typedef struct vela_acs_candidate {
    uint32_t primary_mhz;
    uint32_t center_mhz; /**< of the whole block; all ones where there is none of this width */
    uint32_t width_mhz;
    uint32_t verdict; /**< VELA_ACS_REFUSED, _USABLE, _KEPT */
    uint32_t refused; /**< all reasons, as bits; 0 when not refused */
    uint32_t cost;    /**< the sum of the five below */
    uint32_t occupancy, noise, power, dfs, policy;
    uint32_t other_permille; /**< time that others use in the fullest part; all ones when none was surveyed */
    uint32_t surveyed;       /**< number of parts that were */
    uint32_t heard_count;    /**< access points that count */
    int32_t strongest_dbm;   /**< the strongest of them; INT32_MIN without one */
    int32_t noise_dbm;       /**< of the noisiest part; INT32_MIN not known */
    int32_t power_mbm;       /**< what the weakest part may send; INT32_MIN not known */
} vela_acs_candidate;

/**
 * Ranks every channel of a band.
 *
 * First comes the current channel, as "kept", where it is usable and costs at most the hysteresis more than the best;
 * then the usable ones by cost, the lower frequency first among equals; then the refused ones by frequency. The order
 * of the input plays no part.
 *
 * @param airtimes  may be null when there is none
 * @param heard     as get_scanlist() gives it; may be null
 * @param out       room for `max` candidates; when there are more, the best are written
 * @return the number written; -EINVAL for null arguments or a width that no channel has
 */
VELA_API int vela_acs_rank(const vela_channel *channels, size_t channel_count, const vela_airtime *airtimes,
                           size_t airtime_count, const scan_list *heard, const vela_acs_options *options,
                           vela_acs_candidate *out, size_t max);

/**
 * The candidates as an array of objects in their order, keys as the members; "verdict" is "usable", "kept" or
 * "refused", "refused" an array of "disabled", "no_ir", "forbidden", "radar", "radar_seen", "indoor", "width". Null,
 * with errno, on failure. The caller releases it.
 */
VELA_API json_t *vela_acs_json(const vela_acs_candidate *candidates, size_t count);

#ifdef __cplusplus
}
#endif

#endif
