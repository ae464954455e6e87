#include "site/local_peer.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/signal_storm.h"

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vela/core/log.h>
#include <vela/ipc/sk_msg.h>

using namespace std::chrono_literals;
using site::bytes;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr int quick = 1; // seconds
using clock_type = std::chrono::steady_clock;

/// A message with a buffer of its own.
struct message : sk_msg {
    explicit message(int32_t t = 0, const bytes &content = {})
        : sk_msg{t, static_cast<int32_t>(content.size()), buffer_create()}
    {
        data->append(data, content.data(), static_cast<uint32_t>(content.size()));
    }
    message(const message &) = delete;
    ~message() { buffer_destroy(data); }
    [[nodiscard]] bytes content() const { return {data->data(data), data->data(data) + data->length(data)}; }
};

/// Two sockets at paths, connected to each other or not, under descriptors that select could not take.
struct wire {
    site::local_address ours = site::path_address("/tmp/ours");
    site::local_address theirs = site::path_address("/tmp/theirs");
    int fd;
    int peer;

    explicit wire(bool connected) : fd{bound(ours, 1500)}, peer{bound(theirs, 1501)}
    {
        EXPECT_TRUE(!connected || connect(fd, to(), theirs.length) == 0);
        const int room = 1 << 20;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    }
    wire(const wire &) = delete;
    ~wire()
    {
        close(fd);
        close(peer);
        unlink("/tmp/ours");
        unlink("/tmp/theirs");
    }
    [[nodiscard]] const sockaddr *to() const { return reinterpret_cast<const sockaddr *>(&theirs.address); }
    void give(const bytes &datagram) const
    {
        EXPECT_EQ(static_cast<ssize_t>(datagram.size()),
                  sendto(peer, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&ours.address),
                         ours.length));
    }
    [[nodiscard]] bytes take() const
    {
        bytes datagram(1 << 17);
        const ssize_t n = recv(peer, datagram.data(), datagram.size(), MSG_DONTWAIT);
        datagram.resize(n < 0 ? 0 : static_cast<size_t>(n));
        return datagram;
    }

private:
    static int bound(const site::local_address &at, int number)
    {
        const rlimit many = {2048, 2048};
        setrlimit(RLIMIT_NOFILE, &many);
        const int low = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, bind(low, reinterpret_cast<const sockaddr *>(&at.address), at.length));
        EXPECT_EQ(number, dup3(low, number, O_CLOEXEC));
        close(low);
        return number;
    }
};

bytes header(int32_t type, int32_t length)
{
    bytes result(8);
    memcpy(result.data(), &type, 4);
    memcpy(result.data() + 4, &length, 4);
    return result;
}

bytes numbered(size_t n)
{
    bytes result(n);
    for (size_t i = 0; i < n; ++i) result[i] = static_cast<uint8_t>(i * 7 + i / 256);
    return result;
}

int32_t send_on(const wire &w, const sk_msg &m, bool connected)
{
    return connected ? sk_msg_send(w.fd, &m, quick) : sk_msg_sendto(w.fd, &m, w.to(), w.theirs.length);
}

int32_t receive_on(const wire &w, sk_msg &m, bool connected, site::local_address *from = nullptr)
{
    site::local_address other;
    if (!from) from = &other;
    from->length = sizeof from->address;
    return connected ? sk_msg_recv(w.fd, &m, quick)
                     : sk_msg_recvfrom(w.fd, &m, reinterpret_cast<sockaddr *>(&from->address), &from->length);
}

std::string error_text(int number) { return std::to_string(number) + "/" + strerror(number); }

} // namespace

TEST(SkMsg, TravelsAsAHeaderAndPiecesOnEitherKindOfSocket)
{
    const leak_check nothing;
    for (const bool connected : {true, false}) {
        const wire w{connected};
        for (const size_t length : {0, 1, 16383, 16384, 16385, 70000}) {
            const bytes data = numbered(length);
            const message out{-5, data};
            ASSERT_EQ(static_cast<int32_t>(length), send_on(w, out, connected)) << length;
            EXPECT_EQ(data, out.content()) << "the buffer keeps its bytes";

            const bytes first = w.take();
            EXPECT_EQ(header(-5, static_cast<int32_t>(length)), first);
            w.give(first);
            for (size_t at = 0; at < length; at += 16384) {
                const size_t piece = std::min<size_t>(length - at, 16384);
                const bytes datagram = w.take();
                EXPECT_EQ(
                    bytes(data.begin() + static_cast<ptrdiff_t>(at), data.begin() + static_cast<ptrdiff_t>(at + piece)),
                    datagram);
                w.give(datagram);
            }
            EXPECT_THAT(w.take(), IsEmpty());

            message in;
            site::local_address from;
            ASSERT_EQ(static_cast<int32_t>(length), receive_on(w, in, connected, &from));
            EXPECT_EQ(-5, in.type);
            EXPECT_EQ(data, in.content());
            if (!connected) {
                EXPECT_STREQ("/tmp/theirs", from.address.sun_path);
                EXPECT_EQ(w.theirs.length + 1, from.length) << "with the NUL that the kernel adds";
            }
        }
    }
    nothing.expect_unchanged();
}

