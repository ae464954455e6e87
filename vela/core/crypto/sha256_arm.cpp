// SHA-256 with the instructions of 64-bit Arm processors. The build compiles this file for them.

#if defined(__aarch64__)

#include <arm_neon.h>
#include <sys/auxv.h>
#include <vela/core/internal/sha256.h>

namespace
{

constexpr unsigned long has_sha2 = 1 << 6; // HWCAP_SHA2, linux/arch/arm64/include/uapi/asm/hwcap.h

void compress(uint32_t state[8], const uint8_t *blocks, size_t count)
{
    uint32x4_t abcd = vld1q_u32(state);
    uint32x4_t efgh = vld1q_u32(state + 4);
    for (; count != 0; --count, blocks += vela::sha256::block_size) {
        const uint32x4_t abcd_before = abcd;
        const uint32x4_t efgh_before = efgh;
        uint32x4_t w[4]; // the last 16 words of the message schedule
#pragma GCC unroll 16
        for (int i = 0; i < 16; ++i) {
            uint32x4_t &next = w[i % 4];
            if (i < 4) {
                next = vreinterpretq_u32_u8(vrev32q_u8(vld1q_u8(blocks + 16 * i)));
            } else {
                next = vsha256su1q_u32(vsha256su0q_u32(next, w[(i + 1) % 4]), w[(i + 2) % 4], w[(i + 3) % 4]);
            }
            const uint32x4_t words = vaddq_u32(next, vld1q_u32(vela::sha256::constants + 4 * i));
            const uint32x4_t abcd_of_round = abcd;
            abcd = vsha256hq_u32(abcd, efgh, words);
            efgh = vsha256h2q_u32(efgh, abcd_of_round, words);
        }
        abcd = vaddq_u32(abcd, abcd_before);
        efgh = vaddq_u32(efgh, efgh_before);
    }
    vst1q_u32(state, abcd);
    vst1q_u32(state + 4, efgh);
}

} // namespace

vela::sha256::compressor vela::sha256::hardware() { return getauxval(AT_HWCAP) & has_sha2 ? compress : nullptr; }

#endif
