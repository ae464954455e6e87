#include "site/world.h"
#include "tests/support/fake_netlink.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <linux/nl80211.h>
#include <memory>
#include <numeric>
#include <vela/settings.h>
#include <vela/wireless/cfg80211.h>
#include <vela/wireless/scan.h>

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using bytes = std::vector<uint8_t>;

/// A driver result in a block of exactly its size.
class result_of
{
public:
    result_of(const std::string &essid, const bytes &elements)
        : size_{offsetof(scan_result, data) + essid.size() + elements.size()}, block_{
                                                                                   std::make_unique<uint8_t[]>(std::max(
                                                                                       size_, sizeof(scan_result)))}
    {
        (*this)->essid_len = static_cast<uint8_t>(essid.size());
        (*this)->ies_len = static_cast<uint16_t>(elements.size());
        auto *end = std::copy(essid.begin(), essid.end(), (*this)->data);
        std::copy(elements.begin(), elements.end(), end);
    }
    scan_result *operator->() { return reinterpret_cast<scan_result *>(block_.get()); }
    operator const scan_result *() { return operator->(); }

private:
    size_t size_;
    std::unique_ptr<uint8_t[]> block_;
};

/// A list that frees its entries.
struct list_of_entries {
    scan_list *list = get_scanlist("nowhere");
    ~list_of_entries() { free_scanlist(list); }
    scan_entry *add(const scan_result *result)
    {
        add_scan_entry(result, list);
        return list->last;
    }
};

constexpr vela_ie mesh_node = {{2, 4, 6, 8, 10, 12}, VELA_IE_CONNECTED | VELA_IE_ACCEPTS_UPLINKS, 1, 2};

bytes maker_element(const vela_ie &ie)
{
    bytes element(VELA_IE_MAX);
    element.resize(static_cast<size_t>(vela_ie_build(&ie, element.data(), element.size())));
    return element;
}

bytes vendor_element(const bytes &fields)
{
    bytes element = {0xDD,
                     static_cast<uint8_t>(fields.size() + 4),
                     vela::settings::maker_oui >> 16 & 0xFF,
                     vela::settings::maker_oui >> 8 & 0xFF,
                     vela::settings::maker_oui & 0xFF,
                     1};
    element.insert(element.end(), fields.begin(), fields.end());
    return element;
}

} // namespace

