#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vela/config/xkv.h>

namespace
{

constexpr const char *path = "/tmp/info";

/// A loaded file: with its two NULs, and checked by the sanitizers to its last byte.
struct loaded {
    explicit loaded(std::string_view content)
    {
        site::put_file(path, content);
        text = xkv_file_to_buff(path);
    }
    loaded(const loaded &) = delete;
    loaded &operator=(const loaded &) = delete;
    ~loaded() { free(text); }
    char *text;
};

struct number_case {
    const char *value;
    long long expected; ///< of the width, sign extended or not
    int cursor;         ///< -1: nothing converted
};

template <class Number>
void expect_numbers(char *(*read)(const char *, const char *, Number *), const std::vector<number_case> &cases)
{
    for (const auto &c : cases) {
        const loaded file(c.value);
        Number out = static_cast<Number>(0x5a5a5a5a5a5a5a5aULL);
        const char *end = read(file.text, nullptr, &out);
        EXPECT_EQ(static_cast<Number>(c.expected), out) << c.value << ", " << sizeof out * 8 << " bits";
        EXPECT_EQ(c.cursor < 0 ? nullptr : file.text + c.cursor, end) << c.value;
    }
}

} // namespace

TEST(Xkv, LoadsFilesOfEverySizeAndThoseThatTellNone)
{
    const leak_check leaks;
    for (const size_t size : {0, 1, 255, 256, 257, 512, 70000}) {
        const std::string content(size, 'x');
        const loaded file(content);
        EXPECT_EQ(content, file.text) << size;
        EXPECT_EQ(0, file.text[size + 1]) << "a cursor behind the end still stands on a NUL";
    }
    site::remove_file(path);
    EXPECT_EQ(nullptr, xkv_file_to_buff(path));

    for (const size_t size : {255, 256, 300, 1024}) {
        const std::string content(size, 'y');
        ASSERT_EQ(0, mkfifo(path, 0600));
        std::thread writer([&] {
            const int fd = open(path, O_WRONLY | O_CLOEXEC);
            EXPECT_EQ(static_cast<ssize_t>(size), write(fd, content.data(), size));
            close(fd);
        });
        char *text = xkv_file_to_buff(path);
        writer.join();
        EXPECT_EQ(content, text) << "a pipe of " << size;
        free(text);
        site::remove_file(path);
    }
    char *kernel = xkv_file_to_buff("/proc/self/maps");
    EXPECT_GT(strlen(kernel), 512U);
    free(kernel);
    char *directory = xkv_file_to_buff("/tmp");
    EXPECT_STREQ("", directory);
    free(directory);
    leaks.expect_unchanged();
}

TEST(Xkv, OutOfMemoryNamesItsTwoPlaces)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    site::put_file(path, "k=1\n");
    for (const int n : {0, 1}) {
        EXPECT_EXIT(
            {
                const faults::refuse_memory nth(n);
                free(xkv_file_to_buff(path));
            },
            testing::ExitedWithCode(1), n == 0 ? "^xkv:78: Out of memory\n$" : "^xkv:89: Out of memory\n$");
    }
}

TEST(Xkv, FindsKeysAnywhereInALine)
{
    constexpr const char *text = "systemid=1\nid=2\nid =3\nserial id=4\nidid=5\nname=x=6\n";
    constexpr struct {
        const char *key;
        uint32_t value;
        bool found;
    } cases[] = {
        {"id", 1, true},      // the tail of a longer key that comes first
        {"\nid", 2, true},    // bound to a line's start
        {"id ", 3, true},     // blanks belong to keys
        {"serial", 0, false}, // not followed by "=": goes on behind its line, where there is none
        {"d", 1, true},       {"idid", 5, true}, {"x", 6, true}, {"absent", 0, false}, {"", 0, false},
    };
    for (const auto &c : cases) {
        uint32_t out = 77;
        EXPECT_EQ(c.found, xkv_read_u32(text, c.key, &out) != nullptr) << c.key;
        EXPECT_EQ(c.value, out) << c.key;
    }
    uint32_t out = 77;
    EXPECT_EQ(nullptr, xkv_read_u32("a b=1", "a", &out)) << "no further line";
    EXPECT_EQ(nullptr, xkv_read_u32("\n\n", "", &out));
    EXPECT_NE(nullptr, xkv_read_u32("a b a=1\na=2", "a", &out));
    EXPECT_EQ(2U, out) << "only the first match of a line counts";
    EXPECT_EQ(nullptr, xkv_read_u32(nullptr, "a", &out));
    EXPECT_EQ(0U, out);
}

