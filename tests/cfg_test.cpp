#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <sstream>
#include <vela/config/cfg.h>
#include <vela/core/internal/memory.h>

namespace
{

constexpr const char *path = "/tmp/test.cfg";

using config = std::unique_ptr<cfg_entry, vela::releaser<free_cfg>>;
using iterator = std::unique_ptr<cfg_entry, vela::releaser<free_cfg_it>>;

config parsed(std::string_view text)
{
    FILE *stream = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    config cfg{parse_stream(stream)};
    EXPECT_EQ(0, fclose(stream)) << "the stream stays open";
    return cfg;
}

/// "key=value|key=value"
std::string shown(const cfg_entry *cfg)
{
    std::string text;
    for (; cfg; cfg = cfg->next) text += std::string(text.empty() ? "" : "|") + cfg->key + "=" + cfg->value;
    return text;
}

} // namespace

TEST(Cfg, LinesBecomeEntries)
{
    using namespace std::string_view_literals;
    const table<std::string_view, const char *> cases = {
        {"k=abc", "k=ab"}, // the last character goes, whatever it is
        {"k=a\nk=", "k=a|k="},
        {"k=v\r\n\r\n\n", "k=v\r"},
        {" \ta b\t = v \t\n", "a b= v \t"},
        {"a=b=c\n=x\n==\n", "a=b=c|=x|=="},
        {"#a=1\n #a=2\nno equals\n", "#a=2"},
        {"a=1\0b=2\nc\0=3\nd=4\n"sv, "a=|d=4"}, // a NUL ends its line's text
        {"a=1\na=2\nA=3\n# miscellaneous\na=4\nb=5\nB=\n#end\na=6\n", "a=6|a=2|A=3|b="},
        {"#misc\na=1\na=2\n# mis\na=3\n # misc\na=4\n", "a=1|a=2|a=3|a=4"},
    };
    for (const auto &[text, entries] : cases) EXPECT_EQ(entries, shown(parsed(text).get())) << text;
    EXPECT_EQ(nullptr, parse_stream(nullptr));
}

