// The table of boards, and the identification of the running board.
//
// A full record is some 1.6 KB, most of it unused port slots. So the table keeps short rows that share their port and
// radio lists, and a record is made from its row when somebody first asks for it.

#include <algorithm>
#include <atomic>
#include <iterator>
#include <span>
#include <string_view>
#include <vela/board/board.h>
#include <vela/config/xkv.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/memory.h>
#include <vela/core/internal/text.h>

namespace
{

constexpr const char *log_module = "libvela";
constexpr const char *source_name = "boards-corvo"; // as the out-of-memory text names it

constexpr const char *system_info_path = "/proc/velahal/system.info";
constexpr const char *board_path = "/proc/velahal/board";

// Ports. A port's id is its number in the reports; "ethN" carries number N + 1.

constexpr const char *main_label = "Main";
constexpr const char *poe_in_label = "PoE In + Data";
constexpr const char *interfaces[] = {"eth0", "eth1", "eth2", "eth3", "eth4", "eth5", "eth6", "eth7", "eth8"};

constexpr uint32_t up_to_2g5 = PHY_SPEED_2P5G;
constexpr uint32_t up_to_5g = up_to_2g5 | PHY_SPEED_5G;
constexpr uint32_t up_to_10g = up_to_5g | PHY_SPEED_10G;

constexpr phy_port port(uint8_t id, const char *label, uint32_t media, uint32_t speed = 0)
{
    return {static_cast<uint8_t>(id - 1), id, media, speed, label, interfaces[id - 1], 0};
}
constexpr phy_port copper(uint8_t id, const char *label) { return port(id, label, PHY_MEDIA_GE); }
constexpr phy_port copper(uint8_t id, const char *label, uint32_t speed)
{
    return port(id, label, PHY_MEDIA_MULTI_GIG, speed);
}
constexpr phy_port wan(phy_port port, uint32_t role = 1)
{
    port.flags |= role;
    return port;
}
constexpr phy_port hidden(phy_port port)
{
    port.name = nullptr;
    return port;
}
constexpr phy_group single(const phy_port &port) { return {PHY_GROUP_SINGLE, 1, {port}}; }
template <class... Port> constexpr phy_group multi(const Port &...port)
{
    static_assert(sizeof...(port) <= BOARD_MAX_GROUP_PORTS);
    return {PHY_GROUP_MULTI, sizeof...(port), {port...}};
}

constexpr phy_group one_fast[] = {single(wan(port(1, nullptr, PHY_MEDIA_FE)))};
constexpr phy_group one_gigabit[] = {single(wan(copper(1, nullptr)))};
constexpr phy_group one_2g5[] = {single(wan(copper(1, main_label, up_to_2g5)))};
constexpr phy_group one_10g[] = {single(wan(copper(1, main_label, up_to_10g)))};
constexpr phy_group two_2g5[] = {
    multi(wan(copper(1, poe_in_label, up_to_2g5)), wan(copper(2, "Data"), 2)),
};
constexpr phy_group hall[] = {
    single(wan(copper(1, main_label, up_to_5g))),
    single(copper(2, "Second")),
};
constexpr phy_group copper_or_fiber[] = {
    multi(wan(copper(1, main_label, up_to_10g)), wan(port(2, "Fiber", PHY_MEDIA_SFP_PLUS), 2)),
};
constexpr phy_group wall[] = {
    multi(wan(copper(1, poe_in_label, up_to_2g5)), copper(2, "1"), copper(3, "2"), copper(4, "3"), copper(5, "4 PoE")),
};
// The kernel sees one interface, eth0, and behind it a switch chip that keeps its ports to itself.
constexpr phy_group wall_hidden[] = {
    multi(hidden(copper(5, poe_in_label)), hidden(copper(1, "1")), hidden(copper(2, "2")), hidden(copper(3, "3")),
          hidden(copper(4, "4 PoE"))),
};
constexpr phy_group router[] = {
    multi(copper(1, "1"), copper(2, "2"), copper(3, "3"), copper(4, "4")),
    single(wan(copper(5, "Internet", up_to_2g5))),
};
constexpr phy_group router_dual_wan[] = {
    multi(copper(1, "1 PoE", up_to_2g5), copper(2, "2 PoE", up_to_2g5), copper(3, "3", up_to_2g5),
          wan(copper(4, "4 / Internet 2", up_to_2g5), 2)),
    single(wan(copper(5, "Internet", up_to_10g))),
};
constexpr phy_group hbx_switch[] = {
    multi(wan(copper(1, main_label, up_to_2g5)), copper(2, "1 PoE"), copper(3, "2 PoE"), copper(4, "3"),
          copper(5, "4")),
    single(port(6, "5", PHY_MEDIA_SFP)),
};
constexpr phy_group patch_4[] = {
    multi(wan(copper(1, poe_in_label)), copper(2, "1"), copper(3, "2"), copper(4, "3"), copper(5, "4")),
};
constexpr phy_group patch_8[] = {
    multi(copper(1, "1 PoE"), copper(2, "2 PoE"), copper(3, "3 PoE"), copper(4, "4 PoE"), copper(5, "5"),
          copper(6, "6"), copper(7, "7"), copper(8, "8")),
    single(wan(port(9, "Uplink", PHY_MEDIA_SFP_PLUS))),
};
constexpr phy_group patch_fiber[] = {
    multi(port(1, "1", PHY_MEDIA_SFP_PLUS), port(2, "2", PHY_MEDIA_SFP_PLUS), port(3, "3", PHY_MEDIA_SFP_PLUS),
          port(4, "4", PHY_MEDIA_SFP_PLUS)),
    multi(wan(port(5, main_label, PHY_MEDIA_SFP28)), wan(port(6, "6", PHY_MEDIA_SFP28), 2)),
    single(port(7, "Stack", PHY_MEDIA_QSFP28)),
};

// Radios, by generation. Chip codes are the driver's.

constexpr uint32_t chip_ac = 15, chip_ac_wave2 = 16, chip_ax = 18, chip_ax_6e = 19, chip_be = 24, chip_be_small = 30;
constexpr uint32_t mlo = BOARD_RADIO_MULTI_LINK;
constexpr uint32_t six = BOARD_RADIO_6GHZ;

constexpr board_radio radio(char number, uint32_t chip, uint32_t flags = 0, uint8_t flags8 = 0)
{
    return {{'w', 'i', 'f', 'i', number}, flags, flags8, {}, chip};
}

constexpr board_radio ac_dual[] = {radio('0', chip_ac), radio('1', chip_ac)};
constexpr board_radio ac_wave2[] = {radio('0', chip_ac), radio('1', chip_ac_wave2)};
constexpr board_radio ax_dual[] = {radio('0', chip_ax), radio('1', chip_ax)};
constexpr board_radio ax_tri[] = {radio('0', chip_ax_6e), radio('1', chip_ax_6e), radio('2', chip_ax_6e, six)};
constexpr board_radio be_small[] = {radio('0', chip_be_small), radio('1', chip_be_small)};
constexpr board_radio be_dual[] = {radio('0', chip_be, mlo), radio('1', chip_be, mlo)};
constexpr board_radio be_tri[] = {be_dual[0], be_dual[1], radio('2', chip_be, mlo | six)};
constexpr board_radio be_afc[] = {be_dual[0], be_dual[1], radio('2', chip_be, mlo | six, BOARD_RADIO_AFC)};
constexpr board_radio be_quad[] = {be_dual[0], be_dual[1], radio('2', chip_be, mlo),
                                   radio('3', chip_be, mlo | six, BOARD_RADIO_AFC)};
constexpr board_radio link_pair[] = {radio('0', chip_be), radio('1', chip_be, six, BOARD_RADIO_AFC)};

/// What a model has beside ports and radios.
struct traits {
    uint8_t layout;
    uint8_t sets;
    uint8_t flags;
    uint8_t capabilities;
    bool mains; // a power supply of its own instead of PoE
    struct {
        uint16_t budget, reserve; // W
    } poe_out;
};

struct row {
    char model_name[32];
    char short_code[8];
    uint16_t system_id;
    uint8_t lowest_revision;
    std::span<const phy_group> ports;
    std::span<const board_radio> radios;
    traits has;
};

constexpr uint8_t A = BOARD_SET_A, B = BOARD_SET_B, C = BOARD_SET_C;

// A new model wants three entries: its row here, its name in the device table (devices-corvo.cpp), and its system id in
// every family it belongs to (internal/families.h), which the predicates of model.h ask. The board test compares rows
// and names. A model with two rows: a hardware revision changed its ports.
constexpr row rows[] = {
    {"Orb 4", "O4", 60448, 0, one_fast, ac_dual},
    {"Orb 4 Terrace", "O4T", 60453, 0, one_gigabit, ac_dual, {.flags = BOARD_OUTDOOR}},
    {"Orb AC Wallplate", "OAW", 58759, 0, wall, ac_dual, {.poe_out = {15, 2}}},
    {"Orb Cellular", "OC", 58928, 0, two_2g5, ac_wave2, {.mains = true}},
    {"Orb 5", "O5", 42512, 0, one_gigabit, ac_wave2, {.layout = 2}},
    {"Orb 5", "O5", 42512, 8, one_2g5, ac_wave2, {.layout = 2}},
    {"Orb 5 Hall", "O5H", 42515, 0, hall, ac_wave2, {.layout = 4, .sets = A}},
    {"Orb 5 Ten", "O5X", 42528, 0, copper_or_fiber, ac_wave2, {.layout = 1, .sets = A}},
    {"Orb 5 Ten", "O5X", 42528, 19, one_10g, ac_wave2, {.layout = 1, .sets = A}},

    {"Orb 6", "O6", 42576, 0, one_gigabit, ax_dual, {.layout = 2, .sets = A}},
    {"Orb 6 Wallplate", "O6W", 42578, 0, wall_hidden, ax_dual, {.layout = 2, .sets = A, .poe_out = {15, 2}}},
    {"Orb 6 Terrace", "O6T", 42579, 0, one_gigabit, ax_dual, {.layout = 1, .sets = A, .flags = BOARD_OUTDOOR}},
    {"Orb 6 Tri", "O63", 42580, 0, one_2g5, ax_tri, {.layout = 3, .sets = A | B}},
    {"Orb 6 Wallplate Tri", "O63W", 42582, 0, wall_hidden, ax_tri, {.layout = 3, .sets = A | B, .poe_out = {15, 2}}},
    {"Orb 6 Router", "O6R", 42599, 0, router, ax_dual, {.layout = 4, .sets = A, .mains = true}},

    {"Home Router 7", "HR7", 42618, 0, router, be_tri, {.sets = A | B | C, .mains = true}},
    {"Orb 7 Hall", "O7H", 42625, 0, hall, be_afc, {.sets = A | B | C}},
    {"Orb 7 Arena", "O7A", 42629, 0, copper_or_fiber, be_quad, {.sets = A | B | C | BOARD_MULTI_5GHZ}},
    {"Orb 7", "O7", 42630, 0, one_2g5, be_tri, {.sets = A | B}},
    {"Orb 7 Studio", "O7S", 42647, 0, one_2g5, be_tri, {.sets = A | B}},
    {"Orb 7 Studio Terrace", "O7ST", 42649, 0, one_2g5, be_afc, {.sets = A | B, .flags = BOARD_OUTDOOR}},
    {"Orb 7 Router", "O7R", 42651, 0, router_dual_wan, be_tri, {.sets = A | B, .mains = true, .poe_out = {60, 5}}},
    {"HBX Switch 7", "HBX7", 42655, 0, hbx_switch, be_tri, {.sets = A | B, .mains = true, .poe_out = {60, 8}}},
    {"Orb 7 Wallplate", "O7W", 42661, 0, wall, be_dual, {.sets = A, .poe_out = {25, 4}}},
    {"Orb 7 Terrace", "O7T", 42665, 0, two_2g5, be_afc, {.sets = A | B | C, .flags = BOARD_OUTDOOR, .poe_out = {15}}},
    {"Orb 7 Studio Compact", "O7SC", 42673, 0, one_2g5, be_dual, {.sets = A, .capabilities = BOARD_WIFI_ONLY}},
    {"Orb 7 Seed", "O7E", 42675, 0, one_gigabit, be_small, {.capabilities = BOARD_WIFI_ONLY}},
    {"Linkbar 7", "LB7", 59911, 0, one_2g5, link_pair, {.sets = A | B, .flags = BOARD_OUTDOOR}},

    {"Patch 4", "P4", 56500, 0, patch_4, {}},
    {"Patch 8", "P8", 56501, 0, patch_8, {}, {.mains = true, .poe_out = {120, 12}}},
    {"Patch 7 Fiber", "P7F", 45090, 2, patch_fiber, {}, {.mains = true}},
};

constexpr bool has_each_port_once(std::span<const phy_group> groups)
{
    uint64_t seen = 0;
    for (const phy_group &group : groups) {
        for (const phy_port &port : std::span(group.ports, group.port_count)) {
            const uint64_t bit = uint64_t{1} << port.port_id;
            if (seen & bit) return false;
            seen |= bit;
        }
    }
    return true;
}

constexpr bool every_row_fits_a_record()
{
    return std::ranges::all_of(rows, [](const row &r) {
        return r.system_id != 0 && r.ports.size() <= BOARD_MAX_PHY_GROUPS && r.radios.size() <= BOARD_MAX_RADIOS &&
               has_each_port_once(r.ports) && r.has.poe_out.reserve <= r.has.poe_out.budget;
    });
}

constexpr size_t models_in(uint8_t set)
{
    size_t count = 0;
    for (size_t i = 0; i < std::size(rows); ++i) {
        const bool again = i > 0 && rows[i - 1].system_id == rows[i].system_id; // the rows of a model stand together
        if (!again && rows[i].has.sets & set) ++count;
    }
    return count;
}

static_assert(std::size(rows) == 31 && every_row_fits_a_record());
static_assert(models_in(BOARD_SET_C) == 4 && models_in(BOARD_MULTI_5GHZ) == 1);

using record_ptr = vela::heap<board_record>;

/// The records that corvo_get_board() gave out, by row: each made when first asked for and kept for the life of the
/// process.
constinit std::atomic<const board_record *> records[std::size(rows)] = {};

/// Of the rows for a system id that a revision reaches, the one with the highest revision; null without one.
const row *find_row(uint16_t sysid, uint8_t revision)
{
    const row *best = nullptr;
    for (const row &r : rows) {
        if (r.system_id != sysid || r.lowest_revision > revision) continue;
        if (!best || r.lowest_revision > best->lowest_revision) best = &r;
    }
    return best;
}

record_ptr make_record(const row &r)
{
    auto record = vela::make_zeroed<board_record>();
    if (!record) vela::out_of_memory(source_name, __LINE__);
    vela::copy_text(record->model_name, r.model_name);
    vela::copy_text(record->short_code, r.short_code);
    record->cpu_port = {"eth0", 0};
    record->phy_group_count = static_cast<uint8_t>(r.ports.size());
    std::ranges::copy(r.ports, record->phy_groups);
    record->radio_count = static_cast<uint8_t>(r.radios.size());
    std::ranges::copy(r.radios, record->radios);
    record->system_id = r.system_id;
    record->poe_budget = r.has.poe_out.budget;
    record->poe_reserve = r.has.poe_out.reserve;
    record->board_revision = r.lowest_revision;
    record->flags = r.has.flags;
    record->poe_powered = !r.has.mains;
    record->capabilities = r.has.capabilities;
    record->radio_layout = r.has.layout;
    record->capability_sets = r.has.sets;
    return record;
}

/// What only the device knows. The first three must be there.
bool add_board_info(board_record &board)
{
    const vela::c_string info{xkv_file_to_buff(board_path)};
    const char *text = info.get();
    if (!xkv_read_x32(text, "cpuid", &board.cpu_id)) return false;
    if (!xkv_read_s32(text, "boardrevision", &board.board_revision)) return false;
    if (!xkv_read_mac(text, "serialno", sizeof board.serial, board.serial)) return false;

    (void)xkv_read_str(text, "qrid", sizeof board.qr_id, board.qr_id);
    (void)xkv_read_u16(text, "countrycode", &board.country_code);
    if (!xkv_read_x16(text, "regdmn[0]", &board.regulatory_domain)) {
        (void)xkv_read_x16(text, "regdmn[]", &board.regulatory_domain);
    }
    for (unsigned i = 0; i < board.radio_count; ++i) {
        const vela::formatted<16> key("wifi%u", i);
        (void)xkv_read_mac(text, key.c_str(), sizeof board.radios[i].mac, board.radios[i].mac);
    }
    return true;
}

} // namespace

