// Supplies and outlets as the kernel knows them.
#pragma once

#include <cstdint>
#include <span>
#include <vela/services/power.h>

namespace vela::power
{

/// As the exported walks; -ENOENT where the kernel has no such source.
int each_kernel_supply(vela_power_supply_callback each, void *arg);
int each_kernel_outlet(vela_power_outlet_callback each, void *arg);

/// What a PSE controller's attributes say of its outlet; without a name where they have none.
vela_power_outlet read_outlet(std::span<const uint8_t> attributes);

} // namespace vela::power
