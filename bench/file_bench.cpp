// Files as Base64, beside OpenSSL's block encoder over bytes that are in memory already; and one number of a small
// file, beside stdio.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <openssl/evp.h>
#include <unistd.h>
#include <vector>
#include <vela/core/file.h>

namespace
{

constexpr const char *number_path = "/proc/self/oom_score";

FILE *file_of(size_t size)
{
    FILE *file = tmpfile();
    for (size_t i = 0; file && i < size; ++i) putc(static_cast<int>(i * 7), file);
    return file;
}

void base64_of_file_vela(benchmark::State &state)
{
    FILE *file = file_of(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        char *text = load_file_base64(file);
        benchmark::DoNotOptimize(text);
        free(text);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    fclose(file);
}

void base64_of_file_openssl(benchmark::State &state)
{
    FILE *file = file_of(static_cast<size_t>(state.range(0)));
    const auto size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        auto *bytes = static_cast<unsigned char *>(malloc(size));
        auto *text = static_cast<unsigned char *>(malloc((size + 2) / 3 * 4 + 1));
        rewind(file);
        if (fread(bytes, 1, size, file) != size) state.SkipWithError("short file");
        EVP_EncodeBlock(text, bytes, static_cast<int>(size));
        benchmark::DoNotOptimize(text);
        free(text);
        free(bytes);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    fclose(file);
}

void base64_of_memory_openssl(benchmark::State &state)
{
    const std::vector<unsigned char> bytes(static_cast<size_t>(state.range(0)), 0xA5);
    std::vector<unsigned char> text((bytes.size() + 2) / 3 * 4 + 1);
    for (auto _ : state) {
        EVP_EncodeBlock(text.data(), bytes.data(), static_cast<int>(bytes.size()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void number_vela(benchmark::State &state)
{
    for (auto _ : state) benchmark::DoNotOptimize(freadlong(number_path, 0));
}

void number_stdio(benchmark::State &state)
{
    for (auto _ : state) {
        long number = 0;
        FILE *file = fopen(number_path, "re");
        if (!file || fscanf(file, "%ld", &number) != 1) state.SkipWithError("no number");
        benchmark::DoNotOptimize(number);
        if (file) fclose(file);
    }
}

} // namespace

BENCHMARK(base64_of_file_vela)->Name("file as Base64/vela")->Arg(4096)->Arg(1 << 20);
BENCHMARK(base64_of_file_openssl)->Name("file as Base64/OpenSSL")->Arg(4096)->Arg(1 << 20);
BENCHMARK(base64_of_memory_openssl)->Name("file as Base64/scale:OpenSSL, from memory")->Arg(4096)->Arg(1 << 20);
BENCHMARK(number_vela)->Name("number file/vela");
BENCHMARK(number_stdio)->Name("number file/stdio");
BENCHMARK_MAIN();
