// How velactl prints: answers for people and for scripts, and what a wait shows.
#include "command.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>
#include <vector>
#include <vela/core/util.h>
#include <vela/net/gateway.h>

namespace velactl
{
namespace
{

std::string as_text(const json_t *value)
{
    switch (json_typeof(value)) {
    case JSON_STRING: return json_string_value(value);
    case JSON_INTEGER: return std::to_string(json_integer_value(value));
    case JSON_TRUE: return "yes";
    case JSON_FALSE: return "no";
    case JSON_NULL: return "-";
    default: break;
    }
    char *dumped = json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY);
    std::string text = dumped ? dumped : "";
    free(dumped);
    return text;
}

/// One line, as a terminal may have it: names come from the air, and a control character in one is a command to it.
void say(std::string line)
{
    for (size_t i = 0; i < line.size(); ++i) {
        const auto byte = static_cast<unsigned char>(line[i]);
        if ((byte < ' ' && byte != '\t') || byte == 0x7f) line[i] = '?';
        if (byte == 0xc2 && static_cast<unsigned char>(line[i + 1]) < 0xa0) line.replace(i, 2, "?"); // U+0080 to U+009F
    }
    puts(line.c_str());
}

std::string list(const json_t *array)
{
    std::string text;
    for (size_t i = 0; i < json_array_size(array); ++i) {
        text += (i ? ", " : "") + as_text(json_array_get(array, i));
    }
    return text;
}

bool is_table(const json_t *value) { return json_array_size(value) != 0 && json_is_object(json_array_get(value, 0)); }

void print_row(const std::vector<std::string> &cells, const std::vector<size_t> &widths)
{
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) {
        line += cells[i];
        if (i + 1 != cells.size()) line.append(widths[i] - cells[i].size() + 2, ' ');
    }
    say(std::move(line));
}

/// The members that are known in any row, in the order in which they first come.
std::vector<std::string> columns(const json_t *rows)
{
    std::vector<std::string> names;
    for (size_t i = 0; i < json_array_size(rows); ++i) {
        const char *key = nullptr;
        json_t *member = nullptr;
        json_object_foreach(json_array_get(rows, i), key, member)
        {
            if (json_is_null(member)) continue;
            if (std::find(names.begin(), names.end(), key) == names.end()) names.emplace_back(key);
        }
    }
    return names;
}

void print_table(const json_t *rows)
{
    std::vector<std::vector<std::string>> cells{columns(rows)};
    for (size_t i = 0; i < json_array_size(rows); ++i) {
        auto &row = cells.emplace_back();
        for (const auto &column : cells[0]) {
            const json_t *cell = json_object_get(json_array_get(rows, i), column.c_str());
            row.push_back(cell ? as_text(cell) : "-");
        }
    }
    std::vector<size_t> widths(cells[0].size());
    for (const auto &row : cells) {
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    for (const auto &row : cells) print_row(row, widths);
}

void print_object(json_t *value)
{
    size_t width = 0;
    const char *key = nullptr;
    json_t *member = nullptr;
    json_object_foreach(value, key, member)
    {
        if (!is_table(member)) width = std::max(width, std::string(key).size());
    }
    json_object_foreach(value, key, member)
    {
        if (is_table(member)) {
            say("");
            say(std::string(key) + ":");
            print_table(member);
        } else {
            const std::string text = json_is_array(member) ? list(member) : as_text(member);
            std::string line = key;
            line.append(width - line.size() + 2, ' ');
            say(line + text);
        }
    }
}

} // namespace

json object() { return json{json_object()}; }

json text(const char *value)
{
    std::string clean = value; // names come from the air, values from a file
    utf8_sanitize(clean.data());
    return json{json_string(clean.c_str())};
}

void set(const json &object, const char *key, const char *value)
{
    if (value) set(object, key, std::string(value));
}

void set(const json &object, const char *key, const std::string &value) { set(object, key, text(value.c_str())); }

void set(const json &object, const char *key, long long value)
{
    json_object_set_new(object.get(), key, json_integer(value));
}

void set_flag(const json &object, const char *key, bool value)
{
    json_object_set_new(object.get(), key, json_boolean(value));
}

void set(const json &object, const char *key, json value) { json_object_set_new(object.get(), key, value.release()); }

void append(const json &array, json value) { json_array_append_new(array.get(), value.release()); }

