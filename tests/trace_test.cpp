#include "site/collector.h"
#include "site/device.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <sys/time.h>
#include <vela/board/board.h>
#include <vela/settings.h>
#include <vela/telemetry/trace.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

/// Added to the wall clock, the library's too.
int64_t clock_offset_ms = 0;

int64_t now_ms()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return now.tv_sec * 1000 + now.tv_usec / 1000;
}

std::string compact(const json_t *value)
{
    char *text = json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY);
    const std::string copy = text ? text : "(null)";
    free(text);
    return copy;
}

json_t *parsed(const std::string &text) { return json_loads(text.c_str(), JSON_DECODE_ANY, nullptr); }

class Trace : public testing::Test
{
protected:
    Trace()
    {
        site::lay_out_device({.more_config = "corvo.is_internal=true\n"});
        site::put_file("/etc/hosts", "127.0.0.1 " + host + "\n");
    }
    ~Trace() override { json_decref(batch); }

    const std::string host = std::string(vela::settings::trace_url).substr(strlen("https://"));
    const std::string url = std::string(vela::settings::trace_url) + "/traces";
    const site::collector::settings service_names{.names = {host}};
    log_lines log;
    json_t *batch = parsed(R"([{"type": "t"}])");
};

} // namespace

extern "C" int gettimeofday(timeval *now, void *)
{
    static auto *const real = reinterpret_cast<int (*)(timeval *, void *)>(dlsym(RTLD_NEXT, "gettimeofday"));
    const int result = real(now, nullptr);
    const int64_t ms = now->tv_sec * 1000 + now->tv_usec / 1000 + clock_offset_ms;
    *now = {ms / 1000, ms % 1000 * 1000};
    return result;
}

TEST_F(Trace, SettersKeepWhatTheirRuleAllowsAndTakeTheReferenceAlways)
{
    const std::string strings = "must be an object containing only string values";
    const struct {
        int (*set)(json_t *, json_t *);
        const char *member; // in its function's name
        std::vector<const char *> allowed, refused;
        std::string complaint;
    } setters[] = {
        {trace_object_set_timestamp_new, "timestamp", {"-5"}, {"1.5", "\"1\""}, "Trace timestamp must be an integer"},
        {trace_object_set_type_new, "type", {"\"\""}, {"1", "[\"t\"]"}, "Trace type must be a string"},
        {trace_object_set_namespace_new, "namespace", {"\"n\""}, {"7"}, "Trace namespace must be a string"},
        {trace_object_set_source_new, "source", {"{}"}, {"[]", R"({"a":"b","c":1})"}, "Trace source " + strings},
        {trace_object_set_meta_new, "meta", {R"({"a":"b"})"}, {"\"a\"", R"({"a":[]})"}, "Trace meta " + strings},
        {trace_object_set_payload_new, "payload", {R"({"a":[1,"ü"]})"}, {"[]", "\"a\""}, ""},
    };
    json_t *trace = trace_object();
    for (const auto &s : setters) {
        for (const char *text : s.allowed) EXPECT_EQ(0, s.set(trace, parsed(text))) << s.member << " " << text;
        for (const char *text : s.refused) {
            json_t *value = parsed(text);
            EXPECT_EQ(-1, s.set(trace, json_incref(value))) << s.member << " " << text;
            EXPECT_EQ(1U, value->refcount) << s.member << " " << text;
            json_decref(value);
        }
        EXPECT_EQ(-1, s.set(nullptr, parsed(s.allowed[0]))) << "no trace";
        EXPECT_EQ(-1, s.set(trace, nullptr)) << "no value";
        const std::string function = std::string("trace_object_set_") + s.member + "_new";
        const size_t told = s.complaint.empty() ? 0 : s.refused.size() + 1;
        EXPECT_EQ(std::vector<log_line>(told, {"trace", "trace", function, s.complaint}), log.take());
    }
    EXPECT_EQ(R"({"timestamp":-5,"type":"","namespace":"n","source":{},"meta":{"a":"b"},"payload":)"
              R"({"contentType":"application/json","data":"{\"a\":[1,\"ü\"]}"}})",
              compact(trace));
    json_t *endless = json_object(); // no text can be made of it
    json_object_set_new(endless, "a", json_pack("{s:O}", "b", endless));
    EXPECT_EQ(-1, trace_object_set_payload_new(trace, json_incref(endless)));
    EXPECT_THAT(log.texts(), ElementsAre("Failed to create payload object"));
    json_object_clear(json_object_get(endless, "a"));
    json_decref(endless);
    EXPECT_EQ(-1, trace_array_append_new(trace, json_object()));
    trace_decref(trace);
}

