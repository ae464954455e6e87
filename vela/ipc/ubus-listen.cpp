// Events and notifications of the bus. A listener is an object of ours without a name, which the daemon calls with what
// there is to hear: the method is the event's name. One for events has a pattern at the daemon; one that is subscribed
// to an object also hears, by a pattern of its own, when an object of that name appears.

#include <cerrno>
#include <cstddef>
#include <string_view>
#include <vela/core/internal/log.h>
#include <vela/core/internal/pipe_signal.h>
#include <vela/core/internal/text.h>
#include <vela/ipc/internal/bus_json.h>
#include <vela/ipc/internal/bus_library.h>
#include <vela/ipc/internal/ubus_record.h>

using vela::deadline;
using vela::json_ref;
using vela::ubus_record;

struct vela_ubus_listener {
    ubus_subscriber bus; // what the bus library knows
    vela_ubus_listener *next;
    ubus_record *record;
    vela_ubus_event_callback each;
    void *arg;
    bool subscribed; // to an object, else to a pattern
    uint32_t target; // the object's id as long as it is there, else 0
    bool gap;        // to be told of one
    char name[];     // the pattern, or the object's path
};

namespace
{

constexpr const char *log_module = "libvela_ubus";
constexpr const char *appearance = "ubus.object.add"; // the daemon's event
constexpr size_t listeners_max = 64;                  // of one record

using listener = vela_ubus_listener;

listener &owner(ubus_object *object)
{
    return *reinterpret_cast<listener *>(reinterpret_cast<char *>(object) - offsetof(listener, bus.obj));
}

/// Whether it hears all that it is there for.
bool complete(const listener &l) { return l.bus.obj.id != 0 && (!l.subscribed || l.target != 0); }

void tell_gap(listener &l)
{
    l.gap = false;
    l.each(l.record, "", nullptr, l.arg); // it may end here
}

// ---- at the daemon

int subscribe_to(listener &l, uint32_t id, const deadline &until)
{
    ubus_record &record = *l.record;
    int result = vela::may_request(record, until);
    if (result == 0) result = vela::request_error(record, ubus_subscribe(record.ctx, &l.bus, id));
    if (result == 0) l.target = id;
    return result == -ENOENT ? 0 : result; // gone again: its next appearance will be heard
}

int register_pattern(listener &l, const deadline &until)
{
    ubus_record &record = *l.record;
    blob_buf message = {};
    const bool built = blob_buf_init(&message, 0) == 0 && blobmsg_add_u32(&message, "object", l.bus.obj.id) == 0 &&
                       blobmsg_add_string(&message, "pattern", l.subscribed ? appearance : l.name) == 0;
    const int left_ms = until.left_ms();
    int result = built ? -ETIMEDOUT : -ENOMEM;
    if (built && left_ms > 0) {
        result = vela::request_error(
            record, ubus_invoke(record.ctx, vela::bus_events, "register", message.head, nullptr, nullptr, left_ms));
    }
    blob_buf_free(&message);
    return result;
}

/// Makes the daemon forget a listener, and the bus library in any case.
void unregister(listener &l, const deadline &until)
{
    ubus_record &record = *l.record;
    if (l.bus.obj.id == 0) return;
    if (vela::may_request(record, until) == 0) {
        (void)ubus_unregister_subscriber(record.ctx, &l.bus); // without an answer it goes with the connection
    }
    vela::forget_object(record.ctx, l.bus.obj);
    l.target = 0;
}

/// Makes a listener known to the daemon. An object that is not there is no failure.
int enlist(listener &l, const deadline &until)
{
    ubus_record &record = *l.record;
    const vela::pipe_signal_blocked quiet;
    int result = vela::may_request(record, until);
    if (result == 0) result = vela::request_error(record, ubus_register_subscriber(record.ctx, &l.bus));
    if (result == 0) result = register_pattern(l, until);
    uint32_t id = 0;
    if (result == 0 && l.subscribed) {
        result = vela::look_up(record, l.name, id, until);
        if (result == 0) result = subscribe_to(l, id, until);
        if (result == -ENOENT) result = 0;
    }
    if (result < 0) unregister(l, until);
    return result;
}

// ---- what is heard

/// The id of the object that appeared, if it is the one that the listener waits for; else 0.
uint32_t appeared(const listener &l, const json_t *data)
{
    const char *const path = json_string_value(json_object_get(data, "path"));
    const auto id = static_cast<uint32_t>(json_integer_value(json_object_get(data, "id")));
    return path && std::string_view{path} == l.name ? id : 0;
}

int on_message(ubus_context * /*ctx*/, ubus_object *object, ubus_request_data *request, const char *name,
               blob_attr *message)
{
    listener &l = owner(object);
    if (l.record->closed) return UBUS_STATUS_OK;
    const json_ref data{json_object()};
    if (!data || vela::read_json(data.get(), message) < 0) return UBUS_STATUS_INVALID_ARGUMENT;
    constexpr uint32_t daemon = 0; // events come from it, notifications from their objects' owners
    if (!l.subscribed || request->peer != daemon) {
        l.each(l.record, name, data.get(), l.arg); // it may end here
        return UBUS_STATUS_OK;
    }
    const uint32_t id = appeared(l, data.get());
    if (id == 0 || id == l.target) return UBUS_STATUS_OK;
    l.target = 0;
    (void)subscribe_to(l, id, deadline::after_ms(vela::bus_answer_ms)); // a lost connection is told by itself
    if (l.target != 0) tell_gap(l);
    return UBUS_STATUS_OK;
}

// ---- their list

/// Allocates a listener behind the others of its record; null with errno.
listener *make(ubus_record &record, const char *name, bool subscribed, vela_ubus_event_callback each, void *arg)
{
    size_t count = 0;
    listener **place = &record.listeners;
    for (; *place; place = &(*place)->next) ++count;
    if (count >= listeners_max) {
        errno = ENOSPC;
        return nullptr;
    }
    const size_t size = strlen(name) + 1;
    auto *const l = static_cast<listener *>(calloc(1, sizeof(listener) + size));
    if (!l) return nullptr;
    l->bus.cb = on_message;
    l->record = &record;
    l->each = each;
    l->arg = arg;
    l->subscribed = subscribed;
    memcpy(l->name, name, size);
    return *place = l;
}

void remove(listener &l)
{
    listener **place = &l.record->listeners;
    while (*place != &l) place = &(*place)->next;
    *place = l.next;
    free(&l);
}

listener *listen(vela_ubus_interface_t *iface, const char *name, bool subscribed, vela_ubus_event_callback each,
                 void *arg)
{
    if (!iface || !name || *name == '\0' || !each) {
        errno = EINVAL;
        return nullptr;
    }
    ubus_record &record = vela::inside(*iface);
    const vela::ubus_call here;
    listener *const l = make(record, name, subscribed, each, arg);
    if (!l) return nullptr;
    const int result = vela::connected(record) ? enlist(*l, deadline::after_ms(vela::bus_answer_ms)) : -ENOTCONN;
    vela::deliver_later(record);
    if (result == 0 || result == -ENOTCONN) {
        l->gap = !complete(*l); // there is a first time to be told of
        return l;
    }
    remove(*l);
    errno = -result;
    return nullptr;
}

} // namespace

