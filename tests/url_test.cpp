#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/log_lines.h"

#include <arpa/inet.h>
#include <cstring>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <memory>
#include <sys/un.h>
#include <vela/net/url.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

struct destroyer {
    void operator()(url *u) const { url_destroy(u); }
};
using url_ptr = std::unique_ptr<url, destroyer>;

/// A resolver's answer of any kind; while it lives, every lookup gets it.
class scripted_answer
{
public:
    explicit scripted_answer(std::vector<addrinfo> entries) : entries_{std::move(entries)}
    {
        for (size_t i = 1; i < entries_.size(); ++i) entries_[i - 1].ai_next = &entries_[i];
        current = entries_.data();
    }
    scripted_answer(const scripted_answer &) = delete;
    scripted_answer &operator=(const scripted_answer &) = delete;
    ~scripted_answer() { current = nullptr; }

    static inline addrinfo *current = nullptr;

private:
    std::vector<addrinfo> entries_;
};

sockaddr_in v4 = {AF_INET, htons(81), {htonl(0xc0000201)}, {}};
sockaddr_in6 v6 = {AF_INET6, htons(81), 0, in6_addr{{{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}}, 0};

template <class Address> addrinfo entry(Address &address, socklen_t length = sizeof(Address))
{
    addrinfo info = {};
    info.ai_family = reinterpret_cast<sockaddr &>(address).sa_family;
    info.ai_protocol = IPPROTO_TCP;
    info.ai_addrlen = length;
    info.ai_addr = reinterpret_cast<sockaddr *>(&address);
    return info;
}

std::string address_of(const url *u)
{
    char text[INET6_ADDRSTRLEN] = "untouched";
    EXPECT_EQ(0, url_addr_ntop(u, text, sizeof text));
    return text;
}

} // namespace

extern "C" int getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **answer)
{
    static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    if (!scripted_answer::current) return real(host, service, hints, answer);
    *answer = scripted_answer::current;
    return 0;
}

extern "C" void freeaddrinfo(addrinfo *answer)
{
    static const auto real = reinterpret_cast<decltype(&freeaddrinfo)>(dlsym(RTLD_NEXT, "freeaddrinfo"));
    if (answer != scripted_answer::current) real(answer);
}

