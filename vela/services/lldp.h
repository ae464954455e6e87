/**
 * @file
 * What the device's wired neighbours announce over LLDP, from the system's LLDP daemon through its client lldpcli.
 */
#ifndef VELA_SERVICES_LLDP_H
#define VELA_SERVICES_LLDP_H

#include <jansson.h>
#include <stdbool.h>
#include <stddef.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The neighbours, one object each: "local_port_name", "is_wired", "chassis_id", "chassis_descr", "port_id",
 * "port_descr", and for wired ports "local_port_idx" (the board's port id). Blocks while the client runs, however long
 * it prints; one that is silent for 2 seconds is killed. What it prints beyond 16383 bytes is dropped.
 *
 * @return a new array, empty when no neighbour is known or the answer makes no sense; null when the client cannot be
 *         run, stays silent, or memory is short. Failures are logged. The caller releases it.
 */
VELA_API json_t *vela_get_lldp_json(void);

/**
 * The neighbour on the board's main port, and the one on the uplink when that is no wired port.
 * Sizes count the NUL; an output of size 0 is left alone. Descriptions end before their first comma.
 *
 * @param main_descr    receives the description of the main port's neighbour, "" without one
 * @param oui           receives the vendor prefix of its chassis id as six digits; written when `oui_len` is above 6
 * @param uplink_flag   receives whether the uplink is something else than a wired port
 * @param uplink_descr  receives the description of the neighbour on such an uplink
 * @return 0; -1 when the uplink cannot be determined; -ENOENT when the neighbours cannot be had
 */
VELA_API int vela_get_lldp_report(char *main_descr, int main_descr_len, char *oui, size_t oui_len, bool *uplink_flag,
                                  char *uplink_descr, int uplink_descr_len);

#ifdef __cplusplus
}
#endif

#endif
