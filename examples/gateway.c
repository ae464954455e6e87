/* Which wired port leads to the internet: ./example-gateway [BRIDGE] */
#include <stdio.h>
#include <vela/net/bridge.h>
#include <vela/net/gateway.h>

#define PORTS_MAX 32

int main(int argc, char **argv)
{
    const char *bridge = argc > 1 ? argv[1] : "br0";
    char ip[16], device[16], port[16], text[18], candidates[PORTS_MAX][16];
    uint32_t address; /* network order */
    uint8_t mac[6];

    if (gateway_get_ip(ip, &address, sizeof ip) != 0) {
        fputs("no default route\n", stderr);
        return 1;
    }
    printf("gateway %s", ip);
    if (gateway_get_mac(ip, mac) == 0 && gateway_mac_to_str(mac, text, sizeof text) == 0) printf(", %s", text);
    if (get_uplink_device(device, sizeof device) == 0) printf(", behind %s", device);
    putchar('\n');

    /* Of the board's Ethernet ports, the one with link behind which the gateway was seen. */
    const int count = gateway_enum_eth_all(board_identify(), candidates, PORTS_MAX);
    if (gateway_detect_uplink(bridge, candidates, count, port, sizeof port) != 0) {
        printf("none of %d ports leads to it\n", count);
        return 1;
    }
    printf("uplink port %s, link %s\n", port, get_ethtool_link_status(port) == 1 ? "up" : "unknown");
    return 0;
}
