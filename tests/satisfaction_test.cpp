#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <vela/wireless/satisfaction.h>

using testing::ElementsAre;

namespace
{

/// A station about which nothing bad is known.
vela_station content()
{
    vela_station s = {};
    for (auto &direction : s.tcp_stats) direction.lat_avg = UINT64_MAX;
    s.has_ip = s.arp_ok = 1;
    s.dns_latency = -1;
    return s;
}

template <class Change> vela_station scored(Change change)
{
    vela_station s = content();
    change(s);
    calc_sta_satisfaction(&s);
    return s;
}

} // namespace

TEST(Satisfaction, NothingBadIsAHundredWithoutAReason)
{
    const vela_station s = scored([](vela_station &) {});
    EXPECT_EQ(100, s.satisfaction);
    EXPECT_EQ(0U, s.satisfaction_reason);
    EXPECT_EQ(0U, s.anomalies);
    EXPECT_THAT(s.scores, ElementsAre(-1, 100, -1, 100, 100, -1, -1, -1, 100, 100, 100, 100, 100, 100, 100, 100));
}

TEST(Satisfaction, EveryAreaOnBothSidesOfItsEdges)
{
    struct {
        const char *what;
        int area, score;
        std::function<void(vela_station &)> change;
    } const cases[] = {
        {"2.4 GHz is never marked down", 1, 100, [](auto &s) { s.freq = 2437, s.tx_rate = 1, s.radio_health = 1; }},
        {"no rate", 1, 100, [](auto &s) { s.freq = 5180; }},
        {"x 20000", 1, 92, [](auto &s) { s.freq = 5180, s.tx_rate = 20000, s.radio_health = 100; }},
        {"x 500", 1, 0, [](auto &s) { s.freq = 5180, s.tx_rate = 1000, s.radio_health = 50; }},
        {"x 30000 at 4.9 GHz", 1, 100, [](auto &s) { s.freq = 5000, s.tx_rate = 30000, s.radio_health = 100; }},
        {"x 30000 at 5 GHz", 1, 95, [](auto &s) { s.freq = 5001, s.tx_rate = 30000, s.radio_health = 100; }},
        {"x in 64 bits", 1, 100, [](auto &s) { s.freq = 5180, s.tx_rate = UINT32_MAX, s.radio_health = 100; }},
        {"directions added", 3, 98,
         [](auto &s) {
             s.tcp_stats[0].lat_avg = 60, s.tcp_stats[0].lat_samples = 1;
             s.tcp_stats[1].lat_avg = 70, s.tcp_stats[1].lat_samples = 1;
         }},
        {"sum of 99", 3, 100, [](auto &s) { s.tcp_stats[1].lat_avg = 99, s.tcp_stats[1].lat_samples = 1; }},
        {"sum of 1614", 3, 0, [](auto &s) { s.tcp_stats[0].lat_avg = 1614, s.tcp_stats[0].lat_samples = 1; }},
        {"sum of 1615", 3, -1, [](auto &s) { s.tcp_stats[0].lat_avg = 1615, s.tcp_stats[0].lat_samples = 1; }},
        {"half retried", 4, 88, [](auto &s) { s.chip_code = 15, s.tx_tries = 100, s.tx_retries = 50; }},
        {"half retried, other chip", 4, 100, [](auto &s) { s.chip_code = 17, s.tx_tries = 100, s.tx_retries = 50; }},
        {"too few tries", 4, 100, [](auto &s) { s.chip_code = 16, s.tx_tries = 29, s.tx_retries = 29; }},
        {"all retried", 4, 62, [](auto &s) { s.chip_code = 16, s.tx_tries = 30, s.tx_retries = 30; }},
        {"no address", 8, 0, [](auto &s) { s.has_ip = 0; }},
        {"no ARP", 9, 0, [](auto &s) { s.arp_ok = 0; }},
        {"no DHCP reply", 14, 0, [](auto &s) { s.has_ip = 0, s.dhcp_seen = 1; }},
        {"replies add as numbers", 14, 100,
         [](auto &s) { s.has_ip = 0, s.dhcp_requests = 1, s.dhcp_reply_a = 255, s.dhcp_reply_b = 1; }},
        {"requests answered", 14, 100, [](auto &s) { s.has_ip = 0, s.dhcp_requests = 1, s.dhcp_replies = 1; }},
        {"DNS time-outs", 10, 70, [](auto &s) { s.dns_timeouts = 3; }},
        {"DNS time-outs, many", 10, 0, [](auto &s) { s.dns_timeouts = INT32_MAX; }},
        {"DNS 750 ms", 11, 80, [](auto &s) { s.dns_latency = 750; }},
        {"DNS 800 ms", 11, 78, [](auto &s) { s.dns_latency = 800; }},
        {"DNS beyond", 11, 60, [](auto &s) { s.dns_latency = 90000; }},
        {"ICMP 115", 12, 99, [](auto &s) { s.icmp_rtt = 115; }},
        {"ICMP for ever", 12, 0, [](auto &s) { s.icmp_rtt = INT32_MAX; }},
        {"one disconnection", 13, 100, [](auto &s) { s.disconnects = 1; }},
        {"three", 13, 80, [](auto &s) { s.disconnects = 3; }},
        {"twelve", 13, 0, [](auto &s) { s.disconnects = 12; }},
        {"drops 0.2 %", 15, 70, [](auto &s) { s.chip_code = 15, s.tx_tries = 1000, s.tx_drops = 2; }},
        {"drops 0.5 %, chip 24", 15, 100, [](auto &s) { s.chip_code = 24, s.tx_tries = 1000, s.tx_drops = 5; }},
    };
    for (const auto &c : cases) {
        const vela_station s = scored(c.change);
        EXPECT_EQ(c.score, s.scores[c.area]) << c.what;
        EXPECT_EQ(c.score >= 0 && c.score < 80, (s.anomalies >> c.area & 1) == 1) << c.what;
    }
}

