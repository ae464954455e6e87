// Leases from three sources, each asked only where the one before it does not know the interface: the network daemon,
// the DHCP client's file, the kernel.

#include <algorithm>
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_addr.h>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/net/netif.h>
#include <vela/services/dhcp.h>
#include <vela/services/internal/bus_record.h>
#include <vela/services/internal/dhcp.h>
#include <vela/settings.h>

namespace
{

using vela::json_ref;
using vela::json_row;
using vela::shown;
using vela::unknown;

constexpr int bus_patience_ms = 1000;
constexpr size_t file_max = 4096;

constexpr const char *states[] = {"unknown", "none", "static", "bound"};
constexpr const char *sources[] = {nullptr, "bus", "file", "kernel"};

const char *state_word(uint32_t number) { return number < std::size(states) ? states[number] : nullptr; }
const char *source_word(uint32_t number) { return number < std::size(sources) ? sources[number] : nullptr; }

constexpr json_row rows[] = {
    {"ifname", VELA_MEMBER(vela_dhcp_lease, ifname), shown::text, unknown::never},
    {"state", VELA_MEMBER(vela_dhcp_lease, state), shown::word, unknown::never, state_word},
    {"source", VELA_MEMBER(vela_dhcp_lease, source), shown::word, unknown::zero, source_word},
    {"address", VELA_MEMBER(vela_dhcp_lease, address), shown::address, unknown::zero},
    {"netmask", VELA_MEMBER(vela_dhcp_lease, netmask), shown::address, unknown::zero},
    {"gateway", VELA_MEMBER(vela_dhcp_lease, gateway), shown::address, unknown::zero},
    {"server", VELA_MEMBER(vela_dhcp_lease, server), shown::address, unknown::zero},
    {"lease_s", VELA_MEMBER(vela_dhcp_lease, lease_s), shown::number, unknown::ones},
    {"age_s", VELA_MEMBER(vela_dhcp_lease, age_s), shown::number, unknown::ones},
    {"remaining_s", VELA_MEMBER(vela_dhcp_lease, remaining_s), shown::number, unknown::ones},
    {"domain", VELA_MEMBER(vela_dhcp_lease, domain), shown::text, unknown::zero},
};
static_assert(sizeof(vela_dhcp_lease) == 16 + 13 * 4 + 64);

vela_dhcp_lease unknown_lease(const char *ifname)
{
    vela_dhcp_lease lease = {};
    vela::copy_text(lease.ifname, vela::view(ifname));
    lease.lease_s = lease.age_s = lease.remaining_s = UINT32_MAX;
    return lease;
}

/// An address in network order; 0 for a text that is none.
uint32_t address_of(const char *text)
{
    in_addr address = {};
    return text && inet_pton(AF_INET, text, &address) == 1 ? address.s_addr : 0;
}

uint32_t netmask_of(json_int_t bits)
{
    if (bits <= 0 || bits > 32) return 0;
    return htonl(static_cast<uint32_t>(UINT32_MAX << (32 - bits)));
}

uint32_t seconds_of(json_int_t seconds)
{
    return seconds >= 0 && seconds < UINT32_MAX ? static_cast<uint32_t>(seconds) : UINT32_MAX;
}

// The network daemon.

uint32_t seconds_in(const json_t *object, const char *key)
{
    const json_t *value = json_object_get(object, key);
    return json_is_integer(value) ? seconds_of(json_integer_value(value)) : UINT32_MAX;
}

const char *text_in(const json_t *object, const char *key) { return json_string_value(json_object_get(object, key)); }

bool is_text(const char *text, const char *wanted) { return text && strcmp(text, wanted) == 0; }

bool is_for(const json_t *entry, const char *ifname)
{
    const char *device = text_in(entry, "l3_device");
    return is_text(device ? device : text_in(entry, "device"), ifname);
}

bool speaks_of_ipv4(const json_t *entry)
{
    const char *protocol = text_in(entry, "proto");
    return is_text(protocol, "dhcp") || is_text(protocol, "static");
}

/// The daemon's entry for an interface. Several may share it, one for each family: the one for IPv4 comes first.
const json_t *find_entry(const json_t *entries, const char *ifname)
{
    const json_t *found = nullptr;
    for (size_t i = 0; i < json_array_size(entries); ++i) {
        const json_t *entry = json_array_get(entries, i);
        if (!is_for(entry, ifname)) continue;
        if (speaks_of_ipv4(entry)) return entry;
        if (!found) found = entry;
    }
    return found;
}

uint32_t state_of(const json_t *entry)
{
    if (is_text(text_in(entry, "proto"), "static")) return VELA_DHCP_STATIC;
    const bool bound = is_text(text_in(entry, "proto"), "dhcp") && json_is_true(json_object_get(entry, "up"));
    return bound ? VELA_DHCP_BOUND : VELA_DHCP_NONE;
}

uint32_t gateway_in(const json_t *entry)
{
    const json_t *routes = json_object_get(entry, "route");
    for (size_t i = 0; i < json_array_size(routes); ++i) {
        const json_t *route = json_array_get(routes, i);
        if (is_text(text_in(route, "target"), "0.0.0.0")) return address_of(text_in(route, "nexthop"));
    }
    return 0;
}

/// The IPv4 addresses among texts, as many as there is room for.
void take_resolvers(const json_t *servers, vela_dhcp_lease &lease)
{
    size_t count = 0;
    for (size_t i = 0; i < json_array_size(servers) && count < std::size(lease.dns); ++i) {
        lease.dns[count] = address_of(json_string_value(json_array_get(servers, i)));
        if (lease.dns[count] != 0) ++count;
    }
}

/// False when the daemon is not there, or does not know the interface.
bool ask_bus(vela_ubus_interface_t *iface, vela_dhcp_lease &lease)
{
    json_ref answer;
    vela::bus_questions bus{iface, bus_patience_ms};
    return bus.ask(vela::settings::bus_network, "dump", nullptr, answer) == 0 &&
           vela::dhcp::read_dump(answer.get(), lease);
}

// The client's file.

/// Reads a plain file whole, as far as there is room: its bytes, and how long ago it was written, not known where the
/// clock was set back since. Nothing where there is none.
struct file_text {
    char bytes[file_max];
    size_t length = 0;
    uint32_t age_s = UINT32_MAX;

