// Reading a received control message.
#pragma once

#include <cstring>
#include <optional>
#include <span>
#include <vela/core/internal/bytes.h>
#include <vela/ipc/ctrl-proto.h>

namespace vela
{

struct ctrl_content {
    uint32_t type;
    std::span<const uint8_t> payload;
};

/// Type and payload of a message whose header is valid.
inline std::optional<ctrl_content> content_of(const ctrl_msg &message)
{
    byte_reader in{{message.buffer, message.total_len}};
    const auto magic = in.u32();
    const auto type = in.u32();
    const auto length = in.u32();
    if (!length || *magic != CTRL_MAGIC || *length != in.remaining()) return std::nullopt;
    return ctrl_content{*type, in.rest()};
}

/// The value of the payload's first JSON attribute; null where there is none or its text does not parse. A zero byte
/// stands behind the payload of every received message, so that a text ends there at the latest.
inline json_t *json_of(std::span<const uint8_t> payload)
{
    ctrl_attribute attribute = {};
    auto remaining = static_cast<int64_t>(payload.size()); // an attribute may claim more than there is
    while (remaining > int64_t{sizeof attribute}) {
        const uint8_t *at = payload.data() + (payload.size() - static_cast<size_t>(remaining));
        memcpy(&attribute, at, sizeof attribute);
        const uint8_t *data = at + sizeof attribute;
        // On purpose: the text goes on to its NUL, whatever length the attribute gives; the daemon is trusted with it.
        if (attribute.type == CTRL_ATTR_JSON) return json_loads(reinterpret_cast<const char *>(data), 0, nullptr);
        remaining -= int64_t{sizeof attribute} + attribute.len;
    }
    return nullptr;
}

} // namespace vela
