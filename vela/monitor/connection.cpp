// One question; what the kernel cannot select by is looked at here.
#include <netinet/in.h> // before kernel headers, which define its records again with musl
//
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/record_json.h>
#include <vela/monitor/internal/connection_message.h>
#include <vela/monitor/internal/proc.h>

namespace vela
{
namespace
{

constexpr const char *log_module = "monitor";

static_assert(sizeof(vela_tuple) == 36 && sizeof(vela_connection) == 144 && sizeof(vela_connection_filter) == 36);

bool is_valid(const vela_connection_filter &f)
{
    return (f.family == 0 || f.family == AF_INET || f.family == AF_INET6) && f.protocol <= UINT8_MAX &&
           f.zone <= UINT16_MAX;
}

bool holds(const vela_tuple &tuple, const uint8_t (&address)[16])
{
    return memcmp(tuple.source, address, sizeof address) == 0 ||
           memcmp(tuple.destination, address, sizeof address) == 0;
}

bool passes(const vela_connection &c, const vela_connection_filter &f)
{
    constexpr uint8_t any[16] = {};
    return (f.family == 0 || c.family == f.family) && (f.protocol == 0 || c.protocol == f.protocol) &&
           (c.mark & f.mark_mask) == (f.mark & f.mark_mask) && (f.zone == 0 || c.zone == f.zone) &&
           (memcmp(f.address, any, sizeof any) == 0 || holds(c.original, f.address) || holds(c.reply, f.address));
}

raw_netlink::request question_for(const vela_connection_filter &f)
{
    const nfgenmsg head = {.nfgen_family = static_cast<uint8_t>(f.family), .version = NFNETLINK_V0, .res_id = 0};
    raw_netlink::request question{NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_GET, head};
    if (f.mark_mask != 0) {
        question.put(CTA_MARK, htonl(f.mark));
        question.put(CTA_MARK_MASK, htonl(f.mark_mask));
    }
    return question;
}

/// True once the kernel's want of connection lists was logged: for the life of the process.
constinit std::atomic<bool> named_missing = false;

int missing(const raw_netlink::channel &kernel)
{
    const char *reason = kernel.reason();
    if (!named_missing.exchange(true)) {
        log_warn_as("vela_connection_foreach", "this kernel lacks NF_CT_NETLINK%s%s", *reason ? ": " : "", reason);
    }
    return -EOPNOTSUPP;
}

int read_number(const char *path, uint32_t &out)
{
    char text[32];
    const ssize_t n = proc::read_at(AT_FDCWD, path, text);
    if (n < 0) return n == -ENOENT ? -EOPNOTSUPP : static_cast<int>(n);
    const auto number = proc::words{{text, static_cast<size_t>(n)}}.number<uint32_t>();
    if (number) out = *number;
    return number ? 0 : -EIO;
}

constexpr const char *state_words[] = {"none",       "syn_sent", "syn_received", "established", "fin_wait",
                                       "close_wait", "last_ack", "time_wait",    "closed",      "syn_sent_2"};
const char *state_word(uint32_t state) { return state < std::size(state_words) ? state_words[state] : nullptr; }

const char *family_word(uint32_t family) { return family == AF_INET ? "inet" : "inet6"; }

struct bit_name {
    uint32_t bit;
    const char *name;
};
constexpr bit_name status_names[] = {
    {VELA_CONNECTION_EXPECTED, "expected"},     {VELA_CONNECTION_SEEN_REPLY, "seen_reply"},
    {VELA_CONNECTION_ASSURED, "assured"},       {VELA_CONNECTION_CONFIRMED, "confirmed"},
    {VELA_CONNECTION_SRC_NAT, "src_nat"},       {VELA_CONNECTION_DST_NAT, "dst_nat"},
    {VELA_CONNECTION_DYING, "dying"},           {VELA_CONNECTION_OFFLOAD, "offload"},
    {VELA_CONNECTION_HW_OFFLOAD, "hw_offload"},
};

constexpr json_row rows[] = {
    {"tcp_state", VELA_MEMBER(vela_connection, tcp_state), shown::word, unknown::ones, state_word},
    {"timeout_s", VELA_MEMBER(vela_connection, timeout_s), shown::number, unknown::ones},
    {"mark", VELA_MEMBER(vela_connection, mark), shown::number, unknown::zero},
    {"zone", VELA_MEMBER(vela_connection, zone), shown::number, unknown::zero},
    {"id", VELA_MEMBER(vela_connection, id), shown::number, unknown::ones},
    {"original_bytes", VELA_MEMBER(vela_connection, original_bytes), shown::number, unknown::ones},
    {"original_packets", VELA_MEMBER(vela_connection, original_packets), shown::number, unknown::ones},
    {"reply_bytes", VELA_MEMBER(vela_connection, reply_bytes), shown::number, unknown::ones},
    {"reply_packets", VELA_MEMBER(vela_connection, reply_packets), shown::number, unknown::ones},
    {"start_ns", VELA_MEMBER(vela_connection, start_ns), shown::number, unknown::ones},
};
constexpr json_row tuple_rows[] = {
    {"source", VELA_MEMBER(vela_tuple, source), shown::address, unknown::never},
    {"source_port", VELA_MEMBER(vela_tuple, source_port), shown::number, unknown::never},
    {"destination", VELA_MEMBER(vela_tuple, destination), shown::address, unknown::never},
    {"destination_port", VELA_MEMBER(vela_tuple, destination_port), shown::number, unknown::never},
};

json_ref protocol_json(uint32_t protocol)
{
    switch (protocol) {
    case IPPROTO_TCP: return json_ref{json_string("tcp")};
    case IPPROTO_UDP: return json_ref{json_string("udp")};
    case IPPROTO_ICMP: return json_ref{json_string("icmp")};
    case IPPROTO_ICMPV6: return json_ref{json_string("icmpv6")};
    default: return number_json(protocol);
    }
}

json_ref status_json(uint32_t status)
{
    json_ref names{json_array()};
    for (const auto &n : status_names) {
        if ((status & n.bit) && json_array_append_new(names.get(), json_string(n.name)) != 0) return {};
    }
    return names;
}

json_ref connection_json(const vela_connection &c)
{
    const int family = static_cast<int>(c.family);
    json_ref object{json_object()};
    const bool whole = put_json(object.get(), "family", json_ref{json_string(family_word(c.family))}) &&
                       put_json(object.get(), "protocol", protocol_json(c.protocol)) &&
                       put_json(object.get(), "status", status_json(c.status)) &&
                       put_json(object.get(), "original", record_json(tuple_rows, c.original, family)) &&
                       put_json(object.get(), "reply", record_json(tuple_rows, c.reply, family)) &&
                       put_record(object.get(), rows, &c);
    return whole ? std::move(object) : json_ref{};
}

} // namespace
} // namespace vela

