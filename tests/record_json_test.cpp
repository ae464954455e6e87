// Records as JSON: what is shown how, and what is left out.
#include "tests/support/json.h"

#include <sys/socket.h>
#include <vela/core/internal/record_json.h>

using vela::shown;
using vela::unknown;

namespace
{

struct sample {
    uint8_t small;
    int8_t chains[3];
    int32_t level;
    uint64_t bytes;
    uint32_t flags;
    char name[8]; // not ended where it is full
    uint8_t mac[6];
    uint8_t address[16];
};

const char *odd_word(uint32_t number) { return number % 2 ? "odd" : nullptr; }

constexpr vela::json_row rows[] = {
    {"small", VELA_MEMBER(sample, small), shown::number, unknown::ones},
    {"chains", VELA_MEMBER(sample, chains), shown::number, unknown::lowest},
    {"level", VELA_MEMBER(sample, level), shown::number, unknown::lowest},
    {"bytes", VELA_MEMBER(sample, bytes), shown::number, unknown::ones},
    {"on", VELA_MEMBER(sample, small), shown::truth, unknown::ones},
    {"bit", VELA_MEMBER(sample, flags), shown::bit, unknown::never, nullptr, 4},
    {"word", VELA_MEMBER(sample, flags), shown::word, unknown::never, odd_word},
    {"name", VELA_MEMBER(sample, name), shown::text, unknown::zero},
    {"mac", VELA_MEMBER(sample, mac), shown::mac, unknown::zero},
    {"address", VELA_MEMBER(sample, address), shown::address, unknown::zero},
};

} // namespace

TEST(RecordJson, WhatIsNotKnownIsLeftOut)
{
    const sample nothing = {UINT8_MAX, {INT8_MIN, INT8_MIN, INT8_MIN}, INT32_MIN, UINT64_MAX, 2, "", {}, {}};
    EXPECT_EQ(R"({"bit":false})", dumped(vela::record_json(rows, nothing, AF_INET)));
}

TEST(RecordJson, EveryKindAtItsEdges)
{
    sample all = {254, {INT8_MIN, -1, 0}, INT32_MIN + 1, UINT64_MAX - 1, 5, "", {2, 0, 0, 0, 0, 10}, {192, 0, 2, 1}};
    memcpy(all.name,
           "a\xc3\xa4\xff"
           "defg",
           sizeof all.name);
    const std::string most = R"("bit":true,"bytes":9223372036854775807,"chains":[-1,0],"level":-2147483647,)"
                             R"("mac":"02:00:00:00:00:0a","name":"a\u00E4?defg","on":true,"small":254,"word":"odd"})";
    const auto escaped = [](const vela::json_ref &value) {
        return std::string(
            vela::c_string{json_dumps(value.get(), JSON_COMPACT | JSON_SORT_KEYS | JSON_ENSURE_ASCII)}.get());
    };
    EXPECT_EQ(R"({"address":"192.0.2.1",)" + most, escaped(vela::record_json(rows, all, AF_INET)));
    EXPECT_EQ(R"({"address":"c000:201::",)" + most, escaped(vela::record_json(rows, all, AF_INET6)));
    EXPECT_EQ("{" + most, escaped(vela::record_json(rows, all))) << "no family, no address";
}
