#include "site/collector.h"
#include "site/device.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <sys/time.h>
#include <vela/settings.h>
#include <vela/telemetry/trace.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace
{

int64_t clock_offset_ms = 0; ///< added to the wall clock, the library's too

class Trace : public testing::Test
{
protected:
    Trace()
    {
        site::lay_out_device({.more_config = "corvo.is_internal=true\n"});
        site::put_file("/etc/hosts", "127.0.0.1 " + host + "\n");
    }
    /// A batch arrives; what the service received.
    std::string arrives(json_t *meta = nullptr)
    {
        site::collector service({.names = {host}});
        service.on("/traces", site::reply{202});
        EXPECT_EQ(0, send_traces(batch.get(), meta));
        return service.requests().at(0).body;
    }
    int send() { return send_traces(batch.get(), nullptr); }

    const std::string host = std::string(vela::settings::trace_url).substr(strlen("https://"));
    log_lines log;
    const vela::json_ref batch = parsed(R"([{"type": "t"}])");
};

} // namespace

extern "C" int gettimeofday(timeval *now, void *)
{
    timespec real = {};
    clock_gettime(CLOCK_REALTIME, &real);
    const int64_t ms = real.tv_sec * 1000 + real.tv_nsec / 1'000'000 + clock_offset_ms;
    *now = {ms / 1000, ms % 1000 * 1000};
    return 0;
}

TEST_F(Trace, SettersBuildATraceAndTakeTheReferenceAlways)
{
    const vela::json_ref owner{trace_object()}, shared = parsed(R"({"a": "b"})");
    json_t *trace = owner.get();
    EXPECT_EQ(0, trace_object_set_timestamp_new(trace, json_integer(-5)));
    EXPECT_EQ(0, trace_object_set_type_new(trace, json_string("t")));
    EXPECT_EQ(0, trace_object_set_namespace_new(trace, json_string("n")));
    EXPECT_EQ(0, trace_object_set_source_new(trace, json_object()));
    EXPECT_EQ(0, trace_object_set_payload_new(trace, parsed(R"({"a":[1,"ü"]})").release()));
    json_t *endless = json_object(); // no text can be made of it
    json_object_set_new(endless, "a", json_pack("{s:O}", "b", endless));
    EXPECT_EQ(-1, trace_object_set_payload_new(trace, json_incref(endless)));
    EXPECT_EQ(-1, trace_object_set_payload_new(trace, nullptr));
    EXPECT_EQ(-1, trace_object_set_type_new(trace, json_incref(shared.get())));
    EXPECT_EQ(-1, trace_object_set_source_new(nullptr, json_incref(shared.get())));
    EXPECT_EQ(-1, trace_array_append_new(trace, json_incref(shared.get())));
    EXPECT_THAT(log.texts(), ElementsAre("Failed to create payload object", "Trace type must be a string"));
    dump_refcount(shared.get());
    dump_refcount(nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("refcount=1", "{", "a:", "refcount=1", "}"));
    EXPECT_EQ(0, trace_object_set_meta_new(trace, json_incref(shared.get())));
    EXPECT_EQ(R"({"meta":{"a":"b"},"namespace":"n","payload":{"contentType":"application/json","data":)"
              R"("{\"a\":[1,\"ü\"]}"},"source":{},"timestamp":-5,"type":"t"})",
              dumped(trace));
    json_object_clear(json_object_get(endless, "a"));
    json_decref(endless);
}

TEST_F(Trace, EnvelopeCarriesTheDeviceAndTheCallersMeta)
{
    EXPECT_THAT(
        arrives(),
        MatchesRegex(
            R"(\{"meta":\{"timestamp":[0-9]{13},"type":"event","meta":\{"model":"[^"]+","version":"7.2.4.1863",)"
            R"("sysid":42630,"board_rev":"11","manufacturer_id":"12033","controller.version":"9.4.19",)"
            R"("is_default":"false","is_internal":"true","mfg_week":"2531","anonymous_controller_id":"[^"]+",)"
            R"("anonymous_site_id":"[^"]+","anonymous_device_id":"[^"]+"\},"source":\{\}\},"traces":\[\{"type":"t"\}\]\})"));

    // What the caller gives stands in for the defaults; what is missing or of the wrong type does not.
    site::remove_file("/tmp/system.cfg");
    const auto meta = parsed(R"({"timestamp":"then","type":"boot","meta":{"mine":"kept"},"source":["no object"]})");
    const json_t *inner = json_object_get(meta.get(), "meta");
    EXPECT_THAT(
        arrives(meta.get()),
        MatchesRegex(
            R"(\{"meta":\{"timestamp":"then","type":"boot","meta":\{"mine":"kept","model":.*,"controller.version":"unknown",)"
            R"("is_default":"false","is_internal":"false","mfg_week":"2531","anonymous_device_id":.*\},"source":\{\}\},.*)"));
    EXPECT_NE(nullptr, json_object_get(inner, "model")) << "shared, not copied";
    for (const json_t *value :
         {inner, static_cast<const json_t *>(meta.get()), static_cast<const json_t *>(batch.get())})
        EXPECT_EQ(1U, value->refcount);
}

TEST_F(Trace, WhatIsNoBatchOrNotAllowedIsNotSent)
{
    const vela::json_ref owner{json_object()};
    json_t *object = owner.get();
    EXPECT_EQ(-1, send_traces(object, nullptr));
    EXPECT_EQ(-1, send_traces(nullptr, nullptr));
    EXPECT_THAT(log.texts(), ElementsAre("Traces must be an array", "Traces must be an array"));
    site::put_file("/var/run/system.analytics.mode", "0\n");
    EXPECT_EQ(4, send_traces(object, nullptr)) << "analytics come before everything";
    EXPECT_STREQ("analytics_off", text_of(vela::json_ref{trace_explain()}, "reason"));
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
}

TEST_F(Trace, EachFailureBeyondTheFourthDoublesTheWait)
{
    const leak_check leaks;
    const auto reason = [] { return text_of(vela::json_ref{trace_explain()}, "reason") + std::string(); };
    const auto five_failures = [&] {
        EXPECT_EQ("ready", reason());
        for (int attempt = 1; attempt <= 5; ++attempt) EXPECT_EQ(1, send()) << attempt;
        EXPECT_EQ(2, send()) << "a second to wait";
        EXPECT_EQ("too_early", reason());
    };
    five_failures();
    {
        site::collector service({.names = {host}});
        service.on("/traces", {site::reply{404, "no"}, site::reply{202}});
        clock_offset_ms += 1000;
        EXPECT_EQ(1, send()) << "an answer, even this one, and all is forgotten";
        EXPECT_EQ(0, send_trace_simple("space", "roam", json_pack("{s:i}", "rssi", -61)));
        EXPECT_THAT(service.requests().at(1).body, HasSubstr(R"(:-61}"},"type":"roam","namespace":"space"}])"));
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
    EXPECT_EQ("given_up", reason());
    EXPECT_EQ(1U, batch->refcount);
    auto lines = log.take();
    std::erase_if(lines, [](const auto &line) { return line.function != "send_traces"; });
    ASSERT_EQ(2U, lines.size()) << "failures are told once";
    EXPECT_EQ("PUT 'https://" + host + "/traces' failed: [7] " + curl_easy_strerror(CURLE_COULDNT_CONNECT),
              lines[0].text);
    EXPECT_EQ("PUT 'https://" + host + "/traces' failed: [404] no", lines[1].text);
    leaks.expect_unchanged();
}
