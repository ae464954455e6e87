#include "site/bus_daemon.h"
#include "tests/support/faults.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <libubus.h>
#include <vela/ipc/ubus.h>

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
constexpr blobmsg_policy reply_policy[] = {{"satisfaction", BLOBMSG_TYPE_INT32}, {"tx_rate_avg", BLOBMSG_TYPE_INT64},
                                           {"s", BLOBMSG_TYPE_STRING},           {"b", BLOBMSG_TYPE_BOOL},
                                           {"arr", BLOBMSG_TYPE_ARRAY},          {"tbl", BLOBMSG_TYPE_TABLE}};

struct message : blob_buf {
    message() : blob_buf{} { EXPECT_EQ(0, blob_buf_init(this, 0)); }
    ~message() { blob_buf_free(this); }
    [[nodiscard]] std::string payload() const { return {static_cast<const char *>(blob_data(head)), blob_len(head)}; }
};

/// What the entries of a policy found in a block of exactly these bytes.
template <size_t N> struct parsed {
    std::vector<char> block;
    blob_attr *found[N];
    int result;

    parsed(const blobmsg_policy (&policy)[N], std::string_view bytes) : block(bytes.begin(), bytes.end())
    {
        std::fill(std::begin(found), std::end(found), reinterpret_cast<blob_attr *>(1));
        result = blobmsg_parse(policy, N, found, block.data(), static_cast<unsigned>(block.size()));
    }
};

} // namespace

TEST(Blobmsg, BuildsWhatWasCapturedOnABusAndReadsItUpToACut)
{
    message m;
    blobmsg_add_u8(&m, "forgotten", 1);
    blob_buf_init(&m, 0); // starts over
    blobmsg_add_u32(&m, "satisfaction", 97);
    blobmsg_add_u64(&m, "tx_rate_avg", (uint64_t{1} << 32) + 5);
    blobmsg_add_string(&m, "s", "hi");
    blobmsg_add_u8(&m, "b", 1);
    void *const array = blobmsg_open_array(&m, "arr");
    blobmsg_add_field(&m, BLOBMSG_TYPE_INT16, nullptr, "\0\7", 2);
    blob_nest_end(&m, array);
    void *const table = blobmsg_open_table(&m, "tbl");
    blobmsg_add_double(&m, "d", 1.5);
    blob_nest_end(&m, table);
    EXPECT_EQ(reply, m.payload());

    constexpr size_t ends[] = {24, 52, 64, 76, 100, 128};
    for (size_t n = 1; n <= reply.size(); ++n) {
        const parsed cut(reply_policy, reply.substr(0, n));
        ASSERT_EQ(0, cut.result) << n;
        for (size_t i = 0; i < std::size(ends); ++i) EXPECT_EQ(n >= ends[i], cut.found[i] != nullptr) << i << ' ' << n;
    }
    const parsed p(reply_policy, reply);
    EXPECT_EQ(97U, blobmsg_get_u32(p.found[0]));
    EXPECT_EQ((uint64_t{1} << 32) + 5, blobmsg_get_u64(p.found[1]));
    EXPECT_STREQ("hi", static_cast<char *>(blobmsg_data(p.found[2])));
    EXPECT_EQ(1, blobmsg_get_u8(p.found[3]));
    auto *const element = static_cast<blob_attr *>(blobmsg_data(p.found[4]));
    EXPECT_EQ(7, blobmsg_get_u16(element));
    auto *const member = static_cast<blob_attr *>(blobmsg_data(p.found[5]));
    EXPECT_EQ(1.5, blobmsg_get_double(member));
    EXPECT_STREQ("d", blobmsg_name(member));
}

TEST(Blobmsg, ParsesByNameAndType)
{
    using bus::int32_value;
    const auto wrong = [](uint8_t type, size_t size) { return bus::value(type, "x", std::string(size, 'x')); };
    constexpr blobmsg_policy policy[] = {{"n", BLOBMSG_TYPE_INT32},
                                         {"n", BLOBMSG_TYPE_STRING},
                                         {"n", BLOBMSG_TYPE_UNSPEC},
                                         {"d", BLOBMSG_TYPE_DOUBLE},
                                         {"nn", BLOBMSG_TYPE_INT32}};
    const std::string n = int32_value("n", 7);
    const struct {
        const char *what;
        std::string payload;
        const char *found; // per entry of the policy what it took, by the order of the values in the payload
        int result = 0;
    } cases[] = {
        {"nothing", "", "-----", -EINVAL},
        {"an entry per type of a name", n + bus::value(bus::string, "n", {"t\0", 2}), "010--"},
        {"the first of a name", n + int32_value("n", 8), "0-0--"},
        {"another type", bus::int64_value("nn", 8), "-----"},
        {"a longer name, a shorter name", int32_value("nn", 1) + n + int32_value("nnn", 1), "1-1-0"},
        {"a double and more", bus::value(bus::float64, "d", "123456789"), "---0-"},
        {"a short double", bus::value(bus::float64, "d", "1234567"), "-----", -1},
        {"no name", int32_value("", 1) + bus::text(bus::string, "no header") + n, "2-2--"},
        {"a short integer", n + wrong(bus::int32, 3) + int32_value("nn", 1), "0-0--", -1},
        {"a long integer", wrong(bus::int8, 2), "-----", -1},
        {"a text without its NUL", wrong(bus::string, 3), "-----", -1},
        {"an empty text", wrong(bus::string, 0), "-----", -1},
        {"a name beyond its attribute", bus::bytes("85 00 00 0c 00 04 6e 6e 6e 6e 00 00"), "-----", -1},
        {"a name without its NUL", bus::bytes("85 00 00 0c 00 01 6e 6e 00 00 00 01"), "-----", -1},
        {"no room for a name's length", bus::bytes("85 00 00 05 00 00 00 00"), "-----", -1},
        {"a NUL inside a name", n + bus::value(bus::int32, {"nn\0n", 4}, "1234"), "0-0--"},
        {"a length below its header", n + bus::bytes("85 00 00 01") + int32_value("nn", 1), "0-0--", -1},
        {"no length", n + bus::bytes("85 00 00 00") + int32_value("nn", 1), "0-0--"},
    };
    for (const auto &c : cases) {
        parsed p(policy, c.payload);
        EXPECT_EQ(c.result, p.result) << c.what;
        std::string taken;
        for (const blob_attr *attr : p.found) {
            char position = '0';
            for (auto *a = reinterpret_cast<blob_attr *>(p.block.data()); attr && a != attr; a = blob_next(a))
                ++position;
            taken += attr ? position : '-';
        }
        EXPECT_EQ(c.found, taken) << c.what;
    }
}

