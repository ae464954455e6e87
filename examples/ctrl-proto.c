/* Asks the management daemon for an operation and prints its answer: ./example-ctrl-proto status */
#include <stdio.h>
#include <stdlib.h>
#include <vela/ipc/ctrl-proto.h>

int main(int argc, char **argv)
{
    const struct timeval timeout = {.tv_sec = 2, .tv_usec = 0};
    buffer *request;
    json_t *answer;

    if (argc == 2) {
        answer = service_simple_op(argv[1], &timeout);
    } else {
        request = buffer_create();
        if (!request) return 1;
        request->printf(request, "{\"op\":\"get\",\"keys\":[\"uplink\",\"stations\"]}");
        answer = service_json(request, &timeout);
        buffer_destroy(request);
    }
    if (!answer) {
        fputs("no answer\n", stderr);
        return 1;
    }
    json_dumpf(answer, stdout, JSON_INDENT(2));
    puts("");
    json_decref(answer);
    return 0;
}
