// Any file, read by the keys of a board and line by line.
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <sys/mman.h>
#include <unistd.h>
#include <vela/config/xkv.h>

namespace
{

/// The input as a file: the extractors' promise holds for what the loader returns.
char *load(const uint8_t *data, size_t size)
{
    static const int file = memfd_create("info", MFD_CLOEXEC);
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", file);
    if (ftruncate(file, 0) < 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size)) abort();
    return xkv_file_to_buff(path);
}

void read_all(const char *from, const char *key)
{
    uint64_t u64;
    uint32_t u32;
    uint8_t u8;
    int16_t s16;
    uint8_t mac[6];
    char text[9];
    xkv_read_u64(from, key, &u64);
    xkv_read_x32(from, key, &u32);
    xkv_read_u8(from, key, &u8);
    xkv_read_s16(from, key, &s16);
    xkv_read_bool(from, key, &u8);
    xkv_read_mac(from, key, sizeof mac, mac);
    xkv_read_str(from, key, sizeof text, text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *text = load(data, size);
    for (const char *key : {"systemid", "serialno", "id", "\nid", ""}) read_all(text, key);

    int lines = 0;
    for (const char *at = text; at && *at && lines < 64; ++lines) {
        read_all(at, nullptr);
        char line[17];
        at = xkv_read_str(at, nullptr, sizeof line, line);
    }
    free(text);
    return 0;
}