TEST(Url, PartsOfEveryForm)
{
    constexpr struct {
        const char *text, *normalized, *scheme, *userinfo, *host;
        uint16_t port;
        const char *path;
        int is_ipv6;
    } cases[] = {
        {"HTTP://user:pw@Box/a?b", "http://user:pw@Box/a?b", "http", "user:pw", "Box", 80, "/a?b", 0},
        {"https://[fe80::1]:8443", "https://[fe80::1]:8443/", "https", nullptr, "fe80::1", 8443, "/", 1},
        {"https://10.0.0.1:443/x", "https://10.0.0.1/x", "https", nullptr, "10.0.0.1", 443, "/x", 0},
        {"gateway", "http://gateway/", "http", nullptr, "gateway", 80, "/", 0},
        {"u@gateway?q", "http://u@gateway?q", "http", "u", "gateway", 80, "?q", 0},
        {"WSS://host", "wss://host/", "wss", nullptr, "host", 443, "/", 0},
        {"ws://host:443", "ws://host:443/", "ws", nullptr, "host", 443, "/", 0},
        {"stun://host", "stun://host/", "stun", nullptr, "host", 3478, "/", 0},
        {"http://1.2.3.4:81", "http://1.2.3.4:81/", "http", nullptr, "1.2.3.4", 81, "/", 0},
        {"http://h#frag", "http://h#frag/", "http", nullptr, "h#frag", 80, "/", 0},
        {"http://h;p/q#frag", "http://h;p/q#frag", "http", nullptr, "h", 80, ";p/q#frag", 0},
        {"http://@host/", "http://host/", "http", nullptr, "host", 80, "/", 0},
        {"http://u:x@1.2.3.4:5/://", "http://u:x@1.2.3.4:5/://", "http", "u:x", "1.2.3.4", 5, "/://", 0},
        // Ports: one to five digits from 1 to 65534, or the scheme's.
        {"http://host:65534/", "http://host:65534/", "http", nullptr, "host", 65534, "/", 0},
        {"https://host:65535/", "https://host/", "https", nullptr, "host", 443, "/", 0},
        {"http://host:99999/", "http://host/", "http", nullptr, "host", 80, "/", 0},
        {"http://host:0/", "http://host/", "http", nullptr, "host", 80, "/", 0},
        {"http://host:00081/", "http://host:81/", "http", nullptr, "host", 81, "/", 0},
        {"http://host:000081/", "http://host/", "http", nullptr, "host", 80, "/", 0},
        {"http://host:", "http://host/", "http", nullptr, "host", 80, "/", 0},
        {"http://host:8x/", "http://host/", "http", nullptr, "host", 80, "/", 0},
        {"http://host:+81/", "http://host/", "http", nullptr, "host", 80, "/", 0},
        {"http://host:81:82/", "http://host/", "http", nullptr, "host", 80, "/", 0},
        // Without a letter of a name: an IPv4 address where the dots come first, else an IPv6 address.
        {"http://cafe/", "http://[cafe]/", "http", nullptr, "cafe", 80, "/", 1},
        {"http://1234:8080/", "http://[1234:8080]/", "http", nullptr, "1234:8080", 80, "/", 1},
        {"http://:80/", "http://[:80]/", "http", nullptr, ":80", 80, "/", 1},
        {"http://::1.2.3.4/", "http://[::1.2.3.4]/", "http", nullptr, "::1.2.3.4", 80, "/", 1},
        {"http://.:80/", "http://./", "http", nullptr, ".", 80, "/", 0},
        {"http://[1.2.3.4]:81", "http://[1.2.3.4]:81/", "http", nullptr, "1.2.3.4", 81, "/", 1},
        {"http://9[::1]9:81", "http://[::1]:81/", "http", nullptr, "::1", 81, "/", 1},
        {"http://1:2]3:81/", "http://[1:2]3]:81/", "http", nullptr, "1:2]3", 81, "/", 1},
        {"http://1:2]/", "http://[1:2]]/", "http", nullptr, "1:2]", 80, "/", 1},
        {"http://[fe80::1%eth0]:81/", "http://[fe80/", "http", nullptr, "[fe80", 80, "/", 0}, // "t" makes it a name
        {"http://\xc3\xa4.example", "http://\xc3\xa4.example/", "http", nullptr, "\xc3\xa4.example", 80, "/", 0},
    };
    for (const auto &c : cases) {
        const url_ptr u{url_parse(c.text)};
        ASSERT_TRUE(u) << c.text;
        EXPECT_STREQ(c.normalized, u->url) << c.text;
        EXPECT_STREQ(c.text, u->raw);
        EXPECT_STREQ(c.scheme, u->scheme) << c.text;
        EXPECT_STREQ(c.userinfo, u->userinfo) << c.text;
        EXPECT_STREQ(c.host, u->host) << c.text;
        EXPECT_EQ(c.port, u->port) << c.text;
        EXPECT_STREQ(c.path, u->path) << c.text;
        EXPECT_EQ(c.is_ipv6, u->is_ipv6) << c.text;
        EXPECT_EQ(strcmp(c.scheme, "https") == 0, u->is_https) << c.text;
        EXPECT_EQ("untouched", address_of(u.get()));
    }
}

TEST(Url, WhatIsNone)
{
    for (const char *text : {"",
                             "gateway:8080",
                             "gateway/a:b",
                             ":",
                             "://host",
                             "http:/host",
                             "http:",
                             "ftp://host/",
                             "httpss://h",
                             "http://",
                             "http:///path",
                             "http://@",
                             "http://u@/",
                             "http://u@",
                             "http://:g/",
                             "http://[::1/",
                             "http://]1[/",
                             "http://[]/",
                             "http://1]:[2/",
                             "http://host/a@b",
                             "http://?q"}) {
        EXPECT_EQ(nullptr, url_parse(text)) << text;
    }
    EXPECT_EQ(nullptr, url_parse(nullptr));
    EXPECT_EQ(nullptr, url_parse(std::string(1025, 'h').c_str()));
    const url_ptr longest{url_parse(std::string(1024, 'h').c_str())};
    ASSERT_TRUE(longest);
    EXPECT_EQ(1024U + strlen("http:///"), strlen(longest->url));
}

