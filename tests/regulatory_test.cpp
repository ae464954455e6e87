#include "site/world.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/signal_storm.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <vela/wireless/regulatory.h>

using testing::ElementsAre;

namespace
{

constexpr const char *tool = "/usr/bin/vela-regdomain";

struct request {
    const char *custom = nullptr;
    const char *level = "high";
    int32_t band = 3;
    int32_t channel = 36;
    uint32_t min = 5;
    int32_t gain = 0;
    uint8_t use_fixed = 0;
    uint8_t fixed = 0;
};

/// Result, target and maximum, the radio's own maximum being 23.
using answer = std::tuple<unsigned, unsigned, unsigned>;
constexpr unsigned untouched = 0xA5A5A5A5;
constexpr answer refused{UINT32_MAX, untouched, untouched};

answer ask(const request &r)
{
    unsigned target = untouched;
    unsigned max = untouched;
    const unsigned result = vl_regulatory_get_target_power(r.custom, r.level, 840, 0, r.band, r.channel, r.min, 23,
                                                           r.gain, &target, &max, r.use_fixed, r.fixed);
    return {result, target, max};
}

} // namespace

TEST(Regulatory, TargetPower)
{
    site::put_program(tool, R"(echo "$*" >> /tmp/asked
echo "country US"
echo "0 36 I 20 6 1"
sleep 0.01
echo "1 40 IDX 30 6 1"
echo "3 48 I"
echo "4 52 - -3 0 1")");
    const signal_storm storm; // a listing is read through signals
    const table<const char *, request, answer> cases = {
        {"the channel's limit", {}, {0, 20, 20}},
        {"the radio's limit", {.channel = 40}, {0, 23, 23}},
        {"three beyond it", {.gain = 9}, {0, 17, 17}},
        {"not below the radio's least", {.gain = 100}, {0, 23, 23}}, // a negative limit is a huge one
        {"the least of a limit between", {.min = 18, .gain = 9}, {0, 18, 18}},
        {"low", {.level = "low"}, {0, 5, 20}},
        {"medium", {.level = "medium"}, {0, 12, 20}},
        {"custom below", {.custom = "3", .level = "custom"}, {0, 5, 20}},
        {"custom between", {.custom = "11", .level = "custom"}, {0, 11, 20}},
        {"custom negative is huge", {.custom = "-1", .level = "custom"}, {0, 20, 20}},
        {"custom unreadable", {.custom = "abc", .level = "custom"}, {0, 20, 20}},
        {"least above most", {.min = 25}, {0, 23, 23}},
        {"a negative listing", {.channel = 52}, {0, 23, 23}},
        {"fixed", {.band = 9, .gain = 6, .use_fixed = 1, .fixed = 20}, {0, 14, 14}},
        {"neither 1 nor fixed", {.use_fixed = 2, .fixed = 7}, {0, 20, 20}},
    };
    for (const auto &[what, asked, expected] : cases) EXPECT_EQ(expected, ask(asked)) << what;
    EXPECT_EQ("-c -f -A 840\n", site::read_file("/tmp/asked").substr(0, 13));
}

TEST(Regulatory, Refusals)
{
    log_lines log;
    const leak_check leaks;
    site::put_program(tool, "i=1; while [ $i -le 10000 ]; do echo $i $i I 20 6 1; i=$((i+1)); done");
    EXPECT_EQ((answer{0, 20, 20}), ask({.channel = 200}));
    EXPECT_EQ(refused, ask({.channel = 0})) << "a channel that is not listed";
    EXPECT_TRUE(log.take().empty());

    for (const int band : {0, 5}) EXPECT_EQ(refused, ask({.band = band}));
    EXPECT_THAT(log.texts(), ElementsAre("unsupported band: 0", "unsupported band: 5"));

    site::put_program(tool, "echo country; kill -9 $$");
    EXPECT_EQ(refused, ask({}));
    EXPECT_THAT(log.shown(), ElementsAre("[error] regdomain.vl_regulatory_get_max_eirp(): "
                                         "no channels found in the regulatory domain"));
    leaks.expect_unchanged();
}

TEST(Regulatory, RestrictedModes)
{
    log_lines log;
    const table<std::string, unsigned, bool> cases = {
        {"US (840) (0x3a, 10, 0x7F)", 0xDF, false},
        {"US (840) (0x3a, 10, 0x02)", 0, false},
        {"US (840) (0x3a, 10, 0xA0)", 0x40, false},
        {"US ((0x3a, 10, 0x01", 0x01, false},
        {"US (840) 0x3a, 10, 0x7F", 0, true},
        {"US (840) (0x3a, 10)", 0, true},
        {"", 0, true},
    };
    for (const auto &[line, bits, complains] : cases) {
        site::put_program(tool, "echo $* >/tmp/asked; printf '%s\\n' '" + line + "'");
        EXPECT_EQ(bits, vl_regulatory_get_restricted_modes(4000000000U)) << line;
        EXPECT_EQ(complains ? 1U : 0U, log.take().size()) << line;
    }
    EXPECT_EQ("4000000000\n", site::read_file("/tmp/asked"));
    site::remove_file(tool);
    EXPECT_EQ(0U, vl_regulatory_get_restricted_modes(1));
    EXPECT_THAT(log.shown(), ElementsAre("[error] regdomain.vl_regulatory_get_restricted_modes(): "
                                         "Couldn't get phymode_bitmap! Proceeding without adjustments."));
}
