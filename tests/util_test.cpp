#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <numeric>
#include <vela/core/util.h>

using namespace std::string_literals;
using testing::Each;
using testing::ElementsAre;

namespace
{

/// A buffer of '#' after a call that writes to it.
std::string filled(size_t size, const std::function<void(char *)> &call)
{
    std::string buffer(size, '#');
    call(buffer.data());
    return buffer;
}

} // namespace

TEST(Util, FormattedTextTellsWhenItIsCut)
{
    log_lines log;
    char out[5];
    const table<const char *, size_t, const wchar_t *, int> cases = {
        {"fits", 5, L"1234", 4}, {nullptr, 5, L"123456", 6}, {nullptr, 0, L"x", 0},
        {"cut", 5, L"12345", 4}, {"none", 0, L"x", 0},       {"any", 5, L"\xFFFFFFF", 0}}; // a character that is none
    for (const auto &[message, size, text, result] : cases) {
        EXPECT_EQ(result, vela_snprintf("mod", message, out, size, "%ls", text)) << text;
    }
    const auto line = [](const char *text) { return log_line{"error", "mod", "vela_snprintf", text}; };
    EXPECT_THAT(log.take(), ElementsAre(line("cut"), line("none"), line("vela_snprintf failure: -1")));
    vela_snprintf("mod", "cut", out, 5, "%s", "12345");
    EXPECT_STREQ("1234", out);

    char *text = malloc_printf("%s-%d", "radio", 1);
    EXPECT_STREQ("radio-1", text);
    free(text);
    EXPECT_EQ(nullptr, malloc_printf("%ls", L"\xFFFFFFF"));
    if (!faults::can_refuse_memory) return;
    const faults::refuse_memory none;
    EXPECT_EQ(nullptr, malloc_printf("%d", 1));
}

TEST(Util, Hexadecimal)
{
    uint8_t bytes[256]; // every byte, at every place in a word, and every rest of a word
    std::iota(bytes, bytes + 256, uint8_t{0});
    const table<decltype(&uchar2hex), const char *> writers = {{uchar2hex, "0123456789ABCDEF"},
                                                               {uchar2lowerhex, "0123456789abcdef"}};
    for (const auto &[write, digits] : writers) {
        for (const size_t count : {0, 1, 3, 4, 5, 6, 7, 253, 256}) {
            std::string text;
            for (size_t i = 0; i < count; ++i) text += digits[i / 16], text += digits[i % 16];
            const size_t size = text.size() + 2; // the rest is cleared
            EXPECT_EQ(text + "\0\0"s, filled(size, [&, w = write](char *o) { w(bytes, count, o, size); }));
        }
        for (const auto &[count, size] : table<size_t, size_t>{{2, 4}, {SIZE_MAX / 2 + 2, 2}, {0, 0}}) {
            char out = '#';
            EXPECT_TRUE(write(bytes, count, &out, size) == 0 && out == '#') << count;
        }
    }
    // All bytes but the last, as far as there is room.
    const table<size_t, size_t, std::string> cases = {
        {4, 9, "0c0d0e\0##"s}, {4, 7, "0c0d0e\0##"s}, {4, 6, "0c0d\0####"s}, {4, 2, "#########"},
        {1, 9, "#########"},   {0, 9, "#########"},   {4, 0, "#########"}};
    for (const auto &[count, size, written] : cases) {
        const size_t digits = written.find_first_of("\0#"s);
        EXPECT_EQ(written, filled(9, [&](char *o) { EXPECT_EQ(digits, bin2hex(bytes + 12, count, o, size)); }));
    }

    const table<std::string, std::string> pairs = {
        {"00fFA5b7", "\0\xFF\xA5\xB7"s}, {"0102030405", "\1\2\3\4"s}, {"0g", "\0\0\0\0"s},
        {"12345", "\x12\x34\5\0"s},      {"12zz56", "\x12\0\0\0"s},   {"12 345", "\x12\x34\x45\0"s},
        {"-1+2", "\xFF\2\0\0"s},         {"ab ", "\xAB\0\0\0"s}};
    for (const auto &[text, four] : pairs) {
        EXPECT_EQ(4U, hex2uchar(text.c_str(), bytes, 4)) << text;
        EXPECT_EQ(0, memcmp(four.data(), bytes, 4)) << text;
    }
    uint8_t mac[6] = {0x77};
    EXPECT_TRUE(hex2uchar("", mac, 6) == 0 && mac[0] == 0) << "cleared nevertheless";
    for (const char *text : {"2-2-3-4-5-6", "02:00:5e:10:00", "2:0:5e:10:0:g", "", (const char *)nullptr}) {
        EXPECT_TRUE(strtomac(text, mac) == -1 && mac[0] == 0) << "written on failure";
    }
    EXPECT_TRUE(strtomac("2:00:5e:10:0:fF:cd", mac) == 0 && mac[0] == 2 && mac[2] == 0x5E && mac[5] == 0xFF);
}

