// Messages of sock_diag as records.
#include <netinet/in.h> // before kernel headers, which define its records again with musl
//
#include <algorithm>
#include <array>
#include <linux/inet_diag.h>
#include <linux/netlink_diag.h>
#include <linux/packet_diag.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <vela/monitor/internal/socket_message.h>

namespace vela
{
namespace
{

constexpr uint16_t unix_uid = 7; // younger than some of the headers we are built with (Linux 5.3)

struct queues {
    uint32_t receive, send;
};

/// Of a list of sk_meminfo figures, those that are bytes in a queue.
std::optional<queues> queues_of(const raw_netlink::attribute &a)
{
    const auto figures = a.beginning<std::array<uint32_t, SK_MEMINFO_WMEM_ALLOC + 1>>();
    if (!figures) return std::nullopt;
    return queues{(*figures)[SK_MEMINFO_RMEM_ALLOC], (*figures)[SK_MEMINFO_WMEM_ALLOC]};
}

/// Nothing is known yet.
void clear(vela_socket &out)
{
    out = {};
    out.state = VELA_SOCKET_CLOSED;
    out.uid = out.receive_queue = out.send_queue = UINT32_MAX;
    out.rtt_us = out.retransmits = out.last_ack_ms = UINT32_MAX;
}

void read_tcp_info(const raw_netlink::attribute &a, vela_socket &out)
{
    // Up to the last figure that all kernels have; the C library's record may be longer.
    struct figures {
        uint8_t before_rtt[offsetof(tcp_info, tcpi_rtt)];
        uint32_t rtt_us;
        uint8_t before_total[offsetof(tcp_info, tcpi_total_retrans) - offsetof(tcp_info, tcpi_rtt) - sizeof rtt_us];
        uint32_t total_retransmits;
    };
    const auto info = a.beginning<figures>();
    if (!info) return;
    memcpy(&out.last_ack_ms, info->before_rtt + offsetof(tcp_info, tcpi_last_ack_recv), sizeof out.last_ack_ms);
    out.retransmits = info->total_retransmits;
    if (info->rtt_us != 0) out.rtt_us = info->rtt_us; // 0: nothing was measured yet
}

bool read_inet(const raw_netlink::message &m, uint32_t protocol, vela_socket &out)
{
    clear(out);
    inet_diag_msg head;
    std::span<const uint8_t> rest;
    if (!raw_netlink::split(m, head, rest)) return false;
    if (head.idiag_family != AF_INET && head.idiag_family != AF_INET6) return false;
    out.family = head.idiag_family;
    out.protocol = protocol;
    out.state = head.idiag_state;
    out.index = head.id.idiag_if;
    out.inode = head.idiag_inode;
    if (out.inode != 0) out.uid = head.idiag_uid;
    out.receive_queue = head.idiag_rqueue;
    out.send_queue = head.idiag_wqueue;
    const size_t length = out.family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
    memcpy(out.local, head.id.idiag_src, length);
    memcpy(out.remote, head.id.idiag_dst, length);
    out.local_port = ntohs(head.id.idiag_sport);
    out.remote_port = ntohs(head.id.idiag_dport);
    raw_netlink::attributes list{rest};
    while (const auto a = list.next()) {
        if (a->type == INET_DIAG_INFO && out.state != VELA_SOCKET_LISTEN) read_tcp_info(*a, out);
    }
    return true;
}

/// A path ends with its NUL; an abstract name begins with one and may hold more.
void write_path(std::span<const uint8_t> name, char (&out)[sizeof vela_socket::path])
{
    const std::string_view text{reinterpret_cast<const char *>(name.data()), name.size()};
    const bool is_abstract = !text.empty() && text[0] == '\0';
    const size_t n = copy_text(out, is_abstract ? text : first(text, text.find('\0')));
    std::replace(out, out + n, '\0', '@');
}

} // namespace

bool read_tcp(const raw_netlink::message &m, vela_socket &out) { return read_inet(m, IPPROTO_TCP, out); }
bool read_udp(const raw_netlink::message &m, vela_socket &out) { return read_inet(m, IPPROTO_UDP, out); }
bool read_raw(const raw_netlink::message &m, vela_socket &out) { return read_inet(m, IPPROTO_RAW, out); }

bool read_unix(const raw_netlink::message &m, vela_socket &out)
{
    clear(out);
    unix_diag_msg head;
    std::span<const uint8_t> rest;
    if (!raw_netlink::split(m, head, rest) || head.udiag_family != AF_UNIX) return false;
    out.family = AF_UNIX;
    out.protocol = head.udiag_type;
    out.state = head.udiag_state;
    out.inode = head.udiag_ino;
    raw_netlink::attributes list{rest};
    while (const auto a = list.next()) {
        switch (a->type) {
        case UNIX_DIAG_NAME: write_path(a->value, out.path); break;
        case UNIX_DIAG_PEER: out.peer_inode = a->as<uint32_t>().value_or(0); break;
        case UNIX_DIAG_RQLEN:
            if (const auto lengths = a->as<unix_diag_rqlen>()) {
                out.receive_queue = lengths->udiag_rqueue;
                out.send_queue = lengths->udiag_wqueue;
            }
            break;
        case unix_uid: out.uid = a->as<uint32_t>().value_or(UINT32_MAX); break;
        default: break;
        }
    }
    return true;
}

bool read_netlink(const raw_netlink::message &m, vela_socket &out)
{
    clear(out);
    netlink_diag_msg head;
    std::span<const uint8_t> rest;
    if (!raw_netlink::split(m, head, rest) || head.ndiag_family != AF_NETLINK) return false;
    out.family = AF_NETLINK;
    out.protocol = head.ndiag_protocol;
    out.inode = head.ndiag_ino;
    raw_netlink::attributes list{rest};
    while (const auto a = list.next()) {
        const auto lengths = a->type == NETLINK_DIAG_MEMINFO ? queues_of(*a) : std::nullopt;
        if (lengths) out.receive_queue = lengths->receive, out.send_queue = lengths->send;
    }
    return true;
}

bool read_packet(const raw_netlink::message &m, vela_socket &out)
{
    clear(out);
    packet_diag_msg head;
    std::span<const uint8_t> rest;
    if (!raw_netlink::split(m, head, rest) || head.pdiag_family != AF_PACKET) return false;
    out.family = AF_PACKET;
    out.protocol = head.pdiag_num;
    out.inode = head.pdiag_ino;
    raw_netlink::attributes list{rest};
    while (const auto a = list.next()) {
        if (a->type == PACKET_DIAG_INFO) {
            if (const auto info = a->beginning<packet_diag_info>()) out.index = info->pdi_index;
        } else if (a->type == PACKET_DIAG_UID) {
            out.uid = a->as<uint32_t>().value_or(UINT32_MAX);
        } else if (a->type == PACKET_DIAG_MEMINFO) {
            const auto lengths = queues_of(*a);
            if (lengths) out.receive_queue = lengths->receive, out.send_queue = lengths->send;
        }
    }
    return true;
}

} // namespace vela
