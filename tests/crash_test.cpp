#include "site/collector.h"
#include "site/device.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <ctime>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <vela/board/board.h>
#include <vela/settings.h>
#include <vela/telemetry/crash.h>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace
{

constexpr const char *coredump_mode = "/var/run/system.analytics.coredump";
constexpr const char *analytics_mode = "/var/run/system.analytics.mode";
constexpr const char *sent_marker = "/var/run/last-crashlog.sent";
constexpr const char *messages = "/var/log/messages";

const std::string report_url = std::string(vela::settings::crash_url) + "/v1/crash";
const std::string upload_url = "https://upload.example/dump?signature=1";
const std::string upload_answer = "{\"upload_url\": \"" + upload_url + "\"}";

std::string host_of(const std::string &url) { return url.substr(strlen("https://")); }

class Crash : public testing::Test
{
protected:
    Crash()
    {
        site::lay_out_device();
        service->on("/v1/crash", site::reply{200, upload_answer});
        service->on("/dump", site::reply{200});
    }
    ~Crash() override { json_decref(report); }

    /// Takes the requests since the last call; the first one's body is the report.
    size_t take_requests()
    {
        requests = service->requests();
        json_decref(report);
        report = requests.empty() ? nullptr : json_loads(requests[0].body.c_str(), 0, nullptr);
        return requests.size();
    }
    [[nodiscard]] std::string text(const char *key) const
    {
        const char *value = json_string_value(json_object_get(report, key));
        return value ? value : "(none)";
    }
    /// The report as text, without the values that differ from run to run or are looked at by themselves.
    std::string outline()
    {
        for (const char *key : {"kernel_version", "architecture", "uptime", "boot_time", "system_time", "crash_log",
                                "system_cfg", "process_stdout"}) {
            if (json_object_get(report, key)) json_object_set_new(report, key, json_integer(0));
        }
        const std::unique_ptr<char, decltype(&free)> dumped{json_dumps(report, JSON_COMPACT), free};
        return dumped.get();
    }

    log_lines log{"debug"};
    std::unique_ptr<site::collector> service = std::make_unique<site::collector>(site::collector::settings{
        .names = {host_of(vela::settings::crash_url), host_of(vela::settings::crash_url_dev), "upload.example"}});
    std::vector<site::request> requests;
    json_t *report = nullptr;
    crash_info crash = {"meshd", 733, 11, 3, 86400, CRASH_CORE_DUMP, "ELF\0core", 8};
};

} // namespace

TEST_F(Crash, ReportHoldsDeviceProcessAndFilteredLogs)
{
    site::put_file(messages, site::read_file(messages) + "Oct 3 vela-ap user.err meshd[733]: token 12345 refused\n"
                                                         "Oct 3 vela-ap user.err meshd[7331]: another\n");
    const auto now = time(nullptr);
    EXPECT_EQ(0, send_crash(&crash));
    ASSERT_EQ(1U, take_requests());
    EXPECT_EQ("POST " + report_url, requests[0].method + " https://" + requests[0].host + requests[0].path);
    const auto number = [&](const char *key) { return json_integer_value(json_object_get(report, key)); };
    EXPECT_NEAR(static_cast<double>(now), static_cast<double>(number("boot_time") + number("uptime")), 2);
    EXPECT_THAT(text("crash_log"), HasSubstr("STA 02:56:4c:00:00:07 authorized"));
    EXPECT_THAT(text("process_stdout"), testing::MatchesRegex(".*uplink lost[^\n]*\n.*token [*]+ refused\n"));
    for (const char *secret : site::device_secrets) EXPECT_THAT(requests[0].body, Not(HasSubstr(secret)));
    const site::device_facts facts;
    EXPECT_EQ(
        R"({"product_line":"network","anonymous_controller_id":")" + facts.controller_id +
            R"(","anonymous_site_id":")" + facts.site_id + R"(","anonymous_device_id":")" + facts.anonid +
            R"(","kernel_version":0,"architecture":0,"bomrev":"11","manufacturer_id":"12033","model":")" +
            board_identify()->model_name +
            R"(","version":"7.2.4.1863","is_default":false,"uptime":0,"boot_time":0,"controller_version":"9.4.19",)"
            R"("system_time":0,"crash_log":0,"type":"core-dump","upload":false,"cmd":"meshd","signal":11,)"
            R"("number_of_crashes":3,"process_uptime":86400,"process_stdout":0})",
        outline());
    EXPECT_THAT(log.take(),
                ElementsAre(log_line{"info", "crash", "post_crash", "Sending crash to " + report_url},
                            log_line{"debug", "crash", "send_crash", "Upload disabled by system settings"}));
}

