// The kernel's VLAN table and the scripts' list of uplink interfaces: the first byte chooses.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vela/core/log.h>
#include <vela/mesh/internal/uplink.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    libvela_log_env_ready = 1;
    libvela_log_level = 0;
    if (size < 2) return 0;
    FILE *file = fmemopen(const_cast<uint8_t *>(data + 1), size - 1, "r");
    if (data[0] & 1) {
        uplink_table table = {};
        const bool all = vela::uplink::add_listed(file, table);
        if (table.count > UPLINK_ENTRIES_MAX || (!all && table.count != UPLINK_ENTRIES_MAX)) abort();
        for (const auto &entry : table.entries) {
            if (strnlen(entry.devname, sizeof entry.devname) == sizeof entry.devname) abort();
        }
    } else {
        vela::uplink::real_device devices[2] = {vela::uplink::real_device{"ath1.10"},
                                                vela::uplink::real_device{"eth0"}};
        vela::uplink::find_real_devices(file, devices);
        for (const auto &d : devices) {
            if (strnlen(d.name, sizeof d.name) == sizeof d.name || *d.name == '\0') abort();
        }
    }
    fclose(file);
    return 0;
}
