#include "tests/support/faults.h"

#include <cstring>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <random>
#include <string>
#include <vector>
#include <vela/core/crypto.h>
#include <vela/core/internal/aes.h>
#include <vela/core/internal/sha256.h>

namespace
{

using bytes = std::vector<uint8_t>;

std::mt19937_64 dice{20240229};

bytes random_bytes(size_t n)
{
    bytes some(n);
    for (auto &byte : some) byte = static_cast<uint8_t>(dice());
    return some;
}

bytes from_hex(const std::string &hex)
{
    bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return out;
}

/// Every AES that can run here: what the library chooses comes first.
struct named_engine {
    const char *name;
    const vela::aes::engine *engine;
};
std::vector<named_engine> engines()
{
    std::vector<named_engine> all = {{"portable", &vela::aes::portable()}, {"bytewise", &vela::aes::bytewise}};
    if (vela::aes::hardware()) all.insert(all.begin(), {"hardware", vela::aes::hardware()});
    return all;
}

std::vector<vela::sha256::compressor> compressors()
{
    std::vector<vela::sha256::compressor> all = {vela::sha256::compress_portably};
    if (vela::sha256::hardware()) all.push_back(vela::sha256::hardware());
    return all;
}

bytes openssl_cbc(bool encrypt, const bytes &key, const bytes &iv, const bytes &data)
{
    bytes out(data.size() + 32);
    int n = 0;
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(ctx, EVP_aes_128_cbc(), nullptr, key.data(), iv.data(), encrypt);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_CipherUpdate(ctx, out.data(), &n, data.data(), static_cast<int>(data.size()));
    EVP_CIPHER_CTX_free(ctx);
    out.resize(static_cast<size_t>(n));
    return out;
}

bytes openssl_sha256(const bytes &data)
{
    bytes digest(32);
    EVP_Digest(data.data(), data.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
    return digest;
}

// Texts in blocks of exactly the promised size, so that the sanitizer sees a byte too many.

template <class Encode> std::string encoded(Encode encode, const bytes &in)
{
    std::vector<char> text(static_cast<size_t>(base64_encode_len(static_cast<int>(in.size()))), '#');
    encode(text.data(), in.data(), static_cast<int>(in.size()));
    return text.data();
}

bytes decoded(const std::string &text)
{
    const std::vector<char> exact(text.c_str(), text.c_str() + text.size() + 1);
    bytes out(static_cast<size_t>(base64_decode_len(exact.data())), '#');
    base64_decode(out.data(), exact.data());
    return out;
}

} // namespace

TEST(Base64, KnownTexts)
{
    constexpr struct {
        const char *in;
        int n;
        const char *rfc, *url;
    } cases[] = {
        {"", 0, "", ""},
        {"f", 1, "Zg==", "Zg"},
        {"fo", 2, "Zm8=", "Zm8"},
        {"foo", 3, "Zm9v", "Zm9v"},
        {"foob", 4, "Zm9vYg==", "Zm9vYg"},
        {"\0", 1, "AA==", "AA"},
        {"\xfb\xff\xfe", 3, "+//+", "-__-"},
        {"\xff\xff", 2, "//8=", "__8"},
    };
    for (const auto &c : cases) {
        const bytes in(c.in, c.in + c.n);
        EXPECT_EQ(c.rfc, encoded(base64rfc_encode, in));
        EXPECT_EQ(c.url, encoded(base64url_encode, in));
        for (const char *text : {c.rfc, c.url}) {
            bytes out = decoded(text);
            ASSERT_LT(in.size(), out.size()) << text;
            EXPECT_EQ(0, out[in.size()]) << text;
            out.resize(in.size());
            EXPECT_EQ(in, out) << text;
        }
    }
}

TEST(Base64, AgreesWithOpenSslAtEveryLength)
{
    for (size_t n = 0; n <= 200; ++n) {
        const bytes in = random_bytes(n);
        bytes expected(n / 3 * 4 + 5);
        EVP_EncodeBlock(expected.data(), in.data(), static_cast<int>(n));
        const std::string text = encoded(base64rfc_encode, in);
        EXPECT_STREQ(reinterpret_cast<const char *>(expected.data()), text.c_str()) << n;
        bytes out = decoded(text);
        out.resize(n);
        EXPECT_EQ(in, out) << n;

        std::vector<char> same(text.c_str(), text.c_str() + text.size() + 1);
        base64url_decode(reinterpret_cast<uint8_t *>(same.data()), same.data());
        EXPECT_EQ(in, bytes(same.begin(), same.begin() + static_cast<ptrdiff_t>(n))) << "in place, " << n;
    }
}

TEST(Base64, OnlyLettersDecode)
{
    for (int c = 0; c < 256; ++c) {
        const bool letter = c != 0 && strchr("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/-_", c);
        for (size_t at = 0; at < 8; ++at) {
            std::string text = "QUJDQUJD";
            text[at] = static_cast<char>(c);
            const size_t letters = letter ? 8 : at;
            bytes out = decoded(text);
            EXPECT_EQ((letters + 3) / 4 * 3 + 1, out.size()) << c << " at " << at;
            EXPECT_EQ(0, out[letters * 3 / 4]) << c << " at " << at;
            if (!letter) {
                EXPECT_EQ(0, memcmp("ABCABC", out.data(), at * 3 / 4)) << c << " at " << at;
            }
        }
    }
}

TEST(Base64, Lengths)
{
    constexpr struct {
        int n, room;
    } cases[] = {{0, 1}, {1, 5}, {3, 5}, {4, 9}, {1610612733, 2147483645}, {1610612734, -1}, {INT32_MAX, -1}, {-7, 1}};
    for (const auto &c : cases) {
        EXPECT_EQ(c.room, base64_encode_len(c.n)) << c.n;
        EXPECT_EQ(c.room, base64url_encode_len(c.n)) << c.n;
    }
    EXPECT_EQ(4, base64_decode_len("QUJD"));
    EXPECT_EQ(4, base64url_decode_len("QUJD"));
    EXPECT_EQ(1, base64_decode_len("="));
    EXPECT_EQ(7, base64_decode_len("AAAAA\nAAAA"));
}

TEST(Aes, BlocksAndSchedulesOfTheStandard)
{
    // FIPS 197, appendix C.
    const bytes plain = from_hex("00112233445566778899aabbccddeeff");
    constexpr struct {
        int bits, rounds;
        const char *cipher;
    } cases[] = {
        {128, 10, "69c4e0d86a7b0430d8cdb78070b4c55a"},
        {192, 12, "dda97ca4864cdfe06eaf70a0ec0d7191"},
        {256, 14, "8ea2b7ca516745bfeafc49904b496089"},
    };
    for (const auto &c : cases) {
        bytes key(static_cast<size_t>(c.bits / 8));
        for (size_t i = 0; i < key.size(); ++i) key[i] = static_cast<uint8_t>(i);
        const bytes cipher = from_hex(c.cipher);

        rijndael_ctx ctx = {};
        ASSERT_EQ(0, rijndael_set_key(&ctx, key.data(), c.bits));
        EXPECT_EQ(0, ctx.enc_only);
        EXPECT_EQ(c.rounds, ctx.rounds);
        bytes block = plain;
        rijndael_encrypt(&ctx, block.data(), block.data());
        EXPECT_EQ(cipher, block) << c.bits;
        rijndael_decrypt(&ctx, block.data(), block.data());
        EXPECT_EQ(plain, block) << c.bits;

        for (const auto &[name, engine] : engines()) {
            uint32_t ek[RIJNDAEL_KEY_WORDS] = {};
            EXPECT_EQ(c.rounds, vela::aes::expand_key(*engine, ek, key.data(), c.bits));
            EXPECT_EQ(0, memcmp(ctx.ek, ek, sizeof ek)) << name;
            engine->encrypt(ctx.ek, c.rounds, plain.data(), block.data());
            EXPECT_EQ(cipher, block) << name;
            engine->decrypt(ctx.dk, c.rounds, cipher.data(), block.data());
            EXPECT_EQ(plain, block) << name;
        }
        if (c.bits == 128) {
            EXPECT_EQ(0x4d2b30c5U, ctx.ek[43]);
            EXPECT_EQ(0x13aa29beU, ctx.dk[4]) << "inner decryption keys went through InvMixColumns";
        }
        EXPECT_EQ(0x00010203U, ctx.dk[4 * c.rounds]);

        uint32_t schedule[RIJNDAEL_KEY_WORDS] = {};
        EXPECT_EQ(c.rounds, rijndaelKeySetupDec(schedule, key.data(), c.bits));
        EXPECT_EQ(0, memcmp(ctx.dk, schedule, sizeof schedule));
        EXPECT_EQ(c.rounds, rijndaelKeySetupEnc(schedule, key.data(), c.bits));
        rijndaelEncrypt(schedule, c.rounds, plain.data(), block.data());
        EXPECT_EQ(cipher, block);
    }
}

TEST(Aes, RefusesOtherSizes)
{
    const bytes key(32);
    rijndael_ctx ctx = {7, 7, {}, {}};
    for (const int bits : {100, 0, -128, 127, 160, 512}) {
        EXPECT_EQ(-1, rijndael_set_key(&ctx, key.data(), bits)) << bits;
        EXPECT_EQ(-1, rijndael_set_key_enc_only(&ctx, key.data(), bits)) << bits;
        EXPECT_EQ(0, rijndaelKeySetupEnc(ctx.ek, key.data(), bits)) << bits;
        EXPECT_EQ(0, rijndaelKeySetupDec(ctx.dk, key.data(), bits)) << bits;
    }
    EXPECT_EQ(7, ctx.enc_only);
    EXPECT_EQ(0, rijndael_set_key_enc_only(&ctx, key.data(), 192));
    EXPECT_EQ(1, ctx.enc_only);

    const bytes before = random_bytes(48);
    for (const uint32_t len : {1U, 15U, 17U, 47U}) {
        bytes data = before;
        EXPECT_EQ(-1, aes_cbc_encrypt_128(key.data(), key.data(), data.data(), len));
        EXPECT_EQ(-1, aes_cbc_decrypt_128(key.data(), key.data(), data.data(), len));
        EXPECT_EQ(before, data) << len;
    }
    EXPECT_EQ(0, aes_cbc_encrypt_128(key.data(), key.data(), nullptr, 0));
    EXPECT_EQ(-1, aes_cbc_decrypt_128(key.data(), key.data(), nullptr, 0));
    EXPECT_EQ(0U, aes_cbc_generate_iv(nullptr, 16));
    bytes iv(32);
    EXPECT_EQ(16U, aes_cbc_generate_iv(iv.data(), 16));
    EXPECT_EQ(bytes(16), bytes(iv.begin() + 16, iv.end()));
    EXPECT_NE(bytes(16), bytes(iv.begin(), iv.begin() + 16));
}

TEST(Aes, CbcOfTheStandard)
{
    // SP 800-38A, F.2.1 and F.2.2.
    const bytes key = from_hex("2b7e151628aed2a6abf7158809cf4f3c");
    const bytes iv = from_hex("000102030405060708090a0b0c0d0e0f");
    const bytes plain = from_hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                                 "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
    const bytes cipher = from_hex("7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
                                  "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7");
    bytes data = plain;
    EXPECT_EQ(0, aes_cbc_encrypt_128(key.data(), iv.data(), data.data(), 64));
    EXPECT_EQ(cipher, data);
    EXPECT_EQ(0, aes_cbc_decrypt_128(key.data(), iv.data(), data.data(), 64));
    EXPECT_EQ(plain, data);
    EXPECT_EQ(0x0f, iv[15]) << "the caller's vector stays";
    for (const auto &[name, engine] : engines()) {
        engine->cbc_encrypt(key.data(), iv.data(), data.data(), 4);
        EXPECT_EQ(cipher, data) << name;
        engine->cbc_decrypt(key.data(), iv.data(), data.data(), 4);
        EXPECT_EQ(plain, data) << name;
    }
}

TEST(Aes, EveryEngineAgreesWithOpenSsl)
{
    for (size_t blocks = 1; blocks <= 40; ++blocks) {
        const bytes key = random_bytes(16);
        const bytes iv = random_bytes(16);
        const bytes plain = random_bytes(16 * blocks);
        const bytes cipher = openssl_cbc(true, key, iv, plain);
        for (const auto &[name, engine] : engines()) {
            bytes shifted(plain.size() + 1); // no alignment is asked for
            memcpy(shifted.data() + 1, plain.data(), plain.size());
            engine->cbc_encrypt(key.data(), iv.data(), shifted.data() + 1, blocks);
            EXPECT_EQ(0, memcmp(cipher.data(), shifted.data() + 1, cipher.size())) << name << ", " << blocks;
            engine->cbc_decrypt(key.data(), iv.data(), shifted.data() + 1, blocks);
            EXPECT_EQ(0, memcmp(plain.data(), shifted.data() + 1, plain.size())) << name << ", " << blocks;
        }
    }
}

TEST(Aes, LeavesNoRoundKeyOnTheStack)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "the address sanitizer keeps frames elsewhere";
    static const bytes key = random_bytes(16);
    static const vela::aes::engine *engine;
    const auto work = [](void *) -> void * {
        uint8_t block[160] = {};
        engine->cbc_encrypt(key.data(), block, block, 10);
        engine->cbc_decrypt(key.data(), block, block, 10);
        uint32_t words[RIJNDAEL_KEY_WORDS];
        rijndaelKeySetupDec(words, key.data(), 128);
        explicit_bzero(words, sizeof words);
        return nullptr;
    };
    rijndael_ctx ctx = {};
    rijndael_set_key(&ctx, key.data(), 128);