TEST(Url, SchemesHavePorts)
{
    uint16_t port = 7;
    EXPECT_EQ(-1, url_scheme2port(nullptr, &port));
    EXPECT_EQ(-1, url_scheme2port("", &port));
    EXPECT_EQ(-1, url_scheme2port("htt", &port));
    EXPECT_EQ(7, port);
    EXPECT_EQ(0, url_scheme2port("StUn", &port));
    EXPECT_EQ(3478, port);
    EXPECT_EQ(0, url_scheme2port("http", nullptr));
}

TEST(Url, CopiesOwnTheirTexts)
{
    url_ptr source{url_parse("https://u@192.0.2.7:8443/p")};
    ASSERT_EQ(0, url_resolve(source.get(), nullptr));
    source->aux = 5;
    url_ptr copy{url_copy(source.get())};
    for (char *url::*text : {&url::url, &url::raw, &url::scheme, &url::userinfo, &url::host, &url::path}) {
        EXPECT_STREQ((*source).*text, (*copy).*text);
        EXPECT_NE((*source).*text, (*copy).*text);
    }
    EXPECT_EQ(8443, copy->port);
    EXPECT_EQ(1, copy->is_https);
    EXPECT_EQ(5U, copy->aux);
    EXPECT_EQ(0, copy->sa[0]) << "the address itself is not copied";
    EXPECT_EQ("192.0.2.7", address_of(copy.get()));

    url *place = copy.release();
    EXPECT_EQ(place, url_replace(&place, source.get()));
    EXPECT_STREQ(source->url, place->url);
    free(std::exchange(source->url, nullptr));
    EXPECT_EQ(nullptr, url_replace(&place, source.get())) << "without its normalized form";
    EXPECT_EQ(nullptr, place);
    EXPECT_EQ(nullptr, url_copy(nullptr));
    url_destroy(nullptr);
}

TEST(Url, ResolvesToTheLastAddress)
{
    site::put_file("/etc/hosts", "192.0.2.1 two\n192.0.2.2 two\n2001:db8::1 six\n");
    url_ptr two{url_parse("http://two:81/")};
    two->aux = 9;
    ASSERT_EQ(0, url_resolve(two.get(), nullptr));
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *answer = nullptr;
    ASSERT_EQ(0, getaddrinfo("two", "81", &hints, &answer));
    const addrinfo *last = answer;
    while (last->ai_next) last = last->ai_next;
    EXPECT_NE(last, answer) << "the name has two addresses";
    EXPECT_EQ(0, memcmp(last->ai_addr, two->sa, last->ai_addrlen));
    freeaddrinfo(answer);
    EXPECT_EQ(SOCK_STREAM, two->ai.ai_socktype);
    EXPECT_EQ(reinterpret_cast<sockaddr *>(two->sa), two->ai.ai_addr);
    EXPECT_EQ(nullptr, two->ai.ai_next);
    EXPECT_EQ(0U, two->aux);

    url_ptr six{url_parse("http://six")};
    log_lines log;
    const int failure = getaddrinfo("six", "80", &hints, &answer);
    EXPECT_NE(0, failure);
    EXPECT_EQ(failure, url_resolve(six.get(), nullptr));
    EXPECT_THAT(log.take(), ElementsAre(log_line{"debug", "libvela", "url_resolve", "url: http://six/"},
                                        log_line{"debug", "libvela", "url_resolve",
                                                 std::string("failed to resolve URL : ") + gai_strerror(failure)}));
    hints.ai_family = AF_UNSPEC;
    ASSERT_EQ(0, url_resolve(six.get(), &hints));
    EXPECT_EQ("2001:db8::1", address_of(six.get()));
    char small[INET6_ADDRSTRLEN];
    EXPECT_EQ(ENOSPC, url_addr_ntop(six.get(), small, 11));
    EXPECT_EQ(0, url_addr_ntop(six.get(), small, 12));
    EXPECT_EQ(EINVAL, url_addr_ntop(nullptr, small, sizeof small));
    EXPECT_EQ(-1, url_resolve(nullptr, nullptr));

    free(std::exchange(two->host, strdup("none.invalid")));
    EXPECT_NE(0, url_resolve(two.get(), nullptr));
    EXPECT_EQ(0, two->ai.ai_family) << "all zero after a failure";
}

