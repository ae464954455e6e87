#include "site/collector.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <csignal>
#include <curl/curl.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <vela/net/curl_simple.h>

using testing::ElementsAre;

namespace
{

constexpr const char *address = "https://api.example/thing";

bool pipe_signal = false; ///< whether every transfer raises one

struct response {
    curl_simple_response *record;
    explicit response(uint32_t max_size = 4096) : record{curl_simple_response_init(max_size)} {}
    response(const response &) = delete;
    response &operator=(const response &) = delete;
    ~response() { curl_simple_response_free(record); }
    [[nodiscard]] std::string body() const
    {
        return {reinterpret_cast<const char *>(record->body->data(record->body)), record->body->length(record->body)};
    }
};

site::collector::settings everything()
{
    return {.names = {"api.example"}, .unlisted = {"new.example"}, .addresses = {"127.0.0.1", "1.1.1.1", "8.8.8.8"}};
}

} // namespace

extern "C" CURLcode curl_easy_perform(CURL *handle)
{
    static const auto real = reinterpret_cast<CURLcode (*)(CURL *)>(dlsym(RTLD_NEXT, "curl_easy_perform"));
    if (pipe_signal) raise(SIGPIPE);
    return real(handle);
}

TEST(CurlSimple, RequestsArriveAsTheyWereMade)
{
    site::collector service(everything());
    service.on("/thing", site::reply{201, "made"});
    service.on("/moved", site::redirect(address));
    curl_slist *headers = curl_slist_append(nullptr, "X-Device: ap");
    json_t *document = json_pack("{s:[i,s]}", "list", 1, "ü");
    const auto arrives = [&](const std::string &as, const std::function<int(curl_simple_response *)> &call) {
        const response r;
        EXPECT_EQ(0, call(r.record));
        EXPECT_EQ(201, r.record->status);
        EXPECT_EQ("made", r.body());
        EXPECT_EQ(0, call(nullptr)) << "without a record the answer is dropped";
        const auto got = service.requests().back();
        EXPECT_EQ(as, got.method + " " + got.header("x-device") + "|" + got.header("content-type") + "|" + got.body);
        EXPECT_EQ(address, "https://" + got.host + got.path);
    };
    const std::string form = "|application/x-www-form-urlencoded|", json = "|application/json|";
    arrives("GET ap||", [&](auto *r) { return curl_simple_get(address, 0, headers, r); });
    arrives("GET ||", [&](auto *r) { return curl_simple_get("https://api.example/moved", 0, nullptr, r); });
    arrives("POST ap" + form + "ab", [&](auto *r) { return curl_simple_post(address, 0, headers, "abc", 2, r); });
    arrives("POST ||", [&](auto *r) { return curl_simple_post(address, 0, nullptr, "unsent", 0, r); });
    arrives("PUT ||", [&](auto *r) { return curl_simple_put(address, 0, nullptr, "unsent", -1, r); });
    arrives("PUT " + form + "d", [&](auto *r) { return curl_simple_put(address, 0, nullptr, "d", 1, r); });
    arrives("POST " + json + R"({"list":[1,"ü"]})",
            [&](auto *r) { return curl_simple_post_json(address, 0, document, r); });
    arrives("PUT " + json, [&](auto *r) { return curl_simple_put_json(address, 0, nullptr, r); });
    json_decref(document);
    curl_slist_free_all(headers);
}

TEST(CurlSimple, BodiesAreKeptUpToTheirLimitAndCountedWhole)
{
    site::collector service(everything());
    constexpr struct {
        uint32_t body, max_size, kept;
    } cases[] = {
        {0, 10, 0}, {10, 10, 10}, {11, 10, 10}, {10, 0, 0}, {2'000'000, 7000, 7000}, {2'000'000, 2'000'000, 2'000'000}};
    for (const auto &c : cases) {
        std::string body(c.body, 'x');
        for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>('a' + i % 23);
        service.on("/thing", site::reply{200, body});
        const response r(c.max_size);
        EXPECT_EQ(0, curl_simple_get(address, 0, nullptr, r.record));
        EXPECT_EQ(c.body, r.record->received);
        EXPECT_TRUE(body.substr(0, c.kept) == r.body()) << c.body << " bytes into " << c.max_size;
    }
}

