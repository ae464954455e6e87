#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <vela/core/internal/json.h>
#include <vela/core/json.h>

using testing::ElementsAre;
using vela::json_ref;

namespace
{

json_ref parsed(const char *text) { return json_ref{json_loads(text, 0, nullptr)}; }

std::string dumped(const json_ref &value)
{
    const vela::c_string text{json_dumps(value.get(), JSON_COMPACT | JSON_SORT_KEYS)};
    return text ? text.get() : "nothing";
}

/// One member of every kind a reader can meet.
constexpr const char *kinds = R"({"text": "abc", "true": true, "false": false, "null": null, "real": 1.5, "zero": 0,
    "large": 8589934597, "bit 32": 4294967296, "minus": -7, "list": [], "object": {}})";

} // namespace

TEST(Json, ReadersTakeTheirTypeOnly)
{
    const auto object = parsed(kinds);
    constexpr struct {
        const char *key, *text;
        int boolean;
        int32_t number;
        int64_t wide;
    } cases[] = {
        {"text", "abc", 9, 9, 9},         {"true", "-", 1, 9, 9},
        {"false", "-", 0, 9, 9},          {"null", "-", 9, 9, 9},
        {"real", "-", 9, 9, 9},           {"zero", "-", 0, 0, 0},
        {"large", "-", 1, 5, 8589934597}, {"bit 32", "-", 1, 0, 4294967296},
        {"minus", "-", 1, -7, -7},        {"list", "-", 9, 9, 9},
        {"missing", "-", 9, 9, 9},
    };
    for (const auto &c : cases) {
        EXPECT_STREQ(c.text, vela_json_get_str(object.get(), c.key, "-")) << c.key;
        EXPECT_EQ(c.boolean, vela_json_get_bool(object.get(), c.key, 9)) << c.key;
        EXPECT_EQ(c.number, vela_json_read_long(object.get(), c.key, 9)) << c.key;
        EXPECT_EQ(c.wide, vela_json_read_i64(object.get(), c.key, 9)) << c.key;
    }
    EXPECT_EQ(nullptr, vela_json_get_str(nullptr, "text", nullptr));
}

TEST(Json, ArraysOfIntegersAndOfTexts)
{
    const auto object = parsed(R"({"mixed": ["a", 3, "b", -4, 1.5, null], "empty": [], "no": "[1]", "blank": ["", ""],
                                   "one": [""], "half": ["", 1, "x"]})");
    int64_t *values = nullptr;
    size_t count = 77;
    for (const char *key : {"empty", "no", "blank", "missing"}) {
        EXPECT_EQ(-1, vela_json_read_array(object.get(), key, &values, &count)) << key;
    }
    EXPECT_EQ(nullptr, values);
    EXPECT_EQ(77U, count);
    EXPECT_EQ(0, vela_json_read_array(object.get(), "mixed", &values, &count));
    EXPECT_EQ((std::vector<int64_t>{3, -4}), std::vector(values, values + count));
    free(values);

    constexpr struct {
        const char *key, *csv;
    } cases[] = {{"mixed", "a,b"}, {"blank", ","}, {"one", ""}, {"half", ",x"}};
    for (const auto &c : cases) {
        const vela::c_string csv{vela_json_array_to_csv(object.get(), c.key)};
        EXPECT_STREQ(c.csv, csv.get()) << c.key;
    }
    for (const char *key : {"empty", "no", "missing"}) EXPECT_EQ(nullptr, vela_json_array_to_csv(object.get(), key));

    if (!faults::can_refuse_memory) return;
    log_lines log;
    const faults::refuse_memory none;
    EXPECT_EQ(-1, vela_json_read_array(object.get(), "mixed", &values, &count));
    EXPECT_THAT(log.take(),
                ElementsAre(log_line{"error", "libvela_util", "vela_json_read_array", "Failed to allocate memory"}));
    const faults::refuse_memory again;
    EXPECT_EQ(nullptr, vela_json_array_to_csv(object.get(), "mixed"));
}

