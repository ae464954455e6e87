#include <algorithm>
#include <cerrno>
#include <gmock/gmock.h>
#include <linux/nl80211.h>
#include <optional>
#include <random>
#include <vela/wireless/acs.h>

using testing::ElementsAre;

namespace
{

constexpr uint32_t every_width = 31;

/// What a choice is made of, with an owner.
struct air {
    std::vector<vela_channel> channels;
    std::vector<vela_airtime> airtimes;
    std::vector<scan_entry> heard;
    vela_acs_options options = {.band = NL80211_BAND_5GHZ, .width_mhz = 20, .allow_dfs = 1, .allow_indoor = 1};

    void channel(uint32_t mhz, uint32_t flags = 0, int32_t mbm = 3000, uint32_t widths = every_width)
    {
        channels.push_back({mhz, options.band, 0, flags, widths, mbm, UINT32_MAX, UINT32_MAX, UINT32_MAX});
    }
    void range(uint32_t first, uint32_t last, uint32_t step = 20)
    {
        for (uint32_t mhz = first; mhz <= last; mhz += step) channel(mhz);
    }
    void hear(uint32_t mhz, int32_t dbm, uint8_t bssid = 1)
    {
        heard.push_back({.bssid = {2, 0, 0, 0, 0, bssid}, .rssi = dbm + 96, .freq = mhz});
    }
    std::vector<vela_acs_candidate> rank(size_t max = 200)
    {
        scan_list list;
        auto *head = reinterpret_cast<scan_entry *>(&list);
        list = {head, head};
        for (auto &e : heard) {
            e.next = list.first;
            list.first = &e;
        }
        std::vector<vela_acs_candidate> out(max);
        out.resize(static_cast<size_t>(vela_acs_rank(channels.data(), channels.size(), airtimes.data(), airtimes.size(),
                                                     &list, &options, out.data(), max)));
        return out;
    }
};

vela_acs_candidate of(const std::vector<vela_acs_candidate> &ranked, uint32_t mhz, uint32_t centre = 0)
{
    for (const auto &c : ranked) {
        if (c.primary_mhz == mhz && (centre == 0 || c.center_mhz == centre)) return c;
    }
    ADD_FAILURE() << "no candidate at " << mhz;
    return {};
}

std::vector<uint32_t> order(const std::vector<vela_acs_candidate> &ranked)
{
    std::vector<uint32_t> mhz;
    for (const auto &c : ranked) mhz.push_back(c.primary_mhz);
    return mhz;
}

} // namespace

void PrintTo(const vela_acs_candidate &c, std::ostream *out)
{
    *out << c.primary_mhz << "/" << c.center_mhz << " verdict " << c.verdict << " refused " << c.refused << " cost "
         << c.cost << " = " << c.occupancy << "+" << c.noise << "+" << c.power << "+" << c.dfs << "+" << c.policy;
}
bool operator==(const vela_acs_candidate &a, const vela_acs_candidate &b) { return memcmp(&a, &b, sizeof a) == 0; }

