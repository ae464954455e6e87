#include "site/supervisor.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace site
{
namespace
{

constexpr char started = 'S';
constexpr char alive = 'P';
constexpr char ended = 'E';

[[noreturn]] void run_watched(const std::function<void()> &body, int pipe_end)
{
    fcntl(pipe_end, F_SETFD, 0); // the one descriptor that is handed down
    setenv("XWD_FD", std::to_string(pipe_end).c_str(), 1);
    body();
    _exit(0);
}

void hear(watch_report &report, char byte)
{
    if (byte != started && byte != alive && byte != ended) report.fault = "an unknown byte";
    if (report.heard.empty() && byte != started) report.fault = "a sign of life before the start";
    if (report.ended_on_purpose) report.fault = "a sign of life after the end";
    report.ended_on_purpose |= byte == ended;
    report.heard += byte;
}

/// Listens until the pipe closes with the process, or the process says that it ends, or is silent for too long.
void listen(watch_report &report, int pipe_end, int patience_ms)
{
    for (;;) {
        pollfd entry = {pipe_end, POLLIN, 0};
        const int ready = poll(&entry, 1, report.ended_on_purpose ? -1 : patience_ms);
        if (ready < 0 && errno == EINTR) continue;
        report.killed = ready == 0;
        char byte = 0;
        if (ready <= 0 || read(pipe_end, &byte, 1) != 1) return;
        hear(report, byte);
    }
}

} // namespace

watch_report supervise(const std::function<void()> &body, std::chrono::milliseconds patience)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error{errno, std::generic_category(), "pipe"};
    const pid_t child = fork();
    if (child < 0) throw std::system_error{errno, std::generic_category(), "fork"};
    if (child == 0) run_watched(body, ends[1]);
    close(ends[1]);

    watch_report report;
    listen(report, ends[0], static_cast<int>(patience.count()));
    if (report.killed) kill(child, SIGKILL);
    while (waitpid(child, &report.status, 0) < 0 && errno == EINTR) {}
    close(ends[0]);
    return report;
}

} // namespace site
