// Ports, forwarding databases and neighbours beside the system's own tools.
#include "tests/support/faults.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/shell.h"
#include "tests/support/table.h"

#include <arpa/inet.h>
#include <cerrno>
#include <gtest/gtest.h>
#include <map>
#include <net/if.h>
#include <set>
#include <vela/net/bridge.h>

namespace
{

void lay_bridge()
{
    must_run("ip link add br0 type bridge forward_delay 0; ip link set br0 up;"
             "for i in 0 1 2; do ip link add eth$i type veth peer name far$i; ip link set eth$i up master br0; done;"
             "ip link set far0 up; ip link set far1 up;"
             "bridge link set dev eth1 learning off isolated on;"
             "ip link add br1 type bridge; ip link add other type veth peer name rehto; ip link set other master br1;"
             "ip address add 192.168.7.2/24 dev br0; ip address add 2001:db8::2/64 dev br0 nodad");
}

/// The members of a row, joined; "-" for one that is not there.
std::string joined(const json_t *row, std::initializer_list<const char *> keys)
{
    std::string line;
    for (const char *key : keys) {
        const json_t *member = json_object_get(row, key);
        line += (line.empty() ? "" : " ") + (member ? dumped(member) : "-");
    }
    return line;
}

using lines = std::multiset<std::string>;

lines all_joined(const vela::json_ref &rows, std::initializer_list<const char *> keys)
{
    EXPECT_TRUE(rows);
    lines result;
    for (size_t i = 0; i < json_array_size(rows.get()); ++i) result.insert(joined(json_array_get(rows.get(), i), keys));
    return result;
}

/// Of the tool's entries, those of the bridge itself, with a word of ours for its state.
lines fdb_of_tool()
{
    const auto rows = parsed(site::output_of("bridge -j fdb show br br0"));
    const std::map<std::string, std::string> states{
        {"\"permanent\"", "true false"}, {"\"static\"", "false true"}, {"\"\"", "false false"}};
    lines result;
    for (size_t i = 0; i < json_array_size(rows.get()); ++i) {
        const json_t *row = json_array_get(rows.get(), i);
        if (!json_object_get(row, "master")) continue;
        result.insert(joined(row, {"mac", "ifname", "vlan"}) + " " + states.at(dumped(json_object_get(row, "state"))));
    }
    return result;
}

lines fdb_of_ours()
{
    return all_joined(vela::json_ref{vela_fdb_json("br0")}, {"mac", "port_name", "vlan", "local", "static"});
}

lines neighbours_of_tool()
{
    const auto rows = parsed(site::output_of("ip -j neigh"));
    lines result;
    for (size_t i = 0; i < json_array_size(rows.get()); ++i) {
        const json_t *row = json_array_get(rows.get(), i);
        std::string state = json_string_value(json_array_get(json_object_get(row, "state"), 0));
        for (char &c : state) c = static_cast<char>(tolower(c));
        result.insert(joined(row, {"dst", "dev", "lladdr"}) + " \"" + state + "\" " +
                      (json_object_get(row, "router") ? "true" : "false"));
    }
    return result;
}

lines neighbours_of_ours(const char *ifname)
{
    return all_joined(vela::json_ref{vela_neighbour_json(0, ifname)}, {"address", "ifname", "mac", "state", "router"});
}

template <class Record> int count_up(const Record *, void *arg)
{
    ++*static_cast<int *>(arg);
    return 0;
}

} // namespace

TEST(Bridge, PortsAgreeWithTheSystemsTool)
{
    lay_bridge();
    lines theirs;
    const auto rows = parsed(site::output_of("bridge -j -d link"));
    for (size_t i = 0; i < json_array_size(rows.get()); ++i) {
        const json_t *row = json_array_get(rows.get(), i);
        if (dumped(json_object_get(row, "master")) != "\"br0\"") continue;
        theirs.insert(joined(row, {"ifindex", "ifname", "state", "learning", "isolated"}));
    }
    const vela::json_ref ours{vela_bridge_port_json("br0")};
    EXPECT_EQ(3U, theirs.size());
    EXPECT_EQ(theirs, all_joined(ours, {"index", "name", "state", "learning", "isolated"}));
    const auto check_number = [](const vela_bridge_port *port, void *) {
        char name[16];
        EXPECT_EQ(0, get_ifname_from_br_portno("br0", static_cast<int>(port->number), name, sizeof name));
        EXPECT_STREQ(name, port->name);
        EXPECT_EQ(if_nametoindex("br0"), port->bridge);
        return 1;
    };
    EXPECT_EQ(1, vela_bridge_port_foreach("br0", check_number, nullptr)) << "a stop is no failure";
}

