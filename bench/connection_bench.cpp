// The table of tracked connections, read whole, beside libnetfilter_conntrack with the same figures asked for, and
// beside the kernel's part alone: a dump that nobody looks at.
#include "site/world.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vela/monitor/connection.h>

namespace
{

void lay_connections(int64_t count)
{
    std::string lines;
    for (int64_t i = 0; i < count; ++i) {
        lines += "-A -t 10000 -p " + std::string(i % 2 ? "tcp --state ESTABLISHED" : "udp") + " -s 10." +
                 std::to_string(i >> 8) + "." + std::to_string(i & 255) + ".1 -d 10.0.0.2 --sport 1000 --dport 53\n";
    }
    site::put_file("/tmp/lines", lines);
    if (site::run("conntrack -F 2>/dev/null; conntrack -R /tmp/lines 2>/dev/null") != 0) abort();
}

/// What both sum up, so that every figure is looked at.
struct sum {
    uint64_t figures;
    int count;
};

void ours(benchmark::State &state)
{
    lay_connections(state.range(0));
    const auto each = [](const vela_connection *c, void *arg) {
        auto &total = *static_cast<sum *>(arg);
        total.figures += c->family + c->protocol + c->status + c->timeout_s + c->mark + c->id + c->tcp_state +
                         c->original.source[1] + c->original.destination_port + c->reply.source_port +
                         c->original_bytes + c->reply_packets;
        return 0;
    };
    for (auto _ : state) {
        sum total = {};
        if (vela_connection_foreach(nullptr, each, &total) != state.range(0)) state.SkipWithError("another number");
        benchmark::DoNotOptimize(total);
    }
    state.SetComplexityN(state.range(0));
}

void peer(benchmark::State &state)
{
    lay_connections(state.range(0));
    const auto each = [](nf_conntrack_msg_type, nf_conntrack *c, void *arg) {
        auto &total = *static_cast<sum *>(arg);
        total.figures +=
            nfct_get_attr_u8(c, ATTR_L3PROTO) + nfct_get_attr_u8(c, ATTR_L4PROTO) + nfct_get_attr_u32(c, ATTR_STATUS) +
            nfct_get_attr_u32(c, ATTR_TIMEOUT) + nfct_get_attr_u32(c, ATTR_MARK) + nfct_get_attr_u32(c, ATTR_ID) +
            nfct_get_attr_u8(c, ATTR_TCP_STATE) + nfct_get_attr_u32(c, ATTR_ORIG_IPV4_SRC) +
            nfct_get_attr_u16(c, ATTR_ORIG_PORT_DST) + nfct_get_attr_u16(c, ATTR_REPL_PORT_SRC) +
            nfct_get_attr_u64(c, ATTR_ORIG_COUNTER_BYTES) + nfct_get_attr_u64(c, ATTR_REPL_COUNTER_PACKETS);
        ++total.count;
        return static_cast<int>(NFCT_CB_CONTINUE);
    };
    for (auto _ : state) {
        sum total = {};
        const uint32_t family = AF_UNSPEC;
        nfct_handle *handle = nfct_open(CONNTRACK, 0);
        nfct_callback_register(handle, NFCT_T_ALL, each, &total);
        nfct_query(handle, NFCT_Q_DUMP, &family);
        nfct_close(handle);
        if (total.count != state.range(0)) state.SkipWithError("another number");
        benchmark::DoNotOptimize(total);
    }
    state.SetComplexityN(state.range(0));
}

void bare(benchmark::State &state)
{
    lay_connections(state.range(0));
    struct {
        nlmsghdr header;
        nfgenmsg body;
    } request = {};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_GET;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    static char block[32768];
    for (auto _ : state) {
        const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER);
        send(fd, &request, sizeof request, 0);
        nlmsghdr first = {};
        while (first.nlmsg_type != NLMSG_DONE && recv(fd, block, sizeof block, 0) > 0)
            memcpy(&first, block, sizeof first);
        close(fd);
    }
    state.SetComplexityN(state.range(0));
}

BENCHMARK(ours)->Name("connections/vela")->Arg(4096)->Arg(65536)->Complexity(benchmark::oN);
BENCHMARK(peer)->Name("connections/libnetfilter_conntrack")->Arg(4096)->Arg(65536)->Complexity(benchmark::oN);
BENCHMARK(bare)->Name("connections/scale:the kernel's part")->Arg(4096)->Arg(65536)->Complexity(benchmark::oN);

} // namespace

int main(int argc, char **argv)
{
    site::enter_world();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
