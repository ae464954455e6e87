// A message of the kernel's lists of sockets, in a block of exactly its size: the first byte chooses the family. And
// the links in /proc that tell a socket's owner.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <vela/monitor/internal/owners.h>
#include <vela/monitor/internal/socket_message.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) return 0;
    const std::unique_ptr<uint8_t[]> block(new uint8_t[size - 1]);
    std::copy(data + 1, data + size, block.get());
    constexpr vela::socket_reader readers[] = {vela::read_tcp,  vela::read_udp,     vela::read_raw,
                                               vela::read_unix, vela::read_netlink, vela::read_packet};
    const size_t chosen = data[0] % (std::size(readers) + 1);
    if (chosen == std::size(readers)) {
        (void)vela::inode_of_link({reinterpret_cast<const char *>(block.get()), size - 1});
        return 0;
    }
    vela_socket socket;
    const vela::raw_netlink::message message{20, 0, {block.get(), size - 1}};
    if (readers[chosen](message, socket) && strnlen(socket.path, sizeof socket.path) == sizeof socket.path) abort();
    return 0;
}
