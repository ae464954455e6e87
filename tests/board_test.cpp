#include "site/device.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <set>
#include <vela/board/board.h>

using testing::ElementsAre;

namespace
{

constexpr const char *board_file = "/proc/velahal/board";

/// Makes a record the process's board for the length of a test.
class installed
{
public:
    explicit installed(const board_record &board) { update_cached_board(&board); }
    installed(const installed &) = delete;
    installed &operator=(const installed &) = delete;
    ~installed() { update_cached_board(nullptr); }
};

std::vector<int> port_ids(const board_record &board)
{
    std::vector<int> ids;
    unsigned group = 0, port = 0;
    while (const phy_port *p = board_get_next_phy(&board, &group, &port)) ids.push_back(p->port_id);
    EXPECT_EQ(nullptr, board_get_next_phy(&board, &group, &port)) << "after the end";
    return ids;
}

} // namespace

TEST(Board, EveryRowDescribesAPossibleModel)
{
    std::set<const board_record *> rows;
    for (unsigned id = 0; id <= UINT16_MAX; ++id) {
        for (const uint8_t revision : {0, 2, 8, 19}) rows.insert(corvo_get_board(static_cast<uint16_t>(id), revision));
    }
    rows.erase(nullptr);
    EXPECT_EQ(31U, rows.size());
    for (const board_record *row : rows) {
        SCOPED_TRACE(testing::Message() << row->model_name << " " << row->board_revision);
        ASSERT_NE(nullptr, corvo_get_device(row->system_id));
        EXPECT_STREQ(corvo_get_device(row->system_id)->name, row->model_name);

        const installed board(*row);
        EXPECT_NE(nullptr, get_main_phy());
        const auto ids = port_ids(*row);
        EXPECT_EQ(static_cast<size_t>(get_num_of_eth_ports()), ids.size());
        EXPECT_EQ(ids.size(), std::set<int>(ids.begin(), ids.end()).size()) << "two ports of one number";
        for (int i = 0; i < row->radio_count; ++i) EXPECT_EQ("wifi" + std::to_string(i), get_radio_dev_name(i));
    }
}

TEST(Board, TablesAreAskedByIdAndRevision)
{
    // The lowest revision of the row found; -1: none.
    const table<uint16_t, uint8_t, int> cases = {{42512, 0, 0},  {42512, 7, 0},   {42512, 8, 8},  {42512, 255, 8},
                                                 {42528, 18, 0}, {42528, 19, 19}, {45090, 1, -1}, {45090, 2, 2},
                                                 {0, 0, -1},     {42656, 9, -1}};
    for (const auto &[sysid, revision, lowest] : cases) {
        const board_record *row = corvo_get_board(sysid, revision);
        EXPECT_EQ(lowest, row ? row->board_revision : -1) << sysid << " revision " << int{revision};
    }
    for (const auto &[sysid, count] : table<uint16_t, int>{{42629, 4}, {56500, 0}, {1, 0}}) {
        EXPECT_EQ(count, corvo_get_radio_count(sysid)) << sysid;
    }
    EXPECT_STREQ("Linkbar 7", device_identify_by_sysid(59911)->name);
    EXPECT_STREQ("Rack 48", corvo_get_device(45106)->name) << "no board of the table";
    for (const uint16_t sysid : {0, 1}) EXPECT_EQ(nullptr, device_identify_by_sysid(sysid));
}

TEST(Board, IdentifiedOnceFromTheDevice)
{
    site::lay_out_device({.sysid = 42528, .revision = 20, .cpuid = 0x410fd034, .serial = "02564c0a1b2c"});
    const leak_check held;
    const board_record *board = board_identify();
    EXPECT_STREQ("Orb 5 Ten", board->model_name);
    EXPECT_EQ(20, board->board_revision) << "its own, not the row's";
    EXPECT_EQ(0x410fd034U, board->cpu_id);
    EXPECT_THAT(board->serial, ElementsAre(0x02, 0x56, 0x4c, 0x0a, 0x1b, 0x2c));
    EXPECT_STREQ("QK7M2D", board->qr_id);
    EXPECT_TRUE(board->country_code == 372 && board->regulatory_domain == 0x37);
    EXPECT_EQ(19, corvo_get_board(42528, 20)->board_revision) << "the row stays as it is";

    site::put_file(board_file,
                   "boardrevision=-3\ncpuid=0x7\nserialno=020304050607\nregdmn[]=52\nwifi1=02:00:00:00:00:09");
    EXPECT_EQ(board, board_identify());
    board_record *fresh = get_board();
    ASSERT_NE(nullptr, fresh);
    EXPECT_TRUE(fresh->board_revision == -3 && fresh->cpu_id == 7 && fresh->regulatory_domain == 0x52);
    EXPECT_TRUE(fresh->radios[0].mac[5] == 0 && fresh->radios[1].mac[5] == 9);
    free(fresh);
    held.expect_unchanged();
    update_cached_board(nullptr);
    free(const_cast<board_record *>(board)); // the library would keep it for the life of the process
}

