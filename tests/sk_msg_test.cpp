#include "site/media_listener.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/signal_storm.h"
#include "tests/support/table.h"

#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <vela/ipc/sk_msg.h>
#include <vela/ipc/uds.h>

using namespace std::chrono_literals;
using site::bytes;
using testing::ElementsAre, testing::IsEmpty;
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
    int32_t receive(sk_msg &m, sockaddr_un from = {}) const
    {
        socklen_t length = sizeof from;
        const int32_t result = connected ? sk_msg_recv(ours.fd, &m, quick_s)
                                         : sk_msg_recvfrom(ours.fd, &m, reinterpret_cast<sockaddr *>(&from), &length);
        if (!connected && result >= 0) EXPECT_STREQ("/tmp/theirs", from.sun_path);
        return result;
    }
};

bytes header(int32_t type, int32_t length)
{
    const int32_t fields[] = {type, length};
    const auto *raw = reinterpret_cast<const uint8_t *>(fields);
    return {raw, raw + sizeof fields};
}

bytes letters(size_t n)
{
    bytes result(n);
    for (size_t i = 0; i < n; ++i) result[i] = static_cast<uint8_t>('a' + (i + i / 256) % 26);
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
        log_lines log;
        wire w{connected};
        for (const size_t length : {0, 4096, 16384, 16385, 50000}) { // 4096 leaves its buffer no room for a NUL
            const bytes data = letters(length);
            const message out{1, data};
            ASSERT_EQ(static_cast<int32_t>(length), w.send(out)) << length;
            EXPECT_EQ(data, out.content()) << "the buffer keeps its bytes";
            // The media listener's idea of such a message, made without the library.
            for (const auto &[datagram, delay_ms] : site::media_text({data.begin(), data.end()})) {
                EXPECT_EQ(datagram, w.take());
                w.give(datagram);
            }
            EXPECT_THAT(w.take(), IsEmpty());

            message in;
            ASSERT_EQ(static_cast<int32_t>(length), w.receive(in));
            EXPECT_EQ(1, in.type);
            EXPECT_EQ(data, in.content());
        }
        EXPECT_EQ(line(connected ? "trace" : "debug", connected ? "sk_msg_recv" : "sk_msg_recvfrom",
                       "Recv header type:1, len:0"),
                  log.take().at(1));
    }
    nothing.expect_unchanged();
}

TEST(SkMsg, AStuckPeerCostsTheTimeLimitEvenInASignalStormAndASlowOneNothing)
{
    log_lines log{"warn"};
    const message m{1, letters(1 << 20)};
    const table<bool, std::chrono::seconds, const char *> cases = {{true, 1s, "send_nonblocking"},
                                                                   {false, 3s, "sendto_nonblocking"}};
    for (const auto &[connected, limit, step] : cases) {
        wire w{connected};
        const signal_storm storm;
        const auto start = clock_type::now();
        EXPECT_EQ(-1, w.send(m));
        EXPECT_EQ(ETIMEDOUT, errno);
        EXPECT_GE(clock_type::now() - start, limit);
        EXPECT_LT(clock_type::now() - start, limit + 2s);
        EXPECT_THAT(log.take(), ElementsAre(line("warn", step, "Connection Timeout!")));

        w.peer.serve([&] {
            std::this_thread::sleep_for(50ms);
            while (w.peer.receive()) {}
        });
        EXPECT_EQ(1 << 20, w.send(m));
    }
}

TEST(SkMsg, ReceivesWhateverAPeerMakesOfTheFraming)
{
    const bytes piece = letters(16384);
    bytes filled(16384);
    std::copy_n(piece.begin(), 3, filled.begin());
    bytes and_one = piece;
    and_one.push_back(0);
    const table<std::vector<bytes>, int32_t, bytes, const char *> cases = {
        {{header(1, 16385), piece, {}}, 16385, and_one, "a piece of no bytes counts whole"},
        {{header(1, 16384), {'a', 'b', 'c'}}, 16384, filled, "a short piece is filled up with zeroes"},
        {{header(1, 2), {1, 2, 3, 4}}, 2, {1, 2}, "an over-long piece is cut"},
        {{header(1, INT32_MIN)}, 0, {}, "the smallest length"},
        {{{9, 0, 0, 0}}, 0, {}, "half a header leaves the length alone"},
        {{header(1, INT32_MAX), piece}, -1, piece, "of a length that never comes, what arrived stays"},
    };
    log_lines log{"warn"};
    for (const bool connected : {true, false}) {
        const signal_storm storm(connected ? 0 : 1000); // on purpose, a signal ends the wait of a connected socket
        wire w{connected};
        for (const auto &[datagrams, result, content, what] : cases) {
            for (const auto &datagram : datagrams) w.give(datagram);
            message in;
            EXPECT_EQ(result, w.receive(in)) << what;
            EXPECT_EQ(content, in.content()) << what;
        }
    }
    EXPECT_THAT(log.take(), ElementsAre(line("warn", "req_recv", "Select() timeout fd 1500")));
}

TEST(SkMsg, RefusesWhatItCannotSendAndDropsWhatItCannotHold)
{
    log_lines log{"debug"};
    message beyond{1, {'h', 'i', '!'}};
    beyond.data->read(beyond.data, nullptr, 1); // what was read does not count, what is behind the data does
    buffer_pop(beyond.data, 1);
    sk_msg bare = {1, 1, nullptr};
    for (const bool connected : {true, false}) {
        wire w{connected};
        beyond.len = BUFFER_DEFAULT_CAPACITY - 1;
        EXPECT_EQ(beyond.len, w.send(beyond));
        EXPECT_EQ(8U, w.take().size());
        EXPECT_EQ(static_cast<size_t>(beyond.len), w.take().size());
        log.take();
        ++beyond.len;
        EXPECT_EQ(-1, w.send(beyond));
        EXPECT_EQ(-1, w.send(bare));
        EXPECT_THAT(log.texts(), ElementsAre("Invalid parameter", "Invalid parameter"));
        EXPECT_THAT(w.take(), IsEmpty()) << "nothing went out";
    }
    wire w{true};
    bare.len = -7;
    EXPECT_EQ(-1, sk_msg_send(high, &bare, -1)) << "a negative time is no time";
    EXPECT_EQ(line("error", "send_nonblocking", "Select return -1! " + reason(EINVAL)), log.take().back());
    EXPECT_EQ(0, w.send(bare));
    EXPECT_EQ(header(1, -7), w.take()) << "a header alone";
    w.give(header(1, 2));
    w.give({1, 2});
    EXPECT_EQ(2, w.receive(bare)) << "without a buffer the data is dropped";
    close(high);
    w.connected = false;
    EXPECT_EQ(-1, w.receive(bare));
    EXPECT_EQ(line("error", "req_recv", "Select() error from fd 1500" + reason(EBADF)), log.take().back());
}
