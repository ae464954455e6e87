/**
 * @file
 * Logging: one message goes to up to three sinks, the system log, standard error and the kernel log.
 *
 * Two environment variables decide, read at the first level test: LIBVELA_VERBOSITY names the threshold ("error",
 * "warn", "info", "debug", "trace"; "info" when unset), LIBVELA_FACILITIES names the sinks ("syslog", "stderr", "kmsg"
 * in any combination; "syslog" and "stderr" when unset). The system log counts as unavailable while /var/log/messages
 * is missing or empty; its messages then go to the kernel log, which takes one record for each and keeps the start of
 * one that is too long. For single-threaded processes: nothing is locked.
 */
#ifndef VELA_CORE_LOG_H
#define VELA_CORE_LOG_H

#include <jansson.h>
#include <stdbool.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Level numbers, as the logging functions take them. */
enum {
    LIBVELA_LOG_ERROR = 1,
    LIBVELA_LOG_WARN = 2,
    LIBVELA_LOG_INFO = 3,
    LIBVELA_LOG_DEBUG = 4,
    LIBVELA_LOG_TRACE = 5,
};

/** Threshold, held as the bit value of a level (1 << number): a message passes when this is not below its bit. */
extern VELA_API uint32_t libvela_log_level;
/** Level names by number; entry 0 is null. */
extern VELA_API const char *libvela_log_level_names[6];
/** System-log priority by level number. */
extern VELA_API int32_t libvela_log_verbosities[6];
/** Sinks: non-zero is on. */
extern VELA_API int32_t libvela_log_use_syslog;
extern VELA_API int32_t libvela_log_use_stderr;
extern VELA_API int32_t libvela_log_use_kmsg;
/** Non-zero once the environment has been read. */
extern VELA_API int32_t libvela_log_env_ready;

/** Reads the two environment variables; each call reads them again. An unknown level name changes nothing. */
VELA_API void libvela_log_init_from_env(void);

/**
 * Writes one message, whatever the threshold: test with libvela_log_enabled() first, or use LIBVELA_LOG.
 * Keeps errno. Ends the process with status 1 when the message cannot be formatted.
 *
 * @param level   level number, 1 to 5
 * @param module  short name of the source module
 * @param func    name of the emitting function
 * @param format  printf format; a text that ends in a newline is followed by a NUL instead of a second newline
 */
VELA_API void libvela_log(uint32_t level, const char *module, const char *func, const char *format, ...)
    VELA_PRINTF(4, 5);

/**
 * Writes a JSON document line by line, numbered; lines too long for the kernel log go on in unnumbered ones.
 *
 * @param json   borrowed; null is written as "null data"
 * @param title  first line, or null for none
 */
VELA_API void libvela_log_json(uint32_t level, const char *module, const char *func, const json_t *json,
                               const char *title);

/**
 * Writes bytes as hexadecimal, sixteen a line, after a header line.
 *
 * @param len    number of bytes; 0 or less writes the header only
 * @param title  may be null
 */
VELA_API void libvela_log_hex(uint32_t level, const char *module, const char *func, const void *data, int32_t len,
                              const char *title);

/** Whether messages of a level (its number) pass the threshold. */
static inline bool libvela_log_enabled(uint32_t level)
{
    if (libvela_log_env_ready == 0) libvela_log_init_from_env();
    return libvela_log_level >= (level < 32 ? (uint32_t)1 << level : 0);
}

/** Logs under the calling function's name when the level passes; the arguments are evaluated only then. */
#define LIBVELA_LOG(level, module, ...)                                                                                \
    do {                                                                                                               \
        if (libvela_log_enabled(level)) libvela_log(level, module, __func__, __VA_ARGS__);                             \
    } while (0)

#ifdef __cplusplus
}
#endif

#endif
