// On texts put in /proc's place, and once on the kernel's own.
#include "site/world.h"
#include "tests/support/json.h"
#include "tests/support/table.h"

#include <cerrno>
#include <sys/sysinfo.h>
#include <vela/monitor/load.h>

namespace
{

using shares = std::vector<uint32_t>; // busy, user, system, iowait, irq, steal

constexpr uint32_t unknown = UINT32_MAX;
const shares nothing(6, unknown);

vela_cpu_sample sample(const std::string &stat)
{
    site::put_file("/proc/stat", stat);
    vela_cpu_sample s;
    EXPECT_EQ(0, vela_cpu_sample_take(&s)) << stat;
    return s;
}

shares listed(const vela_cpu_share &s) { return {s.busy, s.user, s.system, s.iowait, s.irq, s.steal}; }

} // namespace

TEST(Load, SharesOfTheTimeBetweenTwoSamples)
{
    const std::string before = "cpu  100 10 50 800 20 5 5 10 0 0\n";
    for (const auto &[now, result, expected] : table<std::string, int, shares>{
             {"cpu  150 20 80 1600 60 15 35 40 0 0\n", 0, {160, 60, 30, 40, 40, 30}}, // of 1000 ticks
             {"cpu  101 10 50 801 20 5 6 10 0 0\n", 0, {667, 333, 0, 0, 333, 0}},
             {"cpu  200 10 50 800 10 5 5 10 0 0\n", 0, {1000, 1000, 0, 0, 0, 0}}, // iowait fell
             {"cpu  200 10 50 700 20 5 5 10 0 0\n", 0, {1000, 1000, 0, 0, 0, 0}}, // so did idle
             {before, -ENODATA, {}},
             {"cpu  200 10 49 900 20 5 5 10 0 0\n", -ENODATA, {}},
             {"cpu  0 0 0 0 0 0 0 0 0 0\n", -ENODATA, {}},
             {"cpu  18446744073709551615 10 50 18446744073709551615 20 5 5 10\n", -ENODATA, {}}}) {
        vela_cpu_shares out = {7, {}, {}};
        const vela_cpu_sample a = sample(before), b = sample(now);
        EXPECT_EQ(result, vela_cpu_load(&a, &b, &out)) << now;
        if (result == 0) EXPECT_EQ(expected, listed(out.total)) << now;
        EXPECT_EQ(result == 0 ? 0U : 7U, out.cpu_count) << "untouched on failure";
    }
}

TEST(Load, ProcessorsComeAndGo)
{
    const std::string rest = " 0 0 100 0 0 0 0\n", later = " 0 0 150 0 0 0 0\n";
    const auto cpus = [](const std::string &a, const std::string &b) { // numbers with one row each
        return "cpu " + a + b + "intr 5 6 7\n";
    };
    const vela_cpu_sample before =
        sample(cpus("10" + rest, "cpu0 1" + rest + "cpu1 2" + rest + "cpu63 3" + rest + "cpu64 9" + rest));
    const vela_cpu_sample now = sample(cpus("60" + later, "cpu0 51" + later + "cpu2 2" + later + "cpu63 3" + later));
    EXPECT_EQ(64U, before.cpu_count);
    EXPECT_EQ(UINT64_MAX, now.cpu[1].user) << "offline";
    vela_cpu_shares out;
    ASSERT_EQ(0, vela_cpu_load(&before, &now, &out));
    EXPECT_EQ((shares{500, 500, 0, 0, 0, 0}), listed(out.total));
    EXPECT_EQ((shares{500, 500, 0, 0, 0, 0}), listed(out.cpu[0]));
    for (const size_t n : {1, 2, 3}) EXPECT_EQ(nothing, listed(out.cpu[n])) << n;
    EXPECT_EQ((shares{0, 0, 0, 0, 0, 0}), listed(out.cpu[63]));
    const vela::json_ref json{vela_load_json(&before, &now)};
    EXPECT_EQ(R"({"busy_permille":500,"cpu":0,"iowait_permille":0,"irq_permille":0,"steal_permille":0,)"
              R"("system_permille":0,"user_permille":500})",
              dumped(json_array_get(json_object_get(json_object_get(json.get(), "cpu"), "cpus"), 0)));
    EXPECT_EQ(2U, json_array_size(json_object_get(json_object_get(json.get(), "cpu"), "cpus")));
    EXPECT_EQ(nullptr, json_object_get(vela::json_ref{vela_load_json(&now, &before)}.get(), "cpu"));
    for (const char *bad : {"", "cpu  1 2 3\n", "cpu  1 2 3 4 5 6 7 x\n", "cpu  1 2 3 4 5 6 7 8", "ctxt 5\n",
                            "cpu  1 2 3 4 5 6 7 8\ncpu0 1\n"}) {
        site::put_file("/proc/stat", bad);
        vela_cpu_sample s = {7, {}, {}};
        EXPECT_EQ(-EIO, vela_cpu_sample_take(&s)) << bad;
        EXPECT_EQ(7U, s.cpu_count);
    }
}

