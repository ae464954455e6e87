#include "site/device.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vela/board/status.h>
#include <vela/core/internal/own.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr const char *report_path = "/var/run/report";
constexpr const char *profile_path = "/var/run/inform-profile.lock";

/// A child that sleeps on what it has inherited.
class heir
{
public:
    heir() : pid_{fork()}
    {
        if (pid_ == 0) _exit(pause());
    }
    heir(const heir &) = delete;
    heir &operator=(const heir &) = delete;
    ~heir()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

private:
    pid_t pid_;
};

bool another_process_can_lock(const char *path) { return site::run(std::string("flock -n ") + path + " true") == 0; }

} // namespace

TEST(Status, VersionIsCachedOnceItIsWhole)
{
    const char *text = nullptr;
    const struct {
        const char *version, *build;
        int result;
    } failures[] = {
        {nullptr, "1\n", -ENOENT}, {"4.1.0\n", nullptr, -ENOENT}, {"", "1\n", -EINVAL}, {"4.1.0\n", "", -EINVAL}};
    for (const auto &f : failures) {
        site::remove_file("/usr/etc/.version");
        site::remove_file("/usr/etc/.build");
        if (f.version) site::put_file("/usr/etc/.version", f.version);
        if (f.build) site::put_file("/usr/etc/.build", f.build);
        errno = EXDEV;
        EXPECT_EQ(f.result, get_version(&text));
        EXPECT_STREQ("unknown.0", text);
    }

    // Each whole version in a process of its own: the first one stays.
    const struct {
        std::string version, build, whole;
    } cases[] = {{"4.1.0", "123", "4.1.0.123"},
                 {"4.1.0", std::string(40, '9'), "4.1.0." + std::string(31, '9')},
                 {std::string(62, 'v'), "1", std::string(62, 'v') + "."},
                 {std::string(66, 'v'), "1", std::string(63, 'v')}};
    for (const auto &c : cases) {
        site::lay_out_device({.version = c.version, .build = c.build});
        EXPECT_EXIT(
            {
                int result = get_version(&text);
                site::remove_file("/usr/etc/.version");
                result |= get_version(&text);
                fprintf(stderr, "<%s> %d", text, result);
                _exit(0);
            },
            testing::ExitedWithCode(0), "<" + c.whole + "> 0")
            << c.version;
    }
}

TEST(Status, BoardRevisionIsTheLastPieceOfTheLastLine)
{
    const std::string far = std::string(300, 'x');
    const struct {
        std::string content;
        int revision;
    } cases[] = {{"", -1},
                 {"systemid=a686\n", -1},
                 {"boardrevision=11\nserialno=1\n", 11},
                 {"boardrevision=3\nboardrevision=5\r\n", 5},
                 {"boardrevision=a=7", 7},
                 {"boardrevisionist=9\n", 9},
                 {" boardrevision=9\n", -1},
                 {"boardrevision\n", 0},
                 {"boardrevision=-2\n" + far + "\n", -2},
                 {far + "\nboardrevision=4\n", 4}};
    for (const auto &c : cases) {
        site::put_file("/tmp/board", c.content);
        EXPECT_EQ(c.revision, get_boardrevision("/tmp/board")) << c.content;
    }
    EXPECT_EQ(-1, get_boardrevision("/tmp/none"));
    EXPECT_EQ(-1, get_boardrevision(nullptr));
}

TEST(Status, MakerAndBuild)
{
    site::remove_file("/proc/velahal");
    site::remove_file("/usr/lib/build.properties");
    EXPECT_EQ(0U, get_manufid());
    EXPECT_EQ(0, get_vela_scm_reftype());
    for (const auto &[text, id] : {std::pair{"2F01", 0x2F01U}, {"2f01a", 0x2F01U}, {"zz", 0U}}) {
        site::lay_out_device({.manufid = text});
        EXPECT_EQ(id, get_manufid()) << text;
    }
    for (const auto &[text, kind] : {std::pair{"atag", 1}, {"branch", 2}, {"branches", 0}, {"tag", 0}}) {
        site::lay_out_device({.reftype = text});
        EXPECT_EQ(kind, get_vela_scm_reftype()) << text;
    }
}