#ifdef LIBUBUS_STAND_IN // libubox does not survive these
TEST(Blobmsg, WhatDoesNotFitLeavesTheMessageAsItWas)
{
    constexpr size_t most = 0xfffffc; // of the outermost attribute, in whole words
    message m;
    const std::string name(1 << 16, 'n');
    EXPECT_EQ(-1, blobmsg_add_u8(&m, name.c_str(), 1)) << "a name's length has 16 bits";
    EXPECT_EQ(-1, blobmsg_add_field(&m, BLOBMSG_TYPE_STRING, "", "", UINT32_MAX)) << "nothing is read";
    EXPECT_EQ("", m.payload());

    void *const table = blobmsg_open_table(&m, "t"); // 8 bytes, and stays open while the message grows
    const std::string big(most - 4 - 8 - 8 - 8, 'x');
    EXPECT_EQ(0, blobmsg_add_field(&m, BLOBMSG_TYPE_UNSPEC, "", big.data(), static_cast<unsigned>(big.size())));
    EXPECT_EQ(-1, blobmsg_add_u8(&m, "", 1)) << "12 bytes where 8 are left";
    void *const no_table = blobmsg_open_table(&m, "table");
    EXPECT_EQ(nullptr, no_table);
    blob_nest_end(&m, no_table);
    blob_nest_end(&m, table);
    EXPECT_TRUE(m.payload() == bus::value(bus::table, "t", bus::value(0, "", big)));
    EXPECT_NE(nullptr, blob_put_u32(&m, 1, 1)) << "8 bytes";
    EXPECT_EQ(nullptr, blob_put(&m, 1, nullptr, 0));
    EXPECT_EQ(most, blob_raw_len(m.head));
}

TEST(Blobmsg, RefusedMemoryIsReported)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    blob_buf b{};
    for (const bool begun : {false, true}) {
        if (begun) ASSERT_EQ(0, blob_buf_init(&b, 0));
        const faults::refuse_memory none(0, true);
        if (!begun) EXPECT_EQ(-ENOMEM, blob_buf_init(&b, 0));
        int added = 0;
        while (blobmsg_add_u8(&b, "n", 1) == 0) ++added;
        EXPECT_EQ(begun, added > 0) << "while there was room";
    }
    EXPECT_EQ(0, blobmsg_add_u8(&b, "n", 1)) << "once there is memory again";
    blob_buf_free(&b);
    EXPECT_EQ(nullptr, b.buf);
}
#endif

TEST(UbusStats, FieldsComeFromTheReplyOrTakeTheirDefaults)
{
    std::array<uint32_t, 10> numbers{};
    static_assert(sizeof numbers == sizeof(mgragent_ap_stats));
    const auto parse = [&](const std::string &payload) {
        const std::string msg = bus::attr(7, payload);
        return mgragent_stats_parse_ap_stats(reinterpret_cast<mgragent_ap_stats *>(numbers.data()),
                                             reinterpret_cast<const blob_attr *>(msg.data()));
    };
    EXPECT_EQ(0, parse(bus::int64_value("rxtx_tp_avg", (uint64_t{1} << 32) + 5) + bus::int64_value("satisfaction", 9) +
                       bus::int32_value("num_satisfaction_sta", 3) + bus::int32_value("tx_rate_avg", 9)));
    const decltype(numbers) expected{UINT32_MAX, 3, 0, 0, 0, 0, 0, 0, 5, UINT32_MAX};
    EXPECT_EQ(expected, numbers);
    EXPECT_EQ(-1, parse(""));
    EXPECT_EQ(-1, parse(bus::int32_value("satisfaction", 1) + bus::value(bus::int32, "phy_link_speed", "1")));
    EXPECT_EQ(expected, numbers) << "untouched on failure";
    mgragent_ap_stats stats;
    EXPECT_EQ(-1, mgragent_stats_parse_ap_stats(&stats, nullptr));
    EXPECT_EQ(-1, mgragent_stats_parse_ap_stats(nullptr, nullptr));
}