TEST(Acs, EachPartOfTheCost)
{
    air a;
    a.options.width_mhz = 40;
    a.range(5180, 5240);
    a.channels[3] = {5240, NL80211_BAND_5GHZ, 48, VELA_CHANNEL_RADAR, every_width, 1999, VELA_DFS_USABLE, 0, 600000};
    a.airtimes = {{5180, 300, 100, 200, -90}, {5200, 500, 100, 400, -80}, {5220, 0, 0, UINT32_MAX, INT32_MIN}};
    a.hear(5180, -62);    // 150
    a.hear(5180, -20);    // 200 at most
    a.hear(5200, -93);    // too weak to weigh, but heard
    a.hear(5190, -20);    // between two channels: nobody's primary
    a.hear(5180, -20, 9); // our own
    const uint8_t own[][6] = {{2, 0, 0, 0, 0, 9}};
    const uint32_t preferred[] = {5180, 5220, 5240};
    a.options.own = own;
    a.options.own_count = 1;
    a.options.preferred = preferred;
    a.options.preferred_count = 3;
    const auto ranked = a.rank();

    // 5180: 200 + 800 * 350 / 2000 = 340, 5200: 400; (2 * 340 + 340 + 400) / 4
    EXPECT_EQ((vela_acs_candidate{5180, 5190, 40, 1, 0, 505, 355, 150, 0, 0, 0, 400, 2, 3, -20, -80, 3000}),
              of(ranked, 5180));
    // the other half as the primary: (2 * 400 + 340 + 400) / 4, and not preferred
    EXPECT_EQ((vela_acs_candidate{5200, 5190, 40, 1, 0, 685, 385, 150, 0, 0, 150, 400, 2, 3, -20, -80, 3000}),
              of(ranked, 5200));
    // nothing known but the channels: 1001 mBm below, rounded down
    EXPECT_EQ((vela_acs_candidate{5240, 5230, 40, 1, 0, 600, 250, 0, 50, 300, 0, UINT32_MAX, 0, 0, INT32_MIN, INT32_MIN,
                                  1999}),
              of(ranked, 5240));
    EXPECT_THAT(order(ranked), ElementsAre(5180, 5220, 5240, 5200));

    air b; // at 2.4 GHz neighbours are heard by distance; 2432 is off the grid
    b.options.band = NL80211_BAND_2GHZ;
    b.range(2412, 2472, 5);
    b.hear(2412, -20);
    for (const auto &[mhz, occupancy, policy] : {std::tuple{2412U, 325U, 0U},
                                                 {2417U, 306U, 50U},
                                                 {2422U, 280U, 50U},
                                                 {2427U, 261U, 50U},
                                                 {2432U, 250U, 50U},
                                                 {2437U, 250U, 0U}}) {
        EXPECT_EQ(occupancy, of(b.rank(), mhz).occupancy) << mhz;
        EXPECT_EQ(policy, of(b.rank(), mhz).policy) << mhz;
    }
}

TEST(Acs, BlocksOfEveryWidthAndBand)
{
    struct {
        uint32_t band, first, last, width;
        size_t usable;
        uint32_t primary, centre; // one of them
    } cases[] = {
        {NL80211_BAND_2GHZ, 2412, 2462, 40, 14, 2437, 2447}, // 7 pairs, each half a primary
        {NL80211_BAND_2GHZ, 2412, 2472, 80, 0, 2412, UINT32_MAX},
        {NL80211_BAND_5GHZ, 5180, 5320, 80, 8, 5260, 5290},
        {NL80211_BAND_5GHZ, 5500, 5720, 160, 8, 5640, 5570}, // 100 to 128; the rest has no such block
        {NL80211_BAND_5GHZ, 5745, 5885, 160, 8, 5885, 5815},
        {NL80211_BAND_6GHZ, 5955, 7115, 20, 59, 7115, 7115},
        {NL80211_BAND_6GHZ, 5955, 7115, 40, 58, 7095, 7085},
        {NL80211_BAND_6GHZ, 5955, 7115, 80, 56, 6975, 6945},
        {NL80211_BAND_6GHZ, 5955, 7115, 160, 56, 5955, 6025},
        {NL80211_BAND_6GHZ, 5955, 7115, 320, 96, 6115, 6265}, // six blocks of sixteen
    };
    for (const auto &c : cases) {
        air a;
        a.options.band = c.band;
        a.options.width_mhz = c.width;
        a.range(c.first, c.last, c.band == NL80211_BAND_2GHZ ? 5 : 20);
        const auto ranked = a.rank();
        const auto usable = std::ranges::count_if(ranked, [](auto &r) { return r.verdict == VELA_ACS_USABLE; });
        EXPECT_EQ(c.usable, static_cast<size_t>(usable)) << c.width << " MHz from " << c.first;
        of(ranked, c.primary, c.centre);
    }
}

