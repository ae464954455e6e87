#include "site/mgrd.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/signal_storm.h"

#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <memory>
#include <sys/mount.h>
#include <unistd.h>
#include <vela/ipc/ctrl-proto.h>

using namespace std::chrono_literals;
using namespace std::string_literals;
using site::bytes, site::control_attribute, site::control_message, site::joined, site::text_bytes;
using testing::ElementsAre;
using clock_type = std::chrono::steady_clock;

namespace
{

using message = std::unique_ptr<ctrl_msg, decltype(&ctrl_msg_destroy)>;

constexpr timeval one_second = {1, 0};
const auto here = site::path_address("/tmp/here");

message owned(ctrl_msg *m) { return {m, ctrl_msg_destroy}; }
bytes content(const ctrl_msg &m) { return {m.buffer, m.buffer + m.total_len}; }
std::string repeated(size_t n) { return std::string(n, 'x'); }

/// What the daemon answered, dumped and released; "null" for nothing.
std::string dumped(json_t *value)
{
    const std::unique_ptr<char, decltype(&free)> text{value ? json_dumps(value, JSON_COMPACT) : nullptr, free};
    json_decref(value);
    return text ? text.get() : "null";
}
std::string status(const timeval &timeout = one_second) { return dumped(service_simple_op("status", &timeout)); }

log_line error(const std::string &function, const std::string &text) { return {"error", "mgr-proto", function, text}; }
const log_line no_contact = {"info", "mgr-proto", "service_json", "failed to contact mgrd"};

/// A socket at /tmp/here, and one that sends to it.
struct sockets {
    int sock = ctrl_socket_create("/tmp/here");
    site::local_peer there{site::path_address("/tmp/there")};
    ~sockets()
    {
        close(sock);
        unlink("/tmp/here");
    }
    message wait(timeval timeout) const { return owned(ctrl_response_wait(sock, &timeout)); }
};

} // namespace

TEST(CtrlProto, MessagesAreLaidOutAsTheyTravel)
{
    const std::pair<uint32_t, const char *> names[] = {{0, "STATUS"},    {1, "JSON"},    {2, "UNKNOWN"},
                                                       {254, "SUCCESS"}, {255, "ERROR"}, {256, "UNKNOWN"}};
    for (const auto &[type, name] : names) EXPECT_STREQ(name, ctrl_type_to_string(type)) << type;

    for (const auto &data : {bytes{1, 2, 3}, bytes{}}) {
        ctrl_attribute *a = ctrl_attribute_create(0x0201, data.data(), static_cast<uint32_t>(data.size()));
        const auto *raw = reinterpret_cast<const uint8_t *>(a);
        EXPECT_EQ(control_attribute(0x0201, data), bytes(raw, raw + 6 + data.size()));
        ctrl_attribute_destroy(a);
    }
    const message m = owned(ctrl_msg_build("/tmp/there", 255, "xyz", 3));
    EXPECT_EQ(control_message(255, {'x', 'y', 'z'}), content(*m));
    EXPECT_EQ(AF_UNIX, m->addr.sun_family);
    EXPECT_STREQ("/tmp/there", m->addr.sun_path);
    EXPECT_EQ(12U, m->addr_len);

    const bytes payload(1048565, 7);
    const struct {
        uint32_t length;
        size_t path;
        int error;
    } cases[] = {{1048564, 107, 0}, {1048565, 107, EMSGSIZE}, {UINT32_MAX, 4, EMSGSIZE}, {0, 108, ENAMETOOLONG}};
    for (const auto &c : cases) {
        errno = 0;
        const message limit = owned(ctrl_msg_build(repeated(c.path).c_str(), 1, payload.data(), c.length));
        EXPECT_EQ(c.error, errno);
        EXPECT_EQ(c.error == 0 ? 1048576U : 0U, limit ? limit->total_len : 0U);
    }
    if (!faults::can_refuse_memory) return;
    EXPECT_EXIT((faults::refuse_memory{1}, ctrl_msg_build("/tmp/there", 1, "x", 1)), testing::ExitedWithCode(1),
                "ctrl-proto:[0-9]+: Out of memory");
}

TEST(CtrlProto, SendsInAnnouncedChunks)
{
    sockets s;
    for (const uint32_t length : {0U, 16384U - 12, 16385U - 12, 3 * 16384U - 12}) {
        const message m = owned(ctrl_msg_build("/tmp/there", 1, bytes(length, 0x5A).data(), length));
        ASSERT_EQ(static_cast<ssize_t>(m->total_len), ctrl_msg_send(s.sock, m.get()));
        for (const auto &expected : site::in_chunks(content(*m))) {
            EXPECT_EQ(expected.content, s.there.receive(0).value_or(site::local_peer::datagram{}).content) << length;
        }
        EXPECT_FALSE(s.there.receive(0)) << length << ": more than announced";
    }
    EXPECT_EQ(-1, ctrl_msg_send(s.sock, nullptr));

    // A queue that fills up on the way: what went out stays out, and the first failure ends it.
    fcntl(s.sock, F_SETFL, O_NONBLOCK);
    const message m = owned(ctrl_msg_build("/tmp/there", 1, nullptr, 20 * 16384));
    EXPECT_EQ(-1, ctrl_msg_send(s.sock, m.get()));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_TRUE(s.there.receive(0));
}

