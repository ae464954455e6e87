// Frames of the bus: eight bytes of header, then a body of attributes, of which the outermost header is read with the
// frame's. Everything in network order.
#pragma once

#include <array>
#include <libubox/blob.h>
#include <span>

namespace vela::bus
{

constexpr size_t body_max = size_t{1} << 20; // with its own header; a peer that announces more is not served

enum class message : uint8_t {
    hello = 0,
    status = 1,
    data = 2,
    lookup = 4,
    invoke = 5,
    add_object = 6,
    remove_object = 7,
    subscribe = 8,
};

struct frame_header {
    uint8_t version; // always 0
    message type;
    uint16_t seq;
    uint32_t peer;
    uint32_t body; // the first word of the body's outermost attribute; only its length counts
} __attribute__((packed));
static_assert(sizeof(frame_header) == 12);

/// Length of the body with that word, as announced.
inline size_t body_length(const frame_header &header) { return blob_be32(header.body) & BLOB_ATTR_LEN_MASK; }

enum attribute_id : uint8_t {
    attr_status = 1,
    attr_objpath,
    attr_objid,
    attr_method,
    attr_objtype,
    attr_signature,
    attr_data,
    attr_target,
    attr_no_reply = 10,
};

/// The attributes of a body by id; null where one is missing or not of its type. They lie in the body.
using attributes = std::array<blob_attr *, attr_no_reply + 1>;
attributes parse(std::span<uint8_t> body);

} // namespace vela::bus
