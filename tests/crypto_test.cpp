#include "tests/support/faults.h"
#include "tests/support/table.h"

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <random>
#include <string>
#include <vela/core/crypto.h>
#include <vela/core/internal/aes.h>
#include <vela/core/internal/sha256.h>

namespace
{

using bytes = std::vector<uint8_t>;

bytes random_bytes(size_t n)
{
    static std::mt19937_64 dice{20240229};
    bytes some(n);
    for (auto &byte : some) byte = static_cast<uint8_t>(dice());
    return some;
}

bytes from_hex(const std::string &hex)
{
    bytes out(hex.size() / 2);
    size_t n = 0;
    EXPECT_EQ(1, OPENSSL_hexstr2buf_ex(out.data(), out.size(), &n, hex.c_str(), '\0'));
    return out;
}

/// Every AES that can run here: what the library chooses comes first.
std::vector<const vela::aes::engine *> engines()
{
    std::vector all = {&vela::aes::portable};
    if (vela::aes::hardware()) all.insert(all.begin(), vela::aes::hardware());
    return all;
}

/// A message's way there and back: through the library's choice, and in every engine, where no alignment is asked for.
void expect_cbc(const bytes &key, const bytes &iv, const bytes &plain, const bytes &cipher)
{
    const auto size = static_cast<uint32_t>(plain.size());
    rijndael_ctx keys;
    rijndael_set_key(&keys, key.data(), 128);
    bytes data = plain;
    EXPECT_EQ(0, aes_cbc_encrypt_128(key.data(), iv.data(), data.data(), size));
    EXPECT_EQ(cipher, data);
    EXPECT_EQ(0, aes_cbc_decrypt_128(key.data(), iv.data(), data.data(), size));
    EXPECT_EQ(plain, data);
    data.insert(data.begin(), 0);
    for (const auto *engine : engines()) {
        engine->cbc_encrypt(keys.ek, iv.data(), &data[1], size / 16);
        EXPECT_EQ(cipher, bytes(data.begin() + 1, data.end()));
        engine->cbc_decrypt(keys.dk, iv.data(), &data[1], size / 16);
        EXPECT_EQ(plain, bytes(data.begin() + 1, data.end()));
    }
}

/// A whole message's digest, taken in pieces of some size.
template <class Text> bytes digest_of(const Text &message, size_t piece, size_t times = 1)
{
    const auto *data = reinterpret_cast<const uint8_t *>(message.data());
    sha256_ctx ctx;
    sha256_init(&ctx);
    for (; times > 0; --times) {
        for (size_t at = 0; at < message.size(); at += piece)
            sha256_update(&ctx, data + at, static_cast<uint32_t>(std::min(piece, message.size() - at)));
    }
    bytes digest(32);
    sha256_final(&ctx, digest.data());
    return digest;
}

} // namespace

// What is no letter ends a text: the fuzz target compares that with a decoder of single bits.
TEST(Base64, AgreesWithOpenSslAtEveryLength)
{
    for (int n = 0; n <= 200; ++n) {
        bytes in = random_bytes(static_cast<size_t>(n));
        std::string expected(static_cast<size_t>(n + 2) / 3 * 4, '#');
        EVP_EncodeBlock(reinterpret_cast<uint8_t *>(expected.data()), in.data(), n);
        std::vector<char> text(static_cast<size_t>(base64_encode_len(n))); // exact, for the sanitizer
        base64rfc_encode(text.data(), in.data(), n);
        EXPECT_EQ(expected, text.data());
        std::replace(expected.begin(), expected.end(), '+', '-');
        std::replace(expected.begin(), expected.end(), '/', '_');
        std::vector<char> url_text(text.size());
        base64url_encode(url_text.data(), in.data(), n);
        EXPECT_EQ(expected.substr(0, expected.find('=')), url_text.data());

        in.push_back(0);
        base64_decode(reinterpret_cast<uint8_t *>(text.data()), text.data());
        EXPECT_EQ(0, memcmp(in.data(), text.data(), in.size())) << "in place";
        base64url_decode(reinterpret_cast<uint8_t *>(url_text.data()), url_text.data());
        EXPECT_EQ(0, memcmp(in.data(), url_text.data(), in.size()));
    }
}

