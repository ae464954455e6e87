// The AES block cipher, as each kind of processor does it best. aes.cpp holds what is common to all.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vela::aes
{

constexpr size_t block_size = 16;
constexpr int rounds_128 = 10;
constexpr uint32_t round_constants[] = {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0x1b, 0x36};

/// Round keys are words of FIPS 197, the first byte on top; those for decryption belong to the equivalent inverse
/// cipher. Blocks may lie anywhere, input and output may be the same.
struct engine {
    uint32_t (*substitute)(uint32_t word);
    void (*encrypt)(const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out);
    void (*decrypt)(const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out);
    // Whole messages in place, under a key of 128 bits.
    void (*cbc_encrypt)(const uint8_t *key, const uint8_t *iv, uint8_t *data, size_t blocks);
    void (*cbc_decrypt)(const uint8_t *key, const uint8_t *iv, uint8_t *data, size_t blocks);
};

/// Runs everywhere: the portable engine with its permutes done byte by byte.
extern const engine bytewise;

/// The portable engine: with the processor's byte permute where there is one, else bytewise.
const engine &portable();

/// The engine on the processor's AES instructions; null where it has none.
#if defined(__x86_64__) || defined(__aarch64__)
const engine *hardware();
#else
inline const engine *hardware() { return nullptr; }
#endif

/// The key schedule for encryption. The rounds, or 0 for a key size that AES does not have.
int expand_key(const engine &e, uint32_t *keys, const uint8_t *key, int bits);

/// From the schedule for encryption to the one for decryption.
void invert_keys(const uint32_t *encryption, uint32_t *decryption, int rounds);

} // namespace vela::aes
