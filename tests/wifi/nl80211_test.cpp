#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/wifi/machine.h"

#include <atomic>
#include <event2/event.h>
#include <gmock/gmock.h>
#include <linux/nl80211.h>
#include <net/if.h>
#include <netlink/netlink.h>
//
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <netlink/socket.h>
#include <poll.h>
#include <regex>
#include <thread>
#include <vela/wireless/nl80211.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace
{

/// What handlers saw, and what they are to do about it.
struct {
    std::vector<std::string> calls;
    vl_nl80211_command_handler to_remove;
    uint32_t ifindex;
} seen;

int note(const char *name, vl_nl80211_service *service, nlattr **attributes, uint8_t command)
{
    seen.calls.push_back(name + std::to_string(command));
    if (attributes[NL80211_ATTR_IFINDEX]) seen.ifindex = nla_get_u32(attributes[NL80211_ATTR_IFINDEX]);
    if (seen.to_remove) vl_nl80211_deregister_command_callback(service, command, seen.to_remove);
    return -1; // to be ignored
}
int first(vl_nl80211_service *s, nlattr **a, uint8_t c) { return note("first ", s, a, c); }
int second(vl_nl80211_service *s, nlattr **a, uint8_t c) { return note("second ", s, a, c); }
int third(vl_nl80211_service *s, nlattr **a, uint8_t c) { return note("third ", s, a, c); }
int end_service(vl_nl80211_service *s, nlattr **a, uint8_t c)
{
    note("end ", s, a, c);
    vl_nl80211_service_deinit(s);
    return 0;
}

class Nl80211 : public testing::Test
{
protected:
    event_base *base = event_base_new();
    vl_nl80211_service service = {};

    static void SetUpTestSuite() { machine::fresh_radios(); }
    Nl80211()
    {
        EXPECT_EQ(0, vl_nl80211_service_init(&service, base));
        seen = {};
    }
    ~Nl80211() override
    {
        if (service.family != 0) vl_nl80211_service_deinit(&service);
        event_base_free(base);
    }

    bool loop_until(const std::function<bool()> &holds)
    {
        return machine::eventually([&] {
            event_base_loop(base, EVLOOP_NONBLOCK);
            return holds();
        });
    }
    /// Makes the kernel send one NL80211_CMD_NEW_WIPHY event: a radio gets another name.
    void cause_event()
    {
        static int names = 0;
        nl_msg *request = vl_nl80211_create_message(&service, "wlan3", NL80211_CMD_SET_WIPHY, 0);
        nla_put_string(request, NL80211_ATTR_WIPHY_NAME, ("radio" + std::to_string(++names)).c_str());
        EXPECT_EQ(0, vl_nl80211_send_recv(&service, request, nullptr, nullptr));
    }
};

std::string found(const std::string &text, const char *pattern)
{
    std::smatch match;
    return std::regex_search(text, match, std::regex(pattern)) ? match[1].str() : "";
}

/// A reply handler: counts them.
int count(nl_msg *, void *replies)
{
    ++*static_cast<int *>(replies);
    return NL_SKIP;
}

} // namespace

TEST_F(Nl80211, EndsAsItBegan)
{
    EXPECT_EQ(1, site::run("ls -l /proc/self/fd | grep -q socket")) << "no socket reaches a command";
    vl_nl80211_service_deinit(&service);
    const leak_check leaks;
    EXPECT_EQ(0, vl_nl80211_service_init(&service, base));
    EXPECT_EQ(0, vl_nl80211_register_command_callback(&service, NL80211_CMD_NEW_SCAN_RESULTS, first));
    vl_nl80211_service_deinit(&service);
    const vl_nl80211_service clear = {};
    EXPECT_EQ(0, memcmp(&clear, &service, sizeof clear));
    leaks.expect_unchanged();
}

TEST_F(Nl80211, InformationAgreesWithIw)
{
    uint32_t wiphy = 0, freq = 0, width = 0, power = 0;
    uint8_t mac[6];
    ASSERT_EQ(0, vl_nl80211_interface_info(&service, "wlan1", &wiphy, mac, &freq, &width, &power));
    EXPECT_EQ(0xFFFFFFFF, freq) << "no channel";
    EXPECT_EQ(0xFFFFFFFF, width);

    const machine::access_point ap("wlan0", {.channel = 36,
                                             .more = "ieee80211n=1\nieee80211ac=1\nht_capab=[HT40+]\n"
                                                     "vht_oper_chwidth=1\nvht_oper_centr_freq_seg0_idx=42\n"});
    ASSERT_EQ(0, vl_nl80211_interface_info(&service, "wlan0", &wiphy, mac, &freq, &width, &power));
    char ours[64];
    snprintf(ours, sizeof ours, "%u %02x:%02x:%02x:%02x:%02x:%02x %u %u", wiphy, mac[0], mac[1], mac[2], mac[3], mac[4],
             mac[5], freq, width);
    const std::string info = machine::iw("dev wlan0 info");
    EXPECT_EQ(found(info, "wiphy (\\d+)") + ' ' + found(info, "addr (\\S+)") + ' ' +
                  found(info, "channel \\d+ \\((\\d+) MHz") + " 80",
              ours)
        << info;

    ASSERT_EQ(0, vl_nl80211_interface_set_power(&service, "wlan0", 1100));
    ASSERT_EQ(0, vl_nl80211_interface_power(&service, "wlan0", &power));
    EXPECT_EQ(1100U, power);
    EXPECT_EQ("11.00", found(machine::iw("dev wlan0 info"), "txpower (\\S+) dBm"));
}

