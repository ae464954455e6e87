#include "tests/support/fake_netlink.h"
#include "tests/support/faults.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <linux/nl80211.h>
#include <net/if.h>
#include <vela/wireless/station.h>
#include <vela/wireless/wlan.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using attributes = fake_netlink::attributes;
constexpr uint8_t mac[6] = {2, 0, 0, 0, 3, 0}, mld[6] = {2, 0, 0, 0, 3, 9};

class Station : public testing::Test
{
protected:
    fake_netlink kernel;
    vl_nl80211_service service = {};
    std::vector<vela_sta_info> seen;
    int stop_after = 0;

    Station() { service.family = fake_netlink::family(); }
    void station(
        const attributes &info, const attributes &more = [](nl_msg *) {}, int flags = NLM_F_MULTI)
    {
        const auto all = [&](nl_msg *m) {
            nla_put_u32(m, NL80211_ATTR_IFINDEX, 1);
            nla_put(m, NL80211_ATTR_MAC, 6, mac);
            more(m);
            nest(m, NL80211_ATTR_STA_INFO, info);
        };
        kernel.reply(NL80211_CMD_NEW_STATION, all, flags);
    }
    int walk(const char *ifname = "lo")
    {
        seen.clear();
        const auto note = [](const vela_sta_info *info, void *arg) {
            auto &self = *static_cast<Station *>(arg);
            self.seen.push_back(*info);
            return static_cast<int>(self.seen.size()) == self.stop_after ? 1 : 0;
        };
        return vela_sta_foreach(&service, ifname, note, this);
    }
    std::string told(size_t n = 0) { return dumped(vela::json_ref{vela_sta_json(&seen.at(n), nullptr)}); }
};

void everything(nl_msg *m)
{
    nla_put_u32(m, NL80211_STA_INFO_INACTIVE_TIME, 40);
    nla_put_u32(m, NL80211_STA_INFO_CONNECTED_TIME, 7);
    nla_put_u64(m, NL80211_STA_INFO_ASSOC_AT_BOOTTIME, 5000000000);
    nla_put_u64(m, NL80211_STA_INFO_RX_BYTES64, 1ULL << 40);
    nla_put_u32(m, NL80211_STA_INFO_RX_BYTES, 0);
    nla_put_u32(m, NL80211_STA_INFO_TX_BYTES, 900);
    nla_put_u32(m, NL80211_STA_INFO_TX_PACKETS, 9);
    nla_put_u32(m, NL80211_STA_INFO_TX_RETRIES, 4);
    nla_put_u32(m, NL80211_STA_INFO_TX_FAILED, 2);
    nla_put_u64(m, NL80211_STA_INFO_RX_DROP_MISC, 1);
    nla_put_u64(m, NL80211_STA_INFO_TX_DURATION, UINT64_MAX - 1);
    nla_put_u8(m, NL80211_STA_INFO_SIGNAL, 256 - 61);
    nla_put_u8(m, NL80211_STA_INFO_ACK_SIGNAL, 256 - 70);
    nla_put_u16(m, NL80211_STA_INFO_AIRTIME_WEIGHT, 256);
    nest(m, NL80211_STA_INFO_CHAIN_SIGNAL, [](nl_msg *chains) {
        nla_put_u8(chains, 0, 256 - 62);
        nla_put_u8(chains, 2, 256 - 64);
        nla_put_u8(chains, 9, 1);
    });
    nest(m, NL80211_STA_INFO_TX_BITRATE, [](nl_msg *rate) {
        nla_put_u16(rate, NL80211_RATE_INFO_BITRATE, 1);
        nla_put_u32(rate, NL80211_RATE_INFO_BITRATE32, 12010);
    });
    const nl80211_sta_flag_update flags = {0xFF, 1U << NL80211_STA_FLAG_AUTHORIZED | 1U << NL80211_STA_FLAG_WME};
    nla_put(m, NL80211_STA_INFO_STA_FLAGS, sizeof flags, &flags);
}

} // namespace

