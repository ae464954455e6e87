// Two devices on one wire: this world and a second network, each with a bridge br0, joined by a veth pair.
#include "site/device.h"
#include "site/wire.h"
#include "site/world.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <csignal>
#include <event2/event.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>
#include <vela/core/log.h>
#include <vela/discovery/protocol.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace
{

constexpr const char *key = "corvo.key=000102030405060708090a0b0c0d0e0f";
constexpr const char *group = "233.252.0.48";
constexpr const char *info_path = "/var/run/vela_protocol.info";
constexpr const char *system_path = "/tmp/system.cfg";
constexpr const char *address_path = "/var/run/ipready.br0";

std::string configuration(const std::string &with_key = key, const std::string &with_group = group)
{
    return with_key + "\ncorvo.mcip=" + with_group + "\n";
}

event_base *const base = event_base_new();
std::vector<std::string> heard;

void note(const vela_packet *p, const uint8_t *payload, uint32_t method)
{
    heard.push_back(std::to_string(method) + ":" + std::string(reinterpret_cast<const char *>(payload), p->length));
}
void note_again(const vela_packet *, const uint8_t *, uint32_t) { heard.emplace_back("again"); }
void end_protocol(const vela_packet *, const uint8_t *, uint32_t)
{
    vela_protocol_deinit();
    event_base_loopbreak(base);
}

void send(const std::string &text, uint16_t method, uint16_t sequence, int encrypt = 1)
{
    vela_protocol_ctrl.tx_seq = sequence;
    if (vela_protocol_send(text.data(), static_cast<uint32_t>(text.size()), method, 1, encrypt) < 40) _exit(6);
}

class Protocol : public testing::Test
{
protected:
    Protocol()
    {
        site::lay_out_device();
        site::put_file(info_path, configuration());
        site::put_file(system_path, configuration());
    }
    log_lines log{"info"};
};

} // namespace

TEST_F(Protocol, InitRefusesWhatIsMissingAndSaysSo)
{
    EXPECT_EQ(-1, vela_protocol_ctrl.fd) << "before the first init";
    vela_protocol_client_event_mesh_halt_send();
    EXPECT_THAT(log.texts(), ElementsAre("vela-protocol not initilized"));
    site::put_file(address_path, "0.0.0.0\n");
    const leak_check leaks;
    // What a member's init complains of ("": nothing), and the results of the key-only and the client's init.
    const table<std::string, std::string, int, int> cases = {
        {"", "Unable to parse /var/run/vela_protocol.info", -1, -1},
        {"corvo.mcip=233.252.0.48\n", "no corvo.key", -1, -1},
        {std::string(key) + "\n", "no corvo.mcip", 0, -1},
        {configuration("corvo.key=000102030405060708090a0b0c0d0e0"), "corvo.key invalid len 31", -1, -1},
        {configuration("corvo.key=000102030405060708090a0b0c0d0e0f0"), "corvo.key invalid len 33", -1, -1},
        {configuration(key, "233.252.0"), "corvo.mcip=233.252.0 is not valid", 0, 0},
        {configuration(), "", 0, 0},
    };
    for (const auto &[config, complaint, key_only, client] : cases) {
        site::put_file(info_path, config);
        site::put_file(system_path, config);
        EXPECT_EQ(complaint.empty() ? 0 : -1, vela_protocol_init(1)) << complaint;
        if (const auto texts = log.texts(); !complaint.empty()) {
            EXPECT_THAT(texts,
                        ElementsAre("VELA_DEVICE[02:56:4c:0a:1b:2c]", complaint, "could not start vela-protocol"));
            EXPECT_EQ(0, vela_protocol_ctrl.device_id[0]) << "cleared";
        }
        EXPECT_EQ(client, vela_protocol_client_init()) << complaint;
        EXPECT_EQ(key_only, vela_protocol_init(0)) << complaint;
        EXPECT_EQ(key_only == 0,
                  vela_protocol_ctrl.ready && vela_protocol_ctrl.encrypt && vela_protocol_ctrl.key[15] == 15);
        EXPECT_EQ(-1, vela_protocol_ctrl.fd);
        EXPECT_THAT(log.texts(), testing::Each(Not(HasSubstr("0e0f")))) << "no key in the log";
    }
    vela_protocol_client_event_mesh_halt_send();
    EXPECT_THAT(log.texts(), ElementsAre("unable to bind socket to device", "sock init failed")) << "no bridge";
    leaks.expect_unchanged();
}

