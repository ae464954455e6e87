/**
 * @file
 * Facts about the running system that reports carry: firmware version, board revision, maker, stage of the
 * installation, uptime and time as text. And two locks by which the daemons that write reports keep out of each
 * other's way: these block for up to eleven seconds and are for one thread; the queries read small files.
 */
#ifndef VELA_BOARD_STATUS_H
#define VELA_BOARD_STATUS_H

#include <stddef.h>
#include <stdint.h>
#include <vela/config/cfg.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Firmware version, "VERSION.BUILD" from /usr/etc/.version and /usr/etc/.build. Read once; after a failure the next
 * call tries again. Any thread may call it; one that still holds "unknown.0" sees that text change when another's call
 * succeeds.
 *
 * @param out  receives the text, at most 63 characters, also on failure ("unknown.0"); it lives as long as the process
 * @return 0; the negative errno of a failed read, the version's before the build's; else -EINVAL when a file is empty
 */
VELA_API int get_version(const char **out);

/** Value of the last "boardrevision" line of a key=value file; -1 when it has none or cannot be opened. */
VELA_API int get_boardrevision(const char *path);

/** Manufacturer id, "manufid" of /proc/velahal/system.info: four hexadecimal digits; 0 when absent. */
VELA_API unsigned get_manufid(void);

/** What the build was made from: 1 a tag (a release), 2 a branch, 0 unknown. From /usr/lib/build.properties. */
VELA_API int get_vela_scm_reftype(void);

/**
 * Stage of the installation, "mgmt.brix.env".
 *
 * @param cfg  borrowed; null reads /tmp/system.cfg
 * @return 2 development, 1 staging, 0 production
 */
VELA_API int get_brix_env(const cfg_entry *cfg);

/**
 * The stage that telemetry is sent to: as get_brix_env(), but a build that is no release reports as development from a
 * production installation, unless "mgmt.brix.env.force" of /tmp/system.cfg is on.
 */
VELA_API int get_brix_env_limit_prod(const cfg_entry *cfg);

/** Seconds since boot, as sysinfo(2) tells them. */
VELA_API unsigned get_uptime_from_sysinfo(void);

/** Whole seconds of the first number in a file; all ones (UINT_MAX) when there is none. */
VELA_API unsigned get_uptime_from_file(const char *path);

/** Seconds since boot, from /proc/uptime. */
VELA_API unsigned get_uptime_from_proc(void);

/**
 * Writes a duration: "1d1h1m1s", parts that are 0 left out, so that 0 gives the empty text.
 *
 * @return length of the whole text, also when it was cut to len - 1 characters
 */
VELA_API int uptime2str(unsigned seconds, char *buf, size_t len);

/**
 * Writes the current local time, "2025-10-03T07:41:12"; cut when it does not fit.
 *
 * @return 0; -1 when there is no local time
 */
VELA_API int get_system_time_str(char *buf, size_t len);

/**
 * Writes a time stamp as local time, "2025-10-03T07:41:12", or "1900-01-01T00:00:00" when it is out of range.
 *
 * @param ts   seconds since the epoch
 * @param buf  room for 80 bytes, whatever len says
 * @param len  not used
 */
VELA_API void conv_ts_to_local_time(int64_t ts, char *buf, size_t len);

/**
 * @name Report locks
 * Held by one process at a time, across processes; within a process they do not nest. Locking waits up to eleven
 * seconds for another process.
 *
 * @return 0; -1, with an error in the log, when it is held already, cannot be had, or (unlocking) is not held
 * @{
 */
VELA_API int report_lock(void); /**< on the directory /var/run/report, which must exist */
VELA_API int report_unlock(void);
VELA_API int inform_profile_lock(void); /**< on the file /var/run/inform-profile.lock, made when missing */
VELA_API int inform_profile_unlock(void);
/** @} */

/** 1 while this process holds the report lock, else 0. */
VELA_API int report_locked(void);

#ifdef __cplusplus
}
#endif

#endif
