/**
 * @file
 * A client of the system bus, for hosts without libubus: the same calls as far as the library needs them, and those few
 * of its own that make LIBUBUS_STAND_IN.
 *
 * The connection brings no event loop: watch `ctx->sock.fd` for reading and call `ctx->sock.cb` each time. Requests
 * wait for their answer, with a limit; calls to our own objects that arrive meanwhile are kept until the next event.
 * Handlers of such calls may make requests, those of answers may not. One thread per context, which is not freed in its
 * callbacks. No signal disposition is touched.
 *
 * When the daemon goes away `sock.eof` is set and `connection_lost` called, possibly inside a request that waits (which
 * then returns UBUS_STATUS_CONNECTION_FAILED), and again each time the handler runs until ubus_reconnect_socket() has
 * brought a new connection. Ids looked up before are stale after that.
 */
#ifndef LIBUBUS_H
#define LIBUBUS_H

/** Tells this client from libubus. */
#define LIBUBUS_STAND_IN 1

#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What requests return, and what the daemon and providers of objects answer. */
enum ubus_msg_status {
    UBUS_STATUS_OK,
    UBUS_STATUS_INVALID_COMMAND,
    UBUS_STATUS_INVALID_ARGUMENT,
    UBUS_STATUS_METHOD_NOT_FOUND,
    UBUS_STATUS_NOT_FOUND,
    UBUS_STATUS_NO_DATA,
    UBUS_STATUS_PERMISSION_DENIED,
    UBUS_STATUS_TIMEOUT,
    UBUS_STATUS_NOT_SUPPORTED,
    UBUS_STATUS_UNKNOWN_ERROR,
    UBUS_STATUS_CONNECTION_FAILED,
    UBUS_STATUS_NO_MEMORY,
    UBUS_STATUS_PARSE_ERROR,
    UBUS_STATUS_SYSTEM_ERROR,
};

struct ubus_context;
struct ubus_request;

/** A match of a lookup; valid during the callback. */
struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char *path;
    struct blob_attr *signature; /**< one table per method; NULL where the daemon sent none */
};

typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx, struct ubus_object_data *obj, void *priv);

/** A part of a reply. Its values: blob_data(msg), blob_len(msg); valid during the callback. */
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);

/** A request under way, as its data handler sees it. */
struct ubus_request {
    struct ubus_context *ctx;
    void *priv;
    ubus_data_handler_t data_cb;
    uint32_t peer;
    uint16_t seq;
    bool status_msg; /**< the final status has come */
    int status_code;
};

struct ubus_context {
    struct uloop_fd sock;
    uint32_t local_id; /**< our id on the bus, in the byte order of the wire */
    uint16_t request_seq;
    int answer_ms; /**< not in libubus: what the daemon may take to answer requests other than ubus_invoke() */
    void (*connection_lost)(struct ubus_context *ctx); /**< may be NULL */
};

/** Who calls a method of ours. */
struct ubus_request_data {
    uint32_t object;
    uint32_t peer; /**< the caller's id on the bus; 0 is the daemon, which passes events on */
    uint16_t seq;
};

struct ubus_object;

/** A call of one of our objects, or an event or notification for it. @return the status to answer with */
typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                              const char *method, struct blob_attr *msg);

/** An object of ours, without a name. */
struct ubus_object {
    struct ubus_object *next;
    uint32_t id; /**< 0 while the daemon does not know it */
};

/** An object that hears the notifications of others. Zero it but for `cb`. */
struct ubus_subscriber {
    struct ubus_object obj;
    ubus_handler_t cb;
};

/**
 * Not in libubus: makes a context of a connected, non-blocking stream socket, which it takes over.
 *
 * @param greeting_ms  how long to wait for the daemon's greeting
 * @return the context, released with ubus_free(); NULL without a proper greeting
 */
struct ubus_context *ubus_connect_socket(int fd, int greeting_ms);

/**
 * Not in libubus: replaces the connection of a context likewise. Our own objects are forgotten by the daemon, and have
 * to be by us: ubus_forget().
 *
 * @return 0; UBUS_STATUS_UNKNOWN_ERROR without a proper greeting, `sock.fd` being -1 then
 */
int ubus_reconnect_socket(struct ubus_context *ctx, int fd, int greeting_ms);

/** Closes and frees. NULL is accepted. */
void ubus_free(struct ubus_context *ctx);

/**
 * Asks the daemon for objects and waits for its answer, for at most `answer_ms`.
 *
 * @param path  a path, or a prefix ended by "*"; NULL is every object
 * @param cb    called for each match
 * @return a status: UBUS_STATUS_NOT_FOUND without a match, UBUS_STATUS_TIMEOUT without an answer. 0 without a call of
 *         `cb` is possible: the object shows none of its methods to this process
 */
int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv);

/** The same for one id, which is left alone where none came: set it to 0 beforehand. */
int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);

/**
 * Calls a method and waits for its end.
 *
 * @param msg         arguments, of which the payload is sent; NULL for none
 * @param cb          called for each part of the reply; may be NULL
 * @param timeout_ms  0 or less waits without limit
 * @return a status
 */
int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                ubus_data_handler_t cb, void *priv, int timeout_ms);

/** Makes an object known to the daemon, for events and subscriptions. @return a status */
int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *obj);

/** Ends that; where the daemon does not answer too. @return a status */
int ubus_unregister_subscriber(struct ubus_context *ctx, struct ubus_subscriber *obj);

/** Lets an object hear the notifications of another. @return a status */
int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id);

/** Not in libubus: forgets an object without telling the daemon. */
void ubus_forget(struct ubus_context *ctx, struct ubus_object *obj);

#ifdef __cplusplus
}
#endif

#endif
