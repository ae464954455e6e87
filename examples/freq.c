/* Channels and bands of the frequencies on the command line: ./example-freq 2412 5180 5955 */
#include <stdio.h>
#include <stdlib.h>
#include <vela/wireless/freq.h>

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        const uint32_t mhz = (uint32_t)strtoul(argv[i], NULL, 10);
        printf("%u MHz: channel %u, band %d (%s)\n", mhz, vl_freq_to_channel(mhz), vl_freq_to_band(mhz), get_band(mhz));
    }
    printf("wireless uplink state: %d\n", get_wireless_uplink_state());
    return 0;
}
