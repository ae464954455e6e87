// The table of uplink interfaces: its entries, the active one, and the scripts' files that fill it. Scanning is in
// uplink-scan.cpp.

#include <algorithm>
#include <vela/board/model.h>
#include <vela/core/file.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/numbers.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/stream.h>
#include <vela/core/internal/text.h>
#include <vela/core/util.h>
#include <vela/mesh/internal/uplink.h>
#include <vela/mesh/uplink.h>

namespace
{

constexpr const char *log_module = "vwire";

constexpr const char *uplinks_path = "/var/run/uplink_wds";
constexpr const char *wired_path = "/var/run/uplink_eth";
constexpr const char *configured_path = "/var/run/wlan_configured_devnames";
constexpr const char *usage_format = "/var/run/vapusage.%s";
constexpr const char *mlds_path = "/var/run/mld_devnames";
constexpr const char *mld_link_format = "/var/run/%s.%s"; // multi-link device, interface
constexpr const char *vlans_path = "/proc/net/vlan/config";

constexpr const char *default_uplink = "ath0";
constexpr const char *default_wired = "eth0";
constexpr const char *uplink_usage = "uplink";

constexpr size_t name_size = 16;      // IFNAMSIZ
constexpr size_t vlan_line_size = 64; // longer lines are cut
constexpr int32_t active_threshold_s = 34;

vela::file_ptr open_for_reading(const char *path) { return vela::file_ptr{fopen(path, "re")}; }

/// The next word, cut to what fits. False at end of file.
bool read_word(FILE *file, char (&word)[name_size])
{
    size_t length = 0;
    int c = getc(file);
    while (c != EOF && vela::is_space(static_cast<char>(c))) c = getc(file);
    for (; c != EOF && !vela::is_space(static_cast<char>(c)); c = getc(file)) {
        if (length < name_size - 1) word[length++] = static_cast<char>(c);
    }
    word[length] = '\0';
    return length != 0;
}

bool exists(const char *path) { return access(path, F_OK) == 0; }

bool is_used_as_uplink(const char *ifname)
{
    const vela::file_ptr usage = open_for_reading(vela::formatted<64>{usage_format, ifname}.c_str());
    char word[name_size];
    return usage && read_word(usage.get(), word) && vela::view(word) == uplink_usage;
}

void take_vlan(char *line, std::span<vela::uplink::real_device> devices)
{
    char *rest = line;
    const char *vlan = strtok_r(line, " |", &rest);
    const char *id = vlan ? strtok_r(nullptr, " |", &rest) : nullptr;
    const char *device = id ? strtok_r(nullptr, " |", &rest) : nullptr;
    if (!device) return;
    for (auto &d : devices) {
        if (!vela::starts_with(d.vif, vlan)) continue; // on purpose: a line is for every name that begins with its own
        vela::copy_text(d.name, device);
        log_trace_as("get_real_ifname", "vif(%s) real(%s)", d.vif, d.name);
    }
}

void look_up(std::span<vela::uplink::real_device> devices)
{
    if (const vela::file_ptr vlans = open_for_reading(vlans_path)) {
        vela::uplink::find_real_devices(vlans.get(), devices);
    }
}

/// Looks for the multi-link device that a real interface is a link of.
void find_mld(uplink_entry &entry, const char *real)
{
    const vela::file_ptr mlds = open_for_reading(mlds_path);
    if (!mlds) return;
    char mld[name_size];
    while (vela::read_text_line(mlds.get(), mld)) {
        const vela::formatted<64> path{mld_link_format, mld, real};
        if (!*mld || !exists(path.c_str())) continue;
        vela::copy_text(entry.mld_devname, mld);
        char address[32];
        freadline(path.c_str(), address, sizeof address, "");
        if (strtomac(address, entry.mld_mac) == 0) {
            log_debug_as("add_uplink_wds_ifaces_info_devname", "Found MLD device %s for interface %s with MAC %s", mld,
                         entry.devname, address);
        }
        return;
    }
}

} // namespace

namespace vela
{

uplink::real_device::real_device(const char *of) : vif{of} { copy_text(name, of); }

void uplink::find_real_devices(FILE *vlans, std::span<real_device> devices)
{
    char line[vlan_line_size];
    while (read_text_line(vlans, line)) take_vlan(line, devices);
}

bool uplink::add_listed(FILE *names, uplink_table &t)
{
    bool all = true;
    char name[name_size];
    while (vela::read_text_line(names, name)) {
        if (*name && add_uplink_wds_ifaces_info_devname(&t, name) != 0) all = false;
    }
    return all;
}

} // namespace vela

void initialize_uplink_wds_ifaces_info(uplink_table *t)
{
    if (!t) return;
    t->count = 0;
    t->flags = 0;
    for (auto &entry : t->entries) entry = {};
}

int set_active_uplink_wds_iface_index(uplink_table *t, int i)
{
    if (!t || i < 0 || i >= t->count) return -1;
    t->active = i;
    return 0;
}

int get_active_uplink_wds_iface_index(const uplink_table *t) { return t ? t->active : -1; }

void reset_active_uplink_wds_iface_index(uplink_table *t)
{
    if (t) t->active = -1;
}

int set_active_uplink_wds_iface_index_timestamp(uplink_table *t, uint32_t ts)
{
    if (!t) return -1;
    t->active_since = ts;
    return 0;
}

