#include "site/device.h"
#include "site/world.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <cerrno>
#include <chrono>
#include <gmock/gmock.h>
#include <unistd.h>
#include <vela/board/board.h>
#include <vela/services/lldp.h>

using testing::ElementsAre;

namespace
{

void client_prints(const std::string &document)
{
    site::put_file("/run/neighbours.json", document);
    site::put_program("/usr/local/bin/lldpcli", "[ \"$*\" = '-f json show neigh' ] && cat /run/neighbours.json");
}

std::string text(json_t *value)
{
    char *dumped = json_dumps(value, JSON_COMPACT);
    const std::string result = dumped ? dumped : "(null)";
    free(dumped);
    json_decref(value);
    return result;
}

std::string interfaces(const std::string &value) { return R"({"lldp": {"interface": )" + value + "}}"; }

/// A board with one single port and a switch, and the given system id.
void be_board(uint16_t system_id)
{
    static board_record board;
    board = {};
    board.system_id = system_id;
    board.phy_group_count = 3;
    board.phy_groups[0] = {0, 2, {{.port_id = 99, .name = "eth"}}}; // of neither kind
    board.phy_groups[1] = {PHY_GROUP_SINGLE, 1, {{.port_id = 7, .name = "eth1"}}};
    board.phy_groups[2] = {PHY_GROUP_MULTI, 2, {{.port_id = 3, .name = nullptr}, {.port_id = 4, .name = "eth3"}}};
    update_cached_board(&board);
}

int port_of(const char *name, const char *chassis, const char *port_id)
{
    client_prints(interfaces(std::string("{\"") + name + R"(": {"chassis": {"sw": )" + chassis +
                             R"(}, "port": {"id": {"value": ")" + port_id + "\"}}}}"));
    json_t *neighbours = vela_get_lldp_json();
    const json_t *index = json_object_get(json_array_get(neighbours, 0), "local_port_idx");
    const int result = index ? static_cast<int>(json_integer_value(index)) : -77;
    json_decref(neighbours);
    return result;
}

} // namespace

TEST(Lldp, OneNeighbourOrSeveral)
{
    be_board(1);
    const std::string one =
        R"({"eth0": {"chassis": {"switch-a": {"id": {"type": "mac", "value": "02:56:4c:00:00:01"}, "descr": "Switch, 24 ports"}},)"
        R"( "port": {"id": {"type": "ifname", "value": "ge1"}, "descr": "Port 1"}}})";
    const std::string two = R"({"ath0": {"chassis": {"x": {"descr": "first"}, "y": {"descr": "second"}}, "port": {}}})";
    const std::string first =
        R"({"local_port_name":"eth0","is_wired":true,"chassis_id":"02:56:4c:00:00:01","chassis_descr":"Switch, 24 ports",)"
        R"("port_id":"ge1","port_descr":"Port 1","local_port_idx":1})";
    const std::string second =
        R"({"local_port_name":"ath0","is_wired":false,"chassis_id":"00:00:00:00:00:00","chassis_descr":"second"})";
    client_prints(interfaces(one));
    EXPECT_EQ("[" + first + "]", text(vela_get_lldp_json()));
    client_prints(interfaces("[" + one + "," + two + R"(, {"eth1": {"port": {}}}, 7])"));
    EXPECT_EQ("[" + first + "," + second + "]", text(vela_get_lldp_json()));
}

TEST(Lldp, PortNumbersFollowTheBoard)
{
    constexpr const char *with_id = R"({"id": {"value": "x"}})";
    constexpr const char *without = R"({"descr": "y"})";
    struct {
        uint16_t system_id;
        const char *name, *chassis, *port_id;
        int expected;
    } const cases[] = {
        {1, "eth10", with_id, "p", 7},        {1, "eth3", without, "p", 4},
        {1, "eth0", with_id, "p", 1},         {1, "eth8", without, "p", 9},
        {1, "bond1", with_id, "p", 2},        {0xA652, "eth0", with_id, "p", 5},
        {0xA656, "eth0.10", without, "p", 5}, {0xA69F, "eth0", without, "02:00:00:00:00:01", 1},
    };
    for (const auto &c : cases) {
        be_board(c.system_id);
        EXPECT_EQ(c.expected, port_of(c.name, c.chassis, c.port_id))
            << c.system_id << ' ' << c.name << ' ' << c.chassis;
    }
    be_board(1);
    static board_record odd = *board_identify();
    odd.phy_groups[1].port_count = 2; // a single group that is none ends the search
    update_cached_board(&odd);
    EXPECT_EQ(4, port_of("eth3", with_id, "p"));
}

