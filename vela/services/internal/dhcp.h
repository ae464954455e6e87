// What a source says of an interface's lease. Each takes a lease with the interface's name and nothing else known, and
// leaves it so, with false, where the source does not know the interface.
#pragma once

#include <string_view>
#include <vela/services/dhcp.h>

namespace vela::dhcp
{

/// What the network daemon's "dump" says.
bool read_dump(const json_t *dump, vela_dhcp_lease &lease);
/// The client's file, written so long ago.
bool read_file(std::string_view lines, uint32_t age_s, vela_dhcp_lease &lease);

} // namespace vela::dhcp
