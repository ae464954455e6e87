#include "tests/support/faults.h"
#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>
#include <vela/core/buffer.h>

namespace
{

struct destroyer {
    void operator()(buffer *b) const { buffer_destroy(b); }
};
using owned = std::unique_ptr<buffer, destroyer>;

std::string unread(const buffer *b) { return {reinterpret_cast<const char *>(b->data(b)), b->length(b)}; }

uint32_t append(buffer *b, const std::string &text)
{
    return b->append(b, text.data(), static_cast<uint32_t>(text.size()));
}

} // namespace

TEST(Buffer, CapacityAtCreationHasACap)
{
    EXPECT_EQ(nullptr, buffer_create2(4194305));
    const owned large{buffer_create2(4194304)};
    ASSERT_NE(nullptr, large);
    EXPECT_EQ(4194304U, large->capacity(large.get()));
    EXPECT_EQ(1U, append(large.get(), "x"));
    EXPECT_EQ(5U, append(large.get(), std::string(5, 'y')));

    buffer *b = large.get();
    EXPECT_EQ(4194298U, b->append(b, std::string(4194298, 'z').data(), 4194298));
    EXPECT_EQ(1U, append(b, "!")) << "growth goes beyond the cap";
    EXPECT_EQ(4194304U + 4096, b->capacity(b));
    EXPECT_EQ(nullptr, b->clone(b));
    EXPECT_EQ(nullptr, b->append_zeroed(b, UINT32_MAX)) << "an allocation beyond 32 bits";
    EXPECT_EQ(4194305U, b->length(b));

    const owned empty{buffer_create2(0)};
    EXPECT_EQ(0U, empty->capacity(empty.get()));
    EXPECT_EQ(3U, append(empty.get(), "abc"));
    empty->reset(empty.get());
    EXPECT_EQ(0U, empty->capacity(empty.get()));
    EXPECT_EQ(3U, append(empty.get(), "abc"));
    EXPECT_EQ(-1, empty->init(empty.get(), 4194305));
    EXPECT_EQ("abc", unread(empty.get()));
    EXPECT_EQ(0, empty->init(empty.get(), 10));
    EXPECT_EQ(0U, empty->length(empty.get()));
    buffer_destroy(nullptr);
}

TEST(Buffer, GrowsByTheCountRoundedUp)
{
    for (const auto &[count, capacity] : {std::pair{1U, 8192U}, {4096U, 8192U}, {4097U, 12288U}, {5000U, 12288U}}) {
        const owned full{buffer_create()};
        buffer *b = full.get();
        append(b, std::string(4096, 'a'));
        EXPECT_EQ(4096U, b->capacity(b));
        EXPECT_EQ(count, append(b, std::string(count, 'b')));
        EXPECT_EQ(capacity, b->capacity(b)) << count;
        EXPECT_EQ(std::string(4096, 'a') + std::string(count, 'b'), unread(b));
    }
}

TEST(Buffer, QueueKeepsItsPlaceUntilDrained)
{
    const owned queue{buffer_create()};
    buffer *b = queue.get();
    const uint8_t *start = b->data(b);
    EXPECT_EQ(0U, b->append(b, nullptr, 4));
    EXPECT_EQ(0U, b->append(b, "x", 0));
    append(b, "hello world");
    char out[16] = {};
    EXPECT_EQ(0U, b->read(b, out, 0));
    EXPECT_EQ(6U, b->read(b, out, 6));
    EXPECT_STREQ("hello ", out);
    append(b, "!");
    EXPECT_EQ(start + 6, b->data(b)) << "unread bytes stay where they are";
    EXPECT_EQ("world!", unread(b));

    EXPECT_EQ(6U, b->read(b, nullptr, 100));
    EXPECT_EQ(start + 12, b->data(b)) << "reading alone reclaims nothing";
    b->rewind(b);
    EXPECT_EQ("hello world!", unread(b));
    b->read(b, nullptr, 12);
    append(b, "new");
    EXPECT_EQ(start, b->data(b));

    uint8_t *zeroes = b->append_zeroed(b, 2);
    EXPECT_EQ(start + 3, zeroes);
    EXPECT_EQ(std::string("new\0\0", 5), unread(b)) << "over what the area held before";
}

TEST(Buffer, FormattedTextIsOneText)
{
    const owned text{buffer_create()};
    buffer *b = text.get();
    EXPECT_EQ(3U, b->printf(b, "%s", "abc"));
    EXPECT_EQ('\0', b->data(b)[3]);
    EXPECT_EQ(1U, append(b, "d"));
    EXPECT_EQ("abcd", unread(b));
    EXPECT_EQ(0U, b->printf(b, "%s", ""));
    EXPECT_EQ(9U, b->printf(b, "<%s-%d>", reinterpret_cast<const char *>(b->data(b)), 42)) << "its own bytes";
    EXPECT_EQ("abcd<abcd-42>", unread(b).substr(0, 13));

    b->reset(b);
    EXPECT_EQ(4096U, b->printf(b, "%4096d", 7));
    EXPECT_EQ(4096U + 8192, b->capacity(b)) << "the NUL needs room too";
    EXPECT_EQ(4096U, b->length(b));
}

