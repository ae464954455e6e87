// Padding is PKCS#7; the CRC covers the padded plaintext, not the header.

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstddef>
#include <vela/core/crypto.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/memory.h>
#include <vela/discovery/payload.h>
#include <vela/discovery/protocol.h>
#include <zlib.h>

namespace
{

constexpr const char *log_module = "libvela";

constexpr uint32_t header_size = 40;
constexpr uint32_t block = 16; // of AES
constexpr unsigned sequence_shift = 4;

static_assert(sizeof(vela_packet) == header_size && offsetof(vela_packet, payload) == header_size);
static_assert(offsetof(vela_packet, iv) == 12 && offsetof(vela_packet, device_id) == 28 &&
              offsetof(vela_packet, sequence) == 34 && offsetof(vela_packet, crc) == 36);

// Their packets are handled however often they come.
constexpr std::array<uint16_t, 3> repeatable_methods{3, 5, 6};

using packet_ptr = vela::heap<vela_packet>;

uint32_t crc_of(const uint8_t *bytes, uint32_t length) { return static_cast<uint32_t>(crc32(0, bytes, length)); }

void to_host_order(vela_packet &p)
{
    p.magic = ntohl(p.magic);
    p.length = ntohs(p.length);
    p.method = ntohs(p.method);
    p.type = ntohs(p.type);
    p.sequence = static_cast<uint16_t>(ntohs(p.sequence) >> sequence_shift);
    p.crc = ntohl(p.crc);
}

bool is_repeat(const vela_packet &p, const struct vela_protocol_ctrl &ctrl)
{
    const uint16_t method = p.method;
    return p.sequence == ctrl.rx_seq &&
           std::find(repeatable_methods.begin(), repeatable_methods.end(), method) == repeatable_methods.end();
}

/// Whether the payload is what its sender encrypted under our key.
bool decrypt(vela_packet &p, const struct vela_protocol_ctrl &ctrl)
{
    // Part of a block cannot have been encrypted: its CRC would be one of bytes that need no key.
    const bool whole_blocks = p.length % block == 0;
    if (whole_blocks && aes_cbc_decrypt_128(ctrl.key, p.iv, p.payload, p.length) != 0) return false;
    const uint32_t crc = crc_of(p.payload, p.length);
    const uint32_t stored = p.crc;
    if (crc != stored) {
        log_trace_as("dec_payload", "hdr=%d, crc32=%d", static_cast<int>(stored), static_cast<int>(crc));
        return false;
    }
    return whole_blocks;
}

bool unpad(vela_packet &p)
{
    const uint8_t padding = p.payload[p.length - 1];
    if (p.length < padding) return false;
    const uint8_t *end = p.payload + p.length;
    if (!std::all_of(end - padding, end, [padding](uint8_t byte) { return byte == padding; })) return false;
    p.length = static_cast<uint16_t>(p.length - padding);
    return true;
}

} // namespace

vela_packet *gen_payload(const void *data, uint32_t len, uint16_t method, uint16_t type, int encrypt,
                         const struct vela_protocol_ctrl *ctrl)
{
    const uint32_t padding = encrypt == 1 && len != 0 ? block - len % block : 0;
    const uint64_t padded = uint64_t{len} + padding;
    if (padded > UINT16_MAX) return nullptr;
    packet_ptr packet{static_cast<vela_packet *>(calloc(1, header_size + padded))};
    if (!packet) {
        log_error("hdr malloc fail");
        return nullptr;
    }
    vela_packet &p = *packet;
    const auto length = static_cast<uint32_t>(padded);
    p.magic = htonl(VELA_PACKET_MAGIC);
    p.version = VELA_PACKET_VERSION;
    p.flags = encrypt ? VELA_PACKET_ENCRYPTED : VELA_PACKET_PLAIN;
    p.length = htons(static_cast<uint16_t>(length));
    p.method = htons(method);
    p.type = htons(type);
    memcpy(p.device_id, ctrl->device_id, sizeof p.device_id);
    p.sequence = htons(static_cast<uint16_t>(ctrl->tx_seq << sequence_shift));
    if (len != 0) memcpy(p.payload, data, len);
    if (encrypt != 1) return packet.release();

    memset(p.payload + len, static_cast<int>(padding), padding);
    p.crc = htonl(crc_of(p.payload, length));
    (void)aes_cbc_generate_iv(p.iv, sizeof p.iv);
    if (aes_cbc_encrypt_128(ctrl->key, p.iv, p.payload, length) != 0) return nullptr; // never: whole blocks
    return packet.release();
}

int dec_payload(uint32_t received_len, vela_packet *pkt, struct vela_protocol_ctrl *ctrl)
{
    if (received_len < header_size || received_len - header_size != ntohs(pkt->length)) {
        log_trace("packet length check fail");
        return VELA_PACKET_INVALID;
    }
    vela_packet &p = *pkt;
    to_host_order(p);
    if (is_repeat(p, *ctrl)) return VELA_PACKET_REPEATED;
    if (p.magic != VELA_PACKET_MAGIC || (p.flags & VELA_PACKET_ENCRYPTED) == 0) return VELA_PACKET_INVALID;
    if (p.length == 0 || p.version < VELA_PACKET_VERSION) return VELA_PACKET_INVALID;
    return decrypt(p, *ctrl) && unpad(p) ? VELA_PACKET_VALID : VELA_PACKET_INVALID;
}
