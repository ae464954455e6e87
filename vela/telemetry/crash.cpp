// Crash reports: whether one may be sent, what it holds, and how it reaches the service.
//
// A report is a JSON document of device facts and captured command output, sent with one POST. The service's answer to
// a process crash may name a pre-signed address, to which the dump goes with one PUT.

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <curl/curl.h>
#include <sys/utsname.h>
#include <vela/board/board.h>
#include <vela/board/status.h>
#include <vela/core/file.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/core/internal/verdicts.h>
#include <vela/exec/exec.h>
#include <vela/settings.h>
#include <vela/telemetry/crash.h>
#include <vela/telemetry/internal/answer.h>
#include <vela/telemetry/internal/report.h>

const char *const crash_type_strs[5] = {"core-dump", "app-crash", "oom-kill", "ram-dump", "minidump"};

namespace
{

using namespace vela::telemetry;
using vela::verdict;

constexpr const char *log_module = "crash";

constexpr const char *clock_ready_path = "/var/run/ntp.ready";
constexpr const char *bridge_ready_path = "/var/run/ipready.br0";
constexpr const char *coredump_mode_path = "/var/run/system.analytics.coredump";
constexpr const char *sent_marker_path = "/var/run/last-crashlog.sent";
constexpr mode_t marker_mode = 0644;

constexpr const char *oops_exists_command = "oopsdump -e";
constexpr const char *oops_save_command = "oopsdump > /var/run/last-crashlog.txt";
constexpr const char *oops_clear_command = "oopsdump -c";

// Whatever leaves the device goes through the wrapper script's filters, which take secrets out.
constexpr const char *config_command = "cat /tmp/system.cfg | syswrapper.sh systemcfg-sensitive-data-filter";
constexpr const char *kernel_log_command = "oopsdump | syswrapper.sh sensitive-data-filter";
constexpr const char *system_log_command = "tail -n 100 /var/log/messages | syswrapper.sh sensitive-data-filter";
constexpr const char *ram_dump_log_command =
    "logread | grep -i \"collecting ramdump\" -B 200 | syswrapper.sh sensitive-data-filter";
constexpr const char *process_log_command =
    "tail -n 100 /var/log/messages | grep -e \"%s\\[%d\\]\" | syswrapper.sh sensitive-data-filter";

constexpr const char *process_crash = "crash";
constexpr const char *kernel_crash = "kernel-crash";

constexpr uint32_t answer_max = 2048; // bytes; a longer answer is cut, and no JSON then
constexpr long accepted = 200;
constexpr size_t controller_id_max = 63; // characters
constexpr size_t value_max = 254;        // of any other value: as long as a line can be
constexpr size_t value_size = value_max + 1;

using report_url = vela::formatted<128>;

/// Whether the kernel left a crash log. Asked until the tool has answered; oops_clear() settles it.
enum class oops { unknown, absent, present };
constinit oops kernel_oops = oops::unknown;

/// The command's status; -1 when it is not known, as in a daemon that ignores SIGCHLD.
int run(const char *command) { return system(command); }
constexpr int no_status = -1;

bool is_readable(const char *path) { return access(path, R_OK) == 0; }

/// What must hold before anything is sent.
struct condition {
    const char *name;
    bool (*holds)();
    const char *unmet;
};
constexpr condition conditions[] = {
    {"clock", [] { return is_readable(clock_ready_path); }, "clock_not_set"},
    {"bridge_address", [] { return is_readable(bridge_ready_path); }, "no_bridge_address"},
    {"analytics", analytics_on, "analytics_off"},
};

/// Whether a step of a decision refuses. Tells it, too.
bool refuses(vela::verdicts *why, const char *name, bool holds, const char *met, const char *unmet)
{
    note(why, name, holds ? verdict::passed : verdict::refused, holds ? met : unmet);
    return !holds;
}

/// Whether sending is allowed. With a sink all conditions are looked at, else those up to the first that is unmet.
bool sending_allowed(vela::verdicts *why = nullptr)
{
    bool allowed = true;
    for (const auto &c : conditions) {
        if (!refuses(why, c.name, c.holds(), "holds", c.unmet)) continue;
        allowed = false;
        if (!why) break;
    }
    return allowed;
}

report_url make_url(const char *path, vela::verdicts *why = nullptr)
{
    const report_url url("%s/v1/%s", service_url(vela::settings::crash_url, vela::settings::crash_url_dev), path);
    note(why, "url", url.fits() ? verdict::passed : verdict::refused, url.fits() ? "fits" : "url_too_long",
         {{"url", url.c_str()}});
    return url;
}

void add_value(json_t *report, const char *key, const char *path, const char *name, size_t max)
{
    char value[value_size];
    add_unless_empty(report, key, freadvalue(path, name, value, max + 1, ""));
}

void add_kernel(json_t *report)
{
    utsname kernel;
    if (uname(&kernel) != 0) return;
    add(report, "kernel_version", json_string(kernel.release));
    add(report, "architecture", json_string(kernel.machine));
}

void add_times(json_t *report)
{
    const auto uptime = static_cast<json_int_t>(get_uptime_from_sysinfo());
    add(report, "uptime", json_integer(uptime));
    add(report, "boot_time", json_integer(static_cast<json_int_t>(time(nullptr)) - uptime));
}

vela::json_ref generate_common_payload(const char *log_command, bool with_config)
{
    vela::json_ref owner{json_object()};
    json_t *report = owner.get();
    if (!report) return {};

    // The order of the members is what the service's readers are used to.
    add(report, "product_line", json_string("network"));
    add_value(report, "anonymous_controller_id", config_path, "corvo.anonymous_controller_id", controller_id_max);
    add_value(report, "anonymous_site_id", config_path, "corvo.anonymous_site_id", value_max);
    add_value(report, "anonymous_device_id", system_info_path, "device.anonid", value_max);
    add_kernel(report);
    add(report, "bomrev", decimal_text(get_boardrevision(system_info_path)));
    add(report, "manufacturer_id", decimal_text(get_manufid()));
    add(report, "model", json_string(board_identify()->model_name));
    add(report, "version", json_string(firmware_version(log_module, __func__)));
    add(report, "is_default", json_boolean(is_factory_default()));
    add_times(report);
    char text[value_size];
    add(report, "controller_version",
        json_string(freadvalue(config_path, "corvo.version", text, sizeof text, "unknown")));
    if (get_system_time_str(text, sizeof text) == 0) add(report, "system_time", json_string(text));
    (void)json_object_capture_popen(report, "crash_log", log_command); // left out where it is not UTF-8
    if (with_config) (void)json_object_capture_popen(report, "system_cfg", config_command);
    return owner;
}

/// Whether the service took a request; logs what else became of it.
bool was_accepted(const char *step, const char *method, const char *url, int result,
                  const curl_simple_response &response)
{
    if (result != CURLE_OK) {
        log_warn_as(step, "%s '%s' failed: [%d] %s", method, url, result,
                    curl_easy_strerror(static_cast<CURLcode>(result)));
        return false;
    }
    if (response.status != accepted) {
        const auto body = body_of(response);
        log_warn_as(step, "%s '%s' failed: [%ld] %.*s", method, url, response.status, static_cast<int>(body.size()),
                    body.data());
        return false;
    }
    return true;
}

/// Sends a report; with a place for it, the service's answer is wanted and must be JSON.
bool post_crash(const char *url, json_t *report, vela::json_ref *answer)
{
    const response_ptr response{curl_simple_response_init(answer_max)};
    if (!response) {
        log_error("%s", no_response_record);
        return false;
    }
    log_info("Sending crash to %s", url);
    if (libvela_log_enabled(LIBVELA_LOG_TRACE)) {
        libvela_log_json(LIBVELA_LOG_TRACE, log_module, __func__, report, "metadata request");
    }
    const int result = curl_simple_post_json(url, 0, report, response.get());
    if (!was_accepted(__func__, "POST", url, result, *response)) return false;
    if (!answer) return true;
    *answer = parse_answer(body_of(*response));
    if (*answer && libvela_log_enabled(LIBVELA_LOG_TRACE)) {
        libvela_log_json(LIBVELA_LOG_TRACE, log_module, __func__, answer->get(), "response");
    }
    return *answer != nullptr;
}

// The name stands in a shell command, between double quotes and inside a pattern: whatever a shell or the pattern could
// read as more than itself becomes ".", which the pattern reads as any character.
void make_harmless(char *name)
{
    for (char *c = name; *c; ++c) {
        const bool harmless = vela::is_letter(*c) || vela::is_digit(*c) || strchr("._-/:@+,", *c) || (*c & 0x80);
        if (!harmless) *c = '.';
    }
}

void add_process_log(json_t *report, const crash_info &crash)
{
    const vela::c_string name{crash.name ? strdup(crash.name) : nullptr};
    if (!name) return;
    make_harmless(name.get());
    char *command = nullptr;
    if (asprintf(&command, process_log_command, name.get(), crash.pid) < 0) return;
    const vela::c_string owned{command};
    (void)json_object_capture_popen(report, "process_stdout", command);
}

void add_crash(json_t *report, const crash_info &crash, bool upload)
{
    add(report, "type", json_string(crash_type_strs[crash.type]));
    add(report, "upload", json_boolean(upload));
    if (crash.type == CRASH_RAM_DUMP) {
        add(report, "dump_type", json_string(crash.name));
        return;
    }
    add(report, "cmd", json_string(crash.name));
    add(report, "signal", json_integer(crash.signal));
    add(report, "number_of_crashes", json_integer(crash.number_of_crashes));
    add(report, "process_uptime", json_integer(crash.process_uptime));
    add_process_log(report, crash);
}

bool crash_post_metadata(const crash_info &crash, vela::json_ref *answer)
{
    const report_url url = make_url(process_crash);
    if (!url.fits()) {
        log_trace("URL truncated");
        return false;
    }
    const bool ram_dump = crash.type == CRASH_RAM_DUMP;
    const auto report = generate_common_payload(ram_dump ? ram_dump_log_command : system_log_command, ram_dump);
    if (!report) {
        log_error("Failed to generate crash payload");
        return false;
    }
    add_crash(report.get(), crash, answer != nullptr);
    if (!post_crash(url.c_str(), report.get(), answer)) {
        log_error("Failed to post crash metadata to server");
        return false;
    }
    return true;
}

bool upload_file(const char *url, const void *data, uint32_t size)
{
    const response_ptr response{curl_simple_response_init(answer_max)};
    if (!response) {
        log_error("%s", no_response_record);
        return false;
    }
    log_info("Uploading data (%zu bytes) to pre-signed URL", size_t{size});
    const int result =
        curl_simple_put(url, 0, nullptr, static_cast<const char *>(data), static_cast<long>(size), response.get());
    if (!was_accepted(__func__, "PUT", url, result, *response)) return false;
    log_info("Successfully uploaded binary data (HTTP 200, %zu bytes)", size_t{size});
    return true;
}

bool is_kind(const crash_info &crash, vela::verdicts *why = nullptr)
{
    return !refuses(why, "kind", crash.type < std::size(crash_type_strs), "known", "unknown_kind");
}

bool upload_wanted(const crash_info &crash, vela::verdicts *why = nullptr)
{
    const auto decide = [why](bool wanted, const char *reason) {
        note(why, "dump", wanted ? verdict::passed : verdict::skipped, reason);
        return wanted;
    };
    if (!crash.data || crash.size == 0) return decide(false, "no_dump");
    if (crash.type == CRASH_MINIDUMP) return decide(true, "minidump");
    return freadlong(coredump_mode_path, 0) == 1 ? decide(true, "dumps_allowed") : decide(false, "dumps_not_allowed");
}

/// What holds the kernel's crash back. With a sink everything is looked at, else what comes up to the first.
enum class held { no, without_log, not_allowed, sent };
held kernel_crash_held(vela::verdicts *why = nullptr)
{
    held first = held::no;
    const auto ends = [&first, why](held by) {
        if (first == held::no) first = by;
        return !why;
    };
    if (refuses(why, "crash_log", has_oops() != 0, "present", "no_crash_log") && ends(held::without_log)) return first;
    if (!sending_allowed(why) && ends(held::not_allowed)) return first;
    const bool unsent = access(sent_marker_path, F_OK) != 0;
    if (refuses(why, "sent", unsent, "not_yet", "already_sent")) (void)ends(held::sent);
    return first;
}

} // namespace