TEST(Util, RandomValuesFollowTheSeed)
{
    log_lines log;
    const auto expect_from = [](unsigned seed) {
        const std::string alphabet = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
        std::string bytes(8, '\0'), letters(8, '\0');
        for (const auto &text : {&bytes, &letters}) {
            srand(seed);
            for (char &c : *text) c = text == &bytes ? static_cast<char>(rand()) : alphabet[rand() % 62U];
        }
        const auto hex = [&](char *o) { uchar2hex(reinterpret_cast<const uint8_t *>(bytes.data()), 8, o, 17); };
        EXPECT_EQ(bytes, filled(8, [](char *o) { EXPECT_EQ(8U, gen_rand_bytes(o, 8)); }));
        EXPECT_EQ(filled(17, hex), filled(17, [](char *o) { EXPECT_EQ(8U, gen_rand_hex(o, 17)); }));
        EXPECT_EQ(letters + '\0', filled(9, [](char *o) { EXPECT_EQ(o, gen_rand_string(o, 8)); }));
    };
    unlink("/dev/urandom"); // in this test's own world
    site::put_file("/dev/urandom", "seed");
    expect_from(0x64656573); // the same bytes, as a little-endian machine reads them
    EXPECT_EQ("########", filled(8, [&](char *o) {
                  EXPECT_EQ(0U, gen_rand_hex(o, 8) + gen_rand_hex(o, 0) + gen_rand_bytes(o, 0));
                  EXPECT_EQ(nullptr, gen_rand_string(o, 0));
              }));
    EXPECT_THAT(log.take(), ElementsAre());
    site::remove_file("/dev/urandom");
    expect_from(0);
    EXPECT_THAT(log.take(), Each(log_line{"trace", "libvela_util", "urandom", "read returned error in urandom"}));
}

TEST(Util, TrimmingAndNames)
{
    EXPECT_EQ("a b\0\0\0\0\0\0"s, filled(9, [](char *o) { memcpy(o, "a b\t\n\v\f\r ", 9), trim_trailing(o, 9); }));
    EXPECT_EQ("  \0"s, filled(3, [](char *o) { memset(o, ' ', 3), trim_trailing(o + 2, 1); })) << "stops at its start";

    // Without a dot, the last byte of a parent's buffer is NUL too.
    const table<const char *, std::string, std::string> names = {{" \t\n\v\f\ra b ", "a b \0#"s, " \t\n\v\f\0"s},
                                                                 {"eth0.2", "eth0.\0"s, "eth0\0#"s},
                                                                 {"vlan10.2", "vlan1\0"s, "vlan1\0"s},
                                                                 {"br-lan0", "br-la\0"s, "br-la\0"s},
                                                                 {"wl", "wl\0###"s, "wl\0##\0"s},
                                                                 {".2", ".2\0###"s, "\0#####"s},
                                                                 {nullptr, "\0#####"s, "\0####\0"s}};
    for (const auto &[in, trimmed, parent] : names) {
        EXPECT_EQ(trimmed, filled(6, [i = in](char *o) { strncpy_trim(o, 6, i), strncpy_trim(o, 0, "x"); }));
        EXPECT_EQ(parent, filled(6, [i = in](char *o) { strip_vlan_suffix(o, i, 6), strip_vlan_suffix(o, "x", 0); }));
    }
    EXPECT_TRUE(is_ppp_dev("ppp") == 1 && is_ppp_dev("pp0") == 0);

    for (const int number : {0, 32, -1}) EXPECT_EQ(nullptr, vl_signame(number)) << number;
    for (int number = 1; number < 32; ++number) {
        const std::string name = "SIG"s + sigabbrev_np(number);
        EXPECT_EQ(name == "SIGPOLL" ? "SIGIO" : name, vl_signame(number)); // one signal, two names
    }
}

TEST(Util, CommentsOutLinesInPlace)
{
    const std::string longest = std::string(253, 'x') + "ab"; // with its end, or the file's, as much as is looked at
    const table<std::string, const char *, const char *, int, std::string> cases = {
        {"one\ntwo\nthree\n", "ne|two", "r+", 0, "#ne\n#wo\nthree\n"},
        {"one\ntwo", "wo||#", "r+", 0, "one\n#wo"}, // the last pattern finds what the first has written
        {"\0one\n\0\ntwo\n"s, "one", "r+", 0, "#one\n\0\ntwo\n"s},
        {longest, "ab", "r+", 0, "#" + longest.substr(1)},
        {longest + "\nab\n", "ab", "r+", -1, longest + "\n#b\n"},
        {longest.substr(1) + "\nab\n", "ab", "r+", 0, "#" + longest.substr(2) + "\n#b\n"},
        {"one\n", "", "r+", 0, "one\n"},
        {"one\n", "one", "r", -1, "one\n"}}; // a line that cannot be written
    for (const auto &[content, patterns, mode, result, after] : cases) {
        site::put_file("/tmp/lines", content);
        FILE *stream = fopen("/tmp/lines", mode);
        EXPECT_EQ(result, comment_out_lines(stream, patterns)) << content;
        EXPECT_EQ(after, site::read_file("/tmp/lines")) << "flushed: " << content;
        fclose(stream);
    }
}

