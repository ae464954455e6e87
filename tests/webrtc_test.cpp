#include "site/media_listener.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/signal_storm.h"

#include <chrono>
#include <cstring>
#include <gmock/gmock.h>
#include <unistd.h>
#include <vela/services/webrtc.h>

using namespace std::chrono_literals;
using site::bytes, site::in_turn, site::media_answer, site::media_offer, site::media_record, site::media_request;
using testing::ElementsAre, testing::IsEmpty;
using clock_type = std::chrono::steady_clock;

namespace
{

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

/// With a clock that fails, every wait ends at once: a silent listener costs no minute.
struct no_time : faults::refuse {
    explicit no_time(bool now = true) : refuse{faults::call::clock_gettime, EINVAL, now ? 0 : 1 << 30} {}
};

} // namespace

TEST(Webrtc, TakesTheFirstCompleteOffer)
{
    const std::string offer(20000, 'o');
    site::media_listener listener{[&](const media_request &) {
        return in_turn({{media_record(1, "x"), media_record(0, "x"), media_record(-2, "x"), bytes{}}, // not offers
                        media_offer("early", "none yet", ""),
                        media_offer("session-1", "creds", offer)});
    }};
    log_lines log{"info"};
    const leak_check nothing;
    inform out;
    out.third = strdup("old");
    const sdp_request request = servers();
    EXPECT_EQ(0, get_next_sdp_offer("session-1", &request, &out));
    EXPECT_STREQ(offer.c_str(), out.offer);
    EXPECT_STREQ("session-1", out.uuid);
    EXPECT_STREQ("creds", out.turn_creds);
    EXPECT_EQ(nullptr, out.third);

    const auto asked = listener.requests().at(0);
    EXPECT_EQ(1, asked.command);
    EXPECT_EQ("session-1", asked.uuid);
    const auto *raw = reinterpret_cast<const uint8_t *>(&request);
    EXPECT_EQ(bytes(raw, raw + sizeof request), asked.body);
    EXPECT_STREQ("turn:t.example", reinterpret_cast<const char *>(&asked.body[4]));
    EXPECT_THAT(listener.faults(), IsEmpty());

    const char *name = "get_next_sdp_offer";
    EXPECT_THAT(
        log.take(),
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
        auto broken = media_offer("broken", "", "?");
        auto whole = media_offer(endless, endless, "sdp");
        whole[0].delay_ms = 75; // the wait for the text behind the first has been ended meanwhile
        return in_turn({{broken[0]}, whole, whole});
    }};
    log_lines log{"info"};
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
    const auto lines = log.take();
    ASSERT_LE(4U, lines.size());
    EXPECT_EQ(line("error", "sdp_offer_recv", "Recv failed, exit"), lines[1]);
    EXPECT_THAT(lines[2].text, testing::EndsWith("uuid<broken>, complete<true>, turn_creds: <>, offer<>"));
}

TEST(Webrtc, AnAnswerIsReportedByTheListenersWordOnly)
{
    media_answer reply;
    site::media_listener listener{[&](const media_request &) { return reply; }};
    log_lines log{"info"};
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
        {{media_record(-3, "other")}, "", line("info", name, "Set SDP fail: uuid<s>")},
        {{media_record(2, "other")}, "", line("info", name, "Set SDP fail: uuid<s>")},
        {{}, "", line("warn", name, "Set SDP answer: uuid<s> TIMEOUT!")},
    };
    for (const auto &c : cases) {
        reply = c.reply;
        char *uuid = nullptr;
        {
            const no_time hurry(c.reply.empty());
            EXPECT_EQ(0, set_sdp_answer("s", "v=0", &uuid));
        }
        EXPECT_EQ(c.uuid, std::string_view(uuid ? uuid : ""));
        free(uuid);
        EXPECT_THAT(log.take(), ElementsAre(sent, c.said));
        const auto asked = listener.requests().at(0);
        EXPECT_EQ(3, asked.command);
        EXPECT_EQ("v=0", asked.answer);
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
    log_lines log{"info"};
    bytes list(1808);
    for (size_t i = 0; i < list.size(); ++i) list[i] = static_cast<uint8_t>(i);
    const auto with_count = [&](int32_t count) {
        memcpy(list.data(), &count, sizeof count);
        return list;
    };
    const std::pair<bytes, int> cases[] = {{media_record(0, "", with_count(2)), 2},
                                           {media_record(0, "", with_count(0)), 0},
                                           {media_record(0, "", with_count(-5)), -5},
                                           {media_record(4, "", with_count(2)), 0},
                                           {bytes(3), 0}};
    for (const auto &[record, result] : cases) {
        reply = {record};
        bytes out(549, 0xEE);
        bytes expected = out;
        if (result > 0) std::copy_n(with_count(2).begin(), 548, expected.begin());
        EXPECT_EQ(result, get_all_sdp_sessions(out.data()));
        EXPECT_EQ(expected, out);
        EXPECT_EQ(4, listener.requests().at(0).command);
    }
    reply.clear();
    EXPECT_EQ(0, close_sdp_session("s"));
    const auto closed = listener.requests().at(0);
    EXPECT_EQ(5, closed.command);
    EXPECT_EQ("s", closed.uuid);
    EXPECT_THAT(log.take(), ElementsAre(line("info", "close_sdp_session", "SDP closed: uuid<s>")));
    EXPECT_THAT(listener.faults(), IsEmpty());

    const no_time hurry;
    EXPECT_EQ(0, get_all_sdp_sessions(nullptr));
    EXPECT_THAT(log.take(), ElementsAre(line("warn", "get_all_sdp_sessions", "SDP get all sessions: TIMEOUT!")));
    inform out;
    const sdp_request request = {};
    EXPECT_EQ(-ENOENT, get_next_sdp_offer("s", &request, &out));
    EXPECT_EQ(line("warn", "get_next_sdp_offer",
                   "Get SDP offer: uuid<s> TIMEOUT! errno:" + std::to_string(ETIMEDOUT) + "/" + strerror(ETIMEDOUT)),
              log.take().back());
}

TEST(Webrtc, WhatCannotBeAskedIsToldAndLeavesNothing)
{
    log_lines log{"info"};
    const leak_check nothing;
    inform out;
    const sdp_request request = {};
    const int results[] = {
        get_next_sdp_offer(nullptr, &request, &out),
        get_next_sdp_offer("s", nullptr, &out),
        get_next_sdp_offer("s", &request, nullptr),
        set_sdp_answer(nullptr, "a", nullptr),
        set_sdp_answer("s", nullptr, nullptr),
        close_sdp_session(nullptr),
        sdp_answer_send(-1, nullptr),
        sdp_offer_recv(-1, nullptr),
    };
    EXPECT_THAT(results, testing::Each(-1));
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
    log.take();
    const signal_storm storm;
    const auto start = clock_type::now();
    EXPECT_EQ(-1, calls[0].second());
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_GE(clock_type::now() - start, 1s);
    EXPECT_LT(clock_type::now() - start, 3s);
    EXPECT_THAT(log.take(), ElementsAre(line("warn", "send_nonblocking", "Connection Timeout!"),
                                        line("warn", "get_next_sdp_offer", "Socket Timeout")));

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
