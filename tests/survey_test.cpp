#include "tests/support/fake_netlink.h"
#include "tests/support/json.h"
#include "tests/support/log_lines.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <linux/nl80211.h>
#include <map>
#include <vela/wireless/survey.h>

using testing::ElementsAre;

namespace
{

constexpr uint64_t unknown = UINT64_MAX;
using attributes = fake_netlink::attributes;

/// A radio that tells of its channels as the kernel does: band by band, capabilities first, one channel per message.
class Channels : public testing::Test
{
protected:
    fake_netlink kernel;
    vl_nl80211_service service = {};

    Channels() { service.family = fake_netlink::family(); }
    void band(int number, const attributes &told)
    {
        kernel.reply(
            NL80211_CMD_NEW_WIPHY,
            [&](nl_msg *m) { nest(m, NL80211_ATTR_WIPHY_BANDS, [&](nl_msg *bands) { nest(bands, number, told); }); },
            NLM_F_MULTI);
    }
    void channel(
        int number, uint32_t mhz, std::initializer_list<int> marks = {}, const attributes &more = [](nl_msg *) {})
    {
        band(number, [&](nl_msg *b) {
            nest(b, NL80211_BAND_ATTR_FREQS, [&](nl_msg *list) {
                nest(list, 0, [&](nl_msg *c) {
                    nla_put_u32(c, NL80211_FREQUENCY_ATTR_FREQ, mhz);
                    for (const int mark : marks) nla_put_flag(c, mark);
                    more(c);
                });
            });
        });
    }
    void radio_does(int number, uint16_t ht, uint32_t vht, uint8_t he, uint8_t eht)
    {
        band(number, [&](nl_msg *b) {
            if (ht) nla_put_u16(b, NL80211_BAND_ATTR_HT_CAPA, ht);
            if (vht) nla_put_u32(b, NL80211_BAND_ATTR_VHT_CAPA, vht);
            nest(b, NL80211_BAND_ATTR_IFTYPE_DATA, [&](nl_msg *types) {
                nest(types, 1, [&](nl_msg *type) {
                    const uint8_t he_phy[11] = {he}, eht_phy[9] = {eht};
                    nla_put(type, NL80211_BAND_IFTYPE_ATTR_HE_CAP_PHY, sizeof he_phy, he_phy);
                    nla_put(type, NL80211_BAND_IFTYPE_ATTR_EHT_CAP_PHY, sizeof eht_phy, eht_phy);
                });
            });
        });
    }
    std::map<uint32_t, vela_channel> walk()
    {
        kernel.end_dump();
        std::map<uint32_t, vela_channel> found;
        const auto note = [](const vela_channel *c, void *arg) {
            static_cast<std::map<uint32_t, vela_channel> *>(arg)->emplace(c->freq_mhz, *c);
            return 0;
        };
        const int count = vela_channel_foreach(&service, "lo", note, &found);
        EXPECT_EQ(found.size(), static_cast<size_t>(count));
        return found;
    }
};

} // namespace

