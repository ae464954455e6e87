/* A crash handler, as the kernel starts it for a core dump on standard input:
 *   echo '|/usr/sbin/example-crash %e %p %s' > /proc/sys/kernel/core_pattern */
#include <stdio.h>
#include <stdlib.h>
#include <vela/core/buffer.h>
#include <vela/telemetry/crash.h>

int main(int argc, char **argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: %s NAME PID SIGNAL <CORE\n", argv[0]);
        return 2;
    }
    buffer *core = buffer_create();
    if (!core) return 1;
    char piece[4096];
    for (size_t n; (n = fread(piece, 1, sizeof piece, stdin)) > 0;) {
        if (core->append(core, piece, (uint32_t)n) != n) break;
    }

    const crash_info crash = {
        .name = argv[1],
        .pid = atoi(argv[2]),
        .signal = atoi(argv[3]),
        .number_of_crashes = 1,
        .type = CRASH_CORE_DUMP,
        .data = core->data(core),
        .size = core->length(core),
    };
    const int result = send_crash(&crash); /* 0 also where nothing may be sent; the log tells what was */
    buffer_destroy(core);

    if (has_oops() && send_kernel_crash() == 0) oops_clear();
    return result == 0 ? 0 : 1;
}