TEST_F(Crash, RamDumpReportHasTheConfigurationAndNoProcess)
{
    site::lay_out_device(
        {.factory_default = true, .stage = "dev", .controller_version = "", .controller_id = "", .site_id = ""});
    site::put_program("/usr/bin/logread", "echo before; echo 'wifi0: Collecting RAMdump'; echo after");
    crash.type = CRASH_RAM_DUMP;
    {
        const faults::refuse no_kernel_name(faults::call::uname, EFAULT, 0, false);
        EXPECT_EQ(0, send_crash(&crash));
    }
    ASSERT_EQ(1U, take_requests());
    EXPECT_EQ(host_of(vela::settings::crash_url_dev), requests[0].host);
    EXPECT_EQ("before\nwifi0: Collecting RAMdump\n", text("crash_log"));
    EXPECT_THAT(text("system_cfg"), HasSubstr("users.1.name=admin\nusers.1.password=*****\n"));
    EXPECT_EQ(
        R"({"product_line":"network","anonymous_device_id":")" + site::device_facts{}.anonid +
            R"(","bomrev":"11","manufacturer_id":"12033","model":")" + board_identify()->model_name +
            R"(","version":"7.2.4.1863","is_default":true,"uptime":0,"boot_time":0,"controller_version":"unknown",)"
            R"("system_time":0,"crash_log":0,"system_cfg":0,"type":"ram-dump","upload":false,"dump_type":"meshd"})",
        outline());
}

TEST_F(Crash, NothingIsSentBeforeTheDeviceIsReadyAndAllowed)
{
    site::put_program("/usr/bin/oopsdump", "exit 0");
    for (const char *path : {"/var/run/ntp.ready", "/var/run/ipready.br0", analytics_mode}) {
        site::lay_out_device();
        path == analytics_mode ? site::put_file(path, "0\n") : site::remove_file(path);
        EXPECT_EQ(0, send_crash(&crash)) << path;
        EXPECT_EQ(-2, send_kernel_crash()) << path;
    }
    site::put_file(analytics_mode, "1\n");
    crash.type = 5;
    EXPECT_EQ(-1, send_crash(&crash)) << "no such kind";
    EXPECT_EQ(0U, take_requests());
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Crash, DumpsAreUploadedWholeWhereAllowed)
{
    std::string dump(3'000'000, '\0');
    for (size_t i = 0; i < dump.size(); ++i) dump[i] = static_cast<char>(i * i >> 7);
    constexpr struct {
        uint32_t type;
        const char *mode;
        bool with_data, upload;
    } cases[] = {{CRASH_CORE_DUMP, "1", true, true},
                 {CRASH_CORE_DUMP, "2", true, false},
                 {CRASH_MINIDUMP, "0", false, false},
                 {CRASH_MINIDUMP, "0", true, true}};
    for (const auto &c : cases) {
        site::put_file(coredump_mode, c.mode);
        crash.type = c.type;
        crash.data = dump.data();
        crash.size = c.with_data ? static_cast<uint32_t>(dump.size()) : 0;
        EXPECT_EQ(0, send_crash(&crash)) << c.type << " " << c.mode;
        ASSERT_EQ(c.upload ? 2U : 1U, take_requests()) << c.type << " " << c.mode;
        EXPECT_EQ(c.upload, json_is_true(json_object_get(report, "upload")));
        if (!c.upload) continue;
        EXPECT_EQ("PUT " + upload_url, requests[1].method + " https://" + requests[1].host + requests[1].path);
        EXPECT_TRUE(dump == requests[1].body);
    }
    EXPECT_THAT(log.texts(), testing::IsSupersetOf({"Uploading data (3000000 bytes) to pre-signed URL",
                                                    "Successfully uploaded binary data (HTTP 200, 3000000 bytes)"}));
}

TEST_F(Crash, EveryRefusalIsAFailureThatIsTold)
{
    site::put_file(coredump_mode, "1\n");
    const leak_check leaks;
    const std::string not_posted = "crash_post_metadata: Failed to post crash metadata to server";
    const std::string not_uploaded = "send_crash: Failed to upload data";
    const std::string no_address = "send_crash: Server did not return upload_url for core-dump";
    const std::string post = "post_crash: POST '" + report_url + "' failed: ";
    const std::string parse = "post_crash: Failed to parse response: '[' or '{' expected near ";
    const std::string put = "upload_file: PUT '" + upload_url + "' failed: ";
    const struct {
        const char *path;
        site::reply reply;
        std::vector<std::string> told;
    } cases[] = {
        {"/v1/crash", {500, "try later"}, {post + "[500] try later", not_posted}},
        {"/v1/crash", site::cut_short(), {post + "[18] Transferred a partial file", not_posted}},
        {"/v1/crash", {200, "no"}, {parse + "'no' at line 1, column 2", not_posted}},
        {"/v1/crash",
         {200, std::string(2048, ' ') + "{}"},
         {parse + "end of file at line 1, column 2048", not_posted}}, // cut before the answer begins
        {"/v1/crash", {200, R"({"upload_url": 7})"}, {no_address}},
        {"/dump", {403, "expired"}, {put + "[403] expired", not_uploaded}},
        {"/dump", site::garbage(), {put + "[1] Unsupported protocol", not_uploaded}},
    };
    for (const auto &c : cases) {
        service->on("/v1/crash", site::reply{200, upload_answer});
        service->on(c.path, c.reply);
        EXPECT_EQ(-1, send_crash(&crash)) << c.told[0];
        std::vector<std::string> told;
        for (const auto &line : log.take()) {
            if (line.level == "warn" || line.level == "error") told.push_back(line.function + ": " + line.text);
        }
        EXPECT_EQ(c.told, told);
    }
    service->present(site::identity::untrusted_authority);
    take_requests();
    EXPECT_EQ(-1, send_crash(&crash));
    EXPECT_EQ(0U, take_requests()) << "not a byte to a service that cannot prove who it is";
    service.reset();
    leaks.expect_unchanged();
}

