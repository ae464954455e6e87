// Stations as nl80211 tells them, and what of that their score is made of.

#include <algorithm>
#include <cerrno>
#include <vela/wireless/internal/nl80211_answer.h>
#include <vela/wireless/internal/nl80211_records.h>
#include <vela/wireless/station.h>

static_assert(sizeof(vela_sta_rate) == 12 && sizeof(vela_sta_counts) == 72);
static_assert(sizeof(vela_sta_link) == 120 && sizeof(vela_sta_info) == 688);

namespace
{

constexpr uint8_t absent8 = UINT8_MAX;
constexpr uint16_t absent16 = UINT16_MAX;
constexpr uint32_t absent = UINT32_MAX;
constexpr uint64_t absent64 = UINT64_MAX;

} // namespace

namespace vela::nl80211
{
namespace
{

constexpr vela_sta_rate no_rate = {absent, absent16, absent16, 0, absent8, absent8, absent8};
constexpr vela_sta_counts no_counts = {absent64, absent64, absent64, absent64, absent64,
                                       absent64, absent64, absent64, absent64};
constexpr vela_sta_link no_link = {absent, absent, {}, INT32_MIN, INT32_MIN, no_rate, no_rate, no_counts};
constexpr vela_sta_info nothing = {.connected_s = absent,
                                   .inactive_ms = absent,
                                   .associated_ns = absent64,
                                   .signal_dbm = INT32_MIN,
                                   .signal_avg_dbm = INT32_MIN,
                                   .ack_signal_dbm = INT32_MIN,
                                   .chain_dbm = {INT8_MIN, INT8_MIN, INT8_MIN, INT8_MIN},
                                   .tx = no_rate,
                                   .rx = no_rate,
                                   .expected_kbps = absent,
                                   .airtime_weight = absent,
                                   .counts = no_counts,
                                   .assoc_link = INT32_MIN,
                                   .links = {no_link, no_link, no_link, no_link}};

constexpr bool yields = true;
constexpr number_row count_numbers[] = {
    {NL80211_STA_INFO_RX_BYTES64, VELA_MEMBER(vela_sta_counts, rx_bytes)},
    {NL80211_STA_INFO_TX_BYTES64, VELA_MEMBER(vela_sta_counts, tx_bytes)},
    {NL80211_STA_INFO_RX_BYTES, VELA_MEMBER(vela_sta_counts, rx_bytes), yields},
    {NL80211_STA_INFO_TX_BYTES, VELA_MEMBER(vela_sta_counts, tx_bytes), yields},
    {NL80211_STA_INFO_RX_PACKETS, VELA_MEMBER(vela_sta_counts, rx_packets)},
    {NL80211_STA_INFO_TX_PACKETS, VELA_MEMBER(vela_sta_counts, tx_packets)},
    {NL80211_STA_INFO_TX_RETRIES, VELA_MEMBER(vela_sta_counts, tx_retries)},
    {NL80211_STA_INFO_TX_FAILED, VELA_MEMBER(vela_sta_counts, tx_failed)},
    {NL80211_STA_INFO_RX_DROP_MISC, VELA_MEMBER(vela_sta_counts, rx_dropped)},
    {NL80211_STA_INFO_RX_DURATION, VELA_MEMBER(vela_sta_counts, rx_us)},
    {NL80211_STA_INFO_TX_DURATION, VELA_MEMBER(vela_sta_counts, tx_us)},
};
constexpr number_row station_numbers[] = {
    {NL80211_STA_INFO_INACTIVE_TIME, VELA_MEMBER(vela_sta_info, inactive_ms)},
    {NL80211_STA_INFO_CONNECTED_TIME, VELA_MEMBER(vela_sta_info, connected_s)},
    {NL80211_STA_INFO_ASSOC_AT_BOOTTIME, VELA_MEMBER(vela_sta_info, associated_ns)},
    {NL80211_STA_INFO_SIGNAL, VELA_MEMBER(vela_sta_info, signal_dbm)},
    {NL80211_STA_INFO_SIGNAL_AVG, VELA_MEMBER(vela_sta_info, signal_avg_dbm)},
    {NL80211_STA_INFO_ACK_SIGNAL, VELA_MEMBER(vela_sta_info, ack_signal_dbm)},
    {NL80211_STA_INFO_EXPECTED_THROUGHPUT, VELA_MEMBER(vela_sta_info, expected_kbps)},
    {NL80211_STA_INFO_AIRTIME_WEIGHT, VELA_MEMBER(vela_sta_info, airtime_weight)},
};
constexpr number_row link_numbers[] = {
    {NL80211_STA_INFO_INACTIVE_TIME, VELA_MEMBER(vela_sta_link, inactive_ms)},
    {NL80211_STA_INFO_SIGNAL, VELA_MEMBER(vela_sta_link, signal_dbm)},
    {NL80211_STA_INFO_SIGNAL_AVG, VELA_MEMBER(vela_sta_link, signal_avg_dbm)},
};

constexpr struct {
    uint16_t attribute, mhz;
} rate_widths[] = {
    {NL80211_RATE_INFO_5_MHZ_WIDTH, 5},     {NL80211_RATE_INFO_10_MHZ_WIDTH, 10},
    {NL80211_RATE_INFO_40_MHZ_WIDTH, 40},   {NL80211_RATE_INFO_80_MHZ_WIDTH, 80},
    {NL80211_RATE_INFO_160_MHZ_WIDTH, 160}, {NL80211_RATE_INFO_80P80_MHZ_WIDTH, 160},
    {NL80211_RATE_INFO_320_MHZ_WIDTH, 320},
};
constexpr uint16_t width_without_attribute = 20;

/// The attributes by which each kind of rate shows itself. A guard interval counts from 800 ns, doubling.
constexpr struct {
    uint16_t mcs, nss, gi;
    uint8_t mode;
} rate_kinds[] = {
    {NL80211_RATE_INFO_MCS, 0, 0, VELA_RATE_HT},
    {NL80211_RATE_INFO_VHT_MCS, NL80211_RATE_INFO_VHT_NSS, 0, VELA_RATE_VHT},
    {NL80211_RATE_INFO_HE_MCS, NL80211_RATE_INFO_HE_NSS, NL80211_RATE_INFO_HE_GI, VELA_RATE_HE},
    {NL80211_RATE_INFO_EHT_MCS, NL80211_RATE_INFO_EHT_NSS, NL80211_RATE_INFO_EHT_GI, VELA_RATE_EHT},
};
constexpr uint8_t ht_mcs_per_stream = 8;
constexpr uint16_t normal_gi_ns = 800, short_gi_ns = 400, longest_gi = 2;

constexpr struct {
    uint32_t nl80211_flag, ours;
} flags[] = {
    {NL80211_STA_FLAG_AUTHENTICATED, VELA_STA_AUTHENTICATED},
    {NL80211_STA_FLAG_ASSOCIATED, VELA_STA_ASSOCIATED},
    {NL80211_STA_FLAG_AUTHORIZED, VELA_STA_AUTHORIZED},
    {NL80211_STA_FLAG_WME, VELA_STA_WME},
    {NL80211_STA_FLAG_MFP, VELA_STA_MFP},
};

uint32_t read_flags(const raw_netlink::attribute &a)
{
    const auto told = a.as<nl80211_sta_flag_update>();
    uint32_t ours = 0;
    for (const auto &f : flags) {
        if (told && told->mask & told->set & 1U << f.nl80211_flag) ours |= f.ours;
    }
    return ours;
}

void read_bitrate(uint64_t hundreds_of_kbps, vela_sta_rate &rate)
{
    if (hundreds_of_kbps < absent / 100) rate.kbps = static_cast<uint32_t>(hundreds_of_kbps * 100);
}

void read_rate_attribute(const raw_netlink::attribute &a, vela_sta_rate &rate)
{
    const auto byte = a.as<uint8_t>();
    for (const auto &width : rate_widths) {
        if (a.type == width.attribute) rate.width_mhz = width.mhz;
    }
    for (const auto &kind : rate_kinds) {
        if (!byte) break;
        if (a.type == kind.mcs) {
            rate.mode = kind.mode;
            rate.mcs = *byte;
        }
        if (a.type == kind.nss) rate.nss = *byte;
        if (a.type == kind.gi && *byte <= longest_gi) rate.gi_ns = static_cast<uint16_t>(normal_gi_ns << *byte);
    }
    if (a.type == NL80211_RATE_INFO_HE_DCM && byte) rate.dcm = *byte;
    if (a.type == NL80211_RATE_INFO_SHORT_GI) rate.gi_ns = short_gi_ns;
    if (a.type == NL80211_RATE_INFO_BITRATE32 && a.as<uint32_t>()) read_bitrate(*a.as<uint32_t>(), rate);
    if (a.type == NL80211_RATE_INFO_BITRATE && rate.kbps == absent && a.as<uint16_t>()) {
        read_bitrate(*a.as<uint16_t>(), rate);
    }
}

vela_sta_rate read_rate(const raw_netlink::attribute &outer)
{
    vela_sta_rate rate = no_rate;
    rate.width_mhz = width_without_attribute;
    auto walk = raw_netlink::attributes::inside(outer);
    while (const auto a = walk.next()) read_rate_attribute(*a, rate);
    if (rate.mode == 0 && rate.kbps == absent) return no_rate;
    if (rate.mode == 0) rate.mode = VELA_RATE_LEGACY;
    if (rate.mode == VELA_RATE_HT) rate.nss = static_cast<uint8_t>(rate.mcs / ht_mcs_per_stream + 1);
    if (rate.mode == VELA_RATE_HT || rate.mode == VELA_RATE_VHT) rate.gi_ns = std::min(rate.gi_ns, normal_gi_ns);
    return rate;
}

void read_chains(const raw_netlink::attribute &outer, int8_t (&chains)[4])
{
    auto walk = raw_netlink::attributes::inside(outer);
    while (const auto a = walk.next()) {
        if (a->type < std::size(chains) && a->as<int8_t>()) chains[a->type] = *a->as<int8_t>();
    }
}

/// What a station and a link of it have in common.
template <class Record>
void read_info(const raw_netlink::attribute &outer, Record &record, std::span<const number_row> numbers,
               void (*read_more)(const raw_netlink::attribute &, Record &))
{
    auto walk = raw_netlink::attributes::inside(outer);
    while (const auto a = walk.next()) {
        if (a->type == NL80211_STA_INFO_TX_BITRATE) record.tx = read_rate(*a);
        if (a->type == NL80211_STA_INFO_RX_BITRATE) record.rx = read_rate(*a);
        if (!store(numbers, *a, &record) && !store(count_numbers, *a, &record.counts)) read_more(*a, record);
    }
}

void read_more_of_station(const raw_netlink::attribute &a, vela_sta_info &info)
{
    if (a.type == NL80211_STA_INFO_STA_FLAGS) info.flags |= read_flags(a);
    if (a.type == NL80211_STA_INFO_CHAIN_SIGNAL) read_chains(a, info.chain_dbm);
}

void read_link(const raw_netlink::attribute &outer, vela_sta_link &link)
{
    auto walk = raw_netlink::attributes::inside(outer);
    while (const auto a = walk.next()) {
        if (a->type == NL80211_ATTR_MLO_LINK_ID && a->as<uint8_t>()) link.id = *a->as<uint8_t>();
        if (a->type == NL80211_ATTR_MAC) store_mac(*a, link.mac);
        if (a->type != NL80211_ATTR_STA_INFO) continue;
        read_info<vela_sta_link>(*a, link, link_numbers, [](const raw_netlink::attribute &, vela_sta_link &) {});
    }
}

bool is_zero(const uint8_t (&mac)[6])
{
    return std::ranges::all_of(mac, [](uint8_t byte) { return byte == 0; });
}

} // namespace

vela_sta_info read_station(bytes message)
{
    vela_sta_info info = nothing;
    uint8_t mld[6] = {}; // zeros for a station of one link
    raw_netlink::attributes walk{message};
    while (const auto a = walk.next()) {
        switch (a->type) {
        case NL80211_ATTR_IFINDEX: info.index = a->as<uint32_t>().value_or(0); break;
        case NL80211_ATTR_MAC: store_mac(*a, info.mac); break;
        case NL80211_ATTR_MLD_ADDR: store_mac(*a, mld); break;
        case NL80211_ATTR_MLO_LINK_ID:
            if (a->as<uint8_t>()) info.assoc_link = *a->as<uint8_t>();
            break;
        case NL80211_ATTR_MLO_LINKS: info.link_count = read_list(*a, info.links, read_link); break;
        case NL80211_ATTR_STA_INFO: read_info(*a, info, station_numbers, read_more_of_station); break;
        default: break;
        }
    }
    if (!is_zero(mld)) memcpy(info.mac, mld, sizeof mld);
    if (!is_zero(mld) || info.link_count != 0) info.flags |= VELA_STA_MLD;
    return info;
}

} // namespace vela::nl80211

