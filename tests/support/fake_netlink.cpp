#include "tests/support/fake_netlink.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <linux/netlink.h>
#include <memory>
#include <netlink/socket.h>
#include <sys/socket.h>
#include <vela/platform/wifi/wifi_nl80211.h>

namespace
{

fake_netlink *current = nullptr;

fake_netlink::bytes bytes_of(nl_msg *message)
{
    const nlmsghdr *header = nlmsg_hdr(message);
    const auto *first = reinterpret_cast<const uint8_t *>(header);
    fake_netlink::bytes datagram(first, first + header->nlmsg_len);
    nlmsg_free(message);
    return datagram;
}

} // namespace

// In place of the library's own.
int wifi_init_nl80211_largebuf(wifi_cfg80211_context *context, int)
{
    current->tried.push_back(context->cmd_sock_id);
    if (current->refused_openings > 0) return -10 - current->refused_openings--;
    context->cmd_sock = current->socket();
    context->family = fake_netlink::family();
    ++current->open_contexts;
    return 0;
}

void wifi_destroy_nl80211(wifi_cfg80211_context *) { --current->open_contexts; }

fake_netlink::fake_netlink() : callbacks_{nl_cb_alloc(NL_CB_DEFAULT)}
{
    nl_cb_overwrite_send(callbacks_, send);
    nl_cb_overwrite_recv(callbacks_, receive_next);
    nl_cb_set(
        callbacks_, NL_CB_SEQ_CHECK, NL_CB_CUSTOM, [](nl_msg *, void *) { return static_cast<int>(NL_OK); }, nullptr);
    socket_ = nl_socket_alloc_cb(callbacks_);
    current = this;
}

fake_netlink::~fake_netlink()
{
    nl_socket_free(socket_);
    nl_cb_put(callbacks_);
    current = nullptr;
}

void fake_netlink::reply(uint8_t command, const attributes &put, int flags)
{
    nl_msg *message = nlmsg_alloc_size(1 << 16);
    genlmsg_put(message, 0, 0, family(), 0, flags, command, 1);
    put(message);
    raw(bytes_of(message));
}

void fake_netlink::refuse(int error, const char *reason)
{
    nl_msg *message = nlmsg_alloc();
    nlmsg_put(message, 0, 0, NLMSG_ERROR, 0, reason ? NLM_F_CAPPED | NLM_F_ACK_TLVS : NLM_F_CAPPED);
    const nlmsgerr record = {error, {}};
    nlmsg_append(message, const_cast<nlmsgerr *>(&record), sizeof record, NLMSG_ALIGNTO);
    if (reason) nla_put_string(message, NLMSGERR_ATTR_MSG, reason);
    raw(bytes_of(message));
}

void fake_netlink::end_dump(int error, int flags)
{
    nl_msg *message = nlmsg_alloc();
    nlmsg_put(message, 0, 0, NLMSG_DONE, 0, NLM_F_MULTI | flags);
    nlmsg_append(message, &error, sizeof error, NLMSG_ALIGNTO);
    raw(bytes_of(message));
}

void fake_netlink::raw(bytes datagram)
{
    const int size = static_cast<int>(datagram.size());
    receives_.push_back({size, std::move(datagram)});
}

void fake_netlink::fail_receive(int code) { receives_.push_back({code, {}}); }

int fake_netlink::send(nl_sock *, nl_msg *message)
{
    nlmsg_get(message);
    current->sent.push_back(bytes_of(message));
    return current->send_result;
}

int fake_netlink::receive_next(nl_sock *, sockaddr_nl *from, unsigned char **data, ucred **)
{
    if (current->receives_.empty()) return -NLE_AGAIN;
    const receive next = std::move(current->receives_.front());
    current->receives_.pop_front();
    if (next.result <= 0) return next.result;
    *from = {};
    from->nl_family = AF_NETLINK;
    *data = static_cast<unsigned char *>(malloc(next.datagram.size())); // a block of exactly that size
    memcpy(*data, next.datagram.data(), next.datagram.size());
    return next.result;
}

bool fake_netlink::answers(int fd)
{
    int domain = 0, protocol = 0;
    socklen_t length = sizeof domain;
    if (!current || getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length) != 0 || domain != AF_NETLINK) return false;
    return getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &length) == 0 && protocol == NETLINK_GENERIC;
}

ssize_t fake_netlink::take_request(const void *request, size_t size)
{
    const auto *first = static_cast<const uint8_t *>(request);
    sent.emplace_back(first, first + size);
    memcpy(&asked_, first, sizeof asked_);
    return static_cast<ssize_t>(size);
}

ssize_t fake_netlink::give_answer(msghdr *into)
{
    if (receives_.empty()) return errno = EAGAIN, -1;
    const receive next = std::move(receives_.front());
    receives_.pop_front();
    auto *block = static_cast<uint8_t *>(into->msg_iov->iov_base);
    const size_t size = std::min(next.datagram.size(), into->msg_iov->iov_len);
    memcpy(block, next.datagram.data(), size);
    for (size_t at = 0; size - at >= sizeof(nlmsghdr);) {
        nlmsghdr header;
        memcpy(&header, block + at, sizeof header);
        header.nlmsg_seq = asked_.nlmsg_seq;
        header.nlmsg_pid = asked_.nlmsg_pid;
        memcpy(block + at, &header, sizeof header);
        if (header.nlmsg_len < sizeof header || NLMSG_ALIGN(header.nlmsg_len) > size - at) break;
        at += NLMSG_ALIGN(header.nlmsg_len);
    }
    static_cast<sockaddr_nl *>(into->msg_name)->nl_pid = 0;
    into->msg_flags = size < next.datagram.size() ? MSG_TRUNC : 0;
    return static_cast<ssize_t>(size);
}

extern "C" {

ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t length)
{
    static auto *const next = reinterpret_cast<decltype(&sendto)>(dlsym(RTLD_NEXT, "sendto"));
    return fake_netlink::answers(fd) ? current->take_request(data, size) : next(fd, data, size, flags, to, length);
}
ssize_t recvmsg(int fd, msghdr *into, int flags)
{
    static auto *const next = reinterpret_cast<decltype(&recvmsg)>(dlsym(RTLD_NEXT, "recvmsg"));
    return fake_netlink::answers(fd) ? current->give_answer(into) : next(fd, into, flags);
}
}
