/**
 * @file
 * The guest portal's clients, as its daemon tells over the system bus.
 *
 * A call waits at most 3 s. Results are a count or 0, else a negative errno: -EINVAL for a null argument, -EOPNOTSUPP
 * without a portal daemon (or for a null bus record), else what vela_ubus_call_object() gives.
 */
#ifndef VELA_SERVICES_PORTAL_H
#define VELA_SERVICES_PORTAL_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>
#include <vela/ipc/ubus.h>

#ifdef __cplusplus
extern "C" {
#endif

/** States of a client. */
enum { VELA_PORTAL_PENDING = 1, VELA_PORTAL_ALLOWED, VELA_PORTAL_BLOCKED };

/** A client. Numbers with all bits set are not known. */
typedef struct vela_portal_client {
    uint8_t mac[6];
    char network[32];
    uint32_t state;       /**< VELA_PORTAL_... */
    uint32_t since_s;     /**< how long it has been in that state */
    uint32_t remaining_s; /**< until it ends */
    uint64_t rx_bytes;    /**< from the client */
    uint64_t tx_bytes;    /**< to the client */
} vela_portal_client;

/** Gets one client, valid during the call. Returns 0 to go on, anything else to stop. */
typedef int (*vela_portal_client_callback)(const vela_portal_client *client, void *arg);

/**
 * The clients of a guest network, or with null those of all.
 *
 * @return how many were delivered; -ENOSPC after 8192 when there are more
 */
VELA_API int vela_portal_client_foreach(vela_ubus_interface_t *iface, const char *network,
                                        vela_portal_client_callback each, void *arg);

/** One client. 0; -ENOENT when the portal does not know it. */
VELA_API int vela_portal_client_get(vela_ubus_interface_t *iface, const uint8_t mac[6], vela_portal_client *out);

/**
 * {networks: [{network, interface, enabled, clients}], clients: [{mac, network, state ("allowed"), since_s,
 * remaining_s, rx_bytes, tx_bytes}]}. What is not known is left out. A new reference; null with errno.
 */
VELA_API json_t *vela_portal_json(vela_ubus_interface_t *iface);

#ifdef __cplusplus
}
#endif

#endif
