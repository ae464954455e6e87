// Sixteen bytes worked on at once, with the compiler's vectors: arithmetic and comparisons byte by byte, a comparison
// giving all ones or all zeros for each byte. Without such registers the compiler takes them apart again: slow, and
// the same results.
#pragma once

#include <cstdint>
#include <cstring>

namespace vela
{

using byte_block = uint8_t __attribute__((vector_size(16)));

inline byte_block load_block(const void *at)
{
    byte_block bytes;
    memcpy(&bytes, at, sizeof bytes);
    return bytes;
}

inline void store_block(void *at, byte_block bytes) { memcpy(at, &bytes, sizeof bytes); }

} // namespace vela
