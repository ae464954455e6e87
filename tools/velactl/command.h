// One command of velactl: its row says everything the tool, its documents and its tests know of it; its function
// gathers the answer as a JSON value, and the tool prints that for people or for scripts.
#pragma once

#include <cstdint>
#include <jansson.h>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace velactl
{

struct drop_reference {
    void operator()(json_t *value) const { json_decref(value); }
};
using json = std::unique_ptr<json_t, drop_reference>;

/// What the tool exits with.
enum class status {
    done = 0,
    failed = 1,      ///< it was tried and did not work
    misused = 2,     ///< unknown command, missing or malformed argument
    unavailable = 3, ///< this host has no such thing: no board, no radio, no daemon
    late = 4,        ///< no answer within the time limit
};

/// Thrown by a command; the text says what to do.
struct trouble : std::runtime_error {
    trouble(status with, const std::string &text, int errno_value = 0)
        : std::runtime_error(text), exits_with(with), error(errno_value)
    {
    }
    status exits_with;
    int error; ///< what the kernel or the library gave as the reason, positive; 0: nothing. Shown with --verbose
};

/// Trouble for a negative errno of the library: a time limit and a missing thing have exit codes of their own.
trouble refused(const std::string &text, int negative_errno);

/// An option of one command. `value` names what follows it; empty for none.
struct option {
    const char *name; ///< "--follow"
    const char *value;
    const char *help;
};

/// The words after the command that are no options, and the options among them.
class arguments : public std::span<char *const>
{
public:
    struct chosen {
        std::string_view name;
        const char *value; ///< "" where the option takes none
    };
    arguments(std::span<char *const> words, std::span<const chosen> options)
        : std::span<char *const>(words), options_(options)
    {
    }
    [[nodiscard]] bool has(std::string_view option) const { return value(option) != nullptr; }
    [[nodiscard]] const char *value(std::string_view option) const; ///< null: not given

private:
    std::span<const chosen> options_;
};

/// What an answer is made of.
enum class answer { nothing, text, object, rows, any };
enum class kind { text, number, name, flag, list, object, rows }; // name: of a number, or the number

/// One member of an answer. A member that the answer lacks is null in JSON.
struct field {
    const char *name;
    kind holds;
    const char *meaning;
};

struct command {
    const char *name;
    const char *parameters;
    const char *help;
    size_t least, most; ///< number of arguments
    json (*run)(arguments given);
    answer gives = answer::any;
    std::span<const field> fields = {};
    std::span<const option> options = {};
    const char *more = ""; ///< further help, whole sentences
};

struct group {
    const char *title;
    const std::span<const command> &commands;
};
extern const std::span<const group> groups;

// Commands, by source.
extern const std::span<const command> device_commands;
extern const std::span<const command> monitor_commands;
extern const std::span<const command> config_commands;
extern const std::span<const command> service_commands;
extern const std::span<const command> provider_commands;
extern const std::span<const command> bus_commands;
extern const std::span<const command> network_commands;
extern const std::span<const command> link_commands;
extern const std::span<const command> wireless_commands;
extern const std::span<const command> why_commands;
extern const std::span<const command> station_commands;

/// Options that stand with any command.
struct settings {
    bool as_json = false;
    int verbose = 0;
    std::string config_path = "/tmp/system.cfg";
};
extern settings chosen;

const command *find_command(std::string_view name);
std::string synopsis(const command &c);

/// What holds back the thing that an explanation of the library is about, as a sentence; empty for nothing. Takes it.
std::string held_back(json_t *explanation);

// Help and documents, all from the rows.
void print_usage(FILE *out, std::span<const option> common);
void print_help(const command &c);
/// "man", "bash", "markdown" or "json"; false for another word.
bool print_document(std::string_view format, std::span<const option> common);
/// ", did you mean X?" for the known word nearest to a wrong one; empty when none is near.
std::string suggestion(std::string_view wrong, std::span<const char *const> known);
std::string suggested_command(std::string_view wrong);

// JSON values.
json object();
json text(const char *value);                                     ///< made UTF-8
void set(const json &object, const char *key, const char *value); ///< null: left out; made UTF-8
void set(const json &object, const char *key, const std::string &value);
void set(const json &object, const char *key, long long value);
void set_flag(const json &object, const char *key, bool value);
void set(const json &object, const char *key, json value);
void append(const json &array, json value);

/// "02:56:4c:00:00:0a".
std::string address(const uint8_t *mac);
/// The six bytes of such a text, or trouble that names the argument.
void address(const char *text, const char *what, uint8_t mac[6]);

/// A whole number from least to most, or trouble that names the argument.
long long number(const char *text, const char *what, long long least, long long most);

/// Prints a command's answer: as JSON in an envelope, or for people: objects as aligned lines, arrays of objects as
/// tables; "none" on standard error for an empty one.
void show(const command &c, json answer);
/// Prints one answer of many as one line: of JSON, or of the members' values.
void show_line(const command &c, json row);

/// What a wait shows on a terminal's standard error, and takes away again; nothing elsewhere.
class progress
{
public:
    explicit progress(const char *what);
    ~progress();
    progress(const progress &) = delete;
    progress &operator=(const progress &) = delete;

private:
    bool shown_;
};

/// Waits so long, for what is followed; false once the user or the system asks to end.
bool pause_ms(int ms);

} // namespace velactl
