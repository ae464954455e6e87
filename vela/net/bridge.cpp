// The kernel's own tables as files: /proc/net/arp, and in sysfs the forwarding database (records of 16 bytes) and the
// ports of a bridge.

#include <netinet/in.h> // before kernel headers, which define its records again with musl
//
#include <cstdlib>
#include <netinet/in.h> // before the kernel's header: with musl both define the same records
//
#include <linux/if_bridge.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>
#include <vela/core/file.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/core/util.h>
#include <vela/net/bridge.h>
#include <vela/net/internal/interface.h>
#include <vela/net/internal/routes.h>

namespace
{

constexpr const char *arp_path = "/proc/net/arp";
constexpr size_t path_size = 128;

static_assert(sizeof(__fdb_entry) == 16);

int port_number(const __fdb_entry &entry) { return entry.port_no | entry.port_hi << 8; }

bool is_bridge(const char *ifname)
{
    return access(vela::formatted<path_size>{"/sys/class/net/%s/bridge", ifname}.c_str(), F_OK) == 0;
}

/// The port of a bridge behind which an IPv4 neighbour was learned.
int port_towards(const char *bridge, const char *ip, char *buf, size_t size)
{
    char mac[18];
    if (get_mac_by_ip(ip, mac, sizeof mac) != 0) return -1;
    return get_ifname_from_br_portno(bridge, get_mac_brinfo(bridge, mac), buf, size);
}

} // namespace

int get_mac_by_ip(const char *ip, char *mac, size_t size)
{
    if (!ip || !mac || size == 0) return -1;
    mac[0] = '\0';
    const vela::file_ptr table{fopen(arp_path, "re")};
    char line[256];
    while (table && fgets(line, sizeof line, table.get())) {
        char address[64];
        char hardware[64];
        unsigned flags = 0;
        if (sscanf(line, "%63s 0x%*x 0x%x %63s", address, &flags, hardware) != 3) continue;
        if (strcmp(address, ip) != 0 || (flags & ATF_COM) == 0) continue;
        if (strlen(hardware) >= size) return -1;
        vela::copy_text(mac, size, hardware);
        return 0;
    }
    return -1;
}

int get_mac_brinfo(const char *bridge, const char *mac)
{
    uint8_t wanted[6];
    if (!vela::is_interface_name(bridge) || !mac || strtomac(mac, wanted) != 0) return -1;
    const vela::formatted<path_size> path{"/sys/class/net/%s/brforward", bridge};
    const vela::file_ptr database{fopen(path.c_str(), "re")};
    __fdb_entry entry;
    while (database && fread(&entry, sizeof entry, 1, database.get()) == 1) {
        if (!entry.is_local && memcmp(entry.mac_addr, wanted, sizeof wanted) == 0) return port_number(entry);
    }
    return -1;
}

int get_ifname_from_br_portno(const char *bridge, int portno, char *ifname, size_t size)
{
    if (!ifname || size == 0) return -1;
    ifname[0] = '\0';
    if (!vela::is_interface_name(bridge) || portno < 0) return -1;
    const vela::dir_ptr ports{opendir(vela::formatted<path_size>{"/sys/class/net/%s/brif", bridge}.c_str())};
    if (!ports) return -1;
    while (const dirent *port = readdir(ports.get())) {
        if (port->d_name[0] == '.') continue;
        const vela::formatted<path_size + NAME_MAX> number{"%s/port_no", port->d_name};
        if (freadlongat(dirfd(ports.get()), number.c_str(), -1) != portno) continue;
        vela::copy_text(ifname, size, port->d_name);
        return 0;
    }
    return -1;
}

int get_ethtool_link_status(const char *ifname)
{
    return vela::is_interface_name(ifname) ? vela::interface_query{}.link(ifname) : -1;
}

int get_uplink_device(char *buf, size_t size)
{
    if (!buf || size == 0) return -1;
    buf[0] = '\0';
    auto kernel = vela::routing_tables();
    const auto route = vela::fetch_default_route(kernel, vela::interface_query{});
    if (!route) return -1;
    if (is_bridge(route->ifname)) return port_towards(route->ifname, route->gateway_text, buf, size);
    vela::copy_text(buf, size, route->ifname);
    return 0;
}
