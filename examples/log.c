/* Logging from a daemon: LIBVELA_VERBOSITY=debug LIBVELA_FACILITIES=stderr ./example-log */
#include <vela/core/log.h>

#define MODULE "example"

int main(void)
{
    const uint8_t frame[] = {0x22, 0x33, 0x44, 0x55};
    json_t *state = json_pack("{s:s, s:i}", "uplink", "eth0", "stations", 3);

    LIBVELA_LOG(LIBVELA_LOG_INFO, MODULE, "started with %d radios", 2);
    LIBVELA_LOG(LIBVELA_LOG_DEBUG, MODULE, "only seen with LIBVELA_VERBOSITY=debug or trace");
    if (libvela_log_enabled(LIBVELA_LOG_INFO)) {
        libvela_log_json(LIBVELA_LOG_INFO, MODULE, __func__, state, "state");
        libvela_log_hex(LIBVELA_LOG_INFO, MODULE, __func__, frame, sizeof frame, "frame");
    }
    json_decref(state);
    return 0;
}
