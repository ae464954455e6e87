#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <memory>
#include <vela/core/crypto.h>
#include <vela/discovery/protocol.h>
#include <zlib.h>

namespace
{

using bytes = std::vector<uint8_t>;

struct vela_protocol_ctrl site_of(uint8_t key_byte)
{
    struct vela_protocol_ctrl ctrl = {};
    memset(ctrl.key, key_byte, sizeof ctrl.key);
    memcpy(ctrl.device_id, "\x02\x56\x4c\x00\x00\x07", 6);
    ctrl.tx_seq = 0xF123; // only twelve bits travel
    ctrl.rx_seq = 0xFFF;
    return ctrl;
}
struct vela_protocol_ctrl ctrl = site_of(0x5a);

bytes packet(const std::string &text, uint16_t method = 1, int encrypt = 1)
{
    std::unique_ptr<vela_packet, decltype(&free)> p{
        gen_payload(text.data(), static_cast<uint32_t>(text.size()), method, 9, encrypt, &ctrl), free};
    if (!p) return {};
    const auto *raw = reinterpret_cast<const uint8_t *>(p.get());
    return {raw, raw + 40 + ntohs(p->length)};
}

bytes part(const bytes &packet, size_t from, size_t to) { return {&packet[from], &packet[0] + to}; }

/// The plaintext's length; else the result, negative. From a block of exactly the packet's size.
int decoded(bytes packet)
{
    auto *p = reinterpret_cast<vela_packet *>(packet.data());
    const int result = dec_payload(static_cast<uint32_t>(packet.size()), p, &ctrl);
    return result == VELA_PACKET_VALID ? p->length : -result;
}

/// A packet with another payload, its length and CRC; encrypted, unless the sender lacks the key.
bytes forged(const bytes &padded, bool knows_key = true)
{
    bytes result = packet("x");
    result.resize(40 + padded.size());
    auto &head = reinterpret_cast<vela_packet &>(result[0]);
    head.length = htons(static_cast<uint16_t>(padded.size()));
    head.crc = htonl(static_cast<uint32_t>(crc32(0, padded.data(), static_cast<uInt>(padded.size()))));
    std::copy(padded.begin(), padded.end(), head.payload);
    if (knows_key) aes_cbc_encrypt_128(ctrl.key, head.iv, head.payload, static_cast<uint32_t>(padded.size()));
    return result;
}

} // namespace

TEST(Payload, LayoutOnTheWire)
{
    bytes p = packet("hello", 0x0102);
    ASSERT_EQ(56U, p.size());
    EXPECT_EQ((bytes{0x22, 0x33, 0x44, 0x55, 2, 2, 0, 16, 1, 2, 0, 9}), part(p, 0, 12));
    EXPECT_EQ((bytes{2, 0x56, 0x4c, 0, 0, 7, 0x12, 0x30}), part(p, 28, 36));
    EXPECT_NE(part(p, 12, 28), part(packet("hello"), 12, 28)) << "a fresh IV each";
    const auto &received = reinterpret_cast<vela_packet &>(p[0]);
    ASSERT_EQ(VELA_PACKET_VALID, dec_payload(56, reinterpret_cast<vela_packet *>(&p[0]), &ctrl));
    EXPECT_TRUE(received.method == 0x0102 && received.type == 9 && received.sequence == 0x123);
    EXPECT_EQ(0, memcmp("hello\v\v\v\v\v\v\v\v\v\v\v", received.payload, 16));
    EXPECT_EQ(0xFFF, ctrl.rx_seq) << "the caller's to change";
}

TEST(Payload, SizesAndKinds)
{
    // Length, whether to encrypt, and the packet's size, 0: refused.
    const table<int, int, size_t> cases = {{0, 1, 40},    {15, 1, 56},       {16, 1, 72},
                                           {16, 0, 56},   {5, 2, 45},        {65519, 1, 65560},
                                           {65520, 1, 0}, {65535, 0, 65575}, {65536, 0, 0}};
    for (const auto &[length, encrypt, size] : cases) {
        const bytes p = packet(std::string(static_cast<size_t>(length), 'a'), 1, encrypt);
        ASSERT_EQ(size, p.size()) << length << " encrypt " << encrypt;
        if (p.empty()) continue;
        EXPECT_EQ(encrypt ? 2 : 1, p[5]);
        EXPECT_EQ(encrypt == 1, part(p, 12, 28) != bytes(16) || part(p, 36, 40) != bytes(4)) << length;
        EXPECT_EQ(encrypt == 1 && length != 0 ? length : -VELA_PACKET_INVALID, decoded(p));
    }
}

TEST(Payload, RepeatsOfTheLastSequenceAreLookedForFirst)
{
    ctrl.rx_seq = 0x123;
    for (uint16_t method = 0; method < 9; ++method) {
        const bool always_handled = method == 3 || method == 5 || method == 6;
        bytes p = packet("x", method);
        EXPECT_EQ(always_handled ? 1 : -VELA_PACKET_REPEATED, decoded(p)) << method;
        p[0] = 0;
        EXPECT_EQ(always_handled ? -VELA_PACKET_INVALID : -VELA_PACKET_REPEATED, decoded(p)) << method;
    }
}

TEST(Payload, EveryManglingIsRefused)
{
    const bytes whole = packet(std::string(20, 'm'));
    bytes longer = whole, old = whole;
    longer.push_back(0);
    old[4] = 1;
    EXPECT_EQ(-VELA_PACKET_INVALID, decoded(longer));
    EXPECT_EQ(-VELA_PACKET_INVALID, decoded(old));
    for (size_t n = 0; n < whole.size(); ++n) {
        EXPECT_EQ(-VELA_PACKET_INVALID, decoded(part(whole, 0, n))) << "cut at " << n;
        bytes bad = whole;
        bad[n] ^= 0x41; // which leaves the flag of an encrypted packet, and makes a later version
        const bool unprotected = n == 4 || n == 5 || (n >= 8 && n < 12) || (n >= 28 && n < 36);
        EXPECT_EQ(unprotected ? 20 : -VELA_PACKET_INVALID, decoded(bad)) << "mangled at " << n;
    }
    ctrl = site_of(0x5b);
    EXPECT_EQ(-VELA_PACKET_INVALID, decoded(whole)) << "another key";
}

TEST(Payload, PaddingOfEveryKindAndNone)
{
    // Length, last byte, how many of it, and what is left.
    const table<size_t, uint8_t, ptrdiff_t, int> cases = {
        {16, 0, 1, 16}, {16, 17, 16, -1}, {32, 17, 17, 15}, {32, 17, 16, -1}, {256, 255, 255, 1}};
    for (const auto &[length, last, count, left] : cases) {
        bytes plain(length, 0xEE);
        std::fill(plain.end() - count, plain.end(), last);
        EXPECT_EQ(left, decoded(forged(plain))) << count << " of " << int{last};
    }
    bytes keyless = forged(bytes(15, 1), false); // a CRC needs no key; part of a block must not pass by it
    EXPECT_EQ(-VELA_PACKET_INVALID, decoded(keyless));
    log_lines log;
    keyless[36] ^= 1;
    decoded(keyless);
    decoded(part(keyless, 0, 54));
    EXPECT_THAT(log.texts(), testing::ElementsAre(testing::MatchesRegex("hdr=-?[0-9]+, crc32=-?[0-9]+"),
                                                  "packet length check fail"));
}
