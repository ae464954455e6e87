#include "site/media_listener.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/signal_storm.h"
#include "tests/support/table.h"
#include "tests/support/text.h"

#include <chrono>
#include <cstring>
#include <gmock/gmock.h>
#include <vela/services/webrtc.h>

using namespace std::chrono_literals;
using site::bytes, site::in_turn, site::media_answer, site::media_offer, site::media_record, site::media_request;
using testing::ElementsAre, testing::IsEmpty;
using clock_type = std::chrono::steady_clock;

namespace
{

/// With a clock that fails, every wait ends at once: a silent listener costs no minute.
struct no_time : faults::refuse {
    explicit no_time(bool now = true) : refuse{faults::call::clock_gettime, EINVAL, now ? 0 : 1 << 30} {}
};

} // namespace

TEST(Webrtc, WaitsForACompleteOfferAndBoundsTextsWithoutAnEnd)
{
    const std::string endless(3000, 'u'), offer = letters(20000);
    site::media_listener listener{[&](const media_request &) {
        return in_turn({{media_record(1, "x")},
                        media_offer("early", "none yet", ""),
                        {bytes{}},
                        media_offer(endless, endless, offer)});
    }};
    log_lines log{"info"};
    const leak_check nothing;
    webrtc_inform out = {};
    out.third = strdup("old");
    sdp_request request = {};
    request.turn_query = 7;
    memset(request.creds_url, 'c', sizeof request.creds_url); // no NUL
    {
        const signal_storm storm;
        EXPECT_EQ(0, get_next_sdp_offer(std::string(100, 'l').c_str(), &request, &out));
    }
    EXPECT_EQ(endless.substr(0, 63), out.uuid);
    EXPECT_EQ(endless.substr(0, 1807), out.turn_creds);
    EXPECT_EQ(offer, out.offer);
    EXPECT_EQ(nullptr, out.third);
    free_webrtc_inform(&out);

    const auto asked = listener.requests().at(0);
    EXPECT_EQ(1, asked.command);
    EXPECT_EQ(std::string(63, 'l'), asked.uuid);
    const auto *raw = reinterpret_cast<const uint8_t *>(&request);
    EXPECT_EQ(bytes(raw, raw + sizeof request), asked.body);
    EXPECT_THAT(listener.faults(), IsEmpty());
    EXPECT_THAT(log.texts(),
                ElementsAre(testing::EndsWith("> turn_query<7>, reg_url<>, creds_url<" + std::string(400, 'c') + ">"),
                            "Get SDP offer: uuid<early>, complete<false>, turn_creds: <none yet>, offer<>",
                            testing::EndsWith(offer + ">")));
    nothing.expect_unchanged();
}

TEST(Webrtc, ACompleteOfferMayLackItsText)
{
    site::media_listener listener{[](const media_request &) {
        auto greedy = media_offer("greedy", "", "x");
        greedy[1].content = {1, 0, 0, 0, 1, 0, 0x40, 0}; // a header: 4 MiB and a byte
        greedy.pop_back();
        return greedy;
    }};
    log_lines log{"info"};
    webrtc_inform out = {};
    const sdp_request request = {};
    EXPECT_EQ(0, get_next_sdp_offer("s", &request, &out));
    EXPECT_STREQ("greedy", out.uuid);
    EXPECT_EQ(nullptr, out.offer);
    EXPECT_THAT(log.texts(), ElementsAre(testing::_, "Recv failed, exit",
                                         "Get SDP offer: uuid<greedy>, complete<true>, turn_creds: <>, offer<>"));
    free_webrtc_inform(&out);
}

TEST(Webrtc, AnAnswerIsReportedByTheListenersWordOnly)
{
    media_answer reply;
    site::media_listener listener{[&](const media_request &) { return reply; }};
    log_lines log{"info"};
    const leak_check nothing;
    const std::string answer(20000, 'a');
    const table<media_answer, std::string, const char *> cases = {
        {{media_record(0, "other")}, "other", "Set SDP success: uuid<s>"},
        {{media_record(0, std::string(64, 'u'))}, std::string(63, 'u'), "Set SDP success: uuid<s>"},
        {{media_record(2, "other")}, "", "Set SDP fail: uuid<s>"},
        {{}, "", "Set SDP answer: uuid<s> TIMEOUT!"},
    };
    for (const auto &[what, named, said] : cases) {
        reply = what;
        char *uuid = nullptr;
        {
            const no_time hurry(what.empty());
            EXPECT_EQ(0, set_sdp_answer("s", answer.c_str(), &uuid));
        }
        EXPECT_EQ(named, std::string_view(uuid ? uuid : ""));
        free(uuid);
        EXPECT_THAT(log.texts(), ElementsAre("Set SDP answer: uuid<s>, answer<" + answer + ">", said));
        EXPECT_EQ(answer, listener.requests().at(0).answer);
    }
    reply = {media_record(0, "s")};
    EXPECT_EQ(0, set_sdp_answer("s", "", nullptr));
    EXPECT_THAT(listener.faults(), IsEmpty());
    nothing.expect_unchanged();
}