TEST_F(Nl80211, KernelErrorsPassThrough)
{
    EXPECT_EQ(-ENODEV, vl_nl80211_interface_info(&service, "lo", nullptr, nullptr, nullptr, nullptr, nullptr));

    // The stand-alone exchange, on the service's command socket: its holder's first member is the socket.
    struct nl_sock *holder = service.cmd_sock;
    nl_msg *message = nlmsg_alloc();
    genlmsg_put(message, 0, 0, service.family, 0, 0, NL80211_CMD_TRIGGER_SCAN, 0);
    EXPECT_EQ(-EINVAL, vl_nl80211_send(&holder, message, nullptr, nullptr));
    const auto question = [&] { return vl_nl80211_create_message(&service, "wlan0", NL80211_CMD_GET_INTERFACE, 0); };
    int replies = 0;
    EXPECT_EQ(0, vl_nl80211_send(&holder, question(), count, &replies));
    EXPECT_EQ(1, replies);

    // A reply nobody asked to see is no event.
    vl_nl80211_register_command_callback(&service, NL80211_CMD_NEW_INTERFACE, first);
    EXPECT_EQ(0, vl_nl80211_send_recv(&service, question(), nullptr, nullptr));
    EXPECT_THAT(seen.calls, IsEmpty());
}

TEST_F(Nl80211, ParentIsTheRadioOnTheSameWiphy)
{
    char out[16] = {};
    log_lines log;
    EXPECT_EQ(nullptr, vl_nl80211_parent_interface(&service, "wlan1", out));
    EXPECT_THAT(log.texts(), IsEmpty());

    for (const char *rename : {"wlan0 name wifi0", "wlan1 name wifi1", "wlan2 name wifi3"}) {
        ASSERT_EQ(0, site::run(std::string("ip link set ") + rename)) << rename;
    }
    ASSERT_EQ("", machine::iw("dev wifi1 interface add ap1 type __ap"));
    ASSERT_EQ("", machine::iw("dev wifi3 interface add ap3 type __ap"));
    constexpr struct {
        const char *ifname, *parent;
    } cases[] = {{"ap1", "wifi1"}, {"ap3", "wifi3"}, {"wifi1", "wifi1"}, {"wifi0", "wifi0"}};
    for (const auto &c : cases) {
        EXPECT_EQ(out, vl_nl80211_parent_interface(&service, c.ifname, out)) << c.ifname;
        EXPECT_STREQ(c.parent, out) << c.ifname;
    }
    EXPECT_EQ(nullptr, vl_nl80211_parent_interface(&service, "wlan3", out)) << "on a radio of none of them";
    machine::fresh_radios();
}

TEST_F(Nl80211, ScanAndAssociationReachTheirHandlers)
{
    const machine::access_point ap("wlan0", {.ssid = "here"});
    for (const uint32_t command : {NL80211_CMD_NEW_SCAN_RESULTS, NL80211_CMD_CONNECT}) {
        ASSERT_EQ(0, vl_nl80211_register_command_callback(&service, command, first));
    }
    const machine::station sta("wlan1", "here", 2412);
    EXPECT_TRUE(loop_until([] { return testing::Matches(Contains("first 46"))(seen.calls); }));
    EXPECT_EQ("first 34", seen.calls.at(0)) << "it scans before it connects";
    EXPECT_EQ(if_nametoindex("wlan1"), seen.ifindex);
}

