// Questions to the kernel's routing tables, and the walk over their answers. Everything in an answer is checked against
// what is left of it.
#pragma once

#include <cstdint>
#include <linux/rtnetlink.h>
#include <optional>
#include <span>
#include <vela/core/internal/own.h>

namespace vela::rtnetlink
{

/// The messages of an answer that belong to one question.
struct question {
    uint16_t type;  // RTM_GET...
    uint8_t family; // AF_...
    uint32_t sequence;
    uint32_t port = 0; // as the kernel gave it to the socket
};

/// A route socket, opened by its first question, with a port of its own: not the process's id, which another socket may
/// have taken. Asks one question after the other.
class route_socket
{
public:
    /// Sends a dump request; fills in the question's port.
    [[nodiscard]] bool ask(question &q);
    /// One datagram, or what fits of it; negative on failure. EINTR is retried, a silent kernel given up on.
    [[nodiscard]] ssize_t receive(std::span<uint8_t> into) const;
    /// Asks and reads the whole dump, at most as much as the buffer holds. Nothing on failure.
    std::optional<std::span<const uint8_t>> dump(question &q, std::span<uint8_t> buffer);

private:
    bool open();

    unique_fd fd_;
    uint32_t port_ = 0;
    bool unread_ = false; // a dump was asked for and its end not seen: the next question needs another socket
};

/// One message: its type and what follows its header.
struct message {
    uint16_t type;
    std::span<const uint8_t> payload;
};

/// Walks an answer: messages of other questions are passed over; a final or malformed one ends it.
class messages
{
public:
    messages(std::span<const uint8_t> answer, const question &q) : rest_{answer}, question_{q} {}
    std::optional<message> next();
    [[nodiscard]] bool done() const { return done_; } ///< the answer's end was seen

private:
    std::span<const uint8_t> rest_;
    const question &question_;
    bool done_ = false;
};

/// One attribute: type and value.
struct attribute {
    uint16_t type;
    std::span<const uint8_t> value;

    /// The value of a fixed-size attribute; nothing when the size is another.
    template <class T> [[nodiscard]] std::optional<T> as() const
    {
        if (value.size() != sizeof(T)) return std::nullopt;
        T result;
        memcpy(&result, value.data(), sizeof result);
        return result;
    }
};

/// Walks the attributes behind a message's fixed record; ends at a malformed one.
class attributes
{
public:
    explicit attributes(std::span<const uint8_t> bytes) : rest_{bytes} {}
    std::optional<attribute> next();

private:
    std::span<const uint8_t> rest_;
};

/// Splits a payload into its fixed record and the attributes behind it. Nothing when it is too short.
template <class Record> bool split(const message &m, Record &record, std::span<const uint8_t> &rest)
{
    if (m.payload.size() < sizeof record) return false;
    memcpy(&record, m.payload.data(), sizeof record);
    rest = m.payload.subspan(std::min<size_t>(NLMSG_ALIGN(sizeof record), m.payload.size()));
    return true;
}

} // namespace vela::rtnetlink
