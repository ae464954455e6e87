// One command of velactl: it gathers its answer as a JSON value; the tool prints it for people or for scripts.
#pragma once

#include <cstdint>
#include <jansson.h>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

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
};

/// Thrown by a command; the text says what to do.
struct trouble : std::runtime_error {
    trouble(status with, const std::string &text) : std::runtime_error(text), exits_with(with) {}
    status exits_with;
};

using arguments = std::span<char *const>;

struct command {
    const char *name;
    const char *parameters;
    const char *help;
    size_t least, most; ///< number of arguments
    json (*run)(arguments given);
};

// Commands, by source.
extern const std::span<const command> device_commands;
extern const std::span<const command> config_commands;
extern const std::span<const command> service_commands;
extern const std::span<const command> network_commands;
extern const std::span<const command> wireless_commands;

/// The configuration file to ask: --config, or the running one.
extern std::string config_path;

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

/// A whole number from least to most, or trouble that names the argument.
long long number(const char *text, const char *what, long long least, long long most);

/// Prints for people: objects as aligned lines, arrays of objects as tables; "none" on standard error for an empty one.
void print(const json_t *value);

} // namespace velactl
