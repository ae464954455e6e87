// The kernel's answers about routes and neighbours, in a block of exactly their size: the first byte chooses.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vela/core/log.h>
#include <vela/net/internal/default_route.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    libvela_log_env_ready = 1;
    libvela_log_level = 0;
    if (size == 0) return 0;
    static const vela::interface_query interfaces;
    const std::unique_ptr<uint8_t[]> block(new uint8_t[size - 1]);
    std::copy(data + 1, data + size, block.get());
    const std::span<const uint8_t> answer{block.get(), size - 1};

    if (data[0] & 1) {
        const vela::rtnetlink::question q{.type = RTM_GETROUTE, .family = AF_INET, .sequence = 1};
        const auto route = vela::find_default_route(answer, q, interfaces);
        if (route && (strnlen(route->ifname, IF_NAMESIZE) == IF_NAMESIZE || !*route->gateway_text)) abort();
        return 0;
    }
    constexpr char candidates[][16] = {"eth0", "lo"};
    const vela::rtnetlink::question q{.type = RTM_GETNEIGH, .family = AF_INET, .sequence = 1};
    const auto found = vela::find_gateway_neighbour(answer, q, interfaces, htonl(0xC0A80701), candidates);
    if (found.has_port && strcmp(found.port, "lo") != 0 && strcmp(found.port, "eth0") != 0) abort();
    return 0;
}
