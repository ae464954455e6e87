// Whole jobs of the library, with one system call after the other failing. Whatever the job makes of it, it comes back:
// without a signal, with nothing left behind, and no more than two seconds late.
#include "site/collector.h"
#include "site/device.h"
#include "site/mgrd.h"
#include "site/world.h"
#include "tests/support/https.h"
#include "tests/support/leaks.h"
#include "tests/support/system_calls.h"

#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <vela/config/cfg.h>
#include <vela/core/log.h>
#include <vela/discovery/protocol.h>
#include <vela/exec/exec.h>
#include <vela/ipc/ctrl-proto.h>
#include <vela/net/gateway.h>
#include <vela/net/netif.h>
#include <vela/settings.h>
#include <vela/telemetry/crash.h>

namespace
{

constexpr double grace_s = 2;
constexpr int runs = 100; // of a job: of its calls, as many evenly spread

struct job {
    const char *name;
    void (*run)();
    void (*prepare)();
};

/// Serves in a process of its own for as long as this one lives: threads here would not survive a fork.
template <class Serve> void start_server(Serve serve)
{
    int ready[2];
    ASSERT_EQ(0, pipe2(ready, O_CLOEXEC));
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        serve([&] { (void)!write(ready[1], "", 1); });
        _exit(0);
    }
    close(ready[1]);
    char byte;
    ASSERT_EQ(1, read(ready[0], &byte, 1));
    close(ready[0]);
}

void lay_out_device() { site::lay_out_device(); }

void start_crash_service()
{
    lay_out_device();
    start_server([](const auto &ready) {
        site::collector service({.names = {host_of(vela::settings::crash_url)}});
        service.on("/v1/crash", site::reply{200, "{}"});
        ready();
        pause();
    });
}

void start_daemon()
{
    start_server([](const auto &ready) {
        const site::mgrd daemon{[](const std::string &) { return site::json_answer("[7]"); }};
        ready();
        pause();
    });
}

void lay_out_bridge()
{
    lay_out_device();
    site::put_file("/var/run/ipready.br0", "192.168.9.1\n");
    ASSERT_EQ(0,
              site::run("ip link add br0 type bridge && ip link set br0 up && ip address add 192.168.9.1/24 dev br0 &&"
                        "ip route add 224.0.0.0/4 dev br0"));
}

void parse_and_save()
{
    cfg_entry *all = parse("/tmp/system.cfg");
    if (all) (void)save_cfg(all, "/tmp/saved.cfg");
    free_cfg(all);
}

void report_crash()
{
    const crash_info crash = {"meshd", 733, 11, 3, 86400, CRASH_MINIDUMP, nullptr, 0};
    (void)send_crash(&crash);
}

void run_commands()
{
    char text[64];
    (void)popen_get_output("echo a; echo b", text, sizeof text);
    free(popen_alloc_output("echo a; echo b", 1000));
    const char *argv[] = {"/bin/sh", "-c", "exit 3", nullptr};
    forkexec(const_cast<char **>(argv));
    syswrapper_impl(1, "x", NULL);
}

void discover()
{
    if (vela_protocol_init(0) == 0) (void)vela_protocol_send("hello", 5, 1, 1, 1);
    vela_protocol_deinit();
}

void ask_daemon()
{
    constexpr timeval limit = {1, 0};
    json_decref(service_simple_op("status", &limit));
}

void ask_kernel()
{
    char text[64];
    uint32_t address = 0;
    (void)gateway_get_ip(text, &address, sizeof text);
    json_decref(vela_netif_json(nullptr));
}

const job jobs[] = {
    {"configuration", parse_and_save, [] { lay_out_device(), site::put_file("/tmp/saved.cfg", ""); }},
    {"crash_report", report_crash, start_crash_service},
    {"commands", run_commands, [] { site::put_program("/usr/bin/syswrapper.sh", "exit 0"); }},
    {"discovery", discover, lay_out_bridge},
    {"control_message", ask_daemon, start_daemon},
    {"kernel_questions", ask_kernel, lay_out_bridge},
};

void PrintTo(const job &j, std::ostream *out) { *out << j.name; }

class Sweep : public testing::TestWithParam<job>
{
};

} // namespace

TEST_P(Sweep, EachSystemCallMayFail)
{
    if (!system_calls::can_fail()) GTEST_SKIP() << "this kernel does not ask about system calls";
    const job &j = GetParam();
    j.prepare();
    libvela_log_env_ready = 1; // the lines of other tests would say nothing here
    libvela_log_level = 0;
    j.run(); // makes what is kept

    const leak_check leaks;
    const auto failures = [] {
        return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
    };
    const auto nothing_left = [&] {
        const int before = failures();
        leaks.expect_unchanged();
        return failures() == before ? 0 : 2;
    };
    const auto undisturbed = system_calls::run(j.run, nothing_left, -1, 20);
    ASSERT_EQ(0, undisturbed.status);
    ASSERT_GT(undisturbed.made, 0);
    const int step = std::max(1, undisturbed.made / runs);
    for (int n = 0; n < undisturbed.made; n += step) {
        const auto o = system_calls::run(j.run, nothing_left, n, undisturbed.seconds + grace_s);
        const bool ended = WIFEXITED(o.status) && WEXITSTATUS(o.status) == 1; // for want of memory
        EXPECT_TRUE(o.status == 0 || ended) << "number " << n << ", " << o.failed << ": status " << o.status;
    }
}

INSTANTIATE_TEST_SUITE_P(Jobs, Sweep, testing::ValuesIn(jobs),
                         [](const auto &one) { return std::string(one.param.name); });
