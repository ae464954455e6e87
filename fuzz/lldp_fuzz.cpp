// What the LLDP client prints, cut and bent: neighbours are objects with a port's name, or there are none.
#include <cstdlib>
#include <string>
#include <vela/core/log.h>
#include <vela/services/internal/lldp.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    libvela_log_env_ready = 1;
    libvela_log_level = 0;
    const std::string text(reinterpret_cast<const char *>(data), size);
    json_t *neighbours = vela::lldp_neighbours(text.c_str());
    if (!json_is_array(neighbours)) abort();
    for (size_t i = 0; i < json_array_size(neighbours); ++i) {
        if (!json_is_string(json_object_get(json_array_get(neighbours, i), "local_port_name"))) abort();
    }
    json_decref(neighbours);
    return 0;
}
