/**
 * @file
 * System bus connections on the caller's libevent base, which come back by themselves.
 *
 * A record is one connection to the bus and one object looked up on it: calls, events and notifications go through it,
 * with JSON. When the bus goes away its record tries again once a second, for ever. For one thread: everything runs in
 * that of the event base.
 *
 * How long functions block: connecting, a lookup, and beginning or ending a listener for at most 3 seconds each, so
 * that making a record may take 6; a call for its time limit. An attempt to reconnect waits in the event base for the
 * daemon's greeting; once that has begun to arrive it blocks for at most 250 ms, and for at most another second while
 * listeners are restored; a first connection made later looks its service up, for at most 3. With libubus a daemon that
 * stops between one of its answers and the next can make a request longer.
 *
 * Signals: SIGINT, SIGTERM, SIGCHLD and SIGPIPE keep the dispositions they had, although libubus changes them when it
 * connects. A program that makes requests of its own on `ctx` had better ignore SIGPIPE.
 */
#ifndef VELA_IPC_UBUS_H
#define VELA_IPC_UBUS_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Where the bus daemon listens. */
#define VELA_UBUS_PATH "/var/run/ubus/ubus.sock"

struct blob_attr;
struct event;
struct event_base;
struct ubus_context;

typedef struct vela_ubus_interface vela_ubus_interface_t;
typedef struct vela_ubus_listener vela_ubus_listener;

/** A callback may make requests, close its record or any other, and create new ones. */
typedef void (*vela_ubus_callback)(vela_ubus_interface_t *iface);

/** Bits of `flags`. */
enum {
    VELA_UBUS_NO_LOOKUP = 1,   /**< do not look the service up on connecting */
    VELA_UBUS_KEEP_TRYING = 2, /**< without a bus, create the record all the same and go on trying */
};

/** Membership in the list of records. */
typedef struct vela_ubus_links {
    struct vela_ubus_links *next;
    struct vela_ubus_links *prev;
} vela_ubus_links;

/** A connection: made by vela_ubus_create(), released by vela_ubus_close(). For reading, apart from the library. */
struct vela_ubus_interface {
    struct event_base *base;
    struct ubus_context *ctx; /**< null until the first connection; kept over reconnections */
    struct event *read_event; /**< null while there is no connection */
    const char *service;      /**< borrowed: stays valid as long as the record */
    const char *path;         /**< borrowed likewise */
    uint32_t id;              /**< what the last successful lookup found; stale after a reconnection */
    struct event *timer;      /**< the next attempt; null while none is due */
    uint32_t flags;
    vela_ubus_callback on_connect; /**< after a first connection, the lookup done; not after a reconnection */
    vela_ubus_callback on_close;   /**< by vela_ubus_close(), where there has been a connection */
    vela_ubus_links link;
};

/** Statistics of an access point, as the management agent replies with them. Averages are cut to their low 32 bits. */
typedef struct mgragent_ap_stats {
    uint32_t satisfaction; /**< UINT32_MAX where the reply has none */
    uint32_t num_satisfaction_sta;
    uint32_t wifi_tx_lat_avg;
    uint32_t rx_tcp_lat_avg;
    uint32_t tx_tcp_lat_avg;
    uint32_t client_signal_avg;
    uint32_t tx_rate_avg;
    uint32_t rx_rate_avg;
    uint32_t rxtx_tp_avg;
    uint32_t phy_link_speed; /**< UINT32_MAX where the reply has none */
} mgragent_ap_stats;

/** Makes the list of records empty, forgetting (not closing) any in it. Call once, first. @return 0 */
VELA_API int vela_ubus_init(void);

/**
 * Connects to the bus and looks a service up.
 *
 * @param base        where the record's events live; outlives the record
 * @param path        the bus socket; not copied
 * @param service     the object to look up, now and whenever vela_ubus_find_service() is called; not copied. That it is
 *                    not found is no failure: the id stays 0
 * @param flags       VELA_UBUS_NO_LOOKUP, VELA_UBUS_KEEP_TRYING
 * @param on_connect  may be null; may be called before this returns
 * @param on_close    may be null
 * @return the record; null for a missing argument, without a bus (unless VELA_UBUS_KEEP_TRYING is set), without memory,
 *         or if on_connect closed the record
 */
VELA_API vela_ubus_interface_t *vela_ubus_create(struct event_base *base, const char *path, const char *service,
                                                 uint32_t flags, vela_ubus_callback on_connect,
                                                 vela_ubus_callback on_close);

/** Ends the connection and frees the record; called from one of its callbacks, when that has returned. null is
 * accepted. */
VELA_API void vela_ubus_close(vela_ubus_interface_t *iface);

/** Closes every record. */
VELA_API void vela_ubus_shutdown(void);

/**
 * Sets what to call whenever a lost connection has been replaced, listeners included; null for nothing. Ids are stale
 * then. on_connect is for the first connection, and this for all that follow.
 */
