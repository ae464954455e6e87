// AFC state and location request. The state machine is the device's scripts: the state is read from their file, and a
// change is asked of the system script.

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string_view>
#include <vela/core/file.h>
#include <vela/exec/exec.h>
#include <vela/mesh/afc.h>

const char *const afc_state_strs[AFC_STATES] = {
    "unknown",
    "waiting_for_location",
    "location_acquired",
    "location_invalid",
    "location_unknown",
    "query_in_progress",
    "query_failed",
    "active",
    "error",
    "disabled",
};

namespace
{

constexpr const char *state_path = "/var/run/afc.state";
constexpr const char *request_path = "/var/run/location_request_id";
constexpr const char *set_state_command = "set-afc-state";
constexpr int wait_for_it = 1;

/// What get_location_request_id returned last.
constinit char request_id[256] = "";

} // namespace

int get_afc_state(void)
{
    char text[64];
    const std::string_view state = freadline(state_path, text, sizeof text, afc_state_strs[AFC_DISABLED]);
    const auto *const found = std::find(std::begin(afc_state_strs), std::end(afc_state_strs), state);
    if (found == std::end(afc_state_strs)) return AFC_UNKNOWN;
    return static_cast<int>(found - afc_state_strs);
}

void set_afc_state(unsigned state)
{
    if (state != AFC_LOCATION_UNKNOWN) (void)clear_location_request_id(); // often there is none
    syswrapper_impl(wait_for_it, set_state_command,
                    state < AFC_STATES ? afc_state_strs[state] : afc_state_strs[AFC_UNKNOWN], nullptr);
}

void set_location_request_id(const char *id)
{
    if (id) (void)fwriteline(request_path, "%s\n", id);
}

const char *get_location_request_id(void) { return freadline(request_path, request_id, sizeof request_id, nullptr); }

int clear_location_request_id(void) { return remove(request_path); }