TEST(Satisfaction, TiesKeepTheEarlierAreaAndOldBitsStay)
{
    const vela_station s = scored([](vela_station &station) {
        station.arp_ok = 0;
        station.dns_timeouts = 10;
        station.anomalies = 1;
        station.satisfaction_reason = 0x40;
    });
    EXPECT_EQ(0, s.satisfaction);
    EXPECT_EQ(0x200U, s.satisfaction_reason);
    EXPECT_EQ(0x601U, s.anomalies);
}

TEST(Satisfaction, CountersThatContradictEachOtherAreSaid)
{
    log_lines log;
    const vela_station s =
        scored([](vela_station &station) { station.chip_code = 24, station.tx_retries = 8, station.tx_drops = 9; });
    EXPECT_EQ(0, s.scores[4]);
    EXPECT_EQ(0, s.scores[15]);
    const std::string start = "Client satisfaction computation error: TX data ";
    EXPECT_THAT(log.take(), ElementsAre(log_line{"warn", "satisfaction", "calc_sta_retry_score",
                                                 start + "retries=8 is bigger than total TX tries=0."},
                                        log_line{"warn", "satisfaction", "calc_sta_drop_score",
                                                 start + "drops=9 is bigger than total TX tries=0."}));
}

TEST(Satisfaction, JsonWriters)
{
    int32_t scores[16];
    for (int i = 0; i < 16; ++i) scores[i] = i - 1;
    for (auto *chart : {reasons_bar_chart_to_json(scores), anomalies_bar_chart_to_json(scores)}) {
        EXPECT_EQ(16U, json_object_size(chart));
        EXPECT_EQ(14, json_integer_value(json_object_get(
                          chart, json_object_get(chart, "wifi_drops") ? "wifi_drops" : "high_wifi_drops")));
        json_decref(chart);
    }

    const auto text = [](json_t *object) {
        char *dumped = json_dumps(object, JSON_COMPACT);
        const std::string result = dumped;
        free(dumped);
        json_decref(object);
        return result;
    };
    const vela_tcp_stats unset = {1, 2, 3, 4, UINT32_MAX, 5, 6, UINT64_MAX};
    EXPECT_EQ(
        R"({"goodbytes":1,"stalls":2,"retries":3,"lat_max":-1,"lat_min":-1,"lat_sum":5,"lat_samples":6,"lat_avg":-1})",
        text(tcp_stats_to_json(&unset)));
    const vela_tcp_stats set = {1, 2, 3, UINT32_MAX, 7, 5, 6, 8};
    EXPECT_THAT(text(tcp_stats_to_json(&set)), testing::HasSubstr(R"("lat_max":4294967295,"lat_min":7)"));
    const vela_wifi_tx_lat latency = {10, 2, 3, UINT32_MAX, -4};
    EXPECT_EQ(R"({"total":10,"total_count":2,"min":3,"max":4294967295,"avg":-4})", text(wifi_tx_lat_to_json(&latency)));
}
