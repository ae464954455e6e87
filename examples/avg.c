/* Signal levels of a station, averaged without those that lie far off. */
#include <inttypes.h>
#include <stdio.h>
#include <vela/core/avg.h>

int main(void)
{
    int64_t rssi_dbm[] = {-61, -60, -62, -61, -59, -60, -61, -20, -60, -61, -62, -60};
    uint32_t count = sizeof rssi_dbm / sizeof rssi_dbm[0];
    int64_t average;
    if (vela_remove_outliers(rssi_dbm, &average, &count) != 0) return 1;
    printf("all: %" PRId64 " dBm; without outliers: %" PRId64 " dBm of %" PRIu32 " samples\n", average,
           vela_avg_array(rssi_dbm, count), count);

    vela_avg airtime = {0, 0, 0};
    vela_avg_inc_weighted(&airtime, 30, 10); /* 30 per cent for ten seconds */
    vela_avg_inc_weighted(&airtime, 90, 2);
    vela_avg_compute(&airtime, 0);
    printf("airtime: %" PRId64 " %%\n", airtime.avg);
    return 0;
}
