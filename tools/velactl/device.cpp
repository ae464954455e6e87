// Who the device is: board, ports, families, status.
#include "command.h"

#include <vela/board/board.h>
#include <vela/board/model.h>
#include <vela/board/status.h>
#include <vela/core/log.h>
#include <vela/wireless/freq.h>

namespace velactl
{
namespace
{

const board_record &identified_board()
{
    const board_record *board = board_identify();
    if (!board || std::string(board->model_name) == "Unknown") {
        throw trouble(status::unavailable,
                      "this is no board of the table: /proc/velahal/system.info is missing or names "
                      "an unknown system id");
    }
    return *board;
}

std::string hexadecimal(unsigned value, int digits)
{
    char text[16];
    snprintf(text, sizeof text, "0x%0*x", digits, value);
    return text;
}

json board(arguments)
{
    const board_record &b = identified_board();
    json result = object();
    set(result, "model", b.model_name);
    set(result, "code", b.short_code);
    set(result, "system_id", hexadecimal(b.system_id, 4));
    set(result, "revision", b.board_revision);
    set(result, "serial", address(b.serial));
    set(result, "cpu_id", hexadecimal(b.cpu_id, 8));
    set(result, "poe_budget_w", board_get_poe_budget());
    set_flag(result, "outdoor", board_is_outdoor_capable(&b));
    set_flag(result, "needs_afc_for_6ghz", board_requires_afc_for_6g(&b));
    set(result, "wifi_cap", hexadecimal(get_wifi_cap(), 8));
    set(result, "wifi_cap2", hexadecimal(get_wifi_cap2(), 8));
    json radios{json_array()};
    for (int i = 0; i < b.radio_count; ++i) json_array_append_new(radios.get(), json_string(get_radio_dev_name(i)));
    set(result, "radios", std::move(radios));
    return result;
}

json ports(arguments)
{
    const board_record &b = identified_board();
    json result{json_array()};
    unsigned group = 0;
    unsigned port = 0;
    while (const phy_port *p = board_get_next_phy(&b, &group, &port)) {
        json row = object();
        set(row, "port", p->port_id);
        set(row, "phy", p->phy_index);
        set(row, "interface", p->name);
        set(row, "media", board_get_phy_port_media(p));
        set(row, "label", p->label);
        set_flag(row, "main", p == get_main_phy());
        append(result, std::move(row));
    }
    return result;
}

struct predicate {
    const char *name;
    int (*holds)(void);
};

json family(arguments)
{
    (void)identified_board();
    static const predicate predicates[] = {
        {"orb_ap", is_orb_ap},
        {"orb4", is_orb4},
        {"orb5", is_orb5},
        {"orb6", is_orb6},
        {"orb6_tier2", is_orb6_tier2},
        {"orb6_wallplate", is_orb6_wallplate},
        {"orb7", is_orb7},
        {"orb7_tier2", is_orb7_tier2},
        {"orb7_wallplate", is_orb7_wallplate},
        {"orb_ac_wallplate", is_orb_ac_wallplate},
        {"orb_cellular", is_orb_cellular},
        {"router_ap", is_router_ap},
        {"home_router7", is_home_router7},
        {"hbx", is_hbx},
        {"hbx_switch", is_hbx_switch},
        {"linkbar", is_linkbar},
        {"6ghz", is_6ghz_supported},
        {"green_ap", is_green_ap_supported},
        {"wifi_only", is_wifi_only},
        {"poe_powered", is_poe_powered},
    };
    json result = object();
    for (const auto &p : predicates) set_flag(result, p.name, p.holds() != 0);
    return result;
}

json status_of_device(arguments)
{
    static const char *const stages[] = {"production", "staging", "development"};
    const char *version = nullptr;
    char up[32];
    char now[32] = "";
    (void)get_version(&version); // says "unknown.0" itself
    const auto seconds = static_cast<unsigned>(get_uptime_from_sysinfo());
    uptime2str(seconds, up, sizeof up);
    (void)get_system_time_str(now, sizeof now);
    const int stage = get_brix_env(nullptr);
    json result = object();
    set(result, "version", version);
    set(result, "manufacturer_id", hexadecimal(get_manufid(), 4));
    set(result, "stage", stage >= 0 && stage <= 2 ? stages[stage] : "?");
    set(result, "uptime", up);
    set(result, "uptime_s", static_cast<long long>(seconds));
    set(result, "local_time", now);
    return result;
}

constexpr field board_fields[] = {
    {"model", kind::text, "its name"},
    {"code", kind::text, "its short code"},
    {"system_id", kind::text, "hexadecimal"},
    {"revision", kind::number, "of the board"},
    {"serial", kind::text, "the base MAC address"},
    {"cpu_id", kind::text, "hexadecimal"},
    {"poe_budget_w", kind::number, "for its outlets, in watts"},
    {"outdoor", kind::flag, "may be mounted outside"},
    {"needs_afc_for_6ghz", kind::flag, "6 GHz wants a frequency coordination"},
    {"wifi_cap", kind::text, "capability bits, hexadecimal"},
    {"wifi_cap2", kind::text, "further ones"},
    {"radios", kind::list, "interface names"},
};
constexpr field port_fields[] = {
    {"port", kind::number, "its id"},      {"phy", kind::number, "its PHY"},
    {"interface", kind::text, "its name"}, {"media", kind::text, "GE, 10GE, SFP+ ..."},
    {"label", kind::text, "as printed"},   {"main", kind::flag, "the one that leads up"},
};
constexpr field status_fields[] = {
    {"version", kind::text, "of the firmware"},
    {"manufacturer_id", kind::text, "hexadecimal"},
    {"stage", kind::text, "production, staging or development"},
    {"uptime", kind::text, "for people"},
    {"uptime_s", kind::number, "in seconds"},
    {"local_time", kind::text, "of the device"},
};

constexpr command commands[] = {
    {"board", "", "model, system id, radios, power", 0, 0, board, answer::object, board_fields},
    {"ports", "", "Ethernet ports of the board", 0, 0, ports, answer::rows, port_fields},
    {"family",
     "",
     "which model families it belongs to",
     0,
     0,
     family,
     answer::object,
     {},
     {},
     "One flag for each family."},
    {"status", "", "firmware, stage, uptime, time", 0, 0, status_of_device, answer::object, status_fields},
};

} // namespace

const std::span<const command> device_commands{commands};

} // namespace velactl
