// What both kinds of attribute, plain and named, are built with.
#pragma once

#include <libubox/blob.h>

namespace vela::bus
{

/// Appends an attribute to the innermost open one: header and zeroed padding are written, the payload is the caller's
/// to fill. Null when memory or the 24 bits of the outermost length run out; the message is then as it was.
///
/// @param id_bits  id and extended bit, as they stand in the first word
blob_attr *append(blob_buf *buf, uint32_t id_bits, size_t payload);

/// Makes an attribute just appended the innermost open one. Returns the cookie that closes it; null for null.
void *open(blob_buf *buf, blob_attr *attr);

constexpr uint32_t id_bits(int id) { return static_cast<uint32_t>(id) << BLOB_ATTR_ID_SHIFT & BLOB_ATTR_ID_MASK; }

} // namespace vela::bus
