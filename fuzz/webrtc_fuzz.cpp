// A media listener gone mad: the first byte chooses a call, the rest is a row of datagrams, each after a 16-bit length
// of its own, that come as its answer. Behind them come complete offers until the call has had enough.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>
#include <vela/core/internal/bytes.h>
#include <vela/services/webrtc.h>

namespace
{

using datagram = std::vector<uint8_t>;

constexpr size_t record_size = sizeof(webrtc_ipc_msg);
constexpr size_t header_size = 8;

int listener = -1;
std::vector<datagram> script; // written by the fuzzer's thread while the listener's is idle
std::atomic<bool> busy = false;

bool promises_text(const datagram &d)
{
    return d.size() > 68 && d[0] == 2 && d[1] == 0 && d[2] == 0 && d[3] == 0 && d[68] != 0;
}

std::vector<datagram> read_script(vela::byte_reader in)
{
    std::vector<datagram> result;
    while (const auto length = in.u16()) {
        const auto bytes = in.bytes(std::min<size_t>(*length, in.remaining()));
        datagram d(bytes->begin(), bytes->end());
        // The length of a text stays small: what follows it counts as 16384 bytes each, however short.
        const bool is_header = !result.empty() && promises_text(result.back());
        if (is_header && d.size() >= header_size) d[6] = d[7] = 0;
        result.push_back(std::move(d));
    }
    return result;
}

void answer(const sockaddr_un &client)
{
    datagram complete(record_size);
    complete[0] = 2;
    complete[68] = 1;
    const auto give = [&](const datagram &d) {
        return sendto(listener, d.data(), d.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&client),
                      sizeof client) >= 0;
    };
    for (const auto &d : script) {
        if (!give(d)) return;
    }
    while (give(complete) && give(datagram(header_size))) {}
}

void serve()
{
    for (;;) {
        datagram request(20000);
        sockaddr_un client = {};
        socklen_t length = sizeof client;
        const ssize_t n =
            recvfrom(listener, request.data(), request.size(), 0, reinterpret_cast<sockaddr *>(&client), &length);
        if (n != ssize_t{record_size}) continue; // an answer's text
        answer(client);
        busy = false;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    setenv("LIBVELA_FACILITIES", "none", 1);
    if (unshare(CLONE_NEWNET) != 0) (void)unshare(CLONE_NEWUSER | CLONE_NEWNET); // abstract names of our own
    sockaddr_un at = {AF_UNIX, "\0IPC_WEBRTC_LISTENER"};
    listener = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<const sockaddr *>(&at), sizeof at) != 0) abort();
    std::thread{serve}.detach();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    vela::byte_reader in{{data, size}};
    const auto call = in.u8();
    if (!call) return 0;
    script = read_script(in);
    busy = true;

    webrtc_inform inform = {};
    const sdp_request request = {};
    char *uuid = nullptr;
    uint8_t sessions[WEBRTC_SESSIONS_SIZE];
    int result = 0;
    switch (*call % 3) {
    case 0: result = get_next_sdp_offer("session", &request, &inform); break;
    case 1: result = set_sdp_answer("session", "v=0", &uuid); break;
    case 2: (void)get_all_sdp_sessions(sessions); break;
    }
    if (result != 0) abort(); // none of them fails as long as the listener talks
    free(uuid);
    free_webrtc_inform(&inform);
    while (busy) std::this_thread::yield();
    return 0;
}
