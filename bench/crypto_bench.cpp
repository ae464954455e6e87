// Beside OpenSSL's EVP: with the processor's instructions, then, in a process of its own that hides them from OpenSSL
// (which leaves it hand-written scalar assembler), the portable paths. Our AES calls prepare their key each time; EVP
// is shown with a prepared key and with a set-up per message. The portable AES is built here with the byte permute that
// processors without AES instructions have as a rule; the library for x86-64 does without, and takes twenty times as
// long.

#include <benchmark/benchmark.h>
#include <cstring>
#include <openssl/evp.h>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>
#include <vela/core/crypto.h>
#include <vela/core/internal/aes.h>
#include <vela/core/internal/sha256.h>

namespace
{

constexpr const char *capabilities_variable = "OPENSSL_ia32cap";
constexpr const char *no_instructions = "~0x1200020200000000:~0x20000020"; // AVX, AES, SSSE3, PCLMUL; SHA, AVX2

constexpr uint8_t key[16] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae};
constexpr uint8_t iv[16] = {1, 2, 3};

std::vector<uint8_t> random_bytes(size_t n)
{
    std::mt19937_64 random{n};
    std::vector<uint8_t> bytes(n);
    for (auto &byte : bytes) byte = static_cast<uint8_t>(random());
    return bytes;
}

