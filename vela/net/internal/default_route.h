// The IPv4 default route, for gateway detection and the bridge queries.
#pragma once

#include <arpa/inet.h>
#include <net/if.h>
#include <optional>
#include <span>
#include <vela/net/internal/interface.h>
#include <vela/net/internal/rtnetlink.h>

namespace vela
{

struct default_route {
    in_addr_t gateway; // network order
    char gateway_text[INET_ADDRSTRLEN];
    char ifname[IF_NAMESIZE];
};

/// The first default route with a gateway, in the kernel's order, whatever its metric.
std::optional<default_route> fetch_default_route(rtnetlink::route_socket &kernel, const interface_query &interfaces);

/// The same from an answer of the kernel.
std::optional<default_route> find_default_route(std::span<const uint8_t> answer, const rtnetlink::question &q,
                                                const interface_query &interfaces);

/// Where the neighbour table has the gateway: its address, and the candidate port it was seen on.
struct gateway_neighbour {
    bool has_mac;
    uint8_t mac[6];
    bool has_port;
    char port[IF_NAMESIZE];
};

/// The same for the neighbour table.
gateway_neighbour find_gateway_neighbour(std::span<const uint8_t> answer, const rtnetlink::question &q,
                                         const interface_query &interfaces, in_addr_t gateway,
                                         std::span<const char[16]> candidates);

} // namespace vela
