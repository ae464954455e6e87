/* State files of a daemon: a directory of its own, a counter, a value of the kernel, a file for a JSON report. */
#include <stdio.h>
#include <stdlib.h>
#include <vela/core/file.h>

int main(void)
{
    const char *directory = "/tmp/example-state";
    char line[64], memory[64];

    if (vl_recursive_mkdir(directory, 0755) != 0) return 1;
    if (fwriteline("/tmp/example-state/uplink", "%s\n", "eth0") < 0) return 1;
    printf("uplink: %s\n", freadline("/tmp/example-state/uplink", line, sizeof line, "none"));

    faddlong("/tmp/example-state/starts", 1);
    printf("starts: %ld\n", freadlong("/tmp/example-state/starts", 0));
    printf("memory: %s kB\n", freadvalue("/proc/meminfo", "MemTotal:", memory, sizeof memory, "unknown"));

    FILE *state = fopen_format("r", "%s/%s", directory, "uplink");
    char *encoded = load_file_base64(state);
    if (state) fclose(state);
    printf("base64: %s\n", encoded ? encoded : "none");
    free(encoded);

    return vl_recursive_remove(directory, 0);
}
