#include "tests/support/fake_netlink.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <cstdarg>
#include <cstring>
#include <gmock/gmock.h>
#include <linux/nl80211.h>
#include <linux/wireless.h>
#include <sys/socket.h>
#include <vela/settings.h>
#include <vela/wireless/cfg80211.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

// The driver behind private ioctls: keeps the request and leaves its answer in it.
struct {
    int calls = 0;
    unsigned long request = 0;
    iwreq seen = {};
    uint8_t answer[16] = {};
    int result = 0;
} driver;

} // namespace

extern "C" int ioctl(int, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    auto *const wanted = va_arg(args, iwreq *);
    va_end(args);
    ++driver.calls;
    driver.request = request;
    driver.seen = *wanted;
    memcpy(&wanted->u, driver.answer, sizeof driver.answer);
    return driver.result;
}

namespace
{

using bytes = fake_netlink::bytes;

class Vendor : public testing::Test
{
protected:
    fake_netlink kernel;
    vl_cfg80211_context context = {kernel.socket(), nullptr, 0, 0, fake_netlink::family(), nullptr};

    void answer(const bytes &data)
    {
        kernel.reply(NL80211_CMD_VENDOR, [&](nl_msg *m) {
            nla_put(m, NL80211_ATTR_VENDOR_DATA, static_cast<int>(data.size()), data.data());
        });
    }

    /// The attributes of a command for the interface with index 1.
    static bytes command(uint32_t sub_command, uint32_t id, uint32_t room, const bytes &data)
    {
        nl_msg *m = nlmsg_alloc();
        nla_put_u32(m, NL80211_ATTR_IFINDEX, 1);
        nla_put_u32(m, NL80211_ATTR_VENDOR_ID, vela::settings::vendor_oui);
        nla_put_u32(m, NL80211_ATTR_VENDOR_SUBCMD, sub_command);
        nlattr *nested = nla_nest_start(m, NL80211_ATTR_VENDOR_DATA | NLA_F_NESTED);
        nla_put_u32(m, WIFI_VENDOR_ATTR_COMMAND, id);
        nla_put_u8(m, WIFI_VENDOR_ATTR_LINK_ID, 255);
        nla_put_u32(m, WIFI_VENDOR_ATTR_ROOM, room);
        if (!data.empty()) nla_put(m, WIFI_VENDOR_ATTR_DATA, static_cast<int>(data.size()), data.data());
        nla_nest_end(m, nested);
        const auto *first = static_cast<const uint8_t *>(nlmsg_data(nlmsg_hdr(m)));
        bytes attributes(first, first + nlmsg_datalen(nlmsg_hdr(m)));
        nlmsg_free(m);
        return attributes;
    }
    [[nodiscard]] bytes last_attributes() const
    {
        const bytes &sent = kernel.sent.back();
        EXPECT_EQ(NL80211_CMD_VENDOR, sent[NLMSG_HDRLEN]);
        return {sent.begin() + NLMSG_HDRLEN + GENL_HDRLEN, sent.end()};
    }
};

std::vector<bytes> replies;

} // namespace

TEST_F(Vendor, ParametersAreReadAndSet)
{
    int32_t value = -7;
    answer({0x78, 0x56, 0x34, 0x12, 0xFF}); // more than asked for
    kernel.acknowledge();
    EXPECT_EQ(0, vl_cfg80211_get_wifi_param_int_ctx(&context, "lo", 676, &value));
    EXPECT_EQ(0x12345678, value);
    EXPECT_EQ(command(200, 676, 4, {}), last_attributes());

    kernel.refuse(-95);
    EXPECT_EQ(-95, vl_cfg80211_get_wifi_param_int_ctx(&context, "lo", 676, &value));
    kernel.acknowledge();
    EXPECT_EQ(-ENODATA, vl_cfg80211_get_wifi_param_int_ctx(&context, "lo", 676, &value)) << "no answer at all";
    EXPECT_EQ(-ENODEV, vl_cfg80211_get_wifi_param_int_ctx(&context, "nowhere", 676, &value));
    EXPECT_EQ(0x12345678, value) << "written on success only";

    kernel.acknowledge();
    EXPECT_EQ(0, vl_cfg80211_send_command_no_response(&context, "lo", 386, 0x01020304));
    EXPECT_EQ(command(200, 386, 0, {4, 3, 2, 1}), last_attributes());
}

