// What the device's daemons tell over the bus: services, leases, power, the guest portal.
#include "bus.h"

#include <cerrno>
#include <cstring>
#include <vela/services/dhcp.h>
#include <vela/services/portal.h>
#include <vela/services/power.h>
#include <vela/services/service_list.h>

namespace velactl
{
namespace
{

/// A writer's answer, or trouble for its errno; `missing` says what to do where nobody answers.
json answer_of(json_t *value, const char *what, const char *missing)
{
    if (value) return json{value};
    const int error = errno;
    if (error == EOPNOTSUPP || error == ENOENT) throw refused(missing, -error);
    throw refused(std::string(what) + ": " + vela_ubus_error_text(-error), -error);
}

json services(arguments given)
{
    const bus_connection bus;
    return answer_of(vela_service_json(bus.get(), given.empty() ? nullptr : given[0]), "services",
                     "no service manager is on the bus; is it running?");
}

json dhcp(arguments given)
{
    const bus_connection bus;
    const char *ifname = given.empty() ? "br0" : given[0];
    json_t *lease = vela_dhcp_json(bus.get(), ifname);
    if (!lease) throw refused(std::string("there is no interface ") + ifname + "; velactl links lists them", -errno);
    return json{lease};
}

json power(arguments)
{
    const bus_connection bus;
    return answer_of(vela_power_json(bus.get()), "power",
                     "neither a daemon nor the kernel knows a supply or an outlet");
}

json outlet(arguments given)
{
    const bool on = strcmp(given[1], "on") == 0;
    if (!on && strcmp(given[1], "off") != 0) throw trouble(status::misused, "an outlet is set on or off");
    const bus_connection bus;
    const int result = vela_power_outlet_set(bus.get(), given[0], on);
    if (result == -ENOENT)
        throw refused("no power daemon on the bus knows this outlet; velactl power lists them", result);
    if (result != 0) throw refused(std::string("not set: ") + vela_ubus_error_text(result), result);
    return nullptr;
}

json portal(arguments)
{
    const bus_connection bus;
    return answer_of(vela_portal_json(bus.get()), "portal", "no portal daemon is on the bus; is it running?");
}

constexpr field service_fields[] = {
    {"name", kind::text, "the service"},
    {"instance", kind::text, "one of its processes; empty for a service without any"},
    {"running", kind::flag, "whether it runs"},
    {"pid", kind::number, "while it runs"},
    {"exit_code", kind::number, "of its last run, while it does not run"},
    {"respawns", kind::number, "how often it is started again"},
    {"reload_signal", kind::number, "that makes it read its configuration again"},
    {"command", kind::text, "what runs"},
};
constexpr field lease_fields[] = {
    {"ifname", kind::text, "the interface"},
    {"state", kind::text, "bound, static, none or unknown"},
    {"source", kind::text, "who told: bus, file or kernel"},
    {"address", kind::text, "its address"},
    {"netmask", kind::text, "of its network"},
    {"gateway", kind::text, "the way out"},
    {"server", kind::text, "who gave the lease"},
    {"dns", kind::list, "resolvers"},
    {"lease_s", kind::number, "how long it was granted for"},
    {"age_s", kind::number, "since it was got"},
    {"remaining_s", kind::number, "until it runs out"},
    {"domain", kind::text, "of the network"},
};
constexpr field power_fields[] = {
    {"supplies", kind::rows,
     "what feeds the device: name, kind, present, online, voltage_mv, current_ma, power_mw, "
     "max_mw, source"},
    {"outlets", kind::rows, "what it feeds: name, interface, enabled, state, class, power_mw, limit_mw, fault, source"},
};
constexpr field portal_fields[] = {
    {"networks", kind::rows, "guest networks: network, interface, enabled, clients"},
    {"clients", kind::rows, "their clients: mac, network, state, since_s, remaining_s, rx_bytes, tx_bytes"},
};

constexpr command commands[] = {
    {"services", "[NAME]", "what the service manager runs", 0, 1, services, answer::rows, service_fields},
    {"dhcp", "[INTERFACE]", "how an interface (br0) came by its address", 0, 1, dhcp, answer::object, lease_fields},
    {"power", "", "supplies and outlets", 0, 0, power, answer::object, power_fields},
    {"outlet", "NAME on|off", "let an outlet deliver power, or not", 2, 2, outlet, answer::nothing},
    {"portal", "", "guest networks and their clients", 0, 0, portal, answer::object, portal_fields},
};

} // namespace

const std::span<const command> provider_commands{commands};

} // namespace velactl
