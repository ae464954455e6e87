#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vela/core/log.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

std::string stderr_of(const std::function<void()> &body)
{
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

void set_environment(const char *verbosity, const char *facilities)
{
    setenv("LIBVELA_VERBOSITY", verbosity, 1);
    setenv("LIBVELA_FACILITIES", facilities, 1);
    libvela_log_init_from_env();
}

} // namespace

TEST(Log, ThresholdFollowsTheNamesAndNothingElse)
{
    EXPECT_EQ(8U, libvela_log_level);
    constexpr struct {
        const char *name;
        uint32_t level;
    } cases[] = {{"error", 2},  {"warn", 4}, {"info", 8},   {"debug", 16},
                 {"trace", 32}, {"5", 32},   {"Error", 32}, {"", 32}};
    for (const auto &c : cases) {
        set_environment(c.name, "");
        EXPECT_EQ(c.level, libvela_log_level) << c.name;
    }
    set_environment("warn", "");
    EXPECT_TRUE(libvela_log_enabled(2));
    EXPECT_FALSE(libvela_log_enabled(3));
    EXPECT_TRUE(libvela_log_enabled(32)) << "a bit beyond the word always passes";
}

TEST(Log, SinksAreWordsAnywhereInTheValue)
{
    constexpr struct {
        const char *value;
        int syslog, standard_error, kmsg;
    } cases[] = {{"kmsg", 0, 0, 1}, {"stderr,syslog", 1, 1, 0}, {"syslogstderrkmsg", 1, 1, 1}, {"none", 0, 0, 0}};
    for (const auto &c : cases) {
        set_environment("", c.value);
        EXPECT_EQ(c.syslog, libvela_log_use_syslog) << c.value;
        EXPECT_EQ(c.standard_error, libvela_log_use_stderr) << c.value;
        EXPECT_EQ(c.kmsg, libvela_log_use_kmsg) << c.value;
    }
}

TEST(Log, StandardErrorLinesEndOnceOrWithANul)
{
    set_environment("", "stderr");
    EXPECT_EQ("[warn ] a 7\n", stderr_of([] { libvela_log(2, "m", "f", "a %d", 7); }));
    EXPECT_EQ(std::string("[error] b\n\0", 11), stderr_of([] { libvela_log(1, "m", "f", "b\n"); }));
    EXPECT_EQ("[     ] odd\n", stderr_of([] { libvela_log(9, "m", "f", "odd"); })) << "a level without a name";
}

TEST(Log, SystemLogGetsPriorityAndOrigin)
{
    const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    ASSERT_EQ(0, bind(log, reinterpret_cast<const sockaddr *>(&address), sizeof address));
    site::put_file("/var/log/messages", "begun\n");
    set_environment("", "syslog");
    libvela_log(4, "cfg", "parse", "text %s", "here");
    char record[256] = {};
    ASSERT_GT(recv(log, record, sizeof record - 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(0, strncmp(record, "<15>", 4)) << "user facility, debug: " << record;
    EXPECT_THAT(record, HasSubstr("log_test[" + std::to_string(getpid()) + "]: cfg.parse(): text here"));
    close(log);
}

TEST(Log, EmptySystemLogDivertsToTheKernelLogOnce)
{
    log_lines kernel;
    set_environment("", "syslog,kmsg");
    site::put_file("/var/log/messages", "");
    libvela_log(3, "mod", "fn", "diverted");
    EXPECT_THAT(kernel.take(), ElementsAre(log_line{"info", "mod", "fn", "diverted"}));
}

TEST(Log, KeepsErrno)
{
    set_environment("", "syslog,stderr,kmsg");
    errno = EXDEV;
    stderr_of([] { libvela_log(1, "m", "f", "x"); });
    EXPECT_EQ(EXDEV, errno);
}

TEST(Log, LosingAMessageEndsTheProcess)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    EXPECT_EXIT(
        {
            const faults::refuse_memory none(0, true);
            libvela_log(1, "m", "f", "x");
        },
        testing::ExitedWithCode(1), "log:220: Out of memory");
}

TEST(Log, JsonLinesAreNumberedAndCutAtTheBudget)
{
    log_lines kernel;
    json_t *document = json_pack("{s:i}", "a", 1);
    libvela_log_json(5, "mod", "fn", document, "title");
    EXPECT_THAT(kernel.texts(),
                ElementsAre("JSON -     : title", "JSON -    1: {", "JSON -    2:     \"a\": 1", "JSON -    3: }"));

    libvela_log_json(5, "mod", "fn", nullptr, nullptr);
    EXPECT_THAT(kernel.texts(), ElementsAre("JSON -     : null data"));

    // The budget counts the program's name twice, the process id, module and function.
    const size_t prefix = 2 * strlen(program_invocation_short_name) + std::to_string(getpid()).size() + strlen("mod") +
                          strlen("fn") + strlen(": []: .(): JSON -     : ");
    const size_t budget = 960 - prefix;
    for (const size_t over : {size_t{0}, size_t{1}, budget}) {
        const std::string line(budget + over, 'x');
        json_t *array = json_array();
        json_array_append_new(array, json_string(line.substr(strlen("    \"\"")).c_str()));
        libvela_log_json(5, "mod", "fn", array, nullptr);
        const auto texts = kernel.texts();
        ASSERT_EQ(3 + (over + budget - 1) / budget, texts.size()) << "over by " << over;
        EXPECT_EQ(strlen("JSON -    2: ") + budget, texts[1].size());
        if (over != 0) {
            EXPECT_EQ(0U, texts[2].find("JSON -     : ")) << "a continuation carries no number";
        }
        json_decref(array);
    }
    json_decref(document);
}

TEST(Log, HexLines)
{
    log_lines kernel;
    uint8_t bytes[17];
    for (uint8_t i = 0; i < 17; ++i) bytes[i] = i;
    libvela_log_hex(5, "mod", "fn", bytes, 17, nullptr);
    const auto texts = kernel.texts();
    ASSERT_EQ(3U, texts.size());
    EXPECT_THAT(texts[0], testing::MatchesRegex(" - HEX\\(0x[0-9a-f]+\\) len 17"));
    EXPECT_EQ("00000000: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f", texts[1]);
    EXPECT_EQ("00000010: 10", texts[2]);

    libvela_log_hex(5, "mod", "fn", bytes, 16, "t");
    EXPECT_EQ(2U, kernel.take().size());
    libvela_log_hex(5, "mod", "fn", bytes, -1, "t");
    EXPECT_EQ(1U, kernel.take().size());
}