int vela_connection_foreach(const vela_connection_filter *filter, vela_connection_callback each, void *arg)
{
    constexpr vela_connection_filter all = {};
    const vela_connection_filter &wanted = filter ? *filter : all;
    if (!each || !vela::is_valid(wanted)) return -EINVAL;
    vela::raw_netlink::channel kernel{NETLINK_NETFILTER, vela::raw_netlink::checking::lenient};
    vela::raw_netlink::request question = vela::question_for(wanted);
    kernel.ask(question, vela::raw_netlink::how_much::all);
    int count = 0;
    while (const auto m = kernel.next()) {
        vela_connection connection;
        if (!vela::read_connection(*m, connection) || !vela::passes(connection, wanted)) continue;
        ++count;
        if (each(&connection, arg) != 0) return count;
    }
    const int result = kernel.result();
    // Nothing in the question can be wrong: that is how the kernel says that it has no such table.
    if (result == -EOPNOTSUPP || result == -EINVAL) return vela::missing(kernel);
    return result < 0 ? result : count;
}

int vela_connection_count(uint32_t *used, uint32_t *most)
{
    if (!used || !most) return -EINVAL;
    uint32_t now, limit;
    if (const int failed = vela::read_number("/proc/sys/net/netfilter/nf_conntrack_count", now); failed < 0)
        return failed;
    if (const int failed = vela::read_number("/proc/sys/net/netfilter/nf_conntrack_max", limit); failed < 0)
        return failed;
    *used = now;
    *most = limit;
    return 0;
}

json_t *vela_connection_json(const vela_connection_filter *filter)
{
    const auto walk = [filter](vela_connection_callback each, void *arg) {
        return vela_connection_foreach(filter, each, arg);
    };
    return vela::list_json<vela_connection>(walk, vela::connection_json);
}
