// Two devices on one wire: this world and a second network, each with a bridge br0, joined by a veth pair.
#include "site/device.h"
#include "site/wire.h"
#include "site/world.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <arpa/inet.h>
#include <csignal>
#include <event2/event.h>
#include <gmock/gmock.h>
#include <unistd.h>
#include <vela/discovery/protocol.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

constexpr const char *key = "000102030405060708090a0b0c0d0e0f";
constexpr const char *group = "233.252.0.48";
constexpr const char *info_path = "/var/run/vela_protocol.info";
constexpr const char *address_path = "/var/run/ipready.br0";

std::string configuration(const char *with_key = key, const char *with_group = group)
{
    return (with_key ? std::string("corvo.key=") + with_key + "\n" : "x=y\n") +
           (with_group ? std::string("corvo.mcip=") + with_group + "\n" : "");
}

void must_run(const std::string &commands) { ASSERT_EQ(0, site::run("set -e; " + commands)) << commands; }

std::vector<std::string> heard;
int ready_calls = 0;
event_base *base = nullptr;

void note(const vela_packet *p, const uint8_t *payload, uint32_t method)
{
    heard.push_back(std::to_string(method) + ":" + std::string(reinterpret_cast<const char *>(payload), p->length));
}
void note_again(const vela_packet *, const uint8_t *, uint32_t) { heard.emplace_back("again"); }
void stop(const vela_packet *, const uint8_t *, uint32_t) { event_base_loopbreak(base); }
void end_protocol(const vela_packet *, const uint8_t *, uint32_t)
{
    vela_protocol_deinit();
    event_base_loopbreak(base);
}

/// Runs the member's loop until a handler stops it, or for so long.
void listen(const vela_handler_entry *table, int milliseconds = 8000)
{
    base = event_base_new();
    ASSERT_EQ(0, vela_protocol_init_recv(base, table));
    const timeval limit = {milliseconds / 1000, milliseconds % 1000 * 1000};
    event_base_loopexit(base, &limit);
    event_base_dispatch(base);
}

void run_loop_once()
{
    const timeval limit = {0, 100000};
    event_base_loopexit(base, &limit);
    event_base_dispatch(base);
}

} // namespace

TEST(Protocol, RecordStartsWithoutADescriptor)
{
    EXPECT_EQ(-1, vela_protocol_ctrl.fd);
    log_lines log;
    vela_protocol_client_event_mesh_halt_send();
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "vela_protocol", "vela_protocol_client_event_mesh_halt_send",
                                                 "vela-protocol not initilized"}));
}

