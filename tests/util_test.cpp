#include "site/world.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <climits>
#include <csignal>
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
    char out[5], *text = malloc_printf("%s-%d", "radio", 1);
    const table<const char *, size_t, const wchar_t *, int> cases = {
        {"none", 0, L"x", 0},    {nullptr, 0, L"x", 0},      {"any", 5, L"\xFFFFFFF", 0}, // a character that is none
        {"fits", 5, L"1234", 4}, {nullptr, 5, L"123456", 6}, {"cut", 5, L"12345", 4}};
    for (const auto &[message, size, input, result] : cases) {
        EXPECT_EQ(result, vela_snprintf("mod", message, out, size, "%ls", input)) << input;
    }
    EXPECT_THAT(log.texts(), ElementsAre("none", "vela_snprintf failure: -1", "cut"));
    EXPECT_STREQ("1234", out);
    EXPECT_STREQ("radio-1", text);
    free(text);
}

TEST(Util, Hexadecimal)
{
    uint8_t bytes[256];
    std::iota(bytes, bytes + 256, uint8_t{0});
    for (const size_t count : {0, 1, 256}) {
        const size_t size = 2 * count + 2; // the rest is cleared
        std::string upper(size, '\0'), lower = upper;
        for (size_t i = 0; i < count; ++i) sprintf(&upper[2 * i], "%02X", bytes[i]);
        std::transform(upper.begin(), upper.end(), lower.begin(), tolower);
        EXPECT_EQ(upper, filled(size, [&](char *o) { EXPECT_EQ(count, uchar2hex(bytes, count, o, size)); }));
        EXPECT_EQ(lower, filled(size, [&](char *o) { EXPECT_EQ(count, uchar2lowerhex(bytes, count, o, size)); }));
        EXPECT_EQ(std::string(size, '#'), filled(size, [&](char *o) { uchar2hex(bytes, count, o, 2 * count); }));
    }
    EXPECT_EQ("###", filled(3, [&](char *o) { uchar2hex(bytes, SIZE_MAX / 2 + 2, o, 3); })) << "twice as much wraps";
    const table<size_t, size_t, std::string> cases = {
        {4, 9, "0c0d0e\0#"s}, {4, 6, "0c0d\0###"s}, {4, 2, "########"}, {1, 9, "########"}, {0, 9, "########"}};
    for (const auto &[count, size, written] : cases) { // all bytes but the last, as far as there is room
        const size_t digits = written.find_first_of("\0#"s);
        EXPECT_EQ(written, filled(8, [&](char *o) { EXPECT_EQ(digits, bin2hex(bytes + 12, count, o, size)); }));
    }
    const table<const char *, uint32_t> pairs = {{"00fFA5b7Z", 0x00FFA5B7}, {"0g", 0},
                                                 {"12345", 0x12340500},     {"12zz56", 0x12000000},
                                                 {"-1+2", 0xFF020000},      {"12 345", 0x12344500}};
    for (const auto &[text, four] : pairs) {
        EXPECT_EQ(4U, hex2uchar(text, bytes, 4)) << text;
        EXPECT_EQ(four, bytes[0] << 24U | bytes[1] << 16U | bytes[2] << 8U | bytes[3]) << text;
    }
    EXPECT_EQ(0U, hex2uchar("", bytes, 6));
    EXPECT_EQ(0, bytes[0]) << "cleared nevertheless";
}

TEST(Util, MacAddresses)
{
    uint8_t mac[6] = {1};
    for (const char *text : {"2-2-3-4-5-6", "2:0:5e:10:0:g", "", "1:2:3:4:5"})
        EXPECT_EQ(-1, strtomac(text, mac)) << text;
    EXPECT_EQ(1, mac[0]) << "untouched on failure";
    EXPECT_EQ(0, strtomac("2:00:5e:10:0:fF:cd", mac));
    EXPECT_THAT(mac, ElementsAre(2, 0, 0x5E, 0x10, 0, 0xFF));
}

