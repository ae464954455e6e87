#include "tests/support/system_calls.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

// Descriptors that nothing has: closing them marks where the body begins and ends.
constexpr int begin_mark = 1 << 29;
constexpr int end_mark = begin_mark + 1;
constexpr int hand_over = 900; // the socket on which the child gives its listener away

#if defined(__SANITIZE_ADDRESS__)
constexpr bool memory_may_fail = false; // the sanitizer would end the process
#else
constexpr bool memory_may_fail = true;
#endif

// What gives back, what cannot fail of a descriptor that is open, and brk, which tells a failure in another way.
constexpr int never_failing[] = {
    SYS_exit,   SYS_exit_group, SYS_rt_sigreturn, SYS_rt_sigprocmask, SYS_close, SYS_munmap, SYS_unlinkat,
    SYS_wait4,  SYS_waitid,     SYS_kill,         SYS_futex,          SYS_fcntl, SYS_brk,
#if defined(SYS_unlink)
    SYS_unlink,
#endif
};
constexpr int memory[] = {
    SYS_mprotect,
    SYS_mremap,
    SYS_madvise,
#if defined(SYS_mmap)
    SYS_mmap,
#else
    SYS_mmap2,
#endif
};
constexpr int waiting[] = {
    SYS_ppoll, SYS_pselect6, SYS_recvfrom, SYS_nanosleep, SYS_clock_nanosleep,
#if defined(SYS_poll)
    SYS_poll,  SYS_select,
#endif
};
constexpr int making_descriptors[] = {SYS_openat, SYS_socket, SYS_pipe2, SYS_dup, SYS_memfd_create, SYS_epoll_create1};

template <size_t N> bool is_one_of(const int (&calls)[N], int call)
{
    return std::find(std::begin(calls), std::end(calls), call) != std::end(calls);
}

int error_of(int call)
{
    if (is_one_of(memory, call)) return ENOMEM;
    if (is_one_of(waiting, call)) return EINTR;
    return is_one_of(making_descriptors, call) ? EMFILE : EIO;
}

bool may_fail(int call) { return !is_one_of(never_failing, call) && (memory_may_fail || !is_one_of(memory, call)); }

void mark(int descriptor) { (void)syscall(SYS_close, descriptor); }

/// Has the kernel ask about every call but the one that hands the listener over. The listener, or -1.
int listen_to_calls()
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sendmsg, 0, 2),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, hand_over, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {std::size(filter), filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return -1;
    return static_cast<int>(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
}

struct descriptor_message {
    char byte = 0;
    iovec data = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header = {nullptr, 0, &data, 1, control, sizeof control, 0};
};

void send_descriptor(int socket, int descriptor)
{
    descriptor_message m;
    cmsghdr *c = CMSG_FIRSTHDR(&m.header);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof descriptor);
    memcpy(CMSG_DATA(c), &descriptor, sizeof descriptor);
    if (sendmsg(socket, &m.header, 0) != 1) _exit(127);
}

int receive_descriptor(int socket)
{
    descriptor_message m;
    int descriptor = -1;
    if (recvmsg(socket, &m.header, MSG_CMSG_CLOEXEC) == 1)
        memcpy(&descriptor, CMSG_DATA(CMSG_FIRSTHDR(&m.header)), sizeof descriptor);
    return descriptor;
}

/// What to do about one call: let it be made, or fail it.
void decide(const seccomp_notif &asked, pid_t main_thread, int n, bool &in_body, system_calls::outcome &o,
            seccomp_notif_resp &answer)
{
    const auto call = asked.data.nr;
    const bool is_mark = call == SYS_close && (asked.data.args[0] == begin_mark || asked.data.args[0] == end_mark);
    answer = {.id = asked.id, .val = 0, .error = 0, .flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE};
    if (static_cast<pid_t>(asked.pid) != main_thread) return;
    if (is_mark) in_body = asked.data.args[0] == begin_mark;
    if (!in_body || !may_fail(call) || o.made++ != n) return;
    answer.flags = 0;
    answer.error = -error_of(call);
    o.failed = "call " + std::to_string(call) + ": " + strerror(error_of(call));
}

} // namespace

bool system_calls::can_fail()
{
    unsigned action = SECCOMP_RET_USER_NOTIF;
    return syscall(SYS_seccomp, SECCOMP_GET_ACTION_AVAIL, 0, &action) == 0;
}

system_calls::outcome system_calls::run(const std::function<void()> &body, const std::function<int()> &after, int n,
                                        double limit_s)
{
    outcome o;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0) return o;
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        dup3(ends[1], hand_over, O_CLOEXEC);
        close(ends[0]), close(ends[1]);
        const int listener = listen_to_calls();
        send_descriptor(hand_over, listener);
        close(listener), close(hand_over);
        mark(begin_mark);
        body();
        mark(end_mark);
        const int status = after();
        fflush(stdout);
        _exit(status);
    }
    close(ends[1]);
    const int listener = receive_descriptor(ends[0]);
    close(ends[0]);

    using clock = std::chrono::steady_clock;
    const auto begin = clock::now();
    const auto elapsed = [&] { return std::chrono::duration<double>(clock::now() - begin).count(); };
    bool in_body = false;
    while (waitpid(child, &o.status, WNOHANG) == 0) {
        if (elapsed() > limit_s) kill(child, SIGKILL);
        pollfd question = {listener, POLLIN, 0};
        if (poll(&question, 1, 20) != 1) continue;
        seccomp_notif asked = {};
        seccomp_notif_resp answer = {};
        if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &asked) != 0) continue; // gone meanwhile
        decide(asked, child, n, in_body, o, answer);
        ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
    }
    o.seconds = elapsed();
    close(listener);
    return o;
}
