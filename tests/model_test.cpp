#include "site/world.h"
#include "tests/support/table.h"

#include <gtest/gtest.h>
#include <vela/board/board.h>
#include <vela/board/model.h>

namespace
{

/// The system ids that a predicate holds for: "42512-42516 42528".
std::string ids_of(int (*holds)())
{
    static board_record board = {.board_revision = 22};
    update_cached_board(&board);
    const auto holds_for = [&](unsigned id) { return board.system_id = static_cast<uint16_t>(id), holds() != 0; };
    std::string ids;
    for (unsigned id = 1; id < UINT16_MAX; ++id) {
        if (!holds_for(id)) continue;
        ids += (ids.empty() ? "" : " ") + std::to_string(id);
        const unsigned first = id;
        while (holds_for(id + 1)) ++id;
        if (id != first) ids += "-" + std::to_string(id);
    }
    return ids;
}

} // namespace

TEST(Model, EachFamilyHasItsModels)
{
    const table<int (*)(), const char *> families = {
        {is_router_ap, "42599 42651 42676"},
        {is_hbx_switch, "42655"},
        {is_linkbar, "59911"},
        {is_hbx, "42655 59911"},
        {is_orb4, "60448 60450 60453-60454"},
        {is_orb5, "42512-42516 42528 42560"},
        {is_orb6, "42576-42583 42599 42613 42657"},
        {is_orb6_tier2, "42580 42582"},
        {is_orb6_wallplate, "42578 42582"},
        {is_orb7_wallplate, "42661"},
        {is_orb_ac_wallplate, "58759 58775"},
        {is_home_router7, "42618 42669 42681"},
        {is_orb7, "42618 42625-42626 42629-42632 42642-42644 42646-42649 42651 42654-42655 42660-42662 42665 "
                  "42667-42673 42675-42676 42681-42682 42684 42687 59911"},
        {is_orb7_tier2, "42647-42649 42667 42671 42673 42684"},
        {is_orb_cellular, "58928-58929"},
        {is_force_detect_loop, "56500-56501"},
        {is_6ghz_supported, "42580 42582 42618 42625-42626 42629-42630 42646-42649 42651 42655 42660 42662 42665 "
                            "42667-42668 42670-42671 42681-42682 42684 59911"},
        {is_green_ap_supported, "42625-42626 42629-42632 42642-42644 42646-42649 42654 42660-42662 42665 42667-42668 "
                                "42670-42673 42682 42684 42687"},
        {is_orb6_variant_aqr112c, "42528"}};
    for (const auto &[holds, ids] : families) EXPECT_EQ(ids, ids_of(holds));
    EXPECT_EQ(ids_of([] { return is_orb4() + is_orb5() + is_orb6() + is_orb7(); }), ids_of(is_orb_ap));
    EXPECT_EQ(ids_of([] { return is_orb6() + is_orb7() - (get_orb_sysId() == 42675); }), ids_of(is_qca_ap));
    EXPECT_EQ(ids_of(is_orb7), ids_of(use_global_hostapd));

    static board_record board = {.system_id = 42528};
    update_cached_board(&board);
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
