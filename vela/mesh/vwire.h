/**
 * @file
 * Which access point a mesh node without a wire should join, and on which band; and the bytes that the uplink daemon
 * leaves for the programs that announce and report it.
 *
 * Signal strengths are on the driver's scale (larger is better); only differences and the thresholds below matter.
 * Nothing here blocks: a choice looks at scan records that were collected, the AFC state and the payload are files.
 */
#ifndef VELA_MESH_VWIRE_H
#define VELA_MESH_VWIRE_H

#include <jansson.h>
#include <stddef.h>
#include <stdint.h>
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

/** How a candidate won its band. */
enum {
    VWIRE_STRONGEST = 1, /**< nobody preferred is close enough */
    VWIRE_SERIAL1 = 2,   /**< the preferred parent */
    VWIRE_SERIAL2 = 3,   /**< the second choice */
};

/** Why it is this band. */
enum {
    VWIRE_GOOD_6GHZ = 1,     /**< 6 GHz is strong enough, whatever 5 GHz offers */
    VWIRE_NEAR_6GHZ = 2,     /**< 5 GHz is not clearly stronger */
    VWIRE_STRONGER_5GHZ = 3, /**< 5 GHz is clearly stronger */
    VWIRE_ONLY_6GHZ = 4,
    VWIRE_ONLY_5GHZ = 5, /**< also where 6 GHz waits for AFC */
};

/** A parent that was chosen. */
typedef struct vwire_choice {
    scan_entry *entry;    /**< owned by the scan records */
    int32_t index;        /**< the uplink interface that heard it */
    uint32_t reason;      /**< VWIRE_STRONGEST, _SERIAL1, _SERIAL2 */
    uint32_t band_reason; /**< VWIRE_GOOD_6GHZ, ... */
} vwire_choice;

/**
 * Chooses the parent: the best of each band, then the band, as the two calls above do; both are logged. Tells entries
 * apart where one interface hears both bands.
 *
 * @param out  written on success only
 * @return 0; -ENOENT without any candidate; -EINVAL for a null argument
 */
VELA_API int vwire_choose_parent(uplink_table *ifaces, const char *essid, int essid_len, const char *serial1,
                                 int serial1_len, const char *serial2, int serial2_len, vwire_choice *out);

/**
 * The same choice with everything that led to it, and nothing logged: {question: "parent", answer: BSSID, reason,
 * steps:
 * [{name: BSSID, verdict, reason, interface, essid, serial, rssi, mhz}, ..., {name: "6e", ..}, {name: "na", ..}]}.
 *
 * An entry's verdict is "chosen" (the best of its band), "passed" or "refused". Its reason is how it won ("strongest",
 * "serial1", "serial2"), "weaker", or why it is no candidate: "no_element", "no_mesh", "not_connected",
 * "takes_no_uplinks", "other_essid", "other_band". The bands come last: "good_6ghz", "near_6ghz", "stronger_5ghz",
 * "only_6ghz", "only_5ghz", "afc_inactive", "no_candidate". The reason of it all is the band's, or "no_candidate", in
 * which case there is no answer.
 *
 * @return a new object, which the caller releases; null with errno when memory is short or the table is null
 */
VELA_API json_t *vwire_explain(uplink_table *ifaces, const char *essid, int essid_len, const char *serial1,
                               int serial1_len, const char *serial2, int serial2_len);

/** Most bytes of an uplink payload. */
#define VWIRE_PAYLOAD_MAX 4096

/**
 * Leaves the uplink payload in /var/run/vwire.payload (mode 0600) until it is replaced or the device restarts. Readers
 * see the old bytes or the new ones, never a mixture.
 *
 * @param data  1 to VWIRE_PAYLOAD_MAX bytes
 * @return 0; -EINVAL for none, -EMSGSIZE for too many; -ELOOP or -EISDIR where a symbolic link or a directory stands in
 *         its place; else the negative errno of writing it
 */
VELA_API int set_vwire_payload(const void *data, size_t len);

/**
 * Reads the uplink payload.
 *
 * @param out   receives its first `size` bytes; may be null when `size` is 0
 * @return its whole length; -ENOENT when there is none; -EMSGSIZE for a file that is too long to be one; else as
 *         set_vwire_payload()
 */
VELA_API int get_vwire_payload(void *out, size_t size);

/** Takes the uplink payload away. 0, also when there is none; else as set_vwire_payload(). */
VELA_API int unset_vwire_payload(void);

#ifdef __cplusplus
}
#endif

#endif
