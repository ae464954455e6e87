/**
 * @file
 * The watched side of the process watchdog. The supervisor starts this process with a descriptor whose number stands in
 * the environment variable XWD_FD, and takes one byte for each step: "S" at the start, "P" for every sign of life, "E"
 * when the process ends on purpose.
 *
 * Without a watchdog nothing here does anything. With one, a byte that cannot be written at once ends the process with
 * abort(): a process that cannot reach its watchdog must not go on unwatched. The descriptor is one for the process and
 * not locked: call xwd_start() before other threads use the watchdog.
 */
#ifndef VELA_IPC_XWD_H
#define VELA_IPC_XWD_H

#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Adopts the watchdog, once, and says "S"; children will not inherit it. Silent where XWD_FD names no descriptor. */
VELA_API void xwd_start(void);

/** A sign of life: "P". */
VELA_API void xwd_ping(void);

/** The orderly end: "E". The watchdog stops watching. */
VELA_API void xwd_end(void);

/** Writes one command byte to the watchdog; the step the others take. */
VELA_API void xwd_write(char command);

#ifdef __cplusplus
}
#endif

#endif
