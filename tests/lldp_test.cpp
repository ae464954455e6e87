#include "site/world.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <cerrno>
#include <chrono>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <unistd.h>
#include <vela/board/board.h>
#include <vela/services/lldp.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

using strings = std::vector<std::string>;
using lines = std::vector<log_line>;

bool always_interrupted = false; ///< what poll is

void client_runs(const std::string &script) { site::put_program("/usr/local/bin/lldpcli", script); }

void client_prints(const std::string &document)
{
    site::put_file("/run/neighbours.json", document);
    client_runs("[ \"$*\" = '-f json show neigh' ] && cat /run/neighbours.json");
}

std::string interfaces(const std::string &value) { return R"({"lldp": {"interface": )" + value + "}}"; }

/// What the library makes of the client's answer.
std::string neighbours() { return dumped(vela::json_ref{vela_get_lldp_json()}); }

log_line said(const char *level, const char *text) { return {level, "lldp", "vela_get_lldp_json", text}; }

/// A board with one single port and a switch.
board_record &be_board(uint16_t system_id)
{
    static board_record board;
    board = {.phy_group_count = 3, .system_id = system_id};
    board.phy_groups[0] = {0, 2, {{.port_id = 99, .name = "eth"}}}; // of neither kind
    board.phy_groups[1] = {PHY_GROUP_SINGLE, 1, {{.port_id = 7, .name = "eth1"}}};
    board.phy_groups[2] = {PHY_GROUP_MULTI, 2, {{.port_id = 3, .name = nullptr}, {.port_id = 5, .name = "eth3"}}};
    update_cached_board(&board);
    return board;
}

} // namespace

extern "C" int poll(pollfd *fds, nfds_t count, int timeout_ms)
{
    static const auto real = reinterpret_cast<decltype(&poll)>(dlsym(RTLD_NEXT, "poll"));
    if (!always_interrupted) return real(fds, count, timeout_ms);
    errno = EINTR;
    return -1;
}

TEST(Lldp, SeveralNeighbours)
{
    be_board(1);
    client_prints(interfaces(
        R"([{"eth0": {"chassis": {"a": {"id": {"type": "mac", "value": "02:56:4c:00:00:01"}, "descr": "Switch, 24"}},)"
        R"( "port": {"id": {"type": "ifname", "value": "ge1"}, "descr": "Port 1"}}},)"
        R"({"ath0": {"chassis": {"x": {"descr": "first"}, "y": {"descr": "second"}}, "port": {}}}, {"eth1": {"port": {}}}, 7])"));
    EXPECT_EQ(
        R"([{"chassis_descr":"Switch, 24","chassis_id":"02:56:4c:00:00:01","is_wired":true,)"
        R"("local_port_idx":1,"local_port_name":"eth0","port_descr":"Port 1","port_id":"ge1"},)"
        R"({"chassis_descr":"second","chassis_id":"00:00:00:00:00:00","is_wired":false,"local_port_name":"ath0"}])",
        neighbours());
}

// One neighbour each, which the client prints as an object.
TEST(Lldp, PortNumbersFollowTheBoard)
{
    const std::string with_id = R"({"id": {"value": "x"}})", without = R"({"descr": "y"})";
    const table<uint16_t, std::string, std::string, int> cases = {
        {1, "eth10", with_id, 7},     {1, "eth3", without, 5},      {1, "eth40000", with_id, 40001},
        {1, "bond1", without, 2},     {0xA652, "eth0", with_id, 5}, {0xA656, "eth0.10", without, 5},
        {0xA69F, "eth0", without, 1}, {2, "eth3", with_id, 4},
    };
    for (const auto &[system_id, port, chassis, number] : cases) {
        board_record &board = be_board(system_id);
        if (system_id == 2) board.phy_groups[1].port_count = 2; // a single group that is none ends the search
        client_prints(interfaces("{\"" + port + R"(": {"chassis": {"sw": )" + chassis +
                                 R"(}, "port": {"id": {"value": "02:00:00:00:00:01"}}}})"));
        EXPECT_THAT(neighbours(), HasSubstr("\"local_port_idx\":" + std::to_string(number) + ",")) << port << chassis;
    }
}

TEST(Lldp, AnswersThatMakeNoSense)
{
    log_lines log("info");
    const std::string too_long = "{\"eth0\": {\"chassis\": {\"" + std::string(20000, 'n') + "\": {}}}}"; // is cut
    const std::string nobody = R"({"lldp": {}})";
    const auto no_json = said("error", "wireless/lldp error -5"), no_lldp = said("error", "wireless/lldp error -6");
    const auto none_found = said("info", "No LLDP neighbors found");
    const table<std::string, int, lines> cases = {
        {"", 1, {no_json}},        {"\xff\xfe", 1, {no_json}}, {interfaces(too_long), 1, {no_json}},
        {"[1]", 1, {no_lldp}},     {"{}", 1, {no_lldp}},       {nobody, 7, lines(5, none_found)},
        {interfaces("{}"), 1, {}}, {nobody, 1, {none_found}}, // said again after an answer with neighbours
    };
    for (const auto &[document, times, expected] : cases) {
        client_prints(document);
        for (int i = 0; i < times; ++i) EXPECT_EQ("[]", neighbours()) << document;
        EXPECT_EQ(expected, log.take()) << document;
    }
}

TEST(Lldp, AClientMayTakeItsTimeButNotBeSilent)
{
    log_lines log("info");
    const std::string snooze = "s" + std::to_string(getpid()); // nobody else's
    ASSERT_EQ(0, site::run("cp $(command -v sleep) /usr/local/bin/" + snooze));
    const leak_check leaks;
    const auto timeout = said("info", "Poll timeout");
    const auto slow = said("error", "Warning: lldpcli took 3 seconds!");
    const std::string nobody = "echo '{\"lldp\": {\"interface\": {}}}'";
    const table<std::string, bool, const char *, lines> cases = {
        {"echo '{\"lldp\"'; " + snooze + " 100", false, "null", {timeout}},
        {snooze + " 100 & exit", false, "null", {timeout}},
        {snooze + " 100", true, "null", {timeout}},
        {"sleep 1.5; echo; sleep 1.5; " + nobody, false, "[]", {slow}},
        {nobody + "; exec >&- 2>&-; sleep 3.2", false, "[]", {slow}}, // waited for, with its output closed
    };
    for (const auto &[script, interrupted, result, expected] : cases) {
        client_runs(script);
        always_interrupted = interrupted;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(result, neighbours()) << script;
        always_interrupted = false;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15)) << script;
        EXPECT_EQ(expected, log.take()) << script;
        EXPECT_EQ(0, site::run("! pgrep -x " + snooze + " >/dev/null")) << script;
    }
    leaks.expect_unchanged();
}