TEST(Survey, AirtimeBetweenTwoPolls)
{
    const auto survey = [](uint64_t time, uint64_t busy, uint64_t rx = unknown, uint64_t tx = unknown,
                           uint64_t bss_rx = unknown) {
        return vela_survey{5180, 0, -92, time, busy, unknown, rx, tx, unknown, bss_rx, {}};
    };
    const vela_survey none = {.freq_mhz = 0};
    const struct {
        const char *what;
        vela_survey before, now;
        int result;
        uint32_t busy, own, other;
    } cases[] = {
        {"since the driver's zero", none, survey(1000, 499, 0, 100, 50), 0, 499, 150, 349},
        {"between two", survey(1000, 500, 0, 100, 0), survey(1333, 600, 0, 110, 1), 0, 300, 33, 267},
        {"nothing of its own known", survey(0, 0), survey(10, 10), 0, 1000, 0, 1000},
        {"too short", survey(1000, 500), survey(1009, 505), -ENODATA, 0, 0, 0},
        {"receiving stands in", survey(0, unknown, 0), survey(1000, unknown, 250), 0, 250, 0, 250},
        {"neither busy nor receiving", none, survey(1000, unknown), -ENODATA, 0, 0, 0},
        {"no time", none, survey(unknown, 5), -ENODATA, 0, 0, 0},
        {"the clock went back", survey(5000, 100), survey(1000, 400), 0, 400, 0, 400},
        {"sending went back", survey(100, 100, 0, 9, 0), survey(1000, 400, 0, 8, 0), 0, 400, 8, 392},
        {"busier than time", none, survey(100, 300, 0, 80, 90), 0, 1000, 1000, 0},
        {"the largest numbers", none, survey(unknown - 1, unknown - 1, 0, unknown / 3, 0), 0, 1000, 333, 667},
    };
    for (const auto &c : cases) {
        vela_airtime out = {1, 1, 1, 1, 1};
        EXPECT_EQ(c.result, vela_survey_airtime(c.before.freq_mhz ? &c.before : nullptr, &c.now, &out)) << c.what;
        if (c.result != 0) {
            EXPECT_EQ(1U, out.freq_mhz) << c.what;
            continue;
        }
        EXPECT_EQ(c.busy, out.busy_permille) << c.what;
        EXPECT_EQ(c.own, out.own_permille) << c.what;
        EXPECT_EQ(c.other, out.other_permille) << c.what;
        EXPECT_EQ(-92, out.noise_dbm) << c.what;
    }
    vela_survey other = survey(0, 0);
    other.freq_mhz = 5200;
    const vela_survey now = survey(1000, 0);
    vela_airtime out;
    EXPECT_EQ(-EINVAL, vela_survey_airtime(&other, &now, &out)) << "of two channels";
    EXPECT_EQ(-EINVAL, vela_survey_airtime(nullptr, nullptr, &out));
}

TEST_F(Channels, SurveysAreReadAndThoseOfNoChannelPassedOver)
{
    const auto survey = [&](const attributes &info) {
        kernel.reply(
            NL80211_CMD_NEW_SURVEY_RESULTS, [&](nl_msg *m) { nest(m, NL80211_ATTR_SURVEY_INFO, info); }, NLM_F_MULTI);
    };
    survey([](nl_msg *m) {
        nla_put_u32(m, NL80211_SURVEY_INFO_FREQUENCY, 2412);
        nla_put_u8(m, NL80211_SURVEY_INFO_NOISE, 256 - 92);
        nla_put_flag(m, NL80211_SURVEY_INFO_IN_USE);
        nla_put_u64(m, NL80211_SURVEY_INFO_TIME, 1ULL << 40);
        nla_put_u64(m, NL80211_SURVEY_INFO_TIME_BSS_RX, 3);
        nla_put_u16(m, NL80211_SURVEY_INFO_TIME_BUSY, 4); // of another size
        nla_put(m, NL80211_SURVEY_INFO_TIME_TX, 3, "abc");
    });
    survey([](nl_msg *m) { nla_put_u64(m, NL80211_SURVEY_INFO_TIME, 1); });
    survey([](nl_msg *m) { nla_put_u32(m, NL80211_SURVEY_INFO_FREQUENCY, 5180); });
    kernel.end_dump();
    const vela::json_ref array{vela_survey_json(&service, "lo")};
    EXPECT_EQ(R"([{"bss_rx_ms":3,"busy_ms":4,"freq_mhz":2412,"in_use":true,"noise_dbm":-92,"time_ms":1099511627776},)"
              R"({"freq_mhz":5180,"in_use":false}])",
              dumped(array));
    kernel.end_dump(-EOPNOTSUPP);
    EXPECT_EQ(nullptr, vela_survey_json(&service, "lo"));
    EXPECT_EQ(EOPNOTSUPP, errno);
    for (int n = 0; n < 4; ++n) kernel.end_dump(0, NLM_F_DUMP_INTR);
    EXPECT_EQ("[]", dumped(vela::json_ref{vela_survey_json(&service, "lo")})) << "what there is, after four tries";
    EXPECT_TRUE(kernel.all_read());
}

