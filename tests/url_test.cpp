#include "site/world.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <memory>
#include <vela/core/internal/memory.h>
#include <vela/net/url.h>

using testing::_;
using testing::ElementsAre;

namespace
{

using url_ptr = std::unique_ptr<url, decltype([](url *u) { url_destroy(u); })>;
url_ptr parsed(const std::string &text) { return url_ptr{url_parse(text.c_str())}; }

void (*alter)(addrinfo &) = nullptr; ///< what to do to every entry of an answer
int last_family = 0;                 ///< of the latest answer

} // namespace

extern "C" int getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **answer)
{
    const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    const int result = real(host, service, hints, answer);
    for (addrinfo *entry = result == 0 ? *answer : nullptr; entry; entry = entry->ai_next) {
        last_family = entry->ai_family;
        if (alter) alter(*entry);
    }
    return result;
}

TEST(Url, PartsOfEveryForm)
{
    // SCHEME USERINFO HOST PORT PATH, "6" for an IPv6 address, "s" for https; then the normalized form.
    const table<const char *, std::string, const char *> cases = {
        {"HTTP://user:pw@Box/a?b", "http user:pw Box 80 /a?b ", "http://user:pw@Box/a?b"},
        {"https://u@[fe80::1]:8443", "https u fe80::1 8443 / 6s", "https://u@[fe80::1]:8443/"},
        {"https://10.0.0.1:443/x", "https - 10.0.0.1 443 /x s", "https://10.0.0.1/x"},
        {"u@gateway?q", "http u gateway 80 ?q ", "http://u@gateway?q"},
        {"WSS://host", "wss - host 443 / ", "wss://host/"},
        {"http://h#frag", "http - h#frag 80 / ", "http://h#frag/"},
        {"stun://h;p/q#frag", "stun - h 3478 ;p/q#frag ", "stun://h;p/q#frag"},
        {"http://@host/", "http - host 80 / ", "http://host/"},
        {"http://u:x@1.2.3.4:5/://", "http u:x 1.2.3.4 5 /:// ", "http://u:x@1.2.3.4:5/://"},
        // Without a letter of a name: an IPv4 address where the dots come first, else an IPv6 address.
        {"http://cafe/", "http - cafe 80 / 6", "http://[cafe]/"},
        {"http://:80/", "http - :80 80 / 6", "http://[:80]/"},
        {"http://::1.2.3.4/", "http - ::1.2.3.4 80 / 6", "http://[::1.2.3.4]/"},
        {"http://[1.2.3.4]:81", "http - 1.2.3.4 81 / 6", "http://[1.2.3.4]:81/"},
        {"http://9[::1]9:81", "http - ::1 81 / 6", "http://[::1]:81/"},
        {"http://1:2]3:81/", "http - 1:2]3 81 / 6", "http://[1:2]3]:81/"},
        {"http://[fe80::1%eth0]:81/", "http - [fe80 80 / ", "http://[fe80/"}, // "t" makes it a name
    };
    for (const auto &[text, parts, form] : cases) {
        const url_ptr u = parsed(text);
        ASSERT_TRUE(u) << text;
        EXPECT_EQ(parts, std::string(u->scheme) + " " + (u->userinfo ? u->userinfo : "-") + " " + u->host + " " +
                             std::to_string(u->port) + " " + u->path + " " + (u->is_ipv6 ? "6" : "") +
                             (u->is_https ? "s" : ""))
            << text;
        EXPECT_STREQ(form, u->url);
        EXPECT_STREQ(text, u->raw);
    }
    EXPECT_EQ(1024U + strlen("http:///"), strlen(parsed(std::string(1024, 'h'))->url));
}

TEST(Url, PortsHaveOneToFiveDigitsOrAreTheSchemes)
{
    const table<const char *, int> cases = {{"65534", 65534}, {"65535", 443}, {"1", 1},    {"0", 443},   {"00081", 81},
                                            {"000081", 443},  {"", 443},      {"8x", 443}, {"+81", 443}, {" 81", 443}};
    for (const auto &[text, port] : cases) EXPECT_EQ(port, parsed(std::string("https://host:") + text)->port) << text;

    uint16_t port = 7;
    for (const char *unknown : {"", "htt", static_cast<const char *>(nullptr)})
        EXPECT_EQ(-1, url_scheme2port(unknown, &port));
    EXPECT_EQ(7, port);
    EXPECT_EQ(0, url_scheme2port("http", nullptr));
}

