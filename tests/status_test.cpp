#include "site/device.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <vela/board/status.h>
#include <vela/core/internal/own.h>

using testing::ElementsAre;

namespace
{

constexpr const char *report_path = "/var/run/report";
constexpr const char *profile_path = "/var/run/inform-profile.lock";

bool another_process_can_lock(const std::string &path) { return site::run("flock -n " + path + " true") == 0; }

log_line error(const char *function, const std::string &text) { return {"error", "statistics", function, text}; }

/// A file as it is to be: null, none.
void lay_out(const char *path, const char *content)
{
    site::remove_file(path);
    if (content) site::put_file(path, content);
}

long revision() { return get_boardrevision("/tmp/any"); }
long uptime() { return get_uptime_from_file("/tmp/any"); }
long maker() { return get_manufid(); }
long reference() { return get_vela_scm_reftype(); }

} // namespace

TEST(Status, VersionIsCachedOnceItIsWhole)
{
    // Each in a process of its own. Whole, it stays; else the next call tries again.
    const std::string nines(40, '9'), v62(62, 'v'), v66(66, 'v'), again = "; 7.2.4.1863 0";
    const table<const char *, const char *, std::string> cases = {
        {nullptr, "1\n", "unknown.0 -2" + again},
        {"4.1.0\n", nullptr, "unknown.0 -2" + again},
        {"", "1\n", "unknown.0 -22" + again},
        {"4.1.0\n", "", "unknown.0 -22" + again},
        {"4.1.0\n", "123\n", "4.1.0.123 0; 4.1.0.123 0"},
        {"4.1.0", nines.c_str(), "4.1.0." + nines.substr(9) + " 0;"},
        {v62.c_str(), "1", v62 + ". 0;"},
        {v66.c_str(), "1", v62 + "v 0;"}};
    const auto twice = [] {
        const char *text = nullptr;
        errno = EXDEV;
        const int result = get_version(&text);
        const std::string first = text;
        site::lay_out_device();
        const int second = get_version(&text);
        fprintf(stderr, "%s %d; %s %d", first.c_str(), result, text, second);
        _exit(0);
    };
    for (const auto &[version, build, texts] : cases) {
        lay_out("/usr/etc/.version", version);
        lay_out("/usr/etc/.build", build);
        EXPECT_EXIT(twice(), testing::ExitedWithCode(0), "^" + texts);
    }
}

TEST(Status, NumbersInFiles)
{
    constexpr const char *any = "/tmp/any", *info = "/proc/velahal/system.info", *build = "/usr/lib/build.properties";
    const std::string far = std::string(300, 'x') + "\nboardrevision=4\n" + std::string(300, 'x');
    const table<long (*)(), const char *, const char *, long> cases = {
        // The last piece of the last line that begins with the key.
        {revision, any, nullptr, -1},
        {revision, any, "systemid=a686\n boardrevision=9\n", -1},
        {revision, any, "boardrevision=3\nboardrevision=5\r\nserialno=1\n", 5},
        {revision, any, "boardrevision=a=7", 7},
        {revision, any, "boardrevisionist=-9\n", -9},
        {revision, any, "boardrevision\n", 0},
        {revision, any, far.c_str(), 4},
        {uptime, any, nullptr, UINT_MAX},
        {uptime, any, "", UINT_MAX},
        {uptime, any, "\n", UINT_MAX},
        {uptime, any, "up 5\n", UINT_MAX},
        {uptime, any, "35.90 12.00\n", 35},
        {uptime, any, "7\n", 7},
        {uptime, any, " 12.5", 12},
        {maker, info, nullptr, 0},
        {maker, info, "manufid=2f01a\n", 0x2F01}, // four digits
        {maker, info, "manufid=zz\n", 0},
        {reference, build, nullptr, 0},
        {reference, build, "scm_reftype=atag\n", 1},
        {reference, build, "scm_reftype=branch\n", 2},
        {reference, build, "scm_reftype=branches\n", 0}};
    for (const auto &[number_in, path, content, number] : cases) {
        lay_out(path, content);
        errno = 0;
        EXPECT_EQ(number, number_in()) << (content ? content : "no file");
    }
    EXPECT_EQ(-1, get_boardrevision(nullptr));
    EXPECT_EQ(UINT_MAX, get_uptime_from_file(nullptr));
    EXPECT_NEAR(get_uptime_from_proc(), get_uptime_from_sysinfo(), 1);
}

TEST(Status, StageOfTheInstallation)
{
    const table<const char *, const char *, const char *, int, int> cases = {
        {"", "branch", "", 0, 2},
        {"", "atag", "", 0, 0},
        {"", "", "", 0, 2},
        {"stage", "branch", "", 1, 1},
        {"dev", "atag", "", 2, 2},
        {"development", "atag", "", 0, 0},
        {"", "branch", "mgmt.brix.env.force=1\n", 0, 0},
        {"", "branch", "mgmt.brix.env.force=enabled\n", 0, 0},
        {"", "branch", "mgmt.brix.env.force=true\n", 0, 2}};
    for (const auto &[stage, reftype, more, env, limited] : cases) {
        SCOPED_TRACE(testing::Message() << stage << " " << reftype << " " << more);
        site::lay_out_device({.reftype = reftype, .stage = stage, .more_config = more});
        cfg_entry *cfg = parse("/tmp/system.cfg");
        for (cfg_entry *from : {cfg, static_cast<cfg_entry *>(nullptr)}) {
            EXPECT_EQ(env, get_brix_env(from));
            EXPECT_EQ(limited, get_brix_env_limit_prod(from));
        }
        // A configuration that is given counts, not the running one; the force key always comes from there.
        site::put_file("/tmp/system.cfg", "mgmt.brix.env=dev\n");
        EXPECT_EQ(env, get_brix_env(cfg));
        free_cfg(cfg);
    }
}

