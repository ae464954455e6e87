// Finding the gateway's port, beside a bare dump of the same two tables by a program that only looks for its end.
#include "site/world.h"

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <linux/rtnetlink.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vela/core/log.h>
#include <vela/net/gateway.h>

namespace
{

/// A device with three ports, the gateway behind the first, and so many other neighbours.
void lay_neighbours(int64_t count)
{
    static bool laid = false;
    if (!laid) {
        site::run("ip netns add gw; for i in 0 1 2; do ip link add eth$i type veth peer name far$i netns gw;"
                  "ip link set eth$i up; ip -n gw link set far$i up; done;"
                  "ip address add 192.168.0.2/20 dev eth0; ip route add default via 192.168.0.1");
        laid = true;
    }
    std::string batch = "neigh flush dev eth0 nud permanent\n";
    for (int64_t i = 0; i < count; ++i) {
        batch += "neigh replace 192.168." + std::to_string(1 + i / 200) + "." + std::to_string(1 + i % 200) +
                 " lladdr 02:56:4c:00:08:01 nud permanent dev eth0\n";
    }
    batch += "neigh replace 192.168.0.1 lladdr 02:56:4c:00:07:01 nud stale dev eth0\n"; // does not end the search
    site::put_file("/tmp/batch", batch);
    if (site::run("ip -batch /tmp/batch") != 0) abort();
}

size_t dump(uint16_t type)
{
    struct {
        nlmsghdr header;
        rtmsg body;
    } request = {};
    request.header = {sizeof request, type, NLM_F_REQUEST | NLM_F_DUMP, 1, 0};
    request.body.rtm_family = AF_INET;
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    send(fd, &request, sizeof request, 0);
    static char buffer[16384];
    size_t total = 0;
    for (bool more = true; more;) {
        const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) abort();
        total += static_cast<size_t>(n);
        auto left = static_cast<unsigned>(n);
        for (auto *m = reinterpret_cast<const nlmsghdr *>(buffer); NLMSG_OK(m, left); m = NLMSG_NEXT(m, left)) {
            if (m->nlmsg_type == NLMSG_DONE || m->nlmsg_type == NLMSG_ERROR) more = false;
        }
    }
    close(fd);
    return total;
}

void peer_dump(benchmark::State &state)
{
    lay_neighbours(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(dump(RTM_GETROUTE));
        benchmark::DoNotOptimize(dump(RTM_GETNEIGH));
    }
}
BENCHMARK(peer_dump)->Name("gateway_detect_uplink/bare dump of both tables")->Arg(16)->Arg(64)->Arg(180);

void detect(benchmark::State &state)
{
    lay_neighbours(state.range(0));
    char candidates[3][16] = {"eth0", "eth1", "eth2"};
    char port[16] = "";
    for (auto _ : state) benchmark::DoNotOptimize(gateway_detect_uplink("br0", candidates, 3, port, sizeof port));
    if (strcmp(port, "eth0") != 0) state.SkipWithError("not found");
}
BENCHMARK(detect)->Name("gateway_detect_uplink/vela")->Arg(16)->Arg(64)->Arg(180);

} // namespace

int main(int argc, char **argv)
{
    site::enter_world();
    setenv("LIBVELA_VERBOSITY", "error", 1);
    libvela_log_init_from_env();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
