#include "site/device.h"
#include "site/world.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <vela/board/board.h>
#include <vela/mesh/uplink.h>

using testing::ElementsAre;

namespace
{

std::vector<std::string> names(const uplink_table &t)
{
    std::vector<std::string> result;
    for (int i = 0; i < t.count; ++i) result.emplace_back(t.entries[i].devname);
    return result;
}

} // namespace

TEST(Uplink, ActiveIndexStaysWithinTheTable)
{
    uplink_table t = {};
    initialize_uplink_wds_ifaces_info(&t);
    reset_active_uplink_wds_iface_index(&t);
    EXPECT_FALSE(has_active_uplink_wds_iface(&t));
    EXPECT_EQ(nullptr, get_active_uplink_wds_iface(&t));
    add_uplink_wds_ifaces_info_devname(&t, "ath3");
    EXPECT_EQ(-1, set_active_uplink_wds_iface_index(&t, 1));
    EXPECT_EQ(-1, set_active_uplink_wds_iface_index(&t, -1));
    EXPECT_EQ(0, set_active_uplink_wds_iface_index(&t, 0));
    EXPECT_STREQ("ath3", get_active_uplink_wds_iface_devname(&t));
    EXPECT_EQ(t.entries[0].mac, get_active_uplink_wds_iface_mac(&t));
    initialize_uplink_wds_ifaces_info(&t);
    EXPECT_EQ(0, get_active_uplink_wds_iface_index(&t)) << "kept";
    EXPECT_FALSE(has_active_uplink_wds_iface(&t));
    t.count = 9; // a table gone wrong never leads outside its entries
    EXPECT_FALSE(is_uplink_wds_iface_index_valid(&t, 4));
    EXPECT_EQ(nullptr, get_uplink_wds_iface_scan_records_by_index(&t, 4));

    constexpr uint32_t since = UINT32_MAX - 10;
    set_active_uplink_wds_iface_index_timestamp(&t, since);
    EXPECT_EQ(0, passed_active_uplink_wds_iface_index_timetamp_threshold(&t, since + 34));
    EXPECT_EQ(1, passed_active_uplink_wds_iface_index_timetamp_threshold(&t, since + 35)) << "across the wrap";
    EXPECT_EQ(1, passed_active_uplink_wds_iface_index_timetamp_threshold(nullptr, 0));
    initialize_uplink_wds_ifaces_info(nullptr);
    EXPECT_EQ(-1, set_active_uplink_wds_iface_index(nullptr, 0));
    EXPECT_EQ(-1, set_active_uplink_wds_iface_index_timestamp(nullptr, 1));
    EXPECT_EQ(0U, get_active_uplink_wds_iface_index_timestamp(nullptr));
    EXPECT_EQ(-1, add_uplink_wds_ifaces_info_devname(nullptr, "ath0"));
    EXPECT_EQ(-1, get_uplink_wds_iface_len(nullptr));
    EXPECT_EQ(-1, populate_uplink_wds_ifnames_info_devnames(nullptr));
}

TEST(Uplink, PopulatesFromTheListedNames)
{
    site::lay_out_device();
    log_lines log("warn");
    struct {
        const char *file;
        int result;
        std::vector<std::string> names;
    } const cases[] = {
        {nullptr, 0, {"ath0"}},
        {"", 0, {"ath0"}},
        {"\n\r\n", 0, {"ath0"}},
        {"ath1\r\nath2", 0, {"ath1", "ath2"}},
        {"a-name-of-forty-characters-is-much-too-lo\nath2\n", 0, {"a-name-of-forty", "ath2"}},
        {"ath1\nath2\nath3\nath4\nath5\nath6\n", -1, {"ath1", "ath2", "ath3", "ath4"}},
    };
    for (const auto &c : cases) {
        if (c.file) site::put_file("/var/run/uplink_wds", c.file);
        uplink_table t = {};
        EXPECT_EQ(c.result, populate_uplink_wds_ifnames_info_devnames(&t)) << (c.file ? c.file : "no file");
        EXPECT_EQ(c.names, names(t)) << (c.file ? c.file : "no file");
    }
    EXPECT_THAT(log.take(), ElementsAre(log_line{"warn", "vwire", "add_uplink_wds_ifaces_info_devname",
                                                 "cannot add uplink interface ath5, support only 4"},
                                        log_line{"warn", "vwire", "add_uplink_wds_ifaces_info_devname",
                                                 "cannot add uplink interface ath6, support only 4"}));
}

TEST(Uplink, SwitchAndBridgeProductsListVlansOfTheirUplinks)
{
    for (const uint16_t id : {42655, 59911, 42580}) {
        static board_record board;
        board = {};
        board.system_id = id;
        update_cached_board(&board);
        uplink_table t = {};
        add_uplink_wds_ifaces_info_devname(&t, "ath1.10");
        EXPECT_STREQ(id == 42580 ? "ath1.10" : "ath1", t.entries[0].devname) << id;
    }
}

