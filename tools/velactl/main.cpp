// velactl: the library from the command line.
#include "command.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vela/core/log.h>

namespace
{

using velactl::command;
using velactl::status;

struct group {
    const char *title;
    const std::span<const command> &commands;
};

const group groups[] = {
    {"The device", velactl::device_commands},
    {"Its configuration", velactl::config_commands},
    {"Daemons and services", velactl::service_commands},
    {"The network", velactl::network_commands},
    {"Radios and the mesh", velactl::wireless_commands},
};

std::string synopsis(const command &c) { return std::string(c.name) + (*c.parameters ? " " : "") + c.parameters; }

void help(FILE *out)
{
    fputs("usage: velactl [OPTION...] COMMAND [ARGUMENT...]\n\n"
          "  --json, -j      print JSON, for scripts\n"
          "  --config FILE   ask this configuration file instead of /tmp/system.cfg\n"
          "  --verbose, -v   show what the library logs, on standard error; twice: all of it\n"
          "  --help, -h      this page; velactl COMMAND --help for one command\n"
          "  --version       the library's version\n",
          out);
    for (const auto &g : groups) {
        fprintf(out, "\n%s\n", g.title);
        for (const auto &c : g.commands) {
            const std::string left = synopsis(c);
            fprintf(out, "  %-34s%s\n", left.c_str(), c.help);
        }
    }
    fputs("\nExit status: 0 done, 1 tried and failed, 2 wrong usage, 3 not on this host.\n", out);
}

const command *find(std::string_view name)
{
    for (const auto &g : groups) {
        const auto found =
            std::find_if(g.commands.begin(), g.commands.end(), [name](const auto &c) { return name == c.name; });
        if (found != g.commands.end()) return &*found;
    }
    return nullptr;
}

struct options {
    bool as_json = false;
    bool wants_help = false;
    bool wants_version = false;
    int verbose = 0;
    char **rest = nullptr; ///< the command and what follows it
};

options parse_options(char **argv)
{
    options given;
    for (given.rest = argv + 1; *given.rest && **given.rest == '-'; ++given.rest) {
        const std::string_view option = *given.rest;
        if (option == "--json" || option == "-j") {
            given.as_json = true;
        } else if (option == "--verbose" || option == "-v") {
            ++given.verbose;
        } else if (option == "--help" || option == "-h") {
            given.wants_help = true;
        } else if (option == "--version") {
            given.wants_version = true;
        } else if (option == "--config") {
            if (!given.rest[1]) throw velactl::trouble(status::misused, "--config wants a file");
            velactl::config_path = *++given.rest;
        } else {
            throw velactl::trouble(status::misused,
                                   "unknown option " + std::string(option) + "; velactl --help lists them");
        }
    }
    return given;
}

// A tool talks to a person: what the library logs is shown when asked for, and never goes to the system log.
void set_log(int verbose)
{
    setenv("LIBVELA_FACILITIES", verbose ? "stderr" : "none", 1);
    setenv("LIBVELA_VERBOSITY", verbose > 1 ? "trace" : "info", 1);
    libvela_log_init_from_env();
}

void show(const velactl::json &result, bool as_json)
{
    if (!result) return;
    if (!as_json) return velactl::print(result.get());
    json_dumpf(result.get(), stdout, JSON_INDENT(2) | JSON_ENCODE_ANY);
    putchar('\n');
}

status run(char **argv)
{
    const options given = parse_options(argv);
    if (given.wants_version) {
        puts("velactl " VELA_VERSION);
        return status::done;
    }
    if (given.wants_help || !*given.rest) {
        help(given.wants_help ? stdout : stderr);
        return given.wants_help ? status::done : status::misused;
    }
    const command *chosen = find(*given.rest);
    if (!chosen) {
        throw velactl::trouble(status::misused,
                               std::string("unknown command ") + *given.rest + "; velactl --help lists them");
    }
    size_t count = 0;
    while (given.rest[count + 1]) ++count;
    const velactl::arguments arguments{given.rest + 1, count};
    const std::string usage = "usage: velactl " + synopsis(*chosen);
    if (count == 1 && (strcmp(arguments[0], "--help") == 0 || strcmp(arguments[0], "-h") == 0)) {
        printf("%s\n%s\n", usage.c_str(), chosen->help);
        return status::done;
    }
    if (count < chosen->least || count > chosen->most) {
        throw velactl::trouble(status::misused, "arguments missing or too many; " + usage);
    }
    set_log(given.verbose);
    show(chosen->run(arguments), given.as_json);
    return status::done;
}

} // namespace

int main(int, char **argv)
{
    try {
        const status result = run(argv);
        if (fflush(stdout) != 0)
            throw velactl::trouble(status::failed, std::string("cannot write: ") + strerror(errno));
        return static_cast<int>(result);
    } catch (const velactl::trouble &t) {
        fprintf(stderr, "velactl: %s\n", t.what());
        return static_cast<int>(t.exits_with);
    } catch (const std::exception &e) {
        fprintf(stderr, "velactl: %s\n", e.what());
        return static_cast<int>(status::failed);
    }
}