TEST_F(Station, EveryFigureWithItsSignAndWidth)
{
    station(everything);
    station([](nl_msg *) {});
    kernel.end_dump();
    ASSERT_EQ(2, walk());
    EXPECT_EQ(
        R"({"ack_signal_dbm":-70,"airtime_weight":256,"authorized":true,"chains_dbm":[-62,-64],"connected_s":7,)"
        R"("counters":{"rx_bytes":1099511627776,"rx_dropped":1,"tx_bytes":900,"tx_failed":2,"tx_packets":9,)"
        R"("tx_retries":4,"tx_us":9223372036854775807},"inactive_ms":40,"interface":"lo","mac":"02:00:00:00:03:00",)"
        R"("mfp":false,"mld":false,"signal_dbm":-61,"tx":{"kbps":1201000,"mode":"legacy","width_mhz":20}})",
        told());
    EXPECT_EQ(5000000000U, seen[0].associated_ns);
    EXPECT_EQ(1U, seen[0].index);
    EXPECT_EQ(uint32_t{VELA_STA_AUTHORIZED | VELA_STA_WME}, seen[0].flags);
    EXPECT_EQ(R"({"authorized":false,"interface":"lo","mac":"02:00:00:00:03:00","mfp":false,"mld":false})", told(1))
        << "nothing is made up";
    EXPECT_EQ(INT32_MIN, seen[1].assoc_link);
}

TEST_F(Station, RatesOfEveryKind)
{
    using numbers = std::vector<std::pair<int, int>>; // attribute, value; negative: a flag
    const std::vector<std::pair<numbers, const char *>> cases = {
        {{{NL80211_RATE_INFO_MCS, 15}, {NL80211_RATE_INFO_40_MHZ_WIDTH, -1}, {NL80211_RATE_INFO_SHORT_GI, -1}},
         R"({"gi_ns":400,"mcs":15,"mode":"ht","nss":2,"width_mhz":40})"},
        {{{NL80211_RATE_INFO_VHT_MCS, 9}, {NL80211_RATE_INFO_VHT_NSS, 3}, {NL80211_RATE_INFO_80P80_MHZ_WIDTH, -1}},
         R"({"gi_ns":800,"mcs":9,"mode":"vht","nss":3,"width_mhz":160})"},
        {{{NL80211_RATE_INFO_HE_MCS, 11}, {NL80211_RATE_INFO_HE_NSS, 1}, {NL80211_RATE_INFO_HE_GI, 2}},
         R"({"gi_ns":3200,"mcs":11,"mode":"he","nss":1,"width_mhz":20})"},
        {{{NL80211_RATE_INFO_EHT_MCS, 13},
          {NL80211_RATE_INFO_EHT_NSS, 4},
          {NL80211_RATE_INFO_EHT_GI, 3},
          {NL80211_RATE_INFO_320_MHZ_WIDTH, -1}},
         R"({"mcs":13,"mode":"eht","nss":4,"width_mhz":320})"},
    };
    for (const auto &[given, expected] : cases) {
        station([&](nl_msg *m) {
            nest(m, NL80211_STA_INFO_RX_BITRATE, [&](nl_msg *rate) {
                for (const auto &[attribute, value] : given) {
                    if (value < 0) nla_put_flag(rate, attribute);
                    if (value >= 0) nla_put_u8(rate, attribute, static_cast<uint8_t>(value));
                }
            });
        });
        kernel.end_dump();
        ASSERT_EQ(1, walk());
        EXPECT_EQ(expected, dumped(json_object_get(vela::json_ref{vela_sta_json(&seen[0], nullptr)}.get(), "rx")));
    }
}

