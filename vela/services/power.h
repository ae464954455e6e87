/**
 * @file
 * What feeds the device, and what it feeds: power supplies, and the outlets that power other devices over Ethernet.
 *
 * The first source that is there answers: the daemon on the system bus, else the kernel, which knows outlets by its PSE
 * controllers and supplies by its power-supply class and, where the build names chips, by hardware monitors.
 *
 * A call waits at most 3 s for the bus. Results are a count or 0, else a negative errno: -EINVAL for a null argument,
 * -ENOENT where no source is there, else what vela_ubus_call_object() or the kernel gives. `iface` may be null: the bus
 * is not asked.
 */
#ifndef VELA_SERVICES_POWER_H
#define VELA_SERVICES_POWER_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>
#include <vela/ipc/ubus.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Kinds of supply. */
enum { VELA_SUPPLY_POE = 1, VELA_SUPPLY_DC, VELA_SUPPLY_MAINS, VELA_SUPPLY_BATTERY, VELA_SUPPLY_USB };

/** States of an outlet. */
enum { VELA_OUTLET_OFF = 1, VELA_OUTLET_SEARCHING, VELA_OUTLET_DELIVERING, VELA_OUTLET_FAULT };

/** Who told. */
enum { VELA_POWER_FROM_BUS = 1, VELA_POWER_FROM_KERNEL, VELA_POWER_FROM_MONITOR };

/** A supply. Numbers with all bits set are not known. */
typedef struct vela_power_supply {
    char name[32];
    uint32_t kind;    /**< VELA_SUPPLY_... */
    uint32_t present; /**< 1 where something is plugged in */
    uint32_t online;  /**< 1 where the device is fed by it */
    uint32_t voltage_mv, current_ma, power_mw;
    uint32_t max_mw; /**< what it can give */
    uint32_t source; /**< VELA_POWER_FROM_... */
} vela_power_supply;

/** An outlet. Numbers with all bits set are not known. */
typedef struct vela_power_outlet {
    char name[32];
    char ifname[16];
    uint32_t enabled;     /**< 1 where it may deliver */
    uint32_t state;       /**< VELA_OUTLET_... */
    uint32_t power_class; /**< of the device that it feeds */
    uint32_t power_mw;    /**< delivered */
    uint32_t limit_mw;
    uint32_t source; /**< VELA_POWER_FROM_... */
    char fault[32];  /**< what the daemon says of a fault */
} vela_power_outlet;

/** Gets one element, valid during the call. Returns 0 to go on, anything else to stop. */
typedef int (*vela_power_supply_callback)(const vela_power_supply *supply, void *arg);
typedef int (*vela_power_outlet_callback)(const vela_power_outlet *outlet, void *arg);

/** The supplies. @return how many were delivered, or a negative errno; -ENOSPC after 256 when there are more */
VELA_API int vela_power_supply_foreach(vela_ubus_interface_t *iface, vela_power_supply_callback each, void *arg);

/** The outlets, likewise. */
VELA_API int vela_power_outlet_foreach(vela_ubus_interface_t *iface, vela_power_outlet_callback each, void *arg);

/**
 * Lets an outlet deliver power, or not. Only the daemon on the bus can: without it -ENOENT, as for a name it does not
 * know.
 */
VELA_API int vela_power_outlet_set(vela_ubus_interface_t *iface, const char *name, int enabled);

/**
 * {supplies: [{name, kind ("poe"), present, online, voltage_mv, current_ma, power_mw, max_mw, source}], outlets:
 * [{name, interface, enabled, state ("delivering"), class, power_mw, limit_mw, fault, source}]}. What is not known is
 * left out, and so is a list that no source has.
 *
 * @return a new reference; null with errno, ENOENT without any source
 */
VELA_API json_t *vela_power_json(vela_ubus_interface_t *iface);

#ifdef __cplusplus
}
#endif

#endif