TEST(Util, SanitizeReplacesWhatIsNoCharacter)
{
    const table<std::string, std::string> cases = {
        {"\xC0\xAF\xC1\xBF\xC2\x80\x80\xBF\xF8\xFF", "????\xC2\x80????"},
        {"\xC3z\xE2\x82z\xF0\x9F\x98z\xE2\x82\xC3\xA9", "?z??z???z??\xC3\xA9"}, // one begins where another breaks off
        {"\xE0\x9F\xBF\xE0\xA0\x80\xED\x9F\xBF\xED\xA0\x80\xED\xBF\xBF\xEE\x80\x80",
         "???\xE0\xA0\x80\xED\x9F\xBF??????\xEE\x80\x80"},
        {"\xF0\x8F\xBF\xBF\xF0\x90\x80\x80", "????\xF0\x90\x80\x80"},
        {"\xF4\x8F\xBF\xBF\xF4\x90\x80\x80\xF5\x80\x80\x80", "\xF4\x8F\xBF\xBF????????"},
        {"\xC3", "?"}};
    for (const auto &[in, out] : cases) {
        for (size_t n = 0; n < 68; ++n) { // at every place, alone and among other text
            const std::string before(n / 2, 'a'), behind(n % 2 * n, 'z');
            std::string text = before + in + behind;
            utf8_sanitize(text.data());
            EXPECT_EQ(before + out + behind, text) << n / 2 << " before";
        }
    }
    utf8_sanitize(nullptr);
}

TEST(Util, TruncationKeepsCharactersWhole)
{
    const std::string ascii = "abcdefghijklmnopqrst", two = "a\xC3\xA9z", three_four = "\xE2\x82\xAC\xF0\x9F\x98\x80";
    const size_t all = SIZE_MAX;
    // The limit of bytes comes before the look at what follows a lead byte; a lead byte alone counts as a character.
    const table<std::string, size_t, size_t, size_t> cases = {
        {ascii, 12, all, 12},  {ascii, all, 13, 13},      {ascii, all, all, 20},  {ascii, 0, 9, 0},
        {ascii, 9, 0, 0},      {two, 2, all, 3},          {two, all, 2, 1},       {two, all, 3, 3},
        {three_four, 2, 7, 7}, {three_four, 2, 6, 3},     {"\xF0zz", all, 3, 0},  {"\xF0zz", all, 4, 3},
        {"\xE2\x82", 9, 9, 2}, {"\xE2\x82zz", 3, all, 3}, {"\x80\xFF", 9, all, 2}};
    for (const auto &[text, characters, bytes, result] : cases) {
        EXPECT_EQ(result, utf8_truncate_len(text.c_str(), characters, bytes)) << text << ", " << bytes << " bytes";
    }
}

TEST(Util, Masks)
{
    log_lines log;
    for (unsigned n = 0; n <= 32; ++n) {
        EXPECT_EQ(UINT64_C(0xFFFFFFFF) << 32 >> n & UINT32_MAX, ipv4_netmask_from_prefix_len(n)) << n;
        EXPECT_EQ(n, ipv4_prefix_len_from_netmask(ipv4_netmask_from_prefix_len(n)));
    }
    EXPECT_EQ(2U, ipv4_prefix_len_from_netmask(0x80000001));
    const auto in_192_0_2 = [](uint32_t address) { return ip_belongs_to_subnet(address, 0xC0000201, 0xFFFFFF00); };
    EXPECT_TRUE(in_192_0_2(0xC0000281) == 1 && in_192_0_2(0xC0000381) == 0);
    for (int length = -1; length <= 129; ++length) {
        uint8_t mask[16];
        ipv6_netmask_from_prefix_len(mask, length);
        for (int bit = 0; bit < 128; ++bit) {
            const bool masked = length < 0 || bit < length;
            uint8_t a[16] = {}, b[16] = {};
            b[bit / 8] = static_cast<uint8_t>(0x80 >> bit % 8);
            EXPECT_EQ(masked, (mask[bit / 8] & b[bit / 8]) != 0) << length << ", bit " << bit;
            EXPECT_EQ(!masked, net_equals_v6(a, b, static_cast<unsigned>(length))) << length << ", bit " << bit;
        }
    }
    EXPECT_THAT(log.take(), ElementsAre());
    EXPECT_EQ(0U, ipv4_netmask_from_prefix_len(33));
    EXPECT_EQ(0, net_equals_v6(nullptr, nullptr, 0));
    const auto error = [](const char *name, const char *text) { return log_line{"error", "libvela_util", name, text}; };
    EXPECT_THAT(log.take(), ElementsAre(error("ipv4_netmask_from_prefix_len", "invalid subnet mask size of 33"),
                                        error("net_equals_v6", "NULL pointer passed")));
}
