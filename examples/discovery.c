/* A member of the site's multicast group that prints what it hears: /var/run/vela_protocol.info gives key and group. */
#include <event2/event.h>
#include <stdio.h>
#include <vela/discovery/protocol.h>

static void on_announcement(const vela_packet *pkt, const uint8_t *payload, uint32_t method)
{
    const uint8_t *id = pkt->device_id;
    printf("%02x:%02x:%02x:%02x:%02x:%02x method %u: %.*s\n", id[0], id[1], id[2], id[3], id[4], id[5], method,
           (int)pkt->length, (const char *)payload);
}

int main(void)
{
    static const vela_handler_entry handlers[] = {{on_announcement, 1}, {on_announcement, 2}, {NULL, 0}};
    struct event_base *base = event_base_new();
    if (!base || vela_protocol_init(1) != 0) return 1; /* the log says why */

    vela_protocol_ctrl.tx_seq = 1;
    vela_protocol_send("here I am", 9, 1, 0, 1);
    if (vela_protocol_init_recv(base, handlers) == 0) event_base_dispatch(base);

    vela_protocol_deinit();
    event_base_free(base);
    return 0;
}
