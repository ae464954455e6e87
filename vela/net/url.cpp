// URLs: split into parts, kept as records, resolved to an address, encoded for queries.
//
// Splitting works on views of the text and allocates nothing; only a URL that is accepted becomes a record.

#include <arpa/inet.h>
#include <optional>
#include <syslog.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/memory.h>
#include <vela/core/internal/text.h>
#include <vela/net/url.h>

static_assert(sizeof(url::sa) == 28);

namespace
{

constexpr const char *log_module = "libvela";

constexpr size_t length_max = 1024;
constexpr size_t port_digits_max = 5;
constexpr uint32_t port_max = 65534; // On purpose: 65535 is no port here.
constexpr const char *digits = "0123456789abcdef";

struct known_scheme {
    std::string_view name;
    uint16_t port;
};
constexpr known_scheme schemes[] = {{"http", 80}, {"https", 443}, {"stun", 3478}, {"ws", 80}, {"wss", 443}};

using url_ptr = std::unique_ptr<url, vela::releaser<url_destroy>>;

const known_scheme *find_scheme(std::string_view name)
{
    constexpr auto same_letter = [](char a, char b) { return vela::lower(a) == b; };
    for (const auto &scheme : schemes) {
        if (std::equal(name.begin(), name.end(), scheme.name.begin(), scheme.name.end(), same_letter)) return &scheme;
    }
    return nullptr;
}

/// What a URL consists of; a part that it lacks has its default.
struct parts {
    std::string_view scheme = "http";
    std::string_view userinfo = {};
    std::string_view host = {};
    std::string_view port = {};
    std::string_view path = "/";
    bool is_ipv6 = false;
};

constexpr size_t none = std::string_view::npos;

/// True for g to z: a host with such a letter is a name, not an IPv6 address.
bool is_name_letter(char c) { return vela::lower(c) >= 'g' && vela::lower(c) <= 'z'; }

/// The host stands before the colon, the port behind it; without a colon all is host.
void split_at(size_t colon, std::string_view authority, parts &p)
{
    p.host = vela::first(authority, colon);
    if (colon != none) p.port = vela::after(authority, colon + 1);
}

bool split_ipv6(std::string_view authority, parts &p)
{
    p.is_ipv6 = true;
    const size_t open = authority.find('[');
    const size_t close = authority.find(']');
    if (open == none && close == none) {
        p.host = authority; // a port could not be told from the address
        return true;
    }
    if (open != none && (close == none || close < open)) return false;

    split_at(authority.find(':', close), authority, p);
    if (open != none) p.host = vela::after(vela::first(authority, close), open + 1);
    return true;
}

bool split_authority(std::string_view authority, parts &p)
{
    if (authority.empty()) return false;
    const size_t colon = authority.find(':');
    const size_t dot = authority.find('.');
    const bool is_name = std::any_of(authority.begin(), authority.end(), is_name_letter);
    // Without a colon its position is npos, which is larger than any dot's.
    const bool is_ipv4 = dot != none && dot < colon && authority.find('[') == none;
    if (!is_name && !is_ipv4) return split_ipv6(authority, p);
    split_at(colon, authority, p);
    return true;
}

std::optional<parts> split(std::string_view rest)
{
    parts p;
    if (const size_t colon = rest.find(':'); colon != none) {
        // On purpose: a colon without "//" is an error, so that a URL without a scheme cannot have a port.
        if (!vela::starts_with(vela::after(rest, colon), "://")) return {};
        p.scheme = vela::first(rest, colon);
        rest = vela::after(rest, colon + 3);
    }

    const size_t end = rest.find_first_of("/;?");
    if (end != none) p.path = vela::after(rest, end);
    auto authority = vela::first(rest, end);

    if (const size_t at = rest.find('@'); at != none) {
        p.userinfo = vela::first(authority, at);
        authority = vela::after(authority, at + 1); // an "@" in the path leaves no authority, and so no host
    }
    if (!split_authority(authority, p) || p.host.empty()) return {};
    return p;
}

/// The port's number; the fallback for a text that is none.
uint16_t port_or(std::string_view text, uint16_t fallback)
{
    if (text.empty() || text.size() > port_digits_max) return fallback;
    uint32_t port = 0;
    for (const char c : text) {
        if (!vela::is_digit(c)) return fallback;
        port = port * 10 + static_cast<uint32_t>(c - '0');
    }
    return port >= 1 && port <= port_max ? static_cast<uint16_t>(port) : fallback;
}

/// A heap copy; null without memory.
char *copy_of(std::string_view text)
{
    char *copy = static_cast<char *>(malloc(text.size() + 1));
    if (copy) vela::copy_text(copy, text.size() + 1, text);
    return copy;
}

/// Copies a text that may be absent. False without memory.
bool copy_field(char *&out, const char *text)
{
    if (!text) return true;
    out = copy_of(text);
    return out != nullptr;
}

/// Text put together in room that is known to be enough.
struct writer {
    writer &operator<<(std::string_view text)
    {
        memcpy(end, text.data(), text.size());
        end += text.size();
        return *this;
    }
    char *end;
};

char *normalized(const parts &p, const known_scheme &scheme, uint16_t port)
{
    char port_text[sizeof ":65534"] = "";
    if (port != scheme.port) snprintf(port_text, sizeof port_text, ":%u", port);

    const size_t size = scheme.name.size() + 3 + (p.userinfo.empty() ? 0 : p.userinfo.size() + 1) + p.host.size() +
                        (p.is_ipv6 ? 2 : 0) + p.path.size() + sizeof port_text;
    char *text = static_cast<char *>(malloc(size));
    if (!text) return nullptr;

    writer out{text};
    out << scheme.name << "://";
    if (!p.userinfo.empty()) out << p.userinfo << "@";
    out << (p.is_ipv6 ? "[" : "") << p.host << (p.is_ipv6 ? "]" : "") << port_text << p.path;
    *out.end = '\0';
    return text;
}

/// Tells the system log. Returns what the caller then returns.
std::nullptr_t no_memory(const char *function, int line)
{
    syslog(LOG_ERR, "%s:%d url oom\n", function, line);
    return nullptr;
}

/// The last entry of an answer that is an IPv4 or IPv6 address goes into the record.
int choose_address(url &u, const addrinfo *list)
{
    int result = EAI_FAMILY;
    for (; list; list = list->ai_next) {
        if (list->ai_family != AF_INET && list->ai_family != AF_INET6) continue;
        u.ai = *list;
        u.ai.ai_next = nullptr;
        u.ai.ai_addr = nullptr; // the answer's own is about to be freed
        if (list->ai_addrlen > sizeof u.sa) {
            log_error_as("url_resolve", "Oversize sockaddr: %d vs %zd", static_cast<int>(list->ai_addrlen),
                         static_cast<ssize_t>(sizeof u.sa));
            result = EAI_NONAME;
            continue;
        }
        memcpy(u.sa, list->ai_addr, list->ai_addrlen);
        u.ai.ai_addr = reinterpret_cast<sockaddr *>(u.sa);
        result = 0;
    }
    return result;
}

/// Where the address itself lies in a resolved socket address, and its port. The entry's family decides what it is;
/// null for others than IPv4 and IPv6.
struct inet_address {
    explicit inet_address(const addrinfo &resolved) : family{resolved.ai_family}
    {
        if (!resolved.ai_addr) return;
        if (family == AF_INET) {
            const auto *v4 = reinterpret_cast<const sockaddr_in *>(resolved.ai_addr);
            bytes = &v4->sin_addr;
            port = ntohs(v4->sin_port);
        } else if (family == AF_INET6) {
            const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(resolved.ai_addr);
            bytes = &v6->sin6_addr;
            port = ntohs(v6->sin6_port);
        }
    }
    [[nodiscard]] const char *print(char *out, socklen_t size) const { return inet_ntop(family, bytes, out, size); }

