/**
 * @file
 * Limits and priority of single stations, by the kernel's traffic control: a rule holds for an address on an interface,
 * for what is sent to it and for what comes from it.
 *
 * A rule is policing, not shaping: what goes beyond a limit is dropped, nothing is queued, and the driver's own queues
 * stay in charge of airtime. A limit lets 200 ms of its rate pass at once, 128 KiB at least, so that a single TCP flow
 * reaches it. What a hardware fast path forwards never meets a rule.
 *
 * Rules are of an address: a station that leaves keeps its rule and finds it when it comes back. A program that wants
 * otherwise clears it on NL80211_CMD_DEL_STATION. They end with the interface. A multi-link station goes by its own
 * address, not by that of a link.
 *
 * On the kernel's side a rule is a flower filter of one priority (the build setting VELA_QOS_PREFERENCE) on each side
 * of the interface's "clsact" queue, which is made when it is missing and then stays: others may use it. Filters of
 * other priorities are left alone, and packets within a limit still come to them. Needs CAP_NET_ADMIN, and of the
 * kernel NET_SCH_INGRESS, NET_CLS_FLOWER, NET_ACT_POLICE and NET_ACT_SKBEDIT.
 *
 * Every call asks the kernel over a socket of its own and returns at once; none waits longer than 5 s per exchange.
 * Results are 0 or more, or a negative errno: -EINVAL for a null or impossible argument, -ENODEV for no such interface,
 * -EPERM, -EOPNOTSUPP where the kernel lacks what is needed (one warning per process says what), -EAGAIN when the rules
 * changed while they were read, -ETIMEDOUT, -ENOMEM.
 */
#ifndef VELA_WIRELESS_QOS_H
#define VELA_WIRELESS_QOS_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Most rules on one interface. */
#define VELA_QOS_RULES_MAX 256

typedef struct vela_qos_rule {
    uint8_t mac[6];             /**< of one station: no group address, not zero */
    int32_t priority;           /**< 802.11 user priority of what is sent to it, 0 to 7; -1: as without the rule */
    uint32_t to_station_kbps;   /**< 64 to 4000000; 0 no limit */
    uint32_t from_station_kbps; /**< likewise */
    /* Since the rule was made; all ones where the rule has nothing to do in that direction. Ignored by vela_qos_set().
     */
    uint64_t to_bytes; /**< all that was to be sent */
    uint64_t to_drops; /**< packets */
    uint64_t from_bytes;
    uint64_t from_drops;
} vela_qos_rule;

/** Gets one rule, valid during the call. Returns 0 to go on; anything else ends the walk, which is no failure. */
typedef int (*vela_qos_callback)(const vela_qos_rule *rule, void *arg);

/**
 * Sets the rule of a station. A rule that stands already is left as it is, its counters go on; another one of this
 * address gives way. One with neither limit nor priority clears. When the second direction cannot be set, the first is
 * put back.
 *
 * @return 0; -ENOSPC when there are VELA_QOS_RULES_MAX others
 */
VELA_API int vela_qos_set(const char *ifname, const vela_qos_rule *rule);

/**
 * Removes the rule of a station.
 * @param mac  6 bytes; null: every rule of the interface
 * @return 0, also when there was none
 */
VELA_API int vela_qos_clear(const char *ifname, const uint8_t *mac);

/**
 * Hands over the rules of an interface, in the kernel's order.
 * @return the number of rules delivered
 */
VELA_API int vela_qos_foreach(const char *ifname, vela_qos_callback each, void *arg);

/**
 * The same as an array of objects, keys as the members: without the limits and the priority that a rule does not have.
 * Null, with errno, on failure. The caller releases it.
 */
VELA_API json_t *vela_qos_json(const char *ifname);

#ifdef __cplusplus
}
#endif

#endif
