/**
 * @file
 * How far this device gets towards the internet, from what the kernel knows already: no packet is sent.
 *
 * Each default route of the main table is judged (each next hop of a multipath route on its own): has its interface
 * carrier and a global address, was its gateway heard, is anything known from beyond it. What is known from beyond are
 * the device's own TCP connections: where a peer that is not on the link acknowledged lately, packets pass the gateway.
 * That is proof of no more than this.
 *
 * Results are 0 or a count on success, else a negative errno: -EINVAL, -ETIMEDOUT for a kernel that does not answer,
 * -ENOMEM. Outputs are written on success only. The kernel answers at once, to five questions in all. Where it does
 * not, a question is given up after 2 s of silence and after 5 s in all; while tables change under the walk, all of
 * them are asked up to four times. Any thread may call.
 */
#ifndef VELA_NET_INTERNET_H
#define VELA_NET_INTERNET_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** How far it is known to go; later is better. */
enum {
    VELA_INTERNET_UNKNOWN,
    VELA_INTERNET_NO_ADDRESS,     /**< no global address, of the family or on the route's interface */
    VELA_INTERNET_NO_ROUTE,       /**< no default route, or one that drops what it gets (blackhole, unreachable) */
    VELA_INTERNET_NO_CARRIER,     /**< the route's interface is down or has no link */
    VELA_INTERNET_GATEWAY_FAILED, /**< the gateway does not answer to its address */
    VELA_INTERNET_GATEWAY_UNSEEN, /**< the gateway was not heard for 300 s; nobody may have asked it */
    VELA_INTERNET_NO_RESOLVER,    /**< the gateway is there, but no DNS resolver is configured */
    VELA_INTERNET_GATEWAY_SEEN,   /**< the gateway is there, or the link needs none */
    VELA_INTERNET_BEYOND,         /**< a peer beyond the gateway acknowledged within 120 s */
};

/** A default route, or a next hop of one. */
typedef struct vela_default_route {
    uint32_t family; /**< AF_INET or AF_INET6; 0 where there is no route */
    uint32_t table;  /**< always the main one, 254 */
    uint32_t metric; /**< the lowest counts */
    uint32_t index;  /**< of its interface; 0 none */
    char ifname[16];
    uint8_t gateway[16];      /**< network order, IPv4 in the first four bytes; zeros: none, or of another family */
    uint8_t source[16];       /**< preferred source address; zeros: none */
    uint8_t mac[6];           /**< the gateway's; zeros: not known */
    uint32_t neighbour_state; /**< the gateway's NUD_..., <linux/neighbour.h>; 0 without an entry */
    uint32_t confirmed_s;     /**< since the gateway was last heard to be there; all ones: not known */
    uint32_t reason;          /**< VELA_INTERNET_... */
} vela_default_route;

typedef struct vela_resolver {
    uint32_t family;      /**< AF_INET or AF_INET6 */
    uint32_t scope_index; /**< interface of a link-local address; 0 none */
    uint8_t address[16];  /**< network order; IPv4 in the first four bytes */
} vela_resolver;

typedef struct vela_internet {
    uint32_t reason;   /**< the better of the two families */
    uint32_t reason4;  /**< that of best4, or why there is none */
    uint32_t reason6;  /**< that of best6, or why there is none */
    uint32_t beyond_s; /**< since a peer beyond the gateway last acknowledged, at most 120; all ones: not known */
    uint32_t resolver_count;
    vela_resolver resolvers[8];
    vela_default_route best4; /**< lowest metric of those that are not refused, else the one that got furthest */
    vela_default_route best6;
} vela_internet;

/** Gets one route, valid during the call. Returns 0 to go on, anything else to stop. A callback may call anything. */
typedef int (*vela_default_route_callback)(const vela_default_route *route, void *arg);

/** Judges the routes, reads the resolvers. */
VELA_API int vela_internet_get(vela_internet *out);

/**
 * Every default route of a family (0: both), IPv4 first, in the kernel's order, each with its reason, which is at most
 * VELA_INTERNET_GATEWAY_SEEN.
 *
 * @return how many were delivered, or a negative errno; a callback that stops is no failure
 */
VELA_API int vela_default_route_foreach(int family, vela_default_route_callback each, void *arg);

/**
 * All of it, its own explanation: {reason: "gateway_seen", beyond_s, resolvers: [..], ipv4: {reason, routes:
 * [{interface, gateway, metric, mac, neighbour: "reachable", confirmed_s, verdict: "chosen|passed|refused", reason}]},
 * ipv6: {...}}. Reasons are the names above in small letters. What is not known is left out.
 *
 * @return a new reference; null with errno
 */
VELA_API json_t *vela_internet_json(void);

#ifdef __cplusplus
}
#endif

#endif
