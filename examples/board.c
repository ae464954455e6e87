/* What the device is: ./example-board, or ./example-board 42651 for another model of the table. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <vela/board/board.h>

static void print_board(const board_record *board)
{
    unsigned group = 0, port = 0;
    const phy_port *p;

    printf("%s (%s), system id %u, revision %d, %u radios\n", board->model_name, board->short_code, board->system_id,
           (int)board->board_revision, board->radio_count);
    while ((p = board_get_next_phy(board, &group, &port)) != NULL) {
        printf("  port %u: %s, %s%s\n", p->port_id, p->label ? p->label : "no label", board_get_phy_port_media(p),
               p->flags & PHY_PORT_WAN_ROLE ? ", uplink" : "");
    }
    if (board_requires_afc_for_6g(board)) printf("  6 GHz at standard power needs AFC\n");
}

int main(int argc, char **argv)
{
    if (argc > 1) {
        const uint16_t sysid = (uint16_t)strtoul(argv[1], NULL, 0);
        const board_record *row = corvo_get_board(sysid, UINT8_MAX); /* a row belongs to the library */
        const device_record *device = device_identify_by_sysid(sysid);
        if (row) {
            print_board(row);
        } else {
            printf("%s\n", device ? device->name : "no such device");
        }
        return 0;
    }

    const board_record *board = board_identify(); /* identified once, kept by the library */
    if (strcmp(board->model_name, "Unknown") == 0) {
        fprintf(stderr, "this is not a device of the table\n");
        return 1;
    }
    print_board(board);
    printf("  PoE outputs may draw %d W\n", board_get_poe_budget());
    return 0;
}
