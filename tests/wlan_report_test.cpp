// The radios are told of by a fake kernel, the neighbours by the real one.
#include "site/world.h"
#include "tests/support/fake_netlink.h"
#include "tests/support/faults.h"
#include "tests/support/json.h"
#include "tests/support/log_lines.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <linux/nl80211.h>
#include <net/if.h>
#include <vela/services/wlan_report.h>

using testing::ElementsAre;

namespace
{

class WlanReport : public testing::Test
{
protected:
    fake_netlink kernel;
    vl_nl80211_service service = {};
    vela_wlan_report *report = nullptr;
    uint64_t busy_ms = 0;

    WlanReport()
    {
        service.family = fake_netlink::family();
        EXPECT_EQ(0, site::run("ip link add w0 type veth peer name w1; ip link set w0 up; ip link set w1 up"));
        EXPECT_EQ(0, site::run("ip addr add 10.0.0.1/24 dev w0"));
    }
    ~WlanReport() override
    {
        vela_wlan_report_destroy(report);
        site::run("ip link del w0");
    }

    void network()
    {
        kernel.reply(NL80211_CMD_NEW_INTERFACE, [](nl_msg *m) {
            nla_put_u32(m, NL80211_ATTR_IFINDEX, if_nametoindex("w0"));
            nla_put_string(m, NL80211_ATTR_IFNAME, "w0");
            nla_put_u32(m, NL80211_ATTR_IFTYPE, NL80211_IFTYPE_AP);
            nla_put(m, NL80211_ATTR_SSID, 4, "vela");
            nla_put_u32(m, NL80211_ATTR_WIPHY, 3);
            nla_put_u32(m, NL80211_ATTR_WIPHY_FREQ, 5180);
            nla_put_u32(m, NL80211_ATTR_WIPHY_TX_POWER_LEVEL, 2300);
        });
        kernel.end_dump();
        kernel.reply(NL80211_CMD_NEW_WIPHY, [](nl_msg *m) {
            nla_put_u32(m, NL80211_ATTR_WIPHY, 3);
            nla_put_string(m, NL80211_ATTR_WIPHY_NAME, "phy3");
        });
        kernel.end_dump();
        kernel.reply(NL80211_CMD_NEW_SURVEY_RESULTS, [&](nl_msg *m) {
            nest(m, NL80211_ATTR_SURVEY_INFO, [&](nl_msg *info) {
                nla_put_u32(info, NL80211_SURVEY_INFO_FREQUENCY, 5180);
                nla_put_u64(info, NL80211_SURVEY_INFO_TIME, 2 * busy_ms);
                nla_put_u64(info, NL80211_SURVEY_INFO_TIME_BUSY, busy_ms);
            });
        });
        kernel.end_dump();
    }
    void station(uint16_t number, uint32_t packets, uint32_t bitrate = 5000)
    {
        kernel.reply(NL80211_CMD_NEW_STATION, [&](nl_msg *m) {
            const uint8_t mac[6] = {2, 0, 0, 0, static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
            nla_put_u32(m, NL80211_ATTR_IFINDEX, if_nametoindex("w0"));
            nla_put(m, NL80211_ATTR_MAC, 6, mac);
            nest(m, NL80211_ATTR_STA_INFO, [&](nl_msg *info) {
                nla_put_u32(info, NL80211_STA_INFO_TX_PACKETS, packets);
                nest(info, NL80211_STA_INFO_TX_BITRATE,
                     [&](nl_msg *rate) { nla_put_u32(rate, NL80211_RATE_INFO_BITRATE32, bitrate); });
            });
        });
    }
    vela::json_ref poll()
    {
        const auto note = [](const vela_sta_info *, vela_station *s, void *arg) {
            static_cast<std::vector<vela_station> *>(arg)->push_back(*s);
        };
        hooked.clear();
        vela::json_ref told{vela_wlan_report_poll(report, note, &hooked)};
        EXPECT_TRUE(kernel.all_read());
        return told;
    }
    std::vector<vela_station> hooked;
};

std::string at(const vela::json_ref &report, const char *list, size_t n, const char *key)
{
    return dumped(json_object_get(json_array_get(json_object_get(report.get(), list), n), key));
}

} // namespace

TEST_F(WlanReport, JoinsTwoPolls)
{
    report = vela_wlan_report_create(&service, 10);
    ASSERT_TRUE(report);
    EXPECT_EQ(0, site::run("ip neigh add 10.0.0.2 lladdr 02:00:00:00:00:02 dev w0 nud reachable"));
    EXPECT_EQ(0, site::run("ip neigh add 10.0.0.3 lladdr 02:00:00:00:00:03 dev w0 nud stale"));
    busy_ms = 1000;
    network();
    for (const uint16_t n : {3, 1, 2}) station(n, 100);
    kernel.end_dump();
    const auto first = poll();
    EXPECT_EQ("null", dumped(json_object_get(first.get(), "interval_ms")));
    EXPECT_EQ(
        R"([{"busy_permille":500,"mhz":5180,"own_permille":0,"power_mbm":2300,"radio":"phy3","stations":3,"wiphy":3}])",
        dumped(json_object_get(first.get(), "radios")));
    EXPECT_EQ(
        R"([{"interface":"w0","mhz":5180,"mld":false,"mode":"ap","radio":"phy3","satisfaction":100,"ssid":"vela",)"
        R"("stations":3}])",
        dumped(json_object_get(first.get(), "networks")));
    EXPECT_EQ("\"02:00:00:00:00:02\"", at(first, "stations", 1, "mac")) << "sorted";
    EXPECT_EQ("[\"10.0.0.2\"]", at(first, "stations", 1, "ip"));
    EXPECT_EQ("null", at(first, "stations", 0, "ip")) << "behind a bridge, perhaps: proves nothing";
    EXPECT_EQ("\"vela\"", at(first, "stations", 0, "network"));
    EXPECT_EQ(100U, hooked[0].tx_tries);

    // The second address fails, a station comes and one goes.
    EXPECT_EQ(0, site::run("ip neigh replace 10.0.0.2 dev w0 nud failed"));
    busy_ms = 1100;
    network();
    for (const uint16_t n : {2, 4, 1}) station(n, 130, 100);
    kernel.end_dump();
    const auto second = poll();
    EXPECT_TRUE(json_is_integer(json_object_get(second.get(), "interval_ms")));
    EXPECT_EQ("500", at(second, "radios", 0, "busy_permille"));
    ASSERT_EQ(3U, hooked.size());
    EXPECT_EQ(30U, hooked[0].tx_tries);
    EXPECT_EQ(50U, hooked[0].radio_health);
    EXPECT_EQ(5180, hooked[0].freq);
    EXPECT_EQ(130U, hooked[2].tx_tries) << "new: since its association";
    EXPECT_EQ("\"sta_arp_timeout\"", at(second, "stations", 1, "satisfaction_reason"));
    EXPECT_EQ("0", at(second, "stations", 1, "satisfaction"));
    EXPECT_EQ("null", at(second, "stations", 1, "ip"));

    if (!faults::can_refuse_memory) return;
    const faults::refuse_memory all(0, true);
    EXPECT_EQ(nullptr, vela_wlan_report_poll(report, nullptr, nullptr));
    EXPECT_EQ(ENOMEM, errno);
}

TEST_F(WlanReport, HoldsWhatItWasMadeFor)
{
    EXPECT_EQ(nullptr, vela_wlan_report_create(nullptr, 5));
    EXPECT_EQ(nullptr, vela_wlan_report_create(&service, 0));
    EXPECT_EQ(nullptr, vela_wlan_report_poll(nullptr, nullptr, nullptr));
    EXPECT_EQ(EINVAL, errno);
    report = vela_wlan_report_create(&service, 2000);
    network();
    for (uint16_t n = 0; n < 2001; ++n) station(n, 1);
    kernel.end_dump();
    log_lines log;
    vela::json_ref told{vela_wlan_report_poll(report, nullptr, nullptr)};
    EXPECT_EQ(2000U, json_array_size(json_object_get(told.get(), "stations")));
    EXPECT_EQ("true", dumped(json_object_get(told.get(), "partial")));
    EXPECT_THAT(log.texts(), ElementsAre("more stations than the report holds"));

    fake_netlink gone;
    gone.refuse(-ENOENT); // the wireless modules were reloaded
    EXPECT_EQ(nullptr, vela_wlan_report_poll(report, nullptr, nullptr));
    EXPECT_EQ(ENODEV, errno);
}
