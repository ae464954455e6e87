// Filling a buffer piece by piece, from empty to 16 KiB, and draining it; std::string does the same with append and
// clear.
#include <benchmark/benchmark.h>
#include <memory>
#include <string>
#include <vela/core/buffer.h>

namespace
{

const volatile uint32_t piece_size = 64; // a length that the compiler does not know, as a message's

constexpr uint32_t filled = 16384; // stays in the first-level cache: the calls are compared, not the memory

void append_vela(benchmark::State &state)
{
    const auto n = static_cast<uint32_t>(state.range(0));
    const std::string piece(n, 'x');
    buffer *b = buffer_create();
    for (auto _ : state) {
        for (uint32_t done = 0; done < filled; done += n) b->append(b, piece.data(), n);
        b->read(b, nullptr, b->length(b));
        benchmark::DoNotOptimize(b->data(b));
    }
    b->destroy(b);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * filled);
}

void append_string(benchmark::State &state)
{
    const auto n = static_cast<size_t>(state.range(0));
    const std::string piece(n, 'x');
    std::string s;
    for (auto _ : state) {
        for (size_t done = 0; done < filled; done += n) s.append(piece.data(), n);
        s.clear();
        benchmark::DoNotOptimize(s.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * filled);
}

void grow_vela(benchmark::State &state)
{
    const uint32_t n = piece_size;
    const std::string piece(n, 'x');
    for (auto _ : state) {
        buffer *b = buffer_create();
        for (int64_t done = 0; done < state.range(0); done += n) b->append(b, piece.data(), n);
        b->destroy(b);
    }
}

void grow_string(benchmark::State &state)
{
    const uint32_t n = piece_size;
    const std::string piece(n, 'x');
    for (auto _ : state) {
        // As a buffer: an object of its own, and an area that is zeroed.
        const auto s = std::make_unique<std::string>(BUFFER_DEFAULT_CAPACITY, '\0');
        s->clear();
        for (int64_t done = 0; done < state.range(0); done += n) s->append(piece.data(), n);
        benchmark::DoNotOptimize(s->data());
    }
}

} // namespace

BENCHMARK(append_vela)->Name("buffer append/vela")->Arg(8)->Arg(64)->Arg(1024);
BENCHMARK(append_string)->Name("buffer append/std::string")->Arg(8)->Arg(64)->Arg(1024);
BENCHMARK(grow_vela)->Name("buffer filled/vela")->Arg(4096)->Arg(65536)->Arg(1 << 20);
BENCHMARK(grow_string)->Name("buffer filled/std::string")->Arg(4096)->Arg(65536)->Arg(1 << 20);

BENCHMARK_MAIN();
