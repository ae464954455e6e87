// One message of nl80211 as an interface, a station, a survey or a radio's channels: the first byte chooses. What comes
// out must be whole enough to be shown.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vela/core/internal/json.h>
#include <vela/wireless/internal/nl80211_records.h>

namespace
{

using message = std::span<const uint8_t>;

void expect_json(json_t *value)
{
    if (!value) abort();
    json_decref(value);
}

void as_station(message m)
{
    const vela_sta_info info = vela::nl80211::read_station(m);
    vela_station scored;
    vela_station_clear(&scored);
    (void)vela_sta_fill(nullptr, &info, &scored);
    (void)calc_sta_satisfaction(&scored);
    expect_json(vela_sta_json(&info, &scored));
}

void as_interface(message m)
{
    const vela_wlan wlan = vela::nl80211::read_wlan(m);
    if (wlan.ssid_len > 32 || wlan.ssid[32] != '\0' || memchr(wlan.ifname, 0, sizeof wlan.ifname) == nullptr) abort();
    expect_json(vela_wlan_json(&wlan));
}

void as_survey(message m)
{
    const auto survey = vela::nl80211::read_survey(m);
    vela_airtime out;
    if (!survey || vela_survey_airtime(nullptr, &*survey, &out) != 0) return;
    if (out.busy_permille > 1000 || out.own_permille + out.other_permille != out.busy_permille) abort();
}

void as_channels(message m)
{
    vela::nl80211::channel_list list;
    list.read(m.first(m.size() / 2));
    list.read(m.subspan(m.size() / 2 / 4 * 4));
    if (list.finish().size() > list.most) abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) return 0;
    const std::unique_ptr<uint8_t[]> block(new uint8_t[size - 1]); // of exactly its size
    std::copy(data + 1, data + size, block.get());
    constexpr void (*readers[])(message) = {as_station, as_interface, as_survey, as_channels};
    readers[data[0] % std::size(readers)]({block.get(), size - 1});
    return 0;
}
