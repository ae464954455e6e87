// Any file: lookups and sorting agree with the order of keys as it is stated.
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <vela/config/cfg.h>

namespace
{

void require(bool condition)
{
    if (!condition) abort();
}

cfg_entry *parse_bytes(const void *data, size_t size)
{
    FILE *stream = fmemopen(const_cast<void *>(data), size, "r");
    cfg_entry *cfg = parse_stream(stream);
    fclose(stream);
    return cfg;
}

/// The order position by position; without a locale, ctype knows the letters of ASCII only.
int stated_order(const char *a, const char *b)
{
    const auto mapped = [](const char *s) -> uint64_t {
        if (!isdigit(static_cast<uint8_t>(*s))) return static_cast<uint64_t>(tolower(static_cast<uint8_t>(*s)));
        uint32_t value = 0;
        while (isdigit(static_cast<uint8_t>(*s))) value = value * 10 + static_cast<uint32_t>(*s++ - '0');
        return 256 + uint64_t{value};
    };
    while (*a && mapped(a) == mapped(b)) ++a, ++b;
    return mapped(a) == mapped(b) ? 0 : mapped(a) < mapped(b) ? -1 : 1;
}

void check_lookups(cfg_entry *cfg)
{
    int few = 50;
    for (const cfg_entry *entry = cfg; entry && few > 0; entry = entry->next, --few) {
        const cfg_entry *first = cfg;
        while (stated_order(first->key, entry->key) != 0) first = first->next;
        require(get_value(cfg, nullptr, "%s", entry->key) == first->value);
        require(strlen(get_esc_value(cfg, nullptr, "%s", entry->key)) >= strlen(first->value));
    }
    cfg_entry *elements = get_cfg_section(cfg, nullptr, nullptr, "s.");
    require(get_cfg_count(elements) == get_cfg_section_count(cfg, nullptr, nullptr, "s."));
    for (const cfg_entry *element = elements; element && element->next; element = element->next) {
        require(stated_order(element->key, element->next->key) <= 0);
    }
    free_cfg_it(elements);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    cfg_entry *cfg = parse_bytes(data, size);
    check_lookups(cfg);
    cfg_entry *half = parse_bytes(data, size / 2);
    free_cfg_it(get_cfg_diff_it(half, cfg));
    free_cfg(half);
    free_cfg(cfg);
    return 0;
}
