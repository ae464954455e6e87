#include "tests/support/fake_netlink.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <event2/event.h>
#include <gmock/gmock.h>
#include <linux/nl80211.h>
#include <memory>
#include <netlink/genl/ctrl.h>
#include <vela/wireless/nl80211.h>

// What the service makes of answers, with a kernel that gives any answer wanted. Its dealings with a real one are
// tested in the Wi-Fi machine.

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

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
    std::vector<log_line> lines_above_debug()
    {
        auto lines = log.take();
        std::erase_if(lines, [](const log_line &line) { return line.level == "debug"; });
        return lines;
    }
};

bool is_clear(const vl_nl80211_service &service)
{
    return !service.cb && !service.cmd_sock && !service.event_sock && service.family == 0 && !service.event &&
           !service.callbacks.next && !service.callbacks.prev;
}

std::unique_ptr<event_base, decltype(&event_base_free)> new_base() { return {event_base_new(), event_base_free}; }

std::vector<nlattr *> attributes_of(fake_netlink::bytes &request)
{
    std::vector<nlattr *> table(VL_NL80211_ATTR_MAX + 1);
    auto *generic = reinterpret_cast<genlmsghdr *>(request.data() + NLMSG_HDRLEN);
    nla_parse(table.data(), VL_NL80211_ATTR_MAX, genlmsg_attrdata(generic, 0),
              static_cast<int>(request.size() - NLMSG_HDRLEN - GENL_HDRLEN), nullptr);
    return table;
}

} // namespace

TEST_F(Nl80211, InitLeavesNothingBehindWhereverItFails)
{
    service = {};
    service.family = 7;
    EXPECT_EQ(-EINVAL, vl_nl80211_service_init(&service, nullptr));
    EXPECT_EQ(7, service.family) << "the record as it was";
    EXPECT_THAT(log.take(),
                ElementsAre(log_line{"error", "nl80211", "vl_nl80211_service_init", "event base can't be NULL"}));

    const auto base = new_base();
    const leak_check leaks;
    {
        const faults::refuse no_socket(faults::call::socket, EAFNOSUPPORT);
        const int code = vl_nl80211_service_init(&service, base.get());
        EXPECT_LT(code, 0);
        EXPECT_TRUE(is_clear(service));
        EXPECT_THAT(log.take(),
                    ElementsAre(log_line{"error", "nl80211", "vl_nl80211_socket_init",
                                         "failed to connect to netlink socket, ret = " + std::to_string(code)}));
    }
    if (faults::can_refuse_memory) {
        for (int n = 0; n < 3; ++n) {
            const faults::refuse_memory none(n);
            EXPECT_LT(vl_nl80211_service_init(&service, base.get()), 0) << n;
            EXPECT_TRUE(is_clear(service)) << n;
        }
    }
    leaks.expect_unchanged();

    log.take();
    vl_nl80211_service_deinit(&service);
    vl_nl80211_deregister_command_callback(&service, 1, nullptr);
    EXPECT_THAT(
        log.take(),
        ElementsAre(log_line{"error", "nl80211", "vl_nl80211_service_deinit", "already deinitialized"},
                    log_line{"error", "nl80211", "vl_nl80211_deregister_command_callback", "already deinitialized"}));
}

