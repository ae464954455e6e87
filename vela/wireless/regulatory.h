/**
 * @file
 * Transmit power and PHY modes under a country's regulatory rules, as the device's tool "vela-regdomain" prints them.
 * Nothing is cached: a call that needs the rules runs the tool once and blocks until it has ended, without a time
 * limit.
 */
#ifndef VELA_WIRELESS_REGULATORY_H
#define VELA_WIRELESS_REGULATORY_H

#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The transmit power to set on a channel for a power level that the user chose. Powers are in dBm, gains in dBi.
 *
 * @param custom_value    the power of level "custom", as decimal text
 * @param level           "low", "medium", "custom"; anything else is the maximum
 * @param country         numeric country code
 * @param reserved        ignored
 * @param band            band id: 1 2.4 GHz, 2 4.9 GHz, 3 5 GHz, 4 6 GHz
 * @param channel         channel number within the band
 * @param min_power       what the radio can do at least
 * @param max_power       and at most; wins over `min_power` where they contradict each other
 * @param antenna_gain    gain of the device's antenna; what exceeds the channel's allowance lowers the limit
 * @param target_out      receives the power to set; written on success only
 * @param max_out         receives the highest power allowed; written on success only
 * @param use_fixed_eirp  1: the limit is `fixed_eirp` - `antenna_gain`, no tool is run and no band is checked
 * @param fixed_eirp      dBm
 * @return 0; 0xFFFFFFFF when the band is unknown, the tool lists no channel (both logged), or not this one
 */
VELA_API unsigned vl_regulatory_get_target_power(const char *custom_value, const char *level, int32_t country,
                                                 int32_t reserved, int32_t band, int32_t channel, uint32_t min_power,
                                                 uint32_t max_power, int32_t antenna_gain, unsigned *target_out,
                                                 unsigned *max_out, uint8_t use_fixed_eirp, uint8_t fixed_eirp);

/**
 * The PHY modes that a country restricts.
 * @param country  numeric country code
 * @return restriction bits, as the radio driver takes them; 0 when there are none or the tool does not say (logged)
 */
VELA_API unsigned vl_regulatory_get_restricted_modes(uint32_t country);

#ifdef __cplusplus
}
#endif

#endif
