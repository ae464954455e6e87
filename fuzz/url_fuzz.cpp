// Any text: what is accepted keeps its promises, and its copy is the same.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vela/net/url.h>

namespace
{

void check(bool holds)
{
    if (!holds) abort();
}

void check_record(const url *u, const std::string &text)
{
    uint16_t port = 0;
    check(u->raw == text && text.size() <= 1024 && *u->host && u->port != 0 && u->port != 65535 && *u->path);
    check(url_scheme2port(u->scheme, &port) == 0 && (!u->userinfo || *u->userinfo));
    check(u->is_https == (strcmp(u->scheme, "https") == 0));

    std::string whole = std::string(u->scheme) + "://";
    if (u->userinfo) whole += std::string(u->userinfo) + "@";
    whole += u->is_ipv6 ? "[" + std::string(u->host) + "]" : u->host;
    if (u->port != port) whole += ":" + std::to_string(u->port);
    check(u->url == whole + u->path);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    char *encoded = url_encode(text.c_str());
    check(strlen(encoded) >= text.size());
    free(encoded);

    url *u = url_parse(text.c_str());
    if (!u) return 0;
    check_record(u, text);
    url_destroy(u);
    return 0;
}
