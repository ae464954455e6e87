/* Text helpers in a daemon: identifiers, addresses, and names from the air made fit for a JSON document. */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <vela/core/util.h>

int main(void)
{
    uint8_t mac[6];
    char id[33], parent[16], hex[2 * sizeof mac + 1];
    char ssid[] = "caf\xC3\xA9 \xC0\xAF upstairs"; /* a network's name: any bytes */

    if (strtomac("02:00:5e:10:00:01", mac) < 0 || !uchar2hex(mac, sizeof mac, hex, sizeof hex)) return 1;
    if (!gen_rand_hex(id, sizeof id)) return 1;
    utf8_sanitize(ssid);
    printf("%s is \"%.*s\", session %s\n", hex, (int)utf8_truncate_len(ssid, 8, sizeof ssid), ssid, id);

    const uint32_t mask = ipv4_netmask_from_prefix_len(24);
    printf("192.0.2.129 is in 192.0.2.0/24: %d\n", ip_belongs_to_subnet(0xC0000281, 0xC0000200, mask));

    char *label = malloc_printf("%s of %s", "eth0.10", strip_vlan_suffix(parent, "eth0.10", sizeof parent));
    if (!label) return 1;
    printf("%s\n", label);
    free(label);
    return 0;
}
