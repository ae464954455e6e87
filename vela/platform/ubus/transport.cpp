// The socket is non-blocking, and every wait is a poll with what is left of its time.

#include <cerrno>
#include <sys/socket.h>
#include <sys/uio.h>
#include <vela/platform/ubus/transport.h>

namespace vela::bus
{

namespace
{

bool would_block() { return errno == EAGAIN || errno == EWOULDBLOCK; }

} // namespace

bool wait_until(int fd, short events, const deadline &until)
{
    for (;;) {
        const wait_result waited = wait_for(fd, events, until);
        // An error shows again, in words, when the descriptor is used.
        if (waited != wait_result::failed || errno != EINTR) return waited != wait_result::timeout;
    }
}

void incoming::forget()
{
    body_.reset();
    received_ = 0;
}

std::span<uint8_t> incoming::missing()
{
    if (received_ < sizeof header) {
        return {reinterpret_cast<uint8_t *>(&header) + received_, sizeof header - received_};
    }
    const size_t taken = received_ - sizeof header;
    return {body_.get() + taken, payload().size() - taken};
}

bool incoming::accept_header()
{
    const size_t length = body_length(header);
    if (header.version != 0 || length < sizeof header.body || length > body_max) return false;
    if (payload().empty()) return true;
    body_.reset(static_cast<uint8_t *>(malloc(payload().size())));
    return body_ != nullptr;
}

progress incoming::receive(int fd)
{
    for (auto rest = missing(); !rest.empty(); rest = missing()) {
        const ssize_t n = recv(fd, rest.data(), rest.size(), MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && would_block()) return progress::nothing_yet;
        if (n <= 0) return progress::broken;
        received_ += static_cast<size_t>(n);
        if (received_ == sizeof header && !accept_header()) return progress::broken;
    }
    return progress::done;
}

progress send(int fd, frame_header header, std::span<const uint8_t> payload, const deadline &until)
{
    const size_t total = sizeof header + payload.size();
    size_t sent = 0;
    while (sent < total) {
        const size_t of_header = std::min(sent, sizeof header);
        const size_t of_payload = sent - of_header;
        iovec parts[] = {
            {reinterpret_cast<uint8_t *>(&header) + of_header, sizeof header - of_header},
            {const_cast<uint8_t *>(payload.data()) + of_payload, payload.size() - of_payload},
        };
        msghdr m{};
        m.msg_iov = parts;
        m.msg_iovlen = std::size(parts);
        const ssize_t n = sendmsg(fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (errno == EINTR) continue;
        if (!would_block()) return progress::broken;
        const deadline patience = deadline::earlier(until, deadline::after_ms(stall_ms));
        if (!wait_until(fd, POLLOUT, patience)) return sent == 0 ? progress::nothing_yet : progress::broken;
    }
    return progress::done;
}

bool take_greeting(int fd, uint32_t &local_id, const deadline &until)
{
    incoming hello;
    progress got = hello.receive(fd);
    while (got == progress::nothing_yet && wait_until(fd, POLLIN, until)) got = hello.receive(fd);
    if (got != progress::done || hello.header.type != message::hello || hello.header.peer == 0) return false;
    local_id = hello.header.peer; // in the byte order of the wire, as libubus keeps it
    return true;
}

} // namespace vela::bus
