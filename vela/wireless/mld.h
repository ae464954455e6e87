/**
 * @file
 * Network interfaces of the wireless code: up or down, index, and the multi-link devices (MLD) of Wi-Fi 7 radios.
 */
#ifndef VELA_WIRELESS_MLD_H
#define VELA_WIRELESS_MLD_H

#include <stddef.h>
#include <vela/config/cfg.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** 1 when the interface exists and is up, else 0. */
VELA_API int vela_if_is_up(const char *ifname);

/** Brings an interface up. 0 on success, also when it is up already; -1 on any failure. */
VELA_API int vela_if_set_up(const char *ifname);

/** The interface's index from sysfs, its first three digits only (1000 reads as 100); 0 when there is none. */
VELA_API int vela_get_ifindex(const char *ifname);

/**
 * The multi-link device that an interface is a link of.
 *
 * @param buf   receives the device's name ("mld0"), cut to size - 1 characters; "" on failure
 * @param size  of `buf`; 0 writes nothing
 * @return 0; -1 when there is none, or (logged) no such interface
 */
VELA_API int get_iface_upper_mld_ifname(const char *ifname, char *buf, size_t size);

/** The VLAN of the bridge that an interface belongs to: 10 for "br0.10", 1 for "br0"; -1 (logged) without a bridge. */
VELA_API int get_mld_vlan_id(const char *ifname);

/**
 * The multi-link device configured for an access point interface.
 *
 * @param config   the device's configuration; may be null
 * @param devname  name of the interface
 * @return its name, owned by the configuration; null when none is configured
 */
VELA_API const char *get_mld_iface_cfg(const cfg_entry *config, const char *devname);

/** Forgets all names that add_if_mld_unique() has seen. */
VELA_API void reset_seen_mlds(void);

/**
 * Remembers a multi-link device, so that a report visits each only once. Sixteen names are kept for the process; a new
 * one beyond them counts as new every time.
 * @return 1 when the name is new, 0 when it was seen before, is null, or when out of memory
 */
VELA_API int add_if_mld_unique(const char *name);

#ifdef __cplusplus
}
#endif

#endif
