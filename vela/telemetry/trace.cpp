// Traces: built and checked member by member, sent in batches.
//
// The sender wraps a batch with facts about the device, sends it with one PUT, and waits longer from failure to failure
// so that thousands of devices do not hammer a service that is down.

#include <curl/curl.h>
#include <sys/time.h>
#include <vela/board/board.h>
#include <vela/board/status.h>
#include <vela/config/cfg.h>
#include <vela/core/file.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/text.h>
#include <vela/core/internal/verdicts.h>
#include <vela/settings.h>
#include <vela/telemetry/internal/report.h>
#include <vela/telemetry/trace.h>

namespace
{

using namespace vela::telemetry;

constexpr const char *log_module = "trace";

constexpr const char *payload_type = "application/json";
constexpr const char *default_type = "event";
constexpr const char *no_device_id = "0000000000000000";
constexpr const char *no_week = "2005";

constexpr uint32_t answer_max = 1024; // bytes kept, for the log
constexpr long accepted = 202;

constexpr uint64_t first_backoff_ms = 1000;
constexpr uint64_t give_up_backoff_ms = 24ULL * 60 * 60 * 1000;
constexpr int32_t free_failures = 4; // in a row, before the next attempt has to wait

enum result { sent = 0, failed = 1, too_early = 2, given_up = 3, analytics_off = 4, invalid = -1 };

/// The sender's memory, for the life of the process. A transfer that succeeds resets waiting and count; nothing else
/// is ever reset.
constinit struct {
    uint64_t last_attempt_ms = 0; // since the epoch
    uint64_t backoff_ms = 0;
    int32_t failures = 0; // in a row
    bool failure_logged = false;
    char device_id[65] = ""; // empty until the first send
} sender;

using config_ptr = std::unique_ptr<cfg_entry, vela::releaser<free_cfg>>;

uint64_t now_ms()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

bool is_object_of_strings(json_t *value)
{
    if (!json_is_object(value)) return false;
    const char *key = nullptr;
    const json_t *member = nullptr;
    json_object_foreach(value, key, member)
    {
        if (!json_is_string(member)) return false;
    }
    return true;
}

int set_checked(json_t *trace, const char *key, json_t *value, bool valid, const char *step, const char *complaint)
{
    vela::json_ref owned{value};
    if (valid) return json_object_set_new(trace, key, owned.release());
    log_trace_as(step, "%s", complaint);
    return -1;
}

vela::json_ref payload_object(const json_t *payload)
{
    const vela::c_string text{json_dumps(payload, JSON_COMPACT)};
    vela::json_ref object{json_object()};
    if (!text || !object) return {};
    if (json_object_set_new(object.get(), "contentType", json_string(payload_type)) < 0) return {};
    if (json_object_set_new(object.get(), "data", json_string(text.get())) < 0) return {};
    return object;
}

const char *device_id()
{
    if (*sender.device_id == '\0') {
        freadvalue(system_info_path, "device.anonid", sender.device_id, sizeof sender.device_id, no_device_id);
    }
    return sender.device_id;
}

json_t *truth_text(bool value) { return json_string(value ? "true" : "false"); }

void add_device_facts(json_t *meta)
{
    const config_ptr config{parse(config_path)};
    const board_record *board = board_identify();
    char week[8];
    add(meta, "model", json_string(board->model_name));
    add(meta, "version", json_string(firmware_version(log_module, __func__)));
    add(meta, "sysid", json_integer(board->system_id)); // On purpose: the one fact that is no string.
    add(meta, "board_rev", decimal_text(get_boardrevision(system_info_path)));
    add(meta, "manufacturer_id", decimal_text(get_manufid()));
    add(meta, "controller.version", json_string(get_value(config.get(), "unknown", "corvo.version")));
    add(meta, "is_default", truth_text(is_factory_default()));
    add(meta, "is_internal", truth_text(get_bool(config.get(), 0, "corvo.is_internal")));
    add(meta, "mfg_week", json_string(freadvalue(system_info_path, "mfgweek", week, sizeof week, no_week)));
    add_unless_empty(meta, "anonymous_controller_id", get_value(config.get(), "", "corvo.anonymous_controller_id"));
    add_unless_empty(meta, "anonymous_site_id", get_value(config.get(), "", "corvo.anonymous_site_id"));
    add(meta, "anonymous_device_id", json_string(device_id()));
}

/// A member of the caller's, shared; null when there is none.
vela::json_ref shared_member(const json_t *object, const char *key)
{
    return vela::json_ref{json_incref(json_object_get(object, key))};
}

vela::json_ref shared_object_or_new(const json_t *object, const char *key)
{
    vela::json_ref member = shared_member(object, key);
    return json_is_object(member.get()) ? std::move(member) : vela::json_ref{json_object()};
}

vela::json_ref outer_meta(const json_t *from)
{
    vela::json_ref outer{json_object()};
    vela::json_ref timestamp = shared_member(from, "timestamp");
    vela::json_ref type = shared_member(from, "type");
    vela::json_ref meta = shared_object_or_new(from, "meta");
    vela::json_ref source = shared_object_or_new(from, "source");
    if (!timestamp) timestamp.reset(json_integer(static_cast<json_int_t>(now_ms())));
    if (!type) type.reset(json_string(default_type));
    if (!outer || !meta) return {};

    add_device_facts(meta.get());
    if (json_object_set_new(outer.get(), "timestamp", timestamp.release()) < 0 ||
        json_object_set_new(outer.get(), "type", type.release()) < 0 ||
        json_object_set_new(outer.get(), "meta", meta.release()) < 0 ||
        json_object_set_new(outer.get(), "source", source.release()) < 0) {
        return {};
    }
    return outer;
}

vela::json_ref create_envelope(json_t *batch, const json_t *from)
{
    vela::json_ref envelope{json_object()};
    if (!envelope) {
        log_trace("Failed to init envelope");
        return {};
    }
    vela::json_ref meta = outer_meta(from);
    if (!meta) {
        log_trace("Failed to create outer meta");
        return {};
    }
    if (json_object_set_new(envelope.get(), "meta", meta.release()) < 0) return {};
    if (json_object_set_new(envelope.get(), "traces", json_incref(batch)) < 0) return {};
    return envelope;
}

void count_failure(const char *url, int error)
{
    if (++sender.failures > free_failures) {
        sender.backoff_ms = sender.backoff_ms == 0 ? first_backoff_ms : sender.backoff_ms * 2;
    }
    if (sender.failure_logged) return;
    log_trace_as("send_traces", "PUT '%s' failed: [%d] %s", url, error,
                 curl_easy_strerror(static_cast<CURLcode>(error)));
    sender.failure_logged = true;
}

int put_envelope(const char *url, json_t *envelope)
{
    const response_ptr response{curl_simple_response_init(answer_max)};
    if (!response) {
        log_error_as("send_traces", "%s", no_response_record);
        return invalid;
    }
    const int error = curl_simple_put_json(url, 0, envelope, response.get());
    sender.last_attempt_ms = now_ms();
    if (error != CURLE_OK) {
        count_failure(url, error);
        return failed;
    }
    sender.failures = 0;
    sender.backoff_ms = 0;
    if (response->status == accepted) return sent;
    const auto body = body_of(*response);
    log_trace_as("send_traces", "PUT '%s' failed: [%ld] %.*s", url, response->status, static_cast<int>(body.size()),
                 body.data());
    return failed;
}

vela::formatted<256> make_url()
{
    return vela::formatted<256>("%s/traces", service_url(vela::settings::trace_url, vela::settings::trace_url_dev));
}

/// What holds a batch back now; `sent` for nothing. With a sink both steps are looked at.
int held_back(vela::verdicts *why = nullptr)
{
    using vela::verdict;
    const bool allowed = analytics_on();
    note(why, "analytics", allowed ? verdict::passed : verdict::refused, allowed ? "holds" : "analytics_off");
    if (!allowed && !why) return analytics_off;

    const uint64_t now = now_ms();
    const uint64_t next = sender.last_attempt_ms + sender.backoff_ms;
    int wait = sent;
    const char *reason = sender.failures == 0 ? "no_failure" : "waited";
    if (sender.backoff_ms > give_up_backoff_ms) { // On purpose: until the process ends.
        wait = given_up;
        reason = "given_up";
    } else if (now < next) {
        wait = too_early;
        reason = "too_early";
    }
    note(why, "back_off", wait == sent ? verdict::passed : verdict::refused, reason,
         {{"failures", sender.failures}, {"wait_ms", wait == too_early ? next - now : 0}});
    return allowed ? wait : int{analytics_off};
}

} // namespace

