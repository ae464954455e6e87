#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vela/exec/exec.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

const std::string wrapper = "/usr/bin/syswrapper.sh";
constexpr const char *record = "/tmp/wrapper.ran"; // how the wrapper was called, written in one go

constexpr const char *recording_wrapper = R"sh({
    echo "$0"; for argument; do echo "[$argument]"; done
    echo "parent $SYSWRAPPER_PPID, streams $(readlink /proc/$$/fd/0) $(readlink /proc/$$/fd/2)"
} > /tmp/wrapper.part; mv /tmp/wrapper.part /tmp/wrapper.ran)sh";

std::string call(const std::string &arguments, const std::string &input, const std::string &errors)
{
    return wrapper + "\n" + arguments + "parent " + std::to_string(getpid()) + ", streams " + input + " " + errors +
           "\n";
}

} // namespace

TEST(Exec, RecordsHoldCopyAndCompareCommands)
{
    EXPECT_EQ(nullptr, exec_create(nullptr, NULL));
    EXPECT_EQ(nullptr, exec_create("", "x", NULL));
    EXPECT_EQ(nullptr, exec_copy(nullptr));
    exec_destroy(nullptr);

    const std::string long_text(5000, 'p');
    exec_record *source = exec_create(long_text.c_str(), "a", long_text.c_str(), NULL);
    EXPECT_EQ(source->path, source->argv[0]);
    EXPECT_EQ(long_text.substr(0, 4095), source->path);
    EXPECT_EQ(long_text.substr(0, 4096), source->argv[2]);
    EXPECT_EQ(nullptr, source->argv[3]);
    if (faults::can_refuse_memory) {
        int made = 0;
        faults::for_each_allocation([&] {
            exec_record *copy = exec_copy(source);
            if (copy) ++made;
            exec_destroy(copy);
        });
        EXPECT_EQ(3, made) << "two that lost an argument, and a whole one";
    }
    exec_record *copy = exec_copy(source);
    exec_destroy(source);
    EXPECT_EQ(copy->path, copy->argv[0]) << "a copy stands by itself";
    EXPECT_STREQ("a", copy->argv[1]);
    exec_destroy(copy);

    exec_record *a = exec_create("/bin/x", "1", "2", "3", NULL);
    const struct {
        exec_record *b;
        int32_t result;
    } cases[] = {{nullptr, -1},
                 {exec_create("/bin/x", "1", "2", "3", NULL), 0},
                 {exec_create("/bin/y", "1", "2", NULL), -2},
                 {exec_create("/bin/y", "0", "2", "3", NULL), -3},
                 {exec_create("/bin/x", "1", "0", "0", NULL), 2}};
    for (const auto &[b, result] : cases) {
        EXPECT_EQ(result, exec_cmp(a, b));
        exec_destroy(b);
    }
    exec_destroy(a);
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
    EXPECT_THAT(log.take(), IsEmpty()) << "neither a status nor a missing program is told";
    run("/bin/sh", "kill -9 $$");
    syswrapper_impl(1, "x", NULL);
    site::put_program(wrapper, recording_wrapper);
    const faults::refuse no_fork(faults::call::fork, ENOMEM);
    run("/bin/sh", "true");
    syswrapper_impl(1, "x", NULL);
    const auto line = [](const char *level, const char *function, const std::string &text) {
        return log_line{level, "libvela_exec", function, text};
    };
    EXPECT_THAT(log.take(),
                ElementsAre(line("debug", "forkexec", "[ERROR] exit abnormally. code: 0"),
                            line("debug", "syswrapper_impl", "[ERROR] unable to locate syswrapper.sh, 'x' skipped!"),
                            line("error", "forkexec", "fork failed: Cannot allocate memory"),
                            line("trace", "locate_syswrapper", "syswrapper to use: " + wrapper),
                            line("error", "syswrapper_impl", "fork failed: Cannot allocate memory")));
    leaks.expect_unchanged();
}

TEST(Exec, WrapperGetsItsArgumentsAndItsCaller)
{
    site::put_program(wrapper, recording_wrapper);
    log_lines log;
    const std::string input = std::filesystem::read_symlink("/proc/self/fd/0");
    const std::string errors = std::filesystem::read_symlink("/proc/self/fd/2");
    syswrapper_impl(1, "x", "", "y z", "", NULL);
    EXPECT_EQ(call("[x]\n[y z]\n", input, errors), site::read_file(record));
    EXPECT_THAT(log.take().back().text,
                testing::MatchesRegex("Executing syswrapper command \\(pid: [0-9]+, parent: " +
                                      std::to_string(getpid()) + ", command: " + wrapper + " x y z\\)"));

    const char *a = "a"; // 50 of them, of which 48 arrive
    syswrapper_impl(1, "x", "", a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a,
                    a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, NULL);
    std::string arguments = "[x]\n";
    for (int i = 0; i < 48; ++i) arguments += "[a]\n";
    EXPECT_EQ(call(arguments, input, errors), site::read_file(record));
}

