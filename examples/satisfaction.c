/* Scores a station and prints the chart of its areas. */
#include <stdio.h>
#include <stdlib.h>
#include <vela/wireless/satisfaction.h>

int main(void)
{
    vela_station station = {
        .freq = 5180, .tx_rate = 12000, .radio_health = 90, .has_ip = 1, .arp_ok = 1, .dns_latency = 800};
    station.tcp_stats[0].lat_avg = station.tcp_stats[1].lat_avg = UINT64_MAX; /* no sample */

    calc_sta_satisfaction(&station);
    printf("satisfaction %d, reason 0x%x, anomalies 0x%x\n", station.satisfaction, station.satisfaction_reason,
           station.anomalies);

    json_t *chart = reasons_bar_chart_to_json(station.scores);
    char *text = json_dumps(chart, JSON_INDENT(2));
    puts(text);
    free(text);
    json_decref(chart);
    return 0;
}
