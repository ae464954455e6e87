// Makes an AES engine of what a processor does with blocks. Loading of keys and the CBC loops are written here, once.
// Blocks is a class of three functions:
//   uint32_t substitute(uint32_t)                     SubBytes of a word, for the key schedule
//   byte_block encrypt(byte_block, const schedule &, int rounds)
//   void decrypt(byte_block (&)[N], const schedule &, int rounds)   N blocks at once, each by itself, with the keys of
//                                                     the equivalent inverse cipher (FIPS 197, section 5.3.5)
#pragma once

#include <bit>
#include <vela/core/internal/aes.h>
#include <vela/core/internal/block.h>
#include <vela/core/internal/secret.h>

namespace vela::aes
{

constexpr int rounds_max = 14;
constexpr size_t batch = 8; // blocks decrypted at once: one alone would leave the processor waiting for each step

/// Round keys with their bytes in memory as the cipher takes them.
struct schedule {
    alignas(block_size) uint32_t words[4 * (rounds_max + 1)];

    [[nodiscard]] byte_block key(int round) const { return load_block(words + 4 * round); }
};

inline void load_keys(schedule &s, const uint32_t *keys, int rounds)
{
    for (int i = 0; i < 4 * (rounds + 1); ++i) {
        s.words[i] = std::endian::native == std::endian::little ? __builtin_bswap32(keys[i]) : keys[i];
    }
    settle(s);
}

/// Decrypts the next N blocks of a chain, of which `previous` is the ciphertext before them.
template <class Blocks, size_t N> inline void cbc_decrypt_next(schedule &s, byte_block &previous, uint8_t *data)
{
    settle(s); // keys for which there is no register are read again: no copy is to stay on the stack
    byte_block v[N];
#pragma GCC unroll 8
    for (size_t i = 0; i < N; ++i) v[i] = load_block(data + i * block_size);
    Blocks::decrypt(v, s, rounds_128);
#pragma GCC unroll 8
    for (size_t i = 0; i < N; ++i) {
        const byte_block ciphertext = load_block(data + i * block_size); // just before its place is written
        store_block(data + i * block_size, v[i] ^ previous);
        previous = ciphertext;
    }
}

template <class Blocks> struct operations {
    static void encrypt(const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out)
    {
        secret<schedule> s;
        load_keys(s.value, keys, rounds);
        store_block(out, Blocks::encrypt(load_block(in), s.value, rounds));
    }

    static void decrypt(const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out)
    {
        secret<schedule> s;
        load_keys(s.value, keys, rounds);
        byte_block block[] = {load_block(in)};
        Blocks::decrypt(block, s.value, rounds);
        store_block(out, block[0]);
    }

    static void cbc_encrypt(const uint32_t *keys, const uint8_t *iv, uint8_t *data, size_t blocks)
    {
        secret<schedule> s;
        load_keys(s.value, keys, rounds_128);
        byte_block chain = load_block(iv);
        for (; blocks != 0; --blocks, data += block_size) {
            chain = Blocks::encrypt(chain ^ load_block(data), s.value, rounds_128);
            store_block(data, chain);
        }
    }

    static void cbc_decrypt(const uint32_t *keys, const uint8_t *iv, uint8_t *data, size_t blocks)
    {
        secret<schedule> s;
        load_keys(s.value, keys, rounds_128);
        byte_block previous = load_block(iv);
        for (; blocks >= batch; blocks -= batch, data += batch * block_size) {
            cbc_decrypt_next<Blocks, batch>(s.value, previous, data);
        }
        for (; blocks != 0; --blocks, data += block_size) cbc_decrypt_next<Blocks, 1>(s.value, previous, data);
    }
};

template <class Blocks>
constexpr engine engine_of = {Blocks::substitute, operations<Blocks>::encrypt, operations<Blocks>::decrypt,
                              operations<Blocks>::cbc_encrypt, operations<Blocks>::cbc_decrypt};

} // namespace vela::aes
