#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <climits>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vela/core/crypto.h>
#include <vela/core/file.h>

using namespace std::string_literals;
using testing::ElementsAre;

namespace
{

constexpr const char *file = "/tmp/dir/file";
constexpr const char *missing = "/tmp/dir/missing";

std::string mode_of(const std::string &path)
{
    struct stat status = {};
    stat(path.c_str(), &status);
    char text[8];
    snprintf(text, sizeof text, "%04o", status.st_mode & 07777U);
    return text;
}

std::string value_of(const std::string &content, const char *key)
{
    site::put_file(file, content);
    char buffer[16];
    return freadvalue(file, key, buffer, sizeof buffer, "default");
}

} // namespace

TEST(File, FirstLineEndsAtAFeedAReturnOrABell)
{
    const leak_check leaks;
    const struct {
        std::string content, line;
    } cases[] = {{"one\ntwo\n", "one"}, {"one\r\n", "one"}, {"o\ane", "o"},         {"one", "one"},
                 {" \n", " "},          {"\n", "\n"},       {"\rone\n", "\rone\n"}, {"0123456789", "0123456"}};
    for (const auto &c : cases) {
        site::put_file(file, c.content);
        char buffer[8], at[8];
        EXPECT_EQ(0, fsreadline(file, buffer, sizeof buffer));
        EXPECT_EQ(c.line, buffer);
        EXPECT_EQ(c.line, freadlineat(AT_FDCWD, file, at, sizeof at, "default"));
    }
    site::remove_file("/tmp/dir");
    leaks.expect_unchanged();
}

TEST(File, AnUnreadableLineGivesErrnoOrTheDefault)
{
    log_lines log;
    site::put_file(file, "");
    char buffer[8];
    for (const int before : {0, EXDEV}) { // an empty file has no errno of its own
        errno = before;
        EXPECT_EQ(-before, fsreadline(file, buffer, sizeof buffer));
    }
    EXPECT_EQ(-ENOENT, fsreadline(missing, buffer, sizeof buffer));
    EXPECT_EQ(-EISDIR, fsreadline("/tmp", buffer, sizeof buffer));
    EXPECT_EQ(-EINVAL, fsreadline(nullptr, buffer, sizeof buffer));
    errno = 0;
    EXPECT_STREQ("default", freadline(file, buffer, sizeof buffer, "default and more"));
    EXPECT_STREQ("default", freadlineat(AT_FDCWD, missing, buffer, sizeof buffer, "default"));
    EXPECT_THAT(log.take(), ElementsAre());

    EXPECT_STREQ("", freadline(missing, buffer, sizeof buffer, nullptr));
    EXPECT_STREQ("", freadlineat(AT_FDCWD, nullptr, buffer, sizeof buffer, nullptr));
    EXPECT_STREQ("", freadvalue(missing, "key", buffer, sizeof buffer, nullptr));
    const char *text = "NULL pointer for default value";
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "libvela_util", "freadline", text},
                                        log_line{"error", "libvela_util", "freadlineat", text},
                                        log_line{"error", "libvela_util", "freadvalue", text}));
    site::put_file(file, "there");
    EXPECT_STREQ("there", freadline(file, buffer, sizeof buffer, nullptr));
    EXPECT_THAT(log.take(), ElementsAre());

    char untouched = '#';
    freadline(file, &untouched, 0, "x"), freadvalue(file, "there", &untouched, 0, "x");
    EXPECT_EQ('#', untouched);
}

TEST(File, LinesAndValuesByKey)
{
    const struct {
        std::string content;
        const char *key;
        std::string value;
    } cases[] = {
        {"speed 1000\n", "speed", "1000"},
        {"speed=1000 Mb/s", "speed", "1000"},
        {"\t speed \t= 1000\r\n", "speed", "1000"},
        {"speedx=1\nSpeed=2\n", "speed", "default"},
        {"speed=\nother speed=1\nspeed=3=4\n", "speed", "3"},
        {"key=0123456789abcdefgh", "key", "0123456789abcde"},
        {std::string(252, 'x') + " key=1\n", "key", "default"}, // cut into "... k" and "ey=1"
        {std::string(253, 'x') + "\nkey=1\n", "key", "1"},
    };
    for (const auto &c : cases) EXPECT_EQ(c.value, value_of(c.content, c.key)) << c.content;

    char line[8] = "#######";
    site::put_file(file, "first\na needle\nneedles\n");
    EXPECT_EQ(0, fsreadlinebykey(file, "eedle", line, sizeof line));
    EXPECT_STREQ("a needl", line);
    EXPECT_EQ(0, fsreadlinebykey(file, "fir", line, sizeof line));
    EXPECT_STREQ("first\n", line) << "the line feed too";
    EXPECT_EQ(-1, fsreadlinebykey(file, "Needle", line, sizeof line));
    EXPECT_EQ(-1, fsreadlinebykey(missing, "a", line, sizeof line));
    EXPECT_EQ(-1, fsreadlinebykey(file, nullptr, line, sizeof line));
}

