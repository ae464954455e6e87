// The crash service's answer: JSON from outside.
#pragma once

#include <string_view>
#include <vela/core/internal/json.h>

namespace vela::telemetry
{

/// The answer to a posted report, or null (logged) when the bytes are no JSON document.
json_ref parse_answer(std::string_view body);

/// A copy of the address to upload to; null when the answer names none, or one of another protocol than HTTP.
c_string upload_url(const json_t *answer);

} // namespace vela::telemetry
