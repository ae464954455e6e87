// The texts of /proc that tell how busy the device is. Each parser gives false, with `out` unspecified, for a text that
// is not one of its kind.
#pragma once

#include <string_view>
#include <vela/monitor/load.h>

namespace vela
{

bool parse_cpu_times(std::string_view text, vela_cpu_sample &out); // /proc/stat
bool parse_memory(std::string_view text, vela_memory &out);        // /proc/meminfo
bool parse_stalls(std::string_view text, vela_stalls &out);        // /proc/pressure/...
bool parse_loadavg(std::string_view text, vela_loadavg &out);      // /proc/loadavg

} // namespace vela
