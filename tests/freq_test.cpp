#include "site/world.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <poll.h>
#include <vela/board/board.h>
#include <vela/wireless/freq.h>

TEST(Freq, EveryConverterOnBothSidesOfItsEdges)
{
    const table<uint32_t, uint32_t, int, std::string, uint32_t> frequencies = {
        {1000, (1000U - 2407U) / 5, 0, "unknown", (1000U - 2407U) / 5},
        {2411, 0, 0, "unknown", 0},
        {2412, 1, 1, "ng", 1},
        {2484, 14, 1, "ng", 14},
        {2485, (2485U - 5000U) / 5, 0, "unknown", (2485U - 2512U) / 20 + 15},
        {4910, 182, 2, "na", 182},
        {4942, 188, 2, "na", 5},
        {4980, 196, 2, "na", 80},
        {4981, (4981U - 5000U) / 5, 0, "na", 82},
        {4990, (4990U - 5000U) / 5, 0, "na", 198},
        {5876, 175, 3, "unknown", 175},
        {5925, (5925U - 5950U) / 5, 3, "unknown", 185},
        {5935, 2, 4, "unknown", 187},
        {5945, (5945U - 5950U) / 5, 4, "6e", 189},
        {5950, 0, 4, "6e", 190},
        {5955, 1, 4, "6e", 1},
        {7120, 234, 0, "6e", 234},
        {45001, 0, 0, "unknown", 7810},
        {58320, 1, 5, "unknown", 10474},
    };
    for (const auto &[mhz, channel, band, name, driver_channel] : frequencies) {
        EXPECT_EQ(channel, vl_freq_to_channel(mhz)) << mhz << " MHz";
        EXPECT_EQ(band, vl_freq_to_band(mhz)) << mhz << " MHz";
        EXPECT_EQ(name, get_band(mhz)) << mhz << " MHz";
        EXPECT_EQ(driver_channel, ieee80211_mhz2ieee(mhz)) << mhz << " MHz";
    }
    const table<uint32_t, uint32_t, uint32_t> channels = {
        {0, 1, 0},   {13, 1, 2472}, {14, 1, 2484},  {15, 1, 0},  {35, 3, 0}, {36, 3, 5180}, {177, 3, 5885},
        {178, 3, 0}, {2, 4, 5960},  {233, 4, 7115}, {234, 4, 0}, {36, 2, 0}, {1, 5, 0},     {1, 0, 0}};
    for (const auto &[channel, band, mhz] : channels)
        EXPECT_EQ(mhz, vl_channel_to_freq(channel, band)) << channel << " in " << band;
}

TEST(Freq, CentresAndWidthsByModeAndSignals)
{
    const table<uint32_t, uint32_t, uint32_t, int> centres = {
        {5180, 36, 8, 5180},  {5180, 36, 9, 5190},   {5200, 40, 10, 5190},  {2437, 6, 13, 2422},  {2442, 7, 29, 2462},
        {5180, 36, 14, 5190}, {5745, 149, 28, 5755}, {5765, 153, 14, 5755}, {5240, 48, 30, 5210}, {5805, 161, 32, 5775},
        {5320, 64, 31, 5250}, {5180, 36, 33, -1},    {5180, 1, 19, 5055}};
    for (const auto &[mhz, channel, mode, centre] : centres)
        EXPECT_EQ(centre, get_center_freq(mhz, channel, mode)) << "channel " << channel << " mode " << mode;

    log_lines log;
    for (const auto &[mode, mhz] : table<uint32_t, int>{{8, 20}, {14, 40}, {15, 20}, {0x12B, 320}, {0x22C, -1}})
        EXPECT_EQ(mhz, get_bw(mode)) << "mode " << mode;
    EXPECT_THAT(log.shown(), testing::ElementsAre("[info] wireless.get_bw(): unknown phymode: 0x22c"));
    for (const auto &[value, step, dbm] : table<int, int, int>{{250, 0, -102}, {90, 2, 0}, {INT32_MIN, INT32_MAX, -99}})
        EXPECT_EQ(dbm, vela_convert_to_dbm(value, step)) << value << ", " << step;
}

