// The guest portal's networks and clients, asked of its daemon.

#include <vela/core/internal/text.h>
#include <vela/services/internal/bus_record.h>
#include <vela/services/portal.h>
#include <vela/settings.h>

namespace
{

using vela::json_ref;
using vela::json_row;
using vela::shown;
using vela::unknown;

constexpr size_t clients_max = 8192;
constexpr size_t networks_max = 64;

constexpr const char *states[] = {nullptr, "pending", "allowed", "blocked"};
const char *state_word(uint32_t number) { return number < std::size(states) ? states[number] : nullptr; }

constexpr json_row client_rows[] = {
    {"mac", VELA_MEMBER(vela_portal_client, mac), shown::mac, unknown::zero},
    {"network", VELA_MEMBER(vela_portal_client, network), shown::text, unknown::zero},
    {"state", VELA_MEMBER(vela_portal_client, state), shown::word, unknown::ones, state_word},
    {"since_s", VELA_MEMBER(vela_portal_client, since_s), shown::number, unknown::ones},
    {"remaining_s", VELA_MEMBER(vela_portal_client, remaining_s), shown::number, unknown::ones},
    {"rx_bytes", VELA_MEMBER(vela_portal_client, rx_bytes), shown::number, unknown::ones},
    {"tx_bytes", VELA_MEMBER(vela_portal_client, tx_bytes), shown::number, unknown::ones},
};
static_assert(sizeof(vela_portal_client) == 72 && offsetof(vela_portal_client, rx_bytes) == 56);

/// A guest network, for the JSON only.
struct network {
    char name[32];
    char interface[16];
    uint32_t enabled;
    uint32_t clients;
};
constexpr json_row network_rows[] = {
    {"network", VELA_MEMBER(network, name), shown::text, unknown::zero},
    {"interface", VELA_MEMBER(network, interface), shown::text, unknown::zero},
    {"enabled", VELA_MEMBER(network, enabled), shown::truth, unknown::ones},
    {"clients", VELA_MEMBER(network, clients), shown::number, unknown::ones},
};

constexpr const char *object = vela::settings::bus_portal;

int without_portal(int result) { return vela::nobody_there(result) ? -EOPNOTSUPP : result; }

bool is_client(const vela_portal_client &client)
{
    constexpr uint8_t none[6] = {};
    return memcmp(client.mac, none, sizeof none) != 0;
}

int walk_clients(vela::bus_questions &bus, const char *network, vela_portal_client_callback each, void *arg)
{
    const json_ref args{json_object()};
    if (network && json_object_set_new(args.get(), "network", json_string(network)) != 0) return -EINVAL; // no UTF-8
    json_ref answer;
    const int result = without_portal(bus.ask(object, "clients", args.get(), answer));
    if (result < 0) return result;
    int nameless = 0;
    const int count = vela::each_record<vela_portal_client>(json_object_get(answer.get(), "clients"), client_rows,
                                                            clients_max, [&](const vela_portal_client &client) {
                                                                if (is_client(client)) return each(&client, arg);
                                                                ++nameless;
                                                                return 0;
                                                            });
    return count < 0 ? count : count - nameless;
}

/// Sets "networks". 0, or a negative errno.
int put_networks(vela::bus_questions &bus, json_t *result)
{
    json_ref answer;
    const int asked = without_portal(bus.ask(object, "status", nullptr, answer));
    if (asked < 0) return asked;
    json_ref networks{json_array()};
    int status = 0;
    (void)vela::each_record<network>(json_object_get(answer.get(), "networks"), network_rows, networks_max,
                                     [&](const network &n) {
                                         json_ref shown = vela::record_json(network_rows, n);
                                         status = json_array_append_new(networks.get(), shown.release());
                                         return status;
                                     });
    if (status != 0 || json_object_set_new(result, "networks", networks.release()) != 0) return -ENOMEM;
    return 0;
}

} // namespace

int vela_portal_client_foreach(vela_ubus_interface_t *iface, const char *network, vela_portal_client_callback each,
                               void *arg)
{
    if (!each) return -EINVAL;
    vela::bus_questions bus{iface};
    return walk_clients(bus, network, each, arg);
}

int vela_portal_client_get(vela_ubus_interface_t *iface, const uint8_t mac[6], vela_portal_client *out)
{
    if (!mac || !out) return -EINVAL;
    const json_ref args{json_object()};
    if (json_object_set_new(args.get(), "mac", json_string(vela::mac_text{mac}.c_str())) != 0) return -ENOMEM;
    vela::bus_questions bus{iface};
    json_ref answer;
    int result = bus.ask(object, "client", args.get(), answer);
    // Nobody there, or a portal that does not know the client? What every portal answers tells.
    if (result == -ENOENT) {
        json_ref status;
        if (vela::nobody_there(bus.ask(object, "status", nullptr, status))) return -EOPNOTSUPP;
        return -ENOENT;
    }
    if (result < 0) return without_portal(result);
    vela_portal_client client;
    vela::read_record(answer.get(), client_rows, &client, sizeof client);
    if (!is_client(client) || memcmp(client.mac, mac, sizeof client.mac) != 0) return -ENOENT;
    *out = client;
    return 0;
}

json_t *vela_portal_json(vela_ubus_interface_t *iface)
{
    vela::bus_questions bus{iface};
    json_ref result{json_object()};
    int status = result ? put_networks(bus, result.get()) : -ENOMEM;
    json_t *clients = nullptr;
    if (status == 0) {
        clients = vela::list_json<vela_portal_client>(
            [&](auto each, void *arg) { return walk_clients(bus, nullptr, each, arg); },
            [](const vela_portal_client &client) { return vela::record_json(client_rows, client); });
        status = clients ? 0 : -errno;
    }
    if (status == 0 && json_object_set_new(result.get(), "clients", clients) == 0) return result.release();
    errno = status < 0 ? -status : ENOMEM;
    return nullptr;
}
