#include "site/device.h"
#include "site/world.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <vela/board/board.h>

using testing::ElementsAre;

namespace
{

constexpr const char *info_file = "/proc/velahal/system.info", *board_file = "/proc/velahal/board";

std::vector<int> port_ids(const board_record &board)
{
    std::vector<int> ids;
    unsigned group = 0, port = 0;
    while (const phy_port *p = board_get_next_phy(&board, &group, &port)) ids.push_back(p->port_id);
    EXPECT_EQ(nullptr, board_get_next_phy(&board, &group, &port)) << "after the end";
    return ids;
}

} // namespace

TEST(Board, TablesAreAskedByIdAndRevision)
{
    // The lowest revision of the row found; -1: none.
    const table<uint16_t, uint8_t, int> cases = {{42512, 7, 0}, {42512, 8, 8}, {42528, 255, 19}, {45090, 1, -1},
                                                 {45090, 2, 2}, {0, 0, -1},    {42656, 9, -1}};
    for (const auto &[sysid, revision, lowest] : cases) {
        const board_record *row = corvo_get_board(sysid, revision);
        EXPECT_EQ(lowest, row ? row->board_revision : -1) << sysid << " revision " << int{revision};
        EXPECT_EQ(row, corvo_get_board(sysid, revision)) << "the same record again";
    }
    EXPECT_EQ(4, corvo_get_radio_count(42629));
    EXPECT_EQ(0, corvo_get_radio_count(1));
    EXPECT_STREQ("Rack 48", corvo_get_device(45106)->name) << "no board of the table";
    for (const uint16_t none : {0, 1}) EXPECT_EQ(nullptr, device_identify_by_sysid(none)) << none;
}

// A new row needs its name in the device table, too.
TEST(Board, EachRowIsAPossibleModel)
{
    for (unsigned id = 0; id <= UINT16_MAX; ++id) {
        const board_record *row = corvo_get_board(static_cast<uint16_t>(id), 255);
        if (!row) continue;
        const device_record *device = device_identify_by_sysid(row->system_id);
        EXPECT_STREQ(row->model_name, device ? device->name : "(no name)");
        update_cached_board(row);
        EXPECT_NE(nullptr, get_main_phy()) << row->model_name;
        for (int i = 0; i < row->radio_count; ++i) EXPECT_EQ("wifi" + std::to_string(i), get_radio_dev_name(i));
    }
}

TEST(Board, IdentifiedOnceFromTheDevice)
{
    site::lay_out_device({.sysid = 42528, .revision = 20, .cpuid = 0x410fd034, .serial = "02564c0a1b2c"});
    update_cached_board(nullptr);
    const leak_check held;
    const board_record *board = board_identify();
    EXPECT_EQ(20, board->board_revision);
    EXPECT_EQ(19, corvo_get_board(42528, 20)->board_revision) << "the row's stays";
    EXPECT_THAT(board->serial, ElementsAre(0x02, 0x56, 0x4c, 0x0a, 0x1b, 0x2c));
    EXPECT_EQ(0x410fd034U, board->cpu_id);
    EXPECT_EQ(372, board->country_code);
    EXPECT_EQ(0x37, board->regulatory_domain);

    site::put_file(board_file, "qrid=" + std::string(99, 'Q') +
                                   "\nboardrevision=-3\ncpuid=0x7\nserialno=020304050607\nwifi1=02:00:00:00:00:09");
    EXPECT_EQ(board, board_identify());
    board_record *fresh = get_board();
    EXPECT_EQ(-3, fresh->board_revision);
    EXPECT_EQ(9, fresh->radios[1].mac[5]);
    EXPECT_EQ(std::string(15, 'Q'), fresh->qr_id);
    free(fresh);
    held.expect_unchanged();
    update_cached_board(nullptr);
    free(const_cast<board_record *>(board)); // the library would keep it for the life of the process
}

TEST(Board, FailuresAreLoggedOnceAndKept)
{
    log_lines log;
    update_cached_board(nullptr);
    // The two files, the ids that are read nevertheless, and the message.
    const std::string good = "systemid=a686\nboardrevision=11\n", no_facts = "Failed to add board info";
    const table<std::string, const char *, uint16_t, uint8_t, std::string> cases = {
        {"boardrevision=11\n", "", 0, 11, "Failed to identify the board"},
        {"systemid=a686\n", "", 0xa686, 0, "Failed to identify the board"},
        {"systemid=a6f0\nboardrevision=11\n", "", 0xa6f0, 11, "Failed to find a matching board"},
        {good, "boardrevision=1\nserialno=020304050607\n", 0xa686, 11, no_facts},
        {good, "cpuid=1\nserialno=020304050607\n", 0xa686, 11, no_facts},
        {good, "cpuid=1\nboardrevision=1\nserialno=02:03:04\n", 0xa686, 11, no_facts}};
    for (const auto &[ids, facts, id, lowest, message] : cases) {
        site::put_file(info_file, ids);
        site::put_file(board_file, facts);
        uint16_t sysid = 7;
        uint8_t revision = 7;
        EXPECT_EQ(id == 0 || lowest == 0, board_identify_ids(&sysid, &revision)) << ids;
        EXPECT_EQ(std::pair(id, lowest), std::pair(sysid, revision)) << ids;
        EXPECT_EQ(nullptr, get_board());
        EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "libvela", "get_board", message})) << ids;
    }

    const board_record *unknown = board_identify();
    EXPECT_STREQ("Unknown", unknown->model_name);
    site::lay_out_device();
    EXPECT_EQ(unknown, board_identify());
    EXPECT_EQ(1U, log.take().size()) << "tried again";
}

