/* Takes a URL apart and looks its address up: ./example-url https://localhost:8443/inform */
#define _POSIX_C_SOURCE 200809L /* for struct addrinfo, where the compiler is told -std=c11 */
#include <stdio.h>
#include <stdlib.h>
#include <vela/net/url.h>

int main(int argc, char **argv)
{
    url *u = url_parse(argc > 1 ? argv[1] : "http://localhost/a?b=c");
    char address[INET6_ADDRSTRLEN];
    char *encoded;

    if (!u) {
        fputs("no URL\n", stderr);
        return 1;
    }
    printf("%s\n  scheme %s, host %s, port %u, path %s\n", u->url, u->scheme, u->host, u->port, u->path);

    if (url_resolve(u, NULL) == 0 && url_addr_ntop(u, address, sizeof address) == 0) printf("  address %s\n", address);

    encoded = url_encode(u->url); /* as a value in another URL's query */
    if (encoded) printf("  http://search.example/?q=%s\n", encoded);

    free(encoded);
    url_destroy(u);
    return 0;
}
