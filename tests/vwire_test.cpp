#include "site/world.h"
#include "tests/support/log_lines.h"

#include <deque>
#include <gmock/gmock.h>
#include <vela/board/board.h>
#include <vela/mesh/vwire.h>

using testing::ElementsAre;

namespace
{

constexpr const char *serial_a = "02:56:4c:00:00:0a";
constexpr const char *serial_b = "02:56:4C:00:00:0B"; // case does not matter

/// Uplink interfaces with what they heard.
class heard
{
public:
    heard()
    {
        table.count = 4;
        for (int i = 0; i < 4; ++i) {
            snprintf(table.entries[i].devname, 16, "ath%d", i);
            heads[i].first = heads[i].last = reinterpret_cast<scan_entry *>(&heads[i]);
            if (i != 3) table.entries[i].scan = &heads[i]; // the last one has not scanned
        }
    }
    scan_entry *add(int iface, int32_t rssi, uint8_t serial, uint32_t mhz = 5180, const char *essid = "mesh")
    {
        scan_entry &e = entries.emplace_back();
        e = {};
        e.rssi = rssi;
        e.freq = static_cast<decltype(e.freq)>(mhz);
        snprintf(e.essid, sizeof e.essid, "%s", essid);
        const uint8_t number[6] = {2, 0x56, 0x4c, 0, 0, serial};
        memcpy(e.serial, number, 6);
        memcpy(e.bssid, number, 6);
        for (auto &flag : e.mesh) flag = 1;
        auto *head = reinterpret_cast<scan_entry *>(&heads[iface]);
        e.prev = heads[iface].last;
        e.next = head;
        (heads[iface].last == head ? heads[iface].first : heads[iface].last->next) = &e;
        heads[iface].last = &e;
        return &e;
    }
    scan_entry *choose(const char *first, const char *second, const char *essid = nullptr, int essid_len = 0)
    {
        return vwire_select_best_for_band(&table, essid, essid_len, "na", first,
                                          first ? static_cast<int>(strlen(first)) : 0, second,
                                          second ? static_cast<int>(strlen(second)) : 0, &index);
    }
    uplink_table table = {};
    int index = -7;

private:
    scan_list heads[4] = {};
    std::deque<scan_entry> entries;
};

} // namespace

TEST(Vwire, PrefersSerialsWithinAMargin)
{
    struct {
        const char *what;
        int32_t a, b, stranger;
        const char *first, *second;
        char expected; // a, b, or s for the stranger
    } const cases[] = {
        {"no serials", 20, 20, 21, nullptr, nullptr, 's'},
        {"four stronger", 20, 1, 24, serial_a, nullptr, 'a'},
        {"five stronger", 20, 1, 25, serial_a, nullptr, 's'},
        {"second within the margin", 20, 21, 25, serial_a, serial_b, 'b'},
        {"second beyond it", 20, 20, 25, serial_a, serial_b, 's'},
        {"only a second", 1, 21, 25, nullptr, serial_b, 'b'},
        {"all zeros", 25, 1, 25, "00:00:00:00:00:00", nullptr, 'a'}, // the first of two equals
        {"zeros over a shorter length", 20, 1, 24, "00:00", nullptr, 's'},
        {"far apart", INT32_MIN + 1, 1, INT32_MAX, serial_a, nullptr, 's'},
    };
    for (const auto &c : cases) {
        heard h;
        const scan_entry *a = h.add(0, c.a, 0x0a);
        const scan_entry *b = h.add(1, c.b, 0x0b);
        const scan_entry *s = h.add(2, c.stranger, 0x55);
        EXPECT_EQ(c.expected == 'a' ? a : c.expected == 'b' ? b : s, h.choose(c.first, c.second)) << c.what;
        EXPECT_EQ(c.expected == 'a' ? 0 : c.expected == 'b' ? 1 : 2, h.index) << c.what;
    }
}

TEST(Vwire, OnlyCandidatesOfBandAndNetworkCount)
{
    heard h;
    h.add(0, 90, 1, 2412);
    h.add(0, 90, 2, 5955);
    h.add(0, 90, 3)->mesh[2] = 0;
    h.add(1, 50, 4, 5180, "mesh2");
    const scan_entry *wanted = h.add(1, 40, 5);
    EXPECT_EQ(wanted, h.choose(nullptr, nullptr, "mesh", 5)) << "the whole name, with its end";
    EXPECT_NE(wanted, h.choose(nullptr, nullptr, "mesh", 4)) << "a prefix";
    EXPECT_NE(wanted, h.choose(nullptr, nullptr, "mesh", 0)) << "any";
    EXPECT_EQ(nullptr, h.choose(nullptr, nullptr, "none", 4));
    EXPECT_EQ(-1, h.index);
    EXPECT_EQ(nullptr, vwire_select_best_for_band(nullptr, nullptr, 0, "na", nullptr, 0, nullptr, 0, nullptr));
    for (const char *band : {static_cast<const char *>(nullptr), ""}) {
        EXPECT_EQ(nullptr, vwire_select_best_for_band(&h.table, nullptr, 0, band, nullptr, 0, nullptr, 0, &h.index));
    }
}