TEST_F(Nl80211, StatusIsWhatEndedTheAnswer)
{
    const std::string receive = "nl_recvmsgs failed: -18 (" + std::string(nl_geterror(-18)) + ")";
    const std::string interrupted =
        "nl_recvmsgs failed, convert to EAGAIN: -33 (" + std::string(nl_geterror(-33)) + ")";
    const struct {
        std::function<void(fake_netlink &)> answer;
        int status;
        const char *level;
        std::string text;
    } cases[] = {
        {[](auto &k) { k.acknowledge(); }, 0, "", ""},
        {[](auto &k) { k.refuse(-19); }, -19, "", ""},
        {[](auto &k) { k.refuse(-22, "no such thing"); }, -22, "", ""},
        {[](auto &k) { k.end_dump(); }, 0, "", ""},
        {[](auto &k) { k.end_dump(-12); }, 0, "", ""},
        {[](auto &k) { k.refuse(11); }, 11, "", ""},
        {[](auto &k) { k.refuse(5), k.refuse(-2); }, -2, "", ""},
        {[](auto &k) { k.fail_receive(-2), k.acknowledge(); }, 0, "", ""},
        {[](auto &k) { k.fail_receive(-18); }, -18, "error", receive},
        {[](auto &k) { k.end_dump(0, NLM_F_DUMP_INTR); }, -11, "warn", interrupted},
        {[](auto &k) {
             k.raw({1, 0, 0, 0, 2}), k.acknowledge();
         },
         0, "", ""},
    };
    for (const auto &c : cases) {
        const auto nth = &c - cases;
        c.answer(kernel);
        EXPECT_EQ(c.status, exchange()) << nth;
        EXPECT_TRUE(kernel.all_read()) << nth;
        const auto lines = lines_above_debug();
        if (c.text.empty()) {
            EXPECT_THAT(lines, IsEmpty()) << nth;
        } else {
            EXPECT_THAT(lines, ElementsAre(log_line{c.level, "nl80211", "vl_nl80211_send_recv", c.text})) << nth;
        }
    }

    // The reason is told to who asks for it; one whose bounds are wrong is not.
    kernel.refuse(-22, "no such thing");
    exchange();
    EXPECT_THAT(log.texts(), ElementsAre("the kernel says: no such thing"));
    for (const uint16_t flags : {uint16_t{NLM_F_ACK_TLVS}, uint16_t{NLM_F_ACK_TLVS | NLM_F_CAPPED}}) {
        fake_netlink::bytes cut(36);
        const nlmsghdr header = {36, NLMSG_ERROR, flags, 0, 0};
        const nlmsgerr error = {-1, {200, 0, 0, 0, 0}};
        memcpy(cut.data(), &header, sizeof header);
        memcpy(cut.data() + sizeof header, &error, sizeof error);
        kernel.raw(cut);
        EXPECT_EQ(-1, exchange());
        EXPECT_THAT(log.texts(), IsEmpty());
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
    log.take();
    const faults::refuse_memory none;
    EXPECT_EQ(-EIO, vl_nl80211_send_recv(&service, message, nullptr, nullptr));
}

TEST_F(Nl80211, RequestIsAddressedByInterfaceIndex)
{
    EXPECT_EQ(nullptr, vl_nl80211_create_message(&service, "nowhere", 5, 0));
    EXPECT_EQ(nullptr, vl_nl80211_create_message(&service, "exactly16letters", 5, 0));
    EXPECT_EQ(nullptr, vl_nl80211_create_message(&service, nullptr, 5, 0));
    EXPECT_THAT(log.take(), testing::Contains(log_line{"error", "nl80211", "vl_nl80211_create_message",
                                                       "couldn't get interface index nowhere"}));

    kernel.acknowledge();
    EXPECT_EQ(0, vl_nl80211_interface_set_power(&service, "lo", 2350));
    ASSERT_EQ(1U, kernel.sent.size());
    auto &request = kernel.sent[0];
    nlmsghdr header;
    memcpy(&header, request.data(), sizeof header);
    EXPECT_EQ(fake_netlink::family(), header.nlmsg_type);
    EXPECT_EQ(NLM_F_REQUEST | NLM_F_ACK, header.nlmsg_flags);
    EXPECT_EQ(NL80211_CMD_SET_WIPHY, request[NLMSG_HDRLEN]);
    EXPECT_EQ(0, request[NLMSG_HDRLEN + 1]) << "version";
    const auto table = attributes_of(request);
    EXPECT_EQ(1U, nla_get_u32(table[NL80211_ATTR_IFINDEX]));
    EXPECT_EQ(2U, nla_get_u32(table[NL80211_ATTR_WIPHY_TX_POWER_SETTING]));
    EXPECT_EQ(2350U, nla_get_u32(table[NL80211_ATTR_WIPHY_TX_POWER_LEVEL]));
}

TEST_F(Nl80211, InterfaceInformationTakesWholeAttributesOnly)
{
    constexpr uint32_t none = 0xFFFFFFFF;
    constexpr uint8_t address[] = {2, 4, 6, 8, 10, 12, 14};
    const struct {
        std::function<void(nl_msg *)> attributes;
        uint32_t wiphy, freq, width, power;
        bool has_mac;
    } cases[] = {
        {[](nl_msg *) {}, none, none, none, none, false},
        {[&](nl_msg *m) {
             nla_put_u32(m, NL80211_ATTR_WIPHY, 3);
             nla_put(m, NL80211_ATTR_MAC, 6, address);
             nla_put_u32(m, NL80211_ATTR_WIPHY_FREQ, 5955);
             nla_put_u32(m, NL80211_ATTR_CHANNEL_WIDTH, 13);
             nla_put_u32(m, NL80211_ATTR_WIPHY_TX_POWER_LEVEL, 2000);
             nla_put_u32(m, 400, 1); // beyond the table
         },
         3, 5955, 320, 2000, true},
        {[&](nl_msg *m) {
             nla_put_u16(m, NL80211_ATTR_WIPHY, 3);
             nla_put(m, NL80211_ATTR_MAC, 5, address);
             nla_put(m, NL80211_ATTR_WIPHY_FREQ, 0, address);
             nla_put_u8(m, NL80211_ATTR_CHANNEL_WIDTH, 1);
         },
         none, none, none, none, false},
        {[&](nl_msg *m) {
             nla_put(m, NL80211_ATTR_MAC, 7, address);
             nla_put_u64(m, NL80211_ATTR_WIPHY, 9);
         },
         9, none, none, none, true},
    };
    for (const auto &c : cases) {
        const auto nth = &c - cases;
        kernel.reply(NL80211_CMD_NEW_INTERFACE, c.attributes);
        kernel.acknowledge();
        uint32_t wiphy = 0, freq = 0, width = 0, power = 0;
        uint8_t mac[6] = {1};
        EXPECT_EQ(0, vl_nl80211_interface_info(&service, "lo", &wiphy, mac, &freq, &width, &power)) << nth;
        EXPECT_EQ(c.wiphy, wiphy) << nth;
        EXPECT_EQ(c.freq, freq) << nth;
        EXPECT_EQ(c.width, width) << nth;
        EXPECT_EQ(c.power, power) << nth;
        const uint8_t zero[6] = {};
        EXPECT_EQ(0, memcmp(mac, c.has_mac ? address : zero, 6)) << nth;
    }

    constexpr uint32_t widths[] = {20, 20, 40, 80, 160, 160, 0, 0, 0, 0, 0, 0, 0, 320, 0, 0};
    for (uint32_t value = 0; value < std::size(widths); ++value) {
        kernel.reply(NL80211_CMD_NEW_INTERFACE, [&](nl_msg *m) { nla_put_u32(m, NL80211_ATTR_CHANNEL_WIDTH, value); });
        kernel.acknowledge();
        uint32_t width = untouched;
        EXPECT_EQ(0, vl_nl80211_interface_info(&service, "lo", nullptr, nullptr, nullptr, &width, nullptr));
        EXPECT_EQ(widths[value], width) << value;
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