int has_oops(void)
{
    if (kernel_oops == oops::unknown) {
        const int status = run(oops_exists_command);
        if (status != no_status) kernel_oops = status == 0 ? oops::present : oops::absent;
    }
    return kernel_oops == oops::present;
}

int oops_clear(void)
{
    (void)run(oops_save_command); // clearing goes on: a log that cannot be saved would be reported for ever
    const int status = run(oops_clear_command);
    kernel_oops = status == no_status ? oops::unknown : oops::absent;
    return status;
}

int send_kernel_crash(void)
{
    switch (kernel_crash_held()) {
    case held::without_log: log_error("Tried processing a crash when no crash was found"); return -1;
    case held::not_allowed: return -ENOENT;
    case held::sent: log_debug("Kernel crashlog already sent to analytics"); return 0;
    case held::no: break;
    }
    log_info("Processing kernel crash");
    const report_url url = make_url(kernel_crash);
    if (!url.fits()) {
        log_error("URL truncated");
        return -ESRCH;
    }
    const auto report = generate_common_payload(kernel_log_command, true);
    if (!report) {
        log_error("Failed to generate kernel crash payload");
        return -EINTR;
    }
    add(report.get(), "source", json_string("oopsdump"));
    add(report.get(), "sender", json_string("firmware"));
    if (!post_crash(url.c_str(), report.get(), nullptr)) {
        log_warn("Failed to process kernel crash: %d", -EIO);
        return -EIO;
    }
    (void)touch_file(sent_marker_path, marker_mode); // logs its own failure; the report has been accepted
    return 0;
}

