// One question for each family and protocol that is wanted, over one netlink socket. What differs between them is a row
// of a table: the request, and what reads the answer.
#include <netinet/in.h> // before kernel headers, which define its records again with musl
//
#include <atomic>
#include <cerrno>
#include <linux/inet_diag.h>
#include <linux/netlink_diag.h>
#include <linux/packet_diag.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/record_json.h>
#include <vela/monitor/internal/owners.h>
#include <vela/monitor/internal/socket_message.h>

namespace vela
{
namespace
{

constexpr const char *log_module = "monitor";

static_assert(sizeof(vela_socket) == 232);

using raw_netlink::request;

constexpr uint32_t unix_show_uid = 0x40; // younger than some of the headers we are built with (Linux 5.3)

constexpr uint32_t all_families =
    VELA_SOCKET_TCP | VELA_SOCKET_UDP | VELA_SOCKET_RAW | VELA_SOCKET_UNIX | VELA_SOCKET_NETLINK | VELA_SOCKET_PACKET;
constexpr uint32_t all_states = (2U << VELA_SOCKET_NEW_SYN_RECEIVED) - 2;
constexpr uint32_t all_wants = VELA_SOCKET_OWNER | VELA_SOCKET_TCP_INFO;

template <uint8_t Family, uint8_t Protocol> request ask_inet(uint32_t states, uint32_t wants)
{
    inet_diag_req_v2 question = {};
    question.sdiag_family = Family;
    question.sdiag_protocol = Protocol;
    question.idiag_states = states;
    if (Protocol == IPPROTO_TCP && (wants & VELA_SOCKET_TCP_INFO)) question.idiag_ext = 1 << (INET_DIAG_INFO - 1);
    return {SOCK_DIAG_BY_FAMILY, question};
}

request ask_unix(uint32_t states, uint32_t)
{
    unix_diag_req question = {};
    question.sdiag_family = AF_UNIX;
    question.udiag_states = states;
    question.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_PEER | UDIAG_SHOW_RQLEN | unix_show_uid;
    return {SOCK_DIAG_BY_FAMILY, question};
}

request ask_netlink(uint32_t, uint32_t)
{
    netlink_diag_req question = {};
    question.sdiag_family = AF_NETLINK;
    question.sdiag_protocol = NDIAG_PROTO_ALL;
    question.ndiag_show = NDIAG_SHOW_MEMINFO;
    return {SOCK_DIAG_BY_FAMILY, question};
}

request ask_packet(uint32_t, uint32_t)
{
    packet_diag_req question = {};
    question.sdiag_family = AF_PACKET;
    question.pdiag_show = PACKET_SHOW_INFO | PACKET_SHOW_MEMINFO;
    return {SOCK_DIAG_BY_FAMILY, question};
}

struct kind {
    uint32_t bit;
    const char *module;
    request (*ask)(uint32_t states, uint32_t wants);
    socket_reader read;
};
constexpr kind kinds[] = {
    {VELA_SOCKET_TCP, "INET_TCP_DIAG", ask_inet<AF_INET, IPPROTO_TCP>, read_tcp},
    {VELA_SOCKET_TCP, "INET_TCP_DIAG", ask_inet<AF_INET6, IPPROTO_TCP>, read_tcp},
    {VELA_SOCKET_UDP, "INET_UDP_DIAG", ask_inet<AF_INET, IPPROTO_UDP>, read_udp},
    {VELA_SOCKET_UDP, "INET_UDP_DIAG", ask_inet<AF_INET6, IPPROTO_UDP>, read_udp},
    {VELA_SOCKET_RAW, "INET_RAW_DIAG", ask_inet<AF_INET, IPPROTO_RAW>, read_raw},
    {VELA_SOCKET_RAW, "INET_RAW_DIAG", ask_inet<AF_INET6, IPPROTO_RAW>, read_raw},
    {VELA_SOCKET_UNIX, "UNIX_DIAG", ask_unix, read_unix},
    {VELA_SOCKET_NETLINK, "NETLINK_DIAG", ask_netlink, read_netlink},
    {VELA_SOCKET_PACKET, "PACKET_DIAG", ask_packet, read_packet},
};

/// Families whose module was named as missing: bits are set for the life of the process.
constinit std::atomic<uint32_t> named_missing = 0;

void name_missing(const kind &k, const raw_netlink::channel &kernel)
{
    if (named_missing.fetch_or(k.bit) & k.bit) return;
    const char *reason = kernel.reason();
    log_warn("this kernel lacks %s%s%s", k.module, *reason ? ": " : "", reason);
}

/// One look at all that is wanted.
class walk
{
public:
    walk(uint32_t states, uint32_t wants, vela_socket_callback each, void *arg)
        : states_{states}, wants_{wants}, each_{each}, arg_{arg}
    {
    }
    /// The number of sockets delivered, or a negative errno.
    int run(uint32_t families)
    {
        if (wants_ & VELA_SOCKET_OWNER) {
            const int gathered = owners_.gather();
            if (gathered < 0 && gathered != -ENOSPC) return gathered;
            owners_cut_ = gathered == -ENOSPC;
            if (owners_cut_) log_warn_as("vela_socket_foreach", "more sockets than are looked up: owners are left out");
        }
        for (const kind &k : kinds) {
            if (stopped_ || !(families & k.bit)) continue;
            if (const int result = ask(k); result < 0) return result;
        }
        return changed_ ? -EAGAIN : count_;
    }
    [[nodiscard]] uint32_t missing() const { return missing_; }
    [[nodiscard]] bool owners_cut() const { return owners_cut_; }

private:
    int ask(const kind &k)
    {
        request question = k.ask(states_, wants_);
        kernel_.ask(question, raw_netlink::how_much::all);
        while (const auto m = kernel_.next()) {
            vela_socket socket;
            // The kernel does not look at the states of every family.
            if (!k.read(*m, socket) || !(states_ >> (socket.state & 31) & 1)) continue;
            deliver(socket);
            if (stopped_) return 0;
        }
        if (kernel_.result() == -EAGAIN) changed_ = true;
        if (kernel_.result() == -ENOENT) {
            missing_ |= k.bit;
            name_missing(k, kernel_);
        }
        return kernel_.result() == -EAGAIN || kernel_.result() == -ENOENT ? 0 : kernel_.result();
    }
    void deliver(vela_socket &socket)
    {
        if (const socket_owner *owner = owners_.find(socket.inode)) {
            socket.pid = owner->pid;
            memcpy(socket.process, owner->process, sizeof socket.process);
        }
        ++count_;
        stopped_ = each_(&socket, arg_) != 0;
    }

