// Reading streams: what commands print, and files line by line. A signal handler without SA_RESTART, as event loops
// install for SIGCHLD, must not cut them short: everything here goes on after a signal.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

namespace vela
{

/// Makes a stream that a signal stopped usable again; false when it ended or failed.
inline bool only_interrupted(FILE *stream)
{
    if (!ferror(stream) || errno != EINTR) return false;
    clearerr(stream);
    return true;
}

/// As fread of bytes.
inline size_t read_through_signals(FILE *stream, char *out, size_t size)
{
    size_t length = fread(out, 1, size, stream);
    while (length < size && only_interrupted(stream)) length += fread(out + length, 1, size - length, stream);
    return length;
}

/// As getc.
inline int next_char(FILE *stream)
{
    int c;
    do {
        c = getc(stream);
    } while (c == EOF && only_interrupted(stream));
    return c;
}

/// As fgets: a line with its line feed, or as much of it as fits; the rest comes with the next call. Ended by a NUL,
/// and may hold others. Returns its bytes, 0 at the end.
inline size_t read_piece(FILE *stream, std::span<char> room)
{
    size_t length = 0;
    while (length < room.size() - 1 && (length == 0 || room[length - 1] != '\n')) {
        const int c = next_char(stream);
        if (c == EOF) break;
        room[length++] = static_cast<char>(c);
    }
    room[length] = '\0';
    return length;
}

/// A line, its line feed included, as far as its reader had room.
struct line {
    std::string_view text;
    bool is_whole;
};

/// The next line, or nothing at the end. Lies in the room, ended by a NUL; the rest of one that does not fit is
/// skipped.
inline std::optional<line> read_line(FILE *stream, std::span<char> room)
{
    const std::string_view text{room.data(), read_piece(stream, room)};
    if (text.empty()) return std::nullopt;
    if (text.back() == '\n') return line{text, true};
    int c = next_char(stream);
    const bool is_whole = c == EOF; // the last line needs no line feed
    while (c != EOF && c != '\n') c = next_char(stream);
    return line{text, is_whole};
}

/// The next line without its end, as a text that is cut to the room. False at the end.
inline bool read_text_line(FILE *stream, std::span<char> room)
{
    if (!read_line(stream, room)) return false;
    room[strcspn(room.data(), "\r\n")] = '\0';
    return true;
}

} // namespace vela
