// Questions to the kernel over netlink without libnl, and the walk over its answers: routes and links, sockets,
// connections, drivers' settings. Everything in an answer is checked against what is left of it.
//
//     raw_netlink::channel kernel{NETLINK_ROUTE};
//     raw_netlink::request links{RTM_GETLINK, ifinfomsg{}};
//     kernel.ask(links, raw_netlink::how_much::all);
//     while (const auto m = kernel.next()) { ... }
//     return kernel.result();
#pragma once

#include <netinet/in.h> // before kernel headers, which define its records again with musl
//
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>

namespace vela::raw_netlink
{

/// One attribute: type and value.
struct attribute {
    uint16_t type;
    std::span<const uint8_t> value;
    unsigned depth = 0; // of the list that it stands in

    /// The value of a fixed-size attribute; nothing when the size is another.
    template <class T> [[nodiscard]] std::optional<T> as() const
    {
        return value.size() == sizeof(T) ? beginning<T>() : std::nullopt;
    }
    /// The first members of a record that newer kernels lengthen; nothing when there are not so many bytes.
    template <class T> [[nodiscard]] std::optional<T> beginning() const
    {
        if (value.size() < sizeof(T)) return std::nullopt;
        T result;
        memcpy(&result, value.data(), sizeof result);
        return result;
    }
    /// The value as text, without the NUL and what follows it.
    [[nodiscard]] std::string_view text() const
    {
        const auto *first = reinterpret_cast<const char *>(value.data());
        return {first, value.empty() ? 0 : strnlen(first, value.size())};
    }
};

/// Walks a list of attributes; ends at a malformed one, and after more than any list of the kernel holds.
class attributes
{
public:
    static constexpr unsigned depth_max = 8;
    static constexpr unsigned count_max = 8192;

    explicit attributes(std::span<const uint8_t> bytes) : rest_{bytes} {}
    /// The list inside an attribute; empty where lists are nested too deep.
    static attributes inside(const attribute &outer);
    std::optional<attribute> next();

private:
    std::span<const uint8_t> rest_;
    unsigned depth_ = 0;
    unsigned count_ = 0;
};

/// One message: its type, its NLM_F_ flags, and what follows its header.
struct message {
    uint16_t type;
    uint16_t flags;
    std::span<const uint8_t> payload;
};

/// The messages of a datagram that answer one question; others are passed over. Ends at a malformed message.
class messages
{
public:
    messages() = default;
    messages(std::span<const uint8_t> datagram, uint32_t sequence, uint32_t port)
        : rest_{datagram}, sequence_{sequence}, port_{port}
    {
    }
    std::optional<message> next();
    /// At the end: whether something is left that is no message.
    [[nodiscard]] bool malformed() const { return !rest_.empty(); }

private:
    std::span<const uint8_t> rest_;
    uint32_t sequence_ = 0;
    uint32_t port_ = 0;
};

/// Splits a payload into its fixed record and the attributes behind it. Nothing when it is too short.
template <class Record> bool split(const message &m, Record &record, std::span<const uint8_t> &rest)
{
    if (m.payload.size() < sizeof record) return false;
    memcpy(&record, m.payload.data(), sizeof record);
    rest = m.payload.subspan(std::min<size_t>(NLMSG_ALIGN(sizeof record), m.payload.size()));
    return true;
}

/// A message to the kernel: header, fixed record, attributes. What does not fit is left out, and sending then fails.
class request
{
public:
    template <class Record> request(uint16_t type, const Record &record) : request(type)
    {
        append(&record, sizeof record);
    }

    void put_bytes(uint16_t type, std::span<const uint8_t> value);
    void put_text(uint16_t type, std::string_view text); ///< with a NUL
    /// A number or a record of the kernel's.
    template <class T> void put(uint16_t type, const T &value)
    {
        static_assert(std::is_trivially_copyable_v<T> && !std::is_pointer_v<T>);
        put_bytes(type, {reinterpret_cast<const uint8_t *>(&value), sizeof value});
    }

