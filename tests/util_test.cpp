#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <vela/core/util.h>

using testing::ElementsAre;

namespace
{

/// A block of exactly the given text and its NUL, so that the address sanitizer sees a step beyond.
std::unique_ptr<char[]> exact(std::string_view text)
{
    auto block = std::make_unique<char[]>(text.size() + 1);
    text.copy(block.get(), text.size());
    return block;
}

std::string sanitized(std::string_view text)
{
    const auto block = exact(text);
    utf8_sanitize(block.get());
    return block.get();
}

/// What a file holds after comment_out_lines, and its result.
std::pair<int, std::string> commented(std::string_view content, const char *patterns)
{
    site::put_file("/tmp/lines", content);
    FILE *stream = fopen("/tmp/lines", "r+e");
    const int result = comment_out_lines(stream, patterns);
    const std::string now = site::read_file("/tmp/lines"); // before fclose: the call itself flushes
    fclose(stream);
    return {result, now};
}

template <class Call> std::string filled(size_t size, Call call)
{
    std::string buffer(size, '#');
    call(buffer.data());
    return buffer;
}

} // namespace

TEST(Util, SnprintfTellsOfCutText)
{
    log_lines log;
    char out[5];
    EXPECT_EQ(4, vela_snprintf("mod", "cut", out, 5, "%s", "1234"));
    EXPECT_EQ(6, vela_snprintf("mod", nullptr, out, 5, "%s", "123456"));
    EXPECT_EQ(0, vela_snprintf("mod", nullptr, out, 0, "x"));
    EXPECT_THAT(log.take(), ElementsAre());
    EXPECT_EQ(4, vela_snprintf("mod", "cut", out, 5, "%s", "12345"));
    EXPECT_STREQ("1234", out);
    EXPECT_EQ(0, vela_snprintf("mod", "none", out, 0, "x"));
    EXPECT_EQ(0, vela_snprintf("mod", "cut", out, 5, "%ls", L"\xFFFFFFF")); // no such character
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "mod", "vela_snprintf", "cut"},
                                        log_line{"error", "mod", "vela_snprintf", "none"},
                                        log_line{"error", "mod", "vela_snprintf", "vela_snprintf failure: -1"}));

    char *text = malloc_printf("%s-%d", "radio", 1);
    EXPECT_STREQ("radio-1", text);
    free(text);
    EXPECT_EQ(nullptr, malloc_printf("%ls", L"\xFFFFFFF"));
    if (!faults::can_refuse_memory) return;
    const faults::refuse_memory none;
    EXPECT_EQ(nullptr, malloc_printf("%d", 1));
}

TEST(Util, BytesToHex)
{
    uint8_t bytes[256]; // every byte, at every place in a word
    for (size_t i = 0; i < 256; ++i) bytes[i] = static_cast<uint8_t>(i);
    for (size_t skip = 0; skip < 4; ++skip) {
        const size_t count = 256 - skip;
        std::string upper(2 * count + 3, '#'), lower = upper, expected;
        for (size_t i = skip; i < 256; ++i)
            expected += "0123456789ABCDEF"[i / 16], expected += "0123456789ABCDEF"[i % 16];
        EXPECT_EQ(count, uchar2hex(bytes + skip, count, upper.data(), upper.size()));
        EXPECT_EQ(expected + std::string(3, '\0'), upper) << "the rest of the buffer is cleared";
        EXPECT_EQ(count, uchar2lowerhex(bytes + skip, count, lower.data(), lower.size()));
        std::transform(expected.begin(), expected.end(), expected.begin(), ::tolower);
        EXPECT_EQ(expected, lower.c_str());
    }

    EXPECT_EQ("####", filled(4, [&](char *out) { EXPECT_EQ(0U, uchar2hex(bytes, 2, out, 4)); }))
        << "no room for the NUL";
    EXPECT_EQ("##", filled(2, [&](char *out) { EXPECT_EQ(0U, uchar2hex(bytes, SIZE_MAX / 2 + 2, out, 2)); }));

    constexpr struct {
        size_t count, size;
        std::string_view written;
    } cut[] = {{4, 16, "0c0d0e"}, {4, 7, "0c0d0e"}, {4, 6, "0c0d"}, {4, 2, ""}, {1, 16, ""}, {0, 16, ""}, {4, 0, ""}};
    for (const auto &c : cut) {
        const auto out =
            filled(16, [&](char *o) { EXPECT_EQ(c.written.size(), bin2hex(bytes + 12, c.count, o, c.size)); });
        EXPECT_EQ(c.written, out.substr(0, out.find_first_of(std::string_view("\0#", 2))))
            << c.count << " in " << c.size;
    }
}

