/*
 * A daemon that keeps a place on the system bus: ./example-ubus [object [socket]]
 * Stop and start the bus while it runs; LIBVELA_VERBOSITY=debug LIBVELA_FACILITIES=stderr shows what happens.
 */
#include <event2/event.h>
#include <signal.h>
#include <stdio.h>
#include <vela/ipc/ubus.h>

/* After the first connection. vela_ubus_set_reconnect_cb() tells of later ones. */
static void connected(vela_ubus_interface_t *iface)
{
    if (iface->id == 0) {
        printf("%s: nobody offers it yet\n", iface->service);
    } else {
        printf("%s is object %08x\n", iface->service, iface->id);
        /* Its methods are called with vela_ubus_call(iface, "method", ...). */
    }
    fflush(stdout);
}

static void closing(vela_ubus_interface_t *iface) { printf("%s: closing\n", iface->service); }

static void stop(evutil_socket_t signal_number, short what, void *base)
{
    (void)signal_number;
    (void)what;
    event_base_loopbreak(base);
}

int main(int argc, char **argv)
{
    const char *service = argc > 1 ? argv[1] : "network";
    const char *path = argc > 2 ? argv[2] : "/var/run/ubus/ubus.sock";
    struct event_base *base = event_base_new();
    struct event *interrupt = base ? evsignal_new(base, SIGINT, stop, base) : NULL;
    if (!interrupt || event_add(interrupt, NULL) < 0) return 1;

    vela_ubus_init();
    /* With KEEP_TRYING there is a record even while there is no bus. */
    if (!vela_ubus_create(base, path, service, VELA_UBUS_KEEP_TRYING, connected, closing)) return 1;
    event_base_dispatch(base);

    vela_ubus_shutdown(); /* before the event base: the records' events live there */
    event_free(interrupt);
    event_base_free(base);
    return 0;
}