bool vela::restore_listeners(ubus_record &record, const deadline &until)
{
    for (listener *l = record.listeners; l; l = l->next) {
        if (l->bus.obj.id != 0) continue;
        l->gap = true;
        const int result = enlist(*l, until);
        if (result == -ETIMEDOUT || result == -ENOTCONN) return false;
        if (result < 0) log_warn("the bus refuses to tell of \"%s\": %s", l->name, vela_ubus_error_text(result));
    }
    return true;
}

void vela::tell_gaps(ubus_record &record)
{
    // From the beginning each time: a callback may change the list.
    for (listener *l = record.listeners; l && !record.closed;) {
        if (!l->gap || !complete(*l)) {
            l = l->next;
            continue;
        }
        tell_gap(*l);
        l = record.listeners;
    }
}

void vela::forget_listeners(ubus_record &record)
{
    for (listener *l = record.listeners; l; l = l->next) {
        forget_object(record.ctx, l->bus.obj);
        l->target = 0;
    }
}

void vela::free_listeners(ubus_record &record)
{
    while (record.listeners) remove(*record.listeners);
}

vela_ubus_listener *vela_ubus_listen(vela_ubus_interface_t *iface, const char *pattern, vela_ubus_event_callback each,
                                     void *arg)
{
    return listen(iface, pattern, false, each, arg);
}

vela_ubus_listener *vela_ubus_subscribe(vela_ubus_interface_t *iface, const char *object, vela_ubus_event_callback each,
                                        void *arg)
{
    return listen(iface, object, true, each, arg);
}

void vela_ubus_unlisten(vela_ubus_listener *listener)
{
    if (!listener) return;
    ubus_record &record = *listener->record;
    const vela::ubus_call here;
    {
        const vela::pipe_signal_blocked quiet;
        unregister(*listener, deadline::after_ms(vela::bus_answer_ms));
    }
    remove(*listener);
    vela::deliver_later(record);
}
