/**
 * @file
 * Unix datagram sockets by path: a server at a well-known one, a client at a private one under /var/run.
 */
#ifndef VELA_IPC_UDS_H
#define VELA_IPC_UDS_H

#include <stdint.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A socket with its addresses. The caller's record; the open functions fill it from scratch. */
typedef struct uds_sock {
    int32_t fd;                /**< -1 when not open */
    struct sockaddr_un local;  /**< where it is bound; an empty path when not open */
    struct sockaddr_un remote; /**< a client's server */
} uds_sock;

/**
 * Opens a socket: a server bound at path, in place of whatever file is there, or a client bound at
 * /var/run/uds_client-PID-NUMBER and connected to path. Paths are cut at 107 characters.
 *
 * The number is rand() modulo 65536: a process that keeps many clients calls srand() first and lives with the chance
 * that two of them meet.
 *
 * @param h       receives the socket; close it with uds_sock_close()
 * @param server  non-zero for a server
 * @return the descriptor, close-on-exec; -1 on a failure, which the log tells and which leaves no path behind
 */
VELA_API int uds_socket_create(const char *path, uds_sock *h, int server);

/** uds_socket_create() as a server. */
VELA_API int uds_sock_open_server(const char *path, uds_sock *h);

/** uds_socket_create() as a client. */
VELA_API int uds_sock_open_client(const char *server_path, uds_sock *h);

/** The descriptor; -1 when not open, or for null. */
VELA_API int uds_get_sock(const uds_sock *h);

/** Removes the local path and closes the socket. Null is allowed. The record stays as it is: do not close it twice. */
VELA_API void uds_sock_close(uds_sock *h);

#ifdef __cplusplus
}
#endif

#endif
