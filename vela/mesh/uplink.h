/**
 * @file
 * A mesh node's wireless uplink interfaces: which there are, which one is active and since when, and what each of them
 * heard in its last scan.
 *
 * The table is the caller's; the configuration scripts' files under /var/run fill it. A typical round: identify or
 * populate, mark the active uplink, scan, collect, choose (mesh/vwire.h), destroy the records. Collecting twice without
 * destroying loses the first lists.
 */
#ifndef VELA_MESH_UPLINK_H
#define VELA_MESH_UPLINK_H

#include <stddef.h>
#include <stdint.h>
#include <vela/core/api.h>
#include <vela/wireless/scan.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Most uplink interfaces of a device. */
enum { UPLINK_ENTRIES_MAX = 4 };

/** One uplink interface. */
typedef struct uplink_entry {
    char devname[16];     /**< as listed, at most 15 characters */
    uint8_t mac[6];       /**< the caller's to fill */
    scan_list *scan;      /**< last collected scan, or null; owned by the entry */
    char mld_devname[16]; /**< the multi-link device it is a link of, "" when none */
    uint8_t mld_mac[6];
} uplink_entry;

/** The uplink interfaces of a device, in the order they were added. */
typedef struct uplink_table {
    int32_t active;        /**< index of the active one, -1 when none */
    uint32_t active_since; /**< seconds, the caller's clock */
    int32_t count;         /**< entries in use */
    uint32_t flags;
    uplink_entry entries[UPLINK_ENTRIES_MAX];
} uplink_table;

/** Empties the table; `active` and `active_since` stay. Null is ignored. */
VELA_API void initialize_uplink_wds_ifaces_info(uplink_table *t);

/** Marks the active uplink. 0; -1 for a null table or an index outside it. */
VELA_API int set_active_uplink_wds_iface_index(uplink_table *t, int i);
/** The active index, -1 when none (or a null table). */
VELA_API int get_active_uplink_wds_iface_index(const uplink_table *t);
VELA_API void reset_active_uplink_wds_iface_index(uplink_table *t);

/** Notes since when the active uplink is so, in seconds of the caller's clock. 0; -1 for a null table. */
VELA_API int set_active_uplink_wds_iface_index_timestamp(uplink_table *t, uint32_t ts);
/** That time; 0 for a null table. */
VELA_API uint32_t get_active_uplink_wds_iface_index_timestamp(const uplink_table *t);
/** 1 when the active uplink has been so for more than 34 seconds (or for a null table), else 0. */
VELA_API int passed_active_uplink_wds_iface_index_timetamp_threshold(const uplink_table *t, uint32_t now);

/** Entries in use; -1 for a null table. */
VELA_API int get_uplink_wds_iface_len(const uplink_table *t);
/** 1 when the table has an entry of that index, else 0. */
VELA_API int is_uplink_wds_iface_index_valid(const uplink_table *t, int i);
/** 1 when there is an active uplink, else 0. */
VELA_API int has_active_uplink_wds_iface(const uplink_table *t);

/** An entry, or a part of it; null for an index outside the table. All belong to the table. */
VELA_API uplink_entry *get_uplink_wds_iface_by_index(uplink_table *t, int i);
VELA_API char *get_uplink_wds_iface_devname_by_index(uplink_table *t, int i);
VELA_API uint8_t *get_uplink_wds_iface_mac_by_index(uplink_table *t, int i);
VELA_API scan_list *get_uplink_wds_iface_scan_records_by_index(uplink_table *t, int i);

/** The same for the active entry; null when there is none. */
VELA_API uplink_entry *get_active_uplink_wds_iface(uplink_table *t);
VELA_API char *get_active_uplink_wds_iface_devname(uplink_table *t);
VELA_API uint8_t *get_active_uplink_wds_iface_mac(uplink_table *t);

/**
 * The real device under a VLAN interface, from the kernel's VLAN table.
 *
 * @param vif   interface name; a table line counts when its name is a prefix of it, the last such line wins
 * @param real  receives the device's name, or `vif` itself when no line matches; 16 bytes
 * @return 0; -1 when an argument is null
 */
VELA_API int get_real_ifname(const char *vif, char *real);

/** Appends an interface and looks up its multi-link device. 0; -1 for a null table, or (logged) a full one. */
VELA_API int add_uplink_wds_ifaces_info_devname(uplink_table *t, const char *name);

/**
 * Rebuilds the table from /var/run/uplink_wds; "ath0" alone when that names none.
 * @return 0, also without the file; -1 when a name did not fit (the others stay), or for a null table
 */
VELA_API int populate_uplink_wds_ifnames_info_devnames(uplink_table *t);

/**
 * Rebuilds the table, from /var/run/uplink_wds or else from the interfaces used as uplinks, and names the wired uplink.
 *
 * @param wired  receives the name of the wired uplink port
 * @param n      size of `wired`
 * @return 0; -1 without the files that say it
 */
VELA_API int uplink_ifname_identify(uplink_table *t, char *wired, size_t n);

/** 1 when an interface is the real device of one of the entries, else 0. */
VELA_API int is_uplink_wds_iface(uplink_table *t, const char *ifname);

/**
 * Has the real device of every entry scan all channels. Failures are logged, and the next one asked.
 *
 * @param ssid   the network to probe for, or null
 * @param flags  passed on to vela_scan_request()
 * @return 0
 */
VELA_API int scan_all_uplink_wds_ifaces(const char *ssid, uplink_table *t, uint32_t flags);

/** Has the real device of one interface scan all channels. 0. */
VELA_API int scan_24G_for_out_of_range(const char *ifname);

/**
 * Like scan_all_uplink_wds_ifaces(), but on the frequencies of known neighbours only (as the mesh driver lists them)
 * where an interface's band and such frequencies are known. 0.
 */
VELA_API int scan_all_uplink_wds_ifaces_neighbor(const char *ssid, uplink_table *t);

/**
 * As the two above, and says what came of it: a radio that is busy or down starts no scan.
 *
 * @param neighbours_only  non-zero: as scan_all_uplink_wds_ifaces_neighbor()
 * @return how many scans were started, 0 to the number of entries
 */
VELA_API int vela_uplink_scan(const char *ssid, uplink_table *t, int neighbours_only);

/** Stores what the real device of every entry heard. 0. Free with destroy_uplink_wds_iface_scan_records(). */
VELA_API int collect_uplink_wds_iface_scan_records(uplink_table *t);

/**
 * Logs the records.
 * @param essid  only networks whose name starts with this text, over `len`; null, a length of 0 or the text
 *               "vwire-unknown" (whatever the length): all
 */
VELA_API void print_uplink_wds_iface_scan_records(uplink_table *t, const char *essid, int len);

/** Frees the records of every entry. */
VELA_API void destroy_uplink_wds_iface_scan_records(uplink_table *t);

#ifdef __cplusplus
}
#endif

#endif
