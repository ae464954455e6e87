// Log statements of the library's own sources. Each source says once, at its top, as which module it speaks:
//   namespace { constexpr const char *log_module = "cfg"; }
// A statement whose level does not pass costs one load and one compare; its arguments are not evaluated.
#pragma once

#include <vela/core/log.h>

// Where level, module and function are not known until then, or not this source's own.
#define log_at(level, module, function, ...)                                                                           \
    do {                                                                                                               \
        if (libvela_log_enabled(level)) libvela_log(level, module, function, __VA_ARGS__);                             \
    } while (0)

#define log_error(...) log_at(LIBVELA_LOG_ERROR, log_module, __func__, __VA_ARGS__)
#define log_warn(...) log_at(LIBVELA_LOG_WARN, log_module, __func__, __VA_ARGS__)
#define log_info(...) log_at(LIBVELA_LOG_INFO, log_module, __func__, __VA_ARGS__)
#define log_debug(...) log_at(LIBVELA_LOG_DEBUG, log_module, __func__, __VA_ARGS__)
#define log_trace(...) log_at(LIBVELA_LOG_TRACE, log_module, __func__, __VA_ARGS__)

// Where a step logs under another name than its function's.
#define log_error_as(step, ...) log_at(LIBVELA_LOG_ERROR, log_module, step, __VA_ARGS__)
#define log_warn_as(step, ...) log_at(LIBVELA_LOG_WARN, log_module, step, __VA_ARGS__)
#define log_info_as(step, ...) log_at(LIBVELA_LOG_INFO, log_module, step, __VA_ARGS__)
#define log_debug_as(step, ...) log_at(LIBVELA_LOG_DEBUG, log_module, step, __VA_ARGS__)
#define log_trace_as(step, ...) log_at(LIBVELA_LOG_TRACE, log_module, step, __VA_ARGS__)
