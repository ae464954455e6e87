// Beside the system's own tools, field by field, on links that come and go.
#include "tests/support/faults.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/shell.h"
#include "tests/support/table.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <map>
#include <net/if.h>
#include <sys/socket.h>
#include <vela/net/netif.h>

namespace
{

std::string text(const json_t *object, const char *key)
{
    const char *value = json_string_value(json_object_get(object, key));
    return value ? value : "";
}

void put(const vela::json_ref &object, const char *key, json_t *value)
{
    if (value) json_object_set(object.get(), key, value);
}

/// An interface of `ip -j -d -s addr` with our keys.
vela::json_ref translated(const json_t *ip)
{
    const std::map<std::string, const char *> states{
        {"UNKNOWN", "unknown"}, {"DOWN", "down"}, {"UP", "up"}, {"LOWERLAYERDOWN", "lower_layer_down"}};
    vela::json_ref ours{json_object()};
    for (const auto &[key, theirs] : table<const char *, const char *>{
             {"name", "ifname"}, {"index", "ifindex"}, {"mtu", "mtu"}, {"master", "master"}, {"lower", "link"}}) {
        put(ours, key, json_object_get(ip, theirs));
    }
    if (text(ip, "address") != "00:00:00:00:00:00") put(ours, "mac", json_object_get(ip, "address"));
    put(ours, "kind", json_object_get(json_object_get(ip, "linkinfo"), "info_kind"));
    json_object_set_new(ours.get(), "operstate", json_string(states.at(text(ip, "operstate"))));
    const std::string flags = dumped(json_object_get(ip, "flags"));
    json_object_set_new(ours.get(), "up", json_boolean(flags.find("\"UP\"") != std::string::npos));

    vela::json_ref addresses{json_array()};
    for (size_t i = 0; i < json_array_size(json_object_get(ip, "addr_info")); ++i) {
        const json_t *theirs = json_array_get(json_object_get(ip, "addr_info"), i);
        vela::json_ref address{json_object()};
        put(address, "address", json_object_get(theirs, "local"));
        put(address, "prefix", json_object_get(theirs, "prefixlen"));
        put(address, "scope", json_object_get(theirs, "scope"));
        json_object_set_new(address.get(), "dynamic", json_boolean(json_is_true(json_object_get(theirs, "dynamic"))));
        json_t *valid = json_object_get(theirs, "valid_life_time");
        if (json_integer_value(valid) != UINT32_MAX) put(address, "valid_s", valid);
        json_array_append(addresses.get(), address.get());
    }
    json_object_set(ours.get(), "addresses", addresses.get());

    vela::json_ref counters{json_object()};
    for (const std::string way : {"rx", "tx"}) {
        const json_t *theirs = json_object_get(json_object_get(ip, "stats64"), way.c_str());
        for (const char *what : {"bytes", "packets", "errors", "dropped"}) {
            put(counters, (way + "_" + what).c_str(), json_object_get(theirs, what));
        }
        if (way == "rx") put(counters, "multicast", json_object_get(theirs, "multicast"));
    }
    json_object_set(ours.get(), "counters", counters.get());
    return ours;
}

using by_name = std::map<std::string, std::string>;

by_name seen_by_ip()
{
    const auto all = parsed(site::output_of("ip -j -d -s addr"));
    by_name links;
    for (size_t i = 0; i < json_array_size(all.get()); ++i) {
        const auto link = translated(json_array_get(all.get(), i));
        links[text(link.get(), "name")] = dumped(link);
    }
    return links;
}

by_name seen_by_us()
{
    const vela::json_ref all{vela_netif_json(nullptr)};
    by_name links;
    for (size_t i = 0; i < json_array_size(all.get()); ++i) {
        json_t *link = json_array_get(all.get(), i);
        for (const char *only_ours : {"carrier", "speed_mbps", "duplex", "partial"}) json_object_del(link, only_ours);
        links[text(link, "name")] = dumped(link);
    }
    return links;
}

/// Ours equals theirs for these interfaces in a moment in which nothing moved.
void expect_agreement(const std::vector<std::string> &names)
{
    for (int tries = 0; tries < 20; ++tries) {
        auto before = seen_by_ip();
        auto ours = seen_by_us();
        if (auto after = seen_by_ip(); std::any_of(
                names.begin(), names.end(), [&](const std::string &name) { return before[name] != after[name]; })) {
            continue;
        }
        for (const auto &name : names) EXPECT_EQ(before[name], ours[name]) << name;
        return;
    }
    ADD_FAILURE() << "the counters never stood still";
}

int count_up(const vela_netif *, void *arg)
{
    ++*static_cast<int *>(arg);
    return 0;
}

} // namespace

