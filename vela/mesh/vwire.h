/**
 * @file
 * Which access point a mesh node without a wire should join, and on which band.
 *
 * Signal strengths are on the driver's scale (larger is better); only differences and the thresholds below matter.
 */
#ifndef VELA_MESH_VWIRE_H
#define VELA_MESH_VWIRE_H

#include <vela/core/api.h>
#include <vela/mesh/uplink.h>
#include <vela/wireless/scan.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The best parent of one band among the scan records of the uplink interfaces. A preferred parent wins over a stronger
 * stranger as long as the stranger is at most 4 stronger; among equals the one seen first wins. Only entries with all
 * four mesh flags count. The choice is logged.
 *
 * @param ifaces       uplink table with collected scan records
 * @param essid        only this network, compared over `essid_len`; null or a length of 0: any
 * @param band         "ng", "na" or "6e", as get_band() names it
 * @param serial1      serial number of the preferred parent, "02:56:4c:0a:0b:0c" (logged whole), compared over
 *                     `serial1_len` in either case; null, a length of 0 or less, or all zeros: none
 * @param serial2      the second choice, likewise
 * @param index        receives the index of the uplink interface that saw the chosen one, -1 when there is none; may be
 *                     null
 * @return the entry, owned by the scan records; null when there is no candidate
 */
VELA_API scan_entry *vwire_select_best_for_band(uplink_table *ifaces, const char *essid, int essid_len,
                                                const char *band, const char *serial1, int serial1_len,
                                                const char *serial2, int serial2_len, int *index);

/**
 * Chooses between the best 6 GHz and the best 5 GHz parent: 6 GHz unless 5 GHz is clearly (8) stronger and 6 GHz is
 * weak (below 25). On a board that needs AFC, 6 GHz counts only while AFC is active. The choice is logged.
 *
 * @param best6, best5    candidates; null: none
 * @param index6, index5  what to return for them
 * @return `index6`, `index5`, or -1 without any candidate
 */
VELA_API int vwire_decide_best_band_index(const scan_entry *best6, int index6, const scan_entry *best5, int index5);

#ifdef __cplusplus
}
#endif

#endif
