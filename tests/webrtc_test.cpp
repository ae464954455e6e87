#include "site/media_listener.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/signal_storm.h"

#include <chrono>
#include <cstring>
#include <gmock/gmock.h>
#include <memory>
#include <unistd.h>
#include <vela/services/webrtc.h>

using namespace std::chrono_literals;
using site::bytes;
using site::framed;
using site::media_answer;
using site::media_record;
using site::media_request;
using site::offer_body;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using clock_type = std::chrono::steady_clock;

media_answer joined(std::initializer_list<media_answer> parts)
{
    media_answer result;
    for (const auto &part : parts) result.insert(result.end(), part.begin(), part.end());
    return result;
}

struct inform : webrtc_inform {
    inform() : webrtc_inform{} {}
    inform(const inform &) = delete;
    ~inform() { free_webrtc_inform(this); }
};

sdp_request servers()
{
    sdp_request r = {};
    strcpy(r.turn_server, "turn:t.example");
    strcpy(r.stun_server, "stun:s.example");
    strcpy(r.username, "user");
    r.turn_query = 7;
    strcpy(r.reg_url, "https://r.example");
    memset(r.creds_url, 'c', sizeof r.creds_url); // no NUL
    return r;
}

log_line line(const char *level, const char *function, const std::string &text)
{
    return {level, "libvela_webrtc", function, text};
}

/// The lines of the family under test, without those of the framing.
std::vector<log_line> own(log_lines &log)
{
    std::vector<log_line> result;
    for (auto &l : log.take()) {
        if (l.module == "libvela_webrtc") result.push_back(l);
    }
    return result;
}

/// With a clock that fails, every wait ends at once: a silent listener costs no minute.
faults::refuse no_time() { return {faults::call::clock_gettime, EINVAL}; }

} // namespace

TEST(Webrtc, TakesTheFirstCompleteOffer)
{
    const std::string offer(20000, 'o');
    site::media_listener listener{[&](const media_request &) {
        return joined({{media_record(1, "x"), media_record(0, "x"), media_record(-2, "x"), bytes{}}, // not offers
                       {media_record(2, "early", offer_body(false, "none yet"))},
                       {media_record(2, "session-1", offer_body(true, "creds"))},
                       framed(5, offer)});
    }};
    log_lines log;
    const leak_check nothing;
    inform out;
    out.third = strdup("old");
    const sdp_request request = servers();
    EXPECT_EQ(0, get_next_sdp_offer("session-1", &request, &out));
    EXPECT_STREQ(offer.c_str(), out.offer);
    EXPECT_STREQ("session-1", out.uuid);
    EXPECT_STREQ("creds", out.turn_creds);
    EXPECT_EQ(nullptr, out.third);

    const auto requests = listener.requests();
    ASSERT_EQ(1U, requests.size());
    EXPECT_EQ(1, requests[0].command);
    EXPECT_EQ("session-1", requests[0].uuid);
    const auto *raw = reinterpret_cast<const uint8_t *>(&request);
    EXPECT_EQ(bytes(raw, raw + sizeof request), requests[0].body);
    EXPECT_STREQ("turn:t.example", reinterpret_cast<const char *>(&requests[0].body[4]));
    EXPECT_STREQ("user", reinterpret_cast<const char *>(&requests[0].body[804]));
    EXPECT_THAT(listener.faults(), IsEmpty());

    const char *name = "get_next_sdp_offer";
    EXPECT_THAT(
        own(log),
        ElementsAre(line("info", name,
                         "SDP request: uuid<session-1>, stun<stun:s.example>, turn<turn:t.example>, username<user> "
                         "turn_query<7>, reg_url<https://r.example>, creds_url<" +
                             std::string(400, 'c') + ">"),
                    line("info", name, "Get SDP offer: uuid<early>, complete<false>, turn_creds: <none yet>, offer<>"),
                    line("info", name,
                         "Get SDP offer: uuid<session-1>, complete<true>, turn_creds: <creds>, offer<" + offer + ">")));
    nothing.expect_unchanged();
}

