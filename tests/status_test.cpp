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

using testing::ElementsAre;

namespace
{

const std::string report_path = "/var/run/report", profile_path = "/var/run/inform-profile.lock";

} // namespace

TEST(Status, VersionIsCachedOnceItIsWhole)
{
    const char *text = nullptr;
    const auto version = [&text](const std::string &first, const std::string &build) {
        site::put_file("/usr/etc/.version", first);
        site::put_file("/usr/etc/.build", build);
        errno = EXDEV;
        const int result = get_version(&text);
        return std::to_string(result) + " " + text;
    };
    EXPECT_EQ(-ENOENT, get_version(&text));
    EXPECT_EQ("-22 unknown.0", version("", "1"));
    EXPECT_EQ("-22 unknown.0", version("4.1.0", ""));
    site::put_file("/usr/etc/.version", "");
    site::remove_file("/usr/etc/.build");
    EXPECT_EQ(-ENOENT, get_version(&text)) << "a failed read counts before an empty text";
    const std::string nines(40, '9'), v62(62, 'v'), v66(66, 'v');
    const table<std::string, std::string, std::string> cases = {
        {"4.1.0", nines, "4.1.0." + nines.substr(9)}, {v62, "1", v62 + "."}, {v66, "1", v62 + "v"}};
    for (const auto &[first, build, whole] : cases) { // each in a process of its own
        EXPECT_EXIT(_exit(version(first, build) != "0 " + whole), testing::ExitedWithCode(0), "") << whole;
    }
    EXPECT_EQ("0 4.1.0.123", version("4.1.0\n", "123\n"));
    EXPECT_EQ("0 4.1.0.123", version("4.1.0\n", "124\n")) << "read once";
}

TEST(Status, NumbersInFiles)
{
    const auto file = [](const std::string &content) { return site::put_file("/tmp/any", content), "/tmp/any"; };
    const std::string long_line = std::string(300, 'x') + "\n";
    EXPECT_EQ(5, get_boardrevision(file("boardrevision=3\nboardrevision=a=5\r\n boardrevision=9\n")));
    EXPECT_EQ(4, get_boardrevision(file(long_line + "boardrevision=4\n" + long_line)));
    EXPECT_EQ(0, get_boardrevision(file("boardrevision\n"))) << "the last piece, whatever it is";
    EXPECT_EQ(35U, get_uptime_from_file(file("35.90 12.00\n")));
    EXPECT_EQ(UINT_MAX, get_uptime_from_file(file("up 5\n")));
    EXPECT_EQ(-1, get_boardrevision("/nowhere"));
    EXPECT_EQ(UINT_MAX, get_uptime_from_file("/nowhere"));
    EXPECT_NEAR(get_uptime_from_proc(), get_uptime_from_sysinfo(), 1);
    site::put_file("/proc/velahal/system.info", "manufid=2f01a\n");
    EXPECT_EQ(0x2F01U, get_manufid()) << "four digits";
    site::put_file("/usr/lib/build.properties", "scm_reftype=branch\n");
    EXPECT_EQ(2, get_vela_scm_reftype());
}

TEST(Status, StageOfTheInstallation)
{
    const table<const char *, const char *, const char *, int, int> cases = {
        {"", "branch", "", 0, 2},
        {"", "atag", "", 0, 0},
        {"stage", "branch", "", 1, 1},
        {"dev", "atag", "", 2, 2},
        {"development", "branch", "mgmt.brix.env.force=1\n", 0, 0},
        {"", "branch", "mgmt.brix.env.force=enabled\n", 0, 0},
        {"", "branch", "mgmt.brix.env.force=true\n", 0, 2}};
    for (const auto &[stage, reftype, more, env, limited] : cases) {
        site::lay_out_device({.reftype = reftype, .stage = stage, .more_config = more});
        cfg_entry *cfg = parse("/tmp/system.cfg");
        for (cfg_entry *from : {cfg, static_cast<cfg_entry *>(nullptr)}) {
            EXPECT_EQ(env, get_brix_env(from)) << stage;
            EXPECT_EQ(limited, get_brix_env_limit_prod(from)) << stage << " " << reftype << " " << more;
        }
        site::put_file("/tmp/system.cfg", "mgmt.brix.env=dev\n");
        EXPECT_EQ(env, get_brix_env(cfg)) << "the configuration that is given counts";
        free_cfg(cfg);
    }
    cfg_entry own = {const_cast<char *>("mgmt.brix.env"), nullptr, nullptr, nullptr};
    EXPECT_EQ(0, get_brix_env(&own)) << "a record without a value";
}

