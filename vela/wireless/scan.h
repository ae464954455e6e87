/**
 * @file
 * Scanning: asking a radio to look for access points, and the list of those it heard.
 *
 * A scan request returns at once; the kernel announces the end of the scan as NL80211_CMD_NEW_SCAN_RESULTS. The list
 * can be read at any time: it holds what was heard within the last half minute or so. One collection at a time per
 * thread.
 */
#ifndef VELA_WIRELESS_SCAN_H
#define VELA_WIRELESS_SCAN_H

#include <stddef.h>
#include <stdint.h>
#include <vela/core/api.h>
#include <vela/platform/wifi/wifi_nl80211.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct scan_list scan_list;
typedef struct scan_entry scan_entry;

/** One access point heard: a received beacon or probe response. */
struct scan_entry {
    scan_entry *next; /**< the list's head at the end: `(scan_entry *)list` */
    scan_entry *prev;
    uint8_t bssid[6];
    char essid[32];           /**< at most 31 characters and a NUL; a longer name is cut */
    int32_t rssi;             /**< dB above -96 dBm, 0 to 255: larger is stronger */
    uint32_t noise;           /**< likewise; 0 where the driver does not tell */
    uint32_t beacon_interval; /**< time units of 1024 us */
    uint32_t freq;            /**< MHz */
    uint32_t capabilities;    /**< capability field */
    uint32_t age_ms;          /**< time since it was heard */
    uint32_t tsf_low;         /**< its time stamp, in us */
    uint32_t tsf_high;
    uint32_t privacy;        /**< SCAN_RESULT_PRIVACY when encrypted, else 0 */
    uint32_t beacon_tsf_low; /**< time stamp of its last beacon, in us; 0 when none was heard */
    uint32_t beacon_tsf_high;
    uint32_t status;   /**< 0 a stranger, 1 authenticated with, 2 associated to, 3 joined (ad hoc) */
    uint32_t adhoc;    /**< SCAN_RESULT_ADHOC for an ad-hoc network, else 0 */
    uint8_t serial[6]; /**< serial number of the sender, from the maker's element; zero without one */
    uint32_t mesh[4];  /**< non-zero: maker's element seen, mesh sub-element seen, flag bit 3 set, flag bit 5 set */
};

/** Entries in the order the driver reports them, circular; an empty list's head points to itself. */
struct scan_list {
    scan_entry *first;
    scan_entry *last;
};

/** Gets one driver scan result, valid during the call. */
typedef void (*scan_result_callback)(const scan_result *result, void *ctx);

/** Gets one information element: an id byte, a length byte, and as many bytes as that says. */
typedef void (*scan_element_callback)(void *ctx, const uint8_t *element, scan_entry *entry);

/**
 * Asks an interface's radio to scan.
 *
 * @param ssid   network to probe for by name; null: listen, and probe for nobody in particular
 * @param freqs  frequencies in MHz; null: all
 * @param count  their number; 0 or less: all
 * @return 0; -EIO without a vendor context; -ENOMEM; else as vl_nl80211_send(): -EBUSY while a scan runs, -ENETDOWN
 *         while the interface is down, -ENODEV when there is none
 */
VELA_API int vela_scan_request_freqs(const char *ifname, const char *ssid, const uint32_t *freqs, int count);

/** The same on all frequencies. Further arguments are ignored. */
VELA_API int vela_scan_request(const char *ifname, const char *ssid, ...);

/**
 * Collects what an interface's radio has heard.
 *
 * @return the list, for free_scanlist(); empty or short when the driver could not be asked; null when out of memory
 */
VELA_API scan_list *get_scanlist(const char *ifname);

/**
 * Hands each driver scan result to a callback.
 *
 * @return 0; -1 when the driver could not be asked or out of memory; -EIO without a vendor context
 */
VELA_API int parse_scan_results(const char *ifname, scan_result_callback per_result, void *ctx);

/**
 * Appends the entry of one driver result to a list. Does nothing when out of memory.
 *
 * @param result  with the `essid_len` and `ies_len` bytes that it announces
 * @param list    a scan_list; null is ignored
 */
VELA_API void add_scan_entry(const scan_result *result, void *list);

/**
 * Walks information elements. The callback sees every element that begins within the length, also a last one that does
 * not end there: it bounds its own reads by what its caller gave.
 *
 * @param ctx       passed to the callback, as is `entry`
 * @param len       bytes of elements; 0 or less: none
 * @param callback  may be null
 * @return 0
 */
VELA_API int parse_scan_result_ies(void *ctx, const uint8_t *ies, int len, scan_element_callback callback,
                                   scan_entry *entry);

/** Frees a list with all its entries. Null is ignored. */
VELA_API void free_scanlist(scan_list *list);

/** Whether the radio stack is being reloaded or provisioned, 1 or 0: callers then do not scan. */
VELA_API int hostapd_or_provision_busy(void);

/** What an access point tells its own kind, in the maker's vendor element of its beacons. */
typedef struct vela_ie {
    uint8_t serial[6];
    uint8_t flags; /**< VELA_IE_CONNECTED, VELA_IE_ACCEPTS_UPLINKS; other bits are free */
    uint8_t mesh;  /**< non-zero: with the mesh sub-element */
    uint8_t hops;  /**< in the mesh sub-element: wireless hops to the wired network */
} vela_ie;

/** Flag bits of the maker's element. */
enum {
    VELA_IE_CONNECTED = 1 << 3,       /**< the sender reaches the wired network */
    VELA_IE_ACCEPTS_UPLINKS = 1 << 5, /**< the sender takes other access points as its stations */
};

/** Largest element that vela_ie_build() makes. */
#define VELA_IE_MAX 64

/**
 * Writes the maker's vendor element: 0xDD, length, the maker's OUI, type 1, then fields of an id byte, a length byte
 * and a value: 1 serial number (6 bytes), 2 flags (1 byte), 3 mesh sub-element (1 byte: hops).
 *
 * @param size  VELA_IE_MAX is always enough
 * @return bytes written, or -1 when they do not fit
 */
VELA_API int vela_ie_build(const vela_ie *ie, uint8_t *out, size_t size);

#ifdef __cplusplus
}
#endif

#endif
