// UTF-8 beside GLib, hexadecimal beside OpenSSL.
#include <benchmark/benchmark.h>
#include <cstring>
#include <glib.h>
#include <openssl/crypto.h>
#include <string>
#include <vector>
#include <vela/core/util.h>

namespace
{

// None, some and all of the characters outside ASCII.
constexpr const char *ascii = "The quick brown fox jumps over the lazy dog. ";
constexpr const char *mixed = "Caf\xC3\xA9 M\xC3\xBCller \xE2\x82\xAC"
                              "12, \xE6\x97\xA5\xE6\x9C\xAC guest \xF0\x9F\x93\xB6 2. OG";
constexpr const char *dense =
    "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82\xE3\x83\x86\xE3\x82\xB9\xE3\x83\x88\xF0\x9F\x93\xB6";

/// Whole patterns, one at least.
std::string text_of(const char *pattern, int64_t size)
{
    std::string text = pattern;
    while (text.size() + strlen(pattern) <= static_cast<size_t>(size)) text += pattern;
    return text;
}

void rate(benchmark::State &state, size_t bytes)
{
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}

void sanitize_vela(benchmark::State &state, const char *pattern)
{
    std::string text = text_of(pattern, state.range(0));
    for (auto _ : state) {
        utf8_sanitize(text.data());
        benchmark::ClobberMemory();
    }
    rate(state, text.size());
}

/// Only looks: the least that GLib can do about a text.
void sanitize_glib_validate(benchmark::State &state, const char *pattern)
{
    const std::string text = text_of(pattern, state.range(0));
    for (auto _ : state) benchmark::DoNotOptimize(g_utf8_validate(text.c_str(), -1, nullptr));
    rate(state, text.size());
}

/// The same job, on a copy.
void sanitize_glib_make_valid(benchmark::State &state, const char *pattern)
{
    const std::string text = text_of(pattern, state.range(0));
    for (auto _ : state) {
        gchar *valid = g_utf8_make_valid(text.c_str(), -1);
        benchmark::DoNotOptimize(valid);
        g_free(valid);
    }
    rate(state, text.size());
}

void truncate_vela(benchmark::State &state, const char *pattern)
{
    const std::string text = text_of(pattern, state.range(0));
    const auto half = static_cast<size_t>(g_utf8_strlen(text.c_str(), -1)) / 2;
    for (auto _ : state) benchmark::DoNotOptimize(utf8_truncate_len(text.c_str(), half, text.size()));
    rate(state, text.size() / 2);
}

void truncate_glib_offset(benchmark::State &state, const char *pattern)
{
    const std::string text = text_of(pattern, state.range(0));
    const auto half = g_utf8_strlen(text.c_str(), -1) / 2;
    for (auto _ : state) benchmark::DoNotOptimize(g_utf8_offset_to_pointer(text.c_str(), half));
    rate(state, text.size() / 2);
}

void hex_vela(benchmark::State &state)
{
    const std::vector<uint8_t> bytes(static_cast<size_t>(state.range(0)), 0xA5);
    std::vector<char> text(2 * bytes.size() + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(uchar2hex(bytes.data(), bytes.size(), text.data(), text.size()));
        benchmark::ClobberMemory();
    }
    rate(state, bytes.size());
}

void hex_openssl(benchmark::State &state)
{
    const std::vector<uint8_t> bytes(static_cast<size_t>(state.range(0)), 0xA5);
    std::vector<char> text(2 * bytes.size() + 1);
    for (auto _ : state) {
        size_t length = 0;
        benchmark::DoNotOptimize(
            OPENSSL_buf2hexstr_ex(text.data(), text.size(), &length, bytes.data(), bytes.size(), '\0'));
        benchmark::ClobberMemory();
    }
    rate(state, bytes.size());
}

void unhex_vela(benchmark::State &state)
{
    const std::string text(static_cast<size_t>(2 * state.range(0)), 'a');
    std::vector<uint8_t> bytes(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(hex2uchar(text.c_str(), bytes.data(), bytes.size()));
        benchmark::ClobberMemory();
    }
    rate(state, bytes.size());
}

void unhex_openssl(benchmark::State &state)
{
    const std::string text(static_cast<size_t>(2 * state.range(0)), 'a');
    std::vector<uint8_t> bytes(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        size_t length = 0;
        benchmark::DoNotOptimize(OPENSSL_hexstr2buf_ex(bytes.data(), bytes.size(), &length, text.c_str(), '\0'));
        benchmark::ClobberMemory();
    }
    rate(state, bytes.size());
}

} // namespace

BENCHMARK_CAPTURE(sanitize_vela, ascii, ascii)->Name("UTF-8 checked, ascii/vela")->Arg(32)->Arg(4096);
BENCHMARK_CAPTURE(sanitize_glib_validate, ascii, ascii)
    ->Name("UTF-8 checked, ascii/scale:GLib, validates only")
    ->Arg(32)
    ->Arg(4096);
BENCHMARK_CAPTURE(sanitize_glib_make_valid, ascii, ascii)
    ->Name("UTF-8 checked, ascii/GLib, makes valid")
    ->Arg(32)
    ->Arg(4096);
BENCHMARK_CAPTURE(sanitize_vela, mixed, mixed)->Name("UTF-8 checked, mixed/vela")->Arg(64)->Arg(4096);
BENCHMARK_CAPTURE(sanitize_glib_validate, mixed, mixed)
    ->Name("UTF-8 checked, mixed/scale:GLib, validates only")
    ->Arg(64)
    ->Arg(4096);
BENCHMARK_CAPTURE(sanitize_glib_make_valid, mixed, mixed)
    ->Name("UTF-8 checked, mixed/GLib, makes valid")
    ->Arg(64)
    ->Arg(4096);
BENCHMARK_CAPTURE(sanitize_vela, dense, dense)->Name("UTF-8 checked, dense/vela")->Arg(64)->Arg(4096);
BENCHMARK_CAPTURE(sanitize_glib_validate, dense, dense)
    ->Name("UTF-8 checked, dense/scale:GLib, validates only")
    ->Arg(64)
    ->Arg(4096);
BENCHMARK_CAPTURE(sanitize_glib_make_valid, dense, dense)
    ->Name("UTF-8 checked, dense/GLib, makes valid")
    ->Arg(64)
    ->Arg(4096);
BENCHMARK_CAPTURE(truncate_vela, ascii, ascii)->Name("UTF-8 cut, ascii/vela")->Arg(4096);
BENCHMARK_CAPTURE(truncate_glib_offset, ascii, ascii)->Name("UTF-8 cut, ascii/GLib")->Arg(4096);
BENCHMARK_CAPTURE(truncate_vela, mixed, mixed)->Name("UTF-8 cut, mixed/vela")->Arg(4096);
BENCHMARK_CAPTURE(truncate_glib_offset, mixed, mixed)->Name("UTF-8 cut, mixed/GLib")->Arg(4096);
BENCHMARK(hex_vela)->Name("hexadecimal, written/vela")->Arg(6)->Arg(16)->Arg(4096);
BENCHMARK(hex_openssl)->Name("hexadecimal, written/OpenSSL")->Arg(6)->Arg(16)->Arg(4096);
BENCHMARK(unhex_vela)->Name("hexadecimal, read/vela")->Arg(6)->Arg(16)->Arg(4096);
BENCHMARK(unhex_openssl)->Name("hexadecimal, read/OpenSSL")->Arg(6)->Arg(16)->Arg(4096);
BENCHMARK_MAIN();
