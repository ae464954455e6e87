#include "site/local_peer.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/signal_storm.h"

#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <vela/ipc/sk_msg.h>
#include <vela/ipc/uds.h>

using namespace std::chrono_literals;
using namespace std::string_literals;
using site::bytes;
using testing::ElementsAre;
using testing::IsEmpty;
using clock_type = std::chrono::steady_clock;

namespace
{

constexpr int quick_s = 1;
constexpr int high = 1500; // a descriptor that select could not take

/// A message with a buffer of its own.
struct message : sk_msg {
    explicit message(int32_t t = 0, const bytes &b = {}) : sk_msg{t, static_cast<int32_t>(b.size()), buffer_create()}
    {
        data->append(data, b.data(), static_cast<uint32_t>(b.size()));
    }
    message(const message &) = delete;
    ~message() { buffer_destroy(data); }
    [[nodiscard]] bytes content() const { return {data->data(data), data->data(data) + data->length(data)}; }
};

/// A socket of ours under a high number, connected or not, and its peer.
struct wire {
    bool connected;
    site::local_peer peer{site::path_address("/tmp/theirs")};
    site::local_address theirs = site::path_address("/tmp/theirs");
    uds_sock ours = {};

    explicit wire(bool c) : connected{c}
    {
        const rlimit many = {high + 1, high + 1};
        setrlimit(RLIMIT_NOFILE, &many);
        const int low = uds_socket_create(c ? "/tmp/theirs" : "/tmp/ours", &ours, c ? 0 : 1);
        EXPECT_EQ(high, ours.fd = dup3(low, high, O_CLOEXEC));
        close(low);
        const int room = 1 << 20; // a socket counts as full at half of it
        setsockopt(high, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    }
    wire(const wire &) = delete;
    ~wire() { uds_sock_close(&ours); }

    void give(const bytes &datagram) { peer.send(site::path_address(ours.local.sun_path), datagram); }
    bytes take() { return peer.receive(0).value_or(site::local_peer::datagram{}).content; }
    int32_t send(const sk_msg &m) const
    {
        const auto *to = reinterpret_cast<const sockaddr *>(&theirs.address);
        return connected ? sk_msg_send(ours.fd, &m, quick_s) : sk_msg_sendto(ours.fd, &m, to, theirs.length);
    }
    int32_t receive(sk_msg &m, sockaddr_un *from = nullptr) const
    {
        sockaddr_un other = {};
        if (!from) from = &other;
        socklen_t length = sizeof *from;
        return connected ? sk_msg_recv(ours.fd, &m, quick_s)
                         : sk_msg_recvfrom(ours.fd, &m, reinterpret_cast<sockaddr *>(from), &length);
    }
};

bytes header(int32_t type, int32_t length)
{
    const int32_t fields[] = {type, length};
    const auto *raw = reinterpret_cast<const uint8_t *>(fields);
    return {raw, raw + sizeof fields};
}

bytes numbered(size_t n)
{
    bytes result(n);
    for (size_t i = 0; i < n; ++i) result[i] = static_cast<uint8_t>(i * 7 + i / 256);
    return result;
}

log_line line(const char *level, const std::string &function, const std::string &text)
{
    return {level, "sk_msg", function, text};
}
std::string reason(int number) { return "errno:" + std::to_string(number) + "/" + strerror(number); }

} // namespace

TEST(SkMsg, TravelsAsAHeaderAndPiecesOnEitherKindOfSocket)
{
    const leak_check nothing;
    for (const bool connected : {true, false}) {
        wire w{connected};
        for (const size_t length : {0, 1, 16384, 16385, 50000}) {
            const bytes data = numbered(length);
            const message out{-5, data};
            ASSERT_EQ(static_cast<int32_t>(length), w.send(out)) << length;
            EXPECT_EQ(data, out.content()) << "the buffer keeps its bytes";

            std::vector<bytes> expected{header(-5, static_cast<int32_t>(length))};
            for (auto at = data.begin(); at < data.end(); at += 16384)
                expected.emplace_back(at, std::min(at + 16384, data.end()));
            for (const auto &datagram : expected) {
                EXPECT_EQ(datagram, w.take());
                w.give(datagram);
            }
            EXPECT_THAT(w.take(), IsEmpty());

            message in;
            sockaddr_un from = {};
            ASSERT_EQ(static_cast<int32_t>(length), w.receive(in, &from));
            EXPECT_EQ(-5, in.type);
            EXPECT_EQ(data, in.content());
            EXPECT_STREQ(connected ? "" : "/tmp/theirs", from.sun_path);
        }
    }
    nothing.expect_unchanged();
}

TEST(SkMsg, RefusesWhatItCannotSendOrReceive)
{
    log_lines log;
    wire w{true};
    const int fd = w.ours.fd;
    message m{1, {1, 2}};
    message beyond{1, {1, 2}};
    beyond.len = 3;
    sk_msg bare = {1, 1, nullptr};
    sockaddr_un from = {};
    socklen_t length = sizeof from;
    auto *address = reinterpret_cast<sockaddr *>(&from);
    const int32_t results[] = {
        sk_msg_send(fd, nullptr, quick_s),
        sk_msg_send(-1, &m, quick_s),
        sk_msg_send(fd, &beyond, quick_s),
        sk_msg_send(fd, &bare, quick_s),
        sk_msg_recv(-1, &m, quick_s),
        sk_msg_sendto(fd, &m, nullptr, 0),
        sk_msg_sendto(fd, &beyond, address, length),
        sk_msg_recvfrom(-1, &m, address, &length),
        sk_msg_recvfrom(fd, &m, nullptr, &length),
    };
    EXPECT_THAT(results, testing::Each(-1));
    EXPECT_THAT(log.texts(), testing::AllOf(testing::SizeIs(std::size(results)), testing::Each("Invalid parameter")));
    EXPECT_THAT(w.take(), IsEmpty()) << "nothing went out";

    bare.len = -7;
    EXPECT_EQ(0, w.send(bare)) << "a header alone";
    EXPECT_EQ(header(1, -7), w.take());
}

TEST(SkMsg, AStuckPeerCostsTheTimeLimitEvenInASignalStormAndASlowOneNothing)
{
    log_lines log{"warn"};
    const message m{1, numbered(1 << 20)};
    for (const bool connected : {true, false}) {
        wire w{connected};
        const signal_storm storm;
        const auto limit = connected ? 1000ms : 3000ms;
        const auto start = clock_type::now();
        EXPECT_EQ(-1, w.send(m));
        EXPECT_EQ(ETIMEDOUT, errno);
        EXPECT_GE(clock_type::now() - start, limit);
        EXPECT_LT(clock_type::now() - start, limit + 2s);
        EXPECT_THAT(log.take(), ElementsAre(line("warn", connected ? "send_nonblocking" : "sendto_nonblocking",
                                                 "Connection Timeout!")));

        w.peer.serve([&] {
            std::this_thread::sleep_for(50ms);
            while (w.peer.receive()) {}
        });
        EXPECT_EQ(1 << 20, w.send(m));
    }
}

TEST(SkMsg, ReceivesWhateverAPeerMakesOfTheFraming)
{
    const bytes piece = numbered(16384);
    bytes filled = piece;
    std::fill(filled.begin() + 3, filled.end(), 0);
    bytes and_one = piece;
    and_one.push_back(0);
    const struct {
        std::vector<bytes> datagrams;
        int32_t result;
        bytes content;
        const char *what;
    } cases[] = {
        {{header(1, 16385), piece, {}}, 16385, and_one, "a piece of no bytes counts whole"},
        {{header(1, 16384), {piece[0], piece[1], piece[2]}}, 16384, filled, "a short piece is filled up with zeroes"},
        {{header(1, 2), {1, 2, 3, 4}}, 2, {1, 2}, "an over-long piece is cut"},
        {{header(1, -1)}, 0, {}, "a length near 2^32"},
        {{header(1, INT32_MIN)}, 0, {}, "the smallest length"},
        {{{9, 0, 0, 0}}, 0, {}, "half a header leaves the length alone"},
        {{{}}, 0, {}, "no header at all"},
        {{header(1, INT32_MAX), piece}, -1, piece, "of a length that never comes, what arrived stays"},
    };
    for (const bool connected : {true, false}) {
        wire w{connected};
        for (const auto &c : cases) {
            for (const auto &datagram : c.datagrams) w.give(datagram);
            message in;
            EXPECT_EQ(c.result, w.receive(in)) << c.what;
            EXPECT_EQ(c.content, in.content()) << c.what;
        }
        sk_msg bare = {};
        w.give(header(1, 2));
        w.give({1, 2});
        EXPECT_EQ(2, w.receive(bare)) << "without a buffer the data is dropped";
    }
}

TEST(SkMsg, SignalsEndTheWaitOfAConnectedSocketOnly)
{
    log_lines log;
    message in;
    const signal_storm storm;
    EXPECT_EQ(-1, wire{true}.receive(in));
    EXPECT_EQ(EINTR, errno);
    EXPECT_THAT(log.take(), IsEmpty());
    const auto start = clock_type::now();
    EXPECT_EQ(-1, wire{false}.receive(in));
    EXPECT_GE(clock_type::now() - start, 3s);
    EXPECT_LT(clock_type::now() - start, 5s);
    EXPECT_THAT(log.take(), ElementsAre(line("warn", "req_recv", "Select() timeout fd 1500")));
}

TEST(SkMsg, TellsWhatFailed)
{
    log_lines log;
    const message m{1, {7}};
    message in;
    for (const bool connected : {true, false}) {
        wire w{connected};
        const std::string step = connected ? "send_nonblocking" : "sendto_nonblocking";
        w.peer.stop();
        EXPECT_EQ(-1, w.send(m));
        EXPECT_EQ(line("debug", step, reason(connected ? ECONNREFUSED : ENOENT)), log.take().back());
        close(w.ours.fd);
        EXPECT_EQ(-1, w.send(m));
        EXPECT_EQ(line("error", step, "Select return -1! " + reason(EBADF)), log.take().back());
        EXPECT_EQ(-1, w.receive(in));
        const auto told = line("error", "req_recv", "Select() error from fd 1500" + reason(EBADF));
        EXPECT_EQ(std::vector(connected ? 0 : 1, told), log.take());
    }
    wire w{true};
    EXPECT_EQ(-1, sk_msg_send(w.ours.fd, &m, -1)) << "a negative time is no time";
    EXPECT_EQ(line("error", "send_nonblocking", "Select return -1! " + reason(EINVAL)), log.take().back());
    EXPECT_EQ(-1, sk_msg_recv(w.ours.fd, &in, -1));
}

TEST(SkMsg, LogsWhatTravels)
{
    log_lines log;
    const std::string text = "twenty-four characters..";
    const struct {
        bool connected;
        const char *sender, *receiver, *level, *shown;
    } cases[] = {{true, "sk_msg_send", "sk_msg_recv", "trace", "twenty-four characters.."},
                 {false, "sk_msg_sendto", "sk_msg_recvfrom", "debug", "twenty-four characte..."}};
    for (const auto &c : cases) {
        wire w{c.connected};
        w.send(message{3, bytes(text.begin(), text.end())});
        for (int i = 0; i < 2; ++i) w.give(w.take());
        message in;
        w.receive(in);
        EXPECT_THAT(log.take(), ElementsAre(line("debug", c.sender, "Send type:3, len:24, data:"s + c.shown),
                                            line(c.level, c.receiver, "Recv header type:3, len:24"),
                                            line("trace", c.receiver, "total_recv:24, buffer_sz:24"),
                                            line("trace", c.receiver, "Data:" + text)));
    }
}