    int family;
    const void *bytes = nullptr;
    int port = 0;
};

void dump_address(const addrinfo &resolved)
{
    const inet_address inet{resolved};
    if (!inet.bytes) {
        log_debug_as("dump_addrinfo", "  Unknown address family");
        return;
    }
    const int version = inet.family == AF_INET ? 4 : 6;
    log_debug_as("dump_addrinfo", "  Port:\t\t%d", inet.port);
    char text[INET6_ADDRSTRLEN];
    if (inet.print(text, sizeof text)) {
        log_debug_as("dump_addrinfo", "  IPv%d Address:\t%s", version, text);
    } else {
        log_error_as("dump_addrinfo", "Converting IPv%d address to readable form", version);
    }
}

} // namespace

int url_scheme2port(const char *scheme, uint16_t *port)
{
    const known_scheme *known = find_scheme(vela::view(scheme));
    if (!known) return -1;
    if (port) *port = known->port;
    return 0;
}

url *url_parse(const char *text)
{
    const size_t length = text ? strnlen(text, length_max + 1) : 0;
    if (length == 0 || length > length_max) return nullptr;
    const auto p = split({text, length});
    const known_scheme *scheme = p ? find_scheme(p->scheme) : nullptr;
    if (!scheme) return nullptr;

    url_ptr u{vela::make_zeroed<url>().release()};
    if (!u) return no_memory(__func__, __LINE__);
    u->port = port_or(p->port, scheme->port);
    u->is_https = scheme->name == "https";
    u->is_ipv6 = p->is_ipv6;

    u->path = copy_of(p->path);
    if (!u->path) return no_memory(__func__, __LINE__);
    u->url = normalized(*p, *scheme, u->port);
    if (!u->url) return no_memory(__func__, __LINE__);
    u->raw = copy_of({text, length});
    u->scheme = copy_of(scheme->name);
    u->host = copy_of(p->host);
    if (!p->userinfo.empty()) u->userinfo = copy_of(p->userinfo);
    const bool whole = u->raw && u->scheme && u->host && (u->userinfo || p->userinfo.empty());
    return whole ? u.release() : nullptr;
}

