// Netlink for the sources that speak it through libnl: owners, checked attributes, one request with its answer, and the
// differences between libnl-3 and libnl-tiny in one place.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <netlink/netlink.h> // first: libnl-tiny's other headers do not compile without it
//
#include <netlink/attr.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/handlers.h>
#include <netlink/msg.h>
#include <netlink/socket.h>
#include <optional>
#include <span>
#include <vela/core/internal/memory.h>

namespace vela
{

// Callback sets are counted: an owner is one reference, and so is each socket made with the set.
using nl_cb_ptr = std::unique_ptr<nl_cb, releaser<nl_cb_put>>;
using nl_sock_ptr = std::unique_ptr<nl_sock, releaser<nl_socket_free>>;
using nl_msg_ptr = std::unique_ptr<nl_msg, releaser<nlmsg_free>>;

namespace netlink
{

// libnl's error numbers (results carry them negated), which are not errno's.
inline constexpr int error_interrupted = 2;
inline constexpr int error_nothing_there = 4; // libnl-3 on an empty non-blocking socket; libnl-tiny says 0
inline constexpr int error_no_memory = 5;     // on a receive: ENOBUFS, messages were lost
inline constexpr int error_dump_interrupted = 33;

/// Connects to generic netlink. The descriptor does not reach commands, and a message of any size is read whole.
int connect_generic(nl_sock *socket);

/// The room for one message, where the library reads without asking for its size first.
int set_message_buffer(nl_sock *socket, size_t size);

/// Index of an interface; 0 when there is none of that name, or the name cannot be one.
unsigned interface_index(const char *ifname);

/// Where an exchange is logged: on behalf of the function that runs it.
struct log_origin {
    const char *module;
    const char *function;
};

/// Reads what answers the request just sent, until it is acknowledged, refused or its dump is at an end. `callbacks`
/// is for this one exchange: its error, finish, acknowledgement and incoming handlers are replaced.
/// Returns 0, the kernel's negative errno, -EAGAIN for a dump that changed while it was read, or a negative libnl code.
/// A dump that fails ends like any other, with 0; `dump_error` receives its negative errno, or 0.
int await_answer(nl_sock *socket, nl_cb *callbacks, log_origin origin, int *dump_error = nullptr);

/// Attributes by number, up to Max. A value that is not there, or too short for what is asked, gives nothing.
template <int Max> class attribute_table
{
public:
    /// Those behind a message's generic-netlink header.
    static attribute_table of(nl_msg *message)
    {
        attribute_table table;
        const nlmsghdr *header = nlmsg_hdr(message);
        if (header->nlmsg_len < NLMSG_HDRLEN + GENL_HDRLEN) return table;
        auto *generic = static_cast<genlmsghdr *>(NLMSG_DATA(header));
        table.parse(genlmsg_attrdata(generic, 0), genlmsg_attrlen(generic, 0));
        return table;
    }
    /// Those inside another one.
    static attribute_table inside(nlattr *outer)
    {
        attribute_table table;
        if (outer) table.parse(static_cast<nlattr *>(nla_data(outer)), nla_len(outer));
        return table;
    }

    [[nodiscard]] nlattr **slots() { return slots_.data(); }
    [[nodiscard]] nlattr *operator[](int number) const { return slots_[static_cast<size_t>(number)]; }
    [[nodiscard]] std::optional<uint16_t> u16(int number) const { return value<uint16_t>(number); }
    [[nodiscard]] std::optional<uint32_t> u32(int number) const { return value<uint32_t>(number); }
    [[nodiscard]] std::optional<uint64_t> u64(int number) const { return value<uint64_t>(number); }
    [[nodiscard]] std::span<const uint8_t> bytes(int number) const
    {
        nlattr *attribute = (*this)[number];
        if (!attribute) return {};
        return {static_cast<const uint8_t *>(nla_data(attribute)), static_cast<size_t>(nla_len(attribute))};
    }

private:
    void parse(nlattr *first, int length)
    {
        if (nla_parse(slots_.data(), Max, first, length, nullptr) < 0) slots_ = {};
    }
    template <class T> std::optional<T> value(int number) const
    {
        const auto data = bytes(number);
        if (data.size() < sizeof(T)) return std::nullopt;
        T value;
        memcpy(&value, data.data(), sizeof value);
        return value;
    }

    std::array<nlattr *, Max + 1> slots_ = {};
};

} // namespace netlink
} // namespace vela
