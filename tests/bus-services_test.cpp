// The families that ask daemons over the bus: services, leases, power, the guest portal.
#include "site/bus_json.h"
#include "site/world.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/table.h"

#include <arpa/inet.h>
#include <event2/event.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/genetlink.h>
#include <sys/stat.h>
#include <vela/core/internal/raw_netlink.h>
#include <vela/services/dhcp.h>
#include <vela/services/internal/power.h>
#include <vela/services/portal.h>
#include <vela/services/power.h>
#include <vela/services/service_list.h>

using site::answers;

namespace
{

using methods = std::map<std::string, site::bus_method>;

/// A device whose daemons answer as they are told; nothing is left of what asks them.
class BusServices : public testing::Test
{
protected:
    leak_check leaks;
    std::optional<site::bus_daemon> daemon;
    event_base *const base = event_base_new();
    vela_ubus_interface_t *bus = nullptr;

    void start(const std::map<std::string, methods> &objects)
    {
        stop();
        daemon.emplace();
        for (const auto &[name, offered] : objects) daemon->offer(name, offered);
        daemon->start();
        vela_ubus_init();
        bus = vela_ubus_create(base, site::bus::default_path, "none", VELA_UBUS_NO_LOOKUP, nullptr, nullptr);
        ASSERT_NE(nullptr, bus);
    }
    void stop()
    {
        vela_ubus_shutdown();
        daemon.reset();
        bus = nullptr;
    }
    void SetUp() override { vela_ubus_init(); }
    void TearDown() override
    {
        stop();
        event_base_free(base);
        site::remove_file("/var/run/ubus");
        leaks.expect_unchanged();
    }
};

std::string shown(json_t *value) { return value ? dumped(vela::json_ref{value}) : strerror(errno); }

template <class Record> int count(const Record *, void *) { return 0; }
template <class Record> int stop_at_once(const Record *, void *) { return 1; }

TEST_F(BusServices, ServicesAreListedByInstance)
{
    start({{"service", {{"list", answers(R"({
        "mgrd": {"instances": {"main": {"running": true, "pid": 402, "command": ["/usr/sbin/mgrd", "-c", "/etc/m x"],
                                        "respawn": {"threshold": 3600, "timeout": 5, "retry": 7}}}},
        "boot": {},
        "sick": {"instances": {"a": {"running": false, "pid": 3, "exit_code": 139, "command": 7, "reload_signal": 1},
                               "b": 5, "c": {"running": "yes", "pid": -1, "exit_code": 4294967296}}},
        "odd": 4})")}}}});
    EXPECT_EQ(
        R"([{"command":"/usr/sbin/mgrd -c /etc/m x","instance":"main","name":"mgrd","pid":402,"respawns":7,"running":true},)"
        R"({"instance":"","name":"boot","running":false},)"
        R"({"exit_code":139,"instance":"a","name":"sick","reload_signal":1,"running":false},)"
        R"({"instance":"b","name":"sick"},{"instance":"c","name":"sick"},{"instance":"","name":"odd","running":false}])",
        shown(vela_service_json(bus, nullptr)));
    EXPECT_EQ(6, vela_service_foreach(bus, nullptr, count, nullptr));
    EXPECT_EQ(1, vela_service_foreach(bus, nullptr, stop_at_once, nullptr));
    EXPECT_EQ(-EINVAL, vela_service_foreach(bus, nullptr, nullptr, nullptr));
}

TEST_F(BusServices, OfTooManyServicesTheFirstThousandAreTold)
{
    std::string many = "{";
    for (int i = 0; i < 1025; ++i) many += (i ? "," : "") + ("\"s" + std::to_string(i)) + "\":{}";
    start({{"service", {{"list", answers(many + "}")}}}});
    EXPECT_EQ(-ENOSPC, vela_service_foreach(bus, nullptr, count, nullptr));
    const vela::json_ref list{vela_service_json(bus, nullptr)};
    ASSERT_EQ(1024U, json_array_size(list.get()));
    EXPECT_TRUE(json_is_true(json_object_get(json_array_get(list.get(), 0), "partial")));
}

TEST_F(BusServices, WithoutADaemonEachSaysSo)
{
    start({});
    EXPECT_EQ(-EOPNOTSUPP, vela_service_foreach(bus, nullptr, count, nullptr));
    EXPECT_EQ(-EOPNOTSUPP, vela_service_foreach(nullptr, nullptr, count, nullptr));
    EXPECT_EQ(-EOPNOTSUPP, vela_portal_client_foreach(bus, nullptr, count, nullptr));
    EXPECT_EQ(nullptr, vela_portal_json(bus));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_EQ(-ENOENT, vela_power_outlet_set(bus, "lan1", 1));
    vela_portal_client client;
    const uint8_t mac[6] = {2, 0, 0, 0, 0, 7};
    EXPECT_EQ(-EOPNOTSUPP, vela_portal_client_get(bus, mac, &client));
}

TEST_F(BusServices, TheNetworkDaemonTellsOfALease)
{
    ASSERT_EQ(0, site::run("ip link add wan type dummy || ip link add wan type bridge"));
    const auto dump = [](const std::string &entries) { return answers(R"({"interface": [)" + entries + "]}"); };
    const std::string v6 = R"({"interface": "wan6", "up": true, "proto": "dhcpv6", "l3_device": "wan"})";
    const std::string v4 = R"({"interface": "wan", "up": true, "uptime": 600, "proto": "dhcp", "device": "eth0",
        "l3_device": "wan", "ipv4-address": [{"address": "192.0.2.20", "mask": 25}],
        "route": [{"target": "10.0.0.0", "nexthop": "192.0.2.9"}, {"target": "0.0.0.0", "nexthop": "192.0.2.1"}],
        "dns-server": ["2001:db8::53", "192.0.2.53", "192.0.2.54"], "dns-search": ["site.example"],
        "data": {"leasetime": 3600, "dhcpserver": "192.0.2.2"}})";
    const table<const char *, std::string, std::string> cases = {
        {"bound, the entry for IPv6 passed over", v6 + "," + v4,
         R"({"address":"192.0.2.20","age_s":600,"dns":["192.0.2.53","192.0.2.54"],"domain":"site.example",)"
         R"("gateway":"192.0.2.1","ifname":"wan","lease_s":3600,"netmask":"255.255.255.128","remaining_s":3000,)"
         R"("server":"192.0.2.2","source":"bus","state":"bound"})"},
        {"renewed since",
         R"({"proto": "dhcp", "up": true, "device": "wan", "uptime": 9000, "data": {"leasetime": 3600}})",
         R"({"age_s":9000,"ifname":"wan","lease_s":3600,"source":"bus","state":"bound"})"},
        {"down", R"({"proto": "dhcp", "up": false, "device": "wan"})",
         R"({"ifname":"wan","source":"bus","state":"none"})"},
        {"by configuration", R"({"proto": "static", "up": true, "device": "wan", "ipv4-address": [{"address": 4}]})",
         R"({"ifname":"wan","source":"bus","state":"static"})"},
        {"of IPv6 alone", v6, R"({"ifname":"wan","source":"bus","state":"none"})"},
        {"another interface", R"({"proto": "dhcp", "up": true, "device": "wan", "l3_device": "ppp0"}, 7)",
         R"({"ifname":"wan","state":"unknown"})"},
    };
    for (const auto &[what, entries, expected] : cases) {
        start({{"network.interface", {{"dump", dump(entries)}}}});
        EXPECT_EQ(expected, shown(vela_dhcp_json(bus, "wan"))) << what;
    }
}

TEST_F(BusServices, ALeaseFileCountsUntilItRunsOut)
{
    ASSERT_EQ(0, site::run("ip link add wan type dummy || ip link add wan type bridge"));
    const std::string whole = "ip=192.0.2.20\nsubnet=255.255.255.0\nrouter=192.0.2.1 192.0.2.9\n"
                              "dns=192.0.2.53 x 192.0.2.54\nserverid=192.0.2.2\nlease=3600\ndomain=site.example\n";
    const table<const char *, std::string, int, std::string> cases = {
        {"whole", whole, 0,
         R"({"address":"192.0.2.20","age_s":0,"dns":["192.0.2.53","192.0.2.54"],"domain":"site.example",)"
         R"("gateway":"192.0.2.1","ifname":"wan","lease_s":3600,"netmask":"255.255.255.0","remaining_s":3600,)"
         R"("server":"192.0.2.2","source":"file","state":"bound"})"},
        {"run out", whole, 3600, R"({"ifname":"wan","source":"file","state":"none"})"},
        {"written in the future", "lease=60\nip=192.0.2.20", -3600,
         R"({"address":"192.0.2.20","ifname":"wan","lease_s":60,"source":"file","state":"bound"})"},
        {"cut", "ip=192.0.2.", 0, R"({"ifname":"wan","state":"unknown"})"},
        {"other keys", "ipx=192.0.2.20\n=\nlease", 0, R"({"ifname":"wan","state":"unknown"})"},
        {"odd values", "ip=192.0.2.20\nlease=99999999999\nsubnet=255\ndomain=\xff\n", 0,
         R"({"address":"192.0.2.20","age_s":0,"domain":"?","ifname":"wan","source":"file","state":"bound"})"},
    };
    for (const auto &[what, text, age_s, expected] : cases) {
        site::put_file("/var/run/dhcp-wan.lease", text);
        const timespec then = {time(nullptr) - age_s, 0};
        const timespec times[2] = {then, then};
        ASSERT_EQ(0, utimensat(AT_FDCWD, "/var/run/dhcp-wan.lease", times, 0));
        EXPECT_EQ(expected, shown(vela_dhcp_json(nullptr, "wan"))) << what;
    }
    site::remove_file("/var/run/dhcp-wan.lease");
    ASSERT_EQ(0, site::run("mkdir /var/run/dhcp-wan.lease; ip address add 192.0.2.77/28 dev wan valid_lft 500 "
                           "preferred_lft 400"));
    EXPECT_THAT(shown(vela_dhcp_json(nullptr, "wan")),
                testing::MatchesRegex(R"(\{"address":"192.0.2.77","ifname":"wan","netmask":"255.255.255.240",)"
                                      R"("remaining_s":(500|499),"source":"kernel","state":"bound"\})"));
    site::remove_file("/var/run/dhcp-wan.lease");

    vela_dhcp_lease lease = {};
    EXPECT_EQ(-ENODEV, vela_dhcp_get(nullptr, "nowhere", &lease));
    EXPECT_EQ(-EINVAL, vela_dhcp_get(nullptr, nullptr, &lease));
    EXPECT_EQ(0U, lease.state);
    EXPECT_STREQ("", lease.ifname);
}

TEST_F(BusServices, PowerComesFromTheDaemonFirst)
{
    start({{"vela.power",
            {{"supplies", answers(R"({"supplies": [{"name": "poe0", "kind": "poe", "online": true, "voltage_mv": 53900,
                "current_ma": 210, "power_mw": 11319, "max_mw": 25500}, {"name": "dc", "kind": "steam", "online": 0},
                {"name": "poe0", "kind": "dc"}, {"kind": "dc"}, 5]})")},
             {"outlets", answers(R"({"outlets": [{"name": "lan1", "interface": "eth1", "enabled": true,
                "state": "fault", "class": 4, "power_mw": -1, "limit_mw": 30000, "fault": "short circuit"}]})")},
             {"set_outlet", [](std::string_view values) {
                  const bool known = values == site::bus_values(R"({"name": "lan1", "enabled": false})");
                  return site::bus_reply{known ? 0U : 4U, {}};
              }}}}});
    EXPECT_EQ(R"({"outlets":[{"class":4,"enabled":true,"fault":"short circuit","interface":"eth1","limit_mw":30000,)"
              R"("name":"lan1","source":"bus","state":"fault"}],"supplies":[{"current_ma":210,"kind":"poe",)"
              R"("max_mw":25500,"name":"poe0","online":true,"power_mw":11319,"source":"bus","voltage_mv":53900},)"
              R"({"name":"dc","online":false,"source":"bus"}]})",
              shown(vela_power_json(bus)));
    EXPECT_EQ(0, vela_power_outlet_set(bus, "lan1", 0));
    EXPECT_EQ(-ENOENT, vela_power_outlet_set(bus, "lan9", 0));
    EXPECT_EQ(-EINVAL, vela_power_outlet_set(bus, "", 0));
}

