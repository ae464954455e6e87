// Iterators have a record of their own for each match, so that they can be joined and taken apart.

#include <optional>
#include <vela/config/internal/cfg_key.h>
#include <vela/config/internal/cfg_value.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>

namespace
{

constexpr const char *log_module = "cfg";
constexpr const char *comment_component = "comment";

/// Takes matches in their order; the list is the caller's.
class collector
{
public:
    explicit collector(const char *function) : function_{function} {}

    /// False stops the walk.
    bool add(const cfg_entry &match)
    {
        if ((first_ == nullptr) != (last_ == nullptr)) {
            log_error_as(function_, "invalid ctx state");
            return false;
        }
        auto record = vela::make_zeroed<cfg_entry>();
        if (!record) vela::out_of_memory("cfg", __LINE__);
        record->key = match.key;
        record->value = match.value;
        (last_ ? last_->next : first_) = record.get();
        last_ = record.release();
        return true;
    }

    [[nodiscard]] cfg_entry *list() const { return first_; }

private:
    const char *function_;
    cfg_entry *first_ = nullptr;
    cfg_entry *last_ = nullptr;
};

/// Counts matches where only their number is asked for.
struct counter {
    bool add(const cfg_entry & /*match*/)
    {
        ++count;
        return true;
    }
    int count = 0;
};

/// Hands every entry that matches to a sink.
template <class Match, class Sink> void walk(const cfg_entry *cfg, const Match &match, Sink &sink)
{
    for (; cfg; cfg = cfg->next) {
        if (match.holds(*cfg) && !sink.add(*cfg)) return;
    }
}

/// Keys that equal a formatted one, or begin with it.
template <class Sink>
void walk_keys(const char *function, const cfg_entry *cfg, int exact, const char *format, va_list args, Sink &sink)
{
    struct equal_key {
        bool holds(const cfg_entry &e) const { return key.equals(e.key); }
        vela::wanted_key key;
    };
    struct same_start {
        bool holds(const cfg_entry &e) const { return e.key && strncmp(e.key, prefix.data(), prefix.size()) == 0; }
        std::string_view prefix;
    };

    const vela::formatted_key key{format, args};
    if (!key.ok()) {
        log_error_as(function, "OOM");
        return;
    }
    if (exact) {
        walk(cfg, equal_key{vela::wanted_key{key}}, sink);
    } else {
        walk(cfg, same_start{key.view()}, sink);
    }
}

/// The numbered elements of a section.
struct element_match {
    [[nodiscard]] bool holds(const cfg_entry &e) const
    {
        if (!e.key || strncmp(e.key, prefix.data(), prefix.size()) != 0) return false;
        const char *number = e.key + prefix.size();
        char *end = nullptr;
        (void)strtol(number, &end, 0);
        return end != number && ends_right(end) && has_value(vela::view(e.value));
    }
    [[nodiscard]] bool ends_right(const char *rest) const
    {
        if (!postfix) return *rest == '\0';
        const char *dot = strchr(rest, '.');
        return dot && vela::natural_compare(dot, postfix) == 0;
    }
    [[nodiscard]] bool has_value(std::string_view text) const
    {
        if (enabled_only && !vela::switch_value(text).value_or(false)) return false;
        return !value || text == value;
    }

    const char *postfix;
    const char *value;
    bool enabled_only = false;
    std::string_view prefix = {};
};

template <class Sink>
void walk_section(const char *function, const cfg_entry *cfg, element_match match, const char *format, va_list args,
                  Sink &sink)
{
    if (match.postfix && *match.postfix != '.') {
        log_error_as(function, "postfix must start with '.': '%s'", match.postfix);
        return;
    }
    const vela::formatted_key prefix{format, args};
    if (!prefix.ok()) {
        log_error_as(function, "OOM");
        return;
    }
    match.prefix = prefix.view();
    if (match.prefix.empty() || match.prefix.back() != '.') {
        log_warn_as(function, "deprecated prefix doesn't end with '.': '%s' => '%s'", format, prefix.c_str());
    }
    const vela::errno_keeper keep; // many a key has no number there
    walk(cfg, match, sink);
}

/// Merges two sorted lists; of equal keys those of the first stay ahead.
cfg_entry *merge(cfg_entry *a, cfg_entry *b)
{
    cfg_entry *merged = nullptr;
    cfg_entry **end = &merged;
    while (a && b) {
        cfg_entry *&smaller = vela::natural_compare(a->key, b->key) <= 0 ? a : b;
        *end = smaller;
        end = &smaller->next;
        smaller = smaller->next;
    }
    *end = a ? a : b;
    return merged;
}

/// Takes the next `count` records off a list and returns them sorted.
cfg_entry *take_sorted(cfg_entry *&list, int count)
{
    if (count == 1) {
        cfg_entry *record = list;
        list = record->next;
        record->next = nullptr;
        return record;
    }
    cfg_entry *first_half = take_sorted(list, count / 2);
    return merge(first_half, take_sorted(list, count - count / 2));
}

bool is_comment(const char *key)
{
    const char *dot = key ? strrchr(key, '.') : nullptr;
    return dot && strcmp(dot + 1, comment_component) == 0;
}

vela::key_index index_of(const cfg_entry *cfg)
{
    vela::key_index index{static_cast<size_t>(get_cfg_count(cfg))};
    for (; cfg; cfg = cfg->next) index.add(cfg);
    return index;
}

} // namespace

cfg_entry *get_cfg_it(const cfg_entry *cfg, int exact, const char *format, ...)
{
    collector matches{__func__};
    va_list args;
    va_start(args, format);
    walk_keys(__func__, cfg, exact, format, args, matches);
    va_end(args);
    return matches.list();
}

int get_cfg_key_count(const cfg_entry *cfg, int exact, const char *format, ...)
{
    counter matches;
    va_list args;
    va_start(args, format);
    walk_keys(__func__, cfg, exact, format, args, matches);
    va_end(args);
    return matches.count;
}

cfg_entry *get_cfg_section(const cfg_entry *cfg, const char *postfix, const char *value, const char *format, ...)
{
    collector elements{__func__};
    va_list args;
    va_start(args, format);
    walk_section(__func__, cfg, {postfix, value}, format, args, elements);
    va_end(args);

    cfg_entry *list = elements.list();
    const int count = get_cfg_count(list);
    return count == 0 ? nullptr : take_sorted(list, count);
}

int get_cfg_section_count(const cfg_entry *cfg, const char *postfix, const char *value, const char *format, ...)
{
    counter elements;
    va_list args;
    va_start(args, format);
    walk_section(__func__, cfg, {postfix, value}, format, args, elements);
    va_end(args);
    return elements.count;
}

int get_cfg_section_enabled_count(const cfg_entry *cfg, const char *postfix, const char *format, ...)
{
    counter elements;
    va_list args;
    va_start(args, format);
    walk_section(__func__, cfg, {postfix, nullptr, true}, format, args, elements);
    va_end(args);
    return elements.count;
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
    struct changed {
        bool holds(const cfg_entry &e) const
        {
            if (is_comment(e.key)) return false;
            const cfg_entry *before = old_keys.find(e.key);
            return !before || vela::view(before->value) != vela::view(e.value);
        }
        vela::key_index old_keys;
    };
    struct removed {
        bool holds(const cfg_entry &e) const { return !is_comment(e.key) && !new_keys.find(e.key); }
        vela::key_index new_keys;
    };

    collector changes{__func__};
    walk(new_cfg, changed{index_of(old_cfg)}, changes);
    walk(old_cfg, removed{index_of(new_cfg)}, changes);
    return changes.list();
}
