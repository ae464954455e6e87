/* Facts of the running kernel, read key by key: ./example-xkv */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <vela/config/xkv.h>

int main(void)
{
    char *mounts = xkv_file_to_buff("/proc/self/mountinfo");
    char *board = xkv_file_to_buff("/proc/velahal/board");
    uint32_t mount = 0;
    uint32_t system_id = 0;
    uint8_t serial[6];

    /* Without a key: one number after the other, from where the last one ended. */
    if (xkv_read_u32(mounts, NULL, &mount)) printf("first mount %" PRIu32 "\n", mount);

    /* A file that is not there reads like one without the key. */
    if (!xkv_read_x32(board, "systemid", &system_id)) puts("not an access point of ours");
    if (xkv_read_mac(board, "serialno", sizeof serial, serial)) printf("serial %02x%02x...\n", serial[0], serial[1]);

    free(board);
    free(mounts);
    return 0;
}
