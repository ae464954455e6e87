// Reads and writes small text files: a line, a number, the value of a key; makes and removes directory trees. Single
// lines and numbers are read through a descriptor, files searched for a key through a stream. A reader returns its
// default when it reads no byte. An empty file sets no errno: the old value stays.

#include <climits>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <type_traits>
#include <vela/core/crypto.h>
#include <vela/core/file.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/numbers.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>

namespace
{

constexpr const char *log_module = "libvela_util";
constexpr const char *status_module = "libvela_status"; // where touch_file's line is looked for

constexpr const char *line_ends = "\n\r\a";
constexpr const char *word_separators = " \t\r\n=";

constexpr size_t key_line_size = 255; // one piece of a line that is searched for a key, with its NUL
constexpr size_t number_size = 16;    // digits of a number, with the NUL
constexpr size_t double_size = 15;
constexpr size_t mode_size = 16; // of a mode for fopen

constexpr mode_t path_writer_mode = 0666; // as fopen: the umask decides
constexpr mode_t at_writer_mode = 0600;

constexpr int walk_descriptors = 10;
constexpr size_t encoded_chunk = 300; // a multiple of 3, so that encoded chunks join without padding in between

// Parts of the out-of-memory text, not where it happens.
constexpr int mkdir_line = 1399;
constexpr int base64_line = 674;

/// For the callback of the walk that removes a tree; set by vl_recursive_remove, null outside it.
constinit thread_local const int *walk_minimum_depth = nullptr;

vela::unique_fd open_file(int directory, const char *path, int flags, mode_t mode = 0)
{
    if (!path) {
        errno = EINVAL;
        return {};
    }
    return vela::unique_fd{openat(directory, path, flags | O_CLOEXEC, mode)};
}

vela::file_ptr open_lines(const char *path) { return vela::file_ptr{path ? fopen(path, "re") : nullptr}; }

/// Reads up to the first line feed, it included, cut to the buffer and ended with a NUL. Returns the bytes of the line.
size_t read_line(int fd, char *buffer, size_t size)
{
    size_t length = 0;
    const char *feed = nullptr;
    while (!feed && length < size - 1) {
        const ssize_t n = read(fd, buffer + length, size - 1 - length);
        if (n <= 0) break;
        feed = static_cast<const char *>(memchr(buffer + length, '\n', static_cast<size_t>(n)));
        length += static_cast<size_t>(n);
    }
    const size_t line = feed ? static_cast<size_t>(feed - buffer) + 1 : length;
    memset(buffer + line, '\0', length - line + 1); // nothing of the next lines stays in the caller's buffer
    return line;
}

/// The first line of a file, for its text. Where it gives false, errno is the reason, but for an empty file.
bool first_line(int directory, const char *path, char *buffer, size_t size)
{
    if (!buffer || size == 0) {
        errno = EINVAL;
        return false;
    }
    const auto file = open_file(directory, path, O_RDONLY);
    if (!file.ok()) return false;
    if (read_line(file.get(), buffer, size) == 0) return false;
    // On purpose: a line that begins with one of the ends stays whole.
    if (const size_t text = strcspn(buffer, line_ends); text != 0) buffer[text] = '\0';
    return true;
}

void use_default(const char *caller, char *buffer, size_t size, const char *fallback)
{
    if (!fallback) log_error_as(caller, "NULL pointer for default value");
    if (buffer) vela::copy_text(buffer, size, vela::view(fallback));
}

/// Every reader of a number ends here: the number behind a text's white space, or the default where no digit comes.
/// Base 0 is any, as C writes it.
template <class Number> Number number_in(const char *text, Number fallback, int base = 0)
{
    char *end = nullptr;
    Number value;
    if constexpr (std::is_same_v<Number, double>) {
        value = strtod(text, &end);
    } else if constexpr (std::is_same_v<Number, unsigned long>) {
        value = strtoul(text, &end, base);
    } else if constexpr (std::is_same_v<Number, long>) {
        value = strtol(text, &end, base);
    } else {
        value = strtoll(text, &end, base);
    }
    return end == text ? fallback : value;
}

template <size_t Size, class Number> Number decimal_in_line(const char *path, Number fallback)
{
    char text[Size];
    return first_line(AT_FDCWD, path, text, Size) ? number_in(text, fallback, 10) : fallback;
}

template <class Number> Number number_at(int directory, const char *path, Number fallback)
{
    const auto file = open_file(directory, path, O_RDONLY);
    char text[number_size] = {};
    if (!file.ok() || read(file.get(), text, sizeof text - 1) <= 0) return fallback;
    return number_in(text, fallback);
}

template <class Number> int add_at(int directory, const char *path, Number delta)
{
    const auto file = open_file(directory, path, O_RDWR | O_CREAT, at_writer_mode);
    if (!file.ok()) return -1;
    char text[number_size];
    read_line(file.get(), text, sizeof text);
    const Number sum = vela::wrapping_sum(number_in(text, Number{0}), delta);

    if (ftruncate(file.get(), 0) != 0 || lseek(file.get(), 0, SEEK_SET) != 0) return -1;
    return dprintf(file.get(), "%lld\n", static_cast<long long>(sum)) < 0 ? -1 : 0;
}

int write_text(const vela::unique_fd &file, const char *format, va_list args)
{
    return file.ok() ? vdprintf(file.get(), format, args) : -1;
}

/// The value in a line of the given key, or null. Cuts the line into words.
const char *value_in(char *line, const char *key)
{
    char *rest = nullptr;
    const char *word = strtok_r(line, word_separators, &rest);
    if (!word || strcmp(word, key) != 0) return nullptr;
    return strtok_r(nullptr, word_separators, &rest);
}

/// Size of a stream's file, with the stream back at its start; negative, with errno, where it has none.
off_t measured(FILE *stream)
{
    const off_t size = fseeko(stream, 0, SEEK_END) == 0 ? ftello(stream) : -1;
    const vela::errno_keeper keep;
    rewind(stream);
    return size;
}

bool encode(FILE *stream, size_t size, char *text)
{
    uint8_t chunk[encoded_chunk];
    for (size_t done = 0; done < size; done += encoded_chunk) {
        const size_t length = std::min(size - done, encoded_chunk);
        if (fread(chunk, 1, length, stream) != length) return false;
        base64rfc_encode(text + done / 3 * 4, chunk, static_cast<int>(length));
    }
    return true;
}

bool make_directory(const char *path, mode_t mode) { return mkdir(path, mode) == 0 || errno == EEXIST; }

/// Cuts the path at each slash but a leading one, and mends it again.
bool make_directories(char *path, mode_t mode)
{
    for (char *at = path; *at != '\0'; ++at) {
        if (*at != '/' || at == path) continue;
        *at = '\0';
        const bool made = make_directory(path, mode);
        *at = '/';
        if (!made) return false;
    }
    return make_directory(path, mode);
}

int remove_entry(const char *path, const struct stat *, int, FTW *place)
{
    if (place->level < *walk_minimum_depth) return 0;
    return remove(path) == 0 ? 0 : errno; // other than 0 stops the walk, and is what it gives
}

} // namespace

