/* The power to set on 5 GHz channel 36 in country 840 for the level "medium"; needs the tool vela-regdomain. */
#include <stdio.h>
#include <vela/wireless/regulatory.h>

int main(void)
{
    unsigned target, max;
    if (vl_regulatory_get_target_power(NULL, "medium", 840, 0, 3, 36, 5, 23, 6, &target, &max, 0, 0) != 0) {
        fputs("channel 36 is not allowed\n", stderr);
        return 1;
    }
    printf("set %u dBm of %u dBm; restricted modes 0x%x\n", target, max, vl_regulatory_get_restricted_modes(840));
    return 0;
}