TEST(Base64, LengthsThatDoNotFitAreErrors)
{
    for (const auto &[n, room] : {std::pair{0, 1}, {4, 9}, {1610612733, 2147483645}, {1610612734, -1}}) {
        EXPECT_EQ(room, base64_encode_len(n)) << n;
        EXPECT_EQ(room, base64url_encode_len(n)) << n;
    }
    EXPECT_EQ(1, base64_decode_len("="));
    EXPECT_EQ(4, base64_decode_len("QUJD"));
    EXPECT_EQ(7, base64url_decode_len("AAAAA\xff+/-_"));
}

TEST(Aes, BlocksAndSchedulesOfTheStandard)
{
    // FIPS 197, appendix C.
    const bytes plain = from_hex("00112233445566778899aabbccddeeff");
    const bytes key = from_hex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
    const table<int, int, const char *> cases = {
        {128, 10, "69c4e0d86a7b0430d8cdb78070b4c55a"},
        {192, 12, "dda97ca4864cdfe06eaf70a0ec0d7191"},
        {256, 14, "8ea2b7ca516745bfeafc49904b496089"},
    };
    for (const auto &[bits, rounds, cipher] : cases) {
        rijndael_ctx ctx = {};
        ASSERT_EQ(0, rijndael_set_key(&ctx, key.data(), bits));
        EXPECT_EQ(0, ctx.enc_only);
        EXPECT_EQ(rounds, ctx.rounds);
        EXPECT_TRUE(bits != 128 || ctx.dk[4] == 0x13aa29be) << "inner decryption keys went through InvMixColumns";
        bytes block = plain;
        rijndael_encrypt(&ctx, block.data(), block.data());
        EXPECT_EQ(from_hex(cipher), block) << bits;
        rijndael_decrypt(&ctx, block.data(), block.data());
        EXPECT_EQ(plain, block) << bits;

        uint32_t schedule[RIJNDAEL_KEY_WORDS] = {};
        EXPECT_EQ(rounds, rijndaelKeySetupDec(schedule, key.data(), bits));
        EXPECT_EQ(0, memcmp(ctx.dk, schedule, sizeof schedule));
        EXPECT_EQ(rounds, rijndaelKeySetupEnc(schedule, key.data(), bits));
        rijndaelEncrypt(schedule, rounds, plain.data(), block.data());
        EXPECT_EQ(from_hex(cipher), block);
        for (const auto *engine : engines()) {
            vela::aes::expand_key(*engine, schedule, key.data(), bits);
            EXPECT_EQ(0, memcmp(ctx.ek, schedule, sizeof schedule));
            engine->encrypt(ctx.ek, rounds, plain.data(), block.data());
            EXPECT_EQ(from_hex(cipher), block);
            engine->decrypt(ctx.dk, rounds, block.data(), block.data());
            EXPECT_EQ(plain, block);
        }
    }
}

TEST(Aes, RefusesOtherSizes)
{
    const bytes key(32);
    rijndael_ctx ctx = {};
    for (const int bits : {100, 0, -128, 160, 512}) {
        EXPECT_EQ(-1, rijndael_set_key(&ctx, key.data(), bits)) << bits;
        EXPECT_EQ(-1, rijndael_set_key_enc_only(&ctx, key.data(), bits)) << bits;
        EXPECT_EQ(0, rijndaelKeySetupDec(ctx.dk, key.data(), bits)) << bits;
    }
    EXPECT_EQ(0, rijndael_set_key_enc_only(&ctx, key.data(), 192));
    EXPECT_EQ(1, ctx.enc_only);

    bytes data(32, 7);
    for (const auto &[len, encrypted] : {std::pair{0U, 0}, {15U, -1}, {17U, -1}}) {
        EXPECT_EQ(encrypted, aes_cbc_encrypt_128(key.data(), key.data(), data.data(), len));
        EXPECT_EQ(-1, aes_cbc_decrypt_128(key.data(), key.data(), data.data(), len));
    }
    EXPECT_EQ(bytes(32, 7), data);
    EXPECT_EQ(16U, aes_cbc_generate_iv(data.data(), 16));
    EXPECT_NE(bytes(16, 7), bytes(data.begin(), data.begin() + 16));
    EXPECT_EQ(bytes(16, 7), bytes(data.begin() + 16, data.end()));
}

