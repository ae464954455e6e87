/**
 * @file
 * The chip vendor's nl80211 wrapper: its five calls and their records.
 *
 * A build for a device takes the calls from the vendor's own library. This one does the same work on plain nl80211, for
 * hosts and simulated radios: vendor commands go out as NL80211_CMD_VENDOR, and the list of access points heard
 * (generic command 212) is read with NL80211_CMD_GET_SCAN. A program or a preloaded library that defines some of the
 * calls itself replaces these: the library then calls them there.
 *
 * On the wire a command is NL80211_CMD_VENDOR with the vendor's OUI, the sub-command, and vendor data that nests the
 * attributes of `wifi_vendor_attr`. The vendor data of each reply is the driver's answer, byte by byte.
 *
 * Results are 0 or negative: the kernel's negated errno (-EOPNOTSUPP from a driver that does not know the command), or
 * a negative libnl code.
 */
#ifndef VELA_PLATFORM_WIFI_WIFI_NL80211_H
#define VELA_PLATFORM_WIFI_WIFI_NL80211_H

#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

struct nl_sock;

typedef struct wifi_cfg80211_context wifi_cfg80211_context;
typedef struct wifi_cfg80211_data wifi_cfg80211_data;
typedef struct scan_result scan_result;

/** Attributes nested in the vendor data of a request. */
enum wifi_vendor_attr {
    WIFI_VENDOR_ATTR_COMMAND = 1, /**< u32: parameter or generic command id */
    WIFI_VENDOR_ATTR_LINK_ID = 2, /**< u8: link of a multi-link device, WIFI_ANY_LINK for none in particular */
    WIFI_VENDOR_ATTR_ROOM = 3,    /**< u32: how many bytes of answer the caller takes */
    WIFI_VENDOR_ATTR_DATA = 4,    /**< bytes: what the command works on */
};

/** Link id of a command that is for no specific link. */
#define WIFI_ANY_LINK 255
/** Generic command that lists the access points heard. */
#define WIFI_COMMAND_SCAN_LIST 212

/** A connection. Clear it to zero, set the two socket ids, and init it. */
struct wifi_cfg80211_context {
    struct nl_sock *cmd_sock; /**< first: usable for nl80211 requests of the caller's own */
    struct nl_sock *event_sock;
    uint32_t cmd_sock_id;   /**< netlink port of the command socket */
    uint32_t event_sock_id; /**< netlink port of the event socket */
    int32_t family;         /**< nl80211's family id, for messages of the caller's own */
    /** For vendor events; here none are read. */
    void (*event_callback)(wifi_cfg80211_context *context, uint32_t sub_command, const void *data, uint32_t length);
};

/** What a command works on and where its answer goes. */
struct wifi_cfg80211_data {
    void *data;              /**< sent with the command, then filled with the answer; in a callback: one reply */
    uint32_t length;         /**< bytes in `data`; on return, bytes of answer received */
    uint32_t flags;          /**< 0 */
    int32_t parse_by_caller; /**< 0 */
    /** Called for each reply, with a descriptor of its own that is valid during the call; null: replies are appended to
     * `data` as far as they fit. */
    void (*callback)(wifi_cfg80211_data *reply);
};

/** Bits of scan_result.flags. */
enum {
    SCAN_RESULT_ESS = 1,      /**< an access point */
    SCAN_RESULT_ADHOC = 2,    /**< an ad-hoc network */
    SCAN_RESULT_PRIVACY = 16, /**< encrypted */
};

/**
 * One access point heard, as generic command 212 delivers it: one record per reply, in host byte order. The text and
 * the elements follow the numbers without padding.
 */
struct scan_result {
    uint8_t bssid[6];
    uint8_t essid_len; /**< 0 to 32 */
    uint8_t flags;
    uint8_t signal;           /**< dBm + 96, clamped to 0..255 */
    uint8_t noise;            /**< likewise; 0 where the driver does not tell */
    uint16_t beacon_interval; /**< time units of 1024 us */
    uint16_t freq;            /**< MHz */
    uint16_t capabilities;    /**< capability field of the beacon or probe response */
    uint32_t age_ms;          /**< time since it was heard */
    uint32_t tsf_low;         /**< its time stamp, in us */
    uint32_t tsf_high;
    uint32_t beacon_tsf_low; /**< time stamp of its last beacon, in us; 0 when none was heard */
    uint32_t beacon_tsf_high;
    uint32_t status;  /**< 0 a stranger, 1 authenticated with, 2 associated to, 3 joined (ad hoc) */
    uint16_t ies_len; /**< bytes of information elements; only whole elements */
    /** ESSID (`essid_len` bytes, no terminator), then the information elements. */
    __extension__ uint8_t data[];
};

/**
 * Opens both sockets at the ports that the context names.
 *
 * @param large  non-zero for a receive buffer that long answers fit in
 * @return 0, or negative when a port is taken or there is no nl80211; nothing is left open then
 */
VELA_API int wifi_init_nl80211_largebuf(wifi_cfg80211_context *context, int large);

/** Closes what the init opened. */
VELA_API void wifi_destroy_nl80211(wifi_cfg80211_context *context);

/**
 * Reads a parameter.
 *
 * @param buffer  receives at most `length` bytes of answer
 * @return 0; -ENODATA when the answer is shorter than `length`
 */
VELA_API int wifi_cfg80211_send_getparam_command(wifi_cfg80211_context *context, uint32_t sub_command, uint32_t param,
                                                 const char *ifname, void *buffer, uint32_t length);

/**
 * Sets a parameter.
 *
 * @param response  takes the answer; may be null
 */
VELA_API int wifi_cfg80211_send_setparam_command_linkid(wifi_cfg80211_context *context, uint32_t sub_command,
                                                        uint32_t param, uint8_t link_id, const char *ifname,
                                                        const void *value, uint32_t length,
                                                        wifi_cfg80211_data *response);

/** Runs a generic command on the buffer that the descriptor names. */
VELA_API int wifi_cfg80211_send_generic_command(wifi_cfg80211_context *context, uint32_t sub_command, uint32_t command,
                                                uint8_t link_id, const char *ifname, wifi_cfg80211_data *data);

#ifdef __cplusplus
}
#endif

#endif
