#include "site/device.h"
#include "site/world.h"
#include "tests/support/log_lines.h"

#include <cctype>
#include <gmock/gmock.h>
#include <vela/board/board.h>
#include <vela/wireless/freq.h>

using testing::ElementsAre;

TEST(Freq, EveryConverterOnBothSidesOfItsEdges)
{
    struct {
        uint32_t mhz, channel;
        int band;
        const char *name;
        uint32_t driver_channel;
    } const cases[] = {
        {1000, (1000U - 2407U) / 5, 0, "unknown", (1000U - 2407U) / 5},
        {2411, 0, 0, "unknown", 0},
        {2412, 1, 1, "ng", 1},
        {2484, 14, 1, "ng", 14},
        {2485, (2485U - 5000U) / 5, 0, "unknown", (2485U - 2512U) / 20 + 15},
        {4909, (4909U - 5000U) / 5, 0, "unknown", 181},
        {4910, 182, 2, "na", 182},
        {4942, 188, 2, "na", 5},
        {4945, 189, 2, "na", 10},
        {4980, 196, 2, "na", 80},
        {4981, (4981U - 5000U) / 5, 0, "na", 82},
        {4990, (4990U - 5000U) / 5, 0, "na", 198},
        {5160, 32, 3, "na", 32},
        {5876, 175, 3, "unknown", 175},
        {5924, 184, 3, "unknown", 184},
        {5925, (5925U - 5950U) / 5, 3, "unknown", 185},
        {5935, 2, 4, "unknown", 187},
        {5945, (5945U - 5950U) / 5, 4, "6e", 189},
        {5950, 0, 4, "6e", 190},
        {5955, 1, 4, "6e", 1},
        {7115, 233, 4, "6e", 233},
        {7120, 234, 0, "6e", 234},
        {7126, 235, 0, "unknown", 235},
        {45001, 0, 0, "unknown", 7810},
        {58320, 1, 5, "unknown", 10474},
        {70201, 0, 0, "unknown", 12850},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.channel, vl_freq_to_channel(c.mhz)) << c.mhz << " MHz";
        EXPECT_EQ(c.band, vl_freq_to_band(c.mhz)) << c.mhz << " MHz";
        EXPECT_STREQ(c.name, get_band(c.mhz)) << c.mhz << " MHz";
        EXPECT_EQ(c.driver_channel, ieee80211_mhz2ieee(c.mhz)) << c.mhz << " MHz";
    }
    constexpr struct {
        uint32_t channel, band, mhz;
    } channels[] = {{0, 1, 0},     {1, 1, 2412},   {13, 1, 2472}, {14, 1, 2484}, {15, 1, 0},        {34, 3, 0},
                    {36, 3, 5180}, {177, 3, 5885}, {178, 3, 0},   {1, 4, 5955},  {2, 4, 5960},      {233, 4, 7115},
                    {234, 4, 0},   {36, 2, 0},     {1, 5, 0},     {1, 0, 0},     {UINT32_MAX, 4, 0}};
    for (const auto &c : channels)
        EXPECT_EQ(c.mhz, vl_channel_to_freq(c.channel, c.band)) << c.channel << " in " << c.band;
}

TEST(Freq, CentresAndWidthsByModeAndSignals)
{
    log_lines log;
    constexpr struct {
        uint32_t mhz, channel, mode;
        int centre;
    } cases[] = {
        {5180, 36, 8, 5180},   {5180, 36, 9, 5190},        {5200, 40, 10, 5190}, {2437, 6, 13, 2422},
        {2442, 7, 29, 2462},   {5180, 36, 14, 5190},       {5200, 40, 18, 5190}, {5745, 149, 28, 5755},
        {5765, 153, 14, 5755}, {5180, 36, 19, 5210},       {5240, 48, 30, 5210}, {5745, 149, 21, 5775},
        {5805, 161, 32, 5775}, {5180, 36, 20, 5250},       {5320, 64, 31, 5250}, {5180, 36, 33, -1},
        {5180, 1, 19, 5055},   {5180, 36, UINT32_MAX, -1},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.centre, get_center_freq(c.mhz, c.channel, c.mode)) << "channel " << c.channel << " mode " << c.mode;
    }
    constexpr struct {
        uint32_t mode;
        int mhz;
    } widths[] = {{0, 20},   {8, 20},   {9, 40},  {14, 40}, {15, 20},  {16, 40},    {18, 40}, {19, 80},
                  {20, 160}, {21, 160}, {22, 20}, {23, 20}, {24, 40},  {29, 40},    {30, 80}, {32, 160},
                  {34, 20},  {35, 40},  {40, 40}, {41, 80}, {42, 160}, {0x12B, 320}};
    for (const auto &w : widths) EXPECT_EQ(w.mhz, get_bw(w.mode)) << "mode " << w.mode;
    EXPECT_TRUE(log.take().empty());
    for (const auto &[value, step, dbm] :
         {std::tuple{0, 0, -96}, {250, 0, -102}, {90, 2, 0}, {INT32_MIN, INT32_MAX, -99}})
        EXPECT_EQ(dbm, vela_convert_to_dbm(value, step)) << value << ", " << step;
    EXPECT_EQ(-1, get_bw(0x22C));
    EXPECT_EQ("unknown phymode: 0x22c", log.take().at(0).text);
}

