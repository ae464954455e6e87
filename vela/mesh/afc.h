/**
 * @file
 * Automated frequency coordination (AFC), which standard-power operation at 6 GHz needs: its state, kept outside this
 * library by the device's scripts, and the identifier of the pending location request.
 */
#ifndef VELA_MESH_AFC_H
#define VELA_MESH_AFC_H

#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** AFC states: index into afc_state_strs. */
enum {
    AFC_UNKNOWN,
    AFC_WAITING_FOR_LOCATION,
    AFC_LOCATION_ACQUIRED,
    AFC_LOCATION_INVALID,
    AFC_LOCATION_UNKNOWN,
    AFC_QUERY_IN_PROGRESS,
    AFC_QUERY_FAILED,
    AFC_ACTIVE,
    AFC_ERROR,
    AFC_DISABLED,
    AFC_STATES,
};

/** The states' names, as they stand in /var/run/afc.state. */
extern VELA_API const char *const afc_state_strs[AFC_STATES];

/** The current state: AFC_DISABLED without a state file, AFC_UNKNOWN for a name that is not in the table. */
VELA_API int get_afc_state(void);

/**
 * Has the system script change the state, and waits for it. Forgets the pending location request, except in state
 * AFC_LOCATION_UNKNOWN, where the request still counts. A number beyond the table sets "unknown".
 */
VELA_API void set_afc_state(unsigned state);

/** Stores the identifier of the pending location request; null, or a file that cannot be written, changes nothing. */
VELA_API void set_location_request_id(const char *id);

/**
 * The identifier of the pending location request, at most 255 characters; "" (with an error line in the log) when there
 * is none. Never null. The text is the library's and is overwritten by the next call; not for several threads.
 */
VELA_API const char *get_location_request_id(void);

/** Forgets the pending location request. 0; -1 with errno set, also when there was none. */
VELA_API int clear_location_request_id(void);

#ifdef __cplusplus
}
#endif

#endif
