#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <vela/net/internal/rtnetlink.h>

namespace vela::rtnetlink
{
namespace
{

constexpr int patience_ms = 2000; // the kernel answers at once; nothing after this means nothing at all

constexpr size_t aligned(size_t length) { return NLMSG_ALIGN(length); }

std::span<const uint8_t> behind(std::span<const uint8_t> bytes, size_t n)
{
    return {bytes.data() + std::min(n, bytes.size()), bytes.size() - std::min(n, bytes.size())};
}

bool ends_with_done(std::span<const uint8_t> answer, const question &q)
{
    messages walk{answer, q};
    while (walk.next()) {}
    return walk.done();
}

} // namespace

bool route_socket::open()
{
    unread_ = false;
    fd_.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    socklen_t length = sizeof address;
    if (!fd_.ok() || bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) return false;
    if (getsockname(fd_.get(), reinterpret_cast<sockaddr *>(&address), &length) < 0) return false;
    port_ = address.nl_pid;
    return true;
}

bool route_socket::ask(question &q)
{
    if ((!fd_.ok() || unread_) && !open()) return false;
    q.port = port_;
    struct {
        nlmsghdr header;
        union {
            ifinfomsg link; // first, as the largest: only the first is sure to be zeroed
            rtmsg route;
            ndmsg neighbour;
        } body;
    } request = {};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = q.type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = q.sequence;
    request.header.nlmsg_pid = port_;
    request.body.route.rtm_family = q.family; // the family comes first in all three
    if (q.type == RTM_GETROUTE) request.body.route.rtm_table = RT_TABLE_MAIN;
    const sockaddr_nl kernel = {.nl_family = AF_NETLINK, .nl_pad = 0, .nl_pid = 0, .nl_groups = 0};
    unread_ = sendto(fd_.get(), &request, sizeof request, 0, reinterpret_cast<const sockaddr *>(&kernel),
                     sizeof kernel) == static_cast<ssize_t>(sizeof request);
    return unread_;
}

ssize_t route_socket::receive(std::span<uint8_t> into) const
{
    for (;;) {
        // A dump is put together while it is read, so that there is rarely anything to wait for.
        const ssize_t n = recv(fd_.get(), into.data(), into.size(), MSG_DONTWAIT);
        if (n >= 0) return n;
        if (errno == EINTR) continue;
        pollfd waiting = {fd_.get(), POLLIN, 0};
        if (errno != EAGAIN || poll(&waiting, 1, patience_ms) == 0) return -1;
    }
}

std::optional<std::span<const uint8_t>> route_socket::dump(question &q, std::span<uint8_t> buffer)
{
    if (!ask(q)) return std::nullopt;
    size_t used = 0;
    while (unread_ && used < buffer.size()) {
        const ssize_t n = receive({buffer.data() + used, buffer.size() - used});
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        const std::span<const uint8_t> datagram{buffer.data() + used, static_cast<size_t>(n)};
        unread_ = !ends_with_done(datagram, q);
        used = std::min(aligned(used + datagram.size()), buffer.size());
    }
    return std::span<const uint8_t>{buffer.data(), used};
}

std::optional<message> messages::next()
{
    while (!done_) {
        nlmsghdr header;
        if (rest_.size() < sizeof header) return std::nullopt;
        memcpy(&header, rest_.data(), sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > rest_.size()) return std::nullopt;
        const std::span<const uint8_t> payload{rest_.data() + sizeof header, header.nlmsg_len - sizeof header};
        rest_ = behind(rest_, aligned(header.nlmsg_len));
        if (header.nlmsg_seq != question_.sequence || header.nlmsg_pid != question_.port) continue;
        done_ = header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR;
        if (!done_) return message{header.nlmsg_type, payload};
    }
    return std::nullopt;
}

std::optional<attribute> attributes::next()
{
    rtattr header;
    if (rest_.size() < sizeof header) return std::nullopt;
    memcpy(&header, rest_.data(), sizeof header);
    if (header.rta_len < sizeof header || header.rta_len > rest_.size()) return std::nullopt;
    const std::span<const uint8_t> value{rest_.data() + sizeof header, header.rta_len - sizeof header};
    rest_ = behind(rest_, aligned(header.rta_len));
    return attribute{static_cast<uint16_t>(header.rta_type & NLA_TYPE_MASK), value};
}

} // namespace vela::rtnetlink