TEST_F(Crash, ProcessNamesAreNoShellText)
{
    for (const char *name :
         {"a\"; touch /tmp/x; \"", "$(touch /tmp/x)", "`touch /tmp/x`", "it's\\", "x*[z]^", "p+q:r/s@t"}) {
        const std::string mine = std::string("user.err ") + name + "[733]: mine\n";
        site::put_file(messages, mine + "other[733]: not\n");
        crash.name = name;
        EXPECT_EQ(0, send_crash(&crash));
        ASSERT_EQ(1U, take_requests());
        EXPECT_EQ(name, text("cmd"));
        EXPECT_EQ(mine, text("process_stdout"));
    }
    crash.name = "a\ntouch /tmp/x\n";
    EXPECT_EQ(0, send_crash(&crash));
    EXPECT_FALSE(site::exists("/tmp/x"));
    take_requests();

    site::put_file(messages, "meshd[733]: \xff\n");
    EXPECT_EQ(0, send_crash(&crash));
    ASSERT_EQ(1U, take_requests()) << "what is no UTF-8 is left out, the rest is sent";
    EXPECT_EQ(nullptr, json_object_get(report, "crash_log"));
}

TEST_F(Crash, KernelLogIsLookedForOnceSavedAndCleared)
{
    EXPECT_EQ(-1, send_kernel_crash());
    site::put_program("/usr/bin/oopsdump",
                      "case $1 in -c) touch /tmp/cleared; exit 3 ;; *) echo 'Oops: token 99' ;; esac");
    EXPECT_EQ(0, has_oops()) << "asked once";
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "crash", "send_kernel_crash",
                                                 "Tried processing a crash when no crash was found"}));
    EXPECT_EQ(3 << 8, oops_clear());
    EXPECT_EQ("Oops: token 99\n", site::read_file("/var/run/last-crashlog.txt"));
    EXPECT_TRUE(site::exists("/tmp/cleared"));
}

TEST_F(Crash, KernelReportLeavesItsMarkerWhenAccepted)
{
    site::put_program("/usr/bin/oopsdump", "[ -n \"$1\" ] || echo 'Oops: token 99'");
    service->on("/v1/kernel-crash", {site::reply{503}, site::reply{200, "not JSON, not read"}});
    EXPECT_EQ(-5, send_kernel_crash());
    EXPECT_FALSE(site::exists(sent_marker));
    take_requests();
    umask(077);
    EXPECT_EQ(0, send_kernel_crash());
    struct stat marker = {};
    EXPECT_EQ(0, stat(sent_marker, &marker));
    EXPECT_EQ(0644U, marker.st_mode & 07777);
    EXPECT_EQ(0, send_kernel_crash());
    EXPECT_EQ(1U, take_requests()) << "once sent, no more";
    EXPECT_EQ("Oops: token *****\n", text("crash_log"));
    EXPECT_THAT(text("system_cfg"), HasSubstr("psk=*****"));
    EXPECT_THAT(outline(), testing::EndsWith(R"("system_cfg":0,"source":"oopsdump","sender":"firmware"})"));
    EXPECT_THAT(log.texts(), testing::IsSupersetOf({"Processing kernel crash", "Failed to process kernel crash: -5",
                                                    "Kernel crashlog already sent to analytics"}));
    EXPECT_EQ(1, has_oops());
    oops_clear();
    EXPECT_EQ(0, has_oops());
}

TEST_F(Crash, ShortMemoryIsAFailureOrAShorterReport)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    for (int n = 0; n < 60; ++n) {
        const faults::refuse_memory refused(n);
        EXPECT_THAT(send_crash(&crash), testing::AnyOf(0, -1)) << "allocation " << n;
    }
    EXPECT_THAT(log.texts(), Contains("Failed to generate crash payload"));
}
