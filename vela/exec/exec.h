/**
 * @file
 * Running other programs: command records to keep and compare, a synchronous fork and exec, the system's wrapper
 * script, and a shell command's output in a buffer, a text or a JSON member.
 *
 * How long a call may block: without a limit. forkexec() and a syswrapper_impl() that waits return when a child has
 * ended; one that does not wait returns when its first child has forked again, within milliseconds. The readers of a
 * shell command's output return when the command has ended: give one that may hang a limit of its own ("timeout 5
 * ...").
 *
 * forkexec() and syswrapper_impl() reap with wait(2), which takes any child that has ended: a program with children of
 * its own may find one of them gone. A program that cannot be executed is not reported; its child ends with status 0.
 *
 * Threads: nothing is locked. The environment is read as getenv(3) reads it. Between fork and exec a child makes system
 * calls only, but that the child of syswrapper_impl() logs: one line at level 5, or that it could not fork. With the
 * system log of glibc that line waits for ever, and so does a waiting caller, if another thread was within syslog(3) at
 * the fork. So a program whose threads log does not trace to the system log.
 */
#ifndef VELA_EXEC_EXEC_H
#define VELA_EXEC_EXEC_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Size of a record's path, its NUL included; arguments are kept up to as many characters. */
#define EXEC_PATH_SIZE 4096

/** A command: a program and its arguments. */
typedef struct exec_record {
    char path[EXEC_PATH_SIZE]; /**< program, cut to 4095 characters, always ended */
    int32_t argc;              /**< arguments, the program included */
    char **argv;               /**< argv[0] is path itself; the others belong to the record */
} exec_record;

/**
 * Makes a record whose argv ends with a null pointer, ready for execv(3).
 *
 * @param path  program; copied
 * @param ...   arguments as `const char *`, ended by NULL; copied up to 4096 characters each. One that cannot be copied
 *              for want of memory is left null
 * @return the record, for exec_destroy(); null when the path is null or empty, or memory is short
 */
VELA_API exec_record *exec_create(const char *path, ...) __attribute__((__sentinel__));

/** Frees a record; null is allowed. */
VELA_API void exec_destroy(exec_record *record);

/**
 * Copies a record to keep and compare. The copy's argv has argc slots and no null pointer behind them: do not execute
 * it, and walk it by argc only.
 *
 * @return the copy, for exec_destroy(); null for null or when memory is short
 */
VELA_API exec_record *exec_copy(const exec_record *src);

/**
 * Compares two records.
 *
 * @return 0 when they are the same; -1 when one is null; -2 when the numbers of arguments differ; -3 when the programs
 *         differ; else the position, from 1, of the first argument that differs
 */
VELA_API int32_t exec_cmp(const exec_record *a, const exec_record *b);

/**
 * Runs a program and waits for a child to end. An abnormal end (by a signal) is logged.
 *
 * @param argv  program path and arguments, ended by NULL
 */
VELA_API void forkexec(char *const argv[]);

/**
 * Runs the system's wrapper script, /usr/bin/syswrapper.sh, with the caller's process id in SYSWRAPPER_PPID. While
 * logging goes to the system log, the script's standard streams are /dev/null. Without the script nothing happens but
 * a log line.
 *
 * @param wait     non-zero: wait for the script; 0: let it run on by itself
 * @param command  its first argument
 * @param ...      further arguments as `const char *`, ended by NULL. Empty ones are left out; of the others the first
 *                 48 are passed
 */
VELA_API void syswrapper_impl(int wait, const char *command, ...) __attribute__((__sentinel__));

/**
 * Runs a shell command and keeps the beginning of its standard output. The command's status is only logged.
 *
 * @param buf   receives the output, cut to size - 1 bytes, and a NUL
 * @param size  of buf in bytes
 * @return bytes stored, the NUL not counted; -1 when the command cannot be started or size is 0
 */
VELA_API int32_t popen_get_output(const char *command, char *buf, uint32_t size);

/**
 * Runs a shell command and returns the beginning of its standard output. The command's status is only logged.
 *
 * @param max  most bytes to allocate; the output is cut to max - 1 bytes
 * @return the output, ended by a NUL, for free(3); null when the command cannot be started or memory is short
 */
VELA_API char *popen_alloc_output(const char *command, uint32_t max);

/**
 * Sets a member to the standard output of a shell command, up to 1 MiB less a byte and up to its first NUL; to the
 * empty text when it cannot be captured.
 *
 * @param obj      borrowed
 * @param command  null: nothing is done
 * @return 0; -1 when the output cannot be captured, is not UTF-8 (the member is not set then) or memory is short
 */
VELA_API int json_object_capture_popen(json_t *obj, const char *key, const char *command);

#ifdef __cplusplus
}
#endif

#endif