TEST(Load, MemoryPressureAndLoadAverage)
{
    vela_memory memory;
    struct sysinfo info;
    ASSERT_TRUE(vela_memory_get(&memory) == 0 && sysinfo(&info) == 0);
    EXPECT_EQ(info.totalram / 1024, memory.total);
    EXPECT_LE(memory.available, memory.total);
    site::put_file("/proc/meminfo", "MemTotal: 512 kB\nMemFree:  64 kB\nCached: 9999999999999999999999 kB\nShmem: 3");
    ASSERT_EQ(0, vela_memory_get(&memory));
    EXPECT_TRUE(memory.total == 512 && memory.free == 64);
    EXPECT_TRUE(memory.cached == UINT64_MAX && memory.shmem == UINT64_MAX && memory.available == UINT64_MAX);
    site::put_file("/proc/meminfo", "MemFree: 64 kB\n");
    EXPECT_EQ(-EIO, vela_memory_get(&memory));

    vela_loadavg load;
    site::put_file("/proc/loadavg", "0.52 12.08 100.00 3/597 12345\n");
    ASSERT_EQ(0, vela_loadavg_get(&load));
    EXPECT_EQ(std::make_tuple(520U, 12080U, 100000U, 3U, 597U),
              std::tie(load.avg1, load.avg5, load.avg15, load.running, load.threads));
    for (const char *bad : {"", "0.5 1.00 1.00 1/2 3", "1 1 1 1/2 3", "9999999.00 1.00 1.00 1/2", "1.00 1.00 1.00 3"}) {
        site::put_file("/proc/loadavg", bad);
        EXPECT_EQ(-EIO, vela_loadavg_get(&load)) << bad;
    }

    remove("/proc/pressure");
    vela_pressure pressure;
    EXPECT_EQ(-EOPNOTSUPP, vela_pressure_get(&pressure));
    const std::string some = "some avg10=1.25 avg60=98.40 avg300=0.04 total=309344408\n";
    for (const std::string resource : {"cpu", "memory", "io"}) {
        site::put_file("/proc/pressure/" + resource, some + (resource == "cpu" ? "" : "full" + some.substr(4)));
    }
    ASSERT_EQ(0, vela_pressure_get(&pressure));
    for (const vela_stall &s : {pressure.cpu.some, pressure.io.full}) {
        EXPECT_EQ(std::make_tuple(13U, 984U, 0U, 309344408U), std::tie(s.avg10, s.avg60, s.avg300, s.total_us));
    }
    EXPECT_EQ(unknown, pressure.cpu.full.avg10) << "older kernels have none";
    const vela::json_ref json{vela_load_json(nullptr, nullptr)};
    EXPECT_EQ(R"({"some":{"avg10_permille":13,"avg300_permille":0,"avg60_permille":984,"total_us":309344408}})",
              dumped(json_object_get(json_object_get(json.get(), "pressure"), "cpu")));
    EXPECT_FALSE(json_object_get(json.get(), "cpu") || json_object_get(json.get(), "memory"));
    site::put_file("/proc/pressure/io", "some avg10=1.2 avg60=1.00 avg300=1.00 total=1\n");
    EXPECT_EQ(-EIO, vela_pressure_get(&pressure));
}
