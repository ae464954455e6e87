/**
 * @file
 * Typed messages between two local processes over Unix datagram sockets.
 *
 * A message is an 8-byte header (type and length in host order), then its data in pieces of at most 16384 bytes; header
 * and pieces are one datagram each. Sending never blocks beyond its time limit, so a stuck peer costs at most that much
 * per piece. There is no way to resynchronise: after a failure in the middle of a message the two sides are out of
 * step, and the socket is best closed. Two threads must not send on one socket at once.
 *
 * All functions return the bytes of data sent or received, the header not counted, or -1.
 */
#ifndef VELA_IPC_SK_MSG_H
#define VELA_IPC_SK_MSG_H

#include <stdint.h>
#include <sys/socket.h>
#include <vela/core/api.h>
#include <vela/core/buffer.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Largest piece of a message's data, in bytes. */
#define SK_MSG_PIECE_MAX 16384

/** A message: the caller's record with the caller's buffer. */
typedef struct sk_msg {
    int32_t type; /**< chosen by the two programs, not looked at here */
    int32_t len;  /**< bytes of data; a negative length is sent, and received, as a header alone */
    buffer *data; /**< the caller's; null is an empty one to send, and drops what is received */
} sk_msg;

/**
 * Sends a message on a connected socket.
 *
 * @param msg        borrowed; its buffer keeps its bytes. len may count any that are allocated behind the buffer's
 * data, such as the NUL of a text
 * @param timeout_s  how long the socket may stay full, in seconds, for each datagram
 * @return len; -1 on a failure, errno ETIMEDOUT when the peer took nothing in time
 */
VELA_API int32_t sk_msg_send(int fd, const sk_msg *msg, int timeout_s);

/**
 * Receives a message on a connected socket.
 *
 * @param msg        receives type and len; the data is appended to its buffer, also when only part of it arrived. The
 *                   peer's word is taken for the length, up to 2 GiB
 * @param timeout_s  how long to wait for each datagram, in seconds, so that the whole call may take that long for every
 *                   16384 bytes; a signal ends the wait
 * @return the bytes appended; a piece that arrives shorter than the header promised is filled up with zero bytes. -1 on
 *         a failure
 */
VELA_API int32_t sk_msg_recv(int fd, sk_msg *msg, int timeout_s);

/**
 * sk_msg_recv() from a peer that is not trusted with this process's memory: a message that announces more than `most`
 * bytes is refused, and signals do not end a wait.
 */
VELA_API int32_t sk_msg_recv_limited(int fd, sk_msg *msg, int timeout_s, int32_t most);

/** sk_msg_send() to an address, from an unconnected socket; each datagram may wait for 3 seconds. */
VELA_API int32_t sk_msg_sendto(int fd, const sk_msg *msg, const struct sockaddr *to, socklen_t tolen);

/**
 * sk_msg_recv() on an unconnected socket; waits for each datagram for 3 seconds, signals or not.
 *
 * @param from     receives the address of the last datagram's sender
 * @param fromlen  in: room in from; out: the address's length
 */
VELA_API int32_t sk_msg_recvfrom(int fd, sk_msg *msg, struct sockaddr *from, socklen_t *fromlen);

#ifdef __cplusplus
}
#endif

#endif