TEST(Freq, RolesComeFromTheUsageFile)
{
    // The shorter path buffer cuts a name of seventeen letters.
    for (const auto &[name, word, role, short_path_role] :
         table<std::string, std::string, int, int>{{"ath0", "uplink\n", 1, 1},
                                                   {"ath1", "downlink\n", 2, 1},
                                                   {"ath2", "uplinks\n", 0, 0},
                                                   {"sixteen-letters-", "uplink\n", 1, 1},
                                                   {"seventeen-letters", "uplink\n", 1, 0}}) {
        EXPECT_EQ(0, get_wireless_vap_role(name.c_str())) << name;
        site::put_file("/var/run/vapusage." + name, word);
        EXPECT_EQ(role, get_wireless_vap_role(name.c_str())) << name;
        EXPECT_EQ(short_path_role, is_wireless_uplink_or_downlink_vap(name.c_str())) << name;
    }
}

TEST(Freq, AnInterfaceWithoutWirelessHasNoSsid)
{
    log_lines log;
    char ssid[33] = "old";
    EXPECT_GT(0, get_if_essid("lo", ssid, sizeof ssid));
    EXPECT_STREQ("", ssid);
    EXPECT_THAT(
        log.shown(),
        testing::ElementsAre(std::string("[debug] wireless.get_if_essid(): unable to get essid: ") + strerror(ENOTTY)));
}

// The masks of boards made up of attributes, not of the table's models.
TEST(Freq, CapabilitiesFollowTheBoardAndItsUplink)
{
    static board_record board;
    update_cached_board(&board);
    const table<uint16_t, uint8_t, uint8_t, uint32_t, uint8_t, uint32_t, uint32_t> boards = {
        {1, 0, 0, 0, 0, 0xA17EBEDD, 0x00002FF1},                // none of the families
        {1, BOARD_SET_A, 0, 0, 0, 0xA17FBECD, 0x00002FF1},      //
        {1, BOARD_SET_B, 0, 0, 0, 0xA37EBEDD, 0x00002FF1},      //
        {1, BOARD_SET_C, 0, 0, 0, 0xB17EBEDD, 0x00002FF1},      //
        {1, BOARD_MULTI_5GHZ, 0, 0, 0, 0xA17EFEDD, 0x00002FF1}, //
        {1, 0, 0, 0, BOARD_WIFI_ONLY, 0xA17EBEDD, 0x00042FF1},  //
        {42512, 0, 2, 0, 0, 0xA57EBEDD, 0x00002FF1},            // orb5
        {42580, 0, 4, 0x100, 0, 0xED7EBEDD, 0x00002FF1},        // orb6 with 6 GHz
        {42580, 0, 3, 0, 0, 0xE97EBEDD, 0x00002FF1},            //
        {42625, 4, 0, 0x100, 0, 0xF97EBEDD, 0x00006FFD},        // orb7 with 6 GHz
        {42655, 0, 0, 0, 0, 0xE97EFEDD, 0x0000EF91},            // hbx switch
        {59911, 0, 0, 0, 0, 0xE97EFEDD, 0x0000EF91},            // linkbar
    };
    for (const auto &[id, sets, layout, flags, features, cap, cap2] : boards) {
        board = {.radio_count = 1,
                 .system_id = id,
                 .capabilities = features,
                 .radio_layout = layout,
                 .capability_sets = sets};
        board.radios[0].flags = flags;
        board.radios[1].flags = BOARD_RADIO_MULTI_LINK; // beyond the count
        EXPECT_EQ(cap, get_wifi_cap()) << id << " sets " << int{sets};
        EXPECT_EQ(cap2, get_wifi_cap2()) << id << " sets " << int{sets};
        EXPECT_EQ(sets == BOARD_MULTI_5GHZ, is_multi_5ghz()) << id << " sets " << int{sets};
    }

    EXPECT_EQ(VL_UPLINK_NONE, get_wireless_uplink_state());
    ASSERT_EQ(0, site::run("ip link add wds0 type veth peer name far"));
    site::put_file("/var/run/vapusage.wds0", "uplink\n");
    EXPECT_EQ(VL_UPLINK_CONFIGURED, get_wireless_uplink_state());
    ASSERT_EQ(0, site::run("ip link set wds0 up && ip link set far up"));
    for (int n = 0; n < 500 && get_wireless_uplink_state() != VL_UPLINK_ASSOCIATED; ++n) poll(nullptr, 0, 10);
    EXPECT_EQ(VL_UPLINK_ASSOCIATED, get_wireless_uplink_state()) << "carrier comes a moment after both ends are up";
    board = {.system_id = 1};
    EXPECT_EQ(0xA17EBECDU, get_wifi_cap()) << "an associated wireless uplink";
}
