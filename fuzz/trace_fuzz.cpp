// The setters of a trace, with any JSON value: each takes its reference, and keeps exactly what its rule allows.

#include <cstdint>
#include <cstdlib>
#include <vela/telemetry/trace.h>

namespace
{

void expect(bool truth)
{
    if (!truth) abort();
}

bool all_strings(json_t *value)
{
    const char *key = nullptr;
    json_t *member = nullptr;
    json_object_foreach(value, key, member) if (!json_is_string(member)) return false;
    return json_is_object(value);
}

void check(int (*set)(json_t *, json_t *), const char *key, json_t *value, bool allowed)
{
    json_t *trace = trace_object();
    expect(set(trace, json_incref(value)) == (allowed ? 0 : -1));
    json_t *member = json_object_get(trace, key);
    expect(json_object_size(trace) == (allowed ? 1 : 0) && (member != nullptr) == allowed);
    if (const char *text = json_string_value(json_object_get(member, "data"))) { // a payload's
        json_t *again = json_loads(text, 0, nullptr);
        expect(set != trace_object_set_payload_new || json_equal(again, value));
        json_decref(again);
    }
    trace_decref(trace);
    expect(json_is_true(value) || json_is_false(value) || json_is_null(value) || value->refcount == 1);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return setenv("LIBVELA_VERBOSITY", "error", 1); // refusals are told at the trace level
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    json_t *value = json_loadb(reinterpret_cast<const char *>(data), size, JSON_DECODE_ANY, nullptr);
    if (!value) return 0;
    check(trace_object_set_timestamp_new, "timestamp", value, json_is_integer(value));
    check(trace_object_set_type_new, "type", value, json_is_string(value));
    check(trace_object_set_namespace_new, "namespace", value, json_is_string(value));
    check(trace_object_set_source_new, "source", value, all_strings(value));
    check(trace_object_set_meta_new, "meta", value, all_strings(value));
    check(trace_object_set_payload_new, "payload", value, json_is_object(value));
    json_decref(value);
    return 0;
}
