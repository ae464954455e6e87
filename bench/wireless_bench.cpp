// Channel arithmetic beside an integer division, scoring beside the formatting of one of its numbers.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <vela/wireless/freq.h>
#include <vela/wireless/satisfaction.h>

namespace
{

constexpr uint32_t frequencies_mhz[] = {2412, 2484, 4920, 5180, 5825, 5955, 7115, 58320};

template <auto Convert> void each_frequency(benchmark::State &state)
{
    for (size_t i = 0; auto _ : state) {
        uint32_t mhz = frequencies_mhz[i++ % std::size(frequencies_mhz)];
        benchmark::DoNotOptimize(mhz);
        benchmark::DoNotOptimize(Convert(mhz));
    }
}

uint32_t divide(uint32_t mhz) { return mhz / 5; }
BENCHMARK(each_frequency<vl_freq_to_channel>)->Name("vl_freq_to_channel/vela");
BENCHMARK(each_frequency<divide>)->Name("vl_freq_to_channel/scale:one division");
BENCHMARK(each_frequency<vl_freq_to_band>)->Name("vl_freq_to_band/vela");
BENCHMARK(each_frequency<divide>)->Name("vl_freq_to_band/scale:one division");
BENCHMARK(each_frequency<get_band>)->Name("get_band/vela");
BENCHMARK(each_frequency<divide>)->Name("get_band/scale:one division");
BENCHMARK(each_frequency<ieee80211_mhz2ieee>)->Name("ieee80211_mhz2ieee/vela");
BENCHMARK(each_frequency<divide>)->Name("ieee80211_mhz2ieee/scale:one division");

void peer_snprintf(benchmark::State &state)
{
    char text[16];
    for (auto _ : state) {
        benchmark::DoNotOptimize(snprintf(text, sizeof text, "%d", 97));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(peer_snprintf)->Name("calc_sta_satisfaction/scale:snprintf of one number");

void satisfaction(benchmark::State &state)
{
    vela_station station = {};
    station.freq = 5180;
    station.tx_rate = 20000;
    station.radio_health = 90;
    station.tcp_stats[0] = {.lat_samples = 10, .lat_avg = 60};
    station.tcp_stats[1] = {.lat_samples = 10, .lat_avg = 70};
    station.tx_tries = 1000;
    station.tx_retries = 400;
    station.tx_drops = 3;
    station.chip_code = 24;
    station.has_ip = station.arp_ok = 1;
    station.dns_latency = 300;
    for (auto _ : state) {
        benchmark::DoNotOptimize(calc_sta_satisfaction(&station));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(satisfaction)->Name("calc_sta_satisfaction/vela");

} // namespace

BENCHMARK_MAIN();