TEST(Lldp, ReportNamesTheMainPortsNeighbourAndTheUplinks)
{
    const auto report = [](size_t oui_len, int uplink_len) {
        char main_descr[16] = "old", oui[8] = "old", uplink_descr[16] = "old";
        bool other = true;
        const int result =
            vela_get_lldp_report(main_descr, sizeof main_descr, oui, oui_len, &other, uplink_descr, uplink_len);
        return strings{std::to_string(result), main_descr, oui, other ? "other" : "wired", uplink_descr};
    };
    be_board(1);
    EXPECT_THAT(report(8, 16), ElementsAre("-1", "", "", "wired", "")) << "no default route";

    ASSERT_EQ(0, site::run("ip link add ath0 type veth peer name eth5 && ip link set ath0 up && ip link set eth5 up &&"
                           "ip address add 192.168.7.2/24 dev ath0 && ip route add default via 192.168.7.1"));
    client_prints(interfaces(
        R"([{"eth1": {"chassis": {"a": {"id": {"value": "02:56:4C:aa:bb:cc"}, "descr": "Old"}}}},)"
        R"({"eth1": {"chassis": {"a": {"id": {"value": "02:56:4C:aa:bb:cc"}, "descr": "Aggregation switch, 24"}}}},)"
        R"({"ath0": {"chassis": {"b": {"descr": "Parent,x"}}}}, {"eth3": {"chassis": {"c": {"descr": "Other"}}}}])"));
    EXPECT_THAT(report(7, 16), ElementsAre("0", "Aggregation swi", "02564c", "other", "Parent"));
    EXPECT_THAT(report(6, 4), ElementsAre("0", "Aggregation swi", "", "other", "Par")) << "six digits need seven bytes";
    EXPECT_THAT(report(0, 0), ElementsAre("0", "Aggregation swi", "old", "other", "old")) << "left alone";

    ASSERT_EQ(0, site::run("ip route del default; ip address add 192.168.8.2/24 dev eth5;"
                           "ip route add default via 192.168.8.1"));
    EXPECT_THAT(report(8, 16), ElementsAre("0", "Aggregation swi", "02564c", "wired", ""));
    client_runs("sleep 100");
    EXPECT_EQ(std::to_string(-ENOENT), report(8, 16).front());
}

// The real daemon in two network namespaces, one wire between them.
TEST(Lldp, TheRealDaemon)
{
    if (!site::exists("/usr/sbin/lldpd")) GTEST_SKIP() << "lldpd is not installed";
    site::put_file("/run/owned", "");
    if (chown("/run/owned", 1, 1) != 0) GTEST_SKIP() << "lldpd needs users that an unprivileged world does not have";
    be_board(1);
    ASSERT_EQ(0, site::run("ip netns add far && ip link add eth1 type veth peer name eth9 netns far &&"
                           "ip link set eth1 up && ip -n far link set eth9 up && mkdir -p /run/lldpd /run/far &&"
                           "getent passwd _lldpd >/dev/null"));
    site::run("setsid lldpd -d -c -e -u /run/lldpd.socket -O /dev/null >/run/lldpd.log 2>&1 &"
              "setsid ip netns exec far lldpd -d -u /run/far/lldpd.socket -O /dev/null -S 'Far switch, of the test' "
              ">/run/far.log 2>&1 &");
    std::string found;
    for (int i = 0; i < 100 && found.find("Far switch") == std::string::npos; ++i) {
        site::run(i % 10 != 0 ? "sleep 0.2" : "lldpcli -u /run/far/lldpd.socket update >/dev/null 2>&1");
        found = neighbours();
    }
    for (const char *part : {R"("chassis_descr":"Far switch, of the test")", R"("local_port_name":"eth1")"}) {
        EXPECT_THAT(found, HasSubstr(part)) << site::read_file("/run/lldpd.log") << site::read_file("/run/far.log");
    }
}
