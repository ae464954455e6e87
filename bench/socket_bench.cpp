// All sockets of a device with their owners, beside ss with the same options: processor time of the whole program, and
// without what starting it takes. The device has 100 programs with 4 sockets and 8 other descriptors each.
#include "site/world.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vela/monitor/socket.h>

namespace
{

void lay_sockets()
{
    mount("proc", "/proc", "proc", 0, "");
    for (int i = 0; i < 100; ++i) {
        if (fork() != 0) continue;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int pair[2];
        (void)!socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
        listen(socket(AF_INET, SOCK_STREAM, 0), 5); // takes any port
        listen(socket(AF_INET6, SOCK_STREAM, 0), 5);
        for (int n = 0; n < 8; ++n) (void)!open("/dev/null", O_RDONLY);
        for (;;) pause();
    }
    usleep(200'000);
}

double seconds(int whose)
{
    rusage usage;
    getrusage(whose, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           1e-6 * static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

void ours(benchmark::State &state, uint32_t wants)
{
    constexpr uint32_t families = VELA_SOCKET_TCP | VELA_SOCKET_UDP | VELA_SOCKET_RAW | VELA_SOCKET_UNIX;
    const auto each = [](const vela_socket *socket, void *) {
        benchmark::DoNotOptimize(socket);
        return 0;
    };
    for (auto _ : state) {
        const double before = seconds(RUSAGE_SELF);
        if (vela_socket_foreach(families, 0, wants, nullptr, each, nullptr) < 400) abort();
        state.SetIterationTime(seconds(RUSAGE_SELF) - before);
    }
}

/// Of a command with each argument, less that of another one.
void peer(benchmark::State &state, const char *command, const char *subtracted)
{
    const auto cost = [](const char *option) {
        const double before = seconds(RUSAGE_CHILDREN);
        const pid_t child = fork();
        if (child == 0) {
            dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
            dup2(STDOUT_FILENO, STDERR_FILENO);
            execlp("ss", "ss", option, "-e", nullptr);
            _exit(1);
        }
        waitpid(child, nullptr, 0);
        return seconds(RUSAGE_CHILDREN) - before;
    };
    for (auto _ : state) {
        const double whole = cost(command);
        state.SetIterationTime(std::max(whole - (subtracted ? cost(subtracted) : 0), 1e-9));
    }
}

BENCHMARK_CAPTURE(ours, owners, VELA_SOCKET_OWNER)->Name("sockets and owners/vela")->UseManualTime();
BENCHMARK_CAPTURE(peer, less, "-tuxwanpOH", "-VH")->Name("sockets and owners/ss, less its start")->UseManualTime();
BENCHMARK_CAPTURE(peer, whole, "-tuxwanpOH", nullptr)->Name("sockets and owners/ss")->UseManualTime();
BENCHMARK_CAPTURE(ours, bare, 0)->Name("sockets/vela")->UseManualTime();
BENCHMARK_CAPTURE(peer, bare, "-tuxwanOH", "-VH")->Name("sockets/ss, less its start")->UseManualTime();

} // namespace

int main(int argc, char **argv)
{
    site::enter_world();
    lay_sockets();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
