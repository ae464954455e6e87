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

int main(int argc, char **argv)
{
    int result = vela_netif_foreach(print, NULL);
    if (result < 0) fprintf(stderr, "interfaces: %s\n", strerror(-result));
    if (argc < 3) return result < 0;

    uint8_t mac[6];
    vela_fdb_entry entry;
    if (strtomac(argv[2], mac) != 0) return 2;
    result = vela_fdb_find(argv[1], mac, 0, &entry);
    if (result == 0)
        printf("behind %s\n", entry.port_name);
    else
        fprintf(stderr, "%s: %s\n", argv[1], strerror(-result)); /* ENOENT: not known at this moment */
    return result != 0;
}