TEST(Uplink, RealDeviceComesFromTheVlanTable)
{
    char real[16];
    EXPECT_EQ(-1, get_real_ifname(nullptr, real));
    EXPECT_EQ(-1, get_real_ifname("ath0", nullptr));
    EXPECT_EQ(0, get_real_ifname("ath1.10", real));
    EXPECT_STREQ("ath1.10", real) << "no table";

    struct {
        std::string table;
        const char *vif, *real;
    } const cases[] = {
        {"VLAN Dev name    | VLAN ID\nName-Type: VLAN_NAME\nath1.10        | 10  | ath1\n", "ath1.10", "ath1"},
        {"ath1.10| 10 | ath1\nath1.1| 1 | ath9\n", "ath1.10", "ath9"}, // a prefix, and the last one
        {"ath1.10 | 10\n", "ath1.10", "ath1.10"},
        {"ath1.10 | 10 | a-device-name-too-long\r\n", "ath1.10", "a-device-name-t"},
        {"|||\n\n | \nath1.10|10|ath1|more", "ath1.10", "ath1"},
        {"ath1.10 | 10 |" + std::string(48, ' ') + "ath1\n", "ath1.10", "a"}, // cut at 63
    };
    for (const auto &c : cases) {
        site::remove_file("/proc/net");
        site::put_file("/proc/net/vlan/config", c.table);
        EXPECT_EQ(0, get_real_ifname(c.vif, real));
        EXPECT_STREQ(c.real, real) << c.table;
    }
    uplink_table t = {};
    site::put_file("/proc/net/vlan/config", "ath1.10 | 10 | ath1\n");
    add_uplink_wds_ifaces_info_devname(&t, "ath1.10");
    EXPECT_EQ(1, is_uplink_wds_iface(&t, "ath1"));
    EXPECT_EQ(0, is_uplink_wds_iface(&t, "ath1.10"));
}

TEST(Uplink, FindsTheMultiLinkDevice)
{
    site::lay_out_device();
    log_lines log("debug");
    site::put_file("/var/run/mld_devnames", "mld0\n\nmld1\r\nmld2\n");
    site::put_file("/var/run/mld1.ath0", "02:56:4C:00:00:0f\n");
    site::put_file("/var/run/mld2.ath0", "02:56:4c:00:00:10\n");
    site::put_file("/var/run/mld2.ath1", "nothing\n");
    uplink_table t = {};
    for (const char *name : {"ath0", "ath1", "ath2"}) add_uplink_wds_ifaces_info_devname(&t, name);
    EXPECT_STREQ("mld1", t.entries[0].mld_devname);
    EXPECT_THAT(t.entries[0].mld_mac, ElementsAre(2, 0x56, 0x4c, 0, 0, 0x0f));
    EXPECT_STREQ("mld2", t.entries[1].mld_devname);
    EXPECT_THAT(t.entries[1].mld_mac, testing::Each(0));
    EXPECT_STREQ("", t.entries[2].mld_devname);
    EXPECT_THAT(log.texts(), ElementsAre("Found MLD device mld1 for interface ath0 with MAC 02:56:4C:00:00:0f"));
}

TEST(Uplink, IdentifiesFromEitherSetOfFiles)
{
    uplink_table t = {};
    char wired[16] = "old";
    EXPECT_EQ(-1, uplink_ifname_identify(&t, wired, sizeof wired));

    site::put_file("/var/run/wlan_configured_devnames", "ath0 ath1\n\tath2");
    site::put_file("/var/run/vapusage.ath0", "user\n");
    site::put_file("/var/run/vapusage.ath2", "  uplink guest\n");
    EXPECT_EQ(0, uplink_ifname_identify(&t, wired, sizeof wired));
    EXPECT_THAT(names(t), ElementsAre("ath2"));
    EXPECT_STREQ("eth0", wired);

    site::put_file("/var/run/uplink_wds", "ath5\n");
    for (const auto &[file, port] : {std::pair{"eth2\n", "eth2"}, {"", "eth0"}}) {
        site::put_file("/var/run/uplink_eth", file);
        EXPECT_EQ(0, uplink_ifname_identify(&t, wired, sizeof wired));
        EXPECT_THAT(names(t), ElementsAre("ath5"));
        EXPECT_STREQ(port, wired);
    }
    EXPECT_EQ(0, uplink_ifname_identify(&t, wired, 3));
    EXPECT_STREQ("et", wired);
}

// Here there is no radio: every request fails, is logged, and the next interface is asked.
TEST(Uplink, ScansGoOnAfterFailures)
{
    site::put_file("/proc/vl_neighbor/5g_chans", "36 40\t0 -3 x 999 149\n");
    uplink_table t = {};
    for (const char *name : {"ath0", "ath1"}) add_uplink_wds_ifaces_info_devname(&t, name);
    log_lines log("info");
    const leak_check leaks;
    EXPECT_EQ(0, scan_all_uplink_wds_ifaces(nullptr, &t, 0));
    EXPECT_EQ(0, scan_24G_for_out_of_range("ath9"));
    std::vector<log_line> own;
    for (const auto &line : log.take()) {
        if (line.module == "vwire") own.push_back(line);
    }
    EXPECT_THAT(own, testing::AllOf(testing::SizeIs(3), testing::Each(log_line{"error", "vwire", "vela_wifi_scan",
                                                                               "vela_scan_request failure"})));
    EXPECT_EQ(0, scan_all_uplink_wds_ifaces_neighbor(nullptr, &t));
    std::vector<std::string> texts;
    for (const auto &line : log.take()) {
        if (line.function == "scan_all_uplink_wds_ifaces_neighbor") texts.push_back(line.text);
    }
    EXPECT_THAT(texts, ElementsAre("neighbor scan: 5GHz=3 6GHz=0 channels",
                                   "neighbor scan: ath0 full scan (can't determine band)",
                                   "neighbor scan: ath1 full scan (can't determine band)"));
    leaks.expect_unchanged();
}
