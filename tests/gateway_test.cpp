// On real bridges: this world is the device, a network namespace "gw" behind its ports is the rest of the site.
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/shell.h"
#include "tests/support/table.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <vela/net/bridge.h>
#include <vela/net/gateway.h>

using testing::ElementsAre;
using testing::UnorderedElementsAre;

namespace
{

constexpr const char *gateway_ip = "192.168.7.1";
constexpr const char *gateway_mac = "02:56:4c:00:07:01";

/// Three ports eth0..eth2, each with a far end far0..far2 in the namespace gw.
void lay_ports()
{
    must_run("ip netns add gw; ip -n gw link set lo up;"
             "ip netns exec gw sh -c 'echo 1 >/proc/sys/net/ipv4/conf/all/arp_ignore';" // each port answers for itself
             "for i in 0 1 2; do ip link add eth$i type veth peer name far$i netns gw; ip link set eth$i up;"
             "ip -n gw link set far$i up; done");
}

/// The ports as a bridge br0 with the device's address, the gateway behind one of them, and known.
void lay_bridge(int gateway_port)
{
    lay_ports();
    must_run("far=far" + std::to_string(gateway_port) +
             "; ip link add br0 type bridge forward_delay 0; ip link set br0 up;"
             "for i in 0 1 2; do ip link set eth$i master br0; done;"
             "ip -n gw link set $far address 02:56:4c:00:07:01; ip -n gw address add 192.168.7.1/24 dev $far;"
             "ip address add 192.168.7.2/24 dev br0; ip route add default via 192.168.7.1");
    char mac[18];
    for (int i = 0; i < 50 && get_mac_by_ip(gateway_ip, mac, sizeof mac) != 0; ++i) {
        site::run("bash -c 'echo hello >/dev/udp/192.168.7.1/9' 2>/dev/null; sleep 0.05");
    }
}

struct detected {
    std::string port; // "old" when there is none
    std::vector<std::string> log;
    std::string reason; // as the explanation has it
};

detected detect(std::vector<std::string> names = {"eth0", "eth1", "eth2"})
{
    char candidates[3][16] = {};
    for (size_t i = 0; i < names.size(); ++i) names[i].copy(candidates[i], 15);
    log_lines log("debug");
    char out[16] = "old";
    const int result = gateway_detect_uplink("br0", candidates, static_cast<int>(names.size()), out, sizeof out);
    EXPECT_EQ(std::string_view(out) == "old" ? -1 : 0, result);
    detected d{out, {}, {}};
    for (const auto &line : log.take()) {
        EXPECT_EQ("gateway-utils.gateway_detect_uplink", line.module + "." + line.function);
        d.log.push_back(line.text.substr(strlen("gateway-utils: ")));
    }
    const vela::json_ref why{gateway_explain("br0", candidates, static_cast<int>(names.size()))};
    EXPECT_STREQ(result == 0 ? out : nullptr, text_of(why, "answer"));
    d.reason = text_of(why, "reason");
    return d;
}

} // namespace

TEST(Gateway, FoundBehindABridgePortAndAgainAfterItMoved)
{
    lay_bridge(1);
    const int other = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 0); // takes the process id as its port
    const sockaddr_nl any = {.nl_family = AF_NETLINK};
    ASSERT_EQ(0, bind(other, reinterpret_cast<const sockaddr *>(&any), sizeof any));
    must_run("for i in 0 1 2; do seq -f \"neigh replace 192.168.7.%g lladdr 02:56:4c:00:08:01 dev eth$i\" 10 209; done"
             " | ip -batch -"); // more than is read
    const leak_check leaks;
    EXPECT_THAT(detect().log,
                ElementsAre("gateway 192.168.7.1 via br0", "neighbor on bridge, checking FDB", "FDB learned on eth1"));
    EXPECT_EQ("FDB interface eth1 not usable", detect({"eth0", "eth2"}).log.back());
    EXPECT_EQ("no_candidate", detect({"eth0", "eth2"}).reason);
    for (const auto &[change, port, said, reason] : table<std::string, const char *, const char *, const char *>{
             // First the gateway falls silent: what it says would be learned again.
             {"ip -n gw link set far1 down; bridge fdb replace $gateway dev eth2 master static", "eth2",
              "FDB learned on eth2", "fdb"},
             {"ip link set eth2 down; bridge fdb replace $gateway dev eth2 master static", "old",
              "FDB interface eth2 not usable", "no_link"},
             {"bridge fdb del $gateway dev eth2 master", "old", "FDB lookup failed", "not_learned"},
             {"ip neigh flush dev br0", "old", "gateway MAC not resolved", "not_resolved"},
             {"ip route del default", "old", "no default route", "no_default_route"}}) {
        must_run("gateway=02:56:4c:00:07:01; " + change);
        const detected d = detect();
        EXPECT_EQ(port, d.port) << change;
        EXPECT_EQ(said, d.log.back());
        EXPECT_EQ(reason, d.reason) << change;
    }
    leaks.expect_unchanged();
}

