#include "site/mgrd.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/signal_storm.h"
#include "tests/support/table.h"

#include <chrono>
#include <gmock/gmock.h>
#include <memory>
#include <sys/mount.h>
#include <vela/ipc/ctrl-proto.h>

using namespace std::chrono_literals;
using namespace std::string_literals;
using site::bytes, site::control_attribute, site::control_message, site::joined, site::text_bytes;
using testing::ElementsAre;
using clock_type = std::chrono::steady_clock;

namespace
{

using message = std::unique_ptr<ctrl_msg, decltype(&ctrl_msg_destroy)>;

constexpr timeval patience = {60, 0};  // an answer comes, however slow the machine
constexpr timeval moment = {0, 50000}; // none does

message owned(ctrl_msg *m) { return {m, ctrl_msg_destroy}; }
bytes content(const message &m) { return m ? bytes(m->buffer, m->buffer + m->total_len) : bytes{}; }
std::string repeated(size_t n) { return std::string(n, 'x'); }

/// What the daemon answered, dumped and released; "null" for nothing.
std::string dumped(json_t *value)
{
    const std::unique_ptr<char, decltype(&free)> text{value ? json_dumps(value, JSON_COMPACT) : nullptr, free};
    json_decref(value);
    return text ? text.get() : "null";
}
std::string status(const timeval &timeout = patience) { return dumped(service_simple_op("status", &timeout)); }

} // namespace

TEST(CtrlProto, RefusesWhatDoesNotFit)
{
    const bytes payload(1048565, 7);
    const table<uint32_t, size_t, int> cases = {
        {1048564, 107, 0}, {1048565, 107, EMSGSIZE}, {UINT32_MAX, 4, EMSGSIZE}, {0, 108, ENAMETOOLONG}};
    for (const auto &[length, path, code] : cases) {
        errno = 0;
        const message m = owned(ctrl_msg_build(repeated(path).c_str(), 1, payload.data(), length));
        EXPECT_EQ(code, errno);
        EXPECT_EQ(code == 0 ? 1048576U : 0U, content(m).size());
    }
    EXPECT_STREQ("UNKNOWN", ctrl_type_to_string(253));
    EXPECT_EQ(-1, ctrl_socket_create(repeated(108).c_str()));
    EXPECT_EQ(ENAMETOOLONG, errno);
}

TEST(Service, AsksTheDaemonWithOneJsonAttribute)
{
    site::mgrd daemon{[](const std::string &) { return site::json_answer("[7]"); }};
    const leak_check nothing;
    std::vector<std::string> asked = {R"({"op":"status"})", R"({"op":"a","b":"c"})", "[1]"};
    EXPECT_EQ("[7]", status());
    EXPECT_EQ("[7]", dumped(service_simple_op(R"(a","b":"c)", &patience))) << "not escaped";

    ctrl_attribute *attribute = ctrl_attribute_create(CTRL_ATTR_JSON, "[1]", 4);
    const message request = owned(ctrl_msg_build(CTRL_MGRD_PATH, CTRL_TYPE_JSON, attribute, 6 + 4));
    ctrl_attribute_destroy(attribute);
    EXPECT_EQ(control_message(1, control_attribute(1, text_bytes("[7]"))),
              content(owned(service(request.get(), &patience))));

    buffer *text = buffer_create();
    for (const size_t size : {16384, 16385, 1048576}) { // of the message: one chunk, a byte more, the most there is
        const size_t around = 12 + 6 + strlen("[\"\"]") + 1;
        asked.push_back("[\"" + repeated(size - around) + "\"]");
        text->reset(text);
        text->append(text, (asked.back() + "x").data(), static_cast<uint32_t>(asked.back().size() + 1));
        buffer_pop(text, 1); // no NUL of its own
        EXPECT_EQ("[7]", dumped(service_json(text, &patience)));
        EXPECT_EQ(asked.back().size(), text->length(text)) << "the request stays";
    }
    text->append(text, " ", 1);
    EXPECT_EQ(nullptr, service_json(text, &patience)) << "a byte too many";
    buffer_destroy(text);
    EXPECT_EQ(asked, daemon.requests());
    EXPECT_THAT(daemon.faults(), testing::IsEmpty());
    nothing.expect_unchanged();
}

