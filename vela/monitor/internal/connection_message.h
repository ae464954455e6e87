// What the kernel's list of connections says, message by message.
#pragma once

#include <vela/core/internal/raw_netlink.h>
#include <vela/monitor/connection.h>

namespace vela
{

/// Fills in a whole record. False for a message that is no connection of IPv4 or IPv6.
bool read_connection(const raw_netlink::message &m, vela_connection &out);

} // namespace vela
