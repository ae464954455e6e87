// Sixteen bytes worked on at once, with the compiler's vectors: arithmetic and comparisons byte by byte, a comparison
// giving all ones or all zeros for each byte.
#pragma once

#include <cstdint>
#include <cstring>

namespace vela
{

using byte_block = uint8_t __attribute__((vector_size(16)));

/// Whether the processor has such registers; where not, the compiler takes blocks apart again, and plain code is
/// faster.
#if defined(__SSE2__) || defined(__ARM_NEON)
inline constexpr bool has_blocks = true;
#else
inline constexpr bool has_blocks = false;
#endif

inline byte_block load_block(const uint8_t *at)
{
    byte_block bytes;
    memcpy(&bytes, at, sizeof bytes);
    return bytes;
}

} // namespace vela
