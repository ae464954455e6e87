#include "site/collector.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <chrono>
#include <csignal>
#include <curl/curl.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <vela/net/curl_simple.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr const char *address = "https://api.example/thing";
constexpr const char *first = "1.1.1.1", *second = "8.8.8.8"; // the resolvers

/// What happens around libcurl's calls while it lives.
struct libcurl_fault {
    bool no_handle = false, no_header = false, pipe_signal = false;
    libcurl_fault() { current = this; }
    ~libcurl_fault() { current = nullptr; }
    static inline const libcurl_fault *current = nullptr;
};

template <class Function> Function *real(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

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
    return {.names = {"api.example"}, .unlisted = {"new.example"}, .addresses = {"127.0.0.1", first, second}};
}

} // namespace

extern "C" {
CURL *curl_easy_init(void)
{
    if (libcurl_fault::current && libcurl_fault::current->no_handle) return nullptr;
    return real<CURL *()>("curl_easy_init")();
}
curl_slist *curl_slist_append(curl_slist *list, const char *text)
{
    if (libcurl_fault::current && libcurl_fault::current->no_header) return nullptr;
    return real<curl_slist *(curl_slist *, const char *)>("curl_slist_append")(list, text);
}
CURLcode curl_easy_perform(CURL *handle)
{
    if (libcurl_fault::current && libcurl_fault::current->pipe_signal) raise(SIGPIPE);
    return real<CURLcode(CURL *)>("curl_easy_perform")(handle);
}
}

TEST(CurlSimple, RequestsArriveAsTheyWereMade)
{
    site::collector service(everything());
    service.on("/thing", site::reply{201, "made"});
    service.on("/moved", site::redirect(address));
    curl_slist *headers = curl_slist_append(nullptr, "X-Device: ap");
    json_t *document = json_pack("{s:[i,s]}", "list", 1, "ü");

    const struct {
        std::function<int(curl_simple_response *)> call;
        const char *method, *body, *type, *device;
    } cases[] = {
        {[&](auto *r) { return curl_simple_get(address, 0, headers, r); }, "GET", "", "", "ap"},
        {[&](auto *r) { return curl_simple_post(address, 0, headers, "a\0b", 3, r); }, "POST", "a\0b",
         "application/x-www-form-urlencoded", "ap"},
        {[&](auto *r) { return curl_simple_put(address, 0, nullptr, "dump", 4, r); }, "PUT", "dump",
         "application/x-www-form-urlencoded", ""},
        {[&](auto *r) { return curl_simple_post(address, 0, nullptr, "unsent", 0, r); }, "POST", "", "", ""},
        {[&](auto *r) { return curl_simple_put(address, 0, nullptr, "unsent", -1, r); }, "PUT", "", "", ""},
        {[&](auto *r) { return curl_simple_post_json(address, 0, document, r); }, "POST", R"({"list":[1,"ü"]})",
         "application/json", ""},
        {[&](auto *r) { return curl_simple_put_json(address, 0, nullptr, r); }, "PUT", "", "application/json", ""},
        {[&](auto *r) { return curl_simple_get("https://api.example/moved", 0, nullptr, r); }, "GET", "", "", ""},
    };
    for (const auto &c : cases) {
        response with;
        EXPECT_EQ(0, c.call(with.record));
        EXPECT_EQ(201, with.record->status);
        EXPECT_EQ("made", with.body());
        EXPECT_EQ(0, c.call(nullptr)) << "without a record the answer is dropped";
        const auto request = service.requests().back();
        EXPECT_EQ(c.method, request.method);
        EXPECT_EQ("api.example", request.host);
        EXPECT_EQ("/thing", request.path);
        EXPECT_STREQ(c.body, request.body.c_str());
        EXPECT_EQ(c.type, request.header("content-type"));
        EXPECT_EQ(c.device, request.header("x-device"));
    }
    json_decref(document);
    curl_slist_free_all(headers);
}

