/*
 * What the device's daemons tell over the bus, and how an interface came by its address: ./example-services [interface]
 */
#include <event2/event.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <vela/services/dhcp.h>
#include <vela/services/power.h>
#include <vela/services/service_list.h>

static int print_service(const vela_service *service, void *arg)
{
    (void)arg;
    printf("%s%s%s %s\n", service->name, *service->instance ? "/" : "", service->instance,
           service->running == 1 ? service->command : "(does not run)");
    return 0; /* go on */
}

static void print_lease(vela_ubus_interface_t *bus, const char *ifname)
{
    vela_dhcp_lease lease;
    int result = vela_dhcp_get(bus, ifname, &lease);
    if (result != 0) {
        printf("%s: %s\n", ifname, strerror(-result));
    } else if (lease.state != VELA_DHCP_BOUND) {
        printf("%s has no lease\n", ifname);
    } else if (lease.remaining_s == UINT32_MAX) {
        printf("%s has a lease\n", ifname);
    } else {
        printf("%s has a lease for another %u s\n", ifname, lease.remaining_s);
    }
}

int main(int argc, char **argv)
{
    struct event_base *base = event_base_new();
    if (!base) return 1;
    vela_ubus_init();
    vela_ubus_interface_t *bus =
        vela_ubus_create(base, "/var/run/ubus/ubus.sock", "service", VELA_UBUS_NO_LOOKUP, NULL, NULL);

    int count = vela_service_foreach(bus, NULL, print_service, NULL);
    if (count < 0) printf("services: %s\n", vela_ubus_error_text(count));
    print_lease(bus, argc > 1 ? argv[1] : "br0"); /* also without a bus */

    json_t *power = vela_power_json(bus);
    char *text = power ? json_dumps(power, JSON_INDENT(1)) : NULL;
    printf("power: %s\n", text ? text : "no source");
    free(text); /* json_dumps() gives it away */
    json_decref(power);

    vela_ubus_shutdown(); /* before the event base: the record's events live there */
    event_base_free(base);
    return 0;
}
