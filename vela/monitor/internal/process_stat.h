// The text of /proc/PID/stat.
#pragma once

#include <string_view>
#include <vela/monitor/process.h>

namespace vela
{

/// Fills in the name and every figure that the text has, pid included. False, with `out` unspecified, when it is no
/// such text.
bool parse_process_stat(std::string_view text, vela_process &out);

/// The first of the arguments in `size` bytes of a command line, as the record has it: `text` has room for one byte
/// more.
void write_command_line(char *text, size_t size, char (&out)[sizeof vela_process::cmdline]);

} // namespace vela
