/**
 * @file
 * How busy the device is: processor time, memory, pressure, load average. Everything comes from /proc and counts for
 * the whole device; a call reads one or three small files and allocates nothing, but for the JSON.
 *
 * Processor time is a counter: take a sample, take another one later, and vela_cpu_load() tells what was done between
 * them. Shares are thousandths (permille), rounded to the nearest.
 *
 * A figure that the kernel does not give is all ones. Functions return 0 or a negative errno, and write their output on
 * success only: -EINVAL for a null pointer, -ENOENT (or what else opening failed with) without the file, -EIO for a
 * file that does not read as it should.
 */
#ifndef VELA_MONITOR_LOAD_H
#define VELA_MONITOR_LOAD_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { VELA_CPU_MAX = 64 /**< processors told apart; those beyond it count in the total only */ };

/** Processor time since boot, in ticks of 1/100 s (sysconf(_SC_CLK_TCK)). */
typedef struct vela_cpu_ticks {
    uint64_t user; /**< programs, virtual machines included */
    uint64_t nice; /**< programs of lowered priority */
    uint64_t system;
    uint64_t idle;
    uint64_t iowait; /**< idle while a program waits for a device; may fall */
    uint64_t irq;
    uint64_t softirq;
    uint64_t steal; /**< taken by other guests of the same host */
} vela_cpu_ticks;

/** What /proc/stat says at one time. */
typedef struct vela_cpu_sample {
    uint32_t cpu_count;   /**< rows of `cpu` in use: the highest number of a processor that runs, plus one */
    vela_cpu_ticks total; /**< of all processors */
    vela_cpu_ticks cpu[VELA_CPU_MAX]; /**< by number; one that is offline is all ones */
} vela_cpu_sample;

/** What was done with the time between two samples, permille of it; all ones: not known. */
typedef struct vela_cpu_share {
    uint32_t busy; /**< all but idle and iowait */
    uint32_t user; /**< nice included */
    uint32_t system;
    uint32_t iowait;
    uint32_t irq; /**< softirq included */
    uint32_t steal;
} vela_cpu_share;

/** The same of all processors and of each. */
typedef struct vela_cpu_shares {
    uint32_t cpu_count; /**< rows of `cpu` in use */
    vela_cpu_share total;
    vela_cpu_share cpu[VELA_CPU_MAX]; /**< by number; one that came or went between the samples is all ones */
} vela_cpu_shares;

/** Takes a sample. */
VELA_API int vela_cpu_sample_take(vela_cpu_sample *out);

/**
 * Compares two samples of this device.
 *
 * @return 0; -ENODATA when no tick has passed between them, or `before` is the later one; -EINVAL for a null pointer
 */
VELA_API int vela_cpu_load(const vela_cpu_sample *before, const vela_cpu_sample *now, vela_cpu_shares *out);

/** Memory of the device, KiB. */
typedef struct vela_memory {
    uint64_t total;
    uint64_t free;      /**< not used for anything */
    uint64_t available; /**< the kernel's own estimate of what programs can still have without swapping */
    uint64_t buffers;
    uint64_t cached;      /**< files, shmem included */
    uint64_t reclaimable; /**< the kernel's own caches that it would give up */
    uint64_t shmem;       /**< shared memory and files of tmpfs */
    uint64_t swap_total;
    uint64_t swap_free;
} vela_memory;

/** Reads the memory's state. */
VELA_API int vela_memory_get(vela_memory *out);

/** Share of time, permille, in which tasks waited for a resource: over the last 10, 60 and 300 s, and since boot. */
typedef struct vela_stall {
    uint32_t avg10, avg60, avg300;
    uint64_t total_us;
} vela_stall;

/** At least one task waited (some), all tasks that had work waited (full). */
typedef struct vela_stalls {
    vela_stall some, full;
} vela_stalls;

/** Pressure on the device's resources. */
typedef struct vela_pressure {
    vela_stalls cpu, memory, io;
} vela_pressure;

/** Reads the pressure of all three resources. -EOPNOTSUPP when the kernel does not measure it (PSI). */
VELA_API int vela_pressure_get(vela_pressure *out);

/** Load average: tasks that run or wait for a device, in thousandths of a task, over 1, 5 and 15 minutes. */
typedef struct vela_loadavg {
    uint32_t avg1, avg5, avg15;
    uint32_t running; /**< tasks that could run now */
    uint32_t threads; /**< tasks there are */
} vela_loadavg;

/** Reads the load average. */
VELA_API int vela_loadavg_get(vela_loadavg *out);

/**
 * All of it: {cpu: {busy_permille, user_permille, system_permille, iowait_permille, irq_permille, steal_permille, cpus:
 * [{cpu: 0, busy_permille, ...}]}, memory: {total_kb, free_kb, available_kb, buffers_kb, cached_kb, reclaimable_kb,
 * shmem_kb, swap_total_kb, swap_free_kb}, pressure: {cpu: {some: {avg10_permille, avg60_permille, avg300_permille,
 * total_us}, full: {...}}, memory, io}, load: {avg1_permille, avg5_permille, avg15_permille, running, threads}}. What
 * is not known is left out, a whole part too: cpu where vela_cpu_load() fails, the others where they cannot be read.
 *
 * @return a new reference; null with errno ENOMEM
 */
VELA_API json_t *vela_load_json(const vela_cpu_sample *before, const vela_cpu_sample *now);

#ifdef __cplusplus
}
#endif

#endif
