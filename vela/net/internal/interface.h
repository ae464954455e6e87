// What the kernel says of interfaces by ioctl.
#pragma once

#include <cstdint>
#include <cstring>
#include <net/if.h>
#include <sys/socket.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>

namespace vela
{

/// Whether an interface may have this name, which then leads nowhere else in sysfs.
inline bool is_interface_name(const char *name)
{
    return name && *name && strnlen(name, IF_NAMESIZE) < IF_NAMESIZE && !strchr(name, '/') && name[0] != '.';
}

/// Asks over one datagram socket, whatever the number of questions; a route socket takes them only since Linux 4.16.
class interface_query
{
public:
    /// The name of an interface; false when there is none of that index.
    bool name(uint32_t index, char (&name)[IF_NAMESIZE]) const;
    /// The index of an interface; 0 when there is none of that name, or the name cannot be one.
    [[nodiscard]] uint32_t index(const char *ifname) const;
    /// IFF_...; 0 when there is no such interface.
    [[nodiscard]] unsigned flags(const char *ifname) const;
    /// As get_ethtool_link_status().
    [[nodiscard]] int link(const char *ifname) const;

    /// All bits set where the driver does not know.
    struct mode {
        uint32_t speed_mbps = UINT32_MAX;
        uint32_t duplex = UINT32_MAX; // 0 half, 1 full
    };
    mode link_mode(const char *ifname);

private:
    int8_t mode_words_ = 0; // how long the kernel's link-mode masks are, once it was asked
    unique_fd fd_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)}; // where it fails, so does every question
};

} // namespace vela
