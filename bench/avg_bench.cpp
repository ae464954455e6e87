// vela_remove_outliers() is linear, as a filter of the same rule over std::vector is.
#include <benchmark/benchmark.h>
#include <cmath>
#include <numeric>
#include <random>
#include <vector>
#include <vela/core/avg.h>

namespace
{

std::vector<int64_t> measurements(int64_t n)
{
    std::mt19937_64 random{7};
    std::normal_distribution<double> around{-60000, 8000};
    std::vector<int64_t> samples(static_cast<size_t>(n));
    for (auto &sample : samples) sample = static_cast<int64_t>(around(random));
    return samples;
}

void vela_filter(std::vector<int64_t> &samples)
{
    int64_t average;
    auto count = static_cast<uint32_t>(samples.size());
    vela_remove_outliers(samples.data(), &average, &count);
    samples.resize(count);
}

void double_filter(std::vector<int64_t> &samples)
{
    const auto n = static_cast<double>(samples.size());
    const double mean = std::accumulate(samples.begin(), samples.end(), 0.0) / n;
    double squares = 0;
    for (const int64_t sample : samples)
        squares += (static_cast<double>(sample) - mean) * (static_cast<double>(sample) - mean);
    const double reach = 3 * std::sqrt(squares / n);
    std::erase_if(samples, [=](int64_t sample) { return std::abs(static_cast<double>(sample) - mean) > reach; });
}

void remove_outliers(benchmark::State &state, void (*filter)(std::vector<int64_t> &))
{
    const auto samples = measurements(state.range(0));
    std::vector<int64_t> work;
    for (auto _ : state) {
        work = samples;
        filter(work);
        benchmark::DoNotOptimize(work.data());
    }
}

} // namespace

BENCHMARK_CAPTURE(remove_outliers, vela, vela_filter)->Name("outliers/vela")->RangeMultiplier(8)->Range(8, 1 << 18);
BENCHMARK_CAPTURE(remove_outliers, doubles, double_filter)
    ->Name("outliers/scale:the same in double")
    ->RangeMultiplier(8)
    ->Range(8, 1 << 18);

BENCHMARK_MAIN();
