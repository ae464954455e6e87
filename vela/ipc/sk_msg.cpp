// Typed messages over datagram sockets.
//
// Sending and receiving are written once, over a "lane": how one byte range goes out, or one datagram comes in, on a
// connected socket or to and from an address. Every wait ends at a moment of the monotonic clock. An unconnected socket
// needs that: the kernel calls it writable while its receiver's queue is full, so that a wait returns at once and the
// send that follows fails, for ever. Waiting comes before each send: a socket takes more than it calls itself writable
// for, and a peer that does not read is to cost the time limit rather than fill that room.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>
#include <vela/core/internal/buffer.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/wait.h>
#include <vela/ipc/sk_msg.h>

namespace
{

constexpr const char *log_module = "sk_msg";

constexpr int unconnected_wait_s = 3;
constexpr int full_queue_pause_ms = 1;
constexpr size_t header_size = 8;
constexpr uint32_t preview_max = 20; // characters of the data in the log line of sk_msg_sendto

static_assert(offsetof(sk_msg, type) == 0 && offsetof(sk_msg, len) == 4 && offsetof(sk_msg, data) >= header_size);

uint32_t held(const sk_msg &msg) { return msg.data ? msg.data->length(msg.data) : 0; }

/// Whether there are as many bytes as the message is said to have: those behind the buffer's data count too, a text's
/// NUL for one.
bool can_send(const sk_msg &msg)
{
    return msg.len <= 0 || (msg.data && static_cast<uint32_t>(msg.len) <= vela::bytes_to_end(*msg.data));
}

const char *text_of(const sk_msg &msg)
{
    return msg.data ? reinterpret_cast<const char *>(msg.data->data(msg.data)) : "";
}

/// The text of a message for "%.*s": the bytes held, which need not end in a NUL.
int text_width(const sk_msg &msg, uint32_t most = INT_MAX) { return static_cast<int>(std::min(held(msg), most)); }

void pause_ms(int ms) { (void)poll(nullptr, 0, ms); }

/// False with errno for a negative time: an error, as select() has it, not for ever.
bool is_time(int seconds)
{
    if (seconds < 0) errno = EINVAL;
    return seconds >= 0;
}

/// Where a message goes: `to` is null on a connected socket.
struct sending_lane {
    const char *step; // its name in the log
    int fd;
    int wait_s;
    const sockaddr *to;
    socklen_t to_length;

    /// Sends one range, of a byte at least, completely.
    [[nodiscard]] bool send(std::span<const uint8_t> range) const
    {
        if (fd < 0) {
            log_error_as(step, "Invalid socketfd:%d", fd);
            return false;
        }
        vela::deadline until{wait_s};
        for (;;) {
            if (!wait_writable(until)) return false;
            const ssize_t n = send_some(range);
            if (n > 0) {
                range = {range.data() + n, range.size() - static_cast<size_t>(n)};
                if (range.empty()) return true;
                until = vela::deadline{wait_s};
                continue;
            }
            if (n < 0 && errno != EAGAIN) {
                log_debug_as(step, "errno:%d/%s", errno, strerror(errno));
                return false;
            }
            if (n == 0) log_error_as(step, "errno:%d/%s", errno, strerror(errno));
            if (until.passed()) return time_is_up();
            pause_ms(full_queue_pause_ms);
        }
    }

private:
    [[nodiscard]] ssize_t send_some(std::span<const uint8_t> range) const
    {
        constexpr int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
        if (!to) return ::send(fd, range.data(), range.size(), flags);
        return sendto(fd, range.data(), range.size(), flags, to, to_length);
    }

    [[nodiscard]] bool wait_writable(const vela::deadline &until) const
    {
        using enum vela::wait_result;
        const auto result = is_time(wait_s) ? vela::wait_through_signals(fd, POLLOUT, until) : failed;
        if (result == timeout) return time_is_up();
        if (result == failed) log_error_as(step, "Select return -1! errno:%d/%s", errno, strerror(errno));
        return result == ready;
    }

    [[nodiscard]] bool time_is_up() const
    {
        log_warn_as(step, "Connection Timeout!");
        errno = ETIMEDOUT;
        return false;
    }
};

bool send_header(const sending_lane &lane, const sk_msg &msg)
{
    return lane.send({reinterpret_cast<const uint8_t *>(&msg), header_size});
}

/// The data in pieces; returns their sum.
int32_t send_data(const sending_lane &lane, const sk_msg &msg)
{
    if (msg.len <= 0) return 0;
    const std::span<const uint8_t> data{msg.data->data(msg.data), static_cast<size_t>(msg.len)};
    for (size_t sent = 0; sent < data.size();) {
        const size_t piece = std::min<size_t>(data.size() - sent, SK_MSG_PIECE_MAX);
        if (!lane.send({data.data() + sent, piece})) return -1;
        sent += piece;
    }
    return msg.len;
}

/// One datagram on a connected socket, and nothing in the log about it.
struct connected_source {
    int fd;
    int wait_s;
    vela::wait_result (*wait)(int fd, short events, const vela::deadline &until);

