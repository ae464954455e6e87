// SHA-256 with the SHA extensions of x86-64 processors. The build compiles this file for them.

#if defined(__x86_64__)

#include <cpuid.h>
#include <immintrin.h>
#include <vela/core/internal/sha256.h>

namespace
{

inline __m128i load(const void *from) { return _mm_loadu_si128(static_cast<const __m128i *>(from)); }
inline void store(void *to, __m128i words) { _mm_storeu_si128(static_cast<__m128i *>(to), words); }

/// The instructions want the eight variables as a, b, e, f and c, d, g, h, the first of each on top.
struct variables {
    __m128i abef, cdgh;
};

inline variables load_variables(const uint32_t state[8])
{
    const __m128i badc = _mm_shuffle_epi32(load(state), 0xb1);
    const __m128i hgfe = _mm_shuffle_epi32(load(state + 4), 0x1b);
    return {_mm_alignr_epi8(badc, hgfe, 8), _mm_blend_epi16(hgfe, badc, 0xf0)};
}

inline void store_variables(uint32_t state[8], variables v)
{
    const __m128i feba = _mm_shuffle_epi32(v.abef, 0x1b);
    const __m128i dchg = _mm_shuffle_epi32(v.cdgh, 0xb1);
    store(state, _mm_blend_epi16(feba, dchg, 0xf0));
    store(state + 4, _mm_alignr_epi8(dchg, feba, 8));
}

inline void do_four_rounds(variables &v, __m128i words)
{
    v.cdgh = _mm_sha256rnds2_epu32(v.cdgh, v.abef, words);
    v.abef = _mm_sha256rnds2_epu32(v.abef, v.cdgh, _mm_shuffle_epi32(words, 0x0e));
}

void compress(uint32_t state[8], const uint8_t *blocks, size_t count)
{
    const __m128i swap = _mm_set_epi8(12, 13, 14, 15, 8, 9, 10, 11, 4, 5, 6, 7, 0, 1, 2, 3);
    variables v = load_variables(state);
    for (; count != 0; --count, blocks += vela::sha256::block_size) {
        const variables before = v;
        __m128i w[4]; // the last 16 words of the message schedule
#pragma GCC unroll 16
        for (int i = 0; i < 16; ++i) {
            __m128i &next = w[i % 4];
            if (i < 4) {
                next = _mm_shuffle_epi8(load(blocks + 16 * i), swap);
            } else {
                const __m128i seven_ago = _mm_alignr_epi8(w[(i + 3) % 4], w[(i + 2) % 4], 4);
                next = _mm_add_epi32(_mm_sha256msg1_epu32(next, w[(i + 1) % 4]), seven_ago);
                next = _mm_sha256msg2_epu32(next, w[(i + 3) % 4]);
            }
            do_four_rounds(v, _mm_add_epi32(next, load(vela::sha256::constants + 4 * i)));
        }
        v = {_mm_add_epi32(v.abef, before.abef), _mm_add_epi32(v.cdgh, before.cdgh)};
    }
    store_variables(state, v);
}

} // namespace

vela::sha256::compressor vela::sha256::hardware()
{
    unsigned eax, ebx, ecx, edx;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return nullptr;
    constexpr unsigned needed = bit_SSSE3 | bit_SSE4_1;
    if ((ecx & needed) != needed) return nullptr;
    if (!__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) return nullptr;
    return ebx & bit_SHA ? compress : nullptr;
}

#endif
