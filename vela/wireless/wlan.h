/**
 * @file
 * The wireless interfaces of this device: what kind each is, its network, its channel.
 *
 * What the driver does not tell is all ones in an unsigned member, INT32_MIN in a signed one, zeros in an address, ""
 * in a text, and has no key in JSON.
 */
#ifndef VELA_WIRELESS_WLAN_H
#define VELA_WIRELESS_WLAN_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>
#include <vela/wireless/nl80211.h>

#ifdef __cplusplus
extern "C" {
#endif

/** One link of a multi-link interface. */
typedef struct vela_wlan_link {
    uint32_t id;
    uint8_t mac[6];
    uint32_t freq_mhz;
    uint32_t width_mhz;
    int32_t power_mbm;
} vela_wlan_link;

/** One wireless interface. */
typedef struct vela_wlan {
    uint32_t index; /**< of the network device; 0 for one that has none, such as a P2P device */
    char ifname[16];
    uint32_t mode; /**< NL80211_IFTYPE_... */
    uint8_t mac[6];
    char ssid[33]; /**< the network it serves or is in: `ssid_len` bytes of any value, and a NUL */
    uint32_t ssid_len;
    uint32_t wiphy;      /**< index of the radio */
    uint32_t freq_mhz;   /**< primary channel; only while there is one, and not on a multi-link interface */
    uint32_t width_mhz;  /**< 80+80 is 160 */
    uint32_t center_mhz; /**< of the whole channel, or of its first half */
    int32_t power_mbm;   /**< hundredths of dBm */
    uint32_t link_count; /**< of all; the first four are kept */
    vela_wlan_link links[4];
} vela_wlan;

/** Gets one interface, valid during the call. Returns 0 to go on; anything else ends the walk, which is no failure. */
typedef int (*vela_wlan_callback)(const vela_wlan *wlan, void *arg);

/**
 * Hands over every wireless interface, in the kernel's order (NL80211_CMD_GET_INTERFACE). Asks over a socket of its
 * own: the callback may use the service. Returns at once; no longer than 5 s.
 *
 * @param service  an initialised service; borrowed
 * @return the number of interfaces delivered; -EINVAL for a null argument or a service that is not initialised; -EAGAIN
 *         when they changed while they were read (all that came was delivered); -ETIMEDOUT; -ENOMEM; another negative
 *         errno of the kernel's
 */
VELA_API int vela_wlan_foreach(vl_nl80211_service *service, vela_wlan_callback each, void *arg);

/**
 * An interface as an object: interface, ssid, mac, mode ("ap", "station", ...), wiphy, mhz, width_mhz, center_mhz,
 * power_mbm, mld, links [{id, mac, mhz, width_mhz, power_mbm}]. The caller releases it; null, with errno, when out of
 * memory.
 */
VELA_API json_t *vela_wlan_json(const vela_wlan *wlan);

#ifdef __cplusplus
}
#endif

#endif