TEST(File, NumbersInEveryBase)
{
    constexpr struct {
        const char *content;
        long decimal, any; // 7 is the default
    } cases[] = {{"42\n", 42, 42}, {"  42abc", 42, 42},
                 {"0x10", 0, 16},  {"010", 10, 8},
                 {"-5", -5, -5},   {"null", 7, 7},
                 {"", 7, 7},       {"\n42", 7, 42},
                 {"-", 7, 7},      {"1234567890123456", 123456789012345, 123456789012345}};
    for (const auto &c : cases) {
        site::put_file(file, c.content);
        EXPECT_EQ(c.decimal, freadlong(file, 7)) << c.content;
        EXPECT_EQ(static_cast<unsigned long>(c.decimal), freadulong(file, 7)) << c.content;
        EXPECT_EQ(c.any, freadlongat(AT_FDCWD, file, 7)) << c.content;
        EXPECT_EQ(c.any, freadi64at(AT_FDCWD, file, 7)) << c.content;
    }
    site::put_file(file, "1.2345678901234567");
    EXPECT_DOUBLE_EQ(1.234567890123, freaddouble(file, 0)) << "14 characters";
    EXPECT_DOUBLE_EQ(0.5, freaddouble(missing, 0.5));
    EXPECT_EQ(7, freadlong(nullptr, 7));
    EXPECT_EQ(7, freadlongat(AT_FDCWD, missing, 7));
}

TEST(File, WritersReplaceAndAddersAdd)
{
    const leak_check leaks;
    umask(022);
    site::put_file("/tmp/dir/old", "old content");
    const int directory = open("/tmp/dir", O_PATH | O_CLOEXEC);
    EXPECT_EQ(3, fwriteline("/tmp/dir/old", "%d%s", 10, "x"));
    EXPECT_EQ("10x", site::read_file("/tmp/dir/old"));
    EXPECT_EQ(2, fwriteline("/tmp/dir/plain", "ab"));
    EXPECT_EQ("0644", mode_of("/tmp/dir/plain"));
    EXPECT_EQ(2, fwritelineat(directory, "line", "%s", "ab"));
    EXPECT_EQ(0, fwritelongat(directory, "long", -3));
    EXPECT_EQ("-3\n", site::read_file("/tmp/dir/long"));
    EXPECT_EQ("0600", mode_of("/tmp/dir/long"));

    EXPECT_EQ(0, faddlong("/tmp/dir/sum", 5));
    EXPECT_EQ(0, faddlong("/tmp/dir/sum", -7));
    EXPECT_EQ("-2\n", site::read_file("/tmp/dir/sum"));
    EXPECT_EQ(0, faddlong("/tmp/dir/old", LONG_MAX)); // 10x: wraps
    EXPECT_EQ(std::to_string(LONG_MIN + 9) + "\n", site::read_file("/tmp/dir/old"));
    EXPECT_EQ(0, faddlongat(directory, "count", 5));
    site::put_file("/tmp/dir/hex", "0x10\nmore\n");
    EXPECT_EQ(0, faddi64at(directory, "hex", int64_t{1} << 40));
    EXPECT_EQ("1099511627792\n", site::read_file("/tmp/dir/hex"));
    EXPECT_EQ("5\n", site::read_file("/tmp/dir/count"));
    EXPECT_EQ("0600", mode_of("/tmp/dir/count"));

    {
        const faults::refuse no_cut(faults::call::ftruncate, EIO);
        EXPECT_EQ(-1, faddlongat(directory, "count", 5));
    }
    EXPECT_EQ("5\n", site::read_file("/tmp/dir/count"));
    for (const char *nowhere : {"/tmp/none/file", "/dev/full", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(-1, fwriteline(nowhere, "a"));
        EXPECT_EQ(-1, faddlong(nowhere, 1));
        EXPECT_EQ(-1, fwritelongat(AT_FDCWD, nowhere, 1));
        EXPECT_EQ(-1, faddi64at(AT_FDCWD, nowhere, 1));
    }
    close(directory);
    site::remove_file("/tmp/dir");
    leaks.expect_unchanged();
}

TEST(File, FormattedPathsAndTouchedFiles)
{
    log_lines log;
    site::put_file(file, "kept");
    FILE *stream = fopen_format("r+", "/tmp/%s/%s", "dir", "file");
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fileno(stream), F_GETFD));
    EXPECT_EQ('k', getc(stream));
    fclose(stream);
    EXPECT_EQ(nullptr, fopen_format("r", "/tmp/%*s", PATH_MAX, "x"));
    EXPECT_EQ(ENAMETOOLONG, errno);
    EXPECT_EQ(nullptr, fopen_format("", "%s", file));

    EXPECT_EQ(0, touch_file(file, 0751));
    EXPECT_EQ("kept", site::read_file(file));
    EXPECT_EQ("0751", mode_of(file));
    EXPECT_EQ(0, touch_file(missing, 0640));
    EXPECT_EQ("0640", mode_of(missing));
    EXPECT_EQ(-1, touch_file("/tmp/none/file", 0600));
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "libvela_status", "touch_file",
                                                 "/tmp/none/file - 2/No such file or directory"}));
}

