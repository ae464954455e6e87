#include "site/device.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>
#include <vela/board/board.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

constexpr const char *system_info = "/proc/velahal/system.info";
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

std::vector<const board_record *> all_rows()
{
    std::set<const board_record *> seen;
    std::vector<const board_record *> rows;
    for (unsigned id = 0; id <= UINT16_MAX; ++id) {
        const auto sysid = static_cast<uint16_t>(id);
        if (!corvo_get_board(sysid, UINT8_MAX)) continue;
        for (unsigned revision = 0; revision <= UINT8_MAX; ++revision) {
            const board_record *row = corvo_get_board(sysid, static_cast<uint8_t>(revision));
            if (row && seen.insert(row).second) rows.push_back(row);
        }
    }
    return rows;
}

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
    const auto rows = all_rows();
    EXPECT_EQ(31U, rows.size());
    for (const board_record *row : rows) {
        SCOPED_TRACE(testing::Message() << row->model_name << " " << row->board_revision);
        const device_record *device = corvo_get_device(row->system_id);
        ASSERT_NE(nullptr, device);
        EXPECT_STREQ(device->name, row->model_name);

        const installed board(*row);
        EXPECT_NE(nullptr, get_main_phy());
        const auto ids = port_ids(*row);
        EXPECT_EQ(static_cast<size_t>(get_num_of_eth_ports()), ids.size());
        EXPECT_EQ(ids.size(), std::set<int>(ids.begin(), ids.end()).size()) << "two ports of one number";
        for (int i = 0; i < row->radio_count; ++i) EXPECT_EQ("wifi" + std::to_string(i), get_radio_dev_name(i));
    }
}

TEST(Board, RevisionChoosesTheRow)
{
    constexpr struct {
        uint16_t sysid;
        uint8_t revision;
        int lowest; // of the row found; -1: none
    } cases[] = {{42512, 0, 0},   {42512, 7, 0},  {42512, 8, 8}, {42512, 255, 8}, {42528, 18, 0},
                 {42528, 19, 19}, {45090, 1, -1}, {45090, 2, 2}, {0, 0, -1},      {42656, 9, -1}};
    for (const auto &c : cases) {
        const board_record *row = corvo_get_board(c.sysid, c.revision);
        EXPECT_EQ(c.lowest, row ? row->board_revision : -1) << c.sysid << " revision " << int{c.revision};
    }
    EXPECT_EQ(4, corvo_get_radio_count(42629));
    EXPECT_EQ(0, corvo_get_radio_count(56500)) << "wired only";
    EXPECT_EQ(0, corvo_get_radio_count(1));
}

TEST(Board, DevicesAreFoundByIdButNotByZero)
{
    EXPECT_STREQ("Linkbar 7", device_identify_by_sysid(59911)->name);
    EXPECT_STREQ("Rack 48", corvo_get_device(45106)->name) << "no board of the table";
    EXPECT_EQ(nullptr, device_identify_by_sysid(0));
    EXPECT_EQ(nullptr, device_identify_by_sysid(1));
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
    EXPECT_EQ(372, board->country_code);
    EXPECT_EQ(0x37, board->regulatory_domain);
    EXPECT_EQ(19, corvo_get_board(42528, 20)->board_revision) << "the row stays as it is";

    site::put_file(board_file,
                   "boardrevision=-3\ncpuid=0x7\nserialno=020304050607\nregdmn[]=52\nwifi1=02:00:00:00:00:09");
    EXPECT_EQ(board, board_identify());
    board_record *fresh = get_board();
    ASSERT_NE(nullptr, fresh);
    EXPECT_EQ(-3, fresh->board_revision);
    EXPECT_EQ(7U, fresh->cpu_id);
    EXPECT_EQ(0x52, fresh->regulatory_domain);
    EXPECT_EQ(0, fresh->radios[0].mac[5]);
    EXPECT_EQ(9, fresh->radios[1].mac[5]);
    free(fresh);
    held.expect_unchanged();
    update_cached_board(nullptr);
    free(const_cast<board_record *>(board)); // the library would keep it for the life of the process
}

TEST(Board, FailuresAreLoggedOnceAndKept)
{
    log_lines log;
    constexpr const char *good_info = "systemid=a686\nboardrevision=11\n";
    constexpr const char *no_ids = "Failed to identify the board";
    constexpr const char *no_info = "Failed to add board info";
    constexpr struct {
        const char *info, *board, *message;
    } cases[] = {
        {nullptr, nullptr, no_ids},
        {"", "", no_ids},
        {"systemid=a686\n", "", no_ids},
        {"boardrevision=11\n", "", no_ids},
        {"systemid=xyz\nboardrevision=11\n", "", no_ids},
        {"systemid=a6f0\nboardrevision=11\n", "", "Failed to find a matching board"},
        {good_info, nullptr, no_info},
        {good_info, "boardrevision=1\nserialno=020304050607\n", no_info},
        {good_info, "cpuid=1\nserialno=020304050607\n", no_info},
        {good_info, "cpuid=1\nboardrevision=1\nserialno=02:03:04\n", no_info},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << (c.info ? c.info : "none") << " / " << (c.board ? c.board : "none"));
        site::remove_file("/proc/velahal");
        if (c.info) site::put_file(system_info, c.info);
        if (c.board) site::put_file(board_file, c.board);
        EXPECT_EQ(nullptr, get_board());
        EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "libvela", "get_board", c.message}));
    }

    uint16_t sysid = 7;
    uint8_t revision = 7;
    site::put_file(system_info, "systemid=1\n");
    EXPECT_EQ(1, board_identify_ids(&sysid, &revision));
    EXPECT_EQ(7, sysid) << "untouched on failure";

    const board_record *unknown = board_identify();
    EXPECT_STREQ("Unknown", unknown->model_name);
    (void)log.take();
    site::lay_out_device();
    EXPECT_EQ(unknown, board_identify());
    EXPECT_THAT(log.take(), IsEmpty()) << "tried again";
    const installed board(*corvo_get_board(42630, 0));
    EXPECT_STREQ("Orb 7", board_identify()->model_name);
}

