/* One event to the trace service: LIBVELA_VERBOSITY=trace LIBVELA_FACILITIES=stderr ./example-trace */
#include <stdio.h>
#include <time.h>
#include <vela/telemetry/trace.h>

int main(void)
{
    json_t *trace = trace_object();
    trace_object_set_timestamp_new(trace, json_integer((json_int_t)time(NULL) * 1000));
    trace_object_set_type_new(trace, json_string("roam"));
    trace_object_set_namespace_new(trace, json_string("example.wireless"));
    trace_object_set_source_new(trace, json_pack("{s:s}", "process", "example-trace"));
    if (trace_object_set_payload_new(trace, json_pack("{s:i, s:i}", "rssi", -61, "channel", 44)) < 0) {
        fputs("the payload must be an object\n", stderr);
    }

    json_t *batch = trace_array();
    trace_array_append_new(batch, trace); /* the batch owns the trace from here on */
    const int result = send_traces(batch, NULL);
    trace_decref(batch);

    static const char *const outcomes[] = {"accepted", "failed", "too early", "given up", "analytics are off"};
    puts(result < 0 ? "no batch" : outcomes[result]);
    return result == 0 ? 0 : 1;
}