TEST(Bridge, TenThousandEntriesAgreeWithTheSystemsTool)
{
    lay_bridge();
    must_run("for i in $(seq 0 9999); do printf 'fdb add 02:56:4c:01:%02x:%02x dev eth%d master static\n' $((i / 256)) "
             "$((i % 256)) $((i % 3)); done >/tmp/batch; bridge -batch /tmp/batch;"
             "bridge fdb add 02:56:4c:02:00:01 dev other master static; bridge fdb add 02:56:4c:02:00:02 dev eth0 self "
             "|| :");
    const leak_check leaks;
    const lines ours = fdb_of_ours();
    EXPECT_EQ(fdb_of_tool(), ours);
    EXPECT_EQ(1U, ours.count("\"02:56:4c:01:27:0f\" \"eth0\" - false true"));
    int count = 0;
    EXPECT_LE(10000, vela_fdb_foreach("br0", count_up<vela_fdb_entry>, &count));
    EXPECT_EQ(ours.size(), static_cast<size_t>(count));

    vela_fdb_entry entry;
    const uint8_t mac[] = {0x02, 0x56, 0x4c, 0x01, 0x27, 0x0f};
    ASSERT_EQ(0, vela_fdb_find("br0", mac, 0, &entry));
    EXPECT_STREQ("eth0", entry.port_name);
    EXPECT_EQ(unsigned{VELA_FDB_STATIC}, entry.flags);
    EXPECT_EQ(-ENOENT, vela_fdb_find("br0", mac, 7, &entry)) << "in another VLAN";
    EXPECT_EQ(-ENOENT, vela_fdb_find("br1", mac, 0, &entry));

    const auto remove_port = [](const vela_fdb_entry *, void *arg) {
        if (++*static_cast<int *>(arg) == 1) site::run("ip link del eth0");
        return 0;
    };
    count = 0;
    EXPECT_LT(0, vela_fdb_foreach("br0", remove_port, &count)) << "the port of the next entries is gone";
    leaks.expect_unchanged();
}

TEST(Bridge, NeighboursAgreeWithTheSystemsTool)
{
    lay_bridge();
    must_run("ip link set eth2 nomaster; ip address add 10.0.0.1/24 dev eth2; ip link set far2 up;"
             "ip neigh add 10.0.0.7 lladdr 02:56:4c:00:00:07 nud permanent dev eth2");
    int i = 10;
    for (const std::string state : {"reachable", "stale", "delay", "probe", "permanent", "noarp", "failed"}) {
        const std::string number = std::to_string(++i);
        must_run("ip neigh add 192.168.7." + number + " lladdr 02:56:4c:00:00:" + number + " nud " + state +
                 " dev br0; ip neigh add 2001:db8::" + number + " lladdr 02:56:4c:00:00:" + number + " nud " + state +
                 " dev br0" + (i % 2 ? " router" : ""));
    }
    lines theirs;
    lines ours;
    for (int tries = 0; tries < 20 && (theirs.empty() || theirs != ours); ++tries) { // they age
        theirs = neighbours_of_tool();
        ours = neighbours_of_ours(nullptr);
    }
    EXPECT_EQ(theirs, ours);
    EXPECT_LE(12U, ours.size());
    EXPECT_EQ(1U, neighbours_of_ours("eth2").size());

    vela_neighbour n;
    in_addr address = {inet_addr("10.0.0.7")};
    EXPECT_EQ(0, vela_neighbour_find(AF_INET, &address, nullptr, &n));
    EXPECT_STREQ("eth2", n.ifname);
    EXPECT_EQ(7, n.mac[5]);
    EXPECT_EQ(-ENOENT, vela_neighbour_find(AF_INET, &address, "br0", &n));
    in6_addr six = {};
    inet_pton(AF_INET6, "2001:db8::11", &six);
    EXPECT_EQ(0, vela_neighbour_find(AF_INET6, &six, "br0", &n));
    EXPECT_EQ(unsigned{VELA_NEIGHBOUR_ROUTER}, n.flags);
}

TEST(Bridge, Refusals)
{
    lay_bridge();
    int count = 0;
    vela_fdb_entry entry;
    const uint8_t mac[6] = {2};
    const leak_check leaks;
    for (const auto &[name, error] : table<const char *, int>{
             {nullptr, EINVAL}, {"", EINVAL}, {"sixteen-letters!", EINVAL}, {"missing", ENODEV}, {"eth0", ENODEV}}) {
        EXPECT_EQ(-error, vela_bridge_port_foreach(name, count_up<vela_bridge_port>, &count));
        EXPECT_EQ(-error, vela_fdb_foreach(name, count_up<vela_fdb_entry>, &count));
        EXPECT_EQ(nullptr, vela_fdb_json(name));
        EXPECT_EQ(error, errno);
        EXPECT_GT(0, vela_fdb_find(name, mac, 0, &entry));
    }
    EXPECT_EQ(-EINVAL, vela_fdb_foreach("br0", nullptr, nullptr));
    EXPECT_EQ(-EINVAL, vela_neighbour_foreach(AF_UNIX, nullptr, count_up<vela_neighbour>, &count));
    EXPECT_EQ(-ENODEV, vela_neighbour_foreach(0, "missing", count_up<vela_neighbour>, &count));
    vela_neighbour n;
    EXPECT_EQ(-EINVAL, vela_neighbour_find(0, &n, nullptr, &n));
    EXPECT_EQ(0, count);
    if (faults::can_refuse_memory) {
        faults::for_each_allocation([] {
            errno = 0;
            const vela::json_ref all{vela_fdb_json("br0")};
            if (!all) EXPECT_EQ(ENOMEM, errno);
        });
    }
    leaks.expect_unchanged();
}