TEST(SkMsg, RefusesWhatItCannotSendOrReceive)
{
    log_lines log;
    const wire w{true};
    message m{1, {1, 2}};
    message beyond{1, {1, 2}};
    beyond.len = 3;
    sk_msg bare = {1, 1, nullptr};
    site::local_address from;
    auto *address = reinterpret_cast<sockaddr *>(&from.address);
    EXPECT_EQ(-1, sk_msg_send(w.fd, nullptr, quick));
    EXPECT_EQ(-1, sk_msg_send(-1, &m, quick));
    EXPECT_EQ(-1, sk_msg_send(w.fd, &beyond, quick));
    EXPECT_EQ(-1, sk_msg_send(w.fd, &bare, quick));
    EXPECT_EQ(-1, sk_msg_recv(-1, &m, quick));
    EXPECT_EQ(-1, sk_msg_sendto(w.fd, nullptr, w.to(), w.theirs.length));
    EXPECT_EQ(-1, sk_msg_sendto(w.fd, &m, nullptr, 0));
    EXPECT_EQ(-1, sk_msg_sendto(-1, &m, w.to(), w.theirs.length));
    EXPECT_EQ(-1, sk_msg_sendto(w.fd, &beyond, w.to(), w.theirs.length));
    EXPECT_EQ(-1, sk_msg_recvfrom(-1, &m, address, &from.length));
    EXPECT_EQ(-1, sk_msg_recvfrom(w.fd, nullptr, address, &from.length));
    EXPECT_EQ(-1, sk_msg_recvfrom(w.fd, &m, nullptr, &from.length));
    const auto texts = log.texts();
    EXPECT_EQ(12U, texts.size());
    EXPECT_THAT(texts, testing::Each("Invalid parameter"));
    EXPECT_THAT(w.take(), IsEmpty()) << "nothing went out";

    bare.len = -7;
    EXPECT_EQ(0, sk_msg_send(w.fd, &bare, quick)) << "a header alone";
    EXPECT_EQ(header(1, -7), w.take());
}

TEST(SkMsg, AStuckPeerCostsTheTimeLimitEvenInASignalStorm)
{
    log_lines log{"warn"};
    const message m{1, numbered(20 * 16384)};
    for (const bool connected : {true, false}) {
        const wire w{connected};
        const signal_storm storm;
        const auto limit = connected ? 1000ms : 3000ms;
        const auto start = clock_type::now();
        EXPECT_EQ(-1, send_on(w, m, connected));
        EXPECT_EQ(ETIMEDOUT, errno);
        EXPECT_GE(clock_type::now() - start, limit);
        EXPECT_LT(clock_type::now() - start, limit + 500ms);
        EXPECT_THAT(log.take(),
                    ElementsAre(log_line{"warn", "sk_msg", connected ? "send_nonblocking" : "sendto_nonblocking",
                                         "Connection Timeout!"}));
    }
}

TEST(SkMsg, WaitsForAReaderThatIsSlowToStart)
{
    for (const bool connected : {true, false}) {
        const wire w{connected};
        const bytes data = numbered(1 << 20);
        size_t received = 0;
        std::thread reader([&] {
            std::this_thread::sleep_for(50ms);
            bytes datagram(16384);
            while (received < 8 + data.size())
                received += static_cast<size_t>(recv(w.peer, datagram.data(), datagram.size(), 0));
        });
        EXPECT_EQ(1 << 20, send_on(w, message{1, data}, connected));
        reader.join();
    }
}

TEST(SkMsg, ReceivesWhateverAPeerMakesOfTheFraming)
{
    const bytes piece = numbered(16384);
    bytes filled = numbered(16384);
    std::fill(filled.begin() + 3, filled.end(), 0);
    bytes two = piece;
    two.resize(16385);
    const struct {
        std::vector<bytes> datagrams;
        int32_t result;
        bytes content;
        const char *what;
    } cases[] = {
        {{header(1, 16385), piece, {}}, 16385, two, "a piece of no bytes counts whole"},
        {{header(1, 16384), {piece[0], piece[1], piece[2]}}, 16384, filled, "a short piece is filled up with zeroes"},
        {{header(1, 2), {1, 2, 3, 4}}, 2, {1, 2}, "an over-long piece is cut"},
        {{header(1, 16385), piece}, -1, piece, "what arrived stays"},
        {{header(1, INT32_MAX), piece}, -1, piece, "a length that never comes"},
        {{header(1, -1)}, 0, {}, "a length near 2^32"},
        {{header(1, INT32_MIN)}, 0, {}, "the smallest length"},
        {{{9, 0, 0, 0}}, 0, {}, "half a header leaves the length alone"},
        {{{}}, 0, {}, "no header at all"},
    };
    for (const bool connected : {true, false}) {
        const wire w{connected};
        for (const auto &c : cases) {
            if (!connected && c.result < 0) continue; // a second each is enough
            for (const auto &datagram : c.datagrams) w.give(datagram);
            message in;
            EXPECT_EQ(c.result, receive_on(w, in, connected)) << c.what;
            EXPECT_EQ(c.content, in.content()) << c.what;
        }
    }
    const wire w{true};
    w.give(header(1, 2));
    w.give({1, 2});
    sk_msg bare = {};
    EXPECT_EQ(2, sk_msg_recv(w.fd, &bare, quick)) << "without a buffer the data is dropped";
}

