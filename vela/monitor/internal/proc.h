// /proc as this room reads it: small files by directory descriptor, the numbers among a directory's names, and the
// words of a text. Nothing is allocated.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <sys/types.h>
#include <vela/core/internal/text.h>

namespace vela::proc
{

/// "PID/FILE", without the cost of printf.
class path
{
public:
    path(std::string_view number, std::string_view file)
    {
        const size_t n = copy_text(text_, first(number, sizeof text_ / 2)); // no number has so many digits
        text_[n] = '/';
        copy_text(text_ + n + 1, sizeof text_ - n - 1, file);
    }
    [[nodiscard]] const char *c_str() const { return text_; }

private:
    char text_[32];
};

/// Reads a file once, as far as it fits: the kernel writes such a file in one piece. Its length, or a negative errno.
ssize_t read_at(int directory, const char *path, std::span<char> into);

/// True for what an entry's end, or the want of a right to it, makes calls fail with; anything else is a fault of ours.
bool gone(int error);
bool hidden(int error);

/// The entries of a directory that are numbers: processes in /proc, descriptors in /proc/PID/fd.
class numbered_entries
{
public:
    explicit numbered_entries(int directory) : directory_{directory} {} ///< borrowed, at its beginning
    /// The next one's name, valid until the next call; null at the end.
    const char *next();
    [[nodiscard]] int error() const { return error_; } ///< 0, or the negative errno that ended the walk

private:
    bool refill();

    int directory_;
    int error_ = 0;
    size_t at_ = 0;
    size_t size_ = 0;
    alignas(8) char block_[1024];
};

/// The words of a text, parted by blanks and line ends.
class words
{
public:
    explicit words(std::string_view text) : rest_{text} {}

    /// "" at the end.
    std::string_view next()
    {
        size_t begin = 0;
        while (begin < rest_.size() && is_space(rest_[begin])) ++begin;
        size_t end = begin;
        while (end < rest_.size() && !is_space(rest_[end])) ++end;
        const std::string_view word = first(after(rest_, begin), end - begin);
        rest_ = after(rest_, end);
        return word;
    }
    void skip(unsigned count)
    {
        while (count-- != 0) (void)next();
    }
    /// The next word as a decimal number; nothing when it is none, or too large.
    template <class Number> std::optional<Number> number()
    {
        const std::string_view word = next();
        Number value;
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
        if (error != std::errc{} || end != word.data() + word.size()) return std::nullopt;
        return value;
    }

private:
    std::string_view rest_;
};

} // namespace vela::proc