int send_crash(const crash_info *crash)
{
    if (!crash || !is_kind(*crash)) return -1;
    const bool upload = upload_wanted(*crash);
    if (!sending_allowed()) return 0;

    vela::json_ref answer;
    if (!crash_post_metadata(*crash, upload ? &answer : nullptr)) return -1;
    if (!upload) {
        log_debug("Upload disabled by system settings");
        return 0;
    }
    const vela::c_string url = upload_url(answer.get());
    answer.reset();
    if (!url) {
        log_error("Server did not return upload_url for %s", crash_type_strs[crash->type]);
        return -1;
    }
    if (!upload_file(url.get(), crash->data, crash->size)) {
        log_error("Failed to upload data");
        return -1;
    }
    return 0;
}

json_t *crash_explain(const crash_info *crash)
{
    vela::verdicts why{"crash"};
    bool upload = false;
    if (crash) {
        (void)is_kind(*crash, &why); // what it told is what counts
        upload = upload_wanted(*crash, &why);
        (void)sending_allowed(&why);
    } else {
        (void)kernel_crash_held(&why);
    }
    (void)make_url(crash ? process_crash : kernel_crash, &why);
    if (const char *reason = why.first_refusal()) {
        why.conclude(reason);
    } else {
        why.conclude("ready", upload ? "report_and_dump" : "report");
    }
    return why.release();
}
