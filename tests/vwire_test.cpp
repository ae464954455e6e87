#include "site/world.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <deque>
#include <gmock/gmock.h>
#include <vela/board/board.h>
#include <vela/mesh/vwire.h>

using testing::ElementsAre;

namespace
{

constexpr const char *serial_a = "02:56:4c:00:00:0a";
constexpr const char *serial_b = "02:56:4C:00:00:0B"; // case does not matter

/// Uplink interfaces with what they heard; the last one has not scanned.
struct heard {
    uplink_table table = {.count = 4};
    int index = -7;
    scan_list heads[3] = {};
    std::deque<scan_entry> entries;

    heard()
    {
        for (int i = 0; i < 3; ++i) {
            table.entries[i] = {.devname = {'a', 't', 'h', static_cast<char>('0' + i)}, .scan = &heads[i]};
            heads[i].first = heads[i].last = reinterpret_cast<scan_entry *>(&heads[i]);
        }
    }
    scan_entry *add(int iface, int32_t rssi, uint8_t serial, uint32_t mhz = 5180, const char *essid = "mesh")
    {
        auto *head = reinterpret_cast<scan_entry *>(&heads[iface]);
        scan_entry &e = entries.emplace_back(scan_entry{.next = head, .rssi = rssi, .freq = mhz, .mesh = {1, 1, 1, 1}});
        snprintf(e.essid, sizeof e.essid, "%s", essid);
        for (auto *number : {e.bssid, e.serial}) number[0] = 2, number[1] = 0x56, number[2] = 0x4c, number[5] = serial;
        (heads[iface].last == head ? heads[iface].first : heads[iface].last->next) = &e;
        return heads[iface].last = &e;
    }
    scan_entry *choose(const char *first, const char *second, int serials_len = 17, const char *essid = nullptr)
    {
        return vwire_select_best_for_band(&table, essid, 5, "na", first, serials_len, second, serials_len, &index);
    }
};

} // namespace

TEST(Vwire, PrefersSerialsWithinAMargin)
{
    enum { a, b, stranger };
    for (const auto &[rssi_a, rssi_b, rssi_stranger, first, second, length, expected, what] :
         table<int32_t, int32_t, int32_t, const char *, const char *, int, int, const char *>{
             {20, 20, 21, nullptr, nullptr, 17, stranger, "no serials"},
             {20, 1, 24, serial_a, nullptr, 17, a, "four stronger"},
             {20, 1, 25, serial_a, nullptr, 17, stranger, "five stronger"},
             {20, 21, 25, serial_a, serial_b, 17, b, "second within the margin"},
             {20, 20, 25, serial_a, serial_b, 17, stranger, "second beyond it"},
             {1, 21, 25, nullptr, serial_b, 17, b, "only a second"},
             {25, 1, 25, "00:00:00:00:00:00", nullptr, 17, a, "all zeros: the first of two equals"},
             {20, 1, 24, "00:00:4c:00:00:0a", nullptr, 5, stranger, "zeros over a shorter length"},
             {INT32_MIN + 1, 1, INT32_MAX, serial_a, nullptr, 17, stranger, "far apart"}}) {
        heard h;
        scan_entry *const entries[] = {h.add(0, rssi_a, 0x0a), h.add(1, rssi_b, 0x0b), h.add(2, rssi_stranger, 0x55)};
        EXPECT_EQ(entries[expected], h.choose(first, second, length)) << what;
        EXPECT_EQ(expected, h.index) << what;
    }
}