TEST(Board, FailuresAreLoggedOnceAndKept)
{
    log_lines log;
    constexpr const char *info = "/proc/velahal/system.info", *good_info = "systemid=a686\nboardrevision=11\n";
    constexpr const char *no_ids = "Failed to identify the board", *no_facts = "Failed to add board info";
    const table<const char *, const char *, const char *> cases = {
        {nullptr, "", no_ids},
        {"systemid=a686\n", "", no_ids},
        {"systemid=xyz\nboardrevision=11\n", "", no_ids},
        {"systemid=a6f0\nboardrevision=11\n", "", "Failed to find a matching board"},
        {good_info, nullptr, no_facts},
        {good_info, "boardrevision=1\nserialno=020304050607\n", no_facts},
        {good_info, "cpuid=1\nserialno=020304050607\n", no_facts},
        {good_info, "cpuid=1\nboardrevision=1\nserialno=02:03:04\n", no_facts}};
    for (const auto &[ids, facts, message] : cases) {
        site::remove_file("/proc/velahal");
        if (ids) site::put_file(info, ids);
        if (facts) site::put_file(board_file, facts);
        EXPECT_EQ(nullptr, get_board());
        EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "libvela", "get_board", message})) << (ids ? ids : "");
    }

    uint16_t sysid = 7;
    uint8_t revision = 7;
    site::put_file(info, "systemid=1\n");
    EXPECT_TRUE(board_identify_ids(&sysid, &revision) == 1 && sysid == 7) << "untouched on failure";
    const board_record *unknown = board_identify();
    EXPECT_STREQ("Unknown", unknown->model_name);
    site::lay_out_device();
    EXPECT_EQ(unknown, board_identify());
    EXPECT_EQ(1U, log.take().size()) << "tried again";
    const installed board(*corvo_get_board(42630, 0));
    EXPECT_STREQ("Orb 7", board_identify()->model_name);
}

TEST(Board, HostileBoardFileIsReadWithinItsBounds)
{
    const log_lines log;
    site::lay_out_device();
    const std::string whole = site::read_file(board_file);
    std::vector<std::string> files = {
        "qrid=" + std::string(100000, 'Q') + "\n" + whole, whole + std::string(1 << 20, '='),
        std::string(300000, '\n') + "cpuid=\nboardrevision=999999999999999999999\nserialno=::::::\n",
        std::string("cpuid\0=1\n", 9) + whole};
    for (size_t n = 0; n <= whole.size(); ++n) files.push_back(whole.substr(0, n));

    const leak_check held;
    for (const auto &content : files) {
        site::put_file(board_file, content);
        if (board_record *board = get_board()) {
            EXPECT_LT(strnlen(board->qr_id, sizeof board->qr_id), sizeof board->qr_id);
            free(board);
        }
    }
    held.expect_unchanged();
}

TEST(Board, WantOfMemoryNamesTheTable)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    site::lay_out_device();
    EXPECT_EXIT(
        {
            const faults::refuse_memory third(2); // after the two for system.info
            free(get_board());
        },
        testing::ExitedWithCode(1), "^boards-corvo:[0-9]+: Out of memory\n$");
}

TEST(Board, PoeBudgetIsWhatTheReserveLeaves)
{
    board_record board = {};
    const installed as_board(board);
    const table<uint16_t, uint16_t, int> cases = {{0, 0, 0}, {0, 5, 0}, {60, 8, 52},
                                                  {8, 8, 0}, {8, 9, 0}, {65535, 0, 65535}};
    for (const auto &[budget, reserve, left] : cases) {
        board.poe_budget = budget;
        board.poe_reserve = reserve;
        EXPECT_EQ(left, board_get_poe_budget()) << budget << " - " << reserve;
        EXPECT_EQ(left != 0, board_has_poe());
    }
}

