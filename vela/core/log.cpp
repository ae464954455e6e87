// Writes log messages to the system log, standard error and the kernel log, in this order, to each that is wanted. A
// message is formatted once. The level test stands in the header, inline, so that a suppressed message costs no call.

#include <cstdarg>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <vela/core/internal/json.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/core/log.h>

uint32_t libvela_log_level = 1U << LIBVELA_LOG_INFO;
const char *libvela_log_level_names[6] = {nullptr, "error", "warn", "info", "debug", "trace"};
int32_t libvela_log_verbosities[6] = {0, LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DEBUG, LOG_DEBUG};
int32_t libvela_log_use_syslog = 1;
int32_t libvela_log_use_stderr = 1;
int32_t libvela_log_use_kmsg = 0;
int32_t libvela_log_env_ready = 0;

namespace
{

constexpr const char *verbosity_variable = "LIBVELA_VERBOSITY";
constexpr const char *facilities_variable = "LIBVELA_FACILITIES";
constexpr const char *messages_path = "/var/log/messages"; // what the system log daemon fills once it works
constexpr const char *kernel_log_path = "/dev/kmsg";

constexpr int kernel_line_max = 960; // characters of a record that the kernel log certainly keeps whole
constexpr int bytes_per_hex_line = 16;
constexpr int format_failure_line = 220; // part of the out-of-memory text, not where it happens

/// Calls of openlog so far: the system log is opened once per process and never closed.
constinit uint32_t open_logs = 0;

struct message {
    uint32_t level;
    const char *module;
    const char *func;
    const char *text;
    char terminator; // NUL behind a text that brings its own newline
};

const char *level_name(uint32_t level)
{
    const char *name = level < std::size(libvela_log_level_names) ? libvela_log_level_names[level] : nullptr;
    return name ? name : "";
}

int priority(uint32_t level) { return level < std::size(libvela_log_verbosities) ? libvela_log_verbosities[level] : 0; }

bool system_log_works()
{
    struct stat messages = {};
    return stat(messages_path, &messages) == 0 && messages.st_size != 0;
}

void write_system_log(const message &m)
{
    if (open_logs == 0) {
        openlog(program_invocation_short_name, LOG_PID, LOG_USER);
        ++open_logs;
    }
    syslog(priority(m.level), "%s.%s(): %s%c", m.module, m.func, m.text, m.terminator);
}

// The kernel makes one record of each write, so the line is put together first.
void write_kernel_log(const message &m)
{
    const vela::unique_fd kernel_log{open(kernel_log_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)};
    if (!kernel_log.ok()) return;

    char *text = nullptr;
    const int length = asprintf(&text, "%s[%d]: [%-5s] %s.%s(): %s%c", program_invocation_short_name, getpid(),
                                level_name(m.level), m.module, m.func, m.text, m.terminator);
    if (length < 0) vela::out_of_memory("log", format_failure_line);
    const vela::c_string line{text};
    if (write(kernel_log.get(), text, static_cast<size_t>(length)) >= 0 || errno != EINVAL) return;
    // More than a record holds is refused whole: better its start than nothing. There is nowhere left to complain.
    (void)!write(kernel_log.get(), text, static_cast<size_t>(std::min(length, kernel_line_max)));
}

/// Width of what the kernel log puts before a line of a JSON document.
int json_prefix_width(const char *module, const char *func)
{
    return snprintf(nullptr, 0, "%s: %s[%d]: %s.%s(): JSON - %4s: ", program_invocation_short_name,
                    program_invocation_short_name, getpid(), module, func, "");
}

} // namespace

void libvela_log_init_from_env(void)
{
    const std::string_view verbosity = vela::view(getenv(verbosity_variable));
    for (uint32_t level = LIBVELA_LOG_ERROR; level <= LIBVELA_LOG_TRACE; ++level) {
        if (verbosity == libvela_log_level_names[level]) {
            libvela_log_level = 1U << level;
            break;
        }
    }

    const char *facilities = getenv(facilities_variable);
    if (facilities && *facilities) {
        libvela_log_use_syslog = strstr(facilities, "syslog") != nullptr;
        libvela_log_use_stderr = strstr(facilities, "stderr") != nullptr;
        libvela_log_use_kmsg = strstr(facilities, "kmsg") != nullptr;
    }
    libvela_log_env_ready = 1;
}

void libvela_log(uint32_t level, const char *module, const char *func, const char *format, ...)
{
    const vela::errno_keeper keep;

    va_list args;
    va_start(args, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, args);
    va_end(args);
    if (length < 0) vela::out_of_memory("log", format_failure_line);
    const vela::c_string owned{text};

    const bool has_newline = length > 0 && text[length - 1] == '\n';
    const message m{level, module, func, text, has_newline ? '\0' : '\n'};

    const bool diverted = libvela_log_use_syslog && !system_log_works();
    if (libvela_log_use_syslog && !diverted) write_system_log(m);
    if (libvela_log_use_stderr) (void)fprintf(stderr, "[%-5s] %s%c", level_name(level), text, m.terminator);
    if (libvela_log_use_kmsg || diverted) write_kernel_log(m);
}

void libvela_log_json(uint32_t level, const char *module, const char *func, const json_t *json, const char *title)
{
    const vela::c_string dumped{json_dumps(json, JSON_INDENT(4))};
    const int budget = std::max(kernel_line_max - json_prefix_width(module, func), 1);

    if (title) libvela_log(level, module, func, "JSON - %4s: %s", "", title);
    if (!json || !dumped) {
        libvela_log(level, module, func, "JSON - %4s: %s", "", "null data");
        return;
    }

    int line = 0;
    bool starts_line = true;
    for (std::string_view rest = dumped.get(); !rest.empty();) {
        const auto chunk = vela::first(rest, std::min(rest.find('\n'), static_cast<size_t>(budget)));
        const int width = static_cast<int>(chunk.size());
        if (starts_line) {
            libvela_log(level, module, func, "JSON - %4d: %.*s", ++line, width, chunk.data());
        } else {
            libvela_log(level, module, func, "JSON - %4s: %.*s", "", width, chunk.data());
        }
        rest = vela::after(rest, chunk.size());
        starts_line = vela::starts_with(rest, "\n");
        if (starts_line) rest = vela::after(rest, 1);
    }
}

void libvela_log_hex(uint32_t level, const char *module, const char *func, const void *data, int32_t len,
                     const char *title)
{
    libvela_log(level, module, func, "%s - HEX(%p) len %d", title ? title : "", data, len);

    const auto *bytes = static_cast<const uint8_t *>(data);
    for (int32_t start = 0; start < len; start += bytes_per_hex_line) {
        char line[sizeof "00000000:" + bytes_per_hex_line * (sizeof " 00" - 1)];
        char *end = line + sprintf(line, "%08x:", static_cast<unsigned>(start));
        const int32_t stop = len - start < bytes_per_hex_line ? len : start + bytes_per_hex_line;
        for (int32_t i = start; i < stop; ++i) end += sprintf(end, " %02x", bytes[i]);
        libvela_log(level, module, func, "%s", line);
        if (stop == len) break; // the last start plus 16 may not fit 32 bits
    }
}
