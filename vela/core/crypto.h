/**
 * @file
 * Encodings and ciphers: Base64 in the standard and in the URL-safe alphabet, AES (FIPS 197) as a block cipher and,
 * with 128-bit keys, in CBC mode, and SHA-256 (FIPS 180-4).
 *
 * Callers bring every buffer and record; nothing is allocated, nothing is shared between calls. The processor's own
 * instructions are used where it has them. The time that a cipher takes does not depend on key or data.
 */
#ifndef VELA_CORE_CRYPTO_H
#define VELA_CORE_CRYPTO_H

#include <stddef.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Room for the Base64 text of n bytes with its NUL, in either alphabet.
 *
 * @return bytes to allocate; -1 when that does not fit an int (n beyond some 1.6 GB)
 */
VELA_API int base64_encode_len(int n);
VELA_API int base64url_encode_len(int n);

/**
 * Writes n bytes as text in the standard alphabet (RFC 4648, section 4), padded with "=", and a NUL.
 *
 * @param out  base64_encode_len(n) bytes of room
 */
VELA_API void base64rfc_encode(char *out, const uint8_t *in, int n);

/** The same in the URL-safe alphabet (RFC 4648, section 5), without padding. */
VELA_API void base64url_encode(char *out, const uint8_t *in, int n);

/**
 * Room for what base64_decode() writes for a text: its bytes and a NUL. An upper bound, not the decoded length.
 *
 * @return bytes to allocate; -1 when that does not fit an int
 */
VELA_API int base64_decode_len(const char *s);
VELA_API int base64url_decode_len(const char *s);

/**
 * Decodes a text written in either alphabet and puts a NUL behind the bytes.
 * Stops silently at the first other character: "=", a blank, a line end, the text's NUL. A last group of one character
 * carries no byte.
 *
 * @param out  base64_decode_len(s) bytes of room; may be the text itself
 */
VELA_API void base64_decode(uint8_t *out, const char *s);
VELA_API void base64url_decode(uint8_t *out, const char *s);

/**
 * Makes an initialisation vector of len random bytes, as gen_rand_bytes() does.
 *
 * @return len; 0 for a length of 0 or a null pointer
 */
VELA_API size_t aes_cbc_generate_iv(uint8_t *iv, uint32_t len);

/**
 * AES-128 in CBC mode over whole blocks, in place. Padding is the caller's: none is added, none is taken off.
 *
 * @param key   16 bytes
 * @param iv    16 bytes, left as they are
 * @param data  message, replaced by the result
 * @param len   its bytes, a multiple of 16; decryption wants at least 16
 * @return 0; -1 for another length, with the data left as it is
 */
VELA_API int aes_cbc_encrypt_128(const uint8_t key[16], const uint8_t iv[16], uint8_t *data, uint32_t len);
VELA_API int aes_cbc_decrypt_128(const uint8_t key[16], const uint8_t iv[16], uint8_t *data, uint32_t len);

/** Words of the longest key schedule, that of 14 rounds. */
#define RIJNDAEL_KEY_WORDS 60

typedef struct rijndael_ctx rijndael_ctx;

/** AES key schedules. They are as secret as the key: wipe the record after use. */
struct rijndael_ctx {
    int32_t enc_only;                /**< 1: only ek is there; 0: both */
    int32_t rounds;                  /**< 10, 12 or 14 */
    uint32_t ek[RIJNDAEL_KEY_WORDS]; /**< round keys for encryption */
    uint32_t dk[RIJNDAEL_KEY_WORDS]; /**< round keys for decryption, in order of use */
};

/**
 * Prepares a key for rijndael_encrypt(), or for both directions.
 *
 * @param key   bits / 8 bytes
 * @param bits  128, 192 or 256
 * @return 0; -1 for another key size
 */
VELA_API int rijndael_set_key_enc_only(rijndael_ctx *ctx, const uint8_t *key, int bits);
VELA_API int rijndael_set_key(rijndael_ctx *ctx, const uint8_t *key, int bits);

/** One block; in and out may be the same. */
VELA_API void rijndael_encrypt(const rijndael_ctx *ctx, const uint8_t in[16], uint8_t out[16]);

/** One block, with a key from rijndael_set_key(); in and out may be the same. */
VELA_API void rijndael_decrypt(const rijndael_ctx *ctx, const uint8_t in[16], uint8_t out[16]);

/**
 * Makes a key schedule: for encryption the words of FIPS 197, section 5.2, for decryption those of the equivalent
 * inverse cipher, in order of use. Words hold their first byte on top.
 *
 * @param rk    receives 4 words a round and 4 more, at most RIJNDAEL_KEY_WORDS
 * @param key   bits / 8 bytes
 * @param bits  128, 192 or 256
 * @return the rounds: 10, 12 or 14; 0 for another key size, with rk left as it is
 */
VELA_API int rijndaelKeySetupEnc(uint32_t rk[], const uint8_t *key, int bits);
VELA_API int rijndaelKeySetupDec(uint32_t rk[], const uint8_t *key, int bits);

/** Encrypts one block with a schedule from rijndaelKeySetupEnc() and its rounds; in and out may be the same. */
VELA_API void rijndaelEncrypt(const uint32_t rk[], int rounds, const uint8_t in[16], uint8_t out[16]);

typedef struct sha256_ctx sha256_ctx;

/** A message on its way to its digest; the fields are private. */
struct sha256_ctx {
    uint32_t state[8];
    uint64_t bits; /**< of the message so far */
    uint8_t block[64];
};

/** SHA-256 in three steps: begin, take any number of pieces of any length, and end. The end wipes the record. */
VELA_API void sha256_init(sha256_ctx *ctx);
VELA_API void sha256_update(sha256_ctx *ctx, const uint8_t *data, uint32_t len);
VELA_API void sha256_final(sha256_ctx *ctx, uint8_t digest[32]);

/** SHA-256 in one call. */
VELA_API void sha256(const uint8_t *data, uint32_t len, uint8_t digest[32]);

#ifdef __cplusplus
}
#endif

#endif
