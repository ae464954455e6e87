/**
 * @file
 * The connections that the firewall tracks in this network namespace: both directions of each, how long it is kept, and
 * how much went through.
 *
 * The kernel lists them over netlink (ctnetlink, module NF_CT_NETLINK), for programs with CAP_NET_ADMIN. Addresses are
 * bytes in network order (IPv4 in the first four), ports are in host order. The table changes while it is listed: an
 * entry may be missed or come twice, and nothing says so. For a number of connections use vela_connection_count().
 */
#ifndef VELA_MONITOR_CONNECTION_H
#define VELA_MONITOR_CONNECTION_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What happened to a connection so far. */
enum vela_connection_status {
    VELA_CONNECTION_EXPECTED = 1,   /**< another one announced it, as FTP does */
    VELA_CONNECTION_SEEN_REPLY = 2, /**< packets went both ways */
    VELA_CONNECTION_ASSURED = 4,    /**< kept when the table is full */
    VELA_CONNECTION_CONFIRMED = 8,
    VELA_CONNECTION_SRC_NAT = 16, /**< its source is translated */
    VELA_CONNECTION_DST_NAT = 32,
    VELA_CONNECTION_DYING = 512,
    VELA_CONNECTION_OFFLOAD = 16384,    /**< a fast path takes its packets */
    VELA_CONNECTION_HW_OFFLOAD = 32768, /**< so does hardware */
};

/** How far a TCP connection is, as the firewall sees it. */
enum vela_connection_tcp_state {
    VELA_CONNECTION_NONE = 0,
    VELA_CONNECTION_SYN_SENT = 1,
    VELA_CONNECTION_SYN_RECEIVED = 2,
    VELA_CONNECTION_ESTABLISHED = 3,
    VELA_CONNECTION_FIN_WAIT = 4,
    VELA_CONNECTION_CLOSE_WAIT = 5,
    VELA_CONNECTION_LAST_ACK = 6,
    VELA_CONNECTION_TIME_WAIT = 7,
    VELA_CONNECTION_CLOSED = 8,
    VELA_CONNECTION_SYN_SENT_2 = 9, /**< both sides opened it */
};

/** Who talks to whom, in one direction. */
typedef struct vela_tuple {
    uint8_t source[16];
    uint8_t destination[16];
    uint16_t source_port;      /**< ICMP: the identifier */
    uint16_t destination_port; /**< ICMP: type << 8 | code */
} vela_tuple;

/** One connection. A figure that is not known is all ones. */
typedef struct vela_connection {
    uint32_t family;     /**< AF_INET or AF_INET6 */
    uint32_t protocol;   /**< IPPROTO_ */
    uint32_t zone;       /**< 0 where nothing else was set */
    uint32_t mark;       /**< 0 where nothing else was set */
    uint32_t status;     /**< vela_connection_status, or'ed; the kernel knows further bits */
    uint32_t timeout_s;  /**< it is forgotten then, if nothing comes */
    uint32_t tcp_state;  /**< vela_connection_tcp_state; not known for another protocol */
    uint32_t id;         /**< of this entry, as long as it exists */
    vela_tuple original; /**< as the first packet had it */
    vela_tuple reply;    /**< as packets come back: where addresses are translated, no mirror of `original` */
    uint64_t original_bytes, original_packets; /**< known while net.netfilter.nf_conntrack_acct is on */
    uint64_t reply_bytes, reply_packets;
    uint64_t start_ns; /**< since 1970; known while net.netfilter.nf_conntrack_timestamp is on */
} vela_connection;

/** Which connections; a member that is 0 lets all pass. */
typedef struct vela_connection_filter {
    uint32_t family;
    uint32_t protocol;
    uint32_t mark, mark_mask; /**< those whose mark, under the mask, is `mark` */
    uint32_t zone;
    uint8_t address[16]; /**< source or destination, in either direction */
} vela_connection_filter;

/** Takes one connection. The record is valid during the call. Returns 0 to go on, else to stop. */
typedef int (*vela_connection_callback)(const vela_connection *connection, void *arg);

/**
 * Goes through the connections, in the kernel's order, in constant memory: one block of 32 KiB.
 *
 * @param filter  borrowed; null for all connections. The kernel looks at family and mark, the library at the rest
 * @param each    may call anything
 * @return the number of connections delivered; -EINVAL for a null callback, or a filter with another family than
 *         AF_INET and AF_INET6, a protocol above 255 or a zone above 65535; -EPERM without CAP_NET_ADMIN; -EOPNOTSUPP
 *         when the kernel lacks the interface, which is named in one warning per process; -ETIMEDOUT when it does not
 *         answer for two seconds; another negative errno when netlink fails
 */
VELA_API int vela_connection_foreach(const vela_connection_filter *filter, vela_connection_callback each, void *arg);

/**
 * How full the table is.
 *
 * @param used  receives the number of connections of this namespace; written only on success
 * @param most  receives how many the kernel keeps; written only on success
 * @return 0; -EINVAL for a null pointer; -EOPNOTSUPP without connection tracking; else a negative errno
 */
VELA_API int vela_connection_count(uint32_t *used, uint32_t *most);

/**
 * Such connections as an array of {family: "inet", protocol: "tcp", tcp_state: "established", status: ["assured"],
 * timeout_s, mark, zone, id, original: {source, source_port, destination, destination_port}, reply: {...},
 * original_bytes, original_packets, reply_bytes, reply_packets, start_ns}. A protocol that is not TCP, UDP or ICMP is a
 * number. What is not known is left out, and so are a mark and a zone of 0.
 *
 * @return a new reference; null with errno
 */
VELA_API json_t *vela_connection_json(const vela_connection_filter *filter);

#ifdef __cplusplus
}
#endif

#endif
