// Interfaces, bridges, neighbours, the way to the internet.
#include "command.h"

#include <cerrno>
#include <vela/net/bridge.h>
#include <vela/net/internet.h>
#include <vela/net/netif.h>

namespace velactl
{
namespace
{

/// An answer of the library's, or trouble that names what it is about.
json answer_of(json_t *value, const char *about)
{
    if (value) return json{value};
    const int error = errno;
    if (error == ENODEV) throw refused(std::string("there is no such interface or bridge: ") + about, -error);
    throw refused(std::string("the kernel did not tell about ") + about, -error);
}

void copy(const json &row, const char *column, const json_t *from, const char *key)
{
    json_t *value = json_object_get(from, key);
    json_object_set_new(row.get(), column, value ? json_incref(value) : json_null());
}

std::string addresses_of(const json_t *link)
{
    std::string text;
    const json_t *list = json_object_get(link, "addresses");
    for (size_t i = 0; i < json_array_size(list); ++i) {
        const json_t *one = json_array_get(list, i);
        text += (i != 0 ? ", " : "") + std::string(json_string_value(json_object_get(one, "address"))) + "/" +
                std::to_string(json_integer_value(json_object_get(one, "prefix")));
    }
    return text.empty() ? "-" : text;
}

json links(arguments)
{
    json all = answer_of(vela_netif_json(nullptr), "interfaces");
    if (chosen.as_json) return all;
    json rows{json_array()};
    for (size_t i = 0; i < json_array_size(all.get()); ++i) {
        const json_t *link = json_array_get(all.get(), i);
        json row = object();
        copy(row, "name", link, "name");
        copy(row, "up", link, "up");
        copy(row, "speed", link, "speed_mbps");
        for (const char *key : {"duplex", "mtu", "mac", "master"}) copy(row, key, link, key);
        set(row, "addresses", addresses_of(link));
        append(rows, std::move(row));
    }
    return rows;
}

json link(arguments given)
{
    json one = answer_of(vela_netif_json(given[0]), given[0]);
    if (chosen.as_json) return one;
    set(one, "addresses", addresses_of(one.get()));
    json counters{json_incref(json_object_get(one.get(), "counters"))};
    json_object_del(one.get(), "counters");
    json_object_update(one.get(), counters.get());
    return one;
}

json ports(arguments given)
{
    const char *bridge = given.empty() ? "br0" : given[0];
    return answer_of(vela_bridge_port_json(bridge), bridge);
}

json fdb(arguments given)
{
    const char *bridge = given.empty() ? "br0" : given[0];
    return answer_of(vela_fdb_json(bridge), bridge);
}

json neighbours(arguments given)
{
    const char *ifname = given.empty() ? nullptr : given[0];
    return answer_of(vela_neighbour_json(0, ifname), ifname ? ifname : "neighbours");
}

json internet(arguments)
{
    json all = answer_of(vela_internet_json(), "the way to the internet");
    if (chosen.as_json) return all;
    json rows{json_array()};
    for (const char *family : {"ipv4", "ipv6"}) {
        const json part{json_incref(json_object_get(all.get(), family))};
        copy(all, family, part.get(), "reason");
        const json_t *routes = json_object_get(part.get(), "routes");
        for (size_t i = 0; i < json_array_size(routes); ++i) append(rows, json{json_incref(json_array_get(routes, i))});
    }
    set(all, "routes", std::move(rows));
    return all;
}

constexpr command commands[] = {
    {"links", "", "interfaces and their addresses", 0, 0, links, answer::rows},
    {"link", "INTERFACE", "one interface, with its counters", 1, 1, link, answer::object},
    {"bridge", "[BRIDGE]", "a bridge's ports", 0, 1, ports, answer::rows},
    {"fdb", "[BRIDGE]", "hardware addresses and the ports of a bridge behind which they are", 0, 1, fdb, answer::rows},
    {"neighbours", "[INTERFACE]", "hardware addresses of IPv4 and IPv6 neighbours", 0, 1, neighbours, answer::rows},
    {"internet", "", "how far the default routes lead, and why not further", 0, 0, internet, answer::object},
};

} // namespace

const std::span<const command> link_commands{commands};

} // namespace velactl
