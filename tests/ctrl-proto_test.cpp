#include "site/mgrd.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/signal_storm.h"

#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <malloc.h>
#include <memory>
#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>
#include <vela/ipc/ctrl-proto.h>

using namespace std::chrono_literals;
using site::bytes;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace
{

using message = std::unique_ptr<ctrl_msg, decltype(&ctrl_msg_destroy)>;
using clock_type = std::chrono::steady_clock;

constexpr timeval one_second = {1, 0};

message owned(ctrl_msg *m) { return {m, ctrl_msg_destroy}; }
bytes content(const ctrl_msg &m) { return {m.buffer, m.buffer + m.total_len}; }
std::string repeated(size_t n) { return std::string(n, 'x'); }

/// The value, dumped and released; "null" for none.
std::string dumped(json_t *value)
{
    char *text = value ? json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY) : nullptr;
    const std::string result = text ? text : "null";
    free(text);
    json_decref(value);
    return result;
}

log_line error(const std::string &function, const std::string &text) { return {"error", "mgr-proto", function, text}; }

struct socket_pair {
    int ours = -1;
    int theirs = -1;
    socket_pair()
    {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds) == 0)
            std::tie(ours, theirs) = std::pair(fds[0], fds[1]);
    }
    ~socket_pair()
    {
        close(ours);
        close(theirs);
    }
    void give(const bytes &datagram) const
    {
        EXPECT_EQ(static_cast<ssize_t>(datagram.size()), send(theirs, datagram.data(), datagram.size(), 0));
    }
};

} // namespace

TEST(CtrlProto, TypesHaveNames)
{
    constexpr struct {
        uint32_t type;
        const char *name;
    } cases[] = {{0, "STATUS"}, {1, "JSON"}, {2, "UNKNOWN"}, {254, "SUCCESS"}, {255, "ERROR"}, {256, "UNKNOWN"}};
    for (const auto &c : cases) EXPECT_STREQ(c.name, ctrl_type_to_string(c.type)) << c.type;
}

TEST(CtrlProto, AttributesAndMessagesAreLaidOutAsTheyTravel)
{
    for (const char *data : {"abc", ""}) {
        const auto length = static_cast<uint32_t>(strlen(data));
        ctrl_attribute *a = ctrl_attribute_create(0x0201, data, length);
        const auto *raw = reinterpret_cast<const uint8_t *>(a);
        EXPECT_EQ(site::control_attribute(0x0201, bytes(data, data + length)), bytes(raw, raw + 6 + length));
        ctrl_attribute_destroy(a);
    }
    const message m = owned(ctrl_msg_build("/tmp/there", 255, "xyz", 3));
    EXPECT_EQ(site::control_message(255, {'x', 'y', 'z'}), content(*m));
    EXPECT_EQ(AF_UNIX, m->addr.sun_family);
    EXPECT_STREQ("/tmp/there", m->addr.sun_path);
    EXPECT_EQ(12U, m->addr_len);
    ctrl_attribute_destroy(nullptr);
    ctrl_msg_destroy(nullptr);
}

TEST(CtrlProto, LimitsOfAMessage)
{
    const bytes payload(1048565, 7);
    const struct {
        size_t length, path;
        int error;
    } cases[] = {{1048564, 107, 0}, {1048565, 107, EMSGSIZE}, {UINT32_MAX, 4, EMSGSIZE}, {0, 108, ENAMETOOLONG}};
    for (const auto &c : cases) {
        errno = 0;
        const message m =
            owned(ctrl_msg_build(repeated(c.path).c_str(), 1, payload.data(), static_cast<uint32_t>(c.length)));
        EXPECT_EQ(c.error == 0, m != nullptr) << c.length << " bytes to a path of " << c.path;
        EXPECT_EQ(c.error, errno);
        EXPECT_EQ(c.error == 0 ? 1048576U : 0U, m ? m->total_len : 0U);
    }
}

