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
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

constexpr const char *wrapper = "/usr/bin/syswrapper.sh";
constexpr const char *wrapper_record = "/tmp/wrapper.ran";

/// A wrapper script that writes down how it was called, in one go.
void put_recording_wrapper()
{
    site::put_program(wrapper, R"sh(
        {
            echo "$0"; for argument; do echo "[$argument]"; done
            echo "parent $SYSWRAPPER_PPID, streams $(readlink /proc/$$/fd/0) $(readlink /proc/$$/fd/2)"
        } > /tmp/wrapper.part
        mv /tmp/wrapper.part /tmp/wrapper.ran)sh");
}

/// What a wrapper running by itself wrote, once it has.
std::string detached_record()
{
    for (int tries = 0; tries < 500 && !site::exists(wrapper_record); ++tries) usleep(10'000);
    return site::read_file(wrapper_record);
}

std::string recorded_call(const std::string &arguments, const std::string &streams)
{
    return std::string(wrapper) + "\n" + arguments + "parent " + std::to_string(getpid()) + ", streams " + streams +
           "\n";
}

std::string repeated(const std::string &text, int times)
{
    std::string all;
    while (times-- > 0) all += text;
    return all;
}

std::string taken(char *text)
{
    const std::string copy = text ? text : "(null)";
    free(text);
    return copy;
}

} // namespace

TEST(Exec, RecordHoldsPathAndArguments)
{
    EXPECT_EQ(nullptr, exec_create(nullptr, NULL));
    EXPECT_EQ(nullptr, exec_create("", "x", NULL));
    exec_record *bare = exec_create("/bin/x", NULL);
    EXPECT_EQ(1, bare->argc);
    EXPECT_EQ(bare->path, bare->argv[0]);
    EXPECT_EQ(nullptr, bare->argv[1]);

    const std::string long_text(5000, 'p');
    exec_record *record = exec_create(long_text.c_str(), "a", long_text.c_str(), NULL);
    EXPECT_EQ(std::string(4095, 'p'), record->path);
    EXPECT_EQ(3, record->argc);
    EXPECT_STREQ("a", record->argv[1]);
    EXPECT_EQ(std::string(4096, 'p'), record->argv[2]);
    EXPECT_EQ(nullptr, record->argv[3]);

    exec_record *copy = exec_copy(record);
    EXPECT_EQ(copy->path, copy->argv[0]);
    EXPECT_EQ(0, exec_cmp(record, copy));
    EXPECT_NE(record->argv[1], copy->argv[1]);
    exec_destroy(record);
    EXPECT_STREQ("a", copy->argv[1]) << "a copy stands by itself";
    for (exec_record *each : {copy, bare}) exec_destroy(each);
    exec_destroy(nullptr);
    EXPECT_EQ(nullptr, exec_copy(nullptr));
}

TEST(Exec, ComparisonNamesTheFirstDifference)
{
    exec_record *a = exec_create("/bin/x", "1", "2", "3", NULL);
    const struct {
        exec_record *b;
        int32_t result;
    } cases[] = {
        {nullptr, -1},
        {exec_create("/bin/x", "1", "2", "3", NULL), 0},
        {exec_create("/bin/y", "1", "2", NULL), -2},
        {exec_create("/bin/y", "0", "2", "3", NULL), -3},
        {exec_create("/bin/x", "1", "0", "0", NULL), 2},
        {exec_create("/bin/x", "1", "2", "", NULL), 3},
    };
    for (const auto &[b, result] : cases) {
        EXPECT_EQ(result, exec_cmp(a, b));
        EXPECT_EQ(result, exec_cmp(b, a));
        exec_destroy(b);
    }
    EXPECT_EQ(0, exec_cmp(a, a));
    exec_destroy(a);
}

TEST(Exec, RecordsSurviveShortMemory)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    exec_record *source = exec_create("/bin/x", "1", "2", NULL);
    int made = 0;
    faults::for_each_allocation([&] {
        exec_record *record = exec_copy(source);
        if (record) ++made;
        exec_destroy(record);
    });
    EXPECT_EQ(3, made) << "two lost arguments and one whole copy; without record or argv there is none";
    exec_destroy(source);
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
    EXPECT_THAT(log.take(),
                ElementsAre(log_line{"debug", "libvela_exec", "forkexec", "[ERROR] exit abnormally. code: 0"}));

    syswrapper_impl(1, "x", NULL);
    put_recording_wrapper();
    const faults::refuse no_fork(faults::call::fork, ENOMEM);
    run("/bin/sh", "true");
    syswrapper_impl(1, "x", NULL);
    EXPECT_THAT(
        log.take(),
        ElementsAre(
            log_line{"debug", "libvela_exec", "syswrapper_impl",
                     "[ERROR] unable to locate syswrapper.sh, 'x' skipped!"},
            log_line{"error", "libvela_exec", "forkexec", "fork failed: Cannot allocate memory"},
            log_line{"trace", "libvela_exec", "locate_syswrapper", std::string("syswrapper to use: ") + wrapper},
            log_line{"error", "libvela_exec", "syswrapper_impl", "fork failed: Cannot allocate memory"}));
    leaks.expect_unchanged();
}

