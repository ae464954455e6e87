// One mesh node and its possible parents, from the first scan to the last choice. How strong a parent is heard, and by
// which of the node's two radios, is set in the simulated air; everything else is the kernel's and hostapd's own.
#include "tests/support/log_lines.h"
#include "tests/wifi/machine.h"

#include <gmock/gmock.h>
#include <map>
#include <optional>
#include <vela/board/board.h>
#include <vela/mesh/afc.h>
#include <vela/mesh/vwire.h>
#include <vela/wireless/freq.h>
#include <vela/wireless/mld.h>

using machine::access_point;
using machine::tell;
using testing::IsSupersetOf;

namespace
{

constexpr int floor_dbm = -96; // what the figure 0 stands for
constexpr const char *preferred_serial = "02:56:4c:00:00:0c";

enum heard_by { ath0_only = 1, ath1_only = 2, both = 3 }; // radios hear those they share a bit with
enum parent : uint8_t { root_5g = 0x0a, root_2g = 0x0b, preferred = 0x0c, stranger = 0x0d, root_6g = 0x06 };

void set_air(const char *ifname, const char *what, int value)
{
    const std::string radio = site::read_file(std::string("/sys/class/net/") + ifname + "/phy80211/name");
    const std::string path = "/sys/kernel/debug/ieee80211/" + radio.substr(0, radio.find('\n')) + "/hwsim/" + what;
    const auto bits = static_cast<unsigned long long>(value); // this kernel reads a minus sign nowhere
    ASSERT_EQ(0, site::run("/bin/echo " + std::to_string(bits) + " >" + path)) << path;
}

/// Makes an access point be heard at so many dB above the floor.
void set_figure(const char *ifname, int figure)
{
    const std::string info = machine::iw(std::string("dev ") + ifname + " info");
    float power_dbm = 0;
    ASSERT_NE(std::string::npos, info.find("txpower ")) << info;
    ASSERT_EQ(1, sscanf(info.c_str() + info.find("txpower "), "txpower %f", &power_dbm)) << info;
    set_air(ifname, "rx_rssi", figure + floor_dbm - static_cast<int>(power_dbm));
}

std::string element_of(uint8_t serial)
{
    const vela_ie ie = {{2, 0x56, 0x4C, 0, 0, serial}, VELA_IE_CONNECTED | VELA_IE_ACCEPTS_UPLINKS, 1, 1};
    uint8_t bytes[VELA_IE_MAX];
    const int length = vela_ie_build(&ie, bytes, sizeof bytes);
    std::string text;
    for (int n = 0; n < length; ++n) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", bytes[n]);
        text += digits;
    }
    return text;
}

struct parent_ap {
    access_point ap;

    parent_ap(const char *ifname, uint8_t serial, int channel, int figure, heard_by reach)
        : ap{ifname,
             {.ssid = "mesh",
              .channel = channel,
              .at_6ghz = serial == root_6g,
              .vendor_elements = serial != 0 ? element_of(serial) : "",
              .more = ""}}
    {
        set_air(ifname, "group", reach);
        set_figure(ifname, figure);
    }
};

/// How a parent is heard, and by which of the node's radios.
struct sound {
    int figure;
    int by;
    bool operator==(const sound &) const = default;
};
void PrintTo(const sound &s, std::ostream *out) { *out << s.figure << " by " << s.by; }
using air = std::map<int, sound>; // by the serial's last byte; 0 without one

struct choice {
    int serial; // its last byte; 0 none
    int index;
    bool operator==(const choice &) const = default;
};

void PrintTo(const choice &c, std::ostream *out) { *out << "parent " << c.serial << " by uplink " << c.index; }

/// The node: two uplink interfaces, the first of them listed as a VLAN.
struct node {
    uplink_table table = {};
    scan_entry *entry = nullptr;

    node() { reset_active_uplink_wds_iface_index(&table); }
    node(const node &) = delete;
    node &operator=(const node &) = delete;
    ~node() { destroy_uplink_wds_iface_scan_records(&table); }

