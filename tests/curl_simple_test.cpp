#include "site/collector.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

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

using response = std::unique_ptr<curl_simple_response, decltype([](auto *r) { curl_simple_response_free(r); })>;

std::string body_of(const response &r)
{
    return {reinterpret_cast<const char *>(r->body->data(r->body)), r->body->length(r->body)};
}

int get(const char *url = address, uint32_t flags = 0, curl_simple_response *r = nullptr)
{
    return curl_simple_get(url, flags, nullptr, r);
}

class CurlSimple : public testing::Test
{
protected:
    log_lines log{"debug"};
    std::unique_ptr<site::collector> service = std::make_unique<site::collector>(site::collector::settings{
        .names = {"api.example"}, .unlisted = {"new.example"}, .addresses = {"127.0.0.1", "1.1.1.1", "8.8.8.8"}});
};

} // namespace

extern "C" CURLcode curl_easy_perform(CURL *handle)
{
    static const auto real = reinterpret_cast<CURLcode (*)(CURL *)>(dlsym(RTLD_NEXT, "curl_easy_perform"));
    if (pipe_signal) raise(SIGPIPE);
    return real(handle);
}

TEST_F(CurlSimple, RequestsArriveAsTheyWereMade)
{
    service->on("/thing", site::reply{201, "made"});
    service->on("/moved", site::redirect(address));
    curl_slist *headers = curl_slist_append(nullptr, "X-Device: ap");
    json_t *document = json_pack("{s:[i,s]}", "list", 1, "ü");
    const auto arrives = [&](const std::string &as, const std::function<int(curl_simple_response *)> &call) {
        const response r{curl_simple_response_init(4096)};
        EXPECT_EQ(0, call(r.get()));
        EXPECT_EQ("201 made", std::to_string(r->status) + " " + body_of(r));
        EXPECT_EQ(0, call(nullptr)) << "without a record the answer is dropped";
        const auto got = service->requests().back();
        EXPECT_EQ(as, got.method + " " + got.header("x-device") + "|" + got.header("content-type") + "|" + got.body);
    };
    const std::string form = "|application/x-www-form-urlencoded|", json = "|application/json|";
    arrives("GET ap||", [&](auto *r) { return curl_simple_get(address, 0, headers, r); });
    arrives("GET ||", [&](auto *r) { return get("https://api.example/moved", 0, r); });
    arrives("POST ap" + form + "ab", [&](auto *r) { return curl_simple_post(address, 0, headers, "abc", 2, r); });
    arrives("POST ||", [&](auto *r) { return curl_simple_post(address, 0, nullptr, "unsent", 0, r); });
    arrives("PUT ||", [&](auto *r) { return curl_simple_put(address, 0, nullptr, "unsent", -1, r); });
    arrives("POST " + json + R"({"list":[1,"ü"]})",
            [&](auto *r) { return curl_simple_post_json(address, 0, document, r); });
    arrives("PUT " + json, [&](auto *r) { return curl_simple_put_json(address, 0, nullptr, r); });
    json_decref(document);
    curl_slist_free_all(headers);
}

TEST_F(CurlSimple, BodiesAreKeptUpToTheirLimitAndCountedWhole)
{
    std::string whole(2'000'000, 'x');
    for (size_t i = 0; i < whole.size(); ++i) whole[i] = static_cast<char>('a' + i % 23);
    const table<uint32_t, uint32_t> cases = {{0, 10}, {10, 10},          {11, 10},
                                             {10, 0}, {2'000'000, 7000}, {2'000'000, 2'000'000}};
    for (const auto &[size, max_size] : cases) {
        service->on("/thing", site::reply{200, whole.substr(0, size)});
        const response r{curl_simple_response_init(max_size)};
        EXPECT_EQ(0, get(address, 0, r.get()));
        EXPECT_EQ(size, r->received);
        EXPECT_TRUE(whole.substr(0, std::min(size, max_size)) == body_of(r)) << size << " bytes into " << max_size;
    }
}