TEST(Service, TakesOnlyTheDaemonsWholeAnswersAndFindsTheirJson)
{
    using site::in_chunks;
    const auto h = site::chunk_header;
    const auto with = [](bytes changed, size_t at, uint8_t byte) {
        changed.at(at) = byte;
        return changed;
    };
    const auto last_from = [](site::mgrd_sender sender, site::mgrd_answer answer) {
        answer.back().sender = sender;
        return answer;
    };
    const auto raw = [](std::initializer_list<bytes> datagrams) {
        return site::mgrd_answer{datagrams.begin(), datagrams.end()};
    };
    const auto payload = [](std::initializer_list<bytes> parts) {
        return in_chunks(control_message(1, joined(parts)));
    };
    const bytes json = control_attribute(1, text_bytes("[1]"));
    const bytes valid = control_message(254, json);
    const auto size = static_cast<uint32_t>(valid.size());
    const std::string timed_out = std::to_string(ETIMEDOUT) + "/" + strerror(ETIMEDOUT);
    const std::string no_header = "recvfrom header: " + timed_out, no_payload = "recvfrom payload: " + timed_out;
    const std::string not_an_answer = "Invalid response from ";
    const table<site::mgrd_answer, std::string> cases = {
        {raw({h(size, size, 0), joined({valid, {9}})}), "[1]"}, // cut to what was announced
        {payload({control_attribute(2, bytes(20000)), control_attribute(0, {}), json}), "[1]"},
        {payload({control_attribute(1, {'[', ']'})}), "[]"}, // without a NUL
        {payload({with(json, 5, 0xFF)}), "[1]"},
        {in_chunks(control_message(255, json)), "null"},
        {payload({}), "null"},
        {payload({control_attribute(1, {})}), "null"},
        {payload({control_attribute(1, text_bytes("{")), json}), "null"},
        {payload({with(control_attribute(2, bytes(4)), 5, 0xFF), json}), "null"}, // a length near 2^32
        {in_chunks(bytes(11)), not_an_answer},
        {in_chunks(with(valid, 0, 0)), not_an_answer},
        {in_chunks(with(valid, 8, 1)), not_an_answer},
        {last_from(site::mgrd_sender::stranger, in_chunks(valid)), not_an_answer},
        {last_from(site::mgrd_sender::nameless, in_chunks(valid)), not_an_answer},
        {raw({}), no_header},
        {raw({bytes(11)}), "short header"},
        {raw({h(3, 0, 0)}), "invalid header"},
        {raw({h(1048576, 16385, 1)}), "invalid header"},
        {raw({h(3, 4, 0)}), "invalid header total length"},
        {raw({h(1048577, 16384, 1)}), "invalid header total length"},
        {raw({h(5, 2, 7), bytes(2), h(6, 3, 0)}), "invalid header total length (changed mid-stream)"},
        {raw({h(5, 5, 1), bytes(5), h(5, 1, 0)}), "buffer overflow"},
        {raw({h(5, 2, 1), bytes(2), h(5, 4, 0)}), "received data exceeds total length"},
        {raw({h(3, 3, 0)}), no_payload},
        {raw({h(3, 3, 0), bytes(2)}), "short payload: got 2, expected 3"},
        {raw({h(5, 2, 0), bytes(2)}), "invalid response length"},
    };
    site::mgrd_answer answer;
    site::mgrd daemon{[&](const std::string &) { return answer; }};
    log_lines log;
    const leak_check nothing;
    for (const auto &[datagrams, outcome] : cases) {
        answer = datagrams;
        const std::string result = status(outcome == no_header || outcome == no_payload ? moment : patience);
        const auto told = log.texts();
        EXPECT_EQ(outcome, told.empty() ? result : told[0].substr(0, told[0].find("'/tmp/.mgr-")));
    }
    nothing.expect_unchanged();
}

TEST(Service, TheDeadlineHoldsInASignalStormAndAgainstAnAnswerWithoutAnEnd)
{
    site::mgrd_answer answer = site::json_answer("[1]");
    site::mgrd daemon{[&](const std::string &) { return answer; }};
    EXPECT_EQ("null", status({0, 0}));
    EXPECT_EQ("null", status({INT64_MIN, INT64_MIN}));
    EXPECT_EQ("[1]", status({INT64_MAX, INT64_MAX}));

    answer.clear();
    for (int i = 0; i < 50000; ++i) answer.insert(answer.end(), {{site::chunk_header(1048576, 1, 1)}, {bytes(1)}});
    const signal_storm storm;
    const auto start = clock_type::now();
    EXPECT_EQ("null", status({0, 200000}));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_GE(clock_type::now() - start, 199ms);
    EXPECT_LT(clock_type::now() - start, 1s);
}

TEST(Service, EveryFailureIsToldAndLeavesNothing)
{
    log_lines log;
    const auto fails = [&](const std::string &text) {
        EXPECT_EQ("null", status());
        EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "mgr-proto", "service", text},
                                            log_line{"info", "mgr-proto", "service_json", "failed to contact mgrd"}));
    };
    const leak_check nothing;
    fails("Failed sending request to '/tmp/.mgrd' - '"s + strerror(ENOENT) + "'");
    EXPECT_EQ(nullptr, service(nullptr, &patience));
    EXPECT_EQ(nullptr, service_json(nullptr, &patience));
    EXPECT_THAT(log.texts(), ElementsAre(testing::_, "Failed building request"));
    {
        const faults::refuse none(faults::call::bind, EADDRINUSE);
        fails("Failed creating communication socket.");
    }
    {
        site::mgrd silent{[](const std::string &) { return site::mgrd_answer{}; }};
        EXPECT_EQ("null", status(moment));
        EXPECT_EQ("Got no response within 0.50 seconds", log.texts().at(1));
    }
    nothing.expect_unchanged();

    ASSERT_EQ(0, mount("none", "/tmp", "tmpfs", MS_RDONLY, nullptr));
    fails("Failed creating temporary file: "s + strerror(EROFS));
    umount("/tmp");

    if (!faults::can_refuse_memory) return;
    const faults::refuse_memory none;
    EXPECT_EQ("null", status());
    EXPECT_THAT(log.texts(), ElementsAre("Failed allocating simple_op(status) buffer"));
}
