/* Scanning: asks a radio to look around, waits, and prints what it heard. ./example-scan wlan0 (as root) */
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <vela/wireless/scan.h>

int main(int argc, char **argv)
{
    const char *ifname = argc > 1 ? argv[1] : "wlan0";
    const uint32_t freqs[] = {2412, 2437, 2462, 5180, 5745};
    const scan_entry *e;
    scan_list *list;
    int result;

    if (hostapd_or_provision_busy()) {
        fputs("the radios are being set up, try later\n", stderr);
        return 1;
    }
    result = vela_scan_request_freqs(ifname, NULL, freqs, sizeof freqs / sizeof freqs[0]);
    if (result != 0) {
        fprintf(stderr, "%s: %s\n", ifname, strerror(-result));
        return 1;
    }
    sleep(3); /* a daemon waits for NL80211_CMD_NEW_SCAN_RESULTS instead: see nl80211.c */

    list = get_scanlist(ifname);
    if (!list) return 1;
    for (e = list->first; e != (const scan_entry *)list; e = e->next) {
        printf("%02x:%02x:%02x:%02x:%02x:%02x %4u MHz %4d dBm %s%s\n", e->bssid[0], e->bssid[1], e->bssid[2],
               e->bssid[3], e->bssid[4], e->bssid[5], e->freq, e->rssi - 96, e->essid,
               e->mesh[0] && e->mesh[1] && e->mesh[2] && e->mesh[3] ? " (mesh)" : "");
    }
    free_scanlist(list);
    return 0;
}
