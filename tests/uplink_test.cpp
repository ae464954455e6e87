#include "site/world.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <vela/board/board.h>
#include <vela/mesh/uplink.h>

using testing::ElementsAre;

namespace
{

using strings = std::vector<std::string>;

strings names(uplink_table &t)
{
    strings result;
    for (int i = 0; i < get_uplink_wds_iface_len(&t); ++i)
        result.emplace_back(get_uplink_wds_iface_devname_by_index(&t, i));
    return result;
}

uplink_table table_of(const strings &names)
{
    uplink_table t = {.active = -1};
    for (const auto &name : names) EXPECT_EQ(0, add_uplink_wds_ifaces_info_devname(&t, name.c_str()));
    return t;
}

} // namespace

TEST(Uplink, ActiveIndexStaysWithinTheTable)
{
    uplink_table t = table_of({"ath3"});
    for (const auto &[index, result] : {std::pair{-1, -1}, {1, -1}, {0, 0}}) {
        EXPECT_EQ(result, set_active_uplink_wds_iface_index(&t, index)) << index;
        EXPECT_EQ(result == 0 ? t.entries[0].mac : nullptr, get_active_uplink_wds_iface_mac(&t)) << index;
    }
    initialize_uplink_wds_ifaces_info(&t);
    EXPECT_EQ(0, get_active_uplink_wds_iface_index(&t)) << "kept";
    EXPECT_FALSE(has_active_uplink_wds_iface(&t));
    t.count = 9; // a table gone wrong never leads outside its entries
    EXPECT_EQ(nullptr, get_uplink_wds_iface_scan_records_by_index(&t, 4));

    set_active_uplink_wds_iface_index_timestamp(&t, UINT32_MAX - 10);
    EXPECT_EQ(0, passed_active_uplink_wds_iface_index_timetamp_threshold(&t, 23));
    EXPECT_EQ(1, passed_active_uplink_wds_iface_index_timetamp_threshold(&t, 24)) << "across the wrap";
}

TEST(Uplink, PopulatesFromTheListedNames)
{
    static board_record board = {};
    update_cached_board(&board);
    log_lines log("warn");
    uplink_table t;
    for (const auto &[listed, result, expected] : table<std::string, int, strings>{
             {"", 0, {"ath0"}},
             {"\n\r\n", 0, {"ath0"}},
             {"ath1.10\r\nath2", 0, {"ath1.10", "ath2"}},
             {"a-name-of-forty-characters-is-much-too-lo\nath2\n", 0, {"a-name-of-forty", "ath2"}},
             {"ath1\nath2\nath3\nath4\nath5\n", -1, {"ath1", "ath2", "ath3", "ath4"}},
         }) {
        if (!listed.empty()) site::put_file("/var/run/uplink_wds", listed);
        EXPECT_EQ(result, populate_uplink_wds_ifnames_info_devnames(&t)) << listed;
        EXPECT_EQ(expected, names(t)) << listed;
    }
    EXPECT_THAT(log.shown(), ElementsAre("[warn] vwire.add_uplink_wds_ifaces_info_devname(): "
                                         "cannot add uplink interface ath5, support only 4"));
    for (const uint16_t id : {42655, 59911}) { // on these products without the VLAN
        board.system_id = id;
        EXPECT_STREQ("ath1", table_of({"ath1.10"}).entries[0].devname) << id;
    }
}

