// UTF-8: how long a character is, and whether it may stand in a text. ASCII is passed over eight bytes at a time. The
// NUL that ends a text is no continuation byte, so no character is followed past it.

#include <array>
#include <bit>
#include <vela/core/internal/text.h>
#include <vela/core/util.h>

namespace
{

constexpr uint8_t replacement = '?';
constexpr uint32_t surrogates_begin = 0xD800;
constexpr uint32_t surrogates_end = 0xE000;
constexpr uint32_t code_point_max = 0x10FFFF;

/// First code point that needs a form of so many bytes: below it the form is overlong.
constexpr std::array<uint32_t, 5> shortest{0, 0, 0x80, 0x800, 0x10000};

constexpr size_t word = sizeof(uint64_t);

/// How many of the eight bytes at a place are ASCII, before the first that is not.
size_t leading_ascii(const uint8_t *at)
{
    uint64_t top_bits;
    memcpy(&top_bits, at, sizeof top_bits);
    top_bits &= 0x8080808080808080;
    if (std::endian::native == std::endian::big) top_bits = __builtin_bswap64(top_bits);
    return static_cast<size_t>(std::countr_zero(top_bits)) / 8;
}

/// Bytes of the character that a byte begins, as it says itself; 1 also for bytes that begin none.
size_t announced_length(uint8_t lead)
{
    if (lead < 0xC0) return 1;
    if (lead < 0xE0) return 2;
    if (lead < 0xF0) return 3;
    return lead < 0xF8 ? 4 : 1;
}

bool is_continuation(uint8_t byte) { return (byte & 0xC0) == 0x80; }

inline bool is_continued(const uint8_t *at, size_t length)
{
    for (size_t i = 1; i < length; ++i) {
        if (!is_continuation(at[i])) return false;
    }
    return true;
}

/// Makes a character of so many bytes valid; returns the bytes dealt with.
template <size_t Length> size_t clean_form(uint8_t *at)
{
    if (!is_continued(at, Length)) {
        *at = replacement;
        return 1;
    }
    uint32_t code = *at & (0x7FU >> Length);
    for (size_t i = 1; i < Length; ++i) code = code << 6 | (at[i] & 0x3FU);
    const bool is_surrogate = code >= surrogates_begin && code < surrogates_end;
    if (code < shortest[Length] || code > code_point_max || is_surrogate) memset(at, replacement, Length);
    return Length;
}

/// The same for the character at any byte outside ASCII.
size_t clean_character(uint8_t *at)
{
    switch (announced_length(*at)) {
    case 2: return clean_form<2>(at);
    case 3: return clean_form<3>(at);
    case 4: return clean_form<4>(at);
    default: *at = replacement; return 1;
    }
}

} // namespace

size_t utf8_truncate_len(const char *text, size_t max_characters, size_t max_bytes)
{
    if (!text) return 0;
    const auto *bytes = reinterpret_cast<const uint8_t *>(text);
    const size_t end = strnlen(text, max_bytes);

    size_t n = 0;
    for (size_t left = max_characters; n < end && left != 0;) {
        if (end - n >= word && left >= word) {
            const size_t ascii = leading_ascii(bytes + n);
            n += ascii;
            left -= ascii;
            if (ascii == word) continue;
        }
        // The limit comes first: what announces more than fits ends the text, even where one byte of it would be
        // counted.
        const size_t length = announced_length(bytes[n]);
        if (length > max_bytes - n) break;
        n += is_continued(bytes + n, length) ? length : 1;
        --left;
    }
    return n;
}

void utf8_sanitize(char *text)
{
    if (!text) return;
    auto *at = reinterpret_cast<uint8_t *>(text);
    const uint8_t *const end = at + strlen(text);
    while (at < end) {
        if (*at >= 0x80) {
            at += clean_character(at);
        } else {
            at += static_cast<size_t>(end - at) >= word ? leading_ascii(at) : 1;
        }
    }
}
