// The owner of a growable buffer.
#pragma once

#include <vela/core/buffer.h>
#include <vela/core/internal/memory.h>

namespace vela
{

using buffer_ptr = std::unique_ptr<buffer, releaser<buffer_destroy>>;

} // namespace vela