TEST(CtrlProto, WantOfMemoryEndsTheProcess)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    for (const int nth : {0, 1}) {
        EXPECT_EXIT(
            {
                const faults::refuse_memory none(nth);
                ctrl_msg_build("/tmp/there", 1, "x", 1);
            },
            testing::ExitedWithCode(1), "ctrl-proto:[0-9]+: Out of memory");
    }
}

TEST(CtrlProto, SendsInAnnouncedChunks)
{
    site::local_peer there{site::path_address("/tmp/there")};
    const int sock = ctrl_socket_create("/tmp/here");
    for (const uint32_t length : {0U, 16384U - 12, 16385U - 12, 3 * 16384U - 12}) {
        const bytes payload(length, 0x5A);
        const message m = owned(ctrl_msg_build("/tmp/there", 1, payload.data(), length));
        ASSERT_EQ(static_cast<ssize_t>(m->total_len), ctrl_msg_send(sock, m.get()));
        for (const auto &expected : site::in_chunks(content(*m))) {
            EXPECT_EQ(expected.content, there.receive(0).value_or(site::local_peer::datagram{}).content) << length;
        }
        EXPECT_FALSE(there.receive(0)) << length << ": more than announced";
    }
    EXPECT_EQ(-1, ctrl_msg_send(sock, nullptr));

    // A queue that fills up on the way: what went out stays out, and the first failure ends it.
    fcntl(sock, F_SETFL, O_NONBLOCK);
    const bytes payload(20 * 16384, 1);
    const message m = owned(ctrl_msg_build("/tmp/there", 1, payload.data(), static_cast<uint32_t>(payload.size())));
    EXPECT_EQ(-1, ctrl_msg_send(sock, m.get()));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_TRUE(there.receive(0));
    close(sock);
    unlink("/tmp/here");
}

TEST(CtrlProto, BindsItsSocketInPlaceOfAnything)
{
    log_lines log;
    site::put_file("/tmp/here", "stale");
    const std::string longest = "/tmp/" + repeated(102);
    for (const std::string &path : {std::string("/tmp/here"), longest}) {
        const int sock = ctrl_socket_create(path.c_str());
        timeval limit = {};
        socklen_t size = sizeof limit;
        EXPECT_EQ(0, getsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, &size));
        EXPECT_EQ(10, limit.tv_sec);
        EXPECT_EQ(FD_CLOEXEC, fcntl(sock, F_GETFD));
        sockaddr_un name = {};
        size = sizeof name;
        getsockname(sock, reinterpret_cast<sockaddr *>(&name), &size);
        EXPECT_EQ(path, std::string(name.sun_path, strnlen(name.sun_path, sizeof name.sun_path)));
        close(sock);
        unlink(path.c_str());
    }

    const leak_check nothing;
    EXPECT_EQ(-1, ctrl_socket_create((longest + "x").c_str()));
    EXPECT_EQ(ENAMETOOLONG, errno);
    EXPECT_EQ(-1, ctrl_socket_create("/tmp/missing/here"));
    EXPECT_EQ(ENOENT, errno);
    {
        const faults::refuse none(faults::call::socket, EMFILE);
        EXPECT_EQ(-1, ctrl_socket_create("/tmp/here"));
        EXPECT_EQ(EMFILE, errno);
    }
    nothing.expect_unchanged();

    const faults::refuse limit(faults::call::setsockopt, EDOM);
    const int sock = ctrl_socket_create("/tmp/here");
    EXPECT_GE(sock, 0) << "only the limit is missing";
    EXPECT_THAT(log.take(), ElementsAre(error("ctrl_socket_create",
                                              std::string("error setting SO_SNDTIMEO: 33/") + strerror(EDOM))));
    close(sock);
}

