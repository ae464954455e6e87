// The kernel's answers about links, addresses, routes, neighbours, bridges and sockets, in a block of exactly their
// size: the first byte chooses the reader.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vela/core/log.h>
#include <vela/net/internal/internet_view.h>
#include <vela/net/internal/links.h>
#include <vela/net/internal/neighbours.h>
#include <vela/net/internal/routes.h>

namespace
{

using vela::raw_netlink::message;

void check(bool sound)
{
    if (!sound) abort();
}

template <size_t N> bool is_text(const char (&text)[N]) { return strnlen(text, N) < N; }

void read_gateway_route(const message &m)
{
    static const vela::interface_query interfaces;
    const auto route = vela::as_default_route(m, interfaces);
    check(!route || (is_text(route->ifname) && *route->gateway_text));
}

void read_gateway_neighbour(const message &m)
{
    static const vela::interface_query interfaces;
    constexpr char candidates[][16] = {"eth0", "lo"};
    vela::gateway_neighbour found = {};
    vela::note_neighbour(found, m, interfaces, htonl(0xC0A80701), candidates);
    check(!found.has_port || strcmp(found.port, "lo") == 0 || strcmp(found.port, "eth0") == 0);
}

void read_link(const message &m)
{
    vela_netif n;
    check(!vela::read_link(m, n) || (n.index != 0 && is_text(n.name) && is_text(n.kind) && n.carrier + 1 <= 2));
}

void read_address(const message &m)
{
    vela_netaddr a;
    check(!vela::read_address(m, a) || a.family == AF_INET || a.family == AF_INET6);
}

void read_bridge(const message &m)
{
    vela_bridge_port port;
    vela_fdb_entry entry;
    check(!vela::read_bridge_port(m, port) || (port.number != 0 && is_text(port.name)));
    check(!vela::read_fdb_entry(m, 7, entry) || is_text(entry.port_name));
}

void read_neighbour(const message &m)
{
    vela_neighbour n;
    check(!vela::read_neighbour(m, n) || n.family == AF_INET || n.family == AF_INET6);
}

constexpr void (*readers[])(const message &m) = {read_gateway_neighbour, read_gateway_route, read_link,
                                                 read_address,           read_bridge,        read_neighbour};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    libvela_log_env_ready = 1;
    libvela_log_level = 0;
    if (size == 0) return 0;
    const std::unique_ptr<uint8_t[]> block(new uint8_t[size - 1]);
    std::copy(data + 1, data + size, block.get());
    vela::raw_netlink::messages answer{{block.get(), size - 1}, 1, 0};
    vela::internet_view view;
    while (const auto m = answer.next()) {
        if (data[0] < std::size(readers)) {
            readers[data[0]](*m);
            continue;
        }
        (void)view.note_route(*m);
        (void)view.note_address(*m);
        view.note_neighbour(*m);
        view.note_socket(*m);
    }
    for (const auto &c : view.routes()) check(c.route.family == AF_INET || c.route.family == AF_INET6);
    return 0;
}
