/* Interfaces, and behind which port of a bridge an address is: ./example-netif [BRIDGE MAC] */
#include <stdio.h>
#include <string.h>
#include <vela/core/util.h>
#include <vela/net/bridge.h>
#include <vela/net/netif.h>

static int print(const vela_netif *netif, void *arg)
{
    (void)arg;
    printf("%-15s %s", netif->name, netif->operstate == 6 ? "up" : "down");
    if (netif->speed_mbps != UINT32_MAX) printf(", %u Mbit/s", netif->speed_mbps);
    printf(", %u addresses\n", netif->address_count);
    return 0;
}

struct search {
    uint8_t mac[6];
    vela_fdb_entry found; /* a copy: the callback's record is valid only while it runs */
    int done;
};

static int compare(const vela_fdb_entry *entry, void *arg)
{
    struct search *search = arg;
    search->done = memcmp(entry->mac, search->mac, sizeof search->mac) == 0;
    if (search->done) search->found = *entry;
    return search->done; /* stop at the first */
}

int main(int argc, char **argv)
{
    int result = vela_netif_foreach(print, NULL);
    if (result < 0) fprintf(stderr, "interfaces: %s\n", strerror(-result));
    if (argc < 3) return result < 0;

    struct search search = {{0}, {{0}, 0, 0, "", 0, 0, 0}, 0};
    if (strtomac(argv[2], search.mac) != 0) return 2;
    result = vela_fdb_foreach(argv[1], compare, &search);
    if (search.done)
        printf("behind %s\n", search.found.port_name);
    else if (result < 0)
        fprintf(stderr, "%s: %s\n", argv[1], strerror(-result));
    else
        puts("not known at this moment");
    return !search.done;
}
