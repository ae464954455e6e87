#include "command.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>
#include <vela/core/util.h>

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

/// The members of all rows, in the order in which they first come.
std::vector<std::string> columns(const json_t *rows)
{
    std::vector<std::string> names;
    for (size_t i = 0; i < json_array_size(rows); ++i) {
        const char *key = nullptr;
        json_t *member = nullptr;
        json_object_foreach(json_array_get(rows, i), key, member)
        {
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
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
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

} // namespace velactl
