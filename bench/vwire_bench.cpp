// The choice among 4 interfaces with 250 entries each, beside a bare walk over the same entries for the strongest.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <vector>
#include <vela/core/log.h>
#include <vela/mesh/vwire.h>

namespace
{

struct air {
    uplink_table table = {};
    scan_list heads[4] = {};
    std::vector<scan_entry> entries;

    explicit air(size_t per_interface) : entries(4 * per_interface)
    {
        table.count = 4;
        for (size_t i = 0; i < 4; ++i) {
            auto *head = reinterpret_cast<scan_entry *>(&heads[i]);
            table.entries[i].scan = &heads[i];
            heads[i].first = heads[i].last = head;
            for (size_t n = 0; n < per_interface; ++n) {
                scan_entry &e = entries[i * per_interface + n];
                e.rssi = static_cast<int32_t>(n * 7919 % 60);
                e.freq = n % 2 ? 5180 : 5955;
                snprintf(e.essid, sizeof e.essid, "mesh");
                e.serial[5] = static_cast<uint8_t>(n);
                for (auto &flag : e.mesh) flag = 1;
                e.next = head;
                e.prev = heads[i].last;
                (heads[i].last == head ? heads[i].first : heads[i].last->next) = &e;
                heads[i].last = &e;
            }
        }
    }
};

void peer_strongest(benchmark::State &state)
{
    air a(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        int32_t best = INT32_MIN;
        for (auto &head : a.heads) {
            for (scan_entry *e = head.first; e != reinterpret_cast<scan_entry *>(&head); e = e->next) {
                if (e->rssi > best && strcmp(e->essid, "mesh") == 0) best = e->rssi;
            }
        }
        benchmark::DoNotOptimize(best);
    }
}
BENCHMARK(peer_strongest)->Name("best parent/scale:strongest of all")->Arg(25)->Arg(250)->Arg(2500);

void select_best(benchmark::State &state)
{
    air a(static_cast<size_t>(state.range(0)));
    setenv("LIBVELA_VERBOSITY", "error", 1);
    libvela_log_init_from_env();
    int index = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(vwire_select_best_for_band(&a.table, "mesh", 4, "na", "02:56:4c:00:00:0a", 17,
                                                            "02:56:4c:00:00:0b", 17, &index));
    }
}
BENCHMARK(select_best)->Name("best parent/vela")->Arg(25)->Arg(250)->Arg(2500);

} // namespace

BENCHMARK_MAIN();
