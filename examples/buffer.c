/* Assembling a message and writing it to a socket. */
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vela/core/buffer.h>

int main(void)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return 1;

    buffer *report = buffer_create();
    if (!report) return 1;
    report->printf(report, "stations=%d ", 3);
    report->append(report, "uplink=eth0\n", 12);
    printf("%u bytes: %s", report->length(report), (const char *)report->data(report));

    while (report->length(report) != 0) {
        if (report->send(report, ends[0], MSG_NOSIGNAL) < 0) break;
    }
    report->destroy(report);
    close(ends[0]);
    close(ends[1]);
    return 0;
}