    /// All that the two radios have heard, by serial.
    air collect()
    {
        destroy_uplink_wds_iface_scan_records(&table);
        collect_uplink_wds_iface_scan_records(&table);
        air heard;
        for (int i = 0; i < table.count; ++i) {
            scan_list *list = table.entries[i].scan;
            for (scan_entry *e = list->first; e != reinterpret_cast<scan_entry *>(list); e = e->next) {
                sound &known = heard[e->serial[5]];
                if (e->rssi > known.figure) known = {e->rssi, 0};
                if (e->rssi == known.figure) known.by |= 1 << i;
            }
        }
        return heard;
    }
    /// Listens on the parents' frequencies until the figures are these.
    void hear(const air &wanted)
    {
        air heard;
        const uint32_t freqs[] = {2412, 5180, 5200, 5220, 5975};
        ASSERT_TRUE(machine::eventually([&] {
            for (const char *real : {"ath0", "ath1"}) vela_scan_request_freqs(real, "mesh", freqs, std::size(freqs));
            site::run("sleep 1");
            return (heard = collect()) == wanted;
        })) << testing::PrintToString(heard);
    }
    choice choose(const char *band)
    {
        int index = -7;
        entry = vwire_select_best_for_band(&table, "mesh", 5, band, preferred_serial,
                                           static_cast<int>(strlen(preferred_serial)), nullptr, 0, &index);
        const choice c = {entry ? entry->serial[5] : 0, index};
        if (entry) tell("    %s: ...:%02x at %d on %s", band, c.serial, entry->rssi, table.entries[index].devname);
        if (!entry) tell("    %s: nobody", band);
        return c;
    }
    int choose_band()
    {
        const choice six = choose("6e");
        const scan_entry *const best6 = entry;
        const choice five = choose("na");
        const int index = vwire_decide_best_band_index(best6, six.index, entry, five.index);
        tell("    band: %s", index < 0 ? "none" : index == six.index ? "6 GHz" : "5 GHz");
        return index;
    }
};

void lay_out_node()
{
    machine::fresh_radios(8);
    machine::set_country("DE");
    ASSERT_EQ(0, site::run("mountpoint -q /sys/kernel/debug || mount -t debugfs debugfs /sys/kernel/debug"));
    ASSERT_EQ(0, site::run("ip link set wlan6 name ath0 && ip link set wlan7 name ath1 &&"
                           "ip link add link ath0 name ath0.10 type vlan id 10"));
    set_air("ath0", "group", ath0_only);
    set_air("ath1", "group", ath1_only);
    for (const char *real : {"ath0", "ath1"}) {
        ASSERT_EQ(0, vela_if_set_up(real));
        EXPECT_EQ(1, vela_if_is_up(real));
    }
    site::put_file("/var/run/uplink_wds", "ath0.10\nath1\n");
    site::put_file("/var/run/uplink_eth", "eth0\n");
    site::put_program("/usr/bin/syswrapper.sh",
                      "#!/bin/sh\n[ \"$1\" = set-afc-state ] && echo \"$2\" >/var/run/afc.state\n");
}

/// An outdoor board whose 6 GHz radio must be coordinated.
void need_coordination()
{
    static board_record board = {};
    board.flags = 1;
    board.radio_count = 1;
    board.radios[0].flags = 0x80000000;
    board.radios[0].flags8 = 0x80;
    update_cached_board(&board);
    ASSERT_TRUE(board_requires_afc_for_6g(board_identify()));
}

} // namespace

