// Answers questions about single keys of a configuration. Each answer walks the list: configurations hold some hundreds
// of entries. cfg-file.cpp reads and writes files, cfg-iterator.cpp makes lists of matches, cfg_key.h compares keys.

#include <cstddef>
#include <vela/config/internal/cfg_key.h>
#include <vela/config/internal/cfg_value.h>
#include <vela/core/internal/own.h>

static_assert(offsetof(cfg_entry, key) == 0 && offsetof(cfg_entry, value) == sizeof(void *));
static_assert(offsetof(cfg_entry, escaped) == 2 * sizeof(void *) && offsetof(cfg_entry, next) == 3 * sizeof(void *));

namespace
{

constexpr const char *shell_specials = "`\\\"$";
constexpr const char *white_space = " \t\n\v\f\r"; // as the strtol family skips it

/// The first entry with a formatted key, or null; `function` is whom a failure is logged for.
const cfg_entry *lookup(const char *function, const cfg_entry *cfg, const char *format, va_list args)
{
    const vela::wanted_key key{function, format, args};
    if (!key.ok()) return nullptr;
    while (cfg && !key.equals(cfg->key)) cfg = cfg->next;
    return cfg;
}

struct number {
    long long value;
    bool negative;
};

/// What a value starts with, converted by strtoll or strtoull; nothing without digits or out of range.
template <auto Convert> std::optional<number> number_of(const cfg_entry *entry, int base)
{
    if (!entry || !entry->value) return {};
    const vela::errno_keeper keep;
    char *end = nullptr;
    errno = 0;
    const auto value = static_cast<long long>(Convert(entry->value, &end, base));
    if (end == entry->value || errno == ERANGE) return {};
    return number{value, entry->value[strspn(entry->value, white_space)] == '-'};
}

int32_t int32_or(const cfg_entry *entry, int32_t fallback, int base)
{
    const auto number = number_of<strtoll>(entry, base);
    if (!number || number->value < INT32_MIN || number->value > INT32_MAX) return fallback;
    return static_cast<int32_t>(number->value);
}

uint32_t uint32_or(const cfg_entry *entry, uint32_t fallback)
{
    const auto number = number_of<strtoull>(entry, 0);
    if (!number) return fallback;
    const auto value = static_cast<unsigned long long>(number->value);
    const auto magnitude = number->negative ? 0 - value : value; // as a strtoul of 32 bits: "-1" is its largest number
    return magnitude > UINT32_MAX ? fallback : static_cast<uint32_t>(value);
}

/// A copy with a backslash before each special character.
char *escape(const char *value, size_t specials)
{
    char *escaped = static_cast<char *>(malloc(strlen(value) + specials + 1));
    if (!escaped) vela::out_of_memory("cfg", __LINE__);
    char *out = escaped;
    for (; *value; ++value) {
        if (strchr(shell_specials, *value)) *out++ = '\\';
        *out++ = *value;
    }
    *out = '\0';
    return escaped;
}

} // namespace

const char *vget_value(const cfg_entry *cfg, const char *fallback, const char *format, va_list args)
{
    const cfg_entry *entry = lookup(__func__, cfg, format, args);
    return entry ? entry->value : fallback;
}

const char *get_value(const cfg_entry *cfg, const char *fallback, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const cfg_entry *entry = lookup(__func__, cfg, format, args);
    va_end(args);
    return entry ? entry->value : fallback;
}

const char *get_esc_value(cfg_entry *cfg, const char *fallback, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const cfg_entry *entry = lookup(__func__, cfg, format, args);
    va_end(args);
    return entry ? esc_value(const_cast<cfg_entry *>(entry)) : fallback; // one of the caller's own records
}

const char *esc_value(cfg_entry *entry)
{
    if (!entry || !entry->value) return nullptr;
    if (!entry->escaped) {
        const std::string_view value = entry->value;
        const auto specials =
            std::count_if(value.begin(), value.end(), [](char c) { return strchr(shell_specials, c); });
        entry->escaped = specials == 0 ? entry->value : escape(entry->value, static_cast<size_t>(specials));
    }
    return entry->escaped;
}

int32_t get_int32(const cfg_entry *cfg, int32_t fallback, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const cfg_entry *entry = lookup(__func__, cfg, format, args);
    va_end(args);
    return int32_or(entry, fallback, 0);
}

uint32_t get_uint32(const cfg_entry *cfg, uint32_t fallback, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const cfg_entry *entry = lookup(__func__, cfg, format, args);
    va_end(args);
    return uint32_or(entry, fallback);
}

int32_t get_int32_dec(const cfg_entry *cfg, int32_t fallback, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const cfg_entry *entry = lookup(__func__, cfg, format, args);
    va_end(args);
    return int32_or(entry, fallback, 10);
}

int64_t get_int64(const cfg_entry *cfg, int64_t fallback, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const cfg_entry *entry = lookup(__func__, cfg, format, args);
    va_end(args);
    const auto number = number_of<strtoll>(entry, 0);
    return number ? number->value : fallback;
}

int get_bool(const cfg_entry *cfg, int fallback, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const cfg_entry *entry = lookup(__func__, cfg, format, args);
    va_end(args);
    const auto on = entry ? vela::switch_value(vela::view(entry->value)) : std::nullopt;
    return on ? *on : fallback;
}

int get_cfg_count(const cfg_entry *cfg)
{
    int count = 0;
    for (; cfg; cfg = cfg->next) ++count;
    return count;
}

int get_cfg_key_idx(const char *key, int n)
{
    const vela::errno_keeper keep;
    for (const char *component = get_key_element(key, 1); component && n > 0;
         component = get_key_element(component, 1)) {
        errno = 0;
        const long long number = strtoll(component, nullptr, 0);
        const bool counts = number != 0 && errno == 0 && number >= INT32_MIN && number <= INT32_MAX;
        if (counts && --n == 0) return static_cast<int>(number);
    }
    return -1;
}

const char *get_key_element(const char *key, int n)
{
    for (; key && n > 0; --n) {
        key = strchr(key, '.');
        if (key) ++key;
    }
    return key;
}
