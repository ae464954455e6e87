/* Running programs: prints the kernel's name, and keeps a command to see whether it changed. */
#include <stdio.h>
#include <stdlib.h>
#include <vela/exec/exec.h>

int main(void)
{
    char release[64];
    if (popen_get_output("uname -r", release, sizeof release) > 0) printf("kernel %s", release);

    char *interfaces = popen_alloc_output("ls /sys/class/net", 64 * 1024);
    if (interfaces) fputs(interfaces, stdout);
    free(interfaces);

    exec_record *current = exec_create("/bin/echo", "channel", "36", NULL);
    exec_record *wanted = exec_create("/bin/echo", "channel", "149", NULL);
    if (!current || !wanted) return 1;
    const int32_t difference = exec_cmp(current, wanted);
    if (difference > 0) printf("argument %d differs\n", difference);
    fflush(stdout); /* the child writes to the same place */
    forkexec(wanted->argv);
    exec_destroy(current);
    exec_destroy(wanted);

    syswrapper_impl(0, "restart-service", "radio", NULL); /* without the script: one line at debug level */
    return 0;
}
