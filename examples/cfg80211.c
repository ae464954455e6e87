/* Vendor commands: the stations of an interface, then one driver parameter. ./example-cfg80211 wlan0 676 (as root) */
#include <stdio.h>
#include <stdlib.h>
#include <vela/wireless/cfg80211.h>

#define STATION_LIST 476

int main(int argc, char **argv)
{
    const char *ifname = argc > 1 ? argv[1] : "wlan0";
    const int param = argc > 2 ? atoi(argv[2]) : 676;
    uint8_t stations[3072];
    int32_t value;
    vl_cfg80211_context context;
    int bytes, i;

    /* Several commands share a context ... */
    if (vl_cfg80211_init(&context) != 0) return 1;
    bytes = vl_cfg80211_send_generic_set_command_ctx(&context, ifname, stations, sizeof stations, NULL, STATION_LIST);
    vl_cfg80211_deinit(&context);
    for (i = 0; i + 6 <= bytes; i += 6) {
        printf("station %02x:%02x:%02x:%02x:%02x:%02x\n", stations[i], stations[i + 1], stations[i + 2],
               stations[i + 3], stations[i + 4], stations[i + 5]);
    }

    /* ... a single one makes its own. */
    if (vl_cfg80211_get_wifi_param_int(ifname, param, &value) != 0) {
        fprintf(stderr, "%s: no parameter %d\n", ifname, param);
        return 1;
    }
    printf("parameter %d: %d\n", param, value);
    return 0;
}