TEST(Util, HexToBytes)
{
    constexpr struct {
        const char *text;
        uint32_t bytes; // first byte uppermost
        size_t result;
    } cases[] = {
        {"00fFA5b7", 0x00FFA5B7, 4},
        {"0102030405", 0x01020304, 4},
        {"0g", 0, 4},
        {"", 0, 0},
        {"12345", 0x12340500, 4},
        {"12zz56", 0x12000000, 4},
        {"12 345", 0x12344500, 4},
        {"-1+2", 0xFF020000, 4},
        {"ab ", 0xAB000000, 4},
    };
    for (const auto &c : cases) {
        uint8_t out[4] = {9, 9, 9, 9};
        EXPECT_EQ(c.result, hex2uchar(exact(c.text).get(), out, sizeof out)) << c.text;
        EXPECT_EQ(c.bytes, static_cast<uint32_t>(out[0] << 24 | out[1] << 16 | out[2] << 8 | out[3])) << c.text;
    }
}

TEST(Util, MacAddresses)
{
    constexpr struct {
        const char *text;
        int result;
        uint8_t last;
    } cases[] = {{"1:2:3:4:5:6", 0, 6},           {"02:00:5e:10:00:fF", 0, 0xFF}, {"02:00:5e:10:00:ab:cd", 0, 0xAB},
                 {"02-00-5e-10-00-01", -1, 0x77}, {"02:00:5e:10:00", -1, 0x77},   {"", -1, 0x77},
                 {"2:0:5e:10:0:g", -1, 0x77}};
    for (const auto &c : cases) {
        uint8_t mac[] = {0x77, 0x77, 0x77, 0x77, 0x77, 0x77};
        EXPECT_EQ(c.result, strtomac(c.text, mac)) << c.text;
        EXPECT_EQ(c.last, mac[5]) << c.text;
    }
    EXPECT_EQ(-1, strtomac(nullptr, nullptr));
}

TEST(Util, RandomValuesFollowTheSeed)
{
    log_lines log;
    unlink("/dev/urandom"); // in this test's own world
    site::put_file("/dev/urandom", "seed");
    uint32_t seed;
    memcpy(&seed, "seed", sizeof seed);
    const auto drawn = [](unsigned s, std::function<char(int)> make) {
        srand(s);
        std::string text(8, '\0');
        for (char &c : text) c = make(rand());
        return text;
    };
    const std::string bytes = drawn(seed, [](int r) { return static_cast<char>(r); });
    EXPECT_EQ(bytes, filled(8, [](char *o) { EXPECT_EQ(8U, gen_rand_bytes(reinterpret_cast<uint8_t *>(o), 8)); }));
    char hex[17], expected[17];
    uchar2hex(reinterpret_cast<const uint8_t *>(bytes.data()), 8, expected, sizeof expected);
    EXPECT_EQ(8U, gen_rand_hex(hex, sizeof hex));
    EXPECT_STREQ(expected, hex);
    const auto letter = [](int r) {
        const int n = r % 62;
        return static_cast<char>(n < 10 ? '0' + n : n < 36 ? 'A' + n - 10 : 'a' + n - 36);
    };
    EXPECT_EQ(drawn(seed, letter) + '\0', filled(9, [](char *o) { EXPECT_EQ(o, gen_rand_string(o, 8)); }));

    EXPECT_EQ("########", filled(8, [](char *o) {
                  EXPECT_EQ(0U, gen_rand_hex(o, 8));
                  EXPECT_EQ(0U, gen_rand_hex(o, 0));
                  EXPECT_EQ(0U, gen_rand_bytes(reinterpret_cast<uint8_t *>(o), 0));
                  EXPECT_EQ(nullptr, gen_rand_string(o, 0));
              }));
    EXPECT_THAT(log.take(), ElementsAre());

    site::remove_file("/dev/urandom");
    EXPECT_EQ(drawn(0, letter), filled(9, [](char *o) { gen_rand_string(o, 8); }).c_str());
    EXPECT_THAT(log.take(),
                ElementsAre(log_line{"trace", "libvela_util", "urandom", "read returned error in urandom"}));
}

