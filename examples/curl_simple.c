/* One request: ./example-curl_simple https://example.org/ */
#include <stdio.h>
#include <vela/net/curl_simple.h>

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s URL\n", argv[0]);
        return 2;
    }
    curl_simple_response *response = curl_simple_response_init(64 * 1024);
    if (!response) return 1;

    /* Found through public resolvers, through the device's own only where those do not know the name. */
    const uint32_t flags = CURL_SIMPLE_USE_DOH | CURL_SIMPLE_DOH_FALLBACK;
    const int result = curl_simple_get(argv[1], flags, NULL, response);
    if (result != 0) {
        fprintf(stderr, "no answer: libcurl's code %d\n", result);
    } else {
        buffer *body = response->body;
        printf("status %ld, %u bytes, %u kept\n", response->status, response->received, body->length(body));
        fwrite(body->data(body), 1, body->length(body), stdout);
    }
    curl_simple_response_free(response);
    return result == 0 ? 0 : 1;
}
