#include "site/world.h"
#include "tests/support/json.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <vela/core/json.h>

using testing::ElementsAre;
using vela::c_string;
using vela::json_ref;

TEST(Json, ReadersTakeTheirTypeOnly)
{
    log_lines log;
    const auto object = parsed(R"({"text": "abc", "true": true, "false": false, "null": null, "real": 1.5, "zero": 0,
                                   "large": 8589934597, "bit": 4294967296, "hex": "-0x1F", "oct": " 017 mW", "": ""})");
    json_t *const o = object.get();
    // As text, boolean and number of 32 and 64 bits; the number that may be text, and where it was found.
    const table<const char *, const char *, int, int32_t, int64_t, int32_t, int> cases = {
        {"text", "abc", 9, 9, 9, 8, 0},         {"true", "-", 1, 9, 9, 8, 0},         {"false", "-", 0, 9, 9, 8, 0},
        {"null", "-", 9, 9, 9, 8, 0},           {"real", "-", 9, 9, 9, 8, 0},         {"zero", "-", 0, 0, 0, 0, 2},
        {"large", "-", 1, 5, 8589934597, 5, 2}, {"bit", "-", 1, 0, 4294967296, 0, 2}, {"none", "-", 9, 9, 9, 8, 0},
        {"hex", "-0x1F", 9, 9, 9, -31, 1},      {"oct", " 017 mW", 9, 9, 9, 15, 1},   {"", "", 9, 9, 9, 8, 0}};
    for (const auto &[key, text, boolean, number, wide, either, place] : cases) {
        int32_t value = 8; // untouched on failure
        EXPECT_STREQ(text, vela_json_get_str(o, key, "-")) << key;
        EXPECT_EQ(boolean, vela_json_get_bool(o, key, 9)) << key;
        EXPECT_EQ(number, vela_json_read_long(o, key, 9)) << key;
        EXPECT_EQ(wide, vela_json_read_i64(o, key, 9)) << key;
        EXPECT_EQ(place, vela_json_integer_value_from_obj(o, "radio", key, 1, &value)) << key;
        EXPECT_EQ(either, value) << key;
        EXPECT_EQ(place == 1, vela_json_integer_value_from_obj(o, "radio", key, 0, &value)) << key;
    }
    EXPECT_EQ(0, vela_json_integer_value_from_obj(o, "radio", "zero", 1, nullptr));
    EXPECT_THAT(log.take(), testing::Contains(log_line{"debug", "libvela_util", "vela_json_integer_value_from_obj",
                                                       "invalid integer '' in object radio, key "}));
}

TEST(Json, ArraysOfIntegersAndOfTexts)
{
    const auto object = parsed(R"({"mixed": ["a", 3, "b", -4, 1.5, null], "empty": [], "no": "[1]", "one": [""],
                                   "half": ["", 1, "x"]})");
    const table<const char *, std::vector<int64_t>, const char *> cases = {
        {"mixed", {3, -4}, "a,b"}, {"half", {1}, ",x"}, {"one", {}, ""}, {"empty", {}, nullptr}, {"no", {}, nullptr}};
    for (const auto &[key, numbers, joined] : cases) {
        const c_string csv{vela_json_array_to_csv(object.get(), key)};
        EXPECT_STREQ(joined, csv.get()) << key;
        int64_t *values = nullptr;
        size_t count = 0;
        EXPECT_EQ(numbers.empty() ? -1 : 0, vela_json_read_array(object.get(), key, &values, &count)) << key;
        EXPECT_EQ(numbers, std::vector(values, values + count)) << key;
        free(values);
    }
}

TEST(Json, CountersAndLists)
{
    const auto object = parsed(R"({"n": 2147483647, "max": 9223372036854775807, "word": "x"})");
    json_t *const o = object.get();
    EXPECT_EQ(0, vela_json_add_long(o, "n", 1));
    EXPECT_EQ(0, vela_json_add_i64(o, "max", 1)) << "wraps";
    EXPECT_EQ(0, vela_json_add_long(o, "word", -3)) << "counts from 0";
    EXPECT_EQ(0, vela_json_add_i64(o, "new", 4));
    EXPECT_EQ(0, vela_json_append_array(o, "list", 1));
    EXPECT_EQ(0, vela_json_append_array(o, "list", INT64_MAX));
    EXPECT_EQ(-1, vela_json_append_array(o, "n", 1));
    EXPECT_EQ(-1, vela_json_append_array(nullptr, "list", 1));
    EXPECT_EQ(-1, vela_json_add_long(nullptr, "n", 1));
    EXPECT_EQ(R"({"list":[1,9223372036854775807],"max":-9223372036854775808,"n":2147483648,"new":4,"word":-3})",
              dumped(object));
}