TEST(Lldp, AnswersThatMakeNoSense)
{
    log_lines log("info");
    const auto error = [](int code) {
        return log_line{"error", "lldp", "vela_get_lldp_json", "wireless/lldp error " + std::to_string(code)};
    };
    struct {
        const char *document;
        int code;
    } const cases[] = {{"", -5}, {"{\"lldp\": {", -5}, {"[1]", -6}, {"{}", -6}, {"\xff\xfe", -5}};
    for (const auto &c : cases) {
        client_prints(c.document);
        EXPECT_EQ("[]", text(vela_get_lldp_json())) << c.document;
        EXPECT_THAT(log.take(), ElementsAre(error(c.code))) << c.document;
    }
    client_prints(interfaces("{\"eth0\": {\"chassis\": {\"" + std::string(20000, 'n') + "\": {}}}}"));
    EXPECT_EQ("[]", text(vela_get_lldp_json())) << "cut at 16383 bytes";
    EXPECT_THAT(log.take(), ElementsAre(error(-5)));

    client_prints(R"({"lldp": {}})");
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ("[]", text(vela_get_lldp_json()));
        EXPECT_EQ(i < 5 ? 1U : 0U, log.take().size()) << i;
    }
    client_prints(interfaces("{}"));
    EXPECT_EQ("[]", text(vela_get_lldp_json()));
    client_prints(R"({"lldp": {}})");
    EXPECT_EQ("[]", text(vela_get_lldp_json()));
    EXPECT_THAT(log.texts(), ElementsAre("No LLDP neighbors found")) << "said again after neighbours";
}

TEST(Lldp, AClientThatDoesNotEndIsEnded)
{
    log_lines log("info");
    const leak_check leaks;
    site::put_program("/usr/local/bin/lldpcli", "echo '{\"lldp\"'; sleep 100");
    EXPECT_EQ(nullptr, vela_get_lldp_json());
    EXPECT_THAT(log.take(), ElementsAre(log_line{"info", "lldp", "vela_get_lldp_json", "Poll timeout"}));

    site::put_program("/usr/local/bin/lldpcli", "sleep 1.6; echo; sleep 1.6; echo '{\"lldp\": {\"interface\": {}}}'");
    EXPECT_EQ("[]", text(vela_get_lldp_json()));
    EXPECT_THAT(log.texts(), ElementsAre("Warning: lldpcli took 3 seconds!"));

    site::put_program("/usr/local/bin/lldpcli", "echo '{\"lldp\": {\"interface\": {}}}'; exec >&- 2>&-; sleep 100");
    EXPECT_EQ("[]", text(vela_get_lldp_json())) << "hung up, and stayed";
    leaks.expect_unchanged();
    EXPECT_EQ(0, site::run("! pgrep -x sleep >/dev/null"));
}

TEST(Lldp, EndlessOutputIsGivenUp)
{
    const auto start = std::chrono::steady_clock::now();
    site::put_program("/usr/local/bin/lldpcli", "exec yes");
    EXPECT_EQ(nullptr, vela_get_lldp_json());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
}

