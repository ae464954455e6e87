// A request to the management daemon and its answer, beside the bare exchange of the same datagrams: once from a socket
// bound for each exchange at a temporary path, as any client must have that wants an answer to itself only, and once
// from a socket kept for all of them.
#include "site/mgrd.h"
#include "site/world.h"

#include <benchmark/benchmark.h>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <malloc.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <vela/ipc/ctrl-proto.h>

namespace
{

constexpr const char *daemon_path = "/tmp/.mgrd";
constexpr char question[] = R"({"op":"status"})";
constexpr char answer[] = R"({"uplink":"eth0","stations":17,"uptime":86400,"version":"6.7.10"})";
constexpr timeval timeout = {5, 0};

sockaddr *as_sockaddr(const site::local_address &a)
{
    return reinterpret_cast<sockaddr *>(const_cast<sockaddr_un *>(&a.address));
}

int bound(const char *path)
{
    const auto at = site::path_address(path);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(fd, as_sockaddr(at), at.length) != 0) abort();
    return fd;
}

/// The daemon, as fast as can be: every second datagram is a request, and gets its two back.
void answer_all()
{
    const auto datagrams = site::json_answer(answer);
    const int fd = bound(daemon_path);
    char request[20000];
    for (;;) {
        site::local_address client;
        for (int i = 0; i < 2; ++i) {
            client.length = sizeof client.address;
            (void)!recvfrom(fd, request, sizeof request, 0, as_sockaddr(client), &client.length);
        }
        for (const auto &[content, sender] : datagrams)
            (void)!sendto(fd, content.data(), content.size(), 0, as_sockaddr(client), client.length);
    }
}

void start_daemon()
{
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        answer_all();
    }
    while (access(daemon_path, F_OK) != 0) usleep(1000);
}

/// The datagrams alone: out by two, in by two, each awaited.
void exchange(int fd, const site::mgrd_answer &request)
{
    static const auto to = site::path_address(daemon_path);
    for (const auto &[content, sender] : request)
        (void)!sendto(fd, content.data(), content.size(), 0, as_sockaddr(to), to.length);
    char in[20000];
    for (int i = 0; i < 2; ++i) {
        pollfd entry = {fd, POLLIN, 0};
        poll(&entry, 1, 5000);
        if (recv(fd, in, sizeof in, 0) <= 0) abort();
    }
}

void round_trip_service_json(benchmark::State &state)
{
    buffer *text = buffer_create();
    text->append(text, question, sizeof question - 1);
    for (auto _ : state) {
        json_t *value = service_json(text, &timeout);
        if (!value) state.SkipWithError("no answer");
        json_decref(value);
    }
    buffer_destroy(text);
}

void round_trip_bare_own_socket(benchmark::State &state)
{
    const auto request = site::json_answer(question);
    for (auto _ : state) {
        char path[] = "/tmp/.mgr-XXXXXX";
        close(mkstemp(path));
        unlink(path);
        const int fd = bound(path);
        exchange(fd, request);
        close(fd);
        unlink(path);
    }
}

void round_trip_bare_kept_socket(benchmark::State &state)
{
    const auto request = site::json_answer(question);
    const int fd = bound("/tmp/.mgr-bench0");
    for (auto _ : state) exchange(fd, request);
    close(fd);
    unlink("/tmp/.mgr-bench0");
}

ptrdiff_t open_descriptors()
{
    return std::distance(std::filesystem::directory_iterator{"/proc/self/fd"}, std::filesystem::directory_iterator{});
}

/// What 100,000 round trips leave behind, in bytes and descriptors.
void growth_over_100000(benchmark::State &state)
{
    for (int i = 0; i < 100; ++i) json_decref(service_simple_op("status", &timeout));
    const auto descriptors = open_descriptors();
    const auto heap = static_cast<double>(mallinfo2().uordblks);
    for (auto _ : state) json_decref(service_simple_op("status", &timeout));
    state.counters["heap_bytes_grown"] = static_cast<double>(mallinfo2().uordblks) - heap;
    state.counters["descriptors_grown"] = static_cast<double>(open_descriptors() - descriptors);
}

} // namespace

BENCHMARK(round_trip_service_json)->Name("service_json/vela")->UseRealTime();
BENCHMARK(round_trip_bare_own_socket)->Name("service_json/bare, a socket each")->UseRealTime();
BENCHMARK(round_trip_bare_kept_socket)->Name("service_json/scale:bare, one socket kept")->UseRealTime();
BENCHMARK(growth_over_100000)->Name("100000 requests in one process/vela")->Iterations(100000)->UseRealTime();

int main(int argc, char **argv)
{
    site::enter_world();
    start_daemon();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