TEST(Aes, CbcAgreesWithTheStandardAndOpenSsl)
{
    // SP 800-38A, F.2.1 and F.2.2.
    expect_cbc(from_hex("2b7e151628aed2a6abf7158809cf4f3c"), from_hex("000102030405060708090a0b0c0d0e0f"),
               from_hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"),
               from_hex("7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"));

    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    for (size_t blocks = 1; blocks <= 40; ++blocks) {
        const bytes key = random_bytes(16), iv = random_bytes(16), plain = random_bytes(16 * blocks);
        bytes cipher(plain.size());
        int n = 0;
        EVP_EncryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, key.data(), iv.data());
        EVP_CIPHER_CTX_set_padding(ctx, 0);
        EVP_EncryptUpdate(ctx, cipher.data(), &n, plain.data(), static_cast<int>(plain.size()));
        expect_cbc(key, iv, plain, cipher);
    }
    EVP_CIPHER_CTX_free(ctx);
}

TEST(Aes, LeavesNoRoundKeyOnTheStack)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "the address sanitizer keeps frames elsewhere";
    const bytes key = random_bytes(16);
    rijndael_ctx ctx = {};
    rijndael_set_key(&ctx, key.data(), 128);
    uint8_t block[160] = {};
    std::vector<std::function<void()>> operations{
        [&] { rijndaelKeySetupDec(ctx.dk, key.data(), 128); },
        [&] { aes_cbc_encrypt_128(key.data(), block, block, sizeof block); },
        [&] { aes_cbc_decrypt_128(key.data(), block, block, sizeof block); },
    };
    for (const auto *engine : engines()) {
        operations.emplace_back([&, engine] { engine->cbc_encrypt(ctx.ek, block, block, 10); });
        operations.emplace_back([&, engine] { engine->cbc_decrypt(ctx.dk, block, block, 10); });
    }
    alignas(4096) static uint8_t stack[1 << 18];
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack, sizeof stack);
    const auto run = [](void *operation) { return (*static_cast<std::function<void()> *>(operation))(), operation; };
    for (auto &operation : operations) {
        operation(); // the dynamic linker, when it binds a name, saves registers on the stack
        memset(stack, 0, sizeof stack);
        pthread_t thread;
        ASSERT_EQ(0, pthread_create(&thread, &attributes, run, &operation));
        pthread_join(thread, nullptr);
        for (size_t i = 0; i <= 40; i += 4) {
            uint32_t as_bytes[4];
            for (size_t n = 0; n < 4; ++n) as_bytes[n] = __builtin_bswap32(ctx.ek[i + n]);
            EXPECT_EQ(nullptr, memmem(stack, sizeof stack, as_bytes, 16)) << &operation - &operations[0];
            EXPECT_EQ(nullptr, memmem(stack, sizeof stack, &ctx.ek[i], 16)) << &operation - &operations[0];
        }
    }
    pthread_attr_destroy(&attributes);
}

TEST(Sha256, DigestsOfTheStandard)
{
    const table<std::string, size_t, const char *> cases = {
        {"", 1, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", 1, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", 1,
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {"a", 1000000, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const auto &[message, times, digest] : cases) EXPECT_EQ(from_hex(digest), digest_of(message, 64, times));
}

// One of the standard's digests, of 1 GiB.
TEST(Sha256, CountsMoreBitsThanAWordHolds)
{
    EXPECT_EQ(from_hex("50e72a0e26442fe2552dc3938ac58658228c0cbfb1d2ca872ae435266fcd055e"),
              digest_of(std::string("abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmno"), 64, 1 << 24));
}

TEST(Sha256, AgreesWithOpenSslHoweverCutAndCompressed)
{
    for (size_t n = 0; n <= 300; ++n) {
        const bytes data = random_bytes(n);
        bytes expected(32), digest(32);
        EVP_Digest(data.data(), n, expected.data(), nullptr, EVP_sha256(), nullptr);
        sha256(data.data(), static_cast<uint32_t>(n), digest.data());
        EXPECT_EQ(expected, digest) << n;
        EXPECT_EQ(expected, digest_of(data, 1 + n % 70)) << n;

        const auto best = vela::sha256::hardware();
        uint32_t portably[8] = {}, in_hardware[8] = {};
        vela::sha256::compress_portably(portably, data.data() + n % 64, n / 64);
        if (best) best(in_hardware, data.data() + n % 64, n / 64);
        EXPECT_TRUE(!best || memcmp(portably, in_hardware, sizeof portably) == 0) << n;
    }
}
