/**
 * @file
 * The network interfaces of this device and their addresses, as the kernel has them at this moment.
 *
 * Results are 0 or a count on success, else a negative errno: -EINVAL for a null or impossible argument, -ENODEV for
 * an interface that is not there, -ETIMEDOUT for a kernel that does not answer, -ENOMEM. Outputs are written on success
 * only. A list that changed while it was read is delivered whole, some of it perhaps twice or not at all; the result is
 * then -EAGAIN.
 *
 * The kernel answers at once. Where it does not, a question is given up after 2 s of silence and after 5 s in all; a
 * call asks one or two, the JSON writers up to four times where the list keeps changing. Speed and duplex come from the
 * driver, by one system call per interface that has carrier. Any thread may call.
 */
#ifndef VELA_NET_NETIF_H
#define VELA_NET_NETIF_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** An interface. Numbers with all bits set are not known, as are empty texts, addresses of zeros and indexes of 0. */
typedef struct vela_netif {
    uint32_t index;
    char name[16];
    char kind[16];  /**< "bridge", "vlan", "bond", "veth", ...; "" for hardware */
    uint32_t type;  /**< ARPHRD_..., <net/if_arp.h> */
    uint32_t flags; /**< IFF_..., <net/if.h> */
    uint32_t
        operstate;    /**< RFC 2863: 0 unknown, 1 not present, 2 down, 3 lower layer down, 4 testing, 5 dormant, 6 up */
    uint32_t carrier; /**< 1 or 0 */
    uint32_t mtu;     /**< bytes */
    uint32_t speed_mbps;      /**< known only with carrier */
    uint32_t duplex;          /**< 0 half, 1 full; known only with carrier */
    uint32_t carrier_changes; /**< since the interface was made */
    uint8_t mac[6];
    uint8_t permanent_mac[6]; /**< as the hardware came */
    uint32_t master;          /**< index of the bridge or bond above */
    uint32_t lower;           /**< index of the device below, or of a veth's peer; only in this network namespace */
    uint32_t vlan_id;         /**< all ones for none */
    uint32_t wiphy;           /**< number of its radio; all ones for none */
    uint32_t address_count;   /**< its IPv4 and IPv6 addresses */
    uint64_t rx_bytes, tx_bytes, rx_packets, tx_packets, rx_errors, tx_errors, rx_dropped, tx_dropped, multicast;
    uint64_t spare[4]; /**< 0 */
} vela_netif;

/** An address of an interface. */
typedef struct vela_netaddr {
    uint32_t index;       /**< of its interface */
    uint8_t family;       /**< AF_INET or AF_INET6 */
    uint8_t prefix;       /**< length in bits */
    uint8_t scope;        /**< RT_SCOPE_..., <linux/rtnetlink.h>: 0 global, 253 link, 254 host */
    uint8_t reserved;     /**< 0 */
    uint8_t address[16];  /**< network order; IPv4 in the first four bytes */
    uint32_t flags;       /**< IFA_F_..., <linux/if_addr.h> */
    uint32_t valid_s;     /**< left of its lifetime; all ones: for ever */
    uint32_t preferred_s; /**< left of the time that new connections use it; all ones: for ever */
} vela_netaddr;

/** Gets one element, valid during the call. Returns 0 to go on, anything else to stop. */
typedef int (*vela_netif_callback)(const vela_netif *netif, void *arg);
typedef int (*vela_netaddr_callback)(const vela_netaddr *address, void *arg);

/** One interface by its name. */
VELA_API int vela_netif_get(const char *ifname, vela_netif *out);

/**
 * All interfaces, in the kernel's order. A callback may call anything.
 *
 * @return how many were delivered, or a negative errno; a callback that stops is no failure
 */
VELA_API int vela_netif_foreach(vela_netif_callback each, void *arg);

/** The addresses of an interface, or with null those of all. Otherwise as vela_netif_foreach(). */
VELA_API int vela_netaddr_foreach(const char *ifname, vela_netaddr_callback each, void *arg);

/**
 * An interface as a JSON object, or with null all of them as an array.
 *
 * {name, index, kind, up, carrier, operstate ("up"), mtu, mac, permanent_mac (where it is another), speed_mbps, duplex
 * ("full"), master and lower (names), vlan, radio, addresses: [{address, prefix, scope ("global"), dynamic, valid_s}],
 * counters: {rx_bytes, ...}}. What is not known is left out. Where the list kept changing, or has more than 4096
 * addresses, each object has "partial": true.
 *
 * @return a new reference; null with errno
 */
VELA_API json_t *vela_netif_json(const char *ifname);

#ifdef __cplusplus
}
#endif

#endif
