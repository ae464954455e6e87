// What velactl says of itself: help, man page, completion and reference, all made from the rows of its commands.
#include "command.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <vector>

namespace velactl
{
namespace
{

constexpr const char *exit_texts[] = {
    "done",
    "tried and failed",
    "wrong usage",
    "not on this host: no such device, daemon or kernel interface",
    "no answer within the time limit",
};

/// Number of single-letter changes that make one word of the other.
size_t distance(std::string_view a, std::string_view b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (size_t i = 0; i < a.size(); ++i) {
        size_t corner = row[0]++;
        for (size_t j = 0; j < b.size(); ++j) {
            const size_t changed = corner + (a[i] == b[j] ? 0 : 1);
            corner = row[j + 1];
            row[j + 1] = std::min({row[j] + 1, row[j + 1] + 1, changed});
        }
    }
    return row.back();
}

template <class Each> void for_each_command(Each each)
{
    for (const group &g : groups) {
        for (const command &c : g.commands) each(c);
    }
}

std::string option_text(const option &o) { return std::string(o.name) + (*o.value ? " " : "") + o.value; }

const char *name_of(kind k)
{
    switch (k) {
    case kind::text: return "text";
    case kind::number: return "number";
    case kind::name: return "text or number";
    case kind::flag: return "true or false";
    case kind::list: return "list";
    case kind::object: return "object";
    case kind::rows: return "list of objects";
    }
    return "";
}

const char *name_of(answer a)
{
    switch (a) {
    case answer::nothing: return "nothing";
    case answer::text: return "one text";
    case answer::object: return "an object";
    case answer::rows: return "a list of objects";
    case answer::any: return "what was asked for";
    }
    return "";
}

void print_man(std::span<const option> common)
{
    puts(".TH VELACTL 8 \"\" \"velactl " VELA_VERSION "\" \"System administration\"\n"
         ".SH NAME\nvelactl \\- ask and steer an access point through libvela\n"
         ".SH SYNOPSIS\n.B velactl\n[\\fIOPTION\\fR...] \\fICOMMAND\\fR [\\fIARGUMENT\\fR...]\n.SH OPTIONS");
    const auto print_option = [](const option &o) {
        printf(".TP\n\\fB%s\\fR%s%s\n%s\n", o.name, *o.value ? " " : "", o.value, o.help);
    };
    for (const option &o : common) print_option(o);
    for (const group &g : groups) {
        printf(".SH %s\n", g.title);
        for (const command &c : g.commands) {
            printf(".TP\n\\fB%s\\fR %s\n%s%s%s\n", c.name, c.parameters, c.help, *c.more ? ". " : "", c.more);
            if (c.options.empty()) continue;
            puts(".RS");
            for (const option &o : c.options) print_option(o);
            puts(".RE");
        }
    }
    puts(".SH EXIT STATUS");
    for (size_t i = 0; i < std::size(exit_texts); ++i) printf(".TP\n%zu\n%s\n", i, exit_texts[i]);
}

void print_bash(std::span<const option> common)
{
    puts("# Completion of velactl for bash: commands, and the options that each has.\n_velactl() {\n"
         "    local word=${COMP_WORDS[COMP_CWORD]} command= i\n"
         "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
         "        case ${COMP_WORDS[i]} in -* | help) ;; *) command=${COMP_WORDS[i]}; break ;; esac\n"
         "    done\n    local common=\"");
    for (const option &o : common) printf(" %s", o.name);
    puts("\"\n    case $command in");
    printf("    '') COMPREPLY=($(compgen -W \"help");
    for_each_command([](const command &c) { printf(" %s", c.name); });
    puts(" $common\" -- \"$word\")) ;;");
    for_each_command([](const command &c) {
        if (c.options.empty()) return;
        printf("    %s) COMPREPLY=($(compgen -W \"", c.name);
        for (const option &o : c.options) printf("%s ", o.name);
        puts("$common\" -- \"$word\")) ;;");
    });
    puts("    *) COMPREPLY=($(compgen -W \"$common\" -- \"$word\")) ;;\n    esac\n}\n"
         "complete -o default -F _velactl velactl");
}

void print_markdown(std::span<const option> common)
{
    puts("# velactl\n\nThe library from the command line. This page is made by `velactl --document markdown`.\n");
    puts("    velactl [OPTION...] COMMAND [ARGUMENT...]\n");
    for (const option &o : common) printf("- `%s`: %s\n", option_text(o).c_str(), o.help);
    puts("\nWith `--json` every answer stands in the same envelope: `{\"schema\": 1, \"command\": \"NAME\", "
         "\"result\": ...}`.\n"
         "What is not known is `null`. A followed answer is one such line after the other.\n\n| exit | meaning "
         "|\n|---|---|");
    for (size_t i = 0; i < std::size(exit_texts); ++i) printf("| %zu | %s |\n", i, exit_texts[i]);
    for (const group &g : groups) {
        printf("\n## %s\n", g.title);
        for (const command &c : g.commands) {
            printf("\n### `%s`\n\n%s.%s%s\n", synopsis(c).c_str(), c.help, *c.more ? " " : "", c.more);
            if (!c.options.empty()) puts("");
            for (const option &o : c.options) printf("- `%s`: %s\n", option_text(o).c_str(), o.help);
            if (c.gives == answer::any) continue;
            printf("\nGives %s%s\n", name_of(c.gives),
                   c.fields.empty() ? "." : ":\n\n| member | holds | meaning |\n|---|---|---|");
            for (const field &f : c.fields) printf("| `%s` | %s | %s |\n", f.name, name_of(f.holds), f.meaning);
        }
    }
}

json options_json(std::span<const option> options)
{
    json list{json_array()};
    for (const option &o : options) {
        json each = object();
        set(each, "name", o.name);
        set(each, "value", o.value);
        set(each, "help", o.help);
        append(list, std::move(each));
    }
    return list;
}

json fields_json(std::span<const field> fields)
{
    json list{json_array()};
    for (const field &f : fields) {
        json each = object();
        set(each, "name", f.name);
        set(each, "holds", name_of(f.holds));
        set(each, "meaning", f.meaning);
        append(list, std::move(each));
    }
    return list;
}

/// The rows themselves, for programs.
void print_rows(std::span<const option> common)
{
    json commands{json_array()};
    for_each_command([&commands](const command &c) {
        json each = object();
        set(each, "name", c.name);
        set(each, "parameters", c.parameters);
        set(each, "help", c.help);
        set(each, "gives", name_of(c.gives));
        set(each, "members", fields_json(c.fields));
        set(each, "options", options_json(c.options));
        append(commands, std::move(each));
    });
    json document = object();
    set(document, "options", options_json(common));
    set(document, "commands", std::move(commands));
    json_dumpf(document.get(), stdout, JSON_INDENT(1));
    putchar('\n');
}

} // namespace

const command *find_command(std::string_view name)
{
    const command *found = nullptr;
    for_each_command([&](const command &c) {
        if (name == c.name) found = &c;
    });
    return found;
}

std::string synopsis(const command &c) { return std::string(c.name) + (*c.parameters ? " " : "") + c.parameters; }

void print_usage(FILE *out, std::span<const option> common)
{
    fputs("usage: velactl [OPTION...] COMMAND [ARGUMENT...]\n\n", out);
    for (const option &o : common) fprintf(out, "  %-34s%s\n", option_text(o).c_str(), o.help);
    for (const group &g : groups) {
        fprintf(out, "\n%s\n", g.title);
        for (const command &c : g.commands) fprintf(out, "  %-34s%s\n", synopsis(c).c_str(), c.help);
    }
    fputs("\nShort: -j, -v, -vv, -h. velactl help COMMAND tells more of one.\nExit status: ", out);
    for (size_t i = 0; i < std::size(exit_texts); ++i) fprintf(out, "%s%zu %s", i ? "; " : "", i, exit_texts[i]);
    fputs(".\n", out);
}

void print_help(const command &c)
{
    printf("usage: velactl %s\n\n%s", synopsis(c).c_str(), c.help);
    printf(".%s%s\n", *c.more ? " " : "", c.more);
    if (!c.options.empty()) puts("");
    for (const option &o : c.options) printf("  %-24s%s\n", option_text(o).c_str(), o.help);
    if (c.fields.empty()) return;
    printf("\nWith --json it gives %s of:\n", name_of(c.gives));
    for (const field &f : c.fields) printf("  %-24s%s (%s)\n", f.name, f.meaning, name_of(f.holds));
}

bool print_document(std::string_view format, std::span<const option> common)
{
    struct document {
        std::string_view name;
        void (*print)(std::span<const option>);
    };
    constexpr document documents[] = {
        {"man", print_man}, {"bash", print_bash}, {"markdown", print_markdown}, {"json", print_rows}};
    for (const document &d : documents) {
        if (d.name != format) continue;
        d.print(common);
        return true;
    }
    return false;
}

std::string suggestion(std::string_view wrong, std::span<const char *const> known)
{
    const auto *nearest = std::min_element(known.begin(), known.end(), [wrong](const char *a, const char *b) {
                              return distance(wrong, a) < distance(wrong, b);
                          }).base();
    // Beyond some third of its letters, another word is meant.
    if (known.empty() || distance(wrong, *nearest) > (wrong.size() + 2) / 3) return "";
    return std::string(", did you mean ") + *nearest + "?";
}

std::string suggested_command(std::string_view wrong)
{
    std::vector<const char *> names;
    for_each_command([&](const command &c) { names.push_back(c.name); });
    return suggestion(wrong, names);
}

} // namespace velactl
