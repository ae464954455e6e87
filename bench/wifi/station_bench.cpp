// The processor time of listing an access point's stations as a program of its own, beside `iw station dump`. The
// machine is simulated instruction by instruction: only the ratio means something.
#include "tests/wifi/machine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <event2/event.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <vector>
#include <vela/wireless/station.h>

extern char **environ;

namespace
{

constexpr int rounds = 25;

/// Every figure of every station as text.
double walk_ms(vl_nl80211_service &service, FILE *out)
{
    const auto now_ms = [] {
        timespec used = {};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
        return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
    };
    const double before = now_ms();
    const auto print = [](const vela_sta_info *info, void *to) {
        json_t *object = vela_sta_json(info, nullptr);
        json_dumpf(object, static_cast<FILE *>(to), JSON_INDENT(1));
        json_decref(object);
        return 0;
    };
    const int count = vela_sta_foreach(&service, "wlan0", print, out);
    return count == 2 ? now_ms() - before : -1e9;
}

double cpu_ms(std::vector<const char *> command)
{
    command.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", 1, 0); // O_WRONLY
    pid_t pid = 0;
    int status = 1;
    rusage used = {};
    if (posix_spawnp(&pid, command[0], &quiet, nullptr, const_cast<char **>(command.data()), environ) == 0) {
        wait4(pid, &status, 0, &used);
    }
    posix_spawn_file_actions_destroy(&quiet);
    if (status != 0) return -1e9;
    const auto ms = [](const timeval &t) {
        return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_usec) / 1e3;
    };
    return ms(used.ru_utime) + ms(used.ru_stime);
}

double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + rounds / 2, values.end());
    return values[rounds / 2];
}

} // namespace

int main()
{
    machine::fresh_radios();
    const machine::access_point ap("wlan0", {.channel = 36});
    const machine::station first("wlan1", "vela", 5180), second("wlan2", "vela", 5180);
    event_base *base = event_base_new();
    vl_nl80211_service service = {};
    FILE *out = fopen("/dev/null", "we");
    if (vl_nl80211_service_init(&service, base) != 0 || !out) return 1;
    std::vector<double> ours, theirs;
    for (int n = 0; n < rounds; ++n) {
        theirs.push_back(cpu_ms({"iw", "dev", "wlan0", "station", "dump"}));
        ours.push_back(walk_ms(service, out));
    }
    printf("two stations: %.2f ms of processor time, iw %.2f ms, ratio %.2f\n", median(ours), median(theirs),
           median(ours) / median(theirs));
    fclose(out);
    vl_nl80211_service_deinit(&service);
    event_base_free(base);
    return median(ours) > 0 && median(theirs) > 0 ? 0 : 1;
}
