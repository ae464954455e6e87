#include "tests/support/faults.h"
#include "tests/support/log_lines.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <memory>
#include <openssl/evp.h>
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

bytes packet(const std::string &text, uint16_t method, int encrypt, const struct vela_protocol_ctrl &ctrl)
{
    std::unique_ptr<vela_packet, decltype(&free)> p{
        gen_payload(text.data(), static_cast<uint32_t>(text.size()), method, 9, encrypt, &ctrl), free};
    if (!p) return {};
    const auto *raw = reinterpret_cast<const uint8_t *>(p.get());
    return {raw, raw + 40 + ntohs(p->length)};
}

/// Decodes a copy of exactly the packet's size, so that reading past it shows.
int decode(bytes received, struct vela_protocol_ctrl &ctrl, bytes *decoded = nullptr)
{
    std::unique_ptr<uint8_t[]> block{new uint8_t[std::max<size_t>(received.size(), 1)]};
    std::copy(received.begin(), received.end(), block.get());
    const int result =
        dec_payload(static_cast<uint32_t>(received.size()), reinterpret_cast<vela_packet *>(block.get()), &ctrl);
    if (decoded) decoded->assign(block.get(), block.get() + received.size());
    return result;
}

/// Encrypts as a sender with the key would, whatever the padding; OpenSSL does it.
bytes forged(const struct vela_protocol_ctrl &ctrl, const bytes &padded)
{
    bytes result = packet("x", 1, 1, ctrl);
    result.resize(40 + padded.size());
    result[6] = static_cast<uint8_t>(padded.size() >> 8), result[7] = static_cast<uint8_t>(padded.size());
    const auto crc = htonl(static_cast<uint32_t>(crc32(0, padded.data(), static_cast<uInt>(padded.size()))));
    memcpy(&result[36], &crc, 4);
    int n = 0;
    EVP_CIPHER_CTX *cipher = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(cipher, EVP_aes_128_cbc(), nullptr, ctrl.key, &result[12]);
    EVP_CIPHER_CTX_set_padding(cipher, 0);
    EVP_EncryptUpdate(cipher, &result[40], &n, padded.data(), static_cast<int>(padded.size()));
    EVP_CIPHER_CTX_free(cipher);
    return result;
}

} // namespace

TEST(Payload, LayoutOnTheWire)
{
    struct vela_protocol_ctrl ctrl = site_of(0x5a);
    const bytes p = packet("hello", 0x0102, 1, ctrl);
    ASSERT_EQ(56U, p.size());
    EXPECT_EQ((bytes{0x22, 0x33, 0x44, 0x55, 2, 2, 0, 16, 1, 2, 0, 9}), bytes(p.begin(), p.begin() + 12));
    EXPECT_EQ((bytes{2, 0x56, 0x4c, 0, 0, 7, 0x12, 0x30}), bytes(p.begin() + 28, p.begin() + 36));
    const bytes again = packet("hello", 1, 1, ctrl);
    EXPECT_FALSE(std::equal(p.begin() + 12, p.begin() + 28, again.begin() + 12)) << "a fresh IV each";

    bytes decoded;
    ASSERT_EQ(VELA_PACKET_VALID, decode(p, ctrl, &decoded));
    const auto &received = *reinterpret_cast<const vela_packet *>(decoded.data());
    EXPECT_EQ(0x0102, received.method);
    EXPECT_EQ(9, received.type);
    EXPECT_EQ(0x123, received.sequence);
    EXPECT_EQ((bytes{'h', 'e', 'l', 'l', 'o', 11, 11, 11, 11, 11, 11, 11, 11, 11, 11, 11}),
              bytes(decoded.begin() + 40, decoded.end()));
    EXPECT_EQ(0xFFF, ctrl.rx_seq) << "the caller's to change";
}

TEST(Payload, SizesAndKinds)
{
    struct vela_protocol_ctrl ctrl = site_of(1);
    struct {
        size_t length;
        int encrypt;
        size_t size; // 0: refused
        uint8_t flags;
    } const cases[] = {{0, 1, 40, 2},        {15, 1, 56, 2},   {16, 1, 72, 2},       {16, 0, 56, 1},  {5, 2, 45, 2},
                       {65519, 1, 65560, 2}, {65520, 1, 0, 0}, {65535, 0, 65575, 1}, {65536, 0, 0, 0}};
    for (const auto &c : cases) {
        const bytes p = packet(std::string(c.length, 'a'), 1, c.encrypt, ctrl);
        EXPECT_EQ(c.size, p.size()) << c.length << " encrypt " << c.encrypt;
        if (p.empty()) continue;
        EXPECT_EQ(c.flags, p[5]);
        if (c.encrypt != 1) {
            EXPECT_EQ(bytes(16), bytes(p.begin() + 12, p.begin() + 28)) << "no IV";
            EXPECT_EQ(bytes(4), bytes(p.begin() + 36, p.begin() + 40)) << "no CRC";
        } else if (c.length != 0) {
            bytes decoded;
            EXPECT_EQ(VELA_PACKET_VALID, decode(p, ctrl, &decoded));
            EXPECT_EQ(c.length, reinterpret_cast<const vela_packet *>(decoded.data())->length);
        }
    }
    if (!faults::can_refuse_memory) return;
    log_lines log;
    const faults::refuse_memory next;
    EXPECT_EQ(nullptr, gen_payload("a", 1, 1, 1, 1, &ctrl));
    EXPECT_THAT(log.take(), testing::ElementsAre(log_line{"error", "libvela", "gen_payload", "hdr malloc fail"}));
}