TEST(Json, SeriesWaitsItsIntervalAndThins)
{
    const json_ref object{json_object()};
    const auto append = [&](int64_t seconds, int64_t value) {
        vela_set_ts(seconds);
        return vela_json_maybe_append_array(object.get(), "x", value);
    };
    EXPECT_EQ(0, append(1000, 0));
    EXPECT_EQ(-ENOENT, append(1009, 1));
    EXPECT_EQ(-ENOENT, append(999, 1)) << "a clock that went back";
    EXPECT_EQ(R"({"xArray":[0],"xTime":1000})", dumped(object));

    for (int64_t i = 1; i < 360; ++i) ASSERT_EQ(0, append(1000 + 10 * i, i));
    const json_t *array = json_object_get(object.get(), "xArray");
    EXPECT_EQ(-ENOENT, append(4599, 360));
    EXPECT_EQ(360U, json_array_size(array)) << "too soon comes before thinning";
    EXPECT_EQ(0, append(4600, 360));
    ASSERT_EQ(181U, json_array_size(array));
    for (size_t i = 0; i < 181; ++i) EXPECT_EQ(2 * i, json_integer_value(json_array_get(array, i)));
    EXPECT_EQ(-ENOENT, append(4619, 1));
    EXPECT_EQ(0, append(4620, 1));
    for (int64_t i = 1; i < 180; ++i) ASSERT_EQ(0, append(5000 + 20 * i, i));
    EXPECT_EQ(40, vela_json_read_i64(object.get(), "xInterval", 0));

    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_NEAR(static_cast<double>(now.tv_sec), static_cast<double>(vela_grab_ts()), 60);
}

TEST(Json, SeriesMeetsStrangeMembers)
{
    vela_set_ts(5);
    const table<const char *, int, const char *> cases = {
        {R"({"Array":[1],"Time":0})", 0, R"({"Array":[1,7],"Time":5})"}, // never too soon
        {R"({"Array":[1]})", 0, R"({"Array":[1,7],"Time":5})"},
        {R"({"Time":4})", 0, R"({"Array":[7],"Time":5})"},
        {R"({"Array":[],"Time":-9223372036854775808})", 0, R"({"Array":[7],"Time":5})"},
        {R"({"Array":[],"Time":9223372036854775807})", -ENOENT, R"({"Array":[],"Time":9223372036854775807})"},
        {R"({"Array":"text"})", -1, R"({"Array":"text","Time":5})"}};
    for (const auto &[before, result, after] : cases) {
        const auto object = parsed(before);
        EXPECT_EQ(result, vela_json_maybe_append_array(object.get(), "", 7)) << before;
        EXPECT_EQ(after, dumped(object));
    }
    log_lines log;
    const std::string longest(31, 'p');
    const json_ref object{json_object()};
    EXPECT_EQ(0, vela_json_maybe_append_array(object.get(), longest.c_str(), 7));
    EXPECT_EQ(-1, vela_json_maybe_append_array(object.get(), (longest + "p").c_str(), 7));
    EXPECT_THAT(log.texts(), ElementsAre("key too long: " + longest + "p"));
}

TEST(Json, VendorPrefixAndFileAsBase64)
{
    EXPECT_EQ("\"020f4c\"", dumped(json_ref{mac_str_to_oui_json_string("2:0f:4C")}));
    for (const char *mac : {"02:56", "02-56-4C"}) EXPECT_EQ(nullptr, mac_str_to_oui_json_string(mac));

    const auto object = parsed("{}");
    site::put_file("/tmp/blob", "text");
    FILE *file = fopen("/tmp/blob", "r");
    EXPECT_EQ(0, json_object_load_file_base64(object.get(), "blob", file));
    EXPECT_EQ(-1, json_object_load_file_base64(nullptr, "blob", file));
    EXPECT_EQ(-1, json_object_load_file_base64(object.get(), "none", nullptr));
    EXPECT_EQ(R"({"blob":"dGV4dA==","none":""})", dumped(object));
    fclose(file);
}