TEST(Status, TimesAsText)
{
    char text[80], after[80], cut[6] = "xxxxx";
    for (const auto &[seconds, duration] :
         table<unsigned, std::string>{{0, ""}, {86399, "23h59m59s"}, {86460, "1d1m"}, {UINT_MAX, "49710d6h28m15s"}}) {
        EXPECT_EQ(duration.size(), uptime2str(seconds, text, sizeof text));
        EXPECT_EQ(duration, text);
    }
    EXPECT_EQ(8, uptime2str(90061, cut, 4));
    EXPECT_EQ(0, memcmp("1d1\0x", cut, 5));

    setenv("TZ", "UTC-2", 1);
    conv_ts_to_local_time(INT64_MAX, text, 1);
    EXPECT_STREQ("1900-01-01T00:00:00", text);
    conv_ts_to_local_time(-7201, text, 1);
    EXPECT_STREQ("1969-12-31T23:59:59", text);
    EXPECT_EQ(0, get_system_time_str(text, sizeof text));
    conv_ts_to_local_time(time(nullptr), after, sizeof after);
    EXPECT_TRUE(strncmp(after, text, 14) == 0 || strcmp(text, after) < 0) << text;
    for (const size_t size : {3, 0}) EXPECT_EQ(0, get_system_time_str(cut, size));
    EXPECT_EQ(2U, strlen(cut));
}

TEST(Status, LocksKeepOtherProcessesOut)
{
    log_lines log;
    const table<std::string, int (*)(), int (*)()> locks = {{report_path, report_lock, report_unlock},
                                                            {profile_path, inform_profile_lock, inform_profile_unlock}};
    mkdir(report_path.c_str(), 0755);
    umask(0);
    for (const auto &[path, lock, unlock] : locks) {
        EXPECT_EQ(-1, unlock());
        EXPECT_EQ(0, lock());
        EXPECT_EQ(path == report_path, report_locked());
        EXPECT_EQ(1, site::run("flock -n " + path + " true")) << "another process";
        EXPECT_EQ(-1, lock());
        EXPECT_THAT(log.texts(), ElementsAre("unlocking " + path + " without locking", "Locking " + path + " twice"));

        const pid_t heir = fork(); // has the open file too, and must not keep the lock alive
        if (heir == 0) _exit(pause());
        EXPECT_EQ(0, unlock());
        EXPECT_EQ(0, site::run("flock -n " + path + " true"));
        EXPECT_FALSE(report_locked());
        kill(heir, SIGKILL);
        waitpid(heir, nullptr, 0);
    }
    struct stat made = {};
    EXPECT_EQ(0, stat(profile_path.c_str(), &made));
    EXPECT_EQ(0640U, made.st_mode & 07777);
}

TEST(Status, LockGivesUpOrWaits)
{
    log_lines log;
    site::remove_file(report_path);
    const leak_check held;
    EXPECT_EQ(-1, report_lock());
    mkdir(report_path.c_str(), 0755);
    const int other = open(report_path.c_str(), O_RDONLY | O_CLOEXEC);
    flock(other, LOCK_EX | LOCK_NB);
    const time_t begin = time(nullptr);
    EXPECT_EQ(-1, report_lock());
    EXPECT_THAT(time(nullptr) - begin, testing::AllOf(testing::Ge(11), testing::Le(15)));
    const auto line = [](const std::string &text) { return log_line{"error", "statistics", "report_lock", text}; };
    EXPECT_THAT(log.take(), ElementsAre(line("Can't open " + report_path), line("couldn't lock " + report_path)));

    close(other);
    const faults::refuse busy(faults::call::flock, EWOULDBLOCK, 0, false);
    EXPECT_EQ(0, report_lock()) << "free at the second try";
    EXPECT_EQ(0, report_unlock());
    site::remove_file(report_path);
    held.expect_unchanged();
}