TEST(Util, TrimmingAndNames)
{
    char text[] = "a b\t\n\v\f\r ";
    trim_trailing(text, sizeof text - 1);
    EXPECT_EQ(std::string("a b\0\0\0\0\0\0", 9), std::string(text, 9));
    char blank[] = "x  ";
    trim_trailing(blank + 1, 2); // stops at its start
    EXPECT_STREQ("x", blank);

    constexpr struct {
        const char *in, *trimmed, *parent; // in a buffer of six bytes of '#'
    } cases[] = {{" \t\n\v\f\ra b ", "a b \0#", "\0###"}, {"eth0.2", "eth0.\0", "eth0\0#"},
                 {"vlan10.2", "vlan1\0", "vlan1\0"},      {"br-lan0", "br-la\0", "br-la\0"},
                 {"wl", "wl\0###", "wl\0##\0"},           {".2", ".2\0###", "\0#####"},
                 {nullptr, "\0#####", "\0####\0"}};
    for (const auto &c : cases) {
        EXPECT_EQ(std::string(c.trimmed, 6), filled(6, [&](char *o) { strncpy_trim(o, 6, c.in); })) << c.in;
        if (c.in && c.in[0] == ' ') continue;
        EXPECT_EQ(std::string(c.parent, 6), filled(6, [&](char *o) { EXPECT_EQ(o, strip_vlan_suffix(o, c.in, 6)); }))
            << c.in;
    }
    EXPECT_EQ("#", filled(1, [](char *o) { strncpy_trim(o, 0, "a"), strip_vlan_suffix(o, "a", 0); }));
    EXPECT_EQ(1, is_ppp_dev("ppp"));
    EXPECT_EQ(0, is_ppp_dev("pp0"));

    EXPECT_STREQ("SIGSTKFLT", vl_signame(SIGSTKFLT));
    for (const int number : {0, 32, -1}) EXPECT_EQ(nullptr, vl_signame(number)) << number;
    for (int number = 1; number < 32; ++number) {
        const std::string name = std::string("SIG") + sigabbrev_np(number);
        EXPECT_EQ(name == "SIGPOLL" ? "SIGIO" : name, vl_signame(number)); // one signal, two names
    }
}

TEST(Util, CommentsOutLinesInPlace)
{
    using namespace std::string_literals;
    const std::string longest = std::string(253, 'x') + "ab"; // with its end, or the file's, as much as is looked at
    const struct {
        std::string content;
        const char *patterns;
        int result;
        std::string after;
    } cases[] = {
        {"one\ntwo\nthree\n", "ne|two", 0, "#ne\n#wo\nthree\n"},
        {"one\ntwo", "wo||#", 0, "one\n#wo"}, // the last pattern finds what the first has written
        {"\0one\n\0\ntwo\n"s, "one", 0, "#one\n\0\ntwo\n"s},
        {longest, "ab", 0, "#" + longest.substr(1)},
        {longest + "\nab\n", "ab", -1, longest + "\n#b\n"},
        {longest.substr(1) + "\nab\n", "ab", 0, "#" + longest.substr(2) + "\n#b\n"},
        {"one\n", "", 0, "one\n"},
    };
    for (const auto &c : cases) EXPECT_EQ(std::pair(c.result, c.after), commented(c.content, c.patterns)) << c.content;

    FILE *reading = fopen("/tmp/lines", "re");
    EXPECT_EQ(-1, comment_out_lines(reading, "one")) << "a line that cannot be written";
    fclose(reading);
}

