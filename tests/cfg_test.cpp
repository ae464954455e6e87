#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <memory>
#include <random>
#include <vela/config/cfg.h>

using testing::ElementsAre;

namespace
{

constexpr const char *path = "/tmp/test.cfg";

struct freer {
    void operator()(cfg_entry *cfg) const { free_cfg(cfg); }
};
using config = std::unique_ptr<cfg_entry, freer>;

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
    for (; cfg; cfg = cfg->next) {
        text += text.empty() ? "" : "|";
        text += std::string(cfg->key) + "=" + cfg->value;
        EXPECT_EQ(nullptr, cfg->escaped);
    }
    return text;
}

std::string taken(cfg_entry *it)
{
    std::string text = shown(it);
    free_cfg_it(it);
    return text;
}

/// The order as it is stated, position by position.
int stated_order(const std::string &a, const std::string &b)
{
    const auto mapped = [](const std::string &s, size_t i) -> uint64_t {
        if (!isdigit(static_cast<unsigned char>(s[i])))
            return static_cast<uint64_t>(tolower(static_cast<unsigned char>(s[i])));
        uint32_t value = 0;
        for (; i < s.size() && isdigit(static_cast<unsigned char>(s[i])); ++i) value = value * 10 + (s[i] - '0');
        return 256 + uint64_t{value};
    };
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
        if (mapped(a, i) != mapped(b, i)) return mapped(a, i) < mapped(b, i) ? -1 : 1;
    }
    return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

std::string random_key(std::mt19937 &random, size_t longest, std::string_view letters)
{
    std::string key(random() % (longest + 1), ' ');
    for (char &c : key) c = letters[random() % letters.size()];
    return key;
}

} // namespace

TEST(Cfg, LinesBecomeEntries)
{
    using namespace std::string_view_literals;
    constexpr struct {
        std::string_view text;
        const char *entries;
    } cases[] = {
        {"k=abc", "k=ab"}, // the last character goes, whatever it is
        {"k=a\nk=", "k=a|k="},
        {"k=v\r\n\r\n\n", "k=v\r"},
        {" \ta b\t = v \t\n", "a b= v \t"},
        {"a=b=c\n=x\n==\n", "a=b=c|=x|=="},
        {"#a=1\n #a=2\nno equals\n", "#a=2"},
        {"\x80\xff=\xc3\xa4\n", "\x80\xff=\xc3\xa4"},
        {"a=1\0b=2\nc\0=3\nd=4\n"sv, "a=|d=4"}, // a NUL ends its line's text
        {"a=1\na=2\nA=3\n# misc\na=4\nb=5\nB=\n#end\na=6\n", "a=6|a=2|A=3|b="},
        {"#misc\na=1\na=2\n# mis\na=3\n # misc\na=4\n", "a=1|a=2|a=3|a=4"},
        {"# miscellaneous\na1=1\na01=2\na1=3\n", "a1=3|a01=2"},
        {"\n", ""},
    };
    for (const auto &c : cases) EXPECT_EQ(c.entries, shown(parsed(c.text).get())) << c.text;
    EXPECT_EQ(nullptr, parse_stream(nullptr));
}

TEST(Cfg, SavesWhatItReadsBack)
{
    const leak_check leaks;
    const auto cfg = parsed("b.2= x = y \na=\nb.2=again\n");
    site::put_file(path, std::string(100, 'x'));
    ASSERT_EQ(0, save_cfg(cfg.get(), path));
    EXPECT_EQ("# CFG Start\nb.2= x = y \na=\nb.2=again\n", site::read_file(path));
    EXPECT_EQ(shown(cfg.get()), shown(config{parse(path)}.get()));
    testing::internal::CaptureStdout();
    print_cfg(cfg.get());
    EXPECT_EQ("b.2= x = y \na=\nb.2=again\n", testing::internal::GetCapturedStdout());

    EXPECT_EQ(-1, save_cfg(nullptr, "/tmp/none/file"));
    EXPECT_EQ(-1, save_cfg(cfg.get(), "/dev/full"));
    EXPECT_EQ(0, save_cfg(nullptr, path));
    for (const char *none : {path, "/tmp/none", "/tmp"}) EXPECT_EQ(nullptr, parse(none)) << none;
    site::remove_file(path);
    leaks.expect_unchanged();
}