uint32_t get_active_uplink_wds_iface_index_timestamp(const uplink_table *t) { return t ? t->active_since : 0; }

int passed_active_uplink_wds_iface_index_timetamp_threshold(const uplink_table *t, uint32_t now)
{
    return !t || static_cast<int32_t>(now - t->active_since) > active_threshold_s;
}

int get_uplink_wds_iface_len(const uplink_table *t) { return t ? t->count : -1; }

int is_uplink_wds_iface_index_valid(const uplink_table *t, int i)
{
    return t && i >= 0 && i < t->count && i < UPLINK_ENTRIES_MAX;
}

int has_active_uplink_wds_iface(const uplink_table *t)
{
    return is_uplink_wds_iface_index_valid(t, get_active_uplink_wds_iface_index(t));
}

uplink_entry *get_uplink_wds_iface_by_index(uplink_table *t, int i)
{
    return is_uplink_wds_iface_index_valid(t, i) ? &t->entries[i] : nullptr;
}

char *get_uplink_wds_iface_devname_by_index(uplink_table *t, int i)
{
    uplink_entry *entry = get_uplink_wds_iface_by_index(t, i);
    return entry ? entry->devname : nullptr;
}

uint8_t *get_uplink_wds_iface_mac_by_index(uplink_table *t, int i)
{
    uplink_entry *entry = get_uplink_wds_iface_by_index(t, i);
    return entry ? entry->mac : nullptr;
}

scan_list *get_uplink_wds_iface_scan_records_by_index(uplink_table *t, int i)
{
    uplink_entry *entry = get_uplink_wds_iface_by_index(t, i);
    return entry ? entry->scan : nullptr;
}

uplink_entry *get_active_uplink_wds_iface(uplink_table *t)
{
    return get_uplink_wds_iface_by_index(t, get_active_uplink_wds_iface_index(t));
}

char *get_active_uplink_wds_iface_devname(uplink_table *t)
{
    return get_uplink_wds_iface_devname_by_index(t, get_active_uplink_wds_iface_index(t));
}

uint8_t *get_active_uplink_wds_iface_mac(uplink_table *t)
{
    return get_uplink_wds_iface_mac_by_index(t, get_active_uplink_wds_iface_index(t));
}

int get_real_ifname(const char *vif, char *real)
{
    if (!vif || !real) return -1;
    vela::uplink::real_device device{vif};
    look_up({&device, 1});
    vela::copy_text(real, name_size, device.name);
    return 0;
}

int add_uplink_wds_ifaces_info_devname(uplink_table *t, const char *name)
{
    if (!t || !name) return -1;
    char listed[name_size];
    vela::copy_text(listed, name);
    if (is_hbx_switch() || is_linkbar()) listed[strcspn(listed, ".")] = '\0';
    if (t->count >= UPLINK_ENTRIES_MAX) {
        log_warn("cannot add uplink interface %s, support only %d", listed, UPLINK_ENTRIES_MAX);
        return -1;
    }
    if (t->count < 0) return -1;
    uplink_entry &entry = t->entries[t->count++];
    vela::copy_text(entry.devname, listed);
    char real[name_size];
    if (get_real_ifname(entry.devname, real) != 0) {
        log_warn("failed to get real ifname of %s", entry.devname);
        return 0;
    }
    find_mld(entry, real);
    return 0;
}

int populate_uplink_wds_ifnames_info_devnames(uplink_table *t)
{
    if (!t) return -1;
    initialize_uplink_wds_ifaces_info(t);
    const vela::file_ptr uplinks = open_for_reading(uplinks_path);
    const bool all = !uplinks || vela::uplink::add_listed(uplinks.get(), *t);
    if (t->count == 0) (void)add_uplink_wds_ifaces_info_devname(t, default_uplink); // an empty table has room
    return all ? 0 : -1;
}

int uplink_ifname_identify(uplink_table *t, char *wired, size_t n)
{
    if (!t || !wired) return -1;
    if (exists(uplinks_path) && exists(wired_path)) {
        (void)populate_uplink_wds_ifnames_info_devnames(t); // names that did not fit are logged
        char port[name_size] = "";
        if (const vela::file_ptr named = open_for_reading(wired_path)) (void)vela::read_text_line(named.get(), port);
        vela::copy_text(wired, n, *port ? port : default_wired);
        return 0;
    }
    const vela::file_ptr configured = open_for_reading(configured_path);
    if (!configured) return -1;
    initialize_uplink_wds_ifaces_info(t);
    char name[name_size];
    while (read_word(configured.get(), name)) {
        if (is_used_as_uplink(name)) (void)add_uplink_wds_ifaces_info_devname(t, name); // likewise
    }
    vela::copy_text(wired, n, default_wired);
    return 0;
}

int is_uplink_wds_iface(uplink_table *t, const char *ifname)
{
    if (!ifname) return 0;
    vela::uplink::real_device devices[UPLINK_ENTRIES_MAX];
    size_t count = 0;
    while (is_uplink_wds_iface_index_valid(t, static_cast<int>(count))) {
        devices[count] = vela::uplink::real_device{t->entries[count].devname};
        ++count;
    }
    const auto listed = vela::counted(devices, count);
    look_up(listed);
    return std::ranges::any_of(listed, [ifname](const auto &d) { return vela::view(d.name) == ifname; });
}
