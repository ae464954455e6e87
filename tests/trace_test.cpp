#include "site/collector.h"
#include "site/device.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <regex>
#include <sys/time.h>
#include <vela/board/board.h>
#include <vela/settings.h>
#include <vela/telemetry/trace.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

int64_t clock_offset_ms = 0; ///< added to the wall clock, the library's too

std::string compact(const json_t *value)
{
    const std::unique_ptr<char, decltype(&free)> text{json_dumps(value, JSON_COMPACT), free};
    return text.get();
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
    /// A batch arrives; what the service received.
    std::string arrives(json_t *meta = nullptr)
    {
        site::collector service({.names = {host}});
        service.on("/traces", site::reply{202});
        EXPECT_EQ(0, send_traces(batch, meta));
        return service.requests().at(0).body;
    }
    int send() { return send_traces(batch, nullptr); }

    const std::string host = std::string(vela::settings::trace_url).substr(strlen("https://"));
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

TEST_F(Trace, SettersBuildATraceAndTakeTheReferenceAlways)
{
    json_t *trace = trace_object(), *shared = json_pack("{s:s}", "a", "b"), *endless = json_object();
    EXPECT_EQ(0, trace_object_set_timestamp_new(trace, json_integer(-5)));
    EXPECT_EQ(0, trace_object_set_type_new(trace, json_string("t")));
    EXPECT_EQ(0, trace_object_set_namespace_new(trace, json_string("n")));
    EXPECT_EQ(0, trace_object_set_source_new(trace, json_object()));
    EXPECT_EQ(0, trace_object_set_meta_new(trace, json_incref(shared)));
    EXPECT_EQ(0, trace_object_set_payload_new(trace, parsed(R"({"a":[1,"ü"]})")));
    EXPECT_EQ(R"({"timestamp":-5,"type":"t","namespace":"n","source":{},"meta":{"a":"b"},"payload":)"
              R"({"contentType":"application/json","data":"{\"a\":[1,\"ü\"]}"}})",
              compact(trace));
    EXPECT_EQ(-1, trace_object_set_type_new(trace, json_incref(shared)));
    EXPECT_EQ(-1, trace_object_set_source_new(nullptr, json_incref(shared)));
    EXPECT_EQ(-1, trace_object_set_payload_new(trace, nullptr));
    EXPECT_EQ(-1, trace_array_append_new(trace, json_incref(shared)));
    json_object_set_new(endless, "a", json_pack("{s:O}", "b", endless)); // no text can be made of it
    EXPECT_EQ(-1, trace_object_set_payload_new(trace, json_incref(endless)));
    EXPECT_THAT(log.texts(), ElementsAre("Trace type must be a string", "Failed to create payload object"));
    json_object_clear(json_object_get(endless, "a"));
    json_decref(endless);
    trace_decref(trace);
    dump_refcount(shared);
    dump_refcount(nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("refcount=1", "{", "a:", "refcount=1", "}"));
    json_decref(shared);
}

TEST_F(Trace, EnvelopeCarriesTheDeviceAndTheCallersMeta)
{
    const site::device_facts facts;
    auto body = std::regex_replace(arrives(), std::regex(R"re("timestamp":\d{13},)re"), R"("timestamp":1,)"); // ms
    EXPECT_EQ(R"({"meta":{"timestamp":1,"type":"event","meta":{"model":")" + std::string(board_identify()->model_name) +
                  R"(","version":"7.2.4.1863","sysid":)" + std::to_string(facts.sysid) +
                  R"(,"board_rev":"11","manufacturer_id":"12033","controller.version":"9.4.19","is_default":"false",)"
                  R"("is_internal":"true","mfg_week":"2531","anonymous_controller_id":")" +
                  facts.controller_id + R"(","anonymous_site_id":")" + facts.site_id + R"(","anonymous_device_id":")" +
                  facts.anonid + R"("},"source":{}},"traces":[{"type":"t"}]})",
              body);

    // What the caller gives stands in for the defaults; what is missing or of the wrong type does not.
    site::remove_file("/tmp/system.cfg");
    json_t *meta = parsed(R"({"timestamp":"then","type":"boot","meta":{"mine":"kept"},"source":["no object"]})");
    json_t *inner = json_object_get(meta, "meta");
    body = arrives(meta);
    EXPECT_EQ(R"({"meta":{"timestamp":"then","type":"boot","meta":)" + compact(inner) + // shared, not copied
                  R"(,"source":{}},"traces":[{"type":"t"}]})",
              body);
    EXPECT_THAT(body, HasSubstr(R"("mine":"kept","model":)"));
    EXPECT_THAT(body, HasSubstr(R"("controller.version":"unknown","is_default":"false","is_internal":"false")"));
    EXPECT_THAT(body, testing::Not(HasSubstr("site_id")));
    for (const json_t *value : {meta, inner, batch}) EXPECT_EQ(1U, value->refcount);
    json_decref(meta);
}