TEST(Scan, EntryHoldsTheResultWidened)
{
    list_of_entries entries;
    ASSERT_NE(nullptr, entries.list) << "empty, not null, for an interface that cannot be asked";
    EXPECT_EQ(reinterpret_cast<scan_entry *>(entries.list), entries.list->first);
    EXPECT_EQ(entries.list->first, entries.list->last);

    result_of result("net", {});
    std::iota(result->bssid, result->bssid + 6, uint8_t{1});
    result->signal = 0xF0;
    result->noise = 0xF1;
    result->beacon_interval = 0xF234;
    result->freq = 58320;
    result->capabilities = 0xF411;
    uint32_t value = 0xF0000001;
    for (uint32_t *number : {&result->age_ms, &result->tsf_low, &result->tsf_high, &result->beacon_tsf_low,
                             &result->beacon_tsf_high, &result->status}) {
        *number = value++;
    }
    result->flags = 0xFF;
    const scan_entry *e = entries.add(result);
    EXPECT_THAT(e->bssid, ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_STREQ("net", e->essid);
    EXPECT_EQ(240, e->rssi);
    const uint32_t *const numbers = &e->noise;
    EXPECT_THAT(std::vector(numbers, numbers + 12), ElementsAre(0xF1, 0xF234, 58320, 0xF411, 0xF0000001, 0xF0000002,
                                                                0xF0000003, 16, 0xF0000004, 0xF0000005, 0xF0000006, 2));
    EXPECT_EQ(&e->adhoc, numbers + 11);
    EXPECT_THAT(e->mesh, Each(0U));

    result->flags = 0xED;
    const scan_entry *second = entries.add(result);
    EXPECT_EQ(0U, second->privacy | second->adhoc);
    EXPECT_EQ(e, entries.list->first);
    EXPECT_EQ(second, e->next);
    EXPECT_EQ(e, second->prev);
    EXPECT_EQ(reinterpret_cast<scan_entry *>(entries.list), second->next);
    EXPECT_EQ(reinterpret_cast<scan_entry *>(entries.list), e->prev);

    add_scan_entry(result, nullptr);
    free_scanlist(nullptr);
    if (!faults::can_refuse_memory) return;
    const faults::refuse_memory none;
    EXPECT_EQ(second, entries.add(result)) << "no entry without memory";
}

TEST(Scan, EssidIsCutAt31Characters)
{
    list_of_entries entries;
    for (const size_t length : {0, 1, 31, 32, 200}) {
        const std::string name(length, 'n');
        result_of result(name, maker_element(mesh_node));
        const scan_entry *e = entries.add(result);
        EXPECT_EQ(name.substr(0, 31), e->essid) << length;
        EXPECT_THAT(e->mesh, Each(1U)) << "elements follow a name of " << length;
    }
}

TEST(Scan, MakersElementGoesThereAndBack)
{
    list_of_entries entries;
    const auto mesh_words = [&](const bytes &elements) {
        result_of result("", elements);
        const scan_entry *e = entries.add(result);
        return bytes(std::begin(e->mesh), std::end(e->mesh));
    };
    EXPECT_THAT(mesh_words(maker_element(mesh_node)), ElementsAre(1, 1, 1, 1));
    EXPECT_THAT(entries.list->last->serial, ElementsAre(2, 4, 6, 8, 10, 12));
    EXPECT_THAT(mesh_words(maker_element({{}, 0xFF & ~VELA_IE_CONNECTED, 1, 0})), ElementsAre(1, 1, 0, 1));
    EXPECT_THAT(mesh_words(maker_element({{}, VELA_IE_CONNECTED, 0, 0})), ElementsAre(1, 0, 1, 0));
    uint8_t small[30];
    const size_t length = maker_element(mesh_node).size();
    EXPECT_EQ(-1, vela_ie_build(&mesh_node, small, length - 1));
    EXPECT_EQ(static_cast<int>(length), vela_ie_build(&mesh_node, small, length));

    // Strangers' elements, ours among them, and one that only looks like ours.
    bytes elements = {0, 3, 'n', 'e', 't', 0xDD, 0, 0xDD, 4, 0x02, 0x56, 0x4C, 2};
    EXPECT_THAT(mesh_words(elements), Each(0));
    const auto ours = maker_element(mesh_node);
    elements.insert(elements.begin() + 5, ours.begin(), ours.end());
    EXPECT_THAT(mesh_words(elements), Each(1));

    log_lines log;
    EXPECT_THAT(mesh_words(vendor_element({9, 2, 0, 0, 1, 3, 1, 2, 3, 3, 0})), ElementsAre(1, 1, 0, 0));
    EXPECT_THAT(log.texts(), ElementsAre("VELA_IE unknown field 0x9 len 2", "VELA_IE unknown field 0x1 len 3"));
}

TEST(Scan, ElementsMayEndOrLieAnywhere)
{
    list_of_entries entries;
    bytes whole = {0, 3, 'n', 'e', 't'};
    const auto ours = maker_element(mesh_node);
    whole.insert(whole.end(), ours.begin(), ours.end());

    for (size_t n = 0; n <= whole.size(); ++n) {
        result_of result("", bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(n)));
        const scan_entry *e = entries.add(result);
        EXPECT_EQ(n >= 11, e->mesh[0] != 0) << "cut at " << n;
        EXPECT_EQ(n >= 19, e->serial[0] == 2) << "cut at " << n;
        EXPECT_EQ(n == whole.size(), e->mesh[1] != 0) << "cut at " << n;
    }
    for (size_t n = 0; n < whole.size(); ++n) { // every byte as if it were a length
        for (const int value : {whole[n] + 1, whole[n] - 1, 0, 255}) {
            bytes changed = whole;
            changed[n] = static_cast<uint8_t>(value);
            result_of result("", changed);
            entries.add(result);
        }
    }
}

TEST(Scan, WalkShowsEveryElementThatBegins)
{
    static std::vector<ptrdiff_t> positions;
    constexpr uint8_t elements[] = {7, 2, 0, 0, 8, 0, 9, 40, 1};
    const auto note = [](void *ctx, const uint8_t *element, scan_entry *entry) {
        EXPECT_EQ(&positions, reinterpret_cast<void *>(entry));
        positions.push_back(element - static_cast<const uint8_t *>(ctx));
    };
    const struct {
        int length;
        std::vector<ptrdiff_t> seen;
    } cases[] = {{9, {0, 4, 6}}, {7, {0, 4, 6}}, {6, {0, 4}}, {4, {0}}, {3, {0}}, {1, {0}}, {0, {}}, {-5, {}}};
    for (const auto &c : cases) {
        positions.clear();
        const std::unique_ptr<uint8_t[]> exact(new uint8_t[static_cast<size_t>(std::max(c.length, 0))]);
        std::copy_n(elements, std::max(c.length, 0), exact.get());
        EXPECT_EQ(0, parse_scan_result_ies(exact.get(), exact.get(), c.length, note,
                                           reinterpret_cast<scan_entry *>(&positions)));
        EXPECT_EQ(c.seen, positions) << c.length;
    }
    EXPECT_EQ(0, parse_scan_result_ies(nullptr, elements, 9, nullptr, nullptr));
}

