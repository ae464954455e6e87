// The IPv4 default route and what the neighbour table says of its gateway, for gateway detection and the bridge
// queries.
#pragma once

#include <arpa/inet.h>
#include <net/if.h>
#include <optional>
#include <span>
#include <vela/core/internal/raw_netlink.h>
#include <vela/net/internal/interface.h>

namespace vela
{

/// How much of a table is read here; a larger one is read this far.
constexpr size_t route_answer_max = 16384;

struct default_route {
    in_addr_t gateway; // network order
    char gateway_text[INET_ADDRSTRLEN];
    char ifname[IF_NAMESIZE];
};

/// The socket for both questions. Lenient, for the first default route counts, of whatever table: strict checking would
/// leave out all but the main one.
inline raw_netlink::channel routing_tables()
{
    return raw_netlink::channel{NETLINK_ROUTE, raw_netlink::checking::lenient};
}

/// The first default route with a gateway, in the kernel's order, whatever its metric.
std::optional<default_route> fetch_default_route(raw_netlink::channel &kernel, const interface_query &interfaces);

/// The same of one message of the kernel's; nothing when it is no such route.
std::optional<default_route> as_default_route(const raw_netlink::message &m, const interface_query &interfaces);

using port_name = char[IF_NAMESIZE];

/// The candidate of a name, or null.
const port_name *find(std::span<const port_name> candidates, const port_name &name);

/// Where the neighbour table has the gateway: its address, and the candidate port it was seen on.
struct gateway_neighbour {
    bool has_mac;
    uint8_t mac[6];
    bool has_port;
    port_name port;
};

/// Asks for the neighbour table. Nothing when the kernel did not answer.
std::optional<gateway_neighbour> fetch_gateway_neighbour(raw_netlink::channel &kernel,
                                                         const interface_query &interfaces, in_addr_t gateway,
                                                         std::span<const port_name> candidates);

/// Adds what one message of the kernel's tells. True when this settles it.
bool note_neighbour(gateway_neighbour &result, const raw_netlink::message &m, const interface_query &interfaces,
                    in_addr_t gateway, std::span<const port_name> candidates);

/// A name that the kernel could have given to a wired port: "eth" and what follows it.
inline bool is_ethernet(const char *name) { return starts_with(view(name), "eth"); }

} // namespace vela
