#include "site/world.h"
#include "tests/support/leaks.h"
#include "tests/support/table.h"

#include <vela/config/xkv.h>
#include <vela/core/internal/memory.h>

namespace
{

constexpr const char *path = "/tmp/info";

/// A file as loaded: with its two NULs, and checked by the sanitizers to its last byte.
vela::c_string loaded(std::string_view content)
{
    site::put_file(path, content);
    return vela::c_string{xkv_file_to_buff(path)};
}

/// Reads one value where nothing stands before it; a cursor of -1 stands for none.
template <class Number>
void expect(char *(*read)(const char *, const char *, Number *), const char *value, long long number, int cursor)
{
    const auto file = loaded(value);
    Number out = static_cast<Number>(0x5a5a5a5a5a5a5a5aULL);
    const char *end = read(file.get(), nullptr, &out);
    EXPECT_EQ(static_cast<Number>(number), out) << value << ", " << sizeof out * 8 << " bits";
    EXPECT_EQ(cursor < 0 ? nullptr : file.get() + cursor, end) << value;
}

} // namespace

TEST(Xkv, LoadsFilesOfEverySizeAndThoseThatTellNone)
{
    const leak_check leaks;
    for (const size_t size : {0, 255, 256, 257, 70000}) {
        const auto file = loaded(std::string(size, 'x'));
        EXPECT_EQ(std::string(size, 'x'), file.get());
        EXPECT_EQ(0, file.get()[size + 1]) << "a cursor behind the end still stands on a NUL";
    }
    site::remove_file(path);
    EXPECT_EQ(nullptr, xkv_file_to_buff(path));
    for (const auto &[file, least] : {std::pair{"/proc/self/maps", 512U}, {"/tmp", 0U}}) {
        EXPECT_GE(strlen(vela::c_string{xkv_file_to_buff(file)}.get()), least) << file;
    }
    leaks.expect_unchanged();
}

TEST(Xkv, FindsKeysAnywhereInALine)
{
    constexpr const char *text =
        "systemid=1\nid=2\nid =3\nserial id=4\nidid=5\nname=x=6\nsys a id=7\nsys=8\nbare\nbare=9\nend id=10";
    const table<const char *, uint32_t> cases = {
        {"id", 1},   // the tail of a longer key that comes first
        {"\nid", 2}, // bound to a line's start
        {"id ", 3},  // blanks belong to keys
        {"x", 6},    // also within a value
        {"sys", 8},  // not followed by "=": goes on behind its line
        {"bare", 9}, // which may end there
        {"end", 0},  // where there is no further line
        {"", 0},     // anywhere, but before no "="
    };
    for (const auto &[key, value] : cases) {
        uint32_t out = 77;
        EXPECT_EQ(value != 0, xkv_read_u32(text, key, &out) != nullptr) << key;
        EXPECT_EQ(value, out) << key;
    }
    uint32_t out = 77;
    EXPECT_EQ(nullptr, xkv_read_u32(nullptr, "a", &out));
    EXPECT_EQ(0U, out);
}

TEST(Xkv, NumbersOfEveryWidthConvertAsScanfDoes)
{
    expect(xkv_read_u64, "18446744073709551615\n", -1, 21);
    expect(xkv_read_u32, "4294967295", 4294967295, 11);
    expect(xkv_read_u32, "0x10\n", 0, 2);
    expect(xkv_read_u32, "", 0, -1);
    expect(xkv_read_u16, " \n 65535 ", 65535, 9);
    expect(xkv_read_u8, "255\n", 255, 4);
    expect(xkv_read_x64, "FFFFffff00000001\n", -4294967295, 17);
    expect(xkv_read_x32, "0x10\n", 16, 5);
    expect(xkv_read_x16, "ffff", 0xffff, 5);
    expect(xkv_read_x8, "7f,", 0x7f, 3);
    expect(xkv_read_s64, "-9223372036854775808\n", INT64_MIN, 21);
    expect(xkv_read_s32, "-2147483648\n", INT32_MIN, 12);
    expect(xkv_read_s16, "-32768\n", INT16_MIN, 7);
    expect(xkv_read_s8, "-128\n", -128, 5);
    expect(xkv_read_s8, "--1", 0, -1);
}

TEST(Xkv, BooleansAreLeadingPartsOfTheirWords)
{
    for (const char *line : {"1\n", "t\n", "true\n", "en\n"})
        expect(xkv_read_bool, line, 1, static_cast<int>(strlen(line)));
    for (const char *line : {"0\n", "f\n", "dis\n"}) expect(xkv_read_bool, line, 0, static_cast<int>(strlen(line)));
    for (const char *line : {"\n", "yes\n", "True\n", "truely\n", "enabled", "1 \n", "1\r\n", "10\n"})
        expect(xkv_read_bool, line, 0, -1);
}

TEST(Xkv, TextsAreCutToTheirRoom)
{
    const auto file = loaded("key=value");
    const table<size_t, const char *, int> cases = {
        {0, "???????", 4}, {1, "", 4}, {5, "valu", 8}, {6, "value", 10}, {7, "value", 10}};
    for (const auto &[size, text, cursor] : cases) {
        char out[] = "???????";
        EXPECT_EQ(file.get() + cursor, xkv_read_str(file.get(), "key", size, out)) << size;
        EXPECT_STREQ(text, out) << size;
    }
    uint16_t number = 0;
    EXPECT_EQ(nullptr, xkv_read_u16(file.get() + 10, nullptr, &number)) << "behind the last line stands a NUL still";
    char out[8] = "abcdefg";
    EXPECT_EQ(nullptr, xkv_read_str(file.get(), "none", sizeof out, out));
    EXPECT_EQ(0, memcmp(out, "\0bcdefg", 8)) << "one byte is cleared, no more";
}

TEST(Xkv, AddressesComeWithColonsOrWithout)
{
    // A cursor of -1: no address.
    const table<const char *, int> cases = {
        {"02:13:5E:10:06:ff\nx", 18}, {"02135e1006ff\n", 13}, {"2:13:5e:10:6:ff", 16},   {"02:13:5e:10:06", -1},
        {"02:13:5e:10:06:g", -1},     {"02135e1006", -1},     {"02.13.5e.10.06.ff", -1}, {"", -1}};
    for (const auto &[line, cursor] : cases) {
        const auto file = loaded(line);
        std::string out = "999999";
        const char *end = xkv_read_mac(file.get(), nullptr, 6, reinterpret_cast<uint8_t *>(out.data()));
        EXPECT_EQ(cursor < 0 ? nullptr : file.get() + cursor, end) << line;
        EXPECT_EQ(cursor < 0 ? std::string(6, '\0') : "\x02\x13\x5e\x10\x06\xff", out) << line;
    }
    uint8_t out[6];
    EXPECT_DEATH(xkv_read_mac("a=1", "a", 5, out), "cnt == MAC_OCTET_CNT");
}