TEST(Netif, AgreesWithTheSystemsToolWhileLinksComeAndGo)
{
    must_run(
        "ip netns add far; ip link add br0 type bridge; ip link set br0 up;"
        "ip link add eth0 type veth peer name far0 netns far; ip link set eth0 master br0 up mtu 1400;"
        "ip -n far link set far0 up; ip link add eth1 type veth peer name eth2; ip link set eth1 up;"
        "ip address add 192.168.7.2/24 dev br0 valid_lft 100000 preferred_lft 5000;"
        "ip address add 10.0.0.1 peer 10.0.0.9/32 dev eth1; ip address add 10.0.0.2/32 dev eth1 scope host;"
        "ip address add 2001:db8::7/64 dev br0; ip link add tun0 type ipip local 10.0.0.1 remote 10.0.0.3 || true");
    const std::vector<std::string> fixed{"lo", "br0", "eth0", "eth1", "eth2"};
    expect_agreement(fixed);
    site::put_file("/tmp/churn", "for i in $(seq 200); do echo link add churn$i type veth peer name nruhc$i;"
                                 "echo link del churn$i; done | ip -batch - ; touch /tmp/churned");
    must_run("sh /tmp/churn & :");
    do {
        expect_agreement(fixed);
    } while (!site::exists("/tmp/churned"));
    EXPECT_EQ(seen_by_ip(), seen_by_us());

    vela_netif n;
    ASSERT_EQ(0, vela_netif_get("eth1", &n));
    EXPECT_EQ(2U, n.address_count);
    EXPECT_EQ(if_nametoindex("eth2"), n.lower);
    EXPECT_EQ(UINT32_MAX, n.speed_mbps) << "eth2 is down";
    EXPECT_EQ(UINT32_MAX, n.vlan_id);
    ASSERT_EQ(0, vela_netif_get("eth0", &n));
    EXPECT_EQ(0U, n.lower) << "in another namespace";
    EXPECT_EQ(if_nametoindex("br0"), n.master);
    EXPECT_EQ(site::output_of("cat /sys/class/net/eth0/speed /sys/class/net/eth0/duplex"),
              std::to_string(n.speed_mbps) + "\n" + (n.duplex == 1 ? "full" : "half") + "\n");
}

TEST(Netif, AThousandInterfacesAndOneThatVanishes)
{
    site::put_file("/tmp/many",
                   "for i in $(seq 500); do echo link add a$i type veth peer name b$i; done | ip -batch -");
    must_run("sh /tmp/many; ip address add 10.1.0.1/16 dev b500");
    const leak_check leaks;
    int count = 0;
    EXPECT_EQ(1001, vela_netif_foreach(count_up, &count));
    EXPECT_EQ(1001, count);
    const vela::json_ref all{vela_netif_json(nullptr)};
    EXPECT_EQ(1001U, json_array_size(all.get()));
    count = 0;
    const auto remove_others = [](const vela_netif *, void *arg) {
        if (++*static_cast<int *>(arg) == 1) site::run("ip link del a400; ip link del a2");
        vela_netif n;
        EXPECT_EQ(-ENODEV, vela_netif_get("a400", &n));
        return *static_cast<int *>(arg) == 300 ? 1 : 0;
    };
    EXPECT_EQ(300, vela_netif_foreach(remove_others, &count)) << "a stop is no failure";
    count = 0;
    const auto remove_all = [](const vela_netif *, void *arg) {
        if (++*static_cast<int *>(arg) == 1)
            site::run("for i in $(seq 300 310); do echo link del a$i; done | ip -force -batch -");
        return 0;
    };
    EXPECT_EQ(-EAGAIN, vela_netif_foreach(remove_all, &count));
    EXPECT_LT(200, count) << "delivered nevertheless";
    leaks.expect_unchanged();
}

TEST(Netif, MoreAddressesThanAreHeldIsSaid)
{
    must_run(
        "for i in $(seq 0 4199); do echo address add 10.1.$((i / 250)).$((i % 250))/32 dev lo; done | ip -batch -");
    log_lines log;
    const vela::json_ref lo{vela_netif_json("lo")};
    EXPECT_EQ(4096U, json_array_size(json_object_get(lo.get(), "addresses")));
    EXPECT_TRUE(json_is_true(json_object_get(lo.get(), "partial")));
    EXPECT_EQ("more than 4096 addresses: the rest is left out", log.texts().at(0));
    int count = 0;
    EXPECT_EQ(1, vela_netif_foreach(count_up, &count));
}

TEST(Netif, RefusalsLeaveOutputsAlone)
{
    vela_netif n;
    memset(&n, 0x5A, sizeof n);
    const vela_netif before = n;
    const auto no_address = [](const vela_netaddr *, void *) { return 0; };
    const leak_check leaks;
    for (const auto &[name, error] : table<const char *, int>{{nullptr, EINVAL},
                                                              {"", EINVAL},
                                                              {"sixteen-letters!", EINVAL},
                                                              {"fifteen-letters", ENODEV},
                                                              {"../lo", EINVAL}}) {
        EXPECT_EQ(-error, vela_netif_get(name, &n));
        if (!name) continue;
        EXPECT_EQ(-error, vela_netaddr_foreach(name, no_address, nullptr)) << name;
        errno = 0;
        EXPECT_EQ(nullptr, vela_netif_json(name));
        EXPECT_EQ(error, errno) << name;
    }
    EXPECT_EQ(-EINVAL, vela_netif_get("lo", nullptr));
    EXPECT_EQ(-EINVAL, vela_netif_foreach(nullptr, nullptr));
    EXPECT_EQ(-EINVAL, vela_netaddr_foreach(nullptr, nullptr, nullptr));
    {
        const faults::refuse no_socket(faults::call::socket, EMFILE);
        EXPECT_EQ(-EMFILE, vela_netaddr_foreach(nullptr, no_address, nullptr));
    }
    EXPECT_EQ(0, memcmp(&before, &n, sizeof n));
    if (faults::can_refuse_memory) {
        faults::for_each_allocation([] {
            errno = 0;
            const vela::json_ref all{vela_netif_json(nullptr)};
            if (!all) EXPECT_EQ(ENOMEM, errno);
        });
    }
    leaks.expect_unchanged();
}