TEST(CtrlProto, ReceivesWholeMessagesAndRefusesEveryBreachOfTheFraming)
{
    log_lines log;
    const auto h = site::chunk_header;
    constexpr uint32_t largest = 1048576;
    const bytes full(16384, 1);
    const std::string timed_out = std::to_string(ETIMEDOUT) + "/" + strerror(ETIMEDOUT);
    const struct {
        std::vector<bytes> datagrams;
        std::string fault; // "" where the message arrives
    } cases[] = {
        {{h(3, 3, 0), bytes(3)}, ""},
        {{h(5, 2, 1), bytes(2), h(5, 3, 0), bytes(3)}, ""},
        {{h(16385, 16384, 7), full, h(16385, 1, 0), bytes(1)}, ""},
        {{h(3, 3, 0), bytes(9)}, ""}, // cut to what was announced
        {{}, "recvfrom header: " + timed_out},
        {{bytes(11)}, "short header"},
        {{bytes{}}, "short header"},
        {{h(3, 0, 0)}, "invalid header"},
        {{h(largest, 16385, 1)}, "invalid header"},
        {{h(UINT32_MAX, UINT32_MAX, 0)}, "invalid header"},
        {{h(3, 4, 0)}, "invalid header total length"},
        {{h(0, 1, 0)}, "invalid header total length"},
        {{h(largest + 1, 16384, 1)}, "invalid header total length"},
        {{h(UINT32_MAX, 1, 1)}, "invalid header total length"},
        {{h(5, 2, 1), bytes(2), h(6, 3, 0)}, "invalid header total length (changed mid-stream)"},
        {{h(5, 5, 1), bytes(5), h(5, 1, 0)}, "buffer overflow"},
        {{h(5, 2, 1), bytes(2), h(5, 4, 0)}, "received data exceeds total length"},
        {{h(3, 3, 0)}, "recvfrom payload: " + timed_out},
        {{h(3, 3, 0), bytes(2)}, "short payload: got 2, expected 3"},
        {{h(5, 2, 0), bytes(2)}, "invalid response length"},
    };
    const leak_check nothing;
    for (const auto &c : cases) {
        const socket_pair pair;
        bytes sent;
        for (size_t i = 0; i < c.datagrams.size(); ++i) {
            pair.give(c.datagrams[i]);
            if (i % 2 != 0) sent = site::joined({sent, c.datagrams[i]});
        }
        constexpr timeval timeout = {0, 20000};
        const message m = owned(ctrl_response_wait(pair.ours, &timeout));
        EXPECT_EQ(c.fault.empty(), m != nullptr) << c.fault;
        if (c.fault.empty()) {
            sent.resize(m->total_len);
            EXPECT_EQ(sent, content(*m));
        } else {
            EXPECT_THAT(log.take(), ElementsAre(error("ctrl_response_wait", c.fault)));
        }
    }
    nothing.expect_unchanged();
    EXPECT_EQ(nullptr, ctrl_response_wait(-1, &one_second));
    const faults::refuse clock(faults::call::clock_gettime, EINVAL);
    EXPECT_EQ(nullptr, ctrl_response_wait(0, &one_second));
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

TEST(CtrlProto, TheDeadlineHoldsInASignalStormAndAgainstADripFeed)
{
    for (const bool drip : {false, true}) {
        const socket_pair pair;
        std::atomic<bool> done = false;
        std::thread feeder([&] {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_SETMASK, &all, nullptr);
            while (drip && !done) {
                for (const bytes &datagram : {site::chunk_header(1048576, 1, 1), bytes(1)})
                    send(pair.theirs, datagram.data(), datagram.size(), MSG_DONTWAIT);
                std::this_thread::sleep_for(5ms);
            }
        });
        const signal_storm storm;
        constexpr timeval timeout = {0, 200000};
        const auto start = clock_type::now();
        EXPECT_EQ(nullptr, ctrl_response_wait(pair.ours, &timeout));
        EXPECT_EQ(ETIMEDOUT, errno);
        EXPECT_GE(clock_type::now() - start, 199ms);
        EXPECT_LT(clock_type::now() - start, 400ms);
        done = true;
        feeder.join();
    }
    const socket_pair pair;
    pair.give(site::chunk_header(1, 1, 0));
    pair.give(bytes(1));
    for (const timeval timeout : {timeval{0, 0}, timeval{-5, 0}, timeval{INT64_MIN, INT64_MIN}}) {
        EXPECT_EQ(nullptr, ctrl_response_wait(pair.ours, &timeout)) << "no time, whatever is there";
    }
    constexpr timeval forever = {INT64_MAX, INT64_MAX};
    EXPECT_NE(nullptr, owned(ctrl_response_wait(pair.ours, &forever)));
}

