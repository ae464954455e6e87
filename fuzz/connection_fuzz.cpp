// A message of the kernel's list of connections, in a block of exactly its size.
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <sys/socket.h>
#include <vela/monitor/internal/connection_message.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::unique_ptr<uint8_t[]> block(new uint8_t[size]);
    std::copy(data, data + size, block.get());
    vela_connection connection;
    const bool good = vela::read_connection({256, 0, {block.get(), size}}, connection);
    if (good && connection.family != AF_INET && connection.family != AF_INET6) abort();
    return 0;
}
