// Power without a daemon: PSE controllers over ethtool netlink, the power-supply class and hardware monitors in /sys.

#include <vela/core/internal/raw_netlink.h>
//
#include <cerrno>
#include <fcntl.h>
#include <linux/genetlink.h>
#include <unistd.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/services/internal/power.h>
#include <vela/settings.h>

namespace
{

namespace raw_netlink = vela::raw_netlink;

constexpr size_t elements_max = 256;

// Numbers of <linux/ethtool_netlink.h>: headers older than the kernel lack the names from 5 on.
constexpr uint8_t pse_get = 36;
constexpr const char *ethtool_family = "ethtool";
enum pse_attribute : uint16_t {
    pse_header = 1,
    admin_state = 5,
    delivery_status = 7,
    power_class = 8,
    actual_power = 9,
    available_power_limit = 12
};
enum header_attribute : uint16_t { header_dev_index = 1, header_dev_name = 2 };
constexpr uint32_t admin_disabled = 2, admin_enabled = 3;

struct delivery {
    uint32_t status; // ETHTOOL_C33_PSE_PW_D_STATUS_...
    uint32_t state;
};
constexpr delivery deliveries[] = {
    {2, VELA_OUTLET_OFF},   {3, VELA_OUTLET_SEARCHING}, {4, VELA_OUTLET_DELIVERING},
    {6, VELA_OUTLET_FAULT}, {7, VELA_OUTLET_FAULT},
};

uint32_t state_of(uint32_t status)
{
    for (const delivery &d : deliveries) {
        if (d.status == status) return d.state;
    }
    return UINT32_MAX;
}

/// The number of a generic-netlink family; nothing when the kernel has none of that name.
std::optional<uint16_t> find_family(raw_netlink::channel &kernel, const char *name)
{
    raw_netlink::request question{GENL_ID_CTRL, genlmsghdr{CTRL_CMD_GETFAMILY, 1, 0}};
    question.put_text(CTRL_ATTR_FAMILY_NAME, name);
    kernel.ask(question, raw_netlink::how_much::one);
    std::optional<uint16_t> id;
    while (const auto m = kernel.next()) {
        genlmsghdr header;
        std::span<const uint8_t> rest;
        if (!raw_netlink::split(*m, header, rest)) continue;
        raw_netlink::attributes walk{rest};
        while (const auto a = walk.next()) {
            if (a->type == CTRL_ATTR_FAMILY_ID) id = a->as<uint16_t>();
        }
    }
    return id;
}

vela_power_outlet unknown_outlet()
{
    vela_power_outlet outlet = {};
    outlet.enabled = outlet.state = outlet.power_class = outlet.power_mw = outlet.limit_mw = UINT32_MAX;
    outlet.source = VELA_POWER_FROM_KERNEL;
    return outlet;
}

void take_header(const raw_netlink::attribute &header, vela_power_outlet &outlet)
{
    auto walk = raw_netlink::attributes::inside(header);
    while (const auto a = walk.next()) {
        if (a->type != header_dev_name) continue;
        vela::copy_text(outlet.ifname, a->text());
        vela::copy_text(outlet.name, a->text());
    }
}

/// A file of /sys below a directory: one line, without its end. False when it cannot be read.
template <size_t Size> bool read_line(int folder, const char *path, char (&line)[Size])
{
    const vela::unique_fd fd{openat(folder, path, O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    const ssize_t n = fd.ok() ? read(fd.get(), line, Size - 1) : -1;
    if (n < 0) return false;
    line[n] = '\0';
    line[strcspn(line, "\n")] = '\0';
    return true;
}

/// A number of /sys, divided; not known when it is missing, negative or beyond the member.
uint32_t read_number(int folder, const char *path, uint64_t divisor)
{
    char line[32];
    if (!read_line(folder, path, line) || !vela::is_digit(*line)) return UINT32_MAX;
    errno = 0;
    const uint64_t number = strtoull(line, nullptr, 10) / divisor;
    return errno == 0 && number < UINT32_MAX ? static_cast<uint32_t>(number) : UINT32_MAX;
}

/// 1 or 0 for a number of /sys that may count further ("online" does).
uint32_t read_flag(int folder, const char *path)
{
    const uint32_t number = read_number(folder, path, 1);
    return number == UINT32_MAX ? number : number != 0;
}

struct kind_name {
    const char *type; // as the kernel writes it
    uint32_t kind;
};
constexpr kind_name kind_names[] = {
    {"Mains", VELA_SUPPLY_MAINS},
    {"Battery", VELA_SUPPLY_BATTERY},
    {"USB", VELA_SUPPLY_USB},
};

uint32_t kind_of(int supply)
{
    char type[16];
    if (!read_line(supply, "type", type)) return UINT32_MAX;
    for (const kind_name &k : kind_names) {
        if (strcmp(k.type, type) == 0) return k.kind;
    }
    return UINT32_MAX;
}

vela_power_supply unknown_supply(const char *name, uint32_t source)
{
    vela_power_supply supply = {};
    vela::copy_text(supply.name, vela::view(name));
    supply.kind = supply.present = supply.online = supply.max_mw = UINT32_MAX;
    supply.voltage_mv = supply.current_ma = supply.power_mw = UINT32_MAX;
    supply.source = source;
    return supply;
}

vela_power_supply read_supply(const char *name, int files)
{
    vela_power_supply supply = unknown_supply(name, VELA_POWER_FROM_KERNEL);
    constexpr uint64_t micro_per_milli = 1000;
    supply.kind = kind_of(files);
    supply.present = read_flag(files, "present");
    supply.online = read_flag(files, "online");
    supply.voltage_mv = read_number(files, "voltage_now", micro_per_milli);
    supply.current_ma = read_number(files, "current_now", micro_per_milli);
    supply.power_mw = read_number(files, "power_now", micro_per_milli);
    return supply;
}

/// Supplies being delivered.
struct delivery_list {
    vela_power_supply_callback each;
    void *arg;
    int result = 0;

    /// False when the walk is over.
    bool add(const vela_power_supply &supply)
    {
        if (result == static_cast<int>(elements_max)) {
            result = -ENOSPC;
            return false;
        }
        ++result;
        return each(&supply, arg) == 0;
    }
};

/// Opens each entry of a folder of /sys in turn, as long as `visit` gives true. False without such a folder.
template <class Visit> bool each_entry(const char *path, Visit visit, bool &go_on)
{
    const vela::dir_ptr entries{opendir(path)};
    if (!entries) return false;
    while (const dirent *entry = go_on ? readdir(entries.get()) : nullptr) {
        if (*entry->d_name == '.') continue;
        const vela::unique_fd files{openat(dirfd(entries.get()), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
        if (files.ok()) go_on = visit(entry->d_name, files.get());
    }
    return true;
}

bool is_named(std::string_view chip)
{
    std::string_view names = vela::settings::power_hwmon;
    while (!names.empty()) {
        const size_t end = std::min(names.find(' '), names.size());
        if (!chip.empty() && vela::first(names, end) == chip) return true;
        names = vela::after(names, end + 1);
    }
    return false;
}

/// The figures of a chip, one supply for each number that it measures anything under.
bool add_monitor(delivery_list &list, int files)
{
    constexpr unsigned numbers = 16;
    constexpr uint64_t micro_per_milli = 1000;
    char chip[32];
    if (!read_line(files, "name", chip) || !is_named(chip)) return true;
    for (unsigned n = 0; n < numbers; ++n) {
        const vela::formatted<48> name{"%s.%u", chip, n};
        vela_power_supply supply = unknown_supply(name.c_str(), VELA_POWER_FROM_MONITOR);
        supply.voltage_mv = read_number(files, vela::formatted<24>{"in%u_input", n}.c_str(), 1);
        supply.current_ma = read_number(files, vela::formatted<24>{"curr%u_input", n}.c_str(), 1);
        supply.power_mw = read_number(files, vela::formatted<24>{"power%u_input", n}.c_str(), micro_per_milli);
        const bool measured = (supply.voltage_mv & supply.current_ma & supply.power_mw) != UINT32_MAX;
        if (measured && !list.add(supply)) return false;
    }
    return true;
}

} // namespace

namespace vela
{

vela_power_outlet power::read_outlet(std::span<const uint8_t> attributes)
{
    vela_power_outlet outlet = unknown_outlet();
    raw_netlink::attributes walk{attributes};
    while (const auto a = walk.next()) {
        const uint32_t number = a->as<uint32_t>().value_or(UINT32_MAX);
        switch (a->type) {
        case pse_header: take_header(*a, outlet); break;
        case admin_state:
            if (number == admin_disabled || number == admin_enabled) outlet.enabled = number == admin_enabled;
            break;
        case delivery_status: outlet.state = state_of(number); break;
        case power_class: outlet.power_class = number; break;
        case actual_power: outlet.power_mw = number; break;
        case available_power_limit: outlet.limit_mw = number; break;
        default: break;
        }
    }
    return outlet;
}

int power::each_kernel_outlet(vela_power_outlet_callback each, void *arg)
{
    raw_netlink::channel kernel{NETLINK_GENERIC};
    const auto family = find_family(kernel, ethtool_family);
    if (!family) return -ENOENT;
    raw_netlink::request question{*family, genlmsghdr{pse_get, 1, 0}};
    {
        const raw_netlink::request::list header{question, pse_header | NLA_F_NESTED}; // empty: all interfaces
    }
    kernel.ask(question, raw_netlink::how_much::all);
    int count = 0;
    while (const auto m = kernel.next()) {
        genlmsghdr header;
        std::span<const uint8_t> rest;
        if (!raw_netlink::split(*m, header, rest)) continue;
        const vela_power_outlet outlet = read_outlet(rest);
        if (*outlet.name == '\0') continue;
        if (count == static_cast<int>(elements_max)) return -ENOSPC;
        ++count;
        if (each(&outlet, arg) != 0) return count;
    }
    // A kernel without PSE controllers refuses the question, or has no answer to it.
    if (kernel.result() == -EOPNOTSUPP || (kernel.result() == 0 && count == 0)) return -ENOENT;
    return kernel.result() < 0 ? kernel.result() : count;
}

int power::each_kernel_supply(vela_power_supply_callback each, void *arg)
{
    delivery_list list{each, arg};
    bool go_on = true;
    const bool has_class = each_entry(
        "/sys/class/power_supply", [&](const char *name, int files) { return list.add(read_supply(name, files)); },
        go_on);
    const bool has_monitors =
        *settings::power_hwmon != '\0' &&
        each_entry(
            "/sys/class/hwmon", [&](const char *, int files) { return add_monitor(list, files); }, go_on);
    return has_class || has_monitors ? list.result : -ENOENT;
}

} // namespace vela
