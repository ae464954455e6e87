#include "site/world.h"
#include "tests/support/fake_netlink.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <linux/nl80211.h>
#include <vela/settings.h>
#include <vela/wireless/cfg80211.h>
#include <vela/wireless/scan.h>

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using bytes = std::vector<uint8_t>;

/// Access points as the kernel tells of them, through the wrapper, into a list.
class Scan : public testing::Test
{
protected:
    fake_netlink kernel;
    log_lines log;
    scan_list *list = nullptr;

    ~Scan() override
    {
        free_scanlist(list);
        EXPECT_EQ(0, kernel.open_contexts) << "contexts left open";
    }
    void hear(const std::function<void(nl_msg *)> &put, int address_size = 6, uint32_t mhz = 58320)
    {
        const auto put_nested = [&](nl_msg *m) {
            nlattr *bss = nla_nest_start(m, NL80211_ATTR_BSS);
            nla_put(m, NL80211_BSS_BSSID, address_size, "\x02\x04\x06\x08\x0a\x0c");
            if (mhz) nla_put_u32(m, NL80211_BSS_FREQUENCY, mhz);
            put(m);
            nla_nest_end(m, bss);
        };
        kernel.reply(NL80211_CMD_NEW_SCAN_RESULTS, put_nested, NLM_F_MULTI);
    }
    static void put_elements(nl_msg *m, const bytes &elements, int type = NL80211_BSS_INFORMATION_ELEMENTS)
    {
        nla_put(m, type, static_cast<int>(elements.size()), elements.data());
    }
    std::vector<const scan_entry *> collect(int error = 0, int flags = 0)
    {
        kernel.end_dump(error, flags);
        free_scanlist(std::exchange(list, nullptr));
        list = get_scanlist("lo");
        std::vector<const scan_entry *> entries;
        for (const scan_entry *e = list->first; e != end(); e = e->next) entries.push_back(e);
        return entries;
    }
    [[nodiscard]] scan_entry *end() const { return reinterpret_cast<scan_entry *>(list); }
};

constexpr vela_ie mesh_node = {{2, 4, 6, 8, 10, 12}, VELA_IE_CONNECTED | VELA_IE_ACCEPTS_UPLINKS, 1, 2};

bytes maker_element(const vela_ie &ie)
{
    bytes element(VELA_IE_MAX);
    element.resize(static_cast<size_t>(vela_ie_build(&ie, element.data(), element.size())));
    return element;
}

} // namespace

TEST_F(Scan, EntriesHoldWhatTheKernelTells)
{
    hear([](nl_msg *m) {
        nla_put_u64(m, NL80211_BSS_TSF, 0xF1223344F5667788);
        nla_put_u64(m, NL80211_BSS_BEACON_TSF, 0xF9AABBCCFDEEFF00);
        nla_put_u16(m, NL80211_BSS_BEACON_INTERVAL, 0xF064);
        nla_put_u16(m, NL80211_BSS_CAPABILITY, 0xF433);
        put_elements(m, {1, 1, 0x82, 0, 4, 'h', 'e', 'r', 'e', 7, 3, 'c', 'u'}); // the last is not whole
        nla_put_u32(m, NL80211_BSS_SEEN_MS_AGO, 0xF1234567);
        nla_put_u32(m, NL80211_BSS_STATUS, NL80211_BSS_STATUS_ASSOCIATED);
        nla_put_u32(m, NL80211_BSS_SIGNAL_MBM, 10400);
    });
    hear([](nl_msg *m) { nla_put_u16(m, NL80211_BSS_CAPABILITY, 0xFFFF & ~(2 | 16)); });
    const auto entries = collect();
    ASSERT_EQ(2U, entries.size());
    const scan_entry *const e = entries[0];
    EXPECT_THAT(e->bssid, ElementsAre(2, 4, 6, 8, 10, 12));
    EXPECT_STREQ("here", e->essid);
    EXPECT_EQ(200, e->rssi);
    const uint32_t *const numbers = &e->noise;
    EXPECT_THAT(std::vector(numbers, numbers + 12), ElementsAre(0, 0xF064, 58320, 0xF433, 0xF1234567, 0xF5667788,
                                                                0xF1223344, 16, 0xFDEEFF00, 0xF9AABBCC, 2, 2));
    EXPECT_THAT(e->mesh, Each(0U));
    EXPECT_EQ(0U, entries[1]->privacy);
    EXPECT_EQ(0U, entries[1]->adhoc);
    EXPECT_EQ(entries[1], list->last);
    EXPECT_EQ(e, list->last->prev);
    EXPECT_EQ(end(), list->first->prev);
}