    for (const auto &named : engines()) {
        engine = named.engine;
        work(nullptr); // the dynamic linker, when it binds a name, saves registers on the stack
        alignas(4096) static uint8_t stack[1 << 18];
        memset(stack, 0, sizeof stack);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstack(&attributes, stack, sizeof stack);
        pthread_t thread;
        ASSERT_EQ(0, pthread_create(&thread, &attributes, work, nullptr));
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attributes);

        for (size_t i = 0; i <= 40; i += 4) {
            uint8_t round_key[16];
            for (size_t n = 0; n < 16; ++n)
                round_key[n] = static_cast<uint8_t>(ctx.ek[i + n / 4] >> (24 - 8 * (n % 4)));
            EXPECT_EQ(nullptr, memmem(stack, sizeof stack, round_key, 16)) << named.name << ", round " << i / 4;
            EXPECT_EQ(nullptr, memmem(stack, sizeof stack, ctx.ek + i, 16)) << named.name << ", round " << i / 4;
        }
    }
}

TEST(Sha256, DigestsOfTheStandard)
{
    const struct {
        std::string message;
        const char *digest;
    } cases[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqr"
         "stu",
         "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
        {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const auto &c : cases) {
        bytes digest(32);
        sha256(reinterpret_cast<const uint8_t *>(c.message.data()), static_cast<uint32_t>(c.message.size()),
               digest.data());
        EXPECT_EQ(from_hex(c.digest), digest) << c.message.size();
    }
}

TEST(Sha256, AgreesWithOpenSslHoweverCut)
{
    for (size_t n = 0; n <= 300; ++n) {
        const bytes data = random_bytes(n);
        sha256_ctx ctx;
        sha256_init(&ctx);
        for (size_t at = 0; at < n;) {
            const size_t piece = std::min<size_t>(dice() % 70, n - at);
            sha256_update(&ctx, data.data() + at, static_cast<uint32_t>(piece));
            at += piece;
        }
        bytes digest(32);
        sha256_final(&ctx, digest.data());
        EXPECT_EQ(openssl_sha256(data), digest) << n;
    }
}

TEST(Sha256, EveryCompressorAgrees)
{
    const auto all = compressors();
    for (size_t blocks = 1; blocks < 20; ++blocks) {
        const bytes data = random_bytes(64 * blocks + 1);
        const bytes start = random_bytes(32);
        uint32_t expected[8];
        for (const auto compress : all) {
            uint32_t state[8];
            memcpy(state, start.data(), sizeof state);
            compress(state, data.data() + 1, blocks);
            if (compress == all.front()) memcpy(expected, state, sizeof state);
            EXPECT_EQ(0, memcmp(expected, state, sizeof state)) << blocks;
        }
    }
}

TEST(Sha256, CountsBitsBeyond32)
{
    const bytes piece = random_bytes(1 << 22);
    sha256_ctx ctx;
    sha256_init(&ctx);
    EVP_MD_CTX *peer = EVP_MD_CTX_new();
    EVP_DigestInit_ex(peer, EVP_sha256(), nullptr);
    for (size_t done = 0; done <= size_t{1} << 29; done += piece.size()) {
        sha256_update(&ctx, piece.data(), static_cast<uint32_t>(piece.size()));
        EVP_DigestUpdate(peer, piece.data(), piece.size());
    }
    bytes ours(32), theirs(32);
    sha256_final(&ctx, ours.data());
    EVP_DigestFinal_ex(peer, theirs.data(), nullptr);
    EVP_MD_CTX_free(peer);
    EXPECT_EQ(theirs, ours);
}