TEST(Webrtc, WaitsOnWhenAPromisedOfferDoesNotComeAndBoundsTextsWithoutAnEnd)
{
    const std::string endless(3000, 'u');
    site::media_listener listener{[&](const media_request &) {
        return joined({{media_record(2, "broken", offer_body(true, "")),
                        {media_record(2, endless, offer_body(true, endless)), 75}},
                       {bytes{1, 0, 0, 0, 3, 0, 0, 0}, bytes{'s', 'd', 'p'}}});
    }};
    log_lines log;
    inform out;
    sdp_request request;
    memset(&request, 'r', sizeof request);
    const signal_storm one_ends_the_wait_for_the_offer(50000);
    EXPECT_EQ(0, get_next_sdp_offer(std::string(100, 'l').c_str(), &request, &out));
    EXPECT_EQ(endless.substr(0, 63), out.uuid);
    EXPECT_EQ(endless.substr(0, 1807), out.turn_creds);
    EXPECT_STREQ("sdp", out.offer);
    EXPECT_EQ(std::string(63, 'l'), listener.requests().at(0).uuid);
    EXPECT_THAT(listener.faults(), IsEmpty());
    const auto lines = own(log);
    ASSERT_EQ(4U, lines.size());
    EXPECT_EQ(line("error", "sdp_offer_recv", "Recv failed, exit"), lines[1]);
    EXPECT_EQ(
        line("info", "get_next_sdp_offer", "Get SDP offer: uuid<broken>, complete<true>, turn_creds: <>, offer<>"),
        lines[2]);
}

TEST(Webrtc, AnAnswerIsReportedByTheListenersWordOnly)
{
    media_answer reply;
    site::media_listener listener{[&](const media_request &) { return reply; }};
    log_lines log;
    const leak_check nothing;
    const char *name = "set_sdp_answer";
    const log_line sent = line("info", name, "Set SDP answer: uuid<s>, answer<v=0>");
    const struct {
        media_answer reply;
        std::string uuid; // "": none
        log_line said;
    } cases[] = {
        {{media_record(0, "other")}, "other", line("info", name, "Set SDP success: uuid<s>")},
        {{media_record(0, std::string(64, 'u'))}, std::string(63, 'u'), line("info", name, "Set SDP success: uuid<s>")},
        {{media_record(-3, "other"), media_record(0, "late")}, "", line("info", name, "Set SDP fail: uuid<s>")},
        {{media_record(2, "other")}, "", line("info", name, "Set SDP fail: uuid<s>")},
        {{}, "", line("warn", name, "Set SDP answer: uuid<s> TIMEOUT!")},
    };
    for (const auto &c : cases) {
        reply = c.reply;
        char *uuid = nullptr;
        {
            const auto hurry =
                c.reply.empty() ? std::make_unique<faults::refuse>(faults::call::clock_gettime, EINVAL) : nullptr;
            EXPECT_EQ(0, set_sdp_answer("s", "v=0", &uuid));
        }
        EXPECT_EQ(c.uuid, std::string_view(uuid ? uuid : ""));
        free(uuid);
        EXPECT_THAT(own(log), ElementsAre(sent, c.said));
        const auto requests = listener.requests();
        ASSERT_EQ(1U, requests.size());
        EXPECT_EQ(3, requests[0].command);
        EXPECT_EQ("v=0", requests[0].answer);
    }
    reply = {media_record(0, "s")};
    EXPECT_EQ(0, set_sdp_answer("s", std::string(40000, 'a').c_str(), nullptr));
    EXPECT_EQ(std::string(40000, 'a'), listener.requests().at(0).answer);
    EXPECT_THAT(listener.faults(), IsEmpty());
    nothing.expect_unchanged();
}

TEST(Webrtc, ListsAndClosesSessions)
{
    media_answer reply;
    site::media_listener listener{[&](const media_request &) { return reply; }};
    log_lines log;
    bytes list(1808);
    for (size_t i = 0; i < list.size(); ++i) list[i] = static_cast<uint8_t>(i);
    const auto with_count = [&](int32_t count) {
        memcpy(list.data(), &count, sizeof count);
        return list;
    };
    const struct {
        media_answer reply;
        int result;
        bool copied;
    } cases[] = {
        {{media_record(0, "", with_count(2))}, 2, true},
        {{media_record(0, "", with_count(0))}, 0, false},
        {{media_record(0, "", with_count(-5))}, -5, false},
        {{media_record(4, "", with_count(2))}, 0, false},
        {{bytes(3)}, 0, false},
    };
    for (const auto &c : cases) {
        reply = c.reply;
        bytes out(549, 0xEE);
        EXPECT_EQ(c.result, get_all_sdp_sessions(out.data()));
        const bytes before(549, 0xEE);
        EXPECT_EQ(0, memcmp(out.data(), c.copied ? with_count(2).data() : before.data(), 548));
        EXPECT_EQ(0xEE, out[548]);
        EXPECT_EQ(4, listener.requests().at(0).command);
    }
    reply.clear();
    EXPECT_EQ(0, close_sdp_session("s"));
    const auto closed = listener.requests().at(0);
    EXPECT_EQ(5, closed.command);
    EXPECT_EQ("s", closed.uuid);
    EXPECT_THAT(own(log), ElementsAre(line("info", "close_sdp_session", "SDP closed: uuid<s>")));
    EXPECT_THAT(listener.faults(), IsEmpty());

    const auto hurry = no_time();
    EXPECT_EQ(0, get_all_sdp_sessions(nullptr));
    EXPECT_THAT(own(log), ElementsAre(line("warn", "get_all_sdp_sessions", "SDP get all sessions: TIMEOUT!")));
    inform out;
    const sdp_request request = {};
    EXPECT_EQ(-ENOENT, get_next_sdp_offer("s", &request, &out));
    EXPECT_EQ(line("warn", "get_next_sdp_offer",
                   "Get SDP offer: uuid<s> TIMEOUT! errno:" + std::to_string(ETIMEDOUT) + "/" + strerror(ETIMEDOUT)),
              own(log).back());
}

