// AES with the instructions of 64-bit Arm processors.

#if defined(__aarch64__)

#include <arm_neon.h>
#include <sys/auxv.h>
#include <vela/core/crypto/aes.h>
#include <vela/core/internal/secret.h>

#if defined(__clang__)
#define with_aes __attribute__((target("aes")))
#else
#define with_aes __attribute__((target("+crypto")))
#endif

namespace
{

using vela::aes::block_size;
using vela::aes::engine;
using vela::aes::rounds_128;

constexpr unsigned long has_aes = 1 << 3; // HWCAP_AES, linux/arch/arm64/include/uapi/asm/hwcap.h
constexpr size_t batch = 8;               // blocks decrypted at once: one alone would leave the units waiting

/// Four words of a schedule as the bytes that they stand for.
inline uint8x16_t round_key(const uint32_t *keys, int round)
{
    return vrev32q_u8(vreinterpretq_u8_u32(vld1q_u32(keys + 4 * round)));
}

with_aes uint32_t substitute(uint32_t word)
{
    // Four equal columns: the instruction's ShiftRows changes nothing.
    const uint8x16_t columns = vreinterpretq_u8_u32(vdupq_n_u32(word));
    return vgetq_lane_u32(vreinterpretq_u32_u8(vaeseq_u8(columns, vdupq_n_u8(0))), 0);
}

// The instructions add a round key before the substitution, not after the mixing.

template <class KeyOf> with_aes inline uint8x16_t encrypt_block(uint8x16_t block, int rounds, KeyOf key_of)
{
    for (int round = 0; round < rounds - 1; ++round) block = vaesmcq_u8(vaeseq_u8(block, key_of(round)));
    return veorq_u8(vaeseq_u8(block, key_of(rounds - 1)), key_of(rounds));
}

with_aes void encrypt(const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out)
{
    vst1q_u8(out, encrypt_block(vld1q_u8(in), rounds, [=](int round) { return round_key(keys, round); }));
}

with_aes void decrypt(const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out)
{
    uint8x16_t block = vld1q_u8(in);
    for (int round = 0; round < rounds - 1; ++round) block = vaesimcq_u8(vaesdq_u8(block, round_key(keys, round)));
    block = vaesdq_u8(block, round_key(keys, rounds - 1));
    vst1q_u8(out, veorq_u8(block, round_key(keys, rounds)));
}

struct schedule {
    uint8x16_t key[rounds_128 + 1];
};

constexpr engine instructions_without_cbc = {substitute, encrypt, decrypt, nullptr, nullptr};

with_aes void expand(schedule &s, const uint8_t *key)
{
    vela::secret<uint32_t[4 * (rounds_128 + 1)]> words;
    vela::aes::expand_key(instructions_without_cbc, words.value, key, 128);
    for (int round = 0; round <= rounds_128; ++round) s.key[round] = round_key(words.value, round);
    vela::settle(s);
}

with_aes void cbc_encrypt(const uint8_t *key, const uint8_t *iv, uint8_t *data, size_t blocks)
{
    vela::secret<schedule> s;
    expand(s.value, key);
    const auto &k = s.value.key;

    uint8x16_t chain = vld1q_u8(iv);
    for (; blocks != 0; --blocks, data += block_size) {
        chain = veorq_u8(chain, vld1q_u8(data));
#pragma GCC unroll 10
        for (int round = 0; round < rounds_128 - 1; ++round) chain = vaesmcq_u8(vaeseq_u8(chain, k[round]));
        chain = veorq_u8(vaeseq_u8(chain, k[rounds_128 - 1]), k[rounds_128]);
        vst1q_u8(data, chain);
    }
}

/// Decrypts the next n blocks and moves on; previous is the ciphertext before them.
template <size_t n> with_aes inline void cbc_decrypt_some(schedule &s, uint8x16_t &previous, uint8_t *&data)
{
    vela::settle(s); // there are not registers enough for all of it: no key is to wait on the stack
    uint8x16_t block[n];
#pragma GCC unroll 8
    for (size_t i = 0; i < n; ++i) block[i] = vld1q_u8(data + i * block_size);
#pragma GCC unroll 10
    for (int round = 0; round < rounds_128 - 1; ++round) {
#pragma GCC unroll 8
        for (size_t i = 0; i < n; ++i) block[i] = vaesimcq_u8(vaesdq_u8(block[i], s.key[round]));
    }
#pragma GCC unroll 8
    for (size_t i = 0; i < n; ++i) {
        // Each ciphertext is read again just before its place is written.
        const uint8x16_t ciphertext = vld1q_u8(data + i * block_size);
        block[i] = veorq_u8(vaesdq_u8(block[i], s.key[rounds_128 - 1]), s.key[rounds_128]);
        vst1q_u8(data + i * block_size, veorq_u8(block[i], previous));
        previous = ciphertext;
    }
    data += n * block_size;
}

with_aes void cbc_decrypt(const uint8_t *key, const uint8_t *iv, uint8_t *data, size_t blocks)
{
    vela::secret<schedule> forward;
    expand(forward.value, key);
    vela::secret<schedule> s;
    for (int round = 0; round <= rounds_128; ++round) {
        const uint8x16_t k = forward.value.key[rounds_128 - round];
        s.value.key[round] = round == 0 || round == rounds_128 ? k : vaesimcq_u8(k);
    }

    uint8x16_t previous = vld1q_u8(iv);
    for (; blocks >= batch; blocks -= batch) cbc_decrypt_some<batch>(s.value, previous, data);
    if (blocks & 4) cbc_decrypt_some<4>(s.value, previous, data);
    if (blocks & 2) cbc_decrypt_some<2>(s.value, previous, data);
    if (blocks & 1) cbc_decrypt_some<1>(s.value, previous, data);
}

constexpr engine instructions = {substitute, encrypt, decrypt, cbc_encrypt, cbc_decrypt};

} // namespace

const engine *vela::aes::hardware() { return getauxval(AT_HWCAP) & has_aes ? &instructions : nullptr; }

#endif
