// Reading what a command prints. A signal handler without SA_RESTART, as event loops install for SIGCHLD, must not cut
// it short: these go on after a signal.
#pragma once

#include <cerrno>
#include <cstdio>

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

/// As fgets; false at the end.
template <size_t size> bool line_through_signals(FILE *stream, char (&line)[size])
{
    size_t length = 0;
    while (length < size - 1 && (length == 0 || line[length - 1] != '\n')) {
        const int c = getc(stream);
        if (c != EOF) {
            line[length++] = static_cast<char>(c);
        } else if (!only_interrupted(stream)) {
            break;
        }
    }
    line[length] = '\0';
    return length != 0;
}

} // namespace vela