TEST(Json, CountersAndLists)
{
    auto object = parsed(R"({"n": 2147483647, "max": 9223372036854775807, "word": "x"})");
    EXPECT_EQ(0, vela_json_add_long(object.get(), "n", 1));
    EXPECT_EQ(0, vela_json_add_i64(object.get(), "max", 1)) << "wraps";
    EXPECT_EQ(0, vela_json_add_long(object.get(), "word", -3)) << "counts from 0";
    EXPECT_EQ(0, vela_json_add_i64(object.get(), "new", INT64_MIN));
    EXPECT_EQ(0, vela_json_append_array(object.get(), "list", 1));
    EXPECT_EQ(0, vela_json_append_array(object.get(), "list", INT64_MAX));
    EXPECT_EQ(-1, vela_json_append_array(object.get(), "n", 1)) << "no array";
    EXPECT_EQ(-1, vela_json_append_array(nullptr, "list", 1));
    EXPECT_EQ(-1, vela_json_add_long(nullptr, "n", 1));
    EXPECT_EQ(R"({"list":[1,9223372036854775807],"max":-9223372036854775808,"n":2147483648,)"
              R"("new":-9223372036854775808,"word":-3})",
              dumped(object));

    if (!faults::can_refuse_memory) return;
    log_lines log;
    {
        const faults::refuse_memory none;
        EXPECT_EQ(-1, vela_json_append_array(object.get(), "other", 1));
    }
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "libvela_util", "vela_json_append_array",
                                                 "Failed to allocate json array"}));
}

TEST(Json, SeriesWaitsItsIntervalAndThins)
{
    json_ref object{json_object()};
    json_t *o = object.get();
    const auto append = [o](int64_t seconds, int64_t value) {
        vela_set_ts(seconds);
        return vela_json_maybe_append_array(o, "x", value);
    };
    EXPECT_EQ(0, append(1000, 0));
    EXPECT_EQ(R"({"xArray":[0],"xTime":1000})", dumped(object));
    EXPECT_EQ(-ENOENT, append(1009, 1));
    EXPECT_EQ(-ENOENT, append(999, 1)) << "a clock that went back";
    EXPECT_EQ(R"({"xArray":[0],"xTime":1000})", dumped(object));

    for (int64_t i = 1; i < 360; ++i) ASSERT_EQ(0, append(1000 + 10 * i, i));
    EXPECT_EQ(360U, json_array_size(json_object_get(o, "xArray")));
    EXPECT_EQ(-ENOENT, append(4599, 360)) << "too soon comes before thinning";
    EXPECT_EQ(360U, json_array_size(json_object_get(o, "xArray")));
    EXPECT_EQ(0, append(4600, 360));
    const json_t *array = json_object_get(o, "xArray");
    ASSERT_EQ(181U, json_array_size(array));
    for (size_t i = 0; i < 181; ++i) EXPECT_EQ(2 * i, json_integer_value(json_array_get(array, i)));
    EXPECT_EQ(20, vela_json_read_i64(o, "xInterval", 0));
    EXPECT_EQ(-ENOENT, append(4619, 1));
    EXPECT_EQ(0, append(4620, 1));
    EXPECT_EQ(4620, vela_json_read_i64(o, "xTime", 0));
}

TEST(Json, SeriesMeetsStrangeMembers)
{
    log_lines log;
    vela_set_ts(50);
    constexpr struct {
        const char *before;
        int result;
        const char *after;
    } cases[] = {
        {R"({"Array":[1],"Time":0})", 0, R"({"Array":[1,7],"Time":50})"},
        {R"({"Array":[1]})", 0, R"({"Array":[1,7],"Time":50})"},
        {R"({"Time":49})", 0, R"({"Array":[7],"Time":50})"},
        {R"({"Array":[],"Interval":0,"Time":50})", 0, R"({"Array":[7],"Interval":0,"Time":50})"},
        {R"({"Array":[],"Time":-9223372036854775808})", 0, R"({"Array":[7],"Time":50})"},
        {R"({"Array":[],"Time":9223372036854775807})", -ENOENT, R"({"Array":[],"Time":9223372036854775807})"},
        {R"({"Array":"text"})", -1, R"({"Array":"text","Time":50})"},
    };
    for (const auto &c : cases) {
        const auto object = parsed(c.before);
        EXPECT_EQ(c.result, vela_json_maybe_append_array(object.get(), "", 7)) << c.before;
        EXPECT_EQ(c.after, dumped(object));
    }

    const auto object = parsed("{}");
    EXPECT_EQ(0, vela_json_maybe_append_array(object.get(), std::string(31, 'p').c_str(), 7));
    EXPECT_TRUE(log.take().empty());
    const std::string long_prefix(32, 'p');
    EXPECT_EQ(-1, vela_json_maybe_append_array(object.get(), long_prefix.c_str(), 7));
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "libvela_util", "vela_json_maybe_append_array",
                                                 "key too long: " + long_prefix}));
}