TEST(Uplink, RealDeviceComesFromTheVlanTable)
{
    char real[16];
    EXPECT_EQ(0, get_real_ifname("ath1.10", real));
    EXPECT_STREQ("ath1.10", real) << "no table";
    site::remove_file("/proc/net");
    for (const auto &[vlans, expected] : table<std::string, const char *>{
             {"VLAN Dev name    | VLAN ID\nName-Type: VLAN_NAME\nath1.10        | 10  | ath1\n", "ath1"},
             {"ath1.10| 10 | ath1\nath1.1| 1 | ath9\n", "ath9"}, // a prefix, and the last one
             {"|||\n\n | \nath1.10 | 10\n", "ath1.10"},
             {"ath1.10 | 10 | a-device-name-too-long\r\n", "a-device-name-t"},
             {"ath1.10 | 10 |" + std::string(48, ' ') + "ath1\n", "a"}, // cut at 63
         }) {
        site::put_file("/proc/net/vlan/config", vlans);
        EXPECT_EQ(0, get_real_ifname("ath1.10", real));
        EXPECT_STREQ(expected, real) << vlans;
    }
    uplink_table t = table_of({"ath2", "ath1.10"});
    EXPECT_EQ(1, is_uplink_wds_iface(&t, "a"));
    EXPECT_EQ(1, is_uplink_wds_iface(&t, "ath2"));
    EXPECT_EQ(0, is_uplink_wds_iface(&t, "ath1.10"));
    EXPECT_EQ(0, is_uplink_wds_iface(&t, nullptr));
}

TEST(Uplink, FindsTheMultiLinkDevice)
{
    site::put_file("/var/run/mld_devnames", "mld0\n\nmld1\r\nmld2\n");
    site::put_file("/var/run/mld1.ath0", "02:56:4C:00:00:0f\n");
    site::put_file("/var/run/mld2.ath0", "02:56:4c:00:00:10\n");
    site::put_file("/var/run/mld2.ath1", "nothing\n");
    const uplink_table t = table_of({"ath0", "ath1", "ath2"});
    EXPECT_STREQ("mld1", t.entries[0].mld_devname);
    EXPECT_THAT(t.entries[0].mld_mac, ElementsAre(2, 0x56, 0x4c, 0, 0, 0x0f));
    EXPECT_STREQ("mld2", t.entries[1].mld_devname);
    EXPECT_THAT(t.entries[1].mld_mac, testing::Each(0));
    EXPECT_STREQ("", t.entries[2].mld_devname);
}

TEST(Uplink, IdentifiesFromEitherSetOfFiles)
{
    const auto identified = [] {
        uplink_table t = {};
        char wired[16] = "old";
        const int result = uplink_ifname_identify(&t, wired, sizeof wired);
        strings found = names(t);
        found.insert(found.begin(), {std::to_string(result), wired});
        return found;
    };
    EXPECT_THAT(identified(), ElementsAre("-1", "old"));
    site::put_file("/var/run/wlan_configured_devnames", "ath0 ath1\n\tath2");
    site::put_file("/var/run/vapusage.ath0", "user\n");
    site::put_file("/var/run/vapusage.ath2", "  uplink guest\n");
    site::put_file("/var/run/uplink_wds", "ath5\n");
    EXPECT_THAT(identified(), ElementsAre("0", "eth0", "ath2"));
    site::put_file("/var/run/uplink_eth", "eth2\n");
    EXPECT_THAT(identified(), ElementsAre("0", "eth2", "ath5"));
    site::put_file("/var/run/uplink_eth", "\n");
    EXPECT_THAT(identified(), ElementsAre("0", "eth0", "ath5"));
}

// Here there is no radio: every request fails, is logged, and the next interface is asked.
TEST(Uplink, ScansGoOnAfterFailures)
{
    site::put_file("/proc/vl_neighbor/5g_chans", "36 40\t0 -3 x 999 149\n");
    uplink_table t = table_of({"ath0", "ath1"});
    log_lines log("info");
    const leak_check leaks;
    scan_all_uplink_wds_ifaces(nullptr, &t, 0);
    scan_24G_for_out_of_range("ath9");
    scan_all_uplink_wds_ifaces_neighbor(nullptr, &t);
    leaks.expect_unchanged();
    const std::string failed = "[error] vwire.vela_wifi_scan(): vela_scan_request failure";
    const std::string step = "[info] vwire.scan_all_uplink_wds_ifaces_neighbor(): neighbor scan: ";
    EXPECT_THAT(log.shown(), testing::IsSupersetOf({failed, failed, failed, step + "5GHz=3 6GHz=0 channels",
                                                    step + "ath0 full scan (can't determine band)", failed,
                                                    step + "ath1 full scan (can't determine band)", failed}));
}
