/**
 * @file
 * How an interface came by its IPv4 address.
 *
 * The first source that knows the interface answers: the network daemon over the system bus (for at most a second), the
 * lease file of the DHCP client (a build setting, /var/run/dhcp-IFNAME.lease), the kernel's own list of addresses.
 *
 * Results are 0, or a negative errno: -EINVAL for a null argument, -ENODEV for an interface that is not there, else
 * what the kernel gives.
 */
#ifndef VELA_SERVICES_DHCP_H
#define VELA_SERVICES_DHCP_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>
#include <vela/ipc/ubus.h>

#ifdef __cplusplus
extern "C" {
#endif

/** States of a lease. */
enum {
    VELA_DHCP_UNKNOWN, /**< no source tells */
    VELA_DHCP_NONE,    /**< no lease: none was got, or it ran out */
    VELA_DHCP_STATIC,  /**< an address by configuration */
    VELA_DHCP_BOUND,
};

/** Sources; 0 where none told. */
enum { VELA_DHCP_FROM_BUS = 1, VELA_DHCP_FROM_FILE, VELA_DHCP_FROM_KERNEL };

/** A lease. Addresses in network order, 0 for not known; numbers with all bits set are not known. */
typedef struct vela_dhcp_lease {
    char ifname[16];
    uint32_t state;
    uint32_t source;
    uint32_t address, netmask, gateway, server;
    uint32_t dns[4];
    uint32_t lease_s; /**< how long it was granted for */
    uint32_t age_s;   /**< since it was got; from the bus, since the interface came up */
    uint32_t
        remaining_s; /**< until it runs out; from the bus only in the first lease, whose renewals it does not tell */
    char domain[64];
} vela_dhcp_lease;

/**
 * The lease of an interface.
 *
 * @param iface  a bus record; null: the bus is not asked
 * @param out    written on success only, also when nothing is known: state VELA_DHCP_UNKNOWN
 */
VELA_API int vela_dhcp_get(vela_ubus_interface_t *iface, const char *ifname, vela_dhcp_lease *out);

/**
 * The same as a JSON object; keys are the members' names, "state" and "source" are words, "dns" is an array. What is
 * not known is left out. A new reference; null with errno.
 */
VELA_API json_t *vela_dhcp_json(vela_ubus_interface_t *iface, const char *ifname);

#ifdef __cplusplus
}
#endif

#endif
