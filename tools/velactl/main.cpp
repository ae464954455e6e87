// velactl: the library from the command line. Words are told apart here: options, the command, its arguments.
#include "command.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>
#include <vela/core/log.h>

namespace velactl
{

constexpr group all_groups[] = {
    {"The device", device_commands},
    {"What it is doing", monitor_commands},
    {"Its configuration", config_commands},
    {"Daemons and services", service_commands},
    {"What the daemons provide", provider_commands},
    {"The system bus", bus_commands},
    {"The network", network_commands},
    {"Interfaces and their neighbours", link_commands},
    {"Radios and the mesh", wireless_commands},
    {"Why", why_commands},
    {"Stations and channels", station_commands},
};
const std::span<const group> groups{all_groups};

settings chosen;

const char *arguments::value(std::string_view option) const
{
    for (const auto &given : options_) {
        if (given.name == option) return given.value;
    }
    return nullptr;
}

trouble refused(const std::string &text, int negative_errno)
{
    status with = status::failed;
    if (negative_errno == -ETIMEDOUT) with = status::late;
    if (negative_errno == -ENODEV || negative_errno == -ENOENT || negative_errno == -EOPNOTSUPP) {
        with = status::unavailable;
    }
    return {with, text, -negative_errno};
}

} // namespace velactl

