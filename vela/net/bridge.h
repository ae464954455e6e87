/**
 * @file
 * What the kernel knows of bridges, hardware addresses and links.
 */
#ifndef VELA_NET_BRIDGE_H
#define VELA_NET_BRIDGE_H

#include <stddef.h>
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

#ifdef __cplusplus
}
#endif

#endif
