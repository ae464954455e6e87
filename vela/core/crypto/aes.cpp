// AES for callers: the choice of an engine, once, and what it is to do.
//
// Engines, in the order in which they are taken: the processor's own AES instructions (aes_x86.cpp, aes_arm.cpp) where
// it has them, else the portable one (aes_portable.cpp). There are no others.

#include <atomic>
#include <cstddef>
#include <vela/core/crypto.h>
#include <vela/core/internal/aes.h>
#include <vela/core/internal/secret.h>
#include <vela/core/util.h>

static_assert(sizeof(rijndael_ctx) == 488 && offsetof(rijndael_ctx, ek) == 8 && offsetof(rijndael_ctx, dk) == 248);

namespace
{

using vela::aes::block_size;
using vela::aes::engine;

/// The best engine of this processor: found at first use and kept. Threads that come first together find the same one.
constinit std::atomic<const engine *> found{nullptr};

const engine &best()
{
    const engine *e = found.load(std::memory_order_relaxed);
    if (e) return *e;
    e = vela::aes::hardware();
    if (!e) e = &vela::aes::portable;
    found.store(e, std::memory_order_relaxed);
    return *e;
}

} // namespace

int rijndaelKeySetupEnc(uint32_t rk[], const uint8_t *key, int bits)
{
    return vela::aes::expand_key(best(), rk, key, bits);
}

int rijndaelKeySetupDec(uint32_t rk[], const uint8_t *key, int bits)
{
    vela::secret<uint32_t[RIJNDAEL_KEY_WORDS]> ek;
    const int rounds = rijndaelKeySetupEnc(ek.value, key, bits);
    if (rounds != 0) vela::aes::invert_keys(ek.value, rk, rounds);
    return rounds;
}

void rijndaelEncrypt(const uint32_t rk[], int rounds, const uint8_t in[16], uint8_t out[16])
{
    best().encrypt(rk, rounds, in, out);
}

int rijndael_set_key_enc_only(rijndael_ctx *ctx, const uint8_t *key, int bits)
{
    const int rounds = rijndaelKeySetupEnc(ctx->ek, key, bits);
    if (rounds == 0) return -1;
    ctx->rounds = rounds;
    ctx->enc_only = 1;
    return 0;
}

int rijndael_set_key(rijndael_ctx *ctx, const uint8_t *key, int bits)
{
    if (rijndael_set_key_enc_only(ctx, key, bits) != 0) return -1;
    vela::aes::invert_keys(ctx->ek, ctx->dk, ctx->rounds);
    ctx->enc_only = 0;
    return 0;
}

void rijndael_encrypt(const rijndael_ctx *ctx, const uint8_t in[16], uint8_t out[16])
{
    best().encrypt(ctx->ek, ctx->rounds, in, out);
}

void rijndael_decrypt(const rijndael_ctx *ctx, const uint8_t in[16], uint8_t out[16])
{
    best().decrypt(ctx->dk, ctx->rounds, in, out);
}

size_t aes_cbc_generate_iv(uint8_t *iv, uint32_t len) { return gen_rand_bytes(iv, len); }

int aes_cbc_encrypt_128(const uint8_t key[16], const uint8_t iv[16], uint8_t *data, uint32_t len)
{
    if (len % block_size != 0) return -1;
    vela::secret<uint32_t[RIJNDAEL_KEY_WORDS]> keys;
    rijndaelKeySetupEnc(keys.value, key, 128);
    best().cbc_encrypt(keys.value, iv, data, len / block_size);
    return 0;
}

int aes_cbc_decrypt_128(const uint8_t key[16], const uint8_t iv[16], uint8_t *data, uint32_t len)
{
    // On purpose: nothing to decrypt is an error, although nothing to encrypt is none.
    if (len == 0 || len % block_size != 0) return -1;
    vela::secret<uint32_t[RIJNDAEL_KEY_WORDS]> keys;
    rijndaelKeySetupDec(keys.value, key, 128);
    best().cbc_decrypt(keys.value, iv, data, len / block_size);
    return 0;
}
