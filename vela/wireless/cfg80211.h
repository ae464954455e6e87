/**
 * @file
 * Vendor commands, which carry most of a radio's statistics and settings, and private wireless ioctls, which carry a
 * few older ones.
 *
 * A vendor context is short-lived: open it, run commands, close it. The functions without a context make one of their
 * own for the one command. Command ids and the layouts of their buffers are the radio driver's.
 *
 * A command or ioctl blocks until the driver has answered, without a time limit. Opening a context makes up to 3
 * attempts, which the kernel answers at once.
 */
#ifndef VELA_WIRELESS_CFG80211_H
#define VELA_WIRELESS_CFG80211_H

#include <stdint.h>
#include <vela/core/api.h>
#include <vela/platform/wifi/wifi_nl80211.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The vendor wrapper's record; its first member is a libnl socket for vl_nl80211_send(). */
typedef wifi_cfg80211_context vl_cfg80211_context;

/** Called for each reply to a generic command; `reply` is valid during the call. */
typedef void (*vl_cfg80211_reply_callback)(wifi_cfg80211_data *reply);

/** Size of the radio statistics block. */
#define VL_ATHSTAT_SIZE 108

/**
 * Opens a vendor context, on the first pair of netlink ports that is free of 877 and 878, 887 and 888, 897 and 898.
 *
 * @param context  overwritten
 * @return 0, or -EIO after three failed attempts; then there is nothing to close
 */
VELA_API int vl_cfg80211_init(vl_cfg80211_context *context);

/** Closes a context that vl_cfg80211_init() opened. */
VELA_API void vl_cfg80211_deinit(vl_cfg80211_context *context);

/**
 * Reads a 32-bit driver parameter.
 *
 * @param out  written on success only
 * @return the wrapper's result: 0, or negative
 */
VELA_API int vl_cfg80211_get_wifi_param_int_ctx(vl_cfg80211_context *context, const char *ifname, int param,
                                                int32_t *out);

/** The same with a context of its own: 0, -EIO without a context, -1 for any other failure. */
VELA_API int vl_cfg80211_get_wifi_param_int(const char *ifname, int param, int32_t *out);

/** Sets a 32-bit driver parameter. Returns the wrapper's result. */
VELA_API int vl_cfg80211_send_command_no_response(vl_cfg80211_context *context, const char *ifname, int param,
                                                  int32_t value);

/**
 * Runs a generic vendor command.
 *
 * @param buffer    sent with the command, then filled with the answer
 * @param length    its size in bytes
 * @param callback  gets each reply instead of the buffer; null for none
 * @param command   the driver's command id
 * @return 0, or -1. For command 476, the list of associated stations: the bytes received, 6 for each station
 */
VELA_API int vl_cfg80211_send_generic_set_command_ctx(vl_cfg80211_context *context, const char *ifname, void *buffer,
                                                      uint32_t length, vl_cfg80211_reply_callback callback,
                                                      int command);

/**
 * The same with a context of its own: also -EIO without a context.
 *
 * @param flag  ignored
 */
VELA_API int vl_cfg80211_send_generic_set_command(const char *ifname, int command, void *buffer, uint32_t length,
                                                  int flag, vl_cfg80211_reply_callback callback);

/**
 * Reads the radio statistics block.
 *
 * @param out  VL_ATHSTAT_SIZE bytes; left as they are on failure, so callers zero them first
 * @return 0, or as vl_cfg80211_send_generic_set_command()
 */
VELA_API int get_athstat(const char *ifname, void *out);

/**
 * Issues a private wireless ioctl that sets something.
 *
 * @param sock     any datagram socket
 * @param request  0x8BE0 and 0x8BE1 carry their data inside the request, all others point to it
 * @param param    the driver's sub-ioctl number, for 0x8BE0 and 0x8BE1
 * @param flags    for all others
 * @param len      bytes of data; at most 12 fit inside: 0x8BE0 refuses more, 0x8BE1 cuts them off
 * @return 0 or -1
 */
VELA_API int set80211priv(int sock, const char *ifname, int request, int param, int flags, void *data, int len);

/**
 * Issues a private wireless ioctl that reads something, as set80211priv().
 *
 * @param data  for 0x8BE1 receives `len` bytes, at most 16; for requests that point to it the driver fills it
 * @return `len` for 0x8BE1, else the length that the kernel left in the request; -1 on failure
 */
VELA_API int get80211priv(int sock, const char *ifname, int request, int param, int flags, void *data, int len);

#ifdef __cplusplus
}
#endif

#endif
