/**
 * @file
 * The processes that run on the device: what they are called, whose they are, and what memory and time they have taken.
 *
 * Everything comes from /proc, so it is what the process namespace shows in which /proc was mounted, as far as this
 * process may see it (mount option hidepid). A process is read through one descriptor of its directory: its record
 * never mixes with that of a later process of the same number. Who keeps records over time tells processes apart by pid
 * and start_ms together.
 */
#ifndef VELA_MONITOR_PROCESS_H
#define VELA_MONITOR_PROCESS_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What a record holds beyond the figures that are always read; each costs some calls per process. */
enum vela_process_wants {
    VELA_PROCESS_CMDLINE = 1, /**< the command line */
    VELA_PROCESS_FDS = 2,     /**< the number of open descriptors */
};

/** One process. */
typedef struct vela_process {
    int32_t pid;
    int32_t ppid;     /**< its parent; 0 for the first process, and for a parent outside the namespace */
    uint32_t uid;     /**< effective user */
    uint32_t threads; /**< at least 1 */
    uint32_t fds;     /**< open descriptors; all ones when not asked for, or not ours to see */
    char state;    /**< R running, S sleeping, D waiting for a device, Z ended, T stopped, I idle, as ps tells them */
    char name[16]; /**< as the kernel has it, any byte but NUL; a kernel worker's is cut to 15 bytes */
    char cmdline[256];   /**< arguments parted by blanks, control characters as "?", cut at a character; "" for none */
    uint64_t rss_kb;     /**< memory in use, KiB */
    uint64_t virtual_kb; /**< address space, KiB; 0 for a kernel thread */
    uint64_t cpu_ms;     /**< processor time of all its threads, ended children not included */
    uint64_t start_ms;   /**< when it started, milliseconds since boot */
} vela_process;

/** Takes one process. The record is valid during the call. Returns 0 to go on, else to stop. */
typedef int (*vela_process_callback)(const vela_process *process, void *arg);

/**
 * Goes through the processes in order of their numbers. One that ends while it is read, or that this process may not
 * see, is passed over in silence. Nothing is allocated. About 20 microseconds a process.
 *
 * @param wants  vela_process_wants, or'ed; 0 for none
 * @param each   may call anything
 * @return the number of processes delivered; -EINVAL for a null callback or an unknown bit; another negative errno when
 *         /proc cannot be read (-ENOENT: not mounted; -EMFILE: no descriptor left)
 */
VELA_API int vela_process_foreach(uint32_t wants, vela_process_callback each, void *arg);

/**
 * Reads one process.
 *
 * @param wants  vela_process_wants, or'ed; 0 for none
 * @param out    written only on success
 * @return 0; -ENOENT when there is none of that number; -EPERM when it is not ours to see; -EINVAL for a number below
 * 1, a null pointer or an unknown bit; another negative errno when /proc cannot be read
 */
VELA_API int vela_process_get(int32_t pid, uint32_t wants, vela_process *out);

/**
 * All processes: an array of {pid, ppid, uid, threads, fds, state, name, cmdline, rss_kb, virtual_kb, cpu_ms,
 * start_ms}. What is not known or empty is left out; texts are made UTF-8.
 *
 * @return a new reference; null with errno
 */
VELA_API json_t *vela_process_json(uint32_t wants);

#ifdef __cplusplus
}
#endif

#endif