TEST(Webrtc, ListsAndClosesSessions)
{
    bytes list(1808);
    for (size_t i = 4; i < list.size(); ++i) list[i] = static_cast<uint8_t>(i);
    const auto counting = [&](uint8_t count) {
        list[0] = count;
        return list;
    };
    const table<bytes, int> cases = {{media_record(0, "", counting(2)), 2},
                                     {media_record(0, "", counting(0)), 0},
                                     {media_record(4, "", counting(2)), 0},
                                     {bytes(3), 0}};
    bytes reply;
    site::media_listener listener{[&](const media_request &) { return media_answer{reply}; }};
    log_lines log{"info"};
    for (const auto &[record, result] : cases) {
        reply = record;
        bytes out(549, 0xEE);
        bytes expected = out;
        if (result > 0) std::copy_n(counting(2).begin(), 548, expected.begin());
        EXPECT_EQ(result, get_all_sdp_sessions(out.data()));
        EXPECT_EQ(expected, out);
    }
    listener.requests();
    EXPECT_EQ(0, close_sdp_session("s"));
    EXPECT_EQ(5, listener.requests().at(0).command);
    EXPECT_THAT(listener.faults(), IsEmpty());
    EXPECT_THAT(log.texts(), ElementsAre("SDP closed: uuid<s>"));
}

TEST(Webrtc, WhatCannotBeAskedIsToldAndLeavesNothing)
{
    log_lines log{"info"};
    const leak_check nothing;
    webrtc_inform out = {};
    const sdp_request request = {};
    EXPECT_EQ(-1, get_next_sdp_offer(nullptr, &request, &out));
    EXPECT_EQ(-1, set_sdp_answer("s", nullptr, nullptr));
    EXPECT_EQ(-1, close_sdp_session(nullptr));
    EXPECT_THAT(log.take(), IsEmpty());

    const table<const char *, std::function<int()>> calls = {
        {"get_next_sdp_offer", [&] { return get_next_sdp_offer("s", &request, &out); }},
        {"set_sdp_answer", [] { return set_sdp_answer("s", "a", nullptr); }},
        {"get_all_sdp_sessions", [] { return get_all_sdp_sessions(nullptr); }},
        {"close_sdp_session", [] { return close_sdp_session("s"); }},
    };
    for (const auto &[name, call] : calls) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(-1, call()) << "nobody listens";
        EXPECT_EQ(0U, testing::internal::GetCapturedStderr().find("connect: ")) << name;
        EXPECT_THAT(log.shown(), ElementsAre(std::string("[error] libvela_webrtc.") + name + "(): Socket error"));
    }
    nothing.expect_unchanged();
    if (!faults::can_refuse_memory) return;
    const faults::refuse_memory none;
    EXPECT_EQ(-1, get_next_sdp_offer("s", &request, &out));
    EXPECT_THAT(log.texts(), ElementsAre("buffer_create failed."));
}

TEST(Webrtc, AListenerThatTakesOrSaysNothingCostsTheTimeLimit)
{
    log_lines log{"warn"};
    const site::local_peer deaf{site::abstract_address("IPC_WEBRTC_LISTENER")};
    webrtc_inform out = {};
    const sdp_request request = {};
    {
        const no_time hurry;
        EXPECT_EQ(-ENOENT, get_next_sdp_offer("s", &request, &out));
        EXPECT_EQ(0, get_all_sdp_sessions(nullptr));
    }
    EXPECT_THAT(log.texts(), ElementsAre(testing::StartsWith("Get SDP offer: uuid<s> TIMEOUT! errno:"),
                                         "SDP get all sessions: TIMEOUT!"));
    const signal_storm storm;
    clock_type::time_point start;
    do {
        start = clock_type::now();
    } while (close_sdp_session("s") == 0);
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_GE(clock_type::now() - start, 1s);
    EXPECT_LT(clock_type::now() - start, 3s);
    EXPECT_THAT(log.texts(), ElementsAre("Connection Timeout!", "Socket Timeout"));
}