TEST_F(Protocol, AnInitLetsGoOfWhatTheLibraryHoldsAndOfNothingElse)
{
    site::put_file(address_path, "0.0.0.0\n");
    const leak_check leaks;
    for (const bool member : {false, true}) {
        ASSERT_EQ(0, vela_protocol_init(1));
        ASSERT_LE(0, vela_protocol_ctrl.fd);
        memset(&vela_protocol_ctrl, 0, sizeof vela_protocol_ctrl); // as a program clears it: fd is 0
        (void)log.texts();
        EXPECT_EQ(0, member ? vela_protocol_init(0) : vela_protocol_client_init());
        EXPECT_NE(-1, fcntl(0, F_GETFD)) << "standard input is the program's";
        EXPECT_THAT(log.texts(), testing::Each(Not(HasSubstr("membership"))));
    }
    vela_protocol_deinit();
    leaks.expect_unchanged();
}

TEST_F(Protocol, PacketsReachTheHandlersOfTheirMethod)
{
    site::second_device sender([] {
        libvela_log_level = 0; // its lines are not ours
        site::put_file(address_path, "192.168.9.2\n");
        if (vela_protocol_init(1) != 0) _exit(7);
        send("one", 2, 7);
        send("repeat", 2, 7);
        send("any time", 5, 7);
        send("unknown", 77, 8);
        send("plain", 2, 9, 0);
        send(std::string(600, 'l'), 2, 9);
        vela_protocol_ctrl.key[0] ^= 1;
        send("another key", 2, 9);
        if (vela_protocol_client_init() != 0) _exit(8);
        vela_protocol_ctrl.tx_seq = 10;
        vela_protocol_client_event_mesh_halt_send();
    });
    site::put_file(address_path, "192.168.9.1\n");
    ASSERT_EQ(0, vela_protocol_init(1));
    EXPECT_THAT(log.texts(), ElementsAre(HasSubstr("VELA_DEVICE["), "mcast_ip is 233.252.0.48", "my_ip is 192.168.9.1",
                                         "vela_protocol init done"));
    EXPECT_THAT(site::output_of("ip maddress show dev br0"), HasSubstr(group));
    // The handler that ends the protocol ends the walk through the table.
    const vela_handler_entry handlers[] = {{note, 2},         {note_again, 2}, {note, 5},   {note, 6},
                                           {end_protocol, 6}, {note, 6},       {nullptr, 2}};
    ASSERT_EQ(0, vela_protocol_init_recv(base, handlers));
    sender.go();
    event_base_dispatch(base); // until the handler
    const std::string halt("6:\x02\x56\x4c\x0a\x1b\x2c\x00\x00\x02\x58\x00\x00\x00\x04", 16);
    EXPECT_THAT(heard, ElementsAre("2:one", "again", "5:any time", halt));
    EXPECT_EQ(0, vela_protocol_ctrl.rx_seq) << "a cleared record stays cleared";
    const log_line refusal = {"error", "vela_protocol", "vela_protocol_init_recv", "failed to decrypt the message: 1"};
    EXPECT_THAT(log.take(), ElementsAre(refusal, refusal, refusal)) << "plain, too long, another key";
    EXPECT_EQ(0, sender.join());
    EXPECT_THAT(site::output_of("ip maddress show dev br0"), Not(HasSubstr(group)));
}

TEST_F(Protocol, TheAddressSignalMovesTheMembership)
{
    ASSERT_EQ(0, site::run("ip link add br0 type bridge && ip link set br0 up && ip route add 224.0.0.0/4 dev br0 &&"
                           "ip address add 192.168.9.1/24 dev br0 && ip address add 192.168.9.3/24 dev br0"));
    site::put_file(address_path, "0.0.0.0\n");
    ASSERT_EQ(0, vela_protocol_init(1));
    static int ready_calls = 0;
    vela_protocol_set_mcast_ready_cb([] { ++ready_calls; });
    ASSERT_EQ(0, vela_protocol_init_recv(base, nullptr));
    log.take();
    const std::string lost = "Cannot assign requested address|";
    // The bridge's address, what is logged, and how often the group has been ready.
    const table<const char *, std::string, int> steps = {
        {"nonsense", "", 0},
        {"192.168.9.1", "my_ip is 192.168.9.1|unable to drop membership, " + lost, 1},
        {"192.168.9.1", "", 1},
        {"192.168.9.3", "my_ip is 192.168.9.3|", 2},
        {"192.168.9.4",
         "my_ip is 192.168.9.4|unable to set mcast local ip, " + lost + "set multicast socket fail, " + lost, 2},
    };
    for (const auto &[address, expected, calls] : steps) {
        site::put_file(address_path, address);
        raise(SIGUSR1);
        event_base_loop(base, EVLOOP_ONCE);
        std::string texts;
        for (const auto &text : log.texts()) texts += text + "|";
        EXPECT_EQ("Get DHCP IP|" + expected, texts) << address;
        EXPECT_EQ(calls, ready_calls) << address;
    }
    vela_protocol_client_send("x", 1, 9);
    EXPECT_EQ(1, event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED)) << "no event for a number that is free again";
    vela_protocol_deinit();
    EXPECT_EQ(0, event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED));
}
