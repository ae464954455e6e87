// Messages of ctnetlink as records.
#include <netinet/in.h> // before kernel headers, which define its records again with musl
//
#include <endian.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <vela/monitor/internal/connection_message.h>

namespace vela
{
namespace
{

using raw_netlink::attribute;
using raw_netlink::attributes;

// ctnetlink's numbers are in network order.
std::optional<uint16_t> be16(const attribute &a)
{
    const auto n = a.as<uint16_t>();
    return n ? std::optional{ntohs(*n)} : std::nullopt;
}
std::optional<uint32_t> be32(const attribute &a)
{
    const auto n = a.as<uint32_t>();
    return n ? std::optional{ntohl(*n)} : std::nullopt;
}
std::optional<uint64_t> be64(const attribute &a)
{
    const auto n = a.as<uint64_t>();
    return n ? std::optional{be64toh(*n)} : std::nullopt;
}

void copy_address(const attribute &a, size_t length, uint8_t (&out)[16])
{
    if (a.value.size() == length) memcpy(out, a.value.data(), length);
}

void read_addresses(const attribute &outer, vela_tuple &out)
{
    auto list = attributes::inside(outer);
    while (const auto a = list.next()) {
        switch (a->type) {
        case CTA_IP_V4_SRC: copy_address(*a, sizeof(in_addr), out.source); break;
        case CTA_IP_V4_DST: copy_address(*a, sizeof(in_addr), out.destination); break;
        case CTA_IP_V6_SRC: copy_address(*a, sizeof(in6_addr), out.source); break;
        case CTA_IP_V6_DST: copy_address(*a, sizeof(in6_addr), out.destination); break;
        default: break;
        }
    }
}

void read_protocol(const attribute &outer, vela_tuple &out, uint32_t &protocol)
{
    auto list = attributes::inside(outer);
    while (const auto a = list.next()) {
        switch (a->type) {
        case CTA_PROTO_NUM: protocol = a->as<uint8_t>().value_or(0); break;
        case CTA_PROTO_SRC_PORT:
        case CTA_PROTO_ICMP_ID:
        case CTA_PROTO_ICMPV6_ID: out.source_port = be16(*a).value_or(0); break;
        case CTA_PROTO_DST_PORT: out.destination_port = be16(*a).value_or(0); break;
        case CTA_PROTO_ICMP_TYPE:
        case CTA_PROTO_ICMPV6_TYPE:
            out.destination_port = static_cast<uint16_t>(out.destination_port | a->as<uint8_t>().value_or(0) << 8);
            break;
        case CTA_PROTO_ICMP_CODE:
        case CTA_PROTO_ICMPV6_CODE:
            out.destination_port = static_cast<uint16_t>(out.destination_port | a->as<uint8_t>().value_or(0));
            break;
        default: break;
        }
    }
}

void read_tuple(const attribute &outer, vela_tuple &out, uint32_t &protocol)
{
    auto list = attributes::inside(outer);
    while (const auto a = list.next()) {
        if (a->type == CTA_TUPLE_IP) read_addresses(*a, out);
        if (a->type == CTA_TUPLE_PROTO) read_protocol(*a, out, protocol);
    }
}

void read_counters(const attribute &outer, uint64_t &packets, uint64_t &bytes)
{
    auto list = attributes::inside(outer);
    while (const auto a = list.next()) {
        if (a->type == CTA_COUNTERS_PACKETS) packets = be64(*a).value_or(UINT64_MAX);
        if (a->type == CTA_COUNTERS_BYTES) bytes = be64(*a).value_or(UINT64_MAX);
    }
}

uint64_t read_start(const attribute &outer)
{
    auto list = attributes::inside(outer);
    while (const auto a = list.next()) {
        if (a->type == CTA_TIMESTAMP_START) return be64(*a).value_or(UINT64_MAX);
    }
    return UINT64_MAX;
}

uint32_t read_tcp_state(const attribute &outer)
{
    auto list = attributes::inside(outer);
    while (const auto a = list.next()) {
        if (a->type != CTA_PROTOINFO_TCP) continue;
        auto tcp = attributes::inside(*a);
        while (const auto b = tcp.next()) {
            if (b->type == CTA_PROTOINFO_TCP_STATE) return b->as<uint8_t>().value_or(UINT8_MAX);
        }
    }
    return UINT32_MAX;
}

void read_member(const attribute &a, vela_connection &out)
{
    switch (a.type) {
    case CTA_TUPLE_ORIG: read_tuple(a, out.original, out.protocol); break;
    case CTA_TUPLE_REPLY: read_tuple(a, out.reply, out.protocol); break;
    case CTA_STATUS: out.status = be32(a).value_or(0); break;
    case CTA_PROTOINFO: out.tcp_state = read_tcp_state(a); break;
    case CTA_TIMEOUT: out.timeout_s = be32(a).value_or(UINT32_MAX); break;
    case CTA_MARK: out.mark = be32(a).value_or(0); break;
    case CTA_COUNTERS_ORIG: read_counters(a, out.original_packets, out.original_bytes); break;
    case CTA_COUNTERS_REPLY: read_counters(a, out.reply_packets, out.reply_bytes); break;
    case CTA_ID: out.id = be32(a).value_or(UINT32_MAX); break;
    case CTA_ZONE: out.zone = be16(a).value_or(0); break;
    case CTA_TIMESTAMP: out.start_ns = read_start(a); break;
    default: break;
    }
}

} // namespace

bool read_connection(const raw_netlink::message &m, vela_connection &out)
{
    nfgenmsg head;
    std::span<const uint8_t> rest;
    if (!raw_netlink::split(m, head, rest)) return false;
    out = {};
    out.family = head.nfgen_family;
    out.timeout_s = out.tcp_state = out.id = UINT32_MAX;
    out.original_bytes = out.original_packets = out.reply_bytes = out.reply_packets = out.start_ns = UINT64_MAX;
    attributes list{rest};
    while (const auto a = list.next()) read_member(*a, out);
    return out.family == AF_INET || out.family == AF_INET6;
}

} // namespace vela