TEST(CurlSimple, BodiesAreKeptUpToTheirLimitAndCountedWhole)
{
    site::collector service(everything());
    constexpr struct {
        uint32_t body, max_size, kept;
    } cases[] = {{0, 10, 0},
                 {10, 10, 10},
                 {11, 10, 10},
                 {10, 0, 0},
                 {1, 0, 0},
                 {5, 4096, 5},
                 {2'000'000, 7000, 7000},
                 {2'000'000, 2'000'000, 2'000'000}};
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
        const auto fails = [&](int result, long status, const char *text) {
            const response r;
            EXPECT_EQ(result, curl_simple_get(address, 0, nullptr, r.record)) << text;
            EXPECT_EQ(status, r.record->status) << text;
            EXPECT_THAT(log.take(), ElementsAre(log_line{"debug", "curl_simple", "curl_simple",
                                                         std::string("GET '") + address + "' failed: [" +
                                                             std::to_string(result) + "] " + text}));
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
    leaks.expect_unchanged();

    log.take();
    {
        libcurl_fault fault;
        fault.no_handle = true;
        EXPECT_EQ(CURLE_FAILED_INIT, curl_simple_get(address, 0, nullptr, nullptr));
        fault.no_header = true;
        EXPECT_EQ(CURLE_OUT_OF_MEMORY, curl_simple_put_json(address, 0, nullptr, nullptr));
    }
    json_t *circle = json_array(); // no text can be made of it
    json_t *inner = json_array();
    json_array_append_new(circle, inner);
    json_array_append(inner, circle);
    EXPECT_EQ(CURLE_OUT_OF_MEMORY, curl_simple_post_json(address, 0, circle, nullptr));
    json_array_clear(inner);
    json_decref(circle);
    if (faults::can_refuse_memory) {
        faults::for_each_allocation([] { curl_simple_response_free(curl_simple_response_init(1)); });
        EXPECT_THAT(
            log.take(),
            ElementsAre(
                log_line{"debug", "curl_simple", "curl_simple", "Failed to init request"},
                log_line{"error", "curl_simple", "curl_simple_json", "Failed to add HTTP header"},
                log_line{"error", "curl_simple", "curl_simple_json", "Failed to dump json payload object"},
                log_line{"error", "curl_simple", "curl_simple_response_init",
                         "Failed to allocate curl_simple_response"},
                log_line{"error", "curl_simple", "curl_simple_response_init", "Failed to allocate response buffer"},
                log_line{"error", "curl_simple", "curl_simple_response_init", "Failed to allocate response buffer"},
                log_line{"error", "curl_simple", "curl_simple_response_init", "Failed to allocate response buffer"}));
    }
    leaks.expect_unchanged();
}

TEST(CurlSimple, StallsAndCirclesComeToAnEnd)
{
    site::collector service(everything());
    for (const auto &reply : {site::stalled(), site::redirect(address)}) {
        service.on("/thing", reply);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_NE(0, curl_simple_get(address, 0, nullptr, nullptr));
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(7));
    }
}

TEST(CurlSimple, ResolversAreAskedInOrderUntilOneKnows)
{
    log_lines log("debug");
    site::collector service(everything());
    service.on("/thing", site::reply{});
    service.resolve("new.example", {"127.0.0.1"});
    service.resolve("closed.example", {"127.0.0.9"});
    const auto broken = site::reply{500}, absurd = site::reply{200, "\1\2\3"};

    const struct {
        const char *host;
        uint32_t flags;
        std::vector<std::pair<const char *, site::reply>> resolvers;
        int result;
        std::vector<std::string> asked;
    } cases[] = {
        {"new.example", 1, {}, 0, {first}},
        {"new.example", 1, {{first, broken}}, 0, {first, second}},
        {"new.example", 1, {{first, absurd}}, 0, {first, second}},
        {"closed.example", 3, {}, CURLE_COULDNT_CONNECT, {first}},
        {"api.example", 1, {}, CURLE_COULDNT_RESOLVE_HOST, {first, second}}, // the system would know
        {"api.example", 3, {}, 0, {first, second}},
        {"api.example", 3, {{first, broken}, {second, absurd}}, 0, {first, second}},
        {"api.example", 2, {}, 0, {}},
        {"unknown.example", 3, {}, CURLE_COULDNT_RESOLVE_HOST, {first, second}},
    };
    for (const auto &c : cases) {
        for (const char *resolver : {first, second}) {
            service.on(std::string(resolver) + "/dns-query", std::vector<site::reply>{});
        }
        for (const auto &[resolver, reply] : c.resolvers) service.on(std::string(resolver) + "/dns-query", reply);
        service.requests();
        const std::string url = std::string("https://") + c.host + "/thing";
        EXPECT_EQ(c.result, curl_simple_get(url.c_str(), c.flags, nullptr, nullptr)) << c.host << " " << c.flags;

        std::vector<std::string> asked;
        for (const auto &request : service.requests()) {
            if (request.path != "/dns-query") continue;
            if (asked.empty() || asked.back() != request.host) asked.push_back(request.host);
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
    {
        libcurl_fault fault;
        fault.pipe_signal = true;
        EXPECT_EQ(0, curl_simple_get(address, 0, nullptr, nullptr)) << "and we are still here";
    }
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    raise(SIGPIPE);
    EXPECT_EQ(0, curl_simple_get(address, 0, nullptr, nullptr));
    sigpending(&pending);
    EXPECT_TRUE(sigismember(&pending, SIGPIPE)) << "the caller's own signal is not taken";
    signal(SIGPIPE, SIG_IGN); // discards it
}