TEST_F(Station, LinksOfAMultiLinkStation)
{
    station([](nl_msg *) {},
            [](nl_msg *m) {
                nla_put_u8(m, NL80211_ATTR_MLO_LINK_ID, 1);
                nla_put(m, NL80211_ATTR_MLD_ADDR, 6, mld);
                nest(m, NL80211_ATTR_MLO_LINKS, [](nl_msg *links) {
                    for (uint8_t id = 0; id < 6; ++id) {
                        nest(links, id + 1, [id](nl_msg *link) {
                            nla_put_u8(link, NL80211_ATTR_MLO_LINK_ID, id);
                            nla_put(link, NL80211_ATTR_MAC, 6, mac);
                            nest(link, NL80211_ATTR_STA_INFO, [id](nl_msg *info) {
                                nla_put_u8(info, NL80211_STA_INFO_SIGNAL, static_cast<uint8_t>(-50 - id));
                                nla_put_u32(info, NL80211_STA_INFO_TX_PACKETS, id);
                                nest(info, NL80211_STA_INFO_TX_BITRATE,
                                     [](nl_msg *rate) { nla_put_u32(rate, NL80211_RATE_INFO_BITRATE32, 1000); });
                            });
                        });
                    }
                });
            });
    kernel.end_dump();
    ASSERT_EQ(1, walk());
    EXPECT_EQ(0, memcmp(mld, seen[0].mac, 6)) << "by its own address";
    EXPECT_EQ(1, seen[0].assoc_link);
    EXPECT_EQ(6U, seen[0].link_count);
    EXPECT_EQ(3U, seen[0].links[3].id);
    EXPECT_EQ(uint32_t{VELA_STA_MLD}, seen[0].flags);
    const vela::json_ref object{vela_sta_json(&seen[0], nullptr)};
    EXPECT_EQ(4U, json_array_size(json_object_get(object.get(), "links")));
    EXPECT_EQ(R"({"counters":{"tx_packets":2},"id":2,"mac":"02:00:00:00:03:00","signal_dbm":-52,)"
              R"("tx":{"kbps":100000,"mode":"legacy","width_mhz":20}})",
              dumped(json_array_get(json_object_get(object.get(), "links"), 2)));
    vela_station scored;
    vela_station_clear(&scored);
    vela_sta_fill(nullptr, &seen[0], &scored);
    EXPECT_EQ(400000U, scored.tx_rate) << "all links together";
}

TEST_F(Station, WalksEndAsPromised)
{
    log_lines log;
    const leak_check leaks;
    const auto two = [&](int flags = NLM_F_MULTI) {
        station(everything);
        station(
            everything, [](nl_msg *) {}, flags);
    };
    EXPECT_EQ(-EINVAL, vela_sta_foreach(nullptr, "lo", nullptr, nullptr));
    EXPECT_EQ(-EINVAL, walk(nullptr));
    EXPECT_EQ(-ENODEV, walk("nowhere"));
    kernel.end_dump();
    EXPECT_EQ(0, walk());
    two();
    kernel.end_dump(0, NLM_F_DUMP_INTR);
    EXPECT_EQ(-EAGAIN, walk());
    EXPECT_EQ(2U, seen.size()) << "all was delivered";
    two(NLM_F_MULTI | NLM_F_DUMP_INTR);
    kernel.end_dump();
    EXPECT_EQ(-EAGAIN, walk());
    kernel.end_dump(-EOPNOTSUPP);
    EXPECT_EQ(-EOPNOTSUPP, walk()) << "refused by the end of the dump";
    kernel.refuse(-ENODEV);
    EXPECT_EQ(-ENODEV, walk());
    two();
    EXPECT_EQ(-ETIMEDOUT, walk()) << "the end does not come";
    two();
    stop_after = 1;
    EXPECT_EQ(1, walk());
    vela_sta_info out = {};
    const vela_sta_info untouched = out;
    fake_netlink other; // with nothing left unread
    other.refuse(-ENOENT);
    EXPECT_EQ(-ENOENT, vela_sta_get(&service, "lo", mac, &out));
    other.refuse(0);
    EXPECT_EQ(-ENOENT, vela_sta_get(&service, "lo", mac, &out)) << "done, and nothing said";
    EXPECT_EQ(0, memcmp(&untouched, &out, sizeof out));
    service.family = 0;
    EXPECT_EQ(-EINVAL, vela_sta_get(&service, "lo", mac, &out));
    EXPECT_THAT(log.texts(), IsEmpty());
    leaks.expect_unchanged();
}

TEST_F(Station, OneIsAskedForByItsAddress)
{
    station(
        everything, [](nl_msg *) {}, 0);
    kernel.acknowledge();
    vela_sta_info out;
    ASSERT_EQ(0, vela_sta_get(&service, "lo", mac, &out));
    EXPECT_STREQ("lo", out.ifname);
    EXPECT_EQ(-61, out.signal_dbm);
    ASSERT_EQ(1U, kernel.sent.size());
    auto *request = reinterpret_cast<nlmsghdr *>(kernel.sent[0].data());
    nlattr *asked = nlmsg_find_attr(request, GENL_HDRLEN, NL80211_ATTR_MAC);
    ASSERT_TRUE(asked);
    EXPECT_EQ(0, memcmp(mac, nla_data(asked), 6));
    EXPECT_EQ(0, request->nlmsg_flags & NLM_F_DUMP);
}

