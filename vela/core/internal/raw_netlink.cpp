// The socket, the walk over datagrams, messages and attributes, and the making of requests.

#include <cerrno>
#include <sys/socket.h>
#include <vela/core/internal/raw_netlink.h>
#include <vela/core/internal/wait.h>
#include <vela/core/util.h>

namespace vela::raw_netlink
{
namespace
{

constexpr size_t block_size = 32768; // the kernel fills what it is offered up to this
constexpr int32_t patience_ms = 2000;
constexpr int64_t answer_ns = int64_t{5} * 1'000'000'000;

std::span<const uint8_t> behind(std::span<const uint8_t> bytes, size_t n)
{
    return bytes.subspan(std::min(n, bytes.size()));
}

struct datagram {
    ssize_t length; // or a negative errno
    bool cut;       // there was more of it than room
};

/// The next datagram of the kernel's; other programs' are passed over.
datagram receive_from_kernel(int fd, std::span<uint8_t> into, const deadline &until)
{
    do {
        sockaddr_nl from = {};
        iovec room = {into.data(), into.size()};
        msghdr header = {};
        header.msg_name = &from;
        header.msg_namelen = sizeof from;
        header.msg_iov = &room;
        header.msg_iovlen = 1;
        // The next part of a dump is put together while this one is read: there is rarely anything to wait for.
        const ssize_t n = recvmsg(fd, &header, MSG_DONTWAIT);
        if (n >= 0 && from.nl_pid == 0) return {n, (header.msg_flags & MSG_TRUNC) != 0};
        if (n < 0 && errno != EAGAIN && errno != EINTR) return {-errno, false};
        if (n < 0 && wait_through_signals(fd, POLLIN, until) == wait_result::failed) return {-errno, false};
    } while (!until.passed());
    return {-ETIMEDOUT, false};
}

void set_option(int fd, int option)
{
    const int on = 1;
    (void)setsockopt(fd, SOL_NETLINK, option, &on, sizeof on); // an older kernel does without
}

} // namespace

std::optional<message> messages::next()
{
    for (;;) {
        nlmsghdr header;
        if (rest_.size() < sizeof header) return std::nullopt;
        memcpy(&header, rest_.data(), sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > rest_.size()) return std::nullopt;
        const auto payload = rest_.subspan(sizeof header, header.nlmsg_len - sizeof header);
        rest_ = behind(rest_, NLMSG_ALIGN(header.nlmsg_len));
        if (header.nlmsg_seq == sequence_ && header.nlmsg_pid == port_) {
            return message{header.nlmsg_type, header.nlmsg_flags, payload};
        }
    }
}

attributes attributes::inside(const attribute &outer)
{
    attributes list{outer.depth < depth_max ? outer.value : std::span<const uint8_t>{}};
    list.depth_ = outer.depth + 1;
    return list;
}

std::optional<attribute> attributes::next()
{
    nlattr header;
    if (rest_.size() < sizeof header || ++count_ > count_max) return std::nullopt;
    memcpy(&header, rest_.data(), sizeof header);
    if (header.nla_len < sizeof header || header.nla_len > rest_.size()) return std::nullopt;
    const auto value = rest_.subspan(sizeof header, header.nla_len - sizeof header);
    rest_ = behind(rest_, NLA_ALIGN(header.nla_len));
    return attribute{static_cast<uint16_t>(header.nla_type & NLA_TYPE_MASK), value, depth_};
}

request::request(uint16_t type)
{
    const nlmsghdr header = {.nlmsg_len = 0, .nlmsg_type = type, .nlmsg_flags = 0, .nlmsg_seq = 0, .nlmsg_pid = 0};
    append(&header, sizeof header);
}

void request::append(const void *bytes, size_t n)
{
    const size_t padded = NLMSG_ALIGN(n);
    if (!fits_ || padded > block_.size() - size_) {
        fits_ = false;
        return;
    }
    if (n != 0) memcpy(block_.data() + size_, bytes, n);
    memset(block_.data() + size_ + n, 0, padded - n);
    size_ += padded;
}

void request::put_bytes(uint16_t type, std::span<const uint8_t> value)
{
    const size_t length = sizeof(nlattr) + value.size();
    const nlattr header = {.nla_len = static_cast<uint16_t>(length), .nla_type = type};
    fits_ = fits_ && length <= block_.size();
    append(&header, sizeof header);
    append(value.data(), value.size());
}

void request::put_text(uint16_t type, std::string_view text)
{
    char copy[256];
    fits_ = fits_ && text.size() < sizeof copy;
    copy_text(copy, text);
    put_bytes(type, {reinterpret_cast<const uint8_t *>(copy), std::min(text.size(), sizeof copy - 1) + 1});
}

size_t request::begin_list(uint16_t type)
{
    const size_t begin = size_;
    put_bytes(static_cast<uint16_t>(type | NLA_F_NESTED), {});
    return begin;
}

void request::end_list(size_t begin)
{
    if (!fits_) return;
    const auto length = static_cast<uint16_t>(size_ - begin); // at most the block's size
    memcpy(block_.data() + begin + offsetof(nlattr, nla_len), &length, sizeof length);
}

void request::set_header(uint16_t flags, uint32_t sequence, uint32_t port)
{
    nlmsghdr header;
    memcpy(&header, block_.data(), sizeof header);
    header.nlmsg_len = static_cast<uint32_t>(size_);
    header.nlmsg_flags = flags;
    header.nlmsg_seq = sequence;
    header.nlmsg_pid = port;
    memcpy(block_.data(), &header, sizeof header);
}

int channel::open()
{
    fd_.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol_));
    if (!fd_.ok()) return errno == EPROTONOSUPPORT ? -EOPNOTSUPP : -errno;
    set_option(fd_.get(), NETLINK_EXT_ACK);
    set_option(fd_.get(), NETLINK_CAP_ACK);
    if (checking_ == checking::strict) set_option(fd_.get(), NETLINK_GET_STRICT_CHK);

    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    socklen_t length = sizeof address;
    if (bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) return -errno;
    if (getsockname(fd_.get(), reinterpret_cast<sockaddr *>(&address), &length) < 0) return -errno;
    port_ = address.nl_pid;
    return 0;
}

