#include "tests/wifi/machine.h"

#include <gmock/gmock.h>
#include <memory>
#include <set>
#include <sstream>
#include <vela/wireless/scan.h>

namespace
{

using lines = std::multiset<std::string>; // "BSSID FREQUENCY FIGURE INTERVAL ESSID"

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

std::unique_ptr<scan_list, decltype(&free_scanlist)> list_of(const char *ifname)
{
    return {get_scanlist(ifname), free_scanlist};
}

const scan_entry *find(const scan_list *list, const std::string &essid)
{
    for (const scan_entry *e = list->first; e != reinterpret_cast<const scan_entry *>(list); e = e->next) {
        if (e->essid == essid) return e;
    }
    return nullptr;
}

lines from_list(const scan_list *list)
{
    lines result;
    for (const scan_entry *e = list->first; e != reinterpret_cast<const scan_entry *>(list); e = e->next) {
        char line[96];
        snprintf(line, sizeof line, "%02x:%02x:%02x:%02x:%02x:%02x %u %d %u %s", e->bssid[0], e->bssid[1], e->bssid[2],
                 e->bssid[3], e->bssid[4], e->bssid[5], e->freq, e->rssi, e->beacon_interval, e->essid);
        result.insert(line);
    }
    return result;
}

bool hears(const char *ifname, const std::string &essid)
{
    return machine::eventually([&] { return find(list_of(ifname).get(), essid) != nullptr; });
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

    const auto list = list_of("wlan2");
    EXPECT_EQ(from_iw("wlan2"), from_list(list.get()));

    const scan_entry *const node_entry = find(list.get(), "mesh");
    EXPECT_THAT(node_entry->mesh, testing::Each(1U));
    EXPECT_EQ(0, memcmp(node.serial, node_entry->serial, 6));
    EXPECT_THAT(find(list.get(), "a name of thirty-two characters")->mesh, testing::Each(0U));
    machine::tell("wlan2 hears the mesh node %s at %u MHz, figure %d", node_entry->essid, node_entry->freq,
                  node_entry->rssi);
}

TEST_F(Scan, RequestNamesNetworkAndFrequencies)
{
    // An access point that does not tell its name answers only who asks for it.
    const machine::access_point hidden("wlan0", {.ssid = "hidden", .channel = 11, .more = "ignore_broadcast_ssid=1\n"});
    const uint32_t freqs[] = {2412, 2462};
    site::run("ip link set wlan3 up");
    site::run("sh -c 'iw event >/tmp/events 2>&1 & echo $! >/tmp/events.pid'");
    ASSERT_TRUE(machine::eventually([&] {
        site::run(
            "iw dev wlan3 interface add probe type managed; iw dev probe del"); // iw listens once it tells of this
        return !site::read_file("/tmp/events").empty();
    }));
    ASSERT_EQ(0, vela_scan_request_freqs("wlan3", "hidden", freqs, 2));
    EXPECT_TRUE(hears("wlan3", "hidden"));
    EXPECT_TRUE(machine::eventually([] {
        return site::read_file("/tmp/events").find("scan finished: 2412 2462, \"hidden\"") != std::string::npos;
    })) << site::read_file("/tmp/events");

    // No list or none counted: all frequencies.
    ASSERT_TRUE(machine::eventually([&] { return vela_scan_request_freqs("wlan3", nullptr, freqs, 0) == 0; }));
    machine::iw("dev wlan3 scan abort");
    EXPECT_TRUE(machine::eventually([] {
        return site::read_file("/tmp/events").find("scan aborted: 2412 2417 2422") != std::string::npos;
    })) << site::read_file("/tmp/events");
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