template <class Work> void over_bytes(benchmark::State &state, Work work)
{
    auto data = random_bytes(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        work(data);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void aes_vela(benchmark::State &state, bool encrypt)
{
    over_bytes(state, [=](std::vector<uint8_t> &data) {
        (encrypt ? aes_cbc_encrypt_128 : aes_cbc_decrypt_128)(key, iv, data.data(), static_cast<uint32_t>(data.size()));
    });
}

void aes_vela_portable(benchmark::State &state, bool encrypt)
{
    const auto &e = vela::aes::portable;
    over_bytes(state, [&](std::vector<uint8_t> &data) {
        uint32_t keys[2][RIJNDAEL_KEY_WORDS];
        const int rounds = vela::aes::expand_key(e, keys[0], key, 128);
        if (!encrypt) vela::aes::invert_keys(keys[0], keys[1], rounds);
        (encrypt ? e.cbc_encrypt : e.cbc_decrypt)(keys[encrypt ? 0 : 1], iv, data.data(), data.size() / 16);
    });
}

void aes_openssl_prepared(benchmark::State &state, bool encrypt)
{
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(ctx, EVP_aes_128_cbc(), nullptr, key, iv, encrypt);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    over_bytes(state, [=](std::vector<uint8_t> &data) {
        int n = 0;
        EVP_CipherInit_ex(ctx, nullptr, nullptr, nullptr, iv, encrypt);
        EVP_CipherUpdate(ctx, data.data(), &n, data.data(), static_cast<int>(data.size()));
    });
    EVP_CIPHER_CTX_free(ctx);
}

void aes_openssl_setup(benchmark::State &state, bool encrypt)
{
    over_bytes(state, [=](std::vector<uint8_t> &data) {
        int n = 0;
        EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
        EVP_CipherInit_ex(ctx, EVP_aes_128_cbc(), nullptr, key, iv, encrypt);
        EVP_CIPHER_CTX_set_padding(ctx, 0);
        EVP_CipherUpdate(ctx, data.data(), &n, data.data(), static_cast<int>(data.size()));
        EVP_CIPHER_CTX_free(ctx);
    });
}

void sha256_vela(benchmark::State &state)
{
    uint8_t digest[32];
    over_bytes(state, [&](const std::vector<uint8_t> &data) {
        sha256(data.data(), static_cast<uint32_t>(data.size()), digest);
    });
}

void sha256_openssl(benchmark::State &state)
{
    uint8_t digest[32];
    EVP_MD_CTX *ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr);
    over_bytes(state, [&](const std::vector<uint8_t> &data) {
        EVP_DigestInit_ex(ctx, nullptr, nullptr);
        EVP_DigestUpdate(ctx, data.data(), data.size());
        EVP_DigestFinal_ex(ctx, digest, nullptr);
    });
    EVP_MD_CTX_free(ctx);
}

/// Whole blocks only, as the portable path has no door of its own.
void sha256_vela_portable(benchmark::State &state)
{
    uint32_t digest[8] = {};
    over_bytes(state, [&](const std::vector<uint8_t> &data) {
        uint8_t last[64] = {0x80};
        vela::sha256::compress_portably(digest, data.data(), data.size() / 64);
        vela::sha256::compress_portably(digest, last, 1);
    });
}

void base64_encode_vela(benchmark::State &state)
{
    std::string text(static_cast<size_t>(base64_encode_len(static_cast<int>(state.range(0)))), '\0');
    over_bytes(state, [&](const std::vector<uint8_t> &data) {
        base64rfc_encode(text.data(), data.data(), static_cast<int>(data.size()));
    });
}

void base64_encode_openssl(benchmark::State &state)
{
    std::vector<uint8_t> text(static_cast<size_t>(base64_encode_len(static_cast<int>(state.range(0)))));
    over_bytes(state, [&](const std::vector<uint8_t> &data) {
        EVP_EncodeBlock(text.data(), data.data(), static_cast<int>(data.size()));
    });
}

void base64_decode_both(benchmark::State &state, bool ours)
{
    const auto data = random_bytes(static_cast<size_t>(state.range(0)));
    std::string text(static_cast<size_t>(base64_encode_len(static_cast<int>(data.size()))), '\0');
    base64rfc_encode(text.data(), data.data(), static_cast<int>(data.size()));
    const auto *letters = reinterpret_cast<const uint8_t *>(text.data());
    std::vector<uint8_t> out(data.size() + 4);
    over_bytes(state, [&](const std::vector<uint8_t> &) {
        if (ours) {
            base64_decode(out.data(), text.data());
        } else {
            EVP_DecodeBlock(out.data(), letters, static_cast<int>(text.size() - 1));
        }
    });
}

void sizes(benchmark::internal::Benchmark *b) { b->Arg(64)->Arg(256)->Arg(1024)->Arg(16384); }

template <class... Arguments> void add(const char *name, Arguments... arguments)
{
    benchmark::RegisterBenchmark(name, arguments...)->Apply(sizes);
}

void add_openssl(const std::string &under)
{
    for (const bool encrypt : {true, false}) {
        const std::string direction = encrypt ? "aes_encrypt/" : "aes_decrypt/";
        add((direction + "openssl_prepared" + under).c_str(), aes_openssl_prepared, encrypt);
        add((direction + "openssl_setup" + under).c_str(), aes_openssl_setup, encrypt);
    }
    add(("sha256/openssl" + under).c_str(), sha256_openssl);
}

/// Runs this program again, with the instructions hidden from OpenSSL, which looks at its environment when loaded.
void run_without_instructions(char **argv)
{
    const pid_t child = fork();
    if (child == 0) {
        setenv(capabilities_variable, no_instructions, 1);
        execv("/proc/self/exe", argv);
        _exit(127);
    }
    waitpid(child, nullptr, 0);
}

} // namespace

int main(int argc, char **argv)
{
    const bool portable = getenv(capabilities_variable) != nullptr;
    if (portable) {
        for (const bool encrypt : {true, false}) {
            add(encrypt ? "aes_encrypt/vela_portable" : "aes_decrypt/vela_portable", aes_vela_portable, encrypt);
        }
        add("sha256/vela_portable", sha256_vela_portable);
        add_openssl("_scalar");
    } else {
        for (const bool encrypt : {true, false}) {
            add(encrypt ? "aes_encrypt/vela" : "aes_decrypt/vela", aes_vela, encrypt);
        }
        add("sha256/vela", sha256_vela);
        add_openssl("");
        benchmark::RegisterBenchmark("base64_encode/vela", base64_encode_vela)->Arg(65536);
        benchmark::RegisterBenchmark("base64_encode/openssl", base64_encode_openssl)->Arg(65536);
        benchmark::RegisterBenchmark("base64_decode/vela", base64_decode_both, true)->Arg(65536);
        benchmark::RegisterBenchmark("base64_decode/openssl", base64_decode_both, false)->Arg(65536);
    }
    std::vector<char *> arguments(argv, argv + argc + 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    if (!portable) run_without_instructions(arguments.data());
    return 0;
}