TEST(Board, HostileBoardFileIsReadWithinItsBounds)
{
    const log_lines log;
    site::lay_out_device();
    const std::string whole = site::read_file(board_file);
    std::vector<std::string> files;
    for (size_t n = 0; n <= whole.size(); ++n) files.push_back(whole.substr(0, n));
    files.push_back("qrid=" + std::string(100000, 'Q') + "\n" + whole);
    files.push_back(whole + std::string(1 << 20, '='));
    files.push_back(std::string(300000, '\n') + "cpuid=\nboardrevision=999999999999999999999\nserialno=::::::\n");
    files.push_back(std::string("cpuid\0=1\n", 9) + whole);
    std::string noise(65536, '\0');
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>(i * i >> 3);
    files.push_back(whole + noise);

    const leak_check held;
    for (const auto &content : files) {
        site::put_file(board_file, content);
        board_record *board = get_board();
        if (board) {
            EXPECT_STREQ("Orb 7", board->model_name);
            EXPECT_LT(strnlen(board->qr_id, sizeof board->qr_id), sizeof board->qr_id);
        }
        free(board);
    }
    held.expect_unchanged();
}

TEST(Board, WantOfMemoryNamesTheTable)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    site::lay_out_device();
    testing::internal::CaptureStderr();
    for (int n = 0; n < 12; ++n) {
        if (const pid_t child = fork()) {
            waitpid(child, nullptr, 0);
            continue;
        }
        const faults::refuse_memory one(n);
        free(get_board());
        _exit(0);
    }
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::ContainsRegex("boards-corvo:[0-9]+: Out of memory"));
}

TEST(Board, PoeBudgetIsWhatTheReserveLeaves)
{
    constexpr struct {
        uint16_t budget, reserve, left;
    } cases[] = {{0, 0, 0}, {0, 5, 0}, {60, 8, 52}, {8, 8, 0}, {8, 9, 0}, {65535, 0, 65535}};
    board_record board = {};
    const installed as_board(board);
    for (const auto &c : cases) {
        board.poe_budget = c.budget;
        board.poe_reserve = c.reserve;
        EXPECT_EQ(c.left, board_get_poe_budget()) << c.budget << " - " << c.reserve;
        EXPECT_EQ(c.left != 0, board_has_poe());
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

    board.phy_groups[0].ports[1].label = "PoE In + Data";
    EXPECT_EQ(2U, get_main_phy_port_id());
    board.phy_groups[0].ports[0].label = "Main";
    EXPECT_EQ(1U, get_main_phy_port_id()) << "in order of ports, whatever the label";

    board.phy_group_count = 255;
    for (auto &group : board.phy_groups) group.port_count = 255;
    for (auto &group : board.phy_groups) group.ports[0].label = group.ports[1].label = nullptr;
    EXPECT_EQ(nullptr, get_main_phy());
    EXPECT_EQ(-1, get_phy_port_id_by_idx(200));
    EXPECT_EQ(32U, port_ids(board).size());
    unsigned group = 0, port = 0;
    EXPECT_EQ(nullptr, board_get_next_phy(nullptr, &group, &port));
}

TEST(Board, MediaNames)
{
    constexpr struct {
        uint32_t media, speed;
        const char *name;
        bool sfp;
    } cases[] = {
        {2 | 16, 0, "SFP+", true},   {8 | 16, 0, "SFP+", true},
        {8 | 1, 0, "SFP", true},     {1, 256, "FE", false},
        {1 | 32, 0, "FE", true},     {32, 0, "SFP28", true},
        {128, 0, "QSFP28", true},    {64, 0, "UNKNOWN", true},
        {0, 64, "UNKNOWN", false},   {2, 0, "GE", false},
        {4 | 1, 0, "GE", false},     {4, 64, "2P5GE", false},
        {2, 64 | 128, "5GE", false}, {4, 64 | 128 | 256, "10GE", false},
    };
    for (const auto &c : cases) {
        const phy_port port = {0, 0, c.media, c.speed, nullptr, nullptr, 0};
        EXPECT_STREQ(c.name, board_get_phy_port_media(&port)) << c.media << " " << c.speed;
        EXPECT_EQ(c.sfp, board_phy_is_sfp(&port)) << c.media;
    }
}

TEST(Board, AfcIsForOutdoorModelsWithBothBitsInOneRadio)
{
    board_record board = {};
    board.radio_count = 2;
    board.radios[0].flags = 0x80000000;
    board.radios[1].flags8 = 0x80;
    board.radios[2] = {"wifi2", 0x80000000, 0x80, {}, 0};
    board.flags = 1;
    EXPECT_FALSE(board_has_afc_6g_radio(&board)) << "in two radios, and in one beyond the count";
    board.radio_count = 3;
    EXPECT_TRUE(board_has_afc_6g_radio(&board));
    EXPECT_TRUE(board_requires_afc_for_6g(&board));
    board.flags = 0xFE;
    EXPECT_FALSE(board_is_outdoor_capable(&board));
    EXPECT_FALSE(board_requires_afc_for_6g(&board));
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
    EXPECT_EQ(0, board_get_cpu_mac(&port));
    EXPECT_STREQ("eth9", port.name);
    EXPECT_EQ(513, port.value);
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