TEST(Board, MainPortIsTheOnlyOneOrTheLabelledOne)
{
    board_record board = {};
    const installed as_board(board);
    EXPECT_EQ(nullptr, get_main_phy());
    EXPECT_EQ(UINT32_MAX, get_main_phy_port_id());
    EXPECT_EQ(UINT32_MAX, get_main_phy_idx());
    EXPECT_EQ(-1, get_phy_port_id_by_idx(0));

    board.phy_group_count = 3;
    board.phy_groups[0] = {PHY_GROUP_MULTI, 2, {{0, 1, 0, 0, nullptr, nullptr, 0}, {1, 2, 0, 0, "main", nullptr, 0}}};
    board.phy_groups[1] = {PHY_GROUP_MULTI, 0, {}};
    board.phy_groups[2] = {PHY_GROUP_SINGLE, 1, {{9, 255, 0, 0, nullptr, nullptr, 0}}};
    EXPECT_EQ(255U, get_main_phy_port_id()) << "alone in its group, without a label";
    EXPECT_EQ(9U, get_main_phy_idx());
    EXPECT_EQ(255, get_phy_port_id_by_idx(9));
    EXPECT_EQ(3, get_num_of_eth_ports());
    EXPECT_THAT(port_ids(board), ElementsAre(1, 2, 255));
    unsigned group = 0, port = 1;
    EXPECT_EQ(2, board_get_next_phy(&board, &group, &port)->port_id);
    EXPECT_TRUE(group == 1 && port == 0) << "the group was exhausted";

    board.phy_groups[0].ports[1].label = "PoE In + Data";
    EXPECT_EQ(2U, get_main_phy_port_id());
    board.phy_groups[0].ports[0].label = "Main";
    EXPECT_EQ(1U, get_main_phy_port_id()) << "in order of ports, whatever the label";

    board.phy_group_count = 255;
    for (auto &g : board.phy_groups) g.port_count = 255, g.ports[0].label = g.ports[1].label = nullptr;
    EXPECT_EQ(nullptr, get_main_phy());
    EXPECT_EQ(-1, get_phy_port_id_by_idx(200));
    EXPECT_EQ(32U, port_ids(board).size());
    EXPECT_EQ(nullptr, board_get_next_phy(nullptr, &group, &port));
}

TEST(Board, MediaNames)
{
    const table<uint32_t, uint32_t, const char *, bool> cases = {
        {2 | 16, 0, "SFP+", true},   {8 | 16, 0, "SFP+", true},         {8 | 1, 0, "SFP", true},
        {1, 256, "FE", false},       {1 | 32, 0, "FE", true},           {32, 0, "SFP28", true},
        {128, 0, "QSFP28", true},    {64, 0, "UNKNOWN", true},          {0, 64, "UNKNOWN", false},
        {2, 0, "GE", false},         {4 | 1, 0, "GE", false},           {4, 64, "2P5GE", false},
        {2, 64 | 128, "5GE", false}, {4, 64 | 128 | 256, "10GE", false}};
    for (const auto &[media, speed, name, sfp] : cases) {
        const phy_port port = {0, 0, media, speed, nullptr, nullptr, 0};
        EXPECT_STREQ(name, board_get_phy_port_media(&port)) << media << " " << speed;
        EXPECT_EQ(sfp, board_phy_is_sfp(&port)) << media;
    }
}

TEST(Board, AfcIsForOutdoorModelsWithBothBitsInOneRadio)
{
    board_record board = {};
    board.radios[0].flags = 0x80000000;
    board.radios[1].flags8 = 0x80;
    board.radios[2] = {"wifi2", 0x80000000, 0x80, {}, 0};
    for (const auto &[radios, flags, has_radio, outdoor] :
         table<uint8_t, uint8_t, bool, bool>{{2, 1, false, true}, {3, 1, true, true}, {3, 0xFE, true, false}}) {
        board.radio_count = radios;
        board.flags = flags;
        EXPECT_EQ(has_radio, board_has_afc_6g_radio(&board)) << radios << " radios";
        EXPECT_EQ(outdoor, board_is_outdoor_capable(&board));
        EXPECT_EQ(has_radio && outdoor, board_requires_afc_for_6g(&board));
    }
    for (auto *query : {board_is_outdoor_capable, board_has_afc_6g_radio, board_requires_afc_for_6g}) {
        EXPECT_FALSE(query(nullptr));
    }

    board.cpu_port = {"eth9", 513};
    const installed as_board(board);
    EXPECT_STREQ("wifi2", get_radio_dev_name(2));
    for (const int i : {-1, 0, 3, INT_MAX}) EXPECT_STREQ("", get_radio_dev_name(i)) << i;
    board.radio_count = 255;
    EXPECT_STREQ("", get_radio_dev_name(4));
    cpu_port port = {};
    EXPECT_TRUE(board_get_cpu_mac(&port) == 0 && strcmp(port.name, "eth9") == 0 && port.value == 513);
    EXPECT_EQ(-1, board_get_cpu_mac(nullptr));
}

TEST(Board, AccelerometerReadsItsThreeAxes)
{
    site::remove_file("/sys/bus"); // a link to the host's
    EXPECT_FALSE(has_accelerometer());
    const std::string device = "/sys/bus/iio/devices/iio:device0/";
    site::put_file(device + "in_accel_x_raw", "-123456789\n");
    site::put_file(device + "in_accel_z_raw", "1021\n");
    EXPECT_TRUE(has_accelerometer());
    json_t *status = prepare_accelerometer_status();
    json_t *expected = json_pack("{s:i, s:i, s:i}", "x", -1234567, "y", 0, "z", 1021);
    EXPECT_TRUE(json_equal(expected, status)) << "eight characters, the sign counts";
    EXPECT_EQ("50", site::read_file(device + "sampling_frequency"));
    json_decref(expected);
    json_decref(status);
}
