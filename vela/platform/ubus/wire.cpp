// Which attributes the frames of the bus carry, and of which type.

#include <vela/platform/ubus/wire.h>

namespace vela::bus
{

namespace
{

enum class kind : uint8_t { unknown, number8, number32, text, nested };

constexpr auto kinds = [] {
    std::array<kind, std::tuple_size_v<attributes>> k{};
    k[attr_status] = k[attr_objid] = k[attr_objtype] = k[attr_target] = kind::number32;
    k[attr_objpath] = k[attr_method] = kind::text;
    k[attr_signature] = k[attr_data] = kind::nested;
    k[attr_no_reply] = kind::number8;
    return k;
}();

bool is_of(kind k, const blob_attr *attr)
{
    if (blob_raw_len(attr) < sizeof *attr) return false;
    const size_t length = blob_len(attr);
    switch (k) {
    case kind::unknown: return false;
    case kind::number8: return length == sizeof(uint8_t);
    case kind::number32: return length == sizeof(uint32_t);
    case kind::text: return length != 0 && static_cast<const char *>(blob_data(attr))[length - 1] == '\0';
    case kind::nested: return true;
    }
    return false;
}

} // namespace

attributes parse(std::span<uint8_t> body)
{
    attributes found{};
    size_t left = body.size();
    for (auto *attr = reinterpret_cast<blob_attr *>(body.data()); blob_fits(attr, left); attr = blob_next(attr)) {
        const unsigned id = blob_id(attr);
        if (id < found.size() && is_of(kinds[id], attr)) found[id] = attr; // of several the last counts
        left -= blob_pad_len(attr);
    }
    return found;
}

} // namespace vela::bus
