// From the LLDP client's document to the neighbours, without running the client.
#pragma once

#include <jansson.h>

namespace vela
{

/// A new array of neighbour objects from what the client printed; null only when out of memory.
json_t *lldp_neighbours(const char *text);

} // namespace vela
