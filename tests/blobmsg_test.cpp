#include "site/bus_daemon.h"
#include "tests/support/faults.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <libubox/blobmsg.h>

namespace bus = site::bus;

namespace
{

// A reply captured on a bus: every type of value, nested ones too.
const std::string reply = bus::bytes(R"(
    85 00 00 18 00 0c 73 61 74 69 73 66 61 63 74 69 6f 6e 00 00 00 00 00 61
    84 00 00 1c 00 0b 74 78 5f 72 61 74 65 5f 61 76 67 00 00 00 00 00 00 01 00 00 00 05
    83 00 00 0b 00 01 73 00 68 69 00 00  87 00 00 09 00 01 62 00 01 00 00 00
    81 00 00 18 00 03 61 72 72 00 00 00 86 00 00 0a 00 00 00 00 00 07 00 00
    82 00 00 1c 00 03 74 62 6c 00 00 00 88 00 00 10 00 01 64 00 3f f8 00 00 00 00 00 00)");
constexpr const char *reply_text =
    "satisfaction:i32 97, tx_rate_avg:i64 4294967301, s:'hi', b:i8 1, arr:[:i16 7], tbl:{d:1.5}";
// What the provider of an object announced: a table per method, a number per argument.
const std::string signature = bus::bytes(R"(
    82 00 00 18 00 03 67 65 74 00 00 00 85 00 00 0c 00 01 6e 00 00 00 00 05
    82 00 00 0c 00 04 66 61 69 6c 00 00)");
const std::string arguments = bus::bytes("85 00 00 0c 00 01 6e 00 ff ff ff fe");

/// Values as text, read with what the library offers.
std::string shown(const blob_attr *first, size_t left)
{
    std::string text;
    for (; blob_fits(first, left); left -= blob_pad_len(first), first = blob_next(first)) {
        if (!text.empty()) text += ", ";
        if (!blobmsg_check_attr(first, false)) return text + "malformed";
        text += blobmsg_name(first) + std::string(":");
        const auto nested = [first] {
            return shown(static_cast<const blob_attr *>(blobmsg_data(first)), blobmsg_data_len(first));
        };
        switch (blobmsg_type(first)) {
        case BLOBMSG_TYPE_ARRAY: text += "[" + nested() + "]"; break;
        case BLOBMSG_TYPE_TABLE: text += "{" + nested() + "}"; break;
        case BLOBMSG_TYPE_STRING: text += "'" + std::string(blobmsg_get_string(first)) + "'"; break;
        case BLOBMSG_TYPE_INT64: text += "i64 " + std::to_string(blobmsg_get_u64(first)); break;
        case BLOBMSG_TYPE_INT32: text += "i32 " + std::to_string(static_cast<int32_t>(blobmsg_get_u32(first))); break;
        case BLOBMSG_TYPE_INT16: text += "i16 " + std::to_string(blobmsg_get_u16(first)); break;
        case BLOBMSG_TYPE_INT8: text += "i8 " + std::to_string(blobmsg_get_bool(first)); break;
        case BLOBMSG_TYPE_DOUBLE: text += std::to_string(blobmsg_get_double(first)).substr(0, 3); break;
        default: text += "?";
        }
    }
    return text;
}

std::string shown(const std::string &run) { return shown(reinterpret_cast<const blob_attr *>(run.data()), run.size()); }

struct message : blob_buf {
    message() : blob_buf{} { EXPECT_EQ(0, blob_buf_init(this, 0)); }
    ~message() { blob_buf_free(this); }
    [[nodiscard]] std::string payload() const { return {static_cast<const char *>(blob_data(head)), blob_len(head)}; }
};

constexpr blobmsg_policy policy[] = {{"n", BLOBMSG_TYPE_INT32},
                                     {"n", BLOBMSG_TYPE_STRING},
                                     {"any", BLOBMSG_TYPE_UNSPEC},
                                     {"number", BLOBMSG_CAST_INT64},
                                     {"nn", BLOBMSG_TYPE_INT32}};

} // namespace

TEST(Blobmsg, BuildsAndReadsWhatWasCapturedOnABus)
{
    message m;
    blobmsg_add_u32(&m, "satisfaction", 97);
    blobmsg_add_u64(&m, "tx_rate_avg", (uint64_t{1} << 32) + 5);
    blobmsg_add_string(&m, "s", "hi");
    blobmsg_add_u8(&m, "b", 1);
    void *const array = blobmsg_open_array(&m, "arr");
    blobmsg_add_u16(&m, nullptr, 7);
    blobmsg_close_array(&m, array);
    void *const table = blobmsg_open_table(&m, "tbl");
    blobmsg_add_double(&m, "d", 1.5);
    blobmsg_close_table(&m, table);
    EXPECT_EQ(reply, m.payload());
    EXPECT_EQ(reply_text, shown(reply));

    blob_buf_init(&m, 0); // starts over in the same memory
    void *const get = blobmsg_open_table(&m, "get");
    blobmsg_add_u32(&m, "n", BLOBMSG_TYPE_INT32);
    blobmsg_close_table(&m, get);
    blobmsg_close_table(&m, blobmsg_open_table(&m, "fail"));
    EXPECT_EQ(signature, m.payload());
    EXPECT_EQ("get:{n:i32 5}, fail:{}", shown(signature));

    blob_buf_init(&m, 0);
    blobmsg_add_u32(&m, "n", static_cast<uint32_t>(-2));
    EXPECT_EQ(arguments, m.payload());
    EXPECT_EQ("n:i32 -2", shown(arguments));
}

