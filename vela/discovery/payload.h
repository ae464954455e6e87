/**
 * @file
 * The packet of the site's discovery protocol: a 40-byte header and a payload, normally encrypted with AES-128-CBC
 * under the site's key and checked with the CRC-32 of the padded plaintext.
 */
#ifndef VELA_DISCOVERY_PAYLOAD_H
#define VELA_DISCOVERY_PAYLOAD_H

#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VELA_PACKET_MAGIC 0x22334455U
#define VELA_PACKET_VERSION 2
#define VELA_PACKET_PLAIN 1     /**< in flags */
#define VELA_PACKET_ENCRYPTED 2 /**< in flags */

/** Results of dec_payload(). */
enum { VELA_PACKET_VALID = 0, VELA_PACKET_INVALID = 1, VELA_PACKET_REPEATED = 2 };

/**
 * A packet. On the wire its numbers are in network order and the sequence is shifted left by 4; after dec_payload() the
 * numbers of a valid one are in host order and `length` counts the plaintext.
 */
typedef struct vela_packet {
    uint32_t magic;
    uint8_t version;
    uint8_t flags;
    uint16_t length; /**< of the payload */
    uint16_t method; /**< what the packet is for */
    uint16_t type;   /**< sub-kind, the sender's choice */
    uint8_t iv[16];  /**< zero in a plain packet */
    uint8_t device_id[6];
    uint16_t sequence;
    uint32_t crc; /**< zero in a plain packet */
    __extension__ uint8_t payload[];
} __attribute__((packed)) vela_packet;

struct vela_protocol_ctrl;

/**
 * Builds a packet.
 *
 * @param data     payload, `len` bytes
 * @param encrypt  1 to encrypt, 0 for a plain packet (which receivers refuse)
 * @param ctrl     gives device id, key and transmit sequence; the sequence is not advanced
 * @return one block from malloc, 40 bytes and the padded payload, the caller's to free(); null when out of memory, or
 *         when the padded payload has more than 65535 bytes
 */
VELA_API vela_packet *gen_payload(const void *data, uint32_t len, uint16_t method, uint16_t type, int encrypt,
                                  const struct vela_protocol_ctrl *ctrl);

/**
 * Checks, decrypts and unpads a received packet in place.
 *
 * @param received_len  bytes of the datagram, all of them at `pkt`
 * @param pkt           the packet; of no use afterwards unless it is valid
 * @param ctrl          gives the key and the sequence accepted last; the caller stores the new one
 * @return VELA_PACKET_VALID; VELA_PACKET_INVALID; VELA_PACKET_REPEATED for the sequence accepted last, which is 0
 * before the first packet (methods 3, 5 and 6 are never repeats)
 */
VELA_API int dec_payload(uint32_t received_len, vela_packet *pkt, struct vela_protocol_ctrl *ctrl);

#ifdef __cplusplus
}
#endif

#endif