TEST_F(BusServices, PowerComesFromTheKernelOtherwise)
{
    site::remove_file("/sys/class");
    const std::string class_path = "/sys/class/power_supply/";
    EXPECT_EQ(-ENOENT, vela_power_supply_foreach(nullptr, count, nullptr));
    site::put_file(class_path + "adapter/type", "Mains\n");
    site::put_file(class_path + "adapter/online", "1\n");
    site::put_file(class_path + "adapter/voltage_now", "12034000\n");
    site::put_file(class_path + "adapter/current_now", "-450000\n");
    site::put_file(class_path + "adapter/power_now", "99999999999999999999\n");
    site::put_file(class_path + "not-a-supply", "");
    const vela::json_ref power{vela_power_json(nullptr)};
    EXPECT_EQ(R"([{"kind":"mains","name":"adapter","online":true,"source":"kernel","voltage_mv":12034}])",
              dumped(json_object_get(power.get(), "supplies")));
}

/// The attributes of a kernel's answer about an outlet, as a request holds them too.
struct pse_answer {
    vela::raw_netlink::request message{0, genlmsghdr{}};

    pse_answer(const char *ifname, const table<uint16_t, uint32_t> &numbers)
    {
        {
            const vela::raw_netlink::request::list header{message, 1 | NLA_F_NESTED};
            message.put(1, uint32_t{7});
            message.put_text(2, ifname);
        }
        for (const auto &[type, number] : numbers) message.put(type, number);
    }
    vela_power_outlet read(size_t cut = 0) const
    {
        const auto whole = message.bytes().subspan(sizeof(nlmsghdr) + sizeof(genlmsghdr));
        const std::vector<uint8_t> bytes(whole.begin(), whole.end() - static_cast<ptrdiff_t>(cut));
        return vela::power::read_outlet(bytes);
    }
};