FILE *fopen_format(const char *mode, const char *format, ...)
{
    char path[PATH_MAX];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(path, sizeof path, format, args);
    va_end(args);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
        errno = ENAMETOOLONG;
        return nullptr;
    }

    if (!mode || *mode == '\0') {
        errno = EINVAL;
        return nullptr;
    }
    // "e" is close-on-exec, and found behind the first letter whatever else the mode holds.
    const vela::formatted<mode_size> closing{"%ce%s", *mode, mode + 1};
    if (!closing.fits()) {
        errno = EINVAL;
        return nullptr;
    }
    return fopen(path, closing.c_str());
}

int fsreadline(const char *path, char *buffer, size_t size)
{
    return first_line(AT_FDCWD, path, buffer, size) ? 0 : -errno;
}

char *freadline(const char *path, char *buffer, size_t size, const char *fallback)
{
    if (!first_line(AT_FDCWD, path, buffer, size)) use_default(__func__, buffer, size, fallback);
    return buffer;
}

int fsreadlinebykey(const char *path, const char *needle, char *buffer, size_t size)
{
    if (!path || !needle || !buffer) return -1;
    const auto file = open_lines(path);
    if (!file) return -1;

    if (size != 0) buffer[size - 1] = '\0';
    char line[key_line_size];
    while (fgets(line, sizeof line, file.get())) {
        if (!strstr(line, needle)) continue;
        vela::copy_text(buffer, size, line);
        return 0;
    }
    return -1;
}