TEST(Acs, EveryReasonOfRefusalIsTold)
{
    air a;
    a.options = {.band = NL80211_BAND_5GHZ, .width_mhz = 80};
    const uint32_t forbidden[] = {5520};
    a.options.forbidden = forbidden;
    a.options.forbidden_count = 1;
    a.range(5180, 5240);
    a.channel(5500, VELA_CHANNEL_RADAR | VELA_CHANNEL_INDOOR);
    a.channel(5520, VELA_CHANNEL_DISABLED | VELA_CHANNEL_NO_IR, 3000, 0);
    a.channel(5540, VELA_CHANNEL_RADAR);
    a.channels.back().dfs_state = VELA_DFS_UNAVAILABLE;
    auto ranked = a.rank();
    EXPECT_THAT(order(ranked), ElementsAre(5180, 5200, 5220, 5240, 5500, 5520, 5540));
    EXPECT_EQ(127U, ranked[5].refused) << "every reason, and a part is missing";
    EXPECT_EQ(VELA_ACS_REFUSED, static_cast<int>(ranked[5].verdict));
    EXPECT_EQ(UINT32_MAX, ranked[5].cost);

    a.options.allow_dfs = a.options.allow_indoor = 1;
    a.options.forbidden_count = 0;
    a.options.width_mhz = 20;
    ranked = a.rank();
    EXPECT_EQ(0U, of(ranked, 5500).refused);
    EXPECT_EQ(67U, of(ranked, 5520).refused) << "disabled, no-IR, width";
    EXPECT_EQ(16U, of(ranked, 5540).refused) << "radar seen";
}

TEST(Acs, CurrentChannelIsKeptUpToTheHysteresis)
{
    air a;
    a.range(5180, 5320);
    for (auto &c : a.channels) a.airtimes.push_back({c.freq_mhz, 500, 0, c.freq_mhz == 5260 ? 120U : 200U, INT32_MIN});
    a.options.current_mhz = 5220;
    a.options.hysteresis = 80;
    EXPECT_EQ(5220U, a.rank()[0].primary_mhz);
    EXPECT_EQ(VELA_ACS_KEPT, static_cast<int>(a.rank()[0].verdict));
    EXPECT_EQ(5220U, a.rank(1)[0].primary_mhz) << "room for one";
    a.options.hysteresis = 79;
    EXPECT_THAT(order(a.rank(4)), ElementsAre(5260, 5180, 5200, 5220));
    EXPECT_EQ(VELA_ACS_USABLE, static_cast<int>(of(a.rank(), 5220).verdict));
    a.options.hysteresis = UINT32_MAX;
    a.channels[2].flags = VELA_CHANNEL_NO_IR;
    EXPECT_EQ(5220U, a.rank().back().primary_mhz) << "refused, current or not";
}

TEST(Acs, RefusesWhatCannotBe)
{
    air a;
    vela_acs_candidate out = {};
    const vela_channel channel = {};
    EXPECT_EQ(-EINVAL, vela_acs_rank(nullptr, 1, nullptr, 0, nullptr, &a.options, &out, 1));
    EXPECT_EQ(-EINVAL, vela_acs_rank(&channel, 1, nullptr, 1, nullptr, &a.options, &out, 1));
    EXPECT_EQ(-EINVAL, vela_acs_rank(&channel, 1, nullptr, 0, nullptr, nullptr, &out, 1));
    EXPECT_EQ(-EINVAL, vela_acs_rank(&channel, 1, nullptr, 0, nullptr, &a.options, nullptr, 1));
    EXPECT_EQ(0, vela_acs_rank(&channel, 1, nullptr, 0, nullptr, &a.options, nullptr, 0));
    a.options.width_mhz = 60;
    EXPECT_EQ(-EINVAL, vela_acs_rank(&channel, 1, nullptr, 0, nullptr, &a.options, &out, 1));
    a.options = {.width_mhz = 20, .preferred_count = 1};
    EXPECT_EQ(-EINVAL, vela_acs_rank(&channel, 1, nullptr, 0, nullptr, &a.options, &out, 1));
}

