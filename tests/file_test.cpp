#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"
#include "tests/support/text.h"

#include <climits>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <vela/core/crypto.h>
#include <vela/core/file.h>

using namespace std::string_literals;
using testing::ElementsAre;

namespace
{

constexpr const char *file = "/tmp/dir/file", *missing = "/tmp/dir/missing", *null = nullptr;

} // namespace

TEST(File, LinesValuesAndNumbers)
{
    log_lines log;
    const leak_check leaks;
    char line[8], value[16];
    constexpr int64_t digits = 123456789012345; // 15 of them: what is beyond is cut. Where none comes, the default is 7
    const long cut = strtol("123456789012345", nullptr, 10);
    // The first line, the value of "speed", the number in base 10 and in any. Lines are looked at in pieces.
    const table<std::string, std::string, std::string, long, long> cases = {
        {"42\nspeed 1\n", "42", "1", 42, 42},
        {"0x10\r\nspeed=1000 Mb/s", "0x10", "1000", 0, 16},
        {"  010abc\n\t speed \t= 1\r\n", "  010ab", "1", 10, 8},
        {"-5\a\nspeedx=1\nSpeed=2\n", "-5", "default", -5, -5},
        {"\n42", "\n", "default", 7, 42},
        {"\r43\n", "\r43\n", "default", 43, 43},
        {"1234567890123456", "1234567", "default", cut, cut},
        {"speed=\nother speed=1\nspeed=3=4\n", "speed=", "3", 7, 7},
        {"speed=0123456789abcdefgh", "speed=0", "0123456789abcde", 7, 7},
        {std::string(249, 'x') + "speed=1\nspeed=2\n", "xxxxxxx", "2", 7, 7},
        {std::string(254, 'x') + "speed=1\n", "xxxxxxx", "1", 7, 7}};
    for (const auto &[content, first, found, decimal, any] : cases) {
        site::put_file(file, content);
        EXPECT_EQ(0, fsreadline(file, line, sizeof line)) << content;
        EXPECT_EQ(first, line);
        EXPECT_EQ(first, freadlineat(AT_FDCWD, file, line, sizeof line, null));
        EXPECT_EQ(found, freadvalue(file, "speed", value, sizeof value, "default"));
        EXPECT_EQ(decimal, freadlong(file, 7)) << content;
        EXPECT_EQ(decimal == LONG_MAX ? ULONG_MAX : static_cast<unsigned long>(decimal), freadulong(file, 7))
            << content;
        EXPECT_EQ(any, freadlongat(AT_FDCWD, file, 7)) << content;
        EXPECT_EQ(any == cut ? digits : any, freadi64at(AT_FDCWD, file, 7)) << content;
    }
    site::put_file(file, "1.2345678901234567");
    EXPECT_DOUBLE_EQ(1.234567890123, freaddouble(file, 0)) << "14 characters";

    site::put_file(file, "");
    const table<const char *, int> failures = {{file, -EXDEV}, {missing, -ENOENT}, {"/tmp", -EISDIR}, {null, -EINVAL}};
    for (const auto &[path, result] : failures) { // an empty file has no errno of its own
        errno = EXDEV;
        EXPECT_EQ(result, fsreadline(path, line, sizeof line));
        EXPECT_STREQ("default", freadline(path, line, sizeof line, "default and more"));
        EXPECT_STREQ("default", freadlineat(AT_FDCWD, path, line, sizeof line, "default"));
        EXPECT_EQ(7, freadlong(path, 7));
        EXPECT_EQ(7, freadlongat(AT_FDCWD, path, 7));
        EXPECT_DOUBLE_EQ(0.5, freaddouble(path, 0.5));
    }
    line[0] = '#';
    freadline(file, line, 0, "x"), freadvalue(file, "key", line, 0, "x");
    EXPECT_EQ('#', line[0]) << "a size of 0";
    EXPECT_STREQ("", freadlineat(AT_FDCWD, missing, line, sizeof line, null));
    const log_line no_default = {"error", "libvela_util", "freadlineat", "NULL pointer for default value"};
    EXPECT_THAT(log.take(), ElementsAre(no_default));
    site::remove_file("/tmp/dir");
    leaks.expect_unchanged();
}

TEST(File, LinesByAnyPartOfThem)
{
    char line[8];
    site::put_file(file, "first\na needle\nneedles\n");
    const table<const char *, const char *, int, std::string> cases = {{missing, "a", -1, "########"},
                                                                       {file, null, -1, "########"},
                                                                       {file, "Needle", -1, "#######"},
                                                                       {file, "eedle", 0, "a needl"},
                                                                       {file, "fir", 0, "first\n"}};
    for (const auto &[path, needle, result, found] : cases) {
        memset(line, '#', sizeof line);
        EXPECT_EQ(result, fsreadlinebykey(path, needle, line, sizeof line));
        EXPECT_EQ(found, std::string(line, strnlen(line, sizeof line)));
    }
}