int board_identify_ids(uint16_t *sysid, uint8_t *rev)
{
    const vela::c_string info{xkv_file_to_buff(system_info_path)};
    const bool has_id = xkv_read_x16(info.get(), "systemid", sysid) != nullptr;
    const bool has_revision = xkv_read_u8(info.get(), "boardrevision", rev) != nullptr;
    return has_id && has_revision ? 0 : 1;
}

const board_record *corvo_get_board(uint16_t sysid, uint8_t rev)
{
    const row *found = find_row(sysid, rev);
    if (!found) return nullptr;
    auto &place = records[found - rows];
    const board_record *kept = place.load(std::memory_order_acquire);
    if (kept) return kept;
    record_ptr record = make_record(*found);
    return place.compare_exchange_strong(kept, record.get()) ? record.release() : kept; // another thread was first
}

int corvo_get_radio_count(uint16_t sysid)
{
    const row *first = std::ranges::find(rows, sysid, &row::system_id);
    return first == std::end(rows) ? 0 : static_cast<int>(first->radios.size());
}

board_record *get_board(void)
{
    uint16_t sysid = 0;
    uint8_t revision = 0;
    if (board_identify_ids(&sysid, &revision) != 0) {
        log_error("Failed to identify the board");
        return nullptr;
    }
    const row *found = find_row(sysid, revision);
    if (!found) {
        log_error("Failed to find a matching board");
        return nullptr;
    }
    record_ptr board = make_record(*found);
    if (!add_board_info(*board)) {
        log_error("Failed to add board info");
        return nullptr;
    }
    return board.release();
}
