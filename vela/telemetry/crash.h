/**
 * @file
 * Crash reports to the maker's crash-report service: process crashes, with or without their dump, and kernel crashes
 * found by the device's oopsdump tool.
 *
 * Nothing is sent before the clock is set and the bridge has an address (/var/run/ntp.ready, /var/run/ipready.br0), nor
 * while analytics are off (/var/run/system.analytics.mode holds 0). Nothing is retried.
 *
 * A report is one request, an upload a second one, and each blocks for at most 5 seconds. Before it 2 or 3 commands
 * gather logs; has_oops() runs 1 command, oops_clear() 2. Commands are waited for without a time limit.
 *
 * Call these from one thread, and never from a signal handler: they allocate, run commands and wait. A process that
 * crashed is reported by another one.
 */
#ifndef VELA_TELEMETRY_CRASH_H
#define VELA_TELEMETRY_CRASH_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Kinds of crash, indexes of crash_type_strs. */
enum {
    CRASH_CORE_DUMP = 0,
    CRASH_APP_CRASH = 1,
    CRASH_OOM_KILL = 2,
    CRASH_RAM_DUMP = 3, /**< of a radio's firmware; has a name, but no process */
    CRASH_MINIDUMP = 4, /**< small enough to be uploaded always */
};

/** "core-dump", "app-crash", "oom-kill", "ram-dump", "minidump". */
extern VELA_API const char *const crash_type_strs[5];

/** A crash, as send_crash() borrows it. */
typedef struct crash_info {
    const char *name;          /**< process; of a RAM dump, the dump's own name */
    int32_t pid;               /**< picks the process's own log lines */
    int32_t signal;            /**< that ended the process */
    int32_t number_of_crashes; /**< so far, counted by the caller */
    int32_t process_uptime;    /**< seconds */
    uint32_t type;             /**< kind of crash */
    const void *data;          /**< the dump; null for none */
    uint32_t size;             /**< of the dump, in bytes */
} crash_info;

/**
 * Reports a crash and uploads its dump, where there is one and dumps may be uploaded
 * (/var/run/system.analytics.coredump holds 1; a minidump always may).
 *
 * @return 0 when all that was to be sent was accepted, and when nothing may be sent; -1 on any failure, which is
 *         logged, and for a kind that does not exist
 */
VELA_API int send_crash(const crash_info *crash);

/**
 * 1 when the kernel left a crash log, else 0. Runs "oopsdump -e" and waits for it; its answer is kept for the life of
 * the process. Without one (the command cannot be started, or the program ignores SIGCHLD) this is 0, and the next call
 * asks again.
 */
VELA_API int has_oops(void);

/**
 * Saves the kernel's crash log as /var/run/last-crashlog.txt and clears it; has_oops() gives 0 from then on. Runs two
 * commands, one after the other, and waits for both.
 *
 * @return the status of the clearing command as system(3) gives it; 0 when it succeeded; -1 when its status cannot be
 *         had, and then has_oops() asks again
 */
VELA_API int oops_clear(void);

/**
 * Reports the kernel's crash log, once: /var/run/last-crashlog.sent marks that it was accepted.
 *
 * @return 0 when it was accepted, now or before; -1 without a crash log; -2 when nothing may be sent yet; -3 when the
 *         service's URL does not fit; -4 when the report cannot be made; -5 when the service did not accept it
 */
VELA_API int send_kernel_crash(void);

/**
 * What would become of a report now, and why: {question: "crash", answer, reason, steps: [{name, verdict, reason}]}.
 * Nothing is sent or written; of commands, only "oopsdump -e" is run, for the kernel's crash. Every step is looked at,
 * also behind one that holds the report back.
 *
 * The answer is "report", "report_and_dump", or missing where nothing would be sent; the reason is "ready" or that of
 * the first refusal. Steps and what may refuse: "kind" unknown_kind, "clock" clock_not_set, "bridge_address"
 * no_bridge_address, "analytics" analytics_off, "url" url_too_long, and for the kernel's crash "crash_log"
 * no_crash_log, "sent" already_sent. The step "dump" says whether it goes along: minidump, dumps_allowed,
 * dumps_not_allowed, no_dump.
 *
 * @param crash  as for send_crash(); null: the kernel's
 * @return a new object, which the caller releases; null with errno when memory is short
 */
VELA_API json_t *crash_explain(const crash_info *crash);

#ifdef __cplusplus
}
#endif

#endif
