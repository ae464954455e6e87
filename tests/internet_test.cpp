// One world per reason: this one is the device, the namespace "gw" its gateway, "far" what lies beyond.
#include "tests/support/faults.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/shell.h"
#include "tests/support/table.h"

#include <arpa/inet.h>
#include <cerrno>
#include <gtest/gtest.h>
#include <net/if.h>
#include <unistd.h>
#include <vela/net/internet.h>

namespace
{

/// eth0 and eth1 towards the gateway, which has 192.168.7.1 and fe80::1 on the first and 192.168.8.1 on the second.
void lay_site()
{
    must_run("ip link set lo up; ip netns add gw; for i in 0 1; do ip link add eth$i type veth peer name gw$i netns gw;"
             "ip link set eth$i up; ip -n gw link set gw$i up; ip -n gw address add 192.168.$((7 + i)).1/24 dev gw$i;"
             "ip address add 192.168.$((7 + i)).2/24 dev eth$i; done; ip -n gw address add fe80::1/64 dev gw0 nodad");
    site::put_file("/etc/resolv.conf", "# none but this device\nnameserver 127.0.0.1\n");
    site::put_file("/tmp/resolv.conf.d/resolv.conf.auto", "search example\nnameserver 192.0.2.53 # by DHCP\n"
                                                          "nameserver fe80::53%eth0\nnameserver\tnowhere\n");
}

std::string reasons()
{
    const vela::json_ref all{vela_internet_json()};
    const auto reason = [](const json_t *object) {
        const char *word = json_string_value(json_object_get(object, "reason"));
        return std::string(word ? word : "?");
    };
    return reason(all.get()) + " " + reason(json_object_get(all.get(), "ipv4")) + " " +
           reason(json_object_get(all.get(), "ipv6"));
}

/// "verdict interface gateway: reason" of each IPv4 route, beside the tool's routes as witnesses.
std::string verdicts()
{
    const vela::json_ref all{vela_internet_json()};
    const json_t *routes = json_object_get(json_object_get(all.get(), "ipv4"), "routes");
    std::string lines;
    for (size_t i = 0; i < json_array_size(routes); ++i) {
        for (const char *key : {"verdict", "interface", "gateway", "metric", "reason"}) {
            const json_t *member = json_object_get(json_array_get(routes, i), key);
            lines += (member ? dumped(member) : "-") + (key == std::string_view("reason") ? "\n" : " ");
        }
    }
    std::erase(lines, '"');
    return lines;
}

} // namespace

TEST(Internet, OneReasonAfterTheOther)
{
    lay_site();
    const leak_check leaks;
    const std::string seen = "ip neigh replace 192.168.7.1 lladdr 02:56:4c:00:07:01 dev eth0 nud ";
    for (const auto &[change, expected] : table<std::string, const char *>{
             {":", "no_route no_route no_address"},
             {"ip route add blackhole default", "no_route no_route no_address"},
             {"ip route del blackhole default; ip route add default via 192.168.7.1",
              "gateway_unseen gateway_unseen no_address"},
             {seen + "permanent", "gateway_seen gateway_seen no_address"},
             {seen + "failed", "gateway_failed gateway_failed no_address"},
             {seen + "stale", "gateway_seen gateway_seen no_address"},
             {"ip address add 2001:db8::2/64 dev eth0 nodad", "gateway_seen gateway_seen no_route"},
             {"ip -6 route add default via fe80::1 dev eth0", "gateway_seen gateway_seen gateway_unseen"},
             {"ip -6 neigh replace fe80::1 lladdr 02:56:4c:00:07:01 dev eth0 nud reachable router",
              "gateway_seen gateway_seen gateway_seen"},
             {"echo nameserver ::1 >/tmp/resolv.conf.d/resolv.conf.auto", "no_resolver gateway_seen gateway_seen"},
             {"cd /tmp/resolv.conf.d; rm resolv.conf.auto; mkfifo resolv.conf.auto",
              "no_resolver gateway_seen gateway_seen"},
             {"ip -6 address flush dev eth0 scope global", "no_resolver gateway_seen no_address"},
             {"ip -n gw link set gw0 down", "no_carrier no_carrier no_address"},
             {"ip address flush dev eth0; ip route add default via 192.168.7.1 dev eth0 onlink;"
              "ip -n gw link set gw0 up",
              "no_address no_address no_address"},
             {"ip address flush dev eth1", "no_address no_address no_address"}}) {
        must_run(change);
        std::string found = reasons();
        for (int i = 0; i < 30 && found != expected; ++i) { // that a link is back is told within a second
            usleep(100000);
            found = reasons();
        }
        EXPECT_EQ(expected, found) << change << "\n" << site::output_of("ip route; ip -6 route; ip neigh");
    }
    leaks.expect_unchanged();
}

