#include "tests/support/fake_netlink.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <array>
#include <event2/event.h>
#include <gmock/gmock.h>
#include <linux/nl80211.h>
#include <memory>
#include <netlink/genl/ctrl.h>
#include <vela/wireless/nl80211.h>

// What the service makes of answers, with a kernel that gives any answer wanted. Its dealings with a real one are
// tested in the Wi-Fi machine.

using testing::ElementsAre;

namespace
{

constexpr uint32_t untouched = 0xA5A5A5A5;

class Nl80211 : public testing::Test
{
protected:
    fake_netlink kernel;
    vl_nl80211_service service = {kernel.callbacks(), kernel.socket(), nullptr, fake_netlink::family(), nullptr, {}};
    log_lines log;

    /// An exchange without attributes to speak of.
    int exchange()
    {
        return vl_nl80211_send_recv(&service, vl_nl80211_create_message(&service, "lo", 1, 0), nullptr, nullptr);
    }
};

} // namespace

TEST_F(Nl80211, InitLeavesNothingBehindWhereverItFails)
{
    service = {};
    service.family = 7;
    EXPECT_EQ(-EINVAL, vl_nl80211_service_init(&service, nullptr));
    EXPECT_EQ(7, service.family) << "the record as it was";

    const std::unique_ptr<event_base, decltype(&event_base_free)> base{event_base_new(), event_base_free};
    const leak_check leaks;
    int code = 0;
    const auto fails = [&] {
        code = vl_nl80211_service_init(&service, base.get());
        EXPECT_LT(code, 0);
        const vl_nl80211_service clear = {};
        EXPECT_EQ(0, memcmp(&clear, &service, sizeof clear));
    };
    for (int n = 0; n < 3 && faults::can_refuse_memory; ++n) {
        const faults::refuse_memory none(n);
        fails();
    }
    log.take();
    {
        const faults::refuse none(faults::call::socket, EAFNOSUPPORT);
        fails();
    }
    EXPECT_THAT(log.take(),
                ElementsAre(log_line{"error", "nl80211", "vl_nl80211_socket_init",
                                     "failed to connect to netlink socket, ret = " + std::to_string(code)}));
    leaks.expect_unchanged();

    vl_nl80211_service_deinit(&service);
    vl_nl80211_deregister_command_callback(&service, 1, nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("already deinitialized", "already deinitialized"));
}

TEST_F(Nl80211, StatusIsWhatEndedTheAnswer)
{
    const struct {
        std::function<void(fake_netlink &)> answer;
        int status;
        const char *level = "";
        const char *text = "";
    } cases[] = {
        {[](auto &k) { k.acknowledge(); }, 0},
        {[](auto &k) { k.refuse(-19); }, -19},
        {[](auto &k) { k.refuse(-22, "no such thing"); }, -22, "debug", "the kernel says: no such thing"},
        {[](auto &k) { k.end_dump(); }, 0},
        {[](auto &k) { k.end_dump(-12); }, 0, "debug", "the dump ended with error -12"},
        {[](auto &k) { k.refuse(11); }, 11},
        {[](auto &k) { k.refuse(5), k.refuse(-2); }, -2},
        {[](auto &k) { k.fail_receive(-2), k.acknowledge(); }, 0},
        {[](auto &k) { k.fail_receive(-18); }, -18, "error", "nl_recvmsgs failed: -18 (%s)"},
        {[](auto &k) { k.end_dump(0, NLM_F_DUMP_INTR); }, -11, "warn",
         "nl_recvmsgs failed, convert to EAGAIN: -33 (%s)"},
        {[](auto &k) {
             k.raw({1, 0, 0, 0, 2}), k.acknowledge();
         },
         0},
    };
    for (const auto &c : cases) {
        const auto nth = &c - cases;
        c.answer(kernel);
        EXPECT_EQ(c.status, exchange()) << nth;
        EXPECT_TRUE(kernel.all_read()) << nth;
        std::vector<log_line> expected;
        char text[128];
        snprintf(text, sizeof text, c.text, nl_geterror(c.status == -11 ? -33 : c.status));
        if (*c.text) expected.push_back({c.level, "nl80211", "vl_nl80211_send_recv", text});
        EXPECT_EQ(expected, log.take()) << nth;
    }
}