    ssize_t receive(void *out, size_t size)
    {
        if (!is_time(wait_s)) return -1;
        if (wait(fd, POLLIN, vela::deadline{wait_s}) != vela::wait_result::ready) return -1;
        return recv(fd, out, size, MSG_DONTWAIT);
    }
};

/// One datagram from anybody, with the sender's address.
struct open_source {
    int fd;
    sockaddr *from;
    socklen_t *from_length;
    socklen_t room = *from_length; // restored for each datagram, the kernel shortens it to the last sender's

    ssize_t receive(void *out, size_t size)
    {
        if (!wait_readable()) return -1;
        ssize_t n = 0;
        do {
            *from_length = room;
            n = recvfrom(fd, out, size, MSG_DONTWAIT, from, from_length);
        } while (n < 0 && errno == EINTR);
        return n;
    }

private:
    static constexpr const char *step = "req_recv";

    [[nodiscard]] bool wait_readable() const
    {
        const auto result = vela::wait_through_signals(fd, POLLIN, vela::deadline{unconnected_wait_s});
        if (result == vela::wait_result::timeout) log_warn_as(step, "Select() timeout fd %d", fd);
        if (result == vela::wait_result::failed) {
            // On purpose: no blank behind the number.
            log_error_as(step, "Select() error from fd %derrno:%d/%s", fd, errno, strerror(errno));
        }
        return result == vela::wait_result::ready;
    }
};

/// Receives a message: its header at a level of its own in the log, refused when it announces more than `most` bytes.
template <class Source>
int32_t receive_message(Source source, sk_msg &msg, const char *function, uint32_t header_level,
                        int32_t most = INT32_MAX)
{
    // On purpose: a header cut short is not noticed, and leaves in type and len what the caller had there.
    if (source.receive(&msg, header_size) < 0) return -1;
    log_at(header_level, log_module, function, "Recv header type:%d, len:%d", msg.type, msg.len);
    if (msg.len > most) return -1;

    int32_t received = 0;
    while (received < msg.len) {
        const auto piece = static_cast<uint32_t>(std::min<int32_t>(msg.len - received, SK_MSG_PIECE_MAX));
        uint8_t scratch[SK_MSG_PIECE_MAX];
        const ssize_t n = source.receive(scratch, piece);
        if (n < 0) return -1;
        // On purpose: a piece counts whole however short it came; what it lacks is zero.
        memset(scratch + n, 0, piece - static_cast<size_t>(n));
        if (msg.data && msg.data->append(msg.data, scratch, piece) != piece) return -1;
        received += static_cast<int32_t>(piece);
    }
    log_trace_as(function, "total_recv:%d, buffer_sz:%d", received, static_cast<int>(held(msg)));
    if (!libvela_log_use_syslog) log_trace_as(function, "Data:%.*s", text_width(msg), text_of(msg));
    return received;
}

} // namespace

int32_t sk_msg_send(int fd, const sk_msg *msg, int timeout_s)
{
    if (!msg || fd < 0 || !can_send(*msg)) {
        log_error("Invalid parameter");
        return -1;
    }
    log_debug("Send type:%d, len:%d, data:%.*s", msg->type, msg->len, text_width(*msg), text_of(*msg));
    const sending_lane lane{"send_nonblocking", fd, timeout_s, nullptr, 0};
    return send_header(lane, *msg) ? send_data(lane, *msg) : -1;
}

int32_t sk_msg_recv(int fd, sk_msg *msg, int timeout_s)
{
    if (!msg || fd < 0) {
        log_error("Invalid parameter");
        return -1;
    }
    // On purpose: a signal ends the wait.
    return receive_message(connected_source{fd, timeout_s, vela::wait_for}, *msg, __func__, LIBVELA_LOG_TRACE);
}

int32_t sk_msg_recv_limited(int fd, sk_msg *msg, int timeout_s, int32_t most)
{
    constexpr const char *step = "sk_msg_recv"; // its further form, in the log too
    if (!msg || fd < 0) {
        log_error_as(step, "Invalid parameter");
        return -1;
    }
    const connected_source source{fd, timeout_s, vela::wait_through_signals};
    return receive_message(source, *msg, step, LIBVELA_LOG_TRACE, most);
}

int32_t sk_msg_sendto(int fd, const sk_msg *msg, const struct sockaddr *to, socklen_t tolen)
{
    if (!msg || !to || fd < 0 || !can_send(*msg)) {
        log_error("Invalid parameter");
        return -1;
    }
    const sending_lane lane{"sendto_nonblocking", fd, unconnected_wait_s, to, tolen};
    if (!send_header(lane, *msg)) return -1;
    log_debug("Send type:%d, len:%d, data:%.*s...", msg->type, msg->len, text_width(*msg, preview_max), text_of(*msg));
    return send_data(lane, *msg);
}

int32_t sk_msg_recvfrom(int fd, sk_msg *msg, struct sockaddr *from, socklen_t *fromlen)
{
    if (!msg || !from || !fromlen || fd < 0) {
        log_error("Invalid parameter");
        return -1;
    }
    return receive_message(open_source{fd, from, fromlen}, *msg, __func__, LIBVELA_LOG_DEBUG);
}