TEST(Util, RandomValuesFollowTheSeed)
{
    log_lines log;
    const std::string alphabet = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    for (const unsigned seed : {0x64656573U, 0U}) { // "seed", as a little-endian machine reads it; nothing to read
        site::put_file("/dev/urandom", seed == 0 ? "" : "seed");
        std::string bytes(8, '\0'), hex(17, '\0'), letters(9, '\0');
        srand(seed);
        for (char &c : bytes) c = static_cast<char>(rand());
        uchar2hex(reinterpret_cast<const uint8_t *>(bytes.data()), 8, hex.data(), 17);
        srand(seed);
        for (size_t i = 0; i < 8; ++i) letters[i] = alphabet[rand() % 62U];
        EXPECT_EQ(bytes, filled(8, [](char *o) { EXPECT_EQ(8U, gen_rand_bytes(o, 8)); }));
        EXPECT_EQ(hex, filled(17, [](char *o) { EXPECT_EQ(8U, gen_rand_hex(o, 17)); }));
        EXPECT_EQ(letters, filled(9, [](char *o) { EXPECT_EQ(o, gen_rand_string(o, 8)); }));
    }
    const log_line failed = {"trace", "libvela_util", "urandom", "read returned error in urandom"};
    EXPECT_THAT(log.take(), ElementsAre(failed, failed, failed));
    EXPECT_EQ("#", filled(1, [](char *o) { gen_rand_hex(o, 0), gen_rand_hex(o, 2), gen_rand_string(o, 0); }));
}

TEST(Util, TrimmingAndNames)
{
    EXPECT_EQ("a b\0\0\0\0\0\0"s, filled(9, [](char *o) { memcpy(o, "a b\t\n\v\f\r ", 9), trim_trailing(o, 9); }));
    EXPECT_EQ("  \0"s, filled(3, [](char *o) { memset(o, ' ', 3), trim_trailing(o + 2, 1); })) << "stops at its start";
    const table<const char *, std::string, std::string> names = {
        {" \t\n\v\f\ra b ", "a b \0#"s, " \t\n\v\f\0"s},
        {"vlan10.2", "vlan1\0"s, "vlan1\0"s},
        {"eth0.2", "eth0.\0"s, "eth0\0#"s},
        {"wl", "wl\0###"s, "wl\0##\0"s}, // without a dot, the last byte of a parent's buffer is NUL too
        {nullptr, "\0#####"s, "\0####\0"s}};
    for (const auto &[in, trimmed, parent] : names) {
        EXPECT_EQ(trimmed, filled(6, [i = in](char *o) { strncpy_trim(o, 6, i), strncpy_trim(o, 0, "x"); }));
        EXPECT_EQ(parent, filled(6, [i = in](char *o) { strip_vlan_suffix(o, i, 6), strip_vlan_suffix(o, "x", 0); }));
    }
    EXPECT_EQ(1, is_ppp_dev("ppp"));
    EXPECT_EQ(0, is_ppp_dev("pp0"));
    for (int n = 1; n <= 31; ++n) {
        if (n != SIGIO) EXPECT_EQ("SIG"s + sigabbrev_np(n), vl_signame(n));
    }
    EXPECT_STREQ("SIGIO", vl_signame(SIGIO)); // the C library calls it by its other name
    for (const int n : {0, 32, -1}) EXPECT_EQ(nullptr, vl_signame(n)) << n;
}

TEST(Util, CommentsOutLinesInPlace)
{
    const std::string longest = std::string(253, 'x') + "ab"; // with its end, or the file's, as much as is looked at
    const table<std::string, const char *, int, std::string> cases = {
        {"one\nt\nthree\n", "ne|t", 0, "#ne\n#\n#hree\n"},
        {"one\ntwo", "wo||#", 0, "one\n#wo"}, // the last pattern finds what the first has written
        {"\0one\n\0\ntwo\n"s, "one", 0, "#one\n\0\ntwo\n"s},
        {longest, "ab", 0, "#" + longest.substr(1)},
        {longest + "\nab\n", "ab", -1, longest + "\n#b\n"},
        {longest.substr(1) + "\nab\n", "ab", 0, "#" + longest.substr(2) + "\n#b\n"}};
    for (const auto &[content, patterns, result, after] : cases) {
        site::put_file("/tmp/lines", content);
        FILE *stream = fopen("/tmp/lines", "r+");
        EXPECT_EQ(result, comment_out_lines(stream, patterns)) << content;
        EXPECT_EQ(after, site::read_file("/tmp/lines")) << "flushed: " << content;
        fclose(stream);
    }
}

