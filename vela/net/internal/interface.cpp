#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <vela/core/internal/text.h>
#include <vela/net/internal/interface.h>

namespace vela
{

bool interface_query::name(uint32_t index, char (&name)[IF_NAMESIZE]) const
{
    ifreq request = {};
    request.ifr_ifindex = static_cast<int>(index);
    if (ioctl(fd_.get(), SIOCGIFNAME, &request) < 0) return false;
    copy_text(name, field(request.ifr_name));
    return true;
}

int interface_query::link(const char *ifname) const
{
    ethtool_value link = {.cmd = ETHTOOL_GLINK, .data = 0};
    ifreq request = {};
    copy_text(request.ifr_name, ifname);
    request.ifr_data = reinterpret_cast<char *>(&link);
    return ioctl(fd_.get(), SIOCETHTOOL, &request) < 0 ? -1 : link.data != 0;
}

} // namespace vela
