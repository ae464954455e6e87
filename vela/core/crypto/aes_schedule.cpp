// The key schedules of FIPS 197, in words as callers see them.

#include <bit>
#include <vela/core/internal/aes.h>

namespace
{

constexpr uint32_t round_constants[] = {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0x1b, 0x36};

uint32_t big_endian_word(const uint8_t *bytes)
{
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

/// Each of a word's bytes times x.
uint32_t doubled(uint32_t word) { return (word & 0x7f7f7f7f) << 1 ^ (word >> 7 & 0x01010101) * 0x1b; }

uint32_t inverse_mix_column(uint32_t w)
{
    const uint32_t w2 = doubled(w);
    const uint32_t w4 = doubled(w2);
    const uint32_t w8 = doubled(w4);
    const uint32_t w9 = w8 ^ w;
    return (w8 ^ w4 ^ w2) ^ std::rotl(w9 ^ w2, 8) ^ std::rotl(w9 ^ w4, 16) ^ std::rotl(w9, 24);
}

} // namespace

namespace vela::aes
{

int expand_key(const engine &e, uint32_t *keys, const uint8_t *key, int bits)
{
    if (bits != 128 && bits != 192 && bits != 256) return 0;
    const int key_words = bits / 32;
    const int rounds = key_words + 6;
    const uint32_t *constant = round_constants;

    for (int i = 0; i < key_words; ++i) keys[i] = big_endian_word(key + 4 * i);
    for (int i = key_words; i < 4 * (rounds + 1); ++i) {
        uint32_t word = keys[i - 1];
        if (i % key_words == 0) {
            word = e.substitute(std::rotl(word, 8)) ^ *constant++ << 24;
        } else if (key_words == 8 && i % key_words == 4) {
            word = e.substitute(word);
        }
        keys[i] = keys[i - key_words] ^ word;
    }
    return rounds;
}

void invert_keys(const uint32_t *encryption, uint32_t *decryption, int rounds)
{
    for (int round = 0; round <= rounds; ++round) {
        const bool outer = round == 0 || round == rounds;
        const uint32_t *source = encryption + 4 * (rounds - round);
        for (int i = 0; i < 4; ++i) *decryption++ = outer ? source[i] : inverse_mix_column(source[i]);
    }
}

} // namespace vela::aes
