// A control reply from a daemon gone mad: the input is a row of datagrams, each after a 16-bit length of its own.
#include <algorithm>
#include <cstdlib>
#include <unistd.h>
#include <vela/core/log.h>
#include <vela/ipc/internal/ctrl_reply.h>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    setenv("LIBVELA_FACILITIES", "none", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int fds[2]; // keeps the boundaries of datagrams, takes any number of them, and ends
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) abort();
    vela::byte_reader in{{data, size}};
    while (const auto length = in.u16()) {
        const auto datagram = in.bytes(std::min<size_t>(*length, in.remaining()));
        if (send(fds[1], datagram->data(), datagram->size(), MSG_DONTWAIT) < 0) break;
    }
    close(fds[1]);

    const timeval timeout = {1, 0};
    ctrl_msg *reply = ctrl_response_wait(fds[0], &timeout);
    if (reply) {
        if (const auto content = vela::content_of(*reply)) json_decref(vela::json_of(content->payload));
    }
    ctrl_msg_destroy(reply);
    close(fds[0]);
    return 0;
}