// Freed as parsed, with texts of the program's own in it, and made record by record: the sanitizers count.
TEST(Cfg, FreesTextsAndRecordsWhoeverMadeThem)
{
    cfg_entry *cfg = parsed("a=1 \nb=2 \nc=3 \n").release();
    cfg->next->value = strdup("replaced");
    cfg->next->key = strdup("key");
    for (const char *key : {"d", "e"}) {
        auto *record = static_cast<cfg_entry *>(calloc(1, sizeof(cfg_entry)));
        *record = {strdup(key), strdup("$"), nullptr, nullptr};
        cfg = cfg_it_append(cfg, &record);
    }
    EXPECT_STREQ("\\$", get_esc_value(cfg, nullptr, "e"));
    EXPECT_STREQ("replaced", get_value(cfg, nullptr, "key"));
    free_cfg(cfg);
}

TEST(Cfg, LongLinesAndKeys)
{
    for (const size_t n : {7U, 8U, 127U, 128U, 255U, 256U, 16383U, 16384U, 1U << 20}) {
        const std::string key(n, 'k');
        const auto cfg = parsed("k=no\n" + key + "x=no\n" + key + "=" + key + "\n");
        EXPECT_STREQ(key.c_str(), get_value(cfg.get(), "none", "%s", key.c_str())) << n;
        EXPECT_STREQ("none", get_value(cfg.get(), "none", "%sy", key.c_str())) << n;
    }
}