TEST(Buffer, AppendsItsOwnBytes)
{
    const owned self{buffer_create2(8)};
    buffer *b = self.get();
    append(b, "12345678");
    EXPECT_EQ(8U, b->append(b, b->data(b), 8)) << "the area moves";
    EXPECT_EQ("1234567812345678", unread(b));
    const uint8_t *tail = b->data(b) + 12;
    b->read(b, nullptr, 16);
    EXPECT_EQ(4U, b->append(b, tail, 4)) << "drained: written over the start";
    EXPECT_EQ("5678", unread(b));
}

TEST(Buffer, CloneCopiesTheUnread)
{
    const owned source{buffer_create2(10)};
    const owned fresh{source->clone(source.get())};
    EXPECT_EQ(4096U, fresh->capacity(fresh.get())) << "nothing to copy: a default buffer";
    append(source.get(), "abcdef");
    source->read(source.get(), nullptr, 2);
    const owned copy{source->clone(source.get())};
    EXPECT_EQ("cdef", unread(copy.get()));
    EXPECT_EQ(10U, copy->capacity(copy.get()));
    copy->rewind(copy.get());
    EXPECT_EQ("cdef", unread(copy.get()));
}

TEST(Buffer, PopFloorsLengthAndOffsetSeparately)
{
    const owned tail{buffer_create()};
    buffer *b = tail.get();
    append(b, "0123456789");
    buffer_pop(b, 3);
    EXPECT_EQ("0123456", unread(b));
    b->read(b, nullptr, 5);
    buffer_pop(b, 4);
    EXPECT_EQ(0U, b->length(b));
    b->rewind(b);
    EXPECT_EQ("012", unread(b)) << "the write offset went down by four";
    buffer_pop(b, UINT32_MAX);
    EXPECT_EQ(3U, append(b, "end"));
    EXPECT_EQ("end", unread(b));
}

TEST(Buffer, ResetShrinksAndZeroes)
{
    const owned grown{buffer_create2(100)};
    buffer *b = grown.get();
    append(b, std::string(5000, 'x'));
    b->reset(b);
    EXPECT_EQ(100U, b->capacity(b));
    b->append_zeroed(b, 100);
    EXPECT_EQ(std::string(100, '\0'), unread(b));

    append(b, std::string(5000, 'x'));
    if (!faults::can_refuse_memory) return;
    log_lines log;
    {
        const faults::refuse_memory none;
        b->reset(b);
    }
    EXPECT_THAT(log.take(),
                testing::ElementsAre(log_line{"warn", "buffer", "buffer_reset", "Failed to reallocate buffer"}));
    EXPECT_EQ(8292U, b->capacity(b));
    EXPECT_EQ(0U, b->length(b));
}

TEST(Buffer, SendsInOneCall)
{
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends));
    const owned out{buffer_create()};
    buffer *b = out.get();
    append(b, std::string(1 << 20, 's'));
    EXPECT_EQ(-1, b->send(b, -1, 0));
    const ssize_t sent = b->send(b, ends[0], MSG_NOSIGNAL);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 1 << 20) << "as much as the socket takes";
    EXPECT_EQ((1U << 20) - static_cast<uint32_t>(sent), b->length(b));
    while (b->send(b, ends[0], MSG_NOSIGNAL) > 0) {}
    EXPECT_EQ(EAGAIN, errno);
    close(ends[0]);
    close(ends[1]);
}

TEST(Buffer, WantOfMemoryLosesNothing)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    faults::for_each_allocation([] { const owned b{buffer_create()}; });
    const owned full{buffer_create2(4)};
    buffer *b = full.get();
    append(b, "full");
    const std::string long_text(1000, 'l');
    const faults::refuse_memory none(0, true);
    EXPECT_EQ(0U, b->append(b, "x", 1));
    EXPECT_EQ(0U, b->printf(b, "x"));
    EXPECT_EQ(0U, b->printf(b, "%s", long_text.c_str()));
    EXPECT_EQ(nullptr, b->append_zeroed(b, 1));
    EXPECT_EQ(nullptr, b->clone(b));
    EXPECT_EQ("full", unread(b));
    EXPECT_EQ(4U, b->capacity(b));
}

TEST(Buffer, TestLines)
{
    const owned lines{buffer_create()};
    buffer_fill(lines.get(), 101);
    const std::string text = unread(lines.get());
    const std::string digits = "12345678901234567890123456789012345678901234567890";
    EXPECT_EQ(0U, text.find("0001-0100 " + digits + digits.substr(0, 39) + "\n"));
    EXPECT_EQ(110U, text.find("0101-0200 "));
    EXPECT_EQ(11001U, text.find("10001-10100 "));
    EXPECT_EQ(11113U, text.size());
}