TEST(Power, AnOutletIsWhatItsControllerSays)
{
    const pse_answer whole{"lan3", {{5, 3}, {6, 3}, {7, 4}, {8, 4}, {9, 12900}, {12, 30000}}};
    const vela_power_outlet outlet = whole.read();
    EXPECT_STREQ("lan3", outlet.name);
    EXPECT_STREQ("lan3", outlet.ifname);
    EXPECT_EQ(1U, outlet.enabled);
    EXPECT_EQ(uint32_t{VELA_OUTLET_DELIVERING}, outlet.state);
    EXPECT_EQ(4U, outlet.power_class);
    EXPECT_EQ(12900U, outlet.power_mw);
    EXPECT_EQ(30000U, outlet.limit_mw);
    const table<uint32_t, uint32_t> states = {
        {1, UINT32_MAX},        {2, VELA_OUTLET_OFF},   {3, VELA_OUTLET_SEARCHING}, {5, UINT32_MAX},
        {6, VELA_OUTLET_FAULT}, {7, VELA_OUTLET_FAULT}, {UINT32_MAX, UINT32_MAX}};
    for (const auto &[status, state] : states)
        EXPECT_EQ(state, pse_answer("lan3", {{7, status}}).read().state) << status;
    for (size_t cut = 1; cut < 72; ++cut) EXPECT_EQ(UINT32_MAX, whole.read(cut).limit_mw) << cut;
}

