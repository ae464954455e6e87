// Supplies and outlets: from the daemon on the bus, else from the kernel (power-kernel.cpp).

#include <vela/core/internal/text.h>
#include <vela/services/internal/bus_record.h>
#include <vela/services/internal/power.h>
#include <vela/services/power.h>
#include <vela/settings.h>

namespace
{

using vela::json_ref;
using vela::json_row;
using vela::shown;
using vela::unknown;

constexpr size_t elements_max = 256;

constexpr const char *kinds[] = {nullptr, "poe", "dc", "mains", "battery", "usb"};
constexpr const char *states[] = {nullptr, "off", "searching", "delivering", "fault"};
constexpr const char *sources[] = {nullptr, "bus", "kernel", "monitor"};

template <auto &Words> const char *word(uint32_t number) { return number < std::size(Words) ? Words[number] : nullptr; }

constexpr json_row supply_rows[] = {
    {"name", VELA_MEMBER(vela_power_supply, name), shown::text, unknown::zero},
    {"kind", VELA_MEMBER(vela_power_supply, kind), shown::word, unknown::ones, word<kinds>},
    {"present", VELA_MEMBER(vela_power_supply, present), shown::truth, unknown::ones},
    {"online", VELA_MEMBER(vela_power_supply, online), shown::truth, unknown::ones},
    {"voltage_mv", VELA_MEMBER(vela_power_supply, voltage_mv), shown::number, unknown::ones},
    {"current_ma", VELA_MEMBER(vela_power_supply, current_ma), shown::number, unknown::ones},
    {"power_mw", VELA_MEMBER(vela_power_supply, power_mw), shown::number, unknown::ones},
    {"max_mw", VELA_MEMBER(vela_power_supply, max_mw), shown::number, unknown::ones},
    {"source", VELA_MEMBER(vela_power_supply, source), shown::word, unknown::ones, word<sources>},
};
constexpr json_row outlet_rows[] = {
    {"name", VELA_MEMBER(vela_power_outlet, name), shown::text, unknown::zero},
    {"interface", VELA_MEMBER(vela_power_outlet, ifname), shown::text, unknown::zero},
    {"enabled", VELA_MEMBER(vela_power_outlet, enabled), shown::truth, unknown::ones},
    {"state", VELA_MEMBER(vela_power_outlet, state), shown::word, unknown::ones, word<states>},
    {"class", VELA_MEMBER(vela_power_outlet, power_class), shown::number, unknown::ones},
    {"power_mw", VELA_MEMBER(vela_power_outlet, power_mw), shown::number, unknown::ones},
    {"limit_mw", VELA_MEMBER(vela_power_outlet, limit_mw), shown::number, unknown::ones},
    {"source", VELA_MEMBER(vela_power_outlet, source), shown::word, unknown::ones, word<sources>},
    {"fault", VELA_MEMBER(vela_power_outlet, fault), shown::text, unknown::zero},
};
static_assert(sizeof(vela_power_supply) == 32 + 8 * 4);
static_assert(sizeof(vela_power_outlet) == 32 + 16 + 6 * 4 + 32);

bool has_name(const json_t *element, const char *name)
{
    const char *own = json_string_value(json_object_get(element, "name"));
    return own && strcmp(own, name) == 0;
}

/// The elements that have a name of their own: of those that share one, the first.
json_ref with_unique_names(const json_t *list)
{
    json_ref unique{json_array()};
    for (size_t i = 0; i < json_array_size(list) && json_array_size(unique.get()) <= elements_max; ++i) {
        json_t *element = json_array_get(list, i);
        const char *name = json_string_value(json_object_get(element, "name"));
        bool known = !name || *name == '\0';
        for (size_t k = 0; !known && k < json_array_size(unique.get()); ++k) {
            known = has_name(json_array_get(unique.get(), k), name);
        }
        if (!known && json_array_append(unique.get(), element) != 0) return {};
    }
    return unique;
}

/// What the daemon lists, each element with its source; else what the kernel tells.
template <class Record, class Callback, class Fallback>
int walk(vela::bus_questions &bus, const char *method, std::span<const json_row> rows, Callback each, void *arg,
         Fallback kernel)
{
    if (!each) return -EINVAL;
    json_ref answer;
    const int result = bus.ask(vela::settings::bus_power, method, nullptr, answer);
    if (vela::nobody_there(result)) return kernel(each, arg);
    if (result < 0) return result;
    const json_ref list = with_unique_names(json_object_get(answer.get(), method));
    if (!list) return -ENOMEM;
    return vela::each_record<Record>(list.get(), rows, elements_max, [=](Record &record) {
        record.source = VELA_POWER_FROM_BUS;
        return each(&record, arg);
    });
}

/// Sets a list in an answer, unless no source has it. 0, or a negative errno.
int put_list(json_t *object, const char *key, json_t *list)
{
    if (!list) return errno == ENOENT ? 0 : -errno;
    return json_object_set_new(object, key, list) == 0 ? 0 : -ENOMEM;
}

int walk_supplies(vela::bus_questions &bus, vela_power_supply_callback each, void *arg)
{
    return walk<vela_power_supply>(bus, "supplies", supply_rows, each, arg, vela::power::each_kernel_supply);
}

int walk_outlets(vela::bus_questions &bus, vela_power_outlet_callback each, void *arg)
{
    return walk<vela_power_outlet>(bus, "outlets", outlet_rows, each, arg, vela::power::each_kernel_outlet);
}

} // namespace

int vela_power_supply_foreach(vela_ubus_interface_t *iface, vela_power_supply_callback each, void *arg)
{
    vela::bus_questions bus{iface};
    return walk_supplies(bus, each, arg);
}

int vela_power_outlet_foreach(vela_ubus_interface_t *iface, vela_power_outlet_callback each, void *arg)
{
    vela::bus_questions bus{iface};
    return walk_outlets(bus, each, arg);
}

int vela_power_outlet_set(vela_ubus_interface_t *iface, const char *name, int enabled)
{
    if (!name || *name == '\0') return -EINVAL;
    const json_ref args{json_object()};
    if (json_object_set_new(args.get(), "name", json_string(name)) != 0) return -EINVAL; // no UTF-8
    if (json_object_set_new(args.get(), "enabled", json_boolean(enabled)) != 0) return -ENOMEM;
    json_ref answer;
    const int result = vela::bus_questions{iface}.ask(vela::settings::bus_power, "set_outlet", args.get(), answer);
    return vela::nobody_there(result) ? -ENOENT : result;
}

json_t *vela_power_json(vela_ubus_interface_t *iface)
{
    vela::bus_questions bus{iface}; // for both lists
    json_ref result{json_object()};
    int status = put_list(
        result.get(), "supplies",
        vela::list_json<vela_power_supply>([&](auto each, void *arg) { return walk_supplies(bus, each, arg); },
                                           [](const auto &supply) { return vela::record_json(supply_rows, supply); }));
    if (status == 0) {
        status = put_list(result.get(), "outlets",
                          vela::list_json<vela_power_outlet>(
                              [&](auto each, void *arg) { return walk_outlets(bus, each, arg); },
                              [](const auto &outlet) { return vela::record_json(outlet_rows, outlet); }));
    }
    if (status == 0 && json_object_size(result.get()) == 0) status = -ENOENT;
    if (status == 0) return result.release();
    errno = -status;
    return nullptr;
}