TEST_F(Station, FiveHundredInOneBlock)
{
    for (int n = 0; n < 500; ++n) station(everything);
    kernel.end_dump();
    if (faults::can_refuse_memory) {
        seen.reserve(500);
        const faults::refuse_memory after_the_block(3); // the kernel here keeps the request, in two of its own
        EXPECT_EQ(500, walk());
        EXPECT_FALSE(after_the_block.happened());
        const faults::refuse_memory first(0);
        EXPECT_EQ(-ENOMEM, walk());
    } else {
        EXPECT_EQ(500, walk());
    }
}

TEST_F(Station, MessagesCutAnywhereAndNestedTooDeep)
{
    station(everything);
    kernel.end_dump();
    walk();
    fake_netlink::bytes whole;
    {
        nl_msg *m = nlmsg_alloc();
        genlmsg_put(m, 0, 0, fake_netlink::family(), 0, NLM_F_MULTI, NL80211_CMD_NEW_STATION, 1);
        nest(m, NL80211_ATTR_STA_INFO, everything);
        auto *header = reinterpret_cast<uint8_t *>(nlmsg_hdr(m));
        whole.assign(header, header + nlmsg_hdr(m)->nlmsg_len);
        nlmsg_free(m);
    }
    for (uint32_t size = sizeof(nlmsghdr); size < whole.size(); ++size) {
        fake_netlink::bytes cut(whole.begin(), whole.begin() + size);
        memcpy(cut.data(), &size, sizeof size);
        kernel.raw(cut);
        kernel.end_dump();
        ASSERT_EQ(size < NLMSG_HDRLEN + GENL_HDRLEN ? 0 : 1, walk()) << size;
        if (seen.empty()) continue;
        EXPECT_THAT(seen[0].connected_s, testing::AnyOf(7U, UINT32_MAX)) << size;
        EXPECT_THAT(seen[0].associated_ns, testing::AnyOf(5000000000U, UINT64_MAX)) << size;
    }
    std::function<void(nl_msg *, int)> deeper = [&](nl_msg *m, int depth) {
        if (depth < 200) nest(m, NL80211_STA_INFO_TX_BITRATE, [&](nl_msg *inner) { deeper(inner, depth + 1); });
    };
    station([&](nl_msg *m) { deeper(m, 0); });
    kernel.end_dump();
    EXPECT_EQ(1, walk());
    EXPECT_EQ(UINT32_MAX, seen[0].tx.kbps);
}

TEST_F(Station, CountsOfTwoPolls)
{
    const auto poll = [](uint64_t packets, uint64_t retries, uint64_t failed, uint32_t connected_s = 100,
                         uint64_t associated_ns = UINT64_MAX) {
        vela_sta_info info = {.connected_s = connected_s, .associated_ns = associated_ns};
        info.tx.kbps = 54000;
        info.counts.tx_packets = packets;
        info.counts.tx_retries = retries;
        info.counts.tx_failed = failed;
        return info;
    };
    constexpr uint64_t unknown = UINT64_MAX;
    const struct {
        const char *what;
        vela_sta_info before, now;
        int result;
        uint64_t tries, retries, drops;
    } cases[] = {
        {"differences", poll(10, 5, 1), poll(110, 25, 4), 0, 120, 20, 3},
        {"drops are tries", poll(0, 0, 0), poll(1, 1, 9), 0, 2, 1, 2},
        {"packets went back", poll(10, 0, 0), poll(9, 3, 1), 1, 12, 3, 1},
        {"failures went back", poll(10, 0, 5), poll(19, 3, 1), 1, 22, 3, 1},
        {"associated anew", poll(10, 0, 0, 100), poll(19, 3, 1, 99), 1, 22, 3, 1},
        {"the moment decides", poll(10, 0, 0, 100, 7), poll(19, 3, 1, 99, 7), 0, 12, 3, 1},
        {"another moment", poll(10, 0, 0, 100, 7), poll(19, 3, 1, 200, 8), 1, 22, 3, 1},
        {"retries are not counted", poll(10, unknown, 0), poll(20, unknown, 1), 0, 10, 0, 1},
        {"a broken driver", poll(0, 0, 0), poll(unknown - 1, unknown - 1, 0), 0, unknown, unknown - 1, 0},
    };
    for (const auto &c : cases) {
        vela_station s;
        vela_station_clear(&s);
        EXPECT_EQ(c.result, vela_sta_fill(&c.before, &c.now, &s)) << c.what;
        EXPECT_EQ(c.tries, s.tx_tries) << c.what;
        EXPECT_EQ(c.retries, s.tx_retries) << c.what;
        EXPECT_EQ(c.drops, s.tx_drops) << c.what;
    }
    vela_station s;
    vela_station_clear(&s);
    calc_sta_satisfaction(&s);
    EXPECT_EQ(100, s.satisfaction) << "a missing measurement is nothing bad";
    s.freq = 5180;
    s.dns_timeouts = 5;
    const vela_sta_info now = poll(10, 5, 1);
    EXPECT_EQ(1, vela_sta_fill(nullptr, &now, &s));
    EXPECT_EQ(54000U, s.tx_rate);
    EXPECT_EQ(-EINVAL, vela_sta_fill(nullptr, nullptr, &s));
    calc_sta_satisfaction(&s);
    const vela::json_ref object{vela_sta_json(&now, &s)};
    EXPECT_EQ("50", dumped(json_object_get(object.get(), "satisfaction")));
    EXPECT_EQ("\"sta_dns_timeout\"", dumped(json_object_get(object.get(), "satisfaction_reason")));
    EXPECT_EQ("[\"sta_dns_timeout\"]", dumped(json_object_get(object.get(), "anomalies")));
}