TEST_F(Nl80211, NewestHandlerIsCalledFirstAndMayChangeTheList)
{
    const auto calls_after = [&](auto matcher) {
        seen.calls.clear();
        cause_event();
        loop_until([] { return !seen.calls.empty(); });
        EXPECT_THAT(seen.calls, matcher);
    };
    for (const auto handler : {first, second, first}) {
        ASSERT_EQ(0, vl_nl80211_register_command_callback(&service, NL80211_CMD_NEW_WIPHY + 0x100, handler));
    }
    vl_nl80211_register_command_callback(&service, NL80211_CMD_NEW_WIPHY, nullptr);
    vl_nl80211_register_command_callback(&service, NL80211_CMD_NEW_INTERFACE, third);
    calls_after(ElementsAre("first 3", "second 3", "first 3"));

    vl_nl80211_deregister_command_callback(&service, NL80211_CMD_NEW_WIPHY, first);
    calls_after(ElementsAre("second 3"));

    // A handler that removes itself, and one that removes its neighbour who would be next.
    seen.to_remove = second;
    vl_nl80211_register_command_callback(&service, NL80211_CMD_NEW_WIPHY, second);
    vl_nl80211_register_command_callback(&service, NL80211_CMD_NEW_WIPHY, third);
    calls_after(ElementsAre("third 3"));
    seen.to_remove = third;
    calls_after(ElementsAre("third 3"));

    // One that ends the service, with another and a second event waiting.
    seen.to_remove = nullptr;
    vl_nl80211_register_command_callback(&service, NL80211_CMD_NEW_WIPHY, first);
    vl_nl80211_register_command_callback(&service, NL80211_CMD_NEW_WIPHY, end_service);
    cause_event();
    calls_after(ElementsAre("end 3"));
    EXPECT_EQ(0, service.family);
}

TEST_F(Nl80211, EachThreadMayHaveAServiceOfItsOwn)
{
    std::atomic heard = 0;
    const auto listen = [&] {
        static thread_local int events;
        events = 0;
        event_base *mine = event_base_new();
        vl_nl80211_service own = {};
        ASSERT_EQ(0, vl_nl80211_service_init(&own, mine));
        for (int n = 0; n < 50; ++n) {
            vl_nl80211_register_command_callback(&own, NL80211_CMD_NEW_WIPHY,
                                                 [](auto *, auto **, uint8_t) { return ++events; });
        }
        ++heard; // ready
        machine::eventually([&] {
            event_base_loop(mine, EVLOOP_NONBLOCK);
            return events >= 50 * 100;
        });
        heard += events;
        vl_nl80211_service_deinit(&own);
        event_base_free(mine);
    };
    std::thread one(listen), other(listen);
    while (heard < 2) std::this_thread::yield();
    for (int n = 0; n < 100; ++n) cause_event();
    one.join();
    other.join();
    EXPECT_EQ(2 + 2 * 50 * 100, heard);
}

TEST_F(Nl80211, LostAndUnfinishedEventsDoNotStopTheLoop)
{
    log_lines log;
    const int fd = nl_socket_get_fd(service.event_sock);
    const int small = 1;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    vl_nl80211_register_command_callback(&service, NL80211_CMD_NEW_WIPHY, first);
    for (int n = 0; n < 20; ++n) cause_event();
    loop_until([&] { return !seen.calls.empty(); });
    EXPECT_THAT(log.take(),
                Contains(log_line{"error", "nl80211", "vl_nl80211_loop_event",
                                  "an error occurred while receiving messages: " + std::string(nl_geterror(-5))}));

    // A part of what never comes to its end, from someone privileged; then there is nothing to read.
    sockaddr_nl events = {};
    socklen_t length = sizeof events;
    ASSERT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr *>(&events), &length));
    events.nl_groups = 0;
    const nlmsghdr part = {sizeof part, NLMSG_NOOP, NLM_F_MULTI, 0, 0};
    const int sender = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
    EXPECT_EQ(ssize_t{sizeof part},
              sendto(sender, &part, sizeof part, 0, reinterpret_cast<const sockaddr *>(&events), length));
    close(sender);
    vl_nl80211_loop_event(0, 0, &service);
    vl_nl80211_loop_event(0, 0, &service);
    EXPECT_THAT(log.texts(), Not(Contains(testing::HasSubstr("an error occurred"))));

    seen.calls.clear();
    cause_event();
    EXPECT_TRUE(loop_until([] { return !seen.calls.empty(); }));
}

TEST_F(Nl80211, DumpUnderChurnEndsOneWayOrTheOther)
{
    std::atomic changes = 0;
    std::thread churn([&] {
        for (; changes < 5; ++changes) site::run("iw dev wlan3 interface add churn type managed; iw dev churn del");
    });
    int whole = 0;
    while (changes < 5) {
        int interfaces = 0;
        nl_msg *request = vl_nl80211_create_message(&service, "wlan0", NL80211_CMD_GET_INTERFACE, NLM_F_DUMP);
        const int status = vl_nl80211_send_recv(&service, request, count, &interfaces);
        EXPECT_TRUE((status == 0 && interfaces >= 1) || status == -EAGAIN) << status;
        whole += status == 0;
    }
    churn.join();
    EXPECT_GT(whole, 0);
}

TEST_F(Nl80211, RadiosMayGoAwayAndComeBack)
{
    vl_nl80211_register_command_callback(&service, NL80211_CMD_DEL_WIPHY, first);
    machine::fresh_radios();
    EXPECT_TRUE(loop_until([] { return seen.calls.size() >= 4; }));
    EXPECT_EQ(0, vl_nl80211_interface_info(&service, "wlan0", nullptr, nullptr, nullptr, nullptr, nullptr));
}