    /// A list inside the message: what is put while it lives belongs to it.
    class list
    {
    public:
        list(request &outer, uint16_t type) : outer_{outer}, begin_{outer.begin_list(type)} {}
        list(const list &) = delete;
        list &operator=(const list &) = delete;
        ~list() { outer_.end_list(begin_); }

    private:
        request &outer_;
        size_t begin_;
    };

    [[nodiscard]] bool fits() const { return fits_; }
    [[nodiscard]] std::span<const uint8_t> bytes() const { return {block_.data(), size_}; }
    void set_header(uint16_t flags, uint32_t sequence, uint32_t port);

private:
    explicit request(uint16_t type);
    void append(const void *bytes, size_t n);
    size_t begin_list(uint16_t type);
    void end_list(size_t begin);

    alignas(nlmsghdr) std::array<uint8_t, 4096> block_;
    size_t size_ = 0;
    bool fits_ = true;
};

enum class how_much { all, one };

enum class checking {
    strict, // the kernel filters by the whole request, where it can (Linux 4.20), and refuses what it does not know
    lenient,
};

/// A socket to one part of the kernel, opened by the first question, with a port of its own: not the process's id,
/// which another socket may have taken. One question after the other; what is left unread of an answer is forgotten by
/// the next. Only messages from the kernel count that carry the question's number and this socket's port.
///
/// One block of 32 KiB is held, nothing per message. The kernel answers at once; where it does not, a wait ends after
/// 2 s, and all waits for one answer after 5 s.
class channel
{
public:
    /// NETLINK_ROUTE, NETLINK_SOCK_DIAG, NETLINK_NETFILTER, NETLINK_GENERIC.
    explicit channel(int protocol, checking how = checking::strict) : protocol_{protocol}, checking_{how} {}

    /// Asks for a whole table or for one element; next() gives the answer. With a limit, at most so many bytes of the
    /// answer are read, and messages beyond them are left out. A sequence of 0 is the next number.
    void ask(request &question, how_much wanted, size_t limit = SIZE_MAX, uint32_t sequence = 0);
    /// The next message of the answer, valid until the next call; nothing at its end.
    std::optional<message> next();
    /// Sends a change and waits until it is done. 0, or a negative errno. `flags` as in NLM_F_CREATE | NLM_F_REPLACE.
    int acknowledge(request &change, int flags = 0);

    /// How the answer ended: 0; -EAGAIN when the table changed while it was read, everything was delivered then;
    /// -ETIMEDOUT; -EMSGSIZE for a message beyond the block; -EBADMSG when nothing was delivered from a malformed
    /// message on; -EOPNOTSUPP where the kernel lacks the protocol; any other negative errno from the kernel.
    [[nodiscard]] int result() const { return result_; }
    /// True when the kernel brought its answer to an end, be it with an error, or the limit was reached.
    [[nodiscard]] bool answered() const { return !unread_ || limit_ == 0; }
    /// The kernel's own words about what it refused; "" where it had none.
    [[nodiscard]] const char *reason() const { return reason_; }

private:
    int open();
    void begin(request &question, int flags, size_t limit);
    int send(request &question, uint16_t flags);
    void receive();
    void end(int result);
    void note_end(const message &m);

    int protocol_;
    checking checking_;
    unique_fd fd_;
    heap<uint8_t> block_;
    messages datagram_;
    uint32_t port_ = 0;
    uint32_t sequence_ = 0;
    size_t limit_ = 0;     // bytes still to be read
    int64_t left_ns_ = 0;  // of the time for one answer
    bool unread_ = false;  // the answer's end was not seen: the next question needs another socket
    bool reading_ = false; // next() has more to give
    bool changed_ = false; // the table, while it was read
    bool broken_ = false;  // the answer: only its end is still looked for
    int result_ = 0;
    char reason_[128] = "";
};

} // namespace vela::raw_netlink
