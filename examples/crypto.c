/* A message encrypted, carried as text, and back; and a digest. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <vela/core/crypto.h>

int main(void)
{
    const uint8_t key[16] = "a site's own key"; /* 16 bytes, without the NUL */
    uint8_t iv[16];
    uint8_t message[32] = "mesh-halt"; /* padded to whole blocks by the caller */

    if (aes_cbc_generate_iv(iv, sizeof iv) != sizeof iv) return 1;
    if (aes_cbc_encrypt_128(key, iv, message, sizeof message) != 0) return 1;
    char *text = malloc((size_t)base64url_encode_len(sizeof message));
    if (!text) return 1;
    base64url_encode(text, message, sizeof message);
    printf("encrypted: %s\n", text);

    uint8_t *bytes = malloc((size_t)base64_decode_len(text));
    if (!bytes) return 1;
    base64_decode(bytes, text);
    if (aes_cbc_decrypt_128(key, iv, bytes, sizeof message) != 0) return 1;
    printf("decrypted: %s\n", (const char *)bytes);

    uint8_t digest[32];
    sha256(bytes, (uint32_t)strlen((const char *)bytes), digest);
    printf("its digest begins with %02x%02x%02x%02x\n", digest[0], digest[1], digest[2], digest[3]);
    free(bytes);
    free(text);
    return 0;
}