char *freadvalue(const char *path, const char *key, char *buffer, size_t size, const char *fallback)
{
    if (buffer && size != 0) buffer[size - 1] = '\0';
    const auto file = open_lines(path);
    char line[key_line_size];
    while (file && key && buffer && fgets(line, sizeof line, file.get())) {
        const char *value = value_in(line, key);
        if (!value) continue;
        vela::copy_text(buffer, size, value);
        return buffer;
    }
    use_default(__func__, buffer, size, fallback);
    return buffer;
}

int fwriteline(const char *path, const char *format, ...)
{
    const auto file = open_file(AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC, path_writer_mode);
    va_list args;
    va_start(args, format);
    const int written = write_text(file, format, args);
    va_end(args);
    return written;
}

long freadlong(const char *path, long fallback) { return decimal_in_line<number_size>(path, fallback); }

unsigned long freadulong(const char *path, unsigned long fallback)
{
    return decimal_in_line<number_size>(path, fallback);
}

double freaddouble(const char *path, double fallback) { return decimal_in_line<double_size>(path, fallback); }

int faddlong(const char *path, long delta)
{
    return fwriteline(path, "%ld\n", vela::wrapping_sum(freadlong(path, 0), delta)) > 0 ? 0 : -1;
}

int touch_file(const char *path, mode_t mode)
{
    const bool exists = open_file(AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND, path_writer_mode).ok();
    if (exists && chmod(path, mode) == 0) return 0;
    LIBVELA_LOG(LIBVELA_LOG_ERROR, status_module, "%s - %i/%s", path ? path : "", errno, strerror(errno));
    return -1;
}

char *load_file_base64(FILE *stream)
{
    if (!stream) return nullptr;
    const off_t size = measured(stream);
    if (size < 0) {
        log_debug("Couldn't find file size: %s", strerror(errno));
        return nullptr;
    }

    const int length = size <= INT_MAX ? base64_encode_len(static_cast<int>(size)) : -1;
    vela::c_string text{length > 0 ? static_cast<char *>(malloc(static_cast<size_t>(length))) : nullptr};
    if (!text) vela::out_of_memory("util", base64_line);
    *text = '\0';
    if (!encode(stream, static_cast<size_t>(size), text.get())) {
        log_error("Couldn't read all bytes from file");
        return nullptr;
    }
    return text.release();
}

int vl_recursive_mkdir(const char *path, mode_t mode)
{
    if (!path) path = "";
    const vela::c_string copy{strdup(path)};
    if (!copy) vela::out_of_memory("util", mkdir_line);
    if (make_directories(copy.get(), mode)) return 0;
    log_error("Failed to create '%s': %s", path, strerror(errno));
    return 1;
}

int vl_recursive_remove(const char *path, int minimum_depth)
{
    if (!path) path = "";
    walk_minimum_depth = &minimum_depth;
    const int result = nftw(path, remove_entry, walk_descriptors, FTW_PHYS | FTW_MOUNT | FTW_DEPTH);
    const int error = result < 0 ? errno : result;
    walk_minimum_depth = nullptr;

    if (error == 0 || error == ENOENT) return 0;
    log_error("Failed to remove '%s': %s", path, strerror(error));
    return 1;
}

char *freadlineat(int directory, const char *path, char *buffer, size_t size, const char *fallback)
{
    if (!first_line(directory, path, buffer, size)) use_default(__func__, buffer, size, fallback);
    return buffer;
}

long freadlongat(int directory, const char *path, long fallback) { return number_at(directory, path, fallback); }

int64_t freadi64at(int directory, const char *path, int64_t fallback) { return number_at(directory, path, fallback); }

int fwritelongat(int directory, const char *path, long value)
{
    return fwritelineat(directory, path, "%ld\n", value) < 0 ? -1 : 0;
}

int fwritelineat(int directory, const char *path, const char *format, ...)
{
    const auto file = open_file(directory, path, O_RDWR | O_CREAT | O_TRUNC, at_writer_mode);
    va_list args;
    va_start(args, format);
    const int written = write_text(file, format, args);
    va_end(args);
    return written;
}

int faddlongat(int directory, const char *path, long delta) { return add_at(directory, path, delta); }

int faddi64at(int directory, const char *path, int64_t delta) { return add_at(directory, path, delta); }
