// On a fresh procfs of this world, against ps, with children that are called, stopped and ended as the test likes.
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/table.h"

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <grp.h>
#include <map>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vela/board/status.h>
#include <vela/monitor/process.h>

namespace
{

void mount_proc(const char *options = "") { ASSERT_EQ(0, mount("proc", "/proc", "proc", 0, options)); }

/// A child that is called so, and rests after its work until the test ends. Returns when it rests, or has become
/// another program.
struct child {
    explicit child(const char *name, const std::function<void()> &work = nullptr)
    {
        int resting[2];
        EXPECT_EQ(0, pipe2(resting, O_CLOEXEC));
        pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_NAME, name);
            if (work) work();
            close(resting[1]);
            for (;;) pause();
        }
        close(resting[1]);
        char byte;
        (void)!read(resting[0], &byte, 1);
        close(resting[0]);
    }
    child(const child &) = delete;
    ~child() { kill(pid, SIGKILL), waitpid(pid, nullptr, 0); }
    pid_t pid;
};

struct listing {
    explicit listing(uint32_t wants = 0) : result{vela_process_foreach(wants, add, &processes)} {}
    static int add(const vela_process *p, void *into)
    {
        EXPECT_TRUE(static_cast<decltype(processes) *>(into)->emplace(p->pid, *p).second) << p->pid << " twice";
        return 0;
    }
    std::map<int32_t, vela_process> processes;
    int result;
};

vela_process get(pid_t pid, uint32_t wants = 0)
{
    vela_process p = {};
    EXPECT_EQ(0, vela_process_get(pid, wants, &p)) << pid;
    return p;
}

} // namespace

