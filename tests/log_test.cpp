#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vela/core/internal/json.h>
#include <vela/core/log.h>

using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

void set_environment(const char *verbosity, const char *facilities)
{
    setenv("LIBVELA_VERBOSITY", verbosity, 1);
    setenv("LIBVELA_FACILITIES", facilities, 1);
    libvela_log_init_from_env();
}

} // namespace

TEST(Log, EnvironmentNamesThresholdAndSinks)
{
    const table<const char *, const char *, uint32_t, int, int, int> cases = {// what is no level changes nothing
                                                                              {"", "", 8, 1, 1, 0},
                                                                              {"trace", "kmsg", 32, 0, 0, 1},
                                                                              {"5", "stderr,syslog", 32, 1, 1, 0},
                                                                              {"Error", "x", 32, 0, 0, 0},
                                                                              {"warn", "syslogstderrkmsg", 4, 1, 1, 1}};
    for (const auto &[verbosity, facilities, level, syslog, standard_error, kmsg] : cases) {
        set_environment(verbosity, facilities);
        EXPECT_EQ(level, libvela_log_level) << verbosity;
        const int sinks[] = {libvela_log_use_syslog, libvela_log_use_stderr, libvela_log_use_kmsg};
        EXPECT_THAT(sinks, ElementsAre(syslog, standard_error, kmsg)) << facilities;
    }
    EXPECT_TRUE(libvela_log_enabled(2));
    EXPECT_FALSE(libvela_log_enabled(3));
    EXPECT_TRUE(libvela_log_enabled(32)) << "no bit left: always passes";
}

TEST(Log, StandardErrorLinesEndOnceOrWithANulOrEndTheProcess)
{
    set_environment("", "stderr");
    testing::internal::CaptureStderr();
    libvela_log(2, "m", "f", "a %d", 7);
    libvela_log(1, "m", "f", "b\n");
    libvela_log(9, "m", "f", "odd"); // a level without a name
    EXPECT_EQ("[warn ] a 7\n[error] b\n\0[     ] odd\n"s, testing::internal::GetCapturedStderr());
    if (!faults::can_refuse_memory) return;
    EXPECT_EXIT((faults::refuse_memory{0, true}, libvela_log(1, "m", "f", "lost")), testing::ExitedWithCode(1),
                "log:220: Out of memory");
}

TEST(Log, MessagesOfASystemLogThatIsNotThereGoToTheKernelLogOnce)
{
    const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    ASSERT_EQ(0, bind(log, reinterpret_cast<const sockaddr *>(&address), sizeof address));
    log_lines kernel;
    set_environment("", "syslog");
    errno = EXDEV;
    libvela_log(3, "mod", "fn", "no file");
    EXPECT_EQ(EXDEV, errno);
    site::put_file("/var/log/messages", "");
    libvela_log_use_kmsg = 1;
    libvela_log(3, "mod", "fn", "empty");
    EXPECT_THAT(kernel.take(),
                ElementsAre(log_line{"info", "mod", "fn", "no file"}, log_line{"info", "mod", "fn", "empty"}));
    const auto record_too_long = std::make_unique<faults::refuse>(faults::call::write, EINVAL, 0, false);
    libvela_log(3, "mod", "fn", "%s", std::string(2000, 'x').c_str());
    EXPECT_THAT(kernel.texts(), ElementsAre(testing::StartsWith("xxx"))) << "its start at least";
    site::put_file("/var/log/messages", "begun\n");
    libvela_log(4, "cfg", "parse", "text %s", "here");
    char record[256] = {};
    recv(log, record, sizeof record - 1, MSG_DONTWAIT);
    const auto text = HasSubstr("log_test[" + std::to_string(getpid()) + "]: cfg.parse(): text here");
    EXPECT_THAT(record, testing::AllOf(testing::StartsWith("<15>"), text)) << "user facility, debug";
    close(log);
}

TEST(Log, JsonLinesAreNumberedAndCutAtTheBudget)
{
    log_lines kernel;
    // The budget counts the program's name twice, the process id, module and function.
    const size_t budget = 960 - strlen(": []: mod.fn(): JSON -     : ") - 2 * strlen(program_invocation_short_name) -
                          std::to_string(getpid()).size();
    const std::string first(budget - strlen("    \""), 'x'), next(budget - 1, 'y');
    const vela::json_ref array{json_pack("[s, s]", first.substr(1).c_str(), (first + next).c_str())};
    libvela_log_json(5, "mod", "fn", array.get(), "title");
    libvela_log_json(5, "mod", "fn", nullptr, nullptr);
    EXPECT_THAT(kernel.texts(),
                ElementsAre("JSON -     : title", "JSON -    1: [", "JSON -    2:     \"" + first.substr(1) + "\"",
                            "JSON -     : ,", "JSON -    3:     \"" + first, "JSON -     : " + next + "\"",
                            "JSON -    4: ]", "JSON -     : null data"));
}

TEST(Log, HexLines)
{
    log_lines kernel;
    const uint8_t bytes[17] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    for (const int32_t length : {17, 16, -1})
        libvela_log_hex(5, "mod", "fn", bytes, length, length < 0 ? "t" : nullptr);
    const char *first = "00000000: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f";
    EXPECT_THAT(kernel.texts(), ElementsAre(testing::MatchesRegex(" - HEX\\(0x[0-9a-f]+\\) len 17"), first,
                                            "00000010: 10", HasSubstr("len 16"), first, HasSubstr("t - HEX")));
}
