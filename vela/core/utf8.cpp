// UTF-8: how long a character is, and whether it may stand in a text. ASCII, most of what passes here, is walked in
// words. The NUL that ends a text is no continuation byte, so that no character is followed past it.

#include <array>
#include <bit>
#include <vela/core/internal/text.h>
#include <vela/core/util.h>

namespace
{

using word = uint64_t;
constexpr word high_bits = 0x8080808080808080;

constexpr uint8_t replacement = '?';
constexpr uint32_t surrogates_begin = 0xD800;
constexpr uint32_t surrogates_end = 0xE000;
constexpr uint32_t code_point_max = 0x10FFFF;

/// First code point that needs a form of so many bytes: below it the form is overlong.
constexpr std::array<uint32_t, 5> shortest{0, 0, 0x80, 0x800, 0x10000};

/// Bytes of the character that a byte begins, as it says itself; 1 also for bytes that begin none.
size_t announced_length(uint8_t lead)
{
    if (lead < 0xC0) return 1;
    if (lead < 0xE0) return 2;
    if (lead < 0xF0) return 3;
    return lead < 0xF8 ? 4 : 1;
}

bool is_continuation(uint8_t byte) { return (byte & 0xC0) == 0x80; }

bool is_continued(const uint8_t *at, size_t length)
{
    for (size_t i = 1; i < length; ++i) {
        if (!is_continuation(at[i])) return false;
    }
    return true;
}

uint32_t code_point(const uint8_t *at, size_t length)
{
    uint32_t code = at[0] & (0x7FU >> length);
    for (size_t i = 1; i < length; ++i) code = code << 6 | (at[i] & 0x3FU);
    return code;
}

bool is_character(uint32_t code, size_t length)
{
    const bool is_surrogate = code >= surrogates_begin && code < surrogates_end;
    return code >= shortest[length] && code <= code_point_max && !is_surrogate;
}

/// Number of ASCII bytes at the start.
size_t ascii_run(const uint8_t *text, size_t length)
{
    size_t n = 0;
    for (word w; length - n >= sizeof w; n += sizeof w) {
        memcpy(&w, text + n, sizeof w);
        const word high = w & high_bits;
        if (high == 0) continue;
        const int bits = std::endian::native == std::endian::little ? std::countr_zero(high) : std::countl_zero(high);
        return n + static_cast<size_t>(bits) / 8;
    }
    while (n < length && text[n] < 0x80) ++n;
    return n;
}

/// Makes the character at a byte outside ASCII valid; returns the bytes dealt with.
size_t clean_character(uint8_t *at)
{
    const size_t length = announced_length(*at);
    if (length == 1 || !is_continued(at, length)) {
        *at = replacement;
        return 1;
    }
    if (!is_character(code_point(at, length), length)) memset(at, replacement, length);
    return length;
}

} // namespace

size_t utf8_truncate_len(const char *text, size_t max_characters, size_t max_bytes)
{
    if (!text) return 0;
    const auto *bytes = reinterpret_cast<const uint8_t *>(text);
    const size_t end = strnlen(text, max_bytes);

    size_t n = 0;
    for (size_t left = max_characters; n < end && left != 0;) {
        if (const size_t plain = ascii_run(bytes + n, std::min(end - n, left)); plain != 0) {
            n += plain;
            left -= plain;
            continue;
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
    while (at < end) at += *at < 0x80 ? ascii_run(at, static_cast<size_t>(end - at)) : clean_character(at);
}
