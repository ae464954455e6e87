// The descriptor comes through the environment once and is kept for the life of the process.

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vela/core/internal/log.h>
#include <vela/ipc/xwd.h>

namespace
{

constexpr const char *log_module = "xwd";

constexpr const char *descriptor_variable = "XWD_FD";
constexpr char command_start = 'S';
constexpr char command_ping = 'P';
constexpr char command_end = 'E';

/// The adopted descriptor: set once by xwd_start, never closed. 0 is one too.
constinit struct {
    int fd = -1;
} watchdog;

/// The descriptor that the environment names; -1 where it names none that is open.
int named_descriptor(const char *text)
{
    const long number = strtol(text, nullptr, 10);
    if (number < 0 || number > INT_MAX) return -1;
    const int fd = static_cast<int>(number);
    return fcntl(fd, F_GETFD) < 0 ? -1 : fd;
}

void adopt()
{
    const char *text = getenv(descriptor_variable);
    if (!text) return;
    watchdog.fd = named_descriptor(text);
    if (watchdog.fd < 0) return;
    (void)fcntl(watchdog.fd, F_SETFL, O_NONBLOCK); // a descriptor that refuses these serves without
    (void)fcntl(watchdog.fd, F_SETFD, FD_CLOEXEC);
    unsetenv(descriptor_variable);
}

/// write() of one byte that tells of a closed pipe by EPIPE. SIGPIPE would end the process before it could say why; it
/// stays blocked then, on the way to abort().
bool write_byte(int fd, char byte)
{
    sigset_t pipe_signal;
    sigset_t before;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, &before);
    if (write(fd, &byte, 1) != 1) return false;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return true;
}

} // namespace

void xwd_start(void)
{
    if (watchdog.fd < 0) adopt();
    xwd_write(command_start);
}

void xwd_ping(void) { xwd_write(command_ping); }

void xwd_end(void) { xwd_write(command_end); }

void xwd_write(char command)
{
    if (watchdog.fd < 0) return;
    log_trace("writing command: %c", command);
    if (write_byte(watchdog.fd, command)) return;
    log_error("xwd write failed: %s", strerror(errno));
    abort(); // on purpose: nothing runs on unwatched
}
