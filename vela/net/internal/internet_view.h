// What the kernel's messages add up to for the way to the internet.
#pragma once

#include <vela/core/internal/growing.h>
#include <vela/core/internal/raw_netlink.h>
#include <vela/net/internet.h>

namespace vela
{

constexpr uint8_t tcp_established = 1; // of the kernel's TCP states

/// The default routes, and what else decides about them. Messages are noted in this order: routes, addresses,
/// neighbours, sockets. What is not about them is passed over.
class internet_view
{
public:
    // 0, or a negative errno: -ENOMEM, -ENOSPC for more than is held.
    int note_route(const raw_netlink::message &m);
    int note_address(const raw_netlink::message &m);
    void note_neighbour(const raw_netlink::message &m);
    void note_socket(const raw_netlink::message &m);

    struct candidate {
        vela_default_route route;
        uint8_t gateway_family; // which need not be the route's; 0 for none
        uint8_t gateway[16];
        bool drops; // a blackhole and its kin
        bool dead;  // by the flags of the next hop
        bool has_address;
    };
    [[nodiscard]] std::span<candidate> routes() { return routes_.items(); }
    [[nodiscard]] bool has_global_address(uint32_t family) const { return families_[family == AF_INET6].global; }
    /// Since a peer beyond the links acknowledged; all ones: none did.
    [[nodiscard]] uint32_t beyond_ms(uint32_t family) const { return families_[family == AF_INET6].beyond_ms; }

private:
    static constexpr size_t routes_max = 256;
    static constexpr size_t prefixes_max = 4096;

    struct prefix {
        uint8_t family;
        uint8_t bits;
        uint8_t address[16];
    };
    struct family_facts {
        bool global = false;
        uint32_t beyond_ms = UINT32_MAX;
    };
    [[nodiscard]] bool is_on_link(uint8_t family, const uint8_t *address) const;

    growing_list<candidate> routes_{routes_max};
    growing_list<prefix> on_link_{prefixes_max};
    family_facts families_[2]; // IPv4, IPv6
};

} // namespace vela
