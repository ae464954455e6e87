// The command-line tool on a simulated device: each command's JSON against the table that its documents are made from.
#include "site/bus_json.h"
#include "site/device.h"
#include "site/mgrd.h"
#include "site/world.h"
#include "tests/support/json.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <set>

using site::answers;
using testing::HasSubstr;

namespace
{

struct outcome {
    int status;
    std::string out;
    std::string err;
};

outcome run(const std::string &line)
{
    const int status = site::run(VELACTL " " + line + " >/tmp/out 2>/tmp/err");
    return {status, site::read_file("/tmp/out"), site::read_file("/tmp/err")};
}

const char *text_of(const json_t *object, const char *key) { return json_string_value(json_object_get(object, key)); }

/// Whether a member holds what its table says, or is not known.
bool holds(const json_t *member, const std::string &kind)
{
    if (!member) return false;
    if (json_is_null(member)) return true;
    if (kind == "text") return json_is_string(member);
    if (kind == "text or number") return json_is_string(member) || json_is_integer(member);
    if (kind == "number") return json_is_number(member);
    if (kind == "true or false") return json_is_boolean(member);
    if (kind == "object") return json_is_object(member);
    return json_is_array(member);
}

void expect_members(const json_t *object, const json_t *members, const std::string &line)
{
    ASSERT_TRUE(json_is_object(object)) << line;
    if (json_array_size(members) == 0) return;
    EXPECT_EQ(json_array_size(members), json_object_size(object)) << line << " has members without a row";
    for (size_t i = 0; i < json_array_size(members); ++i) {
        const json_t *row = json_array_get(members, i);
        const char *name = text_of(row, "name");
        EXPECT_TRUE(holds(json_object_get(object, name), text_of(row, "holds"))) << line << ": " << name;
    }
}

void expect_answer(const json_t *result, const json_t *command, const std::string &line)
{
    const std::string gives = text_of(command, "gives");
    const json_t *members = json_object_get(command, "members");
    if (gives == "nothing") EXPECT_TRUE(json_is_null(result)) << line;
    if (gives == "one text") EXPECT_TRUE(json_is_string(result)) << line;
    if (gives == "an object") expect_members(result, members, line);
    if (gives != "a list of objects") return;
    ASSERT_TRUE(json_is_array(result)) << line;
    for (size_t i = 0; i < json_array_size(result); ++i) expect_members(json_array_get(result, i), members, line);
}

/// A device with a bridge, a route, a bus with its providers and a management daemon.
class Velactl : public testing::Test
{
protected:
    void SetUp() override
    {
        site::lay_out_device();
        site::put_file("/tmp/other.cfg", "radio.1.mode=sta\nwireless.1.security.psk=changed\n");
        site::run("ip link add br0 type bridge; ip link add eth0 type veth peer name far; ip link set eth0 master br0;"
                  "ip link set br0 up; ip link set eth0 up; ip link set far up; ip address add 192.0.2.20/24 dev br0;"
                  "ip neigh add 192.0.2.1 lladdr 02:56:4c:00:00:01 dev br0; ip route add default via 192.0.2.1");
        bus.offer("mgragent", {{"stats", answers(R"({"stations": 7})")}});
        bus.offer("service",
                  {{"list", answers(R"({"mgrd": {"instances": {"main": {"running": true, "pid": 402}}}})")}});
        bus.offer("vela.power", {{"supplies", answers(R"({"supplies": [{"name": "poe0", "kind": "poe"}]})")},
                                 {"outlets", answers(R"({"outlets": []})")},
                                 {"set_outlet", answers("{}")}});
        bus.offer("vela.portal", {{"status", answers(R"({"networks": []})")},
                                  {"clients", answers(R"({"clients": [{"mac": "02:00:00:00:00:07"}]})")}});
        bus.start();
    }
    site::bus_daemon bus;
    site::mgrd manager{[](const std::string &) { return site::json_answer(R"({"state": "connected"})"); }};
};

TEST_F(Velactl, EveryCommandAnswersAsItsTableSays)
{
    // These want a radio, a service outside the device, or a kernel that tracks connections.
    const std::set<std::string> elsewhere = {"scan",     "radio",    "txpower",  "uplinks", "networks",
                                             "stations", "station",  "channels", "survey",  "choose",
                                             "qos",      "wireless", "crash",    "trace",   "connections"};
    const table<std::string, int> cases = {
        {"board", 0},
        {"ports", 0},
        {"family", 0},
        {"status", 0},
        {"get radio.1.mode", 0},
        {"list", 0},
        {"list --secrets wireless", 0},
        {"section radio. .mode", 0},
        {"diff /tmp/system.cfg /tmp/other.cfg", 0},
        {"op status", 0},
        {"services", 0},
        {"dhcp br0", 0},
        {"power", 0},
        {"outlet lan1 off", 0},
        {"portal", 0},
        {"gateway", 0},
        {"lldp", 3}, // no daemon
        {"url https://a.example/b", 0},
        {"links", 0},
        {"link br0", 0},
        {"bridge br0", 0},
        {"fdb br0", 0},
        {"neighbours", 0},
        {"internet", 0},
        {"why gateway", 0},
        {"payload", 3}, // there is none
        {"frequency 2412 5955", 0},
        {"processes", 0},
        {"sockets --owner", 0},
        {"bus list", 0},
        {"bus call mgragent stats", 0},
        {"load", 0},
    };
    const vela::json_ref document = parsed(run("--document json").out);
    std::map<std::string, const json_t *> commands;
    const json_t *list = json_object_get(document.get(), "commands");
    for (size_t i = 0; i < json_array_size(list); ++i) {
        const json_t *command = json_array_get(list, i);
        EXPECT_TRUE(commands.emplace(text_of(command, "name"), command).second) << text_of(command, "name");
    }
    std::set<std::string> seen = elsewhere;
    for (const auto &[line, status] : cases) {
        const std::string name = line.substr(0, line.find(' '));
        seen.insert(name);
        ASSERT_TRUE(commands.contains(name)) << name;
        const outcome result = run(line + " --json");
        EXPECT_EQ(status, result.status) << line << ": " << result.err;
        if (status != 0) continue;
        const vela::json_ref envelope = parsed(result.out);
        EXPECT_EQ(1, json_integer_value(json_object_get(envelope.get(), "schema"))) << line;
        EXPECT_EQ(name, text_of(envelope.get(), "command"));
        expect_answer(json_object_get(envelope.get(), "result"), commands[name], line);
        EXPECT_EQ(0, run(line).status) << line << ", for people";
    }
    for (const auto &[name, command] : commands) EXPECT_TRUE(seen.contains(name)) << name << " has no case here";
}

TEST_F(Velactl, SaysWhatIsWrongAndWhatToDo)
{
    const table<std::string, int, const char *> cases = {
        {"lisst", 2, "unknown command lisst, did you mean list?"},
        {"board --jsn", 2, "unknown option --jsn, did you mean --json?"},
        {"get", 2, "arguments missing; usage: velactl get KEY [DEFAULT]"},
        {"status now", 2, "arguments too many"},
        {"--config", 2, "--config wants a value: FILE"},
        {"get no.such", 1, "no key \"no.such\"; velactl list shows them"},
        {"list --config /none", 3, "/none cannot be read"},
        {"link nowhere -v", 3, "(19)"}, // ENODEV
        {"radio wlan0", 3, "no nl80211"},
        {"outlet lan1 perhaps", 2, "on or off"},
        {"url gopher://a", 1, "not a URL"},
    };
    for (const auto &[line, status, said] : cases) {
        const outcome result = run(line);
        EXPECT_EQ(status, result.status) << line;
        EXPECT_THAT(result.err, HasSubstr(said)) << line;
        EXPECT_EQ("", result.out) << line;
    }
    EXPECT_EQ(0, run("help board").status);
    EXPECT_EQ(1, site::run(VELACTL " board >/dev/full 2>/dev/null"));
}

TEST_F(Velactl, MasksSecretsUnlessAskedForThem)
{
    for (const std::string line : {"list", "section wireless. .security.psk", "diff /tmp/system.cfg /tmp/other.cfg"}) {
        EXPECT_THAT(run(line).out, testing::Not(HasSubstr("correct-horse-battery"))) << line;
    }
    EXPECT_THAT(run("--secrets list").out, HasSubstr("correct-horse-battery"));
}

} // namespace
