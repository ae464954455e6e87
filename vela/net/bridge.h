/**
 * @file
 * What the kernel knows of bridges, hardware addresses and links.
 *
 * The text queries answer 0 or -1. The tables (vela_...) answer 0 or a count, else a negative errno: -EINVAL for a null
 * or impossible argument, -ENODEV for an interface that is not there or is no bridge, -ENOENT for an element that is
 * not there, -ETIMEDOUT for a kernel that does not answer, -ENOMEM. Outputs are written on success only. A table that
 * changed while it was read is delivered whole, and the result is then -EAGAIN; the forwarding database changes without
 * a sign: an address may come twice, or not at all for one walk.
 *
 * The kernel answers at once. Where it does not, a question is given up after 2 s of silence and after 5 s in all; a
 * call asks up to three, the JSON writers up to four times where the table keeps changing. Any thread may call.
 */
#ifndef VELA_NET_BRIDGE_H
#define VELA_NET_BRIDGE_H

#include <jansson.h>
#include <stddef.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The hardware address of an IPv4 neighbour, from the ARP table (/proc/net/arp); incomplete entries do not count.
 *
 * @param ip    dotted address
 * @param mac   receives "02:56:4c:00:00:0a"; "" on failure
 * @param size  of `mac`; 18 holds it
 * @return 0; -1 when the table has no such entry or the text does not fit
 */
VELA_API int get_mac_by_ip(const char *ip, char *mac, size_t size);

/**
 * The number of the bridge port behind which an address was learned, from the forwarding database.
 *
 * @param mac  as text; the bridge's own addresses do not count
 * @return port number, from 1; -1 when the address is not known, or there is no such bridge
 */
VELA_API int get_mac_brinfo(const char *bridge, const char *mac);

/**
 * The interface that is a bridge's port of a number.
 *
 * @param ifname  receives the name, cut to size - 1 characters; "" on failure
 * @return 0; -1 when the bridge has no such port
 */
VELA_API int get_ifname_from_br_portno(const char *bridge, int portno, char *ifname, size_t size);

/** The link of an interface (ETHTOOL_GLINK): 1 up, 0 down, -1 when the interface or its driver cannot say. */
VELA_API int get_ethtool_link_status(const char *ifname);

/**
 * The device through which the default gateway is reached: the default route's interface, or, where that is a bridge,
 * the bridge port behind which the gateway was learned.
 *
 * @param buf   receives the name, cut to size - 1 characters; "" on failure
 * @param size  of `buf`; 16 holds any name
 * @return 0; -1 without a default route, or when the port cannot be determined
 */
VELA_API int get_uplink_device(char *buf, size_t size);

/** A port of a bridge. Numbers with all bits set are not known. */
typedef struct vela_bridge_port {
    uint32_t index;
    char name[16];
    uint32_t number; /**< as get_mac_brinfo() tells it */
    uint32_t
        state; /**< BR_STATE_..., <linux/if_bridge.h>: 0 disabled, 1 listening, 2 learning, 3 forwarding, 4 blocking */
    uint32_t bridge;   /**< index of the bridge */
    uint32_t pvid;     /**< VLAN of untagged frames, 0 for none; not known where the bridge does not filter VLANs */
    uint32_t learning; /**< 1 or 0 */
    uint32_t isolated; /**< 1 or 0 */
} vela_bridge_port;

/** Flags of a vela_fdb_entry. */
enum {
    VELA_FDB_LOCAL = 1,     /**< an address of the bridge or of a port */
    VELA_FDB_STATIC = 2,    /**< does not age */
    VELA_FDB_OFFLOADED = 4, /**< the hardware has it too */
    VELA_FDB_EXTERNAL = 8,  /**< learned by the hardware, or put in by a program for it */
};