TEST(Process, AgreesWithPs)
{
    mount_proc();
    const child stopped("stopped"), ended("ended", [] { _exit(0); });
    siginfo_t what;
    kill(stopped.pid, SIGSTOP);
    waitid(P_PID, static_cast<id_t>(stopped.pid), &what, WSTOPPED | WNOWAIT);
    waitid(P_PID, static_cast<id_t>(ended.pid), &what, WEXITED | WNOWAIT);
    const child sleeping("", [] { execlp("sleep", "sleep", "1000", nullptr); });
    const child busy("busy", [] {
        std::thread([] { pause(); }).detach();
        memset(malloc(20 << 20), 1, 20 << 20);
        while (clock() < CLOCKS_PER_SEC * 6 / 5) {}
    });
    while (get(busy.pid).state != 'S' || get(busy.pid).cpu_ms < 1100) usleep(50'000);
    const listing ours{VELA_PROCESS_CMDLINE};
    std::istringstream ps(site::output_of("ps -eo pid=,ppid=,euid=,nlwp=,s=,rss=,vsz=,cputimes=,etimes=,args="));
    const unsigned uptime = get_uptime_from_proc();
    int compared = 0;
    for (std::string line; std::getline(ps, line);) {
        std::istringstream fields(line);
        vela_process p = {};
        uint64_t cpu_s = 0, elapsed_s = 0;
        std::string args;
        fields >> p.pid >> p.ppid >> p.uid >> p.threads >> p.state >> p.rss_kb >> p.virtual_kb >> cpu_s >> elapsed_s;
        std::getline(fields >> std::ws, args);
        const auto found = ours.processes.find(p.pid);
        if (found == ours.processes.end() || p.pid == getpid()) continue;
        const vela_process &q = found->second;
        EXPECT_EQ(std::tie(p.ppid, p.uid, p.threads, p.state), std::tie(q.ppid, q.uid, q.threads, q.state)) << line;
        EXPECT_EQ(std::tie(p.rss_kb, p.virtual_kb), std::tie(q.rss_kb, q.virtual_kb)) << line;
        EXPECT_EQ(cpu_s, q.cpu_ms / 1000) << line;
        EXPECT_NEAR(elapsed_s, uptime - q.start_ms / 1000, 1) << line;
        EXPECT_EQ(args,
                  *q.cmdline ? q.cmdline : "[" + std::string(q.name) + "]" + (q.state == 'Z' ? " <defunct>" : ""));
        ++compared;
    }
    EXPECT_GE(compared, 4);
}

TEST(Process, NamesAndCommandLinesHoldAnything)
{
    mount_proc();
    for (const std::string name :
         {"a) R 1 (b", "two words", "line\nfeed", "back\\slash\\n", "(", ")", "\xc3\xa9t\xff"}) {
        const child called(name.c_str());
        EXPECT_EQ(name, get(called.pid).name);
    }
    const auto x = [](size_t n) { return std::string(n, 'x'); };
    for (const auto &[first, whole] : table<std::string, std::string>{{"", " 1000"},
                                                                      {"a b\n\x1b[2J\x7f", "a b??[2J? 1000"},
                                                                      {x(300), x(255)},
                                                                      {x(254) + "\xc3\xa9", x(254)},
                                                                      {x(253) + "\xc3\xa9", x(253) + "\xc3\xa9"}}) {
        const child called("", [&first = first] { execl("/bin/sleep", first.c_str(), "1000", nullptr); });
        EXPECT_EQ(whole, get(called.pid, VELA_PROCESS_CMDLINE).cmdline);
        EXPECT_STREQ("", get(called.pid).cmdline) << "not asked for";
    }
    const child called("", [] { execl("/bin/sleep", "\xe9", "1000", nullptr); });
    const vela::json_ref all{vela_process_json(VELA_PROCESS_CMDLINE)};
    const std::string last = dumped(json_array_get(all.get(), json_array_size(all.get()) - 1));
    EXPECT_EQ(0U, last.find(R"({"cmdline":"? 1000","cpu_ms":0,"name":"sleep","pid":)")) << last << ": UTF-8, no fds";
}

TEST(Process, StatThatIsNone)
{
    ASSERT_EQ(0, mount("empty", "/proc", "tmpfs", 0, ""));
    EXPECT_EQ(0, listing().result);
    vela_process p = {};
    EXPECT_EQ(-ENOENT, vela_process_get(1, 0, &p));
    const std::string rest = " S 1 2 3 4 5 6 7 8 9 10 150 50 13 14 15 16 2 18 100 8192 21";
    site::put_file("/proc/7/statm", "3 2 1\n");
    for (const auto &[text, result] : table<std::string, int>{{"7 (a)" + rest, 0},
                                                              {"7 (a)" + rest.substr(0, rest.size() - 8), -ENOENT},
                                                              {"7 a" + rest, -ENOENT},
                                                              {"7 )a(" + rest, -ENOENT},
                                                              {"7 (a) SS" + rest.substr(2), -ENOENT},
                                                              {"99999999999 (a)" + rest, -ENOENT},
                                                              {"", -ENOENT}}) {
        site::put_file("/proc/7/stat", text);
        EXPECT_EQ(result, vela_process_get(7, 0, &p)) << text;
        EXPECT_EQ(result == 0 ? 1 : 0, listing().result) << text;
    }
    EXPECT_EQ(std::make_tuple(7, 1, 2U, 2000U, 1000U, 8U),
              std::tie(p.pid, p.ppid, p.threads, p.cpu_ms, p.start_ms, p.virtual_kb));
    for (const auto &[pid, wants, out] :
         table<int, uint32_t, vela_process *>{{0, 0, &p}, {-1, 0, &p}, {7, 4, &p}, {7, 0, nullptr}})
        EXPECT_EQ(-EINVAL, vela_process_get(pid, wants, out));
    EXPECT_EQ(-EINVAL, vela_process_foreach(0, nullptr, nullptr));
    umount("/proc"); // the leak sanitizer reads the world's own
}

TEST(Process, WhatIsNotOursToSee)
{
    if (setgroups(0, nullptr) != 0) GTEST_SKIP() << "there is no other user in an unprivileged world";
    mount_proc();
    const child closed("closed", [] { close_range(0, ~0U, 0); }), mine("mine", [] {
        (void)!setgid(65534), (void)!setuid(65534);
        execlp("sleep", "sleep", "1000", nullptr);
    });
    EXPECT_EQ(0U, get(closed.pid, VELA_PROCESS_FDS).fds);
    EXPECT_EQ(65534U, get(mine.pid).uid);
    const auto as_nobody = [](auto look) {
        ASSERT_TRUE(setegid(65534) == 0 && seteuid(65534) == 0); // root's group would be let in
        look();
        ASSERT_TRUE(seteuid(0) == 0 && setegid(0) == 0);
    };
    vela_process p = {};
    as_nobody([&] {
        EXPECT_EQ(UINT32_MAX, get(closed.pid, VELA_PROCESS_FDS).fds);
        EXPECT_EQ(1U, listing().processes.count(closed.pid));
    });
    for (const auto &[option, result] : table<const char *, int>{{"hidepid=1", -EPERM}, {"hidepid=2", -ENOENT}}) {
        mount_proc(option);
        as_nobody([&, result = result] {
            EXPECT_EQ(result, vela_process_get(closed.pid, 0, &p));
            EXPECT_EQ(0, vela_process_get(mine.pid, 0, &p));
            const listing seen;
            EXPECT_TRUE(seen.result >= 1 && seen.processes.count(mine.pid) && !seen.processes.count(closed.pid));
        });
    }
    const auto nothing = [](const vela_process *, void *) { return 0; };
    const auto without_memory = [&] {
        const faults::refuse_memory all(0, true);
        return vela_process_foreach(VELA_PROCESS_CMDLINE | VELA_PROCESS_FDS, nothing, nullptr);
    };
    EXPECT_GE(without_memory(), 3);
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const int one = vela_process_get(getpid(), 0, &p), all = listing().result;
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(-EMFILE, one);
    EXPECT_EQ(-EMFILE, all);
}

TEST(Process, SeenFromAnotherNamespace)
{
    mount_proc();
    const child unshared("unshared", [] {
        if (unshare(CLONE_NEWPID) != 0) return;
        if (fork() == 0) { // numbers are those of the mount: 1 is another process
            vela_process p = {};
            _exit(getpid() == 1 && vela_process_get(1, 0, &p) == 0 && p.ppid == 0 && listing().result >= 4 ? 7 : 1);
        }
        int status = 0;
        wait(&status);
        prctl(PR_SET_NAME, WEXITSTATUS(status) == 7 ? "right" : "wrong");
    });
    EXPECT_STREQ("right", get(unshared.pid).name);
}

TEST(Process, FiveHundredEndWhileListed)
{
    mount_proc();
    signal(SIGCHLD, SIG_IGN);
    const leak_check leaks;
    int start[2];
    ASSERT_EQ(0, pipe(start));
    for (useconds_t i = 0; i < 500; ++i) {
        if (fork() != 0) continue;
        prctl(PR_SET_NAME, "dying");
        close(start[1]);
        char byte;
        (void)!read(start[0], &byte, 1); // until all are there
        usleep(500 * i);
        _exit(0);
    }
    close(start[0]);
    const auto count_listed = [] {
        const listing seen{VELA_PROCESS_CMDLINE | VELA_PROCESS_FDS};
        EXPECT_GE(seen.result, 0);
        size_t count = 0;
        for (const auto &[pid, p] : seen.processes) {
            if (p.ppid != getpid()) continue;
            ++count;
            EXPECT_TRUE(strncmp(p.name, "dying", 5) == 0 || strncmp(p.name, "process_test", 12) == 0) << p.name;
        }
        return count;
    };
    EXPECT_EQ(500U, count_listed());
    close(start[1]);
    while (count_listed() > 0) {}
    leaks.expect_unchanged();
}
