#include "site/world.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <vela/board/board.h>
#include <vela/board/model.h>

namespace
{

using predicate = int (*)(void);
template <class... P> constexpr std::array<predicate, sizeof...(P)> all(P... p) { return {p...}; }
constexpr auto predicates =
    all(is_router_ap, is_hbx_switch, is_linkbar, is_hbx, is_orb4, is_orb5, is_orb6, is_orb6_tier2, is_orb6_wallplate,
        is_orb7_wallplate, is_orb_ac_wallplate, is_home_router7, is_orb7, is_orb7_tier2, is_orb_cellular,
        is_force_detect_loop, is_6ghz_supported, is_orb_ap, is_qca_ap, is_green_ap_supported, use_global_hostapd,
        is_orb6_variant_aqr112c);
// The system ids that each holds for, added up.
constexpr unsigned ids_of[] = {127926,  42655,   59911,   102566,  241805,  297658, 468505, 85162,
                               85160,   42661,   117534,  127968,  1510204, 298639, 117857, 113001,
                               1040807, 2518172, 1936034, 1151668, 1510204, 42528};

} // namespace

TEST(Model, EachFamilyHasItsModels)
{
    static board_record board = {.board_revision = 22};
    update_cached_board(&board);
    std::array<unsigned, predicates.size()> ids = {};
    for (unsigned id = 0; id <= UINT16_MAX; ++id) {
        board.system_id = static_cast<uint16_t>(id);
        for (size_t i = 0; i < ids.size(); ++i) ids[i] += static_cast<unsigned>(predicates[i]()) * id;
    }
    EXPECT_THAT(ids, testing::ElementsAreArray(ids_of));

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
    EXPECT_TRUE(is_poe_powered() == 1 && is_wifi_only() == 0 && get_orb_sysId() == 42651);
    board.capabilities = 0x04;
    EXPECT_TRUE(is_wifi_only() == 1 && is_relay_uplink_supported() == 1 && is_appliance_api() == 0);

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
    EXPECT_EQ("true\nfalse\n", site::read_file(flag) + site::read_file(kernel_flag));
    system_set_value(kernel_flag, "100%s%n");
    EXPECT_EQ("100%s%n\n", site::read_file(kernel_flag)) << "not a format";
    system_set_xxx(nullptr, 1);
    system_set_value(flag, nullptr);
    system_set_xxx(flag, 0);
    EXPECT_FALSE(site::exists(flag));
}