    uint32_t states_;
    uint32_t wants_;
    vela_socket_callback each_;
    void *arg_;
    raw_netlink::channel kernel_{NETLINK_SOCK_DIAG};
    socket_owners owners_;
    uint32_t missing_ = 0;
    int count_ = 0;
    bool owners_cut_ = false;
    bool stopped_ = false;
    bool changed_ = false;
};

constexpr const char *state_words[] = {
    nullptr,  "established", "syn_sent", "syn_received", "fin_wait_1", "fin_wait_2",       "time_wait",
    "closed", "close_wait",  "last_ack", "listen",       "closing",    "new_syn_received",
};

const char *state_word(uint32_t state) { return state < std::size(state_words) ? state_words[state] : nullptr; }

struct protocol_word {
    uint32_t family, protocol;
    const char *word;
};
constexpr protocol_word protocol_words[] = {
    {AF_INET, IPPROTO_TCP, "tcp"},    {AF_INET6, IPPROTO_TCP, "tcp"}, {AF_INET, IPPROTO_UDP, "udp"},
    {AF_INET6, IPPROTO_UDP, "udp"},   {AF_INET, IPPROTO_RAW, "raw"},  {AF_INET6, IPPROTO_RAW, "raw"},
    {AF_UNIX, SOCK_STREAM, "stream"}, {AF_UNIX, SOCK_DGRAM, "dgram"}, {AF_UNIX, SOCK_SEQPACKET, "seqpacket"},
};

const char *family_word(uint32_t family)
{
    switch (family) {
    case AF_INET: return "inet";
    case AF_INET6: return "inet6";
    case AF_UNIX: return "unix";
    case AF_NETLINK: return "netlink";
    case AF_PACKET: return "packet";
    default: return nullptr;
    }
}

constexpr json_row rows[] = {
    {"state", VELA_MEMBER(vela_socket, state), shown::word, unknown::never, state_word},
    {"index", VELA_MEMBER(vela_socket, index), shown::number, unknown::zero},
    {"uid", VELA_MEMBER(vela_socket, uid), shown::number, unknown::ones},
    {"receive_queue", VELA_MEMBER(vela_socket, receive_queue), shown::number, unknown::ones},
    {"send_queue", VELA_MEMBER(vela_socket, send_queue), shown::number, unknown::ones},
    {"inode", VELA_MEMBER(vela_socket, inode), shown::number, unknown::zero},
    {"peer_inode", VELA_MEMBER(vela_socket, peer_inode), shown::number, unknown::zero},
    {"local", VELA_MEMBER(vela_socket, local), shown::address, unknown::never},
    {"local_port", VELA_MEMBER(vela_socket, local_port), shown::number, unknown::zero},
    {"remote", VELA_MEMBER(vela_socket, remote), shown::address, unknown::zero},
    {"remote_port", VELA_MEMBER(vela_socket, remote_port), shown::number, unknown::zero},
    {"path", VELA_MEMBER(vela_socket, path), shown::text, unknown::zero},
    {"pid", VELA_MEMBER(vela_socket, pid), shown::number, unknown::zero},
    {"process", VELA_MEMBER(vela_socket, process), shown::text, unknown::zero},
    {"rtt_us", VELA_MEMBER(vela_socket, rtt_us), shown::number, unknown::ones},
    {"retransmits", VELA_MEMBER(vela_socket, retransmits), shown::number, unknown::ones},
    {"last_ack_ms", VELA_MEMBER(vela_socket, last_ack_ms), shown::number, unknown::ones},
};

json_ref protocol_json(const vela_socket &socket)
{
    for (const auto &p : protocol_words) {
        if (p.family == socket.family && p.protocol == socket.protocol) return json_ref{json_string(p.word)};
    }
    return number_json(socket.protocol);
}

json_ref socket_json(const vela_socket &socket)
{
    json_ref object{json_object()};
    const bool whole = put_json(object.get(), "family", json_ref{json_string(family_word(socket.family))}) &&
                       put_json(object.get(), "protocol", protocol_json(socket)) &&
                       put_record(object.get(), rows, &socket, static_cast<int>(socket.family));
    return whole ? std::move(object) : json_ref{};
}

/// `cut` tells whether owners were left out.
int look(uint32_t families, uint32_t states, uint32_t wants, uint32_t *missing, vela_socket_callback each, void *arg,
         bool &cut)
{
    if (!each || (families & ~all_families) || (states & ~all_states) || (wants & ~all_wants)) return -EINVAL;
    walk sockets{states != 0 ? states : all_states, wants, each, arg};
    const int result = sockets.run(families != 0 ? families : all_families);
    if (missing && (result >= 0 || result == -EAGAIN)) *missing = sockets.missing();
    cut = sockets.owners_cut();
    return result;
}

} // namespace
} // namespace vela

int vela_socket_foreach(uint32_t families, uint32_t states, uint32_t wants, uint32_t *missing,
                        vela_socket_callback each, void *arg)
{
    bool cut;
    return vela::look(families, states, wants, missing, each, arg, cut);
}

json_t *vela_socket_json(uint32_t families, uint32_t states, uint32_t wants, uint32_t *missing)
{
    const auto look = [=](vela_socket_callback each, void *arg) -> int {
        bool cut = false;
        const int result = vela::look(families, states, wants, missing, each, arg, cut);
        return result >= 0 && cut ? -ENOSPC : result;
    };
    return vela::list_json<vela_socket>(look, vela::socket_json);
}