TEST(Json, NumberFromTextOrInteger)
{
    const auto object =
        parsed(R"({"dec": "12", "hex": "-0x1F", "oct": "017", "tail": " 5 mW", "word": "abc", "empty": "",
                                   "int": 42, "real": 1.5, "list": []})");
    constexpr struct {
        const char *key;
        bool accept;
        int result;
        int32_t value;
        const char *text;
    } cases[] = {
        {"dec", false, 1, 12, nullptr},
        {"hex", false, 1, -31, nullptr},
        {"oct", true, 1, 15, nullptr},
        {"tail", true, 1, 5, nullptr},
        {"int", true, 2, 42, nullptr},
        {"int", false, 0, 99, "JSON object as integer is not acceptable, obj_name radio, key int"},
        {"word", true, 0, 99, "invalid integer 'abc' in object radio, key word"},
        {"empty", true, 0, 99, "invalid integer '' in object radio, key empty"},
        {"real", true, 0, 99, "JSON object is of type 4, not a string or integer, obj_name radio, key real"},
        {"list", true, 0, 99, "JSON object is of type 1, not a string or integer, obj_name radio, key list"},
        {"none", true, 0, 99, "no obj for obj_name radio, key none"},
    };
    log_lines log;
    for (const auto &c : cases) {
        int32_t value = 99;
        EXPECT_EQ(c.result, vela_json_integer_value_from_obj(object.get(), "radio", c.key, c.accept, &value)) << c.key;
        EXPECT_EQ(c.value, value) << c.key;
        std::vector<log_line> expected;
        if (c.text) expected.push_back({"debug", "libvela_util", "vela_json_integer_value_from_obj", c.text});
        EXPECT_EQ(expected, log.take()) << c.key;
    }
    EXPECT_EQ(0, vela_json_integer_value_from_obj(object.get(), "radio", "dec", true, nullptr));
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "libvela_util", "vela_json_integer_value_from_obj",
                                                 "NULL pointer provided for value, obj_name radio, key dec"}));
}

TEST(Json, VendorPrefix)
{
    constexpr struct {
        const char *mac, *json;
    } cases[] = {{"02:56:4C:00:00:01", "\"02564c\""}, {"2:f:A", "\"020f0a\""}, {"02:56", "nothing"},
                 {"02-56-4C-00-00-01", "nothing"},    {"", "nothing"},         {nullptr, "nothing"}};
    for (const auto &c : cases) {
        const json_ref prefix{mac_str_to_oui_json_string(c.mac)};
        const vela::c_string text{json_dumps(prefix.get(), JSON_ENCODE_ANY)};
        EXPECT_STREQ(c.json, text ? text.get() : "nothing");
    }
}

TEST(Json, FileAsBase64)
{
    const auto object = parsed("{}");
    site::put_file("/tmp/blob", std::string("\0\1\2\3", 4));
    FILE *file = fopen("/tmp/blob", "r");
    EXPECT_EQ(0, json_object_load_file_base64(object.get(), "blob", file));
    EXPECT_EQ(-1, json_object_load_file_base64(nullptr, "blob", file));
    fclose(file);
    EXPECT_EQ(-1, json_object_load_file_base64(object.get(), "none", nullptr));
    EXPECT_EQ(R"({"blob":"AAECAw==","none":""})", dumped(object));
}

TEST(Json, CachedTime)
{
    timespec before = {};
    clock_gettime(CLOCK_MONOTONIC, &before);
    const int64_t seconds = vela_grab_ts();
    EXPECT_EQ(seconds, vl_now.tv_sec);
    EXPECT_GE(seconds, before.tv_sec);
    EXPECT_LE(seconds, before.tv_sec + 60);
    vela_set_ts(INT64_C(1) << 40);
    EXPECT_EQ(INT64_C(1) << 40, vl_now.tv_sec);
    EXPECT_LT(vela_grab_ts(), INT64_C(1) << 40) << "the clock itself was not set";
}