TEST(Cfg, SavesWhatItReadsBack)
{
    const leak_check leaks;
    const auto cfg = parsed("b.2= x = y \na=\nb.2=again\n");
    ASSERT_EQ(0, save_cfg(cfg.get(), path));
    EXPECT_EQ("# CFG Start\nb.2= x = y \na=\nb.2=again\n", site::read_file(path));
    testing::internal::CaptureStdout();
    print_cfg(config{parse(path)}.get());
    EXPECT_EQ("b.2= x = y \na=\nb.2=again\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, save_cfg(nullptr, path)) << "cuts what was there";
    for (const char *none : {path, "/tmp/none", "/tmp"}) EXPECT_EQ(nullptr, parse(none)) << none;
    for (const char *bad : {"/tmp/none/file", "/dev/full"}) EXPECT_EQ(-1, save_cfg(cfg.get(), bad)) << bad;
    site::remove_file(path);
    leaks.expect_unchanged();
}

// A program owns what is parsed, block by block: the sanitizers count.
TEST(Cfg, RecordsAndTextsAreBlocksOfTheirOwn)
{
    cfg_entry *cfg = parsed("a=1 \nb=2 \nc=3 \nd=$ \ne=5 \n# misc\na=6 \n").release();
    free(cfg->value);
    cfg->value = strdup("replaced");
    cfg_entry *unlinked = std::exchange(cfg->next, cfg->next->next);
    for (char *text : {unlinked->key, unlinked->value}) free(text);
    free(unlinked);
    auto *own = static_cast<cfg_entry *>(malloc(sizeof(cfg_entry)));
    *own = {strdup("own"), strdup("`"), nullptr, cfg->next};
    cfg->next = own;
    EXPECT_STREQ("\\`", get_esc_value(cfg, nullptr, "own"));
    EXPECT_STREQ("\\$ ", get_esc_value(cfg, nullptr, "d"));
    EXPECT_EQ("a=replaced|own=`|c=3 |d=$ |e=5 ", shown(cfg));
    const config second_half{std::exchange(own->next->next, nullptr)};
    EXPECT_EQ("d=$ |e=5 ", shown(second_half.get()));
    free_cfg(cfg);
}

// A comparison of all pairs would take minutes. The numbers differ above 32 bits only.
TEST(Cfg, HundredThousandLinesAreNotQuadratic)
{
    std::string text = "# misc\n";
    for (uint64_t i = 0; i < 100'000; ++i)
        text += "vap." + std::to_string(i % 50'000 << 32) + (i < 50'000 ? "=0\n" : "=1\n");
    const auto merged = parsed(text);
    const auto repeated = parsed(text.substr(7));
    EXPECT_EQ(50'000, get_cfg_count(merged.get()));
    EXPECT_EQ(50'000, get_cfg_count(iterator{get_cfg_diff_it(repeated.get(), merged.get())}.get()));
    EXPECT_EQ(100'000, get_cfg_count(iterator{get_cfg_section(repeated.get(), nullptr, nullptr, "vap.")}.get()));
}

// The fuzz target compares any keys with the order as it is stated.
TEST(Cfg, KeysAreEqualAsTheNaturalOrderSays)
{
    const auto zeros = [](size_t n) { return std::string(n, '0'); };
    const table<std::string, std::string, bool> cases = {
        {"Radio.10.mode", "radio.10.MODE", true},
        {"radio[1]", "radio{1]", false},
        {"\xc4", "\xe4", false}, // beyond ASCII there is no case
        {"a.01", "a.1", false},
        {"8" + zeros(29), zeros(30), true}, // numbers count modulo 2^32, at each of their places
        {"8" + zeros(28), zeros(29), false},
        {"4294967296", zeros(10), false},
        {std::string(256, 'k'), std::string(256, 'K'), true}, // the first that wants the heap
    };
    for (const auto &[a, b, equal] : cases) {
        const auto file = (std::ostringstream{} << "# misc\n" << a << "=v\n" << b << "=w\n").str();
        const auto cfg = parsed(file);
        EXPECT_STREQ(equal ? "w" : "v", get_value(cfg.get(), nullptr, "%s", a.c_str())) << a;
        EXPECT_STREQ("w", get_value(cfg.get(), nullptr, "%s", b.c_str())) << a;
        EXPECT_EQ(equal ? 1 : 2, get_cfg_count(cfg.get())) << a;
    }
    cfg_entry keyless = {nullptr, nullptr, nullptr, nullptr};
    EXPECT_STREQ("none", get_value(&keyless, "none", "a"));
}

TEST(Cfg, ValuesAsNumbersAndSwitches)
{
    // As 32 bits, as decimal, as unsigned, as 64 bits, as a switch; -7 is the default.
    const table<const char *, int, int, int64_t, int64_t, int> cases = {
        {"0x10abc", 0x10abc, 0, 0x10abc, 0x10abc, -7},
        {"010", 8, 10, 8, 8, -7},
        {" \t-3", -3, -3, 4294967293, -3, -7},
        {"", -7, -7, -7, -7, -7},
        {"2147483648", -7, -7, 2147483648, 2147483648, -7},
        {"-2147483648", INT32_MIN, INT32_MIN, 2147483648, INT32_MIN, -7},
        {"4294967296", -7, -7, -7, 4294967296, -7},
        {"-4294967296", -7, -7, -7, -4294967296, -7},
        {"9223372036854775808", -7, -7, -7, -7, -7},
        {"1", 1, 1, 1, 1, 1},
        {"1\r", 1, 1, 1, 1, -7},
        {" \tEnabled \t", -7, -7, -7, -7, 1},
        {"inActive", -7, -7, -7, -7, 0},
        {"truer", -7, -7, -7, -7, -7}};
    for (const auto &[value, i32, dec, u32, i64, on] : cases) {
        const auto cfg = parsed(std::string("k=") + value + "\n");
        errno = ERANGE; // an old one says nothing
        EXPECT_EQ(i32, get_int32(cfg.get(), -7, "k")) << value;
        EXPECT_EQ(dec, get_int32_dec(cfg.get(), -7, "k")) << value;
        EXPECT_EQ(static_cast<uint32_t>(u32), get_uint32(cfg.get(), static_cast<uint32_t>(-7), "k")) << value;
        EXPECT_EQ(i64, get_int64(cfg.get(), -7, "k")) << value;
        EXPECT_EQ(on, get_bool(cfg.get(), -7, "k")) << value;
    }
}

TEST(Cfg, EscapesForAShellOnce)
{
    const auto cfg = parsed("a=`b\\c\"d$e'!\nplain=x y\n");
    const char *escaped = get_esc_value(cfg.get(), nullptr, "a");
    EXPECT_STREQ("\\`b\\\\c\\\"d\\$e'!", escaped);
    EXPECT_EQ(escaped, esc_value(cfg.get()));
    EXPECT_EQ(get_value(cfg.get(), nullptr, "plain"), get_esc_value(cfg.get(), nullptr, "plain"));
    EXPECT_STREQ("$", get_esc_value(cfg.get(), "$", "none")) << "a default is taken as it is";
    const iterator it{get_cfg_it(cfg.get(), 1, "a")};
    EXPECT_STREQ(escaped, esc_value(it.get()));
    EXPECT_NE(escaped, it->escaped) << "an iterator's own, freed with it";
}

TEST(Cfg, IteratorsByPrefixAndByKey)
{
    const auto cfg = parsed("vap1.mode=ap\nVAP1.mode=x\nradio.1.x=1\nvap2.mode=sta\nvap1.mode=again\n");
    const table<int, const char *, const char *> cases = {
        {0, "vap", "vap1.mode=ap|vap2.mode=sta|vap1.mode=again"},
        {1, "Vap1.mode", "vap1.mode=ap|VAP1.mode=x|vap1.mode=again"},
        {1, "vap", ""},
    };
    for (const auto &[exact, key, matches] : cases) {
        const iterator it{get_cfg_it(cfg.get(), exact, "%s", key)};
        EXPECT_EQ(get_cfg_count(it.get()), get_cfg_key_count(cfg.get(), exact, "%s", key)) << key;
        EXPECT_EQ(matches, shown(it.get())) << key;
    }

    cfg_entry *it = get_cfg_it(cfg.get(), 0, "radio");
    EXPECT_EQ(1, get_int32(it, -1, "RADIO.%d.x", 1)) << "an iterator answers like a configuration";
    cfg_entry *more = get_cfg_it(cfg.get(), 0, "vap2");
    it = cfg_it_append(cfg_it_append(nullptr, &it), &more);
    EXPECT_EQ(nullptr, more);
    EXPECT_EQ(it, cfg_it_append(cfg_it_append(it, &more), nullptr));
    EXPECT_EQ("radio.1.x=1|vap2.mode=sta", shown(iterator{it}.get()));
}

TEST(Cfg, SectionsAreNumberedElementsInNaturalOrder)
{
    const auto cfg = parsed("radio.10.mode=ap\nradio.2.mode=sta\nradio.2.Mode=ap\nradio.1.mode=ap\nradio.x.mode=ap\n"
                            "radio.1=off\nradio.1.mode.x=ap\nRadio.4.mode=ap\nradio.5x.mode=Enabled \nradio.2=on\n"
                            "radio.1y=on\nradio.-6=on\nradio.0x3.mode=on\nvap1.mode=ap\n");
    const table<const char *, const char *, int, const char *> cases = {
        {".mode", nullptr, 2,
         "radio.0x3.mode=on|radio.1.mode=ap|radio.2.mode=sta|radio.2.Mode=ap|radio.5x.mode=Enabled |radio.10.mode=ap"},
        {".mode", "ap", 2, "radio.1.mode=ap|radio.2.Mode=ap|radio.10.mode=ap"},
        {nullptr, nullptr, 2, "radio.-6=on|radio.1=off|radio.2=on"},
    };
    for (const auto &[postfix, value, enabled, elements] : cases) {
        const iterator it{get_cfg_section(cfg.get(), postfix, value, "%s.", "radio")};
        EXPECT_EQ(get_cfg_count(it.get()), get_cfg_section_count(cfg.get(), postfix, value, "radio."));
        EXPECT_EQ(enabled, get_cfg_section_enabled_count(cfg.get(), postfix, "radio."));
        EXPECT_EQ(elements, shown(it.get()));
    }

    log_lines log;
    EXPECT_EQ(nullptr, get_cfg_section(cfg.get(), "mode", nullptr, "vap."));
    EXPECT_EQ(1, get_cfg_section_count(cfg.get(), ".mode", nullptr, "%s", "vap"));
    EXPECT_EQ(
        (log_line{"warn", "cfg", "get_cfg_section_count", "deprecated prefix doesn't end with '.': '%s' => 'vap'"}),
        log.take().at(1));
}

TEST(Cfg, DifferenceListsChangesThenRemovals)
{
    const table<const char *, const char *, const char *> cases = {
        {"a=1\nb=2\nc=3\n", "c=4\nA=1\nd=5\n", "c=4|d=5|b=2"},
        {"a=1\na=2\n", "a=2\na=1\n", "a=2"}, // lookups find the first
        {"a.comment=1\nx.comment=1\n", "a.comment=2\nb.comment=3\n", ""},
        {"comment=1\n", "a.Comment=1\ncomment=2\na.comment.b=3\n", "a.Comment=1|comment=2|a.comment.b=3"},
        {"", "a=\n", "a="},
    };
    for (const auto &[before, after, changes] : cases)
        EXPECT_EQ(changes, shown(iterator{get_cfg_diff_it(parsed(before).get(), parsed(after).get())}.get()))
            << before << after;
}

TEST(Cfg, ComponentsOfKeys)
{
    constexpr const char *key = "7.0.0x1f.-2x.99999999999999999999.4294967296.5.";
    for (const auto &[n, index] : {std::pair{0, -1}, {1, 31}, {2, -2}, {3, 5}, {4, -1}}) {
        EXPECT_EQ(index, get_cfg_key_idx(key, n)) << n;
    }
    EXPECT_EQ(key, get_key_element(key, 0));
    EXPECT_STREQ("", get_key_element(key, 7));
    EXPECT_EQ(nullptr, get_key_element(key, 8));
    EXPECT_EQ(nullptr, get_key_element(nullptr, 0));
}

TEST(Cfg, AKeyThatCannotBeComposedGivesTheDefault)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    log_lines log;
    const std::string longer(300, 'k');
    EXPECT_STREQ("none", (faults::refuse_memory{}, get_value(nullptr, "none", "%s", longer.c_str())));
    EXPECT_THAT(log.texts(), testing::ElementsAre("OOM"));
}
