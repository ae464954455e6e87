// What tests of the bus client start from: a bus daemon that offers "vt" and "vu", an event loop, records. Nothing may
// be left after a test.
#pragma once

#include "site/bus_daemon.h"
#include "tests/support/leaks.h"

#include <chrono>
#include <event2/event.h>
#include <gmock/gmock.h>
#include <jansson.h>
#include <libubus.h>
#include <vela/ipc/ubus.h>

class bus_test : public testing::Test
{
protected:
    static constexpr const char *path = "/tmp/bus.sock";
    using clock = std::chrono::steady_clock;
    using iface_ptr = vela_ubus_interface_t *;

#ifndef LIBUBUS_STAND_IN
    ubus_context *const never = ubus_connect("/nowhere"); // libubox opens descriptors for the life of the process
#endif
    leak_check leaks;
    std::optional<site::bus_daemon> daemon{path}; // yet to be started
    event_base *const base = event_base_new();

    void SetUp() override { EXPECT_EQ(0, vela_ubus_init()); }
    void TearDown() override
    {
        vela_ubus_shutdown();
        EXPECT_EQ(0, event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED));
        event_base_free(base);
        EXPECT_EQ("", daemon->complaint());
        daemon.reset();
        leaks.expect_unchanged();
    }

    [[nodiscard]] iface_ptr open(uint32_t flags = 0, vela_ubus_callback on_connect = nullptr,
                                 vela_ubus_callback on_close = nullptr) const
    {
        return vela_ubus_create(base, path, "vt", flags, on_connect, on_close);
    }
    template <class Condition> bool runs_until(Condition condition, int ms = 5000) const
    {
        for (const auto end = clock::now() + std::chrono::milliseconds(ms); !condition() && clock::now() < end;) {
            event_base_loop(base, EVLOOP_NONBLOCK);
            usleep(500);
        }
        return condition();
    }
    /// Another daemon in place of the one before, and the record connected with it.
    void restart(iface_ptr iface)
    {
        daemon->start();
        ASSERT_TRUE(runs_until([&] { return iface->timer; }));
        ASSERT_TRUE(runs_until([&] { return !iface->timer; }));
    }
    template <class Body> static double seconds(Body body)
    {
        const auto begin = clock::now();
        body();
        return std::chrono::duration<double>(clock::now() - begin).count();
    }
};

struct drop_reference {
    void operator()(json_t *value) const { json_decref(value); }
};
using json = std::unique_ptr<json_t, drop_reference>;

/// JSON as text; "-" for none.
inline std::string text_of(const json_t *value)
{
    char *const dumped = value ? json_dumps(value, JSON_COMPACT) : nullptr;
    std::string result = dumped ? dumped : "-";
    free(dumped);
    return result;
}