void url_destroy(url *u)
{
    if (!u) return;
    for (char *text : {u->url, u->raw, u->scheme, u->userinfo, u->host, u->path}) free(text);
    free(u);
}

url *url_copy(const url *src)
{
    if (!src || !src->url) return nullptr;
    url_ptr copy{vela::make_zeroed<url>().release()};
    if (!copy) return no_memory(__func__, __LINE__);
    for (char *url::*text : {&url::url, &url::raw, &url::scheme, &url::userinfo, &url::host, &url::path}) {
        if (!copy_field((*copy).*text, src->*text)) return no_memory(__func__, __LINE__);
    }
    copy->port = src->port;
    copy->is_https = src->is_https;
    copy->is_ipv6 = src->is_ipv6;
    copy->ai = src->ai; // On purpose: its address pointer still leads into the source.
    copy->aux = src->aux;
    return copy.release();
}

url *url_replace(url **dst, const url *src)
{
    if (!dst) return nullptr;
    url_destroy(*dst);
    *dst = url_copy(src);
    return *dst;
}

int url_resolve(url *u, const addrinfo *hints)
{
    if (!u) return -1;
    log_debug("url: %s", u->url);

    constexpr addrinfo ipv4_stream = {.ai_flags = 0, .ai_family = AF_INET, .ai_socktype = SOCK_STREAM};
    const addrinfo asked = hints ? *hints : ipv4_stream;
    u->ai = {};
    u->aux = 0;

    const vela::formatted<sizeof "65535"> port{"%u", u->port};
    addrinfo *answer = nullptr;
    if (const int failure = getaddrinfo(u->host, port.c_str(), &asked, &answer)) {
        log_debug("failed to resolve URL : %s", gai_strerror(failure));
        return failure;
    }
    if (libvela_log_level == 1U << LIBVELA_LOG_TRACE) dump_addrinfo(answer);
    const int result = choose_address(*u, answer);
    freeaddrinfo(answer);
    return result;
}

int url_addr_ntop(const url *u, char *buf, socklen_t len)
{
    if (!u) return EINVAL;
    if (u->ai.ai_family != AF_INET && u->ai.ai_family != AF_INET6) return 0;
    const inet_address inet{u->ai};
    if (!inet.bytes) return EINVAL; // one that was too large to be kept
    return inet.print(buf, len) ? 0 : errno;
}

void dump_addrinfo(const addrinfo *list)
{
    for (; list; list = list->ai_next) {
        const protoent *protocol = getprotobynumber(list->ai_protocol);
        log_debug("Protocol:\t%d (%s)", list->ai_protocol, protocol ? protocol->p_name : "Unknown");
        if (!list->ai_addr) continue;
        log_debug("Socket Address (len=%d):", static_cast<int>(list->ai_addrlen));
        dump_address(*list);
    }
}

char *url_encode(const char *s)
{
    const std::string_view text = vela::view(s);
    size_t size = 0;
    if (__builtin_mul_overflow(text.size(), 3, &size) || __builtin_add_overflow(size, 1, &size)) return nullptr;
    char *encoded = static_cast<char *>(malloc(size));
    if (!encoded) return nullptr;

    char *out = encoded;
    for (const char c : text) {
        const auto byte = static_cast<uint8_t>(c);
        if (vela::is_letter(c) || vela::is_digit(c) || c == '-' || c == '.' || c == '_' || c == '~') {
            *out++ = c;
        } else if (c == ' ') {
            *out++ = '+';
        } else {
            *out++ = '%';
            *out++ = digits[byte >> 4];
            *out++ = digits[byte & 0xf];
        }
    }
    *out = '\0';
    return encoded;
}
