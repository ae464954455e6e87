// Every process of this host, kernel threads included as on a device, beside libproc2 with the same items.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <libproc2/pids.h>
#include <vector>
#include <vela/monitor/process.h>

namespace
{

void ours(benchmark::State &state, uint32_t wants)
{
    int count = 0;
    for (auto _ : state) {
        count = vela_process_foreach(
            wants,
            [](const vela_process *process, void *) {
                benchmark::DoNotOptimize(process);
                return 0;
            },
            nullptr);
    }
    state.counters["processes"] = count;
}

void peer(benchmark::State &state, std::vector<pids_item> further)
{
    std::vector<pids_item> items = {PIDS_ID_PID, PIDS_ID_PPID, PIDS_ID_EUID,  PIDS_NLWP,
                                    PIDS_STATE,  PIDS_CMD,     PIDS_TICS_ALL, PIDS_TIME_START};
    items.insert(items.end(), further.begin(), further.end());
    pids_info *info = nullptr;
    procps_pids_new(&info, items.data(), static_cast<int>(items.size()));
    int count = 0;
    for (auto _ : state) count = procps_pids_reap(info, PIDS_FETCH_TASKS_ONLY)->counts->total;
    procps_pids_unref(&info);
    state.counters["processes"] = count;
}

using items = std::vector<pids_item>;
BENCHMARK_CAPTURE(ours, bare, 0)->Name("processes/vela");
BENCHMARK_CAPTURE(peer, bare, items{PIDS_MEM_RES, PIDS_MEM_VIRT})->Name("processes/libproc2");
BENCHMARK_CAPTURE(ours, whole, VELA_PROCESS_CMDLINE)->Name("processes with command lines/vela");
BENCHMARK_CAPTURE(peer, whole, items{PIDS_MEM_RES, PIDS_MEM_VIRT, PIDS_CMDLINE})
    ->Name("processes with command lines/libproc2");
BENCHMARK_CAPTURE(peer, ps, items{PIDS_VM_RSS, PIDS_VM_SIZE, PIDS_CMDLINE})
    ->Name("processes with command lines/libproc2, the items that ps asks for");

} // namespace

BENCHMARK_MAIN();
