// Reads and writes configuration files. Each record and each of its texts is a block of its own: a program may free and
// replace any of them.

#include <vela/config/internal/cfg_key.h>
#include <vela/config/internal/cfg_value.h>
#include <vela/core/internal/own.h>

namespace
{

constexpr std::string_view override_comment = "# misc";
constexpr const char *first_line = "# CFG Start";
constexpr const char *line_format = "%s=%s\n";

/// The lines of a stream, each as a C text: a NUL within a line ends it.
class line_reader
{
public:
    explicit line_reader(FILE *stream) : stream_{stream} {}
    line_reader(const line_reader &) = delete;
    line_reader &operator=(const line_reader &) = delete;
    ~line_reader() { free(line_); }

    /// Null at the end. Ends the process when memory runs out.
    const char *next()
    {
        const vela::errno_keeper keep;
        errno = 0;
        if (getline(&line_, &size_, stream_) > 0) return line_;
        if (errno == ENOMEM) vela::out_of_memory("cfg", __LINE__);
        return nullptr;
    }

private:
    FILE *stream_;
    char *line_ = nullptr;
    size_t size_ = 0;
};

char *copy(std::string_view text)
{
    char *copied = strndup(text.data(), text.size());
    if (!copied) vela::out_of_memory("cfg", __LINE__);
    return copied;
}

/// The entry that a line holds, or null for a line that holds none.
cfg_entry *make_entry(std::string_view line)
{
    const size_t equals = line.find('=');
    if (equals == line.npos || strchr("#\r\n", line.front())) return nullptr;
    const std::string_view value = vela::after(line, equals + 1);

    auto entry = vela::make_zeroed<cfg_entry>();
    if (!entry) vela::out_of_memory("cfg", __LINE__);
    entry->key = copy(vela::trim_blanks(vela::first(line, equals)));
    // On purpose: the value ends one character before its line does, whatever that character is.
    entry->value = copy(vela::first(value, value.size() - !value.empty()));
    return entry.release();
}

void free_entry(cfg_entry *entry)
{
    if (entry->escaped != entry->value) free(entry->escaped);
    free(entry->key);
    free(entry->value);
    free(entry);
}

/// Gives the values of entries from number `overriding` on to the first entry with their key, and drops those entries.
void override_earlier(cfg_entry *list, size_t overriding)
{
    cfg_entry *holder = nullptr; // of the key that the entries in a row have
    for (const auto &[entry, number] : vela::sorted_entries{list}) {
        if (!holder || vela::natural_compare(holder->key, entry->key) != 0) {
            holder = entry;
        } else if (number >= overriding) {
            std::swap(holder->value, entry->value);
            free(std::exchange(entry->key, nullptr)); // marks it
        }
    }
    for (cfg_entry **link = &list; *link;) {
        if ((*link)->key) {
            link = &(*link)->next;
        } else {
            free_entry(std::exchange(*link, (*link)->next));
        }
    }
}

/// False when a line could not be written; the rest is left then.
bool write_entries(const cfg_entry *cfg, FILE *out)
{
    while (cfg && fprintf(out, line_format, cfg->key, cfg->value) >= 0) cfg = cfg->next;
    return !cfg;
}

} // namespace

cfg_entry *parse(const char *path)
{
    const vela::file_ptr file{path ? fopen(path, "re") : nullptr};
    return parse_stream(file.get());
}

cfg_entry *parse_stream(FILE *stream)
{
    if (!stream) return nullptr;
    cfg_entry *list = nullptr;
    cfg_entry **end = &list;
    size_t count = 0;
    size_t overriding = SIZE_MAX; // number of the first entry that changes earlier ones
    line_reader lines{stream};
    while (const char *line = lines.next()) {
        if (vela::starts_with(line, override_comment)) overriding = std::min(overriding, count);
        *end = make_entry(line);
        if (!*end) continue;
        end = &(*end)->next;
        ++count;
    }
    if (overriding < count) override_earlier(list, overriding);
    return list;
}

void free_cfg(cfg_entry *cfg)
{
    while (cfg) free_entry(std::exchange(cfg, cfg->next));
}

void print_cfg(const cfg_entry *cfg) { (void)write_entries(cfg, stdout); } // nobody to tell

int save_cfg(const cfg_entry *cfg, const char *path)
{
    vela::file_ptr file{path ? fopen(path, "we") : nullptr};
    if (!file) return -1;
    const bool written = fprintf(file.get(), "%s\n", first_line) >= 0 && write_entries(cfg, file.get());
    return fclose(file.release()) == 0 && written ? 0 : -1;
}