TEST(Board, MainPortIsTheOnlyOneOrTheLabelledOne)
{
    static board_record board = {};
    update_cached_board(&board);
    EXPECT_EQ(UINT32_MAX, get_main_phy_port_id());
    EXPECT_EQ(UINT32_MAX, get_main_phy_idx());

    board.phy_group_count = 3;
    board.phy_groups[0] = {PHY_GROUP_MULTI, 2, {{0, 1, 0, 0, nullptr, nullptr, 0}, {1, 2, 0, 0, "main", nullptr, 0}}};
    board.phy_groups[2] = {PHY_GROUP_SINGLE, 1, {{9, 255, 0, 0, nullptr, nullptr, 0}}};
    EXPECT_EQ(255U, get_main_phy_port_id()) << "alone in its group, without a label";
    EXPECT_EQ(9U, get_main_phy_idx());
    EXPECT_EQ(255, get_phy_port_id_by_idx(9));
    EXPECT_EQ(-1, get_phy_port_id_by_idx(2));
    EXPECT_EQ(3, get_num_of_eth_ports());
    EXPECT_THAT(port_ids(board), ElementsAre(1, 2, 255)) << "over the group without ports";
    unsigned group = 0, port = 1;
    EXPECT_EQ(2, board_get_next_phy(&board, &group, &port)->port_id);
    EXPECT_EQ(std::pair(1U, 0U), std::pair(group, port)) << "the group was exhausted";

    board.phy_groups[0].ports[1].label = "PoE In + Data";
    EXPECT_EQ(2U, get_main_phy_port_id());
    board.phy_groups[0].ports[0].label = "Main";
    EXPECT_EQ(1U, get_main_phy_port_id()) << "in order of ports, whatever the label";
}

// Records may come from a caller: no more than they hold is looked at.
TEST(Board, CountsBeyondTheRecordAreCut)
{
    static board_record board = {.phy_group_count = 255, .radio_count = 255};
    for (auto &g : board.phy_groups) g.port_count = 255;
    update_cached_board(&board);
    EXPECT_EQ(nullptr, get_main_phy());
    EXPECT_EQ(32U, port_ids(board).size());
    for (const int i : {-1, 0, 4, INT_MAX}) EXPECT_STREQ("", get_radio_dev_name(i)) << i;
}

TEST(Board, MediaNames)
{
    const table<uint32_t, uint32_t, const char *, bool> cases = {
        {2 | 8 | 16, 0, "SFP+", true}, {8 | 1, 0, "SFP", true},  {1 | 32, 256, "FE", true},
        {32 | 128, 0, "SFP28", true},  {64, 0, "UNKNOWN", true}, {4 | 1, 0, "GE", false},
        {2, 64 | 128, "5GE", false}};
    for (const auto &[media, speed, name, sfp] : cases) {
        const phy_port port = {.media = media, .speed = speed};
        EXPECT_STREQ(name, board_get_phy_port_media(&port)) << media << " " << speed;
        EXPECT_EQ(sfp, board_phy_is_sfp(&port)) << media;
    }
}

TEST(Board, PowerOfTheRecord)
{
    static board_record board = {.cpu_port = {"eth9", 513}};
    update_cached_board(&board);
    for (const auto &[budget, reserve, left] : table<uint16_t, uint16_t, int>{{0, 5, 0}, {60, 8, 52}, {8, 9, 0}}) {
        board.poe_budget = budget, board.poe_reserve = reserve;
        EXPECT_EQ(left, board_get_poe_budget()) << budget << " - " << reserve;
        EXPECT_EQ(left != 0, board_has_poe()) << budget << " - " << reserve;
    }
    cpu_port port = {};
    EXPECT_EQ(-1, board_get_cpu_mac(nullptr));
    EXPECT_EQ(0, board_get_cpu_mac(&port));
    EXPECT_EQ(513, port.value);
}

TEST(Board, AfcTakesBothTopBitsInOneRadioThatCounts)
{
    board_record board = {};
    board.radios[0].flags = 0x80000000;
    board.radios[1].flags8 = 0x80;
    board.radios[2] = {"wifi2", 0x80000000, 0x80, {}, 0};
    // Radios, flags; outdoor capable, with an AFC radio, AFC required.
    const table<uint8_t, uint8_t, int, int, int> cases = {{2, 1, 1, 0, 0}, {3, 1, 1, 1, 1}, {3, 0xFE, 0, 1, 0}};
    for (const auto &[radios, flags, outdoor, afc, required] : cases) {
        board.radio_count = radios, board.flags = flags;
        EXPECT_EQ(outdoor, board_is_outdoor_capable(&board)) << int{flags};
        EXPECT_EQ(afc, board_has_afc_6g_radio(&board)) << int{radios};
        EXPECT_EQ(required, board_requires_afc_for_6g(&board)) << int{radios} << " " << int{flags};
    }
    for (const auto question : {board_is_outdoor_capable, board_has_afc_6g_radio}) EXPECT_EQ(0, question(nullptr));
}

TEST(Board, AccelerometerReadsItsThreeAxes)
{
    site::remove_file("/sys/bus"); // a link to the host's
    EXPECT_FALSE(has_accelerometer());
    const std::string device = "/sys/bus/iio/devices/iio:device0/";
    site::put_file(device + "in_accel_x_raw", "-123456789\n"); // eight characters, the sign counts
    EXPECT_TRUE(has_accelerometer());
    json_t *status = prepare_accelerometer_status();
    json_t *expected = json_pack("{si si si}", "x", -1234567, "y", 0, "z", 0);
    EXPECT_TRUE(json_equal(expected, status));
    EXPECT_EQ("50", site::read_file(device + "sampling_frequency"));
    for (json_t *held : {status, expected}) json_decref(held);
}