TEST_F(Station, InterfacesWithTheirNetworksAndLinks)
{
    kernel.reply(NL80211_CMD_NEW_INTERFACE, [](nl_msg *m) {
        nla_put_u32(m, NL80211_ATTR_IFINDEX, 4);
        nla_put_string(m, NL80211_ATTR_IFNAME, "wlan0");
        nla_put_u32(m, NL80211_ATTR_IFTYPE, NL80211_IFTYPE_AP);
        nla_put(m, NL80211_ATTR_MAC, 6, mac);
        nla_put(m, NL80211_ATTR_SSID, 5, "a\0b\xff\n");
        nla_put_u32(m, NL80211_ATTR_WIPHY, 0);
        nla_put_u32(m, NL80211_ATTR_WIPHY_FREQ, 5180);
        nla_put_u32(m, NL80211_ATTR_CHANNEL_WIDTH, NL80211_CHAN_WIDTH_80P80);
        nla_put_u32(m, NL80211_ATTR_WIPHY_TX_POWER_LEVEL, static_cast<uint32_t>(-100));
    });
    kernel.reply(NL80211_CMD_NEW_INTERFACE, [](nl_msg *m) {
        nla_put_string(m, NL80211_ATTR_IFNAME, "a name beyond its room");
        nla_put(m, NL80211_ATTR_SSID, 40, std::string(40, 's').c_str());
        nla_put_u32(m, NL80211_ATTR_IFTYPE, 99);
        nest(m, NL80211_ATTR_MLO_LINKS, [](nl_msg *links) {
            for (int id = 0; id < 5; ++id) {
                nest(links, id, [id](nl_msg *link) {
                    nla_put_u8(link, NL80211_ATTR_MLO_LINK_ID, static_cast<uint8_t>(id));
                    nla_put_u32(link, NL80211_ATTR_CHANNEL_WIDTH, NL80211_CHAN_WIDTH_320);
                });
            }
        });
    });
    kernel.end_dump();
    static std::vector<std::string> lines;
    static vela_wlan last;
    EXPECT_EQ(2, vela_wlan_foreach(
                     &service,
                     [](const vela_wlan *wlan, void *) {
                         last = *wlan;
                         lines.push_back(dumped(vela::json_ref{vela_wlan_json(wlan)}));
                         return 0;
                     },
                     nullptr));
    EXPECT_THAT(lines, ElementsAre(R"({"interface":"wlan0","mac":"02:00:00:00:03:00","mhz":5180,"mld":false,)"
                                   R"("mode":"ap","power_mbm":-100,"ssid":"a","width_mhz":160,"wiphy":0})",
                                   R"({"interface":"a name beyond i","links":[{"id":0,"width_mhz":320},)"
                                   R"({"id":1,"width_mhz":320},{"id":2,"width_mhz":320},{"id":3,"width_mhz":320}],)"
                                   R"("mld":true,"ssid":"ssssssssssssssssssssssssssssssss"})"));
    EXPECT_EQ(5U, last.link_count);
    EXPECT_EQ(32U, last.ssid_len);
}