TEST(CtrlProto, BindsItsSocketInPlaceOfAnything)
{
    log_lines log;
    const std::string longest = "/tmp/" + repeated(102);
    site::put_file(longest, "stale");
    timeval limit = {};
    socklen_t size = sizeof limit;
    const int sock = ctrl_socket_create(longest.c_str());
    EXPECT_EQ(0, getsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, &size));
    EXPECT_EQ(10, limit.tv_sec);
    const leak_check nothing;
    EXPECT_EQ(-1, ctrl_socket_create((longest + "x").c_str()));
    EXPECT_EQ(ENAMETOOLONG, errno);
    nothing.expect_unchanged();

    const faults::refuse no_limit(faults::call::setsockopt, EDOM);
    EXPECT_GE(ctrl_socket_create(longest.c_str()), 0) << "serves without its limit";
    EXPECT_THAT(log.texts(), ElementsAre("error setting SO_SNDTIMEO: 33/"s + strerror(EDOM)));
}

TEST(CtrlProto, ReceivesWholeMessagesAndRefusesEveryBreachOfTheFraming)
{
    log_lines log;
    sockets s;
    const auto h = site::chunk_header;
    constexpr uint32_t largest = 1048576;
    const std::string timed_out = std::to_string(ETIMEDOUT) + "/" + strerror(ETIMEDOUT);
    const struct {
        std::vector<bytes> datagrams;
        std::string fault; // "" where the message arrives
    } cases[] = {
        {{h(3, 3, 0), {1, 2, 3}}, ""},
        {{h(5, 2, 1), {1, 2}, h(5, 3, 0), {3, 4, 5}}, ""},
        {{h(16385, 16384, 7), bytes(16384, 1), h(16385, 1, 0), {9}}, ""},
        {{h(3, 3, 0), {1, 2, 3, 4}}, ""}, // cut to what was announced
        {{}, "recvfrom header: " + timed_out},
        {{bytes(11)}, "short header"},
        {{{}}, "short header"},
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
    for (const auto &c : cases) {
        bytes sent;
        for (size_t i = 0; i < c.datagrams.size(); ++i) {
            s.there.send(here, c.datagrams[i]);
            if (i % 2 != 0) sent = joined({sent, c.datagrams[i]});
        }
        const message m = s.wait({0, 20000});
        EXPECT_EQ(c.fault.empty(), m != nullptr) << c.fault;
        sent.resize(m ? m->total_len : 0);
        EXPECT_EQ(sent, m ? content(*m) : bytes{});
        const std::vector told(m ? 0 : 1, error("ctrl_response_wait", c.fault));
        EXPECT_EQ(told, log.take());
    }
    EXPECT_EQ(nullptr, ctrl_response_wait(-1, &one_second));
    const faults::refuse clock(faults::call::clock_gettime, EINVAL);
    EXPECT_EQ(nullptr, s.wait(one_second));
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

TEST(CtrlProto, TheDeadlineHoldsInASignalStormAndAgainstADripFeed)
{
    sockets s;
    s.there.send(here, site::chunk_header(1, 1, 0));
    s.there.send(here, {1});
    for (const timeval none : {timeval{0, 0}, timeval{-5, 0}, timeval{INT64_MIN, INT64_MIN}})
        EXPECT_EQ(nullptr, s.wait(none));
    EXPECT_NE(nullptr, s.wait({INT64_MAX, INT64_MAX}));

    std::atomic<bool> drip = false;
    std::atomic<bool> done = false;
    s.there.serve([&] {
        for (; !done; std::this_thread::sleep_for(5ms)) {
            if (drip) s.there.send(here, site::chunk_header(1048576, 1, 1));
            if (drip) s.there.send(here, {1});
        }
    });
    for (const bool dripping : {false, true}) {
        drip = dripping;
        const signal_storm storm;
        const auto start = clock_type::now();
        EXPECT_EQ(nullptr, s.wait({0, 200000}));
        EXPECT_EQ(ETIMEDOUT, errno);
        EXPECT_GE(clock_type::now() - start, 199ms);
        EXPECT_LT(clock_type::now() - start, 1s);
    }
    done = true;
    s.there.stop();
}

TEST(Service, AsksTheDaemonAndReturnsItsAnswer)
{
    site::mgrd daemon{[](const std::string &request) { return site::json_answer("{\"echo\":" + request + "}"); }};
    const leak_check nothing;
    EXPECT_EQ(R"({"echo":{"op":"status"}})", status());
    EXPECT_EQ(R"({"echo":{"op":"a","b":"c"}})", dumped(service_simple_op(R"(a","b":"c)", &one_second)));

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

TEST(Service, TakesOnlyTheDaemonsAnswersAndFindsTheirJson)
{
    const bytes json = control_attribute(1, text_bytes("{\"a\":1}"));
    const auto with = [](bytes changed, size_t at, uint8_t byte) {
        changed.at(at) = byte;
        return changed;
    };
    const bytes overrun = with(control_attribute(2, bytes(4)), 5, 0xFF); // a length near 2^32
    const bytes message_of_json = control_message(1, json);
    const struct {
        bytes message;
        const char *result;                                   // null: not an answer at all
        site::mgrd_sender sender = site::mgrd_sender::daemon; // of the last datagram
    } cases[] = {
        {message_of_json, R"({"a":1})"},
        {control_message(254, joined({control_attribute(2, bytes(3)), control_attribute(0, {}), json})), R"({"a":1})"},
        {control_message(1, control_attribute(1, {'[', ']'})), "[]"}, // without a NUL
        {control_message(1, with(json, 5, 0xFF)), R"({"a":1})"},
        {control_message(255, json), "null"},
        {control_message(1, {}), "null"},
        {control_message(1, control_attribute(1, {})), "null"},
        {control_message(1, joined({control_attribute(1, text_bytes("{")), json})), "null"},
        {control_message(1, joined({overrun, json})), "null"},
        {control_message(1, bytes(11)), "null"},
        {bytes(11), nullptr},
        {with(message_of_json, 0, 0), nullptr},
        {with(message_of_json, 8, 1), nullptr},
        {message_of_json, nullptr, site::mgrd_sender::stranger},
        {message_of_json, nullptr, site::mgrd_sender::nameless},
    };
    site::mgrd_answer answer;
    site::mgrd daemon{[&](const std::string &) { return answer; }};
    log_lines log;
    const leak_check nothing;
    for (const auto &c : cases) {
        answer = site::in_chunks(c.message);
        answer.back().sender = c.sender;
        EXPECT_EQ(c.result ? c.result : "null", status()) << &c - cases;
        const auto lines = log.take();
        ASSERT_EQ(c.result ? 0U : 2U, lines.size());
        if (c.result) continue;
        EXPECT_EQ((log_line{"warn", "mgr-proto", "service", lines[0].text}), lines[0]);
        EXPECT_THAT(lines[0].text, testing::MatchesRegex("Invalid response from '/tmp/\\.mgr-[A-Za-z0-9]{6}'"));
        EXPECT_EQ(no_contact, lines[1]);
    }
    nothing.expect_unchanged();
}

TEST(Service, EveryFailureIsToldAndLeavesNothing)
{
    log_lines log;
    const auto fails = [&](const std::string &text) {
        EXPECT_EQ("null", status());
        EXPECT_THAT(log.take(), ElementsAre(error("service", text), no_contact));
    };
    const leak_check nothing;
    fails("Failed sending request to '/tmp/.mgrd' - '"s + strerror(ENOENT) + "'");
    EXPECT_EQ(nullptr, service(nullptr, &one_second));
    EXPECT_THAT(log.texts(), ElementsAre(testing::StartsWith("Failed sending request to '/tmp/.mgrd'")));
    {
        const faults::refuse none(faults::call::bind, EADDRINUSE);
        fails("Failed creating communication socket.");
    }
    buffer *text = buffer_create();
    text->append_zeroed(text, 1048576);
    for (buffer *refused : {text, static_cast<buffer *>(nullptr)}) {
        EXPECT_EQ(nullptr, service_json(refused, &one_second));
        EXPECT_THAT(log.take(), ElementsAre(error("service_json", "Failed building request")));
    }
    buffer_destroy(text);
    {
        site::mgrd silent{[](const std::string &) { return site::mgrd_answer{}; }};
        const faults::refuse first_name(faults::call::bind, EADDRINUSE, 0, false);
        const std::pair<timeval, const char *> cases[] = {
            {{0, 250000}, "0.250"}, {{0, 50000}, "0.50"}, {{1, 2000}, "1.02"}};
        for (const auto &[timeout, figure] : cases) {
            EXPECT_EQ("null", status(timeout));
            EXPECT_EQ((log_line{"warn", "mgr-proto", "service", "Got no response within "s + figure + " seconds"}),
                      log.take().at(1));
        }
    }
    nothing.expect_unchanged();

    ASSERT_EQ(0, mount("none", "/tmp", "tmpfs", MS_RDONLY, nullptr));
    fails("Failed creating temporary file: "s + strerror(EROFS));
    umount("/tmp");

    if (!faults::can_refuse_memory) return;
    const faults::refuse_memory none;
    EXPECT_EQ("null", status());
    EXPECT_THAT(log.take(), ElementsAre(error("service_simple_op", "Failed allocating simple_op(status) buffer")));
}