TEST(Util, SanitizeReplacesWhatIsNoCharacter)
{
    constexpr struct {
        std::string_view in, out;
    } cases[] = {
        {"\xC0\xAF", "??"},
        {"\xC1\xBF\xC2\x80", "??\xC2\x80"},
        {"\x80\xBF\xF8\xFF", "????"},
        {"\xC3", "?"},
        {"\xC3z\xE2\x82z\xF0\x9F\x98z", "?z??z???z"},
        {"\xE0\x9F\xBF\xE0\xA0\x80", "???\xE0\xA0\x80"},
        {"\xED\x9F\xBF\xED\xA0\x80\xED\xBF\xBF\xEE\x80\x80", "\xED\x9F\xBF??????\xEE\x80\x80"},
        {"\xF0\x8F\xBF\xBF\xF0\x90\x80\x80", "????\xF0\x90\x80\x80"},
        {"\xF4\x8F\xBF\xBF\xF4\x90\x80\x80\xF7\xBF\xBF\xBF", "\xF4\x8F\xBF\xBF????????"},
        {"\xE2\x82\xC3\xA9", "??\xC3\xA9"}, // a new character begins where one breaks off
    };
    for (const auto &c : cases) {
        for (size_t before = 0; before < 17; ++before) { // at every place in a word
            const std::string ascii(before, 'a');
            EXPECT_EQ(ascii + std::string(c.out) + ascii, sanitized(ascii + std::string(c.in) + ascii))
                << c.out << " at " << before;
        }
        EXPECT_EQ(c.out, sanitized(c.in));
    }
    utf8_sanitize(nullptr);
}

TEST(Util, TruncationKeepsCharactersWhole)
{
    constexpr struct {
        std::string_view text;
        size_t characters, bytes, result;
    } cases[] = {
        {"abcdefghijklmnopqrst", 17, 99, 17},
        {"abcdefghijklmnopqrst", 99, 13, 13},
        {"abc", 99, SIZE_MAX, 3},
        {"a\xC3\xA9z", 2, 99, 3},
        {"a\xC3\xA9z", 99, 2, 1},
        {"a\xC3\xA9z", 99, 3, 3},
        {"\xE2\x82\xAC\xF0\x9F\x98\x80", 2, 7, 7},
        {"\xE2\x82\xAC\xF0\x9F\x98\x80", 2, 6, 3},
        {"\xE2\x82zz", 3, 99, 3}, // two lone bytes and a letter
        {"\xF0zz", 99, 3, 0},     // the limit comes before the look at what follows
        {"\xF0zz", 99, 4, 3},
        {"\x80\xFF", 99, 99, 2},
        {"\xE2\x82", 99, 99, 2},
        {"abc", 0, 99, 0},
        {"abc", 99, 0, 0},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.result, utf8_truncate_len(exact(c.text).get(), c.characters, c.bytes))
            << c.text << ": " << c.characters << " characters, " << c.bytes << " bytes";
    }
}

TEST(Util, Masks)
{
    log_lines log;
    EXPECT_EQ(0U, ipv4_netmask_from_prefix_len(0));
    for (unsigned n = 1; n <= 32; ++n) {
        const uint32_t mask = ipv4_netmask_from_prefix_len(n);
        EXPECT_TRUE(mask >> (32 - n) == UINT32_MAX >> (32 - n) && std::popcount(mask) == static_cast<int>(n)) << n;
        EXPECT_EQ(n, ipv4_prefix_len_from_netmask(mask));
    }
    EXPECT_EQ(2U, ipv4_prefix_len_from_netmask(0x80000001));
    EXPECT_EQ(1, ip_belongs_to_subnet(0xC0000281, 0xC0000201, 0xFFFFFF00));
    EXPECT_EQ(0, ip_belongs_to_subnet(0xC0000381, 0xC0000201, 0xFFFFFF00));

    EXPECT_EQ(0U, ipv4_netmask_from_prefix_len(33));
    EXPECT_EQ(0, net_equals_v6(nullptr, nullptr, 0));
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "libvela_util", "ipv4_netmask_from_prefix_len",
                                                 "invalid subnet mask size of 33"},
                                        log_line{"error", "libvela_util", "net_equals_v6", "NULL pointer passed"}));

    for (int length = -1; length <= 129; ++length) {
        const int bits = length < 0 || length > 127 ? 128 : length;
        uint8_t mask[16];
        ipv6_netmask_from_prefix_len(mask, length);
        for (int bit = 0; bit < 128; ++bit) {
            EXPECT_EQ(bit < bits, (mask[bit / 8] >> (7 - bit % 8) & 1) != 0) << length << ", bit " << bit;
            uint8_t a[16] = {}, b[16] = {};
            b[bit / 8] = static_cast<uint8_t>(0x80 >> bit % 8);
            EXPECT_EQ(bit >= bits, net_equals_v6(a, b, static_cast<unsigned>(length))) << length << ", bit " << bit;
        }
    }
}
