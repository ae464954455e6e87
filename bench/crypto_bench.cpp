#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <random>
#include <string>
#include <vector>
#include <vela/core/crypto.h>

namespace
{

std::vector<uint8_t> random_bytes(size_t n)
{
    std::mt19937_64 random{n};
    std::vector<uint8_t> bytes(n);
    for (auto &byte : bytes) byte = static_cast<uint8_t>(random());
    return bytes;
}

void bytes_done(benchmark::State &state, size_t each)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(each));
}

constexpr size_t base64_size = 65536;

using base64_encoder = void (*)(char *out, const uint8_t *in, int n);
using base64_decoder = void (*)(uint8_t *out, const char *s, int n);

void encode_base64(benchmark::State &state, base64_encoder encode)
{
    const auto bytes = random_bytes(base64_size);
    std::string text(static_cast<size_t>(base64_encode_len(base64_size)), '\0');
    for (auto _ : state) {
        encode(text.data(), bytes.data(), base64_size);
        benchmark::DoNotOptimize(text.data());
        benchmark::ClobberMemory();
    }
    bytes_done(state, base64_size);
}

void decode_base64(benchmark::State &state, base64_decoder decode)
{
    auto bytes = random_bytes(base64_size);
    std::string text(static_cast<size_t>(base64_encode_len(base64_size)), '\0');
    base64rfc_encode(text.data(), bytes.data(), base64_size);
    bytes.resize(base64_size + 4);
    for (auto _ : state) {
        decode(bytes.data(), text.data(), static_cast<int>(text.size() - 1));
        benchmark::DoNotOptimize(bytes.data());
        benchmark::ClobberMemory();
    }
    bytes_done(state, base64_size);
}

} // namespace

BENCHMARK_CAPTURE(encode_base64, vela, base64rfc_encode);
BENCHMARK_CAPTURE(encode_base64, openssl, [](char *out, const uint8_t *in, int n) {
    EVP_EncodeBlock(reinterpret_cast<uint8_t *>(out), in, n);
});
BENCHMARK_CAPTURE(decode_base64, vela, [](uint8_t *out, const char *s, int) { base64_decode(out, s); });
BENCHMARK_CAPTURE(decode_base64, openssl, [](uint8_t *out, const char *s, int n) {
    EVP_DecodeBlock(out, reinterpret_cast<const uint8_t *>(s), n);
});

BENCHMARK_MAIN();
