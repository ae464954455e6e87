// Text as views inside, as NUL-terminated bytes at the boundary.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vela/core/api.h>

namespace vela
{

// substr() would draw in the C++ runtime's exception for a position past the end; these two cannot fail.
constexpr std::string_view first(std::string_view s, size_t n) { return {s.data(), std::min(n, s.size())}; }
constexpr std::string_view after(std::string_view s, size_t n)
{
    s.remove_prefix(std::min(n, s.size()));
    return s;
}

/// A view of a C text; null is empty.
constexpr std::string_view view(const char *s) { return s ? std::string_view{s} : std::string_view{}; }

/// A view of the text in a record's field, which may lack its NUL.
template <size_t N> std::string_view field(const char (&text)[N]) { return {text, strnlen(text, N)}; }

constexpr bool starts_with(std::string_view s, std::string_view prefix) { return first(s, prefix.size()) == prefix; }

// ASCII only, whatever the locale and the sign of char.
constexpr bool is_digit(char c) { return c >= '0' && c <= '9'; }
constexpr bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
constexpr bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
constexpr char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

/// Copies as much as fits and ends it with a NUL. A size of 0 writes nothing. Returns the bytes copied.
inline size_t copy_text(char *out, size_t size, std::string_view text)
{
    if (size == 0) return 0;
    const size_t n = std::min(text.size(), size - 1);
    if (n != 0) memcpy(out, text.data(), n);
    out[n] = '\0';
    return n;
}

template <size_t N> size_t copy_text(char (&out)[N], std::string_view text) { return copy_text(out, N, text); }

/// Formatted text on the stack, for paths, keys and commands of bounded length. Cut text says so: `fits()`.
template <size_t N> class formatted
{
public:
    explicit formatted(const char *format, ...) VELA_PRINTF(2, 3)
    {
        va_list args;
        va_start(args, format);
        length_ = vsnprintf(text_, N, format, args);
        va_end(args);
    }
    [[nodiscard]] bool fits() const { return length_ >= 0 && static_cast<size_t>(length_) < N; }
    [[nodiscard]] const char *c_str() const { return text_; }
    [[nodiscard]] std::string_view view() const { return {text_, strnlen(text_, N)}; }

private:
    char text_[N];
    int length_;
};

/// Reads the fields of a MAC address, colons between them, as far as they parse. Returns how many of the six did.
inline int read_mac(const char *text, uint8_t (&mac)[6])
{
    return sscanf(text, "%02hhx:%02hhx:%02hhx:%02hhx:%02hhx:%02hhx", &mac[0], &mac[1], &mac[2], &mac[3], &mac[4],
                  &mac[5]);
}

/// A MAC address as "02:56:4c:00:00:0a", the inverse of strtomac(). gateway_mac_to_str() is the same for programs.
class mac_text
{
public:
    explicit constexpr mac_text(const uint8_t *mac)
    {
        constexpr char digits[] = "0123456789abcdef";
        for (size_t i = 0; i < 6; ++i) {
            text_[3 * i] = digits[mac[i] >> 4];
            text_[3 * i + 1] = digits[mac[i] & 0xF];
            text_[3 * i + 2] = i == 5 ? '\0' : ':';
        }
    }
    [[nodiscard]] constexpr const char *c_str() const { return text_; }

private:
    char text_[18]{};
};

} // namespace vela