TEST(File, WritersReplaceAndAddersAdd)
{
    const leak_check leaks;
    umask(022);
    site::put_file("/tmp/dir/old", std::string(99, 'o'));
    site::put_file("/tmp/dir/hex", "0x10000000000\nmore\n");
    const int directory = open("/tmp/dir", O_PATH | O_CLOEXEC);
    EXPECT_EQ(3, fwriteline("/tmp/dir/old", "%d%s", 10, "x"));
    EXPECT_EQ(0, faddlong("/tmp/dir/old", LONG_MAX)) << "wraps";
    EXPECT_EQ(6, fwritelineat(directory, "line", "%s", "a line"));
    EXPECT_EQ(0, fwritelongat(directory, "line", -3));
    EXPECT_EQ(0, faddlongat(directory, "count", 5));
    EXPECT_EQ(0, faddi64at(directory, "hex", int64_t{1} << 40));
    const auto no_cut = std::make_unique<faults::refuse>(faults::call::ftruncate, EIO);
    EXPECT_EQ(-1, faddlongat(directory, "count", 5));
    const std::string contents = std::to_string(LONG_MIN + 9) + "\n-3\n5\n2199023255552\n";
    EXPECT_EQ(contents + "644\n600\n600\n",
              site::output_of("cd /tmp/dir && cat old line count hex && stat -c %a old line count"));
    for (const char *nowhere : {"/tmp/none/file", "/dev/full", null}) {
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
    EXPECT_EQ('K', putc('K', stream));
    fclose(stream);
    EXPECT_FALSE(fopen_format("r", "%s", std::string(PATH_MAX, '/').c_str()));
    EXPECT_EQ(ENAMETOOLONG, errno);
    EXPECT_FALSE(fopen_format("", "%s", file));
    EXPECT_EQ(0, touch_file(file, 0751));
    EXPECT_EQ(0, touch_file(missing, 0640));
    EXPECT_EQ(-1, touch_file("/tmp/none/file", 0600));
    EXPECT_EQ("Kept751\n640\n", site::output_of("cd /tmp/dir && cat file && stat -c %a file missing"));
    EXPECT_THAT(log.take(),
                ElementsAre(log_line{"error", "libvela_status", "touch_file", "/tmp/none/file - " + reason(ENOENT)}));
}

TEST(File, WholeFilesAsBase64)
{
    for (const size_t size : {0, 1, 299, 300, 301, 4097}) {
        const std::string bytes(size, 'k');
        std::string expected((size + 2) / 3 * 4 + 1, '#');
        base64rfc_encode(expected.data(), reinterpret_cast<const uint8_t *>(bytes.data()), static_cast<int>(size));
        site::put_file(file, bytes);
        FILE *stream = fopen(file, "re");
        fseek(stream, 1, SEEK_SET);
        char *text = load_file_base64(stream);
        EXPECT_STREQ(expected.c_str(), text) << size;
        free(text), fclose(stream);
    }
    FILE *pipe = popen("true", "re"), *writing = fopen(file, "ae");
    for (FILE *unreadable : {pipe, writing, static_cast<FILE *>(nullptr)}) EXPECT_FALSE(load_file_base64(unreadable));
    ASSERT_EQ(0, ftruncate(fileno(writing), off_t{3} << 30)); // more than an int can count
    EXPECT_EXIT(load_file_base64(writing), testing::ExitedWithCode(1), "util:674: Out of memory");
    pclose(pipe), fclose(writing);
}

TEST(File, TreesAreMadeAndRemoved)
{
    log_lines log;
    const leak_check leaks;
    ASSERT_EQ(0, chdir("/tmp"));
    for (const char *path : {"/tmp/tree//a/b/", "/", "/tmp/tree/a", "tree/c"}) {
        EXPECT_EQ(0, vl_recursive_mkdir(path, 0750)) << path;
    }
    EXPECT_EQ("750\n750\n", site::output_of("stat -c %a /tmp/tree/a/b /tmp/tree/c"));
    site::put_file("/tmp/tree/a/file", "");
    ASSERT_EQ(0, vl_recursive_mkdir("/tmp/other/disk", 0755));
    ASSERT_EQ(0, symlink("/tmp/other", "/tmp/tree/a/link"));
    ASSERT_EQ(0, mount("none", "/tmp/other/disk", "tmpfs", 0, nullptr));
    site::put_file("/tmp/other/kept", "");
    site::put_file("/tmp/other/disk/kept", "");
    EXPECT_EQ(1, vl_recursive_mkdir("tree/a/file/b/c", 0700));
    EXPECT_EQ(1, vl_recursive_mkdir("", 0700));
    const table<int, const char *> left = {{2, "tree\ntree/a\ntree/c\n"}, {1, "tree\n"}, {0, ""}, {0, ""}};
    for (const auto &[depth, paths] : left) { // the last: already gone
        EXPECT_EQ(0, vl_recursive_remove("/tmp/tree", depth));
        EXPECT_EQ(paths, site::output_of("find tree 2>/dev/null | sort"));
    }
    EXPECT_TRUE(site::exists("/tmp/other/kept")) << "links are not followed";
    EXPECT_EQ(1, vl_recursive_remove("/tmp/other", 0));
    EXPECT_TRUE(site::exists("/tmp/other/disk/kept")) << "nor mounts entered";
    EXPECT_THAT(log.texts(), ElementsAre("Failed to create 'tree/a/file/b/c': Not a directory",
                                         "Failed to create '': No such file or directory",
                                         "Failed to remove '/tmp/other': Directory not empty"));
    umount("/tmp/other/disk");
    EXPECT_EQ(0, vl_recursive_remove("/tmp/other", 0));
    leaks.expect_unchanged();
}