TEST_F(BusServices, ThePortalTellsOfItsClients)
{
    std::string many = R"({"mac": "02:00:00:00:00:07", "network": "guest", "state": "allowed", "since_s": 60,
        "remaining_s": 3540, "rx_bytes": 9007199254740993, "tx_bytes": 12}, {"mac": "x"}, {"mac": "02:00:00:00:00:08"})";
    const auto blocked = answers(R"({"mac": "02:00:00:00:00:07", "state": "blocked"})");
    start({{"vela.portal",
            {{"status", answers(R"({"networks": [{"network": "guest", "interface": "br-guest", "enabled": true,
                "clients": 2}]})")},
             {"clients", answers(R"({"clients": [)" + many + "]}")},
             {"client", [blocked](std::string_view values) {
                  const bool known = values == site::bus_values(R"({"mac": "02:00:00:00:00:07"})");
                  return known ? blocked(values) : site::bus_reply{4, {}};
              }}}}});
    EXPECT_EQ(
        R"({"clients":[{"mac":"02:00:00:00:00:07","network":"guest","remaining_s":3540,"rx_bytes":9007199254740993,)"
        R"("since_s":60,"state":"allowed","tx_bytes":12},{"mac":"02:00:00:00:00:08"}],)"
        R"("networks":[{"clients":2,"enabled":true,"interface":"br-guest","network":"guest"}]})",
        shown(vela_portal_json(bus)));
    EXPECT_EQ(2, vela_portal_client_foreach(bus, "guest", count, nullptr));

    vela_portal_client client = {};
    const uint8_t known[6] = {2, 0, 0, 0, 0, 7};
    const uint8_t stranger[6] = {2, 0, 0, 0, 0, 9};
    EXPECT_EQ(-ENOENT, vela_portal_client_get(bus, stranger, &client));
    EXPECT_EQ(0U, client.state);
    EXPECT_EQ(0, vela_portal_client_get(bus, known, &client));
    EXPECT_EQ(uint32_t{VELA_PORTAL_BLOCKED}, client.state);
    EXPECT_EQ(UINT32_MAX, client.since_s);
}

} // namespace