TEST_F(Scan, SignalIsClampedAndFaultyAnswersAreDropped)
{
    for (const int dbm : {-300, -96, -95, 159, 160})
        hear([&](nl_msg *m) { nla_put_u32(m, NL80211_BSS_SIGNAL_MBM, static_cast<uint32_t>(dbm * 100)); });
    for (const auto &[address_size, mhz] : {std::pair{0, 0U}, {6, 0}, {5, 5955}, {6, 70000}})
        hear([](nl_msg *) {}, address_size, mhz);
    std::vector<int> figures;
    for (const auto *e : collect()) figures.push_back(e->rssi);
    EXPECT_THAT(figures, ElementsAre(0, 0, 1, 255, 255));

    EXPECT_THAT(collect(0, NLM_F_DUMP_INTR), IsEmpty());
    EXPECT_THAT(log.texts(), ElementsAre(testing::StartsWith("nl_recvmsgs failed"))) << "no failure of the list";
    EXPECT_THAT(collect(-ENODEV), IsEmpty());
    EXPECT_THAT(log.shown(), testing::IsSupersetOf({"[debug] libvela.parse_scan_results(): "
                                                    "unable to query scan list, ret = -1, ifname=lo",
                                                    "[error] libvela.get_scanlist(): unable to parse scan results"}));
}

TEST_F(Scan, NamesAndElementsAreCutWhereTheirRoomEnds)
{
    for (const uint8_t length : {31, 32, 40}) {
        bytes elements = {0, length};
        elements.resize(size_t{2} + length, 'n');
        const auto ours = maker_element(mesh_node);
        elements.insert(elements.end(), ours.begin(), ours.end());
        hear([&](nl_msg *m) { put_elements(m, elements, NL80211_BSS_BEACON_IES); });
    }
    for (const auto *e : collect()) {
        EXPECT_EQ(std::string(31, 'n'), e->essid);
        EXPECT_THAT(e->mesh, Each(1U)) << "the elements follow the name";
    }
    bytes many;
    for (uint8_t id = 1; id <= 20; ++id) {
        many.insert(many.end(), {id, 255});
        many.resize(many.size() + 255, id);
    }
    hear([&](nl_msg *m) { put_elements(m, many); });
    kernel.end_dump();
    const auto check = [](const scan_result *result, void *) { EXPECT_EQ(11 * 257, result->ies_len) << "whole ones"; };
    EXPECT_EQ(0, parse_scan_results("lo", check, nullptr));
}

