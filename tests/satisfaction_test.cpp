#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <vela/core/internal/json.h>
#include <vela/wireless/satisfaction.h>

using testing::ElementsAre;

TEST(Satisfaction, EveryAreaOnBothSidesOfItsEdges)
{
    struct {
        const char *what;
        int area, score;
        vela_station station;
    } cases[] = {
        {"2.4 GHz is never marked down", 1, 100, {.freq = 2437, .tx_rate = 1, .radio_health = 1}},
        {"between two points", 1, 92, {.freq = 5180, .tx_rate = 20000, .radio_health = 100}},
        {"below all points", 1, 0, {.freq = 5180, .tx_rate = 1000, .radio_health = 50}},
        {"30000 at 5000 MHz", 1, 100, {.freq = 5000, .tx_rate = 30000, .radio_health = 100}},
        {"30000 above", 1, 95, {.freq = 5001, .tx_rate = 30000, .radio_health = 100}},
        {"a product of 64 bits", 1, 100, {.freq = 5180, .tx_rate = 42949673, .radio_health = 100}},
        {"directions added", 3, 98, {.tcp_stats = {{.lat_samples = 1, .lat_avg = 60}, {.lat_avg = 70}}}},
        {"one not measured", 3, 100, {.tcp_stats = {{.lat_samples = 1, .lat_avg = 99}, {.lat_avg = UINT64_MAX}}}},
        {"the worst that counts", 3, 0, {.tcp_stats = {{}, {.lat_samples = 1, .lat_avg = 1614}}}},
        {"beyond", 3, -1, {.tcp_stats = {{}, {.lat_samples = 1, .lat_avg = 1615}}}},
        {"half retried", 4, 88, {.tx_tries = 100, .tx_retries = 50, .chip_code = 15}},
        {"half retried, other chip", 4, 100, {.tx_tries = 100, .tx_retries = 50, .chip_code = 17}},
        {"too few tries", 4, 100, {.tx_tries = 29, .tx_retries = 29, .chip_code = 16}},
        {"all retried", 4, 62, {.tx_tries = 30, .tx_retries = 30, .chip_code = 16}},
        {"no DHCP reply", 14, 0, {.dhcp_seen = 1}},
        {"replies add as numbers", 14, 100, {.dhcp_reply_a = 255, .dhcp_requests = 1, .dhcp_reply_b = 1}},
        {"requests answered", 14, 100, {.dhcp_requests = 1, .dhcp_replies = 1}},
        {"DNS time-outs, many", 10, 0, {.dns_timeouts = INT32_MAX}},
        {"DNS 800 ms", 11, 78, {.dns_latency = 800}},
        {"DNS beyond", 11, 60, {.dns_latency = 90000}},
        {"ICMP", 12, 99, {.icmp_rtt = 115}},
        {"ICMP for ever", 12, 0, {.icmp_rtt = INT32_MAX}},
        {"one disconnection is free", 13, 100, {.disconnects = 1}},
        {"twelve", 13, 0, {.disconnects = 12}},
        {"drops of 0.2 %", 15, 70, {.tx_tries = 1000, .tx_drops = 2, .chip_code = 15}},
        {"drops of 0.5 %, chip 24", 15, 100, {.tx_tries = 1000, .tx_drops = 5, .chip_code = 24}},
        // Shares that only single precision finds where they are.
        {"45 % retried", 4, 90, {.tx_tries = 100, .tx_retries = 45, .chip_code = 15}},
        {"drops at the threshold", 15, 70, {.tx_tries = 625, .tx_drops = 1, .chip_code = 15}},
        {"drops at the threshold, chip 24", 15, 70, {.tx_tries = 1000, .tx_drops = 6, .chip_code = 24}},
    };
    for (auto &[what, area, score, station] : cases) {
        calc_sta_satisfaction(&station);
        EXPECT_EQ(score, station.scores[area]) << what;
        EXPECT_EQ(score >= 0 && score < 80, (station.anomalies >> area & 1) == 1) << what;
    }
}

TEST(Satisfaction, TheLowestScoreDecidesAndOldBitsStay)
{
    vela_station s = {.has_ip = 1, .arp_ok = 1, .dns_latency = -1, .satisfaction_reason = 0x40};
    calc_sta_satisfaction(&s);
    EXPECT_EQ(100, s.satisfaction);
    EXPECT_EQ(0x40U, s.satisfaction_reason);
    EXPECT_THAT(s.scores, ElementsAre(-1, 100, -1, 100, 100, -1, -1, -1, 100, 100, 100, 100, 100, 100, 100, 100));

    s.arp_ok = 0;
    s.dns_timeouts = 10;
    s.anomalies = 1;
    calc_sta_satisfaction(&s);
    EXPECT_EQ(0, s.satisfaction);
    EXPECT_EQ(0x200U, s.satisfaction_reason) << "the earlier area";
    EXPECT_EQ(0x601U, s.anomalies);

    log_lines log;
    s = {.tx_tries = 7, .tx_retries = 8, .tx_drops = 9, .chip_code = 24};
    calc_sta_satisfaction(&s);
    EXPECT_EQ(0, s.scores[VELA_SAT_WIFI_RETRIES]);
    EXPECT_EQ(0, s.scores[VELA_SAT_WIFI_DROPS]);
    EXPECT_THAT(log.texts(), ElementsAre(testing::HasSubstr("retries=8 is bigger than total TX tries=7."),
                                         testing::HasSubstr("drops=9 is bigger than total TX tries=7.")));
}

TEST(Satisfaction, JsonWriters)
{
    const auto values = [](vela::json_ref object) { // one after the other
        std::string text;
        const char *key;
        json_t *value;
        json_object_foreach(object.get(), key, value) text += std::to_string(json_integer_value(value)) + ' ';
        return text;
    };
    int32_t scores[16];
    for (int i = 0; i < 16; ++i) scores[i] = i - 1;
    for (auto *write : {reasons_bar_chart_to_json, anomalies_bar_chart_to_json}) {
        EXPECT_EQ("-1 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 ", values(vela::json_ref{write(scores)}));
    }
    vela_tcp_stats tcp = {1, 2, 3, UINT32_MAX, 7, 5, 6, UINT64_MAX};
    EXPECT_EQ("1 2 3 4294967295 7 5 6 -1 ", values(vela::json_ref{tcp_stats_to_json(&tcp)}));
    tcp.lat_min = UINT32_MAX; // no sample: the longest is unknown too
    EXPECT_EQ("1 2 3 -1 -1 5 6 -1 ", values(vela::json_ref{tcp_stats_to_json(&tcp)}));
    const vela_wifi_tx_lat latency = {10, 2, 3, UINT32_MAX, -4};
    EXPECT_EQ("10 2 3 4294967295 -4 ", values(vela::json_ref{wifi_tx_lat_to_json(&latency)}));
}
