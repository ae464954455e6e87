// What the device is doing: processes, sockets, connections, load.
#include "command.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <vela/monitor/connection.h>
#include <vela/monitor/load.h>
#include <vela/monitor/process.h>
#include <vela/monitor/socket.h>

namespace velactl
{
namespace
{

constexpr option follow = {"--follow", "SECONDS", "again every so often, a line for each row"};
constexpr option follow_options[] = {follow};
constexpr option socket_options[] = {
    {"--owner", "", "the process that each belongs to"}, {"--tcp-info", "", "what TCP has measured"}, follow};

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
    const char *period = given.value(follow.name);
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

json sockets(arguments given)
{
    uint32_t wants = 0;
    if (given.has("--owner")) wants |= VELA_SOCKET_OWNER;
    if (given.has("--tcp-info")) wants |= VELA_SOCKET_TCP_INFO;
    return look("sockets", given, [wants] { return gathered(vela_socket_json(0, 0, wants, nullptr), "the sockets"); });
}

/// One direction as people read it: "192.168.1.20:49152".
std::string end_of(const json_t *tuple, const char *address, const char *port)
{
    const std::string ip = json_string_value(json_object_get(tuple, address));
    const bool has_colons = ip.find(':') != ip.npos;
    return (has_colons ? "[" + ip + "]" : ip) + ":" + std::to_string(json_integer_value(json_object_get(tuple, port)));
}

json connections(arguments given)
{
    vela_connection_filter filter = {};
    if (!given.empty()) {
        filter.family = inet_pton(AF_INET, given[0], filter.address) == 1 ? AF_INET : AF_INET6;
        if (filter.family == AF_INET6 && inet_pton(AF_INET6, given[0], filter.address) != 1) {
            throw trouble(status::misused, std::string("ADDRESS must be an IP address, not \"") + given[0] + "\"");
        }
    }
    return look("connections", given, [&filter] {
        json all = gathered(vela_connection_json(&filter), "the connections");
        if (chosen.as_json) return all;
        for (size_t i = 0; i < json_array_size(all.get()); ++i) {
            const json row{json_incref(json_array_get(all.get(), i))};
            for (const char *direction : {"original", "reply"}) {
                const json_t *tuple = json_object_get(row.get(), direction);
                set(row, direction,
                    end_of(tuple, "source", "source_port") + " > " + end_of(tuple, "destination", "destination_port"));
            }
        }
        return all;
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
constexpr field socket_fields[] = {
    {"family", kind::text, "inet, inet6, unix, netlink or packet"},
    {"protocol", kind::name, "tcp, udp, raw, stream, dgram, seqpacket, or a number"},
    {"state", kind::text, "established, listen, closed ..."},
    {"receive_queue", kind::number, "bytes; connections that wait, for one that listens"},
    {"send_queue", kind::number, "bytes; how many may wait, for one that listens"},
    {"local", kind::text, "its address"},
    {"local_port", kind::number, "its port"},
    {"remote", kind::text, "the address at the other end"},
    {"remote_port", kind::number, "the port there"},
    {"path", kind::text, "of a local socket"},
    {"uid", kind::number, "who made it"},
    {"inode", kind::number, "names the socket"},
    {"peer_inode", kind::number, "of a local socket, names the other end"},
    {"index", kind::number, "of the interface it is bound to"},
    {"pid", kind::number, "who holds it; with --owner"},
    {"process", kind::text, "that one's name; with --owner"},
    {"rtt_us", kind::number, "smoothed round trip; with --tcp-info"},
    {"retransmits", kind::number, "of the last segment; with --tcp-info"},
    {"last_ack_ms", kind::number, "since the other end acknowledged; with --tcp-info"},
};

constexpr field connection_fields[] = {
    {"protocol", kind::name, "tcp, udp, icmp, icmpv6, or a number"},
    {"tcp_state", kind::text, "established, time_wait ..."},
    {"original", kind::object, "source, source_port, destination, destination_port of the first packet"},
    {"reply", kind::object, "the same of what comes back: other addresses where they are translated"},
    {"timeout_s", kind::number, "until it is forgotten, if nothing comes"},
    {"original_bytes", kind::number, "sent; where the kernel counts"},
    {"reply_bytes", kind::number, "received"},
};

constexpr command commands[] = {
    {"processes", "[NAME]", "what runs, or what has NAME in its name", 0, 1, processes, answer::rows, process_fields,
     follow_options},
    {"sockets", "", "what is open to the network and between processes", 0, 0, sockets, answer::rows, socket_fields,
     socket_options,
     "With --owner also pid and process, with --tcp-info rtt_us, retransmits and last_ack_ms. Kinds of sockets that "
     "the kernel does "
     "not list are left out; -v names them."},
    {"connections", "[ADDRESS]", "what the firewall tracks, or what has ADDRESS at an end", 0, 1, connections,
     answer::rows, connection_fields, follow_options, "Needs CAP_NET_ADMIN."},
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