namespace
{

using namespace vela::nl80211;
using vela::raw_netlink::how_much;

/// The sum, or the most that can be: counters of a broken driver may be anything.
uint64_t saturating_sum(uint64_t a, uint64_t b)
{
    uint64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? UINT64_MAX : sum;
}

/// What a poll tells of the transmit counters since another one, or since the association.
class transmitted
{
public:
    transmitted(const vela_sta_info *before, const vela_sta_info &now)
        : now_{now.counts}, before_{before && continues(*before, now) ? &before->counts : nullptr}
    {
    }
    [[nodiscard]] bool since_association() const { return !before_; }
    [[nodiscard]] uint64_t of(uint64_t vela_sta_counts::*counter) const
    {
        if (now_.*counter == absent64 || (before_ && before_->*counter == absent64)) return 0;
        return before_ ? now_.*counter - before_->*counter : now_.*counter;
    }

private:
    static bool same_association(const vela_sta_info &before, const vela_sta_info &now)
    {
        if (memcmp(before.mac, now.mac, sizeof now.mac) != 0) return false;
        if (before.associated_ns != absent64 && now.associated_ns != absent64) {
            return before.associated_ns == now.associated_ns;
        }
        return before.connected_s == absent || now.connected_s >= before.connected_s;
    }
    static bool continues(const vela_sta_info &before, const vela_sta_info &now)
    {
        constexpr uint64_t vela_sta_counts::*counters[] = {&vela_sta_counts::tx_packets, &vela_sta_counts::tx_retries,
                                                           &vela_sta_counts::tx_failed};
        const auto went_back = [&](auto c) { return before.counts.*c != absent64 && now.counts.*c < before.counts.*c; };
        return same_association(before, now) && std::ranges::none_of(counters, went_back);
    }