TEST(SkMsg, SilenceEndsAReceiveAndSignalsOnlyThatOfAConnectedOne)
{
    log_lines log;
    const wire w{true};
    const signal_storm storm;
    message in;
    auto start = clock_type::now();
    EXPECT_EQ(-1, sk_msg_recv(w.fd, &in, 3));
    EXPECT_EQ(EINTR, errno);
    EXPECT_LT(clock_type::now() - start, 1s);
    EXPECT_THAT(log.take(), IsEmpty());

    start = clock_type::now();
    EXPECT_EQ(-1, receive_on(w, in, false));
    EXPECT_GE(clock_type::now() - start, 3s);
    EXPECT_LT(clock_type::now() - start, 3500ms);
    EXPECT_THAT(log.take(), ElementsAre(log_line{"warn", "sk_msg", "req_recv", "Select() timeout fd 1500"}));
}

TEST(SkMsg, TellsWhatFailed)
{
    log_lines log;
    const message m{1, {7}};
    message in;
    int fd = 0;
    {
        const wire w{true};
        fd = w.fd;
        shutdown(w.peer, SHUT_RD);
        EXPECT_EQ(-1, sk_msg_send(fd, &m, quick));
        EXPECT_EQ((log_line{"debug", "sk_msg", "send_nonblocking", "errno:" + error_text(EPIPE)}), log.take().back());
        EXPECT_EQ(-1, sk_msg_send(fd, &m, -1));
        EXPECT_EQ((log_line{"error", "sk_msg", "send_nonblocking", "Select return -1! errno:" + error_text(EINVAL)}),
                  log.take().back());
        EXPECT_EQ(-1, sk_msg_recv(fd, &in, -1));
    }
    {
        const wire gone{false};
        close(gone.fd);
        EXPECT_EQ(-1, send_on(gone, m, false));
        EXPECT_EQ((log_line{"error", "sk_msg", "sendto_nonblocking", "Select return -1! errno:" + error_text(EBADF)}),
                  log.take().back());
        EXPECT_EQ(-1, receive_on(gone, in, false));
        EXPECT_EQ((log_line{"error", "sk_msg", "req_recv", "Select() error from fd 1500errno:" + error_text(EBADF)}),
                  log.take().back());
        EXPECT_EQ(-1, receive_on(gone, in, true));
        EXPECT_THAT(log.take(), IsEmpty());
    }
    if (!faults::can_refuse_memory) return;
    const wire w{true};
    w.give(header(1, 5000));
    w.give(numbered(5000));
    const faults::refuse_memory none{0, true};
    libvela_log_level = 0; // a log line would want memory too
    EXPECT_EQ(-1, sk_msg_recv(w.fd, &in, quick)) << "a buffer that cannot grow";
}

TEST(SkMsg, LogsWhatTravels)
{
    log_lines log;
    const std::string text = "twenty-four characters..";
    for (const bool connected : {true, false}) {
        const wire w{connected};
        send_on(w, message{3, bytes(text.begin(), text.end())}, connected);
        const std::string sender = connected ? "sk_msg_send" : "sk_msg_sendto";
        const std::string receiver = connected ? "sk_msg_recv" : "sk_msg_recvfrom";
        const std::string shown = connected ? text : text.substr(0, 20) + "...";
        EXPECT_THAT(log.take(), ElementsAre(log_line{"debug", "sk_msg", sender, "Send type:3, len:24, data:" + shown}));
        w.give(w.take());
        w.give(w.take());
        message in;
        receive_on(w, in, connected);
        EXPECT_THAT(log.take(), ElementsAre(log_line{connected ? "trace" : "debug", "sk_msg", receiver,
                                                     "Recv header type:3, len:24"},
                                            log_line{"trace", "sk_msg", receiver, "total_recv:24, buffer_sz:24"},
                                            log_line{"trace", "sk_msg", receiver, "Data:" + text}));
    }
    const wire w{true};
    w.give(header(3, 0));
    libvela_log_use_syslog = 1;
    message in;
    receive_on(w, in, true);
    EXPECT_EQ(2U, log.take().size()) << "no data in the system log";
}
