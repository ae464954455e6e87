// Helpers without state of their own: formatting, random values, trimming, signals, masks. Hexadecimal is in hex.cpp,
// UTF-8 in utf8.cpp.

#include <array>
#include <bit>
#include <fcntl.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/stream.h>
#include <vela/core/internal/text.h>
#include <vela/core/util.h>

namespace
{

constexpr const char *log_module = "libvela_util";

constexpr const char *seed_path = "/dev/urandom";
constexpr std::string_view alphanumerics = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr char pattern_separator = '|';
constexpr size_t config_line_size = 256; // of a line that comment_out_lines looks at, with a NUL
constexpr size_t ipv6_size = 16;
constexpr int ipv6_bits = 128;

/// Signal names by Linux number.
constexpr std::array<const char *, 32> signal_names{
    nullptr,     "SIGHUP",  "SIGINT",    "SIGQUIT", "SIGILL",   "SIGTRAP", "SIGABRT", "SIGBUS",
    "SIGFPE",    "SIGKILL", "SIGUSR1",   "SIGSEGV", "SIGUSR2",  "SIGPIPE", "SIGALRM", "SIGTERM",
    "SIGSTKFLT", "SIGCHLD", "SIGCONT",   "SIGSTOP", "SIGTSTP",  "SIGTTIN", "SIGTTOU", "SIGURG",
    "SIGXCPU",   "SIGXFSZ", "SIGVTALRM", "SIGPROF", "SIGWINCH", "SIGIO",   "SIGPWR",  "SIGSYS"};

void reseed()
{
    unsigned seed = 0;
    const vela::unique_fd random{open(seed_path, O_RDONLY | O_CLOEXEC)};
    if (!random.ok() || read(random.get(), &seed, sizeof seed) != sizeof seed) {
        log_trace_as("urandom", "read returned error in urandom");
    }
    srand(seed);
}

uint8_t random_byte() { return static_cast<uint8_t>(rand()); }

bool contains(std::string_view line, std::string_view pattern)
{
    return memmem(line.data(), line.size(), pattern.data(), pattern.size()) != nullptr; // lines may hold NULs
}

/// Overwrites the first character of a line of so many bytes, just read.
bool comment_out(FILE *stream, size_t line_length)
{
    const auto length = static_cast<off_t>(line_length);
    return fseeko(stream, -length, SEEK_CUR) == 0 && putc('#', stream) == '#' &&
           fseeko(stream, length - 1, SEEK_CUR) == 0;
}

/// Whether every line could be looked at and every line found be written.
bool comment_out_pattern(FILE *stream, std::string_view pattern)
{
    if (fseeko(stream, 0, SEEK_SET) != 0) return false;
    bool done = true;
    char room[config_line_size];
    while (const auto line = vela::read_line(stream, room)) {
        if (!line->is_whole) {
            done = false;
        } else if (contains(line->text, pattern) && !comment_out(stream, line->text.size())) {
            return false;
        }
    }
    return fflush(stream) == 0 && done;
}

} // namespace

char *malloc_vprintf(const char *format, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) return nullptr;

    const size_t size = static_cast<size_t>(length) + 1;
    vela::c_string text{static_cast<char *>(malloc(size))};
    if (text) (void)vsnprintf(text.get(), size, format, args); // measured above
    return text.release();
}

char *malloc_printf(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    char *text = malloc_vprintf(format, args);
    va_end(args);
    return text;
}

int vela_snprintf(const char *module, const char *message, char *buffer, size_t size, const char *format, ...)
{
    if (size == 0) {
        if (message) LIBVELA_LOG(LIBVELA_LOG_ERROR, module, "%s\n", message);
        return 0;
    }

    va_list args;
    va_start(args, format);
    const int length = vsnprintf(buffer, size, format, args);
    va_end(args);
    if (length < 0) {
        LIBVELA_LOG(LIBVELA_LOG_ERROR, module, "%s failure: %d\n", __func__, length);
        return 0;
    }
    if (static_cast<size_t>(length) < size || !message) return length;
    LIBVELA_LOG(LIBVELA_LOG_ERROR, module, "%s\n", message);
    return static_cast<int>(size) - 1; // below length, so it fits
}

