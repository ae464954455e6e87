/**
 * @file
 * Through which wired port the device reaches its IPv4 default gateway.
 *
 * The default route names the gateway; the kernel's neighbour table or, failing that, a bridge's forwarding database
 * tells behind which port its hardware address was seen; the port must have link. Nothing is kept between calls.
 * The kernel answers at once. Where it does not, a call gives up after 2 s of silence, and after 5 s for each of its
 * one or two questions; a failed question is not asked again.
 */
#ifndef VELA_NET_GATEWAY_H
#define VELA_NET_GATEWAY_H

#include <jansson.h>
#include <stddef.h>
#include <stdint.h>
#include <vela/board/board.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The default gateway's address.
 *
 * @param ip    receives it as text, cut to len - 1 characters; "" on failure
 * @param addr  receives it in network order; 0 on failure
 * @param len   size of `ip`; 16 holds any
 * @return 0; -1 without a default route, or for null arguments or a `len` of 0
 */
VELA_API int gateway_get_ip(char *ip, uint32_t *addr, size_t len);

/** The hardware address of an IPv4 neighbour, from the ARP table. 0; -1 when that has none, `mac` is then untouched. */
VELA_API int gateway_get_mac(const char *ip, uint8_t mac[6]);

/** Writes "02:56:4c:00:00:0a". 0; -1 for null arguments or a size below 18. */
VELA_API int gateway_mac_to_str(const uint8_t mac[6], char *dst, size_t n);

/** The bridge port behind which an address (as text) was learned. 0; -1 also for null arguments or a `len` of 0. */
VELA_API int gateway_fdb_lookup(const char *bridge, const char *mac, char *ifname, int len);

/**
 * Candidate ports, each a name of at most 15 characters with its NUL, at most `max` of them. All return the count, 0
 * for a null output or a `max` of 0 or less.
 *
 * gateway_enum_eth_wan: the board's "eth" ports with a WAN role; gateway_enum_eth_all: all its "eth" ports, or the
 * kernel's when the board (which may be null) gives none; gateway_enum_eth_netlink: the kernel's "eth" links, wireless
 * ones left out.
 */
VELA_API int gateway_enum_eth_wan(const board_record *board, char (*out)[16], int max);
VELA_API int gateway_enum_eth_all(const board_record *board, char (*out)[16], int max);
VELA_API int gateway_enum_eth_netlink(char (*out)[16], int max);

/**
 * The candidate port that leads to the default gateway.
 *
 * @param bridge      whose forwarding database is asked when the neighbour table does not tell
 * @param candidates  names, `count` of them
 * @param out         receives the port's name, cut to n - 1 characters; written on success only
 * @return 0; -1 when there is none with link, or for null or empty arguments
 */
VELA_API int gateway_detect_uplink(const char *bridge, char (*candidates)[16], int count, char *out, size_t n);

/**
 * The same detection with everything that led to it: {question: "gateway", answer: port, reason, steps: [{name,
 * verdict, reason, ...}]}.
 *
 * The reason is how the port was found ("neighbour", "fdb"), or what ended the search, in which case there is no
 * answer. Steps: "route" found or no_default_route; "neighbour" on_port, on_bridge (seen, but on no candidate),
 * not_in_table, no_answer; "mac" not_resolved; "fdb" learned or not_learned; then each port: neighbour, fdb, no_link,
 * no_candidate (not among those given), unseen.
 *
 * @return a new object, which the caller releases; null with errno when memory is short, or for null or empty arguments
 */
VELA_API json_t *gateway_explain(const char *bridge, char (*candidates)[16], int count);

#ifdef __cplusplus
}
#endif

#endif
