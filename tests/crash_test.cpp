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
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace
{

constexpr const char *coredump_mode = "/var/run/system.analytics.coredump";
constexpr const char *analytics_mode = "/var/run/system.analytics.mode";
constexpr const char *sent_marker = "/var/run/last-crashlog.sent";
constexpr const char *upload_answer = R"({"upload_url": "https://upload.example/dump?signature=1"})";

std::string host_of(const std::string &url) { return url.substr(strlen("https://")); }

/// A parsed report.
class document
{
public:
    explicit document(const std::string &text) : root_{json_loads(text.c_str(), 0, nullptr)} {}
    document(const document &) = delete;
    document &operator=(const document &) = delete;
    ~document() { json_decref(root_); }
    [[nodiscard]] const json_t *at(const char *key) const { return json_object_get(root_, key); }
    [[nodiscard]] std::string text(const char *key) const
    {
        const char *value = json_string_value(at(key));
        return value ? value : "(none)";
    }
    [[nodiscard]] json_int_t number(const char *key) const { return json_integer_value(at(key)); }
    [[nodiscard]] std::vector<std::string> keys() const
    {
        std::vector<std::string> names;
        const char *key = nullptr;
        json_t *value = nullptr;
        json_object_foreach(root_, key, value) names.emplace_back(key);
        return names;
    }

private:
    json_t *root_;
};

class Crash : public testing::Test
{
protected:
    Crash()
    {
        site::lay_out_device();
        service.on("/v1/crash", site::reply{200, upload_answer});
        service.on("/v1/kernel-crash", site::reply{200});
        service.on("/dump", site::reply{200});
    }
    /// The reports and uploads since the last call, as "METHOD host/path".
    std::vector<std::string> sent()
    {
        std::vector<std::string> calls;
        requests = service.requests();
        for (const auto &r : requests) calls.push_back(r.method + " " + r.host + r.path);
        return calls;
    }

    const std::string production = host_of(vela::settings::crash_url);
    const std::string development = host_of(vela::settings::crash_url_dev);
    log_lines log{"debug"};
    site::collector service{{.names = {production, development, "upload.example"}}};
    std::vector<site::request> requests;
    crash_info crash = {"meshd", 733, 11, 3, 86400, CRASH_CORE_DUMP, "ELF\0core", 8};
};

} // namespace

