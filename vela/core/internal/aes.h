// The AES block cipher inside: what an engine is, and the key schedules that all engines share. aes.cpp chooses.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vela::aes
{

constexpr size_t block_size = 16;
constexpr int rounds_128 = 10;

/// AES as one kind of processor does it. Round keys are words of FIPS 197, the first byte on top; those for decryption
/// belong to the equivalent inverse cipher. Blocks may lie anywhere, input and output may be the same.
struct engine {
    uint32_t (*substitute)(uint32_t word);
    void (*encrypt)(const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out);
    void (*decrypt)(const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out);
    // Whole messages in place, keys of rounds_128.
    void (*cbc_encrypt)(const uint32_t *keys, const uint8_t *iv, uint8_t *data, size_t blocks);
    void (*cbc_decrypt)(const uint32_t *keys, const uint8_t *iv, uint8_t *data, size_t blocks);
};

/// Runs everywhere.
extern const engine portable;

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
