// AES without a table that a secret could index: everything is done to the 16 bytes of a block at once, with the
// compiler's vectors and one operation more, a permute that picks from a table of 16 bytes (after M. Hamburg,
// "Accelerating AES with Vector Permute Instructions"). Two such tables, one per half of a byte, make any linear map.
//
// The S-box inverts in GF(256). Seen as a plane over its subfield GF(16), a byte is i b + k, with i and k from the
// subfield and b chosen so that its norm and its trace are the same number a. With j = i + k, the inverse of the byte
// is
//     c1 / (j + 1 / (1/i + a/k))  +  c2 / (i + 1 / (1/j + a/k))
// for two constants c1 and c2. That takes reciprocals of half bytes only, hence tables of 16; the last division of each
// term, what AES does after the inversion and the factors of MixColumns go into the table that is asked last. 1/0 is
// infinity and 1/infinity is 0: infinity is any number with bit 7, for which a permute gives 0.
//
// Between rounds each byte of the block stays split into i (upper half) and k (lower half).

#include <array>
#include <bit>
#include <cstring>
#include <vela/core/crypto/aes.h>
#include <vela/core/internal/secret.h>

#if defined(__x86_64__)
#include <cpuid.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

namespace
{

using vela::aes::block_size;
using vela::aes::engine;
using vela::aes::rounds_128;

// Arithmetic of GF(256), for the compiler only.

constexpr uint8_t times(uint8_t a, uint8_t b)
{
    unsigned product = 0;
    for (unsigned bit = 0; bit < 8; ++bit) {
        if (b >> bit & 1) product ^= static_cast<unsigned>(a) << bit;
    }
    for (unsigned bit = 14; bit >= 8; --bit) {
        if (product >> bit & 1) product ^= 0x11bU << (bit - 8);
    }
    return static_cast<uint8_t>(product);
}

constexpr uint8_t power(uint8_t a, unsigned n)
{
    if (n == 0) return 1;
    const uint8_t root = power(times(a, a), n / 2);
    return n % 2 == 0 ? root : times(root, a);
}

constexpr uint8_t inverse(uint8_t a) { return power(a, 254); }
constexpr uint8_t conjugate(uint8_t a) { return power(a, 16); }

constexpr uint8_t sum(uint8_t a, uint8_t b) { return a ^ b; }

template <class Test> constexpr uint8_t first_that(Test test)
{
    uint8_t a = 2;
    while (!test(a)) ++a;
    return a;
}

/// Spans the subfield GF(16) with its powers 0 to 3.
constexpr uint8_t generator = first_that([](uint8_t x) { return conjugate(x) == x && power(x, 4) != x; });
/// Spans GF(256) over the subfield together with 1: norm and trace are equal.
constexpr uint8_t b = first_that([](uint8_t x) { return times(x, conjugate(x)) == sum(x, conjugate(x)); });
constexpr uint8_t a = times(b, conjugate(b));

constexpr uint8_t c2 = times(b, inverse(times(a, a)));
constexpr uint8_t c1 = sum(1, times(c2, sum(a, 1)));

/// The element of the subfield that a half byte stands for.
constexpr uint8_t element(unsigned half)
{
    uint8_t x = 0;
    for (unsigned bit = 0; bit < 4; ++bit) {
        if (half >> bit & 1) x ^= power(generator, bit);
    }
    return x;
}

/// Bytes split into their two halves.
constexpr auto split_bytes = [] {
    std::array<uint8_t, 256> split{};
    for (unsigned i = 0; i < 16; ++i) {
        for (unsigned k = 0; k < 16; ++k) {
            split[sum(times(element(i), b), element(k))] = static_cast<uint8_t>(i << 4 | k);
        }
    }
    return split;
}();

constexpr uint8_t split(uint8_t x) { return split_bytes[x]; }
constexpr uint8_t whole(uint8_t x) { return x; }

/// The linear part of the S-box's affine map, and its inverse.
constexpr uint8_t affine(uint8_t x)
{
    return x ^ std::rotl(x, 1) ^ std::rotl(x, 2) ^ std::rotl(x, 3) ^ std::rotl(x, 4);
}
constexpr uint8_t affine_inverse(uint8_t x) { return std::rotl(x, 1) ^ std::rotl(x, 3) ^ std::rotl(x, 6); }
constexpr uint8_t affine_constant = 0x63;

constexpr uint8_t split_inverse(uint8_t x) { return split(affine_inverse(x)); }

// Tables.

struct alignas(block_size) table {
    uint8_t byte[block_size];
};

template <class Entry> constexpr table table_of(Entry entry)
{
    table t{};
    for (unsigned n = 0; n < block_size; ++n) t.byte[n] = entry(n);
    return t;
}

constexpr uint8_t nothing = 0x80; // as an index: a permute gives 0
constexpr uint8_t infinity = nothing;

constexpr table quotients_of(uint8_t dividend)
{
    return table_of([=](unsigned n) { return n == 0 ? infinity : split(times(dividend, inverse(element(n)))); });
}
constexpr table reciprocal = quotients_of(1);
constexpr table a_divided = quotients_of(a);

/// A linear map of bytes: the sum of what it makes of their halves.
struct linear_map {
    table low, high;
};
template <class Map> constexpr linear_map map_of(Map map)
{
    return {table_of([=](unsigned n) { return map(static_cast<uint8_t>(n)); }),
            table_of([=](unsigned n) { return map(static_cast<uint8_t>(n << 4)); })};
}

/// What an inversion ends with: both denominators' reciprocals, each under its constant and a linear map.
struct ending {
    table first, second;
};
template <class Map> constexpr ending ending_with(Map map)
{
    return {table_of([=](unsigned n) { return map(times(c1, inverse(element(n)))); }),
            table_of([=](unsigned n) { return map(times(c2, inverse(element(n)))); })};
}
template <uint8_t Factor> constexpr uint8_t split_times(uint8_t x) { return split(times(Factor, affine(x))); }
template <uint8_t Factor> constexpr uint8_t split_inverse_times(uint8_t x) { return split_inverse(times(Factor, x)); }

/// Where each byte of a block comes from when row r has moved by `shift` times r columns and then, within its column,
/// each byte has given way to the one `rows` below.
constexpr table moved(unsigned shift, unsigned rows)
{
    return table_of([=](unsigned n) {
        const unsigned row = (n + rows) % 4;
        const unsigned column = (n / 4 + shift * row) % 4;
        return static_cast<uint8_t>(4 * column + row);
    });
}
constexpr unsigned in_place = 0;
constexpr unsigned shift_rows = 1;
constexpr unsigned inverse_shift_rows = 3;

struct encryption_tables {
    linear_map to_split = map_of(split);
    ending once = ending_with(split_times<1>);
    ending twice = ending_with(split_times<2>);
    ending last = ending_with(affine);
    table row[4] = {moved(shift_rows, 0), moved(shift_rows, 1), moved(shift_rows, 2), moved(shift_rows, 3)};
};
constexpr encryption_tables encryption{};

struct decryption_tables {
    linear_map to_split = map_of(split_inverse);
    ending times_14 = ending_with(split_inverse_times<14>);
    ending times_11 = ending_with(split_inverse_times<11>);
    ending times_13 = ending_with(split_inverse_times<13>);
    ending times_9 = ending_with(split_inverse_times<9>);
    ending last = ending_with(whole);
    table row[4] = {moved(inverse_shift_rows, 0), moved(inverse_shift_rows, 1), moved(inverse_shift_rows, 2),
                    moved(inverse_shift_rows, 3)};
};
constexpr decryption_tables decryption{};

/// Where each byte comes from when words move up by n places and leave zeroes behind.
constexpr table words_up(unsigned n)
{
    return table_of([=](unsigned i) { return i < 4 * n ? nothing : static_cast<uint8_t>(i - 4 * n); });
}

struct key_tables {
    table up_1 = words_up(1);
    table up_2 = words_up(2);
    table last_word_rotated = table_of([](unsigned n) { return static_cast<uint8_t>(12 + (n + 1) % 4); });
    table row[4] = {moved(in_place, 0), moved(in_place, 1), moved(in_place, 2), moved(in_place, 3)};
};
constexpr key_tables key_schedule{};

// Vectors.

typedef uint8_t vector __attribute__((vector_size(block_size)));

inline vector load(const void *from)
{
    vector v;
    memcpy(&v, from, sizeof v);
    return v;
}
inline void store(void *to, vector v) { memcpy(to, &v, sizeof v); }
inline vector load(const table &t) { return load(t.byte); }

/// Four words as the bytes that they stand for.
inline vector load_words(const uint32_t *words)
{
    uint32_t swapped[4];
    for (int n = 0; n < 4; ++n) {
        swapped[n] = std::endian::native == std::endian::little ? __builtin_bswap32(words[n]) : words[n];
    }
    return load(swapped);
}

/// Permutes: byte n of the result is the table's byte at index n, or 0 where the index has bit 7.
struct by_byte {
    // A table fits a cache line: which of its bytes is read does not show there.
    static vector pick(vector from, vector index)
    {
        struct alignas(block_size) {
            uint8_t from[block_size], index[block_size];
        } place;
        store(place.from, from);
        store(place.index, index);
        vector result;
        for (unsigned n = 0; n < block_size; ++n) result[n] = place.from[place.index[n] & 15];
        memset(&place, 0, sizeof place);
        vela::settle(place); // wiped, whatever the compiler thinks of it
        return result & ~(vector)(index > 0x7f);
    }
};

struct by_instruction {
#if defined(__x86_64__)
    static vector pick(vector from, vector index)
    {
        asm("pshufb %1, %0" : "+x"(from) : "x"(index)); // SSSE3; all else here is in every x86-64
        return from;
    }
    static bool works()
    {
        unsigned eax, ebx, ecx = 0, edx;
        return __get_cpuid(1, &eax, &ebx, &ecx, &edx) && (ecx & bit_SSSE3);
    }
#elif defined(__aarch64__)
    static vector pick(vector from, vector index) { return (vector)vqtbl1q_u8((uint8x16_t)from, (uint8x16_t)index); }
    static bool works() { return true; }
#elif defined(__ARM_NEON)
    static vector pick(vector from, vector index)
    {
        const auto t = (uint8x16_t)from;
        const auto i = (uint8x16_t)index;
        const uint8x8x2_t halves = {{vget_low_u8(t), vget_high_u8(t)}};
        return (vector)vcombine_u8(vtbl2_u8(halves, vget_low_u8(i)), vtbl2_u8(halves, vget_high_u8(i)));
    }
    static bool works() { return true; }
#else
    static vector pick(vector from, vector index) { return by_byte::pick(from, index); }
    static bool works() { return false; }
#endif
};

template <class Permute> struct cipher {
    static vector pick(const table &from, vector index) { return Permute::pick(load(from), index); }
    static vector move(vector block, const table &from) { return Permute::pick(block, load(from)); }

    static vector apply(const linear_map &map, vector v) { return pick(map.low, v & 15) ^ pick(map.high, v >> 4); }

    /// The denominators of the inverse's two terms.
    struct denominators {
        vector first, second;
    };
    static denominators invert(vector v)
    {
        const vector k = v & 15;
        const vector i = v >> 4;
        const vector j = i ^ k;
        const vector a_k = pick(a_divided, k);
        return {j ^ pick(reciprocal, pick(reciprocal, i) ^ a_k), i ^ pick(reciprocal, pick(reciprocal, j) ^ a_k)};
    }
    static vector finish(const ending &e, denominators d) { return pick(e.first, d.first) ^ pick(e.second, d.second); }

    static vector substitute(vector bytes)
    {
        return finish(encryption.last, invert(apply(encryption.to_split, bytes))) ^ affine_constant;
    }

    static uint32_t substitute_word(uint32_t word)
    {
        vector bytes = {};
        memcpy(&bytes, &word, sizeof word); // in any order: each is substituted by itself
        bytes = substitute(bytes);
        memcpy(&word, &bytes, sizeof word);
        return word;
    }

    // Round keys in the form that the rounds take: split, with the S-box's constant where it belongs. MixColumns leaves
    // the constant as it is.

    static vector encryption_key(vector key, int round, int rounds)
    {
        if (round == 0) return apply(encryption.to_split, key);
        if (round == rounds) return key ^ affine_constant;
        return apply(encryption.to_split, key ^ affine_constant);
    }
    static vector decryption_key(vector key, int round, int rounds)
    {
        return round == rounds ? key : apply(decryption.to_split, key ^ affine_constant);
    }

    template <class KeyOf> static vector encrypt(vector block, int rounds, KeyOf key_of)
    {
        vector v = apply(encryption.to_split, block) ^ key_of(0);
        for (int round = 1; round < rounds; ++round) {
            const denominators d = invert(v);
            const vector once = finish(encryption.once, d);
            const vector twice = finish(encryption.twice, d);
            v = key_of(round) ^ move(twice, encryption.row[0]) ^ move(once ^ twice, encryption.row[1]) ^
                move(once, encryption.row[2]) ^ move(once, encryption.row[3]);
        }
        return move(finish(encryption.last, invert(v)), encryption.row[0]) ^ key_of(rounds);
    }

    static vector decryption_round(vector v, vector key)
    {
        const denominators d = invert(v);
        return key ^ move(finish(decryption.times_14, d), decryption.row[0]) ^
               move(finish(decryption.times_11, d), decryption.row[1]) ^
               move(finish(decryption.times_13, d), decryption.row[2]) ^
               move(finish(decryption.times_9, d), decryption.row[3]);
    }

    /// Decrypts N blocks abreast: while the steps of one wait for each other, the processor does another's.
    template <size_t N, class KeyOf> static void decrypt(vector (&v)[N], int rounds, KeyOf key_of)
    {
        for (vector &block : v) block = apply(decryption.to_split, block) ^ key_of(0);
        for (int round = 1; round < rounds; ++round) {
            const vector key = key_of(round);
            for (vector &block : v) block = decryption_round(block, key);
        }
        for (vector &block : v) {
            block = move(finish(decryption.last, invert(block)), decryption.row[0]) ^ key_of(rounds);
        }
    }

    static void encrypt_block(const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out)
    {
        const auto key_of = [=](int round) { return encryption_key(load_words(keys + 4 * round), round, rounds); };
        store(out, encrypt(load(in), rounds, key_of));
    }

    static void decrypt_block(const uint32_t *keys, int rounds, const uint8_t *in, uint8_t *out)
    {
        const auto key_of = [=](int round) { return decryption_key(load_words(keys + 4 * round), round, rounds); };
        vector block[] = {load(in)};
        decrypt(block, rounds, key_of);
        store(out, block[0]);
    }

    struct schedule {
        vector key[rounds_128 + 1];
    };

    /// The schedule of a 128-bit key, in bytes.
    static void expand(schedule &s, const uint8_t *key)
    {
        vector k = load(key);
        s.key[0] = k;
        for (int round = 1; round <= rounds_128; ++round) {
            const auto c = static_cast<uint8_t>(vela::aes::round_constants[round - 1]);
            const vector constant = {c, 0, 0, 0, c, 0, 0, 0, c, 0, 0, 0, c, 0, 0, 0};
            const vector word = substitute(move(k, key_schedule.last_word_rotated)) ^ constant;
            k ^= move(k, key_schedule.up_1); // each word takes up all before it
            k ^= move(k, key_schedule.up_2);
            s.key[round] = k ^= word;
        }
        vela::settle(s);
    }

    static vector doubled(vector v) { return v << 1 ^ ((vector)(v > 0x7f) & 0x1b); }

    static vector inverse_mix_columns(vector v)
    {
        const vector v2 = doubled(v);
        const vector v4 = doubled(v2);
        const vector v8 = doubled(v4);
        const vector v9 = v8 ^ v;
        return (v8 ^ v4 ^ v2) ^ move(v9 ^ v2, key_schedule.row[1]) ^ move(v9 ^ v4, key_schedule.row[2]) ^
               move(v9, key_schedule.row[3]);
    }

    static void cbc_encrypt(const uint8_t *key, const uint8_t *iv, uint8_t *data, size_t blocks)
    {
        vela::secret<schedule> s;
        expand(s.value, key);
        auto &k = s.value.key;
        for (int round = 0; round <= rounds_128; ++round) k[round] = encryption_key(k[round], round, rounds_128);

        vector chain = load(iv);
        for (; blocks != 0; --blocks, data += block_size) {
            chain = encrypt(chain ^ load(data), rounds_128, [&](int round) { return k[round]; });
            store(data, chain);
        }
    }

    static constexpr size_t abreast = 4;

    /// Decrypts the next N blocks of a chain and returns what the one after them is chained to.
    template <size_t N> static vector cbc_decrypt_next(schedule &s, vector previous, uint8_t *data)
    {
        vela::settle(s); // there are not registers enough: no key is to wait on the stack
        vector encrypted[N], v[N];
        for (size_t n = 0; n < N; ++n) v[n] = encrypted[n] = load(data + n * block_size);
        decrypt(v, rounds_128, [&](int round) { return s.key[round]; });
        for (size_t n = 0; n < N; ++n) store(data + n * block_size, v[n] ^ (n == 0 ? previous : encrypted[n - 1]));
        return encrypted[N - 1];
    }

    static void cbc_decrypt(const uint8_t *key, const uint8_t *iv, uint8_t *data, size_t blocks)
    {
        vela::secret<schedule> forward;
        expand(forward.value, key);
        vela::secret<schedule> s;
        auto &k = s.value.key;
        for (int round = 0; round <= rounds_128; ++round) {
            const vector from = forward.value.key[rounds_128 - round];
            const bool outer = round == 0 || round == rounds_128;
            k[round] = decryption_key(outer ? from : inverse_mix_columns(from), round, rounds_128);
        }

        vector previous = load(iv);
        for (; blocks >= abreast; blocks -= abreast, data += abreast * block_size) {
            previous = cbc_decrypt_next<abreast>(s.value, previous, data);
        }
        for (; blocks != 0; --blocks, data += block_size) previous = cbc_decrypt_next<1>(s.value, previous, data);
    }

    static constexpr engine self = {substitute_word, encrypt_block, decrypt_block, cbc_encrypt, cbc_decrypt};
};

} // namespace

namespace vela::aes
{

constexpr engine bytewise = cipher<by_byte>::self;

const engine &portable() { return by_instruction::works() ? cipher<by_instruction>::self : bytewise; }

} // namespace vela::aes
