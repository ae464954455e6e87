#include "site/world.h"
#include "tests/support/table.h"

#include <gtest/gtest.h>
#include <set>
#include <vela/board/board.h>
#include <vela/board/model.h>

namespace
{

using ids = std::set<unsigned>;

const ids router_ap = {42599, 42651, 42676}, hbx = {42655, 59911}, home_router7 = {42618, 42669, 42681};
const ids orb4 = {60448, 60450, 60453, 60454};
const ids orb5 = {42512, 42513, 42514, 42515, 42516, 42528, 42560};
const ids orb6 = {42576, 42577, 42578, 42579, 42580, 42581, 42582, 42583, 42599, 42613, 42657};
const ids orb7 = {42618, 42625, 42626, 42629, 42630, 42631, 42632, 42642, 42643, 42644, 42646, 42647,
                  42648, 42649, 42651, 42654, 42655, 42660, 42661, 42662, 42665, 42667, 42668, 42669,
                  42670, 42671, 42672, 42673, 42675, 42676, 42681, 42682, 42684, 42687, 59911};
const ids six_ghz = {42580, 42582, 42618, 42625, 42626, 42629, 42630, 42646, 42647, 42648, 42649, 42651,
                     42655, 42660, 42662, 42665, 42667, 42668, 42670, 42671, 42681, 42682, 42684, 59911};

ids operator+(ids a, const ids &b) { return a.insert(b.begin(), b.end()), a; }
ids operator-(ids a, const ids &b)
{
    return std::erase_if(a, [&b](unsigned id) { return b.contains(id); }), a;
}

} // namespace

TEST(Model, EachFamilyHasItsModels)
{
    const table<const char *, int (*)(), ids> families = {
        {"router_ap", is_router_ap, router_ap},
        {"hbx_switch", is_hbx_switch, {42655}},
        {"linkbar", is_linkbar, {59911}},
        {"hbx", is_hbx, hbx},
        {"orb4", is_orb4, orb4},
        {"orb5", is_orb5, orb5},
        {"orb6", is_orb6, orb6},
        {"orb6_tier2", is_orb6_tier2, {42580, 42582}},
        {"orb6_wallplate", is_orb6_wallplate, {42578, 42582}},
        {"orb7_wallplate", is_orb7_wallplate, {42661}},
        {"orb_ac_wallplate", is_orb_ac_wallplate, {58759, 58775}},
        {"home_router7", is_home_router7, home_router7},
        {"orb7", is_orb7, orb7},
        {"orb7_tier2", is_orb7_tier2, {42647, 42648, 42649, 42667, 42671, 42673, 42684}},
        {"orb_cellular", is_orb_cellular, {58928, 58929}},
        {"force_detect_loop", is_force_detect_loop, {56500, 56501}},
        {"6ghz", is_6ghz_supported, six_ghz},
        {"orb_ap", is_orb_ap, orb4 + orb5 + orb6 + orb7},
        {"qca_ap", is_qca_ap, orb6 + orb7 - ids{42675}},
        {"green_ap", is_green_ap_supported, orb7 - router_ap - home_router7 - hbx - ids{42675}},
        {"global_hostapd", use_global_hostapd, orb7},
        {"variant_aqr112c", is_orb6_variant_aqr112c, {42528}},
    };
    static board_record board = {.board_revision = 22};
    update_cached_board(&board);
    for (const auto &[name, holds, expected] : families) {
        ids found;
        for (unsigned id = 0; id <= UINT16_MAX; ++id) {
            board.system_id = static_cast<uint16_t>(id);
            if (holds()) found.insert(id);
        }
        EXPECT_EQ(expected, found) << name;
    }

    board.system_id = 42528;
    for (const int revision : {19, 20, 21}) {
        board.board_revision = revision;
        EXPECT_EQ(revision == 20, is_orb6_variant_aqr112c()) << revision;
    }
}

TEST(Model, TraitsAndSetup)
{
    static board_record board = {.system_id = 42651, .poe_powered = 0x80, .capabilities = 0xFB};
    update_cached_board(&board);
    EXPECT_EQ(42651, get_orb_sysId());
    EXPECT_EQ(1, is_poe_powered());
    EXPECT_EQ(0, is_wifi_only());
    board.capabilities = 0x04;
    EXPECT_EQ(1, is_wifi_only());
    EXPECT_EQ(1, is_relay_uplink_supported());
    EXPECT_EQ(0, is_appliance_api());

    EXPECT_EQ(0, is_router_to_mesh());
    site::put_file("/etc/meshmode.conf", "");
    EXPECT_EQ(1, is_router_to_mesh());
    board.system_id = 42630;
    EXPECT_EQ(0, is_router_to_mesh()) << "no router";
    EXPECT_EQ(0, is_router_ap_setup_complete()) << "no file";
    for (const auto &[value, complete] :
         table<std::string, int>{{"true", 1}, {"false", 0}, {"falsehood", 1}, {"", 0}}) {
        site::put_file("/etc/persistent/cfg/mgmt", "mgmt.is_setup_completed=" + value + "\n");
        EXPECT_EQ(complete, is_router_ap_setup_complete()) << value;
    }
}

TEST(Model, AnalyticsAsConfigured)
{
    const auto modes = [](const char *config) {
        site::put_file("/tmp/system.cfg", config);
        cfg_entry *cfg = parse("/tmp/system.cfg");
        const auto both = std::pair(get_analytics_mode(cfg), get_analytics_coredump_mode(cfg));
        free_cfg(cfg);
        return both;
    };
    EXPECT_EQ(std::pair(2, 0), modes(""));
    EXPECT_EQ(std::pair(1, 1), modes("system.analytics.anonymous=disabled\nsystem.analytics.coredump=1\n"));
    EXPECT_EQ(std::pair(0, 0), modes("system.analytics.status=off\nsystem.analytics.anonymous=on\n"));
}

TEST(Model, FlagsAreFiles)
{
    const char *flag = "/run/flag", *kernel_flag = "/proc/velahal/flag";
    for (const char *path : {flag, kernel_flag, static_cast<const char *>(nullptr)})
        EXPECT_EQ(7, system_is_xxx(path, 7));
    site::put_file(flag, "false\n");
    EXPECT_EQ(1, system_is_xxx(flag, 0)) << "being there is enough";
    for (const auto &[text, is] : table<const char *, int>{{"true\n", 1}, {"false\n", 0}, {"truest\n", 0}, {"", 1}}) {
        site::put_file(kernel_flag, text);
        EXPECT_EQ(is, system_is_xxx(kernel_flag, 7)) << text;
    }

    system_set_xxx(flag, 2);
    system_set_xxx(kernel_flag, 0);
    EXPECT_EQ("true\n", site::read_file(flag));
    EXPECT_EQ("false\n", site::read_file(kernel_flag));
    system_set_value(kernel_flag, "100%s%n");
    EXPECT_EQ("100%s%n\n", site::read_file(kernel_flag)) << "not a format";
    system_set_xxx(nullptr, 1);
    system_set_value(flag, nullptr);
    system_set_xxx(flag, 0);
    EXPECT_FALSE(site::exists(flag));
}
