// The compression function of SHA-256 as FIPS 180-4 writes it.

#include <bit>
#include <cstring>
#include <vela/core/internal/sha256.h>

namespace
{

uint32_t load_word(const uint8_t *from)
{
    uint32_t word;
    memcpy(&word, from, sizeof word);
    return std::endian::native == std::endian::little ? __builtin_bswap32(word) : word;
}

inline uint32_t choose(uint32_t x, uint32_t y, uint32_t z) { return (x & (y ^ z)) ^ z; }
inline uint32_t big_sigma_0(uint32_t x) { return std::rotr(x, 2) ^ std::rotr(x, 13) ^ std::rotr(x, 22); }
inline uint32_t big_sigma_1(uint32_t x) { return std::rotr(x, 6) ^ std::rotr(x, 11) ^ std::rotr(x, 25); }
inline uint32_t small_sigma_0(uint32_t x) { return std::rotr(x, 7) ^ std::rotr(x, 18) ^ x >> 3; }
inline uint32_t small_sigma_1(uint32_t x) { return std::rotr(x, 17) ^ std::rotr(x, 19) ^ x >> 10; }

struct variables {
    uint32_t v[8];
    uint32_t b_xor_c; // kept from the round before, where it was a xor b
};

/// One round. The eight variables stay where they are and change their names instead: a is number -round modulo 8.
inline void do_round(variables &s, unsigned round, uint32_t word)
{
    const auto at = [&s, round](unsigned name) -> uint32_t & { return s.v[(name - round) % 8]; };
    const uint32_t sum = at(7) + word + choose(at(4), at(5), at(6)) + big_sigma_1(at(4));
    const uint32_t a_xor_b = at(0) ^ at(1);
    const uint32_t majority = (a_xor_b & s.b_xor_c) ^ at(1); // of a, b, c: b, unless it stands alone
    at(3) += sum;
    at(7) = sum + big_sigma_0(at(0)) + majority;
    s.b_xor_c = a_xor_b;
}

} // namespace

void vela::sha256::compress_portably(uint32_t state[8], const uint8_t *blocks, size_t count)
{
    for (; count != 0; --count, blocks += block_size) {
        variables s;
        memcpy(s.v, state, sizeof s.v);
        s.b_xor_c = s.v[1] ^ s.v[2];
        uint32_t w[16]; // the last 16 words of the message schedule
#pragma GCC unroll 16
        for (unsigned i = 0; i < 16; ++i) {
            w[i] = load_word(blocks + 4 * i);
            do_round(s, i, constants[i] + w[i]);
        }
        for (unsigned start = 16; start < 64; start += 16) {
#pragma GCC unroll 16
            for (unsigned i = 0; i < 16; ++i) {
                w[i] += small_sigma_0(w[(i + 1) % 16]) + w[(i + 9) % 16] + small_sigma_1(w[(i + 14) % 16]);
                do_round(s, i, constants[start + i] + w[i]);
            }
        }
        for (int i = 0; i < 8; ++i) state[i] += s.v[i];
    }
}
