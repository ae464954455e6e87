/*
 * Wireless events and requests from a daemon: ./example-nl80211 wlan0 (as root, Ctrl-C ends it)
 *
 * Prints what the driver reports of the interface, then one line per finished scan.
 */
#include <event2/event.h>
#include <linux/nl80211.h>
#include <net/if.h>
#include <netlink/attr.h>
#include <signal.h>
#include <stdio.h>
#include <vela/wireless/nl80211.h>

static int on_scan_results(vl_nl80211_service *service, struct nlattr **attributes, uint8_t command)
{
    char name[IF_NAMESIZE] = "?";
    struct nlattr *index = attributes[NL80211_ATTR_IFINDEX];

    (void)service;
    (void)command;
    if (index && nla_len(index) >= 4) if_indextoname(nla_get_u32(index), name);
    printf("%s: scan finished\n", name);
    fflush(stdout);
    return 0;
}

static void on_signal(evutil_socket_t number, short events, void *base)
{
    (void)number;
    (void)events;
    event_base_loopbreak(base);
}

int main(int argc, char **argv)
{
    const char *ifname = argc > 1 ? argv[1] : "wlan0";
    struct event_base *base = event_base_new();
    vl_nl80211_service service = {0};
    struct event *interrupt;
    uint32_t wiphy, freq, width, power;

    if (!base || vl_nl80211_service_init(&service, base) != 0) return 1;
    if (vl_nl80211_interface_info(&service, ifname, &wiphy, NULL, &freq, &width, &power) == 0) {
        printf("%s: wiphy %u", ifname, wiphy);
        if (freq != UINT32_MAX) printf(", %u MHz, %u MHz wide", freq, width);
        if (power != UINT32_MAX) printf(", %.2f dBm", (int32_t)power / 100.0);
        putchar('\n');
    }

    vl_nl80211_register_command_callback(&service, NL80211_CMD_NEW_SCAN_RESULTS, on_scan_results);
    interrupt = evsignal_new(base, SIGINT, on_signal, base);
    event_add(interrupt, NULL);
    event_base_dispatch(base);

    vl_nl80211_service_deinit(&service);
    event_free(interrupt);
    event_base_free(base);
    return 0;
}