size_t gen_rand_hex(char *out, size_t size)
{
    reseed();
    if (!out || size % 2 == 0) return 0;
    const size_t count = (size - 1) / 2;
    for (size_t i = 0; i < count; ++i) {
        const uint8_t byte = random_byte();
        out[2 * i] = alphanumerics[byte >> 4]; // they begin with the hexadecimal digits
        out[2 * i + 1] = alphanumerics[byte & 0x0FU];
    }
    out[2 * count] = '\0';
    return count;
}

size_t gen_rand_bytes(void *out, size_t count)
{
    reseed();
    if (!out) return 0;
    std::generate_n(static_cast<uint8_t *>(out), count, random_byte);
    return count;
}

char *gen_rand_string(char *out, size_t count)
{
    reseed();
    if (!out || count == 0) return nullptr;
    std::generate_n(out, count, [] { return alphanumerics[static_cast<size_t>(rand()) % alphanumerics.size()]; });
    out[count] = '\0';
    return out;
}

void trim_trailing(char *text, size_t length)
{
    if (!text) return;
    while (length != 0 && vela::is_space(text[length - 1])) text[--length] = '\0';
}

void strncpy_trim(char *out, size_t size, const char *source)
{
    if (!out || size == 0) return;
    *out = '\0';
    std::string_view text = vela::view(source);
    while (!text.empty() && vela::is_space(text.front())) text.remove_prefix(1);
    // On purpose: white space at the end stays.
    vela::copy_text(out, size, text);
}

char *strip_vlan_suffix(char *out, const char *ifname, size_t size)
{
    if (!out || size == 0) return out;
    const std::string_view name = vela::view(ifname);
    const size_t dot = name.find('.');
    vela::copy_text(out, size, vela::first(name, dot));
    if (dot == std::string_view::npos) out[size - 1] = '\0';
    return out;
}

int is_ppp_dev(const char *ifname) { return ifname && strncmp(ifname, "ppp", 3) == 0; }

int comment_out_lines(FILE *stream, const char *patterns)
{
    if (!stream) return -1;
    int result = 0;
    for (std::string_view rest = vela::view(patterns); !rest.empty();) {
        const auto pattern = vela::first(rest, rest.find(pattern_separator));
        if (!pattern.empty() && !comment_out_pattern(stream, pattern)) result = -1;
        rest = vela::after(rest, pattern.size() + 1);
    }
    return result;
}

const char *vl_signame(int number)
{
    const auto index = static_cast<size_t>(number);
    return index < signal_names.size() ? signal_names[index] : nullptr;
}

int ip_belongs_to_subnet(uint32_t address, uint32_t network, uint32_t mask)
{
    return ((address ^ network) & mask) == 0;
}

uint32_t ipv4_netmask_from_prefix_len(unsigned prefix_len)
{
    if (prefix_len > 32) {
        log_error("invalid subnet mask size of %u", prefix_len);
        return 0;
    }
    return prefix_len == 0 ? 0 : UINT32_MAX << (32 - prefix_len);
}

unsigned ipv4_prefix_len_from_netmask(uint32_t mask) { return static_cast<unsigned>(std::popcount(mask)); }

void ipv6_netmask_from_prefix_len(uint8_t mask[ipv6_size], int prefix_len)
{
    const auto bits = static_cast<size_t>(prefix_len < 0 || prefix_len >= ipv6_bits ? ipv6_bits : prefix_len);
    memset(mask, 0, ipv6_size);
    memset(mask, 0xFF, bits / 8);
    if (bits % 8 != 0) mask[bits / 8] = static_cast<uint8_t>(0xFF00U >> bits % 8);
}

int net_equals_v6(const uint8_t a[ipv6_size], const uint8_t b[ipv6_size], unsigned prefix_len)
{
    if (!a || !b) {
        log_error("NULL pointer passed");
        return 0;
    }
    uint8_t mask[ipv6_size];
    ipv6_netmask_from_prefix_len(mask, static_cast<int>(std::min<unsigned>(prefix_len, ipv6_bits)));
    unsigned differing = 0;
    for (size_t i = 0; i < ipv6_size; ++i) differing |= (a[i] ^ b[i]) & mask[i];
    return differing == 0;
}
