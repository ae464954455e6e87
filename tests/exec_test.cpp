#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/signal_storm.h"

#include <csignal>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vela/core/internal/memory.h>
#include <vela/core/log.h>
#include <vela/exec/exec.h>

using testing::ElementsAre;

namespace
{

constexpr const char *wrapper = "/usr/bin/syswrapper.sh";
using record = std::unique_ptr<exec_record, vela::releaser<exec_destroy>>;

log_line line(const char *level, const char *function, const std::string &text)
{
    return {level, "libvela_exec", function, text};
}

} // namespace

TEST(Exec, RecordsHoldAndCopyCommands)
{
    for (const char *none : {"", static_cast<const char *>(nullptr)}) EXPECT_EQ(nullptr, exec_create(none, "x", NULL));
    EXPECT_EQ(nullptr, exec_copy(nullptr));
    const std::string text(5000, 'p');
    record source{exec_create(text.c_str(), "a", text.c_str(), NULL)};
    EXPECT_EQ(nullptr, source->argv[3]);
    const record copy{exec_copy(source.get())};
    source.reset();
    EXPECT_EQ(copy->path, copy->argv[0]) << "a copy stands by itself";
    EXPECT_THAT(std::vector<std::string>(copy->argv, copy->argv + copy->argc),
                ElementsAre(text.substr(0, 4095), "a", text.substr(0, 4096)));
}

TEST(Exec, ComparesTheNumberOfArgumentsThenTheProgramThenEach)
{
    const record a{exec_create("/bin/x", "1", "2", NULL)};
    EXPECT_EQ(-1, exec_cmp(a.get(), nullptr));
    EXPECT_EQ(0, exec_cmp(a.get(), record{exec_copy(a.get())}.get()));
    EXPECT_EQ(2, exec_cmp(a.get(), record{exec_create("/bin/x", "1", "0", NULL)}.get()));
    EXPECT_EQ(-3, exec_cmp(a.get(), record{exec_create("/bin/y", "0", "2", NULL)}.get()));
    EXPECT_EQ(-2, exec_cmp(a.get(), record{exec_create("/bin/y", "1", NULL)}.get()));
}

TEST(Exec, ForkexecWaitsAndReportsSignals)
{
    log_lines log;
    const leak_check leaks;
    const auto run = [](const char *program, const char *script) {
        const char *argv[] = {program, "-c", script, nullptr};
        forkexec(const_cast<char **>(argv));
    };
    run("/bin/sh", "sleep 0.1; echo done > /var/log/forkexec; exit 3");
    EXPECT_EQ("done\n", site::read_file("/var/log/forkexec"));
    run("/nowhere/program", "");
    EXPECT_THAT(log.take(), testing::IsEmpty()) << "neither a status nor a missing program is told";
    run("/bin/sh", "kill -9 $$");
    syswrapper_impl(1, "x", NULL);
    site::put_program(wrapper, "exit 0");
    const faults::refuse no_fork(faults::call::fork, ENOMEM);
    run("/bin/sh", "true");
    syswrapper_impl(1, "x", NULL);
    EXPECT_THAT(log.take(),
                ElementsAre(line("debug", "forkexec", "[ERROR] exit abnormally. code: 0"),
                            line("debug", "syswrapper_impl", "[ERROR] unable to locate syswrapper.sh, 'x' skipped!"),
                            line("error", "forkexec", "fork failed: Cannot allocate memory"),
                            line("trace", "locate_syswrapper", std::string("syswrapper to use: ") + wrapper),
                            line("error", "syswrapper_impl", "fork failed: Cannot allocate memory")));
    leaks.expect_unchanged();
}

