#include "tests/support/faults.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"
#include "tests/support/text.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vela/core/internal/buffer.h>

namespace
{

std::string unread(const buffer *b) { return {reinterpret_cast<const char *>(b->data(b)), b->length(b)}; }

uint32_t append(buffer *b, const std::string &text)
{
    return b->append(b, text.data(), static_cast<uint32_t>(text.size()));
}

/// A buffer that starts with a text in it.
struct filled {
    explicit filled(const std::string &text, uint32_t capacity = 4096) : owner{buffer_create2(capacity)}
    {
        append(b, text);
    }
    vela::buffer_ptr owner;
    buffer *b = owner.get();
};

} // namespace

TEST(Buffer, GrowsByTheCountRoundedUp)
{
    constexpr uint32_t cap = 4194304; // of a capacity at creation, not of growth
    const table<uint32_t, uint32_t, uint32_t> cases = {
        {4096, 1, 8192}, {4096, 4096, 8192}, {4096, 4097, 12288}, {0, 3, 4096}, {cap, 1, cap + 4096}};
    for (const auto &[capacity, count, grown] : cases) {
        const auto [full, b] = filled(std::string(capacity, 'a'), capacity);
        EXPECT_EQ(capacity, b->capacity(b));
        EXPECT_EQ(count, append(b, std::string(count, 'b')));
        EXPECT_EQ(grown, b->capacity(b)) << count;
        EXPECT_EQ(std::string(capacity, 'a') + std::string(count, 'b'), unread(b));
        const vela::buffer_ptr copy{b->clone(b)};
        EXPECT_EQ(grown > cap ? 0 : grown, copy ? copy->capacity(copy.get()) : 0);
        EXPECT_EQ(nullptr, b->append_zeroed(b, UINT32_MAX)) << "an allocation beyond 32 bits";
        EXPECT_EQ(-1, b->init(b, cap + 1));
        EXPECT_EQ(capacity + count, b->length(b));
        b->reset(b);
        EXPECT_EQ(capacity, b->capacity(b));
        EXPECT_EQ(count, append(b, std::string(count, 'b')));
        EXPECT_EQ(0, b->init(b, 7)) << "in place of what it had";
        EXPECT_EQ(7U, b->capacity(b));
    }
    EXPECT_EQ(nullptr, buffer_create2(cap + 1));
}

TEST(Buffer, AppendsPiecesOfEveryLength)
{
    const auto [pieces, b] = filled("");
    std::string expected;
    for (size_t n = 1; n <= 70; ++n) {
        append(b, letters(n));
        expected += letters(n);
    }
    EXPECT_EQ(expected, unread(b));
}

TEST(Buffer, KeepsItsPlaceUntilDrained)
{
    const auto [queue, b] = filled("hello world");
    const uint8_t *start = b->data(b);
    EXPECT_EQ(0U, b->append(b, nullptr, 4));
    char out[16] = {};
    EXPECT_EQ(6U, b->read(b, out, 6));
    EXPECT_STREQ("hello ", out);
    const vela::buffer_ptr copy{b->clone(b)};
    copy->rewind(copy.get());
    EXPECT_EQ("world", unread(copy.get())) << "only the unread are copied";
    append(b, "!");
    EXPECT_EQ(start + 6, b->data(b)) << "unread bytes stay where they are";
    EXPECT_EQ(6U, b->read(b, nullptr, 100));
    b->rewind(b);
    EXPECT_EQ("hello world!", unread(b)) << "reading alone reclaims nothing";
    b->read(b, nullptr, 12);
    append(b, "new");
    EXPECT_EQ(start + 3, b->append_zeroed(b, 2));
    EXPECT_EQ(std::string("new\0\0", 5), unread(b)) << "over what the area held before";
}

TEST(Buffer, TakesTextsAndItsOwnBytes)
{
    const auto [text, b] = filled("ab");
    EXPECT_EQ(7U, b->printf(b, "<%s-%d>", "ab", 42));
    EXPECT_EQ(11U, b->printf(b, "[%s]", reinterpret_cast<const char *>(b->data(b))));
    append(b, "d");
    EXPECT_EQ("ab<ab-42>[ab<ab-42>]d", unread(b)) << "the NUL gives way";
    append(b, std::string(4075, 'x'));
    EXPECT_EQ(9U, b->append(b, b->data(b), 9));
    EXPECT_EQ("ab<ab-42>", unread(b).substr(4096)) << "the area moved";
    const uint8_t *tail = b->data(b) + 4096;
    b->read(b, nullptr, 5000);
    EXPECT_EQ(4U, b->append(b, tail, 4));
    EXPECT_EQ("ab<a", unread(b)) << "drained: written over the start";
    b->reset(b);
    EXPECT_EQ(4096U, b->printf(b, "%4096d", 7));
    EXPECT_EQ(4096U + 8192, b->capacity(b)) << "the NUL needs room too";
}

TEST(Buffer, PopFloorsLengthAndOffsetSeparately)
{
    const auto [tail, b] = filled("0123456789");
    b->read(b, nullptr, 5);
    buffer_pop(b, 3);
    EXPECT_EQ("56", unread(b));
    buffer_pop(b, 4);
    EXPECT_EQ(0U, b->length(b));
    b->rewind(b);
    EXPECT_EQ("012", unread(b)) << "the write offset went down by four";
    buffer_pop(b, UINT32_MAX);
    append(b, "end");
    EXPECT_EQ("end", unread(b));
}

TEST(Buffer, ResetShrinksAndZeroes)
{
    const auto [grown, b] = filled(std::string(5000, 'x'), 100);
    if (faults::can_refuse_memory) {
        log_lines log;
        (faults::refuse_memory{}, b->reset(b));
        EXPECT_THAT(log.take(),
                    testing::ElementsAre(log_line{"warn", "buffer", "buffer_reset", "Failed to reallocate buffer"}));
        EXPECT_EQ(8292U, b->capacity(b));
        append(b, std::string(5000, 'x'));
    }
    b->reset(b);
    EXPECT_EQ(100U, b->capacity(b));
    EXPECT_EQ(0U, b->length(b));
    EXPECT_EQ(std::string(100, '\0'), std::string(reinterpret_cast<const char *>(b->data(b)), 100));
    const vela::buffer_ptr fresh{b->clone(b)};
    EXPECT_EQ(4096U, fresh->capacity(fresh.get())) << "nothing to copy: a default buffer";
}

TEST(Buffer, SendsInOneCall)
{
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends));
    const auto [out, b] = filled("");
    buffer_fill(b, 10000);
    const auto length = static_cast<ssize_t>(b->length(b));
    EXPECT_EQ(-1, b->send(b, -1, 0));
    const ssize_t sent = b->send(b, ends[0], MSG_NOSIGNAL);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, length) << "as much as the socket takes";
    close(ends[1]);
    EXPECT_EQ(-1, b->send(b, ends[0], MSG_NOSIGNAL));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ(length - sent, b->length(b));
    close(ends[0]);
}

TEST(Buffer, WantOfMemoryLosesNothing)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    const auto [full, b] = filled("full", 4);
    const faults::refuse_memory none(0, true);
    EXPECT_EQ(0U, b->append(b, "x", 1));
    EXPECT_EQ(0U, b->printf(b, "%999s", "x"));
    EXPECT_EQ(nullptr, b->append_zeroed(b, 1));
    EXPECT_EQ("full", unread(b));
}
