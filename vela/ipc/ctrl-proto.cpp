// Control messages: requests to the management daemon and its replies.
//
// A request leaves from a socket bound at a temporary path, chunk by chunk, and its reply comes back to that path. The
// deadline of a reply is fixed when the wait begins; whatever the peer sends, it ends there. Any breach of the framing
// gives the whole reply up: nothing tells where the next message would begin.

#include <algorithm>
#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>
#include <vela/core/internal/buffer.h>
#include <vela/core/internal/json.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/core/internal/wait.h>
#include <vela/ipc/internal/ctrl_reply.h>

namespace
{

constexpr const char *log_module = "mgr-proto";
constexpr const char *source_name = "ctrl-proto"; // in the out-of-memory text

constexpr char temporary_template[] = "/tmp/.mgr-XXXXXX";
constexpr time_t send_timeout_s = 10;
constexpr uint32_t chunk_max = 16384;
constexpr uint32_t payload_max = CTRL_MESSAGE_MAX - CTRL_HEADER_SIZE;

struct message_header {
    uint32_t magic;
    uint32_t type;
    uint32_t length; // of the payload
};
struct chunk_header {
    uint32_t total;  // bytes of the message, the same in all its chunks
    uint32_t length; // bytes of the datagram that follows
    uint32_t more;   // 1: further chunks follow it
};
static_assert(sizeof(message_header) == CTRL_HEADER_SIZE && sizeof(chunk_header) == 12);
static_assert(offsetof(ctrl_attribute, len) == 2 && offsetof(ctrl_attribute, data) == 6);
static_assert(sizeof(sockaddr_un) == 110 && sizeof(sockaddr_un::sun_path) == 108);

using message_ptr = std::unique_ptr<ctrl_msg, vela::releaser<ctrl_msg_destroy>>;
using attribute_ptr = std::unique_ptr<ctrl_attribute, vela::releaser<ctrl_attribute_destroy>>;

/// A zeroed block; without memory the process ends, and the text names the caller's line.
void *zeroed(size_t size, int line = __builtin_LINE())
{
    void *block = calloc(1, size);
    if (!block) vela::out_of_memory(source_name, line);
    return block;
}

message_ptr new_message(int line = __builtin_LINE())
{
    return message_ptr{static_cast<ctrl_msg *>(zeroed(sizeof(ctrl_msg), line))};
}

const sockaddr *as_sockaddr(const sockaddr_un &address) { return reinterpret_cast<const sockaddr *>(&address); }

/// Makes the address of a path; false with errno when it does not fit.
bool set_address(sockaddr_un &address, socklen_t &length, std::string_view path)
{
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    address.sun_family = AF_UNIX;
    vela::copy_text(address.sun_path, path);
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    return true;
}

// ---- receiving

/// One reply on its way in. What fails is logged under the name of the call that waits.
class incoming
{
public:
    incoming(int sock, const vela::deadline &until, ctrl_msg &reply) : sock_{sock}, until_{until}, reply_{reply} {}

    /// Takes one chunk: its header, then its bytes.
    bool take_chunk()
    {
        chunk_header header = {};
        if (!receive_header(header)) return false;
        if (const char *fault = fault_in(header)) {
            log_error_as(waiting, "%s", fault);
            return false;
        }
        if (!reply_.buffer) {
            reply_.total_len = header.total;
            reply_.buffer = static_cast<uint8_t *>(zeroed(size_t{header.total} + 1)); // a text in it always ends
        }
        if (!receive_bytes(header.length)) return false;
        last_ = header.more == 0;
        return true;
    }
    [[nodiscard]] bool last_chunk_taken() const { return last_; }

    [[nodiscard]] bool complete() const
    {
        if (received_ == reply_.total_len) return true;
        log_error_as(waiting, "invalid response length");
        return false;
    }

private:
    static constexpr const char *waiting = "ctrl_response_wait";

    bool receive_header(chunk_header &header)
    {
        const ssize_t got = receive(&header, sizeof header);
        if (got < 0) log_error_as(waiting, "recvfrom header: %i/%s", errno, strerror(errno));
        if (got >= 0 && got != sizeof header) log_error_as(waiting, "short header");
        return got == sizeof header;
    }

    [[nodiscard]] const char *fault_in(const chunk_header &header) const
    {
        if (header.length == 0 || header.length > chunk_max) return "invalid header";
        if (header.length > header.total || header.total > CTRL_MESSAGE_MAX) return "invalid header total length";
        if (!reply_.buffer) return nullptr;
        if (header.total != reply_.total_len) return "invalid header total length (changed mid-stream)";
        if (received_ >= reply_.total_len) return "buffer overflow";
        if (header.length > reply_.total_len - received_) return "received data exceeds total length";
        return nullptr;
    }

