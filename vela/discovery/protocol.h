/**
 * @file
 * The endpoints of the site's discovery protocol on UDP port 48000.
 *
 * A member joins the site's multicast group and hears packets on the caller's event base: vela_protocol_init(1), then
 * vela_protocol_init_recv(). The scripts send SIGUSR1 when the bridge gets its address; the signal is only handled
 * between init_recv and deinit, before and after it has its default effect. The group needs a route through the bridge.
 * When the bridge is made anew its membership is lost without a sign: deinit and init again.
 *
 * A client sends single packets without joining: vela_protocol_client_init(), then client sends. Each opens a socket on
 * the bridge "br0" for its one packet.
 *
 * The state is one record of the process, for the one thread that runs the event base.
 */
#ifndef VELA_DISCOVERY_PROTOCOL_H
#define VELA_DISCOVERY_PROTOCOL_H

#include <netinet/in.h>
#include <stdint.h>
#include <vela/core/api.h>
#include <vela/discovery/payload.h>

#ifdef __cplusplus
extern "C" {
#endif

struct event_base;

/** The protocol's state; cleared by every init and deinit. 96 bytes, a contract with the programs that read it. */
struct vela_protocol_ctrl {
    int32_t ready;           /**< 1 after a successful init of either kind */
    int32_t encrypt;         /**< 1 once a key is loaded */
    struct in_addr my_ip;    /**< own address on the bridge, 0 until known; network order */
    struct in_addr mcast_ip; /**< the site's group; network order */
    int32_t reserved;
    int32_t fd;           /**< the UDP socket, -1 when none */
    uint8_t device_id[6]; /**< from the serial number */
    uint8_t key[16];      /**< the site's key */
    uint16_t rx_seq;      /**< of the packet accepted last */
    uint16_t tx_seq;      /**< put into sent packets; the owning program advances it */
    uint8_t more[46];
};

/** The process's one. */
extern VELA_API struct vela_protocol_ctrl vela_protocol_ctrl;

/**
 * Called for each accepted packet of a method.
 * @param pkt      its header in host order; valid during the call
 * @param payload  its plaintext, pkt->length bytes
 */
typedef void (*vela_handler)(const vela_packet *pkt, const uint8_t *payload, uint32_t method);

/** A table of handlers ends with one whose handler is null; several may share a method. */
typedef struct vela_handler_entry {
    vela_handler handler;
    uint32_t method;
} vela_handler_entry;

/**
 * Loads key and group from /var/run/vela_protocol.info and, for a member, opens the socket and joins the group; while
 * the bridge has no address (/var/run/ipready.br0), joining is left to SIGUSR1.
 *
 * @param member  non-zero: with socket and group; 0: the key only
 * @return 0; -1 with everything cleared, after logging why
 */
VELA_API int vela_protocol_init(int member);

/**
 * Hears packets and SIGUSR1 on an event base. Follows a successful vela_protocol_init(1).
 *
 * @param base   borrowed until vela_protocol_deinit()
 * @param table  handlers, borrowed likewise; may be null
 * @return 0; -1 when the events cannot be made
 */
VELA_API int vela_protocol_init_recv(struct event_base *base, const vela_handler_entry *table);

/** Leaves the group, closes the socket, frees the events, clears the record. A handler may call it. */
VELA_API void vela_protocol_deinit(void);

/**
 * Sends a packet from a member's socket to the group. The record's tx_seq goes with it: a packet with the sequence of
 * the one before it is a repeat to its receivers.
 *
 * @param data     payload, `len` bytes; borrowed
 * @param method   what the packet is for; picks the receivers' handlers
 * @param type     sub-kind, the sender's choice
 * @param encrypt  1 to encrypt, 0 for a plain packet (which receivers refuse)
 * @return bytes of the datagram; -1 after logging why
 */
VELA_API int vela_protocol_send(const void *data, uint32_t len, uint16_t method, uint16_t type, int encrypt);

/** Sets what to call when SIGUSR1 has made the group joined; null for nothing. Outlives deinit. */
VELA_API void vela_protocol_set_mcast_ready_cb(void (*cb)(void));

/** Loads key and group from /tmp/system.cfg, for client sends. 0; -1 after logging why. */
VELA_API int vela_protocol_client_init(void);

/**
 * Sends one packet of type 3 from a socket of its own on "br0"; failures are logged. A member's socket is closed for
 * it: a member that has sent this way hears nothing until it is initialised again.
 */
VELA_API void vela_protocol_client_send(const void *data, uint32_t len, uint16_t method);

/** Announces that mesh operation halts: a client send of method 6, after an init of either kind. */
VELA_API void vela_protocol_client_event_mesh_halt_send(void);

/** The kind of device that the mesh-halt packet announces: always 4 in this build. */
VELA_API int vela_device_identify(void);

#ifdef __cplusplus
}
#endif

#endif
