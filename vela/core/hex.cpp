// Hexadecimal digits, written four bytes at a time, read pair by pair.

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <vela/core/crypto/block.h>
#include <vela/core/internal/text.h>
#include <vela/core/util.h>

namespace
{

enum class digits : char { upper = 'A', lower = 'a' };

constexpr char hex_digit(unsigned value, digits letters)
{
    return static_cast<char>(value < 10 ? '0' + value : static_cast<unsigned>(letters) + value - 10);
}

template <digits Letters> void write_hex_byte(char *out, uint8_t byte)
{
    out[0] = hex_digit(byte >> 4, Letters);
    out[1] = hex_digit(byte & 0xFU, Letters);
}

constexpr size_t word_size = 4;

/// Eight digits for four bytes at once: each nibble gets a byte to itself, and those above nine become letters.
template <digits Letters> void write_hex_word(char *out, const uint8_t *bytes)
{
    using words = uint32_t __attribute__((vector_size(sizeof(vela::byte_block))));
    constexpr uint8_t letters = static_cast<uint8_t>(Letters) - 10;

    uint32_t word;
    memcpy(&word, bytes, sizeof word);
    const auto four = reinterpret_cast<vela::byte_block>(words{word});
    const vela::byte_block nibbles =
        __builtin_shufflevector(four >> 4, four & 0x0F, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
    const vela::byte_block text = nibbles > 9 ? nibbles + letters : nibbles + '0';
    memcpy(out, &text, 2 * word_size);
}

template <digits Letters> void write_hex(char *out, const uint8_t *bytes, size_t count)
{
    if (!vela::has_blocks || count < word_size) {
        for (size_t i = 0; i < count; ++i) write_hex_byte<Letters>(out + 2 * i, bytes[i]);
        return;
    }
    // The last word is a whole one too: it takes once more what stands before the rest.
    const size_t last = count - word_size;
    for (size_t i = 0; i < last; i += word_size) write_hex_word<Letters>(out + 2 * i, bytes + i);
    write_hex_word<Letters>(out + 2 * last, bytes + last);
}

template <digits Letters> size_t hex_text(const uint8_t *bytes, size_t count, char *out, size_t size)
{
    if (!bytes || !out || size == 0 || count > (size - 1) / 2) return 0;
    write_hex<Letters>(out, bytes, count);
    const size_t length = 2 * count;
    out[length] = '\0';
    if (size > length + 1) memset(out + length, '\0', size - length); // as a rule the buffer is just right
    return count;
}

constexpr uint8_t no_digit = 16;
constexpr std::array<uint8_t, 256> hex_values = [] {
    std::array<uint8_t, 256> values{};
    values.fill(no_digit);
    for (uint8_t n = 0; n < 16; ++n) {
        values[static_cast<uint8_t>(hex_digit(n, digits::upper))] = n;
        values[static_cast<uint8_t>(hex_digit(n, digits::lower))] = n;
    }
    return values;
}();

unsigned hex_value(char c) { return hex_values[static_cast<uint8_t>(c)]; }

/// The pair at the start of a text that is not empty. What is not two digits is read as scanf reads it, blanks, signs
/// and all, from a copy: sscanf measures the whole of its text first.
std::optional<uint8_t> hex_pair(const char *text)
{
    const unsigned high = hex_value(text[0]);
    const unsigned low = high < no_digit ? hex_value(text[1]) : no_digit;
    if (low < no_digit) return static_cast<uint8_t>(high << 4 | low);

    while (vela::is_space(*text)) ++text;
    const char pair[] = {text[0], text[0] == '\0' ? '\0' : text[1], '\0'};
    unsigned value = 0;
    if (sscanf(pair, "%2x", &value) != 1) return std::nullopt;
    return static_cast<uint8_t>(value);
}

} // namespace

size_t uchar2hex(const uint8_t *bytes, size_t count, char *out, size_t size)
{
    return hex_text<digits::upper>(bytes, count, out, size);
}

size_t uchar2lowerhex(const uint8_t *bytes, size_t count, char *out, size_t size)
{
    return hex_text<digits::lower>(bytes, count, out, size);
}

size_t bin2hex(const uint8_t *bytes, size_t count, char *out, size_t size)
{
    if (!bytes || !out || count == 0 || size == 0) return 0;
    // On purpose: the last byte is not converted.
    const size_t converted = std::min(count - 1, (size - 1) / 2);
    if (converted == 0) return 0;
    write_hex<digits::lower>(out, bytes, converted);
    out[2 * converted] = '\0';
    return 2 * converted;
}

size_t hex2uchar(const char *text, uint8_t *out, size_t size)
{
    if (out && size != 0) memset(out, 0, size);
    if (!text || !out || *text == '\0') return 0;

    for (size_t n = 0; n < size && *text != '\0'; ++n) {
        const auto byte = hex_pair(text);
        if (!byte) break;
        out[n] = *byte;
        text += text[1] == '\0' ? 1 : 2;
    }
    return size;
}

int strtomac(const char *text, uint8_t mac[6])
{
    uint8_t fields[6];
    if (!text || !mac || vela::read_mac(text, fields) != 6) return -1;
    memcpy(mac, fields, sizeof fields);
    return 0;
}
