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
        char real[16] = "ath1.10";
        vela::uplink::find_real_ifname(file, "ath1.10", real);
        if (strnlen(real, sizeof real) == sizeof real || *real == '\0') abort();
    }
    fclose(file);
    return 0;
}
