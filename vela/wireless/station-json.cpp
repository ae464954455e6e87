// A station as JSON.

#include <algorithm>
#include <bit>
#include <cerrno>
#include <vela/core/internal/record_json.h>
#include <vela/wireless/station.h>

namespace
{

using vela::json_ref;
using vela::put_json;
using vela::shown;
using vela::unknown;

constexpr const char *mode_names[] = {nullptr, "legacy", "ht", "vht", "he", "eht"};
static_assert(std::size(mode_names) == VELA_RATE_EHT + 1);
const char *mode_name(uint32_t mode) { return mode < std::size(mode_names) ? mode_names[mode] : nullptr; }

constexpr vela::json_row rate_rows[] = {
    {"kbps", VELA_MEMBER(vela_sta_rate, kbps), shown::number, unknown::ones},
    {"mode", VELA_MEMBER(vela_sta_rate, mode), shown::word, unknown::zero, mode_name},
    {"mcs", VELA_MEMBER(vela_sta_rate, mcs), shown::number, unknown::ones},
    {"nss", VELA_MEMBER(vela_sta_rate, nss), shown::number, unknown::ones},
    {"width_mhz", VELA_MEMBER(vela_sta_rate, width_mhz), shown::number, unknown::ones},
    {"gi_ns", VELA_MEMBER(vela_sta_rate, gi_ns), shown::number, unknown::ones},
};
constexpr vela::json_row count_rows[] = {
    {"rx_bytes", VELA_MEMBER(vela_sta_counts, rx_bytes), shown::number, unknown::ones},
    {"tx_bytes", VELA_MEMBER(vela_sta_counts, tx_bytes), shown::number, unknown::ones},
    {"rx_packets", VELA_MEMBER(vela_sta_counts, rx_packets), shown::number, unknown::ones},
    {"tx_packets", VELA_MEMBER(vela_sta_counts, tx_packets), shown::number, unknown::ones},
    {"tx_retries", VELA_MEMBER(vela_sta_counts, tx_retries), shown::number, unknown::ones},
    {"tx_failed", VELA_MEMBER(vela_sta_counts, tx_failed), shown::number, unknown::ones},
    {"rx_dropped", VELA_MEMBER(vela_sta_counts, rx_dropped), shown::number, unknown::ones},
    {"rx_us", VELA_MEMBER(vela_sta_counts, rx_us), shown::number, unknown::ones},
    {"tx_us", VELA_MEMBER(vela_sta_counts, tx_us), shown::number, unknown::ones},
};
constexpr vela::json_row station_rows[] = {
    {"mac", VELA_MEMBER(vela_sta_info, mac), shown::mac, unknown::zero},
    {"interface", VELA_MEMBER(vela_sta_info, ifname), shown::text, unknown::zero},
    {"mld", VELA_MEMBER(vela_sta_info, flags), shown::bit, unknown::never, nullptr, VELA_STA_MLD},
    {"authorized", VELA_MEMBER(vela_sta_info, flags), shown::bit, unknown::never, nullptr, VELA_STA_AUTHORIZED},
    {"mfp", VELA_MEMBER(vela_sta_info, flags), shown::bit, unknown::never, nullptr, VELA_STA_MFP},
    {"signal_dbm", VELA_MEMBER(vela_sta_info, signal_dbm), shown::number, unknown::lowest},
    {"signal_avg_dbm", VELA_MEMBER(vela_sta_info, signal_avg_dbm), shown::number, unknown::lowest},
    {"ack_signal_dbm", VELA_MEMBER(vela_sta_info, ack_signal_dbm), shown::number, unknown::lowest},
    {"chains_dbm", VELA_MEMBER(vela_sta_info, chain_dbm), shown::number, unknown::lowest},
    {"connected_s", VELA_MEMBER(vela_sta_info, connected_s), shown::number, unknown::ones},
    {"inactive_ms", VELA_MEMBER(vela_sta_info, inactive_ms), shown::number, unknown::ones},
    {"expected_kbps", VELA_MEMBER(vela_sta_info, expected_kbps), shown::number, unknown::ones},
    {"airtime_weight", VELA_MEMBER(vela_sta_info, airtime_weight), shown::number, unknown::ones},
};
constexpr vela::json_row link_rows[] = {
    {"id", VELA_MEMBER(vela_sta_link, id), shown::number, unknown::ones},
    {"mac", VELA_MEMBER(vela_sta_link, mac), shown::mac, unknown::zero},
    {"signal_dbm", VELA_MEMBER(vela_sta_link, signal_dbm), shown::number, unknown::lowest},
    {"signal_avg_dbm", VELA_MEMBER(vela_sta_link, signal_avg_dbm), shown::number, unknown::lowest},
    {"inactive_ms", VELA_MEMBER(vela_sta_link, inactive_ms), shown::number, unknown::ones},
};

/// Sets an object as a member, unless it is empty.
bool put_object(json_t *object, const char *key, json_ref value)
{
    return value && (json_object_size(value.get()) == 0 || put_json(object, key, std::move(value)));
}

/// What a station and a link of it have in common.
template <class Record> bool put_traffic(json_t *object, const Record &record)
{
    return put_object(object, "tx", record_json(rate_rows, record.tx)) &&
           put_object(object, "rx", record_json(rate_rows, record.rx)) &&
           put_object(object, "counters", record_json(count_rows, record.counts));
}

bool put_links(json_t *object, const vela_sta_info &info)
{
    const size_t count = std::min(size_t{info.link_count}, std::size(info.links));
    if (count == 0) return true;
    json_ref array{json_array()};
    for (const auto &link : std::span{info.links, count}) {
        json_ref one = vela::record_json(link_rows, link);
        if (!one || !put_traffic(one.get(), link)) return false;
        if (json_array_append_new(array.get(), one.release()) != 0) return false;
    }
    return put_json(object, "links", std::move(array));
}

bool put_score(json_t *object, const vela_station &s)
{
    if (s.satisfaction < 0) return true; // nothing was measured
    constexpr uint32_t areas = (1U << VELA_SAT_AREAS) - 1;
    const uint32_t reason = s.satisfaction < 100 ? s.satisfaction_reason & areas : 0;
    json_ref anomalies{json_array()};
    for (uint32_t left = s.anomalies & areas; left != 0; left &= left - 1) {
        const char *name = anomalies_bar_chart_keys[std::countr_zero(left)];
        if (json_array_append_new(anomalies.get(), json_string(name)) != 0) return false;
    }
    return put_json(object, "satisfaction", json_ref{json_integer(s.satisfaction)}) &&
           (reason == 0 || put_json(object, "satisfaction_reason",
                                    json_ref{json_string(reasons_bar_chart_keys[std::countr_zero(reason)])})) &&
           put_json(object, "anomalies", std::move(anomalies));
}

} // namespace

json_t *vela_sta_json(const vela_sta_info *info, const vela_station *scored)
{
    if (!info) {
        errno = EINVAL;
        return nullptr;
    }
    json_ref object = vela::record_json(station_rows, *info);
    const bool whole = object && put_traffic(object.get(), *info) && put_links(object.get(), *info) &&
                       (!scored || put_score(object.get(), *scored));
    if (whole) return object.release();
    errno = ENOMEM;
    return nullptr;
}
