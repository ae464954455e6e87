// Networks, stations, channels: who is connected, how full the air is, what comes next.
#include "command.h"
#include "radio.h"

#include <cerrno>
#include <cstring>
#include <linux/nl80211.h>
#include <map>
#include <vector>
#include <vela/services/wlan_report.h>
#include <vela/wireless/acs.h>
#include <vela/wireless/qos.h>
#include <vela/wireless/wlan.h>

namespace velactl
{
namespace
{

/// An answer of the library's, or trouble that names the interface.
json answer_about(const char *ifname, json_t *value)
{
    if (value) return json{value};
    const int error = errno;
    if (error == ENODEV) throw trouble(status::unavailable, no_radio(ifname), error);
    throw refused(std::string("the kernel did not tell about ") + ifname, -error);
}

int check(const char *ifname, int result)
{
    if (result == -ENODEV) throw trouble(status::unavailable, no_radio(ifname), ENODEV);
    if (result < 0 && result != -EAGAIN) throw refused(std::string(ifname) + ": " + strerror(-result), result);
    return result;
}

/// The walks of the library into a list of theirs.
template <class Record> int keep(const Record *record, void *list)
{
    static_cast<std::vector<Record> *>(list)->push_back(*record);
    return 0;
}

std::vector<vela_wlan> interfaces(radio_service &service)
{
    std::vector<vela_wlan> all;
    const int result = vela_wlan_foreach(service.get(), keep<vela_wlan>, &all);
    if (result < 0 && result != -EAGAIN) throw refused("the kernel did not tell its wireless interfaces", result);
    return all;
}

json networks(arguments)
{
    radio_service service;
    json rows{json_array()};
    for (const auto &wlan : interfaces(service)) append(rows, json{vela_wlan_json(&wlan)});
    return rows;
}

/// What fits a line of a table; scripts get all.
json summary(json full)
{
    if (chosen.as_json) return full;
    json row = object();
    const auto copy = [&](const char *column, const json_t *from, const char *key) {
        json_t *value = json_object_get(from, key);
        json_object_set_new(row.get(), column, value ? json_incref(value) : json_null());
    };
    for (const char *key : {"mac", "interface", "signal_dbm", "connected_s", "inactive_ms"}) copy(key, full.get(), key);
    copy("tx_kbps", json_object_get(full.get(), "tx"), "kbps");
    copy("rx_kbps", json_object_get(full.get(), "rx"), "kbps");
    copy("mode", json_object_get(full.get(), "tx"), "mode");
    copy("width_mhz", json_object_get(full.get(), "tx"), "width_mhz");
    for (const char *key : {"tx_bytes", "rx_bytes"}) copy(key, json_object_get(full.get(), "counters"), key);
    if (json_object_get(full.get(), "satisfaction")) {
        for (const char *key : {"satisfaction", "satisfaction_reason"}) copy(key, full.get(), key);
    }
    return row;
}

json stations(arguments given)
{
    radio_service service;
    std::vector<vela_sta_info> all;
    if (!given.empty()) check(given[0], vela_sta_foreach(service.get(), given[0], keep<vela_sta_info>, &all));
    for (const auto &wlan : given.empty() ? interfaces(service) : std::vector<vela_wlan>{}) {
        (void)vela_sta_foreach(service.get(), wlan.ifname, keep<vela_sta_info>, &all); // one may be down
    }
    json rows{json_array()};
    for (const auto &info : all) append(rows, summary(json{vela_sta_json(&info, nullptr)}));
    return rows;
}

json station(arguments given)
{
    uint8_t mac[6];
    address(given[1], "MAC", mac);
    radio_service service;
    vela_sta_info info;
    const int result = vela_sta_get(service.get(), given[0], mac, &info);
    if (result == -ENOENT) throw trouble(status::unavailable, std::string(given[1]) + " is not connected", ENOENT);
    check(given[0], result);
    return json{vela_sta_json(&info, nullptr)};
}

json channels(arguments given)
{
    radio_service service;
    return answer_about(given[0], vela_channel_json(service.get(), given[0]));
}

json survey(arguments given)
{
    radio_service service;
    return answer_about(given[0], vela_survey_json(service.get(), given[0]));
}

struct air {
    std::vector<vela_channel> channels;
    std::vector<vela_airtime> airtimes;
    scan_ptr heard;
    std::vector<uint8_t> own; // BSSIDs of this device
};

air listen(radio_service &service, const char *ifname)
{
    air a;
    check(ifname, vela_channel_foreach(service.get(), ifname, keep<vela_channel>, &a.channels));
    std::vector<vela_survey> surveys;
    (void)vela_survey_foreach(service.get(), ifname, keep<vela_survey>, &surveys); // not every driver has one
    for (const auto &s : surveys) {
        vela_airtime time;
        if (vela_survey_airtime(nullptr, &s, &time) == 0) a.airtimes.push_back(time);
    }
    a.heard.reset(get_scanlist(ifname));
    for (const auto &wlan : interfaces(service)) a.own.insert(a.own.end(), wlan.mac, wlan.mac + 6);
    return a;
}

/// A candidate as a row: its costs or dashes, and the verdict with every reason.
json candidate_row(const json_t *candidate)
{
    json row = object();
    const auto copy = [&](const char *column, const char *key) {
        json_t *value = json_object_get(candidate, key);
        json_object_set_new(row.get(), column, value ? json_incref(value) : json_null());
    };
    copy("mhz", "primary_mhz");
    copy("width", "width_mhz");
    for (const char *key : {"cost", "occupancy", "noise", "power", "dfs", "policy"}) copy(key, key);
    copy("heard", "heard_count");
    std::string verdict = json_string_value(json_object_get(candidate, "verdict"));
    const json_t *reasons = json_object_get(candidate, "refused");
    for (size_t i = 0; i < json_array_size(reasons); ++i) {
        verdict += (i == 0 ? ": " : ", ") + std::string(json_string_value(json_array_get(reasons, i)));
    }
    set(row, "verdict", verdict);
    return row;
}

json choose(arguments given)
{
    radio_service service;
    uint32_t current_mhz = absent;
    for (const auto &wlan : interfaces(service)) {
        if (strcmp(wlan.ifname, given[0]) == 0) current_mhz = wlan.freq_mhz;
    }
    vela_acs_options options = {.band = NL80211_BAND_5GHZ, .allow_indoor = 1, .hysteresis = 50};
    options.width_mhz = static_cast<uint32_t>(number(given[1], "WIDTH", 20, 320));
    options.allow_dfs = given.has("--dfs");
    const air a = listen(service, given[0]);
    for (const auto &c : a.channels) {
        if (c.freq_mhz == current_mhz) options.band = c.band;
    }
    if (const char *band = given.value("--band")) {
        const std::map<std::string, uint32_t> bands = {
            {"2", NL80211_BAND_2GHZ}, {"5", NL80211_BAND_5GHZ}, {"6", NL80211_BAND_6GHZ}};
        if (!bands.contains(band)) throw trouble(status::misused, "GHZ must be 2, 5 or 6");
        options.band = bands.at(band);
    }
    if (current_mhz != absent) options.current_mhz = current_mhz;
    options.own = reinterpret_cast<const uint8_t(*)[6]>(a.own.data());
    options.own_count = static_cast<uint32_t>(a.own.size() / 6);

    std::vector<vela_acs_candidate> candidates(2 * a.channels.size());
    const int count = vela_acs_rank(a.channels.data(), a.channels.size(), a.airtimes.data(), a.airtimes.size(),
                                    a.heard.get(), &options, candidates.data(), candidates.size());
    if (count < 0) throw trouble(status::misused, "WIDTH must be 20, 40, 80, 160 or 320");
    json ranked{vela_acs_json(candidates.data(), static_cast<size_t>(count))};
    if (chosen.as_json) return ranked;
    json rows{json_array()};
    for (size_t i = 0; i < json_array_size(ranked.get()); ++i) {
        append(rows, candidate_row(json_array_get(ranked.get(), i)));
    }
    return rows;
}

json qos(arguments given)
{
    const char *ifname = given[0];
    if (given.size() == 1) return answer_about(ifname, vela_qos_json(ifname));
    vela_qos_rule rule = {.mac = {}, .priority = -1};
    address(given[1], "MAC", rule.mac);
    if (given.size() == 2) throw trouble(status::misused, "TO and FROM are missing, or the word clear");
    if (strcmp(given[2], "clear") == 0) {
        check(ifname, vela_qos_clear(ifname, rule.mac));
        return nullptr;
    }
    if (given.size() == 3) throw trouble(status::misused, "FROM is missing; 0 is no limit");
    rule.to_station_kbps = static_cast<uint32_t>(number(given[2], "TO", 0, 4000000));
    rule.from_station_kbps = static_cast<uint32_t>(number(given[3], "FROM", 0, 4000000));
    if (given.size() == 5) rule.priority = static_cast<int32_t>(number(given[4], "PRIORITY", 0, 7));
    const int result = vela_qos_set(ifname, &rule);
    if (result == -EINVAL) throw trouble(status::misused, "a limit is 0 or at least 64; MAC is one station's", EINVAL);
    check(ifname, result);
    return nullptr;
}

struct drop_report {
    void operator()(vela_wlan_report *report) const { vela_wlan_report_destroy(report); }
};

json wireless(arguments given)
{
    const auto seconds = given.empty() ? 2 : number(given[0], "SECONDS", 1, 3600);
    radio_service service;
    const std::unique_ptr<vela_wlan_report, drop_report> report{
        vela_wlan_report_create(service.get(), VELA_WLAN_REPORT_STATIONS_MAX)};
    const auto poll = [&] { return answer_about("radios", vela_wlan_report_poll(report.get(), nullptr, nullptr)); };
    json answer = poll();
    {
        const progress shown("counting");
        if (pause_ms(static_cast<int>(seconds * 1000))) answer = poll();
    }
    if (chosen.as_json) return answer;
    json rows{json_array()};
    const json_t *all = json_object_get(answer.get(), "stations");
    for (size_t i = 0; i < json_array_size(all); ++i) {
        append(rows, summary(json{json_incref(json_array_get(all, i))}));
    }
    set(answer, "stations", std::move(rows));
    return answer;
}

constexpr option choose_options[] = {
    {"--dfs", "", "channels with radar detection may be chosen"},
    {"--band", "GHZ", "2, 5 or 6; else the band of today's channel, or 5"},
};

constexpr command commands[] = {
    {"networks", "", "the wireless interfaces, their networks and channels", 0, 0, networks, answer::rows},
    {"stations", "[INTERFACE]", "who is connected, signal and rates", 0, 1, stations, answer::rows},
    {"station", "INTERFACE MAC", "one station, with its counters", 2, 2, station, answer::object},
    {"channels", "INTERFACE", "what its radio may use", 1, 1, channels, answer::rows},
    {"survey", "INTERFACE", "how full each channel was", 1, 1, survey, answer::rows},
    {"choose",
     "INTERFACE WIDTH",
     "rank the channels for an access point",
     2,
     2,
     choose,
     answer::rows,
     {},
     choose_options,
     "Scan first: what was not heard does not count."},
    {"qos", "INTERFACE [MAC TO FROM [PRIORITY] | MAC clear]", "limits of stations, in kbit/s", 1, 5, qos},
    {"wireless", "[SECONDS]", "radios, networks and stations, from two polls", 0, 1, wireless, answer::object},
};

} // namespace

const std::span<const command> station_commands{commands};

} // namespace velactl