TEST(Payload, RepeatsOfTheLastSequence)
{
    struct vela_protocol_ctrl ctrl = site_of(0x5a);
    ctrl.rx_seq = 0x123;
    for (uint16_t method = 0; method < 9; ++method) {
        const bool repeatable = method == 3 || method == 5 || method == 6;
        EXPECT_EQ(repeatable ? VELA_PACKET_VALID : VELA_PACKET_REPEATED, decode(packet("x", method, 1, ctrl), ctrl))
            << method;
    }
    bytes bad = packet("x", 1, 1, ctrl);
    bad[0] = 0;
    EXPECT_EQ(VELA_PACKET_REPEATED, decode(bad, ctrl)) << "the repeat is looked for first";
}

TEST(Payload, EveryManglingIsRefused)
{
    struct vela_protocol_ctrl ctrl = site_of(0x5a);
    const bytes whole = packet(std::string(20, 'm'), 1, 1, ctrl);
    for (size_t n = 0; n < whole.size(); ++n) {
        EXPECT_EQ(VELA_PACKET_INVALID, decode(bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(n)), ctrl))
            << "cut at " << n;
        bytes bad = whole;
        bad[n] ^= 0x41;
        // Version 0x43, method, type, device id and sequence are not protected: they only name the packet.
        const bool unprotected = n == 4 || (n >= 8 && n < 12) || (n >= 28 && n < 36);
        // Flag bit 2 survives.
        EXPECT_EQ(unprotected || n == 5 ? VELA_PACKET_VALID : VELA_PACKET_INVALID, decode(bad, ctrl))
            << "mangled at " << n;
    }
    bytes longer = whole;
    longer.push_back(0);
    EXPECT_EQ(VELA_PACKET_INVALID, decode(longer, ctrl));
    bytes old = whole;
    old[4] = 1;
    EXPECT_EQ(VELA_PACKET_INVALID, decode(old, ctrl));
    EXPECT_EQ(VELA_PACKET_INVALID, decode(packet("plain", 1, 0, ctrl), ctrl));
    EXPECT_EQ(VELA_PACKET_INVALID, decode(packet("", 1, 1, ctrl), ctrl));
    struct vela_protocol_ctrl other = site_of(0x5b);
    EXPECT_EQ(VELA_PACKET_INVALID, decode(whole, other)) << "another key";
}

TEST(Payload, OddPaddingAndBytesThatNeedNoKey)
{
    struct vela_protocol_ctrl ctrl = site_of(0x5a);
    const auto padded = [](size_t length, uint8_t last, size_t count) {
        bytes b(length, 0xEE);
        std::fill(b.end() - static_cast<ptrdiff_t>(count), b.end(), last);
        return b;
    };
    struct {
        const char *what;
        bytes plain;
        int result;
        uint16_t length;
    } const cases[] = {
        {"none", padded(16, 0, 1), 0, 16},
        {"more than there is", padded(16, 17, 16), 1, 0},
        {"beyond a block", padded(32, 17, 17), 0, 15},
        {"one byte short", padded(32, 17, 16), 1, 0},
        {"all of 255", padded(256, 255, 255), 0, 1},
    };
    for (const auto &c : cases) {
        bytes decoded;
        EXPECT_EQ(c.result, decode(forged(ctrl, c.plain), ctrl, &decoded)) << c.what;
        if (c.result == 0) EXPECT_EQ(c.length, reinterpret_cast<const vela_packet *>(decoded.data())->length) << c.what;
    }
    // Whoever lacks the key can still compute a CRC; a payload of part of a block must not pass by it.
    bytes keyless = packet("0123456789abcde\x01", 1, 2, ctrl);
    keyless.resize(40 + 15), keyless[7] = 15, keyless[54] = 1;
    const uint32_t crc = htonl(static_cast<uint32_t>(crc32(0, &keyless[40], 15)));
    memcpy(&keyless[36], &crc, 4);
    EXPECT_EQ(VELA_PACKET_INVALID, decode(keyless, ctrl));

    log_lines log;
    keyless[40] ^= 1;
    decode(keyless, ctrl);
    keyless.pop_back();
    decode(keyless, ctrl);
    const auto lines = log.take();
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ(0U, lines[0].text.find("hdr=" + std::to_string(static_cast<int>(ntohl(crc))) + ", crc32="));
    EXPECT_EQ((log_line{"trace", "libvela", "dec_payload", "packet length check fail"}), lines[1]);
}
