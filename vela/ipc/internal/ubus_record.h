// What the sources of the bus client share: the record as the library sees it, and the steps that several of them take.
#pragma once

#include <libubus.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/wait.h>
#include <vela/ipc/ubus.h>

namespace vela
{

constexpr int bus_answer_ms = 3000; // for the daemon to greet, and for requests that have no limit of their caller's

struct ubus_record : vela_ubus_interface_t {
    c_string object;                           ///< what vela_ubus_find_object() found last; null: the service
    vela_ubus_callback on_reconnect = nullptr; ///< by vela_ubus_set_reconnect_cb()
    vela_ubus_listener *listeners = nullptr;   ///< ubus-listen.cpp
    unique_fd greeting;                        ///< a connection on which the daemon's greeting is awaited
    event *greeting_event = nullptr;
    bool closed = false; ///< released when the calls under way have returned
};

inline ubus_record &inside(vela_ubus_interface_t &iface) { return static_cast<ubus_record &>(iface); }

/// While one lives, no record goes away, closed or not: callbacks of the program's may close any.
class ubus_call
{
public:
    ubus_call();
    ubus_call(const ubus_call &) = delete;
    ubus_call &operator=(const ubus_call &) = delete;
    ~ubus_call();
};

/// Whether there is a connection to send on.
bool connected(const ubus_record &record);

/// To be called before requests other than ubus_invoke(), which end by `until` then. 0; -ENOTCONN; -ETIMEDOUT when the
/// daemon is silent.
int may_request(const ubus_record &record, const deadline &until);

/// A status of the bus as a negative errno, 0 for success.
int bus_error(int status);

/// The outcome of a request to the bus library: as bus_error(), but -ENOTCONN where the connection failed.
int request_error(const ubus_record &record, int status);

/// Finds an object's id, `id` being written on success only. 0 or a negative errno: -ENOENT where there is none, or
/// none that this process may see.
int look_up(ubus_record &record, const char *name, uint32_t &id, const deadline &until);

/// To be called after requests: what arrived meanwhile and was kept is handled when the event loop runs next.
void deliver_later(ubus_record &record);

/// Makes the listeners known to the daemon that do not know it yet. False when it stops answering.
bool restore_listeners(ubus_record &record, const deadline &until);

/// Tells the listeners that have been deaf since they heard last. They may close the record.
void tell_gaps(ubus_record &record);

/// Forgets what a daemon that is gone knew of the listeners.
void forget_listeners(ubus_record &record);

void free_listeners(ubus_record &record);

} // namespace vela
