// AES in plain C++, for processors without AES instructions. What it takes does not depend on key or data: nothing
// secret decides a branch or an address. A block's sixteen bytes are worked on at once with the compiler's vectors,
// among them a permute that picks bytes of a vector by an index each, which most processors have as one instruction.
// To look sixteen bytes up in a table of 256, all its sixteen rows are asked for the low half of each byte, and the
// high half's bits choose among the answers.

#include <array>
#include <bit>
#include <vela/core/internal/aes_engine.h>

namespace
{

using vela::byte_block;
using vela::load_block;
using vela::aes::schedule;

// Arithmetic of GF(256), for the compiler only.

constexpr uint8_t doubled(uint8_t a) { return static_cast<uint8_t>(a << 1 ^ (a >> 7) * 0x1b); }

/// The powers of 3 are all numbers but 0; that of 255 is 1, so the inverse of power n is power 255 - n.
constexpr auto inverses = [] {
    std::array<uint8_t, 256> power{1};
    for (unsigned n = 0; n < 255; ++n) power[n + 1] = power[n] ^ doubled(power[n]);
    std::array<uint8_t, 256> inverse{}; // of 0: 0
    for (unsigned n = 0; n < 255; ++n) inverse[power[n]] = power[255 - n];
    return inverse;
}();

using bytes = std::array<uint8_t, 256>;

constexpr bytes substitution = [] {
    bytes s{};
    for (unsigned n = 0; n < 256; ++n) {
        const uint8_t i = inverses[n];
        s[n] = i ^ std::rotl(i, 1) ^ std::rotl(i, 2) ^ std::rotl(i, 3) ^ std::rotl(i, 4) ^ 0x63;
    }
    return s;
}();

constexpr bytes inverse_substitution = [] {
    bytes s{};
    for (unsigned n = 0; n < 256; ++n) s[substitution[n]] = static_cast<uint8_t>(n);
    return s;
}();
static_assert(substitution[0x53] == 0xed && inverse_substitution[0xed] == 0x53); // FIPS 197, section 5.1.1

/// A table of 256 bytes in sixteen rows, one per upper half of a byte.
struct rows {
    alignas(16) uint8_t row[16][16];
};

/// Each row as what it differs in from the row whose number lacks one of its bits: a set bit adds the difference.
constexpr rows differences_of(const bytes &table)
{
    rows t{};
    for (unsigned n = 0; n < 256; ++n) t.row[n / 16][n % 16] = table[n];
    for (unsigned bit = 1; bit < 16; bit *= 2) {
        for (unsigned row = 0; row < 16; ++row) {
            for (unsigned n = 0; n < 16 && (row & bit) != 0; ++n) t.row[row][n] ^= t.row[row - bit][n];
        }
    }
    return t;
}
constexpr rows substitution_rows = differences_of(substitution);
constexpr rows inverse_rows = differences_of(inverse_substitution);

/// Byte n of the result is the byte at index n, an index from 0 to 15.
inline byte_block pick(byte_block from, byte_block index)
{
#if defined(__clang__)
    return __builtin_shufflevector(from, index);
#else
    return __builtin_shuffle(from, index);
#endif
}

/// All ones for each byte whose top bit is set.
inline byte_block top_bits(byte_block v)
{
    using signed_block = int8_t __attribute__((vector_size(16)));
    return (byte_block)((signed_block)v < 0);
}

/// Of four differences, the sum of those whose bits are set: none for the first, low, high, both for the last.
inline byte_block chosen(byte_block none, byte_block low, byte_block high, byte_block both, byte_block low_bit,
                         byte_block high_bit)
{
    return (none ^ (low & low_bit)) ^ ((high & high_bit) ^ (both & (low_bit & high_bit)));
}

/// What a table holds at each byte.
byte_block look_up(const rows &t, byte_block v)
{
    const byte_block low_half = v & 15;
    const auto ask = [&](int row) { return pick(load_block(t.row[row]), low_half); };
    const byte_block v2 = v + v; // moves all bits up by one
    const byte_block v4 = v2 + v2;
    const byte_block v8 = v4 + v4;
    byte_block found[4];
#pragma GCC unroll 4
    for (int n = 0; n < 4; ++n) {
        found[n] = chosen(ask(n), ask(n + 4), ask(n + 8), ask(n + 12), top_bits(v2), top_bits(v));
    }
    return chosen(found[0], found[1], found[2], found[3], top_bits(v8), top_bits(v4));
}

inline byte_block doubled(byte_block v) { return (v + v) ^ ((byte_block)(v > 0x7f) & 0x1b); }

/// ShiftRows and one term of MixColumns: row r moves to the left by `Left` times r columns, then each byte gives way to
/// the one `Down` rows below, in its column.
template <int Left, unsigned Down> inline byte_block shifted(byte_block v)
{
    constexpr auto places = [] {
        std::array<uint8_t, 16> p{};
        for (unsigned n = 0; n < 16; ++n) {
            const unsigned column = n / 4;
            const unsigned row = (n + Down) % 4;
            p[n] = static_cast<uint8_t>(4 * ((column + Left * row) % 4) + row);
        }
        return p;
    }();
    return pick(v, load_block(places.data()));
}

/// SubBytes, ShiftRows and MixColumns.
byte_block scrambled(byte_block v)
{
    const byte_block v1 = look_up(substitution_rows, v);
    const byte_block v2 = doubled(v1);
    return shifted<1, 0>(v2) ^ shifted<1, 1>(v2 ^ v1) ^ (shifted<1, 2>(v1) ^ shifted<1, 3>(v1));
}

/// Their inverses, in the order of the equivalent inverse cipher.
byte_block unscrambled(byte_block v)
{
    const byte_block v1 = look_up(inverse_rows, v);
    const byte_block v2 = doubled(v1);
    const byte_block v4 = doubled(v2);
    const byte_block v8 = doubled(v4);
    const byte_block v9 = v8 ^ v1;
    return shifted<-1, 0>(v8 ^ v4 ^ v2) ^ shifted<-1, 1>(v9 ^ v2) ^ shifted<-1, 2>(v9 ^ v4) ^ shifted<-1, 3>(v9);
}

struct plain {
    static uint32_t substitute(uint32_t word)
    {
        byte_block v = {};
        memcpy(&v, &word, sizeof word); // in any order: each byte is substituted by itself
        v = look_up(substitution_rows, v);
        memcpy(&word, &v, sizeof word);
        return word;
    }
    static byte_block encrypt(byte_block v, const schedule &s, int rounds)
    {
        v ^= s.key(0);
        for (int round = 1; round < rounds; ++round) v = scrambled(v) ^ s.key(round);
        return shifted<1, 0>(look_up(substitution_rows, v)) ^ s.key(rounds);
    }
    template <size_t N> static void decrypt(byte_block (&block)[N], const schedule &s, int rounds)
    {
        for (byte_block &v : block) v ^= s.key(0);
        for (int round = 1; round < rounds; ++round) {
            for (byte_block &v : block) v = unscrambled(v) ^ s.key(round);
        }
        for (byte_block &v : block) v = shifted<-1, 0>(look_up(inverse_rows, v)) ^ s.key(rounds);
    }
};

} // namespace

constexpr vela::aes::engine vela::aes::portable = engine_of<plain>;
