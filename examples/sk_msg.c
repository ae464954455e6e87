/* Two ends of a socket pair exchange a typed message: ./example-sk_msg */
#include <stdio.h>
#include <unistd.h>
#include <vela/ipc/sk_msg.h>

enum { GREETING = 1 };

int main(void)
{
    const int timeout_s = 5;
    sk_msg out = {.type = GREETING, .data = buffer_create()};
    sk_msg in = {.data = buffer_create()};
    int ends[2];
    int status = 1;

    if (out.data && in.data && socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) == 0) {
        out.data->printf(out.data, "hello from %d", (int)getpid());
        out.len = (int32_t)out.data->length(out.data);
        if (sk_msg_send(ends[0], &out, timeout_s) == out.len && sk_msg_recv(ends[1], &in, timeout_s) == out.len) {
            printf("type %d: %.*s\n", in.type, in.len, (const char *)in.data->data(in.data));
            status = 0;
        }
        close(ends[0]);
        close(ends[1]);
    }
    buffer_destroy(out.data);
    buffer_destroy(in.data);
    return status;
}