TEST(Freq, RolesComeFromTheUsageFile)
{
    site::put_file("/var/run/vapusage.ath0", "uplink\n");
    site::put_file("/var/run/vapusage.ath1", "downlink\n");
    site::put_file("/var/run/vapusage.seventeen-letters", "uplink\n");
    site::put_file("/var/run/vapusage.sixteen-letters-", "uplink\n");
    constexpr struct {
        const char *name;
        int role, short_path_role;
    } cases[] = {
        {"ath0", 1, 1}, {"ath1", 2, 1}, {"missing", 0, 0}, {"seventeen-letters", 1, 0}, {"sixteen-letters-", 1, 1}};
    for (const auto &c : cases) {
        EXPECT_EQ(c.role, get_wireless_vap_role(c.name)) << c.name;
        EXPECT_EQ(c.short_path_role, is_wireless_uplink_or_downlink_vap(c.name)) << c.name;
    }
}

TEST(Freq, UplinkStateFollowsRoleAndCarrier)
{
    EXPECT_EQ(0, get_wireless_uplink_state());
    ASSERT_EQ(0, site::run("ip link add wds0 type veth peer name far"));
    site::put_file("/var/run/vapusage.wds0", "uplink\n");
    EXPECT_EQ(1, get_wireless_uplink_state());
    ASSERT_EQ(0, site::run("ip link set wds0 up && ip link set far up"));
    EXPECT_EQ(2, get_wireless_uplink_state());
}

TEST(Freq, AnInterfaceWithoutWirelessHasNoSsid)
{
    log_lines log;
    char ssid[33] = "old";
    EXPECT_GT(0, get_if_essid("lo", ssid, sizeof ssid));
    EXPECT_STREQ("", ssid);
    EXPECT_THAT(log.texts(), ElementsAre(testing::StartsWith("unable to get essid: ")));
}

// The masks of boards made up of attributes, not of the table's models.
TEST(Freq, CapabilitiesFollowTheBoard)
{
    struct {
        uint16_t system_id;
        uint32_t sets, layout, radio_flags;
        uint32_t cap, cap2;
    } const cases[] = {
        {1, 0, 0, 0, 0xA17EBEDD, 0x00002FF1},         // none of the families
        {1, 1, 0, 0, 0xA17FBECD, 0x00002FF1},         // set A
        {1, 2, 0, 0, 0xA37EBEDD, 0x00002FF1},         // set B
        {1, 4, 0, 0, 0xB17EBEDD, 0x00002FF1},         // set C
        {1, 8, 0, 0, 0xA17EFEDD, 0x00002FF1},         // several 5 GHz radios
        {42512, 0, 2, 0, 0xA57EBEDD, 0x00002FF1},     // orb5
        {42580, 0, 4, 0x100, 0xED7EBEDD, 0x00002FF1}, // orb6 with 6 GHz
        {42580, 0, 3, 0, 0xE97EBEDD, 0x00002FF1},     //
        {42625, 4, 0, 0x100, 0xF97EBEDD, 0x00006FFD}, // orb7 with 6 GHz
        {42655, 0, 0, 0, 0xE97EFEDD, 0x0000EF91},     // hbx switch
        {59911, 0, 0, 0, 0xE97EFEDD, 0x0000EF91},     // linkbar
    };
    for (const auto &c : cases) {
        static board_record board;
        board = {};
        board.system_id = c.system_id;
        board.capability_sets = static_cast<decltype(board.capability_sets)>(c.sets);
        board.radio_layout = static_cast<decltype(board.radio_layout)>(c.layout);
        board.radio_count = 1;
        board.radios[0].flags = c.radio_flags;
        board.radios[1].flags = 0x100; // beyond the count
        update_cached_board(&board);
        EXPECT_EQ(c.cap, get_wifi_cap()) << c.system_id << " sets " << c.sets << std::hex << ' ' << get_wifi_cap();
        EXPECT_EQ(c.cap2, get_wifi_cap2()) << c.system_id << std::hex << ' ' << get_wifi_cap2();
        EXPECT_EQ((c.sets & 8) != 0, is_multi_5ghz());
    }
    static board_record board = {};
    board.capabilities = 0x04;
    update_cached_board(&board);
    EXPECT_EQ(0x00042FF1U, get_wifi_cap2()) << "Wi-Fi only";
    ASSERT_EQ(0, site::run("ip link add wds0 type veth peer name far && ip link set wds0 up && ip link set far up"));
    site::put_file("/var/run/vapusage.wds0", "uplink\n");
    EXPECT_EQ(0xA17EBECDU, get_wifi_cap()) << "an associated wireless uplink";
}
