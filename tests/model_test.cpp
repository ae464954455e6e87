#include "site/device.h"
#include "site/world.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <vela/board/board.h>
#include <vela/board/model.h>

namespace
{

constexpr struct {
    const char *name;
    int (*holds)(void);
    int models; // how many system ids it holds for
} predicates[] = {{"router_ap", is_router_ap, 3},
                  {"hbx_switch", is_hbx_switch, 1},
                  {"linkbar", is_linkbar, 1},
                  {"hbx", is_hbx, 2},
                  {"orb4", is_orb4, 4},
                  {"orb5", is_orb5, 7},
                  {"orb6", is_orb6, 11},
                  {"orb6_tier2", is_orb6_tier2, 2},
                  {"orb6_wallplate", is_orb6_wallplate, 2},
                  {"orb7_wallplate", is_orb7_wallplate, 1},
                  {"orb_ac_wallplate", is_orb_ac_wallplate, 2},
                  {"home_router7", is_home_router7, 3},
                  {"orb7", is_orb7, 35},
                  {"orb7_tier2", is_orb7_tier2, 7},
                  {"orb_cellular", is_orb_cellular, 2},
                  {"force_detect_loop", is_force_detect_loop, 2},
                  {"6ghz", is_6ghz_supported, 24},
                  {"orb_ap", is_orb_ap, 57},
                  {"qca", is_qca_ap, 45},
                  {"green", is_green_ap_supported, 27},
                  {"global_hostapd", use_global_hostapd, 35},
                  {"aqr112c", is_orb6_variant_aqr112c, 1}};

/// The board that every test here asks about, blank again.
board_record &fresh_board()
{
    static board_record board;
    board = {};
    update_cached_board(&board);
    return board;
}

std::string holding()
{
    std::string names;
    for (const auto &p : predicates) {
        const int answer = p.holds();
        EXPECT_TRUE(answer == 0 || answer == 1) << p.name;
        if (answer) names += std::string(p.name) + " ";
    }
    return names;
}

} // namespace

TEST(Model, BelongsToItsGenerationAndSubFamilies)
{
    board_record &board = fresh_board();
    const table<uint16_t, int32_t, const char *> cases = {
        {42582, 0, "orb6 orb6_tier2 orb6_wallplate 6ghz orb_ap qca "},
        {59911, 0, "linkbar hbx orb7 6ghz orb_ap qca global_hostapd "},
        {42655, 0, "hbx_switch hbx orb7 6ghz orb_ap qca global_hostapd "},
        {42675, 0, "orb7 orb_ap global_hostapd "},
        {42618, 0, "home_router7 orb7 6ghz orb_ap qca global_hostapd "},
        {42676, 0, "router_ap orb7 orb_ap qca global_hostapd "},
        {42661, 0, "orb7_wallplate orb7 orb_ap qca green global_hostapd "},
        {42673, 0, "orb7 orb7_tier2 orb_ap qca green global_hostapd "},
        {42528, 20, "orb5 orb_ap aqr112c "},
        {42528, 22, "orb5 orb_ap aqr112c "},
        {42528, 21, "orb5 orb_ap "},
        {60453, 0, "orb4 orb_ap "},
        {58775, 0, "orb_ac_wallplate "},
        {58929, 0, "orb_cellular "},
        {56501, 0, "force_detect_loop "}};
    for (const auto &[sysid, revision, families] : cases) {
        board.system_id = sysid;
        board.board_revision = revision;
        EXPECT_EQ(families, holding()) << sysid;
        EXPECT_EQ(sysid, get_orb_sysId());
    }

    board.board_revision = 22;
    for (const auto &p : predicates) { // no set holds more than its models
        int models = 0;
        for (unsigned id = 0; id <= UINT16_MAX; ++id) {
            board.system_id = static_cast<uint16_t>(id);
            models += p.holds();
        }
        EXPECT_EQ(p.models, models) << p.name;
    }

    const log_lines quiet;
    update_cached_board(nullptr);
    EXPECT_EQ("", holding()) << "a device that cannot be identified";
}

