// What one message of the kernel's tells of an interface or of an address, and the names of many interfaces.
#pragma once

#include <vela/core/internal/growing.h>
#include <vela/core/internal/raw_netlink.h>
#include <vela/net/netif.h>

namespace vela
{

/// Fills in what the message tells; the rest is not known. False for a message that is about no interface.
bool read_link(const raw_netlink::message &m, vela_netif &out);

/// The same for an address; false for a message that is about no IPv4 or IPv6 address.
bool read_address(const raw_netlink::message &m, vela_netaddr &out);

/// The names of interfaces by their index, from one walk.
class link_names
{
public:
    /// Reads those of all interfaces or, with a master, of its ports. 0, or a negative errno.
    int read(raw_netlink::channel &kernel, uint32_t master = 0);
    /// "" for an interface that was not there.
    [[nodiscard]] const char *of(uint32_t index) const;

private:
    static constexpr size_t links_max = 16384;
    struct link {
        uint32_t index;
        char name[16];
    };
    growing_list<link> links_{links_max};
};

} // namespace vela