TEST(Blobmsg, ParsesByNameAndType)
{
    using bus::int32_value;
    const auto wrong = [](uint8_t type, size_t size) { return bus::value(type, "x", std::string(size, 'x')); };
    const std::string n = int32_value("n", 7);
    const std::string unnamed = bus::text(bus::string, "no header");
    const struct {
        const char *what;
        std::string payload;
        int result;
        const char *found; // per entry of the policy what it took, by the order of the values in the payload
    } cases[] = {
        {"nothing", "", -EINVAL, "-----"},
        {"an entry per type of a name", n + bus::value(bus::string, "n", std::string("t\0", 2)), 0, "01---"},
        {"the first of a name", n + int32_value("n", 8), 0, "0----"},
        {"another type", bus::int64_value("nn", 8), 0, "-----"},
        {"a longer name, a shorter name", int32_value("nn", 1) + n + int32_value("nnn", 1), 0, "1---0"},
        {"any type", bus::value(bus::table, "any", ""), 0, "--0--"},
        {"any integer", bus::value(bus::int16, "number", "\1\2"), 0, "---0-"},
        {"any integer but no double", bus::value(bus::float64, "number", "12345678"), 0, "-----"},
        {"values without a name", int32_value("", 1) + unnamed + n, 0, "2----"},
        {"a short integer", n + wrong(bus::int32, 3) + int32_value("nn", 1), -1, "0----"},
        {"a long integer", wrong(bus::int8, 2), -1, "-----"},
        {"a short double", wrong(bus::float64, 4), -1, "-----"},
        {"a text without its NUL", wrong(bus::string, 3), -1, "-----"},
        {"an empty text", wrong(bus::string, 0), -1, "-----"},
        {"an unknown type", wrong(9, 4), -1, "-----"},
        {"a name beyond its attribute", bus::bytes("85 00 00 0c 00 04 6e 6e 6e 6e 00 00"), -1, "-----"},
        {"a name without its NUL", bus::bytes("85 00 00 0c 00 01 6e 6e 00 00 00 01"), -1, "-----"},
        {"no room for a name's length", bus::bytes("85 00 00 05 00 00 00 00"), -1, "-----"},
        {"a NUL inside a name", n + bus::value(bus::int32, {"nn\0n", 4}, "1234"), 0, "0----"},
        {"what is cut short", n + int32_value("nn", 1).substr(0, 15), 0, "0----"},
        {"a length below its header", n + bus::bytes("85 00 00 03") + int32_value("nn", 1), 0, "0----"},
    };
    for (auto c : cases) {
        blob_attr *found[std::size(policy)];
        std::fill(std::begin(found), std::end(found), reinterpret_cast<blob_attr *>(1));
        EXPECT_EQ(c.result, blobmsg_parse(policy, std::size(policy), found, c.payload.data(),
                                          static_cast<unsigned>(c.payload.size())))
            << c.what;
        std::string taken;
        for (const blob_attr *attr : found) {
            char position = '0';
            for (auto *a = reinterpret_cast<blob_attr *>(c.payload.data()); attr && a != attr; a = blob_next(a)) {
                ++position;
            }
            taken += attr ? position : '-';
        }
        EXPECT_EQ(c.found, taken) << c.what;
    }
    blob_attr *found[1];
    EXPECT_EQ(-EINVAL, blobmsg_parse(policy, 1, found, nullptr, 8));
    std::string negative = bus::value(bus::int16, "number", "\xff\xfe");
    EXPECT_EQ(0xfffeU, blobmsg_cast_u64(reinterpret_cast<blob_attr *>(negative.data())));
}

TEST(Blobmsg, ParsesArraysByPosition)
{
    constexpr blobmsg_policy elements[] = {{nullptr, BLOBMSG_TYPE_INT32},
                                           {nullptr, BLOBMSG_TYPE_STRING},
                                           {nullptr, BLOBMSG_TYPE_UNSPEC},
                                           {nullptr, BLOBMSG_TYPE_UNSPEC}};
    std::string run = bus::int32_value("", 5) + bus::int32_value("", 6) + bus::int32_value("", 7);
    blob_attr *found[std::size(elements)];
    ASSERT_EQ(0,
              blobmsg_parse_array(elements, std::size(elements), found, run.data(), static_cast<unsigned>(run.size())));
    EXPECT_EQ(5U, blobmsg_get_u32(found[0]));
    EXPECT_EQ(nullptr, found[1]) << "of another type";
    EXPECT_EQ(7U, blobmsg_get_u32(found[2]));
    EXPECT_EQ(nullptr, found[3]) << "beyond the end";
}

