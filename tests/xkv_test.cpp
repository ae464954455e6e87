#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"

#include <sys/stat.h>
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

/// Reads one value where nothing stands before it; a cursor of -1 stands for none.
template <class Number>
void expect(char *(*read)(const char *, const char *, Number *), const char *value, long long number, int cursor)
{
    const loaded file(value);
    Number out = static_cast<Number>(0x5a5a5a5a5a5a5a5aULL);
    const char *end = read(file.text, nullptr, &out);
    EXPECT_EQ(static_cast<Number>(number), out) << value << ", " << sizeof out * 8 << " bits";
    EXPECT_EQ(cursor < 0 ? nullptr : file.text + cursor, end) << value;
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

    char pipe[] = "/tmp/pipe";
    ASSERT_EQ(0, mkfifo(pipe, 0600));
    for (const char *size : {"255", "256", "300", "1024"}) {
        ASSERT_EQ(0, site::run("printf '%" + std::string(size) + "s' '' >/tmp/pipe &"));
        char *text = xkv_file_to_buff(pipe);
        EXPECT_EQ(size, std::to_string(strlen(text)));
        free(text);
    }
    site::remove_file(pipe);
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
    expect(xkv_read_u64, "18446744073709551615\n", -1, 21);
    expect(xkv_read_u64, "x", 0, -1);
    expect(xkv_read_u32, "4294967295", 4294967295, 11);
    expect(xkv_read_u32, "0x10\n", 0, 2);
    expect(xkv_read_u32, "", 0, -1);
    expect(xkv_read_u16, "65535\n", 65535, 6);
    expect(xkv_read_u16, " \n 7 ", 7, 5);
    expect(xkv_read_u8, "255\n", 255, 4);
    expect(xkv_read_x64, "FFFFffff00000001\n", -4294967295, 17);
    expect(xkv_read_x32, "0x10\n", 16, 5);
    expect(xkv_read_x32, "e61a\nnext", 0xe61a, 5);
    expect(xkv_read_x16, "0xffff", 0xffff, 7);
    expect(xkv_read_x8, "7f,", 0x7f, 3);
    expect(xkv_read_s64, "-9223372036854775808\n", INT64_MIN, 21);
    expect(xkv_read_s32, "-2147483648\n", INT32_MIN, 12);
    expect(xkv_read_s16, "-32768\n", INT16_MIN, 7);
    expect(xkv_read_s8, "-128\n", -128, 5);
    expect(xkv_read_s8, "--1", 0, -1);
}

TEST(Xkv, BooleansAreLeadingPartsOfTheirWords)
{
    const auto length = [](const char *line) { return static_cast<int>(strlen(line)); };
    for (const char *line : {"1\n", "t\n", "tr\n", "true\n", "en\n", "enabled\n"})
        expect(xkv_read_bool, line, 1, length(line));
    for (const char *line : {"0\n", "f\n", "dis\n", "disabled\n"}) expect(xkv_read_bool, line, 0, length(line));
    for (const char *line : {"\n", "yes\n", "True\n", "truely\n", "enabled", "", "1 \n", " 1\n", "1\r\n", "10\n"}) {
        expect(xkv_read_bool, line, 0, -1);
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
    const loaded file("count=2\n10\nlast one\n02005e1000ff");
    uint16_t numbers[2] = {};
    char text[16];
    uint8_t mac[6];
    const char *at = xkv_read_u16(file.text, "count", &numbers[0]);
    at = xkv_read_u16(at, nullptr, &numbers[1]);
    at = xkv_read_str(at, nullptr, sizeof text, text);
    at = xkv_read_mac(at, nullptr, 6, mac);
    ASSERT_NE(nullptr, at);
    EXPECT_EQ(10, numbers[1]);
    EXPECT_STREQ("last one", text);
    EXPECT_EQ(0xff, mac[5]);
    EXPECT_EQ('\0', *at);
    EXPECT_EQ(nullptr, xkv_read_u16(at, nullptr, &numbers[0])) << "behind the last line";
}
