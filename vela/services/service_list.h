/**
 * @file
 * The services that the device's service manager runs, as it tells over the system bus.
 *
 * A call waits at most 3 s. Results are a count or 0, else a negative errno: -EINVAL for a null argument, -EOPNOTSUPP
 * where nobody offers the list (or the bus record is null), else what vela_ubus_call_object() gives.
 */
#ifndef VELA_SERVICES_SERVICE_LIST_H
#define VELA_SERVICES_SERVICE_LIST_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>
#include <vela/ipc/ubus.h>

#ifdef __cplusplus
extern "C" {
#endif

/** One instance of a service. Numbers with all bits set are not known. */
typedef struct vela_service {
    char name[64];
    char instance[64];      /**< "" for a service that has none */
    char command[256];      /**< words joined with blanks, cut at a character */
    uint32_t running;       /**< 1 or 0; a service without instances does not run */
    uint32_t pid;           /**< while it runs */
    uint32_t exit_code;     /**< of its last run, while it does not run; 0 also before the first */
    uint32_t respawns;      /**< how often it is started again before it is given up; 0 for without end */
    uint32_t reload_signal; /**< that makes it read its configuration again */
} vela_service;

/** Gets one instance, valid during the call. Returns 0 to go on, anything else to stop. */
typedef int (*vela_service_callback)(const vela_service *service, void *arg);

/**
 * The instances of all services, or with a name those of one, in the manager's order.
 *
 * @return how many were delivered; -ENOSPC when there were more than 1024, after delivering these
 */
VELA_API int vela_service_foreach(vela_ubus_interface_t *iface, const char *name, vela_service_callback each,
                                  void *arg);

/**
 * The same as a JSON array; keys are the members' names, what is not known is left out. With more than 1024 each object
 * has "partial": true.
 *
 * @return a new reference; null with errno
 */
VELA_API json_t *vela_service_json(vela_ubus_interface_t *iface, const char *name);

#ifdef __cplusplus
}
#endif

#endif
