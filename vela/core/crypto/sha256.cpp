// SHA-256 of FIPS 180-4 for callers: a message in blocks, and the choice of what compresses them.

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <vela/core/crypto.h>
#include <vela/core/internal/secret.h>
#include <vela/core/internal/sha256.h>

namespace
{

using vela::sha256::block_size;
using vela::sha256::compressor;

static_assert(sizeof(sha256_ctx::block) == block_size);

/// The first 32 bits of the fractional parts of the square roots of the first 8 primes.
constexpr uint32_t initial_state[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                       0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

constexpr size_t length_place = block_size - 8; // where the message's length stands in its last block

/// The best compressor of this processor: found at first use and kept. Threads that come first together find the same.
constinit std::atomic<compressor> found{nullptr};

compressor best()
{
    compressor c = found.load(std::memory_order_relaxed);
    if (c) return c;
    c = vela::sha256::hardware();
    if (!c) c = vela::sha256::compress_portably;
    found.store(c, std::memory_order_relaxed);
    return c;
}

void store_word(uint8_t *to, uint32_t word)
{
    if (std::endian::native == std::endian::little) word = __builtin_bswap32(word);
    memcpy(to, &word, sizeof word);
}

} // namespace

void sha256_init(sha256_ctx *ctx)
{
    memcpy(ctx->state, initial_state, sizeof initial_state);
    ctx->bits = 0;
}

void sha256_update(sha256_ctx *ctx, const uint8_t *data, uint32_t len)
{
    if (len == 0) return;
    const size_t held = ctx->bits / 8 % block_size;
    ctx->bits += uint64_t{len} * 8;
    size_t rest = len;

    if (held != 0) {
        const size_t n = std::min(rest, block_size - held);
        memcpy(ctx->block + held, data, n);
        if (held + n < block_size) return;
        best()(ctx->state, ctx->block, 1);
        data += n;
        rest -= n;
    }
    const size_t blocks = rest / block_size;
    if (blocks != 0) best()(ctx->state, data, blocks);
    memcpy(ctx->block, data + blocks * block_size, rest % block_size);
}

void sha256_final(sha256_ctx *ctx, uint8_t digest[32])
{
    size_t held = ctx->bits / 8 % block_size;
    ctx->block[held++] = 0x80;
    if (held > length_place) {
        memset(ctx->block + held, 0, block_size - held);
        best()(ctx->state, ctx->block, 1);
        held = 0;
    }
    memset(ctx->block + held, 0, length_place - held);
    store_word(ctx->block + length_place, static_cast<uint32_t>(ctx->bits >> 32));
    store_word(ctx->block + length_place + 4, static_cast<uint32_t>(ctx->bits));
    best()(ctx->state, ctx->block, 1);

    for (int i = 0; i < 8; ++i) store_word(digest + 4 * i, ctx->state[i]);
    explicit_bzero(ctx, sizeof *ctx); // what was hashed may have been a secret
}

void sha256(const uint8_t *data, uint32_t len, uint8_t digest[32])
{
    sha256_ctx ctx;
    sha256_init(&ctx);
    sha256_update(&ctx, data, len);
    sha256_final(&ctx, digest);
}
