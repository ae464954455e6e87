// Ranking sixty 6 GHz channels against two hundred access points, beside walking that list once per channel.
#include <benchmark/benchmark.h>
#include <linux/nl80211.h>
#include <random>
#include <vela/wireless/acs.h>

namespace
{

struct air {
    vela_channel channels[59];
    vela_airtime airtimes[59];
    scan_entry heard[200] = {};
    scan_list list;

    air()
    {
        std::mt19937 random(1);
        for (uint32_t n = 0; n < 59; ++n) {
            const uint32_t mhz = 5955 + 20 * n;
            channels[n] = {mhz, NL80211_BAND_6GHZ, 1 + 4 * n, 0, 31, 2300, UINT32_MAX, UINT32_MAX, UINT32_MAX};
            airtimes[n] = {mhz, 300, 100, 200, -90};
        }
        auto *head = reinterpret_cast<scan_entry *>(&list);
        list = {head, head};
        for (auto &e : heard) {
            e.freq = 5955 + 20 * (random() % 59);
            e.rssi = static_cast<int32_t>(random() % 70);
            e.next = list.first;
            list.first = &e;
        }
    }
} air;

void rank(benchmark::State &state)
{
    const vela_acs_options options = {.band = NL80211_BAND_6GHZ, .width_mhz = static_cast<uint32_t>(state.range(0))};
    vela_acs_candidate out[128];
    for (auto _ : state) {
        benchmark::DoNotOptimize(vela_acs_rank(air.channels, 59, air.airtimes, 59, &air.list, &options, out, 128));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(rank)->Name("channel choice, MHz wide/vela")->Arg(20)->Arg(80)->Arg(320);

void walk(benchmark::State &state)
{
    for (auto _ : state) {
        uint32_t strong = 0;
        for (const auto &channel : air.channels) {
            for (const scan_entry *e = air.list.first; e != reinterpret_cast<const scan_entry *>(&air.list);
                 e = e->next) {
                strong += e->freq == channel.freq_mhz && e->rssi > 30;
            }
        }
        benchmark::DoNotOptimize(strong);
    }
}
BENCHMARK(walk)->Name("channel choice, MHz wide/scale:that many walks over the list")->Arg(20);

} // namespace

BENCHMARK_MAIN();
