/*
 * Who is connected, and how well: ./example-stations wlan0 (as root, Ctrl-C ends it)
 *
 * Reads the stations of an access point every five seconds and scores each from what happened in between.
 */
#include <event2/event.h>
#include <stdio.h>
#include <string.h>
#include <vela/wireless/station.h>

#define STATIONS_MAX 256

struct poll {
    vela_sta_info stations[STATIONS_MAX];
    int count;
};

/* Two polls: the one before, and the one that is being made. */
static struct poll polls[2];
static int now;

static int remember(const vela_sta_info *info, void *arg)
{
    struct poll *poll = arg;
    if (poll->count == STATIONS_MAX) return 1;
    poll->stations[poll->count++] = *info; /* nothing in it is borrowed */
    return 0;
}

static const vela_sta_info *find(const struct poll *poll, const uint8_t *mac)
{
    int i;
    for (i = 0; i < poll->count; ++i) {
        if (memcmp(poll->stations[i].mac, mac, 6) == 0) return &poll->stations[i];
    }
    return NULL;
}

static void show(const vela_sta_info *info)
{
    vela_station station;

    vela_station_clear(&station); /* then a daemon adds what it knows: addresses, DNS, DHCP, ... */
    vela_sta_fill(find(&polls[!now], info->mac), info, &station);
    calc_sta_satisfaction(&station);
    printf("%02x:%02x:%02x:%02x:%02x:%02x", info->mac[0], info->mac[1], info->mac[2], info->mac[3], info->mac[4],
           info->mac[5]);
    if (info->signal_dbm != INT32_MIN) printf(" %4d dBm", info->signal_dbm);
    if (info->tx.kbps != UINT32_MAX) printf(" %7.1f Mbit/s", info->tx.kbps / 1000.0);
    printf(" satisfaction %d\n", station.satisfaction);
}

int main(int argc, char **argv)
{
    const char *ifname = argc > 1 ? argv[1] : "wlan0";
    struct event_base *base = event_base_new();
    vl_nl80211_service service = {0};
    const struct timeval pause = {5, 0};
    int i;

    if (!base || vl_nl80211_service_init(&service, base) != 0) return 1;
    for (;;) {
        const int result = vela_sta_foreach(&service, ifname, remember, &polls[now]);
        if (result < 0) {
            fprintf(stderr, "%s: %s\n", ifname, strerror(-result));
            break;
        }
        for (i = 0; i < polls[now].count; ++i) show(&polls[now].stations[i]);
        event_base_loopexit(base, &pause);
        event_base_dispatch(base); /* events of the radios arrive meanwhile: see nl80211.c */
        now = !now;
        polls[now].count = 0;
    }
    vl_nl80211_service_deinit(&service);
    event_base_free(base);
    return 1;
}