TEST(Url, WhatIsNone)
{
    for (const char *text : {"gateway:8080", "gateway/a:b", "://host", "http:/host", "http:", "ftp://host/",
                             "httpss://h", "http://", "http:///path", "http://u@/", "http://u@", "http://:g/",
                             "http://[::1/", "http://]1[/", "http://[]/", "http://host/a@b", ""})
        EXPECT_EQ(nullptr, parsed(text)) << text;
    EXPECT_EQ(nullptr, parsed(std::string(1025, 'h')));
    EXPECT_EQ(nullptr, url_parse(nullptr));
}

TEST(Url, CopiesOwnTheirTexts)
{
    const url_ptr source = parsed("https://u@192.0.2.7:8443/p");
    ASSERT_EQ(0, url_resolve(source.get(), nullptr));
    source->aux = 5;
    url *place = url_parse("http://old");
    ASSERT_EQ(place, url_replace(&place, source.get()));
    const url_ptr copy{std::exchange(place, url_parse("http://old"))};
    for (char *url::*text : {&url::url, &url::raw, &url::scheme, &url::userinfo, &url::host, &url::path}) {
        EXPECT_STREQ((*source).*text, (*copy).*text);
        EXPECT_NE((*source).*text, (*copy).*text);
    }
    EXPECT_EQ(8443, copy->port);
    EXPECT_EQ(1, copy->is_https);
    EXPECT_EQ(0, copy->is_ipv6);
    EXPECT_EQ(5U, copy->aux);
    EXPECT_EQ(reinterpret_cast<sockaddr *>(source->sa), copy->ai.ai_addr) << "the address itself is not copied";
    free(std::exchange(source->url, nullptr));
    EXPECT_EQ(nullptr, url_replace(&place, source.get())) << "without its normalized form";
    EXPECT_EQ(nullptr, place);
}

TEST(Url, ResolvesAsAskedAndKeepsTheLastAddress)
{
    site::put_file("/etc/hosts", "2001:db8::1 six\n192.0.2.1 both\n2001:db8::2 both\n");
    log_lines log;
    char text[INET6_ADDRSTRLEN] = "untouched";
    const auto lookup = [&](const char *of, int family) {
        const addrinfo hints = {.ai_flags = 0, .ai_family = family, .ai_socktype = SOCK_STREAM};
        const url_ptr u = parsed(of);
        u->aux = 9;
        const int result = url_resolve(u.get(), family == AF_INET ? nullptr : &hints); // IPv4 alone without hints
        if (result == 0) {
            EXPECT_EQ(ENOSPC, url_addr_ntop(u.get(), text, 9));
            EXPECT_EQ(last_family, u->ai.ai_family);
        }
        EXPECT_EQ(result == -2 ? EINVAL : 0, url_addr_ntop(u.get(), text, sizeof text));
        EXPECT_EQ(nullptr, u->ai.ai_next);
        EXPECT_EQ(0U, u->aux);
        return result;
    };
    const int failure = lookup("http://six:81", AF_INET);
    EXPECT_THAT(log.texts(), ElementsAre(_, std::string("failed to resolve URL : ") + gai_strerror(failure)));
    EXPECT_STREQ("untouched", text) << "all zero after a failure";
    EXPECT_EQ(0, lookup("http://six:81", AF_INET6));
    EXPECT_STREQ("2001:db8::1", text);
    EXPECT_THAT(log.texts(), ElementsAre("url: http://six:81/", testing::StartsWith("Protocol:\t6 ("), _,
                                         "  Port:\t\t81", "  IPv6 Address:\t2001:db8::1"));
    EXPECT_EQ(0, lookup("http://both", AF_UNSPEC));

    // An entry's own family decides, not the one inside its address.
    alter = [](addrinfo &entry) { entry.ai_addr->sa_family = AF_UNIX; };
    EXPECT_EQ(0, lookup("http://six:81", AF_INET6));
    EXPECT_EQ("  IPv6 Address:\t2001:db8::1", log.texts().back());
    alter = [](addrinfo &entry) { entry.ai_family = AF_UNIX; };
    EXPECT_EQ(-6, lookup("http://both", AF_UNSPEC));
    EXPECT_EQ("  Unknown address family", log.texts().back());
    alter = [](addrinfo &entry) { entry.ai_addrlen = 29; };
    EXPECT_EQ(-2, lookup("http://both", AF_UNSPEC));
    EXPECT_EQ("Oversize sockaddr: 29 vs 28", log.texts().back());
    EXPECT_EQ(-1, url_resolve(nullptr, nullptr));
    EXPECT_EQ(EINVAL, url_addr_ntop(nullptr, text, sizeof text));
}

TEST(Url, EncodesForQueries)
{
    EXPECT_STREQ("a+b%26cAZaz09-._~%40%5b%60%7b%2f%3a%01%7f%80%ff%2b%25",
                 vela::c_string{url_encode("a b&cAZaz09-._~@[`{/:\x01\x7f\x80\xff+%")}.get());
}
