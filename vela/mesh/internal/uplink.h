// The files that name a device's uplink interfaces, read from a stream.
#pragma once

#include <cstdio>
#include <vela/mesh/uplink.h>

namespace vela::uplink
{

/// Replaces `real`, which holds a name, by the device under it where the kernel's VLAN table has one.
void find_real_ifname(FILE *vlans, const char *vif, char (&real)[16]);

/// Adds the interfaces that a file names line by line. False when one did not fit.
bool add_listed(FILE *names, uplink_table &t);

} // namespace vela::uplink