TEST_F(Trace, EnvelopeCarriesTheDeviceAndTheCallersMeta)
{
    site::collector service(service_names);
    service.on("/traces", site::reply{202});
    EXPECT_EQ(0, send_trace_simple("space", "roam", json_pack("{s:i}", "rssi", -61)));
    auto requests = service.requests();
    ASSERT_EQ(1U, requests.size());
    EXPECT_EQ("PUT", requests[0].method);
    EXPECT_EQ("application/json", requests[0].header("Content-Type"));
    const site::device_facts facts;
    const std::string device =
        R"("model":")" + std::string(board_identify()->model_name) + R"(","version":"7.2.4.1863","sysid":)" +
        std::to_string(facts.sysid) +
        R"(,"board_rev":"11","manufacturer_id":"12033","controller.version":"9.4.19","is_default":"false",)"
        R"("is_internal":"true","mfg_week":"2531","anonymous_controller_id":")" +
        facts.controller_id + R"(","anonymous_site_id":")" + facts.site_id + R"(","anonymous_device_id":")" +
        facts.anonid + "\"";
    json_t *sent = parsed(requests[0].body);
    json_t *outer = json_object_get(sent, "meta");
    EXPECT_NEAR(static_cast<double>(now_ms()),
                static_cast<double>(json_integer_value(json_object_get(outer, "timestamp"))), 5000);
    json_object_set_new(outer, "timestamp", json_integer(1));
    EXPECT_EQ(R"({"meta":{"timestamp":1,"type":"event","meta":{)" + device +
                  R"(},"source":{}},"traces":[{"payload":)"
                  R"({"contentType":"application/json","data":"{\"rssi\":-61}"},"type":"roam","namespace":"space"}]})",
              compact(sent));
    json_decref(sent);

    // What the caller gives stands in for the defaults; what is missing or of the wrong type does not.
    site::remove_file("/tmp/system.cfg");
    json_t *meta = parsed(R"({"timestamp":"then","type":"boot","meta":{"mine":"kept"},"source":["no object"]})");
    json_t *inner = json_object_get(meta, "meta");
    EXPECT_EQ(0, send_traces(batch, meta));
    EXPECT_STREQ("unknown", json_string_value(json_object_get(inner, "controller.version"))) << "shared, not copied";
    EXPECT_STREQ("false", json_string_value(json_object_get(inner, "is_internal")));
    EXPECT_EQ(nullptr, json_object_get(inner, "anonymous_site_id"));
    EXPECT_EQ(R"({"meta":{"timestamp":"then","type":"boot","meta":)" + compact(inner) +
                  R"(,"source":{}},"traces":[{"type":"t"}]})",
              service.requests().at(0).body);
    for (const json_t *value : {meta, inner, batch}) EXPECT_EQ(1U, value->refcount);
    json_decref(meta);
}

TEST_F(Trace, OtherOutcomesSendNothingOrFailOnce)
{
    site::collector service(service_names);
    service.on("/traces", {site::reply{404, "no such thing"}, site::reply{202}});
    json_t *object = json_object();
    EXPECT_EQ(-1, send_traces(object, nullptr));
    EXPECT_EQ(-1, send_traces(nullptr, nullptr));
    site::put_file("/var/run/system.analytics.mode", "0\n");
    EXPECT_EQ(4, send_traces(object, nullptr)) << "analytics come before everything";
    EXPECT_EQ(4, send_trace_with_meta(object, object));
    EXPECT_EQ(4, send_trace_simple("n", "t", json_object()));
    EXPECT_THAT(service.requests(), IsEmpty());
    site::remove_file("/var/run/system.analytics.mode");
    EXPECT_EQ(1, send_trace_with_meta(object, nullptr));
    EXPECT_EQ(0, send_trace_with_meta(object, nullptr)) << "an answer, even this one, leaves no waiting";
    EXPECT_EQ(1U, object->refcount);
    const log_line no_array = {"trace", "trace", "send_traces", "Traces must be an array"};
    auto lines = log.take();
    std::erase_if(lines, [](const auto &line) { return line.module != "trace"; });
    EXPECT_THAT(
        lines, ElementsAre(no_array, no_array,
                           log_line{"trace", "trace", "send_traces", "PUT '" + url + "' failed: [404] no such thing"}));

    if (faults::can_refuse_memory) {
        site::remove_file("/tmp/system.cfg"); // reading it without memory would end the process
        for (int n = 0; n < 60; ++n) {
            const faults::refuse_memory refused(n);
            EXPECT_THAT(send_trace_with_meta(object, object), testing::AnyOf(-1, 0, 1)) << "allocation " << n;
            EXPECT_EQ(1U, object->refcount) << "allocation " << n;
        }
        EXPECT_THAT(log.texts(), testing::IsSupersetOf({"Failed to init envelope", "Failed to create outer meta",
                                                        "Failed to create envelope"}));
    }
    json_decref(object);
}

TEST_F(Trace, EachFailureBeyondTheFourthDoublesTheWait)
{
    const leak_check leaks;
    const auto five_failures = [&] {
        for (int attempt = 1; attempt <= 5; ++attempt) EXPECT_EQ(1, send_traces(batch, nullptr)) << attempt;
        EXPECT_EQ(2, send_traces(batch, nullptr)) << "a second to wait";
    };
    five_failures();
    {
        site::collector service(service_names);
        clock_offset_ms += 1000;
        EXPECT_EQ(1, send_traces(batch, nullptr)) << "404, and all is forgotten";
    }
    five_failures();
    for (int64_t wait_ms = 1000; wait_ms <= 65'536'000; wait_ms *= 2) {
        clock_offset_ms += wait_ms - 500;
        EXPECT_EQ(2, send_traces(batch, nullptr)) << wait_ms;
        clock_offset_ms += 500;
        EXPECT_EQ(1, send_traces(batch, nullptr)) << wait_ms;
    }
    {
        site::collector service(service_names);
        clock_offset_ms += 365LL * 24 * 3600 * 1000;
        EXPECT_EQ(3, send_traces(batch, nullptr)) << "for good";
        EXPECT_THAT(service.requests(), IsEmpty());
    }
    EXPECT_EQ(1U, batch->refcount);
    const auto texts = log.texts();
    EXPECT_EQ(1, std::count(texts.begin(), texts.end(), "PUT '" + url + "' failed: [7] Couldn't connect to server"))
        << "told once";
    leaks.expect_unchanged();
}

TEST_F(Trace, ReferenceCountsCanBeSeen)
{
    json_t *value = parsed(R"({"a": ["x"]})");
    dump_refcount(json_incref(value));
    dump_refcount(nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("refcount=2", "{", "a:", "refcount=1", "[", "[0]:", "refcount=1", "]", "}"));
    json_decref(value);
    json_decref(value);
}
