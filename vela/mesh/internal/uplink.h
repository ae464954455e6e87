// The files that name a device's uplink interfaces, read from a stream.
#pragma once

#include <cstdio>
#include <span>
#include <vela/mesh/uplink.h>

namespace vela::uplink
{

/// An interface and the device under it: itself, until the kernel's VLAN table says otherwise.
struct real_device {
    real_device() = default;
    explicit real_device(const char *name);

    const char *vif = "";
    char name[16] = "";
};

/// Reads the kernel's VLAN table once and fills in the devices that it has.
void find_real_devices(FILE *vlans, std::span<real_device> devices);

/// Adds the interfaces that a file names line by line. False when one did not fit.
bool add_listed(FILE *names, uplink_table &t);

} // namespace vela::uplink
