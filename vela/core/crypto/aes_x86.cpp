// AES with the instructions of x86-64 processors (AES-NI). The build compiles this file for them.

#if defined(__x86_64__)

#include <cpuid.h>
#include <vela/core/internal/aes_engine.h>
#include <wmmintrin.h>

namespace
{

using vela::byte_block;
using vela::aes::schedule;

struct instructions {
    static uint32_t substitute(uint32_t word)
    {
        // Four equal columns: the instruction's ShiftRows changes nothing.
        const __m128i columns = _mm_set1_epi32(static_cast<int>(word));
        return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_aesenclast_si128(columns, _mm_setzero_si128())));
    }
    static byte_block encrypt(byte_block block, const schedule &s, int rounds)
    {
        auto v = (__m128i)(block ^ s.key(0));
#pragma GCC unroll 10
        for (int round = 1; round < rounds; ++round) v = _mm_aesenc_si128(v, (__m128i)s.key(round));
        return (byte_block)_mm_aesenclast_si128(v, (__m128i)s.key(rounds));
    }
    template <size_t N> static void decrypt(byte_block (&block)[N], const schedule &s, int rounds)
    {
#pragma GCC unroll 8
        for (byte_block &v : block) v ^= s.key(0);
#pragma GCC unroll 10
        for (int round = 1; round < rounds; ++round) {
#pragma GCC unroll 8
            for (byte_block &v : block) v = (byte_block)_mm_aesdec_si128((__m128i)v, (__m128i)s.key(round));
        }
#pragma GCC unroll 8
        for (byte_block &v : block) v = (byte_block)_mm_aesdeclast_si128((__m128i)v, (__m128i)s.key(rounds));
    }
};

} // namespace

const vela::aes::engine *vela::aes::hardware()
{
    unsigned eax, ebx, ecx, edx;
    const bool has_aes = __get_cpuid(1, &eax, &ebx, &ecx, &edx) && (ecx & bit_AES);
    return has_aes ? &engine_of<instructions> : nullptr;
}

#endif
