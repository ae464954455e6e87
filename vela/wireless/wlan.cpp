// Wireless interfaces as nl80211 tells them.

#include <algorithm>
#include <array>
#include <cerrno>
#include <vela/wireless/internal/channel_width.h>
#include <vela/wireless/internal/nl80211_answer.h>
#include <vela/wireless/internal/nl80211_records.h>
#include <vela/wireless/wlan.h>

static_assert(sizeof(vela_wlan) == 188 && sizeof(vela_wlan_link) == 24);

namespace vela::nl80211
{
namespace
{

constexpr uint32_t absent = UINT32_MAX;

constexpr vela_wlan_link nothing_of_link = {absent, {}, absent, absent, INT32_MIN};
constexpr vela_wlan nothing = {.wiphy = absent,
                               .freq_mhz = absent,
                               .width_mhz = absent,
                               .center_mhz = absent,
                               .power_mbm = INT32_MIN,
                               .links = {nothing_of_link, nothing_of_link, nothing_of_link, nothing_of_link}};

constexpr number_row wlan_numbers[] = {
    {NL80211_ATTR_IFINDEX, VELA_MEMBER(vela_wlan, index)},
    {NL80211_ATTR_IFTYPE, VELA_MEMBER(vela_wlan, mode)},
    {NL80211_ATTR_WIPHY, VELA_MEMBER(vela_wlan, wiphy)},
    {NL80211_ATTR_WIPHY_FREQ, VELA_MEMBER(vela_wlan, freq_mhz)},
    {NL80211_ATTR_CHANNEL_WIDTH, VELA_MEMBER(vela_wlan, width_mhz)}, // a number of the kernel's, until all is read
    {NL80211_ATTR_CENTER_FREQ1, VELA_MEMBER(vela_wlan, center_mhz)},
    {NL80211_ATTR_WIPHY_TX_POWER_LEVEL, VELA_MEMBER(vela_wlan, power_mbm)},
};
constexpr number_row link_numbers[] = {
    {NL80211_ATTR_MLO_LINK_ID, VELA_MEMBER(vela_wlan_link, id)},
    {NL80211_ATTR_WIPHY_FREQ, VELA_MEMBER(vela_wlan_link, freq_mhz)},
    {NL80211_ATTR_CHANNEL_WIDTH, VELA_MEMBER(vela_wlan_link, width_mhz)},
    {NL80211_ATTR_WIPHY_TX_POWER_LEVEL, VELA_MEMBER(vela_wlan_link, power_mbm)},
};

constexpr const char *mode_names[] = {"unspecified", "adhoc",      "station", "ap",         "ap_vlan", "wds", "monitor",
                                      "mesh",        "p2p_client", "p2p_go",  "p2p_device", "ocb",     "nan"};
static_assert(std::size(mode_names) == NL80211_IFTYPE_NAN + 1);

const char *mode_name(uint32_t mode) { return mode < std::size(mode_names) ? mode_names[mode] : nullptr; }

constexpr json_row wlan_rows[] = {
    {"interface", VELA_MEMBER(vela_wlan, ifname), shown::text, unknown::zero},
    {"ssid", VELA_MEMBER(vela_wlan, ssid), shown::text, unknown::zero},
    {"mac", VELA_MEMBER(vela_wlan, mac), shown::mac, unknown::zero},
    {"mode", VELA_MEMBER(vela_wlan, mode), shown::word, unknown::never, mode_name},
    {"wiphy", VELA_MEMBER(vela_wlan, wiphy), shown::number, unknown::ones},
    {"mhz", VELA_MEMBER(vela_wlan, freq_mhz), shown::number, unknown::ones},
    {"width_mhz", VELA_MEMBER(vela_wlan, width_mhz), shown::number, unknown::ones},
    {"center_mhz", VELA_MEMBER(vela_wlan, center_mhz), shown::number, unknown::ones},
    {"power_mbm", VELA_MEMBER(vela_wlan, power_mbm), shown::number, unknown::lowest},
};
constexpr json_row link_rows[] = {
    {"id", VELA_MEMBER(vela_wlan_link, id), shown::number, unknown::ones},
    {"mac", VELA_MEMBER(vela_wlan_link, mac), shown::mac, unknown::zero},
    {"mhz", VELA_MEMBER(vela_wlan_link, freq_mhz), shown::number, unknown::ones},
    {"width_mhz", VELA_MEMBER(vela_wlan_link, width_mhz), shown::number, unknown::ones},
    {"power_mbm", VELA_MEMBER(vela_wlan_link, power_mbm), shown::number, unknown::lowest},
};

void to_mhz(uint32_t &width)
{
    const uint32_t mhz = width == absent ? 0 : channel_width_mhz(width);
    width = mhz != 0 ? mhz : absent;
}

void read_link(const raw_netlink::attribute &outer, vela_wlan_link &link)
{
    auto walk = raw_netlink::attributes::inside(outer);
    while (const auto a = walk.next()) {
        if (a->type == NL80211_ATTR_MAC) store_mac(*a, link.mac);
        (void)store(link_numbers, *a, &link); // others are no concern of ours
    }
    to_mhz(link.width_mhz);
}

void read_ssid(bytes name, vela_wlan &wlan)
{
    wlan.ssid_len = static_cast<uint32_t>(std::min(name.size(), sizeof wlan.ssid - 1));
    std::copy_n(name.begin(), wlan.ssid_len, wlan.ssid);
}

} // namespace

vela_wlan read_wlan(bytes message)
{
    vela_wlan wlan = nothing;
    raw_netlink::attributes walk{message};
    while (const auto a = walk.next()) {
        switch (a->type) {
        case NL80211_ATTR_IFNAME: copy_text(wlan.ifname, a->text()); break;
        case NL80211_ATTR_MAC: store_mac(*a, wlan.mac); break;
        case NL80211_ATTR_SSID: read_ssid(a->value, wlan); break;
        case NL80211_ATTR_MLO_LINKS: wlan.link_count = read_list(*a, wlan.links, read_link); break;
        default: (void)store(wlan_numbers, *a, &wlan);
        }
    }
    to_mhz(wlan.width_mhz);
    return wlan;
}

} // namespace vela::nl80211

int vela_wlan_foreach(vl_nl80211_service *service, vela_wlan_callback each, void *arg)
{
    using namespace vela::nl80211;
    if (check(service) != 0 || !each) return -EINVAL;
    int count = 0;
    question interfaces{*service, NL80211_CMD_GET_INTERFACE};
    const int result = interfaces.ask(vela::raw_netlink::how_much::all, [&](bytes message) {
        const vela_wlan wlan = read_wlan(message);
        ++count;
        return each(&wlan, arg) == 0;
    });
    return result == 0 ? count : result;
}

json_t *vela_wlan_json(const vela_wlan *wlan)
{
    using namespace vela::nl80211;
    if (!wlan) {
        errno = EINVAL;
        return nullptr;
    }
    vela::json_ref object = vela::record_json(wlan_rows, *wlan);
    const std::span links{wlan->links, std::min(size_t{wlan->link_count}, std::size(wlan->links))};
    const bool whole = object &&
                       vela::put_json(object.get(), "mld", vela::json_ref{json_boolean(wlan->link_count != 0)}) &&
                       (links.empty() || vela::put_json(object.get(), "links", vela::records_json(link_rows, links)));
    if (whole) return object.release();
    errno = ENOMEM;
    return nullptr;
}
