// Interfaces of the wireless code: their state, and the multi-link device or bridge above them.
//
// sysfs tells how interfaces belong together: a link of a multi-link device has an entry "upper_mldN" that points to
// the device, a member of a bridge has "master".

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <vela/core/file.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/core/util.h>
#include <vela/wireless/mld.h>

namespace
{

constexpr const char *log_module = "wireless";
constexpr const char *memory_source = "wireless/wireless";

constexpr const char *interface_format = "/sys/class/net/%s";
constexpr std::string_view upper_prefix = "upper_";
constexpr std::string_view upper_mld_prefix = "upper_mld";
constexpr int untagged_vlan = 1;

/// Names that add_if_mld_unique has seen; reset_seen_mlds empties it.
constinit struct {
    std::array<char *, 16> names{};
    size_t count = 0;
} seen;

template <class... Arguments> vela::c_string path(const char *format, Arguments... arguments)
{
    vela::c_string text{malloc_printf(format, arguments...)};
    if (!text) vela::out_of_memory(memory_source, __LINE__);
    return text;
}

bool exists(const char *ifname) { return access(path(interface_format, ifname).get(), F_OK) == 0; }

vela::unique_fd control_socket() { return vela::unique_fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)}; }

ifreq request_for(const char *ifname)
{
    ifreq request = {};
    vela::copy_text(request.ifr_name, ifname);
    return request;
}

bool is_link(const vela::dir_ptr &directory, const dirent &entry)
{
    if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_LNK;
    struct stat status = {};
    return fstatat(dirfd(directory.get()), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
}

} // namespace

int vela_if_is_up(const char *ifname)
{
    if (!ifname || !exists(ifname)) return 0;
    const auto fd = control_socket();
    ifreq request = request_for(ifname);
    return ioctl(fd.get(), SIOCGIFFLAGS, &request) < 0 ? 0 : request.ifr_flags & IFF_UP;
}

int vela_if_set_up(const char *ifname)
{
    if (!ifname || !*ifname || !exists(ifname)) return -1;
    const auto fd = control_socket();
    if (!fd.ok()) return -1;
    ifreq request = request_for(ifname);
    if (ioctl(fd.get(), SIOCGIFFLAGS, &request) < 0) return -1;
    if (request.ifr_flags & IFF_UP) return 0;
    request.ifr_flags |= IFF_UP;
    return ioctl(fd.get(), SIOCSIFFLAGS, &request) < 0 ? -1 : 0;
}

int vela_get_ifindex(const char *ifname)
{
    char digits[4]; // on purpose: three digits
    return atoi(freadline(path("/sys/class/net/%s/ifindex", ifname).get(), digits, sizeof digits, nullptr));
}

int get_iface_upper_mld_ifname(const char *ifname, char *buf, size_t size)
{
    vela::copy_text(buf, size, "");
    const vela::c_string name = path(interface_format, ifname);
    const vela::dir_ptr directory{opendir(name.get())};
    if (!directory) {
        log_error("unable to open '%s': %s", name.get(), strerror(errno));
        return -1;
    }
    while (const dirent *entry = readdir(directory.get())) {
        if (!vela::starts_with(entry->d_name, upper_mld_prefix) || !is_link(directory, *entry)) continue;
        vela::copy_text(buf, size, vela::after(entry->d_name, upper_prefix.size()));
        return 0;
    }
    return -1;
}

int get_mld_vlan_id(const char *ifname)
{
    const vela::c_string name = path("/sys/class/net/%s/master", ifname);
    char target[PATH_MAX];
    const ssize_t length = readlink(name.get(), target, sizeof target - 1);
    if (length < 0) {
        log_error("unable to readlink '%s': %s", name.get(), strerror(errno));
        return -1;
    }
    target[length] = '\0';
    const char *slash = strrchr(target, '/');
    int vlan = 0;
    return sscanf(slash ? slash + 1 : target, "br%*d.%d", &vlan) == 1 ? vlan : untagged_vlan;
}

const char *get_mld_iface_cfg(const cfg_entry *config, const char *devname)
{
    if (!devname) return nullptr;
    cfg_entry *matches = get_cfg_section(config, ".devname", devname, "wireless.");
    const char *mld = nullptr;
    // The section is sorted by index, so the highest one decides.
    for (const cfg_entry *entry = matches; entry; entry = entry->next) {
        mld = get_value(config, nullptr, "wireless.%d.mld", get_cfg_key_idx(entry->key, 1));
    }
    free_cfg_it(matches);
    return mld;
}

void reset_seen_mlds(void)
{
    for (size_t i = 0; i < seen.count; ++i) free(seen.names[i]);
    seen = {};
}

int add_if_mld_unique(const char *name)
{
    if (!name) return 0;
    for (size_t i = 0; i < seen.count; ++i) {
        if (strcmp(seen.names[i], name) == 0) return 0;
    }
    if (seen.count == seen.names.size()) return 1;
    char *copy = strdup(name);
    if (!copy) return 0;
    seen.names[seen.count++] = copy;
    return 1;
}