    bool receive_bytes(uint32_t length)
    {
        const ssize_t got = receive(reply_.buffer + received_, length);
        if (got < 0) log_error_as(waiting, "recvfrom payload: %i/%s", errno, strerror(errno));
        const bool whole = got == static_cast<ssize_t>(length);
        if (got >= 0 && !whole) log_error_as(waiting, "short payload: got %zd, expected %u", got, length);
        if (whole) received_ += length;
        return whole;
    }

    /// One datagram, and its sender's address into the reply. Never blocks beyond the deadline: ETIMEDOUT.
    ssize_t receive(void *data, size_t size)
    {
        for (;;) {
            // A deadline that has passed ends the reply, whatever lies in the socket.
            auto ready = vela::wait_result::timeout;
            if (!until_.passed()) ready = vela::wait_through_signals(sock_, POLLIN, until_);
            if (ready == vela::wait_result::timeout) errno = ETIMEDOUT;
            if (ready != vela::wait_result::ready) return -1;

            // The kernel writes the address of an unnamed sender only in part, and shortens the length for the next.
            reply_.addr = {};
            reply_.addr.sun_family = AF_UNIX;
            reply_.addr_len = sizeof reply_.addr;
            const ssize_t got =
                recvfrom(sock_, data, size, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&reply_.addr), &reply_.addr_len);
            if (got >= 0 || (errno != EAGAIN && errno != EINTR)) return got;
        }
    }

    int sock_;
    vela::deadline until_;
    ctrl_msg &reply_;
    size_t received_ = 0;
    bool last_ = false;
};

// ---- the socket of one call

/// The path of one call's socket, gone when the call ends.
class temporary_path
{
public:
    /// A file of that name keeps others from it until the socket takes its place.
    temporary_path()
    {
        memcpy(path_, temporary_template, sizeof path_);
        const vela::unique_fd file{mkostemp(path_, O_CLOEXEC)};
        if (!file.ok()) *path_ = '\0';
    }
    temporary_path(const temporary_path &) = delete;
    temporary_path &operator=(const temporary_path &) = delete;
    ~temporary_path()
    {
        const vela::errno_keeper keep;
        if (ok()) (void)unlink(path_); // gone already where it was never bound
    }
    [[nodiscard]] bool ok() const { return *path_ != '\0'; }
    [[nodiscard]] const char *c_str() const { return path_; }

private:
    char path_[sizeof temporary_template];
};

bool answers(const ctrl_msg &reply, const ctrl_msg &request)
{
    const bool same_path = vela::field(reply.addr.sun_path) == vela::field(request.addr.sun_path);
    return same_path && vela::content_of(reply).has_value();
}

message_ptr build_json_request(buffer &text)
{
    (void)text.printf(&text, "%s", ""); // a NUL behind the text, also of a buffer that holds nothing yet
    const uint32_t length = text.length(&text);
    if (length >= payload_max) { // also keeps the sums below from wrapping
        errno = EMSGSIZE;
        return nullptr;
    }
    const attribute_ptr attribute{ctrl_attribute_create(CTRL_ATTR_JSON, nullptr, length + 1)};
    memcpy(attribute->data, text.data(&text), length);
    return message_ptr{
        ctrl_msg_build(CTRL_MGRD_PATH, CTRL_TYPE_JSON, attribute.get(), sizeof *attribute + attribute->len)};
}

} // namespace

const char *ctrl_type_to_string(uint32_t type)
{
    switch (type) {
    case CTRL_TYPE_STATUS: return "STATUS";
    case CTRL_TYPE_JSON: return "JSON";
    case CTRL_TYPE_SUCCESS: return "SUCCESS";
    case CTRL_TYPE_ERROR: return "ERROR";
    default: return "UNKNOWN";
    }
}

ctrl_attribute *ctrl_attribute_create(uint16_t type, const void *data, uint32_t len)
{
    size_t size = 0;
    if (__builtin_add_overflow(sizeof(ctrl_attribute), len, &size)) vela::out_of_memory(source_name, __LINE__);
    auto *attribute = static_cast<ctrl_attribute *>(zeroed(size));
    attribute->type = type;
    attribute->len = len;
    if (data && len != 0) memcpy(attribute->data, data, len);
    return attribute;
}

void ctrl_attribute_destroy(ctrl_attribute *attr) { free(attr); }

ctrl_msg *ctrl_msg_build(const char *dest_path, uint32_t type, const void *payload, uint32_t len)
{
    if (!dest_path) {
        errno = EINVAL;
        return nullptr;
    }
    if (len > payload_max) {
        errno = EMSGSIZE;
        return nullptr;
    }
    message_ptr message = new_message();
    if (!set_address(message->addr, message->addr_len, dest_path)) return nullptr;

    const message_header header = {CTRL_MAGIC, type, len};
    message->total_len = CTRL_HEADER_SIZE + len;
    message->buffer = static_cast<uint8_t *>(zeroed(message->total_len));
    memcpy(message->buffer, &header, sizeof header);
    if (payload && len != 0) memcpy(message->buffer + sizeof header, payload, len);
    return message.release();
}

