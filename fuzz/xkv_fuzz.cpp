// Any file, read by the keys of a board and line by line.
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <vela/config/xkv.h>

namespace
{

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
    xkv_read_s16(from, key, &s16);
    xkv_read_bool(from, key, &u8);
    xkv_read_mac(from, key, sizeof mac, mac);
    xkv_read_str(from, key, sizeof text, text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *text = static_cast<char *>(calloc(size + 2, 1)); // as the loader returns it
    if (size != 0) memcpy(text, data, size);
    for (const char *key : {"systemid", "id", "\nid", ""}) read_all(text, key);

    char line[17];
    int lines = 0;
    for (const char *at = text; *at && lines < 64; ++lines) {
        read_all(at, nullptr);
        at = xkv_read_str(at, nullptr, sizeof line, line);
    }
    free(text);
    return 0;
}