TEST(Mesh, NodeFindsItsParentAsTheSiteChanges)
{
    ASSERT_NO_FATAL_FAILURE(lay_out_node());
    node n;
    char wired[16];
    ASSERT_EQ(0, uplink_ifname_identify(&n.table, wired, sizeof wired));
    ASSERT_EQ(2, get_uplink_wds_iface_len(&n.table));
    EXPECT_EQ(1, is_uplink_wds_iface(&n.table, "ath0")) << site::read_file("/proc/net/vlan/config");
    tell("A mesh node wakes: uplinks ath0.10 (on ath0) and ath1, wired uplink %s.", wired);

    auto at_5g = std::make_optional<parent_ap>("wlan0", root_5g, 36, 50, both);
    const parent_ap at_2g("wlan1", root_2g, 1, 60, both);
    const parent_ap plain("wlan2", 0, 44, 70, both);
    const parent_ap at_6g("wlan3", root_6g, 5, 30, ath1_only);
    tell("Parents at 2.4, 5 and 6 GHz (the last out of ath0's reach), and a strong stranger of another make.");
    EXPECT_EQ(0, scan_all_uplink_wds_ifaces("mesh", &n.table, 1));
    air heard = {{0, {70, both}}, {root_6g, {30, ath1_only}}, {root_5g, {50, both}}, {root_2g, {60, both}}};
    EXPECT_TRUE(machine::eventually([&] { return !n.collect().empty(); })) << "a full scan finds parents";
    machine::eventually([&] { return n.collect() == heard; }, 10); // it may miss one in the noise: asked again
    n.hear(heard);
    EXPECT_EQ((choice{root_5g, 0}), n.choose("na")) << "not the strongest: only mesh parents count";
    EXPECT_EQ((choice{root_2g, 0}), n.choose("ng"));
    EXPECT_EQ((choice{root_6g, 1}), n.choose("6e"));

    tell("The preferred parent comes up, 3 weaker than the root and heard by ath1 alone: within the margin.");
    const parent_ap chosen("wlan4", preferred, 40, 47, ath1_only);
    heard[preferred] = {47, ath1_only};
    n.hear(heard);
    EXPECT_EQ((choice{preferred, 1}), n.choose("na"));

    tell("A stronger mesh node comes up, 5 above the preferred one: beyond the margin.");
    auto strong = std::make_optional<parent_ap>("wlan5", stranger, 40, 52, both);
    heard[stranger] = {52, both};
    n.hear(heard);
    EXPECT_EQ((choice{stranger, 0}), n.choose("na"));
    tell("The preferred one gains 1.");
    set_figure("wlan4", 48);
    heard[preferred].figure = 48;
    n.hear(heard);
    EXPECT_EQ((choice{preferred, 1}), n.choose("na"));

    tell("The stranger goes away, and the kernel forgets it; so does the root at 5 GHz.");
    strong.reset();
    at_5g.reset();
    for (const char *real : {"ath0", "ath1"}) {
        EXPECT_TRUE(machine::eventually(
            [&] { return machine::iw(std::string("dev ") + real + " scan trigger freq 5180 flush").empty(); }));
    }
    heard.erase(stranger);
    heard.erase(root_5g);
    n.hear(heard);
    EXPECT_EQ((choice{preferred, 1}), n.choose("na"));
    set_air("wlan4", "group", both); // the node moves: ath0 hears it too, and comes first
    heard[preferred].by = both;
    n.hear(heard);
    EXPECT_EQ((choice{preferred, 0}), n.choose("na"));

    tell("Coordination is required at 6 GHz, and waits for the location.");
    ASSERT_NO_FATAL_FAILURE(need_coordination());
    set_afc_state(AFC_WAITING_FOR_LOCATION);
    EXPECT_EQ(0, n.choose_band());
    tell("It becomes active.");
    set_afc_state(AFC_ACTIVE);
    EXPECT_EQ(1, n.choose_band()) << "30 is good enough";
    tell("The 6 GHz parent fades to 20, far below 5 GHz.");
    set_figure("wlan3", 20);
    heard[root_6g].figure = 20;
    n.hear(heard);
    EXPECT_EQ(0, n.choose_band());

    tell("The node joins at 5 GHz.");
    char essid[33] = "old";
    EXPECT_EQ(0, get_if_essid("ath0", essid, sizeof essid));
    EXPECT_STREQ("", essid);
    EXPECT_EQ(VL_UPLINK_NONE, get_wireless_uplink_state());
    site::put_file("/var/run/vapusage.ath0", "uplink\n");
    EXPECT_EQ(VL_UPLINK_CONFIGURED, get_wireless_uplink_state());
    const machine::station joined("ath0", "mesh", 5200);
    EXPECT_EQ(VL_UPLINK_ASSOCIATED, get_wireless_uplink_state());
    EXPECT_EQ(0, get_if_essid("ath0", essid, sizeof essid));
    EXPECT_STREQ("mesh", essid);

    tell("On its channel now, it asks only its neighbours' frequencies when it scans again.");
    site::put_file("/proc/vl_neighbor/5g_chans", "40 44\n");
    log_lines log("info");
    EXPECT_EQ(0, scan_all_uplink_wds_ifaces_neighbor("mesh", &n.table));
    EXPECT_THAT(log.texts(), IsSupersetOf({std::string("neighbor scan: 5GHz=2 6GHz=0 channels"),
                                           std::string("neighbor scan: ath0 5GHz 2 freqs"),
                                           std::string("neighbor scan: ath1 full scan (can't determine band)")}));
    machine::fresh_radios();
}
