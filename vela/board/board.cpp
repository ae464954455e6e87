// Keeps the board of this process, identified once, and answers questions about it. Records may come from a caller, so
// counts are taken as far as the record's arrays go.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <vela/board/board.h>
#include <vela/core/file.h>
#include <vela/core/internal/json.h>
#include <vela/core/internal/numbers.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>

// Programs were compiled against this layout: new fields go to the end.
static_assert(sizeof(board_radio) == 32);
#if UINTPTR_MAX == UINT64_MAX
static_assert(sizeof(phy_port) == 40 && sizeof(phy_group) == 328 && sizeof(board_record) == 1600);
static_assert(offsetof(board_record, cpu_port) == 80 && offsetof(board_record, phy_groups) == 104);
static_assert(offsetof(board_record, radio_count) == 1416 && offsetof(board_record, system_id) == 1548);
static_assert(offsetof(board_record, board_revision) == 1560 && offsetof(board_record, flags) == 1564);
#endif

namespace
{

constexpr const char *accelerometer = "/sys/bus/iio/devices/iio:device0/";
constexpr const char *sampling_path = "/sys/bus/iio/devices/iio:device0/sampling_frequency";
constexpr const char *axis_path = "/sys/bus/iio/devices/iio:device0/in_accel_%s_raw";
constexpr const char *axes[] = {"x", "y", "z"};

constexpr std::string_view uplink_labels[] = {"Main", "PoE In + Data"};

constexpr uint32_t copper_media = PHY_MEDIA_GE | PHY_MEDIA_MULTI_GIG;
constexpr uint32_t sfp_media = PHY_MEDIA_SFP | PHY_MEDIA_SFP_PLUS | PHY_MEDIA_SFP28 | PHY_MEDIA_QSFP | PHY_MEDIA_QSFP28;

/// Stands for a board that could not be identified.
constexpr board_record unknown_board = {.model_name = "Unknown"};

/// The board of this process: null until the first board_identify(), or as update_cached_board() set it.
constinit std::atomic<const board_record *> cached = nullptr;

std::span<const phy_group> groups_of(const board_record &board)
{
    return vela::counted(board.phy_groups, board.phy_group_count);
}

std::span<const phy_port> ports_of(const phy_group &group) { return vela::counted(group.ports, group.port_count); }

std::span<const board_radio> radios_of(const board_record &board)
{
    return vela::counted(board.radios, board.radio_count);
}

bool is_uplink(const phy_port &port)
{
    return std::ranges::find(uplink_labels, vela::view(port.label)) != std::end(uplink_labels);
}

bool needs_afc(const board_radio &radio) { return radio.flags & BOARD_RADIO_6GHZ && radio.flags8 & BOARD_RADIO_AFC; }

int axis_value(const char *axis)
{
    const vela::formatted<64> path(axis_path, axis);
    char text[9];
    return atoi(freadline(path.c_str(), text, sizeof text, "0"));
}

} // namespace

const board_record *board_identify(void)
{
    const board_record *kept = cached.load(std::memory_order_acquire);
    if (kept) return kept;
    vela::heap<board_record> found{get_board()};
    const board_record *board = found ? found.get() : &unknown_board;
    if (!cached.compare_exchange_strong(kept, board)) return kept; // another thread was first
    (void)found.release();
    return board;
}

void update_cached_board(const board_record *rec) { cached.store(rec, std::memory_order_release); }

int board_get_poe_budget(void)
{
    const board_record *board = board_identify();
    return std::max(board->poe_budget - board->poe_reserve, 0);
}

int board_has_poe(void) { return board_get_poe_budget() != 0; }

int board_get_cpu_mac(cpu_port *out)
{
    if (!out) return -1;
    *out = board_identify()->cpu_port;
    return 0;
}

const char *get_radio_dev_name(int i)
{
    const auto radios = radios_of(*board_identify());
    return i >= 0 && i < std::ssize(radios) ? radios[static_cast<size_t>(i)].dev_name : "";
}

const phy_port *get_main_phy(void)
{
    for (const phy_group &group : groups_of(*board_identify())) {
        if (group.port_count == 1) return &group.ports[0];
        for (const phy_port &port : ports_of(group)) {
            if (is_uplink(port)) return &port;
        }
    }
    return nullptr;
}

uint32_t get_main_phy_port_id(void)
{
    const phy_port *port = get_main_phy();
    return port ? port->port_id : UINT32_MAX;
}

uint32_t get_main_phy_idx(void)
{
    const phy_port *port = get_main_phy();
    return port ? port->phy_index : UINT32_MAX;
}

int get_phy_port_id_by_idx(int idx)
{
    for (const phy_group &group : groups_of(*board_identify())) {
        for (const phy_port &port : ports_of(group)) {
            if (port.phy_index == idx) return port.port_id;
        }
    }
    return -1;
}

int get_num_of_eth_ports(void)
{
    int count = 0;
    for (const phy_group &group : groups_of(*board_identify())) count += group.port_count;
    return count;
}

const phy_port *board_get_next_phy(const board_record *rec, unsigned *group, unsigned *port)
{
    if (!rec || !group || !port) return nullptr;
    const auto groups = groups_of(*rec);
    for (; *group < groups.size(); ++*group, *port = 0) {
        const auto ports = ports_of(groups[*group]);
        if (*port >= ports.size()) continue; // a group without ports, or cursors of the caller's own
        const phy_port *next = &ports[*port];
        if (++*port == ports.size()) ++*group, *port = 0;
        return next;
    }
    return nullptr;
}

int board_phy_is_sfp(const phy_port *port) { return port && port->media & sfp_media; }

const char *board_get_phy_port_media(const phy_port *port)
{
    const uint32_t media = port ? port->media : 0;
    if (media & PHY_MEDIA_SFP_PLUS) return "SFP+";
    if (media & PHY_MEDIA_SFP) return "SFP";
    if (!(media & copper_media)) {
        if (media & PHY_MEDIA_FE) return "FE";
        if (media & PHY_MEDIA_SFP28) return "SFP28";
        if (media & PHY_MEDIA_QSFP28) return "QSFP28";
        return "UNKNOWN";
    }
    if (port->speed & PHY_SPEED_10G) return "10GE";
    if (port->speed & PHY_SPEED_5G) return "5GE";
    if (port->speed & PHY_SPEED_2P5G) return "2P5GE";
    return "GE";
}

int board_is_outdoor_capable(const board_record *rec) { return rec && rec->flags & BOARD_OUTDOOR; }

int board_has_afc_6g_radio(const board_record *rec) { return rec && std::ranges::any_of(radios_of(*rec), needs_afc); }

int board_requires_afc_for_6g(const board_record *rec)
{
    return board_is_outdoor_capable(rec) && board_has_afc_6g_radio(rec);
}

int has_accelerometer(void) { return vela::dir_ptr{opendir(accelerometer)} != nullptr; }

json_t *prepare_accelerometer_status(void)
{
    (void)fwriteline(sampling_path, "%s", "50"); // samples per second; a driver without the choice still reads
    vela::json_ref status{json_object()};
    if (!status) return nullptr;
    for (const char *axis : axes) {
        if (json_object_set_new(status.get(), axis, json_integer(axis_value(axis))) < 0) return nullptr;
    }
    return status.release();
}
