// Base64 in both alphabets: one encoder and one decoder. The decoder knows the letters of both at once and ends at any
// other byte.

#include <array>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstring>
#include <vela/core/crypto.h>

namespace
{

constexpr char standard_alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char url_alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

constexpr uint8_t no_letter = 64; // ends the text

/// The value of every byte as a letter.
constexpr auto values = [] {
    std::array<uint8_t, 256> table{};
    for (auto &value : table) value = no_letter;
    for (uint8_t value = 0; value < 64; ++value) {
        table[static_cast<uint8_t>(standard_alphabet[value])] = value;
        table[static_cast<uint8_t>(url_alphabet[value])] = value;
    }
    return table;
}();

uint32_t value_of(char c) { return values[static_cast<uint8_t>(c)]; }

int size_or_error(uint64_t size) { return size <= INT_MAX ? static_cast<int>(size) : -1; }

template <const char (&alphabet)[65], bool padded> void encode(char *out, const uint8_t *in, int n)
{
    const auto put = [&out](uint32_t bits) { *out++ = alphabet[bits & 63]; };
    for (; n >= 3; n -= 3, in += 3) {
        const uint32_t three = uint32_t{in[0]} << 16 | uint32_t{in[1]} << 8 | in[2];
        put(three >> 18);
        put(three >> 12);
        put(three >> 6);
        put(three);
    }
    if (n >= 1) {
        const uint32_t rest = uint32_t{in[0]} << 16 | (n == 2 ? uint32_t{in[1]} << 8 : 0);
        put(rest >> 18);
        put(rest >> 12);
        if (n == 2) put(rest >> 6);
        if (padded && n == 1) *out++ = '=';
        if (padded) *out++ = '=';
    }
    *out = '\0';
}

struct group {
    uint32_t bits;    // six a letter, the first letter's are bits 18 to 23
    uint32_t letters; // 0 to 4
};

/// The next letters, four at most. Reads nothing behind the first byte that is none.
inline group read_group(const char *s)
{
    uint32_t bits = 0;
    const auto take = [&](int i) {
        const uint32_t value = value_of(s[i]);
        if (value == no_letter) return false;
        bits |= value << (18 - 6 * i);
        return true;
    };
    if (!take(0)) return {bits, 0};
    if (!take(1)) return {bits, 1};
    if (!take(2)) return {bits, 2};
    if (!take(3)) return {bits, 3};
    return {bits, 4};
}

/// Three bytes in one store of four: the fourth is where the next byte or the NUL goes.
inline void put_bytes(uint8_t *out, uint32_t bits)
{
    const uint32_t word = std::endian::native == std::endian::little ? __builtin_bswap32(bits << 8) : bits << 8;
    memcpy(out, &word, sizeof word);
}

} // namespace

int base64_encode_len(int n) { return n < 0 ? 1 : size_or_error((uint64_t{static_cast<uint32_t>(n)} + 2) / 3 * 4 + 1); }

int base64url_encode_len(int n) { return base64_encode_len(n); }

void base64rfc_encode(char *out, const uint8_t *in, int n) { encode<standard_alphabet, true>(out, in, n); }

void base64url_encode(char *out, const uint8_t *in, int n) { encode<url_alphabet, false>(out, in, n); }

int base64_decode_len(const char *s)
{
    uint64_t count = 1; // the byte that ends the text counts
    while (value_of(*s++) != no_letter) ++count;
    return size_or_error((count + 2) / 4 * 3 + 1);
}

int base64url_decode_len(const char *s) { return base64_decode_len(s); }

void base64_decode(uint8_t *out, const char *s)
{
    group g;
    while ((g = read_group(s)).letters == 4) {
        put_bytes(out, g.bits);
        out += 3;
        s += 4;
    }
    if (g.letters >= 2) *out++ = static_cast<uint8_t>(g.bits >> 16);
    if (g.letters == 3) *out++ = static_cast<uint8_t>(g.bits >> 8);
    *out = 0;
}

void base64url_decode(uint8_t *out, const char *s) { base64_decode(out, s); }