TEST(Exec, WrapperGetsItsArgumentsAndItsCaller)
{
    log_lines log;
    site::put_program(wrapper, R"(sleep 0.2; printf '[%s]' "$SYSWRAPPER_PPID" "$@" >/tmp/part
readlink -f /proc/$$/fd/0 /proc/$$/fd/2 | grep -c /null >>/tmp/part; mv /tmp/part /tmp/call)");
    const std::string caller = std::to_string(getpid());
    int streams[2]; // whatever they were: not /dev/null
    ASSERT_EQ(0, pipe(streams));
    dup2(streams[0], STDIN_FILENO);
    dup2(streams[1], STDERR_FILENO);

    const char *a = "a"; // 49 of them, of which 47 arrive
    syswrapper_impl(1, "x", "", "b c", a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a,
                    a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, NULL);
    std::string arguments = "[x][b c]", joined = "x b c";
    for (int i = 0; i < 47; ++i) arguments += "[a]", joined += " a";
    EXPECT_EQ("[" + caller + "]" + arguments + "0\n", site::read_file("/tmp/call"));
    EXPECT_THAT(log.texts().back(),
                testing::EndsWith(", parent: " + caller + ", command: /usr/bin/syswrapper.sh " + joined + ")"));

    site::remove_file("/tmp/call");
    libvela_log_use_syslog = 1;
    syswrapper_impl(0, "x", NULL);
    EXPECT_FALSE(site::exists("/tmp/call")) << "the caller does not wait";
    for (int tries = 0; tries < 500 && !site::exists("/tmp/call"); ++tries) usleep(10'000);
    EXPECT_EQ("[" + caller + "][x]2\n", site::read_file("/tmp/call"));
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "no child is left to reap";
}

// A child that waited for the environment's lock, held by a thread that is not in the child, would wait for ever.
TEST(Exec, WrapperRunsWhileAnotherThreadSetsVariables)
{
    site::put_program(wrapper, "test $SYSWRAPPER_PPID = $PPID || touch /tmp/wrong");
    setenv("SYSWRAPPER_PPID", "1", 1);
    setenv("BUSY", "", 1);
    std::atomic<bool> done = false;
    std::thread setter{[&] {
        while (!done) setenv("BUSY", "", 1);
    }};
    for (int i = 0; i < 100; ++i) syswrapper_impl(1, "x", NULL);
    done = true;
    setter.join();
    EXPECT_FALSE(site::exists("/tmp/wrong"));
}

TEST(Exec, OutputIsCutToItsBuffer)
{
    log_lines log;
    const leak_check leaks;
    const auto output_of = [](const std::string &command, uint32_t size) { // both readers agree
        const vela::c_string text{popen_alloc_output(command.c_str(), size)};
        std::string buf(size + 1, '#');
        EXPECT_EQ(strlen(text.get()), popen_get_output(command.c_str(), buf.data(), size));
        EXPECT_STREQ(text.get(), buf.c_str());
        EXPECT_EQ('#', buf[size]) << "nothing behind the buffer";
        return std::string(text.get());
    };
    for (const size_t length : {0, 9, 10, 1023, 1024, 5000}) {
        for (const uint32_t size : {1, 10, 1024, 1025, 5001}) {
            const std::string command = "head -c " + std::to_string(length) + " /dev/zero | tr '\\0' x";
            EXPECT_EQ(std::string(std::min<size_t>(length, size - 1), 'x'), output_of(command, size)) << length;
        }
    }
    {
        const signal_storm storm; // a child's end is a signal, too
        EXPECT_EQ("ab", output_of("printf a; sleep 0.1; printf b", 100));
    }
    char buf[8];
    EXPECT_EQ(-1, popen_get_output("touch /tmp/ran", buf, 0));
    log.take(); // a reader that stops early leaves a writer that may complain
    EXPECT_EQ(2, popen_get_output("printf ab; exit 7", buf, sizeof buf));
    free(popen_alloc_output("printf ab; exit 2", 0));
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(1, popen_get_output("printf a", buf, sizeof buf));
    signal(SIGCHLD, SIG_DFL);
    EXPECT_THAT(log.take(), ElementsAre(line("warn", "popen_get_output", "[printf ab; exit 7] -> [1792]"),
                                        line("warn", "popen_alloc_output", "'printf ab; exit 2' returned rc=512"),
                                        line("warn", "popen_get_output",
                                             "error on pclose for[printf a] errno[No child processes]")));
    if (faults::can_refuse_memory) {
        faults::for_each_allocation([] { free(popen_alloc_output("printf '%5000s' ''", 5001)); });
        EXPECT_THAT(log.texts(), testing::IsSupersetOf(
                                     {"Failed to allocate buffer", "Failed to reallocate buffer, output truncated"}));
    }
    leaks.expect_unchanged();
}

TEST(Exec, OutputAsAJsonMember)
{
    log_lines log;
    json_t *object = json_object();
    EXPECT_EQ(0, json_object_capture_popen(object, "none", nullptr));
    EXPECT_EQ(0, json_object_capture_popen(object, "text", "printf 'a\\nb\\0c'"));
    EXPECT_STREQ("a\nb", json_string_value(json_object_get(object, "text")));
    EXPECT_EQ(0, json_object_capture_popen(object, "text", "head -c 2000000 /dev/zero | tr '\\0' x"));
    EXPECT_EQ(1048575U, json_string_length(json_object_get(object, "text")));
    EXPECT_EQ(-1, json_object_capture_popen(object, "raw", "printf '\\377'")) << "not UTF-8";
    EXPECT_EQ(1U, json_object_size(object));
    if (faults::can_refuse_memory) {
        const faults::refuse_memory none;
        EXPECT_EQ(-1, json_object_capture_popen(object, "empty", "true"));
        EXPECT_STREQ("", json_string_value(json_object_get(object, "empty")));
        EXPECT_THAT(log.take(), testing::Contains(log_line{"warn", "crash", "json_object_capture_popen",
                                                           "Failed to capture the output of command true"}));
    }
    json_decref(object);
}