TEST(Vwire, OnlyCandidatesOfBandAndNetworkCount)
{
    heard h;
    h.add(0, 90, 1, 2412);
    h.add(0, 90, 2, 5955);
    h.add(0, 90, 3)->mesh[2] = 0;
    const scan_entry *longer = h.add(1, 50, 4, 5180, "mesh2");
    const scan_entry *wanted = h.add(1, 40, 5);
    EXPECT_EQ(wanted, h.choose(nullptr, nullptr, 0, "mesh")) << "the whole name, with its end";
    EXPECT_EQ(longer, h.choose(nullptr, nullptr)) << "any";
    EXPECT_EQ(nullptr, h.choose(nullptr, nullptr, 0, "none"));
    EXPECT_EQ(-1, h.index);
    EXPECT_EQ(nullptr, vwire_select_best_for_band(nullptr, nullptr, 0, "na", nullptr, 0, nullptr, 0, nullptr));
    EXPECT_EQ(nullptr, vwire_select_best_for_band(&h.table, nullptr, 0, nullptr, nullptr, 0, nullptr, 0, nullptr));
}

TEST(Vwire, SaysWhatItHeardAndFound)
{
    heard h;
    h.add(0, 30, 0x0a);
    h.add(1, 31, 0x0b, 5180, "other");
    log_lines log("info");
    print_uplink_wds_iface_scan_records(&h.table, "met", 2);
    const std::string a = "ESSID mesh BSSID 02:56:4c:00:00:0a ";
    EXPECT_THAT(log.texts(),
                ElementsAre("IFACE ath0: " + a + "Serial 02:56:4c:00:00:0a RSSI 30 @ 5180", "TOTAL scan entries: 2"));
    print_uplink_wds_iface_scan_records(&h.table, "none", 0);
    print_uplink_wds_iface_scan_records(&h.table, "vwire-unknown", 5);
    EXPECT_EQ(6U, log.take().size()) << "not filtered";

    h.choose("02:56:4c:00:00:0a", nullptr, 16); // given whole, compared over its beginning
    h.choose(nullptr, nullptr);
    const std::string found = "[info] vwire.vwire_select_best_for_band(): Found ";
    EXPECT_THAT(log.shown(), ElementsAre(found + "serial1 on IFACE ath1: serial 02:56:4c:00:00:0a ESSID other BSSID "
                                                 "02:56:4c:00:00:0b RSSI 31 @ 5180",
                                         found + "strongest RSSI on IFACE ath1: ESSID other BSSID 02:56:4c:00:00:0b "
                                                 "serialno 02:56:4c:00:00:0b RSSI 31 @ 5180"));
}

TEST(Vwire, BandChoice)
{
    static board_record board = {.radio_count = 1};
    board.radios[0].flags = 0x80000000;
    board.radios[0].flags8 = 0x80;
    update_cached_board(&board);
    log_lines log("info");
    for (const auto &[rssi6, rssi5, afc, expected, line] : table<int, int, const char *, int, std::string>{
             {25, 99, nullptr, 6, "prefer 6GHZ \u2014 6GHZ RSSI 25 >= 25 @ 5955, choosing 6GHZ"},
             {24, 31, nullptr, 6,
              "both present \u2014 6GHZ preferred (5GHz delta=7 < 8), choosing 6GHZ (RSSI 24 @ 5955)"},
             {24, 32, nullptr, 5, "both present \u2014 5GHz stronger by 8 dB (>= 8), choosing 5GHz (RSSI 32 @ 5180)"},
             {24, 0, nullptr, 6, "only 6GHZ present, choosing 6GHZ (RSSI 24 @ 5955)"},
             {60, 9, "waiting_for_location", 5, "only 5GHz present, choosing 5GHz (RSSI 9 @ 5180)"},
             {60, 0, "error", -1, "no 5GHz/6GHZ candidates available \u2014 returning inactive"},
             {60, 9, "active", 6, "prefer 6GHZ \u2014 6GHZ RSSI 60 >= 25 @ 5955, choosing 6GHZ"}}) {
        board.flags = afc ? BOARD_OUTDOOR : 0; // which needs AFC
        if (afc) site::put_file("/var/run/afc.state", afc);
        const scan_entry six = {.rssi = rssi6, .freq = 5955};
        const scan_entry five = {.rssi = rssi5, .freq = 5180};
        EXPECT_EQ(expected, vwire_decide_best_band_index(&six, 6, rssi5 ? &five : nullptr, 5)) << line;
        EXPECT_EQ("band-select: " + line, log.texts().back());
    }
}
