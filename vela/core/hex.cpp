// Bytes as hexadecimal digits and back, MAC addresses among them.

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <vela/core/internal/text.h>
#include <vela/core/util.h>

namespace
{

constexpr char upper_digits[] = "0123456789ABCDEF";
constexpr char lower_digits[] = "0123456789abcdef";

/// Writes two digits a byte and a NUL.
void write_hex(char *out, const uint8_t *bytes, size_t count, const char *digits)
{
    for (size_t i = 0; i < count; ++i) {
        *out++ = digits[bytes[i] >> 4];
        *out++ = digits[bytes[i] & 0xFU];
    }
    *out = '\0';
}

size_t hex_text(const uint8_t *bytes, size_t count, char *out, size_t size, const char *digits)
{
    if (!bytes || !out || size == 0 || count > (size - 1) / 2) return 0;
    write_hex(out, bytes, count, digits);
    const size_t length = 2 * count;
    memset(out + length, '\0', size - length);
    return count;
}

constexpr uint8_t no_digit = 16;
constexpr std::array<uint8_t, 256> hex_values = [] {
    std::array<uint8_t, 256> values{};
    values.fill(no_digit);
    for (uint8_t n = 0; n < 16; ++n) {
        values[static_cast<uint8_t>(upper_digits[n])] = n;
        values[static_cast<uint8_t>(lower_digits[n])] = n;
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
    return hex_text(bytes, count, out, size, upper_digits);
}

size_t uchar2lowerhex(const uint8_t *bytes, size_t count, char *out, size_t size)
{
    return hex_text(bytes, count, out, size, lower_digits);
}

size_t bin2hex(const uint8_t *bytes, size_t count, char *out, size_t size)
{
    if (!bytes || !out || count == 0 || size == 0) return 0;
    // On purpose: the last byte is not converted.
    const size_t converted = std::min(count - 1, (size - 1) / 2);
    if (converted == 0) return 0;
    write_hex(out, bytes, converted, lower_digits);
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
