/* The neighbours on the wire, as JSON, and what a report says of the one on the main port. Needs lldpcli. */
#include <stdio.h>
#include <vela/services/lldp.h>

int main(void)
{
    char main_neighbour[128], uplink_neighbour[128], oui[7] = "";
    bool wireless_uplink;
    json_t *neighbours = vela_get_lldp_json(); /* may take ten seconds: not for an event loop's thread */
    if (!neighbours) {
        fputs("the LLDP client gives no answer\n", stderr);
        return 1;
    }
    json_dumpf(neighbours, stdout, JSON_INDENT(2));
    putchar('\n');
    json_decref(neighbours);

    if (vela_get_lldp_report(main_neighbour, sizeof main_neighbour, oui, sizeof oui, &wireless_uplink, uplink_neighbour,
                             sizeof uplink_neighbour) == 0) {
        printf("main port: \"%s\" %s\n", main_neighbour, oui);
        if (wireless_uplink) printf("uplink: \"%s\"\n", uplink_neighbour);
    }
    return 0;
}
