// An access point with two stations, from the first association to the last departure, every figure beside the one that
// `iw` prints; and what a radio surveyed and may use.
#include "tests/support/json.h"
#include "tests/wifi/machine.h"

#include <cerrno>
#include <event2/event.h>
#include <gmock/gmock.h>
#include <linux/if_packet.h>
#include <linux/nl80211.h>
#include <map>
#include <net/if.h>
#include <optional>
#include <sstream>
#include <sys/socket.h>
#include <thread>
#include <vela/core/internal/own.h>
#include <vela/wireless/acs.h>
#include <vela/wireless/qos.h>
#include <vela/wireless/station.h>
#include <vela/wireless/wlan.h>

using machine::eventually;
using machine::tell;
using testing::HasSubstr;

namespace
{

using texts = std::map<std::string, std::string>;

std::string printed(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string printed(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    char text[128];
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

std::string mac_of(const uint8_t *mac)
{
    return printed("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

/// A rate as iw prints it.
std::string rate(const vela_sta_rate &r)
{
    std::string text = printed("%u.%u MBit/s", r.kbps / 1000, r.kbps / 100 % 10);
    if (r.mode == VELA_RATE_HT) text += printed(" MCS %u", r.mcs);
    if (r.mode == VELA_RATE_VHT) text += printed(" VHT-MCS %u", r.mcs);
    if (r.width_mhz > 20) text += printed(" %uMHz", r.width_mhz);
    if (r.gi_ns == 400) text += " short GI";
    if (r.mode == VELA_RATE_VHT) text += printed(" VHT-NSS %u", r.nss);
    if (r.mode == VELA_RATE_HE)
        text += printed(" HE-MCS %u HE-NSS %u HE-GI %u HE-DCM %u", r.mcs, r.nss, r.gi_ns / 1600U, r.dcm);
    return text;
}

/// A station as iw prints it, line by line; what is not known is no line.
texts lines_of(const vela_sta_info &s)
{
    texts lines;
    const auto count = [&](const char *name, uint64_t n, const char *unit = "") {
        if (n != UINT64_MAX && n != UINT32_MAX) lines[name] = std::to_string(n) + unit;
    };
    const auto dbm = [&](const char *name, int32_t n) {
        if (n != INT32_MIN) lines[name] = std::to_string(n);
    };
    const auto flag = [&](const char *name, uint32_t bit) { lines[name] = s.flags & bit ? "yes" : "no"; };
    count("rx bytes", s.counts.rx_bytes);
    count("tx bytes", s.counts.tx_bytes);
    count("rx packets", s.counts.rx_packets);
    count("tx packets", s.counts.tx_packets);
    count("tx retries", s.counts.tx_retries);
    count("tx failed", s.counts.tx_failed);
    count("rx drop misc", s.counts.rx_dropped);
    count("tx duration", s.counts.tx_us, " us");
    count("rx duration", s.counts.rx_us, " us");
    count("airtime weight", s.airtime_weight);
    count("connected time", s.connected_s, " seconds");
    dbm("signal", s.signal_dbm);
    dbm("signal avg", s.signal_avg_dbm);
    if (s.tx.mode != 0) lines["tx bitrate"] = rate(s.tx);
    if (s.rx.mode != 0) lines["rx bitrate"] = rate(s.rx);
    flag("authorized", VELA_STA_AUTHORIZED);
    flag("authenticated", VELA_STA_AUTHENTICATED);
    flag("associated", VELA_STA_ASSOCIATED);
    flag("WMM/WME", VELA_STA_WME);
    flag("MFP", VELA_STA_MFP);
    lines["associated at [boottime]"] =
        printed("%llu.%03llus", s.associated_ns / 1000000000ULL, s.associated_ns / 1000000ULL % 1000);
    return lines;
}

std::map<std::string, texts> from_iw(const std::string &ifname)
{
    std::map<std::string, texts> stations;
    std::istringstream dump(machine::iw("dev " + ifname + " station dump"));
    texts *current = nullptr;
    for (std::string line; std::getline(dump, line);) {
        if (line.starts_with("Station ")) current = &stations[line.substr(8, 17)];
        const size_t colon = line.find(':');
        if (!current || line[0] != '\t' || colon == std::string::npos) continue;
        const std::string name = line.substr(1, colon - 1);
        std::string value = line.substr(std::min(line.find_first_not_of(" \t", colon + 1), line.size()));
        if (name.starts_with("signal")) value = value.substr(0, value.find(' ')); // without the antennas'
        (*current)[name] = value;
    }
    return stations;
}

/// Sends frames of no protocol over the air, with time for the radio between them: a long queue would be cut.
void send_frames(const char *ifname, const uint8_t *to, int count)
{
    const vela::unique_fd fd{socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(0x88B5); // for experiments
    address.sll_ifindex = static_cast<int>(if_nametoindex(ifname));
    address.sll_halen = 6;
    memcpy(address.sll_addr, to, 6);
    const char payload[500] = {};
    for (int n = 0; n < count; ++n) {
        (void)sendto(fd.get(), payload, sizeof payload, 0, reinterpret_cast<sockaddr *>(&address), sizeof address);
        usleep(1000);
    }
}

/// What the tool prints.
std::string velactl(const std::string &arguments)
{
    const std::string text = site::output_of(VELACTL " " + arguments + " 2>&1");
    tell("    $ velactl %s\n%s", arguments.c_str(), text.c_str());
    return text;
}

class Stations : public testing::Test
{
protected:
    event_base *base = event_base_new();
    vl_nl80211_service service = {};

    static void SetUpTestSuite() { machine::fresh_radios(); }
    Stations() { EXPECT_EQ(0, vl_nl80211_service_init(&service, base)); }
    ~Stations() override
    {
        vl_nl80211_service_deinit(&service);
        event_base_free(base);
    }
    std::map<std::string, vela_sta_info> list()
    {
        std::map<std::string, vela_sta_info> stations;
        const auto add = [](const vela_sta_info *info, void *arg) {
            static_cast<std::map<std::string, vela_sta_info> *>(arg)->emplace(mac_of(info->mac), *info);
            return 0;
        };
        EXPECT_EQ(0, std::min(0, vela_sta_foreach(&service, "wlan0", add, &stations)));
        return stations;
    }
    /// Whether every figure that we tell is iw's, and iw tells no other of these. Counters move: tried until they hold.
    void expect_as_iw()
    {
        std::string difference;
        EXPECT_TRUE(eventually([&] {
            const auto before = from_iw("wlan0");
            const auto ours = list();
            difference.clear();
            for (const auto &[mac, info] : ours) {
                if (!before.contains(mac)) return false;
                auto theirs = before.at(mac);
                for (const auto &[name, value] : lines_of(info)) {
                    if (theirs[name] != value) difference += name + ": " + value + ", iw " + theirs[name] + "\n";
                }
            }
            return difference.empty() && ours.size() == before.size();
        })) << difference;
    }
};

constexpr const char *vht80 =
    "country_code=US\nieee80211n=1\nieee80211ac=1\nwmm_enabled=1\nht_capab=[HT40+][SHORT-GI-40]\n"
    "vht_oper_chwidth=1\nvht_oper_centr_freq_seg0_idx=42\n";

void show(const vela_sta_info &s, const vela_station *scored)
{
    std::string line = printed("%s at %d dBm, %u s", mac_of(s.mac).c_str(), s.signal_dbm, s.connected_s);
    line += ", to it " + rate(s.tx) + ", from it " + rate(s.rx);
    if (scored) {
        const vela::json_ref object{vela_sta_json(&s, scored)};
        line += printed(", %u tries, satisfaction %d", static_cast<unsigned>(scored->tx_tries), scored->satisfaction);
        if (const char *why = json_string_value(json_object_get(object.get(), "satisfaction_reason"))) {
            line += std::string(" for its ") + why;
        }
    }
    tell("    %s", line.c_str());
}

} // namespace

TEST_F(Stations, FromTheFirstAssociationToTheLastDeparture)
{
    tell("An access point comes up on channel 36, 80 MHz wide.");
    const machine::access_point ap("wlan0", {.ssid = "vela", .channel = 36, .more = vht80});
    std::optional<vela_wlan> network;
    const auto find = [](const vela_wlan *wlan, void *arg) {
        if (std::string(wlan->ifname) == "wlan0") *static_cast<std::optional<vela_wlan> *>(arg) = *wlan;
        return 0;
    };
    ASSERT_EQ(4, vela_wlan_foreach(&service, find, &network));
    ASSERT_TRUE(network);
    tell("    %s: \"%s\", %s, %u MHz, %u MHz wide, %d dBm", network->ifname, network->ssid,
         mac_of(network->mac).c_str(), network->freq_mhz, network->width_mhz, network->power_mbm / 100);
    const std::string info = machine::iw("dev wlan0 info");
    for (const std::string &line :
         {printed("ifindex %u", network->index), "addr " + mac_of(network->mac), std::string("ssid ") + network->ssid,
          std::string("type AP"), printed("wiphy %u", network->wiphy),
          printed("channel 36 (%u MHz), width: %u MHz, center1: %u MHz", network->freq_mhz, network->width_mhz,
                  network->center_mhz),
          printed("txpower %d.%02d dBm", network->power_mbm / 100, network->power_mbm % 100)}) {
        EXPECT_NE(std::string::npos, info.find(line)) << line << "\n" << info;
    }

    tell("Two stations join; the access point sends 300 frames to one of them.");
    const machine::station first("wlan1", "vela", 5180);
    auto second = std::make_optional<machine::station>("wlan2", "vela", 5180);
    const std::string one = "02:00:00:00:01:00", two = "02:00:00:00:02:00";
    expect_as_iw();
    const auto before = list();
    ASSERT_EQ(2U, before.size());
    send_frames("wlan1", network->mac, 100);
    EXPECT_TRUE(eventually([&] {
        send_frames("wlan0", before.at(one).mac, 50);
        return list().at(one).counts.tx_packets >= before.at(one).counts.tx_packets + 300;
    }));
    expect_as_iw();
    const auto now = list();
    for (const auto &[mac, station] : now) {
        vela_station scored;
        vela_station_clear(&scored);
        scored.freq = static_cast<uint16_t>(network->freq_mhz);
        EXPECT_EQ(0, vela_sta_fill(&before.at(mac), &station, &scored));
        calc_sta_satisfaction(&scored);
        show(station, &scored);
        EXPECT_EQ(mac == one, scored.tx_tries >= 300) << mac << " " << scored.tx_tries;
        EXPECT_GT(scored.satisfaction, 0) << mac;
    }

    tell("A rule gives the first one a priority and 5 Mbit/s.");
    vela_qos_rule rule = {.priority = 6, .to_station_kbps = 5000};
    memcpy(rule.mac, now.at(one).mac, 6);
    ASSERT_EQ(0, vela_qos_set("wlan0", &rule));
    send_frames("wlan0", rule.mac, 100);
    const vela::json_ref rules{vela_qos_json("wlan0")};
    const auto counted = json_integer_value(json_object_get(json_array_get(rules.get(), 0), "to_bytes"));
    tell("    %lld bytes went through it", static_cast<long long>(counted));
    EXPECT_GE(counted, 100 * 514);
    EXPECT_EQ(0, vela_qos_clear("wlan0", nullptr));

    tell("The same by the tool.");
    EXPECT_THAT(velactl("radio wlan0"), testing::AllOf(HasSubstr("vela"), HasSubstr("serving")));
    EXPECT_THAT(velactl("stations"), testing::AllOf(HasSubstr(one), HasSubstr(two)));
    EXPECT_THAT(velactl("wireless 1"),
                testing::AllOf(HasSubstr("interval_ms"), HasSubstr("noise_dbm"), HasSubstr(two)));
    ASSERT_EQ(0, site::run("ip link set wlan3 up"));
    EXPECT_THAT(velactl("scan wlan3"), testing::ContainsRegex("vela +02:00:00:00:00:00 +5180 +36 +80 +-[0-9]+ +open"));
    EXPECT_THAT(velactl("choose wlan3 80"), testing::AllOf(HasSubstr("usable"), HasSubstr("refused: radar")));

    tell("The second one leaves while the list is read again and again, and comes back.");
    std::thread departure([&] { second.reset(); });
    EXPECT_TRUE(eventually([&] { return list().size() == 1; })) << "no walk fails, whatever it meets";
    departure.join();
    vela_sta_info gone = {};
    EXPECT_EQ(-ENOENT, vela_sta_get(&service, "wlan0", before.at(two).mac, &gone));
    second.emplace("wlan2", "vela", 5180);
    vela_sta_info back = {};
    ASSERT_TRUE(eventually([&] { return vela_sta_get(&service, "wlan0", before.at(two).mac, &back) == 0; }));
    show(back, nullptr);
    vela_station scored;
    vela_station_clear(&scored);
    EXPECT_EQ(1, vela_sta_fill(&before.at(two), &back, &scored)) << "another association";
    EXPECT_EQ(-ENODEV, vela_sta_get(&service, "lo", back.mac, &back)) << "no radio";
}

TEST_F(Stations, SurveysAndChannelsAsIwTellsThem)
{
    ASSERT_EQ(0, site::run("ip link set wlan3 up"));
    ASSERT_TRUE(
        eventually([] { return machine::iw("dev wlan3 scan freq 2412 5180 5200").find("busy") == std::string::npos; }));
    std::ostringstream surveys;
    const auto write_survey = [](const vela_survey *s, void *out) {
        *static_cast<std::ostringstream *>(out) << s->freq_mhz << (s->in_use ? " in use " : " ") << s->noise_dbm << " "
                                                << s->time_ms << " " << s->busy_ms << "\n";
        return 0;
    };
    EXPECT_TRUE(eventually([&] {
        surveys.str("");
        EXPECT_LE(0, vela_survey_foreach(&service, "wlan3", write_survey, &surveys));
        return !surveys.str().empty() && surveys.str() == site::output_of(R"(iw dev wlan3 survey dump | awk '
            /frequency:/ { if (line) print line; line = $2 (/in use/ ? " in use" : "") }
            /noise:|active time:|busy time:/ { line = line " " $(NF - 1) }
            END { print line }')");
    })) << surveys.str();

    std::ostringstream channels;
    const auto write_channel = [](const vela_channel *c, void *out) {
        auto &line = *static_cast<std::ostringstream *>(out) << c->freq_mhz << " [" << c->number << "]";
        if (c->flags & VELA_CHANNEL_DISABLED) return line << " (disabled)\n", 0;
        line << printed(" (%d.%d dBm)", c->max_power_mbm / 100, c->max_power_mbm / 10 % 10)
             << (c->flags & VELA_CHANNEL_NO_IR ? " (no IR)" : "")
             << (c->flags & VELA_CHANNEL_RADAR ? " (radar detection)" : "") << "\n";
        return 0;
    };
    const int count = vela_channel_foreach(&service, "wlan3", write_channel, &channels);
    EXPECT_EQ(site::output_of("iw phy $(cat /sys/class/net/wlan3/phy80211/name) info | "
                              R"(sed -n 's/^\t\t\t\* \([2-9][0-9]\{3\}\)\(\.0\)\{0,1\} MHz \(\[.*\)/\1 \3/p')"),
              channels.str());
    tell("wlan3 has %d channels", count);
}