TEST_F(Channels, WidthsAreWhatEveryPartOfABlockAllows)
{
    radio_does(NL80211_BAND_5GHZ, 2, 4, 0, 0);
    for (uint32_t mhz = 5180; mhz <= 5320; mhz += 20) {
        if (mhz == 5240) {
            channel(NL80211_BAND_5GHZ, mhz, {NL80211_FREQUENCY_ATTR_NO_HT40_PLUS, NL80211_FREQUENCY_ATTR_NO_160MHZ});
        } else if (mhz == 5260) {
            channel(NL80211_BAND_5GHZ, mhz, {NL80211_FREQUENCY_ATTR_NO_HT40_MINUS});
        } else if (mhz == 5320) {
            channel(NL80211_BAND_5GHZ, mhz, {NL80211_FREQUENCY_ATTR_DISABLED});
        } else {
            channel(NL80211_BAND_5GHZ, mhz);
        }
    }
    channel(NL80211_BAND_5GHZ, 5745, {NL80211_FREQUENCY_ATTR_NO_HT40_PLUS});
    channel(NL80211_BAND_5GHZ, 5765);
    radio_does(NL80211_BAND_6GHZ, 0, 0, 4 | 8, 2);
    for (uint32_t mhz = 5955; mhz < 5955 + 480; mhz += 20) {
        if (mhz == 6415) {
            channel(NL80211_BAND_6GHZ, mhz, {NL80211_FREQUENCY_ATTR_NO_320MHZ});
        } else {
            channel(NL80211_BAND_6GHZ, mhz);
        }
    }
    radio_does(NL80211_BAND_2GHZ, 2, 0, 0, 0);
    for (uint32_t mhz = 2412; mhz <= 2472; mhz += 5) channel(NL80211_BAND_2GHZ, mhz);
    channel(NL80211_BAND_2GHZ, 2484, {NL80211_FREQUENCY_ATTR_NO_20MHZ});
    const auto found = walk();
    const std::map<uint32_t, uint32_t> expected = {
        {5180, 7},  {5220, 7},  {5240, 7},  {5260, 3},  {5280, 3}, {5300, 1}, {5320, 0}, {5745, 1}, {5765, 1},
        {5955, 31}, {6255, 31}, {6275, 15}, {6415, 15}, {2412, 3}, {2447, 3}, {2472, 3}, {2484, 0},
    };
    for (const auto &[mhz, widths] : expected) EXPECT_EQ(widths, found.at(mhz).widths) << mhz;
    EXPECT_EQ(48U, found.at(5240).number);
    EXPECT_EQ(93U, found.at(6415).number);
}

TEST_F(Channels, EveryMarkAndFigure)
{
    channel(NL80211_BAND_5GHZ, 5500,
            {NL80211_FREQUENCY_ATTR_NO_IR, NL80211_FREQUENCY_ATTR_RADAR, NL80211_FREQUENCY_ATTR_INDOOR_ONLY,
             NL80211_FREQUENCY_ATTR_NO_HE, NL80211_FREQUENCY_ATTR_NO_EHT},
            [](nl_msg *c) {
                nla_put_u32(c, NL80211_FREQUENCY_ATTR_MAX_TX_POWER, 2000);
                nla_put_u32(c, NL80211_FREQUENCY_ATTR_DFS_STATE, NL80211_DFS_UNAVAILABLE);
                nla_put_u32(c, NL80211_FREQUENCY_ATTR_DFS_TIME, 5);
                nla_put_u32(c, NL80211_FREQUENCY_ATTR_DFS_CAC_TIME, 60000);
            });
    channel(NL80211_BAND_S1GHZ, 902);
    channel(NL80211_BAND_60GHZ, 74520);
    channel(99, 5180);
    kernel.end_dump();
    EXPECT_EQ(
        R"([{"band":1,"cac_ms":60000,"dfs_ms":5,"dfs_state":"unavailable","disabled":false,"freq_mhz":5500,"indoor":true,)"
        R"("max_power_mbm":2000,"no_eht":true,"no_he":true,"no_ir":true,"number":100,"radar":true,"widths":[20]},)"
        R"({"band":2,"disabled":false,"freq_mhz":74520,"indoor":false,"no_eht":false,"no_he":false,"no_ir":false,)"
        R"("radar":false,"widths":[20]}])",
        dumped(vela::json_ref{vela_channel_json(&service, "lo")}));

    for (uint32_t n = 0; n < 300; ++n) channel(NL80211_BAND_5GHZ, 5000 + n);
    log_lines log;
    EXPECT_EQ(256U, walk().size());
    EXPECT_THAT(log.texts(), ElementsAre("lo: a radio with more than 256 channels"));
}
