#include "tests/support/fake_netlink.h"
#include "tests/support/log_lines.h"

#include <cstdarg>
#include <cstring>
#include <gmock/gmock.h>
#include <linux/nl80211.h>
#include <linux/wireless.h>
#include <vela/settings.h>
#include <vela/wireless/cfg80211.h>

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using bytes = fake_netlink::bytes;

// The driver behind private ioctls: keeps the request and leaves its answer in it.
struct {
    int calls, result;
    unsigned long request;
    iwreq seen;
    char answer[16];
} driver = {};

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

class Vendor : public testing::Test
{
protected:
    fake_netlink kernel;
    vl_cfg80211_context context = {kernel.socket(), nullptr, 0, 0, fake_netlink::family(), nullptr};
    log_lines log;
    uint8_t buffer[8] = {1, 2, 3, 4, 5, 6, 7, 8};

    ~Vendor() override { EXPECT_EQ(0, kernel.open_contexts) << "contexts left open"; }

    /// The next command is answered with these replies.
    void answer(const std::vector<bytes> &replies)
    {
        for (const bytes &data : replies) {
            kernel.reply(NL80211_CMD_VENDOR, [&](nl_msg *m) {
                nla_put(m, NL80211_ATTR_VENDOR_DATA, static_cast<int>(data.size()), data.data());
            });
        }
        kernel.acknowledge();
    }

    /// The attributes of a command for the interface with index 1; `data` in whole words.
    static bytes command(uint8_t sub_command, uint16_t id, uint8_t room, const bytes &data)
    {
        constexpr uint32_t oui = vela::settings::vendor_oui;
        const auto size = static_cast<uint8_t>(data.empty() ? 0 : 4 + data.size());
        bytes b = {8, 0, 3, 0, 1, 0, 0, 0, 8, 0, 195, 0, oui & 0xFF, oui >> 8 & 0xFF, oui >> 16 & 0xFF, 0};
        b.insert(b.end(), {8, 0, 196, 0, sub_command, 0, 0, 0, static_cast<uint8_t>(28 + size), 0, 197, 0x80});
        b.insert(b.end(), {8, 0, 1, 0, static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8), 0, 0});
        b.insert(b.end(), {5, 0, 2, 0, 255, 0, 0, 0, 8, 0, 3, 0, room, 0, 0, 0});
        if (size) b.insert(b.end(), {size, 0, 4, 0});
        b.insert(b.end(), data.begin(), data.end());
        return b;
    }
    [[nodiscard]] bytes last_attributes() const
    {
        const bytes &sent = kernel.sent.back();
        EXPECT_EQ(NL80211_CMD_VENDOR, sent[NLMSG_HDRLEN]);
        return {sent.begin() + NLMSG_HDRLEN + GENL_HDRLEN, sent.end()};
    }
};

} // namespace

TEST_F(Vendor, ContextIsTriedThreeTimesAndClosedOnEveryPath)
{
    kernel.refused_openings = 2;
    EXPECT_EQ(0, vl_cfg80211_init(&context));
    EXPECT_THAT(kernel.tried, ElementsAre(877, 887, 897));
    EXPECT_EQ(898U, context.event_sock_id);
    context.event_callback(&context, 0, nullptr, 0);
    vl_cfg80211_deinit(&context);
    EXPECT_THAT(log.take(), IsEmpty());

    uint8_t statistics[VL_ATHSTAT_SIZE] = {42};
    int32_t value = 5;
    const auto all = [&] {
        return std::vector{vl_cfg80211_get_wifi_param_int("lo", 1, &value), get_athstat("lo", statistics),
                           vl_cfg80211_send_generic_set_command("lo", 223, buffer, sizeof buffer, 0, nullptr)};
    };
    kernel.refused_openings = 9;
    EXPECT_THAT(all(), Each(-EIO));
    const std::string failed = "unable to create NL socket after 3 tries, ret = ";
    EXPECT_THAT(log.texts(),
                ElementsAre(failed + "-17", failed + "-14", "unable to get ath_info, ret = -5", failed + "-11"));

    for (int n = 0; n < 3; ++n) kernel.refuse(-95);
    EXPECT_THAT(all(), Each(-1));
    EXPECT_EQ(42, statistics[0]);
    const std::string command = "[debug] nl80211.vl_cfg80211_send_generic_set_command(): send command failed, cmd = ";
    EXPECT_THAT(log.shown(),
                ElementsAre("[debug] nl80211.vl_cfg80211_get_wifi_param_int(): couldn't send NL command, ret = -95",
                            command + "501, ret = -95",
                            "[debug] libvela.get_athstat(): unable to get ath_info, ret = -1",
                            command + "223, ret = -95"));

    for (int n = 0; n < 3; ++n) answer({{1, 2, 3, 4}});
    EXPECT_THAT(all(), Each(0));
    EXPECT_EQ(0x04030201, value);
    EXPECT_EQ(1, statistics[0]);
    EXPECT_EQ(4, buffer[3]);
}