TEST(Protocol, InitRefusesWhatIsMissingAndSaysSo)
{
    site::device_facts facts;
    facts.serial = "02564c0a1b2c";
    site::lay_out_device(facts);
    site::put_file(address_path, "0.0.0.0\n");
    log_lines log("info");
    const leak_check leaks;
    struct {
        const char *what;
        std::string config;
        std::string line; // "": it succeeds for both kinds
        int key_only;     // result without membership
    } const cases[] = {
        {"no file", "", "Unable to access /var/run/vela_protocol.info: No such file or directory", -1},
        {"no entries", "nothing\n", "Unable to parse /var/run/vela_protocol.info", -1},
        {"no key", configuration(nullptr), "no corvo.key", -1},
        {"no group", configuration(key, nullptr), "no corvo.mcip", 0},
        {"31 digits", configuration("000102030405060708090a0b0c0d0e0"), "corvo.key invalid len 31", -1},
        {"33 digits", configuration("000102030405060708090a0b0c0d0e0f0"), "corvo.key invalid len 33", -1},
        {"odd group", configuration(key, "233.252.0"), "corvo.mcip=233.252.0 is not valid", 0},
        {"all there", configuration(), "", 0},
    };
    for (const auto &c : cases) {
        site::remove_file(info_path);
        if (!c.config.empty()) site::put_file(info_path, c.config);
        EXPECT_EQ(c.line.empty() ? 0 : -1, vela_protocol_init(1)) << c.what;
        auto texts = log.texts();
        EXPECT_EQ("VELA_DEVICE[02:56:4c:0a:1b:2c]", texts.at(0));
        if (!c.line.empty()) {
            EXPECT_THAT(texts, ElementsAre(texts[0], c.line, "could not start vela-protocol")) << c.what;
            EXPECT_EQ(-1, vela_protocol_ctrl.fd);
            EXPECT_EQ(0, vela_protocol_ctrl.device_id[0]) << "cleared";
        }
        EXPECT_EQ(c.key_only, vela_protocol_init(0)) << c.what;
        EXPECT_EQ(c.key_only == 0,
                  vela_protocol_ctrl.ready && vela_protocol_ctrl.encrypt && vela_protocol_ctrl.key[15] == 15);
        EXPECT_EQ(-1, vela_protocol_ctrl.fd);
        for (const auto &text : log.texts())
            EXPECT_EQ(std::string::npos, text.find("0f")) << "no key in the log: " << text;
    }
    vela_protocol_deinit();
    site::remove_file(info_path);
    site::put_file("/tmp/system.cfg", configuration(nullptr));
    EXPECT_EQ(-1, vela_protocol_client_init());
    EXPECT_THAT(log.texts(), ElementsAre("no corvo.key", "could not start vela-protocol"));
    site::put_file("/tmp/system.cfg", configuration(key, "nonsense"));
    EXPECT_EQ(0, vela_protocol_client_init());
    EXPECT_EQ(0U, vela_protocol_ctrl.mcast_ip.s_addr);
    vela_protocol_client_event_mesh_halt_send();
    EXPECT_THAT(log.texts(), ElementsAre("unable to bind socket to device", "sock init failed")) << "no bridge";
    vela_protocol_deinit();
    site::put_file("/tmp/system.cfg", ""); // as it was to the leak check: a path
    leaks.expect_unchanged();
}

TEST(Protocol, PacketsReachTheHandlersOfTheirMethod)
{
    site::lay_out_device();
    site::put_file(info_path, configuration());
    site::second_device sender([] {
        site::put_file(address_path, "192.168.9.2\n");
        if (vela_protocol_init(1) != 0) _exit(7);
        const auto send = [](const char *text, uint16_t method, uint16_t sequence) {
            vela_protocol_ctrl.tx_seq = sequence;
            if (vela_protocol_send(text, static_cast<uint32_t>(strlen(text)), method, 1, 1) != 40 + 16) _exit(6);
        };
        send("one", 2, 7);
        send("repeat", 2, 7);
        send("any time", 5, 7);
        send("unknown", 77, 8);
        vela_protocol_ctrl.tx_seq = 9;
        vela_protocol_send("plain", 5, 2, 1, 0);
        const std::string large(600, 'l');
        vela_protocol_send(large.data(), 600, 2, 1, 1);
        vela_protocol_ctrl.key[0] ^= 1;
        vela_protocol_send("another key", 11, 2, 1, 1);
        vela_protocol_ctrl.key[0] ^= 1;
        vela_protocol_deinit();

        site::put_file("/tmp/system.cfg", configuration());
        if (vela_protocol_client_init() != 0) _exit(8);
        vela_protocol_ctrl.tx_seq = 10;
        vela_protocol_client_event_mesh_halt_send();
        if (vela_protocol_ctrl.fd != -1) _exit(9);
    });
    site::put_file(address_path, "192.168.9.1\n");
    log_lines log("info");
    ASSERT_EQ(0, vela_protocol_init(1));
    EXPECT_THAT(log.texts(), ElementsAre(HasSubstr("VELA_DEVICE["), "mcast_ip is 233.252.0.48", "my_ip is 192.168.9.1",
                                         "vela_protocol init done"));
    EXPECT_THAT(site::output_of("ip maddress show dev br0"), HasSubstr(group));
    sender.go();
    const vela_handler_entry table[] = {{note, 2}, {note_again, 2}, {note, 5}, {note, 6}, {stop, 6}, {nullptr, 2}};
    listen(table);
    const std::string halt("6:\x02\x56\x4c\x0a\x1b\x2c\x00\x00\x02\x58\x00\x00\x00\x04", 16);
    EXPECT_THAT(heard, ElementsAre("2:one", "again", "5:any time", halt));
    EXPECT_EQ(10, vela_protocol_ctrl.rx_seq);
    EXPECT_THAT(log.take(), testing::AllOf(testing::SizeIs(3),
                                           testing::Each(log_line{"error", "vela_protocol", "vela_protocol_init_recv",
                                                                  "failed to decrypt the message: 1"})))
        << "plain, too long, another key";
    EXPECT_EQ(0, sender.join());
    vela_protocol_deinit();
    event_base_free(base);
    EXPECT_EQ(std::string::npos, site::output_of("ip maddress show dev br0").find(group));
}

