// Answers yes/no questions about the device. The system ids of each family are one table (internal/families.h).

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>
#include <unistd.h>
#include <vela/board/board.h>
#include <vela/board/internal/families.h>
#include <vela/board/model.h>
#include <vela/core/file.h>
#include <vela/core/internal/text.h>

namespace
{

namespace families = vela::families;

constexpr const char *mesh_mode_path = "/etc/meshmode.conf";
constexpr const char *management_path = "/etc/persistent/cfg/mgmt";
constexpr const char *setup_completed_key = "mgmt.is_setup_completed";
constexpr std::string_view proc = "/proc";

constexpr uint16_t orb5_ten = 42528;
constexpr int32_t aqr112c_revisions[] = {20, 22};
constexpr uint16_t orb7_other_chips = 42675; // the one of its generation with another maker's radios

enum analytics { analytics_off = 0, analytics_on = 1, analytics_anonymous = 2 };

bool is_one_of(families::id_set family) { return families::contains(family, get_orb_sysId()); }

bool has_other_chips() { return get_orb_sysId() == orb7_other_chips; }

bool is_under_proc(const char *path) { return vela::starts_with(path, proc); }

} // namespace

uint16_t get_orb_sysId(void) { return board_identify()->system_id; }

int is_router_ap(void) { return is_one_of(families::router_ap); }
int is_hbx_switch(void) { return is_one_of(families::hbx_switch); }
int is_linkbar(void) { return is_one_of(families::linkbar); }
int is_hbx(void) { return is_one_of(families::hbx); }
int is_orb4(void) { return is_one_of(families::orb4); }
int is_orb5(void) { return is_one_of(families::orb5); }
int is_orb6(void) { return is_one_of(families::orb6); }
int is_orb6_tier2(void) { return is_one_of(families::orb6_tier2); }
int is_orb6_wallplate(void) { return is_one_of(families::orb6_wallplate); }
int is_orb7_wallplate(void) { return is_one_of(families::orb7_wallplate); }
int is_orb_ac_wallplate(void) { return is_one_of(families::orb_ac_wallplate); }
int is_home_router7(void) { return is_one_of(families::home_router7); }
int is_orb7(void) { return is_one_of(families::orb7); }
int is_orb7_tier2(void) { return is_one_of(families::orb7_tier2); }
int is_orb_cellular(void) { return is_one_of(families::orb_cellular); }
int is_force_detect_loop(void) { return is_one_of(families::force_detect_loop); }
int is_6ghz_supported(void) { return is_one_of(families::six_ghz); }

int is_orb6_variant_aqr112c(void)
{
    const board_record *board = board_identify();
    return board->system_id == orb5_ten &&
           std::ranges::find(aqr112c_revisions, board->board_revision) != std::end(aqr112c_revisions);
}

int is_orb_ap(void) { return is_orb4() || is_orb5() || is_orb6() || is_orb7(); }

int is_qca_ap(void) { return is_orb6() || (is_orb7() && !has_other_chips()); }

int is_green_ap_supported(void)
{
    return is_orb7() && !is_router_ap() && !is_home_router7() && !is_hbx() && !has_other_chips();
}

int use_global_hostapd(void) { return is_orb7(); }

int is_wifi_only(void) { return (board_identify()->capabilities & BOARD_WIFI_ONLY) != 0; }

int is_poe_powered(void) { return board_identify()->poe_powered != 0; }

int is_router_to_mesh(void) { return is_router_ap() && access(mesh_mode_path, F_OK) == 0; }

int is_router_ap_setup_complete(void)
{
    char completed[8];
    (void)freadvalue(management_path, setup_completed_key, completed, sizeof completed, "false");
    return strcmp(completed, "false") != 0;
}

int is_appliance_api(void) { return 0; }

int is_relay_uplink_supported(void) { return 1; }

int get_analytics_mode(const cfg_entry *cfg)
{
    if (!get_bool(cfg, 1, "system.analytics.status")) return analytics_off;
    return get_bool(cfg, 1, "system.analytics.anonymous") ? analytics_anonymous : analytics_on;
}

int get_analytics_coredump_mode(const cfg_entry *cfg) { return get_bool(cfg, 0, "system.analytics.coredump") != 0; }

int system_is_xxx(const char *path, int def)
{
    if (!path || access(path, R_OK) != 0) return def;
    if (!is_under_proc(path)) return 1;
    char text[16];
    return strcmp(freadline(path, text, sizeof text, def ? "true" : "false"), "true") == 0;
}

void system_set_xxx(const char *path, int value)
{
    if (!path) return;
    if (value == 0 && !is_under_proc(path)) {
        (void)unlink(path);
        return;
    }
    (void)fwriteline(path, "%s\n", value != 0 ? "true" : "false");
}

void system_set_value(const char *path, const char *text)
{
    if (!path || !text) return;
    (void)fwriteline(path, "%s\n", text); // a text, never a format
}
