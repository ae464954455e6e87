// What the device is doing: processes, load.
#include "command.h"

#include <cerrno>
#include <cstring>
#include <vela/monitor/load.h>
#include <vela/monitor/process.h>

namespace velactl
{
namespace
{

constexpr option follow_options[] = {{"--follow", "SECONDS", "again every so often, a line for each row"}};

/// A gathered answer, or trouble that names what cannot be read.
json gathered(json_t *answer, const char *what)
{
    if (!answer) throw refused(std::string(what) + " cannot be read: " + strerror(errno), -errno);
    return json{answer};
}

void show_rows(const command &c, const json &answer)
{
    if (!json_is_array(answer.get())) return show_line(c, json{json_incref(answer.get())});
    for (size_t i = 0; i < json_array_size(answer.get()); ++i) {
        show_line(c, json{json_incref(json_array_get(answer.get(), i))});
    }
}

/// Looks once, or with --follow again and again until the user ends it.
template <class Look> json look(const char *name, const arguments &given, Look once)
{
    const char *period = given.value("--follow");
    if (!period) return once();
    const int period_ms = static_cast<int>(number(period, "SECONDS", 1, 86400)) * 1000;
    do {
        show_rows(*find_command(name), once());
    } while (pause_ms(period_ms));
    return nullptr;
}

json processes(arguments given)
{
    return look("processes", given, [&] {
        const json all = gathered(vela_process_json(VELA_PROCESS_CMDLINE | VELA_PROCESS_FDS), "/proc");
        json rows{json_array()};
        for (size_t i = 0; i < json_array_size(all.get()); ++i) {
            json_t *row = json_array_get(all.get(), i);
            const std::string_view name = json_string_value(json_object_get(row, "name"));
            if (given.empty() || name.find(given[0]) != name.npos) append(rows, json{json_incref(row)});
        }
        return rows;
    });
}

vela_cpu_sample sample()
{
    vela_cpu_sample s;
    const int result = vela_cpu_sample_take(&s);
    if (result < 0) throw refused("/proc/stat cannot be read", result);
    return s;
}

/// {"cpu": {"busy": 1}} as {"cpu.busy": 1}: for people, who want one figure a line.
void flatten(const json_t *nested, const std::string &prefix, const json &flat)
{
    const char *key = nullptr;
    json_t *member = nullptr;
    json_object_foreach(const_cast<json_t *>(nested), key, member)
    {
        if (json_is_object(member)) {
            flatten(member, prefix + key + ".", flat);
        } else {
            set(flat, (prefix + key).c_str(), json{json_incref(member)});
        }
    }
}

json load(arguments given)
{
    const int period_ms = given.empty() ? 1000 : static_cast<int>(number(given[0], "SECONDS", 1, 86400)) * 1000;
    return look("load", given, [&]() -> json {
        const vela_cpu_sample before = sample();
        const progress waiting("watching");
        (void)pause_ms(period_ms);
        const vela_cpu_sample now = sample();
        json answer = gathered(vela_load_json(&before, &now), "the load");
        if (chosen.as_json) return answer;
        json flat = object();
        flatten(answer.get(), "", flat);
        return flat;
    });
}

constexpr field process_fields[] = {
    {"pid", kind::number, "its number"},
    {"ppid", kind::number, "its parent"},
    {"uid", kind::number, "effective user"},
    {"state", kind::text, "R running, S sleeping, D waiting for a device, Z ended, T stopped, I idle"},
    {"threads", kind::number, "how many"},
    {"fds", kind::number, "open descriptors"},
    {"rss_kb", kind::number, "memory in use, KiB"},
    {"virtual_kb", kind::number, "address space, KiB"},
    {"cpu_ms", kind::number, "processor time so far"},
    {"start_ms", kind::number, "when it started, since boot"},
    {"name", kind::text, "as the kernel has it"},
    {"cmdline", kind::text, "its arguments"},
};
constexpr command commands[] = {
    {"processes", "[NAME]", "what runs, or what has NAME in its name", 0, 1, processes, answer::rows, process_fields,
     follow_options},
    {"load",
     "[SECONDS]",
     "how busy it is, watched for SECONDS (1)",
     0,
     1,
     load,
     answer::object,
     {},
     follow_options,
     "Shares of processor time, memory, pressure and load average. Shares are permille, load averages thousandths of a "
     "task."},
};

} // namespace

const std::span<const command> monitor_commands{commands};

} // namespace velactl