TEST(Scan, CollectingReportsWhatFailed)
{
    leak_check leaks;
    {
        log_lines log;
        // No process may have two contexts on one pair of ports: with all taken, none can be opened.
        vl_cfg80211_context contexts[3];
        for (auto &context : contexts) (void)vl_cfg80211_init(&context);
        log.take();
        EXPECT_EQ(-EIO, parse_scan_results("wlan0", add_scan_entry, nullptr));
        EXPECT_THAT(log.take(), testing::Contains(log_line{"debug", "libvela", "parse_scan_results",
                                                           "unable to query scan list, ret = -5, ifname=wlan0"}));
        scan_list *list = get_scanlist("wlan0");
        EXPECT_THAT(log.take(),
                    testing::Contains(log_line{"error", "libvela", "get_scanlist", "unable to parse scan results"}));
        free_scanlist(std::exchange(list, nullptr));
        EXPECT_EQ(-EIO, vela_scan_request("wlan0", nullptr));
        for (auto &context : contexts) vl_cfg80211_deinit(&context);

        for (int n = 0; n < 2 && faults::can_refuse_memory; ++n) {
            const faults::refuse_memory none(n);
            list = get_scanlist("wlan0");
            EXPECT_EQ(n == 0, list == nullptr);
        }
        free_scanlist(list);
        if (faults::can_refuse_memory) {
            EXPECT_THAT(log.texts(), testing::IsSupersetOf({"unable to allocate memory for scan list head!",
                                                            "unable to allocate memory to query scan list!"}));
        }
    }
    leaks.expect_unchanged();
}

namespace
{

std::vector<bytes> records;

/// What the wrapper makes of one access point's attributes.
class Converter : public testing::Test
{
protected:
    fake_netlink kernel;
    vl_cfg80211_context context = {kernel.socket(), nullptr, 0, 0, fake_netlink::family(), nullptr};

    int convert(uint32_t room, const std::function<void(nl_msg *)> &attributes, int error = 0, int flags = 0)
    {
        records.clear();
        kernel.reply(
            NL80211_CMD_NEW_SCAN_RESULTS,
            [&](nl_msg *m) {
                nlattr *bss = nla_nest_start(m, NL80211_ATTR_BSS);
                attributes(m);
                nla_nest_end(m, bss);
            },
            NLM_F_MULTI);
        kernel.end_dump(error, flags);
        alignas(scan_result) uint8_t buffer[4096];
        return vl_cfg80211_send_generic_set_command_ctx(
            &context, "lo", buffer, room,
            [](wifi_cfg80211_data *reply) {
                const auto *first = static_cast<const uint8_t *>(reply->data);
                records.emplace_back(first, first + reply->length);
            },
            WIFI_COMMAND_SCAN_LIST);
    }
    static const scan_result *record() { return reinterpret_cast<const scan_result *>(records.at(0).data()); }
    static void put_address(nl_msg *m)
    {
        nla_put(m, NL80211_BSS_BSSID, 6, "\x02\x04\x06\x08\x0a\x0c");
        nla_put_u32(m, NL80211_BSS_FREQUENCY, 5955);
    }
};

} // namespace

