// Any text: what is accepted keeps its promises.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vela/net/url.h>

namespace
{

void check(bool holds)
{
    if (!holds) abort();
}

std::string put_together(const url *u)
{
    uint16_t port = 0;
    check(url_scheme2port(u->scheme, &port) == 0);
    std::string whole = std::string(u->scheme) + "://" + (u->userinfo ? std::string(u->userinfo) + "@" : "");
    whole += u->is_ipv6 ? "[" + std::string(u->host) + "]" : u->host;
    return whole + (u->port == port ? "" : ":" + std::to_string(u->port)) + u->path;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    const std::unique_ptr<char, decltype(&free)> encoded{url_encode(text.c_str()), free};
    check(strlen(encoded.get()) >= text.size());

    const std::unique_ptr<url, decltype(&url_destroy)> u{url_parse(text.c_str()), url_destroy};
    if (!u) return 0;
    check(u->raw == text && text.size() <= 1024 && *u->host && u->port != 0 && u->port != 65535 && *u->path);
    check((!u->userinfo || *u->userinfo) && u->is_https == (strcmp(u->scheme, "https") == 0));
    check(u->url == put_together(u.get()));
    return 0;
}
