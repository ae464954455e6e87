// A kernel that answers netlink requests as a test tells it: put in place of a libnl socket's sending and receiving,
// and of the system's for any generic-netlink socket that the library opens itself.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <netlink/netlink.h>
//
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/handlers.h>
#include <netlink/msg.h>
#include <vector>

/// One at a time.
class fake_netlink
{
public:
    using bytes = std::vector<uint8_t>;
    using attributes = std::function<void(nl_msg *)>; ///< puts them

    fake_netlink();
    fake_netlink(const fake_netlink &) = delete;
    fake_netlink &operator=(const fake_netlink &) = delete;
    ~fake_netlink();

    [[nodiscard]] nl_cb *callbacks() const { return callbacks_; } ///< borrowed
    [[nodiscard]] nl_sock *socket() const { return socket_; }     ///< borrowed; made with these callbacks

    // What the next receives give, in order; after them, "nothing there".
    void reply(uint8_t command, const attributes &put, int flags = 0);
    void acknowledge() { refuse(0); }
    void refuse(int error, const char *reason = nullptr);
    void end_dump(int error = 0, int flags = 0);
    void raw(bytes datagram);
    void fail_receive(int code); ///< a libnl code, negated

    // Vendor contexts open on its socket, while it lives.
    int refused_openings = 0;    ///< so many of the next
    std::vector<uint32_t> tried; ///< the command socket's numbers, in turn
    int open_contexts = 0;

    int send_result = 1;     ///< what sending gives
    std::vector<bytes> sent; ///< the requests so far
    [[nodiscard]] bool all_read() const { return receives_.empty(); }

    static int family() { return 29; }

    // For the system calls of this test program: true when the socket is one that this kernel answers.
    static bool answers(int fd);
    ssize_t take_request(const void *request, size_t size);
    ssize_t give_answer(msghdr *into);

private:
    struct receive {
        int result;
        bytes datagram;
    };
    static int send(nl_sock *, nl_msg *message);
    static int receive_next(nl_sock *, sockaddr_nl *from, unsigned char **data, ucred **);

    nl_cb *callbacks_;
    nl_sock *socket_;
    std::deque<receive> receives_;
    nlmsghdr asked_ = {}; // the last request that came by a system call: its answers bear its number and port
};

/// An attribute that holds others.
inline void nest(nl_msg *message, int type, const fake_netlink::attributes &put_inside)
{
    nlattr *start = nla_nest_start(message, type);
    put_inside(message);
    nla_nest_end(message, start);
}
