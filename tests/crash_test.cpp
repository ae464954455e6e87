#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/https.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/table.h"
#include "tests/support/text.h"

#include <csignal>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <vela/settings.h>
#include <vela/telemetry/crash.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace
{

constexpr const char *coredump_mode = "/var/run/system.analytics.coredump";
constexpr const char *messages = "/var/log/messages";

const std::string report_url = std::string(vela::settings::crash_url) + "/v1/crash";
const std::string upload_url = "https://upload.example/dump?signature=1";

site::reply naming(const std::string &url) { return {200, R"({"upload_url": ")" + url + "\"}"}; }

class Crash : public https_test
{
protected:
    Crash() : https_test({vela::settings::crash_url, vela::settings::crash_url_dev, upload_url})
    {
        service->on("/v1/crash", naming(upload_url));
        service->on("/dump", site::reply{200});
    }
    /// Sends a report; its text.
    std::string send(size_t expected_requests = 1, int result = 0)
    {
        EXPECT_EQ(result, send_crash(&crash));
        requests = service->requests();
        EXPECT_EQ(expected_requests, requests.size());
        return requests.empty() ? "" : requests[0].body;
    }

    std::vector<site::request> requests;
    crash_info crash = {"meshd", 733, 11, 3, 86400, CRASH_CORE_DUMP, "ELF\0core", 8};
};

} // namespace

TEST_F(Crash, ReportHoldsDeviceProcessAndFilteredLogs)
{
    site::put_file(messages, site::read_file(messages) + "err meshd[733]: token 12345 refused\n err meshd[7331]: x\n");
    const auto report = send();
    EXPECT_EQ("POST " + report_url, shown(requests[0]));
    EXPECT_THAT(
        report,
        MatchesRegex(
            R"(\{"product_line":"network","anonymous_controller_id":"[^"]+","anonymous_site_id":"[^"]+",)"
            R"("anonymous_device_id":"[^"]+","kernel_version":"[^"]+","architecture":"[^"]+","bomrev":"11",)"
            R"("manufacturer_id":"12033","model":"[^"]+","version":"7.2.4.1863","is_default":false,"uptime":[0-9]+,)"
            R"("boot_time":[0-9]+,"controller_version":"9.4.19","system_time":"[0-9:T-]+","crash_log":"[^"]+",)"
            R"("type":"core-dump","upload":false,"cmd":"meshd","signal":11,"number_of_crashes":3,"process_uptime":86400,)"
            R"("process_stdout":"[^"]+trying 02:56:4c:00:00:31\\nerr meshd.733.: token [*]+ refused\\n"\})"));
    for (const char *secret : site::device_secrets) EXPECT_THAT(report, Not(HasSubstr(secret)));
    EXPECT_THAT(log.texts(), ElementsAre("Sending crash to " + report_url, "Upload disabled by system settings"));
}

TEST_F(Crash, RamDumpReportHasTheConfigurationAndNoProcess)
{
    site::lay_out_device({.stage = "dev", .controller_version = "", .controller_id = "", .site_id = ""});
    site::put_program("/usr/bin/logread", "echo before; echo 'wifi0: Collecting RAMdump'; echo after");
    crash.type = CRASH_RAM_DUMP;
    const faults::refuse no_kernel_name(faults::call::uname, EFAULT, 0, false);
    EXPECT_THAT(
        send(),
        MatchesRegex(
            R"(\{"product_line":"network","anonymous_device_id":"[^"]+","bomrev":"11",.*,"controller_version":"unknown",)"
            R"("system_time":"[^"]+","crash_log":"before\\nwifi0: Collecting RAMdump\\n","system_cfg":".*password=[*]{5}\\n.*",)"
            R"("type":"ram-dump","upload":false,"dump_type":"meshd"\})"));
    EXPECT_EQ(host_of(vela::settings::crash_url_dev), requests[0].host);
}

TEST_F(Crash, TheControllersIdAloneIsCut)
{
    const auto id = letters(80);
    site::lay_out_device({.controller_id = id, .site_id = id});
    EXPECT_THAT(send(), HasSubstr(R"("anonymous_controller_id":")" + id.substr(0, 63) + R"(","anonymous_site_id":")" +
                                  id + "\""));
}

