/* A daemon under the process watchdog; without one it runs just the same. See its bytes in a shell:
 *     XWD_FD=1 ./example-xwd | od -c
 */
#include <unistd.h>
#include <vela/ipc/xwd.h>

int main(void)
{
    int round;

    xwd_start(); /* first thing, before threads and children */
    for (round = 0; round < 3; ++round) {
        sleep(1); /* the daemon's work */
        xwd_ping();
    }
    xwd_end(); /* else the supervisor takes the end for a crash */
    return 0;
}
