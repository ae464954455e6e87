/*
 * Calls a method, then hears events until Ctrl-C: ./example-bus OBJECT METHOD [JSON]
 *
 * Stop and start the bus while it runs: the listener says that there was a gap, and hears again.
 */
#include <event2/event.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <vela/ipc/ubus.h>

static void print_json(const char *title, const json_t *value)
{
    char *text = value ? json_dumps(value, JSON_COMPACT) : NULL;
    printf("%s %s\n", title, text ? text : "");
    fflush(stdout);
    free(text); /* json_dumps() gives it away */
}

/* A name of "" tells of a gap: whatever was learnt by listening has to be asked for again. */
static void on_event(vela_ubus_interface_t *bus, const char *name, const json_t *data, void *arg)
{
    (void)bus;
    (void)arg;
    print_json(*name ? name : "(there was a gap)", data);
}

/* Every later connection; the first one is what vela_ubus_create() made. */
static void on_reconnect(vela_ubus_interface_t *bus)
{
    (void)bus;
    puts("connected again");
}

static void stop(evutil_socket_t signal_number, short what, void *base)
{
    (void)signal_number;
    (void)what;
    event_base_loopbreak(base);
}

int main(int argc, char **argv)
{
    struct event_base *base = event_base_new();
    struct event *interrupt = base ? evsignal_new(base, SIGINT, stop, base) : NULL;
    json_t *args = argc > 3 ? json_loads(argv[3], 0, NULL) : NULL;
    json_t *answer = NULL;
    int result;

    if (argc < 3 || !interrupt || event_add(interrupt, NULL) < 0 || (argc > 3 && !args)) {
        fprintf(stderr, "usage: %s OBJECT METHOD [JSON]\n", argv[0]);
        return 2;
    }
    vela_ubus_init();
    vela_ubus_interface_t *bus = vela_ubus_create(base, "/var/run/ubus/ubus.sock", argv[1], 0, NULL, NULL);
    if (!bus) {
        fputs("there is no bus\n", stderr);
        return 1;
    }
    result = vela_ubus_call(bus, argv[2], args, &answer, 3000); /* waits; 3 s at most */
    if (result == 0) {
        print_json("answer:", answer);
    } else {
        printf("%s %s: %s\n", argv[1], argv[2], vela_ubus_error_text(result));
    }
    json_decref(answer);
    json_decref(args);

    vela_ubus_set_reconnect_cb(bus, on_reconnect);
    if (vela_ubus_listen(bus, "*", on_event, NULL)) event_base_dispatch(base);

    vela_ubus_shutdown(); /* before the event base: the records' events live there */
    event_free(interrupt);
    event_base_free(base);
    return 0;
}
