// A datagram from the site's network. The first two bytes choose how it is made: as it is, or as a sender with the key
// would encrypt it, so that padding of every kind is reached.
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vela/core/crypto.h>
#include <vela/discovery/protocol.h>
#include <zlib.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > 70000) return 0;
    const std::unique_ptr<uint8_t[]> block{new uint8_t[size - 2]};
    const auto length = static_cast<uint32_t>(size - 2);
    memcpy(block.get(), data + 2, length);
    auto *packet = reinterpret_cast<vela_packet *>(block.get());

    struct vela_protocol_ctrl ctrl = {};
    ctrl.rx_seq = data[1];
    if ((data[0] & 1) != 0 && length >= 40) {
        packet->magic = htonl(VELA_PACKET_MAGIC);
        packet->version = 2;
        packet->flags = VELA_PACKET_ENCRYPTED;
        packet->length = htons(static_cast<uint16_t>(length - 40));
        packet->crc = htonl(static_cast<uint32_t>(crc32(0, packet->payload, length - 40)));
        aes_cbc_encrypt_128(ctrl.key, packet->iv, packet->payload, length - 40);
    }
    if (dec_payload(length, packet, &ctrl) == VELA_PACKET_VALID && packet->length > length - 40) abort();
    return 0;
}