TEST_F(Crash, ReportHoldsDeviceProcessAndFilteredLogs)
{
    site::put_file("/var/log/messages", site::read_file("/var/log/messages") +
                                            "Oct 3 vela-ap user.err meshd[733]: token 12345 refused\n"
                                            "Oct 3 vela-ap user.err meshd[7331]: another\n");
    const auto before = time(nullptr);
    EXPECT_EQ(0, send_crash(&crash));
    EXPECT_THAT(sent(), ElementsAre("POST " + production + "/v1/crash"));
    EXPECT_EQ("application/json", requests[0].header("Content-Type"));
    const document report(requests[0].body);
    EXPECT_THAT(report.keys(), ElementsAre("product_line", "anonymous_controller_id", "anonymous_site_id",
                                           "anonymous_device_id", "kernel_version", "architecture", "bomrev",
                                           "manufacturer_id", "model", "version", "is_default", "uptime", "boot_time",
                                           "controller_version", "system_time", "crash_log", "type", "upload", "cmd",
                                           "signal", "number_of_crashes", "process_uptime", "process_stdout"));
    const site::device_facts facts;
    EXPECT_EQ("network", report.text("product_line"));
    EXPECT_EQ(facts.controller_id, report.text("anonymous_controller_id"));
    EXPECT_EQ(facts.site_id, report.text("anonymous_site_id"));
    EXPECT_EQ(facts.anonid, report.text("anonymous_device_id"));
    EXPECT_EQ("11", report.text("bomrev"));
    EXPECT_EQ("12033", report.text("manufacturer_id")) << "hexadecimal 2F01";
    EXPECT_EQ(board_identify()->model_name, report.text("model"));
    EXPECT_EQ("7.2.4.1863", report.text("version"));
    EXPECT_TRUE(json_is_false(report.at("is_default")));
    EXPECT_NEAR(static_cast<double>(before), static_cast<double>(report.number("boot_time") + report.number("uptime")),
                2);
    EXPECT_EQ("9.4.19", report.text("controller_version"));
    EXPECT_EQ("core-dump", report.text("type"));
    EXPECT_TRUE(json_is_false(report.at("upload")));
    EXPECT_EQ("meshd", report.text("cmd"));
    EXPECT_EQ(11, report.number("signal"));
    EXPECT_EQ(3, report.number("number_of_crashes"));
    EXPECT_EQ(86400, report.number("process_uptime"));
    EXPECT_THAT(report.text("crash_log"), HasSubstr("STA 02:56:4c:00:00:07 authorized"));
    for (const char *secret : site::device_secrets) EXPECT_THAT(requests[0].body, Not(HasSubstr(secret)));
    EXPECT_THAT(report.text("process_stdout"), testing::MatchesRegex(".*uplink lost[^\n]*\n.*token [*]+ refused\n"));
    EXPECT_THAT(log.take(),
                ElementsAre(log_line{"info", "crash", "post_crash",
                                     std::string("Sending crash to ") + vela::settings::crash_url + "/v1/crash"},
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
    EXPECT_THAT(sent(), ElementsAre("POST " + development + "/v1/crash"));
    const document report(requests[0].body);
    EXPECT_THAT(report.keys(), ElementsAre("product_line", "anonymous_device_id", "bomrev", "manufacturer_id", "model",
                                           "version", "is_default", "uptime", "boot_time", "controller_version",
                                           "system_time", "crash_log", "system_cfg", "type", "upload", "dump_type"));
    EXPECT_TRUE(json_is_true(report.at("is_default")));
    EXPECT_EQ("unknown", report.text("controller_version"));
    EXPECT_EQ("before\nwifi0: Collecting RAMdump\n", report.text("crash_log"));
    EXPECT_THAT(report.text("system_cfg"), HasSubstr("users.1.name=admin\nusers.1.password=*****\n"));
    EXPECT_EQ("meshd", report.text("dump_type"));
}

TEST_F(Crash, NothingIsSentBeforeTheDeviceIsReadyAndAllowed)
{
    site::put_program("/usr/bin/oopsdump", "exit 0");
    const struct {
        const char *path, *content; // null: missing
    } gates[] = {{"/var/run/ntp.ready", nullptr}, {"/var/run/ipready.br0", nullptr}, {analytics_mode, "0\n"}};
    for (const auto &[path, content] : gates) {
        site::lay_out_device();
        content ? site::put_file(path, content) : site::remove_file(path);
        EXPECT_EQ(0, send_crash(&crash)) << path;
        EXPECT_EQ(-2, send_kernel_crash()) << path;
        EXPECT_THAT(sent(), IsEmpty()) << path;
    }
    site::put_file(analytics_mode, "1\n");
    crash.type = 5;
    EXPECT_EQ(-1, send_crash(&crash)) << "no such kind";
    EXPECT_EQ(-1, send_crash(nullptr));
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Crash, DumpsAreUploadedWholeWhereAllowed)
{
    std::string dump(3'000'000, '\0');
    for (size_t i = 0; i < dump.size(); ++i) dump[i] = static_cast<char>(i * i >> 7);
    const struct {
        uint32_t type;
        const char *mode;
        bool with_data, upload;
    } cases[] = {{CRASH_CORE_DUMP, "1", true, true},   {CRASH_CORE_DUMP, "2", true, false},
                 {CRASH_CORE_DUMP, "1", false, false}, {CRASH_MINIDUMP, "0", true, true},
                 {CRASH_MINIDUMP, "0", false, false},  {CRASH_OOM_KILL, "1", true, true}};
    for (const auto &c : cases) {
        site::put_file(coredump_mode, c.mode);
        crash.type = c.type;
        crash.data = dump.data();
        crash.size = c.with_data ? static_cast<uint32_t>(dump.size()) : 0;
        EXPECT_EQ(0, send_crash(&crash)) << c.type << " " << c.mode;
        ASSERT_EQ(c.upload ? 2U : 1U, sent().size()) << c.type << " " << c.mode;
        EXPECT_EQ(c.upload, json_is_true(document(requests[0].body).at("upload")));
        if (!c.upload) continue;
        EXPECT_EQ("PUT", requests[1].method);
        EXPECT_EQ("/dump?signature=1", requests[1].path);
        EXPECT_TRUE(dump == requests[1].body);
    }
    EXPECT_THAT(log.texts(), testing::IsSupersetOf({"Uploading data (3000000 bytes) to pre-signed URL",
                                                    "Successfully uploaded binary data (HTTP 200, 3000000 bytes)"}));
}

TEST_F(Crash, EveryRefusalIsAFailureThatIsTold)
{
    site::put_file(coredump_mode, "1\n");
    const std::string url = std::string(vela::settings::crash_url) + "/v1/crash";
    const log_line not_posted = {"error", "crash", "crash_post_metadata", "Failed to post crash metadata to server"};
    const log_line not_uploaded = {"error", "crash", "send_crash", "Failed to upload data"};
    const log_line no_address = {"error", "crash", "send_crash", "Server did not return upload_url for core-dump"};
    const auto post = [&](const std::string &text) { return log_line{"warn", "crash", "post_crash", text}; };
    const auto put = [](const std::string &text) {
        return log_line{"warn", "crash", "upload_file",
                        "PUT 'https://upload.example/dump?signature=1' failed: " + text};
    };
    const struct {
        const char *path;
        site::reply reply;
        std::vector<log_line> told;
    } cases[] = {
        {"/v1/crash", {500, "try later"}, {post("POST '" + url + "' failed: [500] try later"), not_posted}},
        {"/v1/crash",
         site::cut_short(),
         {post("POST '" + url + "' failed: [18] Transferred a partial file"), not_posted}},
        {"/v1/crash",
         {200, "no"},
         {post("Failed to parse response: '[' or '{' expected near 'no' at line 1, column 2"), not_posted}},
        {"/v1/crash", {200, "[1]" + std::string(2046, ' ')}, {no_address}}, // cut where it does no harm
        {"/v1/crash",
         {200, std::string(2048, ' ') + "{}"},
         {post("Failed to parse response: '[' or '{' expected near end of file at line 1, column 2048"), not_posted}},
        {"/v1/crash", {200, "{}"}, {no_address}},
        {"/v1/crash", {200, R"({"upload_url": 7})"}, {no_address}},
        {"/dump", {403, "expired"}, {put("[403] expired"), not_uploaded}},
        {"/dump", site::garbage(), {put("[1] Unsupported protocol"), not_uploaded}},
    };
    for (const auto &c : cases) {
        service.on("/v1/crash", site::reply{200, upload_answer});
        service.on(c.path, c.reply);
        EXPECT_EQ(-1, send_crash(&crash)) << c.told[0];
        auto lines = log.take();
        std::erase_if(lines, [](const auto &line) { return line.level == "info" || line.level == "debug"; });
        EXPECT_THAT(lines, ElementsAreArray(c.told));
    }
    service.present(site::identity::untrusted_authority);
    sent();
    EXPECT_EQ(-1, send_crash(&crash));
    EXPECT_THAT(sent(), IsEmpty()) << "not a byte to a service that cannot prove who it is";
}

TEST_F(Crash, ProcessNamesAreNoShellText)
{
    const leak_check leaks;
    for (const char *name : {"a\"; touch /tmp/x; \"", "$(touch /tmp/x)", "`touch /tmp/x`", "a\ntouch /tmp/x\n",
                             "it's\\", "x*[z]^", "p+q:r/s@t,u"}) {
        site::put_file("/var/log/messages",
                       std::string("user.err ") + (strchr(name, '\n') ? "" : name) + "[733]: mine\nother[733]: not\n");
        crash.name = name;
        EXPECT_EQ(0, send_crash(&crash));
        ASSERT_EQ(1U, sent().size());
        const document report(requests[0].body);
        EXPECT_EQ(name, report.text("cmd"));
        EXPECT_EQ(strchr(name, '\n') ? "" : std::string("user.err ") + name + "[733]: mine\n",
                  report.text("process_stdout"));
    }
    site::put_file("/var/log/messages", "meshd[733]: \xff\n");
    crash.name = "meshd";
    EXPECT_EQ(0, send_crash(&crash));
    ASSERT_EQ(1U, sent().size());
    EXPECT_THAT(document(requests[0].body).keys(), Not(Contains("crash_log"))) << "no UTF-8: left out, still sent";
    leaks.expect_unchanged();
}

TEST_F(Crash, KernelCrashIsSentOnceAndCleared)
{
    EXPECT_EQ(-1, send_kernel_crash());
    site::put_program(
        "/usr/bin/oopsdump",
        "case $1 in -e) exit 0 ;; -c) echo gone > /tmp/cleared; exit 3 ;; *) echo 'Oops: token 99' ;; esac");
    EXPECT_EQ(0, has_oops()) << "asked once";
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "crash", "send_kernel_crash",
                                                 "Tried processing a crash when no crash was found"}));
    EXPECT_EQ(3 << 8, oops_clear());
    EXPECT_EQ("Oops: token 99\n", site::read_file("/var/run/last-crashlog.txt"));
    EXPECT_EQ("gone\n", site::read_file("/tmp/cleared"));
}

TEST_F(Crash, KernelCrashReportLeavesItsMarkerWhenAccepted)
{
    site::put_program("/usr/bin/oopsdump", "[ -n \"$1\" ] || echo 'Oops: token 99'");
    service.on("/v1/kernel-crash", {site::reply{503}, site::reply{200, "not JSON, not read"}});
    EXPECT_EQ(-5, send_kernel_crash());
    EXPECT_FALSE(site::exists(sent_marker));
    umask(077);
    EXPECT_EQ(0, send_kernel_crash());
    struct stat marker = {};
    ASSERT_EQ(0, stat(sent_marker, &marker));
    EXPECT_EQ(0644U, marker.st_mode & 07777);
    EXPECT_EQ(0, send_kernel_crash());
    EXPECT_EQ(2U, sent().size()) << "the third call sends nothing";
    const document report(requests[1].body);
    EXPECT_EQ("Oops: token *****\n", report.text("crash_log"));
    EXPECT_THAT(report.text("system_cfg"), HasSubstr("psk=*****"));
    EXPECT_EQ("oopsdump", report.text("source"));
    EXPECT_EQ("firmware", report.text("sender"));
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
