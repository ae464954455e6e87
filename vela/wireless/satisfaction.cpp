// Station satisfaction: each area is scored by one small function, and record() puts the score into the station's
// record. The order of scoring decides which of two equally bad areas is named as the reason.

#include <algorithm>
#include <array>
#include <cinttypes>
#include <span>
#include <vela/core/internal/json.h>
#include <vela/core/internal/log.h>
#include <vela/wireless/satisfaction.h>

const char *const reasons_bar_chart_keys[VELA_SAT_AREAS] = {
    "signal",        "phy_rate",        "tcp_packet_loss",  "tcp_latency",     "wifi_retries",    "stream_eff",
    "sleepy_client", "wifi_latency",    "sta_ip_timeout",   "sta_arp_timeout", "sta_dns_timeout", "sta_dns_latency",
    "sta_icmp_rtt",  "sta_disconnects", "no_dhcp_response", "wifi_drops",
};

const char *const anomalies_bar_chart_keys[VELA_SAT_AREAS] = {
    "weak_signal",       "low_phy_rate",          "high_tcp_packet_loss", "high_tcp_latency",
    "high_wifi_retries", "poor_stream_eff",       "sleepy_client",        "high_wifi_latency",
    "sta_ip_timeout",    "sta_arp_timeout",       "sta_dns_timeout",      "high_dns_latency",
    "high_icmp_rtt",     "high_disconnect_count", "no_dhcp_response",     "high_wifi_drops",
};

const vela_drop_threshold sat_xretry_penalty_thrs[2] = {{24, 0.6F}, {15, 0.16F}};

namespace
{

constexpr const char *log_module = "satisfaction";

constexpr int32_t not_measured = -1;
constexpr int32_t best = 100;
constexpr int32_t anomaly_below = 80;
constexpr uint64_t no_average = UINT64_MAX;
constexpr uint32_t no_latency = UINT32_MAX;

constexpr std::array<uint32_t, 5> chips_that_count_retries{15, 16, 18, 19, 24};
constexpr uint64_t tries_that_mean_something = 30;

/// A straight line between two scores over a range of rates.
struct segment {
    float score_low, score_high, x_low, x_high;
};
constexpr segment segments_up_to_5000_mhz[]{
    {95, 100, 25000, 30000}, {90, 95, 15000, 25000}, {80, 90, 10000, 15000}, {60, 80, 1000, 10000}};
constexpr segment segments_above_5000_mhz[]{
    {95, 100, 25000, 150000}, {90, 95, 15000, 25000}, {80, 90, 10000, 15000}, {60, 80, 1000, 10000}};

int32_t interpolate(std::span<const segment> segments, float x)
{
    for (const auto &s : segments) {
        if (x < s.x_low || x > s.x_high) continue;
        const float t = (x - s.x_low) / (s.x_high - s.x_low);
        return static_cast<int32_t>(s.score_low * (1 - t) + s.score_high * t);
    }
    return 0;
}

// The rate counts in proportion to the radio's efficiency. Stations at 2.4 GHz are never marked down for their rate.
int32_t phy_rate_score(const vela_station &s)
{
    if (s.tx_rate == 0 || s.freq < 4800) return best;
    const uint64_t effective_rate = uint64_t{s.tx_rate} * s.radio_health / 100;
    const auto x = static_cast<float>(effective_rate);
    const std::span<const segment> segments = s.freq <= 5000 ? segments_up_to_5000_mhz : segments_above_5000_mhz;
    return x >= segments.front().x_high ? best : interpolate(segments, x);
}

// On purpose: the averages of the two directions are added, and a sum of 1615 ms and more falls below zero, which
// counts as not measured.
int32_t tcp_latency_score(const vela_station &s)
{
    uint64_t samples = 0;
    uint32_t average_ms = 0;
    for (const auto &direction : s.tcp_stats) {
        if (direction.lat_avg == no_average) continue;
        samples += direction.lat_samples;
        average_ms += static_cast<uint32_t>(direction.lat_avg);
    }
    if (samples == 0 || average_ms < 100) return best;
    return best - static_cast<int32_t>((average_ms - 100) / 15);
}

// Single precision in every step: a share of exactly a threshold then counts as reaching it. None of none is no number.
float percent_of(uint64_t part, uint64_t whole)
{
    return static_cast<float>(part) / static_cast<float>(whole) * 100.0F;
}

int32_t retry_score(const vela_station &s)
{
    if (std::find(chips_that_count_retries.begin(), chips_that_count_retries.end(), s.chip_code) ==
        chips_that_count_retries.end()) {
        return best;
    }
    if (s.tx_tries < s.tx_retries) {
        log_warn_as("calc_sta_retry_score",
                    "Client satisfaction computation error: TX data retries=%" PRIu64
                    " is bigger than total TX tries=%" PRIu64 ".",
                    s.tx_retries, s.tx_tries);
        return 0;
    }
    if (s.tx_tries < tries_that_mean_something) return best;
    const auto percent = static_cast<int32_t>(percent_of(s.tx_retries, s.tx_tries));
    return percent <= 25 ? best : best + 51 * (std::min(percent, 105) - 25) / -100;
}

int32_t dhcp_score(const vela_station &s)
{
    const bool asked = s.dhcp_seen != 0 || s.dhcp_requests > s.dhcp_replies;
    if (s.has_ip != 0 || !asked) return best;
    return s.dhcp_reply_a + s.dhcp_reply_b != 0 ? best : 0;
}

int32_t bounded(int64_t score) { return static_cast<int32_t>(std::clamp<int64_t>(score, 0, best)); }

int32_t dns_latency_score(const vela_station &s)
{
    if (s.dns_latency == -1) return best;
    return static_cast<int32_t>(100.0 - std::min(s.dns_latency, 1500) / 1500.0 * 40.0);
}

int32_t icmp_score(const vela_station &s) { return s.icmp_rtt <= 99 ? best : bounded(100 - (s.icmp_rtt - 100) / 15); }

// The first disconnection is free.
int32_t disconnect_score(const vela_station &s)
{
    return bounded(100 - 10 * std::max<int64_t>(int64_t{s.disconnects} - 1, 0));
}

int32_t drop_score(const vela_station &s)
{
    const auto *const row = std::find_if(std::begin(sat_xretry_penalty_thrs), std::end(sat_xretry_penalty_thrs),
                                         [&s](const auto &r) { return r.chip_code == s.chip_code; });
    if (row == std::end(sat_xretry_penalty_thrs)) return best;
    if (s.tx_drops > s.tx_tries) {
        log_warn_as("calc_sta_drop_score",
                    "Client satisfaction computation error: TX data drops=%" PRIu64
                    " is bigger than total TX tries=%" PRIu64 ".",
                    s.tx_drops, s.tx_tries);
        return 0;
    }
    return percent_of(s.tx_drops, s.tx_tries) >= row->percent ? 70 : best;
}

void record(vela_station &s, int area, int32_t score)
{
    const uint32_t bit = uint32_t{1} << area;
    const int32_t kept = score < 0 ? not_measured : std::min(score, best);
    s.scores[area] = kept;
    if (score < 0) return;

    if (s.satisfaction == not_measured) {
        s.satisfaction = kept;
        if (kept < best) s.satisfaction_reason = bit;
    } else if (kept < s.satisfaction) {
        s.satisfaction = kept;
        s.satisfaction_reason = bit;
    }
    if (kept < anomaly_below) s.anomalies |= bit;
}

bool set(const vela::json_ref &object, const char *key, json_int_t value)
{
    return json_object_set_new(object.get(), key, json_integer(value)) == 0;
}

json_t *chart(const char *const *keys, const int32_t *scores)
{
    vela::json_ref object{json_object()};
    if (!object) return nullptr;
    for (int area = 0; area < VELA_SAT_AREAS; ++area) {
        if (!set(object, keys[area], scores[area])) return nullptr;
    }
    return object.release();
}

} // namespace

