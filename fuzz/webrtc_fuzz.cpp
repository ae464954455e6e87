// A media listener gone mad: the first byte chooses a call, the rest is a row of datagrams, each after a 16-bit length
// of its own, that come as its answer. Behind them come complete offers with empty texts, for ever. The kernel's part
// is played here, so that a run costs microseconds and no descriptor waits.
#include <algorithm>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <vela/core/internal/bytes.h>
#include <vela/services/webrtc.h>

namespace
{

constexpr size_t record_size = sizeof(webrtc_ipc_msg);
constexpr size_t header_size = 8;

vela::byte_reader script{{}};

} // namespace

extern "C" {

int connect(int, const sockaddr *, socklen_t) { return 0; }
ssize_t send(int, const void *, size_t size, int) { return static_cast<ssize_t>(size); }
int poll(pollfd *entries, nfds_t, int)
{
    entries->revents = entries->events;
    return 1;
}

ssize_t recv(int, void *out, size_t size, int)
{
    auto *to = static_cast<uint8_t *>(out);
    size_t n = size;
    if (const auto length = script.u16()) {
        n = std::min({size, size_t{*length}, script.remaining()});
        memcpy(to, script.bytes(std::min<size_t>(*length, script.remaining()))->data(), n);
    } else {
        memset(to, 0, size);
        if (size == record_size) to[0] = 2, to[68] = 1;
    }
    // The length of a text is small, or more than is taken: what lies between costs time and shows nothing else.
    if (size == header_size) to[6] = to[7] = to[7] > 1 ? 0x7f : 0;
    return static_cast<ssize_t>(n);
}

int LLVMFuzzerInitialize(int *, char ***)
{
    setenv("LIBVELA_FACILITIES", "none", 1);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    script = vela::byte_reader{{data, size}};
    const uint8_t call = script.u8().value_or(0);
    webrtc_inform inform = {};
    const sdp_request request = {};
    char *uuid = nullptr;
    uint8_t sessions[WEBRTC_SESSIONS_SIZE];
    int result = 0;
    switch (call % 3) {
    case 0: result = get_next_sdp_offer("session", &request, &inform); break;
    case 1: result = set_sdp_answer("session", "v=0", &uuid); break;
    case 2: (void)get_all_sdp_sessions(sessions); break;
    }
    if (result != 0) abort(); // none of them fails as long as the listener talks
    free(uuid);
    free_webrtc_inform(&inform);
    return 0;
}
}