TEST(Url, AnswersOfEveryKind)
{
    sockaddr_un local = {AF_UNIX, "/tmp/x"};
    const url_ptr u{url_parse("http://scripted")};
    char text[INET6_ADDRSTRLEN];
    log_lines log("debug");
    {
        const scripted_answer strange{{entry(local)}};
        EXPECT_EQ(-6, url_resolve(u.get(), nullptr));
        EXPECT_EQ(0, u->ai.ai_family);
    }
    {
        const scripted_answer mixed{{entry(v6), entry(v4), entry(local)}};
        EXPECT_EQ(0, url_resolve(u.get(), nullptr));
        EXPECT_EQ("192.0.2.1", address_of(u.get()));
    }
    log.take();
    {
        const scripted_answer oversize{{entry(v4), entry(v6, 29)}};
        EXPECT_EQ(-2, url_resolve(u.get(), nullptr));
        EXPECT_EQ(AF_INET6, u->ai.ai_family) << "the entry that was refused";
        EXPECT_EQ(EINVAL, url_addr_ntop(u.get(), text, sizeof text)) << "but not its address, which is gone";
        EXPECT_EQ("Oversize sockaddr: 29 vs 28", log.texts().back());
    }
    const scripted_answer oversize_first{{entry(v6, 29), entry(v6)}};
    EXPECT_EQ(0, url_resolve(u.get(), nullptr));
}

TEST(Url, AnswersAreLoggedAtTraceOnly)
{
    sockaddr_un local = {AF_UNIX, "/tmp/x"};
    site::put_file("/etc/protocols", "tcp 6 TCP\n");
    auto without = entry(local);
    without.ai_addr = nullptr;
    without.ai_protocol = 200;
    const scripted_answer all{{entry(v4), entry(v6), entry(local), without}};
    const url_ptr u{url_parse("http://scripted")};
    {
        log_lines debug("debug");
        url_resolve(u.get(), nullptr);
        EXPECT_THAT(debug.texts(), ElementsAre("url: http://scripted/"));
    }
    log_lines trace("trace");
    url_resolve(u.get(), nullptr);
    auto lines = trace.take();
    EXPECT_EQ((log_line{"debug", "libvela", "dump_addrinfo", "Protocol:\t6 (tcp)"}), lines.at(1));
    lines.erase(lines.begin());
    std::vector<std::string> texts;
    for (const auto &line : lines) texts.push_back(line.text);
    EXPECT_THAT(texts, ElementsAre("Protocol:\t6 (tcp)", "Socket Address (len=16):", "  Port:\t\t81",
                                   "  IPv4 Address:\t192.0.2.1", "Protocol:\t6 (tcp)",
                                   "Socket Address (len=28):", "  Port:\t\t81", "  IPv6 Address:\t2001:db8::1",
                                   "Protocol:\t6 (tcp)", "Socket Address (len=110):", "  Unknown address family",
                                   "Protocol:\t200 (Unknown)"));
}

TEST(Url, EncodesForQueries)
{
    constexpr struct {
        const char *text, *encoded;
    } cases[] = {{"a b&c", "a+b%26c"},
                 {"", ""},
                 {"AZaz09-._~", "AZaz09-._~"},
                 {"@[`{/:", "%40%5b%60%7b%2f%3a"},
                 {"\x01\x7f\x80\xff+%", "%01%7f%80%ff%2b%25"}};
    for (const auto &c : cases) {
        char *encoded = url_encode(c.text);
        EXPECT_STREQ(c.encoded, encoded);
        free(encoded);
    }
}

TEST(Url, WithoutMemoryThereIsNoRecord)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    const char *text = "http://u@host:81/p";
    const url_ptr source{url_parse(text)};
    int made = 0;
    faults::for_each_allocation([&] { made += url_ptr{url_parse(text)} != nullptr; });
    faults::for_each_allocation([&] { made += url_ptr{url_copy(source.get())} != nullptr; });
    faults::for_each_allocation([&] {
        char *encoded = url_encode("x");
        made += encoded != nullptr;
        free(encoded);
    });
    EXPECT_EQ(3, made) << "only those that lacked nothing";
}
