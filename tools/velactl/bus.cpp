// The system bus: what it offers, calls, events and notifications.
#include "bus.h"

#include <cerrno>
#include <cstring>

namespace velactl
{
namespace
{

constexpr int64_t seconds_max = 1'000'000;

json list(const bus_connection &bus, std::span<char *const> rest)
{
    json objects{vela_ubus_objects_json(bus.get(), rest.empty() ? nullptr : rest[0])};
    if (!objects) throw refused(std::string("list: ") + vela_ubus_error_text(-errno), -errno);
    return objects;
}

json call(const bus_connection &bus, std::span<char *const> rest)
{
    json args;
    if (rest.size() > 2) {
        args.reset(json_loads(rest[2], 0, nullptr));
        if (!json_is_object(args.get())) throw trouble(status::misused, "the arguments must be a JSON object");
    }
    json_t *answer = nullptr;
    const int result = vela_ubus_call_object(bus.get(), rest[0], rest[1], args.get(), &answer, 0);
    if (result < 0) throw refused(std::string(rest[0]) + " " + rest[1] + ": " + vela_ubus_error_text(result), result);
    return json{answer};
}

void heard(vela_ubus_interface_t *, const char *name, const json_t *data, void *)
{
    json row = object();
    set(row, "event", *name ? name : "(some may have been missed)");
    if (data) set(row, "data", json{json_incref(const_cast<json_t *>(data))});
    show_line(*find_command("bus"), std::move(row));
}

using start = vela_ubus_listener *(*)(vela_ubus_interface_t *, const char *, vela_ubus_event_callback, void *);

template <start Start> json follow(const bus_connection &bus, std::span<char *const> rest)
{
    const auto seconds = rest.size() > 1 ? number(rest[1], "SECONDS", 1, seconds_max) : 0;
    if (!Start(bus.get(), rest[0], heard, nullptr)) {
        throw refused(std::string("not heard: ") + vela_ubus_error_text(-errno), -errno);
    }
    const timeval limit = {static_cast<time_t>(seconds), 0};
    if (seconds != 0) event_base_loopexit(bus.base(), &limit);
    event_base_dispatch(bus.base());
    return nullptr;
}

constexpr struct {
    const char *name;
    size_t least, most;
    json (*run)(const bus_connection &bus, std::span<char *const> rest);
} actions[] = {
    {"list", 0, 1, list},
    {"call", 2, 3, call},
    {"listen", 1, 2, follow<vela_ubus_listen>},
    {"subscribe", 1, 2, follow<vela_ubus_subscribe>},
};

json bus(arguments given)
{
    const auto rest = given.subspan(1);
    for (const auto &action : actions) {
        if (strcmp(action.name, given[0]) != 0 || rest.size() < action.least || rest.size() > action.most) continue;
        const bus_connection connection;
        if (!connection.get()) throw trouble(status::unavailable, "there is no bus; is its daemon running?");
        return action.run(connection, rest);
    }
    throw trouble(status::misused, "arguments missing, too many or unknown; velactl bus --help");
}

constexpr command commands[] = {
    {"bus",
     "list|call|listen|subscribe [WHAT...]",
     "the system bus",
     1,
     4,
     bus,
     answer::object,
     {},
     {},
     "list [OBJECT]: the objects with their methods and arguments; OBJECT may end in *. call OBJECT METHOD [JSON]: the "
     "answer of a method, within 3 seconds. listen PATTERN [SECONDS]: events as they come; PATTERN may end in *. "
     "subscribe OBJECT [SECONDS]: the notifications of one object."},
};

} // namespace

const std::span<const command> bus_commands{commands};

} // namespace velactl
