/**
 * @file
 * The sockets of this network namespace: who talks to whom, who listens, what waits in their queues, and which process
 * they belong to.
 *
 * The kernel lists them over netlink (sock_diag), family by family. Where it lacks the module of a family, that is said
 * in a bit; /proc/net is not read instead. Ports are in host order, addresses are bytes in network order (IPv4 in the
 * first four). Sockets open and close while they are listed: one may be missed, or come twice.
 */
#ifndef VELA_MONITOR_SOCKET_H
#define VELA_MONITOR_SOCKET_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What is listed; the kernel module that each needs. */
enum vela_socket_families {
    VELA_SOCKET_TCP = 1,      /**< IPv4 and IPv6: INET_TCP_DIAG */
    VELA_SOCKET_UDP = 2,      /**< IPv4 and IPv6: INET_UDP_DIAG */
    VELA_SOCKET_RAW = 4,      /**< IPv4 and IPv6: INET_RAW_DIAG */
    VELA_SOCKET_UNIX = 8,     /**< local sockets: UNIX_DIAG */
    VELA_SOCKET_NETLINK = 16, /**< NETLINK_DIAG */
    VELA_SOCKET_PACKET = 32,  /**< PACKET_DIAG */
};

/** States, as TCP has them. What is not connected and does not listen is CLOSED: UDP servers, netlink, packet. */
enum vela_socket_state {
    VELA_SOCKET_ESTABLISHED = 1,
    VELA_SOCKET_SYN_SENT = 2,
    VELA_SOCKET_SYN_RECEIVED = 3,
    VELA_SOCKET_FIN_WAIT_1 = 4,
    VELA_SOCKET_FIN_WAIT_2 = 5,
    VELA_SOCKET_TIME_WAIT = 6,
    VELA_SOCKET_CLOSED = 7,
    VELA_SOCKET_CLOSE_WAIT = 8,
    VELA_SOCKET_LAST_ACK = 9,
    VELA_SOCKET_LISTEN = 10,
    VELA_SOCKET_CLOSING = 11,
    VELA_SOCKET_NEW_SYN_RECEIVED = 12,
};

/** What a record holds beyond what the kernel lists anyway. */
enum vela_socket_wants {
    VELA_SOCKET_OWNER = 1,    /**< the process: reads a link in /proc for every descriptor of every process */
    VELA_SOCKET_TCP_INFO = 2, /**< TCP's own figures */
};

/** One socket. A figure that is not known is all ones. */
typedef struct vela_socket {
    uint32_t family;   /**< AF_INET, AF_INET6, AF_UNIX, AF_NETLINK, AF_PACKET */
    uint32_t protocol; /**< IPPROTO_TCP, _UDP, _RAW; local: SOCK_STREAM, _DGRAM, _SEQPACKET; NETLINK_...; ETH_P_... */
    uint32_t state;    /**< vela_socket_state */
    uint32_t index;    /**< interface that it is bound to; 0 for none */
    uint32_t uid;      /**< who made it; not known for netlink, and for one that its program has closed */
    uint32_t receive_queue; /**< bytes; for a listening TCP or local socket, connections that wait to be accepted */
    uint32_t send_queue;    /**< bytes; for a listening TCP or local socket, how many may wait */
    uint64_t inode;         /**< names the socket; 0 for one that its program has closed */
    uint8_t local[16];      /**< zero: any */
    uint8_t remote[16];
    uint16_t local_port; /**< of a raw socket the IP protocol */
    uint16_t remote_port;
    int32_t pid;          /**< lowest number of a process that holds it; 0: none seen, or not asked for */
    char process[16];     /**< that process's name */
    char path[109];       /**< of a local socket; "@..." for an abstract name, with "@" for each NUL */
    uint32_t rtt_us;      /**< smoothed round trip */
    uint32_t retransmits; /**< segments sent again, since the beginning */
    uint32_t last_ack_ms; /**< since an acknowledgement came */
    uint64_t peer_inode;  /**< of a local socket: the one at its other end; 0 for none */
} vela_socket;

/** Takes one socket. The record is valid during the call. Returns 0 to go on, else to stop. */
typedef int (*vela_socket_callback)(const vela_socket *socket, void *arg);

/**
 * Goes through the sockets, in the kernel's order. Constant memory, but for VELA_SOCKET_OWNER: 32 bytes for each socket
 * that a process holds, up to 65,536 of them; beyond that owners are left out, with a warning. A missing module is
 * named in one warning per process.
 *
 * @param families  vela_socket_families, or'ed; 0 for all
 * @param states    1 << vela_socket_state, or'ed; 0 for all
 * @param wants     vela_socket_wants, or'ed; 0 for none
 * @param missing   receives the bits of families whose module this kernel lacks, unless the result is negative; may be
 *                  null
 * @param each      may call anything
 * @return the number of sockets delivered; -EINVAL for a null callback or unknown bits; -EAGAIN when all were delivered
 *         but a table changed while it was read; -EOPNOTSUPP for a kernel without sock_diag; -ETIMEDOUT when it does
 * not answer for two seconds; another negative errno when netlink or /proc fails
 */
VELA_API int vela_socket_foreach(uint32_t families, uint32_t states, uint32_t wants, uint32_t *missing,
                                 vela_socket_callback each, void *arg);

/**
 * Such sockets as an array of {family: "inet", protocol: "tcp", state: "established", index, uid, receive_queue,
 * send_queue, inode, peer_inode, local, local_port, remote, remote_port, path, pid, process, rtt_us, retransmits,
 * last_ack_ms}. Words are in lower case; a protocol without one is a number. What is not known, or not there, is left
 * out. Where a table kept changing, or owners were left out, each object has "partial": true.
 *
 * @return a new reference; null with errno
 */
VELA_API json_t *vela_socket_json(uint32_t families, uint32_t states, uint32_t wants, uint32_t *missing);

#ifdef __cplusplus
}
#endif

#endif
