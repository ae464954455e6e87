/*
 * Which 80 MHz channel of the 5 GHz band to use next: ./example-channels wlan0 (as root, after a scan)
 *
 * Gathers what the radio may do, what it counted and whom it heard, and ranks the channels.
 */
#include <event2/event.h>
#include <linux/nl80211.h>
#include <stdio.h>
#include <vela/wireless/acs.h>

#define CHANNELS_MAX 256

struct radio {
    vela_channel channels[CHANNELS_MAX];
    size_t channel_count;
    vela_airtime airtimes[CHANNELS_MAX];
    size_t airtime_count;
};

static int add_channel(const vela_channel *channel, void *arg)
{
    struct radio *radio = arg;
    radio->channels[radio->channel_count++] = *channel; /* there are never more than 256 */
    return 0;
}

static int add_airtime(const vela_survey *survey, void *arg)
{
    struct radio *radio = arg;
    if (radio->airtime_count == CHANNELS_MAX) return 1;
    if (vela_survey_airtime(NULL, survey, &radio->airtimes[radio->airtime_count]) == 0) ++radio->airtime_count;
    return 0;
}

int main(int argc, char **argv)
{
    const char *ifname = argc > 1 ? argv[1] : "wlan0";
    static struct radio radio;
    vela_acs_options options = {.band = NL80211_BAND_5GHZ, .width_mhz = 80, .allow_indoor = 1, .hysteresis = 50};
    vela_acs_candidate candidates[64];
    struct event_base *base = event_base_new();
    vl_nl80211_service service = {0};
    scan_list *heard;
    uint32_t freq, i;
    int count;

    if (!base || vl_nl80211_service_init(&service, base) != 0) return 1;
    if (vela_channel_foreach(&service, ifname, add_channel, &radio) < 0) return 1;
    vela_survey_foreach(&service, ifname, add_airtime, &radio); /* not every driver has one */
    if (vl_nl80211_interface_info(&service, ifname, NULL, NULL, &freq, NULL, NULL) == 0 && freq != UINT32_MAX) {
        options.current_mhz = freq;
    }
    heard = get_scanlist(ifname);

    count = vela_acs_rank(radio.channels, radio.channel_count, radio.airtimes, radio.airtime_count, heard, &options,
                          candidates, 64);
    for (i = 0; count > 0 && i < (uint32_t)count; ++i) {
        const vela_acs_candidate *c = &candidates[i];
        if (c->verdict == VELA_ACS_REFUSED) {
            printf("%4u MHz refused, reasons %#x\n", c->primary_mhz, c->refused);
        } else {
            printf("%4u MHz costs %u, %u of it for others' use%s\n", c->primary_mhz, c->cost, c->occupancy,
                   c->verdict == VELA_ACS_KEPT ? " (today's)" : "");
        }
    }
    free_scanlist(heard);
    vl_nl80211_service_deinit(&service);
    event_base_free(base);
    return 0;
}