TEST(Service, AsksTheDaemonAndReturnsItsAnswer)
{
    site::mgrd daemon{[](const std::string &request) { return site::json_answer("{\"echo\":" + request + "}"); }};
    const leak_check nothing;
    EXPECT_EQ(R"({"echo":{"op":"status"}})", dumped(service_simple_op("status", &one_second)));
    EXPECT_EQ(R"({"echo":{"op":"a","b":"c"}})", dumped(service_simple_op(R"(a","b":"c)", &one_second)))
        << "as it stands";

    buffer *text = buffer_create();
    text->printf(text, "[\"%s\"]", repeated(100000).c_str());
    EXPECT_EQ("{\"echo\":[\"" + repeated(100000) + "\"]}", dumped(service_json(text, &one_second)));
    EXPECT_EQ(100004U, text->length(text)) << "the request stays";
    text->reset(text);
    text->append(text, "[1]x", 4);
    buffer_pop(text, 1);
    EXPECT_EQ(R"({"echo":[1]})", dumped(service_json(text, &one_second))) << "a text without a NUL of its own";
    buffer_destroy(text);
    nothing.expect_unchanged();
    EXPECT_THAT(daemon.faults(), testing::IsEmpty());
}

TEST(Service, RefusesAnswersThatAreNotTheDaemons)
{
    using site::control_attribute, site::control_message, site::text_bytes;
    bytes short_length = control_message(1, control_attribute(1, text_bytes("{}")));
    short_length[8] ^= 1;
    bytes bad_magic = control_message(1, control_attribute(1, text_bytes("{}")));
    bad_magic[0] = 0;
    auto stranger = site::json_answer("{}");
    for (auto &datagram : stranger) datagram.from_stranger = true;
    const std::pair<site::mgrd_answer, const char *> cases[] = {
        {site::in_chunks(bytes(11)), "eleven bytes"},
        {site::in_chunks(short_length), "length"},
        {site::in_chunks(bad_magic), "magic"},
        {stranger, "sender"},
    };
    site::mgrd_answer answer;
    site::mgrd daemon{[&](const std::string &) { return answer; }};
    log_lines log;
    const leak_check nothing;
    for (const auto &[bad, what] : cases) {
        answer = bad;
        EXPECT_EQ(nullptr, service_simple_op("status", &one_second)) << what;
        const auto lines = log.take();
        ASSERT_EQ(2U, lines.size()) << what;
        EXPECT_EQ("[warn] mgr-proto.service()", testing::PrintToString(lines[0]).substr(0, 26));
        EXPECT_THAT(lines[0].text, MatchesRegex("Invalid response from '/tmp/\\.mgr-[A-Za-z0-9]{6}'"));
        EXPECT_EQ((log_line{"info", "mgr-proto", "service_json", "failed to contact mgrd"}), lines[1]);
        nothing.expect_unchanged();
    }
}

TEST(Service, FindsTheJsonAttributeOfAnyAnswer)
{
    using site::control_attribute, site::control_message, site::joined, site::text_bytes;
    const bytes json = control_attribute(1, text_bytes("{\"a\":1}"));
    bytes overrun = control_attribute(2, bytes(4));
    overrun[5] = 0xFF; // a length near 2^32
    bytes unended = control_attribute(1, {'[', ']'});
    bytes overlong = json;
    overlong[5] = 0xFF;
    const struct {
        uint32_t type;
        bytes payload;
        const char *result;
    } cases[] = {
        {1, json, R"({"a":1})"},
        {254, joined({control_attribute(2, bytes(3)), control_attribute(0, {}), json}), R"({"a":1})"},
        {1, unended, "[]"},
        {1, overlong, R"({"a":1})"},
        {255, json, "null"},
        {1, {}, "null"},
        {1, control_attribute(1, {}), "null"},
        {1, joined({control_attribute(1, text_bytes("{")), json}), "null"},
        {1, joined({overrun, json}), "null"},
        {1, bytes(11), "null"},
    };
    site::mgrd_answer answer;
    site::mgrd daemon{[&](const std::string &) { return answer; }};
    for (const auto &c : cases) {
        answer = site::in_chunks(control_message(c.type, c.payload));
        EXPECT_EQ(c.result, dumped(service_simple_op("status", &one_second))) << &c - cases;
    }
}

