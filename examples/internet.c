/* How far this device gets towards the internet, and what every default route lacks: ./example-internet */
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <vela/net/internet.h>

static const char *const words[] = {"not known",       "no address",    "no route",
                                    "no carrier",      "gateway fails", "gateway not seen",
                                    "no DNS resolver", "gateway seen",  "beyond the gateway"};

static int print(const vela_default_route *route, void *arg)
{
    static const uint8_t none[16];
    char gateway[INET6_ADDRSTRLEN] = "no gateway";
    (void)arg;
    if (memcmp(route->gateway, none, sizeof none) != 0) {
        inet_ntop((int)route->family, route->gateway, gateway, sizeof gateway);
    }
    printf("  %s via %s, metric %u: %s\n", *route->ifname ? route->ifname : "nowhere", gateway, route->metric,
           words[route->reason]);
    return 0;
}

int main(void)
{
    vela_internet internet;
    int result = vela_internet_get(&internet);
    if (result != 0) {
        fprintf(stderr, "the kernel did not tell: %s\n", strerror(-result));
        return 1;
    }
    printf("%s, %u resolvers\n", words[internet.reason], internet.resolver_count);
    result = vela_default_route_foreach(0, print, NULL);
    return result < 0;
}
