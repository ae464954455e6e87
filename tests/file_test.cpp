#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

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

std::string mode_of(const std::string &path) { return site::output_of("stat -c %a " + path); }

log_line error(const char *function, const char *text) { return {"error", "libvela_util", function, text}; }

} // namespace

TEST(File, FirstLineOrErrnoOrTheDefault)
{
    log_lines log;
    const leak_check leaks;
    char buffer[8], untouched = '#';
    const table<std::string, std::string> lines = {
        {"one\ntwo\n", "one"}, {"one\r\n", "one"},     {"o\ane", "o"},           {" ", " "},
        {"\n", "\n"},          {"\rone\n", "\rone\n"}, {"0123456789", "0123456"}};
    for (const auto &[content, line] : lines) {
        site::put_file(file, content);
        EXPECT_EQ(0, fsreadline(file, buffer, sizeof buffer));
        EXPECT_EQ(line, buffer);
        EXPECT_EQ(line, freadlineat(AT_FDCWD, file, buffer, sizeof buffer, nullptr));
    }
    site::put_file(file, "");
    const table<const char *, int, int> failures = {// an empty file has no errno of its own
                                                    {file, 0, 0},
                                                    {file, EXDEV, -EXDEV},
                                                    {missing, 0, -ENOENT},
                                                    {"/tmp", 0, -EISDIR},
                                                    {nullptr, 0, -EINVAL}};
    for (const auto &[path, before, result] : failures) {
        errno = before;
        EXPECT_EQ(result, fsreadline(path, buffer, sizeof buffer));
        EXPECT_STREQ("default", freadline(path, buffer, sizeof buffer, "default and more"));
        EXPECT_STREQ("default", freadlineat(AT_FDCWD, path, buffer, sizeof buffer, "default"));
    }
    freadline(file, &untouched, 0, "x"), freadvalue(file, "key", &untouched, 0, "x");
    EXPECT_EQ('#', untouched);
    EXPECT_THAT(log.take(), ElementsAre());

    EXPECT_STREQ("", freadline(missing, buffer, sizeof buffer, nullptr));
    EXPECT_STREQ("", freadlineat(AT_FDCWD, nullptr, buffer, sizeof buffer, nullptr));
    EXPECT_STREQ("", freadvalue(missing, "key", buffer, sizeof buffer, nullptr));
    const char *text = "NULL pointer for default value";
    EXPECT_THAT(log.take(),
                ElementsAre(error("freadline", text), error("freadlineat", text), error("freadvalue", text)));
    site::remove_file("/tmp/dir");
    leaks.expect_unchanged();
}

TEST(File, LinesAndValuesByKey)
{
    char value[16], line[8] = "#######";
    const table<std::string, const char *> cases = {
        {"speed 1000\n", "1000"},
        {"speed=1000 Mb/s", "1000"},
        {"\t speed \t= 1000\r\n", "1000"},
        {"speedx=1\nSpeed=2\n", "default"},
        {"speed=\nother speed=1\nspeed=3=4\n", "3"},
        {"speed=0123456789abcdefgh", "0123456789abcde"},
        {std::string(249, 'x') + "speed=1\nspeed=2\n", "2"}, // a piece ends behind the first "speed",
        {std::string(254, 'x') + "speed=1\n", "1"}};         // another before it
    for (const auto &[content, expected] : cases) {
        site::put_file(file, content);
        EXPECT_STREQ(expected, freadvalue(file, "speed", value, sizeof value, "default")) << content;
    }
    site::put_file(file, "first\na needle\nneedles\n");
    const table<const char *, const char *, int, const char *> needles = {
        {file, "Needle", -1, "#######"},
        {missing, "a", -1, "#######"},
        {file, nullptr, -1, "#######"},
        {file, "eedle", 0, "a needl"},
        {file, "fir", 0, "first\n"}}; // the line feed too
    for (const auto &[path, needle, result, found] : needles) {
        EXPECT_EQ(result, fsreadlinebykey(path, needle, line, sizeof line));
        EXPECT_STREQ(found, line);
    }
}

