// What the kernel says of one interface by ioctl. Any open socket will do, whatever its family (netdevice(7)), so that
// who has one opens no other.
#pragma once

#include <cstdint>
#include <net/if.h>

namespace vela
{

/// The name of an interface; false when there is none of that index.
bool interface_name(int socket, uint32_t index, char (&name)[IF_NAMESIZE]);

/// As get_ethtool_link_status().
int link_status(int socket, const char *ifname);

} // namespace vela