    bool read(const char *path)
    {
        const vela::unique_fd fd{open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
        struct stat about = {};
        if (!fd.ok() || fstat(fd.get(), &about) != 0 || !S_ISREG(about.st_mode)) return false;
        const ssize_t n = ::read(fd.get(), bytes, sizeof bytes);
        if (n < 0) return false;
        length = static_cast<size_t>(n);
        age_s = seconds_of(time(nullptr) - about.st_mtime);
        return true;
    }
};

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && vela::is_space(text.back())) text.remove_suffix(1);
    while (!text.empty() && vela::is_space(text.front())) text.remove_prefix(1);
    return text;
}

/// The value of a key among lines "key=value"; empty without one.
std::string_view value_of(std::string_view lines, std::string_view key)
{
    while (!lines.empty()) {
        const size_t end = std::min(lines.find('\n'), lines.size());
        const std::string_view line = vela::first(lines, end);
        lines = vela::after(lines, end + 1);
        if (vela::starts_with(line, key) && line.size() > key.size() && line[key.size()] == '=') {
            return trimmed(vela::after(line, key.size() + 1));
        }
    }
    return {};
}

/// Takes the first word off a list of words.
std::string_view take_word(std::string_view &words)
{
    size_t n = 0;
    while (n < words.size() && !vela::is_space(words[n])) ++n;
    const std::string_view word = vela::first(words, n);
    while (n < words.size() && vela::is_space(words[n])) ++n;
    words = vela::after(words, n);
    return word;
}

uint32_t address_in(std::string_view words)
{
    char text[INET_ADDRSTRLEN];
    const std::string_view word = take_word(words);
    return word.size() < sizeof text ? (vela::copy_text(text, word), address_of(text)) : 0;
}

uint32_t number_in(std::string_view text)
{
    uint64_t number = 0;
    for (const char c : text) {
        if (!vela::is_digit(c) || (number = number * 10 + static_cast<uint64_t>(c - '0')) >= UINT32_MAX)
            return UINT32_MAX;
    }
    return text.empty() ? UINT32_MAX : static_cast<uint32_t>(number);
}

/// False when the client left no lease.
bool ask_file(vela_dhcp_lease &lease)
{
    const vela::formatted<256> path{vela::settings::dhcp_lease_file, lease.ifname};
    file_text file;
    return path.fits() && file.read(path.c_str()) &&
           vela::dhcp::read_file({file.bytes, file.length}, file.age_s, lease);
}

// The kernel.

/// Takes an address that will end by itself: somebody keeps it alive.
int take_address(const vela_netaddr *address, void *arg)
{
    if (address->family != AF_INET || (address->flags & IFA_F_PERMANENT)) return 0;
    auto &lease = *static_cast<vela_dhcp_lease *>(arg);
    lease.source = VELA_DHCP_FROM_KERNEL;
    lease.state = VELA_DHCP_BOUND;
    memcpy(&lease.address, address->address, sizeof lease.address);
    lease.netmask = netmask_of(address->prefix);
    lease.remaining_s = address->valid_s;
    return 1;
}