TEST_F(Vendor, GenericAnswersFillTheBufferOrGoToTheCallback)
{
    log_lines log;
    uint8_t buffer[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    answer({10, 11, 12, 13, 14, 15});
    answer({16, 17, 18, 19, 20, 21});
    kernel.acknowledge();
    EXPECT_EQ(8, vl_cfg80211_send_generic_set_command_ctx(&context, "lo", buffer, sizeof buffer, nullptr, 476));
    EXPECT_THAT(buffer, ElementsAre(10, 11, 12, 13, 14, 15, 16, 17)) << "as far as they fit";
    EXPECT_EQ(command(74, 476, 8, {1, 2, 3, 4, 5, 6, 7, 8}), last_attributes());

    kernel.acknowledge();
    EXPECT_EQ(0, vl_cfg80211_send_generic_set_command_ctx(&context, "lo", buffer, sizeof buffer, nullptr, 476))
        << "no station";
    answer({1, 2});
    kernel.acknowledge();
    EXPECT_EQ(0, vl_cfg80211_send_generic_set_command_ctx(&context, "lo", buffer, sizeof buffer, nullptr, 223));

    replies.clear();
    const auto keep = [](wifi_cfg80211_data *reply) {
        const auto *first = static_cast<const uint8_t *>(reply->data);
        replies.emplace_back(first, first + reply->length);
    };
    answer({1, 2, 3});
    answer({});
    kernel.reply(NL80211_CMD_VENDOR, [](nl_msg *) {});
    kernel.end_dump();
    EXPECT_EQ(0, vl_cfg80211_send_generic_set_command_ctx(&context, "lo", buffer, sizeof buffer, keep, 477));
    EXPECT_THAT(replies, ElementsAre(bytes{1, 2, 3}, bytes{}, bytes{}));

    EXPECT_THAT(log.texts(), IsEmpty());
    kernel.refuse(-22);
    EXPECT_EQ(-1, vl_cfg80211_send_generic_set_command_ctx(&context, "lo", buffer, sizeof buffer, nullptr, 476));
    EXPECT_THAT(log.take(), ElementsAre(log_line{"debug", "nl80211", "vl_cfg80211_send_generic_set_command_ctx",
                                                 "send command ctx failed, cmd = 476, ret = -22"}));
}

TEST(VendorContext, FailsAfterThreeTriesAndLeavesNothing)
{
    // Taken ports fail the same whether or not the kernel knows nl80211.
    std::vector<int> taken;
    for (const uint32_t port : {877, 888, 897}) {
        sockaddr_nl address = {};
        address.nl_family = AF_NETLINK;
        address.nl_pid = port;
        taken.push_back(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC));
        ASSERT_EQ(0, bind(taken.back(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
    }
    log_lines log;
    const leak_check leaks;
    vl_cfg80211_context context;
    EXPECT_EQ(-EIO, vl_cfg80211_init(&context));
    EXPECT_THAT(log.texts(), ElementsAre("unable to create NL socket after 3 tries, ret = -6"));
    int32_t value = 5;
    EXPECT_EQ(-EIO, vl_cfg80211_get_wifi_param_int("lo", 1, &value));
    EXPECT_EQ(-EIO, vl_cfg80211_send_generic_set_command("lo", 223, &value, sizeof value, 0, nullptr));
    log.take();
    uint8_t statistics[VL_ATHSTAT_SIZE] = {42};
    EXPECT_EQ(-EIO, get_athstat("lo", statistics));
    EXPECT_EQ(42, statistics[0]);
    EXPECT_THAT(log.take(),
                testing::Contains(log_line{"debug", "libvela", "get_athstat", "unable to get ath_info, ret = -5"}));
    leaks.expect_unchanged();
    for (const int fd : taken) close(fd);
}

TEST(PrivateIoctl, DataGoesInsideTheFirstTwoRequests)
{
    uint8_t data[20];
    for (uint8_t n = 0; n < sizeof data; ++n) data[n] = static_cast<uint8_t>(100 + n);
    const auto *const inside = reinterpret_cast<const uint8_t *>(&driver.seen.u);
    const auto sent = [&] { return bytes(inside, inside + 16); };

    EXPECT_EQ(0, set80211priv(9, "wlan0-and-too-long", 0x8BE0, 0x04030201, 77, data, 12));
    EXPECT_STREQ("wlan0-and-too-l", driver.seen.ifr_name);
    EXPECT_EQ(0x8BE0U, driver.request);
    EXPECT_THAT(sent(), ElementsAre(1, 2, 3, 4, 100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111));
    EXPECT_EQ(0, set80211priv(9, "wlan0", 0x8BE0, 1, 0, data, 3));
    EXPECT_THAT(sent(), ElementsAre(1, 0, 0, 0, 100, 101, 102, 0, 0, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(0, set80211priv(9, "wlan0", 0x8BE1, 1, 0, data, 20)) << "cut";
    EXPECT_EQ(111, sent()[15]);
    EXPECT_EQ(0, set80211priv(9, "wlan0", 0x8BE0, 1, 0, nullptr, 12));
    EXPECT_EQ(0, sent()[4]);

    const int calls = driver.calls;
    EXPECT_EQ(-1, set80211priv(9, "wlan0", 0x8BE0, 1, 0, data, 13));
    EXPECT_EQ(-1, set80211priv(9, "wlan0", 0x8BE2, 1, 0, data, -1));
    EXPECT_EQ(-1, get80211priv(9, "wlan0", 0x8BE1, 1, 0, data, 17));
    EXPECT_EQ(calls, driver.calls) << "refused before the kernel sees it";
}

TEST(PrivateIoctl, AnswersComeFromTheUnionOrTheirLength)
{
    for (uint8_t n = 0; n < 16; ++n) driver.answer[n] = static_cast<uint8_t>(n + 1);
    uint8_t data[16] = {};
    EXPECT_EQ(16, get80211priv(9, "wlan0", 0x8BE1, 5, 0, data, 16));
    EXPECT_EQ(0, memcmp(data, driver.answer, 16));
    EXPECT_EQ(0, get80211priv(9, "wlan0", 0x8BE1, 5, 0, data, 0));

    iwreq answer = {};
    answer.u.data.length = 40000;
    memcpy(driver.answer, &answer.u, sizeof driver.answer);
    EXPECT_EQ(40000, get80211priv(9, "wlan0", 0x8BE5, 5, 3, data, 16));
    EXPECT_EQ(data, driver.seen.u.data.pointer);
    EXPECT_EQ(16, driver.seen.u.data.length);
    EXPECT_EQ(3, driver.seen.u.data.flags);

    driver.result = -1;
    EXPECT_EQ(-1, get80211priv(9, "wlan0", 0x8BE5, 5, 3, data, 16));
    EXPECT_EQ(-1, set80211priv(9, "wlan0", 0x8BE5, 5, 3, data, 16));
}
