// Which default route leads how far, by four tables of the kernel (routes, addresses, neighbours, TCP sockets), and
// whether a resolver is configured.

#include <arpa/inet.h> // before kernel headers, which define its records again with musl
//
#include <algorithm>
#include <atomic>
#include <climits>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/neighbour.h>
#include <linux/sock_diag.h>
#include <sys/stat.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/record_json.h>
#include <vela/net/internal/interface.h>
#include <vela/net/internal/internet_view.h>
#include <vela/net/internal/neighbours.h>
#include <vela/settings.h>

// Programs were compiled against these layouts.
static_assert(sizeof(vela_default_route) == 84 && sizeof(vela_resolver) == 24 && sizeof(vela_internet) == 380);

namespace raw_netlink = vela::raw_netlink;

namespace
{

constexpr const char *log_module = "internet";

constexpr uint32_t heard_max_s = 300; // a stale entry older than this tells nothing of now
constexpr uint32_t beyond_max_ms = 120000;
constexpr size_t resolv_file_max = 65536;

constexpr uint16_t heard_states = NUD_PERMANENT | NUD_REACHABLE | NUD_DELAY | NUD_PROBE;

/// The driver says at once that the link is lost, the interface's flags up to a second later.
bool has_carrier(const vela::interface_query &interfaces, const char *ifname, unsigned flags)
{
    constexpr unsigned ready = IFF_UP | IFF_RUNNING;
    return (flags & ready) == ready && interfaces.link(ifname) != 0;
}

/// How far a route leads, by all but TCP.
uint32_t judge(const vela::internet_view::candidate &c, const vela::interface_query &interfaces)
{
    const unsigned interface_flags = interfaces.flags(c.route.ifname);
    if (c.drops) return VELA_INTERNET_NO_ROUTE;
    if (c.dead || !has_carrier(interfaces, c.route.ifname, interface_flags)) return VELA_INTERNET_NO_CARRIER;
    if (!c.has_address) return VELA_INTERNET_NO_ADDRESS;
    if (c.gateway_family == 0 || (interface_flags & IFF_NOARP) != 0) return VELA_INTERNET_GATEWAY_SEEN;
    if (c.route.neighbour_state & NUD_FAILED) return VELA_INTERNET_GATEWAY_FAILED;
    const bool heard_lately = (c.route.neighbour_state & NUD_STALE) != 0 && c.route.confirmed_s <= heard_max_s;
    if ((c.route.neighbour_state & heard_states) != 0 || heard_lately) return VELA_INTERNET_GATEWAY_SEEN;
    return VELA_INTERNET_GATEWAY_UNSEEN;
}

bool is_refused(const vela_default_route &route) { return route.reason <= VELA_INTERNET_GATEWAY_FAILED; }

/// Whether a route is to be used rather than another that stands before it.
bool is_better(const vela_default_route &a, const vela_default_route &b)
{
    if (is_refused(a) != is_refused(b)) return is_refused(b);
    if (is_refused(a) && a.reason != b.reason) return a.reason > b.reason;
    return a.metric < b.metric;
}

/// Asks and notes what is answered. 0, or a negative errno.
template <class Note> int take_in(raw_netlink::channel &kernel, raw_netlink::request &question, Note note)
{
    kernel.ask(question, raw_netlink::how_much::all);
    int noted = 0;
    while (const auto m = kernel.next()) {
        if (const int result = note(*m); result < 0) noted = result;
        if (noted == -ENOMEM) return noted;
    }
    return kernel.result() < 0 ? kernel.result() : noted;
}

/// The worse of two results; what only makes the answer incomplete is better than what leaves none.
int worse(int a, int b)
{
    const auto rank = [](int result) { return result == 0 ? 0 : result == -EAGAIN ? 1 : result == -ENOSPC ? 2 : 3; };
    return rank(b) > rank(a) ? b : a;
}

bool is_answer(int result) { return result == 0 || result == -EAGAIN || result == -ENOSPC; }

int read_routes(raw_netlink::channel &kernel, vela::internet_view &view)
{
    rtmsg wanted = {};
    wanted.rtm_table = RT_TABLE_MAIN;
    raw_netlink::request question{RTM_GETROUTE, wanted};
    question.put(RTA_TABLE, uint32_t{RT_TABLE_MAIN});
    return take_in(kernel, question, [&view](const raw_netlink::message &m) { return view.note_route(m); });
}

int read_addresses(raw_netlink::channel &kernel, vela::internet_view &view)
{
    raw_netlink::request question{RTM_GETADDR, ifaddrmsg{}};
    return take_in(kernel, question, [&view](const raw_netlink::message &m) { return view.note_address(m); });
}

int read_neighbours(raw_netlink::channel &kernel, vela::internet_view &view)
{
    raw_netlink::request question{RTM_GETNEIGH, ndmsg{}};
    return take_in(kernel, question, [&view](const raw_netlink::message &m) {
        view.note_neighbour(m);
        return 0;
    });
}

/// Reads the tables and judges the routes. As good as an answer are -EAGAIN, a table changed, and -ENOSPC, there was
/// more than is held.
int look_at_routes(vela::internet_view &view)
{
    raw_netlink::channel kernel{NETLINK_ROUTE};
    int result = 0;
    for (const auto read : {read_routes, read_addresses, read_neighbours}) {
        result = worse(result, read(kernel, view));
        if (!is_answer(result)) return result;
    }
    if (result == -ENOSPC) log_warn("more routes or addresses than are looked at");
    const vela::interface_query interfaces;
    for (auto &c : view.routes()) {
        (void)interfaces.name(c.route.index, c.route.ifname); // "" for what has just vanished
        c.route.reason = judge(c, interfaces);
    }
    return result;
}

/// Looks for connections that reach beyond the links. Where the kernel cannot list sockets, none is known.
void look_beyond(vela::internet_view &view, uint32_t family)
{
    static constinit std::atomic_flag warned;
    inet_diag_req_v2 wanted = {};
    wanted.sdiag_family = static_cast<uint8_t>(family);
    wanted.sdiag_protocol = IPPROTO_TCP;
    wanted.idiag_ext = 1 << (INET_DIAG_INFO - 1);
    wanted.idiag_states = 1 << vela::tcp_established;
    raw_netlink::channel kernel{NETLINK_SOCK_DIAG};
    raw_netlink::request question{SOCK_DIAG_BY_FAMILY, wanted};
    const int result = take_in(kernel, question, [&view](const raw_netlink::message &m) {
        view.note_socket(m);
        return 0;
    });
    if (!is_answer(result) && !warned.test_and_set()) {
        log_warn("TCP connections are not told (INET_TCP_DIAG), ret = %d %s", result, kernel.reason());
    }
}

// ---- Resolvers ----

bool is_loopback(const vela_resolver &resolver)
{
    if (resolver.family == AF_INET) return resolver.address[0] == 127;
    return memcmp(resolver.address, &in6addr_loopback, sizeof resolver.address) == 0;
}

/// "192.168.7.1", "fe80::1%eth0".
std::optional<vela_resolver> read_resolver(std::string_view text, const vela::interface_query &interfaces)
{
    const size_t mark = text.find('%');
    char address[INET6_ADDRSTRLEN];
    char scope[IF_NAMESIZE] = "";
    if (vela::first(text, mark).size() >= sizeof address) return std::nullopt;
    vela::copy_text(address, vela::first(text, mark));
    if (mark != std::string_view::npos) vela::copy_text(scope, vela::after(text, mark + 1));
    for (const int family : {AF_INET, AF_INET6}) {
        vela_resolver resolver = {static_cast<uint32_t>(family), 0, {}};
        if (inet_pton(family, address, resolver.address) != 1) continue;
        if (*scope != '\0') resolver.scope_index = interfaces.index(scope);
        if (vela::is_digit(*scope)) resolver.scope_index = static_cast<uint32_t>(strtoul(scope, nullptr, 10));
        return resolver;
    }
    return std::nullopt;
}

/// Opens a plain file; null for anything else, such as a pipe that would hold the caller.
vela::file_ptr open_plain(const char *path)
{
    vela::unique_fd fd{open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    struct stat about = {};
    if (!fd.ok() || fstat(fd.get(), &about) != 0 || !S_ISREG(about.st_mode)) return {};
    vela::file_ptr file{fdopen(fd.get(), "r")};
    if (file) (void)fd.release(); // the stream has it
    return file;
}

/// The resolvers that a file names; those that lead further than to this device first of all.
void read_resolvers(const char *path, vela_internet &out)
{
    out.resolver_count = 0;
    const vela::interface_query interfaces;
    const vela::file_ptr file = open_plain(path);
    char line[256];
    size_t total = 0;
    while (file && total < resolv_file_max && fgets(line, sizeof line, file.get())) {
        total += std::max<size_t>(strlen(line), 1); // a line may begin with a NUL
        char name[64];
        if (sscanf(line, "nameserver%*[ \t]%63[^ \t\r\n;#]", name) != 1) continue;
        const auto resolver = read_resolver(name, interfaces);
        if (!resolver || is_loopback(*resolver) || out.resolver_count == std::size(out.resolvers)) continue;
        out.resolvers[out.resolver_count++] = *resolver;
    }
}

/// The first of the files that names more than this device itself.
void find_resolvers(vela_internet &out)
{
    std::string_view files = vela::settings::resolv_files;
    while (!files.empty() && out.resolver_count == 0) {
        const size_t blank = files.find(' ');
        const vela::formatted<PATH_MAX> path{"%.*s", static_cast<int>(vela::first(files, blank).size()), files.data()};
        read_resolvers(path.c_str(), out);
        files = blank == std::string_view::npos ? std::string_view{} : vela::after(files, blank + 1);
    }
}

// ---- The whole ----

/// The route of a family that is used, or, where all are refused, the one that got furthest; null for none.
const vela::internet_view::candidate *best_of(vela::internet_view &view, uint32_t family)
{
    const vela::internet_view::candidate *best = nullptr;
    for (const auto &c : view.routes()) {
        if (c.route.family == family && (!best || is_better(c.route, best->route))) best = &c;
    }
    return best;
}

/// Also writes the best route, where there is one.
uint32_t reason_of(vela::internet_view &view, uint32_t family, vela_default_route &out)
{
    const auto *best = best_of(view, family);
    if (best) out = best->route;
    if (!view.has_global_address(family)) return VELA_INTERNET_NO_ADDRESS;
    if (!best) return VELA_INTERNET_NO_ROUTE;
    if (is_refused(best->route)) return best->route.reason;
    return view.beyond_ms(family) <= beyond_max_ms ? uint32_t{VELA_INTERNET_BEYOND} : best->route.reason;
}

/// 0, or a negative errno as look_at_routes() gives it.
int look_at_all(vela::internet_view &view, vela_internet &out)
{
    out = {};
    out.beyond_s = out.best4.confirmed_s = out.best6.confirmed_s = UINT32_MAX;
    const int result = look_at_routes(view);
    if (!is_answer(result)) return result;
    for (const uint32_t family : {AF_INET, AF_INET6}) look_beyond(view, family); // IPv6 sockets may have IPv4 peers
    out.reason4 = reason_of(view, AF_INET, out.best4);
    out.reason6 = reason_of(view, AF_INET6, out.best6);
    if (out.reason4 == VELA_INTERNET_BEYOND) out.beyond_s = view.beyond_ms(AF_INET) / 1000;
    if (out.reason6 == VELA_INTERNET_BEYOND) out.beyond_s = std::min(out.beyond_s, view.beyond_ms(AF_INET6) / 1000);
    find_resolvers(out);
    out.reason = std::max(out.reason4, out.reason6);
    if (out.reason == VELA_INTERNET_GATEWAY_SEEN && out.resolver_count == 0) out.reason = VELA_INTERNET_NO_RESOLVER;
    return result;
}

const char *reason_word(uint32_t reason)
{
    constexpr const char *words[] = {"unknown",        "no_address",  "no_route",     "no_carrier", "gateway_failed",
                                     "gateway_unseen", "no_resolver", "gateway_seen", "beyond"};
    static_assert(std::size(words) == VELA_INTERNET_BEYOND + 1);
    return reason < std::size(words) ? words[reason] : nullptr;
}

using vela::shown;
using vela::unknown;

constexpr vela::json_row route_rows[] = {
    {"interface", VELA_MEMBER(vela_default_route, ifname), shown::text, unknown::zero},
    {"gateway", VELA_MEMBER(vela_default_route, gateway), shown::address, unknown::zero},
    {"metric", VELA_MEMBER(vela_default_route, metric), shown::number, unknown::never},
    {"mac", VELA_MEMBER(vela_default_route, mac), shown::mac, unknown::zero},
    {"neighbour", VELA_MEMBER(vela_default_route, neighbour_state), shown::word, unknown::zero,
     vela::neighbour_state_word},
    {"confirmed_s", VELA_MEMBER(vela_default_route, confirmed_s), shown::number, unknown::ones},
    {"reason", VELA_MEMBER(vela_default_route, reason), shown::word, unknown::never, reason_word},
};

constexpr vela::json_row internet_rows[] = {
    {"reason", VELA_MEMBER(vela_internet, reason), shown::word, unknown::never, reason_word},
    {"beyond_s", VELA_MEMBER(vela_internet, beyond_s), shown::number, unknown::ones},
};

vela::json_ref family_json(vela::internet_view &view, uint32_t reason, uint32_t family)
{
    const auto *best = best_of(view, family);
    vela::json_ref routes{json_array()};
    for (const auto &c : view.routes()) {
        if (c.route.family != family) continue;
        vela::json_ref route = vela::record_json(route_rows, c.route, static_cast<int>(family));
        const char *verdict = is_refused(c.route) ? "refused" : &c == best ? "chosen" : "passed";
        json_object_set_new(route.get(), "verdict", json_string(verdict));
        if (json_array_append_new(routes.get(), route.release()) != 0) return {};
    }
    vela::json_ref object{json_object()};
    json_object_set_new(object.get(), "reason", json_string(reason_word(reason)));
    if (json_object_set_new(object.get(), "routes", routes.release()) != 0) return {};
    return object;
}

vela::json_ref resolvers_json(const vela_internet &internet, const vela::interface_query &interfaces)
{
    vela::json_ref array{json_array()};
    for (const auto &resolver : std::span{internet.resolvers, internet.resolver_count}) {
        const vela::address_text address{static_cast<int>(resolver.family), resolver.address};
        char scope[IF_NAMESIZE] = "";
        if (resolver.scope_index != 0) (void)interfaces.name(resolver.scope_index, scope);
        const vela::formatted<80> text{"%s%s%s", address.text, *scope ? "%" : "", scope};
        if (json_array_append_new(array.get(), json_string(text.c_str())) != 0) return {};
    }
    return array;
}

} // namespace

int vela_internet_get(vela_internet *out)
{
    if (!out) return -EINVAL;
    int result = -EAGAIN;
    vela_internet internet;
    for (int tries = 0; tries < 4 && result == -EAGAIN; ++tries) {
        vela::internet_view view;
        result = look_at_all(view, internet);
    }
    if (!is_answer(result)) return result;
    *out = internet;
    return 0;
}

int vela_default_route_foreach(int family, vela_default_route_callback each, void *arg)
{
    if ((family != 0 && family != AF_INET && family != AF_INET6) || !each) return -EINVAL;
    vela::internet_view view;
    const int result = look_at_routes(view);
    if (!is_answer(result)) return result;
    int count = 0;
    for (const auto wanted : {AF_INET, AF_INET6}) {
        for (const auto &c : view.routes()) {
            if (c.route.family != static_cast<uint32_t>(wanted) || (family != 0 && family != wanted)) continue;
            ++count;
            if (each(&c.route, arg) != 0) return count;
        }
    }
    return result == -EAGAIN ? result : count;
}

json_t *vela_internet_json(void)
{
    return vela::gathered_json([](vela::json_ref &result) {
        vela::internet_view view;
        vela_internet internet;
        const int status = look_at_all(view, internet);
        result = vela::record_json(internet_rows, internet);
        auto resolvers = resolvers_json(internet, vela::interface_query{});
        auto ipv4 = family_json(view, internet.reason4, AF_INET);
        auto ipv6 = family_json(view, internet.reason6, AF_INET6);
        const bool whole = json_object_set_new(result.get(), "resolvers", resolvers.release()) == 0 &&
                           json_object_set_new(result.get(), "ipv4", ipv4.release()) == 0 &&
                           json_object_set_new(result.get(), "ipv6", ipv6.release()) == 0;
        return whole ? status : -ENOMEM;
    });
}
