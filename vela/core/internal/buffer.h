// The owner of a growable buffer, and how far its memory reaches.
#pragma once

#include <vela/core/buffer.h>
#include <vela/core/internal/memory.h>

namespace vela
{

using buffer_ptr = std::unique_ptr<buffer, releaser<buffer_destroy>>;

/// Bytes from the first unread one to the end of the allocation.
uint32_t bytes_to_end(const buffer &b);

} // namespace vela