TEST(Gateway, NeighbourStatesThatCount)
{
    lay_ports();
    must_run("ip address add 192.168.7.2/24 dev eth0; ip route add default via 192.168.7.1 dev eth0;"
             "ip link add wan0 type veth peer name wan1 netns gw; ip -n gw link set wan1 up; ip link set wan0 up");
    const auto entry = [](const std::string &port, const std::string &state) {
        must_run("ip neigh replace 192.168.7.1 lladdr 02:56:4c:00:07:01 nud " + state + " dev " + port);
    };
    for (const std::string state : {"reachable", "stale", "delay", "probe", "permanent", "noarp", "failed"}) {
        entry("eth0", state);
        EXPECT_EQ(state == "noarp" || state == "failed" ? "old" : "eth0", detect().port) << state;
        must_run("ip neigh del 192.168.7.1 dev eth0");
    }
    entry("eth0", "permanent");
    entry("wan0", "stale");
    EXPECT_EQ("eth0", detect({"wan0", "eth0"}).port) << "an eth port replaces another";
    EXPECT_EQ("wan0", detect({"wan0"}).port);
    must_run("for i in 0 1; do seq -f \"route add 10.1.$i.%g/32 via 192.168.7.1\" 0 255; done | ip -batch -");
    EXPECT_EQ("eth0", detect().port) << "asked after a dump that was not read to its end";
    must_run("ip -n gw link set far0 down");
    EXPECT_THAT(detect({"eth0"}).log, testing::Contains("neighbor candidate eth0 is down"));
}

TEST(Gateway, FirstRouteWinsAndOddOnesAreSkipped)
{
    lay_ports();
    char ip[16] = "old";
    uint32_t address = 7;
    must_run("ip address add 192.168.7.2/24 dev eth0; ip address add 192.168.8.2/24 dev eth1;"
             "ip route add 0.0.0.0/1 via 192.168.7.7; ip route add default dev eth2 metric 1; ip route add blackhole "
             "default metric 2;"
             "ip route add default metric 3 nexthop via 192.168.7.7 nexthop via 192.168.8.7");
    EXPECT_EQ(-1, gateway_get_ip(ip, &address, sizeof ip)) << "half of all, on-link, blackhole, multipath";
    EXPECT_STREQ("", ip);
    EXPECT_EQ(0U, address);
    must_run("ip route add default via 192.168.7.1 metric 90; ip route add default via 192.168.8.1 metric 50");
    EXPECT_EQ(0, gateway_get_ip(ip, &address, sizeof ip));
    EXPECT_EQ(inet_addr(ip), address);
    EXPECT_NE(std::string::npos, site::output_of("ip route show default | grep '^default via' | head -n 1").find(ip));
}