    const vela_sta_counts &now_;
    const vela_sta_counts *before_; // null: the association
};

std::span<const vela_sta_link> kept_links(const vela_sta_info &info)
{
    return {info.links, std::min(size_t{info.link_count}, std::size(info.links))};
}

/// Towards the station, over all its links; 0 not known.
uint32_t tx_rate_kbps(const vela_sta_info &info)
{
    uint64_t sum = 0;
    for (const auto &link : kept_links(info)) sum += link.tx.kbps != absent ? link.tx.kbps : 0;
    if (sum == 0 && info.tx.kbps != absent) sum = info.tx.kbps;
    return static_cast<uint32_t>(std::min<uint64_t>(sum, UINT32_MAX));
}

} // namespace

int vela_sta_foreach(vl_nl80211_service *service, const char *ifname, vela_sta_callback each, void *arg)
{
    if (check(service) != 0 || !each) return -EINVAL;
    question stations{*service, NL80211_CMD_GET_STATION};
    if (const int result = address_to(stations, ifname); result != 0) return result;
    int count = 0;
    const int result = stations.ask(how_much::all, [&](bytes message) {
        vela_sta_info info = read_station(message);
        vela::copy_text(info.ifname, ifname);
        ++count;
        return each(&info, arg) == 0;
    });
    return result == 0 ? count : result;
}