TEST_F(Converter, RecordHoldsWhatTheKernelTells)
{
    const bytes elements = {1, 1, 0x82, 0, 4, 'h', 'e', 'r', 'e', 7, 3, 'c', 'u'}; // the last is not whole
    EXPECT_EQ(0, convert(3072, [&](nl_msg *m) {
                  put_address(m);
                  nla_put_u64(m, NL80211_BSS_TSF, 0x1122334455667788);
                  nla_put_u64(m, NL80211_BSS_BEACON_TSF, 0x99AABBCCDDEEFF00);
                  nla_put_u16(m, NL80211_BSS_BEACON_INTERVAL, 100);
                  nla_put_u16(m, NL80211_BSS_CAPABILITY, 0x0431);
                  nla_put(m, NL80211_BSS_INFORMATION_ELEMENTS, static_cast<int>(elements.size()), elements.data());
                  nla_put_u32(m, NL80211_BSS_SEEN_MS_AGO, 1234);
                  nla_put_u32(m, NL80211_BSS_STATUS, NL80211_BSS_STATUS_ASSOCIATED);
                  nla_put_u32(m, NL80211_BSS_SIGNAL_MBM, static_cast<uint32_t>(-5100));
              }));
    ASSERT_EQ(1U, records.size());
    const scan_result *r = record();
    const scan_result expected = {{2, 4, 6, 8, 10, 12},
                                  4,
                                  SCAN_RESULT_ESS | SCAN_RESULT_PRIVACY,
                                  45,
                                  0,
                                  100,
                                  5955,
                                  0x0431,
                                  1234,
                                  0x55667788,
                                  0x11223344,
                                  0xDDEEFF00,
                                  0x99AABBCC,
                                  2,
                                  9};
    EXPECT_EQ(0, memcmp(&expected, r, offsetof(scan_result, data)));
    EXPECT_EQ("here", std::string(r->data, r->data + r->essid_len));
    EXPECT_EQ(bytes(elements.begin(), elements.begin() + 9), bytes(r->data + 4, r->data + 4 + r->ies_len));
    EXPECT_EQ(offsetof(scan_result, data) + 4 + 9, records[0].size());
}

TEST_F(Converter, SignalIsClampedAndFaultyAnswersAreDropped)
{
    constexpr struct {
        int dbm;
        int figure;
    } cases[] = {{-300, 0}, {-97, 0}, {-96, 0}, {-95, 1}, {0, 96}, {159, 255}, {160, 255}};
    for (const auto &c : cases) {
        convert(3072, [&](nl_msg *m) {
            put_address(m);
            nla_put_u32(m, NL80211_BSS_SIGNAL_MBM, static_cast<uint32_t>(c.dbm * 100));
        });
        EXPECT_EQ(c.figure, record()->signal) << c.dbm;
    }
    const std::function<void(nl_msg *)> without[] = {
        [](nl_msg *) {},
        [](nl_msg *m) { nla_put(m, NL80211_BSS_BSSID, 6, "\x02\x04\x06\x08\x0a\x0c"); },
        [](nl_msg *m) {
            nla_put(m, NL80211_BSS_BSSID, 5, "\x02\x04\x06\x08\x0a");
            nla_put_u32(m, NL80211_BSS_FREQUENCY, 5955);
        },
        [](nl_msg *m) {
            nla_put(m, NL80211_BSS_BSSID, 6, "\x02\x04\x06\x08\x0a\x0c");
            nla_put_u32(m, NL80211_BSS_FREQUENCY, 70000);
        },
    };
    for (const auto &attributes : without) {
        EXPECT_EQ(0, convert(3072, attributes));
        EXPECT_THAT(records, IsEmpty()) << &attributes - without;
    }
    EXPECT_EQ(-1, convert(3072, put_address, -ENODEV)) << "a dump that failed";
    EXPECT_EQ(0, convert(3072, put_address, 0, NLM_F_DUMP_INTR)) << "one that changed on the way";
    EXPECT_EQ(-1, convert(64, put_address)) << "no room for any record";
}

TEST_F(Converter, ElementsAreCutBetweenTwo)
{
    bytes elements = {0, 40}; // a name longer than names can be
    elements.resize(42, 'n');
    for (uint8_t id = 1; id <= 10; ++id) {
        elements.insert(elements.end(), {id, 255});
        elements.resize(elements.size() + 255, id);
    }
    const auto with_elements = [&](nl_msg *m) {
        put_address(m);
        nla_put(m, NL80211_BSS_BEACON_IES, static_cast<int>(elements.size()), elements.data());
    };
    EXPECT_EQ(0, convert(3072, with_elements));
    EXPECT_EQ(elements.size(), record()->ies_len);
    EXPECT_EQ(32, record()->essid_len);
    const size_t one_and_a_half = offsetof(scan_result, data) + 32 + 42 + 257 + 128;
    EXPECT_EQ(0, convert(one_and_a_half, with_elements));
    EXPECT_EQ(42 + 257, record()->ies_len);
}

TEST(Scan, BusyWhileAnyMarkerExists)
{
    EXPECT_EQ(0, hostapd_or_provision_busy());
    for (const char *path : {"/var/run/hostapd_reload.start", "/var/run/hostapd_reload", "/var/run/hostapd_initiating",
                             "/var/run/scheduler.reload", "/var/run/provision.in_progress"}) {
        site::put_file(path, "");
        EXPECT_EQ(1, hostapd_or_provision_busy()) << path;
        site::remove_file(path);
    }
    EXPECT_EQ(0, hostapd_or_provision_busy());
}
