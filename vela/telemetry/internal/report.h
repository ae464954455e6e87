// What crash reports and traces have in common: facts of the device, whether and where to send, and the answer's body.
#pragma once

#include <jansson.h>
#include <string_view>
#include <vela/core/internal/json.h>
#include <vela/net/curl_simple.h>

namespace vela::telemetry
{

inline constexpr const char *config_path = "/tmp/system.cfg";
inline constexpr const char *system_info_path = "/proc/velahal/system.info";

inline constexpr const char *no_response_record = "Failed to allocate curl response";

using response_ptr = std::unique_ptr<curl_simple_response, releaser<curl_simple_response_free>>;

/// True unless the owner switched analytics off.
bool analytics_on();

/// One of two base URLs: the development one where this installation is not a production one.
const char *service_url(const char *production, const char *development);

bool is_factory_default();

/// The firmware version's text; a read error is logged for the caller, and the text is a placeholder then.
const char *firmware_version(const char *module, const char *function);

/// A number as a JSON text.
json_t *decimal_text(json_int_t value);

/// Adds a member. One that cannot be made (null: memory is short, or a text is not UTF-8) is left out: a report without
/// it is better than none.
void add(json_t *object, const char *key, json_t *value);

/// Adds a text member unless it is empty.
void add_unless_empty(json_t *object, const char *key, const char *text);

/// The kept body of a response; it has no NUL at its end.
std::string_view body_of(const curl_simple_response &response);

} // namespace vela::telemetry
