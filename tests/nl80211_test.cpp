#include "tests/support/fake_netlink.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

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

class Nl80211 : public testing::Test
{
protected:
    fake_netlink kernel;
    vl_nl80211_service service = {kernel.callbacks(), kernel.socket(), nullptr, fake_netlink::family(), nullptr, {}};
    log_lines log;

    int exchange()
    {
        return vl_nl80211_send_recv(&service, vl_nl80211_create_message(&service, "lo", 1, 0), nullptr, nullptr);
    }
    /// The next request for an interface is answered with these attributes, then with a status.
    void report(const std::function<void(nl_msg *)> &put, int status = 0)
    {
        kernel.reply(NL80211_CMD_NEW_INTERFACE, put);
        kernel.refuse(status);
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
    const auto init = [&] {
        const int code = vl_nl80211_service_init(&service, base.get());
        const vl_nl80211_service clear = {};
        EXPECT_EQ(0, memcmp(&clear, &service, sizeof clear));
        return code;
    };
    for (int n = 0; n < 3 && faults::can_refuse_memory; ++n) {
        const faults::refuse_memory none(n);
        EXPECT_LT(init(), 0) << "allocation " << n;
    }
    const faults::refuse none(faults::call::socket, EAFNOSUPPORT);
    const auto code = std::to_string(init());
    EXPECT_THAT(log.shown().back(), "[error] nl80211.vl_nl80211_socket_init(): "
                                    "failed to connect to netlink socket, ret = " +
                                        code);
    leaks.expect_unchanged();

    vl_nl80211_service_deinit(&service);
    vl_nl80211_deregister_command_callback(&service, 1, nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("already deinitialized", "already deinitialized"));
}

TEST_F(Nl80211, StatusIsWhatEndedTheAnswer)
{
    const auto because = [](const std::string &text, int code) { return text + " (" + nl_geterror(code) + ")"; };
    const table<std::function<void(fake_netlink &)>, int, std::string> cases = {
        {[](auto &k) { k.acknowledge(); }, 0, ""},
        {[](auto &k) { k.refuse(-22, "no such thing"); }, -22, "[debug] the kernel says: no such thing"},
        {[](auto &k) { k.end_dump(); }, 0, ""},
        {[](auto &k) { k.end_dump(-12); }, 0, "[debug] the dump ended with error -12"},
        {[](auto &k) { k.refuse(11); }, 11, ""},
        {[](auto &k) { k.refuse(5), k.refuse(-2); }, -2, ""},
        {[](auto &k) { k.fail_receive(-2), k.acknowledge(); }, 0, ""},
        {[](auto &k) { k.fail_receive(-18); }, -18, because("[error] nl_recvmsgs failed: -18", -18)},
        {[](auto &k) { k.end_dump(0, NLM_F_DUMP_INTR); }, -11,
         because("[warn] nl_recvmsgs failed, convert to EAGAIN: -33", -33)},
        {[](auto &k) {
             k.raw({1, 0, 0, 0, 2}), k.acknowledge();
         },
         0, ""},
    };
    for (const auto &[answer, status, said] : cases) {
        const auto nth = &status - &std::get<1>(cases[0]);
        answer(kernel);
        EXPECT_EQ(status, exchange()) << nth;
        EXPECT_TRUE(kernel.all_read()) << nth;
        std::string logged;
        for (const auto &line : log.take()) logged += "[" + line.level + "] " + line.text;
        EXPECT_EQ(said, logged) << nth;
    }
}

TEST_F(Nl80211, RequestIsAddressedByInterfaceIndexAndSentOnce)
{
    for (const char *name : {"nowhere", "exactly16letters", static_cast<const char *>(nullptr)})
        EXPECT_EQ(nullptr, vl_nl80211_create_message(&service, name, 5, 0));

    kernel.acknowledge();
    EXPECT_EQ(0, vl_nl80211_interface_set_power(&service, "lo", 2350));
    const auto &sent = kernel.sent.at(0);
    EXPECT_EQ(NL80211_CMD_SET_WIPHY, sent.at(NLMSG_HDRLEN));
    const std::vector attributes(sent.begin() + NLMSG_HDRLEN + GENL_HDRLEN, sent.end());
    EXPECT_THAT(attributes, ElementsAre(8, 0, 3, 0, 1, 0, 0, 0, 8, 0, 97, 0, 2, 0, 0, 0, 8, 0, 98, 0, 0x2E, 9, 0, 0));

    log.take();
    kernel.send_result = -3;
    EXPECT_EQ(-3, exchange());
    EXPECT_THAT(log.texts(), ElementsAre("auto complete failed, ret = -3"));
    EXPECT_EQ(-EINVAL, vl_nl80211_send_recv(&service, nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, vl_nl80211_send(&service.cmd_sock, nullptr, nullptr, nullptr));
    EXPECT_EQ(2U, kernel.sent.size());
    if (!faults::can_refuse_memory) return;
    nl_msg *message = vl_nl80211_create_message(&service, "lo", 1, 0);
    const faults::refuse_memory none;
    EXPECT_EQ(-EIO, vl_nl80211_send_recv(&service, message, nullptr, nullptr)) << "and freed on every path";
}

TEST_F(Nl80211, InterfaceInformationTakesWholeAttributesOnly)
{
    constexpr uint32_t none = 0xFFFFFFFF;
    constexpr uint64_t address = 0x0E0C0A080604;
    using attribute = std::tuple<int, int, uint64_t>; // number, size, value
    // Wiphy, frequency, width and power, then the address.
    const table<std::vector<attribute>, std::array<uint32_t, 4>, uint64_t> cases = {
        {{{1, 4, 3}, {6, 6, address}, {38, 4, 5955}, {159, 4, NL80211_CHAN_WIDTH_80P80}, {98, 4, 2000}, {400, 4, 1}},
         {3, 5955, 160, 2000},
         address},
        {{{1, 2, 3}, {6, 5, address}, {38, 0, 0}, {159, 1, 1}}, {none, none, none, none}, 0},
        {{{6, 7, address}, {1, 8, 9}, {159, 4, 14}}, {9, none, 0, none}, address},
    };
    for (const auto &[attributes, expected, expected_mac] : cases) {
        report([&](nl_msg *m) {
            for (const auto &[number, size, value] : attributes) nla_put(m, number, size, &value);
        });
        std::array<uint32_t, 4> n = {};
        uint8_t mac[8] = {1};
        EXPECT_EQ(0, vl_nl80211_interface_info(&service, "lo", &n[0], mac, &n[1], &n[2], &n[3]));
        EXPECT_EQ(expected, n);
        EXPECT_EQ(0, memcmp(mac, &expected_mac, sizeof mac));
    }
}

TEST_F(Nl80211, OutputsStayUntouchedOnFailure)
{
    uint32_t power = 0xA5A5A5A5;
    report([](nl_msg *) {});
    EXPECT_EQ(-1, vl_nl80211_interface_power(&service, "lo", &power));
    report([](nl_msg *m) { nla_put_u32(m, NL80211_ATTR_WIPHY_TX_POWER_LEVEL, 2000); }, -19);
    EXPECT_EQ(-19, vl_nl80211_interface_power(&service, "lo", &power));
    EXPECT_EQ(0xA5A5A5A5, power);
    char out[16] = "as it was";
    EXPECT_EQ(nullptr, vl_nl80211_parent_interface(&service, "nowhere", out));
    EXPECT_STREQ("as it was", out);
    EXPECT_THAT(log.texts(),
                ElementsAre("TX power handler isn't implemented for interface lo",
                            "couldn't obtain TX power of the interface lo", "couldn't get interface index nowhere",
                            "couldn't obtain interface PHY index, ret = -5"));
}

TEST_F(Nl80211, EventSocketInTroubleSaysWhy)
{
    const auto complaint = [](int code) {
        return std::string("[error] nl80211.vl_nl80211_loop_event(): an error occurred while receiving messages: ") +
               nl_geterror(code);
    };
    vl_nl80211_service unconnected = {nl_cb_alloc(NL_CB_DEFAULT), nullptr, nl_socket_alloc(), 0, nullptr, {}};
    vl_nl80211_loop_event(0, 0, &unconnected);
    EXPECT_THAT(log.shown(), ElementsAre(complaint(-NLE_BAD_SOCK)));
    nl_socket_free(unconnected.event_sock);
    nl_cb_put(unconnected.cb);

    service.event_sock = kernel.socket();
    kernel.fail_receive(-5);
    vl_nl80211_loop_event(0, 0, &service);
    EXPECT_THAT(log.shown(), ElementsAre(complaint(-5), testing::StartsWith("[debug]"))) << "events were lost";
    kernel.fail_receive(-4);
    vl_nl80211_loop_event(0, 0, &service);
    EXPECT_THAT(log.shown(), ElementsAre()) << "nothing there";
}
