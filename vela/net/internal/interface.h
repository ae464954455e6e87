// What the kernel says of interfaces by ioctl.
#pragma once

#include <cstdint>
#include <net/if.h>
#include <sys/socket.h>
#include <vela/core/internal/own.h>

namespace vela
{

/// Asks over one datagram socket, whatever the number of questions; a route socket takes them only since Linux 4.16.
class interface_query
{
public:
    /// The name of an interface; false when there is none of that index.
    bool name(uint32_t index, char (&name)[IF_NAMESIZE]) const;
    /// As get_ethtool_link_status().
    [[nodiscard]] int link(const char *ifname) const;

private:
    unique_fd fd_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)}; // where it fails, so does every question
};

} // namespace vela