TEST(CurlSimple, FailuresAreLibcurlsAndAreExplained)
{
    log_lines log("debug");
    const leak_check leaks;
    {
        site::collector service(everything());
        const auto fails = [&](int result, long status, const std::string &text) {
            const response r;
            EXPECT_EQ(result, curl_simple_get(address, 0, nullptr, r.record)) << text;
            EXPECT_EQ(status, r.record->status) << text;
            EXPECT_THAT(log.texts(), ElementsAre(std::string("GET '") + address + "' failed: [" +
                                                 std::to_string(result) + "] " + text));
        };
        service.on("/thing", site::cut_short());
        fails(CURLE_PARTIAL_FILE, 200, "transfer closed with 996 bytes remaining to read");
        service.on("/thing", site::garbage());
        fails(CURLE_UNSUPPORTED_PROTOCOL, 0, "Received HTTP/0.9 when not allowed");
        service.present(site::identity::untrusted_authority);
        fails(CURLE_PEER_FAILED_VERIFICATION, 0, "SSL certificate problem: unable to get local issuer certificate");
        service.present(site::identity::wrong_name);
        fails(CURLE_PEER_FAILED_VERIFICATION, 0,
              "SSL: no alternative certificate subject name matches target host name 'api.example'");
    }
    EXPECT_EQ(CURLE_COULDNT_CONNECT, curl_simple_get(address, 0, nullptr, nullptr)) << "the service has gone";
    log.take();
    json_t *endless = json_array(); // no text can be made of it
    json_array_append_new(endless, json_pack("[O]", endless));
    EXPECT_EQ(CURLE_OUT_OF_MEMORY, curl_simple_post_json(address, 0, endless, nullptr));
    json_array_clear(json_array_get(endless, 0));
    json_decref(endless);
    const auto line = [](const char *level, const char *function, const char *text) {
        return log_line{level, "curl_simple", function, text};
    };
    EXPECT_THAT(log.take(), ElementsAre(line("error", "curl_simple_json", "Failed to dump json payload object")));
    if (faults::can_refuse_memory) {
        const auto refused = [](int n, auto call) {
            const faults::refuse_memory nth(n);
            return call();
        };
        const auto make = [] { return curl_simple_response_init(1); };
        EXPECT_EQ(nullptr, refused(0, make));
        EXPECT_EQ(nullptr, refused(1, make));
        EXPECT_EQ(CURLE_FAILED_INIT, refused(0, [] { return curl_simple_get(address, 0, nullptr, nullptr); }));
        EXPECT_EQ(CURLE_OUT_OF_MEMORY, refused(0, [] { return curl_simple_put_json(address, 0, nullptr, nullptr); }));
        EXPECT_THAT(log.take(),
                    ElementsAre(line("error", "curl_simple_response_init", "Failed to allocate curl_simple_response"),
                                line("error", "curl_simple_response_init", "Failed to allocate response buffer"),
                                line("debug", "curl_simple", "Failed to init request"),
                                line("error", "curl_simple_json", "Failed to add HTTP header")));
    }
    leaks.expect_unchanged();
}

TEST(CurlSimple, StallsAndCirclesComeToAnEnd)
{
    site::collector service(everything());
    service.on("/thing", site::stalled());
    const auto begin = time(nullptr);
    EXPECT_EQ(CURLE_OPERATION_TIMEDOUT, curl_simple_get(address, 0, nullptr, nullptr));
    EXPECT_NEAR(5, static_cast<double>(time(nullptr) - begin), 2);
    service.on("/thing", site::redirect(address));
    EXPECT_NE(0, curl_simple_get(address, 0, nullptr, nullptr));
}

TEST(CurlSimple, ResolversAreAskedInOrderUntilOneKnows)
{
    log_lines log("debug");
    site::collector service(everything());
    service.on("/thing", site::reply{});
    service.resolve("new.example", {"127.0.0.1"});
    service.resolve("closed.example", {"127.0.0.9"});
    using replies = std::vector<site::reply>;
    const replies works, broken = {site::reply{500}}, absurd = {site::reply{200, "\1\2\3"}};

    const struct {
        const char *host;
        uint32_t flags;
        replies first, second;
        int result;
        std::string asked;
    } cases[] = {
        {"new.example", 1, works, works, 0, "1.1.1.1 "},
        {"new.example", 1, broken, works, 0, "1.1.1.1 8.8.8.8 "},
        {"closed.example", 3, works, works, CURLE_COULDNT_CONNECT, "1.1.1.1 "},
        {"api.example", 1, works, works, CURLE_COULDNT_RESOLVE_HOST, "1.1.1.1 8.8.8.8 "}, // the system would know
        {"api.example", 3, broken, absurd, 0, "1.1.1.1 8.8.8.8 "},
        {"api.example", 2, works, works, 0, ""},
    };
    for (const auto &c : cases) {
        service.on("1.1.1.1/dns-query", c.first);
        service.on("8.8.8.8/dns-query", c.second);
        service.requests();
        const std::string url = std::string("https://") + c.host + "/thing";
        EXPECT_EQ(c.result, curl_simple_get(url.c_str(), c.flags, nullptr, nullptr)) << c.host << " " << c.flags;

        std::string asked;
        for (const auto &request : service.requests()) {
            if (request.path == "/dns-query" && !asked.ends_with(request.host + " ")) asked += request.host + " ";
        }
        EXPECT_EQ(c.asked, asked) << c.host << " " << c.flags;
    }
    service.present(site::identity::untrusted_authority);
    EXPECT_EQ(CURLE_COULDNT_RESOLVE_HOST, curl_simple_get("https://new.example/", 1, nullptr, nullptr))
        << "a resolver must prove who it is";
    for (const auto &text : log.texts()) EXPECT_FALSE(text.ends_with("] ")) << "explained: " << text;
}

TEST(CurlSimple, PipeSignalsStayWithTheirOwner)
{
    site::collector service(everything());
    sigset_t pipe, pending;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pipe_signal = true;
    EXPECT_EQ(0, curl_simple_get(address, 0, nullptr, nullptr)) << "and we are still here";
    pipe_signal = false;
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    raise(SIGPIPE);
    EXPECT_EQ(0, curl_simple_get(address, 0, nullptr, nullptr));
    sigpending(&pending);
    EXPECT_TRUE(sigismember(&pending, SIGPIPE)) << "the caller's own signal is not taken";
    signal(SIGPIPE, SIG_IGN); // discards it
}