TEST(Gateway, CandidatesFromTheBoardOrTheKernel)
{
    board_record board = {.phy_group_count = 3};
    board.phy_groups[0] = {PHY_GROUP_SINGLE, 1, {{.name = "eth0", .flags = 0xF1}}};
    board.phy_groups[1] = {PHY_GROUP_MULTI, 3, {{.name = "eth1"}, {.flags = 1}, {.name = "sfp0", .flags = 1}}};
    board.phy_groups[2] = {PHY_GROUP_MULTI, 200, {{.name = "eth-with-a-name-too-long", .flags = 2}}}; // a wrong count
    log_lines log;
    char out[8][16];
    ASSERT_EQ(2, gateway_enum_eth_wan(&board, out, 8));
    EXPECT_STREQ("eth0", out[0]);
    EXPECT_STREQ("eth-with-a-name", out[1]);
    EXPECT_EQ("gateway-utils: HAL-WAN candidate[1]=eth-with-a-name", log.texts().at(1));
    EXPECT_EQ(3, gateway_enum_eth_all(&board, out, 8));
    EXPECT_EQ(1, gateway_enum_eth_all(&board, out, 1));

    lay_ports();
    must_run("ip link add ethbr type bridge; ip link add wan0 type veth peer name wan1 netns gw;"
             "for i in 1 2 3 4 5 6 7 8 9; do ip link add filler$i type veth peer name fill$i; done");
    site::remove_file("/sys/class"); // two of them shall look like radios
    site::put_file("/sys/class/net/eth0/phy80211", "");
    site::put_file("/sys/class/net/eth1/uevent", "INTERFACE=eth1\nDEVTYPE=wlan\n");
    const leak_check leaks;
    ASSERT_EQ(2, gateway_enum_eth_all(nullptr, out, 8));
    EXPECT_THAT((std::vector<std::string>{out[0], out[1]}), UnorderedElementsAre("eth2", "ethbr"));
    EXPECT_EQ(1, gateway_enum_eth_netlink(out, 1));
    leaks.expect_unchanged();
}

TEST(Gateway, BridgeQueries)
{
    lay_bridge(2);
    char text[18] = "old";
    uint8_t mac[6];
    EXPECT_EQ(0, gateway_get_mac(gateway_ip, mac));
    EXPECT_EQ(-1, gateway_mac_to_str(mac, text, 17));
    EXPECT_EQ(0, gateway_mac_to_str(mac, text, 18));
    EXPECT_STREQ(gateway_mac, text);
    EXPECT_EQ(-1, get_mac_by_ip(gateway_ip, text, 17)) << "does not fit";
    must_run("ip neigh add 192.168.7.99 nud failed dev br0");
    EXPECT_EQ(-1, get_mac_by_ip("192.168.7.99", text, sizeof text)) << "never answered";

    char name[16] = "old";
    const std::string own = site::read_file("/sys/class/net/eth0/address").substr(0, 17);
    EXPECT_EQ(-1, get_mac_brinfo("br0", own.c_str())) << "the bridge's own";
    for (const char *bridge : {"eth0", "missing", "../net/br0", ""}) {
        EXPECT_EQ(-1, gateway_fdb_lookup(bridge, gateway_mac, name, sizeof name)) << bridge;
        EXPECT_EQ(-1, get_ifname_from_br_portno(bridge, 3, name, sizeof name)) << bridge;
    }
    EXPECT_EQ(0, gateway_fdb_lookup("br0", gateway_mac, name, 3));
    EXPECT_STREQ("et", name);

    must_run("ip -n gw link set far1 down");
    for (const auto &[port, link] : {std::pair{"eth2", 1}, {"eth1", 0}, {"missing", -1}}) {
        EXPECT_EQ(link, get_ethtool_link_status(port)) << port;
    }
    const auto uplink = [&name] { return get_uplink_device(name, sizeof name) == 0 ? name : "(none)"; };
    EXPECT_STREQ("eth2", uplink()) << "the port behind the bridge";
    must_run("ip route del default; ip link set eth0 nomaster; ip address add 192.168.9.2/24 dev eth0;"
             "ip route add default via 192.168.9.1");
    EXPECT_STREQ("eth0", uplink()) << "the route's own interface";
    must_run("ip route del default");
    EXPECT_STREQ("(none)", uplink());
}