int channel::send(request &question, uint16_t flags)
{
    if (!question.fits()) return -EMSGSIZE;
    if (!block_) block_.reset(static_cast<uint8_t *>(malloc(block_size)));
    if (!block_) return -ENOMEM;
    if (!fd_.ok() || unread_) {
        if (const int failed = open(); failed < 0) return failed;
    }
    question.set_header(flags, sequence_, port_);
    const auto bytes = question.bytes();
    const sockaddr_nl kernel = {.nl_family = AF_NETLINK, .nl_pad = 0, .nl_pid = 0, .nl_groups = 0};
    const ssize_t sent =
        sendto(fd_.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&kernel), sizeof kernel);
    unread_ = true;
    return sent < 0 ? -errno : 0;
}

void channel::begin(request &question, int flags, size_t limit)
{
    limit_ = limit;
    left_ns_ = answer_ns;
    changed_ = false;
    broken_ = false;
    reason_[0] = '\0';
    datagram_ = {};
    result_ = send(question, static_cast<uint16_t>(NLM_F_REQUEST | flags));
    reading_ = result_ == 0;
}

void channel::ask(request &question, how_much wanted, size_t limit, uint32_t sequence)
{
    sequence_ = sequence != 0 ? sequence : sequence_ + 1;
    // A dump has an end of its own; one element gets it by asking for an acknowledgement behind it.
    begin(question, wanted == how_much::all ? NLM_F_DUMP : NLM_F_ACK, limit);
}

int channel::acknowledge(request &change, int flags)
{
    ++sequence_;
    begin(change, NLM_F_ACK | flags, SIZE_MAX);
    while (next()) {}
    return result_;
}

void channel::end(int result)
{
    reading_ = false;
    result_ = result;
    if (result_ == 0 && changed_) result_ = -EAGAIN;
    if (result_ == 0 && broken_) result_ = -EBADMSG;
}

/// Receives the next datagram. Where there is none, the walk is at its end.
void channel::receive()
{
    if (limit_ == 0) return end(0);
    if (left_ns_ <= 0) return end(-ETIMEDOUT);
    const int64_t begin_ns = monotonic_ns().value_or(0);
    const auto until = deadline::earlier(deadline::after_ms(patience_ms),
                                         deadline::after_ms(static_cast<int32_t>(left_ns_ / 1'000'000)));
    const std::span<uint8_t> room{block_.get(), std::min(block_size, limit_)};
    const datagram d = receive_from_kernel(fd_.get(), room, until);
    if (d.length < 0) return end(static_cast<int>(d.length));
    if (d.cut && room.size() == block_size) return end(-EMSGSIZE);

    datagram_ = {{room.data(), static_cast<size_t>(d.length)}, sequence_, port_};
    limit_ -= d.cut ? limit_ : std::min<size_t>(NLMSG_ALIGN(static_cast<size_t>(d.length)), limit_);
    left_ns_ -= monotonic_ns().value_or(0) - begin_ns;
}

/// The end of an answer: what it says of the whole, and the kernel's words about it, which follow its number.
void channel::note_end(const message &m)
{
    unread_ = false;
    int32_t error = 0;
    if (m.payload.size() >= sizeof error) memcpy(&error, m.payload.data(), sizeof error);
    if (m.flags & NLM_F_ACK_TLVS) {
        size_t before = m.type == NLMSG_ERROR ? sizeof(nlmsgerr) : sizeof error;
        nlmsgerr refused;
        if (m.type == NLMSG_ERROR && !(m.flags & NLM_F_CAPPED) && m.payload.size() >= sizeof refused) {
            memcpy(&refused, m.payload.data(), sizeof refused);
            before = NLMSG_ALIGN(sizeof error + size_t{refused.msg.nlmsg_len}); // the request is repeated in between
        }
        attributes walk{behind(m.payload, before)};
        while (const auto a = walk.next()) {
            if (a->type == NLMSGERR_ATTR_MSG) copy_text(reason_, a->text());
        }
        utf8_sanitize(reason_);
    }
    end(error < 0 ? error : 0);
}

std::optional<message> channel::next()
{
    while (reading_) {
        const auto m = datagram_.next();
        if (!m) {
            broken_ = broken_ || (datagram_.malformed() && limit_ != 0);
            receive();
            continue;
        }
        changed_ = changed_ || (m->flags & NLM_F_DUMP_INTR) != 0;
        const bool last = m->type == NLMSG_DONE || m->type == NLMSG_ERROR;
        if (last) note_end(*m);
        if (!last && !broken_ && m->type >= NLMSG_MIN_TYPE) return m;
    }
    return std::nullopt;
}

} // namespace vela::raw_netlink