namespace
{

using velactl::arguments;
using velactl::chosen;
using velactl::command;
using velactl::option;
using velactl::status;
using velactl::trouble;

/// An option that stands with any command.
struct common_option {
    option words;
    char letter; ///< '\0': none
    void (*take)(const char *value);
};

bool wants_help = false;
bool wants_version = false;
const char *wanted_document = nullptr;

constexpr common_option common[] = {
    {{"--json", "", "print JSON, for scripts"}, 'j', [](const char *) { chosen.as_json = true; }},
    {{"--config", "FILE", "ask this configuration file instead of /tmp/system.cfg"},
     '\0',
     [](const char *value) { chosen.config_path = value; }},
    {{"--verbose", "", "say why something failed and show what the library logs; twice: all of it"},
     'v',
     [](const char *) { ++chosen.verbose; }},
    {{"--help", "", "this page; with a command, what it does"}, 'h', [](const char *) { wants_help = true; }},
    {{"--version", "", "the library's version"}, '\0', [](const char *) { wants_version = true; }},
    {{"--document", "FORMAT", "print the man page (man), completion (bash), reference (markdown) or all of it (json)"},
     '\0',
     [](const char *value) { wanted_document = value; }},
};

constexpr auto common_words = [] {
    std::array<option, std::size(common)> words{};
    for (size_t i = 0; i < words.size(); ++i) words[i] = common[i].words;
    return words;
}();

const common_option *find_common(std::string_view name)
{
    const auto *found = std::find_if(std::begin(common), std::end(common), [name](const common_option &o) {
        return name == o.words.name || (o.letter && name.size() == 2 && name[0] == '-' && name[1] == o.letter);
    });
    return found == std::end(common) ? nullptr : found;
}

bool is_option(const char *word) { return word[0] == '-' && word[1] != '\0'; }
std::string_view name_of(const char *word) { return std::string_view(word).substr(0, strcspn(word, "=")); }

/// The first word that is neither an option nor the value of one that any command has.
char **find_command_word(char **argv)
{
    for (char **word = argv + 1; *word; ++word) {
        if (!is_option(*word)) return word;
        const common_option *known = find_common(name_of(*word));
        if (known && *known->words.value && !strchr(*word, '=') && word[1]) ++word;
    }
    return nullptr;
}

/// The command line, word by word. Options may stand anywhere; after "--" there are none.
struct command_line {
    const command *wanted = nullptr;
    std::vector<char *> words; ///< the command's arguments
    std::vector<arguments::chosen> options;
};

/// An option's value, behind its "=" or the next word; "" for one that takes none.
const char *value_of(const option &o, const char *word, char **&next)
{
    const char *equals = strchr(word, '=');
    if (!*o.value) {
        if (equals) throw trouble(status::misused, std::string(o.name) + " takes no value");
        return "";
    }
    if (equals) return equals + 1;
    if (!*next) throw trouble(status::misused, std::string(o.name) + " wants a value: " + o.value);
    return *next++;
}

[[noreturn]] void unknown_option(const command *c, std::string_view name)
{
    std::vector<const char *> known;
    const auto add_name = [&known](const option &o) { known.emplace_back(o.name); };
    std::for_each(common_words.begin(), common_words.end(), add_name);
    if (c) std::for_each(c->options.begin(), c->options.end(), add_name);
    throw trouble(status::misused, "unknown option " + std::string(name) + velactl::suggestion(name, known) +
                                       "; velactl --help lists them");
}

/// "-jv": several letters at once, each an option without a value.
bool take_letters(std::string_view letters)
{
    const auto known = [](char letter) { return find_common(std::string{'-', letter}) != nullptr; };
    if (letters.empty() || !std::all_of(letters.begin(), letters.end(), known)) return false;
    for (const char letter : letters) find_common(std::string{'-', letter})->take("");
    return true;
}

void take_option(command_line &line, const char *word, char **&next)
{
    const std::string_view name = name_of(word);
    if (const common_option *o = find_common(name)) return o->take(value_of(o->words, word, next));
    if (word[1] != '-' && take_letters(word + 1)) return;
    for (const option &o : line.wanted ? line.wanted->options : std::span<const option>{}) {
        if (name == o.name) return line.options.push_back({o.name, value_of(o, word, next)});
    }
    unknown_option(line.wanted, name);
}

/// "help COMMAND" is "COMMAND --help".
const command *read_command(const char *word)
{
    const command *found = velactl::find_command(word);
    if (found) return found;
    throw trouble(status::misused, std::string("unknown command ") + word + velactl::suggested_command(word) +
                                       "; velactl --help lists them");
}

command_line read(char **argv)
{
    command_line line;
    char **command_word = find_command_word(argv);
    char **help_word = nullptr;
    if (command_word && strcmp(*command_word, "help") == 0) {
        wants_help = true;
        help_word = command_word;
        command_word = find_command_word(command_word);
    }
    if (command_word) line.wanted = read_command(*command_word);
    bool options_over = false;
    for (char **next = argv + 1; *next;) {
        char **word = next++;
        if (word == command_word || word == help_word) continue;
        if (options_over || !is_option(*word)) {
            line.words.push_back(*word);
        } else if (strcmp(*word, "--") == 0) {
            options_over = true;
        } else {
            take_option(line, *word, next);
        }
    }
    return line;
}

// A tool talks to a person: what the library logs is shown when asked for, and never goes to the system log.
void set_log(int verbose)
{
    setenv("LIBVELA_FACILITIES", verbose ? "stderr" : "none", 1);
    setenv("LIBVELA_VERBOSITY", verbose > 1 ? "trace" : "info", 1);
    libvela_log_init_from_env();
}

status run(char **argv)
{
    const command_line line = read(argv);
    if (wanted_document) {
        if (velactl::print_document(wanted_document, common_words)) return status::done;
        throw trouble(status::misused,
                      std::string("no document \"") + wanted_document + "\": man, bash, markdown or json");
    }
    if (wants_version) {
        puts("velactl " VELA_VERSION);
        return status::done;
    }
    if (line.wanted && wants_help) {
        velactl::print_help(*line.wanted);
        return status::done;
    }
    if (!line.wanted) {
        velactl::print_usage(wants_help ? stdout : stderr, common_words);
        return wants_help ? status::done : status::misused;
    }
    const command &c = *line.wanted;
    if (line.words.size() < c.least || line.words.size() > c.most) {
        throw trouble(status::misused, std::string("arguments ") +
                                           (line.words.size() < c.least ? "missing" : "too many") +
                                           "; usage: velactl " + velactl::synopsis(c));
    }
    set_log(chosen.verbose);
    velactl::show(c, c.run({line.words, line.options}));
    return status::done;
}

} // namespace

int main(int, char **argv)
{
    try {
        const status result = run(argv);
        if (fflush(stdout) != 0) throw trouble(status::failed, "the output cannot be written", errno);
        return static_cast<int>(result);
    } catch (const trouble &t) {
        fprintf(stderr, "velactl: %s\n", t.what());
        if (chosen.verbose > 0 && t.error > 0)
            fprintf(stderr, "velactl: reason: %s (%d)\n", strerror(t.error), t.error);
        return static_cast<int>(t.exits_with);
    } catch (const std::exception &e) {
        fprintf(stderr, "velactl: %s\n", e.what());
        return static_cast<int>(status::failed);
    }
}