int vela_sta_get(vl_nl80211_service *service, const char *ifname, const uint8_t mac[6], vela_sta_info *out)
{
    if (check(service) != 0 || !mac || !out) return -EINVAL;
    question station{*service, NL80211_CMD_GET_STATION};
    if (const int result = address_to(station, ifname); result != 0) return result;
    station.put_mac(mac);
    std::optional<vela_sta_info> info;
    const int result = station.ask(how_much::one, [&](bytes message) {
        info = read_station(message);
        return true;
    });
    if (result != 0) return result;
    if (!info) return -ENOENT;
    vela::copy_text(info->ifname, ifname);
    *out = *info;
    return 0;
}

void vela_station_clear(vela_station *station)
{
    if (!station) return;
    constexpr vela_tcp_stats no_samples = {.lat_min = UINT32_MAX, .lat_avg = UINT64_MAX};
    *station = {.radio_health = 100,
                .tcp_stats = {no_samples, no_samples},
                .has_ip = 1,
                .arp_ok = 1,
                .dns_latency = -1,
                .satisfaction = -1};
    std::ranges::fill(station->scores, -1);
}

int vela_sta_fill(const vela_sta_info *before, const vela_sta_info *now, vela_station *station)
{
    if (!now || !station) return -EINVAL;
    const transmitted counts{before, *now};
    station->tx_rate = tx_rate_kbps(*now);
    station->tx_retries = counts.of(&vela_sta_counts::tx_retries);
    station->tx_tries = saturating_sum(counts.of(&vela_sta_counts::tx_packets), station->tx_retries);
    station->tx_drops = std::min(counts.of(&vela_sta_counts::tx_failed), station->tx_tries);
    return counts.since_association() ? 1 : 0;
}