json_t *trace_object(void) { return json_object(); }

json_t *trace_array(void) { return json_array(); }

int trace_array_append_new(json_t *batch, json_t *trace) { return json_array_append_new(batch, trace); }

int trace_object_set_payload_new(json_t *trace, json_t *payload)
{
    const vela::json_ref owned{payload};
    if (!json_is_object(payload)) return -1;
    vela::json_ref object = payload_object(payload);
    if (!object) {
        log_trace("Failed to create payload object");
        return -1;
    }
    return json_object_set_new(trace, "payload", object.release());
}

int trace_object_set_timestamp_new(json_t *trace, json_t *value)
{
    return set_checked(trace, "timestamp", value, json_is_integer(value), __func__,
                       "Trace timestamp must be an integer");
}

int trace_object_set_type_new(json_t *trace, json_t *value)
{
    return set_checked(trace, "type", value, json_is_string(value), __func__, "Trace type must be a string");
}

int trace_object_set_namespace_new(json_t *trace, json_t *value)
{
    return set_checked(trace, "namespace", value, json_is_string(value), __func__, "Trace namespace must be a string");
}

int trace_object_set_source_new(json_t *trace, json_t *value)
{
    return set_checked(trace, "source", value, is_object_of_strings(value), __func__,
                       "Trace source must be an object containing only string values");
}

