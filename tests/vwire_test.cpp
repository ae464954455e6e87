#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <deque>
#include <gmock/gmock.h>
#include <random>
#include <sys/stat.h>
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

TEST(Vwire, EveryReasonIsNamed)
{
    static board_record board = {.radio_count = 1, .flags = BOARD_OUTDOOR}; // needs AFC
    board.radios[0].flags = 0x80000000;
    board.radios[0].flags8 = 0x80;
    update_cached_board(&board);
    const auto explained = [](heard &h, const char *essid) {
        const vela::json_ref why{vwire_explain(&h.table, essid, 4, serial_a, 17, serial_b, 17)};
        std::string text = "reason " + dumped(json_object_get(why.get(), "reason"));
        size_t index = 0;
        json_t *step = nullptr;
        json_array_foreach(json_object_get(why.get(), "steps"), index, step)
        {
            text += std::string(" ") + json_string_value(json_object_get(step, "verdict")) + ":" +
                    json_string_value(json_object_get(step, "reason"));
        }
        return text;
    };
    log_lines log;
    heard h;
    EXPECT_EQ("reason \"no_candidate\" skipped:no_candidate skipped:no_candidate", explained(h, nullptr));
    for (int flag = 0; flag < 4; ++flag) h.add(0, 99, 0x20)->mesh[flag] = 0;
    h.add(0, 99, 0x21, 5180, "other");
    h.add(0, 99, 0x22, 2412);
    h.add(1, 20, 0x0a);
    h.add(1, 24, 0x23);
    h.add(2, 19, 0x0a);
    h.add(2, 60, 0x0b, 5955);
    const std::string out = " refused:no_element refused:no_mesh refused:not_connected refused:takes_no_uplinks "
                            "refused:other_essid refused:other_band chosen:serial1 passed:strongest passed:weaker ";
    EXPECT_EQ("reason \"only_5ghz\"" + out + "chosen:serial2 refused:afc_inactive chosen:only_5ghz",
              explained(h, "mesh"));
    site::put_file("/var/run/afc.state", "active");
    EXPECT_EQ("reason \"good_6ghz\"" + out + "chosen:serial2 chosen:good_6ghz passed:good_6ghz", explained(h, "mesh"));
    EXPECT_TRUE(log.take().empty()) << "an explanation is no decision";
}

TEST(Vwire, AnExplanationIsTheDecision)
{
    std::mt19937 random(1);
    const auto below = [&](unsigned n) { return static_cast<int>(random() % n); };
    for (int world = 0; world < 2000; ++world) {
        heard h;
        for (int n = below(8); n > 0; --n) {
            scan_entry *e = h.add(below(3), below(40), static_cast<uint8_t>(9 + below(4)), below(2) ? 5180 : 5955);
            e->bssid[4] = static_cast<uint8_t>(n); // tells them apart
            e->mesh[below(4)] = below(4) != 0;
        }
        const char *first = below(2) ? serial_a : nullptr, *second = below(2) ? serial_b : nullptr;
        vwire_choice choice = {};
        const int result = vwire_choose_parent(&h.table, nullptr, 0, first, 17, second, 17, &choice);
        const vela::json_ref why{vwire_explain(&h.table, nullptr, 0, first, 17, second, 17)};
        EXPECT_EQ(h.entries.size() + 2, json_array_size(json_object_get(why.get(), "steps")));

        int index6 = 0, index5 = 0;
        scan_entry *six = vwire_select_best_for_band(&h.table, nullptr, 0, "6e", first, 17, second, 17, &index6);
        scan_entry *five = vwire_select_best_for_band(&h.table, nullptr, 0, "na", first, 17, second, 17, &index5);
        const int band = vwire_decide_best_band_index(six, 6, five, 5);
        ASSERT_EQ(band < 0 ? -ENOENT : 0, result) << world;
        EXPECT_EQ(band < 0 ? nullptr : band == 6 ? six : five, choice.entry) << world;
        EXPECT_EQ(band < 0 ? 0 : band == 6 ? index6 : index5, choice.index) << world;
        char bssid[18] = "";
        if (choice.entry)
            snprintf(bssid, sizeof bssid, "02:56:4c:00:%02x:%02x", choice.entry->bssid[4], choice.entry->bssid[5]);
        EXPECT_STREQ(choice.entry ? bssid : nullptr, text_of(why, "answer")) << world;
    }
}

TEST(Vwire, PayloadIsWholeOrNotThere)
{
    constexpr const char *path = "/var/run/vwire.payload";
    const leak_check leaks;
    std::string most(VWIRE_PAYLOAD_MAX, 'x'), read(VWIRE_PAYLOAD_MAX + 10, '-');
    EXPECT_EQ(-ENOENT, get_vwire_payload(read.data(), read.size()));
    EXPECT_EQ(-EINVAL, set_vwire_payload("", 0));
    EXPECT_EQ(-EINVAL, set_vwire_payload(nullptr, 1));
    EXPECT_EQ(-EMSGSIZE, set_vwire_payload(read.data(), VWIRE_PAYLOAD_MAX + 1));
    umask(0);
    EXPECT_EQ(0, set_vwire_payload("old", 3));
    EXPECT_EQ(0, set_vwire_payload(most.data(), most.size()));
    EXPECT_EQ("600\n", site::output_of(std::string("stat -c %a ") + path));
    EXPECT_EQ(VWIRE_PAYLOAD_MAX, get_vwire_payload(nullptr, 0));
    EXPECT_EQ(VWIRE_PAYLOAD_MAX, get_vwire_payload(read.data(), 2));
    EXPECT_EQ("xx-", read.substr(0, 3)) << "cut to its room";
    site::put_file(path, std::string(VWIRE_PAYLOAD_MAX + 1, 'x'));
    EXPECT_EQ(-EMSGSIZE, get_vwire_payload(read.data(), read.size()));
    EXPECT_EQ(0, unset_vwire_payload());
    EXPECT_EQ(0, unset_vwire_payload()) << "there is none";
    leaks.expect_unchanged();

    for (const auto &[command, result] : table<std::string, int>{{"mkdir ", -EISDIR}, {"ln -s /etc/passwd ", -ELOOP}}) {
        ASSERT_EQ(0, site::run(command + path));
        EXPECT_EQ(result, set_vwire_payload("new", 3)) << command;
        EXPECT_EQ(result, get_vwire_payload(read.data(), read.size())) << command;
        EXPECT_EQ(result, unset_vwire_payload()) << command;
        ASSERT_EQ(0, site::run(std::string("rm -d ") + path));
    }
    const faults::refuse full(faults::call::write, ENOSPC);
    EXPECT_EQ(-ENOSPC, set_vwire_payload("new", 3));
    leaks.expect_unchanged();
}
