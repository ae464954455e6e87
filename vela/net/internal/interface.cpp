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

uint32_t interface_query::index(const char *ifname) const
{
    ifreq request = {};
    if (view(ifname).size() >= sizeof request.ifr_name) return 0;
    copy_text(request.ifr_name, view(ifname));
    return ioctl(fd_.get(), SIOCGIFINDEX, &request) < 0 ? 0 : static_cast<uint32_t>(request.ifr_ifindex);
}

unsigned interface_query::flags(const char *ifname) const
{
    ifreq request = {};
    copy_text(request.ifr_name, view(ifname));
    return ioctl(fd_.get(), SIOCGIFFLAGS, &request) < 0 ? 0 : static_cast<uint16_t>(request.ifr_flags);
}

interface_query::mode interface_query::link_mode(const char *ifname)
{
    union {
        ethtool_link_settings settings;
        uint8_t room[sizeof(ethtool_link_settings) + sizeof(uint32_t) * 3 * INT8_MAX]; // three masks behind it
    } answer;
    ifreq request = {};
    copy_text(request.ifr_name, view(ifname));
    request.ifr_data = reinterpret_cast<char *>(&answer);
    // The first question of all tells, as a negative number, how many words its answer would have.
    for (int tries = 0; tries < 2; ++tries) {
        answer.settings = {};
        answer.settings.cmd = ETHTOOL_GLINKSETTINGS;
        answer.settings.link_mode_masks_nwords = mode_words_;
        if (ioctl(fd_.get(), SIOCETHTOOL, &request) < 0) return {};
        if (answer.settings.link_mode_masks_nwords >= 0) break;
        mode_words_ = static_cast<int8_t>(-answer.settings.link_mode_masks_nwords);
    }
    mode known;
    if (answer.settings.link_mode_masks_nwords <= 0) return known;
    if (answer.settings.speed != 0 && answer.settings.speed != UINT16_MAX) known.speed_mbps = answer.settings.speed;
    if (answer.settings.duplex <= DUPLEX_FULL) known.duplex = answer.settings.duplex;
    return known;
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
