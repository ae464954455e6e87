#include "tests/support/log_lines.h"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>
#include <vela/core/log.h>

namespace
{
constexpr const char *kernel_log = "/dev/kmsg";
constexpr int pipe_size = 1 << 20;
} // namespace

std::ostream &operator<<(std::ostream &out, const log_line &line)
{
    return out << "[" << line.level << "] " << line.module << "." << line.function << "(): " << line.text;
}

log_lines::log_lines(const char *verbosity)
{
    unlink(kernel_log);
    if (mkfifo(kernel_log, 0600) != 0) ADD_FAILURE() << "mkfifo " << kernel_log;
    fifo_ = open(kernel_log, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    fcntl(fifo_, F_SETPIPE_SZ, pipe_size);
    setenv("LIBVELA_FACILITIES", "kmsg", 1);
    setenv("LIBVELA_VERBOSITY", verbosity, 1);
    libvela_log_init_from_env();
}

log_lines::~log_lines()
{
    close(fifo_);
    unlink(kernel_log);
    unsetenv("LIBVELA_FACILITIES");
    unsetenv("LIBVELA_VERBOSITY");
    libvela_log_level = 1U << LIBVELA_LOG_INFO;
    libvela_log_use_syslog = libvela_log_use_stderr = 1;
    libvela_log_use_kmsg = libvela_log_env_ready = 0;
}

std::vector<log_line> log_lines::take()
{
    char chunk[65536];
    for (ssize_t n; (n = read(fifo_, chunk, sizeof chunk)) > 0;) rest_.append(chunk, static_cast<size_t>(n));

    // "program[pid]: [level] module.function(): text", ended by a newline, or by a newline of its own and a NUL. A text
    // with newlines inside goes on until the next line that begins like a message.
    static const std::regex start(R"((?:^|\n\0?|\0)[^\n\[]*\[\d+\]: \[(\w+) *\] ([\w-]+)\.(\S+)\(\): )",
                                  std::regex::ECMAScript | std::regex::optimize);
    std::vector<log_line> lines;
    std::sregex_iterator at(rest_.begin(), rest_.end(), start);
    const std::sregex_iterator end;
    while (at != end) {
        const auto match = *at++;
        const size_t from = static_cast<size_t>(match.position() + match.length());
        const size_t to = at == end ? rest_.size() : static_cast<size_t>(at->position());
        std::string text = rest_.substr(from, to - from);
        if (at == end && text.ends_with('\0')) text.pop_back();
        if (at == end && text.ends_with('\n')) text.pop_back();
        lines.push_back({match[1], match[2], match[3], text});
    }
    rest_.clear();
    return lines;
}

std::vector<std::string> log_lines::shown()
{
    std::vector<std::string> shown;
    for (const auto &line : take()) shown.push_back(testing::PrintToString(line));
    return shown;
}

std::vector<std::string> log_lines::texts()
{
    std::vector<std::string> result;
    for (auto &line : take()) result.push_back(std::move(line.text));
    return result;
}
