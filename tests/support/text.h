// Texts that many tests need.
//   letters(n)      n letters, "abc...zabc...": any shift, gap or repetition shows
//   reason(ENOENT)  "2/No such file or directory", as many log lines end
#pragma once

#include <cstring>
#include <string>

inline std::string letters(size_t n)
{
    std::string text(n, 'a');
    for (size_t i = 0; i < n; ++i) text[i] = static_cast<char>('a' + i % 26);
    return text;
}

inline std::string reason(int error) { return std::to_string(error) + "/" + strerror(error); }
