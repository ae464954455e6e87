#include "site/supervisor.h"
#include "tests/support/log_lines.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>
#include <vela/ipc/xwd.h>

using namespace std::chrono_literals;
using testing::KilledBySignal;

TEST(Xwd, DoesNothingWithoutAWatchdog)
{
    log_lines log;
    xwd_ping();
    for (const char *value : {"77", "-1", "4294967297"}) {
        setenv("XWD_FD", value, 1);
        xwd_start();
        xwd_end();
        EXPECT_STREQ(value, getenv("XWD_FD")) << "stays";
    }
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

TEST(Xwd, ReportsStartLifeAndEnd)
{
    const auto report = site::supervise(
        [] {
            dup2(atoi(getenv("XWD_FD")), 0);
            setenv("XWD_FD", "0", 1); // a descriptor like any other
            fcntl(0, F_SETFL, O_APPEND);
            xwd_start();
            if (getenv("XWD_FD") || fcntl(0, F_GETFD) != FD_CLOEXEC) _exit(8);
            if ((fcntl(0, F_GETFL) & (O_NONBLOCK | O_APPEND)) != O_NONBLOCK) _exit(9);
            setenv("XWD_FD", "2", 1); // too late
            xwd_start();
            xwd_ping();
            xwd_end();
            usleep(700000); // longer than the supervisor's patience: it watches no more
        },
        500ms);
    EXPECT_EQ("SSPE", report.heard);
    EXPECT_EQ(0, report.status);
}

TEST(Xwd, AWatchdogOutOfReachEndsTheProcess)
{
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    setenv("XWD_FD", std::to_string(ends[1]).c_str(), 1);
    xwd_start();
    EXPECT_EXIT(for (;;) xwd_ping(), KilledBySignal(SIGABRT), "xwd write failed: Resource temporarily unavailable");
    close(ends[0]);
    EXPECT_EXIT(xwd_ping(), KilledBySignal(SIGABRT), "xwd write failed: Broken pipe");
}
