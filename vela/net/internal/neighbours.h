// What one message of the kernel's tells of a bridge's port, of an entry in a forwarding database, or of a neighbour.
#pragma once

#include <vela/core/internal/raw_netlink.h>
#include <vela/net/bridge.h>

namespace vela
{

// Each fills in what the message tells, names of other interfaces excepted; the rest is not known. False for a message
// about something else.
bool read_bridge_port(const raw_netlink::message &m, vela_bridge_port &out);
bool read_fdb_entry(const raw_netlink::message &m, uint32_t bridge, vela_fdb_entry &out);
bool read_neighbour(const raw_netlink::message &m, vela_neighbour &out);

/// "reachable", ...; null for what is no state.
const char *neighbour_state_word(uint32_t state);

/// Asks for the neighbours of a family (0: both) on an interface (0: all).
void ask_neighbours(raw_netlink::channel &kernel, int family, uint32_t index);

} // namespace vela
