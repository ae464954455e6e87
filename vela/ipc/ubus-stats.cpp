#include <array>
#include <libubus.h>
#include <vela/core/internal/log.h>
#include <vela/ipc/ubus.h>

namespace
{

constexpr const char *log_module = "ubus_mgragent_stats";

struct field {
    const char *name;
    enum blobmsg_type type;
    uint32_t mgragent_ap_stats::*member;
    uint32_t when_absent;
};

constexpr std::array fields{
    field{"satisfaction", BLOBMSG_TYPE_INT32, &mgragent_ap_stats::satisfaction, UINT32_MAX},
    field{"num_satisfaction_sta", BLOBMSG_TYPE_INT32, &mgragent_ap_stats::num_satisfaction_sta, 0},
    field{"wifi_tx_lat_avg", BLOBMSG_TYPE_INT64, &mgragent_ap_stats::wifi_tx_lat_avg, 0},
    field{"rx_tcp_lat_avg", BLOBMSG_TYPE_INT64, &mgragent_ap_stats::rx_tcp_lat_avg, 0},
    field{"tx_tcp_lat_avg", BLOBMSG_TYPE_INT64, &mgragent_ap_stats::tx_tcp_lat_avg, 0},
    field{"client_signal_avg", BLOBMSG_TYPE_INT64, &mgragent_ap_stats::client_signal_avg, 0},
    field{"tx_rate_avg", BLOBMSG_TYPE_INT64, &mgragent_ap_stats::tx_rate_avg, 0},
    field{"rx_rate_avg", BLOBMSG_TYPE_INT64, &mgragent_ap_stats::rx_rate_avg, 0},
    field{"rxtx_tp_avg", BLOBMSG_TYPE_INT64, &mgragent_ap_stats::rxtx_tp_avg, 0},
    field{"phy_link_speed", BLOBMSG_TYPE_INT32, &mgragent_ap_stats::phy_link_speed, UINT32_MAX},
};

constexpr auto policy = [] {
    std::array<blobmsg_policy, fields.size()> entries{};
    for (size_t i = 0; i < fields.size(); ++i) entries[i] = {fields[i].name, fields[i].type};
    return entries;
}();

uint32_t number(blob_attr *value, const field &f)
{
    if (!value) return f.when_absent;
    if (f.type == BLOBMSG_TYPE_INT32) return blobmsg_get_u32(value);
    return static_cast<uint32_t>(blobmsg_get_u64(value)); // On purpose: the record keeps the low 32 bits.
}

} // namespace

int mgragent_stats_parse_ap_stats(mgragent_ap_stats *out, const struct blob_attr *msg)
{
    if (!out) {
        log_error("Satisfaction is NULL");
        return -1;
    }
    std::array<blob_attr *, fields.size()> found{};
    if (!msg || blobmsg_parse(policy.data(), policy.size(), found.data(), blob_data(msg),
                              static_cast<unsigned>(blob_len(msg))) != 0) {
        log_error("Failed to parse satisfaction");
        return -1;
    }
    for (size_t i = 0; i < fields.size(); ++i) out->*fields[i].member = number(found[i], fields[i]);
    return 0;
}
