// The device's configuration.
#include "command.h"

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

json rows(const cfg_entry *entries)
{
    json result{json_array()};
    for (const cfg_entry *e = entries; e; e = e->next) {
        json row = object();
        set(row, "key", e->key);
        set(row, "value", e->value);
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
    return rows(matches.get());
}

json section(arguments given)
{
    const config c = load(chosen.config_path);
    const iterator matches{get_cfg_section(c.get(), given.size() > 1 ? given[1] : nullptr, nullptr, "%s", given[0])};
    return rows(matches.get());
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
        set(row, "old", get_value(older.get(), nullptr, "%s", e->key));
        set(row, "new", get_value(newer.get(), nullptr, "%s", e->key));
        append(result, std::move(row));
    }
    return result;
}

constexpr command commands[] = {
    {"get", "KEY [DEFAULT]", "one value", 1, 2, get},
    {"list", "[PREFIX]", "the entries, or those whose key begins so", 0, 1, list},
    {"section", "PREFIX [.POSTFIX]", "numbered elements: section radio. .mode", 1, 2, section},
    {"diff", "OLD NEW", "what changed between two files", 2, 2, diff},
};

} // namespace

const std::span<const command> config_commands{commands};

} // namespace velactl