TEST(Status, StageOfTheInstallation)
{
    constexpr struct {
        const char *stage, *reftype, *more;
        int env, limited;
    } cases[] = {
        {"", "branch", "", 0, 2},
        {"", "atag", "", 0, 0},
        {"", "", "", 0, 2},
        {"stage", "branch", "", 1, 1},
        {"dev", "branch", "", 2, 2},
        {"dev", "atag", "", 2, 2},
        {"development", "atag", "", 0, 0},
        {"", "branch", "mgmt.brix.env.force=1\n", 0, 0},
        {"", "branch", "mgmt.brix.env.force=enabled\n", 0, 0},
        {"", "branch", "mgmt.brix.env.force=true\n", 0, 2},
    };
    for (const auto &c : cases) {
        site::lay_out_device({.reftype = c.reftype, .stage = c.stage, .more_config = c.more});
        SCOPED_TRACE(testing::Message() << c.stage << " " << c.reftype << " " << c.more);
        cfg_entry *cfg = parse("/tmp/system.cfg");
        for (cfg_entry *from : {cfg, static_cast<cfg_entry *>(nullptr)}) {
            EXPECT_EQ(c.env, get_brix_env(from));
            EXPECT_EQ(c.limited, get_brix_env_limit_prod(from));
        }
        // A configuration that is given counts, not the running one; the force key always comes from there.
        site::put_file("/tmp/system.cfg", "mgmt.brix.env=dev\n");
        EXPECT_EQ(c.env, get_brix_env(cfg));
        free_cfg(cfg);
    }
}

TEST(Status, Uptime)
{
    constexpr struct {
        const char *content;
        unsigned seconds;
    } cases[] = {{"35.10 12.00\n", 35}, {"7\n", 7},           {"", UINT_MAX},
                 {"\n", UINT_MAX},      {"up 5\n", UINT_MAX}, {" 12.5", 12}};
    for (const auto &c : cases) {
        site::put_file("/tmp/uptime", c.content);
        errno = 0;
        EXPECT_EQ(c.seconds, get_uptime_from_file("/tmp/uptime")) << c.content;
    }
    EXPECT_EQ(UINT_MAX, get_uptime_from_file("/tmp/none"));
    EXPECT_EQ(UINT_MAX, get_uptime_from_file(nullptr));
    EXPECT_NEAR(get_uptime_from_proc(), get_uptime_from_sysinfo(), 1);

    constexpr struct {
        unsigned seconds;
        const char *text;
    } durations[] = {{0, ""},
                     {59, "59s"},
                     {3600, "1h"},
                     {86399, "23h59m59s"},
                     {86400, "1d"},
                     {90061, "1d1h1m1s"},
                     {UINT_MAX, "49710d6h28m15s"}};
    for (const auto &d : durations) {
        char text[32];
        EXPECT_EQ(static_cast<int>(strlen(d.text)), uptime2str(d.seconds, text, sizeof text));
        EXPECT_STREQ(d.text, text);
    }
    char cut[6] = "xxxxx";
    EXPECT_EQ(8, uptime2str(90061, cut, 4));
    EXPECT_STREQ("1d1", cut);
    EXPECT_EQ('x', cut[4]);
    EXPECT_EQ(8, uptime2str(90061, nullptr, 0));
}

