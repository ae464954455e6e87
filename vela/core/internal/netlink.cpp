// Sends requests through libnl and gathers their answers.

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <net/if.h>
#include <sys/socket.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/netlink.h>
#include <vela/core/internal/text.h>

namespace vela::netlink
{
namespace
{

// Younger than some of the headers we are built with.
constexpr int flag_dump_interrupted = 0x10;
constexpr int flag_request_not_echoed = 0x100;
constexpr int flag_reason_follows = 0x200;
constexpr int reason_text = 1; // of the attributes behind an error record

struct exchange {
    log_origin origin;
    int status = 1; // above 0: no answer yet
    bool interrupted = false;
    int32_t dump_error = 0;
};

/// What the kernel says in words about the request it refuses.
std::string_view reason(const nlmsghdr *header)
{
    if (!(header->nlmsg_flags & flag_reason_follows)) return {};
    size_t skipped = sizeof(nlmsgerr);
    if (header->nlmsg_len < NLMSG_HDRLEN + skipped) return {};
    const auto *error = static_cast<const nlmsgerr *>(NLMSG_DATA(header));
    if (!(header->nlmsg_flags & flag_request_not_echoed)) {
        if (error->msg.nlmsg_len < NLMSG_HDRLEN || error->msg.nlmsg_len > header->nlmsg_len) return {};
        skipped += NLMSG_ALIGN(error->msg.nlmsg_len - NLMSG_HDRLEN);
    }
    const size_t length = header->nlmsg_len - NLMSG_HDRLEN;
    if (skipped > length) return {};
    auto *first = reinterpret_cast<nlattr *>(const_cast<char *>(reinterpret_cast<const char *>(error)) + skipped);
    nlattr *text = nla_find(first, static_cast<int>(length - skipped), reason_text);
    if (!text) return {};
    const auto *characters = static_cast<const char *>(nla_data(text));
    return {characters, strnlen(characters, static_cast<size_t>(nla_len(text)))};
}

// Sees every message first: both libraries drop what is noted here, or one of them does.
int on_message(nl_msg *message, void *arg)
{
    auto &state = *static_cast<exchange *>(arg);
    const nlmsghdr *header = nlmsg_hdr(message);
    if (header->nlmsg_flags & flag_dump_interrupted) state.interrupted = true;
    if (header->nlmsg_type == NLMSG_ERROR) {
        const auto text = reason(header);
        if (!text.empty()) {
            log_at(LIBVELA_LOG_DEBUG, state.origin.module, state.origin.function, "the kernel says: %.*s",
                   static_cast<int>(text.size()), text.data());
        }
    }
    return NL_OK;
}

int on_error(sockaddr_nl *, nlmsgerr *error, void *arg)
{
    static_cast<exchange *>(arg)->status = error->error;
    return NL_SKIP;
}

int on_finish(nl_msg *message, void *arg)
{
    auto &state = *static_cast<exchange *>(arg);
    const nlmsghdr *header = nlmsg_hdr(message);
    int32_t error = 0;
    if (header->nlmsg_len >= NLMSG_HDRLEN + sizeof error) memcpy(&error, NLMSG_DATA(header), sizeof error);
    if (error < 0)
        log_at(LIBVELA_LOG_DEBUG, state.origin.module, state.origin.function, "the dump ended with error %d", error);
    state.dump_error = std::min(error, 0);
    state.status = 0;
    return NL_SKIP;
}

int on_acknowledgement(nl_msg *, void *arg)
{
    static_cast<exchange *>(arg)->status = 0;
    return NL_STOP;
}

// After a failed receive: what is left of this answer must not be taken for the next one.
void discard_rest(nl_sock *socket)
{
    char byte;
    const int fd = nl_socket_get_fd(socket);
    while (recv(fd, &byte, sizeof byte, MSG_DONTWAIT) >= 0 || errno == ENOBUFS || errno == EINTR) {}
}

int interrupted_dump(const log_origin &origin)
{
    const int result = -error_dump_interrupted;
    log_at(LIBVELA_LOG_WARN, origin.module, origin.function, "nl_recvmsgs failed, convert to EAGAIN: %d (%s)", result,
           nl_geterror(result));
    return -EAGAIN;
}

} // namespace

int connect_generic(nl_sock *socket)
{
    const int result = genl_connect(socket);
    if (result < 0) return result;
    (void)fcntl(nl_socket_get_fd(socket), F_SETFD, FD_CLOEXEC); // both libraries do, today
    nl_socket_enable_msg_peek(socket);
    return result;
}

int set_message_buffer(nl_sock *socket, size_t size)
{
#ifdef VELA_LIBNL_TINY
    (void)socket, (void)size; // it cannot be told a size; it looks ahead instead
    return 0;
#else
    return nl_socket_set_msg_buf_size(socket, size);
#endif
}

unsigned interface_index(const char *ifname)
{
    // Longer names are cut by some C libraries, and would find another interface.
    return ifname && strnlen(ifname, IFNAMSIZ) < IFNAMSIZ ? if_nametoindex(ifname) : 0;
}

int await_answer(nl_sock *socket, nl_cb *callbacks, log_origin origin, int *dump_error)
{
    exchange state{origin};
    nl_cb_err(callbacks, NL_CB_CUSTOM, on_error, &state);
    nl_cb_set(callbacks, NL_CB_FINISH, NL_CB_CUSTOM, on_finish, &state);
    nl_cb_set(callbacks, NL_CB_ACK, NL_CB_CUSTOM, on_acknowledgement, &state);
    nl_cb_set(callbacks, NL_CB_MSG_IN, NL_CB_CUSTOM, on_message, &state);

    // On purpose: a positive EAGAIN ends the wait as 0 does.
    while (state.status > 0 && state.status != EAGAIN) {
        const int received = nl_recvmsgs(socket, callbacks);
        if (received >= 0 || received == -error_interrupted) continue;
        // libnl-3 says so after the finish handler ran: its word wins over the status.
        if (received == -error_dump_interrupted) return interrupted_dump(origin);
        log_at(LIBVELA_LOG_ERROR, origin.module, origin.function, "nl_recvmsgs failed: %d (%s)", received,
               nl_geterror(received));
        discard_rest(socket);
        return received;
    }
    if (dump_error) *dump_error = state.dump_error;
    if (state.status == 0 && state.interrupted) return interrupted_dump(origin);
    return state.status;
}

} // namespace vela::netlink