int calc_sta_satisfaction(vela_station *station)
{
    vela_station &s = *station;
    s.satisfaction = not_measured;
    std::fill(std::begin(s.scores), std::end(s.scores), not_measured);

    record(s, VELA_SAT_PHY_RATE, phy_rate_score(s));
    record(s, VELA_SAT_TCP_LATENCY, tcp_latency_score(s));
    record(s, VELA_SAT_WIFI_RETRIES, retry_score(s));
    record(s, VELA_SAT_IP_TIMEOUT, s.has_ip != 0 ? best : 0);
    record(s, VELA_SAT_NO_DHCP_RESPONSE, dhcp_score(s));
    record(s, VELA_SAT_ARP_TIMEOUT, s.arp_ok != 0 ? best : 0);
    record(s, VELA_SAT_DNS_TIMEOUT, bounded(100 - 10 * int64_t{s.dns_timeouts}));
    record(s, VELA_SAT_DNS_LATENCY, dns_latency_score(s));
    record(s, VELA_SAT_ICMP_RTT, icmp_score(s));
    record(s, VELA_SAT_DISCONNECTS, disconnect_score(s));
    record(s, VELA_SAT_WIFI_DROPS, drop_score(s));
    return 0;
}

json_t *reasons_bar_chart_to_json(const int32_t *scores) { return chart(reasons_bar_chart_keys, scores); }

json_t *anomalies_bar_chart_to_json(const int32_t *scores) { return chart(anomalies_bar_chart_keys, scores); }

json_t *tcp_stats_to_json(const vela_tcp_stats *tcp_stats)
{
    const vela_tcp_stats &t = *tcp_stats;
    vela::json_ref object{json_object()};
    const bool complete = object && set(object, "goodbytes", static_cast<json_int_t>(t.goodbytes)) &&
                          set(object, "stalls", t.stalls) && set(object, "retries", t.retries) &&
                          set(object, "lat_max", t.lat_min == no_latency ? -1 : static_cast<json_int_t>(t.lat_max)) &&
                          set(object, "lat_min", static_cast<int32_t>(t.lat_min)) &&
                          set(object, "lat_sum", static_cast<json_int_t>(t.lat_sum)) &&
                          set(object, "lat_samples", static_cast<json_int_t>(t.lat_samples)) &&
                          set(object, "lat_avg", static_cast<json_int_t>(t.lat_avg));
    return complete ? object.release() : nullptr;
}

json_t *wifi_tx_lat_to_json(const vela_wifi_tx_lat *lat)
{
    vela::json_ref object{json_object()};
    const bool complete = object && set(object, "total", static_cast<json_int_t>(lat->total)) &&
                          set(object, "total_count", static_cast<json_int_t>(lat->total_count)) &&
                          set(object, "min", lat->min) && set(object, "max", lat->max) && set(object, "avg", lat->avg);
    return complete ? object.release() : nullptr;
}
