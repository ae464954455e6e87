// Interfaces, forwarding databases and neighbours, beside another netlink library's lists of the same, and one look-up
// of a hardware address beside the bridge's file in sysfs.
#include "site/world.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/neighbour.h>
#include <sched.h>
#include <string>
#include <unistd.h>
#include <vela/net/bridge.h>
#include <vela/net/netif.h>

namespace
{

void must_run(const std::string &commands)
{
    site::put_file("/tmp/lay", commands);
    if (site::run("sh -e /tmp/lay") != 0) abort();
}

/// Moves to a network of its own, laid by `commands`, which are for "ip -batch".
void enter(const std::string &name, const std::string &commands)
{
    if (!site::exists("/run/netns/" + name)) {
        site::put_file("/tmp/batch", commands);
        must_run("ip netns add " + name + "; ip -n " + name + " -batch /tmp/batch");
    }
    const int fd = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (setns(fd, CLONE_NEWNET) != 0) abort();
    close(fd);
}

/// So many interfaces, each with an address.
void enter_links(int64_t count)
{
    std::string commands;
    for (int64_t i = 0; i < count / 2; ++i) {
        const std::string n = std::to_string(i);
        const std::string rest = std::to_string(i / 250) + "." + std::to_string(i % 250) + "/16 dev ";
        commands += "link add a" + n + " type veth peer name b" + n + "\nlink set a" + n + " up\nlink set b" + n +
                    " up\naddress add 10.1." + rest + "a" + n + "\naddress add 10.2." + rest + "b" + n + "\n";
    }
    enter("links" + std::to_string(count), commands);
}

std::string mac_of(int64_t i)
{
    char mac[18];
    snprintf(mac, sizeof mac, "02:56:4c:%02x:%02x:01", static_cast<unsigned>(i >> 8), static_cast<unsigned>(i & 255));
    return mac;
}

/// So many neighbours on one interface.
void enter_neighbours(int64_t count)
{
    std::string commands =
        "link add eth0 type veth peer name far0\nlink set eth0 up\naddress add 10.9.0.1/16 dev eth0\n";
    for (int64_t i = 0; i < count; ++i) {
        commands += "neigh add 10.9." + std::to_string(1 + i / 200) + "." + std::to_string(1 + i % 200) + " lladdr " +
                    mac_of(i) + " nud permanent dev eth0\n";
    }
    enter("neighbours" + std::to_string(count), commands);
}

/// A bridge of the world's own network, which sysfs shows, with two ports and so many static entries.
std::string lay_bridge(int64_t count)
{
    static const int network = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (setns(network, CLONE_NEWNET) != 0) abort();
    const std::string n = std::to_string(count);
    if (count == 0 || site::exists("/sys/class/net/br" + n)) return "br" + n;
    must_run("ip link add br" + n + " type bridge; for i in 1 2; do ip link add e" + n + ".$i type veth peer name f" +
             n + ".$i; ip link set e" + n + ".$i up master br" + n + "; done");
    std::string commands;
    for (int64_t i = 0; i < count; ++i) {
        commands += "fdb add " + mac_of(i) + " dev e" + n + "." + std::to_string(1 + i % 2) + " master static\n";
    }
    site::put_file("/tmp/batch", commands);
    must_run("bridge -batch /tmp/batch");
    return "br" + n;
}

/// A socket and a list of libnl's, as one look at a table takes them.
struct listing {
    nl_sock *socket = nl_socket_alloc();
    nl_cache *cache = nullptr;
    listing()
    {
        if (nl_connect(socket, NETLINK_ROUTE) != 0) abort();
    }
    ~listing()
    {
        nl_cache_free(cache);
        nl_socket_free(socket);
    }
};

void peer_links(benchmark::State &state)
{
    enter_links(state.range(0));
    for (auto _ : state) {
        listing links;
        listing addresses;
        if (rtnl_link_alloc_cache(links.socket, AF_UNSPEC, &links.cache) != 0) abort();
        if (rtnl_addr_alloc_cache(addresses.socket, &addresses.cache) != 0) abort();
        benchmark::DoNotOptimize(nl_cache_nitems(links.cache) + nl_cache_nitems(addresses.cache));
    }
}
BENCHMARK(peer_links)->Name("vela_netif_foreach/libnl-route caches")->Arg(64)->Arg(256);

void ours_links(benchmark::State &state)
{
    enter_links(state.range(0));
    for (auto _ : state) {
        uint64_t bytes = 0;
        const auto add = [](const vela_netif *n, void *arg) {
            *static_cast<uint64_t *>(arg) += n->rx_bytes + n->address_count;
            return 0;
        };
        if (vela_netif_foreach(add, &bytes) < state.range(0)) state.SkipWithError("links are missing");
        benchmark::DoNotOptimize(bytes);
    }
}
BENCHMARK(ours_links)->Name("vela_netif_foreach/vela")->Arg(64)->Arg(256);

void peer_neighbours(benchmark::State &state)
{
    enter_neighbours(state.range(0));
    for (auto _ : state) {
        listing neighbours;
        if (rtnl_neigh_alloc_cache(neighbours.socket, &neighbours.cache) != 0) abort();
        benchmark::DoNotOptimize(nl_cache_nitems(neighbours.cache));
    }
}
BENCHMARK(peer_neighbours)->Name("vela_neighbour_foreach/libnl-route cache")->Arg(100)->Arg(900);

template <class Record> int count_up(const Record *, void *arg)
{
    ++*static_cast<int64_t *>(arg);
    return 0;
}

void ours_neighbours(benchmark::State &state)
{
    enter_neighbours(state.range(0));
    for (auto _ : state) {
        int64_t count = 0;
        (void)vela_neighbour_foreach(0, nullptr, count_up<vela_neighbour>, &count);
        if (count < state.range(0)) state.SkipWithError("neighbours are missing");
    }
}
BENCHMARK(ours_neighbours)->Name("vela_neighbour_foreach/vela")->Arg(100)->Arg(900);

void peer_lookup(benchmark::State &state)
{
    const std::string bridge = lay_bridge(state.range(0));
    int port = 0;
    for (auto _ : state) port = get_mac_brinfo(bridge.c_str(), "02:56:4c:00:5f:01");
    if (port < 1) state.SkipWithError("not found");
}
BENCHMARK(peer_lookup)->Name("vela_fdb_find/get_mac_brinfo")->Arg(100)->Arg(10000);

void ours_lookup(benchmark::State &state)
{
    const std::string bridge = lay_bridge(state.range(0));
    const uint8_t wanted[] = {0x02, 0x56, 0x4c, 0x00, 0x5f, 0x01};
    vela_fdb_entry entry = {};
    for (auto _ : state) {
        if (vela_fdb_find(bridge.c_str(), wanted, 0, &entry) != 0) state.SkipWithError("not found");
    }
}
BENCHMARK(ours_lookup)->Name("vela_fdb_find/vela")->Arg(100)->Arg(10000);

} // namespace

int main(int argc, char **argv)
{
    site::enter_world();
    (void)lay_bridge(0); // remembers this network
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