TEST(Model, TraitsOfTheRecord)
{
    board_record &board = fresh_board();
    for (const int bits : {0x00, 0xFB, 0x04, 0xFF}) {
        board.capabilities = static_cast<uint8_t>(bits);
        EXPECT_EQ((bits & 4) / 4, is_wifi_only()) << bits;
    }
    EXPECT_EQ(0, is_poe_powered());
    board.poe_powered = 0x80;
    EXPECT_EQ(1, is_poe_powered());
    EXPECT_EQ(0, is_appliance_api());
    EXPECT_EQ(1, is_relay_uplink_supported());
}

TEST(Model, RouterSetup)
{
    board_record &board = fresh_board();
    for (const bool mesh_mode : {false, true}) {
        if (mesh_mode) site::put_file("/etc/meshmode.conf", "");
        for (const auto &[sysid, is_router] : table<uint16_t, bool>{{42651, true}, {42630, false}}) {
            board.system_id = sysid;
            EXPECT_EQ(is_router && mesh_mode, is_router_to_mesh());
        }
    }
    EXPECT_EQ(0, is_router_ap_setup_complete()) << "no file";
    const table<std::string, int> cases = {{"true", 1}, {"false", 0}, {"False", 1}, {"falsehood", 1}, {"", 0}};
    for (const auto &[value, complete] : cases) {
        site::put_file("/etc/persistent/cfg/mgmt", "mgmt.is_setup_completed=" + value + "\n");
        EXPECT_EQ(complete, is_router_ap_setup_complete()) << value;
    }
}

TEST(Model, AnalyticsAsConfigured)
{
    const table<const char *, int, int> cases = {
        {"", 2, 0},
        {"system.analytics.anonymous=disabled\nsystem.analytics.coredump=1\n", 1, 1},
        {"system.analytics.status=off\nsystem.analytics.anonymous=on\n", 0, 0},
        {"system.analytics.status=perhaps\nsystem.analytics.coredump=perhaps\n", 2, 0}};
    for (const auto &[config, mode, coredump] : cases) {
        site::put_file("/tmp/system.cfg", config);
        cfg_entry *cfg = parse("/tmp/system.cfg");
        EXPECT_EQ(mode, get_analytics_mode(cfg)) << config;
        EXPECT_EQ(coredump, get_analytics_coredump_mode(cfg)) << config;
        free_cfg(cfg);
    }
}

TEST(Model, FlagsAreFiles)
{
    const char *flag = "/run/flag", *kernel_flag = "/proc/velahal/flag";
    for (const int fallback : {0, 1, 7}) {
        for (const char *path : {flag, kernel_flag, static_cast<const char *>(nullptr)}) {
            EXPECT_EQ(fallback, system_is_xxx(path, fallback));
        }
    }
    site::put_file(flag, "false\n");
    EXPECT_EQ(1, system_is_xxx(flag, 0)) << "being there is enough";
    const table<const char *, int, int> texts = {
        {"true\n", 0, 1}, {"true", 0, 1}, {"false\n", 1, 0}, {"truest\n", 1, 0}, {"1\n", 1, 0}, {"", 1, 1}, {"", 0, 0}};
    for (const auto &[text, fallback, is] : texts) { // nothing read gives the default
        site::put_file(kernel_flag, text);
        EXPECT_EQ(is, system_is_xxx(kernel_flag, fallback)) << text;
    }

    const leak_check held;
    system_set_xxx(flag, 2);
    EXPECT_EQ("true\n", site::read_file(flag));
    system_set_xxx(kernel_flag, 0);
    EXPECT_EQ("false\n", site::read_file(kernel_flag));
    system_set_value(kernel_flag, "100%s%n");
    EXPECT_EQ("100%s%n\n", site::read_file(kernel_flag)) << "not a format";
    system_set_xxx(nullptr, 1);
    for (const auto &[path, text] :
         table<const char *, const char *>{{nullptr, "x"}, {flag, nullptr}, {"/no/flag", "x"}}) {
        system_set_value(path, text);
    }
    EXPECT_EQ("true\n", site::read_file(flag));
    held.expect_unchanged();
    system_set_xxx(flag, 0);
    EXPECT_FALSE(site::exists(flag));
}
