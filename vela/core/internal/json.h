// Owners of JSON values and of their text.
#pragma once

#include <jansson.h>
#include <vela/core/internal/memory.h>

namespace vela
{

inline void release_json(json_t *value) { json_decref(value); }

/// One reference to a value. Give it away in the very call that takes it: `json_object_set_new(o, "k", v.release())`.
using json_ref = std::unique_ptr<json_t, releaser<release_json>>;

} // namespace vela
