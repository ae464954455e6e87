// A configuration file is read whole and looked at twice: once to count, once to fill. What comes out is one block: the
// records, side by side in the order of the file, and behind them their texts, each pair starting on a word (see
// cfg_key.h). The first record stands at the block's start.

#include <malloc.h>
#include <optional>
#include <vela/config/internal/cfg_key.h>
#include <vela/config/internal/cfg_value.h>
#include <vela/config/internal/growing_text.h>
#include <vela/core/internal/own.h>

namespace
{

constexpr size_t start_size = 16 * 1024; // holds some hundreds of lines
constexpr std::string_view override_comment = "# misc";
constexpr const char *first_line = "# CFG Start";
constexpr const char *line_format = "%s=%s\n";

/// Steps from entry to entry of a file's text.
class entry_reader
{
public:
    explicit entry_reader(std::string_view file) : rest_{file} {}

    bool next()
    {
        while (!rest_.empty()) {
            const auto line = vela::first(rest_, std::min(rest_.find('\n'), rest_.size() - 1) + 1);
            rest_ = vela::after(rest_, line.size());
            if (take(line)) return true;
        }
        return false;
    }

    [[nodiscard]] std::string_view key() const { return key_; }
    [[nodiscard]] std::string_view value() const { return value_; }
    [[nodiscard]] bool overriding() const { return overriding_; } ///< whether repeated keys change what was before
    /// Room for both texts and their NULs, to the end of a word.
    [[nodiscard]] size_t stored_size() const
    {
        return (key_.size() + value_.size() + 2 + sizeof(vela::word) - 1) / sizeof(vela::word) * sizeof(vela::word);
    }

private:
    bool take(std::string_view line)
    {
        if (line.front() == '#') overriding_ = overriding_ || vela::starts_with(line, override_comment);
        if (line.front() == '#' || line.front() == '\r' || line.front() == '\n') return false;

        const auto text = vela::first(line, line.find('\0')); // lines are texts: a NUL ends one
        const size_t equals = text.find('=');
        if (equals == text.npos) return false;
        key_ = vela::trim_blanks(vela::first(text, equals));
        value_ = vela::after(text, equals + 1);
        // On purpose: the value ends one character before its line does, whatever that character is.
        if (!value_.empty()) value_.remove_suffix(1);
        return true;
    }

    std::string_view rest_;
    std::string_view key_;
    std::string_view value_;
    bool overriding_ = false;
};

vela::growing_text read_to_end(FILE *stream)
{
    vela::growing_text text{start_size, "cfg", __LINE__, __LINE__};
    for (size_t n; (n = fread(text.room(), 1, text.room_size(), stream)) > 0;) text.took(n);
    return text;
}

/// What a file's entries need.
struct needs {
    explicit needs(std::string_view file)
    {
        for (entry_reader entries{file}; entries.next(); ++records) text_bytes += entries.stored_size();
    }
    [[nodiscard]] cfg_entry *allocate() const
    {
        size_t bytes = 0;
        const bool too_large = __builtin_mul_overflow(records, sizeof(cfg_entry), &bytes) ||
                               __builtin_add_overflow(bytes, text_bytes, &bytes);
        void *block = too_large ? nullptr : calloc(1, bytes);
        if (!block) vela::out_of_memory("cfg", __LINE__);
        return static_cast<cfg_entry *>(block);
    }

    size_t records = 0;
    size_t text_bytes = 0;
};

/// The keys of the records up to `end`, with room for `all`.
vela::key_index index_of(const cfg_entry *first, const cfg_entry *end, size_t all)
{
    vela::key_index index{all};
    for (; first != end; ++first) index.add(first);
    return index;
}

cfg_entry *build(std::string_view file)
{
    const needs need{file};
    if (need.records == 0) return nullptr;

    cfg_entry *const records = need.allocate();
    cfg_entry *free_record = records;
    char *free_text = reinterpret_cast<char *>(records + need.records);
    std::optional<vela::key_index> index;
    for (entry_reader entries{file}; entries.next();) {
        free_record->key = free_text;
        free_record->value = free_text + entries.key().size() + 1;
        vela::copy_text(free_record->key, entries.key().size() + 1, entries.key());
        vela::copy_text(free_record->value, entries.value().size() + 1, entries.value());
        free_text += entries.stored_size();

        if (entries.overriding()) {
            if (!index) index.emplace(index_of(records, free_record, need.records));
            const cfg_entry *holder = index->add(free_record);
            if (holder != free_record) { // the earlier entry takes the value; the record is free again
                records[holder - records].value = free_record->value;
                continue;
            }
        }
        if (free_record != records) free_record[-1].next = free_record;
        ++free_record;
    }
    return records;
}

/// The block that a record starts. What the parser makes is one block; a program may have put texts of its own in its
/// place, or have made a list record by record.
class block_of_records
{
public:
    explicit block_of_records(cfg_entry *first) : start_{first}, size_{malloc_usable_size(first)} {}
    block_of_records(const block_of_records &) = delete;
    block_of_records &operator=(const block_of_records &) = delete;
    ~block_of_records() { free(start_); }

    [[nodiscard]] bool holds(const void *p) const
    {
        return p && reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(start_) < size_;
    }
    void release_unless_inside(char *text) const
    {
        if (!holds(text)) free(text);
    }

private:
    cfg_entry *start_;
    size_t size_;
};

void write_entries(const cfg_entry *cfg, FILE *out)
{
    for (; cfg; cfg = cfg->next) (void)fprintf(out, line_format, cfg->key, cfg->value); // the stream keeps the failure
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
    const auto text = read_to_end(stream);
    return build({text.data(), text.size()});
}

void free_cfg(cfg_entry *cfg)
{
    while (cfg) {
        const block_of_records block{cfg};
        do {
            const cfg_entry entry = *cfg;
            if (entry.escaped != entry.value) block.release_unless_inside(entry.escaped);
            block.release_unless_inside(entry.key);
            block.release_unless_inside(entry.value);
            cfg = entry.next;
        } while (block.holds(cfg));
    }
}

void print_cfg(const cfg_entry *cfg) { write_entries(cfg, stdout); }

int save_cfg(const cfg_entry *cfg, const char *path)
{
    vela::file_ptr file{path ? fopen(path, "we") : nullptr};
    if (!file) return -1;
    (void)fprintf(file.get(), "%s\n", first_line);
    write_entries(cfg, file.get());
    const bool failed = ferror(file.get()) != 0;
    return fclose(file.release()) != 0 || failed ? -1 : 0;
}