namespace
{

struct worse {
    const char *what;
    void (*make)(air &a, size_t at, uint32_t by);
};

const worse ways_to_get_worse[] = {
    {"load", [](air &a, size_t at, uint32_t by) { a.airtimes[at % a.airtimes.size()].other_permille += by; }},
    {"noise",
     [](air &a, size_t at, uint32_t by) { a.airtimes[at % a.airtimes.size()].noise_dbm += static_cast<int>(by % 40); }},
    {"power",
     [](air &a, size_t at, uint32_t by) { a.channels[at % a.channels.size()].max_power_mbm -= static_cast<int>(by); }},
    {"a stronger neighbour",
     [](air &a, size_t at, uint32_t by) { a.heard[at % a.heard.size()].rssi += static_cast<int>(by % 60); }},
    {"another neighbour",
     [](air &a, size_t at, uint32_t by) {
         a.hear(a.channels[at % a.channels.size()].freq_mhz, -static_cast<int>(by % 100));
     }},
    {"a flag", [](air &a, size_t at, uint32_t by) { a.channels[at % a.channels.size()].flags |= 1U << by % 4; }},
    {"a longer check", [](air &a, size_t at, uint32_t) { a.channels[at % a.channels.size()].cac_ms = 600000; }},
    {"a width less",
     [](air &a, size_t at, uint32_t by) { a.channels[at % a.channels.size()].widths &= ~(1U << by % 5); }},
    {"a channel gone",
     [](air &a, size_t at, uint32_t) { a.channels[at % a.channels.size()].flags |= VELA_CHANNEL_DISABLED; }},
};

air random_air(std::mt19937 &random)
{
    const auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    air a;
    constexpr uint32_t widths[] = {20, 40, 80, 160, 320};
    a.options.band = below(2) ? NL80211_BAND_5GHZ : below(2) ? NL80211_BAND_2GHZ : NL80211_BAND_6GHZ;
    a.options.width_mhz = widths[below(a.options.band == NL80211_BAND_6GHZ ? 5 : 4)];
    a.options.allow_dfs = below(4);
    if (a.options.band == NL80211_BAND_2GHZ) a.range(2412, 2472, 5);
    if (a.options.band == NL80211_BAND_5GHZ) a.range(5180, 5320), a.range(5500, 5720), a.range(5745, 5885);
    if (a.options.band == NL80211_BAND_6GHZ) a.range(5955, 7115);
    for (auto &c : a.channels) {
        c.max_power_mbm = static_cast<int32_t>(below(3500));
        if (below(8) == 0) c.flags = 1U << below(6);
        if (c.flags & VELA_CHANNEL_RADAR) c.dfs_state = below(3), c.cac_ms = below(2) ? 600000 : 60000;
        if (below(3)) a.airtimes.push_back({c.freq_mhz, 0, 0, below(1100), -static_cast<int32_t>(below(110))});
    }
    a.airtimes.push_back({1, 0, 0, 0, 0});
    for (uint32_t n = below(40) + 1; n > 0; --n) {
        a.hear(a.channels[below(static_cast<uint32_t>(a.channels.size()))].freq_mhz, -static_cast<int32_t>(below(100)));
    }
    return a;
}

} // namespace

TEST(Acs, WorseInputNeverLiftsACandidateAndOrderPlaysNoPart)
{
    std::mt19937 random(13);
    for (int round = 0; round < 3000; ++round) {
        air a = random_air(random);
        const auto before = a.rank();
        std::ranges::shuffle(a.channels, random);
        std::ranges::shuffle(a.airtimes, random);
        std::ranges::shuffle(a.heard, random);
        ASSERT_EQ(before, a.rank());

        const auto &[what, make] = ways_to_get_worse[random() % std::size(ways_to_get_worse)];
        make(a, random(), static_cast<uint32_t>(random() % 300));
        const auto after = a.rank();
        ASSERT_EQ(before.size(), after.size()) << what;
        for (const auto &was : before) {
            const auto is = of(after, was.primary_mhz, was.center_mhz);
            ASSERT_GE(is.cost, was.cost) << what << " at " << was.primary_mhz;
            ASSERT_EQ(was.refused, was.refused & is.refused) << what << " at " << was.primary_mhz;
            if (is.verdict == VELA_ACS_REFUSED) continue;
            ASSERT_EQ(is.cost, is.occupancy + is.noise + is.power + is.dfs + is.policy);
            ASSERT_GE(is.occupancy, was.occupancy) << what;
        }
    }
}