TEST(Blobmsg, AMessageCutAnywhereIsReadUpToTheCut)
{
    constexpr blobmsg_policy all[] = {{"satisfaction", BLOBMSG_TYPE_INT32}, {"tx_rate_avg", BLOBMSG_TYPE_INT64},
                                      {"s", BLOBMSG_TYPE_STRING},           {"b", BLOBMSG_TYPE_BOOL},
                                      {"arr", BLOBMSG_TYPE_ARRAY},          {"tbl", BLOBMSG_TYPE_TABLE}};
    constexpr size_t ends[] = {24, 52, 64, 76, 100, 128};
    for (size_t n = 1; n < reply.size(); ++n) {
        std::vector<char> cut(reply.begin(), reply.begin() + static_cast<ptrdiff_t>(n)); // a block of exactly that size
        blob_attr *found[std::size(all)];
        ASSERT_EQ(0, blobmsg_parse(all, std::size(all), found, cut.data(), static_cast<unsigned>(n))) << n;
        for (size_t i = 0; i < std::size(all); ++i) EXPECT_EQ(n >= ends[i], found[i] != nullptr) << all[i].name << n;
        const auto text = shown(reinterpret_cast<blob_attr *>(cut.data()), n);
        EXPECT_EQ(0, std::string(reply_text).compare(0, text.size(), text)) << n << ": " << text;
    }
}

TEST(Blobmsg, DeepAndLongMessagesSurviveGrowing)
{
    message m;
    std::vector<void *> open;
    std::string expected;
    for (int i = 0; i < 100; ++i) {
        open.push_back(blobmsg_open_table(&m, "level"));
        blobmsg_add_string(&m, "text", std::string(static_cast<size_t>(i), 'x').c_str());
    }
    for (; !open.empty(); open.pop_back()) {
        blobmsg_close_table(&m, open.back());
        const auto text = bus::value(bus::string, "text", std::string(open.size() - 1, 'x') + '\0');
        expected = bus::value(bus::table, "level", text + expected);
    }
    EXPECT_EQ(expected, m.payload());
}

TEST(Blobmsg, WhatDoesNotFitLeavesTheMessageAsItWas)
{
    constexpr size_t most = 0xfffffc; // of the outermost attribute, in whole words
    message m;
    const std::string name(1 << 16, 'n');
    EXPECT_EQ(-1, blobmsg_add_u8(&m, name.c_str(), 1)) << "a name's length has 16 bits";
    EXPECT_EQ(-1, blobmsg_add_field(&m, BLOBMSG_TYPE_STRING, "", "", UINT32_MAX)) << "nothing is read";
    EXPECT_EQ("", m.payload());

    const std::string big(most - 4 - 8 - 8, 'x');
    EXPECT_EQ(0, blobmsg_add_field(&m, BLOBMSG_TYPE_UNSPEC, "", big.data(), static_cast<unsigned>(big.size())));
    EXPECT_EQ(-1, blobmsg_add_u8(&m, "", 1)) << "12 bytes where 8 are left";
    EXPECT_EQ(nullptr, blobmsg_open_table(&m, "table"));
    blobmsg_close_table(&m, nullptr);
    EXPECT_NE(nullptr, blob_put_u32(&m, 1, 1)) << "8 bytes";
    EXPECT_EQ(nullptr, blob_put(&m, 1, nullptr, 0));
    EXPECT_EQ(most, blob_raw_len(m.head));
    EXPECT_EQ(big.size() + 8, blob_pad_len(static_cast<blob_attr *>(blob_data(m.head))));
}

TEST(Blobmsg, RefusedMemoryIsReported)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    blob_buf b{};
    {
        const faults::refuse_memory none;
        EXPECT_EQ(-ENOMEM, blob_buf_init(&b, 0));
        EXPECT_EQ(-1, blobmsg_add_u8(&b, "n", 1)) << "in a message that was never begun";
    }
    ASSERT_EQ(0, blob_buf_init(&b, 0));
    while (blob_raw_len(b.head) + 12 <= static_cast<size_t>(b.buflen)) ASSERT_EQ(0, blobmsg_add_u8(&b, "", 1));
    const size_t length = blob_raw_len(b.head);
    {
        const faults::refuse_memory none;
        EXPECT_EQ(-1, blobmsg_add_u8(&b, "n", 1));
    }
    EXPECT_EQ(length, blob_raw_len(b.head));
    EXPECT_EQ(0, blobmsg_add_u8(&b, "n", 1)) << "once there is memory again";
    blob_buf_free(&b);
    EXPECT_EQ(nullptr, b.buf);
}
