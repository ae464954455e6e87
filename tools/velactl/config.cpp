// The device's configuration.
#include "command.h"

#include <algorithm>
#include <strings.h>
#include <vela/config/cfg.h>

namespace velactl
{

namespace
{

struct drop_config {
    void operator()(cfg_entry *config) const { free_cfg(config); }
};
struct drop_iterator {
    void operator()(cfg_entry *iterator) const { free_cfg_it(iterator); }
};
using config = std::unique_ptr<cfg_entry, drop_config>;
using iterator = std::unique_ptr<cfg_entry, drop_iterator>;

config load(const std::string &path)
{
    config loaded{parse(path.c_str())};
    if (!loaded) throw trouble(status::unavailable, path + " cannot be read, or holds no \"key=value\" line");
    return loaded;
}

/// The last part of a key tells what its value is: "wireless.1.security.psk". These unlock something.
constexpr std::string_view secret_words[] = {"psk",    "key",    "password", "passphrase",
                                             "secret", "passwd", "token",    "pin"};
constexpr const char *masked = "********";
constexpr option show_secrets = {"--secrets", "", "show keys and passwords, which are masked otherwise"};
constexpr option secret_options[] = {show_secrets};

bool is_secret(std::string_view key)
{
    const std::string_view last = key.substr(key.rfind('.') + 1); // npos + 1 is 0
    return std::any_of(std::begin(secret_words), std::end(secret_words), [last](std::string_view word) {
        return last.size() >= word.size() &&
               strncasecmp(last.data() + last.size() - word.size(), word.data(), word.size()) == 0;
    });
}

const char *shown(const char *key, const char *value, const arguments &given)
{
    return value && is_secret(key) && !given.has(show_secrets.name) ? masked : value;
}

json rows(const cfg_entry *entries, const arguments &given)
{
    json result{json_array()};
    for (const cfg_entry *e = entries; e; e = e->next) {
        json row = object();
        set(row, "key", e->key);
        set(row, "value", shown(e->key, e->value, given));
        append(result, std::move(row));
    }
    return result;
}

json get(arguments given)
{
    const config c = load(chosen.config_path);
    const char *value = get_value(c.get(), given.size() > 1 ? given[1] : nullptr, "%s", given[0]);
    if (!value) throw trouble(status::failed, std::string("no key \"") + given[0] + "\"; velactl list shows them");
    return text(value);
}

json list(arguments given)
{
    const config c = load(chosen.config_path);
    const iterator matches{get_cfg_it(c.get(), 0, "%s", given.empty() ? "" : given[0])};
    return rows(matches.get(), given);
}

json section(arguments given)
{
    const config c = load(chosen.config_path);
    const iterator matches{get_cfg_section(c.get(), given.size() > 1 ? given[1] : nullptr, nullptr, "%s", given[0])};
    return rows(matches.get(), given);
}

json diff(arguments given)
{
    const config older = load(given[0]);
    const config newer = load(given[1]);
    const iterator changes{get_cfg_diff_it(older.get(), newer.get())};
    json result{json_array()};
    for (const cfg_entry *e = changes.get(); e; e = e->next) {
        json row = object();
        set(row, "key", e->key);
        const bool stays = get_value(newer.get(), nullptr, "%s", e->key) != nullptr;
        const char *before = stays ? get_value(older.get(), nullptr, "%s", e->key) : e->value;
        set(row, "old", shown(e->key, before, given));
        set(row, "new", shown(e->key, stays ? e->value : nullptr, given));
        append(result, std::move(row));
    }
    return result;
}

constexpr field entry_fields[] = {
    {"key", kind::text, "the whole key"},
    {"value", kind::text, "its value; masked for keys and passwords"},
};
constexpr field change_fields[] = {
    {"key", kind::text, "a key whose value differs"},
    {"old", kind::text, "its value in OLD; null where it has none"},
    {"new", kind::text, "its value in NEW; null where it has none"},
};

constexpr command commands[] = {
    {"get", "KEY [DEFAULT]", "one value", 1, 2, get, answer::text},
    {"list", "[PREFIX]", "the entries, or those whose key begins so", 0, 1, list, answer::rows, entry_fields,
     secret_options},
    {"section", "PREFIX [.POSTFIX]", "numbered elements: section radio. .mode", 1, 2, section, answer::rows,
     entry_fields, secret_options, "A prefix wants its final dot: \"radio\" does not match radio.1.mode."},
    {"diff", "OLD NEW", "what changed between two files", 2, 2, diff, answer::rows, change_fields, secret_options},
};

} // namespace

const std::span<const command> config_commands{commands};

} // namespace velactl
