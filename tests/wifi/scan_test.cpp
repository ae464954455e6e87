#include "tests/wifi/machine.h"

#include <gmock/gmock.h>
#include <map>
#include <set>
#include <sstream>
#include <vela/wireless/scan.h>

using testing::Each;

namespace
{

using lines = std::multiset<std::string>; // "BSSID FREQUENCY FIGURE INTERVAL ESSID"
using entries = std::map<std::string, scan_entry>;

/// What an independent tool says of the same list.
lines from_iw(const std::string &ifname)
{
    std::istringstream text(site::output_of("iw dev " + ifname + R"( scan dump | awk '
        /^BSS / { bssid = substr($2, 1, 17) }
        $1 == "freq:" { freq = $2 }
        $1 == "beacon" { interval = $3 }
        $1 == "signal:" { figure = $2 + 96 }
        sub(/^\tSSID: /, "") { print bssid, freq, figure, interval, substr($0, 1, 31) }')"));
    lines result;
    for (std::string line; std::getline(text, line);) result.insert(line);
    return result;
}

lines lines_of(const entries &list)
{
    lines result;
    for (const auto &[essid, e] : list) {
        char line[96];
        snprintf(line, sizeof line, "%02x:%02x:%02x:%02x:%02x:%02x %u %d %u %s", e.bssid[0], e.bssid[1], e.bssid[2],
                 e.bssid[3], e.bssid[4], e.bssid[5], e.freq, e.rssi, e.beacon_interval, e.essid);
        result.insert(line);
    }
    return result;
}

/// The entries of an interface's list by their names.
entries heard_by(const char *ifname)
{
    entries result;
    scan_list *list = get_scanlist(ifname);
    for (auto *e = list->first; e != reinterpret_cast<scan_entry *>(list); e = e->next) result.emplace(e->essid, *e);
    free_scanlist(list);
    return result;
}

bool hears(const char *ifname, const std::string &essid)
{
    return machine::eventually([&] { return heard_by(ifname).contains(essid); });
}

bool tells(const char *event)
{
    return machine::eventually([&] { return site::read_file("/tmp/events").find(event) != std::string::npos; });
}

class Scan : public testing::Test
{
protected:
    static void SetUpTestSuite() { machine::fresh_radios(); }
};

} // namespace

TEST_F(Scan, ListAgreesWithIwEntryByEntry)
{
    constexpr vela_ie node = {{2, 0x4D, 0, 0, 0, 7}, VELA_IE_CONNECTED | VELA_IE_ACCEPTS_UPLINKS, 1, 1};
    uint8_t element[VELA_IE_MAX];
    const int length = vela_ie_build(&node, element, sizeof element);
    std::string hex(2 * static_cast<size_t>(length), '\0');
    for (size_t n = 0; n < hex.size(); ++n) hex[n] = "0123456789abcdef"[element[n / 2] >> (n % 2 ? 0 : 4) & 15];
    const machine::access_point mesh("wlan0", {.ssid = "mesh", .channel = 36, .vendor_elements = hex});
    const machine::access_point plain("wlan1", {.ssid = "a name of thirty-two characters ", .channel = 6});

    ASSERT_EQ(0, site::run("ip link set wlan2 up"));
    ASSERT_EQ(0, vela_scan_request("wlan2", nullptr, 1, 2, 3));
    EXPECT_EQ(-EBUSY, vela_scan_request("wlan2", nullptr)) << "one scan at a time";
    ASSERT_TRUE(hears("wlan2", "mesh"));
    ASSERT_TRUE(hears("wlan2", "a name of thirty-two characters"));

    auto list = heard_by("wlan2");
    EXPECT_EQ(from_iw("wlan2"), lines_of(list));
    const scan_entry &found = list["mesh"];
    EXPECT_THAT(found.mesh, Each(1U));
    EXPECT_EQ(0, memcmp(node.serial, found.serial, 6));
    EXPECT_THAT(list["a name of thirty-two characters"].mesh, Each(0U));
    machine::tell("wlan2 hears the mesh node %s at %u MHz, figure %d", found.essid, found.freq, found.rssi);
}

TEST_F(Scan, RequestNamesNetworkAndFrequencies)
{
    // An access point that does not tell its name answers only who asks for it.
    const machine::access_point hidden("wlan0", {.ssid = "hidden", .channel = 11, .more = "ignore_broadcast_ssid=1\n"});
    const uint32_t freqs[] = {2412, 2462};
    site::run("ip link set wlan3 up");
    site::run("sh -c 'iw event >/tmp/events 2>&1 & echo $! >/tmp/events.pid'");
    ASSERT_TRUE(machine::eventually([&] { // it listens once it tells of this
        site::run("iw dev wlan3 interface add probe type managed; iw dev probe del");
        return !site::read_file("/tmp/events").empty();
    }));
    ASSERT_EQ(0, vela_scan_request_freqs("wlan3", "hidden", freqs, 2));
    EXPECT_TRUE(hears("wlan3", "hidden"));
    EXPECT_TRUE(tells("scan finished: 2412 2462, \"hidden\"")) << site::read_file("/tmp/events");

    // No list or none counted: all frequencies.
    ASSERT_TRUE(machine::eventually([&] { return vela_scan_request_freqs("wlan3", nullptr, freqs, 0) == 0; }));
    machine::iw("dev wlan3 scan abort");
    EXPECT_TRUE(tells("scan aborted: 2412 2417 2422")) << site::read_file("/tmp/events");
    site::run("kill $(cat /tmp/events.pid)");
}

TEST_F(Scan, FailuresAreTheKernelsOwn)
{
    site::run("ip link set wlan3 down");
    EXPECT_EQ(-ENETDOWN, vela_scan_request("wlan3", nullptr));
    EXPECT_EQ(-ENODEV, vela_scan_request("nowhere", nullptr));
    site::run("ip link set wlan3 up");
    EXPECT_EQ(-EINVAL, vela_scan_request("wlan3", std::string(33, 'n').c_str()));
    const std::vector<uint32_t> many(20000, 2412);
    EXPECT_EQ(-ENOMEM, vela_scan_request_freqs("wlan3", nullptr, many.data(), static_cast<int>(many.size())));
}