TEST(Status, TimesAsText)
{
    const table<unsigned, std::string> durations = {{0, ""},
                                                    {59, "59s"},
                                                    {3600, "1h"},
                                                    {86399, "23h59m59s"},
                                                    {86400, "1d"},
                                                    {90061, "1d1h1m1s"},
                                                    {UINT_MAX, "49710d6h28m15s"}};
    char text[80], before[80], after[80], cut[6] = "xxxxx";
    for (const auto &[seconds, duration] : durations) {
        EXPECT_EQ(duration.size(), uptime2str(seconds, text, sizeof text));
        EXPECT_EQ(duration, text);
    }
    EXPECT_EQ(8, uptime2str(90061, cut, 4));
    EXPECT_EQ(0, memcmp("1d1\0x", cut, 5));

    const table<const char *, int64_t, const char *> times = {
        {"UTC", 0, "1970-01-01T00:00:00"},          {"UTC-2", 1759477272, "2025-10-03T09:41:12"},
        {"UTC", 4102444800, "2100-01-01T00:00:00"}, {"UTC", -1, "1969-12-31T23:59:59"},
        {"UTC", INT64_MAX, "1900-01-01T00:00:00"},  {"UTC", INT64_MIN, "1900-01-01T00:00:00"}};
    for (const auto &[zone, seconds, expected] : times) {
        setenv("TZ", zone, 1);
        conv_ts_to_local_time(seconds, text, 1);
        EXPECT_STREQ(expected, text) << seconds;
    }
    conv_ts_to_local_time(time(nullptr), before, sizeof before);
    EXPECT_EQ(0, get_system_time_str(text, sizeof text));
    conv_ts_to_local_time(time(nullptr), after, sizeof after);
    EXPECT_TRUE(strcmp(before, text) <= 0 && strcmp(text, after) <= 0) << text;
    EXPECT_EQ(0, get_system_time_str(cut, 3) + get_system_time_str(cut, 0));
    EXPECT_EQ(2U, strlen(cut)) << "cut to the size, and a size of 0 writes nothing";
}

TEST(Status, LocksKeepOtherProcessesOut)
{
    log_lines log;
    const table<std::string, int (*)(), int (*)(), const char *, const char *> locks = {
        {report_path, report_lock, report_unlock, "report_lock", "report_unlock"},
        {profile_path, inform_profile_lock, inform_profile_unlock, "inform_profile_lock", "inform_profile_unlock"}};
    mkdir(report_path, 0755);
    umask(0);
    for (const auto &[path, lock, unlock, lock_name, unlock_name] : locks) {
        EXPECT_EQ(-1, unlock());
        EXPECT_EQ(0, lock());
        EXPECT_EQ(path == report_path, report_locked());
        EXPECT_FALSE(another_process_can_lock(path));
        const leak_check held;
        EXPECT_EQ(-1, lock());
        held.expect_unchanged();
        EXPECT_THAT(log.take(), ElementsAre(error(unlock_name, "unlocking " + path + " without locking"),
                                            error(lock_name, "Locking " + path + " twice")));

        const pid_t heir = fork(); // has the open file too, and must not keep the lock alive
        if (heir == 0) _exit(pause());
        EXPECT_EQ(0, unlock());
        EXPECT_TRUE(another_process_can_lock(path));
        EXPECT_FALSE(report_locked());
        kill(heir, SIGKILL);
        waitpid(heir, nullptr, 0);
    }
    struct stat made = {};
    EXPECT_EQ(0, stat(profile_path, &made));
    EXPECT_EQ(0640U, made.st_mode & 07777);
}

TEST(Status, LockGivesUpOrWaits)
{
    log_lines log;
    const leak_check held;
    for (const char *no_directory : {static_cast<const char *>(nullptr), "a file"}) {
        lay_out(report_path, no_directory);
        EXPECT_EQ(-1, report_lock());
        EXPECT_THAT(log.take(), ElementsAre(error("report_lock", "Can't open /var/run/report")));
    }
    site::remove_file(report_path);
    held.expect_unchanged();

    mkdir(report_path, 0755);
    vela::unique_fd other{open(report_path, O_RDONLY | O_CLOEXEC)};
    ASSERT_EQ(0, flock(other.get(), LOCK_EX));
    const time_t begin = time(nullptr);
    EXPECT_EQ(-1, report_lock());
    EXPECT_THAT(time(nullptr) - begin, testing::AllOf(testing::Ge(11), testing::Le(15)));
    EXPECT_THAT(log.take(), ElementsAre(error("report_lock", "couldn't lock /var/run/report")));

    other.reset();
    const faults::refuse busy(faults::call::flock, EWOULDBLOCK, 0, false);
    EXPECT_EQ(0, report_lock()) << "free at the second try";
    EXPECT_EQ(0, report_unlock());
}