TEST(Cfg, HundredThousandLinesAreNotQuadratic)
{
    std::string text = "# misc\n";
    for (int i = 0; i < 100'000; ++i)
        text += "wireless.vap." + std::to_string(i % 50'000) + "=" + (i < 50'000 ? "0\n" : "1\n");
    const auto merged = parsed(text);
    EXPECT_EQ(50'000, get_cfg_count(merged.get()));
    EXPECT_EQ(1, get_int32(merged.get(), -1, "wireless.vap.49999"));
    const auto repeated = parsed(text.substr(7));
    cfg_entry *changes = get_cfg_diff_it(repeated.get(), merged.get());
    EXPECT_EQ(50'000, get_cfg_count(changes));
    free_cfg_it(changes);
    cfg_entry *sorted = get_cfg_section(repeated.get(), nullptr, nullptr, "wireless.vap.");
    EXPECT_STREQ("wireless.vap.0", sorted->next->key);
    free_cfg_it(sorted);
}

TEST(Cfg, KeysAreEqualAsTheNaturalOrderSays)
{
    const std::string zeros(32, '0');
    const struct {
        std::string a, b;
    } cases[] = {
        {"4294967296", "0"},
        {"\xc4", "\xe4"},
        {"a\x80z", "A\x80Z"},
        {"radio[1].mode", "radio{1].mode"},
        {"1" + zeros, "2" + zeros}, // numbers count modulo 2^32, at each of their positions
        {"1" + zeros, "1" + zeros + "0"},
    };
    for (const auto &c : cases) {
        const auto cfg = parsed(c.a + "=v\n");
        const auto merged = parsed("# misc\n" + c.a + "=v\n" + c.b + "=w\n");
        const bool equal = stated_order(c.a, c.b) == 0;
        EXPECT_EQ(equal, get_value(cfg.get(), nullptr, "%s", c.b.c_str()) != nullptr) << c.a << " " << c.b;
        EXPECT_EQ(equal ? 1 : 2, get_cfg_count(merged.get())) << c.a << " " << c.b;
    }

    // Also in records of a caller's own, whose keys start anywhere.
    std::mt19937 random{7};
    for (int i = 0; i < 20000; ++i) {
        std::string key = " " + random_key(random, 4 + i % 16, "aA1.");
        std::string wanted = key.substr(1);
        if (!wanted.empty()) wanted[random() % wanted.size()] = "aA1."[random() % 4];
        char value[] = "v";
        cfg_entry own = {&key[1], value, nullptr, nullptr};
        const bool equal = stated_order(&key[1], wanted) == 0;
        ASSERT_EQ(equal, get_value(&own, nullptr, "%s", wanted.c_str()) != nullptr) << key << " " << wanted;
        ASSERT_EQ(equal, get_value(parsed(key + "=v\n").get(), nullptr, "%s", wanted.c_str()) != nullptr)
            << key << " " << wanted;
    }
    cfg_entry keyless = {nullptr, nullptr, nullptr, nullptr};
    EXPECT_STREQ("none", get_value(&keyless, "none", "a"));
}

TEST(Cfg, NumbersKeepTheirWidth)
{
    constexpr struct {
        const char *value;
        int64_t i32, dec, u32, i64; ///< -7: the default
    } cases[] = {
        {"12abc", 12, 12, 12, 12},
        {"0x10", 16, 0, 16, 16},
        {"010", 8, 10, 8, 8},
        {" \t-3", -3, -3, 4294967293, -3},
        {"", -7, -7, -7, -7},
        {"2147483648", -7, -7, 2147483648, 2147483648},
        {"-2147483648", INT32_MIN, INT32_MIN, 2147483648, INT32_MIN},
        {"4294967295", -7, -7, 4294967295, 4294967295},
        {"4294967296", -7, -7, -7, 4294967296},
        {"-4294967296", -7, -7, -7, -4294967296},
        {"9223372036854775808", -7, -7, -7, -7},
    };
    for (const auto &c : cases) {
        const auto cfg = parsed(std::string("k=") + c.value + "\n");
        errno = EXDEV;
        EXPECT_EQ(c.i32, get_int32(cfg.get(), -7, "k")) << c.value;
        EXPECT_EQ(c.dec, get_int32_dec(cfg.get(), -7, "k")) << c.value;
        EXPECT_EQ(static_cast<uint32_t>(c.u32), get_uint32(cfg.get(), static_cast<uint32_t>(-7), "k")) << c.value;
        EXPECT_EQ(c.i64, get_int64(cfg.get(), -7, "k")) << c.value;
        EXPECT_EQ(EXDEV, errno);
    }
}

TEST(Cfg, SwitchesAreWords)
{
    const auto expect = [](int expected, std::initializer_list<const char *> values) {
        for (const std::string value : values) {
            EXPECT_EQ(expected, get_bool(parsed("k=" + value + "\n").get(), 9, "k")) << value;
        }
    };
    expect(1, {"on", "Enabled", "1", "ENABLE", "active", "true", " \tEnabled \t"});
    expect(0, {"off", "disabled", "0", "disable", "inActive", "False"});
    expect(9, {"yes", "", "o n", "1\r", "tru", "truer", "00"});
}

TEST(Cfg, EscapesForAShellOnce)
{
    const auto cfg = parsed("a=`b\\c\"d$e'!\nplain=x y\nempty=\n");
    const char *escaped = get_esc_value(cfg.get(), nullptr, "a");
    EXPECT_STREQ("\\`b\\\\c\\\"d\\$e'!", escaped);
    EXPECT_EQ(escaped, esc_value(cfg.get()));
    for (const char *key : {"plain", "empty"}) {
        EXPECT_EQ(get_value(cfg.get(), nullptr, "%s", key), get_esc_value(cfg.get(), nullptr, "%s", key));
    }
    EXPECT_STREQ("none", get_esc_value(cfg.get(), "none", "b"));

    cfg_entry *it = get_cfg_it(cfg.get(), 1, "a");
    EXPECT_STREQ(escaped, esc_value(it));
    EXPECT_NE(escaped, it->escaped) << "an iterator's own, freed with it";
    free_cfg_it(it);
}

TEST(Cfg, IteratorsByPrefixAndByKey)
{
    const auto cfg = parsed("vap1.mode=ap\nVAP1.mode=x\nradio.1.x=1\nvap2.mode=sta\nvap1.mode=again\n");
    constexpr struct {
        int exact;
        const char *key, *matches;
    } cases[] = {{0, "vap", "vap1.mode=ap|vap2.mode=sta|vap1.mode=again"},
                 {0, "VAP1.mode", "VAP1.mode=x"},
                 {1, "Vap1.mode", "vap1.mode=ap|VAP1.mode=x|vap1.mode=again"},
                 {1, "vap", ""},
                 {0, "radio.1.x.y", ""}};
    for (const auto &c : cases) {
        cfg_entry *it = get_cfg_it(cfg.get(), c.exact, "%s", c.key);
        EXPECT_EQ(get_cfg_count(it), get_cfg_key_count(cfg.get(), c.exact, "%s", c.key)) << c.key;
        EXPECT_EQ(c.matches, taken(it)) << c.key;
    }

    cfg_entry *it = get_cfg_it(cfg.get(), 0, "radio");
    EXPECT_EQ(1, get_int32(it, -1, "RADIO.%d.x", 1)) << "an iterator answers like a configuration";
    cfg_entry *more = nullptr;
    EXPECT_EQ(it, cfg_it_append(it, &more));
    EXPECT_EQ(it, cfg_it_append(it, nullptr));
    more = get_cfg_it(cfg.get(), 0, "vap2");
    it = cfg_it_append(cfg_it_append(nullptr, &it), &more);
    EXPECT_EQ(nullptr, more);
    EXPECT_EQ("radio.1.x=1|vap2.mode=sta", taken(it));
}

TEST(Cfg, SectionsAreNumberedElementsInNaturalOrder)
{
    const auto cfg = parsed("radio.10.mode=ap\nradio.2.mode=sta\nradio.1.mode=ap\nradio.x.mode=ap\nradio.0x3.Mode=on\n"
                            "radio.1=off\nradio.1.mode.x=ap\nRadio.4.mode=ap\nradio.5x.mode=Enabled \nradio.2=on\n"
                            "radio.1y=on\nradio.-6=on\n");
    constexpr struct {
        const char *postfix, *value, *elements;
        int enabled;
    } cases[] = {
        {".mode", nullptr, "radio.0x3.Mode=on|radio.1.mode=ap|radio.2.mode=sta|radio.5x.mode=Enabled |radio.10.mode=ap",
         2},
        {".mode", "ap", "radio.1.mode=ap|radio.10.mode=ap", 2},
        {nullptr, nullptr, "radio.-6=on|radio.1=off|radio.2=on", 2},
        {".mode.x", nullptr, "radio.1.mode.x=ap", 0},
    };
    for (const auto &c : cases) {
        cfg_entry *it = get_cfg_section(cfg.get(), c.postfix, c.value, "%s.", "radio");
        EXPECT_EQ(get_cfg_count(it), get_cfg_section_count(cfg.get(), c.postfix, c.value, "radio."));
        EXPECT_EQ(c.enabled, get_cfg_section_enabled_count(cfg.get(), c.postfix, "radio."));
        EXPECT_EQ(c.elements, taken(it));
    }

    // Keys that compare equal keep the order of the file; sorted like the stated order, whatever they are.
    std::mt19937 random{5};
    std::vector<std::string> keys(500);
    std::string text, expected;
    for (auto &key : keys) {
        key = "s." + std::to_string(random() % 20) + random_key(random, 5, "aA10-") + ".x";
        text += key + "=\n";
    }
    std::stable_sort(keys.begin(), keys.end(), [](const auto &a, const auto &b) { return stated_order(a, b) < 0; });
    for (const auto &key : keys) expected += "|" + key + "=";
    EXPECT_EQ(expected, "|" + taken(get_cfg_section(parsed(text).get(), ".x", nullptr, "s.")));
}

TEST(Cfg, SectionsSayWhatIsWrongWithTheirArguments)
{
    log_lines log;
    const auto cfg = parsed("vap1.mode=ap\n");
    EXPECT_EQ(1, get_cfg_section_count(cfg.get(), ".mode", nullptr, "%s", "vap"));
    EXPECT_EQ(nullptr, get_cfg_section(cfg.get(), "mode", nullptr, "vap"));
    EXPECT_THAT(log.take(),
                ElementsAre(log_line{"warn", "cfg", "get_cfg_section_count",
                                     "deprecated prefix doesn't end with '.': '%s' => 'vap'"},
                            log_line{"error", "cfg", "get_cfg_section", "postfix must start with '.': 'mode'"}));
}

TEST(Cfg, DifferenceListsChangesThenRemovals)
{
    constexpr struct {
        const char *before, *after, *changes;
    } cases[] = {
        {"a=1\nb=2\nc=3\n", "c=4\na=1\nd=5\n", "c=4|d=5|b=2"},
        {"a=1\n", "A=1\n", ""},
        {"a=1\na=2\n", "a=2\na=1\n", "a=2"}, // lookups find the first
        {"a.comment=1\nx.comment=1\n", "a.comment=2\nb.comment=3\n", ""},
        {"comment=1\n", "a.Comment=1\ncomment=2\na.comment.b=3\n", "a.Comment=1|comment=2|a.comment.b=3"},
        {"", "a=\n", "a="},
    };
    for (const auto &c : cases) {
        const auto before = parsed(c.before);
        const auto after = parsed(c.after);
        EXPECT_EQ(c.changes, taken(get_cfg_diff_it(before.get(), after.get()))) << c.before << c.after;
    }
}

TEST(Cfg, ComponentsOfKeys)
{
    constexpr struct {
        const char *key;
        int n, index;
        const char *element; ///< behind the n-th dot
    } cases[] = {{"wlan.2.vap.3", 2, 3, "vap.3"},
                 {"wlan.2.vap.3", 3, -1, "3"},
                 {"wlan.2.vap.3", 4, -1, nullptr},
                 {"wlan.2.vap.3", 0, -1, "wlan.2.vap.3"},
                 {"7.0.0x1f.-2x", 1, 31, "0.0x1f.-2x"},
                 {"7.0.0x1f.-2x", 2, -2, "0x1f.-2x"},
                 {"a.99999999999999999999.4294967296.5.", 1, 5, "99999999999999999999.4294967296.5."},
                 {nullptr, 0, -1, nullptr}};
    for (const auto &c : cases) {
        EXPECT_EQ(c.index, get_cfg_key_idx(c.key, c.n)) << c.key << " " << c.n;
        EXPECT_STREQ(c.element, get_key_element(c.key, c.n)) << c.key << " " << c.n;
    }
}

TEST(Cfg, WantOfMemory)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    const auto cfg = parsed("a.1=$\na.2=x\n");
    log_lines log;
    const std::string longer(300, 'k');
    {
        const faults::refuse_memory next;
        EXPECT_STREQ("none", get_value(cfg.get(), "none", "%s", longer.c_str()));
        EXPECT_TRUE(next.happened());
    }
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "cfg", "get_value", "OOM"}));

    FILE *stream = tmpfile();
    fputs("# misc\na=1\n", stream);
    const struct {
        int allocations;
        std::function<void()> use;
    } uses[] = {{3, [&] { free_cfg((rewind(stream), parse_stream(stream))); }},
                {1, [&] { esc_value(cfg.get()); }},
                {4, [&] { free_cfg_it(get_cfg_diff_it(nullptr, cfg.get())); }}};
    for (const auto &u : uses) {
        for (int n = 0; n < u.allocations; ++n) {
            EXPECT_EXIT(
                {
                    const faults::refuse_memory nth(n);
                    u.use();
                },
                testing::ExitedWithCode(1), "^cfg:[0-9]+: Out of memory\n$");
        }
    }
    fclose(stream);
}