/** An entry of a forwarding database. Entries age: that an address is not there proves nothing. */
typedef struct vela_fdb_entry {
    uint8_t mac[6];
    uint32_t vlan;      /**< 0 none */
    uint32_t port;      /**< index of the port's interface, or of the bridge for its own */
    char port_name[16]; /**< "" for a port that has just vanished */
    uint32_t flags;     /**< VELA_FDB_... */
    uint32_t used_s;    /**< since a frame was sent to it; all ones: not known */
    uint32_t updated_s; /**< since a frame came from it; all ones: not known */
} vela_fdb_entry;

/** Flags of a vela_neighbour. */
enum {
    VELA_NEIGHBOUR_ROUTER = 1, /**< announced itself as a router (IPv6) */
    VELA_NEIGHBOUR_PROXY = 2,  /**< answered for by this device */
};

/** A neighbour in the ARP table (IPv4) or the neighbour-discovery table (IPv6). */
typedef struct vela_neighbour {
    uint32_t family;     /**< AF_INET or AF_INET6 */
    uint8_t address[16]; /**< network order; IPv4 in the first four bytes */
    uint8_t mac[6];      /**< zeros: not known */
    uint32_t index;      /**< of the interface */
    char ifname[16];     /**< "" for an interface that has just vanished */
    uint32_t state; /**< NUD_..., <linux/neighbour.h>: 1 incomplete, 2 reachable, 4 stale, 8 delay, 16 probe, 32 failed,
                       128 permanent */
    uint32_t flags; /**< VELA_NEIGHBOUR_... */
    uint32_t confirmed_s; /**< since it was last heard to be there; all ones: not known */
    uint32_t used_s;      /**< since a packet was last sent to it; all ones: not known */
} vela_neighbour;

/** Gets one element, valid during the call. Returns 0 to go on, anything else to stop. A callback may call anything. */
typedef int (*vela_bridge_port_callback)(const vela_bridge_port *port, void *arg);
typedef int (*vela_fdb_callback)(const vela_fdb_entry *entry, void *arg);
typedef int (*vela_neighbour_callback)(const vela_neighbour *neighbour, void *arg);

/**
 * The ports of a bridge; its forwarding database; the neighbours of a family (0: both) on an interface (null: all),
 * those left out that need no resolution (NUD_NOARP: multicast, loopback). In the kernel's order.
 *
 * @return how many were delivered, or a negative errno; a callback that stops is no failure
 */
VELA_API int vela_bridge_port_foreach(const char *bridge, vela_bridge_port_callback each, void *arg);
VELA_API int vela_fdb_foreach(const char *bridge, vela_fdb_callback each, void *arg);
VELA_API int vela_neighbour_foreach(int family, const char *ifname, vela_neighbour_callback each, void *arg);

/**
 * The entry of a hardware address in a bridge's forwarding database: one question, however many entries there are.
 * Linux before 5.0 has no such question; there the database is walked.
 *
 * @param vlan  0 where the bridge does not filter VLANs
 * @return 0; -ENOENT where there is none
 */
VELA_API int vela_fdb_find(const char *bridge, const uint8_t mac[6], uint32_t vlan, vela_fdb_entry *out);

/**
 * The neighbour of an address, on an interface or (null) on the first that has it.
 *
 * @param address  in network order: 4 bytes for AF_INET, 16 for AF_INET6
 * @return 0; -ENOENT where there is none
 */
VELA_API int vela_neighbour_find(int family, const void *address, const char *ifname, vela_neighbour *out);

/**
 * The same as JSON arrays. Keys are the members' names; state is a word ("forwarding", "reachable"), family "ipv4" or
 * "ipv6", a flag a member of its own (local, static, offloaded, external; router, proxy). What is not known is left
 * out. Where the table kept changing, each object has "partial": true.
 *
 * @return a new reference; null with errno
 */
VELA_API json_t *vela_bridge_port_json(const char *bridge);
VELA_API json_t *vela_fdb_json(const char *bridge);
VELA_API json_t *vela_neighbour_json(int family, const char *ifname);

#ifdef __cplusplus
}
#endif

#endif
