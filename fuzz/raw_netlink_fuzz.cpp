// The kernel's answers about routes and neighbours, in a block of exactly their size: the first byte chooses.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vela/core/log.h>
#include <vela/net/internal/routes.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    libvela_log_env_ready = 1;
    libvela_log_level = 0;
    if (size == 0) return 0;
    static const vela::interface_query interfaces;
    const std::unique_ptr<uint8_t[]> block(new uint8_t[size - 1]);
    std::copy(data + 1, data + size, block.get());
    vela::raw_netlink::messages answer{{block.get(), size - 1}, 1, 0};

    constexpr char candidates[][16] = {"eth0", "lo"};
    vela::gateway_neighbour found = {};
    while (const auto m = answer.next()) {
        if (data[0] & 1) {
            const auto route = vela::as_default_route(*m, interfaces);
            if (route && (strnlen(route->ifname, IF_NAMESIZE) == IF_NAMESIZE || !*route->gateway_text)) abort();
        } else {
            vela::note_neighbour(found, *m, interfaces, htonl(0xC0A80701), candidates);
        }
    }
    if (found.has_port && strcmp(found.port, "lo") != 0 && strcmp(found.port, "eth0") != 0) abort();
    return 0;
}
