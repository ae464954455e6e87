// Values of bus messages as JSON, and JSON as values of bus messages.
#pragma once

#include <libubus.h>
#include <vela/core/internal/json.h>

namespace vela
{

/// Appends the members of a JSON object to a message that has been begun. Whole numbers are INT32 where they fit, else
/// INT64; true and false are INT8, null is a value without a type.
///
/// @param most  bytes that may be added
/// @return 0; -EINVAL for what no message can carry (more than 16 levels, a NUL inside a text, a name of 64 KiB);
///         -EMSGSIZE; -ENOMEM
int append_json(blob_buf &message, const json_t *object, size_t most);

/// Adds the values of a message to a JSON object; of two with one name the later stays. Text is made UTF-8, a number
/// that is not finite is left out. `message` lies whole in memory; what is inside may be anything.
///
/// @return 0; -EBADMSG for a malformed value, or more than 16 levels; -ENOMEM
int read_json(json_t *object, const blob_attr *message);

/// Adds a member to an object, its name made UTF-8. 0 or -ENOMEM.
int add_clean(json_t *object, const char *name, json_ref value);

} // namespace vela
