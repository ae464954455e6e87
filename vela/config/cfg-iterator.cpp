// Makes iterators: lists of the entries that match. Each has a record of its own for every match, so that iterators can
// be joined and taken apart.

#include <vela/config/internal/cfg_key.h>
#include <vela/config/internal/cfg_value.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>

namespace
{

constexpr const char *log_module = "cfg";
constexpr const char *comment_component = "comment";

/// Builds an iterator, match by match.
struct iterator {
    cfg_entry *list = nullptr;
    cfg_entry **end = &list;

    void add(const cfg_entry &match)
    {
        auto record = vela::make_zeroed<cfg_entry>();
        if (!record) vela::out_of_memory("cfg", __LINE__);
        record->key = match.key;
        record->value = match.value;
        *end = record.release();
        end = &(*end)->next;
    }
};

template <class Match> cfg_entry *collect(const cfg_entry *cfg, const Match &matches)
{
    iterator found;
    for (; cfg; cfg = cfg->next) {
        if (matches(*cfg)) found.add(*cfg);
    }
    return found.list;
}

template <class Match> int count(const cfg_entry *cfg, const Match &matches)
{
    int n = 0;
    for (; cfg; cfg = cfg->next) n += matches(*cfg);
    return n;
}

/// Matches keys that equal a formatted one, or begin with it.
class key_match
{
public:
    VELA_PRINTF(4, 0)
    key_match(const char *function, bool exact, const char *format, va_list args)
        : exact_{exact}, key_{function, format, args}
    {
    }
    bool operator()(const cfg_entry &e) const
    {
        return key_.ok() && (exact_ ? key_.equals(e.key) : key_.begins(e.key));
    }

private:
    bool exact_;
    vela::wanted_key key_;
};

/// Matches the numbered elements of a section.
class element_match
{
public:
    VELA_PRINTF(5, 0)
    element_match(const char *function, const char *postfix, const char *value, const char *format, va_list args)
        : postfix_{postfix}, value_{value}, prefix_{function, format, args}
    {
        if (postfix && *postfix != '.') {
            log_error_as(function, "postfix must start with '.': '%s'", postfix);
            return;
        }
        if (!prefix_.ok()) return;
        if (prefix_.size() == 0 || prefix_.c_str()[prefix_.size() - 1] != '.')
            log_warn_as(function, "deprecated prefix doesn't end with '.': '%s' => '%s'", format, prefix_.c_str());
        ok_ = true;
    }
    bool operator()(const cfg_entry &e) const
    {
        if (!ok_ || !prefix_.begins(e.key)) return false;
        const vela::errno_keeper keep; // many a key has no number there
        const char *number = e.key + prefix_.size();
        char *end = nullptr;
        (void)strtol(number, &end, 0);
        return end != number && ends_right(end) && (!value_ || vela::view(e.value) == value_);
    }

private:
    [[nodiscard]] bool ends_right(const char *rest) const
    {
        if (!postfix_) return *rest == '\0';
        const char *dot = strchr(rest, '.');
        return dot && vela::natural_compare(dot, postfix_) == 0;
    }

    const char *postfix_;
    const char *value_;
    vela::wanted_key prefix_;
    bool ok_ = false;
};

cfg_entry *sorted(cfg_entry *list)
{
    cfg_entry **end = &list;
    for (const auto &place : vela::sorted_entries{list}) {
        *end = place.entry;
        end = &place.entry->next;
    }
    *end = nullptr;
    return list;
}

bool is_comment(const char *key)
{
    const char *dot = key ? strrchr(key, '.') : nullptr;
    return dot && strcmp(dot + 1, comment_component) == 0;
}

} // namespace

cfg_entry *get_cfg_it(const cfg_entry *cfg, int exact, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const key_match matches{__func__, exact != 0, format, args};
    va_end(args);
    return collect(cfg, matches);
}

int get_cfg_key_count(const cfg_entry *cfg, int exact, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const key_match matches{__func__, exact != 0, format, args};
    va_end(args);
    return count(cfg, matches);
}

cfg_entry *get_cfg_section(const cfg_entry *cfg, const char *postfix, const char *value, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const element_match matches{__func__, postfix, value, format, args};
    va_end(args);
    return sorted(collect(cfg, matches));
}

int get_cfg_section_count(const cfg_entry *cfg, const char *postfix, const char *value, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const element_match matches{__func__, postfix, value, format, args};
    va_end(args);
    return count(cfg, matches);
}

int get_cfg_section_enabled_count(const cfg_entry *cfg, const char *postfix, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const element_match matches{__func__, postfix, nullptr, format, args};
    va_end(args);
    return count(
        cfg, [&](const cfg_entry &e) { return matches(e) && vela::switch_value(vela::view(e.value)).value_or(false); });
}

cfg_entry *cfg_it_append(cfg_entry *it, cfg_entry **more)
{
    if (!more || !*more) return it;
    cfg_entry **end = &it;
    while (*end) end = &(*end)->next;
    *end = *more;
    *more = nullptr;
    return it;
}

void free_cfg_it(cfg_entry *it)
{
    while (it) {
        cfg_entry *next = it->next;
        if (it->escaped != it->value) free(it->escaped);
        free(it);
        it = next;
    }
}

cfg_entry *get_cfg_diff_it(const cfg_entry *old_cfg, const cfg_entry *new_cfg)
{
    const vela::sorted_entries before{old_cfg};
    const vela::sorted_entries after{new_cfg};
    iterator changes;
    for (; new_cfg; new_cfg = new_cfg->next) {
        if (is_comment(new_cfg->key)) continue;
        const cfg_entry *old = before.find(new_cfg->key);
        if (!old || vela::view(old->value) != vela::view(new_cfg->value)) changes.add(*new_cfg);
    }
    for (; old_cfg; old_cfg = old_cfg->next) {
        if (!is_comment(old_cfg->key) && !after.find(old_cfg->key)) changes.add(*old_cfg);
    }
    return changes.list;
}
