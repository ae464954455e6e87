#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/log_lines.h"

#include <arpa/inet.h>
#include <cstring>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <memory>
#include <regex>
#include <sstream>
#include <sys/un.h>
#include <unistd.h>
#include <vela/net/url.h>

using testing::ElementsAre;

namespace
{

struct destroyer {
    void operator()(url *u) const { url_destroy(u); }
};
using url_ptr = std::unique_ptr<url, destroyer>;
using heap_text = std::unique_ptr<char, decltype([](char *text) { free(text); })>;

addrinfo *scripted; ///< the answer to every lookup, where there is one

sockaddr_in v4 = {AF_INET, htons(81), {htonl(0xc0000201)}, {}};
sockaddr_un local = {AF_UNIX, "/tmp/x"};
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

/// Resolves to a resolver's answer of any kind.
int resolve_to(url *u, std::vector<addrinfo> entries)
{
    for (size_t i = 1; i < entries.size(); ++i) entries[i - 1].ai_next = &entries[i];
    scripted = entries.data();
    const int result = url_resolve(u, nullptr);
    scripted = nullptr;
    return result;
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
    if (!scripted) return real(host, service, hints, answer);
    *answer = scripted;
    return 0;
}

extern "C" void freeaddrinfo(addrinfo *answer)
{
    static const auto real = reinterpret_cast<decltype(&freeaddrinfo)>(dlsym(RTLD_NEXT, "freeaddrinfo"));
    if (answer != scripted) real(answer);
}

TEST(Url, PartsOfEveryForm)
{
    constexpr struct {
        const char *text, *normalized,
            *parts; ///< "SCHEME USERINFO HOST PORT PATH", "6" for an IPv6 address, "s" for https
    } cases[] = {
        {"HTTP://user:pw@Box/a?b", "http://user:pw@Box/a?b", "http user:pw Box 80 /a?b"},
        {"https://[fe80::1]:8443", "https://[fe80::1]:8443/", "https - fe80::1 8443 / 6s"},
        {"https://10.0.0.1:443/x", "https://10.0.0.1/x", "https - 10.0.0.1 443 /x s"},
        {"u@gateway?q", "http://u@gateway?q", "http u gateway 80 ?q"},
        {"WSS://host", "wss://host/", "wss - host 443 /"},
        {"http://h#frag", "http://h#frag/", "http - h#frag 80 /"},
        {"stun://h;p/q#frag", "stun://h;p/q#frag", "stun - h 3478 ;p/q#frag"},
        {"http://@host/", "http://host/", "http - host 80 /"},
        {"http://u:x@1.2.3.4:5/://", "http://u:x@1.2.3.4:5/://", "http u:x 1.2.3.4 5 /://"},
        // Without a letter of a name: an IPv4 address where the dots come first, else an IPv6 address.
        {"http://cafe/", "http://[cafe]/", "http - cafe 80 / 6"},
        {"http://:80/", "http://[:80]/", "http - :80 80 / 6"},
        {"http://::1.2.3.4/", "http://[::1.2.3.4]/", "http - ::1.2.3.4 80 / 6"},
        {"http://[1.2.3.4]:81", "http://[1.2.3.4]:81/", "http - 1.2.3.4 81 / 6"},
        {"http://9[::1]9:81", "http://[::1]:81/", "http - ::1 81 / 6"},
        {"http://1:2]3:81/", "http://[1:2]3]:81/", "http - 1:2]3 81 / 6"},
        {"http://[fe80::1%eth0]:81/", "http://[fe80/", "http - [fe80 80 /"}, // "t" makes it a name
    };
    for (const auto &c : cases) {
        const url_ptr u{url_parse(c.text)};
        ASSERT_TRUE(u) << c.text;
        EXPECT_STREQ(c.normalized, u->url) << c.text;
        EXPECT_STREQ(c.text, u->raw);
        std::string parts = std::string(u->scheme) + " " + (u->userinfo ? u->userinfo : "-") + " " + u->host + " " +
                            std::to_string(u->port) + " " + u->path;
        if (u->is_ipv6 || u->is_https) parts += " ";
        EXPECT_EQ(c.parts, parts + (u->is_ipv6 ? "6" : "") + (u->is_https ? "s" : "")) << c.text;
        EXPECT_EQ("untouched", address_of(u.get()));
    }
}

TEST(Url, PortsHaveOneToFiveDigitsOrAreTheSchemes)
{
    constexpr struct {
        const char *text;
        int port;
    } cases[] = {{"65534", 65534}, {"65535", 443}, {"1", 1},    {"0", 443},   {"00081", 81},
                 {"000081", 443},  {"", 443},      {"8x", 443}, {"+81", 443}, {" 81", 443}};
    for (const auto &c : cases) {
        const url_ptr u{url_parse((std::string("https://host:") + c.text).c_str())};
        EXPECT_EQ(c.port, u->port) << c.text;
        EXPECT_EQ(c.port == 443 ? "https://host/" : "https://host:" + std::to_string(c.port) + "/", u->url) << c.text;
    }
}

TEST(Url, WhatIsNone)
{
    std::istringstream texts(
        "gateway:8080 gateway/a:b ://host http:/host http: ftp://host/ httpss://h http:// http:///path "
        "http://u@/ http://u@ http://:g/ http://[::1/ http://]1[/ http://[]/ http://host/a@b");
    for (std::string text; texts >> text;) EXPECT_EQ(nullptr, url_parse(text.c_str())) << text;
    EXPECT_EQ(nullptr, url_parse(nullptr));
    EXPECT_EQ(nullptr, url_parse(""));
    EXPECT_EQ(nullptr, url_parse(std::string(1025, 'h').c_str()));
    const url_ptr longest{url_parse(std::string(1024, 'h').c_str())};
    EXPECT_EQ(1024U + strlen("http:///"), strlen(longest->url));
}

TEST(Url, SchemesHavePorts)
{
    uint16_t port = 7;
    for (const char *unknown : {static_cast<const char *>(nullptr), "", "htt"}) {
        EXPECT_EQ(-1, url_scheme2port(unknown, &port));
    }
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

TEST(Url, ResolvesNamesAsAsked)
{
    site::put_file("/etc/hosts", "2001:db8::1 six\n");
    const url_ptr six{url_parse("http://six:81")};
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *answer = nullptr;
    const int failure = getaddrinfo("six", "81", &hints, &answer);
    log_lines log;
    EXPECT_EQ(failure, url_resolve(six.get(), nullptr)) << "IPv4 alone, without hints";
    EXPECT_THAT(log.take(), ElementsAre(log_line{"debug", "libvela", "url_resolve", "url: http://six:81/"},
                                        log_line{"debug", "libvela", "url_resolve",
                                                 std::string("failed to resolve URL : ") + gai_strerror(failure)}));
    hints.ai_family = AF_UNSPEC;
    six->aux = 9;
    ASSERT_EQ(0, url_resolve(six.get(), &hints));
    EXPECT_EQ("2001:db8::1", address_of(six.get()));
    EXPECT_EQ(htons(81), reinterpret_cast<const sockaddr_in6 *>(six->sa)->sin6_port);
    EXPECT_EQ(reinterpret_cast<sockaddr *>(six->sa), six->ai.ai_addr);
    EXPECT_EQ(0U, six->aux);
    char small[INET6_ADDRSTRLEN];
    EXPECT_EQ(ENOSPC, url_addr_ntop(six.get(), small, 11));
    EXPECT_EQ(EINVAL, url_addr_ntop(nullptr, small, sizeof small));
    EXPECT_EQ(-1, url_resolve(nullptr, nullptr));
    EXPECT_NE(0, url_resolve(six.get(), nullptr));
    EXPECT_EQ(0, six->ai.ai_family) << "all zero after a failure";
}

TEST(Url, KeepsTheLastAddressOfAnAnswer)
{
    const url_ptr u{url_parse("http://scripted")};
    log_lines log("debug");
    EXPECT_EQ(-6, resolve_to(u.get(), {entry(local)}));
    EXPECT_EQ(0, resolve_to(u.get(), {entry(v6), entry(v4), entry(local)}));
    EXPECT_EQ("192.0.2.1", address_of(u.get()));
    EXPECT_EQ(nullptr, u->ai.ai_next);
    EXPECT_THAT(log.texts(), testing::Each("url: http://scripted/")) << "answers are logged at trace";

    EXPECT_EQ(-2, resolve_to(u.get(), {entry(v4), entry(v6, 29)}));
    EXPECT_EQ("Oversize sockaddr: 29 vs 28", log.texts().back());
    char text[INET6_ADDRSTRLEN];
    EXPECT_EQ(EINVAL, url_addr_ntop(u.get(), text, sizeof text)) << "the entry that was refused has no address";
}

TEST(Url, AnswersAreLoggedAtTrace)
{
    site::put_file("/etc/protocols", "tcp 6 TCP\n");
    auto without = entry(local);
    without.ai_addr = nullptr;
    without.ai_protocol = 200;
    const url_ptr u{url_parse("http://scripted")};
    log_lines log("trace");
    resolve_to(u.get(), {entry(v4), entry(v6), entry(local), without});
    std::string texts;
    for (const auto &line : log.take()) {
        texts += line.text + "|";
        EXPECT_EQ("debug libvela", line.level + " " + line.module);
        EXPECT_EQ(line.text.starts_with("url:") ? "url_resolve" : "dump_addrinfo", line.function);
    }
    EXPECT_EQ(
        "url: http://scripted/|Protocol:\t6 (tcp)|Socket Address (len=16):|  Port:\t\t81|  IPv4 Address:\t192.0.2.1|"
        "Protocol:\t6 (tcp)|Socket Address (len=28):|  Port:\t\t81|  IPv6 Address:\t2001:db8::1|"
        "Protocol:\t6 (tcp)|Socket Address (len=110):|  Unknown address family|Protocol:\t200 (Unknown)|",
        texts);
}

TEST(Url, EncodesForQueries)
{
    const auto encode = [](const char *text) { return std::string(heap_text{url_encode(text)}.get()); };
    EXPECT_EQ("a+b%26cAZaz09-._~%40%5b%60%7b%2f%3a%01%7f%80%ff%2b%25",
              encode("a b&cAZaz09-._~@[`{/:\x01\x7f\x80\xff+%"));
    EXPECT_EQ("", encode(""));
}

TEST(Url, WithoutMemoryThereIsNoRecord)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    const int system_log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    ASSERT_EQ(0, bind(system_log, reinterpret_cast<const sockaddr *>(&address), sizeof address));
    const char *text = "http://u@host:81/p";
    const url_ptr source{url_parse(text)};
    std::string complaints;
    int made = 0;
    const auto without_memory = [&](auto call) {
        faults::for_each_allocation([&] {
            made += call() != nullptr;
            char record[256] = {};
            if (recv(system_log, record, sizeof record - 1, MSG_DONTWAIT) <= 0) return;
            complaints += std::regex_replace(record, std::regex("^<11>.*: (\\w+):\\d+( url oom)\n*$"), "$1$2|");
        });
    };
    without_memory([&] { return url_ptr{url_parse(text)}; });
    EXPECT_EQ("url_parse url oom|url_parse url oom|url_parse url oom|", std::exchange(complaints, ""));
    without_memory([&] { return url_ptr{url_copy(source.get())}; });
    EXPECT_TRUE(complaints.starts_with("url_copy url oom|url_copy url oom|"));
    without_memory([&] { return heap_text{url_encode("x")}; });
    EXPECT_EQ(3, made) << "only those that lacked nothing";
    close(system_log);
}
