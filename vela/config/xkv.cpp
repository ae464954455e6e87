// Reads files of key=value lines. The buffer is plain text that ends in NULs; an extractor finds its value with the
// string functions and converts it in place. A cursor stands one past what ended a value, so behind the last line one
// past the terminating NUL: the loader keeps a spare zero byte there.

#undef NDEBUG // the address count is checked in every build

#include <algorithm>
#include <cassert>
#include <fcntl.h>
#include <sys/stat.h>
#include <vela/config/xkv.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>

namespace
{

constexpr size_t start_size = 256;
constexpr size_t MAC_OCTET_CNT = 6; // spelled as the assertion prints it

// Parts of the out-of-memory text, not where it happens.
constexpr int first_allocation_line = 78;
constexpr int growth_line = 89;

constexpr const char *true_words[] = {"1", "true", "enabled"};
constexpr const char *false_words[] = {"0", "false", "disabled"};

constexpr const char *mac_with_colons = "%02hhx:%02hhx:%02hhx:%02hhx:%02hhx:%02hhx%n";
constexpr const char *mac_bare = "%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%n";

/// What a file says it holds; files under /proc say nothing, and what is no file has no size to trust.
size_t expected_size(int fd)
{
    struct stat status = {};
    if (fstat(fd, &status) < 0 || !S_ISREG(status.st_mode) || status.st_size < 1) return start_size;
    return static_cast<size_t>(status.st_size);
}

/// Moves a text into a block of twice its size and clears the new half and its spare byte.
char *doubled(char *text, size_t size)
{
    char *moved = size > SIZE_MAX / 4 ? nullptr : static_cast<char *>(realloc(text, 2 * size + 1));
    if (!moved) vela::out_of_memory("xkv", growth_line);
    memset(moved + size, 0, size + 1);
    return moved;
}

/// Where the value of a key starts, or null. A null key stands for the place itself.
const char *find_value(const char *from, const char *key)
{
    if (!from || !key) return from;

    const size_t length = strlen(key);
    for (const char *match = strstr(from, key); match; match = strstr(from, key)) {
        const char *end = match + length;
        if (*end == '=') return end + 1;
        if (end == from && *end) ++end; // an empty key would stay on its line feed for ever
        // On purpose: searched from the line feed itself, so that a key that begins with one is bound to a line's
        // start.
        from = strchr(end, '\n');
        if (!from) return nullptr;
    }
    return nullptr;
}

/// A cursor: whoever owns the buffer may write through it.
char *cursor(const char *place) { return const_cast<char *>(place); }

template <class Number> char *read_number(const char *from, const char *key, const char *conversion, Number *out)
{
    *out = 0;
    const char *value = find_value(from, key);
    int length = 0;
    if (!value || sscanf(value, conversion, out, &length) != 1) return nullptr;
    return cursor(value + length + 1);
}

/// Length of the address at a value, 0 when there is none in this form.
int scan_mac(const char *value, const char *form, uint8_t (&mac)[MAC_OCTET_CNT])
{
    int length = 0;
    const int octets = sscanf(value, form, &mac[0], &mac[1], &mac[2], &mac[3], &mac[4], &mac[5], &length);
    return octets == int{MAC_OCTET_CNT} ? length : 0;
}

// On purpose: the words are compared over the value's length, so any leading part of one stands for it.
template <size_t N> bool is_one_of(const char *const (&words)[N], const char *value, size_t length)
{
    return std::any_of(words, words + N, [=](const char *word) { return strncmp(value, word, length) == 0; });
}

} // namespace

char *xkv_file_to_buff(const char *path)
{
    const vela::unique_fd file{open(path, O_RDONLY | O_CLOEXEC)};
    if (!file.ok()) return nullptr;

    size_t size = expected_size(file.get());
    size_t used = 0;
    // One byte more than the size is never filled: the place of a cursor behind the last line.
    vela::c_string text{static_cast<char *>(calloc(size + 1, 1))};
    if (!text) vela::out_of_memory("xkv", first_allocation_line);
    for (;;) {
        const ssize_t n = read(file.get(), text.get() + used, size - used);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return text.release();
        used += static_cast<size_t>(n);
        if (used == size) { // always room for another byte, so that a NUL follows the text
            text.reset(doubled(text.release(), size));
            size *= 2;
        }
    }
}

char *xkv_read_bool(const char *from, const char *key, uint8_t *out)
{
    *out = 0;
    const char *value = find_value(from, key);
    const char *end = value ? strchr(value, '\n') : nullptr;
    if (!end || end == value) return nullptr;

    const auto length = static_cast<size_t>(end - value);
    const bool is_true = is_one_of(true_words, value, length);
    if (!is_true && !is_one_of(false_words, value, length)) return nullptr;
    *out = is_true;
    return cursor(end + 1);
}

char *xkv_read_str(const char *from, const char *key, size_t size, char *out)
{
    if (size > 0) *out = '\0';
    const char *value = find_value(from, key);
    if (!value || size == 0) return cursor(value);

    const size_t n = vela::copy_text(out, size, {value, strcspn(value, "\n")});
    const bool whole = value[n] == '\0' || value[n] == '\n';
    return cursor(value + n + whole); // a cut value goes on where it was cut
}

char *xkv_read_mac(const char *from, const char *key, size_t cnt, uint8_t *out)
{
    assert(cnt == MAC_OCTET_CNT);
    *out = 0;
    const char *value = find_value(from, key);
    if (!value) return nullptr;

    uint8_t mac[MAC_OCTET_CNT] = {};
    int length = scan_mac(value, mac_with_colons, mac);
    if (length == 0) length = scan_mac(value, mac_bare, mac);
    if (length == 0) {
        memset(out, 0, sizeof mac);
        return nullptr;
    }
    memcpy(out, mac, sizeof mac);
    return cursor(value + length + 1);
}

char *xkv_read_u64(const char *from, const char *key, uint64_t *out) { return read_number(from, key, "%llu%n", out); }
char *xkv_read_u32(const char *from, const char *key, uint32_t *out) { return read_number(from, key, "%u%n", out); }
char *xkv_read_u16(const char *from, const char *key, uint16_t *out) { return read_number(from, key, "%hu%n", out); }
char *xkv_read_u8(const char *from, const char *key, uint8_t *out) { return read_number(from, key, "%hhu%n", out); }
char *xkv_read_x64(const char *from, const char *key, uint64_t *out) { return read_number(from, key, "%llx%n", out); }
char *xkv_read_x32(const char *from, const char *key, uint32_t *out) { return read_number(from, key, "%x%n", out); }
char *xkv_read_x16(const char *from, const char *key, uint16_t *out) { return read_number(from, key, "%hx%n", out); }
char *xkv_read_x8(const char *from, const char *key, uint8_t *out) { return read_number(from, key, "%hhx%n", out); }
char *xkv_read_s64(const char *from, const char *key, int64_t *out) { return read_number(from, key, "%lld%n", out); }
char *xkv_read_s32(const char *from, const char *key, int32_t *out) { return read_number(from, key, "%d%n", out); }
char *xkv_read_s16(const char *from, const char *key, int16_t *out) { return read_number(from, key, "%hd%n", out); }
char *xkv_read_s8(const char *from, const char *key, int8_t *out) { return read_number(from, key, "%hhd%n", out); }