TEST_F(Scan, MakersElementGoesThereAndBackAndMayEndAnywhere)
{
    list = get_scanlist("nowhere");
    const auto mesh_words = [&](const bytes &elements) {
        bytes block(offsetof(scan_result, data) + elements.size()); // of exactly that size
        auto *const result = reinterpret_cast<scan_result *>(block.data());
        result->ies_len = static_cast<uint16_t>(elements.size());
        std::copy(elements.begin(), elements.end(), result->data);
        add_scan_entry(result, list);
        return bytes(std::begin(list->last->mesh), std::end(list->last->mesh));
    };
    EXPECT_THAT(mesh_words(maker_element({{}, 0xFF & ~VELA_IE_CONNECTED, 1, 0})), ElementsAre(1, 1, 0, 1));
    EXPECT_THAT(mesh_words(maker_element({{}, VELA_IE_CONNECTED, 0, 0})), ElementsAre(1, 0, 1, 0));
    const auto ours = maker_element(mesh_node);
    uint8_t small[30];
    EXPECT_EQ(-1, vela_ie_build(&mesh_node, small, ours.size() - 1));
    EXPECT_EQ(static_cast<int>(ours.size()), vela_ie_build(&mesh_node, small, ours.size()));

    bytes whole = {0xDD, 4, 0x02, 0x56, 0x4C, 2}; // a stranger's before it
    whole.insert(whole.end(), ours.begin(), ours.end());
    for (size_t n = 0; n <= whole.size(); ++n) {
        const auto words = mesh_words(bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(n)));
        EXPECT_EQ(n >= 12, words[0] != 0) << "cut at " << n;
        EXPECT_EQ(n >= 20, list->last->serial[5] == 12) << "cut at " << n;
        EXPECT_EQ(n == whole.size(), words[1] != 0) << "cut at " << n;
    }
    EXPECT_THAT(list->last->mesh, Each(1U));
    EXPECT_THAT(list->last->serial, ElementsAre(2, 4, 6, 8, 10, 12));

    log.take();
    bytes unknown(ours.begin(), ours.begin() + 6);
    unknown.insert(unknown.end(), {9, 2, 0, 0, 1, 3, 1, 2, 3, 3, 0});
    unknown[1] = static_cast<uint8_t>(unknown.size() - 2);
    EXPECT_THAT(mesh_words(unknown), ElementsAre(1, 1, 0, 0));
    EXPECT_THAT(log.texts(), ElementsAre("VELA_IE unknown field 0x9 len 2", "VELA_IE unknown field 0x1 len 3"));
}

TEST_F(Scan, WalkShowsEveryElementThatBegins)
{
    static std::vector<uint8_t> ids;
    const auto note = [](void *ctx, const uint8_t *element, scan_entry *entry) {
        EXPECT_EQ(&ids, ctx);
        EXPECT_EQ(&ids, reinterpret_cast<void *>(entry));
        ids.push_back(*element);
    };
    const bytes elements = {7, 2, 0, 0, 8, 0, 9, 40, 1};
    const table<int, bytes> cases = {{9, {7, 8, 9}}, {7, {7, 8, 9}}, {6, {7, 8}}, {4, {7}},
                                     {1, {7}},       {0, {}},        {-5, {}}};
    for (const auto &[length, seen] : cases) {
        ids.clear();
        const bytes exact(elements.begin(), elements.begin() + std::max(length, 0));
        EXPECT_EQ(0, parse_scan_result_ies(&ids, exact.data(), length, note, reinterpret_cast<scan_entry *>(&ids)));
        EXPECT_EQ(seen, ids) << length;
    }
    EXPECT_EQ(0, parse_scan_result_ies(nullptr, elements.data(), 9, nullptr, nullptr));
}

TEST_F(Scan, FailuresLeaveNothingBehind)
{
    const leak_check leaks;
    kernel.refused_openings = 99;
    EXPECT_THAT(collect(), IsEmpty());
    EXPECT_EQ(-EIO, parse_scan_results("lo", add_scan_entry, list));
    EXPECT_EQ(-EIO, vela_scan_request("lo", nullptr));
    add_scan_entry(nullptr, nullptr);
    free_scanlist(nullptr);
    for (const char *said :
         {"unable to allocate memory for scan list head!", "unable to allocate memory to query scan list!"}) {
        if (!faults::can_refuse_memory) break;
        const scan_result result = {};
        log.take();
        const faults::refuse_memory none(strstr(said, "query") ? 1 : 0);
        free_scanlist(get_scanlist("lo"));
        EXPECT_EQ(said, log.texts().at(0));
        const faults::refuse_memory no_entry;
        add_scan_entry(&result, list);
        EXPECT_EQ(end(), list->first);
    }
    leaks.expect_unchanged();
}

TEST_F(Scan, BusyWhileAnyMarkerExists)
{
    EXPECT_EQ(0, hostapd_or_provision_busy());
    for (const char *path : {"/var/run/hostapd_reload.start", "/var/run/hostapd_reload", "/var/run/hostapd_initiating",
                             "/var/run/scheduler.reload", "/var/run/provision.in_progress"}) {
        site::put_file(path, "");
        EXPECT_EQ(1, hostapd_or_provision_busy()) << path;
        site::remove_file(path);
    }
}