TEST_F(Nl80211, MessageIsSentOnceAndFreedOnEveryPath)
{
    kernel.send_result = -3;
    EXPECT_EQ(-3, exchange());
    EXPECT_THAT(log.texts(), ElementsAre("auto complete failed, ret = -3"));
    EXPECT_EQ(-EINVAL, vl_nl80211_send_recv(&service, nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, vl_nl80211_send(&service.cmd_sock, nullptr, nullptr, nullptr));
    EXPECT_EQ(1U, kernel.sent.size());
    if (!faults::can_refuse_memory) return;

    nl_msg *message = vl_nl80211_create_message(&service, "lo", 1, 0);
    const faults::refuse_memory none;
    EXPECT_EQ(-EIO, vl_nl80211_send_recv(&service, message, nullptr, nullptr));
}

TEST_F(Nl80211, RequestIsAddressedByInterfaceIndex)
{
    for (const char *name : {"nowhere", "exactly16letters", static_cast<const char *>(nullptr)})
        EXPECT_EQ(nullptr, vl_nl80211_create_message(&service, name, 5, 0));

    kernel.acknowledge();
    EXPECT_EQ(0, vl_nl80211_interface_set_power(&service, "lo", 2350));
    nl_msg *expected = nlmsg_alloc();
    genlmsg_put(expected, 0, 0, fake_netlink::family(), 0, NLM_F_REQUEST | NLM_F_ACK, NL80211_CMD_SET_WIPHY, 0);
    nla_put_u32(expected, NL80211_ATTR_IFINDEX, 1);
    nla_put_u32(expected, NL80211_ATTR_WIPHY_TX_POWER_SETTING, 2);
    nla_put_u32(expected, NL80211_ATTR_WIPHY_TX_POWER_LEVEL, 2350);
    auto *const header = nlmsg_hdr(expected);
    ASSERT_EQ(header->nlmsg_len, kernel.sent.at(0).size());
    memcpy(&header->nlmsg_seq, kernel.sent[0].data() + offsetof(nlmsghdr, nlmsg_seq), 8); // the library's numbers
    EXPECT_EQ(0, memcmp(header, kernel.sent[0].data(), header->nlmsg_len));
    nlmsg_free(expected);
}

TEST_F(Nl80211, InterfaceInformationTakesWholeAttributesOnly)
{
    constexpr uint32_t none = 0xFFFFFFFF;
    constexpr uint64_t address = 0x0E0C0A080604;
    const struct {
        std::vector<std::tuple<int, int, uint64_t>> attributes; // number, size, value
        std::array<uint32_t, 4> expected;                       // wiphy, frequency, width, power
        uint64_t mac;
    } cases[] = {
        {{}, {none, none, none, none}, 0},
        {{{NL80211_ATTR_WIPHY, 4, 3},
          {NL80211_ATTR_MAC, 6, address},
          {NL80211_ATTR_WIPHY_FREQ, 4, 5955},
          {NL80211_ATTR_CHANNEL_WIDTH, 4, NL80211_CHAN_WIDTH_80P80},
          {NL80211_ATTR_WIPHY_TX_POWER_LEVEL, 4, 2000},
          {400, 4, 1}}, // beyond the table
         {3, 5955, 160, 2000},
         address},
        {{{NL80211_ATTR_WIPHY, 2, 3},
          {NL80211_ATTR_MAC, 5, address},
          {NL80211_ATTR_WIPHY_FREQ, 0, 0},
          {NL80211_ATTR_CHANNEL_WIDTH, 1, 1}},
         {none, none, none, none},
         0},
        {{{NL80211_ATTR_MAC, 7, address}, {NL80211_ATTR_WIPHY, 8, 9}, {NL80211_ATTR_CHANNEL_WIDTH, 4, 14}},
         {9, none, 0, none},
         address},
    };
    for (const auto &c : cases) {
        const auto nth = &c - cases;
        kernel.reply(NL80211_CMD_NEW_INTERFACE, [&](nl_msg *m) {
            for (const auto &[number, size, value] : c.attributes) nla_put(m, number, size, &value);
        });
        kernel.acknowledge();
        std::array<uint32_t, 4> n = {};
        uint8_t mac[8] = {1};
        EXPECT_EQ(0, vl_nl80211_interface_info(&service, "lo", &n[0], mac, &n[1], &n[2], &n[3])) << nth;
        EXPECT_EQ(c.expected, n) << nth;
        EXPECT_EQ(0, memcmp(mac, &c.mac, sizeof mac)) << nth;
    }
}

TEST_F(Nl80211, OutputsStayUntouchedOnFailure)
{
    uint32_t power = untouched;
    kernel.reply(NL80211_CMD_NEW_INTERFACE, [](nl_msg *) {});
    kernel.acknowledge();
    EXPECT_EQ(-1, vl_nl80211_interface_power(&service, "lo", &power));
    kernel.reply(NL80211_CMD_NEW_INTERFACE, [](nl_msg *m) { nla_put_u32(m, NL80211_ATTR_WIPHY_TX_POWER_LEVEL, 2000); });
    kernel.refuse(-19);
    EXPECT_EQ(-19, vl_nl80211_interface_power(&service, "lo", &power));
    EXPECT_EQ(-EIO, vl_nl80211_interface_power(&service, "nowhere", &power));
    EXPECT_EQ(untouched, power);

    char out[16] = "as it was";
    EXPECT_EQ(nullptr, vl_nl80211_parent_interface(&service, "nowhere", out));
    EXPECT_STREQ("as it was", out);
    EXPECT_THAT(log.texts(),
                ElementsAre("TX power handler isn't implemented for interface lo",
                            "couldn't obtain TX power of the interface lo", "couldn't get interface index nowhere",
                            "couldn't obtain TX power of the interface nowhere", "couldn't get interface index nowhere",
                            "couldn't obtain interface PHY index, ret = -5"));
}

TEST_F(Nl80211, EventSocketInTroubleSaysWhy)
{
    const auto complaint = [](int code) {
        return log_line{"error", "nl80211", "vl_nl80211_loop_event",
                        std::string("an error occurred while receiving messages: ") + nl_geterror(code)};
    };
    vl_nl80211_service unconnected = {};
    unconnected.cb = nl_cb_alloc(NL_CB_DEFAULT);
    unconnected.event_sock = nl_socket_alloc();
    vl_nl80211_loop_event(0, 0, &unconnected);
    EXPECT_THAT(log.take(), ElementsAre(complaint(-NLE_BAD_SOCK)));
    nl_socket_free(unconnected.event_sock);
    nl_cb_put(unconnected.cb);

    service.event_sock = kernel.socket();
    kernel.fail_receive(-5);
    vl_nl80211_loop_event(0, 0, &service);
    EXPECT_THAT(log.take(), ElementsAre(complaint(-5), log_line{"debug", "nl80211", "vl_nl80211_loop_event",
                                                                "events were lost, what they told must be asked"}));
    kernel.fail_receive(-4);
    vl_nl80211_loop_event(0, 0, &service);
    EXPECT_THAT(log.take(), ElementsAre());
}