int trace_object_set_meta_new(json_t *trace, json_t *value)
{
    return set_checked(trace, "meta", value, is_object_of_strings(value), __func__,
                       "Trace meta must be an object containing only string values");
}

void trace_decref(json_t *value) { json_decref(value); }

int send_traces(json_t *batch, json_t *meta)
{
    if (const int held = held_back(); held != sent) return held;
    if (!json_is_array(batch)) {
        log_trace("Traces must be an array");
        return invalid;
    }
    const auto envelope = create_envelope(batch, meta);
    if (!envelope) {
        log_trace("Failed to create envelope");
        return invalid;
    }
    return put_envelope(make_url().c_str(), envelope.get());
}

int send_trace_with_meta(json_t *trace, json_t *meta)
{
    const vela::json_ref batch{json_array()};
    if (json_array_append(batch.get(), trace) < 0) return invalid;
    return send_traces(batch.get(), meta);
}

int send_trace_simple(const char *namespace_, const char *type, json_t *payload)
{
    const vela::json_ref trace{trace_object()};
    if (!trace) {
        json_decref(payload);
        return invalid;
    }
    // A member that breaks its rule is left out and said so; what is left is still worth sending.
    (void)trace_object_set_payload_new(trace.get(), payload);
    (void)trace_object_set_type_new(trace.get(), json_string(type));
    (void)trace_object_set_namespace_new(trace.get(), json_string(namespace_));
    return send_trace_with_meta(trace.get(), nullptr);
}

json_t *trace_explain(void)
{
    vela::verdicts why{"trace"};
    (void)held_back(&why); // what it told is what counts
    note(&why, "url", vela::verdict::passed, "fits", {{"url", make_url().c_str()}});
    const char *reason = why.first_refusal();
    why.conclude(reason ? reason : "ready", reason ? nullptr : "send");
    return why.release();
}

void dump_refcount(json_t *value)
{
    if (!value || !libvela_log_enabled(LIBVELA_LOG_INFO)) return;
    log_info("refcount=%zu", value->refcount);
    if (json_is_object(value)) {
        const char *key = nullptr;
        json_t *member = nullptr;
        log_info("{");
        json_object_foreach(value, key, member)
        {
            log_info("%s:", key);
            dump_refcount(member);
        }
        log_info("}");
    } else if (json_is_array(value)) {
        size_t index = 0;
        json_t *element = nullptr;
        log_info("[");
        json_array_foreach(value, index, element)
        {
            log_info("[%zu]:", index);
            dump_refcount(element);
        }
        log_info("]");
    }
}