VELA_API void vela_ubus_set_reconnect_cb(vela_ubus_interface_t *iface, vela_ubus_callback on_reconnect);

/**
 * Looks the record's service up and stores its id in the record. Waits for the daemon.
 *
 * @return 0; -EINVAL without a record, a connection or a service; -ENOSYS if it was not found, the id being as before
 */
VELA_API int vela_ubus_find_service(vela_ubus_interface_t *iface);

/** The same for an object of another name; a null or empty one is -EINVAL. */
VELA_API int vela_ubus_find_object(vela_ubus_interface_t *iface, const char *name);

/**
 * Calls a method of the record's object: what vela_ubus_find_object() found last, else the service. Where its id is not
 * known or has changed since, it is looked up first.
 *
 * A value of JSON is one of the bus: an object a table, a whole number INT32 where it fits and else INT64, a real
 * number a double, true and false INT8, null a value without a type. Back, INT8 is a boolean; text is made UTF-8.
 *
 * @param args        an object; null is an empty one
 * @param answer      receives a new reference to an object on success; its members are those of all parts of the reply,
 *                    the later ones before the earlier. Null drops the reply
 * @param timeout_ms  for the whole call, lookup included: 1 to 60000; 0 or less is 3000
 * @return 0; a negative errno, which vela_ubus_error_text() puts in words: -ENOSYS no such method, -ENOENT no such
 *         object (or the provider says so), -EACCES not allowed, -ENODATA, -EOPNOTSUPP and -EIO as the provider says,
 *         -ETIMEDOUT no answer in time, -ENOTCONN no connection, -EINVAL a bad argument (here or to the provider),
 *         -EMSGSIZE arguments beyond 1 MiB, -EBADMSG a malformed reply or one beyond 4 MiB, -ENOMEM
 */
VELA_API int vela_ubus_call(vela_ubus_interface_t *iface, const char *method, const json_t *args, json_t **answer,
                            int timeout_ms);

/** The same for an object of another name, looked up each time. The record's own object stays what it is. */
VELA_API int vela_ubus_call_object(vela_ubus_interface_t *iface, const char *object, const char *method,
                                   const json_t *args, json_t **answer, int timeout_ms);

/**
 * Asks the bus what it offers.
 *
 * @param path  of an object, or the beginning of paths and "*"; null for all
 * @return a new reference to an object with a member for each object by its path: its methods by name, each an object
 *         of arguments by name, with their types in words ("int32", "string", "table", "any"). Null with errno as
 *         vela_ubus_call() has it, ENOENT where nothing fits
 */
VELA_API json_t *vela_ubus_objects_json(vela_ubus_interface_t *iface, const char *path);

/** What such a result means, in a few words for people. Static. */
VELA_API const char *vela_ubus_error_text(int result);

/**
 * What a listener hears.
 *
 * @param name  of the event or notification; "" says that some may have been missed, because there was no connection or
 *              no such object: ask again for whatever was learnt by listening
 * @param data  an object, valid during the call; null with the name ""
 *
 * It may call, listen, end any listener, close the record.
 */
typedef void (*vela_ubus_event_callback)(vela_ubus_interface_t *iface, const char *name, const json_t *data, void *arg);

/**
 * Hears events, which the daemon passes to all who listen; but not those that are sent on the same connection.
 *
 * A listener outlives the connection: without one it begins to hear once there is one, and after each gap the callback
 * is told. What arrives while a call waits is told when the event loop runs next.
 *
 * @param pattern  an event's name, or the beginning of one and "*"; copied
 * @param each     called from the event loop
 * @return the listener, which goes with its record at the latest; null with errno: EINVAL, EACCES (not allowed), ENOSPC
 *         (64 on the record), ETIMEDOUT, ENOMEM
 */
VELA_API vela_ubus_listener *vela_ubus_listen(vela_ubus_interface_t *iface, const char *pattern,
                                              vela_ubus_event_callback each, void *arg);

/** The same for the notifications of one object, now or as soon as there is one of that name, and again after each time
 * that it went away. */
VELA_API vela_ubus_listener *vela_ubus_subscribe(vela_ubus_interface_t *iface, const char *object,
                                                 vela_ubus_event_callback each, void *arg);

/** Ends a listener; null is accepted. */
VELA_API void vela_ubus_unlisten(vela_ubus_listener *listener);

/**
 * Reads the statistics of an access point from a reply.
 *
 * @param out  written on success only
 * @param msg  the message as the data callback of ubus_invoke() gets it; values of another type count as missing
 * @return 0; -1 for a null `out` or a malformed or empty message
 */
VELA_API int mgragent_stats_parse_ap_stats(mgragent_ap_stats *out, const struct blob_attr *msg);

#ifdef __cplusplus
}
#endif

#endif
