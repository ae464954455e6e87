// AES with the instructions of x86-64 processors (AES-NI).

#if defined(__x86_64__)

#include <cpuid.h>
#include <immintrin.h>
#include <vela/core/crypto/aes.h>
#include <vela/core/internal/secret.h>

#define with_aes __attribute__((target("aes,ssse3")))

namespace
{

using vela::aes::block_size;
using vela::aes::engine;
using vela::aes::rounds_128;

constexpr size_t batch = 8; // blocks decrypted at once: one alone would leave the units waiting for each other

with_aes inline __m128i load(const uint8_t *from) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(from)); }
with_aes inline void store(uint8_t *to, __m128i block) { _mm_storeu_si128(reinterpret_cast<__m128i *>(to), block); }

/// Four words of a schedule as the bytes that they stand for.
with_aes inline __m128i round_key(const uint32_t *keys, int round)
{
    const __m128i swap = _mm_set_epi8(12, 13, 14, 15, 8, 9, 10, 11, 4, 5, 6, 7, 0, 1, 2, 3);
    return _mm_shuffle_epi8(load(reinterpret_cast<const uint8_t *>(keys + 4 * round)), swap);
}

with_aes uint32_t substitute(uint32_t word)
{
    // Four equal columns: the instruction's ShiftRows changes nothing.
    const __m128i columns = _mm_set1_epi32(static_cast<int>(word));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_aesenclast_si128(columns, _mm_setzero_si128())));
}

with_aes void encrypt(const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out)
{
    __m128i block = _mm_xor_si128(load(in), round_key(keys, 0));
    for (int round = 1; round < rounds; ++round) block = _mm_aesenc_si128(block, round_key(keys, round));
    store(out, _mm_aesenclast_si128(block, round_key(keys, rounds)));
}

with_aes void decrypt(const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out)
{
    __m128i block = _mm_xor_si128(load(in), round_key(keys, 0));
    for (int round = 1; round < rounds; ++round) block = _mm_aesdec_si128(block, round_key(keys, round));
    store(out, _mm_aesdeclast_si128(block, round_key(keys, rounds)));
}

struct schedule {
    __m128i key[rounds_128 + 1];
};

/// The schedule of a 128-bit key without leaving the vector registers.
with_aes inline void expand(schedule &s, const uint8_t *key)
{
    const __m128i last_word_rotated = _mm_set1_epi32(0x0c0f0e0d);
    __m128i k = load(key);
    s.key[0] = k;
#pragma GCC unroll 10
    for (int round = 1; round <= rounds_128; ++round) {
        const __m128i constant = _mm_set1_epi32(static_cast<int>(vela::aes::round_constants[round - 1]));
        const __m128i word = _mm_aesenclast_si128(_mm_shuffle_epi8(k, last_word_rotated), constant);
        k = _mm_xor_si128(k, _mm_slli_si128(k, 4)); // each word takes up all before it
        k = _mm_xor_si128(k, _mm_slli_si128(k, 8));
        s.key[round] = k = _mm_xor_si128(k, word);
    }
    vela::settle(s);
}

with_aes inline void expand_inverted(schedule &s, const uint8_t *key)
{
    vela::secret<schedule> forward;
    expand(forward.value, key);
    s.key[0] = forward.value.key[rounds_128];
#pragma GCC unroll 10
    for (int round = 1; round < rounds_128; ++round) {
        s.key[round] = _mm_aesimc_si128(forward.value.key[rounds_128 - round]);
    }
    s.key[rounds_128] = forward.value.key[0];
}

with_aes void cbc_encrypt(const uint8_t *key, const uint8_t *iv, uint8_t *data, size_t blocks)
{
    vela::secret<schedule> s;
    expand(s.value, key);
    const auto &k = s.value.key;

    __m128i chain = load(iv);
    for (; blocks != 0; --blocks, data += block_size) {
        chain = _mm_xor_si128(chain, _mm_xor_si128(load(data), k[0]));
#pragma GCC unroll 10
        for (int round = 1; round < rounds_128; ++round) chain = _mm_aesenc_si128(chain, k[round]);
        chain = _mm_aesenclast_si128(chain, k[rounds_128]);
        store(data, chain);
    }
}

/// Decrypts the next n blocks and moves on; previous is the ciphertext before them.
template <size_t n> with_aes inline void cbc_decrypt_some(schedule &s, __m128i &previous, uint8_t *&data)
{
    vela::settle(s); // there are not registers enough for all of it: no key is to wait on the stack
    __m128i block[n];
#pragma GCC unroll 8
    for (size_t i = 0; i < n; ++i) block[i] = _mm_xor_si128(load(data + i * block_size), s.key[0]);
#pragma GCC unroll 10
    for (int round = 1; round < rounds_128; ++round) {
        const __m128i key = s.key[round];
#pragma GCC unroll 8
        for (size_t i = 0; i < n; ++i) block[i] = _mm_aesdec_si128(block[i], key);
    }
#pragma GCC unroll 8
    for (size_t i = 0; i < n; ++i) {
        // Each ciphertext is read again just before its place is written.
        const __m128i ciphertext = load(data + i * block_size);
        block[i] = _mm_aesdeclast_si128(block[i], s.key[rounds_128]);
        store(data + i * block_size, _mm_xor_si128(block[i], previous));
        previous = ciphertext;
    }
    data += n * block_size;
}

with_aes void cbc_decrypt(const uint8_t *key, const uint8_t *iv, uint8_t *data, size_t blocks)
{
    vela::secret<schedule> s;
    expand_inverted(s.value, key);
    __m128i previous = load(iv);
    for (; blocks >= batch; blocks -= batch) cbc_decrypt_some<batch>(s.value, previous, data);
    if (blocks & 4) cbc_decrypt_some<4>(s.value, previous, data);
    if (blocks & 2) cbc_decrypt_some<2>(s.value, previous, data);
    if (blocks & 1) cbc_decrypt_some<1>(s.value, previous, data);
}

constexpr engine instructions = {substitute, encrypt, decrypt, cbc_encrypt, cbc_decrypt};

} // namespace

const engine *vela::aes::hardware()
{
    unsigned eax, ebx, ecx, edx;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return nullptr;
    constexpr unsigned needed = bit_AES | bit_SSSE3;
    return (ecx & needed) == needed ? &instructions : nullptr;
}

#endif
