/**
 * @file
 * Yes/no questions about the device: its model family, answered from the identified board (board.h), and its state,
 * kept in files. So that nobody compares system ids: what a new model needs stands above the rows of boards-corvo.cpp.
 *
 * Answers are 1 for yes, 0 for no. A board that could not be identified belongs to no family.
 */
#ifndef VELA_BOARD_MODEL_H
#define VELA_BOARD_MODEL_H

#include <stdint.h>
#include <vela/config/cfg.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** System id of the identified board. */
VELA_API uint16_t get_orb_sysId(void);

/**
 * @name Families
 * A model belongs to its generation and to its sub-families at once.
 * @{
 */
VELA_API int is_router_ap(void); /**< an access point that is also the site's router */
VELA_API int is_hbx_switch(void);
VELA_API int is_linkbar(void); /**< a point-to-point link */
VELA_API int is_hbx(void);
VELA_API int is_orb4(void);
VELA_API int is_orb5(void);
VELA_API int is_orb6(void);
VELA_API int is_orb6_tier2(void);
VELA_API int is_orb6_wallplate(void);
VELA_API int is_orb7_wallplate(void);
VELA_API int is_orb_ac_wallplate(void);
VELA_API int is_home_router7(void);
VELA_API int is_orb7(void);
VELA_API int is_orb7_tier2(void);
VELA_API int is_orb_cellular(void);
VELA_API int is_force_detect_loop(void); /**< looks for loops between its ports whatever the configuration says */
VELA_API int is_6ghz_supported(void);
VELA_API int is_orb6_variant_aqr112c(void); /**< the hardware revisions of one model with another Ethernet PHY */
VELA_API int is_orb_ap(void);               /**< generations 4 to 7 */
VELA_API int is_qca_ap(void);               /**< by the radio chips' driver */
/** @} */

/**
 * @name What the device does
 * @{
 */
VELA_API int is_green_ap_supported(void); /**< power saving of idle radios */
VELA_API int use_global_hostapd(void);    /**< one hostapd for all radios */
VELA_API int is_wifi_only(void);
VELA_API int is_poe_powered(void);
VELA_API int is_router_to_mesh(void);           /**< a router set up as a mesh node: /etc/meshmode.conf exists */
VELA_API int is_router_ap_setup_complete(void); /**< "mgmt.is_setup_completed" of /etc/persistent/cfg/mgmt */
VELA_API int is_appliance_api(void);            /**< always 0 in this build */
VELA_API int is_relay_uplink_supported(void);   /**< always 1 in this build */
/** @} */

/**
 * Analytics as configured: "system.analytics.status" and "system.analytics.anonymous", both on unless told otherwise.
 *
 * @param cfg  borrowed; null is an empty configuration
 * @return 0 off, 1 on, 2 anonymous
 */
VELA_API int get_analytics_mode(const cfg_entry *cfg);

/** Whether core dumps may be uploaded: "system.analytics.coredump", off unless told otherwise. */
VELA_API int get_analytics_coredump_mode(const cfg_entry *cfg);

/**
 * Reads a flag kept as a file.
 *
 * @param path  under /proc, a file whose first line is "true" or not; elsewhere any file
 * @param def   answer when the file is not readable
 * @return 1 when it says "true" or, outside /proc, is there; def as given when it is not readable; else 0
 */
VELA_API int system_is_xxx(const char *path, int def);

/**
 * Sets such a flag: writes "true" or "false" and a line feed. Outside /proc, the value 0 deletes the file instead.
 * Failures are not reported.
 *
 * @param path  null does nothing
 */
VELA_API void system_set_xxx(const char *path, int value);

/** Writes a text and a line feed to a file, made or cut. Null path or text does nothing; failures are not reported. */
VELA_API void system_set_value(const char *path, const char *text);

#ifdef __cplusplus
}
#endif

#endif
