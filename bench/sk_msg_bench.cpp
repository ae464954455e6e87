// A message of 1 MiB over a socket pair, beside a bare loop of the same waits, sends and receives. The sender is a
// thread of its own: the queue between them holds a handful of datagrams.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <sys/select.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>
#include <vela/ipc/sk_msg.h>

namespace
{

constexpr int32_t size = 1 << 20;
constexpr size_t piece_max = 16384;
constexpr int timeout_s = 5;

bool wait_for(int fd, bool writing)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval time = {timeout_s, 0};
    return select(fd + 1, writing ? nullptr : &set, writing ? &set : nullptr, nullptr, &time) == 1;
}

void bare_send(int fd, const uint8_t *data)
{
    const int32_t header[2] = {1, size};
    if (!wait_for(fd, true) || send(fd, header, sizeof header, MSG_DONTWAIT) < 0) abort();
    for (size_t sent = 0; sent < size; sent += piece_max) {
        if (!wait_for(fd, true) || send(fd, data + sent, piece_max, MSG_DONTWAIT) < 0) abort();
    }
}

void bare_receive(int fd, uint8_t *out)
{
    int32_t header[2] = {};
    if (!wait_for(fd, false) || recv(fd, header, sizeof header, 0) < 0) abort();
    for (int32_t received = 0; received < header[1];) {
        if (!wait_for(fd, false)) abort();
        received += static_cast<int32_t>(recv(fd, out + received, piece_max, 0));
    }
}

/// Runs one side in the benchmark's thread and the other in its own, message for message, until the last.
template <class Send, class Receive> void transfer(benchmark::State &state, Send send_one, Receive receive_one)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0) abort();
    std::thread sender([&] {
        for (benchmark::IterationCount i = 0; i < state.max_iterations; ++i) send_one(ends[0]);
    });
    for (auto _ : state) receive_one(ends[1]);
    sender.join();
    state.SetBytesProcessed(state.iterations() * size);
    close(ends[0]);
    close(ends[1]);
}

void one_mib_sk_msg(benchmark::State &state)
{
    sk_msg out = {1, size, buffer_create2(size)};
    sk_msg in = {0, 0, buffer_create2(size)};
    memset(out.data->append_zeroed(out.data, size), 0x5A, size);
    transfer(
        state,
        [&](int fd) {
            if (sk_msg_send(fd, &out, timeout_s) != size) abort();
        },
        [&](int fd) {
            if (sk_msg_recv(fd, &in, timeout_s) != size) abort();
            in.data->read(in.data, nullptr, size);
        });
    buffer_destroy(out.data);
    buffer_destroy(in.data);
}

void one_mib_bare(benchmark::State &state)
{
    const std::vector<uint8_t> out(size, 0x5A);
    std::vector<uint8_t> in(size);
    transfer(
        state, [&](int fd) { bare_send(fd, out.data()); }, [&](int fd) { bare_receive(fd, in.data()); });
}

} // namespace

BENCHMARK(one_mib_sk_msg)->Name("message of 1 MiB/vela")->UseRealTime();
BENCHMARK(one_mib_bare)->Name("message of 1 MiB/bare loop")->UseRealTime();
BENCHMARK_MAIN();
