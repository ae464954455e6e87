// UTF-8: how long a character is, and whether it may stand in a text. Sound text is walked sixteen bytes at a time;
// only around a fault, and at the ends, is it taken character by character. The NUL that ends a text is no continuation
// byte, so no character is followed past it.

#include <array>
#include <vela/core/crypto/block.h>
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

bool is_ascii_word(const uint8_t *at)
{
    uint64_t word;
    memcpy(&word, at, sizeof word);
    return (word & 0x8080808080808080) == 0;
}

bool is_ascii_block(const uint8_t *at) { return is_ascii_word(at) && is_ascii_word(at + sizeof(uint64_t)); }

/// Whether a block is sound, given sound text before it: a character may have begun there and may end behind the block.
/// The Unicode Standard, table 3-7, column by column.
bool is_sound_block(const uint8_t *at)
{
    const vela::byte_block now = vela::load_block(at);
    const vela::byte_block one_before = vela::load_block(at - 1);
    const vela::byte_block two_before = vela::load_block(at - 2);
    const vela::byte_block three_before = vela::load_block(at - 3);

    const auto continues = (now & 0xC0) == 0x80;
    const auto must_continue = (one_before >= 0xC0) | (two_before >= 0xE0) | (three_before >= 0xF0);
    const auto never_begins = ((now & 0xFE) == 0xC0) | (now >= 0xF5);
    const auto overlong = ((one_before == 0xE0) & (now < 0xA0)) | ((one_before == 0xF0) & (now < 0x90));
    const auto surrogate = (one_before == 0xED) & (now >= 0xA0);
    const auto beyond = (one_before == 0xF4) & (now >= 0x90);

    const auto faults = (continues ^ must_continue) | never_begins | overlong | surrogate | beyond;
    uint64_t halves[2];
    memcpy(halves, &faults, sizeof halves);
    return (halves[0] | halves[1]) == 0;
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

/// From a place where a character may begin, up to `until` at least; returns the next such place.
uint8_t *clean(uint8_t *at, const uint8_t *until)
{
    while (at < until) at += *at < 0x80 ? 1 : clean_character(at);
    return at;
}

/// Where the last character before a place begins, in text that is sound up to there.
uint8_t *last_character(uint8_t *at)
{
    do {
        --at;
    } while (is_continuation(*at));
    return at;
}

} // namespace

size_t utf8_truncate_len(const char *text, size_t max_characters, size_t max_bytes)
{
    if (!text) return 0;
    const auto *bytes = reinterpret_cast<const uint8_t *>(text);
    const size_t end = strnlen(text, max_bytes);
    constexpr size_t word = sizeof(uint64_t);

    size_t n = 0;
    for (size_t left = max_characters; n < end && left != 0;) {
        if (end - n >= word && left >= word && is_ascii_word(bytes + n)) {
            n += word;
            left -= word;
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
    if (!text || *text == '\0') return;
    auto *begin = reinterpret_cast<uint8_t *>(text);
    const uint8_t *const end = begin + strlen(text);

    uint8_t *at = clean(begin, std::min<const uint8_t *>(begin + 3, end)); // a block looks back three bytes
    while (vela::has_blocks && static_cast<size_t>(end - at) >= sizeof(vela::byte_block)) {
        const uint8_t *const next = at + sizeof(vela::byte_block);
        const bool is_sound = (at[-1] < 0x80 && is_ascii_block(at)) || is_sound_block(at);
        at = is_sound ? at + sizeof(vela::byte_block) : clean(last_character(at), next);
    }
    clean(last_character(at), end);
}
