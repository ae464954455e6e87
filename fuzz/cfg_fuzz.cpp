// Any file: every key is found, and what is saved reads back the same.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <vela/config/cfg.h>

namespace
{

cfg_entry *parse_bytes(const void *data, size_t size)
{
    FILE *stream = fmemopen(const_cast<void *>(data), size, "r");
    cfg_entry *cfg = parse_stream(stream);
    fclose(stream);
    return cfg;
}

void check(bool holds)
{
    if (!holds) abort();
}

/// Keys that start like a comment or an empty line are written as they are, and read back as none.
bool reads_back(const char *key) { return *key != '#' && *key != '\r'; }

void check_saved(const cfg_entry *cfg)
{
    static const std::string path = "/proc/self/fd/" + std::to_string(memfd_create("saved", MFD_CLOEXEC));
    for (const cfg_entry *entry = cfg; entry; entry = entry->next) {
        if (strncmp(entry->key, "# misc", 6) == 0) return;
    }
    check(save_cfg(cfg, path.c_str()) == 0);
    cfg_entry *again = parse(path.c_str());
    const cfg_entry *read = again;
    for (; cfg; cfg = cfg->next) {
        if (!reads_back(cfg->key)) continue;
        check(read && strcmp(cfg->key, read->key) == 0 && strcmp(cfg->value, read->value) == 0);
        read = read->next;
    }
    check(!read);
    free_cfg(again);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    cfg_entry *cfg = parse_bytes(data, size);
    for (const cfg_entry *entry = cfg; entry; entry = entry->next) {
        const char *value = get_value(cfg, nullptr, "%s", entry->key);
        check(value && get_cfg_key_count(cfg, 1, "%s", entry->key) > 0);
        check(strlen(get_esc_value(cfg, nullptr, "%s", entry->key)) >= strlen(value));
    }
    cfg_entry *elements = get_cfg_section(cfg, ".x", nullptr, "s.");
    check(get_cfg_count(elements) == get_cfg_section_count(cfg, ".x", nullptr, "s."));
    free_cfg_it(elements);
    check_saved(cfg);

    cfg_entry *half = parse_bytes(data, size / 2);
    free_cfg_it(get_cfg_diff_it(half, cfg));
    free_cfg(half);
    free_cfg(cfg);
    return 0;
}