TEST(Webrtc, WhatCannotBeAskedIsToldAndLeavesNothing)
{
    log_lines log;
    const leak_check nothing;
    inform out;
    const sdp_request request = {};
    EXPECT_EQ(-1, get_next_sdp_offer(nullptr, &request, &out));
    EXPECT_EQ(-1, get_next_sdp_offer("s", nullptr, &out));
    EXPECT_EQ(-1, get_next_sdp_offer("s", &request, nullptr));
    EXPECT_EQ(-1, set_sdp_answer(nullptr, "a", nullptr));
    EXPECT_EQ(-1, set_sdp_answer("s", nullptr, nullptr));
    EXPECT_EQ(-1, close_sdp_session(nullptr));
    EXPECT_EQ(-1, sdp_answer_send(-1, nullptr));
    EXPECT_EQ(-1, sdp_offer_recv(-1, nullptr));
    free_webrtc_inform(nullptr);
    EXPECT_THAT(log.take(), IsEmpty());

    const std::pair<const char *, std::function<int()>> calls[] = {
        {"get_next_sdp_offer", [&] { return get_next_sdp_offer("s", &request, &out); }},
        {"set_sdp_answer", [] { return set_sdp_answer("s", "a", nullptr); }},
        {"get_all_sdp_sessions", [] { return get_all_sdp_sessions(nullptr); }},
        {"close_sdp_session", [] { return close_sdp_session("s"); }},
    };
    for (const auto &[name, call] : calls) {
        for (const std::string step : {"socket", "bind", "connect"}) { // nobody listens
            const faults::refuse no_socket(faults::call::socket, EMFILE, step == "socket" ? 0 : 9);
            const faults::refuse no_bind(faults::call::bind, EADDRINUSE, step == "bind" ? 0 : 9);
            testing::internal::CaptureStderr();
            EXPECT_EQ(-1, call());
            EXPECT_EQ(0U, testing::internal::GetCapturedStderr().find(step + ": ")) << name;
            EXPECT_THAT(log.take(), ElementsAre(line("error", name, "Socket error")));
        }
    }
    nothing.expect_unchanged();

    const site::local_peer deaf{site::abstract_address("IPC_WEBRTC_LISTENER")};
    while (close_sdp_session("s") == 0) log.take();
    EXPECT_EQ(ETIMEDOUT, errno);
    for (const auto &[name, call] : calls) {
        log.take();
        const signal_storm storm;
        const auto start = clock_type::now();
        EXPECT_EQ(-1, call());
        EXPECT_GE(clock_type::now() - start, 1s);
        EXPECT_LT(clock_type::now() - start, 1500ms);
        EXPECT_THAT(log.take(), ElementsAre(line("warn", "send_nonblocking", "Connection Timeout!"),
                                            line("warn", name, "Socket Timeout")));
    }

    if (!faults::can_refuse_memory) return;
    const std::pair<const char *, std::function<int()>> buffered[] = {
        calls[0],
        {"sdp_offer_recv", [&] { return sdp_offer_recv(-1, &out); }},
        {"sdp_answer_send", [] { return sdp_answer_send(-1, "a"); }},
    };
    for (const auto &[name, call] : buffered) {
        const faults::refuse_memory none;
        EXPECT_EQ(-1, call());
        EXPECT_THAT(log.take(), ElementsAre(line("warn", name, "buffer_create failed.")));
    }
}