TEST(Status, LocalTime)
{
    constexpr struct {
        const char *zone;
        int64_t seconds;
        const char *text;
    } cases[] = {{"UTC", 0, "1970-01-01T00:00:00"},          {"UTC-2", 1759477272, "2025-10-03T09:41:12"},
                 {"UTC", 4102444800, "2100-01-01T00:00:00"}, {"UTC", -1, "1969-12-31T23:59:59"},
                 {"UTC", INT64_MAX, "1900-01-01T00:00:00"},  {"UTC", INT64_MIN, "1900-01-01T00:00:00"}};
    char text[80];
    for (const auto &c : cases) {
        setenv("TZ", c.zone, 1);
        conv_ts_to_local_time(c.seconds, text, 1);
        EXPECT_STREQ(c.text, text) << c.seconds;
    }

    char before[80], after[80], small[6] = "xxxxx";
    conv_ts_to_local_time(time(nullptr), before, sizeof before);
    EXPECT_EQ(0, get_system_time_str(text, sizeof text));
    conv_ts_to_local_time(time(nullptr), after, sizeof after);
    EXPECT_THAT(std::string(text), testing::AllOf(testing::Ge(before), testing::Le(after)));
    EXPECT_EQ(0, get_system_time_str(small, 5));
    EXPECT_EQ(0, get_system_time_str(small, 0));
    EXPECT_EQ(4U, strlen(small)) << "cut to the size, and a size of 0 writes nothing";
}

TEST(Status, LocksKeepOtherProcessesOut)
{
    log_lines log;
    const struct {
        const char *path;
        int (*lock)(void), (*unlock)(void);
        const char *lock_name, *unlock_name;
    } locks[] = {
        {report_path, report_lock, report_unlock, "report_lock", "report_unlock"},
        {profile_path, inform_profile_lock, inform_profile_unlock, "inform_profile_lock", "inform_profile_unlock"}};
    mkdir(report_path, 0755);
    umask(0);
    for (const auto &l : locks) {
        const std::string path = l.path;
        EXPECT_EQ(-1, l.unlock());
        EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "statistics", l.unlock_name,
                                                     "unlocking " + path + " without locking"}));

        EXPECT_EQ(0, l.lock());
        EXPECT_EQ(path == report_path, report_locked());
        EXPECT_FALSE(another_process_can_lock(l.path));
        const leak_check held;
        EXPECT_EQ(-1, l.lock());
        EXPECT_THAT(log.take(),
                    ElementsAre(log_line{"error", "statistics", l.lock_name, "Locking " + path + " twice"}));
        held.expect_unchanged();

        const heir child; // has the open file too, and must not keep the lock alive
        EXPECT_EQ(0, l.unlock());
        EXPECT_TRUE(another_process_can_lock(l.path));
        EXPECT_FALSE(report_locked());
    }
    EXPECT_THAT(log.take(), IsEmpty());
    struct stat made = {};
    EXPECT_EQ(0, stat(profile_path, &made));
    EXPECT_EQ(0640U, made.st_mode & 07777);
}

TEST(Status, LockGivesUpOrWaits)
{
    log_lines log;
    site::remove_file(report_path);
    const leak_check held;
    EXPECT_EQ(-1, report_lock());
    site::put_file(report_path, "no directory");
    EXPECT_EQ(-1, report_lock());
    const log_line cannot{"error", "statistics", "report_lock", "Can't open /var/run/report"};
    EXPECT_THAT(log.take(), ElementsAre(cannot, cannot));
    site::remove_file(report_path);
    held.expect_unchanged();

    mkdir(report_path, 0755);
    vela::unique_fd other{open(report_path, O_RDONLY | O_CLOEXEC)};
    ASSERT_EQ(0, flock(other.get(), LOCK_EX));
    auto other_process = std::make_unique<heir>();
    other.reset();
    const time_t begin = time(nullptr);
    EXPECT_EQ(-1, report_lock());
    EXPECT_THAT(time(nullptr) - begin, testing::AllOf(testing::Ge(11), testing::Le(15)));
    EXPECT_THAT(log.take(),
                ElementsAre(log_line{"error", "statistics", "report_lock", "couldn't lock /var/run/report"}));

    other_process.reset();
    const faults::refuse busy(faults::call::flock, EWOULDBLOCK, 0, false);
    EXPECT_EQ(0, report_lock()) << "free at the second try";
    EXPECT_EQ(0, report_unlock());
}