TEST(File, WholeFilesAsBase64)
{
    log_lines log;
    for (const size_t size : {0, 1, 299, 300, 301, 602, 4097}) {
        std::string bytes(size, '\0');
        for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7);
        site::put_file(file, bytes);
        std::string expected((size + 2) / 3 * 4 + 1, '#'); // the same in one piece
        base64rfc_encode(expected.data(), reinterpret_cast<const uint8_t *>(bytes.data()), static_cast<int>(size));
        FILE *stream = fopen(file, "re");
        fseek(stream, 1, SEEK_SET);
        char *text = load_file_base64(stream);
        EXPECT_STREQ(expected.c_str(), text) << size;
        free(text);
        fclose(stream);
    }
    EXPECT_EQ(nullptr, load_file_base64(nullptr));
    EXPECT_THAT(log.take(), ElementsAre());

    FILE *pipe = popen("true", "re");
    EXPECT_EQ(nullptr, load_file_base64(pipe));
    pclose(pipe);
    FILE *writing = fopen(file, "a");
    EXPECT_EQ(nullptr, load_file_base64(writing));
    EXPECT_THAT(
        log.take(),
        ElementsAre(log_line{"debug", "libvela_util", "load_file_base64", "Couldn't find file size: Illegal seek"},
                    log_line{"error", "libvela_util", "load_file_base64", "Couldn't read all bytes from file"}));
    ASSERT_EQ(0, ftruncate(fileno(writing), off_t{3} << 30));
    EXPECT_EXIT(load_file_base64(writing), testing::ExitedWithCode(1), "util:674: Out of memory");
    fclose(writing);
    if (!faults::can_refuse_memory) return;
    EXPECT_EXIT(
        {
            const faults::refuse_memory none(0, true);
            vl_recursive_mkdir("/tmp/a", 0700);
        },
        testing::ExitedWithCode(1), "util:1399: Out of memory");
}

TEST(File, TreesAreMadeAndRemoved)
{
    log_lines log;
    const leak_check leaks;
    EXPECT_EQ(0, vl_recursive_mkdir("/tmp/tree//a/b/", 0750));
    EXPECT_EQ("0750", mode_of("/tmp/tree/a/b"));
    EXPECT_EQ(0, vl_recursive_mkdir("/", 0750));
    ASSERT_EQ(0, chdir("/tmp/tree"));
    EXPECT_EQ(0, vl_recursive_mkdir("c", 0750));
    EXPECT_TRUE(site::exists("/tmp/tree/c"));
    ASSERT_EQ(0, chdir("/"));
    site::put_file("/tmp/tree/a/file", "");
    EXPECT_EQ(1, vl_recursive_mkdir("/tmp/tree/a/file/deeper/still", 0700));
    EXPECT_EQ(1, vl_recursive_mkdir("", 0700));
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "libvela_util", "vl_recursive_mkdir",
                                                 "Failed to create '/tmp/tree/a/file/deeper/still': Not a directory"},
                                        log_line{"error", "libvela_util", "vl_recursive_mkdir",
                                                 "Failed to create '': No such file or directory"}));

    site::put_file("/tmp/other/kept", "");
    ASSERT_EQ(0, symlink("/tmp/other", "/tmp/tree/a/link"));
    EXPECT_EQ(0, vl_recursive_remove("/tmp/tree", 2));
    EXPECT_EQ("a\nc\n", site::output_of("ls /tmp/tree"));
    EXPECT_EQ("", site::output_of("ls /tmp/tree/a"));
    EXPECT_EQ(0, vl_recursive_remove("/tmp/tree", 1));
    EXPECT_EQ("", site::output_of("ls /tmp/tree"));
    EXPECT_EQ(0, vl_recursive_remove("/tmp/tree", 0));
    EXPECT_FALSE(site::exists("/tmp/tree"));
    EXPECT_EQ(0, vl_recursive_remove("/tmp/tree", 0)) << "already gone";
    EXPECT_TRUE(site::exists("/tmp/other/kept")) << "links are not followed";

    ASSERT_EQ(0, mount("none", "/tmp/other", "tmpfs", 0, nullptr));
    EXPECT_EQ(1, vl_recursive_remove("/tmp/other", 0));
    EXPECT_TRUE(site::exists("/tmp/other"));
    ASSERT_EQ(0, umount("/tmp/other"));
    EXPECT_EQ(0, vl_recursive_remove("/tmp/other", 0));
    EXPECT_THAT(log.texts(), ElementsAre("Failed to remove '/tmp/other': Device or resource busy"));
    leaks.expect_unchanged();
}
