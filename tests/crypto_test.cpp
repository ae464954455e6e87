#include <cstring>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <random>
#include <vector>
#include <vela/core/crypto.h>

namespace
{

using bytes = std::vector<uint8_t>;

std::mt19937_64 dice{20240229};

bytes random_bytes(size_t n)
{
    bytes some(n);
    for (auto &byte : some) byte = static_cast<uint8_t>(dice());
    return some;
}

// Texts in blocks of exactly the promised size, so that the sanitizer sees a byte too many.

template <class Encode> std::string encoded(Encode encode, const bytes &in)
{
    std::vector<char> text(static_cast<size_t>(base64_encode_len(static_cast<int>(in.size()))), '#');
    encode(text.data(), in.data(), static_cast<int>(in.size()));
    return text.data();
}

bytes decoded(const std::string &text)
{
    const std::vector<char> exact(text.c_str(), text.c_str() + text.size() + 1);
    bytes out(static_cast<size_t>(base64_decode_len(exact.data())), '#');
    base64_decode(out.data(), exact.data());
    return out;
}

} // namespace

TEST(Base64, KnownTexts)
{
    constexpr struct {
        const char *in;
        int n;
        const char *rfc, *url;
    } cases[] = {
        {"", 0, "", ""},
        {"f", 1, "Zg==", "Zg"},
        {"fo", 2, "Zm8=", "Zm8"},
        {"foo", 3, "Zm9v", "Zm9v"},
        {"foob", 4, "Zm9vYg==", "Zm9vYg"},
        {"\0", 1, "AA==", "AA"},
        {"\xfb\xff\xfe", 3, "+//+", "-__-"},
        {"\xff\xff", 2, "//8=", "__8"},
    };
    for (const auto &c : cases) {
        const bytes in(c.in, c.in + c.n);
        EXPECT_EQ(c.rfc, encoded(base64rfc_encode, in));
        EXPECT_EQ(c.url, encoded(base64url_encode, in));
        for (const char *text : {c.rfc, c.url}) {
            bytes out = decoded(text);
            ASSERT_LT(in.size(), out.size()) << text;
            EXPECT_EQ(0, out[in.size()]) << text;
            out.resize(in.size());
            EXPECT_EQ(in, out) << text;
        }
    }
}

TEST(Base64, AgreesWithOpenSslAtEveryLength)
{
    for (size_t n = 0; n <= 200; ++n) {
        const bytes in = random_bytes(n);
        bytes expected(n / 3 * 4 + 5);
        EVP_EncodeBlock(expected.data(), in.data(), static_cast<int>(n));
        const std::string text = encoded(base64rfc_encode, in);
        EXPECT_STREQ(reinterpret_cast<const char *>(expected.data()), text.c_str()) << n;
        bytes out = decoded(text);
        out.resize(n);
        EXPECT_EQ(in, out) << n;

        std::vector<char> same(text.c_str(), text.c_str() + text.size() + 1);
        base64url_decode(reinterpret_cast<uint8_t *>(same.data()), same.data());
        EXPECT_EQ(0, memcmp(in.data(), same.data(), n)) << "in place, " << n;
    }
}

TEST(Base64, OnlyLettersDecode)
{
    for (int c = 0; c < 256; ++c) {
        const bool letter = c != 0 && strchr("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/-_", c);
        for (size_t at = 0; at < 8; ++at) {
            std::string text = "QUJDQUJD";
            text[at] = static_cast<char>(c);
            const size_t letters = letter ? 8 : at;
            bytes out = decoded(text);
            EXPECT_EQ((letters + 3) / 4 * 3 + 1, out.size()) << c << " at " << at;
            EXPECT_EQ(0, out[letters * 3 / 4]) << c << " at " << at;
            if (!letter) {
                EXPECT_EQ(0, memcmp("ABCABC", out.data(), at * 3 / 4)) << c << " at " << at;
            }
        }
    }
}

TEST(Base64, Lengths)
{
    constexpr struct {
        int n, room;
    } cases[] = {{0, 1}, {1, 5}, {3, 5}, {4, 9}, {1610612733, 2147483645}, {1610612734, -1}, {INT32_MAX, -1}, {-7, 1}};
    for (const auto &c : cases) {
        EXPECT_EQ(c.room, base64_encode_len(c.n)) << c.n;
        EXPECT_EQ(c.room, base64url_encode_len(c.n)) << c.n;
    }
    EXPECT_EQ(4, base64_decode_len("QUJD"));
    EXPECT_EQ(4, base64url_decode_len("QUJD"));
    EXPECT_EQ(1, base64_decode_len("="));
    EXPECT_EQ(7, base64_decode_len("AAAAA\nAAAA"));
}