TEST_F(Vendor, ParametersAreReadAndSet)
{
    int32_t value = -7;
    answer({{0x78, 0x56, 0x34, 0x12, 0xFF}}); // more than asked for
    EXPECT_EQ(0, vl_cfg80211_get_wifi_param_int_ctx(&context, "lo", 676, &value));
    EXPECT_EQ(command(200, 676, 4, {}), last_attributes());
    kernel.refuse(-95);
    EXPECT_EQ(-95, vl_cfg80211_get_wifi_param_int_ctx(&context, "lo", 676, &value));
    answer({{1, 2}});
    EXPECT_EQ(-ENODATA, vl_cfg80211_get_wifi_param_int_ctx(&context, "lo", 676, &value)) << "half an answer";
    EXPECT_EQ(-ENODEV, vl_cfg80211_get_wifi_param_int_ctx(&context, "nowhere", 676, &value));
    EXPECT_EQ(0x12345678, value) << "written on success only";

    answer({});
    EXPECT_EQ(0, vl_cfg80211_send_command_no_response(&context, "lo", 386, 0x01020304));
    EXPECT_EQ(command(200, 386, 0, {4, 3, 2, 1}), last_attributes());
}

TEST_F(Vendor, GenericAnswersFillTheBufferOrGoToTheCallback)
{
    const auto generic = [&](int id, vl_cfg80211_reply_callback callback = nullptr) {
        return vl_cfg80211_send_generic_set_command_ctx(&context, "lo", buffer, sizeof buffer, callback, id);
    };
    answer({{10, 11, 12, 13, 14, 15}, {16, 17, 18, 19, 20, 21}});
    EXPECT_EQ(8, generic(476));
    EXPECT_THAT(buffer, ElementsAre(10, 11, 12, 13, 14, 15, 16, 17)) << "as far as they fit";
    EXPECT_EQ(command(74, 476, 8, {1, 2, 3, 4, 5, 6, 7, 8}), last_attributes());
    answer({});
    EXPECT_EQ(0, generic(476)) << "no station";
    answer({{1, 2}});
    EXPECT_EQ(0, generic(223));

    static std::vector<bytes> replies;
    answer({{1, 2, 3}, {}});
    EXPECT_EQ(0, generic(477, [](wifi_cfg80211_data *reply) {
                  const auto *first = static_cast<const uint8_t *>(reply->data);
                  replies.emplace_back(first, first + reply->length);
              }));
    EXPECT_THAT(replies, ElementsAre(bytes{1, 2, 3}, bytes{}));

    kernel.refuse(-22);
    EXPECT_EQ(-1, generic(476));
    EXPECT_THAT(log.shown(), ElementsAre("[debug] nl80211.vl_cfg80211_send_generic_set_command_ctx(): "
                                         "send command ctx failed, cmd = 476, ret = -22"));
}

TEST(PrivateIoctl, DataGoesInsideTheFirstTwoRequests)
{
    const bytes letters = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm', 'n'};
    auto *const data = const_cast<uint8_t *>(letters.data());
    const auto sent = [] { return std::string(reinterpret_cast<const char *>(&driver.seen.u), 16); };
    EXPECT_EQ(0, set80211priv(9, "wlan0-and-too-long", 0x8BE0, 0x34333231, 77, data, 12));
    EXPECT_STREQ("wlan0-and-too-l", driver.seen.ifr_name);
    EXPECT_EQ(0x8BE0U, driver.request);
    EXPECT_EQ("1234abcdefghijkl", sent());
    EXPECT_EQ(0, set80211priv(9, "wlan0", 0x8BE1, 0x35333231, 0, data, 14)) << "cut";
    EXPECT_EQ("1235abcdefghijkl", sent());
    EXPECT_EQ(0, set80211priv(9, "wlan0", 0x8BE0, 0x34333231, 0, nullptr, 12));
    EXPECT_EQ("1234" + std::string(12, '\0'), sent());

    const int calls = driver.calls;
    EXPECT_EQ(-1, set80211priv(9, "wlan0", 0x8BE0, 1, 0, data, 13));
    EXPECT_EQ(-1, set80211priv(9, "wlan0", 0x8BE2, 1, 0, data, -1));
    EXPECT_EQ(-1, get80211priv(9, "wlan0", 0x8BE1, 1, 0, data, 17));
    EXPECT_EQ(calls, driver.calls) << "refused before the kernel sees it";
}

TEST(PrivateIoctl, AnswersComeFromTheUnionOrTheirLength)
{
    strcpy(driver.answer, "fifteen letters");
    char data[16] = "";
    EXPECT_EQ(16, get80211priv(9, "wlan0", 0x8BE1, 5, 0, data, 16));
    EXPECT_STREQ("fifteen letters", data);

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
