#include "site/local_peer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace site
{
namespace
{
constexpr size_t datagram_max = 1 << 17;
constexpr timeval patience = {.tv_sec = 2, .tv_usec = 0}; // with a client that takes no more

const sockaddr *as_sockaddr(const local_address &a) { return reinterpret_cast<const sockaddr *>(&a.address); }
} // namespace

local_address path_address(const std::string &path)
{
    local_address result;
    result.address.sun_family = AF_UNIX;
    path.copy(result.address.sun_path, sizeof result.address.sun_path - 1);
    result.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    return result;
}

local_address abstract_address(const std::string &name)
{
    local_address result;
    result.address.sun_family = AF_UNIX;
    name.copy(result.address.sun_path + 1, sizeof result.address.sun_path - 1);
    result.length = sizeof result.address;
    return result;
}

local_peer::local_peer(const local_address &at) : fd_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)}, at_{at}
{
    if (*at.address.sun_path) unlink(at.address.sun_path);
    if (fd_ < 0 || (at.length != 0 && bind(fd_, as_sockaddr(at), at.length) < 0)) {
        const std::error_code why{errno, std::generic_category()};
        close(fd_);
        throw std::system_error{why, "local peer"};
    }
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

local_peer::~local_peer() { stop(); }

void local_peer::serve(std::function<void()> body)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread{std::move(body)};
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void local_peer::stop()
{
    if (stopped_.exchange(true)) return;
    shutdown(fd_, SHUT_RDWR); // wakes the thread
    if (thread_.joinable()) thread_.join();
    close(fd_);
    if (*at_.address.sun_path) unlink(at_.address.sun_path);
}

std::optional<local_peer::datagram> local_peer::receive(int timeout_ms)
{
    pollfd entry = {fd_, POLLIN, 0};
    if (poll(&entry, 1, timeout_ms) <= 0) return std::nullopt;
    datagram d;
    d.content.resize(datagram_max);
    d.from.length = sizeof d.from.address;
    const ssize_t n = recvfrom(fd_, d.content.data(), d.content.size(), 0,
                               reinterpret_cast<sockaddr *>(&d.from.address), &d.from.length);
    if (n < 0 || (n == 0 && stopped_)) return std::nullopt;
    d.content.resize(static_cast<size_t>(n));
    return d;
}

void local_peer::send(const local_address &to, const bytes &content)
{
    // A client that is gone, or gave up, is no concern of a daemon.
    (void)sendto(fd_, content.data(), content.size(), MSG_NOSIGNAL, as_sockaddr(to), to.length);
}

void local_peer::complain(const std::string &fault)
{
    const std::lock_guard lock{mutex_};
    faults_.push_back(fault);
}

std::vector<std::string> local_peer::faults()
{
    const std::lock_guard lock{mutex_};
    return faults_;
}

} // namespace site
