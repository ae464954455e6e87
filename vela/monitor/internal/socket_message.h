// What the kernel's lists of sockets say, message by message.
#pragma once

#include <vela/core/internal/raw_netlink.h>
#include <vela/monitor/socket.h>

namespace vela
{

/// Fills in what a message of its family tells; `out` is cleared before. False for a message that is none.
using socket_reader = bool (*)(const raw_netlink::message &m, vela_socket &out);
bool read_tcp(const raw_netlink::message &m, vela_socket &out);
bool read_udp(const raw_netlink::message &m, vela_socket &out);
bool read_raw(const raw_netlink::message &m, vela_socket &out);
bool read_unix(const raw_netlink::message &m, vela_socket &out);
bool read_netlink(const raw_netlink::message &m, vela_socket &out);
bool read_packet(const raw_netlink::message &m, vela_socket &out);

} // namespace vela