TEST(File, NumbersInEveryBase)
{
    constexpr long cut = 123456789012345; // 15 digits; where no digit comes, the default is 7
    const table<const char *, long, long> cases = {
        {"42\n", 42, 42}, {"  42abc", 42, 42}, {"0x10", 0, 16},
        {"010", 10, 8},   {"-5", -5, -5},      {"null", 7, 7},
        {"", 7, 7},       {"\n42", 7, 42},     {"1234567890123456", cut, cut}};
    for (const auto &[content, decimal, any] : cases) {
        site::put_file(file, content);
        EXPECT_EQ(decimal, freadlong(file, 7)) << content;
        EXPECT_EQ(static_cast<unsigned long>(decimal), freadulong(file, 7)) << content;
        EXPECT_EQ(any, freadlongat(AT_FDCWD, file, 7)) << content;
        EXPECT_EQ(any, freadi64at(AT_FDCWD, file, 7)) << content;
    }
    site::put_file(file, "1.2345678901234567");
    EXPECT_DOUBLE_EQ(1.234567890123, freaddouble(file, 0)) << "14 characters";
    EXPECT_DOUBLE_EQ(0.5, freaddouble(missing, 0.5));
    EXPECT_EQ(14, freadlong(nullptr, 7) + freadlongat(AT_FDCWD, missing, 7));
}

TEST(File, WritersReplaceAndAddersAdd)
{
    const leak_check leaks;
    umask(022);
    site::put_file("/tmp/dir/old", "old content");
    site::put_file("/tmp/dir/hex", "0x10\nmore\n");
    const int directory = open("/tmp/dir", O_PATH | O_CLOEXEC);
    EXPECT_EQ(3, fwriteline("/tmp/dir/old", "%d%s", 10, "x"));
    EXPECT_EQ("10x", site::read_file("/tmp/dir/old"));
    EXPECT_EQ(0, faddlong("/tmp/dir/old", LONG_MAX)); // wraps
    EXPECT_EQ(0, faddlong("/tmp/dir/sum", -7));
    EXPECT_EQ(2, fwritelineat(directory, "line", "%s", "ab"));
    EXPECT_EQ(0, fwritelongat(directory, "long", -3));
    EXPECT_EQ(0, faddlongat(directory, "count", 5));
    EXPECT_EQ(0, faddi64at(directory, "hex", int64_t{1} << 40));
    const auto no_cut = std::make_unique<faults::refuse>(faults::call::ftruncate, EIO);
    EXPECT_EQ(-1, faddlongat(directory, "count", 5));
    const table<std::string, std::string, const char *> files = {{"old", std::to_string(LONG_MIN + 9) + "\n", "644\n"},
                                                                 {"sum", "-7\n", "644\n"},
                                                                 {"line", "ab", "600\n"},
                                                                 {"long", "-3\n", "600\n"},
                                                                 {"count", "5\n", "600\n"},
                                                                 {"hex", "1099511627792\n", "644\n"}};
    for (const auto &[name, content, mode] : files) {
        EXPECT_EQ(content, site::read_file("/tmp/dir/" + name)) << name;
        EXPECT_EQ(mode, mode_of("/tmp/dir/" + name)) << name;
    }
    for (const char *nowhere : {"/tmp/none/file", "/dev/full", null}) {
        EXPECT_EQ(-4, fwriteline(nowhere, "a") + faddlong(nowhere, 1) + fwritelongat(AT_FDCWD, nowhere, 1) +
                          faddi64at(AT_FDCWD, nowhere, 1));
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
    EXPECT_EQ(nullptr, fopen_format("r", "/tmp/%*s", PATH_MAX, "x"));
    EXPECT_EQ(ENAMETOOLONG, errno);
    EXPECT_EQ(nullptr, fopen_format("", "%s", file));

    EXPECT_EQ(0, touch_file(file, 0751) + touch_file(missing, 0640));
    EXPECT_EQ("Kept", site::read_file(file));
    EXPECT_EQ("751\n640\n", mode_of(file + " "s + missing));
    EXPECT_EQ(-1, touch_file("/tmp/none/file", 0600));
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "libvela_status", "touch_file",
                                                 "/tmp/none/file - 2/No such file or directory"}));
}

