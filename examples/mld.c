/* What the kernel and the configuration say about an interface: ./example-mld ath0 */
#include <stdio.h>
#include <vela/wireless/mld.h>

int main(int argc, char **argv)
{
    const char *ifname = argc > 1 ? argv[1] : "ath0";
    char mld[16];
    cfg_entry *config = parse("/tmp/system.cfg");

    printf("%s is %s, VLAN %d\n", ifname, vela_if_is_up(ifname) ? "up" : "down", get_mld_vlan_id(ifname));
    if (get_iface_upper_mld_ifname(ifname, mld, sizeof mld) == 0) printf("a link of %s\n", mld);

    const char *configured = get_mld_iface_cfg(config, ifname);
    printf("configured for %s\n", configured ? configured : "no multi-link device");
    free_cfg(config);
    return 0;
}
