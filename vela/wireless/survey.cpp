// Surveys as nl80211 tells them, and the airtime between two of them.

#include <algorithm>
#include <cerrno>
#include <vela/wireless/internal/nl80211_answer.h>
#include <vela/wireless/internal/nl80211_records.h>
#include <vela/wireless/survey.h>

static_assert(sizeof(vela_survey) == 104 && sizeof(vela_airtime) == 20);

namespace
{

using vela::shown;
using vela::raw_netlink::how_much;

constexpr uint32_t absent = UINT32_MAX;
constexpr uint64_t unknown = UINT64_MAX;
constexpr vela_survey nothing = {.freq_mhz = absent,
                                 .noise_dbm = INT32_MIN,
                                 .time_ms = unknown,
                                 .busy_ms = unknown,
                                 .ext_busy_ms = unknown,
                                 .rx_ms = unknown,
                                 .tx_ms = unknown,
                                 .scan_ms = unknown,
                                 .bss_rx_ms = unknown};

constexpr vela::nl80211::number_row numbers[] = {
    {NL80211_SURVEY_INFO_FREQUENCY, VELA_MEMBER(vela_survey, freq_mhz)},
    {NL80211_SURVEY_INFO_IN_USE, VELA_MEMBER(vela_survey, in_use)},
    {NL80211_SURVEY_INFO_NOISE, VELA_MEMBER(vela_survey, noise_dbm)},
    {NL80211_SURVEY_INFO_TIME, VELA_MEMBER(vela_survey, time_ms)},
    {NL80211_SURVEY_INFO_TIME_BUSY, VELA_MEMBER(vela_survey, busy_ms)},
    {NL80211_SURVEY_INFO_TIME_EXT_BUSY, VELA_MEMBER(vela_survey, ext_busy_ms)},
    {NL80211_SURVEY_INFO_TIME_RX, VELA_MEMBER(vela_survey, rx_ms)},
    {NL80211_SURVEY_INFO_TIME_TX, VELA_MEMBER(vela_survey, tx_ms)},
    {NL80211_SURVEY_INFO_TIME_SCAN, VELA_MEMBER(vela_survey, scan_ms)},
    {NL80211_SURVEY_INFO_TIME_BSS_RX, VELA_MEMBER(vela_survey, bss_rx_ms)},
};

constexpr vela::json_row rows[] = {
    {"freq_mhz", VELA_MEMBER(vela_survey, freq_mhz), shown::number, vela::unknown::ones},
    {"in_use", VELA_MEMBER(vela_survey, in_use), shown::truth, vela::unknown::never},
    {"noise_dbm", VELA_MEMBER(vela_survey, noise_dbm), shown::number, vela::unknown::lowest},
    {"time_ms", VELA_MEMBER(vela_survey, time_ms), shown::number, vela::unknown::ones},
    {"busy_ms", VELA_MEMBER(vela_survey, busy_ms), shown::number, vela::unknown::ones},
    {"ext_busy_ms", VELA_MEMBER(vela_survey, ext_busy_ms), shown::number, vela::unknown::ones},
    {"rx_ms", VELA_MEMBER(vela_survey, rx_ms), shown::number, vela::unknown::ones},
    {"tx_ms", VELA_MEMBER(vela_survey, tx_ms), shown::number, vela::unknown::ones},
    {"scan_ms", VELA_MEMBER(vela_survey, scan_ms), shown::number, vela::unknown::ones},
    {"bss_rx_ms", VELA_MEMBER(vela_survey, bss_rx_ms), shown::number, vela::unknown::ones},
};

constexpr uint64_t least_observation_ms = 10;

constexpr uint64_t vela_survey::*counters[] = {&vela_survey::time_ms, &vela_survey::busy_ms, &vela_survey::rx_ms,
                                               &vela_survey::tx_ms, &vela_survey::bss_rx_ms};

bool went_back(const vela_survey &before, const vela_survey &now, uint64_t vela_survey::*counter)
{
    return before.*counter != unknown && now.*counter < before.*counter;
}

/// What a counter moved. One that either survey does not have is not known.
uint64_t moved(const vela_survey &before, const vela_survey &now, uint64_t vela_survey::*counter)
{
    return before.*counter == unknown || now.*counter == unknown ? unknown : now.*counter - before.*counter;
}

uint64_t or_none(uint64_t counter) { return counter == unknown ? 0 : counter; }

/// part / whole in permille; `part` is at most `whole`, which is not 0.
uint32_t permille(uint64_t part, uint64_t whole)
{
    for (; whole > UINT64_MAX / 1000; whole >>= 1) part >>= 1; // a driver's nonsense, but no overflow
    return static_cast<uint32_t>(part * 1000 / whole);
}

} // namespace

std::optional<vela_survey> vela::nl80211::read_survey(bytes message)
{
    vela_survey survey = nothing;
    raw_netlink::attributes walk{message};
    while (const auto a = walk.next()) {
        if (a->type != NL80211_ATTR_SURVEY_INFO) continue;
        auto inner = raw_netlink::attributes::inside(*a);
        while (const auto figure = inner.next()) (void)store(numbers, *figure, &survey); // others do not concern us
    }
    if (survey.freq_mhz == absent) return std::nullopt;
    return survey;
}

int vela_survey_foreach(vl_nl80211_service *service, const char *ifname, vela_survey_callback each, void *arg)
{
    using namespace vela::nl80211;
    if (check(service) != 0 || !each) return -EINVAL;
    question surveys{*service, NL80211_CMD_GET_SURVEY};
    if (const int result = address_to(surveys, ifname); result != 0) return result;
    int count = 0;
    const int result = surveys.ask(how_much::all, [&](bytes message) {
        const auto survey = read_survey(message);
        if (!survey) return true;
        ++count;
        return each(&*survey, arg) == 0;
    });
    return result == 0 ? count : result;
}

json_t *vela_survey_json(vl_nl80211_service *service, const char *ifname)
{
    return vela::list_json<vela_survey>(
        [&](auto each, void *arg) { return vela_survey_foreach(service, ifname, each, arg); },
        [](const vela_survey &survey) { return vela::record_json(rows, survey); });
}

int vela_survey_airtime(const vela_survey *before, const vela_survey *now, vela_airtime *out)
{
    if (!now || !out || (before && before->freq_mhz != now->freq_mhz)) return -EINVAL;
    const vela_survey zero = {};
    const bool anew = !before || std::ranges::any_of(counters, [&](auto c) { return went_back(*before, *now, c); });
    const vela_survey &from = anew ? zero : *before;

    const uint64_t time_ms = moved(from, *now, &vela_survey::time_ms);
    uint64_t busy_ms = moved(from, *now, &vela_survey::busy_ms);
    if (busy_ms == unknown) busy_ms = moved(from, *now, &vela_survey::rx_ms);
    if (time_ms == unknown || time_ms < least_observation_ms || busy_ms == unknown) return -ENODATA;

    busy_ms = std::min(busy_ms, time_ms);
    const uint64_t tx_ms = std::min(or_none(moved(from, *now, &vela_survey::tx_ms)), busy_ms);
    const uint64_t bss_rx_ms = std::min(or_none(moved(from, *now, &vela_survey::bss_rx_ms)), busy_ms - tx_ms);
    const uint32_t busy = permille(busy_ms, time_ms);
    const uint32_t own = permille(tx_ms + bss_rx_ms, time_ms);
    *out = {now->freq_mhz, busy, own, busy - own, now->noise_dbm};
    return 0;
}
