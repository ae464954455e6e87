/* One round of a mesh node: which uplink interfaces there are, what they hear, which parent and band to use. */
#include <stdio.h>
#include <vela/mesh/vwire.h>

int main(void)
{
    uplink_table uplinks = {.active = -1};
    char wired[16];
    int index5, index6;

    if (uplink_ifname_identify(&uplinks, wired, sizeof wired) != 0) {
        fputs("no wireless interface is configured\n", stderr);
        return 1;
    }
    printf("%d wireless uplinks, wired uplink %s\n", get_uplink_wds_iface_len(&uplinks), wired);

    scan_all_uplink_wds_ifaces(NULL, &uplinks, 0); /* results arrive a few seconds later */
    collect_uplink_wds_iface_scan_records(&uplinks);
    scan_entry *best5 = vwire_select_best_for_band(&uplinks, NULL, 0, "na", NULL, 0, NULL, 0, &index5);
    scan_entry *best6 = vwire_select_best_for_band(&uplinks, NULL, 0, "6e", NULL, 0, NULL, 0, &index6);
    const int chosen = vwire_decide_best_band_index(best6, index6, best5, index5);
    if (chosen >= 0) printf("use %s\n", get_uplink_wds_iface_devname_by_index(&uplinks, chosen));
    destroy_uplink_wds_iface_scan_records(&uplinks);
    return 0;
}