TEST(Exec, WrapperRunsOnByItselfAndWithoutStreamsUnderTheSystemLog)
{
    site::put_program(wrapper, std::string("sleep 0.3\n") + recording_wrapper);
    site::remove_file(record);
    setenv("LIBVELA_FACILITIES", "syslog", 1);
    syswrapper_impl(0, "x", NULL);
    EXPECT_FALSE(site::exists(record)) << "the caller does not wait";
    for (int tries = 0; tries < 500 && !site::exists(record); ++tries) usleep(10'000);
    const std::string null = std::filesystem::canonical("/dev/null");
    EXPECT_EQ(call("[x]\n", null, null), site::read_file(record));
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "no child is left to reap";
}

TEST(Exec, OutputIsCutToItsBuffer)
{
    log_lines log;
    const leak_check leaks;
    for (const size_t length : {0, 9, 10, 1023, 1024, 5000}) {
        const std::string command = "head -c " + std::to_string(length) + " /dev/zero | tr '\\0' x";
        for (const size_t size : {0, 1, 10, 1024, 1025, 5001}) {
            const std::string kept(std::min(length, std::max(size, size_t{1}) - 1), 'x');
            char *text = popen_alloc_output(command.c_str(), static_cast<uint32_t>(size));
            EXPECT_STREQ(kept.c_str(), text) << length << " bytes, at most " << size;
            free(text);
            if (size == 0) continue;
            std::string buf(size + 1, '#');
            EXPECT_EQ(kept.size(), popen_get_output(command.c_str(), buf.data(), static_cast<uint32_t>(size)));
            EXPECT_STREQ(kept.c_str(), buf.c_str());
            EXPECT_EQ('#', buf[size]) << "nothing behind the buffer";
        }
    }
    char buf[8];
    EXPECT_EQ(-1, popen_get_output("touch /tmp/ran", buf, 0));
    log.take(); // a reader that stops early leaves a writer that may complain
    EXPECT_EQ(2, popen_get_output("printf ab; exit 7", buf, sizeof buf));
    free(popen_alloc_output("printf ab; exit 2", 100));
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(1, popen_get_output("printf a", buf, sizeof buf));
    EXPECT_THAT(
        log.take(),
        ElementsAre(log_line{"warn", "libvela_exec", "popen_get_output", "[printf ab; exit 7] -> [1792]"},
                    log_line{"warn", "libvela_exec", "popen_alloc_output", "'printf ab; exit 2' returned rc=512"},
                    log_line{"warn", "libvela_exec", "popen_get_output",
                             "error on pclose for[printf a] errno[No child processes]"}));
    signal(SIGCHLD, SIG_DFL);
    if (faults::can_refuse_memory) {
        bool truncated = false;
        faults::for_each_allocation([&] {
            char *text = popen_alloc_output("printf '%5000s' ''", 5001);
            truncated |= text && strlen(text) < 5000;
            free(text);
        });
        EXPECT_TRUE(truncated);
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
    EXPECT_EQ(0U, json_object_size(object));
    EXPECT_EQ(0, json_object_capture_popen(object, "text", "printf 'a\\nb\\0c'"));
    EXPECT_STREQ("a\nb", json_string_value(json_object_get(object, "text")));
    EXPECT_EQ(0, json_object_capture_popen(object, "text", "head -c 2000000 /dev/zero | tr '\\0' x"));
    EXPECT_EQ(1048575U, json_string_length(json_object_get(object, "text")));
    EXPECT_EQ(-1, json_object_capture_popen(object, "raw", "printf '\\377'")) << "not UTF-8";
    EXPECT_EQ(nullptr, json_object_get(object, "raw"));
    if (faults::can_refuse_memory) {
        const faults::refuse_memory none;
        EXPECT_EQ(-1, json_object_capture_popen(object, "empty", "true"));
        EXPECT_STREQ("", json_string_value(json_object_get(object, "empty")));
        EXPECT_THAT(log.take(), Contains(log_line{"warn", "crash", "json_object_capture_popen",
                                                  "Failed to capture the output of command true"}));
    }
    json_decref(object);
}
