/**
 * @file
 * The nl80211 service: one long-lived connection to the kernel's wireless family, with a socket for requests and one
 * for events.
 *
 * The record belongs to the caller, who clears it to zero before the first init. Requests are synchronous, one at a
 * time per service; events arrive inside the caller's event loop. Nothing is locked: use a service from one thread;
 * another thread may use another service.
 *
 * A request blocks until the kernel has answered, without a time limit. The kernel answers while it takes the request,
 * so this is well under 1 ms but for drivers that wait for their radio. vl_nl80211_service_init() makes 6 requests,
 * vl_nl80211_parent_interface() up to 5, everything else at most one; reading events never blocks.
 *
 * Results are 0 for success and negative for failure: a negated errno (what the kernel answered, -EIO for a request
 * that could not be built, -ENOMEM, -EINVAL, -EAGAIN for a dump that changed while it was read) or a negative libnl
 * code for a socket that failed. The two overlap in number, so a code says more in the log line that goes with it.
 * After the kernel's wireless modules were reloaded the service answers -ENOENT to everything: deinit and init again.
 */
#ifndef VELA_WIRELESS_NL80211_H
#define VELA_WIRELESS_NL80211_H

#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

struct event;
struct event_base;
struct nl_cb;
struct nl_msg;
struct nl_sock;
struct nlattr;

/** Highest attribute number in the tables that event handlers get. */
#define VL_NL80211_ATTR_MAX 344

typedef struct vl_nl80211_service vl_nl80211_service;
typedef struct vl_nl80211_command_callback vl_nl80211_command_callback;

/**
 * Handles one event of the command it is registered for.
 *
 * @param attributes  VL_NL80211_ATTR_MAX + 1 pointers, indexed by attribute number, null where absent; lengths are as
 *                    the kernel sent them. Valid during the call only
 * @return ignored
 */
typedef int (*vl_nl80211_command_handler)(vl_nl80211_service *service, struct nlattr **attributes, uint8_t command);

/** Handles one reply to a request: libnl's valid-message callback, which returns NL_SKIP, NL_OK or NL_STOP. */
typedef int (*vl_nl80211_reply_handler)(struct nl_msg *message, void *arg);

/** A registered handler. */
struct vl_nl80211_command_callback {
    vl_nl80211_command_callback *next;
    vl_nl80211_command_callback *prev;
    uint8_t cmd;
    vl_nl80211_command_handler handler;
};

/** A service. Only `family` is of use to callers: the family's id for messages of their own, 0 while not initialised.
 */
struct vl_nl80211_service {
    struct nl_cb *cb;
    struct nl_sock *cmd_sock;
    struct nl_sock *event_sock;
    int32_t family;
    struct event *event;
    /** Head of the circular list, oldest first; only its links count. While initialised and empty they point to it. */
    vl_nl80211_command_callback callbacks;
};

/**
 * Opens both sockets, joins the event groups "config", "scan", "regulatory", "mlme" and "vendor", and has the event
 * base watch for events. Clears the record first: callbacks are registered afterwards.
 *
 * @param service     overwritten; all zero again after a failure
 * @param event_base  borrowed until deinit; null gives -EINVAL and leaves the record alone
 */
VELA_API int vl_nl80211_service_init(vl_nl80211_service *service, struct event_base *event_base);

/** Closes everything, frees the registered callbacks and clears the record. May be called by an event handler. */
VELA_API void vl_nl80211_service_deinit(vl_nl80211_service *service);

/** Reads all pending events and dispatches them. The event base calls it; `service` is the record. */
VELA_API void vl_nl80211_loop_event(int fd, short events, void *service);

/**
 * Has events of one nl80211 command handled. The newest registration is called first; a pair that is registered twice
 * is called twice. Handlers may register and deregister any callback.
 *
 * @param cmd  nl80211 command number; only its low byte counts
 * @return 0, or -1 when out of memory
 */
VELA_API int vl_nl80211_register_command_callback(vl_nl80211_service *service, uint32_t cmd,
                                                  vl_nl80211_command_handler handler);

/** Removes every registration of this pair. */
VELA_API void vl_nl80211_deregister_command_callback(vl_nl80211_service *service, uint32_t cmd,
                                                     vl_nl80211_command_handler handler);

/**
 * Begins a request addressed to one interface; the caller adds attributes and sends it.
 *
 * @param flags  netlink flags beside those that sending adds, such as NLM_F_DUMP
 * @return the message, to be given to vl_nl80211_send_recv() or nlmsg_free(); null when there is no such interface or
 *         no memory
 */
VELA_API struct nl_msg *vl_nl80211_create_message(vl_nl80211_service *service, const char *ifname, uint8_t cmd,
                                                  int flags);

/**
 * Sends a request and waits until the kernel has answered it.
 *
 * @param message  taken over and freed, whatever happens
 * @param handler  called for each reply message; may be null. Unlike an event handler it must not end the service
 * @param arg      passed to the handler
 */
VELA_API int vl_nl80211_send_recv(vl_nl80211_service *service, struct nl_msg *message, vl_nl80211_reply_handler handler,
                                  void *arg);

/**
 * Reads what the driver reports of an interface. Outputs may be null and are written on success only; what the driver
 * does not report is 0xFFFFFFFF, an address all zero.
 *
 * @param wiphy    index of the physical radio
 * @param mac      6 bytes
 * @param freq     MHz; only while the interface has a channel
 * @param width    channel width in MHz; 80+80 is 160, the narrow widths are 0
 * @param txpower  mBm (hundredths of dBm)
 */
VELA_API int vl_nl80211_interface_info(vl_nl80211_service *service, const char *ifname, uint32_t *wiphy, uint8_t *mac,
                                       uint32_t *freq, uint32_t *width, uint32_t *txpower);

/**
 * Reads the transmit power of an interface.
 *
 * @param power  receives mBm; written on success only
 * @return 0; -1 when the driver reports no power; else as vl_nl80211_interface_info()
 */
VELA_API int vl_nl80211_interface_power(vl_nl80211_service *service, const char *ifname, uint32_t *power);

/**
 * Finds the radio interface, one of "wifi0" to "wifi3", on the same physical radio as an interface.
 *
 * @param out  16 bytes
 * @return `out`, or null when there is none
 */
VELA_API char *vl_nl80211_parent_interface(vl_nl80211_service *service, const char *ifname, char *out);

/**
 * Sets the transmit power of an interface's radio.
 *
 * @param power  mBm
 */
VELA_API int vl_nl80211_interface_set_power(vl_nl80211_service *service, const char *ifname, uint32_t power);

/**
 * The exchange of vl_nl80211_send_recv() on a socket that the caller has opened.
 *
 * @param socket_holder  a record whose first member is the libnl socket, such as a vl_cfg80211_context
 * @param message        taken over and freed; null gives -1
 * @return as vl_nl80211_send_recv(); -1 when out of memory
 */
VELA_API int vl_nl80211_send(void *socket_holder, struct nl_msg *message, vl_nl80211_reply_handler handler, void *arg);

#ifdef __cplusplus
}
#endif

#endif