std::string address(const uint8_t *mac)
{
    char text[18];
    return gateway_mac_to_str(mac, text, sizeof text) == 0 ? text : "";
}

long long number(const char *text, const char *what, long long least, long long most)
{
    char *end = nullptr;
    errno = 0;
    const long long value = strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < least || value > most) {
        throw trouble(status::misused, std::string(what) + " must be a whole number from " + std::to_string(least) +
                                           " to " + std::to_string(most) + ", not \"" + text + "\"");
    }
    return value;
}

void address(const char *text, const char *what, uint8_t mac[6])
{
    unsigned parts[6];
    char end = 0;
    const int read = sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x%c", &parts[0], &parts[1], &parts[2], &parts[3], &parts[4],
                            &parts[5], &end);
    if (read != 6) {
        throw trouble(status::misused,
                      std::string(what) + " must be six hexadecimal bytes with colons, not \"" + text + "\"");
    }
    for (int i = 0; i < 6; ++i) mac[i] = static_cast<uint8_t>(parts[i]);
}

namespace
{

void print(const json_t *value)
{
    if (is_table(value)) {
        print_table(value);
    } else if (json_is_object(value)) {
        print_object(const_cast<json_t *>(value));
    } else if (json_is_array(value)) {
        if (json_array_size(value) == 0) fputs("none\n", stderr);
        for (size_t i = 0; i < json_array_size(value); ++i) say(as_text(json_array_get(value, i)));
    } else {
        say(as_text(value));
    }
}

/// Every member of the command's table is there, in its order, null where nothing is known; others follow.
void complete(const command &c, json &row)
{
    if (c.fields.empty() || !json_is_object(row.get())) return;
    json whole = object();
    for (const field &f : c.fields) {
        json_t *member = json_object_get(row.get(), f.name);
        json_object_set_new(whole.get(), f.name, member ? json_incref(member) : json_null());
    }
    json_object_update_missing(whole.get(), row.get());
    row = std::move(whole);
}

void complete_all(const command &c, json &answer)
{
    if (!json_is_array(answer.get())) return complete(c, answer);
    for (size_t i = 0; i < json_array_size(answer.get()); ++i) {
        json row{json_incref(json_array_get(answer.get(), i))};
        complete(c, row);
        json_array_set_new(answer.get(), i, row.release());
    }
}

/// The version changes when a member changes its meaning or goes; members may be added at any time.
constexpr int schema = 1;

void print_json(const command &c, json answer, size_t flags)
{
    json envelope = object();
    set(envelope, "schema", schema);
    set(envelope, "command", c.name);
    set(envelope, "result", answer ? std::move(answer) : json{json_null()});
    json_dumpf(envelope.get(), stdout, flags);
    putchar('\n');
}

} // namespace

void show(const command &c, json answer)
{
    const bool followed = !answer && (c.gives == velactl::answer::rows || c.gives == velactl::answer::object);
    if (followed) return; // every line was shown as it came
    complete_all(c, answer);
    if (chosen.as_json) return print_json(c, std::move(answer), JSON_INDENT(2));
    if (answer) print(answer.get());
}

void show_line(const command &c, json row)
{
    complete(c, row);
    if (chosen.as_json) {
        print_json(c, std::move(row), JSON_COMPACT);
    } else {
        std::string line;
        const char *key = nullptr;
        json_t *member = nullptr;
        json_object_foreach(row.get(), key, member)
        {
            if (!json_is_null(member)) line += (line.empty() ? "" : "  ") + std::string(key) + " " + as_text(member);
        }
        say(std::move(line));
    }
    fflush(stdout);
}

progress::progress(const char *what) : shown_(isatty(STDERR_FILENO) != 0)
{
    if (shown_) fprintf(stderr, "%s ...", what);
}

progress::~progress()
{
    if (shown_) fputs("\r\033[K", stderr);
}

bool pause_ms(int ms)
{
    sigset_t endings;
    sigemptyset(&endings);
    sigaddset(&endings, SIGINT);
    sigaddset(&endings, SIGTERM);
    const timespec limit = {ms / 1000, static_cast<long>(ms % 1000) * 1000000};
    sigprocmask(SIG_BLOCK, &endings, nullptr); // kept blocked: one that comes between two waits ends the next
    return sigtimedwait(&endings, nullptr, &limit) < 0;
}

} // namespace velactl