TEST(Vwire, SaysWhatItFound)
{
    heard h;
    h.add(0, 30, 0x0a);
    h.add(1, 31, 0x0b);
    log_lines log;
    h.choose(serial_a, nullptr);
    h.choose("02:00:00:00:00:00", serial_b);
    h.choose(nullptr, nullptr);
    const std::string tail = " ESSID mesh BSSID 02:56:4c:00:00:";
    const auto line = [](const std::string &text) {
        return log_line{"info", "vwire", "vwire_select_best_for_band", text};
    };
    EXPECT_THAT(
        log.take(),
        ElementsAre(
            line("Found serial1 on IFACE ath0: serial " + std::string(serial_a) + tail + "0a RSSI 30 @ 5180"),
            line("Found serial2 on IFACE ath1: serial " + std::string(serial_b) + tail + "0b RSSI 31 @ 5180"),
            line("Found strongest RSSI on IFACE ath1:" + tail + "0b serialno 02:56:4c:00:00:0b RSSI 31 @ 5180")));
}

TEST(Vwire, PrintsWhatWasHeard)
{
    heard h;
    h.add(0, 30, 0x0a);
    h.add(2, 31, 0x0b, 5955, "other");
    log_lines log("info");
    struct {
        const char *essid;
        int len;
        size_t lines;
    } const cases[] = {{nullptr, 4, 3}, {"me", 2, 2}, {"me", 0, 3}, {"vwire-unknown", 13, 3}, {"none", 4, 1}};
    for (const auto &c : cases) {
        print_uplink_wds_iface_scan_records(&h.table, c.essid, c.len);
        const auto texts = log.texts();
        EXPECT_EQ(c.lines, texts.size());
        EXPECT_EQ("TOTAL scan entries: 2", texts.back());
        if (c.lines == 3) {
            EXPECT_EQ("IFACE ath2: ESSID other BSSID 02:56:4c:00:00:0b Serial 02:56:4c:00:00:0b RSSI 31 @ 5955",
                      texts[1]);
        }
    }
}

TEST(Vwire, BandChoice)
{
    static board_record board = {};
    update_cached_board(&board);
    struct {
        const char *what;
        int rssi6, rssi5; // 0: none
        bool needs_afc;
        const char *afc;
        int expected;
        const char *line;
    } const cases[] = {
        {"good 6", 25, 99, false, "", 6, "prefer 6GHZ \u2014 6GHZ RSSI 25 >= 25 @ 5955, choosing 6GHZ"},
        {"weak 6, delta 7", 24, 31, false, "", 6,
         "both present \u2014 6GHZ preferred (5GHz delta=7 < 8), choosing 6GHZ (RSSI 24 @ 5955)"},
        {"weak 6, delta 8", 24, 32, false, "", 5,
         "both present \u2014 5GHz stronger by 8 dB (>= 8), choosing 5GHz (RSSI 32 @ 5180)"},
        {"only 6", 24, 0, false, "", 6, "only 6GHZ present, choosing 6GHZ (RSSI 24 @ 5955)"},
        {"only 5", 0, 9, false, "", 5, "only 5GHz present, choosing 5GHz (RSSI 9 @ 5180)"},
        {"none", 0, 0, false, "", -1, "no 5GHz/6GHZ candidates available \u2014 returning inactive"},
        {"AFC waiting, no 5", 60, 0, true, "waiting_for_location", -1,
         "no 5GHz/6GHZ candidates available \u2014 returning inactive"},
        {"AFC active", 60, 9, true, "active", 6, "prefer 6GHZ \u2014 6GHZ RSSI 60 >= 25 @ 5955, choosing 6GHZ"},
    };
    for (const auto &c : cases) {
        board.flags = c.needs_afc ? 1 : 0;
        board.radio_count = 1;
        board.radios[0].flags = 0x80000000;
        board.radios[0].flags8 = 0x80;
        site::put_file("/var/run/afc.state", c.afc);
        scan_entry six = {};
        scan_entry five = {};
        six.rssi = c.rssi6, six.freq = 5955;
        five.rssi = c.rssi5, five.freq = 5180;
        log_lines log("info");
        EXPECT_EQ(c.expected, vwire_decide_best_band_index(c.rssi6 ? &six : nullptr, 6, c.rssi5 ? &five : nullptr, 5))
            << c.what;
        const auto texts = log.texts();
        ASSERT_FALSE(texts.empty());
        EXPECT_EQ("band-select: " + std::string(c.line), texts.back()) << c.what;
        if (c.needs_afc && std::string(c.afc) != "active") {
            EXPECT_EQ("band-select: AFC required but not active, ignoring 6GHz", texts.front());
        }
    }
}
