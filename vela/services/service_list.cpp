// The service manager's list: a table of services, each with a table of instances.

#include <vela/core/internal/text.h>
#include <vela/services/internal/bus_record.h>
#include <vela/services/service_list.h>
#include <vela/settings.h>

namespace
{

using vela::json_ref;
using vela::json_row;
using vela::shown;
using vela::unknown;

constexpr int instances_max = 1024;

constexpr json_row rows[] = {
    {"name", VELA_MEMBER(vela_service, name), shown::text, unknown::zero},
    {"instance", VELA_MEMBER(vela_service, instance), shown::text, unknown::never},
    {"command", VELA_MEMBER(vela_service, command), shown::text, unknown::zero},
    {"running", VELA_MEMBER(vela_service, running), shown::truth, unknown::ones},
    {"pid", VELA_MEMBER(vela_service, pid), shown::number, unknown::ones},
    {"exit_code", VELA_MEMBER(vela_service, exit_code), shown::number, unknown::ones},
    {"respawns", VELA_MEMBER(vela_service, respawns), shown::number, unknown::ones},
    {"reload_signal", VELA_MEMBER(vela_service, reload_signal), shown::number, unknown::ones},
};
static_assert(sizeof(vela_service) == 64 + 64 + 256 + 5 * 4);

/// The words of a command, blanks between them, as far as they fit.
void join_words(const json_t *words, char *out, size_t size)
{
    size_t length = 0;
    for (size_t i = 0; i < json_array_size(words); ++i) {
        const char *word = json_string_value(json_array_get(words, i));
        if (!word) continue;
        if (length != 0 && length + 1 < size) out[length++] = ' ';
        vela::read_text(word, out + length, size - length);
        const size_t taken = strlen(out + length);
        length += taken;
        if (word[taken] != '\0') break; // cut: nothing follows it
    }
    if (length != 0 && out[length - 1] == ' ') out[length - 1] = '\0'; // the next word did not fit
}

/// An instance; null for a service that has none.
vela_service read_service(const char *name, const char *instance_name, const json_t *instance)
{
    vela_service service;
    vela::read_record(instance, rows, &service, sizeof service);
    vela::read_text(name, service.name, sizeof service.name);
    vela::read_text(instance_name, service.instance, sizeof service.instance);
    join_words(json_object_get(instance, "command"), service.command, sizeof service.command);
    const json_t *retry = json_object_get(json_object_get(instance, "respawn"), "retry");
    const json_int_t respawns = json_is_integer(retry) ? json_integer_value(retry) : -1;
    if (respawns >= 0 && respawns < UINT32_MAX) service.respawns = static_cast<uint32_t>(respawns);
    if (!instance) service.running = 0;
    if (service.running == 1) service.exit_code = UINT32_MAX;
    if (service.running == 0) service.pid = UINT32_MAX;
    return service;
}

/// The walk over the answer; counts, and stops when the callback does or there are too many.
class walk
{
public:
    walk(vela_service_callback each, void *arg) : each_{each}, arg_{arg} {}

    int over(json_t *services)
    {
        const char *name = nullptr;
        json_t *service = nullptr;
        json_object_foreach(services, name, service)
        {
            if (!over_instances(name, json_object_get(service, "instances"))) break;
        }
        return result_;
    }

private:
    bool over_instances(const char *service, json_t *instances)
    {
        const char *name = nullptr;
        json_t *instance = nullptr;
        if (json_object_size(instances) == 0) return deliver(read_service(service, "", nullptr));
        json_object_foreach(instances, name, instance)
        {
            if (!deliver(read_service(service, name, instance))) return false;
        }
        return true;
    }

    /// False when the walk is over.
    bool deliver(const vela_service &service)
    {
        if (result_ == instances_max) {
            result_ = -ENOSPC;
            return false;
        }
        ++result_;
        return each_(&service, arg_) == 0;
    }

    vela_service_callback each_;
    void *arg_;
    int result_ = 0;
};

} // namespace

int vela_service_foreach(vela_ubus_interface_t *iface, const char *name, vela_service_callback each, void *arg)
{
    if (!each) return -EINVAL;
    json_ref question{json_object()};
    if (name && json_object_set_new(question.get(), "name", json_string(name)) != 0) return -EINVAL;
    json_ref services;
    const int result = vela::bus_questions{iface}.ask(vela::settings::bus_service, "list", question.get(), services);
    if (vela::nobody_there(result)) return -EOPNOTSUPP;
    return result < 0 ? result : walk{each, arg}.over(services.get());
}

json_t *vela_service_json(vela_ubus_interface_t *iface, const char *name)
{
    return vela::list_json<vela_service>(
        [=](vela_service_callback each, void *arg) { return vela_service_foreach(iface, name, each, arg); },
        [](const vela_service &service) { return vela::record_json(rows, service); });
}
