/**
 * @file
 * A client of the system bus.
 *
 * The connection brings no event loop: watch `ctx->sock.fd` for reading and call ubus_handle_event() each time. Lookup
 * and invoke wait for their answer, and handle whatever else arrives meanwhile. One thread per context; in its
 * callbacks the context may be used, but not freed. No signal disposition is touched.
 *
 * When the daemon goes away `sock.eof` is set and `connection_lost` called, possibly inside a request that waits (which
 * then returns UBUS_STATUS_CONNECTION_FAILED), and again each time the handler runs until ubus_reconnect() has brought
 * a new connection. Ids looked up before are stale after that.
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
    int answer_ms; /**< not in libubus: what the daemon may take to answer about its objects; 3000 at first */
    void (*connection_lost)(struct ubus_context *ctx); /**< may be NULL */
};

/**
 * Connects and waits for the daemon's greeting, for at most a few seconds.
 *
 * @param path  socket; NULL is the default, /var/run/ubus/ubus.sock
 * @return the context, released with ubus_free(); NULL where there is no daemon, or none that answers
 */
struct ubus_context *ubus_connect(const char *path);

/**
 * Replaces the connection of a context by a new one; its descriptor number may change.
 *
 * @return 0; UBUS_STATUS_CONNECTION_FAILED without a connection; UBUS_STATUS_UNKNOWN_ERROR without a proper greeting.
 *         After a failure `sock.fd` is -1
 */
int ubus_reconnect(struct ubus_context *ctx, const char *path);

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

/** A status in words. */
const char *ubus_strerror(int error);

/** Handles what has arrived; never waits for more. */
static inline void ubus_handle_event(struct ubus_context *ctx) { ctx->sock.cb(&ctx->sock, ULOOP_READ); }

#ifdef __cplusplus
}
#endif

#endif