TEST_F(Trace, WhatIsNoBatchOrNotAllowedIsNotSent)
{
    json_t *object = json_object();
    EXPECT_EQ(-1, send_traces(object, nullptr));
    EXPECT_EQ(-1, send_traces(nullptr, nullptr));
    EXPECT_THAT(log.texts(), ElementsAre("Traces must be an array", "Traces must be an array"));
    site::put_file("/var/run/system.analytics.mode", "0\n");
    EXPECT_EQ(4, send_traces(object, nullptr)) << "analytics come before everything";
    EXPECT_EQ(4, send_trace_with_meta(object, object));
    EXPECT_EQ(4, send_trace_simple("n", "t", json_object()));
    site::remove_file("/var/run/system.analytics.mode");
    site::remove_file("/tmp/system.cfg");             // reading it without memory would end the process
    const site::collector service({.names = {host}}); // an answer of any kind: no waiting
    for (int n = 0; faults::can_refuse_memory && n < 60; ++n) {
        const faults::refuse_memory refused(n);
        EXPECT_NE(0, send_trace_with_meta(object, object)) << "allocation " << n;
        EXPECT_EQ(1U, object->refcount) << "allocation " << n;
    }
    json_decref(object);
}

TEST_F(Trace, EachFailureBeyondTheFourthDoublesTheWait)
{
    const leak_check leaks;
    const auto five_failures = [&] {
        for (int attempt = 1; attempt <= 5; ++attempt) EXPECT_EQ(1, send()) << attempt;
        EXPECT_EQ(2, send()) << "a second to wait";
    };
    five_failures();
    {
        site::collector service({.names = {host}});
        service.on("/traces", {site::reply{404, "no"}, site::reply{202}});
        clock_offset_ms += 1000;
        EXPECT_EQ(1, send()) << "an answer, even this one, and all is forgotten";
        EXPECT_EQ(0, send_trace_simple("space", "roam", json_pack("{s:i}", "rssi", -61)));
        EXPECT_THAT(service.requests().at(1).body,
                    HasSubstr(R"([{"payload":{"contentType":"application/json","data":"{\"rssi\":-61}"},"type":"roam",)"
                              R"("namespace":"space"}])"));
    }
    five_failures();
    for (int64_t wait_ms = 1000; wait_ms <= 65'536'000; wait_ms *= 2) {
        clock_offset_ms += wait_ms - 500;
        EXPECT_EQ(2, send()) << wait_ms;
        clock_offset_ms += 500;
        EXPECT_EQ(1, send()) << wait_ms;
    }
    clock_offset_ms += 365LL * 24 * 3600 * 1000;
    EXPECT_EQ(3, send()) << "for good";
    EXPECT_EQ(1U, batch->refcount);
    const auto texts = log.texts();
    EXPECT_EQ(1, std::count_if(texts.begin(), texts.end(), [](auto &t) { return t.ends_with("[404] no"); }));
    const std::string told =
        std::string("PUT '") + vela::settings::trace_url + "/traces' failed: [7] Couldn't connect to server";
    EXPECT_EQ(1, std::count(texts.begin(), texts.end(), told)) << "told once";
    leaks.expect_unchanged();
}
