/**
 * @file
 * The wireless report: radios, networks and stations of this device in one JSON document, with the satisfaction of
 * every station, from two polls in a row.
 *
 * {interval_ms, partial?, radios: [{radio, wiphy, mhz, width_mhz, noise_dbm, busy_permille, own_permille, power_mbm,
 * stations}], networks: [{interface, ssid, mac, mode, radio, mhz, width_mhz, mld, links, stations, satisfaction}],
 * stations: [as vela_sta_json(), with network and ip [..]]}
 *
 * What is not known is left out. "partial" stands where something kept changing or was more than is held.
 */
#ifndef VELA_SERVICES_WLAN_REPORT_H
#define VELA_SERVICES_WLAN_REPORT_H

#include <jansson.h>
#include <vela/core/api.h>
#include <vela/wireless/nl80211.h>
#include <vela/wireless/station.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Most stations that a report can hold. */
#define VELA_WLAN_REPORT_STATIONS_MAX 4096

/** A report in the making: it keeps the poll before. Use one from one thread. */
typedef struct vela_wlan_report vela_wlan_report;

/**
 * Gets each station before it is scored, to add what only the caller knows: DNS, DHCP, TCP, the chip. Everything else
 * of the record is filled in already; `arp_ok` is 0 where the neighbour table tells of an address of the station that
 * failed and of none that answers.
 */
typedef void (*vela_wlan_report_hook)(const vela_sta_info *info, vela_station *station, void *arg);

/**
 * @param service       an initialised service; borrowed until the report is destroyed
 * @param max_stations  1 to VELA_WLAN_REPORT_STATIONS_MAX, more count as that; beyond them stations are left out
 * @return the report; null, with errno, for a null service, 0 stations, or when out of memory
 */
VELA_API vela_wlan_report *vela_wlan_report_create(vl_nl80211_service *service, unsigned max_stations);

/**
 * Asks the kernel, and reports what happened since the poll before; the first one tells of the time since each
 * association, without interval_ms. Returns at once on a device that is well; each question waits no longer than 5 s.
 *
 * @param hook  may be null
 * @return the report, which the caller releases; null, with errno, on failure: ENODEV without nl80211, ENOMEM,
 * ETIMEDOUT
 */
VELA_API json_t *vela_wlan_report_poll(vela_wlan_report *report, vela_wlan_report_hook hook, void *arg);

/** Frees a report. Null is ignored. */
VELA_API void vela_wlan_report_destroy(vela_wlan_report *report);

#ifdef __cplusplus
}
#endif

#endif