TEST(Util, SanitizeReplacesWhatIsNoCharacter)
{
    const std::string sound = "\xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
    for (const std::string fault :
         {"\xBF", "\xC1\xBF", "\xC3", "\xE0\x9F\xBF", "\xE2\x82", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF0\x8F\xBF\xBF",
          "\xF0\x9F\x98", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xF8\xFF"}) {
        for (size_t n = 0; n < 17; ++n) { // at every place in a word, at the end and in between
            const std::string before = std::string(n, 'a') + sound, behind = n % 2 == 0 ? sound : "";
            std::string text = before + fault + behind;
            utf8_sanitize(text.data());
            EXPECT_EQ(before + std::string(fault.size(), '?') + behind, text) << n << " before";
        }
    }
}

TEST(Util, TruncationKeepsCharactersWhole)
{
    const std::string ascii = "abcdefghijklmnopqrst", three_four = "\xE2\x82\xAC\xF0\x9F\x98\x80";
    // The limit of bytes comes before the look at what follows a lead byte; a lead byte alone counts as a character.
    const table<std::string, size_t, size_t, size_t> cases = {
        {ascii, 12, 99, 12},     {ascii, 99, 13, 13},   {ascii, 99, SIZE_MAX, 20}, {ascii, 0, 9, 0},
        {three_four, 2, 7, 7},   {three_four, 2, 6, 3}, {"\xF0zz", 99, 3, 0},      {"\xF0zz", 99, 4, 3},
        {"\xE2\x82zz", 3, 9, 3}, {"\xE2\x82", 9, 9, 2}, {"a\xC3\xA9z", 9, 2, 1},   {"\x80\xF8", 9, 2, 2}};
    for (const auto &[text, characters, bytes, result] : cases) {
        EXPECT_EQ(result, utf8_truncate_len(text.c_str(), characters, bytes)) << text << ", " << bytes << " bytes";
    }
}

TEST(Util, Masks)
{
    for (unsigned n = 0; n <= 32; ++n) {
        EXPECT_EQ(UINT64_C(0xFFFFFFFF) << 32 >> n & UINT32_MAX, ipv4_netmask_from_prefix_len(n)) << n;
    }
    EXPECT_EQ(0U, ipv4_netmask_from_prefix_len(33));
    EXPECT_EQ(3U, ipv4_prefix_len_from_netmask(0x80000003));
    EXPECT_EQ(1, ip_belongs_to_subnet(0x281, 0x201, ~0xFFU));
    EXPECT_EQ(0, ip_belongs_to_subnet(0x381, 0x281, ~0xFFU));
    uint8_t mask[16], zero[16] = {};
    ipv6_netmask_from_prefix_len(mask, -1);
    EXPECT_THAT(mask, Each(0xFF));
    ipv6_netmask_from_prefix_len(mask, 0);
    EXPECT_THAT(mask, Each(0));
    for (const unsigned length : {0U, 1U, 63U, 64U, 65U, 127U, 128U, UINT_MAX}) {
        for (unsigned bit = 0; bit < 128; ++bit) {
            uint8_t other[16] = {};
            other[bit / 8] = static_cast<uint8_t>(0x80 >> bit % 8);
            EXPECT_EQ(bit >= length, net_equals_v6(zero, other, length)) << length << ", bit " << bit;
        }
    }
    EXPECT_EQ(0, net_equals_v6(nullptr, zero, 0));
}