TEST(Protocol, AHandlerMayEndTheProtocol)
{
    site::lay_out_device();
    site::put_file(info_path, configuration());
    site::second_device sender([] {
        site::put_file(address_path, "192.168.9.2\n");
        if (vela_protocol_init(1) != 0) _exit(7);
        vela_protocol_ctrl.tx_seq = 3;
        vela_protocol_send("end", 3, 2, 1, 1);
    });
    site::put_file(address_path, "192.168.9.1\n");
    ASSERT_EQ(0, vela_protocol_init(1));
    sender.go();
    const vela_handler_entry table[] = {{end_protocol, 2}, {note, 2}, {nullptr, 0}};
    listen(table);
    EXPECT_THAT(heard, testing::IsEmpty());
    EXPECT_EQ(-1, vela_protocol_ctrl.fd);
    EXPECT_EQ(0, vela_protocol_ctrl.rx_seq) << "a cleared record stays cleared";
    EXPECT_EQ(0, sender.join());
    event_base_free(base);
}

TEST(Protocol, TheAddressSignalMovesTheMembership)
{
    must_run("ip link add br0 type bridge; ip link set br0 up; ip address add 192.168.9.1/24 dev br0;"
             "ip address add 192.168.9.3/24 dev br0; ip route add 224.0.0.0/4 dev br0");
    site::lay_out_device();
    site::put_file(info_path, configuration());
    site::put_file(address_path, "0.0.0.0\n");
    log_lines log("info");
    ASSERT_EQ(0, vela_protocol_init(1));
    EXPECT_EQ(1, vela_protocol_ctrl.ready);
    EXPECT_EQ(0U, vela_protocol_ctrl.my_ip.s_addr);
    vela_protocol_set_mcast_ready_cb([] { ++ready_calls; });
    log.take();
    listen(nullptr, 50);

    struct {
        const char *address;
        std::vector<std::string> texts;
        int calls;
    } const steps[] = {
        {"nonsense", {"Get DHCP IP"}, 0},
        {"192.168.9.1",
         {"Get DHCP IP", "my_ip is 192.168.9.1", "unable to drop membership, Cannot assign requested address"},
         1},
        {"192.168.9.1", {"Get DHCP IP"}, 1},
        {"192.168.9.3", {"Get DHCP IP", "my_ip is 192.168.9.3"}, 2},
        {"192.168.9.4",
         {"Get DHCP IP", "my_ip is 192.168.9.4", "unable to set mcast local ip, Cannot assign requested address",
          "set multicast socket fail, Cannot assign requested address"},
         2},
    };
    for (const auto &s : steps) {
        site::put_file(address_path, s.address);
        raise(SIGUSR1);
        run_loop_once();
        EXPECT_EQ(s.texts, log.texts()) << s.address;
        EXPECT_EQ(s.calls, ready_calls) << s.address;
    }
    vela_protocol_set_mcast_ready_cb(nullptr);
    vela_protocol_deinit();
    event_base_free(base);
}