TEST(File, WholeFilesAsBase64)
{
    log_lines log;
    for (const size_t size : {0, 1, 299, 300, 301, 4097}) {
        std::string bytes(size, '\0'), expected((size + 2) / 3 * 4 + 1, '#');
        for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7);
        base64rfc_encode(expected.data(), reinterpret_cast<const uint8_t *>(bytes.data()),
                         static_cast<int>(size)); // in one piece
        site::put_file(file, bytes);
        FILE *stream = fopen(file, "re");
        fseek(stream, 1, SEEK_SET);
        char *text = load_file_base64(stream);
        EXPECT_STREQ(expected.c_str(), text) << size;
        free(text);
        fclose(stream);
    }
    EXPECT_EQ(nullptr, load_file_base64(nullptr));
    EXPECT_THAT(log.take(), ElementsAre());

    FILE *pipe = popen("true", "re"), *writing = fopen(file, "ae");
    EXPECT_EQ(nullptr, load_file_base64(pipe));
    EXPECT_EQ(nullptr, load_file_base64(writing));
    EXPECT_THAT(log.take(), ElementsAre(log_line{"debug", "libvela_util", "load_file_base64",
                                                 "Couldn't find file size: Illegal seek"},
                                        error("load_file_base64", "Couldn't read all bytes from file")));
    ASSERT_EQ(0, ftruncate(fileno(writing), off_t{3} << 30));
    EXPECT_EXIT(load_file_base64(writing), testing::ExitedWithCode(1), "util:674: Out of memory");
    pclose(pipe);
    fclose(writing);
}

TEST(File, TreesAreMadeAndRemoved)
{
    log_lines log;
    const leak_check leaks;
    ASSERT_EQ(0, mkdir("/tmp/tree", 0755) + chdir("/tmp/tree"));
    for (const char *path : {"/tmp/tree//a/b/", "/", "/tmp/tree/a", "c"}) {
        EXPECT_EQ(0, vl_recursive_mkdir(path, 0750)) << path;
    }
    ASSERT_EQ(0, chdir("/"));
    EXPECT_EQ("750\n750\n", mode_of("/tmp/tree/a/b /tmp/tree/c"));
    site::put_file("/tmp/tree/a/file", "");
    EXPECT_EQ(2, vl_recursive_mkdir("/tmp/tree/a/file/b/c", 0700) + vl_recursive_mkdir("", 0700));
    EXPECT_THAT(log.take(),
                ElementsAre(error("vl_recursive_mkdir", "Failed to create '/tmp/tree/a/file/b/c': Not a directory"),
                            error("vl_recursive_mkdir", "Failed to create '': No such file or directory")));

    site::put_file("/tmp/other/kept", "");
    ASSERT_EQ(0, symlink("/tmp/other", "/tmp/tree/a/link"));
    const table<int, const char *> left = {
        {2, "/tmp/tree\n/tmp/tree/a\n/tmp/tree/c\n"}, {1, "/tmp/tree\n"}, {0, ""}, {0, ""}}; // the last: already gone
    for (const auto &[depth, paths] : left) {
        EXPECT_EQ(0, vl_recursive_remove("/tmp/tree", depth));
        EXPECT_EQ(paths, site::output_of("find /tmp/tree 2>/dev/null | sort"));
    }
    EXPECT_TRUE(site::exists("/tmp/other/kept")) << "links are not followed";

    ASSERT_EQ(0, mkdir("/tmp/other/system", 0755) + mount("none", "/tmp/other/system", "tmpfs", 0, nullptr));
    site::put_file("/tmp/other/system/kept", "");
    EXPECT_EQ(1, vl_recursive_remove("/tmp/other", 0));
    EXPECT_TRUE(site::exists("/tmp/other/system/kept"));
    EXPECT_THAT(log.take(),
                ElementsAre(error("vl_recursive_remove", "Failed to remove '/tmp/other': Directory not empty")));
    ASSERT_EQ(0, umount("/tmp/other/system"));
    EXPECT_EQ(0, vl_recursive_remove("/tmp/other", 0));
    leaks.expect_unchanged();

    if (!faults::can_refuse_memory) return;
    const auto make_without_memory = [] {
        const faults::refuse_memory none(0, true);
        vl_recursive_mkdir("/tmp/a", 0700);
    };
    EXPECT_EXIT(make_without_memory(), testing::ExitedWithCode(1), "util:1399: Out of memory");
}
