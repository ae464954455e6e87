// Answers questions about the running system. Each query reads its file; only the version text and the two locks are
// kept.

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <string_view>
#include <sys/file.h>
#include <sys/sysinfo.h>
#include <vela/board/status.h>
#include <vela/core/file.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>

namespace
{

constexpr const char *log_module = "statistics";

constexpr const char *version_path = "/usr/etc/.version";
constexpr const char *build_path = "/usr/etc/.build";
constexpr const char *system_info_path = "/proc/velahal/system.info";
constexpr const char *build_properties_path = "/usr/lib/build.properties";
constexpr const char *running_config_path = "/tmp/system.cfg";
constexpr const char *uptime_path = "/proc/uptime";

constexpr const char *stage_key = "mgmt.brix.env";
constexpr const char *force_stage_key = "mgmt.brix.env.force";
constexpr std::string_view revision_key = "boardrevision";

constexpr const char *time_format = "%Y-%m-%dT%H:%M:%S";
constexpr size_t time_text_size = 80;
constexpr const char *no_time = "1900-01-01T00:00:00";

constexpr unsigned seconds_per_day = 24 * 60 * 60;
constexpr int lock_tries = 11;

enum stage { production = 0, staging = 1, development = 2 };
enum reference_kind { other_reference = 0, tag = 1, branch = 2 };

/// Firmware version, for the life of the process. Only `known` tells whether the text was read.
constinit struct {
    pthread_mutex_t reading;
    bool known;
    char text[64];
} version = {PTHREAD_MUTEX_INITIALIZER, false, "unknown.0"};

/// A lock of this process on something that other processes lock too; fd is -1 while it is not held.
struct process_lock {
    const char *path;
    int flags;
    int fd = -1;
};
constinit process_lock report = {"/var/run/report", O_RDONLY | O_DIRECTORY};
constinit process_lock inform_profile = {"/var/run/inform-profile.lock", O_RDWR | O_CREAT};

/// The first line of a file; of an empty file, the empty text.
int read_text(const char *path, char *text, size_t size)
{
    text[0] = '\0';
    errno = 0; // an empty file leaves it alone, and the result is made of it
    return fsreadline(path, text, size);
}

int read_version()
{
    char text[sizeof version.text];
    char build[32];
    const int text_result = read_text(version_path, text, sizeof text);
    const int build_result = read_text(build_path, build, sizeof build);
    if (text_result != 0) return text_result;
    if (build_result != 0) return build_result;
    if (text[0] == '\0' || build[0] == '\0') return -EINVAL;
    version.known = snprintf(version.text, sizeof version.text, "%s.%s", text, build) > 0; // as much as fits
    return 0;
}

stage stage_from(std::string_view name)
{
    if (name == "dev") return development;
    return name == "stage" ? staging : production;
}

/// Local time as text; false when the calendar does not reach that far.
bool format_local_time(time_t when, char (&text)[time_text_size])
{
    tzset(); // the time zone may have been configured since
    struct tm local = {};
    return localtime_r(&when, &local) && strftime(text, sizeof text, time_format, &local) != 0;
}

void sleep_a_second()
{
    timespec rest = {.tv_sec = 1};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {}
}

int take(process_lock &lock, const char *caller)
{
    if (lock.fd >= 0) {
        log_error_as(caller, "Locking %s twice", lock.path);
        return -1;
    }
    vela::unique_fd fd{open(lock.path, lock.flags | O_CLOEXEC, 0640)};
    if (!fd.ok()) {
        log_error_as(caller, "Can't open %s", lock.path);
        return -1;
    }
    for (int i = 0; i < lock_tries; ++i) {
        if (flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {
            lock.fd = fd.release();
            return 0;
        }
        sleep_a_second();
    }
    log_error_as(caller, "couldn't lock %s", lock.path);
    return -1;
}

int give_back(process_lock &lock, const char *caller)
{
    if (lock.fd < 0) {
        log_error_as(caller, "unlocking %s without locking", lock.path);
        return -1;
    }
    (void)flock(lock.fd, LOCK_UN); // closing alone would leave it to a child that has inherited the open file
    const vela::unique_fd closing{std::exchange(lock.fd, -1)};
    return 0;
}

} // namespace

int get_version(const char **out)
{
    pthread_mutex_lock(&version.reading);
    const int result = version.known ? 0 : read_version();
    pthread_mutex_unlock(&version.reading);
    if (out) *out = version.text;
    return result;
}

int get_boardrevision(const char *path)
{
    const vela::file_ptr file{path ? fopen(path, "re") : nullptr};
    if (!file) return -1;

    int revision = -1;
    char line[256];
    while (fgets(line, sizeof line, file.get())) {
        if (!vela::starts_with(line, revision_key)) continue;
        char *rest = line;
        const char *last = "";
        while (char *piece = strtok_r(rest, "=\r\n", &rest)) last = piece;
        revision = atoi(last);
    }
    return revision;
}

unsigned get_manufid(void)
{
    char id[5];
    return static_cast<unsigned>(strtoul(freadvalue(system_info_path, "manufid", id, sizeof id, "0000"), nullptr, 16));
}

int get_vela_scm_reftype(void)
{
    char text[16];
    const std::string_view kind = freadvalue(build_properties_path, "scm_reftype", text, sizeof text, "unknown");
    if (kind == "atag") return tag;
    return kind == "branch" ? branch : other_reference;
}

int get_brix_env(const cfg_entry *cfg)
{
    if (cfg) return stage_from(vela::view(get_value(cfg, "", "%s", stage_key)));
    char name[9];
    return stage_from(freadvalue(running_config_path, stage_key, name, sizeof name, ""));
}

int get_brix_env_limit_prod(const cfg_entry *cfg)
{
    const int stage = get_brix_env(cfg);
    char text[9];
    const std::string_view force = freadvalue(running_config_path, force_stage_key, text, sizeof text, "");
    if (vela::starts_with(force, "1") || vela::starts_with(force, "enable")) return stage;
    // On purpose: what is not a release does not report as production, wherever it is installed.
    return stage != production || get_vela_scm_reftype() == tag ? stage : development;
}

unsigned get_uptime_from_sysinfo(void)
{
    struct sysinfo info = {};
    (void)sysinfo(&info);
    return static_cast<unsigned>(info.uptime);
}

unsigned get_uptime_from_file(const char *path)
{
    char line[64] = "";
    long seconds = -1;
    if (fsreadline(path, line, sizeof line) != 0 || sscanf(line, "%ld.%*s ", &seconds) != 1) return UINT_MAX;
    return static_cast<unsigned>(seconds);
}

unsigned get_uptime_from_proc(void) { return get_uptime_from_file(uptime_path); }

int uptime2str(unsigned seconds, char *buf, size_t len)
{
    const struct {
        unsigned count;
        char unit;
    } parts[] = {
        {seconds / seconds_per_day, 'd'}, {seconds / 3600 % 24, 'h'}, {seconds / 60 % 60, 'm'}, {seconds % 60, 's'}};

    char text[sizeof "49710d23h59m59s"] = "";
    size_t length = 0;
    for (const auto &part : parts) {
        if (part.count == 0) continue;
        length += static_cast<size_t>(snprintf(text + length, sizeof text - length, "%u%c", part.count, part.unit));
    }
    return snprintf(buf, len, "%s", text);
}

int get_system_time_str(char *buf, size_t len)
{
    char text[time_text_size];
    if (!format_local_time(time(nullptr), text)) return -1;
    vela::copy_text(buf, len, text);
    return 0;
}

void conv_ts_to_local_time(int64_t ts, char *buf, size_t)
{
    char text[time_text_size];
    const bool converted = format_local_time(static_cast<time_t>(ts), text);
    vela::copy_text(buf, time_text_size, converted ? text : no_time);
}

int report_lock(void) { return take(report, __func__); }
int report_unlock(void) { return give_back(report, __func__); }
int report_locked(void) { return report.fd >= 0; }

int inform_profile_lock(void) { return take(inform_profile, __func__); }
int inform_profile_unlock(void) { return give_back(inform_profile, __func__); }
