#include "site/supervisor.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vela/ipc/xwd.h>

using namespace std::chrono_literals;

namespace
{

void check(bool holds)
{
    if (!holds) _exit(9);
}

/// Watched by a pipe whose read end nobody empties.
void adopt_pipe(int (&ends)[2])
{
    check(pipe(ends) == 0);
    setenv("XWD_FD", std::to_string(ends[1]).c_str(), 1);
    xwd_start();
}

} // namespace

TEST(Xwd, DoesNothingWithoutAWatchdog)
{
    log_lines log;
    xwd_ping();
    xwd_start();
    xwd_end();
    for (const char *value : {"77", "-1", "4294967297", "99999999999999999999"}) {
        setenv("XWD_FD", value, 1);
        xwd_start();
        xwd_ping();
        EXPECT_STREQ(value, getenv("XWD_FD")) << "stays";
    }
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

TEST(Xwd, ReportsStartLifeAndEnd)
{
    const leak_check nothing;
    const auto report = site::supervise(
        [] {
            const int fd = atoi(getenv("XWD_FD"));
            log_lines log;
            xwd_start();
            check(getenv("XWD_FD") == nullptr);
            check(fcntl(fd, F_GETFD) == FD_CLOEXEC);
            check((fcntl(fd, F_GETFL) & (O_NONBLOCK | O_APPEND)) == O_NONBLOCK);
            xwd_start();
            xwd_ping();
            xwd_end();
            check(log.take() == std::vector<log_line>{{"trace", "xwd", "xwd_write", "writing command: S"},
                                                      {"trace", "xwd", "xwd_write", "writing command: S"},
                                                      {"trace", "xwd", "xwd_write", "writing command: P"},
                                                      {"trace", "xwd", "xwd_write", "writing command: E"}});
            usleep(700000); // longer than the supervisor's patience: it watches no more
        },
        500ms);
    EXPECT_EQ("SSPE", report.heard);
    EXPECT_EQ("", report.fault);
    EXPECT_TRUE(report.ended_on_purpose);
    EXPECT_FALSE(report.killed);
    EXPECT_EQ(0, report.status);

    const auto silent = site::supervise(
        [] {
            dup2(atoi(getenv("XWD_FD")), 0);
            setenv("XWD_FD", "0", 1); // a descriptor like any other
            xwd_start();
            pause();
        },
        500ms);
    EXPECT_EQ("S", silent.heard);
    EXPECT_TRUE(silent.killed);
    EXPECT_EQ(SIGKILL, WTERMSIG(silent.status));
    nothing.expect_unchanged();
}

TEST(Xwd, AWatchdogOutOfReachEndsTheProcess)
{
    EXPECT_EXIT(
        {
            int ends[2];
            adopt_pipe(ends);
            for (;;) xwd_ping();
        },
        testing::KilledBySignal(SIGABRT), "xwd write failed: Resource temporarily unavailable");
    EXPECT_EXIT(
        {
            int ends[2];
            adopt_pipe(ends);
            close(ends[0]);
            xwd_ping();
        },
        testing::KilledBySignal(SIGABRT), "xwd write failed: Broken pipe");
}