TEST(Lldp, ReportNamesTheMainPortsNeighbourAndTheUplinks)
{
    char main_descr[16] = "old";
    char oui[8] = "old";
    char uplink_descr[16] = "old";
    bool other = true;
    const auto report = [&] {
        return vela_get_lldp_report(main_descr, sizeof main_descr, oui, sizeof oui, &other, uplink_descr,
                                    sizeof uplink_descr);
    };
    be_board(1);
    EXPECT_EQ(-1, report()) << "no default route";
    EXPECT_STREQ("", main_descr);
    EXPECT_FALSE(other);

    ASSERT_EQ(0, site::run("ip link add ath0 type veth peer name eth5 && ip link set ath0 up && ip link set eth5 up &&"
                           "ip address add 192.168.7.2/24 dev ath0 && ip route add default via 192.168.7.1"));
    client_prints(interfaces(
        R"([{"eth1": {"chassis": {"a": {"id": {"value": "02:56:4C:aa:bb:cc"}, "descr": "Old"}}}},)"
        R"({"eth1": {"chassis": {"a": {"id": {"value": "02:56:4C:aa:bb:cc"}, "descr": "Aggregation switch, 24"}}}},)"
        R"({"ath0": {"chassis": {"b": {"descr": "Parent,x"}}}}, {"eth3": {"chassis": {"c": {"descr": "Other"}}}}])"));
    EXPECT_EQ(0, report());
    EXPECT_STREQ("Aggregation swi", main_descr);
    EXPECT_STREQ("02564c", oui);
    EXPECT_STREQ("Parent", uplink_descr);
    EXPECT_TRUE(other);

    char untouched[8] = "keep";
    EXPECT_EQ(0, vela_get_lldp_report(untouched, 0, untouched, 0, &other, untouched, 0));
    EXPECT_STREQ("keep", untouched);
    EXPECT_EQ(0, vela_get_lldp_report(main_descr, sizeof main_descr, oui, 6, &other, uplink_descr, 4));
    EXPECT_STREQ("", oui) << "six digits need seven bytes";
    EXPECT_STREQ("Par", uplink_descr);

    ASSERT_EQ(
        0, site::run(
               "ip route del default; ip address add 192.168.8.2/24 dev eth5; ip route add default via 192.168.8.1"));
    EXPECT_EQ(0, report());
    EXPECT_FALSE(other);
    EXPECT_STREQ("", uplink_descr);
    site::put_program("/usr/local/bin/lldpcli", "sleep 100");
    EXPECT_EQ(-ENOENT, report());
}

// The real daemon in two network namespaces, one wire between them.
TEST(Lldp, TheRealDaemon)
{
    if (!site::exists("/usr/sbin/lldpd")) GTEST_SKIP() << "lldpd is not installed";
    site::put_file("/run/owned", "");
    if (chown("/run/owned", 1, 1) != 0) GTEST_SKIP() << "lldpd needs users that an unprivileged world does not have";
    be_board(1);
    ASSERT_EQ(0, site::run("ip netns add far && ip link add eth1 type veth peer name eth9 netns far &&"
                           "ip link set eth1 up && ip -n far link set eth9 up &&"
                           "mkdir -p /run/lldpd && getent passwd _lldpd >/dev/null && mkdir -p /run/far"));
    site::run("setsid lldpd -d -c -e -u /run/lldpd.socket -O /dev/null >/run/lldpd.log 2>&1 & echo $! >/run/near.pid;"
              "setsid ip netns exec far lldpd -d -u /run/far/lldpd.socket -O /dev/null -S 'Far switch, of the test' "
              ">/run/far.log 2>&1 & "
              "echo $! >/run/far.pid");
    std::string found;
    for (int i = 0; i < 100 && found.find("Far switch") == std::string::npos; ++i) {
        if (i % 10 == 0) site::run("lldpcli -u /run/far/lldpd.socket update >/dev/null 2>&1");
        found = text(vela_get_lldp_json());
        site::run("sleep 0.2");
    }
    EXPECT_THAT(found, testing::HasSubstr(R"("local_port_name":"eth1","is_wired":true,"chassis_id":)"))
        << site::read_file("/run/lldpd.log") << site::read_file("/run/far.log");
    EXPECT_THAT(found, testing::HasSubstr("\"chassis_descr\":\"Far switch, of the test\""));
    EXPECT_THAT(found, testing::HasSubstr("\"local_port_idx\":7"));
    site::run("kill $(cat /run/near.pid /run/far.pid); sleep 0.3");
}
