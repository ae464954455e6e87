/**
 * @file
 * Control messages: how programs on the device ask the management daemon (mgrd, at /tmp/.mgrd) for information and
 * actions. Most callers need service_json() or service_simple_op() only; the other functions are the steps they take.
 *
 * A message is a 12-byte header (magic, type, payload length) and a payload of attributes. It travels over Unix
 * datagram sockets in chunks of at most 16384 bytes, each announced by a datagram of its own. Numbers are in host
 * order.
 *
 * A call blocks its thread for at most its timeout while it waits for the reply, plus up to 10 seconds for each chunk
 * that the daemon is slow to take. Nothing is kept between calls, and threads may call at the same time. Want of memory
 * ends the process with status 1.
 */
#ifndef VELA_IPC_CTRL_PROTO_H
#define VELA_IPC_CTRL_PROTO_H

#include <jansson.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/un.h>
#include <vela/core/api.h>
#include <vela/core/buffer.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Where the management daemon listens. */
#define CTRL_MGRD_PATH "/tmp/.mgrd"
/** First word of every message, as read in host order. */
#define CTRL_MAGIC 0xF00757E3U
/** Bytes of a message before its payload: magic, type and payload length, 32 bits each. */
#define CTRL_HEADER_SIZE 12
/** Largest message, header included, in bytes. */
#define CTRL_MESSAGE_MAX 1048576

/** Message types. */
enum {
    CTRL_TYPE_STATUS = 0,
    CTRL_TYPE_JSON = 1,
    CTRL_TYPE_SUCCESS = 254,
    CTRL_TYPE_ERROR = 255,
};

/** Attribute types. */
enum {
    CTRL_ATTR_JSON = 1, /**< JSON text with its NUL */
};

/** A message: a request with its destination, or a reply with its source. */
typedef struct ctrl_msg {
    struct sockaddr_un addr; /**< destination of a request; source of a reply */
    socklen_t addr_len;      /**< of a built request: length of the path plus 2 */
    uint32_t total_len;      /**< bytes in the buffer */
    uint8_t *buffer;         /**< header and payload as they travel; from malloc, owned by the record */
} ctrl_msg;

/** An attribute, laid out as it stands in a payload: 6 bytes, then its data. */
typedef struct __attribute__((packed)) ctrl_attribute {
    uint16_t type;
    uint32_t len; /**< bytes of data */
    __extension__ uint8_t data[];
} ctrl_attribute;

/** The name of a message type, "UNKNOWN" for a number that is none. Static. */
VELA_API const char *ctrl_type_to_string(uint32_t type);

/**
 * Makes an attribute.
 *
 * @param data  copied; null gives len zero bytes
 * @param len   bytes of data; 0 gives the bare six bytes
 * @return never null; release it with ctrl_attribute_destroy()
 */
VELA_API ctrl_attribute *ctrl_attribute_create(uint16_t type, const void *data, uint32_t len);

/** Frees an attribute; null is allowed. */
VELA_API void ctrl_attribute_destroy(ctrl_attribute *attr);

/**
 * Makes a message.
 *
 * @param dest_path  path of the socket it will be sent to, at most 107 characters; copied
 * @param payload    attributes, copied; null gives len zero bytes
 * @param len        bytes of payload, at most 1048564
 * @return the message, to be released with ctrl_msg_destroy(); null with errno EMSGSIZE (payload too long),
 *         ENAMETOOLONG (path too long) or EINVAL (no path)
 */
VELA_API ctrl_msg *ctrl_msg_build(const char *dest_path, uint32_t type, const void *payload, uint32_t len);

/** Frees a message with its buffer; null is allowed. */
VELA_API void ctrl_msg_destroy(ctrl_msg *msg);

/**
 * Sends a message to its own address, chunk by chunk.
 *
 * @param sock  a datagram socket, as from ctrl_socket_create()
 * @param msg   borrowed
 * @return bytes of the message sent (its whole length); -1 with errno when any datagram could not be sent, a signal
 *         during a blocked send included. Chunks sent before stay sent: the receiver gives the message up.
 */
VELA_API ssize_t ctrl_msg_send(int sock, const ctrl_msg *msg);

/**
 * Binds a datagram socket at a path, in place of whatever file is there. A send on it blocks for at most 10 seconds.
 *
 * @param path  at most 107 characters
 * @return the descriptor, close-on-exec; -1 with errno. The caller closes it and unlinks the path.
 */
VELA_API int ctrl_socket_create(const char *path);

/**
 * Receives one message.
 *
 * @param sock     a datagram socket
 * @param timeout  for the whole message, counted on the monotonic clock; null waits not at all
 * @return the message with its last datagram's sender as address, to be released with ctrl_msg_destroy(); null when it
 *         did not arrive whole in time (errno ETIMEDOUT) or broke a rule of the framing, which the log tells. Only the
 *         framing is checked: the message may be shorter than a header.
 */
VELA_API ctrl_msg *ctrl_response_wait(int sock, const struct timeval *timeout);

/**
 * Sends a request from a temporary socket of its own and waits for the reply.
 *
 * @param request  borrowed
 * @param timeout  how long to wait for the reply
 * @return the reply, to be released with ctrl_msg_destroy(): its header is valid and it came from the request's
 *         destination. Null otherwise, with a line in the log.
 */
VELA_API ctrl_msg *service(const ctrl_msg *request, const struct timeval *timeout);

/**
 * Asks the management daemon with a JSON text and returns its JSON answer.
 *
 * @param json_text  the request, borrowed; its bytes stay, a NUL is put behind them
 * @param timeout    how long to wait for the reply
 * @return a new reference for the caller; null when the daemon could not be reached, answered ERROR, or sent no JSON
 */
VELA_API json_t *service_json(buffer *json_text, const struct timeval *timeout);

/**
 * Asks the management daemon for an operation without arguments: service_json() with {"op":"OP"}.
 *
 * @param op  put between the quotes as it stands: the caller escapes what JSON wants escaped
 * @return as service_json()
 */
VELA_API json_t *service_simple_op(const char *op, const struct timeval *timeout);

#ifdef __cplusplus
}
#endif

#endif