TEST_F(Crash, NothingIsSentBeforeTheDeviceIsReadyAndAllowed)
{
    site::put_program("/usr/bin/oopsdump", "exit 0");
    for (const char *path : {"/var/run/ntp.ready", "/var/run/ipready.br0", "/var/run/system.analytics.mode"}) {
        site::lay_out_device();
        strstr(path, "mode") ? site::put_file(path, "0\n") : site::remove_file(path);
        send(0);
        EXPECT_EQ(-2, send_kernel_crash()) << path;
    }
    crash.type = 5;
    send(0, -1); // no such kind
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

TEST_F(Crash, DumpsAreUploadedWholeWhereAllowed)
{
    const auto dump = letters(3'000'000);
    crash.data = dump.data();
    crash.size = 3'000'000;
    site::put_file(coredump_mode, "1\n");
    EXPECT_THAT(send(2), HasSubstr(R"("upload":true)"));
    EXPECT_EQ("PUT " + upload_url, shown(requests[1]));
    EXPECT_TRUE(dump == requests[1].body);
    site::put_file(coredump_mode, "2\n");
    EXPECT_THAT(send(1), HasSubstr(R"("upload":false)"));
    crash.type = CRASH_MINIDUMP; // small enough, always
    EXPECT_THAT(send(2), HasSubstr(R"("upload":true)"));
    crash.size = 0;
    EXPECT_THAT(send(1), HasSubstr(R"("upload":false)"));
}

TEST_F(Crash, EveryRefusalIsAFailureThatIsTold)
{
    crash.type = CRASH_MINIDUMP;
    const leak_check leaks;
    const std::string post = "POST '" + report_url + "' failed: ", put = "PUT '" + upload_url + "' failed: ";
    const std::string not_named = "Server did not return upload_url for minidump";
    const site::reply too_long = {200, std::string(2048, ' ') + "{}"};
    const table<site::reply, site::reply, std::vector<std::string>> cases = {
        {{500, "try later"}, {}, {post + "[500] try later"}},
        {site::cut_short(), {}, {post + "["}},
        {too_long, {}, {"Failed to parse response: '[' or '{' expected near end of file at line 1, column 2048"}},
        {{200, "{}"}, {}, {not_named}},
        {naming("file:///x"), {}, {"upload_url has scheme \"file\", not http or https", not_named}},
        {naming(upload_url), {403, "expired"}, {put + "[403] expired"}},
        {naming(upload_url), site::cut_short(), {put + "["}},
    };
    for (const auto &[report, upload, told] : cases) {
        service->on("/v1/crash", report);
        service->on("/dump", upload);
        EXPECT_EQ(-1, send_crash(&crash));
        const auto texts = log.texts();
        for (const auto &text : told) EXPECT_THAT(texts, testing::Contains(testing::StartsWith(text)));
    }
    service.reset();
    leaks.expect_unchanged();
}

TEST_F(Crash, ProcessNamesAreNoShellText)
{
    for (const std::string name :
         {"a\"; touch /tmp/x; \"", "$(touch /tmp/x)", "`id`", "it's\\", "x*[z]^", "p+q:r/s@t"}) {
        site::put_file(messages, "err " + name + "[733]: mine\nother[733]: not\n");
        crash.name = name.c_str();
        EXPECT_THAT(send(), MatchesRegex(R"(.*"process_stdout":"err .*\[733]: mine\\n"\})")) << name;
    }
    crash.name = "a\ntouch /tmp/x\n";
    site::put_file(messages, "meshd[733]: \xff\n");
    EXPECT_THAT(send(), Not(HasSubstr("\"crash_log\""))) << "what is no UTF-8 is left out, the rest is sent";
    EXPECT_FALSE(site::exists("/tmp/x"));
}

TEST_F(Crash, KernelReportLeavesItsMarkerWhenAcceptedAndIsCleared)
{
    site::put_program("/usr/bin/oopsdump", "case $1 in -e) ;; -c) exit 3 ;; *) echo 'Oops: token 99' ;; esac");
    service->on("/v1/kernel-crash", {site::reply{503}, site::reply{200, "not JSON, not read"}});
    umask(077);
    EXPECT_EQ(-5, send_kernel_crash());
    EXPECT_FALSE(site::exists("/var/run/last-crashlog.sent"));
    EXPECT_EQ(0, send_kernel_crash());
    EXPECT_EQ("644\n", site::output_of("stat -c %a /var/run/last-crashlog.sent"));
    EXPECT_EQ(0, send_kernel_crash());
    requests = service->requests();
    ASSERT_EQ(2U, requests.size()) << "once sent, no more";
    EXPECT_THAT(requests[1].body, HasSubstr(R"("crash_log":"Oops: token *****\n","system_cfg":"# managed)"));
    EXPECT_THAT(requests[1].body, testing::EndsWith(R"("source":"oopsdump","sender":"firmware"})"));
    EXPECT_EQ(3 << 8, oops_clear());
    EXPECT_EQ("Oops: token 99\n", site::read_file("/var/run/last-crashlog.txt"));
    EXPECT_EQ(0, has_oops()) << "not asked again";
    EXPECT_EQ(-1, send_kernel_crash());
}

TEST_F(Crash, AStatusThatCannotBeHadIsNoAnswer)
{
    site::put_program("/usr/bin/oopsdump", "exit 0");
    signal(SIGCHLD, SIG_IGN); // system() then gives -1
    EXPECT_EQ(0, has_oops());
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(1, has_oops());
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(-1, oops_clear());
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(1, has_oops()) << "asked again";
}

// Every state that a report can be in, explained and then tried.
TEST_F(Crash, AnExplanationIsTheDecision)
{
    site::put_program("/usr/bin/oopsdump", "exit 0");
    service->on("/v1/kernel-crash", site::reply{200});
    for (unsigned world = 0; world < 1 << 6; ++world) {
        const auto bit = [world](unsigned n) { return (world >> n & 1) != 0; };
        site::lay_out_device();
        if (bit(0)) site::remove_file("/var/run/ntp.ready");
        if (bit(1)) site::remove_file("/var/run/ipready.br0");
        site::put_file("/var/run/system.analytics.mode", bit(2) ? "0" : "1");
        site::put_file(coredump_mode, bit(3) ? "1" : "0");
        crash.type = bit(4) ? CRASH_MINIDUMP : CRASH_CORE_DUMP;
        crash.size = bit(5) ? 8 : 0;
        if (bit(5)) site::put_file("/var/run/last-crashlog.sent", "");

        const char *reason = bit(0)   ? "clock_not_set"
                             : bit(1) ? "no_bridge_address"
                             : bit(2) ? "analytics_off"
                                      : "ready";
        vela::json_ref why{crash_explain(&crash)};
        EXPECT_STREQ(reason, text_of(why, "reason")) << world;
        send(!text_of(why, "answer") ? 0 : strstr(text_of(why, "answer"), "dump") ? 2 : 1);

        why.reset(crash_explain(nullptr));
        EXPECT_STREQ(bit(5) && strcmp(reason, "ready") == 0 ? "already_sent" : reason, text_of(why, "reason")) << world;
        (void)send_kernel_crash();
        EXPECT_EQ(text_of(why, "answer") ? 1U : 0U, service->requests().size()) << world;
        site::remove_file("/var/run/last-crashlog.sent");
    }
    crash.type = 5;
    EXPECT_STREQ("unknown_kind", text_of(vela::json_ref{crash_explain(&crash)}, "reason"));
    oops_clear();
    EXPECT_STREQ("no_crash_log", text_of(vela::json_ref{crash_explain(nullptr)}, "reason"));
}