TEST_F(CurlSimple, FailuresAreLibcurlsAndAreExplained)
{
    using enum site::identity;
    const leak_check leaks;
    using codes = std::vector<int>; // versions of libcurl differ
    const table<site::identity, site::reply, codes, long> cases = {
        {trusted, site::cut_short(), {CURLE_PARTIAL_FILE, CURLE_RECV_ERROR}, 200},
        {trusted, site::redirect("ftp://127.0.0.1/"), {CURLE_UNSUPPORTED_PROTOCOL}, 302},
        {trusted, site::redirect(address), {CURLE_TOO_MANY_REDIRECTS, CURLE_RECV_ERROR}, 302},
        {trusted, site::stalled(), {CURLE_OPERATION_TIMEDOUT}, 0},
        {untrusted_authority, {}, {CURLE_PEER_FAILED_VERIFICATION}, 0},
        {wrong_name, {}, {CURLE_PEER_FAILED_VERIFICATION}, 0},
    };
    for (const auto &[identity, reply, expected, status] : cases) {
        service->on("/thing", reply);
        service->present(identity);
        const response r{curl_simple_response_init(4096)};
        const auto begin = time(nullptr);
        const int result = get(address, 0, r.get());
        EXPECT_THAT(expected, testing::Contains(result));
        EXPECT_EQ(status, r->status) << result;
        EXPECT_NEAR(result == CURLE_OPERATION_TIMEDOUT ? 5 : 0, static_cast<double>(time(nullptr) - begin), 2);
        const std::string line = "GET 'https://api.example/thing' failed: \\[" + std::to_string(result) + "] .+";
        EXPECT_THAT(log.texts(), ElementsAre(testing::MatchesRegex(line)));
    }
    json_t *bare = json_string("no document");
    EXPECT_EQ(CURLE_OUT_OF_MEMORY, curl_simple_post_json(address, 0, bare, nullptr));
    json_decref(bare);
    service.reset();
    leaks.expect_unchanged();
}

TEST_F(CurlSimple, ResolversAreAskedInOrderUntilOneKnows)
{
    service->on("/thing", site::reply{});
    service->resolve("new.example", {"127.0.0.1"});
    service->resolve("closed.example", {"127.0.0.9"});
    std::map<char, std::vector<site::reply>> conduct = {{'+', {}}, {'-', {{500}}}, {'?', {{200, "\1\2\3"}}}};
    // Host, flags, how the resolvers answer, the result, and the first digits of those asked.
    const table<std::string, uint32_t, const char *, int, const char *> cases = {
        {"new.example", 1, "++", 0, "1"},
        {"new.example", 1, "-+", 0, "18"},
        {"closed.example", 3, "++", CURLE_COULDNT_CONNECT, "1"},
        {"api.example", 1, "++", CURLE_COULDNT_RESOLVE_HOST, "18"}, // the system would know
        {"api.example", 3, "-?", 0, "18"},
        {"api.example", 2, "++", 0, ""},
    };
    for (const auto &[host, flags, answers, result, expected] : cases) {
        service->on("1.1.1.1/dns-query", conduct[answers[0]]);
        service->on("8.8.8.8/dns-query", conduct[answers[1]]);
        service->requests();
        EXPECT_EQ(result, get(("https://" + host + "/thing").c_str(), flags)) << host << flags;
        std::string asked;
        for (const auto &r : service->requests()) {
            if (r.path == "/dns-query" && !asked.ends_with(r.host[0])) asked += r.host[0];
        }
        EXPECT_EQ(expected, asked) << host << flags;
    }
    log.take();
    service->present(site::identity::untrusted_authority);
    EXPECT_EQ(CURLE_COULDNT_RESOLVE_HOST, get("https://new.example/", 1)) << "a resolver must prove who it is";
    EXPECT_THAT(log.texts(), ElementsAre(testing::MatchesRegex(".* failed: \\[6] .+")));
}

TEST_F(CurlSimple, PipeSignalsStayWithTheirOwner)
{
    sigset_t pipe, pending;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pipe_signal = true;
    EXPECT_EQ(0, get()) << "and we are still here";
    pipe_signal = false;
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    raise(SIGPIPE);
    EXPECT_EQ(0, get());
    sigpending(&pending);
    EXPECT_TRUE(sigismember(&pending, SIGPIPE)) << "the caller's own signal is not taken";
    signal(SIGPIPE, SIG_IGN); // discards it
}