TEST(Exec, WrapperGetsItsArgumentsAndItsCaller)
{
    put_recording_wrapper();
    log_lines log;
    const leak_check leaks;
    const std::string input = std::filesystem::read_symlink("/proc/self/fd/0");
    const std::string errors = std::filesystem::read_symlink("/proc/self/fd/2");
    syswrapper_impl(1, "x", "", "y z", "", NULL);
    EXPECT_EQ(recorded_call("[x]\n[y z]\n", input + " " + errors), site::read_file(wrapper_record));
    EXPECT_THAT(log.take().back().text,
                testing::MatchesRegex("Executing syswrapper command \\(pid: [0-9]+, parent: " +
                                      std::to_string(getpid()) + ", command: " + wrapper + " x y z\\)"));

    // 60 arguments behind the command, one of them empty: 48 arrive.
    site::remove_file(wrapper_record);
    const char *a = "a";
    syswrapper_impl(1, "x", "", a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a,
                    a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, NULL);
    EXPECT_EQ(recorded_call("[x]\n" + repeated("[a]\n", 48), input + " " + errors), site::read_file(wrapper_record));
    site::remove_file(wrapper_record);
    leaks.expect_unchanged();
}

TEST(Exec, WrapperRunsOnByItselfAndWithoutStreamsUnderTheSystemLog)
{
    site::put_program(wrapper, "sleep 0.3; echo \"$1\" > /tmp/wrapper.ran");
    setenv("LIBVELA_FACILITIES", "syslog", 1);
    syswrapper_impl(0, "slow", NULL);
    EXPECT_FALSE(site::exists(wrapper_record)) << "the caller does not wait";
    EXPECT_EQ("slow\n", detached_record());
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "no child is left to reap";

    site::remove_file(wrapper_record);
    put_recording_wrapper();
    syswrapper_impl(0, "x", NULL);
    const std::string null = std::filesystem::canonical("/dev/null");
    EXPECT_EQ(recorded_call("[x]\n", null + " " + null), detached_record());
}

TEST(Exec, OutputIntoABuffer)
{
    log_lines log;
    const leak_check leaks;
    const struct {
        const char *command;
        uint32_t size;
        int32_t result;
        const char *text;
    } cases[] = {{"printf 0123456789", 4, 3, "012"},
                 {"printf 0123456789", 10, 9, "012345678"},
                 {"printf 0123456789", 11, 10, "0123456789"},
                 {"printf 0123456789", 1, 0, ""},
                 {"true", 8, 0, ""}};
    for (const auto &c : cases) {
        std::string buf(16, '#');
        EXPECT_EQ(c.result, popen_get_output(c.command, buf.data(), c.size)) << c.command << " into " << c.size;
        EXPECT_STREQ(c.text, buf.c_str());
        EXPECT_EQ('#', buf[c.size]) << "nothing behind the buffer";
    }
    EXPECT_THAT(log.take(), IsEmpty());

    char buf[8];
    EXPECT_EQ(-1, popen_get_output("touch /var/log/ran", buf, 0));
    EXPECT_FALSE(site::exists("/var/log/ran"));
    EXPECT_EQ(2, popen_get_output("printf ab; exit 7", buf, sizeof buf));
    EXPECT_THAT(log.take(),
                ElementsAre(log_line{"warn", "libvela_exec", "popen_get_output", "[printf ab; exit 7] -> [1792]"}));
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(1, popen_get_output("printf a", buf, sizeof buf));
    signal(SIGCHLD, SIG_DFL);
    EXPECT_THAT(log.texts(), ElementsAre("error on pclose for[printf a] errno[No child processes]"));
    leaks.expect_unchanged();
}

TEST(Exec, OutputIntoAGrowingText)
{
    log_lines log;
    const leak_check leaks;
    for (const size_t length : {0, 99, 100, 1023, 1024, 1025, 5000}) {
        for (const size_t max : {0, 1, 100, 1024, 1025, 5001}) {
            const std::string command = "head -c " + std::to_string(length) + " /dev/zero | tr '\\0' x";
            const size_t kept = std::min(length, max == 0 ? 0 : max - 1);
            // A reader that stops early may leave a writer that complains by its status: only the text counts here.
            EXPECT_EQ(std::string(kept, 'x'), taken(popen_alloc_output(command.c_str(), static_cast<uint32_t>(max))))
                << length << " bytes, at most " << max;
        }
    }
    log.take();
    EXPECT_EQ("ab", taken(popen_alloc_output("printf ab; exit 2", 100)));
    EXPECT_THAT(log.take(), ElementsAre(log_line{"warn", "libvela_exec", "popen_alloc_output",
                                                 "'printf ab; exit 2' returned rc=512"}));
    leaks.expect_unchanged();

    if (!faults::can_refuse_memory) return;
    {
        const faults::refuse_memory none;
        EXPECT_EQ(nullptr, popen_alloc_output("true", 100));
    }
    EXPECT_THAT(log.texts(), ElementsAre("Failed to allocate buffer"));
    bool truncated = false;
    faults::for_each_allocation([&] {
        char *text = popen_alloc_output("printf '%5000s' ''", 5001);
        truncated |= text && strlen(text) < 5000;
        free(text);
    });
    EXPECT_TRUE(truncated);
    EXPECT_THAT(log.texts(), Contains("Failed to reallocate buffer, output truncated"));
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
    log.take();
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