void ctrl_msg_destroy(ctrl_msg *msg)
{
    const vela::errno_keeper keep;
    if (msg) free(msg->buffer);
    free(msg);
}

ssize_t ctrl_msg_send(int sock, const ctrl_msg *msg)
{
    if (!msg) {
        errno = EINVAL;
        return -1;
    }
    // On purpose: a signal during a blocked send gives the message up like any other failure.
    const auto send_datagram = [&](const void *data, size_t size) {
        return sendto(sock, data, size, MSG_NOSIGNAL, as_sockaddr(msg->addr), msg->addr_len) >= 0;
    };
    uint32_t sent = 0;
    while (sent < msg->total_len) {
        const uint32_t remaining = msg->total_len - sent;
        const uint32_t chunk = std::min(remaining, chunk_max);
        const chunk_header header = {msg->total_len, chunk, remaining > chunk_max ? 1U : 0U};
        if (!send_datagram(&header, sizeof header) || !send_datagram(msg->buffer + sent, chunk)) return -1;
        sent += chunk;
    }
    return sent;
}

int ctrl_socket_create(const char *path)
{
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    vela::unique_fd sock{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (!sock.ok()) return -1;
    (void)unlink(path); // a stale socket, a placeholder, or nothing

    sockaddr_un address = {};
    socklen_t length = 0;
    if (!set_address(address, length, path)) return -1;
    if (bind(sock.get(), as_sockaddr(address), length) < 0) return -1;

    const timeval limit = {.tv_sec = send_timeout_s, .tv_usec = 0};
    if (setsockopt(sock.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) < 0) {
        log_error("error setting SO_SNDTIMEO: %i/%s", errno, strerror(errno));
    }
    return sock.release();
}

ctrl_msg *ctrl_response_wait(int sock, const struct timeval *timeout)
{
    if (sock < 0) {
        errno = EBADF;
        return nullptr;
    }
    if (!vela::monotonic_ns()) return nullptr; // no clock, no deadline

    message_ptr reply = new_message();
    incoming chunks{sock, vela::deadline::after(timeout ? *timeout : timeval{}), *reply};
    while (!chunks.last_chunk_taken()) {
        if (!chunks.take_chunk()) return nullptr;
    }
    return chunks.complete() ? reply.release() : nullptr;
}

ctrl_msg *service(const ctrl_msg *request, const struct timeval *timeout)
{
    const temporary_path path;
    if (!path.ok()) {
        log_error("Failed creating temporary file: %s", strerror(errno));
        return nullptr;
    }
    const vela::unique_fd sock{ctrl_socket_create(path.c_str())};
    if (!sock.ok()) {
        log_error("Failed creating communication socket.");
        return nullptr;
    }
    if (ctrl_msg_send(sock.get(), request) < 0) {
        // On purpose: names the daemon even where the request goes elsewhere.
        log_error("Failed sending request to '%s' - '%s'", CTRL_MGRD_PATH, strerror(errno));
        return nullptr;
    }
    message_ptr reply{ctrl_response_wait(sock.get(), timeout)};
    if (!reply) {
        const timeval waited = timeout ? *timeout : timeval{};
        // On purpose: milliseconds in a field of two digits, so that a quarter of a second reads 0.250, a twentieth
        // 0.50.
        log_warn("Got no response within %lld.%02lld seconds", static_cast<long long>(waited.tv_sec),
                 static_cast<long long>(waited.tv_usec / 1000));
        return nullptr;
    }
    if (!answers(*reply, *request)) {
        log_warn("Invalid response from '%s'", path.c_str());
        return nullptr;
    }
    return reply.release();
}

json_t *service_json(buffer *json_text, const struct timeval *timeout)
{
    const message_ptr request = json_text ? build_json_request(*json_text) : nullptr;
    if (!request) {
        log_error("Failed building request");
        return nullptr;
    }
    const message_ptr reply{service(request.get(), timeout)};
    if (!reply) {
        log_info("failed to contact mgrd");
        return nullptr;
    }
    const auto content = vela::content_of(*reply);
    if (!content || content->type == CTRL_TYPE_ERROR) return nullptr;
    return vela::json_of(content->payload);
}

json_t *service_simple_op(const char *op, const struct timeval *timeout)
{
    const vela::buffer_ptr text{buffer_create()};
    buffer *b = text.get();
    // On purpose: the name is not escaped.
    if (!b || b->printf(b, "{\"op\":\"%s\"}", op ? op : "") == 0) {
        log_error("Failed allocating simple_op(%s) buffer", op ? op : "");
        return nullptr;
    }
    return service_json(b, timeout);
}