TEST(Internet, EveryRouteHasItsVerdict)
{
    lay_site();
    must_run("ip route add default metric 30 nexthop via 192.168.7.1 nexthop via 192.168.8.1;"
             "ip route add default via 192.168.7.9 metric 10; ip route add unreachable default metric 5;"
             "ip route add default via 192.168.8.1 metric 20; ip route add default via 192.168.8.7 table 99;"
             "ip neigh replace 192.168.7.9 dev eth0 nud failed;"
             "ip neigh replace 192.168.8.1 lladdr 02:56:4c:00:08:01 dev eth1 nud reachable");
    EXPECT_EQ("refused - - 5 no_route\n"
              "refused eth0 192.168.7.9 10 gateway_failed\n"
              "chosen eth1 192.168.8.1 20 gateway_seen\n"
              "passed eth0 192.168.7.1 30 gateway_unseen\n"
              "passed eth1 192.168.8.1 30 gateway_seen\n",
              verdicts())
        << site::output_of("ip -j route; ip -j neigh");
    vela_internet internet;
    ASSERT_EQ(0, vela_internet_get(&internet));
    EXPECT_EQ(20U, internet.best4.metric);
    EXPECT_EQ(if_nametoindex("eth1"), internet.best4.index);
    EXPECT_EQ(inet_addr("192.168.8.1"), *reinterpret_cast<in_addr_t *>(internet.best4.gateway));
    EXPECT_EQ(1, internet.best4.mac[5]);
    EXPECT_EQ(0U, internet.best6.family);
    ASSERT_EQ(2U, internet.resolver_count);
    EXPECT_EQ(if_nametoindex("eth0"), internet.resolvers[1].scope_index);

    must_run("ip -n gw link set gw1 down");
    EXPECT_NE(std::string::npos, verdicts().find("chosen eth0 192.168.7.1 30 gateway_unseen")) << verdicts();
    must_run("ip neigh replace 192.168.7.1 dev eth0 nud failed");
    ASSERT_EQ(0, vela_internet_get(&internet));
    EXPECT_EQ(10U, internet.best4.metric) << "all are refused: one that got furthest";

    int count = 0;
    const auto stop_at_two = [](const vela_default_route *, void *arg) {
        return ++*static_cast<int *>(arg) == 2 ? 1 : 0;
    };
    EXPECT_EQ(2, vela_default_route_foreach(AF_INET, stop_at_two, &count));
    EXPECT_EQ(0, vela_default_route_foreach(AF_INET6, stop_at_two, &count));
}

TEST(Internet, AConnectionBeyondTheGatewayIsProof)
{
    lay_site();
    must_run("ip netns add far; ip link add tofar netns gw type veth peer name fromgw netns far;"
             "ip -n gw address add 10.9.0.1/24 dev tofar; ip -n gw link set tofar up; ip -n far link set fromgw up;"
             "ip -n far address add 10.9.0.2/24 dev fromgw; ip -n far route add default via 10.9.0.1;"
             "ip netns exec gw sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'; ip route add default via 192.168.7.1");
    const int listener = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0); // of IPv4 peers too, as many daemons have
    sockaddr_in6 here = {};
    here.sin6_family = AF_INET6;
    here.sin6_port = htons(99);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr *>(&here), sizeof here));
    ASSERT_EQ(0, listen(listener, 2));
    const auto connect_from = [listener](const std::string &where) {
        must_run("ip netns exec " + where + " bash -c 'exec 3<>/dev/tcp/192.168.7.2/99; sleep 60' &");
        EXPECT_LE(0, accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    };
    connect_from("gw");
    EXPECT_EQ("gateway_seen gateway_seen no_address", reasons()) << "a peer on the link proves nothing";
    connect_from("far");
    EXPECT_EQ("beyond beyond no_address", reasons());
    vela_internet internet;
    ASSERT_EQ(0, vela_internet_get(&internet));
    EXPECT_GE(5U, internet.beyond_s);
    EXPECT_EQ(unsigned{VELA_INTERNET_GATEWAY_SEEN}, internet.best4.reason);
}

TEST(Internet, Refusals)
{
    lay_site();
    const leak_check leaks;
    EXPECT_EQ(-EINVAL, vela_internet_get(nullptr));
    EXPECT_EQ(-EINVAL, vela_default_route_foreach(AF_INET, nullptr, nullptr));
    const auto never = [](const vela_default_route *, void *) { return 0; };
    EXPECT_EQ(-EINVAL, vela_default_route_foreach(AF_UNIX, never, nullptr));
    {
        const faults::refuse no_socket(faults::call::socket, EMFILE);
        EXPECT_EQ(-EMFILE, vela_default_route_foreach(0, never, nullptr));
    }
    must_run("ip route add default via 192.168.7.1");
    if (faults::can_refuse_memory) {
        faults::for_each_allocation([] {
            errno = 0;
            const vela::json_ref all{vela_internet_json()};
            if (!all) EXPECT_EQ(ENOMEM, errno);
        });
    }
    leaks.expect_unchanged();
}
