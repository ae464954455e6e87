// Connections to the Unix stream sockets of daemons.
#pragma once

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/core/internal/wait.h>

namespace vela
{

/// Connects to the socket at a path, close-on-exec and non-blocking; tries at least once. None with errno: EAGAIN where
/// the daemon's backlog stayed full.
inline unique_fd connect_stream(std::string_view path, const deadline &until)
{
    constexpr int pause_ms = 10; // no poll tells of room in a backlog
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return {};
    }
    copy_text(address.sun_path, path);
    unique_fd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    while (fd.ok() && connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        if ((errno != EAGAIN && errno != EINTR) || until.passed()) return {};
        (void)poll(nullptr, 0, pause_ms);
    }
    return fd;
}

} // namespace vela
