/**
 * @file
 * Sessions of the remote console: a program takes the next SDP offer from the device's media listener, hands back its
 * answer, lists the open sessions and closes them.
 *
 * Each call opens a socket of its own, named after the process, and closes it before it returns: two threads of one
 * process must not call at the same time. The listener is at the abstract address IPC_WEBRTC_LISTENER.
 */
#ifndef VELA_SERVICES_WEBRTC_H
#define VELA_SERVICES_WEBRTC_H

#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Size of a session's name with its NUL; longer ones are cut. */
#define WEBRTC_UUID_SIZE 64
/** Bytes that get_all_sdp_sessions() writes: the count, then the listener's own list. */
#define WEBRTC_SESSIONS_SIZE 548

/** What a caller tells the listener about the servers to use; goes to it byte for byte. */
typedef struct sdp_request {
    int32_t reserved;
    char turn_server[400];
    char stun_server[400];
    char username[200];
    int32_t turn_query;
    char reg_url[400];
    char creds_url[400];
} sdp_request;

/** What is exchanged with the listener, 1876 bytes in host order. */
typedef struct webrtc_ipc_msg {
    int32_t command; /**< of a request or an offer; the status in any other reply, 0 for success */
    char uuid[WEBRTC_UUID_SIZE];
    uint8_t body[1808]; /**< depends on the command */
} webrtc_ipc_msg;

/** An offer. Zero it before its first use; its texts are from malloc, see free_webrtc_inform(). */
typedef struct webrtc_inform {
    char *offer; /**< SDP text */
    char *uuid;  /**< the session */
    char *third; /**< the listener's; not filled here */
    char *turn_creds;
} webrtc_inform;

/**
 * Asks for the next offer of a session and waits for it: for up to 60 seconds after each record of the listener.
 *
 * @param uuid  the session, at most 63 characters are used
 * @param req   copied to the listener
 * @param out   zeroed, or filled by an earlier call: its texts are freed when new ones come. Free it with
 *              free_webrtc_inform(), also after -ENOENT: an incomplete offer may have left texts in it
 * @return 0 once the listener has said that the offer is complete. Its text may still be missing: `offer` is null when
 *         the message that carries it did not come within 5 seconds for each piece, or was refused. -1 when a parameter
 *         is missing or the listener cannot be asked; -ENOENT when no complete offer came
 */
VELA_API int get_next_sdp_offer(const char *uuid, const sdp_request *req, webrtc_inform *out);

/**
 * Gives the answer to an offer, and waits 5 seconds for the listener's word on it.
 *
 * @param uuid_out  null, or receives the session as the listener names it, from malloc, when it took the answer; left
 *                  alone otherwise. The one sign of success
 * @return 0 once the request went out, whatever the listener says; -1 when a parameter is missing or it did not
 */
VELA_API int set_sdp_answer(const char *uuid, const char *answer, char **uuid_out);

/**
 * Lists the open sessions; waits 3 seconds for the listener.
 *
 * @param out  receives WEBRTC_SESSIONS_SIZE bytes when there is a session, in the listener's layout; may be null
 * @return their number, as the listener gives it: not a bound of what it wrote. 0 when it reports a failure or is
 *         silent; -1 when it cannot be asked
 */
VELA_API int get_all_sdp_sessions(void *out);

/** Closes a session; no reply is awaited. 0, or -1 when there is no uuid or the listener cannot be told. */
VELA_API int close_sdp_session(const char *uuid);

/**
 * Receives an offer's text, as one message of sk_msg.h, on the socket of a session; waits 5 seconds for each piece.
 *
 * @param out  its offer is replaced
 * @return 0; -1, also for a text that is announced with more than 4 MiB
 */
VELA_API int sdp_offer_recv(int fd, webrtc_inform *out);

/** Sends an answer's text, as one message of sk_msg.h of type 1; waits 5 seconds for each piece. 0 or -1. */
VELA_API int sdp_answer_send(int fd, const char *answer);

/** Frees every text of the record and sets it to null. Null is allowed. */
VELA_API void free_webrtc_inform(webrtc_inform *inf);

#ifdef __cplusplus
}
#endif

#endif
