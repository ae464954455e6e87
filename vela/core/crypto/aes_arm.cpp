// AES with the instructions of 64-bit Arm processors. The build compiles this file for them.

#if defined(__aarch64__)

#include <arm_neon.h>
#include <sys/auxv.h>
#include <vela/core/internal/aes_engine.h>

namespace
{

using vela::byte_block;
using vela::aes::schedule;

constexpr unsigned long has_aes = 1 << 3; // HWCAP_AES, linux/arch/arm64/include/uapi/asm/hwcap.h

// The instructions add a round key before the substitution, not after the mixing.
struct instructions {
    static uint32_t substitute(uint32_t word)
    {
        // Four equal columns: the instruction's ShiftRows changes nothing.
        const uint8x16_t columns = vreinterpretq_u8_u32(vdupq_n_u32(word));
        return vgetq_lane_u32(vreinterpretq_u32_u8(vaeseq_u8(columns, vdupq_n_u8(0))), 0);
    }
    static byte_block encrypt(byte_block block, const schedule &s, int rounds)
    {
        auto v = (uint8x16_t)block;
#pragma GCC unroll 10
        for (int round = 0; round < rounds - 1; ++round) v = vaesmcq_u8(vaeseq_u8(v, (uint8x16_t)s.key(round)));
        return (byte_block)vaeseq_u8(v, (uint8x16_t)s.key(rounds - 1)) ^ s.key(rounds);
    }
    template <size_t N> static void decrypt(byte_block (&block)[N], const schedule &s, int rounds)
    {
#pragma GCC unroll 10
        for (int round = 0; round < rounds - 1; ++round) {
#pragma GCC unroll 8
            for (byte_block &v : block) v = (byte_block)vaesimcq_u8(vaesdq_u8((uint8x16_t)v, (uint8x16_t)s.key(round)));
        }
#pragma GCC unroll 8
        for (byte_block &v : block)
            v = (byte_block)vaesdq_u8((uint8x16_t)v, (uint8x16_t)s.key(rounds - 1)) ^ s.key(rounds);
    }
};

} // namespace

const vela::aes::engine *vela::aes::hardware()
{
    return getauxval(AT_HWCAP) & has_aes ? &engine_of<instructions> : nullptr;
}

#endif
