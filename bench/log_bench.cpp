// What a log statement costs that nobody reads: beside a call of an empty function in another source.
#include <benchmark/benchmark.h>
#include <vela/core/log.h>

namespace
{

// What reaches the caller is a call and a return: nothing of the body can be seen from there.
__attribute__((noipa)) void empty() {}

void suppressed_vela(benchmark::State &state)
{
    libvela_log_level = 1U << LIBVELA_LOG_INFO;
    libvela_log_env_ready = 1;
    int n = 0;
    for (auto _ : state) {
        LIBVELA_LOG(LIBVELA_LOG_DEBUG, "bench", "number %d", ++n);
        benchmark::ClobberMemory(); // the threshold is read anew each time
    }
    if (n != 0) state.SkipWithError("the statement was not suppressed");
}

void empty_call(benchmark::State &state)
{
    for (auto _ : state) {
        empty();
        benchmark::ClobberMemory();
    }
}

} // namespace

BENCHMARK(suppressed_vela)->Name("suppressed log line/vela");
BENCHMARK(empty_call)->Name("suppressed log line/scale:empty call");
BENCHMARK_MAIN();