TEST(Service, EveryFailureIsToldAndLeavesNothing)
{
    log_lines log;
    const log_line told = {"info", "mgr-proto", "service_json", "failed to contact mgrd"};
    const leak_check nothing;
    EXPECT_EQ(nullptr, service_simple_op("status", &one_second));
    EXPECT_THAT(log.take(), ElementsAre(error("service", std::string("Failed sending request to '/tmp/.mgrd' - '") +
                                                             strerror(ENOENT) + "'"),
                                        told));
    EXPECT_EQ(nullptr, service(nullptr, &one_second));
    EXPECT_THAT(log.texts(), ElementsAre(HasSubstr("Failed sending request to '/tmp/.mgrd'")));
    EXPECT_EQ(nullptr, service_json(nullptr, &one_second));
    EXPECT_THAT(log.take(), ElementsAre(error("service_json", "Failed building request")));

    buffer *text = buffer_create();
    text->append_zeroed(text, 1048576);
    EXPECT_EQ(nullptr, service_json(text, &one_second));
    EXPECT_THAT(log.take(), ElementsAre(error("service_json", "Failed building request")));
    buffer_destroy(text);
    {
        const faults::refuse none(faults::call::bind, EADDRINUSE);
        EXPECT_EQ(nullptr, service_simple_op("status", &one_second));
        EXPECT_THAT(log.take(), ElementsAre(error("service", "Failed creating communication socket."), told));
    }
    nothing.expect_unchanged();
    {
        site::mgrd silent{[](const std::string &) { return site::mgrd_answer{}; }};
        const faults::refuse first_name(faults::call::bind, EADDRINUSE, 0, false);
        const std::pair<timeval, const char *> cases[] = {
            {{0, 250000}, "0.250"}, {{0, 50000}, "0.50"}, {{1, 2000}, "1.02"}};
        for (const auto &[timeout, figure] : cases) {
            EXPECT_EQ(nullptr, service_simple_op("status", &timeout));
            EXPECT_THAT(log.take(),
                        testing::Contains(log_line{"warn", "mgr-proto", "service",
                                                   std::string("Got no response within ") + figure + " seconds"}));
        }
        EXPECT_EQ(3U, silent.requests().size());
    }
    nothing.expect_unchanged();

    ASSERT_EQ(0, mount("none", "/tmp", "tmpfs", MS_RDONLY, nullptr));
    EXPECT_EQ(nullptr, service_simple_op("status", &one_second));
    EXPECT_THAT(log.take(),
                ElementsAre(error("service", std::string("Failed creating temporary file: ") + strerror(EROFS)), told));
    umount("/tmp");

    if (!faults::can_refuse_memory) return;
    const faults::refuse_memory none;
    EXPECT_EQ(nullptr, service_simple_op("status", &one_second));
    EXPECT_THAT(log.take(), ElementsAre(error("service_simple_op", "Failed allocating simple_op(status) buffer")));
}

TEST(Service, MemoryAndDescriptorsStayFlat)
{
    site::mgrd daemon{[](const std::string &) { return site::json_answer("{\"uplink\":\"eth0\"}"); }};
    const auto ask = [] { EXPECT_EQ(R"({"uplink":"eth0"})", dumped(service_simple_op("status", &one_second))); };
    for (int i = 0; i < 10; ++i) ask();
    const leak_check nothing;
    const size_t held = mallinfo2().uordblks;
    for (int i = 0; i < 300; ++i) ask();
    // The daemon remembers each request, in this process.
    EXPECT_LT(mallinfo2().uordblks, held + 300 * 200);
    nothing.expect_unchanged();
}