bool put_resolvers(json_t *object, const vela_dhcp_lease &lease)
{
    json_ref array{json_array()};
    for (const uint32_t server : lease.dns) {
        if (server == 0) continue;
        const vela::address_text text{AF_INET, &server};
        if (json_array_append_new(array.get(), json_string(text.text)) != 0) return false;
    }
    return json_array_size(array.get()) == 0 || json_object_set_new(object, "dns", array.release()) == 0;
}

} // namespace

namespace vela
{

bool dhcp::read_dump(const json_t *dump, vela_dhcp_lease &lease)
{
    const json_t *entry = find_entry(json_object_get(dump, "interface"), lease.ifname);
    if (!entry) return false;
    lease.source = VELA_DHCP_FROM_BUS;
    lease.state = state_of(entry);
    if (lease.state == VELA_DHCP_NONE) return true;
    const json_t *address = json_array_get(json_object_get(entry, "ipv4-address"), 0);
    lease.address = address_of(text_in(address, "address"));
    lease.netmask = netmask_of(json_integer_value(json_object_get(address, "mask")));
    lease.gateway = gateway_in(entry);
    take_resolvers(json_object_get(entry, "dns-server"), lease);
    const char *domain = json_string_value(json_array_get(json_object_get(entry, "dns-search"), 0));
    read_text(domain, lease.domain, sizeof lease.domain);
    const json_t *data = json_object_get(entry, "data");
    lease.server = address_of(text_in(data, "dhcpserver"));
    lease.lease_s = seconds_in(data, "leasetime");
    lease.age_s = seconds_in(entry, "uptime");
    if (lease.lease_s != UINT32_MAX && lease.age_s <= lease.lease_s) lease.remaining_s = lease.lease_s - lease.age_s;
    return true;
}

bool dhcp::read_file(std::string_view lines, uint32_t age_s, vela_dhcp_lease &lease)
{
    const uint32_t address = address_in(value_of(lines, "ip"));
    if (address == 0) return false;
    const uint32_t granted = number_in(value_of(lines, "lease"));
    const bool dated = granted != UINT32_MAX && age_s != UINT32_MAX;
    lease.source = VELA_DHCP_FROM_FILE;
    lease.state = dated && age_s >= granted ? VELA_DHCP_NONE : VELA_DHCP_BOUND;
    if (lease.state == VELA_DHCP_NONE) return true;
    lease.address = address;
    lease.netmask = address_in(value_of(lines, "subnet"));
    lease.gateway = address_in(value_of(lines, "router"));
    lease.server = address_in(value_of(lines, "serverid"));
    std::string_view resolvers = value_of(lines, "dns");
    for (size_t count = 0; count < std::size(lease.dns) && !resolvers.empty();) {
        lease.dns[count] = address_in(take_word(resolvers));
        if (lease.dns[count] != 0) ++count;
    }
    char domain[sizeof lease.domain + 4]; // room for a character that is cut in the end
    copy_text(domain, value_of(lines, "domain"));
    read_text(domain, lease.domain, sizeof lease.domain);
    lease.lease_s = granted;
    lease.age_s = age_s;
    if (dated) lease.remaining_s = granted - age_s;
    return true;
}

} // namespace vela

int vela_dhcp_get(vela_ubus_interface_t *iface, const char *ifname, vela_dhcp_lease *out)
{
    if (!ifname || !out) return -EINVAL;
    if (if_nametoindex(ifname) == 0 || strchr(ifname, '/')) return -ENODEV;
    vela_dhcp_lease lease = unknown_lease(ifname);
    if (!(iface && ask_bus(iface, lease)) && !ask_file(lease)) {
        const int result = vela_netaddr_foreach(ifname, take_address, &lease);
        if (result < 0 && result != -EAGAIN) return result;
    }
    *out = lease;
    return 0;
}

json_t *vela_dhcp_json(vela_ubus_interface_t *iface, const char *ifname)
{
    vela_dhcp_lease lease;
    const int result = vela_dhcp_get(iface, ifname, &lease);
    json_ref object = result == 0 ? vela::record_json(rows, lease, AF_INET) : json_ref{};
    if (object && put_resolvers(object.get(), lease)) return object.release();
    errno = result < 0 ? -result : ENOMEM;
    return nullptr;
}
