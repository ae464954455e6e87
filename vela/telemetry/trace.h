/**
 * @file
 * Traces: structured events that daemons build as JSON objects and send in batches to the maker's trace service.
 *
 *     json_t *trace = trace_object();
 *     trace_object_set_type_new(trace, json_string("roam"));
 *     trace_object_set_payload_new(trace, json_pack("{s:i}", "rssi", -61));
 *     int result = send_trace_with_meta(trace, NULL);
 *     trace_decref(trace);
 *
 * Functions whose names end in "_new" take over the reference to the value they are given, also when they fail.
 *
 * Sending is one request of at most 5 seconds; nothing is retried or kept. After four transfers in a row have failed,
 * each further failure makes the next attempt wait longer: 1 s, 2 s, 4 s ... until, after 22, the process gives up for
 * good. Any HTTP answer takes the waiting back. Call the senders from one thread.
 */
#ifndef VELA_TELEMETRY_TRACE_H
#define VELA_TELEMETRY_TRACE_H

#include <jansson.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A new, empty trace; null when memory is short. Release it with trace_decref(). */
VELA_API json_t *trace_object(void);

/** A new, empty batch of traces; null when memory is short. Release it with trace_decref(). */
VELA_API json_t *trace_array(void);

/** Adds a trace, taking it over, to a batch. 0; -1 when the batch is no array, the trace null, or memory is short. */
VELA_API int trace_array_append_new(json_t *batch, json_t *trace);

/**
 * Sets "payload": any JSON object, stored as text.
 *
 * @param trace    borrowed
 * @param payload  taken over
 * @return 0; -1 when the payload is no object, the trace no object, or memory is short
 */
VELA_API int trace_object_set_payload_new(json_t *trace, json_t *payload);

/** Sets "timestamp": an integer, milliseconds since the epoch. Taken over. 0; -1 when it is none. */
VELA_API int trace_object_set_timestamp_new(json_t *trace, json_t *value);

/** Sets "type": a string. Taken over. 0; -1 when it is none. */
VELA_API int trace_object_set_type_new(json_t *trace, json_t *value);

/** Sets "namespace": a string. Taken over. 0; -1 when it is none. */
VELA_API int trace_object_set_namespace_new(json_t *trace, json_t *value);

/** Sets "source": an object whose values are strings. Taken over. 0; -1 when it is none. */
VELA_API int trace_object_set_source_new(json_t *trace, json_t *value);

/** Sets "meta": an object whose values are strings. Taken over. 0; -1 when it is none. */
VELA_API int trace_object_set_meta_new(json_t *trace, json_t *value);

/** Releases one reference; null is allowed. */
VELA_API void trace_decref(json_t *value);

/**
 * Sends a batch with facts about the device.
 *
 * @param batch  array of traces; borrowed
 * @param meta   null, or an object whose "timestamp", "type", "meta" and "source" stand in for the defaults: now,
 *               "event" and two empty objects. Borrowed; the device's facts are added to its "meta" object
 * @return 0 when the service accepted the batch; 1 when the transfer failed or the service refused; 2 when it is too
 *         early after failures; 3 when the process has given up; 4 when analytics are off; -1 when the batch is no
 *         array or memory is short
 */
VELA_API int send_traces(json_t *batch, json_t *meta);

/** Sends one trace, borrowed, as a batch of its own. Results and meta as for send_traces(). */
VELA_API int send_trace_with_meta(json_t *trace, json_t *meta);

/**
 * Builds and sends one trace.
 *
 * @param payload  an object; taken over
 * @return as send_traces()
 */
VELA_API int send_trace_simple(const char *namespace_, const char *type, json_t *payload);

/**
 * Whether a batch would be sent now, and what holds it back: {question: "trace", answer: "send", reason, steps: [{name,
 * verdict, reason, ...}]}. Nothing is sent. The reason is "ready" or that of the first refusal, in which case there is
 * no answer: "analytics" analytics_off, "back_off" too_early (after failures in a row; wait_ms tells for how long) or
 * given_up. The back-off is this process's own.
 *
 * @return a new object, which the caller releases; null with errno when memory is short
 */
VELA_API json_t *trace_explain(void);

/** Logs the structure of a JSON value with the reference count of each part, at level info; for debugging. */
VELA_API void dump_refcount(json_t *value);

#ifdef __cplusplus
}
#endif

#endif
