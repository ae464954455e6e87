// Log statements of the library's own sources. Each source that includes this says once, at its top,
//   namespace { constexpr const char *log_module = "cfg"; }
// A statement whose level does not pass costs one load and one compare; its arguments are not evaluated.
#pragma once

#include <vela/core/log.h>

#define vela_log_at(level, function, ...)                                                                              \
    do {                                                                                                               \
        if (libvela_log_enabled(level)) libvela_log(level, log_module, function, __VA_ARGS__);                         \
    } while (0)

#define log_error(...) vela_log_at(LIBVELA_LOG_ERROR, __func__, __VA_ARGS__)
#define log_warn(...) vela_log_at(LIBVELA_LOG_WARN, __func__, __VA_ARGS__)
#define log_info(...) vela_log_at(LIBVELA_LOG_INFO, __func__, __VA_ARGS__)
#define log_debug(...) vela_log_at(LIBVELA_LOG_DEBUG, __func__, __VA_ARGS__)
#define log_trace(...) vela_log_at(LIBVELA_LOG_TRACE, __func__, __VA_ARGS__)

// Where a step logs under another name than its function's.
#define log_error_as(step, ...) vela_log_at(LIBVELA_LOG_ERROR, step, __VA_ARGS__)
#define log_warn_as(step, ...) vela_log_at(LIBVELA_LOG_WARN, step, __VA_ARGS__)
#define log_info_as(step, ...) vela_log_at(LIBVELA_LOG_INFO, step, __VA_ARGS__)
#define log_debug_as(step, ...) vela_log_at(LIBVELA_LOG_DEBUG, step, __VA_ARGS__)
#define log_trace_as(step, ...) vela_log_at(LIBVELA_LOG_TRACE, step, __VA_ARGS__)
