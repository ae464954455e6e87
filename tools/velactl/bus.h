// The system bus, for as long as a command runs.
#pragma once

#include "command.h"

#include <event2/event.h>
#include <vela/ipc/ubus.h>

namespace velactl
{

class bus_connection
{
public:
    bus_connection()
    {
        vela_ubus_init();
        record_ =
            base_ ? vela_ubus_create(base_.get(), VELA_UBUS_PATH, "", VELA_UBUS_NO_LOOKUP, nullptr, nullptr) : nullptr;
    }
    bus_connection(const bus_connection &) = delete;
    bus_connection &operator=(const bus_connection &) = delete;
    ~bus_connection() { vela_ubus_shutdown(); }

    /// Null where there is no bus.
    [[nodiscard]] vela_ubus_interface_t *get() const { return record_; }
    [[nodiscard]] event_base *base() const { return base_.get(); }

private:
    struct drop_base {
        void operator()(event_base *base) const { event_base_free(base); }
    };
    std::unique_ptr<event_base, drop_base> base_{event_base_new()};
    vela_ubus_interface_t *record_;
};

} // namespace velactl
