// Memory: what happens when it runs out, and who gives back what malloc gave.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>

namespace vela
{

/// Writes "SOURCE:LINE: Out of memory" to standard error and ends the process with status 1.
[[noreturn]] void out_of_memory(const char *source, int line);

/// A deleter that calls one function: `std::unique_ptr<FILE, releaser<close_stream>>`.
template <auto Release> struct releaser {
    template <class T> void operator()(T *held) const { Release(held); }
};

inline void free_memory(const void *block) { free(const_cast<void *>(block)); }

/// Text from malloc: what a caller will free() is released into its hands on the last line.
using c_string = std::unique_ptr<char, releaser<free_memory>>;

/// Any other block from malloc.
template <class T> using heap = std::unique_ptr<T, releaser<free_memory>>;

/// A zeroed record, or null.
template <class T> heap<T> make_zeroed() { return heap<T>{static_cast<T *>(calloc(1, sizeof(T)))}; }

} // namespace vela
