/**
 * @file
 * Base64, in the standard and in the URL-safe alphabet. Callers bring every buffer; nothing is allocated and nothing
 * fails.
 */
#ifndef VELA_CORE_CRYPTO_H
#define VELA_CORE_CRYPTO_H

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

#ifdef __cplusplus
}
#endif

#endif
