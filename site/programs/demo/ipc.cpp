// A daemon among the others: it asks the management daemon, is watched, and loses and regains the system bus.
#include "scenes.h"
#include "site/bus_daemon.h"
#include "site/mgrd.h"
#include "site/supervisor.h"

#include <chrono>
#include <event2/event.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vela/ipc/ctrl-proto.h>
#include <vela/ipc/ubus.h>
#include <vela/ipc/xwd.h>

namespace
{

using clock_type = std::chrono::steady_clock;

void tell_of_the_watched_daemon(site::story &story)
{
    site::mgrd manager([](const std::string &) { return site::json_answer(R"({"state":"connected","stations":7})"); });
    const auto report = site::supervise(
        [] {
            xwd_start();
            const timeval timeout = {2, 0};
            json_t *reply = service_simple_op("status", &timeout);
            xwd_ping();
            const bool understood = json_integer_value(json_object_get(reply, "stations")) == 7;
            json_decref(reply);
            xwd_end();
            _exit(understood ? 0 : 1);
        },
        std::chrono::milliseconds(3000));
    const auto requests = manager.requests();
    story.check(WIFEXITED(report.status) && WEXITSTATUS(report.status) == 0 && manager.faults().empty(),
                "service_simple_op(\"status\") sent %s and got {\"state\":\"connected\",\"stations\":7}",
                requests.empty() ? "nothing" : requests[0].c_str());
    story.check(report.heard == "SPE" && report.ended_on_purpose && !report.killed,
                "its supervisor heard \"%s\": started, alive, ended on purpose", report.heard.c_str());
}

/// Runs the loop until the record is connected (or not), at most so long; milliseconds it took, -1 if it never was.
long await_connection(event_base *base, const vela_ubus_interface_t *bus, bool connected)
{
    const auto start = clock_type::now();
    while (clock_type::now() - start < std::chrono::seconds(4)) {
        if ((bus->read_event != nullptr) == connected) {
            return std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - start).count();
        }
        const timeval step = {0, 20000};
        event_base_loopexit(base, &step);
        event_base_dispatch(base);
    }
    return -1;
}

void tell_of_the_bus(site::story &story)
{
    site::bus_daemon daemon;
    daemon.offer("mgragent", {{"stats", [](std::string_view) { return site::bus_reply{}; }}});
    daemon.start();
    event_base *base = event_base_new();
    vela_ubus_init();
    vela_ubus_interface_t *bus = vela_ubus_create(base, site::bus::default_path, "mgragent", 0, nullptr, nullptr);
    if (story.check(bus != nullptr && bus->id != 0, "connected to the bus, found the object \"mgragent\"")) {
        const uint32_t old_id = bus->id;
        story.tell("the bus daemon is killed; the library logs:");
        long noticed = 0;
        {
            const site::overheard log;
            daemon.kill();
            noticed = await_connection(base, bus, false);
            story.quote(log.text());
        }
        story.check(noticed >= 0 && noticed < 500, "the loss is noticed after %ld ms", noticed);
        daemon.start();
        const long waited = await_connection(base, bus, true);
        story.check(waited >= 0 && waited < 2000, "a new bus daemon: connected again after %ld ms", waited);
        story.check(vela_ubus_find_service(bus) == 0 && bus->id != old_id, "looked up again, the object has a new id");
    }
    vela_ubus_shutdown();
    event_base_free(base);
    story.check(daemon.complaint().empty(), "the bus has no complaint about its client");
}

} // namespace

void tell_of_local_ipc(site::story &story)
{
    story.scene("A daemon among the others");
    tell_of_the_watched_daemon(story);
    tell_of_the_bus(story);
}
