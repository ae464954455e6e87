/* What this model can do, asked by family instead of by system id; and a flag kept as a file. */
#include <stdio.h>
#include <vela/board/model.h>

#define FLAG "/tmp/example-maintenance"

int main(void)
{
    static const char *const analytics[] = {"off", "on", "anonymous"};
    cfg_entry *config = parse("/tmp/system.cfg"); /* null, where there is none, is an empty configuration */

    /* All of them are no where the board could not be identified. */
    printf("system id %u%s%s%s%s\n", get_orb_sysId(), is_orb_ap() ? ", access point" : "",
           is_router_ap() ? ", router" : "", is_6ghz_supported() ? ", 6 GHz" : "",
           is_poe_powered() ? ", powered over Ethernet" : "");
    printf("analytics %s, core dumps %s\n", analytics[get_analytics_mode(config)],
           get_analytics_coredump_mode(config) ? "may be uploaded" : "stay here");
    free_cfg(config);

    system_set_xxx(FLAG, 1);
    printf("maintenance: %d\n", system_is_xxx(FLAG, 0));
    system_set_xxx(FLAG, 0); /* outside /proc a flag that is not set is no file */
    printf("maintenance: %d\n", system_is_xxx(FLAG, 0));
    return 0;
}