TEST(Xkv, NumbersOfEveryWidthConvertAsScanfDoes)
{
    expect_numbers<uint64_t>(xkv_read_u64, {{"18446744073709551615\n", -1, 21}, {"x", 0, -1}});
    expect_numbers<uint32_t>(xkv_read_u32, {{"4294967295", 4294967295, 11}, {"0x10\n", 0, 2}, {"", 0, -1}});
    expect_numbers<uint16_t>(xkv_read_u16, {{"65535\n", 65535, 6}, {" \n 7 ", 7, 5}, {"\n", 0, -1}});
    expect_numbers<uint8_t>(xkv_read_u8, {{"255\n", 255, 4}, {"-", 0, -1}});
    expect_numbers<uint64_t>(xkv_read_x64, {{"FFFFffff00000001\n", -4294967295, 17}, {"g", 0, -1}});
    expect_numbers<uint32_t>(xkv_read_x32, {{"0x10\n", 16, 5}, {"e61a\nnext", 0xe61a, 5}});
    expect_numbers<uint16_t>(xkv_read_x16, {{"0xffff", 0xffff, 7}});
    expect_numbers<uint8_t>(xkv_read_x8, {{"7f,", 0x7f, 3}});
    expect_numbers<int64_t>(xkv_read_s64, {{"-9223372036854775808\n", INT64_MIN, 21}});
    expect_numbers<int32_t>(xkv_read_s32, {{"-2147483648\n", INT32_MIN, 12}, {"+5", 5, 3}});
    expect_numbers<int16_t>(xkv_read_s16, {{"-32768\n", INT16_MIN, 7}});
    expect_numbers<int8_t>(xkv_read_s8, {{"-128\n", -128, 5}, {"--1", 0, -1}});
}

TEST(Xkv, BooleansAreLeadingPartsOfTheirWords)
{
    constexpr struct {
        const char *line;
        int value; ///< -1: none
    } cases[] = {
        {"1\n", 1},       {"t\n", 1},    {"tr\n", 1},    {"true\n", 1},    {"en\n", 1},
        {"enabled\n", 1}, {"0\n", 0},    {"f\n", 0},     {"dis\n", 0},     {"disabled\n", 0},
        {"\n", -1},       {"yes\n", -1}, {"True\n", -1}, {"truely\n", -1}, {"enabled", -1},
        {"", -1},         {"1 \n", -1},  {" 1\n", -1},   {"1\r\n", -1},    {"10\n", -1},
    };
    for (const auto &c : cases) {
        const loaded file(c.line);
        uint8_t out = 9;
        const char *end = xkv_read_bool(file.text, nullptr, &out);
        EXPECT_EQ(c.value < 0 ? nullptr : file.text + strlen(c.line), end) << c.line;
        EXPECT_EQ(c.value > 0, out) << c.line;
    }
}

TEST(Xkv, TextsAreCutToTheirRoom)
{
    constexpr struct {
        size_t size;
        const char *text;
        int cursor;
    } cases[] = {{0, "???????", 4}, {1, "", 4}, {3, "va", 6}, {5, "valu", 8}, {6, "value", 9}, {7, "value", 10}};
    const loaded file("key=value");
    for (const auto &c : cases) {
        char out[8] = "???????";
        EXPECT_EQ(file.text + c.cursor, xkv_read_str(file.text, "key", c.size, out)) << c.size;
        EXPECT_STREQ(c.text, out) << c.size;
    }
    char out[8] = "abcdefg";
    EXPECT_EQ(nullptr, xkv_read_str(file.text, "none", sizeof out, out));
    EXPECT_EQ(0, memcmp(out, "\0bcdefg", 8)) << "one byte is cleared, no more";
}

TEST(Xkv, AddressesComeWithColonsOrWithout)
{
    constexpr struct {
        const char *line;
        int cursor; ///< -1: no address
    } cases[] = {
        {"02:00:5E:10:00:ff\nx", 18}, {"02005e1000ff\n", 13}, {"2:0:5e:10:0:ff", 15},    {"02:00:5e:10:00", -1},
        {"02:00:5e:10:00:g", -1},     {"02005e1000", -1},     {"02.00.5e.10.00.ff", -1}, {"", -1}};
    constexpr uint8_t address[6] = {0x02, 0x00, 0x5e, 0x10, 0x00, 0xff};
    constexpr uint8_t none[6] = {};
    for (const auto &c : cases) {
        const loaded file(c.line);
        uint8_t out[6] = {9, 9, 9, 9, 9, 9};
        const char *end = xkv_read_mac(file.text, nullptr, 6, out);
        EXPECT_EQ(c.cursor < 0 ? nullptr : file.text + c.cursor, end) << c.line;
        EXPECT_EQ(0, memcmp(c.cursor < 0 ? none : address, out, 6)) << c.line;
    }
    uint8_t out[6];
    EXPECT_DEATH(xkv_read_mac("a=1", "a", 5, out), "cnt == MAC_OCTET_CNT");
}

TEST(Xkv, CursorsReadAListLineByLine)
{
    const loaded file("count=2\n10\n-3\nlast one\n02005e1000ff");
    uint8_t count = 0;
    uint16_t number = 0;
    int8_t negative = 0;
    char text[16];
    uint8_t mac[6];
    const char *at = xkv_read_u8(file.text, "count", &count);
    at = xkv_read_u16(at, nullptr, &number);
    at = xkv_read_s8(at, nullptr, &negative);
    at = xkv_read_str(at, nullptr, sizeof text, text);
    at = xkv_read_mac(at, nullptr, 6, mac);
    ASSERT_NE(nullptr, at);
    EXPECT_EQ(2, count);
    EXPECT_EQ(10, number);
    EXPECT_EQ(-3, negative);
    EXPECT_STREQ("last one", text);
    EXPECT_EQ(0xff, mac[5]);
    EXPECT_EQ('\0', *at);
    EXPECT_EQ(nullptr, xkv_read_u16(at, nullptr, &number)) << "behind the last line";
}
